// The closed-form matting Laplacian of one image level: a sparse symmetric matrix with one row per pixel,
// summing the colour-window affinities of every (2r+1) x (2r+1) window that is not fully constrained.
//
// Pixel p at (row, column) has index row + column * height (column-major, 0-based); its matrix row and
// column in the sparse store are that index plus 1.
#ifndef KELDRA_MATTING_LAPLACIAN_H
#define KELDRA_MATTING_LAPLACIAN_H

#include "matting/sparse_store.h"
#include "numeric/tiff.h"

// getLaplacian1: builds L = D - W, where W sums over the processed windows the affinities
// (1 + (x_k - mu)^T (C + epsilon/n I)^-1 (x_m - mu)) / n of each pixel pair (k, m) of the window
// (colours scaled to [0, 1], mu and C the window's colour mean and covariance, n = (2*radius+1)^2), and
// D holds on the diagonal the sum of each row's affinities over the offsets of the (4r+1) x (4r+1) span.
//   image           input: 'a' and 'c' images use their three colour planes, any other type its grey
//                   plane
//   constraint_map  input: height x width; non-zero marks a constrained pixel. A window whose pixels
//                   are all constrained (eroded map non-zero at its centre) is skipped.
//   radius          input: window radius, >= 1 (a smaller value is raised to 1 for the windows while
//                   the window element count and the span keep the value passed)
//   epsilon         input: regulariser, raised to 1e-7 when smaller
// Returns a QMatrix named "A" of dimension width*height, symmetric, by rows, owning its data, returned
// by value: the caller owns it and releases it with Q_Destr. Only the upper triangle is stored; every
// non-empty row has its diagonal as entry 0, then ascending columns. Rows of pixels that lie in no
// processed window are empty; an image narrower or lower than a window gives no elements at all.
// When height <= 4r two span offsets can name the same neighbour, whose affinity then enters the
// diagonal twice. Failure: a window covariance that cannot be factorised or inverted writes
// "\nFailure - The matrix A is not positive definite symmetric (within working accuracy).\n" or
// "\nFailure - The matrix L is singular.\n" to stderr and exits with status 1. Store failures are left
// in the store's sticky error state (LASResult). Not re-entrant (the store's error state is global).
QMatrix getLaplacian1(const TIFF_img *image, const double *const *constraint_map, int radius, double epsilon);

// get_non_zeroes: estimates the non-zero count of the full (both triangles) Laplacian for a constraint
// map: every unconstrained pixel counts its whole (4r+1) x (4r+1) span, every constrained pixel 1.
//   constraint_map  input: height x width; width, height, radius  input
// Returns the estimate, or -1 after writing "integer overrun in get_non_zeroes function" to stderr when
// the count does not fit an int. Not used by the calculation.
int get_non_zeroes(const double *const *constraint_map, int width, int height, int radius);

// SymLaplacianMBreq: megabytes (1e6 bytes, 8 bytes per element) the stored upper triangle of a
// Laplacian of a width x height image needs when every pixel has its full span of neighbours:
// width * height * ((4r+1)^2 + 1) / 2 elements. Not used by the calculation.
double SymLaplacianMBreq(int width, int height, int radius);

#endif
