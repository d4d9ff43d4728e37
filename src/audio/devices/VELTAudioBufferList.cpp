#include "audio/devices/VELTAudioBufferList.h"

#include "platform/Assertions.h"

#include <algorithm>
#include <cstring>

namespace tavolar {

VELTAudioBufferList::VELTAudioBufferList(std::uint32_t bufferCount, std::uint32_t capacityFrames,
                                         std::uint32_t bytesPerFrame)
    : capacityFrames_(capacityFrames) {
    TAVOLAR_PARAMETER_ASSERT(bytesPerFrame % 4 == 0 && bytesPerFrame > 0);
    std::uint32_t channelsPerBuffer = bytesPerFrame / 4;
    // Each buffer starts on a 64-byte boundary so that vectorised loops over it are aligned.
    std::size_t stride = (std::size_t(capacityFrames) * channelsPerBuffer + 15) / 16 * 16;
    storage_.assign(stride * bufferCount, 0.0f);
    buffers_.resize(bufferCount);
    for (std::uint32_t index = 0; index < bufferCount; ++index) {
        AudioBuffer& buffer = buffers_[index];
        buffer.numberChannels = channelsPerBuffer;
        buffer.capacityBytes = capacityFrames * bytesPerFrame;
        buffer.byteSize = buffer.capacityBytes;
        buffer.data = storage_.data() + stride * index;
    }
}

void VELTAudioBufferList::setFrameCount(std::uint32_t frames) noexcept {
    frames = std::min(frames, capacityFrames_);
    for (AudioBuffer& buffer : buffers_)
        buffer.byteSize = frames * 4u * buffer.numberChannels;
}

void VELTAudioBufferList::silence(std::uint32_t firstFrame) noexcept {
    if (firstFrame >= capacityFrames_)
        return;
    for (AudioBuffer& buffer : buffers_) {
        std::size_t offset = std::size_t(firstFrame) * buffer.numberChannels;
        std::size_t count = std::size_t(capacityFrames_) * buffer.numberChannels - offset;
        std::memset(buffer.data + offset, 0, count * sizeof(float));
    }
}

} // namespace tavolar
