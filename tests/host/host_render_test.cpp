/*
 * The reference host renderer: whole renders through the runtime, checked
 * against the invariants of its pass design and against hand calculation;
 * the ray-tracing scene against the exact triangle test; its exporter's block as
 * the library reads it; the scene format; the output files.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "exporter.h"
#include "image_io.h"
#include "meshes.h"
#include "render.h"
#include "scene.h"
#include "scene_keys.h"
#include "shaders.h"

#include "DruxShaderSDK.h"
#include "geometry.h"
#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace druxhost;

namespace {

constexpr float kTol = 1e-4f;

class HostRender : public RuntimeTest {};

float maxDiff(const miColor &a, const miColor &b)
{
    return std::max({std::fabs(a.r - b.r), std::fabs(a.g - b.g), std::fabs(a.b - b.b)});
}

float maxRGB(const Image &img)
{
    float m = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            const miColor c = img.at(x, y);
            m = std::max({m, c.r, c.g, c.b});
        }
    return m;
}

PassDesc pass(const char *name, PassRole role, const char *group = "")
{
    PassDesc p;
    p.name = name;
    p.role = role;
    p.group = group;
    return p;
}

/* A small scene with every kind of shader and pass: a textured, bumped,
   slightly reflective floor; a mirror ball; a glass box (refraction and a
   transparent shadow); a wax ball (scattering, translucence); a rectangular
   light with several shadow rays, a point light and a light that knows
   nothing of passes, each in its own light group. */
SceneDesc testScene()
{
    SceneDesc s;
    s.width = 40;
    s.height = 30;
    s.samples = 2;
    s.camera.position = {0, -6, 2.5f};
    s.camera.target = {0, 0, 0.6f};
    s.camera.fov = 50;
    s.options.finalgather = true;
    s.options.fgRays = 4;
    s.options.traceDepth = 4;

    TextureDesc t;
    t.name = "tex";
    t.pattern = static_cast<int>(TexturePattern::Marble);
    t.scale = 1.0f;
    t.octaves = 2;
    t.ramp = {{0.0f, {0.8f, 0.7f, 0.6f, 1}, RAMP_LINEAR}, {1.0f, {0.3f, 0.35f, 0.4f, 1}, RAMP_SMOOTH}};
    s.textures.push_back(t);

    MaterialDesc floor;
    floor.name = "floor";
    floor.texture = "tex";
    floor.kd = 0.8f;
    floor.specular = {0.2f, 0.2f, 0.2f, 1};
    floor.reflectivity = 0.2f;
    floor.bump = 0.05f;
    s.materials.push_back(floor);
    MaterialDesc mirror;
    mirror.name = "mirror";
    mirror.diffuse = {0.2f, 0.2f, 0.2f, 1};
    mirror.kd = 0.3f;
    mirror.specular = {0.8f, 0.8f, 0.8f, 1};
    mirror.model = static_cast<int>(SpecularModel::Blinn);
    mirror.reflectivity = 0.7f;
    mirror.reflectBlur = 0.1f;
    mirror.reflectRays = 2;
    s.materials.push_back(mirror);
    MaterialDesc glass;
    glass.name = "glass";
    glass.diffuse = {0.1f, 0.1f, 0.1f, 1};
    glass.kd = 0.2f;
    glass.specular = {1, 1, 1, 1};
    glass.exponent = 80;
    glass.reflectivity = 0.1f;
    glass.transparency = {0.8f, 0.85f, 0.9f, 1};
    glass.ior = 1.4f;
    glass.indirect = false;
    s.materials.push_back(glass);
    MaterialDesc wax;
    wax.name = "wax";
    wax.diffuse = {0.9f, 0.6f, 0.4f, 1};
    wax.kd = 0.4f;
    wax.translucence = 0.3f;
    wax.scatterRadius = 0.4f;
    wax.scatterScale = {0.5f, 0.4f, 0.3f, 1};
    wax.scatterSamples = 3;
    s.materials.push_back(wax);

    MeshDesc plane;
    plane.name = "plane";
    plane.kind = MeshKind::Plane;
    plane.a = plane.b = 12;
    s.meshes.push_back(plane);
    MeshDesc ball;
    ball.name = "ball";
    ball.kind = MeshKind::Sphere;
    ball.a = 0.7f;
    ball.n = 16;
    ball.m = 8;
    s.meshes.push_back(ball);
    MeshDesc box;
    box.name = "box";
    box.kind = MeshKind::Box;
    box.a = box.b = box.c = 0.9f;
    s.meshes.push_back(box);

    auto inst = [&](const char *name, const char *mesh, const char *mat, miVector at) {
        InstanceDesc i;
        i.name = name;
        i.mesh = mesh;
        i.material = mat;
        i.steps.push_back({TransformStep::Translate, at});
        s.instances.push_back(i);
    };
    inst("floor", "plane", "floor", {0, 0, 0});
    inst("mirrorball", "ball", "mirror", {-1.4f, 0.6f, 0.7f});
    inst("glassbox", "box", "glass", {0.1f, -0.8f, 0.5f});
    inst("waxball", "ball", "wax", {1.5f, 0.3f, 0.7f});

    LightDesc key;
    key.name = "key";
    key.kind = LightKind::Rect;
    key.position = {-2, -3, 4};
    key.u = {0.6f, -0.4f, 0};
    key.v = {-0.2f, -0.3f, -0.4f};
    key.intensity = 25;
    key.samples = 2;
    key.shadowSamples = 2;
    key.group = "key";
    s.lights.push_back(key);
    LightDesc fill;
    fill.name = "fill";
    fill.position = {3, -2, 3};
    fill.color = {0.6f, 0.7f, 1, 1};
    fill.intensity = 8;
    fill.group = "fill";
    s.lights.push_back(fill);
    LightDesc rim;
    rim.name = "rim";
    rim.kind = LightKind::Plain;
    rim.position = {0.5f, 4, 3};
    rim.intensity = 6;
    rim.group = "rim";
    s.lights.push_back(rim);

    s.passes = {pass("beauty", PassRole::Beauty),         pass("diffuse", PassRole::Diffuse),
                pass("specular", PassRole::Specular),     pass("reflection", PassRole::Reflection),
                pass("refraction", PassRole::Refraction), pass("indirect", PassRole::Indirect),
                pass("scatter", PassRole::Scatter),       pass("background", PassRole::Background),
                pass("shadow", PassRole::Shadow),         pass("key", PassRole::LightGroup, "key"),
                pass("fill", PassRole::LightGroup, "fill"), pass("rim", PassRole::LightGroup, "rim")};
    PassDesc matte = pass("matte", PassRole::Constant);
    matte.constant = {0.25f, 0.5f, 0.75f, 1};
    s.passes.push_back(matte);
    return s;
}

