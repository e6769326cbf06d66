// Runs the real program (keldra_main) with a scripted session for the canvas tests: the body runs
// from the main loop once the window is on screen, then the window is closed. Also: pointer events
// emitted on the drawing area, modal dialogs answered from a timeout, test images and pixel readers.
#ifndef KELDRA_TESTS_CANVAS_CANVAS_SESSION_H
#define KELDRA_TESTS_CANVAS_CANVAS_SESSION_H

#include <gtk/gtk.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "app/gtkkeldra.h"
#include "canvas/gtk_file_IO.h"

// Handles everything pending, then keeps the loop running for about ms milliseconds.
inline void pump(int ms = 0) {
    gint64 end = g_get_monotonic_time() + (gint64)ms * 1000;
    do {
        while (gtk_events_pending())
            gtk_main_iteration_do(FALSE);
        if (ms > 0) g_usleep(2000);
    } while (g_get_monotonic_time() < end);
}

inline std::vector<std::string> &temp_folders() {
    static std::vector<std::string> made;
    return made;
}

inline void remove_temp_folders() {
    for (const std::string &folder : temp_folders()) {
        int status = system(("rm -rf '" + folder + "'").c_str());
        (void)status;
    }
}

// A new empty folder, removed with its contents when the test program ends.
inline std::string temp_folder() {
    // The list exists before the handler is registered, so it is destroyed only after the handler ran.
    std::vector<std::string> &made = temp_folders();
    static const bool removal = std::atexit(remove_temp_folders) == 0;
    (void)removal;
    char name[] = "/tmp/keldra-canvas-XXXXXX";
    made.push_back(mkdtemp(name));
    return made.back();
}

// Starts the program with the given file arguments and runs body inside its main loop. Globals that
// the program does not reset at start-up are put back to their initial values first, so sessions in
// one process do not see each other's zoom, mode or brush.
inline void run_keldra(const std::vector<std::string> &files, std::function<void()> body) {
    static const std::string home = temp_folder();
    g_mkdir_with_parents((home + "/.local/share").c_str(), 0700);
    setenv("HOME", home.c_str(), 1);
    setenv("ICON_DIR", KELDRA_SOURCE_DIR "/icons", 1);
    scale = 1.0;
    in_edit_mode = 1;
    calc_ROI_is_set = 0;
    finished_stroke = 1;
    radius = 5.0;
    red = green = blue = alpha = 1.0;
    cursor_x = cursor_y = -5.0;
    left_x = top_y = selection_w = selection_h = 0.0;
    x_img_ROI = y_img_ROI = w_img_ROI = h_img_ROI = 0;

    g_idle_add(
        [](gpointer data) -> gboolean {
            GtkWidget *window = gtk_widget_get_toplevel(drawing_area);
            for (int i = 0; i < 200 && !gtk_widget_get_mapped(drawing_area); i++)
                pump(10);
            pump(100);
            (*static_cast<std::function<void()> *>(data))();
            gtk_widget_destroy(window);
            return FALSE;
        },
        &body);
    std::vector<std::string> args = {"keldra"};
    args.insert(args.end(), files.begin(), files.end());
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    keldra_main((int)args.size(), argv.data());
}

inline GtkWidget *tool_item(int n) {
    return GTK_WIDGET(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), n));
}

// A mapped toplevel titled `title` that no answer() has claimed yet.
inline GtkWidget *unclaimed_toplevel(const char *title) {
    GtkWidget *found = nullptr;
    GList *all = gtk_window_list_toplevels();
    for (GList *l = all; l != nullptr; l = l->next)
        if (g_strcmp0(gtk_window_get_title(GTK_WINDOW(l->data)), title) == 0 &&
            gtk_widget_get_mapped(GTK_WIDGET(l->data)) &&
            g_object_get_data(G_OBJECT(l->data), "answered") == nullptr)
            found = GTK_WIDGET(l->data);
    g_list_free(all);
    return found;
}

