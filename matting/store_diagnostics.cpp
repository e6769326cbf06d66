// Matrix Market export, printing and dense comparison of the sparse store, for debugging.
#include "matting/store_diagnostics.h"

#include "numeric/arrays.h"
#include "numeric/diagnostics.h"
#include "numeric/matrix_market.h"

#include <cmath>
#include <cstdlib>

static const char QMatrixFile[] = "~tmpQMatrix.rsa";

// Largest dimension for which cmpQMatrixVsArray still writes its tables.
constexpr size_t MaxTableDim = 421823;

static FILE *open_or_exit(const char *path) {
    FILE *f = std::fopen(path, "w");
    if (f == nullptr) {
        std::fprintf(stderr, "cannot open file %s\n", path);
        std::exit(1);
    }
    return f;
}

void write_MM_QMatrix(const QMatrix *Q) {
    if (!Q->symmetry && Q->el_order != EL_ORDER_COLUMNS) {
        std::fprintf(stderr, "%s matrix is either not columnwise or not symmetric. Can't write this format\n",
                     Q->name != nullptr ? Q->name : "");
        std::exit(1);
    }
    FILE *f = open_or_exit(QMatrixFile);

    MM_typecode code;
    mm_clear_typecode(code);
    mm_set_matrix(code);
    mm_set_coordinate(code);
    mm_set_real(code);
    if (Q->symmetry)
        mm_set_symmetric(code);
    else
        mm_set_general(code);

    size_t dim = Q_GetDim(Q);
    size_t entries = 0;
    for (size_t j = 1; j <= dim; j++)
        entries += Q_GetLen(Q, j);
    mm_write_banner(f, code);
    mm_write_mtx_crd_size(f, static_cast<int>(dim), static_cast<int>(dim), static_cast<int>(entries));
    for (size_t j = 1; j <= dim; j++)
        for (size_t e = 0, n = Q_GetLen(Q, j); e < n; e++)
            std::fprintf(f, "%d %d %.12g\n", static_cast<int>(Q_GetPos(Q, j, e)), static_cast<int>(j),
                         Q_GetVal(Q, j, e));
    std::fclose(f);
}

void printsubQ_MX(const QMatrix *Q, int rows, int cols, int row0, int col0) {
    std::printf("\toffset: %d,%d size: %d,%d\n", row0, col0, rows, cols);
    for (int i = row0; i <= row0 + rows; i++) {
        for (int j = col0; j <= col0 + cols; j++)
            std::printf(" %g", Q_GetEl(Q, static_cast<size_t>(row0), static_cast<size_t>(col0)));
        std::printf("\n");
    }
}

void fprintQ_MX(FILE *file, const QMatrix *Q, int rows, int cols) {
    for (int i = 1; i <= rows; i++) {
        for (int j = 1; j <= cols; j++) {
            double v = Q_GetEl(Q, static_cast<size_t>(i), static_cast<size_t>(j));
            if (v == 0.0)
                std::fprintf(file, "\t");
            else
                std::fprintf(file, "%g\t", v);
        }
        std::fprintf(file, "\n");
    }
}

void fprintV(FILE *file, const Vector *v) {
    for (size_t i = 1, n = V_GetDim(v); i <= n; i++)
        std::fprintf(file, "%g\n", V_GetCmp(v, i));
}

// Writes one table to path with writer(file).
template <typename Writer> static void write_table(const char *path, Writer writer) {
    FILE *f = open_or_exit(path);
    writer(f);
    std::fclose(f);
}

int cmpQMatrixVsArray(const QMatrix *Q, double **a) {
    size_t dim = Q_GetDim(Q);
    int n = static_cast<int>(dim);
    std::printf("MX dim %d\n", n);
    double **residual = reinterpret_cast<double **>(get_init_arr(n, n, sizeof(double)));
    int differences = 0;
    for (size_t j = 1; j <= dim; j++) {
        if (a[j - 1][j - 1] == 0.0 && Q_GetLen(Q, j) > 0) {
            std::fprintf(stderr, "element in row %d Q_Matrix not in A array\n", static_cast<int>(j));
            std::exit(-1);
        }
        for (size_t i = 1; i <= dim; i++) {
            double r = a[i - 1][j - 1] - Q_GetEl(Q, i, j);
            residual[i - 1][j - 1] = r;
            if (!(std::fabs(r) <= 1e-10)) differences++;
        }
    }
    if (dim <= MaxTableDim) {
        write_table("residuals.xls", [&](FILE *f) { fprintMX(f, residual, n, n); });
        write_table("A_preMX.xls", [&](FILE *f) { fprintMX(f, a, n, n); });
        write_table("AA_preMX.xls", [&](FILE *f) { fprintQ_MX(f, Q, n, n); });
    }
    free_img(reinterpret_cast<void **>(residual));
    return differences;
}
