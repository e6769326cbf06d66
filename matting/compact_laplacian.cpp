// Streaming assembly of the constrained matting system into the compact GridMatrix store.
//
// For a window w of n = (2r+1)^2 pixels with colours I_k (c channels, scaled to [0, 1]), mean mu and
// covariance S, the affinity of two of its pixels is
//     w_km = (1 + (I_k - mu)^T (S + epsilon/n Id)^-1 (I_m - mu)) / n,
// and L = D_w - W, where W sums the affinities over all windows and D_w holds W's row sums. With the
// Cholesky factor C = G G^T of the regularised covariance and z_k = G^-1 (I_k - mu), the affinity is
// (1 + z_k . z_m) / n, symmetric by construction and free of an explicit inverse.
#include "matting/compact_laplacian.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "matting/parallel.h"

namespace {

constexpr double kEpsilonFloor = 1e-7;
// Window columns per part below which splitting the window pass over two threads is not worth it.
constexpr int64_t kParallelGrain = 1 << 15;

struct Assembly {
    const TIFF_img *image;
    double **map;
    int channels;
    int r;
    int side;  // 2r + 1
    int count; // window pixels n
    double epsilon;
    GridMatrix *A;
    // For each window pixel k: its offset from the window's top-left pixel in the column-major index.
    std::vector<int64_t> rel;
    // For each pair k < m of window pixels: the plane that holds their element.
    std::vector<double *> pair_plane;
};

struct Failure {
    bool failed = false;
    int row = 0, col = 0;
};

// Gathers the colours (scaled to [0, 1]) and constraint weights of columns j - r .. j + r, column-major,
// so that the window loop reads contiguous memory whatever the image's row-major planes look like.
void loadColumns(const Assembly &s, int j, std::vector<double> &colour, std::vector<double> &weight) {
    const int H = s.image->height;
    for (int a = 0; a < s.side; ++a) {
        const int col = j - s.r + a;
        for (int ch = 0; ch < s.channels; ++ch) {
            double *dst = colour.data() + (size_t(ch) * s.side + a) * H;
            uint8_t **plane = s.channels == 3 ? s.image->color[ch] : s.image->mono;
            for (int row = 0; row < H; ++row)
                dst[row] = plane[row][col] / 255.0;
        }
        double *w = weight.data() + size_t(a) * H;
        for (int row = 0; row < H; ++row)
            w[row] = s.map[row][col];
    }
}

// Cholesky factor of the regularised 3 x 3 covariance, lower triangle g[0..5] = g00 g10 g11 g20 g21 g22.
bool factorCovariance3(const double cov[6], double g[6]) {
    const double d0 = cov[0];
    if (!(d0 > 0.0)) return false;
    g[0] = std::sqrt(d0);
    g[1] = cov[1] / g[0];
    const double d1 = cov[2] - g[1] * g[1];
    if (!(d1 > 0.0)) return false;
    g[2] = std::sqrt(d1);
    g[3] = cov[3] / g[0];
    g[4] = (cov[4] - g[3] * g[1]) / g[2];
    const double d2 = cov[5] - g[3] * g[3] - g[4] * g[4];
    if (!(d2 > 0.0)) return false;
    g[5] = std::sqrt(d2);
    return std::isfinite(g[5]);
}

// Adds the windows centred in columns [j0, j1) to the matrix. Windows are visited column by column and
// row by row within a column, the order getLaplacian1 uses.
void assembleColumns(const Assembly &s, int j0, int j1, Failure *failure) {
    const int H = s.image->height;
    const int n = s.count, side = s.side, r = s.r, c = s.channels;
    std::vector<double> colour(size_t(c) * side * H), weight(size_t(side) * H), colmin(H);
    std::vector<double> z(size_t(n) * 3), rowsum(n);
    double *diag = s.A->diag.data();
    const double inv_n = 1.0 / n;
    for (int j = j0; j < j1; ++j) {
        loadColumns(s, j, colour, weight);
        for (int row = 0; row < H; ++row) {
            double m = weight[row];
            for (int a = 1; a < side; ++a)
                m = std::min(m, weight[size_t(a) * H + row]);
            colmin[row] = m;
        }
        for (int i = r; i < H - r; ++i) {
            double wmin = colmin[i - r];
            for (int b = 1; b < side; ++b)
                wmin = std::min(wmin, colmin[i - r + b]);
            if (wmin != 0.0) continue;
            // Centred colours of the window, pixel k = a * side + b at (i - r + b, j - r + a).
            double mean[3] = {0.0, 0.0, 0.0};
            for (int ch = 0; ch < c; ++ch) {
                for (int a = 0; a < side; ++a) {
                    const double *src = colour.data() + (size_t(ch) * side + a) * H + (i - r);
                    for (int b = 0; b < side; ++b) {
                        z[size_t(a * side + b) * 3 + ch] = src[b];
                        mean[ch] += src[b];
                    }
                }
                mean[ch] *= inv_n;
            }
            for (int k = 0; k < n; ++k)
                for (int ch = 0; ch < c; ++ch)
                    z[size_t(k) * 3 + ch] -= mean[ch];
            const double reg = s.epsilon * inv_n;
            if (c == 3) {
                double cov[6] = {0, 0, 0, 0, 0, 0};
                for (int k = 0; k < n; ++k) {
                    const double *x = &z[size_t(k) * 3];
                    cov[0] += x[0] * x[0];
                    cov[1] += x[1] * x[0];
                    cov[2] += x[1] * x[1];
                    cov[3] += x[2] * x[0];
                    cov[4] += x[2] * x[1];
                    cov[5] += x[2] * x[2];
                }
                for (double &v : cov)
                    v *= inv_n;
                cov[0] += reg;
                cov[2] += reg;
                cov[5] += reg;
                double g[6];
                if (!factorCovariance3(cov, g)) {
                    if (!failure->failed) *failure = {true, i, j};
                    return;
                }
                for (int k = 0; k < n; ++k) {
                    double *x = &z[size_t(k) * 3];
                    const double z0 = x[0] / g[0];
                    const double z1 = (x[1] - g[1] * z0) / g[2];
                    const double z2 = (x[2] - g[3] * z0 - g[4] * z1) / g[5];
                    x[0] = z0;
                    x[1] = z1;
                    x[2] = z2;
                }
            } else {
                double var = 0.0;
                for (int k = 0; k < n; ++k)
                    var += z[size_t(k) * 3] * z[size_t(k) * 3];
                const double scale = 1.0 / std::sqrt(var * inv_n + reg);
                for (int k = 0; k < n; ++k) {
                    z[size_t(k) * 3] *= scale;
                    z[size_t(k) * 3 + 1] = 0.0;
                    z[size_t(k) * 3 + 2] = 0.0;
                }
            }
            // Off-diagonal elements get -w; each affinity also enters both pixels' diagonal. A pixel's
            // affinity with itself would enter its diagonal and leave it again, so it is never formed.
            const int64_t corner = (i - r) + int64_t(j - r) * H;
            std::fill(rowsum.begin(), rowsum.end(), 0.0);
            double *const *plane = s.pair_plane.data();
            for (int k = 0; k < n; ++k) {
                const double *zk = &z[size_t(k) * 3];
                const int64_t pk = corner + s.rel[k];
                for (int m = k + 1; m < n; ++m, ++plane) {
                    const double *zm = &z[size_t(m) * 3];
                    const double w = (1.0 + zk[0] * zm[0] + zk[1] * zm[1] + zk[2] * zm[2]) * inv_n;
                    (*plane)[pk] -= w;
                    rowsum[k] += w;
                    rowsum[m] += w;
                }
            }
            for (int k = 0; k < n; ++k)
                diag[corner + s.rel[k]] += rowsum[k];
        }
    }
}

// getLaplacian1 forms each diagonal element by walking every offset of the (4r+1)^2 span and reading
// the element there, checking only that the index stays inside the matrix. On an image of more than
// 4r rows an offset that runs off the top or bottom of a column never lands on a neighbour; on a
// shorter image it can land on a pixel that is also a true neighbour, whose affinity then counts twice.
void addWrappedNeighbours(GridMatrix *A, int r) {
    const int H = A->height, R = 2 * r;
    const int64_t n = gridPixels(A);
    std::vector<double> extra(n, 0.0);
    for (int64_t p = 0; p < n; ++p) {
        const int i = int(p % H), j = int(p / H);
        for (int dcol = -R; dcol <= R; ++dcol)
            for (int drow = -R; drow <= R; ++drow) {
                if (i + drow >= 0 && i + drow < H) continue;
                const int64_t q = p + drow + int64_t(dcol) * H;
                if (q < 0 || q >= n || q == p) continue;
                const int tr = int(q % H) - i, tc = int(q / H) - j;
                if (std::abs(tr) > R || std::abs(tc) > R) continue;
                extra[p] -= gridElement(A, p, tr, tc);
            }
    }
    for (int64_t p = 0; p < n; ++p)
        A->diag[p] += extra[p];
}

} // namespace