RenderResult renderWith(const SceneDesc &s, int threads, int tile = 8)
{
    RenderOptions o;
    o.threads = threads;
    o.tileSize = tile;
    return render(s, o);
}

bool sameBits(const Image &a, const Image &b)
{
    return a.width == b.width && a.height == b.height &&
           std::memcmp(a.rgba.data(), b.rgba.data(), a.rgba.size() * sizeof(float)) == 0;
}

/* ------------------------------------------------------------------ renders */

TEST_F(HostRender, AdditivePassesSumToBeautyAndBeautyIsTheShadedColour)
{
    const SceneDesc s = testScene();
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
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            const miColor c = matte->at(x, y);
            ASSERT_EQ(c.r, 0.25f);
            ASSERT_EQ(c.g, 0.5f);
            ASSERT_EQ(c.b, 0.75f);
            ASSERT_EQ(c.a, 1.0f);
        }
    EXPECT_EQ(r.stats.errors, 0u);
    EXPECT_EQ(r.stats.warnings, 0u);
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

TEST_F(HostRender, ProgressGoesFromZeroToOne)
{
    std::vector<double> seen;
    RenderOptions o;
    o.threads = 2;
    o.progress = [&](double f) { seen.push_back(f); };
    render(testScene(), o);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 1.0);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_GE(seen[i], 0.0);
        EXPECT_LE(seen[i], 1.0);
        if (i) {
            EXPECT_GE(seen[i], seen[i - 1]);
        }
    }
}

