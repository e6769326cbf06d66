// The coarse-to-fine driver with each linear solver: the same 8-bit matte as solveAlphaC2F with
// UMFPACK, on one level and over a pyramid, and a failed level reported instead of built upon.
#include <gtest/gtest.h>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "synthetic_scene.h"

namespace {

struct Outcome {
    std::vector<int> matte;
    SolverReport report;
    int status = -3;
};

// One run on a fresh scene, whose constraints the driver extends; solveAlphaC2F itself when `plain`.
// The matte as the calculation hands it on: scale2_255, then truncation to a byte.
Outcome run(int H, int W, int levels, int steps, SolverKind kind, bool plain = false) {
    const SyntheticScene s(H, W, false);
    Outcome r;
    double **alpha =
        plain ? solveAlphaC2F(&s.image, s.map, s.values, levels, steps, 1, &r.status, 0.02, 1e-7)
              : solveAlphaC2FWith(&s.image, s.map, s.values, levels, steps, 1, 0.02, 1e-7, kind, &r.report);
    scale2_255(alpha, W, H);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            r.matte.push_back(int(alpha[i][j]));
    free_img((void **)alpha);
    return r;
}

// Two 8-bit mattes agree as the solvers are required to: equal on 99.9 % of the pixels, never more than
// 2 apart.
void expectSameMatte(const std::vector<int> &a, const std::vector<int> &b, const char *what) {
    size_t same = 0;
    for (size_t k = 0; k < a.size(); k++) {
        same += a[k] == b[k];
        EXPECT_LE(std::abs(a[k] - b[k]), 2) << what << " at " << k;
    }
    EXPECT_GE(same, size_t(std::ceil(0.999 * a.size()))) << what;
}

TEST(CoarseToFineSolvers, EverySolverGivesTheUmfpackMatte) {
    int cg_iterations[2];
    for (auto [levels, steps] : {std::pair{1, 1}, {3, 2}}) {
        const Outcome reference = run(90, 120, levels, steps, SOLVER_UMFPACK, true);
        ASSERT_EQ(reference.status, 0);
        const Outcome umfpack = run(90, 120, levels, steps, SOLVER_UMFPACK);
        EXPECT_EQ(umfpack.report.status, 0);
        EXPECT_EQ(umfpack.matte, reference.matte) << "the UMFPACK choice is solveAlphaC2F itself";
        for (SolverKind kind : {SOLVER_CHOLMOD, SOLVER_CG}) {
            const Outcome other = run(90, 120, levels, steps, kind);
            ASSERT_EQ(other.report.status, SOLVE_OK) << solverKindName(kind) << ": " << other.report.message;
            expectSameMatte(other.matte, reference.matte, solverKindName(kind));
            cg_iterations[levels > 1] = other.report.iterations;
        }
    }
    // Conjugate gradients start from the coarser matte, and the finest level has more constraints:
    // fewer iterations there than on the image alone.
    EXPECT_LT(cg_iterations[1], cg_iterations[0]);
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
