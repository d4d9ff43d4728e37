// Graph drawing: the layout's geometry and data reduction, and pictures written by the Cairo painter
// read back pixel by pixel.

#include "graphing/VELTGraphLayout.h"
#include "graphing/VELTPNGEncoder.h"

#if TAVOLAR_WITH_GRAPHICS
#include "graphing/cairo/VELTCairoPainter.h"

#include <cairo.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <tuple>
#include <unistd.h>

namespace tavolar {
namespace {

constexpr VELTColor kMagenta{1.0, 0.0, 1.0, 1.0};

std::shared_ptr<const VELTGraphData> curve(std::vector<float> x, std::vector<float> y, VELTColor color,
                                           std::string name = {}) {
    auto data = VELTGraphData::graphDataWithX(VELTRealVector(std::span<const float>(x)),
                                              VELTRealVector(std::span<const float>(y)), color);
    data->setName(std::move(name));
    return data;
}

// A painter that keeps the texts and the styles of the polylines drawn (only curves are polylines),
// and measures every character of a 9-point font as 5 points wide.
class MeasuringPainter final : public VELTPainter {
public:
    std::vector<VELTLineStyle> polylineStyles;
    std::vector<std::string> texts;
    std::size_t lines = 0;
    void drawLine(VELTPoint, VELTPoint, const VELTLineStyle&) override { ++lines; }
    void drawPolyline(std::span<const VELTPoint>, const VELTLineStyle& style) override {
        polylineStyles.push_back(style);
    }
    void fillRect(const VELTRect&, const VELTColor&) override {}
    void strokeRect(const VELTRect&, const VELTLineStyle&) override {}
    void fillPolygon(std::span<const VELTPoint>, const VELTColor&) override {}
    void drawImage(const VELTRect&, int, int, std::span<const std::uint32_t>) override {}
    void drawText(std::string_view text, VELTPoint, const VELTFont&, const VELTColor&,
                  VELTHorizontalAlignment, VELTVerticalAlignment, bool) override {
        texts.emplace_back(text);
    }
    double textWidth(std::string_view text, const VELTFont& font) override {
        double characters = 0.0;
        for (unsigned char c : text)
            characters += (c & 0xC0) != 0x80 ? 1.0 : 0.0;
        return 5.0 * font.size / 9.0 * characters;
    }
    double lineHeight(const VELTFont& font) override { return font.size * 1.2; }
    void pushClip(const VELTRect&) override {}
    void popClip() override {}
};

TEST(GraphLayout, AutomaticExtents) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        GraphDataArray curves;
        bool logarithmic;
        std::optional<VELTGraphExtents> expected;
    };
    const Case cases[] = {
        {"a flat 94.2 dB curve spans 1 dB",
         {curve({20, 200, 2000}, {94.2f, 94.2f, 94.2f}, kMagenta)},
         true,
         VELTGraphExtents{20, 2000, 93.7, 94.7}},
        {"0 Hz and not-a-number left out of a logarithmic axis",
         {curve({0, 10, 100, 1000}, {-50, -6, nan, 3}, kMagenta)},
         true,
         VELTGraphExtents{10, 1000, -6, 3}},
        {"0 Hz kept on a linear axis",
         {curve({0, 10}, {1, 5}, kMagenta)},
         false,
         VELTGraphExtents{0, 10, 1, 5}},
        {"several curves",
         {curve({1, 2}, {0, 0}, kMagenta), curve({3, 4}, {-2, 9}, kMagenta)},
         false,
         VELTGraphExtents{1, 4, -2, 9}},
        {"nothing to show", {curve({0, 0}, {1, 2}, kMagenta)}, true, std::nullopt},
        {"no curves", {}, false, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto extents = automaticGraphExtents(c.curves, c.logarithmic);
        ASSERT_EQ(extents.has_value(), c.expected.has_value());
        if (extents) {
            EXPECT_NEAR(extents->xMin, c.expected->xMin, 1e-4);
            EXPECT_NEAR(extents->xMax, c.expected->xMax, 1e-4);
            EXPECT_NEAR(extents->yMin, c.expected->yMin, 1e-4);
            EXPECT_NEAR(extents->yMax, c.expected->yMax, 1e-4);
        }
    }
}

TEST(GraphLayout, LongCurvesKeepAtMostFourPointsAColumnAndBreakAtGaps) {
    const std::size_t n = std::size_t{1} << 20;
    std::vector<float> x(n), y(n);
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = static_cast<float>(i);
        y[i] = static_cast<float>(std::sin(0.01 * static_cast<double>(i)));
    }
    y[n / 2] = std::numeric_limits<float>::infinity();
    VELTGraphPlot plot;
    plot.extents = {0, static_cast<double>(n), -1, 1};
    const VELTRect area{10, 10, 400, 200};
    auto runs = plottedPoints(*curve(x, y, kMagenta), plot, area);
    ASSERT_EQ(runs.size(), 2u);
    std::size_t points = runs[0].size() + runs[1].size();
    EXPECT_LE(points, 4u * 801u);
    EXPECT_GT(points, 800u);
    // The reduction keeps the extremes: the sine still reaches both edges of the plot area.
    double top = 1e9, bottom = -1e9;
    for (const auto& run : runs)
        for (const VELTPoint& p : run) {
            top = std::min(top, p.y);
            bottom = std::max(bottom, p.y);
        }
    EXPECT_NEAR(top, area.y, 0.01);
    EXPECT_NEAR(bottom, area.bottom(), 0.01);
}

