// Aggregation multigrid with colour-model coarse spaces, the preconditioner of conjugate gradients.
#include "matting/multigrid.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "matting/parallel.h"

// Fine grids with at most this many pixels, and coarse grids with at most this many nodes, are factored.
static constexpr int64_t kDirectPixels = 2048;
static constexpr int64_t kDirectNodes = 256;
static constexpr int64_t kParallelGrain = 1 << 10; // aggregates or nodes
static constexpr int64_t kVectorGrain = 1 << 13;
// Nodes of a coarse level merged per side into one node of the next: 3 or 4 make the next level cheaper
// but so much weaker that the iteration needs twice as many steps.
static constexpr int G = 2;

struct MultigridLevel {
    BlockGrid K;
    std::vector<double> candidates; // [node][4 x 4]: row d, column c = unknown d's share of candidate c
    std::vector<double> transfer;   // [node][4 x 4]: row d = unknown d, column c = coarse unknown c of
                                    // the node's aggregate on the next level (empty on the last level)
    // rhs/sol: the problem handed down by the finer level and its approximate solution; the others are
    // work vectors of the K-cycle and of the cycle.
    BlockVector rhs, sol, r, p1, q1, p2, q2, res;
};

Multigrid::Multigrid() = default;
Multigrid::~Multigrid() = default;