TEST_F(HostRender, NothingLeakedNothingPinned)
{
    const int64_t noiseBefore = mirt::mem_live_bytes("SDK/druxNoise");
    const RenderResult r = renderWith(testScene(), 2);
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
    SceneDesc s = testScene();
    s.instances[0].material = "nosuch";
    EXPECT_THROW(render(s), SceneError);
    s = testScene();
    s.samples = 0;
    EXPECT_THROW(render(s), SceneError);
    s = testScene();
    s.passes.push_back(pass("beauty", PassRole::Diffuse));
    EXPECT_THROW(render(s), SceneError);
    s = testScene();
    s.camera.target = s.camera.position;
    EXPECT_THROW(render(s), SceneError);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

/* ------------------------------------------------------------------ ray casting */

/* The render's scene (Embree) finds on random rays what testing every
   triangle exactly finds: same instance, box and triangle, distance within
   1e-5, the same filled hit; and tmax cuts a hit off. */
TEST(HostRayCasting, SceneFindsWhatTheExactTestFinds)
{
    mirt::reset();
    std::vector<mirt::GeometryTags> made;
    mirt::MeshScene scene;
    auto add = [&](const mirt::Mesh &mesh, const Matrix &m, int objectType = 0) {
        mirt::InstanceDesc d;
        std::copy(m.begin(), m.end(), d.local_to_global);
        d.object_type = objectType;
        const mirt::GeometryTags g = mirt::build_instance(mesh, d);
        made.push_back(g);
        scene.add(g);
    };
    mirt::Mesh plane = mirt::make_plane(6, 6, 3, 3);
    plane.triangles_per_box = 5; /* several boxes */
    add(plane, identity());
    add(mirt::make_sphere(0.8f, 20, 10), multiply(scaling({1, 1.5f, 1}), translation({-1, 0.5f, 1})));
    add(mirt::make_torus(0.7f, 0.25f, 24, 12), multiply(rotation(0, 60), translation({1.2f, 0, 1})), 2);
    add(mirt::make_box(0.6f, 0.6f, 0.6f), multiply(rotation(2, 30), translation({0, -1.5f, 0.3f})));
    scene.build();
    EXPECT_EQ(scene.triangle_count(), 18u + 20u * 10u * 2u - 2u * 20u + 24u * 12u * 2u + 12u);

    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1, 1);
    int hits = 0, ties = 0;
    for (int i = 0; i < 5000; ++i) {
        const miVector org{3 * u(rng), 3 * u(rng), 1.5f + 1.5f * u(rng)};
        const miVector dir = normalized({u(rng), u(rng), u(rng)});
        if (length(dir) == 0)
            continue;
        mirt::Hit a, b;
        const bool ha = scene.intersect(org, dir, 1e-4, 1e30, a);
        const bool hb = scene.intersect_exact(org, dir, 1e-4, 1e30, b);
        ASSERT_EQ(ha, hb) << "ray " << i;
        if (!ha)
            continue;
        ++hits;
        ASSERT_NEAR(a.dist, b.dist, 1e-5) << "ray " << i;
        if (a.pri != b.pri || a.pri_idx != b.pri_idx) {
            /* the box's floor lies on the plane: a tie at the same distance
               may go to either surface */
            ASSERT_NEAR(a.dist, b.dist, 1e-9) << "ray " << i;
            ++ties;
            continue;
        }
        ASSERT_EQ(a.instance, b.instance) << "ray " << i;
        for (int k = 0; k < 3; ++k)
            ASSERT_NEAR(a.bary[k], b.bary[k], 1e-6f);
        ASSERT_LE(maxDiff({a.normal.x, a.normal.y, a.normal.z, 0}, {b.normal.x, b.normal.y, b.normal.z, 0}), 1e-6f);
        ASSERT_LE(maxDiff({a.normal_geom.x, a.normal_geom.y, a.normal_geom.z, 0},
                          {b.normal_geom.x, b.normal_geom.y, b.normal_geom.z, 0}),
                  1e-6f);
        ASSERT_EQ(a.num_tex, b.num_tex);
        ASSERT_EQ(a.num_bumps, b.num_bumps);
        ASSERT_EQ(a.has_derivs, b.has_derivs);
        if (a.num_tex) {
            ASSERT_LE(maxDiff({a.tex[0].x, a.tex[0].y, a.tex[0].z, 0}, {b.tex[0].x, b.tex[0].y, b.tex[0].z, 0}),
                      1e-6f);
        }
        if (a.has_derivs) {
            ASSERT_LE(maxDiff({a.derivs[0].x, a.derivs[0].y, a.derivs[0].z, 0},
                              {b.derivs[0].x, b.derivs[0].y, b.derivs[0].z, 0}),
                      1e-5f);
        }
        /* tmax cuts the hit off; from just past it the next surface is found */
        mirt::Hit c, d;
        ASSERT_FALSE(scene.intersect(org, dir, 1e-4, a.dist * 0.999, c));
        const bool hc = scene.intersect(org, dir, a.dist + 1e-3, 1e30, c);
        ASSERT_EQ(hc, scene.intersect_exact(org, dir, a.dist + 1e-3, 1e30, d)) << "ray " << i;
        if (hc) {
            ASSERT_GT(c.dist, a.dist);
            ASSERT_NEAR(c.dist, d.dist, 1e-5) << "ray " << i;
        }
    }
    EXPECT_GT(hits, 1000);
    EXPECT_LT(ties, 20);
    for (const mirt::GeometryTags &g : made)
        mirt::delete_instance(g);
}

TEST(HostRayCasting, EmptySceneAndAxisAlignedRays)
{
    mirt::reset();
    mirt::MeshScene empty;
    empty.build();
    mirt::Hit h;
    EXPECT_FALSE(empty.intersect({0, 0, 0}, {0, 0, 1}, 0, 1e30, h));

    /* rays along the axes at a flat plane, straight at it and edge-on */
    mirt::MeshScene flat;
    const mirt::GeometryTags g = mirt::build_instance(mirt::make_plane(2, 2, 1, 1), mirt::InstanceDesc());
    flat.add(g);
    flat.build();
    ASSERT_TRUE(flat.intersect({0.25f, 0.5f, 3}, {0, 0, -1}, 1e-4, 1e30, h));
    EXPECT_NEAR(h.dist, 3.0, 1e-9);
    EXPECT_FLOAT_EQ(h.point.x, 0.25f);
    EXPECT_FLOAT_EQ(h.point.y, 0.5f);
    EXPECT_FLOAT_EQ(h.tex[0].x, 0.625f); /* u = (x + 1) / 2 */
    EXPECT_FLOAT_EQ(h.tex[0].y, 0.75f);
    EXPECT_FALSE(flat.intersect({0.25f, 0.5f, 3}, {1, 0, 0}, 1e-4, 1e30, h));
    EXPECT_FALSE(flat.intersect({0.25f, 0.5f, 3}, {0, 0, 1}, 1e-4, 1e30, h));
    EXPECT_FALSE(flat.intersect({3, 0, 0}, {-1, 0, 0}, 1e-4, 1e30, h)); /* in the plane: edge-on */
    mirt::delete_instance(g);
}

/* ------------------------------------------------------------------ exporter */

TEST(HostExporter, MaskTextDigits)
{
    EXPECT_EQ(maskText({}), "");
    EXPECT_EQ(maskText({true}), "1");
    EXPECT_EQ(maskText({false, false, false, true}), "8");
    EXPECT_EQ(maskText({true, false, false, false, false, true}), "12");
    EXPECT_EQ(maskText({true, true, true, true, true, true, true, true, false}), "FF0");
}

