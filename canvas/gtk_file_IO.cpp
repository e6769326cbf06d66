#include "canvas/gtk_file_IO.h"

#include <errno.h>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/dialogs.h"
#include "app/gtkkeldra.h"
#include "app/options.h"
#include "canvas/brush.h"
#include "canvas/strokes.h"
#include "canvas/view.h"

// cairo cannot make image surfaces larger than this in either direction.
static const int max_surface_side = 32767;

// Marks the pixbuf that holds an opened image, so that a layer is only accepted over a real image and
// never over the 1 by 1 placeholder the program starts with.
static const char opened_image_key[] = "keldra-opened-image";

gboolean image_is_open(void) {
    return pixbuf_no_alpha != NULL && g_object_get_data(G_OBJECT(pixbuf_no_alpha), opened_image_key) != NULL;
}

static GtkWidget *toolbar_or_global(gpointer data) {
    return data != NULL && GTK_IS_TOOLBAR(data) ? GTK_WIDGET(data) : toolbar;
}

static void set_canvas_cursor(GdkCursor *cursor) {
    if (drawing_area != NULL && gtk_widget_get_window(drawing_area) != NULL)
        gdk_window_set_cursor(gtk_widget_get_window(drawing_area), cursor);
}

static GtkWidget *main_window(void) {
    return drawing_area != NULL ? gtk_widget_get_toplevel(drawing_area) : NULL;
}

// Replaces the view and the layer with transparent surfaces for an image of w by h pixels.
static void new_canvas_surfaces(int w, int h) {
    cairo_surface_destroy(win_surf);
    cairo_surface_destroy(surf_layer);
    win_surf = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, (int)(w * scale), (int)(h * scale));
    surf_layer = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
}

static void request_view_size(int w, int h) {
    if (drawing_area != NULL) gtk_widget_set_size_request(drawing_area, (int)(w * scale), (int)(h * scale));
}

// A new document's region is the whole image, in both its window and its image form.
static void reset_region(int w, int h) {
    left_x = 0.0;
    top_y = 0.0;
    selection_w = (w - 1) / scale;
    selection_h = (h - 1) / scale;
    x_img_ROI = 0;
    y_img_ROI = 0;
    w_img_ROI = w;
    h_img_ROI = h;
}

static void reset_options(int w, int h) {
    opts_set_default(pass_option_args);
    pass_option_args->img_width = w;
    pass_option_args->img_height = h;
}

static GdkPixbuf *new_pixbuf(gboolean has_alpha, int w, int h) {
    GdkPixbuf *pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, has_alpha, 8, w, h);
    gdk_pixbuf_fill(pixbuf, 0);
    return pixbuf;
}

static GdkPixbuf *rgb_copy(GdkPixbuf *pixbuf) {
    int w = gdk_pixbuf_get_width(pixbuf), h = gdk_pixbuf_get_height(pixbuf);
    GdkPixbuf *rgb = new_pixbuf(FALSE, w, h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            guchar r, g, b, a;
            gdkpixbuf_get_pixel(pixbuf, x, y, &r, &g, &b, &a);
            gdkpixbuf_put_pixel(rgb, x, y, r, g, b, 255);
        }
    return rgb;
}

static void default_open(GdkPixbuf *pixbuf, gboolean edit) {
    int w = gdk_pixbuf_get_width(pixbuf), h = gdk_pixbuf_get_height(pixbuf);
    new_canvas_surfaces(w, h);
    request_view_size(w, h);
    g_object_unref(pixbuf_alpha);
    g_object_unref(pixbuf_no_alpha);
    free_stroke_history();
    reset_region(w, h);
    if (!gdk_pixbuf_get_has_alpha(pixbuf)) {
        pixbuf_no_alpha = pixbuf;
        pixbuf_alpha = gdk_pixbuf_add_alpha(pixbuf, FALSE, 0, 0, 0);
    } else {
        pixbuf_alpha = pixbuf;
        pixbuf_no_alpha = rgb_copy(pixbuf);
    }
    pixbuf_image = edit ? pixbuf_no_alpha : pixbuf_alpha;
    repaint_view(FALSE);
    reset_options(w, h);
}

