// The calculation job end to end, in the real program under Xvfb: Calculate pressed with the real
// keyboard and pointer (XTest), the options dialog answered, the worker waited for, the matte read
// back from pixbuf_alpha and from the saved PNG, and compared with the true alpha of a synthetic
// composite. Also the start test, the constraint rule, Cancel, the region, the status messages and
// the progress bar while the worker runs.
#include <gdk/gdkkeysyms.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "app/calculation.h"
#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "numeric/arrays.h"
#include "tests/gui_test_support.h"

namespace {

GtkToolItem *tool(int n) {
    return gtk_toolbar_get_nth_item(GTK_TOOLBAR(toolbar), n);
}

GtkToggleToolButton *mode_toggle() {
    return GTK_TOGGLE_TOOL_BUTTON(tool(0));
}

std::vector<GtkWidget *> progress_bars() {
    std::vector<GtkWidget *> bars;
    for (GtkWidget *w : children(status_bar))
        if (GTK_IS_PROGRESS_BAR(w)) bars.push_back(w);
    return bars;
}

// Threads of this process named by g_thread_new("KD_THREAD", ...).
int worker_threads() {
    int n = 0;
    GDir *dir = g_dir_open("/proc/self/task", 0, nullptr);
    if (dir == nullptr) return -1;
    while (const gchar *task = g_dir_read_name(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + task + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name == "KD_THREAD") n++;
    }
    g_dir_close(dir);
    return n;
}

bool job_finished() {
    return ok_to_calc == 1 && worker_threads() == 0 && progress_bars().empty();
}

// Answers the options dialog of the next Calculate with the button of `response`, or with its close
// box for GTK_RESPONSE_DELETE_EVENT, after tweak has run on it.
std::unique_ptr<Answer> answer_options(int response, std::function<void(GtkWidget *)> tweak = nullptr) {
    return std::make_unique<Answer>("options for calculation", [=](GtkWidget *dialog) {
        if (tweak) tweak(dialog);
        if (response == GTK_RESPONSE_DELETE_EVENT)
            close_box(dialog);
        else
            gtk_button_clicked(GTK_BUTTON(gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), response)));
    });
}

// Clicks the Calculate tool button's own button, as a mouse click on it does.
void click_calculate() {
    [[maybe_unused]] LeakScope kept;
    gtk_button_clicked(GTK_BUTTON(gtk_bin_get_child(GTK_BIN(tool(4)))));
}

// The blocks a job keeps (see LeakScope) are released between jobs, so that a test running several
// jobs leaves nothing unreachable behind.
void release_kept_blocks() {
    g_free(pass_calc_args->result);
    g_free(pass_calc_args->image);
    pass_calc_args->result = pass_calc_args->image = nullptr;
}

guchar alpha_at(GdkPixbuf *pixbuf, int x, int y) {
    guchar r = 0, g = 0, b = 0, a = 0;
    gdkpixbuf_get_pixel(pixbuf, x, y, &r, &g, &b, &a);
    return a;
}

// A synthetic composite with a known alpha: a disc with a soft rim (alpha falling linearly from 1
// to 0 over `soft` pixels) of a warm, slowly varying foreground over a cool, slowly varying
// background, rounded to bytes. Scribbles cover the disc's core (white) and a frame and a ring well
// outside the rim (black), leaving a band around the rim unknown.
struct Composite {
    int w, h;
    double cx, cy, r, soft;
    std::vector<double> truth; // [y * w + x]

    Composite(int width, int height) : w(width), h(height) {
        cx = w * 0.5 - 0.3;
        cy = h * 0.5 + 0.2;
        r = 0.3 * std::min(w, h);
        soft = 5.0;
        truth.resize((size_t)w * h);
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++)
                truth[(size_t)y * w + x] = std::clamp((r - distance(x, y)) / soft + 0.5, 0.0, 1.0);
    }
    double distance(int x, int y) const { return std::hypot(x - cx, y - cy); }
    double alpha(int x, int y) const { return truth[(size_t)y * w + x]; }

    GdkPixbuf *image() const {
        GdkPixbuf *p = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, w, h);
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++) {
                const double a = alpha(x, y);
                const double f[3] = {225.0 - 0.2 * y, 120.0 + 0.4 * x, 40.0};
                const double b[3] = {40.0 + 0.3 * y, 100.0, 190.0 - 0.3 * x};
                guchar c[3];
                for (int k = 0; k < 3; k++)
                    c[k] = (guchar)std::lround(a * f[k] + (1.0 - a) * b[k]);
                gdkpixbuf_put_pixel(p, x, y, c[0], c[1], c[2], 255);
            }
        return p;
    }

    // 1 foreground, 0 background, -1 unknown.
    int scribble(int x, int y) const {
        const double d = distance(x, y);
        if (d < r - soft - 6) return 1;
        if (x < 3 || y < 3 || x >= w - 3 || y >= h - 3) return 0;
        if (d > r + soft + 6 && d < r + soft + 9) return 0;
        return -1;
    }

    // The scribble layer as the program saves it: opaque white and black, transparent elsewhere.
    cairo_surface_t *layer() const {
        cairo_surface_t *s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
        cairo_surface_flush(s);
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++) {
                const int k = scribble(x, y);
                const guchar v = k == 1 ? 255 : 0;
                cairoimagesurface_put_pixel(s, x, y, k < 0 ? 0 : 255, v, v, v);
            }
        cairo_surface_mark_dirty(s);
        return s;
    }

    // Writes the image and its scribble layer as PNG files into folder; returns their paths.
    std::pair<std::string, std::string> write(const std::string &folder) const {
        std::string image_path = folder + "/composite.png", layer_path = folder + "/composite-scribbles.png";
        GdkPixbuf *p = image();
        gdk_pixbuf_save(p, image_path.c_str(), "png", nullptr, NULL);
        g_object_unref(p);
        cairo_surface_t *s = layer();
        cairo_surface_write_to_png(s, layer_path.c_str());
        cairo_surface_destroy(s);
        return {image_path, layer_path};
    }
};