TEST(HostExporter, BlockAsTheLibraryReadsIt)
{
    mirt::reset();
    const SceneDesc s = testScene();
    const PassLayout layout = layoutPasses(s);
    ASSERT_EQ(layout.entryPass.size(), 12u);
    ASSERT_EQ(layout.constantPass.size(), 1u);

    mirt::Context ctx(4, 4);
    std::vector<miTag> names;
    for (int pi : layout.entryPass)
        ctx.add_framebuffer(s.passes[size_t(pi)].name);
    ctx.add_framebuffer("matte");
    const std::vector<uint32_t> words = buildFbufBlock(s, layout, [&](const std::string &n) {
        names.push_back(mirt::db_create_string(n.c_str()));
        return names.back();
    });
    const miTag block = mirt::db_create_userdata(words.data(), words.size() * 4, 0);
    ctx.attach_camera_userdata(block);
    const miTag sh = mirt::make_function(
        miSHADER_STATE,
        reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)(void)>(&druxFrameBufferState)), nullptr, 0, 0,
        false, "druxFrameBufferState");
    ctx.add_state_shader(sh);
    miState *st = ctx.begin_state(0);
    ctx.begin_sample(st, 0, 0, 0);
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(st, &types, &e);
    ASSERT_EQ(n, 12u);
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), 13u);
    int lastType = -1;
    for (miUint i = 0; i < n; ++i) {
        const PassDesc &p = s.passes[size_t(layout.entryPass[i])];
        const int type = passTypeOf(p.role);
        EXPECT_GE(type, lastType) << "records ordered by type";
        lastType = type;
        EXPECT_EQ(types->range[type].first <= int(i) && int(i) < types->range[type].first + types->range[type].count,
                  true)
            << p.name;
        EXPECT_EQ(e[i].fbId, getNamedFrameBufferID(st, p.name.c_str())) << p.name;
        EXPECT_EQ(static_cast<PassRole>(e[i].hostData[0]), p.role);
        EXPECT_EQ(e[i].hostData[1], static_cast<miUint>(layout.entryPass[i]));
        const bool noTraceAdd = p.role == PassRole::Diffuse || p.role == PassRole::Specular ||
                                p.role == PassRole::Reflection || p.role == PassRole::Refraction ||
                                p.role == PassRole::Indirect || p.role == PassRole::Scatter;
        EXPECT_EQ((e[i].flags & FBINFO_NO_TRACE_ADD) != 0, noTraceAdd) << p.name;
        EXPECT_EQ((e[i].flags & FBINFO_SHADOW_PASS) != 0, p.role == PassRole::Shadow) << p.name;
        const bool shadowed = p.role == PassRole::Beauty || p.role == PassRole::Diffuse ||
                              p.role == PassRole::Specular || p.role == PassRole::Shadow ||
                              p.role == PassRole::LightGroup;
        EXPECT_EQ((e[i].flags & FBINFO_SHADOWED) != 0, shadowed) << p.name;
    }
    /* light masks through the library's own reading of them */
    for (const LightDesc &l : s.lights) {
        const std::string mask = lightMask(s, layout, l);
        for (miUint i = 0; i < n; ++i) {
            const PassDesc &p = s.passes[size_t(layout.entryPass[i])];
            const bool expected = p.role != PassRole::LightGroup || p.group == l.group;
            EXPECT_EQ(contributesToPass(int(i), mask.c_str()) != 0, expected) << l.name << " / " << p.name;
        }
    }
    InstanceDesc inst;
    inst.shadowPasses = {"diffuse", "shadow"};
    const std::string om = occluderMask(s, layout, inst);
    for (miUint i = 0; i < n; ++i) {
        const std::string &name = s.passes[size_t(layout.entryPass[i])].name;
        EXPECT_EQ(contributesToPass(int(i), om.c_str()) != 0, name == "diffuse" || name == "shadow") << name;
    }
    EXPECT_TRUE(occluderMask(s, layout, InstanceDesc()).empty());
    ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/druxFrameBufferState"), 0);
}

/* ------------------------------------------------------------------ scene format */

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

/* The line of `text` numbered `n` (from 1). */
std::string lineOf(const std::string &text, int n)
{
    std::istringstream in(text);
    std::string line;
    for (int i = 0; i < n && std::getline(in, line); ++i) {
    }
    return line;
}

TEST(HostSceneFormat, BuiltInSceneIsTheShippedFileWithItsLines)
{
    const std::string text = readFile(std::string(DRUXHOST_SCENE_DIR) + "/default.scene");
    ASSERT_FALSE(text.empty());
    const SceneDesc s = defaultScene();
    EXPECT_EQ(writeScene(s), writeScene(parseScene(text)));
    ASSERT_EQ(s.links.size(), 1u);
    EXPECT_EQ(lineOf(text, s.links[0].line), "link \"libdruxhostshaders.so\"");
    auto startsWith = [&](int line, const std::string &head) {
        EXPECT_EQ(lineOf(text, line).rfind(head, 0), 0u) << line << ": " << head;
    };
    startsWith(s.resolutionLine, "resolution ");
    startsWith(s.samplesLine, "samples ");
    startsWith(s.camera.line, "camera ");
    startsWith(s.options.line, "options ");
    startsWith(s.environment.line, "environment ");
    auto each = [&](const auto &items, const std::string &command) {
        for (const auto &d : items)
            startsWith(d.line, command + " " + d.name + " ");
    };
    each(s.textures, "texture");
    each(s.materials, "material");
    each(s.meshes, "mesh");
    each(s.instances, "instance");
    each(s.lights, "light");
    each(s.passes, "pass");
}

