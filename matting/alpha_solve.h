// The alpha matte of one image level: the matting Laplacian plus weighted scribble constraints, solved
// as one sparse linear system with UMFPACK, and the small helpers around it.
//
// The system is (L + lambda D) alpha = lambda D v with lambda = 100, D the diagonal of the constraint
// map and v the constraint values. Its assembly (assembleAlphaSystem) is separate from the UMFPACK calls
// so that another solver can take the same matrix and right-hand side.
#ifndef KELDRA_MATTING_ALPHA_SOLVE_H
#define KELDRA_MATTING_ALPHA_SOLVE_H

#include <cstdint>

#include <cholmod.h>

#include "matting/linear_solver.h"
#include "numeric/tiff.h"

// solveAlpha: solves the alpha matte of one level.
//   image              input: as getLaplacian1 (matting/laplacian.h)
//   constraint_map     input: height x width; the weight of each pixel's constraint, 0 = unknown
//   constraint_values  input: height x width; the target alpha where the map is non-zero
//   radius, epsilon    input: passed to getLaplacian1 unchanged
//   status             output: UMFPACK's status after the solve (Info[UMFPACK_STATUS], truncated):
//                      0 success, 1 singular matrix (a warning: the result is still returned),
//                      negative for errors (-1 out of memory, -3 invalid numeric object, ...). The
//                      symbolic and numeric steps are not checked: their failure shows in the status of
//                      the solve that follows them.
// Returns a new height x width array (get_img; release with free_img) of alpha clamped to [0, 1]; on a
// failed solve its values are 0. A constrained pixel whose Laplacian row has off-diagonal elements but a
// zero diagonal prints " yes off diagonals exist when main is zero." to stdout and exits with status -1.
// The right-hand-side vector's storage is kept allocated after the call, as designed.
double **solveAlpha(const TIFF_img *image, const double *const *constraint_map,
                    const double *const *constraint_values, int radius, int *status, double epsilon);

// solveAlphaWith: the matte of one level with a chosen linear solver. SOLVER_UMFPACK is solveAlpha
// itself, unchanged. SOLVER_CHOLMOD and SOLVER_CG assemble the same system straight into the compact
// store (matting/compact_laplacian.h) and solve it through solveLinearSystem (matting/linear_solver.h);
// neither builds the QMatrix or a triplet, and neither ends the process on a numerical failure.
//   image, constraint_map, constraint_values, radius, epsilon  input: as solveAlpha
//   solver  input: the solver
//   start   input: height x width start for SOLVER_CG (the upsampled coarser matte), or null for 0;
//           ignored by the direct solvers
//   outcome  output: status (UMFPACK's code for SOLVER_UMFPACK, else linear_solver.h's), message,
//           iterations, residual and timings
// Returns a new height x width array (get_img; release with free_img) of alpha clamped to [0, 1]. On a
// failure (outcome->status negative) its values are whatever the solver left, clamped, and must not be
// used as a matte.
double **solveAlphaWith(const TIFF_img *image, const double *const *constraint_map,
                        const double *const *constraint_values, int radius, double epsilon, SolverKind solver,
                        const double *const *start, SolverReport *outcome);

// assembleAlphaSystem: the part of solveAlpha before the factorisation. Builds the Laplacian, adds
// lambda * map to the diagonal of every constrained pixel (a constrained pixel with an empty row gets
// that single diagonal element), mirrors the stored upper triangle into a CHOLMOD triplet (count: the
// sum over rows of 2 * length - 1, so each empty row drops one of the last elements written, and a
// negative total keeps none), converts it to compressed columns and sorts them.
//   image, constraint_map, constraint_values, radius, epsilon  input: as solveAlpha
//   rhs     output: a new N x 1 dense right-hand side lambda * map * values (N = width * height)
//   common  modified: a started CHOLMOD common object
// Returns the full symmetric system matrix (stype 0, sorted, 0-based, real). The caller owns the matrix
// and *rhs and frees them with cholmod_free_sparse and cholmod_free_dense. CHOLMOD's allocation failures
// return null (and leave *rhs null or allocated, to be freed).
cholmod_sparse *assembleAlphaSystem(const TIFF_img *image, const double *const *constraint_map,
                                    const double *const *constraint_values, int radius, double epsilon,
                                    cholmod_dense **rhs, cholmod_common *common);

