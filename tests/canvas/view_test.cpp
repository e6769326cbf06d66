// The zoomed view, edit and view modes, the alpha view and the calculation region.
#include <gdk/gdkkeysyms.h>

#include "canvas/gtk_file_IO.h"
#include "canvas/view.h"
#include "tests/gui_test_support.h"

namespace {

void set_zoom(double percent) {
    set_spin(9, percent);
    pump();
}

// The view's pixel word of image pixel (x, y) of the picture.
uint32_t shown(int x, int y) {
    return 0xFF000000u | picture(x, y) >> 8;
}

TEST(CanvasView, ZoomRebuildsTheViewFrom12_5To400PercentAndTheScreenShowsIt) {
    TempFolder tmp;
    run_keldra({write_image(tmp.path + "/large.png", 1000, 800, false, picture)}, [](GtkWidget *) {
        auto size = [] {
            int w, h;
            gtk_widget_get_size_request(drawing_area, &w, &h);
            EXPECT_TRUE(w == cairo_image_surface_get_width(win_surf) &&
                        h == cairo_image_surface_get_height(win_surf));
            return std::vector<double>({(double)w, (double)h, scale});
        };
        set_zoom(12.5);
        EXPECT_EQ(size(), std::vector<double>({125, 100, 0.125}));
        set_zoom(400);
        EXPECT_EQ(size(), std::vector<double>({4000, 3200, 4}));
        EXPECT_EQ(word_at(win_surf, 4 * 7 + 3, 4 * 5 + 2), shown(7, 5))
            << "an image pixel is a block of 4 by 4";
        drag({{100, 60}, {140, 60}});
        pump(100);
        EXPECT_EQ(screen_at(120, 60), 0xFFFFFFu) << "the stroke on the screen";
        EXPECT_EQ(screen_at(4 * 7 + 3, 4 * 5 + 2), shown(7, 5) & 0xFFFFFF);
        click(11);
        EXPECT_EQ(size(), std::vector<double>({1000, 800, 1}));
    });
}

// The alpha view of an opaque image is white; of an image with alpha x * 4, grey x * 4.
TEST(CanvasView, ModesShowTheirToolsAndImagesAndTheAlphaViewShowsAlphaInGrey) {
    TempFolder tmp;
    const std::string jpeg = write_image(tmp.path + "/opaque.jpg", 64, 48, false, picture, "jpeg");
    const std::string rgba = write_image(tmp.path + "/ramp.png", 64, 48, true,
                                         [](int x, int y) { return (picture(x, y) & ~255u) | x * 4; });
    run_keldra({jpeg}, [&](GtkWidget *) {
        auto visible = [] {
            std::string v;
            for (int i = 3; i <= 14; i++)
                v += gtk_widget_get_visible(tool_item(i)) ? '1' : '0';
            return v;
        };
        EXPECT_EQ(visible(), "011111111111");
        set_view_mode(true);
        EXPECT_TRUE(visible() == "100001111100" && in_edit_mode == 0 && pixbuf_image == pixbuf_alpha &&
                    !canvas_cursor());
        click(3);
        EXPECT_EQ(differences(win_surf, [](int, int) { return 0xFFFFFFFF; }), 0);
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_DEFAULT, toolbar), 0);
        click(3);
        EXPECT_EQ(differences(win_surf, [](int x, int) { return 0xFF000000 + x * 4 * 0x10101u; }), 0);
        set_view_mode(false);
        EXPECT_TRUE(visible() == "011111111111" && in_edit_mode == 1 && pixbuf_image == pixbuf_no_alpha &&
                    canvas_cursor() == blank_cursor);
    });
}

TEST(CanvasView, RegionDragsInEitherDirectionAndAtAnyZoomSelectTheSamePixelsAndShowTheirFrame) {
    TempFolder tmp;
    run_keldra({write_image(tmp.path + "/image.png", 200, 150, false, picture)}, [](GtkWidget *window) {
        auto region = [] { return std::vector<int>({x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI}); };
        set_view_mode(true);
        drag({{20, 30}, {50, 50}, {80, 90}});
        EXPECT_EQ(region(), std::vector<int>({20, 30, 61, 61}));
        press(5, 5);
        EXPECT_EQ(region(), std::vector<int>({0, 0, 200, 150})) << "a click selects the whole image";
        set_zoom(200);
        drag({{160, 180}, {40, 60}});
        EXPECT_EQ(region(), std::vector<int>({20, 30, 61, 61}));
        // Zooming recomputes the window region, and the frame around the same pixels.
        set_zoom(100);
        EXPECT_EQ(std::vector<double>({left_x, top_y, selection_w, selection_h}),
                  std::vector<double>({20, 30, 61, 61}));
        EXPECT_EQ(word_at(win_surf, 19, 29), 0xFF000000u) << "the frame's corner";
        // "Calculate _From Selection" (Ctrl+F) draws the frame red; unchecked, it is erased in edit mode and
        // black in view mode.
        const uint32_t frames[][3] = {{0, 1, 0xFFFF0000},
                                      {0, 0, shown(20, 29)},
                                      {0, 1, 0xFFFF0000},
                                      {1, 1, 0xFFFF0000},
                                      {1, 0, 0xFF000000}};
        for (const auto &[view, checked, word] : frames) {
            set_view_mode(view);
            if (calc_ROI_is_set != (int)checked)
                gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_f, GDK_CONTROL_MASK);
            EXPECT_TRUE(calc_ROI_is_set == (int)checked && word_at(win_surf, 20, 29) == word)
                << std::hex << word;
        }
    });
}

} // namespace
