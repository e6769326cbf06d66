// The coarse-to-fine driver: pyramid sizes and filter values worked out by hand, the erosion, the
// levels and threshold rules, the trimap constraints rebuilt from the public steps, and mattes of
// synthetic composites with a known alpha.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "matting/upsample.h"
#include "tests/matting/engine_fixtures.h"

namespace {

TEST(CoarseToFine, PyramidSidesHalveRoundingUpThroughTheBinomialFilterAndArraysAreBinarised) {
    for (char type : {'c', 'a', 'g'}) {
        TIFF_img img, small;
        get_TIFF(&img, 101, 100, type);
        small = downSmpIm(&img, 2);
        EXPECT_EQ(small.height, 49);
        EXPECT_EQ(small.width, 48);
        EXPECT_EQ(small.TIFF_type, type == 'g' ? 'g' : 'c');
        release(&small);
        release(&img);
    }
    // Red, a linear ramp 10 x + 3 y, survives the symmetric kernel exactly at (2 + 2p, 2 + 2q). Green,
    // an impulse of 255 at (4, 4): 255 * 0.375^2 = 35.86 at its own sample, 255 * 0.375 * 0.0625 = 5.98
    // two pixels away, 255 * 0.0625^2 = 0.996 diagonally: below 1, so 0.
    TIFF_img img = make_image(9, 11, 'c', 2);
    for (int y = 0; y < 9; y++)
        for (int x = 0; x < 11; x++) {
            img.color[0][y][x] = (uint8_t)(10 * x + 3 * y);
            img.color[1][y][x] = y == 4 && x == 4 ? 255 : 0;
            img.color[2][y][x] = 0;
        }
    TIFF_img small = downSmpIm(&img, 2);
    ASSERT_EQ(small.height, 3);
    ASSERT_EQ(small.width, 4);
    const int green[3][4] = {{0, 5, 0, 0}, {5, 35, 5, 0}, {0, 5, 0, 0}};
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 4; q++) {
            EXPECT_EQ(small.color[0][p][q], 10 * (2 + 2 * q) + 3 * (2 + 2 * p)) << p << "," << q;
            EXPECT_EQ(small.color[1][p][q], green[p][q]) << p << "," << q;
            EXPECT_EQ(small.color[2][p][q], 0);
        }
    release(&small);
    release(&img);

    // Arrays are binarised: a 5 x 5 array's single output sees the whole kernel; columns 1 and 3
    // weigh 0.25 + 0.25 = 0.5, not below 0.5, so 1; column 1 alone weighs 0.25, so 0.
    double **a = make_map(5, 5, 0.0);
    for (double third : {1.0, 0.0}) {
        for (int y = 0; y < 5; y++)
            a[y][1] = 1.0, a[y][3] = third;
        double **b = downSmpArr(a, 5, 5, 2);
        EXPECT_EQ(b[0][0], third);
        free_img((void **)b);
    }
    free_img((void **)a);
}

TEST(CoarseToFineDeathTest, DownsamplingFilterAboveTwoEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TIFF_img img = make_image(20, 20, 'g', 1);
    EXPECT_EXIT(downSmpIm(&img, 3), testing::ExitedWithCode(255),
                "^\nNo filter matrix set for dimensions over 5x5 i.e. > than filts 2!$");
    release(&img);
}

TEST(CoarseToFine, ErosionTakesTheClippedNeighbourhoodMinimum) {
    const double in[4][5] = {{5, 4, 9, 9, 9}, {9, 9, 9, 9, 9}, {9, 9, 9, 2, 9}, {9, 9, 9, 9, 7}};
    const double r1[4][5] = {{4, 4, 4, 9, 9}, {4, 4, 2, 2, 2}, {9, 9, 2, 2, 2}, {9, 9, 2, 2, 2}};
    double **a = make_map(4, 5, 0.0);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 5; j++)
            a[i][j] = in[i][j];
    double **e = imerode(a, 5, 4, 1), **same = imerode(a, 5, 4, 0), **all = imerode(a, 5, 4, 7);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 5; j++) {
            EXPECT_EQ(e[i][j], r1[i][j]) << i << "," << j;
            EXPECT_EQ(same[i][j], in[i][j]);
            EXPECT_EQ(all[i][j], 2.0);
        }
    free_maps({a, e, same, all});
}

