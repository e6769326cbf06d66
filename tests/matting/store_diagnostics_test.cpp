// Tests of the sparse store's debugging aids: the Matrix Market export read back, the exact text of the
// printers, and the comparison with a dense array. Each test works in a fresh temporary folder, since
// the routines write to the current directory.
#include "matting/store_diagnostics.h"

#include "numeric/arrays.h"
#include "numeric/matrix_market.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The symmetric 5 x 5 store used throughout, upper triangle by rows:
//   row 1: (1, 4) (2, -1) (4, 0.5); row 2: (2, 3) (5, -2); row 3: (3, 7); row 4: empty; row 5: (5, 1.5)
void build_example(QMatrix *Q) {
    Q_Constr(Q, "A", 5, true, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    Q_SetLen(Q, 1, 3);
    Q_SetEntry(Q, 1, 0, 1, 4.0);
    Q_SetEntry(Q, 1, 1, 2, -1.0);
    Q_SetEntry(Q, 1, 2, 4, 0.5);
    Q_SetLen(Q, 2, 2);
    Q_SetEntry(Q, 2, 0, 2, 3.0);
    Q_SetEntry(Q, 2, 1, 5, -2.0);
    Q_SetLen(Q, 3, 1);
    Q_SetEntry(Q, 3, 0, 3, 7.0);
    Q_SetLen(Q, 5, 1);
    Q_SetEntry(Q, 5, 0, 5, 1.0 / 3.0);
}

// The same matrix as a dense array.
double **example_array() {
    const double dense[5][5] = {{4.0, -1.0, 0.0, 0.5, 0.0},
                                {-1.0, 3.0, 0.0, 0.0, -2.0},
                                {0.0, 0.0, 7.0, 0.0, 0.0},
                                {0.5, 0.0, 0.0, 0.0, 0.0},
                                {0.0, -2.0, 0.0, 0.0, 1.0 / 3.0}};
    double **a = reinterpret_cast<double **>(get_img(5, 5, sizeof(double)));
    for (int i = 0; i < 5; i++)
        for (int j = 0; j < 5; j++)
            a[i][j] = dense[i][j];
    return a;
}

std::string read_file(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class StoreDiagnostics : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/keldra_storediag_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_NE(getcwd(old_dir, sizeof old_dir), nullptr);
        ASSERT_EQ(chdir(dir.c_str()), 0);
        build_example(&Q);
    }
    void TearDown() override {
        Q_Destr(&Q);
        EXPECT_EQ(LASResult(), LAS_OK);
        EXPECT_EQ(chdir(old_dir), 0);
        std::system(("rm -rf " + dir).c_str());
    }
    std::string dir;
    char old_dir[4096];
    QMatrix Q;
};

TEST_F(StoreDiagnostics, ExportedStoreReadsBackAsTheSameSymmetricMatrix) {
    write_MM_QMatrix(&Q);
    // List j holds row j's upper triangle, written as column j's lower triangle.
    EXPECT_EQ(read_file("~tmpQMatrix.rsa"), "%%MatrixMarket matrix coordinate real symmetric\n"
                                            "5 5 7\n"
                                            "1 1 4\n"
                                            "2 1 -1\n"
                                            "4 1 0.5\n"
                                            "2 2 3\n"
                                            "5 2 -2\n"
                                            "3 3 7\n"
                                            "5 5 0.333333333333\n");

    int M, N, nz, *I, *J;
    double *val;
    MM_typecode code;
    ASSERT_EQ(mm_read_mtx_crd("~tmpQMatrix.rsa", &M, &N, &nz, &I, &J, &val, code), 0);
    EXPECT_TRUE(mm_is_symmetric(code));
    EXPECT_EQ(M, 5);
    EXPECT_EQ(N, 5);
    ASSERT_EQ(nz, 7);
    // Rebuild the full matrix from the file's lower triangle and compare it with the store.
    double full[5][5] = {};
    for (int k = 0; k < nz; k++) {
        EXPECT_GE(I[k], J[k]) << "entries lie in the lower triangle";
        full[I[k] - 1][J[k] - 1] = full[J[k] - 1][I[k] - 1] = val[k];
    }
    for (size_t i = 1; i <= 5; i++)
        for (size_t j = 1; j <= 5; j++)
            EXPECT_NEAR(full[i - 1][j - 1], Q_GetEl(&Q, i, j), 1e-12) << i << "," << j; // 12 digits written
    std::free(I);
    std::free(J);
    std::free(val);

    // A column-ordered, non-symmetric store is written as a general matrix.
    QMatrix C;
    Q_Constr(&C, "C", 2, false, EL_ORDER_COLUMNS, INSTANCE_NORMAL, true);
    Q_SetLen(&C, 2, 1);
    Q_SetEntry(&C, 2, 0, 1, 2.5);
    write_MM_QMatrix(&C);
    EXPECT_EQ(read_file("~tmpQMatrix.rsa"),
              "%%MatrixMarket matrix coordinate real general\n2 2 1\n1 2 2.5\n");
    Q_Destr(&C);
}

