// The coarse-to-fine driver with each linear solver: the same 8-bit matte as the specified driver with
// UMFPACK, on one level and over a pyramid, and a failed level reported instead of built upon.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "synthetic_scene.h"

namespace {

double **copyArray(double **a, int H, int W) {
    double **c = (double **)get_img(W, H, sizeof(double));
    std::memcpy(c[0], a[0], sizeof(double) * H * W);
    return c;
}

// The matte as the calculation hands it on: scale2_255, then truncation to a byte.
std::vector<int> bytes(double **alpha, int H, int W) {
    scale2_255(alpha, W, H);
    std::vector<int> out;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            out.push_back(int(alpha[i][j]));
    return out;
}

struct Outcome {
    std::vector<int> matte;
    SolverReport report;
    int status;
};

Outcome run(const SyntheticScene &scene, int levels, int steps, SolverKind kind, bool specified) {
    const int H = scene.height, W = scene.width;
    double **map = copyArray(scene.map, H, W), **values = copyArray(scene.values, H, W);
    Outcome r;
    r.status = -3;
    double **alpha =
        specified
            ? solveAlphaC2F(&scene.image, map, values, levels, steps, 1, &r.status, 0.02, 1e-7)
            : solveAlphaC2FWith(&scene.image, map, values, levels, steps, 1, 0.02, 1e-7, kind, &r.report);
    r.matte = bytes(alpha, H, W);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    return r;
}

void expectAgreement(const std::vector<int> &a, const std::vector<int> &b, const char *what) {
    size_t same = 0;
    int worst = 0;
    for (size_t k = 0; k < a.size(); k++) {
        same += a[k] == b[k];
        worst = std::max(worst, std::abs(a[k] - b[k]));
    }
    EXPECT_GE(same, size_t(std::ceil(0.999 * a.size()))) << what;
    EXPECT_LE(worst, 2) << what;
}

TEST(CoarseToFineSolvers, EverySolverGivesTheSpecifiedMatte) {
    SyntheticScene scene = makeScene(90, 120, false);
    for (auto [levels, steps] : {std::pair{1, 1}, {3, 2}}) {
        const Outcome reference = run(scene, levels, steps, SOLVER_UMFPACK, true);
        ASSERT_EQ(reference.status, 0);
        const Outcome umfpack = run(scene, levels, steps, SOLVER_UMFPACK, false);
        EXPECT_EQ(umfpack.report.status, 0);
        EXPECT_EQ(umfpack.matte, reference.matte) << "the UMFPACK choice is the specified driver";
        for (SolverKind kind : {SOLVER_CHOLMOD, SOLVER_CG}) {
            const Outcome other = run(scene, levels, steps, kind, false);
            ASSERT_EQ(other.report.status, SOLVE_OK) << solverKindName(kind) << ": " << other.report.message;
            expectAgreement(other.matte, reference.matte, solverKindName(kind));
        }
    }
    freeScene(&scene);
}

TEST(CoarseToFineSolvers, ConjugateGradientsStartFromTheCoarserMatte) {
    SyntheticScene scene = makeScene(90, 120, true);
    const Outcome one = run(scene, 1, 1, SOLVER_CG, false), two = run(scene, 2, 2, SOLVER_CG, false);
    ASSERT_EQ(one.report.status, SOLVE_OK);
    ASSERT_EQ(two.report.status, SOLVE_OK);
    // The finest level of the pyramid has more constraints and a good start: fewer iterations.
    EXPECT_LT(two.report.iterations, one.report.iterations);
    freeScene(&scene);
}

TEST(CoarseToFineSolvers, FailedLevelIsReportedAndNotBuiltUpon) {
    // Seven rows: the coarser level has two, too few for a window, so its unconstrained pixels have no
    // equation and Cholesky refuses the matrix. The finer level is then not solved.
    SyntheticScene scene = makeScene(7, 40, false);
    int solved_levels = 0;
    setEnginePhaseHook(
        [](const EnginePhaseEvent *e, void *data) {
            if (e->phase == ENGINE_PHASE_LEVEL && !e->starting && e->solved) ++*static_cast<int *>(data);
        },
        &solved_levels);
    const Outcome cholmod = run(scene, 2, 2, SOLVER_CHOLMOD, false);
    setEnginePhaseHook(nullptr, nullptr);
    EXPECT_EQ(cholmod.report.status, SOLVE_NOT_POSITIVE_DEFINITE);
    EXPECT_NE(cholmod.report.message.find("not positive definite"), std::string::npos);
    EXPECT_EQ(solved_levels, 1) << "only the failed coarse level was solved";
    freeScene(&scene);
}

} // namespace
