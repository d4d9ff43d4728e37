#include "dsp/Cepstrum.h"

#include "dsp/Hilbert.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <cmath>
#include <span>

namespace tavolar {

namespace {

// The real cepstrum of length samples (a power of two) through one plan; the real transform's
// bins 0 .. N/2 are used throughout, so N = 1 works as well as any other length.
void cepstrumInto(const VELTFFTSetup& setup, const float* signal, float* cepstral) {
    const std::size_t bins = setup.length() / 2 + 1;
    VELTComplexVector spectrum(bins);
    float* real = spectrum.mutableRealComponents();
    float* imaginary = spectrum.mutableImaginaryComponents();
    setup.forwardReal(signal, real, imaginary);
    // ln |X| as half the logarithm of the power, in double precision so that neither squaring
    // overflows nor a small magnitude underflows before the logarithm.
    for (std::size_t k = 0; k < bins; ++k) {
        const double x = real[k];
        const double y = imaginary[k];
        real[k] = static_cast<float>(0.5 * std::log(x * x + y * y));
        imaginary[k] = 0.0f;
    }
    setup.inverseReal(real, imaginary, cepstral);
}

} // namespace

VELTRealVector cepstrum(const VELTRealVector& signal) {
    const std::size_t length = signal.length();
    TAVOLAR_PARAMETER_ASSERT(length != 0 && (length & (length - 1)) == 0);
    VELTRealVector cepstral(length);
    cepstrumInto(VELTFFTSetup::FFTSetupWithLength(length), signal.components(), cepstral.mutableComponents());
    return cepstral;
}

VELTRealVector minimumPhaseReconstruction(const VELTRealVector& signal) {
    const std::size_t length = hilbertTransformLength(signal.length());
    if (length == 0)
        return {};
    VELTRealVector padded = signal;
    padded.setLength(length);
    const VELTFFTSetup setup = VELTFFTSetup::FFTSetupWithLength(length);
    VELTRealVector cepstral(length);
    cepstrumInto(setup, padded.components(), cepstral.mutableComponents());

    // Fold the (even) cepstrum onto positive quefrencies: what lay at negative quefrency is added to
    // its mirror, which makes the log spectrum causal and so the signal minimum phase.
    const std::size_t half = length / 2;
    VELTRealVector folded(length);
    folded[0] = cepstral[0];
    for (std::size_t i = 1; i < half; ++i)
        folded[i] = 2.0f * cepstral[i];
    if (length % 2 == 0)
        folded[half] = cepstral[half];

    const std::size_t bins = half + 1;
    VELTComplexVector spectrum(bins);
    setup.forwardReal(folded.components(), spectrum.mutableRealComponents(),
                      spectrum.mutableImaginaryComponents());
    spectrum.exp();
    VELTRealVector minimumPhase(length);
    setup.inverseReal(spectrum.realComponents(), spectrum.imaginaryComponents(),
                      minimumPhase.mutableComponents());
    return minimumPhase;
}

} // namespace tavolar
