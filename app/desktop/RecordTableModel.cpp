#include "RecordTableModel.h"

#include "RecordChanges.h"
#include "platform/DispatchQueue.h"
#include "platform/KeyedArchiver.h"

#include <QDataStream>
#include <QDateTime>
#include <QIODevice>
#include <QMimeData>
#include <QUndoCommand>
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <utility>

namespace tavolar::desktop {

namespace {

QColor qColor(const std::optional<ArchivedColor>& color) {
    const ArchivedColor value = color.value_or(ArchivedColor{});
    return QColor::fromRgbF(static_cast<float>(value.red), static_cast<float>(value.green),
                            static_cast<float>(value.blue), static_cast<float>(value.alpha));
}

ArchivedColor archivedColor(const QColor& color) {
    return {color.redF(), color.greenF(), color.blueF(), color.alphaF()};
}

QString columnActionName(RecordTableModel::Column column, const QVariant& value) {
    switch (column) {
    case RecordTableModel::Name:
        return QObject::tr("Rename Record");
    case RecordTableModel::Colour:
        return QObject::tr("Set Record Colour");
    case RecordTableModel::Visible:
        return value.toBool() ? QObject::tr("Show Record") : QObject::tr("Hide Record");
    case RecordTableModel::Notes:
        return QObject::tr("Set Notes");
    default:
        return {};
    }
}

class SetFieldCommand : public QUndoCommand {
public:
    SetFieldCommand(RecordTableModel& model, std::string uuid, RecordTableModel::Column column,
                    QVariant value)
        : QUndoCommand(columnActionName(column, value)), model_(model), uuid_(std::move(uuid)),
          column_(column), old_(model.field(uuid_, column)), new_(std::move(value)) {}
    void redo() override { model_.applyField(uuid_, column_, new_); }
    void undo() override { model_.applyField(uuid_, column_, old_); }

private:
    RecordTableModel& model_;
    std::string uuid_;
    RecordTableModel::Column column_;
    QVariant old_, new_;
};

class SetWindowCommand : public QUndoCommand {
public:
    SetWindowCommand(RecordTableModel& model, std::string uuid, VELTWindow before, VELTWindow after)
        : QUndoCommand(QObject::tr("Set Window")), model_(model), uuid_(std::move(uuid)), before_(before),
          after_(after) {}
    void redo() override { model_.applyWindow(uuid_, after_); }
    void undo() override { model_.applyWindow(uuid_, before_); }

private:
    RecordTableModel& model_;
    std::string uuid_;
    VELTWindow before_, after_;
};

// Any change to a record's values, undone by the record's values from before.
class SetRecordCommand : public QUndoCommand {
public:
    using Snapshot = std::shared_ptr<const VELTMeasurementRecord>;
    SetRecordCommand(RecordTableModel& model, std::string uuid, Snapshot before, Snapshot after, QString text)
        : QUndoCommand(std::move(text)), model_(model), uuid_(std::move(uuid)), before_(std::move(before)),
          after_(std::move(after)) {}
    void redo() override { model_.applySnapshot(uuid_, *after_); }
    void undo() override { model_.applySnapshot(uuid_, *before_); }

private:
    RecordTableModel& model_;
    std::string uuid_;
    Snapshot before_, after_;
};

class OrderCommand : public QUndoCommand {
public:
    OrderCommand(RecordTableModel& model, std::vector<std::string> before, std::vector<std::string> after,
                 QString text)
        : QUndoCommand(std::move(text)), model_(model), before_(std::move(before)), after_(std::move(after)) {
    }
    void redo() override { model_.applyOrder(after_); }
    void undo() override { model_.applyOrder(before_); }

private:
    RecordTableModel& model_;
    std::vector<std::string> before_, after_;
};

// The record's values as stored, to tell whether an edit changed anything.
std::vector<std::byte> archived(VELTMeasurementRecord& record) {
    record.setDontSaveImpulse(true);
    return KeyedArchiver::archivedDataWithRootObject(record);
}

// Removing and adding are one command that takes records out or puts them back at their rows.
class RecordsCommand : public QUndoCommand {
public:
    using Rows = std::vector<std::pair<int, std::shared_ptr<VELTMeasurementRecord>>>;
    // impulsesStored: the document holds the added records' impulse responses already.
    RecordsCommand(RecordTableModel& model, Rows rows, bool adding, QString text, bool impulsesStored = false)
        : QUndoCommand(std::move(text)), model_(model), rows_(std::move(rows)), adding_(adding),
          impulsesStored_(impulsesStored) {
        for (const auto& [row, record] : rows_)
            uuids_.push_back(record->impulseUUID());
    }
    void redo() override {
        adding_ ? model_.insertRecords(rows_, !std::exchange(impulsesStored_, false))
                : model_.takeRecords(uuids_);
    }
    void undo() override { adding_ ? model_.takeRecords(uuids_) : model_.insertRecords(rows_); }

private:
    RecordTableModel& model_;
    Rows rows_;
    std::vector<std::string> uuids_;
    bool adding_;
    bool impulsesStored_;
};

} // namespace

Expected<std::unique_ptr<RecordTableModel>> RecordTableModel::open(const std::filesystem::path& path,
                                                                   bool create) {
    auto store = cli::RecordStore::open(path, create ? cli::RecordStore::Mode::CreateIfMissing
                                                     : cli::RecordStore::Mode::ReadWrite);
    if (!store)
        return std::unexpected(store.error());
    std::unique_ptr<RecordTableModel> model(new RecordTableModel(std::move(*store)));
    for (std::size_t index = 0; index < model->store_.summaries().size(); ++index) {
        auto record = model->store_.load(index);
        if (!record)
            return std::unexpected(record.error());
        model->records_.push_back(*record);
    }
    return model;
}

RecordTableModel::RecordTableModel(cli::RecordStore store) : store_(std::move(store)) {}

RecordTableModel::~RecordTableModel() {
    *alive_ = false;
    for (auto& write : writes_)
        write.wait();
}

RecordArray RecordTableModel::visibleRecords() const {
    RecordArray visible;
    for (const auto& record : records_)
        if (isVisible(*record))
            visible.push_back(record);
    return visible;
}

bool RecordTableModel::isVisible(const VELTMeasurementRecord& record) const {
    return !store_.isHidden(record.impulseUUID());
}

int RecordTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(records_.size());
}

int RecordTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant RecordTableModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const VELTMeasurementRecord& record = *records_[static_cast<std::size_t>(index.row())];
    const auto column = static_cast<Column>(index.column());
    if (column == Visible && role == Qt::CheckStateRole)
        return isVisible(record) ? Qt::Checked : Qt::Unchecked;
    // Black is every record's colour until one is chosen; graphs draw such records in the colours of
    // their palette, so the table says so rather than showing black.
    const bool automaticColour = qColor(record.plotColor()) == QColor(Qt::black);
    if (column == Colour && role == Qt::DecorationRole)
        return automaticColour ? QVariant() : QVariant(qColor(record.plotColor()));
    if (role == Qt::ToolTipRole && column == Name)
        return QString::fromStdString(record.impulseUUID());
    if (role != Qt::DisplayRole && role != Qt::EditRole)
        return {};
    switch (column) {
    case Name:
        return QString::fromStdString(cli::RecordStore::displayName(record));
    case Colour:
        if (role == Qt::EditRole)
            return qColor(record.plotColor());
        return automaticColour ? tr("Automatic") : qColor(record.plotColor()).name();
    case Date:
        if (auto date = record.date()) {
            const auto milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(date->time_since_epoch()).count();
            return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC).toString("yyyy-MM-dd HH:mm:ss");
        }
        return {};
    case Notes:
        return QString::fromStdString(record.notes().value_or(""));
    default:
        return {};
    }
}

QVariant RecordTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    static const char* const names[] = {"Name", "Colour", "Visible", "Date (UTC)", "Notes"};
    return section >= 0 && section < ColumnCount ? tr(names[section]) : QVariant();
}

Qt::ItemFlags RecordTableModel::flags(const QModelIndex& index) const {
    // Rows are dragged whole, and dropped between rows.
    if (!index.isValid())
        return Qt::ItemIsDropEnabled;
    Qt::ItemFlags flags = QAbstractTableModel::flags(index) | Qt::ItemIsDragEnabled;
    switch (index.column()) {
    case Name:
    case Notes:
    case Colour:
        return flags | Qt::ItemIsEditable;
    case Visible:
        return flags | Qt::ItemIsUserCheckable;
    default:
        return flags;
    }
}

