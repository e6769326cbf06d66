// Element-by-element comparisons of CHOLMOD sparse and dense objects with each other, with the store's
// vectors and with dense arrays, for debugging.
#include "matting/cholmod_diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

constexpr double Tolerance = 1e-10;

bool differ(double x, double y) {
    return !(std::fabs(x - y) <= Tolerance);
}

// Reads the column pointers and row indices of a sparse matrix whatever its index type.
struct Columns {
    const cholmod_sparse *A;

    long index(const void *array, size_t k) const {
        if (A->itype == CHOLMOD_LONG) return static_cast<const SuiteSparse_long *>(array)[k];
        return static_cast<const int *>(array)[k];
    }
    size_t begin(size_t j) const { return static_cast<size_t>(index(A->p, j)); }
    size_t end(size_t j) const {
        return A->packed ? static_cast<size_t>(index(A->p, j + 1))
                         : begin(j) + static_cast<size_t>(index(A->nz, j));
    }
    size_t row(size_t p) const { return static_cast<size_t>(index(A->i, p)); }
    double value(size_t p) const { return static_cast<const double *>(A->x)[p]; }

    // Whether CHOLMOD reads element (i, j): a symmetric matrix ignores one triangle.
    bool used(size_t i, size_t j) const { return A->stype == 0 || (A->stype > 0 ? i <= j : i >= j); }
};

void print_values_differ(size_t i1, size_t j1, double v1, size_t i2, size_t j2, double v2) {
    std::printf("Values are different comparing A%d,%d (%g) B%d,%d (%g)\n", static_cast<int>(i1),
                static_cast<int>(j1), v1, static_cast<int>(i2), static_cast<int>(j2), v2);
}

const double *first_column(const cholmod_dense *X) {
    return static_cast<const double *>(X->x);
}

} // namespace

long hasNonZeros(const cholmod_dense *X, size_t from) {
    const double *x = first_column(X);
    for (size_t k = from; k < X->nrow; k++)
        if (differ(x[k], 0.0)) return static_cast<long>(k);
    return -1;
}

int cmpSparseVsArray(const cholmod_sparse *A, double **a) {
    Columns cols{A};
    std::vector<char> stored(A->nrow);
    int differences = 0;
    for (size_t j = 0; j < A->ncol; j++) {
        std::fill(stored.begin(), stored.end(), 0);
        for (size_t p = cols.begin(j), e = cols.end(j); p < e; p++) {
            size_t i = cols.row(p);
            if (i >= A->nrow || !cols.used(i, j)) continue;
            stored[i] = 1;
            if (differ(cols.value(p), a[i][j])) {
                print_values_differ(i, j, cols.value(p), i, j, a[i][j]);
                differences++;
            }
        }
        for (size_t i = 0; i < A->nrow; i++)
            if (!stored[i] && cols.used(i, j) && differ(a[i][j], 0.0)) {
                std::printf("value found in array nothing in sparse col at i,j %d,%d\n", static_cast<int>(i),
                            static_cast<int>(j));
                differences++;
            }
    }
    return differences;
}

int cmpDenseVsDense(const cholmod_dense *A, const cholmod_dense *B) {
    const double *x = first_column(A), *y = first_column(B);
    size_t common = A->nrow < B->nrow ? A->nrow : B->nrow;
    int differences = 0;
    for (size_t k = 0; k < common; k++)
        if (differ(x[k], y[k])) {
            std::printf("disparity between dense objects at index %d.\n", static_cast<int>(k));
            differences++;
        }
    if (A->nrow > B->nrow) {
        long k = hasNonZeros(A, B->nrow);
        if (k >= 0) {
            std::printf("first Matrix has extra nonzero beyond second at index %d\n", static_cast<int>(k));
            differences++;
        }
    } else if (B->nrow > A->nrow) {
        long k = hasNonZeros(B, A->nrow);
        if (k >= 0) {
            std::printf("second Matrix has extra nonzero beyond first at index %d\n", static_cast<int>(k));
            differences++;
        }
    }
    return differences;
}

int cmpDenseVsVector(const cholmod_dense *A, const Vector *v) {
    const double *x = first_column(A);
    int differences = 0;
    if (A->nrow != v->dim) {
        std::printf("Vectors have different lengths %d and %d\n", static_cast<int>(A->nrow),
                    static_cast<int>(v->dim));
        differences++;
    }
    size_t common = A->nrow < v->dim ? A->nrow : v->dim;
    for (size_t k = 0; k < common; k++)
        if (x[k] != v->cmp[k + 1]) {
            std::printf("Vectors are not equal A[%d] (%g) B[%d] (%g)\n", static_cast<int>(k), x[k],
                        static_cast<int>(k + 1), v->cmp[k + 1]);
            differences++;
        }
    return differences;
}

int cmpDenseVsArray(const cholmod_dense *A, double **a, int col) {
    const double *x = first_column(A);
    int differences = 0;
    for (size_t i = 0; i < A->nrow; i++)
        if (differ(x[i], a[i][col])) {
            print_values_differ(i, 0, x[i], i, static_cast<size_t>(col), a[i][col]);
            differences++;
        }
    return differences;
}

int cmpSparseVsSparse(const cholmod_sparse *A, const cholmod_sparse *B, cholmod_common *c) {
    if (A->nrow != B->nrow || A->ncol != B->ncol) {
        std::printf("cmpSparseVsSparse: dimensions differ (%d x %d, %d x %d)\n", static_cast<int>(A->nrow),
                    static_cast<int>(A->ncol), static_cast<int>(B->nrow), static_cast<int>(B->ncol));
        return -1;
    }
    // Two scatter columns, one per matrix, from the caller's CHOLMOD workspace.
    cholmod_dense *work = c->itype == CHOLMOD_LONG ? cholmod_l_zeros(A->nrow, 2, CHOLMOD_REAL, c)
                                                   : cholmod_zeros(A->nrow, 2, CHOLMOD_REAL, c);
    if (work == nullptr) return -1;
    double *wa = static_cast<double *>(work->x);
    double *wb = wa + work->d;
    std::vector<char> touched(A->nrow, 0);
    std::vector<size_t> rows;
    Columns ca{A}, cb{B};
    int differences = 0;
    for (size_t j = 0; j < A->ncol; j++) {
        auto scatter = [&](const Columns &cols, double *w) {
            for (size_t p = cols.begin(j), e = cols.end(j); p < e; p++) {
                size_t i = cols.row(p);
                if (i >= A->nrow) continue;
                w[i] += cols.value(p);
                if (!touched[i]) {
                    touched[i] = 1;
                    rows.push_back(i);
                }
            }
        };
        scatter(ca, wa);
        scatter(cb, wb);
        for (size_t i : rows) {
            if (differ(wa[i], wb[i])) {
                print_values_differ(i, j, wa[i], i, j, wb[i]);
                differences++;
            }
            wa[i] = wb[i] = 0.0;
            touched[i] = 0;
        }
        rows.clear();
    }
    if (c->itype == CHOLMOD_LONG)
        cholmod_l_free_dense(&work, c);
    else
        cholmod_free_dense(&work, c);
    return differences;
}