// A composite with a known alpha: a foreground disk with a soft edge over a background, both smooth
// colour gradients, and a trimap-like constraint set: everything except a band around the edge.
struct Composite {
    int H, W;
    TIFF_img image;
    std::vector<double> truth;
    double **map, **values;
    Composite(int H_, int W_, double band)
        : H(H_), W(W_), truth((size_t)H * W), map(make_map(H, W, 0.0)), values(make_map(H, W, 0.0)) {
        get_TIFF(&image, H, W, 'c');
        const double cy = H / 2.0, cx = W / 2.0, R = 0.3 * std::min(H, W);
        for (int i = 0; i < H; i++)
            for (int j = 0; j < W; j++) {
                const double d = std::hypot(i - cy, j - cx), a = std::clamp((R - d) / 4.0 + 0.5, 0.0, 1.0);
                truth[(size_t)i * W + j] = a;
                const double fg[3] = {220 - 0.5 * i, 150 + 0.4 * j, 40},
                             bg[3] = {30 + 0.6 * j, 60, 200 - 0.5 * i};
                for (int ch = 0; ch < 3; ch++)
                    image.color[ch][i][j] = (uint8_t)std::lround(a * fg[ch] + (1 - a) * bg[ch]);
                if (std::fabs(d - R) > band) {
                    map[i][j] = 1.0;
                    values[i][j] = d < R ? 1.0 : 0.0;
                }
            }
    }
    Composite(const Composite &) = delete;
    ~Composite() {
        release(&image);
        free_maps({map, values});
    }
};

std::vector<double> flat(double **a, int H, int W) {
    return std::vector<double>(a[0], a[0] + H * W);
}

// The driver's matte and the constraints it leaves, on a fresh 40 x 44 composite.
struct DriverRun {
    std::vector<double> alpha, map;
    int status = -3;
};

DriverRun run(int levels, int active, double threshold) {
    Composite c(40, 44, 3);
    DriverRun r;
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, levels, active, 1, &r.status, threshold, 1e-6);
    r.alpha = flat(alpha, 40, 44);
    r.map = flat(c.map, 40, 44);
    free_img((void **)alpha);
    return r;
}

TEST(CoarseToFine, LevelsActiveLevelsAndThresholdRules) {
    // One level is one solve and adds no constraint.
    Composite c(40, 44, 3);
    int status = -3;
    double **direct = solveAlpha(&c.image, c.map, c.values, 1, &status, 1e-6);
    const DriverRun single = run(1, 1, 0.02);
    EXPECT_EQ(single.alpha, flat(direct, 40, 44));
    EXPECT_EQ(single.map, flat(c.map, 40, 44));
    EXPECT_EQ(single.status, status);
    free_img((void **)direct);

    // Active levels below 1 act as 1, above the levels solve all; only solved levels are clamped.
    const DriverRun one = run(2, 1, 0.02), two = run(2, 2, 0.02);
    EXPECT_EQ(run(2, 0, 0.02).alpha, one.alpha);
    EXPECT_EQ(run(2, -4, 0.02).alpha, one.alpha);
    EXPECT_EQ(run(2, 5, 0.02).alpha, two.alpha);
    EXPECT_NE(one.alpha, two.alpha);
    EXPECT_TRUE(std::any_of(one.alpha.begin(), one.alpha.end(), [](double a) { return a < 0 || a > 1; }));
    EXPECT_TRUE(std::all_of(two.alpha.begin(), two.alpha.end(), [](double a) { return a >= 0 && a <= 1; }));
    EXPECT_EQ(one.status, 0);
    EXPECT_EQ(two.status, 0);

    // A threshold below 0.02 acts as 0.02; a wider one constrains more pixels.
    const DriverRun zero = run(2, 2, 0.0);
    EXPECT_EQ(zero.alpha, two.alpha);
    EXPECT_EQ(zero.map, two.map);
    EXPECT_NE(run(2, 2, 0.3).map, two.map);
}

