// Value and gradient noise, ns per call (calls into the shared library).
//
// Inputs come from a table of 1,024 points built before the timed loop: a
// walk with irregular steps (successive calls hit different cells, nearby
// ones, as neighbouring shading samples do) or, for the *_scattered runs,
// independent random points all over the tiles.  The loop reads the next
// point and calls; the calls are independent of each other, so the time per
// call is a throughput.  (Stepping the coordinates inside the timed loop
// would add the steps, and the spills of the loop-carried coordinates around
// every call, to each call's time: the *_walk runs keep that older method
// for comparison.)  The *_chained runs feed each result into the next call's
// first coordinate: the time per call is then the latency of one call.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

struct Point {
    double x, y, z, w;
};

constexpr size_t kPoints = 1024; // 32 KB of inputs

const std::vector<Point> &walkPoints()
{
    static const std::vector<Point> pts = [] {
        std::vector<Point> v(kPoints);
        Point p{0.123, 0.456, 0.789, 0.321};
        for (auto &q : v) {
            q = p;
            p.x += 0.0137;
            p.y += 0.0291;
            p.z += 0.0073;
            p.w += 0.0419;
        }
        return v;
    }();
    return pts;
}

const std::vector<Point> &scatteredPoints()
{
    static const std::vector<Point> pts = [] {
        std::vector<Point> v(kPoints);
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> u(-100.0, 100.0);
        for (auto &q : v)
            q = {u(rng), u(rng), u(rng), u(rng)};
        return v;
    }();
    return pts;
}

// The gradient noise's points: larger steps, over several of its 256-periods.
const std::vector<Point> &gradientPoints()
{
    static const std::vector<Point> pts = [] {
        std::vector<Point> v(kPoints);
        float x = 0.123f, y = 0.456f, z = 0.789f;
        for (auto &q : v) {
            q = {x, y, z, 0.0};
            x += 0.37f;
            y += 0.21f;
            z += 0.13f;
            if (x > 200.0f) {
                x -= 400.0f;
                y -= 200.0f;
                z -= 100.0f;
            }
        }
        return v;
    }();
    return pts;
}

template <class Call> void overPoints(benchmark::State &st, const std::vector<Point> &pts, Call call)
{
    const Point *p = pts.data();
    size_t i = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(call(p[i]));
        i = (i + 1) & (kPoints - 1);
    }
}

void BM_noise_scalar_1d(benchmark::State &st)
{
    overPoints(st, walkPoints(), [](const Point &p) { return noise_scalar_1d(p.x); });
}
BENCHMARK(BM_noise_scalar_1d);

void BM_noise_scalar_2d(benchmark::State &st)
{
    overPoints(st, walkPoints(), [](const Point &p) { return noise_scalar_2d(p.x, p.y); });
}
BENCHMARK(BM_noise_scalar_2d);

void BM_noise_scalar_3d(benchmark::State &st)
{
    overPoints(st, walkPoints(), [](const Point &p) { return noise_scalar_3d(p.x, p.y, p.z); });
}
BENCHMARK(BM_noise_scalar_3d);

void BM_noise_scalar_3d_scattered(benchmark::State &st)
{
    overPoints(st, scatteredPoints(), [](const Point &p) { return noise_scalar_3d(p.x, p.y, p.z); });
}
BENCHMARK(BM_noise_scalar_3d_scattered);

void BM_noise_scalar_4d(benchmark::State &st)
{
    const int cells = static_cast<int>(st.range(0));
    overPoints(st, walkPoints(), [cells](const Point &p) { return noise_scalar_4d(cells, p.x, p.y, p.z, p.w); });
}
BENCHMARK(BM_noise_scalar_4d)->Arg(64)->Arg(60000);

void BM_noise_vector_2d(benchmark::State &st)
{
    overPoints(st, walkPoints(), [](const Point &p) { return noise_vector_2d(p.x, p.y); });
}
BENCHMARK(BM_noise_vector_2d);

void BM_noise_table_scalar(benchmark::State &st)
{
    int i = -40000;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_table_scalar(i));
        i += 7919;
    }
}
BENCHMARK(BM_noise_table_scalar);

