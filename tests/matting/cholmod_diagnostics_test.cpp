// The comparisons between CHOLMOD objects, store vectors and dense arrays: the differences found, their
// count, and the exact messages printed.
#include "matting/cholmod_diagnostics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "numeric/arrays.h"

namespace {

// Each comparison runs with int and with long indices; the store vector is compared exactly.
TEST(CholmodDiagnostics, ComparisonsCountAndReportEachDifference) {
    for (bool l : {false, true}) {
        SCOPED_TRACE(l ? "long indices" : "int indices");
        cholmod_common c;
        l ? cholmod_l_start(&c) : cholmod_start(&c);
        std::vector<cholmod_dense *> X;
        for (const std::vector<double> &v : {std::vector<double>{2, 0, -1, 0, 5, 0, 1, 0, 0},
                                             {2, 0, 0, 0, 5.5, 0, 1, 0, 0},
                                             {1, 2, 3},
                                             {1, 2.5, 3 + 1e-11, 0, 0, 7}}) {
            const size_t nrow = v.size() == 9 ? 3 : v.size(), ncol = v.size() == 9 ? 3 : 1;
            X.push_back(l ? cholmod_l_allocate_dense(nrow, ncol, nrow, CHOLMOD_REAL, &c)
                          : cholmod_allocate_dense(nrow, ncol, nrow, CHOLMOD_REAL, &c));
            std::copy(v.begin(), v.end(), static_cast<double *>(X.back()->x));
        }
        cholmod_sparse *A = l ? cholmod_l_dense_to_sparse(X[0], 1, &c) : cholmod_dense_to_sparse(X[0], 1, &c);
        cholmod_sparse *B = l ? cholmod_l_dense_to_sparse(X[1], 1, &c) : cholmod_dense_to_sparse(X[1], 1, &c);
        double **a = reinterpret_cast<double **>(get_img(3, 3, sizeof(double)));
        const double rows[9] = {2, 0, 1, 0, 5.5, 0, -1 + 1e-11, 0, 3}; // (2,0) within tolerance
        std::copy(rows, rows + 9, a[0]);
        Vector v;
        V_Constr(&v, "x", 3, INSTANCE_NORMAL, true);
        for (size_t k = 1; k <= 3; k++)
            V_SetCmp(&v, k, k == 3 ? 3.0 + 1e-12 : k);
        testing::internal::CaptureStdout();
        EXPECT_EQ(cmpSparseVsArray(A, a), 2);
        EXPECT_EQ(cmpSparseVsSparse(A, B, &c), 2);
        EXPECT_EQ(cmpDenseVsDense(X[2], X[3]), 2);
        EXPECT_EQ(cmpDenseVsDense(X[3], X[2]), 2);
        EXPECT_EQ(cmpDenseVsVector(X[2], &v), 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Values are different comparing A1,1 (5) B1,1 (5.5)\n"
                  "value found in array nothing in sparse col at i,j 2,2\n"
                  "Values are different comparing A2,0 (-1) B2,0 (0)\n"
                  "Values are different comparing A1,1 (5) B1,1 (5.5)\n"
                  "disparity between dense objects at index 1.\n"
                  "second Matrix has extra nonzero beyond first at index 5\n"
                  "disparity between dense objects at index 1.\n"
                  "first Matrix has extra nonzero beyond second at index 5\n"
                  "Vectors are not equal A[2] (3) B[3] (3)\n");
        V_Destr(&v);
        free_img(reinterpret_cast<void **>(a));
        for (cholmod_sparse *S : {A, B})
            l ? cholmod_l_free_sparse(&S, &c) : cholmod_free_sparse(&S, &c);
        for (cholmod_dense *D : X)
            l ? cholmod_l_free_dense(&D, &c) : cholmod_free_dense(&D, &c);
        l ? cholmod_l_finish(&c) : cholmod_finish(&c);
    }
}

} // namespace
