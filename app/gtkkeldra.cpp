#include "app/gtkkeldra.h"

#include <gdk/gdkkeysyms.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/calculation.h"
#include "app/dialogs.h"
#include "app/options.h"
#include "app/persistence.h"
#include "canvas/brush.h"
#include "canvas/gtk_file_IO.h"
#include "canvas/strokes.h"
#include "canvas/view.h"

#ifndef KELDRA_ENTRY
#define KELDRA_ENTRY main
#endif

double scale = 1.0;
double selection_w = 0.0, selection_h = 0.0;
double left_x = 0.0, top_y = 0.0;
int x_img_ROI = 0, y_img_ROI = 0;
int w_img_ROI = 0, h_img_ROI = 0;
int in_edit_mode = 1;
int calc_ROI_is_set = 0;
int finished_stroke = 1;
int show_progress = 0;
int ok_to_calc = 1;

GList *history = NULL;
GList *current = NULL;
GList *glist_tmp = NULL;
int stroke_idx = 8;
int his_type = 0;

GdkPixbuf *initialisinglayer = NULL;

double prev_x = 0.0, prev_y = 0.0, prev_cursor_x = 0.0, prev_cursor_y = 0.0;
double true_x = 0.0, true_y = 0.0, prev_true_x = 0.0, prev_true_y = 0.0;
double m_button_x = 0.0, m_button_y = 0.0;
double cursor_x = -5.0, cursor_y = -5.0;

double radius = 5.0;
double red = 1.0, green = 1.0, blue = 1.0, alpha = 1.0;

GdkColor color;
GdkCursor *blank_cursor = NULL;

GdkPixbuf *pixbuf_no_alpha = NULL;
GdkPixbuf *pixbuf_alpha = NULL;
GdkPixbuf *pixbuf_image = NULL;
cairo_surface_t *win_surf = NULL;
cairo_surface_t *surf_layer = NULL;

struct calc_args *pass_calc_args = NULL;
struct option_args *pass_option_args = NULL;

char *appdata = NULL;

GtkWidget *drawing_area = NULL;
GtkWidget *scrolled_window = NULL;
GtkWidget *toolbar = NULL;
GtkWidget *status_bar = NULL;
gulong signal_ID = 0;

// The accelerators' Command modifier. X11 has no Command key; Control is what users of GTK programs
// on this platform press for open, save, copy, undo and redo.
static const GdkModifierType command_mask = GDK_CONTROL_MASK;

// Event mask of the drawing area: exposure, pointer motion with hints, button press, leave-notify,
// and bit 28, which names no GDK event but has always been part of the mask the canvas sets.
static const gint drawing_area_events = GDK_EXPOSURE_MASK | GDK_POINTER_MOTION_MASK |
                                        GDK_POINTER_MOTION_HINT_MASK | GDK_BUTTON_PRESS_MASK |
                                        GDK_LEAVE_NOTIFY_MASK | (1 << 28);

void destroy(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
    gtk_main_quit();
}

gboolean cb_delete_event_with_persistence(GtkWidget *widget, GdkEvent *event, gpointer data) {
    (void)event;
    (void)data;
    pre_quit_event(widget);
    return FALSE;
}

// The icon folder with one "/" appended, also when the value already ends in one. The environment
// string itself is not grown: a copy is made.
static gchar *icon_folder(void) {
    const char *env = getenv("ICON_DIR");
    if (env == NULL) return g_strdup("./");
    gsize size = strlen(env) + 2;
    gchar *folder = (gchar *)g_malloc(size);
    g_strlcpy(folder, env, size);
    g_strlcat(folder, "/", size);
    return folder;
}

static GtkWidget *icon_image(const gchar *folder, const gchar *format) {
    gchar *name = g_strdup_printf(format, folder);
    GtkWidget *image = gtk_image_new_from_file(name);
    g_free(name);
    return image;
}

static GtkWidget *append_menu(GtkWidget *menubar, const gchar *label) {
    GtkWidget *menu = gtk_menu_new();
    GtkWidget *item = gtk_menu_item_new_with_label(label);
    gtk_menu_item_set_submenu(GTK_MENU_ITEM(item), menu);
    gtk_menu_shell_append(GTK_MENU_SHELL(menubar), item);
    return menu;
}

static void append_item(GtkWidget *menu, GtkWidget *item, GtkAccelGroup *accel_group, guint key,
                        GdkModifierType mods, GCallback handler, gpointer data) {
    if (key != 0) gtk_widget_add_accelerator(item, "activate", accel_group, key, mods, GTK_ACCEL_VISIBLE);
    g_signal_connect(item, "activate", handler, data);
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), item);
}

