#pragma once
// Calculation controllers of the graphs beyond the magnitude response, in the same pattern: one
// operation per record on the controller's queue, then the post-processing of their family.
//
// Every curve states its axes (GraphQuantity) and carries, under kGraphDataColumnTitleKey, the
// column title a file of it shows ("Phase (deg)", "H3 (%)"), so that a graph written as CSV matches
// what the command line exports for the same curve and settings.
//
// - SPL: the calibrated SPL response in dB (decibel graph: smoothed, normalised by its peak).
// - Phase, minimum phase, excess phase, group delay: over the record's band, counted from the time
//   reference of the settings (phase and excess phase in degrees, wrapped unless unwrapPhase; group
//   delay in ms). Phases and delays are not smoothed: an average of angles is no angle.
// - Impulse response: linear or in dB (20 log10 |h|), over the record's centred timeline in ms, with
//   the window's shape as a second curve scaled to the response's peak.
// - Energy-time curve: the envelope of the impulse response in dB.
// - Harmonic distortion: orders, total harmonic distortion (orders 2 to 9) and the noise floor, in
//   dB or percent of the fundamental; a record whose harmonics cannot be read adds no curve.
// - Band levels: octave or third-octave, A-, C- or un-weighted, at the bands' exact centres, and in
//   dB SPL as a second curve where the record has a reference or calibration.

#include "graphcalc/GraphCalculationController.h"

namespace tavolar {

// The curves of a record's frequency response that the frequency-curve controllers draw.
enum class FrequencyCurveKind { SPL, Phase, MinimumPhase, ExcessPhase, GroupDelay };

class SPLResponseGraphCalculationController final : public FrequencyDomainDecibelGraphCalculationController {
public:
    using FrequencyDomainDecibelGraphCalculationController::FrequencyDomainDecibelGraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

// Phase, minimum phase, excess phase or group delay.
class PhaseGraphCalculationController final : public FrequencyDomainGraphCalculationController {
public:
    PhaseGraphCalculationController(FrequencyCurveKind kind, std::weak_ptr<const GraphSettingsSource> graph);
    PhaseGraphCalculationController(FrequencyCurveKind kind, GraphCalculationSettings settings);
    FrequencyCurveKind kind() const noexcept { return kind_; }
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
    // The frequency-domain pipeline without smoothing.
    GraphDataArray postProcessGraphDataArray(GraphDataArray graphData,
                                             const GraphCalculationSettings& settings) override;

private:
    FrequencyCurveKind kind_;
};

class ImpulseResponseGraphCalculationController final : public GraphCalculationController {
public:
    using GraphCalculationController::GraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

class EnergyTimeCurveGraphCalculationController final : public GraphCalculationController {
public:
    using GraphCalculationController::GraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

class HarmonicDistortionGraphCalculationController final : public FrequencyDomainGraphCalculationController {
public:
    using FrequencyDomainGraphCalculationController::FrequencyDomainGraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
    // Curves of one record are never combined with each other: only the multi-select modes' smoothing
    // and normalisation apply, per curve.
    GraphDataArray postProcessGraphDataArray(GraphDataArray graphData,
                                             const GraphCalculationSettings& settings) override;
};

class BandLevelGraphCalculationController final : public GraphCalculationController {
public:
    using GraphCalculationController::GraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

// Graph data as CSV text: the first curve's X, then every curve's Y, titled by their column titles
// (or their quantities), with frequency curves written "%f," and time curves (X in ms) with every
// significant digit, as the command line writes them. Nothing when the curves do not share one X.
std::optional<std::string> csvTextForGraphData(const GraphDataArray& graphData);

} // namespace tavolar
