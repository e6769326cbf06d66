// The coarse-to-fine driver: pyramid sizes and filter values worked out by hand, the erosion, the
// levels and active-levels rules, the trimap constraints rebuilt from the public steps, and mattes of
// synthetic composites with a known alpha.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "matting/upsample.h"
#include "tests/matting/engine_fixtures.h"

namespace {

TEST(CoarseToFine, PyramidSidesHalveRoundingUp) {
    for (char type : {'c', 'a', 'g'}) {
        TIFF_img img;
        get_TIFF(&img, 101, 100, type);
        TIFF_img small = downSmpIm(&img, 2);
        EXPECT_EQ(small.height, 49);
        EXPECT_EQ(small.width, 48);
        EXPECT_EQ(small.TIFF_type, type == 'g' ? 'g' : 'c');
        release(&small);
        small = downSmpIm(&img, 1); // (side - 2) / 2 rounded up
        EXPECT_EQ(small.height, 50);
        EXPECT_EQ(small.width, 49);
        release(&small);
        release(&img);
    }
    double **a = make_map(101, 100, 0.0);
    double **b = downSmpArr(a, 101, 100, 2);
    double **c = downSmpArr(a, 100, 101, 2);
    // The last row and column of each coarse array exist (writing them must stay inside the blocks).
    b[48][47] = 1.0;
    c[47][48] = 1.0;
    free_img((void **)b);
    free_img((void **)c);
    free_img((void **)a);
}

TEST(CoarseToFine, DownsampledImageIsTheBinomialFilterTruncated) {
    // A linear ramp survives the symmetric kernel exactly: input 10 x + 3 y sampled at (2 + 2p, 2 + 2q).
    TIFF_img img;
    get_TIFF(&img, 9, 11, 'g');
    for (int y = 0; y < 9; y++)
        for (int x = 0; x < 11; x++)
            img.mono[y][x] = (uint8_t)(10 * x + 3 * y);
    TIFF_img small = downSmpIm(&img, 2);
    ASSERT_EQ(small.height, 3);
    ASSERT_EQ(small.width, 4);
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 4; q++)
            EXPECT_EQ(small.mono[p][q], 10 * (2 + 2 * q) + 3 * (2 + 2 * p)) << p << "," << q;
    release(&small);
    release(&img);

    // An impulse of 255 in the green plane at (4, 4): 255 * 0.375^2 = 35.86 at its own sample,
    // 255 * 0.375 * 0.0625 = 5.98 two rows away, 255 * 0.0625^2 = 0.996 diagonally: below 1, so 0.
    get_TIFF(&img, 9, 9, 'c');
    for (int ch = 0; ch < 3; ch++)
        memset(img.color[ch][0], 0, 81);
    img.color[1][4][4] = 255;
    small = downSmpIm(&img, 2);
    ASSERT_EQ(small.height, 3);
    EXPECT_EQ(small.color[1][1][1], 35);
    EXPECT_EQ(small.color[1][0][1], 5);
    EXPECT_EQ(small.color[1][1][2], 5);
    EXPECT_EQ(small.color[1][0][0], 0);
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++) {
            EXPECT_EQ(small.color[0][p][q], 0);
            EXPECT_EQ(small.color[2][p][q], 0);
        }
    release(&small);
    release(&img);
}

TEST(CoarseToFine, DownsampledArrayIsBinarisedAtOneHalf) {
    // On a 5 x 5 array the single output sees the whole kernel. Columns 1 and 3 set: weight
    // 0.25 + 0.25 = 0.5, which is not below 0.5, so 1. Column 1 alone: 0.25, so 0.
    double **a = make_map(5, 5, 0.0);
    for (int y = 0; y < 5; y++)
        a[y][1] = a[y][3] = 1.0;
    double **b = downSmpArr(a, 5, 5, 2);
    EXPECT_EQ(b[0][0], 1.0);
    free_img((void **)b);
    for (int y = 0; y < 5; y++)
        a[y][3] = 0.0;
    b = downSmpArr(a, 5, 5, 2);
    EXPECT_EQ(b[0][0], 0.0);
    free_img((void **)b);
    // f = 1 on a 3 x 3 array: the centre alone weighs 0.25.
    double **c = make_map(3, 3, 0.0);
    c[1][1] = 1.0;
    b = downSmpArr(c, 3, 3, 1);
    EXPECT_EQ(b[0][0], 0.0);
    free_img((void **)b);
    free_img((void **)c);
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
    double **e = imerode(a, 5, 4, 1);
    double **same = imerode(a, 5, 4, 0);
    double **all = imerode(a, 5, 4, 7);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 5; j++) {
            EXPECT_EQ(e[i][j], r1[i][j]) << i << "," << j;
            EXPECT_EQ(same[i][j], in[i][j]);
            EXPECT_EQ(all[i][j], 2.0);
        }
    free_img((void **)e);
    free_img((void **)same);
    free_img((void **)all);
    free_img((void **)a);
}

