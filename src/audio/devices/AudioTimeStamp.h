#pragma once
// The time of one audio buffer: a position on the device's sample clock, the same moment on the
// host clock (nanoseconds of CLOCK_MONOTONIC), and the ratio of the device's actual rate to its
// nominal rate. flags says which of the fields hold valid values.

#include <cstdint>

namespace tavolar {

enum AudioTimeStampFlags : std::uint32_t {
    kAudioTimeStampSampleTimeValid = 1u << 0,
    kAudioTimeStampHostTimeValid = 1u << 1,
    kAudioTimeStampRateScalarValid = 1u << 2,
};

struct AudioTimeStamp {
    double sampleTime = 0.0;    // in frames of the device's clock
    std::uint64_t hostTime = 0; // nanoseconds on the monotonic clock
    double rateScalar = 0.0;    // actual rate / nominal rate
    std::uint32_t flags = 0;    // AudioTimeStampFlags

    bool operator==(const AudioTimeStamp&) const = default;
};

// Nanoseconds of the monotonic clock, the host time line of every device.
std::uint64_t currentHostTime() noexcept;

} // namespace tavolar
