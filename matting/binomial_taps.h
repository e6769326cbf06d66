// The binomial filter taps that the coarse-to-fine pyramid shares between its down-sampling and its
// up-sampling, so that the two stay matched.
#ifndef KELDRA_MATTING_BINOMIAL_TAPS_H
#define KELDRA_MATTING_BINOMIAL_TAPS_H

#include <vector>

// binomial_taps: the 2f+1 binomial taps of order 2f, normalised to sum 1: 1/4 [1 2 1] for f = 1,
// 1/16 [1 4 6 4 1] for f = 2. A negative f counts as 0 (the single tap 1).
inline std::vector<double> binomial_taps(int f) {
    if (f < 0) f = 0;
    std::vector<double> taps(2 * f + 1, 0.0);
    taps[0] = 1.0;
    for (int k = 1; k <= 2 * f; k++)
        for (int t = k; t > 0; t--)
            taps[t] += taps[t - 1];
    for (double &t : taps)
        t /= (double)(1L << (2 * f));
    return taps;
}

#endif
