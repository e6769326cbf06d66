// Foreground and background colour estimation by sparse least squares (see fg_bg.h).
//
// Per channel the unknown vector u holds F (entries 0..N-1) then B (N..2N-1). The rows of the system
// A u ~ b are, in order: the data terms wF*F = wF*I and wB*B = wB*I (2N rows), the compositing term
// alpha*F + (1-alpha)*B = I (N rows), and the smoothness terms WgF*G*F = 0 and WgB*G*B = 0 (4N rows
// each), where G differences each uncertain pixel with four neighbours and the weights grow with the
// alpha gradient there. A does not depend on the channel, so it and the normal matrix A'A are built
// once; each channel only forms A'b and solves A'A u = A'b with UMFPACK.
#include "matting/fg_bg.h"

#include "numeric/arrays.h"

#include <umfpack.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// Uncertain pixels, the ones whose colours are smoothed, have kLow <= alpha <= kHigh.
const double kLow = 0.02;
const double kHigh = 0.98;

// Returned by estimateFB when it cannot start: unusable input or a CHOLMOD failure.
const int kNotEstimated = 2;

// Frees the CHOLMOD objects of one estimation when it ends, however it ends; objects that are no
// longer needed can be released early to keep the peak memory down.
class CholmodObjects {
  public:
    explicit CholmodObjects(cholmod_common *common) : common_(common) {}
    ~CholmodObjects() {
        for (cholmod_sparse *s : sparse_)
            cholmod_free_sparse(&s, common_);
        for (cholmod_dense *d : dense_)
            cholmod_free_dense(&d, common_);
    }
    CholmodObjects(const CholmodObjects &) = delete;
    CholmodObjects &operator=(const CholmodObjects &) = delete;

    cholmod_sparse *keep(cholmod_sparse *s) {
        if (s) sparse_.push_back(s);
        failed_ = failed_ || !s;
        return s;
    }
    cholmod_dense *keep(cholmod_dense *d) {
        if (d) dense_.push_back(d);
        failed_ = failed_ || !d;
        return d;
    }
    void release(cholmod_sparse *s) {
        for (cholmod_sparse *&held : sparse_)
            if (held == s) {
                cholmod_free_sparse(&held, common_);
                held = sparse_.back();
                sparse_.pop_back();
                return;
            }
    }
    bool failed() const { return failed_; }

  private:
    cholmod_common *common_;
    std::vector<cholmod_sparse *> sparse_;
    std::vector<cholmod_dense *> dense_;
    bool failed_ = false;
};

// One neighbour direction of the gradient operator: pixel (y, x) is paired with (y + dy, x + dx).
struct Direction {
    int dx;
    int dy;
};
// Horizontal, vertical, diagonal, anti-diagonal: the order of G's blocks.
const Direction kDirections[4] = {{1, 0}, {0, 1}, {1, 1}, {1, -1}};

// Calls visit(k, neighbour) for every included pair of one direction, x outermost and y innermost,
// so that k (the pixel's column-major index) ascends.
template <typename Visit> void ForEachPair(int **mask, int width, int height, Direction d, Visit visit) {
    const int y_first = d.dy < 0 ? 1 : 0;
    const int y_last = d.dy > 0 ? height - 2 : height - 1;
    for (int x = 0; x + d.dx < width; ++x)
        for (int y = y_first; y <= y_last; ++y)
            if (mask[y][x] || mask[y + d.dy][x + d.dx])
                visit(imIndexToVect(y, x, height), imIndexToVect(y + d.dy, x + d.dx, height));
}

