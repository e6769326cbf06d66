// The GUI tests' harness: runs the real program (keldra_main) in this process with a scripted session,
// pumps the main loop, answers modal dialogs from a timeout, sends pointer events to the canvas, and
// reads pixels back from pixbufs, cairo surfaces and the screen. Each test executable is one source
// file that includes this header once; the header also carries the sanitizer settings of those tests.
#ifndef KELDRA_TESTS_GUI_TEST_SUPPORT_H
#define KELDRA_TESTS_GUI_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "app/gtkkeldra.h"

#if defined(__SANITIZE_ADDRESS__)
// glib and GTK are built without frame pointers; the slow unwinder gives the whole stacks that tell the
// toolkit's own caches (fontconfig's fonts, the file chooser's icons and settings path) from our blocks.
// Calculate keeps the image and result records and the region's sub-pixbuf of every job by design.
extern "C" const char *__asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char *__lsan_default_suppressions() {
    return "leak:libfontconfig.so\nleak:gtk_icon_info_load_icon\nleak:g_build_filename\nleak:cb_calc\n";
}
#endif

// Handles everything pending, then keeps the main loop running for about ms milliseconds.
inline void pump(int ms = 0) {
    const gint64 end = g_get_monotonic_time() + (gint64)ms * 1000;
    do {
        while (gtk_events_pending())
            gtk_main_iteration_do(FALSE);
        if (ms > 0) g_usleep(2000);
    } while (g_get_monotonic_time() < end);
}

// Pumps the main loop until cond holds or timeout_ms pass; returns cond's last value.
inline bool wait_until(const std::function<bool()> &cond, int timeout_ms) {
    const gint64 end = g_get_monotonic_time() + (gint64)timeout_ms * 1000;
    while (!cond()) {
        if (g_get_monotonic_time() > end) return false;
        pump(10);
    }
    return true;
}

// The widgets of a list, which is freed.
inline std::vector<GtkWidget *> widgets(GList *list) {
    std::vector<GtkWidget *> out;
    for (GList *l = list; l != nullptr; l = l->next)
        out.push_back(GTK_WIDGET(l->data));
    g_list_free(list);
    return out;
}

inline std::vector<GtkWidget *> children(GtkWidget *container) {
    return widgets(gtk_container_get_children(GTK_CONTAINER(container)));
}

// The mapped toplevel titled title.
inline GtkWidget *find_toplevel(const char *title) {
    GtkWidget *found = nullptr;
    for (GtkWidget *w : widgets(gtk_window_list_toplevels()))
        if (g_strcmp0(gtk_window_get_title(GTK_WINDOW(w)), title) == 0 && gtk_widget_get_mapped(w)) found = w;
    return found;
}

// Sends the window the event its close box would send.
inline void close_box(GtkWidget *window) {
    GdkEvent *event = gdk_event_new(GDK_DELETE);
    event->any.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
    event->any.send_event = TRUE;
    gtk_main_do_event(event);
    gdk_event_free(event);
}

// A fresh empty folder under /tmp, removed with everything in it.
struct TempFolder {
    std::string path;
    TempFolder() {
        char name[] = "/tmp/keldra-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempFolder() {
        if (system(("rm -rf '" + path + "'").c_str()) != 0) path.clear();
    }
};

// Answers the dialog titled title while it shows: act runs on it every 50 ms until it returns true (a save
// chooser may let a response pass, so acting again must be harmless) or the dialog is gone. shown tells
// whether it came. The timeout goes with the object, so a dialog that never came leaves nothing pending.
struct Answer {
    std::string title;
    std::function<bool(GtkWidget *)> act;
    bool shown = false;
    guint source = g_timeout_add(50, tick, this);

    Answer(const char *t, std::function<bool(GtkWidget *)> a) : title(t), act(std::move(a)) {}
    ~Answer() {
        if (source != 0) g_source_remove(source);
    }
    static gboolean tick(gpointer data) {
        Answer *self = static_cast<Answer *>(data);
        GtkWidget *dialog = find_toplevel(self->title.c_str());
        if (dialog != nullptr) self->shown = true;
        if (dialog == nullptr ? !self->shown : !self->act(dialog)) return TRUE;
        self->source = 0;
        return FALSE;
    }
};

// Runs `keldra ARGS...` in this process with HOME in home (a fresh folder when empty) and ICON_DIR
// icons (left as it is when null). session runs from the main loop once the window is shown; the window is
// then closed by its close box. Globals that start-up leaves alone are first put back to their initial
// values, so that runs in one process do not see each other's zoom, mode, brush or region.
inline void run_keldra(const std::vector<std::string> &args, std::function<void(GtkWidget *)> session,
                       const std::string &home = "", const char *icons = KELDRA_SOURCE_DIR "/icons") {
    TempFolder fresh;
    setenv("HOME", home.empty() ? fresh.path.c_str() : home.c_str(), 1);
    if (icons != nullptr) setenv("ICON_DIR", icons, 1);
    scale = 1.0, radius = 5.0, cursor_x = cursor_y = -5.0;
    in_edit_mode = finished_stroke = ok_to_calc = 1, calc_ROI_is_set = 0;
    red = green = blue = alpha = 1.0, left_x = top_y = selection_w = selection_h = 0.0;
    x_img_ROI = y_img_ROI = w_img_ROI = h_img_ROI = 0;
    Answer main_window("Orvanto", [&](GtkWidget *window) {
        pump(100); // the first exposes
        session(window);
        close_box(window);
        return true;
    });
    std::vector<char *> argv = {const_cast<char *>("keldra")};
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    EXPECT_EQ(keldra_main((int)args.size() + 1, argv.data()), 0);
}

