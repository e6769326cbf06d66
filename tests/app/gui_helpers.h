// Helpers shared by the GUI tests: one GTK initialisation per process, a host window with the
// canvas globals, answering modal dialogs from a timeout, running the real program with a scripted
// session, reading pixels off the screen and saving screenshots.
#ifndef KELDRA_TESTS_APP_GUI_HELPERS_H
#define KELDRA_TESTS_APP_GUI_HELPERS_H

#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "app/gtkkeldra.h"

inline void gui_init() {
    static bool done = [] {
        int argc = 1;
        static char name[] = "keldra-test";
        static char *args[] = {name, nullptr};
        char **argv = args;
        gtk_init(&argc, &argv);
        return true;
    }();
    (void)done;
}

// Runs the main loop for about ms milliseconds, handling everything that arrives meanwhile.
inline void pump(int ms) {
    gint64 end = g_get_monotonic_time() + (gint64)ms * 1000;
    while (g_get_monotonic_time() < end) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        g_usleep(5000);
    }
}

inline GtkWidget *find_toplevel(const char *title) {
    GtkWidget *found = nullptr;
    GList *all = gtk_window_list_toplevels();
    for (GList *l = all; l != nullptr; l = l->next) {
        const gchar *t = gtk_window_get_title(GTK_WINDOW(l->data));
        if (t != nullptr && g_strcmp0(t, title) == 0 && gtk_widget_get_visible(GTK_WIDGET(l->data)))
            found = GTK_WIDGET(l->data);
    }
    g_list_free(all);
    return found;
}

inline std::vector<GtkWidget *> children(GtkWidget *container) {
    std::vector<GtkWidget *> out;
    GList *list = gtk_container_get_children(GTK_CONTAINER(container));
    for (GList *l = list; l != nullptr; l = l->next)
        out.push_back(GTK_WIDGET(l->data));
    g_list_free(list);
    return out;
}

// Sends the window the event its close box would send.
inline void close_box(GtkWidget *window) {
    GdkEvent *event = gdk_event_new(GDK_DELETE);
    event->any.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
    event->any.send_event = TRUE;
    gtk_main_do_event(event);
    gdk_event_free(event);
}

// Once the visible toplevel titled `title` exists, runs action on it from a main-loop timeout. The
// action answers the dialog (or closes the window) itself.
inline void when_shown(const char *title, std::function<void(GtkWidget *)> action) {
    struct Job {
        std::string title;
        std::function<void(GtkWidget *)> action;
    };
    Job *job = new Job{title, std::move(action)};
    g_timeout_add(
        50,
        [](gpointer data) -> gboolean {
            Job *job = static_cast<Job *>(data);
            GtkWidget *window = find_toplevel(job->title.c_str());
            if (window == nullptr || !gtk_widget_get_mapped(window)) return TRUE;
            pump(100); // let the first exposes through
            job->action(window);
            // A failed assertion inside the action may have skipped the answer: close the window so
            // that the test ends instead of waiting forever.
            if (::testing::Test::HasFatalFailure() && find_toplevel(job->title.c_str()) == window)
                close_box(window);
            delete job;
            return FALSE;
        },
        job);
}

// A window holding a drawing area, installed as the canvas globals drawing_area and blank_cursor, for
// dialogs that reset and restore the canvas cursor.
struct HostWindow {
    GtkWidget *window;
    HostWindow() {
        gui_init();
        if (blank_cursor == nullptr) blank_cursor = gdk_cursor_new(GDK_BLANK_CURSOR);
        window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        gtk_window_set_title(GTK_WINDOW(window), "host");
        drawing_area = gtk_drawing_area_new();
        gtk_widget_set_size_request(drawing_area, 320, 200);
        gtk_container_add(GTK_CONTAINER(window), drawing_area);
        gtk_widget_show_all(window);
        gdk_window_set_cursor(gtk_widget_get_window(drawing_area), blank_cursor);
        pump(50);
    }
    ~HostWindow() {
        gtk_widget_destroy(window);
        drawing_area = nullptr;
        pump(20);
    }
    GdkCursor *canvas_cursor() const { return gdk_window_get_cursor(gtk_widget_get_window(drawing_area)); }
};

// The pixels of a widget's area as they are on the screen (3 channels).
inline GdkPixbuf *grab_widget(GtkWidget *widget) {
    GdkWindow *window = gtk_widget_get_window(widget);
    gdk_window_process_updates(window, TRUE);
    gdk_flush();
    GtkAllocation a;
    gtk_widget_get_allocation(widget, &a);
    int x = gtk_widget_get_has_window(widget) ? 0 : a.x;
    int y = gtk_widget_get_has_window(widget) ? 0 : a.y;
    return gdk_pixbuf_get_from_drawable(nullptr, window, nullptr, x, y, 0, 0, a.width, a.height);
}

// Saves the screen area of a toplevel window as screenshots/NAME.png in the working folder.
inline void screenshot(GtkWidget *toplevel, const char *name) {
    gdk_window_process_all_updates();
    gdk_flush();
    pump(100);
    GdkWindow *window = gtk_widget_get_window(toplevel);
    int x, y;
    gdk_window_get_origin(window, &x, &y);
    GdkPixbuf *shot =
        gdk_pixbuf_get_from_drawable(nullptr, gdk_get_default_root_window(), nullptr, x, y, 0, 0,
                                     gdk_window_get_width(window), gdk_window_get_height(window));
    mkdir("screenshots", 0755);
    std::string path = std::string("screenshots/") + name + ".png";
    if (shot != nullptr) {
        gdk_pixbuf_save(shot, path.c_str(), "png", nullptr, NULL);
        g_object_unref(shot);
    }
}

// Counts the GTK criticals and warnings logged while alive (the toolkit's refusals).
struct GtkWarningCounter {
    guint id;
    std::vector<std::string> messages;
    GtkWarningCounter() {
        id = g_log_set_handler(
            "Gtk", (GLogLevelFlags)(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING),
            [](const gchar *, GLogLevelFlags, const gchar *message, gpointer self) {
                static_cast<GtkWarningCounter *>(self)->messages.push_back(message);
            },
            this);
    }
    ~GtkWarningCounter() { g_log_remove_handler("Gtk", id); }
};

// A fresh empty folder under the system's temporary folder; removed with everything in it.
struct TempFolder {
    std::string path;
    TempFolder() {
        char name[] = "/tmp/keldra-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempFolder() {
        std::string command = "rm -rf '" + path + "'";
        if (system(command.c_str()) != 0) path.clear();
    }
};

#endif
