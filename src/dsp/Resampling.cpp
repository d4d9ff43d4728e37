#include "dsp/Resampling.h"

#include "dsp/Hilbert.h"
#include "dsp/ResamplingTables.h"
#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>

namespace tavolar {

namespace {

const resampling_tables::LowpassPrototype* lowpassPrototype(float factor) {
    for (const auto& prototype : resampling_tables::kLowpassPrototypes)
        if (static_cast<float>(prototype.factor) == factor)
            return &prototype;
    return nullptr;
}

// The prototype's taps, its stored half mirrored, times gain (a power of two here, so exact).
VELTRealVector expandedTaps(const resampling_tables::LowpassPrototype& prototype, float gain) {
    VELTRealVector taps(prototype.length);
    float* out = taps.mutableComponents();
    for (std::size_t i = 0; i < prototype.halfTaps.size(); ++i)
        out[i] = out[prototype.length - 1 - i] = prototype.halfTaps[i] * gain;
    return taps;
}

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define TAVOLAR_TAP_LOOP __attribute__((target_clones("avx2", "default")))
#else
#define TAVOLAR_TAP_LOOP
#endif

constexpr std::size_t kTapLanes = 8;
using TapLanes = float __attribute__((vector_size(kTapLanes * sizeof(float))));

// sum of a[i] b[i] over count values, eight partial sums at a time.
TAVOLAR_TAP_LOOP float dotProduct(const float* a, const float* b, std::size_t count) noexcept {
    TapLanes sums = {};
    std::size_t i = 0;
    for (; i + kTapLanes <= count; i += kTapLanes) {
        TapLanes x, y;
        std::memcpy(&x, a + i, sizeof x);
        std::memcpy(&y, b + i, sizeof y);
        sums += x * y;
    }
    float sum = 0.0f;
    for (std::size_t lane = 0; lane < kTapLanes; ++lane)
        sum += sums[lane];
    for (; i < count; ++i)
        sum += a[i] * b[i];
    return sum;
}

// Every q-th sample, from index 0, of the circular convolution that fftFilteredVector forms (at N,
// the signal zero-padded), computed directly: only the samples kept are formed, at a cost that
// hardly depends on q, since the taps grow with it. The same values up to rounding.
VELTRealVector keptSamplesOfCircularConvolution(const VELTRealVector& signal, const VELTRealVector& taps,
                                                std::size_t q) {
    const std::size_t length = signal.length(), count = taps.length();
    const std::size_t transformLength = hilbertTransformLength(std::max(length, count));
    VELTRealVector result((length + q - 1) / q);
    if (length == 0 || count == 0)
        return result;
    // Reversed taps make each output a plain dot product with the samples before it.
    VELTRealVector reversed = taps;
    reversed.reverse();
    const float* x = signal.components();
    for (std::size_t k = 0; k < result.length(); ++k) {
        const std::size_t n = k * q;
        if (n + 1 >= count) {
            result[k] = dotProduct(reversed.components(), x + n + 1 - count, count);
            continue;
        }
        // Near the start the convolution reaches back round the end of the padded signal.
        float sum = 0.0f;
        for (std::size_t j = 0; j < count; ++j) {
            const std::size_t index = (n + transformLength - j % transformLength) % transformLength;
            if (index < length)
                sum += taps[j] * x[index];
        }
        result[k] = sum;
    }
    return result;
}

void assertWholeFactor(float q) {
    // The condition's text is part of the contract, spaced as it has always been reported.
    if (!(q == std::rintf(q)))
        throw ParameterAssertion("q == rintf( q )");
}

} // namespace

void VELTGetFIRLowpassDecimationFilter(std::optional<VELTRealVector>* filter, float factor) {
    if (!filter)
        return;
    const auto* prototype = lowpassPrototype(factor);
    *filter = prototype ? std::optional(expandedTaps(*prototype, 1.0f / factor)) : std::nullopt;
}

void VELTGetFIRLowpassInterpolationFilter(std::optional<VELTRealVector>* filter, float factor) {
    if (!filter)
        return;
    const auto* prototype = lowpassPrototype(factor);
    *filter = prototype ? std::optional(expandedTaps(*prototype, 1.0f)) : std::nullopt;
}

VELTRealVector fftFilteredVector(const VELTRealVector& signal, const VELTRealVector& taps) {
    const std::size_t length = hilbertTransformLength(std::max(signal.length(), taps.length()));
    VELTRealVector result(signal.length());
    if (length == 0 || signal.length() == 0)
        return result;

    // Both zero-padded to N, transformed, multiplied bin by bin, transformed back; 1/N is folded
    // into the product (exact for a power of two).
    const VELTFFTInterleavedSetup setup = VELTFFTInterleavedSetup::FFTSetupWithLength(length);
    AlignedBuffer<float> padded(length);
    AlignedBuffer<std::complex<float>> spectrum(length / 2 + 1), tapSpectrum(length / 2 + 1);
    std::copy_n(taps.components(), taps.length(), padded.data());
    setup.forwardReal(padded.data(), tapSpectrum.data());
    std::fill(padded.begin(), padded.end(), 0.0f);
    std::copy_n(signal.components(), signal.length(), padded.data());
    setup.forwardReal(padded.data(), spectrum.data());
    const float scale = 1.0f / static_cast<float>(length);
    for (std::size_t k = 0; k < spectrum.size(); ++k)
        spectrum[k] *= tapSpectrum[k] * scale;
    setup.inverseRealUnscaled(spectrum.data(), padded.data());
    std::copy_n(padded.data(), signal.length(), result.mutableComponents());
    return result;
}

VELTRealVector decimate(const VELTRealVector& signal, float q) {
    assertWholeFactor(q);
    TAVOLAR_PARAMETER_ASSERT(q >= 1.0f);
    std::optional<VELTRealVector> taps;
    VELTGetFIRLowpassDecimationFilter(&taps, q);
    if (taps)
        return keptSamplesOfCircularConvolution(signal, *taps, static_cast<std::size_t>(q));
    VELTRealVector result = signal;
    result.downsampleBy(static_cast<std::size_t>(q), 0);
    return result;
}

VELTRealVector interpolate(const VELTRealVector& signal, float q) {
    assertWholeFactor(q);
    TAVOLAR_PARAMETER_ASSERT(q >= 1.0f);
    std::optional<VELTRealVector> taps;
    VELTGetFIRLowpassInterpolationFilter(&taps, q);
    VELTRealVector stuffed = signal;
    stuffed.upsampleBy(static_cast<std::size_t>(q));
    VELTRealVector result = taps ? fftFilteredVector(stuffed, *taps) : std::move(stuffed);
    result.scaleBy(q);
    return result;
}

} // namespace tavolar
