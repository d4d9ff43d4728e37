// Pictures of records: every graph drawn from a small simulated record, with the texts, bars, slices
// and images it should have; the files of every format; the settings a graph refuses; and the pieces
// the pictures are made of (band labels, colour maps, the heat map's pixels).

#include "graphing/SimulatedRecords.h"
#include "graphing/VELTColorMap.h"
#include "graphing/VELTSurfaceLayout.h"
#include "graphing/cairo/VELTSVGPainter.h"
#include "graphs/BandGraphPlots.h"
#include "graphs/RecordPlots.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <tuple>
#include <unistd.h>

#if TAVOLAR_WITH_GRAPHICS
#include <tiffio.h>
#endif

namespace tavolar {
namespace {

// A painter that keeps what the picture is made of: texts, polylines, polygons, images and fills.
class RecordingPainter final : public VELTPainter {
public:
    std::vector<std::string> texts;
    std::size_t polylines = 0, polygons = 0, images = 0;
    std::vector<VELTColor> fills;
    void drawLine(VELTPoint, VELTPoint, const VELTLineStyle&) override {}
    void drawPolyline(std::span<const VELTPoint>, const VELTLineStyle&) override { ++polylines; }
    void fillRect(const VELTRect&, const VELTColor& color) override { fills.push_back(color); }
    void strokeRect(const VELTRect&, const VELTLineStyle&) override {}
    void fillPolygon(std::span<const VELTPoint>, const VELTColor&) override { ++polygons; }
    void drawImage(const VELTRect&, int, int, std::span<const std::uint32_t>) override { ++images; }
    void drawText(std::string_view text, VELTPoint, const VELTFont&, const VELTColor&,
                  VELTHorizontalAlignment, VELTVerticalAlignment, bool) override {
        texts.emplace_back(text);
    }
    double textWidth(std::string_view text, const VELTFont& font) override {
        return 0.55 * font.size * static_cast<double>(text.size());
    }
    double lineHeight(const VELTFont& font) override { return font.size * 1.2; }
    void pushClip(const VELTRect&) override {}
    void popClip() override {}
    bool has(std::string_view text) const {
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }
};

struct GraphCase {
    std::string name;
    std::function<void(PlotSettings&)> adjust;
    PictureStyle style;
    std::vector<std::string> texts; // among the texts drawn
};

const std::vector<GraphCase>& graphCases() {
    static const std::vector<GraphCase> cases{
        {"magnitude",
         [](PlotSettings& s) { s.smoothing = 12; },
         PictureStyle::Curves,
         {"Frequency Response", " (1/12 Octave Smoothing)", "Frequency (Hz)", "Magnitude (dB)", "Left",
          "Right"}},
        {"phase", {}, PictureStyle::Curves, {"Phase", "Phase (°)", "90", "\u221290", "1k"}},
        {"group-delay", {}, PictureStyle::Curves, {"Group Delay", "Group delay (ms)"}},
        {"impulse", {}, PictureStyle::Curves, {"Impulse Response", "Time (ms)", "Amplitude"}},
        {"impulse", [](PlotSettings& s) { s.decibels = true; }, PictureStyle::Curves, {"Level (dB)"}},
        {"etc", {}, PictureStyle::Curves, {"Energy-Time Curve", "Time (ms)", "Level (dB)"}},
        {"distortion",
         [](PlotSettings& s) {
             s.orders = {2, 3, 4};
         },
         PictureStyle::Curves,
         {"Harmonic Distortion", "Distortion (dB)", "Left H2", "Left H4", "Right THD H2-H9"}},
        {"distortion", [](PlotSettings& s) { s.percent = true; }, PictureStyle::Curves, {"Distortion (%)"}},
        {"octave-bands",
         [](PlotSettings& s) { s.weighting = 'a'; },
         PictureStyle::Bars,
         {"Octave Band Levels", " (A-Weighted)", "Level (dBA)", "31.5", "125", "1k", "16k"}},
        {"third-octave-bands", {}, PictureStyle::Bars, {"Third-Octave Band Levels", "63", "250", "4k"}},
        {"waterfall",
         [](PlotSettings& s) { s.smoothing = 6; },
         PictureStyle::Waterfall,
         {"Waterfall", " (Left) (1/6 Octave Smoothing)", "Frequency (Hz)", "Time (ms)", "Level (dB)",
          "\u221260", "1k"}},
        {"spectrogram",
         [](PlotSettings& s) { s.colorMap = "magma"; },
         PictureStyle::HeatMap,
         {"Spectrogram", "Frequency (Hz)", "Time (ms)", "Level (dB)", "\u221260", "0"}},
    };
    return cases;
}

TEST(RecordPlots, EveryGraphDrawsItsParts) {
    for (const GraphCase& c : graphCases()) {
        SCOPED_TRACE(c.name);
        PlotSettings settings;
        settings.graph = c.name;
        if (c.adjust)
            c.adjust(settings);
        auto picture = plotRecords(records(), settings);
        ASSERT_TRUE(picture) << picture.error().localizedDescription;
        EXPECT_EQ(picture->style, c.style);
        EXPECT_EQ(picture->graph, c.name);
        EXPECT_NE(picture->subject.find("Left, Right"), std::string::npos) << picture->subject;
        // No X twice, even where a smoothing grid is finer than the bins.
        for (const auto& curve : c.style == PictureStyle::Curves ? picture->plot.curves : GraphDataArray{})
            EXPECT_EQ(std::adjacent_find(curve->x().span().begin(), curve->x().span().end(),
                                         std::greater_equal<float>()),
                      curve->x().span().end());
        RecordingPainter painter;
        drawPicture(painter, *picture, {0, 0, 454, 283});
        for (const std::string& text : c.texts)
            EXPECT_TRUE(painter.has(text)) << text;
        // Surfaces: slices each filled to hide those behind, or the heat map as exactly one image.
        EXPECT_EQ(painter.images, c.style == PictureStyle::HeatMap ? 1u : 0u);
        if (c.style == PictureStyle::Waterfall) {
            EXPECT_EQ(painter.polygons, static_cast<std::size_t>(settings.waterfall.sliceCount));
            EXPECT_EQ(painter.polylines, painter.polygons);
        } else {
            EXPECT_EQ(painter.polygons, 0u);
        }
        // Bars are filled rectangles instead of lines; the impulse's windows are shaded spans.
        const auto opaqueFills = std::count_if(painter.fills.begin(), painter.fills.end(),
                                               [](const VELTColor& color) { return color.alpha == 1.0; });
        if (c.style == PictureStyle::Bars) {
            EXPECT_EQ(painter.polylines, 0u);
            EXPECT_GT(opaqueFills, 2 * 8);
        }
        if (c.name == "impulse") {
            EXPECT_EQ(std::count_if(painter.fills.begin(), painter.fills.end(),
                                    [](const VELTColor& color) { return color.alpha < 0.5; }),
                      2);
        }
    }
}

TEST(RecordPlots, RangesAndTitlesFollowTheSettings) {
    PlotSettings settings;
    settings.graph = "phase";
    auto wrapped = plotRecords(records(), settings);
    ASSERT_TRUE(wrapped);
    EXPECT_EQ(wrapped->plot.extents.yMin, -180.0);
    EXPECT_EQ(wrapped->plot.extents.yMax, 180.0);
    EXPECT_FALSE(wrapped->roundedY);

    settings.graph = "magnitude";
    settings.xRange = {{100.0, 10000.0}};
    settings.yRange = {{-40.0, 10.0}};
    settings.title = "Woofer";
    settings.linearFrequency = true;
    auto fixed = plotRecords(records(), settings);
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->plot.title, "Woofer");
    EXPECT_FALSE(fixed->plot.logarithmicX);
    EXPECT_EQ(fixed->plot.extents, (VELTGraphExtents{100.0, 10000.0, -40.0, 10.0}));
    EXPECT_FALSE(fixed->roundedY);

