/*
 * Generator of the value-noise lattice table, SDK/druxNoiseTable.cpp.
 *
 * The table holds 65,535 pseudo-random values spread evenly over (-1, 1),
 * each with six decimal places, followed by one 0.0 entry (65,536 floats).
 * It was generated once and committed; the library never runs this program.
 * To regenerate (the output must not change):
 *
 *     g++ -std=c++17 -O2 -o gen_noise_table tools/gen_noise_table.cpp
 *     ./gen_noise_table > SDK/druxNoiseTable.cpp
 *
 * The values have fixed extremes and a fixed mean: the smallest is exactly
 * -0.999965, the largest exactly 0.999958, and they add up to 0.222819
 * (mean 0.0000034 over the 65,535 values).
 *
 * Method, fixed so that the table is reproducible:
 *   - generator: splitmix64 (Steele, Lea, Flood 2014), seed kSeed below;
 *     a uniform number in [0, 1) is the top 53 bits of a draw times 2^-53;
 *   - stratification: [kLowest, kHighest] is cut into 65,535 strata of
 *     equal width w; the first stratum holds kLowest and the last kHighest,
 *     and every stratum i between gets kLowest + w * (i + 0.1 + 0.8 * u) with
 *     a fresh uniform u, so every stratum holds exactly one value and no
 *     inner value comes within a tenth of a stratum of its neighbours';
 *   - rounding: to the nearest multiple of 1e-6 (ties away from zero),
 *     kept as an integer number of millionths;
 *   - mean: the difference D between kSum and the sum of the rounded values
 *     is spread over the inner values in table order, value k (of the M
 *     inner ones) moving by floor(D (k + 1) / M) - floor(D k / M) millionths
 *     (about 7, far less than a stratum's width, so the extremes stay the
 *     only ones);
 *   - order: a Fisher-Yates shuffle driven by the same generator
 *     (for i from 65,534 down to 1, swap entry i with entry
 *     floor(u * (i + 1))), so neighbouring entries are unrelated.
 *
 * The test suite compiles this file with DRUX_NOISE_GENERATOR_NO_MAIN defined
 * and checks that the committed table is exactly this program's output.
 */
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

#ifndef DRUX_NOISE_GENERATOR_NO_MAIN
int main()
{
    const std::vector<long> v = noisegen::generateMillionths();
    std::printf("/*\n"
                " * The value-noise lattice table: 65,535 pseudo-random values spread evenly\n"
                " * over (-1, 1), six decimal places each, and a final 0.0 entry.\n"
                " * Generated by tools/gen_noise_table.cpp; do not edit by hand.\n"
                " */\n"
                "#include \"DruxShaderSDK.h\"\n"
                "\n"
                "extern \"C\" {\n"
                "\n"
                "const float NoiseTable[65536] = {\n");
    char buf[32];
    for (int i = 0; i < noisegen::kCount; ++i) {
        noisegen::formatMillionths(v[i], buf, sizeof buf);
        std::printf("%s%sf,%s", i % 8 == 0 ? "    " : " ", buf, i % 8 == 7 ? "\n" : "");
    }
    std::printf(" 0.0f,\n};\n\n} // extern \"C\"\n");
    return 0;
}
#endif
