#include "audio/VELTAudioOutputController.h"

#include "platform/DispatchQueue.h"
#include "platform/Logging.h"
#include "platform/NotificationCenter.h"
#include "platform/UUID.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace tavolar {

namespace {

constexpr std::uint32_t kWriteChunkFrames = 8192;
constexpr std::uint32_t kReaderBufferCount = 3;
constexpr std::uint32_t kReaderBufferFrames = 4096;

std::unexpected<TavolarError> statusError(const std::string& message, AudioStatus status) {
    return std::unexpected(TavolarError::make(message, {}, status));
}

} // namespace

VELTAudioOutputController::VELTAudioOutputController(
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings)
    : settings_(std::move(audioCaptureSettings)) {
    const void* sender = this;
    endOfFileNotification_ = std::make_unique<VELTQueueableAudioNotification>([sender] {
        // Only the address travels to the main queue: the controller may be gone when it runs.
        DispatchQueue::main().async([sender] {
            NotificationCenter::defaultCenter().post(
                std::string(VELTAudioOutputControllerEndOfBufferNotification), sender);
        });
    });
    endOfFileNotification_->setInProgress(false);
    notificationWorker_ = std::make_unique<VELTAudioNotificationQueueWorker>();
    if (auto configured = configureAudioOutput(); !configured)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not configure audio output. {}", configured.error().localizedDescription));
}

VELTAudioOutputController::~VELTAudioOutputController() {
    if (notificationWorker_) {
        TAVOLAR_LOG_ERROR("ERROR: Did not tear down mAudioNotificationQueueWorker thread");
        teardownWorkerThread();
    }
    disposeGraph();
    fileReader_.reset();
    endOfFileNotification_.reset();
    if (auto destroyed = destroyAudioPlaybackFile(); !destroyed)
        TAVOLAR_LOG_ERROR(fmt::format("Could not destroy old audio playback file. {}",
                                      destroyed.error().localizedDescription));
}

void VELTAudioOutputController::setAudioCaptureSettings(
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings) {
    settings_ = std::move(audioCaptureSettings);
    if (auto configured = configureAudioOutput(); !configured)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not configure audio output. {}", configured.error().localizedDescription));
}

void VELTAudioOutputController::setPlaybackVector(VELTRealVector playbackVector) {
    playbackVector_ = std::move(playbackVector);
    if (auto destroyed = destroyAudioPlaybackFile(); !destroyed)
        TAVOLAR_LOG_ERROR(fmt::format("Could not destroy old audio playback file. {}",
                                      destroyed.error().localizedDescription));
    if (auto created = createAudioPlaybackFile(); !created)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not create audio playback file. {}", created.error().localizedDescription));
}

AudioTimeStamp VELTAudioOutputController::startTimeStamp() const noexcept {
    return startTimeStampValid_.load(std::memory_order_acquire) ? startTimeStamp_ : AudioTimeStamp{};
}

IndexSet VELTAudioOutputController::allPlaybackChannels() const {
    IndexSet channels;
    if (!settings_)
        return channels;
    if (settings_->playbackChannels())
        channels = *settings_->playbackChannels();
    if (settings_->correctionEnabled())
        channels.insert(std::uint64_t(settings_->correctionPlaybackChannel()));
    return channels;
}

AudioStreamDescription VELTAudioOutputController::baseStreamDescription() const {
    double rate = settings_ ? double(settings_->playbackDeviceSampleRate()) : 0.0;
    return floatStreamDescription(rate, kAudioFormatFlagsFloatNonInterleaved, 1, 4);
}

AudioStreamDescription VELTAudioOutputController::playbackClientStreamDescription() const {
    AudioStreamDescription description = baseStreamDescription();
    if (AudioStatus status = audioFormatInfo(description))
        TAVOLAR_LOG_ERROR(fmt::format("Error setting format info {}", status));
    return description;
}

