#include "MainWindow.h"

#include "GraphCommands.h"
#include "MeasureDialog.h"
#include "RecordDescription.h"
#include "RecordInspector.h"
#include "RecordMenu.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <QApplication>
#include <QColorDialog>
#include <QDialog>
#include <QDockWidget>
#include <QDoubleValidator>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QSignalBlocker>
#include <QSplitter>
#include <QStatusBar>
#include <QTableWidget>
#include <QTimer>
#include <QToolBar>
#include <QVBoxLayout>
#include <cmath>
#include <functional>
#include <optional>
#include <tuple>

namespace tavolar::desktop {

namespace {

constexpr int kMainQueueIntervalMilliseconds = 10;
constexpr std::string_view kRecentDocumentsKey = "DesktopRecentDocuments";
constexpr qsizetype kRecentDocumentCount = 10;

void setRecentDocuments(const QStringList& paths) {
    nlohmann::json list = nlohmann::json::array();
    for (const QString& path : paths.mid(0, kRecentDocumentCount))
        list.push_back(path.toStdString());
    UserDefaults::standard().setObject(list, kRecentDocumentsKey);
    UserDefaults::standard().synchronize();
}

} // namespace

void MainWindow::startMainQueuePump() {
    static QTimer* pump = nullptr;
    if (pump)
        return;
    pump = new QTimer(qApp);
    // runOnce never waits: it runs what is queued and returns, so the interface never blocks on it.
    QObject::connect(pump, &QTimer::timeout, [] { RunLoop::runOnce(); });
    pump->start(kMainQueueIntervalMilliseconds);
}

QStringList MainWindow::recentDocuments() {
    QStringList paths;
    const auto list = UserDefaults::standard().objectForKey(kRecentDocumentsKey);
    if (list && list->is_array())
        for (const auto& path : *list)
            if (path.is_string() && QFileInfo::exists(QString::fromStdString(path.get<std::string>())))
                paths << QString::fromStdString(path.get<std::string>());
    return paths;
}

MainWindow::MainWindow(std::unique_ptr<RecordTableModel> document, const QString& theme)
    : document_(std::move(document)), theme_(theme) {
    startMainQueuePump();
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(QFileInfo(QString::fromStdString(document_->path().string())).fileName() +
                   " \u2014 Tavolar");
    const VELTGraphAppearance appearance =
        VELTGraphAppearance::appearanceNamed(theme.toStdString()).value_or(VELTGraphAppearance::light());

    tabs_ = new QTabWidget;
    tabs_->setDocumentMode(true);
    for (std::string_view name : plotGraphNames()) {
        auto* graph = new GraphModel(std::string(name), this);
        auto* widget = new GraphWidget(*graph, document_->undoStack());
        widget->setAppearance(appearance);
        widget->setObjectName(QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())));
        widget->setWindowDocument(document_.get());
        graphs_.push_back(graph);
        widgets_.push_back(widget);
        stale_.push_back(true);
        tabs_->addTab(widget, graph->title());
        // A click on a curve in the legend hides its record, where each curve is one record's.
        connect(widget, &GraphWidget::legendClicked, this, [this, graph](int curve) {
            const RecordArray visible = document_->visibleRecords();
            if (graph->curves().size() != visible.size() || curve >= static_cast<int>(visible.size()))
                return;
            const auto& records = document_->records();
            const auto row =
                std::find(records.begin(), records.end(), visible[static_cast<std::size_t>(curve)]);
            document_->setData(
                document_->index(static_cast<int>(row - records.begin()), RecordTableModel::Visible),
                Qt::Unchecked, Qt::CheckStateRole);
        });
        connect(graph, &GraphModel::valueChanged, this, [this] { updateGraphActions(); });
        connect(graph, &GraphModel::changed, this, [this, graph] {
            if (graph == &currentGraphWidget().graph())
                updateExtentsFields();
        });
    }

    table_ = new QTableView;
    table_->setModel(document_.get());
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    table_->setDragDropMode(QAbstractItemView::InternalMove);
    table_->setDragDropOverwriteMode(false);
    table_->horizontalHeader()->setStretchLastSection(true);
    table_->verticalHeader()->setVisible(false);
    table_->setColumnWidth(RecordTableModel::Name, 220);
    table_->horizontalHeader()->setSectionResizeMode(RecordTableModel::Date, QHeaderView::ResizeToContents);
    connect(table_, &QTableView::doubleClicked, this, [this](const QModelIndex& index) {
        if (index.column() != RecordTableModel::Colour)
            return;
        const QColor color = QColorDialog::getColor(index.data(Qt::EditRole).value<QColor>(), this);
        if (color.isValid())
            document_->setData(index, color, Qt::EditRole);
    });

    auto* splitter = new QSplitter(Qt::Vertical);
    splitter->addWidget(tabs_);
    below_ = new LinkedGraphPane(*document_, *tabs_, appearance);
    splitter->addWidget(below_);
    splitter->addWidget(table_);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 3);
    splitter->setStretchFactor(2, 1);
    setCentralWidget(splitter);
    resize(1100, 780);

    buildMenus();
    buildInspector();
    // The extents as numbers, each field an undoable setting of its own.
    QToolBar* extents = addToolBar(tr("Extents"));
    extents->setMovable(false);
    const QString labels[] = {tr("X from"), tr("to"), tr("Y from"), tr("to")};
    for (int index = 0; index < 4; ++index) {
        auto* field = new QLineEdit;
        field->setValidator(new QDoubleValidator(field));
        field->setMaximumWidth(90);
        extents->addWidget(new QLabel(" " + labels[index] + " "));
        extents->addWidget(field);
        connect(field, &QLineEdit::editingFinished, this, [this, index] { extentsFieldEdited(index); });
        extentsFields_.push_back(field);
    }
    extents->addSeparator();
    extents->addAction(lockAction_);
    connect(document_.get(), &RecordTableModel::recordsChanged, this, &MainWindow::refreshGraphs);
    connect(document_.get(), &RecordTableModel::errorOccurred, this, &MainWindow::showError);
    connect(tabs_, &QTabWidget::currentChanged, this, [this](int index) {
        // A graph that missed changes while hidden computes its curves now.
        if (index >= 0 && stale_[static_cast<std::size_t>(index)]) {
            graphs_[static_cast<std::size_t>(index)]->setRecords(document_->visibleRecords());
            stale_[static_cast<std::size_t>(index)] = false;
        }
        updateGraphActions();
        updateExtentsFields();
    });
    refreshGraphs();
    updateGraphActions();
    updateExtentsFields();
    statusBar()->showMessage(tr("%n record(s)", nullptr, document_->rowCount()));
}

