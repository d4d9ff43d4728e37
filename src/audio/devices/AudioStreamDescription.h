#pragma once
// The layout of linear PCM audio in buffers and files, reduced to what this library handles:
// 32-bit float samples, interleaved or one buffer per channel.

#include "audio/devices/AudioStatus.h"

#include <cstdint>

namespace tavolar {

enum AudioFormatFlags : std::uint32_t {
    kAudioFormatFlagIsFloat = 1u << 0,
    kAudioFormatFlagIsBigEndian = 1u << 1,
    kAudioFormatFlagIsSignedInteger = 1u << 2,
    kAudioFormatFlagIsPacked = 1u << 3,
    kAudioFormatFlagIsNonInterleaved = 1u << 5,
};

// Float, packed, one buffer per channel (41) and float, packed, interleaved (9).
inline constexpr std::uint32_t kAudioFormatFlagsFloatNonInterleaved =
    kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked | kAudioFormatFlagIsNonInterleaved;
inline constexpr std::uint32_t kAudioFormatFlagsFloatInterleaved =
    kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;

struct AudioStreamDescription {
    double sampleRate = 0.0;
    std::uint32_t formatFlags = 0;
    std::uint32_t bytesPerPacket = 0;
    std::uint32_t framesPerPacket = 0;
    std::uint32_t bytesPerFrame = 0;
    std::uint32_t channelsPerFrame = 0;
    std::uint32_t bitsPerChannel = 0;

    bool isInterleaved() const noexcept { return (formatFlags & kAudioFormatFlagIsNonInterleaved) == 0; }
    // Bytes of one frame of one buffer: all channels when interleaved, one channel otherwise.
    std::uint32_t bytesPerFrameOfBuffer() const noexcept;
    // Sets the channel count and makes the byte counts fit it.
    void normalizeBytesForChannels(std::uint32_t channels) noexcept;

    bool operator==(const AudioStreamDescription&) const = default;
};

// 32-bit float linear PCM with the given flags and channel count, byte counts as given (the caller
// may leave them as they are and let audioFormatInfo complete them).
AudioStreamDescription floatStreamDescription(double sampleRate, std::uint32_t formatFlags,
                                              std::uint32_t channels, std::uint32_t bytesPerFrame);

// Completes a description: checks that it is a format this library handles (32-bit float, packed,
// positive rate and channel count) and fills the byte counts and frames per packet from the layout.
// On failure answers kAudioStatusFormatNotSupported and leaves the description unchanged.
AudioStatus audioFormatInfo(AudioStreamDescription& description) noexcept;

} // namespace tavolar
