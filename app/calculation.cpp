#include "app/calculation.h"

#include <cstdio>
#include <cstdlib>

#include "app/dialogs.h"
#include "app/gtkkeldra.h"
#include "app/options.h"
#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "matting/fg_bg.h"
#include "numeric/arrays.h"

// What a failing solve tells the user. The codes are UMFPACK's, passed up unchanged by the engine;
// the numeric-object failure is also what a solve that never ran reports, and it is the one a too
// large problem ends in, hence the advice.
static const struct {
    int status;
    const char *message;
} status_messages[] = {
    {-1, "failure: out_of_memory"},
    {-3, "failure: invalid numeric object\nyou can try:\nScaling the image down using an external "
         "application or increase\nthe number of scaling steps in the calculation options.\n\nOr tighten "
         "the image trimatte i.e. paint out more foregound and\nbackground pixels.\n\nOr in preview mode "
         "(left tool bar button) drag the mouse to select\na smaller region of the image and make that "
         "the calculation region\nfrom the edit menu. Don't forget you'll need to toggle back to\nthe "
         "edit mode to perform the calculation."},
    {-4, "failure: invalid symbolic object"},
    {-5, "failure: argument missing"},
    {-6, "failure: n nonpositive"},
    {-8, "failure: invalid matrix"},
    {-11, "failure: different pattern"},
    {-13, "failure: invalid system"},
    {-15, "failure: invalid permutation"},
    {-17, "failure: internal error"},
    {-911, "failure: UMF internal error"},
};

const char *solver_status_message(int status) {
    for (const auto &entry : status_messages)
        if (entry.status == status) return entry.message;
    return NULL;
}

static void set_canvas_cursor(GdkCursor *cursor) {
    if (drawing_area != NULL && gtk_widget_get_window(drawing_area) != NULL)
        gdk_window_set_cursor(gtk_widget_get_window(drawing_area), cursor);
}

// The calculation region in image pixels. With "Calculate From Selection" checked the stored region
// stands (clamped to the image when asked); otherwise it becomes the whole image. The clamped region
// is written back, so the results land where the calculation read.
static void calc_region(int W, int H, int clamp) {
    if (calc_ROI_is_set == 1) {
        if (!clamp) return;
        if (x_img_ROI < 0) x_img_ROI = 0;
        if (y_img_ROI < 0) y_img_ROI = 0;
        if (x_img_ROI + w_img_ROI > W) w_img_ROI = W - x_img_ROI;
        if (y_img_ROI + h_img_ROI > H) h_img_ROI = H - y_img_ROI;
    } else {
        x_img_ROI = y_img_ROI = 0;
        w_img_ROI = W;
        h_img_ROI = H;
    }
}

void calc_opts_set(void) {
    pass_calc_args->levels = pass_option_args->levels;
    pass_calc_args->steps = pass_option_args->steps;
    pass_calc_args->epsilon = pass_option_args->epsilon;
    pass_calc_args->threshold = pass_option_args->threshold;
    pass_calc_args->win_radius = pass_option_args->win_radius;
}

gboolean update_progress(gpointer bar) {
    gtk_progress_bar_pulse(GTK_PROGRESS_BAR(bar));
    return TRUE;
}

void cb_calc(GtkWidget *button, gpointer data) {
    const int W = gdk_pixbuf_get_width(pixbuf_image);
    const int H = gdk_pixbuf_get_height(pixbuf_image);
    struct TIFF_img *image = (struct TIFF_img *)g_malloc0_n(1, sizeof(struct TIFF_img));
    GtkToolItem *mode_toggle = gtk_toolbar_get_nth_item(GTK_TOOLBAR(data), 0);
    calc_opts_set();
    cairo_surface_flush(surf_layer);

    calc_region(W, H, 1);
    // A selection lying wholly outside the image (or never dragged) leaves nothing to calculate, and
    // so, like a layer without both kinds of scribble, starts nothing.
    if (w_img_ROI <= 0 || h_img_ROI <= 0) {
        g_free(image);
        return;
    }
    // The sub-pixbuf shares the image's pixels; like the original it is kept, not released.
    GdkPixbuf *region = calc_ROI_is_set == 1 ? gdk_pixbuf_new_subpixbuf(pixbuf_image, x_img_ROI, y_img_ROI,
                                                                        w_img_ROI, h_img_ROI)
                                             : pixbuf_image;

    const int w = gdk_pixbuf_get_width(region);
    const int h = gdk_pixbuf_get_height(region);
    double **mask = (double **)get_img(w, h, sizeof(double));
    double **values = (double **)get_img(w, h, sizeof(double));
    get_TIFF(image, h, w, 'c');

    int background = 0, foreground = 0;
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            guchar r = 0, g = 0, b = 0, a = 0;
            gdkpixbuf_get_pixel(region, x, y, &r, &g, &b, &a);
            image->color[0][y][x] = r;
            image->color[1][y][x] = g;
            image->color[2][y][x] = b;

            // A layer smaller than the image (none opened yet) leaves these at "unknown".
            guchar la = 0, lr = 0, lg = 0, lb = 0;
            cairoimagesurface_get_pixel(surf_layer, x_img_ROI + x, y_img_ROI + y, &la, &lr, &lg, &lb);
            // Only fully opaque scribble pixels fix the matte; the soft rim of a stroke stays unknown.
            if (la < 255) {
                mask[y][x] = 0.0;
                values[y][x] = 0.0;
            } else {
                mask[y][x] = 1.0;
                values[y][x] = rgb2grey(lr, lg, lb) / 255.0;
                if (values[y][x] == 0.0)
                    background = 1;
                else
                    foreground = 1;
            }
        }
    }

    // Without both kinds of constraint the matte is not determined: start nothing, say nothing. The
    // record block itself stays allocated on this path, as it always has.
    if (!background || !foreground) {
        free_TIFF(image);
        free_img((void **)mask);
        free_img((void **)values);
        return;
    }

    ok_to_calc = 1;
    set_canvas_cursor(NULL);
    gtk_options_dialog_open(button, pass_option_args);
    set_canvas_cursor(blank_cursor);

    GtkWidget *bar = gtk_progress_bar_new();
    gtk_progress_bar_set_text(GTK_PROGRESS_BAR(bar), "C A L C U L A T I N G");
    gtk_container_add(GTK_CONTAINER(status_bar), bar);
    gtk_widget_show(bar);
    pass_calc_args->progress_source = g_timeout_add(100, update_progress, bar);

    if (ok_to_calc == 0) {
        g_source_remove(pass_calc_args->progress_source);
        pass_calc_args->progress_source = 0;
        gtk_widget_destroy(bar);
        free_TIFF(image);
        free(image->color);
        g_free(image);
        free_img((void **)mask);
        free_img((void **)values);
        return;
    }

    pass_calc_args->image = image;
    pass_calc_args->mask = mask;
    pass_calc_args->values = values;
    pass_calc_args->result = (struct TIFF_img *)g_malloc(sizeof(struct TIFF_img));
    pass_calc_args->progress_bar = bar;
    pass_calc_args->mode_toggle = mode_toggle;
    ok_to_calc = 0;
    // The handle reaches thread_done through the worker's idle callback, which joins it.
    g_thread_new("KD_THREAD", winKeldraMain, pass_calc_args);
}

