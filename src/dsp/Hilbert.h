#pragma once
// The analytic signal of a real signal (its imaginary part is the Hilbert transform) and the
// energy-time curve, the analytic signal's magnitude.
//
// Every operation works at N, the receiver's length rounded up to a power of two (a power of two
// stays as it is; see hilbertTransformLength), zero-padding the receiver. Transforms are single
// precision, forward unscaled and inverse scaled by 1/N. An empty receiver gives empty results.

#include "math/VELTComplexVector.h"
#include "math/VELTRealVector.h"

#include <cstddef>

namespace tavolar {

// The length rounded up to a power of two, formed on (length - 1) as a 32-bit unsigned value by
// or-ing in its right shifts by 1, 2, 4, 8 and 16 and adding 1: 1000 gives 1024, 1024 stays, 1
// gives 1, and 0 wraps round to 0. Lengths above 2^31 are refused (parameter assertion).
std::size_t hilbertTransformLength(std::size_t length);

// The analytic signal, N complex values: the real part is the zero-padded receiver, the imaginary
// part its Hilbert transform. Made by weighting the spectrum with 1 at DC, 2 for bins 1 .. N/2 - 1,
// 1 at N/2 (N even) and 0 above, and transforming back.
VELTComplexVector hilbertTransformedVector(const VELTRealVector& signal);

// sqrt(x^2 + H(x)^2) per sample over N samples: the linear envelope (not in decibels).
VELTRealVector energyTimeCurve(const VELTRealVector& signal);

// H(x), the imaginary part of the analytic signal, N samples.
VELTRealVector doublet(const VELTRealVector& signal);

} // namespace tavolar