/* Every material key: a value other than its default is written, read back
   and lands in a field of the shader's block that no other key fills. */
TEST(HostSceneFormat, EveryMaterialKeyRoundTripsIntoItsOwnParameter)
{
    const MaterialDesc fresh;
    const MaterialParams base = materialParams(fresh, nullptr);
    std::vector<int> owner(sizeof(MaterialParams), -1);
    SceneDesc scene = parseScene("texture t ramp 0 1 1 1 1 linear\nshader s anything\n");
    for (size_t i = 0; i < sizeof kMaterialKeys / sizeof kMaterialKeys[0]; ++i) {
        const MaterialKey &k = kMaterialKeys[i];
        MaterialDesc m;
        m.name = k.name;
        switch (k.type) {
        case KeyType::Number: m.*k.number = m.*k.number + 0.25f; break;
        case KeyType::Integer: m.*k.integer = m.*k.integer + 3; break;
        case KeyType::Boolean: m.*k.boolean = !(m.*k.boolean); break;
        case KeyType::Colour: m.*k.colour = miColor{0.125f, 0.5f, 0.75f, 1}; break;
        case KeyType::Choice: m.*k.integer = 1; break;
        case KeyType::Word: m.*k.word = std::string(k.name) == "shader" ? "s" : "t"; break;
        case KeyType::Vector: FAIL() << "a material has no vector key"; break;
        }
        SceneDesc one = scene;
        one.materials = {m};
        const std::string text = writeScene(one);
        EXPECT_NE(text.find("material " + m.name + " " + k.name + " "), std::string::npos) << text;
        const SceneDesc back = parseScene(text);
        EXPECT_EQ(writeScene(back), text);
        if (k.type == KeyType::Word)
            continue;
        const MaterialParams p = materialParams(back.materials[0], nullptr);
        const unsigned char *a = reinterpret_cast<const unsigned char *>(&p);
        const unsigned char *b = reinterpret_cast<const unsigned char *>(&base);
        int changed = 0;
        for (size_t byte = 0; byte < sizeof p; ++byte)
            if (a[byte] != b[byte]) {
                ++changed;
                EXPECT_EQ(owner[byte], -1) << k.name << " writes where " << kMaterialKeys[owner[byte]].name << " does";
                owner[byte] = static_cast<int>(i);
            }
        EXPECT_GT(changed, 0) << k.name << " does not reach the shader's parameters";
    }
}

TEST(HostSceneFormat, WriteThenParseGivesTheSameScene)
{
    SceneDesc s = testScene();
    MeshDesc tri;
    tri.name = "tri";
    tri.kind = MeshKind::Triangles;
    tri.P = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0.5f}};
    tri.N = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    tri.uv = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    tri.tris = {{0, 1, 2}};
    s.meshes.push_back(tri);
    tri.name = "flat";
    tri.faceted = true;
    s.meshes.push_back(tri);
    s.meshes[0].faceted = true;
    s.instances[1].steps.push_back({TransformStep::Rotate, {1, 33.5f, 0}});
    s.instances[2].shadowPasses = {"diffuse", "key"};
    s.passes[3].allOccluders = true;
    s.lights[1].sharedShadow = true;
    s.lights[1].shadowColor = {0.1f, 0.2f, 0.3f, 1};
    const std::string text = writeScene(s);
    const SceneDesc back = parseScene(text);
    EXPECT_EQ(writeScene(back), text);
    ASSERT_EQ(back.meshes.back().tris.size(), 1u);
    EXPECT_EQ(back.meshes.back().P[2].z, 0.5f);
    EXPECT_NE(text.find("mesh flat triangles faceted\n"), std::string::npos);
    ASSERT_EQ(back.meshes.size(), s.meshes.size());
    for (size_t i = 0; i < s.meshes.size(); ++i)
        EXPECT_EQ(back.meshes[i].faceted, i == 0 || i + 1 == s.meshes.size()) << i;
    EXPECT_EQ(back.instances[2].shadowPasses.size(), 2u);
    EXPECT_TRUE(back.passes[3].allOccluders);
    EXPECT_TRUE(back.lights[1].sharedShadow);
    EXPECT_EQ(back.passes.back().constant.b, 0.75f);
    EXPECT_EQ(back.textures[0].ramp[1].interpolation, RAMP_SMOOTH);
}

TEST(HostSceneFormat, CommentsBlanksAndDefaults)
{
    const SceneDesc s = parseScene("# a comment\n\n   resolution 8 6   # trailing\nsamples 3\n"
                                   "material m\nmesh p plane 2 2 1 1\ninstance i mesh p material m\n"
                                   "light l point position 0 0 3\npass b beauty\n");
    EXPECT_EQ(s.width, 8);
    EXPECT_EQ(s.height, 6);
    EXPECT_EQ(s.samples, 3);
    EXPECT_EQ(s.materials[0].kd, MaterialDesc().kd);
    EXPECT_EQ(s.lights[0].position.z, 3.0f);
    EXPECT_EQ(s.passes[0].role, PassRole::Beauty);
}

