// keldra-matte's work: arguments, inputs, the engine call and the atomic output write.
#include "cli/matte_cli.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "app/calculation.h"
#include "app/gtkkeldra.h"
#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "matting/fg_bg.h"
#include "numeric/arrays.h"
#include "numeric/tiff.h"

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

bool parse_int(const char *text, int *out) {
    errno = 0;
    char *end = nullptr;
    const long v = strtol(text, &end, 10);
    if (errno || end == text || *end || v < INT_MIN || v > INT_MAX) return false;
    *out = (int)v;
    return true;
}

bool parse_double(const char *text, double *out) {
    errno = 0;
    char *end = nullptr;
    const double v = strtod(text, &end);
    if (errno || end == text || *end || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

// Everything run_matte allocates, released on every path.
struct Inputs {
    GdkPixbuf *image = nullptr, *marks = nullptr;
    TIFF_img tiff{};
    bool tiff_allocated = false;
    double **mask = nullptr, **values = nullptr, **matte = nullptr;
    ~Inputs() {
        if (image) g_object_unref(image);
        if (marks) g_object_unref(marks);
        if (tiff_allocated) {
            free_TIFF(&tiff);
            free(tiff.color);
        }
        for (double **a : {mask, values, matte})
            if (a) free_img((void **)a);
    }
};

GdkPixbuf *load(const std::string &path, const char *what, std::string *error) {
    GError *gerr = nullptr;
    GdkPixbuf *pb = gdk_pixbuf_new_from_file(path.c_str(), &gerr);
    if (!pb) {
        *error =
            format("cannot read %s '%s': %s", what, path.c_str(), gerr ? gerr->message : "unknown error");
        if (gerr) g_error_free(gerr);
    }
    return pb;
}

// The side of each pyramid level, as the driver's down-sampling makes it.
int coarser(int side) {
    return (side - 4) / 2 + side % 2;
}

// Turns the scribble layer into constraints as Calculate does: a fully opaque pixel fixes the matte
// at its grey value / 255. A layer without alpha is read as Open as layer reads it: a copy of the
// image with scribbles painted on, where every pixel that differs from the image is a scribble.
void constraints_from_scribbles(Inputs &in, int W, int H) {
    const bool has_alpha = gdk_pixbuf_get_has_alpha(in.marks);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            guchar r, g, b, a, r1, g1, b1, a1;
            gdkpixbuf_get_pixel(in.marks, x, y, &r, &g, &b, &a);
            bool scribble = a == 255;
            if (!has_alpha) {
                gdkpixbuf_get_pixel(in.image, x, y, &r1, &g1, &b1, &a1);
                scribble = r != r1 || g != g1 || b != b1;
            }
            in.mask[y][x] = scribble ? 1.0 : 0.0;
            in.values[y][x] = scribble ? rgb2grey(r, g, b) / 255.0 : 0.0;
        }
}

// A trimap: grey 0 is background, 255 foreground, anything else unknown; its alpha is not used.
void constraints_from_trimap(Inputs &in, int W, int H) {
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            guchar r, g, b, a;
            gdkpixbuf_get_pixel(in.marks, x, y, &r, &g, &b, &a);
            const int grey = rgb2grey(r, g, b);
            in.mask[y][x] = (grey == 0 || grey == 255) ? 1.0 : 0.0;
            in.values[y][x] = grey == 255 ? 1.0 : 0.0;
        }
}

// Thin strokes vanish when the constraints are down-sampled (a coarse pixel is constrained only when
// at least half of its filter's weight is), and a coarsest level left with only one kind of constraint
// solves to a flat matte. Warns about it before the long solve.
void warn_if_coarsest_loses_constraints(const Inputs &in, int W, int H, int levels, FILE *progress) {
    double **map = downSmpArr(in.mask, H, W, 2), **values = downSmpArr(in.values, H, W, 2);
    int h = coarser(H), w = coarser(W);
    for (int level = 3; level <= levels; level++) {
        double **m = downSmpArr(map, h, w, 2), **v = downSmpArr(values, h, w, 2);
        free_img((void **)map);
        free_img((void **)values);
        map = m;
        values = v;
        h = coarser(h);
        w = coarser(w);
    }
    bool background = false, foreground = false;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            if (map[y][x] == 1.0) {
                background = background || values[y][x] == 0.0;
                foreground = foreground || values[y][x] != 0.0;
            }
    if (!background || !foreground)
        fprintf(
            progress,
            "keldra-matte: warning: at %dx%d, the coarsest of %d levels, no %s constraint is left; the matte "
            "will be flat. Paint thicker strokes or use fewer levels.\n",
            w, h, levels, background ? "foreground" : "background");
    free_img((void **)map);
    free_img((void **)values);
}