static GtkWidget *build_menubar(GtkWidget *window, GtkAccelGroup *accel_group) {
    GtkWidget *menubar = gtk_menu_bar_new();
    GtkWidget *file = append_menu(menubar, "File");
    GtkWidget *edit = append_menu(menubar, "Edit");
    GtkWidget *help = append_menu(menubar, "Help");

    append_item(file, gtk_image_menu_item_new_from_stock(GTK_STOCK_OPEN, NULL), accel_group, GDK_KEY_o,
                command_mask, G_CALLBACK(on_open_image), NULL);
    // The save entry runs the save-as handler: saving always asks where.
    append_item(file, gtk_image_menu_item_new_from_stock(GTK_STOCK_SAVE, NULL), accel_group, GDK_KEY_s,
                command_mask, G_CALLBACK(on_save_as), NULL);

    append_item(edit, gtk_image_menu_item_new_from_stock(GTK_STOCK_COPY, accel_group), accel_group, GDK_KEY_c,
                command_mask, G_CALLBACK(pixbuf_to_clipboard), pixbuf_image);
    append_item(edit, gtk_image_menu_item_new_from_stock(GTK_STOCK_UNDO, accel_group), accel_group, GDK_KEY_z,
                command_mask, G_CALLBACK(undo), NULL);
    append_item(edit, gtk_image_menu_item_new_from_stock(GTK_STOCK_REDO, NULL), accel_group, GDK_KEY_Z,
                (GdkModifierType)(command_mask | GDK_SHIFT_MASK), G_CALLBACK(redo), NULL);
    append_item(edit, gtk_check_menu_item_new_with_mnemonic("Calculate _From Selection"), accel_group,
                GDK_KEY_f, command_mask, G_CALLBACK(toggle_calc_ROI), NULL);
    append_item(edit, gtk_image_menu_item_new_from_stock(GTK_STOCK_PREFERENCES, NULL), accel_group, 0,
                (GdkModifierType)0, G_CALLBACK(gtk_options_dialog_open), pass_option_args);

    append_item(help, gtk_image_menu_item_new_from_stock(GTK_STOCK_ABOUT, NULL), accel_group, 0,
                (GdkModifierType)0, G_CALLBACK(help_about_dialog), window);
    append_item(help, gtk_image_menu_item_new_with_label("Tips"), accel_group, 0, (GdkModifierType)0,
                G_CALLBACK(cb_tips), (gpointer)tips_text);
    return menubar;
}

static void append_tool(GtkToolItem *item, const gchar *tooltip, GtkWidget *tooltip_on) {
    if (tooltip != NULL)
        gtk_widget_set_tooltip_markup(tooltip_on != NULL ? tooltip_on : GTK_WIDGET(item), tooltip);
    gtk_toolbar_insert(GTK_TOOLBAR(toolbar), item, -1);
}

static GtkToolItem *append_button(GtkToolItem *item, const gchar *tooltip, GtkWidget *tooltip_on,
                                  GCallback handler, gpointer data) {
    append_tool(item, tooltip, tooltip_on);
    g_signal_connect(item, "clicked", handler, data);
    return item;
}

static GtkToolItem *append_holder(GtkWidget *child, const gchar *tooltip) {
    GtkToolItem *item = gtk_tool_item_new();
    gtk_container_add(GTK_CONTAINER(item), child);
    append_tool(item, tooltip, NULL);
    return item;
}

