// Small dense linear algebra on flat row-major matrices: Choleski factorisation with its solve and
// inverse, triangular solves and inverses, products, transposes, scalar operations and norms.
//
// Conventions for every routine:
//   - A matrix of n rows and m columns is a flat array of n*m doubles; element (i, j) is at i*m + j.
//     A vector of n values is a flat array of n doubles. Dimensions are `int` (32-bit signed).
//   - The caller owns all storage. No routine allocates, frees or prints: they are called once per
//     image window, millions of times on large images, on 3x3 to 9x9 matrices.
//   - Results go to caller-supplied arrays, which must not overlap the inputs unless stated.
//   - Routines that can fail return int: 0 on success, -1 on failure. A zero pivot is a diagonal
//     value exactly equal to 0.0; a NaN is not a zero pivot and passes through.
//
// Usage (solve A x = b for a symmetric positive-definite 3x3 A, destroying A):
//     if (Choleski_LU_Decomposition(A, 3) < 0 || Choleski_LU_Solve(A, b, x, 3) < 0) { ...fail... }
#ifndef KELDRA_NUMERIC_DENSE_H
#define KELDRA_NUMERIC_DENSE_H

// Choleski_LU_Decomposition: factors a symmetric positive-definite A = L L^T, row by row.
//   A  modified: n x n, read from its lower triangle and diagonal; on return the lower triangle and
//      diagonal hold L and the strict upper triangle holds L^T (the same values mirrored)
// Returns 0, or -1 as soon as a diagonal value to be square-rooted is <= 0; A is then left
// part-factored (rows after the failing one untouched).
int Choleski_LU_Decomposition(double *A, int n);

// Choleski_LU_Solve: solves A x = B given the output LU of Choleski_LU_Decomposition, by
// Lower_Triangular_Solve from B into x and then Upper_Triangular_Solve on x in place.
//   LU  input: n x n; B input: n values; x output: n values, may be the same array as B
// Returns 0, or -1 if either triangular solve meets a zero pivot.
int Choleski_LU_Solve(const double *LU, const double *B, double *x, int n);

// Choleski_LU_Inverse: replaces the output of Choleski_LU_Decomposition by A^-1 = L^-T L^-1.
//   LU  modified: n x n; on return the full inverse, exactly symmetric (each value is computed once
//       and stored in both halves)
// Returns 0, or -1 if L has a zero diagonal value (LU is then left part-modified).
int Choleski_LU_Inverse(double *LU, int n);

// Lower_Triangular_Solve: forward substitution L x = B, row 0 first:
// x(i) = (B(i) - sum_{k<i} L(i,k) x(k)) / L(i,i).
//   L  input: n x n, only the lower triangle and diagonal are read; B input; x output (may equal B)
// Returns 0, or -1 at the first zero diagonal value (x then holds the rows solved so far).
int Lower_Triangular_Solve(const double *L, const double *B, double *x, int n);

// Upper_Triangular_Solve: back substitution U x = B, row n-1 first.
//   U  input: n x n, only the upper triangle and diagonal are read; B input; x output (may equal B)
// Returns 0, or -1 at the first zero diagonal value met.
int Upper_Triangular_Solve(const double *U, const double *B, double *x, int n);

// Lower_Triangular_Inverse: in-place inverse of a lower-triangular L. Every diagonal value is first
// replaced by its reciprocal, then for rows i = 1..n-1 and columns j = 0..i-1:
// Linv(i,j) = -Linv(i,i) * sum_{k=j}^{i-1} L(i,k) Linv(k,j). The strict upper triangle is not touched.
//   L  modified: n x n
// Returns 0, or -1 at the first zero diagonal value (L then left part-modified).
int Lower_Triangular_Inverse(double *L, int n);

// Upper_Triangular_Inverse: in-place inverse of an upper-triangular U: diagonal reciprocals first, then
// rows from n-2 upwards. The strict lower triangle is not touched.
//   U  modified: n x n
// Returns 0, or -1 at the first zero diagonal value (U then left part-modified).
int Upper_Triangular_Inverse(double *U, int n);

// Multiply_Matrices: C (n x p) = A (n x m) * B (m x p).
void Multiply_Matrices(double *C, const double *A, int n, int m, const double *B, int p);

// Multiply_Matrix_with_Transpose: C (n x p) = A (n x m) * B^T, with B stored p x m.
void Multiply_Matrix_with_Transpose(double *C, const double *A, int n, int m, const double *B, int p);

// Multiply_Transpose_with_Matrix: C (m x p) = A^T * B, with A stored n x m and B n x p.
void Multiply_Transpose_with_Matrix(double *C, const double *A, int n, int m, const double *B, int p);

// Multiply_Self_Transpose: C (n x n) = A A^T for A n x m; the upper triangle is summed and mirrored,
// so C is exactly symmetric.
void Multiply_Self_Transpose(double *C, const double *A, int n, int m);

