// The coarse-level block store: products, sweeps and the banded factor against dense computations.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "matting/block_grid.h"

namespace {

// Symmetric, diagonally dominant block matrix on an h x w node grid: random blocks towards the
// neighbours after each node, a dominant symmetric diagonal block.
BlockGrid randomBlockGrid(int h, int w, unsigned seed) {
    BlockGrid K;
    initBlockGrid(&K, h, w);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int64_t nodes = blockNodes(&K);
    for (int64_t a = 0; a < nodes; ++a) {
        const int i = int(a % h), j = int(a / h);
        for (int slot = kCentreSlot + 1; slot < kBlockSlots; ++slot) {
            const int bi = i + slot % 3 - 1, bj = j + slot / 3 - 1;
            if (bi < 0 || bi >= h || bj >= w) continue;
            float *M = blockAt(&K, a, slot);
            for (int k = 0; k < kBlockSize; ++k)
                M[k] = float(u(rng));
        }
        float *D = blockAt(&K, a, kCentreSlot);
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c <= r; ++c)
                D[c * 4 + r] = D[r * 4 + c] = float(r == c ? 40.0 + u(rng) : u(rng));
    }
    return K;
}

// The dense matrix: stored blocks and, for the neighbours before a node, the transposes of theirs.
std::vector<double> dense(const BlockGrid &K) {
    const int h = K.height;
    const int64_t nodes = blockNodes(&K), n = nodes * 4;
    std::vector<double> D(n * n, 0.0);
    for (int64_t a = 0; a < nodes; ++a)
        for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
            const int bi = int(a % h) + slot % 3 - 1, bj = int(a / h) + slot / 3 - 1;
            if (bi < 0 || bi >= h || bj < 0 || bj >= K.width) continue;
            const int64_t b = bi + int64_t(bj) * h;
            const float *M = blockAt(&K, a, slot);
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 4; ++c) {
                    D[(a * 4 + r) * n + b * 4 + c] = M[c * 4 + r];
                    D[(b * 4 + c) * n + a * 4 + r] = M[c * 4 + r];
                }
        }
    return D;
}

BlockVector randomVector(const BlockGrid &K, unsigned seed) {
    BlockVector v;
    initBlockVector(&v, &K);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int64_t k = 0; k < v.size; ++k)
        v.data()[k] = u(rng);
    return v;
}

TEST(BlockGrid, ProductAndResidualMatchDenseMatrix) {
    for (auto [h, w] : {std::pair{1, 1}, {1, 5}, {4, 3}, {7, 6}}) {
        BlockGrid K = randomBlockGrid(h, w, 7u * h + w);
        const int64_t n = blockNodes(&K) * 4;
        BlockVector x = randomVector(K, 3u), b = randomVector(K, 5u), y, r;
        initBlockVector(&y, &K);
        initBlockVector(&r, &K);
        multiplyBlockGrid(&K, &x, &y);
        residualBlockGrid(&K, &b, &x, &r);
        const std::vector<double> D = dense(K);
        for (int64_t row = 0; row < n; row++) {
            double expected = 0.0;
            for (int64_t c = 0; c < n; ++c)
                expected += D[row * n + c] * x.data()[c];
            // Single precision throughout: blocks, vectors and sums.
            EXPECT_NEAR(y.data()[row], expected, 1e-4) << h << "x" << w << " row " << row;
            EXPECT_NEAR(r.data()[row], b.data()[row] - expected, 1e-4);
        }
    }
}

