#include "LinkedGraphPane.h"

#include <QVBoxLayout>

namespace tavolar::desktop {

namespace {

// Whether the two graphs have the same horizontal axis: both frequency, or both time.
bool shareAxis(const GraphModel& one, const GraphModel& other) {
    return one.isInteractive() && other.isInteractive() && !one.xUnit().empty() &&
           one.xUnit() == other.xUnit();
}

// The horizontal range of one graph given to the other, drawn as drafts while the range moves; it is
// no step to undo of its own, as the change of the first graph is one already.
void follow(const GraphModel& leader, GraphWidget& follower) {
    GraphModel& model = follower.graph();
    if (!shareAxis(leader, model))
        return;
    VELTGraphExtents extents = model.extents();
    extents.xMin = leader.extents().xMin;
    extents.xMax = leader.extents().xMax;
    if (extents == model.extents())
        return;
    follower.followGesture();
    model.setExtents(extents);
}

} // namespace

LinkedGraphPane::LinkedGraphPane(RecordTableModel& document, QTabWidget& tabs,
                                 const VELTGraphAppearance& appearance, QWidget* parent)
    : QWidget(parent), document_(document), tabs_(tabs), appearance_(appearance) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    hide();
    connect(&document_, &RecordTableModel::recordsChanged, this, &LinkedGraphPane::reload);
    connect(&tabs_, &QTabWidget::currentChanged, this, &LinkedGraphPane::link);
}

void LinkedGraphPane::showGraph(const QString& name) {
    delete std::exchange(widget_, nullptr);
    delete std::exchange(model_, nullptr);
    if (actions_)
        for (QAction* action : actions_->actions())
            action->setChecked(action->data().toString() == name);
    if (name.isEmpty()) {
        hide();
        link();
        return;
    }
    model_ = new GraphModel(name.toStdString(), this);
    widget_ = new GraphWidget(*model_, document_.undoStack());
    widget_->setObjectName(name);
    widget_->setAppearance(appearance_);
    widget_->setWindowDocument(&document_);
    layout()->addWidget(widget_);
    show();
    following_ = true;
    link();
    reload();
}

void LinkedGraphPane::addMenu(QMenu& menu) {
    menu.addAction(tr("&Magnitude over Phase"), this, [this] {
        for (int index = 0; index < tabs_.count(); ++index)
            if (tabs_.widget(index)->objectName() == "magnitude")
                tabs_.setCurrentIndex(index);
        showGraph("phase");
    });
    QMenu* below = menu.addMenu(tr("Graph &Below"));
    actions_ = new QActionGroup(this);
    auto add = [&](const QString& text, const QString& name) {
        QAction* action = below->addAction(text, this, [this, name] { showGraph(name); });
        action->setCheckable(true);
        action->setData(name);
        action->setChecked(name.isEmpty());
        actions_->addAction(action);
    };
    add(tr("None"), {});
    below->addSeparator();
    for (std::string_view name : plotGraphNames()) {
        const QString text = GraphModel(std::string(name)).title();
        add(text, QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())));
    }
}

void LinkedGraphPane::link() {
    for (const auto& connection : links_)
        disconnect(connection);
    links_.clear();
    auto* above = qobject_cast<GraphWidget*>(tabs_.currentWidget());
    if (!widget_ || !above)
        return;
    GraphModel& top = above->graph();
    GraphModel& bottom = *model_;
    GraphWidget& below = *widget_;
    links_.push_back(connect(&top, &GraphModel::changed, this, [&top, &below] { follow(top, below); }));
    links_.push_back(connect(&bottom, &GraphModel::changed, this, [this, &top, &bottom, above, &below] {
        // New curves of the pane's graph take the axis of the graph above, rather than giving it theirs.
        if (std::exchange(following_, following_ && !bottom.isInteractive()))
            follow(top, below);
        else
            follow(bottom, *above);
    }));
    auto cursor = [](GraphWidget& to, const GraphModel& from) {
        return [&to, &from](std::optional<double> x) {
            to.showLinkedCursor(shareAxis(from, to.graph()) ? x : std::nullopt);
        };
    };
    links_.push_back(connect(above, &GraphWidget::cursorMoved, widget_, cursor(*widget_, top)));
    links_.push_back(connect(widget_, &GraphWidget::cursorMoved, above, cursor(*above, bottom)));
    follow(top, below);
}

void LinkedGraphPane::reload() {
    if (model_)
        model_->setRecords(document_.visibleRecords());
}

} // namespace tavolar::desktop
