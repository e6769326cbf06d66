// The matting Laplacian against a dense matrix built element by element from its definition: every
// processed window's affinities summed, the diagonal read over the span's offset list.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "matting/laplacian.h"
#include "matting/sparse_store.h"
#include "numeric/arrays.h"
#include "numeric/tiff.h"
#include "tests/matting/engine_fixtures.h"

namespace {

// Inverse of a symmetric positive-definite matrix by Gauss-Jordan elimination with partial pivoting.
std::vector<double> inverse(std::vector<double> A, int c) {
    std::vector<double> I(c * c, 0.0);
    for (int k = 0; k < c; k++)
        I[k * c + k] = 1.0;
    for (int col = 0; col < c; col++) {
        int piv = col;
        for (int r = col + 1; r < c; r++)
            if (std::fabs(A[r * c + col]) > std::fabs(A[piv * c + col])) piv = r;
        for (int k = 0; k < c; k++) {
            std::swap(A[col * c + k], A[piv * c + k]);
            std::swap(I[col * c + k], I[piv * c + k]);
        }
        const double d = A[col * c + col];
        for (int k = 0; k < c; k++) {
            A[col * c + k] /= d;
            I[col * c + k] /= d;
        }
        for (int r = 0; r < c; r++)
            if (r != col) {
                const double f = A[r * c + col];
                for (int k = 0; k < c; k++) {
                    A[r * c + k] -= f * A[col * c + k];
                    I[r * c + k] -= f * I[col * c + k];
                }
            }
    }
    return I;
}

// The dense Laplacian from its definition, with `covered` marking every pair some processed window
// holds (the stored structure, whatever the values).
struct Dense {
    int N;
    std::vector<double> L;
    std::vector<char> covered;
    double at(int p, int q) const { return L[(size_t)p * N + q]; }
};

Dense brute_force(const TIFF_img &img, double **map, int r, double eps) {
    const int H = img.height, W = img.width, N = H * W;
    const int c = img.TIFF_type == 'c' ? 3 : 1;
    const int n = (2 * r + 1) * (2 * r + 1);
    if (eps < 1e-7) eps = 1e-7;
    std::vector<double> w((size_t)N * N, 0.0);
    Dense d{N, std::vector<double>((size_t)N * N, 0.0), std::vector<char>((size_t)N * N, 0)};
    for (int j = r; j < W - r; j++)
        for (int i = r; i < H - r; i++) {
            bool all_constrained = true;
            for (int a = -r; a <= r; a++)
                for (int b = -r; b <= r; b++)
                    all_constrained = all_constrained && map[i + b][j + a] != 0.0;
            if (all_constrained) continue;
            std::vector<int> idx;
            std::vector<double> x;
            for (int a = -r; a <= r; a++)
                for (int b = -r; b <= r; b++) {
                    idx.push_back((i + b) + (j + a) * H);
                    for (int ch = 0; ch < c; ch++)
                        x.push_back((c == 3 ? img.color[ch][i + b][j + a] : img.mono[i + b][j + a]) / 255.0);
                }
            std::vector<double> mu(c, 0.0), C(c * c, 0.0);
            for (int k = 0; k < n; k++)
                for (int ch = 0; ch < c; ch++)
                    mu[ch] += x[k * c + ch] / n;
            for (int k = 0; k < n; k++)
                for (int a = 0; a < c; a++)
                    for (int b = 0; b < c; b++)
                        C[a * c + b] += (x[k * c + a] - mu[a]) * (x[k * c + b] - mu[b]) / n;
            for (int a = 0; a < c; a++)
                C[a * c + a] += eps / n;
            const std::vector<double> Ci = inverse(C, c);
            for (int k = 0; k < n; k++)
                for (int m = 0; m < n; m++) {
                    double q = 0.0;
                    for (int a = 0; a < c; a++)
                        for (int b = 0; b < c; b++)
                            q += (x[k * c + a] - mu[a]) * Ci[a * c + b] * (x[m * c + b] - mu[b]);
                    w[(size_t)idx[k] * N + idx[m]] += (1.0 + q) / n;
                    d.covered[(size_t)idx[k] * N + idx[m]] = 1;
                }
        }
    const int s = 4 * r + 1;
    for (int p = 0; p < N; p++) {
        if (!d.covered[(size_t)p * N + p]) continue;
        double sum = 0.0;
        for (int u = 0; u < s; u++)
            for (int v = 0; v < s; v++) {
                const int q = p + (u * H + v) - 2 * r * (H + 1);
                if (q >= 0 && q < N) sum += w[(size_t)p * N + q];
            }
        for (int q = 0; q < N; q++)
            d.L[(size_t)p * N + q] = p == q ? sum - w[(size_t)p * N + p] : -w[(size_t)p * N + q];
    }
    return d;
}

// Every stored element equals the dense one, and exactly the covered upper-triangle pairs are stored,
// each row with its diagonal first and then ascending columns.
void expect_matches(const QMatrix &A, const Dense &d, double tol) {
    ASSERT_EQ(Q_GetDim(&A), (size_t)d.N);
    for (int p = 0; p < d.N; p++) {
        const size_t row = p + 1;
        const size_t len = Q_GetLen(&A, row);
        size_t expected_len = 0;
        for (int q = p; q < d.N; q++)
            expected_len += d.covered[(size_t)p * d.N + q];
        ASSERT_EQ(len, expected_len) << "row " << row;
        if (len == 0) continue;
        EXPECT_EQ(Q_GetPos(&A, row, 0), row) << "row " << row;
        for (size_t e = 0; e < len; e++) {
            const size_t col = Q_GetPos(&A, row, e);
            if (e > 1) {
                EXPECT_GT(col, Q_GetPos(&A, row, e - 1)) << "row " << row;
            }
            EXPECT_TRUE(d.covered[(size_t)p * d.N + (col - 1)]);
            EXPECT_NEAR(Q_GetVal(&A, row, e), d.at(p, (int)col - 1), tol) << "row " << row << " col " << col;
        }
    }
}

TEST(Laplacian, ColourImageMatchesBruteForceWithSkippedWindows) {
    const int H = 9, W = 8;
    TIFF_img img = make_image(H, W, 'c', 11);
    double **map = make_map(H, W, 0.0);
    for (int i = 0; i < 5; i++) // a fully constrained 5 x 4 corner: its inner windows are skipped
        for (int j = 0; j < 4; j++)
            map[i][j] = 1.0;
    map[7][6] = 1.0;
    QMatrix A = getLaplacian1(&img, map, 1, 1e-5);
    expect_matches(A, brute_force(img, map, 1, 1e-5), 1e-9);
    EXPECT_EQ(Q_GetLen(&A, 1), 0u); // pixel (0, 0) lies only in the skipped window at (1, 1)
    EXPECT_EQ(LASResult(), LAS_OK);
    Q_Destr(&A);
    free_img((void **)map);
    release(&img);
}

TEST(Laplacian, GreyImageLowerThanSpanCountsRepeatedOffsetsTwice) {
    // Height 6 <= 4r = 8: offsets such as +2 (two rows down) and -6 + 8 (one column right, six rows up
    // wrapped) name the same neighbour, and the diagonal adds its affinity once per naming.
    const int H = 6, W = 9;
    TIFF_img img = make_image(H, W, 'g', 5);
    double **map = make_map(H, W, 0.0);
    QMatrix A = getLaplacian1(&img, map, 2, 1e-6);
    const Dense d = brute_force(img, map, 2, 1e-6);
    expect_matches(A, d, 1e-8);
    // The double count makes the full rows no longer sum to zero.
    double worst = 0.0;
    for (int p = 0; p < d.N; p++) {
        double sum = 0.0;
        for (int q = 0; q < d.N; q++)
            sum += d.at(p, q);
        worst = std::fmax(worst, std::fabs(sum));
    }
    EXPECT_GT(worst, 1e-3);
    Q_Destr(&A);
    free_img((void **)map);
    release(&img);
}

TEST(Laplacian, RowsSumToZeroAndReadSymmetrically) {
    const int H = 12, W = 10;
    TIFF_img img = make_image(H, W, 'c', 3);
    double **map = make_map(H, W, 0.0);
    map[5][5] = 1.0;
    QMatrix A = getLaplacian1(&img, map, 1, 1e-7);
    const size_t N = Q_GetDim(&A);
    for (size_t p = 1; p <= N; p++) {
        double sum = 0.0, scale = 0.0;
        for (size_t q = 1; q <= N; q++) {
            const double v = Q_GetEl(&A, p, q);
            EXPECT_EQ(v, Q_GetEl(&A, q, p));
            sum += v;
            scale += std::fabs(v);
        }
        EXPECT_NEAR(sum, 0.0, 1e-12 * scale) << "row " << p;
        // Each window's affinities of a pixel sum to 1 and its own is at most 1, so a diagonal (the
        // affinities to the others) cannot be negative.
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

TEST(Laplacian, EpsilonBelowFloorActsAsFloor) {
    const int H = 7, W = 7;
    TIFF_img img = make_image(H, W, 'c', 21);
    double **map = make_map(H, W, 0.0);
    QMatrix A = getLaplacian1(&img, map, 1, 0.0);
    QMatrix B = getLaplacian1(&img, map, 1, 1e-7);
    for (size_t p = 1; p <= Q_GetDim(&A); p++) {
        ASSERT_EQ(Q_GetLen(&A, p), Q_GetLen(&B, p));
        for (size_t e = 0; e < Q_GetLen(&A, p); e++)
            EXPECT_EQ(Q_GetVal(&A, p, e), Q_GetVal(&B, p, e)); // bit for bit
    }
    Q_Destr(&A);
    Q_Destr(&B);
    free_img((void **)map);
    release(&img);
}

TIFF_img uniform_grey(int H, int W) {
    TIFF_img img;
    get_TIFF(&img, H, W, 'g');
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            img.mono[i][j] = 128;
    return img;
}

TEST(Laplacian, UniformColourGivesWindowCountsOverNine) {
    // With one colour the covariance is zero and every window adds exactly 1/9 to each of its pairs, so
    // an affinity is the number of windows holding both pixels, over 9. Values worked out by hand.
    TIFF_img img = uniform_grey(5, 5);
    double **map = make_map(5, 5, 0.0);
    QMatrix A = getLaplacian1(&img, map, 1, 1e-5);
    auto idx = [](int i, int j) { return (size_t)(i + j * 5 + 1); };
    EXPECT_NEAR(Q_GetEl(&A, idx(0, 0), idx(0, 0)), 8.0 / 9.0, 1e-14);  // one window, 8 partners
    EXPECT_NEAR(Q_GetEl(&A, idx(2, 2), idx(2, 2)), 72.0 / 9.0, 1e-13); // nine windows of 8 partners
    EXPECT_NEAR(Q_GetEl(&A, idx(2, 2), idx(2, 3)), -6.0 / 9.0, 1e-14); // six shared windows
    EXPECT_NEAR(Q_GetEl(&A, idx(0, 0), idx(2, 2)), -1.0 / 9.0, 1e-14); // only the window at (1, 1)
    EXPECT_EQ(Q_GetEl(&A, idx(0, 0), idx(3, 0)), 0.0);                 // no common window
    EXPECT_EQ(Q_GetLen(&A, idx(0, 0)), 9u); // itself, (1,0), (2,0), and the six pixels of columns 1, 2
    Q_Destr(&A);
    free_img((void **)map);
    free_TIFF(&img);

    // Height 3 <= 4r: pixel 0's partners 1, 2, 4 and 5 are each named by two offsets of the span
    // (for example +1 as one row down and as one column right, two rows up), so its diagonal counts
    // 13 namings of 1/9 (itself once) minus its own 1/9.
    img = uniform_grey(3, 3);
    map = make_map(3, 3, 0.0);
    A = getLaplacian1(&img, map, 1, 1e-5);
    EXPECT_NEAR(Q_GetEl(&A, 1, 1), 12.0 / 9.0, 1e-14);
    EXPECT_EQ(Q_GetLen(&A, 1), 9u);
    Q_Destr(&A);
    free_img((void **)map);
    free_TIFF(&img);
}

TEST(Laplacian, RadiusZeroKeepsOneElementWindows) {
    // The window loops run with radius 1, but each window lists only its first (top-left) pixel, whose
    // self-affinity is 1; the one-entry span offset list names no stored element, so the diagonal of a
    // top-left pixel is -1 and every other row stays empty.
    const int H = 5, W = 4;
    TIFF_img img = make_image(H, W, 'g', 2);
    double **map = make_map(H, W, 0.0);
    QMatrix A = getLaplacian1(&img, map, 0, 1e-5);
    for (int j = 0; j < W; j++)
        for (int i = 0; i < H; i++) {
            const size_t p = i + j * H + 1;
            if (i <= H - 3 && j <= W - 3) {
                ASSERT_EQ(Q_GetLen(&A, p), 1u);
                EXPECT_EQ(Q_GetVal(&A, p, 0), -1.0);
            } else {
                EXPECT_EQ(Q_GetLen(&A, p), 0u);
            }
        }
    Q_Destr(&A);
    free_img((void **)map);
    release(&img);
}

TEST(Laplacian, SizeEstimates) {
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
