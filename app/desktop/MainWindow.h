#pragma once
// The window of one measurement document: its graphs in tabs above the table of its records, the
// menus of the graph settings (smoothing on Ctrl+0 to Ctrl+5), keys that zoom and fit the view and
// step through the records, undo and redo of every edit, the measurement dialog, and the reference
// of every key in the Help menu. Each document has a window of its own.

#include "GraphModel.h"
#include "GraphWidget.h"
#include "LinkedGraphPane.h"
#include "RecordTableModel.h"

#include <QActionGroup>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QTabWidget>
#include <QTableView>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavolar::desktop {

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    MainWindow(std::unique_ptr<RecordTableModel> document, const QString& theme = "light");
    ~MainWindow() override;

    // Opens (or, with create, makes) the document in a new window; reports a failure in a dialog
    // over parent and answers nothing.
    // The window takes the theme given, else the parent window's, else the light one.
    static MainWindow* openDocument(const QString& path, bool create, QWidget* parent = nullptr,
                                    const QString& theme = {});
    // The documents opened last, most recent first (ten at most, those still there), as File > Open
    // Recent lists them; openDocument puts the document it opens first.
    static QStringList recentDocuments();
    // Work that the engine puts on its main queue (measurement stages, computed curves) runs between
    // the interface's events; started once for the process.
    static void startMainQueuePump();

    RecordTableModel& document() noexcept { return *document_; }
    QTableView& recordTable() noexcept { return *table_; }
    // The graph shown, and every graph by its name ("magnitude", "group-delay").
    GraphWidget& currentGraphWidget();
    GraphWidget* graphWidget(const QString& name);
    bool showGraph(const QString& name);
    // The second graph under the tabs (View > Graph Below), linked to the one shown above.
    LinkedGraphPane& graphBelow() noexcept { return *below_; }
    // Sets a graph setting of the current graph through the undo stack.
    void setGraphValue(const std::string& keyPath, double value);
    // The fields of the current graph's extents: X minimum, X maximum, Y minimum, Y maximum.
    QLineEdit& extentsField(int index) { return *extentsFields_.at(static_cast<std::size_t>(index)); }
    // The inspector's fields of the current record's window: begin and end (ms) and type.
    QDoubleSpinBox& windowBeginField() { return *windowBegin_; }
    QDoubleSpinBox& windowEndField() { return *windowEnd_; }
    QComboBox& windowTypeField() { return *windowType_; }
    // Writes the current graph as shown (its extents and theme) to a PNG, SVG or PDF file of the
    // default picture size, or its curves to a CSV file, through the same code as tavolar plot; an
    // error says what went wrong.
    Expected<void> exportGraph(const QString& path);
    // Every menu item that has keys: its name and its keys, as the Help menu lists them.
    std::vector<std::pair<QString, QString>> shortcutReference() const;
    // The window drawn off screen at the size, with the current graph's curves computed first.
    QImage screenshot(QSize size);

public slots:
    void newDocument();
    void openDocumentDialog();
    void measure();
    void exportGraphDialog();

private:
    void buildMenus();
    void refreshGraphs();
    void updateGraphActions();
    void updateExtentsFields();
    // The record inspector: the current record's analysis window, edited as an undoable step.
    void buildInspector();
    void updateInspector();
    void windowEdited();
    void extentsFieldEdited(int index);
    void showError(const QString& message);

    std::unique_ptr<RecordTableModel> document_;
    QString theme_;
    QTabWidget* tabs_ = nullptr;
    LinkedGraphPane* below_ = nullptr;
    QTableView* table_ = nullptr;
    std::vector<GraphModel*> graphs_;
    std::vector<GraphWidget*> widgets_;
    std::vector<bool> stale_;
    // A menu item that switches a graph setting on and off, or one of a group that picks its value.
    QAction* addToggle(QMenu* menu, const QString& text, const std::string& keyPath);
    QActionGroup* addChoices(QMenu* menu, const std::string& keyPath, const QStringList& texts,
                             const std::vector<int>& values);

    QActionGroup* smoothingActions_ = nullptr;
    std::vector<std::pair<std::string, QAction*>> toggles_;
    std::vector<std::pair<std::string, QActionGroup*>> choices_;
    QAction* lockAction_ = nullptr;
    std::vector<QLineEdit*> extentsFields_;
    QDoubleSpinBox* windowBegin_ = nullptr;
    QDoubleSpinBox* windowEnd_ = nullptr;
    QComboBox* windowType_ = nullptr;
    QLabel* inspectorStatus_ = nullptr;
};

} // namespace tavolar::desktop
