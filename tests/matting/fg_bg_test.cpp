// Foreground and background estimation: the gradient operator against a dense matrix built from the
// neighbour rules, the whole least-squares solve against a dense solve of the same system built here
// element by element, a synthetic composite with known F, B and alpha, the weights' edge cases, and
// the two debug files with their failure exits. Tests that write files run in a temporary folder.
#include "matting/fg_bg.h"

#include "numeric/arrays.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Dense = std::vector<std::vector<double>>;

// The neighbour of each direction, in the order of G's blocks: horizontal, vertical, diagonal,
// anti-diagonal.
const int kDx[4] = {1, 0, 1, 1};
const int kDy[4] = {0, 1, 1, -1};

// G as a dense 4N x N matrix, straight from the rules: for every pixel whose neighbour in direction d
// exists, when the mask is set at either of them, row d*N + k gets +1 at k and -1 at the neighbour.
Dense dense_gradient(const std::vector<std::vector<int>> &mask, int width, int height) {
    const int n = width * height;
    Dense g(size_t(4 * n), std::vector<double>(size_t(n), 0.0));
    for (int d = 0; d < 4; d++)
        for (int x = 0; x < width; x++)
            for (int y = 0; y < height; y++) {
                const int nx = x + kDx[d], ny = y + kDy[d];
                if (nx >= width || ny < 0 || ny >= height) continue;
                if (!mask[size_t(y)][size_t(x)] && !mask[size_t(ny)][size_t(nx)]) continue;
                const int k = x * height + y, m = nx * height + ny;
                g[size_t(d * n + k)][size_t(k)] = 1;
                g[size_t(d * n + k)][size_t(m)] = -1;
            }
    return g;
}

Dense to_dense(const cholmod_sparse *s) {
    Dense out(s->nrow, std::vector<double>(s->ncol, 0.0));
    const int *p = static_cast<const int *>(s->p), *i = static_cast<const int *>(s->i);
    const double *x = static_cast<const double *>(s->x);
    for (size_t j = 0; j < s->ncol; j++)
        for (int e = p[j]; e < p[j + 1]; e++)
            out[size_t(i[e])][j] += x[e];
    return out;
}

// A two-dimensional int array for the engine with the mask's values.
int **engine_mask(const std::vector<std::vector<int>> &mask, int width, int height) {
    int **m = reinterpret_cast<int **>(get_init_arr(width, height, sizeof(int)));
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            m[y][x] = mask[size_t(y)][size_t(x)];
    return m;
}

void expect_sorted_columns(const cholmod_sparse *s) {
    EXPECT_TRUE(s->packed);
    EXPECT_TRUE(s->sorted);
    EXPECT_EQ(s->stype, 0);
    const int *p = static_cast<const int *>(s->p), *i = static_cast<const int *>(s->i);
    for (size_t j = 0; j < s->ncol; j++)
        for (int e = p[j] + 1; e < p[j + 1]; e++)
            ASSERT_LT(i[e - 1], i[e]) << "column " << j;
}

TEST(FgBgGradient, OperatorPairsMaskedPixelsWithTheirFourNeighbours) {
    EXPECT_EQ(imIndexToVect(2, 3, 5), 17);
    EXPECT_EQ(imIndexToVect(0, 0, 5), 0);
    const struct {
        int width, height;
        std::vector<std::vector<int>> mask;
    } cases[] = {
        {4, 3, {{0, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 0, 0}}}, // one uncertain pixel in the middle
        {4, 3, {{1, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 1}}}, // corners: some neighbours missing
        {5, 4, {{1, 1, 0, 0, 0}, {0, 1, 1, 0, 0}, {0, 0, 1, 1, 0}, {0, 0, 0, 1, 1}}},
        {3, 3, {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}},
        {3, 2, {{0, 0, 0}, {0, 0, 0}}}, // empty mask: no entries at all
        {1, 4, {{1}, {0}, {1}, {0}}},   // one column: vertical pairs only
        {4, 1, {{0, 1, 0, 0}}},         // one row: horizontal pairs only
        {1, 1, {{1}}},
    };
    cholmod_common common;
    cholmod_start(&common);
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        int **mask = engine_mask(c.mask, c.width, c.height);
        cholmod_sparse *g = getGmatByMask(mask, c.width, c.height, &common);
        cholmod_sparse *g_arrays = getArrGmatByMask(mask, c.width, c.height, &common);
        ASSERT_NE(g, nullptr);
        ASSERT_NE(g_arrays, nullptr);
        const size_t n = size_t(c.width * c.height);
        EXPECT_EQ(g->nrow, 4 * n);
        EXPECT_EQ(g->ncol, n);
        expect_sorted_columns(g);
        expect_sorted_columns(g_arrays);
        const Dense expected = dense_gradient(c.mask, c.width, c.height);
        EXPECT_EQ(to_dense(g), expected);
        EXPECT_EQ(to_dense(g_arrays), expected);
        cholmod_free_sparse(&g, &common);
        cholmod_free_sparse(&g_arrays, &common);
        free_img(reinterpret_cast<void **>(mask));
    }
    cholmod_finish(&common);
}

