// Multigrid-preconditioned flexible conjugate gradients on the compact matting system.
#include "matting/cg_solver.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <new>
#include <vector>

#include "matting/multigrid.h"
#include "matting/parallel.h"

static constexpr int64_t kParallelGrain = 1 << 15;

static double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Sums of body(first, last) over the runs of active pixels, up to three at a time, in fixed pieces of
// [0, n) added in a fixed order, so that the result does not depend on which thread ran what.
static void sumOverRuns(const PixelRuns &runs, int64_t n,
                        const std::function<void(int64_t, int64_t, double *)> &body, double *first,
                        double *second = nullptr, double *third = nullptr) {
    constexpr int kPieces = 16;
    const int pieces = n < kParallelGrain ? 1 : kPieces;
    double part[kPieces][3] = {};
    parallelTasks(pieces, [&](int k) {
        forEachRun(&runs, n * k / pieces, n * (k + 1) / pieces,
                   [&](int64_t a, int64_t b) { body(a, b, part[k]); });
    });
    double total[3] = {0.0, 0.0, 0.0};
    for (int k = 0; k < pieces; ++k)
        for (int j = 0; j < 3; ++j)
            total[j] += part[k][j];
    *first = total[0];
    if (second) *second = total[1];
    if (third) *third = total[2];
}

// res = b - A x on the active pixels; returns |res|^2.
static double trueResidual(const GridMatrix *A, const PixelRuns &runs, const double *b, const double *x,
                           double *res) {
    double rr;
    sumOverRuns(
        runs, gridPixels(A),
        [&](int64_t first, int64_t last, double *sums) {
            multiplyGridMatrixRange(A, x, res, first, last);
            double s0 = 0.0;
            for (int64_t i = first; i < last; ++i) {
                res[i] = b[i] - res[i];
                s0 += res[i] * res[i];
            }
            sums[0] += s0;
        },
        &rr);
    return rr;
}

static int fail(SolverReport *report, int status, const char *format, int iterations) {
    char text[240];
    std::snprintf(text, sizeof text, format, iterations);
    report->message = text;
    return status;
}

