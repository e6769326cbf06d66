// The matting Laplacian, assembled window by window into preallocated per-pixel neighbour slots.
//
// Every row's possible neighbours are known in advance: a pixel pairs only with pixels at most 2r rows
// and 2r columns away. The upper half of that span (the pixel itself, the 2r pixels below it in its
// column and the (4r+1)-pixel stretches of the 2r columns to its right) gives each row a fixed set of
// slots, in ascending matrix column order. Windows are visited column by column as the matrix was
// defined, and their affinities are added into the slots in that same order, so every element is the
// same sum as when rows are merged one window at a time. A pixel column is final once the window column
// r to its right has been processed, so only 2r+1 pixel columns of slots are alive at once; a final
// column is compacted into the store's rows, with its Laplacian values, and its slots are reused.
#include "matting/laplacian.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "matting/coarse_to_fine.h"
#include "numeric/arrays.h"
#include "numeric/dense.h"

namespace {

// Window geometry shared by all windows of one build.
struct WindowShape {
    int r;                      // window radius used for the loops (at least 1)
    int count;                  // window elements listed (the element count from the radius as passed)
    int slots;                  // slots per pixel: (2r+1) + 2r(4r+1)
    std::vector<int> col_off;   // column offset of each listed element
    std::vector<int> row_off;   // row offset of each listed element
    std::vector<int> pair_slot; // slot in row k of the pair (k, m), m >= k, at k * count + m
};

// Slot of neighbour (du columns right, dv rows down) in the upper half of a pixel's span.
int slot_of(int r, int du, int dv) {
    if (du == 0) return dv;
    return (2 * r + 1) + (du - 1) * (4 * r + 1) + (dv + 2 * r);
}

WindowShape make_shape(int r, int count) {
    WindowShape w;
    w.r = r;
    w.slots = (2 * r + 1) + 2 * r * (4 * r + 1);
    for (int a = -r; a <= r; a++)
        for (int b = -r; b <= r; b++) {
            w.col_off.push_back(a);
            w.row_off.push_back(b);
        }
    const int listed = (2 * r + 1) * (2 * r + 1);
    w.count = count < listed ? count : listed;
    w.pair_slot.assign((size_t)w.count * w.count, 0);
    for (int k = 0; k < w.count; k++)
        for (int m = k; m < w.count; m++)
            w.pair_slot[(size_t)k * w.count + m] =
                slot_of(r, w.col_off[m] - w.col_off[k], w.row_off[m] - w.row_off[k]);
    return w;
}

// Index offset, in the column-major pixel numbering, of each slot.
std::vector<long> slot_offsets(int r, int height) {
    std::vector<long> off;
    for (int dv = 0; dv <= 2 * r; dv++)
        off.push_back(dv);
    for (int du = 1; du <= 2 * r; du++)
        for (int dv = -2 * r; dv <= 2 * r; dv++)
            off.push_back((long)du * height + dv);
    return off;
}

// How many entries of the span's offset list name each index difference. The list is
// (u * height + v) - 2r (height + 1) for u, v in 0 .. s-1; when height <= 4r some differences are named
// twice, and the diagonal then counts that neighbour's affinity twice.
struct OffsetCounts {
    long lowest = 0;
    std::vector<int> count;
    int of(long d) const {
        long k = d - lowest;
        return (k < 0 || k >= (long)count.size()) ? 0 : count[(size_t)k];
    }
};

OffsetCounts offset_counts(int s, int r, int height) {
    OffsetCounts oc;
    if (s < 1) return oc;
    oc.lowest = -2L * r * (height + 1);
    oc.count.assign((size_t)((long)(s - 1) * height + (s - 1) + 1), 0);
    for (int u = 0; u < s; u++)
        for (int v = 0; v < s; v++)
            oc.count[(size_t)((long)u * height + v)]++;
    return oc;
}

[[noreturn]] void fail_not_positive_definite() {
    fprintf(stderr, "\nFailure - The matrix A is not positive definite ");
    fprintf(stderr, "symmetric (within working accuracy).\n");
    exit(1);
}

[[noreturn]] void fail_singular() {
    fprintf(stderr, "\nFailure - The matrix L is singular.\n");
    exit(1);
}

// Scratch for one window's dense algebra, allocated once per build.
struct WindowWork {
    std::vector<double> X, XC, T, C, mumu, mu;
    WindowWork(int n, int c)
        : X((size_t)n * c), XC((size_t)n * c), T((size_t)n * n), C(c * c), mumu(c * c), mu(c) {}
};

// The affinities (T + 1) / n of the window centred at (i, j) into w.T, as the window's n x n matrix.
void window_affinities(const TIFF_img *image, int c, int i, int j, const WindowShape &shape, double epsilon,
                       WindowWork &w) {
    const int n = shape.count;
    for (int k = 0; k < n; k++) {
        const int y = i + shape.row_off[k], x = j + shape.col_off[k];
        for (int ch = 0; ch < c; ch++) {
            const uint8_t sample = c == 3 ? image->color[ch][y][x] : image->mono[y][x];
            w.X[(size_t)k * c + ch] = sample / 255.0;
        }
    }
    for (int ch = 0; ch < c; ch++) {
        double sum = 0.0;
        for (int k = 0; k < n; k++)
            sum += w.X[(size_t)k * c + ch];
        w.mu[ch] = sum / n;
    }
    // Covariance C = X^T X / n - mu mu^T, then X centred and C regularised.
    Self_Transpose_Multiply(w.C.data(), w.X.data(), n, c);
    Divide_Matrix_by_Scalar(w.C.data(), c, c, n);
    Multiply_Self_Transpose(w.mumu.data(), w.mu.data(), c, 1);
    for (int e = 0; e < c * c; e++)
        w.C[e] -= w.mumu[e];
    for (int k = 0; k < n; k++)
        for (int ch = 0; ch < c; ch++)
            w.X[(size_t)k * c + ch] -= w.mu[ch];
    for (int ch = 0; ch < c; ch++)
        w.C[ch * c + ch] += epsilon / n;
    if (Choleski_LU_Decomposition(w.C.data(), c) < 0) fail_not_positive_definite();
    if (Choleski_LU_Inverse(w.C.data(), c) < 0) fail_singular();
    Multiply_Matrices(w.XC.data(), w.X.data(), n, c, w.C.data(), c);
    Multiply_Matrix_with_Transpose(w.T.data(), w.XC.data(), n, c, w.X.data(), n);
    for (size_t e = 0; e < w.T.size(); e++)
        w.T[e] = (w.T[e] + 1) / n;
}

// The live pixel columns: for each, per pixel, the summed affinity of every slot and whether any window
// touched it, and the pixel's running diagonal sum (its affinities counted over the span's offsets).
struct ColumnRing {
    int columns, height, slots;
    std::vector<double> value;
    std::vector<unsigned char> touched;
    std::vector<double> diag_sum;

