#include "graphing/cairo/VELTCairoPainter.h"

#include "graphing/VELTPNGEncoder.h"
#include "graphing/cairo/VELTSVGPainter.h"

#include <algorithm>
#include <cairo-pdf.h>
#include <cairo.h>
#include <cctype>
#include <cmath>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <memory>
#include <pango/pangocairo.h>
#include <string>
#include <tiffio.h>
#include <utility>
#include <vector>

namespace tavolar {

// One Pango layout reused for every text, and a font description per font asked for.
struct VELTCairoPainter::TextLayout {
    PangoLayout* layout = nullptr;
    std::map<std::pair<double, bool>, PangoFontDescription*> fonts;

    ~TextLayout() {
        for (auto& [key, description] : fonts)
            pango_font_description_free(description);
        if (layout)
            g_object_unref(layout);
    }

    void set(std::string_view text, const VELTFont& font) {
        auto key = std::make_pair(font.size, font.bold);
        auto found = fonts.find(key);
        if (found == fonts.end()) {
            PangoFontDescription* description = pango_font_description_new();
            pango_font_description_set_family(description, kGraphFontFamilies);
            pango_font_description_set_weight(description,
                                              font.bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
            // Pango sizes are in its units per point; the context's user space is points.
            pango_font_description_set_absolute_size(description, font.size * PANGO_SCALE);
            found = fonts.emplace(key, description).first;
        }
        pango_layout_set_font_description(layout, found->second);
        pango_layout_set_text(layout, text.data(), static_cast<int>(text.size()));
    }
};

VELTCairoPainter::VELTCairoPainter(cairo_t* context) : context_(context), text_(new TextLayout) {
    text_->layout = pango_cairo_create_layout(context_);
    // Metrics that do not depend on the surface's resolution, so that a PNG and an SVG of the same
    // graph place their text alike.
    PangoContext* pango = pango_layout_get_context(text_->layout);
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
    pango_cairo_context_set_font_options(pango, options);
    cairo_font_options_destroy(options);
    // Glyphs where their advances put them: rounded to whole points, a space of small type at a
    // screen's resolution shrinks to almost nothing ("Leftspeaker") or grows by half.
    pango_context_set_round_glyph_positions(pango, FALSE);
    pango_layout_context_changed(text_->layout);
}

VELTCairoPainter::~VELTCairoPainter() {
    while (clipDepth_ > 0)
        popClip();
    delete text_;
}

void VELTCairoPainter::applyLineStyle(const VELTLineStyle& style) {
    cairo_set_source_rgba(context_, style.color.red, style.color.green, style.color.blue, style.color.alpha);
    cairo_set_line_width(context_, style.width);
    cairo_set_line_join(context_, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_cap(context_, CAIRO_LINE_CAP_BUTT);
    cairo_set_dash(context_, style.dashPattern.data(), static_cast<int>(style.dashPattern.size()), 0.0);
}

void VELTCairoPainter::drawLine(VELTPoint from, VELTPoint to, const VELTLineStyle& style) {
    applyLineStyle(style);
    cairo_move_to(context_, from.x, from.y);
    cairo_line_to(context_, to.x, to.y);
    cairo_stroke(context_);
}

void VELTCairoPainter::drawPolyline(std::span<const VELTPoint> points, const VELTLineStyle& style) {
    if (points.size() < 2)
        return;
    applyLineStyle(style);
    cairo_move_to(context_, points[0].x, points[0].y);
    for (std::size_t i = 1; i < points.size(); ++i)
        cairo_line_to(context_, points[i].x, points[i].y);
    cairo_stroke(context_);
}

void VELTCairoPainter::fillRect(const VELTRect& rect, const VELTColor& color) {
    cairo_set_source_rgba(context_, color.red, color.green, color.blue, color.alpha);
    cairo_rectangle(context_, rect.x, rect.y, rect.width, rect.height);
    cairo_fill(context_);
}

void VELTCairoPainter::fillPolygon(std::span<const VELTPoint> points, const VELTColor& color) {
    if (points.size() < 3)
        return;
    cairo_set_source_rgba(context_, color.red, color.green, color.blue, color.alpha);
    cairo_move_to(context_, points[0].x, points[0].y);
    for (std::size_t i = 1; i < points.size(); ++i)
        cairo_line_to(context_, points[i].x, points[i].y);
    cairo_close_path(context_);
    cairo_fill(context_);
}

void VELTCairoPainter::drawImage(const VELTRect& rect, int width, int height,
                                 std::span<const std::uint32_t> pixels) {
    if (width <= 0 || height <= 0 || rect.width <= 0.0 || rect.height <= 0.0 ||
        pixels.size() < static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
        return;
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> image(
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height), cairo_surface_destroy);
    if (cairo_surface_status(image.get()) != CAIRO_STATUS_SUCCESS)
        return;
    cairo_surface_flush(image.get());
    // Cairo's pixels are premultiplied, native-endian 32-bit words.
    unsigned char* data = cairo_image_surface_get_data(image.get());
    const int stride = cairo_image_surface_get_stride(image.get());
    for (int row = 0; row < height; ++row) {
        auto* out = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(row) * stride);
        for (int column = 0; column < width; ++column) {
            const std::uint32_t pixel = pixels[static_cast<std::size_t>(row) * width + column];
            const std::uint32_t alpha = pixel >> 24;
            auto premultiplied = [alpha](std::uint32_t component) { return (component * alpha + 127) / 255; };
            out[column] = (alpha << 24) | (premultiplied((pixel >> 16) & 0xFF) << 16) |
                          (premultiplied((pixel >> 8) & 0xFF) << 8) | premultiplied(pixel & 0xFF);
        }
    }
    cairo_surface_mark_dirty(image.get());
    cairo_save(context_);
    cairo_rectangle(context_, rect.x, rect.y, rect.width, rect.height);
    cairo_clip(context_);
    cairo_translate(context_, rect.x, rect.y);
    cairo_scale(context_, rect.width / width, rect.height / height);
    cairo_set_source_surface(context_, image.get(), 0.0, 0.0);
    cairo_pattern_set_filter(cairo_get_source(context_), CAIRO_FILTER_NEAREST);
    cairo_pattern_set_extend(cairo_get_source(context_), CAIRO_EXTEND_PAD);
    cairo_paint(context_);
    cairo_restore(context_);
}

void VELTCairoPainter::strokeRect(const VELTRect& rect, const VELTLineStyle& style) {
    applyLineStyle(style);
    cairo_rectangle(context_, rect.x, rect.y, rect.width, rect.height);
    cairo_stroke(context_);
}

void VELTCairoPainter::drawText(std::string_view text, VELTPoint anchor, const VELTFont& font,
                                const VELTColor& color, VELTHorizontalAlignment horizontal,
                                VELTVerticalAlignment vertical, bool rotated) {
    const auto [width, height, baseline] = textExtents(text, font);
    double dx = 0.0;
    if (horizontal == VELTHorizontalAlignment::Center)
        dx = -width / 2.0;
    else if (horizontal == VELTHorizontalAlignment::Right)
        dx = -width;
    double dy = 0.0;
    switch (vertical) {
    case VELTVerticalAlignment::Top:
        dy = 0.0;
        break;
    case VELTVerticalAlignment::Middle:
        dy = -height / 2.0;
        break;
    case VELTVerticalAlignment::Baseline:
        dy = -baseline;
        break;
    case VELTVerticalAlignment::Bottom:
        dy = -height;
        break;
    }
    cairo_save(context_);
    cairo_translate(context_, anchor.x, anchor.y);
    if (rotated)
        cairo_rotate(context_, -M_PI / 2.0);
    cairo_move_to(context_, dx, dy);
    cairo_set_source_rgba(context_, color.red, color.green, color.blue, color.alpha);
    pango_cairo_update_layout(context_, text_->layout);
    pango_cairo_show_layout(context_, text_->layout);
    cairo_restore(context_);
}

VELTTextExtents VELTCairoPainter::textExtents(std::string_view text, const VELTFont& font) {
    text_->set(text, font);
    PangoRectangle logical;
    pango_layout_get_extents(text_->layout, nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE,
            static_cast<double>(logical.height) / PANGO_SCALE,
            static_cast<double>(pango_layout_get_baseline(text_->layout)) / PANGO_SCALE};
}

std::string VELTCairoPainter::fontFamily(const VELTFont& font) {
    text_->set("", font);
    PangoContext* pango = pango_layout_get_context(text_->layout);
    PangoFont* loaded = pango_context_load_font(pango, pango_layout_get_font_description(text_->layout));
    if (!loaded)
        return "sans-serif";
    PangoFontDescription* described = pango_font_describe(loaded);
    const char* family = pango_font_description_get_family(described);
    std::string name = family ? family : "sans-serif";
    pango_font_description_free(described);
    g_object_unref(loaded);
    return name;
}

double VELTCairoPainter::textWidth(std::string_view text, const VELTFont& font) {
    text_->set(text, font);
    PangoRectangle logical;
    pango_layout_get_extents(text_->layout, nullptr, &logical);
    return static_cast<double>(logical.width) / PANGO_SCALE;
}

double VELTCairoPainter::lineHeight(const VELTFont& font) {
    text_->set("Hg", font);
    PangoRectangle logical;
    pango_layout_get_extents(text_->layout, nullptr, &logical);
    return static_cast<double>(logical.height) / PANGO_SCALE;
}

void VELTCairoPainter::pushClip(const VELTRect& rect) {
    cairo_save(context_);
    cairo_rectangle(context_, rect.x, rect.y, rect.width, rect.height);
    cairo_clip(context_);
    ++clipDepth_;
}

void VELTCairoPainter::popClip() {
    if (clipDepth_ == 0)
        return;
    cairo_restore(context_);
    --clipDepth_;
}

int VELTImageSize::pixelWidth() const {
    return static_cast<int>(std::lround(width / kPointsPerInch * dpi));
}

int VELTImageSize::pixelHeight() const {
    return static_cast<int>(std::lround(height / kPointsPerInch * dpi));
}

Expected<VELTImageFormat> imageFormatOfPath(const std::filesystem::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".png")
        return VELTImageFormat::PNG;
    if (extension == ".svg")
        return VELTImageFormat::SVG;
    if (extension == ".pdf")
        return VELTImageFormat::PDF;
    if (extension == ".tif" || extension == ".tiff")
        return VELTImageFormat::TIFF;
    return makeUnexpected(fmt::format("Cannot tell the picture format of {}.", path.string()),
                          "Name a file ending in .png, .svg or .pdf (or .tiff).");
}

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextDeleter {
    void operator()(cairo_t* context) const { cairo_destroy(context); }
};

Expected<void> cairoStatus(cairo_status_t status, const std::filesystem::path& path) {
    if (status == CAIRO_STATUS_SUCCESS)
        return {};
    return makeUnexpected(fmt::format("Cannot write {}: {}", path.string(), cairo_status_to_string(status)));
}

// The image surface as an RGBA TIFF file (8 bits a channel, alpha not premultiplied, deflated),
// with its resolution in dots per inch.
Expected<void> writeTIFF(cairo_surface_t* surface, const std::filesystem::path& path, double dpi,
                         const std::string& title) {
    cairo_surface_flush(surface);
    const int width = cairo_image_surface_get_width(surface);
    const int height = cairo_image_surface_get_height(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    const unsigned char* data = cairo_image_surface_get_data(surface);
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(path.c_str(), "w"), [](TIFF* t) {
        if (t)
            TIFFClose(t);
    });
    if (!tiff)
        return makeUnexpected(fmt::format("{} could not be written.", path.string()),
                              "Check that its folder exists and may be written to.");
    TIFF* t = tiff.get();
    const std::uint16_t extra = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 4);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(dpi));
    TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(dpi));
    TIFFSetField(t, TIFFTAG_SOFTWARE, "TavolarKit");
    if (!title.empty())
        TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, title.c_str());
    // Cairo keeps native-endian 0xAARRGGBB words with the colour premultiplied by alpha.
    std::vector<unsigned char> row(static_cast<std::size_t>(width) * 4);
    for (int y = 0; y < height; ++y) {
        const auto* pixels =
            reinterpret_cast<const std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
        for (int x = 0; x < width; ++x) {
            const std::uint32_t p = pixels[x];
            const unsigned alpha = p >> 24;
            auto channel = [&](int shift) -> unsigned char {
                const unsigned value = (p >> shift) & 0xFF;
                return static_cast<unsigned char>(
                    alpha == 0 ? 0 : std::min(255u, (value * 255 + alpha / 2) / alpha));
            };
            unsigned char* out = row.data() + static_cast<std::size_t>(x) * 4;
            out[0] = channel(16);
            out[1] = channel(8);
            out[2] = channel(0);
            out[3] = static_cast<unsigned char>(alpha);
        }
        if (TIFFWriteScanline(t, row.data(), static_cast<std::uint32_t>(y), 0) < 0)
            return makeUnexpected(fmt::format("{} could not be written.", path.string()),
                                  "Check that the disk has room.");
    }
    tiff.reset();
    return {};
}