// The toolbar's items in their fixed order: the calculation result and the mode switch find the
// edit/view toggle at position 0 and the ALPHA button at position 3. Returns the brush-size slider's
// item, which is packed differently from the rest.
static GtkToolItem *build_toolbar(GtkWidget *window, const gchar *folder) {
    gtk_toolbar_set_style(GTK_TOOLBAR(toolbar), GTK_TOOLBAR_ICONS);
    gtk_toolbar_set_icon_size(GTK_TOOLBAR(toolbar), GTK_ICON_SIZE_LARGE_TOOLBAR);
    gtk_container_set_border_width(GTK_CONTAINER(toolbar), 0);

    GtkToolItem *mode = gtk_toggle_tool_button_new();
    gtk_tool_button_set_icon_widget(GTK_TOOL_BUTTON(mode), icon_image(folder, "%sicon_ov16x24.png"));
    append_button(mode, "toggle between <i>edit</i> and <i>view</i> modes", NULL, G_CALLBACK(cb_toggle_mode),
                  toolbar);
    append_button(gtk_tool_button_new_from_stock(GTK_STOCK_OPEN), "Open an image file", NULL,
                  G_CALLBACK(on_open_image), toolbar);
    append_button(gtk_tool_button_new_from_stock(GTK_STOCK_SAVE_AS), "Save image", NULL,
                  G_CALLBACK(on_save_as), window);
    GtkWidget *image = icon_image(folder, "%sicon_alpha24x24.png");
    append_button(gtk_tool_button_new(image, "ALPHA"), "View alpha channel as 256 shades of grey.", image,
                  G_CALLBACK(cb_draw_alpha), window);
    append_button(gtk_tool_button_new_from_stock(GTK_STOCK_EXECUTE), "Calculate / Pull the matte.", NULL,
                  G_CALLBACK(cb_calc), toolbar);
    image = icon_image(folder, "%siconFG.png");
    append_button(gtk_tool_button_new(image, "FG"), "Select foreground with white brush strokes.", image,
                  G_CALLBACK(cb_set_FG), toolbar);
    image = icon_image(folder, "%siconBG.png");
    append_button(gtk_tool_button_new(image, "BG"), "Select background with black brush strokes.", image,
                  G_CALLBACK(cb_set_BG), toolbar);
    append_button(gtk_tool_button_new_from_stock(GTK_STOCK_CLEAR), "Erase brush strokes.", NULL,
                  G_CALLBACK(cb_set_Eraser), toolbar);

    GtkWidget *color_button = gtk_color_button_new_with_color(&color);
    gtk_widget_set_tooltip_markup(color_button, "Select regions with an alternate transparency.");
    g_signal_connect(color_button, "color-set", G_CALLBACK(cb_set_Color), toolbar);
    append_holder(color_button, NULL);

    GtkObject *zoom = gtk_adjustment_new(100.0, 12.5, 400.0, 12.5, 25.0, 0);
    g_signal_connect(zoom, "value_changed", G_CALLBACK(cb_draw_zoom), window);
    append_holder(gtk_spin_button_new(GTK_ADJUSTMENT(zoom), 1.0, 1),
                  "Scale image view between 12.5% - 400%.");
    GtkWidget *slider = gtk_hscale_new(GTK_ADJUSTMENT(zoom));
    gtk_scale_set_digits(GTK_SCALE(slider), 1);
    gtk_scale_set_draw_value(GTK_SCALE(slider), FALSE);
    gtk_widget_set_size_request(slider, 70, -1);
    append_holder(slider, "Drag to scale image view between 12.5% - 400%.");
    append_button(gtk_tool_button_new_from_stock(GTK_STOCK_ZOOM_100), "Reset scale to 100%.", NULL,
                  G_CALLBACK(cb_zoom_to), zoom);

    append_tool(gtk_separator_tool_item_new(), NULL, NULL);

    GtkObject *brush = gtk_adjustment_new(10.0, 1.0, 1024.0, 1.0, 5.0, 0);
    g_signal_connect(brush, "value_changed", G_CALLBACK(cb_set_brush_size), toolbar);
    append_holder(gtk_spin_button_new(GTK_ADJUSTMENT(brush), 1.0, 0), "Set brush size.");
    slider = gtk_hscale_new(GTK_ADJUSTMENT(brush));
    gtk_scale_set_digits(GTK_SCALE(slider), 0);
    gtk_scale_set_draw_value(GTK_SCALE(slider), FALSE);
    return append_holder(slider, "Drag to set brush size.");
}