// A composite with a known alpha: a textured foreground disk with a soft edge over a textured
// background, and a trimap-like constraint set: everything except a band around the edge.
struct Composite {
    int H, W;
    TIFF_img image;
    std::vector<double> truth;
    double **map, **values;
};

Composite make_composite(int H, int W, double band) {
    Composite c{H, W, {}, std::vector<double>((size_t)H * W), make_map(H, W, 0.0), make_map(H, W, 0.0)};
    get_TIFF(&c.image, H, W, 'c');
    const double cy = H / 2.0, cx = W / 2.0, R = 0.3 * std::min(H, W);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double d = std::hypot(i - cy, j - cx);
            const double a = std::clamp((R - d) / 4.0 + 0.5, 0.0, 1.0);
            c.truth[(size_t)i * W + j] = a;
            const double fg[3] = {220 - 0.5 * i, 150 + 0.4 * j, 40};
            const double bg[3] = {30 + 0.6 * j, 60, 200 - 0.5 * i};
            for (int ch = 0; ch < 3; ch++)
                c.image.color[ch][i][j] = (uint8_t)std::lround(a * fg[ch] + (1 - a) * bg[ch]);
            if (std::fabs(d - R) > band) {
                c.map[i][j] = 1.0;
                c.values[i][j] = d < R ? 1.0 : 0.0;
            }
        }
    return c;
}

void release(Composite *c) {
    release(&c->image);
    free_img((void **)c->map);
    free_img((void **)c->values);
}

double mse(const Composite &c, double **alpha) {
    double sum = 0;
    for (int i = 0; i < c.H; i++)
        for (int j = 0; j < c.W; j++) {
            const double e = std::clamp(alpha[i][j], 0.0, 1.0) - c.truth[(size_t)i * c.W + j];
            sum += e * e;
        }
    return sum / (c.H * c.W);
}

bool same_array(double **a, double **b, int H, int W) {
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            if (!(a[i][j] == b[i][j])) return false;
    return true;
}

TEST(CoarseToFine, OneLevelIsOneSolve) {
    Composite c = make_composite(24, 26, 4);
    double **map = make_map(c.H, c.W, 0), **values = make_map(c.H, c.W, 0);
    for (int i = 0; i < c.H; i++)
        for (int j = 0; j < c.W; j++) {
            map[i][j] = c.map[i][j];
            values[i][j] = c.values[i][j];
        }
    int direct_status = -9, status = -3;
    double **direct = solveAlpha(&c.image, map, values, 1, &direct_status, 1e-6);
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, 1, 1, 1, &status, 0.02, 1e-6);
    EXPECT_TRUE(same_array(direct, alpha, c.H, c.W));
    EXPECT_EQ(status, direct_status);
    EXPECT_TRUE(same_array(map, c.map, c.H, c.W)); // one level adds no constraint
    free_img((void **)direct);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
    release(&c);
}

// Runs the driver on a fresh copy of the composite's constraints.
double **run_driver(int levels, int active, double threshold, int *status, double ***map_out = nullptr,
                    double ***values_out = nullptr) {
    Composite c = make_composite(40, 44, 3);
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, levels, active, 1, status, threshold, 1e-6);
    if (map_out) {
        *map_out = c.map;
        *values_out = c.values;
        release(&c.image);
    } else {
        release(&c);
    }
    return alpha;
}

TEST(CoarseToFine, ActiveLevelsBelowOneActAsOneAndAboveLevelsSolveAll) {
    int s1 = -3, s0 = -3, sneg = -3, s2 = -3, s5 = -3;
    double **one = run_driver(2, 1, 0.02, &s1), **zero = run_driver(2, 0, 0.02, &s0);
    double **neg = run_driver(2, -4, 0.02, &sneg);
    double **two = run_driver(2, 2, 0.02, &s2), **five = run_driver(2, 5, 0.02, &s5);
    EXPECT_TRUE(same_array(one, zero, 40, 44));
    EXPECT_TRUE(same_array(one, neg, 40, 44));
    EXPECT_TRUE(same_array(two, five, 40, 44));
    EXPECT_FALSE(same_array(one, two, 40, 44)); // the fine level is solved only when active
    bool outside = false;                       // an upsampled-only matte is not clamped
    for (int i = 0; i < 40; i++)
        for (int j = 0; j < 44; j++) {
            outside = outside || one[i][j] < 0.0 || one[i][j] > 1.0;
            EXPECT_GE(two[i][j], 0.0);
            EXPECT_LE(two[i][j], 1.0);
        }
    EXPECT_TRUE(outside);
    EXPECT_EQ(s1, 0);
    EXPECT_EQ(s2, 0);
    for (double **a : {one, zero, neg, two, five})
        free_img((void **)a);
}

