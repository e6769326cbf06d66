// Assembles the constrained matting system (L + lambda D) alpha = lambda D v of one image level straight
// into the compact GridMatrix store, window by window, for the solvers that handle large images. The
// matrix is the one getLaplacian1 and solveAlpha build (same windows, same skipped windows, same
// diagonal), up to rounding, but it needs no per-row lists, no triplets and no second copy: each
// window's affinities are added into the final planes as soon as they are computed.
#pragma once

#include <string>
#include <vector>

#include "matting/grid_matrix.h"
#include "numeric/tiff.h"

// Weight of a scribble constraint, the lambda of the alpha solve.
constexpr double kConstraintWeight = 100.0;

// getCompactMattingSystem: A = L + lambda D and b = lambda D v for the image, where L is the matting
// Laplacian of (2r+1) x (2r+1) colour windows with regulariser epsilon, D the diagonal of the constraint
// map and v the constraint values (lambda = kConstraintWeight).
//   image    input: 'a' and 'c' images use their three colour planes, other types the grey plane
//   map      input: [row][column] constraint weights; non-zero marks a constrained pixel. A window
//            whose every pixel is constrained (minimum over the window not 0.0) adds nothing
//   values   input: [row][column] target alpha of constrained pixels; b = lambda * map * values
//   radius   input: window radius r; values below 1 are treated as 1
//   epsilon  input: regulariser; values below 1e-7 are treated as 1e-7
//   system   output: A replaced by the system matrix (reach 2r, on the image's grid), b by the
//            right-hand side, colour by the image's planes scaled to [0, 1] (channels 3 or 1)
//   message  output: set only on failure
// Pixels that lie in no processed window and carry no constraint keep an empty row and column.
// When the image has at most 4r rows, the diagonal counts some neighbours twice, as getLaplacian1's
// offset walk does for such short images.
// Returns 0, or -1 when a window's colour covariance cannot be factored (not expected once epsilon
// is at least 1e-7); A is then incomplete. Allocation failure throws std::bad_alloc.
int getCompactMattingSystem(const TIFF_img *image, double **map, double **values, int radius, double epsilon,
                            GridSystem *system, std::string *message);
