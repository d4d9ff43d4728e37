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
    // p = 2^e m with m in [sqrt(1/2), sqrt(2)); ln m = 2 atanh(s), s = (m - 1) / (m + 1), |s| < 0.172,
    // by its series up to s^9 (the next term is below 1e-9). Selections are made on the bits, with
    // masks: comparisons of floats that may be not-a-number keep the compiler from vectorising.
    const auto raw = std::bit_cast<std::uint32_t>(power);
    // Subnormal powers (magnitudes below 1.1e-19) are brought into the normal range by 2^64 first.
    const std::uint32_t subnormal = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0u);
    const std::uint32_t bits =
        (std::bit_cast<std::uint32_t>(power * 0x1p64f) & subnormal) | (raw & ~subnormal);
    const std::uint32_t upper = ((bits & 0x007FFFFFu) + 0x004AFB0Cu) >> 23; // mantissa above sqrt(2)
    const float mantissa = std::bit_cast<float>((bits & 0x007FFFFFu) | (0x3F800000u - (upper << 23)));
    const auto exponent = static_cast<std::int32_t>(((bits >> 23) & 0xFFu) + upper) - 127 -
                          static_cast<std::int32_t>(subnormal & 64u);
    const float s = (mantissa - 1.0f) / (mantissa + 1.0f), s2 = s * s;
    const float logarithm =
        2.0f * s * (1.0f + s2 * (1.0f / 3.0f + s2 * (1.0f / 5.0f + s2 * (1.0f / 7.0f + s2 * (1.0f / 9.0f)))));
    constexpr float kDecibelsPerOctave = 3.01029996f; // 10 log10(2)
    constexpr float kDecibelsPerNeper = 4.34294482f;  // 10 / ln(10)
    const float decibels = kDecibelsPerOctave * static_cast<float>(exponent) + kDecibelsPerNeper * logarithm;
    // Silence reads as the floor's level, 20 log10(kDecibelFloor); infinity and not-a-number pass.
    constexpr float kSilence = -758.595642f;
    const std::uint32_t zero = 0u - static_cast<std::uint32_t>((raw & 0x7FFFFFFFu) == 0u);
    const std::uint32_t special = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0x7F800000u);
    const std::uint32_t result = (std::bit_cast<std::uint32_t>(kSilence) & zero) | (raw & special) |
                                 (std::bit_cast<std::uint32_t>(decibels) & ~(zero | special));
    return std::bit_cast<float>(result);
}

} // namespace tavolar
