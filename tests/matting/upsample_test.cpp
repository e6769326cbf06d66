// Upsampling by local linear coefficients: exact recovery where alpha is linear in colour, the
// interpolation's placement and weights worked out by hand, and the degenerate cases.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "matting/upsample.h"
#include "tests/matting/engine_fixtures.h"

namespace {

const double A3[3] = {0.3, -0.5, 0.8}, B3 = 0.1; // alpha = A3 . colour / 255 + B3

double linear_alpha(const TIFF_img &img, int i, int j) {
    double a = B3;
    for (int ch = 0; ch < 3; ch++)
        a += A3[ch] * img.color[ch][i][j] / 255.0;
    return a;
}

double **linear_alpha_of(const TIFF_img &img) {
    double **alpha = make_map(img.height, img.width, 0.0);
    for (int i = 0; i < img.height; i++)
        for (int j = 0; j < img.width; j++)
            alpha[i][j] = linear_alpha(img, i, j);
    return alpha;
}

TEST(Upsample, LinearCoefficientsRecoveredExactlyWithoutRegularisation) {
    const int H = 9, W = 11;
    TIFF_img img = make_image(H, W, 'c', 77);
    double **alpha = linear_alpha_of(img);
    double ***coeff = getLinearCoeff(alpha, &img, 1, 0.0);
    for (int i = 0; i < H; i++) // borders copied from the nearest fit hold the same values
        for (int j = 0; j < W; j++) {
            for (int ch = 0; ch < 3; ch++)
                EXPECT_NEAR(coeff[i][j][ch], A3[ch], 1e-9) << i << "," << j;
            EXPECT_NEAR(coeff[i][j][3], B3, 1e-9) << i << "," << j;
        }
    multifree(coeff, 3);

    // A small epsilon shrinks the colour coefficients only slightly; grey images fit one slope.
    coeff = getLinearCoeff(alpha, &img, 2, 1e-7);
    EXPECT_NEAR(coeff[4][5][0], A3[0], 1e-3);
    multifree(coeff, 3);
    free_img((void **)alpha);
    release(&img);

    TIFF_img grey = make_image(7, 6, 'g', 5);
    alpha = make_map(7, 6, 0.0);
    for (int i = 0; i < 7; i++)
        for (int j = 0; j < 6; j++)
            alpha[i][j] = 0.7 - 0.4 * grey.mono[i][j] / 255.0;
    coeff = getLinearCoeff(alpha, &grey, 1, 0.0);
    for (int i = 0; i < 7; i++)
        for (int j = 0; j < 6; j++) {
            EXPECT_NEAR(coeff[i][j][0], -0.4, 1e-9);
            EXPECT_NEAR(coeff[i][j][1], 0.7, 1e-9);
        }
    multifree(coeff, 3);
    free_img((void **)alpha);
    release(&grey);
}

TEST(UpsampleDeathTest, UniformWindowWithoutRegularisationIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TIFF_img img;
    get_TIFF(&img, 5, 5, 'g');
    memset(img.mono[0], 255, 25); // colour 1.0 and the constant column coincide exactly
    double **alpha = make_map(5, 5, 0.5);
    EXPECT_EXIT(
        getLinearCoeff(alpha, &img, 1, 0.0), testing::ExitedWithCode(1),
        "^\nFailure - The matrix A is not positive definite symmetric \\(within working accuracy\\).\n$");
    free_img((void **)alpha);
    release(&img);
}

TEST(Upsample, ImageSmallerThanAWindowHasZeroCoefficients) {
    TIFF_img coarse = make_image(2, 6, 'c', 3), fine = make_image(8, 16, 'c', 4);
    double **alpha = make_map(2, 6, 0.8);
    double ***c = getLinearCoeff(alpha, &coarse, 1, 1e-5);
    for (int i = 0; i < 2; i++)
        for (int j = 0; j < 6; j++)
            for (int e = 0; e < 4; e++)
                EXPECT_EQ(c[i][j][e], 0.0);
    multifree(c, 3);
    double **up = upSampleAlphaUsingImg(alpha, &coarse, &fine, 1, 1e-5);
    for (int i = 0; i < 8; i++)
        for (int j = 0; j < 16; j++)
            EXPECT_EQ(up[i][j], 0.0);
    free_img((void **)up);
    free_img((void **)alpha);
    release(&coarse);
    release(&fine);
}

double ***cube(int h, int w, int d) {
    return (double ***)multialloc_init(sizeof(double), 3, h, w, d);
}

TEST(Upsample, InterpolationPlacesSamplesAtOffsetTwoAndBlendsLinearly) {
    // The driver's sizes: coarse 5 x 6, fine 2*5+4 = 14 by 2*6+3 = 15, so o = (14 - 10 + 1) / 2 = 2.
    // Coarse sample x lands on fine column 2 + 2x. Away from the borders the kernel reproduces the
    // ramp (X - 2) / 2; at the end samples it mixes in the replicated copies: 0.125 * 1 at X = 2,
    // 0.125 * 4 + 0.875 * 5 at X = 12; beyond them only replicated end samples are seen.
    const int h = 5, w = 6, H = 14, W = 15;
    double ***ramp = cube(h, w, 2);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            ramp[y][x][0] = x;
            ramp[y][x][1] = 3.0;
        }
    double ***up = upSmpArr(ramp, h, w, 2, H, W, 2);
    for (int Y = 0; Y < H; Y++)
        for (int X = 0; X < W; X++) {
            const double ends[W] = {0, 0, 0.125, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4.875, 5, 5};
            const double expected = (X >= 3 && X <= 11) ? (X - 2) / 2.0 : ends[X];
            EXPECT_NEAR(up[Y][X][0], expected, 1e-14) << Y << "," << X;
            EXPECT_NEAR(up[Y][X][1], 3.0, 1e-14); // weights sum to 1 everywhere
        }
    multifree(up, 3);
    multifree(ramp, 3);
}