AudioStreamDescription VELTAudioOutputController::playbackFileStreamDescription() const {
    AudioStreamDescription description = baseStreamDescription();
    description.formatFlags = kAudioFormatFlagsFloatInterleaved;
    if (AudioStatus status = audioFormatInfo(description))
        TAVOLAR_LOG_ERROR(fmt::format("Error setting format info {}", status));
    return description;
}

void VELTAudioOutputController::disposeGraph() {
    if (audioGraph_)
        audioGraph_->uninitialize();
    audioGraph_.reset();
    outputUnit_ = nullptr;
    matrixMixer_ = nullptr;
}

Expected<void> VELTAudioOutputController::configureAudioOutput() {
    disposeGraph();
    auto graph = std::make_unique<VELTAudioGraph>();
    auto logged = [](const char* message) {
        TAVOLAR_LOG_ERROR(message);
        return std::unexpected(TavolarError::make(message));
    };
    VELTAudioGraph::Node outputNode = 0, mixerNode = 0;
    if (graph->addNode(VELTAudioGraph::NodeType::HardwareOutput, outputNode))
        return logged("Error adding HAL Output node.");
    if (graph->addNode(VELTAudioGraph::NodeType::MatrixMixer, mixerNode))
        return logged("Error adding Matrix Mixer node.");
    VELTMatrixMixer* mixer = nullptr;
    if (graph->nodeMatrixMixer(mixerNode, mixer))
        return logged("Error getting matrix mixer.");
    VELTAudioIOUnit* unit = nullptr;
    if (graph->nodeOutputUnit(outputNode, unit))
        return logged("Error getting AUHAL unit.");

    AudioStatus status = unit->setEnableIO(AudioUnitScope::Input, kAudioUnitInputElement, false);
    if (status)
        return statusError(fmt::format("Could not disable input on the HAL. Error {}", status), status);
    if ((status = unit->setEnableIO(AudioUnitScope::Output, kAudioUnitOutputElement, true)))
        return statusError(fmt::format("Could not enable output on the AUHAL. Error {}", status), status);
    AudioDeviceID device = VELTAudioHardware::deviceIDForDeviceUID(
        settings_ && settings_->playbackDeviceUID() ? *settings_->playbackDeviceUID() : std::string());
    if ((status = unit->setCurrentDevice(device)))
        return statusError(fmt::format("Could not set current device {}", status), status);
    if ((status = unit->setStartTimeStampsAtZero(kAudioUnitInputElement, false)))
        return statusError(fmt::format("Could not force timestamps to start at zero {}", status), status);
    if ((status = unit->setStartTimeStampsAtZero(kAudioUnitOutputElement, false)))
        return statusError(fmt::format("Could not set force timestamps to start at zero {}", status), status);
    AudioStreamDescription deviceFormat;
    if ((status = unit->getStreamFormat(AudioUnitScope::Output, kAudioUnitOutputElement, deviceFormat)))
        return statusError(fmt::format("Could not get device output format. {}", status), status);
    const std::uint32_t deviceChannels = deviceFormat.channelsPerFrame;
    const AudioStreamDescription client = playbackClientStreamDescription();
    const std::uint32_t inputChannels = client.channelsPerFrame;
    if ((status = mixer->setStreamFormat(AudioUnitScope::Input, 0, client)))
        return statusError(fmt::format("Could not set mixer input stream format. {}", status), status);
    AudioStreamDescription mixerOutput = client;
    mixerOutput.normalizeBytesForChannels(deviceChannels);
    if ((status = mixer->setStreamFormat(AudioUnitScope::Output, 0, mixerOutput)))
        return statusError(fmt::format("Could not set mixer output stream format. {}", status), status);
    if ((status = unit->setStreamFormat(AudioUnitScope::Input, kAudioUnitOutputElement, mixerOutput)))
        return statusError(fmt::format("Could not SET device output format. {}", status), status);
    if ((status = graph->connectNodeInput(mixerNode, 0, outputNode, 0)))
        return statusError(fmt::format("Could not connect mixer to output. {}", status), status);
    if ((status = graph->setNodeInputCallback(mixerNode, 0, &VELTAudioOutputController::render, this)))
        return statusError(fmt::format("Could not set mixer render callback. {}", status), status);
    unit->setPacingGate(&VELTAudioOutputController::readyForFrames, this);
    graph->initialize(); // its status is deliberately not examined: starting reports a dead graph

    for (std::uint32_t input = 0; input < inputChannels; ++input)
        if ((status = mixer->setParameter(kMatrixMixerParameterVolume, AudioUnitScope::Input, input, 1.0f)))
            return statusError(fmt::format("Could not set volume on matrix mixer input channel {}", input),
                               status);
    if ((status = mixer->setParameter(kMatrixMixerParameterEnable, AudioUnitScope::Input, 0, 1.0f)))
        return statusError("Could not enable matrix mixer input bus 0", status);
    if ((status = mixer->setParameter(kMatrixMixerParameterEnable, AudioUnitScope::Output, 0, 1.0f)))
        return statusError("Could not enable matrix mixer output bus 0", status);
    const IndexSet outputs = allPlaybackChannels();
    for (std::uint32_t input = 0; input < inputChannels; ++input) {
        for (std::uint64_t output : outputs) {
            const std::uint32_t element = static_cast<std::uint32_t>(output);
            // The message names the input channel, not the output channel; deliberately kept so.
            if ((status =
                     mixer->setParameter(kMatrixMixerParameterVolume, AudioUnitScope::Output, element, 1.0f)))
                return statusError(
                    fmt::format("Could not set volume on matrix mixer output channel {}", input), status);
            if ((status = mixer->setParameter(kMatrixMixerParameterVolume, AudioUnitScope::Global,
                                              matrixMixerCrosspoint(input, element), 1.0f)))
                return statusError(
                    fmt::format("Could not set crosspoint volume for input channel {}, output channel {}",
                                input, element),
                    status);
        }
    }
    if ((status = mixer->setParameter(kMatrixMixerParameterVolume, AudioUnitScope::Global,
                                      kMatrixMixerMasterElement, 1.0f)))
        return statusError("Could not set global volume on matrix mixer", status);

    audioGraph_ = std::move(graph);
    outputUnit_ = unit;
    matrixMixer_ = mixer;
    return {};
}

