// Pixel accessors on pixbufs and cairo image surfaces, create_pixbuf and the grey rule.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "app/gtkkeldra.h"

namespace {

std::vector<guchar> bytes_of(const guchar *p, size_t n) {
    return std::vector<guchar>(p, p + n);
}

// A pixbuf the accessors must refuse; gdk_pixbuf_new only makes valid ones.
GdkPixbuf *odd_pixbuf(int bits, int channels, guchar *buffer) {
    return GDK_PIXBUF(g_object_new(GDK_TYPE_PIXBUF, "n-channels", channels, "has-alpha", channels > 3,
                                   "bits-per-sample", bits, "width", 2, "height", 2, "rowstride",
                                   2 * channels * bits / 8, "pixels", buffer, nullptr));
}

TEST(Pixbuf, PixelsRoundTripAsRawBytesWithThreeOrFourChannels) {
    GdkPixbuf *rgba = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 5, 3);
    gdk_pixbuf_fill(rgba, 0x01020304);
    gdkpixbuf_put_pixel(rgba, 4, 2, 250, 0, 128, 7);
    const guchar *p = gdk_pixbuf_get_pixels(rgba) + 2 * gdk_pixbuf_get_rowstride(rgba) + 4 * 4;
    EXPECT_EQ(bytes_of(p - 4, 8), (std::vector<guchar>{1, 2, 3, 4, 250, 0, 128, 7}));
    guchar r, g, b, a;
    gdkpixbuf_get_pixel(rgba, 4, 2, &r, &g, &b, &a);
    EXPECT_TRUE(r == 250 && g == 0 && b == 128 && a == 7); // no premultiplying, no clamping
    g_object_unref(rgba);

    // Width 3 gives rows of 9 bytes padded to 12: the alpha argument must not land in the padding.
    GdkPixbuf *rgb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 3, 2);
    ASSERT_EQ(gdk_pixbuf_get_rowstride(rgb), 12);
    memset(gdk_pixbuf_get_pixels(rgb), 9, 24);
    gdkpixbuf_put_pixel(rgb, 2, 0, 10, 20, 30, 40);
    EXPECT_EQ(bytes_of(gdk_pixbuf_get_pixels(rgb) + 6, 7), (std::vector<guchar>{10, 20, 30, 9, 9, 9, 9}));
    gdkpixbuf_get_pixel(rgb, 2, 0, &r, &g, &b, &a);
    EXPECT_TRUE(r == 10 && g == 20 && b == 30 && a == 255);
    g_object_unref(rgb);
}

TEST(Surface, PixelWordsRoundTripInCairoByteOrder) {
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2);
    const guchar cases[][4] = {{255, 0, 0, 0}, {0, 0, 0, 0}, {0x80, 0x40, 0x20, 0x10}};
    for (const auto &c : cases) {
        cairoimagesurface_put_pixel(s, 2, 1, c[0], c[1], c[2], c[3]);
        guchar a, r, g, b;
        cairoimagesurface_get_pixel(s, 2, 1, &a, &r, &g, &b);
        EXPECT_TRUE(a == c[0] && r == c[1] && g == c[2] && b == c[3]) << int(c[0]) << " " << int(c[1]);
    }
    cairoimagesurface_put_pixel(s, 1, 0, 0xA0, 0xB0, 0xC0, 0xD0);
    guint32 word;
    memcpy(&word, cairo_image_surface_get_data(s) + 4, 4);
    EXPECT_EQ(word, 0xA0B0C0D0u); // cairo's native-endian ARGB word

    // What cairo itself drew reads back premultiplied: half-transparent white is 128 in every byte.
    cairo_t *cr = cairo_create(s);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    cairo_set_source_rgba(cr, 1, 1, 1, 128 / 255.0);
    cairo_paint(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    guchar a, r, g, b;
    cairoimagesurface_get_pixel(s, 0, 1, &a, &r, &g, &b);
    EXPECT_TRUE(a == 128 && r == 128 && g == 128 && b == 128);
    cairo_surface_destroy(s);

    s = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 2, 2); // its fourth byte is kept like the others
    cairoimagesurface_put_pixel(s, 0, 1, 0x12, 0x34, 0x56, 0x78);
    cairoimagesurface_get_pixel(s, 0, 1, &a, &r, &g, &b);
    EXPECT_TRUE(a == 0x12 && r == 0x34 && g == 0x56 && b == 0x78);
    cairo_surface_destroy(s);
}