// Solves M x = r by Gaussian elimination with partial pivoting (M square, copied).
std::vector<double> dense_solve(Dense m, std::vector<double> r) {
    const size_t n = r.size();
    for (size_t c = 0; c < n; c++) {
        size_t pivot = c;
        for (size_t k = c + 1; k < n; k++)
            if (std::fabs(m[k][c]) > std::fabs(m[pivot][c])) pivot = k;
        std::swap(m[c], m[pivot]);
        std::swap(r[c], r[pivot]);
        for (size_t k = c + 1; k < n; k++) {
            const double f = m[k][c] / m[c][c];
            for (size_t j = c; j < n; j++)
                m[k][j] -= f * m[c][j];
            r[k] -= f * r[c];
        }
    }
    std::vector<double> x(n);
    for (size_t c = n; c-- > 0;) {
        double s = r[c];
        for (size_t j = c + 1; j < n; j++)
            s -= m[c][j] * x[j];
        x[c] = s / m[c][c];
    }
    return x;
}

// The least-squares solution u (F then B) for one channel, with A and b built densely from the
// estimation's rules: data rows wF, wB; compositing row; smoothness rows WgF*G and WgB*G.
std::vector<double> dense_estimate(const std::vector<double> &alpha, const std::vector<double> &observed,
                                   int width, int height) {
    const size_t n = size_t(width * height);
    std::vector<std::vector<int>> mask(static_cast<size_t>(height),
                                       std::vector<int>(static_cast<size_t>(width)));
    for (int x = 0; x < width; x++)
        for (int y = 0; y < height; y++) {
            const double a = alpha[size_t(x * height + y)];
            mask[size_t(y)][size_t(x)] = a >= 0.02 && a <= 0.98;
        }
    const Dense g = dense_gradient(mask, width, height);
    Dense a_mat(11 * n, std::vector<double>(2 * n, 0.0));
    std::vector<double> b(11 * n, 0.0);
    for (size_t k = 0; k < n; k++) {
        const double a = alpha[k], i = observed[k];
        const double wf = a > 0.98 ? 100 + 0.03 * a : a > 0.7 ? 0.03 * a : a < 0.02 ? 0.01 : 0;
        const double wb = a > 0.98 ? 0.01 : a < 0.02 ? 100 + 0.03 * (1 - a) : a < 0.3 ? 0.03 * (1 - a) : 0;
        a_mat[k][k] = wf;
        a_mat[n + k][n + k] = wb;
        b[k] = a > 0.02 ? wf * i : 0;
        b[n + k] = a < 0.98 ? wb * i : 0;
        a_mat[2 * n + k][k] = a;
        a_mat[2 * n + k][n + k] = 1 - a;
        b[2 * n + k] = i;
    }
    for (size_t r = 0; r < 4 * n; r++) {
        double ga = 0;
        for (size_t k = 0; k < n; k++)
            ga += g[r][k] * alpha[k];
        const double a = alpha[r % n];
        const double wgf = std::sqrt(std::fabs(ga)) + 0.003 * (1 - a);
        const double wgb = std::sqrt(std::fabs(ga)) + 0.003 * a;
        for (size_t k = 0; k < n; k++) {
            a_mat[3 * n + r][k] = wgf * g[r][k];
            a_mat[7 * n + r][n + k] = wgb * g[r][k];
        }
    }
    Dense ata(2 * n, std::vector<double>(2 * n, 0.0));
    std::vector<double> atb(2 * n, 0.0);
    for (size_t r = 0; r < 11 * n; r++)
        for (size_t i = 0; i < 2 * n; i++) {
            if (a_mat[r][i] == 0) continue;
            atb[i] += a_mat[r][i] * b[r];
            for (size_t j = 0; j < 2 * n; j++)
                ata[i][j] += a_mat[r][i] * a_mat[r][j];
        }
    return dense_solve(ata, atb);
}

