// Small dense linear algebra on flat row-major matrices. Plain loops and no allocation: the matting
// engine calls these once per image window on 3x3 to 9x9 matrices.
#include "numeric/dense.h"

#include <cmath>

// Row by row: for row i, first the entries left of the diagonal, each from the already finished rows
// above, then the diagonal. Each value of L is mirrored into the upper triangle as soon as it is known,
// which is also why a failure leaves every row below the failing one untouched.
int Choleski_LU_Decomposition(double *A, int n) {
    for (int i = 0; i < n; i++) {
        double *row_i = A + i * n;
        for (int k = 0; k < i; k++) {
            const double *row_k = A + k * n;
            double sum = row_i[k];
            for (int p = 0; p < k; p++)
                sum -= row_i[p] * row_k[p];
            row_i[k] = sum / row_k[k];
            A[k * n + i] = row_i[k];
        }
        double diagonal = row_i[i];
        for (int p = 0; p < i; p++)
            diagonal -= row_i[p] * row_i[p];
        if (diagonal <= 0.0) return -1;
        row_i[i] = std::sqrt(diagonal);
    }
    return 0;
}

int Choleski_LU_Solve(const double *LU, const double *B, double *x, int n) {
    if (Lower_Triangular_Solve(LU, B, x, n) < 0) return -1;
    if (Upper_Triangular_Solve(LU, x, x, n) < 0) return -1;
    return 0;
}

// A^-1 = L^-T L^-1, so A^-1(i,j) = sum_k Linv(k,i) Linv(k,j) over k >= max(i,j). With j <= i and rows
// taken in increasing order, the entries of Linv still needed (rows k >= i of columns i and j) are
// never among those already overwritten (rows < i, and row i left of column j); the diagonal (i,i) is
// written last in its row because every (i,j) of that row reads Linv(i,i).
int Choleski_LU_Inverse(double *LU, int n) {
    if (Lower_Triangular_Inverse(LU, n) < 0) return -1;
    for (int i = 0; i < n; i++) {
        for (int j = 0; j <= i; j++) {
            double sum = 0.0;
            for (int k = i; k < n; k++)
                sum += LU[k * n + i] * LU[k * n + j];
            LU[i * n + j] = sum;
            LU[j * n + i] = sum;
        }
    }
    return 0;
}

// B(i) is read before x(i) is written and x(k) for k < i is final by then, so x may be B.
int Lower_Triangular_Solve(const double *L, const double *B, double *x, int n) {
    for (int i = 0; i < n; i++) {
        const double *row = L + i * n;
        if (row[i] == 0.0) return -1;
        double sum = B[i];
        for (int k = 0; k < i; k++)
            sum -= row[k] * x[k];
        x[i] = sum / row[i];
    }
    return 0;
}

int Upper_Triangular_Solve(const double *U, const double *B, double *x, int n) {
    for (int i = n - 1; i >= 0; i--) {
        const double *row = U + i * n;
        if (row[i] == 0.0) return -1;
        double sum = B[i];
        for (int k = i + 1; k < n; k++)
            sum -= row[k] * x[k];
        x[i] = sum / row[i];
    }
    return 0;
}

// Column j of row i needs L(i,k) only for k >= j, so going left to right overwrites row i's entries
// only after every sum that reads them; rows above are already inverted.
int Lower_Triangular_Inverse(double *L, int n) {
    for (int i = 0; i < n; i++) {
        double *d = L + i * n + i;
        if (*d == 0.0) return -1;
        *d = 1.0 / *d;
    }
    for (int i = 1; i < n; i++) {
        double *row = L + i * n;
        for (int j = 0; j < i; j++) {
            double sum = 0.0;
            for (int k = j; k < i; k++)
                sum += row[k] * L[k * n + j];
            row[j] = -row[i] * sum;
        }
    }
    return 0;
}

// Mirror image of the lower inverse: rows from the bottom up, and within row i columns from right to
// left, since Uinv(i,j) reads U(i,k) for i < k <= j.
int Upper_Triangular_Inverse(double *U, int n) {
    for (int i = 0; i < n; i++) {
        double *d = U + i * n + i;
        if (*d == 0.0) return -1;
        *d = 1.0 / *d;
    }
    for (int i = n - 2; i >= 0; i--) {
        double *row = U + i * n;
        for (int j = n - 1; j > i; j--) {
            double sum = 0.0;
            for (int k = i + 1; k <= j; k++)
                sum += row[k] * U[k * n + j];
            row[j] = -row[i] * sum;
        }
    }
    return 0;
}

void Multiply_Matrices(double *C, const double *A, int n, int m, const double *B, int p) {
    for (int i = 0; i < n; i++) {
        const double *a = A + i * m;
        for (int j = 0; j < p; j++) {
            double sum = 0.0;
            for (int k = 0; k < m; k++)
                sum += a[k] * B[k * p + j];
            C[i * p + j] = sum;
        }
    }
}

