// Pixel accessors on pixbufs and cairo image surfaces, and the grey rule.
#include <cstring>

#include "tests/gui_test_support.h"

namespace {

TEST(Pixels, PixbufPixelsRoundTripAsRawBytesAndOutOfRangeAccessIsASilentNoOp) {
    GdkPixbuf *rgba = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 5, 3);
    gdk_pixbuf_fill(rgba, 0x01020304);
    gdkpixbuf_put_pixel(rgba, 4, 2, 250, 0, 128, 7);
    const guchar *p = gdk_pixbuf_get_pixels(rgba) + 2 * gdk_pixbuf_get_rowstride(rgba) + 12;
    EXPECT_EQ(std::vector<guchar>(p, p + 8), (std::vector<guchar>{1, 2, 3, 4, 250, 0, 128, 7}));
    EXPECT_EQ(rgba_at(rgba, 4, 2), 0xFA008007u) << "no premultiplying, no clamping";
    testing::internal::CaptureStderr();
    for (const auto &[x, y] : {std::pair(5, 0), std::pair(0, -1), std::pair(-1, 0), std::pair(0, 3)}) {
        gdkpixbuf_put_pixel(rgba, x, y, 0, 0, 0, 0);
        guchar r = 1, g = 2, b = 3, a = 4;
        gdkpixbuf_get_pixel(rgba, x, y, &r, &g, &b, &a);
        EXPECT_TRUE(r == 1 && g == 2 && b == 3 && a == 4) << "at " << x << "," << y;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(count_pixels(5, 3, [&](int x, int y) { return rgba_at(rgba, x, y) != 0x01020304u; }), 1);
    g_object_unref(rgba);
    // Width 3 gives rows of 9 bytes padded to 12: the alpha argument must not land in the padding.
    GdkPixbuf *rgb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 3, 2);
    memset(gdk_pixbuf_get_pixels(rgb), 9, 24);
    gdkpixbuf_put_pixel(rgb, 2, 0, 10, 20, 30, 40);
    p = gdk_pixbuf_get_pixels(rgb) + 6;
    EXPECT_EQ(std::vector<guchar>(p, p + 7), (std::vector<guchar>{10, 20, 30, 9, 9, 9, 9}));
    EXPECT_EQ(rgba_at(rgb, 2, 0), 0x0A141EFFu);
    g_object_unref(rgb);
}

// A pixbuf the accessors must refuse; gdk_pixbuf_new only makes valid ones.
GdkPixbuf *odd_pixbuf(int bits, int channels, guchar *buffer) {
    return GDK_PIXBUF(g_object_new(GDK_TYPE_PIXBUF, "n-channels", channels, "has-alpha", channels > 3,
                                   "bits-per-sample", bits, "width", 2, "height", 2, "rowstride",
                                   2 * channels * bits / 8, "pixels", buffer, nullptr));
}

// The images are made in the dying child alone, so that the test leaves nothing behind.
TEST(PixelsDeathTest, FailedPreconditionsAbortNamingFileFunctionAndExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static guchar buffer[64];
    guchar r, g, b, a;
    auto s = [] { return cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2); };
    auto a8 = [] { return cairo_image_surface_create(CAIRO_FORMAT_A8, 4, 4); };
    const std::string put = "cairoimagesurface_put_pixel: assertion failed: \\(",
                      format = "cairoFMT == CAIRO_FORMAT_ARGB32 \\|\\| cairoFMT == CAIRO_FORMAT_RGB24\\)";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { gdkpixbuf_put_pixel(odd_pixbuf(16, 3, buffer), 0, 0, 1, 2, 3, 4); },
         "gdkpixbuf_put_pixel: assertion failed: \\(gdk_pixbuf_get_bits_per_sample\\(pixbuf\\) == 8\\)"},
        {[&] { gdkpixbuf_get_pixel(odd_pixbuf(8, 5, buffer), 9, 9, &r, &g, &b, &a); },
         "gdkpixbuf_get_pixel: assertion failed: \\(n_channels == 4 \\|\\| n_channels == 3\\)"},
        {[&] { cairoimagesurface_put_pixel(s(), 3, 0, 1, 2, 3, 4); }, put + "x >= 0 && x < width\\)"},
        {[&] { cairoimagesurface_put_pixel(s(), -1, -1, 1, 2, 3, 4); }, put + "x >= 0 && x < width\\)"},
        {[&] { cairoimagesurface_put_pixel(s(), 0, 2, 1, 2, 3, 4); }, put + "y >= 0 && y < height\\)"},
        {[&] { cairoimagesurface_put_pixel(a8(), 0, 0, 1, 2, 3, 4); }, put + format},
        {[&] { cairoimagesurface_get_pixel(a8(), 99, 99, &a, &r, &g, &b); },
         "cairoimagesurface_get_pixel: assertion failed: \\(" + format}};
    for (const auto &[call, message] : cases)
        EXPECT_DEATH(call(), "ERROR:gtkkeldra\\.cpp:[0-9]+:" + message);
}

// The maximum and blue averaged with truncation: blue stands in for the minimum, even when green is
// lower, and (255, 255, 0) is 127, neither the lightness 127.5 rounded nor 255.
TEST(Pixels, GreyIsMaximumAndBlueAveragedWithTruncation) {
    const int cases[][4] = {{255, 0, 0, 127}, {0, 0, 255, 255}, {10, 200, 30, 115},  {255, 255, 0, 127},
                            {1, 0, 0, 0},     {30, 10, 20, 25}, {255, 255, 255, 255}};
    for (const auto &c : cases)
        EXPECT_EQ(rgb2grey(c[0], c[1], c[2]), c[3]) << c[0] << " " << c[1] << " " << c[2];
}

} // namespace
