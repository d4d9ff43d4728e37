#include "audio/devices/simulated/SimulatedSignalPath.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tavolar {

void SampleDelayLine::prepare(std::uint32_t delay, std::uint32_t maximumBlock) {
    delay_ = delay;
    buffer_.assign(std::size_t(delay) + maximumBlock, 0.0f);
    writeIndex_ = 0;
}

void SampleDelayLine::reset() noexcept {
    std::fill(buffer_.begin(), buffer_.end(), 0.0f);
    writeIndex_ = 0;
}

void SampleDelayLine::process(const float* in, float* out, std::uint32_t frames) noexcept {
    if (delay_ == 0) {
        if (in != out)
            std::memmove(out, in, frames * sizeof(float));
        return;
    }
    const std::size_t size = buffer_.size();
    std::size_t readIndex = (writeIndex_ + size - delay_) % size;
    for (std::uint32_t n = 0; n < frames; ++n) {
        buffer_[writeIndex_] = in[n];
        out[n] = buffer_[readIndex];
        if (++writeIndex_ == size)
            writeIndex_ = 0;
        if (++readIndex == size)
            readIndex = 0;
    }
}

void PartitionedConvolver::prepare(std::span<const float> impulseResponse, std::uint32_t blockSize) {
    blockSize_ = blockSize;
    const std::size_t fftLength = 2 * std::size_t(blockSize);
    bins_ = std::size_t(blockSize) + 1;
    partitions_ = std::max<std::size_t>(1, (impulseResponse.size() + blockSize - 1) / blockSize);
    setup_ = std::make_unique<VELTFFTSetup>(VELTFFTSetup::FFTSetupWithLength(fftLength));
    responseReal_.assign(partitions_ * bins_, 0.0f);
    responseImaginary_.assign(partitions_ * bins_, 0.0f);
    historyReal_.assign(partitions_ * bins_, 0.0f);
    historyImaginary_.assign(partitions_ * bins_, 0.0f);
    input_.assign(fftLength, 0.0f);
    output_.assign(fftLength, 0.0f);
    sumReal_.assign(bins_, 0.0f);
    sumImaginary_.assign(bins_, 0.0f);
    AlignedBuffer<float> segment(fftLength, 0.0f);
    for (std::size_t partition = 0; partition < partitions_; ++partition) {
        std::fill(segment.begin(), segment.end(), 0.0f);
        std::size_t first = partition * blockSize;
        std::size_t count = first < impulseResponse.size()
                                ? std::min<std::size_t>(blockSize, impulseResponse.size() - first)
                                : 0;
        std::copy_n(impulseResponse.data() + first, count, segment.data());
        setup_->forwardReal(segment.data(), responseReal_.data() + partition * bins_,
                            responseImaginary_.data() + partition * bins_);
    }
    newestPartition_ = 0;
}

void PartitionedConvolver::reset() noexcept {
    std::fill(historyReal_.begin(), historyReal_.end(), 0.0f);
    std::fill(historyImaginary_.begin(), historyImaginary_.end(), 0.0f);
    std::fill(input_.begin(), input_.end(), 0.0f);
}

void PartitionedConvolver::process(const float* in, float* out) noexcept {
    const std::size_t block = blockSize_;
    std::memmove(input_.data(), input_.data() + block, block * sizeof(float));
    std::memmove(input_.data() + block, in, block * sizeof(float));
    newestPartition_ = (newestPartition_ + partitions_ - 1) % partitions_;
    setup_->forwardReal(input_.data(), historyReal_.data() + newestPartition_ * bins_,
                        historyImaginary_.data() + newestPartition_ * bins_);
    std::fill(sumReal_.begin(), sumReal_.end(), 0.0f);
    std::fill(sumImaginary_.begin(), sumImaginary_.end(), 0.0f);
    float* __restrict sumReal = sumReal_.data();
    float* __restrict sumImaginary = sumImaginary_.data();
    for (std::size_t partition = 0; partition < partitions_; ++partition) {
        std::size_t history = (newestPartition_ + partition) % partitions_;
        const float* __restrict xr = historyReal_.data() + history * bins_;
        const float* __restrict xi = historyImaginary_.data() + history * bins_;
        const float* __restrict hr = responseReal_.data() + partition * bins_;
        const float* __restrict hi = responseImaginary_.data() + partition * bins_;
        for (std::size_t bin = 0; bin < bins_; ++bin) {
            sumReal[bin] += xr[bin] * hr[bin] - xi[bin] * hi[bin];
            sumImaginary[bin] += xr[bin] * hi[bin] + xi[bin] * hr[bin];
        }
    }
    setup_->inverseReal(sumReal_.data(), sumImaginary_.data(), output_.data());
    std::memcpy(out, output_.data() + block, block * sizeof(float));
}

