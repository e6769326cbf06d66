// keldra-matte run as a user runs it: mattes of generated composites from scribble layers (with and
// without alpha) and trimaps, and the exit status, message and untouched output of each bad input.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "app/calculation.h"
#include "cli/matte_cli.h"

namespace {

const int W = 60, H = 50;

// A folder of its own for each test, removed afterwards.
class KeldraMatte : public testing::Test {
  protected:
    std::string dir;
    void SetUp() override {
        char tmpl[] = "/tmp/keldra-matte-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override {
        for (const std::string &name : files())
            unlink((dir + "/" + name).c_str());
        rmdir(dir.c_str());
    }
    std::string path(const std::string &name) const { return dir + "/" + name; }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        if (DIR *d = opendir(dir.c_str())) {
            while (dirent *e = readdir(d))
                if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
                    names.push_back(e->d_name);
            closedir(d);
        }
        return names;
    }
};

struct Result {
    int status;
    std::string err, out;
};

std::string slurp(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Runs keldra-matte with the arguments (each quoted), collecting its exit status and both streams.
Result run(const std::string &dir, const std::vector<std::string> &args) {
    std::string cmd = "'" KELDRA_MATTE "'";
    for (const std::string &a : args)
        cmd += " '" + a + "'";
    const std::string out = dir + "/../" + dir.substr(dir.rfind('/') + 1) + ".stdout";
    const std::string err = out + ".stderr";
    const int raw = system((cmd + " >'" + out + "' 2>'" + err + "'").c_str());
    Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(err), slurp(out)};
    unlink(out.c_str());
    unlink(err.c_str());
    return r;
}

// Pixel colours of the composite: an orange disk with a soft rim over a blue gradient.
void composite_pixel(int x, int y, guchar *p) {
    const double d = std::hypot(x - 30.0, y - 25.0);
    const double a = std::fmin(1.0, std::fmax(0.0, (14.0 - d) / 3.0 + 0.5));
    const double fg[3] = {230, 150, 30}, bg[3] = {20 + 1.5 * x, 60, 200.0 - y};
    for (int c = 0; c < 3; c++)
        p[c] = (guchar)std::lround(a * fg[c] + (1 - a) * bg[c]);
}

// Writes a PNG of the given size and channels, each pixel from fill(x, y, bytes).
void write_png(const std::string &file, int w, int h, bool alpha,
               const std::function<void(int, int, guchar *)> &fill) {
    GdkPixbuf *pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, w, h);
    const int stride = gdk_pixbuf_get_rowstride(pb), n = gdk_pixbuf_get_n_channels(pb);
    guchar *px = gdk_pixbuf_get_pixels(pb);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            fill(x, y, px + y * stride + x * n);
    ASSERT_TRUE(gdk_pixbuf_save(pb, file.c_str(), "png", nullptr, NULL));
    g_object_unref(pb);
}

// Scribbles: white inside the disk, black along the left and right edges; sometimes half-transparent
// marks that must be ignored.
bool is_fg_stroke(int x, int y) {
    return std::abs(x - 30) <= 4 && std::abs(y - 25) <= 4;
}
bool is_bg_stroke(int x, int) {
    return x < 4 || x >= W - 4;
}

void layer_pixel(int x, int y, guchar *p) {
    const bool fg = is_fg_stroke(x, y), bg = is_bg_stroke(x, y);
    p[0] = p[1] = p[2] = fg ? 255 : 0;
    p[3] = fg || bg ? 255 : (y == 0 ? 254 : 0); // alpha 254 on the top row: unknown
}

void trimap_pixel(int x, int y, guchar *p) {
    const double d = std::hypot(x - 30.0, y - 25.0);
    p[0] = p[1] = p[2] = d < 9 ? 255 : d > 19 ? 0 : 128;
}

GdkPixbuf *read_png(const std::string &file) {
    GdkPixbuf *pb = gdk_pixbuf_new_from_file(file.c_str(), nullptr);
    EXPECT_NE(pb, nullptr) << file;
    return pb;
}

