// The main window as the real program builds it: layout and canvas, the menus and their accelerators,
// and the icon lookup.
#include <gdk/gdkkeysyms.h>
#include <unistd.h>

#include <tuple>

#include "app/dialogs.h"
#include "canvas/gtk_file_IO.h"
#include "canvas/strokes.h"
#include "canvas/view.h"
#include "tests/gui_test_support.h"

namespace {

TEST(MainWindow, HoldsTheCanvasWithItsPlaceholdersAndMenusWhoseControlAcceleratorsActivateThem) {
    run_keldra({}, [](GtkWidget *window) {
        gint w, h;
        gtk_widget_get_size_request(drawing_area, &w, &h);
        EXPECT_TRUE(w == 640 && h == 480 && gtk_widget_get_events(drawing_area) == 0x1000210e);
        EXPECT_TRUE(canvas_cursor() == blank_cursor && pixbuf_image == pixbuf_no_alpha &&
                    gdk_pixbuf_get_width(pixbuf_alpha) == 1 &&
                    cairo_image_surface_get_width(surf_layer) == 1);
        // Each item's label, handler and its data, and its accelerator's key with Control (and Shift for Z).
        const std::tuple<const char *, GCallback, gpointer, guint> entries[] = {
            {GTK_STOCK_OPEN, G_CALLBACK(on_open_image), nullptr, GDK_KEY_o},
            {GTK_STOCK_SAVE, G_CALLBACK(on_save_as), nullptr, GDK_KEY_s},
            {GTK_STOCK_COPY, G_CALLBACK(pixbuf_to_clipboard), pixbuf_image, GDK_KEY_c},
            {GTK_STOCK_UNDO, G_CALLBACK(undo), nullptr, GDK_KEY_z},
            {GTK_STOCK_REDO, G_CALLBACK(redo), nullptr, GDK_KEY_Z},
            {"Calculate _From Selection", G_CALLBACK(toggle_calc_ROI), nullptr, GDK_KEY_f},
            {GTK_STOCK_PREFERENCES, G_CALLBACK(gtk_options_dialog_open), pass_option_args, 0},
            {GTK_STOCK_ABOUT, G_CALLBACK(help_about_dialog), window, 0},
            {"Tips", G_CALLBACK(cb_tips), (gpointer)tips_text, 0}};
        std::vector<GtkWidget *> items; // of File, Edit and Help
        for (GtkWidget *menu : children(children(gtk_bin_get_child(GTK_BIN(window)))[0]))
            for (GtkWidget *item : children(gtk_menu_item_get_submenu(GTK_MENU_ITEM(menu))))
                items.push_back(item);
        ASSERT_EQ(items.size(), std::size(entries));
        for (size_t i = 0; i < items.size(); i++) {
            const auto &[label, callback, data, key] = entries[i];
            EXPECT_STREQ(gtk_menu_item_get_label(GTK_MENU_ITEM(items[i])), label);
            const gulong handler =
                g_signal_handler_find(items[i], (GSignalMatchType)(G_SIGNAL_MATCH_FUNC | G_SIGNAL_MATCH_DATA),
                                      0, 0, nullptr, (gpointer)callback, data);
            EXPECT_NE(handler, 0u) << label;
            if (handler == 0 || key == 0) continue;
            // The accelerator activates the item; its handler, which may open a modal dialog, is held back.
            int count = 0;
            const gulong id =
                g_signal_connect_swapped(items[i], "activate", G_CALLBACK(+[](int *c) { ++*c; }), &count);
            const guint mods = GDK_CONTROL_MASK | (key == GDK_KEY_Z ? GDK_SHIFT_MASK : 0);
            g_signal_handler_block(items[i], handler);
            EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), key, (GdkModifierType)mods) && count == 1)
                << label;
            g_signal_handler_unblock(items[i], handler);
            g_signal_handler_disconnect(items[i], id);
        }
    });
}

