#pragma once
// The painter of SVG files, written as SVG elements rather than through a drawing library's vector
// surface: lines, curves and fills are paths, text stays text (<text> in the font, size, weight and
// place that the PNG and PDF files of the same graph give it), and a heat map is one <image>. Text is
// measured with Pango in the same fonts as the Cairo painter, so the layout is the same in every
// format. User space is points: the picture's viewBox is its size in points.

#include "graphing/VELTPainter.h"
#include "graphing/cairo/VELTCairoPainter.h"

#include <functional>
#include <memory>
#include <string>

namespace tavolar {

class VELTSVGPainter final : public VELTPainter {
public:
    VELTSVGPainter();
    ~VELTSVGPainter() override;
    VELTSVGPainter(const VELTSVGPainter&) = delete;
    VELTSVGPainter& operator=(const VELTSVGPainter&) = delete;

    void drawLine(VELTPoint from, VELTPoint to, const VELTLineStyle& style) override;
    void drawPolyline(std::span<const VELTPoint> points, const VELTLineStyle& style) override;
    void fillRect(const VELTRect& rect, const VELTColor& color) override;
    void strokeRect(const VELTRect& rect, const VELTLineStyle& style) override;
    void fillPolygon(std::span<const VELTPoint> points, const VELTColor& color) override;
    void drawImage(const VELTRect& rect, int width, int height,
                   std::span<const std::uint32_t> pixels) override;
    void drawText(std::string_view text, VELTPoint anchor, const VELTFont& font, const VELTColor& color,
                  VELTHorizontalAlignment horizontal, VELTVerticalAlignment vertical,
                  bool rotated = false) override;
    double textWidth(std::string_view text, const VELTFont& font) override;
    double lineHeight(const VELTFont& font) override;
    void pushClip(const VELTRect& rect) override;
    void popClip() override;

    // The elements drawn so far (clips left open are closed): what goes inside <svg>.
    std::string body() const;

private:
    void appendStroke(const VELTLineStyle& style);
    struct Measuring;
    std::unique_ptr<Measuring> measuring_;
    std::string body_;
    int clipDepth_ = 0;
    int clipCount_ = 0;
};

// The text with the characters XML reserves (& < > " ') written as references, and control
// characters XML 1.0 does not allow (all but tab, line feed and carriage return) left out.
std::string xmlEscaped(std::string_view text);

// A complete SVG document of the size (points) around what draw paints, on a white ground, with the
// title and subject of the metadata as its <title> and <desc>.
std::string svgDocument(const VELTImageSize& size, const std::function<void(VELTPainter&)>& draw,
                        const VELTImageMetadata& metadata = {});

} // namespace tavolar
