// The compact by-diagonals store: the product, and the Gauss-Seidel sweeps of its reduced-precision copy
// (the fine smoother's), checked against the matrix read element by element. (Its compressed-column
// copies are checked by solving with them.)
#include <gtest/gtest.h>

#include "matting/grid_matrix.h"
#include "synthetic_scene.h"

namespace {

TEST(GridMatrix, ProductAndSymmetricGaussSeidelSweepsMatchTheMatrix) {
    // Two rows with reach 2 give forward offsets of equal shift; 380 x 350 is split over two threads,
    // and the sweep pair must still be one symmetric operator S, u^T S v = v^T S u, or conjugate
    // gradients would lose their footing.
    for (auto [H, W, reach] : {std::tuple{2, 5, 2}, {11, 13, 3}, {380, 350, 2}}) {
        GridMatrix A = randomGridMatrix(H, W, reach, 53u + H);
        GridStencils S;
        copyGridStencils(&A, &S);
        for (std::vector<double> *plane : {&A.diag, &A.bands}) // values the copy holds exactly
            for (double &v : *plane)
                v = gridStencilValue(&S, v);
        copyGridStencils(&A, &S);
        const int64_t n = gridPixels(&A), unused = n / 3;
        const std::vector<double> b = randomVector(n, 59u), u = randomVector(n, 61u);
        std::vector<double> inv(n), x(n, 7.0), x2(n), res(n), y(n), Su(n);
        for (int64_t p = 0; p < n; ++p)
            inv[p] = p == unused ? 0.0 : 1.0 / A.diag[p]; // a pixel left at 0 still has its residual
        sweepGridMatrix(&S, inv.data(), b.data(), x.data(), true, true);
        sweepGridMatrixWithResidual(&S, inv.data(), b.data(), x2.data(), res.data());
        multiplyGridMatrix(&A, x.data(), y.data());
        for (int64_t p = 0; p < n; ++p) {
            double Ax = 0.0, lower = 0.0;
            forEachElement(A, p, [&](int64_t q, double v) {
                Ax += v * x[q];
                lower += q <= p ? v * x[q] : 0.0;
            });
            ASSERT_NEAR(y[p], Ax, 1e-12) << H << "x" << W << " pixel " << p;
            ASSERT_NEAR(x2[p], x[p], 1e-15) << p;
            ASSERT_NEAR(res[p], b[p] - Ax, 1e-12) << p;
            if (n < 1000 && p != unused) { // not split: Gauss-Seidel in pixel order, (D + L) x = b
                ASSERT_NEAR(lower, b[p], 1e-12) << p;
            }
        }
        EXPECT_EQ(x[unused], 0.0);
        // The backward sweep, once with the product of the exact matrix formed on the way.
        std::vector<double> xb = x, ax(n);
        sweepGridMatrix(&S, inv.data(), b.data(), x.data(), false, false);
        sweepGridMatrixBackwardWithProduct(&S, inv.data(), b.data(), xb.data(), ax.data());
        multiplyGridMatrix(&A, x.data(), y.data());
        for (int64_t p = 0; p < n; ++p) {
            ASSERT_EQ(xb[p], x[p]) << p;
            ASSERT_NEAR(ax[p], y[p], 1e-12) << H << "x" << W << " pixel " << p;
        }
        sweepGridMatrix(&S, inv.data(), u.data(), Su.data(), true, true);
        sweepGridMatrix(&S, inv.data(), u.data(), Su.data(), false, false);
        expectSymmetric(b.data(), x.data(), u.data(), Su.data(), n, 1e-12);
    }
}

TEST(GridMatrix, SweepsOnActiveRunsLeaveLonePixelsAlone) {
    // Cut every coupling of a block of pixels and of pixel 3, whose row is left empty as for a pixel in
    // no window and without constraint: they become equations of their own, and the runs skip them,
    // clipped where the sweeps are split over two threads.
    GridMatrix A = randomGridMatrix(400, 330, 2, 71u);
    const int64_t n = gridPixels(&A);
    auto lone = [](int64_t p) {
        return p == 3 || (p % 400 >= 10 && p % 400 < 20 && p / 400 >= 5 && p / 400 < 25);
    };
    for (size_t k = 0; k < A.band_shift.size(); ++k)
        for (int64_t p = 0; p + A.band_shift[k] < n; ++p)
            if (lone(p) || lone(p + A.band_shift[k])) A.bands[k * n + p] = 0.0;
    A.diag[3] = 0.0;
    GridStencils S;
    copyGridStencils(&A, &S);
    PixelRuns runs;
    gridActiveRuns(&A, &runs);
    std::vector<char> in_run(n, 0);
    for (size_t k = 0; k < runs.size(); ++k) {
        EXPECT_TRUE(k == 0 || runs[k - 1].second < runs[k].first) << "sorted, disjoint and maximal";
        std::fill(in_run.begin() + runs[k].first, in_run.begin() + runs[k].second, 1);
    }
    const std::vector<double> b = randomVector(n, 73u);
    std::vector<double> inv(n), full(n), part(n, 5.0), res(n);
    for (int64_t p = 0; p < n; ++p)
        inv[p] = A.diag[p] > 0.0 ? 1.0 / A.diag[p] : 0.0;
    sweepGridMatrix(&S, inv.data(), b.data(), full.data(), true, true);
    sweepGridMatrixWithResidual(&S, inv.data(), b.data(), part.data(), res.data(), &runs);
    sweepGridMatrix(&S, inv.data(), b.data(), full.data(), false, false);
    sweepGridMatrix(&S, inv.data(), b.data(), part.data(), false, false, &runs);
    for (int64_t p = 0; p < n; ++p) {
        ASSERT_EQ(in_run[p], !lone(p)) << p;
        ASSERT_NEAR(part[p], lone(p) ? 5.0 : full[p], 1e-15) << "lone pixels are not written: " << p;
    }
}

} // namespace
