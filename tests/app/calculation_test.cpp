// Calculate in the real program: the matte of a synthetic composite against its true alpha and against
// the engine called directly, the running job, the start test, the options dialog at Calculate, the
// region, and the status messages of the results.
#include <gdk/gdkkeysyms.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <tuple>

#include "app/calculation.h"
#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "numeric/arrays.h"
#include "tests/gui_test_support.h"

namespace {

const char *const options_title = "options for calculation";

// A disc with a soft rim (alpha falling linearly from 1 to 0 over 5 pixels) of a warm, slowly varying
// foreground over a cool, slowly varying background, rounded to bytes. White scribbles cover the disc's
// core, black ones a frame and a ring well outside the rim.
struct Composite {
    int w, h;
    double cx, cy, r;
    Composite(int width, int height) : w(width), h(height), cx(w / 2 - 0.3), cy(h / 2 + 0.2), r(0.3 * h) {}
    double alpha(int x, int y) const {
        return std::clamp((r - std::hypot(x - cx, y - cy)) / 5 + 0.5, 0.0, 1.0);
    }
    uint32_t colour(int x, int y) const {
        const double a = alpha(x, y), f[3] = {225 - 0.2 * y, 120 + 0.4 * x, 40},
                     b[3] = {40 + 0.3 * y, 100, 190 - 0.3 * x};
        uint32_t c = 255;
        for (int k = 0; k < 3; k++)
            c |= (uint32_t)std::lround(a * f[k] + (1 - a) * b[k]) << (24 - 8 * k);
        return c;
    }
    // 1 foreground, 0 background, -1 unknown.
    int scribble(int x, int y) const {
        const double d = std::hypot(x - cx, y - cy);
        if (d < r - 11) return 1;
        return x < 3 || y < 3 || x >= w - 3 || y >= h - 3 || (d > r + 11 && d < r + 14) ? 0 : -1;
    }
    // Writes the image and its scribble layer into folder; returns their paths.
    std::vector<std::string> write(const std::string &folder) const {
        const uint32_t layer[] = {0, 0xFF, 0xFFFFFFFF}; // unknown, background, foreground
        return {
            write_image(folder + "/composite.png", w, h, false, [&](int x, int y) { return colour(x, y); }),
            write_image(folder + "/scribbles.png", w, h, true,
                        [&](int x, int y) { return layer[scribble(x, y) + 1]; })};
    }
};

// A colour scribble (10, 200, 30) in the unknown band, grey (200 + 30) / 2 = 115, and a white one of
// alpha 254 below it, which is no constraint.
const int colour_x = 87, colour_y = 45;

// The matte a whole-image job with the default options should give, worked out here: the engine called
// directly on inputs built from the composite and the colour scribble, scaled and truncated to bytes.
std::vector<guchar> expected_matte(const Composite &c) {
    TIFF_img img;
    get_TIFF(&img, c.h, c.w, 'c');
    double **map = (double **)get_init_arr(c.w, c.h, sizeof(double));
    double **val = (double **)get_init_arr(c.w, c.h, sizeof(double));
    for (int y = 0; y < c.h; y++)
        for (int x = 0; x < c.w; x++) {
            for (int k = 0; k < 3; k++)
                img.color[k][y][x] = c.colour(x, y) >> (24 - 8 * k) & 255;
            map[y][x] = c.scribble(x, y) >= 0;
            val[y][x] = c.scribble(x, y) == 1;
        }
    map[colour_y][colour_x] = 1;
    val[colour_y][colour_x] = 115.0 / 255;
    int status = -3;
    double **a = solveAlphaC2F(&img, map, val, 1, 1, 1, &status, 0.02, 1e-7);
    std::vector<guchar> bytes;
    for (int y = 0; y < c.h; y++)
        for (int x = 0; x < c.w; x++)
            bytes.push_back((guchar)std::clamp(a[y][x] * 255.0, 0.0, 255.0));
    for (double **block : {a, map, val})
        free_img((void **)block);
    free_TIFF(&img);
    free(img.color);
    return bytes;
}

guchar alpha_at(int x, int y) {
    return rgba_at(pixbuf_alpha, x, y) & 255;
}

int progress_bars() {
    const std::vector<GtkWidget *> shown = children(status_bar);
    return std::count_if(shown.begin(), shown.end(), [](GtkWidget *w) { return GTK_IS_PROGRESS_BAR(w); });
}

bool job_finished() {
    return ok_to_calc == 1 && progress_bars() == 0;
}

bool view_mode_shown() {
    return gtk_toggle_tool_button_get_active(GTK_TOGGLE_TOOL_BUTTON(tool_item(0))) && in_edit_mode == 0 &&
           pixbuf_image == pixbuf_alpha;
}

// Writes a layer pixel as the brush leaves it: premultiplied colour, the given alpha.
void put_scribble(int x, int y, guchar a, guchar r, guchar g, guchar b) {
    cairo_surface_flush(surf_layer);
    cairoimagesurface_put_pixel(surf_layer, x, y, a, r * a / 255, g * a / 255, b * a / 255);
    cairo_surface_mark_dirty(surf_layer);
}

// The worker waits at the engine's first phase while the gate is closed: 0 closed, 1 waiting, 2 open.
std::atomic<int> gate{2};

void wait_at_gate(const EnginePhaseEvent *, void *) {
    int closed = 0;
    gate.compare_exchange_strong(closed, 1);
    while (gate != 2)
        g_usleep(1000);
}

int count_exposes(GtkWidget *, GdkEvent *, gpointer n) {
    return ++*static_cast<int *>(n) < 0;
}

TEST(Calculation, CtrlReturnMattesACompositeWithinBoundsAndExactlyAsTheEngineDoesWhileTheBarPulses) {
    TempFolder tmp;
    const Composite c(120, 90);
    run_keldra(c.write(tmp.path), [&](GtkWidget *window) {
        put_scribble(colour_x, colour_y, 255, 10, 200, 30);
        put_scribble(colour_x, colour_y + 1, 254, 255, 255, 255);
        gate = 0;
        setEnginePhaseHook(wait_at_gate, nullptr);
        Answer options(options_title, respond(GTK_RESPONSE_OK));
        testing::internal::CaptureStdout();
        EXPECT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_Return, GDK_CONTROL_MASK));
        EXPECT_TRUE(wait_until([] { return gate == 1; }, 10000));
        EXPECT_TRUE(options.shown && ok_to_calc == 0 && progress_bars() == 1 &&
                    canvas_cursor() == blank_cursor);
        EXPECT_STREQ(gtk_progress_bar_get_text(GTK_PROGRESS_BAR(pass_calc_args->progress_bar)),
                     "C A L C U L A T I N G");
        // While the worker is busy the bar keeps pulsing.
        int pulses = 0;
        g_signal_connect(pass_calc_args->progress_bar, "expose-event", G_CALLBACK(count_exposes), &pulses);
        EXPECT_TRUE(wait_until([&] { return pulses >= 5; }, 20000)) << pulses << " pulses drawn";
        gate = 2;
        const bool finished = wait_until(job_finished, 60000);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "\a") << "the bell, and nothing else";
        ASSERT_TRUE(finished);
        EXPECT_TRUE(pass_calc_args->status == 0 && view_mode_shown());

