// Draws the toolbar's four icons with cairo and writes them as PNG files into the folder given on the
// command line (the repository's icons/ folder holds the committed result):
//   icon_ov16x24.png     16 x 24  edit/view toggle: a brush tip over an eye
//   icon_alpha24x24.png  24 x 24  alpha view: a black-to-white ramp over a transparency checkerboard
//   iconFG.png           24 x 24  foreground brush: a white scribble on a dark tile
//   iconBG.png           24 x 24  background brush: a black scribble on a light tile
// Build and run on demand: cmake --build BUILD --target draw_icons && BUILD/app/draw_icons icons
#include <cairo.h>
#include <cmath>
#include <cstdio>
#include <string>

namespace {

void rounded_tile(cairo_t *cr, double x, double y, double w, double h, double r) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - r, y + r, r, -M_PI / 2, 0);
    cairo_arc(cr, x + w - r, y + h - r, r, 0, M_PI / 2);
    cairo_arc(cr, x + r, y + h - r, r, M_PI / 2, M_PI);
    cairo_arc(cr, x + r, y + r, r, M_PI, 1.5 * M_PI);
    cairo_close_path(cr);
}

// The edit half: a brush seen from the side, handle up-right, bristles down-left; the view half: an
// eye with its iris.
void draw_mode_toggle(cairo_t *cr) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);

    cairo_set_source_rgb(cr, 0.55, 0.33, 0.15);
    cairo_set_line_width(cr, 2.4);
    cairo_move_to(cr, 14.0, 1.5);
    cairo_line_to(cr, 8.5, 7.0);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.62, 0.64, 0.68);
    cairo_set_line_width(cr, 3.0);
    cairo_move_to(cr, 8.3, 7.2);
    cairo_line_to(cr, 6.7, 8.8);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
    cairo_move_to(cr, 6.9, 8.4);
    cairo_curve_to(cr, 4.5, 9.0, 4.0, 10.5, 2.0, 11.2);
    cairo_curve_to(cr, 3.5, 11.8, 6.5, 11.5, 7.6, 9.4);
    cairo_close_path(cr);
    cairo_fill(cr);

    cairo_set_source_rgb(cr, 0.45, 0.45, 0.45);
    cairo_set_line_width(cr, 0.8);
    cairo_move_to(cr, 1.0, 13.0);
    cairo_line_to(cr, 15.0, 13.0);
    cairo_stroke(cr);

    cairo_move_to(cr, 1.0, 18.5);
    cairo_curve_to(cr, 4.0, 14.0, 12.0, 14.0, 15.0, 18.5);
    cairo_curve_to(cr, 12.0, 23.0, 4.0, 23.0, 1.0, 18.5);
    cairo_close_path(cr);
    cairo_set_source_rgb(cr, 1.0, 1.0, 1.0);
    cairo_fill_preserve(cr);
    cairo_set_source_rgb(cr, 0.12, 0.12, 0.12);
    cairo_set_line_width(cr, 1.2);
    cairo_stroke(cr);
    cairo_arc(cr, 8.0, 18.5, 2.9, 0, 2 * M_PI);
    cairo_set_source_rgb(cr, 0.69, 0.19, 0.0);
    cairo_fill(cr);
    cairo_arc(cr, 8.0, 18.5, 1.3, 0, 2 * M_PI);
    cairo_set_source_rgb(cr, 0.05, 0.05, 0.05);
    cairo_fill(cr);
}