struct MatteError {
    double mean = 0, worst_unknown = 0, worst_constrained = 0;
};

// Compares the alpha bytes of pixbuf with the composite's true alpha.
MatteError matte_error(const Composite &c, GdkPixbuf *pixbuf) {
    MatteError e;
    for (int y = 0; y < c.h; y++)
        for (int x = 0; x < c.w; x++) {
            const double d = std::fabs(alpha_at(pixbuf, x, y) / 255.0 - c.alpha(x, y));
            e.mean += d;
            double &worst = c.scribble(x, y) < 0 ? e.worst_unknown : e.worst_constrained;
            worst = std::max(worst, d);
        }
    e.mean /= (double)c.w * c.h;
    return e;
}

// The matte the job should produce for the whole image and a layer, worked out here: the engine
// called directly on inputs built from the pixbuf and the layer, scaled and truncated to bytes.
std::vector<guchar> expected_matte(GdkPixbuf *image, cairo_surface_t *layer, int levels, int radius,
                                   double epsilon) {
    const int w = gdk_pixbuf_get_width(image), h = gdk_pixbuf_get_height(image);
    TIFF_img img;
    get_TIFF(&img, h, w, 'c');
    double **map = (double **)get_init_arr(w, h, sizeof(double));
    double **val = (double **)get_init_arr(w, h, sizeof(double));
    cairo_surface_flush(layer);
    const unsigned char *data = cairo_image_surface_get_data(layer);
    const int stride = cairo_image_surface_get_stride(layer);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const guchar *p = gdk_pixbuf_get_pixels(image) + y * gdk_pixbuf_get_rowstride(image) +
                              x * gdk_pixbuf_get_n_channels(image);
            for (int k = 0; k < 3; k++)
                img.color[k][y][x] = p[k];
            const uint32_t word = *(const uint32_t *)(data + y * stride + 4 * x);
            if (word >> 24 == 255) {
                const int r = word >> 16 & 255, g = word >> 8 & 255, b = word & 255;
                map[y][x] = 1.0;
                val[y][x] = ((std::max({r, g, b}) + b) / 2) / 255.0;
            }
        }
    int status = -3;
    double **a = solveAlphaC2F(&img, map, val, levels, levels, radius, &status, 0.02, epsilon);
    std::vector<guchar> bytes((size_t)w * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const double v = a[y][x] > 1.0 ? 255.0 : std::max(a[y][x] * 255.0, 0.0);
            bytes[(size_t)y * w + x] = (guchar)v;
        }
    free_img((void **)a);
    free_img((void **)map);
    free_img((void **)val);
    free_TIFF(&img);
    free(img.color);
    return bytes;
}

// Holds the worker at the engine's first phase until released, so that the main thread can look at
// a running job.
struct WorkerGate {
    GMutex mutex;
    GCond cond;
    bool open = false;
    bool reached = false;

    WorkerGate() {
        g_mutex_init(&mutex);
        g_cond_init(&cond);
        setEnginePhaseHook(
            [](const EnginePhaseEvent *, void *data) {
                WorkerGate *gate = static_cast<WorkerGate *>(data);
                g_mutex_lock(&gate->mutex);
                gate->reached = true;
                while (!gate->open)
                    g_cond_wait(&gate->cond, &gate->mutex);
                g_mutex_unlock(&gate->mutex);
            },
            this);
    }
    ~WorkerGate() {
        release();
        setEnginePhaseHook(nullptr, nullptr);
        g_cond_clear(&cond);
        g_mutex_clear(&mutex);
    }
    bool waiting() {
        g_mutex_lock(&mutex);
        bool r = reached;
        g_mutex_unlock(&mutex);
        return r;
    }
    void release() {
        g_mutex_lock(&mutex);
        open = true;
        g_cond_broadcast(&cond);
        g_mutex_unlock(&mutex);
    }
};

// Writes a layer pixel as the brush leaves it: premultiplied colour, the given alpha.
void put_scribble(int x, int y, guchar a, guchar r, guchar g, guchar b) {
    cairo_surface_flush(surf_layer);
    cairoimagesurface_put_pixel(surf_layer, x, y, a, r * a / 255, g * a / 255, b * a / 255);
    cairo_surface_mark_dirty(surf_layer);
}

