#pragma once
// Undo without a toolkit: models register, for every change a user makes, the work that takes it
// back, under the name the Undo menu item shows. Hosts supply the manager: the desktop application
// maps it onto its undo stack, the command line and tests use InMemoryUndoManager.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tavolar {

class UndoManager {
public:
    virtual ~UndoManager() = default;

    // Records undo as the way back from the change just made; ignored while registration is disabled.
    virtual void registerUndo(std::string actionName, std::function<void()> undo) = 0;
    // Disabling nests: registration is enabled again after as many enables as disables.
    virtual void disableUndoRegistration() = 0;
    virtual void enableUndoRegistration() = 0;
    virtual bool isUndoRegistrationEnabled() const = 0;
};

// Keeps undo registration disabled for its lifetime (on a null manager it does nothing).
class UndoRegistrationDisabled {
public:
    explicit UndoRegistrationDisabled(UndoManager* manager) : manager_(manager) {
        if (manager_)
            manager_->disableUndoRegistration();
    }
    ~UndoRegistrationDisabled() {
        if (manager_)
            manager_->enableUndoRegistration();
    }
    UndoRegistrationDisabled(const UndoRegistrationDisabled&) = delete;
    UndoRegistrationDisabled& operator=(const UndoRegistrationDisabled&) = delete;

private:
    UndoManager* manager_;
};

// A stack of undo actions and one of redo actions. What an undo registers while it runs becomes the
// redo action, and what a redo registers the undo action again; a new change clears the redo stack.
class InMemoryUndoManager final : public UndoManager {
public:
    void registerUndo(std::string actionName, std::function<void()> undo) override;
    void disableUndoRegistration() override { ++disabled_; }
    void enableUndoRegistration() override;
    bool isUndoRegistrationEnabled() const override { return disabled_ == 0; }

    bool canUndo() const noexcept { return !undoStack_.empty(); }
    bool canRedo() const noexcept { return !redoStack_.empty(); }
    // The names of the actions that undo and redo would take back ("" when there is none).
    std::string undoActionName() const;
    std::string redoActionName() const;
    std::size_t undoCount() const noexcept { return undoStack_.size(); }

    // Each does nothing when its stack is empty.
    void undo();
    void redo();
    void removeAllActions();

private:
    struct Action {
        std::string name;
        std::function<void()> work;
    };
    enum class Phase { Normal, Undoing, Redoing };
    std::vector<Action> undoStack_;
    std::vector<Action> redoStack_;
    Phase phase_ = Phase::Normal;
    int disabled_ = 0;
};

} // namespace tavolar
