// Colour conversion and scratch stacks, ns per call.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <benchmark/benchmark.h>

static void BM_rgb_to_hsv(benchmark::State &st)
{
    miColor in{0.8f, 0.3f, 0.55f, 1.0f}, out;
    for (auto _ : st) {
        benchmark::DoNotOptimize(&in);
        rgb_to_hsv(&in, &out);
        benchmark::DoNotOptimize(out);
        in.r = out.b * 0.999f;
    }
}
BENCHMARK(BM_rgb_to_hsv);

static void BM_hsv_to_rgb(benchmark::State &st)
{
    miColor in{0.37f, 0.6f, 0.9f, 1.0f}, out;
    for (auto _ : st) {
        benchmark::DoNotOptimize(&in);
        hsv_to_rgb(&in, &out);
        benchmark::DoNotOptimize(out);
        in.r = in.r + 0.0137f;
        if (in.r >= 1.0f)
            in.r -= 1.0f;
    }
}
BENCHMARK(BM_hsv_to_rgb);

// A push and a pop on a warm per-thread allocator.
static void BM_stack_push_pop(benchmark::State &st)
{
    mirt::Context ctx;
    miState *state = ctx.begin_state(0);
    ScratchStack stack{};
    stack_create(state, &stack, 64);
    for (int i = 0; i < 16; ++i)
        stack_push(&stack);
    for (auto _ : st) {
        void *e = stack_push(&stack);
        benchmark::DoNotOptimize(e);
        stack_pop(&stack);
    }
    while (stack.count)
        stack_pop(&stack);
    miLock global = state->global_lock;
    ctx.end_state(state);
    clr_tla_list(global);
}
BENCHMARK(BM_stack_push_pop);
