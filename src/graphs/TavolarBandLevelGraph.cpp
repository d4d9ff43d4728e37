#include "graphs/TavolarBandLevelGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphs/BandGraphPlots.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarBandLevelGraph::TavolarBandLevelGraph() {
    setHorizontalAxis(VELTAxis::logarithmicAxis());
    setTitle(graphTitle(thirdOctaveBands()));
    refreshTitleModifier();
    updateAxisLabels();
}

std::string TavolarBandLevelGraph::graphTitle(bool thirdOctaveBands) {
    return thirdOctaveBands
               ? TavolarLocalizedString("Third-Octave Band Levels", "Title for the band level graph")
               : TavolarLocalizedString("Octave Band Levels", "Title for the band level graph");
}

TavolarBandLevelGraph::Weighting TavolarBandLevelGraph::weighting() const {
    switch (graphCalculationSettings().weighting) {
    case 'a':
        return Weighting::A;
    case 'c':
        return Weighting::C;
    default:
        return Weighting::None;
    }
}

std::vector<GraphSetting> TavolarBandLevelGraph::graphSettings() const {
    GraphSetting weighting{"weighting", TavolarLocalizedString("Set Frequency Weighting", "Undo action name"),
                           [](const GraphCalculationSettings& s) {
                               return s.weighting == 'a' ? 1.0 : s.weighting == 'c' ? 2.0 : 0.0;
                           },
                           [](GraphCalculationSettings& s, double value) {
                               s.weighting = value == 1.0 ? 'a' : value == 2.0 ? 'c' : 'z';
                           }};
    return {makeGraphSetting(
                "thirdOctaveBands", TavolarLocalizedString("Toggle Third-Octave Bands", "Undo action name"),
                [](auto& s) -> auto& { return s.thirdOctaveBands; }),
            std::move(weighting)};
}

GraphQuantity TavolarBandLevelGraph::horizontalAxisQuantity() const {
    return {TavolarLocalizedString("Frequency", "Axis title"), "Hz"};
}

GraphQuantity TavolarBandLevelGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("Level", "Axis title"), "dB"};
}

void TavolarBandLevelGraph::refreshTitleModifier() {
    switch (weighting()) {
    case Weighting::A:
        setTitleModifier(TavolarLocalizedString("(A-Weighted)", "Weighting after a graph's title"));
        break;
    case Weighting::C:
        setTitleModifier(TavolarLocalizedString("(C-Weighted)", "Weighting after a graph's title"));
        break;
    case Weighting::None:
        setTitleModifier({});
        break;
    }
}

void TavolarBandLevelGraph::graphSettingDidChange(std::string_view keyPath) {
    TavolarGraph::graphSettingDidChange(keyPath);
    setTitle(graphTitle(thirdOctaveBands()));
    refreshTitleModifier();
}

std::optional<VELTGraphExtents> TavolarBandLevelGraph::extentsFittingGraphData() const {
    return bandGraphExtents(graphDataArray(), thirdOctaveBands());
}

VELTGraphPlot TavolarBandLevelGraph::graphPlot() const {
    VELTGraphPlot plot = TavolarGraph::graphPlot();
    plot.bars = true;
    if (plot.curves.empty())
        return plot;
    plot.xTicks = bandTickMarks(*plot.curves.front(), thirdOctaveBands());
    return plot;
}

std::unique_ptr<GraphCalculationController> TavolarBandLevelGraph::makeGraphCalculationController() const {
    return std::make_unique<BandLevelGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
