#include "platform/OperationQueue.h"

#include "platform/Assertions.h"
#include "platform/Logging.h"
#include "platform/ThreadCache.h"

#include <algorithm>
#include <deque>
#include <fmt/format.h>
#include <thread>

namespace tavolar {

// Each queue runs its operations on threads of its own, as many as its width, started when work
// arrives and ended after a short idle time; so an operation that blocks never starves another queue.
struct OperationQueue::State : std::enable_shared_from_this<OperationQueue::State> {
    explicit State(std::string name) : name(std::move(name)) {}

    const std::string name;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Operation>> pending;
    std::vector<std::shared_ptr<Operation>> running;
    int maximumCount = kDefaultMaxConcurrentOperationCount;
    bool suspended = false;
    std::size_t workers = 0;
    std::size_t idleWorkers = 0;

    std::size_t width() const {
        return static_cast<std::size_t>(maximumCount == kDefaultMaxConcurrentOperationCount ? processorCount()
                                                                                            : maximumCount);
    }

    // Starts a worker when there is work no idle worker will pick up. Called under the lock.
    void startWorkersIfNeeded() {
        if (suspended || pending.empty())
            return;
        std::size_t wanted = std::min(width(), running.size() + pending.size());
        while (workers < wanted && idleWorkers < pending.size()) {
            runDetached([self = shared_from_this()] { self->work(); });
            ++workers;
            ++idleWorkers; // counted idle until it takes an operation
        }
        changed.notify_all();
    }

    // The first ready operation, taken out of the pending list; nullptr when none may start now.
    std::shared_ptr<Operation> takeReady() {
        if (suspended || running.size() >= width())
            return nullptr;
        auto found =
            std::find_if(pending.begin(), pending.end(),
                         [](const std::shared_ptr<Operation>& operation) { return operation->isReady(); });
        if (found == pending.end())
            return nullptr;
        std::shared_ptr<Operation> operation = std::move(*found);
        pending.erase(found);
        return operation;
    }

    void work() {
        constexpr auto kIdleLinger = std::chrono::milliseconds(200);
        std::unique_lock lock(mutex);
        for (;;) {
            std::shared_ptr<Operation> operation;
            bool woken =
                changed.wait_for(lock, kIdleLinger, [&] { return (operation = takeReady()) != nullptr; });
            if (!woken) {
                --idleWorkers;
                --workers;
                changed.notify_all();
                return;
            }
            --idleWorkers;
            running.push_back(operation);
            lock.unlock();
            operation->run();
            lock.lock();
            std::erase(running, operation);
            ++idleWorkers;
            // A finished operation frees a slot and may make others ready.
            startWorkersIfNeeded();
            changed.notify_all();
        }
    }

    void wake() {
        std::lock_guard lock(mutex);
        startWorkersIfNeeded();
        changed.notify_all();
    }
};

// ---- Operation

void Operation::cancel() {
    cancelled_.store(true, std::memory_order_release);
    // Cancelling makes a waiting operation ready.
    wakeQueue();
}

void Operation::wakeQueue() const {
    // The queue is set by addOperation on another thread, so it is read under the lock; the queue's
    // own lock is taken only after this one is released, as everywhere else.
    std::weak_ptr<void> weakQueue;
    {
        std::lock_guard lock(mutex_);
        weakQueue = queue_;
    }
    if (auto queue = std::static_pointer_cast<OperationQueue::State>(weakQueue.lock()))
        queue->wake();
}

bool Operation::isReady() const {
    if (isCancelled())
        return true;
    std::lock_guard lock(mutex_);
    return std::all_of(dependencies_.begin(), dependencies_.end(),
                       [](const std::shared_ptr<Operation>& dependency) { return dependency->isFinished(); });
}

void Operation::addDependency(std::shared_ptr<Operation> operation) {
    TAVOLAR_PARAMETER_ASSERT(operation != nullptr && operation.get() != this);
    {
        std::lock_guard lock(mutex_);
        dependencies_.push_back(operation);
    }
    std::lock_guard lock(operation->mutex_);
    operation->dependents_.push_back(weak_from_this());
}

void Operation::removeDependency(const std::shared_ptr<Operation>& operation) {
    {
        std::lock_guard lock(mutex_);
        std::erase(dependencies_, operation);
    }
    wakeQueue();
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
    std::lock_guard lock(mutex_);
    return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
    std::lock_guard lock(mutex_);
    completionBlock_ = std::move(block);
}

std::string Operation::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void Operation::setName(std::string name) {
    std::lock_guard lock(mutex_);
    name_ = std::move(name);
}

void Operation::waitUntilFinished() const {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return isFinished(); });
}

