#include "common/Parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace brim {
namespace {

TEST(Parallel, runsEveryIndexExactlyOnce) {
    for (const std::size_t count : {0ul, 1ul, 2ul, 3ul, 17ul, 1'000ul, 100'000ul}) {
        SCOPED_TRACE(count);
        std::vector<std::atomic<int>> seen(count);
        parallelFor(count, [&](std::size_t i) { seen[i].fetch_add(1); });
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(seen[i].load(), 1) << i;
    }
    EXPECT_GE(activeProcessorCount(), 1u);
}

TEST(Parallel, returnsOnlyWhenAllHaveFinished) {
    std::atomic<int> finished{0};
    parallelFor(8, [&](std::size_t i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(i % 3) * 5));
        finished.fetch_add(1);
    });
    EXPECT_EQ(finished.load(), 8);
}

TEST(Parallel, loopsInsideLoopsFinish) {
    std::atomic<int> inner{0};
    parallelFor(6, [&](std::size_t) { parallelFor(50, [&](std::size_t) { inner.fetch_add(1); }); });
    EXPECT_EQ(inner.load(), 300);
    // From several threads at once, as index slices and searches may run.
    std::atomic<int> total{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] { parallelFor(1'000, [&](std::size_t) { total.fetch_add(1); }); });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(total.load(), 4'000);
}

}  // namespace
}  // namespace brim
