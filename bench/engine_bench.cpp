// engine_bench: times and measures the matting engine on synthetic composites with a known alpha.
//
// For images of about 0.25, 0.5 and 1 megapixels it builds a soft-edged shape over a textured
// background, derives scribbles from the true alpha, runs solveAlphaC2F as the calculation job does
// (levels 1, and levels 3 with 1 step), and prints one line per figure: seconds per phase, the share of
// the engine's wall time spent outside UMFPACK's symbolic, numeric and solve calls, peak memory, the
// solver status and the matte's error against the true alpha.
//
// Memory is measured two ways. Heap: this program replaces malloc and its relatives (every library in
// the process, UMFPACK and CHOLMOD included, allocates through them), keeps a running count of live
// bytes and records the highest count inside each phase. RSS: at the start of each phase the kernel's
// peak-RSS mark is reset by writing "5" to /proc/self/clear_refs and at its end VmHWM is read from
// /proc/self/status; this also sees memory that bypasses malloc (OpenBLAS's buffers).
//
//   engine_bench [MEGAPIXELS...]     default: 0.25 0.5 1
#include <malloc.h>
#include <unistd.h>

#include <atomic>
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

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}

namespace {

std::atomic<long long> live_bytes{0};
std::atomic<long long> phase_peak_bytes{0};

void count_in(void *p) {
    if (!p) return;
    const long long now = live_bytes += (long long)malloc_usable_size(p);
    long long peak = phase_peak_bytes.load(std::memory_order_relaxed);
    while (now > peak && !phase_peak_bytes.compare_exchange_weak(peak, now))
        ;
}

void count_out(void *p) {
    if (p) live_bytes -= (long long)malloc_usable_size(p);
}

} // namespace

extern "C" {
void *malloc(size_t size) {
    void *p = __libc_malloc(size);
    count_in(p);
    return p;
}
void *calloc(size_t n, size_t size) {
    void *p = __libc_calloc(n, size);
    count_in(p);
    return p;
}
void *realloc(void *old, size_t size) {
    count_out(old);
    void *p = __libc_realloc(old, size);
    count_in(p ? p : (size ? old : nullptr));
    return p;
}
void free(void *p) {
    count_out(p);
    __libc_free(p);
}
void *memalign(size_t alignment, size_t size) {
    void *p = __libc_memalign(alignment, size);
    count_in(p);
    return p;
}
void *aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void **out, size_t alignment, size_t size) {
    void *p = memalign(alignment, size);
    if (!p) return 12; // ENOMEM
    *out = p;
    return 0;
}
void *valloc(size_t size) {
    return memalign((size_t)sysconf(_SC_PAGESIZE), size);
}
}