// Per-level progress: a level's own time excludes the coarser levels it waits for.
struct Progress {
    FILE *out;
    int levels;
    std::vector<std::chrono::steady_clock::time_point> started;
    std::vector<double> inner;
};

void on_phase(const EnginePhaseEvent *e, void *data) {
    Progress *p = static_cast<Progress *>(data);
    if (e->phase != ENGINE_PHASE_LEVEL || !p->out) return;
    const auto now = std::chrono::steady_clock::now();
    if (e->starting) {
        p->started.push_back(now);
        p->inner.push_back(0.0);
        return;
    }
    const double whole = std::chrono::duration<double>(now - p->started.back()).count();
    const double own = whole - p->inner.back();
    p->started.pop_back();
    p->inner.pop_back();
    if (!p->inner.empty()) p->inner.back() += whole;
    fprintf(p->out, "keldra-matte: level %d of %d: %dx%d pixels, %s, %.2f s\n", p->levels - e->levels + 1,
            p->levels, e->width, e->height, e->solved ? "solved" : "upsampled", own);
    fflush(p->out);
}

gboolean write_to_file(const gchar *buf, gsize count, GError **error, gpointer data) {
    if (fwrite(buf, 1, count, static_cast<FILE *>(data)) == count) return TRUE;
    g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(errno), "%s", strerror(errno));
    return FALSE;
}

// The folder that will hold path: the file is created there and renamed into place.
std::string folder_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Writes pb as PNG to a temporary file beside path and renames it over path, so that path either
// keeps its old contents or holds the whole new file.
bool save_png_atomically(GdkPixbuf *pb, const std::string &path, std::string *error) {
    const size_t slash = path.rfind('/');
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string tmp = folder_of(path) + "/." + base + ".XXXXXX";
    const int fd = mkstemp(&tmp[0]);
    if (fd < 0) {
        *error = format("cannot write '%s': %s", path.c_str(), strerror(errno));
        return false;
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    FILE *f = fdopen(fd, "wb");
    GError *gerr = nullptr;
    bool ok = f && gdk_pixbuf_save_to_callback(pb, write_to_file, f, "png", &gerr, NULL);
    std::string why = gerr ? gerr->message : strerror(errno);
    if (gerr) g_error_free(gerr);
    if (ok && (fflush(f) != 0 || fsync(fd) != 0)) {
        ok = false;
        why = strerror(errno);
    }
    if (f ? fclose(f) != 0 : close(fd) != 0) {
        if (ok) why = strerror(errno);
        ok = false;
    }
    if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
        ok = false;
        why = strerror(errno);
    }
    if (!ok) {
        unlink(tmp.c_str());
        *error = format("cannot write '%s': %s", path.c_str(), why.c_str());
    }
    return ok;
}

