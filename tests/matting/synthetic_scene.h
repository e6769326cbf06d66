// A small composite for the solver tests: a soft-edged, textured blob over a textured background with
// sensor-like noise, and scribbles (a cross in the blob, a frame in the background) or a trimap band.
// Texture and noise are what make matting systems hard for iterative solvers, so the tests need both.
// Also the random matrices and the element-by-element references those tests share.
#ifndef KELDRA_TESTS_MATTING_SYNTHETIC_SCENE_H
#define KELDRA_TESTS_MATTING_SYNTHETIC_SCENE_H

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "engine_fixtures.h"
#include "matting/compact_laplacian.h"

struct SyntheticScene {
    TIFF_img image;
    double **map, **values; // constraint weights (0 or 1) and values
    // trimap: constrain everything but a band around the blob's edge, instead of scribbles.
    SyntheticScene(int H, int W, bool trimap) : map(make_map(H, W, 0.0)), values(make_map(H, W, 0.0)) {
        get_TIFF(&image, H, W, 'c');
        const double cx = W * 0.5, cy = H * 0.5, R0 = std::min(H, W) * 0.3,
                     band = std::min(H, W) * 0.04 + 3.0;
        const int th = std::max(1, std::min(H, W) / 40);
        for (int i = 0; i < H; i++)
            for (int j = 0; j < W; j++) {
                const double dx = j - cx, dy = i - cy, dist = std::hypot(dx, dy), u = double(j) / W,
                             v = double(i) / H;
                const double edge = R0 * (1.0 + 0.2 * std::sin(5 * std::atan2(dy, dx)));
                const double a = std::clamp(0.5 - (dist - edge) / 4.0, 0.0, 1.0);
                const double bg[3] = {60 + 120 * u + 30 * std::sin(40 * v),
                                      90 + 60 * v + 25 * std::sin(30 * u + 3 * v), 150 - 80 * u * v};
                const double fg[3] = {200 - 50 * v + 20 * std::sin(70 * u), 120 + 40 * std::sin(35 * (u + v)),
                                      40 + 50 * u};
                for (int c = 0; c < 3; c++) // plus grain of +-3 levels
                    image.color[c][i][j] = (uint8_t)std::clamp(
                        a * fg[c] + (1 - a) * bg[c] + 6.0 * (noise(3 * (i * W + j) + c) / 256.0 - 0.5), 0.0,
                        255.0);
                const bool fg_mark =
                    trimap ? dist < edge - band
                           : dist < edge * 0.6 && (std::abs(i - cy) <= th || std::abs(j - cx) <= th);
                const bool bg_mark = trimap ? dist > edge + band
                                            : i < 2 * th || i >= H - 2 * th || j < 2 * th || j >= W - 2 * th;
                map[i][j] = fg_mark || bg_mark;
                values[i][j] = fg_mark;
            }
    }
    ~SyntheticScene() {
        release(&image);
        free_maps({map, values});
    }
    SyntheticScene(const SyntheticScene &) = delete;
};

// The system the engine solves for a scene: radius 1, epsilon 1e-7.
inline GridSystem sceneSystem(int H, int W, bool trimap) {
    SyntheticScene scene(H, W, trimap);
    GridSystem sys;
    std::string message;
    EXPECT_EQ(getCompactMattingSystem(&scene.image, scene.map, scene.values, 1, 1e-7, &sys, &message), 0);
    return sys;
}

// Uniform in [-1, 1).
inline std::vector<double> randomVector(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<double> v(n);
    for (double &x : v)
        x = std::uniform_real_distribution<double>(-1.0, 1.0)(rng);
    return v;
}

// A random symmetric matrix on the grid whose couplings respect the grid's borders, with a diagonal
// large enough to make it positive definite.
inline GridMatrix randomGridMatrix(int H, int W, int reach, unsigned seed) {
    GridMatrix A;
    initGridMatrix(&A, H, W, reach);
    const int64_t n = gridPixels(&A);
    const std::vector<double> r = randomVector(A.bands.size() + n, seed);
    for (size_t k = 0; k < A.bands.size(); ++k) {
        const int i = int(k % n % H) + A.band_drow[k / n], j = int(k % n / H) + A.band_dcol[k / n];
        A.bands[k] = i >= 0 && i < H && j < W ? r[k] : 0.0;
    }
    for (int64_t p = 0; p < n; ++p)
        A.diag[p] = 4.0 * reach * (reach + 1) + 1.0 + r[A.bands.size() + p];
    return A;
}

// fn(q, A(p, q)) for every pixel q of the grid within reach of p, p itself included.
template <typename Fn> void forEachElement(const GridMatrix &A, int64_t p, Fn &&fn) {
    for (int dc = -A.reach; dc <= A.reach; ++dc)
        for (int dr = -A.reach; dr <= A.reach; ++dr) {
            const int i = int(p % A.height) + dr, j = int(p / A.height) + dc;
            if (i >= 0 && i < A.height && j >= 0 && j < A.width)
                fn(i + int64_t(j) * A.height, gridElement(&A, p, dr, dc));
        }
}

// u^T (M v) = v^T (M u), to tol relative to the size of the terms: what conjugate gradients need of a
// preconditioner or a smoother.
template <typename T>
void expectSymmetric(const T *u, const T *Mu, const T *v, const T *Mv, int64_t n, double tol) {
    double uMv = 0.0, vMu = 0.0, scale = 0.0;
    for (int64_t k = 0; k < n; ++k) {
        uMv += double(u[k]) * Mv[k];
        vMu += double(v[k]) * Mu[k];
        scale += std::fabs(double(u[k]) * Mv[k]);
    }
    EXPECT_NEAR(uMv, vMu, tol * scale);
}

#endif