void expectError(const std::string &text, int line, const std::string &fragment)
{
    try {
        parseScene(text);
        ADD_FAILURE() << "accepted: " << text;
    } catch (const SceneError &e) {
        EXPECT_EQ(e.line(), line) << e.what();
        EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
    }
}

TEST(HostSceneFormat, ErrorsNameTheLineAndTheProblem)
{
    expectError("resolution 8 6\nfrobnicate 1\n", 2, "unknown command \"frobnicate\"");
    expectError("resolution 8\n", 1, "missing height");
    expectError("samples four\n", 1, "\"four\" is not a whole number");
    expectError("\ncamera fov wide\n", 2, "\"wide\" is not a finite number");
    expectError("camera fov nan\n", 1, "not a finite number");
    expectError("material m shininess 3\n", 1, "unknown material key \"shininess\"");
    expectError("light l spot position 0 0 1\n", 1, "is not one of point, rect, plain");
    expectError("light l point center 0 0 1\n", 1, "unknown light key \"center\"");
    expectError("pass p sparkle\n", 1, "unknown pass role \"sparkle\"");
    expectError("mesh t triangles\nv 0 0 0\nv 1 0 0\n", 1, "not closed by \"end\"");
    expectError("mesh t triangles\nv 0 0 0\nq 1 2 3\nend\n", 3, "expected v, vn, vt, f or end");
    expectError("resolution 8 6 7\n", 1, "unexpected \"7\"");
    expectError("mesh b box 1 1 1 smooth\n", 1, "\"smooth\" after a mesh: expected faceted");
    expectError("mesh b sphere 1 8 4 faceted 2\n", 1, "unexpected \"2\"");
    expectError("samples 2\nsamples 3\n", 2, "given twice");
    /* bytes a terminal would interpret are shown escaped, never raw */
    expectError("samples f\x8f\x1b[2J\x7f\n", 1, "\"f\\x8f\\x1b[2J\\x7f\" is not a whole number");
    expectError("frob\xc3\xa9 1\n", 1, "unknown command \"frob\\xc3\\xa9\"");
    expectError("instance i mesh m\n", 1, "needs a mesh and a material");
    /* checks of a whole description name the line it came from */
    expectError("material m\n\ninstance i mesh nosuch material m\n", 3, "unknown mesh \"nosuch\"");
    expectError("material m\nmaterial m\n", 2, "\"m\" is defined twice");
    expectError("samples 2\nmesh t triangles\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 0 1 3\nend\n", 2,
                "vertex index 3 out of range");
    expectError("samples 2\nresolution 0 5\n", 2, "outside 1 .. 16384");
    expectError("samples 2\n\npass g lightgroup\n", 3, "names no group");
    expectError("samples 2\nlight l rect u 1 0 0 v 2 0 0\n", 2, "do not span a rectangle");
    /* ranges of the key table */
    expectError("samples 2\nmaterial m focus 1\n", 2, "material \"m\": focus must lie in [0, 1)");
    expectError("material m ior 0\n", 1, "ior must be > 0");
    expectError("material m\nmaterial n reflect_rays 257\n", 2, "reflect_rays must lie within 1 .. 256");
    expectError("material m scatter_samples 0\n", 1, "scatter_samples must be >= 1");
    expectError("material m model glossy\n", 1, "model: \"glossy\" is not one of phong, blinn");
    expectError("\noptions trace_depth 65\n", 2, "options: trace_depth must lie within 0 .. 64");
    expectError("camera fov 179\n", 1, "camera: fov must lie in (0, 179)");
    expectError("camera position 0 0 1 target 0 0 1\n", 1, "not collinear");
    expectError("samples 2\nlight l rect samples 0\n", 2, "light \"l\": samples must lie within 1 .. 1024");
    expectError("light l plain shadow_mode shared\n", 1, "unknown light key \"shadow_mode\"");
    expectError("light l point falloff linear\n", 1, "\"linear\" is not one of none, quadratic");
    expectError("texture t octaves 13 ramp 0 1 1 1 1 linear\n", 1, "octaves must lie within 1 .. 12");
    /* a description made in code has no line */
    SceneDesc made = parseScene("material m\n");
    made.materials[0].line = 0;
    made.materials[0].scatterScale.g = std::numeric_limits<float>::infinity();
    try {
        validate(made);
        ADD_FAILURE() << "accepted an infinite colour";
    } catch (const SceneError &e) {
        EXPECT_EQ(e.line(), 0);
        EXPECT_STREQ(e.what(), "material \"m\": scatter_scale is a colour that is not finite");
    }
    EXPECT_THROW(loadScene("/nonexistent/dir/x.scene"), SceneError);
}

/* ------------------------------------------------------------------ meshes */

