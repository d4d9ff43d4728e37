#pragma once
// Integer-factor decimation and interpolation of a signal, each with a stored linear-phase FIR
// low-pass filter applied by FFT convolution.
//
// Numeric contract. Filtering is circular convolution at N, the larger of the signal's and the
// taps' length rounded up to a power of two (see hilbertTransformLength): the tail of the
// convolution wraps round onto the start, and the filter's delay ((length - 1) / 2 samples) is not
// removed; both are deliberate. Transforms are single precision, forward unscaled and inverse
// scaled by 1/N. Supported factors are 2, 4, 8, ..., 512. The low-pass filters pass up to 0.28 / q
// of the input rate (within 0.0002 dB) and stop from 0.5 / q (at least 100 dB down), so nothing that
// decimation folds back reaches the output unattenuated. The decimation taps carry a gain of 1 / q:
// decimating divides the level by q, which the band analysis (OctaveBands.h) undoes by scaling each
// band by 2^m after m halvings; the interpolation taps have unit gain.
// Threads: every function may run on any number of threads at once.

#include "math/VELTRealVector.h"

#include <optional>

namespace tavolar {

// The decimation taps for a factor (compared exactly as a float), or nullopt for an unsupported one.
void VELTGetFIRLowpassDecimationFilter(std::optional<VELTRealVector>* filter, float factor);
// The interpolation taps for a factor, or nullopt for an unsupported one.
void VELTGetFIRLowpassInterpolationFilter(std::optional<VELTRealVector>* filter, float factor);

// The signal circularly convolved with the taps at N points (see above); the result has the
// signal's length. Empty taps give zeros.
VELTRealVector fftFilteredVector(const VELTRealVector& signal, const VELTRealVector& taps);

// Low-pass filtered with the decimation taps of q, then every q-th sample from index 0: the length
// becomes ceil(length / q). The samples kept are those of fftFilteredVector with the taps, formed
// directly (only they are computed; equal up to rounding). q must be a whole number (parameter assertion "q
// == rintf( q )"); a whole factor without taps (3, 1024, ...) keeps every q-th sample unfiltered.
VELTRealVector decimate(const VELTRealVector& signal, float q);

// q - 1 zeros after every sample, low-pass filtered with the interpolation taps of q, scaled by q:
// the length becomes length * q. The same assertion; a whole factor without taps only
// zero-stuffs and scales.
VELTRealVector interpolate(const VELTRealVector& signal, float q);

} // namespace tavolar
