// Indirect light (path-weight cut-off, per-object settings, final-gather ray
// scaling) and surface derivatives through the runtime.
#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "geometry.h"
#include "runtime.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

// Final-gather rays that leave the scene see this environment; it records the
// path weight the host record holds while the renderer gathers.
thread_local std::vector<miColor> gatherWeights;
miBoolean gatherEnv(void *result, miState *s, void *)
{
    gatherWeights.push_back(baseRecord(s)->pathWeight);
    *static_cast<miColor *>(result) = {0.5f, 0.25f, 2, 1};
    return miTRUE;
}

miBoolean irradianceInput(void *result, miState *, void *)
{
    *static_cast<miColor *>(result) = {2, 4, 8, 1};
    return miTRUE;
}

struct Params {
    miColor tint;
    miColor irradiance;
};


class Irradiance : public RuntimeTest {
protected:
    Irradiance() : RuntimeTest(4, 4) {}
    void prepare() override
    {
        ctx->set_environment(mirt::make_function(miSHADER_ENVIRONMENT, gatherEnv, nullptr, 0, 16, false, "env"));
        gatherWeights.clear();
        miOptions &o = ctx->options();
        o.finalgather_rays = 64, o.finalgather_maxradius = 3, o.finalgather_minradius = 0.5f;
        o.finalgather_view = 1, o.finalgather_filter = 2;
        o.globillum_accuracy = 100, o.globillum_radius = 0.25f, o.caustic_accuracy = 50, o.caustic_radius = 0.125f;
        BaseShaderState init{};
        init.minContribution = 0.1f;
        init.fullSampleContribution = 0.5f;
        init.pathWeight = {1, 1, 1, 1};
        st = beginSample(0, 0, init);
        bss = baseRecord(st);
        Params def{{1, 1, 1, 1}, {0, 0, 0, 0}};
        material = mirt::make_function(miSHADER_MATERIAL, nullptr, &def, sizeof def, 16, true, "host");
        st->shader = mirt::function(material);
        p = static_cast<Params *>(st->shader->params);
        st->normal = st->normal_geom = {0, 0, 1};
        st->dir = {0, 0, -1};
        st->dot_nd = -1;
    }
    // An instance whose object carries a KELU_MAGIC block with settings.
    void objectSettings(int word5, int rays)
    {
        int32_t w[17] = {KELU_MAGIC, 0, 0, 0, 0, word5, rays};
        const float f[] = {7.5f, 0.75f};
        std::memcpy(&w[7], &f[0], 4), std::memcpy(&w[8], &f[1], 4);
        w[9] = 0x1203, w[10] = 0x3404, w[11] = 11, w[12] = 12, w[13] = 13, w[14] = 14, w[15] = 15, w[16] = 16;
        mirt::InstanceDesc desc;
        desc.userdata = mirt::db_create_userdata(w, sizeof w, 0);
        st->instance = mirt::build_instance(mirt::make_plane(1, 1, 1, 1), desc).instance;
    }
    miColor irradiance(miColor color, miColor tr = {0, 0, 0, 0}, float diffuse = 1, float gain = 1)
    {
        const miColor before = bss->pathWeight;
        miColor r{-1, -1, -1, -1};
        compute_irradiance(&r, &p->tint, &color, &tr, &p->irradiance, st, diffuse, gain);
        EXPECT_EQ(std::memcmp(&before, &bss->pathWeight, 16), 0) << "path weight restored";
        EXPECT_EQ(r.a, 0.0f);
        return r;
    }
    miState *st = nullptr;
    BaseShaderState *bss = nullptr;
    Params *p = nullptr;
    miTag material = 0;
};

