#include "platform/UserDefaults.h"

#include "platform/Assertions.h"
#include "platform/Logging.h"
#include "platform/NotificationCenter.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <limits>
#include <sstream>
#include <unistd.h>

namespace tavolar {

using nlohmann::json;

namespace {

// A defaults file is small; anything much larger is not one.
constexpr std::uintmax_t kMaximumFileSize = std::uintmax_t{16} << 20;

std::optional<json> readFile(const std::filesystem::path& file, std::string& problem) {
    std::error_code error;
    auto status = std::filesystem::status(file, error);
    if (error || !std::filesystem::exists(status))
        return json::object();
    if (!std::filesystem::is_regular_file(status)) {
        problem = "it is not a file";
        return std::nullopt;
    }
    auto size = std::filesystem::file_size(file, error);
    if (error || size > kMaximumFileSize) {
        problem = error ? error.message() : "it is too large";
        return std::nullopt;
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        problem = "it cannot be opened";
        return std::nullopt;
    }
    std::ostringstream contents;
    contents << stream.rdbuf();
    json parsed = json::parse(contents.str(), nullptr, false);
    if (parsed.is_discarded()) {
        problem = "it is not valid JSON";
        return std::nullopt;
    }
    if (!parsed.is_object()) {
        problem = "it does not hold a dictionary";
        return std::nullopt;
    }
    return parsed;
}

// The value of a string the way the platform reads a boolean from text: leading spaces, then "Y", "y",
// "T", "t" or a non-zero digit.
bool boolFromString(std::string_view text) {
    std::size_t i = text.find_first_not_of(" \t\n");
    if (i == std::string_view::npos)
        return false;
    if (text[i] == '+' || text[i] == '-')
        ++i;
    while (i < text.size() && text[i] == '0')
        ++i;
    if (i >= text.size())
        return false;
    char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

double doubleFromString(const std::string& text) {
    const char* start = text.c_str();
    char* end = nullptr;
    double value = std::strtod(start, &end);
    return end == start ? 0.0 : value;
}

std::int64_t integerFromDouble(double value) {
    if (!std::isfinite(value))
        return 0;
    double truncated = std::trunc(value);
    if (truncated >= 9223372036854775807.0)
        return std::numeric_limits<std::int64_t>::max();
    if (truncated <= -9223372036854775808.0)
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(truncated);
}

std::filesystem::path temporaryPathBeside(const std::filesystem::path& file) {
    static std::atomic<unsigned> counter{0};
    return file.parent_path() / fmt::format(".{}.{}.{}.tmp", file.filename().string(),
                                            static_cast<long>(getpid()), counter.fetch_add(1));
}

// Writes text to a new file beside file, flushes it to the disk and renames it over file.
bool writeAtomically(const std::filesystem::path& file, const std::string& text, std::string& problem) {
    std::error_code error;
    if (file.has_parent_path()) {
        std::filesystem::create_directories(file.parent_path(), error);
        if (error) {
            problem = error.message();
            return false;
        }
    }
    std::filesystem::path temporary = temporaryPathBeside(file);
    int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (descriptor < 0) {
        problem = std::strerror(errno);
        return false;
    }
    std::size_t written = 0;
    while (written < text.size()) {
        ssize_t result = ::write(descriptor, text.data() + written, text.size() - written);
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0)
            break;
        written += static_cast<std::size_t>(result);
    }
    bool complete = written == text.size() && ::fsync(descriptor) == 0;
    if (!complete)
        problem = std::strerror(errno);
    ::close(descriptor);
    if (complete && std::rename(temporary.c_str(), file.c_str()) != 0) {
        problem = std::strerror(errno);
        complete = false;
    }
    if (!complete)
        std::filesystem::remove(temporary, error);
    return complete;
}

void assertKey(std::string_view key) {
    TAVOLAR_PARAMETER_ASSERT(!key.empty());
}

} // namespace

UserDefaults& UserDefaults::standard() {
    // Never destroyed, so that settings can be read during static destruction.
    static UserDefaults* defaults = new UserDefaults(defaultsFilePath());
    return *defaults;
}

std::filesystem::path UserDefaults::defaultsFilePath() {
    if (const char* file = std::getenv("TAVOLAR_DEFAULTS_FILE"); file && *file)
        return file;
    std::filesystem::path configuration;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/')
        configuration = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        configuration = std::filesystem::path(home) / ".config";
    else
        configuration = std::filesystem::temp_directory_path();
    return configuration / "tavolar" / "defaults.json";
}

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {
    std::string problem;
    std::optional<json> contents;
    try {
        contents = readFile(file_, problem);
    } catch (const std::exception& exception) {
        problem = exception.what();
    }
    if (contents) {
        values_ = std::move(*contents);
    } else {
        damaged_ = true;
        logError(__FILE__,
                 fmt::format("The defaults file {} is damaged and was ignored: {}", file_.string(), problem));
    }
}

void UserDefaults::registerDefaults(const nlohmann::json& defaults) {
    TAVOLAR_PARAMETER_ASSERT(defaults.is_object());
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : defaults.items())
        registered_[key] = value;
}

