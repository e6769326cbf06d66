// Compact by-diagonals store for symmetric matrices on a pixel grid.
#include "matting/grid_matrix.h"

#include <algorithm>
#include <limits>
#include <numeric>

#include "matting/parallel.h"

// Pixels per block of the product: the block of y stays in the first-level cache while every plane
// passes over it.
static constexpr int64_t kBlock = 2048;
static constexpr int64_t kParallelGrain = 1 << 16;

void initGridMatrix(GridMatrix *A, int height, int width, int reach) {
    A->height = height;
    A->width = width;
    A->reach = reach;
    struct Offset {
        int drow, dcol;
        int64_t shift;
    };
    std::vector<Offset> offsets;
    for (int dcol = 0; dcol <= reach; ++dcol)
        for (int drow = (dcol == 0 ? 1 : -reach); drow <= reach; ++drow)
            offsets.push_back({drow, dcol, drow + int64_t(dcol) * height});
    std::stable_sort(offsets.begin(), offsets.end(),
                     [](const Offset &a, const Offset &b) { return a.shift < b.shift; });
    A->band_drow.clear();
    A->band_dcol.clear();
    A->band_shift.clear();
    for (const Offset &o : offsets) {
        A->band_drow.push_back(o.drow);
        A->band_dcol.push_back(o.dcol);
        A->band_shift.push_back(o.shift);
    }
    const int64_t n = int64_t(height) * width;
    A->diag.assign(n, 0.0);
    A->bands.clear();
    A->bands.shrink_to_fit();
    A->bands.assign(offsets.size() * n, 0.0);
}

int64_t gridPixels(const GridMatrix *A) {
    return int64_t(A->height) * A->width;
}

int gridBandIndex(const GridMatrix *A, int drow, int dcol) {
    for (size_t k = 0; k < A->band_drow.size(); ++k)
        if (A->band_drow[k] == drow && A->band_dcol[k] == dcol) return int(k);
    return -1;
}

double gridElement(const GridMatrix *A, int64_t p, int drow, int dcol) {
    const int64_t n = gridPixels(A);
    const int64_t row = p % A->height, col = p / A->height;
    if (row + drow < 0 || row + drow >= A->height || col + dcol < 0 || col + dcol >= A->width) return 0.0;
    if (drow == 0 && dcol == 0) return A->diag[p];
    int k = gridBandIndex(A, drow, dcol);
    if (k >= 0) return A->bands[k * n + p];
    k = gridBandIndex(A, -drow, -dcol);
    if (k < 0) return 0.0;
    return A->bands[k * n + p + drow + int64_t(dcol) * A->height];
}

int64_t gridNonZeros(const GridMatrix *A) {
    int64_t count = 0;
    for (double v : A->diag)
        count += (v != 0.0);
    for (double v : A->bands)
        count += (v != 0.0);
    return count;
}

void gridCoupledPixels(const GridMatrix *A, std::vector<char> *coupled) {
    const int64_t n = gridPixels(A);
    coupled->assign(n, 0);
    for (size_t k = 0; k < A->band_shift.size(); ++k) {
        const int64_t s = A->band_shift[k];
        const double *band = A->bands.data() + k * n;
        for (int64_t p = 0; p + s < n; ++p)
            if (band[p] != 0.0) (*coupled)[p] = (*coupled)[p + s] = 1;
    }
}

void gridActiveRuns(const GridMatrix *A, PixelRuns *runs) {
    std::vector<char> coupled;
    gridCoupledPixels(A, &coupled);
    runs->clear();
    const int64_t n = gridPixels(A);
    for (int64_t p = 0; p < n;) {
        while (p < n && !(coupled[p] && A->diag[p] > 0.0))
            ++p;
        const int64_t first = p;
        while (p < n && coupled[p] && A->diag[p] > 0.0)
            ++p;
        if (p > first) runs->emplace_back(first, p);
    }
}

void multiplyGridMatrixRange(const GridMatrix *A, const double *x, double *y, int64_t begin, int64_t end) {
    const int64_t n = gridPixels(A);
    const size_t nbands = A->band_shift.size();
    const double *diag = A->diag.data();
    for (int64_t b0 = begin; b0 < end; b0 += kBlock) {
        const int64_t b1 = std::min(end, b0 + kBlock);
        for (int64_t q = b0; q < b1; ++q)
            y[q] = diag[q] * x[q];
        for (size_t k = 0; k < nbands; ++k) {
            const int64_t s = A->band_shift[k];
            const double *band = A->bands.data() + k * n;
            // Upper triangle: y[q] += A(q, q + s) x[q + s].
            const int64_t hi = std::min(b1, n - s);
            for (int64_t q = b0; q < hi; ++q)
                y[q] += band[q] * x[q + s];
            // Lower triangle: y[q] += A(q - s, q) x[q - s], read from the plane at q - s.
            for (int64_t q = std::max(b0, s); q < b1; ++q)
                y[q] += band[q - s] * x[q - s];
        }
    }
}

