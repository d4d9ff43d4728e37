#pragma once
// Operations and operation queues: units of work with cancellation and dependencies, run by a queue
// at most a given number at a time. An operation becomes ready when every operation it depends on
// has finished, or when it is cancelled; a cancelled operation still finishes, without running its
// work. Operations are shared objects (make them with std::make_shared) and may depend on operations
// of other queues.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavolar {

class Operation : public std::enable_shared_from_this<Operation> {
public:
    Operation() = default;
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    virtual ~Operation() = default;

    // Asks the operation to stop: one that has not started finishes without running main(); a running
    // one sees isCancelled() and should return early.
    virtual void cancel();
    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }
    bool isExecuting() const noexcept { return state_.load(std::memory_order_acquire) == State::Executing; }
    bool isFinished() const noexcept { return state_.load(std::memory_order_acquire) == State::Finished; }
    // True when it may start: every dependency has finished, or it has been cancelled.
    bool isReady() const;

    void addDependency(std::shared_ptr<Operation> operation);
    void removeDependency(const std::shared_ptr<Operation>& operation);
    std::vector<std::shared_ptr<Operation>> dependencies() const;

    // Runs once the operation has finished, on the thread that ran it.
    void setCompletionBlock(std::function<void()> block);

    std::string name() const;
    void setName(std::string name);

    // Blocks until the operation has finished.
    void waitUntilFinished() const;

    // Runs the operation on the calling thread; it must be ready and not yet started.
    void start();

protected:
    // The work; runs at most once, and not at all when cancelled before it started.
    virtual void main() = 0;

private:
    friend class OperationQueue;
    enum class State { Pending, Executing, Finished };

    // Runs main() unless cancelled, then finishes and wakes whatever waits on this operation.
    void run();
    void notifyDependents();
    // Tells the queue the operation was added to, if any, that it may have become ready.
    void wakeQueue() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable finished_;
    std::atomic<State> state_{State::Pending};
    std::atomic<bool> cancelled_{false};
    std::vector<std::shared_ptr<Operation>> dependencies_;
    std::vector<std::weak_ptr<Operation>> dependents_;
    std::function<void()> completionBlock_;
    std::string name_;
    // The queue the operation was added to, told when the operation becomes ready.
    std::weak_ptr<void> queue_;
    bool enqueued_ = false;
};

// An operation that runs a function; the function may take the operation to watch isCancelled().
class BlockOperation final : public Operation {
public:
    explicit BlockOperation(std::function<void()> block);
    explicit BlockOperation(std::function<void(const Operation&)> block);

protected:
    void main() override;

private:
    std::function<void(const Operation&)> block_;
};

class OperationQueue {
public:
    // The width that means "as many as the machine has processors".
    static constexpr int kDefaultMaxConcurrentOperationCount = -1;

    explicit OperationQueue(std::string name = {});
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;
    // Cancels what has not started and waits for what is running.
    ~OperationQueue();

    const std::string& name() const noexcept;

    void addOperation(std::shared_ptr<Operation> operation);
    std::shared_ptr<Operation> addOperation(std::function<void()> block);
    void addOperations(const std::vector<std::shared_ptr<Operation>>& operations, bool waitUntilFinished);

    void cancelAllOperations();
    // Blocks until every operation added has finished (forever, while the queue is suspended with work).
    void waitUntilAllOperationsAreFinished();

    // The operations added that have not finished.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;

    int maxConcurrentOperationCount() const;
    // At least 1, or kDefaultMaxConcurrentOperationCount.
    void setMaxConcurrentOperationCount(int count);

    bool isSuspended() const;
    // A suspended queue starts no operation; running ones carry on.
    void setSuspended(bool suspended);

    // The number of processors, the width of a default queue.
    static int processorCount() noexcept;

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace tavolar
