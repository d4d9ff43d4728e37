#include "graphs/TavolarBandLevelGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphs/BandGraphPlots.h"
#include "platform/TavolarLocalizedString.h"

#include <cmath>

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
    auto extents = automaticGraphExtents(graphDataArray(), true);
    if (!extents)
        return extents;
    extents->yMin = std::max(extents->yMin - 3.0, extents->yMax - 60.0);
    extents->yMax += 3.0;
    // Half a band's width on either side.
    const double halfBand = std::pow(2.0, thirdOctaveBands() ? 1.0 / 6.0 : 0.5);
    extents->xMin /= halfBand;
    extents->xMax *= halfBand;
    return extents;
}

VELTGraphPlot TavolarBandLevelGraph::graphPlot() const {
    VELTGraphPlot plot = TavolarGraph::graphPlot();
    plot.bars = true;
    if (plot.curves.empty())
        return plot;
    // Every band labelled with its nominal centre; third octaves only at the octaves, which keeps the
    // labels apart.
    const VELTGraphData& first = *plot.curves.front();
    for (std::size_t i = 0; i < first.x().length(); ++i) {
        const double nominal = nominalBandCentre(first.x()[i]);
        const double octaves = std::log2(nominal / 1000.0);
        const bool labelled = !thirdOctaveBands() || std::abs(octaves - std::round(octaves)) < 0.1;
        plot.xTicks.push_back({first.x()[i], labelled, labelled ? formatFrequency(nominal) : ""});
    }
    return plot;
}

std::unique_ptr<GraphCalculationController> TavolarBandLevelGraph::makeGraphCalculationController() const {
    return std::make_unique<BandLevelGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