void Multiply_Matrix_with_Transpose(double *C, const double *A, int n, int m, const double *B, int p) {
    for (int i = 0; i < n; i++) {
        const double *a = A + i * m;
        for (int j = 0; j < p; j++) {
            const double *b = B + j * m;
            double sum = 0.0;
            for (int k = 0; k < m; k++)
                sum += a[k] * b[k];
            C[i * p + j] = sum;
        }
    }
}

void Multiply_Transpose_with_Matrix(double *C, const double *A, int n, int m, const double *B, int p) {
    for (int i = 0; i < m; i++) {
        for (int j = 0; j < p; j++) {
            double sum = 0.0;
            for (int k = 0; k < n; k++)
                sum += A[k * m + i] * B[k * p + j];
            C[i * p + j] = sum;
        }
    }
}

void Multiply_Self_Transpose(double *C, const double *A, int n, int m) {
    for (int i = 0; i < n; i++) {
        const double *a = A + i * m;
        for (int j = i; j < n; j++) {
            const double *b = A + j * m;
            double sum = 0.0;
            for (int k = 0; k < m; k++)
                sum += a[k] * b[k];
            C[i * n + j] = sum;
            C[j * n + i] = sum;
        }
    }
}

void Self_Transpose_Multiply(double *C, const double *A, int n, int m) {
    for (int i = 0; i < m; i++) {
        for (int j = i; j < m; j++) {
            double sum = 0.0;
            for (int k = 0; k < n; k++)
                sum += A[k * m + i] * A[k * m + j];
            C[i * m + j] = sum;
            C[j * m + i] = sum;
        }
    }
}

void Transpose_Matrix(double *At, const double *A, int n, int m) {
    for (int i = 0; i < n; i++)
        for (int j = 0; j < m; j++)
            At[j * n + i] = A[i * m + j];
}

void Transpose_Square_Matrix(double *A, int n) {
    for (int i = 0; i < n; i++) {
        for (int j = i + 1; j < n; j++) {
            double t = A[i * n + j];
            A[i * n + j] = A[j * n + i];
            A[j * n + i] = t;
        }
    }
}

void Copy_Matrix(double *dest, const double *src, int n, int m) {
    Copy_Vector(dest, src, n * m);
}

void Copy_Vector(double *dest, const double *src, int n) {
    for (int i = 0; i < n; i++)
        dest[i] = src[i];
}

void Join_Matrices_by_Row(double *C, const double *A, int n, int m, const double *B, int p) {
    for (int i = 0; i < n; i++) {
        double *c = C + i * (m + p);
        for (int j = 0; j < m; j++)
            c[j] = A[i * m + j];
        for (int j = 0; j < p; j++)
            c[m + j] = B[i * p + j];
    }
}

void Join_Matrices_by_Column(double *C, const double *A, int n, int m, const double *B, int p) {
    Copy_Vector(C, A, n * m);
    Copy_Vector(C + n * m, B, p * m);
}

void Add_Matrices(double *C, const double *A, const double *B, int n, int m) {
    for (int i = 0; i < n * m; i++)
        C[i] = A[i] + B[i];
}

void Subtract_Matrices(double *C, const double *A, const double *B, int n, int m) {
    for (int i = 0; i < n * m; i++)
        C[i] = A[i] - B[i];
}

void Multiply_Matrix_by_Scalar(double *A, int n, int m, double x) {
    for (int i = n * m - 1; i >= 0; i--)
        A[i] *= x;
}

void Divide_Matrix_by_Scalar(double *A, int n, int m, double x) {
    double reciprocal = 1.0 / x;
    for (int i = 0; i < n * m; i++)
        A[i] *= reciprocal;
}

void Add_Scalar_to_Diagonal(double *A, int n, int m, double x) {
    int d = n < m ? n : m;
    for (int i = 0; i < d; i++)
        A[i * m + i] += x;
}

void Subtract_Scalar_from_Diagonal(double *A, int n, int m, double x) {
    int d = n < m ? n : m;
    for (int i = 0; i < d; i++)
        A[i * m + i] -= x;
}

// Both products are summed in long double and subtracted before the single rounding to double, so
// large terms that cancel between AB and BA do not swamp the small ones.
void Matrix_Commutator(double *C, const double *A, const double *B, int n) {
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < n; j++) {
            long double ab = 0.0L;
            long double ba = 0.0L;
            for (int k = 0; k < n; k++) {
                ab += static_cast<long double>(A[i * n + k]) * B[k * n + j];
                ba += static_cast<long double>(B[i * n + k]) * A[k * n + j];
            }
            C[i * n + j] = static_cast<double>(ab - ba);
        }
    }
}

