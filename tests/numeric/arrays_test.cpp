// Array allocators: block layout, zero filling, exact release, and the end of the process on failure.
#include "numeric/arrays.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
// Impossible requests must reach the allocator's null result, as they do without the sanitizer,
// instead of stopping at the sanitizer's own report.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

namespace {

// Heap bytes currently handed out by the allocator in use (glibc's, or the sanitizer's). glibc keeps
// small freed blocks in per-thread caches that still count as in use, so the tests that compare
// totals use blocks of several kilobytes.
size_t allocated_bytes() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

const size_t kHuge = size_t(1) << 62; // far beyond any address space this runs in

TEST(Arrays, TwoDimensionalRowsSitBackToBackInOneElementBlock) {
    const int shapes[][2] = {{5, 3}, {1, 1}, {7, 1}, {1, 7}, {13, 11}}; // {cols, rows}
    for (size_t size : {size_t(1), size_t(4), size_t(8)})
        for (auto shape : shapes) {
            int cols = shape[0], rows = shape[1];
            SCOPED_TRACE(std::to_string(cols) + " cols, " + std::to_string(rows) + " rows, size " +
                         std::to_string(size));
            for (bool zeroed : {false, true}) {
                void **a = zeroed ? get_init_arr(cols, rows, size) : get_img(cols, rows, size);
                char *base = static_cast<char *>(a[0]);
                for (int r = 0; r < rows; r++)
                    ASSERT_EQ(a[r], base + r * cols * size) << "row " << r;
                // Each row table entry and each element is its own storage: the row table must hold
                // rows pointers and the element block rows*cols*size bytes.
                EXPECT_GE(malloc_usable_size(a), rows * sizeof(void *));
                EXPECT_GE(malloc_usable_size(a[0]), rows * cols * size);
                // a[rows-1][cols-1] is the last element of the block.
                char *last = static_cast<char *>(a[rows - 1]) + (cols - 1) * size;
                EXPECT_EQ(last, base + (rows * cols - 1) * size);
                memset(last, 0x5a, size);
                free_img(a);
            }
        }

    double **d = reinterpret_cast<double **>(get_img(4, 3, sizeof(double)));
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 4; c++)
            d[r][c] = 10 * r + c;
    for (int i = 0; i < 12; i++)
        EXPECT_EQ(d[0][i], 10 * (i / 4) + i % 4) << i;
    free_img(reinterpret_cast<void **>(d));
}

// calloc memory is zero even when the block reuses one just freed after being dirtied.
TEST(Arrays, InitialisingVariantsAreZeroFilled) {
    const int cols = 37, rows = 29;
    void **dirty = get_img(cols, rows, 8);
    memset(dirty[0], 0xff, cols * rows * 8);
    free_img(dirty);
    double **a = reinterpret_cast<double **>(get_init_arr(cols, rows, 8));
    for (int r = 0; r < rows; r++)
        for (int c = 0; c < cols; c++)
            ASSERT_EQ(a[r][c], 0.0) << r << " " << c;
    free_img(reinterpret_cast<void **>(a));

    const int d0 = 6, d1 = 5, d2 = 9;
    double ***m = static_cast<double ***>(multialloc(8, 3, d0, d1, d2));
    memset(m[0][0], 0xff, d0 * d1 * d2 * 8);
    multifree(m, 3);
    m = static_cast<double ***>(multialloc_init(8, 3, d0, d1, d2));
    for (int i = 0; i < d0; i++)
        for (int j = 0; j < d1; j++)
            for (int k = 0; k < d2; k++)
                ASSERT_EQ(m[i][j][k], 0.0) << i << " " << j << " " << k;
    multifree(m, 3);

    char *block = static_cast<char *>(get_spc(4000, 1));
    for (int i = 0; i < 4000; i++)
        ASSERT_EQ(block[i], 0) << i;
    free(block);
}

