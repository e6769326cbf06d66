// Tests of the debugging printers (exact text) and the greyscale image dumps (read back from the TIFF
// files they write).
#include "numeric/diagnostics.h"

#include "tests/numeric/numeric_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

// A rows x cols array over the given values, addressed a[row][col] like those of numeric/arrays.h.
template <typename T> struct Array {
    std::vector<T> values;
    std::vector<T *> rows;
    Array(int height, int width, std::initializer_list<T> v) : values(v) {
        for (int r = 0; r < height; r++)
            rows.push_back(&values[size_t(r * width)]);
    }
    operator T **() { return rows.data(); }
};

TEST(Diagnostics, PrintedTablesAreExactAndLeaveZeroCellsEmpty) {
    Array<double> a(2, 3, {0.0, 1.5, -2.0, NAN, 0.0, 1e-7});
    Array<int> ia(2, 2, {0, 3, -4, 0});
    const double b[] = {5.0, -0.5}, flat[] = {1.0, 2.0, 3.0, 0.25, 0.0, -6.0};
    const int iv[] = {3, -1, 0};
    testing::internal::CaptureStdout();
    fprintMX(stdout, a, 2, 3);
    fprintiMX(stdout, ia, 2, 2);
    fprintsqMXxV(stdout, a, b, 2);
    printMX(flat, 2, 3);
    printsubMX(a, 2, 1, 0, 2);
    printiV(iv, 3);
    printdV(flat + 3, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\t1.5\t-2\t\nnan\t\t1e-07\t\n\t3\t\n-4\t\t\n\t1.5\t5\nnan\t\t-0.5\n"
              " 1 2 3\n 0.25 0 -6\n\toffset: 0,2 size: 2,1\n -2\n 1e-07\n 3 -1 0\n 0.25 0\n");
}

// The TIFF file at path read back (TIFF_type 0 when it cannot be read); the caller releases it.
TIFF_img read_back(const std::string &path) {
    TIFF_img img{};
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr || read_TIFF(f, &img) != 0) img.TIFF_type = 0;
    if (f != nullptr) std::fclose(f);
    return img;
}

using Bytes = std::vector<uint8_t>;

// Grey pixels are 255 * value truncated and clamped (0.5 -> 127.5 -> 127, 0.999 -> 254, 0.002 -> 0,
// NaN -> 0). write_TIFF_a keeps each alpha value as a byte in the fourth plane and writes the colour
// planes as an RGB file; a record of another type is reported and written as it is.
TEST(Diagnostics, ImageDumpsHoldTheArraysValues) {
    TempDir tmp;
    Array<double> a(2, 4, {-0.5, 0.0, 0.5, 1.0, 2.0, NAN, 0.999, 0.002});
    Array<int> mask(1, 5, {0, 1, 2, -1, 100000000}), alpha(2, 3, {0, 255, 256, 7, -1, 128});
    normalised_array_to_grey_img(tmp.path("n.tif").c_str(), a, 4, 2);
    boolean_array_to_grey_img(tmp.path("b.tif").c_str(), mask, 5, 1);
    TIFF_img n = read_back(tmp.path("n.tif")), b = read_back(tmp.path("b.tif"));
    ASSERT_TRUE(n.TIFF_type == 'g' && n.height == 2 && n.width == 4 && b.TIFF_type == 'g' && b.width == 5);
    EXPECT_EQ(Bytes(n.mono[0], n.mono[0] + 8), (Bytes{0, 0, 127, 255, 255, 0, 254, 0}));
    EXPECT_EQ(Bytes(b.mono[0], b.mono[0] + 5), (Bytes{0, 255, 255, 0, 255}));

    TIFF_img rgba = make_image('a', 2, 3), colour = rgba, grey = make_image('g', 1, 1);
    write_TIFF_a(tmp.path("rgba.tif").c_str(), &rgba, alpha);
    EXPECT_EQ(Bytes(rgba.color[3][0], rgba.color[3][0] + 6), (Bytes{0, 255, 0, 7, 255, 128}));
    TIFF_img back = read_back(tmp.path("rgba.tif"));
    colour.TIFF_type = 'c';
    EXPECT_TRUE(same_image(back, colour));
    testing::internal::CaptureStderr();
    write_TIFF_a(tmp.path("grey.tif").c_str(), &grey, alpha);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\nwrite_TIFF_a reguires struct TIFF_img of TIFF_type \"a\"");
    TIFF_img back_grey = read_back(tmp.path("grey.tif"));
    EXPECT_TRUE(same_image(back_grey, grey));
    for (TIFF_img *image : {&n, &b, &back, &back_grey, &grey, &rgba})
        release(image);
}

TEST(DiagnosticsDeathTest, FailuresEndTheProcessWithStatusOne) {
    TempDir tmp;
    Array<double> a(1, 1, {0.5});
    const std::string missing = tmp.path("no/such/folder.tif"), p = tmp.path("alpha.tif");
    EXPECT_EXIT(normalised_array_to_grey_img(missing.c_str(), a, 1, 1), testing::ExitedWithCode(1),
                "^cannot open file " + missing + "\n$");
    // The TIFF writer refuses an 'a' record: the file is opened but cannot be written.
    TIFF_img rgba = make_image('a', 1, 1);
    EXPECT_EXIT(write_TIFF_img(p.c_str(), &rgba), testing::ExitedWithCode(1),
                "error writing TIFF file " + p + "\n$");
    release(&rgba);
}

} // namespace
