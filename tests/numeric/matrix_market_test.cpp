// Tests of the Matrix Market reader and writer: round trips, the exact text written, and the refusal of
// malformed banners, sizes and entries.
#include "numeric/matrix_market.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

class MatrixMarket : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/keldra_mm_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }

    std::string path(const char *name) const { return dir + "/" + name; }

    std::string write_file(const char *name, const std::string &text) const {
        std::string p = path(name);
        std::ofstream(p, std::ios::binary) << text;
        return p;
    }

    static std::string read_file(const std::string &p) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    std::string dir;
};

// Runs mm_read_banner on text.
int banner_of(const std::string &text, MM_typecode code) {
    FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    int status = mm_read_banner(f, code);
    std::fclose(f);
    return status;
}

std::string code_string(const MM_typecode code) {
    return std::string(code, 4);
}

TEST_F(MatrixMarket, CoordinateFilesRoundTrip) {
    const int I[] = {1, 3, 2, 4, 1};
    const int J[] = {1, 1, 2, 3, 4};
    const double val[] = {1.0 / 3.0, -2.5e-300, 7.0, 123456789.123456789, -0.0625};
    MM_typecode code;
    mm_clear_typecode(code);
    mm_set_matrix(code);
    mm_set_coordinate(code);
    mm_set_real(code);
    mm_set_symmetric(code);
    std::string p = path("real.mtx");
    ASSERT_EQ(mm_write_mtx_crd(p.c_str(), 4, 5, 5, I, J, val, code), 0);

    int M = 0, N = 0, nz = 0, *rI = nullptr, *rJ = nullptr;
    double *rval = nullptr;
    MM_typecode rcode;
    ASSERT_EQ(mm_read_mtx_crd(p.c_str(), &M, &N, &nz, &rI, &rJ, &rval, rcode), 0);
    EXPECT_EQ(code_string(rcode), "MCRS");
    EXPECT_EQ(M, 4);
    EXPECT_EQ(N, 5);
    ASSERT_EQ(nz, 5);
    for (int k = 0; k < 5; k++) {
        EXPECT_EQ(rI[k], I[k]);
        EXPECT_EQ(rJ[k], J[k]);
        // 16 significant digits are written: relative error at most 5e-16.
        EXPECT_NEAR(rval[k], val[k], 1e-15 * std::fabs(val[k])) << k;
    }
    std::free(rI);
    std::free(rJ);
    std::free(rval);

    // Complex values are interleaved; pattern files carry no values.
    const double cval[] = {1.5, -2.0, 0.0, 3.25};
    mm_set_complex(code);
    mm_set_hermitian(code);
    p = path("complex.mtx");
    ASSERT_EQ(mm_write_mtx_crd(p.c_str(), 4, 4, 2, I, J, cval, code), 0);
    ASSERT_EQ(mm_read_mtx_crd(p.c_str(), &M, &N, &nz, &rI, &rJ, &rval, rcode), 0);
    EXPECT_EQ(code_string(rcode), "MCCH");
    ASSERT_EQ(nz, 2);
    for (int k = 0; k < 4; k++)
        EXPECT_EQ(rval[k], cval[k]);
    std::free(rI);
    std::free(rJ);
    std::free(rval);

    mm_set_pattern(code);
    mm_set_general(code);
    p = path("pattern.mtx");
    ASSERT_EQ(mm_write_mtx_crd(p.c_str(), 4, 4, 4, I, J, nullptr, code), 0);
    EXPECT_EQ(read_file(p), "%%MatrixMarket matrix coordinate pattern general\n4 4 4\n1 1\n3 1\n2 2\n4 3\n");
    rval = reinterpret_cast<double *>(&M); // must be replaced by null
    ASSERT_EQ(mm_read_mtx_crd(p.c_str(), &M, &N, &nz, &rI, &rJ, &rval, rcode), 0);
    EXPECT_EQ(rval, nullptr);
    EXPECT_EQ(rI[3], 4);
    EXPECT_EQ(rJ[3], 3);
    std::free(rI);
    std::free(rJ);
}

