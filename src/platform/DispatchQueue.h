#pragma once
// Dispatch queues: a serial queue runs its work items one at a time in the order they were added,
// on a thread of its own that exists while there is work; the global queue runs items concurrently
// on a shared pool; the main queue runs items only when the host's run loop (RunLoop) drains it.
// A DispatchQueue is a handle: copies refer to the same queue, which lives while a handle or a
// pending work item refers to it.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tavolar {

class DispatchQueue {
public:
    using WorkItem = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    // A new serial queue with the given label.
    explicit DispatchQueue(std::string label);

    // The concurrent queue shared by the whole process.
    static DispatchQueue global();
    // The queue drained by the main run loop.
    static DispatchQueue main();

    const std::string& label() const noexcept;
    bool isSerial() const noexcept;

    // Adds work and returns at once.
    void async(WorkItem work) const;

    // Runs work on this queue and waits for it; an exception it throws is rethrown here. Calling sync
    // on a serial queue from work running on that queue (directly or through other sync calls), or
    // on the main queue from the main thread, would never return: it fails an assertion instead.
    void sync(const WorkItem& work) const;

    // Adds work once the delay has passed.
    void asyncAfter(Clock::duration delay, WorkItem work) const;

    // True when the calling thread is running an item of this queue (for the main queue: is the main
    // thread).
    bool isCurrent() const;

    // Runs body(i) for i in [0, iterations) on the global pool and the calling thread, returning when all
    // have finished; the first exception thrown is rethrown here.
    static void concurrentPerform(std::size_t iterations, const std::function<void(std::size_t)>& body);

    bool operator==(const DispatchQueue& other) const noexcept { return impl_ == other.impl_; }

    struct Impl;

private:
    explicit DispatchQueue(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

// True on the process's initial thread, which drains the main queue.
bool isMainThread() noexcept;

} // namespace tavolar
