// The main window as the real program builds it: layout and canvas, the menus and their accelerators,
// and the icon lookup.
#include <gdk/gdkkeysyms.h>
#include <unistd.h>

#include <regex>

#include "app/dialogs.h"
#include "canvas/gtk_file_IO.h"
#include "canvas/strokes.h"
#include "canvas/view.h"
#include "tests/gui_test_support.h"

namespace {

TEST(MainWindow, HoldsTheCanvasWithItsPlaceholdersAndMenusWhoseControlAcceleratorsActivateThem) {
    run_keldra({}, [](GtkWidget *window) {
        EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(window)), "Orvanto");
        std::vector<GtkWidget *> rows = children(gtk_bin_get_child(GTK_BIN(window)));
        EXPECT_TRUE(rows.size() == 4 && GTK_IS_MENU_BAR(rows[0]) && rows[1] == toolbar &&
                    rows[2] == scrolled_window && rows[3] == status_bar && GTK_IS_STATUSBAR(status_bar));
        EXPECT_EQ(gtk_bin_get_child(GTK_BIN(gtk_bin_get_child(GTK_BIN(scrolled_window)))), drawing_area);
        gint w, h;
        gtk_widget_get_size_request(drawing_area, &w, &h);
        EXPECT_TRUE(w == 640 && h == 480 && gtk_widget_get_events(drawing_area) == 0x1000210e);
        EXPECT_EQ(canvas_cursor(), blank_cursor);
        EXPECT_TRUE(pixbuf_image == pixbuf_no_alpha && gdk_pixbuf_get_width(pixbuf_image) == 1 &&
                    !gdk_pixbuf_get_has_alpha(pixbuf_no_alpha) && gdk_pixbuf_get_has_alpha(pixbuf_alpha));
        EXPECT_TRUE(cairo_image_surface_get_width(surf_layer) == 1 &&
                    cairo_image_surface_get_width(win_surf) == 1);
        const struct {
            const char *label;
            GCallback handler;
            gpointer data;
            guint key, mods;
        } entries[] = {
            {GTK_STOCK_OPEN, G_CALLBACK(on_open_image), nullptr, GDK_KEY_o, GDK_CONTROL_MASK},
            {GTK_STOCK_SAVE, G_CALLBACK(on_save_as), nullptr, GDK_KEY_s, GDK_CONTROL_MASK},
            {GTK_STOCK_COPY, G_CALLBACK(pixbuf_to_clipboard), pixbuf_image, GDK_KEY_c, GDK_CONTROL_MASK},
            {GTK_STOCK_UNDO, G_CALLBACK(undo), nullptr, GDK_KEY_z, GDK_CONTROL_MASK},
            {GTK_STOCK_REDO, G_CALLBACK(redo), nullptr, GDK_KEY_Z, GDK_CONTROL_MASK | GDK_SHIFT_MASK},
            {"Calculate _From Selection", G_CALLBACK(toggle_calc_ROI), nullptr, GDK_KEY_f, GDK_CONTROL_MASK},
            {GTK_STOCK_PREFERENCES, G_CALLBACK(gtk_options_dialog_open), pass_option_args, 0, 0},
            {GTK_STOCK_ABOUT, G_CALLBACK(help_about_dialog), window, 0, 0},
            {"Tips", G_CALLBACK(cb_tips), (gpointer)tips_text, 0, 0}};
        std::string menus;
        std::vector<GtkWidget *> items;
        for (GtkWidget *menu : children(children(gtk_bin_get_child(GTK_BIN(window)))[0])) {
            menus += std::string(gtk_menu_item_get_label(GTK_MENU_ITEM(menu))) + " ";
            for (GtkWidget *item : children(gtk_menu_item_get_submenu(GTK_MENU_ITEM(menu))))
                items.push_back(item);
        }
        EXPECT_EQ(menus, "File Edit Help ");
        ASSERT_EQ(items.size(), std::size(entries));
        for (size_t i = 0; i < items.size(); i++) {
            const auto &e = entries[i];
            EXPECT_STREQ(gtk_menu_item_get_label(GTK_MENU_ITEM(items[i])), e.label);
            const gulong handler =
                g_signal_handler_find(items[i], (GSignalMatchType)(G_SIGNAL_MATCH_FUNC | G_SIGNAL_MATCH_DATA),
                                      0, 0, nullptr, (gpointer)e.handler, e.data);
            EXPECT_NE(handler, 0u) << e.label;
            if (handler == 0 || e.key == 0) continue;
            // The accelerator activates the item; its handler, which may open a modal dialog, is held back.
            int count = 0;
            const gulong id =
                g_signal_connect_swapped(items[i], "activate", G_CALLBACK(+[](int *c) { ++*c; }), &count);
            g_signal_handler_block(items[i], handler);
            EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), e.key, (GdkModifierType)e.mods) &&
                        count == 1)
                << e.label;
            g_signal_handler_unblock(items[i], handler);
            g_signal_handler_disconnect(items[i], id);
        }
        EXPECT_TRUE(GTK_IS_CHECK_MENU_ITEM(items[5]));
    });
}

// Runs the program in folder with ICON_DIR icon_dir (unset when null); returns the file names of the
// four icon images.
std::string icon_names(const std::string &folder, const char *icon_dir) {
    std::string names;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr || chdir(folder.c_str()) != 0) return "no folder";
    run_keldra(
        {},
        [&](GtkWidget *) {
            for (int i : {0, 3, 5, 6}) {
                gchar *file = nullptr;
                g_object_get(gtk_tool_button_get_icon_widget(GTK_TOOL_BUTTON(tool_item(i))), "file", &file,
                             nullptr);
                names += " " + std::string(file != nullptr ? file : "");
                g_free(file);
            }
        },
        "", icon_dir);
    return chdir(cwd) == 0 ? names : "no way back";
}

TEST(MainWindow, IconsAreNamedAfterIconDirWithOneSlashAdded) {
    unsetenv("ICON_DIR");
    const std::string icons = " icon_ov16x24.png icon_alpha24x24.png iconFG.png iconBG.png";
    auto named = [&](const std::string &prefix) {
        return std::regex_replace(icons, std::regex(" "), " " + prefix);
    };
    EXPECT_EQ(icon_names(KELDRA_SOURCE_DIR "/icons", nullptr), named("./"));
    EXPECT_EQ(icon_names(KELDRA_SOURCE_DIR, "icons"), named("icons/"));
    EXPECT_EQ(icon_names(KELDRA_SOURCE_DIR, "icons/"), named("icons//"));
    // A folder without the icons still gives a working window, with the toolkit's broken-image icons.
    EXPECT_EQ(icon_names(KELDRA_SOURCE_DIR, "no-such-folder"), "    ");
}

} // namespace
