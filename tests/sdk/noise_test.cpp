// Value noise, the lattice table and its accessors, the seeded generators and
// gradient noise.  Expected values come from the table by hand-derived blend
// weights: the doubled quadratic blend S(p, q, r; f) gives p + q at f = 0,
// 0.25p + 1.5q + 0.25r at f = 0.5 and 4p - 3q + r at f = -1.
#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "runtime.h"

#include "noise_table_gen.h"

#include <dlfcn.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

/* Defined in the builds that force one processor variant: the file name of
   the library holding that variant. */
extern "C" const char *druxNoiseTestVariant() __attribute__((weak));

namespace {

const float *T = NoiseTable;
float L2(int i, int j) { return T[(i & 31) + 32 * (j & 31)]; }
float L3(int i, int j, int k) { return T[(i & 31) + 32 * (j & 31) + 1024 * (k & 31)]; }
const double kCell = 1.0 / 32;

// Runs `body`, writes its failures to stderr and exits: 0 when it passed.
template <class F> [[noreturn]] void runAndExit(F body)
{
    ::testing::TestPartResultArray results;
    {
        ::testing::ScopedFakeTestPartResultReporter reporter(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
        body();
    }
    int failed = 0;
    for (int i = 0; i < results.size(); ++i) {
        const auto &r = results.GetTestPartResult(i);
        if (r.failed()) {
            std::fprintf(stderr, "%s:%d: %s\n", r.file_name(), r.line_number(), r.message());
            ++failed;
        }
    }
    std::exit(failed ? 1 : 0); // exit, not _Exit: sanitizers report at exit
}

// Runs `body` in a newly started copy of this program, where no gradient table
// exists yet; the copy's failures appear in the parent's failure message.
template <class F> void inFreshProcess(F body)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runAndExit(body), ::testing::ExitedWithCode(0), "");
}

// ------------------------------------------------------------ table

TEST(NoiseTable, IsTheGeneratorOutputAndEvenlySpread)
{
    const std::vector<long> m = noisegen::generateMillionths();
    ASSERT_EQ(m.size(), 65535u);
    char buf[32];
    double sum = 0, ascending = 0;
    float lo = 1, hi = -1;
    int atLo = 0, atHi = 0;
    std::vector<int> bins(256, 0);
    for (int i = 0; i < 65535; ++i) {
        noisegen::formatMillionths(m[i], buf, sizeof buf);
        ASSERT_EQ(T[i], std::strtof(buf, nullptr)) << "entry " << i << " is not " << buf;
        // Independently of the generator: the float nearest to the entry's
        // own six-decimal value.
        const long millionths = std::lround(double(T[i]) * 1e6);
        std::snprintf(buf, sizeof buf, "%s%ld.%06ld", millionths < 0 ? "-" : "", std::labs(millionths) / 1000000,
                      std::labs(millionths) % 1000000);
        ASSERT_EQ(T[i], std::strtof(buf, nullptr)) << "entry " << i << " has more than six decimals";
        sum += double(T[i]);
        lo = std::min(lo, T[i]);
        hi = std::max(hi, T[i]);
        ascending += i > 0 && T[i] > T[i - 1];
        bins[int((T[i] + 1.0) * 128.0)]++;
    }
    for (int i = 0; i < 65535; ++i)
        atLo += T[i] == lo, atHi += T[i] == hi;
    EXPECT_EQ(T[65535], 0.0f);
    EXPECT_EQ(lo, -0.999965f);
    EXPECT_EQ(hi, 0.999958f);
    EXPECT_EQ(atLo, 1);
    EXPECT_EQ(atHi, 1);
    EXPECT_NEAR(sum / 65535, 0.0000034, 5e-7);
    EXPECT_NEAR(ascending / 65534, 0.5, 0.01) << "entries must look unordered";
    for (int b = 0; b < 256; ++b) // 65535 / 256 = 255.996 values per bin
        EXPECT_NEAR(bins[b], 256, 2) << "bin " << b;
}

TEST(NoiseTable, Accessors)
{
    for (int i : {0, 1, 5, 1000, 65534})
        EXPECT_EQ(noise_table_scalar(i), double(T[i]));
    EXPECT_EQ(noise_table_scalar(-5), double(T[5]));
    EXPECT_EQ(noise_table_scalar(65535), double(T[0]));
    EXPECT_EQ(noise_table_scalar(-65536), double(T[1]));
    EXPECT_EQ(noise_table_scalar(INT32_MIN), double(T[32768])); // 2^31 = 2^15 * 65536, 65536 = 1 mod 65535
    EXPECT_EQ(noise_table_scalar(INT32_MAX), double(T[32767]));
    // {index, the entries of x, y and z}; -1: 2^32 - 1 = 65535 * 65537, the +1 wraps to 0
    const int rows[][4] = {{0, 0, 1, 2},          {65532, 65532, 65533, 65534}, {65534, 65534, 0, 1}, {65535, 0, 1, 2},
                           {-1, 0, 0, 1},         {-2, 65534, 0, 0},            {INT32_MAX, 32767, 32768, 32769}};
    for (const auto &r : rows)
        expectVec(noise_table_vector(r[0]), T[r[1]], T[r[2]], T[r[3]], 0, std::to_string(r[0]).c_str());
}