        const std::vector<guchar> expected = expected_matte(c);
        double mean = 0, worst = 0;
        const int wrong = count_pixels(c.w, c.h, [&](int x, int y) {
            const double d = std::fabs(alpha_at(x, y) / 255.0 - c.alpha(x, y));
            worst = std::max(worst, d);
            mean += d / (c.w * c.h);
            return alpha_at(x, y) != expected[y * c.w + x] ||
                   (rgba_at(pixbuf_alpha, x, y) ^ c.colour(x, y)) > 255;
        });
        EXPECT_EQ(wrong, 0) << "the image's colours with the engine's matte, scaled and truncated";
        EXPECT_LT(mean, 0.004) << "mean absolute alpha error";
        EXPECT_LT(worst, 0.05) << "worst absolute alpha error";
    });
}

// Grey 200 counts as foreground; dark red (1, 0, 0) has grey 0 and counts as background.
TEST(Calculation, OnlyScribblesOfBothKindsStartAJobAndNothingIsSaid) {
    TempFolder tmp;
    run_keldra({Composite(60, 40).write(tmp.path)[0]}, [&](GtkWidget *) {
        // The scribbles at (30, 20) and at (1, 1) as 0xRRGGBB (-1: none), and whether a job starts.
        const int cases[][3] = {{0xFFFFFF, -1, 0}, {-1, 0, 0}, {0xC8C8C8, 0, 1}, {0xFFFFFF, 0x010000, 1}};
        for (const auto &k : cases) {
            for (int i : {0, 1})
                put_scribble(i ? 1 : 30, i ? 1 : 20, k[i] < 0 ? 0 : 255, k[i] >> 16 & 255, k[i] >> 8 & 255,
                             k[i] & 255);
            Answer options(options_title, respond(GTK_RESPONSE_CANCEL)),
                error("Error", respond(GTK_RESPONSE_NONE));
            click(4);
            EXPECT_TRUE(options.shown == k[2] && !error.shown && ok_to_calc == 1 - k[2])
                << k[0] << ", " << k[1];
            ok_to_calc = 1;
        }
    });
}