bool RecordTableModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (!index.isValid() || index.row() >= rowCount())
        return false;
    const auto column = static_cast<Column>(index.column());
    QVariant newValue;
    if (column == Visible && role == Qt::CheckStateRole)
        newValue = value.toInt() == Qt::Checked;
    else if (role == Qt::EditRole && (column == Name || column == Notes))
        newValue = value.toString();
    else if (role == Qt::EditRole && column == Colour && value.value<QColor>().isValid())
        newValue = value.value<QColor>();
    else
        return false;
    const std::string uuid = records_[static_cast<std::size_t>(index.row())]->impulseUUID();
    if (field(uuid, column) == newValue)
        return true;
    undoStack_.push(new SetFieldCommand(*this, uuid, column, newValue));
    return true;
}

QVariant RecordTableModel::field(const std::string& uuid, Column column) const {
    const int row = rowOf(uuid);
    if (row < 0)
        return {};
    const VELTMeasurementRecord& record = *records_[static_cast<std::size_t>(row)];
    switch (column) {
    case Name:
        return QString::fromStdString(record.comment().value_or(""));
    case Colour:
        return qColor(record.plotColor());
    case Visible:
        return isVisible(record);
    case Notes:
        return QString::fromStdString(record.notes().value_or(""));
    default:
        return {};
    }
}

void RecordTableModel::applyField(const std::string& uuid, Column column, const QVariant& value) {
    const int row = rowOf(uuid);
    if (row < 0)
        return;
    const auto& record = records_[static_cast<std::size_t>(row)];
    switch (column) {
    case Name:
        record->setComment(value.toString().toStdString());
        break;
    case Colour:
        record->setPlotColor(archivedColor(value.value<QColor>()));
        break;
    case Visible:
        store_.setHidden(uuid, !value.toBool());
        break;
    case Notes:
        record->setNotes(value.toString().toStdString());
        break;
    default:
        return;
    }
    save({record}, false);
    emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
    if (column != Notes)
        emit recordsChanged();
}

Expected<void> RecordTableModel::setWindow(int row, float beginMilliseconds, float endMilliseconds,
                                           const std::string& type) {
    if (row < 0 || row >= rowCount())
        return makeUnexpected("There is no such record.");
    const auto& record = records_[static_cast<std::size_t>(row)];
    cli::RecordChanges changes;
    changes.windowBegin = beginMilliseconds;
    changes.windowEnd = endMilliseconds;
    changes.windowType = type;
    if (auto checked = changes.check(); !checked)
        return checked;
    if (auto checked = changes.checkWindow(*record, ""); !checked)
        return checked;
    // The window the changes make, worked out on the record and taken back until the step is done.
    const VELTWindow before = record->impulseResponseWindow();
    changes.apply(*record);
    const VELTWindow after = record->impulseResponseWindow();
    record->setImpulseResponseWindow(before);
    if (!(after == before))
        undoStack_.push(new SetWindowCommand(*this, record->impulseUUID(), before, after));
    return {};
}

void RecordTableModel::applyWindow(const std::string& uuid, const VELTWindow& window) {
    const int row = rowOf(uuid);
    if (row < 0)
        return;
    const auto& record = records_[static_cast<std::size_t>(row)];
    record->setImpulseResponseWindow(window);
    save({record}, false);
    emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
    emit recordsChanged();
}

Expected<void>
RecordTableModel::editRecord(int row, const QString& actionName,
                             const std::function<Expected<void>(VELTMeasurementRecord&)>& edit) {
    if (row < 0 || row >= rowCount())
        return makeUnexpected("There is no such record.");
    const auto& record = records_[static_cast<std::size_t>(row)];
    // The edit is made on a snapshot, so that a refused one leaves the record as it was.
    auto before = record->cachedCopy();
    auto after = record->cachedCopy();
    if (auto edited = edit(*after); !edited)
        return edited;
    if (archived(*before) != archived(*after))
        undoStack_.push(new SetRecordCommand(*this, record->impulseUUID(), before, after, actionName));
    return {};
}