std::optional<json> UserDefaults::lookUp(std::string_view key) const {
    assertKey(key);
    std::lock_guard lock(mutex_);
    if (auto found = values_.find(key); found != values_.end())
        return *found;
    if (auto found = registered_.find(key); found != registered_.end())
        return *found;
    return std::nullopt;
}

bool UserDefaults::boolForKey(std::string_view key) const {
    auto value = lookUp(key);
    if (!value)
        return false;
    if (value->is_boolean())
        return value->get<bool>();
    if (value->is_number())
        return value->get<double>() != 0.0;
    if (value->is_string())
        return boolFromString(value->get_ref<const std::string&>());
    return false;
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
    auto value = lookUp(key);
    if (!value)
        return 0;
    if (value->is_boolean())
        return value->get<bool>() ? 1 : 0;
    if (value->is_number_integer())
        return value->is_number_unsigned() && value->get<std::uint64_t>() > std::uint64_t{INT64_MAX}
                   ? std::numeric_limits<std::int64_t>::max()
                   : value->get<std::int64_t>();
    if (value->is_number_float())
        return integerFromDouble(value->get<double>());
    if (value->is_string())
        return integerFromDouble(doubleFromString(value->get_ref<const std::string&>()));
    return 0;
}

double UserDefaults::doubleForKey(std::string_view key) const {
    auto value = lookUp(key);
    if (!value)
        return 0.0;
    if (value->is_boolean())
        return value->get<bool>() ? 1.0 : 0.0;
    if (value->is_number())
        return value->get<double>();
    if (value->is_string())
        return doubleFromString(value->get_ref<const std::string&>());
    return 0.0;
}

float UserDefaults::floatForKey(std::string_view key) const {
    double value = doubleForKey(key);
    // Out-of-range values saturate to infinity rather than being undefined.
    if (std::isfinite(value) && std::fabs(value) > static_cast<double>(std::numeric_limits<float>::max()))
        return value > 0 ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
    return static_cast<float>(value);
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
    auto value = lookUp(key);
    if (!value)
        return std::nullopt;
    if (value->is_string())
        return value->get<std::string>();
    if (value->is_number_integer())
        return value->dump();
    if (value->is_number_float())
        return fmt::format("{}", value->get<double>());
    return std::nullopt;
}

std::optional<nlohmann::json> UserDefaults::objectForKey(std::string_view key) const {
    return lookUp(key);
}

void UserDefaults::setBool(bool value, std::string_view key) {
    store(key, json(value));
}
void UserDefaults::setInteger(std::int64_t value, std::string_view key) {
    store(key, json(value));
}
void UserDefaults::setDouble(double value, std::string_view key) {
    store(key, json(value));
}
void UserDefaults::setFloat(float value, std::string_view key) {
    store(key, json(static_cast<double>(value)));
}
void UserDefaults::setString(std::string_view value, std::string_view key) {
    store(key, json(std::string(value)));
}
void UserDefaults::setObject(const nlohmann::json& value, std::string_view key) {
    // A null object removes the key, as setting nil does.
    store(key, value.is_null() ? std::nullopt : std::optional<json>(value));
}
void UserDefaults::removeObjectForKey(std::string_view key) {
    store(key, std::nullopt);
}

void UserDefaults::store(std::string_view key, std::optional<nlohmann::json> value) {
    assertKey(key);
    {
        std::lock_guard lock(mutex_);
        if (value)
            values_[std::string(key)] = std::move(*value);
        else if (auto found = values_.find(key); found != values_.end())
            values_.erase(found);
        else
            return;
        writeLocked();
    }
    NotificationCenter::defaultCenter().post(std::string(kUserDefaultsDidChangeNotification), this,
                                             {{"key", std::string(key)}});
}

bool UserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    return writeLocked();
}

bool UserDefaults::writeLocked() {
    if (damaged_) {
        // Keep the damaged file for whoever wants to look at it, rather than overwrite it.
        std::error_code error;
        std::filesystem::path aside = file_;
        aside += ".damaged";
        std::filesystem::rename(file_, aside, error);
        damaged_ = false;
    }
    std::string problem;
    std::string text = values_.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
    if (writeAtomically(file_, text, problem))
        return true;
    logError(__FILE__, fmt::format("Could not write the defaults file {}: {}", file_.string(), problem));
    return false;
}

} // namespace tavolar
