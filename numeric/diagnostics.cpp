// Printing matrices and vectors, and writing arrays as greyscale TIFF images, for debugging.
#include "numeric/diagnostics.h"

#include <cmath>
#include <cstdlib>

void printMX(const double *a, int rows, int cols) {
    for (int i = 0; i < rows; i++) {
        for (int j = 0; j < cols; j++)
            std::printf(" %g", a[static_cast<size_t>(i) * cols + j]);
        std::printf("\n");
    }
}

void fprintMX(FILE *file, double **a, int rows, int cols) {
    for (int i = 0; i < rows; i++) {
        for (int j = 0; j < cols; j++) {
            // Empty cells keep a mostly-zero table readable in a spreadsheet.
            if (a[i][j] == 0.0)
                std::fprintf(file, "\t");
            else
                std::fprintf(file, "%g\t", a[i][j]);
        }
        std::fprintf(file, "\n");
    }
}

void fprintiMX(FILE *file, int **a, int rows, int cols) {
    for (int i = 0; i < rows; i++) {
        for (int j = 0; j < cols; j++) {
            if (a[i][j] == 0)
                std::fprintf(file, "\t");
            else
                std::fprintf(file, "%d\t", a[i][j]);
        }
        std::fprintf(file, "\n");
    }
}

void fprintsqMXxV(FILE *file, double **a, const double *b, int n) {
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < n; j++) {
            if (a[i][j] == 0.0)
                std::fprintf(file, "\t");
            else
                std::fprintf(file, "%g\t", a[i][j]);
        }
        std::fprintf(file, "%g\n", b[i]);
    }
}

void printsubMX(double **a, int rows, int cols, int row0, int col0) {
    std::printf("\toffset: %d,%d size: %d,%d\n", row0, col0, rows, cols);
    for (int i = row0; i < row0 + rows; i++) {
        for (int j = col0; j < col0 + cols; j++)
            std::printf(" %g", a[i][j]);
        std::printf("\n");
    }
}

void printiV(const int *v, int n) {
    for (int i = 0; i < n; i++)
        std::printf(" %d", v[i]);
    std::printf("\n");
}

void printdV(const double *v, int n) {
    for (int i = 0; i < n; i++)
        std::printf(" %g", v[i]);
    std::printf("\n");
}

// Opens path, writes the record, closes; ends the process on failure.
static void write_or_exit(const char *path, struct TIFF_img *image) {
    FILE *fp = std::fopen(path, "wb");
    if (fp == nullptr) {
        std::fprintf(stderr, "cannot open file %s\n", path);
        std::exit(1);
    }
    int status = write_TIFF(fp, image);
    if (std::fclose(fp) != 0) status = 1;
    if (status != 0) {
        std::fprintf(stderr, "error writing TIFF file %s\n", path);
        std::exit(1);
    }
}

static uint8_t clamp_byte(double v) {
    if (!(v > 0.0)) return 0; // also NaN
    if (v >= 255.0) return 255;
    return static_cast<uint8_t>(v);
}

// A greyscale record of the given size; get_TIFF has already explained a refusal.
static void get_grey_or_exit(struct TIFF_img *img, int width, int height) {
    if (get_TIFF(img, height, width, 'g') != 0) std::exit(1);
}

void normalised_array_to_grey_img(const char *path, double **a, int width, int height) {
    struct TIFF_img img;
    get_grey_or_exit(&img, width, height);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            img.mono[y][x] = clamp_byte(255.0 * a[y][x]);
    write_or_exit(path, &img);
    free_TIFF(&img);
}

void boolean_array_to_grey_img(const char *path, int **a, int width, int height) {
    struct TIFF_img img;
    get_grey_or_exit(&img, width, height);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            img.mono[y][x] = clamp_byte(255.0 * a[y][x]);
    write_or_exit(path, &img);
    free_TIFF(&img);
}

void write_TIFF_img(const char *path, struct TIFF_img *image) {
    write_or_exit(path, image);
}

void write_TIFF_a(const char *path, struct TIFF_img *image, int **alpha) {
    if (image->TIFF_type != 'a') {
        std::fprintf(stderr, "\nwrite_TIFF_a reguires struct TIFF_img of TIFF_type \"a\"");
        write_or_exit(path, image);
        return;
    }
    for (int y = 0; y < image->height; y++)
        for (int x = 0; x < image->width; x++)
            image->color[3][y][x] = static_cast<uint8_t>(alpha[y][x]);
    // The colour planes of the same record, seen as a full-colour image the writer knows.
    struct TIFF_img colour = *image;
    colour.TIFF_type = 'c';
    write_or_exit(path, &colour);
}
