// The application's spine: the process entry, the global GUI state every other GUI unit reads and
// writes, the main window, and the pixel accessors on pixbufs and cairo image surfaces.
//
// All GUI state is process-wide; it is touched by the GTK main thread only. The calculation worker
// never reads these globals (it works on its own record, app/calculation.h).
#ifndef KELDRA_APP_GTKKELDRA_H
#define KELDRA_APP_GTKKELDRA_H

#include <gtk/gtk.h>
#include <cairo.h>

#include "app/calculation.h"
#include "app/options.h"

// KELDRA_ASSERT: the GUI's preconditions (pixel accessors, image loader). Unlike g_assert they stay
// active in every build type, and the report names the source file where the check stands and the bare
// function name (G_STRFUNC would give the full C++ signature), then aborts:
//   ERROR:gtkkeldra.cpp:LINE:gdkpixbuf_put_pixel: assertion failed: (EXPR)
#define KELDRA_ASSERT(expr)                                                                                  \
    do {                                                                                                     \
        if (G_LIKELY(expr))                                                                                  \
            ;                                                                                                \
        else                                                                                                 \
            g_assertion_message_expr(G_LOG_DOMAIN, __FILE_NAME__, __LINE__, __func__, #expr);                \
    } while (0)

// View and calculation region (canvas/view). Region sizes are in image pixels; the selection values
// are in window (zoomed) coordinates.
extern double scale;                    // 1.0: view zoom factor
extern double selection_w, selection_h; // 0.0: size of the rectangle dragged in view mode
extern double left_x, top_y;            // 0.0: origin of that rectangle
extern int x_img_ROI, y_img_ROI;        // 0: origin of the calculation region
extern int w_img_ROI, h_img_ROI;        // 0: size of the calculation region
extern int in_edit_mode;                // 1: painting scribbles; 0: view mode
extern int calc_ROI_is_set;             // 0: "Calculate _From Selection" is checked
extern int finished_stroke;             // 1: no brush stroke in progress
extern int show_progress;               // 0: kept at 0
extern int ok_to_calc;                  // 1: no calculation is running, Calculate may start one

// Stroke history (canvas/strokes): a GList of stroke records, the position in it and a scratch list.
extern GList *history;
extern GList *current;
extern GList *glist_tmp;
extern int stroke_idx; // 8
extern int his_type;   // 0

// Scribbles that came with an opened file; released at exit if set.
extern GdkPixbuf *initialisinglayer;

// Brush pointer positions (canvas/brush). cursor_x/cursor_y start at -5.0 so that the brush outline
// stays off the canvas until the first motion.
extern double prev_x, prev_y, prev_cursor_x, prev_cursor_y, true_x, true_y, prev_true_x, prev_true_y;
extern double m_button_x, m_button_y;
extern double cursor_x, cursor_y;

// Brush: radius in image pixels (5.0) and colour components 0 to 1 (opaque white, the foreground brush).
extern double radius;
extern double red, green, blue, alpha;

extern GdkColor color;          // colour of the "alternate transparency" button; mid grey from main
extern GdkCursor *blank_cursor; // drawing-area cursor while editing (the brush outline replaces it)

// Images and surfaces; 1 by 1 placeholders until an image is opened. pixbuf_image aliases one of the
// two pixbufs and is not owned.
extern GdkPixbuf *pixbuf_no_alpha;
extern GdkPixbuf *pixbuf_alpha;
extern GdkPixbuf *pixbuf_image;
extern cairo_surface_t *win_surf;
extern cairo_surface_t *surf_layer;

// The records of a calculation, allocated once by main and never freed.
extern struct calc_args *pass_calc_args;
extern struct option_args *pass_option_args;

extern char *appdata; // path of the window-geometry file, set by set_configuration

extern GtkWidget *drawing_area;
extern GtkWidget *scrolled_window;
extern GtkWidget *toolbar;
extern GtkWidget *status_bar;
extern gulong signal_ID; // id of the drawing area's "button_press_event" connection

// keldra_main: the program. The keldra executable compiles this entry as main; the keldra_gui library
// names it keldra_main so that tests and tools can link the library and run the real start-up.
// Builds the window, runs the GTK main loop until the window is destroyed, releases the images, the
// surfaces and the stroke history, and returns 0. GTK must be able to open a display.
int keldra_main(int argc, char **argv);

// destroy: "destroy" handler of the main window; ends the main loop.
void destroy(GtkWidget *widget, gpointer data);

// cb_delete_event_with_persistence: "delete_event" handler of the main window. Writes the window
// geometry (pre_quit_event) and returns FALSE, so the window is then destroyed.
gboolean cb_delete_event_with_persistence(GtkWidget *widget, GdkEvent *event, gpointer data);

// gdkpixbuf_put_pixel: stores red, green, blue and, for a 4-channel pixbuf, alpha at (x, y), as raw
// bytes. A position outside the pixbuf is silently ignored. Asserts an RGB pixbuf of 8 bits per
// sample with 3 or 4 channels; a failed assertion aborts.
void gdkpixbuf_put_pixel(GdkPixbuf *pixbuf, int x, int y, guchar red, guchar green, guchar blue,
                         guchar alpha);

// gdkpixbuf_get_pixel: reads the pixel at (x, y) into *red, *green, *blue, *alpha; a 3-channel pixbuf
// gives alpha 255. Out of range nothing is written. Same assertions as gdkpixbuf_put_pixel.
void gdkpixbuf_get_pixel(GdkPixbuf *pixbuf, int x, int y, guchar *red, guchar *green, guchar *blue,
                         guchar *alpha);

// cairoimagesurface_put_pixel: stores the pixel word (alpha, red, green, blue) at (x, y) of an ARGB32
// or RGB24 image surface, as given: no premultiplication, no flush, no dirty marking. Asserts
// "x >= 0 && x < width", "y >= 0 && y < height" and the format, in that order; a failed assertion
// aborts, so an out-of-range write is a programming error here.
void cairoimagesurface_put_pixel(cairo_surface_t *surface, int x, int y, guchar alpha, guchar red,
                                 guchar green, guchar blue);

// cairoimagesurface_get_pixel: reads the stored bytes (premultiplied for ARGB32) at (x, y) into
// *alpha, *red, *green, *blue. Asserts the format only; out of range nothing is written.
void cairoimagesurface_get_pixel(cairo_surface_t *surface, int x, int y, guchar *alpha, guchar *red,
                                 guchar *green, guchar *blue);

// create_pixbuf: loads an image file. Returns a new pixbuf owned by the caller, or NULL after printing
// the loader's message and a newline to standard error.
GdkPixbuf *create_pixbuf(const gchar *filename);

// rgb2grey: (max(red, green, blue) + blue) / 2 in integer arithmetic. Not the lightness: the blue
// component always stands in for the minimum, and the matting input depends on exactly this rule.
int rgb2grey(int red, int green, int blue);

#endif
