#include "graphing/cairo/VELTSVGPainter.h"

#include "graphing/VELTPNGEncoder.h"
#include "platform/Base64.h"

#include <algorithm>
#include <cairo.h>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <vector>

namespace tavolar {

namespace {

// A coordinate in points to a hundredth, without trailing zeros ("12.5", "-3", "0").
std::string number(double value) {
    std::string text = fmt::format("{:.2f}", std::isfinite(value) ? value : 0.0);
    while (text.back() == '0')
        text.pop_back();
    if (text.back() == '.')
        text.pop_back();
    return text == "-0" ? "0" : text;
}

std::string colorValue(const VELTColor& color) {
    auto byte = [](double component) {
        return static_cast<int>(std::lround(std::clamp(component, 0.0, 1.0) * 255.0));
    };
    return fmt::format("#{:02x}{:02x}{:02x}", byte(color.red), byte(color.green), byte(color.blue));
}

// fill="#rrggbb" or stroke="#rrggbb", with the opacity when the colour is not opaque.
std::string paint(const char* property, const VELTColor& color) {
    std::string text = fmt::format(" {}=\"{}\"", property, colorValue(color));
    if (color.alpha < 1.0)
        text += fmt::format(" {}-opacity=\"{}\"", property, number(std::clamp(color.alpha, 0.0, 1.0)));
    return text;
}

std::string pathData(std::span<const VELTPoint> points, bool closed) {
    std::string data;
    data.reserve(points.size() * 14);
    for (std::size_t i = 0; i < points.size(); ++i) {
        data += i == 0 ? "M" : i == 1 ? " L" : " ";
        data += number(points[i].x);
        data += ' ';
        data += number(points[i].y);
    }
    if (closed)
        data += " Z";
    return data;
}

} // namespace

std::string xmlEscaped(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&apos;";
            break;
        default:
            if (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r')
                escaped += c;
        }
    }
    return escaped;
}

// Text is measured by a Cairo painter on a bitmap of one pixel whose user space is points: Pango with
// the same fonts and the same metrics (not hinted to a resolution) as the pictures drawn by Cairo.
struct VELTSVGPainter::Measuring {
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface{
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1), cairo_surface_destroy};
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context{cairo_create(surface.get()), cairo_destroy};
    VELTCairoPainter painter{context.get()};
    // The font-family property of each font, with fallbacks for a viewer without the font.
    std::map<std::pair<double, bool>, std::string> families;

    const std::string& family(const VELTFont& font) {
        auto found = families.find({font.size, font.bold});
        if (found == families.end()) {
            // Family names unquoted (CSS takes a run of words as one name), so the list needs no
            // character references.
            const std::string name = painter.fontFamily(font);
            std::string list = name;
            for (const char* fallback : {"Helvetica Neue", "Nimbus Sans", "Helvetica", "Arial"})
                if (name != fallback)
                    list += fmt::format(", {}", fallback);
            found =
                families.emplace(std::pair{font.size, font.bold}, xmlEscaped(list + ", sans-serif")).first;
        }
        return found->second;
    }
};

VELTSVGPainter::VELTSVGPainter() : measuring_(std::make_unique<Measuring>()) {}

VELTSVGPainter::~VELTSVGPainter() = default;

void VELTSVGPainter::appendStroke(const VELTLineStyle& style) {
    body_ += " fill=\"none\"";
    body_ += paint("stroke", style.color);
    body_ += fmt::format(" stroke-width=\"{}\" stroke-linejoin=\"round\"", number(style.width));
    if (!style.dashPattern.empty()) {
        body_ += " stroke-dasharray=\"";
        for (std::size_t i = 0; i < style.dashPattern.size(); ++i)
            body_ += (i ? " " : "") + number(style.dashPattern[i]);
        body_ += '"';
    }
    body_ += "/>\n";
}

void VELTSVGPainter::drawLine(VELTPoint from, VELTPoint to, const VELTLineStyle& style) {
    const VELTPoint points[] = {from, to};
    drawPolyline(points, style);
}

void VELTSVGPainter::drawPolyline(std::span<const VELTPoint> points, const VELTLineStyle& style) {
    if (points.size() < 2)
        return;
    body_ += "<path d=\"" + pathData(points, false) + '"';
    appendStroke(style);
}

void VELTSVGPainter::fillRect(const VELTRect& rect, const VELTColor& color) {
    body_ += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"{}/>\n", number(rect.x),
                         number(rect.y), number(rect.width), number(rect.height), paint("fill", color));
}

void VELTSVGPainter::strokeRect(const VELTRect& rect, const VELTLineStyle& style) {
    body_ += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"", number(rect.x), number(rect.y),
                         number(rect.width), number(rect.height));
    appendStroke(style);
}

void VELTSVGPainter::fillPolygon(std::span<const VELTPoint> points, const VELTColor& color) {
    if (points.size() < 3)
        return;
    body_ += "<path d=\"" + pathData(points, true) + '"' + paint("fill", color) + "/>\n";
}