void BM_noise_table_vector(benchmark::State &st)
{
    int i = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_table_vector(i));
        i += 7919;
    }
}
BENCHMARK(BM_noise_table_vector);

void BM_noise_frand(benchmark::State &st)
{
    miUint seed = 1;
    for (auto _ : st)
        benchmark::DoNotOptimize(noise_frand(&seed));
}
BENCHMARK(BM_noise_frand);

void BM_noise_drand(benchmark::State &st)
{
    miUint seed = 1;
    for (auto _ : st)
        benchmark::DoNotOptimize(noise_drand(&seed));
}
BENCHMARK(BM_noise_drand);

// The gradient table is built once per process, by the first init.
void withGradientTable()
{
    static const bool built = [] {
        mirt::Context ctx;
        miState *state = ctx.begin_state(0);
        noise_gradient_init(state);
        ctx.end_state(state);
        return true;
    }();
    (void)built;
}

void BM_noise_gradient_3d(benchmark::State &st)
{
    withGradientTable();
    overPoints(st, gradientPoints(), [](const Point &p) {
        return noise_gradient_3d(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z));
    });
}
BENCHMARK(BM_noise_gradient_3d);

void BM_noise_gradient_3d_scattered(benchmark::State &st)
{
    withGradientTable();
    overPoints(st, scatteredPoints(), [](const Point &p) {
        return noise_gradient_3d(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z));
    });
}
BENCHMARK(BM_noise_gradient_3d_scattered);

void BM_noise_gradient_init_repeat(benchmark::State &st)
{
    mirt::Context ctx;
    miState *state = ctx.begin_state(0);
    noise_gradient_init(state);
    for (auto _ : st)
        noise_gradient_init(state);
    ctx.end_state(state);
}
BENCHMARK(BM_noise_gradient_init_repeat);

// ---- the older method: coordinates stepped inside the timed loop

struct Walk {
    double x = 0.123, y = 0.456, z = 0.789, w = 0.321;
    void step()
    {
        x += 0.0137;
        y += 0.0291;
        z += 0.0073;
        w += 0.0419;
    }
};

void BM_noise_scalar_3d_walk(benchmark::State &st)
{
    Walk p;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_scalar_3d(p.x, p.y, p.z));
        p.step();
    }
}
BENCHMARK(BM_noise_scalar_3d_walk);

void BM_noise_gradient_3d_walk(benchmark::State &st)
{
    withGradientTable();
    float x = 0.123f, y = 0.456f, z = 0.789f;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_gradient_3d(x, y, z));
        x += 0.37f;
        y += 0.21f;
        z += 0.13f;
        if (x > 200.0f) {
            x -= 400.0f;
            y -= 200.0f;
            z -= 100.0f;
        }
    }
}
BENCHMARK(BM_noise_gradient_3d_walk);

// ---- latency: each call waits for the previous result

void BM_noise_scalar_3d_chained(benchmark::State &st)
{
    const Point *p = walkPoints().data();
    size_t i = 0;
    float r = 0.0f;
    for (auto _ : st) {
        // r * 0 is 0 for the noise's finite results, but the call must wait for it
        r = noise_scalar_3d(p[i].x + 0.0 * r, p[i].y, p[i].z);
        i = (i + 1) & (kPoints - 1);
    }
    benchmark::DoNotOptimize(r);
}
BENCHMARK(BM_noise_scalar_3d_chained);

void BM_noise_gradient_3d_chained(benchmark::State &st)
{
    withGradientTable();
    const Point *p = gradientPoints().data();
    size_t i = 0;
    float r = 0.0f;
    for (auto _ : st) {
        r = noise_gradient_3d(static_cast<float>(p[i].x) + 0.0f * r, static_cast<float>(p[i].y),
                              static_cast<float>(p[i].z));
        i = (i + 1) & (kPoints - 1);
    }
    benchmark::DoNotOptimize(r);
}
BENCHMARK(BM_noise_gradient_3d_chained);

} // namespace
