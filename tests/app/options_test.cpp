// The options record and its modal dialog, run in the real program and answered on its widgets.
#include <tuple>

#include "app/options.h"
#include "tests/gui_test_support.h"

namespace {

auto fields(const option_args &o) {
    return std::make_tuple(o.levels, o.steps, o.epsilon, o.threshold, o.win_radius, o.img_width,
                           o.img_height);
}

// The dialog's spin buttons in packing order: steps, threshold, epsilon, radius.
std::vector<GtkSpinButton *> spins_of(GtkWidget *dialog) {
    std::vector<GtkSpinButton *> spins;
    for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
        if (GTK_IS_SPIN_BUTTON(w)) spins.push_back(GTK_SPIN_BUTTON(w));
    return spins;
}

// Runs the dialog on options while act answers it.
void run_dialog(option_args *options, std::function<bool(GtkWidget *)> act) {
    Answer answer("options for calculation", std::move(act));
    gtk_options_dialog_open(nullptr, options);
    EXPECT_TRUE(answer.shown);
    EXPECT_EQ(canvas_cursor(), blank_cursor) << "the canvas cursor is blank again";
}

TEST(Options, DialogShowsEveryFieldButTheDownScaleCountAndCancelOrTheCloseBoxChangeNothing) {
    run_keldra({}, [](GtkWidget *window) {
        option_args o{1, 1, 1e-7, 0.02, 1, 1000, 600};
        const option_args before = o;
        run_dialog(&o, [window](GtkWidget *dialog) {
            EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)) &&
                        gtk_window_get_transient_for(GTK_WINDOW(dialog)) == GTK_WINDOW(window));
            EXPECT_EQ(canvas_cursor(), nullptr) << "the default cursor while the dialog is up";
            std::string kinds; // labels, spin buttons and the reset button: the first label has no field
            for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
                kinds += GTK_IS_LABEL(w) ? "l" : GTK_IS_SPIN_BUTTON(w) ? "s" : GTK_IS_BUTTON(w) ? "b" : "";
            EXPECT_EQ(kinds, "llslslslsb");
            gtk_spin_button_set_value(spins_of(dialog)[1], 0.4);
            return respond(GTK_RESPONSE_CANCEL)(dialog);
        });
        EXPECT_EQ(ok_to_calc, 0);
        EXPECT_EQ(fields(o), fields(before));
        run_dialog(&o, [](GtkWidget *dialog) {
            gtk_spin_button_set_value(spins_of(dialog)[3], 5);
            return respond(GTK_RESPONSE_DELETE_EVENT)(dialog);
        });
        EXPECT_EQ(ok_to_calc, 0) << "the close box leaves the flag alone";
        EXPECT_EQ(fields(o), fields(before));
    });
}

// The count has no field, but its adjustment holds what the record brings to its bounds, a tenth of the
// image's shorter side, and OK reads it back with the fields, set or typed; Reset sets the defaults.
TEST(Options, OkStoresTheFieldsAndTheDownScaleCountBoundByATenthOfTheShorterSideAndResetSetsDefaults) {
    run_keldra({}, [](GtkWidget *) {
        const int cases[][4] = {
            {19, 19, 3, 1}, {20, 1000, 5, 2}, {1000, 600, 100, 60}, {600, 1000, 59, 59}, {0, 0, 4, 1}};
        for (const auto &c : cases) {
            option_args o{c[2], 1, 1e-7, 0.02, 1, c[0], c[1]};
            run_dialog(&o, respond(GTK_RESPONSE_OK));
            EXPECT_EQ(o.levels, c[3]) << c[0] << " x " << c[1] << ", asked " << c[2];
        }
        option_args o{4, 3, 5e-6, 0.3, 3, 200, 200};
        run_dialog(&o, [](GtkWidget *dialog) {
            for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
                if (GTK_IS_BUTTON(w)) gtk_button_clicked(GTK_BUTTON(w)); // Reset to default values
            EXPECT_EQ(gtk_adjustment_get_upper(gtk_spin_button_get_adjustment(spins_of(dialog)[0])), 1.0)
                << "the steps follow the hidden count";
            return respond(GTK_RESPONSE_OK)(dialog);
        });
        EXPECT_EQ(fields(o), fields({1, 1, 1e-7, 0.02, 1, 200, 200}));
        o = {3, 2, 2e-7, 0.1, 2, 100, 100};
        ok_to_calc = 0;
        run_dialog(&o, [](GtkWidget *dialog) {
            std::vector<GtkSpinButton *> s = spins_of(dialog);
            gtk_spin_button_set_value(s[0], 3);
            gtk_spin_button_set_value(s[1], 0.37);
            gtk_entry_set_text(GTK_ENTRY(s[3]), "4"); // typed, never committed with Enter
            return respond(GTK_RESPONSE_OK)(dialog);
        });
        EXPECT_EQ(ok_to_calc, 1);
        EXPECT_EQ(fields(o), fields({3, 3, 2e-7, 0.37, 4, 100, 100}));
    });
}

} // namespace
