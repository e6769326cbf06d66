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

// One Gauss-Seidel step at each pixel of [begin, end) in the given direction. Pixels at least `reach`
// away from both ends of the grid need no bounds tests; `Lower` leaves out the neighbours after p,
// which are still zero in a forward sweep from zero.
// The planes a sweep reads: the matrix's own, or a single-precision copy of them.
template <typename T> struct Planes {
    const GridMatrix *shape;
    const T *diag;
    const T *bands;
    const PixelRuns *runs; // the pixels to visit, null for all
};

// Calls relax(p) for the pixels of [begin, end) that lie in the runs, ascending or descending.
template <typename Relax>
static inline void visitPixels(const PixelRuns *runs, int64_t begin, int64_t end, bool forward,
                               Relax &&relax) {
    if (forward)
        forEachRun(runs, begin, end, [&](int64_t a, int64_t b) {
            for (int64_t p = a; p < b; ++p)
                relax(p);
        });
    else
        forEachRunBackward(runs, begin, end, [&](int64_t a, int64_t b) {
            for (int64_t p = b - 1; p >= a; --p)
                relax(p);
        });
}

// One Gauss-Seidel step at pixel p away from the ends of the grid (p - reach >= 0, p + reach < n).
// Plane 0 couples p to p - 1 and p + 1, the pixels updated just before it: its terms come last, and the
// others go into four independent sums, so that a pixel does not wait on a chain of dependent additions.
// NB > 0 is the number of planes known at compile time (the loop unrolls and the sums stay in
// registers); NB == 0 reads it at run time.
template <typename T, int NB, bool Lower>
static inline double interiorSum(const T *const *band, const int64_t *shift, int nb, const double *x,
                                 int64_t p) {
    const int count = NB > 0 ? NB : nb;
    double a0 = 0.0, a1 = 0.0, a2 = 0.0, a3 = 0.0;
#pragma GCC unroll 16
    for (int k = 1; k < count; ++k) {
        double t = double(band[k][p - shift[k]]) * x[p - shift[k]];
        if (!Lower) t += double(band[k][p]) * x[p + shift[k]];
        switch (k & 3) {
        case 0:
            a0 += t;
            break;
        case 1:
            a1 += t;
            break;
        case 2:
            a2 += t;
            break;
        default:
            a3 += t;
            break;
        }
    }
    double s = (a0 + a1) + (a2 + a3);
    if (!Lower) s += double(band[0][p]) * x[p + shift[0]];
    return s + double(band[0][p - shift[0]]) * x[p - shift[0]];
}

template <typename T> struct PlanePointers {
    std::vector<const T *> band;
    std::vector<int64_t> shift;
    int64_t n, reach;
    int nb;
    explicit PlanePointers(const Planes<T> &P) {
        const GridMatrix *A = P.shape;
        n = gridPixels(A);
        nb = int(A->band_shift.size());
        for (int k = 0; k < nb; ++k) {
            band.push_back(P.bands + k * n);
            shift.push_back(A->band_shift[k]);
        }
        reach = nb ? shift[nb - 1] : 0;
    }
};

// One Gauss-Seidel step at each pixel of [begin, end) in the given direction. `Lower` leaves out the
// neighbours after p, which are still zero in a forward sweep from zero.
template <typename T, int NB, bool Lower>
static void relaxPixels(const Planes<T> &P, const double *inv_diag, const double *b, double *x, int64_t begin,
                        int64_t end, bool forward) {
    const PlanePointers<T> pp(P);
    const int64_t n = pp.n, reach = pp.reach;
    const int nb = pp.nb;
    const T *const *band = pp.band.data();
    const int64_t *shift = pp.shift.data();
    auto relax = [&](int64_t p) {
        double s = b[p];
        if (p >= reach && (Lower || p + reach < n) && nb > 0) {
            s -= interiorSum<T, NB, Lower>(band, shift, nb, x, p);
        } else {
            for (int k = 0; k < nb; ++k) {
                if (!Lower && p + shift[k] < n) s -= double(band[k][p]) * x[p + shift[k]];
                if (p - shift[k] >= 0) s -= double(band[k][p - shift[k]]) * x[p - shift[k]];
            }
        }
        x[p] = s * inv_diag[p];
    };
    visitPixels(P.runs, begin, end, forward, relax);
}

