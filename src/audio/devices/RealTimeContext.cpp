#include "audio/devices/RealTimeContext.h"

#include "audio/devices/AudioTimeStamp.h"

#include <ctime>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace tavolar {

namespace {
// Trivially initialised, so reading it never allocates (the allocator hooks of the tests read it).
thread_local int callbackDepth = 0;
} // namespace

bool isInsideAudioCallback() noexcept {
    return callbackDepth > 0;
}

RealTimeCallbackScope::RealTimeCallbackScope() noexcept {
    ++callbackDepth;
#if defined(__SSE__)
    savedControl_ = _mm_getcsr();
    _mm_setcsr(savedControl_ | 0x8040u); // flush to zero (bit 15) and denormals are zero (bit 6)
#endif
}

RealTimeCallbackScope::~RealTimeCallbackScope() {
#if defined(__SSE__)
    _mm_setcsr(savedControl_);
#endif
    --callbackDepth;
}

std::uint64_t currentHostTime() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * 1'000'000'000ull + std::uint64_t(now.tv_nsec);
}

} // namespace tavolar
