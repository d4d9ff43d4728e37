#pragma once
// A small key-value observing mechanism. A class derives from Observable, calls
// didChangeValueForKey from its setters, and declares which key paths a key's value depends on.
// Observers are told of a change to the key itself and to every key path that depends on it.
// Copies of an object start with no observers. Observers run on the thread that made the change.

#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

using ObservationToken = std::uint64_t;

class Observable {
public:
    using Observer = std::function<void(std::string_view keyPath)>;

    Observable() = default;
    Observable(const Observable&) {}
    Observable& operator=(const Observable&) { return *this; }
    virtual ~Observable() = default;

    ObservationToken addObserver(std::string keyPath, Observer observer);
    void removeObserver(ObservationToken token);

    // The key paths whose change changes the value of key (none by default).
    virtual std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const {
        return {};
    }

protected:
    void didChangeValueForKey(std::string_view key);

private:
    struct Registration {
        ObservationToken token;
        std::string keyPath;
        Observer observer;
    };
    mutable std::mutex mutex_;
    std::vector<Registration> registrations_;
    ObservationToken nextToken_ = 1;
};

} // namespace tavolar
