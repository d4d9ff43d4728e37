#include "dsp/Resampling.h"

#include "dsp/Hilbert.h"
#include "dsp/ResamplingTables.h"
#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <complex>

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
    VELTRealVector result = taps ? fftFilteredVector(signal, *taps) : signal;
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
