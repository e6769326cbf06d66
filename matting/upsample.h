// Upsampling of a coarse alpha matte by local linear colour models: fit alpha ~ a . colour + b in every
// coarse window, enlarge the coefficient planes, and evaluate them with the fine image's colours, so that
// edges of the fine image reappear sharply in the enlarged matte.
#ifndef KELDRA_MATTING_UPSAMPLE_H
#define KELDRA_MATTING_UPSAMPLE_H

#include "numeric/tiff.h"

// upSampleAlphaUsingImg: alpha of the fine image from the coarse alpha.
//   coarse_alpha  input: coarse height x coarse width
//   coarse_image  input: the image coarse_alpha belongs to; its type decides the channel count c
//                 (3 for 'a' and 'c', else 1)
//   fine_image    input: the fine image, of the same kind (colour planes for c = 3, grey plane for c = 1)
//   radius, epsilon  input: as getLinearCoeff
// Returns a new fine height x fine width array (release with free_img) of b + sum a_k colour_k/255,
// not clamped to [0, 1]. Fatal failures as getLinearCoeff.
double **upSampleAlphaUsingImg(const double *const *coarse_alpha, const TIFF_img *coarse_image,
                               const TIFF_img *fine_image, int radius, double epsilon);

// getLinearCoeff: for every pixel whose (2r+1) x (2r+1) window fits the image, the least-squares fit
// alpha ~ a . colour + b over the window, with the colour coefficients a regularised by epsilon:
// minimise sum (a . x_k + b - alpha_k)^2 + epsilon |a|^2, by its normal equations. Border rows and then
// border columns (r of each) copy the nearest fitted row or column.
//   alpha   input: height x width; image  input: the image alpha belongs to (colours / 255)
//   radius  input: >= 1; epsilon  input: >= 0 (0 leaves uniform windows singular)
// Returns a new zero-initialised array [height][width][c + 1] (multialloc_init; release with
// multifree(p, 3)): elements 0..c-1 the colour coefficients, element c the constant. An image smaller
// than a window keeps every coefficient 0. Singular normal equations write
// "\nFailure - The matrix A is not positive definite symmetric (within working accuracy).\n" or
// "\nFailure - The matrix L is singular.\n" to stderr and exit with status 1.
double ***getLinearCoeff(const double *const *alpha, const TIFF_img *image, int radius, double epsilon);

// upSmpArr: enlarges every depth plane of a [height][width][depth] array to [new_height][new_width]:
// the samples go to every second position, starting at offset o = (new_height - 2 height + 1) / 2 on
// both axes, the sample grid is extended by replication to the borders, and the result is the
// convolution with the binomial kernel of radius f times 2 (taps 1/2 [1 2 1] for f = 1,
// 1/8 [1 4 6 4 1] for f = 2), whose weights sum to 4 in two dimensions.
//   array  input; height, width, depth, new_height, new_width  input; f  input: >= 0
// Returns a new array [new_height][new_width][depth] (multialloc_init; release with multifree(p, 3)).
// Samples that would land outside the padded plane are dropped.
double ***upSmpArr(const double *const *const *array, int height, int width, int depth, int new_height,
                   int new_width, int f);

#endif
