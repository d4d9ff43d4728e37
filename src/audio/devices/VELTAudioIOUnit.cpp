#include "audio/devices/VELTAudioIOUnit.h"

#include <algorithm>
#include <cstring>

namespace tavolar {

VELTAudioIOUnit::~VELTAudioIOUnit() {
    uninitialize();
}

AudioStatus VELTAudioIOUnit::setEnableIO(AudioUnitScope scope, std::uint32_t element, bool enabled) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    if (scope == AudioUnitScope::Input && element == kAudioUnitInputElement)
        inputEnabled_ = enabled;
    else if (scope == AudioUnitScope::Output && element == kAudioUnitOutputElement)
        outputEnabled_ = enabled;
    else
        return kAudioStatusInvalidElement;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setStartTimeStampsAtZero(std::uint32_t element, bool atZero) {
    if (element > 1)
        return kAudioStatusInvalidElement;
    startAtZero_[element] = atZero;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setCurrentDevice(AudioDeviceID deviceID) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    auto driver = VELTAudioHardware::driverForDeviceID(deviceID);
    if (!driver)
        return kAudioStatusDeviceNotFound;
    driver_ = std::move(driver);
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::getStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                             AudioStreamDescription& format) const {
    bool deviceSide = (scope == AudioUnitScope::Output && element == kAudioUnitOutputElement) ||
                      (scope == AudioUnitScope::Input && element == kAudioUnitInputElement);
    if (deviceSide) {
        if (!driver_)
            return kAudioStatusDeviceNotFound;
        AudioDirection direction =
            element == kAudioUnitOutputElement ? AudioDirection::Output : AudioDirection::Input;
        format = floatStreamDescription(driver_->sampleRate(), kAudioFormatFlagsFloatNonInterleaved,
                                        driver_->channelCount(direction), 4);
        return kAudioStatusNoError;
    }
    if (scope == AudioUnitScope::Output && element == kAudioUnitInputElement)
        format = inputClientFormat_;
    else if (scope == AudioUnitScope::Input && element == kAudioUnitOutputElement)
        format = outputClientFormat_;
    else
        return kAudioStatusInvalidElement;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                             const AudioStreamDescription& format) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    bool inputClient = scope == AudioUnitScope::Output && element == kAudioUnitInputElement;
    bool outputClient = scope == AudioUnitScope::Input && element == kAudioUnitOutputElement;
    if (!inputClient && !outputClient)
        return kAudioStatusInvalidElement;
    AudioStreamDescription completed = format;
    if (AudioStatus status = audioFormatInfo(completed))
        return status;
    if (completed.isInterleaved() && completed.channelsPerFrame > 1)
        return kAudioStatusFormatNotSupported;
    if (!driver_)
        return kAudioStatusDeviceNotFound;
    // The device runs at one rate; nothing here converts rates.
    if (completed.sampleRate != driver_->sampleRate())
        return kAudioStatusFormatNotSupported;
    AudioDirection direction = inputClient ? AudioDirection::Input : AudioDirection::Output;
    if (completed.channelsPerFrame > std::max<std::uint32_t>(driver_->channelCount(direction), 1) &&
        outputClient)
        return kAudioStatusFormatNotSupported;
    (inputClient ? inputClientFormat_ : outputClientFormat_) = completed;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setChannelMap(AudioUnitScope scope, std::uint32_t element,
                                           std::span<const std::int32_t> map) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    if (!driver_)
        return kAudioStatusDeviceNotFound;
    bool input = scope == AudioUnitScope::Input && element == kAudioUnitInputElement;
    bool output = scope == AudioUnitScope::Output && element == kAudioUnitOutputElement;
    if (!input && !output)
        return kAudioStatusInvalidElement;
    std::uint32_t available = driver_->channelCount(input ? AudioDirection::Input : AudioDirection::Output);
    std::vector<std::uint32_t> channels;
    for (std::int32_t channel : map) {
        if (channel < 0 || std::uint32_t(channel) >= available)
            return kAudioStatusInvalidChannel;
        channels.push_back(std::uint32_t(channel));
    }
    (input ? inputChannelMap_ : outputChannelMap_) = std::move(channels);
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setInputCallback(InputCallback callback, void* context) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    inputCallback_ = callback;
    inputContext_ = context;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setRenderCallback(RenderCallback callback, void* context) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    renderCallback_ = callback;
    renderContext_ = context;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::setPacingGate(AudioPacingGate gate, void* context) {
    if (endpoint_)
        return kAudioStatusInvalidProperty;
    pacingGate_ = gate;
    pacingContext_ = context;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::bufferSizeInFrames(std::uint32_t& frames) const {
    if (!driver_)
        return kAudioStatusDeviceNotFound;
    frames = driver_->bufferSizeInFrames();
    return frames ? kAudioStatusNoError : kAudioStatusServerFailure;
}

AudioStatus VELTAudioIOUnit::initialize() {
    if (endpoint_)
        return kAudioStatusNoError;
    if (!driver_)
        return kAudioStatusDeviceNotFound;
    if (inputEnabled_ == outputEnabled_)
        return kAudioStatusInvalidProperty; // one direction per unit
    AudioEndpointConfiguration configuration;
    configuration.callback = &VELTAudioIOUnit::endpointCallback;
    configuration.context = this;
    configuration.pacingGate = pacingGate_;
    configuration.pacingContext = pacingContext_;
    if (inputEnabled_) {
        if (!inputCallback_ || inputClientFormat_.channelsPerFrame == 0)
            return kAudioStatusUninitialized;
        configuration.direction = AudioDirection::Input;
        configuration.channels = inputChannelMap_;
        if (configuration.channels.empty())
            for (std::uint32_t channel = 0; channel < inputClientFormat_.channelsPerFrame; ++channel)
                configuration.channels.push_back(channel);
        if (configuration.channels.size() != inputClientFormat_.channelsPerFrame)
            return kAudioStatusInvalidChannel;
        silence_.assign(kGapChunkFrames, 0.0f);
        silentPointers_.assign(configuration.channels.size(), silence_.data());
    } else {
        if (!renderCallback_)
            return kAudioStatusUninitialized;
        AudioStreamDescription format = outputClientFormat_;
        if (format.channelsPerFrame == 0)
            getStreamFormat(AudioUnitScope::Output, kAudioUnitOutputElement, format);
        configuration.direction = AudioDirection::Output;
        configuration.channels = outputChannelMap_;
        if (configuration.channels.empty())
            for (std::uint32_t channel = 0; channel < format.channelsPerFrame; ++channel)
                configuration.channels.push_back(channel);
        if (configuration.channels.size() != format.channelsPerFrame)
            return kAudioStatusInvalidChannel;
        renderBuffers_ = VELTAudioBufferList(format.channelsPerFrame,
                                             std::max<std::uint32_t>(8192, driver_->bufferSizeInFrames()), 4);
    }
    std::unique_ptr<AudioEndpoint> endpoint;
    if (AudioStatus status = driver_->makeEndpoint(configuration, endpoint))
        return status;
    endpoint_ = std::move(endpoint);
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::uninitialize() {
    if (endpoint_)
        endpoint_->stop();
    endpoint_.reset();
    return kAudioStatusNoError;
}

AudioStatus VELTAudioIOUnit::start() {
    if (!endpoint_)
        return kAudioStatusUninitialized;
    firstCycle_ = true;
    haveExpectedSampleTime_ = false;
    return endpoint_->start();
}

AudioStatus VELTAudioIOUnit::stop() {
    if (!endpoint_)
        return kAudioStatusUninitialized;
    return endpoint_->stop();
}

AudioTimeStamp VELTAudioIOUnit::adjustedTimeStamp(const AudioTimeStamp& timeStamp) noexcept {
    if (firstCycle_) {
        firstSampleTime_ = timeStamp.sampleTime;
        firstCycle_ = false;
    }
    std::uint32_t element = inputEnabled_ ? kAudioUnitInputElement : kAudioUnitOutputElement;
    AudioTimeStamp adjusted = timeStamp;
    if (startAtZero_[element])
        adjusted.sampleTime -= firstSampleTime_;
    return adjusted;
}

void VELTAudioIOUnit::endpointCallback(void* context, const AudioTimeStamp& timeStamp, std::uint32_t frames,
                                       float* const* channelBuffers, std::uint32_t channelCount) noexcept {
    auto* unit = static_cast<VELTAudioIOUnit*>(context);
    AudioTimeStamp stamp = unit->adjustedTimeStamp(timeStamp);
    unit->bridgeGap(stamp, channelCount);
    unit->expectedSampleTime_ = stamp.sampleTime + frames;
    if (unit->inputEnabled_) {
        unit->deliverInput(stamp, frames, channelBuffers, channelCount);
        return;
    }
    VELTAudioBufferList& buffers = unit->renderBuffers_;
    if (frames > buffers.capacityFrames()) {
        unit->oversizedCycles_.fetch_add(1, std::memory_order_relaxed);
        return; // the endpoint's buffers are silent already
    }
    buffers.setFrameCount(frames);
    if (unit->renderCallback_(unit->renderContext_, stamp, kAudioUnitOutputElement, frames, buffers) !=
        kAudioStatusNoError)
        return;
    const std::uint32_t count = std::min(channelCount, buffers.numberBuffers());
    for (std::uint32_t channel = 0; channel < count; ++channel)
        std::memcpy(channelBuffers[channel], buffers[channel].data, frames * sizeof(float));
}

void VELTAudioIOUnit::deliverInput(const AudioTimeStamp& stamp, std::uint32_t frames,
                                   float* const* channelBuffers, std::uint32_t channelCount) noexcept {
    capturedBuffers_ = channelBuffers;
    capturedChannels_ = channelCount;
    capturedFrames_ = frames;
    inputCallback_(inputContext_, stamp, kAudioUnitInputElement, frames);
    capturedBuffers_ = nullptr;
}

// A backend that skips cycles (a server's overload) leaves a hole in the device's time line. The
// client sees a continuous stream instead: silence for the frames never captured, and a stimulus
// moved on by the frames never played, so that everything after the hole stays where its time stamps
// say it is.
void VELTAudioIOUnit::bridgeGap(const AudioTimeStamp& stamp, std::uint32_t channelCount) noexcept {
    if (!haveExpectedSampleTime_) {
        haveExpectedSampleTime_ = true;
        return;
    }
    double missing = stamp.sampleTime - expectedSampleTime_;
    if (!(missing >= 1.0))
        return;
    const double rate = driver_ ? driver_->sampleRate() : 0.0;
    if (rate <= 0.0 || missing > 10.0 * rate)
        return; // not a skipped cycle but a new time line: nothing to bridge
    std::uint64_t remaining = static_cast<std::uint64_t>(missing);
    gapFrames_.fetch_add(remaining, std::memory_order_relaxed);
    double sampleTime = expectedSampleTime_;
    while (remaining > 0) {
        const std::uint32_t chunk =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(remaining, kGapChunkFrames));
        AudioTimeStamp filler = stamp;
        filler.sampleTime = sampleTime;
        filler.hostTime =
            stamp.hostTime - static_cast<std::uint64_t>((stamp.sampleTime - sampleTime) / rate * 1e9);
        if (inputEnabled_) {
            deliverInput(filler, chunk, silentPointers_.data(),
                         std::min<std::uint32_t>(channelCount, std::uint32_t(silentPointers_.size())));
        } else if (chunk <= renderBuffers_.capacityFrames()) {
            renderBuffers_.setFrameCount(chunk);
            renderCallback_(renderContext_, filler, kAudioUnitOutputElement, chunk, renderBuffers_);
        }
        remaining -= chunk;
        sampleTime += chunk;
    }
}

AudioStatus VELTAudioIOUnit::render(std::uint32_t bus, std::uint32_t frames,
                                    VELTAudioBufferList& ioData) noexcept {
    if (!capturedBuffers_ || bus != kAudioUnitInputElement)
        return kAudioStatusUninitialized;
    if (frames != capturedFrames_ || frames > ioData.capacityFrames())
        return kAudioStatusTooManyFrames;
    if (ioData.numberBuffers() != capturedChannels_)
        return kAudioStatusInvalidParameter;
    for (std::uint32_t channel = 0; channel < capturedChannels_; ++channel)
        std::memcpy(ioData[channel].data, capturedBuffers_[channel], frames * sizeof(float));
    ioData.setFrameCount(frames);
    return kAudioStatusNoError;
}

} // namespace tavolar
