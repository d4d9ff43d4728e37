#pragma once
// What graph layouts draw through: lines, polylines, rectangles and text, with clipping. Coordinates
// are points (1/72 inch) from the top left corner, Y downwards; a painter maps them onto its surface
// (pixels of a bitmap at its resolution, or the points of a vector file). The drawing code of graphs
// only ever talks to this interface, so that files and on-screen views paint the same layout.

#include "graphing/VELTColor.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace tavolar {

struct VELTPoint {
    double x = 0.0;
    double y = 0.0;
    bool operator==(const VELTPoint&) const = default;
};

struct VELTRect {
    double x = 0.0;
    double y = 0.0;
    double width = 0.0;
    double height = 0.0;
    double right() const noexcept { return x + width; }
    double bottom() const noexcept { return y + height; }
    bool contains(VELTPoint p) const noexcept {
        return p.x >= x && p.x <= right() && p.y >= y && p.y <= bottom();
    }
    bool operator==(const VELTRect&) const = default;
};

struct VELTFont {
    double size = 9.0; // points
    bool bold = false;
    bool operator==(const VELTFont&) const = default;
};

enum class VELTHorizontalAlignment { Left, Center, Right };
// Where the anchor point lies on the text's box: its top, middle, first baseline or bottom.
enum class VELTVerticalAlignment { Top, Middle, Baseline, Bottom };

class VELTPainter {
public:
    virtual ~VELTPainter() = default;

    // Lines and polylines are stroked with the line style (colour, width in points, dashes).
    virtual void drawLine(VELTPoint from, VELTPoint to, const VELTLineStyle& style) = 0;
    // Consecutive points joined; fewer than two points draw nothing.
    virtual void drawPolyline(std::span<const VELTPoint> points, const VELTLineStyle& style) = 0;
    virtual void fillRect(const VELTRect& rect, const VELTColor& color) = 0;
    virtual void strokeRect(const VELTRect& rect, const VELTLineStyle& style) = 0;
    // The closed polygon through the points filled (fewer than three points fill nothing); the
    // waterfall hides the slices behind each one this way.
    virtual void fillPolygon(std::span<const VELTPoint> points, const VELTColor& color) = 0;

    // An image of width × height pixels, rows from the top, each pixel 0xAARRGGBB (not
    // premultiplied), scaled to fill the rectangle without smoothing between pixels. A heat map is
    // drawn as one image so that vector files show it without seams.
    virtual void drawImage(const VELTRect& rect, int width, int height, std::span<const std::uint32_t> pixels) = 0;

    // Text (UTF-8, one line) placed so that the anchor lies where the alignments say; a text turned
    // a quarter turn counter-clockwise (rotated) reads from bottom to top, and its alignments are
    // taken along the turned text.
    virtual void drawText(std::string_view text, VELTPoint anchor, const VELTFont& font,
                          const VELTColor& color, VELTHorizontalAlignment horizontal,
                          VELTVerticalAlignment vertical, bool rotated = false) = 0;
    // The width the text takes, and the height of a line of the font, in points.
    virtual double textWidth(std::string_view text, const VELTFont& font) = 0;
    virtual double lineHeight(const VELTFont& font) = 0;

    // Drawing is confined to the rectangle until the matching popClip; clips nest.
    virtual void pushClip(const VELTRect& rect) = 0;
    virtual void popClip() = 0;
};

} // namespace tavolar