Expected<void> RecordTableModel::changeRecord(int row, const cli::RecordChanges& changes,
                                              const QString& actionName) {
    if (auto checked = changes.check(); !checked)
        return checked;
    return editRecord(row, actionName, [&](VELTMeasurementRecord& record) -> Expected<void> {
        if (auto checked = changes.checkWindow(record, ""); !checked)
            return checked;
        changes.apply(record);
        return {};
    });
}

Expected<void> RecordTableModel::calibrateRecord(int row, const cli::CalibrationChange& calibration,
                                                 const QString& actionName) {
    return editRecord(row, actionName, [&](VELTMeasurementRecord& record) {
        return calibration.applyTo(record, fmt::format("Record {}", row + 1));
    });
}

void RecordTableModel::applySnapshot(const std::string& uuid, const VELTMeasurementRecord& snapshot) {
    const int row = rowOf(uuid);
    if (row < 0)
        return;
    const auto& record = records_[static_cast<std::size_t>(row)];
    snapshot.copyAttributesToMeasurementRecord(*record);
    save({record}, false);
    emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
    emit recordsChanged();
}

std::vector<std::string> RecordTableModel::order() const {
    std::vector<std::string> uuids;
    for (const auto& record : records_)
        uuids.push_back(record->impulseUUID());
    return uuids;
}

void RecordTableModel::moveRecords(std::vector<int> rows, int by) {
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    std::erase_if(rows, [this](int row) { return row < 0 || row >= rowCount(); });
    if (rows.empty() || (by != -1 && by != 1))
        return;
    std::vector<std::string> after = order();
    // Each row swaps with its neighbour, the nearest to the edge first; a row against the edge (or
    // against a row that could not move) stays where it is.
    std::vector<bool> moving(after.size(), false);
    for (int row : rows)
        moving[static_cast<std::size_t>(row)] = true;
    const int count = rowCount();
    for (int at = by < 0 ? 0 : count - 1; at >= 0 && at < count; at -= by) {
        const int to = at + by;
        if (moving[static_cast<std::size_t>(at)] && to >= 0 && to < count &&
            !moving[static_cast<std::size_t>(to)]) {
            std::swap(after[static_cast<std::size_t>(at)], after[static_cast<std::size_t>(to)]);
            moving[static_cast<std::size_t>(to)] = true;
            moving[static_cast<std::size_t>(at)] = false;
        }
    }
    if (after == order())
        return;
    const QString text = rows.size() == 1 ? tr("Move Record") : tr("Move Records");
    undoStack_.push(new OrderCommand(*this, order(), std::move(after), text));
}

void RecordTableModel::moveRecordsTo(std::vector<int> rows, int destination) {
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    std::erase_if(rows, [this](int row) { return row < 0 || row >= rowCount(); });
    const std::vector<std::string> before = order();
    std::vector<std::string> moved, after;
    for (int row = 0; row < rowCount(); ++row)
        (std::binary_search(rows.begin(), rows.end(), row) ? moved : after)
            .push_back(before[static_cast<std::size_t>(row)]);
    // The place among the rows that stay: after those that were above the destination.
    const auto above = std::count_if(rows.begin(), rows.end(), [&](int row) { return row < destination; });
    after.insert(after.begin() + (std::clamp(destination, 0, rowCount()) - above), moved.begin(),
                 moved.end());
    if (after == before)
        return;
    const QString text = rows.size() == 1 ? tr("Move Record") : tr("Move Records");
    undoStack_.push(new OrderCommand(*this, before, std::move(after), text));
}

bool RecordTableModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int,
                                    const QModelIndex& parent) {
    const QString format = mimeTypes().constFirst();
    if (action != Qt::MoveAction || !data || !data->hasFormat(format))
        return false;
    // The item models' own format: row, column and the item's roles, for each item dragged.
    QByteArray encoded = data->data(format);
    QDataStream stream(&encoded, QIODevice::ReadOnly);
    std::vector<int> rows;
    while (!stream.atEnd()) {
        int dragged = 0, column = 0;
        QMap<int, QVariant> roles;
        stream >> dragged >> column >> roles;
        rows.push_back(dragged);
    }
    // A drop on a row puts the records before it; below the last row, at the end.
    moveRecordsTo(rows, row >= 0 ? row : parent.isValid() ? parent.row() : rowCount());
    return false;
}

