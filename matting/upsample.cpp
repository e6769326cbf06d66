// Upsampling by local linear coefficients: per-window least-squares fits of alpha against colour on the
// coarse level, the coefficient planes enlarged by a binomial interpolation, evaluated at the fine level.
#include "matting/upsample.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "matting/binomial_taps.h"
#include "numeric/arrays.h"
#include "numeric/dense.h"

namespace {

int channels_of(const TIFF_img *image) {
    return (image->TIFF_type == 'a' || image->TIFF_type == 'c') ? 3 : 1;
}

double sample(const TIFF_img *image, int c, int ch, int y, int x) {
    return c == 3 ? image->color[ch][y][x] : image->mono[y][x];
}

// Interpolation taps: twice the binomial taps of order 2f, so that with zeros between the samples the
// two-dimensional weights at every position still sum to 1.
std::vector<double> interpolation_taps(int f) {
    std::vector<double> taps = binomial_taps(f);
    for (double &t : taps)
        t *= 2.0;
    return taps;
}

// Replicates the placed samples outwards in steps of 2, rows first within the sample rows, then whole
// rows above and below, so the interpolation sees the border samples continued instead of zeros.
void extend_grid(std::vector<double> &pad, int PH, int PW, int r0, int r1, int c0, int c1) {
    int left = c0, right = c1;
    for (int y = r0; y <= r1; y += 2) {
        double *row = &pad[(size_t)y * PW];
        for (int x = c0 - 2; x >= 0; x -= 2) {
            row[x] = row[c0];
            left = x;
        }
        for (int x = c1 + 2; x < PW; x += 2) {
            row[x] = row[c1];
            right = x;
        }
    }
    for (int y = r0 - 2; y >= 0; y -= 2)
        for (int x = left; x <= right; x += 2)
            pad[(size_t)y * PW + x] = pad[(size_t)r0 * PW + x];
    for (int y = r1 + 2; y < PH; y += 2)
        for (int x = left; x <= right; x += 2)
            pad[(size_t)y * PW + x] = pad[(size_t)r1 * PW + x];
}

} // namespace

double ***getLinearCoeff(const double *const *alpha, const TIFF_img *image, int radius, double epsilon) {
    const int H = image->height, W = image->width, r = radius;
    const int c = channels_of(image);
    const int n = (2 * r + 1) * (2 * r + 1);
    const int rows = n + c, cols = c + 1;
    double ***coeff = (double ***)multialloc_init(sizeof(double), 3, H, W, cols);
    if (r < 0 || W < 2 * r + 1 || H < 2 * r + 1) return coeff;

    std::vector<double> G((size_t)rows * cols), Gt((size_t)cols * rows), b(rows), GtG(cols * cols), Gtb(cols);
    const double root_eps = std::sqrt(epsilon);
    for (int j = r; j <= W - r - 1; j++)
        for (int i = r; i <= H - r - 1; i++) {
            std::fill(G.begin(), G.end(), 0.0);
            int k = 0;
            for (int u = -r; u <= r; u++)
                for (int v = -r; v <= r; v++, k++) {
                    b[k] = alpha[i + v][j + u];
                    for (int ch = 0; ch < c; ch++)
                        G[(size_t)k * cols + ch] = sample(image, c, ch, i + v, j + u) / 255.0;
                    G[(size_t)k * cols + c] = 1.0;
                }
            for (int t = 0; t < c; t++) {
                b[n + t] = 0.0;
                G[(size_t)(n + t) * cols + t] = root_eps;
            }
            Transpose_Matrix(Gt.data(), G.data(), rows, cols);
            Self_Transpose_Multiply(GtG.data(), G.data(), rows, cols);
            Multiply_Matrices(Gtb.data(), Gt.data(), cols, rows, b.data(), 1);
            if (Choleski_LU_Decomposition(GtG.data(), cols) < 0) {
                fprintf(stderr, "\nFailure - The matrix A is not positive definite ");
                fprintf(stderr, "symmetric (within working accuracy).\n");
                exit(1);
            }
            if (Choleski_LU_Solve(GtG.data(), Gtb.data(), coeff[i][j], cols) < 0) {
                fprintf(stderr, "\nFailure - The matrix L is singular.\n");
                exit(1);
            }
        }

    for (int t = 0; t < r; t++)
        for (int j = r; j <= W - r - 1; j++)
            for (int e = 0; e < cols; e++) {
                coeff[t][j][e] = coeff[r][j][e];
                coeff[H - r + t][j][e] = coeff[H - r - 1][j][e];
            }
    for (int t = 0; t < r; t++)
        for (int i = 0; i < H; i++)
            for (int e = 0; e < cols; e++) {
                coeff[i][t][e] = coeff[i][r][e];
                coeff[i][W - r + t][e] = coeff[i][W - r - 1][e];
            }
    return coeff;
}

