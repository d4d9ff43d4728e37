#include "GraphWidget.h"

#include "GraphCommands.h"
#include "graphing/VELTUnitFormatter.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>
#include <QWheelEvent>
#include <cmath>

namespace tavolar::desktop {

namespace {

// Wheel steps closer together than this are one zoom for undo.
constexpr qint64 kWheelGestureMilliseconds = 600;

QColor qColor(const VELTColor& color) {
    return QColor::fromRgbF(static_cast<float>(color.red), static_cast<float>(color.green),
                            static_cast<float>(color.blue), static_cast<float>(color.alpha));
}

} // namespace

GraphWidget::GraphWidget(GraphModel& graph, QUndoStack& undoStack, QWidget* parent)
    : QWidget(parent), graph_(graph), undoStack_(undoStack) {
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(240, 160);
    connect(&graph_, &GraphModel::changed, this, [this] {
        rendered_.reset();
        update();
    });
    // Once a gesture has ended, its last draft is drawn again in full.
    finish_ = new QTimer(this);
    finish_->setSingleShot(true);
    finish_->setInterval(kDraftMilliseconds);
    connect(finish_, &QTimer::timeout, this, [this] {
        if (inGesture()) {
            finish_->start();
        } else if (rendered_ && rendered_->draft) {
            rendered_.reset();
            update();
        }
    });
}

bool GraphWidget::inGesture() const {
    auto recent = [](const QElapsedTimer& timer) {
        return timer.isValid() && timer.elapsed() < kDraftMilliseconds;
    };
    return dragFrom_ || windowDrag_ || recent(lastWheel_) || recent(lastFollowed_);
}

void GraphWidget::followGesture() {
    lastFollowed_.start();
}

void GraphWidget::setAppearance(const VELTGraphAppearance& appearance) {
    appearance_ = appearance;
    rendered_.reset();
    update();
}

void GraphWidget::ensureRendered() const {
    // A window moved to a screen of another scale is drawn again at its pixels.
    if (rendered_ && rendered_->image.devicePixelRatio() != devicePixelRatioF())
        rendered_.reset();
    if (rendered_)
        return;
    auto picture = graph_.picture();
    if (!picture)
        return;
    picture->plot.appearance = appearance_;
    const bool draft = inGesture();
    rendered_ = renderPicture(*picture, size(), devicePixelRatioF(), draft);
    if (draft)
        finish_->start();
}

QRectF GraphWidget::plotArea() const {
    ensureRendered();
    if (!rendered_ || !rendered_->layout || !graph_.isInteractive())
        return {};
    const VELTRect& area = rendered_->layout->plotArea;
    return {area.x * kPixelsPerPoint, area.y * kPixelsPerPoint, area.width * kPixelsPerPoint,
            area.height * kPixelsPerPoint};
}

std::optional<QPointF> GraphWidget::dataAt(QPointF position) const {
    const QRectF area = plotArea();
    if (area.isEmpty())
        return std::nullopt;
    const VELTGraphExtents& extents = graph_.extents();
    const double across = (position.x() - area.left()) / area.width();
    const double up = (area.bottom() - position.y()) / area.height();
    const double x = graph_.logarithmicX() ? extents.xMin * std::pow(extents.xMax / extents.xMin, across)
                                           : extents.xMin + across * (extents.xMax - extents.xMin);
    return QPointF(x, extents.yMin + up * (extents.yMax - extents.yMin));
}

std::optional<QPointF> GraphWidget::positionOf(QPointF data) const {
    const QRectF area = plotArea();
    if (area.isEmpty())
        return std::nullopt;
    const VELTGraphExtents& extents = graph_.extents();
    const double across = graph_.logarithmicX()
                              ? std::log(data.x() / extents.xMin) / std::log(extents.xMax / extents.xMin)
                              : (data.x() - extents.xMin) / (extents.xMax - extents.xMin);
    const double up = (data.y() - extents.yMin) / (extents.yMax - extents.yMin);
    return QPointF(area.left() + across * area.width(), area.bottom() - up * area.height());
}

std::optional<int> GraphWidget::legendRowAt(QPointF position) const {
    auto picture = graph_.picture();
    if (!rendered_ || !rendered_->layout || !picture || picture->plot.curves.size() < 2)
        return std::nullopt;
    // The legend as the picture on screen was laid out: in a corner of the plot area or beside it.
    auto curve =
        legendCurveAt(*rendered_->layout, {position.x() / kPixelsPerPoint, position.y() / kPixelsPerPoint});
    return curve ? std::optional<int>(static_cast<int>(*curve)) : std::nullopt;
}

QString GraphWidget::readoutText() const {
    std::optional<double> x = linkedX_;
    if (cursor_) {
        auto data = dataAt(*cursor_);
        x = data ? std::optional(data->x()) : std::nullopt;
    }
    auto picture = graph_.picture();
    if (!x || !picture)
        return {};
    const GraphQuantity& xQuantity = picture->plot.xQuantity;
    QString text = xQuantity.unit == "Hz"
                       ? QString::fromStdString(formatFrequencyWithUnit(*x))
                       : QString::fromStdString(formatShortNumber(*x) + " " + displayUnit(xQuantity.unit));
    const std::string unit = displayUnit(picture->plot.yQuantity.unit);
    for (const auto& reading : graph_.readout(*x))
        text += QString("\n%1: %2")
                    .arg(reading.name, reading.value ? QString::number(*reading.value, 'f', 2) + " " +
                                                           QString::fromStdString(unit)
                                                     : tr("none"));
    return text;
}

void GraphWidget::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    ensureRendered();
    if (!rendered_) {
        painter.fillRect(rect(), qColor(appearance_.background));
        painter.setPen(qColor(appearance_.secondaryText));
        painter.drawText(rect(), Qt::AlignCenter, graph_.isReloading() ? tr("Computing…") : graph_.problem());
        return;
    }
    painter.drawImage(QPointF(0, 0), rendered_->image);
    const QRectF area = plotArea();
    drawMarkers(painter, area);
    if (band_) {
        QColor fill = qColor(appearance_.text);
        fill.setAlphaF(0.12f);
        painter.fillRect(band_->normalized(), fill);
        painter.setPen(QPen(qColor(appearance_.text), 1.0, Qt::DotLine));
        painter.drawRect(band_->normalized());
    }
    if (windowDrag_)
        if (auto at = positionOf(QPointF(windowDrag_->at, 0.0))) {
            painter.setPen(QPen(qColor(appearance_.text), 1.5));
            painter.drawLine(QPointF(at->x(), area.top()), QPointF(at->x(), area.bottom()));
        }
    drawCrosshair(painter, area);
}

