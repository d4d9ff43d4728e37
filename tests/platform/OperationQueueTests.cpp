#include "platform/OperationQueue.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace tavolar {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<Operation> recording(std::mutex& mutex, std::vector<std::string>& order, std::string name) {
    return std::make_shared<BlockOperation>([&mutex, &order, name] {
        std::this_thread::sleep_for(1ms);
        std::lock_guard lock(mutex);
        order.push_back(name);
    });
}

TEST(OperationQueue, RunsAtMostItsWidthAtOnceAndAWidthOfOneInTheOrderAdded) {
    for (int width : {1, 2, 3}) {
        SCOPED_TRACE(width);
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(width);
        std::atomic<int> inside{0}, most{0};
        std::mutex mutex;
        std::vector<int> order;
        std::vector<std::shared_ptr<Operation>> operations;
        for (int i = 0; i < 12; ++i)
            operations.push_back(std::make_shared<BlockOperation>([&, i] {
                int now = ++inside, seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::sleep_for(2ms);
                --inside;
                std::lock_guard lock(mutex);
                order.push_back(i);
            }));
        queue.addOperations(operations, true);
        EXPECT_EQ(order.size(), 12u);
        EXPECT_LE(most.load(), width);
        if (width > 1)
            EXPECT_GT(most.load(), 1);
        else
            EXPECT_TRUE(std::ranges::is_sorted(order));
        queue.waitUntilAllOperationsAreFinished();
        EXPECT_EQ(queue.operationCount(), 0u);
    }
}

TEST(OperationQueue, DependenciesHoldOperationsBackWithinAndAcrossQueues) {
    OperationQueue first("first"), second("second");
    std::mutex mutex;
    std::vector<std::string> order;
    auto a = recording(mutex, order, "a"), b = recording(mutex, order, "b"), c = recording(mutex, order, "c"),
         d = recording(mutex, order, "d");
    // d after b and c; b after a (on another queue); c after a.
    d->addDependency(b);
    d->addDependency(c);
    b->addDependency(a);
    c->addDependency(a);
    EXPECT_FALSE(d->isReady());
    first.setSuspended(true);
    first.addOperation(d);
    first.addOperation(c);
    second.addOperation(b);
    first.addOperation(a);
    std::this_thread::sleep_for(5ms);
    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(order.empty()); // b waits for a, which waits for the suspended queue
    }
    first.setSuspended(false);
    d->waitUntilFinished();
    ASSERT_EQ(order.size(), 4u);
    EXPECT_EQ(order.front(), "a");
    EXPECT_EQ(order.back(), "d");
    EXPECT_TRUE(a->isFinished() && b->isFinished() && c->isFinished());

    // Outside a queue: removing the only dependency makes it ready, and it runs only once.
    auto lone = recording(mutex, order, "lone");
    auto other = recording(mutex, order, "other");
    lone->addDependency(other);
    lone->removeDependency(other);
    EXPECT_TRUE(lone->isReady());
    lone->start();
    EXPECT_EQ(order.back(), "lone");
}

TEST(OperationQueue, CancelledOperationsFinishWithoutRunningAndReleaseTheirDependents) {
    OperationQueue queue("cancelling");
    queue.setSuspended(true);
    std::atomic<int> ran{0};
    std::atomic<int> completions{0};
    auto cancelled = std::make_shared<BlockOperation>([&] { ran += 100; });
    auto blocked = std::make_shared<BlockOperation>([&] { ++ran; });
    auto neverFinishing = std::make_shared<BlockOperation>([] {});
    cancelled->setCompletionBlock([&] { ++completions; });
    blocked->setCompletionBlock([&] { ++completions; });
    blocked->addDependency(cancelled);
    auto waiting = std::make_shared<BlockOperation>([&] { ran += 1000; });
    waiting->addDependency(neverFinishing); // not in any queue: only cancelling makes it ready
    queue.addOperation(cancelled);
    queue.addOperation(blocked);
    queue.addOperation(waiting);
    EXPECT_EQ(queue.operationCount(), 3u);
    cancelled->cancel();
    waiting->cancel();
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 1);
    EXPECT_EQ(completions.load(), 2);
    EXPECT_TRUE(cancelled->isFinished() && waiting->isFinished());

    // A running operation sees its cancellation and stops early.
    std::atomic<bool> started{false};
    std::atomic<bool> sawCancel{false};
    auto longRunning = std::make_shared<BlockOperation>([&](const Operation& self) {
        started = true;
        for (int i = 0; i < 10000 && !self.isCancelled(); ++i)
            std::this_thread::sleep_for(1ms);
        sawCancel = self.isCancelled();
    });
    queue.addOperation(longRunning);
    while (!started)
        std::this_thread::yield();
    EXPECT_TRUE(longRunning->isExecuting());
    queue.cancelAllOperations();
    longRunning->waitUntilFinished();
    EXPECT_TRUE(sawCancel.load());
}

// A final operation added after the operations it depends on, as a background calculation uses the
// queue: the dependencies finish, and wake the final operation's queue, while it is being added.
// Repeated so that ThreadSanitizer sees the two meet.
TEST(OperationQueue, AFinalOperationAddedAfterItsDependenciesRunsLast) {
    OperationQueue queue("calculation");
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> finished{0};
        std::vector<std::shared_ptr<Operation>> parts;
        for (int i = 0; i < 4; ++i)
            parts.push_back(queue.addOperation([&] { ++finished; }));
        int seenByFinal = -1;
        auto final = std::make_shared<BlockOperation>([&] { seenByFinal = finished.load(); });
        for (const auto& part : parts)
            final->addDependency(part);
        // Every other round also holds it back by an operation that is never run, then lets it go.
        auto neverRun = std::make_shared<BlockOperation>([] {});
        if (round % 2)
            final->addDependency(neverRun);
        queue.addOperation(final);
        if (round % 2)
            final->removeDependency(neverRun);
        final->waitUntilFinished();
        ASSERT_EQ(seenByFinal, 4) << "round " << round;
    }
}

TEST(OperationQueue, DestroyingAQueueCancelsWhatHasNotStarted) {
    std::atomic<int> ran{0};
    std::shared_ptr<Operation> pending;
    {
        OperationQueue queue("short-lived");
        queue.setSuspended(true);
        pending = queue.addOperation([&] { ++ran; });
    }
    EXPECT_TRUE(pending->isCancelled());
    EXPECT_TRUE(pending->isFinished());
    EXPECT_EQ(ran.load(), 0);
}

} // namespace
} // namespace tavolar
