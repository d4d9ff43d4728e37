#include "graphs/TavolarSpectrogramGraph.h"

#include "graphcalc/SpectrogramGraphCalculationController.h"
#if TAVOLAR_WITH_GRAPHICS
#include "graphs/SurfaceGraphPlots.h"
#endif
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarSpectrogramGraph::TavolarSpectrogramGraph() : TavolarWaterfallGraph(graphTitle()) {}

std::string TavolarSpectrogramGraph::graphTitle() {
    return TavolarLocalizedString("Spectrogram", "Title for the spectrogram graph");
}

std::vector<GraphSetting> TavolarSpectrogramGraph::graphSettings() const {
    std::vector<GraphSetting> settings = TavolarWaterfallGraph::graphSettings();
    settings.push_back(makeGraphSetting(
        "overlap", TavolarLocalizedString("Set Overlap", "Undo action name"),
        [](auto& s) -> auto& { return s.waterfall.overlap; }, 0.0, 0.99));
    return settings;
}

void TavolarSpectrogramGraph::drawInRect(VELTPainter& painter, const VELTRect& rect) const {
#if TAVOLAR_WITH_GRAPHICS
    GraphPicture picture;
    picture.graph = "spectrogram";
    picture.style = PictureStyle::HeatMap;
    picture.plot = graphPlot();
    picture.roundedY = false;
    picture.levelRange = levelRange();
    drawHeatMap(painter, picture, rect);
#else
    TavolarFrequencyDomainGraph::drawInRect(painter, rect);
#endif
}

std::unique_ptr<GraphCalculationController> TavolarSpectrogramGraph::makeGraphCalculationController() const {
    return std::make_unique<SpectrogramGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