int KELDRA_ENTRY(int argc, char **argv) {
    gdk_threads_enter();
    gtk_init(&argc, &argv);
    blank_cursor = gdk_cursor_new(GDK_BLANK_CURSOR);

    pixbuf_no_alpha = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 1, 1);
    pixbuf_alpha = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, 1, 1);
    pixbuf_image = pixbuf_no_alpha;
    color.pixel = 0;
    color.red = color.green = color.blue = 32768;
    win_surf = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);
    surf_layer = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);

    // The records live until the process ends; a second run in the same process (tests) starts afresh.
    g_free(pass_calc_args);
    g_free(pass_option_args);
    pass_calc_args = g_new0(struct calc_args, 1);
    pass_option_args = g_new0(struct option_args, 1);
    opts_set_default(pass_option_args);

    gchar *folder = icon_folder();

    GtkWidget *window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_position(GTK_WINDOW(window), GTK_WIN_POS_CENTER);
    gtk_window_set_default_size(GTK_WINDOW(window), 720, 480);
    gtk_window_set_title(GTK_WINDOW(window), "Orvanto");
    GtkWidget *vbox = gtk_vbox_new(FALSE, 0);
    gtk_container_add(GTK_CONTAINER(window), vbox);

    GtkAccelGroup *accel_group = gtk_accel_group_new();
    gtk_window_add_accel_group(GTK_WINDOW(window), accel_group);
    GtkWidget *menubar = build_menubar(window, accel_group);

    scrolled_window = gtk_scrolled_window_new(NULL, NULL);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scrolled_window), GTK_POLICY_AUTOMATIC,
                                   GTK_POLICY_AUTOMATIC);
    drawing_area = gtk_drawing_area_new();
    gtk_widget_set_size_request(drawing_area, 640, 480);
    gtk_scrolled_window_add_with_viewport(GTK_SCROLLED_WINDOW(scrolled_window), drawing_area);
    g_signal_connect(drawing_area, "expose_event", G_CALLBACK(on_expose_event), NULL);
    g_signal_connect(drawing_area, "configure_event", G_CALLBACK(configure_event), NULL);
    g_signal_connect(drawing_area, "motion_notify_event", G_CALLBACK(motion_notify_event), NULL);
    signal_ID = g_signal_connect(drawing_area, "button_press_event", G_CALLBACK(button_press_event), NULL);
    gtk_widget_set_events(drawing_area, drawing_area_events);

    toolbar = gtk_toolbar_new();
    GtkToolItem *brush_slider = build_toolbar(window, folder);
    g_free(folder);
    // Ctrl+Return clicks Calculate; like the button, it acts only in edit mode, where the button shows.
    gtk_widget_add_accelerator(GTK_WIDGET(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), 4)), "clicked",
                               accel_group, GDK_KEY_Return, GDK_CONTROL_MASK, GTK_ACCEL_VISIBLE);

    gtk_box_pack_start(GTK_BOX(vbox), menubar, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(vbox), toolbar, FALSE, FALSE, 0);
    gtk_separator_tool_item_set_draw(
        GTK_SEPARATOR_TOOL_ITEM(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), 12)), FALSE);
    gtk_tool_item_set_homogeneous(brush_slider, FALSE);
    gtk_tool_item_set_expand(brush_slider, TRUE);
    gtk_box_pack_start(GTK_BOX(vbox), scrolled_window, TRUE, TRUE, 0);
    status_bar = gtk_statusbar_new();
    gtk_box_pack_start(GTK_BOX(vbox), status_bar, FALSE, TRUE, 0);

    g_signal_connect(window, "delete_event", G_CALLBACK(cb_delete_event_with_persistence), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(destroy), NULL);

    // Lets a clipboard manager keep a copied matte after the program has quit.
    GtkClipboard *clipboard = gtk_clipboard_get(GDK_SELECTION_CLIPBOARD);
    gtk_clipboard_set_can_store(clipboard, NULL, 0);

    gtk_widget_show_all(window);
    set_configuration(window);
    gtk_widget_hide(GTK_WIDGET(gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), 3)));
    gdk_window_set_cursor(gtk_widget_get_window(drawing_area), blank_cursor);

    // keldra IMAGE [LAYER]: starts on IMAGE as "Default open" would, then adds LAYER "as layer".
    if (argc > 1 && open_image_file(argv[1], OPEN_DEFAULT, toolbar) == 0 && argc > 2)
        open_image_file(argv[2], OPEN_AS_LAYER, toolbar);

    gtk_main();

    gdk_threads_leave();
    g_object_unref(pixbuf_alpha);
    g_object_unref(pixbuf_no_alpha);
    pixbuf_alpha = pixbuf_no_alpha = pixbuf_image = NULL;
    cairo_surface_destroy(surf_layer);
    cairo_surface_destroy(win_surf);
    surf_layer = win_surf = NULL;
    if (initialisinglayer != NULL) {
        g_object_unref(initialisinglayer);
        initialisinglayer = NULL;
    }
    g_list_free_full(history, g_free);
    history = current = NULL;
    return 0;
}

