// Dense matrix routines against hand-worked values, residuals of random systems, and their failure rules.
#include "numeric/dense.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Matrix = std::vector<double>;

// The worked example: A = L L^T with L = [2 0 0; 1 2 0; 1 1 2], det A = 64.
const Matrix kA = {4, 2, 2, 2, 5, 3, 2, 3, 6};
const Matrix kFactored = {2, 1, 1, 1, 2, 1, 1, 1, 2};
const Matrix kAInverse = {21 / 64.0, -6 / 64.0, -4 / 64.0, -6 / 64.0, 20 / 64.0,
                          -8 / 64.0, -4 / 64.0, -8 / 64.0, 16 / 64.0};
const Matrix kL = {2, 0, 0, 1, 2, 0, 1, 1, 2};
const Matrix kLInverse = {0.5, 0, 0, -0.25, 0.5, 0, -0.125, -0.25, 0.5};

void expect_near_all(const Matrix &actual, const Matrix &expected, double tolerance) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); i++)
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "at " << i;
}

Matrix identity(int n) {
    Matrix I(n * n, 0.0);
    for (int i = 0; i < n; i++)
        I[i * n + i] = 1.0;
    return I;
}

// Independent reference product, element by element.
Matrix product(const Matrix &A, int n, int m, const Matrix &B, int p) {
    Matrix C(n * p, 0.0);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < p; j++)
            for (int k = 0; k < m; k++)
                C[i * p + j] += A[i * m + k] * B[k * p + j];
    return C;
}

double max_abs_difference(const Matrix &a, const Matrix &b) {
    double worst = 0.0;
    for (size_t i = 0; i < a.size(); i++)
        worst = std::fmax(worst, std::fabs(a[i] - b[i]));
    return worst;
}

// A = M M^T + n I with M uniform in [-1, 1]: symmetric positive definite and well conditioned.
Matrix random_spd(int n, std::mt19937 &rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Matrix M(n * n);
    for (double &v : M)
        v = u(rng);
    Matrix A(n * n, 0.0);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) {
            for (int k = 0; k < n; k++)
                A[i * n + j] += M[i * n + k] * M[j * n + k];
            if (i == j) A[i * n + j] += n;
        }
    return A;
}

TEST(Choleski, FactorsSolvesAndInvertsTheWorkedExample) {
    Matrix A = kA;
    ASSERT_EQ(Choleski_LU_Decomposition(A.data(), 3), 0);
    expect_near_all(A, kFactored, 1e-15);

    Matrix b = {14, 21, 26}; // A * (1, 2, 3)
    Matrix x(3);
    ASSERT_EQ(Choleski_LU_Solve(A.data(), b.data(), x.data(), 3), 0);
    expect_near_all(x, {1, 2, 3}, 1e-14);
    ASSERT_EQ(Choleski_LU_Solve(A.data(), b.data(), b.data(), 3), 0) << "right-hand side as solution";
    expect_near_all(b, {1, 2, 3}, 1e-14);

    ASSERT_EQ(Choleski_LU_Inverse(A.data(), 3), 0);
    expect_near_all(A, kAInverse, 1e-15);
}

TEST(Choleski, IdentityFactorsToItselfAndInvertsToItself) {
    Matrix I = identity(3);
    ASSERT_EQ(Choleski_LU_Decomposition(I.data(), 3), 0);
    EXPECT_EQ(I, identity(3));
    ASSERT_EQ(Choleski_LU_Inverse(I.data(), 3), 0);
    EXPECT_EQ(I, identity(3));

    Matrix one = {9.0};
    ASSERT_EQ(Choleski_LU_Decomposition(one.data(), 1), 0);
    EXPECT_EQ(one[0], 3.0);
    ASSERT_EQ(Choleski_LU_Inverse(one.data(), 1), 0);
    EXPECT_NEAR(one[0], 1.0 / 9.0, 1e-16);
}