// Entry j of each pointer level points at entry j*d(k+1) of the next level, so the first pointer of
// each table is the next level's block and the elements are one row-major block.
TEST(Arrays, MultiDimensionalLevelsPointIntoTheNextLevel) {
    for (bool zeroed : {false, true}) {
        const int d0 = 4, d1 = 3, d2 = 5;
        double ***m = static_cast<double ***>(zeroed ? multialloc_init(8, 3, d0, d1, d2)
                                                     : multialloc(8, 3, d0, d1, d2));
        double **level1 = m[0];
        double *elements = m[0][0];
        for (int i = 0; i < d0; i++) {
            ASSERT_EQ(m[i], level1 + i * d1);
            for (int j = 0; j < d1; j++) {
                ASSERT_EQ(m[i][j], elements + (i * d1 + j) * d2);
                for (int k = 0; k < d2; k++)
                    m[i][j][k] = 100 * i + 10 * j + k;
            }
        }
        EXPECT_GE(malloc_usable_size(m), d0 * sizeof(void *));
        EXPECT_GE(malloc_usable_size(level1), d0 * d1 * sizeof(void *));
        EXPECT_GE(malloc_usable_size(elements), size_t(d0 * d1 * d2 * 8));
        EXPECT_EQ(elements[d0 * d1 * d2 - 1], 100 * (d0 - 1) + 10 * (d1 - 1) + d2 - 1);
        multifree(m, 3);
    }

    // Four dimensions of 4-byte elements, and the plain block of one dimension.
    int ****q = static_cast<int ****>(multialloc_init(4, 4, 2, 3, 4, 5));
    int *q_elements = q[0][0][0];
    for (int a = 0; a < 2; a++)
        for (int b = 0; b < 3; b++)
            for (int c = 0; c < 4; c++)
                for (int d = 0; d < 5; d++)
                    ASSERT_EQ(&q[a][b][c][d], q_elements + ((a * 3 + b) * 4 + c) * 5 + d);
    multifree(q, 4);

    double *plain = static_cast<double *>(multialloc_init(8, 1, 7));
    for (int i = 0; i < 7; i++)
        ASSERT_EQ(plain[i], 0.0);
    EXPECT_GE(malloc_usable_size(plain), 7 * sizeof(double));
    multifree(plain, 1);

    int **two = static_cast<int **>(multialloc(4, 2, 3, 6));
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(two[i], two[0] + 6 * i);
    multifree(two, 2);
}

// free_img and multifree give back every block the allocator made: the heap total returns to where
// it was, and it grew by at least the arrays' bytes in between.
TEST(Arrays, ReleasingGivesBackExactlyTheBlocksMade) {
    const int cols = 400, rows = 300;
    for (bool zeroed : {false, true}) {
        size_t before = allocated_bytes();
        void **a = zeroed ? get_init_arr(cols, rows, 8) : get_img(cols, rows, 8);
        size_t with_array = allocated_bytes();
        free_img(a);
        size_t after = allocated_bytes();
        EXPECT_GE(with_array - before, rows * cols * 8 + rows * sizeof(void *)) << zeroed;
        EXPECT_EQ(after, before) << zeroed;
    }

    const int d0 = 200, d1 = 150, d2 = 3;
    for (bool zeroed : {false, true}) {
        size_t before = allocated_bytes();
        void *m = zeroed ? multialloc_init(8, 3, d0, d1, d2) : multialloc(8, 3, d0, d1, d2);
        size_t with_array = allocated_bytes();
        multifree(m, 3);
        size_t after = allocated_bytes();
        EXPECT_GE(with_array - before, (d0 + d0 * d1) * sizeof(void *) + d0 * d1 * d2 * 8) << zeroed;
        EXPECT_EQ(after, before) << zeroed;
    }

    // A null block ends the walk: only the level-0 table is freed here, and a null array is a no-op.
    size_t before = allocated_bytes();
    void **table = static_cast<void **>(get_spc(2000, sizeof(void *)));
    multifree(table, 3);
    multifree(nullptr, 3);
    free_img(nullptr);
    EXPECT_EQ(allocated_bytes(), before);
}

