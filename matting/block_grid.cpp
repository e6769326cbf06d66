// Block store and kernels for the coarse levels of the multigrid preconditioner.
#include "matting/block_grid.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "matting/parallel.h"

static constexpr int64_t kParallelGrain = 1 << 12; // nodes
static constexpr double kPivotTolerance = 1e-12;

void initBlockGrid(BlockGrid *K, int height, int width) {
    K->height = height;
    K->width = width;
    K->blocks.assign(size_t(height) * width * kBlockSlots * kBlockSize, 0.0f);
    K->inverse.clear();
}

int64_t blockNodes(const BlockGrid *K) {
    return int64_t(K->height) * K->width;
}

void initBlockVector(BlockVector *v, const BlockGrid *K) {
    const int64_t margin = int64_t(K->height + 1) * kBlockDofs;
    v->size = blockNodes(K) * kBlockDofs;
    v->storage.assign(size_t(v->size + 2 * margin), 0.0);
    v->data = v->storage.data() + margin;
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

// s -= M x for a block M stored by columns.
static inline void subtractBlock(const float *M, const double *x, double *s) {
    for (int c = 0; c < 4; ++c) {
        const double xc = x[c];
        for (int r = 0; r < 4; ++r)
            s[r] -= double(M[c * 4 + r]) * xc;
    }
}

// Unknown offsets of the nine neighbour slots of a node on a grid of height h.
static void slotOffsets(int h, int64_t offset[kBlockSlots]) {
    for (int dc = -1; dc <= 1; ++dc)
        for (int dr = -1; dr <= 1; ++dr)
            offset[(dr + 1) + 3 * (dc + 1)] = (dr + int64_t(dc) * h) * kBlockDofs;
}

// y = K x (b null) or y = b - K x over the nodes [begin, end).
static void multiplyRange(const BlockGrid *K, const double *x, double *y, const double *b, int64_t begin,
                          int64_t end) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    for (int64_t a = begin; a < end; ++a) {
        double s[4] = {0, 0, 0, 0};
        const double *xa = x + a * 4;
        for (int slot = 0; slot < kBlockSlots; ++slot)
            subtractBlock(blockAt(K, a, slot), xa + offset[slot], s);
        double *ya = y + a * 4;
        if (b)
            for (int d = 0; d < 4; ++d)
                ya[d] = b[a * 4 + d] + s[d];
        else
            for (int d = 0; d < 4; ++d)
                ya[d] = -s[d];
    }
}

void multiplyBlockGrid(const BlockGrid *K, const BlockVector *x, BlockVector *y) {
    parallelRange(blockNodes(K), kParallelGrain, [&](int64_t begin, int64_t end) {
        multiplyRange(K, x->data, y->data, nullptr, begin, end);
    });
}

void residualBlockGrid(const BlockGrid *K, const BlockVector *b, const BlockVector *x, BlockVector *r) {
    parallelRange(blockNodes(K), kParallelGrain, [&](int64_t begin, int64_t end) {
        multiplyRange(K, x->data, r->data, b->data, begin, end);
    });
}

// One block Gauss-Seidel step at each node of [from, to), ascending or descending. `Lower` reads only
// the neighbours numbered below the node, the others being zero in a forward sweep from zero.
template <bool Lower>
static void relaxRange(const BlockGrid *K, const double *b, double *x, int64_t from, int64_t to,
                       bool ascending) {
    int64_t offset[kBlockSlots];
    slotOffsets(K->height, offset);
    auto relax = [&](int64_t a) {
        double s[4];
        for (int d = 0; d < 4; ++d)
            s[d] = b[a * 4 + d];
        const double *xa = x + a * 4;
        for (int slot = 0; slot < kBlockSlots; ++slot) {
            if (slot == kCentreSlot || (Lower && offset[slot] > 0)) continue;
            subtractBlock(blockAt(K, a, slot), xa + offset[slot], s);
        }
        const float *M = &K->inverse[size_t(a) * kBlockSize];
        double out[4] = {0, 0, 0, 0};
        for (int c = 0; c < 4; ++c)
            for (int r = 0; r < 4; ++r)
                out[r] += double(M[c * 4 + r]) * s[c];
        for (int d = 0; d < 4; ++d)
            x[a * 4 + d] = out[d];
    };
    if (ascending)
        for (int64_t a = from; a < to; ++a)
            relax(a);
    else
        for (int64_t a = to - 1; a >= from; --a)
            relax(a);
}

// As for the pixel grid: [0, lo) and [hi, n) are further apart than any coupling, so two threads can
// sweep them at once; [lo, hi) follows. The order is the same for every sweep of a level.
void sweepBlockGrid(const BlockGrid *K, const BlockVector *bv, BlockVector *xv, bool forward,
                    bool from_zero) {
    const int64_t n = blockNodes(K);
    const double *b = bv->data;
    double *x = xv->data;
    if (from_zero) std::fill(x, x + n * 4, 0.0);
    const bool lower = from_zero && forward;
    const int64_t half = K->height + 2, mid = n / 2;
    const bool split = n >= 2 * kParallelGrain && mid - half > 0 && mid + half < n;
    const int64_t lo = split ? mid - half : n, hi = split ? mid + half : n;
    auto part = [&](int64_t from, int64_t to, bool lower_only) {
        if (lower_only)
            relaxRange<true>(K, b, x, from, to, forward);
        else
            relaxRange<false>(K, b, x, from, to, forward);
    };
    if (forward) {
        if (split)
            parallelTwo([&] { part(0, lo, lower); }, [&] { part(hi, n, lower); });
        else
            part(0, n, lower);
        part(lo, hi, false);
    } else {
        part(lo, hi, false);
        if (split)
            parallelTwo([&] { part(0, lo, false); }, [&] { part(hi, n, false); });
        else
            part(0, n, false);
    }
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
        for (int dc = -1; dc <= 1; ++dc)
            for (int dr = -1; dr <= 1; ++dr) {
                const int bi = i + dr, bj = j + dc;
                if (bi < 0 || bi >= h || bj < 0 || bj >= K->width) continue;
                const int64_t nb = bi + int64_t(bj) * h;
                if (nb > a) continue;
                const float *M = blockAt(K, a, (dr + 1) + 3 * (dc + 1));
                for (int d = 0; d < 4; ++d)
                    for (int e = 0; e < 4; ++e) {
                        const int64_t row = a * 4 + d, col = nb * 4 + e;
                        if (col <= row && row - col <= F->bandwidth)
                            F->lower[row * w + (row - col)] = M[e * 4 + d];
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