// An act that clicks the dialog's button for response, or its close box for GTK_RESPONSE_DELETE_EVENT.
inline std::function<bool(GtkWidget *)> respond(int response) {
    return [response](GtkWidget *dialog) {
        if (response == GTK_RESPONSE_DELETE_EVENT)
            close_box(dialog);
        else
            gtk_button_clicked(GTK_BUTTON(gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), response)));
        return true;
    };
}

// The message of an "Error" dialog: the text of the label in the frame that is its first content.
inline std::string framed_text(GtkWidget *dialog) {
    GtkWidget *frame = children(gtk_dialog_get_content_area(GTK_DIALOG(dialog)))[0];
    return gtk_label_get_text(GTK_LABEL(gtk_bin_get_child(GTK_BIN(frame))));
}

inline GtkWidget *tool_item(int n) {
    return GTK_WIDGET(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), n));
}

// Clicks toolbar item n, as a mouse click on it does.
inline void click(int n) {
    g_signal_emit_by_name(tool_item(n), "clicked");
}

// Sets the spin button of toolbar item n (9 the zoom, 13 the brush size) as the user would.
inline void set_spin(int n, double value) {
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool_item(n)))), value);
}

inline void set_view_mode(bool view) {
    gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0)), view);
    pump();
}

inline GdkCursor *canvas_cursor() {
    return gdk_window_get_cursor(gtk_widget_get_window(drawing_area));
}

// Delivers a press of button (0: a motion) at (x, y) to the canvas, as the X server would.
inline void send(guint button, double x, double y, guint state) {
    GdkEvent *event = gdk_event_new(button > 0 ? GDK_BUTTON_PRESS : GDK_MOTION_NOTIFY);
    GdkWindow *w = GDK_WINDOW(g_object_ref(gtk_widget_get_window(drawing_area)));
    GdkDevice *d = gdk_device_get_core_pointer();
    if (button > 0)
        event->button = {GDK_BUTTON_PRESS, w, FALSE, 0, x, y, nullptr, state, button, d, 0, 0};
    else
        event->motion = {GDK_MOTION_NOTIFY, w, FALSE, 0, x, y, nullptr, state, FALSE, d, 0, 0};
    gtk_widget_event(drawing_area, event);
    gdk_event_free(event);
}

inline void press(double x, double y, guint button = 1, guint state = 0) {
    send(button, x, y, state);
}

inline void motion(double x, double y, guint state) {
    send(0, x, y, state);
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

// A pixbuf's pixel as 0xRRGGBBAA.
inline uint32_t rgba_at(GdkPixbuf *pixbuf, int x, int y) {
    guchar r = 0, g = 0, b = 0, a = 0;
    gdkpixbuf_get_pixel(pixbuf, x, y, &r, &g, &b, &a);
    return (uint32_t)r << 24 | (uint32_t)g << 16 | (uint32_t)b << 8 | a;
}

// How many pixels of a w by h grid pred holds for.
inline int count_pixels(int w, int h, const std::function<bool(int, int)> &pred) {
    int n = 0;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            n += pred(x, y);
    return n;
}

// How many pixels of a cairo surface (words 0xAARRGGBB) or of a pixbuf (0xRRGGBBAA) differ from want(x, y).
inline int differences(cairo_surface_t *s, const std::function<uint32_t(int, int)> &want) {
    auto differs = [&](int x, int y) { return word_at(s, x, y) != want(x, y); };
    return count_pixels(cairo_image_surface_get_width(s), cairo_image_surface_get_height(s), differs);
}

inline int differences(GdkPixbuf *p, const std::function<uint32_t(int, int)> &want) {
    auto differs = [&](int x, int y) { return rgba_at(p, x, y) != want(x, y); };
    return count_pixels(gdk_pixbuf_get_width(p), gdk_pixbuf_get_height(p), differs);
}

// Writes a w by h image whose pixel (x, y) is paint(x, y) as 0xRRGGBBAA, in the gdk-pixbuf format
// ("png" or "jpeg"); the alpha byte is dropped without has_alpha. Returns path.
inline std::string write_image(const std::string &path, int w, int h, bool has_alpha,
                               const std::function<uint32_t(int, int)> &paint, const char *format = "png") {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, has_alpha, 8, w, h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const uint32_t c = paint(x, y);
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

// The canvas pixel at (x, y) as it is on the screen, 0xRRGGBB.
inline uint32_t screen_at(int x, int y) {
    gdk_window_process_all_updates();
    gdk_flush();
    GdkPixbuf *p =
        gdk_pixbuf_get_from_drawable(nullptr, gtk_widget_get_window(drawing_area), nullptr, x, y, 0, 0, 1, 1);
    const uint32_t c = rgba_at(p, 0, 0) >> 8;
    g_object_unref(p);
    return c;
}

#endif