    // A surface's Y range is the levels shown; its floor is the depth below the peak.
    PlotSettings surface;
    surface.graph = "spectrogram";
    surface.floor = 80.0;
    auto deep = plotRecords(records(), surface);
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->levelRange, (std::pair{-80.0, 0.0}));
    surface.yRange = {{-50.0, -10.0}};
    EXPECT_EQ(plotRecords(records(), surface)->levelRange, (std::pair{-50.0, -10.0}));

    // The impulse's X range is where the response is, not the whole recording.
    PlotSettings impulse;
    impulse.graph = "impulse";
    auto response = plotRecords(records(), impulse);
    ASSERT_TRUE(response);
    EXPECT_LT(response->plot.extents.xMin, 0.0);
    EXPECT_GT(response->plot.extents.xMax, 10.0);
    EXPECT_LT(response->plot.extents.xMax, 200.0);
}

TEST(RecordPlots, NotesSayWhatShapedTheData) {
    auto averaged = simulatedRecord("Averaged");
    averaged->setSynchronousAverages(4);
    // A window to the response's midpoint, as short responses get by default: 32768 samples.
    auto toMidpoint = simulatedRecord("Short");
    toMidpoint->setWindowBegin(0);
    toMidpoint->setWindowEnd(32768);
    struct Case {
        std::string graph;
        std::optional<int> smoothing;
        RecordArray records;
        std::string note;
    };
    const Case cases[] = {
        {"phase", {}, records(), "48 kHz \u00B7 200 ms window"},
        {"impulse", {}, records(), "48 kHz"}, // the window is drawn
        {"group-delay", {}, {toMidpoint}, "48 kHz \u00B7 683 ms window"},
        {"magnitude",
         12,
         {averaged},
         "48 kHz \u00B7 200 ms window \u00B7 4 averages \u00B7 1/12 octave smoothing"},
    };
    for (const Case& c : cases) {
        PlotSettings settings;
        settings.graph = c.graph;
        settings.smoothing = c.smoothing;
        EXPECT_EQ(plotRecords(c.records, settings)->plot.note, c.note);
    }
    PlotSettings impulse;
    impulse.graph = "impulse";
    EXPECT_EQ(plotRecords({toMidpoint}, impulse)->windows,
              (std::vector<std::pair<double, double>>{{0.0, 32768 / 48.0}}));
}

