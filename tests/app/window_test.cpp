// The main window as the real program builds it: layout, canvas, menus and accelerators, toolbar,
// adjustments, icon lookup. Each test runs keldra_main and inspects the window from a
// timeout before closing it by its close box.
#include <gdk/gdkkeysyms.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>

#include "app/dialogs.h"
#include "app/options.h"
#include "canvas/brush.h"
#include "canvas/gtk_file_IO.h"
#include "canvas/strokes.h"
#include "canvas/view.h"
#include "tests/app/gui_helpers.h"

namespace {

// Runs the program with HOME in a fresh folder; checks runs on the shown main window, which is then
// closed. The program must end with status 0.
void run_program(std::function<void(GtkWidget *)> checks) {
    TempFolder home;
    std::string saved = getenv("HOME");
    setenv("HOME", home.path.c_str(), 1);
    when_shown("Orvanto", [&](GtkWidget *window) {
        checks(window);
        close_box(window);
    });
    char name[] = "keldra";
    char *argv[] = {name, nullptr};
    EXPECT_EQ(keldra_main(1, argv), 0);
    setenv("HOME", saved.c_str(), 1);
}

bool connected(gpointer instance, const char *signal, GCallback handler, gpointer data) {
    guint id;
    GQuark detail;
    if (!g_signal_parse_name(signal, G_OBJECT_TYPE(instance), &id, &detail, FALSE)) return false;
    return g_signal_handler_find(
               instance, (GSignalMatchType)(G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_FUNC | G_SIGNAL_MATCH_DATA),
               id, 0, nullptr, (gpointer)handler, data) != 0;
}

GtkToolItem *tool(int n) {
    return gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), n);
}

std::string markup(GtkWidget *widget) {
    gchar *text = gtk_widget_get_tooltip_markup(widget);
    std::string s = text != nullptr ? text : "";
    g_free(text);
    return s;
}

std::string image_file(GtkWidget *image) {
    gchar *file = nullptr;
    g_object_get(image, "file", &file, nullptr);
    std::string s = file != nullptr ? file : "";
    g_free(file);
    return s;
}

GtkWidget *icon_of(int n) {
    return gtk_tool_button_get_icon_widget(GTK_TOOL_BUTTON(tool(n)));
}

