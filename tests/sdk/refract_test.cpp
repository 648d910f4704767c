// Refraction through the runtime: early exits, index of refraction (thin
// shells, exit rule, dispersion), total internal reflection, attenuation and
// pass bookkeeping.
#include "DruxShaderSDK.h"
#include "fbuf_builder.h"
#include "geometry.h"
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct Seen {
    miState *state;
    miVector dir;
    int type, refr;
    miColor child1, child2;
    float opacity; // entry 0's slot opacity at the shaded depth
};
thread_local std::vector<Seen> envCalls, hitCalls;
thread_local bool envSetsTransmission = false, envWritesSlot = false;

miColor envColor(const miVector &d) { return {d.x + 2, d.y + 3, d.z + 4, 1}; }

PassSlot &slotOf(miState *s, int entry)
{
    PassTypeInfo *t;
    FrameBufferInfo *e;
    getFrameBufferInfo(s, &t, &e);
    return e[entry].slots[s->reflection_level + s->refraction_level];
}
void writeSlots(miState *s, const miColor &c)
{
    for (int i = 0; i < 2; ++i)
        slotOf(s, i).result = c, slotOf(s, i).opacity = {1, 1, 1, 1};
}
Seen seen(miState *s)
{
    return {s, s->dir, s->type, s->refraction_level, baseRecord(s)->childResult1, baseRecord(s)->childResult2,
            slotOf(s, 0).opacity.r};
}
miBoolean envShader(void *result, miState *s, void *)
{
    envCalls.push_back(seen(s));
    const float k = float(envCalls.size());
    if (envSetsTransmission)
        baseRecord(s)->childTransmission = {0.1f * k, 0.2f * k, 0.3f * k, 1};
    if (envWritesSlot)
        writeSlots(s, {5, 5, 5, 5});
    *static_cast<miColor *>(result) = envColor(s->dir);
    return miTRUE;
}
miBoolean hitShader(void *result, miState *s, void *)
{
    hitCalls.push_back(seen(s));
    writeSlots(s, {1, 2, 3, 4});
    baseRecord(s)->childResult1 = baseRecord(s)->childResult2 = {9, 9, 9, 9};
    baseRecord(s)->childTransmission = {0.5f, 0.5f, 0.5f, 0.5f};
    *static_cast<miColor *>(result) = {0.5f, 0.25f, 0.125f, 1};
    return miTRUE;
}

struct Params {
    int refraction_limit;
    float ior, blur;
    int blur_limit, rays;
    float thickness, fade, absorbance;
    int chromatic;
};


class Refract : public RuntimeTest {
protected:
    Refract() : RuntimeTest(4, 4) {}
    void prepare() override
    {
        envCalls.clear(), hitCalls.clear();
        envSetsTransmission = envWritesSlot = false;
        fbtest::FbufBuilder b;
        b.add("beauty", 0);
        b.add("specular", 5);
        fbtest::install(*ctx, b);
        ctx->set_environment(mirt::make_function(miSHADER_ENVIRONMENT, envShader, nullptr, 0, 16, false, "env"));
        BaseShaderState init{};
        init.minContribution = 0.01f;
        init.fullSampleContribution = 0.001f;
        init.refractBlurLimit = 10;
        init.pathWeight = {1, 1, 1, 1};
        init.childResult1 = {0.1f, 0, 0, 0}, init.childResult2 = {0, 0.2f, 0, 0};
        init.childTransmission = {0, 0, 0.3f, 0};
        st = beginSample(0, 0, init);
        bss = baseRecord(st);
        Params def{0, 1.5f, 0, 10, 1, 0, 0, 0, 0};
        material = mirt::make_function(miSHADER_MATERIAL, hitShader, &def, sizeof def, 16, true, "host");
        st->shader = mirt::function(material);
        p = static_cast<Params *>(st->shader->params);
        ASSERT_EQ(getFrameBufferInfo(st, &types, &entries), 2u);
        incidence(0.70710677f, -0.70710677f);
        st->normal = st->normal_geom = N = {0, 0, 1};
    }
    void incidence(float x, float z)
    {
        st->dir = {x, 0, z};
        dotnd = z;
    }
    // Refraction; the host record's path weight and child colours 1 and T are
    // checked to be restored (child colour 2 is none of its business).
    miColor refract(miColor tr = {0.5f, 0.5f, 0.5f, 0.5f}, int refractions = 1, int bypass = 0)
    {
        const BaseShaderState before = *bss;
        float scale = 1;
        miColor r{-1, -1, -1, -1};
        trans = {-1, -1, -1, -1};
        compute_refraction(&r, &trans, &p->refraction_limit, &p->ior, refractions, &tr, bypass, &p->blur,
                           &p->blur_limit, &p->rays, &p->thickness, &p->fade, &p->absorbance, &p->chromatic, &N,
                           st, 2, entries, types, &scale, dotnd);
        EXPECT_EQ(std::memcmp(&before.pathWeight, &bss->pathWeight, 16), 0);
        EXPECT_EQ(std::memcmp(&before.childResult1, &bss->childResult1, 16), 0);
        EXPECT_EQ(std::memcmp(&before.childTransmission, &bss->childTransmission, 16), 0);
        EXPECT_EQ(r.a, 0.0f);
        return r;
    }
    PassSlot &slot(int e, int d = 0) { return entries[e].slots[d]; }

