#include "canvas/brush.h"

#include <cmath>

#include "app/gtkkeldra.h"
#include "canvas/strokes.h"
#include "canvas/view.h"

gboolean button_press_event(GtkWidget *widget, GdkEventButton *event, gpointer data) {
    (void)data;
    if (event->button != 1) return TRUE;
    finished_stroke = 0;
    if (event->state & STROKE_CONTINUE_MASK) {
        convert_storable_coords(prev_true_x, prev_true_y, &prev_x, &prev_y);
    } else {
        prev_x = event->x;
        prev_y = event->y;
        get_storable_coords(event->x, event->y, &prev_true_x, &prev_true_y);
    }
    m_button_x = cursor_x = event->x;
    m_button_y = cursor_y = event->y;

    if (!in_edit_mode) {
        del_rect(widget);
        left_x = top_y = 0.0;
        x_img_ROI = y_img_ROI = 0;
        w_img_ROI = gdk_pixbuf_get_width(pixbuf_image);
        h_img_ROI = gdk_pixbuf_get_height(pixbuf_image);
        return TRUE;
    }
    manage_glist_mbutton_press();
    stroke_add_point(prev_true_x, prev_true_y);
    draw_line(event->x, event->y, widget);
    return TRUE;
}

gboolean motion_notify_event(GtkWidget *widget, GdkEventMotion *event, gpointer data) {
    (void)data;
    int x, y;
    GdkModifierType state;
    if (event->is_hint) {
        gdk_window_get_pointer(event->window, &x, &y, &state);
    } else {
        x = (int)event->x;
        y = (int)event->y;
        state = (GdkModifierType)event->state;
    }

    if (!in_edit_mode && (state & GDK_BUTTON1_MASK)) {
        del_rect(widget);
        draw_rect(x, y, widget);
        set_img_ROI_values(x, y);
    }
    if (in_edit_mode) {
        if (!(state & GDK_BUTTON1_MASK))
            finished_stroke = 1;
        else if (!finished_stroke && current != NULL)
            draw_line(x, y, widget);
        initiate_cursor_redraw(widget, x, y);
    }
    cursor_x = x;
    cursor_y = y;

    guchar r = 0, g = 0, b = 0, a = 0;
    if (x < cairo_image_surface_get_width(win_surf) && y < cairo_image_surface_get_height(win_surf)) {
        cairo_surface_flush(win_surf);
        cairoimagesurface_get_pixel(win_surf, x, y, &a, &r, &g, &b);
    }
    gchar *text = g_strdup_printf("r%03d g%03d b%03d a%03d : x %d y %d", r, g, b, a, x, y);
    update_statusbar(text, 0, status_bar);
    g_free(text);
    return TRUE;
}

void standard_draw(cairo_t *cr, double x, double y, double *x1, double *y1, double *x2, double *y2) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_width(cr, 2.0 * radius);
    double sx, sy, prev_sx, prev_sy;
    get_4_storable_coords(x, y, &sx, &sy, &prev_sx, &prev_sy);
    cairo_move_to(cr, prev_sx, prev_sy);
    cairo_line_to(cr, sx, sy);
    cairo_path_extents(cr, x1, y1, x2, y2);
    cairo_stroke(cr);
}

void draw_line(double x, double y, GtkWidget *widget) {
    gboolean eraser = alpha == 0.0;
    double x1, y1, x2, y2;

    cairo_t *cr = stroke_context_on_layer(eraser, red, green, blue);
    standard_draw(cr, trunc(x), trunc(y), &x1, &y1, &x2, &y2);
    cairo_destroy(cr);

    cr = stroke_context_on_view(eraser, red, green, blue);
    standard_draw(cr, trunc(x), trunc(y), &x1, &y1, &x2, &y2);
    cairo_destroy(cr);

    x1 -= radius;
    y1 -= radius;
    x2 += radius + 1;
    y2 += radius + 1;
    gtk_widget_queue_draw_area(widget, (int)(trunc(x1) * scale), (int)(trunc(y1) * scale),
                               (int)(trunc(x2 - x1) * scale), (int)(trunc(y2 - y1) * scale));

    prev_x = x;
    prev_y = y;
    double sx, sy;
    get_storable_coords(x, y, &sx, &sy);
    stroke_add_point(sx, sy);
    prev_true_x = sx;
    prev_true_y = sy;
}