// Alpha 255 is certain foreground and alpha 0 certain background; every partial value is left for the
// calculation to decide. Returns OPEN_DEFAULT for a file without alpha, which then opens as an image.
static enum open_mode open_with_alpha(GdkPixbuf *pixbuf, gboolean edit) {
    int w = gdk_pixbuf_get_width(pixbuf), h = gdk_pixbuf_get_height(pixbuf);
    new_canvas_surfaces(w, h);
    request_view_size(w, h);
    reset_region(w, h);
    if (!gdk_pixbuf_get_has_alpha(pixbuf)) return OPEN_DEFAULT;

    g_object_unref(pixbuf_no_alpha);
    g_object_unref(pixbuf_alpha);
    pixbuf_alpha = pixbuf;
    pixbuf_no_alpha = new_pixbuf(FALSE, w, h);
    initialisinglayer = new_pixbuf(TRUE, w, h);
    cairo_surface_flush(surf_layer);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            guchar r, g, b, a;
            gdkpixbuf_get_pixel(pixbuf, x, y, &r, &g, &b, &a);
            gdkpixbuf_put_pixel(pixbuf_no_alpha, x, y, r, g, b, 255);
            if (a == 255) {
                cairoimagesurface_put_pixel(surf_layer, x, y, 255, 255, 255, 255);
                gdkpixbuf_put_pixel(initialisinglayer, x, y, 255, 255, 255, 255);
            } else if (a == 0) {
                cairoimagesurface_put_pixel(surf_layer, x, y, 255, 0, 0, 0);
                gdkpixbuf_put_pixel(initialisinglayer, x, y, 0, 0, 0, 255);
            } else {
                cairoimagesurface_put_pixel(surf_layer, x, y, 0, 0, 0, 0);
                gdkpixbuf_put_pixel(initialisinglayer, x, y, 0, 0, 0, 0);
            }
        }
    cairo_surface_mark_dirty(surf_layer);
    reset_options(w, h);
    pixbuf_image = edit ? pixbuf_no_alpha : pixbuf_alpha;
    repaint_view(TRUE);
    return OPEN_WITH_ALPHA;
}

// A layer file without alpha is taken as a copy of the image with scribbles painted on it: every
// pixel that differs from the image at all is a scribble of its grey value. The test is exact on
// purpose, so a lossy copy marks nearly every pixel.
static void layer_from_copy(GdkPixbuf *pixbuf) {
    int w = MIN(gdk_pixbuf_get_width(pixbuf), gdk_pixbuf_get_width(pixbuf_image));
    int h = MIN(gdk_pixbuf_get_height(pixbuf), gdk_pixbuf_get_height(pixbuf_image));
    initialisinglayer = new_pixbuf(TRUE, w, h);
    cairo_surface_flush(surf_layer);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            guchar r1, g1, b1, a1, r2, g2, b2, a2;
            gdkpixbuf_get_pixel(pixbuf_image, x, y, &r1, &g1, &b1, &a1);
            gdkpixbuf_get_pixel(pixbuf, x, y, &r2, &g2, &b2, &a2);
            guchar g = (guchar)rgb2grey(r2, g2, b2);
            int difference = abs(r2 - r1) + abs(g2 - g1) + abs(b2 - b1);
            if (difference == 0) {
                cairoimagesurface_put_pixel(surf_layer, x, y, 0, 0, 0, 0);
                gdkpixbuf_put_pixel(initialisinglayer, x, y, 0, 0, 0, 0);
            } else {
                cairoimagesurface_put_pixel(surf_layer, x, y, 255, g, g, g);
                gdkpixbuf_put_pixel(initialisinglayer, x, y, g, g, g, 255);
            }
        }
    cairo_surface_mark_dirty(surf_layer);
}

