// Upsampling by local linear coefficients: exact recovery where alpha is linear in colour, the
// interpolation's placement and weights worked out by hand, and the fatal uniform window.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "matting/upsample.h"
#include "tests/matting/engine_fixtures.h"

namespace {

// alpha = coef . colour / 255 + constant, with the constant last.
const std::vector<double> kColour = {0.3, -0.5, 0.8, 0.1}, kGrey = {-0.4, 0.7};

double **linear_alpha_of(const TIFF_img &img, const std::vector<double> &coef) {
    double **alpha = make_map(img.height, img.width, coef.back());
    for (int i = 0; i < img.height; i++)
        for (int j = 0; j < img.width; j++)
            for (size_t ch = 0; ch + 1 < coef.size(); ch++)
                alpha[i][j] += coef[ch] * (coef.size() == 4 ? img.color[ch][i][j] : img.mono[i][j]) / 255.0;
    return alpha;
}

TEST(Upsample, LinearCoefficientsRecoveredExactlyWithoutRegularisation) {
    for (char type : {'c', 'g'}) {
        const std::vector<double> &coef = type == 'c' ? kColour : kGrey;
        TIFF_img img = make_image(9, 11, type, 77);
        double **alpha = linear_alpha_of(img, coef);
        double ***fit = getLinearCoeff(alpha, &img, 1, 0.0);
        for (int i = 0; i < 9; i++) // borders copied from the nearest fit hold the same values
            for (int j = 0; j < 11; j++)
                for (size_t e = 0; e < coef.size(); e++)
                    EXPECT_NEAR(fit[i][j][e], coef[e], 1e-9) << type << " " << i << "," << j << " " << e;
        multifree(fit, 3);
        free_img((void **)alpha);
        release(&img);
    }
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

TEST(Upsample, InterpolationPlacesSamplesAtOffsetTwoWithTheKernelWeights) {
    // The driver's sizes: coarse 5 x 6, fine 2*5+4 = 14 by 2*6+3 = 15, so o = (14 - 10 + 1) / 2 = 2 and
    // coarse sample x lands on fine column 2 + 2x. Plane 0, a ramp in x: away from the borders the kernel
    // reproduces (X - 2) / 2; at the end samples it mixes in the replicated copies: 0.125 * 1 at X = 2,
    // 0.125 * 4 + 0.875 * 5 at X = 12; beyond them only replicated end samples are seen. Plane 1, an
    // impulse at coarse (2, 2): around fine (6, 6) the products of the taps 0.125, 0.5, 0.75, 0.5, 0.125.
    double ***coarse = (double ***)multialloc_init(sizeof(double), 3, 5, 6, 2);
    for (int y = 0; y < 5; y++)
        for (int x = 0; x < 6; x++)
            coarse[y][x][0] = x;
    coarse[2][2][1] = 1.0;
    double ***up = upSmpArr(coarse, 5, 6, 2, 14, 15, 2);
    const double ends[15] = {0, 0, 0.125, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4.875, 5, 5};
    const double taps[5] = {0.125, 0.5, 0.75, 0.5, 0.125};
    for (int Y = 0; Y < 14; Y++)
        for (int X = 0; X < 15; X++) {
            EXPECT_NEAR(up[Y][X][0], (X >= 3 && X <= 11) ? (X - 2) / 2.0 : ends[X], 1e-14) << Y << "," << X;
            const int b = Y - 6, a = X - 6;
            const double kernel = (std::abs(a) <= 2 && std::abs(b) <= 2) ? taps[b + 2] * taps[a + 2] : 0.0;
            EXPECT_NEAR(up[Y][X][1], kernel, 1e-15) << Y << "," << X;
        }
    multifree(up, 3);
    multifree(coarse, 3);
}

TEST(Upsample, AlphaLinearInColourIsCarriedUnclampedToTheFineImage) {
    TIFF_img fine = make_image(24, 27, 'c', 31), coarse = make_image(10, 12, 'c', 32);
    double **alpha = linear_alpha_of(coarse, kColour), **truth = linear_alpha_of(fine, kColour);
    double **up = upSampleAlphaUsingImg(alpha, &coarse, &fine, 1, 0.0);
    bool outside = false; // this model leaves [0, 1] for some colours
    for (int i = 0; i < 24; i++)
        for (int j = 0; j < 27; j++) {
            EXPECT_NEAR(up[i][j], truth[i][j], 1e-9) << i << "," << j;
            outside = outside || up[i][j] < 0.0 || up[i][j] > 1.0;
        }
    EXPECT_TRUE(outside);
    free_maps({up, alpha, truth});
    release(&fine);
    release(&coarse);
}

} // namespace
