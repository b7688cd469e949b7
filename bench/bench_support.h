#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <vector>

/// What the benchmarks have in common.
namespace bench {

/// The value below which that share of all lies; 0.5 is the median. Not for no values.
inline double quantile(std::vector<double> values, double which) {
    const auto at = static_cast<size_t>(which * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
    return values[at];
}

/// Puts this thread, and what it starts from now on, onto one processor.
inline void stayOn(size_t processor) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
        perror("sched_setaffinity");
        exit(1);
    }
}

} // namespace bench

#endif
