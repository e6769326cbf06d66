// Pixel accessors on pixbufs and cairo image surfaces, create_pixbuf and the grey rule.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "app/gtkkeldra.h"

namespace {

struct Rgba {
    guchar r, g, b, a;
};

// Reads the pixbuf's bytes directly, independently of the accessors.
Rgba raw_pixbuf(GdkPixbuf *pixbuf, int x, int y) {
    const guchar *p = gdk_pixbuf_get_pixels(pixbuf) + y * gdk_pixbuf_get_rowstride(pixbuf) +
                      x * gdk_pixbuf_get_n_channels(pixbuf);
    return {p[0], p[1], p[2], gdk_pixbuf_get_n_channels(pixbuf) == 4 ? p[3] : (guchar)0};
}

std::vector<guchar> pixbuf_bytes(GdkPixbuf *pixbuf) {
    const guchar *p = gdk_pixbuf_get_pixels(pixbuf);
    return std::vector<guchar>(p, p + gdk_pixbuf_get_byte_length(pixbuf));
}

std::vector<guchar> surface_bytes(cairo_surface_t *s) {
    const guchar *p = cairo_image_surface_get_data(s);
    return std::vector<guchar>(p, p + cairo_image_surface_get_stride(s) * cairo_image_surface_get_height(s));
}

// A pixbuf that the accessors must refuse: gdk_pixbuf_new only makes valid ones, so the properties are
// set directly over a caller-owned buffer.
GdkPixbuf *odd_pixbuf(int bits, int channels, guchar *buffer) {
    return GDK_PIXBUF(g_object_new(GDK_TYPE_PIXBUF, "colorspace", GDK_COLORSPACE_RGB, "n-channels", channels,
                                   "has-alpha", channels > 3, "bits-per-sample", bits, "width", 2, "height",
                                   2, "rowstride", 2 * channels * bits / 8, "pixels", buffer, nullptr));
}

TEST(Pixbuf, FourChannelPixelsRoundTripAsRawBytes) {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 5, 3);
    gdk_pixbuf_fill(pixbuf, 0x01020304);
    gdkpixbuf_put_pixel(pixbuf, 4, 2, 250, 0, 128, 7);
    gdkpixbuf_put_pixel(pixbuf, 0, 0, 0, 255, 1, 0);

    Rgba last = raw_pixbuf(pixbuf, 4, 2);
    EXPECT_EQ(last.r, 250);
    EXPECT_EQ(last.g, 0);
    EXPECT_EQ(last.b, 128);
    EXPECT_EQ(last.a, 7);
    Rgba neighbour = raw_pixbuf(pixbuf, 3, 2);
    EXPECT_EQ(neighbour.r, 1);
    EXPECT_EQ(neighbour.a, 4);

    guchar r, g, b, a;
    gdkpixbuf_get_pixel(pixbuf, 0, 0, &r, &g, &b, &a);
    EXPECT_EQ(r, 0);
    EXPECT_EQ(g, 255);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(a, 0); // no un-premultiplying, no clamping
    gdkpixbuf_get_pixel(pixbuf, 2, 1, &r, &g, &b, &a);
    EXPECT_EQ(r, 1);
    EXPECT_EQ(g, 2);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(a, 4);
    g_object_unref(pixbuf);
}

TEST(Pixbuf, ThreeChannelPixelsIgnoreAlphaAndReadAsOpaque) {
    // A width of 3 gives 9 bytes a row, padded to a rowstride of 12: the padding must stay untouched.
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 3, 2);
    ASSERT_EQ(gdk_pixbuf_get_rowstride(pixbuf), 12);
    memset(gdk_pixbuf_get_pixels(pixbuf), 9, 12 * 2);
    gdkpixbuf_put_pixel(pixbuf, 2, 0, 10, 20, 30, 40);
    std::vector<guchar> bytes = pixbuf_bytes(pixbuf);
    EXPECT_EQ(bytes[6], 10);
    EXPECT_EQ(bytes[7], 20);
    EXPECT_EQ(bytes[8], 30);
    EXPECT_EQ(bytes[9], 9) << "the alpha argument must not be stored in the row padding";
    EXPECT_EQ(bytes[12], 9);

    guchar r = 0, g = 0, b = 0, a = 0;
    gdkpixbuf_get_pixel(pixbuf, 2, 0, &r, &g, &b, &a);
    EXPECT_EQ(r, 10);
    EXPECT_EQ(g, 20);
    EXPECT_EQ(b, 30);
    EXPECT_EQ(a, 255);
    g_object_unref(pixbuf);
}

