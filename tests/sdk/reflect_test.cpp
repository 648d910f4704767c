// Reflection through the runtime: cut-off, depth limits, blur sampling,
// environment fall-back, connected colour input and pass bookkeeping.
#include "DruxShaderSDK.h"
#include "fbuf_builder.h"
#include "geometry.h"
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "vecmath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

struct Seen {
    miState *state;
    miVector dir;
    int type, refl, refr;
    float dot_nd;
    miColor pathWeight, child1, child2, childT;
    float opacity; // entry 0's slot opacity at the shaded depth
};
thread_local std::vector<Seen> envCalls, hitCalls, phenCalls;

Seen seen(miState *s)
{
    BaseShaderState *b = baseRecord(s);
    PassTypeInfo *t;
    FrameBufferInfo *e;
    getFrameBufferInfo(s, &t, &e);
    return {s, s->dir, s->type, s->reflection_level, s->refraction_level, s->dot_nd,
            b->pathWeight, b->childResult1, b->childResult2, b->childTransmission,
            e[0].slots[s->reflection_level + s->refraction_level].opacity.r};
}
miColor envColor(const miVector &d) { return {d.x + 2, d.y + 3, d.z + 4, 1}; }

miBoolean envShader(void *result, miState *s, void *)
{
    envCalls.push_back(seen(s));
    *static_cast<miColor *>(result) = envColor(s->dir);
    return miTRUE;
}
// A surface that writes (1, 2, 3, 4) into its pass slot, covers it fully and
// scribbles on the child colours of the host record.
miBoolean hitShader(void *result, miState *s, void *)
{
    hitCalls.push_back(seen(s));
    PassTypeInfo *t;
    FrameBufferInfo *e;
    miUint n = getFrameBufferInfo(s, &t, &e);
    for (miUint i = 0; i < n; ++i) {
        e[i].slots[s->reflection_level + s->refraction_level].result = {1, 2, 3, 4};
        e[i].slots[s->reflection_level + s->refraction_level].opacity = {1, 1, 1, 1};
    }
    baseRecord(s)->childResult1 = baseRecord(s)->childResult2 = baseRecord(s)->childTransmission = {9, 9, 9, 9};
    *static_cast<miColor *>(result) = {0.5f, 0.25f, 0.125f, 1};
    return miTRUE;
}
miBoolean phenShader(void *result, miState *s, void *)
{
    phenCalls.push_back(seen(s));
    *static_cast<miColor *>(result) = {0.2f, 0.4f, 0.6f, 1};
    return miTRUE;
}

struct Params {
    miColor reflected_color;
    int reflection_limit;
    float blur;
    int blur_limit;
    int rays;
};

using mirt::dot;
using mirt::normalized;

class Reflect : public RuntimeTest {
protected:
    Reflect() : RuntimeTest(4, 4) {}
    void prepare() override
    {
        envCalls.clear(), hitCalls.clear(), phenCalls.clear();
        fbtest::FbufBuilder b;
        b.add("beauty", 0);
        b.add("specular", 5);
        b.add("refl", 34);
        fbtest::install(*ctx, b);
        ctx->set_environment(mirt::make_function(miSHADER_ENVIRONMENT, envShader, nullptr, 0, 16, false, "env"));
        BaseShaderState init{};
        init.minContribution = 0.01f;
        init.fullSampleContribution = 0.001f;
        init.reflectBlurLimit = init.refractBlurLimit = 10;
        init.pathWeight = {1, 1, 1, 0.5f};
        init.childResult1 = {0.1f, 0, 0, 0}, init.childResult2 = {0, 0.2f, 0, 0};
        init.childTransmission = {0, 0, 0.3f, 0};
        st = beginSample(1, 2, init);
        bss = baseRecord(st);
        Params def{{0, 0, 0, 0}, 10, 0.0f, 10, 1};
        material = mirt::make_function(miSHADER_MATERIAL, hitShader, &def, sizeof def, 16, true, "host");
        st->shader = mirt::function(material);
        p = static_cast<Params *>(st->shader->params);
        n = getFrameBufferInfo(st, &types, &entries);
        ASSERT_EQ(n, 3u);
        st->dir = normalized({1, 0, -1});
        st->normal = st->normal_geom = N = {0, 0, 1};
        dotnd = dot(N, st->dir);
    }
    // Reflection with the host record checked to be restored afterwards.
    miColor reflect(miColor col, float weight = 1, float gain = 1, int noTrace = 1, float scale = 1)
    {
        const BaseShaderState before = *bss;
        const int type = st->type, refl = st->reflection_level;
        const miVector dir = st->dir;
        miColor r{-1, -1, -1, -1};
        compute_reflection(&r, &col, &p->reflected_color, &p->reflection_limit, &p->blur, &p->blur_limit,
                           &p->rays, noTrace, &N, st, int(n), entries, types, &scale, weight, gain, dotnd);
        EXPECT_EQ(std::memcmp(&before, bss, sizeof before), 0) << "host record not restored";
        EXPECT_EQ(st->type, type);
        EXPECT_EQ(st->reflection_level, refl);
        EXPECT_EQ(std::memcmp(&dir, &st->dir, sizeof dir), 0);
        EXPECT_EQ(r.a, 0.0f);
        return r;
    }
    miVector mirror() const { return {st->dir.x - 2 * dotnd * N.x, st->dir.y - 2 * dotnd * N.y, st->dir.z - 2 * dotnd * N.z}; }
    PassSlot &slot(int e, int d = 0) { return entries[e].slots[d]; }

