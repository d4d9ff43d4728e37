#include "GraphCommands.h"

#include "RecordChanges.h"

namespace tavolar::desktop {

SetGraphValueCommand::SetGraphValueCommand(GraphModel& graph, std::string keyPath, double value)
    : QUndoCommand(graph.undoActionName(keyPath)), graph_(graph), keyPath_(std::move(keyPath)),
      old_(graph.value(keyPath_)), new_(value) {}

void SetGraphValueCommand::redo() {
    graph_.setValue(keyPath_, new_);
}

void SetGraphValueCommand::undo() {
    graph_.setValue(keyPath_, old_);
}

SetGraphExtentsCommand::SetGraphExtentsCommand(GraphModel& graph, const VELTGraphExtents& extents,
                                               QString text, int gesture)
    : QUndoCommand(std::move(text)), graph_(graph), old_(graph.extents()), new_(extents), gesture_(gesture) {}

void SetGraphExtentsCommand::redo() {
    graph_.setExtents(new_);
}

void SetGraphExtentsCommand::undo() {
    graph_.setExtents(old_);
}

bool SetGraphExtentsCommand::mergeWith(const QUndoCommand* other) {
    const auto* next = static_cast<const SetGraphExtentsCommand*>(other);
    if (gesture_ == 0 || next->gesture_ != gesture_ || &next->graph_ != &graph_)
        return false;
    new_ = next->new_;
    return true;
}

Expected<std::unique_ptr<DragWindowCommand>> DragWindowCommand::make(RecordTableModel& document,
                                                                     VELTMeasurementRecord& record, int edge,
                                                                     double milliseconds, int gesture) {
    cli::RecordChanges changes;
    (edge == 0 ? changes.windowBegin : changes.windowEnd) = static_cast<float>(milliseconds);
    if (auto checked = changes.check(); !checked)
        return std::unexpected(checked.error());
    if (auto checked = changes.checkWindow(record, ""); !checked)
        return std::unexpected(checked.error());
    // The window the changes make, worked out on the record and taken back until the step is done.
    const VELTWindow before = record.impulseResponseWindow();
    changes.apply(record);
    const VELTWindow after = record.impulseResponseWindow();
    record.setImpulseResponseWindow(before);
    return std::unique_ptr<DragWindowCommand>(
        new DragWindowCommand(document, record.impulseUUID(), before, after, gesture));
}

DragWindowCommand::DragWindowCommand(RecordTableModel& document, std::string uuid, VELTWindow before,
                                     VELTWindow after, int gesture)
    : QUndoCommand(QObject::tr("Set Window")), document_(document), uuid_(std::move(uuid)), before_(before),
      after_(after), gesture_(gesture) {}

void DragWindowCommand::redo() {
    document_.applyWindow(uuid_, after_);
}

void DragWindowCommand::undo() {
    document_.applyWindow(uuid_, before_);
}

bool DragWindowCommand::mergeWith(const QUndoCommand* other) {
    const auto* next = static_cast<const DragWindowCommand*>(other);
    if (gesture_ == 0 || next->gesture_ != gesture_ || next->uuid_ != uuid_ || &next->document_ != &document_)
        return false;
    after_ = next->after_;
    // A drag that comes back to where it began leaves nothing to undo.
    if (after_ == before_)
        setObsolete(true);
    return true;
}

} // namespace tavolar::desktop
