// Opening images, saving the layer or the matted image, and copying to the clipboard.
#ifndef KELDRA_CANVAS_GTK_FILE_IO_H
#define KELDRA_CANVAS_GTK_FILE_IO_H

#include <gtk/gtk.h>

// on_open_image: handler of the Open menu item and tool button; user data is the toolbar.
void on_open_image(GtkWidget *widget, gpointer toolbar);

// on_save_as: handler of the Save menu item and the Save-as tool button.
void on_save_as(GtkWidget *widget, gpointer data);

// pixbuf_to_clipboard: handler of Edit, "gtk-copy"; copies the calculation region of pixbuf_image.
void pixbuf_to_clipboard(GtkWidget *widget, gpointer data);

#endif
