// The renderer runtime core. The render context: reset, defaults and items, bad input, render threads.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"
#include "core_test_shaders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace coretest;

class Core : public RuntimeTest {};

TEST_F(Core, ResetRefusesWhileARenderIsAlive)
{
    miTag keep;
    {
        mirt::Context ctx;
        keep = mirt::db_create(miSCENE_DATA, 4);
        mirt::reset();
        EXPECT_NE(mirt::db_data(keep), nullptr);
        EXPECT_NE(mirt::db_data(ctx.options_tag()), nullptr);
        EXPECT_EQ(countLevel(mirt::Level::Error), 1);
    }
    mirt::reset();
    EXPECT_EQ(mirt::db_data(keep), nullptr);
}

TEST_F(Core, ContextDefaultsAndItsItems)
{
    miTag opts;
    {
        mirt::Context ctx(16, 9);
        opts = ctx.options_tag();
        const miOptions &o = ctx.options();
        EXPECT_EQ(mi_db_type(opts), miSCENE_OPTIONS);
        EXPECT_EQ(mi_db_type(ctx.camera_tag()), miSCENE_CAMERA);
        EXPECT_EQ(mi_db_type(ctx.camera_instance()), miSCENE_INSTANCE);
        EXPECT_EQ(mi_db_type(ctx.camera().buffertag), miSCENE_FBSET);
        EXPECT_EQ(mi_db_type(o.string_options), miSCENE_STRINGOPTS);
        EXPECT_TRUE(o.trace);
        EXPECT_EQ(o.reflection_depth, 2);
        EXPECT_EQ(o.refraction_depth, 2);
        EXPECT_EQ(o.trace_depth, 4);
        EXPECT_EQ(o.time_contrast.r, 1.0f);
        EXPECT_EQ(o.time_contrast.a, 1.0f);
        EXPECT_EQ(o.finalgather, 0);
        EXPECT_EQ(o.finalgather_rays, 16);
        EXPECT_EQ(ctx.width(), 16);
        EXPECT_EQ(ctx.camera().y_resolution, 9);
        const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx.camera_instance()));
        EXPECT_EQ(ci->item, ctx.camera_tag());
        EXPECT_EQ(ci->local_to_global[0], 1.0f);
        EXPECT_EQ(ci->local_to_global[12], 0.0f);

        // user data goes to the front of the camera chain
        miTag b1 = mirt::db_create_userdata(nullptr, 4, 0);
        miTag b2 = mirt::db_create_userdata(nullptr, 4, 0);
        ctx.attach_camera_userdata(b1);
        ctx.attach_camera_userdata(b2);
        EXPECT_EQ(ctx.camera().userdata, b2);
        EXPECT_EQ(static_cast<miUserdata *>(mirt::db_data(b2))->next_data, b1);
        EXPECT_EQ(static_cast<miUserdata *>(mirt::db_data(b1))->next_data, 0u);
    }
    EXPECT_EQ(mi_db_type(opts), miSCENE_NONE) << "the render's items go with it";
}

// ------------------------------------------------------------- bad input