namespace {

const int PHASES = ENGINE_PHASE_LEVEL;
const char *const PHASE_NAMES[PHASES] = {"laplacian",       "constraints",   "conversion", "umfpack_symbolic",
                                         "umfpack_numeric", "umfpack_solve", "result",     "resample"};

using Clock = std::chrono::steady_clock;

struct Figures {
    double seconds[PHASES] = {};
    long long heap_peak[PHASES] = {};
    long long rss_peak[PHASES] = {};
    Clock::time_point started;
    int statuses[3] = {};
    bool can_reset_rss = true;
};

long long rss_high_water() {
    FILE *f = fopen("/proc/self/status", "r");
    if (!f) return 0;
    char line[256];
    long long kb = 0;
    while (fgets(line, sizeof line, f))
        if (strncmp(line, "VmHWM:", 6) == 0) kb = atoll(line + 6);
    fclose(f);
    return kb * 1024;
}

bool reset_rss_high_water() {
    FILE *f = fopen("/proc/self/clear_refs", "w");
    if (!f) return false;
    const bool ok = fputs("5", f) >= 0;
    return fclose(f) == 0 && ok;
}

void on_phase(const EnginePhaseEvent *e, void *data) {
    Figures *fig = static_cast<Figures *>(data);
    if (e->phase == ENGINE_PHASE_LEVEL) return;
    if (e->starting) {
        phase_peak_bytes = live_bytes.load();
        fig->can_reset_rss = reset_rss_high_water() && fig->can_reset_rss;
        fig->started = Clock::now();
        return;
    }
    const int k = e->phase;
    fig->seconds[k] += std::chrono::duration<double>(Clock::now() - fig->started).count();
    fig->heap_peak[k] = std::max(fig->heap_peak[k], phase_peak_bytes.load());
    fig->rss_peak[k] = std::max(fig->rss_peak[k], rss_high_water());
    if (e->phase == ENGINE_PHASE_SYMBOLIC) fig->statuses[0] = e->status;
    if (e->phase == ENGINE_PHASE_NUMERIC) fig->statuses[1] = e->status;
}

// The synthetic scene: a textured foreground blob with a soft, wavy edge over a textured background.
struct Scene {
    int H, W;
    TIFF_img image;
    std::vector<double> alpha;    // true alpha, row-major
    std::vector<double> scribble; // -1 unknown, 0 background, 1 foreground
};

double smoothstep(double t) {
    t = t < 0 ? 0 : t > 1 ? 1 : t;
    return t * t * (3 - 2 * t);
}

Scene make_scene(int W, int H) {
    Scene s{H, W, {}, std::vector<double>((size_t)W * H), std::vector<double>((size_t)W * H, -1.0)};
    get_TIFF(&s.image, H, W, 'c');
    const double cx = 0.5 * W, cy = 0.52 * H, R = 0.3 * std::min(W, H);
    const double soft = std::max(3.0, 0.02 * std::min(W, H)); // width of the soft edge in pixels
    unsigned seed = 12345;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double dx = j - cx, dy = i - cy, angle = std::atan2(dy, dx);
            const double edge = R * (1 + 0.12 * std::sin(5 * angle) + 0.05 * std::sin(13 * angle + 1));
            const double a = smoothstep((edge - std::hypot(dx, dy)) / soft + 0.5);
            s.alpha[(size_t)i * W + j] = a;
            seed = seed * 1103515245u + 12345u;
            const double grain = ((seed >> 16) & 255) / 255.0 - 0.5;
            const double fg[3] = {200 + 40 * std::sin(j * 0.05) + 10 * grain, 120 + 30 * std::cos(i * 0.07),
                                  60 + 20 * std::sin((i + j) * 0.03)};
            const double bg[3] = {40 + 30 * std::sin(i * 0.11) * std::cos(j * 0.05) + 20 * grain,
                                  90 + 40 * std::sin((i - j) * 0.02), 170 + 50 * std::cos(j * 0.09)};
            for (int ch = 0; ch < 3; ch++) {
                const double v = a * fg[ch] + (1 - a) * bg[ch];
                s.image.color[ch][i][j] = (uint8_t)std::lround(std::min(255.0, std::max(0.0, v)));
            }
            // Scribbles: a thick ring well inside the shape, a frame near the border and two strokes
            // across the background, all where the true alpha is exactly 0 or 1.
            const double d = std::hypot(dx, dy);
            const int band = std::max(3, std::min(W, H) / 60);
            if (a == 1.0 && std::fabs(d - 0.5 * R) < band) s.scribble[(size_t)i * W + j] = 1;
            if (a == 1.0 && std::fabs(dx) < band && d < 0.6 * R) s.scribble[(size_t)i * W + j] = 1;
            const bool frame = i < 3 * band || j < 3 * band || i >= H - 3 * band || j >= W - 3 * band;
            const bool stroke = std::abs(i - j * H / W) < band || std::abs(i - H / 6) < band;
            if (a == 0.0 && (frame || stroke)) s.scribble[(size_t)i * W + j] = 0;
        }
    return s;
}

