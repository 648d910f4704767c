// Cost of the light loop's pass bookkeeping per entry and light sample, and
// proof that a light sample allocates nothing.
//
// Counters:
//   per_entry      time per entry per call (shown in seconds; 1n = 1 ns)
//   allocs/sample  C++ heap allocations (global operator new) plus renderer
//                  allocations (mirt::mem_allocation_count) per iteration
//
// traceShadow includes one mi_trace_shadow of the runtime (into an empty
// scene); BM_TraceShadowRendererOnly measures that call alone, so the
// bookkeeping is the difference.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "count_new.h"

namespace {

constexpr int kTraceDepth = 2;

/* A render with one plain state, n entries of mixed kinds, and a light
   instance whose contribution mask selects every other entry. */
struct Fixture {
    mirt::Context ctx;
    miState *st = nullptr;
    std::vector<FrameBufferInfo> entries;
    std::vector<PassSlot> slots;
    miTag light = 0;

    explicit Fixture(int n)
    {
        ctx.options().trace_depth = kTraceDepth;
        st = ctx.begin_state();
        entries.assign(n, FrameBufferInfo{});
        slots.assign(static_cast<size_t>(n) * (kTraceDepth + 2), PassSlot{});
        for (int i = 0; i < n; ++i) {
            FrameBufferInfo &e = entries[i];
            e.slots = &slots[static_cast<size_t>(i) * (kTraceDepth + 2)];
            switch (i % 4) {
            case 0: e.flags = FBINFO_SHADOWED; break;
            case 1: e.flags = 0; break;
            case 2: e.flags = FBINFO_SHADOWED | FBINFO_SHADOW_PASS; break;
            default: e.flags = FBINFO_SHADOWED | FBINFO_ALL_OCCLUDERS; break;
            }
        }
        static const char digits[] = "5555555555555555";
        const miTag text = mirt::db_create_string(digits);
        const miTag data = mirt::db_create_data(&text, sizeof text);
        light = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
        static_cast<miInstance *>(mirt::db_data(light))->param = data;
        st->light_instance = light;
    }
    ~Fixture() { ctx.end_state(st); }
    miUint n() const { return static_cast<miUint>(entries.size()); }
    FrameBufferInfo *e() { return entries.data(); }
};

struct AllocProbe {
    uint64_t news = heapAllocationCount();
    uint64_t renderer = mirt::mem_allocation_count();
    void report(benchmark::State &state) const
    {
        const double total = static_cast<double>(heapAllocationCount() - news) +
                             static_cast<double>(mirt::mem_allocation_count() - renderer);
        state.counters["allocs/sample"] =
            benchmark::Counter(total / static_cast<double>(state.iterations() ? state.iterations() : 1));
    }
};

void perEntry(benchmark::State &state, miUint n)
{
    state.counters["per_entry"] = benchmark::Counter(static_cast<double>(state.iterations()) * n,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_SampleLightBeginEnd(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const int mode = 1;
    const miBoolean useScale = miTRUE;
    const float scale = 0.5f;
    AllocProbe probe;
    for (auto _ : state) {
        sampleLightBegin(f.n(), f.e());
        sampleLightEnd(f.st, f.n(), f.e(), 4, &mode, &useScale, &scale);
        benchmark::DoNotOptimize(f.slots.data());
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_SetLightIrradiance(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const miColor c{0.8f, 0.6f, 0.4f, 1};
    for (FrameBufferInfo &e : f.entries)
        e.flags |= FBINFO_LIGHT_CONTRIBUTES;
    AllocProbe probe;
    for (auto _ : state) {
        setLightIrradiance(f.n(), f.e(), &c);
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_TraceShadow(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const bool shared = state.range(1) != 0;
    const miColor light{0.8f, 0.6f, 0.4f, 1};
    const miColor dark{0.1f, 0.1f, 0.1f, 1};
    for (FrameBufferInfo &e : f.entries)
        e.flags |= FBINFO_LIGHT_CONTRIBUTES;
    miColor filter;
    AllocProbe probe;
    for (auto _ : state) {
        benchmark::DoNotOptimize(traceShadow(f.n(), f.e(), &filter, &light, &dark, shared, f.st));
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_TraceShadowRendererOnly(benchmark::State &state)
{
    Fixture f(1);
    miColor filter;
    for (auto _ : state) {
        filter = WHITE;
        benchmark::DoNotOptimize(mi_trace_shadow(&filter, f.st));
    }
}

void BM_TraceShadowAccumulate4(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const miColor light{0.8f, 0.6f, 0.4f, 1};
    const miColor dark{0.1f, 0.1f, 0.1f, 1};
    for (FrameBufferInfo &e : f.entries)
        e.flags |= FBINFO_LIGHT_CONTRIBUTES;
    miColor filter;
    AllocProbe probe;
    for (auto _ : state) {
        traceShadowAccumulateBegin(f.n(), f.e());
        for (int k = 0; k < 4; ++k)
            benchmark::DoNotOptimize(traceShadowAccumulate(f.n(), f.e(), &filter, f.st));
        traceShadowAccumulateEnd(f.n(), f.e(), 4, &light, &dark);
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_OccluderTransparency(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    for (FrameBufferInfo &e : f.entries)
        e.flags |= FBINFO_LIGHT_CONTRIBUTES;
    f.st->instance = f.light; /* an occluder with the same mask */
    const miColor tr{0.999f, 0.999f, 0.999f, 1};
    AllocProbe probe;
    for (auto _ : state) {
        benchmark::DoNotOptimize(applyShadowTransparencyToFrameBuffers(f.n(), f.e(), &tr, miFALSE, f.st));
        for (FrameBufferInfo &e : f.entries)
            e.shadow = WHITE;
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_SetupLightContributions(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    AllocProbe probe;
    for (auto _ : state) {
        setupLightContributions(f.n(), f.e(), f.st);
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

/* One whole light sample as a material and a pass-aware light run it:
   begin, set-up, shadow, the material's per-pass add, end. */
void BM_WholeLightSample(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const miColor light{0.8f, 0.6f, 0.4f, 1};
    const miColor dark{0.1f, 0.1f, 0.1f, 1};
    const int mode = 1;
    const miBoolean useScale = miFALSE;
    const float scale = 1;
    miColor filter;
    AllocProbe probe;
    for (auto _ : state) {
        sampleLightBegin(f.n(), f.e());
        setupLightContributions(f.n(), f.e(), f.st);
        traceShadow(f.n(), f.e(), &filter, &light, &dark, miFALSE, f.st);
        for (FrameBufferInfo &e : f.entries) {
            e.lightSum.r += e.light.r;
            e.lightSum.g += e.light.g;
            e.lightSum.b += e.light.b;
            e.lightSum.a += e.light.a;
        }
        sampleLightEnd(f.st, f.n(), f.e(), 1, &mode, &useScale, &scale);
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

void BM_TracePassInitAdd(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    const miColor w{0.5f, 0.5f, 0.5f, 1};
    AllocProbe probe;
    for (auto _ : state) {
        tracePassInit(f.n(), f.e(), f.st);
        tracePassAdd(f.n(), f.e(), f.st, miFALSE, w);
        benchmark::ClobberMemory();
    }
    probe.report(state);
    perEntry(state, f.n());
}

} // namespace

BENCHMARK(BM_SampleLightBeginEnd)->Arg(8)->Arg(32);
BENCHMARK(BM_SetLightIrradiance)->Arg(8)->Arg(32);
BENCHMARK(BM_TraceShadow)->Args({8, 0})->Args({32, 0})->Args({8, 1})->Args({32, 1});
BENCHMARK(BM_TraceShadowRendererOnly);
BENCHMARK(BM_TraceShadowAccumulate4)->Arg(8)->Arg(32);
BENCHMARK(BM_OccluderTransparency)->Arg(8)->Arg(32);
BENCHMARK(BM_SetupLightContributions)->Arg(8)->Arg(32);
BENCHMARK(BM_WholeLightSample)->Arg(8)->Arg(32);
BENCHMARK(BM_TracePassInitAdd)->Arg(8)->Arg(32);
