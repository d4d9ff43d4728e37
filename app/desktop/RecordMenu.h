#pragma once
// The Records menu's items that rearrange and copy the selected records of a window's table: Move
// Up and Move Down (Ctrl+Shift+Up and Down), and Copy to Document, which lists the other documents
// open in this process.

#include "RecordTableModel.h"

class QMenu;
class QTableView;

namespace tavolar::desktop {

// Adds the items to the menu; the table's model is the document.
void addRecordActions(QMenu* menu, QTableView& table);

// The selected rows of the table in ascending order, or its current row when none is selected.
std::vector<int> selectedRows(const QTableView& table);

} // namespace tavolar::desktop