Expected<void> VELTAudioOutputController::createAudioPlaybackFile() {
    playbackFileURL_ = std::filesystem::temp_directory_path() / (newUUIDString() + ".caf");
    std::unique_ptr<VELTExtendedAudioFile> file;
    if (AudioStatus status = VELTExtendedAudioFile::createWithURL(
            playbackFileURL_, playbackFileStreamDescription(), true, file))
        return statusError(fmt::format("Failed to create audio file. {}", status), status);
    const AudioStreamDescription client = playbackClientStreamDescription();
    if (AudioStatus status = file->setClientDataFormat(client))
        return statusError(fmt::format("Failed to set client data format. {}", status), status);
    VELTAudioBufferList buffers(client.channelsPerFrame, kWriteChunkFrames, 4);
    const std::size_t length = playbackVector_.length();
    for (std::size_t written = 0;;) {
        const std::uint32_t frames =
            static_cast<std::uint32_t>(std::min<std::size_t>(length - written, kWriteChunkFrames));
        if (frames == 0) {
            file->dispose();
            return {};
        }
        for (AudioBuffer& buffer : buffers.buffers()) {
            std::memcpy(buffer.data, playbackVector_.components() + written, frames * sizeof(float));
            buffer.byteSize = 4 * frames;
        }
        if (AudioStatus status = file->write(frames, buffers))
            return statusError(fmt::format("Failed to write to audio file. {}", status), status);
        written += frames;
    }
}

Expected<void> VELTAudioOutputController::destroyAudioPlaybackFile() {
    if (UserDefaults::standard().boolForKey("RZRetainStimulusAfterMeasurement")) {
        logMessage(fmt::format("Retained stimulus at path: {}", playbackFileURL_.string()));
        return {};
    }
    if (playbackFileURL_.empty())
        return {};
    std::error_code error;
    std::filesystem::remove(playbackFileURL_, error);
    if (error)
        return makeUnexpected(
            fmt::format("Could not remove {}: {}", playbackFileURL_.string(), error.message()),
            "Check the permissions of the temporary directory.");
    return {};
}