// One N x N block of G: counted, filled as a triplet matrix, converted to compressed columns.
cholmod_sparse *GradientBlock(int **mask, int width, int height, Direction d, cholmod_common *common) {
    const size_t n = size_t(width) * size_t(height);
    size_t pairs = 0;
    ForEachPair(mask, width, height, d, [&](int, int) { ++pairs; });
    cholmod_triplet *t = cholmod_allocate_triplet(n, n, 2 * pairs, 0, CHOLMOD_REAL, common);
    if (!t) return nullptr;
    int *ti = static_cast<int *>(t->i), *tj = static_cast<int *>(t->j);
    double *tx = static_cast<double *>(t->x);
    size_t e = 0;
    ForEachPair(mask, width, height, d, [&](int k, int neighbour) {
        ti[e] = k;
        tj[e] = k;
        tx[e++] = 1.0;
        ti[e] = k;
        tj[e] = neighbour;
        tx[e++] = -1.0;
    });
    t->nnz = e;
    cholmod_sparse *block = cholmod_triplet_to_sparse(t, 0, common);
    cholmod_free_triplet(&t, common);
    return block;
}

// An n x n diagonal matrix holding value(k) for each k where keep(k) is true.
template <typename Keep, typename Value>
cholmod_sparse *Diagonal(size_t n, Keep keep, Value value, cholmod_common *common) {
    size_t count = 0;
    for (size_t k = 0; k < n; ++k)
        count += keep(k) ? 1 : 0;
    cholmod_sparse *m = cholmod_allocate_sparse(n, n, count, 1, 1, 0, CHOLMOD_REAL, common);
    if (!m) return nullptr;
    int *p = static_cast<int *>(m->p), *i = static_cast<int *>(m->i);
    double *x = static_cast<double *>(m->x);
    int e = 0;
    for (size_t k = 0; k < n; ++k) {
        p[k] = e;
        if (keep(k)) {
            i[e] = int(k);
            x[e++] = value(k);
        }
    }
    p[n] = e;
    return m;
}

// An empty rows x cols matrix, the zero blocks of the concatenations.
cholmod_sparse *Empty(size_t rows, size_t cols, cholmod_common *common) {
    cholmod_sparse *m = cholmod_allocate_sparse(rows, cols, 0, 1, 1, 0, CHOLMOD_REAL, common);
    if (m)
        for (size_t j = 0; j <= cols; ++j)
            static_cast<int *>(m->p)[j] = 0;
    return m;
}

// Data weights: how strongly F (or B) is pinned to the observed colour; 0 where there is no entry.
double ForegroundDataWeight(double a) {
    if (a > kHigh) return 100 + 0.03 * a;
    if (a > 0.7) return 0.03 * a;
    if (a < kLow) return 0.01;
    return 0;
}
bool HasForegroundDataWeight(double a) {
    return a > 0.7 || a < kLow;
}

double BackgroundDataWeight(double a) {
    if (a > kHigh) return 0.01;
    if (a < kLow) return 100 + 0.03 * (1 - a);
    if (a < 0.3) return 0.03 * (1 - a);
    return 0;
}
bool HasBackgroundDataWeight(double a) {
    return a > kHigh || a < 0.3;
}

// The observed value of pixel (y, x) in channel c, in 0..1 units.
double Observed(const TIFF_img *image, int c, int y, int x) {
    switch (image->TIFF_type) {
    case 'g':
        return image->mono[y][x] / 255.0;
    case 'p':
        return image->cmap[image->mono[y][x]][c] / 255.0;
    default:
        return image->color[c][y][x] / 255.0;
    }
}

int ChannelCount(char type) {
    switch (type) {
    case 'c':
    case 'a':
    case 'p':
        return 3;
    case 'g':
        return 1;
    default:
        return 0;
    }
}

// A value already scaled to 0..255, truncated toward zero and clamped; NaN (a failed solve) gives 0.
uint8_t TruncateToByte(double v) {
    if (!(v > 0)) return 0;
    if (v >= 255) return 255;
    return uint8_t(v);
}

uint8_t RoundToByte(double value) {
    return TruncateToByte(255.0 * value + 0.5);
}

