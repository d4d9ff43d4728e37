#pragma once
// Graphs drawn for the screen by the same layout and Cairo painter that write picture files: the
// graph is painted into a Cairo image surface that becomes a QImage, so a window shows exactly what
// an exported picture holds.

#include "graphing/VELTGraphLayout.h"

#include <QImage>
#include <functional>

namespace tavolar::desktop {

// Screen pixels per point: graphs are laid out in points and shown at the usual 96 pixels an inch.
inline constexpr double kPixelsPerPoint = 96.0 / 72.0;

struct RenderedGraph {
    QImage image;
    VELTGraphLayout layout; // in points, as the layout placed everything
};

// Draws the plot into an image of the size in pixels (times devicePixelRatio).
RenderedGraph renderGraph(const VELTGraphPlot& plot, QSize pixels, double devicePixelRatio = 1.0);

// Calls measure with a painter that measures text as drawing would, but draws nowhere.
void withMeasuringPainter(const std::function<void(VELTPainter&)>& measure);

} // namespace tavolar::desktop
