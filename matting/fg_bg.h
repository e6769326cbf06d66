// Foreground and background colour estimation: given an image and its finished alpha matte, finds for
// every pixel a foreground colour F and a background colour B whose alpha blend is the pixel, smooth
// where alpha varies, by one sparse least-squares solve per channel (CHOLMOD containers, UMFPACK).
//
// Usage, in memory (what a caller that composites wants):
//     TIFF_img rgba;
//     int status = getForegroundRGBA(&image, alpha, &rgba);   // straight F with the matte as alpha
//     ... if (status == 0) use rgba.color[0..3] ...; free_TIFF(&rgba); free(rgba.color);
// or the debug form, which writes "a_foreground.tif" and "a_background.tif":
//     solveFB(&image, alpha);
//
// Pixel vectors are column-major: pixel (row y, column x) is entry x*height + y.
#ifndef KELDRA_MATTING_FG_BG_H
#define KELDRA_MATTING_FG_BG_H

#include "numeric/tiff.h"

#include <cholmod.h>

// The estimate of estimateFB: per channel, the foreground and background colour planes as doubles in
// 0..1 units (the solver's values, not clamped), height x width arrays indexed [row][column].
struct FBEstimate {
    int height;
    int width;
    int channels;   // 3 for 'c', 'a' and 'p' images (red, green, blue), 1 for 'g'
    double **fg[3]; // fg[c] for c < channels, from get_img; the others null
    double **bg[3];
};

// imIndexToVect: the index of pixel (row y, column x) in a column-major pixel vector: x*height + y.
int imIndexToVect(int y, int x, int height);

// getGmatByMask: the 4N x N gradient operator G (N = width*height) over the pixels where the mask is
// set. Four N x N blocks stacked in this order: horizontal (neighbour (y, x+1)), vertical (y+1, x),
// diagonal (y+1, x+1) and anti-diagonal (y-1, x+1). A pair is included when the mask is non-zero at
// either pixel; its row (the pixel's index in the block) holds +1 at the pixel's column and -1 at the
// neighbour's. Rows of pixels with no included pair are empty.
//   mask    input: height x width 32-bit ints, [row][column]
//   common  modified: the CHOLMOD workspace the matrix is built in (cholmod_start'ed by the caller)
// Returns a compressed-column, sorted, packed, real, unsymmetric matrix owned by the caller (release
// with cholmod_free_sparse), or null when CHOLMOD fails (its status is in common->status).
cholmod_sparse *getGmatByMask(int **mask, int width, int height, cholmod_common *common);

// getArrGmatByMask: the same operator built directly from compressed-column arrays, with the same
// neighbour rules and entry order, for callers that want the matrix without a triplet detour.
// Arguments, result and failure as getGmatByMask.
cholmod_sparse *getArrGmatByMask(int **mask, int width, int height, cholmod_common *common);

// estimateFB: solves for the foreground and background colours of every pixel. The unknowns of a
// channel are F (N values) then B (N values); the least-squares rows are the data terms (F follows the
// image where alpha > 0.7 or < 0.02, B where alpha < 0.3 or > 0.98), the compositing term
// alpha*F + (1-alpha)*B = I, and the alpha-gradient-weighted smoothness of F and of B over the
// uncertain pixels (0.02 <= alpha <= 0.98). The normal equations are factorised and solved with
// UMFPACK once per channel.
//   image     input: 'c', 'a' (alpha plane ignored), 'p' (colours through the palette) or 'g' record
//   alpha     input: image->height x image->width doubles, [row][column], nominally in 0..1
//   estimate  output: filled with newly allocated planes, owned by the caller (release with
//             freeFBEstimate); left untouched on failure
// Returns 0 (UMFPACK_OK) on success. Returns 2, with nothing allocated and the estimate untouched,
// when the image type is not one of the four, the image has more than INT_MAX / 11 pixels (the
// system's 32-bit indices), or a CHOLMOD operation failed. Otherwise returns the first non-zero
// UMFPACK status of the channels: 1 (UMFPACK_WARNING_singular_matrix) or negative (-1 out of memory,
// ...), with the planes filled with whatever the solver left (zeros, or non-finite values).
// Exhausted memory in the array allocators ends the process.
int estimateFB(const struct TIFF_img *image, double **alpha, struct FBEstimate *estimate);

// freeFBEstimate: releases the planes of an estimate from estimateFB and nulls them.
void freeFBEstimate(struct FBEstimate *estimate);

// getForegroundRGBA: the estimated foreground colours with the matte as alpha, ready for compositing
// without colour fringes: an 'a' record whose red, green and blue are the straight (not premultiplied)
// foreground, 255 * F rounded to nearest and clamped to 0..255 (a grey image gives three equal planes),
// and whose alpha plane is the matte as the calculation shows it: 255 above 1, 255 * alpha truncated
// toward zero, 0 below 0.
//   image, alpha  input: as estimateFB
//   rgba          output: allocated by get_TIFF with type 'a'; owned by the caller (free_TIFF, then
//                 free(rgba->color) for the plane table); untouched unless the result is 0
// Returns 0 on success, else the failure of estimateFB (nothing allocated).
int getForegroundRGBA(const struct TIFF_img *image, double **alpha, struct TIFF_img *rgba);

// solveFB: estimates F and B and writes the alpha-premultiplied foreground 255*F*alpha to
// "a_foreground.tif" and the weighted background 255*B*(1-alpha) to "a_background.tif" in the current
// directory, each value truncated toward zero and clamped to 0..255; 'c' files for colour and palette
// input, 'g' files for greyscale input. The solver's status is not examined: a failed solve writes
// whatever it left. The image and alpha are only read; the output records are released before return.
// Returns the result of closing "a_background.tif" (0 on success). Failing to open or write a file
// ends the process with status 1 after "cannot open file a_foreground.tif\n" or
// "error writing TIFF file foreground.tiff\n" (the background likewise, with "a_background.tif" and
// "background.tiff") on standard error. An image type that cannot be estimated prints
// "solveFB: cannot estimate colours of an image of type %c\n" and returns 1 with no file written.
int solveFB(const struct TIFF_img *image, double **alpha);

#endif