// Builds A and solves every channel into `estimate`, whose planes the caller has allocated.
int Estimate(const TIFF_img *image, double **alpha, FBEstimate *estimate, cholmod_common *common) {
    const int width = image->width, height = image->height;
    const size_t n = size_t(width) * size_t(height);
    CholmodObjects objects(common);

    // Uncertain pixels.
    int **mask = reinterpret_cast<int **>(get_init_arr(width, height, sizeof(int)));
    for (int x = 0; x < width; ++x)
        for (int y = 0; y < height; ++y)
            mask[y][x] = alpha[y][x] >= kLow && alpha[y][x] <= kHigh ? 1 : 0;

    cholmod_dense *alpha_vector = objects.keep(cholmod_allocate_dense(n, 1, n, CHOLMOD_REAL, common));
    if (!alpha_vector) {
        free_img(reinterpret_cast<void **>(mask));
        return kNotEstimated;
    }
    double *a = static_cast<double *>(alpha_vector->x);
    for (int x = 0; x < width; ++x)
        for (int y = 0; y < height; ++y)
            a[imIndexToVect(y, x, height)] = alpha[y][x];

    cholmod_sparse *g = objects.keep(getGmatByMask(mask, width, height, common));
    free_img(reinterpret_cast<void **>(mask));
    if (!g) return kNotEstimated;

    // Smoothness weights from the alpha gradient: Ga = G * alpha.
    cholmod_dense *ga = objects.keep(cholmod_zeros(4 * n, 1, CHOLMOD_REAL, common));
    if (!ga) return kNotEstimated;
    double one[2] = {1, 0}, zero[2] = {0, 0};
    cholmod_sdmult(g, 0, one, zero, alpha_vector, ga, common);
    const double *gav = static_cast<double *>(ga->x);
    cholmod_sparse *wg_f = objects.keep(Diagonal(
        4 * n, [&](size_t i) { return gav[i] != 0 || 1 - a[i % n] != 0; },
        [&](size_t i) { return std::sqrt(std::fabs(gav[i])) + 0.003 * (1 - a[i % n]); }, common));
    cholmod_sparse *wg_b = objects.keep(Diagonal(
        4 * n, [&](size_t i) { return gav[i] != 0 || a[i % n] != 0; },
        [&](size_t i) { return std::sqrt(std::fabs(gav[i])) + 0.003 * a[i % n]; }, common));

    // Data weights, kept as vectors for the right-hand sides too.
    std::vector<double> wf(n), wb(n);
    for (size_t k = 0; k < n; ++k) {
        wf[k] = ForegroundDataWeight(a[k]);
        wb[k] = BackgroundDataWeight(a[k]);
    }
    cholmod_sparse *wf_diag = objects.keep(Diagonal(
        n, [&](size_t k) { return HasForegroundDataWeight(a[k]); }, [&](size_t k) { return wf[k]; }, common));
    cholmod_sparse *wb_diag = objects.keep(Diagonal(
        n, [&](size_t k) { return HasBackgroundDataWeight(a[k]); }, [&](size_t k) { return wb[k]; }, common));
    cholmod_sparse *z = objects.keep(Empty(n, n, common));
    cholmod_sparse *z4 = objects.keep(Empty(4 * n, n, common));
    cholmod_sparse *alpha_diag = objects.keep(Diagonal(
        n, [](size_t) { return true; }, [&](size_t k) { return a[k]; }, common));
    cholmod_sparse *beta_diag = objects.keep(Diagonal(
        n, [](size_t) { return true; }, [&](size_t k) { return 1 - a[k]; }, common));
    if (objects.failed()) return kNotEstimated;

    // A = [wF Z; Z wB; diag(alpha) diag(1-alpha); WgF*G Z; Z WgB*G], 11N x 2N.
    cholmod_sparse *data_f = objects.keep(cholmod_horzcat(wf_diag, z, 1, common));
    cholmod_sparse *data_b = objects.keep(cholmod_horzcat(z, wb_diag, 1, common));
    cholmod_sparse *composite = objects.keep(cholmod_horzcat(alpha_diag, beta_diag, 1, common));
    cholmod_sparse *wg_f_g = objects.keep(cholmod_ssmult(wg_f, g, 0, 1, 1, common));
    cholmod_sparse *wg_b_g = objects.keep(cholmod_ssmult(wg_b, g, 0, 1, 1, common));
    if (objects.failed()) return kNotEstimated;
    for (cholmod_sparse *s : {g, wg_f, wg_b, wf_diag, wb_diag, alpha_diag, beta_diag})
        objects.release(s);
    cholmod_sparse *smooth_f = objects.keep(cholmod_horzcat(wg_f_g, z4, 1, common));
    cholmod_sparse *smooth_b = objects.keep(cholmod_horzcat(z4, wg_b_g, 1, common));
    if (objects.failed()) return kNotEstimated;
    for (cholmod_sparse *s : {wg_f_g, wg_b_g, z, z4})
        objects.release(s);
    cholmod_sparse *rows_0 = objects.keep(cholmod_vertcat(data_f, data_b, 1, common));
    cholmod_sparse *rows_1 = objects.keep(cholmod_vertcat(rows_0, composite, 1, common));
    cholmod_sparse *rows_2 = objects.keep(cholmod_vertcat(rows_1, smooth_f, 1, common));
    cholmod_sparse *big_a = objects.keep(cholmod_vertcat(rows_2, smooth_b, 1, common));
    if (objects.failed()) return kNotEstimated;
    for (cholmod_sparse *s : {data_f, data_b, composite, smooth_f, smooth_b, rows_0, rows_1, rows_2})
        objects.release(s);
    cholmod_sparse *at = objects.keep(cholmod_transpose(big_a, 1, common));
    cholmod_sparse *ata = objects.keep(cholmod_ssmult(at, big_a, 0, 1, 1, common));
    if (objects.failed()) return kNotEstimated;
    objects.release(big_a);

    cholmod_dense *b = objects.keep(cholmod_zeros(11 * n, 1, CHOLMOD_REAL, common));
    cholmod_dense *atb = objects.keep(cholmod_zeros(2 * n, 1, CHOLMOD_REAL, common));
    if (objects.failed()) return kNotEstimated;
    double *bv = static_cast<double *>(b->x);
    const int *ap = static_cast<int *>(ata->p), *ai = static_cast<int *>(ata->i);
    const double *ax = static_cast<double *>(ata->x);
    std::vector<double> u(2 * n);
    int result = UMFPACK_OK;
    for (int c = 0; c < estimate->channels; ++c) {
        for (int x = 0; x < width; ++x)
            for (int y = 0; y < height; ++y) {
                const size_t k = size_t(imIndexToVect(y, x, height));
                const double observed = Observed(image, c, y, x);
                bv[k] = a[k] > kLow ? wf[k] * observed : 0;
                bv[n + k] = a[k] < kHigh ? wb[k] * observed : 0;
                bv[2 * n + k] = observed;
            }
        cholmod_sdmult(at, 0, one, zero, b, atb, common);

        // A'A is the same for every channel, yet each channel factorises it afresh, as this
        // estimation has always done.
        std::fill(u.begin(), u.end(), 0.0);
        void *symbolic = nullptr, *numeric = nullptr;
        const int order = int(2 * n);
        int status = umfpack_di_symbolic(order, order, ap, ai, ax, &symbolic, nullptr, nullptr);
        if (status == UMFPACK_OK)
            status = umfpack_di_numeric(ap, ai, ax, symbolic, &numeric, nullptr, nullptr);
        umfpack_di_free_symbolic(&symbolic);
        // A singular matrix still has a numeric object (with a warning status); solve with it anyway.
        if (numeric) {
            const int solved = umfpack_di_solve(UMFPACK_A, ap, ai, ax, u.data(),
                                                static_cast<double *>(atb->x), numeric, nullptr, nullptr);
            if (status == UMFPACK_OK) status = solved;
        }
        umfpack_di_free_numeric(&numeric);
        if (status != UMFPACK_OK && result == UMFPACK_OK) result = status;

        for (int x = 0; x < width; ++x)
            for (int y = 0; y < height; ++y) {
                const size_t k = size_t(imIndexToVect(y, x, height));
                estimate->fg[c][y][x] = u[k];
                estimate->bg[c][y][x] = u[n + k];
            }
    }
    return result;
}

