// The models without widgets: record edits, deletion and graph settings through the undo stack, and
// the document as a later session reads it after each step.

#include "DesktopTestSupport.h"
#include "GraphCommands.h"
#include "GraphModel.h"
#include "RecordDescription.h"
#include "platform/RunLoop.h"

#include <QColor>
#include <QFile>
#include <QMimeData>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>

namespace tavolar::desktop::test {
namespace {

TEST(RecordTableModel, EditsAreSavedAsMadeAndUndoneAndRedoneInTheDocument) {
    QTemporaryDir folder;
    const auto path = makeDocument(folder, 2);
    auto model = reopened(path);
    ASSERT_TRUE(model);
    struct Edit {
        RecordTableModel::Column column;
        int role;
        QVariant value;
        QVariant stored; // as field() answers it afterwards
        QString actionName;
    };
    const Edit edits[] = {
        {RecordTableModel::Name, Qt::EditRole, QString("Left, 1 m"), QString("Left, 1 m"), "Rename Record"},
        {RecordTableModel::Notes, Qt::EditRole, QString("ünïcode notes"), QString("ünïcode notes"),
         "Set Notes"},
        {RecordTableModel::Colour, Qt::EditRole, QColor(0xD5, 0x5E, 0x00), QColor(0xD5, 0x5E, 0x00),
         "Set Record Colour"},
        {RecordTableModel::Visible, Qt::CheckStateRole, int(Qt::Unchecked), false, "Hide Record"},
    };
    for (const Edit& edit : edits) {
        SCOPED_TRACE(edit.actionName.toStdString());
        const QModelIndex index = model->index(1, edit.column);
        const std::string uuid = model->records()[1]->impulseUUID();
        const QVariant before = model->field(uuid, edit.column);
        ASSERT_TRUE(model->setData(index, edit.value, edit.role));
        EXPECT_EQ(model->undoStack().undoText(), edit.actionName);
        EXPECT_EQ(model->field(uuid, edit.column), edit.stored);
        EXPECT_EQ(reopened(path)->field(uuid, edit.column), edit.stored);
        model->undoStack().undo();
        EXPECT_EQ(model->field(uuid, edit.column), before);
        EXPECT_EQ(reopened(path)->field(uuid, edit.column), before);
        model->undoStack().redo();
        EXPECT_EQ(reopened(path)->field(uuid, edit.column), edit.stored);
    }
    // The hidden record is left out of the graphs, in this session and the next.
    EXPECT_EQ(model->visibleRecords().size(), 1u);
    EXPECT_EQ(reopened(path)->visibleRecords().size(), 1u);
    // The command line rewrites the record through the record store and keeps it hidden.
    auto store = cli::RecordStore::open(path, cli::RecordStore::Mode::ReadWrite);
    ASSERT_TRUE(store && store->save(std::vector{*store->load(1)}, {}));
    EXPECT_EQ(reopened(path)->visibleRecords().size(), 1u);
    // An edit to the value a record already has is no step.
    const int steps = model->undoStack().count();
    model->setData(model->index(0, RecordTableModel::Name), QString("Record 1"), Qt::EditRole);
    EXPECT_EQ(model->undoStack().count(), steps);
}

TEST(RecordTableModel, DeletedRecordsComeBackInPlaceWithTheirImpulseResponses) {
    QTemporaryDir folder;
    const auto path = makeDocument(folder, 3);
    auto model = reopened(path);
    ASSERT_TRUE(model);
    const auto uuidsBefore = [&] {
        std::vector<std::string> uuids;
        auto later = reopened(path);
        for (const auto& record : later->records())
            uuids.push_back(record->impulseUUID());
        return uuids;
    };
    const std::vector<std::string> original = uuidsBefore();
    model->removeRecords({2, 0, 2});
    EXPECT_EQ(model->undoStack().undoText(), "Delete Records");
    ASSERT_EQ(model->rowCount(), 1);
    EXPECT_EQ(uuidsBefore(), std::vector<std::string>{original[1]});

    model->undoStack().undo();
    EXPECT_EQ(model->rowCount(), 3);
    EXPECT_EQ(uuidsBefore(), original);
    // The impulse responses were written back with the records: the next session reads them.
    auto later = reopened(path);
    for (const auto& record : later->records())
        EXPECT_TRUE(record->impulseResponse() && record->impulseResponse()->length() == 8192u);
    model->undoStack().redo();
    EXPECT_EQ(reopened(path)->rowCount(), 1);
}

TEST(RecordTableModel, WindowsAreCheckedAsTheCommandLineChecksThemAndUndone) {
    QTemporaryDir folder;
    const auto path = makeDocument(folder, 1);
    auto model = reopened(path);
    const float end = model->records()[0]->windowEndInMilliseconds();
    ASSERT_TRUE(model->setWindow(0, 0.5f, 3.0f, "half-hanning"));
    EXPECT_EQ(model->undoStack().undoText(), "Set Window");
    EXPECT_NEAR(reopened(path)->records()[0]->windowEndInMilliseconds(), 3.0, 0.05);
    // The window shown again, as the inspector gives it when a field loses the focus, is no step.
    const VELTMeasurementRecord& record = *model->records()[0];
    ASSERT_TRUE(model->setWindow(0, record.windowBeginInMilliseconds(), record.windowEndInMilliseconds(),
                                 "half-hanning"));
    EXPECT_EQ(model->undoStack().count(), 1);
    EXPECT_FALSE(model->setWindow(0, 3.0f, 1.0f, "half-hanning")); // it would end before it begins
    model->undoStack().undo();
    EXPECT_NEAR(reopened(path)->records()[0]->windowEndInMilliseconds(), end, 0.05);
}

TEST(RecordTableModel, RecordChangesAreStepsCheckedAsTheCommandLineChecksThem) {
    QTemporaryDir folder;
    const auto path = makeDocument(folder, 1);
    auto model = reopened(path);
    const QString file = folder.filePath("mic.txt");
    QFile text(file);
    ASSERT_TRUE(text.open(QIODevice::WriteOnly) && text.write("20 0\n1000 1.5\n20000 -2\n") > 0);
    text.close();
    cli::CalibrationChange attach, sensitivity, channel;
    attach.fromFile = *cli::readCalibrationFile(file.toStdString());
    sensitivity.sensitivity = 12.5;
    sensitivity.sensitivityUnit = MicrophoneSensitivityUnit::millivoltsPerPascal;
    channel.channelSensitivity = AudioChannelSensitivity(4.0, AudioChannelSensitivityUnit::dBu);
    cli::RecordChanges spl;
    spl.splReference = 94.0f;
    using Record = const VELTMeasurementRecord&;
    const auto micSensitivity = [](Record r) {
        return r.microphoneCalibrationRecord() ? r.microphoneCalibrationRecord()->sensitivity() : -1.0;
    };
    struct Case {
        std::function<Expected<void>()> edit;
        std::function<double(Record)> value; // what the step changes, as a later session reads it
        QString actionName;                  // empty: refused with the command line's message
    };
    const Case cases[] = {
        {[&] { return model->calibrateRecord(0, sensitivity, "Set Microphone Sensitivity"); }, micSensitivity,
         ""},
        {[&] { return model->calibrateRecord(0, attach, "Set Microphone Calibration"); },
         [](Record r) {
             return double(r.microphoneCalibrationRecord() && r.useMicrophoneCalibrationRecord());
         },
         "Set Microphone Calibration"},
        {[&] { return model->calibrateRecord(0, sensitivity, "Set Microphone Sensitivity"); }, micSensitivity,
         "Set Microphone Sensitivity"},
        {[&] { return model->calibrateRecord(0, channel, "Set Input Sensitivity"); },
         [](Record r) {
             const auto entry = r.recordChannelEntry();
             return entry && entry->sensitivity() ? entry->sensitivity()->sensitivityValue() : -1.0;
         },
         "Set Input Sensitivity"},
        {[&] { return model->changeRecord(0, spl, "Set SPL Reference"); },
         [](Record r) { return r.useSPLReferenceLevel() ? r.SPLReferenceLevel() : -1.0; },
         "Set SPL Reference"},
    };
    for (const Case& step : cases) {
        SCOPED_TRACE(step.actionName.toStdString());
        const int steps = model->undoStack().count();
        const double before = step.value(*reopened(path)->records()[0]);
        const auto done = step.edit();
        if (step.actionName.isEmpty()) {
            ASSERT_FALSE(done);
            EXPECT_EQ(done.error().localizedDescription,
                      "Record 1 has no microphone calibration to give a sensitivity to.");
            EXPECT_EQ(model->undoStack().count(), steps);
            continue;
        }
        ASSERT_TRUE(done);
        EXPECT_EQ(model->undoStack().undoText(), step.actionName);
        const double after = step.value(*reopened(path)->records()[0]);
        EXPECT_NE(after, before);
        model->undoStack().undo();
        EXPECT_EQ(step.value(*reopened(path)->records()[0]), before);
        model->undoStack().redo();
        EXPECT_EQ(step.value(*model->records()[0]), after);
        // The same change again leaves the record as it is: no step.
        ASSERT_TRUE(step.edit());
        EXPECT_EQ(model->undoStack().count(), steps + 1);
    }
}

TEST(RecordTableModel, RecordsMoveAndCopyToAnotherDocumentAsStepsKeptInTheDocuments) {
    QTemporaryDir folder;
    const auto path = makeDocument(folder, 3);
    const auto otherPath = makeDocument(folder, 1, "other");
    auto model = reopened(path);
    auto other = reopened(otherPath);
    const auto names = [](const std::filesystem::path& at) {
        std::string joined;
        const auto later = reopened(at);
        for (const auto& record : later->records())
            joined += record->comment().value_or("") + ";";
        return joined;
    };
    model->moveRecords({0, 1}, 1);
    EXPECT_EQ(model->undoStack().undoText(), "Move Records");
    EXPECT_EQ(names(path), "Record 3;Record 1;Record 2;");
    model->moveRecords({0}, -1); // at the top already
    EXPECT_EQ(model->undoStack().count(), 1);
    model->undoStack().undo();
    EXPECT_EQ(names(path), "Record 1;Record 2;Record 3;");
    // Rows dragged in the table (every column of each) and dropped on the first row.
    std::unique_ptr<QMimeData> dragged(
        model->mimeData({model->index(2, 0), model->index(2, 1), model->index(1, 0)}));
    model->dropMimeData(dragged.get(), Qt::MoveAction, -1, -1, model->index(0, 3));
    EXPECT_EQ(names(path), "Record 2;Record 3;Record 1;");
    model->undoStack().undo();

    ASSERT_TRUE(other->copyRecordsFrom(*model, {2, 0}));
    EXPECT_EQ(other->undoStack().undoText(), "Copy Records");
    EXPECT_EQ(names(otherPath), "Record 1;Record 1;Record 3;");
    EXPECT_EQ(reopened(otherPath)->records()[2]->impulseResponse()->length(), 8192u);
    const auto again = other->copyRecordsFrom(*model, {2});
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().localizedDescription, "Record 3 (" + model->records()[2]->impulseUUID() +
                                                      ") is in " + otherPath.string() + " already.");
    other->undoStack().undo();
    EXPECT_EQ(names(otherPath), "Record 1;");
    other->undoStack().redo();
    EXPECT_EQ(names(otherPath), "Record 1;Record 1;Record 3;");
}

// A graph of the first record of a fresh document, its picture computed.
struct LoadedGraph {
    QTemporaryDir folder;
    std::unique_ptr<RecordTableModel> document;
    GraphModel graph{"magnitude"};
    explicit LoadedGraph(int records = 1) {
        document = reopened(makeDocument(folder, records));
        graph.setRecords(document->visibleRecords());
        graph.reloadSynchronously();
    }
};

TEST(GraphModel, SettingsReachThePictureAndAreUndoneByTheirActionNames) {
    QTemporaryDir folder;
    auto document = reopened(makeDocument(folder, 2));
    struct Change {
        std::string graph, keyPath;
        double value;
        QString actionName;
        // What the picture shows with the setting made (records' echo 1 ms after their peak at 1 ms: a group
        // delay of 1/3 ms after the peak at 1 kHz).
        std::function<bool(const GraphModel&)> shows;
    };
    const Change changes[] = {
        {"magnitude", "smoothingFraction", 3, "Set Smoothing Fraction",
         [](auto& g) { return g.picture()->plot.titleModifier.find("1/3 Octave") != std::string::npos; }},
        {"magnitude", "normalize", 1, "Toggle Normalization",
         [](auto& g) { return std::abs(*g.readout(1000.0).front().value) < 0.2; }},
        {"magnitude", "multiSelectMode", 1, "Set Multiple Selection Mode",
         [](auto& g) { return g.curves().size() == 1; }},
        {"magnitude", "logFrequencyScale", 0, "Toggle Log Frequency Scale",
         [](auto& g) { return !g.logarithmicX(); }},
        {"phase", "unwrapPhase", 1, "Toggle Phase Unwrapping",
         [](auto& g) { return *g.readout(20000.0).front().value < -3600.0; }},
        {"group-delay", "phaseReference", 2, "Set Phase Reference",
         [](auto& g) { return std::abs(*g.readout(1000.0).front().value - 1.0 / 3.0) < 0.05; }},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.graph + " " + change.keyPath);
        GraphModel graph(change.graph);
        graph.setRecords(document->visibleRecords());
        graph.reloadSynchronously();
        QUndoStack stack;
        const double before = graph.value(change.keyPath);
        stack.push(new SetGraphValueCommand(graph, change.keyPath, change.value));
        EXPECT_EQ(stack.undoText(), change.actionName);
        EXPECT_EQ(graph.value(change.keyPath), change.value);
        graph.reloadSynchronously();
        EXPECT_TRUE(change.shows(graph));
        stack.undo();
        graph.reloadSynchronously();
        EXPECT_EQ(graph.value(change.keyPath), before);
        EXPECT_FALSE(change.shows(graph));
    }
    // Settings a graph's picture does not draw are not offered and stay at their defaults.
    GraphModel phase("phase");
    phase.setValue("smoothingFraction", 12);
    phase.setValue("normalize", 1);
    EXPECT_EQ(phase.value("smoothingFraction"), 0.0);
    EXPECT_EQ(phase.value("normalize"), 0.0);
}