gpointer winKeldraMain(gpointer data) {
    struct calc_args *args = (struct calc_args *)data;
    struct TIFF_img *image = args->image;
    double **mask = args->mask;
    double **values = args->values;
    const int levels = args->levels;
    const int steps = args->steps;
    const double epsilon = args->epsilon;
    const double threshold = args->threshold;
    const int win_radius = args->win_radius;
    // The colour estimation writes two debug TIFF files and is not part of pulling a matte; it stays
    // wired in, switched off.
    const int estimate_colours = 0;

    int status = -3;
    double **matte = solveAlphaC2F(image, mask, values, levels, MIN(levels, steps), win_radius, &status,
                                   threshold, epsilon);
    args->status = status;
    if (estimate_colours) solveFB(image, matte);

    const int width = image->width;
    const int height = image->height;
    scale2_255(matte, width, height);
    struct TIFF_img *result = args->result;
    get_TIFF(result, height, width, 'g');
    // Truncation toward zero; a value that is not a number (never produced by a finished solve) is 0.
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            result->mono[y][x] = matte[y][x] > 0.0 ? (uint8_t)(int)matte[y][x] : 0;

    free_TIFF(image);
    free(image->color);
    free_img((void **)mask);
    free_img((void **)values);
    free_img((void **)matte);

    fputc(7, stdout);
    fflush(stdout);
    g_idle_add(thread_done, g_thread_self());
    return NULL;
}

gboolean thread_done(gpointer thread) {
    gdk_threads_enter();
    g_thread_join((GThread *)thread);
    ok_to_calc = 1;
    // A second Calculate during a run shares these fields; the first job to finish takes them.
    if (pass_calc_args->progress_source != 0) {
        g_source_remove(pass_calc_args->progress_source);
        pass_calc_args->progress_source = 0;
    }
    setup_results();
    gdk_threads_leave();
    return FALSE;
}

void setup_results(void) {
    const int W = gdk_pixbuf_get_width(pixbuf_image);
    const int H = gdk_pixbuf_get_height(pixbuf_image);
    calc_region(W, H, 0);
    if (ok_to_calc == 0) return;

    if (pass_calc_args->progress_bar != NULL) {
        gtk_widget_destroy(pass_calc_args->progress_bar);
        pass_calc_args->progress_bar = NULL;
    }
    const char *message = solver_status_message(pass_calc_args->status);
    if (message != NULL) error_message_dialog(GTK_WIDGET(pass_calc_args->mode_toggle), message);

    // The matte is written even after a failure; outside the region the composite is transparent. The
    // result's own size also bounds the read, in case the region changed while the worker ran.
    const struct TIFF_img *result = pass_calc_args->result;
    for (int x = 0; x < W; x++) {
        for (int y = 0; y < H; y++) {
            guchar r = 0, g = 0, b = 0, a = 0;
            gdkpixbuf_get_pixel(pixbuf_image, x, y, &r, &g, &b, &a);
            const int rx = x - x_img_ROI;
            const int ry = y - y_img_ROI;
            guchar matte = 0;
            if (rx >= 0 && ry >= 0 && rx < w_img_ROI && ry < h_img_ROI && rx < result->width &&
                ry < result->height)
                matte = result->mono[ry][rx];
            gdkpixbuf_put_pixel(pixbuf_alpha, x, y, r, g, b, matte);
        }
    }

    set_canvas_cursor(NULL);
    free_TIFF(pass_calc_args->result);
    gtk_toggle_tool_button_set_active(GTK_TOGGLE_TOOL_BUTTON(pass_calc_args->mode_toggle), TRUE);
}