// The engine's sizes: 3x3 to 9x9 windows. A * A^-1 = I and A x = b hold to 1e-12, and the inverse is
// exactly symmetric because each value is computed once and stored in both halves.
TEST(Choleski, RandomSpdInverseAndSolveHaveSmallResiduals) {
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int n = 1; n <= 12; n++) {
        for (int trial = 0; trial < 20; trial++) {
            SCOPED_TRACE("n=" + std::to_string(n) + " trial " + std::to_string(trial));
            Matrix A = random_spd(n, rng);
            Matrix b(n);
            for (double &v : b)
                v = u(rng);

            Matrix LU = A;
            ASSERT_EQ(Choleski_LU_Decomposition(LU.data(), n), 0);
            for (int i = 0; i < n; i++)
                for (int j = 0; j < i; j++)
                    ASSERT_EQ(LU[i * n + j], LU[j * n + i]) << "L^T mirrored";
            Matrix lower(n * n, 0.0);
            for (int i = 0; i < n; i++)
                for (int j = 0; j <= i; j++)
                    lower[i * n + j] = LU[i * n + j];
            Matrix upper(n * n, 0.0);
            for (int i = 0; i < n; i++)
                for (int j = 0; j <= i; j++)
                    upper[j * n + i] = LU[i * n + j];
            EXPECT_LT(max_abs_difference(product(lower, n, n, upper, n), A), 1e-12) << "L L^T = A";

            Matrix x(n);
            ASSERT_EQ(Choleski_LU_Solve(LU.data(), b.data(), x.data(), n), 0);
            EXPECT_LT(max_abs_difference(product(A, n, n, x, 1), b), 1e-12) << "A x = b";

            ASSERT_EQ(Choleski_LU_Inverse(LU.data(), n), 0);
            for (int i = 0; i < n; i++)
                for (int j = 0; j < i; j++)
                    ASSERT_EQ(LU[i * n + j], LU[j * n + i]) << "exactly symmetric";
            EXPECT_LT(max_abs_difference(product(A, n, n, LU, n), identity(n)), 1e-12) << "A A^-1 = I";
        }
    }
}

TEST(Choleski, NonPositiveDiagonalFailsAndLeavesLaterRowsUntouched) {
    for (double leading : {0.0, -1.0, -0.0}) {
        Matrix A = {leading, 1, 2, 1, 5, 3, 2, 3, 6};
        const Matrix original = A;
        EXPECT_EQ(Choleski_LU_Decomposition(A.data(), 3), -1) << leading;
        EXPECT_EQ(A, original) << leading;
    }

    // Row 0 factors (L(0,0) = 2); row 1 gets L(1,0) = 1 and then meets 0.5 - 1*1 < 0 under the root;
    // row 2 is never reached.
    Matrix A = {4, 2, 7, 2, 0.5, 8, 7, 8, 9};
    EXPECT_EQ(Choleski_LU_Decomposition(A.data(), 3), -1);
    EXPECT_EQ(A, (Matrix{2, 1, 7, 1, 0.5, 8, 7, 8, 9}));

    // Positive semi-definite (rank one): the second diagonal value is exactly 0.
    Matrix singular = {1, 1, 1, 1};
    EXPECT_EQ(Choleski_LU_Decomposition(singular.data(), 2), -1);
}

TEST(Choleski, SolveAndInverseFailOnAZeroDiagonal) {
    Matrix LU = kFactored;
    LU[4] = 0.0;
    Matrix b = {1, 2, 3}, x(3);
    EXPECT_EQ(Choleski_LU_Solve(LU.data(), b.data(), x.data(), 3), -1);
    EXPECT_EQ(Choleski_LU_Inverse(LU.data(), 3), -1);
}

