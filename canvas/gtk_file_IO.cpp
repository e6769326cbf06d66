#include "canvas/gtk_file_IO.h"

// Filled in by the canvas work.
void on_open_image(GtkWidget *widget, gpointer toolbar) {
    (void)widget;
    (void)toolbar;
}

// Filled in by the canvas work.
void on_save_as(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
}

// Filled in by the canvas work.
void pixbuf_to_clipboard(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
}
