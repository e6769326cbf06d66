// The coarse-level block store: products, sweeps and the banded factor against dense computations.
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

// Symmetric, diagonally dominant block matrix on an h x w node grid.
BlockGrid randomBlockGrid(int h, int w, unsigned seed) {
    BlockGrid K;
    initBlockGrid(&K, h, w);
    const std::vector<double> r = randomVector(K.blocks.size(), seed);
    for (int64_t a = 0; a < blockNodes(&K); ++a)
        forEachBlock(K, a, [&](int64_t b, float *M) {
            const double *R = r.data() + (M - K.blocks.data());
            for (int k = 0; k < kBlockSize; ++k) // the diagonal block: R + R^T + 50 I
                M[k] = float(b != a ? R[k] : R[k] + R[k % 4 * 4 + k / 4] + (k % 5 == 0 ? 50.0 : 0.0));
        });
    return K;
}

// The dense matrix: stored blocks and, for the neighbours before a node, the transposes of theirs.
std::vector<double> dense(const BlockGrid &K) {
    const int64_t n = blockNodes(&K) * 4;
    std::vector<double> D(n * n, 0.0);
    for (int64_t a = 0; a < blockNodes(&K); ++a)
        forEachBlock(K, a, [&](int64_t b, const float *M) {
            for (int k = 0; k < kBlockSize; ++k)
                D[(a * 4 + k % 4) * n + b * 4 + k / 4] = D[(b * 4 + k / 4) * n + a * 4 + k % 4] = M[k];
        });
    return D;
}

// Random values, or zeros for seed 0.
BlockVector blockVector(const BlockGrid &K, unsigned seed) {
    BlockVector v;
    initBlockVector(&v, &K);
    const std::vector<double> r = randomVector(seed ? v.size : 0, seed);
    std::copy(r.begin(), r.end(), v.data());
    return v;
}

TEST(BlockGrid, KernelsMatchDenseMatrix) {
    for (auto [h, w] : {std::pair{1, 1}, {1, 5}, {4, 3}, {7, 6}}) {
        BlockGrid K = randomBlockGrid(h, w, 7u * h + w);
        invertBlockDiagonal(&K);
        BlockFactor F;
        factorBlockGrid(&K, &F);
        const int64_t n = blockNodes(&K) * 4;
        const std::vector<double> D = dense(K);
        BlockVector x = blockVector(K, 3u), b = blockVector(K, 5u), y = blockVector(K, 0), r = y, s = y,
                    res = y, plain = y;
        std::vector<double> f(n), bd(b.data(), b.data() + n);
        multiplyBlockGrid(&K, &x, &y);
        residualBlockGrid(&K, &b, &x, &r);
        sweepBlockGridWithResidual(&K, &b, &s, &res);
        sweepBlockGrid(&K, &b, &plain, true);
        solveBlockFactor(&F, bd.data(), f.data());
        for (int64_t row = 0; row < n; row++) {
            double Kx = 0.0, Ks = 0.0, lower = 0.0, Kf = 0.0;
            for (int64_t c = 0; c < n; ++c) {
                Kx += D[row * n + c] * x.data()[c];
                Ks += D[row * n + c] * s.data()[c];
                lower += c / 4 <= row / 4 ? D[row * n + c] * s.data()[c] : 0.0;
                Kf += D[row * n + c] * f[c];
            }
            // Single precision throughout: blocks, vectors and sums; the factor is double.
            EXPECT_NEAR(y.data()[row], Kx, 1e-4) << h << "x" << w << " row " << row;
            EXPECT_NEAR(r.data()[row], bd[row] - Kx, 1e-4);
            // A forward sweep from zero is block Gauss-Seidel in node order: (D + L) s = b.
            EXPECT_NEAR(lower, bd[row], 1e-4);
            EXPECT_NEAR(res.data()[row], bd[row] - Ks, 1e-4);
            EXPECT_EQ(plain.data()[row], s.data()[row]);
            EXPECT_NEAR(Kf, bd[row], 1e-10);
        }
    }
}

TEST(BlockGrid, SweepPairIsSymmetricOnBothCores) {
    BlockGrid K = randomBlockGrid(90, 100, 17u);
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
