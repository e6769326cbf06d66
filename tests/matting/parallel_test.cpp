// The two-thread work sharing of the engine's loops: every task exactly once, in quick succession
// (the helper spins between batches), from inside a task, and from two callers at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "matting/parallel.h"

namespace {

TEST(Parallel, EveryTaskRunsOnceInBatchesOfEverySizeOneAfterAnother) {
    // Thousands of short batches, as a multigrid cycle hands them out: a batch the helper picks up
    // late, or a task claimed twice or never, shows in the counts.
    std::vector<std::atomic<int>> runs(64);
    int64_t expected_total = 0;
    for (int round = 0; round < 4000; ++round) {
        const int count = round % 37;
        for (auto &r : runs)
            r.store(0);
        parallelTasks(count, [&](int k) { runs[k].fetch_add(1); });
        for (int k = 0; k < 64; ++k)
            ASSERT_EQ(runs[k].load(), k < count ? 1 : 0) << "round " << round << " task " << k;
        // A range is covered exactly once, in pieces that do not overlap.
        const int64_t n = round * 17;
        std::vector<int> covered(n, 0);
        parallelRange(n, 64, [&](int64_t begin, int64_t end) {
            for (int64_t i = begin; i < end; ++i)
                ++covered[i];
        });
        for (int64_t i = 0; i < n; ++i)
            ASSERT_EQ(covered[i], 1) << "round " << round << " index " << i;
        expected_total += n;
    }
    EXPECT_GT(expected_total, 0);
}

TEST(Parallel, NestedAndConcurrentCallersFinishWithTheRightSums) {
    // A call from inside a task runs in that thread; a second caller, finding the helper busy, runs its
    // batch alone. Sums come out the same whoever ran which piece: the pieces and their order are fixed.
    auto series = [](int64_t begin, int64_t end) {
        double s = 0.0;
        for (int64_t i = begin; i < end; ++i)
            s += 1.0 / double(i + 1);
        return s;
    };
    const double reference = parallelSum(200000, 1 << 10, series);
    std::atomic<int> inner_tasks{0};
    parallelTasks(8, [&](int) {
        parallelTasks(5, [&](int) { inner_tasks.fetch_add(1); });
        EXPECT_EQ(parallelSum(200000, 1 << 10, series), reference);
    });
    EXPECT_EQ(inner_tasks.load(), 40);

    std::vector<double> sums(2, 0.0);
    std::vector<std::thread> callers;
    for (int c = 0; c < 2; ++c)
        callers.emplace_back([&, c] {
            for (int round = 0; round < 200; ++round) {
                const double s = parallelSum(200000, 1 << 10, series);
                if (s != reference) sums[c] = s; // a wrong sum is kept for the check below
            }
        });
    for (std::thread &t : callers)
        t.join();
    EXPECT_EQ(sums[0], 0.0);
    EXPECT_EQ(sums[1], 0.0);
}

} // namespace
