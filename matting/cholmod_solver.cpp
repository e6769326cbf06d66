// Supernodal Cholesky solution of the matting system through CHOLMOD's 64-bit interface.
#include "matting/cholmod_solver.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <new>
#include <vector>

#include <cholmod.h>

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Owns the CHOLMOD workspace and the factor for the length of one solve.
struct Cholmod {
    cholmod_common common;
    cholmod_factor *factor = nullptr;
    Cholmod() {
        cholmod_l_start(&common);
        common.print = 0;
        common.supernodal = CHOLMOD_SUPERNODAL;
        common.nmethods = 1;
        common.method[0].ordering = CHOLMOD_AMD;
        common.postorder = 1;
        common.quick_return_if_not_posdef = 1;
    }
    ~Cholmod() {
        if (factor) cholmod_l_free_factor(&factor, &common);
        cholmod_l_finish(&common);
    }
    Cholmod(const Cholmod &) = delete;
    Cholmod &operator=(const Cholmod &) = delete;
};

int failure(int cholmod_status, const char *stage, SolverReport *report) {
    char text[160];
    if (cholmod_status == CHOLMOD_OUT_OF_MEMORY || cholmod_status == CHOLMOD_TOO_LARGE) {
        std::snprintf(text, sizeof text, "not enough memory for the Cholesky %s (CHOLMOD status %d)", stage,
                      cholmod_status);
        report->message = text;
        return report->status = SOLVE_OUT_OF_MEMORY;
    }
    std::snprintf(text, sizeof text, "the Cholesky %s failed (CHOLMOD status %d)", stage, cholmod_status);
    report->message = text;
    return report->status = SOLVE_FAILED;
}

int solve(const GridMatrix *A, const double *b, double *x, SolverReport *report) {
    const int64_t n = gridPixels(A);
    Cholmod cm;
    auto setup_start = std::chrono::steady_clock::now();
    {
        std::vector<SuiteSparse_long> colptr, rowind;
        std::vector<double> values;
        gridMatrixToUpperColumns(A, &colptr, &rowind, &values);
        // A view of the arrays above; CHOLMOD reads it and never frees it.
        cholmod_sparse S = {};
        S.nrow = S.ncol = size_t(n);
        S.nzmax = values.size();
        S.p = colptr.data();
        S.i = rowind.data();
        S.x = values.data();
        S.stype = 1;
        S.itype = CHOLMOD_LONG;
        S.xtype = CHOLMOD_REAL;
        S.dtype = CHOLMOD_DOUBLE;
        S.sorted = 1;
        S.packed = 1;
        cm.factor = cholmod_l_analyze(&S, &cm.common);
        if (!cm.factor) return failure(cm.common.status, "analysis", report);
        cholmod_l_factorize(&S, cm.factor, &cm.common);
        if (cm.common.status == CHOLMOD_NOT_POSDEF) {
            const size_t k = cm.factor->minor;
            const SuiteSparse_long *perm = static_cast<const SuiteSparse_long *>(cm.factor->Perm);
            const int64_t pixel = (perm && k < size_t(n)) ? perm[k] : int64_t(k);
            char text[200];
            std::snprintf(text, sizeof text,
                          "the matrix is not positive definite: the Cholesky factorisation failed at the "
                          "pixel in row %lld, column %lld",
                          (long long)(pixel % A->height), (long long)(pixel / A->height));
            report->message = text;
            report->setup_seconds = secondsSince(setup_start);
            return report->status = SOLVE_NOT_POSITIVE_DEFINITE;
        }
        if (cm.common.status < CHOLMOD_OK) return failure(cm.common.status, "factorisation", report);
    }
    report->setup_seconds = secondsSince(setup_start);

    auto solve_start = std::chrono::steady_clock::now();
    cholmod_dense B = {};
    B.nrow = size_t(n);
    B.ncol = 1;
    B.nzmax = size_t(n);
    B.d = size_t(n);
    B.x = const_cast<double *>(b);
    B.xtype = CHOLMOD_REAL;
    B.dtype = CHOLMOD_DOUBLE;
    cholmod_dense *X = cholmod_l_solve(CHOLMOD_A, cm.factor, &B, &cm.common);
    if (!X) return failure(cm.common.status, "solve", report);
    const double *sol = static_cast<const double *>(X->x);
    for (int64_t i = 0; i < n; ++i)
        x[i] = sol[i];
    cholmod_l_free_dense(&X, &cm.common);
    report->solve_seconds = secondsSince(solve_start);

    std::vector<double> ax(n);
    multiplyGridMatrix(A, x, ax.data());
    double rr = 0.0, bb = 0.0;
    for (int64_t i = 0; i < n; ++i) {
        rr += (b[i] - ax[i]) * (b[i] - ax[i]);
        bb += b[i] * b[i];
    }
    report->relative_residual = bb > 0.0 ? std::sqrt(rr / bb) : std::sqrt(rr);
    return report->status = SOLVE_OK;
}

} // namespace

int cholmodSolveGrid(const GridMatrix *A, const double *b, double *x, SolverReport *report) {
    *report = SolverReport();
    try {
        return solve(A, b, x, report);
    } catch (const std::bad_alloc &) {
        report->message = "not enough memory for the Cholesky factorisation";
        return report->status = SOLVE_OUT_OF_MEMORY;
    }
}