    miState *st = nullptr;
    BaseShaderState *bss = nullptr;
    Params *p = nullptr;
    miTag material = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
    miVector N{};
    float dotnd = 0;
    miColor trans{};
};

TEST_F(Refract, EarlyExits)
{
    const miColor tr{0.5f, 0.25f, 0.75f, 0.3f};
    expectColor(refract(tr, 1, 1), 0, 0, 0, 0);
    expectColor(trans, 1, 1, 1, 1);
    refract({9e-6f, 9e-6f, 9e-6f, 1});
    expectColor(trans, 0, 0, 0, 0);
    expectColor(refract(tr, 0), 0, 0, 0, 0);
    expectColor(trans, 0.5f, 0.25f, 0.75f, 0.3f);
    ctx->options().trace = miFALSE;
    refract(tr);
    expectColor(trans, 0.5f, 0.25f, 0.75f, 0.3f);
    ctx->options().trace = miTRUE;
    bss->minContribution = 0.75f; // m = 0.75 is not above the cut-off
    expectColor(refract(tr), 0, 0, 0, 0);
    expectColor(trans, 0, 0, 0, 0);
    EXPECT_TRUE(envCalls.empty());
}

TEST_F(Refract, EnteringAndLeavingRays)
{
    const miColor r = refract({0.5f, 0.5f, 0.5f, 1}); // n_state 1 -> ior 1.5, eta = 1/1.5
    ASSERT_EQ(envCalls.size(), 1u);
    const float sinT = 0.70710677f / 1.5f;
    expectVec(envCalls[0].dir, sinT, 0, -std::sqrt(1 - sinT * sinT), 1e-6f);
    EXPECT_EQ(envCalls[0].refr, 1) << "environment traced one refraction level deeper";
    EXPECT_FLOAT_EQ(st->ior, 1.5f) << "the index is left set";
    EXPECT_FLOAT_EQ(r.g, 0.5f * envColor(envCalls[0].dir).g);
    expectColor(trans, 0.5f, 0.5f, 0.5f, 0);

    // Inside a medium of the material's own index: leaving into 1.0, eta 1.5.
    envCalls.clear();
    incidence(0.6f, -0.8f);
    refract();
    expectVec(envCalls[0].dir, 0.9f, 0, -std::sqrt(0.19f), 1e-6f);
    EXPECT_FLOAT_EQ(st->ior, 1.0f);

    // 1 - 2.25 * 0.64 < 0: total internal reflection along the mirror, the
    // state taking the material's index, pushed 0.01 above a tilted surface.
    envCalls.clear();
    st->ior = 1.5f;
    incidence(0.8f, -0.6f);
    st->normal_geom = {-0.8f, 0, 0.6f};
    refract();
    const float l = std::sqrt(0.568f * 0.568f + 0.774f * 0.774f);
    expectVec(envCalls[0].dir, 0.568f / l, 0, 0.774f / l, 1e-5f);
    EXPECT_FLOAT_EQ(st->ior, 1.5f);

    // A refracted direction above the geometric surface ends 0.01 below it.
    envCalls.clear();
    st->ior = 1;
    incidence(0.70710677f, -0.70710677f);
    st->normal_geom = {1, 0, 0};
    refract();
    const float z = -std::sqrt(1 - sinT * sinT), m = std::sqrt(0.01f * 0.01f + z * z); // x - (x + 0.01)
    expectVec(envCalls[0].dir, -0.01f / m, 0, z / m, 1e-5f);
}

