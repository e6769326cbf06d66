#include "canvas/view.h"

#include <cmath>

#include "app/gtkkeldra.h"
#include "canvas/brush.h"
#include "canvas/gtk_file_IO.h"

// Zoomed out, smoothing keeps the picture legible; zoomed in, blocks show the pixels the brush
// really covers.
static void set_view_filter(cairo_t *cr) {
    cairo_pattern_set_filter(cairo_get_source(cr), scale > 1.0 ? CAIRO_FILTER_NEAREST : CAIRO_FILTER_GOOD);
}

void view_set_source_pixbuf(cairo_t *cr, GdkPixbuf *pixbuf) {
    gdk_cairo_set_source_pixbuf(cr, pixbuf, 0, 0);
    set_view_filter(cr);
}

void repaint_view(gboolean with_layer) {
    cairo_t *cr = cairo_create(win_surf);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    cairo_set_source_rgba(cr, 0, 0, 0, 0);
    cairo_paint(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
    cairo_scale(cr, scale, scale);
    view_set_source_pixbuf(cr, pixbuf_image);
    cairo_paint(cr);
    if (with_layer) {
        cairo_set_source_surface(cr, surf_layer, 0, 0);
        set_view_filter(cr);
        cairo_paint(cr);
    }
    cairo_destroy(cr);
}

static void paint_win_surf_on(GtkWidget *widget, GdkRegion *region, gboolean with_brush) {
    GdkWindow *window = gtk_widget_get_window(widget);
    if (window == NULL) return;
    cairo_t *cr = gdk_cairo_create(window);
    if (region != NULL) {
        gdk_cairo_region(cr, region);
        cairo_clip(cr);
    }
    cairo_set_source_surface(cr, win_surf, 0, 0);
    cairo_paint(cr);
    if (with_brush) draw_brush(cr);
    cairo_destroy(cr);
}

gboolean on_expose_event(GtkWidget *widget, GdkEventExpose *event, gpointer data) {
    (void)data;
    paint_win_surf_on(widget, event->region, in_edit_mode);
    prev_cursor_x = cursor_x;
    prev_cursor_y = cursor_y;
    return FALSE;
}

gboolean configure_event(GtkWidget *widget, GdkEventConfigure *event, gpointer data) {
    (void)event;
    (void)data;
    paint_win_surf_on(widget, NULL, FALSE);
    return TRUE;
}

static int view_width(void) {
    return (int)(scale * gdk_pixbuf_get_width(pixbuf_image));
}

static int view_height(void) {
    return (int)(scale * gdk_pixbuf_get_height(pixbuf_image));
}

void cb_draw_zoom(GtkAdjustment *adjustment, gpointer data) {
    (void)data;
    scale = gtk_adjustment_get_value(adjustment) / 100.0;
    // The zoom control reports its first value while the window is being built; until an image is
    // opened the canvas keeps its initial size and the zoom only takes effect at the next open.
    if (!image_is_open()) return;
    int w = view_width(), h = view_height();
    if (drawing_area != NULL) gtk_widget_set_size_request(drawing_area, w, h);
    cairo_surface_destroy(win_surf);
    win_surf = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
    repaint_view(in_edit_mode);
    set_ROI_for_winsurf();
    if (calc_ROI_is_set || !in_edit_mode) draw_rect(left_x, top_y, drawing_area);
    if (drawing_area != NULL) gtk_widget_queue_draw(drawing_area);
}

void cb_zoom_to(GtkWidget *button, gpointer adjustment) {
    (void)button;
    gtk_adjustment_set_value(GTK_ADJUSTMENT(adjustment), 100.0);
}

static void set_canvas_cursor(GdkCursor *cursor) {
    if (drawing_area != NULL && gtk_widget_get_window(drawing_area) != NULL)
        gdk_window_set_cursor(gtk_widget_get_window(drawing_area), cursor);
}

void cb_toggle_mode(GtkToggleToolButton *toggle, gpointer data) {
    (void)toggle;
    GtkToolbar *bar = GTK_TOOLBAR(GTK_IS_TOOLBAR(data) ? GTK_WIDGET(data) : toolbar);
    in_edit_mode =
        !gtk_toggle_tool_button_get_active(GTK_TOGGLE_TOOL_BUTTON(gtk_toolbar_get_nth_item(bar, 0)));

    // Items 8 to 12 (colour button, zoom controls, separator) stay in both modes.
    for (int i = 3; i <= 14; i++) {
        GtkWidget *item = GTK_WIDGET(gtk_toolbar_get_nth_item(bar, i));
        if (item == NULL) continue;
        gboolean brush_or_calc = (i >= 4 && i <= 7) || i == 13 || i == 14;
        if (i == 3)
            gtk_widget_set_visible(item, !in_edit_mode);
        else if (brush_or_calc)
            gtk_widget_set_visible(item, in_edit_mode);
    }

    if (in_edit_mode) {
        set_canvas_cursor(blank_cursor);
        pixbuf_image = pixbuf_no_alpha;
    } else {
        set_canvas_cursor(NULL);
        pixbuf_image = pixbuf_alpha;
    }
    repaint_view(in_edit_mode);
    if (calc_ROI_is_set || !in_edit_mode) {
        set_ROI_for_winsurf();
        draw_rect(left_x, top_y, drawing_area);
    }
    if (drawing_area != NULL) gtk_widget_queue_draw_area(drawing_area, 0, 0, view_width(), view_height());
}

void cb_draw_alpha(GtkWidget *button, gpointer data) {
    (void)button;
    (void)data;
    int w = gdk_pixbuf_get_width(pixbuf_alpha), h = gdk_pixbuf_get_height(pixbuf_alpha);
    GdkPixbuf *grey = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, w, h);
    for (int x = 0; x < w; x++)
        for (int y = 0; y < h; y++) {
            guchar r, g, b, a;
            gdkpixbuf_get_pixel(pixbuf_alpha, x, y, &r, &g, &b, &a);
            gdkpixbuf_put_pixel(grey, x, y, a, a, a, 255);
        }
    cairo_t *cr = cairo_create(win_surf);
    cairo_scale(cr, scale, scale);
    view_set_source_pixbuf(cr, grey);
    cairo_paint(cr);
    cairo_destroy(cr);
    g_object_unref(grey);
    if (drawing_area != NULL) gtk_widget_queue_draw(drawing_area);
}