void gdkpixbuf_put_pixel(GdkPixbuf *pixbuf, int x, int y, guchar red, guchar green, guchar blue,
                         guchar alpha) {
    int n_channels = gdk_pixbuf_get_n_channels(pixbuf);
    KELDRA_ASSERT(gdk_pixbuf_get_colorspace(pixbuf) == GDK_COLORSPACE_RGB);
    KELDRA_ASSERT(gdk_pixbuf_get_bits_per_sample(pixbuf) == 8);
    KELDRA_ASSERT(n_channels == 4 || n_channels == 3);
    if (x < 0 || x >= gdk_pixbuf_get_width(pixbuf) || y < 0 || y >= gdk_pixbuf_get_height(pixbuf)) return;
    guchar *p =
        gdk_pixbuf_get_pixels(pixbuf) + (gsize)y * gdk_pixbuf_get_rowstride(pixbuf) + (gsize)x * n_channels;
    p[0] = red;
    p[1] = green;
    p[2] = blue;
    if (n_channels == 4) p[3] = alpha;
}

void gdkpixbuf_get_pixel(GdkPixbuf *pixbuf, int x, int y, guchar *red, guchar *green, guchar *blue,
                         guchar *alpha) {
    int n_channels = gdk_pixbuf_get_n_channels(pixbuf);
    KELDRA_ASSERT(gdk_pixbuf_get_colorspace(pixbuf) == GDK_COLORSPACE_RGB);
    KELDRA_ASSERT(gdk_pixbuf_get_bits_per_sample(pixbuf) == 8);
    KELDRA_ASSERT(n_channels == 4 || n_channels == 3);
    if (x < 0 || x >= gdk_pixbuf_get_width(pixbuf) || y < 0 || y >= gdk_pixbuf_get_height(pixbuf)) return;
    const guchar *p =
        gdk_pixbuf_get_pixels(pixbuf) + (gsize)y * gdk_pixbuf_get_rowstride(pixbuf) + (gsize)x * n_channels;
    *red = p[0];
    *green = p[1];
    *blue = p[2];
    *alpha = n_channels == 4 ? p[3] : 255;
}

// Pixels are cairo's native-endian 32-bit words; on the little-endian targets the bytes in memory
// are blue, green, red, alpha.
void cairoimagesurface_put_pixel(cairo_surface_t *surface, int x, int y, guchar alpha, guchar red,
                                 guchar green, guchar blue) {
    unsigned char *data = cairo_image_surface_get_data(surface);
    int width = cairo_image_surface_get_width(surface);
    int height = cairo_image_surface_get_height(surface);
    int stride = cairo_image_surface_get_stride(surface);
    cairo_format_t cairoFMT = cairo_image_surface_get_format(surface);
    KELDRA_ASSERT(x >= 0 && x < width);
    KELDRA_ASSERT(y >= 0 && y < height);
    KELDRA_ASSERT(cairoFMT == CAIRO_FORMAT_ARGB32 || cairoFMT == CAIRO_FORMAT_RGB24);
    guint32 *p = (guint32 *)(data + (gsize)y * stride) + x;
    *p = (guint32)alpha << 24 | (guint32)red << 16 | (guint32)green << 8 | blue;
}

void cairoimagesurface_get_pixel(cairo_surface_t *surface, int x, int y, guchar *alpha, guchar *red,
                                 guchar *green, guchar *blue) {
    unsigned char *data = cairo_image_surface_get_data(surface);
    int width = cairo_image_surface_get_width(surface);
    int height = cairo_image_surface_get_height(surface);
    int stride = cairo_image_surface_get_stride(surface);
    cairo_format_t cairoFMT = cairo_image_surface_get_format(surface);
    KELDRA_ASSERT(cairoFMT == CAIRO_FORMAT_ARGB32 || cairoFMT == CAIRO_FORMAT_RGB24);
    if (x < 0 || x >= width || y < 0 || y >= height) return;
    guint32 word = *((const guint32 *)(data + (gsize)y * stride) + x);
    *alpha = (guchar)(word >> 24);
    *red = (guchar)(word >> 16);
    *green = (guchar)(word >> 8);
    *blue = (guchar)word;
}

GdkPixbuf *create_pixbuf(const gchar *filename) {
    GError *error = NULL;
    GdkPixbuf *pixbuf = gdk_pixbuf_new_from_file(filename, &error);
    if (pixbuf == NULL) {
        fprintf(stderr, "%s\n", error->message);
        g_error_free(error);
    }
    return pixbuf;
}

int rgb2grey(int red, int green, int blue) {
    int max = red;
    if (green > max) max = green;
    if (blue > max) max = blue;
    return (max + blue) / 2;
}