void clear_layer() {
    cairo_t *cr = cairo_create(surf_layer);
    cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
    cairo_paint(cr);
    cairo_destroy(cr);
}

TEST(Calculation, CtrlReturnPullsTheMatteOfACompositeAndTheSavedPngCarriesIt) {
    XInput input;
    ASSERT_TRUE(input.ok()) << "the X server's XTest extension is needed";
    TempFolder folder;
    const Composite c(120, 90);
    auto files = c.write(folder.path);
    run_keldra({files.first, files.second}, [&](GtkWidget *) {
        ASSERT_EQ(gdk_pixbuf_get_width(pixbuf_image), c.w);
        ASSERT_EQ(gdk_pixbuf_get_height(pixbuf_image), c.h);
        const std::vector<guchar> expected = expected_matte(pixbuf_image, surf_layer, 1, 1, 1e-7);
        EXPECT_EQ(alpha_at(pixbuf_alpha, c.w / 2, c.h / 2), 255) << "no matte before the job";
        EXPECT_EQ(alpha_at(pixbuf_alpha, 1, 1), 255);

        auto options = answer_options(GTK_RESPONSE_OK);
        {
            CaughtStdout out(folder.path);
            {
                [[maybe_unused]] LeakScope kept;
                input.control_key(GDK_KEY_Return);
                ASSERT_TRUE(wait_until([&] { return options->shown == 1 && ok_to_calc == 0; }, 10000))
                    << "Ctrl+Return opens the options dialog and OK starts the worker";
            }
            ASSERT_TRUE(wait_until(job_finished, 60000));
            pump(50);
            EXPECT_EQ(out.text(), "\a") << "the bell, and nothing else, on standard output";
        }
        EXPECT_EQ(pass_calc_args->status, 0);
        EXPECT_EQ(in_edit_mode, 0);
        EXPECT_TRUE(gtk_toggle_tool_button_get_active(mode_toggle()));
        EXPECT_EQ(pixbuf_image, pixbuf_alpha) << "the view shows the composite";

        const MatteError e = matte_error(c, pixbuf_alpha);
        EXPECT_LT(e.mean, 0.004) << "mean absolute alpha error";
        EXPECT_LT(e.worst_unknown, 0.05) << "worst error in the unknown band";
        EXPECT_LE(e.worst_constrained, 1.0 / 255) << "scribbled pixels keep their value";
        int differing = 0;
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++)
                differing += alpha_at(pixbuf_alpha, x, y) != expected[(size_t)y * c.w + x];
        EXPECT_EQ(differing, 0) << "the job's matte is the engine's, scaled and truncated";

        // Saving in view mode writes the image with its matte.
        Answer save(
            "Save File",
            [&](GtkWidget *dialog) {
                gtk_file_chooser_set_current_folder(GTK_FILE_CHOOSER(dialog), folder.path.c_str());
                gtk_file_chooser_set_current_name(GTK_FILE_CHOOSER(dialog), "matte.png");
                gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_ACCEPT);
            },
            true);
        {
            [[maybe_unused]] LeakScope chooser;
            gtk_button_clicked(GTK_BUTTON(gtk_bin_get_child(GTK_BIN(tool(2)))));
        }
        EXPECT_GE(save.shown, 1);
        GError *error = nullptr;
        GdkPixbuf *back = gdk_pixbuf_new_from_file((folder.path + "/matte.png").c_str(), &error);
        ASSERT_NE(back, nullptr) << (error != nullptr ? error->message : "");
        ASSERT_TRUE(gdk_pixbuf_get_has_alpha(back));
        ASSERT_TRUE(gdk_pixbuf_get_width(back) == c.w && gdk_pixbuf_get_height(back) == c.h);
        int mismatches = 0;
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++) {
                guchar p[4], q[4];
                gdkpixbuf_get_pixel(back, x, y, &p[0], &p[1], &p[2], &p[3]);
                gdkpixbuf_get_pixel(pixbuf_alpha, x, y, &q[0], &q[1], &q[2], &q[3]);
                mismatches += memcmp(p, q, 4) != 0;
            }
        EXPECT_EQ(mismatches, 0) << "the PNG holds the image's colours and the matte exactly";
        g_object_unref(back);
    });
}

