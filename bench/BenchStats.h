// How the timing programs print a distribution.
#ifndef QUAVIX_BENCH_BENCHSTATS_H
#define QUAVIX_BENCH_BENCHSTATS_H

#include <algorithm>
#include <cstdio>
#include <vector>

// "what: n=… median=… us p99=… us max=… us", values in microseconds.
inline void PrintStats(const char* what, std::vector<double> v)
{
    if (v.empty()) {
        std::printf("%s: no samples\n", what);
        return;
    }
    std::sort(v.begin(), v.end());
    auto at = [&](double p) { return v[std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5))]; };
    std::printf("%s: n=%zu median=%.1f us p99=%.1f us max=%.1f us\n", what, v.size(), at(0.5), at(0.99), v.back());
}

#endif // QUAVIX_BENCH_BENCHSTATS_H
