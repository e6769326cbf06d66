// solver_bench: times the linear solvers of the matting engine (UMFPACK as the GUI uses it, CHOLMOD's
// Cholesky and multigrid-preconditioned conjugate gradients) on synthetic matting problems of growing
// size, and checks that conjugate gradients give the direct solvers' 8-bit matte.
//
// Scene: a soft-edged, textured blob over a textured background with sensor-like noise (texture
// periods fixed in pixels, so a larger image has more texture, not smoother texture). Constraints are
// either scribbles (a cross in the blob and a frame and two strokes in the background, about 5 % of the
// pixels: almost everything is unknown) or a trimap (everything but a band around the edge).
//
// Every case runs in a child process, which gives it its own peak memory (the kernel's maximum
// resident set), a time limit and an address-space limit, so that a solver that runs out of memory or
// time is reported as such and the others still run. The engine is called as keldra-matte calls it:
// solveAlphaC2F for UMFPACK, solveAlphaC2FWith for the others, radius 1, epsilon 1e-7, threshold 0.02.
// The phase hook splits the time: assembly (the Laplacian, constraints and, for UMFPACK, the conversion
// to compressed columns), set-up (factorisation, or the multigrid hierarchy), solve (triangular solves,
// or the iterations); total is the whole call, pyramid resampling included. The matte is compared after
// scale2_255 and truncation to bytes, as the GUI shows it.
//
//   solver_bench [--sizes 0.3,1,4,12] [--solvers umfpack,cholmod,cg] [--scenes scribbles,trimap]
//                [--pyramid-sizes 12|none] [--timeout SECONDS] [--memory-limit GB] [--skip umfpack@12,...]
//   --skip takes SOLVER@MEGAPIXELS for a one-level case, SOLVER@MEGAPIXELS/4 for the pyramid one.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "matting/alpha_solve.h"
#include "matting/coarse_to_fine.h"
#include "numeric/arrays.h"
#include "numeric/tiff.h"

namespace {

struct Case {
    double megapixels;
    bool trimap;
    int levels, steps;
    SolverKind solver;
};

// What a child reports back through its pipe.
struct Figures {
    double assembly, setup, solve, total;
    int iterations;
    int status;
    double scene_mb; // resident memory once the scene is built, before the engine runs
    char message[200];
};

struct Result {
    Case c;
    bool ran = false, timed_out = false;
    int exit_code = 0;
    double peak_mb = 0.0;
    Figures f{};
    std::string matte_file;
    double agree = -1.0; // percentage of equal bytes against a direct solution, -1 when none
    int max_diff = 0;
    std::string against;
};

double noise(unsigned k) {
    k = k * 1103515245u + 12345u;
    k ^= k >> 13;
    k *= 2654435761u;
    k ^= k >> 16;
    return (k & 0xffff) / 65536.0 - 0.5;
}

void sizeFor(double megapixels, int *H, int *W) {
    *W = int(std::lround(std::sqrt(megapixels * 1e6 * 4.0 / 3.0)));
    *H = int(std::lround(*W * 0.75));
}

struct Scene {
    TIFF_img image;
    double **map, **values;
};

Scene makeScene(int H, int W, bool trimap) {
    Scene s;
    get_TIFF(&s.image, H, W, 'c');
    s.map = (double **)get_init_arr(W, H, sizeof(double));
    s.values = (double **)get_init_arr(W, H, sizeof(double));
    const double cx = W * 0.5, cy = H * 0.5, R0 = std::min(H, W) * 0.3;
    const double soft = std::max(2.0, std::min(H, W) * 0.004), band = std::min(H, W) * 0.02 + 4.0;
    const int th = std::max(2, std::min(H, W) / 150);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double dx = j - cx, dy = i - cy, angle = std::atan2(dy, dx),
                         dist = std::sqrt(dx * dx + dy * dy);
            const double edge = R0 * (1.0 + 0.25 * std::sin(5 * angle) + 0.05 * std::sin(23 * angle));
            const double a = std::clamp(0.5 - (dist - edge) / (2 * soft), 0.0, 1.0);
            const double u = double(j) / W, v = double(i) / H;
            const double bg[3] = {60 + 120 * u + 30 * std::sin(i * 0.45),
                                  90 + 60 * v + 25 * std::sin(j * 0.21 + i * 0.05), 150 - 80 * u * v};
            const double fg[3] = {200 - 50 * v + 20 * std::sin(j * 0.57), 120 + 40 * std::sin((i + j) * 0.16),
                                  40 + 50 * u};
            for (int c = 0; c < 3; c++) {
                const double x =
                    a * fg[c] + (1 - a) * bg[c] + 6.0 * noise(unsigned(3 * (size_t(i) * W + j) + c));
                s.image.color[c][i][j] = (uint8_t)std::clamp(x, 0.0, 255.0);
            }
            bool fg_mark, bg_mark;
            if (trimap) {
                fg_mark = dist < edge - band;
                bg_mark = dist > edge + band;
            } else {
                fg_mark = dist < edge * 0.6 && (std::abs(i - cy) <= th || std::abs(j - cx) <= th);
                const bool frame = i < 2 * th || i >= H - 2 * th || j < 2 * th || j >= W - 2 * th;
                const bool strokes = (std::abs(i - H / 8) <= th && j > W / 5 && j < 4 * W / 5) ||
                                     (std::abs(j - W / 10) <= th && i > H / 4 && i < 3 * H / 4);
                bg_mark = frame || strokes;
            }
            if (fg_mark || bg_mark) {
                s.map[i][j] = 1.0;
                s.values[i][j] = fg_mark ? 1.0 : 0.0;
            }
        }
    return s;
}