TEST(Calculation, ScribblesPaintedWithThePointerAndAClickOnCalculate) {
    XInput input;
    ASSERT_TRUE(input.ok()) << "the X server's XTest extension is needed";
    TempFolder folder;
    const Composite c(120, 90);
    auto files = c.write(folder.path);
    run_keldra({files.first}, [&](GtkWidget *) {
        gtk_adjustment_set_value(
            gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool(13))))), 6.0);
        input.click(GTK_WIDGET(tool(5))); // the white brush
        const int x0 = (int)c.cx, y0 = (int)c.cy;
        input.drag({{x0 - 12, y0}, {x0 + 12, y0}, {x0, y0 - 10}, {x0, y0 + 10}});
        input.click(GTK_WIDGET(tool(6))); // the black brush
        input.drag({{4, 4}, {c.w - 5, 4}, {c.w - 5, c.h - 5}, {4, c.h - 5}, {4, 4}});
        cairo_surface_flush(surf_layer);
        guchar a = 0, r = 0, g = 0, b = 0;
        cairoimagesurface_get_pixel(surf_layer, x0 + 6, y0, &a, &r, &g, &b);
        EXPECT_TRUE(a == 255 && r == 255) << "painted white";
        cairoimagesurface_get_pixel(surf_layer, 4, c.h / 2, &a, &r, &g, &b);
        EXPECT_TRUE(a == 255 && r == 0) << "painted black";
        screenshot(gtk_widget_get_toplevel(drawing_area), "calculation_painted");

        auto options = answer_options(GTK_RESPONSE_OK);
        {
            [[maybe_unused]] LeakScope kept;
            input.click(GTK_WIDGET(tool(4)));
            ASSERT_TRUE(wait_until([] { return ok_to_calc == 0; }, 10000));
        }
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(in_edit_mode, 0);
        // Fewer strokes than the scribble file: the disc is still found, within a looser bound.
        EXPECT_LT(matte_error(c, pixbuf_alpha).mean, 0.05);
        EXPECT_GE(alpha_at(pixbuf_alpha, x0 + 5, y0 + 5), 250);
        EXPECT_LE(alpha_at(pixbuf_alpha, 8, c.h / 2), 5);
    });
}

TEST(Calculation, ScribblesOfOneKindOrNotFullyOpaqueStartNothingAndSayNothing) {
    TempFolder folder;
    const Composite c(60, 40);
    auto files = c.write(folder.path);
    run_keldra({files.first}, [&](GtkWidget *) {
        const guchar alpha_before = alpha_at(pixbuf_alpha, 30, 20);
        struct Case {
            const char *what;
            std::vector<std::array<int, 6>> pixels; // x, y, alpha, red, green, blue
            bool starts;
        };
        const std::vector<Case> cases = {
            {"white only", {{30, 20, 255, 255, 255, 255}, {31, 20, 255, 255, 255, 255}}, false},
            {"black only", {{1, 1, 255, 0, 0, 0}}, false},
            {"black at alpha 254 is unknown", {{30, 20, 255, 255, 255, 255}, {1, 1, 254, 0, 0, 0}}, false},
            {"white at alpha 254 is unknown", {{30, 20, 254, 255, 255, 255}, {1, 1, 255, 0, 0, 0}}, false},
            {"grey 200 counts as foreground", {{30, 20, 255, 200, 200, 200}, {1, 1, 255, 0, 0, 0}}, true},
            {"dark red (1, 0, 0) has grey 0: background",
             {{30, 20, 255, 255, 255, 255}, {1, 1, 255, 1, 0, 0}},
             true},
            {"white and black", {{30, 20, 255, 255, 255, 255}, {1, 1, 255, 0, 0, 0}}, true},
        };
        for (const Case &k : cases) {
            clear_layer();
            for (const auto &p : k.pixels)
                put_scribble(p[0], p[1], p[2], p[3], p[4], p[5]);
            auto options = answer_options(GTK_RESPONSE_CANCEL);
            Answer error("Error", [](GtkWidget *dialog) { close_box(dialog); });
            click_calculate();
            pump(300); // a dialog would be up within a few turns of the loop
            EXPECT_EQ(options->shown, k.starts ? 1 : 0) << k.what;
            EXPECT_EQ(error.shown, 0) << k.what << ": no message";
            EXPECT_EQ(ok_to_calc, k.starts ? 0 : 1) << k.what;
            EXPECT_TRUE(progress_bars().empty()) << k.what;
            EXPECT_EQ(worker_threads(), 0) << k.what;
            ok_to_calc = 1;
        }
        EXPECT_EQ(alpha_at(pixbuf_alpha, 30, 20), alpha_before);
        EXPECT_EQ(in_edit_mode, 1);
    });
}

TEST(Calculation, CancelLeavesNoProgressBarNoThreadAndTheCloseBoxGoesAhead) {
    TempFolder folder;
    const Composite c(60, 40);
    auto files = c.write(folder.path);
    run_keldra({files.first, files.second}, [&](GtkWidget *) {
        const size_t status_children = children(status_bar).size();
        {
            auto options = answer_options(GTK_RESPONSE_CANCEL);
            click_calculate();
            EXPECT_EQ(options->shown, 1);
        }
        EXPECT_EQ(ok_to_calc, 0) << "Cancel leaves the flag at 0";
        EXPECT_EQ(children(status_bar).size(), status_children);
        EXPECT_TRUE(progress_bars().empty());
        EXPECT_EQ(pass_calc_args->progress_bar, nullptr);
        pump(300);
        EXPECT_EQ(worker_threads(), 0);
        EXPECT_EQ(in_edit_mode, 1);
        EXPECT_FALSE(gtk_toggle_tool_button_get_active(mode_toggle()));

        // Closing the dialog by its close box changes nothing in the options and lets the job run.
        const option_args before = *pass_option_args;
        {
            auto options = answer_options(GTK_RESPONSE_DELETE_EVENT, [](GtkWidget *dialog) {
                for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
                    if (GTK_IS_SPIN_BUTTON(w)) gtk_spin_button_set_value(GTK_SPIN_BUTTON(w), 3);
            });
            click_calculate();
            EXPECT_EQ(options->shown, 1);
        }
        EXPECT_EQ(ok_to_calc, 0);
        EXPECT_EQ(progress_bars().size(), 1u);
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(in_edit_mode, 0);
        EXPECT_EQ(pass_option_args->steps, before.steps);
        EXPECT_EQ(pass_option_args->win_radius, before.win_radius);
        EXPECT_EQ(pass_option_args->epsilon, before.epsilon);
        EXPECT_EQ(pass_option_args->threshold, before.threshold);
    });
}