// A 'c' record and a matte from per-pixel functions.
struct Scene {
    TIFF_img image;
    double **alpha;
};

template <typename Colour, typename Alpha>
Scene make_scene(int width, int height, Colour colour, Alpha alpha_of) {
    Scene s;
    EXPECT_EQ(get_TIFF(&s.image, height, width, 'c'), 0);
    s.alpha = reinterpret_cast<double **>(get_img(width, height, sizeof(double)));
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            s.alpha[y][x] = alpha_of(y, x);
            for (int c = 0; c < 3; c++)
                s.image.color[c][y][x] = colour(c, y, x);
        }
    return s;
}

void release(Scene *s) {
    free_TIFF(&s->image);
    free(s->image.color);
    free_img(reinterpret_cast<void **>(s->alpha));
}

// Alpha values that reach every branch of the data weights, the mask bounds 0.02 and 0.98 exactly,
// and 0.5, which has neither data weight.
TEST(FgBgEstimate, MatchesADenseSolveOfTheSameLeastSquaresSystem) {
    const double alphas[4][3] = {{0.0, 0.01, 0.02}, {0.2, 0.3, 0.5}, {0.7, 0.8, 0.98}, {0.99, 1.0, 0.4}};
    const int width = 3, height = 4;
    Scene s = make_scene(
        width, height, [](int c, int y, int x) { return uint8_t(40 + 50 * c + 13 * y + 29 * x); },
        [&](int y, int x) { return alphas[y][x]; });
    FBEstimate estimate;
    ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
    EXPECT_EQ(estimate.channels, 3);
    std::vector<double> alpha(12);
    for (int x = 0; x < width; x++)
        for (int y = 0; y < height; y++)
            alpha[size_t(x * height + y)] = alphas[y][x];
    for (int c = 0; c < 3; c++) {
        std::vector<double> observed(12);
        for (int x = 0; x < width; x++)
            for (int y = 0; y < height; y++)
                observed[size_t(x * height + y)] = s.image.color[c][y][x] / 255.0;
        const std::vector<double> u = dense_estimate(alpha, observed, width, height);
        for (int x = 0; x < width; x++)
            for (int y = 0; y < height; y++) {
                const size_t k = size_t(x * height + y);
                EXPECT_NEAR(estimate.fg[c][y][x], u[k], 1e-7) << "F channel " << c << " at " << y << "," << x;
                EXPECT_NEAR(estimate.bg[c][y][x], u[12 + k], 1e-7)
                    << "B channel " << c << " at " << y << "," << x;
            }
    }
    freeFBEstimate(&estimate);
    EXPECT_EQ(estimate.fg[0], nullptr);
    release(&s);
}

