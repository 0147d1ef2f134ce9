// The bytes of the wave files the benchmarks write for themselves.
#ifndef QUAVIX_BENCH_BENCHWAVE_H
#define QUAVIX_BENCH_BENCHWAVE_H

#include <quavix/QXWinTypes.h>

#include <string>

// v as n little-endian bytes.
inline std::string Le(DWORD v, int n)
{
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
    return s;
}

#endif // QUAVIX_BENCH_BENCHWAVE_H