TEST(NoiseRandom, SixteenBitGenerator)
{
    miUint seed = 0;
    EXPECT_EQ(noise_frand(&seed), 13849.0f / 65535.0f);
    EXPECT_EQ(seed, 13849u);
    EXPECT_EQ(noise_drand(&seed), 48742.0 / 65535.0); // 13849 * 25174 mod 65536
    EXPECT_EQ(seed, 48742u);
    seed = 0xABCD0000u; // only the low 16 bits count
    EXPECT_EQ(noise_frand(&seed), 13849.0f / 65535.0f);
    EXPECT_EQ(seed, 13849u);

    // Full period: every 16-bit value once, results exactly value / 65535.
    std::vector<bool> seen(65536, false);
    miUint fs = 7, ds = 7, before = 0;
    for (int n = 0; n < 65536; ++n) {
        before = fs;
        const float f = noise_frand(&fs);
        const double d = noise_drand(&ds);
        ASSERT_EQ(fs, ds);
        ASSERT_LE(fs, 65535u);
        ASSERT_FALSE(seen[fs]) << "repeat after " << n;
        seen[fs] = true;
        ASSERT_EQ(f, float(fs) / 65535.0f);
        ASSERT_EQ(d, double(fs) / 65535.0);
        if (fs == 65535) {
            EXPECT_EQ(f, 1.0f);
            EXPECT_EQ(d, 1.0);
        }
    }
    EXPECT_EQ(fs, 7u);
    EXPECT_EQ((before * 25173u + 13849u) & 0xFFFFu, 7u);
}

// ------------------------------------------------------------ value noise

TEST(ValueNoise, OneDimensional)
{
    const float whole = 0.25f * (4 * T[0] - 3 * T[1] + T[2]);
    for (double x : {0.0, -0.0, 1.0, 7.0, -3.0, 1e9, -1e9, 2e9, -5e9, 1e300, HUGE_VAL})
        EXPECT_NEAR(noise_scalar_1d(x), whole, 1e-6) << x;
    for (int n = 1; n < 32; ++n)
        for (double base : {0.0, 3.0, -2.0})
            EXPECT_EQ(noise_scalar_1d(base + n * kCell), 0.25f * (T[n - 1] + T[n])) << n;
    for (int n = 1; n < 32; ++n)
        EXPECT_NEAR(noise_scalar_1d((n + 0.5) * kCell), (T[n - 1] + 6 * T[n] + T[n + 1]) / 16, 1e-6);
    EXPECT_NEAR(noise_scalar_1d(0.5 * kCell), 0.25 * (2.25 * T[0] - 0.5 * T[1] + 0.25 * T[2]), 1e-6);
    EXPECT_NEAR(noise_scalar_1d(1 - 0x1p-20), 0.25f * (T[31] + T[32]), 1e-4);
    EXPECT_TRUE(std::isnan(noise_scalar_1d(NAN)));

    std::mt19937 rng(1);
    std::uniform_real_distribution<double> cellPart(kCell, 1.0), firstCell(0.0, kCell);
    for (int n = 0; n < 2000; ++n) {
        const double x = std::ldexp(std::floor(std::ldexp(cellPart(rng), 16)), -16);
        const float v = noise_scalar_1d(x);
        ASSERT_LT(std::fabs(v), 0.5f) << x;
        ASSERT_EQ(noise_scalar_1d(x + 5), v);
        ASSERT_EQ(noise_scalar_1d(x - 9), v);
        ASSERT_LE(std::fabs(noise_scalar_1d(firstCell(rng))), 2.0f);
    }
}

TEST(ValueNoise, LatticePointsAndHalfCells)
{
    const double w[3] = {0.25, 1.5, 0.25};
    for (int a : {0, 1, 17, 31})
        for (int b : {0, 5, 31}) {
            const float avg2 = 0.25f * (L2(a - 1, b - 1) + L2(a, b - 1) + L2(a - 1, b) + L2(a, b));
            EXPECT_NEAR(noise_scalar_2d(a * kCell, b * kCell), avg2, 1e-7);
            EXPECT_NEAR(noise_vector_2d(a * kCell, b * kCell).z, avg2, 1e-7);
            double half2 = 0;
            for (int j = 0; j < 3; ++j)
                for (int i = 0; i < 3; ++i)
                    half2 += w[i] * w[j] * L2(a + i - 1, b + j - 1);
            EXPECT_NEAR(noise_scalar_2d((a + 0.5) * kCell, (b + 0.5) * kCell), 0.25 * half2, 1e-6);

            for (int c : {0, 9, 31}) {
                double sum = 0, half3 = 0;
                for (int k = 0; k < 2; ++k)
                    for (int j = 0; j < 2; ++j)
                        for (int i = 0; i < 2; ++i)
                            sum += L3(a - 1 + i, b - 1 + j, c - 1 + k);
                for (int k = 0; k < 3; ++k)
                    for (int j = 0; j < 3; ++j)
                        for (int i = 0; i < 3; ++i)
                            half3 += w[i] * w[j] * w[k] * L3(a + i - 1, b + j - 1, c + k - 1);
                EXPECT_NEAR(noise_scalar_3d(a * kCell, b * kCell, c * kCell), 0.125 * sum, 1e-6);
                EXPECT_NEAR(noise_scalar_3d((a + .5) * kCell, (b + .5) * kCell, (c + .5) * kCell),
                            0.125 * half3, 1e-6);
            }
        }
}

