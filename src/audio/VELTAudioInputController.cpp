#include "audio/VELTAudioInputController.h"

#include "platform/Logging.h"
#include "platform/UUID.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace tavolar {

namespace {

constexpr std::uint32_t kReadChunkFrames = 8192;
constexpr std::uint32_t kMinimumBufferFrames = 8192;

std::unexpected<TavolarError> statusError(const std::string& message, AudioStatus status) {
    return std::unexpected(TavolarError::make(message, {}, status));
}

} // namespace

VELTAudioInputController::VELTAudioInputController(
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings)
    : settings_(std::move(audioCaptureSettings)) {
    if (auto configured = configureAudioInput(); !configured)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not configure audio input {}", configured.error().localizedDescription));
}

VELTAudioInputController::~VELTAudioInputController() {
    stopRecording();
    teardownAudioInput();
    clearRecording();
}

void VELTAudioInputController::setAudioCaptureSettings(
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings) {
    settings_ = std::move(audioCaptureSettings);
    if (auto tornDown = teardownAudioInput(); !tornDown)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not tear down audio input {}", tornDown.error().localizedDescription));
    if (auto configured = configureAudioInput(); !configured)
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not configure audio input {}", configured.error().localizedDescription));
}

AudioTimeStamp VELTAudioInputController::startTimeStamp() const noexcept {
    return startTimeStampValid_.load(std::memory_order_acquire) ? startTimeStamp_ : AudioTimeStamp{};
}

IndexSet VELTAudioInputController::allRecordChannels() const {
    IndexSet channels;
    if (!settings_)
        return channels;
    channels = settings_->recordChannels();
    if (settings_->correctionEnabled())
        channels.insert(std::uint64_t(settings_->correctionRecordChannel()));
    return channels;
}

AudioStreamDescription VELTAudioInputController::baseStreamDescription() const {
    const std::uint32_t channels = static_cast<std::uint32_t>(allRecordChannels().size());
    const double rate = settings_ ? double(settings_->recordDeviceSampleRate()) : 0.0;
    // Byte counts of 4N on a non-interleaved layout, deliberately: the format query completes them.
    return floatStreamDescription(rate, kAudioFormatFlagsFloatNonInterleaved, channels, 4 * channels);
}

AudioStreamDescription VELTAudioInputController::recordingClientStreamDescription() const {
    AudioStreamDescription description = baseStreamDescription();
    if (AudioStatus status = audioFormatInfo(description))
        TAVOLAR_LOG_ERROR(fmt::format("Error setting format info {}", status));
    return description;
}

AudioStreamDescription VELTAudioInputController::recordingFileStreamDescription() const {
    AudioStreamDescription description = baseStreamDescription();
    description.formatFlags = kAudioFormatFlagsFloatInterleaved;
    if (AudioStatus status = audioFormatInfo(description))
        TAVOLAR_LOG_ERROR(fmt::format("Error setting format info {}", status));
    return description;
}

std::vector<std::uint8_t> VELTAudioInputController::audioChannelLayoutData() const {
    const IndexSet channels = allRecordChannels();
    std::vector<std::uint8_t> data(12 + 20 * channels.size(), 0);
    auto put = [&data](std::size_t offset, std::uint32_t value) {
        std::memcpy(data.data() + offset, &value, 4);
    };
    put(0, 0); // layout described by its channel descriptions
    put(4, 0);
    put(8, static_cast<std::uint32_t>(channels.size()));
    std::size_t offset = 12;
    for (std::uint64_t channel : channels) {
        put(offset, static_cast<std::uint32_t>(channel) | 0x10000u);
        offset += 20;
    }
    return data;
}

