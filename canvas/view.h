// The zoomed view of the image and its scribble layer (win_surf), edit and view modes, the grey alpha
// view and the calculation region.
//
// The region exists twice: in window (zoomed) coordinates as left_x, top_y, selection_w, selection_h,
// which the frame on the view uses, and in image pixels as x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI,
// which the calculation and the clipboard use.
#ifndef KELDRA_CANVAS_VIEW_H
#define KELDRA_CANVAS_VIEW_H

#include <gtk/gtk.h>
#include <cairo.h>

// on_expose_event: "expose_event" handler of the drawing area. Paints win_surf at the origin and, in
// edit mode, the brush outline over it; the outline's place is remembered in prev_cursor_x,
// prev_cursor_y. Returns FALSE.
gboolean on_expose_event(GtkWidget *widget, GdkEventExpose *event, gpointer data);

// configure_event: "configure_event" handler of the drawing area; paints win_surf without the
// outline. Returns TRUE.
gboolean configure_event(GtkWidget *widget, GdkEventConfigure *event, gpointer data);

// cb_toggle_mode: "clicked" handler of toolbar item 0, the edit/view toggle (user data the toolbar).
// Active means view mode: the ALPHA button shows, the calculate and brush items hide, pixbuf_image
// becomes pixbuf_alpha and the cursor the default pointer. Inactive means edit mode, the other way
// round, with the layer over the image. Rebuilds win_surf and, when the region is in use or in view
// mode, draws its frame.
void cb_toggle_mode(GtkToggleToolButton *toggle, gpointer toolbar);

// cb_draw_alpha: "clicked" handler of the ALPHA tool button; paints the alpha channel of pixbuf_alpha
// as a grey image over win_surf, until the next rebuild of the view.
void cb_draw_alpha(GtkWidget *button, gpointer data);

// cb_draw_zoom: "value_changed" handler of the zoom adjustment (percent, 12.5 to 400). Sets scale,
// resizes the drawing area to trunc(scale w) by trunc(scale h) of pixbuf_image, rebuilds win_surf at
// that size, and redraws the region frame when the region is in use or in view mode. Before an image
// is opened only scale is set.
void cb_draw_zoom(GtkAdjustment *adjustment, gpointer data);

// cb_zoom_to: "clicked" handler of the zoom-100 tool button; sets the zoom adjustment (user data)
// back to 100.
void cb_zoom_to(GtkWidget *button, gpointer adjustment);

// toggle_calc_ROI: "activate" handler of Edit, "Calculate _From Selection". calc_ROI_is_set follows
// the item; the frame is drawn in red when switched on, in black when switched off in view mode, and
// erased when switched off in edit mode.
void toggle_calc_ROI(GtkCheckMenuItem *item, gpointer data);

// draw_rect: sets the window region to the rectangle between the anchor (m_button_x, m_button_y) and
// the window point (x, y), both corners included and rounded to whole pixels, and strokes its dashed
// frame on win_surf (red when the region is in use for calculation, else black). Queues the frame's
// area on widget.
void draw_rect(double x, double y, GtkWidget *widget);

// del_rect: repaints the frame's rectangle of win_surf from pixbuf_image alone (strokes inside it
// vanish from the view until its next rebuild; the layer keeps them) and queues it on widget.
void del_rect(GtkWidget *widget);

// set_img_ROI_values: image region from the window region, each value rounded: trunc(v / scale + 0.5).
// The arguments are unused.
void set_img_ROI_values(double x, double y);

// set_ROI_for_winsurf: window region from the image region (scale times each value), with the drag
// anchor set to the far corner so that draw_rect(left_x, top_y, ...) reproduces the same rectangle.
void set_ROI_for_winsurf(void);

// ref_ROI: a new sub-pixbuf of pixbuf sharing its pixels (the caller unrefs it) at the window region
// converted to image pixels by truncation, cut off at pixbuf's right and bottom edges. An origin off
// the pixbuf is moved onto it and an empty size becomes one pixel, so a sub-pixbuf always results.
GdkPixbuf *ref_ROI(GdkPixbuf *pixbuf);

// view_set_source_pixbuf: makes pixbuf, at the image origin, the source of cr, a context scaled by
// scale. Zoomed in, image pixels are shown as sharp blocks like the strokes painted over them.
void view_set_source_pixbuf(cairo_t *cr, GdkPixbuf *pixbuf);

// repaint_view: paints win_surf afresh: transparent, then pixbuf_image scaled by scale, then, if
// with_layer, surf_layer scaled the same way.
void repaint_view(gboolean with_layer);

#endif