TEST(TriangularSolve, ForwardAndBackSubstitutionMatchHandValues) {
    // L x = (2, 5, 9) with x = (1, 2, 3): 2*1 = 2, 1 + 2*2 = 5, 1 + 2 + 2*3 = 9.
    Matrix L = kL;
    L[1] = L[2] = L[5] = 99.0; // the strict upper triangle must not be read
    Matrix b = {2, 5, 9}, x(3, -1.0);
    ASSERT_EQ(Lower_Triangular_Solve(L.data(), b.data(), x.data(), 3), 0);
    expect_near_all(x, {1, 2, 3}, 1e-15);

    // U = L^T: U x = (2*1 + 2 + 3, 2*2 + 3, 2*3) = (7, 7, 6).
    Matrix U = {2, 1, 1, 99, 2, 1, 99, 99, 2};
    Matrix c = {7, 7, 6};
    ASSERT_EQ(Upper_Triangular_Solve(U.data(), c.data(), x.data(), 3), 0);
    expect_near_all(x, {1, 2, 3}, 1e-15);
    ASSERT_EQ(Upper_Triangular_Solve(U.data(), c.data(), c.data(), 3), 0) << "in place";
    expect_near_all(c, {1, 2, 3}, 1e-15);
    ASSERT_EQ(Lower_Triangular_Solve(L.data(), b.data(), b.data(), 3), 0) << "in place";
    expect_near_all(b, {1, 2, 3}, 1e-15);
}

TEST(TriangularSolve, ExactZeroPivotFailsButNaNPassesThrough) {
    Matrix L = kL;
    L[8] = 0.0;
    Matrix b = {2, 5, 9}, x(3, -1.0);
    EXPECT_EQ(Lower_Triangular_Solve(L.data(), b.data(), x.data(), 3), -1);
    EXPECT_EQ(x[0], 1.0) << "rows above the zero pivot are solved";
    EXPECT_EQ(x[2], -1.0);

    Matrix U = {2, 1, 1, 0, 1e-300, 1, 0, 0, 0.0};
    EXPECT_EQ(Upper_Triangular_Solve(U.data(), b.data(), x.data(), 3), -1);
    U[8] = 2.0;
    EXPECT_EQ(Upper_Triangular_Solve(U.data(), b.data(), x.data(), 3), 0) << "tiny is not zero";

    const double nan = std::numeric_limits<double>::quiet_NaN();
    Matrix N = {nan, 0, 0, 1, 2, 0, 1, 1, 2};
    EXPECT_EQ(Lower_Triangular_Solve(N.data(), b.data(), x.data(), 3), 0);
    EXPECT_TRUE(std::isnan(x[0]) && std::isnan(x[2]));
    EXPECT_EQ(Upper_Triangular_Solve(N.data(), b.data(), x.data(), 3), 0);
    EXPECT_EQ(Lower_Triangular_Inverse(N.data(), 3), 0);
    EXPECT_EQ(Upper_Triangular_Inverse(N.data(), 3), 0);

    Matrix Z = {1, 0, 0, 1, 0, 0, 1, 1, 2};
    Matrix Zu = {2, 1, 1, 0, 0, 1, 0, 0, 2};
    EXPECT_EQ(Lower_Triangular_Inverse(Z.data(), 3), -1);
    EXPECT_EQ(Upper_Triangular_Inverse(Zu.data(), 3), -1);
}

