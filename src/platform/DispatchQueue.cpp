#include "platform/DispatchQueue.h"

#include "platform/Assertions.h"
#include "platform/Logging.h"
#include "platform/ThreadCache.h"
#include "platform/RunLoop.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <fmt/format.h>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace tavolar {

namespace {

// The process's initial thread: this is initialised before main runs.
const std::thread::id gMainThread = std::this_thread::get_id();

// How long an idle serial-queue thread waits for more work before it ends.
constexpr auto kIdleLinger = std::chrono::milliseconds(200);

// What the current thread is running: the queue of the current item and, for an item run by sync,
// the context of the thread that waits for it. Walking the chain finds syncs that would never return.
struct Context {
    const DispatchQueue::Impl* queue;
    const Context* caller;
};

thread_local const Context* tCurrent = nullptr;

bool chainContains(const Context* context, const DispatchQueue::Impl* queue) {
    for (; context; context = context->caller) {
        if (context->queue == queue)
            return true;
    }
    return false;
}

struct Pending {
    DispatchQueue::WorkItem work;
    const Context* caller = nullptr;
};

} // namespace

struct DispatchQueue::Impl {
    enum class Kind { Serial, Concurrent, Main };

    Impl(std::string label, Kind kind) : label(std::move(label)), kind(kind) {}

    const std::string label;
    const Kind kind;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Pending> items;
    bool workerRunning = false;
    bool stopRequested = false; // main queue: RunLoop::stop
};

namespace {

using Impl = DispatchQueue::Impl;

// Runs one item as part of queue. An exception escaping async work has nobody to go to: it is logged
// and the queue carries on.
void runItem(const Impl& queue, Pending& item) {
    Context context{&queue, item.caller};
    const Context* saved = tCurrent;
    tCurrent = &context;
    try {
        item.work();
    } catch (const std::exception& exception) {
        logError(__FILE__,
                 fmt::format("Uncaught exception in work on queue {}: {}", queue.label, exception.what()));
    } catch (...) {
        logError(__FILE__, fmt::format("Uncaught exception in work on queue {}", queue.label));
    }
    tCurrent = saved;
}

// The shared pool behind the global queue. It is never destroyed: work may still be running when
// static destructors run, and idle threads simply end with the process.
class Pool {
public:
    static Pool& shared() {
        static Pool* pool = new Pool;
        return *pool;
    }

    std::size_t width() const noexcept { return width_; }

    void submit(std::function<void()> task) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
            if (threads_ < width_ && tasks_.size() > idle_) {
                std::thread([this] { work(); }).detach();
                ++threads_;
            }
        }
        wake_.notify_one();
    }

private:
    Pool() : width_(std::max<std::size_t>(4, std::thread::hardware_concurrency())) {}

    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait(lock, [this] { return !tasks_.empty(); });
            --idle_;
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    const std::size_t width_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
};

const std::shared_ptr<Impl>& globalImpl() {
    static auto* impl =
        new std::shared_ptr<Impl>(std::make_shared<Impl>("com.tavolar.global", Impl::Kind::Concurrent));
    return *impl;
}

const std::shared_ptr<Impl>& mainImpl() {
    static auto* impl =
        new std::shared_ptr<Impl>(std::make_shared<Impl>("com.tavolar.main", Impl::Kind::Main));
    return *impl;
}

void serialWorker(std::shared_ptr<Impl> queue) {
    std::unique_lock lock(queue->mutex);
    for (;;) {
        if (queue->items.empty() &&
            !queue->wake.wait_for(lock, kIdleLinger, [&] { return !queue->items.empty(); })) {
            queue->workerRunning = false;
            return;
        }
        Pending item = std::move(queue->items.front());
        queue->items.pop_front();
        lock.unlock();
        runItem(*queue, item);
        lock.lock();
    }
}

