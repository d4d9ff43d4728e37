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
#include <memory>
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

    // The time-domain vector made of runs of samples laid end to end (at most its length), zero after
    // them, with the taper of windowType over the whole vector applied in the same pass: the values
    // applyWindowWithType gives, without evaluating the window's cosines for every slice.
    void loadTapered(std::span<const std::span<const float>> runs) noexcept;
    // The time-domain vector into the frequency-domain one.
    void transform() noexcept { fftSetup_.forwardReal(workingTD_.components(), workingFD_.data()); }
    // |X[k]| in dB of bins 0 to fftLength / 2 of the spectrum into levels (at least that long), by
    // decibelsOfPower; answers the loudest of them (not-a-number skipped), found while they are in
    // the cache.
    float spectrumToLevels(std::span<float> levels) const noexcept;

    // The level in dB of a bin whose squared magnitude is power: 10 log10(power) to within 1e-4 dB
    // for every positive float (subnormal ones included), the decibel floor's level for silence, and
    // infinity and not-a-number as they are. Computed so that a loop over a spectrum vectorises (with
    // no square root, which may set errno): the library's logarithm would cost more than the slice's
    // transform.
    static float decibelsOfPower(float power) noexcept;

private:
    VELTFFTInterleavedSetup fftSetup_;
    std::int64_t windowType_;
    bool tapered_;
    std::shared_ptr<const VELTRealVector> taper_; // shared by the sets of the same length and type
    VELTMutableRealVector workingTD_;
    AlignedBuffer<std::complex<float>> workingFD_;
};

inline float FFTWaterfallWorkingSet::decibelsOfPower(float power) noexcept {
    // 20 log10(sqrt(power)) = 10 log10(power), for power = 2^e m: 10 log10(2) e + 10 log10(m), the
    // second by a polynomial in t = m - 1 with m in [0.75, 1.5) (a least-squares fit on Chebyshev
    // nodes, within 1.2e-6 dB), so that no division is needed. A power is never negative: only zero,
    // subnormal values, infinity and not-a-number need care, each selected with masks on the bits
    // (comparisons of floats that may be not-a-number keep the compiler from vectorising).
    constexpr float kSilence = -758.595642f; // 20 log10(kDecibelFloor), the level of silence
    const auto raw = std::bit_cast<std::uint32_t>(power);
    // Subnormal values are brought into the normal range by 2^64 first.
    const std::uint32_t subnormal = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0u);
    const std::uint32_t bits =
        (std::bit_cast<std::uint32_t>(power * 0x1p64f) & subnormal) | (raw & ~subnormal);
    const std::uint32_t upper = ((bits & 0x007FFFFFu) + 0x00400000u) >> 23; // mantissa of 1.5 or more
    const float t = std::bit_cast<float>((bits & 0x007FFFFFu) | (0x3F800000u - (upper << 23))) - 1.0f;
    const auto exponent = static_cast<std::int32_t>(((bits >> 23) & 0xFFu) + upper) - 127 -
                          static_cast<std::int32_t>(subnormal & 64u);
    const float mantissaLevel =
        t * (4.34295662f +
             t * (-2.17135022f +
                  t * (1.44647402f +
                       t * (-1.08997891f + t * (0.902789070f + t * (-0.722790013f + t * 0.341571302f))))));
    const float level = 3.01029996f * static_cast<float>(exponent) + mantissaLevel;
    const std::uint32_t zero = 0u - static_cast<std::uint32_t>((raw & 0x7FFFFFFFu) == 0u);
    const std::uint32_t special = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0x7F800000u);
    return std::bit_cast<float>((std::bit_cast<std::uint32_t>(level) & ~(zero | special)) |
                                (std::bit_cast<std::uint32_t>(kSilence) & zero) | (raw & special));
}

} // namespace tavolar
