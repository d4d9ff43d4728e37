#include "dsp/Hilbert.h"

#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <complex>
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

namespace {

// H(x) alone, by real transforms: bins strictly between DC and N/2 turned by -90 degrees (the
// imaginary part of the analytic signal's weighting), DC and N/2 cleared, 1/N folded in (exact for a
// power of two). Half the memory of the complex route, and the plans are the deconvolution's.
VELTRealVector hilbertComponent(const VELTRealVector& signal) {
    const std::size_t length = hilbertTransformLength(signal.length());
    if (length == 0)
        return {};
    VELTRealVector result(length); // the zero-padded signal first, then H(x)
    std::copy_n(signal.components(), std::min(signal.length(), length), result.mutableComponents());
    const VELTFFTInterleavedSetup setup = VELTFFTInterleavedSetup::FFTSetupWithLength(length);
    AlignedBuffer<std::complex<float>> spectrum(length / 2 + 1);
    setup.forwardReal(result.components(), spectrum.data());
    const float scale = 1.0f / static_cast<float>(length);
    spectrum[0] = 0.0f;
    for (std::size_t k = 1; k < length / 2; ++k)
        spectrum[k] = {spectrum[k].imag() * scale, -spectrum[k].real() * scale};
    spectrum[length / 2] = 0.0f;
    setup.inverseRealUnscaled(spectrum.data(), result.mutableComponents());
    return result;
}

} // namespace

VELTRealVector doublet(const VELTRealVector& signal) {
    return hilbertComponent(signal);
}

VELTRealVector energyTimeCurve(const VELTRealVector& signal) {
    VELTRealVector envelope = hilbertComponent(signal);
    const std::size_t available = std::min(signal.length(), envelope.length());
    const float* x = signal.components();
    float* out = envelope.mutableComponents();
    for (std::size_t i = 0; i < available; ++i)
        out[i] = std::sqrt(x[i] * x[i] + out[i] * out[i]);
    for (std::size_t i = available; i < envelope.length(); ++i)
        out[i] = std::fabs(out[i]);
    return envelope;
}

} // namespace tavolar
