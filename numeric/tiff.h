// The in-memory image record TIFF_img shared by the matting engine, the calculation job and the TIFF
// file codec, with its allocator get_TIFF and releaser free_TIFF.
//
// Planes are two-dimensional byte arrays from numeric/arrays.h, indexed [row][column].
// Messages of this unit go to standard error and begin with "tiff:  function " and the function's name.
#ifndef KELDRA_NUMERIC_TIFF_H
#define KELDRA_NUMERIC_TIFF_H

#include <cstdint>
#include <cstdio>

// TIFF_img: one image in memory. The record itself belongs to the caller (a local or a member of a
// larger record); get_TIFF allocates its planes and free_TIFF releases them.
//   height, width  rows and columns, both positive
//   TIFF_type      'g' greyscale, 'p' palette colour, 'c' full colour (red, green, blue),
//                  'a' full colour with alpha
//   mono           'g' and 'p' only: the grey plane, or the palette indices, height x width
//   color          'c' and 'a' only: table of plane pointers, color[0] red, [1] green, [2] blue and for
//                  'a' [3] alpha, each plane height x width; the table has room for four planes for 'a'
//   compress_type  'u' (uncompressed), the only value in use
//   cmap           'p' only: the palette, 256 rows x 3 columns; row i holds the red, green and blue
//                  of index i
// Fields that do not belong to the record's type are left unset.
struct TIFF_img {
    int32_t height;
    int32_t width;
    char TIFF_type;
    uint8_t **mono;
    uint8_t ***color;
    char compress_type;
    uint8_t **cmap;
};

// get_TIFF: sets height, width, TIFF_type and compress_type = 'u', then allocates the planes the type
// needs: 'g' mono; 'p' mono and cmap; 'c' the plane table and three planes; 'a' the plane table and
// four planes. Plane contents are undefined until written.
//   image   modified: the caller's record
//   height  input: rows, must be positive
//   width   input: columns, must be positive
//   type    input: 'g', 'p', 'c' or 'a'
// Returns 0 on success, 1 on failure. A height or width that is not positive writes
// "tiff:  function get_TIFF:\n" and "image height and width must be positive\n" to stderr; an unknown
// type writes the same first line and "allocation for image of type %c is not supported" (no line
// break). On failure nothing is allocated, but height, width, TIFF_type and compress_type are already
// stored. Exhausted memory ends the process (numeric/arrays.h).
int get_TIFF(struct TIFF_img *image, int height, int width, char type);

// free_TIFF: releases the planes by TIFF_type: 'g' mono; 'p' mono and cmap; 'c' three planes; 'a' four
// planes. The plane table of 'c' and 'a' records is not released (a small leak kept as it stands; a
// caller that must account for every block can free image->color itself afterwards). The record and
// its other fields are left unchanged, so the plane pointers dangle. An unknown type frees nothing.
void free_TIFF(struct TIFF_img *image);

#endif