TEST(Pixbuf, OutOfRangeAccessChangesNothingAndPrintsNothing) {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 4, 3);
    gdk_pixbuf_fill(pixbuf, 0x11223344);
    std::vector<guchar> before = pixbuf_bytes(pixbuf);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int outside[][2] = {{4, 0}, {0, -1}, {-1, 0}, {0, 3}, {100000, 100000}, {-5, 7}};
    for (const auto &p : outside) {
        gdkpixbuf_put_pixel(pixbuf, p[0], p[1], 0, 0, 0, 0);
        guchar r = 1, g = 2, b = 3, a = 4;
        gdkpixbuf_get_pixel(pixbuf, p[0], p[1], &r, &g, &b, &a);
        EXPECT_TRUE(r == 1 && g == 2 && b == 3 && a == 4) << "at " << p[0] << "," << p[1];
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(pixbuf_bytes(pixbuf), before);
    g_object_unref(pixbuf);
}

TEST(PixbufDeathTest, UnsupportedPixbufsFailTheNamedAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static guchar buffer[64];
    guchar r, g, b, a;
    GdkPixbuf *wide = odd_pixbuf(16, 3, buffer);
    ASSERT_EQ(gdk_pixbuf_get_bits_per_sample(wide), 16);
    EXPECT_DEATH(gdkpixbuf_put_pixel(wide, 0, 0, 1, 2, 3, 4),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:gdkpixbuf_put_pixel: assertion failed: "
                 "\\(gdk_pixbuf_get_bits_per_sample\\(pixbuf\\) == 8\\)");
    EXPECT_DEATH(gdkpixbuf_get_pixel(wide, 0, 0, &r, &g, &b, &a),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:gdkpixbuf_get_pixel: assertion failed: "
                 "\\(gdk_pixbuf_get_bits_per_sample\\(pixbuf\\) == 8\\)");
    GdkPixbuf *five = odd_pixbuf(8, 5, buffer);
    ASSERT_EQ(gdk_pixbuf_get_n_channels(five), 5);
    EXPECT_DEATH(gdkpixbuf_put_pixel(five, 0, 0, 1, 2, 3, 4),
                 "gdkpixbuf_put_pixel: assertion failed: \\(n_channels == 4 \\|\\| n_channels == 3\\)");
    EXPECT_DEATH(gdkpixbuf_get_pixel(five, 5, 5, &r, &g, &b, &a),
                 "gdkpixbuf_get_pixel: assertion failed: \\(n_channels == 4 \\|\\| n_channels == 3\\)");
    g_object_unref(wide);
    g_object_unref(five);
}

TEST(Surface, PixelWordsRoundTripInCairoByteOrder) {
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2);
    const guchar cases[][4] = {{255, 0, 0, 0}, {0, 0, 0, 0}, {0x80, 0x40, 0x20, 0x10}, {255, 255, 255, 255}};
    for (const auto &c : cases) {
        cairoimagesurface_put_pixel(s, 2, 1, c[0], c[1], c[2], c[3]);
        guchar a, r, g, b;
        cairoimagesurface_get_pixel(s, 2, 1, &a, &r, &g, &b);
        EXPECT_TRUE(a == c[0] && r == c[1] && g == c[2] && b == c[3]) << int(c[0]) << " " << int(c[1]);
    }
    // The pixel is cairo's native-endian ARGB word, whatever the byte order of the machine.
    cairoimagesurface_put_pixel(s, 1, 0, 0xA0, 0xB0, 0xC0, 0xD0);
    guint32 word;
    memcpy(&word, cairo_image_surface_get_data(s) + 4, 4);
    EXPECT_EQ(word, 0xA0B0C0D0u);
    if (G_BYTE_ORDER == G_LITTLE_ENDIAN) {
        const guchar *bytes = cairo_image_surface_get_data(s) + 4;
        EXPECT_EQ(bytes[0], 0xD0); // blue
        EXPECT_EQ(bytes[3], 0xA0); // alpha
    }
    cairo_surface_destroy(s);

    // With RGB24 the fourth byte is stored and read like the others although cairo ignores it.
    s = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 2, 2);
    cairoimagesurface_put_pixel(s, 0, 1, 0x12, 0x34, 0x56, 0x78);
    guchar a, r, g, b;
    cairoimagesurface_get_pixel(s, 0, 1, &a, &r, &g, &b);
    EXPECT_TRUE(a == 0x12 && r == 0x34 && g == 0x56 && b == 0x78);
    cairo_surface_destroy(s);
}

