// Saving the layer and the image as PNG, directly and through the chooser, and copying to the clipboard.
#include <sys/resource.h>

#include <csignal>
#include <set>

#include "canvas/gtk_file_IO.h"
#include "tests/gui_test_support.h"

namespace {

uint32_t alpha_ramp(int x, int y) {
    return (picture(x, y) & ~255u) | x * 4;
}

// How many pixels of the PNG file differ from paint(x, y); -1 if it is not a PNG file with those channels.
int file_differences(const std::string &path, int channels, const std::function<uint32_t(int, int)> &paint) {
    GdkPixbuf *p = gdk_pixbuf_new_from_file(path.c_str(), nullptr);
    const int n = p == nullptr || gdk_pixbuf_get_n_channels(p) != channels ? -1 : differences(p, paint);
    if (p != nullptr) g_object_unref(p);
    return n;
}

std::set<std::string> files_in(const std::string &folder) {
    std::set<std::string> names;
    GDir *d = g_dir_open(folder.c_str(), 0, nullptr);
    while (const gchar *name = g_dir_read_name(d))
        names.insert(name);
    g_dir_close(d);
    return names;
}

TEST(CanvasSave, PngsAreNamedAfterTheStemBeforeTheLastFullStopAndReadBackAsSaved) {
    TempFolder in, out;
    run_keldra({write_image(in.path + "/rgba.png", 60, 40, true, alpha_ramp)}, [&](GtkWidget *) {
        std::string name = out.path + "/result.jpg", dotted = out.path + "/a.b.png",
                    layer = out.path + "/layer";
        EXPECT_TRUE(save_pixbuf_to_file(name.data(), pixbuf_alpha) == 0 &&
                    name.c_str() == out.path + "/result");
        EXPECT_EQ(save_pixbuf_to_file(dotted.data(), pixbuf_no_alpha), 0);
        EXPECT_EQ(files_in(out.path), std::set<std::string>({"a.b.png", "result.png"}));
        EXPECT_EQ(file_differences(out.path + "/result.png", 4, alpha_ramp), 0);
        EXPECT_EQ(file_differences(out.path + "/a.b.png", 3, picture), 0);
        // The layer comes back unchanged through "Open as layer".
        drag({{5, 5}, {50, 30}});
        const std::vector<uint32_t> painted = all_words(surf_layer);
        EXPECT_EQ(save_surface_to_file(layer.data(), nullptr), 0);
        ASSERT_EQ(open_image_file((layer + ".png").c_str(), OPEN_AS_LAYER, toolbar), 0);
        EXPECT_TRUE(all_words(surf_layer) == painted && painted[5 * 60 + 5] == 0xFFFFFFFF &&
                    painted.back() == 0);
    });
}

TEST(CanvasSave, AFailedSaveLeavesTheExistingFileIntactAndSaysWhy) {
    TempFolder in, out;
    const std::string noise = write_image(in.path + "/noise.png", 300, 300, false, [](int x, int y) {
        return (uint32_t)(x * 7919u ^ y * 104729u) * 2654435761u | 255;
    });
    run_keldra({noise}, [&](GtkWidget *) {
        std::string kept = out.path + "/keep.png";
        g_file_set_contents(kept.c_str(), "precious", -1, nullptr);
        struct rlimit old_limit, small;
        getrlimit(RLIMIT_FSIZE, &old_limit);
        small = {4096, old_limit.rlim_max};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(save_pixbuf_to_file(kept.data(), pixbuf_no_alpha), 1)
            << "too large for the file size limit";
        setrlimit(RLIMIT_FSIZE, &old_limit);
        gchar *contents = nullptr;
        g_file_get_contents((out.path + "/keep.png").c_str(), &contents, nullptr, nullptr);
        EXPECT_STREQ(contents, "precious");
        g_free(contents);
        EXPECT_EQ(files_in(out.path), std::set<std::string>({"keep.png"})) << "no temporary file is left";
        const std::string text = gtk_label_get_text(
            GTK_LABEL(children(gtk_statusbar_get_message_area(GTK_STATUSBAR(status_bar)))[0]));
        EXPECT_EQ(text.rfind("File open error: ", 0), 0u) << text;
    });
}

// Answers the "Save File" chooser with name in folder and response, again until it closes.
std::function<bool(GtkWidget *)> save_as(const std::string &folder, const std::string &name, int response) {
    return [=](GtkWidget *dialog) {
        GtkFileChooser *chooser = GTK_FILE_CHOOSER(dialog);
        gchar *chosen = gtk_file_chooser_get_filename(chooser);
        if (chosen != nullptr && folder + "/" + name == chosen) {
            gtk_dialog_response(GTK_DIALOG(dialog), response);
        } else {
            gtk_file_chooser_set_current_folder(chooser, folder.c_str());
            gtk_file_chooser_set_current_name(chooser, name.c_str());
        }
        g_free(chosen);
        return false;
    };
}

// In edit mode the chooser saves the layer, or the image without alpha through its "Save image" button
// (response 2); in view mode the image with its matte.
TEST(CanvasSave, DialogSavesTheLayerOrTheImageByModeAndAsksBeforeReplacing) {
    TempFolder in, out;
    run_keldra({write_image(in.path + "/rgba.png", 60, 40, true, alpha_ramp)}, [&](GtkWidget *) {
        drag({{5, 5}, {50, 30}});
        const std::vector<uint32_t> painted = all_words(surf_layer);
        for (const auto &[view, name, response] :
             {std::tuple(false, "strokes.jpg", (int)GTK_RESPONSE_ACCEPT), std::tuple(false, "photo", 2),
              std::tuple(true, "matte.png", (int)GTK_RESPONSE_ACCEPT)}) {
            set_view_mode(view);
            Answer save("Save File", save_as(out.path, name, response));
            click(2);
        }
        EXPECT_EQ(file_differences(out.path + "/photo.png", 3, picture), 0);
        EXPECT_EQ(file_differences(out.path + "/matte.png", 4, alpha_ramp), 0);
        EXPECT_EQ(
            file_differences(out.path + "/strokes.png", 4, [&](int x, int y) { return painted[y * 60 + x]; }),
            0)
            << "opaque white and clear read the same in both byte orders";
        // Saving as photo.jpg would replace photo.png: the user is asked first.
        set_view_mode(false);
        g_file_set_contents((out.path + "/photo.png").c_str(), "older", -1, nullptr);
        for (int reply : {GTK_RESPONSE_CANCEL, GTK_RESPONSE_ACCEPT}) {
            Answer save("Save File", save_as(out.path, "photo.jpg", 2)),
                replace("Replace File", respond(reply));
            click(2);
            EXPECT_TRUE(replace.shown && (file_differences(out.path + "/photo.png", 3, picture) == 0) ==
                                             (reply != GTK_RESPONSE_CANCEL));
        }
    });
}

TEST(CanvasSave, CopyPutsTheRegionOnTheClipboard) {
    TempFolder in;
    run_keldra({write_image(in.path + "/image.png", 60, 40, false, picture)}, [](GtkWidget *) {
        set_view_mode(true);
        drag({{10, 12}, {29, 21}});
        pixbuf_to_clipboard(nullptr, nullptr);
        GdkPixbuf *copy = gtk_clipboard_wait_for_image(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD));
        ASSERT_NE(copy, nullptr);
        EXPECT_TRUE(gdk_pixbuf_get_width(copy) == 20 && gdk_pixbuf_get_height(copy) == 10);
        EXPECT_EQ(differences(copy, [](int x, int y) { return picture(10 + x, 12 + y); }), 0);
        g_object_unref(copy);
    });
}

} // namespace
