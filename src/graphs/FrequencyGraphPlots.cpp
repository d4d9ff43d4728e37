#include "graphs/FrequencyGraphPlots.h"

#include "graphcalc/RecordGraphCalculationControllers.h"

#include <cmath>
#include <fmt/format.h>

namespace tavolar {

const std::vector<FrequencyGraphDescription>& frequencyGraphDescriptions() {
    static const std::vector<FrequencyGraphDescription> graphs{
        {FrequencyGraphKind::Magnitude, "magnitude", "Frequency Response", true},
        {FrequencyGraphKind::SPL, "spl", "SPL", true},
        {FrequencyGraphKind::Phase, "phase", "Phase", false},
        {FrequencyGraphKind::MinimumPhase, "minimum-phase", "Minimum Phase", false},
        {FrequencyGraphKind::ExcessPhase, "excess-phase", "Excess Phase", false},
        {FrequencyGraphKind::GroupDelay, "group-delay", "Group Delay", false},
    };
    return graphs;
}

std::optional<FrequencyGraphDescription> frequencyGraphNamed(std::string_view name) {
    for (const FrequencyGraphDescription& graph : frequencyGraphDescriptions())
        if (graph.name == name)
            return graph;
    return std::nullopt;
}

std::string smoothingTitleModifier(float smoothingFraction) {
    if (!(smoothingFraction > 0.0f))
        return {};
    return fmt::format("(1/{:.0f} Octave Smoothing)", 1.0 / smoothingFraction);
}

std::unique_ptr<GraphCalculationController>
makeFrequencyGraphController(FrequencyGraphKind kind, const GraphCalculationSettings& settings) {
    switch (kind) {
    case FrequencyGraphKind::Magnitude:
        return std::make_unique<MagnitudeResponseGraphCalculationController>(settings);
    case FrequencyGraphKind::SPL:
        return std::make_unique<SPLResponseGraphCalculationController>(settings);
    case FrequencyGraphKind::Phase:
        return std::make_unique<PhaseGraphCalculationController>(FrequencyCurveKind::Phase, settings);
    case FrequencyGraphKind::MinimumPhase:
        return std::make_unique<PhaseGraphCalculationController>(FrequencyCurveKind::MinimumPhase, settings);
    case FrequencyGraphKind::ExcessPhase:
        return std::make_unique<PhaseGraphCalculationController>(FrequencyCurveKind::ExcessPhase, settings);
    case FrequencyGraphKind::GroupDelay:
        return std::make_unique<PhaseGraphCalculationController>(FrequencyCurveKind::GroupDelay, settings);
    }
    return nullptr;
}

std::optional<VELTGraphPlot> frequencyGraphPlot(const FrequencyGraphDescription& graph, GraphDataArray curves,
                                                const GraphCalculationSettings& settings) {
    VELTGraphPlot plot;
    plot.title = std::string(graph.title);
    if (graph.smoothed)
        plot.titleModifier = smoothingTitleModifier(settings.smoothingFraction);
    plot.logarithmicX = true;
    plot.xQuantity = {"Frequency", "Hz"};
    if (!curves.empty() && curves.front()) {
        plot.xQuantity = curves.front()->xQuantity();
        plot.yQuantity = curves.front()->yQuantity();
    }
    auto extents = automaticGraphExtents(curves, plot.logarithmicX);
    if (!extents)
        return std::nullopt;
    // Wrapped phases fill their whole circle.
    if ((graph.kind == FrequencyGraphKind::Phase || graph.kind == FrequencyGraphKind::MinimumPhase ||
         graph.kind == FrequencyGraphKind::ExcessPhase) &&
        !settings.unwrapPhase) {
        extents->yMin = -180.0;
        extents->yMax = 180.0;
        plot.ySteps = {45.0, 90.0, 180.0};
    }
    plot.extents = *extents;
    plot.curves = std::move(curves);
    return plot;
}

} // namespace tavolar
