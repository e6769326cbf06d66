// Helpers for GUI tests that run the real program: starting keldra in-process with a scripted
// session, waiting on the main loop, answering modal dialogs, real pointer and keyboard input through
// the X server's XTest extension, catching standard output, and scopes whose allocations are not leak
// reports. Builds on tests/app/gui_helpers.h (pump, find_toplevel, close_box, TempFolder).
#ifndef KELDRA_TESTS_GUI_TEST_SUPPORT_H
#define KELDRA_TESTS_GUI_TEST_SUPPORT_H

#include <dlfcn.h>
#include <gdk/gdkkeysyms.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "app/gtkkeldra.h"
#include "tests/app/gui_helpers.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

// The X display under GDK, as an opaque pointer: the X11 headers' macros collide with GoogleTest's.
extern "C" void *gdk_x11_display_get_xdisplay(GdkDisplay *display);

// Allocations made on this thread inside this scope are not leak reports in sanitizer builds. For code
// that keeps blocks on purpose (Calculate keeps the image record when nothing starts, and the result
// record and the region's sub-pixbuf of every job) and for GTK's file chooser, which leaks small
// blocks of its own. Declare it [[maybe_unused]]: in other builds it does nothing.
struct LeakScope {
#if defined(__SANITIZE_ADDRESS__)
    LeakScope() {
        __lsan_disable();
    }
    ~LeakScope() {
        __lsan_enable();
    }
#endif
};

// Runs `keldra ARGS...` in this process with HOME in a fresh folder and, when the test defines
// KELDRA_ICON_FOLDER, the repository's icons. The session runs from the main loop once the window is
// shown; the window is closed afterwards. Globals that start-up does not reset are put back to their
// initial values first.
inline void run_keldra(const std::vector<std::string> &args, std::function<void(GtkWidget *)> session) {
    TempFolder home;
    std::string saved_home = getenv("HOME");
    setenv("HOME", home.path.c_str(), 1);
#ifdef KELDRA_ICON_FOLDER
    setenv("ICON_DIR", KELDRA_ICON_FOLDER, 1);
#endif
    scale = 1.0;
    in_edit_mode = 1;
    calc_ROI_is_set = 0;
    ok_to_calc = 1;
    radius = 5.0;
    red = green = blue = alpha = 1.0;
    x_img_ROI = y_img_ROI = w_img_ROI = h_img_ROI = 0;
    left_x = top_y = selection_w = selection_h = 0.0;
    when_shown("Orvanto", [&](GtkWidget *window) {
        session(window);
        close_box(window);
    });
    std::vector<std::string> all = {"keldra"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : all)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    EXPECT_EQ(keldra_main((int)all.size(), argv.data()), 0);
    setenv("HOME", saved_home.c_str(), 1);
    unsetenv("ICON_DIR");
}

// Pumps the main loop until cond holds or timeout_ms pass; returns cond's last value.
inline bool wait_until(std::function<bool()> cond, int timeout_ms) {
    gint64 end = g_get_monotonic_time() + (gint64)timeout_ms * 1000;
    while (!cond()) {
        if (g_get_monotonic_time() > end) return false;
        pump(10);
    }
    return true;
}

// Answers the dialog titled `title` when it shows, from a main-loop timeout: action runs on it and
// answers it. With `repeat` the action runs every 50 ms until the dialog is gone (a save chooser may
// let a response pass). Removed when the object dies, so a dialog that never comes leaves nothing
// pending.
struct Answer {
    std::string title;
    std::function<void(GtkWidget *)> action;
    bool repeat;
    guint source = 0;
    int shown = 0;

    Answer(const char *t, std::function<void(GtkWidget *)> a, bool r = false)
        : title(t), action(std::move(a)), repeat(r) {
        source = g_timeout_add(50, tick, this);
    }
    ~Answer() {
        if (source != 0) g_source_remove(source);
    }
    static gboolean tick(gpointer data) {
        Answer *self = static_cast<Answer *>(data);
        GtkWidget *dialog = find_toplevel(self->title.c_str());
        if (dialog == nullptr || !gtk_widget_get_mapped(dialog)) {
            if (self->repeat && self->shown > 0) {
                self->source = 0;
                return FALSE;
            }
            return TRUE;
        }
        pump(50); // let the first exposes through
        self->shown++;
        self->action(dialog);
        if (self->repeat) return TRUE;
        // A failed assertion inside the action may have skipped the answer: close the dialog so that
        // the test ends instead of waiting forever.
        if (::testing::Test::HasFatalFailure() && find_toplevel(self->title.c_str()) == dialog)
            close_box(dialog);
        self->source = 0;
        return FALSE;
    }
};

