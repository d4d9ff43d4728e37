#include "platform/Observing.h"

#include <algorithm>
#include <set>

namespace tavolar {

ObservationToken Observable::addObserver(std::string keyPath, Observer observer) {
    std::lock_guard lock(mutex_);
    ObservationToken token = nextToken_++;
    registrations_.push_back(Registration{token, std::move(keyPath), std::move(observer)});
    return token;
}

void Observable::removeObserver(ObservationToken token) {
    std::lock_guard lock(mutex_);
    std::erase_if(registrations_,
                  [token](const Registration& registration) { return registration.token == token; });
}

namespace {

// True when a change of key changes the value at keyPath: the same key, or a path through it
// ("settings" changes "settings.sampleRate").
bool changes(std::string_view key, std::string_view keyPath) {
    return keyPath == key ||
           (keyPath.size() > key.size() && keyPath.starts_with(key) && keyPath[key.size()] == '.');
}

} // namespace

void Observable::didChangeValueForKey(std::string_view key) {
    std::vector<std::pair<std::string, Observer>> toNotify;
    {
        std::lock_guard lock(mutex_);
        // Each observed key path is told once, when key or any key path it depends on, directly
        // or through other dependent keys, is the one that changed.
        std::set<std::string, std::less<>> affected;
        for (const Registration& registration : registrations_) {
            const std::string& observed = registration.keyPath;
            bool isAffected = affected.contains(observed);
            if (!isAffected) {
                std::set<std::string, std::less<>> visited;
                std::vector<std::string> pending{observed};
                while (!pending.empty() && !isAffected) {
                    std::string candidate = std::move(pending.back());
                    pending.pop_back();
                    if (!visited.insert(candidate).second)
                        continue;
                    if (changes(key, candidate)) {
                        isAffected = true;
                        break;
                    }
                    for (std::string_view dependency : keyPathsForValuesAffectingValueForKey(candidate))
                        pending.emplace_back(dependency);
                }
            }
            if (isAffected) {
                affected.insert(observed);
                toNotify.emplace_back(observed, registration.observer);
            }
        }
    }
    // Observers run outside the lock, so that they may read the object or remove themselves.
    for (const auto& [keyPath, observer] : toNotify)
        observer(keyPath);
}

} // namespace tavolar
