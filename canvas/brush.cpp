#include "canvas/brush.h"

// Filled in by the canvas work.
gboolean motion_notify_event(GtkWidget *widget, GdkEventMotion *event, gpointer data) {
    (void)widget;
    (void)event;
    (void)data;
    return FALSE;
}

// Filled in by the canvas work.
gboolean button_press_event(GtkWidget *widget, GdkEventButton *event, gpointer data) {
    (void)widget;
    (void)event;
    (void)data;
    return FALSE;
}

// Filled in by the canvas work.
void cb_set_FG(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
}

// Filled in by the canvas work.
void cb_set_BG(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
}

// Filled in by the canvas work.
void cb_set_Eraser(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
}

// Filled in by the canvas work.
void cb_set_Color(GtkColorButton *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
}

// Filled in by the canvas work.
void cb_set_brush_size(GtkAdjustment *adjustment, gpointer toolbar) {
    (void)adjustment;
    (void)toolbar;
}
