#pragma once
// One audio device, named by its UID: its name, channels, sample rate, latencies, and the
// translation between its sample clock and host time. A plain value; a device whose UID names
// nothing present answers empty values (no channels, rate 0) and fails translations.

#include "audio/devices/AudioDeviceDriver.h"
#include "audio/devices/AudioTimeStamp.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tavolar {

class VELTAudioDevice {
public:
    VELTAudioDevice() = default;
    explicit VELTAudioDevice(std::string deviceUID);
    VELTAudioDevice(std::string deviceUID, std::shared_ptr<AudioDeviceDriver> driver);

    const std::string& deviceUID() const noexcept { return deviceUID_; }
    bool isPresent() const noexcept;
    std::string name() const;
    // direction 0 is output (playback), 1 is input (recording).
    std::uint32_t channelCountForDirection(std::uint32_t direction) const;
    double sampleRateForDirection(std::uint32_t direction) const;
    std::uint32_t bufferSizeInFrames() const;
    std::string channelNameForDirection(std::uint32_t direction, std::uint32_t channel) const;
    // Frames by which the buffers of an input channel lag the signal at its connector.
    std::uint32_t recordingStreamLatencyForChannel(std::uint32_t channel) const;
    std::uint32_t playbackStreamLatencyForChannel(std::uint32_t channel) const;

    // Translate a time stamp whose sample time is valid into host time, and one whose host time is
    // valid into sample time. The result has sample time, host time and rate scalar valid; on failure
    // its flags are 0 and error (when given) says why.
    AudioTimeStamp translateTimeSampleToHost(const AudioTimeStamp& timeStamp, TavolarError* error) const;
    AudioTimeStamp translateTimeHostToSample(const AudioTimeStamp& timeStamp, TavolarError* error) const;

    const std::shared_ptr<AudioDeviceDriver>& driver() const noexcept { return driver_; }

    bool operator==(const VELTAudioDevice& other) const { return deviceUID_ == other.deviceUID_; }

private:
    std::string deviceUID_;
    std::shared_ptr<AudioDeviceDriver> driver_;
};

} // namespace tavolar
