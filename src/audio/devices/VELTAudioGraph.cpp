#include "audio/devices/VELTAudioGraph.h"

#include <algorithm>
#include <cstring>

namespace tavolar {

namespace {

std::unique_ptr<std::atomic<float>[]> zeroedGains(std::size_t count) {
    auto gains = std::make_unique<std::atomic<float>[]>(count);
    for (std::size_t index = 0; index < count; ++index)
        gains[index].store(0.0f, std::memory_order_relaxed);
    return gains;
}

} // namespace

AudioStatus VELTMatrixMixer::setStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                             const AudioStreamDescription& format) {
    if (element != 0 || scope == AudioUnitScope::Global)
        return kAudioStatusInvalidElement;
    AudioStreamDescription completed = format;
    if (AudioStatus status = audioFormatInfo(completed))
        return status;
    if (completed.isInterleaved() && completed.channelsPerFrame > 1)
        return kAudioStatusFormatNotSupported;
    if (completed.channelsPerFrame > 0xFFFF)
        return kAudioStatusFormatNotSupported;
    if (scope == AudioUnitScope::Input) {
        inputFormat_ = completed;
        inputVolumes_ = zeroedGains(completed.channelsPerFrame);
    } else {
        outputFormat_ = completed;
        outputVolumes_ = zeroedGains(completed.channelsPerFrame);
    }
    crosspoints_ = zeroedGains(std::size_t(inputFormat_.channelsPerFrame) * outputFormat_.channelsPerFrame);
    return kAudioStatusNoError;
}

AudioStatus VELTMatrixMixer::getStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                             AudioStreamDescription& format) const {
    if (element != 0 || scope == AudioUnitScope::Global)
        return kAudioStatusInvalidElement;
    format = scope == AudioUnitScope::Input ? inputFormat_ : outputFormat_;
    return kAudioStatusNoError;
}

std::atomic<float>* VELTMatrixMixer::parameterSlot(std::uint32_t parameter, AudioUnitScope scope,
                                                   std::uint32_t element) {
    const std::uint32_t inputs = inputFormat_.channelsPerFrame, outputs = outputFormat_.channelsPerFrame;
    if (parameter == kMatrixMixerParameterEnable) {
        if (element != 0)
            return nullptr;
        if (scope == AudioUnitScope::Input)
            return &inputEnabled_;
        if (scope == AudioUnitScope::Output)
            return &outputEnabled_;
        return nullptr;
    }
    if (parameter != kMatrixMixerParameterVolume)
        return nullptr;
    switch (scope) {
    case AudioUnitScope::Input:
        return element < inputs ? &inputVolumes_[element] : nullptr;
    case AudioUnitScope::Output:
        return element < outputs ? &outputVolumes_[element] : nullptr;
    case AudioUnitScope::Global:
        if (element == kMatrixMixerMasterElement)
            return &masterVolume_;
        if ((element >> 16) < inputs && (element & 0xFFFF) < outputs)
            return &crosspoints_[std::size_t(element >> 16) * outputs + (element & 0xFFFF)];
        return nullptr;
    }
    return nullptr;
}

AudioStatus VELTMatrixMixer::setParameter(std::uint32_t parameter, AudioUnitScope scope,
                                          std::uint32_t element, float value) {
    std::atomic<float>* slot = parameterSlot(parameter, scope, element);
    if (!slot)
        return kAudioStatusInvalidElement;
    slot->store(value, std::memory_order_relaxed);
    return kAudioStatusNoError;
}

AudioStatus VELTMatrixMixer::getParameter(std::uint32_t parameter, AudioUnitScope scope,
                                          std::uint32_t element, float& value) const {
    std::atomic<float>* slot = const_cast<VELTMatrixMixer*>(this)->parameterSlot(parameter, scope, element);
    if (!slot)
        return kAudioStatusInvalidElement;
    value = slot->load(std::memory_order_relaxed);
    return kAudioStatusNoError;
}

AudioStatus VELTMatrixMixer::setRenderCallback(std::uint32_t input, VELTAudioIOUnit::RenderCallback callback,
                                               void* context) {
    if (input != 0)
        return kAudioStatusInvalidElement;
    callback_ = callback;
    context_ = context;
    return kAudioStatusNoError;
}

AudioStatus VELTMatrixMixer::initialize(std::uint32_t maximumFrames) {
    if (inputFormat_.channelsPerFrame == 0 || outputFormat_.channelsPerFrame == 0)
        return kAudioStatusUninitialized;
    inputBuffers_ = VELTAudioBufferList(inputFormat_.channelsPerFrame, maximumFrames, 4);
    return kAudioStatusNoError;
}

