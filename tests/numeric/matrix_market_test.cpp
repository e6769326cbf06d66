// Tests of the Matrix Market reader and writer: round trips, the exact text written, and the refusal of
// malformed banners, sizes and entries.
#include "numeric/matrix_market.h"

#include "tests/numeric/numeric_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>

namespace {

std::string write_file(const std::string &p, const std::string &text) {
    std::ofstream(p, std::ios::binary) << text;
    return p;
}

// A table row: the input, the status expected, and the text expected (empty when there is none).
struct Case {
    std::string text;
    int status;
    std::string expect;
};

// Real and complex values keep 16 significant digits (relative error at most 5e-16); pattern files
// carry none and read back as a null value array. The complex file is read through the name "stdin".
TEST(MatrixMarket, CoordinateFilesRoundTripInEveryField) {
    TempDir tmp;
    const std::string p = tmp.path("a.mtx");
    const int I[] = {1, 3, 2, 4}, J[] = {1, 1, 5, 3};
    const double val[] = {1.0 / 3.0, -2.5e-300, 7.0, 123456789.123456789, -0.0625, 1e20, 0.0, 3.25};
    for (const char *type : {"MCRS", "MCCH", "MCPG"}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(mm_write_mtx_crd(p.c_str(), 4, 5, 4, I, J, val, type), 0);
        int M = 0, N = 0, nz = 0, *rI = nullptr, *rJ = nullptr;
        double *rval = const_cast<double *>(val);
        MM_typecode code;
        const int values = type[2] == 'C' ? 8 : type[2] == 'R' ? 4 : 0;
        ASSERT_TRUE(values != 8 || std::freopen(p.c_str(), "r", stdin) != nullptr);
        ASSERT_EQ(mm_read_mtx_crd(values == 8 ? "stdin" : p.c_str(), &M, &N, &nz, &rI, &rJ, &rval, code), 0);
        EXPECT_EQ(std::string(code, 4), type);
        ASSERT_TRUE(M == 4 && N == 5 && nz == 4);
        for (int k = 0; k < 4; k++)
            EXPECT_TRUE(rI[k] == I[k] && rJ[k] == J[k]) << k;
        for (int k = 0; k < values; k++)
            EXPECT_NEAR(rval[k], val[k], 1e-15 * std::fabs(val[k])) << k;
        EXPECT_TRUE(values > 0 || rval == nullptr);
        std::free(rI);
        std::free(rJ);
        std::free(rval);
    }
}

// The integer field is refused before anything is created; a missing folder cannot be written.
TEST(MatrixMarket, WrittenTextIsExact) {
    TempDir tmp;
    const int I[] = {1, 2}, J[] = {2, 2};
    const double val[] = {0.25, -3.5e20};
    testing::internal::CaptureStdout();
    ASSERT_EQ(mm_write_mtx_crd("stdout", 2, 3, 2, I, J, val, "MCRG"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "%%MatrixMarket matrix coordinate real general\n2 3 2\n"
                                                      "1 2                 0.25\n2 2             -3.5e+20\n");
    EXPECT_EQ(mm_write_mtx_crd(tmp.path("i.mtx").c_str(), 2, 3, 2, I, J, val, "MCIG"), MM_UNSUPPORTED_TYPE);
    EXPECT_NE(access(tmp.path("i.mtx").c_str(), F_OK), 0);
    EXPECT_EQ(mm_write_mtx_crd(tmp.path("no/x.mtx").c_str(), 2, 3, 2, I, J, val, "MCRG"), MM_COULD_NOT_WRITE);
}

// Type codes the format forbids are refused, and each letter has its word.
TEST(MatrixMarket, TypeCodesAreValidatedAndNamed) {
    EXPECT_TRUE(mm_is_valid("MCRG") && mm_is_valid("MAIK") && mm_is_valid("MCCH") && mm_is_valid("MCPS"));
    EXPECT_FALSE(mm_is_valid("MAPG") || mm_is_valid("MCRH") || mm_is_valid("MCPH") || mm_is_valid("MCPK") ||
                 mm_is_valid("XCRG"));
    char *words = mm_typecode_to_str("MAIK");
    EXPECT_STREQ(words, "matrix array integer skew-symmetric");
    std::free(words);
    EXPECT_EQ(mm_typecode_to_str("MCRX"), nullptr);
}

// Each banner word in turn; sizes that are negative, too large for an int or no integer; indices
// outside the size, far fewer entries than claimed, a value that is no number; valid banners that are
// not coordinate matrices. Nothing is handed out on failure. Banner words after the first are read
// without regard to case, a banner line longer than the reader keeps is consumed whole, sizes may
// continue over lines and comments, integer entries over lines.
TEST(MatrixMarket, BannersSizesAndEntriesAreChecked) {
    TempDir tmp;
    const std::string banner = "%%MatrixMarket matrix coordinate real general\n";
    const Case cases[] = {
        {"", MM_PREMATURE_EOF, ""},
        {"%%MatrixMarket matrix coordinate real\n1 1 1\n", MM_PREMATURE_EOF, ""},
        {"%%matrixmarket matrix coordinate real general\n", MM_NO_HEADER, ""},
        {"%%MatrixMarket vector coordinate real general\n", MM_UNSUPPORTED_TYPE, ""},
        {"%%MatrixMarket matrix coordinate real upper\n", MM_UNSUPPORTED_TYPE, ""},
        {banner + "% c\n\n2 -2 1\n", MM_UNSUPPORTED_TYPE, ""},
        {banner + "2 2147483648 1\n", MM_UNSUPPORTED_TYPE, ""},
        {banner + "2 2 1.0\n1 1 1.0\n", MM_PREMATURE_EOF, ""},
        {banner + "2 2 1\n3 1 1.0\n", MM_UNSUPPORTED_TYPE, ""},
        {banner + "2 2 1\n1 0 1.0\n", MM_UNSUPPORTED_TYPE, ""},
        {banner + "2 2 2000000000\n1 1 1.0\n", MM_PREMATURE_EOF, ""},
        {banner + "2 2 1\n1 1 x\n", MM_PREMATURE_EOF, ""},
        {"%%MatrixMarket matrix array real general\n1 1\n1\n", MM_UNSUPPORTED_TYPE, ""},
        {"%%MatrixMarket matrix coordinate real hermitian\n1 1 0\n", MM_UNSUPPORTED_TYPE, ""}};
    int M = -1, N = -1, nz = -1, *I = nullptr, *J = nullptr;
    double *val = nullptr;
    MM_typecode code;
    const std::string p = tmp.path("e.mtx");
    for (const Case &c : cases)
        EXPECT_EQ(mm_read_mtx_crd(write_file(p, c.text).c_str(), &M, &N, &nz, &I, &J, &val, code), c.status)
            << c.text;
    EXPECT_EQ(mm_read_mtx_crd(tmp.path("absent").c_str(), &M, &N, &nz, &I, &J, &val, code),
              MM_COULD_NOT_OPEN);
    EXPECT_TRUE(M == -1 && I == nullptr && val == nullptr);
    write_file(p, "%%MatrixMarket MATRIX Coordinate INTEGER General " + std::string(3000, 'x') +
                      "\n% c\n4\n% between\n5 2\n1 2 3\n4\n5 6\n");
    ASSERT_EQ(mm_read_mtx_crd(p.c_str(), &M, &N, &nz, &I, &J, &val, code), 0);
    EXPECT_TRUE(M == 4 && N == 5 && nz == 2 && I[1] == 4 && J[1] == 5 && val[1] == 6.0);
    FILE *f = std::fopen(write_file(p, "% c\n10 2147483647\n").c_str(), "r");
    EXPECT_TRUE(mm_read_mtx_array_size(f, &M, &N) == 0 && M == 10 && N == 2147483647);
    std::fclose(f);
    std::free(I);
    std::free(J);
    std::free(val);
}

// The entries are taken as written (a symmetric file gives its stored triangle) with 0-based indices.
// The banner refusal is reported on standard output (status 1 in the table), the others on standard
// error; a file that cannot be opened fails silently.
TEST(MatrixMarket, UnsymmetricSparseReaderGivesZeroBasedArraysAndExplainsRefusals) {
    TempDir tmp;
    const std::string p = write_file(tmp.path("u.mtx"), "%%MatrixMarket matrix coordinate real symmetric\n"
                                                        "% c\n3 3 2\n1 1 2.0\n3 2 -1.0\n");
    int M, N, nz, *I = nullptr, *J = nullptr;
    double *val = nullptr;
    ASSERT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), 0);
    EXPECT_TRUE(M == 3 && N == 3 && nz == 2 && I[0] == 0 && J[0] == 0 && I[1] == 2 && J[1] == 1 &&
                val[1] == -1);
    std::free(I);
    std::free(J);
    std::free(val);
    const Case refusals[] = {
        {"MatrixMarket matrix coordinate real general\n", 1,
         "mm_read_unsymetric: Could not process Matrix Market banner  in file [" + p + "]\n"},
        {"%%MatrixMarket matrix coordinate pattern general\n1 1 1\n1 1\n", 0,
         "Sorry, this application does not support Market Market type: [matrix coordinate pattern "
         "general]\n"},
        {"%%MatrixMarket matrix coordinate real general\n1 x 1\n", 0,
         "read_unsymmetric_sparse(): could not parse matrix size.\n"},
        {"", 0, ""}};
    I = nullptr;
    for (const Case &c : refusals) {
        const std::string q = c.text.empty() ? tmp.path("absent.mtx") : write_file(p, c.text);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(mm_read_unsymmetric_sparse(q.c_str(), &M, &N, &nz, &val, &I, &J), -1);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out + testing::internal::GetCapturedStderr(), c.expect);
        EXPECT_EQ(out.empty(), c.status == 0);
    }
    EXPECT_EQ(I, nullptr);
}

} // namespace