void GraphWidget::drawCrosshair(QPainter& painter, const QRectF& area) const {
    // The pointer's crosshair, or the line of a linked graph's cursor at its X value, with the reading
    // in the graph's text colour over a box of its ground.
    std::optional<QPointF> cursor;
    if (cursor_ && area.contains(*cursor_))
        cursor = *cursor_;
    else if (linkedX_ && !cursor_)
        if (auto at = positionOf(QPointF(*linkedX_, 0.0));
            at && at->x() >= area.left() && at->x() <= area.right())
            cursor = QPointF(at->x(), area.top() + 4.0);
    if (!cursor)
        return;
    QColor line = qColor(appearance_.text);
    line.setAlphaF(0.5f);
    painter.setPen(QPen(line, 1.0, Qt::DashLine));
    painter.drawLine(QPointF(cursor->x(), area.top()), QPointF(cursor->x(), area.bottom()));
    if (cursor_)
        painter.drawLine(QPointF(area.left(), cursor->y()), QPointF(area.right(), cursor->y()));
    const QString text = readoutText();
    QFont font = painter.font();
    font.setPointSizeF(8.5);
    painter.setFont(font);
    QRectF box = painter.boundingRect(QRectF(0, 0, 400, 400), Qt::AlignLeft | Qt::AlignTop, text);
    box.adjust(-6, -4, 6, 4);
    // Beside the cursor, on the side with room.
    QPointF at = *cursor + QPointF(12, 12);
    if (at.x() + box.width() > area.right())
        at.setX(cursor->x() - 12 - box.width());
    if (at.y() + box.height() > area.bottom())
        at.setY(std::max(cursor->y() - 12 - box.height(), 0.0)); // a long reading from the top
    box.moveTopLeft(at);
    QColor ground = qColor(appearance_.background);
    ground.setAlphaF(0.9f);
    painter.fillRect(box, ground);
    painter.setPen(qColor(appearance_.frame.color));
    painter.drawRect(box);
    painter.setPen(qColor(appearance_.text));
    painter.drawText(box.adjusted(6, 4, -6, -4), Qt::AlignLeft | Qt::AlignTop, text);
}