TEST(ValueNoise, PeriodicRangeLimitsAndTiling)
{
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    auto dyadic = [&] { return std::ldexp(std::floor(std::ldexp(unit(rng), 14)), -14); };
    for (int n = 0; n < 3000; ++n) {
        const double x = dyadic(), y = dyadic(), z = dyadic();
        const float v2 = noise_scalar_2d(x, y), v3 = noise_scalar_3d(x, y, z);
        ASSERT_LT(std::fabs(v2), 1.0f);
        ASSERT_LT(std::fabs(v3), 1.0f);
        for (int k : {1, -1, 37, -300}) {
            ASSERT_EQ(noise_scalar_2d(x + k, y), v2);
            ASSERT_EQ(noise_scalar_2d(x, y - k), v2);
            ASSERT_EQ(noise_scalar_3d(x + k, y, z), v3);
            ASSERT_EQ(noise_scalar_3d(x, y + k, z), v3);
            ASSERT_EQ(noise_scalar_3d(x, y, z - k), v3);
        }
        // Beyond +-1e9 (tested on the double) an axis acts as 0; 1e9 itself is whole.
        for (double far : {1e9, -1e9, 1e9 + 0.5, -1e9 - 0.5, 1e20})
            ASSERT_EQ(noise_scalar_3d(x, far, z), noise_scalar_3d(x, 0.0, z)) << far;
        ASSERT_EQ(noise_scalar_2d(2e9 + 0.5, y), noise_scalar_2d(0.0, y));
    }
    // The 3D fraction is taken in double, the 2D fraction after rounding to float.
    EXPECT_EQ(noise_scalar_3d(999999999.75, 0.3, 0.6), noise_scalar_3d(0.75, 0.3, 0.6));
    EXPECT_EQ(noise_scalar_2d(999999999.75, 0.3), noise_scalar_2d(0.0, 0.3));
    EXPECT_TRUE(std::isnan(noise_scalar_2d(0.5, NAN)));
    EXPECT_TRUE(std::isnan(noise_scalar_3d(0.5, 0.5, NAN)));

    // Continuous across cell borders and across the tile border 1 -> 0.
    const double e = 1e-7;
    for (double b : {0.0, 3 * kCell, 17 * kCell}) {
        EXPECT_NEAR(noise_scalar_2d(b - e, 0.4), noise_scalar_2d(b + e, 0.4), 1e-4);
        EXPECT_NEAR(noise_scalar_2d(0.4, b - e), noise_scalar_2d(0.4, b + e), 1e-4);
        EXPECT_NEAR(noise_scalar_3d(b - e, 0.4, 0.7), noise_scalar_3d(b + e, 0.4, 0.7), 1e-4);
        EXPECT_NEAR(noise_scalar_3d(0.2, 0.4, b - e), noise_scalar_3d(0.2, 0.4, b + e), 1e-4);
    }
}

TEST(ValueNoise, FourDimensional)
{
    float C;
    const uint32_t bitsC = 0x46A88052u;
    std::memcpy(&C, &bitsC, 4);
    auto fr = [](float a) { return a - std::trunc(a); };
    // Spatial weights 0 at (a, b, c) / 32: eight lattice points, each V = S over the fourth axis.
    auto expected = [&](int k, double ww, int a, int b, int c) {
        const float h0 = (T[k] + 1) * C, h1 = (T[k + 1] + 1) * C, h2 = (T[k + 2] + 1) * C;
        double sum = 0;
        for (int kk = 0; kk < 2; ++kk)
            for (int j = 0; j < 2; ++j)
                for (int i = 0; i < 2; ++i) {
                    const float g = L3(a - 1 + i, b - 1 + j, c - 1 + kk) + 2.0f;
                    const double f0 = fr(h0 * g), f1 = fr(h1 * g), f2 = fr(h2 * g);
                    sum += ww == 0 ? f0 + f1 : 0.25 * f0 + 1.5 * f1 + 0.25 * f2;
                }
        return 0.125 * sum - 1.0;
    };
    EXPECT_NEAR(noise_scalar_4d(4, 3 * kCell, 0, 31 * kCell, 0.5), expected(2, 0, 3, 0, 31), 2e-6);
    EXPECT_NEAR(noise_scalar_4d(4, 3 * kCell, 0, 31 * kCell, 0.625), expected(2, 0.5, 3, 0, 31), 2e-6);
    EXPECT_NEAR(noise_scalar_4d(60000, kCell, kCell, kCell, 0.75), expected(45000, 0, 1, 1, 1), 2e-6);
    EXPECT_NEAR(noise_scalar_4d(0, 0, 0, 0, 0.3), expected(0, 0, 0, 0, 0), 2e-6);

    std::mt19937 rng(3);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int n = 0; n < 1000; ++n) {
        const double x = unit(rng), y = unit(rng), z = unit(rng), w = 0.125 * std::floor(8 * unit(rng));
        const float v = noise_scalar_4d(100, x, y, z, w);
        ASSERT_TRUE(v >= -1.0f && v < 1.0f);
        ASSERT_EQ(noise_scalar_4d(100, x, y, z, w + 3), v);
        ASSERT_EQ(noise_scalar_4d(100, x, y, z, w - 1e10), noise_scalar_4d(100, x, y, z, 0.0));
        ASSERT_EQ(noise_scalar_4d(0, x, y, z, w), noise_scalar_4d(0, x, y, z, 0.9)) << "cells 0 ignores w";
        ASSERT_EQ(noise_scalar_4d(-7, x, y, z, w), noise_scalar_4d(0, x, y, z, w));
        ASSERT_EQ(noise_scalar_4d(100000, x, y, z, w), noise_scalar_4d(60000, x, y, z, w));
        const float top = noise_scalar_4d(INT32_MAX, x, y, z, 1 - 0x1p-40); // reads entries up to 60,002
        ASSERT_EQ(top, noise_scalar_4d(60000, x, y, z, 1 - 0x1p-40));
        ASSERT_TRUE(top >= -1.0f && top < 1.0f);
    }
    EXPECT_TRUE(std::isnan(noise_scalar_4d(10, 0.1, 0.2, 0.3, NAN)));
}

