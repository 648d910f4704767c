/*
 * The reference host renderer: whole renders through the runtime, checked
 * against the invariants of its pass design.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "host_test_scene.h"

#include <functional>
#include <iterator>

namespace {

/* Every pixel of beauty is the main image and the sum of the additive
   passes, within kTol (float sums in a different order), with the tinted
   glass taking final-gather light or not: each colour channel of the glass
   weights its indirect light by that channel's own opacity. */
TEST_F(HostRender, AdditivePassesSumToBeautyAndBeautyIsTheShadedColour)
{
    for (const bool glassGathers : {false, true}) {
        SCOPED_TRACE(glassGathers ? "glass with final gathering" : "glass without final gathering");
        SceneDesc s = testScene();
        ASSERT_EQ(s.materials[2].name, "glass");
        if (glassGathers) { /* a strong tint, and diffuse enough for its indirect light to count */
            s.materials[2].indirect = true;
            s.materials[2].transparency = {0.3f, 0.6f, 0.9f, 1};
            s.materials[2].diffuse = {0.8f, 0.8f, 0.8f, 1};
            s.materials[2].kd = 1.0f;
        }
        const RenderResult r = renderWith(s, 2);
        const Image *beauty = r.pass("beauty");
        ASSERT_NE(beauty, nullptr);
        int checked = 0;
        for (int y = 0; y < s.height; ++y)
            for (int x = 0; x < s.width; ++x) {
                miColor sum{0, 0, 0, 0};
                for (size_t p = 0; p < r.passes.size(); ++p)
                    if (isAdditive(r.passRoles[p])) {
                        const miColor c = r.passes[p].at(x, y);
                        sum.r += c.r;
                        sum.g += c.g;
                        sum.b += c.b;
                    }
                ASSERT_LE(maxDiff(sum, beauty->at(x, y)), kTol) << "pixel " << x << ", " << y;
                ASSERT_LE(maxDiff(r.main.at(x, y), beauty->at(x, y)), kTol) << "pixel " << x << ", " << y;
                ++checked;
            }
        EXPECT_EQ(checked, s.width * s.height);
        /* every component really took part */
        for (const char *name : {"beauty", "diffuse", "specular", "reflection", "refraction", "indirect", "scatter",
                                 "background", "shadow", "key", "fill", "rim"})
            EXPECT_GT(maxRGB(*r.pass(name)), 0.01f) << name << " stayed black";
        /* the non-material pass holds its constant colour everywhere */
        const Image *matte = r.pass("matte");
        const miColor constant{0.25f, 0.5f, 0.75f, 1};
        for (int y = 0; y < s.height; ++y)
            for (int x = 0; x < s.width; ++x) {
                const miColor c = matte->at(x, y);
                ASSERT_EQ(std::memcmp(&c, &constant, sizeof c), 0) << "pixel " << x << ", " << y;
            }
        EXPECT_EQ(r.stats.errors, 0u);
        EXPECT_EQ(r.stats.warnings, 0u);
    }
}

TEST_F(HostRender, IdenticalWithOneAndTwoThreads)
{
    const SceneDesc s = testScene();
    const RenderResult one = renderWith(s, 1, 8);
    const RenderResult two = renderWith(s, 2, 4);
    EXPECT_EQ(one.stats.threads, 1);
    EXPECT_EQ(two.stats.threads, 2);
    EXPECT_TRUE(sameBits(one.main, two.main));
    ASSERT_EQ(one.passes.size(), two.passes.size());
    for (size_t p = 0; p < one.passes.size(); ++p)
        EXPECT_TRUE(sameBits(one.passes[p], two.passes[p])) << one.passNames[p];
}

/* No environment, no indirect light and no scattering: every bit of light
   comes from a lamp, so light groups account for all of beauty. */
SceneDesc lampsOnly()
{
    SceneDesc s = testScene();
    s.environment.zenith = s.environment.horizon = s.environment.ground = miColor{0, 0, 0, 1};
    s.options.finalgather = false;
    for (MaterialDesc &m : s.materials)
        m.scatterRadius = 0;
    return s;
}