TEST(RecordPlots, RefusesWhatAGraphDoesNotTake) {
    const std::vector<std::pair<std::function<void(PlotSettings&)>, std::string>> cases{
        {[](PlotSettings& s) { s.graph = "waveform"; }, "no graph named waveform"},
        {[](PlotSettings& s) { s.smoothing = 0; }, "1 to 48"},
        {[](PlotSettings& s) { s.graph = "phase", s.smoothing = 3; }, "not smoothed"},
        {[](PlotSettings& s) { s.combine = "median"; }, "no combination"},
        {[](PlotSettings& s) { s.graph = "impulse", s.combine = "sum"; }, "does not combine"},
        {[](PlotSettings& s) { s.unwrapped = true; }, "phase graphs"},
        {[](PlotSettings& s) { s.graph = "etc", s.decibels = true; }, "impulse graph"},
        {[](PlotSettings& s) {
             s.graph = "distortion", s.orders = {1, 2};
         },
         "from 2 to 9"},
        {[](PlotSettings& s) { s.percent = true; }, "distortion graph"},
        {[](PlotSettings& s) { s.weighting = 'a'; }, "band graphs"},
        {[](PlotSettings& s) { s.graph = "octave-bands", s.weighting = 'b'; }, "no weighting"},
        {[](PlotSettings& s) { s.decibelsPerDecade = 25.0, s.linearFrequency = true; }, "logarithmic"},
        {[](PlotSettings& s) {
             s.xRange = {{0.0, 100.0}};
         },
         "above 0 Hz"},
        {[](PlotSettings& s) {
             s.yRange = {{5.0, -5.0}};
         },
         "lower end first"},
        {[](PlotSettings& s) { s.graph = "etc", s.linearFrequency = true; }, "no frequency axis"},
        {[](PlotSettings& s) { s.graph = "spectrogram", s.colorMap = "jet"; }, "no colour map"},
        {[](PlotSettings& s) { s.graph = "waterfall", s.waterfall.fftLength = 1000; }, "power of two"},
        {[](PlotSettings& s) { s.theme = "sepia"; }, "no theme"},
    };
    for (const auto& [adjust, message] : cases) {
        SCOPED_TRACE(message);
        PlotSettings settings;
        adjust(settings);
        auto picture = plotRecords(records(), settings);
        ASSERT_FALSE(picture);
        EXPECT_EQ(picture.error().code, kPlotSettingsError);
        EXPECT_NE(picture.error().localizedDescription.find(message), std::string::npos)
            << picture.error().localizedDescription;
    }
    auto none = plotRecords({}, PlotSettings{});
    ASSERT_FALSE(none);
    EXPECT_NE(none.error().code, kPlotSettingsError);
}

