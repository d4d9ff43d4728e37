// tavolar-desktop-timings DOCUMENT: how long the desktop takes on this machine, printed in
// milliseconds: from the start of the program to the window drawn with the document's curves, and
// each frame of a drag that pans the magnitude graph (the mouse event, the new extents and the
// repaint). Run it on a document of the size to judge, such as 20 records.

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

    // A drag across the plot, 60 steps of 4 pixels, each frame painted before the next.
    const QRectF area = view.plotArea();
    QPointF at = area.center() - QPointF(120.0, 0.0);
    auto send = [&](QEvent::Type type, Qt::MouseButtons buttons) {
        QMouseEvent event(type, at, view.mapToGlobal(at), Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(&view, &event);
    };
    send(QEvent::MouseButtonPress, Qt::LeftButton);
    // Each frame's time on the clock and on the interface thread's processor time: on a machine shared
    // with other work the clock counts the time the thread waited for a processor too.
    std::vector<double> frames, processor;
    for (int step = 0; step < 60; ++step) {
        QElapsedTimer frame;
        const double cpuBefore = threadMilliseconds();
        frame.start();
        at += QPointF(4.0, 1.0);
        send(QEvent::MouseMove, Qt::LeftButton);
        view.repaint();
        frames.push_back(static_cast<double>(frame.nsecsElapsed()) / 1e6);
        processor.push_back(threadMilliseconds() - cpuBefore);
    }
    send(QEvent::MouseButtonRelease, Qt::NoButton);
    std::sort(frames.begin(), frames.end());
    std::sort(processor.begin(), processor.end());
    std::printf("panning frame (%zu frames, %dx%d graph): median %.1f ms, 90th percentile %.1f ms, "
                "longest %.1f ms; processor time median %.1f ms\n",
                frames.size(), view.width(), view.height(), frames[frames.size() / 2],
                frames[frames.size() * 9 / 10], frames.back(), processor[processor.size() / 2]);
    delete window;
    return 0;
}
