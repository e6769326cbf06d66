// Debugging aids for the sparse store: the Laplacian exported as a Matrix Market file, the store and its
// vectors printed as text, and the store compared element by element with a dense array.
//
// Nothing in the normal flow calls these. They read the store through its operations, so while the
// store's sticky error is pending (matting/sparse_store.h) they see an empty matrix. Files are written
// to the current directory; the errors stated below end the process.
#pragma once

#include "matting/sparse_store.h"

#include <cstdio>

// write_MM_QMatrix: writes Q to "~tmpQMatrix.rsa" in the current directory as a Matrix Market
// coordinate real file, "symmetric" when Q is symmetric, else "general". The size line holds Q's
// dimension twice and the number of stored elements; then, for each list j from 1 and each element of
// it, "POS j VALUE" with "%d %d %.12g\n". For the engine's row-ordered symmetric store, whose list j holds
// the upper triangle of row j, this is the lower triangle column by column, as the format wants.
// Refuses a store that is neither column-ordered nor symmetric: "NAME matrix is either not columnwise or
// not symmetric. Can't write this format\n" on standard error and exit status 1. "cannot open file
// ~tmpQMatrix.rsa\n" (standard error) and exit status 1 when the file cannot be created.
void write_MM_QMatrix(const QMatrix *Q);

// printsubQ_MX: prints "\toffset: ROW0,COL0 size: ROWS,COLS\n" and then rows+1 lines of cols+1 " %g"
// items to standard output. Every item is the element (row0, col0) of the store (1-based): a fixed
// element rather than the block, kept as the routine has always behaved.
void printsubQ_MX(const QMatrix *Q, int rows, int cols, int row0, int col0);

// fprintQ_MX: writes the rows x cols leading block of the store (elements (1,1) to (rows,cols), lower
// triangle mirrored for a symmetric store) as a tab-separated table in the manner of fprintMX
// (numeric/diagnostics.h): zero is an empty cell, other values "%g\t", a line break per row.
void fprintQ_MX(FILE *file, const QMatrix *Q, int rows, int cols);

// fprintV: writes components 1..dimension of v, each as "%g\n".
void fprintV(FILE *file, const Vector *v);

// cmpQMatrixVsArray: compares the store with a dense array a (dimension x dimension, indexed [row][col]
// from 0, element [i][j] against store element (i+1, j+1)). Prints "MX dim %d\n" to standard output.
// For a column whose diagonal a[j][j] is zero while the store's list j holds elements it prints
// "element in row %d Q_Matrix not in A array\n" (j 1-based) on standard error and exits with status -1.
// Otherwise the differences a - Q go into a residual table, and for dimensions up to 421823 the
// residuals, the array and the store are written as tab-separated tables to "residuals.xls",
// "A_preMX.xls" and "AA_preMX.xls" in the current directory ("cannot open file %s\n" and exit status 1
// when one cannot be created). Returns the number of residuals whose magnitude exceeds 1e-10. Needs
// dimension^2 doubles of memory: meant for small matrices.
int cmpQMatrixVsArray(const QMatrix *Q, double **a);
