#include "canvas/strokes.h"

// Filled in by the canvas work.
void undo(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
}

// Filled in by the canvas work.
void redo(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
}