void multiplyGridMatrix(const GridMatrix *A, const double *x, double *y) {
    parallelRange(gridPixels(A), kParallelGrain,
                  [&](int64_t begin, int64_t end) { multiplyGridMatrixRange(A, x, y, begin, end); });
}

// Planes in order of descending shift, so that the rows q - shift of one column come out ascending.
static std::vector<size_t> descendingBands(const GridMatrix *A) {
    std::vector<size_t> order(A->band_shift.size());
    std::iota(order.begin(), order.end(), size_t(0));
    std::reverse(order.begin(), order.end());
    return order;
}

template <typename Index> static void checkIndexRange(int64_t count) {
    if (count > int64_t(std::numeric_limits<Index>::max())) throw std::bad_alloc();
}

// Appends the stored elements of column q on and above the diagonal, rows ascending, diagonal last.
template <typename Index>
static void appendUpperColumn(const GridMatrix *A, const std::vector<size_t> &order, int64_t q,
                              std::vector<Index> *rowind, std::vector<double> *values) {
    const int64_t n = gridPixels(A);
    for (size_t k : order) {
        const int64_t p = q - A->band_shift[k];
        if (p < 0) continue;
        const double v = A->bands[k * n + p];
        if (v == 0.0) continue;
        rowind->push_back(Index(p));
        values->push_back(v);
    }
    if (A->diag[q] != 0.0) {
        rowind->push_back(Index(q));
        values->push_back(A->diag[q]);
    }
}

template <typename Index>
void gridMatrixToUpperColumns(const GridMatrix *A, std::vector<Index> *colptr, std::vector<Index> *rowind,
                              std::vector<double> *values) {
    const int64_t n = gridPixels(A);
    const std::vector<size_t> order = descendingBands(A);
    checkIndexRange<Index>(n);
    checkIndexRange<Index>(gridNonZeros(A));
    colptr->assign(n + 1, 0);
    rowind->clear();
    values->clear();
    rowind->reserve(gridNonZeros(A));
    values->reserve(gridNonZeros(A));
    for (int64_t q = 0; q < n; ++q) {
        appendUpperColumn(A, order, q, rowind, values);
        (*colptr)[q + 1] = Index(rowind->size());
    }
}

template <typename Index>
void gridMatrixToFullColumns(const GridMatrix *A, std::vector<Index> *colptr, std::vector<Index> *rowind,
                             std::vector<double> *values) {
    const int64_t n = gridPixels(A);
    const std::vector<size_t> order = descendingBands(A);
    const int64_t upper = gridNonZeros(A);
    int64_t diagonal = 0;
    for (double v : A->diag)
        diagonal += (v != 0.0);
    const int64_t total = 2 * upper - diagonal;
    checkIndexRange<Index>(n);
    checkIndexRange<Index>(total);
    colptr->assign(n + 1, 0);
    rowind->clear();
    values->clear();
    rowind->reserve(total);
    values->reserve(total);
    const size_t nbands = A->band_shift.size();
    for (int64_t q = 0; q < n; ++q) {
        appendUpperColumn(A, order, q, rowind, values);
        for (size_t k = 0; k < nbands; ++k) {
            const int64_t p = q + A->band_shift[k];
            if (p >= n) continue;
            const double v = A->bands[k * n + q];
            if (v == 0.0) continue;
            rowind->push_back(Index(p));
            values->push_back(v);
        }
        (*colptr)[q + 1] = Index(rowind->size());
    }
}

template void gridMatrixToUpperColumns<int>(const GridMatrix *, std::vector<int> *, std::vector<int> *,
                                            std::vector<double> *);
template void gridMatrixToUpperColumns<long>(const GridMatrix *, std::vector<long> *, std::vector<long> *,
                                             std::vector<double> *);
template void gridMatrixToFullColumns<int>(const GridMatrix *, std::vector<int> *, std::vector<int> *,
                                           std::vector<double> *);
template void gridMatrixToFullColumns<long>(const GridMatrix *, std::vector<long> *, std::vector<long> *,
                                            std::vector<double> *);