TEST(GraphLayout, LegendNamesAreEllipsized) {
    MeasuringPainter painter;
    const VELTFont font;
    EXPECT_EQ(ellipsized(painter, "Woofer", font, 100), "Woofer");
    EXPECT_EQ(ellipsized(painter, "Woofer near field", font, 40), "Woofer \u2026");
    EXPECT_EQ(ellipsized(painter, "Überhöhung", font, 12), "\u00DC\u2026"); // never half a character
    EXPECT_EQ(ellipsized(painter, "Woofer", font, 1), "\u2026");
}

TEST(GraphLayout, LegendGoesWhereItCoversNoCurve) {
    std::vector<float> x, wave;
    for (int i = 0; i <= 400; ++i) {
        x.push_back(static_cast<float>(i) / 40.0f);
        wave.push_back(5.0f + 5.0f * static_cast<float>(std::sin(i * 0.3)));
    }
    enum Place { TopLeft, BottomRight, Beside };
    struct Case {
        const char* what;
        std::vector<float> x, y;
        Place place;
    };
    const Case cases[] = {
        {"a rising line leaves the top left clear", {0, 10}, {0, 10}, TopLeft},
        {"a line along the top", {0, 10}, {9.5f, 9.5f}, BottomRight},
        {"curves everywhere: beside the plot area", x, wave, Beside},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VELTGraphPlot plot;
        plot.extents = {0, 10, 0, 10};
        plot.curves = {curve(c.x, c.y, kMagenta, "A"), curve(c.x, c.y, kMagenta, "B")};
        MeasuringPainter painter;
        const VELTGraphLayout layout = layoutGraph(painter, plot, {0, 0, 400, 300});
        const VELTRect &legend = layout.legend, &area = layout.plotArea;
        EXPECT_EQ(layout.legendNames, (std::vector<std::string>{"A", "B"}));
        EXPECT_EQ(legend.x < area.x + area.width / 2, c.place == TopLeft);
        EXPECT_EQ(legend.y > area.y + area.height / 2, c.place == BottomRight);
        EXPECT_EQ(legend.x > area.right(), c.place == Beside);
        EXPECT_LE(legend.right(), 400);
    }
    // Long names alike but for their ends are cut in the middle, so that the rows still differ.
    VELTGraphPlot plot;
    plot.extents = {0, 10, 0, 10};
    const std::string common(60, 'x');
    plot.curves = {curve({0, 10}, {0, 10}, kMagenta, common + " left"),
                   curve({0, 10}, {0, 10}, kMagenta, common + " right")};
    MeasuringPainter painter;
    const auto names = layoutGraph(painter, plot, {0, 0, 400, 300}).legendNames;
    ASSERT_EQ(names.size(), 2u);
    for (const auto& [name, end] : {std::pair{names[0], "x left"}, std::pair{names[1], "x right"}})
        EXPECT_TRUE(name.starts_with("xx") && name.ends_with(end) && name.find("\u2026") != std::string::npos)
            << name;
}

