#pragma once
// The signal processing of a simulated device: the device under test and the delay lines of the
// input latencies. prepare allocates and plans; process neither allocates nor locks.

#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tavolar {

// A fixed delay of whole frames over blocks of at most a given size.
class SampleDelayLine {
public:
    void prepare(std::uint32_t delay, std::uint32_t maximumBlock);
    // in and out may be the same buffer.
    void process(const float* in, float* out, std::uint32_t frames) noexcept;
    void reset() noexcept;

private:
    std::vector<float> buffer_;
    std::uint32_t delay_ = 0;
    std::size_t writeIndex_ = 0;
};

// Uniformly partitioned overlap-save convolution: blocks of P frames, an FFT of 2P, the impulse
// response cut into partitions of P whose spectra are made in prepare. Output equals the linear
// convolution of the input stream with the impulse response, with no added delay.
class PartitionedConvolver {
public:
    void prepare(std::span<const float> impulseResponse, std::uint32_t blockSize);
    // Exactly blockSize frames; in and out may be the same buffer.
    void process(const float* in, float* out) noexcept;
    void reset() noexcept;

private:
    std::uint32_t blockSize_ = 0;
    std::size_t partitions_ = 0;
    std::size_t bins_ = 0;
    std::size_t newestPartition_ = 0;
    std::unique_ptr<VELTFFTSetup> setup_;
    AlignedBuffer<float> responseReal_, responseImaginary_; // partitions x bins
    AlignedBuffer<float> historyReal_, historyImaginary_;   // partitions x bins, a ring of input spectra
    AlignedBuffer<float> input_, output_, sumReal_, sumImaginary_;
};

class SimulatedSignalPath {
public:
    void prepare(const SimulatedDeviceConfiguration& configuration);
    // outputs: outputChannels buffers of bufferSize frames (what was played); inputs: inputChannels
    // buffers to fill (what is captured).
    void process(const float* const* outputs, float* const* inputs) noexcept;
    void reset() noexcept;

private:
    SimulatedDeviceConfiguration configuration_;
    SampleDelayLine deviceUnderTestDelay_;
    PartitionedConvolver convolver_;
    std::vector<SampleDelayLine> latencies_;
    std::vector<float> scratch_;
    std::uint64_t noiseState_ = 1;
    float noiseLevel_ = 0.0f;
};

} // namespace tavolar