TEST(MainWindow, LayoutCanvasAndSignalsAsBuilt) {
    setenv("ICON_DIR", KELDRA_ICON_FOLDER, 1); // for a screenshot with the real icons
    run_program([](GtkWidget *window) {
        EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(window)), "Orvanto");
        gint w, h;
        gtk_window_get_default_size(GTK_WINDOW(window), &w, &h);
        EXPECT_TRUE(w == 720 && h == 480);
        GtkWindowPosition position;
        g_object_get(window, "window-position", &position, nullptr);
        EXPECT_EQ(position, GTK_WIN_POS_CENTER);

        GtkWidget *vbox = gtk_bin_get_child(GTK_BIN(window));
        ASSERT_TRUE(GTK_IS_VBOX(vbox));
        EXPECT_FALSE(gtk_box_get_homogeneous(GTK_BOX(vbox)));
        EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(vbox)), 0);
        std::vector<GtkWidget *> rows = children(vbox);
        ASSERT_EQ(rows.size(), 4u);
        EXPECT_TRUE(GTK_IS_MENU_BAR(rows[0]));
        EXPECT_EQ(rows[1], toolbar);
        EXPECT_EQ(rows[2], scrolled_window);
        EXPECT_EQ(rows[3], status_bar);
        EXPECT_TRUE(GTK_IS_STATUSBAR(status_bar));
        const gboolean packing[4][2] = {{FALSE, FALSE}, {FALSE, FALSE}, {TRUE, TRUE}, {FALSE, TRUE}};
        for (int i = 0; i < 4; i++) {
            gboolean expand, fill;
            guint padding;
            GtkPackType pack;
            gtk_box_query_child_packing(GTK_BOX(vbox), rows[i], &expand, &fill, &padding, &pack);
            EXPECT_TRUE(expand == packing[i][0] && fill == packing[i][1] && padding == 0 &&
                        pack == GTK_PACK_START)
                << "row " << i;
        }

        GtkPolicyType hp, vp;
        gtk_scrolled_window_get_policy(GTK_SCROLLED_WINDOW(scrolled_window), &hp, &vp);
        EXPECT_TRUE(hp == GTK_POLICY_AUTOMATIC && vp == GTK_POLICY_AUTOMATIC);
        GtkWidget *viewport = gtk_bin_get_child(GTK_BIN(scrolled_window));
        ASSERT_TRUE(GTK_IS_VIEWPORT(viewport));
        EXPECT_EQ(gtk_bin_get_child(GTK_BIN(viewport)), drawing_area);
        ASSERT_TRUE(GTK_IS_DRAWING_AREA(drawing_area));
        gtk_widget_get_size_request(drawing_area, &w, &h);
        EXPECT_TRUE(w == 640 && h == 480);
        EXPECT_EQ(gtk_widget_get_events(drawing_area), 0x1000210e);
        EXPECT_EQ(gdk_window_get_cursor(gtk_widget_get_window(drawing_area)), blank_cursor);
        // No image yet: the canvas holds the 1 by 1 placeholders.
        EXPECT_TRUE(pixbuf_image == pixbuf_no_alpha && gdk_pixbuf_get_width(pixbuf_image) == 1 &&
                    !gdk_pixbuf_get_has_alpha(pixbuf_no_alpha) && gdk_pixbuf_get_has_alpha(pixbuf_alpha));
        EXPECT_TRUE(cairo_image_surface_get_width(surf_layer) == 1 &&
                    cairo_image_surface_get_width(win_surf) == 1);

        EXPECT_TRUE(connected(drawing_area, "expose_event", G_CALLBACK(on_expose_event), nullptr));
        EXPECT_TRUE(connected(drawing_area, "configure_event", G_CALLBACK(configure_event), nullptr));
        EXPECT_TRUE(connected(drawing_area, "motion_notify_event", G_CALLBACK(motion_notify_event), nullptr));
        EXPECT_TRUE(connected(drawing_area, "button_press_event", G_CALLBACK(button_press_event), nullptr));
        EXPECT_EQ(signal_ID, g_signal_handler_find(drawing_area, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                                   (gpointer)button_press_event, nullptr));
        EXPECT_TRUE(connected(window, "delete_event", G_CALLBACK(cb_delete_event_with_persistence), nullptr));
        EXPECT_TRUE(connected(window, "destroy", G_CALLBACK(destroy), nullptr));
        screenshot(window, "main_window");
    });
    unsetenv("ICON_DIR");
}

struct MenuEntry {
    const char *label; // stock id, or the label text
    bool stock;
    GCallback handler;
    gpointer data;
    guint key;
    GdkModifierType mods;
};

