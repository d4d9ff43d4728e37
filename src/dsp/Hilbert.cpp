#include "dsp/Hilbert.h"

#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace tavolar {

std::size_t hilbertTransformLength(std::size_t length) {
    TAVOLAR_PARAMETER_ASSERT(length <= (std::size_t{1} << 31));
    // Deliberately 32-bit: an empty length wraps round to 0.
    std::uint32_t bits = static_cast<std::uint32_t>(length) - 1;
    bits |= bits >> 1;
    bits |= bits >> 2;
    bits |= bits >> 4;
    bits |= bits >> 8;
    bits |= bits >> 16;
    return static_cast<std::uint32_t>(bits + 1);
}

VELTComplexVector hilbertTransformedVector(const VELTRealVector& signal) {
    const std::size_t length = hilbertTransformLength(signal.length());
    if (length == 0)
        return {};
    VELTRealVector padded = signal;
    padded.setLength(length);

    // The spectrum of a real signal is conjugate-symmetric, so the one-sided spectrum the weighting
    // leaves is the real transform's bins 0 .. N/2, those strictly between DC and N/2 doubled, and
    // zeros above N/2. One real transform replaces the full complex one.
    const VELTFFTSetup setup = VELTFFTSetup::FFTSetupWithLength(length);
    VELTComplexVector spectrum(length);
    float* real = spectrum.mutableRealComponents();
    float* imaginary = spectrum.mutableImaginaryComponents();
    setup.forwardReal(padded.components(), real, imaginary);
    for (std::size_t k = 1; k < length / 2; ++k) {
        real[k] *= 2.0f;
        imaginary[k] *= 2.0f;
    }

    VELTComplexVector analytic(length);
    setup.inverseComplex(real, imaginary, analytic.mutableRealComponents(),
                         analytic.mutableImaginaryComponents());
    return analytic;
}

VELTRealVector doublet(const VELTRealVector& signal) {
    return hilbertTransformedVector(signal).imag();
}

VELTRealVector energyTimeCurve(const VELTRealVector& signal) {
    const VELTComplexVector analytic = hilbertTransformedVector(signal);
    const std::size_t length = analytic.length();
    VELTRealVector envelope(length);
    const float* hilbert = analytic.imaginaryComponents();
    const std::size_t available = std::min(signal.length(), length);
    float* out = envelope.mutableComponents();
    for (std::size_t i = 0; i < length; ++i) {
        const float x = i < available ? signal[i] : 0.0f;
        out[i] = std::sqrt(x * x + hilbert[i] * hilbert[i]);
    }
    return envelope;
}

} // namespace tavolar
