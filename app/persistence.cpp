#include "app/persistence.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/types.h>

#include "app/gtkkeldra.h"

static const char geometry_suffix[] = "/.Orvanto/keldra/keldra-1.0";

void set_configuration(GtkWidget *window) {
    // Without HOME the account's home folder from the user database stands in.
    const char *home = getenv("HOME");
    g_free(appdata);
    appdata = g_strconcat(home != NULL ? home : g_get_home_dir(), geometry_suffix, NULL);

    FILE *fp = fopen(appdata, "r");
    if (fp == NULL) return;
    int32_t geometry[4];
    size_t count = fread(geometry, sizeof geometry, 1, fp);
    fclose(fp);
    // A short file holds no complete geometry: keep the default size and centred position.
    if (count != 1) return;
    gtk_window_resize(GTK_WINDOW(window), geometry[2], geometry[3]);
    gtk_window_move(GTK_WINDOW(window), geometry[0], geometry[1]);
}

void pre_quit_event(GtkWidget *widget) {
    GdkWindow *toplevel = gdk_window_get_effective_toplevel(gtk_widget_get_window(widget));
    gint x, y;
    gdk_window_get_root_origin(toplevel, &x, &y);
    int32_t geometry[4] = {x, y, gdk_window_get_width(toplevel), gdk_window_get_height(toplevel)};

    FILE *fp = fopen_p(appdata, "w");
    if (fp == NULL) {
        printf("can't write persistence data %s", appdata);
        fflush(stdout);
        return;
    }
    fwrite(geometry, sizeof geometry, 1, fp);
    fclose(fp);
}

FILE *fopen_p(const char *path, const char *mode) {
    gchar *copy = g_strdup(path);
    size_t length = strlen(copy);
    if (length > 0 && copy[length - 1] == '/') copy[length - 1] = '\0';
    // Starting at the second character skips the root of an absolute path.
    for (gchar *p = copy + (length > 0 ? 1 : 0); *p != '\0'; p++) {
        if (*p != '/') continue;
        *p = '\0';
        mkdir(copy, 0700);
        *p = '/';
    }
    g_free(copy);
    return fopen(path, mode);
}
