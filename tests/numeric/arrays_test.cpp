// Array allocators: block layout, zero filling, exact release, and the end of the process on failure.
#include "numeric/arrays.h"

#include "tests/numeric/numeric_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
// Impossible requests must reach the allocator's null result, as they do without the sanitizer,
// instead of stopping at the sanitizer's own report.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

namespace {

bool all_zero(const void *p, size_t bytes) {
    const char *c = static_cast<const char *>(p);
    return std::all_of(c, c + bytes, [](char b) { return b == 0; });
}

// The zero-filling variants run after the plain ones have dirtied a block of the same size, which
// they then reuse: only a real clearing leaves zeros.
TEST(Arrays, TwoDimensionalRowsSitBackToBackInOneZeroFilledBlock) {
    const int shapes[][2] = {{5, 3}, {1, 7}, {37, 29}}; // {cols, rows}
    for (size_t size : {size_t(1), size_t(8)})
        for (auto shape : shapes)
            for (bool zeroed : {false, true}) {
                const int cols = shape[0], rows = shape[1];
                SCOPED_TRACE(testing::Message() << cols << " cols, " << rows << " rows, size " << size);
                void **a = zeroed ? get_init_arr(cols, rows, size) : get_img(cols, rows, size);
                for (int r = 0; r < rows; r++)
                    ASSERT_EQ(a[r], static_cast<char *>(a[0]) + r * cols * size) << "row " << r;
                EXPECT_TRUE(malloc_usable_size(a) >= rows * sizeof(void *) &&
                            malloc_usable_size(a[0]) >= rows * cols * size);
                EXPECT_TRUE(!zeroed || all_zero(a[0], rows * cols * size));
                memset(a[0], 0xff, rows * cols * size);
                free_img(a);
            }
}

// Entry j of each pointer level points at entry j*d(k+1) of the next level; the elements are one block.
TEST(Arrays, MultiDimensionalLevelsPointIntoTheNextLevel) {
    for (bool zeroed : {false, true}) {
        int ****q = static_cast<int ****>(zeroed ? multialloc_init(4, 4, 2, 3, 4, 50)
                                                 : multialloc(4, 4, 2, 3, 4, 50));
        for (int a = 0; a < 2; a++)
            for (int b = 0; b < 3; b++)
                for (int c = 0; c < 4; c++)
                    ASSERT_EQ(q[a][b][c], q[0][0][0] + ((a * 3 + b) * 4 + c) * 50);
        EXPECT_GE(malloc_usable_size(q[0][0][0]), 1200 * sizeof(int));
        EXPECT_TRUE(!zeroed || all_zero(q[0][0][0], 1200 * sizeof(int)));
        memset(q[0][0][0], 0xff, 1200 * sizeof(int));
        multifree(q, 4);
    }
}

// The heap total returns to where it was, and grew by at least the arrays' bytes in between.
TEST(Arrays, ReleasingGivesBackExactlyTheBlocksMade) {
    for (bool zeroed : {false, true}) {
        size_t before = allocated_bytes();
        void **a = zeroed ? get_init_arr(400, 300, 8) : get_img(400, 300, 8);
        void *m = zeroed ? multialloc_init(8, 3, 200, 150, 3) : multialloc(8, 3, 200, 150, 3);
        size_t with_arrays = allocated_bytes();
        free_img(a);
        multifree(m, 3);
        size_t after = allocated_bytes();
        EXPECT_GE(with_arrays - before,
                  (300 + 200 + 200 * 150) * sizeof(void *) + (300 * 400 + 200 * 150 * 3) * 8);
        EXPECT_EQ(after, before) << zeroed;
    }
    // A null block ends the walk: only the level-0 table is freed here, and a null array is a no-op.
    size_t before = allocated_bytes();
    multifree(get_spc(2000, sizeof(void *)), 3);
    multifree(nullptr, 3);
    free_img(nullptr);
    EXPECT_EQ(allocated_bytes(), before);
}

TEST(Arrays, EmptyRequestsGiveValidBlocksAndReallocationKeepsContents) {
    void *zero = mget_spc(0, 8), *none = get_spc(5, 0);
    EXPECT_TRUE(zero != nullptr && none != nullptr);
    free(zero), free(none);
    free_img(get_img(0, 5, 8));
    multifree(multialloc_init(8, 3, 0, 4, 2), 3);

    int *p = static_cast<int *>(reget_spc(nullptr, 3, sizeof(int)));
    p[0] = 1, p[1] = 2, p[2] = 3;
    p = static_cast<int *>(reget_spc(p, 100000, sizeof(int)));
    EXPECT_TRUE(p[0] == 1 && p[1] == 2 && p[2] == 3);
    free(p);
}

// Not anchored at the start: the sanitizer build announces each refused request on a line before ours.
const char kMalloc[] = "==> malloc\\(\\) error\n$";
const char kCalloc[] = "==> calloc\\(\\) error\n$";

// Keeps the block whose resizing fails reachable, so that leak checkers stay quiet when the process ends.
void *volatile resized_block;

// Exhaustion, byte counts that overflow, arrays of 2^31 or more elements and negative shapes.
TEST(ArraysDeathTest, FailuresPrintOneLineAndExitWithMinusOne) {
    const auto status = testing::ExitedWithCode(255); // exit(-1) as the parent sees it
    EXPECT_EXIT(mget_spc(1, size_t(1) << 62), status, kMalloc);
    EXPECT_EXIT(get_spc(INT_MAX, SIZE_MAX / 2), status, kCalloc);
    EXPECT_EXIT(reget_spc(resized_block = mget_spc(16, 1), 1, size_t(1) << 62), status, kMalloc);
    EXPECT_EXIT(get_init_arr(1 << 16, 1 << 16, 1), status, kCalloc);
    EXPECT_EXIT(multialloc_init(8, 3, 1 << 11, 1 << 10, 1 << 10), status, kCalloc);
    EXPECT_EXIT(mget_spc(-1, 8), status, kMalloc);
    EXPECT_EXIT(multialloc(8, 0), status, kMalloc);
}

} // namespace
