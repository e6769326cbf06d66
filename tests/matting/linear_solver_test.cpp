// The three linear solvers behind the one interface: each against the dense solution of the same
// matrix, and each failure reported with its status and message rather than as a wrong answer.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "matting/compact_laplacian.h"
#include "matting/linear_solver.h"
#include "synthetic_scene.h"

namespace {

GridSystem sceneSystem(int H, int W, bool trimap) {
    SyntheticScene scene = makeScene(H, W, trimap);
    GridSystem sys;
    std::string message;
    EXPECT_EQ(getCompactMattingSystem(&scene.image, scene.map, scene.values, 1, 1e-7, &sys, &message), 0);
    freeScene(&scene);
    return sys;
}

// Dense solution by Gaussian elimination with partial pivoting on the matrix written out element by
// element.
std::vector<double> denseSolve(const GridSystem &sys) {
    const GridMatrix &A = sys.A;
    const int64_t n = gridPixels(&A);
    std::vector<double> M(n * (n + 1), 0.0);
    for (int64_t p = 0; p < n; ++p) {
        for (int dc = -A.reach; dc <= A.reach; ++dc)
            for (int dr = -A.reach; dr <= A.reach; ++dr) {
                const int i = int(p % A.height) + dr, j = int(p / A.height) + dc;
                if (i < 0 || i >= A.height || j < 0 || j >= A.width) continue;
                M[p * (n + 1) + i + int64_t(j) * A.height] = gridElement(&A, p, dr, dc);
            }
        M[p * (n + 1) + n] = sys.b[p];
    }
    for (int64_t k = 0; k < n; ++k) {
        int64_t pivot = k;
        for (int64_t r = k + 1; r < n; ++r)
            if (std::fabs(M[r * (n + 1) + k]) > std::fabs(M[pivot * (n + 1) + k])) pivot = r;
        for (int64_t c = 0; c <= n; ++c)
            std::swap(M[k * (n + 1) + c], M[pivot * (n + 1) + c]);
        for (int64_t r = k + 1; r < n; ++r) {
            const double f = M[r * (n + 1) + k] / M[k * (n + 1) + k];
            if (f != 0.0)
                for (int64_t c = k; c <= n; ++c)
                    M[r * (n + 1) + c] -= f * M[k * (n + 1) + c];
        }
    }
    std::vector<double> x(n);
    for (int64_t r = n - 1; r >= 0; --r) {
        double v = M[r * (n + 1) + n];
        for (int64_t c = r + 1; c < n; ++c)
            v -= M[r * (n + 1) + c] * x[c];
        x[r] = v / M[r * (n + 1) + r];
    }
    return x;
}

double relativeError(const std::vector<double> &x, const std::vector<double> &ref) {
    double d = 0.0, s = 0.0;
    for (size_t k = 0; k < x.size(); ++k) {
        d += (x[k] - ref[k]) * (x[k] - ref[k]);
        s += ref[k] * ref[k];
    }
    return std::sqrt(d / s);
}

double relativeResidual(const GridSystem &sys, const std::vector<double> &x) {
    std::vector<double> ax(x.size());
    multiplyGridMatrix(&sys.A, x.data(), ax.data());
    double r = 0.0, b = 0.0;
    for (size_t k = 0; k < x.size(); ++k) {
        r += (sys.b[k] - ax[k]) * (sys.b[k] - ax[k]);
        b += sys.b[k] * sys.b[k];
    }
    return std::sqrt(r / b);
}

TEST(LinearSolver, EverySolverMatchesTheDenseSolution) {
    const GridSystem sys = sceneSystem(24, 30, false);
    const std::vector<double> ref = denseSolve(sys);
    for (SolverKind kind : {SOLVER_UMFPACK, SOLVER_CHOLMOD, SOLVER_CG}) {
        std::vector<double> x(ref.size(), 0.0);
        SolverReport report;
        ASSERT_EQ(solveLinearSystem(kind, &sys, x.data(), nullptr, &report), SOLVE_OK)
            << solverKindName(kind) << ": " << report.message;
        EXPECT_TRUE(report.message.empty());
        if (kind == SOLVER_CG) {
            EXPECT_LE(relativeResidual(sys, x), SolverOptions().tolerance);
            EXPECT_LT(relativeError(x, ref), 1e-6);
        } else {
            EXPECT_LT(relativeError(x, ref), 1e-8) << solverKindName(kind);
        }
    }
}

TEST(LinearSolver, ConjugateGradientsMeetTheResidualRuleOnLargerImages) {
    // Large enough for the multigrid to have coarse levels and for the work to be split over threads.
    for (bool trimap : {false, true}) {
        const GridSystem sys = sceneSystem(150, 180, trimap);
        std::vector<double> direct(sys.b.size()), x(sys.b.size());
        SolverReport report;
        ASSERT_EQ(solveLinearSystem(SOLVER_CHOLMOD, &sys, direct.data(), nullptr, &report), SOLVE_OK);
        EXPECT_LT(report.relative_residual, 1e-12);
        ASSERT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), nullptr, &report), SOLVE_OK) << report.message;
        const double residual = relativeResidual(sys, x);
        EXPECT_LE(residual, 1e-10);
        EXPECT_NEAR(report.relative_residual, residual, 1e-3 * residual + 1e-14);
        EXPECT_GT(report.iterations, 1);
        EXPECT_LT(report.iterations, 60) << (trimap ? "trimap" : "scribbles");
        // The 8-bit mattes (clamped, scaled, truncated as the calculation does) agree.
        int64_t same = 0;
        int worst = 0;
        for (size_t k = 0; k < x.size(); ++k) {
            const int a = int(std::clamp(x[k], 0.0, 1.0) * 255.0),
                      b = int(std::clamp(direct[k], 0.0, 1.0) * 255.0);
            same += a == b;
            worst = std::max(worst, std::abs(a - b));
        }
        EXPECT_GE(same, int64_t(0.999 * x.size()));
        EXPECT_LE(worst, 2);
    }
}

