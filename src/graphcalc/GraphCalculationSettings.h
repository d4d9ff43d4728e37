#pragma once
// What a graph asks of its calculation: the settings every calculation controller reads from the
// graph model it belongs to. The graph models implement GraphSettingsSource; a controller without a
// graph (the command line, scripts) is given the settings directly.

#include "dsp/Windowing.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tavolar {

// How the curves of several selected records are combined. Stored as an integer: values beyond the
// named ones combine like the mean.
enum class TavolarFrequencyDomainGraphMultiSelectMode : std::int64_t {
    None = 0,
    Average = 1,
    Difference = 2,
    Sum = 3,
    RMSAverage = 4,
};

// Where phase and group delay count time from.
enum class PhaseTimeReference { WindowStart, TimeZero, Peak };

struct WaterfallSettings {
    std::int64_t windowType = 0;   // window of each slice (the window types of the windowing group)
    bool startAtPeak = true;       // time zero is the impulse response's peak
    float startTime = 0.0f;        // ms from time zero to the first slice's start
    float duration = 0.0f;         // ms from the first slice's start to the last one's; 0: automatic
    std::int64_t fftLength = 8192; // samples of each slice's transform
    std::int64_t sliceCount = 25;  // slices
    float overlap = 0.015625f;     // spectrogram: overlap of neighbouring slices, a fraction
};

struct GraphCalculationSettings {
    // Smoothing of frequency curves in octaves (1/12 is 0.0833...); 0 leaves them unsmoothed.
    float smoothingFraction = 0.0f;
    std::int64_t multiSelectMode = 0; // a TavolarFrequencyDomainGraphMultiSelectMode value
    bool normalize = false;

    // Phase graphs.
    bool unwrapPhase = false;
    PhaseTimeReference phaseReference = PhaseTimeReference::TimeZero;
    // Impulse graphs: levels in dB rather than linear.
    bool decibels = false;
    // Harmonic distortion graphs.
    std::vector<std::int64_t> harmonicOrders{2, 3};
    bool totalHarmonicDistortion = true;
    bool noiseFloor = true;
    bool percent = false;
    // Band graphs.
    bool thirdOctaveBands = true;
    char weighting = 'z'; // 'a', 'c' or 'z' (none)

    WaterfallSettings waterfall;
};

class GraphSettingsSource {
public:
    virtual ~GraphSettingsSource() = default;
    // Called once at the start of every calculation, on the thread that starts it.
    virtual GraphCalculationSettings graphCalculationSettings() const = 0;
};

} // namespace tavolar
