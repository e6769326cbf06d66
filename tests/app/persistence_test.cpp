// The window-geometry file: folder creation, reading and applying it, writing it on close, and the
// whole cycle through the real program.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>

#include "app/persistence.h"
#include "tests/app/gui_helpers.h"

namespace {

const char *const suffix = "/.Orvanto/keldra/keldra-1.0";

struct Geometry {
    int x, y, width, height;
};

Geometry geometry_of(GtkWidget *window) {
    GdkWindow *w = gtk_widget_get_window(window);
    Geometry g;
    gdk_window_get_root_origin(w, &g.x, &g.y);
    g.width = gdk_window_get_width(w);
    g.height = gdk_window_get_height(w);
    return g;
}

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string geometry_bytes(int32_t x, int32_t y, int32_t w, int32_t h) {
    int32_t v[4] = {x, y, w, h};
    return std::string(reinterpret_cast<const char *>(v), sizeof v);
}

void write_file(const std::string &path, const std::string &bytes) {
    FILE *fp = fopen_p(path.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    fwrite(bytes.data(), 1, bytes.size(), fp);
    fclose(fp);
}

mode_t mode_of(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode;
}

// Points HOME at a fresh folder for the test's lifetime.
struct Home {
    TempFolder folder;
    std::string saved;
    Home() {
        saved = getenv("HOME") != nullptr ? getenv("HOME") : "";
        setenv("HOME", folder.path.c_str(), 1);
    }
    ~Home() { setenv("HOME", saved.c_str(), 1); }
    std::string file() const { return folder.path + suffix; }
};

// A plain window like the main one: default size 720 by 480, centred, with a child widget.
GtkWidget *centred_window(GtkWidget **child) {
    GtkWidget *window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_position(GTK_WINDOW(window), GTK_WIN_POS_CENTER);
    gtk_window_set_default_size(GTK_WINDOW(window), 720, 480);
    *child = gtk_label_new("geometry");
    gtk_container_add(GTK_CONTAINER(window), *child);
    gtk_widget_show_all(window);
    pump(200);
    return window;
}

TEST(FopenP, CreatesEveryMissingFolderPrivateAndOpensThePath) {
    TempFolder tmp;
    mode_t old = umask(022);
    std::string path = tmp.path + "/a/b/c/file.bin";
    FILE *fp = fopen_p(path.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    fputs("x", fp);
    fclose(fp);
    for (const char *folder : {"/a", "/a/b", "/a/b/c"}) {
        mode_t mode = mode_of(tmp.path + folder);
        EXPECT_TRUE(S_ISDIR(mode)) << folder;
        EXPECT_EQ(mode & 0777, 0700u) << folder;
    }
    EXPECT_EQ(file_bytes(path), "x");

    // Existing folders are no obstacle, and the path itself is never made a folder.
    fp = fopen_p(path.c_str(), "r");
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_EQ(fopen_p((tmp.path + "/x/y/").c_str(), "w"), nullptr);
    EXPECT_TRUE(S_ISDIR(mode_of(tmp.path + "/x")));
    EXPECT_EQ(mode_of(tmp.path + "/x/y"), 0u);

    // A relative path starts its folders in the working folder.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(tmp.path.c_str()), 0);
    fp = fopen_p("rel/deeper/f", "w");
    EXPECT_NE(fp, nullptr);
    if (fp != nullptr) fclose(fp);
    EXPECT_TRUE(S_ISDIR(mode_of(tmp.path + "/rel/deeper")));
    ASSERT_EQ(chdir(cwd), 0);

    // A folder that cannot be made (a file is in the way) gives a null stream, not a crash.
    EXPECT_EQ(fopen_p((tmp.path + "/a/b/c/file.bin/sub/f").c_str(), "w"), nullptr);
    umask(old);
}

TEST(Geometry, PathIsUnderHomeAndHomeItselfIsLeftAlone) {
    gui_init();
    Home home;
    GtkWidget *child;
    GtkWidget *window = centred_window(&child);
    set_configuration(window);
    EXPECT_EQ(std::string(appdata), home.file());
    EXPECT_EQ(std::string(getenv("HOME")), home.folder.path);
    gtk_widget_destroy(window);
}

TEST(Geometry, StoredGeometryIsAppliedToTheWindow) {
    gui_init();
    Home home;
    write_file(home.file(), geometry_bytes(100, 50, 800, 600));
    GtkWidget *child;
    GtkWidget *window = centred_window(&child);
    set_configuration(window);
    pump(300);
    Geometry g = geometry_of(window);
    EXPECT_EQ(g.x, 100);
    EXPECT_EQ(g.y, 50);
    EXPECT_EQ(g.width, 800);
    EXPECT_EQ(g.height, 600);
    gtk_widget_destroy(window);
}

TEST(Geometry, MissingOrShortFileLeavesTheWindowAsItWas) {
    gui_init();
    Home home;
    for (std::string content :
         {std::string(), geometry_bytes(100, 50, 800, 600).substr(0, 12), std::string("\1")}) {
        if (!content.empty()) write_file(home.file(), content);
        GtkWidget *child;
        GtkWidget *window = centred_window(&child);
        Geometry before = geometry_of(window);
        EXPECT_EQ(before.width, 720);
        set_configuration(window);
        pump(200);
        Geometry after = geometry_of(window);
        EXPECT_EQ(after.x, before.x) << content.size() << " bytes";
        EXPECT_EQ(after.y, before.y);
        EXPECT_EQ(after.width, before.width);
        EXPECT_EQ(after.height, before.height);
        gtk_widget_destroy(window);
    }
}

TEST(Geometry, CloseWritesTheOriginAndSizeOfTheToplevel) {
    gui_init();
    Home home;
    mode_t old = umask(022);
    GtkWidget *child;
    GtkWidget *window = centred_window(&child);
    set_configuration(window);
    gtk_window_move(GTK_WINDOW(window), 33, 44);
    gtk_window_resize(GTK_WINDOW(window), 500, 300);
    pump(300);
    pre_quit_event(child); // any widget of the window will do
    EXPECT_EQ(file_bytes(home.file()), geometry_bytes(33, 44, 500, 300));
    EXPECT_EQ(mode_of(home.folder.path + "/.Orvanto") & 0777, 0700u);
    EXPECT_EQ(mode_of(home.folder.path + "/.Orvanto/keldra") & 0777, 0700u);
    gtk_widget_destroy(window);
    umask(old);
}

TEST(Geometry, UnwritableFileIsReportedOnStandardOutputAndTheCloseGoesOn) {
    gui_init();
    TempFolder tmp;
    std::string not_a_folder = tmp.path + "/plain-file";
    write_file(not_a_folder, "x");
    std::string saved = getenv("HOME");
    setenv("HOME", not_a_folder.c_str(), 1);
    GtkWidget *child;
    GtkWidget *window = centred_window(&child);
    set_configuration(window);
    testing::internal::CaptureStdout();
    pre_quit_event(window);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "can't write persistence data " + not_a_folder + suffix);
    EXPECT_EQ(file_bytes(not_a_folder), "x");
    gtk_widget_destroy(window);
    setenv("HOME", saved.c_str(), 1);
}

// The real program: first run centred at its default size, then moved and resized before closing,
// then reopened where it was left.
TEST(Geometry, TheProgramReopensWhereItWasClosed) {
    Home home;
    char name[] = "keldra";
    char *argv[] = {name, nullptr};
    Geometry first{}, second{};

    when_shown("Orvanto", [&](GtkWidget *window) {
        first = geometry_of(window);
        close_box(window);
    });
    EXPECT_EQ(keldra_main(1, argv), 0);
    GdkScreen *screen = gdk_screen_get_default();
    EXPECT_NEAR(first.x, (gdk_screen_get_width(screen) - first.width) / 2, 1);
    EXPECT_NEAR(first.y, (gdk_screen_get_height(screen) - first.height) / 2, 1);
    EXPECT_EQ(first.width, 720);
    EXPECT_GE(first.height, 480);
    EXPECT_EQ(file_bytes(home.file()), geometry_bytes(first.x, first.y, first.width, first.height));

    when_shown("Orvanto", [&](GtkWidget *window) {
        gtk_window_move(GTK_WINDOW(window), 100, 50);
        gtk_window_resize(GTK_WINDOW(window), 800, 700);
        pump(300);
        close_box(window);
    });
    EXPECT_EQ(keldra_main(1, argv), 0);
    EXPECT_EQ(file_bytes(home.file()), geometry_bytes(100, 50, 800, 700));

    when_shown("Orvanto", [&](GtkWidget *window) {
        pump(200);
        second = geometry_of(window);
        close_box(window);
    });
    EXPECT_EQ(keldra_main(1, argv), 0);
    EXPECT_EQ(second.x, 100);
    EXPECT_EQ(second.y, 50);
    EXPECT_EQ(second.width, 800);
    EXPECT_EQ(second.height, 700);
}

} // namespace