TEST(ValueNoise, VectorNoiseValueAndSlopes)
{
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> cell(0, 32), inner(0.2, 0.8);
    const double h = 2e-3 * kCell; // central differences stay inside one cell: exact for the quadratic
    for (int n = 0; n < 2000; ++n) {
        const double x = (std::floor(cell(rng)) + inner(rng)) * kCell;
        const double y = (std::floor(cell(rng)) + inner(rng)) * kCell;
        const miVector v = noise_vector_2d(x, y);
        // Same value as the 2D noise, which sees the coordinates rounded to float.
        ASSERT_NEAR(noise_vector_2d(float(x), float(y)).z, noise_scalar_2d(x, y), 1e-6);
        const double dx = (noise_vector_2d(x + h, y).z - noise_vector_2d(x - h, y).z) / (2 * h);
        const double dy = (noise_vector_2d(x, y + h).z - noise_vector_2d(x, y - h).z) / (2 * h);
        ASSERT_NEAR(16 * v.x, dx, 2e-3 * std::max(1.0, std::fabs(dx))) << x << "," << y;
        ASSERT_NEAR(16 * v.y, dy, 2e-3 * std::max(1.0, std::fabs(dy))) << x << "," << y;
    }
    for (double b : {0.0, kCell, 20 * kCell}) { // slopes are continuous across borders
        const miVector l = noise_vector_2d(b - 1e-9, 0.3), r = noise_vector_2d(b + 1e-9, 0.3);
        EXPECT_NEAR(l.x, r.x, 1e-5);
        EXPECT_NEAR(l.y, r.y, 1e-5);
        const miVector d = noise_vector_2d(0.3, b - 1e-9), u = noise_vector_2d(0.3, b + 1e-9);
        EXPECT_NEAR(d.x, u.x, 1e-5);
        EXPECT_NEAR(d.y, u.y, 1e-5);
    }
    const miVector nan = noise_vector_2d(NAN, 0.5);
    EXPECT_TRUE(std::isnan(nan.x) && std::isnan(nan.y) && std::isnan(nan.z));
}

TEST(ValueNoise, AllocatesNothing)
{
    const uint64_t before = mirt::mem_allocation_count();
    float acc = 0;
    miUint seed = 1;
    for (int n = 0; n < 1000; ++n) {
        const double x = n * 0.0123;
        acc += noise_scalar_1d(x) + noise_scalar_2d(x, -x) + noise_scalar_3d(x, 0.5, x) +
               noise_scalar_4d(n, x, x, x, x) + noise_vector_2d(x, x).x + float(noise_table_scalar(n)) +
               noise_table_vector(n).y + noise_frand(&seed) + float(noise_drand(&seed)) +
               noise_gradient_3d(float(x), 0.5f, 0.25f);
    }
    EXPECT_TRUE(std::isfinite(acc));
    EXPECT_EQ(mirt::mem_allocation_count(), before);
}

// ------------------------------------------------------------ gradient noise

TEST(GradientNoise, PermutationArray)
{
    const unsigned char rows[16][2] = {{0, 225},  {16, 5},   {32, 169},  {48, 248},  {64, 36},  {80, 170},
                                       {96, 162}, {112, 53}, {128, 18},  {144, 106}, {160, 26}, {176, 12},
                                       {192, 184}, {208, 236}, {224, 48}, {240, 137}};
    for (auto &r : rows)
        EXPECT_EQ(PermutationArray[r[0]], r[1]);
    EXPECT_EQ(PermutationArray[15], 252);
    EXPECT_EQ(PermutationArray[135], 179);
    EXPECT_EQ(PermutationArray[247], 0);
    EXPECT_EQ(PermutationArray[255], 52);
    std::vector<int> count(256, 0);
    for (int i = 0; i < 256; ++i)
        count[PermutationArray[i]]++;
    for (int v = 0; v < 256; ++v)
        EXPECT_EQ(count[v], 1) << v;
}

// The gradients the table must hold: the renderer's generator seeded with 1,
// two draws per entry.
std::vector<miVector> redrawGradients(int n)
{
    mi_srandom(1);
    std::vector<miVector> g(n);
    for (auto &v : g) {
        const float r1 = mi_random(), r2 = mi_random();
        const float z = 1 - 2 * r1, s = std::sqrt(1 - z * z);
        const float phi = float(double(r2) * 6.283185307179586);
        v = {std::cos(phi) * s, std::sin(phi) * s, z};
    }
    return g;
}

