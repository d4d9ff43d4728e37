#pragma once
// A pool of reusable objects of one kind (FFT working sets): borrowers take a free object, or a new
// one when none is free, and give it back when done, so that no more objects exist than were ever
// borrowed at the same time. The list of free objects is touched only on the pool's private serial
// queue; borrow and giveBack may be called from any thread.

#include "platform/DispatchQueue.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavolar {

inline constexpr const char* kResourcePoolQueueLabel = "com.tavolar.graphcalc.resourcePool";

template <class Resource> class ResourcePool {
public:
    using Factory = std::function<std::unique_ptr<Resource>()>;

    explicit ResourcePool(Factory make)
        : state_(std::make_shared<State>(std::move(make))), queue_(kResourcePoolQueueLabel) {}
    ResourcePool(const ResourcePool&) = delete;
    ResourcePool& operator=(const ResourcePool&) = delete;

    const DispatchQueue& queue() const noexcept { return queue_; }

    // A free object, or a new one; it belongs to the caller until given back.
    std::unique_ptr<Resource> borrow() {
        std::unique_ptr<Resource> resource;
        queue_.sync([&] {
            if (!state_->free.empty()) {
                resource = std::move(state_->free.back());
                state_->free.pop_back();
            } else {
                resource = state_->make();
                ++state_->made;
            }
        });
        return resource;
    }

    // Returns at once; the object joins the free list on the pool's queue, which keeps the list
    // alive until then even if the pool itself has gone.
    void giveBack(std::unique_ptr<Resource> resource) {
        if (!resource)
            return;
        auto shared = std::make_shared<std::unique_ptr<Resource>>(std::move(resource));
        queue_.async([state = state_, shared] { state->free.push_back(std::move(*shared)); });
    }

    // How many objects the pool has made, and how many are free, once every pending give-back is in.
    std::size_t madeCount() const {
        std::size_t made = 0;
        queue_.sync([&] { made = state_->made; });
        return made;
    }
    std::size_t freeCount() const {
        std::size_t count = 0;
        queue_.sync([&] { count = state_->free.size(); });
        return count;
    }

private:
    struct State {
        explicit State(Factory factory) : make(std::move(factory)) {}
        Factory make;
        std::vector<std::unique_ptr<Resource>> free;
        std::size_t made = 0;
    };
    std::shared_ptr<State> state_;
    DispatchQueue queue_;
};

} // namespace tavolar
