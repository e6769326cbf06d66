#include "canvas/strokes.h"

#include <cmath>

#include "app/gtkkeldra.h"
#include "canvas/view.h"

static gboolean odd_brush_width(void) {
    return (int)(2.0 * radius) % 2 == 1;
}

void get_storable_coords(double x, double y, double *sx, double *sy) {
    *sx = trunc(x / scale);
    *sy = trunc(y / scale);
    if (odd_brush_width()) {
        *sx += 0.5;
        *sy += 0.5;
    }
}

void convert_storable_coords(double sx, double sy, double *x, double *y) {
    if (odd_brush_width()) {
        sx -= 0.5;
        sy -= 0.5;
    }
    *x = scale * sx;
    *y = scale * sy;
}

void get_4_storable_coords(double x, double y, double *sx, double *sy, double *prev_sx, double *prev_sy) {
    get_storable_coords(x, y, sx, sy);
    get_storable_coords(prev_x, prev_y, prev_sx, prev_sy);
}

void free_stroke_history(void) {
    g_list_free_full(history, g_free);
    history = NULL;
    current = NULL;
}

void manage_glist_mbutton_press(void) {
    stroke_idx = STROKE_POINTS;
    if (current == NULL) {
        free_stroke_history();
    } else if (current->next != NULL) {
        glist_tmp = current->next;
        current->next = NULL;
        glist_tmp->prev = NULL;
        g_list_free_full(glist_tmp, g_free);
        glist_tmp = NULL;
    }
    double *record = g_new(double, STROKE_POINTS);
    record[STROKE_TYPE] = his_type;
    record[STROKE_RADIUS] = radius;
    record[STROKE_SCALE] = scale;
    record[STROKE_RED] = red;
    record[STROKE_GREEN] = green;
    record[STROKE_BLUE] = blue;
    record[STROKE_ALPHA] = alpha;
    record[STROKE_LENGTH] = stroke_idx;
    history = g_list_append(history, record);
    current = g_list_last(history);
}

void stroke_add_point(double sx, double sy) {
    if (current == NULL) return;
    double *record = g_renew(double, (double *)current->data, stroke_idx + 2);
    record[stroke_idx] = sx;
    record[stroke_idx + 1] = sy;
    stroke_idx += 2;
    record[STROKE_LENGTH] = stroke_idx;
    current->data = record;
}

// Both surfaces get the same hard-edged pen: round caps join the separate segments seamlessly, and
// without antialiasing the layer never receives half-transparent pixels, which the calculation would
// read as unknown.
static void set_stroke_pen(cairo_t *cr, double r) {
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_width(cr, 2.0 * r);
}

static void add_stroke_path(cairo_t *cr, const double *record, int n) {
    if (n < STROKE_POINTS + 4) {
        cairo_move_to(cr, record[STROKE_POINTS], record[STROKE_POINTS + 1]);
        cairo_line_to(cr, record[STROKE_POINTS], record[STROKE_POINTS + 1]);
    }
    for (int i = STROKE_POINTS; i < n - 2; i += 2) {
        cairo_move_to(cr, record[i], record[i + 1]);
        cairo_line_to(cr, record[i + 2], record[i + 3]);
    }
}

cairo_t *stroke_context_on_layer(gboolean eraser, double r, double g, double b) {
    cairo_t *cr = cairo_create(surf_layer);
    if (eraser) cairo_set_operator(cr, CAIRO_OPERATOR_DEST_OUT);
    cairo_set_source_rgb(cr, r, g, b);
    return cr;
}

cairo_t *stroke_context_on_view(gboolean eraser, double r, double g, double b) {
    cairo_t *cr = cairo_create(win_surf);
    cairo_scale(cr, scale, scale);
    if (eraser) {
        view_set_source_pixbuf(cr, pixbuf_image);
        cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    } else {
        cairo_set_source_rgb(cr, r, g, b);
    }
    return cr;
}

void paint_stroke_array(const double *record) {
    double r = record[STROKE_RADIUS];
    int n = (int)record[STROKE_LENGTH];
    gboolean eraser = record[STROKE_ALPHA] == 0.0;

    cairo_t *cr =
        stroke_context_on_layer(eraser, record[STROKE_RED], record[STROKE_GREEN], record[STROKE_BLUE]);
    set_stroke_pen(cr, r);
    add_stroke_path(cr, record, n);
    cairo_stroke(cr);
    cairo_destroy(cr);

    cr = stroke_context_on_view(eraser, record[STROKE_RED], record[STROKE_GREEN], record[STROKE_BLUE]);
    set_stroke_pen(cr, r);
    add_stroke_path(cr, record, n);
    double x1, y1, x2, y2;
    cairo_path_extents(cr, &x1, &y1, &x2, &y2);
    cairo_stroke(cr);
    cairo_destroy(cr);

    x1 -= r;
    y1 -= r;
    x2 += r + 1;
    y2 += r + 1;
    // The area is given in the top-level window's coordinates with fixed margins for the menu and
    // toolbar above the canvas.
    if (drawing_area != NULL)
        gtk_widget_queue_draw_area(gtk_widget_get_toplevel(drawing_area), (int)(trunc(x1) * scale),
                                   (int)(trunc(y1) * scale + 20), (int)(trunc(x2 - x1) * scale + 44),
                                   (int)(trunc(y2 - y1) * scale + 44));
}

void clear_drawing(void) {
    cairo_t *cr = cairo_create(surf_layer);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    if (initialisinglayer != NULL)
        gdk_cairo_set_source_pixbuf(cr, initialisinglayer, 0, 0);
    else
        cairo_set_source_rgba(cr, 0, 0, 0, 0);
    cairo_paint(cr);
    cairo_destroy(cr);

    cr = cairo_create(win_surf);
    cairo_scale(cr, scale, scale);
    view_set_source_pixbuf(cr, pixbuf_image);
    cairo_paint(cr);
    view_set_source_pixbuf(cr, initialisinglayer != NULL ? initialisinglayer : pixbuf_image);
    cairo_paint(cr);
    cairo_destroy(cr);

    if (drawing_area != NULL) gtk_widget_queue_draw(drawing_area);
}

void undo(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
    clear_drawing();
    if (current != NULL) current = current->prev;
    if (current == NULL) return;
    for (GList *l = history; l != NULL; l = l->next) {
        const double *record = (const double *)l->data;
        if (record[STROKE_TYPE] == 0.0) {
            paint_stroke_array(record);
            if (l == current) break;
        } else if (l->next == current) {
            break;
        }
    }
}

void redo(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
    if (history == NULL || current == g_list_last(history)) return;
    GList *candidate = current != NULL ? current->next : history;
    if (((const double *)candidate->data)[STROKE_TYPE] != 0.0) return;
    paint_stroke_array((const double *)candidate->data);
    current = candidate;
}
