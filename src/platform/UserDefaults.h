#pragma once
// User defaults: persistent settings by key. A value is looked up among the values set (kept in a
// JSON file) and then among the registered defaults, which are not stored. Missing keys answer
// false, 0 or nothing. All members are thread-safe.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tavolar {

// Posted by a UserDefaults (as the sender) after one of its values changed.
inline constexpr std::string_view kUserDefaultsDidChangeNotification = "UserDefaultsDidChangeNotification";

class UserDefaults {
public:
    // The process's defaults, stored in defaultsFilePath().
    static UserDefaults& standard();

    // Where standard() keeps its file: $TAVOLAR_DEFAULTS_FILE when set, otherwise
    // $XDG_CONFIG_HOME/tavolar/defaults.json, otherwise ~/.config/tavolar/defaults.json.
    static std::filesystem::path defaultsFilePath();

    // Defaults kept in file, which is read now; a missing file is an empty store, a damaged one is
    // logged and treated as empty (and kept aside as "<file>.damaged" when the store is next written).
    explicit UserDefaults(std::filesystem::path file);
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::filesystem::path& filePath() const noexcept { return file_; }

    // Adds to the registered defaults (a JSON object; its entries replace earlier registrations).
    void registerDefaults(const nlohmann::json& defaults);

    // Numbers convert to booleans (non-zero), strings as "YES", "true" or a non-zero number do.
    bool boolForKey(std::string_view key) const;
    // Numbers truncated toward zero, booleans as 0 and 1, strings by their leading number.
    std::int64_t integerForKey(std::string_view key) const;
    double doubleForKey(std::string_view key) const;
    float floatForKey(std::string_view key) const;
    // Strings, and numbers written out; nullopt for anything else.
    std::optional<std::string> stringForKey(std::string_view key) const;
    std::optional<nlohmann::json> objectForKey(std::string_view key) const;

    // Each setter stores the value and writes the file at once (a new file renamed over the old one,
    // so a crash never leaves half a file). A failed write is logged; the value stays set in memory.
    void setBool(bool value, std::string_view key);
    void setInteger(std::int64_t value, std::string_view key);
    void setDouble(double value, std::string_view key);
    void setFloat(float value, std::string_view key);
    void setString(std::string_view value, std::string_view key);
    void setObject(const nlohmann::json& value, std::string_view key);
    void removeObjectForKey(std::string_view key);

    // Writes the stored values now; false (and logged) when the file cannot be written.
    bool synchronize();

private:
    std::optional<nlohmann::json> lookUp(std::string_view key) const;
    void store(std::string_view key, std::optional<nlohmann::json> value);
    bool writeLocked();

    const std::filesystem::path file_;
    mutable std::mutex mutex_;
    nlohmann::json values_ = nlohmann::json::object();
    nlohmann::json registered_ = nlohmann::json::object();
    bool damaged_ = false;
};

} // namespace tavolar
