// Block store and kernels for the coarse levels of the multigrid preconditioner.
#include "matting/block_grid.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "matting/parallel.h"

static constexpr int64_t kParallelGrain = 1 << 10; // nodes
static constexpr double kPivotTolerance = 1e-12;

void initBlockGrid(BlockGrid *K, int height, int width) {
    K->height = height;
    K->width = width;
    K->blocks.assign(size_t(height) * width * kStoredSlots * kBlockSize, 0.0f);
    K->inverse.clear();
}

int64_t blockNodes(const BlockGrid *K) {
    return int64_t(K->height) * K->width;
}

void initBlockVector(BlockVector *v, const BlockGrid *K) {
    const int64_t margin = int64_t(K->height + 1) * kBlockDofs;
    v->size = blockNodes(K) * kBlockDofs;
    v->storage.assign(size_t(v->size + 2 * margin), 0.0f);
    v->margin = margin;
}

// Cholesky-based pseudo-inverse of a symmetric 4 x 4 block: exact on the unknowns whose pivots are
// clearly positive, zero rows and columns for the others.
static void pseudoInverse4(const float *block, float *out) {
    double D[kBlockSize], L[kBlockSize] = {0};
    for (int k = 0; k < kBlockSize; ++k)
        D[k] = block[k];
    bool keep[kBlockDofs];
    for (int j = 0; j < kBlockDofs; ++j) {
        double pivot = D[j * 5];
        for (int k = 0; k < j; ++k)
            pivot -= L[j * 4 + k] * L[j * 4 + k];
        keep[j] = D[j * 5] > 0.0 && pivot > 1e-6 * D[j * 5];
        if (!keep[j]) continue;
        L[j * 5] = std::sqrt(pivot);
        for (int i = j + 1; i < kBlockDofs; ++i) {
            double v = D[i * 4 + j];
            for (int k = 0; k < j; ++k)
                v -= L[i * 4 + k] * L[j * 4 + k];
            L[i * 4 + j] = v / L[j * 5];
        }
    }
    for (int c = 0; c < kBlockDofs; ++c) {
        double y[kBlockDofs] = {0, 0, 0, 0};
        if (keep[c]) {
            for (int i = 0; i < kBlockDofs; ++i) {
                if (!keep[i]) continue;
                double v = (i == c) ? 1.0 : 0.0;
                for (int k = 0; k < i; ++k)
                    v -= L[i * 4 + k] * y[k];
                y[i] = v / L[i * 5];
            }
            for (int i = kBlockDofs - 1; i >= 0; --i) {
                if (!keep[i]) continue;
                double v = y[i];
                for (int k = i + 1; k < kBlockDofs; ++k)
                    v -= L[k * 4 + i] * y[k];
                y[i] = v / L[i * 5];
            }
        }
        for (int i = 0; i < kBlockDofs; ++i)
            out[c * 4 + i] = float(y[i]);
    }
}

void invertBlockDiagonal(BlockGrid *K) {
    const int64_t nodes = blockNodes(K);
    K->inverse.resize(size_t(nodes) * kBlockSize);
    for (int64_t a = 0; a < nodes; ++a)
        pseudoInverse4(blockAt(K, a, kCentreSlot), &K->inverse[size_t(a) * kBlockSize]);
}

// Four single-precision lanes: one block column, or one node's four unknowns.
typedef float Float4 __attribute__((vector_size(16)));