TEST_F(HostRender, MaskedLightsReachOnlyTheirGroups)
{
    const SceneDesc all = lampsOnly();
    SceneDesc keyOnly = all;
    keyOnly.lights.erase(keyOnly.lights.begin() + 1, keyOnly.lights.end());
    ASSERT_EQ(keyOnly.lights.size(), 1u);
    ASSERT_EQ(keyOnly.lights[0].name, "key");

    const RenderResult a = renderWith(all, 2);
    const RenderResult k = renderWith(keyOnly, 2);
    const Image &aKey = *a.pass("key"), &aFill = *a.pass("fill"), &aRim = *a.pass("rim");
    for (int y = 0; y < all.height; ++y)
        for (int x = 0; x < all.width; ++x) {
            /* the key group of the full render is what the key light alone gives */
            ASSERT_LE(maxDiff(aKey.at(x, y), k.pass("beauty")->at(x, y)), kTol) << x << ", " << y;
            ASSERT_LE(maxDiff(aKey.at(x, y), k.pass("key")->at(x, y)), kTol) << x << ", " << y;
            /* the other groups see nothing of it */
            ASSERT_EQ(maxDiff(k.pass("fill")->at(x, y), miColor{0, 0, 0, 0}), 0.0f);
            ASSERT_EQ(maxDiff(k.pass("rim")->at(x, y), miColor{0, 0, 0, 0}), 0.0f);
            /* and the three groups together make beauty */
            const miColor g{aKey.at(x, y).r + aFill.at(x, y).r + aRim.at(x, y).r,
                            aKey.at(x, y).g + aFill.at(x, y).g + aRim.at(x, y).g,
                            aKey.at(x, y).b + aFill.at(x, y).b + aRim.at(x, y).b, 0};
            ASSERT_LE(maxDiff(g, a.pass("beauty")->at(x, y)), 3 * kTol) << x << ", " << y;
        }
    EXPECT_GT(maxRGB(aFill), 0.01f);
    EXPECT_GT(maxRGB(aRim), 0.01f);
}

TEST_F(HostRender, ShadowPassIsTheLightTakenAway)
{
    /* indirect light and scattering light their points with shadows of their
       own, so they stay out of this comparison */
    SceneDesc shadowed = testScene();
    shadowed.options.finalgather = false;
    for (MaterialDesc &m : shadowed.materials)
        m.scatterRadius = 0;
    SceneDesc open = shadowed;
    /* only the lights that take part in the pass protocol lose their
       shadows; the plain light keeps its own in both renders */
    for (LightDesc &l : open.lights)
        if (l.kind != LightKind::Plain)
            l.shadow = false;

    const RenderResult a = renderWith(shadowed, 2);
    const RenderResult b = renderWith(open, 2);
    float taken = 0;
    for (int y = 0; y < shadowed.height; ++y)
        for (int x = 0; x < shadowed.width; ++x) {
            const miColor lit = b.pass("beauty")->at(x, y), dark = a.pass("beauty")->at(x, y);
            const miColor lost{lit.r - dark.r, lit.g - dark.g, lit.b - dark.b, 0};
            ASSERT_LE(maxDiff(lost, a.pass("shadow")->at(x, y)), kTol) << x << ", " << y;
            ASSERT_EQ(maxDiff(b.pass("shadow")->at(x, y), miColor{0, 0, 0, 0}), 0.0f);
            taken = std::max(taken, lost.r);
        }
    EXPECT_GT(taken, 0.05f) << "the scene casts no shadow worth the name";
}

TEST_F(HostRender, EyeRaysThatMissShowTheSky)
{
    SceneDesc s = testScene();
    s.camera.position = {0, 0, 1};
    s.camera.target = {0, 0.2f, 5};
    s.camera.up = {0, 1, 0};
    s.samples = 1;
    const RenderResult r = renderWith(s, 2);
    EnvironmentParams env = environmentParams(s.environment);
    for (int y = 0; y < s.height; y += 7)
        for (int x = 0; x < s.width; x += 5) {
            const miColor b = r.pass("beauty")->at(x, y), bg = r.pass("background")->at(x, y);
            EXPECT_LE(maxDiff(b, bg), 0.0f);
            EXPECT_EQ(b.a, 0.0f) << "nothing covers the pixel";
            EXPECT_EQ(bg.a, 1.0f);
            EXPECT_EQ(maxDiff(r.pass("diffuse")->at(x, y), miColor{0, 0, 0, 0}), 0.0f);
            EXPECT_GT(b.b, 0.0f);
        }
    /* the sky's colours: zenith straight up, horizon level, ground below */
    const miColor up = skyColor(env, {0, 0, 1}), level = skyColor(env, {1, 0, 0}), down = skyColor(env, {0, 0, -1});
    expectRGB(up, s.environment.zenith.r, s.environment.zenith.g, s.environment.zenith.b, 1e-5f, "zenith");
    expectRGB(level, s.environment.horizon.r, s.environment.horizon.g, s.environment.horizon.b, 1e-5f, "horizon");
    expectRGB(down, s.environment.ground.r, s.environment.ground.g, s.environment.ground.b, 1e-5f, "ground");
    env.intensity = 2;
    expectRGB(skyColor(env, {0, 0, 1}), 2 * s.environment.zenith.r, 2 * s.environment.zenith.g,
              2 * s.environment.zenith.b, 1e-5f, "zenith, intensity 2");
}

