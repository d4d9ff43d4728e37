#include "GraphCommands.h"

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

} // namespace tavolar::desktop