namespace {

// Where to read A(p, p + d) for every offset d of the full (2R+1)^2 stencil.
struct StencilRead {
    int drow, dcol;
    int band;   // -1: the diagonal
    int64_t at; // the element sits at bands[band * n + p + at]
};

std::vector<StencilRead> stencilReads(const GridMatrix *A) {
    std::vector<StencilRead> reads;
    const int R = A->reach;
    for (int dcol = -R; dcol <= R; ++dcol)
        for (int drow = -R; drow <= R; ++drow) {
            if (drow == 0 && dcol == 0) {
                reads.push_back({0, 0, -1, 0});
                continue;
            }
            const int k = gridBandIndex(A, drow, dcol);
            if (k >= 0)
                reads.push_back({drow, dcol, k, 0});
            else
                reads.push_back(
                    {drow, dcol, gridBandIndex(A, -drow, -dcol), drow + int64_t(dcol) * A->height});
        }
    return reads;
}

// Slot of the neighbouring node at (drow, dcol) in {-1, 0, 1}^2.
inline int blockSlot(int drow, int dcol) {
    return (drow + 1) + 3 * (dcol + 1);
}

// Orthonormal basis of the colour model on the m coupled pixels of one block: q_0 = 1 / sqrt(m) and, for the
// colour channels, the centred colours whitened by the inverse Cholesky factor of their scatter matrix. A
// channel that adds nothing new on the block (a flat patch, or channels that move together) is left out.
struct PixelBasis {
    double mean[3];
    double T[3][3]; // q_{1+j}(p) = sum_i (c_i(p) - mean_i) T[i][j]
    double inv_sqrt_m;
    int channels;
    void at(const float *colour, int64_t n, int64_t p, float q[4]) const {
        double c[3] = {0, 0, 0};
        for (int i = 0; i < channels; ++i)
            c[i] = colour[i * n + p] - mean[i];
        q[0] = float(inv_sqrt_m);
        for (int j = 0; j < 3; ++j) {
            double v = 0.0;
            for (int i = 0; i < channels; ++i)
                v += c[i] * T[i][j];
            q[1 + j] = float(v);
        }
    }
};

PixelBasis blockBasis(const float *colour, int channels, int64_t n, int H, int i0, int i1, int j0, int j1,
                      const std::vector<char> &coupled) {
    PixelBasis B = {};
    B.channels = channels;
    int m = 0;
    for (int j = j0; j < j1; ++j)
        for (int i = i0; i < i1; ++i)
            m += coupled[i + int64_t(j) * H];
    if (m == 0) return B;
    B.inv_sqrt_m = 1.0 / std::sqrt(double(m));
    for (int c = 0; c < channels; ++c) {
        double s = 0.0;
        for (int j = j0; j < j1; ++j)
            for (int i = i0; i < i1; ++i)
                if (coupled[i + int64_t(j) * H]) s += colour[c * n + i + int64_t(j) * H];
        B.mean[c] = s / m;
    }
    double S[3][3] = {};
    for (int j = j0; j < j1; ++j)
        for (int i = i0; i < i1; ++i) {
            if (!coupled[i + int64_t(j) * H]) continue;
            double d[3];
            for (int c = 0; c < channels; ++c)
                d[c] = colour[c * n + i + int64_t(j) * H] - B.mean[c];
            for (int a = 0; a < channels; ++a)
                for (int b = 0; b <= a; ++b)
                    S[a][b] += d[a] * d[b];
        }
    // S = G G^T with dropped pivots; T = G^-T restricted to the kept channels, so that the whitened
    // colours T^T (c - mean) are orthonormal over the block.
    double G[3][3] = {};
    bool keep[3] = {false, false, false};
    for (int j = 0; j < channels; ++j) {
        double pivot = S[j][j];
        for (int k = 0; k < j; ++k)
            pivot -= G[j][k] * G[j][k];
        keep[j] = pivot > 1e-9 && pivot > 1e-8 * S[j][j];
        if (!keep[j]) continue;
        G[j][j] = std::sqrt(pivot);
        for (int i = j + 1; i < channels; ++i) {
            double v = S[i][j];
            for (int k = 0; k < j; ++k)
                v -= G[i][k] * G[j][k];
            G[i][j] = v / G[j][j];
        }
    }
    // Column j of T solves G^T t = e_j on the kept channels.
    for (int j = 0; j < channels; ++j) {
        if (!keep[j]) continue;
        double t[3] = {0, 0, 0};
        for (int i = channels - 1; i >= 0; --i) {
            if (!keep[i]) continue;
            double v = (i == j) ? 1.0 : 0.0;
            for (int k = i + 1; k < channels; ++k)
                v -= G[k][i] * t[k];
            t[i] = v / G[i][i];
        }
        for (int i = 0; i < 3; ++i)
            B.T[i][j] = t[i];
    }
    return B;
}

// Where the first level's transfer lives: aggregate a = I + J * ah covers the pixel rows [I S, I S + S)
// and columns [J S, J S + S) (clipped to the image), and its smoothed basis functions the box of side
// S + 2 border around them.
struct FirstLevelShape {
    int H, W, S, border, box, ah, aw;
    int row0(int I) const { return I * S - border; } // first pixel row of aggregate row I's box
    int col0(int J) const { return J * S - border; }
    // Transfer entries of aggregate a at pixel (i, j) of its box: 4 values, one per coarse unknown.
    size_t at(int64_t a, int i, int j, int I, int J) const {
        return (size_t(a) * box * box + size_t(i - row0(I)) + size_t(j - col0(J)) * box) * 4;
    }
};

FirstLevelShape firstLevelShape(const GridMatrix *A, int S) {
    FirstLevelShape g;
    g.H = A->height;
    g.W = A->width;
    g.S = S;
    // Boxes two aggregates apart must not couple through A, so that coarse nodes keep their eight
    // neighbours: S + 1 - 2 border > reach.
    g.border = std::clamp((S - A->reach) / 2, 0, 1);
    g.box = S + 2 * g.border;
    g.ah = (g.H + S - 1) / S;
    g.aw = (g.W + S - 1) / S;
    return g;
}

// The rows of A for a few pixel columns, pixel by pixel and 0 outside the image, for the set-up kernels
// that visit the pixels block by block: read where A keeps them (an array per diagonal), the elements of
// one row lie in a dozen places and every row cost cache misses.
struct RowWindow {
    const GridMatrix *A;
    int count = 0; // elements per row, (2R+1)^2
    std::vector<int> drow, dcol;
    std::vector<const double *> at; // A(p, p + (drow[k], dcol[k])) = at[k][p], where A keeps it
    int first = 0, last = 0;        // the pixel columns held
    std::vector<double> values;
    explicit RowWindow(const GridMatrix *matrix) : A(matrix) {
        const int64_t n = gridPixels(A);
        for (const StencilRead &s : stencilReads(A)) {
            drow.push_back(s.drow);
            dcol.push_back(s.dcol);
            at.push_back(s.band < 0 ? A->diag.data() : A->bands.data() + s.band * n + s.at);
        }
        count = int(at.size());
    }
    // Holds the rows of the pixel columns [first_column, last_column) that lie in the image.
    void load(int first_column, int last_column) {
        const int H = A->height, W = A->width;
        first = std::max(0, first_column);
        last = std::min(W, last_column);
        values.resize(size_t(std::max(0, last - first)) * H * count);
        std::vector<const double *> from(count);
        std::vector<int> low(count), high(count);
        for (int j = first; j < last; ++j) {
            for (int k = 0; k < count; ++k) {
                const int qj = j + dcol[k];
                from[k] = at[k] + int64_t(j) * H;
                low[k] = qj < 0 || qj >= W ? H : std::max(0, -drow[k]);
                high[k] = std::min(H, H - drow[k]);
            }
            double *to = &values[size_t(j - first) * H * count];
            for (int i = 0; i < H; ++i, to += count)
                for (int k = 0; k < count; ++k)
                    to[k] = i >= low[k] && i < high[k] ? from[k][i] : 0.0;
        }
    }
    // The elements of row p = (i, j), j in the window, in the stencil's order.
    const double *row(int i, int j) const {
        return &values[(size_t(i) + size_t(j - first) * A->height) * count];
    }
    // Calls f(qi, qj, A(p, q)) for every q with A(p, q) != 0, p = (i, j) itself included; j in the window.
    template <class F> void forEach(int i, int j, F f) const {
        const double *elements = row(i, j);
        for (int k = 0; k < count; ++k)
            if (elements[k] != 0.0) f(i + drow[k], j + dcol[k], elements[k]);
    }
};

// y = M^+ d for a small symmetric positive semi-definite M, by Cholesky with the pivots that are not
// clearly positive dropped (their components of y are 0).
void solveSemiDefinite4(double M[4][4], const double d[4], double y[4]) {
    double L[4][4] = {}, trace = M[0][0] + M[1][1] + M[2][2] + M[3][3];
    bool keep[4];
    for (int j = 0; j < 4; ++j) {
        double pivot = M[j][j];
        for (int k = 0; k < j; ++k)
            pivot -= L[j][k] * L[j][k];
        keep[j] = pivot > 1e-12 * trace && pivot > 0.0;
        if (!keep[j]) continue;
        L[j][j] = std::sqrt(pivot);
        for (int i = j + 1; i < 4; ++i) {
            double v = M[i][j];
            for (int k = 0; k < j; ++k)
                v -= L[i][k] * L[j][k];
            L[i][j] = v / L[j][j];
        }
    }
    double t[4];
    for (int i = 0; i < 4; ++i) {
        double v = d[i];
        for (int k = 0; k < i; ++k)
            v -= L[i][k] * t[k];
        t[i] = keep[i] ? v / L[i][i] : 0.0;
    }
    for (int i = 3; i >= 0; --i) {
        double v = t[i];
        for (int k = i + 1; k < 4; ++k)
            v -= L[k][i] * y[k];
        y[i] = keep[i] ? v / L[i][i] : 0.0;
    }
}

// First coarse level, part one: the colour model's orthonormal basis on every block (the tentative
// transfer, returned in `basis`, [n][4]), the blocks holding a coupled pixel, and the coarse candidates
// (the colour model's 1, red, green, blue in the coarse unknowns: candidates = basis^T [1 colour]).
void buildBasis(Multigrid *mg, const FirstLevelShape &g, const float *colour, int channels,
                MultigridLevel *L1, std::vector<float> *basis, std::vector<char> *coupled_out) {
    const int H = g.H, W = g.W, S = g.S, ah = g.ah;
    const int64_t n = gridPixels(mg->A), na = int64_t(g.ah) * g.aw;
    basis->assign(size_t(n) * 4, 0.0f);
    std::vector<char> &coupled = *coupled_out;
    coupled.assign(n, 0);
    for (const auto &run : mg->runs)
        std::fill(coupled.begin() + run.first, coupled.begin() + run.second, 1);
    mg->active_block.assign(na, 0);
    L1->candidates.assign(size_t(na) * kBlockSize, 0.0);
    parallelRange(na, kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t a = begin; a < end; ++a) {
            const int I = int(a % ah), J = int(a / ah);
            const int i0 = I * S, i1 = std::min(H, i0 + S), j0 = J * S, j1 = std::min(W, j0 + S);
            const PixelBasis B = blockBasis(colour, channels, n, H, i0, i1, j0, j1, coupled);
            double *cand = &L1->candidates[size_t(a) * kBlockSize];
            for (int j = j0; j < j1; ++j)
                for (int i = i0; i < i1; ++i) {
                    const int64_t p = i + int64_t(j) * H;
                    float *q = &(*basis)[size_t(p) * 4];
                    B.at(colour, n, p, q);
                    mg->active_block[a] |= coupled[p];
                    if (!coupled[p]) {
                        // An equation of its own (or an unused row): the smoother solves it exactly,
                        // so the coarse levels leave it out.
                        q[0] = q[1] = q[2] = q[3] = 0.0f;
                        continue;
                    }
                    double phi[4] = {1.0, 0.0, 0.0, 0.0};
                    for (int c = 0; c < channels; ++c)
                        phi[1 + c] = colour[c * n + p];
                    for (int d = 0; d < 4; ++d)
                        for (int c = 0; c < 4; ++c)
                            cand[d * 4 + c] += q[d] * phi[c];
                }
        }
    });
}