double Bilinear_Function(const double *x, const double *A, const double *y, int n, int m) {
    double total = 0.0;
    for (int i = 0; i < n; i++) {
        double row = 0.0;
        for (int j = 0; j < m; j++)
            row += A[i * m + j] * y[j];
        total += x[i] * row;
    }
    return total;
}

void Kronecker_Product(double *C, const double *A, int n, int m, const double *B, int p, int q) {
    int columns = m * q;
    for (int i = 0; i < n; i++)
        for (int j = 0; j < m; j++) {
            double a = A[i * m + j];
            for (int k = 0; k < p; k++)
                for (int l = 0; l < q; l++)
                    C[(i * p + k) * columns + j * q + l] = a * B[k * q + l];
        }
}

double Inner_Product(const double *u, const double *v, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; i++)
        sum += u[i] * v[i];
    return sum;
}

double Inner_Product_2d(const double *u, const double *v) {
    return u[0] * v[0] + u[1] * v[1];
}

double Inner_Product_3d(const double *u, const double *v) {
    return u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
}

double Vector_L1_Norm(const double *v, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; i++)
        sum += std::fabs(v[i]);
    return sum;
}

double Vector_L1_Norm_2d(const double *v) {
    return std::fabs(v[0]) + std::fabs(v[1]);
}

double Vector_L1_Norm_3d(const double *v) {
    return std::fabs(v[0]) + std::fabs(v[1]) + std::fabs(v[2]);
}

double Vector_L2_Norm(const double *v, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; i++)
        sum += v[i] * v[i];
    return std::sqrt(sum);
}

double Vector_L2_Norm_2d(const double *v) {
    return std::sqrt(v[0] * v[0] + v[1] * v[1]);
}

double Vector_L2_Norm_3d(const double *v) {
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

double Vector_Max_Norm(const double *v, int n) {
    double largest = 0.0;
    for (int i = 0; i < n; i++)
        if (std::fabs(v[i]) > largest) largest = std::fabs(v[i]);
    return largest;
}

double Vector_Max_Norm_2d(const double *v) {
    return std::fmax(std::fabs(v[0]), std::fabs(v[1]));
}

double Vector_Max_Norm_3d(const double *v) {
    return std::fmax(std::fmax(std::fabs(v[0]), std::fabs(v[1])), std::fabs(v[2]));
}

double Matrix_L1_Norm(const double *A, int n) {
    double largest = 0.0;
    for (int j = 0; j < n; j++) {
        double sum = 0.0;
        for (int i = 0; i < n; i++)
            sum += std::fabs(A[i * n + j]);
        if (sum > largest) largest = sum;
    }
    return largest;
}

double Matrix_L1_Norm_2d(const double *A) {
    return std::fmax(std::fabs(A[0]) + std::fabs(A[2]), std::fabs(A[1]) + std::fabs(A[3]));
}

double Matrix_L1_Norm_3d(const double *A) {
    double c0 = std::fabs(A[0]) + std::fabs(A[3]) + std::fabs(A[6]);
    double c1 = std::fabs(A[1]) + std::fabs(A[4]) + std::fabs(A[7]);
    double c2 = std::fabs(A[2]) + std::fabs(A[5]) + std::fabs(A[8]);
    return std::fmax(std::fmax(c0, c1), c2);
}

double Matrix_E_Norm(const double *A, int n) {
    return Vector_L2_Norm(A, n * n);
}

double Matrix_E_Norm_2d(const double *A) {
    return std::sqrt(A[0] * A[0] + A[1] * A[1] + A[2] * A[2] + A[3] * A[3]);
}

double Matrix_E_Norm_3d(const double *A) {
    return std::sqrt(A[0] * A[0] + A[1] * A[1] + A[2] * A[2] + A[3] * A[3] + A[4] * A[4] + A[5] * A[5] +
                     A[6] * A[6] + A[7] * A[7] + A[8] * A[8]);
}

double Matrix_Max_Norm(const double *A, int n) {
    double largest = 0.0;
    for (int i = 0; i < n; i++) {
        double sum = Vector_L1_Norm(A + i * n, n);
        if (sum > largest) largest = sum;
    }
    return largest;
}

double Matrix_Max_Norm_2d(const double *A) {
    return std::fmax(std::fabs(A[0]) + std::fabs(A[1]), std::fabs(A[2]) + std::fabs(A[3]));
}

double Matrix_Max_Norm_3d(const double *A) {
    double r0 = std::fabs(A[0]) + std::fabs(A[1]) + std::fabs(A[2]);
    double r1 = std::fabs(A[3]) + std::fabs(A[4]) + std::fabs(A[5]);
    double r2 = std::fabs(A[6]) + std::fabs(A[7]) + std::fabs(A[8]);
    return std::fmax(std::fmax(r0, r1), r2);
}
