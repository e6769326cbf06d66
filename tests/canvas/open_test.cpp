#include <gtest/gtest.h>

#include "tests/canvas/canvas_session.h"
#include "canvas/strokes.h"

namespace {

const std::string folder = temp_folder();

// The text of the label inside a frame somewhere in widget (the error dialog's message).
std::string framed_text(GtkWidget *widget) {
    if (GTK_IS_LABEL(widget) && GTK_IS_FRAME(gtk_widget_get_parent(widget)))
        return gtk_label_get_text(GTK_LABEL(widget));
    std::string text;
    if (GTK_IS_CONTAINER(widget)) {
        GList *children = gtk_container_get_children(GTK_CONTAINER(widget));
        for (GList *l = children; l != nullptr && text.empty(); l = l->next)
            text = framed_text(GTK_WIDGET(l->data));
        g_list_free(children);
    }
    return text;
}

// Alpha cycles through 255, 0, 254 and 1 across the columns.
uint32_t alpha_columns(int x, int y) {
    static const uint32_t alphas[] = {255, 0, 254, 1};
    return (picture(x, y) & 0xFFFFFF00u) | alphas[x % 4];
}

TEST(CanvasOpen, DefaultOpenSplitsColourAndAlphaAndStartsANewDocument) {
    std::string first = write_image(folder + "/first.png", 30, 20, false, picture);
    std::string rgba = write_image(folder + "/rgba.png", 40, 30, true, alpha_columns);
    run_keldra({first}, [&] {
        drag({{5, 5}, {15, 5}});
        ASSERT_NE(history, nullptr);
        pass_option_args->levels = 3;
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_DEFAULT, toolbar), 0);
        EXPECT_EQ(history, nullptr);
        EXPECT_EQ(current, nullptr);
        EXPECT_EQ(pixbuf_image, pixbuf_no_alpha);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(pixbuf_no_alpha), 3);
        EXPECT_EQ(gdk_pixbuf_get_n_channels(pixbuf_alpha), 4);
        for (int y = 0; y < 30; y++)
            for (int x = 0; x < 40; x++) {
                ASSERT_EQ(rgba_at(pixbuf_alpha, x, y), alpha_columns(x, y));
                ASSERT_EQ(rgba_at(pixbuf_no_alpha, x, y), picture(x, y));
                ASSERT_EQ(word_at(surf_layer, x, y), 0u);
            }
        EXPECT_EQ(cairo_image_surface_get_width(win_surf), 40);
        EXPECT_EQ(cairo_image_surface_get_height(win_surf), 30);
        EXPECT_EQ(pass_option_args->levels, 1);
        EXPECT_EQ(pass_option_args->img_width, 40);
        EXPECT_EQ(pass_option_args->img_height, 30);
        EXPECT_EQ(std::vector<int>({x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI}),
                  std::vector<int>({0, 0, 40, 30}));

        // Without alpha in the file every pixel of the alpha image is opaque.
        ASSERT_EQ(open_image_file(first.c_str(), OPEN_DEFAULT, toolbar), 0);
        EXPECT_EQ(rgba_at(pixbuf_alpha, 3, 4), picture(3, 4));
        EXPECT_EQ(word_at(win_surf, 3, 4), 0xFF000000u | picture(3, 4) >> 8);
    });
}

