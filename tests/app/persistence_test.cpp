// The window-geometry file through the real program: the first run, a moved and resized window reopened
// where it was, a short file, and a file that cannot be written.
#include <sys/stat.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tests/gui_test_support.h"

namespace {

const std::string suffix = "/.Orvanto/keldra/keldra-1.0";

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

// The geometry x, y, width, height that the program writes when it closes after a run with HOME in home
// (act runs on the shown window first).
std::array<int32_t, 4> run_in(
    const std::string &home, void (*act)(GtkWidget *) = [](GtkWidget *) {}) {
    run_keldra({}, act, home);
    const std::string bytes = file_bytes(home + suffix);
    std::array<int32_t, 4> geometry{};
    EXPECT_EQ(bytes.size(), 16u);
    memcpy(geometry.data(), bytes.data(), std::min<size_t>(bytes.size(), 16));
    return geometry;
}

TEST(Geometry, TheProgramReopensWhereItWasClosed) {
    TempFolder home;
    umask(022); // so that the folders' modes are the ones asked for
    // First run: no file, so the default size, centred; closing writes the file and both folders.
    const std::array<int32_t, 4> first = run_in(home.path);
    GdkScreen *screen = gdk_screen_get_default();
    EXPECT_TRUE(first[2] == 720 && first[3] >= 480);
    EXPECT_NEAR(first[0], (gdk_screen_get_width(screen) - first[2]) / 2, 1);
    EXPECT_NEAR(first[1], (gdk_screen_get_height(screen) - first[3]) / 2, 1);
    for (const char *folder : {"/.Orvanto", "/.Orvanto/keldra"}) {
        struct stat st = {};
        EXPECT_TRUE(stat((home.path + folder).c_str(), &st) == 0 && st.st_mode == (S_IFDIR | 0700)) << folder;
    }
    const std::array<int32_t, 4> moved = {100, 50, 800, 700};
    EXPECT_EQ(run_in(home.path,
                     [](GtkWidget *window) {
                         gtk_window_move(GTK_WINDOW(window), 100, 50);
                         gtk_window_resize(GTK_WINDOW(window), 800, 700);
                         pump(300);
                     }),
              moved);
    EXPECT_EQ(run_in(home.path), moved) << "reopened where it was closed";
    // A file cut short holds no geometry: the window starts as on the first run.
    std::ofstream(home.path + suffix, std::ios::binary | std::ios::trunc) << "twelve bytes";
    EXPECT_EQ(run_in(home.path), first);
}

} // namespace