guchar byte_at(GdkPixbuf *pb, int x, int y, int c) {
    return gdk_pixbuf_get_pixels(
        pb)[y * gdk_pixbuf_get_rowstride(pb) + x * gdk_pixbuf_get_n_channels(pb) + c];
}

TEST_F(KeldraMatte, MattesTheImageFromALayerOfScribbles) {
    write_png(path("photo.png"), W, H, false, composite_pixel);
    write_png(path("layer.png"), W, H, true, layer_pixel);
    const Result r = run(dir, {path("photo.png"), path("layer.png"), "-o", path("matte.png")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("keldra-matte: level 1 of 1: 60x50 pixels, solved, "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("keldra-matte: wrote " + path("matte.png") + " (60x50)"), std::string::npos)
        << r.err;

    GdkPixbuf *out = read_png(path("matte.png"));
    ASSERT_TRUE(out);
    ASSERT_EQ(gdk_pixbuf_get_n_channels(out), 4);
    ASSERT_EQ(gdk_pixbuf_get_width(out), W);
    ASSERT_EQ(gdk_pixbuf_get_height(out), H);
    double sad = 0;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            guchar rgb[3];
            composite_pixel(x, y, rgb);
            for (int c = 0; c < 3; c++)
                ASSERT_EQ(byte_at(out, x, y, c), rgb[c]);
            const double d = std::hypot(x - 30.0, y - 25.0);
            const double truth = std::fmin(1.0, std::fmax(0.0, (14.0 - d) / 3.0 + 0.5));
            sad += std::fabs(byte_at(out, x, y, 3) / 255.0 - truth);
        }
    // Measured 10.7 on this scene (its soft rim covers 260 pixels); an empty matte would be off by the
    // disk's whole alpha, 618.
    EXPECT_LT(sad, 25.0);
    EXPECT_EQ(byte_at(out, 30, 25, 3), 255);
    EXPECT_EQ(byte_at(out, 1, 1, 3), 0);
    g_object_unref(out);
    EXPECT_EQ(files().size(), 3u); // no temporary file left behind
}

TEST_F(KeldraMatte, LayerWithoutAlphaAndAlphaOnlyGiveTheSameMatte) {
    write_png(path("photo.png"), W, H, false, composite_pixel);
    write_png(path("layer.png"), W, H, true, layer_pixel);
    // The same strokes painted onto a copy of the photograph: pixels that differ are the scribbles.
    write_png(path("painted.png"), W, H, false, [](int x, int y, guchar *p) {
        composite_pixel(x, y, p);
        if (is_fg_stroke(x, y) || is_bg_stroke(x, y)) p[0] = p[1] = p[2] = is_fg_stroke(x, y) ? 255 : 0;
    });
    ASSERT_EQ(run(dir, {path("photo.png"), path("layer.png"), "-o", path("a.png")}).status, 0);
    const Result r =
        run(dir, {path("photo.png"), path("painted.png"), "--alpha-only", "--output", path("b.png")});
    ASSERT_EQ(r.status, 0) << r.err;
    GdkPixbuf *a = read_png(path("a.png")), *b = read_png(path("b.png"));
    ASSERT_TRUE(a && b);
    ASSERT_EQ(gdk_pixbuf_get_n_channels(b), 3);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++)
            for (int c = 0; c < 3; c++)
                ASSERT_EQ(byte_at(b, x, y, c), byte_at(a, x, y, 3)) << x << "," << y;
    g_object_unref(a);
    g_object_unref(b);
}