MainWindow::~MainWindow() = default;

MainWindow* MainWindow::openDocument(const QString& path, bool create, QWidget* parent,
                                     const QString& theme) {
    auto document = RecordTableModel::open(path.toStdString(), create);
    if (!document) {
        QMessageBox::warning(parent,
                             create ? tr("The document cannot be made") : tr("The document cannot be opened"),
                             QString::fromStdString(document.error().localizedDescription + "\n\n" +
                                                    document.error().localizedRecoverySuggestion));
        return nullptr;
    }
    QString chosen = theme.isEmpty() ? QString("light") : theme;
    if (auto* window = qobject_cast<MainWindow*>(parent); window && theme.isEmpty())
        chosen = window->theme_;
    auto* window = new MainWindow(std::move(*document), chosen);
    window->show();
    QStringList recent = recentDocuments();
    const QString absolute = QFileInfo(path).absoluteFilePath();
    recent.removeAll(absolute);
    recent.prepend(absolute);
    setRecentDocuments(recent);
    return window;
}

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&New Document…"), QKeySequence::New, this, &MainWindow::newDocument);
    file->addAction(tr("&Open…"), QKeySequence::Open, this, &MainWindow::openDocumentDialog);
    QMenu* recent = file->addMenu(tr("Open &Recent"));
    connect(recent, &QMenu::aboutToShow, this, [this, recent] {
        recent->clear();
        for (const QString& path : recentDocuments())
            recent->addAction(QFileInfo(path).fileName() + "  \u2014  " + QFileInfo(path).absolutePath(),
                              this, [this, path] { openDocument(path, false, this); });
        recent->addSeparator();
        recent->addAction(tr("&Clear Menu"), this, [] { setRecentDocuments({}); });
    });
    file->addSeparator();
    file->addAction(tr("&Measure…"), QKeySequence(Qt::CTRL | Qt::Key_M), this, &MainWindow::measure);
    file->addAction(tr("&Export Graph…"), QKeySequence(Qt::CTRL | Qt::Key_E), this,
                    &MainWindow::exportGraphDialog);
    file->addSeparator();
    file->addAction(tr("&Close"), QKeySequence::Close, this, &QWidget::close);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    QAction* undo = document_->undoStack().createUndoAction(this, tr("&Undo"));
    undo->setShortcut(QKeySequence::Undo);
    QAction* redo = document_->undoStack().createRedoAction(this, tr("&Redo"));
    redo->setShortcut(QKeySequence::Redo);
    edit->addAction(undo);
    edit->addAction(redo);
    edit->addSeparator();
    QAction* remove = edit->addAction(tr("&Delete Records"), this, [this] {
        std::vector<int> rows;
        for (const QModelIndex& index : table_->selectionModel()->selectedRows())
            rows.push_back(index.row());
        document_->removeRecords(rows);
    });
    remove->setShortcut(QKeySequence::Delete);
    remove->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    table_->addAction(remove);

    QMenu* graph = menuBar()->addMenu(tr("&Graph"));
    smoothingActions_ = new QActionGroup(this);
    for (const auto& [key, smoothing] : GraphModel::smoothingKeys()) {
        QAction* action = graph->addAction(smoothing == 0 ? tr("No Smoothing")
                                                          : tr("1/%1 Octave Smoothing").arg(smoothing));
        action->setCheckable(true);
        action->setData(smoothing);
        action->setShortcut(QKeySequence(Qt::CTRL | (Qt::Key_0 + key)));
        action->setShortcutContext(Qt::WindowShortcut);
        smoothingActions_->addAction(action);
        connect(action, &QAction::triggered, this,
                [this, smoothing = smoothing] { setGraphValue("smoothingFraction", smoothing); });
    }
    graph->addSeparator();
    // The values of the combinations and phase references are the graph models' own.
    addChoices(graph->addMenu(tr("&Combine Records")), "multiSelectMode",
               {tr("&Each Apart"), tr("&Average"), tr("&Difference"), tr("&Sum"), tr("&RMS Average")},
               {0, 1, 2, 3, 4});
    addToggle(graph, tr("&Normalize"), "normalize");
    addToggle(graph, tr("Lo&garithmic Frequency"), "logFrequencyScale");
    graph->addSeparator();
    addChoices(graph->addMenu(tr("&Phase Reference")), "phaseReference",
               {tr("&Window Start"), tr("Time &Zero"), tr("&Peak")}, {0, 1, 2});
    addToggle(graph, tr("&Unwrap Phase"), "unwrapPhase");
    graph->addSeparator();
    lockAction_ = addToggle(graph, tr("&Lock Extents"), "extentsLocked");

    // The view's extents by key, each an undoable step named as its menu item.
    QMenu* view = menuBar()->addMenu(tr("&View"));
    using Change = std::function<std::optional<VELTGraphExtents>(const GraphModel&)>;
    auto addView = [&](const QString& text, const QKeySequence& key, const QString& undoName, Change change) {
        QAction* action = view->addAction(text, this, [this, undoName, change] {
            GraphModel& model = currentGraphWidget().graph();
            if (!model.isInteractive())
                return;
            if (auto extents = change(model); extents && *extents != model.extents())
                document_->undoStack().push(new SetGraphExtentsCommand(model, *extents, undoName));
        });
        action->setShortcut(key);
    };
    // Zoomed about the middle of the view, on both axes or one.
    auto zoom = [](double factor, bool horizontal, bool vertical) {
        return [=](const GraphModel& model) -> std::optional<VELTGraphExtents> {
            const VELTGraphExtents& now = model.extents();
            const double x =
                model.logarithmicX() ? std::sqrt(now.xMin * now.xMax) : (now.xMin + now.xMax) / 2.0;
            VELTGraphExtents zoomed = model.zoomed(x, (now.yMin + now.yMax) / 2.0, factor);
            if (!horizontal)
                std::tie(zoomed.xMin, zoomed.xMax) = std::pair(now.xMin, now.xMax);
            if (!vertical)
                std::tie(zoomed.yMin, zoomed.yMax) = std::pair(now.yMin, now.yMax);
            return zoomed;
        };
    };
    auto fit = [](bool horizontal, bool vertical) {
        return [=](const GraphModel& model) -> std::optional<VELTGraphExtents> {
            auto fitted = model.fittedExtents();
            if (fitted && !horizontal)
                std::tie(fitted->xMin, fitted->xMax) = std::pair(model.extents().xMin, model.extents().xMax);
            if (fitted && !vertical)
                std::tie(fitted->yMin, fitted->yMax) = std::pair(model.extents().yMin, model.extents().yMax);
            return fitted;
        };
    };
    constexpr double kStep = 0.8;
    addView(tr("Zoom &In"), QKeySequence::ZoomIn, tr("Zoom"), zoom(kStep, true, true));
    addView(tr("Zoom &Out"), QKeySequence::ZoomOut, tr("Zoom"), zoom(1.0 / kStep, true, true));
    addView(tr("Zoom In Horizontally"), QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Right), tr("Zoom"),
            zoom(kStep, true, false));
    addView(tr("Zoom Out Horizontally"), QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Left), tr("Zoom"),
            zoom(1.0 / kStep, true, false));
    addView(tr("Zoom In Vertically"), QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Up), tr("Zoom"),
            zoom(kStep, false, true));
    addView(tr("Zoom Out Vertically"), QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Down), tr("Zoom"),
            zoom(1.0 / kStep, false, true));
    view->addSeparator();
    addView(tr("&Fit to Data"), QKeySequence(Qt::CTRL | Qt::Key_F), tr("Fit to Data"), fit(true, true));
    addView(tr("Fit Horizontally"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_X), tr("Fit to Data"),
            fit(true, false));
    addView(tr("Fit Vertically"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Y), tr("Fit to Data"),
            fit(false, true));

    view->addSeparator();
    below_->addMenu(*view);

    QMenu* records = menuBar()->addMenu(tr("&Records"));
    auto step = [this](int by) {
        const int rows = document_->rowCount();
        if (rows == 0)
            return;
        const QModelIndex current = table_->currentIndex();
        const int row = current.isValid() ? (current.row() + by + rows) % rows : 0;
        table_->selectRow(row);
    };
    records->addAction(tr("&Next Record"), QKeySequence(Qt::ALT | Qt::Key_Down), this, [step] { step(1); });
    records->addAction(tr("&Previous Record"), QKeySequence(Qt::ALT | Qt::Key_Up), this,
                       [step] { step(-1); });
    records->addAction(
        tr("&Hide or Show Selected Records"), QKeySequence(Qt::CTRL | Qt::Key_H), this, [this] {
            for (const QModelIndex& row : table_->selectionModel()->selectedRows()) {
                const QModelIndex visible = document_->index(row.row(), RecordTableModel::Visible);
                const bool shown = visible.data(Qt::CheckStateRole).toInt() == Qt::Checked;
                document_->setData(visible, shown ? Qt::Unchecked : Qt::Checked, Qt::CheckStateRole);
            }
        });

    addRecordActions(records, *table_);

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("&Keyboard Shortcuts"), QKeySequence::HelpContents, this, [this] {
        auto* dialog = new QDialog(this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->setWindowTitle(tr("Keyboard Shortcuts"));
        auto* list = new QTableWidget(0, 2, dialog);
        list->setHorizontalHeaderLabels({tr("Action"), tr("Keys")});
        list->verticalHeader()->setVisible(false);
        list->horizontalHeader()->setStretchLastSection(true);
        list->setEditTriggers(QAbstractItemView::NoEditTriggers);
        for (const auto& [action, keys] : shortcutReference()) {
            list->insertRow(list->rowCount());
            list->setItem(list->rowCount() - 1, 0, new QTableWidgetItem(action));
            list->setItem(list->rowCount() - 1, 1, new QTableWidgetItem(keys));
        }
        list->resizeColumnsToContents();
        auto* layout = new QVBoxLayout(dialog);
        layout->addWidget(list);
        dialog->resize(460, 520);
        dialog->show();
    });
}