TEST_F(MatrixMarket, WrittenTextIsExact) {
    const int I[] = {1, 2};
    const int J[] = {2, 2};
    const double val[] = {0.25, -3.5e20};
    MM_typecode code = {'M', 'C', 'R', 'G'};
    std::string p = path("exact.mtx");
    ASSERT_EQ(mm_write_mtx_crd(p.c_str(), 2, 3, 2, I, J, val, code), 0);
    EXPECT_EQ(read_file(p), "%%MatrixMarket matrix coordinate real general\n"
                            "2 3 2\n"
                            "1 2                 0.25\n"
                            "2 2             -3.5e+20\n");

    // Integer is not a field the coordinate writer handles: refused before anything is created.
    MM_typecode integer = {'M', 'C', 'I', 'G'};
    p = path("integer.mtx");
    EXPECT_EQ(mm_write_mtx_crd(p.c_str(), 2, 3, 2, I, J, val, integer), MM_UNSUPPORTED_TYPE);
    EXPECT_NE(access(p.c_str(), F_OK), 0);
    EXPECT_EQ(mm_write_mtx_crd((dir + "/missing/x.mtx").c_str(), 2, 3, 2, I, J, val, code),
              MM_COULD_NOT_WRITE);

    testing::internal::CaptureStdout();
    ASSERT_EQ(mm_write_mtx_crd("stdout", 2, 3, 1, I, J, val, code), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "%%MatrixMarket matrix coordinate real general\n2 3 1\n1 2                 0.25\n");
}

TEST_F(MatrixMarket, ArrayFilesRoundTrip) {
    // A 3 x 2 dense matrix, written column by column as the format stores it.
    const double a[3][2] = {{1.0, -4.5}, {2.0 / 3.0, 0.0}, {1e10, 6.125}};
    std::string p = path("array.mtx");
    FILE *f = std::fopen(p.c_str(), "w");
    MM_typecode code = {'M', 'A', 'R', 'G'};
    ASSERT_EQ(mm_write_banner(f, code), 0);
    ASSERT_EQ(mm_write_mtx_array_size(f, 3, 2), 0);
    for (int j = 0; j < 2; j++)
        for (int i = 0; i < 3; i++)
            std::fprintf(f, "%20.16g\n", a[i][j]);
    std::fclose(f);
    EXPECT_EQ(read_file(p).substr(0, 46), "%%MatrixMarket matrix array real general\n3 2\n ");

    f = std::fopen(p.c_str(), "r");
    MM_typecode rcode;
    int M = 0, N = 0;
    ASSERT_EQ(mm_read_banner(f, rcode), 0);
    EXPECT_EQ(code_string(rcode), "MARG");
    EXPECT_TRUE(mm_is_dense(rcode));
    ASSERT_EQ(mm_read_mtx_array_size(f, &M, &N), 0);
    EXPECT_EQ(M, 3);
    EXPECT_EQ(N, 2);
    for (int j = 0; j < 2; j++)
        for (int i = 0; i < 3; i++) {
            double v;
            ASSERT_EQ(std::fscanf(f, "%lg", &v), 1);
            EXPECT_NEAR(v, a[i][j], 1e-15 * std::fabs(a[i][j]));
        }
    std::fclose(f);
}

