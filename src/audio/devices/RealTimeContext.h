#pragma once
// Marks the code that runs inside an audio callback, so that what must never happen there
// (allocation, locking) can be detected, and flushes denormals for the callback's scope.

#include <cstdint>

namespace tavolar {

// True while the calling thread is inside an audio callback (a RealTimeCallbackScope is alive).
bool isInsideAudioCallback() noexcept;

// Lives for the duration of one audio callback: marks the thread as running real-time code and
// turns on flush-to-zero and denormals-are-zero, restoring the previous modes on exit.
class RealTimeCallbackScope {
public:
    RealTimeCallbackScope() noexcept;
    ~RealTimeCallbackScope();
    RealTimeCallbackScope(const RealTimeCallbackScope&) = delete;
    RealTimeCallbackScope& operator=(const RealTimeCallbackScope&) = delete;

private:
    std::uint32_t savedControl_ = 0;
};

} // namespace tavolar