// First coarse level, part two: the transfer. A block's basis functions jump at its edges, where A
// gives them a high energy; one Jacobi step with A, P = (I - D^-1 A) basis, takes most of it away,
// which halves the iterations the preconditioned solve needs. The smoothed functions are cut back to
// each aggregate's box (the block and a one-pixel border). That loses the exact reproduction of the
// colour model, so every pixel's row then gets the smallest change that gives back what the uncut
// smoothing gives for the candidates: sum over a of P(p, a) candidates(a) = ((I - D^-1 A) Y)(p), where
// Y(q) = basis(q) candidates(aggregate of q) is the colour model itself on the coupled pixels. What
// the cut left out, and so the change to make, is -D^-1 A(p, q) Y(q) summed over the pixels q in
// blocks whose box does not hold p.
void buildTransfer(Multigrid *mg, const FirstLevelShape &g, const std::vector<float> &basis,
                   const std::vector<char> &coupled, MultigridLevel *L1) {
    const GridMatrix *A = mg->A;
    const int H = g.H, W = g.W, S = g.S, ah = g.ah, aw = g.aw;
    const int64_t na = int64_t(ah) * aw;
    mg->transfer.assign(size_t(na) * g.box * g.box * 4, 0.0f);
    if (g.border == 0) {
        // Windows so wide that a border would couple blocks two apart: the boxes are the blocks, and
        // smoothing cut back to them gains next to nothing. The transfer is the basis.
        parallelRange(na, kParallelGrain, [&](int64_t a, int64_t end) {
            for (; a < end; ++a) {
                const int I = int(a % ah), J = int(a / ah);
                for (int j = J * S; j < std::min(W, J * S + S); ++j)
                    for (int i = I * S; i < std::min(H, I * S + S); ++i)
                        std::copy_n(&basis[size_t(i + int64_t(j) * H) * 4], 4,
                                    &mg->transfer[g.at(a, i, j, I, J)]);
            }
        });
        return;
    }
    // candidates^T candidates of every aggregate.
    std::vector<double> gram(size_t(na) * 16, 0.0);
    parallelRange(na, kParallelGrain, [&](int64_t a, int64_t end) {
        for (; a < end; ++a) {
            const double *C = &L1->candidates[size_t(a) * kBlockSize];
            for (int c = 0; c < 4; ++c)
                for (int e = 0; e < 4; ++e)
                    for (int d = 0; d < 4; ++d)
                        gram[size_t(a) * 16 + c * 4 + e] += C[d * 4 + c] * C[d * 4 + e];
        }
    });
    // Each pixel writes only its own rows, so the aggregates can go in parallel.
    parallelRange(na, kParallelGrain, [&](int64_t a, int64_t end) {
        RowWindow rows_of_A(A);
        int loaded = -1;
        for (; a < end; ++a) {
            if (!mg->active_block[a]) continue;
            const int I = int(a % ah), J = int(a / ah);
            if (loaded != J) rows_of_A.load(J * S, J * S + S);
            loaded = J;
            const int i0 = I * S, i1 = std::min(H, i0 + S), j0 = J * S, j1 = std::min(W, j0 + S);
            for (int j = j0; j < j1; ++j)
                for (int i = i0; i < i1; ++i) {
                    const int64_t p = i + int64_t(j) * H;
                    if (!coupled[p]) continue; // its rows stay 0
                    // The aggregates whose box holds p, by their position around p's own.
                    int which[3][3];
                    float *rows[4];
                    int64_t holders[4];
                    int count = 0;
                    for (int dJ = -1; dJ <= 1; ++dJ)
                        for (int dI = -1; dI <= 1; ++dI) {
                            const int I2 = I + dI, J2 = J + dJ;
                            which[dI + 1][dJ + 1] = -1;
                            if (I2 < 0 || I2 >= ah || J2 < 0 || J2 >= aw || i < g.row0(I2) ||
                                i >= g.row0(I2) + g.box || j < g.col0(J2) || j >= g.col0(J2) + g.box)
                                continue;
                            holders[count] = I2 + int64_t(J2) * ah;
                            rows[count] = &mg->transfer[g.at(holders[count], i, j, I2, J2)];
                            which[dI + 1][dJ + 1] = count++;
                        }
                    double v[4][4] = {}, defect[4] = {0, 0, 0, 0};
                    const int own = which[1][1];
                    for (int d = 0; d < 4; ++d)
                        v[own][d] = basis[size_t(p) * 4 + d];
                    const double scale = A->diag[p] > 0.0 ? 1.0 / A->diag[p] : 0.0;
                    rows_of_A.forEach(i, j, [&](int qi, int qj, double value) {
                        const int64_t q = qi + int64_t(qj) * H;
                        const float *bq = &basis[size_t(q) * 4];
                        const double f = scale * value;
                        // S >= reach: q's block is p's or one of the eight around it.
                        const int dI = qi < i0 ? -1 : qi >= i0 + S, dJ = qj < j0 ? -1 : qj >= j0 + S;
                        const int k = which[dI + 1][dJ + 1];
                        if (k >= 0) {
                            for (int d = 0; d < 4; ++d)
                                v[k][d] -= f * bq[d];
                            return;
                        }
                        const double *C = &L1->candidates[size_t(I + dI + int64_t(J + dJ) * ah) * kBlockSize];
                        for (int c = 0; c < 4; ++c)
                            defect[c] -=
                                f * (bq[0] * C[c] + bq[1] * C[4 + c] + bq[2] * C[8 + c] + bq[3] * C[12 + c]);
                    });
                    // The smallest change of p's rows with sum_k change_k^T candidates_k = defect:
                    // change_k = candidates_k y with (sum_k candidates_k^T candidates_k) y = defect.
                    double M[4][4] = {}, y[4];
                    for (int k = 0; k < count; ++k)
                        for (int c = 0; c < 4; ++c)
                            for (int e = 0; e < 4; ++e)
                                M[c][e] += gram[size_t(holders[k]) * 16 + c * 4 + e];
                    solveSemiDefinite4(M, defect, y);
                    for (int k = 0; k < count; ++k) {
                        const double *C = &L1->candidates[size_t(holders[k]) * kBlockSize];
                        for (int d = 0; d < 4; ++d)
                            rows[k][d] = float(v[k][d] + C[d * 4] * y[0] + C[d * 4 + 1] * y[1] +
                                               C[d * 4 + 2] * y[2] + C[d * 4 + 3] * y[3]);
                    }
                }
        }
    });
}