static void open_as_layer(GdkPixbuf *pixbuf, GtkWidget *window) {
    new_canvas_surfaces(gdk_pixbuf_get_width(pixbuf_image), gdk_pixbuf_get_height(pixbuf_image));
    if (!gdk_pixbuf_get_has_alpha(pixbuf)) {
        layer_from_copy(pixbuf);
    } else {
        initialisinglayer = gdk_pixbuf_copy(pixbuf);
        cairo_t *cr = cairo_create(surf_layer);
        gdk_cairo_set_source_pixbuf(cr, pixbuf, 0, 0);
        cairo_paint(cr);
        cairo_destroy(cr);
    }
    repaint_view(TRUE);
    g_object_unref(pixbuf);
    if (window != NULL) gtk_widget_queue_draw(window);
}

// Refuses what cannot be opened in the given mode before anything is replaced. Returns the status
// open_image_file reports, 0 when the file can be opened.
static int refuse_to_open(GdkPixbuf *pixbuf, enum open_mode mode, GtkWidget *window) {
    gchar *text = NULL;
    int status = 0;
    if (mode == OPEN_AS_LAYER && !image_is_open()) {
        text = g_strdup("Open an image before opening a layer for it.");
        status = 2;
    } else if (mode != OPEN_AS_LAYER && (gdk_pixbuf_get_width(pixbuf) > max_surface_side ||
                                         gdk_pixbuf_get_height(pixbuf) > max_surface_side)) {
        text =
            g_strdup_printf("The image is too large to edit: %d by %d pixels (at most %d in each direction).",
                            gdk_pixbuf_get_width(pixbuf), gdk_pixbuf_get_height(pixbuf), max_surface_side);
        status = 3;
    }
    if (text != NULL) {
        error_message_dialog(window, text);
        g_free(text);
    }
    return status;
}

