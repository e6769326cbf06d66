// The options record and the modal options dialog, answered from a timeout on the real widgets.
#include <gtest/gtest.h>

#include <cstring>

#include "app/options.h"
#include "tests/app/gui_helpers.h"

namespace {

const char *const title = "options for calculation";

struct Fields {
    std::vector<GtkWidget *> labels, spins, buttons;
    std::vector<std::string> kinds; // "label", "spin" or "button", in packing order
};

Fields fields_of(GtkWidget *dialog) {
    Fields f;
    GList *children =
        gtk_container_get_children(GTK_CONTAINER(gtk_dialog_get_content_area(GTK_DIALOG(dialog))));
    for (GList *l = children; l != nullptr; l = l->next) {
        GtkWidget *w = GTK_WIDGET(l->data);
        if (GTK_IS_LABEL(w)) {
            f.labels.push_back(w);
            f.kinds.push_back("label");
        } else if (GTK_IS_SPIN_BUTTON(w)) {
            f.spins.push_back(w);
            f.kinds.push_back("spin");
        } else if (GTK_IS_BUTTON(w)) {
            f.buttons.push_back(w);
            f.kinds.push_back("button");
        }
    }
    g_list_free(children);
    return f;
}

option_args record(int levels, int steps, double epsilon, double threshold, int radius, int w, int h) {
    option_args o;
    memset(&o, 0, sizeof o);
    o.levels = levels;
    o.steps = steps;
    o.epsilon = epsilon;
    o.threshold = threshold;
    o.win_radius = radius;
    o.img_width = w;
    o.img_height = h;
    return o;
}

void expect_same(const option_args &a, const option_args &b) {
    EXPECT_EQ(a.levels, b.levels);
    EXPECT_EQ(a.steps, b.steps);
    EXPECT_EQ(a.epsilon, b.epsilon);
    EXPECT_EQ(a.threshold, b.threshold);
    EXPECT_EQ(a.win_radius, b.win_radius);
    EXPECT_EQ(a.img_width, b.img_width);
    EXPECT_EQ(a.img_height, b.img_height);
}

void run_dialog(option_args *options, std::function<void(GtkWidget *)> action) {
    when_shown(title, std::move(action));
    gdk_threads_enter();
    gtk_options_dialog_open(nullptr, options);
    gdk_threads_leave();
}

void expect_adjustment(GtkWidget *spin, double value, double lower, double upper, double step, double page,
                       double climb, guint digits) {
    GtkAdjustment *a = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(spin));
    const double tol = 1e-12;
    EXPECT_NEAR(gtk_adjustment_get_value(a), value, tol);
    EXPECT_NEAR(gtk_adjustment_get_lower(a), lower, tol);
    EXPECT_NEAR(gtk_adjustment_get_upper(a), upper, tol);
    EXPECT_NEAR(gtk_adjustment_get_step_increment(a), step, tol);
    EXPECT_NEAR(gtk_adjustment_get_page_increment(a), page, tol);
    EXPECT_EQ(gtk_adjustment_get_page_size(a), 0.0);
    double climb_rate = 0;
    g_object_get(spin, "climb-rate", &climb_rate, nullptr);
    EXPECT_NEAR(climb_rate, climb, tol);
    EXPECT_EQ(gtk_spin_button_get_digits(GTK_SPIN_BUTTON(spin)), digits);
}

TEST(Options, DefaultsLeaveTheImageSizeAlone) {
    option_args o = record(9, 8, 0.5, 0.9, 7, 640, 480);
    opts_set_default(&o);
    expect_same(o, record(1, 1, 1e-7, 0.02, 1, 640, 480));
}

