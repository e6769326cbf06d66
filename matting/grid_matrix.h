// Compact store for the symmetric sparse matrices of the large-image solvers, whose rows and columns are
// the pixels of an image grid and whose elements couple only pixels a few rows and columns apart (the
// matting Laplacian). The matrix is kept by diagonals: the main diagonal and, for every forward pixel
// offset, one plane holding that offset's element for each pixel. No index is stored, so a pixel costs
// (number of forward offsets + 1) doubles, 13 for the radius-1 Laplacian.
//
// Pixels are numbered column-major, p = row + column * height, as in the engine's linear systems.
// A forward offset (drow, dcol) has dcol > 0, or dcol == 0 and drow > 0; its element for pixel p is
// A(p, q) = A(q, p) with q = (row + drow, column + dcol). The lower triangle is implied by symmetry.
// Planes hold 0.0 wherever q falls outside the grid; code that fills a GridMatrix keeps it that way.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

struct GridMatrix {
    int height = 0;                  // rows of the pixel grid
    int width = 0;                   // columns of the pixel grid
    int reach = 0;                   // |drow| and |dcol| of every coupling are at most reach
    std::vector<int> band_drow;      // [bands] row offset of each forward offset
    std::vector<int> band_dcol;      // [bands] column offset of each forward offset
    std::vector<int64_t> band_shift; // [bands] drow + dcol * height, ascending
    std::vector<double> diag;        // [n] main diagonal
    std::vector<double> bands;       // [bands * n] element (p, p + band_shift[k]) at bands[k * n + p]
};

// A linear system on a pixel grid: the matrix, the right-hand side and, when the system comes from an
// image, that image's colour planes, which the multigrid preconditioner uses to build its coarse levels.
struct GridSystem {
    GridMatrix A;
    std::vector<double> b;     // [n]
    int channels = 0;          // colour planes held: 3, 1 (grey) or 0
    std::vector<float> colour; // [channels * n] plane after plane, pixel order of A, values in [0, 1]
};

// initGridMatrix: makes A an all-zero matrix on a height x width grid with couplings up to `reach`.
//   A       output: previous contents are released; 2 * reach * (reach + 1) forward offsets are set up,
//           ordered by ascending shift (ties, possible when height <= 2 * reach, by column offset)
//   height  input: >= 1
//   width   input: >= 1
//   reach   input: >= 0
// Allocation failure throws std::bad_alloc.
void initGridMatrix(GridMatrix *A, int height, int width, int reach);

// gridPixels: n = height * width, the order of the matrix.
int64_t gridPixels(const GridMatrix *A);

// gridBandIndex: the plane of forward offset (drow, dcol), or -1 when (drow, dcol) is not a forward
// offset within reach (a backward offset, the diagonal (0, 0), or too far).
int gridBandIndex(const GridMatrix *A, int drow, int dcol);

// gridElement: A(p, q) for pixel q = p + (drow, dcol) in either direction, 0.0 when q lies outside the
// grid or beyond reach. (0, 0) gives the diagonal. Meant for tests and set-up code, not inner loops.
double gridElement(const GridMatrix *A, int64_t p, int drow, int dcol);

// gridNonZeros: number of non-zero elements stored in the upper triangle, diagonal included.
int64_t gridNonZeros(const GridMatrix *A);

// gridCoupledPixels: coupled[p] = 1 when row p has a non-zero element off the diagonal, else 0. A row
// without one is an equation of its own, A(p, p) x[p] = b[p].
void gridCoupledPixels(const GridMatrix *A, std::vector<char> *coupled);

// PixelRuns: sorted, disjoint [first, second) intervals of pixel indices, the pixels an iteration has
// to work on. A row without off-diagonal elements is an equation of its own, and no other row refers to
// its pixel, so a solver can set such pixels once and leave them out of every later pass: in a trimap
// or at the finer levels of a pyramid, that is most of the image.
typedef std::vector<std::pair<int64_t, int64_t>> PixelRuns;

// gridActiveRuns: the runs of pixels whose row has an off-diagonal element and a positive diagonal.
void gridActiveRuns(const GridMatrix *A, PixelRuns *runs);

// forEachRun: fn(first, last) for every non-empty intersection of a run with [begin, end), in ascending
// order (forEachRunBackward: descending). With runs null, fn(begin, end) once.
template <typename Fn> inline void forEachRun(const PixelRuns *runs, int64_t begin, int64_t end, Fn &&fn) {
    if (!runs) {
        if (begin < end) fn(begin, end);
        return;
    }
    auto it = std::upper_bound(runs->begin(), runs->end(), begin,
                               [](int64_t v, const std::pair<int64_t, int64_t> &r) { return v < r.second; });
    for (; it != runs->end() && it->first < end; ++it)
        fn(std::max(it->first, begin), std::min(it->second, end));
}
template <typename Fn>
inline void forEachRunBackward(const PixelRuns *runs, int64_t begin, int64_t end, Fn &&fn) {
    if (!runs) {
        if (begin < end) fn(begin, end);
        return;
    }
    auto first =
        std::upper_bound(runs->begin(), runs->end(), begin,
                         [](int64_t v, const std::pair<int64_t, int64_t> &r) { return v < r.second; });
    auto last = first;
    while (last != runs->end() && last->first < end)
        ++last;
    while (last != first) {
        --last;
        fn(std::max(last->first, begin), std::min(last->second, end));
    }
}