TEST(GraphModel, StepsOfOneGestureMergeIntoOneUndo) {
    LoadedGraph loaded;
    GraphModel& graph = loaded.graph;
    QUndoStack stack;
    const VELTGraphExtents start = graph.extents();
    for (double shift : {1.0, 2.0, 3.0})
        stack.push(new SetGraphExtentsCommand(graph, {100.0, 1000.0 * shift, -10.0, 0.0}, "Pan", 7));
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(graph.extents().xMax, 3000.0);
    stack.push(new SetGraphExtentsCommand(graph, {200.0, 2000.0, -10.0, 0.0}, "Pan", 8));
    EXPECT_EQ(stack.count(), 2);
    stack.undo();
    stack.undo();
    EXPECT_EQ(graph.extents(), start);
}

TEST(GraphModel, ReloadsWhileOneComputesEndInThePictureOfTheLastSettings) {
    LoadedGraph loaded;
    GraphModel& graph = loaded.graph;
    for (int smoothing : {3, 6, 24})
        graph.setValue("smoothingFraction", smoothing);
    EXPECT_TRUE(QTest::qWaitFor([&] { return RunLoop::runOnce(), !graph.isReloading(); }, 10000));
    EXPECT_NE(graph.picture()->plot.titleModifier.find("1/24 Octave"), std::string::npos);
}