// A sphere given without normals gets smooth ones within half a degree of
// the analytic normal P / |P| everywhere (its faces are 11 degrees apart),
// poles and the texture seam included; faceted
// keeps it flat, given normals are kept.
TEST(HostMeshes, SmoothNormalsOfASphereWithoutNormals)
{
    const mirt::Mesh sphere = mirt::make_sphere(2.0f, 32, 16);
    MeshDesc d;
    d.name = "ball";
    d.kind = MeshKind::Triangles;
    d.P = sphere.P;
    d.tris = sphere.tris;
    const mirt::Mesh m = buildMesh(d);
    ASSERT_EQ(m.N.size(), m.P.size());
    double worst = 0.0;
    for (size_t i = 0; i < m.P.size(); ++i) {
        const miVector &p = m.P[i], &n = m.N[i];
        const double lp = std::sqrt(double(p.x) * p.x + double(p.y) * p.y + double(p.z) * p.z);
        const double ln = std::sqrt(double(n.x) * n.x + double(n.y) * n.y + double(n.z) * n.z);
        EXPECT_NEAR(ln, 1.0, 1e-6) << i;
        const double cosine = (double(p.x) * n.x + double(p.y) * n.y + double(p.z) * n.z) / (lp * ln);
        worst = std::max(worst, std::acos(std::min(1.0, cosine)));
    }
    EXPECT_LT(worst, 0.5 * 3.14159265358979 / 180.0) << "worst angle " << worst * 180 / 3.14159265358979 << " degrees";

    // One triangle's face normal on its own; a stray vertex gets +z;
    // degenerate triangles add nothing; a vertex of a right angle and one of
    // 45 degrees between two faces weigh by those angles.
    mirt::Mesh t;
    t.P = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 5, 5}, {0, 0, 1}};
    t.tris = {{0, 1, 2}, {0, 1, 1}};
    computeVertexNormals(t);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(t.N[i].x, 0.0f) << i;
        EXPECT_EQ(t.N[i].y, 0.0f) << i;
        EXPECT_EQ(t.N[i].z, 1.0f) << i;
    }
    t.tris = {{0, 1, 2}, {0, 1, 4}}; // faces +z and -y meet along the x axis, both at 90 degrees at vertex 0
    computeVertexNormals(t);
    const float h = static_cast<float>(std::sqrt(0.5));
    EXPECT_NEAR(t.N[0].x, 0.0f, 1e-6f);
    EXPECT_NEAR(t.N[0].y, -h, 1e-6f);
    EXPECT_NEAR(t.N[0].z, h, 1e-6f);
    EXPECT_NEAR(t.N[1].y, -h, 1e-6f) << "45 degrees in each face at vertex 1";
    EXPECT_NEAR(t.N[2].z, 1.0f, 1e-6f) << "only the +z face at vertex 2";
    // 90 degrees of +z and 45 of -y at vertex 0 (equal areas): (0, -1, 2) / sqrt(5).
    t.P[4] = {1, 0, 1};
    computeVertexNormals(t);
    EXPECT_NEAR(t.N[0].y, -1.0 / std::sqrt(5.0), 1e-6);
    EXPECT_NEAR(t.N[0].z, 2.0 / std::sqrt(5.0), 1e-6);

    d.faceted = true;
    EXPECT_TRUE(buildMesh(d).N.empty());
    d.faceted = false;
    d.N.assign(d.P.size(), miVector{1, 0, 0});
    EXPECT_EQ(buildMesh(d).N[5].x, 1.0f) << "given normals are kept";
    MeshDesc ball;
    ball.kind = MeshKind::Sphere;
    ball.a = 1, ball.n = 8, ball.m = 4;
    ball.faceted = true;
    EXPECT_TRUE(buildMesh(ball).N.empty());
}

/* ------------------------------------------------------------------ files */

