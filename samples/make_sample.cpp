// Paints Keldra's bundled sample: a photo-like picture of a ginger pompom with a hairy rim in front of a
// blurred garden background, and a scribble layer for it in the form the GUI reads and writes (opaque
// white foreground strokes, opaque black background strokes, transparent elsewhere).
//
// Build and run from the repository root (samples/make_sample.sh does both):
//   g++ -O2 samples/make_sample.cpp $(pkg-config --cflags --libs cairo gdk-pixbuf-2.0) -o make_sample
//   ./make_sample samples/pompom.jpg samples/pompom-scribbles.png
// The output is the same on every run: the only randomness is a fixed-seed generator.

#include <cairo.h>
#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

const int W = 640, H = 480;
const double CX = 318.0, CY = 228.0, BODY_R = 118.0;

// A small xorshift generator so that the picture does not depend on the C library's rand().
struct Rng {
    uint64_t s = 0x9E3779B97F4A7C15ull;
    double next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return (s >> 11) * (1.0 / 9007199254740992.0);
    }
    double range(double a, double b) { return a + (b - a) * next(); }
};

// Smooth value noise on a lattice of the given cell size, bilinear with a smoothstep blend.
struct ValueNoise {
    int cells_x, cells_y;
    double cell;
    std::vector<double> v;
    ValueNoise(double cell_size, Rng &rng) : cell(cell_size) {
        cells_x = int(W / cell) + 2;
        cells_y = int(H / cell) + 2;
        v.resize(size_t(cells_x) * cells_y);
        for (double &x : v)
            x = rng.next();
    }
    double at(double x, double y) const {
        double fx = x / cell, fy = y / cell;
        int ix = int(fx), iy = int(fy);
        double tx = fx - ix, ty = fy - iy;
        tx = tx * tx * (3 - 2 * tx);
        ty = ty * ty * (3 - 2 * ty);
        auto g = [&](int a, int b) { return v[size_t(b) * cells_x + a]; };
        double top = g(ix, iy) * (1 - tx) + g(ix + 1, iy) * tx;
        double bottom = g(ix, iy + 1) * (1 - tx) + g(ix + 1, iy + 1) * tx;
        return top * (1 - ty) + bottom * ty;
    }
};

// Three passes of a horizontal and vertical box blur approximate a Gaussian: the out-of-focus background.
void box_blur(std::vector<double> &plane, int r) {
    std::vector<double> tmp(plane.size());
    for (int pass = 0; pass < 3; pass++) {
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                double s = 0;
                for (int k = -r; k <= r; k++)
                    s += plane[size_t(y) * W + std::clamp(x + k, 0, W - 1)];
                tmp[size_t(y) * W + x] = s / (2 * r + 1);
            }
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                double s = 0;
                for (int k = -r; k <= r; k++)
                    s += tmp[size_t(std::clamp(y + k, 0, H - 1)) * W + x];
                plane[size_t(y) * W + x] = s / (2 * r + 1);
            }
    }
}