double ***upSmpArr(const double *const *const *array, int height, int width, int depth, int new_height,
                   int new_width, int f) {
    if (f < 0) f = 0;
    double ***out = (double ***)multialloc_init(sizeof(double), 3, new_height, new_width, depth);
    const int o = (new_height - 2 * height + 1) / 2;
    const int PH = new_height + 2 * f, PW = new_width + 2 * f;
    const std::vector<double> taps = interpolation_taps(f);
    std::vector<double> pad((size_t)PH * PW), across((size_t)PH * new_width);

    for (int d = 0; d < depth; d++) {
        std::fill(pad.begin(), pad.end(), 0.0);
        int r0 = PH, r1 = -1, c0 = PW, c1 = -1;
        for (int y = 0; y < height; y++) {
            const int py = f + o + 2 * y;
            if (py < 0 || py >= PH) continue;
            for (int x = 0; x < width; x++) {
                const int px = f + o + 2 * x;
                if (px < 0 || px >= PW) continue;
                pad[(size_t)py * PW + px] = array[y][x][d];
                r0 = py < r0 ? py : r0;
                r1 = py > r1 ? py : r1;
                c0 = px < c0 ? px : c0;
                c1 = px > c1 ? px : c1;
            }
        }
        if (r1 >= 0) extend_grid(pad, PH, PW, r0, r1, c0, c1);

        // The two-dimensional kernel is the outer product of the taps: filter along rows, then columns.
        for (int y = 0; y < PH; y++)
            for (int x = f; x < new_width + f; x++) {
                double sum = 0.0;
                for (int a = -f; a <= f; a++)
                    sum += pad[(size_t)y * PW + x + a] * taps[a + f];
                across[(size_t)y * new_width + (x - f)] = sum;
            }
        for (int y = f; y < new_height + f; y++)
            for (int x = 0; x < new_width; x++) {
                double sum = 0.0;
                for (int b = -f; b <= f; b++)
                    sum += across[(size_t)(y + b) * new_width + x] * taps[b + f];
                out[y - f][x][d] = sum;
            }
    }
    return out;
}

double **upSampleAlphaUsingImg(const double *const *coarse_alpha, const TIFF_img *coarse_image,
                               const TIFF_img *fine_image, int radius, double epsilon) {
    const int c = channels_of(coarse_image);
    const int H = fine_image->height, W = fine_image->width;
    double ***coarse = getLinearCoeff(coarse_alpha, coarse_image, radius, epsilon);
    double ***fine = upSmpArr(coarse, coarse_image->height, coarse_image->width, c + 1, H, W, 2);
    multifree(coarse, 3);

    double **alpha = (double **)get_init_arr(W, H, sizeof(double));
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            double a = alpha[i][j] + fine[i][j][c];
            for (int ch = 0; ch < c; ch++)
                a += fine[i][j][ch] * sample(fine_image, c, ch, i, j) / 255.0;
            alpha[i][j] = a;
        }
    multifree(fine, 3);
    return alpha;
}
