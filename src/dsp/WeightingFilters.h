#pragma once
// A and C frequency weighting of time signals, for weighted levels: the analogue weightings of the
// sound level meter standard (IEC 61672-1) mapped to each supported sample rate (44100, 48000,
// 88200, 96000, 176400 and 192000) by the bilinear transform, and applied as IIR filters in double
// precision with zero initial state.
//
// Both meet the class 1 acceptance limits at every nominal frequency from 10 Hz up to 20 kHz below
// the Nyquist frequency. The transform moves frequency F of the analogue curve to (fs / pi)
// atan(pi F / fs), compressing the top of the curve towards the Nyquist frequency, where the response
// falls to zero: the curve is followed to within 0.05 dB up to 4 kHz at 44100 and 48000, 5.9 kHz at
// 88200 and 96000, and 8.8 kHz at 176400 and 192000.
//
// Threads: every function may run on any number of threads at once.

#include "math/VELTRealVector.h"

#include <cstdint>
#include <optional>

namespace tavolar {

// The A-weighting filter at a sample rate: denominator a (a[0] = 1) and numerator b, 7 coefficients
// each (sixth order). Either output pointer may be null; an unsupported rate gives nullopt.
void VELTGetAWeightingFilter(std::int64_t sampleRate, std::optional<VELTRealDoubleVector>* a,
                             std::optional<VELTRealDoubleVector>* b);
// The C-weighting filter, 5 coefficients each (fourth order).
void VELTGetCWeightingFilter(std::int64_t sampleRate, std::optional<VELTRealDoubleVector>* a,
                             std::optional<VELTRealDoubleVector>* b);

// The signal filtered by the weighting of its sample rate, as long as the signal. At an unsupported
// rate there is no filter, and the result is that of filtering without one: [0.0].
VELTRealVector AWeightingFilteredVectorWithSampleRate(const VELTRealVector& signal, std::uint32_t sampleRate);
VELTRealVector CWeightingFilteredVectorWithSampleRate(const VELTRealVector& signal, std::uint32_t sampleRate);

} // namespace tavolar