    miState *st = nullptr;
    BaseShaderState *bss = nullptr;
    Params *p = nullptr;
    miTag material = 0;
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
    miVector N{};
    float dotnd = 0;
};


TEST_F(Reflect, EarlyExitsAndStrictCutOff)
{
    EXPECT_EQ(reflect({1, 1, 1, 1}, 0).r, 0.0f);
    EXPECT_EQ(reflect({1, 1, 1, 1}, -1).g, 0.0f);
    EXPECT_EQ(reflect({9e-6f, 9e-6f, 9e-6f, 1}).b, 0.0f);
    bss->minContribution = 0.25f;
    EXPECT_EQ(reflect({0.5f, 0.5f, 0.5f, 1}, 0.5f).r, 0.0f) << "m equal to the cut-off";
    EXPECT_TRUE(envCalls.empty());
    reflect({0.6f, 0.6f, 0.6f, 1}, 0.5f, 0.5f);
    EXPECT_EQ(envCalls.size(), 1u) << "gain <= 1 is not applied";
    envCalls.clear();
    reflect({0.5f, 0.5f, 0.1f, 1}, 0.5f, 2.0f);
    ASSERT_EQ(envCalls.size(), 1u);
    EXPECT_FLOAT_EQ(envCalls[0].pathWeight.r, 0.5f);
    EXPECT_FLOAT_EQ(envCalls[0].pathWeight.b, 0.1f);
    EXPECT_EQ(envCalls[0].pathWeight.a, 0.5f) << "alpha untouched";
}

TEST_F(Reflect, EnvironmentFallbackFollowsDepthLimits)
{
    miColor r = reflect({1, 1, 1, 1});
    ASSERT_EQ(envCalls.size(), 1u);
    expectVec(envCalls[0].dir, mirror(), 1e-6f);
    EXPECT_EQ(envCalls[0].refl, 1) << "traced one reflection level deeper";
    EXPECT_FLOAT_EQ(r.r, envColor(mirror()).r);
    EXPECT_FLOAT_EQ(r.b, envColor(mirror()).b);

    // At the options' reflection depth the environment shader runs on this
    // very state as an environment ray.
    for (int which = 0; which < 2; ++which) {
        envCalls.clear();
        st->reflection_level = which == 0 ? ctx->options().reflection_depth : 0;
        st->refraction_level = which == 1 ? ctx->options().trace_depth : 0;
        reflect({1, 1, 1, 1});
        ASSERT_EQ(envCalls.size(), 1u);
        EXPECT_EQ(envCalls[0].state, st);
        EXPECT_EQ(envCalls[0].type, int(miRAY_ENVIRONMENT));
        expectVec(envCalls[0].dir, mirror(), 1e-6f);
    }
    st->refraction_level = 0;
    envCalls.clear();
    ctx->options().trace = miFALSE;
    EXPECT_EQ(reflect({1, 1, 1, 1}).r, 0.0f) << "ray tracing off: black";
    EXPECT_TRUE(envCalls.empty());
}

TEST_F(Reflect, SampleDirectionBelowSurfaceIsLifted)
{
    st->dir = {1, 0, 0};
    dotnd = 0.5f; // as a caller with a bent shading normal may compute it
    reflect({1, 1, 1, 1});
    ASSERT_EQ(envCalls.size(), 1u);
    const float l = std::sqrt(1.0001f);
    expectVec(envCalls[0].dir, {1 / l, 0, 0.01f / l}, 1e-6f);
}