TEST(LinearSolver, ConjugateGradientsStartFromTheGivenMatte) {
    const GridSystem sys = sceneSystem(150, 180, false);
    std::vector<double> x(sys.b.size(), 0.0);
    SolverReport cold, warm;
    solveLinearSystem(SOLVER_CG, &sys, x.data(), nullptr, &cold);
    // Restarting from the solution itself needs no further work.
    SolverOptions options;
    options.use_start = true;
    solveLinearSystem(SOLVER_CG, &sys, x.data(), &options, &warm);
    EXPECT_EQ(warm.status, SOLVE_OK);
    EXPECT_LE(warm.iterations, 1);
    EXPECT_GT(cold.iterations, 5);
}

TEST(LinearSolver, PixelsWithoutNeighboursGetTheirExactValue) {
    // Deep inside the trimap's foreground every window is constrained: the rows are lone diagonals and
    // the matte there must be exactly 1, not 1 minus the iteration's last rounding error (254, not 255).
    const GridSystem sys = sceneSystem(150, 180, true);
    std::vector<char> coupled;
    gridCoupledPixels(&sys.A, &coupled);
    std::vector<double> x(sys.b.size());
    SolverReport report;
    ASSERT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), nullptr, &report), SOLVE_OK);
    int64_t lone = 0;
    for (size_t p = 0; p < x.size(); ++p)
        if (!coupled[p] && sys.A.diag[p] != 0.0) {
            EXPECT_EQ(x[p], sys.b[p] / sys.A.diag[p]);
            ++lone;
        }
    EXPECT_GT(lone, 1000);
}

