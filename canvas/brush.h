// Brush painting on the scribble layer and the pointer events of the drawing area.
#ifndef KELDRA_CANVAS_BRUSH_H
#define KELDRA_CANVAS_BRUSH_H

#include <gtk/gtk.h>

// Pointer handlers of the drawing area.
gboolean motion_notify_event(GtkWidget *widget, GdkEventMotion *event, gpointer data);
gboolean button_press_event(GtkWidget *widget, GdkEventButton *event, gpointer data);

// Brush colour handlers of the FG, BG and eraser tool buttons and the colour button; user data is
// the toolbar.
void cb_set_FG(GtkWidget *button, gpointer toolbar);
void cb_set_BG(GtkWidget *button, gpointer toolbar);
void cb_set_Eraser(GtkWidget *button, gpointer toolbar);
void cb_set_Color(GtkColorButton *button, gpointer toolbar);

// cb_set_brush_size: "value_changed" handler of the brush-size adjustment (the diameter).
void cb_set_brush_size(GtkAdjustment *adjustment, gpointer toolbar);

#endif
