// tavolar-desktop-timings DOCUMENT: how long the desktop takes on this machine, printed in
// milliseconds: from the start of the program to the window drawn with the document's curves, and
// each frame of a drag that pans the magnitude graph (the mouse event, the new extents and the
// repaint), and of a drag of an analysis window's edge on the impulse graph (the window written to
// the document). Run it on a document of the size to judge, such as 20 records.

#include "MainWindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMouseEvent>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

double threadMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// A drag of the view from a point in steps, each frame painted before the next; prints each frame's
// time on the clock and on the interface thread's processor time (on a machine shared with other
// work the clock counts the time the thread waited for a processor too).
void drag(QWidget& view, const char* what, QPointF at, QPointF step, int steps) {
    auto send = [&](QEvent::Type type, Qt::MouseButtons buttons) {
        QMouseEvent event(type, at, view.mapToGlobal(at), Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(&view, &event);
    };
    send(QEvent::MouseButtonPress, Qt::LeftButton);
    std::vector<double> frames, processor;
    for (int index = 0; index < steps; ++index) {
        QElapsedTimer frame;
        const double cpuBefore = threadMilliseconds();
        frame.start();
        at += step;
        send(QEvent::MouseMove, Qt::LeftButton);
        view.repaint();
        frames.push_back(static_cast<double>(frame.nsecsElapsed()) / 1e6);
        processor.push_back(threadMilliseconds() - cpuBefore);
    }
    send(QEvent::MouseButtonRelease, Qt::NoButton);
    std::sort(frames.begin(), frames.end());
    std::sort(processor.begin(), processor.end());
    std::printf("%s (%zu frames, %dx%d graph): median %.1f ms, 90th percentile %.1f ms, longest %.1f ms; "
                "processor time median %.1f ms\n",
                what, frames.size(), view.width(), view.height(), frames[frames.size() / 2],
                frames[frames.size() * 9 / 10], frames.back(), processor[processor.size() / 2]);
}

} // namespace

int main(int argc, char** argv) {
    QElapsedTimer sinceStart;
    sinceStart.start();
    QApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: tavolar-desktop-timings DOCUMENT\n");
        return 2;
    }
    using tavolar::desktop::MainWindow;
    MainWindow* window = MainWindow::openDocument(argv[1], false);
    if (!window)
        return 1;
    window->resize(1100, 780);
    // The curves are computed on a worker thread and arrive through the main queue, as at any start.
    tavolar::desktop::GraphWidget& view = window->currentGraphWidget();
    while (!view.graph().picture() && view.graph().problem().isEmpty())
        QApplication::processEvents(QEventLoop::AllEvents, 5);
    view.repaint();
    std::printf("start-up to the drawn window (%d records): %lld ms\n", window->document().rowCount(),
                static_cast<long long>(sinceStart.elapsed()));

    // A drag across the plot, 60 steps of 4 pixels.
    const QPointF middle = view.plotArea().center();
    drag(view, "panning frame", middle - QPointF(120.0, 0.0), QPointF(4.0, 1.0), 60);

    // The edge of the first record's window dragged on the impulse graph, 30 steps of 2 pixels; the
    // window is put back afterwards.
    window->showGraph("impulse");
    tavolar::desktop::GraphWidget& impulse = window->currentGraphWidget();
    while (!impulse.graph().picture() && impulse.graph().problem().isEmpty())
        QApplication::processEvents(QEventLoop::AllEvents, 5);
    impulse.repaint();
    const auto& record = *impulse.graph().records().front();
    if (auto edge = impulse.positionOf(QPointF(record.windowBeginInMilliseconds(), 0.0))) {
        const QPointF at(edge->x(), impulse.plotArea().center().y());
        if (impulse.windowEdgeAt(at)) {
            const int steps = window->document().undoStack().index();
            drag(impulse, "window edge frame", at, QPointF(2.0, 0.0), 30);
            window->document().undoStack().setIndex(steps);
        }
    }
    delete window;
    return 0;
}
