#pragma once
// Octave and third-octave band levels of a signal (an impulse response, or any time signal), by a
// bank of stored IIR band-pass filters and the RMS value of each band's output.
//
// Band index k counts third octaves from 1000 Hz: band k has the exact centre 1000 * 2^(k/3) Hz and
// a nominal centre, the standard's rounded name (31.5, 40, 50, ... Hz); octave bands are the
// multiples of 3. The tables hold third octaves -16 to 11 at 44100 and 48000, -16 to 13 at 88200,
// 96000, 176400 and 192000, and octaves -15 to 12 at all six rates; nothing at any other rate.
//
// Only the top bands of each bank are filtered at the full rate (third octaves 13 down to 2,
// octaves 12 and 9); each lower octave halves the rate of the signal (decimate, Resampling.h) and
// reuses the filters of the lowest full-rate octave, whose responses then fall one octave lower,
// and scales the band by 2^m after m halvings. Every band so obtained, at every supported rate,
// meets the class 1 limits of relative attenuation of IEC 61260-1:2014 at every breakpoint below
// 0.95 times the input's Nyquist frequency, and has unit gain at its exact centre.
//
// Table rows below the full-rate octave exist for direct use of the filters. From about 1/600 of the
// sample rate down, the 64-bit coefficients of a polynomial cannot hold the design (the poles crowd
// the unit circle): such rows miss class 1, and below about 1/900 of the rate they are unstable, as
// is the row of third octave -16 at 44100, which is kept exactly as the system has always had it.
// The band operations never use those rows: they reach those bands by decimation.
//
// Threads: every function may run on any number of threads at once.

#include "dsp/BandDecomposition.h"
#include "math/VELTRealVector.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tavolar {

// The filter of third-octave band k at a sample rate: denominator a (a[0] = 1) and numerator b,
// 7 coefficients each, and the exact and nominal centres. Any output pointer may be null. An
// unsupported rate or band gives nullopt vectors and centres of 0.
void VELTGetThirdOctaveFilter(std::int64_t sampleRate, std::int32_t band,
                              std::optional<VELTRealDoubleVector>* a, std::optional<VELTRealDoubleVector>* b,
                              float* exactCenter, float* nominalCenter);
// The same for octave band k (a multiple of 3), with 7 or 17 coefficients per vector.
void VELTGetOctaveFilter(std::int64_t sampleRate, std::int32_t band, std::optional<VELTRealDoubleVector>* a,
                         std::optional<VELTRealDoubleVector>* b, float* exactCenter, float* nominalCenter);

// Nominal centres of octaves 12, 9, ... -15 (10 entries, descending), 0 where the table has none.
std::vector<float> octaveBandCenterFrequenciesForSampleRate(std::int64_t sampleRate);
// Nominal centres of third octaves 13 down to -15 (29 entries, descending); at 44100 and 48000 the
// first two are 0.
std::vector<float> thirdOctaveBandCenterFrequenciesForSampleRate(std::int64_t sampleRate);

// The signal filtered into the band whose nominal centre matches `band` (within the float epsilon;
// pass the nominal values of the tables), and the rate of the result through actualSampleRate (may
// be null): the full rate for the top octave, sampleRate / 2^m for a band reached by m halvings.
// nullopt when no band matches; [0.0] when a band matches but has no filter.
std::optional<VELTRealVector> octaveFilteredBand(const VELTRealVector& signal, float band,
                                                 std::int64_t sampleRate, std::int64_t* actualSampleRate);
std::optional<VELTRealVector> thirdOctaveFilteredBand(const VELTRealVector& signal, float band,
                                                      std::int64_t sampleRate,
                                                      std::int64_t* actualSampleRate);

// Every octave band, 31.5 Hz to 16 kHz (10 bands at a supported rate; at another rate only the 8
// decimated bands, each [0.0] with centres 0).
BandDecomposition octaveBandsWithSampleRate(const VELTRealVector& signal, std::int64_t sampleRate);
// Every third-octave band from 31.5 Hz up (27 bands to 12.5 kHz at 44100 and 48000, 29 to 20 kHz
// above; at another rate only the 17 decimated bands, each [0.0] with centres 0).
BandDecomposition thirdOctaveBandsWithSampleRate(const VELTRealVector& signal, std::int64_t sampleRate);

} // namespace tavolar
