// keldra-matte run as a user runs it: mattes of a generated composite from scribble layers (with and
// without alpha) and trimaps, with each linear solver, and the exit status, message and untouched output
// of each bad input.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "cli/matte_cli.h"

namespace {

const int W = 60, H = 50;
const guchar kOrange[3] = {230, 150, 30};

// The composite: an orange disk with a soft rim, of this alpha, over a blue gradient.
double truth(int x, int y) {
    return std::clamp((14.0 - std::hypot(x - 30.0, y - 25.0)) / 3.0 + 0.5, 0.0, 1.0);
}

void composite_pixel(int x, int y, guchar *p) {
    const double a = truth(x, y), bg[3] = {20 + 1.5 * x, 60, 200.0 - y};
    for (int c = 0; c < 3; c++)
        p[c] = (guchar)std::lround(a * kOrange[c] + (1 - a) * bg[c]);
}

bool fg_stroke(int x, int y) {
    return std::abs(x - 30) <= 4 && std::abs(y - 25) <= 4;
}
bool bg_stroke(int x, int) {
    return x < 4 || x >= W - 4;
}

// Scribbles: white inside the disk, black along the left and right edges, and half-transparent marks
// on the top row that must be ignored.
void layer_pixel(int x, int y, guchar *p) {
    p[0] = p[1] = p[2] = fg_stroke(x, y) ? 255 : 0;
    p[3] = fg_stroke(x, y) || bg_stroke(x, y) ? 255 : (y == 0 ? 254 : 0);
}

void write_png(const std::string &file, int w, int h, bool alpha,
               const std::function<void(int, int, guchar *)> &fill) {
    GdkPixbuf *pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, w, h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            fill(x, y, gdk_pixbuf_get_pixels(pb) + y * gdk_pixbuf_get_rowstride(pb) + x * (alpha ? 4 : 3));
    ASSERT_TRUE(gdk_pixbuf_save(pb, file.c_str(), "png", nullptr, NULL));
    g_object_unref(pb);
}

// A PNG's bytes, row by row; n is 0 when the file cannot be read.
struct Png {
    int w = 0, h = 0, n = 0;
    std::vector<int> px;
    int at(int x, int y, int c) const { return px[(y * w + x) * n + c]; }
};

Png read_png(const std::string &file) {
    Png r;
    GdkPixbuf *pb = gdk_pixbuf_new_from_file(file.c_str(), nullptr);
    if (!pb) return r;
    r.w = gdk_pixbuf_get_width(pb), r.h = gdk_pixbuf_get_height(pb), r.n = gdk_pixbuf_get_n_channels(pb);
    for (int y = 0; y < r.h; y++)
        for (int x = 0; x < r.w * r.n; x++)
            r.px.push_back(gdk_pixbuf_get_pixels(pb)[y * gdk_pixbuf_get_rowstride(pb) + x]);
    g_object_unref(pb);
    return r;
}

std::string slurp(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

struct Result {
    int status;
    std::string err, out;
};

// A folder of its own for each test, holding the photograph and its scribble layer.
class KeldraMatte : public testing::Test {
  protected:
    std::string dir;
    void SetUp() override {
        char tmpl[] = "/tmp/keldra-matte-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        write_png(path("photo.png"), W, H, false, composite_pixel);
        write_png(path("layer.png"), W, H, true, layer_pixel);
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0); }
    std::string path(const std::string &name) const { return dir + "/" + name; }
    size_t files() const {
        size_t count = 0;
        DIR *d = opendir(dir.c_str());
        while (dirent *e = readdir(d))
            count += e->d_name[0] != '.';
        closedir(d);
        return count;
    }
    // Runs keldra-matte with the space-separated arguments, '@' standing for the folder.
    Result run(std::string args) const {
        for (size_t at; (at = args.find('@')) != std::string::npos;)
            args.replace(at, 1, dir);
        std::istringstream words(args);
        std::string cmd = "'" KELDRA_MATTE "'", word;
        while (words >> word)
            cmd += " '" + word + "'";
        const int raw = system((cmd + " >'" + dir + ".out' 2>'" + dir + ".err'").c_str());
        Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(dir + ".err"), slurp(dir + ".out")};
        unlink((dir + ".out").c_str());
        unlink((dir + ".err").c_str());
        return r;
    }
};

