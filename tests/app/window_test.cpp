// The main window as the real program builds it: globals, layout, menus and accelerators, toolbar,
// adjustments, drawing area, icon lookup. Each test runs keldra_main and inspects the window from a
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

std::vector<GtkWidget *> children(GtkWidget *container) {
    std::vector<GtkWidget *> out;
    GList *list = gtk_container_get_children(GTK_CONTAINER(container));
    for (GList *l = list; l != nullptr; l = l->next)
        out.push_back(GTK_WIDGET(l->data));
    g_list_free(list);
    return out;
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

TEST(MainWindow, GlobalsStartWithTheirInitialValues) {
    EXPECT_EQ(scale, 1.0);
    EXPECT_TRUE(selection_w == 0.0 && selection_h == 0.0 && left_x == 0.0 && top_y == 0.0);
    EXPECT_TRUE(x_img_ROI == 0 && y_img_ROI == 0 && w_img_ROI == 0 && h_img_ROI == 0);
    EXPECT_EQ(in_edit_mode, 1);
    EXPECT_EQ(calc_ROI_is_set, 0);
    EXPECT_EQ(finished_stroke, 1);
    EXPECT_EQ(show_progress, 0);
    EXPECT_EQ(ok_to_calc, 1);
    EXPECT_TRUE(history == nullptr && current == nullptr && glist_tmp == nullptr);
    EXPECT_EQ(stroke_idx, 8);
    EXPECT_EQ(his_type, 0);
    EXPECT_EQ(initialisinglayer, nullptr);
    for (double v : {prev_x, prev_y, prev_cursor_x, prev_cursor_y, true_x, true_y, prev_true_x, prev_true_y,
                     m_button_x, m_button_y})
        EXPECT_EQ(v, 0.0);
    EXPECT_TRUE(cursor_x == -5.0 && cursor_y == -5.0);
    EXPECT_EQ(radius, 5.0);
    EXPECT_TRUE(red == 1.0 && green == 1.0 && blue == 1.0 && alpha == 1.0);

    run_program([](GtkWidget *) {
        EXPECT_TRUE(color.pixel == 0 && color.red == 32768 && color.green == 32768 && color.blue == 32768);
        EXPECT_EQ(gdk_cursor_get_cursor_type(blank_cursor), GDK_BLANK_CURSOR);
        EXPECT_EQ(pixbuf_image, pixbuf_no_alpha);
        EXPECT_FALSE(gdk_pixbuf_get_has_alpha(pixbuf_no_alpha));
        EXPECT_TRUE(gdk_pixbuf_get_has_alpha(pixbuf_alpha));
        for (GdkPixbuf *p : {pixbuf_no_alpha, pixbuf_alpha})
            EXPECT_TRUE(gdk_pixbuf_get_width(p) == 1 && gdk_pixbuf_get_height(p) == 1 &&
                        gdk_pixbuf_get_bits_per_sample(p) == 8);
        for (cairo_surface_t *s : {win_surf, surf_layer})
            EXPECT_TRUE(cairo_image_surface_get_width(s) == 1 && cairo_image_surface_get_height(s) == 1 &&
                        cairo_image_surface_get_format(s) == CAIRO_FORMAT_ARGB32);
        static const calc_args zero = {};
        EXPECT_EQ(memcmp(pass_calc_args, &zero, sizeof zero), 0);
        EXPECT_TRUE(pass_option_args->levels == 1 && pass_option_args->steps == 1 &&
                    pass_option_args->epsilon == 1e-7 && pass_option_args->threshold == 0.02 &&
                    pass_option_args->win_radius == 1);
        EXPECT_TRUE(pass_option_args->img_width == 0 && pass_option_args->img_height == 0);
    });
    EXPECT_TRUE(pixbuf_alpha == nullptr && pixbuf_no_alpha == nullptr && win_surf == nullptr);
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
        // Shift+Control+z reaches redo like Control+Z does.
        GtkWidget *redo_item = children(gtk_menu_item_get_submenu(GTK_MENU_ITEM(tops[1])))[2];
        int count = 0;
        gulong counter =
            g_signal_connect_swapped(redo_item, "activate", G_CALLBACK(+[](int *c) { ++*c; }), &count);
        EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_z,
                                              (GdkModifierType)(GDK_CONTROL_MASK | GDK_SHIFT_MASK)));
        EXPECT_EQ(count, 1);
        g_signal_handler_disconnect(redo_item, counter);
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

void expect_adjustment(GtkAdjustment *a, double value, double lower, double upper, double step, double page) {
    EXPECT_EQ(gtk_adjustment_get_value(a), value);
    EXPECT_EQ(gtk_adjustment_get_lower(a), lower);
    EXPECT_EQ(gtk_adjustment_get_upper(a), upper);
    EXPECT_EQ(gtk_adjustment_get_step_increment(a), step);
    EXPECT_EQ(gtk_adjustment_get_page_increment(a), page);
    EXPECT_EQ(gtk_adjustment_get_page_size(a), 0.0);
}

