#include "graphcalc/RecordGraphCalculationControllers.h"

#include "dsp/Decibels.h"
#include "dsp/Hilbert.h"
#include "dsp/Windowing.h"
#include "export/VELTCSVExporter.h"
#include "graphcalc/RecordCurves.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace tavolar {

namespace {

void describe(VELTGraphData& data, GraphQuantity x, GraphQuantity y, std::string columnTitle) {
    data.setQuantities(std::move(x), std::move(y));
    GraphInfoDictionary info = data.infoDictionary();
    info[kGraphDataColumnTitleKey] = std::move(columnTitle);
    data.setInfoDictionary(std::move(info));
}

// An operation that runs a function of its record and settings.
class RecordCurveOperation final : public FrequencyDomainMeasurementProcessingOperation {
public:
    using Make = std::function<GraphDataArray(const VELTMeasurementRecord&, std::int64_t fftSize,
                                              const GraphCalculationSettings&)>;
    RecordCurveOperation(std::shared_ptr<VELTMeasurementRecord> record, std::int64_t fftSize,
                         GraphCalculationSettings settings, Make make)
        : FrequencyDomainMeasurementProcessingOperation(std::move(record), fftSize),
          settings_(std::move(settings)), make_(std::move(make)) {}

protected:
    void main() override {
        if (isCancelled())
            return;
        for (auto& data : make_(*record(), fftSize(), settings_))
            appendGraphData(std::move(data));
    }

private:
    GraphCalculationSettings settings_;
    Make make_;
};

GraphDataArray splCurve(const VELTMeasurementRecord& record, std::int64_t fftSize,
                        const GraphCalculationSettings&) {
    auto data = wholeSpectrumGraphData(record, static_cast<std::size_t>(fftSize),
                                       [](const VELTMeasurementRecord& whole, std::size_t length) {
                                           return whole.fftSPLResponseWithFFTLength(length);
                                       });
    describe(*data, {"Frequency", "Hz"}, {"SPL", "dB"}, "SPL (dB)");
    return {data};
}

GraphDataArray phaseCurve(FrequencyCurveKind kind, const VELTMeasurementRecord& record, std::int64_t fftSize,
                          const GraphCalculationSettings& settings) {
    const auto length = static_cast<std::size_t>(fftSize);
    VELTRealVector x = record.frequencyTableWithFFTLength(length);
    VELTRealVector y;
    const char* title = "Phase (deg)";
    switch (kind) {
    case FrequencyCurveKind::MinimumPhase:
        y = record.minimumPhaseResponseWithFFTLength(length);
        title = "Minimum phase (deg)";
        break;
    case FrequencyCurveKind::ExcessPhase:
        y = record.excessPhaseResponseWithFFTLength(length);
        title = "Excess phase (deg)";
        break;
    case FrequencyCurveKind::GroupDelay:
        y = record.groupDelayWithFFTLength(length);
        title = "Group delay (ms)";
        break;
    default:
        y = record.fftPhaseResponseWithFFTLength(length);
    }
    // Minimum phase has no time reference: it is the phase of the minimum-phase reconstruction.
    if (kind != FrequencyCurveKind::MinimumPhase)
        shiftTimeReference(y, kind == FrequencyCurveKind::GroupDelay, x,
                           phaseReferenceShift(record, settings.phaseReference));
    if (kind != FrequencyCurveKind::GroupDelay && !settings.unwrapPhase)
        wrapDegrees(y);
    auto data = MeasurementProcessingOperation::graphDataForRecord(
        record, std::move(x), std::move(y), MeasurementProcessingOperation::plotColorOfRecord(record));
    describe(*data, {"Frequency", "Hz"},
             kind == FrequencyCurveKind::GroupDelay ? GraphQuantity{"Group delay", "ms"}
                                                    : GraphQuantity{"Phase", "deg"},
             title);
    return {data};
}

GraphDataArray impulseCurves(const VELTMeasurementRecord& record, std::int64_t,
                             const GraphCalculationSettings& settings) {
    VELTRealVector impulse = record.centeredImpulseResponse();
    if (impulse.length() == 0)
        return {};
    VELTRealVector timeline = record.centeredTimeline();
    // The window's weights, cut from a response of ones as the record cuts its own, placed on the
    // centred timeline.
    VELTRealVector shape(impulse.length());
    VELTRealVector ones = VELTRealVector::onesWithLength(impulse.length());
    VELTRealVector weights = realVectorInWindow(ones, record.impulseResponseWindow());
    const auto midpoint = static_cast<std::int64_t>(impulse.length() / 2);
    for (std::size_t i = 0; i < weights.length(); ++i) {
        std::int64_t at = record.windowBegin() + static_cast<std::int64_t>(i) + midpoint;
        if (at >= 0 && at < static_cast<std::int64_t>(shape.length()))
            shape[static_cast<std::size_t>(at)] = weights[i];
    }
    float peak = 0.0f;
    impulse.getMaximumMagnitude(peak, nullptr);
    VELTColor color = MeasurementProcessingOperation::plotColorOfRecord(record);
    VELTLineStyle windowStyle{VELTColor::grayColor(), 1.0, {4.0, 2.0}};
    if (settings.decibels) {
        convertAbsToMagnitude(impulse);
        VELTRealVector windowLevels = shape;
        convertAbsToMagnitude(windowLevels);
        windowLevels.addScalar(20.0f * std::log10(std::max(peak, 1e-30f)));
        shape = std::move(windowLevels);
    } else {
        shape.scaleBy(peak);
    }
    GraphQuantity level = settings.decibels ? GraphQuantity{"Level", "dB"} : GraphQuantity{"Amplitude", ""};
    auto response =
        MeasurementProcessingOperation::graphDataForRecord(record, timeline, std::move(impulse), color);
    describe(*response, {"Time", "ms"}, level,
             settings.decibels ? "Impulse response (dB)" : "Impulse response");
    auto window =
        MeasurementProcessingOperation::graphDataForRecord(record, timeline, std::move(shape), windowStyle);
    describe(*window, {"Time", "ms"}, level, settings.decibels ? "Window (dB)" : "Window");
    return {response, window};
}

GraphDataArray etcCurve(const VELTMeasurementRecord& record, std::int64_t, const GraphCalculationSettings&) {
    VELTRealVector impulse = record.centeredImpulseResponse();
    if (impulse.length() == 0)
        return {};
    VELTRealVector envelope = energyTimeCurve(impulse);
    envelope.setLength(impulse.length());
    convertAbsToMagnitude(envelope);
    auto data = MeasurementProcessingOperation::graphDataForRecord(
        record, record.centeredTimeline(), std::move(envelope),
        MeasurementProcessingOperation::plotColorOfRecord(record));
    describe(*data, {"Time", "ms"}, {"Level", "dB"}, "ETC (dB)");
    return {data};
}

GraphDataArray harmonicCurves(const VELTMeasurementRecord& record, std::int64_t fftSize,
                              const GraphCalculationSettings& settings) {
    HarmonicCurveRequest request{settings.harmonicOrders, settings.totalHarmonicDistortion,
                                 settings.noiseFloor,
                                 static_cast<std::size_t>(std::max<std::int64_t>(fftSize, 0))};
    HarmonicCurveSet set = harmonicCurvesOfRecord(record, request);
    if (set.failure)
        return {};
    const char* unit = settings.percent ? "%" : "dB";
    VELTColor color = MeasurementProcessingOperation::plotColorOfRecord(record);
    GraphDataArray curves;
    auto add = [&](const VELTRealVector& levels, std::string title, VELTLineStyle style) {
        auto data = MeasurementProcessingOperation::graphDataForRecord(
            record, set.frequencies, settings.percent ? percentFromDecibels(levels) : levels,
            std::move(style));
        data->setName(title);
        describe(*data, {"Frequency", "Hz"}, {"Distortion", unit}, fmt::format("{} ({})", title, unit));
        curves.push_back(std::move(data));
    };
    // Orders in the record's colour, dashed more finely as they rise; the total solid and heavier; the
    // noise floor grey.
    for (const auto& [order, levels] : set.orders)
        add(levels, fmt::format("H{}", order), {color, 1.0, {6.0 / double(order - 1), 2.0}});
    if (set.total)
        add(*set.total, fmt::format("THD H2-H{}", set.summedOrders), {color, 2.0, {}});
    if (set.noiseFloor)
        add(*set.noiseFloor, "Noise floor", {VELTColor::grayColor(), 1.0, {}});
    return curves;
}

GraphDataArray bandCurves(const VELTMeasurementRecord& record, std::int64_t,
                          const GraphCalculationSettings& settings) {
    auto [bands, failure] = bandLevelsOfRecord(record, !settings.thirdOctaveBands, settings.weighting);
    if (!bands)
        return {};
    VELTColor color = MeasurementProcessingOperation::plotColorOfRecord(record);
    std::string weighted = settings.weighting == 'a' ? "dBA" : settings.weighting == 'c' ? "dBC" : "dB";
    auto levels =
        MeasurementProcessingOperation::graphDataForRecord(record, bands->exact, bands->levels, color);
    describe(*levels, {"Frequency", "Hz"}, {"Level", weighted}, fmt::format("Level ({})", weighted));
    GraphDataArray curves{levels};
    if (bands->spl) {
        auto spl = MeasurementProcessingOperation::graphDataForRecord(record, bands->exact, *bands->spl,
                                                                      VELTLineStyle{color, 2.0, {}});
        describe(*spl, {"Frequency", "Hz"}, {"SPL", weighted}, fmt::format("SPL ({})", weighted));
        curves.push_back(std::move(spl));
    }
    return curves;
}

} // namespace

