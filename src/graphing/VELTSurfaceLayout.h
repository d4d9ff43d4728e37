#pragma once
// The drawing of surfaces (GraphData3D: levels over frequency and time) in two ways:
//
// - a waterfall: the surface's rows as slices in an oblique view, the first (earliest) in front and
//   each later one shifted up and to the right; slices are drawn from the back, each filled with the
//   background so that it hides what lies behind it;
// - a heat map: levels as colours of a colour map over frequency (across) and time (up), drawn as one
//   image, with a colour bar of the level range beside it.
//
// Levels below the range lie on its floor; X outside the extents is left out.

#include "graphing/VELTColorMap.h"
#include "graphing/VELTGraphData.h"
#include "graphing/VELTGraphLayout.h"

#include <memory>
#include <string>

namespace tavolar {

struct VELTSurfacePlot {
    std::string title;
    std::string titleModifier;
    std::string note; // small type in the bottom right corner, as on curve graphs
    std::shared_ptr<const GraphData3D> surface;
    bool logarithmicX = true;
    double xMin = 20.0, xMax = 20000.0;       // X shown (frequency)
    VELTAxis::TickLabelFormatter xTickLabels; // the text of X's tick labels (see tickLabelText)
    double zMin = 0.0, zMax = 1.0;            // Z shown (time)
    double levelMin = -60.0, levelMax = 0.0;
    VELTColorMap colorMap = VELTColorMap::viridis();
    VELTGraphAppearance appearance;
};

// Width and height in pixels of the heat map's image over a plot area of the given size in points:
// two pixels a point, at most 2048 each way.
std::pair<int, int> heatMapImageSize(double width, double height);

// The heat map's pixels (0xAARRGGBB, rows from the top, the latest time at the top): each pixel takes
// the level of the nearest bin and the nearest row.
std::vector<std::uint32_t> heatMapPixels(const VELTSurfacePlot& plot, int width, int height);

void drawWaterfallGraph(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds);
void drawHeatMapGraph(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds);

} // namespace tavolar