TEST(MainWindow, MenusRunTheirHandlersFromControlAccelerators) {
    run_program([](GtkWidget *window) {
        GtkWidget *menubar = children(gtk_bin_get_child(GTK_BIN(window)))[0];
        std::vector<GtkWidget *> tops = children(menubar);
        ASSERT_EQ(tops.size(), 3u);
        const char *names[] = {"File", "Edit", "Help"};
        const GdkModifierType ctrl = GDK_CONTROL_MASK;
        const GdkModifierType none = (GdkModifierType)0;
        const std::vector<MenuEntry> menus[3] = {
            {{GTK_STOCK_OPEN, true, G_CALLBACK(on_open_image), nullptr, GDK_KEY_o, ctrl},
             {GTK_STOCK_SAVE, true, G_CALLBACK(on_save_as), nullptr, GDK_KEY_s, ctrl}},
            {{GTK_STOCK_COPY, true, G_CALLBACK(pixbuf_to_clipboard), pixbuf_image, GDK_KEY_c, ctrl},
             {GTK_STOCK_UNDO, true, G_CALLBACK(undo), nullptr, GDK_KEY_z, ctrl},
             {GTK_STOCK_REDO, true, G_CALLBACK(redo), nullptr, GDK_KEY_Z,
              (GdkModifierType)(GDK_CONTROL_MASK | GDK_SHIFT_MASK)},
             {"Calculate _From Selection", false, G_CALLBACK(toggle_calc_ROI), nullptr, GDK_KEY_f, ctrl},
             {GTK_STOCK_PREFERENCES, true, G_CALLBACK(gtk_options_dialog_open), pass_option_args, 0, none}},
            {{GTK_STOCK_ABOUT, true, G_CALLBACK(help_about_dialog), window, 0, none},
             {"Tips", false, G_CALLBACK(cb_tips), (gpointer)tips_text, 0, none}}};
        GSList *groups = gtk_accel_groups_from_object(G_OBJECT(window));
        ASSERT_EQ(g_slist_length(groups), 1u);
        GtkAccelGroup *group = GTK_ACCEL_GROUP(groups->data);

        for (int m = 0; m < 3; m++) {
            ASSERT_TRUE(GTK_IS_MENU_ITEM(tops[m]));
            EXPECT_FALSE(GTK_IS_IMAGE_MENU_ITEM(tops[m]));
            EXPECT_STREQ(gtk_menu_item_get_label(GTK_MENU_ITEM(tops[m])), names[m]);
            std::vector<GtkWidget *> items = children(gtk_menu_item_get_submenu(GTK_MENU_ITEM(tops[m])));
            ASSERT_EQ(items.size(), menus[m].size()) << names[m];
            for (size_t i = 0; i < items.size(); i++) {
                const MenuEntry &e = menus[m][i];
                GtkWidget *item = items[i];
                EXPECT_STREQ(gtk_menu_item_get_label(GTK_MENU_ITEM(item)), e.label);
                if (GTK_IS_IMAGE_MENU_ITEM(item)) {
                    EXPECT_EQ(gtk_image_menu_item_get_use_stock(GTK_IMAGE_MENU_ITEM(item)), e.stock)
                        << e.label;
                } else {
                    EXPECT_TRUE(GTK_IS_CHECK_MENU_ITEM(item) &&
                                gtk_menu_item_get_use_underline(GTK_MENU_ITEM(item)))
                        << e.label;
                }
                EXPECT_TRUE(connected(item, "activate", e.handler, e.data)) << e.label;
                if (e.key == 0) continue;

                guint n = 0;
                GtkAccelGroupEntry *entries = gtk_accel_group_query(group, e.key, e.mods, &n);
                ASSERT_GE(n, 1u) << e.label;
                EXPECT_TRUE(entries[0].key.accel_flags & GTK_ACCEL_VISIBLE) << e.label;

                // The accelerator activates this item; its real handler is held back meanwhile, since it
                // may open a modal dialog.
                int count = 0;
                gulong counter =
                    g_signal_connect_swapped(item, "activate", G_CALLBACK(+[](int *c) { ++*c; }), &count);
                g_signal_handlers_block_matched(item, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, (gpointer)e.handler,
                                                nullptr);
                EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), e.key, e.mods)) << e.label;
                EXPECT_EQ(count, 1) << e.label;
                g_signal_handlers_unblock_matched(item, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                                  (gpointer)e.handler, nullptr);
                g_signal_handler_disconnect(item, counter);
            }
        }
        // No accelerator is left on the Meta modifier, which has no key on this platform.
        EXPECT_FALSE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_o, GDK_META_MASK));
    });
}

struct ToolEntry {
    GType type;
    const char *stock_or_label; // stock id, or label of a tool button with an icon
    const char *tooltip;
    int tooltip_on; // 0 the item, 1 its icon image, 2 its child widget
    GCallback handler;
    gpointer data;
};

