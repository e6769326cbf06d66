// The calculation job: Calculate reads the image and the scribble layer of the calculation region into
// the engine's inputs, confirms the options, and runs the coarse-to-fine alpha solve on one worker
// thread while a progress bar pulses; the matte comes back through the main loop into pixbuf_alpha.
//
// Threads: cb_calc, update_progress, thread_done and setup_results run on the GTK main thread;
// winKeldraMain runs on the worker and touches no widget and no GUI global. The record pass_calc_args
// is complete before the worker starts and is read by the main thread only after joining it.
#ifndef KELDRA_APP_CALCULATION_H
#define KELDRA_APP_CALCULATION_H

#include <gtk/gtk.h>
#include <cstdint>

#include "numeric/tiff.h"

// calc_args: one calculation (the global pass_calc_args, allocated zero-filled by main and reused by
// every job). The main thread fills it before the worker starts and reads it only after joining it.
//   image            colour ('c') image of the calculation region
//   result           grey ('g') matte of the region, 0 to 255, filled by the worker
//   mask             region rows x columns: 1.0 where the scribble layer fixes the matte, else 0.0
//   values           same size: the fixed matte value (0 to 1) where mask is 1.0, else 0.0
//   levels, steps, epsilon, threshold, win_radius   copied from the options (app/options.h)
//   status           the solve's status, written by the worker
//   progress_source  id of the timeout that pulses progress_bar
//   progress_bar     shown in the status bar while the job runs
//   mode_toggle      toolbar item 0, set active when the results arrive
struct calc_args {
    struct TIFF_img *image;
    struct TIFF_img *result;
    double **mask;
    double **values;
    int32_t levels;
    int32_t steps;
    double epsilon;
    double threshold;
    int32_t win_radius;
    int32_t status;
    guint32 progress_source;
    GtkWidget *progress_bar;
    GtkToolItem *mode_toggle;
};

// cb_calc: "clicked" handler of the Calculate tool button (toolbar item 4).
//   button   the tool button; the options dialog is opened with it
//   toolbar  user data: the toolbar, whose item 0 is the mode toggle
// Reads the calculation region of pixbuf_image (the whole image, or with calc_ROI_is_set the stored
// region x/y/w/h_img_ROI, clamped to the image and written back) and surf_layer at the same image
// pixels. Only layer pixels with alpha exactly 255 are constraints, valued rgb2grey(red, green, blue)
// / 255; grey 0 is background, anything else foreground. Without at least one background and one
// foreground constraint it returns silently. Otherwise it runs the options dialog (the options copied
// into the job are those in force before it; the confirmed ones apply from the next Calculate), and
// on OK (or the dialog's close box) shows the pulsing "C A L C U L A T I N G" bar in status_bar, sets
// ok_to_calc to 0 and starts winKeldraMain on a thread named "KD_THREAD". On Cancel nothing is left
// behind. It does not refuse to start while another job runs.
void cb_calc(GtkWidget *button, gpointer toolbar);

// calc_opts_set: copies the five options (levels, steps, epsilon, threshold, win_radius) from
// pass_option_args into pass_calc_args.
void calc_opts_set(void);

// update_progress: timeout handler; pulses the progress bar given as data. Returns TRUE (repeat).
gboolean update_progress(gpointer bar);

// winKeldraMain: the worker thread's function.
//   args  the calculation record (pass_calc_args). image, mask, values and the options are read at
//         once; status and the record that result points to are written; image's planes, mask and
//         values are released here.
// Runs solveAlphaC2F (status -3 until the solve writes one), scales the matte to 0..255, truncates it
// into a new grey plane of *result, writes the bell character to standard output and queues
// thread_done with its own thread handle through g_idle_add. The foreground/background colour
// estimation after the solve stands behind a switch that is always off. Returns NULL.
gpointer winKeldraMain(gpointer args);

// thread_done: idle handler on the main loop; data is the worker's GThread. Joins the worker, sets
// ok_to_calc to 1, removes the progress timeout and calls setup_results. Returns FALSE (run once).
gboolean thread_done(gpointer thread);

// setup_results: hands a finished job to the view. With ok_to_calc at 0 it does nothing. Otherwise it
// destroys the progress bar, shows the message of a failing solver status in the "Error" dialog
// (statuses it does not know, 0 among them, show nothing), and then in every case writes the image
// with the matte as alpha into pixbuf_alpha: inside the region the result's grey value, outside it
// alpha 0. It resets the canvas cursor, releases the result's plane and activates the mode toggle,
// whose handler switches the view to show the matte.
void setup_results(void);

// solver_status_message: the message shown for a solver status (UMFPACK's codes, passed up unchanged
// by the engine), or NULL for a status that is not reported: 0 (success), positive warnings and codes
// the table does not list. The returned text is static. The headless keldra-matte prints the same.
const char *solver_status_message(int status);

#endif