// The radius-1 Laplacian (12 forward planes) gets the unrolled kernel, any other size the general one.
template <typename T, bool Lower>
static void relaxRange(const Planes<T> &P, const double *inv_diag, const double *b, double *x, int64_t begin,
                       int64_t end, bool forward) {
    if (P.shape->band_shift.size() == 12)
        relaxPixels<T, 12, Lower>(P, inv_diag, b, x, begin, end, forward);
    else
        relaxPixels<T, 0, Lower>(P, inv_diag, b, x, begin, end, forward);
}

// [0, lo) and [hi, n) are further apart than any coupling: two threads sweep them at once and the
// middle [lo, hi) comes last in the order (first when sweeping backward).
struct SweepOrder {
    bool split;
    int64_t lo, hi;
};

static SweepOrder sweepOrder(const GridMatrix *A) {
    const int64_t n = gridPixels(A);
    const int64_t reach = A->band_shift.empty() ? 0 : A->band_shift.back();
    const int64_t half = reach / 2 + 1, mid = n / 2;
    const bool split = n >= 2 * kParallelGrain && mid - half > 0 && mid + half < n;
    return {split, split ? mid - half : n, split ? mid + half : n};
}

template <typename T>
static void sweep(const Planes<T> &P, const double *inv_diag, const double *b, double *x, bool forward,
                  bool from_zero) {
    const int64_t n = gridPixels(P.shape);
    if (from_zero) std::fill(x, x + n, 0.0);
    const bool lower = from_zero && forward;
    const SweepOrder o = sweepOrder(P.shape);
    auto part = [&](int64_t from, int64_t to, bool lower_only) {
        if (lower_only)
            relaxRange<T, true>(P, inv_diag, b, x, from, to, forward);
        else
            relaxRange<T, false>(P, inv_diag, b, x, from, to, forward);
    };
    if (forward) {
        if (o.split)
            parallelTwo([&] { part(0, o.lo, lower); }, [&] { part(o.hi, n, lower); });
        else
            part(0, n, lower);
        part(o.lo, o.hi, false);
    } else {
        part(o.lo, o.hi, false);
        if (o.split)
            parallelTwo([&] { part(0, o.lo, false); }, [&] { part(o.hi, n, false); });
        else
            part(0, n, false);
    }
}

// The forward sweep from zero over [from, to), where every neighbour numbered above p is still zero,
// with the residual formed on the way: p's own residual is what its update leaves, and each pixel adds
// -A(q, p) x[p] to the residual of every neighbour q below it that was updated before it in the sweep
// order (q >= floor). The coupling values are read once for both.
template <typename T, int NB>
static void relaxLowerWithResidualPixels(const Planes<T> &P, const double *inv_diag, const double *b,
                                         double *x, double *res, int64_t from, int64_t to, int64_t floor) {
    const PlanePointers<T> pp(P);
    const int64_t reach = pp.reach;
    const int nb = pp.nb;
    const T *const *band = pp.band.data();
    const int64_t *shift = pp.shift.data();
    visitPixels(P.runs, from, to, true, [&](int64_t p) {
        double s = b[p];
        if (p - reach >= floor && nb > 0) {
            s -= interiorSum<T, NB, true>(band, shift, nb, x, p);
            const double xp = s * inv_diag[p];
            x[p] = xp;
            res[p] = s - double(P.diag[p]) * xp;
            const int count = NB > 0 ? NB : nb;
#pragma GCC unroll 16
            for (int k = 0; k < count; ++k)
                res[p - shift[k]] -= double(band[k][p - shift[k]]) * xp;
        } else {
            for (int k = 0; k < nb; ++k)
                if (p - shift[k] >= 0) s -= double(band[k][p - shift[k]]) * x[p - shift[k]];
            const double xp = s * inv_diag[p];
            x[p] = xp;
            res[p] = s - double(P.diag[p]) * xp;
            for (int k = 0; k < nb; ++k)
                if (p - shift[k] >= floor && p - shift[k] >= 0)
                    res[p - shift[k]] -= double(band[k][p - shift[k]]) * xp;
        }
    });
}

