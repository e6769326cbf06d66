// Tests of the debugging printers (exact text) and the greyscale image dumps (read back from the TIFF
// files they write).
#include "numeric/diagnostics.h"

#include "numeric/arrays.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

// What fn writes to a memory stream.
template <typename Fn> std::string written_by(Fn fn) {
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    fn(f);
    std::fclose(f);
    std::string s(buf, size);
    std::free(buf);
    return s;
}

template <typename T> T **array_of(int rows, int cols, std::initializer_list<T> values) {
    T **a = reinterpret_cast<T **>(get_img(cols, rows, sizeof(T)));
    auto v = values.begin();
    for (int i = 0; i < rows; i++)
        for (int j = 0; j < cols; j++)
            a[i][j] = *v++;
    return a;
}

TEST(Diagnostics, TablesLeaveZeroCellsEmpty) {
    double **a = array_of<double>(2, 3, {0.0, 1.5, -2.0, NAN, 0.0, 1e-7});
    EXPECT_EQ(written_by([&](FILE *f) { fprintMX(f, a, 2, 3); }), "\t1.5\t-2\t\nnan\t\t1e-07\t\n");

    int **ia = array_of<int>(2, 2, {0, 3, -4, 0});
    EXPECT_EQ(written_by([&](FILE *f) { fprintiMX(f, ia, 2, 2); }), "\t3\t\n-4\t\t\n");

    double **sq = array_of<double>(2, 2, {1.0, 0.0, 0.0, 2.0});
    const double b[] = {5.0, -0.5};
    EXPECT_EQ(written_by([&](FILE *f) { fprintsqMXxV(f, sq, b, 2); }), "1\t\t5\n\t2\t-0.5\n");
    free_img(reinterpret_cast<void **>(a));
    free_img(reinterpret_cast<void **>(ia));
    free_img(reinterpret_cast<void **>(sq));
}