void enqueue(const std::shared_ptr<Impl>& queue, Pending item) {
    switch (queue->kind) {
    case Impl::Kind::Concurrent: {
        auto shared = std::make_shared<Pending>(std::move(item));
        Pool::shared().submit([queue, shared] { runItem(*queue, *shared); });
        return;
    }
    case Impl::Kind::Main: {
        std::lock_guard lock(queue->mutex);
        queue->items.push_back(std::move(item));
        queue->wake.notify_all();
        return;
    }
    case Impl::Kind::Serial: {
        std::lock_guard lock(queue->mutex);
        queue->items.push_back(std::move(item));
        if (queue->workerRunning) {
            queue->wake.notify_one();
        } else {
            queue->workerRunning = true;
            runDetached([queue] { serialWorker(queue); });
        }
        return;
    }
    }
}

// Timers for asyncAfter: one thread, started on first use, never destroyed.
class Timers {
public:
    static Timers& shared() {
        static Timers* timers = new Timers;
        return *timers;
    }

    void add(DispatchQueue::Clock::time_point deadline, std::shared_ptr<Impl> queue,
             DispatchQueue::WorkItem work) {
        std::lock_guard lock(mutex_);
        pending_.emplace(deadline, Entry{std::move(queue), std::move(work)});
        if (!started_) {
            started_ = true;
            std::thread([this] { run(); }).detach();
        }
        wake_.notify_one();
    }

private:
    struct Entry {
        std::shared_ptr<Impl> queue;
        DispatchQueue::WorkItem work;
    };

    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (pending_.empty()) {
                wake_.wait(lock);
                continue;
            }
            auto first = pending_.begin();
            if (DispatchQueue::Clock::now() < first->first) {
                wake_.wait_until(lock, first->first);
                continue;
            }
            Entry entry = std::move(first->second);
            pending_.erase(first);
            lock.unlock();
            enqueue(entry.queue, Pending{std::move(entry.work), nullptr});
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::multimap<DispatchQueue::Clock::time_point, Entry> pending_;
    bool started_ = false;
};

} // namespace

bool isMainThread() noexcept {
    return std::this_thread::get_id() == gMainThread;
}

DispatchQueue::DispatchQueue(std::string label)
    : impl_(std::make_shared<Impl>(std::move(label), Impl::Kind::Serial)) {}

DispatchQueue DispatchQueue::global() {
    return DispatchQueue(globalImpl());
}

DispatchQueue DispatchQueue::main() {
    return DispatchQueue(mainImpl());
}

const std::string& DispatchQueue::label() const noexcept {
    return impl_->label;
}

bool DispatchQueue::isSerial() const noexcept {
    return impl_->kind != Impl::Kind::Concurrent;
}

void DispatchQueue::async(WorkItem work) const {
    TAVOLAR_PARAMETER_ASSERT(work != nullptr);
    enqueue(impl_, Pending{std::move(work), nullptr});
}

void DispatchQueue::sync(const WorkItem& work) const {
    TAVOLAR_PARAMETER_ASSERT(work != nullptr);
    if (impl_->kind == Impl::Kind::Concurrent) {
        Context context{impl_.get(), tCurrent};
        const Context* saved = tCurrent;
        tCurrent = &context;
        try {
            work();
        } catch (...) {
            tCurrent = saved;
            throw;
        }
        tCurrent = saved;
        return;
    }
    if (impl_->kind == Impl::Kind::Main) {
        TAVOLAR_ASSERT(!isMainThread(), "sync on the main queue from the main thread would never return");
    } else {
        TAVOLAR_ASSERT(
            !chainContains(tCurrent, impl_.get()),
            fmt::format("sync on queue {} from work running on it would never return", impl_->label));
    }
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::exception_ptr exception;
    enqueue(impl_, Pending{[&] {
                               try {
                                   work();
                               } catch (...) {
                                   exception = std::current_exception();
                               }
                               // Notified under the lock: the waiter destroys the condition variable as
                               // soon as it sees done.
                               std::lock_guard lock(mutex);
                               done = true;
                               finished.notify_one();
                           },
                           tCurrent});
    std::unique_lock lock(mutex);
    finished.wait(lock, [&] { return done; });
    if (exception)
        std::rethrow_exception(exception);
}

void DispatchQueue::asyncAfter(Clock::duration delay, WorkItem work) const {
    TAVOLAR_PARAMETER_ASSERT(work != nullptr);
    Timers::shared().add(Clock::now() + delay, impl_, std::move(work));
}