// multiplyGridMatrix: y = A x, on both cores when the grid is large.
//   A  input
//   x  input: n values
//   y  output: n values; must not overlap x
void multiplyGridMatrix(const GridMatrix *A, const double *x, double *y);

// multiplyGridMatrixRange: y[q] = (A x)[q] for q in [begin, end) only, in the calling thread. Building
// block for fused loops that split a range themselves.
void multiplyGridMatrixRange(const GridMatrix *A, const double *x, double *y, int64_t begin, int64_t end);

// GridStencils: the fine-level smoother's copy of A, stored pixel by pixel in reduced precision. Each
// pixel's record is its whole (2 reach + 1)^2 stencil, the diagonal in the middle and
// A(p, p + drow + dcol * height) at [(dcol + reach) * (2 reach + 1) + drow + reach], 0 for neighbours
// outside the grid, so that a sweep reads one contiguous record per pixel and, for each column of the
// stencil, consecutive pixels of x. The values are A / scale rounded to half precision (11 significant
// bits) where the processor converts halves itself, otherwise to single precision; scale is the power
// of two that puts the largest element near the top of that range. The smoother only steers the
// iteration, and its half-size records are what a sweep over a large image waits for.
#if defined(__F16C__)
typedef uint16_t GridCoefficient; // IEEE half-precision bits
#else
typedef float GridCoefficient;
#endif

struct GridStencils {
    const GridMatrix *A = nullptr; // the matrix copied, for its shape
    double scale = 1.0;
    std::vector<GridCoefficient> stencil; // [n][(2 reach + 1)^2]
};

// copyGridStencils: S = A in reduced precision; S refers to A for its shape.
void copyGridStencils(const GridMatrix *A, GridStencils *S);

// gridStencilValue: the element S holds for an element v of A (scale * the rounded v / scale), so that
// a caller can tell the matrix the sweeps work with.
double gridStencilValue(const GridStencils *S, double v);

// sweepGridMatrix: one Gauss-Seidel sweep for S x = b over the pixels, forward or backward, with all
// sums in double precision (S: the matrix of gridStencilValue elements), on both cores for large grids. The
// pixel order is the same in every sweep and the backward sweep runs it in reverse, so a forward sweep before
// and a backward sweep after a coarse correction make a symmetric cycle. With `from_zero` (forward only) x is
// set to zero first and the pixels not yet visited are not read.
//   inv_diag  input: 1 / A(p, p), or 0 for a pixel to be left at 0 (a row that is not used)
//   b         input
//   x         modified
//   runs      input: the pixels to update (null: all); the others are neither written nor, through
//             a non-zero coupling, read
void sweepGridMatrix(const GridStencils *S, const double *inv_diag, const double *b, double *x, bool forward,
                     bool from_zero, const PixelRuns *runs = nullptr);

// sweepGridMatrixBackwardWithProduct: the backward sweep of sweepGridMatrix, and ax = A x for the x it
// leaves, with A the exact matrix S was copied from, formed during the same pass (on the runs only,
// when given; other entries of ax are not written).
//   ax  output: n values, must not overlap b or x
void sweepGridMatrixBackwardWithProduct(const GridStencils *S, const double *inv_diag, const double *b,
                                        double *x, double *ax, const PixelRuns *runs = nullptr);

// sweepGridMatrixWithResidual: the forward sweep from zero of sweepGridMatrix, and the residual it
// leaves, res = b - S x, formed while the records are still in the cache (on the runs only, when given).
//   inv_diag, b  input: as sweepGridMatrix
//   x            output
//   res          output: n values, must not overlap b or x
void sweepGridMatrixWithResidual(const GridStencils *S, const double *inv_diag, const double *b, double *x,
                                 double *res, const PixelRuns *runs = nullptr);

// gridMatrixToUpperColumns: the upper triangle of A in compressed-column form, row indices ascending in
// every column, the diagonal last; elements equal to 0.0 are left out, the diagonal included.
//   A       input
//   colptr  output: n + 1 column starts (colptr[0] = 0, colptr[n] = number of elements)
//   rowind  output: row index of each element
//   values  output: value of each element
// Index type is a template parameter so that 32- and 64-bit solvers share the code; instantiated for
// int and long. Allocation failure, or more elements than Index can count, throws std::bad_alloc.
template <typename Index>
void gridMatrixToUpperColumns(const GridMatrix *A, std::vector<Index> *colptr, std::vector<Index> *rowind,
                              std::vector<double> *values);

// gridMatrixToFullColumns: as gridMatrixToUpperColumns, but both triangles (the matrix as UMFPACK takes
// it); every column's row indices ascend, with the diagonal in its sorted place.
template <typename Index>
void gridMatrixToFullColumns(const GridMatrix *A, std::vector<Index> *colptr, std::vector<Index> *rowind,
                             std::vector<double> *values);
