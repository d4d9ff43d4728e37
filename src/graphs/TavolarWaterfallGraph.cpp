#include "graphs/TavolarWaterfallGraph.h"

#include "graphcalc/WaterfallGraphCalculationController.h"
#if TAVOLAR_WITH_GRAPHICS
#include "graphs/SurfaceGraphPlots.h"
#endif
#include "platform/TavolarLocalizedString.h"

#include <cmath>
#include <limits>

namespace tavolar {

TavolarWaterfallGraph::TavolarWaterfallGraph() : TavolarWaterfallGraph(graphTitle()) {}

TavolarWaterfallGraph::TavolarWaterfallGraph(std::string title) {
    setTitle(std::move(title));
    updateAxisLabels();
}

std::string TavolarWaterfallGraph::graphTitle() {
    return TavolarLocalizedString("Waterfall", "Title for the waterfall graph");
}

std::vector<GraphSetting> TavolarWaterfallGraph::graphSettings() const {
    auto name = [](const char* text) { return TavolarLocalizedString(text, "Undo action name"); };
    return {
        makeGraphSetting(
            "windowType", name("Set Window Type"), [](auto& s) -> auto& { return s.waterfall.windowType; },
            0.0, 1000.0),
        makeGraphSetting(
            "startAtPeak", name("Toggle Start at Peak"),
            [](auto& s) -> auto& { return s.waterfall.startAtPeak; }),
        makeGraphSetting(
            "startTime", name("Set Start Time"), [](auto& s) -> auto& { return s.waterfall.startTime; },
            -1.0e6, 1.0e6),
        makeGraphSetting(
            "duration", name("Set Duration"), [](auto& s) -> auto& { return s.waterfall.duration; }, 0.0,
            1.0e6),
        makeGraphSetting(
            "fftLength", name("Set FFT Length"), [](auto& s) -> auto& { return s.waterfall.fftLength; }, 16.0,
            1048576.0),
        makeGraphSetting(
            "sliceCount", name("Set Slice Count"), [](auto& s) -> auto& { return s.waterfall.sliceCount; },
            1.0, 1000.0),
    };
}

GraphQuantity TavolarWaterfallGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("Time", "Axis title"), "ms"};
}

std::optional<VELTGraphExtents> TavolarWaterfallGraph::extentsFittingGraphData() const {
    return VELTGraph::extentsFittingGraphData();
}

std::pair<double, double> TavolarWaterfallGraph::levelRange() const {
    double peak = -std::numeric_limits<double>::infinity();
    for (const auto& data : graphDataArray())
        for (std::size_t i = 0; i < data->y().length(); ++i)
            if (std::isfinite(data->y()[i]))
                peak = std::max(peak, static_cast<double>(data->y()[i]));
    if (!std::isfinite(peak))
        peak = 0.0;
    return {peak - kLevelFloor, peak};
}

void TavolarWaterfallGraph::drawInRect(VELTPainter& painter, const VELTRect& rect) const {
#if TAVOLAR_WITH_GRAPHICS
    GraphPicture picture;
    picture.graph = "waterfall";
    picture.style = PictureStyle::Waterfall;
    picture.plot = graphPlot();
    picture.roundedY = false;
    picture.levelRange = levelRange();
    drawWaterfall(painter, picture, rect);
#else
    TavolarFrequencyDomainGraph::drawInRect(painter, rect);
#endif
}

std::unique_ptr<GraphCalculationController> TavolarWaterfallGraph::makeGraphCalculationController() const {
    return std::make_unique<WaterfallGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