TEST_F(Irradiance, NothingToGatherOrBelowTheCutOff)
{
    EXPECT_EQ(irradiance({1, 1, 1, 1}, {0, 0, 0, 0}, 0).r, 0.0f);
    p->tint = {9e-6f, 9e-6f, 9e-6f, 1};
    EXPECT_EQ(irradiance({1, 1, 1, 1}).g, 0.0f);
    p->tint = {1, 1, 1, 1};
    EXPECT_EQ(irradiance({1, 1, 1, 1}, {1, 1, 1, 1}).b, 0.0f) << "fully transparent";
    EXPECT_EQ(irradiance({0.09f, 0.05f, 0.05f, 1}).r, 0.0f) << "0.09 < 0.1";
    EXPECT_TRUE(ctx->irradiance_calls().empty());
    irradiance({0.04f, 0.05f, 0.05f, 1}, {0, 0, 0, 0}, 1, 2); // gain 2: m = 0.1 is not below
    irradiance({0.15f, 0.05f, 0.05f, 1}, {0, 0, 0, 0}, 1, 0.5f); // gain <= 1 is not applied
    EXPECT_EQ(ctx->irradiance_calls().size(), 2u);
    // a renderer that does not record the calls gets the same gathers
    const miColor recorded = irradiance({0.3f, 0.2f, 0.2f, 1});
    ctx->record_irradiance_calls(false);
    const miColor unrecorded = irradiance({0.3f, 0.2f, 0.2f, 1});
    EXPECT_EQ(std::memcmp(&recorded, &unrecorded, sizeof recorded), 0);
    EXPECT_EQ(ctx->irradiance_calls().size(), 3u);
}

TEST_F(Irradiance, ConnectedInputBypassesTheRenderer)
{
    mirt::connect(material, offsetof(Params, irradiance),
                  mirt::make_function(miSHADER_TEXTURE, irradianceInput, nullptr, 0, 16, false, "fg"));
    bss->pathWeight = {0, 0, 0, 0};
    p->tint = {0.5f, 1, 2, 1};
    const miColor r = irradiance({0.5f, 0.5f, 0.5f, 1}, {0, 0, 0, 0}, 2);
    expectRGB(r, 0.5f * 2, 1 * 4, 2 * 8, kUlps);
    EXPECT_TRUE(ctx->irradiance_calls().empty());
}

TEST_F(Irradiance, FinalGatherOffUsesOnlyObjectSettings)
{
    const miColor r = irradiance({0.3f, 0.2f, 0.2f, 1}); // m = 0.3: would be scaled with FG on
    auto calls = ctx->irradiance_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].size, 0) << "no record";
    EXPECT_FLOAT_EQ(r.r, 0.3f * 0.5f);
    EXPECT_FLOAT_EQ(r.b, 0.2f * 2);
    ASSERT_EQ(gatherWeights.size(), 64u);
    EXPECT_FLOAT_EQ(gatherWeights[0].r, 0.3f) << "not divided by the ray count";
    EXPECT_FLOAT_EQ(gatherWeights[63].g, 0.2f);
    ctx->clear_irradiance_calls();

    objectSettings(1, 100);
    irradiance({0.3f, 0.2f, 0.2f, 1});
    calls = ctx->irradiance_calls();
    ASSERT_EQ(calls.size(), 1u);
    const miIrrad_options &o = calls[0];
    EXPECT_EQ(o.size, 52);
    EXPECT_EQ(o.finalgather_rays, 100) << "not scaled with FG off";
    EXPECT_EQ(o.finalgather_maxradius, 7.5f);
    EXPECT_EQ(o.finalgather_minradius, 0.75f);
    EXPECT_EQ(o.finalgather_view, 3);
    EXPECT_EQ(o.finalgather_filter, 4);
    EXPECT_EQ(o.pad[0] | o.pad[1], 0);
    const int32_t *words = reinterpret_cast<const int32_t *>(&o);
    for (int i = 5; i <= 10; ++i)
        EXPECT_EQ(words[i], i + 6) << "byte " << 4 * i;
    EXPECT_EQ(words[11] | words[12], 0) << "bytes 44 to 51 are zero";
}

