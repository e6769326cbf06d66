// Gauss-Seidel sweeps on the pixel-by-pixel, reduced-precision copy of a grid matrix: the fine-level
// smoother of the multigrid preconditioner.
//
// Every pixel's record holds its whole stencil, so a step reads one contiguous record and, for each
// column of the stencil, consecutive pixels of x: four of the five neighbours of a radius-1 column go in
// one vector multiply. The neighbour updated just before p (p - 1 forward, p + 1 backward) is added last,
// so that the chain from one pixel to the next is a single multiply-add.
#include <algorithm>
#include <cmath>
#include <cstring>
#if defined(__F16C__)
#include <immintrin.h>
#endif

#include "matting/grid_matrix.h"
#include "matting/parallel.h"

namespace {

constexpr int64_t kParallelGrain = 1 << 16;
// Pixels swept between two rounds of the work that trails a sweep (residuals, products): that work
// starts once the sweep has moved a stencil past a pixel and reads its record while it is still cached.
constexpr int64_t kChunk = 1024;

typedef float Float4 __attribute__((vector_size(16)));
typedef double Double4 __attribute__((vector_size(32)));

#if defined(__F16C__)
inline double widen(GridCoefficient c) {
    return _cvtsh_ss(c);
}

inline GridCoefficient narrow(double v) {
    return _cvtss_sh(float(v), _MM_FROUND_TO_NEAREST_INT);
}

// acc += c[0 .. 3] x[0 .. 3], the coefficients widened to double.
inline void multiplyAdd4(Double4 &acc, const GridCoefficient *c, const double *x) {
    const __m128 wide = _mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(c)));
    Float4 cf;
    Double4 xd;
    std::memcpy(&cf, &wide, sizeof cf);
    std::memcpy(&xd, x, sizeof xd);
    acc += __builtin_convertvector(cf, Double4) * xd;
}
#else
inline double widen(GridCoefficient c) {
    return c;
}

inline GridCoefficient narrow(double v) {
    return float(v);
}

inline void multiplyAdd4(Double4 &acc, const GridCoefficient *c, const double *x) {
    Float4 cf;
    Double4 xd;
    std::memcpy(&cf, c, sizeof cf);
    std::memcpy(&xd, x, sizeof xd);
    acc += __builtin_convertvector(cf, Double4) * xd;
}
#endif

// Which neighbours a sum reads: all, only those before p in the pixel order (a forward sweep from zero,
// where the others are still zero), or only those after p.
enum Part { kAll, kBefore, kAfter };

// Geometry of the records: side = 2 R + 1 entries per stencil column, column dcol at (dcol + R) * side,
// the diagonal at R * side + R. R is a template parameter for the radius-1 matrix (R = 2) and 0 for
// any other reach, read at run time.
template <int R> struct Shape {
    int reach, side;
    int64_t height, n, edge; // edge = R * height + R: pixels closer than this to an end need bounds tests
    explicit Shape(const GridMatrix *A)
        : reach(R > 0 ? R : A->reach), side(2 * reach + 1), height(A->height), n(gridPixels(A)),
          edge(int64_t(reach) * A->height + reach) {}
};

// sum over the stencil of p, diagonal excluded, of A(p, q) x[q], for a pixel at least `edge` from both
// ends. `last` = -1: the neighbour p - 1 is added last (forward sweep), +1: p + 1 last (backward).
template <int R, Part P>
inline double interiorSum(const Shape<R> &g, const GridCoefficient *c, const double *x, int64_t p, int last) {
    const int reach = g.reach, side = g.side;
    const int dcol_begin = P == kAfter ? 1 : -reach, dcol_end = P == kBefore ? 0 : reach + 1;
    double sum;
    if constexpr (R == 2) {
        Double4 acc = {0, 0, 0, 0};
        double tail = 0.0;
        for (int dcol = dcol_begin; dcol < dcol_end; ++dcol) {
            if (dcol == 0) continue;
            const GridCoefficient *cc = c + (dcol + 2) * 5;
            const double *xx = x + p + dcol * g.height - 2;
            multiplyAdd4(acc, cc, xx);
            tail += widen(cc[4]) * xx[4];
        }
        sum = (acc[0] + acc[1]) + (acc[2] + acc[3]) + tail;
    } else {
        sum = 0.0;
        for (int dcol = dcol_begin; dcol < dcol_end; ++dcol) {
            if (dcol == 0) continue;
            const GridCoefficient *cc = c + (dcol + reach) * side;
            const double *xx = x + p + dcol * g.height - reach;
            for (int k = 0; k < side; ++k)
                sum += widen(cc[k]) * xx[k];
        }
    }
    // The centre column, the neighbour updated last left to the end.
    const GridCoefficient *cc = c + reach * side + reach;
    const int drow_begin = P == kAfter ? 1 : -reach, drow_end = P == kBefore ? 0 : reach + 1;
    for (int drow = drow_begin; drow < drow_end; ++drow)
        if (drow != 0 && drow != last) sum += widen(cc[drow]) * x[p + drow];
    if (reach > 0 && last >= drow_begin && last < drow_end) sum += widen(cc[last]) * x[p + last];
    return sum;
}

