// The window and the measurement dialog driven as a user drives them: wheel, drag and keys on the
// graph, and measurements on the simulated device.

#include "DesktopTestSupport.h"
#include "MainWindow.h"
#include "MeasureDialog.h"
#include "RecordInspector.h"
#include "audio/devices/VELTAudioHardware.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <iostream>
#include <tuple>
#include <utility>

namespace tavolar::desktop::test {
namespace {

// A window showing a document of two records, laid out at a fixed size with its graph computed.
struct OpenWindow {
    QTemporaryDir folder;
    std::filesystem::path path;
    MainWindow* window;
    explicit OpenWindow(const QString& graph = "magnitude") {
        path = makeDocument(folder, 2);
        window = new MainWindow(reopened(path));
        window->setAttribute(Qt::WA_DeleteOnClose, false);
        window->showGraph(graph);
        window->resize(900, 640);
        window->show();
        QApplication::setActiveWindow(window);
        EXPECT_TRUE(QTest::qWaitForWindowActive(window));
        window->currentGraphWidget().graph().reloadSynchronously();
        QApplication::processEvents();
    }
    ~OpenWindow() { delete window; }
    GraphWidget& graph() { return window->currentGraphWidget(); }
    QUndoStack& undo() { return window->document().undoStack(); }
};

void wheel(QWidget& widget, QPointF at, int steps) {
    QWheelEvent event(at, widget.mapToGlobal(at), QPoint(), QPoint(0, 120 * steps), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(&widget, &event);
}

// A left-button drag in steps, each move sent as the mouse sends it.
void drag(QWidget& widget, QPoint from, QPoint to, int steps = 5) {
    QTest::mousePress(&widget, Qt::LeftButton, Qt::NoModifier, from);
    for (int step = 1; step <= steps; ++step) {
        const QPointF at = from + QPointF(to - from) * step / steps;
        QMouseEvent move(QEvent::MouseMove, at, widget.mapToGlobal(at), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(&widget, &move);
    }
    QTest::mouseRelease(&widget, Qt::LeftButton, Qt::NoModifier, to);
}

TEST(GraphWidget, WheelZoomThenTheReverseZoomGivesTheSameExtents) {
    OpenWindow open;
    GraphWidget& view = open.graph();
    view.repaint();
    const QRectF area = view.plotArea();
    ASSERT_FALSE(area.isEmpty());
    const VELTGraphExtents start = view.graph().extents();
    const QPointF at = area.center() + QPointF(area.width() / 5, -area.height() / 7);
    const QPointF dataBefore = *view.dataAt(at);
    wheel(view, at, 2);
    const VELTGraphExtents zoomed = view.graph().extents();
    EXPECT_LT(zoomed.xMax / zoomed.xMin, start.xMax / start.xMin);
    EXPECT_LT(zoomed.yMax - zoomed.yMin, start.yMax - start.yMin);
    // The data under the cursor stays under it (the plot area may move by a pixel as the tick labels
    // change).
    const QPointF after = *view.positionOf(dataBefore);
    EXPECT_NEAR(after.x(), at.x(), 1.5);
    EXPECT_NEAR(after.y(), at.y(), 1.5);
    wheel(view, at, -1);
    wheel(view, at, -1);
    const VELTGraphExtents back = view.graph().extents();
    EXPECT_NEAR(back.xMin, start.xMin, start.xMin * 1e-9);
    EXPECT_NEAR(back.xMax, start.xMax, start.xMax * 1e-9);
    EXPECT_NEAR(back.yMin, start.yMin, 1e-9);
    EXPECT_NEAR(back.yMax, start.yMax, 1e-9);
    // Quick wheel steps are one step to undo.
    EXPECT_EQ(open.undo().count(), 1);
    EXPECT_EQ(open.undo().undoText(), "Zoom");
}

TEST(GraphWidget, DragPansAsOneUndoStepBandZoomsAndDoubleClickFits) {
    OpenWindow open;
    GraphWidget& view = open.graph();
    view.repaint();
    const QRectF area = view.plotArea();
    const VELTGraphExtents start = view.graph().extents();
    const QPoint from = area.center().toPoint();
    drag(view, from, from + QPoint(-100, 50));
    EXPECT_GT(view.graph().extents().xMin, start.xMin); // dragged left: higher frequencies come in
    EXPECT_GT(view.graph().extents().yMin, start.yMin); // dragged down: lower levels go out
    EXPECT_EQ(open.undo().count(), 1);
    EXPECT_EQ(open.undo().undoText(), "Pan");
    QTest::mouseDClick(&view, Qt::LeftButton, Qt::NoModifier, from);
    EXPECT_EQ(view.graph().extents(), start);
    // A right-button drag zooms into the band it draws.
    const QPointF corner = *view.dataAt(from + QPoint(80, 40)), other = *view.dataAt(from);
    QTest::mousePress(&view, Qt::RightButton, Qt::NoModifier, from);
    QMouseEvent band(QEvent::MouseMove, QPointF(from + QPoint(80, 40)),
                     view.mapToGlobal(QPointF(from + QPoint(80, 40))), Qt::NoButton, Qt::RightButton,
                     Qt::NoModifier);
    QApplication::sendEvent(&view, &band);
    QTest::mouseRelease(&view, Qt::RightButton, Qt::NoModifier, from + QPoint(80, 40));
    EXPECT_NEAR(view.graph().extents().xMin / other.x(), 1.0, 1e-9);
    EXPECT_NEAR(view.graph().extents().yMin, corner.y(), 1e-9);
    open.undo().undo();
    open.undo().undo();
    open.undo().undo();
    EXPECT_EQ(view.graph().extents(), start);
}

TEST(GraphWidget, DraggingAWindowEdgeOnTheImpulseGraphIsOneSetWindowStep) {
    OpenWindow open("impulse");
    GraphWidget& view = open.graph();
    const float begin = -0.5f, end = 5.0f;
    ASSERT_TRUE(open.window->document().setWindow(0, begin, end, "hanning").has_value());
    view.repaint();
    const VELTMeasurementRecord& record = *open.window->document().records()[0];
    const QPoint edge(static_cast<int>(std::lround(view.positionOf(QPointF(begin, 0.0))->x())),
                      static_cast<int>(view.plotArea().center().y()));
    ASSERT_EQ(view.windowEdgeAt(edge), std::pair(0, 0));
    const double to = view.dataAt(edge + QPoint(30, 0))->x();
    drag(view, edge, edge + QPoint(30, 0));
    EXPECT_NEAR(record.windowBeginInMilliseconds(), to, 1000.0 / 48000.0);
    EXPECT_EQ(record.windowEndInMilliseconds(), end);
    EXPECT_EQ(open.undo().count(), 2);
    EXPECT_EQ(open.undo().undoText(), "Set Window");
    open.undo().undo();
    EXPECT_EQ(record.windowBeginInMilliseconds(), begin);
    // Past the other edge the window would end before it begins: the edge stops where it was allowed.
    drag(view, edge, QPoint(static_cast<int>(view.plotArea().right()) - 1, edge.y()));
    EXPECT_LT(record.windowBeginInMilliseconds(), end);
}

TEST(LinkedGraphPane, MagnitudeOverPhaseShareTheFrequencyAxisAndTheCursor) {
    OpenWindow open;
    open.window->graphBelow().showGraph("phase");
    GraphWidget& top = open.graph();
    GraphWidget& phase = *open.window->graphBelow().graphWidget();
    QApplication::processEvents();
    phase.graph().reloadSynchronously();
    top.repaint();
    phase.repaint();
    auto sameAxis = [&] {
        return top.graph().extents().xMin == phase.graph().extents().xMin &&
               top.graph().extents().xMax == phase.graph().extents().xMax;
    };
    EXPECT_TRUE(sameAxis());
    const VELTGraphExtents start = top.graph().extents(), phaseStart = phase.graph().extents();
    wheel(top, top.plotArea().center(), 2);
    EXPECT_TRUE(sameAxis());
    EXPECT_EQ(phase.graph().extents().yMin, phaseStart.yMin);
    drag(phase, phase.plotArea().center().toPoint(), phase.plotArea().center().toPoint() + QPoint(40, 0));
    EXPECT_TRUE(sameAxis());
    open.undo().undo();
    open.undo().undo();
    EXPECT_EQ(top.graph().extents(), start);
    EXPECT_TRUE(sameAxis());
    // The pointer over the magnitude reads the phase at the same frequency.
    QEvent leave(QEvent::Leave);
    QApplication::sendEvent(&phase, &leave);
    QTest::mouseMove(&top, top.plotArea().center().toPoint());
    EXPECT_EQ(phase.readoutText().section('\n', 0, 0), top.readoutText().section('\n', 0, 0));
    EXPECT_TRUE(phase.readoutText().contains("Record 2"));
}

TEST(GraphWidget, AClickOnTheLegendHidesThatCurvesRecord) {
    OpenWindow open;
    GraphWidget& view = open.graph();
    view.repaint();
    const QRectF area = view.plotArea();
    // The legend sits where the layout put it (a corner, or beside the plot), a row per record:
    // find the middle of the second row.
    std::optional<QPoint> second;
    for (int y = 0; y < view.height() && !second; y += 2)
        for (int x = 0; x < view.width() && !second; x += 8)
            if (view.legendRowAt(QPointF(x, y)) == 1 && view.legendRowAt(QPointF(x, y + 4)) == 1)
                second = QPoint(x, y + 2);
    ASSERT_TRUE(second);
    EXPECT_FALSE(view.legendRowAt(area.center()).has_value());
    const std::string uuid = open.window->document().records()[1]->impulseUUID();
    QTest::mouseClick(&view, Qt::LeftButton, Qt::NoModifier, *second);
    EXPECT_EQ(open.window->document().field(uuid, RecordTableModel::Visible), false);
    EXPECT_EQ(open.undo().undoText(), "Hide Record");
}

TEST(MainWindow, ControlDigitKeysSetTheSmoothing) {
    OpenWindow open;
    GraphModel& graph = open.graph().graph();
    const std::pair<Qt::Key, int> keys[] = {{Qt::Key_0, 0},  {Qt::Key_1, 48}, {Qt::Key_2, 24},
                                            {Qt::Key_3, 12}, {Qt::Key_4, 6},  {Qt::Key_5, 3}};
    // From the default 1/12 octave, 0 first so that every key makes a change.
    for (const auto& [key, smoothing] : keys) {
        QTest::keyClick(open.window, key, Qt::ControlModifier);
        EXPECT_EQ(graph.smoothing(), smoothing) << key;
    }
    EXPECT_EQ(open.undo().undoText(), "Set Smoothing Fraction");
    QTest::keyClick(open.window, Qt::Key_3, Qt::ControlModifier);
    EXPECT_EQ(graph.smoothing(), 12);
    open.undo().undo();
    EXPECT_EQ(graph.smoothing(), 3);
}

TEST(MainWindow, KeysZoomAndFitEachAxisAndStepThroughAndHideRecords) {
    OpenWindow open;
    GraphModel& graph = open.graph().graph();
    const VELTGraphExtents start = graph.extents();
    auto spanX = [&] { return std::log(graph.extents().xMax / graph.extents().xMin); };
    auto spanY = [&] { return graph.extents().yMax - graph.extents().yMin; };
    // Each key with the sign of the change of each span.
    for (const auto& [key, x, y] : {std::tuple{Qt::CTRL | Qt::ALT | Qt::Key_Right, -1, 0},
                                    {Qt::CTRL | Qt::ALT | Qt::Key_Up, 0, -1},
                                    {Qt::CTRL | Qt::SHIFT | Qt::Key_Y, 0, 1},
                                    {Qt::CTRL | Qt::Key_Minus, 1, 1}}) {
        const double x0 = spanX(), y0 = spanY();
        QTest::keyClick(open.window, key.key(), key.keyboardModifiers());
        EXPECT_EQ((spanX() > x0 + 1e-9) - (spanX() < x0 - 1e-9), x) << key.toCombined();
        EXPECT_EQ((spanY() > y0 + 1e-9) - (spanY() < y0 - 1e-9), y) << key.toCombined();
    }
    QTest::keyClick(open.window, Qt::Key_F, Qt::ControlModifier);
    EXPECT_EQ(graph.extents(), start);
    // Alt+Down steps to the next record (round to the first), Ctrl+H hides what is selected.
    QTest::keyClick(open.window, Qt::Key_Down, Qt::AltModifier);
    QTest::keyClick(open.window, Qt::Key_Down, Qt::AltModifier);
    EXPECT_EQ(open.window->recordTable().currentIndex().row(), 1);
    QTest::keyClick(open.window, Qt::Key_H, Qt::ControlModifier);
    EXPECT_EQ(open.window->document().visibleRecords().size(), 1u);
    // Ctrl+Shift+Up moves it up, and it stays the current record.
    QTest::keyClick(open.window, Qt::Key_Up, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(open.window->document().records()[0]->comment(), "Record 2");
    EXPECT_EQ(open.window->recordTable().currentIndex().row(), 0);
    EXPECT_TRUE(std::ranges::any_of(open.window->shortcutReference(),
                                    [](auto& entry) { return entry.first == "Zoom In Vertically"; }));
}

TEST(RecordInspector, FieldsEditTheCurrentRecordAndShowTheCommandLinesRefusal) {
    OpenWindow open;
    auto* inspector = open.window->findChild<RecordInspector*>();
    ASSERT_TRUE(inspector);
    open.window->recordTable().selectRow(1);
    auto* name = inspector->findChild<QLineEdit*>("name");
    EXPECT_EQ(name->text(), "Record 2");
    name->selectAll();
    QTest::keyClicks(name, "Left");
    QTest::keyClick(name, Qt::Key_Return);
    EXPECT_EQ(open.undo().undoText(), "Rename Record");
    EXPECT_EQ(open.window->document().records()[1]->comment(), "Left");
    // A sensitivity needs a calibration: refused as calibrate refuses it, and the field is shown again.
    auto* microphone = inspector->findChild<QLineEdit*>("microphoneSensitivity");
    QTest::keyClicks(microphone, "10");
    QTest::keyClick(microphone, Qt::Key_Return);
    EXPECT_EQ(inspector->findChild<QLabel*>("status")->text(),
              "Record 2 has no microphone calibration to give a sensitivity to.");
    EXPECT_EQ(microphone->text(), "");
    EXPECT_EQ(open.undo().count(), 1);
    // The window's end at the response's midpoint reads as a time after its peak, so that a new
    // begin keeps it.
    EXPECT_NEAR(open.window->windowEndField().value(), 85.333, 1e-3);
    open.window->windowBeginField().setValue(0.5);
    emit open.window->windowBeginField().editingFinished();
    EXPECT_EQ(open.undo().undoText(), "Set Window");
}

TEST(MainWindow, DocumentsOpenedAreRecentMostRecentFirst) {
    QTemporaryDir folder;
    const QString first = QString::fromStdString(makeDocument(folder, 1, "first").string());
    const QString second = QString::fromStdString(makeDocument(folder, 1, "second").string());
    for (const QString& path : {first, second, first})
        delete MainWindow::openDocument(path, false);
    EXPECT_EQ(MainWindow::recentDocuments().mid(0, 2), QStringList({first, second}));
}

TEST(MainWindow, ExtentsFieldsSetEachLimitAsAStepOfItsOwn) {
    OpenWindow open;
    GraphModel& graph = open.graph().graph();
    struct Edit {
        int field;
        QString text;
        std::string keyPath;
        std::optional<double> value; // nothing when the entry is refused
        QString actionName;
    };
    const Edit edits[] = {
        {0, "100", "extents.x.min", 100.0, "Set X Minimum"},
        {1, "8000", "extents.x.max", 8000.0, "Set X Maximum"},
        {2, "-30", "extents.y.min", -30.0, "Set Y Minimum"},
        {3, "6", "extents.y.max", 6.0, "Set Y Maximum"},
        {0, "0.5", "extents.x.min", std::nullopt, ""},   // below 1 Hz
        {1, "90000", "extents.x.max", std::nullopt, ""}, // above half the sample rate
        {3, "-29.5", "extents.y.max", std::nullopt, ""}, // less than 1 dB across
    };
    for (const Edit& edit : edits) {
        SCOPED_TRACE(edit.text.toStdString());
        const double before = graph.value(edit.keyPath);
        const int steps = open.undo().count();
        QLineEdit& field = open.window->extentsField(edit.field);
        field.setText(edit.text);
        emit field.editingFinished();
        EXPECT_EQ(graph.value(edit.keyPath), edit.value.value_or(before));
        EXPECT_EQ(open.undo().count(), steps + (edit.value ? 1 : 0));
        if (edit.value) {
            EXPECT_EQ(open.undo().undoText(), edit.actionName);
        }
        EXPECT_EQ(field.text().toDouble(), graph.value(edit.keyPath));
    }
}

TEST(MainWindow, ExportsTheGraphAsShownToEveryPictureFormatAndItsCurvesAsCSV) {
    OpenWindow open;
    const std::pair<const char*, QByteArray> formats[] = {{"graph.png", "\x89PNG"},
                                                          {"graph.svg", "<?xml"},
                                                          {"graph.pdf", "%PDF"},
                                                          {"graph.csv", "Record 1 Freq"}};
    for (const auto& [name, start] : formats) {
        const QString path = open.folder.filePath(name);
        ASSERT_TRUE(open.window->exportGraph(path).has_value()) << name;
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_TRUE(file.read(start.size()) == start) << name;
    }
    EXPECT_FALSE(open.window->exportGraph(open.folder.filePath("graph.gif")).has_value());
}

// Runs the dialog's measurement until it ends, and answers whether records were added.
std::optional<bool> measureThrough(MeasureDialog& dialog, bool cancel) {
    QSignalSpy finished(&dialog, &MeasureDialog::finished);
    QTest::mouseClick(&dialog.measureButton(), Qt::LeftButton);
    EXPECT_TRUE(dialog.isMeasuring()) << dialog.status().text().toStdString();
    if (cancel) {
        QTest::qWait(300);
        EXPECT_TRUE(dialog.isMeasuring());
        QTest::mouseClick(&dialog.cancelButton(), Qt::LeftButton);
    }
    if (!finished.wait(60000))
        return std::nullopt;
    return finished.front().front().toBool();
}

// The longest time the interface thread went without running its timers while the probe lived.
struct BlockingProbe {
    QTimer timer;
    QElapsedTimer clock;
    qint64 last = 0, longest = 0;
    BlockingProbe() {
        clock.start();
        QObject::connect(&timer, &QTimer::timeout, [this] {
            const qint64 now = clock.elapsed();
            longest = std::max(longest, now - std::exchange(last, now));
        });
        timer.start(5);
    }
};

TEST(MeasureDialog, MeasurementOnTheSimulatedDeviceBecomesARecordAndACancelledOneNone) {
    OpenWindow open;
    RecordTableModel& document = open.window->document();
    MeasureDialog dialog(document, open.window);
    const int device = dialog.device().findData("sim:default");
    ASSERT_GE(device, 0);
    dialog.device().setCurrentIndex(device);
    dialog.name().setText("Simulated");

    // A device that comes and goes while the dialog is open joins and leaves its list.
    SimulatedDeviceConfiguration watched;
    watched.name = "watched";
    watched.noiseLevel = 1.0;
    // Before a sweep the meter shows the input ticked: clipping on that device's noise at full scale,
    // and the quiet noise of sim:default's microphone.
    const InputLevelPanel& meter = dialog.inputLevels();
    for (bool present : {true, false}) {
        present ? VELTAudioHardware::registerSimulatedDevice(watched)
                : VELTAudioHardware::removeSimulatedDevice(watched.name);
        EXPECT_TRUE(QTest::qWaitFor([&] { return (dialog.device().findData("sim:watched") >= 0) == present; },
                                    10000));
        if (!present)
            continue;
        dialog.device().setCurrentIndex(dialog.device().findData("sim:watched"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return meter.clipped(0); }, 5000)) << meter.problem().toStdString();
        dialog.device().setCurrentIndex(device);
        EXPECT_TRUE(QTest::qWaitFor([&] { return !meter.clipped(0) && meter.levels()[0] > -100; }, 5000));
        EXPECT_LT(meter.levels()[0], -60.0);
    }

    // From the click through the sweep, its processing and the new curve's calculation, the
    // interface never stops for more than 50 ms. Other work on the machine can hold it up once, so a
    // longer pause is measured again, twice at most: a stop of the interface's own recurs.
    dialog.fast().setChecked(true);
    qint64 longest = INT64_MAX;
    int rows = 2;
    for (int attempt = 0; attempt < 3 && longest > 50; ++attempt) {
        BlockingProbe probe;
        EXPECT_EQ(measureThrough(dialog, false), std::optional(true)) << dialog.status().text().toStdString();
        ++rows;
        const qint64 stored = probe.clock.elapsed();
        GraphModel& graph = open.graph().graph();
        EXPECT_TRUE(QTest::qWaitFor(
            [&] { return !graph.isReloading() && graph.curves().size() == std::size_t(rows); }));
        open.graph().repaint();
        std::cout << "stored to curve on screen: " << probe.clock.elapsed() - stored
                  << " ms; click to curve: " << probe.clock.elapsed()
                  << " ms; longest pause: " << probe.longest << " ms\n";
        longest = std::min(longest, probe.longest);
    }
    EXPECT_LE(longest, 50);
    ASSERT_EQ(document.rowCount(), rows);
    EXPECT_EQ(document.index(2, RecordTableModel::Name).data().toString(), "Simulated");
    auto later = reopened(open.path);
    ASSERT_EQ(later->rowCount(), rows);
    EXPECT_EQ(later->records()[2]->sampleRate(), 48000);
    EXPECT_EQ(document.undoStack().undoText(), "Add Measurement");

    // At the device's own pace the sweep lasts seconds, so the cancel comes while it plays.
    dialog.fast().setChecked(false);
    EXPECT_EQ(measureThrough(dialog, true), std::optional(false));
    EXPECT_FALSE(dialog.isMeasuring());
    EXPECT_TRUE(dialog.status().text().contains("cancelled")) << dialog.status().text().toStdString();
    EXPECT_EQ(document.rowCount(), rows);
    EXPECT_EQ(reopened(open.path)->rowCount(), rows);
}

} // namespace
} // namespace tavolar::desktop::test