static inline Float4 load4(const float *p) {
    Float4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

static inline void store4(float *p, Float4 v) {
    std::memcpy(p, &v, sizeof v);
}

// M x for a block M stored by columns, the four products added pairwise.
static inline Float4 productBlock(const float *M, const float *x) {
    return (load4(M) * x[0] + load4(M + 4) * x[1]) + (load4(M + 8) * x[2] + load4(M + 12) * x[3]);
}

typedef int Int4 __attribute__((vector_size(16)));

// M^T x: component c is the dot product of column c with x, four products added across lanes.
static inline Float4 productTransposed(const float *M, const float *x) {
    const Float4 v = load4(x);
    const Float4 a = load4(M) * v, b = load4(M + 4) * v, c = load4(M + 8) * v, d = load4(M + 12) * v;
    const Float4 ab = __builtin_shuffle(a, b, Int4{0, 4, 2, 6}) + __builtin_shuffle(a, b, Int4{1, 5, 3, 7});
    const Float4 cd = __builtin_shuffle(c, d, Int4{0, 4, 2, 6}) + __builtin_shuffle(c, d, Int4{1, 5, 3, 7});
    return __builtin_shuffle(ab, cd, Int4{0, 1, 4, 5}) + __builtin_shuffle(ab, cd, Int4{2, 3, 6, 7});
}

// Unknown offsets of the nine neighbour slots of a node on a grid of height h.
static void slotOffsets(int h, int64_t offset[kBlockSlots]) {
    for (int dc = -1; dc <= 1; ++dc)
        for (int dr = -1; dr <= 1; ++dr)
            offset[(dr + 1) + 3 * (dc + 1)] = (dr + int64_t(dc) * h) * kBlockDofs;
}

// K(a, c) x_c for the neighbour c of node a at `slot`: a's own block for the neighbours after it, the
// transpose of c's block towards a for those before it. A "neighbour" that wraps round the end of a
// column is another node whose block in that direction points out of the grid and is zero; one before
// the first node is skipped, and those after the last are read from the vectors' margins through zero
// blocks.
static inline Float4 slotProduct(const BlockGrid *K, int64_t a, int slot, const int64_t *offset,
                                 const float *x) {
    const float *xc = x + a * 4 + offset[slot];
    if (slot >= kCentreSlot) return productBlock(blockAt(K, a, slot), xc);
    const int64_t c = a + offset[slot] / kBlockDofs;
    if (c < 0) return Float4{0, 0, 0, 0};
    return productTransposed(blockAt(K, c, 8 - slot), xc);
}

// start - sum of K(a, c) x_c over the slots [first, last] (the centre included when it lies there),
// `dependent` subtracted last: the neighbour a sweep updated just before a, so that the other products
// do not wait for it. Two running sums keep the additions from forming one long chain.
static inline Float4 minusSlots(const BlockGrid *K, int64_t a, const int64_t *offset, const float *x,
                                Float4 start, int first, int last, int dependent) {
    Float4 even = start, odd = {0, 0, 0, 0};
    int count = 0;
#pragma GCC unroll 9
    for (int slot = first; slot <= last; ++slot) {
        if (slot == dependent) continue;
        const Float4 t = slotProduct(K, a, slot, offset, x);
        if (count++ & 1)
            odd += t;
        else
            even -= t;
    }
    Float4 s = even - odd;
    if (dependent >= first && dependent <= last) s -= slotProduct(K, a, dependent, offset, x);
    return s;
}

// Slots of the neighbours a forward sweep (a - 1) and a backward sweep (a + 1) updated just before a.
constexpr int kPreviousSlot = 3, kNextSlot = 5;

// y = K x (b null) or y = b - K x over the nodes [begin, end).
static void multiplyRange(const BlockGrid *K, const float *x, float *y, const float *b, int64_t begin,
                          int64_t end) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    const Float4 zero = {0, 0, 0, 0};
    for (int64_t a = begin; a < end; ++a) {
        const Float4 s = minusSlots(K, a, offset, x, b ? load4(b + a * 4) : zero, 0, kBlockSlots - 1, -1);
        store4(y + a * 4, b ? s : -s);
    }
}

void multiplyBlockGrid(const BlockGrid *K, const BlockVector *x, BlockVector *y) {
    parallelRange(blockNodes(K), kParallelGrain, [&](int64_t begin, int64_t end) {
        multiplyRange(K, x->data(), y->data(), nullptr, begin, end);
    });
}

void residualBlockGrid(const BlockGrid *K, const BlockVector *b, const BlockVector *x, BlockVector *r) {
    parallelRange(blockNodes(K), kParallelGrain, [&](int64_t begin, int64_t end) {
        multiplyRange(K, x->data(), r->data(), b->data(), begin, end);
    });
}

static inline Float4 applyInverse(const BlockGrid *K, int64_t a, Float4 s) {
    const float *M = &K->inverse[size_t(a) * kBlockSize];
    return (load4(M) * s[0] + load4(M + 4) * s[1]) + (load4(M + 8) * s[2] + load4(M + 12) * s[3]);
}

// One block Gauss-Seidel step at each node of [from, to), ascending or descending.
static void relaxRange(const BlockGrid *K, const float *b, float *x, int64_t from, int64_t to,
                       bool ascending) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    // Every slot but the centre, the half holding the dependent neighbour last.
    if (ascending)
        for (int64_t a = from; a < to; ++a) {
            Float4 s = minusSlots(K, a, offset, x, load4(b + a * 4), kCentreSlot + 1, kBlockSlots - 1, -1);
            s = minusSlots(K, a, offset, x, s, 0, kCentreSlot - 1, kPreviousSlot);
            store4(x + a * 4, applyInverse(K, a, s));
        }
    else
        for (int64_t a = to - 1; a >= from; --a) {
            Float4 s = minusSlots(K, a, offset, x, load4(b + a * 4), 0, kCentreSlot - 1, -1);
            s = minusSlots(K, a, offset, x, s, kCentreSlot + 1, kBlockSlots - 1, kNextSlot);
            store4(x + a * 4, applyInverse(K, a, s));
        }
}

