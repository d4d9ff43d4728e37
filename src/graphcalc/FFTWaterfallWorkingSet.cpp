#include "graphcalc/FFTWaterfallWorkingSet.h"

#include "dsp/Decibels.h"
#include "dsp/Windowing.h"

#include <cmath>

namespace tavolar {

FFTWaterfallWorkingSet::FFTWaterfallWorkingSet(std::size_t fftLength, std::int64_t windowType)
    : fftSetup_(VELTFFTSetup::FFTSetupWithLength(fftLength)), windowType_(windowType),
      tapered_(windowType >= 1 && windowType <= 6), workingTD_(fftLength), workingFD_(fftLength / 2 + 1),
      levels_(fftLength / 2 + 1) {
    if (tapered_) {
        taper_ = VELTRealVector::onesWithLength(fftLength);
        applyWindowWithType(taper_, windowType);
    }
}

void FFTWaterfallWorkingSet::applyWindow() noexcept {
    if (!tapered_)
        return;
    float* samples = workingTD_.mutableComponents();
    const float* taper = taper_.components();
    for (std::size_t i = 0, n = workingTD_.length(); i < n; ++i)
        samples[i] *= taper[i];
}

void FFTWaterfallWorkingSet::spectrumToLevels() noexcept {
    const float* real = workingFD_.realComponents();
    const float* imaginary = workingFD_.imaginaryComponents();
    float* levels = levels_.mutableComponents();
    const std::size_t bins = levels_.length();
    // Magnitudes in double, so that no bin overflows or underflows before its logarithm.
    for (std::size_t k = 0; k < bins; ++k)
        levels[k] =
            static_cast<float>(std::sqrt(double(real[k]) * real[k] + double(imaginary[k]) * imaginary[k]));
    convertAbsToMagnitude(levels_);
}

} // namespace tavolar