// Smooth known colours blended by a soft vertical edge: alpha 1 on the left, 0 on the right, a ramp
// between. Where alpha is high the estimated F is the true F, where it is low B is the true B, and
// everywhere the blend of the estimates reproduces the image.
TEST(FgBgEstimate, RecoversKnownColoursOfASyntheticComposite) {
    const int width = 40, height = 30;
    auto true_f = [](int c, int y, int x) {
        return (c == 0 ? 0.85 : c == 1 ? 0.55 : 0.15) + 0.002 * (y - x);
    };
    auto true_b = [](int c, int y, int x) {
        return (c == 0 ? 0.10 : c == 1 ? 0.35 : 0.80) + 0.002 * (x + y);
    };
    auto alpha_of = [](int, int x) { return std::min(1.0, std::max(0.0, (28.0 - x) / 16.0)); };
    Scene s = make_scene(
        width, height,
        [&](int c, int y, int x) {
            const double a = alpha_of(y, x);
            return uint8_t(std::lround(255 * (a * true_f(c, y, x) + (1 - a) * true_b(c, y, x))));
        },
        alpha_of);
    FBEstimate estimate;
    ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
    double worst_f = 0, worst_b = 0, worst_blend = 0;
    for (int c = 0; c < 3; c++)
        for (int y = 0; y < height; y++)
            for (int x = 0; x < width; x++) {
                const double a = s.alpha[y][x];
                const double f = estimate.fg[c][y][x], b = estimate.bg[c][y][x];
                if (a >= 0.7) worst_f = std::max(worst_f, std::fabs(f - true_f(c, y, x)));
                if (a <= 0.3) worst_b = std::max(worst_b, std::fabs(b - true_b(c, y, x)));
                worst_blend =
                    std::max(worst_blend, std::fabs(a * f + (1 - a) * b - s.image.color[c][y][x] / 255.0));
            }
    EXPECT_LT(worst_f, 0.02);
    EXPECT_LT(worst_b, 0.02);
    EXPECT_LT(worst_blend, 0.01);
    freeFBEstimate(&estimate);

    TIFF_img rgba;
    ASSERT_EQ(getForegroundRGBA(&s.image, s.alpha, &rgba), 0);
    ASSERT_EQ(rgba.TIFF_type, 'a');
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            EXPECT_EQ(rgba.color[3][y][x], int(255 * s.alpha[y][x])) << y << "," << x;
            if (s.alpha[y][x] >= 0.7) {
                for (int c = 0; c < 3; c++)
                    EXPECT_NEAR(rgba.color[c][y][x], 255 * true_f(c, y, x), 0.02 * 255 + 0.5);
            }
        }
    free_TIFF(&rgba);
    free(rgba.color);
    release(&s);
}

// With alpha all 0 or all 1 nothing is uncertain, so G is empty: alpha 1 pins F to the image with
// weight 100.03 while B only has its weak data row 0.01*B = 0; alpha 0 the other way round.
TEST(FgBgEstimate, CertainMattesPinOneColourToTheImageAndTheOtherToZero) {
    for (double value : {0.0, 1.0}) {
        Scene s = make_scene(
            5, 4, [](int c, int y, int x) { return uint8_t(7 + 60 * c + 11 * y + 17 * x); },
            [&](int, int) { return value; });
        FBEstimate estimate;
        ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
        for (int c = 0; c < 3; c++)
            for (int y = 0; y < 4; y++)
                for (int x = 0; x < 5; x++) {
                    const double observed = s.image.color[c][y][x] / 255.0;
                    EXPECT_NEAR(estimate.fg[c][y][x], value * observed, 1e-12);
                    EXPECT_NEAR(estimate.bg[c][y][x], (1 - value) * observed, 1e-12);
                }
        freeFBEstimate(&estimate);
        release(&s);
    }
}