    ColumnRing(int columns_, int height_, int slots_)
        : columns(columns_), height(height_), slots(slots_), value((size_t)columns_ * height_ * slots_),
          touched(value.size()), diag_sum((size_t)columns_ * height_) {}
    size_t pixel(int x, int y) const { return (size_t)(x % columns) * height + y; }
    void clear(int x) {
        const size_t first = pixel(x, 0);
        std::fill_n(value.begin() + first * slots, (size_t)height * slots, 0.0);
        std::fill_n(touched.begin() + first * slots, (size_t)height * slots, 0);
        std::fill_n(diag_sum.begin() + first, (size_t)height, 0.0);
    }
};

// Moves pixel column x from the ring into the matrix as Laplacian rows: -w off the diagonal, and on it
// the row's affinities summed over the span's offsets minus its own self-affinity. Contributions to the
// diagonals of the later pixels it pairs with are added to their ring entries; its earlier partners
// have already added theirs, so its sum is complete here.
void flush_column(QMatrix *A, ColumnRing &ring, int x, const std::vector<long> &slot_off,
                  const OffsetCounts &counts) {
    const int H = ring.height, S = ring.slots;
    const int self_count = counts.of(0);
    for (int y = 0; y < H; y++) {
        const size_t px = ring.pixel(x, y);
        const double *val = &ring.value[px * S];
        const unsigned char *hit = &ring.touched[px * S];
        if (!hit[0]) continue; // a pixel in no processed window keeps an empty row
        const long p = y + (long)x * H;
        size_t len = 0;
        double sum = ring.diag_sum[px] + self_count * val[0];
        for (int k = 1; k < S; k++) {
            if (!hit[k]) continue;
            len++;
            const long d = slot_off[k];
            sum += counts.of(d) * val[k];
            const long q = p + d;
            const int qx = (int)(q / H), qy = (int)(q % H);
            ring.diag_sum[ring.pixel(qx, qy)] += counts.of(-d) * val[k];
        }
        const size_t row = (size_t)p + 1;
        Q_SetLen(A, row, len + 1);
        Q_SetEntry(A, row, 0, row, -val[0] + sum);
        size_t e = 1;
        for (int k = 1; k < S; k++)
            if (hit[k]) Q_SetEntry(A, row, e++, (size_t)(p + slot_off[k]) + 1, -val[k]);
    }
}

} // namespace

