#pragma once
// The main run loop: the only place where work put on DispatchQueue::main() runs. The host (or a
// test) drives it from the main thread, between its own events.

#include <chrono>
#include <cstddef>
#include <functional>

namespace tavolar {

class RunLoop {
public:
    using Clock = std::chrono::steady_clock;

    // Runs the main-queue items that are waiting, waiting up to timeout for the first one; answers how
    // many ran. Items added while they run wait for the next call.
    static std::size_t runOnce(Clock::duration timeout = Clock::duration::zero());

    // Runs main-queue items until predicate answers true or timeout passes, and answers the predicate.
    // The predicate is checked before and after every item and at least every few milliseconds, so it
    // may watch state that other threads change.
    static bool runUntil(const std::function<bool()>& predicate, Clock::duration timeout);

    // Runs main-queue items until stop() is called (from any thread or from an item).
    static void run();
    static void stop();
};

} // namespace tavolar