// A greyscale image is estimated as one channel, and the RGBA result repeats it in three planes; a
// palette image is estimated in the colours of its palette.
TEST(FgBgEstimate, GreyAndPaletteImagesAreEstimatedInTheirOwnColours) {
    const int width = 6, height = 5;
    Scene colour = make_scene(
        width, height, [](int c, int y, int x) { return uint8_t(30 + 40 * c + 9 * y + 14 * x); },
        [](int y, int x) { return (x + y) / 9.0; });
    TIFF_img grey, palette;
    ASSERT_EQ(get_TIFF(&grey, height, width, 'g'), 0);
    ASSERT_EQ(get_TIFF(&palette, height, width, 'p'), 0);
    for (int i = 0; i < 256; i++)
        for (int c = 0; c < 3; c++)
            palette.cmap[i][c] = 0;
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            grey.mono[y][x] = colour.image.color[1][y][x];
            palette.mono[y][x] = uint8_t(y * width + x);
            for (int c = 0; c < 3; c++)
                palette.cmap[y * width + x][c] = colour.image.color[c][y][x];
        }
    FBEstimate from_colour, from_grey, from_palette;
    ASSERT_EQ(estimateFB(&colour.image, colour.alpha, &from_colour), 0);
    ASSERT_EQ(estimateFB(&grey, colour.alpha, &from_grey), 0);
    ASSERT_EQ(estimateFB(&palette, colour.alpha, &from_palette), 0);
    EXPECT_EQ(from_grey.channels, 1);
    EXPECT_EQ(from_grey.fg[1], nullptr);
    EXPECT_EQ(from_palette.channels, 3);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            EXPECT_NEAR(from_grey.fg[0][y][x], from_colour.fg[1][y][x], 1e-9);
            EXPECT_NEAR(from_grey.bg[0][y][x], from_colour.bg[1][y][x], 1e-9);
            for (int c = 0; c < 3; c++)
                EXPECT_NEAR(from_palette.fg[c][y][x], from_colour.fg[c][y][x], 1e-9);
        }
    TIFF_img rgba;
    ASSERT_EQ(getForegroundRGBA(&grey, colour.alpha, &rgba), 0);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            EXPECT_EQ(rgba.color[0][y][x], rgba.color[1][y][x]);
            EXPECT_EQ(rgba.color[0][y][x], rgba.color[2][y][x]);
            EXPECT_NEAR(rgba.color[0][y][x], 255 * from_grey.fg[0][y][x], 0.5 + 1e-9);
        }
    free_TIFF(&rgba);
    free(rgba.color);
    for (FBEstimate *e : {&from_colour, &from_grey, &from_palette})
        freeFBEstimate(e);

    TIFF_img odd = grey;
    odd.TIFF_type = 'x';
    FBEstimate untouched{-1, -1, -1, {nullptr, nullptr, nullptr}, {nullptr, nullptr, nullptr}};
    EXPECT_EQ(estimateFB(&odd, colour.alpha, &untouched), 2);
    EXPECT_EQ(untouched.channels, -1);
    free_TIFF(&grey);
    free_TIFF(&palette);
    release(&colour);
}

// Runs each test in a fresh temporary folder, the estimation's working directory.
class FgBgFiles : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/keldra_fg_bg_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder_ = pattern;
        ASSERT_NE(getcwd(previous_, sizeof previous_), nullptr);
        ASSERT_EQ(chdir(folder_.c_str()), 0);
    }
    void TearDown() override {
        ASSERT_EQ(chdir(previous_), 0);
        ASSERT_EQ(system(("rm -rf '" + folder_ + "'").c_str()), 0);
    }
    static TIFF_img read_file(const char *path) {
        TIFF_img image{};
        FILE *fp = fopen(path, "rb");
        EXPECT_NE(fp, nullptr) << path;
        if (fp) {
            EXPECT_EQ(read_TIFF(fp, &image), 0);
            fclose(fp);
        }
        return image;
    }
    std::string folder_;
    char previous_[4096];
};

// The files hold 255*F*alpha and 255*B*(1-alpha), truncated and clamped: the premultiplied colours.
TEST_F(FgBgFiles, SolveFBWritesPremultipliedForegroundAndBackground) {
    const int width = 12, height = 9;
    Scene s = make_scene(
        width, height, [](int c, int y, int x) { return uint8_t(20 + 70 * c + 5 * y + 3 * x); },
        [](int, int x) { return std::min(1.0, std::max(0.0, (9.0 - x) / 6.0)); });
    FBEstimate estimate;
    ASSERT_EQ(estimateFB(&s.image, s.alpha, &estimate), 0);
    EXPECT_EQ(solveFB(&s.image, s.alpha), 0);
    TIFF_img fg = read_file("a_foreground.tif"), bg = read_file("a_background.tif");
    ASSERT_EQ(fg.TIFF_type, 'c');
    ASSERT_EQ(bg.TIFF_type, 'c');
    ASSERT_EQ(fg.height, height);
    ASSERT_EQ(fg.width, width);
    for (int c = 0; c < 3; c++)
        for (int y = 0; y < height; y++)
            for (int x = 0; x < width; x++) {
                const double f = 255 * estimate.fg[c][y][x] * s.alpha[y][x];
                const double b = 255 * estimate.bg[c][y][x] * (1 - s.alpha[y][x]);
                EXPECT_EQ(fg.color[c][y][x], f >= 255 ? 255
                                             : f < 0  ? 0
                                                      : int(f))
                    << c << " " << y << "," << x;
                EXPECT_EQ(bg.color[c][y][x], b >= 255 ? 255
                                             : b < 0  ? 0
                                                      : int(b))
                    << c << " " << y << "," << x;
            }
    for (TIFF_img *image : {&fg, &bg}) {
        free_TIFF(image);
        free(image->color);
    }
    freeFBEstimate(&estimate);
    release(&s);
}

