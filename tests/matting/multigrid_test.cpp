// The multigrid preconditioner: exact on small grids, symmetric and positive with one coarse level, and
// effective because its coarse space follows the colours.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "matting/cg_solver.h"
#include "matting/compact_laplacian.h"
#include "matting/multigrid.h"
#include "synthetic_scene.h"

namespace {

GridSystem sceneSystem(int H, int W) {
    SyntheticScene scene = makeScene(H, W, false);
    GridSystem sys;
    std::string message;
    EXPECT_EQ(getCompactMattingSystem(&scene.image, scene.map, scene.values, 1, 1e-7, &sys, &message), 0);
    freeScene(&scene);
    return sys;
}

std::vector<double> randomVector(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(n);
    for (double &x : v)
        x = u(rng);
    return v;
}

TEST(Multigrid, SmallGridsAreSolvedExactly) {
    GridSystem sys = sceneSystem(30, 40);
    const int64_t n = gridPixels(&sys.A);
    // A pixel the system does not use: no row at all. It must come out as 0.
    const int64_t unused = 5 + 7 * 30;
    sys.A.diag[unused] = 0.0;
    for (size_t k = 0; k < sys.A.band_shift.size(); ++k) {
        sys.A.bands[k * n + unused] = 0.0;
        if (unused - sys.A.band_shift[k] >= 0) sys.A.bands[k * n + unused - sys.A.band_shift[k]] = 0.0;
    }
    Multigrid mg;
    buildMultigrid(&sys.A, sys.colour.data(), sys.channels, &mg);
    EXPECT_EQ(multigridLevelCount(&mg), 1);
    std::vector<double> r = randomVector(n, 3u), z(n), Az(n);
    r[unused] = 0.0;
    applyMultigrid(&mg, r.data(), z.data());
    multiplyGridMatrix(&sys.A, z.data(), Az.data());
    for (int64_t p = 0; p < n; ++p)
        EXPECT_NEAR(Az[p], r[p], 1e-9 * (1.0 + sys.A.diag[p])) << p;
    EXPECT_EQ(z[unused], 0.0);
}

TEST(Multigrid, CycleWithOneCoarseLevelIsSymmetricAndPositive) {
    // 60 x 60 pixels: 15 x 15 blocks of 4 x 4 pixels, factored directly, so the cycle is one fixed
    // linear operator M; conjugate gradients need u^T M v = v^T M u and u^T M u > 0.
    const GridSystem sys = sceneSystem(60, 60);
    const int64_t n = gridPixels(&sys.A);
    Multigrid mg;
    buildMultigrid(&sys.A, sys.colour.data(), sys.channels, &mg);
    EXPECT_EQ(multigridLevelCount(&mg), 2);
    for (unsigned seed = 1; seed <= 3; ++seed) {
        const std::vector<double> u = randomVector(n, seed), v = randomVector(n, seed + 100);
        std::vector<double> Mu(n), Mv(n);
        applyMultigrid(&mg, u.data(), Mu.data());
        applyMultigrid(&mg, v.data(), Mv.data());
        double uMv = 0.0, vMu = 0.0, uMu = 0.0, scale = 0.0;
        for (int64_t p = 0; p < n; ++p) {
            uMv += u[p] * Mv[p];
            vMu += v[p] * Mu[p];
            uMu += u[p] * Mu[p];
            scale += std::fabs(u[p] * Mv[p]);
        }
        // The coarse level works in single precision: symmetric to its rounding.
        EXPECT_NEAR(uMv, vMu, 1e-6 * scale);
        EXPECT_GT(uMu, 0.0);
    }
}

TEST(Multigrid, ColourCoarseSpaceIsWhatMakesConjugateGradientsFast) {
    // The matting Laplacian gives almost no energy to alpha = b + a . colour, texture and noise
    // included; a coarse space of constants alone cannot represent those errors.
    const GridSystem with = sceneSystem(160, 200);
    Multigrid mg;
    buildMultigrid(&with.A, with.colour.data(), with.channels, &mg);
    EXPECT_GT(multigridLevelCount(&mg), 2) << "coarse levels below the first are iterated (K-cycle)";
    GridSystem without = with;
    without.colour.clear();
    without.channels = 0;
    SolverOptions options;
    options.max_iterations = 150;
    std::vector<double> x(with.b.size());
    SolverReport colour, plain;
    EXPECT_EQ(cgSolveGrid(&with, x.data(), &options, &colour), SOLVE_OK);
    EXPECT_LT(colour.iterations, 50);
    // The constant-only coarse space still gives a working preconditioner, just a much slower one.
    cgSolveGrid(&without, x.data(), &options, &plain);
    EXPECT_GT(plain.iterations, 3 * colour.iterations);
}

} // namespace