// x_a = D^-1 s for s = b_a - the couplings already counted, its own residual s - D x_a, and -K(c, a) x_a
// added to the residual of every neighbour c before a with c >= floor. The new x_a also goes to xv.
static inline void updateWithResidual(const BlockGrid *K, int64_t a, const int64_t *offset, Float4 s,
                                      float *x, float *res, int64_t floor, float *xv = nullptr) {
    float own[4];
    if (!xv) xv = own;
    const Float4 xn = applyInverse(K, a, s);
    store4(x + a * 4, xn);
    store4(xv, xn);
    store4(res + a * 4, s - productBlock(blockAt(K, a, kCentreSlot), xv));
    for (int slot = 0; slot < kCentreSlot; ++slot) {
        const int64_t c = a + offset[slot] / kBlockDofs;
        if (c < floor || c < 0) continue;
        store4(res + c * 4, load4(res + c * 4) - productBlock(blockAt(K, c, 8 - slot), xv));
    }
}

// The forward sweep from zero over [from, to), with the residual formed on the way as for the pixel
// grid: a node's own residual is what its update leaves, and each node subtracts K(c, a) x_a from the
// residual of every neighbour c before it that was updated before it in the sweep order (c >= floor).
// K(c, a) is c's stored block towards a.
static void relaxLowerWithResidual(const BlockGrid *K, const float *b, float *x, float *res, int64_t from,
                                   int64_t to, int64_t floor) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    for (int64_t a = from; a < to; ++a) {
        const Float4 s = minusSlots(K, a, offset, x, load4(b + a * 4), 0, kCentreSlot - 1, kPreviousSlot);
        updateWithResidual(K, a, offset, s, x, res, floor);
    }
}

// The middle [lo, hi) of a split forward sweep from zero, after both outer parts: full updates, and
// residual contributions to the neighbours before it and to those after it in the second part.
static void relaxMiddleWithResidual(const BlockGrid *K, const float *b, float *x, float *res, int64_t lo,
                                    int64_t hi) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    const int64_t nodes = blockNodes(K);
    for (int64_t a = lo; a < hi; ++a) {
        Float4 s = minusSlots(K, a, offset, x, load4(b + a * 4), kCentreSlot + 1, kBlockSlots - 1, -1);
        s = minusSlots(K, a, offset, x, s, 0, kCentreSlot - 1, kPreviousSlot);
        float xv[4];
        updateWithResidual(K, a, offset, s, x, res, 0, xv);
        for (int slot = kCentreSlot + 1; slot < kBlockSlots; ++slot) {
            const int64_t f = a + offset[slot] / kBlockDofs;
            if (f < hi || f >= nodes) continue;
            store4(res + f * 4, load4(res + f * 4) - productTransposed(blockAt(K, a, slot), xv));
        }
    }
}

// As for the pixel grid: [0, lo) and [hi, n) are further apart than any coupling, so two threads can
// sweep them at once; [lo, hi) follows. The order is the same for every sweep of a level.
struct SweepOrder {
    bool split;
    int64_t lo, hi;
};

static SweepOrder sweepOrder(const BlockGrid *K) {
    const int64_t n = blockNodes(K);
    const int64_t half = K->height + 2, mid = n / 2;
    const bool split = n >= 2 * kParallelGrain && mid - half > 0 && mid + half < n;
    return {split, split ? mid - half : n, split ? mid + half : n};
}

void sweepBlockGrid(const BlockGrid *K, const BlockVector *bv, BlockVector *xv, bool forward) {
    const int64_t n = blockNodes(K);
    const SweepOrder o = sweepOrder(K);
    const float *b = bv->data();
    float *x = xv->data();
    if (forward) {
        if (o.split)
            parallelTwo([&] { relaxRange(K, b, x, 0, o.lo, true); },
                        [&] { relaxRange(K, b, x, o.hi, n, true); });
        else
            relaxRange(K, b, x, 0, n, true);
        relaxRange(K, b, x, o.lo, o.hi, true);
    } else {
        relaxRange(K, b, x, o.lo, o.hi, false);
        if (o.split)
            parallelTwo([&] { relaxRange(K, b, x, 0, o.lo, false); },
                        [&] { relaxRange(K, b, x, o.hi, n, false); });
        else
            relaxRange(K, b, x, 0, n, false);
    }
}

