// The three linear solvers behind the one interface: each against the dense solution of the same
// matrix, and each failure reported with its status and message rather than as a wrong answer.
#include <gtest/gtest.h>

#include <numeric>

#include "matting/linear_solver.h"
#include "synthetic_scene.h"

namespace {

// |a - b| / |b|
double relativeDistance(const std::vector<double> &a, const std::vector<double> &b) {
    double d = 0.0;
    for (size_t k = 0; k < a.size(); ++k)
        d += (a[k] - b[k]) * (a[k] - b[k]);
    return std::sqrt(d / std::inner_product(b.begin(), b.end(), b.begin(), 0.0));
}

double relativeResidual(const GridSystem &sys, const std::vector<double> &x) {
    std::vector<double> ax(x.size());
    multiplyGridMatrix(&sys.A, x.data(), ax.data());
    return relativeDistance(ax, sys.b);
}

TEST(LinearSolver, EverySolverMatchesTheDenseSolution) {
    // A scene's system, and a random one on four rows, where offsets of equal shift meet in the
    // compressed columns the direct solvers are given.
    const GridSystem random{randomGridMatrix(4, 7, 2, 3u), randomVector(28, 5u), 0, {}};
    for (GridSystem sys : {sceneSystem(24, 30, false), random}) {
        const int64_t n = gridPixels(&sys.A);
        std::vector<double> D(n * n, 0.0), x(n);
        for (int64_t p = 0; p < n; ++p)
            forEachElement(sys.A, p, [&](int64_t q, double v) { D[p * n + q] = v; });
        const std::vector<double> ref = dense_solve(D, sys.b);
        SolverReport report;
        for (SolverKind kind : {SOLVER_UMFPACK, SOLVER_CHOLMOD, SOLVER_CG}) {
            ASSERT_EQ(solveLinearSystem(kind, &sys, x.data(), nullptr, &report), SOLVE_OK)
                << solverKindName(kind) << ": " << report.message;
            // Conjugate gradients stop by the residual rule; the direct solvers are exact to rounding.
            EXPECT_LE(relativeResidual(sys, x), SolverOptions().tolerance) << solverKindName(kind);
            EXPECT_LT(relativeDistance(x, ref), kind == SOLVER_CG ? 1e-6 : 1e-8) << solverKindName(kind);
        }
        // A zero right-hand side (a level with background constraints only) gives exactly zero.
        sys.b.assign(n, 0.0);
        SolverOptions start;
        start.use_start = true;
        EXPECT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), &start, &report), SOLVE_OK);
        EXPECT_EQ(x, std::vector<double>(n, 0.0));
    }
}

TEST(LinearSolver, ConjugateGradientsMeetTheResidualRuleFastOrReportTheCap) {
    // Large enough for the multigrid to have coarse levels and for the work to be split over threads.
    for (bool trimap : {false, true}) {
        SCOPED_TRACE(trimap ? "trimap" : "scribbles");
        const GridSystem sys = sceneSystem(180, 200, trimap);
        std::vector<double> direct(sys.b.size()), x(sys.b.size());
        SolverReport report;
        ASSERT_EQ(solveLinearSystem(SOLVER_CHOLMOD, &sys, direct.data(), nullptr, &report), SOLVE_OK);
        ASSERT_EQ(solveLinearSystem(SOLVER_CG, &sys, x.data(), nullptr, &report), SOLVE_OK) << report.message;
        const double residual = relativeResidual(sys, x);
        EXPECT_LE(residual, SolverOptions().tolerance);
        EXPECT_NEAR(report.relative_residual, residual, 1e-3 * residual + 1e-14);
        // 14 and 11 with the smoothed first-level transfer; 32 and 25 when its functions stop at their
        // blocks' edges.
        EXPECT_LT(report.iterations, 20);
        EXPECT_LT(relativeDistance(x, direct), 1e-5);
        // What the residual rule is for: the 8-bit mattes agree on at least 99.9 % of the pixels and
        // never differ by more than 2.
        int64_t equal = 0;
        int worst = 0;
        for (size_t p = 0; p < x.size(); ++p) {
            auto byte = [](double v) { return int(std::clamp(v, 0.0, 1.0) * 255.0); };
            equal += byte(x[p]) == byte(direct[p]);
            worst = std::max(worst, std::abs(byte(x[p]) - byte(direct[p])));
        }
        EXPECT_GE(double(equal), 0.999 * double(x.size()));
        EXPECT_LE(worst, 2);
        // Rows without neighbours (the trimap's inside) get exactly b / diagonal: a matte of 1 there,
        // not 1 minus the iteration's last rounding error (254, not 255).
        int64_t lone = 0;
        for (int64_t p = 0; p < int64_t(x.size()); ++p) {
            bool coupled = false;
            forEachElement(sys.A, p, [&](int64_t q, double v) { coupled |= q != p && v != 0.0; });
            if (coupled || sys.A.diag[p] == 0.0) continue;
            EXPECT_EQ(x[p], sys.b[p] / sys.A.diag[p]) << p;
            ++lone;
        }
        EXPECT_GE(lone, trimap ? 1000 : 0);
        // The matting Laplacian gives almost no energy to alpha = b + a . colour, texture and noise
        // included, and a coarse space of constants alone cannot represent those errors: without the
        // colours, three times as many iterations are not enough, and the cap is reported.
        const GridSystem grey{sys.A, sys.b, 0, {}}; // no colour planes
        SolverOptions options;
        options.max_iterations = 3 * report.iterations;
        EXPECT_EQ(solveLinearSystem(SOLVER_CG, &grey, x.data(), &options, &report), SOLVE_NO_CONVERGENCE);
        EXPECT_EQ(report.iterations, options.max_iterations);
        const std::string text = "conjugate gradients did not converge within " +
                                 std::to_string(options.max_iterations) +
                                 " iterations: the relative residual is ";
        EXPECT_EQ(report.message.substr(0, text.size()), text);
    }
}

TEST(LinearSolver, CholmodRefusesAMatrixThatIsNotPositiveDefinite) {
    GridSystem sys;
    initGridMatrix(&sys.A, 5, 6, 1);
    const int64_t n = gridPixels(&sys.A);
    sys.b.assign(n, 1.0);
    sys.A.diag.assign(n, 4.0);
    sys.A.diag[2 + 3 * 5] = -1.0; // row 2, column 3
    std::vector<double> x(n, 123.0);
    SolverReport report;
    EXPECT_EQ(solveLinearSystem(SOLVER_CHOLMOD, &sys, x.data(), nullptr, &report),
              SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_EQ(report.message, "the matrix is not positive definite: the Cholesky factorisation failed at the "
                              "pixel in row 2, column 3");
    EXPECT_EQ(x[0], 123.0) << "the output is left alone";
}

} // namespace