void WriteOrDie(const char *path, const char *name_in_message, const TIFF_img *record, int *close_result) {
    FILE *fp = std::fopen(path, "wb");
    if (!fp) {
        std::fprintf(stderr, "cannot open file %s\n", path);
        std::exit(1);
    }
    if (write_TIFF(fp, record)) {
        std::fprintf(stderr, "error writing TIFF file %s\n", name_in_message);
        std::exit(1);
    }
    *close_result = std::fclose(fp);
}

} // namespace

int imIndexToVect(int y, int x, int height) {
    return x * height + y;
}

cholmod_sparse *getGmatByMask(int **mask, int width, int height, cholmod_common *common) {
    cholmod_sparse *blocks[4] = {nullptr, nullptr, nullptr, nullptr};
    for (int d = 0; d < 4; ++d)
        blocks[d] = GradientBlock(mask, width, height, kDirections[d], common);
    cholmod_sparse *g = nullptr;
    if (blocks[0] && blocks[1] && blocks[2] && blocks[3]) {
        cholmod_sparse *hv = cholmod_vertcat(blocks[0], blocks[1], 1, common);
        cholmod_sparse *hvd = hv ? cholmod_vertcat(hv, blocks[2], 1, common) : nullptr;
        g = hvd ? cholmod_vertcat(hvd, blocks[3], 1, common) : nullptr;
        cholmod_free_sparse(&hv, common);
        cholmod_free_sparse(&hvd, common);
    }
    for (cholmod_sparse *&block : blocks)
        cholmod_free_sparse(&block, common);
    return g;
}

