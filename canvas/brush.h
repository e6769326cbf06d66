// Brush painting on the scribble layer and the pointer events of the drawing area: strokes in edit
// mode, the region drag in view mode, the brush outline, the brush colour and size, and the status
// bar's read-out of the pixel under the pointer.
#ifndef KELDRA_CANVAS_BRUSH_H
#define KELDRA_CANVAS_BRUSH_H

#include <gtk/gtk.h>
#include <cairo.h>

// The modifier that makes a press continue from the end of the previous stroke in a straight line.
// X11 has no Command key; Shift is what image editors use there for a line from the last point.
#ifdef GDK_WINDOWING_QUARTZ
#define STROKE_CONTINUE_MASK GDK_META_MASK
#else
#define STROKE_CONTINUE_MASK GDK_SHIFT_MASK
#endif

// button_press_event: "button_press_event" handler of the drawing area. Only button 1 acts. In edit
// mode it starts a stroke record and paints a dot at the press point, or, with STROKE_CONTINUE_MASK
// held, a straight line from the end of the previous stroke. In view mode it erases the region frame
// and resets the image region to the whole of pixbuf_image. Returns TRUE.
gboolean button_press_event(GtkWidget *widget, GdkEventButton *event, gpointer data);

// motion_notify_event: "motion_notify_event" handler of the drawing area. With button 1 held it
// extends the stroke (edit mode, until a motion without the button ends it) or drags the region frame
// (view mode); in edit mode it also queues the brush outline's redraw. Writes
// "r%03d g%03d b%03d a%03d : x %d y %d" (the win_surf pixel under the pointer, premultiplied, and the
// window position) to the status bar. Motion hints are resolved by asking the window. Returns TRUE.
gboolean motion_notify_event(GtkWidget *widget, GdkEventMotion *event, gpointer data);

// draw_line: paints the brush from the last painted point (prev_x, prev_y) to the window point
// (x, y) on surf_layer and win_surf, queues a redraw of that area on widget, and records (x, y) in
// the current stroke; (x, y) becomes the last painted point.
void draw_line(double x, double y, GtkWidget *widget);

// standard_draw: strokes the segment from the stroke coordinates of (prev_x, prev_y) to those of
// (x, y) on cr with the brush's pen (round caps, no antialiasing, width 2 radius) and the source and
// operator already set on cr. Outputs the segment's path extents (*x1, *y1)-(*x2, *y2) in image units.
void standard_draw(cairo_t *cr, double x, double y, double *x1, double *y1, double *x2, double *y2);

// draw_brush: draws the brush outline at the pointer on cr (a context on the drawing area, unscaled):
// a disc of the brush colour with a contrasting inner disc and, for brushes too small to see, a ring
// of sixteen alternating arcs.
void draw_brush(cairo_t *cr);

// initiate_cursor_redraw: queues on widget the area covering the outline at its last drawn place
// (prev_cursor_x, prev_cursor_y) and at the window point (x, y).
void initiate_cursor_redraw(GtkWidget *widget, double x, double y);

// redraw_brush: queues the area of the outline around the pointer on the drawing area.
void redraw_brush(void);

// Brush colour handlers of the FG, BG and eraser tool buttons and the colour button (user data the
// toolbar, unused): white foreground, black background, the eraser (alpha 0, drawn in grey), or the
// colour button's colour. Each queues the outline's redraw.
void cb_set_FG(GtkWidget *button, gpointer toolbar);
void cb_set_BG(GtkWidget *button, gpointer toolbar);
void cb_set_Eraser(GtkWidget *button, gpointer toolbar);
void cb_set_Color(GtkColorButton *button, gpointer toolbar);

// cb_set_brush_size: "value_changed" handler of the brush-size adjustment, whose value is the
// diameter; radius becomes half of it. The area of the larger of the old and new outlines is queued
// first, so a shrinking outline is fully erased.
void cb_set_brush_size(GtkAdjustment *adjustment, gpointer toolbar);

// update_statusbar: replaces the status bar's message for the context id (pop, then push). The
// pointer read-out uses context 0, save errors context 1. Does nothing without a status bar.
void update_statusbar(const gchar *text, guint context, GtkWidget *statusbar);

#endif