void paint_background(cairo_surface_t *surf, Rng &rng) {
    std::vector<double> plane[3];
    for (auto &p : plane)
        p.assign(size_t(W) * H, 0.0);
    ValueNoise coarse(90.0, rng), fine(22.0, rng);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            double t = double(y) / H;
            double n = 0.65 * coarse.at(x, y) + 0.35 * fine.at(x, y);
            // Foliage greens above, a sandy path below, mixed by the coarse noise.
            double g_r = 0.16 + 0.20 * n, g_g = 0.34 + 0.30 * n, g_b = 0.18 + 0.12 * n;
            double s_r = 0.55 + 0.25 * n, s_g = 0.50 + 0.20 * n, s_b = 0.38 + 0.15 * n;
            double m = std::clamp((t - 0.55) * 3.0 + (n - 0.5), 0.0, 1.0);
            size_t i = size_t(y) * W + x;
            plane[0][i] = g_r * (1 - m) + s_r * m;
            plane[1][i] = g_g * (1 - m) + s_g * m;
            plane[2][i] = g_b * (1 - m) + s_b * m;
        }
    // Bokeh: soft bright discs of sunlight through leaves.
    for (int k = 0; k < 26; k++) {
        double bx = rng.range(0, W), by = rng.range(0, H * 0.6), br = rng.range(12, 38);
        double warm = rng.next(), strength = rng.range(0.15, 0.35);
        for (int y = std::max(0, int(by - br)); y < std::min(H, int(by + br + 1)); y++)
            for (int x = std::max(0, int(bx - br)); x < std::min(W, int(bx + br + 1)); x++) {
                double d = std::hypot(x - bx, y - by) / br;
                if (d >= 1.0) continue;
                double a = strength * (1.0 - d * d);
                size_t i = size_t(y) * W + x;
                plane[0][i] += a * (0.9 + 0.1 * warm);
                plane[1][i] += a * 0.95;
                plane[2][i] += a * (0.6 - 0.3 * warm);
            }
    }
    for (auto &p : plane)
        box_blur(p, 4);
    // Sensor grain after the blur keeps the background photo-like.
    cairo_surface_flush(surf);
    unsigned char *data = cairo_image_surface_get_data(surf);
    int stride = cairo_image_surface_get_stride(surf);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            size_t i = size_t(y) * W + x;
            double grain = rng.range(-0.015, 0.015);
            uint32_t px = 0xFF000000u;
            for (int c = 0; c < 3; c++) {
                int v = int(std::lround(std::clamp(plane[c][i] + grain, 0.0, 1.0) * 255.0));
                px |= uint32_t(v) << (16 - 8 * c);
            }
            *reinterpret_cast<uint32_t *>(data + size_t(y) * stride + 4 * size_t(x)) = px;
        }
    cairo_surface_mark_dirty(surf);
}

// The pompom: a shaded ball whose rim dissolves into thousands of fine, slightly curved hairs.
void paint_pompom(cairo_t *cr, Rng &rng) {
    cairo_pattern_t *body = cairo_pattern_create_radial(CX - 40, CY - 45, 10, CX, CY, BODY_R);
    cairo_pattern_add_color_stop_rgb(body, 0.0, 0.98, 0.72, 0.38);
    cairo_pattern_add_color_stop_rgb(body, 0.6, 0.88, 0.50, 0.18);
    cairo_pattern_add_color_stop_rgb(body, 1.0, 0.62, 0.30, 0.08);
    cairo_arc(cr, CX, CY, BODY_R * 0.93, 0, 2 * M_PI);
    cairo_set_source(cr, body);
    cairo_fill(cr);
    cairo_pattern_destroy(body);

    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    for (int k = 0; k < 9000; k++) {
        double a = rng.range(0, 2 * M_PI);
        double r0 = BODY_R * rng.range(0.55, 0.95);
        double len = rng.range(18, 62) * (k % 7 == 0 ? 1.5 : 1.0);
        double bend = rng.range(-0.25, 0.25);
        double x0 = CX + r0 * std::cos(a), y0 = CY + r0 * std::sin(a);
        double x1 = CX + (r0 + len) * std::cos(a + bend * 0.2),
               y1 = CY + (r0 + len) * std::sin(a + bend * 0.2);
        double mx = (x0 + x1) / 2 + bend * len * -std::sin(a), my = (y0 + y1) / 2 + bend * len * std::cos(a);
        // Light comes from the upper left: hairs on that side are paler.
        double lit = 0.5 + 0.5 * std::cos(a - (-2.3));
        double tone = rng.range(-0.08, 0.08);
        cairo_set_source_rgba(cr, std::min(1.0, 0.80 + 0.18 * lit + tone), 0.42 + 0.30 * lit + tone,
                              0.12 + 0.22 * lit + tone, rng.range(0.45, 0.9));
        cairo_set_line_width(cr, rng.range(0.6, 1.4));
        cairo_move_to(cr, x0, y0);
        cairo_curve_to(cr, mx, my, mx, my, x1, y1);
        cairo_stroke(cr);
    }
    // A few dark seeds for texture in the body.
    for (int k = 0; k < 120; k++) {
        double a = rng.range(0, 2 * M_PI), r = BODY_R * 0.75 * std::sqrt(rng.next());
        cairo_arc(cr, CX + r * std::cos(a), CY + r * std::sin(a), rng.range(0.8, 2.0), 0, 2 * M_PI);
        cairo_set_source_rgba(cr, 0.45, 0.22, 0.05, 0.5);
        cairo_fill(cr);
    }
}