TEST(MainWindow, ToolbarItemsInOrderWithTooltipsAndHandlers) {
    run_program([](GtkWidget *window) {
        ASSERT_TRUE(GTK_IS_TOOLBAR(toolbar));
        EXPECT_EQ(gtk_toolbar_get_style(GTK_TOOLBAR(toolbar)), GTK_TOOLBAR_ICONS);
        EXPECT_EQ(gtk_toolbar_get_icon_size(GTK_TOOLBAR(toolbar)), GTK_ICON_SIZE_LARGE_TOOLBAR);
        EXPECT_EQ(gtk_container_get_border_width(GTK_CONTAINER(toolbar)), 0u);
        ASSERT_EQ(gtk_toolbar_get_n_items(GTK_TOOLBAR(toolbar)), 15);
        const ToolEntry items[15] = {
            {GTK_TYPE_TOGGLE_TOOL_BUTTON, nullptr, "toggle between <i>edit</i> and <i>view</i> modes", 0,
             G_CALLBACK(cb_toggle_mode), toolbar},
            {GTK_TYPE_TOOL_BUTTON, GTK_STOCK_OPEN, "Open an image file", 0, G_CALLBACK(on_open_image),
             toolbar},
            {GTK_TYPE_TOOL_BUTTON, GTK_STOCK_SAVE_AS, "Save image", 0, G_CALLBACK(on_save_as), window},
            {GTK_TYPE_TOOL_BUTTON, "ALPHA", "View alpha channel as 256 shades of grey.", 1,
             G_CALLBACK(cb_draw_alpha), window},
            {GTK_TYPE_TOOL_BUTTON, GTK_STOCK_EXECUTE, "Calculate / Pull the matte.", 0, G_CALLBACK(cb_calc),
             toolbar},
            {GTK_TYPE_TOOL_BUTTON, "FG", "Select foreground with white brush strokes.", 1,
             G_CALLBACK(cb_set_FG), toolbar},
            {GTK_TYPE_TOOL_BUTTON, "BG", "Select background with black brush strokes.", 1,
             G_CALLBACK(cb_set_BG), toolbar},
            {GTK_TYPE_TOOL_BUTTON, GTK_STOCK_CLEAR, "Erase brush strokes.", 0, G_CALLBACK(cb_set_Eraser),
             toolbar},
            {GTK_TYPE_TOOL_ITEM, nullptr, "Select regions with an alternate transparency.", 2, nullptr,
             nullptr},
            {GTK_TYPE_TOOL_ITEM, nullptr, "Scale image view between 12.5% - 400%.", 0, nullptr, nullptr},
            {GTK_TYPE_TOOL_ITEM, nullptr, "Drag to scale image view between 12.5% - 400%.", 0, nullptr,
             nullptr},
            {GTK_TYPE_TOOL_BUTTON, GTK_STOCK_ZOOM_100, "Reset scale to 100%.", 0, G_CALLBACK(cb_zoom_to),
             nullptr},
            {GTK_TYPE_SEPARATOR_TOOL_ITEM, nullptr, nullptr, 0, nullptr, nullptr},
            {GTK_TYPE_TOOL_ITEM, nullptr, "Set brush size.", 0, nullptr, nullptr},
            {GTK_TYPE_TOOL_ITEM, nullptr, "Drag to set brush size.", 0, nullptr, nullptr}};
        for (int i = 0; i < 15; i++) {
            const ToolEntry &e = items[i];
            GtkToolItem *item = tool(i);
            EXPECT_EQ(G_OBJECT_TYPE(item), e.type) << "item " << i;
            GtkWidget *target = GTK_WIDGET(item);
            if (e.tooltip_on == 1)
                target = icon_of(i);
            else if (e.tooltip_on == 2)
                target = gtk_bin_get_child(GTK_BIN(item));
            if (e.tooltip != nullptr) {
                EXPECT_EQ(markup(target), e.tooltip) << "item " << i;
                if (target != GTK_WIDGET(item)) {
                    EXPECT_EQ(markup(GTK_WIDGET(item)), "") << "item " << i;
                }
            }
            if (e.stock_or_label != nullptr && e.type == GTK_TYPE_TOOL_BUTTON) {
                const gchar *stock = gtk_tool_button_get_stock_id(GTK_TOOL_BUTTON(item));
                const gchar *label = gtk_tool_button_get_label(GTK_TOOL_BUTTON(item));
                EXPECT_STREQ(stock != nullptr ? stock : label, e.stock_or_label) << "item " << i;
            }
            if (e.handler != nullptr && i != 11) {
                EXPECT_TRUE(connected(item, "clicked", e.handler, e.data)) << "item " << i;
            }
            EXPECT_EQ(gtk_widget_get_visible(GTK_WIDGET(item)), i != 3)
                << "only ALPHA is hidden at start: " << i;
        }
        EXPECT_TRUE(GTK_IS_IMAGE(icon_of(0)) && GTK_IS_IMAGE(icon_of(3)) && GTK_IS_IMAGE(icon_of(5)));

        GtkWidget *color_button = gtk_bin_get_child(GTK_BIN(tool(8)));
        ASSERT_TRUE(GTK_IS_COLOR_BUTTON(color_button));
        GdkColor shown;
        gtk_color_button_get_color(GTK_COLOR_BUTTON(color_button), &shown);
        EXPECT_TRUE(shown.red == 32768 && shown.green == 32768 && shown.blue == 32768);
        EXPECT_TRUE(connected(color_button, "color-set", G_CALLBACK(cb_set_Color), toolbar));
        EXPECT_FALSE(gtk_separator_tool_item_get_draw(GTK_SEPARATOR_TOOL_ITEM(tool(12))));
        EXPECT_FALSE(gtk_tool_item_get_homogeneous(tool(14)));
        EXPECT_TRUE(gtk_tool_item_get_expand(tool(14)));
    });
}