TEST(RecordPlots, WrappedPhasesBreakWhereTheyJump) {
    VELTGraphPlot plot;
    plot.curves = {VELTGraphData::graphDataWithX(
        VELTRealVector(std::span<const float>(std::vector<float>{100, 200, 300, 400, 500, 600})),
        VELTRealVector(std::span<const float>(std::vector<float>{90, 170, -175, -120, 179, -179})),
        VELTColor::blackColor())};
    plot.extents = {100, 600, -180, 180};
    const VELTRect area{0, 0, 500, 200};
    auto sizes = [&] {
        std::vector<std::size_t> runs;
        for (const auto& run : plottedPoints(*plot.curves.front(), plot, area))
            runs.push_back(run.size());
        return runs;
    };
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{6}));
    plot.yWrap = 360;
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{2, 2, 1, 1}));
}

TEST(RecordPlots, NominalBandCentres) {
    const std::pair<double, double> cases[] = {
        {31.25, 31.5}, {31.62, 31.5}, {62.5, 63},   {99.2, 100},    {1000, 1000},   {1259, 1250},
        {3981, 4000},  {5012, 5000},  {6310, 6300}, {12589, 12500}, {15849, 16000}, {16000, 16000},
    };
    for (const auto& [exact, nominal] : cases)
        EXPECT_DOUBLE_EQ(nominalBandCentre(exact), nominal) << exact;
}