void stroke_polyline(cairo_t *cr, const std::vector<std::pair<double, double>> &pts) {
    cairo_move_to(cr, pts[0].first, pts[0].second);
    for (size_t i = 1; i < pts.size(); i++)
        cairo_line_to(cr, pts[i].first, pts[i].second);
    cairo_stroke(cr);
}

// Scribbles as a user would paint them: white loops well inside the ball, black strokes in the
// background, all opaque with hard edges.
void paint_scribbles(cairo_t *cr) {
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_width(cr, 12.0);
    cairo_set_source_rgb(cr, 1, 1, 1);
    std::vector<std::pair<double, double>> loop;
    for (int i = 0; i <= 40; i++) {
        double t = i * 2 * M_PI / 40;
        loop.push_back({CX + 55 * std::cos(t), CY + 48 * std::sin(t)});
    }
    stroke_polyline(cr, loop);
    stroke_polyline(cr, {{CX - 30, CY}, {CX + 30, CY + 5}});
    loop.clear();
    for (int i = 0; i <= 60; i++) {
        double t = i * 2 * M_PI / 60;
        loop.push_back({CX + 88 * std::cos(t), CY + 84 * std::sin(t)});
    }
    stroke_polyline(cr, loop);

    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_set_line_width(cr, 14.0);
    stroke_polyline(cr, {{30, 40}, {200, 28}, {420, 35}, {610, 50}});
    stroke_polyline(cr, {{40, 60}, {35, 250}, {50, 440}});
    stroke_polyline(cr, {{600, 70}, {612, 260}, {596, 440}});
    stroke_polyline(cr, {{70, 450}, {320, 440}, {580, 452}});
    stroke_polyline(cr, {{130, 120}, {120, 230}, {140, 340}});
    stroke_polyline(cr, {{510, 110}, {525, 230}, {505, 350}});
    stroke_polyline(cr, {{200, 395}, {320, 405}, {440, 392}});
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s IMAGE.jpg SCRIBBLES.png\n", argv[0]);
        return 2;
    }
    Rng rng;
    cairo_surface_t *photo = cairo_image_surface_create(CAIRO_FORMAT_RGB24, W, H);
    paint_background(photo, rng);
    cairo_t *cr = cairo_create(photo);
    paint_pompom(cr, rng);
    cairo_destroy(cr);
    cairo_surface_flush(photo);

    GdkPixbuf *pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, W, H);
    const unsigned char *src = cairo_image_surface_get_data(photo);
    int sstride = cairo_image_surface_get_stride(photo);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            uint32_t px = *reinterpret_cast<const uint32_t *>(src + size_t(y) * sstride + 4 * size_t(x));
            guchar *d = gdk_pixbuf_get_pixels(pb) + size_t(y) * gdk_pixbuf_get_rowstride(pb) + 3 * size_t(x);
            d[0] = (px >> 16) & 0xFF;
            d[1] = (px >> 8) & 0xFF;
            d[2] = px & 0xFF;
        }
    GError *error = nullptr;
    if (!gdk_pixbuf_save(pb, argv[1], "jpeg", &error, "quality", "92", nullptr)) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error->message);
        return 1;
    }
    g_object_unref(pb);
    cairo_surface_destroy(photo);

    cairo_surface_t *layer = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, W, H);
    cr = cairo_create(layer);
    paint_scribbles(cr);
    cairo_destroy(cr);
    cairo_status_t st = cairo_surface_write_to_png(layer, argv[2]);
    cairo_surface_destroy(layer);
    if (st != CAIRO_STATUS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", argv[2], cairo_status_to_string(st));
        return 1;
    }
    return 0;
}
