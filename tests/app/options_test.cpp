// The options record and the modal options dialog, answered from a timeout on the real widgets.
#include <gtest/gtest.h>

#include "app/options.h"
#include "tests/app/gui_helpers.h"

namespace {

const char *const title = "options for calculation";

// The dialog's labels, spin buttons and buttons in packing order, and the kinds in that order.
struct Fields {
    std::vector<GtkWidget *> labels, spins, buttons;
    std::string kinds; // 'l', 's', 'b'
};

Fields fields_of(GtkWidget *dialog) {
    Fields f;
    GList *children =
        gtk_container_get_children(GTK_CONTAINER(gtk_dialog_get_content_area(GTK_DIALOG(dialog))));
    for (GList *l = children; l != nullptr; l = l->next) {
        GtkWidget *w = GTK_WIDGET(l->data);
        if (GTK_IS_LABEL(w)) {
            f.labels.push_back(w);
            f.kinds += 'l';
        } else if (GTK_IS_SPIN_BUTTON(w)) {
            f.spins.push_back(w);
            f.kinds += 's';
        } else if (GTK_IS_BUTTON(w)) {
            f.buttons.push_back(w);
            f.kinds += 'b';
        }
    }
    g_list_free(children);
    return f;
}

option_args record(int levels, int steps, double epsilon, double threshold, int radius, int w, int h) {
    return option_args{levels, steps, epsilon, threshold, radius, w, h};
}

bool same(const option_args &a, const option_args &b) {
    return a.levels == b.levels && a.steps == b.steps && a.epsilon == b.epsilon &&
           a.threshold == b.threshold && a.win_radius == b.win_radius && a.img_width == b.img_width &&
           a.img_height == b.img_height;
}

void run_dialog(option_args *options, std::function<void(GtkWidget *, Fields &)> action) {
    when_shown(title, [action](GtkWidget *dialog) {
        Fields f = fields_of(dialog);
        ASSERT_EQ(f.spins.size(), 4u);
        action(dialog, f);
    });
    gdk_threads_enter();
    gtk_options_dialog_open(nullptr, options);
    gdk_threads_leave();
}

double spin_value(const Fields &f, int i) {
    return gtk_spin_button_get_value(GTK_SPIN_BUTTON(f.spins[i]));
}

TEST(Options, DefaultsLeaveTheImageSizeAlone) {
    option_args o = record(9, 8, 0.5, 0.9, 7, 640, 480);
    opts_set_default(&o);
    EXPECT_TRUE(same(o, record(1, 1, 1e-7, 0.02, 1, 640, 480)));
}

TEST(Options, DialogShowsEveryFieldButTheDownScaleCountAndCancelStopsTheCalculation) {
    HostWindow host;
    option_args o = record(1, 1, 1e-7, 0.02, 1, 1000, 600);
    const option_args before = o;
    ok_to_calc = 1;
    GtkWarningCounter warnings;
    run_dialog(&o, [&](GtkWidget *dialog, Fields &f) {
        EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)) &&
                    gtk_window_get_destroy_with_parent(GTK_WINDOW(dialog)));
        EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(host.window));
        EXPECT_EQ(host.canvas_cursor(), nullptr) << "the default cursor while the dialog is up";
        EXPECT_EQ(f.kinds, "llslslslsb");
        const char *texts[] = {"Down scale image this many times for larger images",
                               "Recalculate matte in this many steps when upscaling",
                               "Threshold value for trimatte from down scaled matte",
                               "Degree edges are softened in the matte",
                               "Window size. Try down scaling (more efficient) first!"};
        for (int i = 0; i < 5; i++)
            EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(f.labels[i])), texts[i]);
        // value, lower, upper, step, page, climb rate, digits: steps, threshold, epsilon, radius
        const double specs[4][7] = {{1, 1, 1, 1, 1, 1.0, 0},
                                    {0.02, 0, 0.5, 0.01, 0, 0.01, 2},
                                    {1e-7, 1e-7, 1e-5, 1e-7, 0, 1e-7, 7},
                                    {1, 1, 5, 1, 0, 1.0, 0}};
        for (int i = 0; i < 4; i++) {
            GtkAdjustment *a = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(f.spins[i]));
            double climb;
            g_object_get(f.spins[i], "climb-rate", &climb, nullptr);
            const double got[7] = {gtk_adjustment_get_value(a),
                                   gtk_adjustment_get_lower(a),
                                   gtk_adjustment_get_upper(a),
                                   gtk_adjustment_get_step_increment(a),
                                   gtk_adjustment_get_page_increment(a),
                                   climb,
                                   (double)gtk_spin_button_get_digits(GTK_SPIN_BUTTON(f.spins[i]))};
            for (int k = 0; k < 7; k++)
                EXPECT_NEAR(got[k], specs[i][k], 1e-12) << "field " << i << ", property " << k;
            EXPECT_EQ(gtk_adjustment_get_page_size(a), 0.0);
        }
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(f.buttons[0])), "Reset to default values");
        GtkWidget *ok = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
        GtkWidget *cancel = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
        ASSERT_TRUE(ok != nullptr && cancel != nullptr);
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(ok)), GTK_STOCK_OK);
        screenshot(dialog, "options_dialog");
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[1]), 0.4);
        gtk_button_clicked(GTK_BUTTON(cancel));
    });
    EXPECT_EQ(host.canvas_cursor(), blank_cursor);
    EXPECT_EQ(find_toplevel(title), nullptr);
    EXPECT_EQ(ok_to_calc, 0);
    EXPECT_TRUE(same(o, before));
    // The down-scale field's label is handed to its spin button, which the toolkit refuses.
    ASSERT_EQ(warnings.messages.size(), 1u);
    EXPECT_NE(warnings.messages[0].find("gtk_container_add"), std::string::npos) << warnings.messages[0];
}