// Upsampling can push alpha past 0..1. At alpha 1.2, F is pinned to the image, so a white pixel's
// 255*F*alpha is 306 and is written as 255, while B is 0. At alpha -0.2 the roles swap: B is pinned to
// the image, white gives 255*B*(1-alpha) = 306, written as 255, and F comes out near the image from
// the compositing row, so 255*F*alpha is negative and written as 0. Grey images give grey files.
TEST_F(FgBgFiles, OutOfRangeValuesAreClampedAndGreyImagesGiveGreyFiles) {
    for (double value : {1.2, -0.2}) {
        SCOPED_TRACE(value);
        TIFF_img grey;
        ASSERT_EQ(get_TIFF(&grey, 3, 4, 'g'), 0);
        double **alpha = reinterpret_cast<double **>(get_img(4, 3, sizeof(double)));
        for (int y = 0; y < 3; y++)
            for (int x = 0; x < 4; x++) {
                grey.mono[y][x] = x < 2 ? 255 : 100;
                alpha[y][x] = value;
            }
        EXPECT_EQ(solveFB(&grey, alpha), 0);
        TIFF_img fg = read_file("a_foreground.tif"), bg = read_file("a_background.tif");
        ASSERT_EQ(fg.TIFF_type, 'g');
        ASSERT_EQ(bg.TIFF_type, 'g');
        TIFF_img &pinned = value > 1 ? fg : bg, &other = value > 1 ? bg : fg;
        for (int y = 0; y < 3; y++)
            for (int x = 0; x < 4; x++) {
                if (x < 2) {
                    EXPECT_EQ(pinned.mono[y][x], 255);
                } else {
                    EXPECT_NEAR(pinned.mono[y][x], 120, 1);
                }
                EXPECT_EQ(other.mono[y][x], 0);
            }
        free_TIFF(&fg);
        free_TIFF(&bg);
        free_TIFF(&grey);
        free_img(reinterpret_cast<void **>(alpha));
    }

    TIFF_img odd;
    ASSERT_EQ(get_TIFF(&odd, 2, 2, 'g'), 0);
    odd.TIFF_type = 'x';
    double **small = reinterpret_cast<double **>(get_init_arr(2, 2, sizeof(double)));
    unlink("a_foreground.tif");
    testing::internal::CaptureStderr();
    EXPECT_EQ(solveFB(&odd, small), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "solveFB: cannot estimate colours of an image of type x\n");
    EXPECT_NE(access("a_foreground.tif", F_OK), 0);
    odd.TIFF_type = 'g';
    free_TIFF(&odd);
    free_img(reinterpret_cast<void **>(small));
}

// A folder in the way of a file makes it impossible to open; /dev/full accepts the open and then
// fails the first write that reaches it, which the writer reports before solveFB gives up.
TEST_F(FgBgFiles, FailingFilesEndTheProcessWithTheirMessages) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    Scene s = make_scene(
        30, 30, [](int c, int y, int x) { return uint8_t(c * 80 + y + x); },
        [](int, int x) { return x / 29.0; });
    ASSERT_EQ(mkdir("a_foreground.tif", 0700), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "^cannot open file a_foreground.tif\n$");
    ASSERT_EQ(rmdir("a_foreground.tif"), 0);
    ASSERT_EQ(symlink("/dev/full", "a_foreground.tif"), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "\nerror writing TIFF file foreground.tiff\n$");
    ASSERT_EQ(unlink("a_foreground.tif"), 0);
    ASSERT_EQ(mkdir("a_background.tif", 0700), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "^cannot open file a_background.tif\n$");
    ASSERT_EQ(rmdir("a_background.tif"), 0);
    ASSERT_EQ(symlink("/dev/full", "a_background.tif"), 0);
    EXPECT_EXIT(solveFB(&s.image, s.alpha), testing::ExitedWithCode(1),
                "\nerror writing TIFF file background.tiff\n$");
    release(&s);
}

} // namespace