TEST(CanvasOpen, WithAlphaTurnsOpaquePixelsIntoForegroundAndClearOnesIntoBackground) {
    std::string image = write_image(folder + "/image.png", 40, 30, false, picture);
    std::string rgba = write_image(folder + "/rgba.png", 40, 30, true, alpha_columns);
    std::string jpeg = write_image(folder + "/image.jpg", 40, 30, false, picture, "jpeg");
    run_keldra({image}, [&] {
        drag({{5, 5}, {15, 5}});
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        EXPECT_NE(history, nullptr) << "this mode keeps the stroke history";
        ASSERT_NE(initialisinglayer, nullptr);
        const uint32_t layer[] = {0xFFFFFFFF, 0xFF000000, 0, 0};
        const uint32_t kept[] = {0xFFFFFFFF, 0x000000FF, 0, 0};
        for (int y = 0; y < 30; y++)
            for (int x = 0; x < 40; x++) {
                ASSERT_EQ(word_at(surf_layer, x, y), layer[x % 4]) << x << "," << y;
                ASSERT_EQ(rgba_at(initialisinglayer, x, y), kept[x % 4]);
                ASSERT_EQ(rgba_at(pixbuf_no_alpha, x, y), picture(x, y));
            }
        EXPECT_EQ(rgba_at(pixbuf_alpha, 2, 0), alpha_columns(2, 0));
        EXPECT_EQ(word_at(win_surf, 4, 4), 0xFFFFFFFFu) << "the view shows the scribbles";

        // A file without alpha opens exactly as "Default open" does, history included.
        ASSERT_EQ(open_image_file(jpeg.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        EXPECT_EQ(history, nullptr);
        EXPECT_EQ(initialisinglayer, nullptr);
        EXPECT_EQ(word_at(surf_layer, 0, 0), 0u);
    });
}

TEST(CanvasOpen, LayerWithoutAlphaMarksExactlyThePixelsThatDifferFromTheImage) {
    std::string image = write_image(folder + "/image.png", 30, 20, false, picture);
    auto changed = [](int x, int y) {
        if (x == 3 && y == 4) return 0xC80A1EFFu;             // a red scribble: grey (200 + 30) / 2
        if (x == 10 && y == 10) return picture(x, y) + 0x100; // blue one step off
        return picture(x, y);
    };
    std::string larger = write_image(folder + "/larger.png", 45, 25, false, changed);
    std::string smaller = write_image(folder + "/smaller.png", 12, 8, false, changed);
    std::string jpeg = write_image(folder + "/copy.jpg", 30, 20, false, picture, "jpeg");
    run_keldra({image}, [&] {
        drag({{25, 15}, {26, 15}});
        pass_option_args->levels = 3;
        ASSERT_EQ(open_image_file(larger.c_str(), OPEN_AS_LAYER, toolbar), 0);
        EXPECT_EQ(pass_option_args->levels, 3) << "a layer leaves the options alone";
        EXPECT_NE(history, nullptr) << "and the history";
        EXPECT_EQ(cairo_image_surface_get_width(surf_layer), 30);
        EXPECT_EQ(gdk_pixbuf_get_width(initialisinglayer), 30) << "only the overlap is used";
        int g =
            rgb2grey(picture(10, 10) >> 24, picture(10, 10) >> 16 & 255, (picture(10, 10) >> 8 & 255) + 1);
        for (int y = 0; y < 20; y++)
            for (int x = 0; x < 30; x++) {
                uint32_t expected = x == 3 && y == 4     ? 0xFF737373u
                                    : x == 10 && y == 10 ? 0xFF000000u | g * 0x10101u
                                                         : 0u;
                ASSERT_EQ(word_at(surf_layer, x, y), expected) << x << "," << y;
            }

        ASSERT_EQ(open_image_file(smaller.c_str(), OPEN_AS_LAYER, toolbar), 0);
        EXPECT_EQ(gdk_pixbuf_get_height(initialisinglayer), 8);
        EXPECT_EQ(word_at(surf_layer, 3, 4), 0xFF737373u);
        EXPECT_EQ(word_at(surf_layer, 10, 10), 0u) << "outside the smaller file the layer stays transparent";

        // A lossy copy differs from the image nearly everywhere, so nearly every pixel is a scribble.
        ASSERT_EQ(open_image_file(jpeg.c_str(), OPEN_AS_LAYER, toolbar), 0);
        int scribbles = 0;
        for (uint32_t w : all_words(surf_layer))
            scribbles += w >> 24 == 255;
        EXPECT_GT(scribbles, 30 * 20 * 9 / 10);
    });
}

TEST(CanvasOpen, UnreadableFilesAndLayersWithoutAnImageChangeNothing) {
    std::string bad = folder + "/bad.png";
    g_file_set_contents(bad.c_str(), "not an image", -1, nullptr);
    std::string layer = write_image(folder + "/layer.png", 10, 10, true, alpha_columns);
    run_keldra({}, [&] {
        std::vector<std::string> shown;
        auto read_error = [&](GtkWidget *dialog) {
            shown.push_back(framed_text(dialog));
            gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_NONE);
            return true;
        };
        GdkPixbuf *before = pixbuf_no_alpha;
        answer("Error", read_error);
        testing::internal::CaptureStderr();
        EXPECT_EQ(open_image_file(bad.c_str(), OPEN_DEFAULT, toolbar), 1);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.rfind("Unable to read file: ", 0), 0u) << err;
        answer("Error", read_error);
        EXPECT_EQ(open_image_file(layer.c_str(), OPEN_AS_LAYER, toolbar), 2);
        ASSERT_EQ(shown.size(), 2u);
        EXPECT_EQ(shown[0].rfind("File open error: ", 0), 0u) << shown[0];
        EXPECT_EQ(pixbuf_no_alpha, before);
        EXPECT_EQ(initialisinglayer, nullptr);
        EXPECT_EQ(cairo_image_surface_get_width(surf_layer), 1);
    });
}

