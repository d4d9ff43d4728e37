#pragma once
// The scratch of one slice transform of a waterfall or spectrogram: the FFT plan, the zero-padded
// time-domain slice, its spectrum, the slice's levels in dB, and the taper's coefficients worked out
// once, so that a slice costs one transform and a few passes over its samples and allocates nothing.
// A working set is used by one thread at a time (borrowed from a ResourcePool).

#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <cstddef>
#include <cstdint>

namespace tavolar {

class FFTWaterfallWorkingSet {
public:
    // fftLength: a power of two; windowType: a stored window type (outside 1 to 6: no taper).
    FFTWaterfallWorkingSet(std::size_t fftLength, std::int64_t windowType);
    FFTWaterfallWorkingSet(const FFTWaterfallWorkingSet&) = delete;
    FFTWaterfallWorkingSet& operator=(const FFTWaterfallWorkingSet&) = delete;

    std::size_t fftLength() const noexcept { return fftSetup_.length(); }
    std::int64_t windowType() const noexcept { return windowType_; }
    const VELTFFTSetup& fftSetup() const noexcept { return fftSetup_; }
    VELTMutableRealVector& workingTDVector() noexcept { return workingTD_; }
    VELTMutableComplexVector& workingFDVector() noexcept { return workingFD_; }
    // Bins 0 to fftLength / 2 of the last slice, in dB.
    VELTMutableRealVector& levels() noexcept { return levels_; }

    // The taper of windowType over the whole time-domain vector, applied by multiplication: the same
    // values applyWindowWithType gives, without evaluating the window's cosines for every slice.
    void applyWindow() noexcept;
    // |X[k]| in dB (20 log10(|X[k]| + the decibel floor)) of the spectrum into levels().
    void spectrumToLevels() noexcept;

private:
    VELTFFTSetup fftSetup_;
    std::int64_t windowType_;
    bool tapered_;
    VELTRealVector taper_;
    VELTMutableRealVector workingTD_;
    VELTMutableComplexVector workingFD_;
    VELTMutableRealVector levels_;
};

} // namespace tavolar
