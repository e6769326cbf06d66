// Tests of the comparisons between CHOLMOD objects, store vectors and dense arrays: the differences
// found, their count, and the exact messages printed.
#include "matting/cholmod_diagnostics.h"

#include "numeric/arrays.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A CHOLMOD session for one test, with int or long indices.
class CholmodSession {
  public:
    explicit CholmodSession(bool long_indices) : long_(long_indices) {
        if (long_)
            cholmod_l_start(&c);
        else
            cholmod_start(&c);
    }
    ~CholmodSession() {
        for (cholmod_sparse *A : sparse_)
            long_ ? cholmod_l_free_sparse(&A, &c) : cholmod_free_sparse(&A, &c);
        for (cholmod_dense *X : dense_)
            long_ ? cholmod_l_free_dense(&X, &c) : cholmod_free_dense(&X, &c);
        long_ ? cholmod_l_finish(&c) : cholmod_finish(&c);
    }

    // A compressed-column matrix from (row, column, value) triplets, 0-based, in the order given.
    cholmod_sparse *sparse(size_t nrow, size_t ncol, int stype, const std::vector<std::vector<double>> &t) {
        cholmod_triplet *T = long_ ? cholmod_l_allocate_triplet(nrow, ncol, t.size(), stype, CHOLMOD_REAL, &c)
                                   : cholmod_allocate_triplet(nrow, ncol, t.size(), stype, CHOLMOD_REAL, &c);
        for (size_t k = 0; k < t.size(); k++) {
            if (long_) {
                static_cast<SuiteSparse_long *>(T->i)[k] = static_cast<SuiteSparse_long>(t[k][0]);
                static_cast<SuiteSparse_long *>(T->j)[k] = static_cast<SuiteSparse_long>(t[k][1]);
            } else {
                static_cast<int *>(T->i)[k] = static_cast<int>(t[k][0]);
                static_cast<int *>(T->j)[k] = static_cast<int>(t[k][1]);
            }
            static_cast<double *>(T->x)[k] = t[k][2];
        }
        T->nnz = t.size();
        cholmod_sparse *A =
            long_ ? cholmod_l_triplet_to_sparse(T, t.size(), &c) : cholmod_triplet_to_sparse(T, t.size(), &c);
        long_ ? cholmod_l_free_triplet(&T, &c) : cholmod_free_triplet(&T, &c);
        sparse_.push_back(A);
        return A;
    }

    cholmod_dense *dense(const std::vector<double> &v) {
        cholmod_dense *X = long_ ? cholmod_l_allocate_dense(v.size(), 1, v.size(), CHOLMOD_REAL, &c)
                                 : cholmod_allocate_dense(v.size(), 1, v.size(), CHOLMOD_REAL, &c);
        for (size_t k = 0; k < v.size(); k++)
            static_cast<double *>(X->x)[k] = v[k];
        dense_.push_back(X);
        return X;
    }

    cholmod_common c;

  private:
    bool long_;
    std::vector<cholmod_sparse *> sparse_;
    std::vector<cholmod_dense *> dense_;
};

double **array3x3(std::initializer_list<double> values) {
    double **a = reinterpret_cast<double **>(get_img(3, 3, sizeof(double)));
    auto v = values.begin();
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            a[i][j] = *v++;
    return a;
}

TEST(CholmodDiagnostics, SparseAgainstArrayReportsChangedAndMissingValues) {
    for (bool long_indices : {false, true}) {
        SCOPED_TRACE(long_indices ? "long indices" : "int indices");
        CholmodSession s(long_indices);
        cholmod_sparse *A = s.sparse(3, 3, 0, {{0, 0, 2.0}, {2, 0, -1.0}, {1, 1, 5.0}, {0, 2, 1.0}});
        double **a = array3x3({2.0, 0.0, 1.0, 0.0, 5.0, 0.0, -1.0, 0.0, 0.0});
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsArray(A, a), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

        a[2][0] = -1.0 + 1e-11; // within tolerance
        a[1][1] = 5.5;
        a[2][2] = 3.0; // no stored element
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsArray(A, a), 2);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Values are different comparing A1,1 (5) B1,1 (5.5)\n"
                  "value found in array nothing in sparse col at i,j 2,2\n");

        // A symmetric matrix (upper triangle used) is not blamed for the array's lower triangle.
        cholmod_sparse *S = s.sparse(3, 3, 1, {{0, 0, 2.0}, {0, 2, -1.0}, {1, 1, 5.0}, {2, 2, 3.0}});
        double **b = array3x3({2.0, 0.0, -1.0, 0.0, 5.0, 0.0, -1.0, 0.0, 3.0});
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsArray(S, b), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        free_img(reinterpret_cast<void **>(a));
        free_img(reinterpret_cast<void **>(b));
    }
}

