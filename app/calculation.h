// The calculation job: the record handed to the worker thread, and the Calculate handler that starts
// a job from the image and the scribble layer.
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

// cb_calc: "clicked" handler of the Calculate tool button; user data is the toolbar.
void cb_calc(GtkWidget *button, gpointer toolbar);

#endif