void RecordTableModel::applyOrder(const std::vector<std::string>& uuids) {
    if (auto ordered = store_.setRecordOrder(uuids); !ordered)
        return reportError(ordered.error());
    // The selection and the current row follow their records.
    emit layoutAboutToBeChanged();
    const QModelIndexList persistent = persistentIndexList();
    std::vector<std::string> held;
    for (const QModelIndex& index : persistent)
        held.push_back(records_[static_cast<std::size_t>(index.row())]->impulseUUID());
    std::stable_sort(records_.begin(), records_.end(), [&](const auto& left, const auto& right) {
        return std::find(uuids.begin(), uuids.end(), left->impulseUUID()) <
               std::find(uuids.begin(), uuids.end(), right->impulseUUID());
    });
    for (qsizetype at = 0; at < persistent.size(); ++at)
        changePersistentIndex(persistent[at],
                              index(rowOf(held[static_cast<std::size_t>(at)]), persistent[at].column()));
    emit layoutChanged();
    emit recordsChanged();
}

Expected<void> RecordTableModel::copyRecordsFrom(const RecordTableModel& source, std::vector<int> rows) {
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    // The source's records by their places in its document's listing.
    std::vector<std::size_t> indices;
    for (int row : rows) {
        if (row < 0 || row >= source.rowCount())
            return makeUnexpected("There is no such record.");
        const std::string& uuid = source.records_[static_cast<std::size_t>(row)]->impulseUUID();
        const auto& summaries = source.store_.summaries();
        const auto found = std::find_if(summaries.begin(), summaries.end(),
                                        [&](const RecordSummary& summary) { return summary.uuid == uuid; });
        if (found == summaries.end())
            return makeUnexpected("The record " + uuid + " is not stored in its document.");
        indices.push_back(static_cast<std::size_t>(found - summaries.begin()));
    }
    if (indices.empty())
        return {};
    auto copies = source.store_.storedCopies(indices);
    if (!copies)
        return std::unexpected(copies.error());
    // Messages name each record by its row in the source's window, which the document's listing
    // may not have caught up with after a deletion.
    for (std::size_t at = 0; at < copies->size(); ++at)
        (*copies)[at].number = static_cast<std::size_t>(rows[at]) + 1;
    if (auto written = store_.putCopies(*copies); !written)
        return written;
    // The copies are read back as this document holds them, with its own impulse cache.
    RecordsCommand::Rows added;
    for (const auto& copy : *copies)
        for (std::size_t index = 0; index < store_.summaries().size(); ++index)
            if (store_.summaries()[index].uuid == copy.summary.uuid) {
                auto record = store_.load(index);
                if (!record)
                    return std::unexpected(record.error());
                added.emplace_back(rowCount() + static_cast<int>(added.size()), std::move(*record));
            }
    const QString text = added.size() == 1 ? tr("Copy Record") : tr("Copy Records");
    undoStack_.push(new RecordsCommand(*this, std::move(added), true, text, true));
    return {};
}

void RecordTableModel::removeRecords(std::vector<int> rows) {
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    RecordsCommand::Rows taken;
    for (int row : rows)
        if (row >= 0 && row < rowCount())
            taken.emplace_back(row, records_[static_cast<std::size_t>(row)]);
    if (taken.empty())
        return;
    const QString text = taken.size() == 1 ? tr("Delete Record") : tr("Delete Records");
    undoStack_.push(new RecordsCommand(*this, std::move(taken), false, text));
}

