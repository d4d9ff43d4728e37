#pragma once
// The exponential sine sweep played as the measurement stimulus.

#include "math/VELTRealVector.h"

namespace tavolar {

// An exponential sweep from startFrequency to endFrequency (Hz) over duration ms at peak amplitude,
// preceded by startSilence ms and followed by endSilence ms of zeros, at sampleRate Hz.
//
// The sweep has trunc(duration / 1000 * sampleRate) samples (no rounding to a power of two) and
// starts at a rising zero crossing: x[n] = amplitude * sin(K (exp(n / fs * R / T) - 1)), with
// R = ln(f2 / f1) and K = 2 pi f1 T / R, evaluated in double precision and narrowed to float before
// the amplitude is applied. The silences are truncated to whole samples too. No fade is applied:
// leadIn and leadOut are accepted and deliberately ignored. Nothing is validated: callers keep
// 0 < f1 < f2; a non-positive sweep length leaves only the silences.
VELTMutableRealVector realVectorWithLogSweepFrom(float startFrequency, float endFrequency, float duration,
                                                 float amplitude, float startSilence, float endSilence,
                                                 float leadIn, float leadOut, float sampleRate);

} // namespace tavolar