TEST_F(HostRender, OutputFilesHoldTheImages)
{
    SceneDesc s = testScene();
    s.width = 12;
    s.height = 9;
    s.samples = 1;
    const RenderResult r = renderWith(s, 2);
    char tmpl[] = "/tmp/druxhost_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::vector<std::string> files = writeOutputs(r, dir);
    EXPECT_EQ(files.size(), 3u + r.passes.size()); /* main.png, contact.png, render.exr */

    const auto layers = readExr(dir + "/render.exr");
    ASSERT_EQ(layers.size(), 1u + r.passes.size() + 6u); /* and three layers per ID matte */
    for (const auto &l : layers) {
        const Image *want = l.first.empty() ? &r.main : r.pass(l.first);
        for (const CryptoMatte &m : r.mattes)
            for (int k = 0; k < 3; ++k)
                if (l.first == m.layerName(k))
                    want = &m.layers[size_t(k)];
        ASSERT_NE(want, nullptr) << "layer " << l.first;
        EXPECT_TRUE(sameBits(l.second, *want)) << "layer " << l.first;
    }
    int w = 0, h = 0;
    const std::vector<unsigned char> px = readPng(dir + "/beauty.png", w, h);
    ASSERT_EQ(w, 12);
    ASSERT_EQ(h, 9);
    const miColor c = r.pass("beauty")->at(5, 4);
    EXPECT_EQ(px[(4 * 12 + 5) * 3], srgbByte(c.r));
    EXPECT_EQ(px[(4 * 12 + 5) * 3 + 2], srgbByte(c.b));
    for (const std::string &f : files)
        std::remove(f.c_str());
    EXPECT_THROW(writePng("/nonexistent/dir/x.png", r.main), std::runtime_error);
    EXPECT_THROW(readExr("/nonexistent/dir/x.exr"), std::runtime_error);

    // A folder that went away during the render: the images land in a new
    // folder under the temporary directory (here TMPDIR = dir), complete.
    const char *keptTmp = std::getenv("TMPDIR");
    const std::string savedTmp = keptTmp ? keptTmp : "";
    ::setenv("TMPDIR", dir.c_str(), 1);
    const WrittenOutputs fb = writeOutputsOrFallback(r, dir + "/removed");
    EXPECT_NE(fb.failure.find("removed"), std::string::npos) << fb.failure;
    EXPECT_EQ(fb.dir.rfind(dir + "/druxrender-", 0), 0u) << fb.dir;
    ASSERT_EQ(fb.files.size(), files.size());
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(fb.files[i], fb.dir + files[i].substr(dir.size())) << i;
    const auto again = readExr(fb.dir + "/render.exr");
    size_t matteLayers = 0;
    for (const CryptoMatte &m : r.mattes)
        matteLayers += m.layers.size();
    ASSERT_EQ(again.size(), 1u + r.passes.size() + matteLayers);
    EXPECT_TRUE(sameBits(again[0].second, r.main));
    for (const std::string &f : fb.files)
        EXPECT_EQ(std::remove(f.c_str()), 0) << f;
    ::rmdir(fb.dir.c_str());
    // Written where asked, nothing falls back.
    const WrittenOutputs direct = writeOutputsOrFallback(r, dir);
    EXPECT_EQ(direct.failure, "");
    EXPECT_EQ(direct.dir, dir);
    for (const std::string &f : direct.files)
        EXPECT_EQ(std::remove(f.c_str()), 0) << f;
    // No temporary folder either: the error says both.
    ::setenv("TMPDIR", (dir + "/missing").c_str(), 1);
    EXPECT_THROW(writeOutputsOrFallback(r, dir + "/removed"), std::runtime_error);
    if (keptTmp)
        ::setenv("TMPDIR", savedTmp.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    EXPECT_EQ(::rmdir(dir.c_str()), 0) << "something was left behind";
}

TEST(HostOutputs, EveryFileIsProbedBeforeRendering)
{
    char tmpl[] = "/tmp/druxhost_probe_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::vector<std::string> names = outputFileNames({"beauty", "shadow"});
    ASSERT_EQ(names, (std::vector<std::string>{"render.exr", "main.png", "beauty.png", "shadow.png", "contact.png"}));

    // All writable: nothing is left behind, an earlier render's file is kept.
    EXPECT_EQ(probeOutputs(dir, names), "");
    {
        std::ofstream(dir + "/main.png") << "earlier";
    }
    EXPECT_EQ(probeOutputs(dir, names), "");
    std::ifstream earlier(dir + "/main.png");
    std::string text;
    earlier >> text;
    EXPECT_EQ(text, "earlier");
    EXPECT_EQ(std::remove((dir + "/main.png").c_str()), 0);

    // A folder in the way of one file (refused even for the superuser).
    ASSERT_EQ(::mkdir((dir + "/shadow.png").c_str(), 0777), 0);
    const std::string why = probeOutputs(dir, names);
    EXPECT_NE(why.find(dir + "/shadow.png"), std::string::npos) << why;
    EXPECT_NE(probeOutputs(dir + "/missing", names), "");
    ::rmdir((dir + "/shadow.png").c_str());

#ifdef DRUXRENDER_PATH
    // The renderer refuses with status 2 and renders nothing.
    const std::string log = dir + "/log.txt";
    const std::string cmd = std::string(DRUXRENDER_PATH) + " --out " + dir +
                            " --resolution 8x6 --samples 1 --threads 1 --no-progress --quiet 2>" + log;
    std::vector<std::string> passNames;
    for (const PassDesc &p : defaultScene().passes)
        passNames.push_back(p.name);
    ASSERT_FALSE(passNames.empty());
    const std::string blocked = dir + "/" + passNames.back() + ".png";
    ASSERT_EQ(::mkdir(blocked.c_str(), 0777), 0);
    const int status = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    std::ifstream in(log);
    std::stringstream msg;
    msg << in.rdbuf();
    EXPECT_NE(msg.str().find("cannot write " + blocked), std::string::npos) << msg.str();
    struct stat st;
    EXPECT_NE(::stat((dir + "/render.exr").c_str(), &st), 0) << "nothing may be written";
    std::remove(log.c_str());
    ::rmdir(blocked.c_str());
#endif
    EXPECT_EQ(::rmdir(dir.c_str()), 0) << "something was left behind";
}

TEST(HostImages, SrgbEncoding)
{
    EXPECT_EQ(srgbByte(0.0f), 0);
    EXPECT_EQ(srgbByte(-1.0f), 0);
    EXPECT_EQ(srgbByte(std::nanf("")), 0);
    EXPECT_EQ(srgbByte(1.0f), 255);
    EXPECT_EQ(srgbByte(7.5f), 255);
    EXPECT_EQ(srgbByte(0.18f), 118); /* middle grey */
    EXPECT_EQ(srgbByte(0.5f), 188);
    EXPECT_EQ(srgbByte(0.001f), 3); /* linear segment: 12.92 * 0.001 * 255 = 3.29 */
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostRender, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