// Whether a file can be created at path; found out before a long solve rather than after it.
bool writable(const std::string &path, std::string *error) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        *error = format("cannot write '%s': it is a folder", path.c_str());
        return false;
    }
    if (access(folder_of(path).c_str(), W_OK | X_OK) != 0) {
        *error = format("cannot write '%s': %s", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

} // namespace

const char *matte_usage(void) {
    return "usage: keldra-matte IMAGE SCRIBBLES -o OUT.png [options]\n"
           "       keldra-matte IMAGE --trimap TRIMAP -o OUT.png [options]\n"
           "\n"
           "Pulls an alpha matte out of IMAGE (any format gdk-pixbuf reads) and writes OUT.png: the image\n"
           "with the matte as its alpha channel.\n"
           "\n"
           "SCRIBBLES  a layer PNG as Keldra saves it: fully opaque pixels fix the matte at their grey\n"
           "           value (white foreground, black background), other pixels are unknown. A layer\n"
           "           without alpha is a copy of the image with strokes painted on it: the pixels that\n"
           "           differ from the image are the strokes.\n"
           "\n"
           "options:\n"
           "  -o, --output FILE   the PNG to write (required); written whole or not at all\n"
           "  --trimap FILE       a grey trimap instead of SCRIBBLES: 0 background, 255 foreground,\n"
           "                      anything else unknown\n"
           "  --levels N          down-scale the image N-1 times, 1 .. min(width, height) / 10 (default 1)\n"
           "  --steps N           levels recalculated on the way up, 1 .. N of --levels (default 1)\n"
           "  --threshold T       trimatte threshold for down-scaled mattes, 0 .. 0.5 (default 0.02)\n"
           "  --epsilon E         how much edges are softened, 1e-7 .. 1e-5 (default 1e-7)\n"
           "  --radius R          window radius, 1 .. 5 (default 1)\n"
           "  --solver NAME       linear solver of the solved levels: umfpack (default, as the GUI),\n"
           "                      cholmod (Cholesky, for larger images) or cg (conjugate gradients,\n"
           "                      for the largest images)\n"
           "  --alpha-only        write the matte alone, as a grey image\n"
           "  --foreground FILE   also write FILE: the estimated foreground colours with the matte as\n"
           "                      alpha, ready for compositing without colour fringes (a direct solve\n"
           "                      at full size: minutes and gigabytes from about half a megapixel)\n"
           "  -h, --help          show this text\n"
           "\n"
           "Progress goes to standard error. Exit status: 0 written, 1 unusable input, 2 bad command line\n"
           "or option out of range, 3 solver failure, 4 output not written.\n";
}

int parse_matte_args(int argc, char **argv, matte_options *opts, std::string *error) {
    *opts = matte_options();
    std::vector<std::string> positional;
    bool options_done = false;
    for (int k = 1; k < argc; k++) {
        const std::string arg = argv[k];
        if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_done = true;
            continue;
        }
        std::string name = arg, value;
        bool inline_value = false;
        const size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inline_value = true;
        }
        if (name == "-h" || name == "--help") {
            opts->help = true;
            return MATTE_EXIT_OK;
        }
        if (name == "--alpha-only" && !inline_value) {
            opts->alpha_only = true;
            continue;
        }
        const bool takes_value = name == "-o" || name == "--output" || name == "--trimap" ||
                                 name == "--foreground" || name == "--levels" || name == "--steps" ||
                                 name == "--threshold" || name == "--epsilon" || name == "--radius" ||
                                 name == "--solver";
        if (!takes_value) {
            *error = format("unknown option '%s'", arg.c_str());
            return MATTE_EXIT_USAGE;
        }
        if (!inline_value) {
            if (k + 1 >= argc) {
                *error = format("option %s needs a value", name.c_str());
                return MATTE_EXIT_USAGE;
            }
            value = argv[++k];
        }
        if (name == "-o" || name == "--output") {
            opts->output = value;
        } else if (name == "--trimap") {
            opts->trimap = value;
        } else if (name == "--foreground") {
            opts->foreground = value;
        } else if (name == "--solver") {
            if (parseSolverKind(value.c_str(), &opts->solver) != 0) {
                *error = format("--solver must be umfpack, cholmod or cg, not '%s'", value.c_str());
                return MATTE_EXIT_USAGE;
            }
        } else if (name == "--levels" || name == "--steps" || name == "--radius") {
            int v;
            if (!parse_int(value.c_str(), &v)) {
                *error = format("%s needs a whole number, not '%s'", name.c_str(), value.c_str());
                return MATTE_EXIT_USAGE;
            }
            (name == "--levels" ? opts->levels : name == "--steps" ? opts->steps : opts->radius) = v;
        } else {
            double v;
            if (!parse_double(value.c_str(), &v)) {
                *error = format("%s needs a number, not '%s'", name.c_str(), value.c_str());
                return MATTE_EXIT_USAGE;
            }
            (name == "--threshold" ? opts->threshold : opts->epsilon) = v;
        }
    }

    const size_t wanted = opts->trimap.empty() ? 2 : 1;
    if (positional.size() < wanted) {
        *error = positional.empty() ? (wanted == 2 ? "missing IMAGE and SCRIBBLES" : "missing IMAGE")
                                    : "missing SCRIBBLES (or --trimap TRIMAP)";
        return MATTE_EXIT_USAGE;
    }
    if (positional.size() > wanted) {
        *error = wanted == 1 ? format("give SCRIBBLES or --trimap, not both ('%s')", positional[1].c_str())
                             : format("unexpected argument '%s'", positional[2].c_str());
        return MATTE_EXIT_USAGE;
    }
    opts->image = positional[0];
    if (wanted == 2) opts->scribbles = positional[1];
    if (opts->output.empty()) {
        *error = "no output file: give -o OUT.png";
        return MATTE_EXIT_USAGE;
    }
    if (opts->levels < 1) {
        *error = format("--levels must be at least 1, not %d", opts->levels);
        return MATTE_EXIT_USAGE;
    }
    if (opts->steps < 1 || opts->steps > opts->levels) {
        *error = format("--steps must be between 1 and --levels (%d), not %d", opts->levels, opts->steps);
        return MATTE_EXIT_USAGE;
    }
    if (!(opts->threshold >= 0.0 && opts->threshold <= 0.5)) {
        *error = format("--threshold must be between 0 and 0.5, not %g", opts->threshold);
        return MATTE_EXIT_USAGE;
    }
    if (!(opts->epsilon >= 1e-7 && opts->epsilon <= 1e-5)) {
        *error = format("--epsilon must be between 1e-07 and 1e-05, not %g", opts->epsilon);
        return MATTE_EXIT_USAGE;
    }
    if (opts->radius < 1 || opts->radius > 5) {
        *error = format("--radius must be between 1 and 5, not %d", opts->radius);
        return MATTE_EXIT_USAGE;
    }
    return MATTE_EXIT_OK;
}