void sweepBlockGridWithResidual(const BlockGrid *K, const BlockVector *bv, BlockVector *xv, BlockVector *rv) {
    const int64_t n = blockNodes(K);
    const SweepOrder o = sweepOrder(K);
    const float *b = bv->data();
    float *x = xv->data(), *res = rv->data();
    // Every node is written before it is read, except the middle, which the second part reads as the
    // zeros it still holds in the sweep order.
    std::fill(x + o.lo * 4, x + o.hi * 4, 0.0f);
    if (!o.split) {
        relaxLowerWithResidual(K, b, x, res, 0, n, 0);
        return;
    }
    parallelTwo([&] { relaxLowerWithResidual(K, b, x, res, 0, o.lo, 0); },
                [&] { relaxLowerWithResidual(K, b, x, res, o.hi, n, o.hi); });
    relaxMiddleWithResidual(K, b, x, res, o.lo, o.hi);
}

void factorBanded(BlockFactor *F, const std::vector<double> &scale) {
    const int64_t n = F->n;
    const int bw = F->bandwidth, w = bw + 1;
    std::vector<double> &L = F->lower;
    F->dropped.assign(n, 0);
    for (int64_t j = 0; j < n; ++j) {
        double pivot = L[j * w];
        for (int d = 1; d <= bw && j - d >= 0; ++d)
            pivot -= L[j * w + d] * L[j * w + d];
        const bool drop = !(scale[j] > 0.0) || !(pivot > kPivotTolerance * scale[j]);
        F->dropped[j] = drop;
        const double ljj = drop ? 1.0 : std::sqrt(pivot);
        L[j * w] = ljj;
        for (int64_t i = j + 1; i <= std::min<int64_t>(n - 1, j + bw); ++i) {
            double &lij = L[i * w + (i - j)];
            if (drop) {
                lij = 0.0;
                continue;
            }
            double v = lij;
            for (int64_t k = std::max<int64_t>(i - bw, 0); k < j; ++k)
                v -= L[i * w + (i - k)] * L[j * w + (j - k)];
            lij = v / ljj;
        }
    }
}

void factorBlockGrid(const BlockGrid *K, BlockFactor *F) {
    const int64_t nodes = blockNodes(K);
    const int h = K->height;
    F->n = nodes * 4;
    F->bandwidth = int(std::min<int64_t>(4 * (h + 1) + 3, std::max<int64_t>(F->n - 1, 0)));
    const int w = F->bandwidth + 1;
    F->lower.assign(size_t(F->n) * w, 0.0);
    std::vector<double> scale(F->n);
    for (int64_t a = 0; a < nodes; ++a) {
        const int i = int(a % h), j = int(a / h);
        // Row blocks of the lower triangle: K(f, a) for the neighbours f after a, the transposes of
        // a's stored blocks, and a's own diagonal block.
        for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
            const int dr = slot % 3 - 1, dc = slot / 3 - 1;
            const int fi = i + dr, fj = j + dc;
            if (fi < 0 || fi >= h || fj >= K->width) continue;
            const int64_t f = fi + int64_t(fj) * h;
            const float *M = blockAt(K, a, slot); // K(a, f) by columns: K(a, f)[e][d] = M[d * 4 + e]
            for (int d = 0; d < 4; ++d)
                for (int e = 0; e < 4; ++e) {
                    const int64_t row = f * 4 + d, col = a * 4 + e;
                    if (col <= row && row - col <= F->bandwidth)
                        F->lower[row * w + (row - col)] = M[d * 4 + e];
                }
        }
        for (int d = 0; d < 4; ++d)
            scale[a * 4 + d] = blockAt(K, a, kCentreSlot)[d * 5];
    }
    factorBanded(F, scale);
}

void solveBlockFactor(const BlockFactor *F, const double *b, double *x) {
    const int64_t n = F->n;
    const int bw = F->bandwidth, w = bw + 1;
    const std::vector<double> &L = F->lower;
    for (int64_t i = 0; i < n; ++i) {
        double v = F->dropped[i] ? 0.0 : b[i];
        for (int d = 1; d <= bw && i - d >= 0; ++d)
            v -= L[i * w + d] * x[i - d];
        x[i] = F->dropped[i] ? 0.0 : v / L[i * w];
    }
    for (int64_t i = n - 1; i >= 0; --i) {
        double v = x[i];
        for (int d = 1; d <= bw && i + d < n; ++d)
            v -= L[(i + d) * w + d] * x[i + d];
        x[i] = F->dropped[i] ? 0.0 : v / L[i * w];
    }
}