TEST_F(Reflect, BlurSampleCount)
{
    p->blur = 0.5f, p->rays = 8;
    bss->minContribution = 0.1f, bss->fullSampleContribution = 0.5f;
    bss->pathWeight = {0.3f, 0.1f, 0.1f, 1};
    reflect({1, 1, 1, 1}); // trunc(1 + 7 * 0.2 / 0.4) = 4
    ASSERT_EQ(envCalls.size(), 4u);
    for (const Seen &s : envCalls)
        EXPECT_FLOAT_EQ(s.pathWeight.r, 0.3f / 4);
    bss->pathWeight = {0.6f, 0.1f, 0.1f, 1};
    envCalls.clear();
    reflect({1, 1, 1, 1});
    EXPECT_EQ(envCalls.size(), 8u) << "at or above the full-sample contribution";
    for (int rays : {0, -3}) {
        p->rays = rays;
        envCalls.clear();
        reflect({1, 1, 1, 1});
        ASSERT_EQ(envCalls.size(), 1u);
        EXPECT_FLOAT_EQ(envCalls[0].pathWeight.r, 0.6f);
    }
}

TEST_F(Reflect, NoBlurMeansOneSampleAlongTheMirror)
{
    p->rays = 8;
    auto check = [&](const char *why) {
        envCalls.clear();
        reflect({1, 1, 1, 1});
        ASSERT_EQ(envCalls.size(), 1u) << why;
        expectVec(envCalls[0].dir, mirror(), 1e-6f);
        EXPECT_FLOAT_EQ(envCalls[0].pathWeight.r, 1.0f) << why;
    };
    p->blur = 0;
    check("blur 0");
    p->blur = -0.5f;
    check("negative blur");
    p->blur = 0.5f, p->blur_limit = 0;
    check("blur_limit reached");
    p->blur_limit = 10, bss->reflectBlurLimit = 0;
    check("host blur limit reached");
    bss->reflectBlurLimit = 10;
    ctx->set_query_int(miQ_PRECOMPUTE_PASS, 1);
    check("query 142");
}

// Directions follow the quasi-random numbers of mi_sample exactly, and the
// angle to the mirror direction is uniform in 1 - cos over the cap.
TEST_F(Reflect, GlossyDirectionsCoverTheCapUniformly)
{
    for (miVector in : {miVector{0, 0, -1}, normalized({0.3f, 0.2f, -1})}) {
        st->dir = in;
        dotnd = dot(N, in);
        const miVector R = mirror();
        miVector U{1, 0, 0}, V{0, 1, 0};
        if (R.x != 0 || R.y != 0) {
            U = normalized({R.y, -R.x, 0});
            V = normalized({R.z * R.x, R.z * R.y, -(R.x * R.x + R.y * R.y)});
        }
        const float g = 0.5f, gp = 1 - std::cos(g * 1.5707964f);
        p->blur = g, p->rays = 512;
        envCalls.clear();
        const miColor r = reflect({1, 1, 1, 1});
        ASSERT_EQ(envCalls.size(), 512u);
        std::vector<double> u, phi;
        miColor mean{0, 0, 0, 0};
        const miUint cnt = 512;
        for (int i = 0; i < 512;) {
            const Seen &s = envCalls[i];
            double xi[2];
            mi_sample(xi, &i, st, 2, &cnt);
            const float ct = 1 - float(xi[1]) * gp, sn = std::sqrt(1 - ct * ct), ph = float(xi[0]) * 6.2831855f;
            expectVec(s.dir, {U.x * sn * std::cos(ph) + V.x * sn * std::sin(ph) + R.x * ct,
                              U.y * sn * std::cos(ph) + V.y * sn * std::sin(ph) + R.y * ct,
                              U.z * sn * std::cos(ph) + V.z * sn * std::sin(ph) + R.z * ct}, 1e-5f);
            u.push_back((1 - dot(s.dir, R)) / gp);
            phi.push_back((std::atan2(dot(s.dir, V), dot(s.dir, U)) + M_PI) / (2 * M_PI));
            mean.r += envColor(s.dir).r / 512, mean.g += envColor(s.dir).g / 512;
        }
        for (std::vector<double> *v : {&u, &phi}) {
            std::sort(v->begin(), v->end());
            double ks = 0;
            for (size_t k = 0; k < v->size(); ++k)
                ks = std::max({ks, std::fabs((*v)[k] - double(k) / 512), std::fabs((*v)[k] - double(k + 1) / 512)});
            EXPECT_LT(ks, 0.04) << "Kolmogorov-Smirnov distance";
            EXPECT_GE(v->front(), -1e-5);
            EXPECT_LE(v->back(), 1 + 1e-4);
        }
        EXPECT_NEAR(r.r, mean.r, 5e-4) << "the result is the mean of the samples";
        EXPECT_NEAR(r.g, mean.g, 5e-4);
    }
}

