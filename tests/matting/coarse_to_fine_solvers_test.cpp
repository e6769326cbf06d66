// The coarse-to-fine driver with each linear solver: the same 8-bit matte as solveAlphaC2F with
// UMFPACK, on one level and over a pyramid, and a failed level reported instead of built upon.
#include <gtest/gtest.h>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "synthetic_scene.h"

namespace {

struct Outcome {
    std::vector<int> matte;
    SolverReport report; // solveAlphaC2F's status in report.status
};

// One run on a fresh scene, whose constraints the driver extends; solveAlphaC2F itself when `plain`.
// The matte as the calculation hands it on: scale2_255, then truncation to a byte.
Outcome run(int H, int W, int levels, int steps, SolverKind kind, bool plain = false) {
    const SyntheticScene s(H, W, false);
    Outcome r;
    double **alpha =
        plain ? solveAlphaC2F(&s.image, s.map, s.values, levels, steps, 1, &r.report.status, 0.02, 1e-7)
              : solveAlphaC2FWith(&s.image, s.map, s.values, levels, steps, 1, 0.02, 1e-7, kind, &r.report);
    scale2_255(alpha, W, H);
    r.matte.assign(alpha[0], alpha[0] + H * W); // row by row, each value truncated
    free_img((void **)alpha);
    return r;
}

TEST(CoarseToFineSolvers, EverySolverGivesTheUmfpackMatte) {
    for (auto [levels, steps] : {std::pair{1, 1}, {3, 2}}) {
        const Outcome reference = run(90, 120, levels, steps, SOLVER_UMFPACK, true);
        ASSERT_EQ(reference.report.status, 0);
        const Outcome umfpack = run(90, 120, levels, steps, SOLVER_UMFPACK);
        EXPECT_EQ(umfpack.report.status, 0);
        EXPECT_EQ(umfpack.matte, reference.matte) << "the UMFPACK choice is solveAlphaC2F itself";
        for (SolverKind kind : {SOLVER_CHOLMOD, SOLVER_CG}) {
            const Outcome other = run(90, 120, levels, steps, kind);
            ASSERT_EQ(other.report.status, SOLVE_OK) << solverKindName(kind) << ": " << other.report.message;
            // The 8-bit mattes agree as the solvers are required to: equal on 99.9 % of the pixels,
            // never more than 2 apart.
            int differ = 0;
            for (size_t k = 0; k < other.matte.size(); k++) {
                differ += other.matte[k] != reference.matte[k];
                EXPECT_LE(std::abs(other.matte[k] - reference.matte[k]), 2)
                    << solverKindName(kind) << " " << k;
            }
            EXPECT_LE(differ, int(other.matte.size()) / 1000) << solverKindName(kind);
        }
    }
}

TEST(CoarseToFineSolvers, FailedLevelIsReportedAndNotBuiltUpon) {
    // Seven rows: the coarser level has two, too few for a window, so its unconstrained pixels have no
    // equation and Cholesky refuses the matrix. The finer level, which it would solve, is not solved.
    const Outcome cholmod = run(7, 40, 2, 2, SOLVER_CHOLMOD);
    EXPECT_EQ(cholmod.report.status, SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_NE(cholmod.report.message.find("not positive definite"), std::string::npos);
    EXPECT_EQ(run(7, 40, 1, 1, SOLVER_CHOLMOD).report.status, SOLVE_OK);
}

} // namespace