template <typename T>
static void relaxLowerWithResidual(const Planes<T> &P, const double *inv_diag, const double *b, double *x,
                                   double *res, int64_t from, int64_t to, int64_t floor) {
    if (P.shape->band_shift.size() == 12)
        relaxLowerWithResidualPixels<T, 12>(P, inv_diag, b, x, res, from, to, floor);
    else
        relaxLowerWithResidualPixels<T, 0>(P, inv_diag, b, x, res, from, to, floor);
}

// The same for the middle [lo, hi) of a split sweep, which comes after both outer parts: its pixels
// read every neighbour, and add to the residual of all neighbours below them and of those above them
// in the second part, all of which came earlier in the order.
template <typename T>
static void relaxMiddleWithResidual(const Planes<T> &P, const double *inv_diag, const double *b, double *x,
                                    double *res, int64_t lo, int64_t hi) {
    const PlanePointers<T> pp(P);
    const int64_t n = pp.n;
    visitPixels(P.runs, lo, hi, true, [&](int64_t p) {
        double s = b[p];
        for (int k = 0; k < pp.nb; ++k) {
            const int64_t sh = pp.shift[k];
            if (p + sh < n) s -= double(pp.band[k][p]) * x[p + sh];
            if (p - sh >= 0) s -= double(pp.band[k][p - sh]) * x[p - sh];
        }
        const double xp = s * inv_diag[p];
        x[p] = xp;
        res[p] = s - double(P.diag[p]) * xp;
        for (int k = 0; k < pp.nb; ++k) {
            const int64_t sh = pp.shift[k];
            if (p - sh >= 0) res[p - sh] -= double(pp.band[k][p - sh]) * xp;
            if (p + sh < n && p + sh >= hi) res[p + sh] -= double(pp.band[k][p]) * xp;
        }
    });
}

template <typename T>
static void sweepWithResidual(const Planes<T> &P, const double *inv_diag, const double *b, double *x,
                              double *res) {
    const int64_t n = gridPixels(P.shape);
    const SweepOrder o = sweepOrder(P.shape);
    // Each pixel is written before anything reads it, except the middle, which the second part reads
    // (as the zeros it still holds in the sweep order).
    std::fill(x + o.lo, x + o.hi, 0.0);
    if (!o.split) {
        relaxLowerWithResidual(P, inv_diag, b, x, res, 0, n, 0);
        return;
    }
    parallelTwo([&] { relaxLowerWithResidual(P, inv_diag, b, x, res, 0, o.lo, 0); },
                [&] { relaxLowerWithResidual(P, inv_diag, b, x, res, o.hi, n, o.hi); });
    relaxMiddleWithResidual(P, inv_diag, b, x, res, o.lo, o.hi);
}

void sweepGridMatrix(const GridMatrix *A, const double *inv_diag, const double *b, double *x, bool forward,
                     bool from_zero, const PixelRuns *runs) {
    sweep(Planes<double>{A, A->diag.data(), A->bands.data(), runs}, inv_diag, b, x, forward, from_zero);
}

void sweepGridMatrixWithResidual(const GridMatrix *A, const double *inv_diag, const double *b, double *x,
                                 double *res, const PixelRuns *runs) {
    sweepWithResidual(Planes<double>{A, A->diag.data(), A->bands.data(), runs}, inv_diag, b, x, res);
}

void copyGridMatrixSingle(const GridMatrix *A, GridMatrixSingle *S) {
    S->A = A;
    S->diag.assign(A->diag.begin(), A->diag.end());
    S->bands.resize(A->bands.size());
    parallelRange(int64_t(A->bands.size()), 1 << 16, [&](int64_t begin, int64_t end) {
        for (int64_t k = begin; k < end; ++k)
            S->bands[k] = float(A->bands[k]);
    });
}

void sweepGridMatrix(const GridMatrixSingle *S, const double *inv_diag, const double *b, double *x,
                     bool forward, bool from_zero, const PixelRuns *runs) {
    sweep(Planes<float>{S->A, S->diag.data(), S->bands.data(), runs}, inv_diag, b, x, forward, from_zero);
}

void sweepGridMatrixWithResidual(const GridMatrixSingle *S, const double *inv_diag, const double *b,
                                 double *x, double *res, const PixelRuns *runs) {
    sweepWithResidual(Planes<float>{S->A, S->diag.data(), S->bands.data(), runs}, inv_diag, b, x, res);
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