std::shared_ptr<MeasurementProcessingOperation>
SPLResponseGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(record, fftSize(), calculationSettings(), splCurve);
}

PhaseGraphCalculationController::PhaseGraphCalculationController(
    FrequencyCurveKind kind, std::weak_ptr<const GraphSettingsSource> graph)
    : FrequencyDomainGraphCalculationController(std::move(graph)), kind_(kind) {}

PhaseGraphCalculationController::PhaseGraphCalculationController(FrequencyCurveKind kind,
                                                                 GraphCalculationSettings settings)
    : FrequencyDomainGraphCalculationController(std::move(settings)), kind_(kind) {}

std::shared_ptr<MeasurementProcessingOperation> PhaseGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(
        record, fftSize(), calculationSettings(),
        [kind = kind_](const VELTMeasurementRecord& r, std::int64_t size, const GraphCalculationSettings& s) {
            return phaseCurve(kind, r, size, s);
        });
}

GraphDataArray
PhaseGraphCalculationController::postProcessGraphDataArray(GraphDataArray graphData,
                                                           const GraphCalculationSettings& settings) {
    GraphCalculationSettings unsmoothed = settings;
    unsmoothed.smoothingFraction = 0.0f;
    return FrequencyDomainGraphCalculationController::postProcessGraphDataArray(std::move(graphData),
                                                                                unsmoothed);
}