// First coarse level, part three: the Galerkin matrix P^T A P. For each aggregate a, U = A P(., a) on
// the pixels A reaches from a's box, then K(a, b) = sum over b's box of U^T P(., b) for a and the four
// neighbours after it.
void buildFirstMatrix(Multigrid *mg, const FirstLevelShape &g, MultigridLevel *L1) {
    const GridMatrix *A = mg->A;
    const int H = g.H, W = g.W, ah = g.ah, aw = g.aw, box = g.box, R = A->reach;
    const int side = box + 2 * R; // of the region A reaches from a box
    const int64_t na = int64_t(ah) * aw;
    initBlockGrid(&L1->K, ah, aw);
    parallelRange(na, kParallelGrain, [&](int64_t a, int64_t end) {
        std::vector<double> U(size_t(side) * side * 4);
        RowWindow rows_of_A(A);
        int loaded = -1;
        for (; a < end; ++a) {
            if (!mg->active_block[a]) continue;
            const int I = int(a % ah), J = int(a / ah);
            if (loaded != J) rows_of_A.load(g.col0(J), g.col0(J) + box);
            loaded = J;
            const int u0 = g.row0(I) - R, v0 = g.col0(J) - R; // pixel at U's corner
            std::fill(U.begin(), U.end(), 0.0);
            // A is symmetric: column p of A is row p. One stencil offset at a time, so that no sum
            // waits for the one before it.
            const int ib = std::max(0, g.row0(I)), ie = std::min(H, g.row0(I) + box);
            for (int k = 0; k < rows_of_A.count; ++k) {
                const int dr = rows_of_A.drow[k], dc = rows_of_A.dcol[k];
                for (int j = std::max(0, g.col0(J)); j < std::min(W, g.col0(J) + box); ++j) {
                    const double *values = rows_of_A.row(ib, j) + k;
                    const float *Pa = &mg->transfer[g.at(a, ib, j, I, J)];
                    double *u = &U[(size_t(ib + dr - u0) + size_t(j + dc - v0) * side) * 4];
                    for (int i = ib; i < ie; ++i, values += rows_of_A.count, Pa += 4, u += 4)
                        for (int r = 0; r < 4; ++r)
                            u[r] += *values * Pa[r];
                }
            }
            for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
                const int I2 = I + slot % 3 - 1, J2 = J + slot / 3 - 1;
                if (I2 < 0 || I2 >= ah || J2 < 0 || J2 >= aw) continue;
                const int64_t b = I2 + int64_t(J2) * ah;
                if (!mg->active_block[b]) continue;
                double acc[kBlockSize] = {};
                const int ib = std::max(0, g.row0(I2)), ie = std::min(H, g.row0(I2) + box);
                for (int j = std::max(0, g.col0(J2)); j < std::min(W, g.col0(J2) + box); ++j) {
                    if (j - v0 >= side) break;
                    for (int i = std::max(ib, u0); i < std::min(ie, u0 + side); ++i) {
                        const float *Pb = &mg->transfer[g.at(b, i, j, I2, J2)];
                        const double *u = &U[(size_t(i - u0) + size_t(j - v0) * side) * 4];
                        for (int c = 0; c < 4; ++c)
                            for (int r = 0; r < 4; ++r)
                                acc[c * 4 + r] += u[r] * Pb[c];
                    }
                }
                float *M = blockAt(&L1->K, a, slot);
                for (int k = 0; k < kBlockSize; ++k)
                    M[k] = float(acc[k]);
            }
        }
    });
}