TEST_F(Refract, ThinShellIndex)
{
    incidence(0, -1);
    p->thickness = 1;
    refract();
    EXPECT_FLOAT_EQ(st->ior, 1.5f) << "normal incidence";
    p->ior = 0.5f, p->thickness = 3, st->ior = 1;
    refract();
    EXPECT_FLOAT_EQ(st->ior, 0.01f) << "1 - 0.5 * 3 clamped";
    // Grazing (dot_nd 0): 1 + 3 (ior - 1), capped at 3.
    p->thickness = 1, st->ior = 1, dotnd = 0;
    for (float ior : {1.5f, 2.0f}) {
        p->ior = ior;
        st->ior = 1;
        refract();
        EXPECT_FLOAT_EQ(st->ior, ior == 1.5f ? 2.5f : 3.0f);
    }
    p->ior = 1.5f, st->ior = 1, dotnd = 0.5f; // x = 1 - |dot_nd| from the other side too
    refract();
    EXPECT_FLOAT_EQ(st->ior, 1.75f);
}

TEST_F(Refract, DispersionCastsOneRayPerChannel)
{
    p->chromatic = 1;
    envSetsTransmission = true;
    const miColor tr{0.5f, 0.25f, 1, 0.8f};
    const miColor r = refract(tr);
    ASSERT_EQ(envCalls.size(), 3u);
    float want[3];
    for (int ch = 0; ch < 3; ++ch) {
        const float sinT = 0.70710677f / (1.5f + 0.06f * ch);
        expectVec(envCalls[ch].dir, sinT, 0, -std::sqrt(1 - sinT * sinT), 1e-6f);
        const miColor e = envColor(envCalls[ch].dir);
        want[ch] = (&e.r)[ch];
    }
    EXPECT_FLOAT_EQ(st->ior, 1.62f);
    expectColor(r, want[0] * 0.5f, want[1] * 0.25f, want[2], 0);
    expectColor(trans, 0.1f * 0.5f, 0.4f * 0.25f, 0.9f, 0); // channel k of call k
    // Environment samples go straight into the beauty pass, each channel
    // with its own ray; alpha from all three.
    expectColor(slot(0).accum, 0.5f * want[0], 0.25f * want[1], want[2], 3 * 0.8f);
    EXPECT_EQ(slot(1).accum.r, 0.0f);
}

TEST_F(Refract, AbsorptionAndFade)
{
    incidence(0, -1);
    p->thickness = 100, p->absorbance = 1; // the distance is capped by the thickness
    const miColor E = envColor({0, 0, -1});
    EXPECT_FLOAT_EQ(refract().b, 0.5f * E.b * std::exp(-1.0f));
    EXPECT_FLOAT_EQ(trans.b, 0.5f) << "transmission is not attenuated";
    p->absorbance = 0, p->thickness = 10, p->fade = 20;
    EXPECT_FLOAT_EQ(refract().r, 0.5f * E.r * 0.25f);
    p->fade = 5;
    EXPECT_EQ(refract().r, 0.0f);
    p->fade = 0, p->absorbance = 200; // e^-20 is below 1e-6
    EXPECT_EQ(refract().r, 0.0f);
    p->absorbance = 0, p->thickness = -1, p->fade = 1e30f; // no ray length: 1e36
    EXPECT_EQ(refract().g, 0.0f);
    p->fade = 0;
    EXPECT_FLOAT_EQ(refract().g, 0.5f * E.g);
    p->absorbance = 1, p->fade = 5, p->thickness = 0; // a thickness of 0 caps the distance at 0
    EXPECT_FLOAT_EQ(refract().g, 0.5f * E.g);
}

TEST_F(Refract, MissedSamplesNeverCallTracePassAdd)
{
    envWritesSlot = true; // a child slot result that tracePassAdd would take over
    refract({0.5f, 0.5f, 0.5f, 1});
    const miColor E = envColor(envCalls.at(0).dir);
    expectColor(slot(0).accum, 0.5f * E.r, 0.5f * E.g, 0.5f * E.b, 1);
}