void VELTSVGPainter::drawImage(const VELTRect& rect, int width, int height,
                               std::span<const std::uint32_t> pixels) {
    if (width <= 0 || height <= 0 || rect.width <= 0.0 || rect.height <= 0.0 ||
        pixels.size() < static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
        return;
    // The encoder takes Cairo's premultiplied words.
    std::vector<std::uint32_t> premultiplied(static_cast<std::size_t>(width) *
                                             static_cast<std::size_t>(height));
    for (std::size_t i = 0; i < premultiplied.size(); ++i) {
        const std::uint32_t pixel = pixels[i], alpha = pixel >> 24;
        auto scaled = [alpha](std::uint32_t component) { return (component * alpha + 127) / 255; };
        premultiplied[i] = alpha == 255 ? pixel
                                        : (alpha << 24) | (scaled((pixel >> 16) & 0xFF) << 16) |
                                              (scaled((pixel >> 8) & 0xFF) << 8) | scaled(pixel & 0xFF);
    }
    const std::string png =
        encodedPNG({reinterpret_cast<const unsigned char*>(premultiplied.data()), premultiplied.size() * 4},
                   width, height, width * 4);
    // Each pixel a sharp square, as in the bitmaps and PDF files.
    body_ += fmt::format("<image x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" preserveAspectRatio=\"none\" "
                         "image-rendering=\"optimizeSpeed\" style=\"image-rendering:pixelated\" "
                         "xlink:href=\"data:image/png;base64,",
                         number(rect.x), number(rect.y), number(rect.width), number(rect.height));
    body_ += base64Encode({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()});
    body_ += "\"/>\n";
}

void VELTSVGPainter::drawText(std::string_view text, VELTPoint anchor, const VELTFont& font,
                              const VELTColor& color, VELTHorizontalAlignment horizontal,
                              VELTVerticalAlignment vertical, bool rotated) {
    if (text.empty())
        return;
    // The baseline where Pango puts it for the alignment; the horizontal alignment is the text's
    // anchor, so that a viewer whose font is a little wider or narrower keeps centred text centred.
    const VELTTextExtents extents = measuring_->painter.textExtents(text, font);
    double top = 0.0;
    if (vertical == VELTVerticalAlignment::Middle)
        top = -extents.height / 2.0;
    else if (vertical == VELTVerticalAlignment::Baseline)
        top = -extents.baseline;
    else if (vertical == VELTVerticalAlignment::Bottom)
        top = -extents.height;
    const char* textAnchor = horizontal == VELTHorizontalAlignment::Center  ? "middle"
                             : horizontal == VELTHorizontalAlignment::Right ? "end"
                                                                            : "start";
    body_ += "<text";
    if (rotated)
        body_ += fmt::format(" transform=\"translate({} {}) rotate(-90)\" x=\"0\" y=\"{}\"", number(anchor.x),
                             number(anchor.y), number(top + extents.baseline));
    else
        body_ +=
            fmt::format(" x=\"{}\" y=\"{}\"", number(anchor.x), number(anchor.y + top + extents.baseline));
    body_ += fmt::format(" font-family=\"{}\" font-size=\"{}\"", measuring_->family(font), number(font.size));
    if (font.bold)
        body_ += " font-weight=\"bold\"";
    if (horizontal != VELTHorizontalAlignment::Left)
        body_ += fmt::format(" text-anchor=\"{}\"", textAnchor);
    body_ += paint("fill", color);
    body_ += '>' + xmlEscaped(text) + "</text>\n";
}

double VELTSVGPainter::textWidth(std::string_view text, const VELTFont& font) {
    return measuring_->painter.textWidth(text, font);
}

double VELTSVGPainter::lineHeight(const VELTFont& font) {
    return measuring_->painter.lineHeight(font);
}

void VELTSVGPainter::pushClip(const VELTRect& rect) {
    const int id = ++clipCount_;
    body_ += fmt::format("<clipPath id=\"clip{}\"><rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"/>"
                         "</clipPath>\n<g clip-path=\"url(#clip{})\">\n",
                         id, number(rect.x), number(rect.y), number(rect.width), number(rect.height), id);
    ++clipDepth_;
}

void VELTSVGPainter::popClip() {
    if (clipDepth_ == 0)
        return;
    body_ += "</g>\n";
    --clipDepth_;
}

std::string VELTSVGPainter::body() const {
    std::string text = body_;
    for (int i = 0; i < clipDepth_; ++i)
        text += "</g>\n";
    return text;
}

std::string svgDocument(const VELTImageSize& size, const std::function<void(VELTPainter&)>& draw,
                        const VELTImageMetadata& metadata) {
    VELTSVGPainter painter;
    draw(painter);
    const std::string width = number(size.width), height = number(size.height);
    std::string document = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\" "
        "version=\"1.1\" width=\"{}pt\" height=\"{}pt\" viewBox=\"0 0 {} {}\" xml:space=\"preserve\">\n",
        width, height, width, height);
    if (!metadata.title.empty())
        document += "<title>" + xmlEscaped(metadata.title) + "</title>\n";
    if (!metadata.subject.empty())
        document += "<desc>" + xmlEscaped(metadata.subject) + "</desc>\n";
    document += fmt::format("<rect width=\"{}\" height=\"{}\" fill=\"#ffffff\"/>\n", width, height);
    document += painter.body();
    document += "</svg>\n";
    return document;
}

} // namespace tavolar