// The preconditioner changes slightly from one application to the next (its coarse levels iterate),
// so each new direction is made conjugate to the previous one explicitly, p = z - (z.Aq / p.Aq) p,
// which is conjugate gradients when the preconditioner is fixed and stays robust when it is not.
static int iterate(const GridSystem *system, double *x, const SolverOptions &opt, SolverReport *report) {
    const GridMatrix *A = &system->A;
    const double *b = system->b.data();
    const int64_t n = gridPixels(A);
    double bb = 0.0;
    for (int64_t i = 0; i < n; ++i)
        bb += b[i] * b[i];
    const double bnorm = std::sqrt(bb);
    if (!opt.use_start)
        for (int64_t i = 0; i < n; ++i)
            x[i] = 0.0;
    if (bnorm == 0.0) {
        // Only x = 0 solves a positive definite system with b = 0; unused pixels keep their start.
        for (int64_t i = 0; i < n; ++i)
            if (A->diag[i] != 0.0) x[i] = 0.0;
        return SOLVE_OK;
    }
    const double goal = opt.tolerance * bnorm;

    auto setup_start = std::chrono::steady_clock::now();
    // A pixel whose row has no off-diagonal element (deep inside a scribble, or anywhere a trimap fixes
    // it) is an equation of its own, with the exact value b / A(p, p): set it so, rather than let it
    // carry an iteration's rounding (which decides between 254 and 255 for a pixel that should be
    // exactly 1), and leave it out of the iteration, which then works on the coupled pixels only.
    PixelRuns runs;
    gridActiveRuns(A, &runs);
    std::vector<char> coupled;
    gridCoupledPixels(A, &coupled);
    for (int64_t i = 0; i < n; ++i)
        if (!coupled[i] && A->diag[i] != 0.0) x[i] = b[i] / A->diag[i];
    Multigrid mg;
    buildMultigrid(A, system->colour.empty() ? nullptr : system->colour.data(), system->channels, &mg);
    std::vector<double> r(n, 0.0), z(n, 0.0), p(n, 0.0), q(n, 0.0), az(n, 0.0);
    report->setup_seconds = secondsSince(setup_start);

    auto solve_start = std::chrono::steady_clock::now();
    double rnorm = std::sqrt(trueResidual(A, runs, b, x, r.data()));
    bool restart = true;
    double pq_previous = 0.0;
    int it = 0;
    int status = SOLVE_OK;
    for (;;) {
        if (rnorm <= goal) {
            // The recurrence for r drifts from b - A x; stop only when the true residual agrees.
            rnorm = std::sqrt(trueResidual(A, runs, b, x, r.data()));
            if (rnorm <= goal) break;
            restart = true; // beta = 0 also sets q = A p afresh
        }
        if (it >= opt.max_iterations) {
            status = SOLVE_NO_CONVERGENCE;
            break;
        }
        applyMultigrid(&mg, r.data(), z.data(), az.data());
        // r.z, z.Ap and p.r of the previous direction, in one pass (local sums: the compiler cannot
        // keep a sum that might alias the vectors in a register).
        double rz, zq, pr_previous;
        sumOverRuns(
            runs, n,
            [&](int64_t first, int64_t last, double *sums) {
                double s0 = 0.0, s1 = 0.0, s2 = 0.0;
                for (int64_t i = first; i < last; ++i) {
                    s0 += r[i] * z[i];
                    s1 += z[i] * q[i];
                    s2 += p[i] * r[i];
                }
                sums[0] += s0;
                sums[1] += s1;
                sums[2] += s2;
            },
            &rz, &zq, &pr_previous);
        if (!(rz > 0.0)) {
            status =
                fail(report, SOLVE_NOT_POSITIVE_DEFINITE,
                     "conjugate gradients broke down after %d iterations: the preconditioned residual has "
                     "no positive length (is the matrix positive definite?)",
                     it);
            break;
        }
        const double beta = restart ? 0.0 : zq / pq_previous;
        restart = false;
        // The new direction p = z - beta p and its product q = A p = A z - beta q, with A z from the
        // cycle's last sweep; p.r follows from the sums above.
        const double pr = rz - beta * pr_previous;
        double curvature;
        sumOverRuns(
            runs, n,
            [&](int64_t first, int64_t last, double *sums) {
                double s0 = 0.0;
                for (int64_t i = first; i < last; ++i) {
                    p[i] = z[i] - beta * p[i];
                    q[i] = az[i] - beta * q[i];
                    s0 += p[i] * q[i];
                }
                sums[0] += s0;
            },
            &curvature);
        ++it;
        if (!(curvature > 0.0)) {
            status = fail(report, SOLVE_NOT_POSITIVE_DEFINITE,
                          "the matrix is not positive definite: conjugate gradients met a direction of "
                          "non-positive curvature at iteration %d",
                          it);
            break;
        }
        pq_previous = curvature;
        const double alpha = pr / curvature;
        double rr;
        sumOverRuns(
            runs, n,
            [&](int64_t first, int64_t last, double *sums) {
                double s0 = 0.0;
                for (int64_t i = first; i < last; ++i) {
                    x[i] += alpha * p[i];
                    r[i] -= alpha * q[i];
                    s0 += r[i] * r[i];
                }
                sums[0] += s0;
            },
            &rr);
        rnorm = std::sqrt(rr);
    }
    report->iterations = it;
    report->relative_residual = rnorm / bnorm;
    report->solve_seconds = secondsSince(solve_start);
    if (status == SOLVE_NO_CONVERGENCE) {
        char text[240];
        std::snprintf(
            text, sizeof text,
            "conjugate gradients did not converge within %d iterations: the relative residual is %.3g, "
            "above the tolerance %.3g",
            it, rnorm / bnorm, opt.tolerance);
        report->message = text;
    }
    return status;
}

int cgSolveGrid(const GridSystem *system, double *x, const SolverOptions *options, SolverReport *report) {
    const SolverOptions opt = options ? *options : SolverOptions();
    *report = SolverReport();
    try {
        report->status = iterate(system, x, opt, report);
    } catch (const std::bad_alloc &) {
        report->status = SOLVE_OUT_OF_MEMORY;
        report->message = "not enough memory for the conjugate gradient solver";
    }
    return report->status;
}