void draw_alpha_view(cairo_t *cr) {
    rounded_tile(cr, 1.5, 1.5, 21.0, 21.0, 3.0);
    cairo_save(cr);
    cairo_clip_preserve(cr);
    for (int row = 0; row < 6; row++)
        for (int col = 0; col < 6; col++) {
            double v = (row + col) % 2 == 0 ? 0.78 : 0.98;
            cairo_set_source_rgb(cr, v, v, v);
            cairo_rectangle(cr, 1.5 + col * 3.5, 1.5 + row * 3.5, 3.5, 3.5);
            cairo_fill(cr);
        }
    cairo_pattern_t *ramp = cairo_pattern_create_linear(1.5, 0, 22.5, 0);
    cairo_pattern_add_color_stop_rgba(ramp, 0.0, 0.0, 0.0, 0.0, 1.0);
    cairo_pattern_add_color_stop_rgba(ramp, 1.0, 1.0, 1.0, 1.0, 0.15);
    cairo_set_source(cr, ramp);
    cairo_rectangle(cr, 1.5, 1.5, 21.0, 21.0);
    cairo_fill(cr);
    cairo_pattern_destroy(ramp);
    cairo_restore(cr);
    cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
    cairo_set_line_width(cr, 1.0);
    cairo_stroke(cr);

    // A lower-case alpha: a bowl open to the right with a tail crossing it.
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_width(cr, 2.0);
    cairo_set_source_rgb(cr, 0.69, 0.19, 0.0);
    cairo_move_to(cr, 17.0, 8.5);
    cairo_curve_to(cr, 15.5, 13.0, 14.0, 16.5, 10.0, 16.5);
    cairo_curve_to(cr, 7.0, 16.5, 6.0, 14.5, 6.0, 12.5);
    cairo_curve_to(cr, 6.0, 10.0, 7.5, 8.5, 9.8, 8.5);
    cairo_curve_to(cr, 13.5, 8.5, 14.5, 16.0, 17.5, 16.5);
    cairo_stroke(cr);
}

// A brush tile: the scribble in `ink` over a tile of `paper`, with a round brush tip at its end.
void draw_brush(cairo_t *cr, double paper, double ink, double edge) {
    rounded_tile(cr, 1.5, 1.5, 21.0, 21.0, 3.5);
    cairo_set_source_rgb(cr, paper, paper, paper);
    cairo_fill_preserve(cr);
    cairo_set_source_rgb(cr, edge, edge, edge);
    cairo_set_line_width(cr, 1.0);
    cairo_stroke(cr);

    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_source_rgb(cr, ink, ink, ink);
    cairo_set_line_width(cr, 3.2);
    cairo_move_to(cr, 5.0, 16.5);
    cairo_curve_to(cr, 6.5, 8.0, 9.5, 8.0, 10.5, 12.0);
    cairo_curve_to(cr, 11.5, 16.0, 14.0, 16.5, 15.5, 10.0);
    cairo_stroke(cr);
    cairo_arc(cr, 17.0, 7.5, 2.8, 0, 2 * M_PI);
    cairo_fill(cr);
}

bool write_icon(const std::string &folder, const char *name, int width, int height,
                void (*draw)(cairo_t *, void *), void *arg) {
    cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t *cr = cairo_create(surface);
    draw(cr, arg);
    cairo_destroy(cr);
    std::string path = folder + "/" + name;
    cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        fprintf(stderr, "draw_icons: cannot write %s: %s\n", path.c_str(), cairo_status_to_string(status));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: draw_icons FOLDER\n");
        return 2;
    }
    std::string folder = argv[1];
    double fg[3] = {0.22, 1.0, 0.05}, bg[3] = {0.93, 0.0, 0.45};
    bool ok = write_icon(
        folder, "icon_ov16x24.png", 16, 24, [](cairo_t *cr, void *) { draw_mode_toggle(cr); }, nullptr);
    ok = write_icon(
             folder, "icon_alpha24x24.png", 24, 24, [](cairo_t *cr, void *) { draw_alpha_view(cr); },
             nullptr) &&
         ok;
    auto brush = [](cairo_t *cr, void *arg) {
        const double *c = static_cast<const double *>(arg);
        draw_brush(cr, c[0], c[1], c[2]);
    };
    ok = write_icon(folder, "iconFG.png", 24, 24, brush, fg) && ok;
    ok = write_icon(folder, "iconBG.png", 24, 24, brush, bg) && ok;
    return ok ? 0 : 1;
}