TEST_F(KeldraMatte, ScribbleLayersGiveTheKnownMatteAndForeground) {
    const Result r = run("@/photo.png @/layer.png -o @/m.png --foreground @/fg.png");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("keldra-matte: level 1 of 1: 60x50 pixels, solved, "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("keldra-matte: wrote " + path("m.png") + " (60x50)"), std::string::npos) << r.err;
    EXPECT_EQ(files(), 4u) << "no temporary file left behind";
    const Png m = read_png(path("m.png")), fg = read_png(path("fg.png"));
    ASSERT_TRUE(m.n == 4 && fg.n == 4 && m.w == W && m.h == H && fg.w == W && fg.h == H);
    double sad = 0;
    int rim = 0;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            guchar rgb[3];
            composite_pixel(x, y, rgb);
            sad += std::fabs(m.at(x, y, 3) / 255.0 - truth(x, y));
            ASSERT_EQ(fg.at(x, y, 3), m.at(x, y, 3)) << x << "," << y;
            rim += truth(x, y) >= 0.7 && truth(x, y) < 1.0;
            for (int c = 0; c < 3; c++) {
                ASSERT_EQ(m.at(x, y, c), rgb[c]);
                // Where the disk is mostly opaque, the foreground is its orange to within 0.03, not the
                // blend with the blue background the photograph shows (up to 0.3 off).
                if (truth(x, y) >= 0.7 && truth(x, y) < 1.0) {
                    EXPECT_NEAR(fg.at(x, y, c), kOrange[c], 8) << x << "," << y << " channel " << c;
                }
            }
        }
    // Measured 10.7 (the soft rim covers 260 pixels); an empty matte would be off by the disk's 618.
    EXPECT_LT(sad, 25.0);
    EXPECT_EQ(m.at(30, 25, 3), 255);
    EXPECT_EQ(m.at(1, 1, 3), 0);
    EXPECT_GT(rim, 40);

    // The same strokes painted onto a copy of the photograph (pixels that differ are the scribbles),
    // and the grey matte alone.
    write_png(path("painted.png"), W, H, false, [](int x, int y, guchar *p) {
        composite_pixel(x, y, p);
        if (fg_stroke(x, y) || bg_stroke(x, y)) p[0] = p[1] = p[2] = fg_stroke(x, y) ? 255 : 0;
    });
    const Result painted = run("@/photo.png @/painted.png --alpha-only --output @/grey.png");
    ASSERT_EQ(painted.status, 0) << painted.err;
    const Png grey = read_png(path("grey.png"));
    ASSERT_EQ(grey.n, 3);
    for (int k = 0; k < W * H * 3; k++)
        ASSERT_EQ(grey.px[k], m.px[k / 3 * 4 + 3]) << k / 3;
}

TEST_F(KeldraMatte, TrimapAndSeveralLevels) {
    write_png(path("trimap.png"), W, H, false, [](int x, int y, guchar *p) {
        const double d = std::hypot(x - 30.0, y - 25.0);
        p[0] = p[1] = p[2] = d < 9 ? 255 : d > 19 ? 0 : 128;
    });
    const Result r = run("@/photo.png --trimap @/trimap.png -o @/m.png --levels=2 --steps 2 --radius 2 "
                         "--epsilon 1e-6 --threshold 0.1");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("level 2 of 2: 28x23 pixels, solved"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("level 1 of 2: 60x50 pixels, solved"), std::string::npos) << r.err;
    const Png m = read_png(path("m.png"));
    ASSERT_EQ(m.n, 4);
    EXPECT_EQ(m.at(30, 25, 3), 255);            // inside the trimap's foreground
    EXPECT_EQ(m.at(5, 5, 3), 0);                // inside its background
    EXPECT_NEAR(m.at(30 + 14, 25, 3), 128, 68); // the edge of the disk: about half
}

TEST_F(KeldraMatte, EverySolverWritesTheSameMatte) {
    std::vector<Png> mattes;
    for (std::string solver : {"umfpack", "cholmod", "cg"}) {
        const Result r =
            run("@/photo.png @/layer.png --alpha-only -o @/" + solver + ".png --solver=" + solver);
        ASSERT_EQ(r.status, 0) << solver << ": " << r.err;
        EXPECT_EQ(r.err.find("keldra-matte: cg: ") != std::string::npos, solver == "cg") << r.err;
        mattes.push_back(read_png(path(solver + ".png")));
        ASSERT_EQ(mattes.back().px.size(), size_t(W * H * 3)) << solver;
    }
    for (const Png &other : {mattes[1], mattes[2]}) {
        int differ = 0;
        for (size_t k = 0; k < other.px.size(); k++) {
            differ += other.px[k] != mattes[0].px[k];
            EXPECT_LE(std::abs(other.px[k] - mattes[0].px[k]), 2) << k;
        }
        EXPECT_LE(differ, W * H * 3 / 1000) << "99.9 % of the bytes are equal";
    }
    // UMFPACK, the GUI's solver, unless another is asked for.
    char *argv[] = {(char *)"keldra-matte", (char *)"a.png",    (char *)"b.png",  (char *)"-o",
                    (char *)"c.png",        (char *)"--solver", (char *)"cholmod"};
    matte_options opts;
    std::string error;
    ASSERT_EQ(parse_matte_args(5, argv, &opts, &error), MATTE_EXIT_OK);
    EXPECT_EQ(opts.solver, SOLVER_UMFPACK);
    ASSERT_EQ(parse_matte_args(7, argv, &opts, &error), MATTE_EXIT_OK);
    EXPECT_EQ(opts.solver, SOLVER_CHOLMOD);
}

