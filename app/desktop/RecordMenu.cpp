#include "RecordMenu.h"

#include "MainWindow.h"

#include <QApplication>
#include <QFileInfo>
#include <QItemSelectionModel>
#include <QMenu>
#include <QMessageBox>
#include <QTableView>
#include <algorithm>

namespace tavolar::desktop {

std::vector<int> selectedRows(const QTableView& table) {
    std::vector<int> rows;
    for (const QModelIndex& index : table.selectionModel()->selectedRows())
        rows.push_back(index.row());
    if (rows.empty() && table.currentIndex().isValid())
        rows.push_back(table.currentIndex().row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

void addRecordActions(QMenu* menu, QTableView& table) {
    auto& document = static_cast<RecordTableModel&>(*table.model());
    menu->addSeparator();
    menu->addAction(QObject::tr("Move &Up"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Up), &table,
                    [&] { document.moveRecords(selectedRows(table), -1); });
    menu->addAction(QObject::tr("Move &Down"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Down), &table,
                    [&] { document.moveRecords(selectedRows(table), 1); });
    QMenu* copy = menu->addMenu(QObject::tr("&Copy to Document"));
    QObject::connect(copy, &QMenu::aboutToShow, &table, [&table, &document, copy] {
        copy->clear();
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            auto* window = qobject_cast<MainWindow*>(widget);
            if (!window || &window->document() == &document)
                continue;
            const QString name =
                QFileInfo(QString::fromStdString(window->document().path().string())).fileName();
            copy->addAction(name, &table, [&table, &document, window] {
                if (auto copied = window->document().copyRecordsFrom(document, selectedRows(table)); !copied)
                    QMessageBox::warning(&table, QObject::tr("The records were not copied"),
                                         QString::fromStdString(copied.error().localizedDescription + "\n\n" +
                                                                copied.error().localizedRecoverySuggestion));
            });
        }
        if (copy->isEmpty())
            copy->addAction(QObject::tr("No Other Document Is Open"))->setEnabled(false);
    });
}

} // namespace tavolar::desktop