// The same sum with every neighbour checked against the grid, for pixels near the ends.
template <int R, Part P>
inline double borderSum(const Shape<R> &g, const GridCoefficient *c, const double *x, int64_t p) {
    const int reach = g.reach, side = g.side;
    double sum = 0.0;
    for (int dcol = -reach; dcol <= reach; ++dcol)
        for (int drow = -reach; drow <= reach; ++drow) {
            const int64_t offset = drow + dcol * g.height;
            if (offset == 0 || (P == kBefore && offset > 0) || (P == kAfter && offset < 0)) continue;
            const int64_t q = p + offset;
            if (q < 0 || q >= g.n) continue;
            sum += widen(c[(dcol + reach) * side + drow + reach]) * x[q];
        }
    return sum;
}

template <int R, Part P>
inline double neighbourSum(const Shape<R> &g, const GridCoefficient *c, const double *x, int64_t p,
                           int last) {
    if (p >= g.edge && p + g.edge < g.n) return interiorSum<R, P>(g, c, x, p, last);
    return borderSum<R, P>(g, c, x, p);
}

template <typename Fn> void visit(const PixelRuns *runs, int64_t begin, int64_t end, bool forward, Fn &&fn) {
    if (forward)
        forEachRun(runs, begin, end, [&](int64_t a, int64_t b) {
            for (int64_t p = a; p < b; ++p)
                fn(p);
        });
    else
        forEachRunBackward(runs, begin, end, [&](int64_t a, int64_t b) {
            for (int64_t p = b - 1; p >= a; --p)
                fn(p);
        });
}

struct Sweep {
    const GridStencils *S;
    const double *inv_diag, *b;
    double *x;
    const PixelRuns *runs;
};

// One Gauss-Seidel step at each pixel of [begin, end), in the given direction. With `partial`, the
// forward step from zero also leaves there what remains of p's residual once the neighbours after p
// are counted, b - (A x) restricted to p and the pixels before it.
template <int R, Part P>
void relax(const Sweep &w, int64_t begin, int64_t end, bool forward, double *partial = nullptr) {
    const Shape<R> g(w.S->A);
    const int64_t size = int64_t(g.side) * g.side, centre = int64_t(g.reach) * g.side + g.reach;
    const GridCoefficient *stencil = w.S->stencil.data();
    const int last = forward ? -1 : 1;
    visit(w.runs, begin, end, forward, [&](int64_t p) {
        const GridCoefficient *c = stencil + p * size;
        const double s = w.b[p] - w.S->scale * neighbourSum<R, P>(g, c, w.x, p, last);
        const double xp = s * w.inv_diag[p];
        w.x[p] = xp;
        if (partial) partial[p] = s - w.S->scale * widen(c[centre]) * xp;
    });
}

// res[q] -= the coupling of q to the pixels after it, for the pixels of [begin, end): completes the
// residual `relax` started once those pixels are final.
template <int R> void finishResidual(const Sweep &w, double *res, int64_t begin, int64_t end) {
    const Shape<R> g(w.S->A);
    const int64_t size = int64_t(g.side) * g.side;
    const GridCoefficient *stencil = w.S->stencil.data();
    visit(w.runs, begin, end, true, [&](int64_t q) {
        res[q] -= w.S->scale * neighbourSum<R, kAfter>(g, stencil + q * size, w.x, q, 1);
    });
}