TEST_F(StoreDiagnostics, ExportRefusesRowOrderedGeneralStoresAndUnwritableFiles) {
    QMatrix B;
    Q_Constr(&B, "B", 2, false, EL_ORDER_ROWS, INSTANCE_NORMAL, true);
    EXPECT_EXIT(write_MM_QMatrix(&B), ::testing::ExitedWithCode(1),
                "^B matrix is either not columnwise or not symmetric. Can't write this format\n$");
    Q_Destr(&B);
    ASSERT_EQ(mkdir("~tmpQMatrix.rsa", 0700), 0); // a folder in the file's place
    EXPECT_EXIT(write_MM_QMatrix(&Q), ::testing::ExitedWithCode(1), "^cannot open file ~tmpQMatrix.rsa\n$");
}

TEST_F(StoreDiagnostics, PrintersWriteExactText) {
    // Every item repeats element (row0, col0) = (1, 2), over (rows+1) x (cols+1) items.
    testing::internal::CaptureStdout();
    printsubQ_MX(&Q, 1, 2, 1, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\toffset: 1,2 size: 1,2\n -1 -1 -1\n -1 -1 -1\n");

    std::string table;
    {
        char *buf = nullptr;
        size_t size = 0;
        FILE *f = open_memstream(&buf, &size);
        fprintQ_MX(f, &Q, 4, 3);
        std::fclose(f);
        table.assign(buf, size);
        std::free(buf);
    }
    EXPECT_EQ(table, "4\t-1\t\t\n-1\t3\t\t\n\t\t7\t\n0.5\t\t\t\n");

    Vector v;
    V_Constr(&v, "d", 3, INSTANCE_NORMAL, true);
    V_SetAllCmp(&v, 0.0);
    V_SetCmp(&v, 1, 1.5);
    V_SetCmp(&v, 3, -2e-9);
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    fprintV(f, &v);
    std::fclose(f);
    EXPECT_EQ(std::string(buf, size), "1.5\n0\n-2e-09\n");
    std::free(buf);
    V_Destr(&v);
}

TEST_F(StoreDiagnostics, ComparisonWithAnArrayCountsResidualsAndWritesTables) {
    double **a = example_array();
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpQMatrixVsArray(&Q, a), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MX dim 5\n");
    EXPECT_EQ(read_file("residuals.xls"), std::string(5, '\t') + "\n" + std::string(5, '\t') + "\n" +
                                              std::string(5, '\t') + "\n" + std::string(5, '\t') + "\n" +
                                              std::string(5, '\t') + "\n");
    EXPECT_EQ(read_file("A_preMX.xls"), read_file("AA_preMX.xls"));
    EXPECT_EQ(read_file("A_preMX.xls").substr(0, 12), "4\t-1\t\t0.5\t\t\n");

    // One element off by more than the tolerance, its mirror image stored in the same slot; one off by
    // less.
    a[1][4] = -2.5;
    a[4][1] = -2.5;
    a[0][0] = 4.0 + std::ldexp(1.0, -40); // exact: 9.09495e-13 above
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmpQMatrixVsArray(&Q, a), 2);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(read_file("residuals.xls"), "9.09495e-13\t\t\t\t\t\n"
                                          "\t\t\t\t-0.5\t\n"
                                          "\t\t\t\t\t\n"
                                          "\t\t\t\t\t\n"
                                          "\t-0.5\t\t\t\t\n");

    // A column of the store that has elements where the array's diagonal is zero ends the process.
    a[2][2] = 0.0;
    EXPECT_EXIT(cmpQMatrixVsArray(&Q, a), ::testing::ExitedWithCode(255),
                "element in row 3 Q_Matrix not in A array\n");
    free_img(reinterpret_cast<void **>(a));
}

} // namespace
