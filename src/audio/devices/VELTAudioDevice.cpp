#include "audio/devices/VELTAudioDevice.h"

#include "audio/devices/VELTAudioHardware.h"

#include <fmt/format.h>

namespace tavolar {

VELTAudioDevice::VELTAudioDevice(std::string deviceUID)
    : deviceUID_(std::move(deviceUID)), driver_(VELTAudioHardware::driverForDeviceUID(deviceUID_)) {}

VELTAudioDevice::VELTAudioDevice(std::string deviceUID, std::shared_ptr<AudioDeviceDriver> driver)
    : deviceUID_(std::move(deviceUID)), driver_(std::move(driver)) {}

bool VELTAudioDevice::isPresent() const noexcept {
    return driver_ && driver_->isAlive();
}

std::string VELTAudioDevice::name() const {
    return driver_ ? driver_->name() : std::string();
}

std::uint32_t VELTAudioDevice::channelCountForDirection(std::uint32_t direction) const {
    return driver_ ? driver_->channelCount(direction == 0 ? AudioDirection::Output : AudioDirection::Input)
                   : 0;
}

double VELTAudioDevice::sampleRateForDirection(std::uint32_t) const {
    return driver_ ? driver_->sampleRate() : 0.0;
}

std::uint32_t VELTAudioDevice::bufferSizeInFrames() const {
    return driver_ ? driver_->bufferSizeInFrames() : 0;
}

std::string VELTAudioDevice::channelNameForDirection(std::uint32_t direction, std::uint32_t channel) const {
    return driver_ ? driver_->channelName(direction == 0 ? AudioDirection::Output : AudioDirection::Input,
                                          channel)
                   : std::string();
}

std::uint32_t VELTAudioDevice::recordingStreamLatencyForChannel(std::uint32_t channel) const {
    return driver_ ? driver_->latencyForChannel(AudioDirection::Input, channel) : 0;
}

std::uint32_t VELTAudioDevice::playbackStreamLatencyForChannel(std::uint32_t channel) const {
    return driver_ ? driver_->latencyForChannel(AudioDirection::Output, channel) : 0;
}

namespace {

AudioTimeStamp failTranslation(TavolarError* error, const std::string& uid, const char* what,
                               AudioStatus status) {
    if (error)
        *error = TavolarError::make(fmt::format("Could not translate {} on device {} ({}: {})", what, uid,
                                                status, audioStatusDescription(status)),
                                    "Check that the audio device is connected and running.", status);
    return AudioTimeStamp{};
}

} // namespace

AudioTimeStamp VELTAudioDevice::translateTimeSampleToHost(const AudioTimeStamp& timeStamp,
                                                          TavolarError* error) const {
    if (!(timeStamp.flags & kAudioTimeStampSampleTimeValid))
        return failTranslation(error, deviceUID_, "sample time to host time", kAudioStatusInvalidParameter);
    if (!isPresent())
        return failTranslation(error, deviceUID_, "sample time to host time", kAudioStatusDeviceNotFound);
    AudioTimeStamp result;
    result.sampleTime = timeStamp.sampleTime;
    if (AudioStatus status =
            driver_->sampleTimeToHostTime(timeStamp.sampleTime, result.hostTime, result.rateScalar))
        return failTranslation(error, deviceUID_, "sample time to host time", status);
    result.flags =
        kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    return result;
}

AudioTimeStamp VELTAudioDevice::translateTimeHostToSample(const AudioTimeStamp& timeStamp,
                                                          TavolarError* error) const {
    if (!(timeStamp.flags & kAudioTimeStampHostTimeValid))
        return failTranslation(error, deviceUID_, "host time to sample time", kAudioStatusInvalidParameter);
    if (!isPresent())
        return failTranslation(error, deviceUID_, "host time to sample time", kAudioStatusDeviceNotFound);
    AudioTimeStamp result;
    result.hostTime = timeStamp.hostTime;
    if (AudioStatus status =
            driver_->hostTimeToSampleTime(timeStamp.hostTime, result.sampleTime, result.rateScalar))
        return failTranslation(error, deviceUID_, "host time to sample time", status);
    result.flags =
        kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    return result;
}

} // namespace tavolar