TEST(TriangularInverse, WorkedExampleAndRandomResiduals) {
    Matrix L = kL;
    L[1] = L[2] = L[5] = 99.0;
    ASSERT_EQ(Lower_Triangular_Inverse(L.data(), 3), 0);
    EXPECT_EQ(L[1], 99.0) << "upper triangle untouched";
    L[1] = L[2] = L[5] = 0.0;
    expect_near_all(L, kLInverse, 1e-16);

    Matrix U = {2, 1, 1, -7, 2, 1, -7, -7, 2};
    ASSERT_EQ(Upper_Triangular_Inverse(U.data(), 3), 0);
    EXPECT_EQ(U[3], -7.0) << "lower triangle untouched";
    U[3] = U[6] = U[7] = 0.0;
    Matrix expected(9);
    Transpose_Matrix(expected.data(), kLInverse.data(), 3, 3);
    expect_near_all(U, expected, 1e-16);

    std::mt19937 rng(7);
    std::uniform_real_distribution<double> off(-1.0, 1.0), diagonal(1.0, 3.0);
    for (int n = 1; n <= 9; n++) {
        Matrix lower(n * n, 0.0), upper(n * n, 0.0);
        for (int i = 0; i < n; i++)
            for (int j = 0; j <= i; j++) {
                lower[i * n + j] = i == j ? diagonal(rng) : off(rng);
                upper[j * n + i] = i == j ? diagonal(rng) : off(rng);
            }
        Matrix lower_inv = lower, upper_inv = upper;
        ASSERT_EQ(Lower_Triangular_Inverse(lower_inv.data(), n), 0);
        ASSERT_EQ(Upper_Triangular_Inverse(upper_inv.data(), n), 0);
        EXPECT_LT(max_abs_difference(product(lower, n, n, lower_inv, n), identity(n)), 1e-12) << n;
        EXPECT_LT(max_abs_difference(product(upper_inv, n, n, upper, n), identity(n)), 1e-12) << n;
    }
}

TEST(Products, NonSquareShapesMatchHandValuesAndEachOther) {
    const Matrix A = {1, 2, 3, 4, 5, 6};                     // 2 x 3
    const Matrix B = {1, 0, 2, -1, 0, 1, 1, 2, 3, -2, 0, 1}; // 3 x 4
    const Matrix AB = {10, -4, 4, 6, 22, -7, 13, 12};        // by hand
    Matrix C(8);
    Multiply_Matrices(C.data(), A.data(), 2, 3, B.data(), 4);
    EXPECT_EQ(C, AB);

    Matrix Bt(12), At(6);
    Transpose_Matrix(Bt.data(), B.data(), 3, 4);
    EXPECT_EQ((Matrix{Bt[0], Bt[1], Bt[2], Bt[3], Bt[11]}), (Matrix{1, 0, 3, 0, 1}));
    Transpose_Matrix(At.data(), A.data(), 2, 3);
    EXPECT_EQ(At, (Matrix{1, 4, 2, 5, 3, 6}));

    Matrix D(8);
    Multiply_Matrix_with_Transpose(D.data(), A.data(), 2, 3, Bt.data(), 4);
    EXPECT_EQ(D, AB);

    // A^T (3 x 2) times a 2 x 4 matrix, A stored as given.
    const Matrix E = {1, -1, 0, 2, 3, 0, 1, 1}; // 2 x 4
    Matrix F(12);
    Multiply_Transpose_with_Matrix(F.data(), A.data(), 2, 3, E.data(), 4);
    EXPECT_EQ(F, product(At, 3, 2, E, 4));
    EXPECT_EQ((Matrix{F[0], F[1], F[2], F[3]}), (Matrix{13, -1, 4, 6}));

    Matrix AAt(4), AtA(9);
    Multiply_Self_Transpose(AAt.data(), A.data(), 2, 3);
    EXPECT_EQ(AAt, (Matrix{14, 32, 32, 77}));
    Self_Transpose_Multiply(AtA.data(), A.data(), 2, 3);
    EXPECT_EQ(AtA, (Matrix{17, 22, 27, 22, 29, 36, 27, 36, 45}));
}

TEST(Products, KroneckerAndBilinearMatchHandValues) {
    const Matrix A = {1, 2, 3, 4, 5, 6}; // 2 x 3
    const Matrix B = {0, 1, 1, 0};       // 2 x 2
    Matrix C(24);
    Kronecker_Product(C.data(), A.data(), 2, 3, B.data(), 2, 2);
    EXPECT_EQ(C, (Matrix{0, 1, 0, 2, 0, 3, 1, 0, 2, 0, 3, 0, 0, 4, 0, 5, 0, 6, 4, 0, 5, 0, 6, 0}));

    const Matrix col = {1, -1}; // 2 x 1: the Kronecker product stacks scaled copies of A
    Matrix K(12);
    Kronecker_Product(K.data(), col.data(), 2, 1, A.data(), 2, 3);
    EXPECT_EQ(K, (Matrix{1, 2, 3, 4, 5, 6, -1, -2, -3, -4, -5, -6}));

    // x^T A y with x of 2, y of 3: A y = (1 + 0 - 3, 4 + 0 - 6) = (-2, -2); x = (3, -1) gives -4.
    const Matrix x = {3, -1}, y = {1, 0, -1};
    EXPECT_EQ(Bilinear_Function(x.data(), A.data(), y.data(), 2, 3), -4.0);
}

