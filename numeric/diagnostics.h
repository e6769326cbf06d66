// Debugging aids for the numerical code: matrices and vectors printed as text (tab-separated tables open
// in a spreadsheet), and arrays written as greyscale TIFF images to look at.
//
// Nothing in the normal flow calls these. Two kinds of matrix appear: small dense matrices as flat
// row-major arrays of doubles (numeric/dense.h), and two-dimensional arrays indexed [row][column]
// (numeric/arrays.h). All numbers are printed with "%g". The image writers end the process (status 1)
// after a message on standard error when the file cannot be created or written.
#pragma once

#include "numeric/tiff.h"

#include <cstdio>

// printMX: prints a rows x cols flat row-major matrix to standard output, each row as " %g" items
// followed by a line break.
void printMX(const double *a, int rows, int cols);

// fprintMX: writes a rows x cols array to file as tab-separated rows: a zero element is an empty cell
// (a tab alone), any other value (NaN included) "%g\t"; each row ends with a line break.
void fprintMX(FILE *file, double **a, int rows, int cols);

// fprintiMX: as fprintMX for an array of ints, non-zeros as "%d\t".
void fprintiMX(FILE *file, int **a, int rows, int cols);

// fprintsqMXxV: writes an n x n array and a vector of n doubles side by side: each row's cells as in
// fprintMX, then the vector's element of that row as "%g\n" (the system A x = b at a glance).
void fprintsqMXxV(FILE *file, double **a, const double *b, int n);

// printsubMX: prints "\toffset: ROW0,COL0 size: ROWS,COLS\n" and then the rows x cols block of the array
// starting at [row0][col0] in the manner of printMX, to standard output. The block must lie inside a.
void printsubMX(double **a, int rows, int cols, int row0, int col0);

// printiV, printdV: print n ints, resp. doubles, to standard output as " %d" / " %g" items on one line
// followed by a line break.
void printiV(const int *v, int n);
void printdV(const double *v, int n);

// normalised_array_to_grey_img: writes a height x width array of values in [0, 1] to path as a
// greyscale TIFF: pixel = 255 * a[y][x] truncated toward zero and clamped to 0..255 (NaN gives 0).
// Ends the process with status 1 after "cannot open file PATH\n" or "error writing TIFF file PATH\n".
void normalised_array_to_grey_img(const char *path, double **a, int width, int height);

// boolean_array_to_grey_img: as normalised_array_to_grey_img for an int array (a mask of 0 and 1):
// pixel = 255 * a[y][x], clamped to 0..255.
void boolean_array_to_grey_img(const char *path, int **a, int width, int height);

// write_TIFF_img: writes the image record to path as it is (numeric/tiff.h decides which types it can
// write). Fails as normalised_array_to_grey_img.
void write_TIFF_img(const char *path, struct TIFF_img *image);

// write_TIFF_a: stores the int array alpha (height x width, each value cast to a byte) in the fourth,
// alpha plane of an 'a' image and writes the image to path. The TIFF writer has no four-sample layout,
// so the colour planes are written as a full-colour image and the alpha plane stays in the record.
// An image of any other type gets the message "\nwrite_TIFF_a reguires struct TIFF_img of TIFF_type
// \"a\"" on standard error and is written as it is, without alpha. Fails as normalised_array_to_grey_img.
void write_TIFF_a(const char *path, struct TIFF_img *image, int **alpha);
