// Scatter cache: one lookup against a brute-force gather over every point,
// at 10k and 100k points, and thread scaling of warm lookups and of cold
// (scan + lazy evaluation) rendering.
//
//   ninja -C build/<dir> scatter_bench && build/<dir>/bench/scatter_bench
#include "DruxShaderSDK.h"
#include "geometry.h"
#include "runtime.h"
#include "sss_params.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Point {
    miVector P;
    miColor c;
};

std::mutex gMu;
std::vector<Point> *gCapture = nullptr; // points seen by the light while evaluating

miBoolean benchLight(void *result, miState *state, void *)
{
    if (auto *b = static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr)))
        b->lightData.addConstant = 1, b->lightData.addLambert = 0;
    // a colour that varies over the plane, so that averages are not trivial
    const miColor c{0.5f + 0.5f * std::sin(state->org.x), 0.5f + 0.5f * std::cos(state->org.y), 0.25f, 1};
    if (gCapture) {
        std::lock_guard<std::mutex> lk(gMu);
        gCapture->push_back({state->org, c});
    }
    *static_cast<miColor *>(result) = c;
    return miTRUE;
}

// A plane holding about n points at radius 1 and `density` points per disc.
struct Scene {
    explicit Scene(int npoints, int threads = 2, int density = 32)
    {
        ctx = std::make_unique<mirt::Context>(4, 4);
        size = static_cast<float>(std::sqrt(npoints * 3.141592653589793 / density));
        tags = mirt::build_instance(mirt::make_plane(size, size, 16, 16), {});
        inst = tags.instance;
        ctx->add_point_light({0, 0, 100}, mirt::make_function(miSHADER_LIGHT, benchLight, nullptr, 0, 16, false, "l"));
        p.scale = {1, 1, 1, 1}, p.radius = 1, p.samples = density, p.falloff = 1, p.maxDepth = 4;
        p.diffuse = 1, p.color = {1, 1, 1, 1}, p.irradianceTint = {1, 1, 1, 1};
        for (int t = 0; t < threads; ++t) {
            miState *s = ctx->begin_state(t);
            ctx->begin_sample(s, 0, 0);
            s->qmc_offset = 0;
            BaseShaderState init{};
            mi_shaderstate_set(s, KELU_BASE_STATE_KEY, &init, sizeof init, 2);
            s->shader = nullptr; // parameters read in place
            s->org = {0, 0, 10};
            s->instance = inst;
            states.push_back(s);
        }
    }
    ~Scene()
    {
        destroy_scatter(nullptr, &head);
        for (miState *s : states)
            ctx->end_state(s);
        ctx.reset();
        mirt::delete_instance(tags);
    }
    miColor lookup(miState *s, float x, float y)
    {
        s->point = {x, y, 0};
        miColor r;
        scatterWith(&r, &p, s, &head);
        return r;
    }
    // Evaluate every cell with lookups on a grid one radius apart.
    void warm()
    {
        for (float y = -size / 2; y <= size / 2 + 1; y += 1)
            for (float x = -size / 2; x <= size / 2 + 1; x += 1)
                lookup(states[0], x, y);
    }

    std::unique_ptr<mirt::Context> ctx;
    std::vector<miState *> states;
    mirt::GeometryTags tags;
    miTag inst = 0;
    float size = 0;
    SssParams p{};
    ScatterCache *head = nullptr;
};

// Warm scenes shared by the lookup benchmarks, with their captured points.
struct Warm {
    std::unique_ptr<Scene> scene;
    std::vector<Point> points;
};
Warm &warmScene(int n)
{
    static std::map<int, Warm> scenes;
    static std::mutex mu;
    std::lock_guard<std::mutex> lk(mu);
    Warm &w = scenes[n];
    if (!w.scene) {
        w.scene = std::make_unique<Scene>(n);
        gCapture = &w.points;
        w.scene->warm();
        gCapture = nullptr;
    }
    return w;
}

void BM_Lookup(benchmark::State &state)
{
    Warm &w = warmScene(static_cast<int>(state.range(0)));
    Scene &sc = *w.scene;
    miState *s = sc.states[state.thread_index() % sc.states.size()];
    std::mt19937 rng(12345 + state.thread_index());
    std::uniform_real_distribution<float> u(-sc.size / 2, sc.size / 2);
    for (auto _ : state)
        benchmark::DoNotOptimize(sc.lookup(s, u(rng), u(rng)));
    state.counters["points"] = benchmark::Counter(static_cast<double>(w.points.size()), benchmark::Counter::kAvgThreads);
    state.SetItemsProcessed(state.iterations());
}

// The same falloff-weighted average, testing every point.
void BM_BruteForce(benchmark::State &state)
{
    Warm &w = warmScene(static_cast<int>(state.range(0)));
    const std::vector<Point> &pts = w.points;
    std::mt19937 rng(12345);
    std::uniform_real_distribution<float> u(-w.scene->size / 2, w.scene->size / 2);
    const float r = 1;
    for (auto _ : state) {
        const miVector q{u(rng), u(rng), 0};
        float sum = 0;
        miColor acc{0, 0, 0, 0};
        for (const Point &pt : pts) {
            const float dx = pt.P.x - q.x, dy = pt.P.y - q.y, dz = pt.P.z - q.z;
            const float d2 = dx * dx + dy * dy + dz * dz;
            if (d2 > r * r)
                continue;
            const float wgt = 1 - std::sqrt(d2) / r;
            if (wgt > 1e-5f) {
                acc.r += wgt * pt.c.r, acc.g += wgt * pt.c.g, acc.b += wgt * pt.c.b;
                sum += wgt;
            }
        }
        benchmark::DoNotOptimize(acc);
        benchmark::DoNotOptimize(sum);
    }
    state.counters["points"] = static_cast<double>(pts.size());
    state.SetItemsProcessed(state.iterations());
}

// Cold cache: scan and lazy evaluation of a whole plane of n points, swept by
// `threads` threads (rows interleaved); each iteration starts from scratch.
// Arguments: points, threads, cache size (0: full grid), points per disc.
void BM_ColdRender(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    const int threads = static_cast<int>(state.range(1));
    const int slots = static_cast<int>(state.range(2));
    const int density = static_cast<int>(state.range(3));
    for (auto _ : state) {
        state.PauseTiming();
        auto owned = std::make_unique<Scene>(n, threads, density);
        Scene &sc = *owned;
        sc.p.cacheSize = slots;
        state.ResumeTiming();
        std::vector<std::thread> pool;
        const int rows = static_cast<int>(sc.size) + 1;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                for (int row = t; row < rows; row += threads)
                    for (float x = -sc.size / 2; x <= sc.size / 2; x += 0.5f)
                        benchmark::DoNotOptimize(sc.lookup(sc.states[t], x, row - sc.size / 2));
            });
        for (auto &th : pool)
            th.join();
        state.PauseTiming();
        owned.reset();
        state.ResumeTiming();
    }
}

BENCHMARK(BM_Lookup)->Arg(10000)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_BruteForce)->Arg(10000)->Arg(100000);
BENCHMARK(BM_ColdRender)
    ->Args({20000, 1, 0, 32})
    ->Args({20000, 2, 0, 32})
    ->Args({20000, 1, 0, 512})
    ->Args({20000, 2, 0, 512})
    ->Args({20000, 1, 64, 32})
    ->Args({20000, 2, 64, 32})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
