#include "graphs/FrequencyGraphPlots.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphing/VELTCollapsingFrequencyNumberFormatter.h"

#include <algorithm>
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
    plot.xTickLabels = VELTCollapsingFrequencyNumberFormatter();
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
        plot.yWrap = 360.0;
    }
    // Group delay swings wildly where the level has a deep notch: the range covers the middle 96 % of
    // the values, widened by a tenth, and the swings run off the plot area.
    if (graph.kind == FrequencyGraphKind::GroupDelay) {
        std::vector<float> values;
        for (const auto& data : curves)
            for (std::size_t i = 0; i < data->y().length(); ++i)
                if (std::isfinite(data->y()[i]) && data->x()[i] > 0.0f)
                    values.push_back(data->y()[i]);
        if (values.size() >= 50) {
            auto at = [&](double fraction) {
                auto nth = values.begin() + static_cast<std::ptrdiff_t>(fraction * double(values.size() - 1));
                std::nth_element(values.begin(), nth, values.end());
                return static_cast<double>(*nth);
            };
            const double low = at(0.02), high = at(0.98);
            const double margin = std::max((high - low) * 0.1, 0.5);
            extents->yMin = std::max(extents->yMin, low - margin);
            extents->yMax = std::min(extents->yMax, high + margin);
        }
    }
    plot.extents = *extents;
    plot.curves = std::move(curves);
    return plot;
}

} // namespace tavolar
