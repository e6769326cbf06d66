// The error dialog and the Tips shown through it.
#include "app/dialogs.h"
#include "tests/gui_test_support.h"

namespace {

TEST(Dialogs, ErrorDialogAndTipsShowPlainTextWithOneOkButton) {
    const char *tips =
        "If your image seems too big you can try:\na) Scale the image down using an external application.\n\n"
        "b) Increase the number of scaling steps in the calculation options.\n\nc) Tighten the image "
        "trimatte "
        "i.e. paint more foregound and\nbackground pixels.\n\nd) In preview mode (left tool bar button) drag "
        "the mouse to select\na smaller region of the image and make that the calculation region\nfrom the "
        "edit menu. Don't forget you'll need to toggle back to\nthe edit mode to perform the calculation.";
    EXPECT_STREQ(tips_text, tips);
    run_keldra({}, [&](GtkWidget *window) {
        for (const char *text : {"failure: <b>internal</b> error & more\nsecond line", tips}) {
            std::string shown = "none";
            Answer error("Error", [&](GtkWidget *dialog) {
                EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)) && !canvas_cursor() &&
                            gtk_window_get_transient_for(GTK_WINDOW(dialog)) == GTK_WINDOW(window));
                EXPECT_EQ(children(gtk_dialog_get_action_area(GTK_DIALOG(dialog))).size(), 1u);
                shown = framed_text(dialog);
                return respond(GTK_RESPONSE_NONE)(dialog);
            });
            text == tips ? cb_tips(drawing_area, tips_text) : error_message_dialog(drawing_area, text);
            EXPECT_EQ(shown, text);
            EXPECT_EQ(canvas_cursor(), blank_cursor);
        }
    });
}

} // namespace
