// Foreground and background estimation: the least-squares solve against a dense solve of the same
// system built here element by element from the neighbour and weight rules, a synthetic composite with
// known F, B and alpha, and the two files with their clamping and failure exits.
#include "matting/fg_bg.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/matting/engine_fixtures.h"

namespace {

// A 'c' record and a matte from per-pixel functions.
struct Scene {
    TIFF_img image;
    double **alpha;
    template <typename Colour, typename Alpha> Scene(int width, int height, Colour colour, Alpha alpha_of) {
        get_TIFF(&image, height, width, 'c');
        alpha = make_map(height, width, 0.0);
        for (int y = 0; y < height; y++)
            for (int x = 0; x < width; x++) {
                alpha[y][x] = alpha_of(y, x);
                for (int c = 0; c < 3; c++)
                    image.color[c][y][x] = colour(c, y, x);
            }
    }
    ~Scene() {
        release(&image);
        free_img(reinterpret_cast<void **>(alpha));
    }
};

// The least-squares solution u (F then B) for one channel, from the normal equations of the
// estimation's rows built here densely: data rows wF and wB, the compositing row, and the smoothness
// rows: for every pixel k whose neighbour m in direction d (horizontal, vertical, diagonal,
// anti-diagonal) exists, when either is uncertain, w (u_k - u_m) with w from the alpha difference.
std::vector<double> dense_estimate(const Scene &s, int c, int width, int height) {
    const size_t n = width * height;
    std::vector<double> alpha(n), ata(4 * n * n, 0.0), atb(2 * n, 0.0), row(2 * n);
    for (size_t k = 0; k < n; k++)
        alpha[k] = s.alpha[k % height][k / height];
    auto add_row = [&](double rhs) {
        for (size_t i = 0; i < 2 * n; i++) {
            atb[i] += row[i] * rhs;
            for (size_t j = 0; j < 2 * n; j++)
                ata[i * 2 * n + j] += row[i] * row[j];
        }
        std::fill(row.begin(), row.end(), 0.0);
    };
    for (size_t k = 0; k < n; k++) {
        const double a = alpha[k], i = s.image.color[c][k % height][k / height] / 255.0;
        const double wf = a > 0.98 ? 100 + 0.03 * a : a > 0.7 ? 0.03 * a : a < 0.02 ? 0.01 : 0;
        const double wb = a > 0.98 ? 0.01 : a < 0.02 ? 100 + 0.03 * (1 - a) : a < 0.3 ? 0.03 * (1 - a) : 0;
        row[k] = wf;
        add_row(a > 0.02 ? wf * i : 0);
        row[n + k] = wb;
        add_row(a < 0.98 ? wb * i : 0);
        row[k] = a;
        row[n + k] = 1 - a;
        add_row(i);
    }
    const int dx[4] = {1, 0, 1, 1}, dy[4] = {0, 1, 1, -1};
    auto uncertain = [&](size_t k) { return alpha[k] >= 0.02 && alpha[k] <= 0.98; };
    for (int d = 0; d < 4; d++)
        for (int x = 0; x < width; x++)
            for (int y = 0; y < height; y++) {
                const size_t k = x * height + y, m = (x + dx[d]) * height + y + dy[d];
                if (x + dx[d] >= width || y + dy[d] < 0 || y + dy[d] >= height ||
                    !(uncertain(k) || uncertain(m)))
                    continue;
                for (int part = 0; part < 2; part++) { // F with weight factor 1 - alpha, then B with alpha
                    const double w =
                        std::sqrt(std::fabs(alpha[k] - alpha[m])) + 0.003 * (part ? alpha[k] : 1 - alpha[k]);
                    row[part * n + k] = w;
                    row[part * n + m] = -w;
                    add_row(0.0);
                }
            }
    return dense_solve(ata, atb);
}

// Alpha values that reach every branch of the data weights, the mask bounds 0.02 and 0.98 exactly,
// and 0.5, which has neither data weight; images of one column and of one row, which have pairs in one
// direction only.
TEST(FgBgEstimate, MatchesADenseSolveOfTheSameLeastSquaresSystem) {
    const struct {
        int width, height;
        std::vector<double> alpha; // by rows
    } cases[] = {{3, 4, {0.0, 0.01, 0.02, 0.2, 0.3, 0.5, 0.7, 0.8, 0.98, 0.99, 1.0, 0.4}},
                 {1, 4, {0.1, 0.5, 0.6, 1.0}},
                 {4, 1, {0.0, 0.45, 0.5, 0.9}}};
    for (const auto &t : cases) {
        Scene s(
            t.width, t.height, [](int c, int y, int x) { return uint8_t(40 + 50 * c + 13 * y + 29 * x); },
            [&](int y, int x) { return t.alpha[y * t.width + x]; });
        FBEstimate estimate;
        ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
        const int n = t.width * t.height;
        for (int c = 0; c < 3; c++) {
            const std::vector<double> u = dense_estimate(s, c, t.width, t.height);
            for (int k = 0; k < n; k++) {
                EXPECT_NEAR(estimate.fg[c][k % t.height][k / t.height], u[k], 1e-7)
                    << t.width << " F " << c << " " << k;
                EXPECT_NEAR(estimate.bg[c][k % t.height][k / t.height], u[n + k], 1e-7)
                    << t.width << " B " << c << " " << k;
            }
        }
        freeFBEstimate(&estimate);
    }
}

// Smooth known colours blended by a soft vertical edge: alpha 1 on the left, 0 on the right, a ramp
// between. Where alpha is high the estimated F is the true F, where it is low B is the true B, and
// everywhere the blend of the estimates reproduces the image.
TEST(FgBgEstimate, RecoversKnownColoursOfASyntheticComposite) {
    auto true_f = [](int c, int y, int x) { return (c ? c == 1 ? 0.55 : 0.15 : 0.85) + 0.002 * (y - x); };
    auto true_b = [](int c, int y, int x) { return (c ? c == 1 ? 0.35 : 0.80 : 0.10) + 0.002 * (x + y); };
    auto alpha_of = [](int, int x) { return std::clamp((28.0 - x) / 16.0, 0.0, 1.0); };
    Scene s(
        40, 30,
        [&](int c, int y, int x) {
            const double a = alpha_of(y, x);
            return uint8_t(std::lround(255 * (a * true_f(c, y, x) + (1 - a) * true_b(c, y, x))));
        },
        alpha_of);
    FBEstimate estimate;
    ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
    double worst_f = 0, worst_b = 0, worst_blend = 0;
    for (int c = 0; c < 3; c++)
        for (int y = 0; y < 30; y++)
            for (int x = 0; x < 40; x++) {
                const double a = s.alpha[y][x], f = estimate.fg[c][y][x], b = estimate.bg[c][y][x];
                if (a >= 0.7) worst_f = std::max(worst_f, std::fabs(f - true_f(c, y, x)));
                if (a <= 0.3) worst_b = std::max(worst_b, std::fabs(b - true_b(c, y, x)));
                worst_blend =
                    std::max(worst_blend, std::fabs(a * f + (1 - a) * b - s.image.color[c][y][x] / 255.0));
            }
    EXPECT_LT(worst_f, 0.02);
    EXPECT_LT(worst_b, 0.02);
    EXPECT_LT(worst_blend, 0.01);
    freeFBEstimate(&estimate);
}

TIFF_img read_file(const char *path) {
    TIFF_img image{};
    FILE *fp = fopen(path, "rb");
    EXPECT_TRUE(fp && read_TIFF(fp, &image) == 0) << path;
    if (fp) fclose(fp);
    return image;
}

using FgBgFiles = InTempDir;

// The files hold 255*F*alpha and 255*B*(1-alpha), truncated and clamped: the premultiplied colours.
// Upsampling can push alpha past 0..1: at 1.2 F is pinned to the image, so bright pixels pass 255,
// and at -0.2 the foreground term is negative. A grey image gives grey files; at alpha 1 nothing is
// uncertain and F is pinned to the image with weight 100.03.
TEST_F(FgBgFiles, SolveFBWritesPremultipliedColoursClampedToBytes) {
    Scene s(
        12, 9, [](int c, int y, int x) { return uint8_t(20 + 70 * c + 5 * y + 3 * x); },
        [](int, int x) { return std::clamp((9.0 - x) / 6.0, -0.2, 1.2); });
    FBEstimate estimate;
    ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
    EXPECT_EQ(solveFB(&s.image, s.alpha), 0);
    TIFF_img fg = read_file("a_foreground.tif"), bg = read_file("a_background.tif");
    ASSERT_TRUE(fg.TIFF_type == 'c' && bg.TIFF_type == 'c' && fg.height == 9 && fg.width == 12);
    int clamped[2] = {0, 0}; // values past 255, values below 0
    auto byte = [&](double v) { return v >= 255 ? (clamped[0]++, 255) : v < 0 ? (clamped[1]++, 0) : int(v); };
    for (int c = 0; c < 3; c++)
        for (int y = 0; y < 9; y++)
            for (int x = 0; x < 12; x++) {
                EXPECT_EQ(fg.color[c][y][x], byte(255 * estimate.fg[c][y][x] * s.alpha[y][x]))
                    << y << "," << x;
                EXPECT_EQ(bg.color[c][y][x], byte(255 * estimate.bg[c][y][x] * (1 - s.alpha[y][x])))
                    << y << "," << x;
            }
    EXPECT_GT(clamped[0], 0);
    EXPECT_GT(clamped[1], 0);
    release(&fg);
    release(&bg);
    freeFBEstimate(&estimate);

    TIFF_img grey = make_image(3, 4, 'g', 5);
    double **alpha = make_map(3, 4, 1.0);
    EXPECT_EQ(solveFB(&grey, alpha), 0);
    fg = read_file("a_foreground.tif");
    ASSERT_EQ(fg.TIFF_type, 'g');
    for (int k = 0; k < 12; k++)
        EXPECT_NEAR(fg.mono[k / 4][k % 4], grey.mono[k / 4][k % 4], 1) << k;
    free_TIFF(&fg);
    free_TIFF(&grey);
    free_img(reinterpret_cast<void **>(alpha));
}

// A folder in the way of a file makes it impossible to open; /dev/full accepts the open and then
// fails the first write that reaches it.
TEST_F(FgBgFiles, FailingFilesEndTheProcessWithTheirMessages) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Scene s(
        30, 30, [](int c, int y, int x) { return uint8_t(c * 80 + y + x); },
        [](int, int x) { return x / 29.0; });
    ASSERT_EQ(mkdir("a_foreground.tif", 0700), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "^cannot open file a_foreground.tif\n$");
    ASSERT_EQ(rmdir("a_foreground.tif"), 0);
    ASSERT_EQ(symlink("/dev/full", "a_background.tif"), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "\nerror writing TIFF file background.tiff\n$");
}

} // namespace