void draw_rect(double x, double y, GtkWidget *widget) {
    selection_w = floor(fabs(m_button_x - x) + 1 + 0.5);
    selection_h = floor(fabs(m_button_y - y) + 1 + 0.5);
    left_x = floor(MIN(m_button_x, x) + 0.5);
    top_y = floor(MIN(m_button_y, y) + 0.5);

    cairo_t *cr = cairo_create(win_surf);
    static const double dashes[] = {4.0, 2.0};
    cairo_set_dash(cr, dashes, 2, 0);
    if (calc_ROI_is_set)
        cairo_set_source_rgb(cr, 1, 0, 0);
    else
        cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_rectangle(cr, left_x - 0.5, top_y - 0.5, selection_w + 1, selection_h + 1);
    cairo_set_line_width(cr, 1.0);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER);
    cairo_stroke(cr);
    cairo_destroy(cr);
    if (widget != NULL)
        gtk_widget_queue_draw_area(widget, (int)(left_x - 1), (int)(top_y - 1), (int)(selection_w + 3),
                                   (int)(selection_h + 3));
}

void del_rect(GtkWidget *widget) {
    cairo_t *cr = cairo_create(win_surf);
    cairo_scale(cr, scale, scale);
    view_set_source_pixbuf(cr, pixbuf_image);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_rectangle(cr, (left_x - 1) / scale, (top_y - 1) / scale, (selection_w + 4) / scale,
                    (selection_h + 4) / scale);
    cairo_fill(cr);
    cairo_destroy(cr);
    if (widget != NULL)
        gtk_widget_queue_draw_area(widget, (int)(left_x - 1), (int)(top_y - 1), (int)(selection_w + 4),
                                   (int)(selection_h + 4));
}

void set_img_ROI_values(double x, double y) {
    (void)x;
    (void)y;
    x_img_ROI = (int)(left_x / scale + 0.5);
    y_img_ROI = (int)(top_y / scale + 0.5);
    w_img_ROI = (int)(selection_w / scale + 0.5);
    h_img_ROI = (int)(selection_h / scale + 0.5);
}

void set_ROI_for_winsurf(void) {
    selection_w = scale * w_img_ROI;
    selection_h = scale * h_img_ROI;
    left_x = scale * x_img_ROI;
    top_y = scale * y_img_ROI;
    m_button_x = scale * x_img_ROI + scale * w_img_ROI - 1;
    m_button_y = scale * y_img_ROI + scale * h_img_ROI - 1;
}

void toggle_calc_ROI(GtkCheckMenuItem *item, gpointer data) {
    (void)data;
    calc_ROI_is_set = gtk_check_menu_item_get_active(item) ? 1 : 0;
    set_ROI_for_winsurf();
    if (!calc_ROI_is_set && in_edit_mode)
        del_rect(drawing_area);
    else
        draw_rect(scale * x_img_ROI, scale * y_img_ROI, drawing_area);
}

GdkPixbuf *ref_ROI(GdkPixbuf *pixbuf) {
    int width = gdk_pixbuf_get_width(pixbuf), height = gdk_pixbuf_get_height(pixbuf);
    int x0 = (int)(left_x / scale), y0 = (int)(top_y / scale);
    int w = (int)(selection_w / scale), h = (int)(selection_h / scale);
    x0 = CLAMP(x0, 0, width - 1);
    y0 = CLAMP(y0, 0, height - 1);
    if (x0 + w > width) w = width - x0;
    if (y0 + h > height) h = height - y0;
    return gdk_pixbuf_new_subpixbuf(pixbuf, x0, y0, MAX(w, 1), MAX(h, 1));
}