double residentMb(const char *field) {
    FILE *f = fopen("/proc/self/status", "r");
    char line[256];
    double kb = 0.0;
    while (f && fgets(line, sizeof line, f))
        if (strncmp(line, field, strlen(field)) == 0) kb = atof(line + strlen(field) + 1);
    if (f) fclose(f);
    return kb / 1024.0;
}

struct PhaseClock {
    std::chrono::steady_clock::time_point started[16];
    double seconds[16] = {};
};

void onPhase(const EnginePhaseEvent *e, void *data) {
    PhaseClock *clock = static_cast<PhaseClock *>(data);
    const auto now = std::chrono::steady_clock::now();
    if (e->starting)
        clock->started[e->phase] = now;
    else
        clock->seconds[e->phase] += std::chrono::duration<double>(now - clock->started[e->phase]).count();
}

const char *sceneName(bool trimap) {
    return trimap ? "trimap" : "scribbles";
}

std::string caseName(const Case &c) {
    char text[96];
    snprintf(text, sizeof text, "%.1f MP %s, levels %d%s", c.megapixels, sceneName(c.trimap), c.levels,
             c.levels > 1 ? (", steps " + std::to_string(c.steps)).c_str() : "");
    return text;
}

// The child: builds the scene, runs the engine, writes the 8-bit matte to matte_file and the figures
// to fd.
[[noreturn]] void runChild(const Case &c, const std::string &matte_file, int fd, double memory_limit_gb) {
    if (memory_limit_gb > 0) {
        const rlim_t bytes = rlim_t(memory_limit_gb * 1024 * 1024 * 1024);
        rlimit lim{bytes, bytes};
        setrlimit(RLIMIT_AS, &lim);
    }
    int H, W;
    sizeFor(c.megapixels, &H, &W);
    Scene s = makeScene(H, W, c.trimap);
    Figures f{};
    f.scene_mb = residentMb("VmHWM:");
    PhaseClock clock;
    setEnginePhaseHook(onPhase, &clock);
    // The driver prints one line per pyramid level; keep the table readable.
    fflush(stdout);
    const int saved_stdout = dup(1);
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    const auto t0 = std::chrono::steady_clock::now();
    double **alpha;
    SolverReport report;
    if (c.solver == SOLVER_UMFPACK) {
        int status = -3;
        alpha = solveAlphaC2F(&s.image, s.map, s.values, c.levels, c.steps, 1, &status, 0.02, 1e-7);
        report.status = status;
        snprintf(f.message, sizeof f.message, "UMFPACK status %d", status);
    } else {
        alpha =
            solveAlphaC2FWith(&s.image, s.map, s.values, c.levels, c.steps, 1, 0.02, 1e-7, c.solver, &report);
        snprintf(f.message, sizeof f.message, "%s", report.message.c_str());
    }
    f.total = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    fflush(stdout);
    dup2(saved_stdout, 1);
    setEnginePhaseHook(nullptr, nullptr);
    f.status = report.status;
    f.iterations = report.iterations;
    if (c.solver == SOLVER_UMFPACK) {
        f.assembly = clock.seconds[ENGINE_PHASE_LAPLACIAN] + clock.seconds[ENGINE_PHASE_CONSTRAINTS] +
                     clock.seconds[ENGINE_PHASE_CONVERSION];
        f.setup = clock.seconds[ENGINE_PHASE_SYMBOLIC] + clock.seconds[ENGINE_PHASE_NUMERIC];
        f.solve = clock.seconds[ENGINE_PHASE_SOLVE];
    } else {
        f.assembly = clock.seconds[ENGINE_PHASE_LAPLACIAN];
        f.setup = report.setup_seconds;
        f.solve = report.solve_seconds;
    }
    scale2_255(alpha, W, H);
    std::vector<unsigned char> bytes(size_t(W) * H);
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++)
            bytes[size_t(i) * W + j] = (unsigned char)(int)alpha[i][j];
    if (FILE *out = fopen(matte_file.c_str(), "wb")) {
        fwrite(bytes.data(), 1, bytes.size(), out);
        fclose(out);
    }
    if (write(fd, &f, sizeof f) != ssize_t(sizeof f)) _exit(2);
    _exit(0);
}