// scale2_255: maps an alpha array to 0..255 in place: a value above 1.0 becomes 255.0, any other is
// multiplied by 255.0 and then raised to 0.0 if negative.
//   alpha  modified: height x width
void scale2_255(double **alpha, int width, int height);

// bandscale2one: a 0/1 array from one byte plane: 1.0 where the byte is 255, else 0.0.
//   band  input: height x width bytes
// Returns a new height x width array of doubles (get_img; release with free_img). Not used by the
// calculation.
double **bandscale2one(const uint8_t *const *band, int width, int height);

// evalrow: the off-diagonal part of row `row` of A times x: sum over j != row of A(row, j) x(j).
//   A  input: n x n, flat row-major; x  input: n values
double evalrow(const double *A, const double *x, int n, int row);

// Gauss_Seidel_Method: iterates x(i) = (b(i) - evalrow(A, x, n, i)) / A(i, i), row by row in place,
// until the largest change in a sweep is at most tolerance or max_iterations sweeps have run.
//   A  input: n x n, flat row-major; b  input: n values; x  modified: start value in, solution out
// Returns the number of sweeps run on convergence, -1 if a diagonal value is 0.0 (x untouched) or the
// iteration did not converge. Not used by the calculation.
int Gauss_Seidel_Method(const double *A, const double *b, double *x, int n, double tolerance,
                        int max_iterations);

// Phases of the engine's work, reported to the hook installed by setEnginePhaseHook so that a front end
// can show progress and a benchmark can time and measure each phase.
enum EnginePhase {
    ENGINE_PHASE_LAPLACIAN,   // getLaplacian1 inside solveAlpha
    ENGINE_PHASE_CONSTRAINTS, // constraints into the matrix and the right-hand side
    ENGINE_PHASE_CONVERSION,  // triplet count and fill, dense right-hand side, compressed columns, sort
    ENGINE_PHASE_SYMBOLIC,    // umfpack_di_symbolic
    ENGINE_PHASE_NUMERIC,     // umfpack_di_numeric and freeing the symbolic object
    ENGINE_PHASE_SOLVE,       // umfpack_di_solve and freeing the numeric object
    ENGINE_PHASE_RESULT,      // copying out, clamping, clean-up
    ENGINE_PHASE_RESAMPLE,    // pyramid down-sampling, upsampling and trimap masks of one level
    ENGINE_PHASE_LEVEL        // one whole level of solveAlphaC2F, nested around its coarser levels
};

// EnginePhaseEvent: what the hook receives at the start (starting = 1) and the end (starting = 0) of a
// phase. height and width are the level's image size. levels is the level's remaining pyramid depth
// (1 for the coarsest) for ENGINE_PHASE_LEVEL and 0 otherwise. solved is set at the end of a level that
// ran solveAlpha. status is the UMFPACK status at the end of a symbolic, numeric or solve phase.
struct EnginePhaseEvent {
    EnginePhase phase;
    int starting;
    int height;
    int width;
    int levels;
    int solved;
    int status;
};

typedef void (*EnginePhaseHook)(const EnginePhaseEvent *event, void *data);

// setEnginePhaseHook: installs hook (null: none, the default) with its data for every later engine
// call in the process. The hook runs on the thread that runs the engine.
void setEnginePhaseHook(EnginePhaseHook hook, void *data);

// reportEnginePhase: calls the installed hook, if any, with the event. Used by the engine's units.
void reportEnginePhase(const EnginePhaseEvent *event);

#endif
