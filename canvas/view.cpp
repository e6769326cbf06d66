#include "canvas/view.h"

// Filled in by the canvas work.
gboolean on_expose_event(GtkWidget *widget, GdkEventExpose *event, gpointer data) {
    (void)widget;
    (void)event;
    (void)data;
    return FALSE;
}

// Filled in by the canvas work.
gboolean configure_event(GtkWidget *widget, GdkEventConfigure *event, gpointer data) {
    (void)widget;
    (void)event;
    (void)data;
    return FALSE;
}

// Filled in by the canvas work.
void cb_toggle_mode(GtkToggleToolButton *toggle, gpointer toolbar) {
    (void)toggle;
    (void)toolbar;
}

// Filled in by the canvas work.
void cb_draw_alpha(GtkWidget *button, gpointer data) {
    (void)button;
    (void)data;
}

// Filled in by the canvas work.
void cb_draw_zoom(GtkAdjustment *adjustment, gpointer data) {
    (void)adjustment;
    (void)data;
}

// Filled in by the canvas work.
void cb_zoom_to(GtkWidget *button, gpointer adjustment) {
    (void)button;
    (void)adjustment;
}

// Filled in by the canvas work.
void toggle_calc_ROI(GtkCheckMenuItem *item, gpointer data) {
    (void)item;
    (void)data;
}