// Every toolbar item in its place, with its tooltip on the widget that carries it, and the zoom and
// brush adjustments as built; ALPHA is hidden until view mode.
TEST(MainWindow, ToolbarItemsTooltipsAndAdjustmentsAreAsBuilt) {
    run_keldra({}, [](GtkWidget *) {
        enum On { ITEM, ICON, CHILD };
        const std::tuple<GType, const char *, On> items[] = {
            {GTK_TYPE_TOGGLE_TOOL_BUTTON, "toggle between <i>edit</i> and <i>view</i> modes", ITEM},
            {GTK_TYPE_TOOL_BUTTON, "Open an image file", ITEM},
            {GTK_TYPE_TOOL_BUTTON, "Save image", ITEM},
            {GTK_TYPE_TOOL_BUTTON, "View alpha channel as 256 shades of grey.", ICON},
            {GTK_TYPE_TOOL_BUTTON, "Calculate / Pull the matte.", ITEM},
            {GTK_TYPE_TOOL_BUTTON, "Select foreground with white brush strokes.", ICON},
            {GTK_TYPE_TOOL_BUTTON, "Select background with black brush strokes.", ICON},
            {GTK_TYPE_TOOL_BUTTON, "Erase brush strokes.", ITEM},
            {GTK_TYPE_TOOL_ITEM, "Select regions with an alternate transparency.", CHILD},
            {GTK_TYPE_TOOL_ITEM, "Scale image view between 12.5% - 400%.", ITEM},
            {GTK_TYPE_TOOL_ITEM, "Drag to scale image view between 12.5% - 400%.", ITEM},
            {GTK_TYPE_TOOL_BUTTON, "Reset scale to 100%.", ITEM},
            {GTK_TYPE_SEPARATOR_TOOL_ITEM, nullptr, ITEM},
            {GTK_TYPE_TOOL_ITEM, "Set brush size.", ITEM},
            {GTK_TYPE_TOOL_ITEM, "Drag to set brush size.", ITEM}};
        ASSERT_EQ(gtk_toolbar_get_n_items(GTK_TOOLBAR(toolbar)), (gint)std::size(items));
        for (int i = 0; i < (int)std::size(items); i++) {
            const auto &[type, tip, on] = items[i];
            GtkWidget *item = tool_item(i);
            EXPECT_EQ(G_OBJECT_TYPE(item), type) << i;
            GtkWidget *carrier = on == ITEM   ? item
                                 : on == ICON ? gtk_tool_button_get_icon_widget(GTK_TOOL_BUTTON(item))
                                              : gtk_bin_get_child(GTK_BIN(item));
            gchar *markup = gtk_widget_get_tooltip_markup(carrier);
            EXPECT_STREQ(markup, tip) << i;
            g_free(markup);
        }
        EXPECT_FALSE(gtk_widget_get_visible(tool_item(3)));
        const std::tuple<int, double, double, double, double, double> adjustments[] = {
            {9, 100.0, 12.5, 400.0, 12.5, 25.0}, {13, 10.0, 1.0, 1024.0, 1.0, 5.0}};
        for (const auto &[n, value, lower, upper, step, page] : adjustments) {
            GtkAdjustment *a =
                gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool_item(n)))));
            EXPECT_TRUE(gtk_adjustment_get_value(a) == value && gtk_adjustment_get_lower(a) == lower &&
                        gtk_adjustment_get_upper(a) == upper &&
                        gtk_adjustment_get_step_increment(a) == step &&
                        gtk_adjustment_get_page_increment(a) == page && gtk_adjustment_get_page_size(a) == 0)
                << n;
            EXPECT_EQ(gtk_range_get_adjustment(GTK_RANGE(gtk_bin_get_child(GTK_BIN(tool_item(n + 1))))), a);
        }
    });
}

// The file names of the toolbar's four icon images in a run of the program in folder with ICON_DIR
// icon_dir (unset when null).
std::string icon_names(const char *folder, const char *icon_dir) {
    std::string names;
    char cwd[4096];
    EXPECT_TRUE(getcwd(cwd, sizeof cwd) && chdir(folder) == 0);
    run_keldra(
        {},
        [&](GtkWidget *) {
            for (int i : {0, 3, 5, 6}) {
                gchar *file = nullptr;
                g_object_get(gtk_tool_button_get_icon_widget(GTK_TOOL_BUTTON(tool_item(i))), "file", &file,
                             nullptr);
                names += std::string(file != nullptr ? file : "") + " ";
                g_free(file);
            }
        },
        "", icon_dir);
    EXPECT_EQ(chdir(cwd), 0);
    return names;
}

TEST(MainWindow, IconsAreNamedAfterIconDirWithOneSlashAdded) {
    unsetenv("ICON_DIR");
    for (const auto &[folder, dir, p] :
         {std::tuple(KELDRA_SOURCE_DIR "/icons", (const char *)nullptr, std::string("./")),
          std::tuple(KELDRA_SOURCE_DIR, "icons", std::string("icons/")),
          std::tuple(KELDRA_SOURCE_DIR, "icons/", std::string("icons//"))})
        EXPECT_EQ(icon_names(folder, dir), p + "icon_ov16x24.png " + p + "icon_alpha24x24.png " + p +
                                               "iconFG.png " + p + "iconBG.png ");
}

} // namespace
