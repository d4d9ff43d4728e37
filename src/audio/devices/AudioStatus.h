#pragma once
// Status codes of the audio library. 0 is success; the library's own failures are the negative codes
// below; a backend passes its own positive codes on (a JACK status word, a sound-file error number).
// Controllers put the failing status into their error messages and error codes.

#include <cstdint>

namespace tavolar {

using AudioStatus = std::int32_t;

inline constexpr AudioStatus kAudioStatusNoError = 0;
inline constexpr AudioStatus kAudioStatusDeviceNotFound = -66001;
inline constexpr AudioStatus kAudioStatusFormatNotSupported = -66002;
inline constexpr AudioStatus kAudioStatusInvalidProperty = -66003;
inline constexpr AudioStatus kAudioStatusInvalidChannel = -66004;
inline constexpr AudioStatus kAudioStatusUninitialized = -66005;
inline constexpr AudioStatus kAudioStatusInvalidParameter = -66006;
inline constexpr AudioStatus kAudioStatusServerFailure = -66007;
inline constexpr AudioStatus kAudioStatusFileFailure = -66008;
inline constexpr AudioStatus kAudioStatusInvalidScope = -66009;
inline constexpr AudioStatus kAudioStatusInvalidElement = -66010;
inline constexpr AudioStatus kAudioStatusNoConnection = -66011;
inline constexpr AudioStatus kAudioStatusTooManyFrames = -66012;

// A short English description of a status, for logs and tests.
const char* audioStatusDescription(AudioStatus status) noexcept;

} // namespace tavolar
