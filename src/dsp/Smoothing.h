#pragma once
// Fractional-octave smoothing of a spectrum of linearly spaced bins (bin i at i * rate / fftLength,
// from 0 Hz up to the Nyquist frequency), and its reduction to a grid of frequencies spaced evenly
// on a logarithmic axis.
//
// The values are averaged as they are given: the caller chooses the domain (decibels, linear
// magnitude or power). The fraction f is in octaves (1/3, 1/12, 1/24 ...). The grid of f and a sample
// rate R is anchored at 1000 Hz: point k lies at 1000 * 2^(k f), computed in 32-bit floats
// (exp2 of float(k) * f, times 1000), and it runs from the point at or below 10 Hz to the first point
// at or above R / 2. Stored analyses depend on this arithmetic bit for bit. Every function may be
// called from any thread on vectors that no other thread writes.

#include "math/VELTRealVector.h"

#include <cstdint>
#include <vector>

namespace tavolar {

// Replaces every bin i by the mean of the bins from trunc(i 2^-f) to trunc(i 2^f) (both limits
// truncated, not rounded, in float arithmetic), never reaching below bin 1 nor beyond the last bin:
// bin 0 (DC) takes the value of bin 1, and the window is cut at the top. The running sums behind the
// means are accumulated in double precision and stored as floats; the means divide in double.
// An empty vector is left alone; a one-component vector cannot be smoothed and f must be 0 or more
// (parameter assertions).
void smoothWithOctaveFraction(VELTMutableRealVector& vector, float fraction);

// The same windows and means with the running sums kept in double precision, for values that span
// a wide dynamic range, such as powers: float running sums resolve a window's sum only to about
// 2^-24 of everything summed before it, which drowns a quiet band that follows a loud one.
void smoothPowersWithOctaveFraction(VELTMutableRealVector& vector, float fraction);

// The grid frequencies in Hz: 1000 * 2^(k f) for k from -(D - 1) up to U, where D is the first k
// whose point lies at or below 10 Hz and U the first whose point lies at or above R / 2, so the
// table holds 1000 Hz and the point at or above Nyquist but not the one at or below 10 Hz.
// f must be positive and finite (parameter assertion).
VELTRealVector tableForSmoothedPointsWithFraction(float fraction, std::uint32_t sampleRate);

// For each frequency F of tableForSmoothedPointsWithFraction, the component of the receiver (bins
// 0 .. L - 1 spanning 0 Hz to R / 2) at rint(F * L / (R / 2)), limited to the last bin. Nothing is
// averaged here: the receiver is normally smoothed first. The receiver must not be empty.
VELTRealVector smoothedPointsWithFraction(const VELTRealVector& vector, float fraction,
                                          std::uint32_t sampleRate);

// The bin indexes of a different selection of the same grid, kept asymmetric on purpose (graph
// curves are thinned to exactly these bins): k from -D up to -1 (the point at or below 10 Hz
// included, 1000 Hz not), then k from 1 up to U - 1 (the point at or above Nyquist left out), each
// min(L - 1, rint(1000 * 2^(k f) * L / (R / 2))). D + U - 1 indexes. A rounded index that is not a
// finite value within the signed 64-bit range raises AssertionFailure, as the arithmetic is checked.
std::vector<std::int64_t> smoothedPointIndexesForFraction(const VELTRealVector& vector, float fraction,
                                                          std::int64_t sampleRate);

} // namespace tavolar
