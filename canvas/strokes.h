// The stroke history of the scribble layer, with undo and redo.
#ifndef KELDRA_CANVAS_STROKES_H
#define KELDRA_CANVAS_STROKES_H

#include <gtk/gtk.h>

// undo, redo: handlers of Edit, "gtk-undo" and "gtk-redo"; arguments unused.
void undo(GtkWidget *widget, gpointer data);
void redo(GtkWidget *widget, gpointer data);

#endif
