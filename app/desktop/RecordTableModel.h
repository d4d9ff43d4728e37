#pragma once
// The records of one measurement document as a table: name, colour, visibility, date and notes.
// Every edit is written to the document as it is made; edits made through the undo stack (setData,
// removeRecords) can be undone, and the undo writes the document again.

#include "RecordChanges.h"
#include "RecordStore.h"
#include "graphcalc/GraphCalculationController.h"

#include <QAbstractTableModel>
#include <QColor>
#include <QUndoStack>
#include <QVariant>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavolar::desktop {

class RecordTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { Name, Colour, Visible, Date, Notes, ColumnCount };

    // Opens the document (creating it when create is set and there is no file) and reads its records.
    static Expected<std::unique_ptr<RecordTableModel>> open(const std::filesystem::path& path, bool create);
    ~RecordTableModel() override;

    const std::filesystem::path& path() const noexcept { return store_.path(); }
    QUndoStack& undoStack() noexcept { return undoStack_; }
    const std::vector<std::shared_ptr<VELTMeasurementRecord>>& records() const noexcept { return records_; }
    // The records drawn in graphs, in document order.
    RecordArray visibleRecords() const;
    bool isVisible(const VELTMeasurementRecord& record) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    // Edits go through the undo stack: name, colour (a QColor), visibility (check state) and notes.
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;

    // Sets the analysis window of the record at the row (begin and end in ms from time zero, the type
    // by name as the command line names it), checked as the command line checks it, as one undoable
    // step "Set Window"; an error says what is wrong with the window.
    Expected<void> setWindow(int row, float beginMilliseconds, float endMilliseconds,
                             const std::string& type);
    // What the undo command calls: gives the record with the UUID the window, written at once.
    void applyWindow(const std::string& uuid, const VELTWindow& window);

    // Changes the record at the row as tavolar set does (changes) or as tavolar calibrate does
    // (calibration), checked as they check it and refused with their messages, as one undoable step
    // with the action name given. A change that leaves the record as it was makes no step.
    Expected<void> changeRecord(int row, const cli::RecordChanges& changes, const QString& actionName);
    Expected<void> calibrateRecord(int row, const cli::CalibrationChange& calibration,
                                   const QString& actionName);
    // What the undo command calls: gives the record with the UUID the values of the snapshot (a
    // cachedCopy of it), written at once.
    void applySnapshot(const std::string& uuid, const VELTMeasurementRecord& snapshot);

    // Moves the rows one place up (by -1) or down (by 1) as one undoable step; a row at the edge
    // stays, and the rows next to it with it.
    void moveRecords(std::vector<int> rows, int by);
    // Moves the rows to just before the row destination (rowCount: to the end), as one undoable
    // step.
    void moveRecordsTo(std::vector<int> rows, int destination);
    // Rows dragged within the table are moved by moveRecordsTo; false tells the view that there is
    // nothing left for it to remove.
    Qt::DropActions supportedDropActions() const override { return Qt::MoveAction; }
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;
    // What the undo command calls: puts the records in the order of the UUIDs.
    void applyOrder(const std::vector<std::string>& uuids);
    // Copies the rows of another document into this one as tavolar copy does (the stored bytes, so
    // that nothing of them changes), refused as it refuses them, as one undoable step.
    Expected<void> copyRecordsFrom(const RecordTableModel& source, std::vector<int> rows);

    // Removes the rows as one undoable step.
    void removeRecords(std::vector<int> rows);
    // Adds newly measured records (their impulse responses still in memory) as one undoable step.
    // Their impulse responses are written to the document on a worker thread, so that the interface
    // does not wait for the disk; the records join the table once that is done, and stored is
    // called on the interface thread with whether they were.
    void addRecords(std::vector<std::shared_ptr<VELTMeasurementRecord>> records,
                    std::function<void(bool stored)> stored = {});
    // A record with its impulse response in this document's cache, for a new measurement.
    std::shared_ptr<VELTMeasurementRecord> makeRecord(VELTRealVector impulseResponse,
                                                      std::int64_t sampleRate);

    // The document's capture settings (the calibrations of the input channels), when it holds any.
    Expected<std::optional<VELTAudioCaptureSettings>> captureSettings() const {
        return store_.captureSettings();
    }

    // What the undo commands call: the value of a column for the record with the UUID, and setting
    // it (written to the document at once).
    QVariant field(const std::string& uuid, Column column) const;
    void applyField(const std::string& uuid, Column column, const QVariant& value);
    // Takes the records out of the document, or puts them back at their rows (ascending).
    void takeRecords(const std::vector<std::string>& uuids);
    // withImpulses false leaves out the impulse responses, when the document holds them already.
    void insertRecords(const std::vector<std::pair<int, std::shared_ptr<VELTMeasurementRecord>>>& rows,
                       bool withImpulses = true);

signals:
    // A write to the document failed; the message says what happened and what to do.
    void errorOccurred(const QString& message);
    // The visible records, their order or anything drawn of them changed.
    void recordsChanged();

private:
    explicit RecordTableModel(cli::RecordStore store);
    int rowOf(const std::string& uuid) const;
    void save(const std::vector<std::shared_ptr<VELTMeasurementRecord>>& records, bool withImpulses);
    void reportError(const TavolarError& error);
    Expected<void> editRecord(int row, const QString& actionName,
                              const std::function<Expected<void>(VELTMeasurementRecord&)>& edit);
    std::vector<std::string> order() const;

    cli::RecordStore store_;
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records_;
    QUndoStack undoStack_;
    // Writes still running on worker threads, waited for before the document closes.
    std::vector<std::future<void>> writes_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavolar::desktop
