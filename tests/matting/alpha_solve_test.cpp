// The alpha solve against a dense solve of the same system, its edge cases (fully constrained, nothing
// constrained, empty Laplacian rows), the order of its reported phases, and the small helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/laplacian.h"
#include "tests/matting/engine_fixtures.h"

namespace {

const double LAMBDA = 100.0;

// The system matrix L + lambda D, dense, from the Laplacian builder (tested on its own).
std::vector<double> dense_system(const TIFF_img &img, double **map, int r, double eps) {
    const int H = img.height, N = img.height * img.width;
    QMatrix L = getLaplacian1(&img, map, r, eps);
    std::vector<double> M((size_t)N * N);
    for (int p = 0; p < N; p++)
        for (int q = 0; q < N; q++)
            M[(size_t)p * N + q] = Q_GetEl(&L, p + 1, q + 1);
    Q_Destr(&L);
    for (int p = 0; p < N; p++)
        M[(size_t)p * N + p] += LAMBDA * map[p % H][p / H];
    return M;
}

// Gaussian elimination with partial pivoting.
std::vector<double> dense_solve(std::vector<double> M, std::vector<double> b) {
    const int N = (int)b.size();
    for (int c = 0; c < N; c++) {
        int piv = c;
        for (int r = c + 1; r < N; r++)
            if (std::fabs(M[(size_t)r * N + c]) > std::fabs(M[(size_t)piv * N + c])) piv = r;
        for (int k = 0; k < N; k++)
            std::swap(M[(size_t)c * N + k], M[(size_t)piv * N + k]);
        std::swap(b[c], b[piv]);
        for (int r = c + 1; r < N; r++) {
            const double f = M[(size_t)r * N + c] / M[(size_t)c * N + c];
            for (int k = c; k < N; k++)
                M[(size_t)r * N + k] -= f * M[(size_t)c * N + k];
            b[r] -= f * b[c];
        }
    }
    std::vector<double> x(N);
    for (int r = N - 1; r >= 0; r--) {
        double s = b[r];
        for (int k = r + 1; k < N; k++)
            s -= M[(size_t)r * N + k] * x[k];
        x[r] = s / M[(size_t)r * N + r];
    }
    return x;
}

TEST(AlphaSolve, MatchesDenseSolveOfTheConstrainedSystem) {
    const int H = 8, W = 7, N = H * W;
    TIFF_img img = make_image(H, W, 'c', 17);
    double **map = make_map(H, W, 0.0), **values = make_map(H, W, 0.0);
    for (int i = 0; i < H; i++) { // background down the left column, foreground down the right
        map[i][0] = 1.0;
        map[i][W - 1] = 1.0;
        values[i][W - 1] = 1.0;
    }
    for (int i = 0; i < 4; i++) // a fully constrained block leaves pixel (0,0)'s row empty
        for (int j = 0; j < 3; j++)
            map[i][j] = 1.0;
    values[2][1] = 0.25; // a grey constraint
    values[5][3] = 7.0;  // ignored: its pixel is unconstrained

    std::vector<double> b(N);
    for (int p = 0; p < N; p++)
        b[p] = LAMBDA * map[p % H][p / H] * values[p % H][p / H];
    const std::vector<double> x = dense_solve(dense_system(img, map, 1, 1e-6), b);

    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-6);
    EXPECT_EQ(status, 0);
    for (int j = 0; j < W; j++)
        for (int i = 0; i < H; i++) {
            const double expected = std::fmin(1.0, std::fmax(0.0, x[i + j * H]));
            EXPECT_NEAR(alpha[i][j], expected, 1e-8) << i << "," << j;
        }
    EXPECT_NEAR(alpha[0][0], 0.0, 1e-12); // empty row: lambda alpha = lambda * 0
    EXPECT_NEAR(alpha[2][1], 0.25, 1e-2); // held close to its grey value by the weight 100
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

TEST(AlphaSolve, AssembledSystemIsTheFullSortedMatrixAndWeightedValues) {
    const int H = 6, W = 6, N = H * W;
    TIFF_img img = make_image(H, W, 'g', 4);
    double **map = make_map(H, W, 0.0), **values = make_map(H, W, 0.0);
    map[1][1] = 1.0;
    map[4][4] = 0.5;
    values[4][4] = 1.0;
    const std::vector<double> M = dense_system(img, map, 1, 1e-5);

    cholmod_common common;
    cholmod_start(&common);
    cholmod_dense *B = nullptr;
    cholmod_sparse *A = assembleAlphaSystem(&img, map, values, 1, 1e-5, &B, &common);
    ASSERT_NE(A, nullptr);
    ASSERT_NE(B, nullptr);
    EXPECT_EQ(A->stype, 0);
    EXPECT_TRUE(A->sorted);
    const int *Ap = (const int *)A->p, *Ai = (const int *)A->i;
    const double *Ax = (const double *)A->x;
    std::vector<double> seen((size_t)N * N, 0.0);
    for (int col = 0; col < N; col++)
        for (int k = Ap[col]; k < Ap[col + 1]; k++) {
            if (k > Ap[col]) {
                EXPECT_LT(Ai[k - 1], Ai[k]);
            }
            seen[(size_t)Ai[k] * N + col] = Ax[k];
        }
    for (size_t e = 0; e < seen.size(); e++)
        EXPECT_NEAR(seen[e], M[e], 1e-12) << e / N << "," << e % N;
    const double *bx = (const double *)B->x;
    for (int p = 0; p < N; p++)
        EXPECT_EQ(bx[p], p == 4 + 4 * H ? 50.0 : 0.0);
    cholmod_free_sparse(&A, &common);
    cholmod_free_dense(&B, &common);
    cholmod_finish(&common);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

TEST(AlphaSolve, FullyConstrainedImageReturnsItsValues) {
    const int H = 5, W = 6;
    TIFF_img img = make_image(H, W, 'c', 8);
    double **map = make_map(H, W, 1.0), **values = make_map(H, W, 0.0);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            values[i][j] = (i * W + j) / 29.0 * 1.2 - 0.1; // some below 0 and above 1
    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 0);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            EXPECT_NEAR(alpha[i][j], std::fmin(1.0, std::fmax(0.0, values[i][j])), 1e-14);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

TEST(AlphaSolve, NothingConstrainedInAnImageWithoutWindowsIsSingular) {
    // Without constraints the Laplacian's rows sum to zero; whether the factorisation meets an exact
    // zero pivot then depends on rounding. An image lower than a window has no elements at all, so
    // the solver must report the singular-matrix warning.
    TIFF_img img = make_image(2, 4, 'c', 12);
    double **map = make_map(2, 4, 0.0), **values = make_map(2, 4, 0.0);
    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 1); // UMFPACK_WARNING_singular_matrix
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

TEST(AlphaSolve, EmptyRowsDropTheLastElementsWritten) {
    // A 1 x 3 image has no window. With all three pixels constrained each row holds its diagonal and
    // the values come back. With the middle one unknown its row stays empty, the count of elements is
    // 1 + 1 - 1, and the last pixel's diagonal is dropped: the matrix is singular.
    TIFF_img img = make_image(1, 3, 'g', 1);
    double **map = make_map(1, 3, 1.0), **values = make_map(1, 3, 0.0);
    values[0][0] = 1.0;
    values[0][2] = 0.5;
    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 0);
    EXPECT_NEAR(alpha[0][0], 1.0, 1e-15);
    EXPECT_NEAR(alpha[0][1], 0.0, 1e-15);
    EXPECT_NEAR(alpha[0][2], 0.5, 1e-15);
    free_img((void **)alpha);

    map[0][1] = 0.0;
    alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    EXPECT_EQ(status, 1);
    EXPECT_NEAR(alpha[0][0], 1.0, 1e-15);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    free_TIFF(&img);
}

struct Recorded {
    std::vector<EnginePhase> phases;
    std::vector<int> starting;
    int last_status = -99;
};

void record(const EnginePhaseEvent *e, void *data) {
    Recorded *r = static_cast<Recorded *>(data);
    r->phases.push_back(e->phase);
    r->starting.push_back(e->starting);
    if (!e->starting && e->phase == ENGINE_PHASE_SOLVE) r->last_status = e->status;
    EXPECT_EQ(e->height, 5);
    EXPECT_EQ(e->width, 6);
}

TEST(AlphaSolve, ReportsEachPhaseInOrder) {
    TIFF_img img = make_image(5, 6, 'c', 3);
    double **map = make_map(5, 6, 0.0), **values = make_map(5, 6, 0.0);
    map[0][0] = map[4][5] = values[4][5] = 1.0;
    Recorded rec;
    setEnginePhaseHook(record, &rec);
    int status = -99;
    double **alpha = solveAlpha(&img, map, values, 1, &status, 1e-7);
    setEnginePhaseHook(nullptr, nullptr);
    const std::vector<EnginePhase> order = {
        ENGINE_PHASE_LAPLACIAN, ENGINE_PHASE_CONSTRAINTS, ENGINE_PHASE_CONVERSION, ENGINE_PHASE_SYMBOLIC,
        ENGINE_PHASE_NUMERIC,   ENGINE_PHASE_SOLVE,       ENGINE_PHASE_RESULT};
    ASSERT_EQ(rec.phases.size(), 2 * order.size());
    for (size_t k = 0; k < order.size(); k++) {
        EXPECT_EQ(rec.phases[2 * k], order[k]);
        EXPECT_EQ(rec.phases[2 * k + 1], order[k]);
        EXPECT_EQ(rec.starting[2 * k], 1);
        EXPECT_EQ(rec.starting[2 * k + 1], 0);
    }
    EXPECT_EQ(rec.last_status, status);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    release(&img);
}

TEST(AlphaSolve, Scale2_255ClampsAboveOneAndBelowZero) {
    double **a = make_map(1, 6, 0.0);
    const double in[6] = {-0.5, 0.0, 0.5, 1.0, 1.0000001, 7.0};
    const double out[6] = {0.0, 0.0, 127.5, 255.0, 255.0, 255.0};
    for (int j = 0; j < 6; j++)
        a[0][j] = in[j];
    scale2_255(a, 6, 1);
    for (int j = 0; j < 6; j++)
        EXPECT_EQ(a[0][j], out[j]);
    free_img((void **)a);
}

TEST(AlphaSolve, BandScaleMarksOnlyFullBytes) {
    uint8_t **band = (uint8_t **)get_img(3, 2, 1);
    const uint8_t bytes[6] = {0, 255, 254, 1, 255, 128};
    for (int k = 0; k < 6; k++)
        band[k / 3][k % 3] = bytes[k];
    double **ones = bandscale2one(band, 3, 2);
    for (int k = 0; k < 6; k++)
        EXPECT_EQ(ones[k / 3][k % 3], bytes[k] == 255 ? 1.0 : 0.0);
    free_img((void **)ones);
    free_img((void **)band);
}

TEST(AlphaSolve, GaussSeidelSolvesDiagonallyDominantSystems) {
    const double A[9] = {4, 1, -1, 2, 7, 1, 1, -3, 12};
    const double want[3] = {1.0, -2.0, 0.5};
    double b[3];
    for (int i = 0; i < 3; i++)
        b[i] = A[i * 3] * want[0] + A[i * 3 + 1] * want[1] + A[i * 3 + 2] * want[2];
    EXPECT_DOUBLE_EQ(evalrow(A, want, 3, 1), 2 * 1.0 + 1 * 0.5);
    double x[3] = {0, 0, 0};
    const int sweeps = Gauss_Seidel_Method(A, b, x, 3, 1e-13, 200);
    EXPECT_GT(sweeps, 0);
    for (int i = 0; i < 3; i++)
        EXPECT_NEAR(x[i], want[i], 1e-12);

    const double zero_diag[4] = {0, 1, 1, 1};
    double y[2] = {3, 4};
    EXPECT_EQ(Gauss_Seidel_Method(zero_diag, b, y, 2, 1e-9, 10), -1);
    EXPECT_EQ(y[0], 3.0);
    EXPECT_EQ(Gauss_Seidel_Method(A, b, x, 3, 0.0, 0), -1); // no sweep allowed: not converged
}

} // namespace
