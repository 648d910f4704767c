/*
 * The renderer-layer calls the host's shaders rely on, where a fault would
 * not show in a host image: the light sampling loop's sample count while it
 * runs, the mirror-ray hit test of a rectangular light, and the database
 * items the shader loader makes while it checks a shader's defaults.
 */
#include "runtime.h"
#include "shader_loader.h"

#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

/* A light shader that lights every sample in white. */
miBoolean whiteLight(void *result, miState *, void *)
{
    *static_cast<miColor *>(result) = miColor{1, 1, 1, 1};
    return miTRUE;
}

class RendererLayer : public RuntimeTest {
protected:
    RendererLayer() : RuntimeTest(4, 4) {}
    miTag white() { return mirt::make_function(miSHADER_LIGHT, whiteLight, nullptr, 0, 16, false, "white"); }
};

/* Inside the loop *samples is the number of samples taken so far (k + 1 at
   the k-th sample), and after it the light's sample count: 1 for a point
   light, the rectangle's own count for a rectangular light. */
TEST_F(RendererLayer, SampleLightCountsTheSamplesTakenWhileItLoops)
{
    struct Case {
        const char *light;
        int samples;
    };
    for (const Case &k : {Case{"point", 1}, Case{"rect", 3}, Case{"rect", 5}}) {
        SCOPED_TRACE(std::string(k.light) + " " + std::to_string(k.samples));
        const miTag light = std::string(k.light) == "point"
                                ? ctx->add_point_light({0, 0, 5}, white())
                                : ctx->add_rect_light({0, 0, 5}, {1, 0, 0}, {0, 1, 0}, k.samples, white());
        miState *st = beginState();
        st->point = {0, 0, 0};
        st->normal = {0, 0, 1};
        miColor c;
        miVector dir;
        miScalar dotNL;
        int n = -1;
        std::vector<int> during;
        while (mi_sample_light(&c, &dir, &dotNL, st, light, &n))
            during.push_back(n);
        ASSERT_EQ(during.size(), size_t(k.samples));
        for (size_t i = 0; i < during.size(); ++i)
            EXPECT_EQ(during[i], int(i) + 1) << "sample " << i;
        EXPECT_EQ(n, k.samples);
    }
}

/* A long thin light, 4 wide along x and 1 along y, in the plane z = 2 above
   the origin: the mirror direction is returned as it is when the ray from
   the origin crosses the rectangle, else the direction to the nearest point
   of its edges.  A thin light tells its two axes apart: a target at x = 1.5
   lies inside, the same offset along y outside. */
TEST_F(RendererLayer, AreaLightHitTestUsesTheRectangleItsAxesSpan)
{
    const miTag light = ctx->add_rect_light({0, 0, 2}, {2, 0, 0}, {0, 0.5f, 0}, 1, white());
    const miVector corners[4] = {{-2, -0.5f, 2}, {2, -0.5f, 2}, {2, 0.5f, 2}, {-2, 0.5f, 2}};
    auto unit = [](miVector v) {
        const float l = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
        return miVector{v.x / l, v.y / l, v.z / l};
    };
    struct Case {
        miVector r, want;
    };
    const Case cases[] = {
        {{1.5f, 0, 2}, {1.5f, 0, 2}},         /* inside, along the long axis */
        {{1.9f, 0.45f, 2}, {1.9f, 0.45f, 2}}, /* inside, near a corner */
        {{0, 1.5f, 2}, {0, 0.5f, 2}},         /* outside along y: the near long edge's middle */
        {{0, -0.75f, 2}, {0, -0.5f, 2}},      /* the same below */
        {{2.5f, 0, 2}, {2, 0, 2}},            /* outside along x: the short edge's middle */
    };
    const miVector origin{0, 0, 0};
    for (const Case &k : cases) {
        miVector out{9, 9, 9};
        arealight_max_phong_spec_dir(&origin, &k.r, corners, light, &out);
        SCOPED_TRACE(testing::Message() << k.r.x << " " << k.r.y);
        expectVec(out, unit(k.want), 1e-6f);
    }
}

/* Resolving a shader checks its declared defaults by filling a scratch
   block; the string default ("hello") makes a string item for that, which
   must be deleted again.  Tags are handed out in order and never reused, so
   every item made between two marker strings must be gone afterwards. */
TEST_F(RendererLayer, CheckingShaderDefaultsLeavesNoStringBehind)
{
    mirt::ShaderLibraries libs;
    libs.link("libtest_shaders.so", {DRUX_TEST_SHADER_DIR});
    const miTag before = mirt::db_create_string("before");
    const mirt::LoadedShader &s = libs.shader("allTypes");
    const miTag after = mirt::db_create_string("after");
    ASSERT_NE(s.param("str"), nullptr);
    ASSERT_GT(after, before + 1) << "checking the defaults made no string item at all";
    for (miTag t = before + 1; t < after; ++t)
        EXPECT_EQ(mirt::db_data(t), nullptr) << "item " << t << " made while checking the defaults is still there";
    mirt::db_delete(before);
    mirt::db_delete(after);
}

} // namespace