TEST_F(Irradiance, FinalGatherRaysFallWithThePathWeight)
{
    ctx->options().finalgather = 1;
    bss->minContribution = 0.25f, bss->fullSampleContribution = 0.75f;
    objectSettings(1, 100);
    irradiance({0.5f, 0.2f, 0.3f, 1}); // halfway between the thresholds
    ASSERT_EQ(ctx->irradiance_calls().size(), 1u);
    EXPECT_EQ(ctx->irradiance_calls()[0].finalgather_rays, 50);
    ASSERT_EQ(gatherWeights.size(), 50u);
    EXPECT_FLOAT_EQ(gatherWeights[49].r, 0.5f / 50);
    EXPECT_FLOAT_EQ(gatherWeights[49].b, 0.3f / 50);
    ctx->clear_irradiance_calls();

    objectSettings(0, 100); // word 5 not 1: the options' settings
    irradiance({0.375f, 0.3f, 0.3f, 1});
    ASSERT_EQ(ctx->irradiance_calls().size(), 1u);
    const miIrrad_options o = ctx->irradiance_calls()[0];
    EXPECT_EQ(o.size, 52);
    EXPECT_EQ(o.finalgather_rays, 16) << "trunc(64 * 0.25)";
    EXPECT_EQ(o.finalgather_maxradius, 3.0f);
    EXPECT_EQ(o.finalgather_minradius, 0.5f);
    EXPECT_EQ(o.finalgather_view, 1);
    EXPECT_EQ(o.finalgather_filter, 2);
    EXPECT_EQ(o.globillum_accuracy, 100);
    EXPECT_EQ(o.globillum_radius, 0.25f);
    EXPECT_EQ(o.caustic_accuracy, 50);
    EXPECT_EQ(o.caustic_radius, 0.125f);
    EXPECT_EQ(o.importon_accuracy, 0);
    EXPECT_EQ(bitsOf(o.finalgather_scale), bitsOf(-1.0f));
    EXPECT_EQ(o.reserved44 | o.reserved48, 0);
    ctx->clear_irradiance_calls();

    gatherWeights.clear();
    const miColor r = irradiance({0.8f, 0.2f, 0.2f, 1}, {0.5f, 0, 0, 0}, 1, 2); // above full weight
    ASSERT_EQ(ctx->irradiance_calls().size(), 1u);
    EXPECT_EQ(ctx->irradiance_calls()[0].size, 0) << "no record is built";
    ASSERT_EQ(gatherWeights.size(), 64u);
    EXPECT_FLOAT_EQ(gatherWeights[0].r, 0.8f / 64) << "(1 - 0.5) * 0.8 * gain 2 / 64 rays";
    EXPECT_FLOAT_EQ(gatherWeights[0].g, 0.4f / 64);
    EXPECT_FLOAT_EQ(r.r, 0.8f * 0.5f) << "transparency and gain weight only the path";
    EXPECT_FLOAT_EQ(r.b, 0.2f * 2);
}

// Just above the cut-off the scaled ray count truncates to 0: no gather at
// all.  A count of 0 or below that the options or the object's settings give
// (scaled or not) still goes to the renderer as it is.
TEST_F(Irradiance, RayCountsOfZeroOrBelow)
{
    ctx->options().finalgather = 1;
    EXPECT_EQ(irradiance({0.105f, 0.1f, 0.1f, 1}).r, 0.0f); // trunc(64 * 0.0125) = 0
    EXPECT_TRUE(ctx->irradiance_calls().empty());

    ctx->options().finalgather_rays = 0;
    irradiance({1, 1, 1, 1}); // above the full weight: no record, the options' 0
    irradiance({0.3f, 0.2f, 0.2f, 1}); // scaled: 0 * 0.5 stays 0
    ctx->options().finalgather_rays = -8;
    irradiance({0.3f, 0.2f, 0.2f, 1}); // trunc(-8 * 0.5)
    const std::vector<miIrrad_options> calls = ctx->irradiance_calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].size, 0) << "no record";
    EXPECT_EQ(calls[1].size, 52);
    EXPECT_EQ(calls[1].finalgather_rays, 0);
    EXPECT_EQ(calls[2].finalgather_rays, -4);
    ctx->clear_irradiance_calls();

    for (int rays : {0, -3}) {
        objectSettings(1, rays);
        irradiance({1, 1, 1, 1});
        irradiance({0.105f, 0.1f, 0.1f, 1}); // trunc(-3 * 0.0125) = 0, but not from a positive count
        expectColor(bss->pathWeight, 1, 1, 1, 1, 0); // never divided by such a count, and restored
    }
    const std::vector<miIrrad_options> objectCalls = ctx->irradiance_calls();
    std::vector<int> rays;
    for (const miIrrad_options &o : objectCalls) {
        rays.push_back(o.finalgather_rays);
        EXPECT_EQ(o.finalgather_maxradius, 7.5f) << "the object's record";
    }
    EXPECT_EQ(rays, (std::vector<int>{0, 0, -3, 0}));
    EXPECT_TRUE(gatherWeights.empty()) << "no ray to gather with";
}

