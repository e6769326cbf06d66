// Splits the engine's long loops over the machine's two cores.
#include "matting/parallel.h"

#include <thread>

void parallelTwo(const std::function<void()> &first, const std::function<void()> &second) {
    std::thread helper(second);
    first();
    helper.join();
}

void parallelRange(int64_t n, int64_t grain, const std::function<void(int64_t, int64_t)> &body) {
    if (n <= 0) return;
    if (n < grain || n < 2) {
        body(0, n);
        return;
    }
    const int64_t mid = n / 2;
    parallelTwo([&] { body(0, mid); }, [&] { body(mid, n); });
}

double parallelSum(int64_t n, int64_t grain, const std::function<double(int64_t, int64_t)> &body) {
    if (n <= 0) return 0.0;
    if (n < grain || n < 2) return body(0, n);
    const int64_t mid = n / 2;
    double first = 0.0, second = 0.0;
    parallelTwo([&] { first = body(0, mid); }, [&] { second = body(mid, n); });
    return first + second;
}
