// Dense matrix routines against hand-worked values, residuals of random systems, and their failure rules.
#include "numeric/dense.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

using Matrix = std::vector<double>;

// Independent references: the product element by element, and the transpose.
Matrix product(const Matrix &A, int n, int m, const Matrix &B, int p) {
    Matrix C(n * p, 0.0);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < p; j++)
            for (int k = 0; k < m; k++)
                C[i * p + j] += A[i * m + k] * B[k * p + j];
    return C;
}

Matrix transpose(const Matrix &A, int n, int m) {
    Matrix T(n * m);
    for (int i = 0; i < n * m; i++)
        T[(i % m) * n + i / m] = A[i];
    return T;
}

double max_abs_difference(const Matrix &a, const Matrix &b) {
    double worst = a.size() == b.size() ? 0.0 : INFINITY;
    for (size_t i = 0; i < std::min(a.size(), b.size()); i++)
        worst = std::fmax(worst, std::fabs(a[i] - b[i]));
    return worst;
}

Matrix random_matrix(int n, int m, std::mt19937 &rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Matrix M(n * m);
    for (double &v : M)
        v = u(rng);
    return M;
}

// The engine's sizes, 1x1 to 9x9, with A = M M^T + n I (well conditioned): the factor holds L and its
// mirror L^T; A x = b to 1e-12 with b itself as the solution array; the inverse is exactly symmetric
// and A^-1 b = x to 1e-12.
TEST(Choleski, RandomSpdFactorSolveAndInverseHaveSmallResiduals) {
    std::mt19937 rng(20240611);
    for (int n = 1; n <= 9; n++)
        for (int trial = 0; trial < 5; trial++) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " trial " << trial);
            Matrix M = random_matrix(n, n, rng), b = random_matrix(n, 1, rng), x = b;
            Matrix A = product(M, n, n, transpose(M, n, n), n);
            for (int i = 0; i < n; i++)
                A[i * n + i] += n;
            Matrix LU = A;
            ASSERT_EQ(Choleski_LU_Decomposition(LU.data(), n), 0);
            EXPECT_EQ(LU, transpose(LU, n, n)) << "L^T mirrored";
            ASSERT_EQ(Choleski_LU_Solve(LU.data(), x.data(), x.data(), n), 0);
            EXPECT_LT(max_abs_difference(product(A, n, n, x, 1), b), 1e-12) << "A x = b";
            ASSERT_EQ(Choleski_LU_Inverse(LU.data(), n), 0);
            EXPECT_EQ(LU, transpose(LU, n, n)) << "exactly symmetric";
            EXPECT_LT(max_abs_difference(product(LU, n, n, b, 1), x), 1e-12) << "A^-1 b = x";
        }
}

// A non-positive value under the root fails at once, with the rows after it untouched: a leading 0 on
// the diagonal, and in row 1 the negative 0.5 - 1*1 left by L(0,0) = 2 and L(1,0) = 1.
TEST(Choleski, NonPositiveDiagonalFailsAndLeavesLaterRowsUntouched) {
    Matrix Z = {0, 1, 2, 1, 5, 3, 2, 3, 6}, A = {4, 2, 7, 2, 0.5, 8, 7, 8, 9};
    EXPECT_TRUE(Choleski_LU_Decomposition(Z.data(), 3) == -1 && Choleski_LU_Decomposition(A.data(), 3) == -1);
    EXPECT_EQ(Z, (Matrix{0, 1, 2, 1, 5, 3, 2, 3, 6}));
    EXPECT_EQ(A, (Matrix{2, 1, 7, 1, 0.5, 8, 7, 8, 9}));
}

TEST(Triangular, SolvesAndInversesReadOnlyTheirTriangle) {
    // L x = (2, 5, 9) and L^T x = (7, 7, 6) with x = (1, 2, 3); 99 marks the triangle not to be read.
    const Matrix L = {2, 99, 99, 1, 2, 99, 1, 1, 2}, U = {2, 1, 1, 99, 2, 1, 99, 99, 2};
    const Matrix b = {2, 5, 9}, c = {7, 7, 6};
    Matrix x(3), y(3), Linv = L, Uinv = U;
    ASSERT_EQ(Lower_Triangular_Solve(L.data(), b.data(), x.data(), 3) +
                  Upper_Triangular_Solve(U.data(), c.data(), y.data(), 3),
              0);
    EXPECT_TRUE(max_abs_difference(x, {1, 2, 3}) < 1e-15 && max_abs_difference(y, {1, 2, 3}) < 1e-15);
    ASSERT_EQ(Lower_Triangular_Inverse(Linv.data(), 3) + Upper_Triangular_Inverse(Uinv.data(), 3), 0);
    const Matrix expected = {0.5, 99, 99, -0.25, 0.5, 99, -0.125, -0.25, 0.5}; // by hand
    EXPECT_LT(max_abs_difference(Linv, expected), 1e-16);
    EXPECT_LT(max_abs_difference(Uinv, transpose(expected, 3, 3)), 1e-16);
}