void VELTAudioOutputController::startPlayback() {
    if (audioGraph_)
        audioGraph_->stop(); // the reader is replaced below, which the render thread must not see
    done_.store(false, std::memory_order_release);
    startTimeStampValid_.store(false, std::memory_order_release);
    startTimeStamp_ = AudioTimeStamp{};

    auto file = VELTExtendedAudioFile::initForPlaybackWithFileURL(playbackFileURL_);
    if (!file)
        logMessage(fmt::format("Could not begin stimulus playback. Audio file {} failed to open. {}",
                               playbackFileURL_.string(), file.error().localizedDescription));
    AudioStreamDescription description = file ? (*file)->fileDataFormat() : playbackFileStreamDescription();
    fileReader_ = std::make_unique<VELTAudioFileReader>(kReaderBufferCount, kReaderBufferFrames, description);
    if (file)
        fileReader_->setFile(std::move(*file));
    fileReader_->start();
    if (notificationWorker_) {
        notificationWorker_->stop(); // drops an end-of-file notification left from an earlier run
        notificationWorker_->start();
    }
    if (audioGraph_)
        if (AudioStatus status = audioGraph_->start())
            TAVOLAR_LOG_ERROR(fmt::format("Could not start the playback device {}", status));
}

void VELTAudioOutputController::stopPlayback() {
    if (fileReader_)
        fileReader_->stop();
    if (notificationWorker_)
        notificationWorker_->stop();
    if (audioGraph_)
        audioGraph_->stop();
}

void VELTAudioOutputController::teardownWorkerThread() {
    if (notificationWorker_)
        notificationWorker_->teardown();
    notificationWorker_.reset();
}

float VELTAudioOutputController::crosspointVolume(std::uint32_t input, std::uint32_t output) const {
    float value = 0.0f;
    if (matrixMixer_)
        matrixMixer_->getParameter(kMatrixMixerParameterVolume, AudioUnitScope::Global,
                                   matrixMixerCrosspoint(input, output), value);
    return value;
}

std::uint64_t VELTAudioOutputController::xruns() const noexcept {
    return outputUnit_ ? outputUnit_->xrunCount() : 0;
}

bool VELTAudioOutputController::readyForFrames(void* context, std::uint32_t frames) noexcept {
    auto* self = static_cast<VELTAudioOutputController*>(context);
    return self->done_.load(std::memory_order_acquire) || !self->fileReader_ ||
           self->fileReader_->canSupply(frames);
}

AudioStatus VELTAudioOutputController::render(void* context, const AudioTimeStamp& timeStamp, std::uint32_t,
                                              std::uint32_t frames, VELTAudioBufferList& ioData) noexcept {
    auto* self = static_cast<VELTAudioOutputController*>(context);
    if (self->done_.load(std::memory_order_acquire))
        return kAudioStatusNoError;
    if (!self->startTimeStampValid_.load(std::memory_order_relaxed)) {
        self->startTimeStamp_ = timeStamp;
        self->startTimeStampValid_.store(true, std::memory_order_release);
    }
    std::uint32_t supplied = self->fileReader_ ? self->fileReader_->copyFrames(frames, ioData) : 0;
    if (supplied < frames && ioData.numberBuffers() > 0) {
        // One stride for every buffer, taken from the first buffer's channel count.
        const std::size_t stride = std::size_t(ioData[0].numberChannels) * 4;
        for (AudioBuffer& buffer : ioData.buffers())
            std::memset(reinterpret_cast<char*>(buffer.data) + stride * supplied, 0,
                        stride * (frames - supplied));
    }
    if (!self->fileReader_ || self->fileReader_->endOfStream()) {
        if (self->notificationWorker_)
            self->notificationWorker_->addNotification(self->endOfFileNotification_.get());
        self->done_.store(true, std::memory_order_release);
    }
    return kAudioStatusNoError;
}

} // namespace tavolar