AudioStatus VELTMatrixMixer::render(const AudioTimeStamp& timeStamp, std::uint32_t frames,
                                    VELTAudioBufferList& output) noexcept {
    for (AudioBuffer& buffer : output.buffers())
        std::memset(buffer.data, 0, std::size_t(frames) * sizeof(float));
    if (!callback_ || frames > inputBuffers_.capacityFrames())
        return kAudioStatusNoError;
    // A source that renders nothing (a finished stimulus) is heard as silence, not as its last buffer.
    inputBuffers_.setFrameCount(frames);
    for (AudioBuffer& buffer : inputBuffers_.buffers())
        std::memset(buffer.data, 0, std::size_t(frames) * sizeof(float));
    AudioStatus status = callback_(context_, timeStamp, 0, frames, inputBuffers_);
    if (status != kAudioStatusNoError)
        return status;
    if (inputEnabled_.load(std::memory_order_relaxed) == 0.0f ||
        outputEnabled_.load(std::memory_order_relaxed) == 0.0f)
        return kAudioStatusNoError;
    const float master = masterVolume_.load(std::memory_order_relaxed);
    const std::uint32_t inputs = inputFormat_.channelsPerFrame;
    const std::uint32_t outputs = std::min(outputFormat_.channelsPerFrame, output.numberBuffers());
    for (std::uint32_t out = 0; out < outputs; ++out) {
        float* destination = output[out].data;
        const float outputGain = master * outputVolumes_[out].load(std::memory_order_relaxed);
        for (std::uint32_t in = 0; in < inputs; ++in) {
            float gain = outputGain * inputVolumes_[in].load(std::memory_order_relaxed) *
                         crosspoints_[std::size_t(in) * outputFormat_.channelsPerFrame + out].load(
                             std::memory_order_relaxed);
            if (gain == 0.0f)
                continue;
            const float* source = inputBuffers_[in].data;
            for (std::uint32_t n = 0; n < frames; ++n)
                destination[n] += gain * source[n];
        }
    }
    return kAudioStatusNoError;
}

VELTAudioGraph::~VELTAudioGraph() {
    uninitialize();
}

AudioStatus VELTAudioGraph::addNode(NodeType type, Node& node) {
    if (type == NodeType::HardwareOutput) {
        if (outputUnit_)
            return kAudioStatusInvalidParameter;
        outputUnit_ = std::make_unique<VELTAudioIOUnit>();
        node = outputNode_ = (mixerNode_ < 0 ? 1 : 2);
    } else {
        if (mixer_)
            return kAudioStatusInvalidParameter;
        mixer_ = std::make_unique<VELTMatrixMixer>();
        node = mixerNode_ = (outputNode_ < 0 ? 1 : 2);
    }
    return kAudioStatusNoError;
}

AudioStatus VELTAudioGraph::nodeOutputUnit(Node node, VELTAudioIOUnit*& unit) {
    if (node != outputNode_ || !outputUnit_)
        return kAudioStatusInvalidParameter;
    unit = outputUnit_.get();
    return kAudioStatusNoError;
}

AudioStatus VELTAudioGraph::nodeMatrixMixer(Node node, VELTMatrixMixer*& mixer) {
    if (node != mixerNode_ || !mixer_)
        return kAudioStatusInvalidParameter;
    mixer = mixer_.get();
    return kAudioStatusNoError;
}

AudioStatus VELTAudioGraph::connectNodeInput(Node source, std::uint32_t sourceOutput, Node destination,
                                             std::uint32_t destinationInput) {
    if (source != mixerNode_ || destination != outputNode_ || sourceOutput != 0 || destinationInput != 0)
        return kAudioStatusNoConnection;
    connected_ = true;
    return outputUnit_->setRenderCallback(&VELTAudioGraph::renderMixer, this);
}

AudioStatus VELTAudioGraph::setNodeInputCallback(Node node, std::uint32_t input,
                                                 VELTAudioIOUnit::RenderCallback callback, void* context) {
    if (node != mixerNode_ || !mixer_)
        return kAudioStatusInvalidParameter;
    return mixer_->setRenderCallback(input, callback, context);
}

AudioStatus VELTAudioGraph::renderMixer(void* context, const AudioTimeStamp& timeStamp, std::uint32_t,
                                        std::uint32_t frames, VELTAudioBufferList& ioData) noexcept {
    return static_cast<VELTAudioGraph*>(context)->mixer_->render(timeStamp, frames, ioData);
}

AudioStatus VELTAudioGraph::initialize() {
    if (initialized_)
        return kAudioStatusNoError;
    if (!outputUnit_ || !mixer_ || !connected_)
        return kAudioStatusNoConnection;
    std::uint32_t frames = 0;
    outputUnit_->bufferSizeInFrames(frames);
    if (AudioStatus status = mixer_->initialize(std::max<std::uint32_t>(8192, frames)))
        return status;
    if (AudioStatus status = outputUnit_->initialize())
        return status;
    initialized_ = true;
    return kAudioStatusNoError;
}

AudioStatus VELTAudioGraph::start() {
    if (!initialized_)
        return kAudioStatusUninitialized;
    if (running_)
        return kAudioStatusNoError;
    AudioStatus status = outputUnit_->start();
    running_ = status == kAudioStatusNoError;
    return status;
}

AudioStatus VELTAudioGraph::stop() {
    if (!running_)
        return kAudioStatusNoError;
    running_ = false;
    return outputUnit_->stop();
}

AudioStatus VELTAudioGraph::uninitialize() {
    stop();
    if (outputUnit_)
        outputUnit_->uninitialize();
    initialized_ = false;
    return kAudioStatusNoError;
}

} // namespace tavolar