TEST(GraphModel, ZoomIsReversibleAndPanAndZoomKeepToTheLimits) {
    LoadedGraph loaded;
    GraphModel& graph = loaded.graph;
    graph.setExtents({100.0, 5000.0, -40.0, 10.0});
    const VELTGraphExtents start = graph.extents();
    auto near = [](const VELTGraphExtents& a, const VELTGraphExtents& b) {
        auto close = [](double x, double y) { return std::abs(x - y) <= 1e-9 * std::max(1.0, std::abs(y)); };
        return close(a.xMin, b.xMin) && close(a.xMax, b.xMax) && close(a.yMin, b.yMin) &&
               close(a.yMax, b.yMax);
    };
    struct Zoom {
        double x, y, factor;
    };
    for (const Zoom& zoom : {Zoom{1000.0, -6.0, 0.8}, Zoom{120.0, 9.0, 0.5}, Zoom{4500.0, -39.0, 0.64},
                             Zoom{300.0, 0.0, 1.25}}) {
        graph.setExtents(graph.zoomed(zoom.x, zoom.y, zoom.factor));
        // The point under the cursor stays put: its place along each axis is unchanged.
        EXPECT_NEAR(std::log(zoom.x / graph.extents().xMin) /
                        std::log(graph.extents().xMax / graph.extents().xMin),
                    std::log(zoom.x / start.xMin) / std::log(start.xMax / start.xMin), 1e-12);
        graph.setExtents(graph.zoomed(zoom.x, zoom.y, 1.0 / zoom.factor));
        EXPECT_TRUE(near(graph.extents(), start)) << zoom.x << " " << zoom.factor;
    }
    // Far out: no lower than 1 Hz, no higher than half the sample rate.
    const VELTGraphExtents out = graph.zoomed(1000.0, 0.0, 100.0);
    EXPECT_EQ(out.xMin, 1.0);
    EXPECT_EQ(out.xMax, 24000.0);
    // Far in: the level axis keeps at least 1 dB; the frequency axis may narrow.
    const VELTGraphExtents in = graph.zoomed(1000.0, 0.0, 1e-3);
    EXPECT_EQ(in.yMin, start.yMin);
    EXPECT_EQ(in.yMax, start.yMax);
    EXPECT_LT(in.xMax / in.xMin, 1.1);
    // Panned below 1 Hz: moved back in, the span of the axis kept.
    const VELTGraphExtents panned = graph.panned(100.0, 0.0, 20000.0, 5.0);
    EXPECT_EQ(panned.xMin, 1.0);
    EXPECT_NEAR(panned.xMax, 50.0, 1e-9);
    EXPECT_EQ(panned.yMin, start.yMin - 5.0);
}