int hashCorner(int i, int j, int k)
{
    const unsigned char *P = PermutationArray;
    return P[(i + P[(j + P[k & 255]) & 255]) & 255];
}

TEST(GradientNoise, LifeCycleValuesAndPeriod)
{
    inFreshProcess([] {
        mirt::Context ctx;
        miState *state = ctx.begin_state(0);
        mirt::clear_messages();
        for (float x : {0.3f, -7.7f, 100.5f})
            EXPECT_EQ(noise_gradient_3d(x, 0.25f, 0.9f), 0.0f) << "before any init";
        const std::vector<mirt::Message> said = mirt::messages();
        ASSERT_EQ(said.size(), 1u) << "one warning, not one per call";
        EXPECT_EQ(said[0].level, mirt::Level::Warning);
        EXPECT_NE(said[0].text.find("call noise_gradient_init(state) once"), std::string::npos) << said[0].text;
        mirt::mem_clear_events();
        const uint64_t draws = mirt::random_draw_count();
        noise_gradient_init(state);
        EXPECT_EQ(mirt::random_draw_count() - draws, 131070u);
        const auto events = mirt::mem_events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].file, "SDK/druxNoise");
        EXPECT_EQ(events[0].line, 104);
        EXPECT_EQ(events[0].bytes, 786420);
        EXPECT_FALSE(events[0].release);

        // A second init neither rebuilds nor reseeds.
        const float before = noise_gradient_3d(1.3f, 2.6f, 0.45f);
        mi_srandom(77);
        const float a = mi_random();
        mi_srandom(77);
        noise_gradient_init(state);
        EXPECT_EQ(mi_random(), a);
        EXPECT_EQ(mirt::mem_events().size(), 1u);
        EXPECT_EQ(noise_gradient_3d(1.3f, 2.6f, 0.45f), before);
        EXPECT_EQ(mirt::mem_live_bytes("SDK/druxNoise"), 786420);

        // Halfway along one axis from a lattice point only the two corners on
        // that axis count: contributions 0.5 g0 and -0.5 g1 on that axis, blended
        // with fade 0.5 (the other blends have weight 0).  Exact in float.
        const std::vector<miVector> g = redrawGradients(256);
        auto half = [](float g0, float g1) { return 0.5f * g0 + (-0.5f * g1 - 0.5f * g0) * 0.5f; };
        for (int i : {0, 5, 255, -3})
            for (int j : {0, 77, -200})
                for (int k : {0, 1, 130}) {
                    const int h = hashCorner(i, j, k);
                    EXPECT_EQ(noise_gradient_3d(i + 0.5f, j, k), half(g[h].x, g[hashCorner(i + 1, j, k)].x));
                    EXPECT_EQ(noise_gradient_3d(i, j + 0.5f, k), half(g[h].y, g[hashCorner(i, j + 1, k)].y));
                    EXPECT_EQ(noise_gradient_3d(i, j, k + 0.5f), half(g[h].z, g[hashCorner(i, j, k + 1)].z));
                    EXPECT_EQ(noise_gradient_3d(i, j, k), 0.0f);
                    // The slope at a lattice point is that corner's unit gradient.
                    const float d = 0x1p-12f;
                    const float sx = (noise_gradient_3d(i + d, j, k) - noise_gradient_3d(i - d, j, k)) / (2 * d);
                    const float sy = (noise_gradient_3d(i, j + d, k) - noise_gradient_3d(i, j - d, k)) / (2 * d);
                    const float sz = (noise_gradient_3d(i, j, k + d) - noise_gradient_3d(i, j, k - d)) / (2 * d);
                    if (std::abs(i) < 8 && std::abs(j) < 8) {
                        EXPECT_NEAR(sx, g[h].x, 2e-3);
                        EXPECT_NEAR(sy, g[h].y, 2e-3);
                        EXPECT_NEAR(sz, g[h].z, 2e-3);
                        EXPECT_NEAR(std::sqrt(sx * sx + sy * sy + sz * sz), 1.0f, 3e-3);
                    }
                }

        std::mt19937 rng(5);
        std::uniform_real_distribution<float> unit(-4, 4);
        const uint64_t allocations = mirt::mem_allocation_count();
        for (int n = 0; n < 2000; ++n) {
            const float x = std::ldexp(std::floor(std::ldexp(unit(rng), 12)), -12);
            const float y = std::ldexp(std::floor(std::ldexp(unit(rng), 12)), -12), z = unit(rng);
            const float v = noise_gradient_3d(x, y, z);
            ASSERT_EQ(noise_gradient_3d(x + 256, y, z), v);
            ASSERT_EQ(noise_gradient_3d(x, y - 512, z), v);
            ASSERT_EQ(noise_gradient_3d(x, y, 2e9f), noise_gradient_3d(x, y, 0));
            ASSERT_EQ(noise_gradient_3d(-1e10f, y, z), noise_gradient_3d(0, y, z));
            ASSERT_EQ(noise_gradient_3d(x, 300000064.0f, z), noise_gradient_3d(x, 64, z)) << "inside the range";
            ASSERT_EQ(noise_gradient_3d(std::round(x), std::round(y), std::round(z)), 0.0f);
        }
        EXPECT_EQ(mirt::mem_allocation_count(), allocations);
        EXPECT_TRUE(std::isnan(noise_gradient_3d(NAN, 0, 0)));
        ctx.end_state(state);
    });
}