void GraphWidget::drawMarkers(QPainter& painter, const QRectF& area) const {
    const QStringList lines = graph_.markerDescriptions();
    if (lines.isEmpty() || area.isEmpty())
        return;
    painter.save();
    painter.setClipRect(area);
    QFont font = painter.font();
    font.setPointSizeF(8.5);
    painter.setFont(font);
    for (int index = 0; index < 2; ++index) {
        const auto& x = graph_.marker(index);
        if (!x)
            continue;
        auto at = positionOf(QPointF(*x, graph_.extents().yMin));
        if (!at)
            continue;
        painter.setPen(QPen(qColor(appearance_.text), 1.0));
        painter.drawLine(QPointF(at->x(), area.top()), QPointF(at->x(), area.bottom()));
        painter.drawText(QPointF(at->x() + 3, area.top() + 12), QString(QChar('A' + index)));
    }
    painter.restore();
    // The markers' readings in the lower left corner of the plot area.
    const QString text = lines.join('\n');
    QRectF box = painter.boundingRect(QRectF(0, 0, 500, 200), Qt::AlignLeft | Qt::AlignTop, text);
    box.adjust(-6, -4, 6, 4);
    box.moveBottomLeft(area.bottomLeft() + QPointF(8, -8));
    QColor ground = qColor(appearance_.background);
    ground.setAlphaF(0.9f);
    painter.fillRect(box, ground);
    painter.setPen(qColor(appearance_.frame.color));
    painter.drawRect(box);
    painter.setPen(qColor(appearance_.text));
    painter.drawText(box.adjusted(6, 4, -6, -4), Qt::AlignLeft | Qt::AlignTop, text);
}

void GraphWidget::resizeEvent(QResizeEvent*) {
    graph_.setViewBounds({0.0, 0.0, width() / kPixelsPerPoint, height() / kPixelsPerPoint});
    rendered_.reset();
}

void GraphWidget::pushExtents(const VELTGraphExtents& extents, const QString& text, int gesture) {
    if (extents == graph_.extents())
        return;
    undoStack_.push(new SetGraphExtentsCommand(graph_, extents, text, gesture));
}

void GraphWidget::wheelEvent(QWheelEvent* event) {
    ensureRendered();
    const double steps = event->angleDelta().y() / 120.0;
    auto anchor = dataAt(event->position());
    if (!anchor || steps == 0.0 || !plotArea().contains(event->position()))
        return;
    if (!lastWheel_.isValid() || lastWheel_.elapsed() > kWheelGestureMilliseconds)
        ++gesture_;
    lastWheel_.start();
    pushExtents(graph_.zoomed(anchor->x(), anchor->y(), std::pow(kZoomStep, -steps)), tr("Zoom"), gesture_);
    event->accept();
}

void GraphWidget::mousePressEvent(QMouseEvent* event) {
    // Shift and a click places marker A, then B, then A again.
    if (event->button() == Qt::LeftButton && (event->modifiers() & Qt::ShiftModifier)) {
        if (auto data = dataAt(event->position()); data && plotArea().contains(event->position())) {
            graph_.setMarker(nextMarker_, data->x());
            nextMarker_ = 1 - nextMarker_;
        }
        return;
    }
    if (auto row = legendRowAt(event->position()); row && event->button() == Qt::LeftButton) {
        emit legendClicked(*row);
        return;
    }
    if (auto edge = windowEdgeAt(event->position());
        edge && event->button() == Qt::LeftButton && event->modifiers() == Qt::NoModifier) {
        const auto& record = *graph_.records()[static_cast<std::size_t>(edge->first)];
        windowDrag_ = WindowDrag{edge->first, edge->second,
                                 edge->second == 0 ? record.windowBeginInMilliseconds()
                                                   : record.windowEndInMilliseconds()};
        ++gesture_;
        return;
    }
    const bool banding = event->button() == Qt::RightButton ||
                         (event->button() == Qt::LeftButton && (event->modifiers() & Qt::ControlModifier));
    if (banding && plotArea().contains(event->position())) {
        band_ = QRectF(event->position(), event->position());
        return;
    }
    if (event->button() == Qt::LeftButton && plotArea().contains(event->position())) {
        dragFrom_ = event->position();
        ++gesture_;
        lastWheel_.invalidate();
    }
}