// Real input through the X server's XTest extension, as from a mouse and a keyboard: the server
// moves the pointer, holds the button during a drag and delivers the events to the window under it.
// libXtst is loaded at run time since only its shared library is installed; it stays loaded, as the
// display keeps its extension record.
struct XInput {
    typedef int (*FakeButton)(void *, unsigned int, int, unsigned long);
    typedef int (*FakeMotion)(void *, int, int, int, unsigned long);
    typedef int (*FakeKey)(void *, unsigned int, int, unsigned long);
    void *lib = nullptr;
    FakeButton fake_button = nullptr;
    FakeMotion fake_motion = nullptr;
    FakeKey fake_key = nullptr;

    XInput() {
        lib = dlopen("libXtst.so.6", RTLD_NOW);
        if (lib == nullptr) return;
        fake_button = (FakeButton)dlsym(lib, "XTestFakeButtonEvent");
        fake_motion = (FakeMotion)dlsym(lib, "XTestFakeMotionEvent");
        fake_key = (FakeKey)dlsym(lib, "XTestFakeKeyEvent");
    }
    bool ok() const { return fake_button != nullptr && fake_motion != nullptr && fake_key != nullptr; }
    void *display() const { return gdk_x11_display_get_xdisplay(gdk_display_get_default()); }
    void sync() const {
        gdk_flush();
        pump(30);
    }

    // Moves the pointer to (x, y) of widget's allocation.
    void move(GtkWidget *widget, int x, int y) const {
        int ox, oy;
        gdk_window_get_origin(gtk_widget_get_window(widget), &ox, &oy);
        if (!gtk_widget_get_has_window(widget)) {
            GtkAllocation a;
            gtk_widget_get_allocation(widget, &a);
            ox += a.x;
            oy += a.y;
        }
        fake_motion(display(), -1, ox + x, oy + y, 0);
        sync();
    }
    void button(bool down) const {
        fake_button(display(), 1, down, 0);
        sync();
    }
    void click(GtkWidget *widget) const {
        GtkAllocation a;
        gtk_widget_get_allocation(widget, &a);
        move(widget, a.width / 2, a.height / 2);
        button(true);
        button(false);
    }
    // A left-button drag over the drawing area through the points, in window coordinates.
    void drag(const std::vector<std::pair<int, int>> &points) const {
        move(drawing_area, points[0].first, points[0].second);
        button(true);
        for (const auto &p : points)
            move(drawing_area, p.first, p.second);
        button(false);
        // Strokes end with the first motion without the button.
        move(drawing_area, points.back().first + 1, points.back().second);
    }
    unsigned keycode(guint keyval) const {
        GdkKeymapKey *keys = nullptr;
        gint n = 0;
        unsigned code = 0;
        if (gdk_keymap_get_entries_for_keyval(gdk_keymap_get_default(), keyval, &keys, &n) && n > 0)
            code = keys[0].keycode;
        g_free(keys);
        return code;
    }
    // Presses and releases key with Control held, over the drawing area.
    void control_key(guint keyval) const {
        move(drawing_area, 5, 5);
        unsigned control = keycode(GDK_KEY_Control_L), key = keycode(keyval);
        fake_key(display(), control, true, 0);
        fake_key(display(), key, true, 0);
        fake_key(display(), key, false, 0);
        fake_key(display(), control, false, 0);
        sync();
    }
};

// Standard output of the process, caught in a file while alive.
struct CaughtStdout {
    int saved;
    std::string path;
    CaughtStdout(const std::string &folder) : path(folder + "/stdout.txt") {
        fflush(stdout);
        saved = dup(1);
        FILE *f = fopen(path.c_str(), "w");
        dup2(fileno(f), 1);
        fclose(f);
    }
    std::string text() {
        fflush(stdout);
        std::ifstream in(path, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    ~CaughtStdout() {
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
    }
};

#endif