TEST_F(KeldraMatte, TrimapAndSeveralLevels) {
    write_png(path("photo.png"), W, H, false, composite_pixel);
    write_png(path("trimap.png"), W, H, false, trimap_pixel);
    const Result r =
        run(dir, {path("photo.png"), "--trimap", path("trimap.png"), "-o", path("m.png"), "--levels=2",
                  "--steps", "2", "--radius", "2", "--epsilon", "1e-6", "--threshold", "0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("level 2 of 2: 28x23 pixels, solved"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("level 1 of 2: 60x50 pixels, solved"), std::string::npos) << r.err;
    GdkPixbuf *out = read_png(path("m.png"));
    ASSERT_TRUE(out);
    EXPECT_EQ(byte_at(out, 30, 25, 3), 255);         // inside the trimap's foreground
    EXPECT_EQ(byte_at(out, 5, 5, 3), 0);             // inside its background
    const guchar rim = byte_at(out, 30 + 14, 25, 3); // the edge of the disk: about half
    EXPECT_GT(rim, 60);
    EXPECT_LT(rim, 200);
    g_object_unref(out);
}

// --foreground writes the estimated object colours under the same matte: where the disk is mostly
// opaque they are the disk's orange, not the blend with the blue background that the photograph shows.
TEST_F(KeldraMatte, ForegroundFileHoldsTheObjectColoursUnderTheMatte) {
    write_png(path("photo.png"), W, H, false, composite_pixel);
    write_png(path("layer.png"), W, H, true, layer_pixel);
    const Result r =
        run(dir, {path("photo.png"), path("layer.png"), "-o", path("m.png"), "--foreground", path("fg.png")});
    ASSERT_EQ(r.status, 0) << r.err;
    GdkPixbuf *m = read_png(path("m.png")), *fg = read_png(path("fg.png"));
    ASSERT_TRUE(m && fg);
    ASSERT_EQ(gdk_pixbuf_get_n_channels(fg), 4);
    const guchar orange[3] = {230, 150, 30};
    int rim = 0;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            ASSERT_EQ(byte_at(fg, x, y, 3), byte_at(m, x, y, 3)) << x << "," << y;
            const double d = std::hypot(x - 30.0, y - 25.0);
            const double truth = std::fmin(1.0, std::fmax(0.0, (14.0 - d) / 3.0 + 0.5));
            if (truth < 0.7 || truth == 1.0) continue;
            rim++;
            for (int c = 0; c < 3; c++) // within 0.03 of the true colour; the blend is up to 0.3 off
                EXPECT_NEAR(byte_at(fg, x, y, c), orange[c], 8) << x << "," << y << " channel " << c;
        }
    EXPECT_GT(rim, 40);
    g_object_unref(m);
    g_object_unref(fg);
}

struct BadCase {
    const char *what;
    std::vector<std::string> args; // "@" stands for the test's folder
    int status;
    std::string message; // how standard error begins, after the folder is substituted
};

TEST_F(KeldraMatte, BadInputGivesOneLineAndNoOutput) {
    write_png(path("photo.png"), W, H, false, composite_pixel);
    write_png(path("layer.png"), W, H, true, layer_pixel);
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
    {
        std::ofstream junk(path("junk.png"));
        junk << "not an image at all";
    }
    const std::string existing = "precious bytes";
    {
        std::ofstream keep(path("out.png"));
        keep << existing;
    }
    const std::vector<BadCase> cases = {
        {"missing image",
         {"@/none.png", "@/layer.png", "-o", "@/out.png"},
         1,
         "keldra-matte: cannot read image '@/none.png': "},
        {"unreadable image",
         {"@/junk.png", "@/layer.png", "-o", "@/out.png"},
         1,
         "keldra-matte: cannot read image '@/junk.png': "},
        {"missing scribbles",
         {"@/photo.png", "@/none.png", "-o", "@/out.png"},
         1,
         "keldra-matte: cannot read scribbles '@/none.png': "},
        {"sizes differ",
         {"@/photo.png", "@/small.png", "-o", "@/out.png"},
         1,
         "keldra-matte: scribbles '@/small.png' is 30x20 but the image is 60x50"},
        {"no background",
         {"@/photo.png", "@/white.png", "-o", "@/out.png"},
         1,
         "keldra-matte: scribbles '@/white.png' has no background constraint (opaque black pixels)"},
        {"no foreground",
         {"@/photo.png", "@/black.png", "-o", "@/out.png"},
         1,
         "keldra-matte: scribbles '@/black.png' has no foreground constraint (opaque non-black pixels)"},
        {"trimap all unknown",
         {"@/photo.png", "--trimap", "@/grey.png", "-o", "@/out.png"},
         1,
         "keldra-matte: trimap '@/grey.png' has no background constraint (0 pixels)"},
        {"radius",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--radius", "6"},
         2,
         "keldra-matte: --radius must be between 1 and 5, not 6"},
        {"epsilon",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--epsilon=1e-3"},
         2,
         "keldra-matte: --epsilon must be between 1e-07 and 1e-05, not 0.001"},
        {"threshold",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--threshold", "-0.1"},
         2,
         "keldra-matte: --threshold must be between 0 and 0.5, not -0.1"},
        {"steps above levels",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--levels", "2", "--steps", "3"},
         2,
         "keldra-matte: --steps must be between 1 and --levels (2), not 3"},
        {"levels above the dialog's bound",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--levels", "6"},
         2,
         "keldra-matte: --levels must be between 1 and 5 for a 60x50 image, not 6"},
        {"levels below a window",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--levels", "5"},
         2,
         "keldra-matte: --levels 5 scales a 60x50 image below one 3x3 window; use at most 4"},
        {"levels not a number",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--levels", "2x"},
         2,
         "keldra-matte: --levels needs a whole number, not '2x'"},
        {"unknown option",
         {"@/photo.png", "@/layer.png", "-o", "@/out.png", "--colour"},
         2,
         "keldra-matte: unknown option '--colour'"},
        {"no output", {"@/photo.png", "@/layer.png"}, 2, "keldra-matte: no output file: give -o OUT.png"},
        {"no arguments", {}, 2, "keldra-matte: missing IMAGE and SCRIBBLES"},
        {"value missing", {"@/photo.png", "@/layer.png", "-o"}, 2, "keldra-matte: option -o needs a value"},
        {"scribbles and trimap",
         {"@/photo.png", "@/layer.png", "--trimap", "@/layer.png", "-o", "@/out.png"},
         2,
         "keldra-matte: give SCRIBBLES or --trimap, not both ('@/layer.png')"},
        {"output in a missing folder",
         {"@/photo.png", "@/layer.png", "-o", "@/no/such/folder/out.png"},
         4,
         "keldra-matte: cannot write '@/no/such/folder/out.png': No such file or directory"},
        {"output is a folder",
         {"@/photo.png", "@/layer.png", "-o", "@"},
         4,
         "keldra-matte: cannot write '@': it is a folder"},
    };
    const size_t files_before = files().size();
    for (const BadCase &c : cases) {
        std::vector<std::string> args;
        for (std::string a : c.args) {
            if (a.find('@') != std::string::npos) a.replace(a.find('@'), 1, dir);
            args.push_back(a);
        }
        std::string message = c.message;
        for (size_t at; (at = message.find('@')) != std::string::npos;)
            message.replace(at, 1, dir);
        const Result r = run(dir, args);
        EXPECT_EQ(r.status, c.status) << c.what << ": " << r.err;
        EXPECT_EQ(r.err.compare(0, message.size(), message), 0) << c.what << ": " << r.err;
        const std::string tail = c.status == 2 ? " (see keldra-matte --help)\n" : "\n";
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << c.what << ": one line expected: " << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail) << c.what;
        EXPECT_EQ(slurp(path("out.png")), existing) << c.what;
        EXPECT_EQ(files().size(), files_before) << c.what;
    }
}

TEST_F(KeldraMatte, HelpPrintsUsage) {
    const Result r = run(dir, {"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, matte_usage());
    EXPECT_EQ(r.err, "");
}

TEST(KeldraMatteMessages, SolverStatusesUseTheCalculationMessages) {
    EXPECT_STREQ(solver_status_message(-1), "failure: out_of_memory");
    EXPECT_STREQ(solver_status_message(-17), "failure: internal error");
    EXPECT_STREQ(solver_status_message(-911), "failure: UMF internal error");
    EXPECT_EQ(
        std::string(solver_status_message(-3)).rfind("failure: invalid numeric object\nyou can try:\n", 0),
        0u);
    EXPECT_EQ(solver_status_message(0), nullptr);
    EXPECT_EQ(solver_status_message(1), nullptr);
    EXPECT_EQ(solver_status_message(-2), nullptr);
}

} // namespace