void Operation::start() {
    {
        std::lock_guard lock(mutex_);
        TAVOLAR_PARAMETER_ASSERT(!enqueued_);
    }
    TAVOLAR_PARAMETER_ASSERT(isReady());
    run();
}

void Operation::run() {
    State expected = State::Pending;
    TAVOLAR_ASSERT(state_.compare_exchange_strong(expected, State::Executing), "An operation runs only once");
    if (!isCancelled()) {
        try {
            main();
        } catch (const std::exception& exception) {
            logError(__FILE__,
                     fmt::format("Uncaught exception in operation {}: {}", name(), exception.what()));
        } catch (...) {
            logError(__FILE__, fmt::format("Uncaught exception in operation {}", name()));
        }
    }
    std::function<void()> completion;
    {
        std::lock_guard lock(mutex_);
        state_.store(State::Finished, std::memory_order_release);
        completion = std::move(completionBlock_);
        finished_.notify_all();
    }
    if (completion) {
        try {
            completion();
        } catch (const std::exception& exception) {
            logError(__FILE__, fmt::format("Uncaught exception in completion of operation {}: {}", name(),
                                           exception.what()));
        }
    }
    notifyDependents();
}

void Operation::notifyDependents() {
    std::vector<std::weak_ptr<Operation>> dependents;
    {
        std::lock_guard lock(mutex_);
        dependents.swap(dependents_);
    }
    for (const auto& weak : dependents) {
        if (auto dependent = weak.lock())
            dependent->wakeQueue();
    }
}

BlockOperation::BlockOperation(std::function<void()> block) {
    TAVOLAR_PARAMETER_ASSERT(block != nullptr);
    block_ = [block = std::move(block)](const Operation&) { block(); };
}

BlockOperation::BlockOperation(std::function<void(const Operation&)> block) : block_(std::move(block)) {
    TAVOLAR_PARAMETER_ASSERT(block_ != nullptr);
}

void BlockOperation::main() {
    block_(*this);
}

// ---- OperationQueue

OperationQueue::OperationQueue(std::string name) : state_(std::make_shared<State>(std::move(name))) {}

OperationQueue::~OperationQueue() {
    cancelAllOperations();
    setSuspended(false);
    waitUntilAllOperationsAreFinished();
}

const std::string& OperationQueue::name() const noexcept {
    return state_->name;
}

int OperationQueue::processorCount() noexcept {
    return static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    TAVOLAR_PARAMETER_ASSERT(operation != nullptr);
    {
        std::lock_guard lock(operation->mutex_);
        TAVOLAR_PARAMETER_ASSERT(!operation->enqueued_ && !operation->isFinished() &&
                                 !operation->isExecuting());
        operation->enqueued_ = true;
        operation->queue_ = state_;
    }
    std::lock_guard lock(state_->mutex);
    state_->pending.push_back(std::move(operation));
    state_->startWorkersIfNeeded();
}

std::shared_ptr<Operation> OperationQueue::addOperation(std::function<void()> block) {
    auto operation = std::make_shared<BlockOperation>(std::move(block));
    addOperation(operation);
    return operation;
}

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
    for (const auto& operation : operations)
        addOperation(operation);
    if (waitUntilFinished) {
        for (const auto& operation : operations)
            operation->waitUntilFinished();
    }
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations())
        operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(lock, [this] { return state_->pending.empty() && state_->running.empty(); });
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::lock_guard lock(state_->mutex);
    std::vector<std::shared_ptr<Operation>> result(state_->running.begin(), state_->running.end());
    result.insert(result.end(), state_->pending.begin(), state_->pending.end());
    return result;
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->running.size() + state_->pending.size();
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->maximumCount;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    TAVOLAR_PARAMETER_ASSERT(count >= 1 || count == kDefaultMaxConcurrentOperationCount);
    std::lock_guard lock(state_->mutex);
    state_->maximumCount = count;
    state_->startWorkersIfNeeded();
}

bool OperationQueue::isSuspended() const {
    std::lock_guard lock(state_->mutex);
    return state_->suspended;
}

void OperationQueue::setSuspended(bool suspended) {
    std::lock_guard lock(state_->mutex);
    state_->suspended = suspended;
    state_->startWorkersIfNeeded();
}

} // namespace tavolar
