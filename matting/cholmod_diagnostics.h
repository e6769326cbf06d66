// Debugging comparisons between the solver's CHOLMOD containers, the sparse store's vectors and dense
// arrays: each prints the elements that differ and returns how many there are.
//
// Values compare equal when their absolute difference is at most 1e-10 (NaN never compares equal),
// except in cmpDenseVsVector, which is exact. Sparse matrices may be packed or unpacked, sorted or not,
// with int or long indices (cholmod_* or cholmod_l_*); values must be real doubles. Dense objects are
// compared on their first column. Indices in messages are 0-based, except a store Vector's component.
#pragma once

#include "matting/sparse_store.h"

#include <cholmod.h>

// hasNonZeros: index of the first element of X's first column, from index `from` on, whose magnitude
// exceeds 1e-10 (or that is NaN); -1 when there is none.
long hasNonZeros(const cholmod_dense *X, size_t from);

// cmpSparseVsArray: compares the compressed-column matrix A with the array a (A->nrow x A->ncol, indexed
// [row][col]). For each stored element that differs prints "Values are different comparing A%d,%d (%g)
// B%d,%d (%g)\n" (row, column and value of A, then of a); for each non-zero of a with no stored element
// prints "value found in array nothing in sparse col at i,j %d,%d\n". For a symmetric A (stype != 0)
// only the triangle CHOLMOD uses is compared. Output on standard output. Returns the count of both.
int cmpSparseVsArray(const cholmod_sparse *A, double **a);

// cmpDenseVsDense: compares A and B element by element over their common length, printing "disparity
// between dense objects at index %d.\n" for each difference; when one is longer and holds a non-zero
// beyond the other's end (hasNonZeros), prints "first Matrix has extra nonzero beyond second at index
// %d\n" or "second Matrix has extra nonzero beyond first at index %d\n" and counts it once. Standard
// output. Returns the number of differences.
int cmpDenseVsDense(const cholmod_dense *A, const cholmod_dense *B);

// cmpDenseVsVector: compares A[k] exactly with component k+1 of the store vector v, printing "Vectors are
// not equal A[%d] (%g) B[%d] (%g)\n" (k, A[k], k+1, v's component) for each difference; when the lengths
// differ it prints "Vectors have different lengths %d and %d\n" and counts that once. Reads v's components
// directly, so a pending store error does not hide them. Returns the number of differences.
int cmpDenseVsVector(const cholmod_dense *A, const Vector *v);

// cmpDenseVsArray: compares A[i] with a[i][col] for i below A->nrow (a needs that many rows), printing
// "Values are different comparing A%d,%d (%g) B%d,%d (%g)\n" (i, 0, A[i], i, col, a[i][col]) for each
// difference. Returns the number of differences.
int cmpDenseVsArray(const cholmod_dense *A, double **a, int col);

// cmpSparseVsSparse: compares A and B element by element as stored (an element missing from one side
// counts as 0; duplicates in a column add up), in scratch space taken from the CHOLMOD workspace c (the
// common object started with cholmod_start or cholmod_l_start, matching the matrices' index type).
// Prints "Values are different comparing A%d,%d (%g) B%d,%d (%g)\n" for each difference. Returns the
// number of differences; -1 after "cmpSparseVsSparse: dimensions differ (%d x %d, %d x %d)\n" when the
// sizes differ, or when CHOLMOD cannot provide the scratch space (its status is left in c).
int cmpSparseVsSparse(const cholmod_sparse *A, const cholmod_sparse *B, cholmod_common *c);