TEST(Calculation, OptionsConfirmedAtCalculateApplyFromTheNextOne) {
    TempFolder folder;
    const Composite c(60, 40);
    auto files = c.write(folder.path);
    run_keldra({files.first, files.second}, [&](GtkWidget *) {
        {
            // The dialog's spin buttons in packing order: steps, threshold, epsilon, radius.
            auto options = answer_options(GTK_RESPONSE_OK, [](GtkWidget *dialog) {
                std::vector<GtkWidget *> spins;
                for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
                    if (GTK_IS_SPIN_BUTTON(w)) spins.push_back(w);
                ASSERT_EQ(spins.size(), 4u);
                gtk_spin_button_set_value(GTK_SPIN_BUTTON(spins[1]), 0.1);
                gtk_spin_button_set_value(GTK_SPIN_BUTTON(spins[2]), 5e-6);
                gtk_spin_button_set_value(GTK_SPIN_BUTTON(spins[3]), 2);
            });
            click_calculate();
        }
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(pass_calc_args->win_radius, 1) << "this job ran with the options in force before";
        EXPECT_DOUBLE_EQ(pass_calc_args->epsilon, 1e-7);
        EXPECT_DOUBLE_EQ(pass_calc_args->threshold, 0.02);
        EXPECT_EQ(pass_option_args->win_radius, 2);
        release_kept_blocks();

        gtk_toggle_tool_button_set_active(mode_toggle(), FALSE); // back to edit mode
        ASSERT_EQ(in_edit_mode, 1);
        {
            auto options = answer_options(GTK_RESPONSE_OK);
            click_calculate();
        }
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(pass_calc_args->win_radius, 2);
        EXPECT_NEAR(pass_calc_args->epsilon, 5e-6, 1e-12);
        EXPECT_NEAR(pass_calc_args->threshold, 0.1, 1e-12);
        EXPECT_EQ(pass_calc_args->levels, 1);
        EXPECT_EQ(pass_calc_args->steps, 1);
        EXPECT_EQ(pass_calc_args->status, 0);
    });
}

TEST(Calculation, ARegionPastTheRightEdgeIsCutAndPixelsOutsideItGetAlphaZero) {
    TempFolder folder;
    const Composite c(100, 70);
    auto files = c.write(folder.path);
    run_keldra({files.first, files.second}, [&](GtkWidget *window) {
        // "Calculate From Selection" through its accelerator, then a region reaching past the right
        // edge and above the top.
        ASSERT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_f, GDK_CONTROL_MASK));
        ASSERT_EQ(calc_ROI_is_set, 1);
        const int x0 = (int)c.cx - 8, bottom = c.h - 10;
        x_img_ROI = x0;
        y_img_ROI = -6;
        w_img_ROI = c.w;
        h_img_ROI = bottom;
        {
            auto options = answer_options(GTK_RESPONSE_OK);
            click_calculate();
        }
        EXPECT_EQ(x_img_ROI, x0);
        EXPECT_EQ(w_img_ROI, c.w - x0) << "cut at the right edge";
        EXPECT_EQ(y_img_ROI, 0);
        EXPECT_EQ(h_img_ROI, bottom);
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(pass_calc_args->status, 0);

        GdkPixbuf *image = gdk_pixbuf_new_from_file(files.first.c_str(), nullptr);
        int outside_opaque = 0, colour_changed = 0, inside = 0;
        double inside_error = 0;
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++) {
                guchar p[4], q[4];
                gdkpixbuf_get_pixel(pixbuf_alpha, x, y, &p[0], &p[1], &p[2], &p[3]);
                gdkpixbuf_get_pixel(image, x, y, &q[0], &q[1], &q[2], &q[3]);
                colour_changed += memcmp(p, q, 3) != 0;
                if (x < x0 || y >= bottom) {
                    outside_opaque += p[3] != 0;
                } else {
                    inside_error += std::fabs(p[3] / 255.0 - c.alpha(x, y));
                    inside++;
                }
            }
        g_object_unref(image);
        EXPECT_EQ(outside_opaque, 0) << "outside the region the composite is transparent";
        EXPECT_EQ(colour_changed, 0);
        EXPECT_LT(inside_error / inside, 0.02) << "mean alpha error inside the region";
    });
}