std::vector<std::pair<QString, QString>> MainWindow::shortcutReference() const {
    // The menus are the one registry of actions: every item with keys, as its menu names it.
    std::vector<std::pair<QString, QString>> reference;
    std::function<void(const QMenu*)> collect = [&](const QMenu* menu) {
        for (const QAction* action : menu->actions()) {
            if (action->menu())
                collect(action->menu());
            else if (!action->shortcut().isEmpty())
                reference.emplace_back(QString(action->text()).remove('&'),
                                       action->shortcut().toString(QKeySequence::NativeText));
        }
    };
    for (const QAction* action : menuBar()->actions())
        if (action->menu())
            collect(action->menu());
    return reference;
}

QAction* MainWindow::addToggle(QMenu* menu, const QString& text, const std::string& keyPath) {
    QAction* action = menu->addAction(text, this, [this, keyPath](bool on) { setGraphValue(keyPath, on); });
    action->setCheckable(true);
    toggles_.emplace_back(keyPath, action);
    return action;
}

QActionGroup* MainWindow::addChoices(QMenu* menu, const std::string& keyPath, const QStringList& texts,
                                     const std::vector<int>& values) {
    auto* group = new QActionGroup(this);
    for (qsizetype index = 0; index < texts.size(); ++index) {
        const int value = values.at(static_cast<std::size_t>(index));
        QAction* action =
            menu->addAction(texts[index], this, [this, keyPath, value] { setGraphValue(keyPath, value); });
        action->setCheckable(true);
        action->setData(value);
        group->addAction(action);
    }
    choices_.emplace_back(keyPath, group);
    return group;
}

