// The small modal dialogs: the one message dialog every error and hint goes through, the Tips, the
// about box with the drawn logo, and the assistance area (logo mark beside a line of text).
//
// All run on the main thread and follow the cursor rule: while a dialog is up the drawing area shows
// the default cursor, afterwards blank_cursor again (the brush outline is drawn instead).
#ifndef KELDRA_APP_DIALOGS_H
#define KELDRA_APP_DIALOGS_H

#include <gtk/gtk.h>
#include <cairo.h>

// The text bound to Help, "Tips".
extern const char tips_text[];

// Reserved for an assistance area (get_assistance_area); no window layout places one.
extern GtkWidget *assistance_area;

// error_message_dialog: runs a modal dialog titled "Error" with the text as plain text in a frame and
// one "gtk-ok" button, parented on widget's toplevel; returns when it is closed.
void error_message_dialog(GtkWidget *widget, const char *text);

// cb_tips: "activate" handler of Help, "Tips": error_message_dialog(item, text).
void cb_tips(GtkWidget *item, const char *text);

// help_about_dialog: "activate" handler of Help, "gtk-about": the modal "About Keldra" box with the
// logo (scaled to the box) and the product name and version.
void help_about_dialog(GtkWidget *item, GtkWidget *main_window);

// on_draw_event: "expose_event" handler of the about box's logo area. Paints the logo in its 71 by 27
// unit design space, scaled by s = min((w + 9) / 71, h / 27) with (w, h) the size of the widget's
// toplevel window and shifted right by s. Returns FALSE.
gboolean on_draw_event(GtkWidget *widget, GdkEventExpose *event, gpointer data);

// do_drawing: draws the logo's mark at the left of the design space (about 21 by 27 units) on cr.
void do_drawing(cairo_t *cr, GtkWidget *widget);

// draw_logo_lettering: draws the logo's word right of the mark on cr, in design-space units.
void draw_logo_lettering(cairo_t *cr, GtkWidget *widget);

// lower_case_e: strokes one small e of the lettering with its top-left at cr's origin, 7 units wide.
void lower_case_e(cairo_t *cr);

// get_assistance_area: a new drawing area (floating reference) that paints the logo mark and text.
// text is not copied and must outlive the widget. The first argument is unused.
GtkWidget *get_assistance_area(GtkWidget *unused, const char *text);

// on_assistance_event: "expose_event" handler of an assistance area; text is its user data. FALSE.
gboolean on_assistance_event(GtkWidget *widget, GdkEventExpose *event, const char *text);

// write_darea_text: shows text in black, font size 9, at cr's current point.
void write_darea_text(cairo_t *cr, const char *text);

#endif
