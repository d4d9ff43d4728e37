// Graph models: defaults and settings, extents fitted by reloads against extents the user sets (and
// undoes), record observation, archives, and the CSV and image exports.

#include "audio/MicrophoneCalibrationRecord.h"
#include "core/VELTMeasurementRecord.h"
#include "engine/IsolatedUserDefaults.h"
#include "graphs/FrequencyGraphPlots.h"
#include "graphs/TavolarMagnitudeResponseGraph.h"
#include "platform/Logging.h"
#include "platform/RunLoop.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace tavolar {
namespace {

using namespace std::chrono_literals;

// A record of a decaying 1 kHz resonance plus an impulse, valid from 20 Hz to 20 kHz.
std::shared_ptr<VELTMeasurementRecord> resonance(double gain, std::string name) {
    VELTRealVector impulse(16384);
    for (std::size_t n = 0; n < 4800; ++n)
        impulse[n] = static_cast<float>(gain * std::exp(-double(n) / 400.0) *
                                        std::sin(2.0 * M_PI * 1000.0 * double(n) / 48000.0));
    impulse[0] += static_cast<float>(gain);
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(8000);
    record->setStartFrequency(20.0f);
    record->setEndFrequency(20000.0f);
    record->setComment(std::move(name));
    return record;
}

std::shared_ptr<const VELTGraphData> flatCurve(float level) {
    return VELTGraphData::graphDataWithX(VELTRealVector(std::vector<float>{20.0f, 200.0f, 2000.0f}),
                                         VELTRealVector(std::vector<float>{level, level, level}),
                                         VELTColor::blackColor());
}

std::filesystem::path temporaryFile(std::string_view name) {
    return std::filesystem::temp_directory_path() /
           ("tavolar-graph-tests-" + std::to_string(::getpid()) + "-" + std::string(name));
}

// Every undoable key path is one the graph reads and writes, and a change of it is redrawn.
TEST(GraphModel, UndoableKeyPathsAreReadAndRedrawn) {
    TavolarMagnitudeResponseGraph graph;
    const auto display = graph.keyPathsOfPropertiesAffectingDisplay();
    ASSERT_FALSE(graph.undoablePropertyKeyPaths().empty());
    for (const auto& [keyPath, name] : graph.undoablePropertyKeyPaths()) {
        EXPECT_TRUE(graph.numberForKeyPath(keyPath).has_value()) << keyPath;
        EXPECT_NE(std::find(display.begin(), display.end(), keyPath), display.end()) << keyPath;
    }
}

TEST(GraphModel, SmoothingKeyEquivalentsSetTheTitleModifierAndUndo) {
    TavolarMagnitudeResponseGraph graph;
    InMemoryUndoManager undo;
    graph.setUndoManager(&undo);
    auto press = [&](std::string_view name) {
        for (const KeyEquivalent& key : graph.keyEquivalents())
            if (key.key == name)
                return graph.performAction(key.action, key.tag);
        return false;
    };
    ASSERT_TRUE(press("0"));
    EXPECT_EQ(graph.titleModifier(), "");
    EXPECT_EQ(graph.graphCalculationSettings().smoothingFraction, 0.0f);
    ASSERT_TRUE(press("5"));
    EXPECT_EQ(graph.titleModifier(), "(1/3 Octave Smoothing)");
    EXPECT_FLOAT_EQ(graph.graphCalculationSettings().smoothingFraction, 1.0f / 3.0f);
    EXPECT_TRUE(graph.needsReload());
    undo.undo();
    undo.undo();
    EXPECT_EQ(graph.titleModifier(), "(1/12 Octave Smoothing)");
}

TEST(GraphModel, ScaleSuffixesAndCollapsedFrequencies) {
    const std::vector<std::pair<double, std::string>> scales{
        {2000.0, " x2k"}, {500.0, " x500"}, {1000.0, " x1000"}, {50.0, ""}, {100.0, ""}, {1.0, ""}};
    for (const auto& [scale, suffix] : scales)
        EXPECT_EQ(TavolarFrequencyDomainGraph::stringForScale(scale), suffix) << scale;
    TavolarMagnitudeResponseGraph graph;
    graph.setVerticalAxisDataScaleFactor(2000.0);
    EXPECT_EQ(graph.verticalAxis().label(), "Magnitude (dB x2k)");

    const VELTCollapsingFrequencyNumberFormatter formatter =
        TavolarFrequencyDomainGraph::frequencyFormatter();
    const std::vector<std::pair<double, std::string>> frequencies{{2000.0, "2k"}, {12500.0, "12.5k"},
                                                                  {1000.0, "1k"}, {999.0, "999"},
                                                                  {31.5, "31.5"}, {1.0e6, "1,000k"}};
    for (const auto& [hertz, text] : frequencies)
        EXPECT_EQ(formatter.stringForNumber(hertz), text);
}

TEST(GraphModel, ReloadedExtentsFitTheDataUnlessLockedAndAreNotUndoable) {
    TavolarMagnitudeResponseGraph graph;
    InMemoryUndoManager undo;
    graph.setUndoManager(&undo);

    // Flat curves span 1 dB around their level.
    graph.replaceGraphDataArray({flatCurve(94.2f), flatCurve(94.2f)});
    EXPECT_NEAR(graph.extents().yMin, 93.7, 1e-5);
    EXPECT_NEAR(graph.extents().yMax, 94.7, 1e-5);
    EXPECT_EQ(graph.extents().xMin, 20.0);
    EXPECT_FALSE(undo.canUndo());

    // A user's change is undoable under its name, and undo and redo take it back and forth.
    // Observers hear of the limit that changed, and of the extents as a whole.
    std::vector<std::string> heard;
    for (const char* keyPath : {"extents", "extents.y.max", "extents.x.min"})
        graph.addObserver(keyPath, [&](std::string_view path) { heard.emplace_back(path); });
    VELTGraphExtents mine = graph.extents();
    mine.yMax = 120.0;
    graph.setExtents(mine);
    EXPECT_EQ(heard, (std::vector<std::string>{"extents", "extents.y.max"}));
    EXPECT_EQ(undo.undoActionName(), "Set Y Maximum");
    undo.undo();
    EXPECT_NEAR(graph.extents().yMax, 94.7, 1e-5);
    undo.redo();
    EXPECT_EQ(graph.extents(), mine);

    // Real reloads: with the lock the user's extents stay, without it they follow the data.
    graph.setMeasurementRecords({resonance(1.0, "a")});
    graph.setExtentsLocked(true);
    const std::size_t undoCount = undo.undoCount();
    graph.reloadDataSynchronously();
    ASSERT_EQ(graph.graphDataArray().size(), 1u);
    EXPECT_FALSE(graph.needsReload());
    EXPECT_EQ(graph.extents(), mine);
    graph.setExtentsLocked(false);
    graph.reloadDataSynchronously();
    EXPECT_EQ(graph.extents(), graph.extentsFilter().filter(*graph.extentsFittingGraphData()));
    EXPECT_NE(graph.extents(), mine);
    EXPECT_EQ(undo.undoCount(), undoCount + 1); // the unlock only

    // Undo outliving its graph does nothing.
    {
        TavolarMagnitudeResponseGraph shortLived;
        shortLived.setUndoManager(&undo);
        shortLived.setNormalize(true);
    }
    undo.undo();
}

class RecordingDelegate final : public TavolarGraphDelegate {
public:
    std::vector<std::string> calls;
    void graphWillChangeMeasurementRecords(TavolarGraph&) override { calls.push_back("willChange"); }
    void graphDidChangeMeasurementRecords(TavolarGraph&) override { calls.push_back("didChange"); }
    void graphWillReloadData(TavolarGraph&) override { calls.push_back("willReload"); }
    void graphDidReloadData(TavolarGraph& graph) override {
        calls.push_back("didReload " + std::to_string(graph.graphDataArray().size()));
    }
};

TEST(GraphModel, DrawnRecordsChangesMarkTheGraphForReload) {
    auto record = resonance(1.0, "a");
    auto graph = std::make_shared<TavolarMagnitudeResponseGraph>();
    auto delegate = std::make_shared<RecordingDelegate>();
    graph->setDelegate(delegate);
    int dirty = 0;
    graph->setContentsDirtyHandler([&] { ++dirty; });
    graph->setMeasurementRecords({record});

    bool reloaded = false;
    graph->reloadDataWithCompletionHandler([&] { reloaded = true; });
    EXPECT_TRUE(graph->graphDataArray().empty()); // the data arrives on the main queue
    ASSERT_TRUE(RunLoop::runUntil([&] { return reloaded; }, 10s));
    EXPECT_EQ(graph->graphDataArray().size(), 1u);
    EXPECT_FALSE(graph->needsReload());
    EXPECT_EQ(delegate->calls,
              (std::vector<std::string>{"willChange", "didChange", "willReload", "didReload 1"}));

    // Only the key paths that affect the curves mark the graph; so do the copies that exports make.
    auto copy = graph->copy();
    auto expectMarks = [&](const std::function<void()>& change, bool marks) {
        graph->setNeedsReload(false);
        copy->setNeedsReload(false);
        const int dirtyBefore = dirty;
        change();
        EXPECT_EQ(graph->needsReload(), marks);
        EXPECT_EQ(copy->needsReload(), marks);
        EXPECT_EQ(dirty - dirtyBefore, marks ? 1 : 0);
    };
    expectMarks([&] { record->setComment("renamed"); }, false);
    expectMarks([&] { record->setPlotColor(ArchivedColor{1.0, 0.0, 0.0, 1.0}); }, true);
    auto calibration =
        std::make_shared<const MicrophoneCalibrationRecord>("mic", std::nullopt, nullptr, nullptr);
    expectMarks([&] { record->setMicrophoneCalibrationRecord(calibration); }, true);

    reloaded = false;
    graph->reloadDataIfNeeded();
    ASSERT_TRUE(RunLoop::runUntil([&] { return !graph->needsReload(); }, 10s));

    // Records no longer drawn are no longer observed.
    graph->setMeasurementRecords({});
    EXPECT_TRUE(graph->graphDataArray().empty());
    graph->setNeedsReload(false);
    record->setPlotColor(ArchivedColor{0.0, 0.0, 1.0, 1.0});
    EXPECT_FALSE(graph->needsReload());
}

TEST(GraphModel, ArchivedSettingsRoundTrip) {
    TavolarMagnitudeResponseGraph graph;
    graph.setExtentsLocked(true);
    graph.setExtentsFilter(VELTGraphExtentsFilter(20.0, 20000.0, std::nullopt, 10.0));
    graph.setAspectRatio(3.0);
    graph.setSmoothingFraction(6.0);
    graph.setMultiSelectMode(2);
    graph.setNormalize(true);
    graph.setLogFrequencyScale(false);
    graph.setVerticalAxisDataScaleFactor(500.0); // not archived

    auto data = KeyedArchiver::archivedDataWithRootObject(graph);
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TavolarMagnitudeResponseGraph>(data);
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_TRUE(decoded->extentsLocked());
    EXPECT_EQ(decoded->extentsFilter(), graph.extentsFilter());
    EXPECT_EQ(decoded->aspectRatio(), 3.0);
    EXPECT_EQ(decoded->smoothingFraction(), 6.0);
    EXPECT_EQ(decoded->titleModifier(), "(1/6 Octave Smoothing)");
    EXPECT_EQ(decoded->multiSelectMode(), 2);
    EXPECT_TRUE(decoded->normalize());
    EXPECT_FALSE(decoded->logFrequencyScale());
    EXPECT_FALSE(decoded->horizontalAxis().isLogarithmic());
    EXPECT_EQ(decoded->verticalAxisDataScaleFactor(), 1.0);
}

// Keeps the lines drawn in a given style, and the texts.
class LinePainter final : public VELTPainter {
public:
    explicit LinePainter(VELTLineStyle style) : style_(std::move(style)) {}
    std::vector<std::pair<VELTPoint, VELTPoint>> lines;
    std::vector<std::string> texts;
    void drawLine(VELTPoint from, VELTPoint to, const VELTLineStyle& style) override {
        if (style == style_)
            lines.emplace_back(from, to);
    }
    void drawPolyline(std::span<const VELTPoint>, const VELTLineStyle&) override {}
    void fillRect(const VELTRect&, const VELTColor&) override {}
    void strokeRect(const VELTRect&, const VELTLineStyle&) override {}
    void fillPolygon(std::span<const VELTPoint>, const VELTColor&) override {}
    void drawImage(const VELTRect&, int, int, std::span<const std::uint32_t>) override {}
    void drawText(std::string_view text, VELTPoint, const VELTFont&, const VELTColor&,
                  VELTHorizontalAlignment, VELTVerticalAlignment, bool) override {
        texts.emplace_back(text);
    }
    double textWidth(std::string_view text, const VELTFont& font) override {
        return 0.5 * font.size * text.size();
    }
    double lineHeight(const VELTFont& font) override { return 1.2 * font.size; }
    void pushClip(const VELTRect&) override {}
    void popClip() override {}

private:
    VELTLineStyle style_;
};

TEST(GraphModel, MarkersAndTickLabelsFollowTheAxes) {
    TavolarMagnitudeResponseGraph graph;
    graph.replaceGraphDataArray({flatCurve(90.0f)});
    graph.setExtents({10.0, 10000.0, 80.0, 100.0});
    const VELTGraphMarker style;
    graph.setMarkers({{VELTGraphMarker::Orientation::Vertical, 100.0, "100 Hz", style.lineStyle},
                      {VELTGraphMarker::Orientation::Vertical, 5.0, "off the axis", style.lineStyle},
                      {VELTGraphMarker::Orientation::Horizontal, 85.0, "", style.lineStyle}});
    VELTAxis vertical = graph.verticalAxis();
    vertical.setTickLabelFormatter([](double level) { return formatShortNumber(level) + " dB"; });
    graph.setVerticalAxis(vertical);
    LinePainter painter(style.lineStyle);
    graph.drawInRect(painter, {0.0, 0.0, 600.0, 250.0});
    const VELTRect area = layoutGraph(painter, graph.graphPlot(), {0.0, 0.0, 600.0, 250.0}).plotArea;
    ASSERT_EQ(painter.lines.size(), 2u);
    // 100 Hz is a third of the way along three decades; 85 dB a quarter of the way up.
    EXPECT_NEAR(painter.lines[0].first.x, area.x + area.width / 3.0, 1e-9);
    EXPECT_EQ(painter.lines[0].first.x, painter.lines[0].second.x);
    EXPECT_NEAR(painter.lines[1].first.y, area.bottom() - area.height / 4.0, 1e-9);
    EXPECT_NE(std::find(painter.texts.begin(), painter.texts.end(), "100 Hz"), painter.texts.end());
    EXPECT_EQ(std::find(painter.texts.begin(), painter.texts.end(), "off the axis"), painter.texts.end());
    // Tick labels are the axes' formatters' text.
    for (const char* label : {"90 dB", "1k"})
        EXPECT_NE(std::find(painter.texts.begin(), painter.texts.end(), label), painter.texts.end()) << label;
}

TEST(GraphModel, FrequencyScaleChangesKeepTheExtentsShowable) {
    TavolarMagnitudeResponseGraph graph;
    InMemoryUndoManager undo;
    graph.setUndoManager(&undo);
    graph.setLogFrequencyScale(false);
    graph.setExtents({0.0, 0.0, -10.0, 10.0});
    graph.setLogFrequencyScale(true);
    // The filter's 10 Hz is the lowest frequency a logarithmic axis shows here.
    EXPECT_EQ(graph.extents(), (VELTGraphExtents{10.0, 10000.0, -10.0, 10.0}));
    EXPECT_EQ(undo.undoActionName(), "Toggle Log Frequency Scale");
    undo.undo();
    EXPECT_FALSE(graph.logFrequencyScale());
}

TEST(GraphModel, CSVExportWritesTwoTitledColumnsPerCurveAndNothingWithoutData) {
    const auto file = temporaryFile("export.csv");
    std::filesystem::remove(file);
    TavolarMagnitudeResponseGraph graph;
    std::optional<bool> written;
    {
        LogCapture log;
        graph.exportDataToCSVFileAtURL(file, [&](bool result) { written = result; });
        ASSERT_TRUE(RunLoop::runUntil([&] { return written.has_value(); }, 10s));
        EXPECT_FALSE(*written);
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_EQ(log.texts(), std::vector<std::string>{"(ERROR) TavolarGraph.cpp : No data to write"});
    }

    graph.setMeasurementRecords({resonance(1.0, "Left"), resonance(0.5, "Right")});
    graph.setSmoothingFraction(0.0);
    written.reset();
    graph.exportDataToCSVFileAtURL(file, [&](bool result) { written = result; });
    ASSERT_TRUE(RunLoop::runUntil([&] { return written.has_value(); }, 10s));
    ASSERT_TRUE(*written);
    std::ifstream input(file);
    std::string header, row;
    std::getline(input, header);
    std::getline(input, row);
    EXPECT_EQ(header, "Left Frequency (Hz),Left Magnitude (dB),Right Frequency (Hz),Right Magnitude (dB),");
    const VELTGraphData& left = *graph.graphDataArray()[0];
    EXPECT_EQ(row.substr(0, row.find(',', row.find(',') + 1) + 1),
              fmt::format("{:f},{:f},", left.x()[0], left.y()[0]));
    std::filesystem::remove(file);
}

#if TAVOLAR_WITH_GRAPHICS
TEST(GraphModel, ImageExportDrawsWhatTheCommandLinesPlotDraws) {
    TavolarMagnitudeResponseGraph graph;
    const RecordArray records{resonance(1.0, "a"), resonance(0.25, "b")};
    graph.setMeasurementRecords(records);
    auto png = graph.pngExportedImageDataWithSize(400.0, 250.0, 2.0);
    ASSERT_TRUE(png.has_value()) << png.error().localizedDescription;
    // The model itself is left as it was: the export drew a reloaded copy.
    EXPECT_TRUE(graph.graphDataArray().empty());

    const auto description = *frequencyGraphNamed("magnitude");
    GraphCalculationSettings settings;
    settings.smoothingFraction = 1.0f / 12.0f;
    auto plot = frequencyGraphPlot(
        description, makeFrequencyGraphController(description.kind, settings)->calculate(records), settings);
    ASSERT_TRUE(plot.has_value());
    const auto file = temporaryFile("plot.png");
    ASSERT_TRUE(writeImage(file, VELTImageFormat::PNG, {400.0, 250.0, 144.0}, [&](VELTPainter& painter) {
        drawGraph(painter, *plot, {0.0, 0.0, 400.0, 250.0});
    }));
    std::ifstream input(file, std::ios::binary);
    const std::string expected((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
    std::filesystem::remove(file);
    ASSERT_EQ(png->size(), expected.size());
    EXPECT_EQ(std::memcmp(png->data(), expected.data(), expected.size()), 0);
}
#endif

} // namespace
} // namespace tavolar