TEST(LinearSolver, CholmodRefusesAMatrixThatIsNotPositiveDefinite) {
    GridSystem sys;
    initGridMatrix(&sys.A, 5, 6, 1);
    const int64_t n = gridPixels(&sys.A);
    sys.b.assign(n, 1.0);
    for (int64_t p = 0; p < n; ++p)
        sys.A.diag[p] = 4.0;
    sys.A.diag[2 + 3 * 5] = -1.0; // row 2, column 3
    std::vector<double> x(n, 123.0);
    SolverReport report;
    EXPECT_EQ(solveLinearSystem(SOLVER_CHOLMOD, &sys, x.data(), nullptr, &report),
              SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_EQ(report.status, SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_EQ(report.message, "the matrix is not positive definite: the Cholesky factorisation failed at the "
                              "pixel in row 2, column 3");
    EXPECT_EQ(x[0], 123.0) << "the output is left alone";

    // An image too low for any window leaves its unconstrained pixels without an equation at all.
    GridSystem empty;
    initGridMatrix(&empty.A, 2, 4, 2);
    empty.b.assign(8, 0.0);
    empty.A.diag[0] = 100.0;
    empty.b[0] = 100.0;
    EXPECT_EQ(solveLinearSystem(SOLVER_CHOLMOD, &empty, x.data(), nullptr, &report),
              SOLVE_NOT_POSITIVE_DEFINITE);
}

TEST(LinearSolver, ConjugateGradientsReportTheIterationCap) {
    const GridSystem sys = sceneSystem(150, 180, false);
    std::vector<double> x(sys.b.size());
    SolverOptions options;
    options.max_iterations = 3;
    SolverReport report;
    EXPECT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), &options, &report), SOLVE_NO_CONVERGENCE);
    EXPECT_EQ(report.iterations, 3);
    EXPECT_GT(report.relative_residual, options.tolerance);
    EXPECT_EQ(report.message.rfind("conjugate gradients did not converge within 3 iterations: the relative "
                                   "residual is ",
                                   0),
              0u)
        << report.message;
}

TEST(LinearSolver, ConjugateGradientsReportAnIndefiniteMatrix) {
    // Two pixels coupled more strongly than their diagonals allow: eigenvalues -1 and 3.
    GridSystem sys;
    initGridMatrix(&sys.A, 4, 4, 1);
    const int64_t n = gridPixels(&sys.A);
    for (int64_t p = 0; p < n; ++p)
        sys.A.diag[p] = 1.0;
    sys.A.bands[gridBandIndex(&sys.A, 1, 0) * n + 0] = 2.0;
    sys.b.assign(n, 0.0);
    sys.b[0] = 1.0;
    std::vector<double> x(n);
    SolverReport report;
    EXPECT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), nullptr, &report), SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_NE(report.message.find("positive definite"), std::string::npos) << report.message;
}

TEST(LinearSolver, ZeroRightHandSideGivesZero) {
    GridSystem sys = sceneSystem(20, 20, false);
    for (double &v : sys.b)
        v = 0.0;
    std::vector<double> x(sys.b.size(), 0.5);
    SolverReport report;
    SolverOptions options;
    options.use_start = true;
    EXPECT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), &options, &report), SOLVE_OK);
    for (double v : x)
        EXPECT_EQ(v, 0.0);
}

TEST(LinearSolver, SolverNamesRoundTrip) {
    for (SolverKind kind : {SOLVER_UMFPACK, SOLVER_CHOLMOD, SOLVER_CG}) {
        SolverKind parsed = SOLVER_CG;
        EXPECT_EQ(parseSolverKind(solverKindName(kind), &parsed), 0);
        EXPECT_EQ(parsed, kind);
    }
    SolverKind kind = SOLVER_CHOLMOD;
    EXPECT_EQ(parseSolverKind("CG", &kind), -1);
    EXPECT_EQ(parseSolverKind("", &kind), -1);
    EXPECT_EQ(parseSolverKind(nullptr, &kind), -1);
    EXPECT_EQ(kind, SOLVER_CHOLMOD);
}

} // namespace