// res[q] = b[q] - (A x)[q] for the pixels of [begin, end).
template <int R> void residual(const Sweep &w, double *res, int64_t begin, int64_t end) {
    const Shape<R> g(w.S->A);
    const int64_t size = int64_t(g.side) * g.side, centre = int64_t(g.reach) * g.side + g.reach;
    const GridCoefficient *stencil = w.S->stencil.data();
    visit(w.runs, begin, end, true, [&](int64_t q) {
        const GridCoefficient *c = stencil + q * size;
        res[q] = w.b[q] - w.S->scale * (neighbourSum<R, kAll>(g, c, w.x, q, -1) + widen(c[centre]) * w.x[q]);
    });
}

// The forward sweep from zero over the part [from, to), followed chunk by chunk by the rest of the
// residual of the pixels whose neighbours after them are final. When from > 0 the pixels before `from`
// (the middle of a split sweep) are not final yet, so the first pixels of the part are left for later.
template <int R> void relaxWithResidual(const Sweep &w, double *res, int64_t from, int64_t to) {
    const Shape<R> g(w.S->A);
    int64_t done = from > 0 ? from + g.edge : 0; // residuals before `done` are formed
    for (int64_t c0 = from; c0 < to; c0 += kChunk) {
        const int64_t c1 = std::min(to, c0 + kChunk);
        relax<R, kBefore>(w, c0, c1, true, res);
        const int64_t ready = c1 == g.n ? g.n : c1 - g.edge;
        if (ready > done) {
            finishResidual<R>(w, res, done, ready);
            done = ready;
        }
    }
}

// [0, lo) and [hi, n) are further apart than any coupling: two threads sweep them at once and the
// middle [lo, hi) comes last in the order (first when sweeping backward).
struct SweepOrder {
    bool split;
    int64_t lo, hi;
};

SweepOrder sweepOrder(const GridMatrix *A) {
    const int64_t n = gridPixels(A);
    const int64_t reach = int64_t(A->reach) * A->height + A->reach;
    const int64_t half = reach / 2 + 1, mid = n / 2;
    const bool split = n >= 2 * kParallelGrain && mid - half > 0 && mid + half < n;
    return {split, split ? mid - half : n, split ? mid + half : n};
}

template <int R> void sweep(const Sweep &w, bool forward, bool from_zero) {
    const int64_t n = gridPixels(w.S->A);
    if (from_zero) std::fill(w.x, w.x + n, 0.0);
    const SweepOrder o = sweepOrder(w.S->A);
    auto part = [&](int64_t from, int64_t to, bool before_only) {
        if (before_only)
            relax<R, kBefore>(w, from, to, forward);
        else
            relax<R, kAll>(w, from, to, forward);
    };
    const bool before_only = from_zero && forward;
    if (forward) {
        if (o.split)
            parallelTwo([&] { part(0, o.lo, before_only); }, [&] { part(o.hi, n, before_only); });
        else
            part(0, n, before_only);
        part(o.lo, o.hi, false);
    } else {
        part(o.lo, o.hi, false);
        if (o.split)
            parallelTwo([&] { part(0, o.lo, false); }, [&] { part(o.hi, n, false); });
        else
            part(0, n, false);
    }
}

// ax = A x on the runs within [begin, end), from A's own double-precision planes.
void product(const Sweep &w, double *ax, int64_t begin, int64_t end) {
    forEachRun(w.runs, begin, end,
               [&](int64_t a, int64_t b) { multiplyGridMatrixRange(w.S->A, w.x, ax, a, b); });
}

// The backward sweep over the part [from, to), followed chunk by chunk by ax = A x for the pixels the
// sweep has moved past by more than a stencil, whose neighbours are final: the product of the new x
// comes out of the same pass, its work filling the gaps the sweep's chain of dependent steps leaves.
// The pixels after `to` (the middle of a split sweep) are final before the part starts.
template <int R> void relaxBackwardWithProduct(const Sweep &w, double *ax, int64_t from, int64_t to) {
    const int64_t edge = Shape<R>(w.S->A).edge;
    int64_t done = to; // products from `done` on are formed
    for (int64_t c1 = to; c1 > from; c1 -= kChunk) {
        const int64_t c0 = std::max(from, c1 - kChunk);
        relax<R, kAll>(w, c0, c1, false);
        const int64_t ready = c0 == from ? from : c0 + edge;
        if (ready < done) {
            product(w, ax, ready, done);
            done = ready;
        }
    }
}