// Next coarse level: 2 x 2 nodes of `fine` become one node of `coarse`. The candidates of the member
// nodes, stacked, are orthonormalised (modified Gram-Schmidt, twice for accuracy); the orthonormal
// columns are the transfer and the triangular factor is the coarse node's candidates.
void buildNextLevel(MultigridLevel *fine, MultigridLevel *coarse) {
    const BlockGrid *K = &fine->K;
    const int h = K->height, w = K->width;
    const int ch = (h + G - 1) / G, cw = (w + G - 1) / G;
    const int64_t nc = int64_t(ch) * cw;
    fine->transfer.assign(size_t(blockNodes(K)) * kBlockSize, 0.0);
    coarse->candidates.assign(size_t(nc) * kBlockSize, 0.0);
    parallelRange(nc, kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t A = begin; A < end; ++A) {
            const int I = int(A % ch), J = int(A / ch);
            int64_t members[16];
            int count = 0;
            for (int v = 0; v < G; ++v)
                for (int u = 0; u < G; ++u) {
                    const int i = G * I + u, j = G * J + v;
                    if (i < h && j < w) members[count++] = i + int64_t(j) * h;
                }
            const int rows = count * 4;
            double Mx[64][4];
            for (int m = 0; m < count; ++m)
                for (int d = 0; d < 4; ++d)
                    for (int c = 0; c < 4; ++c)
                        Mx[m * 4 + d][c] = fine->candidates[size_t(members[m]) * 16 + d * 4 + c];
            double R[4][4] = {};
            for (int c = 0; c < 4; ++c) {
                double norm0 = 0.0;
                for (int r = 0; r < rows; ++r)
                    norm0 += Mx[r][c] * Mx[r][c];
                for (int pass = 0; pass < 2; ++pass)
                    for (int e = 0; e < c; ++e) {
                        double dot = 0.0;
                        for (int r = 0; r < rows; ++r)
                            dot += Mx[r][e] * Mx[r][c];
                        R[e][c] += dot;
                        for (int r = 0; r < rows; ++r)
                            Mx[r][c] -= dot * Mx[r][e];
                    }
                double norm = 0.0;
                for (int r = 0; r < rows; ++r)
                    norm += Mx[r][c] * Mx[r][c];
                if (!(norm > 1e-16 * norm0) || !(norm > 0.0)) {
                    for (int r = 0; r < rows; ++r)
                        Mx[r][c] = 0.0;
                    continue;
                }
                norm = std::sqrt(norm);
                R[c][c] = norm;
                for (int r = 0; r < rows; ++r)
                    Mx[r][c] /= norm;
            }
            for (int m = 0; m < count; ++m)
                for (int d = 0; d < 4; ++d)
                    for (int c = 0; c < 4; ++c)
                        fine->transfer[size_t(members[m]) * 16 + d * 4 + c] = Mx[m * 4 + d][c];
            for (int d = 0; d < 4; ++d)
                for (int c = 0; c < 4; ++c)
                    coarse->candidates[size_t(A) * 16 + d * 4 + c] = R[d][c];
        }
    });

    initBlockGrid(&coarse->K, ch, cw);
    parallelRange(nc, kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t A = begin; A < end; ++A) {
            const int I = int(A % ch), J = int(A / ch);
            double acc[kBlockSlots][kBlockSize] = {};
            for (int v = 0; v < G; ++v)
                for (int u = 0; u < G; ++u) {
                    const int i = G * I + u, j = G * J + v;
                    if (i >= h || j >= w) continue;
                    const int64_t a = i + int64_t(j) * h;
                    const double *Qa = &fine->transfer[size_t(a) * 16];
                    for (int dc = -1; dc <= 1; ++dc)
                        for (int dr = -1; dr <= 1; ++dr) {
                            const int bi = i + dr, bj = j + dc;
                            if (bi < 0 || bi >= h || bj < 0 || bj >= w) continue;
                            const int slot = blockSlot(bi / G - I, bj / G - J);
                            if (slot < kCentreSlot) continue; // held by the neighbour, as its transpose
                            const int64_t b = bi + int64_t(bj) * h;
                            // K(a, b)[r][k]: a's stored block towards b, or the transpose of b's
                            // stored block towards a.
                            const int own = blockSlot(dr, dc);
                            const float *stored =
                                own >= kCentreSlot ? blockAt(K, a, own) : blockAt(K, b, 8 - own);
                            auto Kab = [&](int r, int k) {
                                return double(own >= kCentreSlot ? stored[k * 4 + r] : stored[r * 4 + k]);
                            };
                            const double *Qb = &fine->transfer[size_t(b) * 16];
                            // T = K(a, b) Q_b, then acc += Q_a^T T (acc by columns).
                            double T[16] = {};
                            for (int r = 0; r < 4; ++r)
                                for (int k = 0; k < 4; ++k)
                                    for (int c = 0; c < 4; ++c)
                                        T[r * 4 + c] += Kab(r, k) * Qb[k * 4 + c];
                            for (int r = 0; r < 4; ++r)
                                for (int k = 0; k < 4; ++k)
                                    for (int c = 0; c < 4; ++c)
                                        acc[slot][c * 4 + r] += Qa[k * 4 + r] * T[k * 4 + c];
                        }
                }
            for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
                float *M = blockAt(&coarse->K, A, slot);
                for (int k = 0; k < kBlockSize; ++k)
                    M[k] = float(acc[slot][k]);
            }
        }
    });
}