int open_image_file(const char *filename, enum open_mode mode, GtkWidget *toolbar_widget) {
    GtkWidget *bar = toolbar_or_global(toolbar_widget);
    GtkToolItem *toggle = bar != NULL ? gtk_toolbar_get_nth_item(GTK_TOOLBAR(bar), 0) : NULL;
    GtkWidget *window = toggle != NULL ? gtk_widget_get_toplevel(GTK_WIDGET(toggle)) : main_window();
    gboolean edit = toggle != NULL ? !gtk_toggle_tool_button_get_active(GTK_TOGGLE_TOOL_BUTTON(toggle))
                                   : (gboolean)in_edit_mode;

    GError *error = NULL;
    GdkPixbuf *pixbuf = gdk_pixbuf_new_from_file(filename, &error);
    if (pixbuf == NULL) {
        gchar *text = g_strdup_printf("File open error: %s", error->message);
        error_message_dialog(window, text);
        g_free(text);
    } else {
        int refused = refuse_to_open(pixbuf, mode, window);
        if (refused != 0) {
            g_object_unref(pixbuf);
            return refused;
        }
        if (initialisinglayer != NULL) {
            g_object_unref(initialisinglayer);
            initialisinglayer = NULL;
        }
        if (mode == OPEN_WITH_ALPHA)
            mode = open_with_alpha(pixbuf, edit);
        else if (mode == OPEN_AS_LAYER)
            open_as_layer(pixbuf, window);
        if (mode == OPEN_DEFAULT) default_open(pixbuf, edit);
        if (mode != OPEN_AS_LAYER)
            g_object_set_data(G_OBJECT(pixbuf_no_alpha), opened_image_key, GINT_TO_POINTER(1));
        if (drawing_area != NULL) gtk_widget_queue_draw(drawing_area);
    }

    KELDRA_ASSERT((pixbuf == NULL && error != NULL) || (pixbuf != NULL && error == NULL));
    if (error != NULL) {
        KELDRA_ASSERT(pixbuf == NULL);
        fprintf(stderr, "Unable to read file: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    KELDRA_ASSERT(pixbuf != NULL);
    return 0;
}

void update_preview_cb(GtkFileChooser *file_chooser, gpointer preview) {
    gchar *name = gtk_file_chooser_get_preview_filename(file_chooser);
    GdkPixbuf *pixbuf = name != NULL ? gdk_pixbuf_new_from_file_at_size(name, 128, 128, NULL) : NULL;
    g_free(name);
    gtk_image_set_from_pixbuf(GTK_IMAGE(preview), pixbuf);
    if (pixbuf != NULL) g_object_unref(pixbuf);
    gtk_file_chooser_set_preview_widget_active(file_chooser, pixbuf != NULL);
}

static void add_filter(GtkWidget *chooser, const char *name, const char *pattern) {
    GtkFileFilter *filter = gtk_file_filter_new();
    gtk_file_filter_set_name(filter, name);
    gtk_file_filter_add_pattern(filter, pattern);
    gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(chooser), filter);
}

static void install_preview(GtkWidget *chooser) {
    GtkWidget *preview = gtk_image_new();
    gtk_file_chooser_set_preview_widget(GTK_FILE_CHOOSER(chooser), preview);
    g_signal_connect(chooser, "update-preview", G_CALLBACK(update_preview_cb), preview);
}

// Keeps the folder the chooser shows for its next run. While the chooser is still reading a folder
// it names none; then the chosen file's folder, or else the folder kept before, stands in.
static void remember_folder(gchar **folder, GtkFileChooser *chooser, const gchar *chosen) {
    gchar *shown = gtk_file_chooser_get_current_folder(chooser);
    if (shown == NULL && chosen != NULL) shown = g_path_get_dirname(chosen);
    if (shown == NULL) return;
    g_free(*folder);
    *folder = shown;
}

void on_open_image(GtkWidget *widget, gpointer data) {
    (void)widget;
    static gchar *folder = NULL;
    GtkWidget *bar = toolbar_or_global(data);
    GtkWidget *window = gtk_widget_get_toplevel(GTK_WIDGET(gtk_toolbar_get_nth_item(GTK_TOOLBAR(bar), 0)));

    GtkWidget *dialog = gtk_file_chooser_dialog_new(
        "Open image", GTK_WINDOW(window), GTK_FILE_CHOOSER_ACTION_OPEN, GTK_STOCK_OPEN, GTK_RESPONSE_ACCEPT,
        GTK_STOCK_CANCEL, GTK_RESPONSE_CANCEL, NULL);
    GtkFileChooser *chooser = GTK_FILE_CHOOSER(dialog);
    if (folder != NULL) gtk_file_chooser_set_current_folder(chooser, folder);
    install_preview(dialog);

    GtkWidget *modes = gtk_hbox_new(FALSE, 5);
    GtkWidget *radio[3];
    radio[OPEN_DEFAULT] = gtk_radio_button_new_with_label(NULL, "Default open");
    radio[OPEN_WITH_ALPHA] =
        gtk_radio_button_new_with_label_from_widget(GTK_RADIO_BUTTON(radio[0]), "Open with alpha as input");
    radio[OPEN_AS_LAYER] =
        gtk_radio_button_new_with_label_from_widget(GTK_RADIO_BUTTON(radio[0]), "Open as layer");
    for (GtkWidget *button : radio)
        gtk_box_pack_start(GTK_BOX(modes), button, TRUE, FALSE, 0);
    gtk_widget_show_all(modes);
    gtk_file_chooser_set_extra_widget(chooser, modes);

    add_filter(dialog, "JPEG Files", "*.jpg");
    add_filter(dialog, "PNG Files", "*.png");
    add_filter(dialog, "All Files *", "*");

    set_canvas_cursor(NULL);
    gchar *chosen = NULL;
    if (gtk_dialog_run(GTK_DIALOG(dialog)) == GTK_RESPONSE_ACCEPT) {
        enum open_mode mode = OPEN_DEFAULT;
        if (gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(radio[OPEN_WITH_ALPHA])))
            mode = OPEN_WITH_ALPHA;
        else if (gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(radio[OPEN_AS_LAYER])))
            mode = OPEN_AS_LAYER;
        chosen = gtk_file_chooser_get_filename(chooser);
        if (chosen != NULL) open_image_file(chosen, mode, bar);
    }
    remember_folder(&folder, chooser, chosen);
    g_free(chosen);
    set_canvas_cursor(blank_cursor);
    gtk_widget_destroy(dialog);
}

void strip_file_extension(char *name) {
    char *dot = strrchr(name, '.');
    if (dot != NULL) *dot = '\0';
}

