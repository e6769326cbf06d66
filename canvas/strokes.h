// The stroke history of the scribble layer: every stroke recorded in image coordinates, undo by
// rebuilding the layer from the opened file's scribbles and the history, redo by repainting one stroke.
//
// A stroke record is one g_malloc'd array of doubles, owned by the list `history` (app/gtkkeldra.h)
// and freed with g_free:
//   [STROKE_TYPE]    0 for a painted stroke (`his_type`)
//   [STROKE_RADIUS]  brush radius in image pixels at the press
//   [STROKE_SCALE]   view zoom at the press (kept for reference; repainting uses the current zoom)
//   [STROKE_RED], [STROKE_GREEN], [STROKE_BLUE]  brush colour, 0 to 1
//   [STROKE_ALPHA]   1 paints, 0 erases
//   [STROKE_LENGTH]  doubles in use: STROKE_POINTS plus two per point
//   [STROKE_POINTS...] the points x, y in stroke coordinates, in the order painted
// Stroke coordinates are image pixels, snapped so that a stroke looks the same at every zoom: an
// even brush width (trunc(2 radius)) keeps whole pixels, an odd one adds 0.5 so that the line covers
// whole pixels.
#ifndef KELDRA_CANVAS_STROKES_H
#define KELDRA_CANVAS_STROKES_H

#include <gtk/gtk.h>

enum {
    STROKE_TYPE = 0,
    STROKE_RADIUS = 1,
    STROKE_SCALE = 2,
    STROKE_RED = 3,
    STROKE_GREEN = 4,
    STROKE_BLUE = 5,
    STROKE_ALPHA = 6,
    STROKE_LENGTH = 7,
    STROKE_POINTS = 8
};

// get_storable_coords: window point (x, y) to stroke coordinates (*sx, *sy) with the current scale
// and radius: (trunc(x / scale), trunc(y / scale)), plus 0.5 each for an odd brush width.
void get_storable_coords(double x, double y, double *sx, double *sy);

// convert_storable_coords: the inverse, stroke coordinates to window coordinates:
// (scale sx, scale sy) for an even brush width, (scale (sx - 0.5), scale (sy - 0.5)) for an odd one.
void convert_storable_coords(double sx, double sy, double *x, double *y);

// get_4_storable_coords: get_storable_coords of the window point (x, y) into (*sx, *sy) and of the
// last painted window point (prev_x, prev_y) into (*prev_sx, *prev_sy).
void get_4_storable_coords(double x, double y, double *sx, double *sy, double *prev_sx, double *prev_sy);

// manage_glist_mbutton_press: starts a stroke. Discards every stroke after `current` (all of them
// when `current` is NULL), so undone strokes can no longer be redone; appends a new 8-double record
// with the present brush (his_type, radius, scale, red, green, blue, alpha) and makes it `current`.
// stroke_idx is reset to STROKE_POINTS. The caller then adds the first point (stroke_add_point).
void manage_glist_mbutton_press(void);

// stroke_add_point: appends the point (sx, sy), in stroke coordinates, to the `current` record,
// growing it by two doubles and updating its length and stroke_idx. Does nothing when `current` is
// NULL. The record may move; the list node is updated.
void stroke_add_point(double sx, double sy);

// stroke_context_on_layer, stroke_context_on_view: a new cairo context that paints a stroke of colour
// (r, g, b), or erases when eraser is set, on surf_layer (image pixels: the eraser clears the layer)
// and on win_surf (scaled to the view: the eraser paints the image back over the stroke). The caller
// sets the pen and path, strokes, and destroys the context.
cairo_t *stroke_context_on_layer(gboolean eraser, double r, double g, double b);
cairo_t *stroke_context_on_view(gboolean eraser, double r, double g, double b);

// paint_stroke_array: paints one stroke record onto surf_layer (image pixels; an eraser stroke clears
// layer pixels) and onto win_surf at the current zoom (an eraser stroke shows pixbuf_image again), with
// round caps and no antialiasing, so the layer only ever gets fully opaque or fully cleared pixels.
// A record with one point paints a dot of diameter 2 radius. Queues a redraw of the stroke's area.
void paint_stroke_array(const double *record);

// clear_drawing: resets the layer to the scribbles that came with the opened file
// (initialisinglayer), or to fully transparent without one, and repaints the view from pixbuf_image
// and those scribbles. Queues a redraw of the whole drawing area.
void clear_drawing(void);

// free_stroke_history: frees every record and the list; history and current become NULL.
void free_stroke_history(void);

// undo: Edit, "gtk-undo". Rebuilds the layer with clear_drawing and repaints every stroke up to the
// one before `current`, which becomes `current` (NULL before the first). Undone records are kept for
// redo until the next press. Arguments unused.
void undo(GtkWidget *widget, gpointer data);

// redo: Edit, "gtk-redo". Repaints the stroke after `current` (the first one when `current` is NULL)
// on top of the layer and the view and makes it `current`; at the newest stroke it does nothing.
// Arguments unused.
void redo(GtkWidget *widget, gpointer data);

#endif