// Sets the options dialog's spin buttons (steps, threshold, epsilon, radius), then answers response.
std::function<bool(GtkWidget *)> set_options(std::vector<double> values, int response) {
    return [=](GtkWidget *dialog) {
        size_t i = 0;
        for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
            if (GTK_IS_SPIN_BUTTON(w)) gtk_spin_button_set_value(GTK_SPIN_BUTTON(w), values[i++]);
        return respond(response)(dialog);
    };
}

TEST(Calculation, CancelStopsTheJobAndConfirmedOptionsApplyFromTheNextCalculate) {
    TempFolder tmp;
    run_keldra(Composite(60, 40).write(tmp.path), [&](GtkWidget *) {
        Answer cancel(options_title, respond(GTK_RESPONSE_CANCEL));
        click(4);
        pump(300);
        EXPECT_TRUE(cancel.shown && ok_to_calc == 0 && progress_bars() == 0 && in_edit_mode == 1)
            << "Cancel leaves the flag at 0 and starts no job";
        Answer confirm(options_title, set_options({1, 0.1, 5e-6, 2}, GTK_RESPONSE_OK));
        click(4);
        ASSERT_TRUE(confirm.shown && wait_until(job_finished, 60000));
        EXPECT_TRUE(pass_calc_args->win_radius == 1 && pass_calc_args->epsilon == 1e-7)
            << "the options before";
        // The close box lets the job run, with the options confirmed last time, and changes none.
        set_view_mode(false);
        Answer close(options_title, set_options({1, 0.3, 9e-6, 3}, GTK_RESPONSE_DELETE_EVENT));
        click(4);
        EXPECT_EQ(progress_bars(), 1);
        ASSERT_TRUE(close.shown && wait_until(job_finished, 60000));
        EXPECT_TRUE(pass_calc_args->status == 0 && view_mode_shown());
        const calc_args &job = *pass_calc_args;
        const option_args &now = *pass_option_args;
        EXPECT_EQ(std::make_tuple(job.win_radius, job.epsilon, job.threshold, now.win_radius, now.epsilon,
                                  now.threshold),
                  std::make_tuple(2, 5e-6, 0.1, 2, 5e-6, 0.1));
    });
}