std::optional<std::pair<int, int>> GraphWidget::windowEdgeAt(QPointF position) const {
    const QRectF area = plotArea();
    if (!document_ || !graph_.showsWindows() || position.y() < area.top() || position.y() > area.bottom())
        return std::nullopt;
    std::optional<std::pair<int, int>> nearest;
    double distance = kEdgeGrab;
    const RecordArray& records = graph_.records();
    for (std::size_t index = 0; index < records.size(); ++index)
        for (int edge : {0, 1}) {
            const double ms = edge == 0 ? records[index]->windowBeginInMilliseconds()
                                        : records[index]->windowEndInMilliseconds();
            auto at = positionOf(QPointF(ms, 0.0));
            if (at && std::abs(at->x() - position.x()) < distance) {
                distance = std::abs(at->x() - position.x());
                nearest = std::pair(static_cast<int>(index), edge);
            }
        }
    return nearest;
}

void GraphWidget::dragWindowEdge(QPointF position) {
    auto data = dataAt(position);
    const RecordArray& records = graph_.records();
    if (!data || !document_ || windowDrag_->record >= static_cast<int>(records.size()))
        return;
    VELTMeasurementRecord& record = *records[static_cast<std::size_t>(windowDrag_->record)];
    // A window that the command line would refuse (an end before the begin, beyond the response) is
    // not set: the edge stays at the last place allowed.
    auto command = DragWindowCommand::make(*document_, record, windowDrag_->edge, data->x(), gesture_);
    if (!command)
        return;
    windowDrag_->at = data->x();
    undoStack_.push(command->release());
}

void GraphWidget::showLinkedCursor(std::optional<double> x) {
    if (x == linkedX_)
        return;
    linkedX_ = x;
    update();
}

void GraphWidget::mouseMoveEvent(QMouseEvent* event) {
    cursor_ = event->position();
    if (auto data = dataAt(event->position()); data && plotArea().contains(event->position()))
        emit cursorMoved(data->x());
    else
        emit cursorMoved(std::nullopt);
    if (windowDrag_ && (event->buttons() & Qt::LeftButton))
        dragWindowEdge(event->position());
    else if (!event->buttons()) {
        if (windowEdgeAt(event->position()))
            setCursor(Qt::SizeHorCursor);
        else
            unsetCursor();
    }
    if (band_)
        band_->setBottomRight(event->position());
    if (dragFrom_ && (event->buttons() & Qt::LeftButton)) {
        auto from = dataAt(*dragFrom_);
        auto to = dataAt(event->position());
        if (from && to)
            pushExtents(graph_.panned(from->x(), from->y(), to->x(), to->y()), tr("Pan"), gesture_);
        dragFrom_ = event->position();
    }
    update();
}

void GraphWidget::mouseReleaseEvent(QMouseEvent*) {
    dragFrom_.reset();
    if (std::exchange(windowDrag_, std::nullopt))
        update();
    if (!band_)
        return;
    // The band's corners within the plot area become the extents; a band a few pixels across is a
    // slip of the hand, not a zoom.
    const QRectF band = band_->normalized().intersected(plotArea());
    band_.reset();
    update();
    if (band.width() < 4.0 || band.height() < 4.0)
        return;
    auto low = dataAt(band.bottomLeft());
    auto high = dataAt(band.topRight());
    if (!low || !high)
        return;
    const VELTGraphExtents proposed{low->x(), high->x(), low->y(), high->y()};
    pushExtents(graph_.limited(proposed), tr("Zoom"), 0);
}

void GraphWidget::mouseDoubleClickEvent(QMouseEvent*) {
    if (auto fitted = graph_.fittedExtents())
        pushExtents(*fitted, tr("Fit to Data"), 0);
}

void GraphWidget::keyPressEvent(QKeyEvent* event) {
    if (event->key() != Qt::Key_Escape)
        return QWidget::keyPressEvent(event);
    graph_.setMarker(0, std::nullopt);
    graph_.setMarker(1, std::nullopt);
    nextMarker_ = 0;
}

void GraphWidget::leaveEvent(QEvent*) {
    cursor_.reset();
    emit cursorMoved(std::nullopt);
    update();
}

} // namespace tavolar::desktop
