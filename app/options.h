// The five tuning values of a matting calculation, their defaults, and the modal dialog that edits
// them and decides whether a pending calculation goes ahead.
#ifndef KELDRA_APP_OPTIONS_H
#define KELDRA_APP_OPTIONS_H

#include <gtk/gtk.h>
#include <cstdint>

// option_args: the calculation options (the global pass_option_args, app/gtkkeldra.h).
//   levels      down-scale count: times the image is scaled down before the first solve (default 1)
//   steps       levels recalculated while scaling back up; never more than the count in use (1)
//   epsilon     regularising epsilon of the matting Laplacian, "Degree edges are softened" (1e-7)
//   threshold   turns a down-scaled matte into a trimatte (0.02)
//   win_radius  radius of the Laplacian's local window (1)
//   img_width, img_height  the opened image's size, stored by the image opener; their minimum bounds
//               the down-scale count
struct option_args {
    int32_t levels;
    int32_t steps;
    double epsilon;
    double threshold;
    int32_t win_radius;
    int32_t img_width;
    int32_t img_height;
};

// opts_set_default: writes the five defaults into *options; the image size is left alone.
void opts_set_default(struct option_args *options);

// gtk_options_dialog_open: runs the modal dialog "options for calculation" over the main window.
//   widget   the signal's source; unused
//   options  modified: on OK the five values are read back (integers truncated toward zero)
// OK sets ok_to_calc to 1, Cancel sets it to 0 and leaves *options alone; closing the dialog by its
// window's close box changes neither. The down-scale count has no field of its own in the dialog (only
// the reset button changes it); its upper bound is min(img_width, img_height) / 10, at least 1.
// The drawing area shows the default cursor while the dialog is up and blank_cursor afterwards.
void gtk_options_dialog_open(GtkWidget *widget, struct option_args *options);

// cb_levels_num: "value_changed" handler of the down-scale adjustment; sets the upper bound of the
// recalculation-steps adjustment to the new count. The steps value itself is not clamped.
void cb_levels_num(GtkAdjustment *levels, GtkAdjustment *steps);

// signal_set_defaults: "clicked" handler of "Reset to default values". table holds the dialog's five
// spin buttons: 0 down-scale count, 1 recalculation steps, 2 epsilon, 3 trimatte threshold, 4 window
// radius; they are set to the defaults. The record changes only if the dialog then ends with OK.
void signal_set_defaults(GtkWidget *button, GtkWidget **table);

#endif
