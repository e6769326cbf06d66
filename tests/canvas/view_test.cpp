#include <gtest/gtest.h>

#include "tests/canvas/canvas_session.h"
#include "canvas/view.h"

namespace {

const std::string folder = temp_folder();
const std::string image = write_image(folder + "/image.png", 200, 150, false, picture);

GtkAdjustment *zoom() {
    return gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool_item(9)))));
}

void set_view_mode(bool view) {
    gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0)), view);
    pump();
}

// Edit, "Calculate _From Selection", found through the window's menu bar.
GtkWidget *calc_from_selection_item() {
    GtkWidget *vbox = gtk_bin_get_child(GTK_BIN(gtk_widget_get_toplevel(drawing_area)));
    GList *boxed = gtk_container_get_children(GTK_CONTAINER(vbox));
    GList *menus = gtk_container_get_children(GTK_CONTAINER(boxed->data));
    GtkWidget *found = nullptr;
    for (GList *m = menus; m != nullptr; m = m->next) {
        GtkWidget *submenu = gtk_menu_item_get_submenu(GTK_MENU_ITEM(m->data));
        GList *items = gtk_container_get_children(GTK_CONTAINER(submenu));
        for (GList *i = items; i != nullptr; i = i->next)
            if (GTK_IS_CHECK_MENU_ITEM(i->data)) found = GTK_WIDGET(i->data);
        g_list_free(items);
    }
    g_list_free(menus);
    g_list_free(boxed);
    return found;
}

std::vector<int> image_region() {
    return {x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI};
}

TEST(CanvasView, ZoomRebuildsTheViewFrom12_5To400Percent) {
    std::string large = write_image(folder + "/large.png", 1000, 800, false, picture);
    run_keldra({large}, [] {
        auto size = [] {
            int w, h;
            gtk_widget_get_size_request(drawing_area, &w, &h);
            EXPECT_EQ(w, cairo_image_surface_get_width(win_surf));
            EXPECT_EQ(h, cairo_image_surface_get_height(win_surf));
            return std::make_pair(w, h);
        };
        gtk_adjustment_set_value(zoom(), 12.5);
        EXPECT_EQ(size(), std::make_pair(125, 100));
        EXPECT_EQ(scale, 0.125);
        gtk_adjustment_set_value(zoom(), 400);
        EXPECT_EQ(size(), std::make_pair(4000, 3200));
        EXPECT_EQ(word_at(win_surf, 4 * 7 + 3, 4 * 5 + 2), 0xFF000000u | picture(7, 5) >> 8)
            << "zoomed in, an image pixel is a block of 4 by 4";
        g_signal_emit_by_name(tool_item(11), "clicked");
        EXPECT_EQ(size(), std::make_pair(1000, 800));
        EXPECT_EQ(scale, 1.0);
    });
}

TEST(CanvasView, ModeSwitchShowsTheToolsOfEachMode) {
    run_keldra({image}, [] {
        auto visible = [] {
            std::string v;
            for (int i = 3; i <= 14; i++)
                v += gtk_widget_get_visible(tool_item(i)) ? '1' : '0';
            return v;
        };
        EXPECT_EQ(visible(), "011111111111");
        set_view_mode(true);
        EXPECT_EQ(in_edit_mode, 0);
        EXPECT_EQ(visible(), "100001111100");
        EXPECT_EQ(pixbuf_image, pixbuf_alpha);
        EXPECT_EQ(gdk_window_get_cursor(gtk_widget_get_window(drawing_area)), nullptr);
        set_view_mode(false);
        EXPECT_EQ(in_edit_mode, 1);
        EXPECT_EQ(visible(), "011111111111");
        EXPECT_EQ(pixbuf_image, pixbuf_no_alpha);
        EXPECT_EQ(gdk_window_get_cursor(gtk_widget_get_window(drawing_area)), blank_cursor);
    });
}

TEST(CanvasView, AlphaViewShowsTheAlphaChannelInGrey) {
    std::string jpeg = write_image(folder + "/opaque.jpg", 64, 48, false, picture, "jpeg");
    std::string rgba = write_image(folder + "/ramp.png", 64, 48, true,
                                   [](int x, int y) { return (picture(x, y) & 0xFFFFFF00u) | x * 4; });
    run_keldra({jpeg}, [&] {
        set_view_mode(true);
        g_signal_emit_by_name(tool_item(3), "clicked");
        for (uint32_t w : all_words(win_surf))
            ASSERT_EQ(w, 0xFFFFFFFFu);
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_DEFAULT, toolbar), 0);
        g_signal_emit_by_name(tool_item(3), "clicked");
        EXPECT_EQ(word_at(win_surf, 10, 5), 0xFF282828u);
        EXPECT_EQ(word_at(win_surf, 63, 40), 0xFFFCFCFCu);
        screenshot("alpha-view");
    });
}

