#pragma once
// Undoable changes of a graph: one setting by key path, named by the graph's undo action names, and
// the extents as a whole for the view's gestures, where the steps of one drag merge into one.

#include "GraphModel.h"

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

} // namespace tavolar::desktop