TEST(GraphLayout, CurveColoursByThemeAndRecord) {
    const VELTColor red{1, 0, 0, 1}, green{0, 0.6, 0, 1}, black = VELTColor::blackColor();
    const auto& palette = VELTGraphAppearance::palette();
    const auto& dashes = VELTGraphAppearance::dashPatterns();
    struct Case {
        const char* what;
        std::vector<VELTColor> colors;
        VELTGraphAppearance appearance;
        std::vector<VELTColor> drawn;
        std::vector<std::vector<double>> dashed;
    };
    std::vector<VELTColor> nine(9, red);
    std::vector<VELTColor> paletteThenAgain(palette.begin(), palette.end());
    paletteThenAgain.push_back(palette[0]);
    paletteThenAgain.push_back(palette[1]);
    std::vector<std::vector<double>> solidThenDashed(7, dashes[0]);
    solidThenDashed.push_back(dashes[1]);
    solidThenDashed.push_back(dashes[1]);
    const Case cases[] = {
        {"each record's own colour", {red, green}, VELTGraphAppearance::light(), {red, green}, {{}, {}}},
        {"shared colours take the palette",
         {red, red},
         VELTGraphAppearance::light(),
         {palette[0], palette[1]},
         {{}, {}}},
        {"beyond the palette, dashes", nine, VELTGraphAppearance::light(), paletteThenAgain, solidThenDashed},
        {"no colour of its own: the palette's for its place",
         {red, black},
         VELTGraphAppearance::light(),
         {red, palette[1]},
         {{}, {}}},
        {"a lone record without a colour", {black}, VELTGraphAppearance::light(), {palette[0]}, {{}}},
        {"print: black, dashed in turn",
         {red, green, red},
         VELTGraphAppearance::print(),
         {black, black, black},
         {dashes[0], dashes[1], dashes[2]}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VELTGraphPlot plot;
        plot.extents = {0, 10, 0, 10};
        plot.appearance = c.appearance;
        for (const VELTColor& color : c.colors)
            plot.curves.push_back(curve({1, 2}, {1, 2}, color, "name"));
        MeasuringPainter painter;
        drawGraph(painter, plot, {0, 0, 400, 300});
        ASSERT_EQ(painter.polylineStyles.size(), c.colors.size());
        for (std::size_t i = 0; i < c.colors.size(); ++i) {
            EXPECT_EQ(painter.polylineStyles[i].color, c.drawn[i]) << i;
            EXPECT_EQ(painter.polylineStyles[i].dashPattern, c.dashed[i]) << i;
            EXPECT_GE(painter.polylineStyles[i].width, c.appearance.curveWidth);
        }
    }
    EXPECT_FALSE(VELTGraphAppearance::appearanceNamed("sepia"));
}

TEST(GraphLayout, LegendRowsFitThePlotArea) {
    struct Case {
        std::size_t curves;
        double height;
        std::vector<std::string> legend;
    };
    // With lines 10.2 points high, a graph 120 points high has room for four rows (its plot area is
    // about 70 points high).
    const Case cases[] = {
        {1, 300, {}}, // a lone curve without a name needs no legend
        {3, 300, {"Untitled", "Untitled", "Untitled"}},
        {6, 120, {"Untitled", "Untitled", "Untitled", "3 more"}},
    };
    for (const Case& c : cases) {
        VELTGraphPlot plot;
        plot.extents = {0, 10, 0, 10};
        for (std::size_t i = 0; i < c.curves; ++i)
            plot.curves.push_back(curve({1, 2}, {1, 2}, kMagenta));
        MeasuringPainter painter;
        drawGraph(painter, plot, {0, 0, 300, c.height});
        std::vector<std::string> legend;
        for (const std::string& text : painter.texts)
            if (text == "Untitled" || text.ends_with("more"))
                legend.push_back(text);
        EXPECT_EQ(legend, c.legend) << c.curves;
    }
}

TEST(GraphLayout, FixedAspectMakesADecadeAsLongAsItsDecibels) {
    MeasuringPainter painter;
    for (double perDecade : {10.0, 25.0, 50.0}) {
        VELTGraphPlot plot;
        plot.logarithmicX = true;
        plot.extents = {20, 20000, -30, 6};
        auto extents = extentsWithDecibelsPerDecade(painter, plot, {0, 0, 450, 280}, perDecade);
        EXPECT_EQ(extents.yMax, 6.0);
        plot.extents = extents;
        const VELTRect area = layoutGraph(painter, plot, {0, 0, 450, 280}).plotArea;
        const double decade = area.width / 3.0;
        const double decibels = area.height / (extents.yMax - extents.yMin) * perDecade;
        EXPECT_NEAR(decibels, decade, 0.01) << perDecade;
    }
}

TEST(GraphLayout, TitlesFitThePicture) {
    struct Case {
        double width;
        std::vector<std::string> title;
    };
    // The title and modifier take 224 points at 13 points; 16 points of padding.
    const Case cases[] = {
        {300, {"Frequency Response", " (1/3 Octave)"}},
        {200, {"Frequency Response", " (1/3 Octave)"}}, // set smaller
        {60, {"Frequen\u2026"}},                        // cut short at 9 points: the modifier is left out
    };
    for (const Case& c : cases) {
        VELTGraphPlot plot;
        plot.title = "Frequency Response";
        plot.titleModifier = "(1/3 Octave)";
        plot.extents = {0, 10, 0, 10};
        MeasuringPainter painter;
        drawGraph(painter, plot, {0, 0, c.width, 200});
        const std::vector<std::string> title(painter.texts.begin(),
                                             painter.texts.begin() + static_cast<long>(c.title.size()));
        EXPECT_EQ(title, c.title) << c.width;
    }
    // The note is never left out: beside the axis title where there is room, else on a line of its
    // own (the plot area gives up its height), set smaller and cut short when narrower still.
    const std::tuple<double, bool, std::string> notes[] = {
        {400, false, "48 kHz"}, {150, true, "48 kHz"}, {30, true, "48 \u2026"}};
    for (const auto& [width, ownLine, drawn] : notes) {
        VELTGraphPlot plot;
        plot.xQuantity = {"Frequency", "Hz"};
        plot.extents = {0, 10, 0, 10};
        MeasuringPainter painter;
        const double without = layoutGraph(painter, plot, {0, 0, width, 200}).plotArea.height;
        plot.note = "48 kHz";
        EXPECT_EQ(layoutGraph(painter, plot, {0, 0, width, 200}).plotArea.height < without, ownLine) << width;
        drawGraph(painter, plot, {0, 0, width, 200});
        EXPECT_EQ(std::count(painter.texts.begin(), painter.texts.end(), drawn), 1) << width;
    }
}

TEST(GraphLayout, TicksAndPlotAreaStayInsideTheBounds) {
    MeasuringPainter painter;
    VELTGraphPlot plot;
    plot.title = "Frequency Response";
    plot.logarithmicX = true;
    plot.xQuantity = {"Frequency", "Hz"};
    plot.yQuantity = {"Magnitude", "dB"};
    plot.extents = {20, 20000, -43.2, 7.9};
    const VELTRect bounds{0, 0, 453.5, 283.5};
    plot.extents = roundedGraphExtents(painter, plot, bounds);
    EXPECT_EQ(plot.extents.yMin, -50.0);
    EXPECT_EQ(plot.extents.yMax, 10.0);
    // Whatever the range, the rounded ends are ticks the layout labels.
    for (double top = -9.3; top < 0.0; top += 0.37) {
        VELTGraphPlot ranged = plot;
        ranged.extents.yMin = -33.0;
        ranged.extents.yMax = top;
        ranged.extents = roundedGraphExtents(painter, ranged, bounds);
        auto ticks = layoutGraph(painter, ranged, bounds).yTicks;
        ASSERT_FALSE(ticks.empty());
        EXPECT_TRUE(ticks.front().major && ticks.front().value == ranged.extents.yMin) << top;
        EXPECT_TRUE(ticks.back().major && std::abs(ticks.back().value - ranged.extents.yMax) < 1e-9) << top;
    }
    auto layout = layoutGraph(painter, plot, bounds);
    EXPECT_GT(layout.plotArea.x, 0.0);
    EXPECT_LT(layout.plotArea.right(), bounds.right());
    EXPECT_GT(layout.plotArea.y, 0.0);
    EXPECT_LT(layout.plotArea.bottom(), bounds.bottom());
    ASSERT_FALSE(layout.xTicks.empty());
    EXPECT_EQ(layout.xTicks.front().label, "20");
    EXPECT_EQ(layout.yTicks.front().label, "\u221250");
}

#if TAVOLAR_WITH_GRAPHICS

struct ScratchFile {
    std::filesystem::path path;
    explicit ScratchFile(const std::string& name)
        : path(std::filesystem::temp_directory_path() / (std::to_string(::getpid()) + "-" + name)) {}
    ~ScratchFile() { std::filesystem::remove(path); }
};

TEST(GraphPicture, PNGAndSVGOfTheAskedSizeWithTheCurveInsideThePlotArea) {
    // A curve that leaves the extents on both sides: clipping must keep it inside the plot area.
    std::vector<float> x, y;
    for (double f = 10; f < 30000; f *= 1.01) {
        x.push_back(static_cast<float>(f));
        y.push_back(static_cast<float>(20.0 * std::sin(std::log(f) * 3.0)));
    }
    VELTGraphPlot plot;
    plot.title = "Frequency Response";
    plot.titleModifier = "(1/12 Octave Smoothing)";
    plot.logarithmicX = true;
    plot.xQuantity = {"Frequency", "Hz"};
    plot.yQuantity = {"Magnitude", "dB"};
    plot.extents = {20, 20000, -10, 10};
    plot.curves = {curve(x, y, kMagenta, "A name long enough to be cut short in the legend of the graph")};

    struct Case {
        double widthMillimetres, heightMillimetres, dpi;
        int pixelWidth, pixelHeight;
    };
    const Case cases[] = {{160, 100, 300, 1890, 1181}, {80, 50, 96, 302, 189}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.dpi);
        const VELTImageSize size{VELTImageSize::pointsFromMillimetres(c.widthMillimetres),
                                 VELTImageSize::pointsFromMillimetres(c.heightMillimetres), c.dpi};
        const VELTRect bounds{0, 0, size.width, size.height};
        ScratchFile png("graph.png");
        VELTGraphLayout layout;
        ASSERT_TRUE(writeImage(png.path, VELTImageFormat::PNG, size,
                               [&](VELTPainter& painter) { layout = drawGraph(painter, plot, bounds); }));

        cairo_surface_t* image = cairo_image_surface_create_from_png(png.path.c_str());
        ASSERT_EQ(cairo_surface_status(image), CAIRO_STATUS_SUCCESS);
        EXPECT_EQ(cairo_image_surface_get_width(image), c.pixelWidth);
        EXPECT_EQ(cairo_image_surface_get_height(image), c.pixelHeight);
        const double scale = c.dpi / 72.0;
        const VELTRect area = layout.plotArea;
        const unsigned char* data = cairo_image_surface_get_data(image);
        const int stride = cairo_image_surface_get_stride(image);
        std::size_t curvePixels = 0, outside = 0;
        for (int row = 0; row < cairo_image_surface_get_height(image); ++row) {
            for (int column = 0; column < cairo_image_surface_get_width(image); ++column) {
                std::uint32_t pixel;
                std::memcpy(&pixel, data + row * stride + column * 4, 4);
                const int red = (pixel >> 16) & 0xFF, green = (pixel >> 8) & 0xFF, blue = pixel & 0xFF;
                if (red < 200 || blue < 200 || green > 60)
                    continue;
                // The legend's swatch is magenta too.
                const double px = (column + 0.5) / scale, py = (row + 0.5) / scale;
                if (layout.legend.contains({px, py}))
                    continue;
                ++curvePixels;
                if (px < area.x - 1.0 / scale || px > area.right() + 1.0 / scale ||
                    py < area.y - 1.0 / scale || py > area.bottom() + 1.0 / scale)
                    ++outside;
            }
        }
        cairo_surface_destroy(image);
        EXPECT_GT(curvePixels, static_cast<std::size_t>(area.width * scale));
        EXPECT_EQ(outside, 0u);

        ScratchFile svg("graph.svg");
        ASSERT_TRUE(writeImage(svg.path, VELTImageFormat::SVG, size,
                               [&](VELTPainter& painter) { drawGraph(painter, plot, bounds); }));
        std::ifstream file(svg.path);
        std::stringstream text;
        text << file.rdbuf();
        EXPECT_NE(text.str().find("<svg"), std::string::npos);
        EXPECT_NE(text.str().find(fmt::format("width=\"{:.0f}", std::floor(size.width))), std::string::npos);
    }
}

