// The coarse-to-fine driver, with the pyramid's binomial down-sampling and the erosion it uses for
// trimap masks and for skipping fully constrained windows.
#include "matting/coarse_to_fine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/upsample.h"
#include "matting/binomial_taps.h"
#include "numeric/arrays.h"

namespace {

// Outer product of the taps: the two-dimensional kernel, [b + f][a + f] at row offset b, column offset a.
std::vector<double> kernel_2d(const std::vector<double> &taps) {
    const size_t k = taps.size();
    std::vector<double> kernel(k * k);
    for (size_t b = 0; b < k; b++)
        for (size_t a = 0; a < k; a++)
            kernel[b * k + a] = taps[b] * taps[a];
    return kernel;
}

int coarse_side(int side, int f) {
    return (side - 2 * f) / 2 + side % 2;
}

// Filtered sample of a plane at input position (y, x), the kernel's centre.
template <typename Sample>
double filtered(const Sample *const *plane, int y, int x, int f, const std::vector<double> &kernel) {
    const int k = 2 * f + 1;
    double sum = 0.0;
    for (int a = -f; a <= f; a++)
        for (int b = -f; b <= f; b++)
            sum += plane[y + b][x + a] * kernel[(size_t)(b + f) * k + (a + f)];
    return sum;
}

void report_level(int starting, const TIFF_img *image, int levels, int solved) {
    EnginePhaseEvent e{ENGINE_PHASE_LEVEL, starting, image->height, image->width, levels, solved, 0};
    reportEnginePhase(&e);
}

void report_resample(int starting, const TIFF_img *image) {
    EnginePhaseEvent e{ENGINE_PHASE_RESAMPLE, starting, image->height, image->width, 0, 0, 0};
    reportEnginePhase(&e);
}

void free_image(TIFF_img *image) {
    const bool planes = image->TIFF_type == 'c' || image->TIFF_type == 'a';
    free_TIFF(image);
    if (planes) free(image->color);
}

// Turns the upsampled matte of this level into further constraints: pixels clearly opaque or clearly
// transparent in a whole 3 x 3 neighbourhood become constrained, and constrained pixels on the opaque
// side of the matte get the value 1.
void add_trimap_constraints(const double *const *alpha, double **map, double **values, int H, int W,
                            double threshold) {
    double **target = (double **)get_init_arr(W, H, sizeof(double));
    double **fg = (double **)get_init_arr(W, H, sizeof(double));
    double **bg = (double **)get_init_arr(W, H, sizeof(double));
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double a = alpha[i][j];
            if (values[i][j] + a * (1 - map[i][j]) >= 0.5) target[i][j] = 1;
            if (a > 1 - threshold)
                fg[i][j] = 1;
            else if (a < threshold)
                bg[i][j] = 1;
        }
    double **fg_eroded = imerode(fg, W, H, 1);
    double **bg_eroded = imerode(bg, W, H, 1);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            if (fg_eroded[i][j] == 1.0) map[i][j] = 1;
            if (bg_eroded[i][j] == 1.0) map[i][j] = 1;
            if (map[i][j] == 1.0 && target[i][j] >= 0.5) values[i][j] = 1;
        }
    free_img((void **)target);
    free_img((void **)fg);
    free_img((void **)bg);
    free_img((void **)fg_eroded);
    free_img((void **)bg_eroded);
}

// How the solved levels are solved. The specified driver uses solveAlpha at every solved level and goes
// on after a failed level; with another solver the first failure stops further solves, so that its
// status and message reach the caller instead of a matte built on a failed level.
struct LevelSolver {
    SolverKind kind;
    SolverReport *report; // null for the specified driver
    bool failed;
};

double **solveLevels(const TIFF_img *image, double **constraint_map, double **constraint_values, int levels,
                     int active_levels, int radius, int *status, double threshold, double epsilon,
                     LevelSolver *solver) {
    const int H = image->height, W = image->width;
    if (threshold < 0.02) threshold = 0.02;
    if (active_levels < 1) active_levels = 1;
    report_level(1, image, levels, 0);

    double **alpha = nullptr;
    if (levels > 1) {
        report_resample(1, image);
        TIFF_img coarse = downSmpIm(image, 2);
        double **coarse_map = downSmpArr(constraint_map, H, W, 2);
        double **coarse_values = downSmpArr(constraint_values, H, W, 2);
        report_resample(0, image);

        printf("levels_num %d Active_levels_num %d\n", levels, active_levels);
        const int coarse_active = levels - 1 < active_levels ? levels - 1 : active_levels;
        double **coarse_alpha = solveLevels(&coarse, coarse_map, coarse_values, levels - 1, coarse_active,
                                            radius, status, threshold, epsilon, solver);

        report_resample(1, image);
        alpha = upSampleAlphaUsingImg(coarse_alpha, &coarse, image, radius, epsilon);
        free_img((void **)coarse_map);
        free_img((void **)coarse_values);
        free_img((void **)coarse_alpha);
        free_image(&coarse);
        add_trimap_constraints(alpha, constraint_map, constraint_values, H, W, threshold);
        report_resample(0, image);
    }

    int solved = levels <= active_levels;
    if (solved && !solver->report) {
        if (alpha) free_img((void **)alpha);
        alpha = solveAlpha(image, constraint_map, constraint_values, radius, status, epsilon);
    } else if (solved && !solver->failed) {
        // The upsampled coarser matte is where conjugate gradients start.
        double **next = solveAlphaWith(image, constraint_map, constraint_values, radius, epsilon,
                                       solver->kind, alpha, solver->report);
        if (alpha) free_img((void **)alpha);
        alpha = next;
        *status = solver->report->status;
        solver->failed = solver->kind != SOLVER_UMFPACK && solver->report->status < 0;
    } else if (solved) {
        solved = 0;
        if (!alpha) alpha = (double **)get_init_arr(W, H, sizeof(double));
    }
    report_level(0, image, levels, solved);
    return alpha;
}

} // namespace