TEST(Options, OkStoresTheFieldsAndAllowsTheCalculation) {
    HostWindow host;
    option_args o = record(3, 2, 2e-7, 0.1, 2, 100, 100);
    ok_to_calc = 0;
    run_dialog(&o, [](GtkWidget *dialog, Fields &f) {
        GtkAdjustment *steps = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(f.spins[0]));
        EXPECT_EQ(gtk_adjustment_get_upper(steps), 3.0); // bounded by the record's count
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[0]), 3);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[1]), 0.37);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[2]), 3.3e-6);
        gtk_entry_set_text(GTK_ENTRY(f.spins[3]), "4"); // typed, never committed with Enter
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
    });
    EXPECT_EQ(ok_to_calc, 1);
    EXPECT_TRUE(o.levels == 3 && o.steps == 3 && o.win_radius == 4 && o.img_width == 100 &&
                o.img_height == 100);
    EXPECT_NEAR(o.epsilon, 3.3e-6, 1e-15);
    EXPECT_NEAR(o.threshold, 0.37, 1e-12);
}

TEST(Options, CloseBoxChangesNeitherTheRecordNorTheFlag) {
    HostWindow host;
    for (int flag : {0, 1}) {
        option_args o = record(2, 1, 5e-7, 0.05, 2, 300, 400);
        const option_args before = o;
        ok_to_calc = flag;
        run_dialog(&o, [](GtkWidget *dialog, Fields &f) {
            gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[3]), 5);
            close_box(dialog);
        });
        EXPECT_EQ(ok_to_calc, flag);
        EXPECT_TRUE(same(o, before));
        EXPECT_EQ(find_toplevel(title), nullptr);
        EXPECT_EQ(host.canvas_cursor(), blank_cursor);
    }
}

// The count has no field, but its adjustment holds whatever the record brings to its bounds, and OK
// reads it back: a count too large for the image comes back as the largest allowed.
TEST(Options, LargestDownScaleCountIsATenthOfTheShorterSide) {
    HostWindow host;
    const int cases[][4] = {{15, 500, 5, 1},     {19, 19, 3, 1},      {20, 1000, 5, 2}, {1000, 600, 100, 60},
                            {1000, 600, 60, 60}, {600, 1000, 59, 59}, {0, 0, 4, 1}};
    for (const auto &c : cases) {
        option_args o = record(c[2], 1, 1e-7, 0.02, 1, c[0], c[1]);
        run_dialog(&o, [](GtkWidget *dialog, Fields &) {
            gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
        });
        EXPECT_EQ(o.levels, c[3]) << c[0] << " x " << c[1] << ", asked " << c[2];
    }
}

TEST(Options, ResetRestoresDefaultsIncludingTheCountWithoutAField) {
    HostWindow host;
    option_args o = record(4, 3, 5e-6, 0.3, 3, 200, 200);
    run_dialog(&o, [](GtkWidget *dialog, Fields &f) {
        GtkAdjustment *steps = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(f.spins[0]));
        gtk_button_clicked(GTK_BUTTON(f.buttons[0]));
        EXPECT_EQ(spin_value(f, 0), 1.0);
        EXPECT_NEAR(spin_value(f, 1), 0.02, 1e-12);
        EXPECT_NEAR(spin_value(f, 2), 1e-7, 1e-15);
        EXPECT_EQ(spin_value(f, 3), 1.0);
        EXPECT_EQ(gtk_adjustment_get_upper(steps), 1.0) << "the steps follow the hidden count";
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
    });
    EXPECT_TRUE(same(o, record(1, 1, 1e-7, 0.02, 1, 200, 200)));

    // The count bounds the steps without clamping their value.
    GtkAdjustment *levels = GTK_ADJUSTMENT(g_object_ref_sink(gtk_adjustment_new(3, 1, 10, 1, 1, 0)));
    GtkAdjustment *steps = GTK_ADJUSTMENT(g_object_ref_sink(gtk_adjustment_new(5, 1, 8, 1, 1, 0)));
    cb_levels_num(levels, steps);
    EXPECT_TRUE(gtk_adjustment_get_upper(steps) == 3.0 && gtk_adjustment_get_value(steps) == 5.0);
    g_object_unref(levels);
    g_object_unref(steps);
}

} // namespace