bool DispatchQueue::isCurrent() const {
    if (impl_->kind == Impl::Kind::Main)
        return isMainThread();
    return tCurrent && tCurrent->queue == impl_.get();
}

void DispatchQueue::concurrentPerform(std::size_t iterations, const std::function<void(std::size_t)>& body) {
    if (iterations == 0)
        return;
    // Helpers share this state, so a helper that starts after the caller has returned finds nothing to
    // do and touches nothing of the caller's.
    struct Shared {
        std::size_t iterations;
        const std::function<void(std::size_t)>* body;
        std::atomic<std::size_t> next{0};
        std::mutex mutex;
        std::condition_variable allDone;
        std::size_t completed = 0;
        std::exception_ptr exception;
        std::atomic<bool> failed{false};
    };
    auto shared = std::make_shared<Shared>();
    shared->iterations = iterations;
    shared->body = &body;
    auto work = [](const std::shared_ptr<Shared>& state) {
        for (;;) {
            std::size_t index = state->next.fetch_add(1);
            if (index >= state->iterations)
                return;
            if (!state->failed.load()) {
                try {
                    (*state->body)(index);
                } catch (...) {
                    std::lock_guard lock(state->mutex);
                    if (!state->exception)
                        state->exception = std::current_exception();
                    state->failed.store(true);
                }
            }
            std::lock_guard lock(state->mutex);
            if (++state->completed == state->iterations)
                state->allDone.notify_all();
        }
    };
    std::size_t helpers = std::min(iterations - 1, Pool::shared().width());
    for (std::size_t i = 0; i < helpers; ++i)
        Pool::shared().submit([shared, work] {
            Pending item{[&] { work(shared); }, nullptr};
            runItem(*globalImpl(), item);
        });
    work(shared);
    std::unique_lock lock(shared->mutex);
    shared->allDone.wait(lock, [&] { return shared->completed == shared->iterations; });
    if (shared->exception)
        std::rethrow_exception(shared->exception);
}

// ---- RunLoop

namespace {

constexpr auto kPredicatePoll = std::chrono::milliseconds(5);

void assertMainThread() {
    TAVOLAR_ASSERT(isMainThread(), "The main run loop runs only on the main thread");
}

} // namespace

std::size_t RunLoop::runOnce(Clock::duration timeout) {
    assertMainThread();
    Impl& queue = *mainImpl();
    std::deque<Pending> ready;
    {
        std::unique_lock lock(queue.mutex);
        queue.wake.wait_for(lock, timeout, [&] { return !queue.items.empty(); });
        ready.swap(queue.items);
    }
    for (Pending& item : ready)
        runItem(queue, item);
    return ready.size();
}

bool RunLoop::runUntil(const std::function<bool()>& predicate, Clock::duration timeout) {
    assertMainThread();
    Impl& queue = *mainImpl();
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (predicate())
            return true;
        auto now = Clock::now();
        if (now >= deadline)
            return false;
        Pending item;
        {
            std::unique_lock lock(queue.mutex);
            auto until = std::min(deadline, now + kPredicatePoll);
            if (!queue.wake.wait_until(lock, until, [&] { return !queue.items.empty(); }))
                continue;
            item = std::move(queue.items.front());
            queue.items.pop_front();
        }
        runItem(queue, item);
    }
}

void RunLoop::run() {
    assertMainThread();
    Impl& queue = *mainImpl();
    for (;;) {
        Pending item;
        {
            std::unique_lock lock(queue.mutex);
            queue.wake.wait(lock, [&] { return !queue.items.empty() || queue.stopRequested; });
            if (queue.stopRequested) {
                queue.stopRequested = false;
                return;
            }
            item = std::move(queue.items.front());
            queue.items.pop_front();
        }
        runItem(queue, item);
    }
}

void RunLoop::stop() {
    Impl& queue = *mainImpl();
    std::lock_guard lock(queue.mutex);
    queue.stopRequested = true;
    queue.wake.notify_all();
}

} // namespace tavolar
