// Flexible conjugate gradients for the large symmetric matting systems, preconditioned by one cycle of
// the colour-model aggregation multigrid per iteration, with the matrix products and the sweeps spread
// over both cores. Iterates until the relative residual |b - A x| / |b| is below the tolerance, checked
// on the true residual before stopping, so a matte never comes from a drifted recurrence.
#pragma once

#include "matting/grid_matrix.h"
#include "matting/linear_solver.h"

// cgSolveGrid: solves A x = b.
//   system   input: A symmetric positive definite on the pixels it couples (rows that are entirely
//            zero, pixels in no window and without constraint, keep their start value), b, and the
//            colour planes for the preconditioner (optional, but convergence on images needs them)
//   x        modified: start value when options->use_start is set (else 0), solution on return
//   options  input: tolerance and iteration cap (null for the defaults)
//   report   output: status, message, iterations, final relative residual, timings
// Returns SOLVE_OK; SOLVE_NO_CONVERGENCE when the cap is reached (x then holds the last iterate, which
// must not be used as a matte); SOLVE_NOT_POSITIVE_DEFINITE when the iteration meets a direction of
// non-positive curvature; SOLVE_OUT_OF_MEMORY.
int cgSolveGrid(const GridSystem *system, double *x, const SolverOptions *options, SolverReport *report);
