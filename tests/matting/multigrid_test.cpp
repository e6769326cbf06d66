// The multigrid preconditioner: exact on small grids, symmetric and positive with one coarse level.
// (What its colour coarse space buys is measured on conjugate gradients, in linear_solver_test.)
#include <gtest/gtest.h>

#include <numeric>

#include "matting/multigrid.h"
#include "synthetic_scene.h"

namespace {

TEST(Multigrid, CycleIsSymmetricPositiveAndExactWithoutCoarseLevels) {
    // 30 x 40 pixels are factored directly; at 60 x 60, 15 x 15 blocks of 4 x 4 pixels are, so the
    // cycle is one fixed linear operator M: conjugate gradients need u^T M v = v^T M u and u^T M u > 0.
    // A strip 3 pixels high has blocks cut short and boxes reaching out of the image on both sides.
    for (auto [H, W, levels] : {std::tuple{30, 40, 1}, {60, 60, 2}, {3, 900, 2}}) {
        GridSystem sys = sceneSystem(H, W, true);
        // The trimap's corner is an equation of its own; without its diagonal it is a pixel the system
        // does not use, which must come out as 0.
        const int64_t n = gridPixels(&sys.A), unused = 0;
        sys.A.diag[unused] = 0.0;
        Multigrid mg;
        buildMultigrid(&sys.A, sys.colour.data(), sys.channels, &mg);
        EXPECT_EQ(multigridLevelCount(&mg), levels);
        std::vector<double> u = randomVector(n, 3u), v = randomVector(n, 4u), Mu(n), Mv(n), AMu(n);
        u[unused] = v[unused] = 0.0;
        applyMultigrid(&mg, u.data(), Mu.data());
        applyMultigrid(&mg, v.data(), Mv.data());
        EXPECT_EQ(Mu[unused], 0.0);
        // The coarse level works in single precision: symmetric to its rounding.
        expectSymmetric(u.data(), Mu.data(), v.data(), Mv.data(), n, 1e-6);
        EXPECT_GT(std::inner_product(u.begin(), u.end(), Mu.begin(), 0.0), 0.0);
        multiplyGridMatrix(&sys.A, Mu.data(), AMu.data());
        for (int64_t p = 0; levels == 1 && p < n; ++p)
            EXPECT_NEAR(AMu[p], u[p], 1e-9 * (1.0 + sys.A.diag[p])) << p;
    }
}

TEST(Multigrid, FirstLevelTransferGivesBackTheSmoothedColourModel) {
    // The matting Laplacian gives no energy to 1 and the colour channels, so a coarse level that
    // reproduces them keeps the errors an iteration is slowest on within its reach. The transfer is
    // smoothed and then cut at a one-pixel border, which the per-pixel correction must make up for:
    // compare with (I - D^-1 A) phi computed here directly. 70 x 90 leaves partial blocks at two edges.
    for (bool trimap : {false, true}) {
        SCOPED_TRACE(trimap ? "trimap" : "scribbles");
        const GridSystem sys = sceneSystem(70, 90, trimap);
        const int64_t n = gridPixels(&sys.A);
        Multigrid mg;
        buildMultigrid(&sys.A, sys.colour.data(), sys.channels, &mg);
        ASSERT_GE(multigridLevelCount(&mg), 2);
        std::vector<char> coupled(n, 0);
        for (int64_t p = 0; p < n; ++p)
            forEachElement(sys.A, p, [&](int64_t q, double v) { coupled[p] |= q != p && v != 0.0; });
        int64_t constrained = 0;
        for (int candidate = 0; candidate < 4; ++candidate) {
            std::vector<double> phi(n, 0.0), Aphi(n), model(n);
            for (int64_t p = 0; p < n; ++p)
                if (coupled[p]) phi[p] = candidate == 0 ? 1.0 : sys.colour[(candidate - 1) * n + p];
            multiplyGridMatrix(&sys.A, phi.data(), Aphi.data());
            multigridColourModel(&mg, candidate, model.data());
            double worst = 0.0;
            for (int64_t p = 0; p < n; ++p) {
                const double expected = coupled[p] ? phi[p] - Aphi[p] / sys.A.diag[p] : 0.0;
                worst = std::max(worst, std::abs(model[p] - expected));
                // Rows with a constraint give phi energy: there the smoothing shows.
                constrained += candidate == 0 && std::abs(expected - phi[p]) > 0.1;
            }
            EXPECT_LT(worst, 1e-4) << "candidate " << candidate;
        }
        EXPECT_GT(constrained, 100);
    }
}

} // namespace
