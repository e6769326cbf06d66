#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <glib/gstdio.h>
#include <sys/resource.h>

#include "tests/canvas/canvas_session.h"

namespace {

const std::string folder = temp_folder();
const std::string image = write_image(folder + "/image.png", 60, 40, false, picture);
const std::string rgba = write_image(folder + "/rgba.png", 60, 40, true,
                                     [](int x, int y) { return (picture(x, y) & ~255u) | x * 4; });

std::string stripped(std::string name) {
    strip_file_extension(name.data());
    return name.c_str();
}

// The file read back, or nullptr; the caller unrefs it.
GdkPixbuf *load(const std::string &path) {
    return gdk_pixbuf_new_from_file(path.c_str(), nullptr);
}

std::vector<std::string> files_in(const std::string &dir) {
    std::vector<std::string> names;
    GDir *d = g_dir_open(dir.c_str(), 0, nullptr);
    while (const gchar *name = g_dir_read_name(d))
        names.push_back(name);
    g_dir_close(d);
    std::sort(names.begin(), names.end());
    return names;
}

TEST(CanvasSave, StripFileExtensionCutsAtTheLastFullStop) {
    EXPECT_EQ(stripped("result.jpg"), "result");
    EXPECT_EQ(stripped("result"), "result");
    EXPECT_EQ(stripped("a.b.png"), "a.b");
    EXPECT_EQ(stripped("/tmp/my.folder/result"), "/tmp/my");
}

TEST(CanvasSave, PngsAreNamedAfterTheStemAndKeepTheirChannels) {
    std::string out = temp_folder();
    run_keldra({rgba}, [&] {
        std::string name = out + "/result.jpg";
        EXPECT_EQ(save_pixbuf_to_file(name.data(), pixbuf_alpha), 0);
        EXPECT_EQ(name.c_str(), out + "/result") << "the caller's name loses its extension";
        std::string dotted = out + "/a.b.png";
        EXPECT_EQ(save_pixbuf_to_file(dotted.data(), pixbuf_no_alpha), 0);
        EXPECT_EQ(files_in(out), std::vector<std::string>({"a.b.png", "result.png"}));

        GdkPixbuf *with_alpha = load(out + "/result.png"), *without = load(out + "/a.b.png");
        ASSERT_TRUE(with_alpha != nullptr && without != nullptr);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(with_alpha), 4);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(without), 3);
        for (int y = 0; y < 40; y++)
            for (int x = 0; x < 60; x++) {
                ASSERT_EQ(rgba_at(with_alpha, x, y), rgba_at(pixbuf_alpha, x, y));
                ASSERT_EQ(rgba_at(without, x, y), picture(x, y));
            }
        g_object_unref(with_alpha);
        g_object_unref(without);

        // The layer comes back unchanged through "Open as layer".
        drag({{5, 5}, {50, 30}});
        std::vector<uint32_t> painted = all_words(surf_layer);
        std::string layer = out + "/layer";
        EXPECT_EQ(save_surface_to_file(layer.data(), nullptr), 0);
        GdkPixbuf *back = load(out + "/layer.png");
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(back), 4);
        EXPECT_EQ(rgba_at(back, 0, 39), 0u);
        EXPECT_EQ(rgba_at(back, 5, 5), 0xFFFFFFFFu);
        g_object_unref(back);
        ASSERT_EQ(open_image_file((out + "/layer.png").c_str(), OPEN_AS_LAYER, toolbar), 0);
        EXPECT_EQ(all_words(surf_layer), painted);
    });
}

TEST(CanvasSave, AFailedSaveLeavesTheExistingFileIntactAndSaysWhy) {
    std::string out = temp_folder();
    std::string noise = write_image(folder + "/noise.png", 300, 300, false, [](int x, int y) {
        return (uint32_t)(x * 7919u ^ y * 104729u) * 2654435761u | 255;
    });
    run_keldra({noise}, [&] {
        std::string kept = out + "/keep.png";
        g_file_set_contents(kept.c_str(), "precious", -1, nullptr);
        struct rlimit old_limit, small = {4096, 0};
        getrlimit(RLIMIT_FSIZE, &old_limit);
        small.rlim_max = old_limit.rlim_max;
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &small);
        std::string name = kept;
        int status = save_pixbuf_to_file(name.data(), pixbuf_no_alpha);
        setrlimit(RLIMIT_FSIZE, &old_limit);
        EXPECT_EQ(status, 1);

        gchar *contents = nullptr;
        g_file_get_contents(kept.c_str(), &contents, nullptr, nullptr);
        EXPECT_STREQ(contents, "precious");
        g_free(contents);
        EXPECT_EQ(files_in(out), std::vector<std::string>({"keep.png"})) << "no temporary file is left";
        GList *children = gtk_container_get_children(
            GTK_CONTAINER(gtk_statusbar_get_message_area(GTK_STATUSBAR(status_bar))));
        std::string text = gtk_label_get_text(GTK_LABEL(children->data));
        g_list_free(children);
        EXPECT_EQ(text.rfind("File open error: ", 0), 0u) << text;

        // A layer that cannot replace its target (here a folder of that name) is not written either.
        g_mkdir((out + "/layer.png").c_str(), 0755);
        g_file_set_contents((out + "/layer.png/inside").c_str(), "x", -1, nullptr);
        std::string layer = out + "/layer";
        EXPECT_EQ(save_surface_to_file(layer.data(), nullptr), 1);
        EXPECT_EQ(files_in(out), std::vector<std::string>({"keep.png", "layer.png"}));
    });
}