TEST(CanvasView, RegionDragsInEitherDirectionSelectTheSameRegion) {
    run_keldra({image}, [] {
        set_view_mode(true);
        drag({{20, 30}, {50, 50}, {80, 90}});
        EXPECT_EQ(image_region(), std::vector<int>({20, 30, 61, 61}));
        drag({{80, 90}, {20, 30}});
        EXPECT_EQ(image_region(), std::vector<int>({20, 30, 61, 61}));
        EXPECT_EQ(word_at(win_surf, 19, 29), 0xFF000000u) << "the frame's corner";

        press(5, 5);
        pump();
        EXPECT_EQ(image_region(), std::vector<int>({0, 0, 200, 150})) << "a click selects the whole image";

        gtk_adjustment_set_value(zoom(), 200);
        drag({{160, 180}, {40, 60}});
        EXPECT_EQ(image_region(), std::vector<int>({20, 30, 61, 61}));
        GdkPixbuf *sub = ref_ROI(pixbuf_image);
        EXPECT_EQ(gdk_pixbuf_get_width(sub), 60) << "ref_ROI truncates where the image region rounds";
        EXPECT_EQ(gdk_pixbuf_get_pixels(sub), gdk_pixbuf_get_pixels(pixbuf_image) +
                                                  30 * gdk_pixbuf_get_rowstride(pixbuf_image) +
                                                  20 * gdk_pixbuf_get_n_channels(pixbuf_image));
        g_object_unref(sub);

        // Zooming recomputes the window form, and the frame around the same pixels.
        gtk_adjustment_set_value(zoom(), 100);
        EXPECT_EQ(std::vector<double>({left_x, top_y, selection_w, selection_h}),
                  std::vector<double>({20, 30, 61, 61}));
        EXPECT_EQ(word_at(win_surf, 19, 29), 0xFF000000u);
    });
}

TEST(CanvasView, CalculateFromSelectionDrawsTheFrameRedAndUncheckingRemovesOrBlackensIt) {
    run_keldra({image}, [] {
        set_view_mode(true);
        drag({{20, 30}, {80, 90}});
        set_view_mode(false);
        GtkWidget *item = calc_from_selection_item();
        ASSERT_NE(item, nullptr);
        gtk_menu_item_activate(GTK_MENU_ITEM(item));
        EXPECT_EQ(calc_ROI_is_set, 1);
        EXPECT_EQ(word_at(win_surf, 20, 29), 0xFFFF0000u);
        gtk_menu_item_activate(GTK_MENU_ITEM(item));
        EXPECT_EQ(calc_ROI_is_set, 0);
        EXPECT_EQ(word_at(win_surf, 20, 29), 0xFF000000u | picture(20, 29) >> 8) << "erased in edit mode";
        gtk_menu_item_activate(GTK_MENU_ITEM(item));
        set_view_mode(true);
        EXPECT_EQ(word_at(win_surf, 20, 29), 0xFFFF0000u);
        gtk_menu_item_activate(GTK_MENU_ITEM(item));
        EXPECT_EQ(word_at(win_surf, 20, 29), 0xFF000000u) << "black in view mode";
    });
}

TEST(CanvasView, ExposeShowsThePaintedViewAtEveryZoom) {
    run_keldra({KELDRA_SOURCE_DIR "/samples/pompom.jpg", KELDRA_SOURCE_DIR "/samples/pompom-scribbles.png"},
               [] {
                   // Large enough for the view at 200 %, and wholly on the 1280 by 1024 screen.
                   gtk_window_move(GTK_WINDOW(gtk_widget_get_toplevel(drawing_area)), 0, 0);
                   gtk_window_resize(GTK_WINDOW(gtk_widget_get_toplevel(drawing_area)), 1200, 900);
                   pump(200);
                   drag({{250, 150}, {300, 170}, {390, 160}});
                   g_signal_emit_by_name(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), 6), "clicked");
                   drag({{560, 200}, {570, 300}});
                   motion(420, 300, 0);
                   pump(100);
                   EXPECT_EQ(screen_at(300, 170), 0xFFFFFFu);
                   EXPECT_EQ(screen_at(565, 250), 0x000000u);
                   EXPECT_EQ(screen_at(100, 300), word_at(win_surf, 100, 300) & 0xFFFFFF);
                   screenshot("painted-100");
                   gtk_adjustment_set_value(zoom(), 200);
                   pump(100);
                   EXPECT_EQ(screen_at(2 * 300, 2 * 170), 0xFFFFFFu);
                   screenshot("painted-200");
               });
}

} // namespace