TEST(MainWindow, ZoomAndBrushControlsShareTheirAdjustments) {
    run_program([](GtkWidget *window) {
        GtkWidget *zoom_spin = gtk_bin_get_child(GTK_BIN(tool(9)));
        GtkWidget *zoom_slider = gtk_bin_get_child(GTK_BIN(tool(10)));
        GtkWidget *brush_spin = gtk_bin_get_child(GTK_BIN(tool(13)));
        GtkWidget *brush_slider = gtk_bin_get_child(GTK_BIN(tool(14)));
        ASSERT_TRUE(GTK_IS_SPIN_BUTTON(zoom_spin) && GTK_IS_SPIN_BUTTON(brush_spin));
        ASSERT_TRUE(GTK_IS_HSCALE(zoom_slider) && GTK_IS_HSCALE(brush_slider));

        GtkAdjustment *zoom = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(zoom_spin));
        EXPECT_EQ(gtk_range_get_adjustment(GTK_RANGE(zoom_slider)), zoom);
        expect_adjustment(zoom, 100.0, 12.5, 400.0, 12.5, 25.0);
        EXPECT_TRUE(connected(zoom, "value_changed", G_CALLBACK(cb_draw_zoom), window));
        EXPECT_TRUE(connected(tool(11), "clicked", G_CALLBACK(cb_zoom_to), zoom));
        EXPECT_EQ(gtk_spin_button_get_digits(GTK_SPIN_BUTTON(zoom_spin)), 1u);
        EXPECT_EQ(gtk_scale_get_digits(GTK_SCALE(zoom_slider)), 1);
        EXPECT_FALSE(gtk_scale_get_draw_value(GTK_SCALE(zoom_slider)));
        gint w, h;
        gtk_widget_get_size_request(zoom_slider, &w, &h);
        EXPECT_EQ(w, 70);

        GtkAdjustment *brush = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(brush_spin));
        EXPECT_EQ(gtk_range_get_adjustment(GTK_RANGE(brush_slider)), brush);
        expect_adjustment(brush, 10.0, 1.0, 1024.0, 1.0, 5.0);
        EXPECT_TRUE(connected(brush, "value_changed", G_CALLBACK(cb_set_brush_size), toolbar));
        EXPECT_EQ(gtk_spin_button_get_digits(GTK_SPIN_BUTTON(brush_spin)), 0u);
        EXPECT_EQ(gtk_scale_get_digits(GTK_SCALE(brush_slider)), 0);
        EXPECT_FALSE(gtk_scale_get_draw_value(GTK_SCALE(brush_slider)));
        for (GtkWidget *spin : {zoom_spin, brush_spin}) {
            double climb = 0;
            g_object_get(spin, "climb-rate", &climb, nullptr);
            EXPECT_EQ(climb, 1.0);
        }
        // The spin button and the slider move together.
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(brush_spin), 37);
        EXPECT_EQ(gtk_range_get_value(GTK_RANGE(brush_slider)), 37.0);
    });
}

// Runs the program in `folder` with ICON_DIR set to `icon_dir` (or unset) and returns the file names
// of the four icon images in toolbar order: mode toggle, ALPHA, FG, BG.
std::vector<std::string> icon_names(const std::string &folder, const char *icon_dir) {
    std::vector<std::string> names;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr || chdir(folder.c_str()) != 0) return names;
    if (icon_dir != nullptr)
        setenv("ICON_DIR", icon_dir, 1);
    else
        unsetenv("ICON_DIR");
    run_program([&](GtkWidget *) {
        for (int i : {0, 3, 5, 6})
            names.push_back(image_file(icon_of(i)));
    });
    unsetenv("ICON_DIR");
    if (chdir(cwd) != 0) names.clear();
    return names;
}

TEST(MainWindow, IconsAreNamedAfterIconDirWithOneSlashAdded) {
    TempFolder folder;
    std::string copy = "mkdir '" + folder.path + "/icons' && cp " KELDRA_ICON_FOLDER "/*.png '" +
                       folder.path + "/icons' && cp " KELDRA_ICON_FOLDER "/*.png '" + folder.path + "'";
    ASSERT_EQ(system(copy.c_str()), 0);
    const std::vector<std::string> unset = {"./icon_ov16x24.png", "./icon_alpha24x24.png", "./iconFG.png",
                                            "./iconBG.png"};
    EXPECT_EQ(icon_names(folder.path, nullptr), unset);
    const std::vector<std::string> relative = {"icons/icon_ov16x24.png", "icons/icon_alpha24x24.png",
                                               "icons/iconFG.png", "icons/iconBG.png"};
    EXPECT_EQ(icon_names(folder.path, "icons"), relative);
    const std::vector<std::string> doubled = {"icons//icon_ov16x24.png", "icons//icon_alpha24x24.png",
                                              "icons//iconFG.png", "icons//iconBG.png"};
    EXPECT_EQ(icon_names(folder.path, "icons/"), doubled);
    EXPECT_EQ(std::string(getenv("HOME")).find(".Orvanto"), std::string::npos);

    // A folder without the icons still gives a working window, with the toolkit's broken-image icons.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    if (chdir(folder.path.c_str()) == 0) {
        setenv("ICON_DIR", "no-such-folder", 1);
        run_program([](GtkWidget *) {
            for (int i : {0, 3, 5, 6}) {
                GtkWidget *image = icon_of(i);
                ASSERT_EQ(gtk_image_get_storage_type(GTK_IMAGE(image)), GTK_IMAGE_STOCK) << i;
                gchar *stock = nullptr;
                gtk_image_get_stock(GTK_IMAGE(image), &stock, nullptr);
                EXPECT_STREQ(stock, GTK_STOCK_MISSING_IMAGE);
            }
        });
        unsetenv("ICON_DIR");
        EXPECT_EQ(chdir(cwd), 0);
    }
}

} // namespace