TEST(GraphModel, ReadoutInterpolatesEveryCurveAtTheFrequency) {
    LoadedGraph loaded(2);
    GraphModel& graph = loaded.graph;
    graph.setValue("smoothingFraction", 0);
    graph.reloadSynchronously();
    // Record n: gain 1/(n+1) with an echo of half its height 1 ms later, so 1.5 times the gain at
    // 1 kHz and 0.5 times at 500 Hz.
    struct Expected {
        double frequency;
        double decibels[2];
    };
    for (const Expected& expected : {Expected{1000.0, {20 * std::log10(0.75), 20 * std::log10(0.5)}},
                                     Expected{500.0, {20 * std::log10(0.25), 20 * std::log10(1.0 / 6.0)}},
                                     Expected{2012.5, {20 * std::log10(0.75), 20 * std::log10(0.5)}}}) {
        const auto readings = graph.readout(expected.frequency);
        ASSERT_EQ(readings.size(), 2u);
        for (int n = 0; n < 2; ++n) {
            ASSERT_TRUE(readings[n].value.has_value());
            EXPECT_NEAR(*readings[n].value, expected.decibels[n], 0.1) << expected.frequency;
        }
        EXPECT_EQ(readings[1].name, "Record 2");
    }
    // Markers read the first curve and give the differences: 500 Hz, 2 periods of 1 ms apart, and
    // 20 log10(0.75 / 0.25) dB.
    graph.setMarker(0, 500.0);
    EXPECT_EQ(graph.markerDescriptions().size(), 1);
    graph.setMarker(1, 1000.0);
    const QStringList markers = graph.markerDescriptions();
    ASSERT_EQ(markers.size(), 3);
    EXPECT_TRUE(markers[2].startsWith("B \u2212 A: 500 Hz, \u22121 ms, 9.5")) << markers[2].toStdString();
    // Beyond the curves there is nothing to read.
    EXPECT_FALSE(graph.readout(0.5).front().value.has_value());
}

} // namespace
} // namespace tavolar::desktop::test