TEST_F(Core, BadInputIsReportedNotObeyed)
{
    g_ops = OpLog();
    int errors = 0;
    auto newErrors = [&] {
        int now = countLevel(mirt::Level::Error);
        int d = now - errors;
        errors = now;
        return d;
    };
    {
        mirt::Context ctx;
        miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
        ctx.add_state_shader(st);

        // a singular camera transform leaves the inverse at identity
        const miMatrix flat = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ctx.set_camera_transform(flat);
        EXPECT_EQ(newErrors(), 1);
        const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx.camera_instance()));
        for (int k = 0; k < 16; ++k)
            EXPECT_EQ(ci->global_to_local[k], k % 5 == 0 ? 1.0f : 0.0f) << k;

        // ending a child state ends its eye state once
        miState *s = ctx.begin_state();
        miState *c = mirt::child_state(s);
        ctx.end_state(c);
        EXPECT_EQ(newErrors(), 1);
        EXPECT_EQ(std::count(g_ops.ops.begin(), g_ops.ops.end(), miSHADERSTATE_STATE_EXIT), 1);

        // a state of another render is refused and left alive
        mirt::Context other;
        miState *o = other.begin_state();
        ctx.end_state(o);
        EXPECT_EQ(newErrors(), 1);
        EXPECT_EQ(mirt::context_of(o), &other);
        other.end_state(o);
        EXPECT_EQ(newErrors(), 0);

        // parameter evaluation without a current shader, or to a missing shader
        miState *s2 = ctx.begin_state();
        float value = 3.0f;
        EXPECT_EQ(mi_phen_eval(s2, &value), &value);
        EXPECT_EQ(newErrors(), 1);
        miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &value, 4, 16, true, "mat");
        mirt::connect(mat, 0, 999999);
        s2->shader = mirt::function(mat);
        EXPECT_EQ(mi_phen_eval(s2, s2->shader->params), s2->shader->params);
        EXPECT_EQ(newErrors(), 1);

        // sampling from a negative instance
        int i = -1;
        double xi[2];
        EXPECT_FALSE(mi_sample(xi, &i, s2, 2, nullptr));
        EXPECT_EQ(i, -1);
        newErrors();
        // s2 is deliberately not ended: the render reports it and frees it
    }
    EXPECT_EQ(newErrors(), 1);

    // block pools: no element size, no pool
    EXPECT_EQ(mi_mem_int_blkcreate("SDK/coreTestBad", 1, 0), nullptr);
    EXPECT_EQ(mi_mem_blkallocate(nullptr), nullptr);
    mi_mem_blkrelease(nullptr, &errors);
    mi_mem_blkdelete(nullptr); // quietly nothing, like free(NULL)
    EXPECT_EQ(newErrors(), 3);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/coreTestBad"), 0);
}

// ------------------------------------------------------------- threads

// Render threads each run their own eye state through samples: shader state,
// connected parameters, child states and frame-buffer writes stay per thread.
TEST_F(Core, RenderThreadsKeepTheirStatesApart)
{
    constexpr int kThreads = 4, W = 8, H = 8;
    mirt::Context ctx(W, H);
    const int fb = ctx.add_framebuffer("out");
    const float one = 1.0f;
    miTag src = mirt::make_function(miSHADER_TEXTURE, source_shader, &one, 4, sizeof(miColor), false, "src");
    ParamBlock pb{};
    miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &pb, sizeof pb, sizeof(miColor), true, "mat");
    mirt::connect(mat, 0, src);
    std::atomic<int> wrong{0};
    std::vector<std::thread> th;
    for (int t = 0; t < kThreads; ++t)
        th.emplace_back([&, t] {
            miState *s = ctx.begin_state(t);
            for (int y = t; y < H; y += kThreads)
                for (int x = 0; x < W; ++x) {
                    ctx.begin_sample(s, x, y);
                    const int key[2] = {x, y};
                    mi_shaderstate_set(s, "pixel", key, sizeof key, 2);
                    miState *c = mirt::child_state(s);
                    c->point = miVector{float(x), float(y), 0};
                    c->shader = mirt::function(mat);
                    auto *r = static_cast<miColor *>(mi_phen_eval(c, c->shader->params));
                    const int *back = static_cast<int *>(mi_shaderstate_get(c, "pixel", nullptr));
                    if (r->r != float(x) || r->g != float(y) || back[0] != x || back[1] != y)
                        wrong.fetch_add(1);
                    miColor out{r->r, r->g, float(t), 1};
                    if (!mi_fb_put(s, fb, &out))
                        wrong.fetch_add(1);
                    ctx.end_sample(s, miTRUE);
                }
            ctx.end_state(s);
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(wrong.load(), 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            expectRGB(ctx.fb_pixel(fb, x, y), float(x), float(y), float(y % kThreads), 0);
        }
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

} // namespace
