// Brush strokes from pointer events: the stroke records, the painted layer, undo and redo, the brush
// tools and the status bar's read-out.
#include <algorithm>

#include "canvas/gtk_file_IO.h"
#include "canvas/strokes.h"
#include "tests/gui_test_support.h"

namespace {

// The current stroke's record from its points on (all of it with from 0).
std::vector<double> record(int from = STROKE_POINTS) {
    const double *r = static_cast<const double *>(current->data);
    return std::vector<double>(r + from, r + (int)r[STROKE_LENGTH]);
}

// A stroke record holds type, radius, scale, colour, length and the points in image pixels, snapped to
// pixel centres for odd brush widths.
TEST(CanvasStrokes, PointsAreStoredInImagePixelsSnappedByBrushWidthAndOnlyTheLeftButtonPaints) {
    TempFolder tmp;
    run_keldra({write_image(tmp.path + "/image.png", 200, 150, false, picture)}, [](GtkWidget *) {
        press(101, 57);
        EXPECT_EQ(record(0), std::vector<double>({0, 5, 1, 1, 1, 1, 1, 12, 101, 57, 101, 57}));
        set_spin(13, 3);
        press(101, 57);
        EXPECT_EQ(record(), std::vector<double>({101.5, 57.5, 101.5, 57.5}));
        set_spin(9, 200); // zoom
        set_spin(13, 10);
        press(101, 57);
        motion(121, 57, GDK_BUTTON1_MASK);
        EXPECT_EQ(record(STROKE_SCALE)[0], 2.0);
        EXPECT_EQ(record(), std::vector<double>({50, 28, 50, 28, 60, 28}));
        press(141, 77, 1, GDK_SHIFT_MASK);
        EXPECT_EQ(record(), std::vector<double>({60, 28, 70, 38})) << "Shift continues from the last point";
        const std::vector<double> last = record(0);
        press(30, 30, 3);
        press(30, 30, 2);
        motion(20, 20, 0); // ends the stroke
        motion(60, 60, GDK_BUTTON1_MASK);
        EXPECT_TRUE(record(0) == last && word_at(surf_layer, 15, 15) == 0 &&
                    word_at(surf_layer, 30, 30) == 0);
    });
}

TEST(CanvasStrokes, TheLayerHoldsOnlyOpaqueBrushColourOrClearPixelsAndTheStatusBarReadsTheView) {
    TempFolder tmp;
    run_keldra({write_image(tmp.path + "/image.png", 200, 150, false, picture)}, [](GtkWidget *) {
        press(50, 50);
        EXPECT_NEAR(differences(surf_layer, [](int, int) { return 0; }), G_PI * 25, 12)
            << "a click paints a dot of diameter 10";
        auto brush = [] { return std::vector<double>({red, green, blue, alpha}); };
        drag({{10, 10}, {60, 40}, {120, 20}});
        click(6);
        EXPECT_EQ(brush(), std::vector<double>({0, 0, 0, 1}));
        drag({{20, 100}, {150, 90}});
        click(7);
        EXPECT_EQ(brush(), std::vector<double>({0.3, 0.3, 0.3, 0})) << "the eraser";
        drag({{40, 40}, {190, 140}});
        const std::vector<uint32_t> words = all_words(surf_layer);
        const auto n = [&](uint32_t w) { return std::count(words.begin(), words.end(), w); };
        EXPECT_TRUE(n(0xFFFFFFFF) > 100 && n(0xFF000000) > 100 &&
                    n(0xFFFFFFFF) + n(0xFF000000) + n(0) == 200 * 150);
        click(5);
        EXPECT_EQ(brush(), std::vector<double>({1, 1, 1, 1}));
        GtkWidget *message = children(gtk_statusbar_get_message_area(GTK_STATUSBAR(status_bar)))[0];
        motion(5, 7, 0);
        EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(message)), "r035 g035 b036 a255 : x 5 y 7");
        motion(210, 10, 0);
        EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(message)), "r000 g000 b000 a000 : x 210 y 10");
    });
}

// The file's alpha gives scribbles (white on the left, black on the right) that undo brings back.
TEST(CanvasStrokes, UndoRebuildsTheLayerFromTheFileAndRedoRepaintsTheNextStrokeErasersIncluded) {
    TempFolder tmp;
    const std::string rgba = write_image(tmp.path + "/rgba.png", 200, 150, true, [](int x, int y) {
        return (picture(x, y) & ~255u) | (x < 100) * 255;
    });
    run_keldra({}, [&](GtkWidget *) {
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        std::vector<std::vector<uint32_t>> after = {all_words(surf_layer)};
        set_spin(13, 20);
        for (const auto &[tool, x0, y0, x1, y1] :
             {std::tuple(5, 10, 50, 190, 50), std::tuple(6, 10, 100, 90, 120),
              std::tuple(7, 100, 20, 100, 80)}) {
            click(tool);
            drag({{x0, y0}, {x1, y1}});
            after.push_back(all_words(surf_layer));
        }
        EXPECT_EQ(word_at(win_surf, 100, 50), 0xFF000000u | picture(100, 50) >> 8)
            << "the eraser shows the image";
        for (int i = 2; i >= 0; i--) {
            undo(nullptr, nullptr);
            EXPECT_EQ(all_words(surf_layer), after[i]) << "undo to " << i;
            EXPECT_TRUE(i < 2 || word_at(win_surf, 100, 50) == 0xFFFFFFFFu) << "the view follows";
        }
        undo(nullptr, nullptr);
        for (int i = 1; i <= 4; i++) {
            redo(nullptr, nullptr);
            EXPECT_EQ(all_words(surf_layer), after[std::min(i, 3)]) << "redo " << i;
        }
        // Painting after an undo discards the undone strokes, and after undoing all starts a new history.
        undo(nullptr, nullptr);
        drag({{20, 130}, {40, 90}});
        EXPECT_EQ(g_list_length(history), 3u);
        for (int i = 0; i < 3; i++)
            undo(nullptr, nullptr);
        click(5);
        drag({{10, 50}, {190, 50}});
        EXPECT_TRUE(g_list_length(history) == 1 && all_words(surf_layer) == after[1]);
    });
}

} // namespace
