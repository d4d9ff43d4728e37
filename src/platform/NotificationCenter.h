#pragma once
// The notification centre: objects post named notifications, optionally naming themselves as the
// sender, and observers registered for a name and a sender receive them. An empty name or a null
// sender in a registration matches every name or every sender.

#include "platform/DispatchQueue.h"

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

struct Notification {
    std::string name;
    // The object that posted it; compared by address only, never dereferenced by the centre.
    const void* sender = nullptr;
    std::map<std::string, std::any, std::less<>> userInfo;

    // The userInfo value for key as T, or nullopt when it is absent or of another type.
    template <typename T> std::optional<T> userInfoValue(std::string_view key) const {
        auto found = userInfo.find(key);
        if (found == userInfo.end())
            return std::nullopt;
        if (const T* value = std::any_cast<T>(&found->second))
            return *value;
        return std::nullopt;
    }
};

using NotificationObserverToken = std::uint64_t;

class NotificationCenter {
public:
    using Handler = std::function<void(const Notification& notification)>;

    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // Registers handler for notifications called name (all when empty) from sender (any when null).
    // With a queue, the handler runs there asynchronously; without one, on the posting thread during
    // post.
    NotificationObserverToken addObserver(std::string name, const void* sender, Handler handler,
                                          std::optional<DispatchQueue> queue = std::nullopt);

    // After this returns the handler is not called again: deliveries running on other threads have
    // finished and those waiting on a queue are dropped. A handler may remove itself.
    void removeObserver(NotificationObserverToken token);

    // Delivers to every matching observer, in the order they registered.
    void post(const Notification& notification);
    void post(std::string name, const void* sender = nullptr,
              std::map<std::string, std::any, std::less<>> userInfo = {});

private:
    struct Registration;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Registration>> registrations_;
    NotificationObserverToken nextToken_ = 1;
};

} // namespace tavolar