TEST(GradientNoise, ConcurrentInitAndEvaluation)
{
    inFreshProcess([] {
        constexpr int kThreads = 4, kIters = 3000, kPoints = 64;
        mirt::Context ctx;
        std::vector<miState *> states;
        for (int t = 0; t < kThreads; ++t)
            states.push_back(ctx.begin_state(t));
        float px[kPoints], py[kPoints], pz[kPoints];
        for (int p = 0; p < kPoints; ++p) {
            px[p] = 0.37f + 1.13f * p;
            py[p] = 2.71f - 3.61f * p;
            pz[p] = 2.19f * p - 1.05f;
        }
        // Thread 0 builds the table at once while the others, started right
        // after it, keep reading.  (No start barrier: its atomics would give
        // the race detector ordering that hides an early publication.)
        auto initAt = [](int t) { return t == 0 ? 0 : 500 * t; };
        const uint64_t draws = mirt::random_draw_count();
        std::vector<std::vector<float>> seen(kThreads, std::vector<float>(kIters));
        std::vector<std::vector<float>> value(kThreads, std::vector<float>(kIters));
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int n = 0; n < kIters; ++n) {
                    if (n == initAt(t))
                        noise_gradient_init(states[t]);
                    seen[t][n] = noise_gradient_3d(px[n % kPoints], py[n % kPoints], pz[n % kPoints]);
                    value[t][n] = noise_scalar_3d(px[n % kPoints], py[n % kPoints], pz[n % kPoints]);
                }
            });
        for (auto &th : threads)
            th.join();
        EXPECT_EQ(mirt::random_draw_count() - draws, 131070u);
        EXPECT_EQ(mirt::mem_live_bytes("SDK/druxNoise"), 786420);
        for (int t = 0; t < kThreads; ++t)
            for (int n = 0; n < kIters; ++n) {
                const int p = n % kPoints;
                const float expect = noise_gradient_3d(px[p], py[p], pz[p]);
                ASSERT_NE(expect, 0.0f);
                // Before this thread's own init: no table yet or the complete one.
                if (n < initAt(t))
                    ASSERT_TRUE(seen[t][n] == 0.0f || seen[t][n] == expect) << t << " " << n;
                else
                    ASSERT_EQ(seen[t][n], expect) << t << " " << n;
                ASSERT_EQ(value[t][n], noise_scalar_3d(px[p], py[p], pz[p]));
            }
        for (miState *s : states)
            ctx.end_state(s);
    });
}


// ------------------------------------------------------------ reference evaluation
//
// The noises evaluated step by step as plainly as possible: one scalar
// single-precision operation after another, in the order of the blend
// formula.  The library's vector code must give the same bits for every
// input: the rounding of each step is part of the results.

#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")
#endif

