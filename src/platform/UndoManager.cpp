#include "platform/UndoManager.h"

#include "platform/Assertions.h"

#include <utility>

namespace tavolar {

void InMemoryUndoManager::registerUndo(std::string actionName, std::function<void()> undo) {
    if (disabled_ > 0 || !undo)
        return;
    Action action{std::move(actionName), std::move(undo)};
    switch (phase_) {
    case Phase::Undoing:
        redoStack_.push_back(std::move(action));
        return;
    case Phase::Redoing:
        undoStack_.push_back(std::move(action));
        return;
    case Phase::Normal:
        undoStack_.push_back(std::move(action));
        redoStack_.clear();
        return;
    }
}

void InMemoryUndoManager::enableUndoRegistration() {
    TAVOLAR_PARAMETER_ASSERT(disabled_ > 0);
    --disabled_;
}

std::string InMemoryUndoManager::undoActionName() const {
    return undoStack_.empty() ? std::string() : undoStack_.back().name;
}

std::string InMemoryUndoManager::redoActionName() const {
    return redoStack_.empty() ? std::string() : redoStack_.back().name;
}

namespace {

// Runs one action from the top of a stack in the given phase, restoring the previous phase after it
// (also when the action throws).
template <typename Action, typename Phase>
void runTop(std::vector<Action>& stack, Phase& phase, Phase during) {
    if (stack.empty())
        return;
    auto action = std::move(stack.back());
    stack.pop_back();
    const Phase previous = std::exchange(phase, during);
    struct Restore {
        Phase& phase;
        Phase previous;
        ~Restore() { phase = previous; }
    } restore{phase, previous};
    action.work();
}

} // namespace

void InMemoryUndoManager::undo() {
    runTop(undoStack_, phase_, Phase::Undoing);
}

void InMemoryUndoManager::redo() {
    runTop(redoStack_, phase_, Phase::Redoing);
}

void InMemoryUndoManager::removeAllActions() {
    undoStack_.clear();
    redoStack_.clear();
}

} // namespace tavolar
