#include <gtest/gtest.h>

#include "canvas/brush.h"
#include "tests/canvas/canvas_session.h"
#include "canvas/strokes.h"

namespace {

const std::string folder = temp_folder();
const std::string image = write_image(folder + "/image.png", 200, 150, false, picture);

GtkAdjustment *adjustment_of(int item) {
    return gtk_spin_button_get_adjustment(GTK_SPIN_BUTTON(gtk_bin_get_child(GTK_BIN(tool_item(item)))));
}

void set_brush_diameter(double d) {
    gtk_adjustment_set_value(adjustment_of(13), d);
}

void set_zoom(double percent) {
    gtk_adjustment_set_value(adjustment_of(9), percent);
    pump();
}

std::vector<double> record(GList *node) {
    const double *r = static_cast<const double *>(node->data);
    return std::vector<double>(r, r + (int)r[STROKE_LENGTH]);
}

std::vector<double> points(GList *node) {
    std::vector<double> r = record(node);
    return std::vector<double>(r.begin() + STROKE_POINTS, r.end());
}

TEST(CanvasStrokes, PointsAreStoredInImagePixelsSnappedByBrushWidth) {
    run_keldra({image}, [] {
        press(101, 57);
        EXPECT_EQ(record(current), std::vector<double>({0, 5, 1, 1, 1, 1, 1, 12, 101, 57, 101, 57}));
        set_brush_diameter(3);
        press(101, 57);
        EXPECT_EQ(points(current), std::vector<double>({101.5, 57.5, 101.5, 57.5}));
        double x, y;
        convert_storable_coords(101.5, 57.5, &x, &y);
        EXPECT_EQ(std::make_pair(x, y), std::make_pair(101.0, 57.0));

        set_zoom(200);
        set_brush_diameter(10);
        press(101, 57);
        motion(121, 57, GDK_BUTTON1_MASK);
        EXPECT_EQ(record(current)[STROKE_SCALE], 2.0);
        EXPECT_EQ(points(current), std::vector<double>({50, 28, 50, 28, 60, 28}));
        set_brush_diameter(3);
        press(101, 57);
        EXPECT_EQ(points(current), std::vector<double>({50.5, 28.5, 50.5, 28.5}));
    });
}

TEST(CanvasStrokes, LayerHoldsOnlyOpaqueBrushColourOrClearPixels) {
    run_keldra({image}, [] {
        press(50, 50);
        int opaque = 0, row = 0;
        for (uint32_t w : all_words(surf_layer))
            opaque += w == 0xFFFFFFFF;
        for (int x = 0; x < 200; x++)
            row += word_at(surf_layer, x, 50) == 0xFFFFFFFF;
        EXPECT_NEAR(opaque, G_PI * 25, 12) << "a click paints a dot of diameter 10";
        EXPECT_NEAR(row, 10, 1);

        drag({{10, 10}, {60, 40}, {120, 20}});
        g_signal_emit_by_name(tool_item(6), "clicked");
        set_brush_diameter(7);
        drag({{20, 100}, {150, 90}});
        set_zoom(200);
        g_signal_emit_by_name(tool_item(7), "clicked");
        set_brush_diameter(13);
        drag({{40, 40}, {250, 190}});
        int white = 0, black = 0;
        for (uint32_t w : all_words(surf_layer)) {
            ASSERT_TRUE(w == 0 || w == 0xFFFFFFFF || w == 0xFF000000) << std::hex << w;
            white += w == 0xFFFFFFFF;
            black += w == 0xFF000000;
        }
        EXPECT_GT(white, 100);
        EXPECT_GT(black, 100);
    });
}

TEST(CanvasStrokes, UndoRebuildsTheLayerAndRedoRepaintsTheNextStroke) {
    run_keldra({image}, [] {
        std::vector<std::vector<uint32_t>> after = {all_words(surf_layer)};
        const std::vector<std::vector<std::pair<int, int>>> strokes = {
            {{10, 10}, {90, 10}}, {{10, 40}, {90, 60}}, {{100, 100}, {150, 120}}, {{20, 130}, {40, 90}}};
        for (int i = 0; i < 3; i++) {
            drag(strokes[i]);
            after.push_back(all_words(surf_layer));
        }
        undo(nullptr, nullptr);
        EXPECT_EQ(all_words(surf_layer), after[2]);
        EXPECT_EQ(current, g_list_nth(history, 1));
        undo(nullptr, nullptr);
        undo(nullptr, nullptr);
        undo(nullptr, nullptr);
        EXPECT_EQ(current, nullptr);
        EXPECT_EQ(all_words(surf_layer), after[0]);
        EXPECT_EQ(g_list_length(history), 3u) << "undone strokes are kept for redo";
        for (int i = 1; i <= 3; i++) {
            redo(nullptr, nullptr);
            EXPECT_EQ(all_words(surf_layer), after[i]) << "redo " << i;
        }
        redo(nullptr, nullptr);
        EXPECT_EQ(all_words(surf_layer), after[3]);
        EXPECT_EQ(current, g_list_last(history));

        undo(nullptr, nullptr);
        undo(nullptr, nullptr);
        drag(strokes[3]);
        EXPECT_EQ(g_list_length(history), 2u) << "painting after undo discards the undone strokes";
        std::vector<uint32_t> painted = all_words(surf_layer);
        redo(nullptr, nullptr);
        EXPECT_EQ(all_words(surf_layer), painted);

        undo(nullptr, nullptr);
        undo(nullptr, nullptr);
        drag(strokes[0]);
        EXPECT_EQ(g_list_length(history), 1u) << "painting after undoing everything starts a new history";
        EXPECT_EQ(all_words(surf_layer), after[1]);
    });
}

TEST(CanvasStrokes, EraserStrokeUndoneAndRedoneErasesTheSamePixelsAndShowsTheImage) {
    run_keldra({image}, [] {
        set_brush_diameter(20);
        drag({{20, 50}, {180, 50}});
        g_signal_emit_by_name(tool_item(7), "clicked");
        set_brush_diameter(10);
        drag({{100, 20}, {100, 80}});
        std::vector<uint32_t> erased = all_words(surf_layer);
        EXPECT_EQ(word_at(surf_layer, 100, 50), 0u);
        EXPECT_EQ(word_at(surf_layer, 60, 50), 0xFFFFFFFFu);
        EXPECT_EQ(word_at(win_surf, 100, 50), 0xFF000000u | picture(100, 50) >> 8);
        undo(nullptr, nullptr);
        EXPECT_EQ(word_at(surf_layer, 100, 50), 0xFFFFFFFFu);
        EXPECT_EQ(word_at(win_surf, 100, 50), 0xFFFFFFFFu);
        redo(nullptr, nullptr);
        EXPECT_EQ(all_words(surf_layer), erased);
        EXPECT_EQ(word_at(win_surf, 100, 50), 0xFF000000u | picture(100, 50) >> 8);
    });
}

TEST(CanvasStrokes, UndoRestoresTheScribblesThatCameWithTheFile) {
    std::string rgba =
        write_image(folder + "/rgba.png", 60, 40, true, [](int x, int) { return x < 30 ? 0xFFu : 0u; });
    run_keldra({}, [&] {
        ASSERT_EQ(open_image_file(rgba.c_str(), OPEN_WITH_ALPHA, toolbar), 0);
        std::vector<uint32_t> opened = all_words(surf_layer);
        g_signal_emit_by_name(tool_item(7), "clicked");
        drag({{5, 20}, {55, 20}});
        EXPECT_NE(all_words(surf_layer), opened);
        undo(nullptr, nullptr);
        EXPECT_EQ(all_words(surf_layer), opened);
    });
}

TEST(CanvasBrush, ShiftPressContinuesInAStraightLineFromTheLastPoint) {
    run_keldra({image}, [] {
        drag({{20, 20}, {40, 20}});
        press(40, 80, 1, GDK_SHIFT_MASK);
        EXPECT_EQ(points(current), std::vector<double>({40, 20, 40, 80}));
        EXPECT_EQ(word_at(surf_layer, 40, 50), 0xFFFFFFFFu);
    });
}

TEST(CanvasBrush, OnlyTheLeftButtonPaintsAndAMotionWithoutItEndsTheStroke) {
    run_keldra({image}, [] {
        press(30, 30, 3);
        press(30, 30, 2);
        EXPECT_EQ(history, nullptr);
        press(10, 10);
        motion(20, 20, 0);
        motion(60, 60, GDK_BUTTON1_MASK);
        EXPECT_EQ(word_at(surf_layer, 60, 60), 0u);
        EXPECT_EQ(record(current).size(), 12u);
    });
}

TEST(CanvasBrush, StatusBarReadsTheViewPixelUnderThePointer) {
    std::string white =
        write_image(folder + "/white.png", 50, 40, false, [](int, int) { return 0xFFFFFFFFu; });
    run_keldra({white}, [] {
        auto status = [] {
            GList *children = gtk_container_get_children(
                GTK_CONTAINER(gtk_statusbar_get_message_area(GTK_STATUSBAR(status_bar))));
            std::string text = gtk_label_get_text(GTK_LABEL(children->data));
            g_list_free(children);
            return text;
        };
        motion(0, 0, 0);
        EXPECT_EQ(status(), "r255 g255 b255 a255 : x 0 y 0");
        motion(60, 10, 0);
        EXPECT_EQ(status(), "r000 g000 b000 a000 : x 60 y 10");
    });
}

TEST(CanvasBrush, ToolbarSetsColourAndSizeAndTheOutlineFollowsThePointer) {
    run_keldra({image}, [] {
        g_signal_emit_by_name(tool_item(6), "clicked");
        EXPECT_EQ(std::vector<double>({red, green, blue, alpha}), std::vector<double>({0, 0, 0, 1}));
        g_signal_emit_by_name(tool_item(7), "clicked");
        EXPECT_EQ(std::vector<double>({red, green, blue, alpha}), std::vector<double>({0.3, 0.3, 0.3, 0}));
        GtkWidget *colour = gtk_bin_get_child(GTK_BIN(tool_item(8)));
        GdkColor c = {0, 65535, 32768, 0};
        gtk_color_button_set_color(GTK_COLOR_BUTTON(colour), &c);
        g_signal_emit_by_name(colour, "color-set");
        EXPECT_DOUBLE_EQ(green, 32768 / 65535.0);
        g_signal_emit_by_name(tool_item(5), "clicked");
        EXPECT_EQ(std::vector<double>({red, green, blue, alpha}), std::vector<double>({1, 1, 1, 1}));

        motion(100, 100, 0);
        pump(50);
        EXPECT_EQ(screen_at(100, 100), 0xFF0000u) << "the white brush's red centre";
        EXPECT_EQ(screen_at(103, 100), 0xFFFFFFu);

        // Shrinking the brush from 40 to 4 queues the old outline's square around the pointer.
        set_brush_diameter(40);
        pump(50);
        set_brush_diameter(4);
        EXPECT_EQ(radius, 2.0);
        GdkRegion *queued = gdk_window_get_update_area(gtk_widget_get_window(drawing_area));
        ASSERT_NE(queued, nullptr);
        GdkRectangle old_outline = {80, 80, 60, 60}, box;
        gdk_region_get_clipbox(queued, &box);
        gdk_region_destroy(queued);
        GdkRectangle both;
        gdk_rectangle_union(&box, &old_outline, &both);
        EXPECT_TRUE(both.x == box.x && both.y == box.y && both.width == box.width &&
                    both.height == box.height);
        set_brush_diameter(1);
        motion(150, 120, 0);
        screenshot("small-brush");
    });
}

} // namespace