// An exact 0.0 on the diagonal fails (after solving the rows before it); 1e-300 and NaN do not.
TEST(Triangular, ExactZeroPivotFailsButTinyAndNaNPassThrough) {
    Matrix L = {2, 0, 0, 1, 2, 0, 1, 1, 0}, b = {2, 5, 9}, x(3, -1.0);
    EXPECT_EQ(Lower_Triangular_Solve(L.data(), b.data(), x.data(), 3), -1);
    EXPECT_TRUE(x[0] == 1.0 && x[2] == -1.0);
    EXPECT_TRUE(Upper_Triangular_Solve(L.data(), b.data(), x.data(), 3) == -1 &&
                Choleski_LU_Solve(L.data(), b.data(), x.data(), 3) == -1);
    EXPECT_TRUE(Upper_Triangular_Inverse(L.data(), 3) == -1 && Choleski_LU_Inverse(L.data(), 3) == -1);
    Matrix N = {NAN, 0, 0, 1, 1e-300, 0, 1, 1, 2}, Nt = transpose(N, 3, 3);
    EXPECT_EQ(Lower_Triangular_Solve(N.data(), b.data(), x.data(), 3), 0);
    EXPECT_TRUE(std::isnan(x[0]) && std::isnan(x[2]));
    EXPECT_EQ(Upper_Triangular_Solve(Nt.data(), b.data(), x.data(), 3) +
                  Lower_Triangular_Inverse(N.data(), 3) + Upper_Triangular_Inverse(Nt.data(), 3),
              0);
}

// Non-square shapes (2x3 by 3x4), where a mixed-up dimension or index shows, against the references;
// Kronecker and bilinear products by hand; the commutator sums terms of size 1e16 that cancel and leave
// 1, which double sums would round away.
TEST(Products, MatchTheReferenceOnNonSquareShapes) {
    std::mt19937 rng(3);
    const Matrix A = random_matrix(2, 3, rng), B = random_matrix(3, 4, rng), E = random_matrix(2, 4, rng);
    const Matrix AB = product(A, 2, 3, B, 4), At = transpose(A, 2, 3);
    Matrix Bt(12), C(8), D(8), F(12), AAt(4), AtA(9);
    Transpose_Matrix(Bt.data(), B.data(), 3, 4);
    EXPECT_EQ(Bt, transpose(B, 3, 4));
    Multiply_Matrices(C.data(), A.data(), 2, 3, B.data(), 4);
    Multiply_Matrix_with_Transpose(D.data(), A.data(), 2, 3, Bt.data(), 4);
    Multiply_Transpose_with_Matrix(F.data(), A.data(), 2, 3, E.data(), 4);
    Multiply_Self_Transpose(AAt.data(), A.data(), 2, 3);
    Self_Transpose_Multiply(AtA.data(), A.data(), 2, 3);
    EXPECT_TRUE(max_abs_difference(C, AB) < 1e-15 && max_abs_difference(D, AB) < 1e-15 &&
                max_abs_difference(F, product(At, 3, 2, E, 4)) < 1e-15);
    EXPECT_TRUE(max_abs_difference(AAt, product(A, 2, 3, At, 2)) < 1e-15 &&
                max_abs_difference(AtA, product(At, 3, 2, A, 3)) < 1e-15);

    const Matrix P = {1, 2, 3, 4, 5, 6}, Q = {0, 1, 1, 0}, x = {3, -1}, y = {1, 0, -1}; // P 2x3, Q 2x2
    Matrix K(24), Z(9, -5.0);
    Kronecker_Product(K.data(), P.data(), 2, 3, Q.data(), 2, 2);
    EXPECT_EQ(K, (Matrix{0, 1, 0, 2, 0, 3, 1, 0, 2, 0, 3, 0, 0, 4, 0, 5, 0, 6, 4, 0, 5, 0, 6, 0}));
    EXPECT_EQ(Bilinear_Function(x.data(), P.data(), y.data(), 2, 3), -4.0); // P y = (-2, -2)
    const Matrix big = {1e8, 1, -1e8, 0, 0, 0, 0, 0, 0}, other = {0, 1e8, 0, 0, 1, 0, 0, 1e8, 0};
    Matrix_Commutator(Z.data(), big.data(), other.data(), 3);
    EXPECT_EQ(Z[1], 1.0);
}

