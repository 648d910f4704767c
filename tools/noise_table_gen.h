/*
 * The value-noise table's method (see tools/gen_noise_table.cpp): the
 * generator program prints the table from it, and the noise tests check the
 * committed table against it.
 */
#ifndef DRUX_NOISE_TABLE_GEN_H
#define DRUX_NOISE_TABLE_GEN_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

namespace noisegen {

constexpr uint64_t kSeed = 0x44727578u; /* "Drux" */
constexpr int kCount = 65535;          /* random entries; one 0.0 entry follows */
constexpr long kLowest = -999965;      /* smallest value, in millionths */
constexpr long kHighest = 999958;      /* largest value, in millionths */
constexpr long kSum = 222819;          /* sum of all values in millionths: mean 0.0000034 */

struct SplitMix64 {
    uint64_t state;
    uint64_t next()
    {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
};

/* The 65,535 random entries in millionths, in table order. */
inline std::vector<long> generateMillionths()
{
    SplitMix64 rng{kSeed};
    std::vector<long> v(kCount);
    const double width = static_cast<double>(kHighest - kLowest) / kCount;
    long sum = 0;
    for (int i = 0; i < kCount; ++i) {
        const double u = rng.uniform();
        if (i == 0)
            v[i] = kLowest;
        else if (i == kCount - 1)
            v[i] = kHighest;
        else
            v[i] = std::lround(static_cast<double>(kLowest) + width * (i + 0.1 + 0.8 * u));
        sum += v[i];
    }
    const long D = kSum - sum, M = kCount - 2;
    auto floorDiv = [](long a, long b) { return a >= 0 ? a / b : -((-a + b - 1) / b); };
    for (long k = 0; k < M; ++k)
        v[k + 1] += floorDiv(D * (k + 1), M) - floorDiv(D * k, M);
    for (int i = kCount - 1; i > 0; --i) {
        const int j = static_cast<int>(rng.uniform() * (i + 1));
        std::swap(v[i], v[j]);
    }
    /* The properties the table promises; a change of method that broke one
       must not go unnoticed. */
    long check = 0, lowest = 0, highest = 0;
    int atLowest = 0, atHighest = 0;
    for (long x : v) {
        check += x;
        lowest = x < lowest ? x : lowest;
        highest = x > highest ? x : highest;
        atLowest += x == kLowest;
        atHighest += x == kHighest;
    }
    if (check != kSum || lowest != kLowest || highest != kHighest || atLowest != 1 || atHighest != 1)
        std::abort();
    return v;
}

/* "-0.123456" for -123456 millionths: exact decimal text, no float detour. */
inline void formatMillionths(long m, char *buf, size_t size)
{
    const long a = m < 0 ? -m : m;
    std::snprintf(buf, size, "%s%ld.%06ld", m < 0 ? "-" : "", a / 1000000, a % 1000000);
}

} // namespace noisegen

#endif
