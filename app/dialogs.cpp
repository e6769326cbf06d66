#include "app/dialogs.h"

#include <cmath>

#include "app/gtkkeldra.h"

const char tips_text[] =
    "If your image seems too big you can try:\na) Scale the image down using an external application.\n\n"
    "b) Increase the number of scaling steps in the calculation options.\n\nc) Tighten the image trimatte "
    "i.e. paint more foregound and\nbackground pixels.\n\nd) In preview mode (left tool bar button) drag "
    "the mouse to select\na smaller region of the image and make that the calculation region\nfrom the edit "
    "menu. Don't forget you'll need to toggle back to\nthe edit mode to perform the calculation.";

GtkWidget *assistance_area = NULL;

static const char product_version[] = "0.10.3";

// The logo's two colours: orange-brown for the mark's ring and the underline, grey for the scribble.
static const double brown[3] = {0.69, 0.19, 0.0};
static const double grey[3] = {0.6, 0.6, 0.6};
static const double ink[3] = {0.27, 0.27, 0.27};

// Dialogs may also come up before the window is realized (or without one, from tools that link this
// library), so the canvas cursor is only set when there is a canvas window to set it on.
static void set_canvas_cursor(GdkCursor *cursor) {
    if (drawing_area != NULL && gtk_widget_get_window(drawing_area) != NULL)
        gdk_window_set_cursor(gtk_widget_get_window(drawing_area), cursor);
}

static GtkWindow *toplevel_window(GtkWidget *widget) {
    GtkWidget *top = widget != NULL ? gtk_widget_get_toplevel(widget) : NULL;
    return top != NULL && GTK_IS_WINDOW(top) ? GTK_WINDOW(top) : NULL;
}

