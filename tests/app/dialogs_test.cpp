// The error dialog, the Tips, the about box with its scaled logo, and the assistance area.
#include <gtest/gtest.h>

#include <cmath>

#include "app/dialogs.h"
#include "tests/app/gui_helpers.h"

namespace {

struct Box {
    int x0 = 1 << 30, y0 = 1 << 30, x1 = -1, y1 = -1;
    int count = 0;
};

// Bounding box of the pixels within `tolerance` (per channel, 0 to 255) of the colour.
Box find_colour(GdkPixbuf *p, int r, int g, int b, int tolerance) {
    Box box;
    int n = gdk_pixbuf_get_n_channels(p), stride = gdk_pixbuf_get_rowstride(p);
    const guchar *px = gdk_pixbuf_get_pixels(p);
    for (int y = 0; y < gdk_pixbuf_get_height(p); y++)
        for (int x = 0; x < gdk_pixbuf_get_width(p); x++) {
            const guchar *q = px + y * stride + x * n;
            if (abs(q[0] - r) <= tolerance && abs(q[1] - g) <= tolerance && abs(q[2] - b) <= tolerance) {
                box.x0 = std::min(box.x0, x);
                box.y0 = std::min(box.y0, y);
                box.x1 = std::max(box.x1, x);
                box.y1 = std::max(box.y1, y);
                box.count++;
            }
        }
    return box;
}

std::vector<GtkWidget *> action_buttons(GtkWidget *dialog) {
    return children(gtk_dialog_get_action_area(GTK_DIALOG(dialog)));
}

// The label inside the frame that is the dialog's only content besides its buttons.
GtkWidget *framed_label(GtkWidget *dialog) {
    for (GtkWidget *w : children(gtk_dialog_get_content_area(GTK_DIALOG(dialog))))
        if (GTK_IS_FRAME(w)) return gtk_bin_get_child(GTK_BIN(w));
    return nullptr;
}

// Shows `text` through error_message_dialog from a widget of the host window and checks the dialog.
void expect_error_dialog(HostWindow &host, GtkWidget *from, const char *text, const char *shot,
                         void (*show)(GtkWidget *, const char *)) {
    bool seen = false;
    when_shown("Error", [&](GtkWidget *dialog) {
        seen = true;
        EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)));
        EXPECT_TRUE(gtk_window_get_destroy_with_parent(GTK_WINDOW(dialog)));
        EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(host.window));
        EXPECT_EQ(host.canvas_cursor(), nullptr);
        GtkWidget *content = gtk_dialog_get_content_area(GTK_DIALOG(dialog));
        EXPECT_EQ(gtk_container_get_border_width(GTK_CONTAINER(content)), 5u);
        EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(content)), 10);
        GtkWidget *label = framed_label(dialog);
        ASSERT_TRUE(label != nullptr && GTK_IS_LABEL(label));
        EXPECT_EQ(gtk_frame_get_label(GTK_FRAME(gtk_widget_get_parent(label))), nullptr);
        EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(label)), text);
        EXPECT_FALSE(gtk_label_get_use_markup(GTK_LABEL(label)));
        std::vector<GtkWidget *> buttons = action_buttons(dialog);
        ASSERT_EQ(buttons.size(), 1u);
        EXPECT_STREQ(gtk_button_get_label(GTK_BUTTON(buttons[0])), GTK_STOCK_OK);
        EXPECT_EQ(gtk_dialog_get_response_for_widget(GTK_DIALOG(dialog), buttons[0]), GTK_RESPONSE_NONE);
        screenshot(dialog, shot);
        gtk_button_clicked(GTK_BUTTON(buttons[0]));
    });
    gdk_threads_enter();
    show(from, text);
    gdk_threads_leave();
    EXPECT_TRUE(seen);
    EXPECT_EQ(find_toplevel("Error"), nullptr);
    EXPECT_EQ(host.canvas_cursor(), blank_cursor);
}