namespace plain {

float S(float p, float q, float r, float f) { return p + q + f * ((p - 2.0f * q + r) * f - 2.0f * (p - q)); }

// x - floor(x) in double; beyond +-1e9 the coordinate counts as 0.
double fraction(double x)
{
    if (!(std::fabs(x) <= 1e9))
        return 0.0;
    int n = static_cast<int>(x);
    n -= x < static_cast<double>(n);
    return x - static_cast<double>(n);
}

struct Axis {
    int i[3]; // the three wrapped lattice cells
    float w;  // weight within the cell
};

// The cells around t = 32 * fraction.
Axis cellsAt(float t)
{
    const int n = static_cast<int>(t);
    return {{(n - 1) & 31, n & 31, (n + 1) & 31}, t - static_cast<float>(n)};
}

Axis axis(double x) { return cellsAt(static_cast<float>(32.0 * fraction(x))); }

// Rows along x, then y, then z; `value` gives a lattice point's value.
// The 2D noise takes the fraction in single precision.
Axis axisSingle(double x)
{
    float f = 0.0f;
    if (std::fabs(x) <= 1e9) {
        const float xf = static_cast<float>(x);
        int n = static_cast<int>(xf);
        n -= xf < static_cast<float>(n);
        f = xf - static_cast<float>(n);
    }
    return cellsAt(32.0f * f);
}

float noise2(double x, double y)
{
    if (std::isnan(x) || std::isnan(y))
        return NAN;
    const Axis a = axisSingle(x), b = axisSingle(y);
    float h[3];
    for (int j = 0; j < 3; ++j)
        h[j] = S(T[a.i[0] + 32 * b.i[j]], T[a.i[1] + 32 * b.i[j]], T[a.i[2] + 32 * b.i[j]], a.w);
    return 0.25f * S(h[0], h[1], h[2], b.w);
}

template <class V> float blend3(const Axis &a, const Axis &b, const Axis &c, V value)
{
    float g[3];
    for (int k = 0; k < 3; ++k) {
        float h[3];
        for (int j = 0; j < 3; ++j) {
            const int row = 32 * b.i[j] + 1024 * c.i[k];
            h[j] = S(value(row + a.i[0]), value(row + a.i[1]), value(row + a.i[2]), a.w);
        }
        g[k] = S(h[0], h[1], h[2], b.w);
    }
    return S(g[0], g[1], g[2], c.w);
}

float noise3(double x, double y, double z)
{
    if (std::isnan(x) || std::isnan(y) || std::isnan(z))
        return NAN;
    return 0.125f * blend3(axis(x), axis(y), axis(z), [](int p) { return T[p]; });
}

float noise4(int cells, double x, double y, double z, double w)
{
    if (std::isnan(x) || std::isnan(y) || std::isnan(z) || std::isnan(w))
        return NAN;
    const int n = cells < 0 ? 0 : cells > 60000 ? 60000 : cells;
    const float s = static_cast<float>(n * fraction(w));
    const int k = static_cast<int>(s);
    const float ww = s - static_cast<float>(k);
    const float C = 21568.16f;
    const float h0 = (T[k] + 1.0f) * C, h1 = (T[k + 1] + 1.0f) * C, h2 = (T[k + 2] + 1.0f) * C;
    auto value = [&](int p) {
        const float g = T[p] + 2.0f;
        const float a0 = h0 * g, a1 = h1 * g, a2 = h2 * g;
        return S(a0 - std::trunc(a0), a1 - std::trunc(a1), a2 - std::trunc(a2), ww);
    };
    return 0.125f * blend3(axis(x), axis(y), axis(z), value) - 1.0f;
}

float lerp(float s, float m, float n) { return m + (n - m) * s; }

float gradient3(const std::vector<miVector> &G, float x, float y, float z)
{
    if (std::isnan(x) || std::isnan(y) || std::isnan(z))
        return NAN;
    int i[3];
    float f0[3], f1[3], s[3];
    const float q[3] = {x, y, z};
    for (int a = 0; a < 3; ++a) {
        if (!(std::fabs(q[a]) <= 1e9f)) {
            i[a] = 0, f0[a] = 0.0f, f1[a] = -1.0f, s[a] = 0.0f;
            continue;
        }
        i[a] = static_cast<int>(q[a]);
        i[a] -= q[a] < static_cast<float>(i[a]);
        f0[a] = q[a] - static_cast<float>(i[a]);
        f1[a] = f0[a] - 1.0f;
        s[a] = f0[a] * f0[a] * (3.0f - 2.0f * f0[a]);
    }
    const unsigned char *P = PermutationArray;
    auto corner = [&](int a, int b, int e) {
        const int h = P[(i[0] + a + P[(i[1] + b + P[(i[2] + e) & 255]) & 255]) & 255];
        const float ox = a ? f1[0] : f0[0], oy = b ? f1[1] : f0[1], oz = e ? f1[2] : f0[2];
        return G[h].x * ox + G[h].y * oy + G[h].z * oz;
    };
    const float y0 = lerp(s[1], lerp(s[0], corner(0, 0, 0), corner(1, 0, 0)), lerp(s[0], corner(0, 1, 0), corner(1, 1, 0)));
    const float y1 = lerp(s[1], lerp(s[0], corner(0, 0, 1), corner(1, 0, 1)), lerp(s[0], corner(0, 1, 1), corner(1, 1, 1)));
    return lerp(s[2], y0, y1);
}

} // namespace plain

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif

// Coordinates that reach every branch of the set-up: cell borders and whole
// numbers from both sides, the wrap-around cells 0 and 31, tiny negatives
// whose fraction rounds to 1, the +-1e9 limit and beyond, non-numbers.
struct CoordinateSource {
    std::mt19937_64 rng{20240611};
    std::uniform_real_distribution<double> unit{0.0, 1.0};
    double operator()()
    {
        static const double special[] = {0.0, -0.0, 1.0, -1.0, 0.5, -0.5, 1e9, -1e9, 1e9 + 0.5, -1e9 - 0.5,
                                         999999999.75, -999999999.75, 3e9, -1e300, HUGE_VAL, -HUGE_VAL, NAN,
                                         1e-310, -1e-310, -1e-20, 1 - 0x1p-53, -(1 - 0x1p-53), 2147483647.5};
        const double whole = static_cast<double>(static_cast<int>(rng() % 2001) - 1000);
        switch (rng() % 12) {
        case 0:
            return special[rng() % (sizeof special / sizeof special[0])];
        case 1: // a cell border, the edge cells included
            return whole + static_cast<double>(rng() % 33) / 32.0;
        case 2: // next to a cell border
            return std::nextafter(whole + static_cast<double>(rng() % 33) / 32.0, rng() % 2 ? 1e300 : -1e300);
        case 3: // within a cell width of the tile edge
            return whole + (rng() % 2 ? 1.0 : 0.0) + (unit(rng) - 0.5) / 16.0;
        case 4:
            return (unit(rng) * 2 - 1) * 1.5e9;
        case 5:
            return (unit(rng) * 2 - 1) * 1e-6;
        default:
            return (unit(rng) * 2 - 1) * (rng() % 2 ? 4.0 : 3000.0);
        }
    }
};

bool sameBits(float a, float b)
{
    uint32_t x, y;
    std::memcpy(&x, &a, 4);
    std::memcpy(&y, &b, 4);
    return x == y || (std::isnan(a) && std::isnan(b));
}

