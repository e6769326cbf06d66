// Small deterministic images and arrays, a dense reference solver and a scratch working folder shared
// by the matting engine's tests.
#ifndef KELDRA_TESTS_MATTING_ENGINE_FIXTURES_H
#define KELDRA_TESTS_MATTING_ENGINE_FIXTURES_H

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

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
        for (int j = 0; j < W; j++)
            for (int ch = 0; ch < (type == 'c' ? 3 : 1); ch++)
                (type == 'c' ? img.color[ch][i][j] : img.mono[i][j]) =
                    noise(seed + 7919u * (i * W + j) + 31u * ch);
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

inline void free_maps(std::initializer_list<double **> maps) {
    for (double **m : maps)
        free_img((void **)m);
}

// Solves the dense N x N system M x = b (M row-major, symmetric positive definite) by Gaussian
// elimination.
inline std::vector<double> dense_solve(std::vector<double> M, std::vector<double> b) {
    const size_t N = b.size();
    for (size_t c = 0; c < N; c++)
        for (size_t r = c + 1; r < N; r++) {
            const double f = M[r * N + c] / M[c * N + c];
            for (size_t k = c; k < N; k++)
                M[r * N + k] -= f * M[c * N + k];
            b[r] -= f * b[c];
        }
    std::vector<double> x(N);
    for (size_t r = N; r-- > 0;) {
        double s = b[r];
        for (size_t k = r + 1; k < N; k++)
            s -= M[r * N + k] * x[k];
        x[r] = s / M[r * N + r];
    }
    return x;
}

// Runs each test in a fresh temporary folder, for the routines that write to the current directory.
class InTempDir : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(chdir(mkdtemp(folder_)), 0) << folder_; }
    void TearDown() override {
        ASSERT_EQ(chdir("/tmp"), 0);
        ASSERT_EQ(system(("rm -rf '" + std::string(folder_) + "'").c_str()), 0);
    }
    char folder_[32] = "/tmp/keldra_matting_XXXXXX";
};

#endif
