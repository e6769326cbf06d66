// The in-memory image record TIFF_img shared by the matting engine, the calculation job and the TIFF
// file codec, with its allocator get_TIFF and releaser free_TIFF, and the codec itself: write_TIFF
// writes a record as a baseline uncompressed TIFF file, read_TIFF reads the first image of one.
//
// Planes are two-dimensional byte arrays from numeric/arrays.h, indexed [row][column].
// Messages of this unit go to standard error and begin with "tiff:  function " and the function's name.
//
// Usage:
//     FILE *fp = fopen("out.tif", "wb");  int failed = write_TIFF(fp, &image) || fclose(fp);
//     FILE *in = fopen("in.tif", "rb");   TIFF_img copy;
//     if (read_TIFF(in, &copy) == 0) { ...; free_TIFF(&copy); }  fclose(in);
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

// write_TIFF: writes the record as one big-endian ("MM") baseline TIFF image, uncompressed, 8 bits per
// sample: the strips (each the fewest whole rows that reach 8000 bytes, the last one shorter) from
// offset 8, then the IFD at the next even offset with its entries sorted by tag, then the values too
// large for an entry, each at an even offset. Width, height and rows per strip are SHORT up to 65535
// and LONG above; strip byte counts are LONG when any exceeds 65535.
//   fp   modified: a seekable stream open for binary writing, positioned anywhere; the image is
//        written from offset 0. The caller closes it (and should check fclose for a full disk).
//   img  input: a record of TIFF_type 'g' (grey), 'p' (palette: indices and cmap) or 'c' (red, green
//        and blue, written interleaved) with compress_type 'u'
// Returns 0 on success, 1 on failure after a diagnostic on standard error: an 'a' or unknown type,
// a height or width below 1, another compress_type, data beyond the reach of 32-bit offsets, or a
// failing write or seek. After a failure the file is incomplete.
int write_TIFF(FILE *fp, const struct TIFF_img *img);

// read_TIFF: reads the first image of a TIFF file in either byte order. Accepted: uncompressed,
// 8 bits per sample, chunky samples; greyscale (WhiteIsZero is inverted to black-is-zero), palette,
// RGB, and RGB with one extra sample of associated or unassociated alpha (type 'a'). Missing fields
// take their TIFF defaults (Compression 1, SamplesPerPixel 1, BitsPerSample 1, RowsPerStrip the whole
// image, StripByteCounts the bytes the strip's rows need); ImageWidth, ImageLength,
// PhotometricInterpretation, StripOffsets and, for palette images, a ColorMap of 768 values are
// required. A file with further images gets a warning and only its first image is read.
//   fp   input: a seekable stream open for binary reading; offsets are taken from the start of the file
//   img  output: on success a record from get_TIFF of type 'g', 'p', 'c' or 'a' with compress_type
//        'u', owned by the caller (free_TIFF; for 'c' and 'a' also free(img->color)); untouched on failure
// Returns 0 on success, 1 when the file cannot be read, after a diagnostic on standard error. The file
// is untrusted: every offset, count and size is checked against the file before use, and an image
// whose pixels (width * height * samples) need more bytes than the file holds, or whose pixel count
// reaches 2^31, is refused before any plane is allocated.
int read_TIFF(FILE *fp, struct TIFF_img *img);

#endif