double **solveAlphaC2F(const TIFF_img *image, double **constraint_map, double **constraint_values, int levels,
                       int active_levels, int radius, int *status, double threshold, double epsilon) {
    LevelSolver specified{SOLVER_UMFPACK, nullptr, false};
    return solveLevels(image, constraint_map, constraint_values, levels, active_levels, radius, status,
                       threshold, epsilon, &specified);
}

double **solveAlphaC2FWith(const TIFF_img *image, double **constraint_map, double **constraint_values,
                           int levels, int active_levels, int radius, double threshold, double epsilon,
                           SolverKind kind, SolverReport *report) {
    *report = SolverReport();
    int status = 0;
    LevelSolver chosen{kind, report, false};
    return solveLevels(image, constraint_map, constraint_values, levels, active_levels, radius, &status,
                       threshold, epsilon, &chosen);
}

TIFF_img downSmpIm(const TIFF_img *image, int f) {
    if (f >= 3) {
        fprintf(stderr, "\nNo filter matrix set for dimensions over 5x5 i.e. > than filts 2!");
        exit(-1);
    }
    const int H = image->height, W = image->width;
    const bool colour = image->TIFF_type == 'a' || image->TIFF_type == 'c';
    const int channels = colour ? 3 : 1;
    TIFF_img out;
    memset(&out, 0, sizeof out);
    if (get_TIFF(&out, coarse_side(H, f), coarse_side(W, f), colour ? 'c' : 'g') != 0) return out;
    for (int ch = 0; ch < channels; ch++) {
        uint8_t **dst = colour ? out.color[ch] : out.mono;
        memset(dst[0], 0, (size_t)out.height * out.width);
    }
    const std::vector<double> kernel = kernel_2d(binomial_taps(f));
    for (int ch = 0; ch < channels; ch++) {
        const uint8_t *const *src = colour ? image->color[ch] : image->mono;
        uint8_t **dst = colour ? out.color[ch] : out.mono;
        for (int q = 0, x = f; x < W - f; q++, x += 2)
            for (int p = 0, y = f; y < H - f; p++, y += 2) {
                const int v = (int)filtered(src, y, x, f, kernel);
                dst[p][q] = (uint8_t)(v < 1 ? 0 : v >= 256 ? 255 : v);
            }
    }
    return out;
}

double **downSmpArr(const double *const *array, int height, int width, int f) {
    if (f < 0) f = 0;
    const int Hc = coarse_side(height, f), Wc = coarse_side(width, f);
    double **out = (double **)get_init_arr(Wc, Hc, sizeof(double));
    const std::vector<double> kernel = kernel_2d(binomial_taps(f));
    for (int q = 0, x = f; x < width - f; q++, x += 2)
        for (int p = 0, y = f; y < height - f; p++, y += 2)
            out[p][q] = filtered(array, y, x, f, kernel) < 0.5 ? 0.0 : 1.0;
    return out;
}

double **imerode(const double *const *array, int width, int height, int radius) {
    // The minimum over a rectangle is the minimum over its rows' minima, so rows then columns.
    double **rows = (double **)get_img(width, height, sizeof(double));
    double **out = (double **)get_img(width, height, sizeof(double));
    for (int i = 0; i < height; i++)
        for (int j = 0; j < width; j++) {
            const int lo = j - radius < 0 ? 0 : j - radius;
            const int hi = j + radius >= width ? width - 1 : j + radius;
            double m = array[i][j];
            for (int k = lo; k <= hi; k++)
                if (array[i][k] <= m) m = array[i][k];
            rows[i][j] = m;
        }
    for (int i = 0; i < height; i++) {
        const int lo = i - radius < 0 ? 0 : i - radius;
        const int hi = i + radius >= height ? height - 1 : i + radius;
        for (int j = 0; j < width; j++) {
            double m = rows[i][j];
            for (int k = lo; k <= hi; k++)
                if (rows[k][j] <= m) m = rows[k][j];
            out[i][j] = m;
        }
    }
    free_img((void **)rows);
    return out;
}