cholmod_sparse *getArrGmatByMask(int **mask, int width, int height, cholmod_common *common) {
    const size_t n = size_t(width) * size_t(height);
    // Rows are visited in ascending order (block by block, pixels in index order), so appending each
    // row's two entries to their columns keeps every column sorted.
    std::vector<int> column_count(n + 1, 0);
    for (int d = 0; d < 4; ++d)
        ForEachPair(mask, width, height, kDirections[d], [&](int k, int neighbour) {
            ++column_count[size_t(k)];
            ++column_count[size_t(neighbour)];
        });
    size_t entries = 0;
    for (size_t j = 0; j < n; ++j)
        entries += size_t(column_count[j]);
    cholmod_sparse *g = cholmod_allocate_sparse(4 * n, n, entries, 1, 1, 0, CHOLMOD_REAL, common);
    if (!g) return nullptr;
    int *p = static_cast<int *>(g->p), *i = static_cast<int *>(g->i);
    double *x = static_cast<double *>(g->x);
    std::vector<int> next(n);
    p[0] = 0;
    for (size_t j = 0; j < n; ++j) {
        p[j + 1] = p[j] + column_count[j];
        next[j] = p[j];
    }
    for (int d = 0; d < 4; ++d) {
        const int offset = int(size_t(d) * n);
        ForEachPair(mask, width, height, kDirections[d], [&](int k, int neighbour) {
            i[next[size_t(k)]] = offset + k;
            x[next[size_t(k)]++] = 1.0;
            i[next[size_t(neighbour)]] = offset + k;
            x[next[size_t(neighbour)]++] = -1.0;
        });
    }
    return g;
}