// Joins, square transpose, sums, scalar products, diagonals of non-square matrices (two positions
// each), and the division by zero that gives infinities and NaN without failing.
TEST(Elementwise, JoinTransposeAndArithmetic) {
    const Matrix A = {1, 2, 3, 4, 5, 6}, col = {7, 8}, row = {7, 8, 9}; // 2x3, 2x1, 1x3
    Matrix side(8), stacked(9), M(6), tall = A, Z = {1, -2, 0, 3};
    Join_Matrices_by_Row(side.data(), A.data(), 2, 3, col.data(), 1);
    EXPECT_EQ(side, (Matrix{1, 2, 3, 7, 4, 5, 6, 8}));
    Join_Matrices_by_Column(stacked.data(), A.data(), 2, 3, row.data(), 1);
    Transpose_Square_Matrix(stacked.data(), 3);
    EXPECT_EQ(stacked, (Matrix{1, 4, 7, 2, 5, 8, 3, 6, 9}));
    Copy_Vector(M.data(), A.data() + 3, 3);
    Copy_Matrix(M.data() + 3, A.data(), 1, 3);
    Add_Matrices(M.data(), M.data(), A.data(), 2, 3);      // (5, 7, 9, 5, 7, 9)
    Subtract_Matrices(M.data(), A.data(), M.data(), 2, 3); // (-4, -5, -6, -1, -2, -3)
    Multiply_Matrix_by_Scalar(M.data(), 2, 3, 2.0);
    Divide_Matrix_by_Scalar(M.data(), 2, 3, -4.0);
    EXPECT_EQ(M, (Matrix{2, 2.5, 3, 0.5, 1, 1.5}));
    Add_Scalar_to_Diagonal(tall.data(), 3, 2, 10.0);
    Subtract_Scalar_from_Diagonal(tall.data(), 2, 3, 1.0);
    EXPECT_EQ(tall, (Matrix{10, 2, 3, 14, 4, 6})); // as 3x2 at 0 and 3, as 2x3 at 0 and 4
    Divide_Matrix_by_Scalar(Z.data(), 2, 2, 0.0);
    EXPECT_TRUE(Z[0] == INFINITY && Z[1] == -INFINITY && std::isnan(Z[2]) && Z[3] == INFINITY);
}

// Each norm in its general form (2 and 3 values, or 2x2 and 3x3) and its written-out _2d and _3d forms;
// all these sums are exact in doubles.
TEST(Norms, EveryFormMatchesHandValues) {
    const double v[] = {3, -4, 12}, S[] = {1, -5, -2, 3}, A[] = {9, -8, 7, -6, 5, -4, 3, -2, 1};
    EXPECT_TRUE(Vector_L1_Norm(v, 2) == 7 && Vector_L1_Norm_2d(v) == 7 && Vector_L1_Norm(v, 3) == 19 &&
                Vector_L1_Norm_3d(v) == 19);
    EXPECT_TRUE(Vector_L2_Norm(v, 2) == 5 && Vector_L2_Norm_2d(v) == 5 && Vector_L2_Norm(v, 3) == 13 &&
                Vector_L2_Norm_3d(v) == 13);
    EXPECT_TRUE(Vector_Max_Norm(v, 2) == 4 && Vector_Max_Norm_2d(v) == 4 && Vector_Max_Norm(v, 3) == 12 &&
                Vector_Max_Norm_3d(v) == 12);
    EXPECT_TRUE(Inner_Product(v, v, 3) == 169 && Inner_Product_3d(v, v) == 169 &&
                Inner_Product_2d(v, v + 1) == -60);
    // Column sums of absolute values: S 3, 8 and A 18, 15, 12; row sums: S 6, 5 and A 24, 15, 6.
    EXPECT_TRUE(Matrix_L1_Norm(S, 2) == 8 && Matrix_L1_Norm_2d(S) == 8 && Matrix_L1_Norm(A, 3) == 18 &&
                Matrix_L1_Norm_3d(A) == 18);
    EXPECT_TRUE(Matrix_Max_Norm(S, 2) == 6 && Matrix_Max_Norm_2d(S) == 6 && Matrix_Max_Norm(A, 3) == 24 &&
                Matrix_Max_Norm_3d(A) == 24);
    EXPECT_TRUE(Matrix_E_Norm(S, 2) == std::sqrt(39.0) && Matrix_E_Norm_2d(S) == std::sqrt(39.0) &&
                Matrix_E_Norm(A, 3) == std::sqrt(285.0) && Matrix_E_Norm_3d(A) == std::sqrt(285.0));
}

} // namespace
