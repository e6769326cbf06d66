// A small composite for the solver tests: a soft-edged, textured blob over a textured background with
// sensor-like noise, and scribbles (a cross in the blob, a frame in the background) or a trimap band.
// Texture and noise are what make matting systems hard for iterative solvers, so the tests need both.
#ifndef KELDRA_TESTS_MATTING_SYNTHETIC_SCENE_H
#define KELDRA_TESTS_MATTING_SYNTHETIC_SCENE_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "numeric/arrays.h"
#include "numeric/tiff.h"

struct SyntheticScene {
    TIFF_img image;
    double **map;    // constraint weights, 0 or 1
    double **values; // constraint values
    int height, width;
};

inline double sceneNoise(unsigned k) {
    k = k * 1103515245u + 12345u;
    k ^= k >> 13;
    k *= 2654435761u;
    k ^= k >> 16;
    return (k & 0xffff) / 65536.0 - 0.5;
}

// trimap: constrain everything but a band around the blob's edge, instead of scribbles.
inline SyntheticScene makeScene(int H, int W, bool trimap) {
    SyntheticScene s;
    s.height = H;
    s.width = W;
    get_TIFF(&s.image, H, W, 'c');
    s.map = (double **)get_init_arr(W, H, sizeof(double));
    s.values = (double **)get_init_arr(W, H, sizeof(double));
    const double cx = W * 0.5, cy = H * 0.5, R0 = std::min(H, W) * 0.3, soft = 2.0;
    const double band = std::min(H, W) * 0.04 + 3.0;
    const int th = std::max(1, std::min(H, W) / 40);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double dx = j - cx, dy = i - cy, angle = std::atan2(dy, dx);
            const double edge = R0 * (1.0 + 0.2 * std::sin(5 * angle)), dist = std::sqrt(dx * dx + dy * dy);
            const double a = std::clamp(0.5 - (dist - edge) / (2 * soft), 0.0, 1.0);
            const double u = double(j) / W, v = double(i) / H;
            const double bg[3] = {60 + 120 * u + 30 * std::sin(40 * v),
                                  90 + 60 * v + 25 * std::sin(30 * u + 3 * v), 150 - 80 * u * v};
            const double fg[3] = {200 - 50 * v + 20 * std::sin(70 * u), 120 + 40 * std::sin(35 * (u + v)),
                                  40 + 50 * u};
            for (int c = 0; c < 3; c++) {
                const double x =
                    a * fg[c] + (1 - a) * bg[c] + 6.0 * sceneNoise(unsigned(3 * (i * W + j) + c));
                s.image.color[c][i][j] = (uint8_t)std::clamp(x, 0.0, 255.0);
            }
            bool fg_mark, bg_mark;
            if (trimap) {
                fg_mark = dist < edge - band;
                bg_mark = dist > edge + band;
            } else {
                fg_mark = dist < edge * 0.6 && (std::abs(i - cy) <= th || std::abs(j - cx) <= th);
                bg_mark = i < 2 * th || i >= H - 2 * th || j < 2 * th || j >= W - 2 * th;
            }
            if (fg_mark || bg_mark) {
                s.map[i][j] = 1.0;
                s.values[i][j] = fg_mark ? 1.0 : 0.0;
            }
        }
    return s;
}

inline void freeScene(SyntheticScene *s) {
    free_TIFF(&s->image);
    free(s->image.color);
    free_img((void **)s->map);
    free_img((void **)s->values);
}

#endif
