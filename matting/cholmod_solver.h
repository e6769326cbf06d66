// Direct solution of the symmetric matting system by CHOLMOD's supernodal Cholesky factorisation with
// 64-bit indices (cholmod_l_*), so that the size of image it can take is bounded by memory rather than
// by index width. The ordering is AMD alone: on these grid matrices trying METIS as well costs more
// than it saves.
#pragma once

#include "matting/grid_matrix.h"
#include "matting/linear_solver.h"

// cholmodSolveGrid: solves A x = b by A = L L^T.
//   A       input: symmetric positive definite; its upper triangle is copied into CHOLMOD's
//           compressed-column form, which is released as soon as the factor exists
//   b       input: n values
//   x       output: n values, the solution (untouched on failure)
//   report  output: status, message, relative residual |b - A x| / |b|, timings (set-up = analysis
//           and factorisation)
// Returns SOLVE_OK; SOLVE_NOT_POSITIVE_DEFINITE with a message naming the pixel (row, column) where
// the factorisation found a non-positive pivot; SOLVE_OUT_OF_MEMORY; SOLVE_FAILED for any other
// CHOLMOD failure. CHOLMOD prints nothing.
int cholmodSolveGrid(const GridMatrix *A, const double *b, double *x, SolverReport *report);
