#include "audio/devices/VELTExtendedAudioFile.h"

#include "audio/devices/BinarySemaphore.h"

#include <algorithm>
#include <fmt/format.h>
#include <sndfile.h>

namespace tavolar {

namespace {

SNDFILE* asFile(void* handle) {
    return static_cast<SNDFILE*>(handle);
}

AudioStatus sndfileStatus(SNDFILE* file) {
    int error = sf_error(file);
    return error ? AudioStatus(error) : kAudioStatusFileFailure;
}

} // namespace

VELTExtendedAudioFile::~VELTExtendedAudioFile() {
    dispose();
}

AudioStatus VELTExtendedAudioFile::createWithURL(const std::filesystem::path& url,
                                                 const AudioStreamDescription& fileDescription,
                                                 bool eraseExisting,
                                                 std::unique_ptr<VELTExtendedAudioFile>& file) {
    AudioStreamDescription format = fileDescription;
    if (AudioStatus status = audioFormatInfo(format))
        return status;
    std::error_code error;
    if (std::filesystem::exists(url, error) && !eraseExisting)
        return kAudioStatusFileFailure;
    SF_INFO info{};
    info.samplerate = static_cast<int>(format.sampleRate);
    info.channels = static_cast<int>(format.channelsPerFrame);
    info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT;
    SNDFILE* handle = sf_open(url.c_str(), SFM_WRITE, &info);
    if (!handle)
        return sndfileStatus(nullptr);
    std::unique_ptr<VELTExtendedAudioFile> made(new VELTExtendedAudioFile());
    made->url_ = url;
    made->handle_ = handle;
    made->writable_ = true;
    made->fileFormat_ = floatStreamDescription(format.sampleRate, kAudioFormatFlagsFloatInterleaved,
                                               format.channelsPerFrame, 4 * format.channelsPerFrame);
    made->clientFormat_ = made->fileFormat_;
    file = std::move(made);
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::openURL(const std::filesystem::path& url,
                                           std::unique_ptr<VELTExtendedAudioFile>& file) {
    SF_INFO info{};
    SNDFILE* handle = sf_open(url.c_str(), SFM_READ, &info);
    if (!handle)
        return sndfileStatus(nullptr);
    std::unique_ptr<VELTExtendedAudioFile> made(new VELTExtendedAudioFile());
    made->url_ = url;
    made->handle_ = handle;
    made->fileFormat_ = floatStreamDescription(info.samplerate, kAudioFormatFlagsFloatInterleaved,
                                               static_cast<std::uint32_t>(info.channels), 4u * info.channels);
    made->clientFormat_ = floatStreamDescription(info.samplerate, kAudioFormatFlagsFloatNonInterleaved,
                                                 static_cast<std::uint32_t>(info.channels), 4);
    file = std::move(made);
    return kAudioStatusNoError;
}

Expected<std::unique_ptr<VELTExtendedAudioFile>>
VELTExtendedAudioFile::initForPlaybackWithFileURL(const std::filesystem::path& url) {
    std::unique_ptr<VELTExtendedAudioFile> file;
    if (AudioStatus status = openURL(url, file))
        return makeUnexpected(fmt::format("Could not open audio file {} ({})", url.string(), status),
                              "Check that the file exists and is a readable audio file.", status);
    return file;
}

AudioStatus VELTExtendedAudioFile::setClientDataFormat(const AudioStreamDescription& description) {
    AudioStreamDescription format = description;
    if (AudioStatus status = audioFormatInfo(format))
        return status;
    if (format.channelsPerFrame != fileFormat_.channelsPerFrame ||
        format.sampleRate != fileFormat_.sampleRate)
        return kAudioStatusFormatNotSupported;
    clientFormat_ = format;
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::lengthInFrames(std::int64_t& frames) const {
    if (!handle_)
        return kAudioStatusFileFailure;
    SF_INFO info{};
    sf_command(asFile(handle_), SFC_GET_CURRENT_SF_INFO, &info, sizeof(info));
    frames = info.frames;
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::write(std::uint32_t frames, const VELTAudioBufferList& buffers) {
    if (!handle_ || !writable_)
        return kAudioStatusFileFailure;
    const std::uint32_t channels = fileFormat_.channelsPerFrame;
    if (frames == 0)
        return kAudioStatusNoError;
    const float* source = nullptr;
    if (clientFormat_.isInterleaved()) {
        if (buffers.numberBuffers() < 1 || buffers[0].frameCount() < frames)
            return kAudioStatusInvalidParameter;
        source = buffers[0].data;
    } else {
        if (buffers.numberBuffers() != channels)
            return kAudioStatusInvalidParameter;
        interleaved_.resize(std::size_t(frames) * channels);
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            if (buffers[channel].frameCount() < frames)
                return kAudioStatusInvalidParameter;
            for (std::uint32_t n = 0; n < frames; ++n)
                interleaved_[std::size_t(n) * channels + channel] = buffers[channel].data[n];
        }
        source = interleaved_.data();
    }
    if (sf_writef_float(asFile(handle_), source, frames) != sf_count_t(frames))
        return sndfileStatus(asFile(handle_));
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::read(std::uint32_t& frames, VELTAudioBufferList& buffers) {
    if (!handle_)
        return kAudioStatusFileFailure;
    const std::uint32_t channels = fileFormat_.channelsPerFrame;
    frames = std::min(frames, buffers.capacityFrames());
    if (clientFormat_.isInterleaved()) {
        if (buffers.numberBuffers() < 1 || buffers[0].numberChannels != channels)
            return kAudioStatusInvalidParameter;
        sf_count_t read = sf_readf_float(asFile(handle_), buffers[0].data, frames);
        if (read < 0)
            return sndfileStatus(asFile(handle_));
        frames = static_cast<std::uint32_t>(read);
        buffers.setFrameCount(frames);
        return kAudioStatusNoError;
    }
    if (buffers.numberBuffers() != channels)
        return kAudioStatusInvalidParameter;
    interleaved_.resize(std::size_t(frames) * channels);
    sf_count_t read = sf_readf_float(asFile(handle_), interleaved_.data(), frames);
    if (read < 0 || sf_error(asFile(handle_)))
        return sndfileStatus(asFile(handle_));
    frames = static_cast<std::uint32_t>(read);
    for (std::uint32_t channel = 0; channel < channels; ++channel)
        for (std::uint32_t n = 0; n < frames; ++n)
            buffers[channel].data[n] = interleaved_[std::size_t(n) * channels + channel];
    buffers.setFrameCount(frames);
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::prepareAsynchronousWrites(std::uint32_t bufferedFrames) {
    if (!handle_ || !writable_)
        return kAudioStatusFileFailure;
    if (writer_.joinable())
        return kAudioStatusNoError;
    queue_ = std::make_unique<LockFreeRingBuffer<float>>(std::size_t(bufferedFrames) *
                                                         fileFormat_.channelsPerFrame);
    queued_ = std::make_unique<BinarySemaphore>();
    drainScratch_.assign(queue_->capacity(), 0.0f);
    stopWriter_.store(false);
    writer_ = std::thread([this] { runWriter(); });
    return kAudioStatusNoError;
}

bool VELTExtendedAudioFile::canWriteAsync(std::uint32_t frames) const noexcept {
    return queue_ && queue_->writeAvailable() >= std::size_t(frames) * fileFormat_.channelsPerFrame;
}

AudioStatus VELTExtendedAudioFile::writeAsync(std::uint32_t frames,
                                              const VELTAudioBufferList& buffers) noexcept {
    if (!queue_)
        return kAudioStatusUninitialized;
    const std::uint32_t channels = fileFormat_.channelsPerFrame;
    const std::size_t count = std::size_t(frames) * channels;
    auto regions = queue_->writeRegions(count);
    if (regions.size() < count) {
        droppedFrames_.fetch_add(frames, std::memory_order_relaxed);
        queued_->release();
        return kAudioStatusTooManyFrames;
    }
    if (clientFormat_.isInterleaved()) {
        const float* source = buffers[0].data;
        std::copy_n(source, regions.first.size(), regions.first.data());
        std::copy_n(source + regions.first.size(), regions.second.size(), regions.second.data());
    } else {
        if (buffers.numberBuffers() != channels)
            return kAudioStatusInvalidParameter;
        const std::size_t split = regions.first.size();
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            const float* source = buffers[channel].data;
            for (std::uint32_t n = 0; n < frames; ++n) {
                std::size_t index = std::size_t(n) * channels + channel;
                (index < split ? regions.first[index] : regions.second[index - split]) = source[n];
            }
        }
    }
    queue_->commitWrite(count);
    queued_->release();
    return kAudioStatusNoError;
}

AudioStatus VELTExtendedAudioFile::drainQueue() {
    // The producer commits whole frames, so what is available is always a whole number of frames;
    // it is copied out in one piece because the ring's wrap may fall inside a frame.
    const std::size_t channels = fileFormat_.channelsPerFrame;
    while (true) {
        std::size_t count = queue_->read(std::span<float>(drainScratch_.data(), drainScratch_.size()));
        if (count == 0)
            return kAudioStatusNoError;
        sf_count_t frames = sf_count_t(count / channels);
        if (sf_writef_float(asFile(handle_), drainScratch_.data(), frames) != frames)
            writerStatus_.store(sndfileStatus(asFile(handle_)));
    }
}

void VELTExtendedAudioFile::runWriter() {
    while (!stopWriter_.load(std::memory_order_acquire)) {
        queued_->waitFor(20);
        drainQueue();
    }
    drainQueue();
}

AudioStatus VELTExtendedAudioFile::dispose() {
    if (!handle_)
        return kAudioStatusNoError;
    if (writer_.joinable()) {
        stopWriter_.store(true, std::memory_order_release);
        queued_->release();
        writer_.join();
    }
    AudioStatus status = writerStatus_.load();
    if (sf_close(asFile(handle_)) != 0 && status == kAudioStatusNoError)
        status = kAudioStatusFileFailure;
    handle_ = nullptr;
    return status;
}

} // namespace tavolar
