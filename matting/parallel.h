// Splits the engine's long loops over the machine's two cores: the calling thread and one helper thread
// that lives for the rest of the process. Work is cut into pieces that either thread claims as it comes
// free, so when the helper is slow to get a core (other programs running) the caller simply does more
// of the pieces itself and never waits for work the helper has not started. Work too small to pay for
// the hand-over runs on the caller alone.
#pragma once

#include <cstdint>
#include <functional>

// parallelTasks: runs task(0) .. task(count - 1), each exactly once, on the caller and the helper.
//   count  input: number of tasks (nothing is called when count <= 0)
//   task   input: tasks must be safe to run concurrently with each other; exceptions are not supported
// Returns when every task is done. The caller starts with task 0; tasks are claimed in increasing order.
void parallelTasks(int count, const std::function<void(int)> &task);

// parallelRange: calls body(begin, end) on consecutive pieces that together cover [0, n) exactly
// once, on both threads when n is at least `grain`, otherwise once on [0, n) in the calling thread.
//   n      input: size of the range (nothing is called when n <= 0)
//   grain  input: smallest n worth splitting; pieces are at least grain / 4 long
//   body   input: must be safe to run concurrently on disjoint pieces
void parallelRange(int64_t n, int64_t grain, const std::function<void(int64_t, int64_t)> &body);

// parallelSum: as parallelRange, for a body that returns a partial sum; returns the total. The pieces
// and the order of adding them depend only on n and grain, so the result does not depend on which
// thread ran what.
double parallelSum(int64_t n, int64_t grain, const std::function<double(int64_t, int64_t)> &body);

// parallelTwo: runs first() and second() once each, concurrently when the helper is free. The two must
// not write to the same memory.
void parallelTwo(const std::function<void()> &first, const std::function<void()> &second);