// Both products sum terms of size 1e16 that cancel and leave 1, which double sums round away.
TEST(Products, CommutatorKeepsSmallTermsAmongCancellingLargeOnes) {
    const Matrix A = {1e8, 1, -1e8, 0, 0, 0, 0, 0, 0};
    const Matrix B = {0, 1e8, 0, 0, 1, 0, 0, 1e8, 0};
    Matrix C(9, -5.0);
    Matrix_Commutator(C.data(), A.data(), B.data(), 3);
    EXPECT_EQ(C[1], 1.0);

    const Matrix P = {1, 2, 3, 4}, Q = {0, 1, 1, 0};
    Matrix PQ(4), QP(4), R(4);
    Multiply_Matrices(PQ.data(), P.data(), 2, 2, Q.data(), 2);
    Multiply_Matrices(QP.data(), Q.data(), 2, 2, P.data(), 2);
    Matrix_Commutator(R.data(), P.data(), Q.data(), 2);
    EXPECT_EQ(R, (Matrix{PQ[0] - QP[0], PQ[1] - QP[1], PQ[2] - QP[2], PQ[3] - QP[3]}));
    EXPECT_EQ(R, (Matrix{-1, -3, 3, 1}));
}

TEST(Elementwise, JoinCopyTransposeAndArithmetic) {
    const Matrix A = {1, 2, 3, 4, 5, 6}; // 2 x 3
    const Matrix B = {7, 8};             // 2 x 1
    Matrix side(8);
    Join_Matrices_by_Row(side.data(), A.data(), 2, 3, B.data(), 1);
    EXPECT_EQ(side, (Matrix{1, 2, 3, 7, 4, 5, 6, 8}));

    const Matrix below = {7, 8, 9}; // 1 x 3
    Matrix stacked(9);
    Join_Matrices_by_Column(stacked.data(), A.data(), 2, 3, below.data(), 1);
    EXPECT_EQ(stacked, (Matrix{1, 2, 3, 4, 5, 6, 7, 8, 9}));

    Transpose_Square_Matrix(stacked.data(), 3);
    EXPECT_EQ(stacked, (Matrix{1, 4, 7, 2, 5, 8, 3, 6, 9}));

    Matrix copy(6, 0.0), v(3, 0.0);
    Copy_Matrix(copy.data(), A.data(), 2, 3);
    EXPECT_EQ(copy, A);
    Copy_Vector(v.data(), A.data() + 3, 3);
    EXPECT_EQ(v, (Matrix{4, 5, 6}));

    Matrix sum(6), difference(6);
    Add_Matrices(sum.data(), A.data(), copy.data(), 2, 3);
    EXPECT_EQ(sum, (Matrix{2, 4, 6, 8, 10, 12}));
    Subtract_Matrices(difference.data(), A.data(), sum.data(), 2, 3);
    EXPECT_EQ(difference, (Matrix{-1, -2, -3, -4, -5, -6}));
    Subtract_Matrices(sum.data(), sum.data(), A.data(), 2, 3);
    EXPECT_EQ(sum, A) << "in place";

    Matrix M = A;
    Multiply_Matrix_by_Scalar(M.data(), 2, 3, -2.0);
    EXPECT_EQ(M, (Matrix{-2, -4, -6, -8, -10, -12}));
    Divide_Matrix_by_Scalar(M.data(), 2, 3, -4.0);
    EXPECT_EQ(M, (Matrix{0.5, 1, 1.5, 2, 2.5, 3}));

    Matrix wide = A, tall = A; // 2 x 3 and 3 x 2: two diagonal positions each
    Add_Scalar_to_Diagonal(wide.data(), 2, 3, 10.0);
    EXPECT_EQ(wide, (Matrix{11, 2, 3, 4, 15, 6}));
    Subtract_Scalar_from_Diagonal(tall.data(), 3, 2, 10.0);
    EXPECT_EQ(tall, (Matrix{-9, 2, 3, -6, 5, 6}));
}

