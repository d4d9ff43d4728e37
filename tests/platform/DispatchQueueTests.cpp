#include "platform/DispatchQueue.h"
#include "platform/Logging.h"
#include "platform/RunLoop.h"

#include <atomic>
#include <condition_variable>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <numeric>
#include <thread>

namespace tavolar {
namespace {

using namespace std::chrono_literals;

// Waits for count to reach target, for at most a generous time, so a fault fails instead of hanging.
bool waitFor(std::atomic<int>& count, int target) {
    for (int i = 0; i < 10000 && count.load() < target; ++i)
        std::this_thread::sleep_for(1ms);
    return count.load() >= target;
}

TEST(DispatchQueue, SerialQueueRunsItemsOneAtATimeInOrder) {
    DispatchQueue queue("com.tavolar.test.serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> producers;
    // Four threads add items; each thread's items must keep their relative order.
    for (int producer = 0; producer < 4; ++producer)
        producers.emplace_back([&, producer] {
            for (int i = 0; i < 250; ++i)
                queue.async([&, value = producer * 1000 + i] {
                    if (inside.fetch_add(1) != 0)
                        ++overlaps;
                    order.push_back(value);
                    inside.fetch_sub(1);
                });
        });
    for (auto& thread : producers)
        thread.join();
    std::vector<int> seen;
    queue.sync([&] { seen = order; });
    ASSERT_EQ(seen.size(), 1000u);
    EXPECT_EQ(overlaps.load(), 0);
    std::array<int, 4> last{-1, -1, -1, -1};
    for (int value : seen) {
        int producer = value / 1000;
        EXPECT_GT(value % 1000, last[producer]);
        last[producer] = value % 1000;
    }
}

TEST(DispatchQueue, SyncRunsOnTheQueueReturnsItsEffectsAndRethrows) {
    DispatchQueue queue("com.tavolar.test.sync");
    bool wasCurrent = false;
    std::thread::id runner;
    queue.sync([&] {
        wasCurrent = queue.isCurrent();
        runner = std::this_thread::get_id();
    });
    EXPECT_TRUE(wasCurrent);
    EXPECT_NE(runner, std::this_thread::get_id());
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("inside"); }), std::runtime_error);

    // A sync issued after asyncs runs after them.
    std::vector<int> order;
    for (int i = 0; i < 50; ++i)
        queue.async([&, i] { order.push_back(i); });
    queue.sync([&] { order.push_back(50); });
    std::vector<int> expected(51);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);

    // The global queue runs sync work on the caller.
    std::thread::id globalRunner;
    DispatchQueue::global().sync([&] { globalRunner = std::this_thread::get_id(); });
    EXPECT_EQ(globalRunner, std::this_thread::get_id());
}

TEST(DispatchQueue, GlobalQueueRunsItemsConcurrently) {
    // Two items that each wait for the other can only finish when they run at the same time.
    std::atomic<int> arrived{0};
    std::atomic<int> finished{0};
    for (int i = 0; i < 2; ++i)
        DispatchQueue::global().async([&] {
            ++arrived;
            if (waitFor(arrived, 2))
                ++finished;
        });
    EXPECT_TRUE(waitFor(finished, 2));
}

TEST(DispatchQueue, WorkOutlivesTheLastHandleAndEscapedExceptionsAreLogged) {
    setSystemLogEnabled(false);
    LogCapture capture;
    std::atomic<int> ran{0};
    {
        DispatchQueue queue("com.tavolar.test.dropped");
        queue.async([] { throw std::runtime_error("lost work"); });
        for (int i = 0; i < 10; ++i)
            queue.async([&] {
                std::this_thread::sleep_for(1ms);
                ++ran;
            });
    }
    EXPECT_TRUE(waitFor(ran, 10));
    EXPECT_TRUE(capture.contains("(ERROR) DispatchQueue.cpp : Uncaught exception in work on queue "
                                 "com.tavolar.test.dropped: lost work"));
    setSystemLogEnabled(true);
}

