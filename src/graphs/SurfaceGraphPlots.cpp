#include "graphs/SurfaceGraphPlots.h"

#include "core/VELTMeasurementRecord.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"
#include "graphcalc/WaterfallGraphCalculationController.h"
#include "graphing/VELTCollapsingFrequencyNumberFormatter.h"
#include "graphing/VELTSurfaceLayout.h"
#include "graphs/FrequencyGraphPlots.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace tavolar {

namespace {

VELTSurfacePlot surfacePlotOf(const GraphPicture& picture) {
    const VELTGraphPlot& plot = picture.plot;
    VELTSurfacePlot surface;
    surface.title = plot.title;
    surface.titleModifier = plot.titleModifier;
    surface.note = plot.note;
    if (!plot.curves.empty())
        surface.surface = std::dynamic_pointer_cast<const GraphData3D>(plot.curves.front());
    surface.logarithmicX = plot.logarithmicX;
    surface.xTickLabels = plot.xTickLabels;
    surface.xMin = plot.extents.xMin;
    surface.xMax = plot.extents.xMax;
    surface.zMin = plot.extents.yMin;
    surface.zMax = plot.extents.yMax;
    std::tie(surface.levelMin, surface.levelMax) = picture.levelRange;
    surface.colorMap = VELTColorMap::named(picture.colorMap).value_or(VELTColorMap::viridis());
    surface.appearance = plot.appearance;
    return surface;
}

// Each row of the surface smoothed over a fraction of an octave: the mean power of the bins within
// half the fraction on either side of each bin (bins on a linear frequency axis), back in dB.
std::shared_ptr<const GraphData3D> smoothedSurface(const GraphData3D& surface, double octaves) {
    const std::size_t rows = surface.rows(), columns = surface.columns();
    const double step =
        columns > 1 ? (double(surface.x()[columns - 1]) - surface.x()[0]) / double(columns - 1) : 0.0;
    if (!(step > 0.0))
        return std::make_shared<GraphData3D>(surface);
    VELTRealVector values(rows * columns);
    std::vector<double> sums(columns + 1);
    const double half = std::pow(2.0, octaves / 2.0);
    for (std::size_t row = 0; row < rows; ++row) {
        const auto levels = surface.rowAtIndex(row);
        for (std::size_t bin = 0; bin < columns; ++bin)
            sums[bin + 1] =
                sums[bin] + (std::isfinite(levels[bin]) ? std::pow(10.0, levels[bin] / 10.0) : 0.0);
        for (std::size_t bin = 0; bin < columns; ++bin) {
            const double f = surface.x()[bin];
            auto index = [&](double frequency) {
                return static_cast<std::size_t>(std::clamp(std::lround((frequency - surface.x()[0]) / step),
                                                           0L, static_cast<long>(columns - 1)));
            };
            const std::size_t low = std::min(index(f / half), bin), high = std::max(index(f * half), bin);
            const double mean = (sums[high + 1] - sums[low]) / double(high - low + 1);
            values[row * columns + bin] = static_cast<float>(10.0 * std::log10(std::max(mean, 1e-30)));
        }
    }
    auto smoothed = std::make_shared<GraphData3D>(std::move(values), rows, columns);
    smoothed->setXZ(surface.x(), surface.z());
    smoothed->setInfoDictionary(surface.infoDictionary());
    smoothed->setName(surface.name());
    smoothed->setQuantities(surface.xQuantity(), surface.zQuantity(), surface.yQuantity());
    return smoothed;
}

} // namespace

Expected<GraphPicture> surfacePicture(const RecordArray& records, const PlotSettings& settings,
                                      const GraphCalculationSettings& calculation) {
    const bool waterfall = settings.graph == "waterfall";
    // One record's surface: surfaces of several records would hide each other.
    const RecordArray first{records.front()};
    GraphDataArray data = waterfall ? WaterfallGraphCalculationController(calculation).calculate(first)
                                    : SpectrogramGraphCalculationController(calculation).calculate(first);
    std::shared_ptr<const GraphData3D> surface;
    if (!data.empty())
        surface = std::dynamic_pointer_cast<const GraphData3D>(data.front());
    if (!surface || surface->rows() == 0 || surface->columns() < 2)
        return makeUnexpected(
            fmt::format("The record holds no {} to draw.", waterfall ? "waterfall" : "spectrogram"),
            "Its impulse response may be too short for the slices asked for.");
    if (settings.smoothing)
        surface = smoothedSurface(*surface, 1.0 / *settings.smoothing);
    GraphPicture picture;
    picture.style = waterfall ? PictureStyle::Waterfall : PictureStyle::HeatMap;
    picture.colorMap = settings.colorMap;
    picture.levelRange = {-settings.floor, 0.0};
    picture.roundedY = false;
    VELTGraphPlot& plot = picture.plot;
    plot.title = waterfall ? "Waterfall" : "Spectrogram";
    if (records.size() > 1 && !surface->name().empty())
        plot.titleModifier = "(" + surface->name() + ")";
    if (settings.smoothing)
        plot.titleModifier += (plot.titleModifier.empty() ? "" : " ") +
                              smoothingTitleModifier(1.0f / static_cast<float>(*settings.smoothing));
    plot.logarithmicX = !settings.linearFrequency;
    plot.xQuantity = surface->xQuantity();
    plot.xTickLabels = VELTCollapsingFrequencyNumberFormatter();
    plot.yQuantity = surface->zQuantity();
    const double nyquist = surface->x()[surface->columns() - 1];
    plot.extents.xMin = settings.linearFrequency ? 0.0 : std::min(20.0, nyquist / 10.0);
    plot.extents.xMax = std::min(20000.0, nyquist);
    plot.extents.yMin = surface->z()[0];
    plot.extents.yMax = surface->z()[surface->rows() - 1];
    // Most of a recording is silence: time ends a fifth after the last slice that rises above the
    // lowest fifth of the levels shown.
    const float audible = static_cast<float>(-settings.floor * 0.8);
    for (std::size_t row = surface->rows(); row-- > 0;) {
        const auto values = surface->rowAtIndex(row);
        if (std::any_of(values.begin(), values.end(), [&](float v) { return v > audible; })) {
            const double end = surface->z()[row];
            plot.extents.yMax = std::min(plot.extents.yMax, end + (end - plot.extents.yMin) * 0.2);
            break;
        }
    }
    if (!(plot.extents.yMax > plot.extents.yMin))
        plot.extents.yMax = plot.extents.yMin + 1.0;
    plot.curves = {surface};
    return picture;
}

void drawWaterfall(VELTPainter& painter, const GraphPicture& picture, const VELTRect& bounds) {
    drawWaterfallGraph(painter, surfacePlotOf(picture), bounds);
}

void drawHeatMap(VELTPainter& painter, const GraphPicture& picture, const VELTRect& bounds) {
    drawHeatMapGraph(painter, surfacePlotOf(picture), bounds);
}

} // namespace tavolar
