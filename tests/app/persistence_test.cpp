// The window-geometry file: folder creation, the write failure, and the whole cycle through the
// real program (first run, moved and resized, reopened, short file).
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

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string geometry_bytes(int32_t x, int32_t y, int32_t w, int32_t h) {
    int32_t v[4] = {x, y, w, h};
    return std::string(reinterpret_cast<const char *>(v), sizeof v);
}

mode_t mode_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

TEST(FopenP, CreatesEveryMissingFolderPrivateAndOpensThePath) {
    TempFolder tmp;
    mode_t old = umask(022);
    std::string path = tmp.path + "/a/b/c/file.bin";
    FILE *fp = fopen_p(path.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    for (const char *folder : {"/a", "/a/b", "/a/b/c"}) {
        EXPECT_TRUE(S_ISDIR(mode_of(tmp.path + folder))) << folder;
        EXPECT_EQ(mode_of(tmp.path + folder) & 0777, 0700u) << folder;
    }
    fp = fopen_p(path.c_str(), "r"); // existing folders are no obstacle
    ASSERT_NE(fp, nullptr);
    fclose(fp);

    // A trailing separator is dropped before the folders are made, so the last name is not one.
    EXPECT_EQ(fopen_p((tmp.path + "/x/y/").c_str(), "w"), nullptr);
    EXPECT_TRUE(S_ISDIR(mode_of(tmp.path + "/x")));
    EXPECT_EQ(mode_of(tmp.path + "/x/y"), 0u);
    // A folder that cannot be made (a file is in the way) gives a null stream, not a crash.
    EXPECT_EQ(fopen_p((path + "/sub/f").c_str(), "w"), nullptr);

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(tmp.path.c_str()), 0);
    fp = fopen_p("rel/deeper/f", "w"); // relative paths start in the working folder
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_TRUE(S_ISDIR(mode_of(tmp.path + "/rel/deeper")));
    umask(old);
}

TEST(Geometry, UnwritableFileIsReportedOnStandardOutputAndTheCloseGoesOn) {
    gui_init();
    TempFolder tmp;
    std::string not_a_folder = tmp.path + "/plain-file";
    std::ofstream(not_a_folder) << "x";
    std::string saved = getenv("HOME");
    setenv("HOME", not_a_folder.c_str(), 1);
    GtkWidget *window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_widget_show(window);
    set_configuration(window);
    EXPECT_EQ(std::string(appdata), not_a_folder + suffix);
    EXPECT_EQ(std::string(getenv("HOME")), not_a_folder) << "HOME itself is left as it was";
    testing::internal::CaptureStdout();
    pre_quit_event(window);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "can't write persistence data " + not_a_folder + suffix);
    EXPECT_EQ(file_bytes(not_a_folder), "x");
    gtk_widget_destroy(window);
    setenv("HOME", saved.c_str(), 1);
}

struct Geometry {
    int x, y, width, height;
};

// Runs the program with HOME in `home`; `session` runs on the shown window, which is then closed by its
// close box. Returns the window's geometry as it was shown.
Geometry run_program(const std::string &home, std::function<void(GtkWidget *)> session) {
    std::string saved = getenv("HOME");
    setenv("HOME", home.c_str(), 1);
    Geometry shown{};
    when_shown("Orvanto", [&](GtkWidget *window) {
        GdkWindow *w = gtk_widget_get_window(window);
        gdk_window_get_root_origin(w, &shown.x, &shown.y);
        shown.width = gdk_window_get_width(w);
        shown.height = gdk_window_get_height(w);
        session(window);
        close_box(window);
    });
    char name[] = "keldra";
    char *argv[] = {name, nullptr};
    EXPECT_EQ(keldra_main(1, argv), 0);
    setenv("HOME", saved.c_str(), 1);
    return shown;
}

TEST(Geometry, TheProgramReopensWhereItWasClosed) {
    TempFolder home;
    std::string file = home.path + suffix;
    mode_t old = umask(022);
    auto nothing = [](GtkWidget *) {};

    // First run: no file, so the default size, centred; closing writes the file and both folders.
    Geometry first = run_program(home.path, nothing);
    GdkScreen *screen = gdk_screen_get_default();
    EXPECT_EQ(first.width, 720);
    EXPECT_GE(first.height, 480);
    EXPECT_NEAR(first.x, (gdk_screen_get_width(screen) - first.width) / 2, 1);
    EXPECT_NEAR(first.y, (gdk_screen_get_height(screen) - first.height) / 2, 1);
    EXPECT_EQ(file_bytes(file), geometry_bytes(first.x, first.y, first.width, first.height));
    EXPECT_EQ(mode_of(home.path + "/.Orvanto") & 0777, 0700u);
    EXPECT_EQ(mode_of(home.path + "/.Orvanto/keldra") & 0777, 0700u);

    run_program(home.path, [](GtkWidget *window) {
        gtk_window_move(GTK_WINDOW(window), 100, 50);
        gtk_window_resize(GTK_WINDOW(window), 800, 700);
        pump(300);
    });
    EXPECT_EQ(file_bytes(file), geometry_bytes(100, 50, 800, 700));
    Geometry again = run_program(home.path, nothing);
    EXPECT_TRUE(again.x == 100 && again.y == 50 && again.width == 800 && again.height == 700)
        << again.x << "," << again.y << " " << again.width << "x" << again.height;

    // A file cut short holds no geometry: the window starts as on the first run.
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        << geometry_bytes(100, 50, 800, 700).substr(0, 12);
    Geometry cut = run_program(home.path, nothing);
    EXPECT_TRUE(cut.x == first.x && cut.y == first.y && cut.width == first.width &&
                cut.height == first.height);
    umask(old);
}

} // namespace
