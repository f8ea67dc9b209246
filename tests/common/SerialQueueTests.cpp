#include "common/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace brim {
namespace {

using namespace std::chrono_literals;

/// Waits for a condition with a deadline, never a fixed sleep.
template <typename Condition> bool waitFor(Condition&& condition, std::chrono::milliseconds limit = 5'000ms) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(SerialQueue, runsJobsOneAfterAnotherInOrder) {
    SerialQueue queue("brim.test");
    EXPECT_EQ(queue.name(), "brim.test");
    std::mutex lock;
    std::vector<int> order;
    std::atomic<int> running{0};
    std::atomic<int> overlap{0};
    for (int i = 0; i < 200; ++i) {
        queue.async([&, i](const IsCancelled&) {
            if (running.fetch_add(1) != 0) overlap.fetch_add(1);
            {
                std::lock_guard guard(lock);
                order.push_back(i);
            }
            running.fetch_sub(1);
        });
    }
    queue.drain();
    EXPECT_EQ(overlap.load(), 0);
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    int value = 0;
    queue.sync([&](const IsCancelled&) { value = 7; });
    EXPECT_EQ(value, 7);
}

TEST(SerialQueue, cancelAllStopsTheRunningJobAndDropsThePending) {
    SerialQueue queue("brim.test.cancel");
    std::atomic<bool> started{false};
    std::atomic<bool> sawCancel{false};
    std::atomic<int> pendingRan{0};
    queue.async([&](const IsCancelled& isCancelled) {
        EXPECT_FALSE(isCancelled());
        started = true;
        sawCancel = waitFor([&] { return isCancelled(); });
    });
    for (int i = 0; i < 5; ++i)
        queue.async([&](const IsCancelled&) { pendingRan.fetch_add(1); });
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    queue.cancelAll();
    queue.drain();
    EXPECT_TRUE(sawCancel.load());
    EXPECT_EQ(pendingRan.load(), 0);
    // Jobs added after the cancel run, and are not cancelled.
    std::atomic<bool> freshCancelled{true};
    queue.sync([&](const IsCancelled& isCancelled) { freshCancelled = isCancelled(); });
    EXPECT_FALSE(freshCancelled.load());
}

TEST(SerialQueue, destructionWaitsForTheRunningJobAndTellsItToStop) {
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    std::atomic<int> dropped{0};
    {
        SerialQueue queue("brim.test.end");
        queue.async([&](const IsCancelled& isCancelled) {
            started = true;
            waitFor([&] { return isCancelled(); });
            finished = true;
        });
        queue.async([&](const IsCancelled&) { dropped.fetch_add(1); });
        ASSERT_TRUE(waitFor([&] { return started.load(); }));
    }
    EXPECT_TRUE(finished.load());
    EXPECT_EQ(dropped.load(), 0);
}

TEST(MainQueue, pumpRunsWhatWasPostedAndWhatThatPosts) {
    MainQueue::pump();  // whatever an earlier test left
    std::vector<int> order;
    MainQueue::post([&] {
        order.push_back(1);
        MainQueue::post([&] { order.push_back(3); });
    });
    MainQueue::post([&] { order.push_back(2); });
    EXPECT_EQ(MainQueue::pump(), 3u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(MainQueue::pump(), 0u);
    // From another thread, work waits for the main thread's pump.
    std::thread([&] { MainQueue::post([&] { order.push_back(4); }); }).join();
    EXPECT_EQ(order.size(), 3u);
    EXPECT_EQ(MainQueue::pump(), 1u);
    EXPECT_EQ(order.back(), 4);
}

}  // namespace
}  // namespace brim
