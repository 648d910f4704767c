// Hot paths of the renderer runtime, ns per call: database pins, block pool
// traffic (one thread and shared), quasi-random samples, connected-parameter
// evaluation, shader state lookup, frame-buffer writes.
#include "runtime.h"

#include <benchmark/benchmark.h>

#include <cstring>

static void BM_db_access_unpin(benchmark::State &st)
{
    static miTag tag = mirt::db_create(miSCENE_DATA, 64);
    for (auto _ : st) {
        void *p = mi_db_access(tag);
        benchmark::DoNotOptimize(p);
        mi_db_unpin(tag);
    }
}
BENCHMARK(BM_db_access_unpin)->Threads(1)->Threads(2);

static void BM_blk_alloc_release(benchmark::State &st)
{
    static miMemblk *blk = mi_mem_int_blkcreate("bench/pool", 1, 32);
    void *keep[16];
    for (auto _ : st) {
        for (auto &k : keep)
            k = mi_mem_blkfallocate(blk);
        benchmark::DoNotOptimize(keep);
        for (auto &k : keep)
            mi_mem_blkfrelease(blk, k);
    }
    st.SetItemsProcessed(st.iterations() * 16);
}
BENCHMARK(BM_blk_alloc_release)->Threads(1)->Threads(2);

static void BM_mi_sample_2d(benchmark::State &st)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 3, 4);
    int i = 0;
    double xi[2];
    for (auto _ : st) {
        mi_sample(xi, &i, s, 2, nullptr);
        benchmark::DoNotOptimize(xi);
        if (i > 4096)
            i = 0;
    }
    ctx.end_state(s);
}
BENCHMARK(BM_mi_sample_2d);

static miBoolean constant_colour(void *result, miState *, void *params)
{
    std::memcpy(result, params, sizeof(miColor));
    return miTRUE;
}

static void BM_phen_eval_connected(benchmark::State &st)
{
    mirt::Context ctx;
    const miColor c{0.1f, 0.2f, 0.3f, 1.0f};
    miTag src = mirt::make_function(miSHADER_TEXTURE, constant_colour, &c, sizeof c, sizeof c, false, "src");
    miTag mat = mirt::make_function(miSHADER_MATERIAL, constant_colour, &c, sizeof c, sizeof c, true, "mat");
    mirt::connect(mat, 0, src);
    miState *s = ctx.begin_state();
    s->shader = mirt::function(mat);
    for (auto _ : st) {
        void *r = mi_phen_eval(s, s->shader->params);
        benchmark::DoNotOptimize(r);
    }
    ctx.end_state(s);
}
BENCHMARK(BM_phen_eval_connected);

static void BM_shaderstate_get(benchmark::State &st)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    const char rec[256] = {};
    mi_shaderstate_set(s, "kelubase", rec, sizeof rec, 2);
    mi_shaderstate_set(s, "druxFBInfo", rec, 104, 2);
    mi_shaderstate_set(s, "druxFBState", rec, 24, 2);
    mi_shaderstate_set(s, "druxPassState", rec, 256, 2);
    for (auto _ : st) {
        int size;
        void *p = mi_shaderstate_get(s, "druxPassState", &size);
        benchmark::DoNotOptimize(p);
    }
    ctx.end_state(s);
}
BENCHMARK(BM_shaderstate_get);

static void BM_fb_put(benchmark::State &st)
{
    mirt::Context ctx(64, 64);
    int idx = ctx.add_framebuffer("a");
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 10, 10);
    miColor c{1, 2, 3, 4};
    for (auto _ : st) {
        mi_fb_put(s, idx, &c);
        c.r += 1.0f;
    }
    ctx.end_state(s);
}
BENCHMARK(BM_fb_put);
