#pragma once
// A list of audio buffers made once and reused: one buffer per channel (non-interleaved) or one
// buffer of all channels (interleaved). The storage is allocated by the constructor and never
// again, so a real-time callback may fill and read it; only byteSize changes as buffers are used.

#include "math/AlignedBuffer.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tavolar {

struct AudioBuffer {
    std::uint32_t numberChannels = 1; // channels interleaved in this buffer
    std::uint32_t byteSize = 0;       // bytes in use
    std::uint32_t capacityBytes = 0;  // bytes allocated
    float* data = nullptr;

    std::uint32_t frameCount() const noexcept { return byteSize / (4u * numberChannels); }
    std::span<float> samples() noexcept { return {data, byteSize / 4u}; }
    std::span<const float> samples() const noexcept { return {data, byteSize / 4u}; }
};

class VELTAudioBufferList {
public:
    VELTAudioBufferList() = default;
    // bufferCount buffers of capacityFrames frames of bytesPerFrame bytes each (4 bytes times the
    // channels interleaved in a buffer); every buffer starts full (byteSize = capacity) and silent.
    VELTAudioBufferList(std::uint32_t bufferCount, std::uint32_t capacityFrames, std::uint32_t bytesPerFrame);

    VELTAudioBufferList(VELTAudioBufferList&&) noexcept = default;
    VELTAudioBufferList& operator=(VELTAudioBufferList&&) noexcept = default;
    VELTAudioBufferList(const VELTAudioBufferList&) = delete;
    VELTAudioBufferList& operator=(const VELTAudioBufferList&) = delete;

    std::uint32_t numberBuffers() const noexcept { return static_cast<std::uint32_t>(buffers_.size()); }
    std::uint32_t capacityFrames() const noexcept { return capacityFrames_; }
    AudioBuffer& operator[](std::size_t index) noexcept { return buffers_[index]; }
    const AudioBuffer& operator[](std::size_t index) const noexcept { return buffers_[index]; }
    std::span<AudioBuffer> buffers() noexcept { return buffers_; }
    std::span<const AudioBuffer> buffers() const noexcept { return buffers_; }

    // Sets every buffer's byteSize to hold frames frames (at most the capacity).
    void setFrameCount(std::uint32_t frames) noexcept;
    // Zeroes every buffer from frame firstFrame to the end of its capacity.
    void silence(std::uint32_t firstFrame = 0) noexcept;

private:
    std::uint32_t capacityFrames_ = 0;
    AlignedBuffer<float> storage_;
    std::vector<AudioBuffer> buffers_;
};

} // namespace tavolar
