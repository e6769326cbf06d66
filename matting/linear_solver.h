// The one interface through which the alpha solve reaches a linear solver for the symmetric matting
// system A x = b: UMFPACK (the direct LU solver the engine has always used), CHOLMOD (supernodal
// Cholesky with 64-bit indices, for images too large for UMFPACK) or preconditioned conjugate gradients
// (for the largest images). Every solver takes the system in the compact GridSystem form (matrix,
// right-hand side and the colour planes it came from) and reports a status and a message a user can
// read.
#pragma once

#include <string>

#include "matting/grid_matrix.h"

enum SolverKind { SOLVER_UMFPACK = 0, SOLVER_CHOLMOD = 1, SOLVER_CG = 2 };

// Status codes. UMFPACK's own codes pass through unchanged (0 success, 1 singular matrix, negative
// errors such as -1 out of memory); the other solvers use 0, -1 and the codes below, which UMFPACK
// does not use.
constexpr int SOLVE_OK = 0;
constexpr int SOLVE_OUT_OF_MEMORY = -1;
constexpr int SOLVE_NOT_POSITIVE_DEFINITE = -20;
constexpr int SOLVE_NO_CONVERGENCE = -21;
constexpr int SOLVE_FAILED = -22; // any other failure of a solver library

// The default tolerance is what keeps conjugate gradients' 8-bit matte equal to the direct solvers' on
// at least 99.9 % of the pixels, with a margin that shrinks as images grow (bench/solver_bench scenes
// with scribbles at 4 megapixels: 5e-10 gives 99.985 %, 1e-9 99.972 %, 2e-9 only 99.94 %).
struct SolverOptions {
    double tolerance = 5e-10;  // conjugate gradients: stop when |b - A x| <= tolerance |b|
    int max_iterations = 1000; // conjugate gradients: give up (SOLVE_NO_CONVERGENCE) after this many
    bool use_start = false;    // conjugate gradients: start from the x passed in instead of 0
};

struct SolverReport {
    int status = SOLVE_OK;
    std::string message;            // empty on success, otherwise one line saying what went wrong
    int iterations = 0;             // conjugate gradients only
    double relative_residual = 0.0; // |b - A x| / |b| at the end, where the solver computes it
    double setup_seconds = 0.0;     // factorisation or preconditioner set-up
    double solve_seconds = 0.0;     // triangular solves or iterations
};

// solveLinearSystem: solves A x = b with the chosen solver.
//   kind     input: the solver
//   system   input: A, symmetric (the store holds its upper triangle), b, and for SOLVER_CG the colour
//            planes when there are any
//   x        modified: n values; the start of the iteration for SOLVER_CG when options->use_start is
//            set, otherwise ignored on input; the solution on output (not meaningful on failure)
//   options  input: may be null for the defaults
//   report   output: status (also the return value), message, counts and timings
// Returns report->status. Never ends the process: running out of memory is reported as
// SOLVE_OUT_OF_MEMORY (or UMFPACK's -1).
int solveLinearSystem(SolverKind kind, const GridSystem *system, double *x, const SolverOptions *options,
                      SolverReport *report);

// parseSolverKind: "umfpack", "cholmod" or "cg" to the kind. Returns 0, or -1 for any other name
// (kind unchanged).
int parseSolverKind(const char *name, SolverKind *kind);

// solverKindName: the name parseSolverKind accepts for kind.
const char *solverKindName(SolverKind kind);