QMatrix getLaplacian1(const TIFF_img *image, const double *const *constraint_map, int radius,
                      double epsilon) {
    const int H = image->height, W = image->width;
    const int n = (2 * radius + 1) * (2 * radius + 1);
    const int s = 4 * radius + 1;
    QMatrix A;
    Q_Constr(&A, "A", (size_t)W * H, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    if (epsilon < 1e-7) epsilon = 1e-7;
    const int r = radius < 1 ? 1 : radius;
    double **eroded = imerode(constraint_map, W, H, r);
    const int c = (image->TIFF_type == 'a' || image->TIFF_type == 'c') ? 3 : 1;

    if (W >= 2 * r + 1 && H >= 2 * r + 1) {
        const WindowShape shape = make_shape(r, n);
        const std::vector<long> slot_off = slot_offsets(r, H);
        const OffsetCounts counts = offset_counts(s, r, H);
        ColumnRing ring(2 * r + 1, H, shape.slots);
        WindowWork work(shape.count, c);
        const int m = shape.count;
        for (int x = 0; x <= 2 * r; x++)
            ring.clear(x);
        for (int j = r; j <= W - r - 1; j++) {
            if (j > r) ring.clear(j + r);
            for (int i = r; i <= H - r - 1; i++) {
                if (eroded[i][j] != 0.0) continue;
                window_affinities(image, c, i, j, shape, epsilon, work);
                for (int k = 0; k < m; k++) {
                    const size_t base = ring.pixel(j + shape.col_off[k], i + shape.row_off[k]) * shape.slots;
                    double *val = &ring.value[base];
                    unsigned char *hit = &ring.touched[base];
                    const double *t = &work.T[(size_t)k * m];
                    const int *slot = &shape.pair_slot[(size_t)k * m];
                    for (int q = k; q < m; q++) {
                        val[slot[q]] += t[q];
                        hit[slot[q]] = 1;
                    }
                }
            }
            flush_column(&A, ring, j - r, slot_off, counts);
        }
        for (int x = W - 2 * r; x < W; x++)
            flush_column(&A, ring, x, slot_off, counts);
    }
    free_img((void **)eroded);
    return A;
}

int get_non_zeroes(const double *const *constraint_map, int width, int height, int radius) {
    const long long span = (4LL * radius + 1) * (4LL * radius + 1);
    long long total = 0;
    for (int j = 0; j < width; j++)
        for (int i = 0; i < height; i++) {
            total += constraint_map[i][j] == 0.0 ? span : 1;
            if (total > INT_MAX) {
                fprintf(stderr, "integer overrun in get_non_zeroes function");
                return -1;
            }
        }
    return (int)total;
}

double SymLaplacianMBreq(int width, int height, int radius) {
    const double span = (4.0 * radius + 1) * (4.0 * radius + 1);
    return (double)width * height * ((span + 1) / 2) * 8 / 1e6;
}