TEST(CoarseToFine, ThresholdBelowFloorActsAsFloor) {
    int s = -3;
    double **map_a, **val_a, **map_b, **val_b, **map_c, **val_c;
    double **a = run_driver(2, 2, 0.0, &s, &map_a, &val_a);
    double **b = run_driver(2, 2, 0.02, &s, &map_b, &val_b);
    double **c = run_driver(2, 2, 0.3, &s, &map_c, &val_c);
    EXPECT_TRUE(same_array(a, b, 40, 44));
    EXPECT_TRUE(same_array(map_a, map_b, 40, 44));
    EXPECT_TRUE(same_array(val_a, val_b, 40, 44));
    EXPECT_FALSE(same_array(map_a, map_c, 40, 44)); // a wider threshold constrains more pixels
    for (double **x : {a, b, c, map_a, val_a, map_b, val_b, map_c, val_c})
        free_img((void **)x);
}

TEST(CoarseToFine, FineConstraintsComeFromTheErodedUpsampledTrimap) {
    // Two levels, the coarse one solved: rebuild the driver's steps from the public routines and the
    // mask rules, with a brute-force 3 x 3 erosion, and compare the resulting constraints.
    const int H = 40, W = 44;
    Composite c = make_composite(H, W, 3);
    for (int j = 10; j < 34; j++) { // a one-pixel background line inside the disk, lost when down-sampled
        c.map[20][j] = 1.0;
        c.values[20][j] = 0.0;
    }
    std::vector<double> map0, values0;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            map0.push_back(c.map[i][j]);
            values0.push_back(c.values[i][j]);
        }
    TIFF_img coarse = downSmpIm(&c.image, 2);
    double **cmap = downSmpArr(c.map, H, W, 2), **cval = downSmpArr(c.values, H, W, 2);
    int status = -3;
    double **calpha = solveAlpha(&coarse, cmap, cval, 1, &status, 1e-6);
    double **up = upSampleAlphaUsingImg(calpha, &coarse, &c.image, 1, 1e-6);

    const double th = 0.05;
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, 2, 1, 1, &status, th, 1e-6);
    EXPECT_TRUE(same_array(alpha, up, H, W));
    auto fg = [&](int i, int j) { return up[i][j] > 1 - th; };
    auto bg = [&](int i, int j) { return !(up[i][j] > 1 - th) && up[i][j] < th; };
    int added = 0;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            bool all_fg = true, all_bg = true;
            for (int y = std::max(0, i - 1); y <= std::min(H - 1, i + 1); y++)
                for (int x = std::max(0, j - 1); x <= std::min(W - 1, j + 1); x++) {
                    all_fg = all_fg && fg(y, x);
                    all_bg = all_bg && bg(y, x);
                }
            const double m0 = map0[(size_t)i * W + j], v0 = values0[(size_t)i * W + j];
            const double m = (all_fg || all_bg) ? 1.0 : m0;
            const bool target = v0 + up[i][j] * (1 - m0) >= 0.5;
            const double v = (m == 1.0 && target) ? 1.0 : v0;
            EXPECT_EQ(c.map[i][j], m) << i << "," << j;
            EXPECT_EQ(c.values[i][j], v) << i << "," << j;
            added += m != m0;
        }
    EXPECT_GT(added, 0);
    EXPECT_EQ(c.values[20][22], 0.0); // inside the opaque disk, but constrained to 0: kept
    EXPECT_EQ(c.map[20][22], 1.0);
    for (double **x : {cmap, cval, calpha, up, alpha})
        free_img((void **)x);
    release(&coarse);
    release(&c);
}

TEST(CoarseToFine, MatteOfAKnownCompositeIsAccurate) {
    // The scene is a blend of smooth colours, which the local linear model captures closely: measured
    // MSE 3e-6 for one level, 1e-5 and 1e-6 for three levels with one or all solved. The bounds leave
    // room for rounding and ordering differences, not for a wrong matte (a hard edge in place of the
    // soft one would give about 9e-3).
    Composite c = make_composite(64, 72, 6);
    int status = -3;
    double **alpha = solveAlphaC2F(&c.image, c.map, c.values, 1, 1, 1, &status, 0.02, 1e-7);
    EXPECT_EQ(status, 0);
    EXPECT_LT(mse(c, alpha), 2e-5);
    free_img((void **)alpha);
    release(&c);

    for (int active : {1, 3}) {
        c = make_composite(96, 104, 6);
        status = -3;
        alpha = solveAlphaC2F(&c.image, c.map, c.values, 3, active, 1, &status, 0.02, 1e-7);
        EXPECT_EQ(status, 0);
        EXPECT_LT(mse(c, alpha), 1e-4) << "active levels " << active;
        free_img((void **)alpha);
        release(&c);
    }
}

} // namespace
