#pragma once
// A pool of reusable objects of one kind (FFT working sets): borrowers take a free object, or a new
// one when none is free, and give it back when done, so that no more objects exist than were ever
// borrowed at the same time. The list of free objects is touched only on the pool's private serial
// queue; borrow and giveBack may be called from any thread.
//
// A round trip to a serial queue costs tens of microseconds, more than a slice's transform, so each
// thread keeps the last object it gave back to a pool and takes it again without one: a worker that
// computes slice after slice goes to the queue once. The kept object is the thread's own, counted as
// borrowed; it goes back to the list when the thread gives back another, and is freed with the
// thread when the pool has gone.

#include "platform/DispatchQueue.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
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

    // The object this thread gave back last, or a free one, or a new one; it belongs to the caller
    // until given back.
    std::unique_ptr<Resource> borrow() {
        Kept& kept = keptByThisThread();
        if (kept.resource && kept.pool == state_->identity)
            return std::move(kept.resource);
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

    // Returns at once. The thread keeps the object for its next borrow; the one it kept before (of
    // this pool) joins the free list on the pool's queue, which keeps the list alive until then even
    // if the pool itself has gone.
    void giveBack(std::unique_ptr<Resource> resource) {
        if (!resource)
            return;
        Kept& kept = keptByThisThread();
        std::unique_ptr<Resource> previous = std::exchange(kept.resource, std::move(resource));
        const bool previousIsOurs = kept.pool == state_->identity;
        kept.pool = state_->identity;
        if (previous && previousIsOurs) {
            auto shared = std::make_shared<std::unique_ptr<Resource>>(std::move(previous));
            queue_.async([state = state_, shared] { state->free.push_back(std::move(*shared)); });
        }
    }

    // How many objects the pool has made, and how many are on its free list, once every pending
    // give-back is in.
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
        // Never reused, unlike addresses: a kept object is never taken for another pool's.
        const std::uint64_t identity = nextIdentity().fetch_add(1) + 1;
        Factory make;
        std::vector<std::unique_ptr<Resource>> free;
        std::size_t made = 0;
    };
    struct Kept {
        std::uint64_t pool = 0;
        std::unique_ptr<Resource> resource;
    };
    static std::atomic<std::uint64_t>& nextIdentity() {
        static std::atomic<std::uint64_t> identity{0};
        return identity;
    }
    static Kept& keptByThisThread() {
        thread_local Kept kept;
        return kept;
    }

    std::shared_ptr<State> state_;
    DispatchQueue queue_;
};

} // namespace tavolar