TEST(RecordPlots, ColorMapsAndHeatMapPixels) {
    const VELTColorMap viridis = VELTColorMap::viridis();
    EXPECT_EQ(viridis.pixelAt(0.0), 0xFF440154u);
    EXPECT_EQ(viridis.pixelAt(1.0), 0xFFFDE725u);
    EXPECT_EQ(viridis.pixelAt(-3.0), viridis.pixelAt(0.0));
    EXPECT_EQ(viridis.pixelAt(std::nan("")), viridis.pixelAt(0.0));
    EXPECT_EQ(viridis.pixelAt(7.0), viridis.pixelAt(1.0));
    EXPECT_EQ(VELTColorMap::named("magma")->pixelAt(0.0), 0xFF000004u);
    EXPECT_FALSE(VELTColorMap::named("jet"));
    // Both maps grow lighter all the way, so that they read in grey.
    for (const VELTColorMap& map : {viridis, VELTColorMap::magma()}) {
        double previous = -1.0;
        for (int i = 0; i <= 100; ++i) {
            const VELTColor c = map.colorAt(i / 100.0);
            const double luminance = 0.2126 * c.red + 0.7152 * c.green + 0.0722 * c.blue;
            EXPECT_GT(luminance, previous) << i;
            previous = luminance;
        }
    }

    // Two slices (0 and 10 ms) of three bins (0, 1000, 2000 Hz): the loudest bin is the later slice's
    // highest; later times are at the top of the image, higher frequencies to the right.
    auto surface = std::make_shared<GraphData3D>(VELTRealVector(std::span<const float>(std::vector<float>{
                                                     -60, -30, -60, // 0 ms
                                                     -60, -60, 0,   // 10 ms
                                                 })),
                                                 2, 3);
    surface->setXZ(VELTRealVector(std::span<const float>(std::vector<float>{0, 1000, 2000})),
                   VELTRealVector(std::span<const float>(std::vector<float>{0, 10})));
    VELTSurfacePlot plot;
    plot.surface = surface;
    plot.logarithmicX = false;
    plot.xMin = 500;
    plot.xMax = 3000; // the last column lies beyond the surface's bins: left empty
    plot.zMin = 0;
    plot.zMax = 10;
    const std::vector<std::uint32_t> pixels = heatMapPixels(plot, 4, 2);
    const std::uint32_t low = viridis.pixelAt(0.0), middle = viridis.pixelAt(0.5),
                        high = viridis.pixelAt(1.0);
    EXPECT_EQ(pixels, (std::vector<std::uint32_t>{low, low, high, 0u, middle, middle, low, 0u}));
    EXPECT_EQ(heatMapImageSize(300.5, 4000), (std::pair{601, 2048}));
}

#if TAVOLAR_WITH_GRAPHICS

std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

struct ScratchFolder {
    std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("tavolar-record-plots-" + std::to_string(::getpid()));
    ScratchFolder() { std::filesystem::create_directories(path); }
    ~ScratchFolder() { std::filesystem::remove_all(path); }
};

