#pragma once
// Graphs drawn for the screen by the same layout and Cairo painter that write picture files: the
// graph is painted into a Cairo image surface that becomes a QImage, so a window shows exactly what
// an exported picture holds.

#include "graphs/RecordPlots.h"

#include <QImage>
#include <functional>
#include <optional>

namespace tavolar::desktop {

// Screen pixels per point: graphs are laid out in points and shown at the usual 96 pixels an inch.
inline constexpr double kPixelsPerPoint = 96.0 / 72.0;

struct RenderedGraph {
    QImage image;
    // Where the layout placed everything (points), for pictures of curves and bars.
    std::optional<VELTGraphLayout> layout;
    bool draft = false;
};

// Draws the picture into an image of the size in pixels (times devicePixelRatio). A draft, for the
// frames of a gesture, draws the curves faster and their edges a little rougher.
RenderedGraph renderPicture(const GraphPicture& picture, QSize pixels, double devicePixelRatio = 1.0,
                            bool draft = false);

// Calls measure with a painter that measures text as drawing would, but draws nowhere.
void withMeasuringPainter(const std::function<void(VELTPainter&)>& measure);

} // namespace tavolar::desktop
