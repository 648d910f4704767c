// Highlight models and base-material compositing, ns per call.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <benchmark/benchmark.h>

namespace {

void BM_phong(benchmark::State &st)
{
    miState state{};
    state.type = int(st.range(0));
    miVector r{0, 0, 1}, l{0.3f, 0.1f, 0.9f};
    for (auto _ : st) {
        benchmark::DoNotOptimize(&l);
        benchmark::DoNotOptimize(compute_phong_specular(&r, &l, &state, 20.0f, 0.5f));
        l.x = l.x > 0.5f ? 0.0f : l.x + 0.01f;
    }
}
BENCHMARK(BM_phong)->ArgName("ray_type")->Arg(miRAY_EYE)->Arg(miRAY_REFLECT);

void BM_blinn(benchmark::State &st)
{
    miState state{};
    state.dir = miVector{0.2f, 0.0f, -0.9797959f};
    miVector n{0, 0, 1}, l{0.3f, 0.1f, 0.9486833f};
    for (auto _ : st) {
        benchmark::DoNotOptimize(&l);
        benchmark::DoNotOptimize(
            compute_blinn_specular(&l, &n, &state, l.z, 0.9797959f, 0.3f, 0.4f, 1.0f));
        l.x = l.x > 0.5f ? 0.0f : l.x + 0.01f;
    }
}
BENCHMARK(BM_blinn);

void BM_arealight_lambertian(benchmark::State &st)
{
    const miVector corners[4] = {{1, 1, 1}, {-1, 1, 1}, {-1, -1, 1}, {1, -1, 1}};
    miVector p{0, 0, 0}, n{0, 0, 1};
    for (auto _ : st) {
        benchmark::DoNotOptimize(&p);
        benchmark::DoNotOptimize(arealight_lambertian_reflect(&p, &n, corners));
        p.x = p.x > 0.5f ? 0.0f : p.x + 0.01f;
    }
}
BENCHMARK(BM_arealight_lambertian);

void BM_bc_composite(benchmark::State &st)
{
    BaseComposite bc;
    bc_construct(&bc, int(st.range(0)), nullptr);
    BaseCompositeResult out{};
    const miColor a{0.2f, 0.3f, 0.4f, 1}, b{0.1f, 0.1f, 0.1f, 1}, c{0.3f, 0.2f, 0.1f, 1};
    const miColor d[2] = {{0.05f, 0.05f, 0.05f, 1}, {0.02f, 0.02f, 0.02f, 1}};
    const miColor e[2] = {{0.4f, 0.4f, 0.4f, 1}, {0.3f, 0.3f, 0.3f, 1}};
    const miColor f{0.01f, 0.02f, 0.03f, 1}, g{0.0f, 0.1f, 0.0f, 1}, h{0.2f, 0.2f, 0.2f, 1};
    miColor tr{0.25f, 0.25f, 0.25f, 1};
    for (auto _ : st) {
        benchmark::DoNotOptimize(&tr);
        bc_composite(bc, &out, &a, &b, &c, d, e, &f, &g, &h, &tr, 0, 1, 0.5f, 1.0f, 0.5f, 1.0f);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_bc_composite)->ArgName("mode")->Arg(0)->Arg(3);

} // namespace