TEST(Calculation, ARegionPastTheRightEdgeIsCutAndPixelsOutsideItGetAlphaZero) {
    TempFolder tmp;
    const Composite c(100, 70);
    run_keldra(c.write(tmp.path), [&](GtkWidget *window) {
        ASSERT_TRUE(gtk_accel_groups_activate(G_OBJECT(window), GDK_KEY_f, GDK_CONTROL_MASK));
        ASSERT_EQ(calc_ROI_is_set, 1) << "Calculate From Selection";
        const int x0 = (int)c.cx - 8, bottom = c.h - 10;
        x_img_ROI = x0, y_img_ROI = -6, w_img_ROI = c.w, h_img_ROI = bottom;
        Answer options(options_title, respond(GTK_RESPONSE_OK));
        click(4);
        EXPECT_EQ(std::vector<int>({x_img_ROI, y_img_ROI, w_img_ROI, h_img_ROI}),
                  std::vector<int>({x0, 0, c.w - x0, bottom}));
        ASSERT_TRUE(wait_until(job_finished, 60000) && pass_calc_args->status == 0);
        double error = 0;
        EXPECT_EQ(count_pixels(c.w, c.h,
                               [&](int x, int y) {
                                   if (x < x0 || y >= bottom) return alpha_at(x, y) != 0;
                                   error += std::fabs(alpha_at(x, y) / 255.0 - c.alpha(x, y));
                                   return false;
                               }),
                  0)
            << "opaque pixels outside the region";
        EXPECT_LT(error / ((c.w - x0) * bottom), 0.02) << "mean alpha error inside the region";
    });
}

const char *const invalid_numeric =
    "failure: invalid numeric object\nyou can try:\nScaling the image down using an external application or "
    "increase\nthe number of scaling steps in the calculation options.\n\nOr tighten the image trimatte i.e. "
    "paint out more foregound and\nbackground pixels.\n\nOr in preview mode (left tool bar button) drag the "
    "mouse to select\na smaller region of the image and make that the calculation region\nfrom the edit "
    "menu. Don't forget you'll need to toggle back to\nthe edit mode to perform the calculation.";

TEST(Calculation, ResultsShowTheFailingStatusMessageAndTheMatteInEveryCase) {
    // The statuses the solver reports, with their messages (-3's above); then two it does not, with none.
    const int statuses[] = {-1, -3, -4, -5, -6, -8, -11, -13, -15, -17, -911, 0, -2};
    const char *const messages[] = {"failure: out_of_memory",           invalid_numeric,
                                    "failure: invalid symbolic object", "failure: argument missing",
                                    "failure: n nonpositive",           "failure: invalid matrix",
                                    "failure: different pattern",       "failure: invalid system",
                                    "failure: invalid permutation",     "failure: internal error",
                                    "failure: UMF internal error"};
    TempFolder tmp;
    run_keldra({Composite(40, 30).write(tmp.path)[0]}, [&](GtkWidget *window) {
        for (size_t i = 0; i < std::size(statuses); i++) {
            const int status = statuses[i];
            // A finished job as the worker leaves it: the result (x + 3 y) % 256, the status, the bar.
            set_view_mode(false);
            pass_calc_args->result = g_new0(TIFF_img, 1);
            get_TIFF(pass_calc_args->result, 30, 40, 'g');
            for (int y = 0; y < 30; y++)
                for (int x = 0; x < 40; x++)
                    pass_calc_args->result->mono[y][x] = (uint8_t)((x + 3 * y) % 256);
            pass_calc_args->status = status;
            pass_calc_args->progress_bar = gtk_progress_bar_new();
            gtk_container_add(GTK_CONTAINER(status_bar), pass_calc_args->progress_bar);
            pass_calc_args->mode_toggle = GTK_TOOL_ITEM(tool_item(0));
            std::string text;
            Answer error("Error", [&](GtkWidget *dialog) {
                EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(window));
                text = framed_text(dialog);
                return respond(GTK_RESPONSE_NONE)(dialog);
            });
            setup_results();
            EXPECT_EQ(text, i < std::size(messages) ? messages[i] : "") << "status " << status;
            EXPECT_TRUE(progress_bars() == 0 && view_mode_shown()) << "status " << status;
            EXPECT_EQ(count_pixels(40, 30, [](int x, int y) { return alpha_at(x, y) != (x + 3 * y) % 256; }),
                      0)
                << "the matte is written even after a failure, status " << status;
            g_free(pass_calc_args->result);
        }
        pass_calc_args->result = nullptr;
    });
}

} // namespace