TEST(Diagnostics, PrintedMatricesAndVectorsAreExact) {
    const double flat[] = {1.0, 2.0, 3.0, 0.25, 0.0, -6.0};
    testing::internal::CaptureStdout();
    printMX(flat, 2, 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " 1 2 3\n 0.25 0 -6\n");

    double **a = array_of<double>(3, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    testing::internal::CaptureStdout();
    printsubMX(a, 2, 1, 1, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\toffset: 1,2 size: 2,1\n 6\n 9\n");
    free_img(reinterpret_cast<void **>(a));

    const int iv[] = {3, -1, 0};
    const double dv[] = {0.5, 1e20};
    testing::internal::CaptureStdout();
    printiV(iv, 3);
    printdV(dv, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " 3 -1 0\n 0.5 1e+20\n");
}

class DiagnosticsImages : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/keldra_diag_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    std::string path(const char *name) const { return dir + "/" + name; }

    // Reads a TIFF file back; the record is the caller's to free.
    static bool read_back(const std::string &p, TIFF_img *img) {
        FILE *f = std::fopen(p.c_str(), "rb");
        if (f == nullptr) return false;
        int status = read_TIFF(f, img);
        std::fclose(f);
        return status == 0;
    }

    std::string dir;
};

TEST_F(DiagnosticsImages, GreyImagesHoldScaledTruncatedClampedValues) {
    // 255 * value truncated: 0.5 -> 127.5 -> 127, 0.999 -> 254.7 -> 254, 0.002 -> 0.51 -> 0.
    double **a = array_of<double>(2, 4, {-0.5, 0.0, 0.5, 1.0, 2.0, NAN, 0.999, 0.002});
    const int expected[2][4] = {{0, 0, 127, 255}, {255, 0, 254, 0}};
    std::string p = path("normalised.tif");
    normalised_array_to_grey_img(p.c_str(), a, 4, 2);
    TIFF_img img;
    ASSERT_TRUE(read_back(p, &img));
    EXPECT_EQ(img.TIFF_type, 'g');
    ASSERT_EQ(img.height, 2);
    ASSERT_EQ(img.width, 4);
    for (int y = 0; y < 2; y++)
        for (int x = 0; x < 4; x++)
            EXPECT_EQ(img.mono[y][x], expected[y][x]) << y << "," << x;
    free_TIFF(&img);
    free_img(reinterpret_cast<void **>(a));

    int **mask = array_of<int>(1, 5, {0, 1, 2, -1, 100000000});
    p = path("mask.tif");
    boolean_array_to_grey_img(p.c_str(), mask, 5, 1);
    ASSERT_TRUE(read_back(p, &img));
    const int mask_expected[5] = {0, 255, 255, 0, 255};
    for (int x = 0; x < 5; x++)
        EXPECT_EQ(img.mono[0][x], mask_expected[x]) << x;
    free_TIFF(&img);
    free_img(reinterpret_cast<void **>(mask));
}

TEST_F(DiagnosticsImages, ColourRecordsAndAlphaAreWritten) {
    TIFF_img rgba;
    ASSERT_EQ(get_TIFF(&rgba, 2, 3, 'a'), 0);
    for (int c = 0; c < 4; c++)
        for (int y = 0; y < 2; y++)
            for (int x = 0; x < 3; x++)
                rgba.color[c][y][x] = static_cast<uint8_t>(40 * c + 10 * y + x);
    int **alpha = array_of<int>(2, 3, {0, 255, 256, 7, -1, 128});
    std::string p = path("rgba.tif");
    write_TIFF_a(p.c_str(), &rgba, alpha);
    // The alpha plane keeps each value as a byte.
    const int alpha_expected[2][3] = {{0, 255, 0}, {7, 255, 128}};
    for (int y = 0; y < 2; y++)
        for (int x = 0; x < 3; x++)
            EXPECT_EQ(rgba.color[3][y][x], alpha_expected[y][x]);
    TIFF_img back;
    ASSERT_TRUE(read_back(p, &back));
    EXPECT_EQ(back.TIFF_type, 'c');
    for (int c = 0; c < 3; c++)
        for (int y = 0; y < 2; y++)
            for (int x = 0; x < 3; x++)
                EXPECT_EQ(back.color[c][y][x], rgba.color[c][y][x]);
    free_TIFF(&back);
    std::free(back.color);

    // The same colour planes through write_TIFF_img as a 'c' record.
    rgba.TIFF_type = 'c';
    p = path("rgb.tif");
    write_TIFF_img(p.c_str(), &rgba);
    ASSERT_TRUE(read_back(p, &back));
    EXPECT_EQ(back.color[2][1][2], rgba.color[2][1][2]);
    free_TIFF(&back);
    std::free(back.color);
    rgba.TIFF_type = 'a';
    free_TIFF(&rgba);
    std::free(rgba.color);

    // Any other type is reported and written as it is.
    TIFF_img grey;
    ASSERT_EQ(get_TIFF(&grey, 1, 2, 'g'), 0);
    grey.mono[0][0] = 9;
    grey.mono[0][1] = 200;
    p = path("grey.tif");
    testing::internal::CaptureStderr();
    write_TIFF_a(p.c_str(), &grey, alpha);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\nwrite_TIFF_a reguires struct TIFF_img of TIFF_type \"a\"");
    ASSERT_TRUE(read_back(p, &back));
    EXPECT_EQ(back.mono[0][1], 200);
    free_TIFF(&back);
    free_TIFF(&grey);
    free_img(reinterpret_cast<void **>(alpha));
}

TEST_F(DiagnosticsImages, FailuresEndTheProcess) {
    double **a = array_of<double>(1, 1, {0.5});
    std::string missing = path("no/such/folder.tif");
    EXPECT_EXIT(normalised_array_to_grey_img(missing.c_str(), a, 1, 1), ::testing::ExitedWithCode(1),
                "^cannot open file " + missing + "\n$");
    // The TIFF writer refuses an 'a' record: the file is opened but cannot be written.
    TIFF_img rgba;
    ASSERT_EQ(get_TIFF(&rgba, 1, 1, 'a'), 0);
    std::string p = path("alpha.tif");
    EXPECT_EXIT(write_TIFF_img(p.c_str(), &rgba), ::testing::ExitedWithCode(1),
                "error writing TIFF file " + p + "\n$");
    free_TIFF(&rgba);
    std::free(rgba.color);
    free_img(reinterpret_cast<void **>(a));
}

} // namespace