int run_matte(const matte_options &opts, FILE *progress, std::string *error) {
    Inputs in;
    in.image = load(opts.image, "image", error);
    if (!in.image) return MATTE_EXIT_INPUT;
    const bool trimap = !opts.trimap.empty();
    const std::string &marks_path = trimap ? opts.trimap : opts.scribbles;
    in.marks = load(marks_path, trimap ? "trimap" : "scribbles", error);
    if (!in.marks) return MATTE_EXIT_INPUT;
    const int W = gdk_pixbuf_get_width(in.image), H = gdk_pixbuf_get_height(in.image);
    const int mw = gdk_pixbuf_get_width(in.marks), mh = gdk_pixbuf_get_height(in.marks);
    if (mw != W || mh != H) {
        *error = format("%s '%s' is %dx%d but the image is %dx%d", trimap ? "trimap" : "scribbles",
                        marks_path.c_str(), mw, mh, W, H);
        return MATTE_EXIT_INPUT;
    }

    const int most_levels = std::max(1, std::min(W, H) / 10);
    if (opts.levels > most_levels) {
        *error = format("--levels must be between 1 and %d for a %dx%d image, not %d", most_levels, W, H,
                        opts.levels);
        return MATTE_EXIT_USAGE;
    }
    int cw = W, ch = H, usable = 1;
    for (int level = 2; level <= opts.levels; level++) {
        cw = coarser(cw);
        ch = coarser(ch);
        if (cw < 2 * opts.radius + 1 || ch < 2 * opts.radius + 1) {
            *error = format("--levels %d scales a %dx%d image below one %dx%d window; use at most %d",
                            opts.levels, W, H, 2 * opts.radius + 1, 2 * opts.radius + 1, usable);
            return MATTE_EXIT_USAGE;
        }
        usable = level;
    }

    // Found out now rather than after a long solve.
    if (!writable(opts.output, error)) return MATTE_EXIT_OUTPUT;
    if (!opts.foreground.empty() && !writable(opts.foreground, error)) return MATTE_EXIT_OUTPUT;

    get_TIFF(&in.tiff, H, W, 'c');
    in.tiff_allocated = true;
    in.mask = (double **)get_img(W, H, sizeof(double));
    in.values = (double **)get_img(W, H, sizeof(double));
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            guchar r, g, b, a;
            gdkpixbuf_get_pixel(in.image, x, y, &r, &g, &b, &a);
            in.tiff.color[0][y][x] = r;
            in.tiff.color[1][y][x] = g;
            in.tiff.color[2][y][x] = b;
        }
    if (trimap)
        constraints_from_trimap(in, W, H);
    else
        constraints_from_scribbles(in, W, H);
    bool background = false, foreground = false;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++)
            if (in.mask[y][x] == 1.0) {
                background = background || in.values[y][x] == 0.0;
                foreground = foreground || in.values[y][x] != 0.0;
            }
    if (!background || !foreground) {
        *error = format("%s '%s' has no %s constraint (%s pixels)", trimap ? "trimap" : "scribbles",
                        marks_path.c_str(), background ? "foreground" : "background",
                        background ? (trimap ? "255" : "opaque non-black") : (trimap ? "0" : "opaque black"));
        return MATTE_EXIT_INPUT;
    }

    if (progress && opts.levels > 1) warn_if_coarsest_loses_constraints(in, W, H, opts.levels, progress);

    Progress prog{progress, opts.levels, {}, {}};
    setEnginePhaseHook(on_phase, &prog);
    int status = -3;
    SolverReport report;
    const auto t0 = std::chrono::steady_clock::now();
    if (opts.solver == SOLVER_UMFPACK)
        in.matte = solveAlphaC2F(&in.tiff, in.mask, in.values, opts.levels, std::min(opts.levels, opts.steps),
                                 opts.radius, &status, opts.threshold, opts.epsilon);
    else
        in.matte =
            solveAlphaC2FWith(&in.tiff, in.mask, in.values, opts.levels, std::min(opts.levels, opts.steps),
                              opts.radius, opts.threshold, opts.epsilon, opts.solver, &report);
    setEnginePhaseHook(nullptr, nullptr);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    if (opts.solver != SOLVER_UMFPACK) {
        if (report.status != SOLVE_OK) {
            *error = format("failure: %s", report.message.c_str());
            return MATTE_EXIT_SOLVER;
        }
        if (progress && opts.solver == SOLVER_CG)
            fprintf(progress,
                    "keldra-matte: cg: %d iterations on the finest solved level, relative residual %.2g\n",
                    report.iterations, report.relative_residual);
        status = 0;
    }

    if (const char *message = solver_status_message(status)) {
        *error = message;
        return MATTE_EXIT_SOLVER;
    }
    if (status < 0) {
        *error = format("failure: solver status %d", status);
        return MATTE_EXIT_SOLVER;
    }
    if (status > 0 && progress)
        fprintf(progress,
                "keldra-matte: warning: the matting system is singular (solver status %d); the matte may "
                "be unreliable\n",
                status);

    // The estimation needs the matte in 0..1, so it runs before scaling; nothing is written until
    // both results exist.
    GdkPixbuf *fg_out = nullptr;
    if (!opts.foreground.empty()) {
        TIFF_img rgba;
        const int fb_status = getForegroundRGBA(&in.tiff, in.matte, &rgba);
        if (fb_status != 0) {
            const char *message = solver_status_message(fb_status);
            *error = message ? format("foreground estimation: %s", message)
                             : format("foreground estimation failed (status %d)", fb_status);
            return MATTE_EXIT_SOLVER;
        }
        fg_out = gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, W, H);
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++)
                gdkpixbuf_put_pixel(fg_out, x, y, rgba.color[0][y][x], rgba.color[1][y][x],
                                    rgba.color[2][y][x], rgba.color[3][y][x]);
        free_TIFF(&rgba);
        free(rgba.color);
        if (progress) fprintf(progress, "keldra-matte: estimated the foreground colours\n");
    }

    scale2_255(in.matte, W, H);
    GdkPixbuf *out = gdk_pixbuf_new(GDK_COLORSPACE_RGB, !opts.alpha_only, 8, W, H);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            const double v = in.matte[y][x];
            const guchar a = std::isnan(v) ? 0 : (guchar)(int)v; // truncated, as the calculation job does
            if (opts.alpha_only)
                gdkpixbuf_put_pixel(out, x, y, a, a, a, 255);
            else
                gdkpixbuf_put_pixel(out, x, y, in.tiff.color[0][y][x], in.tiff.color[1][y][x],
                                    in.tiff.color[2][y][x], a);
        }
    bool saved = save_png_atomically(out, opts.output, error);
    g_object_unref(out);
    if (fg_out) {
        if (saved) saved = save_png_atomically(fg_out, opts.foreground, error);
        g_object_unref(fg_out);
    }
    if (!saved) return MATTE_EXIT_OUTPUT;
    if (progress)
        fprintf(progress, "keldra-matte: wrote %s (%dx%d) in %.2f s\n", opts.output.c_str(), W, H, seconds);
    return MATTE_EXIT_OK;
}
