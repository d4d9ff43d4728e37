#pragma once
// The painter on Cairo, with text laid out by Pango: the drawing of graphs into PNG and TIFF files (at
// a given resolution) and PDF files (in points); SVG files have their own painter (VELTSVGPainter),
// which measures text with this one. Fonts come through fontconfig: Helvetica Neue where it is
// installed, otherwise its metric twin Nimbus Sans, otherwise the system's sans-serif face.

#include "graphing/VELTPainter.h"
#include "platform/TavolarError.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

typedef struct _cairo cairo_t;

namespace tavolar {

// A line of text as Pango lays it out, in points: its advance width, the height of its line, and the
// distance from the line's top to its baseline.
struct VELTTextExtents {
    double width = 0.0;
    double height = 0.0;
    double baseline = 0.0;
};

// The font families asked of fontconfig, in order of preference.
inline constexpr const char* kGraphFontFamilies = "Helvetica Neue,Nimbus Sans,Nimbus Sans L,sans-serif";

class VELTCairoPainter final : public VELTPainter {
public:
    // Paints into the context (which the caller owns), whose user space is in points.
    explicit VELTCairoPainter(cairo_t* context);
    ~VELTCairoPainter() override;
    VELTCairoPainter(const VELTCairoPainter&) = delete;
    VELTCairoPainter& operator=(const VELTCairoPainter&) = delete;

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

    VELTTextExtents textExtents(std::string_view text, const VELTFont& font);
    // The family fontconfig gives for the font ("Nimbus Sans" where Helvetica Neue is not installed).
    std::string fontFamily(const VELTFont& font);

private:
    void applyLineStyle(const VELTLineStyle& style);
    cairo_t* context_;
    struct TextLayout;
    TextLayout* text_;
    int clipDepth_ = 0;
};

// The size of a picture: width and height in points, and the resolution of bitmaps.
struct VELTImageSize {
    double width = 0.0;
    double height = 0.0;
    double dpi = 300.0;

    static constexpr double kPointsPerInch = 72.0;
    static constexpr double kMillimetresPerInch = 25.4;
    static double pointsFromMillimetres(double millimetres) {
        return millimetres / kMillimetresPerInch * kPointsPerInch;
    }
    // 160 × 100 mm at 300 dpi.
    static VELTImageSize defaultSize() {
        return {pointsFromMillimetres(160.0), pointsFromMillimetres(100.0), 300.0};
    }
    // The pixels of a bitmap of this size, rounded to the nearest whole pixel.
    int pixelWidth() const;
    int pixelHeight() const;
};

// TIFF files are bitmaps like PNG files: RGBA, with their resolution in the file.
enum class VELTImageFormat { PNG, SVG, PDF, TIFF };

// What a PDF file says of itself. Without a creation date the file carries the time it was written;
// with one ("2026-01-31T12:00:00") the same graph always makes the same file.
struct VELTImageMetadata {
    std::string title;
    std::string subject;
    std::optional<std::string> creationDate;
};

// The format a file name's extension asks for (".png", ".svg", ".pdf", ".tif" or ".tiff", any
// case), or an error naming the formats there are.
Expected<VELTImageFormat> imageFormatOfPath(const std::filesystem::path& path);

// Paints a picture of the size into the file: draw is called once with a painter whose user space is
// the picture's points, on a white ground. The metadata go into PDF files (and the title into TIFF
// files).
Expected<void> writeImage(const std::filesystem::path& path, VELTImageFormat format,
                          const VELTImageSize& size, const std::function<void(VELTPainter&)>& draw,
                          const VELTImageMetadata& metadata = {});

} // namespace tavolar
