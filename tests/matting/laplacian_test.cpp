// The matting Laplacian against a dense matrix built element by element from its definition: every
// processed window's affinities summed, the diagonal read over the span's offset list.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
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
            std::vector<double> mu(c, 0.0), C(c * c, 0.0), Ci(c * c);
            for (int k = 0; k < n * c; k++)
                mu[k % c] += x[k] / n;
            for (int k = 0; k < n; k++)
                for (int a = 0; a < c * c; a++)
                    C[a] += (x[k * c + a / c] - mu[a / c]) * (x[k * c + a % c] - mu[a % c]) / n;
            for (int a = 0; a < c; a++)
                C[a * c + a] += eps / n;
            for (int a = 0; a < c; a++) { // column a of the inverse
                std::vector<double> e(c, 0.0);
                e[a] = 1.0;
                const std::vector<double> col = dense_solve(C, e);
                for (int b = 0; b < c; b++)
                    Ci[b * c + a] = col[b];
            }
            for (int k = 0; k < n; k++)
                for (int m = 0; m < n; m++) {
                    double q = 0.0;
                    for (int a = 0; a < c * c; a++)
                        q += (x[k * c + a / c] - mu[a / c]) * Ci[a] * (x[m * c + a % c] - mu[a % c]);
                    w[(size_t)idx[k] * N + idx[m]] += (1.0 + q) / n;
                    d.covered[(size_t)idx[k] * N + idx[m]] = 1;
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

TEST(Laplacian, MatchesBruteForceWithDiagonalFirstAndAscendingColumns) {
    // Colour with a fully constrained corner (its inner windows skipped, pixel (0, 0) in none); grey
    // lower than the span 4r, where two offsets name the same neighbour and its affinity enters the
    // diagonal twice; epsilon 0, which acts as 1e-7.
    const std::tuple<int, int, char, int, double, bool> cases[] = {
        {9, 8, 'c', 1, 1e-5, true}, {6, 9, 'g', 2, 1e-6, false}, {7, 7, 'c', 1, 0.0, false}};
    for (auto [H, W, type, r, eps, corner] : cases) {
        SCOPED_TRACE(testing::Message() << H << "x" << W << " " << type << " r " << r << " eps " << eps);
        TIFF_img img = make_image(H, W, type, 11);
        double **map = make_map(H, W, 0.0);
        for (int i = 0; corner && i < 5; i++)
            for (int j = 0; j < 4; j++)
                map[i][j] = 1.0;
        if (corner) map[7][6] = 1.0;
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
        }
        EXPECT_EQ(LASResult(), LAS_OK);
        Q_Destr(&A);
        free_img((void **)map);
        release(&img);
    }
}

TEST(Laplacian, RowsSumToZeroReadSymmetricallyWithNonNegativeDiagonal) {
    const int H = 12, W = 10;
    TIFF_img img = make_image(H, W, 'c', 3);
    double **map = make_map(H, W, 0.0);
    map[5][5] = 1.0;
    QMatrix A = getLaplacian1(&img, map, 1, 1e-7);
    for (size_t p = 1; p <= Q_GetDim(&A); p++) {
        double sum = 0.0, scale = 0.0;
        for (size_t q = 1; q <= Q_GetDim(&A); q++) {
            const double v = Q_GetEl(&A, p, q);
            EXPECT_EQ(v, Q_GetEl(&A, q, p));
            sum += v;
            scale += std::fabs(v);
        }
        EXPECT_NEAR(sum, 0.0, 1e-12 * scale) << "row " << p;
        EXPECT_GE(Q_GetEl(&A, p, p), 0.0);
    }
    Q_Destr(&A);
    free_img((void **)map);
    release(&img);
}

TEST(Laplacian, NoWindowOrFullyConstrainedGivesNoElements) {
    for (auto [H, W, fill] : {std::tuple{2, 7, 0.0}, std::tuple{7, 2, 0.0}, std::tuple{6, 6, 1.0}}) {
        TIFF_img img = make_image(H, W, 'c', 9);
        double **map = make_map(H, W, fill);
        QMatrix A = getLaplacian1(&img, map, 1, 1e-5);
        for (size_t p = 1; p <= Q_GetDim(&A); p++)
            EXPECT_EQ(Q_GetLen(&A, p), 0u) << H << "x" << W << " row " << p;
        Q_Destr(&A);
        free_img((void **)map);
        release(&img);
    }
}

TEST(Laplacian, UniformColourGivesWindowCountsOverNine) {
    // One colour: every window adds exactly 1/9 to each of its pairs, so an affinity is the number of
    // windows holding both pixels, over 9. On 3 x 3 (height <= 4r) pixel 0's partners 1, 2, 4 and 5 are
    // each named by two offsets, so its diagonal counts 13 namings of 1/9 minus its own.
    for (int side : {5, 3}) {
        TIFF_img img;
        get_TIFF(&img, side, side, 'g');
        for (int i = 0; i < side; i++)
            for (int j = 0; j < side; j++)
                img.mono[i][j] = 128;
        double **map = make_map(side, side, 0.0);
        QMatrix A = getLaplacian1(&img, map, 1, 1e-5);
        auto idx = [side](int i, int j) { return (size_t)(i + j * side + 1); };
        EXPECT_EQ(Q_GetLen(&A, 1), 9u);
        if (side == 5) {
            EXPECT_NEAR(Q_GetEl(&A, idx(0, 0), idx(0, 0)), 8.0 / 9.0, 1e-14);  // one window
            EXPECT_NEAR(Q_GetEl(&A, idx(2, 2), idx(2, 2)), 72.0 / 9.0, 1e-13); // nine windows
            EXPECT_NEAR(Q_GetEl(&A, idx(2, 2), idx(2, 3)), -6.0 / 9.0, 1e-14); // six shared windows
            EXPECT_EQ(Q_GetEl(&A, idx(0, 0), idx(3, 0)), 0.0);                 // no common window
        } else {
            EXPECT_NEAR(Q_GetEl(&A, 1, 1), 12.0 / 9.0, 1e-14);
        }
        Q_Destr(&A);
        free_img((void **)map);
        free_TIFF(&img);
    }
}

TEST(Laplacian, SizeEstimatesAndTheirOverflowMessage) {
    double **map = make_map(4, 5, 0.0);
    map[0][0] = map[3][4] = 1.0;
    EXPECT_EQ(get_non_zeroes(map, 5, 4, 1), 18 * 25 + 2);
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_non_zeroes(map, 5, 4, 3000), -1); // (12001)^2 * 18 overflows
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "integer overrun in get_non_zeroes function");
    free_img((void **)map);
    EXPECT_NEAR(SymLaplacianMBreq(1000, 500, 1), 500000 * 13 * 8 / 1e6, 1e-9);
}

} // namespace