// Self_Transpose_Multiply: C (m x m) = A^T A for A n x m; the upper triangle is summed and mirrored,
// so C is exactly symmetric.
void Self_Transpose_Multiply(double *C, const double *A, int n, int m);

// Transpose_Matrix: At (m x n) = A^T for A n x m. Not in place: At and A must not overlap.
void Transpose_Matrix(double *At, const double *A, int n, int m);

// Transpose_Square_Matrix: in-place transpose of an n x n matrix A.
void Transpose_Square_Matrix(double *A, int n);

// Copy_Matrix: dest (n x m) = src; the destination comes first, as in every routine here.
void Copy_Matrix(double *dest, const double *src, int n, int m);

// Copy_Vector: dest (n values) = src.
void Copy_Vector(double *dest, const double *src, int n);

// Join_Matrices_by_Row: C (n x (m+p)) holds A (n x m) and B (n x p) side by side, row by row.
void Join_Matrices_by_Row(double *C, const double *A, int n, int m, const double *B, int p);

// Join_Matrices_by_Column: C ((n+p) x m) holds A (n x m) above B (p x m).
void Join_Matrices_by_Column(double *C, const double *A, int n, int m, const double *B, int p);

// Add_Matrices, Subtract_Matrices: C = A + B, C = A - B, element-wise, all n x m. C may be A or B.
void Add_Matrices(double *C, const double *A, const double *B, int n, int m);
void Subtract_Matrices(double *C, const double *A, const double *B, int n, int m);

// Multiply_Matrix_by_Scalar: every element of the n x m matrix A (in place) times x, last element first.
void Multiply_Matrix_by_Scalar(double *A, int n, int m, double x);

// Divide_Matrix_by_Scalar: forms 1/x once and multiplies every element of A (n x m, in place) by it.
// Dividing by 0 does not fail: the elements become infinities (and NaN where they were 0).
void Divide_Matrix_by_Scalar(double *A, int n, int m, double x);

// Add_Scalar_to_Diagonal, Subtract_Scalar_from_Diagonal: A(i,i) +=/-= x for i < min(n, m), with A
// n x m, in place.
void Add_Scalar_to_Diagonal(double *A, int n, int m, double x);
void Subtract_Scalar_from_Diagonal(double *A, int n, int m, double x);

// Matrix_Commutator: C = A B - B A for n x n matrices. Every element's sums are accumulated in long
// double (64-bit mantissa on x86) and rounded to double once, so cancellation between the two
// products loses far less than in double arithmetic. C must not overlap A or B.
void Matrix_Commutator(double *C, const double *A, const double *B, int n);

// Bilinear_Function: returns x^T A y = sum_i x(i) (A y)(i), with x n values, A n x m, y m values.
double Bilinear_Function(const double *x, const double *A, const double *y, int n, int m);

// Kronecker_Product: C (n*p x m*q) = A (n x m) (x) B (p x q):
// C(i*p + k, j*q + l) = A(i,j) B(k,l).
void Kronecker_Product(double *C, const double *A, int n, int m, const double *B, int p, int q);

// Inner_Product: sum_i u(i) v(i) over n values; the _2d and _3d forms take vectors of 2 and 3.
double Inner_Product(const double *u, const double *v, int n);
double Inner_Product_2d(const double *u, const double *v);
double Inner_Product_3d(const double *u, const double *v);

// Vector norms of n values (2 and 3 for the _2d and _3d forms): L1 the sum of absolute values, L2 the
// Euclidean length, Max the largest absolute value.
double Vector_L1_Norm(const double *v, int n);
double Vector_L1_Norm_2d(const double *v);
double Vector_L1_Norm_3d(const double *v);
double Vector_L2_Norm(const double *v, int n);
double Vector_L2_Norm_2d(const double *v);
double Vector_L2_Norm_3d(const double *v);
double Vector_Max_Norm(const double *v, int n);
double Vector_Max_Norm_2d(const double *v);
double Vector_Max_Norm_3d(const double *v);

// Matrix norms of an n x n matrix A (2x2 and 3x3 for the _2d and _3d forms): L1 the largest column
// sum of absolute values, E the square root of the sum of squares of all elements (Frobenius), Max the
// largest row sum of absolute values.
double Matrix_L1_Norm(const double *A, int n);
double Matrix_L1_Norm_2d(const double *A);
double Matrix_L1_Norm_3d(const double *A);
double Matrix_E_Norm(const double *A, int n);
double Matrix_E_Norm_2d(const double *A);
double Matrix_E_Norm_3d(const double *A);
double Matrix_Max_Norm(const double *A, int n);
double Matrix_Max_Norm_2d(const double *A);
double Matrix_Max_Norm_3d(const double *A);

#endif