GraphWidget& MainWindow::currentGraphWidget() {
    return *widgets_.at(static_cast<std::size_t>(std::max(0, tabs_->currentIndex())));
}

GraphWidget* MainWindow::graphWidget(const QString& name) {
    for (GraphWidget* widget : widgets_)
        if (widget->objectName() == name)
            return widget;
    return nullptr;
}

bool MainWindow::showGraph(const QString& name) {
    GraphWidget* widget = graphWidget(name);
    if (widget)
        tabs_->setCurrentWidget(widget);
    return widget != nullptr;
}

void MainWindow::setGraphValue(const std::string& keyPath, double value) {
    GraphModel& graph = currentGraphWidget().graph();
    if (graph.value(keyPath) != value)
        document_->undoStack().push(new SetGraphValueCommand(graph, keyPath, value));
}

void MainWindow::refreshGraphs() {
    // Every graph learns of the change; only the one shown computes now, the others when shown.
    std::fill(stale_.begin(), stale_.end(), true);
    const auto current = static_cast<std::size_t>(std::max(0, tabs_->currentIndex()));
    graphs_[current]->setRecords(document_->visibleRecords());
    stale_[current] = false;
}

void MainWindow::updateExtentsFields() {
    const GraphModel& graph = currentGraphWidget().graph();
    const VELTGraphExtents& extents = graph.extents();
    const double values[] = {extents.xMin, extents.xMax, extents.yMin, extents.yMax};
    for (std::size_t index = 0; index < extentsFields_.size(); ++index) {
        extentsFields_[index]->setEnabled(graph.isInteractive());
        if (!extentsFields_[index]->hasFocus())
            extentsFields_[index]->setText(QString::number(values[index], 'g', 6));
    }
}