TEST(Elementwise, DividingByZeroGivesInfinitiesAndNaNsWithoutFailing) {
    Matrix M = {1, -2, 0, 3};
    Divide_Matrix_by_Scalar(M.data(), 2, 2, 0.0);
    EXPECT_EQ(M[0], std::numeric_limits<double>::infinity());
    EXPECT_EQ(M[1], -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(M[2]));
    EXPECT_EQ(M[3], std::numeric_limits<double>::infinity());
}

TEST(Norms, VectorAndMatrixNormsMatchHandValuesInEverySize) {
    const Matrix v = {3, -4, 12};
    EXPECT_EQ(Inner_Product(v.data(), v.data(), 3), 169.0);
    EXPECT_EQ(Inner_Product_3d(v.data(), v.data()), 169.0);
    EXPECT_EQ(Inner_Product_2d(v.data(), v.data() + 1), -60.0);
    EXPECT_EQ(Vector_L1_Norm(v.data(), 3), 19.0);
    EXPECT_EQ(Vector_L1_Norm_3d(v.data()), 19.0);
    EXPECT_EQ(Vector_L1_Norm_2d(v.data()), 7.0);
    EXPECT_NEAR(Vector_L2_Norm(v.data(), 3), 13.0, 1e-15);
    EXPECT_NEAR(Vector_L2_Norm_3d(v.data()), 13.0, 1e-15);
    EXPECT_NEAR(Vector_L2_Norm_2d(v.data()), 5.0, 1e-15);
    EXPECT_EQ(Vector_Max_Norm(v.data(), 2), 4.0);
    EXPECT_EQ(Vector_Max_Norm_2d(v.data()), 4.0);
    EXPECT_EQ(Vector_Max_Norm_3d(v.data()), 12.0);
    EXPECT_EQ(Vector_Max_Norm(v.data(), 3), 12.0);

    // Column sums of absolute values 12, 15, 18 and row sums 6, 15, 24 (with signs mixed in).
    const Matrix A = {1, -2, 3, -4, 5, -6, 7, -8, 9};
    EXPECT_EQ(Matrix_L1_Norm(A.data(), 3), 18.0);
    EXPECT_EQ(Matrix_L1_Norm_3d(A.data()), 18.0);
    EXPECT_EQ(Matrix_Max_Norm(A.data(), 3), 24.0);
    EXPECT_EQ(Matrix_Max_Norm_3d(A.data()), 24.0);
    EXPECT_NEAR(Matrix_E_Norm(A.data(), 3), std::sqrt(285.0), 1e-14);
    EXPECT_NEAR(Matrix_E_Norm_3d(A.data()), std::sqrt(285.0), 1e-14);

    const Matrix S = {1, -5, -2, 3}; // columns 3, 8; rows 6, 5
    EXPECT_EQ(Matrix_L1_Norm(S.data(), 2), 8.0);
    EXPECT_EQ(Matrix_L1_Norm_2d(S.data()), 8.0);
    EXPECT_EQ(Matrix_Max_Norm(S.data(), 2), 6.0);
    EXPECT_EQ(Matrix_Max_Norm_2d(S.data()), 6.0);
    EXPECT_NEAR(Matrix_E_Norm_2d(S.data()), std::sqrt(39.0), 1e-15);
    EXPECT_NEAR(Matrix_E_Norm(S.data(), 2), std::sqrt(39.0), 1e-15);
}

} // namespace
