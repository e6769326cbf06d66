// Opening images (as the working image, as the image with its alpha turned into scribbles, or as a
// scribble layer), saving the layer or the image as PNG, and copying the region to the clipboard.
#ifndef KELDRA_CANVAS_GTK_FILE_IO_H
#define KELDRA_CANVAS_GTK_FILE_IO_H

#include <gtk/gtk.h>
#include <cairo.h>

// What an opened file becomes; the radio buttons of the open dialog, in their order.
enum open_mode {
    OPEN_DEFAULT = 0, // "Default open": the working image; starts a new document
    OPEN_WITH_ALPHA =
        1,            // "Open with alpha as input": the image, its alpha 255/0 as fore/background scribbles
    OPEN_AS_LAYER = 2 // "Open as layer": scribbles over the image already open
};

// on_open_image: handler of File, "gtk-open" and the Open tool button (user data the toolbar, or
// NULL from the menu, when the global toolbar is used). Runs the "Open image" chooser with a preview,
// the three mode buttons and the filters, and opens the chosen file with open_image_file. The folder
// shown last is remembered for the next call, also when the dialog is cancelled.
void on_open_image(GtkWidget *widget, gpointer toolbar);

// open_image_file: opens filename in the given mode without a dialog (the chooser and the command
// line share it). The toolbar's item 0 tells edit mode (inactive) from view mode; dialogs are
// parented on its top-level window.
//   OPEN_DEFAULT     replaces pixbuf_no_alpha, pixbuf_alpha, surf_layer and win_surf, empties the
//                    stroke history, makes the whole image the region and resets the options
//   OPEN_WITH_ALPHA  as OPEN_DEFAULT but keeps the history; file alpha 255 becomes a white scribble,
//                    0 a black one, anything else unknown. A file without alpha opens as OPEN_DEFAULT
//   OPEN_AS_LAYER    keeps the image; a file with alpha is the layer itself, a file without alpha is
//                    read as a copy of the image with scribbles painted on it (every pixel that
//                    differs from the image becomes an opaque scribble of its grey value)
// The scribbles that come with the file are kept in initialisinglayer for undo.
// Returns 0 on success. A file gdk-pixbuf cannot read shows "File open error: %s" in an error dialog,
// prints "Unable to read file: %s" to standard error and returns 1; a layer with no image open shows
// an error and returns 2. On failure nothing else changes.
int open_image_file(const char *filename, enum open_mode mode, GtkWidget *toolbar);

// image_is_open: TRUE once an image has been opened; before that the canvas holds the 1 by 1
// placeholders the program starts with.
gboolean image_is_open(void);

// update_preview_cb: "update-preview" handler of the choosers; shows the file scaled into 128 by 128
// in preview (a GtkImage), and hides the preview when the file is not an image.
void update_preview_cb(GtkFileChooser *file_chooser, gpointer preview);

// on_save_as: handler of File, "gtk-save" and the Save-as tool button; arguments unused. Runs the
// "Save File" chooser. In edit mode it saves the scribble layer (save_surface_to_file), or, with the
// extra "Save image" button, pixbuf_image without alpha; in view mode it saves pixbuf_image, which
// carries the matte. The name last used for each is proposed again, without its extension. Before a
// PNG name other than the one chosen in the dialog is overwritten, the user is asked.
void on_save_as(GtkWidget *widget, gpointer data);

// strip_file_extension: ends name (modified in place) at its last full stop, path included; a name
// without one is left as it is.
void strip_file_extension(char *name);

// save_pixbuf_to_file: strips the extension from name (modified in place) and writes pixbuf to
// "NAME.png": an RGBA PNG for a 4-channel pixbuf, an RGB PNG for a 3-channel one. The file is written
// under a temporary name in the same folder and renamed over the target only when complete, so a
// failed save leaves an existing file intact. Returns 0 on success; on failure pushes
// "File open error: %s" to the status bar (context 1) and returns 1.
int save_pixbuf_to_file(char *name, GdkPixbuf *pixbuf);

// save_surface_to_file: strips the extension from name (modified in place) and writes the scribble
// layer surf_layer (whatever surface is passed) to "NAME.png" as an ARGB PNG, the form the layer open
// modes read back. Written through a temporary file like save_pixbuf_to_file. Failures are not
// reported to the user; returns 0 on success, 1 on failure.
int save_surface_to_file(char *name, cairo_surface_t *surface);

// pixbuf_to_clipboard: handler of Edit, "gtk-copy" (arguments unused). Puts a copy of the image
// region (x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI) of pixbuf_image on the CLIPBOARD selection and
// asks a clipboard manager to store it. A region that is empty or lies off the image copies the whole
// image; one that reaches past the image is cut at its edges.
void pixbuf_to_clipboard(GtkWidget *widget, gpointer data);

#endif