void allocateWork(MultigridLevel *L) {
    for (BlockVector *v : {&L->rhs, &L->sol, &L->r, &L->p1, &L->q1, &L->p2, &L->q2, &L->res})
        initBlockVector(v, &L->K);
}

// a.b and c.d in one pass, in fixed pieces added in a fixed order.
void dots(int64_t n, const float *a, const float *b, const float *c, const float *d, double *ab, double *cd) {
    constexpr int kPieces = 16;
    const int pieces = n < kVectorGrain ? 1 : kPieces;
    double part[kPieces][2] = {};
    parallelTasks(pieces, [&](int k) {
        double s0 = 0.0, s1 = 0.0;
        for (int64_t i = n * k / pieces; i < n * (k + 1) / pieces; ++i) {
            s0 += double(a[i]) * b[i];
            s1 += double(c[i]) * d[i];
        }
        part[k][0] = s0;
        part[k][1] = s1;
    });
    *ab = *cd = 0.0;
    for (int k = 0; k < pieces; ++k) {
        *ab += part[k][0];
        *cd += part[k][1];
    }
}

double dot(const float *a, const float *b, int64_t n) {
    return parallelSum(n, kVectorGrain, [&](int64_t begin, int64_t end) {
        double s = 0.0;
        for (int64_t i = begin; i < end; ++i)
            s += double(a[i]) * b[i];
        return s;
    });
}

void solveLevel(Multigrid *mg, size_t l);

// One cycle on coarse level l for K x = b: forward sweep, correction from level l + 1, backward sweep.
void cycleLevel(Multigrid *mg, size_t l, const BlockVector *b, BlockVector *x) {
    MultigridLevel *L = mg->levels[l].get();
    MultigridLevel *C = mg->levels[l + 1].get();
    const BlockGrid *K = &L->K;
    sweepBlockGridWithResidual(K, b, x, &L->res);
    const int h = K->height, w = K->width, ch = C->K.height;
    const float *res = L->res.data();
    parallelRange(blockNodes(&C->K), kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t A = begin; A < end; ++A) {
            const int I = int(A % ch), J = int(A / ch);
            double s[4] = {0, 0, 0, 0};
            for (int v = 0; v < G; ++v)
                for (int u = 0; u < G; ++u) {
                    const int i = G * I + u, j = G * J + v;
                    if (i >= h || j >= w) continue;
                    const int64_t a = i + int64_t(j) * h;
                    const double *Q = &L->transfer[size_t(a) * 16];
                    for (int c = 0; c < 4; ++c)
                        for (int d = 0; d < 4; ++d)
                            s[c] += Q[d * 4 + c] * res[a * 4 + d];
                }
            for (int c = 0; c < 4; ++c)
                C->rhs.data()[A * 4 + c] = float(s[c]);
        }
    });
    solveLevel(mg, l + 1);
    const float *sol = C->sol.data();
    parallelRange(blockNodes(K), kParallelGrain, [&](int64_t begin, int64_t end) {
        for (int64_t a = begin; a < end; ++a) {
            const int64_t A = (a % h) / G + ((a / h) / G) * int64_t(ch);
            const double *Q = &L->transfer[size_t(a) * 16];
            for (int d = 0; d < 4; ++d)
                for (int c = 0; c < 4; ++c)
                    x->data()[a * 4 + d] += Q[d * 4 + c] * sol[A * 4 + c];
        }
    });
    sweepBlockGrid(K, b, x, false);
}

