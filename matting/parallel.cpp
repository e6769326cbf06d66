// Splits the engine's long loops over the calling thread and one persistent helper thread.
#include "matting/parallel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int kMaxPieces = 16;

// Tasks that the caller and the helper claim one at a time.
struct Batch {
    const std::function<void(int)> *task = nullptr;
    int count = 0;
    std::atomic<int> next{0};
};

void work(Batch *batch) {
    for (int k = batch->next.fetch_add(1); k < batch->count; k = batch->next.fetch_add(1))
        (*batch->task)(k);
}

// The helper thread. Between batches it spins for a moment, since the engine's loops come in quick
// succession (a multigrid cycle hands out dozens of short batches), and a thread woken from sleep
// arrives too late to take part in them; when nothing comes it sleeps until a batch is offered.
class Helper {
  public:
    static Helper &instance() {
        static Helper helper;
        return helper;
    }

    // Offers a batch; false when the helper is already engaged (a second caller, or a call from inside
    // a task), in which case the caller runs the batch alone.
    bool offer(Batch *batch) {
        if (std::this_thread::get_id() == thread_.get_id()) return false;
        if (engaged_.exchange(true)) return false;
        pending_.store(batch);
        if (sleeping_.load()) {
            std::lock_guard<std::mutex> lock(mutex_);
            wake_.notify_one();
        }
        return true;
    }

    // Returns once the helper holds no reference to the offered batch.
    void withdraw() {
        if (!pending_.exchange(nullptr)) // taken: wait until the helper lets go of it
            while (busy_.load())
                std::this_thread::yield();
        engaged_.store(false);
    }

  private:
    Helper() : thread_([this] { run(); }) {}

    ~Helper() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

    // Takes the offered batch, if any, and works on it. busy_ is raised before the batch is taken, so
    // that withdraw() never sees it taken and the helper idle at once.
    bool take() {
        busy_.store(true);
        Batch *batch = pending_.exchange(nullptr);
        if (batch) work(batch);
        busy_.store(false);
        return batch != nullptr;
    }

    void run() {
        for (;;) {
            spin();
            std::unique_lock<std::mutex> lock(mutex_);
            sleeping_.store(true);
            wake_.wait(lock, [this] { return quit_ || pending_.load(); });
            sleeping_.store(false);
            if (quit_) return;
            lock.unlock();
            take();
        }
    }

    // Takes the batches that come within kSpin of each other; returns when none has come for that long.
    void spin() {
        auto last = std::chrono::steady_clock::now();
        for (unsigned k = 1;; ++k) {
            if (pending_.load() && take()) {
                last = std::chrono::steady_clock::now();
                continue;
            }
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
            if (k % 64 == 0 && std::chrono::steady_clock::now() - last > kSpin) return;
        }
    }

    static constexpr std::chrono::microseconds kSpin{200};
    std::mutex mutex_;
    std::condition_variable wake_;
    std::atomic<Batch *> pending_{nullptr};
    std::atomic<bool> engaged_{false}, busy_{false}, sleeping_{false};
    bool quit_ = false;
    std::thread thread_; // last, so that it starts after everything it uses
};

int piecesFor(int64_t n, int64_t grain) {
    if (n < grain || n < 2) return 1;
    const int64_t least = std::max<int64_t>(grain / 4, 1);
    return int(std::clamp<int64_t>(n / least, 2, kMaxPieces));
}

} // namespace

void parallelTasks(int count, const std::function<void(int)> &task) {
    if (count <= 0) return;
    if (count == 1) {
        task(0);
        return;
    }
    Batch batch;
    batch.task = &task;
    batch.count = count;
    Helper &helper = Helper::instance();
    const bool shared = helper.offer(&batch);
    work(&batch);
    if (shared) helper.withdraw();
}

void parallelTwo(const std::function<void()> &first, const std::function<void()> &second) {
    parallelTasks(2, [&](int k) { k == 0 ? first() : second(); });
}

void parallelRange(int64_t n, int64_t grain, const std::function<void(int64_t, int64_t)> &body) {
    if (n <= 0) return;
    const int pieces = piecesFor(n, grain);
    if (pieces == 1) {
        body(0, n);
        return;
    }
    parallelTasks(pieces, [&](int k) { body(n * k / pieces, n * (k + 1) / pieces); });
}

double parallelSum(int64_t n, int64_t grain, const std::function<double(int64_t, int64_t)> &body) {
    if (n <= 0) return 0.0;
    const int pieces = piecesFor(n, grain);
    if (pieces == 1) return body(0, n);
    double part[kMaxPieces];
    parallelTasks(pieces, [&](int k) { part[k] = body(n * k / pieces, n * (k + 1) / pieces); });
    double total = 0.0;
    for (int k = 0; k < pieces; ++k)
        total += part[k];
    return total;
}