int getCompactMattingSystem(const TIFF_img *image, double **map, double **values, int radius, double epsilon,
                            GridSystem *system, std::string *message) {
    GridMatrix *A = &system->A;
    std::vector<double> *b = &system->b;
    const int H = image->height, W = image->width;
    Assembly s;
    s.image = image;
    s.map = map;
    s.channels = (image->TIFF_type == 'a' || image->TIFF_type == 'c') ? 3 : 1;
    s.r = std::max(radius, 1);
    s.side = 2 * s.r + 1;
    s.count = s.side * s.side;
    s.epsilon = std::max(epsilon, kEpsilonFloor);
    s.A = A;
    initGridMatrix(A, H, W, 2 * s.r);
    const int64_t n = gridPixels(A);

    s.rel.resize(s.count);
    for (int k = 0; k < s.count; ++k)
        s.rel[k] = (k % s.side) + int64_t(k / s.side) * H;
    for (int k = 0; k < s.count; ++k)
        for (int m = k + 1; m < s.count; ++m) {
            const int drow = m % s.side - k % s.side, dcol = m / s.side - k / s.side;
            s.pair_plane.push_back(A->bands.data() + gridBandIndex(A, drow, dcol) * n);
        }

    // Two parts of window columns whose pixels cannot meet: the 2r columns of windows between them
    // touch both sides and are added afterwards.
    Failure failures[3];
    const int first = s.r, last = W - s.r; // window centres run over [first, last)
    const int columns = last - first;
    if (columns > 4 * s.r + 4 && int64_t(columns) * H >= 2 * kParallelGrain) {
        const int mid = first + columns / 2;
        parallelTwo([&] { assembleColumns(s, first, mid, &failures[0]); },
                    [&] { assembleColumns(s, mid + 2 * s.r, last, &failures[1]); });
        assembleColumns(s, mid, mid + 2 * s.r, &failures[2]);
    } else if (columns > 0) {
        assembleColumns(s, first, last, &failures[0]);
    }
    for (const Failure &f : failures)
        if (f.failed) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "the colour covariance of the window at row %d, column %d is not positive definite",
                          f.row, f.col);
            *message = text;
            return -1;
        }

    if (H <= 4 * s.r) addWrappedNeighbours(A, s.r);

    system->channels = s.channels;
    system->colour.resize(size_t(s.channels) * n);
    for (int ch = 0; ch < s.channels; ++ch) {
        uint8_t **plane = s.channels == 3 ? image->color[ch] : image->mono;
        float *dst = system->colour.data() + size_t(ch) * n;
        for (int i = 0; i < H; ++i)
            for (int j = 0; j < W; ++j)
                dst[i + int64_t(j) * H] = float(plane[i][j] / 255.0);
    }

    b->assign(n, 0.0);
    for (int j = 0; j < W; ++j)
        for (int i = 0; i < H; ++i) {
            const int64_t p = i + int64_t(j) * H;
            const double c = map[i][j] * kConstraintWeight;
            if (c != 0.0) A->diag[p] += c;
            (*b)[p] = values[i][j] * c;
        }
    return 0;
}