typedef gboolean (*file_writer)(const char *path, gpointer data, GError **error);

// Writes through a temporary file next to the target and renames it over the target only when it
// is complete, so that a failed save never destroys the file it was meant to replace.
static gboolean write_replacing(const char *target, file_writer write, gpointer data, GError **error) {
    gchar *folder = g_path_get_dirname(target);
    gchar *base = g_path_get_basename(target);
    gchar *temporary = g_strdup_printf("%s%s.%s.XXXXXX", folder, G_DIR_SEPARATOR_S, base);
    gboolean ok = FALSE;
    int fd = g_mkstemp_full(temporary, O_RDWR, 0666);
    if (fd < 0) {
        int e = errno;
        g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(e), "Failed to create a file in '%s': %s",
                    folder, g_strerror(e));
    } else {
        close(fd);
        ok = write(temporary, data, error);
        if (ok && g_rename(temporary, target) != 0) {
            int e = errno;
            g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(e), "Failed to replace '%s': %s", target,
                        g_strerror(e));
            ok = FALSE;
        }
        if (!ok) g_unlink(temporary);
    }
    g_free(temporary);
    g_free(base);
    g_free(folder);
    return ok;
}

static gboolean write_pixbuf_png(const char *path, gpointer pixbuf, GError **error) {
    return gdk_pixbuf_save(GDK_PIXBUF(pixbuf), path, "png", error, NULL);
}

static gboolean write_surface_png(const char *path, gpointer surface, GError **error) {
    cairo_status_t status = cairo_surface_write_to_png((cairo_surface_t *)surface, path);
    if (status == CAIRO_STATUS_SUCCESS) return TRUE;
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_IO, "%s", cairo_status_to_string(status));
    return FALSE;
}

int save_pixbuf_to_file(char *name, GdkPixbuf *pixbuf) {
    strip_file_extension(name);
    gchar *filename = g_strdup_printf("%s.png", name);
    GError *error = NULL;
    int status = 0;
    if (!write_replacing(filename, write_pixbuf_png, pixbuf, &error)) {
        gchar *text = g_strdup_printf("File open error: %s", error->message);
        update_statusbar(text, 1, status_bar);
        g_free(text);
        status = 1;
    }
    if (error != NULL) g_error_free(error);
    g_free(filename);
    return status;
}

int save_surface_to_file(char *name, cairo_surface_t *surface) {
    (void)surface;
    strip_file_extension(name);
    gchar *filename = g_strdup_printf("%s.png", name);
    cairo_surface_flush(surf_layer);
    gboolean ok = write_replacing(filename, write_surface_png, surf_layer, NULL);
    g_free(filename);
    return ok ? 0 : 1;
}

// The file that saving under `chosen` writes: its stem with ".png".
static gchar *png_name_for(const char *chosen) {
    gchar *stem = g_strdup(chosen);
    strip_file_extension(stem);
    gchar *png = g_strdup_printf("%s.png", stem);
    g_free(stem);
    return png;
}