TEST_F(Refract, TracedRaysAndTheirPassBookkeeping)
{
    mirt::Mesh plane = mirt::make_plane(1000, 1000, 1, 1);
    mirt::InstanceDesc desc;
    desc.local_to_global[14] = -100;
    desc.material = material;
    mirt::GeometryTags g = mirt::build_instance(plane, desc);
    mirt::MeshScene scene;
    scene.add(g);
    ctx->set_scene(&scene);
    st->volume = 77;
    p->refraction_limit = 5, p->thickness = -1, p->absorbance = 1;
    incidence(0, -1);
    slot(0).slotFlags = slot(1).slotFlags = 1;
    entries[1].flags |= FBINFO_ADD_REFRACTION;
    const miColor r = refract({0.5f, 0.5f, 0.5f, 1});
    ASSERT_EQ(hitCalls.size(), 1u);
    EXPECT_TRUE(envCalls.empty());
    EXPECT_EQ(st->refraction_volume, 77u);
    EXPECT_EQ(hitCalls[0].child2.g, 0.2f) << "child colour 2 is not reset";
    EXPECT_EQ(std::memcmp(&hitCalls[0].child1, &BLACK, 16), 0);
    EXPECT_EQ(bss->childResult2.g, 9.0f) << "nor restored";
    const float f = std::exp(-1.0f); // 100 units
    EXPECT_FLOAT_EQ(r.r, 0.5f * 0.5f * f);
    expectColor(trans, 0.25f, 0.25f, 0.25f, 0);
    EXPECT_EQ(slot(0).accum.g, 0.0f) << "low slot bits 1 without FBINFO_ADD_REFRACTION";
    expectColor(slot(1).accum, 0.5f * f, 2 * 0.5f * f, 3 * 0.5f * f, 4 * f);

    // Total internal reflection traces a reflection ray (refracted = false).
    hitCalls.clear();
    bss->childResult2 = {0, 0.2f, 0, 0};
    const miMatrix up = {1, 0, 0, 0, 0, -1, 0, 0, 0, 0, -1, 0, 0, 0, 100, 1};
    mirt::InstanceDesc d2 = desc;
    std::memcpy(d2.local_to_global, up, sizeof up);
    mirt::GeometryTags g2 = mirt::build_instance(plane, d2);
    scene.add(g2);
    st->ior = 1.5f, p->thickness = 0;
    incidence(0.8f, -0.6f);
    const miColor before = slot(1).accum;
    refract({0.5f, 0.5f, 0.5f, 1});
    ASSERT_EQ(hitCalls.size(), 1u);
    EXPECT_EQ(hitCalls[0].type, int(miRAY_REFLECT));
    EXPECT_EQ(std::memcmp(&before, &slot(1).accum, 16), 0) << "reflected child needs FBINFO_ADD_REFLECTION";

    // One ray per channel, each child slot cleared before its sample.
    hitCalls.clear();
    p->chromatic = 1;
    refract({0.5f, 0.5f, 0.5f, 1});
    ASSERT_EQ(hitCalls.size(), 3u);
    for (const Seen &h : hitCalls)
        EXPECT_EQ(h.opacity, 0.0f);
    ctx->set_scene(nullptr);
    mirt::delete_instance(g);
    mirt::delete_instance(g2);
}

TEST_F(Refract, BlurUsesTheRefractionLimitAndCountsPerChannel)
{
    p->blur = 0.3f, p->rays = 4;
    bss->reflectBlurLimit = 0;
    const miColor tr{0.5f, 0.25f, 1, 1};
    const miColor r = refract(tr);
    ASSERT_EQ(envCalls.size(), 4u);
    float mean[3] = {0, 0, 0};
    for (const Seen &s : envCalls)
        mean[0] += envColor(s.dir).r / 4, mean[1] += envColor(s.dir).g / 4, mean[2] += envColor(s.dir).b / 4;
    expectRGB(r, 0.5f * mean[0], 0.25f * mean[1], mean[2], 1e-5f);
    expectColor(trans, 0.5f, 0.25f, 1, 0);
    envCalls.clear();
    p->chromatic = 1;
    refract();
    EXPECT_EQ(envCalls.size(), 12u);
    envCalls.clear();
    bss->refractBlurLimit = 0;
    refract();
    EXPECT_EQ(envCalls.size(), 3u);
}

} // namespace