// The messages of the solver's failures, as the user reads them; null: nothing shown.
const std::vector<std::pair<int, const char *>> failure_messages = {
    {-1, "failure: out_of_memory"},
    {-3, "failure: invalid numeric object\nyou can try:\nScaling the image down using an external "
         "application or increase\nthe number of scaling steps in the calculation options.\n\nOr "
         "tighten the image trimatte i.e. paint out more foregound and\nbackground pixels.\n\nOr in "
         "preview mode (left tool bar button) drag the mouse to select\na smaller region of the image "
         "and make that the calculation region\nfrom the edit menu. Don't forget you'll need to toggle "
         "back to\nthe edit mode to perform the calculation."},
    {-4, "failure: invalid symbolic object"},
    {-5, "failure: argument missing"},
    {-6, "failure: n nonpositive"},
    {-8, "failure: invalid matrix"},
    {-11, "failure: different pattern"},
    {-13, "failure: invalid system"},
    {-15, "failure: invalid permutation"},
    {-17, "failure: internal error"},
    {-911, "failure: UMF internal error"},
    {0, nullptr},
    {1, nullptr},
    {-2, nullptr},
    {-912, nullptr},
};

// A finished job's record as the worker leaves it: a grey result of the whole image whose value at
// (x, y) is (x + 3 y) % 256, the status, a progress bar in the status bar.
void fake_finished_job(int status) {
    const int w = gdk_pixbuf_get_width(pixbuf_image), h = gdk_pixbuf_get_height(pixbuf_image);
    if (pass_calc_args->result == nullptr) pass_calc_args->result = g_new0(TIFF_img, 1);
    get_TIFF(pass_calc_args->result, h, w, 'g');
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            pass_calc_args->result->mono[y][x] = (uint8_t)((x + 3 * y) % 256);
    pass_calc_args->status = status;
    pass_calc_args->progress_bar = gtk_progress_bar_new();
    gtk_container_add(GTK_CONTAINER(status_bar), pass_calc_args->progress_bar);
    gtk_widget_show(pass_calc_args->progress_bar);
    pass_calc_args->mode_toggle = tool(0);
}

TEST(Calculation, ResultsShowTheFailingStatusMessageAndTheMatteInEveryCase) {
    TempFolder folder;
    const Composite c(40, 30);
    auto files = c.write(folder.path);
    run_keldra({files.first}, [&](GtkWidget *window) {
        for (const auto &[status, message] : failure_messages) {
            gtk_toggle_tool_button_set_active(mode_toggle(), FALSE);
            fake_finished_job(status);
            ok_to_calc = 1;
            std::string text;
            GtkWidget *parent = nullptr;
            Answer error("Error", [&](GtkWidget *dialog) {
                parent = GTK_WIDGET(gtk_window_get_transient_for(GTK_WINDOW(dialog)));
                GtkWidget *frame = children(gtk_dialog_get_content_area(GTK_DIALOG(dialog)))[0];
                text = gtk_label_get_text(GTK_LABEL(gtk_bin_get_child(GTK_BIN(frame))));
                gtk_button_clicked(
                    GTK_BUTTON(gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_NONE)));
            });
            setup_results();
            if (message != nullptr) {
                EXPECT_EQ(error.shown, 1) << "status " << status;
                EXPECT_EQ(text, message) << "status " << status;
                EXPECT_EQ(parent, window) << "status " << status;
            } else {
                pump(200);
                EXPECT_EQ(error.shown, 0) << "status " << status << " shows nothing";
            }
            EXPECT_TRUE(progress_bars().empty()) << "status " << status;
            EXPECT_TRUE(gtk_toggle_tool_button_get_active(mode_toggle())) << "status " << status;
            EXPECT_EQ(pixbuf_image, pixbuf_alpha);
            int wrong = 0;
            for (int y = 0; y < c.h; y++)
                for (int x = 0; x < c.w; x++)
                    wrong += alpha_at(pixbuf_alpha, x, y) != (x + 3 * y) % 256;
            EXPECT_EQ(wrong, 0) << "the matte is written even after a failure, status " << status;
        }
        g_free(pass_calc_args->result);
        pass_calc_args->result = nullptr;
    });
}

TEST(Calculation, ResultsAreLeftAloneWhileOkToCalcIsZero) {
    TempFolder folder;
    const Composite c(40, 30);
    auto files = c.write(folder.path);
    run_keldra({files.first}, [&](GtkWidget *) {
        const guchar before = alpha_at(pixbuf_alpha, 5, 5);
        fake_finished_job(-1);
        ok_to_calc = 0;
        Answer error("Error", [](GtkWidget *dialog) { close_box(dialog); });
        setup_results();
        pump(200);
        EXPECT_EQ(error.shown, 0);
        EXPECT_EQ(progress_bars().size(), 1u);
        EXPECT_FALSE(gtk_toggle_tool_button_get_active(mode_toggle()));
        EXPECT_EQ(alpha_at(pixbuf_alpha, 5, 5), before);
        EXPECT_EQ(w_img_ROI, c.w) << "the region is still worked out";
        gtk_widget_destroy(pass_calc_args->progress_bar);
        pass_calc_args->progress_bar = nullptr;
        free_TIFF(pass_calc_args->result);
        g_free(pass_calc_args->result);
        pass_calc_args->result = nullptr;
        ok_to_calc = 1;
    });
}