// Counts and reports a call whose result differs in any bit from the plain
// evaluation's: `call` up to its opening parenthesis, then its coordinates.
void expectSameBits(float got, float want, int &mismatches, const std::string &call, std::initializer_list<double> xyz)
{
    if (sameBits(got, want))
        return;
    std::ostringstream text;
    text << std::hexfloat << call;
    for (const double &c : xyz)
        text << (&c == xyz.begin() ? "" : ", ") << c;
    ADD_FAILURE() << std::hexfloat << text.str() << ") = " << got << ", expected " << want;
    ++mismatches;
}

// The noise functions called are those of the variant under test (or of the
// library itself in the default build): otherwise the comparisons below
// would test another variant than the one named.
TEST(NoiseBits, FunctionsComeFromTheVariantUnderTest)
{
    const std::string want = druxNoiseTestVariant ? druxNoiseTestVariant() : "libDruxShaderSDK.so";
    const std::pair<const char *, void *> fns[] = {
        {"noise_scalar_2d", reinterpret_cast<void *>(&noise_scalar_2d)},
        {"noise_scalar_3d", reinterpret_cast<void *>(&noise_scalar_3d)},
        {"noise_scalar_4d", reinterpret_cast<void *>(&noise_scalar_4d)},
        {"noise_gradient_3d", reinterpret_cast<void *>(&noise_gradient_3d)},
        {"noise_gradient_init", reinterpret_cast<void *>(&noise_gradient_init)}};
    for (const auto &f : fns) {
        Dl_info info{};
        ASSERT_NE(dladdr(f.second, &info), 0) << f.first;
        const std::string file = info.dli_fname ? info.dli_fname : "";
        // The library is loaded through its versioned name (libDruxShaderSDK.so.1).
        EXPECT_EQ(file.substr(file.rfind('/') + 1).substr(0, want.size()), want) << f.first;
    }
}

TEST(NoiseBits, ValueNoiseMatchesThePlainEvaluation)
{
    CoordinateSource coord;
    int mismatches = 0;
    for (int n = 0; n < 150000 && mismatches < 10; ++n) {
        const double x = coord(), y = coord(), z = coord(), w = coord();
        expectSameBits(noise_scalar_2d(x, y), plain::noise2(x, y), mismatches, "noise_scalar_2d(", {x, y});
        expectSameBits(noise_scalar_3d(x, y, z), plain::noise3(x, y, z), mismatches, "noise_scalar_3d(", {x, y, z});
        const int cells = static_cast<int>(coord.rng() % 70000) - 5000;
        expectSameBits(noise_scalar_4d(cells, x, y, z, w), plain::noise4(cells, x, y, z, w), mismatches,
                       "noise_scalar_4d(" + std::to_string(cells) + ", ", {x, y, z, w});
    }
    // Whole numbers and signed zeros on every axis.
    const double whole[] = {-0.0, 0.0, 1.0, -1.0, -3.0, 31.0, -1e9, 1e9, 3e9, 0.5, -0.5};
    for (double x : whole)
        for (double y : whole)
            for (double z : whole)
                EXPECT_TRUE(sameBits(noise_scalar_3d(x, y, z), plain::noise3(x, y, z))) << x << " " << y << " " << z;
    for (double x : whole)
        for (double y : whole)
            EXPECT_TRUE(sameBits(noise_scalar_2d(x, y), plain::noise2(x, y))) << x << " " << y;
    // The whole lattice: every cell along each axis at weights 0 and 1/2.
    for (int k = 0; k < 32; ++k)
        for (int j = 0; j < 32; ++j)
            for (int i = 0; i < 32; ++i) {
                const double x = (i + 0.5 * (k & 1)) / 32, y = (j + 0.5 * (i & 1)) / 32 - 3, z = k / 32.0 + 7;
                ASSERT_TRUE(sameBits(noise_scalar_3d(x, y, z), plain::noise3(x, y, z))) << x << " " << y << " " << z;
            }
}

TEST(NoiseBits, GradientNoiseMatchesThePlainEvaluation)
{
    inFreshProcess([] {
        mirt::Context ctx;
        miState *state = ctx.begin_state(0);
        noise_gradient_init(state);
        const std::vector<miVector> G = redrawGradients(256);
        CoordinateSource coord;
        int mismatches = 0;
        for (int n = 0; n < 150000 && mismatches < 10; ++n) {
            const float x = static_cast<float>(coord() * (n % 3 ? 1 : 97)), y = static_cast<float>(coord()),
                        z = static_cast<float>(coord());
            expectSameBits(noise_gradient_3d(x, y, z), plain::gradient3(G, x, y, z), mismatches, "noise_gradient_3d(",
                           {x, y, z});
        }
        // Lattice points, where every offset of a corner is zero: the signs of
        // those zeros (-0 in, offsets -0) must come out as in the plain steps.
        const float whole[] = {-0.0f, 0.0f, 1.0f, -1.0f, -3.0f, 255.0f, -256.0f, 0.5f, -0.5f, 3e9f, -3e9f};
        for (float x : whole)
            for (float y : whole)
                for (float z : whole) {
                    const float v = noise_gradient_3d(x, y, z), e = plain::gradient3(G, x, y, z);
                    EXPECT_TRUE(sameBits(v, e)) << std::hexfloat << x << " " << y << " " << z << ": " << v << " vs " << e;
                }
        ctx.end_state(state);
    });
}

} // namespace