TEST(MatrixMarketBanner, BannerWordsAreCheckedInOrder) {
    MM_typecode code;
    EXPECT_EQ(banner_of("%%MatrixMarket MATRIX Coordinate REAL General\n", code), 0);
    EXPECT_EQ(code_string(code), "MCRG");
    EXPECT_EQ(banner_of("%%MatrixMarket matrix array integer skew-symmetric", code), 0);
    EXPECT_EQ(code_string(code), "MAIK");

    EXPECT_EQ(banner_of("", code), MM_PREMATURE_EOF);
    EXPECT_EQ(banner_of("%%MatrixMarket matrix coordinate real\n1 1 1\n", code), MM_PREMATURE_EOF);
    EXPECT_EQ(banner_of("\n%%MatrixMarket matrix coordinate real general\n", code), MM_PREMATURE_EOF);

    EXPECT_EQ(banner_of("%MatrixMarket matrix coordinate real general\n", code), MM_NO_HEADER);
    EXPECT_EQ(banner_of("%%matrixmarket matrix coordinate real general\n", code), MM_NO_HEADER);
    EXPECT_EQ(banner_of("%%MatrixMarketX matrix coordinate real general\n", code), MM_NO_HEADER);

    EXPECT_EQ(banner_of("%%MatrixMarket vector coordinate real general\n", code), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(banner_of("%%MatrixMarket matrix sparse real general\n", code), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(banner_of("%%MatrixMarket matrix coordinate double general\n", code), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(banner_of("%%MatrixMarket matrix coordinate real upper\n", code), MM_UNSUPPORTED_TYPE);

    // A banner line longer than the reader keeps is consumed whole: the size line still follows.
    std::string text =
        "%%MatrixMarket matrix coordinate real general " + std::string(3000, 'x') + "\n7 8 0\n";
    FILE *f = fmemopen(text.data(), text.size(), "r");
    EXPECT_EQ(mm_read_banner(f, code), 0);
    int M, N, nz;
    EXPECT_EQ(mm_read_mtx_crd_size(f, &M, &N, &nz), 0);
    EXPECT_EQ(M, 7);
    std::fclose(f);
}

TEST(MatrixMarketBanner, ValidityAndWords) {
    struct {
        const char *code;
        int valid;
        const char *words;
    } cases[] = {
        {"MCRG", 1, "matrix coordinate real general"},
        {"MARS", 1, "matrix array real symmetric"},
        {"MCCH", 1, "matrix coordinate complex hermitian"},
        {"MCPS", 1, "matrix coordinate pattern symmetric"},
        {"MAIK", 1, "matrix array integer skew-symmetric"},
        {"MAPG", 0, "matrix array pattern general"},
        {"MCRH", 0, "matrix coordinate real hermitian"},
        {"MCPH", 0, "matrix coordinate pattern hermitian"},
        {"MCPK", 0, "matrix coordinate pattern skew-symmetric"},
        {"XCRG", 0, nullptr},
        {"MXRG", 1, nullptr},
        {"MCXG", 1, nullptr},
        {"MCRX", 1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        EXPECT_EQ(mm_is_valid(c.code), c.valid);
        char *words = mm_typecode_to_str(c.code);
        if (c.words == nullptr) {
            EXPECT_EQ(words, nullptr);
        } else {
            ASSERT_NE(words, nullptr);
            EXPECT_STREQ(words, c.words);
        }
        std::free(words);
    }
    char *copy = mm_strdup("abc");
    EXPECT_STREQ(copy, "abc");
    std::free(copy);
}

TEST(MatrixMarketSize, SizeLinesSkipCommentsAndRefuseBadNumbers) {
    auto crd_size = [](std::string text, int *M, int *N, int *nz) {
        FILE *f = fmemopen(text.data(), text.size(), "r");
        int status = mm_read_mtx_crd_size(f, M, N, nz);
        std::fclose(f);
        return status;
    };
    int M = -1, N = -1, nz = -1;
    EXPECT_EQ(crd_size("% a comment\n%\n\n   3 4 5\n", &M, &N, &nz), 0);
    EXPECT_EQ(M, 3);
    EXPECT_EQ(N, 4);
    EXPECT_EQ(nz, 5);
    EXPECT_EQ(crd_size("6\n7\n% between\n8", &M, &N, &nz), 0);
    EXPECT_EQ(nz, 8);

    M = N = nz = -1;
    EXPECT_EQ(crd_size("", &M, &N, &nz), MM_PREMATURE_EOF);
    EXPECT_EQ(crd_size("% only a comment", &M, &N, &nz), MM_PREMATURE_EOF);
    EXPECT_EQ(crd_size("3 4", &M, &N, &nz), MM_PREMATURE_EOF);
    EXPECT_EQ(crd_size("3 4 five", &M, &N, &nz), MM_PREMATURE_EOF);
    EXPECT_EQ(crd_size("3 4 5.0", &M, &N, &nz), MM_PREMATURE_EOF);
    EXPECT_EQ(crd_size("3 -4 5", &M, &N, &nz), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(crd_size("3 4 2147483648", &M, &N, &nz), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(crd_size("99999999999999999999999 1 1", &M, &N, &nz), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(M, -1) << "outputs are set only on success";

    std::string text = "% c\n10 2147483647\n";
    FILE *f = fmemopen(text.data(), text.size(), "r");
    EXPECT_EQ(mm_read_mtx_array_size(f, &M, &N), 0);
    EXPECT_EQ(M, 10);
    EXPECT_EQ(N, 2147483647);
    std::fclose(f);
}

TEST_F(MatrixMarket, EntriesAreCheckedAgainstTheSize) {
    int M = -1, N = -1, nz = -1, *I = nullptr, *J = nullptr;
    double *val = nullptr;
    MM_typecode code;
    const std::string banner = "%%MatrixMarket matrix coordinate real general\n";

    EXPECT_EQ(mm_read_mtx_crd(write_file("row.mtx", banner + "2 2 1\n3 1 1.0\n").c_str(), &M, &N, &nz, &I, &J,
                              &val, code),
              MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(mm_read_mtx_crd(write_file("col0.mtx", banner + "2 2 1\n1 0 1.0\n").c_str(), &M, &N, &nz, &I,
                              &J, &val, code),
              MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(mm_read_mtx_crd(write_file("short.mtx", banner + "2 2 3\n1 1 1.0\n2 2\n").c_str(), &M, &N, &nz,
                              &I, &J, &val, code),
              MM_PREMATURE_EOF);
    // A size line that claims far more entries than the file holds.
    EXPECT_EQ(mm_read_mtx_crd(write_file("huge.mtx", banner + "2 2 2000000000\n1 1 1.0\n").c_str(), &M, &N,
                              &nz, &I, &J, &val, code),
              MM_PREMATURE_EOF);
    EXPECT_EQ(mm_read_mtx_crd(write_file("garbage.mtx", banner + "2 2 1\n1 1 x\n").c_str(), &M, &N, &nz, &I,
                              &J, &val, code),
              MM_PREMATURE_EOF);
    EXPECT_EQ(
        mm_read_mtx_crd(write_file("array.mtx", "%%MatrixMarket matrix array real general\n1 1\n1\n").c_str(),
                        &M, &N, &nz, &I, &J, &val, code),
        MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(mm_read_mtx_crd(
                  write_file("herm.mtx", "%%MatrixMarket matrix coordinate real hermitian\n1 1 0\n").c_str(),
                  &M, &N, &nz, &I, &J, &val, code),
              MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(mm_read_mtx_crd(path("absent.mtx").c_str(), &M, &N, &nz, &I, &J, &val, code),
              MM_COULD_NOT_OPEN);
    EXPECT_EQ(M, -1);
    EXPECT_EQ(I, nullptr);
    EXPECT_EQ(val, nullptr);

    // The entry readers on their own; integer entries are read as values.
    std::string text = "1 2 3\n4\n5 6\n";
    FILE *f = fmemopen(text.data(), text.size(), "r");
    int rI[2], rJ[2];
    double rv[2];
    MM_typecode integer = {'M', 'C', 'I', 'G'};
    EXPECT_EQ(mm_read_mtx_crd_data(f, 4, 5, 2, rI, rJ, rv, integer), 0);
    EXPECT_EQ(rI[1], 4);
    EXPECT_EQ(rJ[1], 5);
    EXPECT_EQ(rv[1], 6.0);
    std::fclose(f);
    MM_typecode array = {'M', 'A', 'R', 'G'};
    double re, im;
    EXPECT_EQ(mm_read_mtx_crd_entry(stdin, &rI[0], &rJ[0], &re, &im, array), MM_UNSUPPORTED_TYPE);
    EXPECT_EQ(mm_read_mtx_crd_data(stdin, 1, 1, -1, rI, rJ, rv, integer), MM_UNSUPPORTED_TYPE);

    // An empty matrix is fine and still hands out arrays the caller frees.
    ASSERT_EQ(
        mm_read_mtx_crd(write_file("empty.mtx", banner + "0 0 0\n").c_str(), &M, &N, &nz, &I, &J, &val, code),
        0);
    EXPECT_EQ(nz, 0);
    std::free(I);
    std::free(J);
    std::free(val);
}

// Reads the file at p through the name "stdin"; exits 0 when it holds the entry written below.
[[noreturn]] void read_stdin_and_exit(const std::string &p) {
    if (std::freopen(p.c_str(), "r", stdin) == nullptr) std::exit(2);
    int M, N, nz, *I, *J;
    double *val;
    MM_typecode code;
    int status = mm_read_mtx_crd("stdin", &M, &N, &nz, &I, &J, &val, code);
    bool ok = status == 0 && M == 3 && nz == 1 && I[0] == 2 && J[0] == 3 && val[0] == -1.5;
    std::exit(ok ? 0 : 1);
}

TEST_F(MatrixMarket, StdinIsReadByName) {
    std::string p = write_file("in.mtx", "%%MatrixMarket matrix coordinate real general\n3 3 1\n2 3 -1.5\n");
    EXPECT_EXIT(read_stdin_and_exit(p), ::testing::ExitedWithCode(0), "");
}

TEST_F(MatrixMarket, UnsymmetricSparseReaderGivesZeroBasedArraysAndExplainsRefusals) {
    std::string p =
        write_file("a.mtx", "%%MatrixMarket matrix coordinate real symmetric\n% c\n3 3 2\n1 1 2.0\n3 2 "
                            "-1.0\n");
    int M, N, nz, *I = nullptr, *J = nullptr;
    double *val = nullptr;
    ASSERT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), 0);
    EXPECT_EQ(M, 3);
    EXPECT_EQ(N, 3);
    ASSERT_EQ(nz, 2);
    EXPECT_EQ(I[0], 0);
    EXPECT_EQ(J[0], 0);
    EXPECT_EQ(I[1], 2);
    EXPECT_EQ(J[1], 1);
    EXPECT_EQ(val[1], -1.0);
    std::free(I);
    std::free(J);
    std::free(val);

    p = write_file("bad.mtx", "MatrixMarket matrix coordinate real general\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "mm_read_unsymetric: Could not process Matrix Market banner  in file [" + p + "]\n");

    p = write_file("pattern.mtx", "%%MatrixMarket matrix coordinate pattern general\n1 1 1\n1 1\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), -1);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "Sorry, this application does not support Market Market type: [matrix coordinate pattern general]\n");

    p = write_file("size.mtx", "%%MatrixMarket matrix coordinate real general\n1 x 1\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "read_unsymmetric_sparse(): could not parse matrix size.\n");

    I = nullptr;
    p = write_file("entry.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 2\n1 1 1.0\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(mm_read_unsymmetric_sparse(p.c_str(), &M, &N, &nz, &val, &I, &J), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "read_unsymmetric_sparse(): could not read entry 2 of 2.\n");
    EXPECT_EQ(I, nullptr);

    EXPECT_EQ(mm_read_unsymmetric_sparse(path("absent.mtx").c_str(), &M, &N, &nz, &val, &I, &J), -1);
}

} // namespace