std::shared_ptr<MeasurementProcessingOperation>
ImpulseResponseGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(record, 0, calculationSettings(), impulseCurves);
}

std::shared_ptr<MeasurementProcessingOperation>
EnergyTimeCurveGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(record, 0, calculationSettings(), etcCurve);
}

std::shared_ptr<MeasurementProcessingOperation>
HarmonicDistortionGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(record, fftSize(), calculationSettings(), harmonicCurves);
}

GraphDataArray HarmonicDistortionGraphCalculationController::postProcessGraphDataArray(
    GraphDataArray graphData, const GraphCalculationSettings& settings) {
    GraphCalculationSettings separate = settings;
    separate.multiSelectMode = 0;
    separate.normalize = false;
    separate.smoothingFraction = 0.0f; // levels of orders are already read through each order's window
    return FrequencyDomainGraphCalculationController::postProcessGraphDataArray(std::move(graphData),
                                                                                separate);
}

std::shared_ptr<MeasurementProcessingOperation>
BandLevelGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<RecordCurveOperation>(record, 0, calculationSettings(), bandCurves);
}

std::optional<std::string> csvTextForGraphData(const GraphDataArray& graphData) {
    if (graphData.empty())
        return std::nullopt;
    const VELTGraphData& first = *graphData.front();
    auto title = [](const VELTGraphData& data) -> std::string {
        auto entry = data.infoDictionary().find(kGraphDataColumnTitleKey);
        if (entry != data.infoDictionary().end())
            if (const auto* text = std::get_if<std::string>(&entry->second))
                return *text;
        const GraphQuantity& y = data.yQuantity();
        return y.unit.empty() ? y.name : fmt::format("{} ({})", y.name, y.unit);
    };
    VELTCSVExporter exporter;
    exporter.setWritesEverySignificantDigit(first.xQuantity().unit == "ms");
    const GraphQuantity& x = first.xQuantity();
    exporter.addColumn(first.x(), x.unit.empty() ? x.name : fmt::format("{} ({})", x.name, x.unit));
    for (const auto& data : graphData) {
        if (!(data->x() == first.x()))
            return std::nullopt;
        exporter.addColumn(data->y(), title(*data));
    }
    return exporter.csvText();
}

} // namespace tavolar
