#include "platform/NotificationCenter.h"

#include "platform/Assertions.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

namespace tavolar {

// A registration knows which threads are inside its handler, so that removal can wait for them and
// then keep later deliveries from starting.
struct NotificationCenter::Registration {
    NotificationObserverToken token;
    std::string name;
    const void* sender;
    Handler handler;
    std::optional<DispatchQueue> queue;

    std::mutex mutex;
    std::condition_variable idle;
    bool removed = false;
    std::vector<std::thread::id> activeThreads;

    void deliver(const Notification& notification) {
        {
            std::lock_guard lock(mutex);
            if (removed)
                return;
            activeThreads.push_back(std::this_thread::get_id());
        }
        struct Leave {
            Registration& registration;
            ~Leave() {
                std::lock_guard lock(registration.mutex);
                auto& threads = registration.activeThreads;
                threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
                registration.idle.notify_all();
            }
        } leave{*this};
        handler(notification);
    }

    void remove() {
        std::unique_lock lock(mutex);
        removed = true;
        auto self = std::this_thread::get_id();
        idle.wait(lock, [&] {
            return std::all_of(activeThreads.begin(), activeThreads.end(),
                               [&](std::thread::id thread) { return thread == self; });
        });
    }
};

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: observers may be removed during static destruction.
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

NotificationObserverToken NotificationCenter::addObserver(std::string name, const void* sender,
                                                          Handler handler,
                                                          std::optional<DispatchQueue> queue) {
    TAVOLAR_PARAMETER_ASSERT(handler != nullptr);
    auto registration = std::make_shared<Registration>();
    registration->name = std::move(name);
    registration->sender = sender;
    registration->handler = std::move(handler);
    registration->queue = std::move(queue);
    std::lock_guard lock(mutex_);
    registration->token = nextToken_++;
    registrations_.push_back(std::move(registration));
    return registrations_.back()->token;
}

void NotificationCenter::removeObserver(NotificationObserverToken token) {
    std::shared_ptr<Registration> removed;
    {
        std::lock_guard lock(mutex_);
        auto found = std::find_if(registrations_.begin(), registrations_.end(),
                                  [token](const auto& registration) { return registration->token == token; });
        if (found == registrations_.end())
            return;
        removed = std::move(*found);
        registrations_.erase(found);
    }
    removed->remove();
}

void NotificationCenter::post(const Notification& notification) {
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& registration : registrations_) {
            bool nameMatches = registration->name.empty() || registration->name == notification.name;
            bool senderMatches =
                registration->sender == nullptr || registration->sender == notification.sender;
            if (nameMatches && senderMatches)
                matching.push_back(registration);
        }
    }
    // Handlers run outside the centre's lock, so that they may post or remove observers themselves.
    std::shared_ptr<const Notification> queued;
    for (const auto& registration : matching) {
        if (!registration->queue) {
            registration->deliver(notification);
            continue;
        }
        if (!queued)
            queued = std::make_shared<const Notification>(notification);
        registration->queue->async([registration, queued] { registration->deliver(*queued); });
    }
}

void NotificationCenter::post(std::string name, const void* sender,
                              std::map<std::string, std::any, std::less<>> userInfo) {
    post(Notification{std::move(name), sender, std::move(userInfo)});
}

} // namespace tavolar