TEST(BlockGrid, ForwardSweepIsBlockGaussSeidelInNodeOrder) {
    BlockGrid K = randomBlockGrid(3, 4, 11u);
    invertBlockDiagonal(&K);
    const int64_t nodes = blockNodes(&K), n = nodes * 4;
    const std::vector<double> D = dense(K);
    BlockVector b = randomVector(K, 13u), x = randomVector(K, 14u), again = randomVector(K, 15u), res;
    initBlockVector(&res, &K);
    sweepBlockGridWithResidual(&K, &b, &x, &res);
    // Once more from the result: a forward sweep from zero and one from x must differ.
    again = x;
    sweepBlockGrid(&K, &b, &again, true);
    // Dense block Gauss-Seidel: solve each diagonal block against the latest values.
    std::vector<double> e(n, 0.0);
    for (int64_t a = 0; a < nodes; ++a) {
        double s[4], M[16];
        for (int r = 0; r < 4; ++r) {
            s[r] = b.data()[a * 4 + r];
            for (int64_t c = 0; c < n; ++c)
                if (c / 4 != a) s[r] -= D[(a * 4 + r) * n + c] * e[c];
            for (int c = 0; c < 4; ++c)
                M[r * 4 + c] = D[(a * 4 + r) * n + a * 4 + c];
        }
        // Gaussian elimination on the 4 x 4 block.
        for (int k = 0; k < 4; ++k)
            for (int r = k + 1; r < 4; ++r) {
                const double f = M[r * 4 + k] / M[k * 4 + k];
                for (int c = k; c < 4; ++c)
                    M[r * 4 + c] -= f * M[k * 4 + c];
                s[r] -= f * s[k];
            }
        for (int r = 3; r >= 0; --r) {
            double v = s[r];
            for (int c = r + 1; c < 4; ++c)
                v -= M[r * 4 + c] * e[a * 4 + c];
            e[a * 4 + r] = v / M[r * 4 + r];
        }
    }
    // The inverse diagonal blocks are kept in single precision.
    for (int64_t k = 0; k < n; ++k)
        EXPECT_NEAR(x.data()[k], e[k], 1e-6 * (1.0 + std::fabs(e[k]))) << k;
}

TEST(BlockGrid, SweepPairIsSymmetricOnBothCores) {
    BlockGrid K = randomBlockGrid(90, 100, 17u);
    invertBlockDiagonal(&K);
    BlockVector u = randomVector(K, 19u), v = randomVector(K, 23u), Su, Sv;
    initBlockVector(&Su, &K);
    initBlockVector(&Sv, &K);
    BlockVector res;
    initBlockVector(&res, &K);
    for (auto [in, out] : {std::pair{&u, &Su}, {&v, &Sv}}) {
        sweepBlockGridWithResidual(&K, in, out, &res);
        sweepBlockGrid(&K, in, out, false);
    }
    double uSv = 0.0, vSu = 0.0, scale = 0.0;
    for (int64_t k = 0; k < u.size; ++k) {
        uSv += u.data()[k] * Sv.data()[k];
        vSu += v.data()[k] * Su.data()[k];
        scale += std::fabs(u.data()[k] * Sv.data()[k]);
    }
    // Single precision arithmetic, but the same order of operations: symmetric to its rounding.
    EXPECT_NEAR(uSv, vSu, 1e-5 * scale);
}

TEST(BlockGrid, BandedFactorSolvesAndLeavesUnusedUnknownsAtZero) {
    BlockGrid K = randomBlockGrid(3, 5, 29u);
    // Unknown 2 of node 4 takes part in nothing: its row and column are zero.
    const int64_t nodes = blockNodes(&K), dead = 4 * 4 + 2;
    for (int64_t a = 0; a < nodes; ++a)
        for (int slot = kCentreSlot; slot < kBlockSlots; ++slot) {
            const int bi = int(a % 3) + slot % 3 - 1, bj = int(a / 3) + slot / 3 - 1;
            const int64_t b = bi + int64_t(bj) * 3;
            float *M = blockAt(&K, a, slot);
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 4; ++c)
                    if (a * 4 + r == dead || b * 4 + c == dead) M[c * 4 + r] = 0.0f;
        }
    BlockFactor F;
    factorBlockGrid(&K, &F);
    const int64_t n = nodes * 4;
    const std::vector<double> D = dense(K);
    std::vector<double> b(n), x(n);
    for (int64_t k = 0; k < n; ++k)
        b[k] = std::sin(1.0 + k);
    solveBlockFactor(&F, b.data(), x.data());
    EXPECT_TRUE(F.dropped[dead]);
    EXPECT_EQ(x[dead], 0.0);
    for (int64_t row = 0; row < n; ++row) {
        if (row == dead) continue;
        double s = 0.0;
        for (int64_t c = 0; c < n; ++c)
            s += D[row * n + c] * x[c];
        EXPECT_NEAR(s, b[row], 1e-10) << row;
    }
}

} // namespace