TEST(MainWindow, ZoomAndBrushControlsShareTheirAdjustments) {
    run_program([](GtkWidget *window) {
        // spin item, slider item, value, lower, upper, step, page, digits; then handler and its data
        const double specs[2][8] = {{9, 10, 100.0, 12.5, 400.0, 12.5, 25.0, 1},
                                    {13, 14, 10.0, 1.0, 1024.0, 1.0, 5.0, 0}};
        const GCallback handlers[2] = {G_CALLBACK(cb_draw_zoom), G_CALLBACK(cb_set_brush_size)};
        const gpointer data[2] = {window, toolbar};
        for (int k = 0; k < 2; k++) {
            GtkWidget *spin = gtk_bin_get_child(GTK_BIN(tool((int)specs[k][0])));
            GtkWidget *slider = gtk_bin_get_child(GTK_BIN(tool((int)specs[k][1])));
            ASSERT_TRUE(GTK_IS_SPIN_BUTTON(spin) && GTK_IS_HSCALE(slider));
            GtkAdjustment *a = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(spin));
            EXPECT_EQ(gtk_range_get_adjustment(GTK_RANGE(slider)), a);
            double climb = 0;
            g_object_get(spin, "climb-rate", &climb, nullptr);
            const double got[8] = {specs[k][0],
                                   specs[k][1],
                                   gtk_adjustment_get_value(a),
                                   gtk_adjustment_get_lower(a),
                                   gtk_adjustment_get_upper(a),
                                   gtk_adjustment_get_step_increment(a),
                                   gtk_adjustment_get_page_increment(a),
                                   (double)gtk_spin_button_get_digits(GTK_SPIN_BUTTON(spin))};
            for (int i = 2; i < 8; i++)
                EXPECT_EQ(got[i], specs[k][i]) << "control " << k << ", property " << i;
            EXPECT_TRUE(gtk_adjustment_get_page_size(a) == 0.0 && climb == 1.0);
            EXPECT_EQ(gtk_scale_get_digits(GTK_SCALE(slider)), (int)specs[k][7]);
            EXPECT_FALSE(gtk_scale_get_draw_value(GTK_SCALE(slider)));
            EXPECT_TRUE(connected(a, "value_changed", handlers[k], data[k]));
            gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), 37.5);
            EXPECT_EQ(gtk_range_get_value(GTK_RANGE(slider)),
                      gtk_spin_button_get_value(GTK_SPIN_BUTTON(spin)));
        }
        gint w, h;
        gtk_widget_get_size_request(gtk_bin_get_child(GTK_BIN(tool(10))), &w, &h);
        EXPECT_EQ(w, 70);
        GtkAdjustment *zoom =
            gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool(9)))));
        EXPECT_TRUE(connected(tool(11), "clicked", G_CALLBACK(cb_zoom_to), zoom));
    });
}

// Runs the program in `folder` with ICON_DIR set to `icon_dir` and returns the file names of the four
// icon images in toolbar order (empty for an icon that did not load).
std::vector<std::string> icon_names(const std::string &folder, const char *icon_dir) {
    std::vector<std::string> names;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr || chdir(folder.c_str()) != 0) return names;
    if (icon_dir != nullptr) setenv("ICON_DIR", icon_dir, 1);
    run_program([&](GtkWidget *) {
        for (int i : {0, 3, 5, 6})
            names.push_back(image_file(icon_of(i)));
    });
    unsetenv("ICON_DIR");
    if (chdir(cwd) != 0) names.clear();
    return names;
}

std::vector<std::string> expected_names(const std::string &prefix) {
    return {prefix + "icon_ov16x24.png", prefix + "icon_alpha24x24.png", prefix + "iconFG.png",
            prefix + "iconBG.png"};
}

TEST(MainWindow, IconsAreNamedAfterIconDirWithOneSlashAdded) {
    TempFolder folder;
    std::string copy = "mkdir '" + folder.path + "/icons' && cp " KELDRA_ICON_FOLDER "/*.png '" +
                       folder.path + "/icons' && cp " KELDRA_ICON_FOLDER "/*.png '" + folder.path + "'";
    ASSERT_EQ(system(copy.c_str()), 0);
    unsetenv("ICON_DIR");
    EXPECT_EQ(icon_names(folder.path, nullptr), expected_names("./"));
    EXPECT_EQ(icon_names(folder.path, "icons"), expected_names("icons/"));
    EXPECT_EQ(icon_names(folder.path, "icons/"), expected_names("icons//"));
    // A folder without the icons still gives a working window, with the toolkit's broken-image icons.
    EXPECT_EQ(icon_names(folder.path, "no-such-folder"), std::vector<std::string>(4));
}

} // namespace