// Approximate solution of level l's problem (rhs -> sol): the direct solve on the last level,
// otherwise two flexible conjugate gradient steps preconditioned by cycleLevel.
void solveLevel(Multigrid *mg, size_t l) {
    MultigridLevel *L = mg->levels[l].get();
    const int64_t n = L->rhs.size;
    float *x = L->sol.data();
    const float *rhs = L->rhs.data();
    if (l + 1 == mg->levels.size()) {
        std::vector<double> &work = mg->coarse_work;
        work.assign(rhs, rhs + n);
        solveBlockFactor(&mg->coarsest, work.data(), work.data());
        std::copy(work.begin(), work.end(), x);
        return;
    }
    const BlockGrid *K = &L->K;
    float *p1 = L->p1.data(), *q1 = L->q1.data(), *p2 = L->p2.data(), *q2 = L->q2.data(), *r = L->r.data();
    cycleLevel(mg, l, &L->rhs, &L->p1);
    multiplyBlockGrid(K, &L->p1, &L->q1);
    double pq1, prhs;
    dots(n, p1, q1, p1, rhs, &pq1, &prhs);
    if (!(pq1 > 0.0)) {
        std::copy(p1, p1 + n, x);
        return;
    }
    const float alpha1 = float(prhs / pq1);
    parallelRange(n, kVectorGrain, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            x[i] = alpha1 * p1[i];
            r[i] = rhs[i] - alpha1 * q1[i];
        }
    });
    cycleLevel(mg, l, &L->r, &L->p2);
    multiplyBlockGrid(K, &L->p2, &L->q2);
    // Make the second direction conjugate to the first.
    const float beta = float(dot(p2, q1, n) / pq1);
    double pq2, pr;
    parallelRange(n, kVectorGrain, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            p2[i] -= beta * p1[i];
            q2[i] -= beta * q1[i];
        }
    });
    dots(n, p2, q2, p2, r, &pq2, &pr);
    if (!(pq2 > 0.0)) return;
    const float alpha2 = float(pr / pq2);
    parallelRange(n, kVectorGrain, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i)
            x[i] += alpha2 * p2[i];
    });
}

} // namespace

namespace {

// z += P c for the first coarse level's unknowns c.
void prolongFirstLevel(const Multigrid *mg, const float *c, double *z) {
    const FirstLevelShape g = firstLevelShape(mg->A, mg->aggregate);
    const int H = g.H, W = g.W, ah = g.ah;
    // Boxes of aggregate columns two apart do not overlap: add the even columns' boxes, then the odd
    // ones', each column of aggregates in one piece.
    for (int parity = 0; parity < 2; ++parity)
        parallelRange((g.aw - parity + 1) / 2, std::max<int64_t>(1, kParallelGrain / ah),
                      [&](int64_t k, int64_t end) {
                          for (; k < end; ++k) {
                              const int J = int(2 * k + parity);
                              const int jb = std::max(0, g.col0(J)), je = std::min(W, g.col0(J) + g.box);
                              for (int I = 0; I < ah; ++I) {
                                  const int64_t a = I + int64_t(J) * ah;
                                  if (!mg->active_block[a]) continue;
                                  const float *ca = c + a * 4;
                                  const int ib = std::max(0, g.row0(I)), ie = std::min(H, g.row0(I) + g.box);
                                  for (int j = jb; j < je; ++j) {
                                      const float *P = &mg->transfer[g.at(a, ib, j, I, J)];
                                      double *zj = z + int64_t(j) * H;
                                      for (int i = ib; i < ie; ++i, P += 4)
                                          zj[i] += P[0] * ca[0] + P[1] * ca[1] + P[2] * ca[2] + P[3] * ca[3];
                                  }
                              }
                          }
                      });
}

} // namespace

void multigridColourModel(const Multigrid *mg, int candidate, double *alpha) {
    const int64_t n = gridPixels(mg->A);
    std::fill(alpha, alpha + n, 0.0);
    if (mg->levels.empty()) return;
    const MultigridLevel *L1 = mg->levels[0].get();
    std::vector<float> c(size_t(blockNodes(&L1->K)) * 4);
    for (size_t k = 0; k < c.size(); ++k)
        c[k] = float(L1->candidates[(k / 4) * kBlockSize + (k % 4) * 4 + candidate]);
    prolongFirstLevel(mg, c.data(), alpha);
}

