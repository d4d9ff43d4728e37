#include "audio/devices/AudioStreamDescription.h"

namespace tavolar {

std::uint32_t AudioStreamDescription::bytesPerFrameOfBuffer() const noexcept {
    std::uint32_t bytesPerSample = bitsPerChannel / 8;
    return isInterleaved() ? bytesPerSample * channelsPerFrame : bytesPerSample;
}

void AudioStreamDescription::normalizeBytesForChannels(std::uint32_t channels) noexcept {
    channelsPerFrame = channels;
    framesPerPacket = 1;
    bytesPerFrame = bytesPerFrameOfBuffer();
    bytesPerPacket = bytesPerFrame;
}

AudioStreamDescription floatStreamDescription(double sampleRate, std::uint32_t formatFlags,
                                              std::uint32_t channels, std::uint32_t bytesPerFrame) {
    AudioStreamDescription description;
    description.sampleRate = sampleRate;
    description.formatFlags = formatFlags;
    description.channelsPerFrame = channels;
    description.bitsPerChannel = 32;
    description.framesPerPacket = 1;
    description.bytesPerFrame = bytesPerFrame;
    description.bytesPerPacket = bytesPerFrame;
    return description;
}

AudioStatus audioFormatInfo(AudioStreamDescription& description) noexcept {
    bool floatPacked = (description.formatFlags & kAudioFormatFlagIsFloat) &&
                       (description.formatFlags & kAudioFormatFlagIsPacked) &&
                       !(description.formatFlags & kAudioFormatFlagIsSignedInteger) &&
                       !(description.formatFlags & kAudioFormatFlagIsBigEndian);
    if (!floatPacked || description.bitsPerChannel != 32 || description.channelsPerFrame == 0 ||
        !(description.sampleRate > 0.0))
        return kAudioStatusFormatNotSupported;
    description.normalizeBytesForChannels(description.channelsPerFrame);
    return kAudioStatusNoError;
}

const char* audioStatusDescription(AudioStatus status) noexcept {
    switch (status) {
    case kAudioStatusNoError:
        return "no error";
    case kAudioStatusDeviceNotFound:
        return "device not found";
    case kAudioStatusFormatNotSupported:
        return "format not supported";
    case kAudioStatusInvalidProperty:
        return "invalid property";
    case kAudioStatusInvalidChannel:
        return "invalid channel";
    case kAudioStatusUninitialized:
        return "unit not initialised";
    case kAudioStatusInvalidParameter:
        return "invalid parameter";
    case kAudioStatusServerFailure:
        return "audio server failure";
    case kAudioStatusFileFailure:
        return "audio file failure";
    case kAudioStatusInvalidScope:
        return "invalid scope";
    case kAudioStatusInvalidElement:
        return "invalid element";
    case kAudioStatusNoConnection:
        return "no connection";
    case kAudioStatusTooManyFrames:
        return "too many frames for the buffers";
    default:
        return "backend status";
    }
}

} // namespace tavolar
