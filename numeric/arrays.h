// Allocators that never return null, and multi-dimensional arrays addressed as a[i][j] (or a[i][j][k])
// whose elements still sit in one contiguous block, so they can be handed to flat-array code as well.
//
// Types: counts and dimensions are `int` (32-bit signed), element sizes are `size_t` (unsigned, 64-bit).
// Every allocator here either succeeds or ends the process: on failure it writes one line to standard
// error ("==> malloc() error\n" or "==> calloc() error\n") and calls exit(-1). A request that cannot be
// represented (a negative count or dimension, a byte count that overflows, an array of 2^31 or more
// elements) is treated as exhausted memory in the same way. A request for zero bytes still returns a
// valid, distinct pointer that must be released like any other.
//
// Layout of a two-dimensional array of rows x cols elements of `size` bytes (get_img, get_init_arr):
// two heap blocks, a row table of `rows` pointers and a row-major element block of rows*cols*size
// bytes; row r points at byte r*cols*size of the element block, so table[0] is the element block.
// No dimensions are stored: the caller keeps them. Release with free_img.
//
// Usage:
//     double **a = (double **)get_img(width, height, sizeof(double));   // columns first
//     a[row][col] = 1.0;
//     free_img((void **)a);
#ifndef KELDRA_NUMERIC_ARRAYS_H
#define KELDRA_NUMERIC_ARRAYS_H

#include <cstddef>

// get_spc: zero-filled block of num*size bytes (calloc).
//   num   input: element count, >= 0
//   size  input: bytes per element
// Returns the block, owned by the caller (release with free). On failure writes "==> calloc() error\n"
// to stderr and exits with status -1.
void *get_spc(int num, size_t size);

// mget_spc: uninitialised block of num*size bytes (malloc).
// Arguments and ownership as get_spc. On failure writes "==> malloc() error\n" and exits with -1.
void *mget_spc(int num, size_t size);

// reget_spc: resizes a block from get_spc/mget_spc/reget_spc (or null) to num*size bytes (realloc);
// the contents up to the smaller size are kept, any new tail is uninitialised.
//   ptr   modified: the old block; it must no longer be used after a successful call
// Returns the possibly moved block, owned by the caller. On failure writes "==> malloc() error\n" (the
// same wording as mget_spc) and exits with -1.
void *reget_spc(void *ptr, int num, size_t size);

// get_img: two-dimensional array of rows x cols elements of `size` bytes, elements uninitialised.
//   cols  input: number of columns (the width) -- note the order: columns first
//   rows  input: number of rows (the height)
//   size  input: bytes per element (1, 4 and 8 are in use)
// Returns the row table; cast it to the element type's pointer-to-pointer (uint8_t **, double **...).
// Owned by the caller, released by free_img. Ends the process as mget_spc does on failure, also when
// rows*cols does not fit a 32-bit signed integer.
void **get_img(int cols, int rows, size_t size);

// get_init_arr: as get_img, but both blocks are zero-filled (elements read as 0 / 0.0 / null).
// Ends the process as get_spc does on failure.
void **get_init_arr(int cols, int rows, size_t size);

// free_img: releases an array from get_img or get_init_arr: the element block (reached through row
// pointer 0) and then the row table. A null pointer is ignored.
void free_img(void **pt);

// multialloc: n-dimensional array, called as multialloc(size, n, d0, d1, ..., d(n-1)) with the
// dimensions as int, outermost first. Level 0 is a table of d0 pointers, level k (1..n-2) one table of
// d0*...*dk pointers, then one element block of d0*...*d(n-1) elements of `size` bytes, uninitialised.
// Entry j of a level points at entry j*d(k+1) of the next level, so each table's first pointer is the
// start of the next level's block. With n = 1 the result is a plain block of d0 elements.
// Returns the level-0 table (or the element block for n = 1), owned by the caller, released by
// multifree(p, n). Ends the process as mget_spc does on failure, also for n < 1, a negative
// dimension, or more than 2^31 - 1 entries at any level.
void *multialloc(size_t size, int n, ...);

// multialloc_init: as multialloc, with every block zero-filled. Ends the process as get_spc does.
void *multialloc_init(size_t size, int n, ...);

// multifree: releases an array from multialloc or multialloc_init with the same n. Repeats n times:
// remember the first pointer of the current block, free the block, continue with the remembered
// pointer. A null block stops the freeing of further levels.
void multifree(void *r, int n);

#endif
