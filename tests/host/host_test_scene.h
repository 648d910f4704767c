/*
 * What the host test files share: the small scene with every kind of shader
 * and pass, the render call they use and image comparisons.
 */
#ifndef DRUX_HOST_TEST_SCENE_H
#define DRUX_HOST_TEST_SCENE_H

#include "exporter.h"
#include "image_io.h"
#include "meshes.h"
#include "render.h"
#include "scene.h"
#include "scene_keys.h"
#include "shader_params.h"
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

inline constexpr float kTol = 1e-4f;

class HostRender : public RuntimeTest {};

/* The bytes of a file; "" when it cannot be read. */
inline std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline float maxDiff(const miColor &a, const miColor &b)
{
    return std::max({std::fabs(a.r - b.r), std::fabs(a.g - b.g), std::fabs(a.b - b.b)});
}

inline float maxDiff(const miVector &a, const miVector &b)
{
    return maxDiff(miColor{a.x, a.y, a.z, 0}, miColor{b.x, b.y, b.z, 0});
}

inline float maxRGB(const Image &img)
{
    float m = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            const miColor c = img.at(x, y);
            m = std::max({m, c.r, c.g, c.b});
        }
    return m;
}

inline PassDesc pass(const char *name, PassRole role, const char *group = "")
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
inline SceneDesc testScene()
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

inline RenderResult renderWith(const SceneDesc &s, int threads, int tile = 8)
{
    RenderOptions o;
    o.threads = threads;
    o.tileSize = tile;
    return render(s, o);
}

inline bool sameBits(const Image &a, const Image &b)
{
    return a.width == b.width && a.height == b.height &&
           std::memcmp(a.rgba.data(), b.rgba.data(), a.rgba.size() * sizeof(float)) == 0;
}

#endif
