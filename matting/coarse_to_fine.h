// The alpha matte of a whole image by recursion over a pyramid of half-size images: each level solves
// (or only upsamples) the matte, and turns clearly opaque or clearly transparent pixels of the upsampled
// coarse matte into constraints for the finer level. Also the pyramid's down-sampling and the erosion.
#ifndef KELDRA_MATTING_COARSE_TO_FINE_H
#define KELDRA_MATTING_COARSE_TO_FINE_H

#include "matting/linear_solver.h"
#include "numeric/tiff.h"

// solveAlphaC2F: the matte of image over `levels` pyramid levels (this one included), of which the
// `active_levels` coarsest are solved with the matting Laplacian and the finer ones only upsampled.
//   image              input: the level's image ('a' or 'c': three colour planes, else one grey plane)
//   constraint_map     modified: height x width, 0/1 weights of the constraints; pixels of the
//                      upsampled coarse matte above 1 - threshold or below threshold (after a 3 x 3
//                      erosion of each mask) become constrained
//   constraint_values  modified: height x width; newly constrained pixels whose value plus coarse alpha
//                      times (1 - map) is at least 0.5 get the value 1
//   levels             input: pyramid depth; 1 solves this level only
//   active_levels      input: raised to 1 when smaller; levels <= active_levels solves this level
//   radius, epsilon    input: passed to the Laplacian (matting/laplacian.h) and the upsampling
//   status             output: written by every solved level (matting/alpha_solve.h, solveAlpha), so the
//                      caller sees the finest solved level's status; untouched when no level is solved
//   threshold          input: trimap threshold, raised to 0.02 when smaller
// Prints "levels_num %d Active_levels_num %d\n" to stdout for every level above the coarsest. Returns a
// new height x width array (get_img; release with free_img) of the matte; a solved level's values are in
// [0, 1], an only-upsampled level's are not clamped. Each coarser side is (side - 4) / 2 rounded up: the
// caller keeps the coarsest level's sides at least 5. Fatal failures as in solveAlpha and the upsampling.
double **solveAlphaC2F(const TIFF_img *image, double **constraint_map, double **constraint_values, int levels,
                       int active_levels, int radius, int *status, double threshold, double epsilon);

// solveAlphaC2FWith: solveAlphaC2F with a choice of linear solver for the solved levels (the pyramid,
// the upsampling and the trimap constraints are the same code). SOLVER_UMFPACK solves each level with
// solveAlpha exactly as solveAlphaC2F does; SOLVER_CHOLMOD and SOLVER_CG go through solveAlphaWith
// (matting/alpha_solve.h), conjugate gradients starting from the upsampled coarser matte.
//   image .. levels, active_levels, radius, threshold, epsilon  as solveAlphaC2F
//   kind    input: the solver
//   report  output: the report of the finest solved level, or of the first level whose solve failed
//           (status < 0): no finer level is solved after a failure, and the returned array must not be
//           used as a matte. With SOLVER_UMFPACK, UMFPACK's status of the finest solved level and no
//           message, as solveAlphaC2F's status.
// Returns a new height x width array (release with free_img).
double **solveAlphaC2FWith(const TIFF_img *image, double **constraint_map, double **constraint_values,
                           int levels, int active_levels, int radius, double threshold, double epsilon,
                           SolverKind kind, SolverReport *report);

// downSmpIm: filters every channel of image with the binomial kernel of radius f (taps 1/4 [1 2 1] for
// f = 1, 1/16 [1 4 6 4 1] for f = 2) and keeps every second sample, starting at (f, f).
//   image  input; f  input: 1 or 2
// Returns a new record by value: type 'c' for 'a' and 'c' input, else 'g', of height
// (height - 2f) / 2 + height % 2 and width likewise; each byte is the filtered sum truncated toward zero,
// then clipped to 0..255. The caller releases it with free_TIFF (and, for 'c', frees the plane table).
// f >= 3 writes "\nNo filter matrix set for dimensions over 5x5 i.e. > than filts 2!" to stderr and
// exits with status -1. Sides below 2f + 1 give a degenerate record (get_TIFF reports sizes below 1).
TIFF_img downSmpIm(const TIFF_img *image, int f);

// downSmpArr: the same filter and sampling on an array of doubles, binarised: 0.0 where the filtered
// sum is below 0.5, else 1.0.
//   array  input: height x width; f  input: >= 0 (f >= 3 uses the binomial kernel of order 2f)
// Returns a new array of the coarse size (get_img layout; release with free_img).
double **downSmpArr(const double *const *array, int height, int width, int f);

// imerode: grey-level erosion: each element becomes the minimum over the (2 radius + 1) square around it,
// clipped to the array's borders.
//   array  input: height x width (note the argument order: width first); radius  input: >= 0
// Returns a new height x width array (release with free_img).
double **imerode(const double *const *array, int width, int height, int radius);

#endif