void MainWindow::extentsFieldEdited(int index) {
    static const std::string keyPaths[] = {"extents.x.min", "extents.x.max", "extents.y.min",
                                           "extents.y.max"};
    GraphModel& graph = currentGraphWidget().graph();
    bool valid = false;
    const double value = extentsFields_[static_cast<std::size_t>(index)]->text().toDouble(&valid);
    VELTGraphExtents proposed = graph.extents();
    double* fields[] = {&proposed.xMin, &proposed.xMax, &proposed.yMin, &proposed.yMax};
    *fields[index] = value;
    // A value outside the limits (or an end past the other) is refused, and the field shows the
    // extents again.
    if (valid && graph.isInteractive() && graph.limited(proposed) == proposed)
        setGraphValue(keyPaths[index], value);
    updateExtentsFields();
}

void MainWindow::buildInspector() {
    auto* panel = new QWidget;
    auto* form = new QFormLayout(panel);
    windowBegin_ = new QDoubleSpinBox;
    windowEnd_ = new QDoubleSpinBox;
    for (QDoubleSpinBox* field : {windowBegin_, windowEnd_}) {
        field->setRange(-1.0e6, 1.0e6);
        field->setDecimals(3);
        field->setSuffix(" ms");
        field->setKeyboardTracking(false);
        connect(field, &QDoubleSpinBox::editingFinished, this, &MainWindow::windowEdited);
    }
    windowType_ = new QComboBox;
    for (const std::string& name : cli::windowTypeNames())
        windowType_->addItem(QString::fromStdString(name));
    connect(windowType_, &QComboBox::activated, this, &MainWindow::windowEdited);
    inspectorStatus_ = new QLabel;
    inspectorStatus_->setWordWrap(true);
    form->addRow(new QLabel(tr("Analysis window")));
    form->addRow(tr("Begins"), windowBegin_);
    form->addRow(tr("Ends"), windowEnd_);
    form->addRow(tr("Taper"), windowType_);
    form->addRow(inspectorStatus_);
    auto* fields = new RecordInspector(*document_);
    form->insertRow(0, fields);
    fields->setRow(0);
    connect(table_->selectionModel(), &QItemSelectionModel::currentRowChanged, fields,
            [fields](const QModelIndex& current) { fields->setRow(current.row()); });
    panel->setMaximumWidth(280);
    auto* dock = new QDockWidget(tr("Record"), this);
    dock->setObjectName("inspector");
    dock->setWidget(panel);
    addDockWidget(Qt::RightDockWidgetArea, dock);
    connect(table_->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            &MainWindow::updateInspector);
    connect(document_.get(), &QAbstractItemModel::dataChanged, this, &MainWindow::updateInspector);
    updateInspector();
}