// The image surface as a PNG file with its resolution, through the encoder made for graphs (several
// times faster than Cairo's own at its settings).
Expected<void> writePNG(cairo_surface_t* surface, const std::filesystem::path& path, double dpi) {
    cairo_surface_flush(surface);
    const int height = cairo_image_surface_get_height(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    const std::string bytes =
        encodedPNG({cairo_image_surface_get_data(surface),
                    static_cast<std::size_t>(stride) * static_cast<std::size_t>(height)},
                   cairo_image_surface_get_width(surface), height, stride, dpi);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        return makeUnexpected(fmt::format("{} could not be written.", path.string()),
                              "Check that its folder exists and may be written to.");
    return {};
}

} // namespace

Expected<void> writeImage(const std::filesystem::path& path, VELTImageFormat format,
                          const VELTImageSize& size, const std::function<void(VELTPainter&)>& draw,
                          const VELTImageMetadata& metadata) {
    if (!(size.width > 0.0) || !(size.height > 0.0) || !(size.dpi > 0.0) || size.pixelWidth() < 1 ||
        size.pixelHeight() < 1 || size.pixelWidth() > 32767 || size.pixelHeight() > 32767)
        return makeUnexpected(fmt::format("A picture of {:.1f} × {:.1f} points at {} dpi cannot be made.",
                                          size.width, size.height, size.dpi),
                              "Give a positive width and height; bitmaps may be at most 32767 pixels wide.");
    // SVG files are written element by element, so that their text stays text.
    if (format == VELTImageFormat::SVG) {
        const std::string document = svgDocument(size, draw, metadata);
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(document.data(), static_cast<std::streamsize>(document.size()));
        file.close();
        if (!file)
            return makeUnexpected(fmt::format("{} could not be written.", path.string()),
                                  "Check that its folder exists and may be written to.");
        return {};
    }
    std::unique_ptr<cairo_surface_t, SurfaceDeleter> surface;
    const bool bitmap = format == VELTImageFormat::PNG || format == VELTImageFormat::TIFF;
    if (bitmap)
        surface.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size.pixelWidth(), size.pixelHeight()));
    else
        surface.reset(cairo_pdf_surface_create(path.c_str(), size.width, size.height));
    if (auto status = cairoStatus(cairo_surface_status(surface.get()), path); !status)
        return status;
    if (format == VELTImageFormat::PDF) {
        cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_CREATOR, "TavolarKit");
        if (!metadata.title.empty())
            cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_TITLE, metadata.title.c_str());
        if (!metadata.subject.empty())
            cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_SUBJECT,
                                           metadata.subject.c_str());
        if (metadata.creationDate)
            cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_CREATE_DATE,
                                           metadata.creationDate->c_str());
    }
    {
        std::unique_ptr<cairo_t, ContextDeleter> context(cairo_create(surface.get()));
        if (bitmap)
            cairo_scale(context.get(), size.dpi / VELTImageSize::kPointsPerInch,
                        size.dpi / VELTImageSize::kPointsPerInch);
        cairo_set_source_rgb(context.get(), 1.0, 1.0, 1.0);
        cairo_paint(context.get());
        {
            VELTCairoPainter painter(context.get());
            draw(painter);
        }
        if (auto status = cairoStatus(cairo_status(context.get()), path); !status)
            return status;
    }
    if (format == VELTImageFormat::PNG)
        return writePNG(surface.get(), path, size.dpi);
    if (format == VELTImageFormat::TIFF)
        return writeTIFF(surface.get(), path, size.dpi, metadata.title);
    cairo_surface_finish(surface.get());
    return cairoStatus(cairo_surface_status(surface.get()), path);
}

} // namespace tavolar
