#pragma once
// The scratch of one slice transform of a waterfall or spectrogram: the FFT plan, the zero-padded
// time-domain slice, its spectrum, and the taper's coefficients worked out once, so that a slice
// costs one transform and a few passes over its samples. The spectrum stays inside the working set,
// so it is kept interleaved (bins 0 to fftLength / 2), the layout FFTW computes fastest; the forward
// transform is unscaled.
// A working set is used by one thread at a time (borrowed from a ResourcePool).

#include "dsp/Decibels.h"
#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <bit>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tavolar {

class FFTWaterfallWorkingSet {
public:
    // fftLength: a power of two; windowType: a stored window type (outside 1 to 6: no taper).
    FFTWaterfallWorkingSet(std::size_t fftLength, std::int64_t windowType);
    FFTWaterfallWorkingSet(const FFTWaterfallWorkingSet&) = delete;
    FFTWaterfallWorkingSet& operator=(const FFTWaterfallWorkingSet&) = delete;

    std::size_t fftLength() const noexcept { return fftSetup_.length(); }
    std::int64_t windowType() const noexcept { return windowType_; }
    const VELTFFTInterleavedSetup& fftSetup() const noexcept { return fftSetup_; }
    VELTMutableRealVector& workingTDVector() noexcept { return workingTD_; }
    std::span<const std::complex<float>> workingFDVector() const noexcept { return workingFD_; }

    // The taper of windowType over the whole time-domain vector, applied by multiplication: the same
    // values applyWindowWithType gives, without evaluating the window's cosines for every slice.
    void applyWindow() noexcept;
    // The time-domain vector into the frequency-domain one.
    void transform() noexcept { fftSetup_.forwardReal(workingTD_.components(), workingFD_.data()); }
    // |X[k]| in dB of bins 0 to fftLength / 2 of the spectrum into levels (at least that long), by
    // decibelsOfPower.
    void spectrumToLevels(std::span<float> levels) const noexcept;

    // The level in dB of a bin whose squared magnitude is power: 20 log10(sqrt(power) + the decibel
    // floor), as convertAbsToMagnitude gives it to within 1e-4 dB for magnitudes from 1e-19 up, and
    // its floor for silence. Computed so that a loop over a spectrum vectorises (with no square root,
    // which may set errno): the library's logarithm would cost more than the slice's transform.
    static float decibelsOfPower(float power) noexcept;

private:
    VELTFFTInterleavedSetup fftSetup_;
    std::int64_t windowType_;
    bool tapered_;
    VELTRealVector taper_;
    VELTMutableRealVector workingTD_;
    AlignedBuffer<std::complex<float>> workingFD_;
};

inline float FFTWaterfallWorkingSet::decibelsOfPower(float power) noexcept {
    // 20 log10(sqrt(power)) = 10 log10(power). Silence reads as the floor's level,
    // 20 log10(kDecibelFloor), rather than minus infinity.
    constexpr float kSilence = -758.595642f;
    const auto raw = std::bit_cast<std::uint32_t>(power);
    const std::uint32_t zero = 0u - static_cast<std::uint32_t>((raw & 0x7FFFFFFFu) == 0u);
    return std::bit_cast<float>((std::bit_cast<std::uint32_t>(kSilence) & zero) |
                                (std::bit_cast<std::uint32_t>(scaledLog10(power, 10.0f)) & ~zero));
}

} // namespace tavolar
