// The compact assembly of the constrained matting system against the specified one (getLaplacian1 and
// solveAlpha's constraint step, as assembleAlphaSystem hands them to UMFPACK), element by element.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "matting/alpha_solve.h"
#include "matting/compact_laplacian.h"
#include "engine_fixtures.h"

namespace {

// Constraint arrays: a solid block of constrained pixels (so some windows are skipped) and scattered
// single ones, with values 1 on the left half and 0 on the right, and a non-binary weight here and there.
void makeConstraints(int H, int W, double ***map, double ***values) {
    *map = make_map(H, W, 0.0);
    *values = make_map(H, W, 0.0);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const bool block = i < H / 2 && j < W / 3;
            const bool scattered = noise(977u * i + 13u * j) < 40;
            if (block || scattered) {
                (*map)[i][j] = (i + j) % 7 == 0 ? 0.5 : 1.0;
                (*values)[i][j] = j < W / 2 ? 1.0 : 0.0;
            }
        }
}

// Every element of the specified system equals the compact one; returns the largest difference.
void expectSameSystem(const TIFF_img &img, int radius, double epsilon) {
    const int H = img.height, W = img.width;
    double **map, **values;
    makeConstraints(H, W, &map, &values);

    cholmod_common common;
    cholmod_start(&common);
    cholmod_dense *rhs = nullptr;
    cholmod_sparse *S = assembleAlphaSystem(&img, map, values, radius, epsilon, &rhs, &common);
    ASSERT_NE(S, nullptr);

    GridSystem sys;
    std::string message;
    ASSERT_EQ(getCompactMattingSystem(&img, map, values, radius, epsilon, &sys, &message), 0) << message;
    const int64_t n = int64_t(W) * H;
    ASSERT_EQ(int64_t(sys.b.size()), n);
    EXPECT_EQ(sys.channels, img.TIFF_type == 'c' ? 3 : 1);

    const int *Sp = static_cast<const int *>(S->p), *Si = static_cast<const int *>(S->i);
    const double *Sx = static_cast<const double *>(S->x);
    int64_t specified_nonzeros = 0;
    for (int64_t q = 0; q < n; q++)
        for (int k = Sp[q]; k < Sp[q + 1]; k++) {
            const int64_t p = Si[k];
            const int dr = int(q % H - p % H), dc = int(q / H - p / H);
            const double mine = gridElement(&sys.A, p, dr, dc);
            EXPECT_NEAR(mine, Sx[k], 1e-9 * (1.0 + std::fabs(Sx[k]))) << "element " << p << ", " << q;
            specified_nonzeros += (p <= q && Sx[k] != 0.0);
        }
    // Nothing beyond what the specified matrix holds.
    EXPECT_EQ(gridNonZeros(&sys.A), specified_nonzeros);
    const double *b = static_cast<const double *>(rhs->x);
    for (int64_t p = 0; p < n; p++)
        EXPECT_DOUBLE_EQ(sys.b[p], b[p]) << p;

    cholmod_free_sparse(&S, &common);
    cholmod_free_dense(&rhs, &common);
    cholmod_finish(&common);
    free_img((void **)map);
    free_img((void **)values);
}

TEST(CompactLaplacian, MatchesTheSpecifiedSystemOnColourAndGreyImages) {
    TIFF_img colour = make_image(23, 19, 'c', 5u), grey = make_image(17, 12, 'g', 7u);
    expectSameSystem(colour, 1, 1e-7);
    expectSameSystem(colour, 1, 0.0); // raised to 1e-7
    expectSameSystem(grey, 2, 1e-5);
    release(&colour);
    release(&grey);
}

TEST(CompactLaplacian, MatchesTheSpecifiedSystemOnShortAndTinyImages) {
    // At most 4r rows: the specified diagonal counts some neighbours twice, and so must this one.
    TIFF_img four = make_image(4, 15, 'c', 11u), three = make_image(3, 9, 'g', 13u),
             seven = make_image(7, 12, 'c', 17u);
    expectSameSystem(four, 1, 1e-7);
    expectSameSystem(three, 1, 1e-7);
    expectSameSystem(seven, 2, 1e-6);
    for (TIFF_img *img : {&four, &three, &seven})
        release(img);
}

TEST(CompactLaplacian, ImageLowerThanAWindowKeepsOnlyTheConstraints) {
    // No window fits: every constrained pixel gets a lone diagonal lambda * map, the rest nothing.
    // (The specified conversion to a triplet loses these when too many rows are empty, so the
    // comparison here is with the rule itself.)
    TIFF_img flat = make_image(2, 10, 'c', 19u);
    double **map, **values;
    makeConstraints(2, 10, &map, &values);
    GridSystem sys;
    std::string message;
    ASSERT_EQ(getCompactMattingSystem(&flat, map, values, 1, 1e-7, &sys, &message), 0);
    int64_t constrained = 0;
    for (int i = 0; i < 2; i++)
        for (int j = 0; j < 10; j++) {
            const int64_t p = i + 2 * j;
            EXPECT_EQ(sys.A.diag[p], kConstraintWeight * map[i][j]);
            EXPECT_EQ(sys.b[p], kConstraintWeight * map[i][j] * values[i][j]);
            constrained += map[i][j] != 0.0;
        }
    EXPECT_GT(constrained, 0);
    EXPECT_EQ(gridNonZeros(&sys.A), constrained);
    free_img((void **)map);
    free_img((void **)values);
    release(&flat);
}

TEST(CompactLaplacian, MatchesTheSpecifiedSystemWhenAssembledOnTwoThreads) {
    TIFF_img img = make_image(260, 300, 'c', 23u);
    expectSameSystem(img, 1, 1e-7);
    release(&img);
}

TEST(CompactLaplacian, LaplacianRowsSumToZeroWithoutConstraints) {
    TIFF_img img = make_image(20, 24, 'c', 29u);
    double **map = make_map(20, 24, 0.0), **values = make_map(20, 24, 0.0);
    GridSystem sys;
    std::string message;
    ASSERT_EQ(getCompactMattingSystem(&img, map, values, 1, 1e-7, &sys, &message), 0);
    std::vector<double> ones(sys.b.size(), 1.0), row_sums(sys.b.size());
    multiplyGridMatrix(&sys.A, ones.data(), row_sums.data());
    for (size_t p = 0; p < row_sums.size(); p++) {
        EXPECT_NEAR(row_sums[p], 0.0, 1e-12 * sys.A.diag[p]) << p;
        EXPECT_GT(sys.A.diag[p], 0.0);
        EXPECT_EQ(sys.b[p], 0.0);
    }
    // The colour planes come along for the preconditioner, column-major, scaled to [0, 1].
    EXPECT_FLOAT_EQ(sys.colour[2 * sys.b.size() + 3 + 5 * 20], img.color[2][3][5] / 255.0f);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

} // namespace
