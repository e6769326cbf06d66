// The matting Laplacian against a dense matrix built element by element from its definition: every
// processed window's affinities summed, the diagonal read over the span's offset list.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "matting/laplacian.h"
#include "matting/sparse_store.h"
#include "tests/matting/engine_fixtures.h"

namespace {

// The dense Laplacian from its definition, with `covered` marking every pair some processed window
// holds (the stored structure, whatever the values).
struct Dense {
    int N;
    std::vector<double> L;
    std::vector<char> covered;
};

Dense brute_force(const TIFF_img &img, double **map, int r, double eps) {
    const int H = img.height, W = img.width, N = H * W;
    const int c = img.TIFF_type == 'c' ? 3 : 1, n = (2 * r + 1) * (2 * r + 1);
    eps = std::fmax(eps, 1e-7);
    std::vector<double> w((size_t)N * N, 0.0);
    Dense d{N, std::vector<double>((size_t)N * N, 0.0), std::vector<char>((size_t)N * N, 0)};
    for (int j = r; j < W - r; j++)
        for (int i = r; i < H - r; i++) {
            bool all_constrained = true;
            std::vector<int> idx;
            std::vector<double> x;
            for (int a = -r; a <= r; a++)
                for (int b = -r; b <= r; b++) {
                    all_constrained = all_constrained && map[i + b][j + a] != 0.0;
                    idx.push_back((i + b) + (j + a) * H);
                    for (int ch = 0; ch < c; ch++)
                        x.push_back((c == 3 ? img.color[ch][i + b][j + a] : img.mono[i + b][j + a]) / 255.0);
                }
            if (all_constrained) continue;
            std::vector<double> mu(c, 0.0), C(c * c, 0.0);
            for (int k = 0; k < n * c; k++)
                mu[k % c] += x[k] / n;
            for (int k = 0; k < n * c; k++)
                x[k] -= mu[k % c];
            for (int k = 0; k < n; k++)
                for (int a = 0; a < c * c; a++)
                    C[a] += x[k * c + a / c] * x[k * c + a % c] / n;
            for (int a = 0; a < c; a++)
                C[a * c + a] += eps / n;
            for (int m = 0; m < n; m++) { // T(k, m) = x_k' inv(C) x_m
                const std::vector<double> y = dense_solve(C, std::vector<double>(&x[m * c], &x[m * c] + c));
                for (int k = 0; k < n; k++) {
                    double q = 0.0;
                    for (int a = 0; a < c; a++)
                        q += x[k * c + a] * y[a];
                    w[(size_t)idx[k] * N + idx[m]] += (1.0 + q) / n;
                    d.covered[(size_t)idx[k] * N + idx[m]] = 1;
                }
            }
        }
    for (int p = 0; p < N; p++) {
        if (!d.covered[(size_t)p * N + p]) continue;
        double sum = 0.0; // over the span's offset list, repeats included
        for (int u = 0; u < 4 * r + 1; u++)
            for (int v = 0; v < 4 * r + 1; v++) {
                const int q = p + (u * H + v) - 2 * r * (H + 1);
                if (q >= 0 && q < N) sum += w[(size_t)p * N + q];
            }
        for (int q = 0; q < N; q++)
            d.L[(size_t)p * N + q] = p == q ? sum - w[(size_t)p * N + p] : -w[(size_t)p * N + q];
    }
    return d;
}

TEST(Laplacian, MatchesBruteForceWithDiagonalFirstSymmetricRowsSummingToZero) {
    // Colour with a fully constrained corner (its inner windows skipped, pixel (0, 0) in none); grey
    // lower than the span 4r, where two offsets name the same neighbour and its affinity enters the
    // diagonal twice (so rows no longer sum to zero); epsilon 0, which acts as 1e-7; images lower or
    // narrower than a window, and a fully constrained one, which have no elements at all.
    const std::tuple<int, int, char, int, double, char> cases[] = {
        {9, 8, 'c', 1, 1e-5, 'k'}, {6, 9, 'g', 2, 1e-6, '-'}, {7, 7, 'c', 1, 0.0, '-'},
        {2, 7, 'c', 1, 1e-5, '-'}, {7, 2, 'c', 1, 1e-5, '-'}, {6, 6, 'c', 1, 1e-5, '*'}};
    for (auto [H, W, type, r, eps, constrained] : cases) {
        SCOPED_TRACE(testing::Message() << H << "x" << W << " " << type << " r " << r << " eps " << eps);
        TIFF_img img = make_image(H, W, type, 11);
        double **map = make_map(H, W, constrained == '*' ? 1.0 : 0.0);
        for (int i = 0; constrained == 'k' && i < 5; i++) // a corner block and one pixel
            for (int j = 0; j < 4; j++)
                map[i][j] = map[7][6] = 1.0;
        QMatrix A = getLaplacian1(&img, map, r, eps);
        const Dense d = brute_force(img, map, r, eps);
        ASSERT_EQ(Q_GetDim(&A), (size_t)d.N);
        for (int p = 0; p < d.N; p++) {
            const size_t row = p + 1, len = Q_GetLen(&A, row);
            size_t expected_len = 0;
            for (int q = p; q < d.N; q++)
                expected_len += d.covered[(size_t)p * d.N + q];
            ASSERT_EQ(len, expected_len) << "row " << row;
            for (size_t e = 0; e < len; e++) {
                const size_t col = Q_GetPos(&A, row, e);
                EXPECT_EQ(e == 0, col == row) << "row " << row << " entry " << e;
                EXPECT_TRUE(e < 2 || col > Q_GetPos(&A, row, e - 1)) << "row " << row;
                EXPECT_NEAR(Q_GetVal(&A, row, e), d.L[(size_t)p * d.N + col - 1], 1e-8) << row << "," << col;
            }
            double sum = 0.0, scale = 0.0;
            for (size_t q = 1; q <= (size_t)d.N; q++) {
                EXPECT_EQ(Q_GetEl(&A, row, q), Q_GetEl(&A, q, row));
                sum += Q_GetEl(&A, row, q);
                scale += std::fabs(Q_GetEl(&A, row, q));
            }
            EXPECT_TRUE(H <= 4 * r || std::fabs(sum) <= 1e-12 * scale) << "row " << row << " sums to " << sum;
        }
        EXPECT_EQ(LASResult(), LAS_OK);
        Q_Destr(&A);
        free_img((void **)map);
        release(&img);
    }
}

} // namespace
