// Value and gradient noise, ns per call (calls into the shared library).
// Each iteration moves the point by an irregular step, so successive calls hit
// different cells and the loop cannot be folded; the step costs about one add
// per coordinate.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <benchmark/benchmark.h>

namespace {

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

void BM_noise_scalar_1d(benchmark::State &st)
{
    Walk p;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_scalar_1d(p.x));
        p.step();
    }
}
BENCHMARK(BM_noise_scalar_1d);

void BM_noise_scalar_2d(benchmark::State &st)
{
    Walk p;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_scalar_2d(p.x, p.y));
        p.step();
    }
}
BENCHMARK(BM_noise_scalar_2d);

void BM_noise_scalar_3d(benchmark::State &st)
{
    Walk p;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_scalar_3d(p.x, p.y, p.z));
        p.step();
    }
}
BENCHMARK(BM_noise_scalar_3d);

void BM_noise_scalar_4d(benchmark::State &st)
{
    Walk p;
    const int cells = static_cast<int>(st.range(0));
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_scalar_4d(cells, p.x, p.y, p.z, p.w));
        p.step();
    }
}
BENCHMARK(BM_noise_scalar_4d)->Arg(64)->Arg(60000);

void BM_noise_vector_2d(benchmark::State &st)
{
    Walk p;
    for (auto _ : st) {
        benchmark::DoNotOptimize(noise_vector_2d(p.x, p.y));
        p.step();
    }
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

void BM_noise_gradient_3d(benchmark::State &st)
{
    mirt::Context ctx;
    miState *state = ctx.begin_state(0);
    noise_gradient_init(state);
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
    ctx.end_state(state);
}
BENCHMARK(BM_noise_gradient_3d);

// Once per process: the first init builds the 65,535-entry table.
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

} // namespace
