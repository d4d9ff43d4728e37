#pragma once
// The curves that graphs and the command line derive from a record beyond its frequency response:
// time references of phase and group delay, harmonic distortion with its total and noise floor,
// and band levels. Both compute them here, so a graph and an exported file hold the same numbers.

#include "core/VELTMeasurementRecord.h"
#include "graphcalc/GraphCalculationSettings.h"
#include "math/VELTRealVector.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavolar {

// The time, in seconds, that phase and group delay count from, less the window's begin that the
// record's own curves count from: time zero (where a wire's response sits), the window's begin, or
// the impulse's peak (what crossover work aligns drivers by).
double phaseReferenceShift(const VELTMeasurementRecord& record, PhaseTimeReference reference);

// Moves a phase (degrees) or group delay (ms) curve to another time reference: a delay of shift
// seconds is a phase of -360 f shift degrees and a group delay of -1000 shift ms.
void shiftTimeReference(VELTRealVector& values, bool groupDelay, const VELTRealVector& frequencies,
                        double shift);

// Why a record has no harmonic curves.
enum class HarmonicCurveFailure {
    NoSweep,          // no sweep settings: the harmonics cannot be located
    SweepDoesNotRise, // the sweep's start is not below its end, or it has no duration
    OrderTooHigh,     // an order overlaps the linear response (see highestOrder)
    TooShortForTotal, // not even the 2nd order can be told apart, so there is no total distortion
    TooShortForNoise, // no stretch without harmonics for the noise floor
};

struct HarmonicCurveRequest {
    std::vector<std::int64_t> orders{2, 3}; // ascending, each from 2 up
    bool total = false;                     // total harmonic distortion of orders 2 to 9
    bool noiseFloor = false;
    std::size_t fftLength = 0; // raised to what the analysis needs
};

// Levels relative to the fundamental in dB, on the excitation frequencies from the record's lowest
// (its start frequency or the sweep's, whichever is higher) up to where the highest order leaves the
// sweep's band (without orders, where the 2nd does).
struct HarmonicCurveSet {
    VELTRealVector frequencies;
    std::vector<std::pair<std::int64_t, VELTRealVector>> orders; // order, dB
    std::vector<std::pair<std::int64_t, VELTRealVector>> phases; // order, degrees within -180 to 180
    std::optional<VELTRealVector> total;                         // dB
    std::optional<VELTRealVector> noiseFloor;                    // dB
    std::int64_t summedOrders = 0;                               // the total sums orders 2 to this
    std::int64_t highestOrder = 0;                               // the highest order the record tells apart
    std::optional<HarmonicCurveFailure> failure;
};

HarmonicCurveSet harmonicCurvesOfRecord(const VELTMeasurementRecord& record,
                                        const HarmonicCurveRequest& request);

// Degrees brought into -180 to 180, every component (the first included).
void wrapDegrees(VELTRealVector& phase);

// dB relative to the fundamental as percent of it.
VELTRealVector percentFromDecibels(const VELTRealVector& decibels);

// Octave or third-octave band levels of the windowed impulse response, after A or C weighting
// ('z' for none): nominal and exact centres, levels in dB re full scale, and in dB SPL where the
// record has an SPL reference in use or a microphone calibration.
struct BandLevels {
    VELTRealVector nominal, exact, levels;
    std::optional<VELTRealVector> spl;
};
enum class BandLevelFailure { NoImpulseResponse, UnsupportedSampleRate, EmptyWindow };
// The sample rates with band filters.
inline constexpr std::int64_t kBandSampleRates[] = {44100, 48000, 88200, 96000, 176400, 192000};
std::pair<std::optional<BandLevels>, std::optional<BandLevelFailure>>
bandLevelsOfRecord(const VELTMeasurementRecord& record, bool octave, char weighting);

} // namespace tavolar