TEST(DispatchQueue, MainQueueRunsOnlyWhenTheRunLoopIsDriven) {
    ASSERT_TRUE(isMainThread());
    RunLoop::runOnce(); // whatever earlier tests left behind
    std::vector<int> order;
    std::atomic<bool> posted{false};
    std::thread poster([&] {
        for (int i = 0; i < 5; ++i)
            DispatchQueue::main().async([&, i] {
                EXPECT_TRUE(isMainThread());
                EXPECT_TRUE(DispatchQueue::main().isCurrent());
                order.push_back(i);
            });
        posted = true;
    });
    poster.join();
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(RunLoop::runOnce(), 5u);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(RunLoop::runOnce(), 0u);

    // An item added by an item waits for the next pass.
    DispatchQueue::main().async([&] { DispatchQueue::main().async([&] { order.push_back(6); }); });
    EXPECT_EQ(RunLoop::runOnce(), 1u);
    EXPECT_EQ(RunLoop::runOnce(), 1u);
    EXPECT_EQ(order.back(), 6);

    // sync on the main queue from another thread waits for the run loop.
    std::atomic<bool> syncReturned{false};
    int fromMain = 0;
    std::thread worker([&] {
        DispatchQueue::main().sync([&] { fromMain = 42; });
        syncReturned = true;
    });
    EXPECT_TRUE(RunLoop::runUntil([&] { return syncReturned.load(); }, 10s));
    worker.join();
    EXPECT_EQ(fromMain, 42);

    // runUntil gives up after its timeout when nothing makes the predicate true.
    EXPECT_FALSE(RunLoop::runUntil([] { return false; }, 20ms));

    // run() until an item stops it.
    DispatchQueue::main().async([&] { order.push_back(7); });
    DispatchQueue::main().async([] { RunLoop::stop(); });
    RunLoop::run();
    EXPECT_EQ(order.back(), 7);
}

TEST(DispatchQueue, AsyncAfterRunsInDeadlineOrderNoEarlierThanAsked) {
    RunLoop::runOnce();
    std::vector<int> order;
    auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration firstRanAfter{};
    DispatchQueue::main().asyncAfter(60ms, [&] { order.push_back(60); });
    DispatchQueue::main().asyncAfter(20ms, [&] {
        firstRanAfter = std::chrono::steady_clock::now() - start;
        order.push_back(20);
    });
    DispatchQueue::main().asyncAfter(40ms, [&] { order.push_back(40); });
    EXPECT_TRUE(RunLoop::runUntil([&] { return order.size() == 3; }, 10s));
    EXPECT_EQ(order, (std::vector<int>{20, 40, 60}));
    EXPECT_GE(firstRanAfter, 20ms);

    DispatchQueue serial("com.tavolar.test.later");
    std::atomic<int> ran{0};
    serial.asyncAfter(1ms, [&] { ran += serial.isCurrent() ? 1 : 100; });
    EXPECT_TRUE(waitFor(ran, 1));
    EXPECT_EQ(ran.load(), 1);
}

TEST(DispatchQueue, ConcurrentPerformVisitsEveryIndexOnceAndRethrows) {
    for (std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{1000}}) {
        std::vector<std::atomic<int>> visits(count);
        DispatchQueue::concurrentPerform(count, [&](std::size_t i) { ++visits[i]; });
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_EQ(visits[i].load(), 1) << i;
    }
    std::atomic<int> calls{0};
    EXPECT_THROW(DispatchQueue::concurrentPerform(100,
                                                  [&](std::size_t i) {
                                                      ++calls;
                                                      if (i == 3)
                                                          throw std::out_of_range("three");
                                                  }),
                 std::out_of_range);
    EXPECT_LE(calls.load(), 100);
    // Nested inside pool work it still completes, because the caller takes part.
    std::atomic<int> nested{0};
    DispatchQueue::concurrentPerform(
        8, [&](std::size_t) { DispatchQueue::concurrentPerform(8, [&](std::size_t) { ++nested; }); });
    EXPECT_EQ(nested.load(), 64);
}

} // namespace
} // namespace tavolar
