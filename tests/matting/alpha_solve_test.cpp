// The alpha solve against a dense solve of the same system, its systems without windows (constrained
// values, the triplet count, the singular status), and the scaling to bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/laplacian.h"
#include "tests/matting/engine_fixtures.h"

namespace {

const double LAMBDA = 100.0;

TEST(AlphaSolve, MatchesDenseSolveOfTheConstrainedSystem) {
    const int H = 8, W = 7, N = H * W;
    TIFF_img img = make_image(H, W, 'c', 17);
    double **map = make_map(H, W, 0.0), **values = make_map(H, W, 0.0);
    for (int i = 0; i < H; i++) { // background down the left column, foreground down the right
        map[i][0] = map[i][W - 1] = 1.0;
        values[i][W - 1] = 1.0;
    }
    for (int i = 0; i < 4; i++) // a fully constrained block leaves pixel (0,0)'s row empty
        for (int j = 0; j < 3; j++)
            map[i][j] = 1.0;
    values[2][1] = 0.25; // a grey constraint
    values[5][3] = 7.0;  // ignored: its pixel is unconstrained

    // L + lambda D densely, from the Laplacian builder (tested on its own), and lambda D v.
    QMatrix L = getLaplacian1(&img, map, 1, 1e-6);
    std::vector<double> M((size_t)N * N), b(N);
    for (int p = 0; p < N; p++) {
        for (int q = 0; q < N; q++)
            M[(size_t)p * N + q] = Q_GetEl(&L, p + 1, q + 1);
        M[(size_t)p * N + p] += LAMBDA * map[p % H][p / H];
        b[p] = LAMBDA * map[p % H][p / H] * values[p % H][p / H];
    }
    Q_Destr(&L);
    const std::vector<double> x = dense_solve(M, b);

    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-6);
    EXPECT_EQ(status, 0);
    for (int j = 0; j < W; j++)
        for (int i = 0; i < H; i++)
            EXPECT_NEAR(alpha[i][j], std::fmin(1.0, std::fmax(0.0, x[i + j * H])), 1e-8) << i << "," << j;
    EXPECT_NEAR(alpha[2][1], 0.25, 1e-2); // held close to its grey value by the weight 100
    free_maps({alpha, map, values});
    release(&img);
}

TEST(AlphaSolve, WithoutWindowsConstrainedValuesComeBackAndEmptyRowsDropElements) {
    // A 1 x 3 image has no window. Fully constrained, each row holds lambda on its diagonal and the
    // clamped values come back.
    TIFF_img img = make_image(1, 3, 'g', 1);
    double **map = make_map(1, 3, 1.0), **values = make_map(1, 3, 0.0);
    values[0][0] = 1.3;
    values[0][1] = -0.2;
    values[0][2] = 0.5;
    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 0);
    const double clamped[3] = {1.0, 0.0, 0.5};
    for (int j = 0; j < 3; j++)
        EXPECT_NEAR(alpha[0][j], clamped[j], 1e-15);
    free_img((void **)alpha);

    // With the middle pixel unknown its row stays empty and the count of elements is 1 - 1 + 1: the
    // last pixel's diagonal is dropped, and the system is singular.
    map[0][1] = 0.0;
    cholmod_common common;
    cholmod_start(&common);
    cholmod_dense *B = nullptr;
    cholmod_sparse *A = assembleAlphaSystem(&img, map, values, 1, 1e-7, &B, &common);
    ASSERT_NE(A, nullptr);
    EXPECT_EQ(((int *)A->p)[3], 1);
    EXPECT_EQ(((int *)A->i)[0], 0);
    EXPECT_EQ(((double *)A->x)[0], LAMBDA);
    EXPECT_EQ(((double *)B->x)[2], 50.0);
    cholmod_free_sparse(&A, &common);
    cholmod_free_dense(&B, &common);
    cholmod_finish(&common);
    alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 1); // UMFPACK_WARNING_singular_matrix
    EXPECT_NEAR(alpha[0][0], 1.0, 1e-15);
    free_maps({alpha, map, values});
    free_TIFF(&img);
}

TEST(AlphaSolve, Scale2_255ClampsAboveOneAndBelowZero) {
    double **a = make_map(1, 6, 0.0);
    const double in[6] = {-0.5, 0.0, 0.5, 1.0, 1.0000001, 7.0}, out[6] = {0, 0, 127.5, 255, 255, 255};
    for (int j = 0; j < 6; j++)
        a[0][j] = in[j];
    scale2_255(a, 6, 1);
    for (int j = 0; j < 6; j++)
        EXPECT_EQ(a[0][j], out[j]);
    free_img((void **)a);
}

} // namespace