TEST(CoarseToFine, FineConstraintsComeFromTheErodedUpsampledTrimap) {
    // Two levels, the coarse one solved: rebuild the driver's steps from the public routines and the
    // mask rules, with a brute-force 3 x 3 erosion, and compare the resulting constraints.
    const int H = 40, W = 44;
    Composite c(H, W, 3);
    for (int j = 10; j < 34; j++) // a background line inside the disk: lost when down-sampled, kept here
        c.map[20][j] = 1.0, c.values[20][j] = 0.0;
    const std::vector<double> map0 = flat(c.map, H, W), values0 = flat(c.values, H, W);
    TIFF_img coarse = downSmpIm(&c.image, 2);
    double **cmap = downSmpArr(c.map, H, W, 2), **cval = downSmpArr(c.values, H, W, 2);
    int status = -3;
    double **calpha = solveAlpha(&coarse, cmap, cval, 1, &status, 1e-6);
    double **up = upSampleAlphaUsingImg(calpha, &coarse, &c.image, 1, 1e-6);

    const double th = 0.05;
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, 2, 1, 1, &status, th, 1e-6);
    EXPECT_EQ(flat(alpha, H, W), flat(up, H, W));
    int added = 0;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            bool all_fg = true, all_bg = true;
            for (int y = std::max(0, i - 1); y <= std::min(H - 1, i + 1); y++)
                for (int x = std::max(0, j - 1); x <= std::min(W - 1, j + 1); x++) {
                    all_fg = all_fg && up[y][x] > 1 - th;
                    all_bg = all_bg && !(up[y][x] > 1 - th) && up[y][x] < th;
                }
            const double m0 = map0[(size_t)i * W + j], v0 = values0[(size_t)i * W + j];
            const double m = (all_fg || all_bg) ? 1.0 : m0;
            const bool target = v0 + up[i][j] * (1 - m0) >= 0.5;
            EXPECT_EQ(c.map[i][j], m) << i << "," << j;
            EXPECT_EQ(c.values[i][j], (m == 1.0 && target) ? 1.0 : v0) << i << "," << j;
            added += m != m0;
        }
    EXPECT_GT(added, 0);
    free_maps({cmap, cval, calpha, up, alpha});
    release(&coarse);
}

TEST(CoarseToFine, MatteOfAKnownCompositeIsAccurate) {
    // The scene blends smooth colours, which the local linear model captures closely: measured MSE 3e-6
    // for one level, 1e-5 and 1e-6 for three levels with one or all solved. A hard edge in place of the
    // soft one would give about 9e-3.
    for (auto [H, W, levels, active, bound] :
         {std::tuple{64, 72, 1, 1, 2e-5}, std::tuple{96, 104, 3, 1, 1e-4}, std::tuple{96, 104, 3, 3, 1e-4}}) {
        Composite c(H, W, 6);
        int status = -3;
        double **alpha = solveAlphaC2F(&c.image, c.map, c.values, levels, active, 1, &status, 0.02, 1e-7);
        EXPECT_EQ(status, 0);
        double sum = 0;
        for (int i = 0; i < H; i++)
            for (int j = 0; j < W; j++)
                sum += std::pow(std::clamp(alpha[i][j], 0.0, 1.0) - c.truth[(size_t)i * W + j], 2);
        EXPECT_LT(sum / (H * W), bound) << levels << " levels, " << active << " active";
        free_img((void **)alpha);
    }
}

} // namespace