TEST(CholmodDiagnostics, SparseAgainstSparseCountsDifferingElements) {
    for (bool long_indices : {false, true}) {
        SCOPED_TRACE(long_indices ? "long indices" : "int indices");
        CholmodSession s(long_indices);
        cholmod_sparse *A = s.sparse(3, 2, 0, {{0, 0, 1.0}, {2, 0, 2.0}, {1, 1, 3.0}});
        // Same values in another order and with an explicit zero; duplicates add up.
        cholmod_sparse *B =
            s.sparse(3, 2, 0, {{1, 1, 3.0}, {2, 0, 1.5}, {2, 0, 0.5}, {0, 0, 1.0}, {0, 1, 0.0}});
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsSparse(A, B, &s.c), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

        cholmod_sparse *C = s.sparse(3, 2, 0, {{0, 0, 1.0}, {2, 1, 4.0}, {1, 1, 3.5}});
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsSparse(A, C, &s.c), 3);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Values are different comparing A2,0 (2) B2,0 (0)\n"
                  "Values are different comparing A1,1 (3) B1,1 (3.5)\n"
                  "Values are different comparing A2,1 (0) B2,1 (4)\n");

        cholmod_sparse *D = s.sparse(2, 2, 0, {});
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsSparse(A, D, &s.c), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "cmpSparseVsSparse: dimensions differ (3 x 2, 2 x 2)\n");
    }
}

TEST(CholmodDiagnostics, DenseComparisonsReportIndicesAndExtraNonZeros) {
    CholmodSession s(false);
    cholmod_dense *A = s.dense({1.0, 2.0, 3.0});
    cholmod_dense *B = s.dense({1.0, 2.5, 3.0 + 1e-11, 0.0, 0.0, 7.0});
    EXPECT_EQ(hasNonZeros(B, 3), 5);
    EXPECT_EQ(hasNonZeros(B, 6), -1);
    EXPECT_EQ(hasNonZeros(A, 0), 0);

    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpDenseVsDense(A, B), 2);
    EXPECT_EQ(cmpDenseVsDense(B, A), 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "disparity between dense objects at index 1.\n"
              "second Matrix has extra nonzero beyond first at index 5\n"
              "disparity between dense objects at index 1.\n"
              "first Matrix has extra nonzero beyond second at index 5\n");
    cholmod_dense *Z = s.dense({1.0, 2.0, 3.0, 0.0, 1e-12});
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpDenseVsDense(A, Z), 0) << "a tail of zeros is no difference";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    double **a = array3x3({0.0, 1.0, 0.0, 0.0, 2.0, 0.0, 0.0, 3.5, 0.0});
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpDenseVsArray(A, a, 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Values are different comparing A2,0 (3) B2,1 (3.5)\n");
    free_img(reinterpret_cast<void **>(a));

    // The store vector is compared exactly, component k+1 against A[k].
    Vector v;
    V_Constr(&v, "x", 3, INSTANCE_NORMAL, true);
    V_SetCmp(&v, 1, 1.0);
    V_SetCmp(&v, 2, 2.0);
    V_SetCmp(&v, 3, 3.0 + 1e-12);
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpDenseVsVector(A, &v), 1);
    EXPECT_EQ(cmpDenseVsVector(B, &v), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Vectors are not equal A[2] (3) B[3] (3)\n"
                                                      "Vectors have different lengths 6 and 3\n"
                                                      "Vectors are not equal A[1] (2.5) B[2] (2)\n"
                                                      "Vectors are not equal A[2] (3) B[3] (3)\n");
    V_Destr(&v);
    EXPECT_EQ(LASResult(), LAS_OK);
}

} // namespace