// Empty arrays are valid arrays: never null, and released like any other.
TEST(Arrays, EmptyRequestsGiveValidBlocks) {
    void *p = mget_spc(0, 8);
    void *q = get_spc(5, 0);
    EXPECT_NE(p, nullptr);
    EXPECT_NE(q, nullptr);
    free(p);
    free(q);
    for (auto shape : {std::pair<int, int>{0, 5}, {5, 0}, {0, 0}}) {
        void **a = get_img(shape.first, shape.second, 8);
        void **b = get_init_arr(shape.first, shape.second, 1);
        EXPECT_NE(a, nullptr);
        EXPECT_NE(b, nullptr);
        free_img(a);
        free_img(b);
    }
    multifree(multialloc_init(8, 3, 0, 4, 2), 3);
    multifree(multialloc(8, 3, 4, 0, 2), 3);
    multifree(multialloc(8, 3, 4, 2, 0), 3);
}

TEST(Arrays, ReallocationKeepsTheContents) {
    int *p = static_cast<int *>(reget_spc(nullptr, 10, sizeof(int)));
    for (int i = 0; i < 10; i++)
        p[i] = i * i;
    p = static_cast<int *>(reget_spc(p, 100000, sizeof(int)));
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(p[i], i * i);
    p[99999] = 7;
    p = static_cast<int *>(reget_spc(p, 3, sizeof(int)));
    EXPECT_EQ((std::vector<int>{p[0], p[1], p[2]}), (std::vector<int>{0, 1, 4}));
    free(p);
}

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer announces each refused request on its own line before ours.
#define KELDRA_STDERR_START ""
#else
#define KELDRA_STDERR_START "^"
#endif
const char kMalloc[] = KELDRA_STDERR_START "==> malloc\\(\\) error\n$";
const char kCalloc[] = KELDRA_STDERR_START "==> calloc\\(\\) error\n$";

// Keeps the block whose resizing fails reachable, so that leak checkers stay quiet when the process ends.
void *volatile resized_block;

TEST(ArraysDeathTest, ExhaustionPrintsOneLineAndExitsWithMinusOne) {
    const auto status = testing::ExitedWithCode(255); // exit(-1) as the parent sees it
    EXPECT_EXIT(mget_spc(1, kHuge), status, kMalloc);
    EXPECT_EXIT(mget_spc(INT_MAX, SIZE_MAX / 2), status, kMalloc);
    EXPECT_EXIT(get_spc(1, kHuge), status, kCalloc);
    EXPECT_EXIT(get_spc(INT_MAX, SIZE_MAX / 2), status, kCalloc);
    EXPECT_EXIT(
        {
            resized_block = mget_spc(16, 1);
            reget_spc(resized_block, 1, kHuge);
        },
        status, kMalloc);
    EXPECT_EXIT(get_img(1 << 20, 1 << 20, 8), status, kMalloc);
    EXPECT_EXIT(get_init_arr(1 << 16, 1 << 16, 1), status, kCalloc);
    EXPECT_EXIT(get_img(1 << 20, 1 << 10, kHuge >> 20), status, kMalloc);
    EXPECT_EXIT(multialloc_init(8, 3, 1 << 11, 1 << 10, 1 << 10), status, kCalloc);
    EXPECT_EXIT(multialloc(8, 3, 1 << 20, 1 << 12, 1), status, kMalloc);
    EXPECT_EXIT(multialloc(size_t(1) << 40, 3, 64, 64, 64), status, kMalloc);
}

TEST(ArraysDeathTest, ImpossibleShapesEndTheProcessLikeExhaustion) {
    const auto status = testing::ExitedWithCode(255);
    EXPECT_EXIT(mget_spc(-1, 8), status, kMalloc);
    EXPECT_EXIT(get_spc(-1, 1), status, kCalloc);
    EXPECT_EXIT(reget_spc(nullptr, -5, 4), status, kMalloc);
    EXPECT_EXIT(get_img(-1, 3, 8), status, kMalloc);
    EXPECT_EXIT(get_init_arr(3, -1, 8), status, kCalloc);
    EXPECT_EXIT(multialloc(8, 0), status, kMalloc);
    EXPECT_EXIT(multialloc_init(8, 3, 2, -3, 4), status, kCalloc);
}

} // namespace
