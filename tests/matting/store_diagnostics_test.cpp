// The sparse store's Matrix Market export, read back with the Matrix Market reader, and its refusals.
// The export writes to the current directory, so each test works in a fresh temporary folder.
#include "matting/store_diagnostics.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "numeric/matrix_market.h"
#include "tests/matting/engine_fixtures.h"

namespace {

std::string read_file(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

using StoreDiagnostics = InTempDir;

TEST_F(StoreDiagnostics, ExportedStoreReadsBackAsTheSameMatrix) {
    // Symmetric, upper triangle by rows: each row's list is written as that column's lower triangle.
    QMatrix Q;
    Q_Constr(&Q, "A", 4, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_SetLen(&Q, 1, 3);
    Q_SetEntry(&Q, 1, 0, 1, 4.0);
    Q_SetEntry(&Q, 1, 1, 2, -1.0);
    Q_SetEntry(&Q, 1, 2, 4, 0.5);
    Q_SetLen(&Q, 3, 2);
    Q_SetEntry(&Q, 3, 0, 3, 1.0 / 3.0);
    Q_SetEntry(&Q, 3, 1, 4, -2.0);
    write_MM_QMatrix(&Q);
    EXPECT_EQ(read_file("~tmpQMatrix.rsa"), "%%MatrixMarket matrix coordinate real symmetric\n4 4 5\n"
                                            "1 1 4\n2 1 -1\n4 1 0.5\n3 3 0.333333333333\n4 3 -2\n");
    int M, N, nz, *I, *J;
    double *val;
    MM_typecode code;
    ASSERT_EQ(mm_read_mtx_crd("~tmpQMatrix.rsa", &M, &N, &nz, &I, &J, &val, code), 0);
    EXPECT_TRUE(mm_is_symmetric(code) && M == 4 && N == 4);
    ASSERT_EQ(nz, 5);
    double full[4][4] = {};
    for (int k = 0; k < nz; k++)
        full[I[k] - 1][J[k] - 1] = full[J[k] - 1][I[k] - 1] = val[k];
    for (size_t i = 1; i <= 4; i++)
        for (size_t j = 1; j <= 4; j++)
            EXPECT_NEAR(full[i - 1][j - 1], Q_GetEl(&Q, i, j), 1e-12) << i << "," << j; // 12 digits written
    std::free(I);
    std::free(J);
    std::free(val);
    Q_Destr(&Q);

    EXPECT_EQ(LASResult(), LAS_OK);
}

TEST_F(StoreDiagnostics, ExportRefusesRowOrderedGeneralStoresAndUnwritableFiles) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    QMatrix Q;
    Q_Constr(&Q, "B", 2, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    EXPECT_EXIT(write_MM_QMatrix(&Q), testing::ExitedWithCode(1),
                "^B matrix is either not columnwise or not symmetric. Can't write this format\n$");
    Q.symmetry = true;
    ASSERT_EQ(mkdir("~tmpQMatrix.rsa", 0700), 0); // a folder in the file's place
    EXPECT_EXIT(write_MM_QMatrix(&Q), testing::ExitedWithCode(1), "^cannot open file ~tmpQMatrix.rsa\n$");
    Q_Destr(&Q);
}

} // namespace
