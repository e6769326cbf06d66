// The compact by-diagonals store: products, compressed-column copies and Gauss-Seidel sweeps checked
// against the same matrix written out densely, element by element.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "matting/grid_matrix.h"

namespace {

// A random symmetric matrix on the grid whose couplings respect the grid's borders, with a diagonal
// large enough to make it positive definite.
GridMatrix randomGridMatrix(int H, int W, int reach, unsigned seed) {
    GridMatrix A;
    initGridMatrix(&A, H, W, reach);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int64_t n = gridPixels(&A);
    for (size_t k = 0; k < A.band_shift.size(); ++k)
        for (int64_t p = 0; p < n; ++p) {
            const int i = int(p % H) + A.band_drow[k], j = int(p / H) + A.band_dcol[k];
            if (i >= 0 && i < H && j < W) A.bands[k * n + p] = u(rng);
        }
    for (int64_t p = 0; p < n; ++p)
        A.diag[p] = 4.0 * reach * (reach + 1) + 1.0 + u(rng);
    return A;
}

// The dense n x n matrix, element by element through gridElement.
std::vector<double> dense(const GridMatrix &A) {
    const int64_t n = gridPixels(&A);
    std::vector<double> D(n * n, 0.0);
    for (int64_t p = 0; p < n; ++p)
        for (int dc = -A.reach; dc <= A.reach; ++dc)
            for (int dr = -A.reach; dr <= A.reach; ++dr) {
                const int i = int(p % A.height) + dr, j = int(p / A.height) + dc;
                if (i < 0 || i >= A.height || j < 0 || j >= A.width) continue;
                D[p * n + i + int64_t(j) * A.height] = gridElement(&A, p, dr, dc);
            }
    return D;
}

std::vector<double> randomVector(int64_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(n);
    for (double &x : v)
        x = u(rng);
    return v;
}

TEST(GridMatrix, ProductMatchesDenseMatrix) {
    // 300 x 250 is large enough for the product to be split over two threads.
    for (auto [H, W, reach] : {std::tuple{5, 6, 1}, {4, 9, 2}, {2, 5, 2}, {11, 13, 3}, {300, 250, 2}}) {
        GridMatrix A = randomGridMatrix(H, W, reach, 11u * H + W);
        const int64_t n = gridPixels(&A);
        const std::vector<double> x = randomVector(n, 5u);
        std::vector<double> y(n);
        multiplyGridMatrix(&A, x.data(), y.data());
        // The dense product of the large case would take 5.6e9 operations: check rows of it.
        const int64_t step = n > 5000 ? 997 : 1;
        for (int64_t p = 0; p < n; p += step) {
            double expected = 0.0;
            for (int dc = -reach; dc <= reach; ++dc)
                for (int dr = -reach; dr <= reach; ++dr) {
                    const int i = int(p % H) + dr, j = int(p / H) + dc;
                    if (i < 0 || i >= H || j < 0 || j >= W) continue;
                    expected += gridElement(&A, p, dr, dc) * x[i + int64_t(j) * H];
                }
            EXPECT_NEAR(y[p], expected, 1e-12) << H << "x" << W << " pixel " << p;
        }
    }
}

TEST(GridMatrix, CompressedColumnsHoldTheSameMatrix) {
    GridMatrix A = randomGridMatrix(4, 6, 2, 17u);
    const int64_t n = gridPixels(&A);
    A.bands[3 * n + 5] = 0.0; // a zero element is left out of the copies
    const std::vector<double> D = dense(A);

    std::vector<long> cp, ri;
    std::vector<double> v;
    gridMatrixToUpperColumns(&A, &cp, &ri, &v);
    std::vector<double> U(n * n, 0.0);
    for (int64_t q = 0; q < n; ++q) {
        for (long k = cp[q]; k < cp[q + 1]; ++k) {
            EXPECT_LE(ri[k], q);
            if (k > cp[q]) {
                EXPECT_LT(ri[k - 1], ri[k]);
            }
            EXPECT_NE(v[k], 0.0);
            U[ri[k] * n + q] = v[k];
        }
        EXPECT_EQ(ri[cp[q + 1] - 1], q) << "the diagonal comes last in column " << q;
    }
    for (int64_t p = 0; p < n; ++p)
        for (int64_t q = p; q < n; ++q)
            EXPECT_EQ(U[p * n + q], D[p * n + q]);

    std::vector<int> fp, fi;
    std::vector<double> fv;
    gridMatrixToFullColumns(&A, &fp, &fi, &fv);
    EXPECT_EQ(fv.size(), 2 * v.size() - n);
    std::vector<double> F(n * n, 0.0);
    for (int64_t q = 0; q < n; ++q)
        for (int k = fp[q]; k < fp[q + 1]; ++k) {
            if (k > fp[q]) {
                EXPECT_LT(fi[k - 1], fi[k]);
            }
            F[fi[k] * n + q] = fv[k];
        }
    EXPECT_EQ(F, D);
}

TEST(GridMatrix, CoupledPixelsAreThoseWithOffDiagonalElements) {
    GridMatrix A;
    initGridMatrix(&A, 3, 3, 1);
    const int64_t n = gridPixels(&A);
    for (int64_t p = 0; p < n; ++p)
        A.diag[p] = 1.0;
    A.bands[gridBandIndex(&A, 1, 1) * n + 0] = -0.5; // pixel 0 with pixel (1, 1) = 4
    std::vector<char> coupled;
    gridCoupledPixels(&A, &coupled);
    for (int64_t p = 0; p < n; ++p)
        EXPECT_EQ(coupled[p], p == 0 || p == 4) << p;
    EXPECT_EQ(gridNonZeros(&A), n + 1);
}

// x = S b: a forward sweep from zero, then a backward sweep.
std::vector<double> symmetricSweeps(const GridMatrix &A, const std::vector<double> &b) {
    const int64_t n = gridPixels(&A);
    std::vector<double> inv(n), x(n);
    for (int64_t p = 0; p < n; ++p)
        inv[p] = 1.0 / A.diag[p];
    sweepGridMatrix(&A, inv.data(), b.data(), x.data(), true, true);
    sweepGridMatrix(&A, inv.data(), b.data(), x.data(), false, false);
    return x;
}

TEST(GridMatrix, ForwardSweepIsGaussSeidelInPixelOrder) {
    GridMatrix A = randomGridMatrix(6, 5, 2, 23u);
    const int64_t n = gridPixels(&A);
    const std::vector<double> D = dense(A), b = randomVector(n, 29u);
    std::vector<double> expected(n, 0.0);
    for (int64_t p = 0; p < n; ++p) {
        double s = b[p];
        for (int64_t q = 0; q < n; ++q)
            if (q != p) s -= D[p * n + q] * expected[q];
        expected[p] = s / D[p * n + p];
    }
    std::vector<double> inv(n), x(n, 7.0);
    for (int64_t p = 0; p < n; ++p)
        inv[p] = 1.0 / A.diag[p];
    sweepGridMatrix(&A, inv.data(), b.data(), x.data(), true, true);
    for (int64_t p = 0; p < n; ++p)
        EXPECT_NEAR(x[p], expected[p], 1e-13) << p;
}

TEST(GridMatrix, SweepPairIsSymmetricOnBothCores) {
    // Large enough for the sweeps to be split over two threads: the pair must still be one symmetric
    // operator, u^T S v = v^T S u, or conjugate gradients would lose their footing.
    GridMatrix A = randomGridMatrix(260, 300, 2, 31u);
    const int64_t n = gridPixels(&A);
    const std::vector<double> u = randomVector(n, 37u), v = randomVector(n, 41u);
    const std::vector<double> Su = symmetricSweeps(A, u), Sv = symmetricSweeps(A, v);
    double uSv = 0.0, vSu = 0.0, scale = 0.0;
    for (int64_t p = 0; p < n; ++p) {
        uSv += u[p] * Sv[p];
        vSu += v[p] * Su[p];
        scale += std::fabs(u[p] * Sv[p]);
    }
    EXPECT_NEAR(uSv, vSu, 1e-12 * scale);
}

TEST(GridMatrix, SweepWithResidualGivesTheSweepAndItsResidual) {
    for (auto [H, W] : {std::pair{9, 11}, {260, 300}}) {
        GridMatrix A = randomGridMatrix(H, W, 2, 53u + H);
        const int64_t n = gridPixels(&A);
        const std::vector<double> b = randomVector(n, 59u);
        std::vector<double> inv(n), x(n), x2(n), res(n), Ax(n);
        for (int64_t p = 0; p < n; ++p)
            inv[p] = 1.0 / A.diag[p];
        inv[n / 3] = 0.0; // a pixel the sweep leaves at 0 still has its residual
        sweepGridMatrix(&A, inv.data(), b.data(), x.data(), true, true);
        sweepGridMatrixWithResidual(&A, inv.data(), b.data(), x2.data(), res.data());
        multiplyGridMatrix(&A, x.data(), Ax.data());
        for (int64_t p = 0; p < n; ++p) {
            ASSERT_EQ(x2[p], x[p]) << p;
            ASSERT_NEAR(res[p], b[p] - Ax[p], 1e-12) << H << "x" << W << " pixel " << p;
        }
    }
}

TEST(GridMatrix, SinglePrecisionSweepsAreTheSweepsOfTheRoundedMatrix) {
    GridMatrix A = randomGridMatrix(260, 300, 2, 61u);
    GridMatrixSingle S;
    copyGridMatrixSingle(&A, &S);
    GridMatrix R = A; // A rounded to single precision, held in double
    for (double &v : R.diag)
        v = float(v);
    for (double &v : R.bands)
        v = float(v);
    const int64_t n = gridPixels(&A);
    const std::vector<double> b = randomVector(n, 67u);
    std::vector<double> inv(n), x1(n), x2(n), r1(n), r2(n);
    for (int64_t p = 0; p < n; ++p)
        inv[p] = 1.0 / R.diag[p];
    sweepGridMatrixWithResidual(&S, inv.data(), b.data(), x1.data(), r1.data());
    sweepGridMatrixWithResidual(&R, inv.data(), b.data(), x2.data(), r2.data());
    sweepGridMatrix(&S, inv.data(), b.data(), x1.data(), false, false);
    sweepGridMatrix(&R, inv.data(), b.data(), x2.data(), false, false);
    for (int64_t p = 0; p < n; ++p) {
        ASSERT_EQ(r1[p], r2[p]) << p;
        ASSERT_EQ(x1[p], x2[p]) << p;
    }
}

TEST(GridMatrix, SweepsOnActiveRunsLeaveLonePixelsAlone) {
    // Cut every coupling of a block of pixels: they become equations of their own, and the runs of
    // active pixels skip them.
    GridMatrix A = randomGridMatrix(40, 30, 2, 71u);
    const int64_t n = gridPixels(&A);
    auto lone = [&](int64_t p) {
        return p == 3 || (p % 40 >= 10 && p % 40 < 20 && p / 40 >= 5 && p / 40 < 25);
    };
    for (size_t k = 0; k < A.band_shift.size(); ++k)
        for (int64_t p = 0; p + A.band_shift[k] < n; ++p)
            if (lone(p) || lone(p + A.band_shift[k])) A.bands[k * n + p] = 0.0;
    A.diag[3] = 0.0; // an empty row, as for a pixel in no window and without constraint
    PixelRuns runs;
    gridActiveRuns(&A, &runs);
    int64_t covered = 0, previous_end = -1;
    for (const auto &run : runs) {
        EXPECT_GT(run.first, previous_end) << "runs are sorted, disjoint and maximal";
        for (int64_t p = run.first; p < run.second; ++p)
            EXPECT_FALSE(lone(p) || p == 3) << p;
        covered += run.second - run.first;
        previous_end = run.second;
    }
    EXPECT_EQ(covered, n - 10 * 20 - 1);

    const std::vector<double> b = randomVector(n, 73u);
    std::vector<double> inv(n), full(n), part(n, 5.0), res(n, 0.0);
    for (int64_t p = 0; p < n; ++p)
        inv[p] = A.diag[p] > 0.0 ? 1.0 / A.diag[p] : 0.0;
    sweepGridMatrix(&A, inv.data(), b.data(), full.data(), true, true);
    sweepGridMatrixWithResidual(&A, inv.data(), b.data(), part.data(), res.data(), &runs);
    std::vector<int64_t> visited;
    forEachRun(&runs, 0, n, [&](int64_t a, int64_t c) {
        for (int64_t p = a; p < c; ++p)
            visited.push_back(p);
    });
    ASSERT_EQ(int64_t(visited.size()), covered);
    for (int64_t p : visited)
        EXPECT_DOUBLE_EQ(part[p], full[p]) << p;
    for (int64_t p = 0; p < n; ++p) {
        if (lone(p)) {
            EXPECT_EQ(part[p], 5.0) << "pixel " << p << " is not written";
        }
    }
    std::vector<int64_t> backward;
    forEachRunBackward(&runs, 100, 900, [&](int64_t a, int64_t c) { backward.push_back(c - a); });
    int64_t sum = 0;
    for (int64_t len : backward)
        sum += len;
    int64_t inside = 0;
    for (int64_t p : visited)
        inside += p >= 100 && p < 900;
    EXPECT_EQ(sum, inside);
}

} // namespace
