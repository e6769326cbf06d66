// Remembers the main window's position and size between runs in a 16-byte file under the home folder:
// four native-endian 32-bit signed integers x, y, width, height.
#ifndef KELDRA_APP_PERSISTENCE_H
#define KELDRA_APP_PERSISTENCE_H

#include <gtk/gtk.h>
#include <cstdio>

// set_configuration: sets appdata to $HOME followed by "/.Orvanto/keldra/keldra-1.0" (a new string;
// HOME itself is left as it is), then reads the file and applies it to the window with
// gtk_window_resize and gtk_window_move, unchecked against the screen. A missing, unreadable or short
// (under 16 bytes) file leaves the window as it is. Without HOME the account's home folder is used.
void set_configuration(GtkWidget *window);

// pre_quit_event: writes the root origin and the size of the widget's toplevel GDK window to appdata,
// creating the missing folders. If the file cannot be opened, prints
// "can't write persistence data %s" (with appdata, no newline) to standard output and returns.
// The widget must be realized and set_configuration must have run.
void pre_quit_event(GtkWidget *widget);

// fopen_p: fopen(path, mode) after creating every missing folder on the way to path with mode 0700
// (errors such as an existing folder are ignored). Returns fopen's stream (owned by the caller) or
// NULL with errno set.
FILE *fopen_p(const char *path, const char *mode);

#endif