/* One render of the full scene: its progress runs from 0 to 1 without going
   back, and afterwards no pin, interface handle or memory is left. */
TEST_F(HostRender, ProgressRunsToOneAndNothingIsLeakedOrPinned)
{
    const int64_t noiseBefore = mirt::mem_live_bytes("SDK/druxNoise");
    std::vector<double> seen;
    RenderOptions o;
    o.threads = 2;
    o.progress = [&](double f) { seen.push_back(f); };
    const RenderResult r = render(testScene(), o);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 1.0);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_GE(seen[i], i ? seen[i - 1] : 0.0);
        EXPECT_LE(seen[i], 1.0);
    }

    EXPECT_EQ(r.stats.pinsAfter, 0);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    for (const TagMemory &m : r.stats.memory) {
        if (m.tag == "SDK/druxNoise") {
            /* the gradient table, built once for the process: 65,535 gradients of 12 bytes */
            EXPECT_EQ(m.after, 65535 * 12);
            EXPECT_TRUE(noiseBefore == 0 || noiseBefore == 65535 * 12);
        } else {
            EXPECT_EQ(m.after, 0) << m.tag;
        }
        if (m.tag == "SDK/druxFrameBufferState") {
            EXPECT_GT(m.atEnd, 0) << "the states' slot blocks were alive at the last sample";
        }
        if (m.tag == "SDK/druxScatter") {
            EXPECT_GT(m.atEnd, 0) << "the wax ball built a scattering cache";
        }
    }
    EXPECT_EQ(mirt::shader_interface_outstanding(), 0);
    EXPECT_EQ(r.stats.eyeSamples, 40u * 30u * 2u);
}

TEST_F(HostRender, WithoutPassesOrLights)
{
    /* no frame-buffer block at all: the shaders run without entries */
    SceneDesc s = testScene();
    s.passes.clear();
    const RenderResult r = renderWith(s, 2);
    EXPECT_TRUE(r.passes.empty());
    EXPECT_GT(maxRGB(r.main), 0.05f);
    EXPECT_EQ(r.stats.errors, 0u);
    EXPECT_EQ(r.stats.pinsAfter, 0);

    /* only a non-material pass: no entries, the constant colour still arrives */
    SceneDesc onlyConstant = testScene();
    onlyConstant.passes.erase(onlyConstant.passes.begin(), onlyConstant.passes.end() - 1);
    ASSERT_EQ(onlyConstant.passes[0].role, PassRole::Constant);
    const RenderResult c = renderWith(onlyConstant, 2);
    for (int y = 0; y < onlyConstant.height; y += 3)
        for (int x = 0; x < onlyConstant.width; x += 3) {
            const miColor m = c.passes[0].at(x, y);
            ASSERT_EQ(m.g, 0.5f);
            ASSERT_EQ(m.a, 1.0f);
        }
    EXPECT_EQ(mirt::mem_live_bytes("SDK/druxFrameBufferState"), 0);
    EXPECT_EQ(c.stats.errors, 0u);

    /* no lights: the surfaces get only what the sky gives */
    SceneDesc dark = lampsOnly();
    dark.lights.clear();
    const RenderResult d = renderWith(dark, 2);
    EXPECT_EQ(maxRGB(*d.pass("beauty")), 0.0f);
    EXPECT_EQ(maxRGB(d.main), 0.0f);
}

TEST_F(HostRender, InvalidScenesAreRefused)
{
    const std::function<void(SceneDesc &)> changes[] = {
        [](SceneDesc &s) { s.instances[0].material = "nosuch"; },
        [](SceneDesc &s) { s.samples = 0; },
        [](SceneDesc &s) { s.passes.push_back(pass("beauty", PassRole::Diffuse)); },
        [](SceneDesc &s) { s.camera.target = s.camera.position; },
    };
    for (size_t i = 0; i < std::size(changes); ++i) {
        SceneDesc s = testScene();
        changes[i](s);
        EXPECT_THROW(render(s), SceneError) << "change " << i;
    }
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostRender, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
