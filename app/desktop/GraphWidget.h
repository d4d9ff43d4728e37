#pragma once
// The view of one graph: the graph drawn as picture files draw it, and the gestures on it. The wheel
// zooms about the cursor, a drag pans, a drag with Ctrl (or the right button) zooms into the band it
// draws, a double click fits the extents to the curves; a crosshair
// follows the cursor and reads every curve at its frequency. Shift-clicks place two markers, whose
// readings and differences show in a corner; Escape clears them. A click on the legend names the
// curve clicked. Changes of the extents are undoable. On the impulse graph the edges of the records'
// analysis windows can be grabbed and dragged. A graph linked to another shows the other's cursor.

#include "GraphModel.h"
#include "GraphRenderer.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <QUndoStack>
#include <QWidget>
#include <optional>

namespace tavolar::desktop {

class RecordTableModel;

class GraphWidget : public QWidget {
    Q_OBJECT
public:
    // The zoom of one wheel step; the opposite step zooms by its inverse.
    static constexpr double kZoomStep = 1.25;

    GraphWidget(GraphModel& graph, QUndoStack& undoStack, QWidget* parent = nullptr);

    GraphModel& graph() noexcept { return graph_; }
    void setAppearance(const VELTGraphAppearance& appearance);
    const VELTGraphAppearance& appearance() const noexcept { return appearance_; }

    // The data point at a position in the widget, and back (nothing before the graph is laid out).
    std::optional<QPointF> dataAt(QPointF position) const;
    std::optional<QPointF> positionOf(QPointF data) const;
    // The plot area in the widget's coordinates.
    QRectF plotArea() const;
    // The row of the legend at a position: the index of its curve, or nothing.
    std::optional<int> legendRowAt(QPointF position) const;
    // The crosshair's reading: the frequency and each curve's value there (at the linked cursor when
    // the pointer is elsewhere).
    QString readoutText() const;

    // How close to an edge of an analysis window a press grabs it, in pixels.
    static constexpr double kEdgeGrab = 5.0;
    // Lets the records' windows shaded on the graph be dragged by their edges, each drag one undoable
    // step "Set Window" of the document's.
    void setWindowDocument(RecordTableModel* document) { document_ = document; }
    // The window edge near a position: the record's index among those drawn, and 0 for the window's
    // begin or 1 for its end.
    std::optional<std::pair<int, int>> windowEdgeAt(QPointF position) const;

    // The frames drawn in the next moments are drafts, as in a gesture of this graph's own: for a
    // graph that follows another's.
    void followGesture();

public slots:
    // Shows the cursor of a linked graph at its X value; nothing hides it.
    void showLinkedCursor(std::optional<double> x);

    QSize sizeHint() const override { return {720, 450}; }

signals:
    // A click on the curve's row of the legend.
    void legendClicked(int curve);
    // The pointer moved to the X value in the plot area, or left it.
    void cursorMoved(std::optional<double> x);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    // The frames of a drag or of wheel steps this close together are drafts (drawn faster); the
    // last is drawn in full once the gesture ends.
    static constexpr int kDraftMilliseconds = 150;
    bool inGesture() const;
    // Draws the graph again when something changed, so that the layout matches the extents.
    void ensureRendered() const;
    void drawMarkers(QPainter& painter, const QRectF& area) const;
    void pushExtents(const VELTGraphExtents& extents, const QString& text, int gesture);
    void dragWindowEdge(QPointF position);
    void drawCrosshair(QPainter& painter, const QRectF& area) const;

    GraphModel& graph_;
    QUndoStack& undoStack_;
    VELTGraphAppearance appearance_ = VELTGraphAppearance::light();
    mutable std::optional<RenderedGraph> rendered_;
    std::optional<QPointF> cursor_;
    std::optional<QPointF> dragFrom_;
    std::optional<QRectF> band_; // the rubber band being drawn, in the widget's coordinates
    std::optional<double> linkedX_;
    RecordTableModel* document_ = nullptr;
    struct WindowDrag {
        int record, edge;
        double at; // ms, where the edge is now
    };
    std::optional<WindowDrag> windowDrag_;
    int gesture_ = 0;
    int nextMarker_ = 0;
    QElapsedTimer lastWheel_;
    QElapsedTimer lastFollowed_;
    QTimer* finish_ = nullptr;
};

} // namespace tavolar::desktop