TEST(CanvasSave, DialogSavesTheLayerOrTheImageByModeAndProposesTheLastName) {
    std::string out = temp_folder();
    run_keldra({rgba}, [&] {
        drag({{5, 5}, {50, 30}});
        choose_to_save(out, "strokes.jpg", GTK_RESPONSE_ACCEPT);
        g_signal_emit_by_name(tool_item(2), "clicked");
        choose_to_save(out, "photo", 2);
        g_signal_emit_by_name(tool_item(2), "clicked");
        gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0)), TRUE);
        choose_to_save(out, "matte.png", GTK_RESPONSE_ACCEPT);
        g_signal_emit_by_name(tool_item(2), "clicked");
        EXPECT_EQ(files_in(out), std::vector<std::string>({"matte.png", "photo.png", "strokes.png"}));
        GdkPixbuf *layer = load(out + "/strokes.png"), *photo = load(out + "/photo.png"),
                  *matte = load(out + "/matte.png");
        ASSERT_TRUE(layer && photo && matte);
        EXPECT_EQ(rgba_at(layer, 5, 5), 0xFFFFFFFFu);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(photo), 3) << "the image without alpha";
        EXPECT_EQ(rgba_at(matte, 10, 3), rgba_at(pixbuf_alpha, 10, 3));
        g_object_unref(layer);
        g_object_unref(photo);
        g_object_unref(matte);

        std::string proposed;
        answer("Save File", [&, ticks = 0](GtkWidget *dialog) mutable {
            // The chooser reads the proposed folder in the background; give it up to 5 s.
            gchar *name = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(dialog));
            proposed = name != nullptr ? name : "";
            g_free(name);
            if (proposed.rfind(out + "/matte", 0) != 0 && ++ticks < 100) return false;
            gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
            return false;
        });
        g_signal_emit_by_name(tool_item(2), "clicked");
        // Proposed without its extension; the chooser's inline completion may add it back from the folder.
        EXPECT_TRUE(proposed == out + "/matte" || proposed == out + "/matte.png") << proposed;

        // Saving as photo.jpg would replace photo.png: the user is asked first.
        gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0)), FALSE);
        g_file_set_contents((out + "/photo.png").c_str(), "older", -1, nullptr);
        for (int reply : {GTK_RESPONSE_CANCEL, GTK_RESPONSE_ACCEPT}) {
            choose_to_save(out, "photo.jpg", 2);
            answer("Replace File", [reply](GtkWidget *dialog) {
                gtk_dialog_response(GTK_DIALOG(dialog), reply);
                return true;
            });
            g_signal_emit_by_name(tool_item(2), "clicked");
            GdkPixbuf *saved = load(out + "/photo.png");
            EXPECT_EQ(saved != nullptr, reply == GTK_RESPONSE_ACCEPT);
            if (saved != nullptr) g_object_unref(saved);
        }
    });
}

TEST(CanvasSave, CopyPutsTheRegionOnTheClipboard) {
    run_keldra({image}, [] {
        gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0)), TRUE);
        drag({{10, 12}, {29, 21}});
        pixbuf_to_clipboard(nullptr, nullptr);
        GdkPixbuf *copied = gtk_clipboard_wait_for_image(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD));
        ASSERT_NE(copied, nullptr);
        EXPECT_EQ(gdk_pixbuf_get_width(copied), 20);
        EXPECT_EQ(gdk_pixbuf_get_height(copied), 10);
        for (int y = 0; y < 10; y++)
            for (int x = 0; x < 20; x++)
                ASSERT_EQ(rgba_at(copied, x, y) | 255, picture(10 + x, 12 + y));
        g_object_unref(copied);

        press(0, 0);
        pixbuf_to_clipboard(nullptr, nullptr);
        copied = gtk_clipboard_wait_for_image(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD));
        ASSERT_NE(copied, nullptr);
        EXPECT_EQ(gdk_pixbuf_get_width(copied), 60) << "a click selects the whole image again";
        g_object_unref(copied);
    });
}

} // namespace