template <int R> void sweepBackwardWithProduct(const Sweep &w, double *ax) {
    const int64_t n = gridPixels(w.S->A);
    const SweepOrder o = sweepOrder(w.S->A);
    relax<R, kAll>(w, o.lo, o.hi, false);
    if (!o.split) {
        relaxBackwardWithProduct<R>(w, ax, 0, n);
        return;
    }
    parallelTwo([&] { relaxBackwardWithProduct<R>(w, ax, 0, o.lo); },
                [&] { relaxBackwardWithProduct<R>(w, ax, o.hi, n); });
    product(w, ax, o.lo, o.hi); // the middle's neighbours were swept after it
}

template <int R> void sweepWithResidual(const Sweep &w, double *res) {
    const GridMatrix *A = w.S->A;
    const int64_t n = gridPixels(A);
    const SweepOrder o = sweepOrder(A);
    // Each pixel is written before anything reads it, except the middle, which the second part reads
    // (as the zeros it still holds in the sweep order).
    std::fill(w.x + o.lo, w.x + o.hi, 0.0);
    if (!o.split) {
        relaxWithResidual<R>(w, res, 0, n);
        return;
    }
    parallelTwo([&] { relaxWithResidual<R>(w, res, 0, o.lo); },
                [&] { relaxWithResidual<R>(w, res, o.hi, n); });
    relax<R, kAll>(w, o.lo, o.hi, true);
    // The parts left the residuals next to the middle for now: their stencils reach into it.
    const int64_t edge = Shape<R>(A).edge;
    residual<R>(w, res, std::max<int64_t>(0, o.lo - edge), std::min(n, o.hi + edge));
}

bool radiusOne(const GridStencils *S) {
    return S->A->reach == 2;
}

} // namespace

void copyGridStencils(const GridMatrix *A, GridStencils *S) {
    S->A = A;
    const int reach = A->reach, side = 2 * reach + 1;
    const int64_t n = gridPixels(A), size = int64_t(side) * side;
    // The largest element lands between 2^14 and 2^15, well inside the range of a half.
    double largest = 0.0;
    for (double v : A->diag)
        largest = std::max(largest, std::abs(v));
    for (double v : A->bands)
        largest = std::max(largest, std::abs(v));
    S->scale = largest > 0.0 ? std::ldexp(1.0, std::ilogb(largest) - 14) : 1.0;
    const double inverse = 1.0 / S->scale;
    S->stencil.assign(size_t(n * size), narrow(0.0));
    struct Slot {
        const double *plane; // A(p, p + shift) at plane[p]
        int64_t shift;
        int forward, backward; // record entries of the offset and of its opposite
    };
    std::vector<Slot> slots;
    for (size_t k = 0; k < A->band_shift.size(); ++k) {
        const int dr = A->band_drow[k], dc = A->band_dcol[k];
        slots.push_back({A->bands.data() + k * n, A->band_shift[k], (dc + reach) * side + dr + reach,
                         (reach - dc) * side + reach - dr});
    }
    parallelRange(n, kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
            GridCoefficient *c = &S->stencil[size_t(p * size)];
            c[reach * side + reach] = narrow(A->diag[p] * inverse);
            for (const Slot &s : slots) {
                c[s.forward] = narrow(s.plane[p] * inverse); // 0 where p + shift leaves the grid
                if (p >= s.shift) c[s.backward] = narrow(s.plane[p - s.shift] * inverse);
            }
        }
    });
}

double gridStencilValue(const GridStencils *S, double v) {
    return S->scale * widen(narrow(v / S->scale));
}

void sweepGridMatrix(const GridStencils *S, const double *inv_diag, const double *b, double *x, bool forward,
                     bool from_zero, const PixelRuns *runs) {
    const Sweep w{S, inv_diag, b, x, runs};
    if (radiusOne(S))
        sweep<2>(w, forward, from_zero);
    else
        sweep<0>(w, forward, from_zero);
}

void sweepGridMatrixBackwardWithProduct(const GridStencils *S, const double *inv_diag, const double *b,
                                        double *x, double *ax, const PixelRuns *runs) {
    const Sweep w{S, inv_diag, b, x, runs};
    if (radiusOne(S))
        sweepBackwardWithProduct<2>(w, ax);
    else
        sweepBackwardWithProduct<0>(w, ax);
}

void sweepGridMatrixWithResidual(const GridStencils *S, const double *inv_diag, const double *b, double *x,
                                 double *res, const PixelRuns *runs) {
    const Sweep w{S, inv_diag, b, x, runs};
    if (radiusOne(S))
        sweepWithResidual<2>(w, res);
    else
        sweepWithResidual<0>(w, res);
}