TEST_F(Reflect, ConnectedColourReplacesTheEnvironment)
{
    mirt::connect(material, offsetof(Params, reflected_color),
                  mirt::make_function(miSHADER_TEXTURE, phenShader, nullptr, 0, 16, false, "input"));
    miColor r = reflect({1, 1, 1, 1});
    EXPECT_FLOAT_EQ(r.g, 0.4f);
    ASSERT_EQ(phenCalls.size(), 1u);
    EXPECT_EQ(std::memcmp(&phenCalls[0].dir, &st->dir, 12), 0) << "one sample: state unchanged";
    EXPECT_TRUE(envCalls.empty());
    for (miUint e = 0; e < n; ++e)
        EXPECT_EQ(slot(e).accum.r, 0.0f) << "no direct pass additions";
    // Several samples: evaluated with the incoming direction mirroring into each.
    p->blur = 0.3f, p->rays = 4;
    phenCalls.clear();
    r = reflect({1, 1, 1, 1});
    EXPECT_FLOAT_EQ(r.b, 0.6f);
    ASSERT_EQ(phenCalls.size(), 4u);
    for (const Seen &s : phenCalls) {
        const miVector d{s.dir.x - 2 * dotnd * N.x, s.dir.y - 2 * dotnd * N.y, s.dir.z - 2 * dotnd * N.z};
        EXPECT_FLOAT_EQ(s.dot_nd, -dot(N, d));
        EXPECT_NEAR(dot(d, mirror()), 1, 0.25) << "within the cap";
    }
}

TEST_F(Reflect, EnvironmentColourGoesStraightIntoPassTypes0And34)
{
    const miColor col{0.5f, 0.25f, 1, 0.8f}, E = envColor(mirror());
    auto expectAccum = [&](const miColor &c, float k) {
        EXPECT_FLOAT_EQ(c.r, k * 1.5f * 0.5f * E.r);
        EXPECT_FLOAT_EQ(c.b, k * 1.5f * 1 * E.b);
        EXPECT_FLOAT_EQ(c.a, k * 1.5f * 0.8f * E.a);
    };
    reflect(col, 0.5f, 1, 1, 3.0f); // w = 0.5 * 3
    expectAccum(slot(0).accum, 1);
    expectAccum(slot(2).accum, 1);
    EXPECT_EQ(slot(1).accum.r, 0.0f) << "type 5 is not an environment pass";
    slot(0).slotFlags = 1;
    reflect(col, 0.5f, 1, 1, 3.0f);
    expectAccum(slot(0).accum, 1);
    expectAccum(slot(2).accum, 2);
    entries[0].flags |= FBINFO_IN_LIGHT_LOOP;
    reflect(col, 0.5f, 1, 1, 3.0f);
    expectAccum(entries[0].lightSum, 1);
    expectAccum(slot(2).accum, 2);
    entries[0].flags = FBINFO_NO_ACCUMULATE | FBINFO_IN_LIGHT_LOOP;
    reflect(col, 0.5f, 1, 1, 3.0f);
    expectAccum(entries[2].lightSum, 1);
    entries[0].flags = 0;
    st->type = miRAY_ENVIRONMENT; // an environment ray's own reflections stay out of the slots
    reflect(col, 0.5f, 1, 1, 3.0f);
    expectAccum(slot(2).accum, 2);
}

