#pragma once
// Undoable changes of a graph: one setting by key path, named by the graph's undo action names, and
// the extents as a whole for the view's gestures, where the steps of one drag merge into one; and a
// record's analysis window dragged by its edges on the impulse graph, one step however long the drag.

#include "GraphModel.h"
#include "RecordTableModel.h"

#include <QUndoCommand>

namespace tavolar::desktop {

class SetGraphValueCommand : public QUndoCommand {
public:
    SetGraphValueCommand(GraphModel& graph, std::string keyPath, double value);
    void redo() override;
    void undo() override;

private:
    GraphModel& graph_;
    std::string keyPath_;
    double old_, new_;
};

class SetGraphExtentsCommand : public QUndoCommand {
public:
    static constexpr int kId = 0x7e47;
    // gesture names one drag or one run of wheel steps; steps of the same gesture (not 0) merge.
    SetGraphExtentsCommand(GraphModel& graph, const VELTGraphExtents& extents, QString text, int gesture = 0);
    void redo() override;
    void undo() override;
    int id() const override { return kId; }
    bool mergeWith(const QUndoCommand* other) override;

private:
    GraphModel& graph_;
    VELTGraphExtents old_, new_;
    int gesture_;
};

class DragWindowCommand : public QUndoCommand {
public:
    static constexpr int kId = 0x7e48;
    // The record's window with one edge (0 its begin, 1 its end) moved to the time (ms from time
    // zero), the other edge and the taper kept; checked as the command line checks a window, so a
    // window that it would refuse gives the reason instead.
    static Expected<std::unique_ptr<DragWindowCommand>> make(RecordTableModel& document,
                                                             VELTMeasurementRecord& record, int edge,
                                                             double milliseconds, int gesture);
    void redo() override;
    void undo() override;
    int id() const override { return kId; }
    // Steps of the same drag of the same record's window are one step, from the window before the drag
    // to the last one.
    bool mergeWith(const QUndoCommand* other) override;

private:
    DragWindowCommand(RecordTableModel& document, std::string uuid, VELTWindow before, VELTWindow after,
                      int gesture);
    RecordTableModel& document_;
    std::string uuid_;
    VELTWindow before_, after_;
    int gesture_;
};

} // namespace tavolar::desktop