// ------------------------------------------------------------ derivatives

class Derivs : public Irradiance {
protected:
    void prepare() override
    {
        Irradiance::prepare();
        mirt::InstanceDesc desc; // object space scaled by (2, 3, 4)
        desc.local_to_global[0] = 2, desc.local_to_global[5] = 3, desc.local_to_global[10] = 4;
        st->instance = mirt::build_instance(mirt::make_plane(1, 1, 1, 1), desc).instance;
        const miMatrix cam = {0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1, 0, 5, 6, 7, 1}; // x -> y, y -> -x
        ctx->set_camera_transform(cam);
        st->bump_x_list[0] = {1, 0, 0}, st->bump_y_list[0] = {0, 1, 0};
        st->bump_x_list[1] = {0, 0, 2}, st->bump_y_list[1] = {3, 0, 0};
        st->derivs[0] = {0.5f, 0, 0}, st->derivs[1] = {0, 0.75f, 0};
        ctx->set_query_int(miQ_NUM_BUMPS, 2);
        ctx->set_query_int(miQ_DERIVS, 1);
    }
    void expect(int space, int index, miVector du, miVector dv)
    {
        miVector a{-9, -9, -9}, b{-9, -9, -9};
        get_derivs(st, &a, &b, space, index);
        SCOPED_TRACE(testing::Message() << "space " << space << " index " << index);
        expectVec(a, du, 1e-6f, "du");
        expectVec(b, dv, 1e-6f, "dv");
    }
};

TEST_F(Derivs, BumpBasisOfTheRequestedTextureSpace)
{
    expect(2, 1, {0, 0, 2}, {3, 0, 0});
    for (int index : {0, 2, -1})
        expect(2, index, {1, 0, 0}, {0, 1, 0});
    expect(0, 1, {0, 0, 8}, {6, 0, 0});
    expect(1, 0, {0, -2, 0}, {3, 0, 0}); // object -> internal -> camera
    expect(7, 1, {0, 0, 2}, {3, 0, 0});
}

TEST_F(Derivs, FallBackToDerivativesThenCameraAxes)
{
    st->bump_y_list[0] = {0, 9e-6f, 0}; // negligible
    expect(0, 0, {0.5f, 0, 0}, {0, 0.75f, 0});
    expect(2, 0, {0.25f, 0, 0}, {0, 0.25f, 0});
    expect(1, 0, {0, -0.5f, 0}, {0.75f, 0, 0});
    ctx->fail_query(miQ_NUM_BUMPS);
    expect(0, 1, {0.5f, 0, 0}, {0, 0.75f, 0});
    st->derivs[1] = {0, 0, 0};
    miVector du, dv;
    get_derivs(st, &du, &dv, 1, 0);
    const miVector x{1, 0, 0}, y{0, 1, 0};
    EXPECT_EQ(std::memcmp(&du, &x, 12) | std::memcmp(&dv, &y, 12), 0) << "camera axes exactly";
    expect(0, 0, {0, 1, 0}, {-1, 0, 0}); // camera -> internal
    expect(2, 0, {0, 1.0f / 3, 0}, {-0.5f, 0, 0});
    ctx->set_query_int(miQ_DERIVS, 0);
    st->derivs[1] = {0, 0.75f, 0};
    expect(7, 0, {1, 0, 0}, {0, 1, 0});
}

} // namespace