void SimulatedSignalPath::prepare(const SimulatedDeviceConfiguration& configuration) {
    configuration_ = configuration;
    const std::uint32_t block = configuration.bufferSize;
    deviceUnderTestDelay_.prepare(configuration.delay, block);
    convolver_.prepare(configuration.impulseResponse, block);
    latencies_.assign(configuration.inputChannels, SampleDelayLine{});
    for (std::uint32_t channel = 0; channel < configuration.inputChannels; ++channel)
        latencies_[channel].prepare(
            channel < configuration.inputLatencies.size() ? configuration.inputLatencies[channel] : 0, block);
    scratch_.assign(block, 0.0f);
    noiseState_ = configuration.noiseSeed ? configuration.noiseSeed : 1;
    noiseLevel_ = static_cast<float>(configuration.noiseLevel);
}

void SimulatedSignalPath::reset() noexcept {
    deviceUnderTestDelay_.reset();
    convolver_.reset();
    for (SampleDelayLine& line : latencies_)
        line.reset();
    noiseState_ = configuration_.noiseSeed ? configuration_.noiseSeed : 1;
}

void SimulatedSignalPath::process(const float* const* outputs, float* const* inputs) noexcept {
    const std::uint32_t frames = configuration_.bufferSize;
    const float second = static_cast<float>(configuration_.secondHarmonic);
    const float third = static_cast<float>(configuration_.thirdHarmonic);
    const float gain = static_cast<float>(configuration_.inputGain);

    for (std::uint32_t channel = 0; channel < configuration_.inputChannels; ++channel)
        std::memset(inputs[channel], 0, frames * sizeof(float));

    float* signal = scratch_.data();
    const float* drive = outputs[configuration_.deviceUnderTestOutput];
    for (std::uint32_t n = 0; n < frames; ++n) {
        float x = drive[n];
        signal[n] = x + second * x * x + third * x * x * x;
    }
    deviceUnderTestDelay_.process(signal, signal, frames);
    convolver_.process(signal, signal);
    float* microphone = inputs[configuration_.microphoneInput];
    for (std::uint32_t n = 0; n < frames; ++n)
        microphone[n] = gain * signal[n];
    if (configuration_.loopbackInput) {
        float* loopback = inputs[*configuration_.loopbackInput];
        const float* source = outputs[*configuration_.loopbackOutput];
        for (std::uint32_t n = 0; n < frames; ++n)
            loopback[n] += source[n];
    }
    if (noiseLevel_ > 0.0f) {
        // Gaussian noise by Box-Muller from a xorshift generator; deterministic for a given seed.
        auto uniform = [this]() noexcept {
            noiseState_ ^= noiseState_ << 13, noiseState_ ^= noiseState_ >> 7,
                noiseState_ ^= noiseState_ << 17;
            return (double(noiseState_ >> 11) + 0.5) / double(1ull << 53);
        };
        for (std::uint32_t channel = 0; channel < configuration_.inputChannels; ++channel) {
            float* input = inputs[channel];
            for (std::uint32_t n = 0; n < frames; n += 2) {
                double radius = std::sqrt(-2.0 * std::log(uniform())), angle = 6.283185307179586 * uniform();
                input[n] += noiseLevel_ * static_cast<float>(radius * std::cos(angle));
                if (n + 1 < frames)
                    input[n + 1] += noiseLevel_ * static_cast<float>(radius * std::sin(angle));
            }
        }
    }
    for (std::uint32_t channel = 0; channel < configuration_.inputChannels; ++channel)
        latencies_[channel].process(inputs[channel], inputs[channel], frames);
}

} // namespace tavolar