void MainWindow::updateInspector() {
    const int row = table_->currentIndex().isValid() ? table_->currentIndex().row() : 0;
    const bool present = row < document_->rowCount();
    for (QWidget* field : std::initializer_list<QWidget*>{windowBegin_, windowEnd_, windowType_})
        field->setEnabled(present);
    if (!present)
        return;
    const VELTMeasurementRecord& record = *document_->records()[static_cast<std::size_t>(row)];
    const QSignalBlocker blockBegin(windowBegin_), blockEnd(windowEnd_), blockType(windowType_);
    // From the samples themselves: an end at the response's midpoint (the latest it may be) would
    // read as the earliest time, negative, as a time of the response.
    const double msPerSample =
        record.sampleRate() > 0 ? 1000.0 / static_cast<double>(record.sampleRate()) : 0.0;
    windowBegin_->setValue(static_cast<double>(record.windowBegin()) * msPerSample);
    windowEnd_->setValue(static_cast<double>(record.windowEnd()) * msPerSample);
    windowType_->setCurrentIndex(static_cast<int>(record.impulseResponseWindow().type()));
    inspectorStatus_->clear();
}

void MainWindow::windowEdited() {
    const int row = table_->currentIndex().isValid() ? table_->currentIndex().row() : 0;
    auto set = document_->setWindow(row, static_cast<float>(windowBegin_->value()),
                                    static_cast<float>(windowEnd_->value()),
                                    windowType_->currentText().toStdString());
    if (!set) {
        updateInspector();
        inspectorStatus_->setText(QString::fromStdString(set.error().localizedDescription));
    }
}

