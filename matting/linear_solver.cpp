// Choice of linear solver for the matting system, and the UMFPACK member of the family.
#include "matting/linear_solver.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include <umfpack.h>

#include "matting/cg_solver.h"
#include "matting/cholmod_solver.h"

static double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

static const char *umfpackStatusText(int status) {
    switch (status) {
    case UMFPACK_OK:
        return "";
    case UMFPACK_WARNING_singular_matrix:
        return "the matrix is singular";
    case UMFPACK_ERROR_out_of_memory:
        return "not enough memory for the LU factorisation";
    case UMFPACK_ERROR_invalid_Numeric_object:
        return "the LU factorisation failed (invalid numeric object)";
    case UMFPACK_ERROR_invalid_Symbolic_object:
        return "the LU analysis failed (invalid symbolic object)";
    default:
        return "the LU solver failed";
    }
}

// The calls solveAlpha makes, in its order and with its default controls, on the full matrix: the
// status is that of the solve, whatever happened before it.
static int umfpackSolve(const GridMatrix *A, const double *b, double *x, SolverReport *report) {
    std::vector<int> colptr, rowind;
    std::vector<double> values;
    auto setup_start = std::chrono::steady_clock::now();
    try {
        gridMatrixToFullColumns(A, &colptr, &rowind, &values);
    } catch (const std::bad_alloc &) {
        report->message = umfpackStatusText(UMFPACK_ERROR_out_of_memory);
        return report->status = UMFPACK_ERROR_out_of_memory;
    }
    const int n = int(gridPixels(A));
    double info[UMFPACK_INFO];
    void *symbolic = nullptr, *numeric = nullptr;
    umfpack_di_symbolic(n, n, colptr.data(), rowind.data(), values.data(), &symbolic, nullptr, info);
    umfpack_di_numeric(colptr.data(), rowind.data(), values.data(), symbolic, &numeric, nullptr, info);
    umfpack_di_free_symbolic(&symbolic);
    report->setup_seconds = secondsSince(setup_start);
    auto solve_start = std::chrono::steady_clock::now();
    umfpack_di_solve(UMFPACK_A, colptr.data(), rowind.data(), values.data(), x, b, numeric, nullptr, info);
    umfpack_di_free_numeric(&numeric);
    report->solve_seconds = secondsSince(solve_start);
    report->status = int(info[UMFPACK_STATUS]);
    report->message = umfpackStatusText(report->status);
    return report->status;
}

int solveLinearSystem(SolverKind kind, const GridSystem *system, double *x, const SolverOptions *options,
                      SolverReport *report) {
    switch (kind) {
    case SOLVER_CHOLMOD:
        return cholmodSolveGrid(&system->A, system->b.data(), x, report);
    case SOLVER_CG:
        return cgSolveGrid(system, x, options, report);
    case SOLVER_UMFPACK:
        break;
    }
    *report = SolverReport();
    return umfpackSolve(&system->A, system->b.data(), x, report);
}

int parseSolverKind(const char *name, SolverKind *kind) {
    static const SolverKind kinds[] = {SOLVER_UMFPACK, SOLVER_CHOLMOD, SOLVER_CG};
    for (SolverKind k : kinds)
        if (name && std::strcmp(name, solverKindName(k)) == 0) {
            *kind = k;
            return 0;
        }
    return -1;
}

const char *solverKindName(SolverKind kind) {
    switch (kind) {
    case SOLVER_CHOLMOD:
        return "cholmod";
    case SOLVER_CG:
        return "cg";
    case SOLVER_UMFPACK:
        break;
    }
    return "umfpack";
}
