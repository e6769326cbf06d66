// The window-geometry file through the real program: the first run, a moved and resized window reopened
// where it was, a short file, and a file that cannot be written.
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <iterator>

#include "tests/gui_test_support.h"

namespace {

const std::string suffix = "/.Orvanto/keldra/keldra-1.0";

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string geometry_bytes(std::array<int32_t, 4> v) {
    return std::string(reinterpret_cast<const char *>(v.data()), 16);
}

mode_t mode_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

TEST(Geometry, UnwritableFileIsReportedOnStandardOutputAndTheCloseGoesOn) {
    TempFolder tmp;
    const std::string home = tmp.path + "/plain-file";
    std::ofstream(home) << "x";
    testing::internal::CaptureStdout();
    run_keldra(
        {}, [&](GtkWidget *) { EXPECT_EQ(appdata, home + suffix); }, home);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "can't write persistence data " + home + suffix);
    EXPECT_EQ(file_bytes(home), "x");
}

// Runs the program with HOME in home; act runs on the shown window before it is closed. Returns the
// window's geometry as it was shown.
std::array<int32_t, 4> run_in(const std::string &home, void (*act)(GtkWidget *) = nullptr) {
    std::array<int32_t, 4> shown{};
    run_keldra(
        {},
        [&](GtkWidget *window) {
            GdkWindow *w = gtk_widget_get_window(window);
            gdk_window_get_root_origin(w, &shown[0], &shown[1]);
            shown[2] = gdk_window_get_width(w);
            shown[3] = gdk_window_get_height(w);
            if (act != nullptr) act(window);
        },
        home);
    return shown;
}

TEST(Geometry, TheProgramReopensWhereItWasClosed) {
    TempFolder home;
    const std::string file = home.path + suffix;
    umask(022); // so that the folders' modes are the ones asked for
    // First run: no file, so the default size, centred; closing writes the file and both folders.
    const std::array<int32_t, 4> first = run_in(home.path);
    GdkScreen *screen = gdk_screen_get_default();
    EXPECT_TRUE(first[2] == 720 && first[3] >= 480);
    EXPECT_NEAR(first[0], (gdk_screen_get_width(screen) - first[2]) / 2, 1);
    EXPECT_NEAR(first[1], (gdk_screen_get_height(screen) - first[3]) / 2, 1);
    EXPECT_EQ(file_bytes(file), geometry_bytes(first));
    for (const char *folder : {"/.Orvanto", "/.Orvanto/keldra"})
        EXPECT_EQ(mode_of(home.path + folder), S_IFDIR | 0700u) << folder;

    run_in(home.path, [](GtkWidget *window) {
        gtk_window_move(GTK_WINDOW(window), 100, 50);
        gtk_window_resize(GTK_WINDOW(window), 800, 700);
        pump(300);
    });
    EXPECT_EQ(file_bytes(file), geometry_bytes({100, 50, 800, 700}));
    EXPECT_EQ(run_in(home.path), (std::array<int32_t, 4>{100, 50, 800, 700}));

    // A file cut short holds no geometry: the window starts as on the first run.
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        << geometry_bytes({100, 50, 800, 700}).substr(0, 12);
    EXPECT_EQ(run_in(home.path), first);
}

} // namespace
