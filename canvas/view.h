// The zoomed view of the image and its scribble layer, edit and view modes, the grey alpha view and
// the calculation region.
#ifndef KELDRA_CANVAS_VIEW_H
#define KELDRA_CANVAS_VIEW_H

#include <gtk/gtk.h>

// Drawing-area handlers.
gboolean on_expose_event(GtkWidget *widget, GdkEventExpose *event, gpointer data);
gboolean configure_event(GtkWidget *widget, GdkEventConfigure *event, gpointer data);

// cb_toggle_mode: "clicked" handler of toolbar item 0, the edit/view toggle; user data the toolbar.
void cb_toggle_mode(GtkToggleToolButton *toggle, gpointer toolbar);

// cb_draw_alpha: "clicked" handler of the ALPHA tool button; shows the alpha channel in grey.
void cb_draw_alpha(GtkWidget *button, gpointer data);

// cb_draw_zoom: "value_changed" handler of the zoom adjustment (percent).
void cb_draw_zoom(GtkAdjustment *adjustment, gpointer data);

// cb_zoom_to: "clicked" handler of the zoom-100 tool button; user data is the zoom adjustment.
void cb_zoom_to(GtkWidget *button, gpointer adjustment);

// toggle_calc_ROI: "activate" handler of Edit, "Calculate _From Selection".
void toggle_calc_ROI(GtkCheckMenuItem *item, gpointer data);

#endif