// Claims the next dialog titled `title` to appear and calls act on it every 50 ms until act returns
// true or the dialog is destroyed (a save chooser may ignore a response, so acting again must be
// harmless). Gives up after 20 s without such a dialog.
inline void answer(const char *title, std::function<bool(GtkWidget *)> act) {
    struct Job {
        std::string title;
        std::function<bool(GtkWidget *)> act;
        gpointer dialog;
        bool seen;
        int ticks;
    };
    g_timeout_add(
        50,
        [](gpointer data) -> gboolean {
            Job *job = static_cast<Job *>(data);
            if (!job->seen) {
                job->dialog = unclaimed_toplevel(job->title.c_str());
                if (job->dialog == nullptr) {
                    if (++job->ticks < 400) return TRUE;
                    delete job;
                    return FALSE;
                }
                job->seen = true;
                g_object_set_data(G_OBJECT(job->dialog), "answered", job);
                g_object_add_weak_pointer(G_OBJECT(job->dialog), &job->dialog);
            }
            if (job->dialog != nullptr && !job->act(GTK_WIDGET(job->dialog))) return TRUE;
            if (job->dialog != nullptr) g_object_remove_weak_pointer(G_OBJECT(job->dialog), &job->dialog);
            delete job;
            return FALSE;
        },
        new Job{title, std::move(act), nullptr, false, 0});
}

// Answers the "Open image" chooser with path in the mode's radio button (the extra widget's order).
inline void choose_to_open(const std::string &path, int mode) {
    answer("Open image", [path, mode, asked = false](GtkWidget *dialog) mutable {
        GtkFileChooser *chooser = GTK_FILE_CHOOSER(dialog);
        if (!asked) {
            GList *radios =
                gtk_container_get_children(GTK_CONTAINER(gtk_file_chooser_get_extra_widget(chooser)));
            gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(g_list_nth_data(radios, mode)), TRUE);
            g_list_free(radios);
            gtk_file_chooser_set_filename(chooser, path.c_str());
            asked = true;
            return false;
        }
        gchar *chosen = gtk_file_chooser_get_filename(chooser);
        bool ready = chosen != nullptr && path == chosen;
        g_free(chosen);
        if (ready) gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_ACCEPT);
        return ready;
    });
}

// Answers the "Save File" chooser with name in folder and the response, repeated until it closes.
inline void choose_to_save(const std::string &folder, const std::string &name, int response) {
    answer("Save File", [=](GtkWidget *dialog) {
        GtkFileChooser *chooser = GTK_FILE_CHOOSER(dialog);
        gchar *chosen = gtk_file_chooser_get_filename(chooser);
        bool ready = chosen != nullptr && folder + "/" + name == chosen;
        g_free(chosen);
        if (ready) {
            gtk_dialog_response(GTK_DIALOG(dialog), response);
        } else {
            gtk_file_chooser_set_current_folder(chooser, folder.c_str());
            gtk_file_chooser_set_current_name(chooser, name.c_str());
        }
        return false;
    });
}

inline void send(GdkEvent *event) {
    gtk_widget_event(drawing_area, event);
    gdk_event_free(event);
}

inline void press(double x, double y, guint button = 1, guint state = 0) {
    GdkEvent *event = gdk_event_new(GDK_BUTTON_PRESS);
    event->button.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(drawing_area)));
    event->button.x = x;
    event->button.y = y;
    event->button.state = state;
    event->button.button = button;
    event->button.device = gdk_device_get_core_pointer();
    send(event);
}

inline void motion(double x, double y, guint state) {
    GdkEvent *event = gdk_event_new(GDK_MOTION_NOTIFY);
    event->motion.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(drawing_area)));
    event->motion.x = x;
    event->motion.y = y;
    event->motion.state = state;
    event->motion.is_hint = FALSE;
    event->motion.device = gdk_device_get_core_pointer();
    send(event);
}