// Runs one case in a child process and waits for it, at most timeout seconds.
Result runCase(const Case &c, double timeout, double memory_limit_gb, const std::string &folder, int index) {
    Result r;
    r.c = c;
    r.matte_file = folder + "/matte" + std::to_string(index) + ".bytes";
    int fds[2];
    if (pipe(fds) != 0) return r;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        runChild(c, r.matte_file, fds[1], memory_limit_gb);
    }
    close(fds[1]);
    r.ran = true;
    const auto t0 = std::chrono::steady_clock::now();
    ssize_t got = 0;
    char *dst = reinterpret_cast<char *>(&r.f);
    for (;;) {
        pollfd p{fds[0], POLLIN, 0};
        const double left =
            timeout - std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (left <= 0) {
            kill(pid, SIGKILL);
            r.timed_out = true;
            break;
        }
        if (poll(&p, 1, int(std::min(left, 1.0) * 1000)) > 0) {
            const ssize_t n = read(fds[0], dst + got, sizeof r.f - got);
            if (n <= 0) break;
            got += n;
            if (got == ssize_t(sizeof r.f)) break;
        }
    }
    close(fds[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    r.peak_mb = usage.ru_maxrss / 1024.0;
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    if (got != ssize_t(sizeof r.f) && !r.timed_out) r.ran = false;
    return r;
}

bool succeeded(const Result &r) {
    return r.ran && !r.timed_out && r.exit_code == 0 && r.f.status >= 0 &&
           !(r.c.solver == SOLVER_UMFPACK && r.f.status < 0);
}

// Share of equal bytes and the largest difference between two mattes on disk.
bool compareMattes(const std::string &a, const std::string &b, double *agree, int *max_diff) {
    FILE *fa = fopen(a.c_str(), "rb"), *fb = fopen(b.c_str(), "rb");
    if (!fa || !fb) {
        if (fa) fclose(fa);
        if (fb) fclose(fb);
        return false;
    }
    std::vector<unsigned char> x(1 << 20), y(1 << 20);
    size_t equal = 0, total = 0;
    *max_diff = 0;
    for (;;) {
        const size_t na = fread(x.data(), 1, x.size(), fa), nb = fread(y.data(), 1, y.size(), fb);
        const size_t n = std::min(na, nb);
        for (size_t k = 0; k < n; k++) {
            equal += x[k] == y[k];
            *max_diff = std::max(*max_diff, std::abs(int(x[k]) - int(y[k])));
        }
        total += n;
        if (n == 0 || na != nb) break;
    }
    fclose(fa);
    fclose(fb);
    *agree = total ? 100.0 * equal / total : -1.0;
    return total > 0;
}

std::vector<std::string> splitList(const std::string &text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t comma = text.find(',', start);
        const std::string item =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty()) out.push_back(item);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

std::string outcome(const Result &r) {
    if (!r.ran) return "did not start";
    if (r.timed_out) return "stopped at the time limit";
    if (r.exit_code != 0)
        return "ended with exit status " + std::to_string(r.exit_code) + " (out of memory?)";
    if (r.c.solver == SOLVER_UMFPACK) return r.f.status == 0 ? "ok" : std::string(r.f.message);
    return r.f.status == 0 ? "ok" : std::string(r.f.message);
}

} // namespace

