// Small deterministic images and arrays shared by the matting engine's tests.
#ifndef KELDRA_TESTS_MATTING_ENGINE_FIXTURES_H
#define KELDRA_TESTS_MATTING_ENGINE_FIXTURES_H

#include <cstdint>
#include <cstdlib>

#include "numeric/arrays.h"
#include "numeric/tiff.h"

// Deterministic pseudo-random bytes, so every run sees the same images.
inline uint8_t noise(unsigned seed) {
    seed = seed * 1103515245u + 12345u;
    seed ^= seed >> 13;
    seed *= 2654435761u;
    return (uint8_t)(seed >> 24);
}

// A 'c' (three planes) or 'g' image of noise.
inline TIFF_img make_image(int H, int W, char type, unsigned seed) {
    TIFF_img img;
    get_TIFF(&img, H, W, type);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            if (type == 'c') {
                for (int ch = 0; ch < 3; ch++)
                    img.color[ch][i][j] = noise(seed + 7919u * (i * W + j) + 31u * ch);
            } else {
                img.mono[i][j] = noise(seed + 7919u * (i * W + j));
            }
        }
    return img;
}

// Releases the planes and, for colour records, the plane table.
inline void release(TIFF_img *img) {
    const bool colour = img->TIFF_type == 'c' || img->TIFF_type == 'a';
    free_TIFF(img);
    if (colour) free(img->color);
}

inline double **make_map(int H, int W, double fill) {
    double **m = (double **)get_img(W, H, sizeof(double));
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            m[i][j] = fill;
    return m;
}

#endif
