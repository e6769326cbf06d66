// The coarse-level block store: the product, sweeps and banded factor the multigrid uses, against
// products formed block by block from the stored blocks.
#include <gtest/gtest.h>

#include "matting/block_grid.h"
#include "synthetic_scene.h"

namespace {

// fn(b, block) for each stored block of node a: towards node b, column-major, b inside the grid.
template <typename Grid, typename Fn> void forEachBlock(Grid &K, int64_t a, Fn &&fn) {
    for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
        const int bi = int(a % K.height) + slot % 3 - 1, bj = int(a / K.height) + slot / 3 - 1;
        if (bi >= 0 && bi < K.height && bj < K.width) fn(bi + int64_t(bj) * K.height, blockAt(&K, a, slot));
    }
}

// Symmetric block matrix on an h x w node grid, its diagonal blocks R + R^T + diagonal I: positive
// definite for a diagonal of 50.
BlockGrid randomBlockGrid(int h, int w, unsigned seed, double diagonal) {
    BlockGrid K;
    initBlockGrid(&K, h, w);
    const std::vector<double> r = randomVector(K.blocks.size(), seed);
    for (int64_t a = 0; a < blockNodes(&K); ++a)
        forEachBlock(K, a, [&](int64_t b, float *M) {
            const double *R = r.data() + (M - K.blocks.data());
            for (int k = 0; k < kBlockSize; ++k)
                M[k] = float(b != a ? R[k] : R[k] + R[k % 4 * 4 + k / 4] + (k % 5 == 0 ? diagonal : 0.0));
        });
    return K;
}

// K v from the stored blocks (the blocks before a node are the transposes of its neighbours'), or only
// its lower block triangle, the blocks on and below the diagonal in node order.
template <typename T> std::vector<double> apply(const BlockGrid &K, const T *v, bool lower) {
    std::vector<double> y(blockNodes(&K) * 4, 0.0);
    for (int64_t a = 0; a < blockNodes(&K); ++a)
        forEachBlock(K, a, [&](int64_t b, const float *M) {
            for (int k = 0; k < kBlockSize; ++k) {
                y[a * 4 + k % 4] += lower && b != a ? 0.0 : M[k] * v[b * 4 + k / 4];
                y[b * 4 + k / 4] += b != a ? M[k] * v[a * 4 + k % 4] : 0.0;
            }
        });
    return y;
}

// Random values, or zeros for seed 0.
BlockVector blockVector(const BlockGrid &K, unsigned seed) {
    BlockVector v;
    initBlockVector(&v, &K);
    const std::vector<double> r = randomVector(seed ? v.size : 0, seed);
    std::copy(r.begin(), r.end(), v.data());
    return v;
}

TEST(BlockGrid, ProductSweepAndFactorMatchTheBlocks) {
    for (auto [h, w] : {std::pair{1, 1}, {1, 5}, {4, 3}, {7, 6}}) {
        BlockGrid K = randomBlockGrid(h, w, 7u * h + w, 50.0);
        invertBlockDiagonal(&K);
        BlockFactor F;
        factorBlockGrid(&K, &F);
        const int64_t n = blockNodes(&K) * 4;
        BlockVector x = blockVector(K, 3u), b = blockVector(K, 5u), y = blockVector(K, 0), s = y, res = y;
        std::vector<double> f(n), bd(b.data(), b.data() + n);
        multiplyBlockGrid(&K, &x, &y);
        sweepBlockGridWithResidual(&K, &b, &s, &res);
        solveBlockFactor(&F, bd.data(), f.data());
        const std::vector<double> Kx = apply(K, x.data(), false), Ks = apply(K, s.data(), false),
                                  Ls = apply(K, s.data(), true), Kf = apply(K, f.data(), false);
        for (int64_t row = 0; row < n; row++) {
            // Single precision throughout: blocks, vectors and sums; the factor is double.
            EXPECT_NEAR(y.data()[row], Kx[row], 1e-4) << h << "x" << w << " row " << row;
            // A forward sweep from zero is block Gauss-Seidel in node order: (D + L) s = b.
            EXPECT_NEAR(Ls[row], bd[row], 1e-4);
            EXPECT_NEAR(res.data()[row], bd[row] - Ks[row], 1e-4);
            EXPECT_NEAR(Kf[row], bd[row], 1e-10);
        }
    }
}

TEST(BlockGrid, SweepPairIsSymmetricOnBothCores) {
    // Strong couplings, so that sweeping a coupled pair of nodes out of order shows.
    BlockGrid K = randomBlockGrid(90, 100, 17u, 6.0);
    invertBlockDiagonal(&K);
    BlockVector u = blockVector(K, 19u), v = blockVector(K, 23u), Su = blockVector(K, 0), Sv = Su, res = Su;
    for (auto [in, out] : {std::pair{&u, &Su}, {&v, &Sv}}) {
        sweepBlockGridWithResidual(&K, in, out, &res);
        sweepBlockGrid(&K, in, out, false);
    }
    // Single precision arithmetic, but the same order of operations: symmetric to its rounding.
    expectSymmetric(u.data(), Su.data(), v.data(), Sv.data(), u.size, 1e-5);
}

} // namespace