TEST(Pixels, OutOfRangeReadsAndPixbufWritesAreSilentNoOps) {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 4, 3);
    gdk_pixbuf_fill(pixbuf, 0x11223344);
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 4, 3);
    std::vector<guchar> before = bytes_of(gdk_pixbuf_get_pixels(pixbuf), gdk_pixbuf_get_byte_length(pixbuf));
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int outside[][2] = {{4, 0}, {0, -1}, {-1, 0}, {0, 3}, {100000, 100000}};
    for (const auto &p : outside) {
        gdkpixbuf_put_pixel(pixbuf, p[0], p[1], 0, 0, 0, 0);
        guchar r = 1, g = 2, b = 3, a = 4;
        gdkpixbuf_get_pixel(pixbuf, p[0], p[1], &r, &g, &b, &a);
        cairoimagesurface_get_pixel(s, p[0], p[1], &a, &r, &g, &b);
        EXPECT_TRUE(r == 1 && g == 2 && b == 3 && a == 4) << "at " << p[0] << "," << p[1];
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(bytes_of(gdk_pixbuf_get_pixels(pixbuf), gdk_pixbuf_get_byte_length(pixbuf)), before);
    cairo_surface_destroy(s);
    g_object_unref(pixbuf);
}

TEST(PixelsDeathTest, FailedPreconditionsAbortNamingFileFunctionAndExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static guchar buffer[64];
    guchar r, g, b, a;
    GdkPixbuf *wide = odd_pixbuf(16, 3, buffer), *five = odd_pixbuf(8, 5, buffer);
    ASSERT_TRUE(gdk_pixbuf_get_bits_per_sample(wide) == 16 && gdk_pixbuf_get_n_channels(five) == 5);
    EXPECT_DEATH(gdkpixbuf_put_pixel(wide, 0, 0, 1, 2, 3, 4),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:gdkpixbuf_put_pixel: assertion failed: "
                 "\\(gdk_pixbuf_get_bits_per_sample\\(pixbuf\\) == 8\\)");
    EXPECT_DEATH(gdkpixbuf_get_pixel(five, 9, 9, &r, &g, &b, &a),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:gdkpixbuf_get_pixel: assertion failed: "
                 "\\(n_channels == 4 \\|\\| n_channels == 3\\)");

    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2);
    const std::string put = "ERROR:gtkkeldra\\.cpp:[0-9]+:cairoimagesurface_put_pixel: assertion failed: ";
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, 3, 0, 1, 2, 3, 4), put + "\\(x >= 0 && x < width\\)");
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, -1, -1, 1, 2, 3, 4), put + "\\(x >= 0 && x < width\\)");
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, 0, 2, 1, 2, 3, 4), put + "\\(y >= 0 && y < height\\)");
    cairo_surface_t *a8 = cairo_image_surface_create(CAIRO_FORMAT_A8, 4, 4);
    const std::string format = "\\(cairoFMT == CAIRO_FORMAT_ARGB32 \\|\\| cairoFMT == CAIRO_FORMAT_RGB24\\)";
    EXPECT_DEATH(cairoimagesurface_put_pixel(a8, 0, 0, 1, 2, 3, 4), put + format);
    EXPECT_DEATH(cairoimagesurface_get_pixel(a8, 99, 99, &a, &r, &g, &b),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:cairoimagesurface_get_pixel: assertion failed: " + format);
    cairo_surface_destroy(a8);
    cairo_surface_destroy(s);
    g_object_unref(wide);
    g_object_unref(five);
}

TEST(Grey, MaximumAndBlueAveragedWithTruncation) {
    EXPECT_EQ(rgb2grey(255, 0, 0), 127);
    EXPECT_EQ(rgb2grey(0, 0, 255), 255);
    EXPECT_EQ(rgb2grey(10, 200, 30), 115);
    EXPECT_EQ(rgb2grey(0, 0, 0), 0);
    EXPECT_EQ(rgb2grey(255, 255, 255), 255);
    EXPECT_EQ(rgb2grey(255, 255, 0), 127); // not the lightness 127.5 rounded, not 255
    EXPECT_EQ(rgb2grey(1, 0, 0), 0);       // a very dark red is background
    EXPECT_EQ(rgb2grey(30, 10, 20), 25);   // blue stands in for the minimum, even when green is lower
}

TEST(CreatePixbuf, LoadsAFileOrReportsTheLoadersMessage) {
    GdkPixbuf *icon = create_pixbuf(KELDRA_ICON_FOLDER "/iconFG.png");
    ASSERT_NE(icon, nullptr);
    EXPECT_TRUE(gdk_pixbuf_get_width(icon) == 24 && gdk_pixbuf_get_height(icon) == 24);
    g_object_unref(icon);

    const char *missing = "/nonexistent-folder/none.png";
    GError *error = nullptr;
    ASSERT_EQ(gdk_pixbuf_new_from_file(missing, &error), nullptr);
    std::string expected = std::string(error->message) + "\n";
    g_error_free(error);
    testing::internal::CaptureStderr();
    EXPECT_EQ(create_pixbuf(missing), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

} // namespace
