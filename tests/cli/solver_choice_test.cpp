// keldra-matte's --solver: every choice writes the same 8-bit matte of a synthetic composite, and the
// option is checked like the others.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "cli/matte_cli.h"
#include "tests/matting/synthetic_scene.h"

namespace {

void savePng(const SyntheticScene &s, const std::string &path, bool layer) {
    GdkPixbuf *pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, layer, 8, s.width, s.height);
    const int stride = gdk_pixbuf_get_rowstride(pb), nc = layer ? 4 : 3;
    guchar *px = gdk_pixbuf_get_pixels(pb);
    for (int i = 0; i < s.height; i++)
        for (int j = 0; j < s.width; j++) {
            guchar *p = px + i * stride + j * nc;
            if (layer) {
                const guchar v = s.values[i][j] != 0.0 ? 255 : 0;
                p[0] = p[1] = p[2] = v;
                p[3] = s.map[i][j] != 0.0 ? 255 : 0;
            } else {
                for (int c = 0; c < 3; c++)
                    p[c] = s.image.color[c][i][j];
            }
        }
    ASSERT_TRUE(gdk_pixbuf_save(pb, path.c_str(), "png", nullptr, NULL));
    g_object_unref(pb);
}

std::vector<int> readGrey(const std::string &path) {
    GdkPixbuf *pb = gdk_pixbuf_new_from_file(path.c_str(), nullptr);
    std::vector<int> out;
    if (!pb) return out;
    const int W = gdk_pixbuf_get_width(pb), H = gdk_pixbuf_get_height(pb),
              stride = gdk_pixbuf_get_rowstride(pb);
    const int nc = gdk_pixbuf_get_n_channels(pb);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            out.push_back(gdk_pixbuf_get_pixels(pb)[i * stride + j * nc]);
    g_object_unref(pb);
    return out;
}

int runTool(std::vector<std::string> args, std::string *error, std::string *progress_text) {
    std::vector<char *> argv{const_cast<char *>("keldra-matte")};
    for (std::string &a : args)
        argv.push_back(&a[0]);
    matte_options opts;
    int status = parse_matte_args(int(argv.size()), argv.data(), &opts, error);
    if (status != MATTE_EXIT_OK) return status;
    FILE *progress = tmpfile();
    status = run_matte(opts, progress, error);
    rewind(progress);
    char line[512];
    while (fgets(line, sizeof line, progress))
        *progress_text += line;
    fclose(progress);
    return status;
}

TEST(SolverChoice, EverySolverWritesTheSameMatte) {
    char tmpl[] = "/tmp/keldra-solver-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, image = dir + "/image.png", layer = dir + "/layer.png";
    SyntheticScene scene = makeScene(80, 110, false);
    savePng(scene, image, false);
    savePng(scene, layer, true);
    freeScene(&scene);

    std::vector<std::vector<int>> mattes;
    for (const char *solver : {"umfpack", "cholmod", "cg"}) {
        const std::string out = dir + "/" + solver + ".png";
        std::string error, progress;
        ASSERT_EQ(runTool({image, layer, "-o", out, "--alpha-only", std::string("--solver=") + solver},
                          &error, &progress),
                  MATTE_EXIT_OK)
            << solver << ": " << error;
        if (std::string(solver) == "cg") {
            EXPECT_NE(progress.find("keldra-matte: cg: "), std::string::npos) << progress;
        }
        mattes.push_back(readGrey(out));
        ASSERT_EQ(mattes.back().size(), size_t(80 * 110));
        unlink(out.c_str());
    }
    for (size_t s = 1; s < mattes.size(); s++) {
        size_t same = 0;
        int worst = 0;
        for (size_t k = 0; k < mattes[0].size(); k++) {
            same += mattes[s][k] == mattes[0][k];
            worst = std::max(worst, std::abs(mattes[s][k] - mattes[0][k]));
        }
        EXPECT_GE(same, size_t(0.999 * mattes[0].size())) << "solver " << s;
        EXPECT_LE(worst, 2);
    }
    unlink(image.c_str());
    unlink(layer.c_str());
    rmdir(tmpl);
}

TEST(SolverChoice, OptionIsCheckedAndDefaultsToUmfpack) {
    matte_options opts;
    std::string error;
    char *plain[] = {(char *)"keldra-matte", (char *)"a.png", (char *)"b.png", (char *)"-o", (char *)"c.png"};
    ASSERT_EQ(parse_matte_args(5, plain, &opts, &error), MATTE_EXIT_OK);
    EXPECT_EQ(opts.solver, SOLVER_UMFPACK);
    char *cholmod[] = {(char *)"keldra-matte", (char *)"a.png",    (char *)"b.png",  (char *)"-o",
                       (char *)"c.png",        (char *)"--solver", (char *)"cholmod"};
    ASSERT_EQ(parse_matte_args(7, cholmod, &opts, &error), MATTE_EXIT_OK);
    EXPECT_EQ(opts.solver, SOLVER_CHOLMOD);
    char *bad[] = {(char *)"keldra-matte", (char *)"a.png", (char *)"b.png",
                   (char *)"-o",           (char *)"c.png", (char *)"--solver=lu"};
    EXPECT_EQ(parse_matte_args(6, bad, &opts, &error), MATTE_EXIT_USAGE);
    EXPECT_EQ(error, "--solver must be umfpack, cholmod or cg, not 'lu'");
    char *missing[] = {(char *)"keldra-matte", (char *)"a.png", (char *)"b.png",
                       (char *)"-o",           (char *)"c.png", (char *)"--solver"};
    EXPECT_EQ(parse_matte_args(6, missing, &opts, &error), MATTE_EXIT_USAGE);
    EXPECT_EQ(error, "option --solver needs a value");
    EXPECT_NE(std::string(matte_usage()).find("--solver NAME"), std::string::npos);
}

} // namespace