// A space between words keeps its share of the font's size in small type at a screen's resolution,
// where rounding each glyph's advance to whole units would shrink it to nothing ("Leftspeaker").
TEST(GraphPicture, WordSpacesKeepTheirWidthInSmallType) {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 16, 16);
    cairo_t* context = cairo_create(surface);
    cairo_scale(context, 96.0 / 72.0, 96.0 / 72.0);
    {
        VELTCairoPainter painter(context);
        auto space = [&](double size) {
            const VELTFont font{size, false};
            return (painter.textWidth("Left speaker", font) - painter.textWidth("Leftspeaker", font)) / size;
        };
        const double large = space(100.0);
        EXPECT_GT(large, 0.2);
        for (double size : {5.0, 6.5, 7.5, 8.5, 9.0, 11.0})
            EXPECT_NEAR(space(size), large, 0.02) << size;
    }
    cairo_destroy(context);
    cairo_surface_destroy(surface);
}

// PNG files read back as the pixels they were made from: flat colour in runs longer than one
// repeat, noise, translucent pixels (stored without premultiplication), and the smallest bitmap.
TEST(GraphPicture, PNGFilesReadBackAsDrawn) {
    auto noise = [](int x, int y) { return std::uint32_t(x * 2654435761u ^ y * 40503u) * 2246822519u; };
    struct Case {
        const char* name;
        int width, height;
        std::function<std::uint32_t(int, int)> pixel;
    };
    const Case cases[] = {
        {"flat with a line", 700, 40, [](int x, int y) { return y == 20 ? 0xFF0072B2u : 0xFFFFFFFFu; }},
        {"noise, over more than one chunk", 640, 600,
         [&](int x, int y) { return noise(x, y) | 0xFF000000u; }},
        {"translucent", 20, 9,
         [&](int x, int y) {
             const std::uint32_t a = x * 12;
             return a << 24 | (a / 2) << 16 | (noise(x, y) % (a + 1));
         }},
        {"one pixel", 1, 1, [](int, int) { return 0xFF123456u; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int stride = c.width * 4 + 8;
        std::vector<unsigned char> pixels(std::size_t(stride) * c.height);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x) {
                const std::uint32_t p = c.pixel(x, y);
                std::memcpy(&pixels[std::size_t(y) * stride + x * 4], &p, 4);
            }
        ScratchFile png("encoded.png");
        std::ofstream(png.path, std::ios::binary) << encodedPNG(pixels, c.width, c.height, stride, 96.0);
        cairo_surface_t* read = cairo_image_surface_create_from_png(png.path.c_str());
        ASSERT_EQ(cairo_surface_status(read), CAIRO_STATUS_SUCCESS);
        ASSERT_EQ(cairo_image_surface_get_width(read), c.width);
        ASSERT_EQ(cairo_image_surface_get_height(read), c.height);
        std::size_t wrong = 0;
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x) {
                std::uint32_t p;
                std::memcpy(
                    &p, cairo_image_surface_get_data(read) + y * cairo_image_surface_get_stride(read) + x * 4,
                    4);
                wrong += p != c.pixel(x, y);
            }
        EXPECT_EQ(wrong, 0u);
        cairo_surface_destroy(read);
    }
}

