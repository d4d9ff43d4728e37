#pragma once
// The frequency-domain curves of a record as export writes them and the Python package reads them:
// magnitude, SPL, phase, minimum and excess phase and group delay over one axis, weighted, smoothed
// and placed on a logarithmic grid as asked.

#include "core/VELTMeasurementRecord.h"
#include "graphcalc/GraphCalculationSettings.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar::cli {

// The names of the frequency curves, in the order files list them.
inline constexpr std::string_view kFrequencyCurveNames[] = {"magnitude",     "spl",          "phase",
                                                            "minimum-phase", "excess-phase", "group-delay"};

struct FrequencyCurveRequest {
    std::vector<std::string> names;     // of kFrequencyCurveNames
    std::optional<int> smoothing;       // 1/N octave, N from 1
    bool powerSmoothing = false;        // averages powers rather than decibels
    std::optional<int> pointsPerOctave; // a logarithmic grid instead of the bins
    std::optional<char> weighting;      // 'a' or 'c'
    PhaseTimeReference phaseReference = PhaseTimeReference::TimeZero;
    std::size_t fftLength = 0; // a power of two
    bool unwrapped = false;
};

struct FrequencyCurves {
    VELTRealVector frequencies;         // Hz
    std::vector<VELTRealVector> curves; // one for each name requested, over frequencies
};

// The gain in dB of the weighting filter ('a' or 'c') of the record's rate at each frequency: the
// filter that weights signals, so that a weighted curve and a weighted level agree. A rate without
// that filter is a failure; what names the record in its message ("Record 3", "The record").
Expected<VELTRealVector> weightingDecibels(const VELTMeasurementRecord& record, char weighting,
                                           const VELTRealVector& frequencies, std::string_view what);

// The named curves over the record's valid bins, or the points of a logarithmic grid that lie within
// them. Weighting is added to magnitude and SPL, which are then smoothed over every bin from 0 Hz (as
// smoothing windows count bins from there) before the valid bins are taken; phases and group delay
// are picked, not averaged. Fails only for a weighting the record's rate has no filter for.
Expected<FrequencyCurves> frequencyCurvesOfRecord(const VELTMeasurementRecord& record,
                                                  const FrequencyCurveRequest& request,
                                                  std::string_view what);

} // namespace tavolar::cli