TEST_F(KeldraMatte, BadInputGivesOneLineAndNoOutput) {
    write_png(path("small.png"), 30, 20, true, layer_pixel);
    write_png(path("white.png"), W, H, true, [](int x, int y, guchar *p) {
        layer_pixel(x, y, p);
        p[0] = p[1] = p[2] = 255; // every stroke white: no background
    });
    write_png(path("black.png"), W, H, true, [](int x, int y, guchar *p) {
        layer_pixel(x, y, p);
        p[0] = p[1] = p[2] = 0;
    });
    write_png(path("grey.png"), W, H, false, [](int, int, guchar *p) { p[0] = p[1] = p[2] = 128; });
    std::ofstream(path("junk.png")) << "not an image at all";
    std::ofstream(path("out.png")) << "precious bytes";
    // "+" stands for a good command line, the arguments that follow are added to it; "@" for the folder.
    const struct {
        int status;
        std::string args, message; // how standard error begins, after "keldra-matte: "
    } cases[] = {
        {1, "@/none.png @/layer.png -o @/out.png", "cannot read image '@/none.png': "},
        {1, "@/junk.png @/layer.png -o @/out.png", "cannot read image '@/junk.png': "},
        {1, "@/photo.png @/none.png -o @/out.png", "cannot read scribbles '@/none.png': "},
        {1, "@/photo.png @/small.png -o @/out.png",
         "scribbles '@/small.png' is 30x20 but the image is 60x50"},
        {1, "@/photo.png @/white.png -o @/out.png",
         "scribbles '@/white.png' has no background constraint (opaque black pixels)"},
        {1, "@/photo.png @/black.png -o @/out.png",
         "scribbles '@/black.png' has no foreground constraint (opaque non-black pixels)"},
        {1, "@/photo.png --trimap @/grey.png -o @/out.png",
         "trimap '@/grey.png' has no background constraint (0 pixels)"},
        {2, "+ --radius 6", "--radius must be between 1 and 5, not 6"},
        {2, "+ --epsilon=1e-3", "--epsilon must be between 1e-07 and 1e-05, not 0.001"},
        {2, "+ --threshold -0.1", "--threshold must be between 0 and 0.5, not -0.1"},
        {2, "+ --levels 2 --steps 3", "--steps must be between 1 and --levels (2), not 3"},
        {2, "+ --levels 6", "--levels must be between 1 and 5 for a 60x50 image, not 6"},
        {2, "+ --levels 5", "--levels 5 scales a 60x50 image below one 3x3 window; use at most 4"},
        {2, "+ --levels 2x", "--levels needs a whole number, not '2x'"},
        {2, "+ --solver=lu", "--solver must be umfpack, cholmod or cg, not 'lu'"},
        {2, "+ --solver", "option --solver needs a value"},
        {2, "+ --colour", "unknown option '--colour'"},
        {2, "@/photo.png @/layer.png", "no output file: give -o OUT.png"},
        {2, "", "missing IMAGE and SCRIBBLES"},
        {2, "@/photo.png @/layer.png -o", "option -o needs a value"},
        {2, "+ --trimap @/layer.png", "give SCRIBBLES or --trimap, not both ('@/layer.png')"},
        {4, "@/photo.png @/layer.png -o @/no/such/folder/out.png",
         "cannot write '@/no/such/folder/out.png': No such file or directory"},
        {4, "@/photo.png @/layer.png -o @", "cannot write '@': it is a folder"},
    };
    const size_t files_before = files();
    for (const auto &c : cases) {
        std::string args = c.args, message = "keldra-matte: " + c.message;
        if (args[0] == '+') args.replace(0, 1, "@/photo.png @/layer.png -o @/out.png");
        for (size_t at; (at = message.find('@')) != std::string::npos;)
            message.replace(at, 1, dir);
        const Result r = run(args);
        EXPECT_EQ(r.status, c.status) << args << ": " << r.err;
        EXPECT_EQ(r.err.compare(0, message.size(), message), 0) << args << ": " << r.err;
        const std::string tail = c.status == 2 ? " (see keldra-matte --help)\n" : "\n";
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << args << ": one line expected: " << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), tail.size())), tail) << args;
        EXPECT_EQ(slurp(path("out.png")), "precious bytes") << args;
        EXPECT_EQ(files(), files_before) << args;
    }
}

TEST_F(KeldraMatte, HelpPrintsUsage) {
    const Result r = run("--help");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, matte_usage());
    EXPECT_NE(r.out.find("--solver NAME"), std::string::npos);
    EXPECT_EQ(r.err, "");
}

} // namespace