Expected<void> VELTAudioInputController::configureAudioInput() {
    auto unit = std::make_unique<VELTAudioIOUnit>();
    AudioStatus status = unit->setEnableIO(AudioUnitScope::Input, kAudioUnitInputElement, true);
    if (status)
        return statusError(fmt::format("Could not enable input on the HAL. Error {}", status), status);
    if ((status = unit->setEnableIO(AudioUnitScope::Output, kAudioUnitOutputElement, false)))
        return statusError(fmt::format("Could not disable output on the AUHAL. Error {}", status), status);
    if ((status = unit->setStartTimeStampsAtZero(kAudioUnitInputElement, false)))
        return statusError(fmt::format("Could not force timestamps to start at zero {}", status), status);
    if ((status = unit->setStartTimeStampsAtZero(kAudioUnitOutputElement, false)))
        return statusError(fmt::format("Could not set force timestamps to start at zero {}", status), status);
    AudioDeviceID device = VELTAudioHardware::deviceIDForDeviceUID(
        settings_ && settings_->recordDeviceUID() ? *settings_->recordDeviceUID() : std::string());
    if ((status = unit->setCurrentDevice(device)))
        return statusError(fmt::format("Could not set property {}", status), status);
    const AudioStreamDescription client = recordingClientStreamDescription();
    if ((status = unit->setStreamFormat(AudioUnitScope::Output, kAudioUnitInputElement, client)))
        return statusError(fmt::format("Could not set output stream format. {}", status), status);
    std::vector<std::int32_t> map;
    for (std::uint64_t channel : allRecordChannels()) {
        if (map.size() == client.channelsPerFrame)
            break;
        map.push_back(channel > 0x7FFFFFFF ? -1 : std::int32_t(channel));
    }
    if ((status = unit->setChannelMap(AudioUnitScope::Input, kAudioUnitInputElement, map)))
        return statusError(fmt::format("Could not set channel map ({})", status), status);
    if ((status = unit->setInputCallback(&VELTAudioInputController::capture, this)))
        return statusError(fmt::format("Could not set input callback ({})", status), status);
    std::uint32_t frames = 0;
    if ((status = unit->bufferSizeInFrames(frames)))
        return statusError(fmt::format("Could not get buffer size in frames ({})", status), status);
    unit->setPacingGate(&VELTAudioInputController::readyForFrames, this);
    if ((status = unit->initialize()))
        return statusError(fmt::format("Could not initialize AUHAL ({})", status), status);
    // Room for the largest cycle a server may switch to, not only the current one.
    audioBufferList_ = std::make_unique<VELTAudioBufferList>(client.channelsPerFrame,
                                                             std::max(frames, kMinimumBufferFrames), 4);
    inputUnit_ = std::move(unit);
    return {};
}

Expected<void> VELTAudioInputController::teardownAudioInput() {
    audioBufferList_.reset();
    if (inputUnit_) {
        inputUnit_->uninitialize();
        inputUnit_.reset();
    }
    return {};
}

Expected<void> VELTAudioInputController::createAudioFileAtURL(const std::filesystem::path& url) {
    std::unique_ptr<VELTExtendedAudioFile> file;
    if (AudioStatus status =
            VELTExtendedAudioFile::createWithURL(url, recordingFileStreamDescription(), true, file))
        return statusError(fmt::format("Could not create audio file {}. Status={}", url.string(), status),
                           status);
    if (AudioStatus status = file->setClientDataFormat(recordingClientStreamDescription()))
        return statusError(
            fmt::format("Could not set client data format for file {}. Status={}", url.string(), status),
            status);
    audioFile_ = std::move(file);
    return {};
}

void VELTAudioInputController::startRecording() {
    if (!inputUnit_)
        return;
    stopRecording();
    startTimeStampValid_.store(false, std::memory_order_release);
    startTimeStamp_ = AudioTimeStamp{};
    recordedFileURL_ = std::filesystem::temp_directory_path() / (newUUIDString() + ".caf");
    if (auto created = createAudioFileAtURL(recordedFileURL_); !created) {
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not create audio file. Error {}", created.error().localizedDescription));
        return;
    }
    // Two seconds of queue lets the writer thread fall well behind without losing audio.
    const auto rate = static_cast<std::uint32_t>(recordingFileStreamDescription().sampleRate);
    audioFile_->prepareAsynchronousWrites(std::max<std::uint32_t>(2 * rate, 65536));
    recordingFile_.store(audioFile_.get(), std::memory_order_release);
    if (AudioStatus status = inputUnit_->start())
        TAVOLAR_LOG_ERROR(fmt::format("Could not start the record device {}", status));
}

void VELTAudioInputController::stopRecording() {
    if (!audioFile_)
        return;
    if (inputUnit_)
        inputUnit_->stop();
    recordingFile_.store(nullptr, std::memory_order_release);
    droppedFrames_ = audioFile_->droppedFrames();
    if (droppedFrames_ > 0)
        TAVOLAR_LOG_ERROR(
            fmt::format("The recording lost {} frames that could not be written in time", droppedFrames_));
    if (AudioStatus status = audioFile_->dispose())
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not finish writing the recording {} ({})", recordedFileURL_.string(), status));
    audioFile_.reset();
}

void VELTAudioInputController::clearRecording() {
    if (UserDefaults::standard().boolForKey("RZRetainResponsesAfterMeasurement")) {
        logMessage(fmt::format("Retained response at path: {}", recordedFileURL_.string()));
        return;
    }
    if (recordedFileURL_.empty())
        return;
    std::error_code error;
    std::filesystem::remove(recordedFileURL_, error);
    if (error)
        TAVOLAR_LOG_ERROR(fmt::format("Error removing temporary recording file. {}", error.message()));
}

