#include "graphs/TavolarPhaseGraph.h"

#include "graphs/FrequencyGraphPlots.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarPhaseGraph::TavolarPhaseGraph(FrequencyCurveKind kind, std::string title) : kind_(kind) {
    setTitle(std::move(title));
    updateTitleModifier();
    updateAxisLabels();
}

std::string TavolarPhaseGraph::graphTitle() {
    return TavolarLocalizedString("Phase", "Title for the phase graph");
}

std::vector<GraphSetting> TavolarPhaseGraph::graphSettings() const {
    std::vector<GraphSetting> settings = TavolarFrequencyDomainGraph::graphSettings();
    if (kind_ != FrequencyCurveKind::GroupDelay)
        settings.push_back(makeGraphSetting(
            "unwrapPhase", TavolarLocalizedString("Toggle Phase Unwrapping", "Undo action name"),
            [](auto& s) -> auto& { return s.unwrapPhase; }));
    settings.push_back(makeGraphSetting(
        "phaseReference", TavolarLocalizedString("Set Phase Reference", "Undo action name"),
        [](auto& s) -> auto& { return s.phaseReference; }, 0.0, 2.0));
    return settings;
}

GraphQuantity TavolarPhaseGraph::verticalAxisQuantity() const {
    if (kind_ == FrequencyCurveKind::GroupDelay)
        return {TavolarLocalizedString("Group delay", "Axis title"), "ms"};
    return {TavolarLocalizedString("Phase", "Axis title"), "deg"};
}

namespace {

FrequencyGraphKind frequencyGraphKind(FrequencyCurveKind kind) {
    switch (kind) {
    case FrequencyCurveKind::MinimumPhase:
        return FrequencyGraphKind::MinimumPhase;
    case FrequencyCurveKind::ExcessPhase:
        return FrequencyGraphKind::ExcessPhase;
    case FrequencyCurveKind::GroupDelay:
        return FrequencyGraphKind::GroupDelay;
    case FrequencyCurveKind::Phase:
    case FrequencyCurveKind::SPL:
        break;
    }
    return FrequencyGraphKind::Phase;
}

} // namespace

std::optional<VELTGraphExtents> TavolarPhaseGraph::extentsFittingGraphData() const {
    // The pictures of the phase graphs know their vertical ranges; the horizontal one follows the axis.
    std::optional<VELTGraphExtents> extents = TavolarFrequencyDomainGraph::extentsFittingGraphData();
    for (const FrequencyGraphDescription& description : frequencyGraphDescriptions())
        if (description.kind == frequencyGraphKind(kind_))
            if (auto plot = frequencyGraphPlot(description, graphDataArray(), graphCalculationSettings());
                plot && extents) {
                extents->yMin = plot->extents.yMin;
                extents->yMax = plot->extents.yMax;
            }
    return extents;
}

VELTGraphPlot TavolarPhaseGraph::graphPlot() const {
    VELTGraphPlot plot = TavolarFrequencyDomainGraph::graphPlot();
    if (isWrapped())
        plot.ySteps = {45.0, 90.0, 180.0};
    return plot;
}

std::unique_ptr<GraphCalculationController> TavolarPhaseGraph::makeGraphCalculationController() const {
    return std::make_unique<PhaseGraphCalculationController>(kind_, graphCalculationSettings());
}

} // namespace tavolar