TEST(Options, DialogShowsLabelsFieldsAndBoundsButNoDownScaleField) {
    HostWindow host;
    option_args o = record(1, 1, 1e-7, 0.02, 1, 1000, 600);
    const option_args before = o;
    ok_to_calc = 1;
    GtkWarningCounter warnings;
    run_dialog(&o, [&](GtkWidget *dialog) {
        EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)));
        EXPECT_TRUE(gtk_window_get_destroy_with_parent(GTK_WINDOW(dialog)));
        EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(host.window));
        EXPECT_EQ(host.canvas_cursor(), nullptr) << "the default cursor while the dialog is up";

        Fields f = fields_of(dialog);
        std::vector<std::string> kinds = {"label", "label", "spin",  "label", "spin",
                                          "label", "spin",  "label", "spin",  "button"};
        EXPECT_EQ(f.kinds, kinds);
        const char *texts[] = {"Down scale image this many times for larger images",
                               "Recalculate matte in this many steps when upscaling",
                               "Threshold value for trimatte from down scaled matte",
                               "Degree edges are softened in the matte",
                               "Window size. Try down scaling (more efficient) first!"};
        ASSERT_EQ(f.labels.size(), 5u);
        for (int i = 0; i < 5; i++)
            EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(f.labels[i])), texts[i]);
        ASSERT_EQ(f.spins.size(), 4u);
        expect_adjustment(f.spins[0], 1, 1, 1, 1, 1, 1.0, 0);              // steps, bounded by the count
        expect_adjustment(f.spins[1], 0.02, 0, 0.5, 0.01, 0, 0.01, 2);     // threshold
        expect_adjustment(f.spins[2], 1e-7, 1e-7, 1e-5, 1e-7, 0, 1e-7, 7); // epsilon
        expect_adjustment(f.spins[3], 1, 1, 5, 1, 0, 1.0, 0);              // window radius
        ASSERT_EQ(f.buttons.size(), 1u);
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(f.buttons[0])), "Reset to default values");

        GtkWidget *ok = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
        GtkWidget *cancel = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
        ASSERT_TRUE(ok != nullptr && cancel != nullptr);
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(ok)), GTK_STOCK_OK);
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(cancel)), GTK_STOCK_CANCEL);
        screenshot(dialog, "options_dialog");
        gtk_button_clicked(GTK_BUTTON(cancel));
    });
    EXPECT_EQ(host.canvas_cursor(), blank_cursor);
    EXPECT_EQ(find_toplevel(title), nullptr);
    EXPECT_EQ(ok_to_calc, 0);
    expect_same(o, before);
    // The down-scale field's label is handed to its spin button, which the toolkit refuses.
    ASSERT_EQ(warnings.messages.size(), 1u);
    EXPECT_NE(warnings.messages[0].find("gtk_container_add"), std::string::npos) << warnings.messages[0];
}

TEST(Options, OkStoresTheFieldsAndAllowsTheCalculation) {
    HostWindow host;
    option_args o = record(3, 2, 2e-7, 0.1, 2, 100, 100);
    ok_to_calc = 0;
    run_dialog(&o, [](GtkWidget *dialog) {
        Fields f = fields_of(dialog);
        ASSERT_EQ(f.spins.size(), 4u);
        expect_adjustment(f.spins[0], 2, 1, 3, 1, 1, 1.0, 0);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[0]), 3);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[1]), 0.37);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[2]), 3.3e-6);
        // Typed but never committed with Enter: OK still takes it.
        gtk_entry_set_text(GTK_ENTRY(f.spins[3]), "4");
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
    });
    EXPECT_EQ(ok_to_calc, 1);
    EXPECT_EQ(o.levels, 3);
    EXPECT_EQ(o.steps, 3);
    EXPECT_NEAR(o.epsilon, 3.3e-6, 1e-15);
    EXPECT_NEAR(o.threshold, 0.37, 1e-12);
    EXPECT_EQ(o.win_radius, 4);
    EXPECT_EQ(o.img_width, 100);
    EXPECT_EQ(o.img_height, 100);
}

TEST(Options, CancelKeepsTheRecordAndStopsTheCalculation) {
    HostWindow host;
    option_args o = record(2, 2, 4e-6, 0.25, 3, 300, 400);
    const option_args before = o;
    ok_to_calc = 1;
    run_dialog(&o, [](GtkWidget *dialog) {
        Fields f = fields_of(dialog);
        ASSERT_EQ(f.spins.size(), 4u);
        gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[1]), 0.4);
        gtk_button_clicked(GTK_BUTTON(f.buttons[0]));
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
    });
    EXPECT_EQ(ok_to_calc, 0);
    expect_same(o, before);
}

