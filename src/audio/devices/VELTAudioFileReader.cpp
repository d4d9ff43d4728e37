#include "audio/devices/VELTAudioFileReader.h"

#include <algorithm>

namespace tavolar {

VELTAudioFileReader::VELTAudioFileReader(std::uint32_t bufferCount, std::uint32_t framesPerBuffer,
                                         const AudioStreamDescription& description)
    : framesPerBuffer_(framesPerBuffer), channels_(std::max<std::uint32_t>(1, description.channelsPerFrame)),
      queue_(std::size_t(bufferCount) * framesPerBuffer *
             std::max<std::uint32_t>(1, description.channelsPerFrame)),
      readBuffers_(std::max<std::uint32_t>(1, description.channelsPerFrame), framesPerBuffer, 4),
      interleaved_(std::size_t(framesPerBuffer) * std::max<std::uint32_t>(1, description.channelsPerFrame)) {
    fileEnded_.store(true);
}

VELTAudioFileReader::~VELTAudioFileReader() {
    stop();
}

void VELTAudioFileReader::setFile(std::unique_ptr<VELTExtendedAudioFile> file) {
    stop();
    file_ = std::move(file);
    queue_.reset();
    fileEnded_.store(file_ == nullptr);
    if (file_ && file_->fileDataFormat().channelsPerFrame != channels_)
        fileEnded_.store(true);
}

void VELTAudioFileReader::fill() {
    if (fileEnded_.load(std::memory_order_relaxed))
        return;
    // Whole frames only: the queue's capacity need not be a multiple of the channel count.
    while (queue_.writeAvailable() / channels_ >= framesPerBuffer_) {
        std::uint32_t frames = framesPerBuffer_;
        if (file_->read(frames, readBuffers_) != kAudioStatusNoError || frames == 0) {
            fileEnded_.store(true, std::memory_order_release);
            return;
        }
        for (std::uint32_t channel = 0; channel < channels_; ++channel)
            for (std::uint32_t n = 0; n < frames; ++n)
                interleaved_[std::size_t(n) * channels_ + channel] = readBuffers_[channel].data[n];
        queue_.write(std::span<const float>(interleaved_.data(), std::size_t(frames) * channels_));
    }
}

void VELTAudioFileReader::start() {
    if (reader_.joinable())
        return;
    if (file_) {
        AudioStreamDescription client = file_->fileDataFormat();
        client.formatFlags = kAudioFormatFlagsFloatNonInterleaved;
        file_->setClientDataFormat(client);
    }
    fill();
    stopReader_.store(false);
    reader_ = std::thread([this] { run(); });
}

void VELTAudioFileReader::stop() {
    if (!reader_.joinable())
        return;
    stopReader_.store(true, std::memory_order_release);
    wanted_.release();
    reader_.join();
}

void VELTAudioFileReader::run() {
    while (!stopReader_.load(std::memory_order_acquire)) {
        fill();
        wanted_.waitFor(20);
    }
}

std::uint32_t VELTAudioFileReader::copyFrames(std::uint32_t frames, VELTAudioBufferList& buffers) noexcept {
    const bool ended = fileEnded_.load(std::memory_order_acquire);
    auto regions = queue_.readRegions(std::size_t(frames) * channels_);
    const std::uint32_t supplied = static_cast<std::uint32_t>(regions.size() / channels_);
    const std::size_t split = regions.first.size();
    const std::uint32_t bufferCount = std::min(buffers.numberBuffers(), channels_);
    for (std::uint32_t channel = 0; channel < bufferCount; ++channel) {
        float* destination = buffers[channel].data;
        for (std::uint32_t n = 0; n < supplied; ++n) {
            std::size_t index = std::size_t(n) * channels_ + channel;
            destination[n] = index < split ? regions.first[index] : regions.second[index - split];
        }
    }
    queue_.commitRead(std::size_t(supplied) * channels_);
    if (supplied < frames && !ended)
        underruns_.fetch_add(1, std::memory_order_relaxed);
    wanted_.release();
    return supplied;
}

bool VELTAudioFileReader::endOfStream() const noexcept {
    return fileEnded_.load(std::memory_order_acquire) && queue_.readAvailable() == 0;
}

bool VELTAudioFileReader::canSupply(std::uint32_t frames) const noexcept {
    return fileEnded_.load(std::memory_order_acquire) ||
           queue_.readAvailable() >= std::size_t(frames) * channels_;
}

} // namespace tavolar
