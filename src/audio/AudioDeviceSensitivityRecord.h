#pragma once
// One input sensitivity bound to a device, by UID, and to a range of its channels or to all of them.

#include "audio/AudioChannelSensitivity.h"
#include "dsp/Search.h"

#include <cstdint>
#include <string>

namespace tavolar {

// A run of channels: location and length, both unsigned.
struct AudioChannelRange {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    bool operator==(const AudioChannelRange&) const = default;
};

class AudioDeviceSensitivityRecord {
public:
    AudioDeviceSensitivityRecord() = delete;
    AudioDeviceSensitivityRecord(AudioChannelSensitivity sensitivity, std::string deviceUID,
                                 AudioChannelRange channelRange)
        : deviceUID_(std::move(deviceUID)), sensitivity_(sensitivity), channelRange_(channelRange) {}
    // For every channel of the device: the range (kNotFound, 0).
    AudioDeviceSensitivityRecord(AudioChannelSensitivity sensitivity, std::string deviceUID)
        : AudioDeviceSensitivityRecord(sensitivity, std::move(deviceUID), {kNotFound, 0}) {}

    const std::string& deviceUID() const noexcept { return deviceUID_; }
    void setDeviceUID(std::string uid) { deviceUID_ = std::move(uid); }
    const AudioChannelSensitivity& sensitivity() const noexcept { return sensitivity_; }
    void setSensitivity(AudioChannelSensitivity sensitivity) noexcept { sensitivity_ = sensitivity; }
    AudioChannelRange channelRange() const noexcept { return channelRange_; }
    void setChannelRange(AudioChannelRange range) noexcept { channelRange_ = range; }

    // True when the range's location is the not-found marker.
    bool allChannels() const noexcept { return channelRange_.location == kNotFound; }
    // Selects all channels whatever is assigned, false included; deliberately so, since the flag
    // only ever widens a record. Assign a concrete channelRange to narrow it again.
    void setAllChannels(bool) noexcept { channelRange_.location = kNotFound; }

private:
    std::string deviceUID_;
    AudioChannelSensitivity sensitivity_;
    AudioChannelRange channelRange_;
};

} // namespace tavolar