void run(const Scene &s, int levels, int steps) {
    const int H = s.H, W = s.W;
    double **map = (double **)get_img(W, H, sizeof(double));
    double **values = (double **)get_img(W, H, sizeof(double));
    long constrained = 0;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double v = s.scribble[(size_t)i * W + j];
            map[i][j] = v < 0 ? 0.0 : 1.0;
            values[i][j] = v < 0 ? 0.0 : v;
            constrained += v >= 0;
        }

    Figures fig;
    setEnginePhaseHook(on_phase, &fig);
    int status = -3;
    phase_peak_bytes = live_bytes.load();
    reset_rss_high_water();
    const long long heap_before = live_bytes.load();
    const Clock::time_point t0 = Clock::now();
    double **alpha =
        solveAlphaC2F(&s.image, map, values, levels, std::min(levels, steps), 1, &status, 0.02, 1e-7);
    const double total = std::chrono::duration<double>(Clock::now() - t0).count();
    setEnginePhaseHook(nullptr, nullptr);

    scale2_255(alpha, W, H);
    double sad = 0, sse = 0;
    for (int i = 0; i < H; i++)
        for (int j = 0; j < W; j++) {
            const double a = std::isnan(alpha[i][j]) ? 0.0 : (int)alpha[i][j] / 255.0;
            const double e = a - s.alpha[(size_t)i * W + j];
            sad += std::fabs(e);
            sse += e * e;
        }

    char tag[96];
    snprintf(tag, sizeof tag, "%.2fMP %dx%d levels=%d steps=%d", W * H / 1e6, W, H, levels,
             std::min(levels, steps));
    double solver = 0;
    long long heap_solver = 0, heap_other = 0, rss_solver = 0, rss_other = 0;
    for (int k = 0; k < PHASES; k++) {
        printf("%s %-17s %9.3f s  heap peak %8.1f MB  rss peak %8.1f MB\n", tag, PHASE_NAMES[k],
               fig.seconds[k], fig.heap_peak[k] / 1e6, fig.rss_peak[k] / 1e6);
        const bool umf = k == ENGINE_PHASE_SYMBOLIC || k == ENGINE_PHASE_NUMERIC || k == ENGINE_PHASE_SOLVE;
        if (umf) solver += fig.seconds[k];
        (umf ? heap_solver : heap_other) = std::max(umf ? heap_solver : heap_other, fig.heap_peak[k]);
        (umf ? rss_solver : rss_other) = std::max(umf ? rss_solver : rss_other, fig.rss_peak[k]);
    }
    printf("%s constrained        %9.2f %% of pixels\n", tag, 100.0 * constrained / ((double)W * H));
    printf("%s total              %9.3f s\n", tag, total);
    printf("%s non-solver share   %9.1f %% of total\n", tag, 100.0 * (total - solver) / total);
    printf(
        "%s heap peak          %9.1f MB outside UMFPACK, %.1f MB in UMFPACK, ratio %.2f (baseline %.1f MB)\n",
        tag, heap_other / 1e6, heap_solver / 1e6, heap_solver ? (double)heap_other / heap_solver : 0.0,
        heap_before / 1e6);
    if (fig.can_reset_rss)
        printf("%s rss peak           %9.1f MB outside UMFPACK, %.1f MB in UMFPACK, ratio %.2f\n", tag,
               rss_other / 1e6, rss_solver / 1e6, rss_solver ? (double)rss_other / rss_solver : 0.0);
    else
        printf("%s rss peak           unavailable (cannot write /proc/self/clear_refs)\n", tag);
    printf("%s status             %9d (symbolic %d, numeric %d)\n", tag, status, fig.statuses[0],
           fig.statuses[1]);
    printf("%s SAD                %9.2f thousand\n", tag, sad / 1000);
    printf("%s MSE                %9.5f\n", tag, sse / ((double)W * H));
    fflush(stdout);
    free_img((void **)alpha);
    free_img((void **)map);
    free_img((void **)values);
}

} // namespace

int main(int argc, char **argv) {
    std::vector<double> sizes;
    for (int k = 1; k < argc; k++)
        sizes.push_back(atof(argv[k]));
    if (sizes.empty()) sizes = {0.25, 0.5, 1.0};
    for (double mp : sizes) {
        const int W = (int)std::lround(std::sqrt(mp * 1e6 * 4 / 3) / 8) * 8, H = W * 3 / 4;
        Scene s = make_scene(W, H);
        run(s, 1, 1);
        run(s, 3, 1);
        free_TIFF(&s.image);
        ::free(s.image.color);
    }
    return 0;
}