// The chooser only asks before replacing the very name that was typed; saving under another name
// ("result.jpg" writes result.png) or through the "Save image" button asks here.
static gboolean may_write(GtkWidget *parent, const char *chosen, gboolean chooser_asked) {
    gchar *target = png_name_for(chosen);
    gboolean ok = TRUE;
    if (g_file_test(target, G_FILE_TEST_EXISTS) && !(chooser_asked && strcmp(target, chosen) == 0)) {
        gchar *base = g_path_get_basename(target);
        GtkWidget *question = gtk_message_dialog_new(
            GTK_WINDOW(parent), (GtkDialogFlags)(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
            GTK_MESSAGE_QUESTION, GTK_BUTTONS_NONE,
            "A file named \"%s\" already exists. Do you want to replace it?", base);
        gtk_window_set_title(GTK_WINDOW(question), "Replace File");
        gtk_dialog_add_buttons(GTK_DIALOG(question), GTK_STOCK_CANCEL, GTK_RESPONSE_CANCEL, "_Replace",
                               GTK_RESPONSE_ACCEPT, NULL);
        gtk_dialog_set_default_response(GTK_DIALOG(question), GTK_RESPONSE_CANCEL);
        ok = gtk_dialog_run(GTK_DIALOG(question)) == GTK_RESPONSE_ACCEPT;
        gtk_widget_destroy(question);
        g_free(base);
    }
    g_free(target);
    return ok;
}

static void propose_name(GtkFileChooser *chooser, const char *name) {
    gchar *base = g_path_get_basename(name);
    gtk_file_chooser_set_current_name(chooser, base);
    g_free(base);
}

// The "Save image" button's response in edit mode.
static const int save_image_response = 2;

void on_save_as(GtkWidget *widget, gpointer data) {
    (void)data;
    static gchar *folder = NULL, *image_name = NULL, *layer_name = NULL;
    GtkWidget *parent = main_window() != NULL ? main_window() : gtk_widget_get_toplevel(widget);
    gboolean edit = in_edit_mode;

    GtkWidget *dialog = gtk_file_chooser_dialog_new(
        "Save File", GTK_WINDOW(parent), GTK_FILE_CHOOSER_ACTION_SAVE, GTK_STOCK_CANCEL, GTK_RESPONSE_CANCEL,
        GTK_STOCK_SAVE, GTK_RESPONSE_ACCEPT, NULL);
    GtkFileChooser *chooser = GTK_FILE_CHOOSER(dialog);
    if (folder != NULL) gtk_file_chooser_set_current_folder(chooser, folder);
    install_preview(dialog);
    if (!edit) {
        if (image_name != NULL) propose_name(chooser, image_name);
    } else {
        gtk_dialog_add_button(GTK_DIALOG(dialog), "Save image", save_image_response);
        gtk_dialog_set_alternative_button_order(GTK_DIALOG(dialog), save_image_response, GTK_RESPONSE_ACCEPT,
                                                GTK_RESPONSE_CANCEL, -1);
        if (layer_name != NULL) propose_name(chooser, layer_name);
    }
    gtk_file_chooser_set_do_overwrite_confirmation(chooser, TRUE);
    add_filter(dialog, "PNG Files", "*.png");
    add_filter(dialog, "All Files", "*.*");

    set_canvas_cursor(NULL);
    int response = gtk_dialog_run(GTK_DIALOG(dialog));
    gchar *chosen = gtk_file_chooser_get_filename(chooser);
    if (chosen != NULL && (response == GTK_RESPONSE_ACCEPT || (edit && response == save_image_response))) {
        gboolean save_image = !edit || response == save_image_response;
        gchar **kept = save_image ? &image_name : &layer_name;
        g_free(*kept);
        *kept = g_strdup(chosen);
        if (may_write(dialog, chosen, response == GTK_RESPONSE_ACCEPT)) {
            if (save_image)
                save_pixbuf_to_file(*kept, pixbuf_image);
            else
                save_surface_to_file(*kept, surf_layer);
        }
    }
    remember_folder(&folder, chooser, chosen);
    g_free(chosen);
    set_canvas_cursor(blank_cursor);
    gtk_widget_destroy(dialog);
}

void pixbuf_to_clipboard(GtkWidget *widget, gpointer data) {
    (void)widget;
    (void)data;
    int width = gdk_pixbuf_get_width(pixbuf_image), height = gdk_pixbuf_get_height(pixbuf_image);
    int x = MAX(x_img_ROI, 0), y = MAX(y_img_ROI, 0), w = w_img_ROI, h = h_img_ROI;
    if (w <= 0 || h <= 0 || x >= width || y >= height) {
        x = y = 0;
        w = width;
        h = height;
    }
    if (x + w > width) w = width - x;
    if (y + h > height) h = height - y;
    GdkPixbuf *region = gdk_pixbuf_new_subpixbuf(pixbuf_image, x, y, w, h);
    GdkPixbuf *copy = gdk_pixbuf_copy(region);
    g_object_unref(region);
    GtkClipboard *clipboard = gtk_clipboard_get(GDK_SELECTION_CLIPBOARD);
    gtk_clipboard_set_image(clipboard, copy);
    gtk_clipboard_store(clipboard);
    g_object_unref(copy);
}