void MainWindow::updateGraphActions() {
    GraphModel& graph = currentGraphWidget().graph();
    for (QAction* action : smoothingActions_->actions()) {
        action->setEnabled(graph.takesSmoothing());
        action->setChecked(action->data().toInt() == graph.smoothing());
    }
    for (const auto& [keyPath, action] : toggles_) {
        action->setEnabled(graph.takes(keyPath));
        action->setChecked(graph.value(keyPath) != 0.0);
    }
    for (const auto& [keyPath, group] : choices_) {
        const bool takes = graph.takes(keyPath);
        for (QAction* action : group->actions()) {
            action->setEnabled(takes);
            action->setChecked(takes && action->data().toInt() == std::lround(graph.value(keyPath)));
        }
    }
}

QImage MainWindow::screenshot(QSize size) {
    resize(size);
    // Laid out at the final size before the curves are fitted to the graph's area.
    setAttribute(Qt::WA_DontShowOnScreen);
    show();
    QApplication::processEvents();
    GraphModel& graph = currentGraphWidget().graph();
    graph.reloadSynchronously();
    QApplication::processEvents();
    return grab().toImage();
}

void MainWindow::newDocument() {
    const QString path = QFileDialog::getSaveFileName(this, tr("New Document"), QString(),
                                                      tr("Measurement documents (*.tavolar)"));
    if (path.isEmpty())
        return;
    const QString withSuffix = path.endsWith(".tavolar") ? path : path + ".tavolar";
    openDocument(withSuffix, true, this);
}

void MainWindow::openDocumentDialog() {
    const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Open Documents"), QString(),
                                                            tr("Measurement documents (*.tavolar)"));
    for (const QString& path : paths)
        openDocument(path, false, this);
}

void MainWindow::measure() {
    auto* dialog = new MeasureDialog(*document_, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

Expected<void> MainWindow::exportGraph(const QString& path) {
    GraphWidget& widget = currentGraphWidget();
    auto picture = widget.graph().picture();
    if (!picture)
        return makeUnexpected(widget.graph().problem().toStdString());
    picture->plot.appearance = widget.appearance();
    return writePlot(path.toStdString(), *picture, VELTImageSize::defaultSize());
}

void MainWindow::exportGraphDialog() {
    QString path =
        QFileDialog::getSaveFileName(this, tr("Export Graph"), QString(),
                                     tr("PNG pictures (*.png);;SVG drawings (*.svg);;PDF documents (*.pdf);;"
                                        "CSV tables of the curves (*.csv)"));
    if (path.isEmpty())
        return;
    if (auto written = exportGraph(path); !written)
        QMessageBox::warning(this, tr("The graph was not exported"),
                             QString::fromStdString(written.error().localizedDescription + "\n\n" +
                                                    written.error().localizedRecoverySuggestion));
}

void MainWindow::showError(const QString& message) {
    QMessageBox::warning(this, tr("The document was not changed"), message);
}

} // namespace tavolar::desktop