int main(int argc, char **argv) {
    std::vector<double> sizes = {0.3, 1, 4, 12}, pyramid_sizes = {12};
    std::vector<SolverKind> solvers = {SOLVER_UMFPACK, SOLVER_CHOLMOD, SOLVER_CG};
    std::vector<bool> scenes = {false, true};
    std::vector<std::string> skip;
    double timeout = 900, memory_limit_gb = 16;
    for (int k = 1; k < argc; k++) {
        const std::string arg = argv[k];
        const std::string value = k + 1 < argc ? argv[k + 1] : "";
        if (arg == "--sizes" || arg == "--pyramid-sizes") {
            std::vector<double> &list = arg == "--sizes" ? sizes : pyramid_sizes;
            list.clear();
            for (const std::string &s : splitList(value)) {
                // "none" leaves the list empty (no pyramid cases, say).
                if (s == "none") continue;
                char *end = nullptr;
                const double megapixels = strtod(s.c_str(), &end);
                if (end == s.c_str() || *end != '\0' || !(megapixels > 0.0)) {
                    fprintf(stderr, "solver_bench: %s takes positive megapixel counts or none, not '%s'\n",
                            arg.c_str(), s.c_str());
                    return 2;
                }
                list.push_back(megapixels);
            }
        } else if (arg == "--solvers") {
            solvers.clear();
            for (const std::string &s : splitList(value)) {
                SolverKind kind;
                if (parseSolverKind(s.c_str(), &kind) != 0) {
                    fprintf(stderr, "solver_bench: unknown solver '%s'\n", s.c_str());
                    return 2;
                }
                solvers.push_back(kind);
            }
        } else if (arg == "--scenes") {
            scenes.clear();
            for (const std::string &s : splitList(value))
                scenes.push_back(s == "trimap");
        } else if (arg == "--timeout") {
            timeout = atof(value.c_str());
        } else if (arg == "--memory-limit") {
            memory_limit_gb = atof(value.c_str());
        } else if (arg == "--skip") {
            skip = splitList(value);
        } else {
            fprintf(stderr,
                    "usage: solver_bench [--sizes 0.3,1,4,12] [--solvers umfpack,cholmod,cg] [--scenes "
                    "scribbles,trimap]\n"
                    "                    [--pyramid-sizes 12|none] [--timeout SECONDS] [--memory-limit GB]\n"
                    "                    [--skip SOLVER@MEGAPIXELS[/LEVELS],...]\n");
            return 2;
        }
        ++k;
    }
    char folder[] = "/tmp/solver-bench-XXXXXX";
    if (!mkdtemp(folder)) return 1;

    double load[3] = {0, 0, 0};
    if (FILE *f = fopen("/proc/loadavg", "r")) {
        if (fscanf(f, "%lf %lf %lf", &load[0], &load[1], &load[2]) != 3) load[0] = -1;
        fclose(f);
    }
    printf(
        "solver_bench: %ld CPUs, load average %.1f at the start; time limit %.0f s and address-space limit "
        "%.0f GB per case\n\n",
        sysconf(_SC_NPROCESSORS_ONLN), load[0], timeout, memory_limit_gb);

    std::vector<Case> cases;
    for (double mp : sizes)
        for (bool trimap : scenes)
            for (SolverKind s : solvers)
                cases.push_back({mp, trimap, 1, 1, s});
    for (double mp : pyramid_sizes)
        for (bool trimap : scenes)
            for (SolverKind s : solvers)
                cases.push_back({mp, trimap, 4, 1, s});

    printf("%-36s %-8s %9s %9s %9s %9s %6s %9s  %s\n", "case", "solver", "assembly", "set-up", "solve",
           "total", "iter", "peak MB", "outcome");
    std::vector<Result> results;
    for (size_t k = 0; k < cases.size(); k++) {
        const Case &c = cases[k];
        char key[64];
        if (c.levels == 1)
            snprintf(key, sizeof key, "%s@%g", solverKindName(c.solver), c.megapixels);
        else
            snprintf(key, sizeof key, "%s@%g/%d", solverKindName(c.solver), c.megapixels, c.levels);
        Result r;
        if (std::find(skip.begin(), skip.end(), key) != skip.end()) {
            r.c = c;
            printf("%-36s %-8s %9s %9s %9s %9s %6s %9s  skipped\n", caseName(c).c_str(),
                   solverKindName(c.solver), "-", "-", "-", "-", "-", "-");
            results.push_back(r);
            continue;
        }
        r = runCase(c, timeout, memory_limit_gb, folder, int(k));
        // Agreement with a direct solution of the same case.
        if (c.solver == SOLVER_CG && succeeded(r))
            for (const Result &d : results)
                if (d.c.megapixels == c.megapixels && d.c.trimap == c.trimap && d.c.levels == c.levels &&
                    d.c.solver != SOLVER_CG && succeeded(d) && d.f.status == 0 &&
                    compareMattes(r.matte_file, d.matte_file, &r.agree, &r.max_diff)) {
                    r.against = solverKindName(d.c.solver);
                    if (d.c.solver == SOLVER_CHOLMOD) break;
                }
        std::string out = outcome(r);
        if (r.agree >= 0) {
            char text[96];
            snprintf(text, sizeof text, "; %.3f %% equal to %s, largest difference %d", r.agree,
                     r.against.c_str(), r.max_diff);
            out += text;
        }
        const bool figures = r.ran && !r.timed_out && r.exit_code == 0;
        if (figures)
            printf("%-36s %-8s %9.2f %9.2f %9.2f %9.2f %6s %9.0f  %s\n", caseName(c).c_str(),
                   solverKindName(c.solver), r.f.assembly, r.f.setup, r.f.solve, r.f.total,
                   c.solver == SOLVER_CG ? std::to_string(r.f.iterations).c_str() : "-", r.peak_mb,
                   out.c_str());
        else
            printf("%-36s %-8s %9s %9s %9s %9s %6s %9.0f  %s\n", caseName(c).c_str(),
                   solverKindName(c.solver), "-", "-", "-", "-", "-", r.peak_mb, out.c_str());
        fflush(stdout);
        results.push_back(r);
    }
    for (const Result &r : results)
        if (!r.matte_file.empty()) unlink(r.matte_file.c_str());
    rmdir(folder);
    printf(
        "\nScene memory (image and constraint arrays, before the engine): about %.0f bytes per pixel.\n",
        results.empty() ? 0.0 : [&] {
            for (const Result &r : results)
                if (r.ran && r.exit_code == 0) {
                    int H, W;
                    sizeFor(r.c.megapixels, &H, &W);
                    return r.f.scene_mb * 1048576.0 / (double(H) * W);
                }
            return 0.0;
        }());
    return 0;
}
