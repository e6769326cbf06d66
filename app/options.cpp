#include "app/options.h"

#include "app/gtkkeldra.h"

void opts_set_default(struct option_args *options) {
    options->levels = 1;
    options->steps = 1;
    options->epsilon = 1e-7;
    options->threshold = 0.02;
    options->win_radius = 1;
}

void cb_levels_num(GtkAdjustment *levels, GtkAdjustment *steps) {
    gtk_adjustment_set_upper(steps, gtk_adjustment_get_value(levels));
}

void signal_set_defaults(GtkWidget *button, GtkWidget **table) {
    (void)button;
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(table[0]), 1.0);
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(table[1]), 1.0);
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(table[2]), 1e-7);
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(table[3]), 0.02);
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(table[4]), 1.0);
}

static void add_field(GtkWidget *content, const gchar *text, GtkWidget *spin) {
    gtk_container_add(GTK_CONTAINER(content), gtk_label_new(text));
    gtk_container_add(GTK_CONTAINER(content), spin);
}

void gtk_options_dialog_open(GtkWidget *widget, struct option_args *options) {
    (void)widget;
    GtkWidget *parent = gtk_widget_get_toplevel(drawing_area);
    // Each down-scaling halves the image; ten pixels on the short side per level keeps the coarsest
    // level meaningful.
    int shorter = MIN(options->img_width, options->img_height);
    int max_levels = MAX(shorter / 10, 1);

    GtkWidget **table = g_new(GtkWidget *, 5);
    gdk_window_set_cursor(gtk_widget_get_window(drawing_area), NULL);

    GtkWidget *dialog = gtk_dialog_new_with_buttons(
        "options for calculation", GTK_WINDOW(parent),
        (GtkDialogFlags)(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT), GTK_STOCK_OK, GTK_RESPONSE_OK,
        GTK_STOCK_CANCEL, GTK_RESPONSE_CANCEL, NULL);
    GtkWidget *content = gtk_dialog_get_content_area(GTK_DIALOG(dialog));

    GtkAdjustment *levels = GTK_ADJUSTMENT(gtk_adjustment_new(options->levels, 1, max_levels, 1, 1, 0));
    GtkAdjustment *steps = GTK_ADJUSTMENT(gtk_adjustment_new(options->steps, 1, options->levels, 1, 1, 0));
    GtkAdjustment *epsilon = GTK_ADJUSTMENT(gtk_adjustment_new(options->epsilon, 1e-7, 1e-5, 1e-7, 0, 0));
    GtkAdjustment *threshold = GTK_ADJUSTMENT(gtk_adjustment_new(options->threshold, 0, 0.5, 0.01, 0, 0));
    GtkAdjustment *win_radius = GTK_ADJUSTMENT(gtk_adjustment_new(options->win_radius, 1, 5, 1, 0, 0));
    g_signal_connect(levels, "value_changed", G_CALLBACK(cb_levels_num), steps);

    table[0] = gtk_spin_button_new(levels, 1.0, 0);
    table[1] = gtk_spin_button_new(steps, 1.0, 0);
    table[2] = gtk_spin_button_new(epsilon, 1e-7, 7);
    table[3] = gtk_spin_button_new(threshold, 0.01, 2);
    table[4] = gtk_spin_button_new(win_radius, 1.0, 0);
    // The down-scale field is deliberately not placed in the dialog: its label is handed to the spin
    // button instead, an add the toolkit refuses with a warning, so the dialog shows the label alone
    // and the count changes only through the reset button. The spin button stays alive for that.
    g_object_ref_sink(table[0]);
    GtkWidget *levels_label = gtk_label_new("Down scale image this many times for larger images");
    gtk_container_add(GTK_CONTAINER(content), levels_label);
    gtk_container_add((GtkContainer *)table[0], levels_label);
    add_field(content, "Recalculate matte in this many steps when upscaling", table[1]);
    add_field(content, "Threshold value for trimatte from down scaled matte", table[3]);
    add_field(content, "Degree edges are softened in the matte", table[2]);
    add_field(content, "Window size. Try down scaling (more efficient) first!", table[4]);

    GtkWidget *reset = gtk_button_new_with_label("Reset to default values");
    gtk_container_add(GTK_CONTAINER(content), reset);
    g_signal_connect(reset, "clicked", G_CALLBACK(signal_set_defaults), table);

    gtk_widget_show_all(dialog);
    gint response = gtk_dialog_run(GTK_DIALOG(dialog));
    if (response == GTK_RESPONSE_CANCEL) {
        ok_to_calc = 0;
    } else if (response == GTK_RESPONSE_OK) {
        // A value typed but not yet committed with Enter still counts.
        for (int i = 1; i < 5; i++)
            gtk_spin_button_update(GTK_SPIN_BUTTON(table[i]));
        options->levels = (int32_t)gtk_adjustment_get_value(levels);
        options->steps = (int32_t)gtk_adjustment_get_value(steps);
        options->epsilon = gtk_adjustment_get_value(epsilon);
        options->threshold = gtk_adjustment_get_value(threshold);
        options->win_radius = (int32_t)gtk_adjustment_get_value(win_radius);
        ok_to_calc = 1;
    }

    gdk_window_set_cursor(gtk_widget_get_window(drawing_area), blank_cursor);
    gtk_widget_destroy(dialog);
    g_object_unref(table[0]);
    g_free(table);
}