void error_message_dialog(GtkWidget *widget, const char *text) {
    GtkWidget *label = gtk_label_new(text);
    GtkWidget *frame = gtk_frame_new(NULL);
    GtkWidget *dialog = gtk_dialog_new_with_buttons(
        "Error", toplevel_window(widget), (GtkDialogFlags)(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
        GTK_STOCK_OK, GTK_RESPONSE_NONE, NULL);
    GtkWidget *content = gtk_dialog_get_content_area(GTK_DIALOG(dialog));
    gtk_box_set_spacing(GTK_BOX(content), 10);
    gtk_container_add(GTK_CONTAINER(content), frame);
    gtk_container_add(GTK_CONTAINER(frame), label);

    gtk_widget_show_all(dialog);
    // A dialog puts its theme's border on the content area when it gets its style, on showing.
    gtk_container_set_border_width(GTK_CONTAINER(content), 5);
    set_canvas_cursor(NULL);
    gtk_dialog_run(GTK_DIALOG(dialog));
    set_canvas_cursor(blank_cursor);
    gtk_widget_destroy(dialog);
}

void cb_tips(GtkWidget *item, const char *text) {
    error_message_dialog(item, text);
}

void help_about_dialog(GtkWidget *item, GtkWidget *main_window) {
    (void)item;
    set_canvas_cursor(NULL);
    GtkWidget *logo = gtk_drawing_area_new();
    gtk_widget_set_size_request(logo, 200, 85);
    g_signal_connect(logo, "expose_event", G_CALLBACK(on_draw_event), NULL);

    GtkWidget *dialog =
        gtk_dialog_new_with_buttons("About Keldra", toplevel_window(main_window),
                                    (GtkDialogFlags)(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
                                    GTK_STOCK_OK, GTK_RESPONSE_OK, NULL);
    gtk_window_set_default_size(GTK_WINDOW(dialog), 200, 200);
    GtkWidget *content = gtk_dialog_get_content_area(GTK_DIALOG(dialog));
    gtk_box_pack_start(GTK_BOX(content), logo, TRUE, TRUE, 0);
    gchar *text = g_strdup_printf("Keldra %s\nalpha mattes from a few scribbles", product_version);
    GtkWidget *label = gtk_label_new(text);
    gtk_label_set_justify(GTK_LABEL(label), GTK_JUSTIFY_CENTER);
    gtk_box_pack_start(GTK_BOX(content), label, FALSE, FALSE, 0);

    gtk_widget_show_all(dialog);
    gtk_dialog_run(GTK_DIALOG(dialog));
    set_canvas_cursor(blank_cursor);
    gtk_widget_destroy(dialog);
    g_free(text);
}

gboolean on_draw_event(GtkWidget *widget, GdkEventExpose *event, gpointer data) {
    (void)event;
    (void)data;
    GdkWindow *top = gtk_widget_get_window(gtk_widget_get_toplevel(widget));
    int w = gdk_window_get_width(top);
    int h = gdk_window_get_height(top);
    // The logo's design space is about 71 by 27 units; it grows with the box, limited by whichever
    // side runs out first.
    double s = MIN((w + 9) / 71.0, h / 27.0);

    cairo_t *cr = gdk_cairo_create(gtk_widget_get_window(widget));
    cairo_translate(cr, s, 0);
    cairo_scale(cr, s, s);
    cairo_save(cr);
    do_drawing(cr, widget);
    cairo_restore(cr);
    draw_logo_lettering(cr, widget);
    cairo_destroy(cr);
    return FALSE;
}

// The mark: an open brown ring (the matte pulled around a subject) crossed by a grey zigzag (the
// scribble that pulls it), within x 0 to 21 and y 3 to 24.
void do_drawing(cairo_t *cr, GtkWidget *widget) {
    (void)widget;
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);

    cairo_set_source_rgb(cr, brown[0], brown[1], brown[2]);
    cairo_set_line_width(cr, 4.5);
    cairo_arc(cr, 10.5, 13.5, 8.0, 0.3 * M_PI, 1.75 * M_PI);
    cairo_stroke(cr);

    cairo_set_source_rgb(cr, grey[0], grey[1], grey[2]);
    cairo_set_line_width(cr, 3.0);
    cairo_move_to(cr, 5.0, 17.0);
    cairo_line_to(cr, 8.8, 10.5);
    cairo_line_to(cr, 12.3, 16.5);
    cairo_line_to(cr, 16.5, 9.0);
    cairo_stroke(cr);
}

// Bowls of the round letters: radius 3.4, centred on the middle of the x-height band (y 13 to 21).
static const double bowl = 3.4;
static const double bowl_y = 17.0;

static void stem(cairo_t *cr, double x, double top) {
    cairo_move_to(cr, x, top);
    cairo_line_to(cr, x, 21.0);
}

// "keldra" in single-stroke lower-case letters from x 23.5 to 63.6 (baseline 21, ascenders from 6),
// underlined by a filled brown bar.
void draw_logo_lettering(cairo_t *cr, GtkWidget *widget) {
    (void)widget;
    cairo_set_source_rgb(cr, ink[0], ink[1], ink[2]);
    cairo_set_line_width(cr, 1.8);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);

    stem(cr, 23.5, 6.0); // k
    cairo_move_to(cr, 28.0, 13.0);
    cairo_line_to(cr, 23.5, 17.2);
    cairo_move_to(cr, 25.3, 15.8);
    cairo_line_to(cr, 28.4, 21.0);
    cairo_stroke(cr);

    cairo_save(cr);
    cairo_translate(cr, 30.2, 13.0);
    lower_case_e(cr);
    cairo_restore(cr);

    stem(cr, 38.8, 6.0);    // l
    cairo_new_sub_path(cr); // d
    cairo_arc(cr, 44.0, bowl_y, bowl, 0, 2 * M_PI);
    stem(cr, 44.0 + bowl, 6.0);
    stem(cr, 49.9, 13.0); // r
    cairo_new_sub_path(cr);
    cairo_arc(cr, 53.1, 16.6, 3.2, M_PI, 1.72 * M_PI);
    cairo_new_sub_path(cr); // a
    cairo_arc(cr, 60.2, bowl_y, bowl, 0, 2 * M_PI);
    stem(cr, 60.2 + bowl, 13.0);
    cairo_stroke(cr);

    cairo_set_source_rgb(cr, brown[0], brown[1], brown[2]);
    cairo_rectangle(cr, 23.5, 23.2, 40.1, 1.2);
    cairo_fill(cr);
}

// An e of the x-height band: the bar across the middle, then the bowl drawn anticlockwise from its
// right end round to an opening at the lower right. 6.8 by 8 units.
void lower_case_e(cairo_t *cr) {
    cairo_move_to(cr, 0.0, 4.0);
    cairo_line_to(cr, 2 * bowl, 4.0);
    cairo_arc_negative(cr, bowl, 4.0, bowl, 0.0, 0.28 * M_PI);
    cairo_stroke(cr);
}

GtkWidget *get_assistance_area(GtkWidget *unused, const char *text) {
    (void)unused;
    GtkWidget *area = gtk_drawing_area_new();
    // Kept as the area has always been built: a window call on a drawing area, which the toolkit
    // refuses with a warning and which has no effect.
    gtk_window_set_default_size((GtkWindow *)area, 50, 25);
    g_signal_connect(area, "expose_event", G_CALLBACK(on_assistance_event), (gpointer)text);
    return area;
}

gboolean on_assistance_event(GtkWidget *widget, GdkEventExpose *event, const char *text) {
    (void)event;
    cairo_t *cr = gdk_cairo_create(gtk_widget_get_window(widget));
    cairo_translate(cr, 5, 0);
    cairo_save(cr);
    cairo_scale(cr, 1, 1);
    do_drawing(cr, widget);
    cairo_restore(cr);
    cairo_translate(cr, 20, 20);
    write_darea_text(cr, text);
    cairo_destroy(cr);
    return FALSE;
}

void write_darea_text(cairo_t *cr, const char *text) {
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_set_font_size(cr, 9.0);
    cairo_show_text(cr, text);
}
