// Splits the engine's long loops over the machine's two cores: the calling thread takes the first part
// of a range and one helper thread the second, so that a pass over millions of pixels takes half the
// time. Work too small to pay for a thread runs on the caller alone.
#pragma once

#include <cstdint>
#include <functional>

// Number of parts the routines below split a range into (the caller plus the helpers).
constexpr int kParallelParts = 2;

// parallelRange: calls body(begin, end) on consecutive parts of [0, n) that together cover it exactly
// once, concurrently when n is at least `grain`, otherwise once on [0, n) in the calling thread.
//   n      input: size of the range (nothing is called when n <= 0)
//   grain  input: smallest n worth splitting
//   body   input: must be safe to run concurrently on disjoint parts; exceptions are not supported
// Returns when every part is done.
void parallelRange(int64_t n, int64_t grain, const std::function<void(int64_t, int64_t)> &body);

// parallelSum: as parallelRange, for a body that returns a partial sum; returns the sum of the parts,
// added in a fixed order so that the result does not depend on thread timing.
double parallelSum(int64_t n, int64_t grain, const std::function<double(int64_t, int64_t)> &body);

// parallelTwo: runs first() in the calling thread and second() in a helper thread, and returns when
// both are done. The two must not write to the same memory.
void parallelTwo(const std::function<void()> &first, const std::function<void()> &second);