TEST(CanvasOpen, ChooserOpensInTheChosenModeAndRemembersTheFolder) {
    std::string sub = temp_folder();
    std::string rgba = write_image(sub + "/rgba.png", 16, 12, true, alpha_columns);
    run_keldra({}, [&] {
        choose_to_open(rgba, OPEN_WITH_ALPHA);
        g_signal_emit_by_name(tool_item(1), "clicked");
        EXPECT_EQ(gdk_pixbuf_get_width(pixbuf_image), 16);
        EXPECT_EQ(word_at(surf_layer, 1, 0), 0xFF000000u);
        EXPECT_EQ(gdk_window_get_cursor(gtk_widget_get_window(drawing_area)), blank_cursor);

        std::string shown_folder;
        answer("Open image", [&, ticks = 0](GtkWidget *dialog) mutable {
            gchar *f = gtk_file_chooser_get_current_folder(GTK_FILE_CHOOSER(dialog));
            shown_folder = f != nullptr ? f : "";
            g_free(f);
            if (shown_folder.empty() && ++ticks < 100) return false; // still reading the folder
            gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
            return true;
        });
        g_signal_emit_by_name(tool_item(1), "clicked");
        EXPECT_EQ(shown_folder, sub);
        EXPECT_EQ(gdk_pixbuf_get_width(pixbuf_image), 16);
    });
}

TEST(CanvasOpen, CommandLineOpensTheBundledSampleWithItsScribbles) {
    run_keldra({KELDRA_SOURCE_DIR "/samples/pompom.jpg", KELDRA_SOURCE_DIR "/samples/pompom-scribbles.png"},
               [] {
                   EXPECT_EQ(gdk_pixbuf_get_width(pixbuf_no_alpha), 640);
                   EXPECT_EQ(gdk_pixbuf_get_height(pixbuf_no_alpha), 480);
                   ASSERT_NE(initialisinglayer, nullptr);
                   EXPECT_EQ(word_at(surf_layer, 373, 228), 0xFFFFFFFFu) << "a foreground loop";
                   EXPECT_EQ(word_at(surf_layer, 200, 28), 0xFF000000u) << "a background stroke";
                   EXPECT_EQ(word_at(surf_layer, 318, 100), 0u) << "the hairy rim is left unknown";
                   for (uint32_t w : all_words(surf_layer))
                       ASSERT_TRUE(w == 0 || w == 0xFFFFFFFF || w == 0xFF000000) << std::hex << w;
               });
}

} // namespace