// A left-button drag through the window points; a last motion without the button ends it.
inline void drag(const std::vector<std::pair<int, int>> &points, guint state = 0) {
    press(points[0].first, points[0].second, 1, state);
    for (const auto &p : points)
        motion(p.first, p.second, GDK_BUTTON1_MASK | state);
    motion(points.back().first, points.back().second, 0);
    pump();
}

// The pixel word (alpha, red, green, blue from the high byte down) of a cairo image surface.
inline uint32_t word_at(cairo_surface_t *surface, int x, int y) {
    cairo_surface_flush(surface);
    guchar a = 0, r = 0, g = 0, b = 0;
    cairoimagesurface_get_pixel(surface, x, y, &a, &r, &g, &b);
    return (uint32_t)a << 24 | (uint32_t)r << 16 | (uint32_t)g << 8 | b;
}

inline std::vector<uint32_t> all_words(cairo_surface_t *surface) {
    std::vector<uint32_t> words;
    for (int y = 0; y < cairo_image_surface_get_height(surface); y++)
        for (int x = 0; x < cairo_image_surface_get_width(surface); x++)
            words.push_back(word_at(surface, x, y));
    return words;
}

inline uint32_t rgba_at(GdkPixbuf *pixbuf, int x, int y) {
    guchar r = 0, g = 0, b = 0, a = 0;
    gdkpixbuf_get_pixel(pixbuf, x, y, &r, &g, &b, &a);
    return (uint32_t)r << 24 | (uint32_t)g << 16 | (uint32_t)b << 8 | a;
}

// Writes a w by h test image whose pixel (x, y) is paint(x, y) as 0xRRGGBBAA, in the given gdk-pixbuf
// format ("png" or "jpeg"); the alpha byte is dropped without has_alpha.
inline std::string write_image(const std::string &path, int w, int h, bool has_alpha,
                               std::function<uint32_t(int, int)> paint, const char *format = "png") {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, has_alpha, 8, w, h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            uint32_t c = paint(x, y);
            gdkpixbuf_put_pixel(pixbuf, x, y, c >> 24, c >> 16 & 255, c >> 8 & 255, c & 255);
        }
    gdk_pixbuf_save(pixbuf, path.c_str(), format, nullptr, NULL);
    g_object_unref(pixbuf);
    return path;
}

// A colourful opaque test picture: every pixel differs from its neighbours.
inline uint32_t picture(int x, int y) {
    return (uint32_t)(x * 7 % 256) << 24 | (uint32_t)(y * 5 % 256) << 16 |
           (uint32_t)((x + y) * 3 % 256) << 8 | 255;
}

// Saves the main window as it is on the screen to screenshots/NAME.png in the working folder.
inline void screenshot(const char *name) {
    gdk_window_process_all_updates();
    pump(50);
    GdkWindow *window = gtk_widget_get_window(gtk_widget_get_toplevel(drawing_area));
    int x, y;
    gdk_window_get_origin(window, &x, &y);
    GdkPixbuf *shot =
        gdk_pixbuf_get_from_drawable(nullptr, gdk_get_default_root_window(), nullptr, x, y, 0, 0,
                                     gdk_window_get_width(window), gdk_window_get_height(window));
    g_mkdir_with_parents("screenshots", 0755);
    gdk_pixbuf_save(shot, (std::string("screenshots/") + name + ".png").c_str(), "png", nullptr, NULL);
    g_object_unref(shot);
}

// The drawing area's pixel at (x, y) as it is on the screen, 0xRRGGBB.
inline uint32_t screen_at(int x, int y) {
    gdk_window_process_all_updates();
    gdk_flush();
    GdkPixbuf *p =
        gdk_pixbuf_get_from_drawable(nullptr, gtk_widget_get_window(drawing_area), nullptr, x, y, 0, 0, 1, 1);
    uint32_t c = rgba_at(p, 0, 0) >> 8;
    g_object_unref(p);
    return c;
}

#endif