TEST(Calculation, RunningJobHasItsInputsAPulsingBarAndAResponsiveWindow) {
    TempFolder folder;
    const Composite c(60, 40);
    auto files = c.write(folder.path);
    run_keldra({files.first}, [&](GtkWidget *) {
        // Scribbles of every kind: opaque white, black and colour (grey (200 + 30) / 2 = 115), a soft
        // white rim pixel, and premultiplied half-transparent colour.
        put_scribble(30, 20, 255, 255, 255, 255);
        put_scribble(1, 2, 255, 0, 0, 0);
        put_scribble(40, 10, 255, 10, 200, 30);
        put_scribble(31, 20, 254, 255, 255, 255);
        put_scribble(5, 5, 128, 255, 0, 0);
        WorkerGate gate;
        {
            auto options = answer_options(GTK_RESPONSE_OK);
            click_calculate();
        }
        ASSERT_TRUE(wait_until([&] { return gate.waiting(); }, 10000));

        EXPECT_EQ(ok_to_calc, 0);
        EXPECT_EQ(worker_threads(), 1) << "one thread named KD_THREAD";
        ASSERT_EQ(progress_bars().size(), 1u);
        GtkWidget *bar = progress_bars()[0];
        EXPECT_STREQ(gtk_progress_bar_get_text(GTK_PROGRESS_BAR(bar)), "C A L C U L A T I N G");
        EXPECT_EQ(gdk_window_get_cursor(gtk_widget_get_window(drawing_area)), blank_cursor);

        // The worker holds the region's image and the constraints; it waits before the solve, so they
        // are as Calculate made them.
        const calc_args *job = pass_calc_args;
        ASSERT_TRUE(job->image != nullptr && job->mask != nullptr && job->values != nullptr);
        EXPECT_EQ(job->image->TIFF_type, 'c');
        ASSERT_TRUE(job->image->width == c.w && job->image->height == c.h);
        int planes_wrong = 0, unknown_wrong = 0;
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++) {
                guchar p[4];
                gdkpixbuf_get_pixel(pixbuf_image, x, y, &p[0], &p[1], &p[2], &p[3]);
                for (int k = 0; k < 3; k++)
                    planes_wrong += job->image->color[k][y][x] != p[k];
                const bool constrained = (x == 30 && y == 20) || (x == 1 && y == 2) || (x == 40 && y == 10);
                if (!constrained) unknown_wrong += job->mask[y][x] != 0.0 || job->values[y][x] != 0.0;
            }
        EXPECT_EQ(planes_wrong, 0) << "planes 0, 1, 2 hold red, green, blue";
        EXPECT_EQ(unknown_wrong, 0) << "only fully opaque layer pixels are constraints";
        EXPECT_TRUE(job->mask[20][30] == 1.0 && job->values[20][30] == 1.0);
        EXPECT_TRUE(job->mask[2][1] == 1.0 && job->values[2][1] == 0.0);
        EXPECT_TRUE(job->mask[10][40] == 1.0);
        EXPECT_NEAR(job->values[10][40], 115.0 / 255.0, 1e-15);

        // While the worker is busy the bar keeps pulsing and the canvas redraws: count the bar's
        // exposes, and ask the canvas for one.
        int bar_exposes = 0, canvas_exposes = 0;
        auto count = +[](GtkWidget *, GdkEvent *, gpointer n) -> gboolean {
            ++*static_cast<int *>(n);
            return FALSE;
        };
        g_signal_connect(bar, "expose-event", G_CALLBACK(count), &bar_exposes);
        gulong canvas_id = g_signal_connect(drawing_area, "expose-event", G_CALLBACK(count), &canvas_exposes);
        gtk_widget_queue_draw(drawing_area);
        EXPECT_TRUE(wait_until([&] { return bar_exposes >= 5 && canvas_exposes >= 1; }, 20000))
            << bar_exposes << " pulses drawn, " << canvas_exposes << " canvas redraws";
        g_signal_handler_disconnect(drawing_area, canvas_id);

        gate.release();
        ASSERT_TRUE(wait_until(job_finished, 60000));
        EXPECT_EQ(in_edit_mode, 0);
        EXPECT_EQ(alpha_at(pixbuf_alpha, 30, 20), 255);
        EXPECT_EQ(alpha_at(pixbuf_alpha, 1, 2), 0);
    });
}