Expected<std::vector<VELTRealVector>>
VELTAudioInputController::vectorsForAudioFile(const std::filesystem::path& url) const {
    std::unique_ptr<VELTExtendedAudioFile> file;
    if (AudioStatus status = VELTExtendedAudioFile::openURL(url, file))
        return statusError(fmt::format("Could not open audio file {}, err={}", url.string(), status), status);
    const AudioStreamDescription client = recordingClientStreamDescription();
    if (AudioStatus status = file->setClientDataFormat(client))
        return statusError(fmt::format("Could not set client data format, err={}", status), status);
    std::int64_t length = 0;
    if (AudioStatus status = file->lengthInFrames(length))
        return statusError(fmt::format("Could not get audio data packet count. {}", status), status);
    std::vector<VELTRealVector> vectors;
    for (std::uint32_t channel = 0; channel < client.channelsPerFrame; ++channel)
        vectors.emplace_back(static_cast<std::size_t>(length));
    VELTAudioBufferList buffers(client.channelsPerFrame, kReadChunkFrames, 4);
    std::size_t position = 0;
    while (true) {
        std::uint32_t frames = kReadChunkFrames;
        if (AudioStatus status = file->read(frames, buffers))
            return statusError(fmt::format("Error reading from audio file. {}", status), status);
        if (frames == 0)
            break;
        // A file that grew after its length was read is cut at that length.
        const std::size_t count =
            std::min<std::size_t>(frames, vectors.empty() ? 0 : vectors[0].length() - position);
        for (std::uint32_t channel = 0; channel < client.channelsPerFrame; ++channel)
            std::memcpy(vectors[channel].mutableComponents() + position, buffers[channel].data,
                        count * sizeof(float));
        position += count;
    }
    return vectors;
}

std::optional<std::map<std::uint64_t, VELTRealVector>>
VELTAudioInputController::allRecordChannelVectors() const {
    auto vectors = vectorsForAudioFile(recordedFileURL_);
    if (!vectors) {
        TAVOLAR_LOG_ERROR(
            fmt::format("Could not get recorded channels. {}", vectors.error().localizedDescription));
        return std::nullopt;
    }
    std::map<std::uint64_t, VELTRealVector> byChannel;
    std::size_t index = 0;
    for (std::uint64_t channel : allRecordChannels()) {
        if (index >= vectors->size())
            break;
        byChannel.emplace(channel, std::move((*vectors)[index++]));
    }
    return byChannel;
}

std::vector<std::optional<VELTRealVector>> VELTAudioInputController::recordChannelVectors() const {
    std::vector<std::optional<VELTRealVector>> result;
    if (!settings_)
        return result;
    auto all = allRecordChannelVectors();
    for (std::int64_t channel : settings_->recordChannelArray()) {
        if (all && channel >= 0)
            if (auto found = all->find(std::uint64_t(channel)); found != all->end()) {
                result.emplace_back(found->second);
                continue;
            }
        result.emplace_back(std::nullopt);
    }
    return result;
}

std::optional<VELTRealVector> VELTAudioInputController::correctionChannelVector() const {
    if (!settings_ || !settings_->correctionEnabled())
        return std::nullopt;
    auto all = allRecordChannelVectors();
    if (!all)
        return std::nullopt;
    auto found = all->find(std::uint64_t(settings_->correctionRecordChannel()));
    if (found == all->end())
        return std::nullopt;
    return found->second;
}

bool VELTAudioInputController::readyForFrames(void* context, std::uint32_t frames) noexcept {
    auto* file =
        static_cast<VELTAudioInputController*>(context)->recordingFile_.load(std::memory_order_acquire);
    return !file || file->canWriteAsync(frames);
}

AudioStatus VELTAudioInputController::capture(void* context, const AudioTimeStamp& timeStamp,
                                              std::uint32_t bus, std::uint32_t frames) noexcept {
    auto* self = static_cast<VELTAudioInputController*>(context);
    if (!self->startTimeStampValid_.load(std::memory_order_relaxed)) {
        self->startTimeStamp_ = timeStamp;
        self->startTimeStampValid_.store(true, std::memory_order_release);
    }
    AudioStatus status = self->inputUnit_->render(bus, frames, *self->audioBufferList_);
    if (status != kAudioStatusNoError)
        return status;
    VELTExtendedAudioFile* file = self->recordingFile_.load(std::memory_order_acquire);
    return file ? file->writeAsync(frames, *self->audioBufferList_) : kAudioStatusNoError;
}

} // namespace tavolar