// A trace-depth limit raised after set-up: the state keeps its 4 + 2 slots per
// entry; a reflection at depth 6 falls back on the environment without
// touching a slot (entry 0's slot 6 would be entry 1's slot 0; the last
// entry's lies past the block), while depth 5 still adds into slot 5.
TEST_F(Reflect, DepthLimitRaisedMidStateStaysInsideTheSlots)
{
    ASSERT_EQ(entries[1].slots - entries[0].slots, 6);
    ctx->options().trace_depth = 40;
    p->reflection_limit = 40;
    const miColor col{0.5f, 0.25f, 1, 0.8f};
    st->reflection_level = 5;
    reflect(col);
    EXPECT_GT(slot(0, 5).accum.r, 0.0f) << "the last slot is still used";
    const miColor mark{9, 8, 7, 6};
    slot(1, 0).accum = slot(1, 0).opacity = mark;
    slot(2, 0).accum = mark;
    st->reflection_level = 6;
    reflect(col);
    EXPECT_EQ(slot(1, 0).accum.r, 9.0f);
    EXPECT_EQ(slot(1, 0).opacity.g, 8.0f);
    EXPECT_EQ(slot(2, 0).accum.b, 7.0f);
    st->reflection_level = 0;
    ctx->options().trace_depth = 4;
}

TEST_F(Reflect, TracedHitsGoThroughTracePassAdd)
{
    mirt::Mesh plane = mirt::make_plane(100, 100, 1, 1);
    mirt::InstanceDesc desc;
    const miMatrix flip = {1, 0, 0, 0, 0, -1, 0, 0, 0, 0, -1, 0, 0, 0, 2, 1};
    std::memcpy(desc.local_to_global, flip, sizeof flip);
    desc.material = material;
    mirt::GeometryTags g = mirt::build_instance(plane, desc);
    mirt::MeshScene scene;
    scene.add(g);
    ctx->set_scene(&scene);
    p->blur = 0.2f, p->rays = 2;
    bss->minContribution = 0.001f, bss->fullSampleContribution = 0.002f;
    const miColor r = reflect({1, 1, 1, 0.5f}, 1, 1, 0);
    ASSERT_EQ(hitCalls.size(), 2u);
    EXPECT_TRUE(envCalls.empty());
    for (const Seen &s : hitCalls) {
        EXPECT_EQ(std::memcmp(&s.child1, &BLACK, 16), 0);
        EXPECT_EQ(std::memcmp(&s.child2, &BLACK, 16), 0);
        EXPECT_EQ(std::memcmp(&s.childT, &WHITE, 16), 0);
        EXPECT_FLOAT_EQ(s.pathWeight.r, 0.5f);
        EXPECT_EQ(s.opacity, 0.0f) << "the child slot's coverage is cleared before each sample";
    }
    EXPECT_FLOAT_EQ(r.r, 0.5f);
    EXPECT_FLOAT_EQ(r.b, 0.125f);
    for (miUint e = 0; e < n; ++e) { // two samples of weight 1/2 each
        EXPECT_FLOAT_EQ(slot(e).accum.g, 2.0f);
        EXPECT_FLOAT_EQ(slot(e).accum.a, 2.0f);
        EXPECT_EQ(slot(e, 1).result.r, 0.0f);
    }
    // At the user's limit nothing is traced: the environment stands in.
    hitCalls.clear();
    p->reflection_limit = 0;
    reflect({1, 1, 1, 1}, 1, 1, 0);
    EXPECT_TRUE(hitCalls.empty());
    EXPECT_EQ(envCalls.size(), 2u);
    ctx->set_scene(nullptr);
    mirt::delete_instance(g);
}

TEST_F(Reflect, StatesOnSeveralThreadsDoNotInterfere)
{
    p->blur = 0.4f, p->rays = 64;
    const miColor want = reflect({1, 1, 1, 1});
    std::vector<miColor> got(4);
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([&, t] {
            miState *s = ctx->begin_state(t + 1);
            ctx->begin_sample(s, 1, 2);
            mi_shaderstate_set(s, KELU_BASE_STATE_KEY, bss, sizeof *bss, 2);
            s->shader = st->shader, s->dir = st->dir, s->normal = s->normal_geom = N;
            PassTypeInfo *ty;
            FrameBufferInfo *en;
            const int cnt = int(getFrameBufferInfo(s, &ty, &en));
            float scale = 1;
            const miColor col{1, 1, 1, 1};
            for (int k = 0; k < 50; ++k)
                compute_reflection(&got[t], &col, &p->reflected_color, &p->reflection_limit, &p->blur,
                                   &p->blur_limit, &p->rays, 1, &N, s, cnt, en, ty, &scale, 1, 1, dotnd);
            ctx->end_state(s);
        });
    for (std::thread &t : th)
        t.join();
    for (const miColor &c : got)
        EXPECT_EQ(std::memcmp(&c, &want, sizeof c), 0);
}

} // namespace