TEST(RecordPlots, WritesEveryFormat) {
    ScratchFolder folder;
    const VELTImageSize size{VELTImageSize::pointsFromMillimetres(80),
                             VELTImageSize::pointsFromMillimetres(50), 96};
    for (const GraphCase& c : graphCases()) {
        SCOPED_TRACE(c.name);
        PlotSettings settings;
        settings.graph = c.name;
        if (c.adjust)
            c.adjust(settings);
        auto picture = plotRecords(records(), settings);
        ASSERT_TRUE(picture);
        // A heat map is one image in vector files; PDF files keep text as text in embedded fonts, SVG
        // files as <text> elements of a well-formed document.
        const std::tuple<std::string, std::string, std::string> formats[] = {
            {".png", "\x89PNG", ""}, {".svg", "<?xml", "<image"}, {".pdf", "%PDF", "/Subtype /Image"}};
        for (const auto& [extension, start, image] : formats) {
            const auto file = folder.path / (c.name + extension);
            ASSERT_TRUE(writePlot(file, *picture, size)) << extension;
            const std::string written = contentsOf(file);
            EXPECT_TRUE(written.starts_with(start)) << extension;
            std::size_t images = 0;
            for (auto at = written.find(image); !image.empty() && at != std::string::npos;
                 at = written.find(image, at + 1))
                ++images;
            EXPECT_EQ(images, !image.empty() && c.style == PictureStyle::HeatMap ? 1u : 0u) << extension;
            if (extension == ".pdf") {
                EXPECT_NE(written.find("/FontFile"), std::string::npos);
            }
            if (extension != ".svg")
                continue;
            // The title, and every label and tick, each in a <text> of its own.
            EXPECT_NE(written.find(">" + xmlEscaped(c.texts.front()) + "</text>"), std::string::npos);
            std::size_t texts = 0;
            for (auto at = written.find("<text "); at != std::string::npos;
                 at = written.find("<text ", at + 1))
                ++texts;
            EXPECT_GT(texts, 8u);
            EXPECT_EQ(std::system(("/usr/bin/python3 -c 'import sys, xml.etree.ElementTree as x; "
                                   "x.parse(sys.argv[1])' " +
                                   file.string())
                                      .c_str()),
                      0);
        }
    }
    EXPECT_EQ(xmlEscaped("L&R <\"a\" 'b'>\x01\t−µ"), "L&amp;R &lt;&quot;a&quot; &apos;b&apos;&gt;\t−µ");

    PlotSettings settings;
    auto magnitude = plotRecords(records(), settings);
    ASSERT_TRUE(magnitude);
    // TIFF: what libtiff reads back is the bitmap's size and resolution.
    const auto tiffPath = folder.path / "m.TIFF";
    ASSERT_TRUE(writePlot(tiffPath, *magnitude, size));
    TIFF* tiff = TIFFOpen(tiffPath.c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    std::uint32_t width = 0, height = 0;
    std::uint16_t samples = 0;
    float resolution = 0;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetField(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetField(tiff, TIFFTAG_XRESOLUTION, &resolution);
    std::vector<std::uint32_t> raster(std::size_t(width) * height);
    EXPECT_TRUE(TIFFReadRGBAImageOriented(tiff, width, height, raster.data(), ORIENTATION_TOPLEFT, 0));
    TIFFClose(tiff);
    EXPECT_EQ(width, static_cast<std::uint32_t>(size.pixelWidth()));
    EXPECT_EQ(height, static_cast<std::uint32_t>(size.pixelHeight()));
    EXPECT_EQ(samples, 4);
    EXPECT_FLOAT_EQ(resolution, 96.0f);
    EXPECT_EQ(raster.front(), 0xFFFFFFFFu); // the white ground, opaque (ABGR)

    // CSV: X then Y of each curve, headed by the curve's name and the axis.
    const auto csvPath = folder.path / "m.csv";
    ASSERT_TRUE(writePlot(csvPath, *magnitude, size));
    const std::string csv = contentsOf(csvPath);
    EXPECT_TRUE(csv.starts_with(
        "Left Frequency (Hz),Left Magnitude (dB),Right Frequency (Hz),Right Magnitude (dB)\n"))
        << csv.substr(0, 100);
    EXPECT_GT(std::count(csv.begin(), csv.end(), '\n'), 1000);
    GraphPicture empty = *magnitude;
    empty.plot.curves.clear();
    auto refused = writePlot(folder.path / "empty.csv", empty, size);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().localizedDescription, "No data to write");
    EXPECT_FALSE(std::filesystem::exists(folder.path / "empty.csv"));
    EXPECT_FALSE(writePlot(folder.path / "m.jpeg", *magnitude, size));
}

TEST(RecordPlots, LongResponsesDrawOnlyWhatThePixelsShow) {
    // An impulse response of 2^23 samples: the curves drawn keep at most four points a column.
    const std::size_t length = std::size_t(1) << 23;
    std::vector<float> x(length), y(length);
    for (std::size_t i = 0; i < length; ++i) {
        x[i] = static_cast<float>(i) / 48.0f;
        y[i] = static_cast<float>(std::sin(double(i) * 0.37)) / static_cast<float>(1 + i / 4096);
    }
    VELTGraphPlot plot;
    plot.curves = {VELTGraphData::graphDataWithX(VELTRealVector(std::span<const float>(x)),
                                                 VELTRealVector(std::span<const float>(y)),
                                                 VELTColor::blackColor())};
    plot.extents = *automaticGraphExtents(plot.curves, false);
    const VELTRect area{0, 0, 400, 200};
    std::size_t points = 0;
    for (const auto& run : plottedPoints(*plot.curves.front(), plot, area))
        points += run.size();
    EXPECT_LE(points, 4u * 801u);
    EXPECT_GT(points, 800u);
}

#endif

} // namespace
} // namespace tavolar