TEST(Calculation, CtrlReturnClicksCalculateOnlyWhileItIsShown) {
    run_keldra({}, [&](GtkWidget *window) {
        int clicks = 0;
        gulong id = g_signal_connect_swapped(tool(4), "clicked", G_CALLBACK(+[](int *n) { ++*n; }), &clicks);
        g_signal_handlers_block_matched(tool(4), G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, (gpointer)cb_calc,
                                        nullptr);
        EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_Return, GDK_CONTROL_MASK));
        EXPECT_EQ(clicks, 1);
        GSList *groups = gtk_accel_groups_from_object(G_OBJECT(window));
        ASSERT_EQ(g_slist_length(groups), 1u) << "the window's one accelerator group";
        guint n = 0;
        GtkAccelGroupEntry *entries =
            gtk_accel_group_query(GTK_ACCEL_GROUP(groups->data), GDK_KEY_Return, GDK_CONTROL_MASK, &n);
        ASSERT_EQ(n, 1u);
        EXPECT_TRUE(entries[0].key.accel_flags & GTK_ACCEL_VISIBLE);

        // View mode hides Calculate, and the key does nothing there.
        gtk_toggle_tool_button_set_active(mode_toggle(), TRUE);
        EXPECT_FALSE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_Return, GDK_CONTROL_MASK));
        EXPECT_EQ(clicks, 1);
        gtk_toggle_tool_button_set_active(mode_toggle(), FALSE);
        g_signal_handlers_unblock_matched(tool(4), G_SIGNAL_MATCH_FUNC, 0, 0, nullptr, (gpointer)cb_calc,
                                          nullptr);
        g_signal_handler_disconnect(tool(4), id);
    });
}

} // namespace

// The bundled sample as a user meets it: started with its scribbles from the command line, matted
// with Ctrl+Return, shown as composite and as alpha. Measures how the window keeps up while the
// worker solves for half a minute or so: the progress bar's pulses drawn, the canvas redraws asked
// for every half second, and the longest wait of a 10 ms timeout. Saves the screenshots of the
// user guide.
TEST(Calculation, TheBundledSampleIsMattedWhileTheWindowKeepsPulsingAndRedrawing) {
    XInput input;
    ASSERT_TRUE(input.ok()) << "the X server's XTest extension is needed";
    const std::string samples = std::string(KELDRA_ICON_FOLDER) + "/../samples/";
    run_keldra({samples + "pompom.jpg", samples + "pompom-scribbles.png"}, [&](GtkWidget *window) {
        ASSERT_EQ(gdk_pixbuf_get_width(pixbuf_image), 640);
        gtk_window_resize(GTK_WINDOW(window), 720, 600);
        pump(300);
        screenshot(window, "keldra-scribbles");

        struct Meter {
            int pulses = 0, redraws = 0, ticks = 0;
            gint64 last = 0, longest = 0;
        } m;
        auto options = answer_options(GTK_RESPONSE_OK);
        {
            [[maybe_unused]] LeakScope kept;
            input.control_key(GDK_KEY_Return);
            ASSERT_TRUE(wait_until([] { return ok_to_calc == 0; }, 10000));
        }
        const gint64 start = g_get_monotonic_time();
        GtkWidget *bar = progress_bars().at(0);
        auto count = +[](GtkWidget *, GdkEvent *, gpointer n) -> gboolean {
            ++*static_cast<int *>(n);
            return FALSE;
        };
        g_signal_connect(bar, "expose-event", G_CALLBACK(count), &m.pulses);
        gulong redraw_id = g_signal_connect(drawing_area, "expose-event", G_CALLBACK(count), &m.redraws);
        m.last = start;
        guint tick = g_timeout_add(
            10,
            +[](gpointer data) -> gboolean {
                Meter *m = static_cast<Meter *>(data);
                const gint64 now = g_get_monotonic_time();
                m->longest = std::max(m->longest, now - m->last);
                m->last = now;
                if (++m->ticks % 50 == 0) gtk_widget_queue_draw(drawing_area);
                return TRUE;
            },
            &m);
        const bool finished = wait_until(job_finished, 300000);
        const double seconds = (g_get_monotonic_time() - start) / 1e6;
        g_source_remove(tick);
        g_signal_handler_disconnect(drawing_area, redraw_id);
        ASSERT_TRUE(finished);
        printf("sample 640x480: worker %.1f s, %d pulses drawn (%.1f per second), %d canvas redraws, "
               "longest main-loop wait %.0f ms\n",
               seconds, m.pulses, m.pulses / seconds, m.redraws, m.longest / 1000.0);
        RecordProperty("worker_seconds", std::to_string(seconds));
        RecordProperty("pulses", m.pulses);
        EXPECT_GE(m.pulses, 1) << "the bar pulsed while the worker ran";
        EXPECT_GE(m.redraws, 1) << "the canvas redrew while the worker ran";

        EXPECT_EQ(pass_calc_args->status, 0);
        EXPECT_EQ(in_edit_mode, 0);
        EXPECT_EQ(alpha_at(pixbuf_alpha, 318, 228), 255) << "the pompom's centre";
        EXPECT_EQ(alpha_at(pixbuf_alpha, 3, 3), 0) << "the garden's corner";
        int soft = 0;
        for (int y = 0; y < 480; y++)
            for (int x = 0; x < 640; x++) {
                const guchar a = alpha_at(pixbuf_alpha, x, y);
                soft += a > 10 && a < 245;
            }
        EXPECT_GT(soft, 2000) << "the hairy rim is partly transparent";
        screenshot(window, "keldra-composite");
        gtk_button_clicked(GTK_BUTTON(gtk_bin_get_child(GTK_BIN(tool(3))))); // ALPHA
        pump(200);
        screenshot(window, "keldra-alpha");
    });
}