TEST(GraphPicture, FormatsAndSizesRefused) {
    EXPECT_FALSE(imageFormatOfPath("graph.jpeg"));
    EXPECT_EQ(*imageFormatOfPath("GRAPH.PNG"), VELTImageFormat::PNG);
    EXPECT_EQ(*imageFormatOfPath("a/graph.svg"), VELTImageFormat::SVG);
    EXPECT_EQ(*imageFormatOfPath("graph.Pdf"), VELTImageFormat::PDF);
    EXPECT_EQ(*imageFormatOfPath("graph.tif"), VELTImageFormat::TIFF);
    EXPECT_EQ(*imageFormatOfPath("graph.TIFF"), VELTImageFormat::TIFF);
    ScratchFile png("refused.png");
    auto draw = [](VELTPainter&) {};
    EXPECT_FALSE(writeImage(png.path, VELTImageFormat::PNG, {0, 100, 300}, draw));
    EXPECT_FALSE(writeImage(png.path, VELTImageFormat::PNG, {100000, 100, 300}, draw));
    EXPECT_FALSE(writeImage("/nonexistent-folder/graph.png", VELTImageFormat::PNG, {100, 100, 72}, draw));
    EXPECT_FALSE(std::filesystem::exists(png.path));
}

#endif

} // namespace
} // namespace tavolar