void buildMultigrid(const GridMatrix *A, const float *colour, int channels, Multigrid *mg) {
    mg->A = A;
    mg->levels.clear();
    mg->transfer.clear();
    const int64_t n = gridPixels(A);
    if (!colour) channels = 0;
    channels = std::clamp(channels, 0, 3);

    if (n <= kDirectPixels) {
        // Small enough to factor outright: the "cycle" is then the exact inverse.
        mg->aggregate = 0;
        BlockFactor &F = mg->coarsest;
        F.n = n;
        F.bandwidth = int(std::min<int64_t>(A->band_shift.empty() ? 0 : A->band_shift.back(), n - 1));
        const int w = F.bandwidth + 1;
        F.lower.assign(size_t(n) * w, 0.0);
        std::vector<double> scale(A->diag.begin(), A->diag.end());
        for (int64_t p = 0; p < n; ++p)
            F.lower[p * w] = A->diag[p];
        for (size_t k = 0; k < A->band_shift.size(); ++k) {
            const int64_t s = A->band_shift[k];
            if (s > F.bandwidth) continue;
            for (int64_t p = 0; p + s < n; ++p)
                F.lower[(p + s) * w + s] += A->bands[k * n + p];
        }
        factorBanded(&F, scale);
        return;
    }

    mg->aggregate = std::max(4, A->reach);
    mg->residual.assign(n, 0.0);
    gridActiveRuns(A, &mg->runs);
    copyGridStencils(A, &mg->smoother);
    // The sweeps divide by the diagonal the smoother's copy holds, so that each step solves the rounded
    // row exactly and the residual it leaves is that of the same matrix: the cycle stays symmetric.
    mg->inv_diag.resize(n);
    for (int64_t p = 0; p < n; ++p) {
        const double rounded = gridStencilValue(&mg->smoother, A->diag[p]);
        mg->inv_diag[p] = A->diag[p] > 0.0 ? 1.0 / (rounded > 0.0 ? rounded : A->diag[p]) : 0.0;
    }
    auto first = std::make_unique<MultigridLevel>();
    {
        const FirstLevelShape g = firstLevelShape(A, mg->aggregate);
        std::vector<float> basis;
        std::vector<char> coupled;
        buildBasis(mg, g, colour, channels, first.get(), &basis, &coupled);
        buildTransfer(mg, g, basis, coupled, first.get());
        basis = std::vector<float>();
        coupled = std::vector<char>();
        buildFirstMatrix(mg, g, first.get());
    }
    mg->levels.push_back(std::move(first));
    for (;;) {
        MultigridLevel *L = mg->levels.back().get();
        const int64_t nodes = blockNodes(&L->K);
        if (nodes <= kDirectNodes || (L->K.height == 1 && L->K.width == 1)) break;
        auto next = std::make_unique<MultigridLevel>();
        buildNextLevel(L, next.get());
        mg->levels.push_back(std::move(next));
    }
    for (auto &L : mg->levels) {
        invertBlockDiagonal(&L->K);
        allocateWork(L.get());
    }
    factorBlockGrid(&mg->levels.back()->K, &mg->coarsest);
}

void applyMultigrid(Multigrid *mg, const double *r, double *z, double *az) {
    const GridMatrix *A = mg->A;
    if (mg->levels.empty()) {
        solveBlockFactor(&mg->coarsest, r, z);
        if (az) multiplyGridMatrix(A, z, az);
        return;
    }
    double *res = mg->residual.data();
    sweepGridMatrixWithResidual(&mg->smoother, mg->inv_diag.data(), r, z, res, &mg->runs);
    MultigridLevel *L1 = mg->levels[0].get();
    const FirstLevelShape g = firstLevelShape(A, mg->aggregate);
    const int H = g.H, W = g.W, ah = g.ah;
    const int64_t na = blockNodes(&L1->K);
    parallelRange(na, kParallelGrain, [&](int64_t a, int64_t end) {
        for (; a < end; ++a) {
            double s[4] = {0, 0, 0, 0};
            const int I = int(a % ah), J = int(a / ah);
            const int j1 = mg->active_block[a] ? std::min(W, g.col0(J) + g.box) : 0;
            const int ib = std::max(0, g.row0(I)), ie = std::min(H, g.row0(I) + g.box);
            for (int j = std::max(0, g.col0(J)); j < j1; ++j) {
                const float *P = &mg->transfer[g.at(a, ib, j, I, J)];
                const double *rj = res + int64_t(j) * H;
                for (int i = ib; i < ie; ++i, P += 4)
                    for (int d = 0; d < 4; ++d)
                        s[d] += P[d] * rj[i];
            }
            for (int d = 0; d < 4; ++d)
                L1->rhs.data()[a * 4 + d] = float(s[d]);
        }
    });
    solveLevel(mg, 0);
    prolongFirstLevel(mg, L1->sol.data(), z);
    if (az)
        sweepGridMatrixBackwardWithProduct(&mg->smoother, mg->inv_diag.data(), r, z, az, &mg->runs);
    else
        sweepGridMatrix(&mg->smoother, mg->inv_diag.data(), r, z, false, false, &mg->runs);
}

int multigridLevelCount(const Multigrid *mg) {
    return 1 + int(mg->levels.size());
}

size_t multigridBytes(const Multigrid *mg) {
    size_t bytes = mg->inv_diag.size() * sizeof(double) + mg->transfer.size() * sizeof(float) +
                   mg->smoother.stencil.size() * sizeof(GridCoefficient) +
                   mg->residual.size() * sizeof(double) + mg->coarsest.lower.size() * sizeof(double);
    for (const auto &L : mg->levels) {
        bytes += (L->K.blocks.size() + L->K.inverse.size()) * sizeof(float);
        bytes += (L->candidates.size() + L->transfer.size()) * sizeof(double);
        bytes += 8 * L->rhs.storage.size() * sizeof(double);
    }
    return bytes;
}
