// Ramp lookups, ns per call, for 2, 10 and 50 keys and each kind.
#include "DruxShaderSDK.h"

#include <benchmark/benchmark.h>

namespace {

struct Param {
    int first = 0, count = 0;
    RampScalarEntry e[RAMP_MAX_KEYS];
    RampColorEntry c[RAMP_MAX_KEYS];
};

// Keys in a scrambled order over [0, 1], all of one kind.
Ramp makeRamp(int keys, int kind, bool colour)
{
    static Param p;
    p.count = keys;
    for (int k = 0; k < keys; ++k) {
        const float pos = float((k * 37) % keys) / float(keys > 1 ? keys - 1 : 1);
        p.e[k] = RampScalarEntry{pos, float(k % 7) * 0.25f, kind};
        p.c[k] = RampColorEntry{pos, {float(k % 3), float(k % 5) * 0.2f, 0.5f, 1.0f}, kind};
    }
    Ramp r;
    if (colour) {
        // Colour entries laid out as their own array parameter.
        struct {
            int first, count;
            RampColorEntry c[RAMP_MAX_KEYS];
        } cp;
        cp.first = 0;
        cp.count = keys;
        for (int k = 0; k < keys; ++k)
            cp.c[k] = p.c[k];
        ramp_constructor(&r, nullptr, &cp, 1);
    } else {
        ramp_constructor(&r, nullptr, &p, 0);
    }
    return r;
}

void BM_ramp_float(benchmark::State &st)
{
    const Ramp r = makeRamp(int(st.range(0)), int(st.range(1)), false);
    float x = 0.0f;
    for (auto _ : st) {
        benchmark::DoNotOptimize(ramp_get_interp_float(&r, x));
        x += 0.0137f;
        if (x > 1.0f)
            x -= 1.0f;
    }
}
BENCHMARK(BM_ramp_float)->ArgNames({"keys", "kind"})->ArgsProduct({{2, 10, 50}, {RAMP_LINEAR, RAMP_SMOOTH, RAMP_SPLINE}});

void BM_ramp_color(benchmark::State &st)
{
    const Ramp r = makeRamp(int(st.range(0)), int(st.range(1)), true);
    miColor out{0, 0, 0, 1};
    float x = 0.0f;
    for (auto _ : st) {
        ramp_get_interp_color(&r, &out, x);
        benchmark::DoNotOptimize(out);
        x += 0.0137f;
        if (x > 1.0f)
            x -= 1.0f;
    }
}
BENCHMARK(BM_ramp_color)->ArgNames({"keys", "kind"})->ArgsProduct({{2, 10, 50}, {RAMP_LINEAR, RAMP_SPLINE}});

} // namespace