TEST(Upsample, InterpolationOfAnImpulseIsTheKernel) {
    // One interior sample of 1 at coarse (2, 2) of a 5 x 5 grid: around fine (6, 6) the weights are
    // the products of the taps 0.125, 0.5, 0.75, 0.5, 0.125.
    double ***impulse = cube(5, 5, 1);
    impulse[2][2][0] = 1.0;
    double ***up = upSmpArr(impulse, 5, 5, 1, 14, 14, 2);
    const double taps[5] = {0.125, 0.5, 0.75, 0.5, 0.125};
    for (int Y = 0; Y < 14; Y++)
        for (int X = 0; X < 14; X++) {
            const int b = Y - 6, a = X - 6;
            const double expected = (std::abs(a) <= 2 && std::abs(b) <= 2) ? taps[b + 2] * taps[a + 2] : 0.0;
            EXPECT_NEAR(up[Y][X][0], expected, 1e-15) << Y << "," << X;
        }
    multifree(up, 3);
    multifree(impulse, 3);
}

TEST(Upsample, AlphaLinearInColourIsCarriedToTheFineImage) {
    // The same linear model on both levels: the upsampled alpha is that model evaluated on the fine
    // colours, and it is not clamped (this model leaves [0, 1] for some colours).
    TIFF_img fine = make_image(24, 27, 'c', 31), coarse = make_image(10, 12, 'c', 32);
    double **alpha = linear_alpha_of(coarse);
    double **up = upSampleAlphaUsingImg(alpha, &coarse, &fine, 1, 0.0);
    bool outside = false;
    for (int i = 0; i < 24; i++)
        for (int j = 0; j < 27; j++) {
            EXPECT_NEAR(up[i][j], linear_alpha(fine, i, j), 1e-9) << i << "," << j;
            outside = outside || up[i][j] < 0.0 || up[i][j] > 1.0;
        }
    EXPECT_TRUE(outside);
    free_img((void **)up);
    free_img((void **)alpha);
    release(&fine);
    release(&coarse);
}

} // namespace