TEST(Surface, ReadsMatchWhatCairoDrew) {
    // Premultiplied bytes as cairo stores them: half-transparent white is (128, 128, 128, 128).
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 4, 4);
    cairo_t *cr = cairo_create(s);
    cairo_set_source_rgba(cr, 1, 1, 1, 128 / 255.0);
    cairo_rectangle(cr, 2, 0, 2, 4);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    guchar a, r, g, b;
    cairoimagesurface_get_pixel(s, 3, 3, &a, &r, &g, &b);
    EXPECT_TRUE(a == 128 && r == 128 && g == 128 && b == 128) << int(a) << " " << int(r);
    cairoimagesurface_get_pixel(s, 0, 0, &a, &r, &g, &b);
    EXPECT_TRUE(a == 0 && r == 0 && g == 0 && b == 0);
    cairo_surface_destroy(s);
}

TEST(Surface, OutOfRangeReadLeavesTheCallersValues) {
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2);
    std::vector<guchar> before = surface_bytes(s);
    const int outside[][2] = {{3, 0}, {0, 2}, {-1, 0}, {0, -1}};
    for (const auto &p : outside) {
        guchar a = 9, r = 8, g = 7, b = 6;
        cairoimagesurface_get_pixel(s, p[0], p[1], &a, &r, &g, &b);
        EXPECT_TRUE(a == 9 && r == 8 && g == 7 && b == 6) << p[0] << "," << p[1];
    }
    EXPECT_EQ(surface_bytes(s), before);
    cairo_surface_destroy(s);
}

TEST(SurfaceDeathTest, OutOfRangeWritesAndOtherFormatsFailTheNamedAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2);
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, 3, 0, 1, 2, 3, 4),
                 "ERROR:gtkkeldra\\.cpp:[0-9]+:cairoimagesurface_put_pixel: assertion failed: "
                 "\\(x >= 0 && x < width\\)");
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, -1, -1, 1, 2, 3, 4), "\\(x >= 0 && x < width\\)");
    EXPECT_DEATH(cairoimagesurface_put_pixel(s, 0, 2, 1, 2, 3, 4),
                 "cairoimagesurface_put_pixel: assertion failed: \\(y >= 0 && y < height\\)");

    cairo_surface_t *a8 = cairo_image_surface_create(CAIRO_FORMAT_A8, 4, 4);
    guchar a, r, g, b;
    const char *format = "assertion failed: \\(cairoFMT == CAIRO_FORMAT_ARGB32 \\|\\| cairoFMT == "
                         "CAIRO_FORMAT_RGB24\\)";
    EXPECT_DEATH(cairoimagesurface_put_pixel(a8, 0, 0, 1, 2, 3, 4),
                 std::string("ERROR:gtkkeldra\\.cpp:[0-9]+:cairoimagesurface_put_pixel: ") + format);
    EXPECT_DEATH(cairoimagesurface_get_pixel(a8, 0, 0, &a, &r, &g, &b),
                 std::string("ERROR:gtkkeldra\\.cpp:[0-9]+:cairoimagesurface_get_pixel: ") + format);
    // The reader asserts the format even where the position alone would make it a no-op.
    EXPECT_DEATH(cairoimagesurface_get_pixel(a8, 99, 99, &a, &r, &g, &b), format);
    cairo_surface_destroy(a8);
    cairo_surface_destroy(s);
}

TEST(Grey, MaximumAndBlueAveragedWithTruncation) {
    EXPECT_EQ(rgb2grey(255, 0, 0), 127);
    EXPECT_EQ(rgb2grey(0, 0, 255), 255);
    EXPECT_EQ(rgb2grey(10, 200, 30), 115);
    EXPECT_EQ(rgb2grey(0, 0, 0), 0);
    EXPECT_EQ(rgb2grey(255, 255, 255), 255);
    EXPECT_EQ(rgb2grey(255, 255, 0), 127); // not the lightness 127.5 rounded, not 255
    EXPECT_EQ(rgb2grey(1, 0, 0), 0);       // a very dark red is background
    EXPECT_EQ(rgb2grey(0, 1, 2), 2);
    EXPECT_EQ(rgb2grey(40, 30, 20), 30); // blue is taken as the minimum even when it is
    EXPECT_EQ(rgb2grey(20, 30, 40), 40); // ... and also when it is the maximum
    EXPECT_EQ(rgb2grey(30, 10, 20), 25); // ... and when green is the real minimum
}

TEST(CreatePixbuf, LoadsAFileOrReportsTheLoadersMessage) {
    GdkPixbuf *icon = create_pixbuf(KELDRA_ICON_FOLDER "/iconFG.png");
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(gdk_pixbuf_get_width(icon), 24);
    EXPECT_EQ(gdk_pixbuf_get_height(icon), 24);
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