int estimateFB(const struct TIFF_img *image, double **alpha, struct FBEstimate *estimate) {
    const int channels = ChannelCount(image->TIFF_type);
    // A has 11N rows, which must stay within UMFPACK's and CHOLMOD's 32-bit indices.
    if (channels == 0 || image->width < 1 || image->height < 1 ||
        int64_t(image->width) * image->height > INT_MAX / 11)
        return kNotEstimated;
    FBEstimate result{
        image->height, image->width, channels, {nullptr, nullptr, nullptr}, {nullptr, nullptr, nullptr}};
    for (int c = 0; c < channels; ++c) {
        result.fg[c] = reinterpret_cast<double **>(get_img(image->width, image->height, sizeof(double)));
        result.bg[c] = reinterpret_cast<double **>(get_img(image->width, image->height, sizeof(double)));
    }
    cholmod_common common;
    cholmod_start(&common);
    const int status = Estimate(image, alpha, &result, &common);
    cholmod_finish(&common);
    if (status == kNotEstimated) {
        freeFBEstimate(&result);
        return status;
    }
    *estimate = result;
    return status;
}

void freeFBEstimate(struct FBEstimate *estimate) {
    for (int c = 0; c < 3; ++c) {
        free_img(reinterpret_cast<void **>(estimate->fg[c]));
        free_img(reinterpret_cast<void **>(estimate->bg[c]));
        estimate->fg[c] = nullptr;
        estimate->bg[c] = nullptr;
    }
}

int getForegroundRGBA(const struct TIFF_img *image, double **alpha, struct TIFF_img *rgba) {
    FBEstimate estimate;
    const int status = estimateFB(image, alpha, &estimate);
    if (status != UMFPACK_OK) {
        if (status != kNotEstimated) freeFBEstimate(&estimate);
        return status;
    }
    TIFF_img out{};
    get_TIFF(&out, image->height, image->width, 'a');
    for (int y = 0; y < image->height; ++y)
        for (int x = 0; x < image->width; ++x) {
            for (int c = 0; c < 3; ++c)
                out.color[c][y][x] = RoundToByte(estimate.fg[estimate.channels == 3 ? c : 0][y][x]);
            const double a = alpha[y][x];
            out.color[3][y][x] = a > 1.0 ? 255 : TruncateToByte(255.0 * a);
        }
    freeFBEstimate(&estimate);
    *rgba = out;
    return 0;
}

int solveFB(const struct TIFF_img *image, double **alpha) {
    FBEstimate estimate;
    if (estimateFB(image, alpha, &estimate) == kNotEstimated) {
        std::fprintf(stderr, "solveFB: cannot estimate colours of an image of type %c\n", image->TIFF_type);
        return 1;
    }
    const char type = estimate.channels == 3 ? 'c' : 'g';
    TIFF_img foreground{}, background{};
    get_TIFF(&foreground, image->height, image->width, type);
    get_TIFF(&background, image->height, image->width, type);
    for (int c = 0; c < estimate.channels; ++c) {
        uint8_t **f_plane = type == 'c' ? foreground.color[c] : foreground.mono;
        uint8_t **b_plane = type == 'c' ? background.color[c] : background.mono;
        for (int y = 0; y < image->height; ++y)
            for (int x = 0; x < image->width; ++x) {
                f_plane[y][x] = TruncateToByte(255.0 * estimate.fg[c][y][x] * alpha[y][x]);
                b_plane[y][x] = TruncateToByte(255.0 * estimate.bg[c][y][x] * (1 - alpha[y][x]));
            }
    }
    freeFBEstimate(&estimate);
    int close_result = 0;
    WriteOrDie("a_foreground.tif", "foreground.tiff", &foreground, &close_result);
    WriteOrDie("a_background.tif", "background.tiff", &background, &close_result);
    for (TIFF_img *record : {&foreground, &background}) {
        free_TIFF(record);
        if (type == 'c') std::free(record->color);
    }
    return close_result;
}