// Any text, markup characters included, is shown as it is; the Tips go through the same dialog.
TEST(Dialogs, ErrorDialogShowsPlainTextWithOneOkButtonAndSoDoTheTips) {
    HostWindow host;
    expect_error_dialog(host, host.window, "failure: <b>internal</b> error & more\nsecond line",
                        "error_dialog", error_message_dialog);
    expect_error_dialog(host, drawing_area, "", "error_dialog_empty", error_message_dialog);
    const char *tips =
        "If your image seems too big you can try:\na) Scale the image down using an external "
        "application.\n\nb) Increase the number of scaling steps in the calculation options.\n\nc) "
        "Tighten the image trimatte i.e. paint more foregound and\nbackground pixels.\n\nd) In "
        "preview mode (left tool bar button) drag the mouse to select\na smaller region of the image "
        "and make that the calculation region\nfrom the edit menu. Don't forget you'll need to "
        "toggle back to\nthe edit mode to perform the calculation.";
    EXPECT_STREQ(tips_text, tips);
    expect_error_dialog(host, drawing_area, tips_text, "tips", cb_tips);
}

double logo_scale(int w, int h) {
    return std::min((w + 9) / 71.0, h / 27.0);
}

// The brown of the logo, found in the logo area; its right and bottom ends move with the logo's scale
// (the underline bar ends at 64.6 and 24.4 design units, counting the shift by one unit).
void expect_logo_at_scale(GtkWidget *dialog, GtkWidget *logo, const char *shot) {
    int w = gdk_window_get_width(gtk_widget_get_window(dialog));
    int h = gdk_window_get_height(gtk_widget_get_window(dialog));
    double s = logo_scale(w, h);
    GdkPixbuf *pixels = grab_widget(logo);
    ASSERT_NE(pixels, nullptr);
    Box brown = find_colour(pixels, 176, 48, 0, 12);
    Box grey = find_colour(pixels, 153, 153, 153, 6);
    g_object_unref(pixels);
    EXPECT_GT(brown.count, 50) << shot;
    EXPECT_GT(grey.count, 10) << shot;
    EXPECT_NEAR(brown.x1 + 1, 64.6 * s, 2.0) << shot << " at scale " << s;
    EXPECT_NEAR(brown.y1 + 1, 24.4 * s, 2.0) << shot << " at scale " << s;
    EXPECT_NEAR(brown.x0, 1.25 * s, 2.0) << shot; // the ring's left edge
    screenshot(dialog, shot);
}

TEST(Dialogs, AboutBoxScalesItsLogoWithTheBox) {
    HostWindow host;
    bool seen = false;
    when_shown("About Keldra", [&](GtkWidget *dialog) {
        seen = true;
        EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)));
        EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(host.window));
        EXPECT_EQ(host.canvas_cursor(), nullptr);
        gint dw, dh;
        gtk_window_get_default_size(GTK_WINDOW(dialog), &dw, &dh);
        EXPECT_TRUE(dw == 200 && dh == 200);

        std::vector<GtkWidget *> content = children(gtk_dialog_get_content_area(GTK_DIALOG(dialog)));
        ASSERT_GE(content.size(), 2u);
        GtkWidget *logo = content[0];
        ASSERT_TRUE(GTK_IS_DRAWING_AREA(logo));
        gint w, h;
        gtk_widget_get_size_request(logo, &w, &h);
        EXPECT_TRUE(w == 200 && h == 85);
        ASSERT_TRUE(GTK_IS_LABEL(content[1]));
        std::string label = gtk_label_get_text(GTK_LABEL(content[1]));
        EXPECT_NE(label.find("Keldra"), std::string::npos) << label;
        EXPECT_NE(label.find("0.10.3"), std::string::npos) << label;
        std::vector<GtkWidget *> buttons = action_buttons(dialog);
        ASSERT_EQ(buttons.size(), 1u);
        EXPECT_EQ(gtk_dialog_get_response_for_widget(GTK_DIALOG(dialog), buttons[0]), GTK_RESPONSE_OK);

        expect_logo_at_scale(dialog, logo, "about_box");
        gtk_window_resize(GTK_WINDOW(dialog), 420, 460);
        pump(400);
        gtk_widget_queue_draw(logo);
        pump(100);
        expect_logo_at_scale(dialog, logo, "about_box_large");
        gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
    });
    gdk_threads_enter();
    help_about_dialog(nullptr, host.window);
    gdk_threads_leave();
    EXPECT_TRUE(seen);
    EXPECT_EQ(host.canvas_cursor(), blank_cursor);
}

} // namespace