void draw_brush(cairo_t *cr) {
    double cx = cursor_x / scale, cy = cursor_y / scale;
    if ((int)(2.0 * radius) % 2 == 1) {
        cx += 0.5;
        cy += 0.5;
    }
    cairo_save(cr);
    cairo_scale(cr, scale, scale);
    cairo_new_path(cr);
    cairo_arc(cr, cx, cy, radius, 0, 2 * G_PI);
    cairo_set_source_rgb(cr, red, green, blue);
    cairo_fill(cr);
    // The inner disc shows the brush's role even over a same-coloured image: red on the white
    // brush, cyan on the black one.
    cairo_arc(cr, cx, cy, radius / 2, 0, 2 * G_PI);
    cairo_set_source_rgb(cr, red, 1.0 - green, 1.0 - blue);
    cairo_fill(cr);
    if (radius * scale <= 1.5) {
        cairo_set_line_width(cr, 0.5 / scale);
        for (int i = 0; i < 16; i++) {
            cairo_new_path(cr);
            cairo_arc(cr, cx, cy, 5.0 / scale, i * G_PI / 4, (i + 1) * G_PI / 4);
            if (i % 2 == 0)
                cairo_set_source_rgb(cr, red, green, blue);
            else
                cairo_set_source_rgb(cr, 1, 0, 0);
            cairo_stroke(cr);
        }
    }
    cairo_restore(cr);
}

void initiate_cursor_redraw(GtkWidget *widget, double x, double y) {
    double R = radius * scale >= 1.5 ? radius * scale : 5.5;
    gtk_widget_queue_draw_area(
        widget, (int)(MIN(x, prev_cursor_x) - R - 3), (int)(MIN(y, prev_cursor_y) - R - 3),
        (int)(fabs(trunc(x - prev_cursor_x)) + 2 * R + 9), (int)(fabs(trunc(y - prev_cursor_y)) + 2 * R + 9));
}

static void queue_outline_square(double D) {
    if (D <= 3.0) D = 5.0;
    if (drawing_area != NULL)
        gtk_widget_queue_draw_area(drawing_area, (int)(cursor_x - D / 2), (int)(cursor_y - D / 2),
                                   (int)(D + 20), (int)(D + 20));
}

void redraw_brush(void) {
    queue_outline_square(scale * 2.0 * radius);
}

static void set_brush(double r, double g, double b, double a) {
    red = r;
    green = g;
    blue = b;
    alpha = a;
    redraw_brush();
}

void cb_set_FG(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
    set_brush(1.0, 1.0, 1.0, 1.0);
}

void cb_set_BG(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
    set_brush(0.0, 0.0, 0.0, 1.0);
}

// The eraser's grey only colours the outline; alpha 0 makes strokes clear layer pixels.
void cb_set_Eraser(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
    set_brush(0.3, 0.3, 0.3, 0.0);
}

void cb_set_Color(GtkColorButton *button, gpointer toolbar) {
    (void)toolbar;
    gtk_color_button_get_color(button, &color);
    set_brush(color.red / 65535.0, color.green / 65535.0, color.blue / 65535.0, 1.0);
}

void cb_set_brush_size(GtkAdjustment *adjustment, gpointer toolbar) {
    (void)toolbar;
    double v = gtk_adjustment_get_value(adjustment);
    queue_outline_square(MAX(2.0 * radius, v) * scale);
    radius = v / 2.0;
}

void update_statusbar(const gchar *text, guint context, GtkWidget *statusbar) {
    if (statusbar == NULL) return;
    gtk_statusbar_pop(GTK_STATUSBAR(statusbar), context);
    gtk_statusbar_push(GTK_STATUSBAR(statusbar), context, text);
}