void RecordTableModel::addRecords(std::vector<std::shared_ptr<VELTMeasurementRecord>> records,
                                  std::function<void(bool)> stored) {
    if (records.empty())
        return;
    std::erase_if(writes_, [](const std::future<void>& write) {
        return write.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    // Each impulse response is megabytes written through to the disk; the document serialises its
    // calls, so the worker is the only one to wait for it. What the worker reads of the records is
    // their impulse responses, which nothing changes.
    writes_.push_back(
        std::async(std::launch::async, [this, records = std::move(records), stored = std::move(stored),
                                        alive = std::weak_ptr<bool>(alive_)]() mutable {
            MeasurementDocument& document = store_.document();
            auto written = document.performBatch([&]() -> Expected<void> {
                for (const auto& record : records) {
                    auto impulse = record->cachedImpulseResponse();
                    if (!impulse)
                        return makeUnexpected("The record " + record->impulseUUID() +
                                              " has no impulse response to store.");
                    if (auto put = document.putImpulseResponse(record->impulseUUID(), impulse->span(),
                                                               record->sampleRate());
                        !put)
                        return put;
                }
                return {};
            });
            DispatchQueue::main().async([this, alive, records = std::move(records),
                                         stored = std::move(stored), written = std::move(written)]() mutable {
                if (auto living = alive.lock(); !living || !*living)
                    return;
                if (written) {
                    RecordsCommand::Rows rows;
                    for (auto& record : records)
                        rows.emplace_back(rowCount() + static_cast<int>(rows.size()), std::move(record));
                    undoStack_.push(
                        new RecordsCommand(*this, std::move(rows), true, tr("Add Measurement"), true));
                } else {
                    reportError(cli::documentError(path(), written.error()));
                }
                if (stored)
                    stored(written.has_value());
            });
        }));
}

std::shared_ptr<VELTMeasurementRecord> RecordTableModel::makeRecord(VELTRealVector impulseResponse,
                                                                    std::int64_t sampleRate) {
    return store_.makeRecord(std::move(impulseResponse), sampleRate);
}

void RecordTableModel::takeRecords(const std::vector<std::string>& uuids) {
    auto removed = store_.document().performBatch([&]() -> Expected<void> {
        for (const std::string& uuid : uuids)
            if (auto gone = store_.document().removeRecord(uuid); !gone)
                return std::unexpected(gone.error());
        return {};
    });
    if (!removed)
        return reportError(cli::documentError(path(), removed.error()));
    for (const std::string& uuid : uuids) {
        const int row = rowOf(uuid);
        if (row < 0)
            continue;
        beginRemoveRows({}, row, row);
        records_.erase(records_.begin() + row);
        endRemoveRows();
    }
    emit recordsChanged();
}

void RecordTableModel::insertRecords(
    const std::vector<std::pair<int, std::shared_ptr<VELTMeasurementRecord>>>& rows, bool withImpulses) {
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
    for (const auto& [row, record] : rows) {
        const int at = std::clamp(row, 0, rowCount());
        beginInsertRows({}, at, at);
        records_.insert(records_.begin() + at, record);
        endInsertRows();
        records.push_back(record);
    }
    // The impulse responses went with removed records, so they are written again from memory. The
    // records and their places are one write, which waits for the disk once.
    auto written = store_.document().performBatch([&]() -> Expected<void> {
        save(records, withImpulses);
        return store_.setRecordOrder(order());
    });
    if (!written)
        reportError(cli::documentError(path(), written.error()));
    emit recordsChanged();
}

int RecordTableModel::rowOf(const std::string& uuid) const {
    for (std::size_t row = 0; row < records_.size(); ++row)
        if (records_[row]->impulseUUID() == uuid)
            return static_cast<int>(row);
    return -1;
}

void RecordTableModel::save(const std::vector<std::shared_ptr<VELTMeasurementRecord>>& records,
                            bool withImpulses) {
    // The record store writes records as the command line does, so that each keeps what the other
    // writes (the visibility, the loop-back reference) whichever changes it next.
    std::vector<std::string> impulses;
    if (withImpulses)
        for (const auto& record : records)
            impulses.push_back(record->impulseUUID());
    if (auto written = store_.save(records, impulses); !written)
        reportError(written.error());
}

void RecordTableModel::reportError(const TavolarError& error) {
    QString message = QString::fromStdString(error.localizedDescription);
    if (!error.localizedRecoverySuggestion.empty())
        message += "\n" + QString::fromStdString(error.localizedRecoverySuggestion);
    emit errorOccurred(message);
}

} // namespace tavolar::desktop