TEST(Options, CloseBoxChangesNeitherTheRecordNorTheFlag) {
    HostWindow host;
    for (int flag : {0, 1}) {
        option_args o = record(2, 1, 5e-7, 0.05, 2, 300, 400);
        const option_args before = o;
        ok_to_calc = flag;
        run_dialog(&o, [](GtkWidget *dialog) {
            Fields f = fields_of(dialog);
            ASSERT_EQ(f.spins.size(), 4u);
            gtk_spin_button_set_value(GTK_SPIN_BUTTON(f.spins[3]), 5);
            close_box(dialog);
        });
        EXPECT_EQ(ok_to_calc, flag);
        expect_same(o, before);
        EXPECT_EQ(find_toplevel(title), nullptr);
        EXPECT_EQ(host.canvas_cursor(), blank_cursor);
    }
}

TEST(Options, LargestDownScaleCountIsATenthOfTheShorterSide) {
    HostWindow host;
    struct Case {
        int width, height, asked, kept;
    };
    const Case cases[] = {{15, 500, 5, 1},     {19, 19, 3, 1},      {20, 1000, 5, 2}, {1000, 600, 100, 60},
                          {1000, 600, 60, 60}, {600, 1000, 59, 59}, {0, 0, 4, 1}};
    for (const Case &c : cases) {
        option_args o = record(c.asked, 1, 1e-7, 0.02, 1, c.width, c.height);
        run_dialog(&o, [](GtkWidget *dialog) { gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK); });
        EXPECT_EQ(o.levels, c.kept) << c.width << " x " << c.height << ", asked " << c.asked;
    }
}

TEST(Options, ResetRestoresDefaultsIncludingTheCountWithoutAField) {
    HostWindow host;
    option_args o = record(4, 3, 5e-6, 0.3, 3, 200, 200);
    run_dialog(&o, [](GtkWidget *dialog) {
        Fields f = fields_of(dialog);
        ASSERT_EQ(f.spins.size(), 4u);
        GtkAdjustment *steps = gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(f.spins[0]));
        EXPECT_EQ(gtk_adjustment_get_upper(steps), 4.0);
        gtk_button_clicked(GTK_BUTTON(f.buttons[0]));
        EXPECT_EQ(gtk_spin_button_get_value(GTK_SPIN_BUTTON(f.spins[0])), 1.0);
        EXPECT_NEAR(gtk_spin_button_get_value(GTK_SPIN_BUTTON(f.spins[1])), 0.02, 1e-12);
        EXPECT_NEAR(gtk_spin_button_get_value(GTK_SPIN_BUTTON(f.spins[2])), 1e-7, 1e-15);
        EXPECT_EQ(gtk_spin_button_get_value(GTK_SPIN_BUTTON(f.spins[3])), 1.0);
        // The hidden count went to 1, and the steps follow it.
        EXPECT_EQ(gtk_adjustment_get_upper(steps), 1.0);
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
    });
    expect_same(o, record(1, 1, 1e-7, 0.02, 1, 200, 200));
}

TEST(Options, CountBoundsTheStepsWithoutClampingThem) {
    gui_init();
    GtkAdjustment *levels = GTK_ADJUSTMENT(gtk_adjustment_new(3, 1, 10, 1, 1, 0));
    GtkAdjustment *steps = GTK_ADJUSTMENT(gtk_adjustment_new(5, 1, 8, 1, 1, 0));
    g_object_ref_sink(levels);
    g_object_ref_sink(steps);
    cb_levels_num(levels, steps);
    EXPECT_EQ(gtk_adjustment_get_upper(steps), 3.0);
    EXPECT_EQ(gtk_adjustment_get_value(steps), 5.0);
    gtk_adjustment_set_value(levels, 7);
    cb_levels_num(levels, steps);
    EXPECT_EQ(gtk_adjustment_get_upper(steps), 7.0);
    g_object_unref(levels);
    g_object_unref(steps);
}

} // namespace
