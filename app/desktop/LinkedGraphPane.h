#pragma once
// A second graph under the tabs, of the same records, so that two graphs show at once: the magnitude
// over the phase, or the magnitude under the impulse response while its window is dragged. When the
// graph shown above and this one have the same horizontal axis (both frequency, or both time), a zoom
// or pan of that axis in either moves the other, and the cursor of either shows in both with its
// readings.

#include "GraphWidget.h"
#include "RecordTableModel.h"

#include <QActionGroup>
#include <QMenu>
#include <QTabWidget>

namespace tavolar::desktop {

class LinkedGraphPane : public QWidget {
    Q_OBJECT
public:
    LinkedGraphPane(RecordTableModel& document, QTabWidget& tabs, const VELTGraphAppearance& appearance,
                    QWidget* parent = nullptr);

    // Shows the graph of that name ("phase") under the tabs; an empty name hides the pane.
    void showGraph(const QString& name);
    // The graph shown, or nothing while the pane is hidden.
    GraphWidget* graphWidget() const { return isHidden() ? nullptr : widget_; }
    // Adds "Graph Below", an item per graph and one for none, to the menu.
    void addMenu(QMenu& menu);

private:
    // Links the pane's graph to the one shown above.
    void link();
    void reload();

    RecordTableModel& document_;
    QTabWidget& tabs_;
    VELTGraphAppearance appearance_;
    GraphModel* model_ = nullptr;
    GraphWidget* widget_ = nullptr;
    QActionGroup* actions_ = nullptr;
    std::vector<QMetaObject::Connection> links_;
    // The pane's graph is new and takes the axis from the graph above once its curves arrive.
    bool following_ = false;
};

} // namespace tavolar::desktop
