// Opening images in the three modes, and the refusals.
#include <tuple>

#include "canvas/gtk_file_IO.h"
#include "tests/gui_test_support.h"

namespace {

// Alpha cycles through 255, 0, 254 and 1 across the columns.
uint32_t alpha_columns(int x, int y) {
    static const uint32_t alphas[] = {255, 0, 254, 1};
    return (picture(x, y) & 0xFFFFFF00u) | alphas[x % 4];
}

TEST(CanvasOpen, DefaultOpenSplitsColourAndAlphaAndStartsANewDocumentWithDefaultOptions) {
    TempFolder tmp;
    const std::string opaque = write_image(tmp.path + "/opaque.png", 30, 20, false, picture);
    const std::string rgba = write_image(tmp.path + "/rgba.png", 40, 30, true, alpha_columns);
    run_keldra({opaque}, [&](GtkWidget *) {
        drag({{5, 5}, {15, 5}});
        *pass_option_args = {3, 2, 1e-6, 0.3, 4, 30, 20};
        ASSERT_TRUE(history != nullptr && open_image_file(rgba.c_str(), OPEN_DEFAULT, toolbar) == 0);
        EXPECT_TRUE(history == nullptr && current == nullptr && pixbuf_image == pixbuf_no_alpha);
        EXPECT_TRUE(gdk_pixbuf_get_n_channels(pixbuf_no_alpha) == 3 &&
                    cairo_image_surface_get_width(win_surf) == 40);
        EXPECT_TRUE(differences(pixbuf_alpha, alpha_columns) == 0 &&
                    differences(pixbuf_no_alpha, picture) == 0 &&
                    differences(surf_layer, [](int, int) { return 0; }) == 0);
        const option_args &o = *pass_option_args; // the defaults, the image's size, the whole image as region
        EXPECT_EQ(std::make_tuple(o.levels, o.steps, o.epsilon, o.threshold, o.win_radius, o.img_width,
                                  o.img_height, x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI),
                  std::make_tuple(1, 1, 1e-7, 0.02, 1, 40, 30, 0, 0, 40, 30));
        // Without alpha in the file every pixel of the alpha image is opaque.
        ASSERT_EQ(open_image_file(opaque.c_str(), OPEN_DEFAULT, toolbar), 0);
        EXPECT_TRUE(rgba_at(pixbuf_alpha, 3, 4) == picture(3, 4) && word_at(win_surf, 3, 4) >> 24 == 255);
    });
}

TEST(CanvasOpen, WithAlphaTurnsOpaquePixelsIntoForegroundAndClearOnesIntoBackground) {
    TempFolder tmp;
    const std::string rgba = write_image(tmp.path + "/rgba.png", 40, 30, true, alpha_columns);
    const std::string jpeg = write_image(tmp.path + "/image.jpg", 40, 30, false, picture, "jpeg");
    run_keldra({jpeg}, [&](GtkWidget *) {
        drag({{5, 5}, {15, 5}});
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        ASSERT_TRUE(history != nullptr && initialisinglayer != nullptr) << "this mode keeps the history";
        const uint32_t layer[] = {0xFFFFFFFF, 0xFF000000, 0, 0}, kept[] = {0xFFFFFFFF, 0xFF, 0, 0};
        EXPECT_EQ(differences(surf_layer, [&](int x, int) { return layer[x % 4]; }), 0);
        EXPECT_EQ(differences(initialisinglayer, [&](int x, int) { return kept[x % 4]; }), 0);
        EXPECT_EQ(differences(pixbuf_no_alpha, picture), 0);
        EXPECT_EQ(word_at(win_surf, 4, 4), 0xFFFFFFFFu) << "the view shows the scribbles";
        // A file without alpha opens exactly as "Default open" does, history included.
        ASSERT_EQ(open_image_file(jpeg.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        EXPECT_TRUE(history == nullptr && initialisinglayer == nullptr && word_at(surf_layer, 0, 0) == 0);
    });
}

// The layer file is larger than the image; a red pixel (200, 10, 30) has grey (200 + 30) / 2 = 0x73.
TEST(CanvasOpen, LayerWithoutAlphaMarksThePixelsThatDifferFromTheImageWhereTheyOverlap) {
    TempFolder tmp;
    const std::string image = write_image(tmp.path + "/image.png", 30, 20, false, picture);
    const std::string layer = write_image(tmp.path + "/layer.png", 45, 25, false, [](int x, int y) {
        return x == 3 && y == 4 ? 0xC80A1EFFu
                                : picture(x, y) + (x == 10 && y == 10 ? 0x100 : 0); // blue one off
    });
    run_keldra({image}, [&](GtkWidget *) {
        drag({{25, 15}, {26, 15}});
        ASSERT_EQ(open_image_file(layer.c_str(), OPEN_AS_LAYER, toolbar), 0);
        EXPECT_TRUE(history != nullptr && cairo_image_surface_get_width(surf_layer) == 30);
        const uint32_t p = picture(10, 10), grey = rgb2grey(p >> 24, p >> 16 & 255, (p >> 8 & 255) + 1);
        EXPECT_EQ(differences(surf_layer,
                              [&](int x, int y) {
                                  const uint32_t w = x == 3 && y == 4 ? 0xFF737373u : 0;
                                  return x == 10 && y == 10 ? 0xFF000000u | grey * 0x10101u : w;
                              }),
                  0);
    });
}

TEST(CanvasOpen, UnreadableFilesAndLayersWithoutAnImageChangeNothingAndSayWhy) {
    TempFolder tmp;
    const std::string bad = tmp.path + "/bad.png",
                      layer = write_image(tmp.path + "/l.png", 9, 9, true, picture);
    g_file_set_contents(bad.c_str(), "not an image", -1, nullptr);
    run_keldra({}, [&](GtkWidget *) {
        GdkPixbuf *before = pixbuf_no_alpha;
        for (const auto &[file, mode, status] :
             {std::tuple(bad, OPEN_DEFAULT, 1), std::tuple(layer, OPEN_AS_LAYER, 2)}) {
            std::string shown;
            Answer error("Error", [&](GtkWidget *dialog) {
                return shown = framed_text(dialog), respond(GTK_RESPONSE_NONE)(dialog);
            });
            testing::internal::CaptureStderr();
            EXPECT_EQ(open_image_file(file.c_str(), mode, toolbar), status);
            const std::string err = testing::internal::GetCapturedStderr();
            EXPECT_TRUE(status == 2 ? !shown.empty()
                                    : shown.rfind("File open error: ", 0) == 0 &&
                                          err.rfind("Unable to read file: ", 0) == 0)
                << shown << err;
        }
        EXPECT_TRUE(pixbuf_no_alpha == before && !initialisinglayer &&
                    cairo_image_surface_get_width(surf_layer) == 1);
    });
}

} // namespace
