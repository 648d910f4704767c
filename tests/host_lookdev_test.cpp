/*
 * The reference host as a look-development tool: ID mattes (hash, id
 * conversion, ranks and coverage, file header), data passes, models read
 * from OBJ files and the contact sheet.
 */
#if __has_include("render.h") && __has_include("cryptomatte.h")

#include "cryptomatte.h"
#include "data_passes.h"
#include "image_io.h"
#include "render.h"
#include "scene.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

using namespace druxhost;

namespace {

uint32_t bitsOf(float f)
{
    uint32_t b;
    std::memcpy(&b, &f, sizeof b);
    return b;
}

TEST(Cryptomatte, HashAndIdMatchThePublishedVectors)
{
    EXPECT_EQ(murmur3_32("torus", 5), 4053562365u);
    const std::string plain = "\xd1\x80\xd0\xb0\xd0\xb2\xd0\xbd\xd0\xb8\xd0\xbd\xd0\xb0"; /* "равнина" */
    EXPECT_EQ(murmur3_32(plain.data(), plain.size()), 2518896926u);
    EXPECT_FLOAT_EQ(cryptoId("torus"), -1.54943624832e+30f);
    EXPECT_FLOAT_EQ(cryptoId(plain), -1.31926312124e-25f);
    /* the reference values of the algorithm for every tail length and a seed */
    EXPECT_EQ(murmur3_32("", 0), 0u);
    EXPECT_EQ(murmur3_32("", 0, 1), 0x514E28B7u);
    EXPECT_EQ(murmur3_32("a", 1), 0x3C2569B2u);
    EXPECT_EQ(murmur3_32("ab", 2), 0x9BBFD75Fu);
    EXPECT_EQ(murmur3_32("abc", 3), 0xB3DD93FAu);
    EXPECT_EQ(murmur3_32("abcd", 4), 0x43ED676Au);
    EXPECT_EQ(murmur3_32("Hello, world!", 13, 1234), 0xFAF6CDB3u);
    EXPECT_EQ(cryptoHex(cryptoId("torus")), "f19c73fd"); /* 4053562365 */
}

TEST(Cryptomatte, IdsAreNeverZeroSubnormalInfiniteOrNan)
{
    /* names whose hash has exponent bits 0 or 255 get bit 23 flipped */
    int flipped = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string name = "object" + std::to_string(i);
        const uint32_t h = murmur3_32(name.data(), name.size());
        const float id = cryptoId(name);
        ASSERT_TRUE(std::isnormal(id)) << name;
        const uint32_t e = h >> 23 & 255u;
        if (e == 0 || e == 255) {
            EXPECT_EQ(bitsOf(id), h ^ (1u << 23)) << name;
            ++flipped;
        } else {
            EXPECT_EQ(bitsOf(id), h) << name;
        }
    }
    EXPECT_GT(flipped, 0); /* about 2 in 256 names */
}

TEST(Cryptomatte, PixelRanksByCoverageAndHeaderDescribesTheMatte)
{
    CryptoMatte m = makeCryptoMatte("CryptoObject", {"a", "b", "c", "d", "e", "f", "g", "quote\"d"}, 2, 1);
    CryptoPixel px(16);
    /* 16 samples: g 5, a 4, c 3, b 2, miss 1, d 1 */
    const int order[] = {6, 6, 6, 6, 6, 0, 0, 0, 0, 2, 2, 2, 1, 1, -1, 3};
    for (int n : order)
        px.add(n, 1.0f);
    px.write(m, 1, 0);
    const miColor l0 = m.layers[0].at(1, 0), l1 = m.layers[1].at(1, 0), l2 = m.layers[2].at(1, 0);
    EXPECT_EQ(bitsOf(l0.r), bitsOf(m.ids[6]));
    EXPECT_FLOAT_EQ(l0.g, 5.0f / 16);
    EXPECT_EQ(bitsOf(l0.b), bitsOf(m.ids[0]));
    EXPECT_FLOAT_EQ(l0.a, 4.0f / 16);
    EXPECT_EQ(bitsOf(l1.r), bitsOf(m.ids[2]));
    EXPECT_FLOAT_EQ(l1.g, 3.0f / 16);
    EXPECT_EQ(bitsOf(l1.b), bitsOf(m.ids[1]));
    EXPECT_FLOAT_EQ(l1.a, 2.0f / 16);
    EXPECT_EQ(bitsOf(l2.r), bitsOf(m.ids[3]));
    EXPECT_FLOAT_EQ(l2.g, 1.0f / 16);
    EXPECT_EQ(l2.b, 0.0f); /* unused rank */
    EXPECT_EQ(l2.a, 0.0f);
    EXPECT_FLOAT_EQ(m.coverage(1, 0, m.ids[2]), 3.0f / 16);
    /* the untouched pixel stays empty; a reused accumulator starts over */
    EXPECT_EQ(m.coverage(0, 0, m.ids[6]), 0.0f);
    px.clear();
    px.add(4, 1.0f);
    px.write(m, 0, 0);
    EXPECT_FLOAT_EQ(m.coverage(0, 0, m.ids[4]), 1.0f);
    EXPECT_EQ(m.layers[0].at(0, 0).b, 0.0f);

    EXPECT_EQ(m.key(), cryptoHex(cryptoId("CryptoObject")).substr(0, 7));
    EXPECT_EQ(m.layerName(2), "CryptoObject02");
    const auto attrs = m.attributes();
    ASSERT_EQ(attrs.size(), 4u);
    EXPECT_EQ(attrs[0].first, "cryptomatte/" + m.key() + "/name");
    EXPECT_EQ(attrs[0].second, "CryptoObject");
    EXPECT_EQ(attrs[1].second, "MurmurHash3_32");
    EXPECT_EQ(attrs[2].second, "uint32_to_float32");
    EXPECT_EQ(attrs[3].first, "cryptomatte/" + m.key() + "/manifest");
    EXPECT_NE(attrs[3].second.find("\"a\":\"" + cryptoHex(cryptoId("a")) + "\""), std::string::npos);
    EXPECT_NE(attrs[3].second.find("\"quote\\\"d\":"), std::string::npos);
    EXPECT_EQ(attrs[3].second.front(), '{');
    EXPECT_EQ(attrs[3].second.back(), '}');
}

/* Two large planes meeting at x = 0 under a camera looking straight down:
   with an odd width the middle column is split in half between them. */
SceneDesc twoPlanes(int width, int height, int samples)
{
    SceneDesc s;
    s.width = width;
    s.height = height;
    s.samples = samples;
    s.camera.position = {0, 0, 10};
    s.camera.target = {0, 0, 0};
    s.camera.up = {0, 1, 0};
    s.camera.fov = 40.0f;
    s.options.finalgather = false;
    for (const char *m : {"matA", "matB"}) {
        MaterialDesc d;
        d.name = m;
        s.materials.push_back(d);
    }
    MeshDesc plane;
    plane.name = "plane";
    plane.a = plane.b = 10.0f;
    s.meshes.push_back(plane);
    InstanceDesc left, right;
    left.name = "left";
    left.mesh = "plane";
    left.material = "matA";
    left.steps = {{TransformStep::Translate, {-5, 0, 0}}};
    right = left;
    right.name = "right";
    right.material = "matB";
    right.steps = {{TransformStep::Translate, {5, 0, 0}}};
    s.instances = {left, right};
    return s;
}

std::string tempDir()
{
    char tmpl[] = "/tmp/druxlookdevXXXXXX";
    const char *d = mkdtemp(tmpl);
    return d ? d : "/tmp";
}

TEST(Cryptomatte, TwoObjectsShareThePixelsTheyCover)
{
    const int w = 9, h = 4;
    const SceneDesc s = twoPlanes(w, h, 16);
    const RenderResult r = render(s, RenderOptions());
    ASSERT_EQ(r.mattes.size(), 2u);
    const CryptoMatte &obj = r.mattes[0];
    const CryptoMatte &mat = r.mattes[1];
    EXPECT_EQ(obj.type, "CryptoObject");
    EXPECT_EQ(mat.type, "CryptoMaterial");
    const float left = cryptoId("left"), right = cryptoId("right");
    double sumLeft = 0, sumRight = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float total = 0;
            for (const Image &l : obj.layers) {
                total += l.at(x, y).g + l.at(x, y).a;
            }
            EXPECT_NEAR(total, 1.0f, 1e-5f) << x << "," << y; /* fully covered */
            const float cl = obj.coverage(x, y, left), cr = obj.coverage(x, y, right);
            sumLeft += cl;
            sumRight += cr;
            if (x < w / 2) {
                EXPECT_EQ(cl, 1.0f);
            } else if (x > w / 2) {
                EXPECT_EQ(cr, 1.0f);
            } else {
                /* the split column: two ranks, the larger first, summing to 1 */
                const miColor l0 = obj.layers[0].at(x, y);
                EXPECT_GT(l0.g, 0.0f);
                EXPECT_GT(l0.a, 0.0f);
                EXPECT_GE(l0.g, l0.a);
                EXPECT_NEAR(l0.g + l0.a, 1.0f, 1e-5f);
                EXPECT_TRUE((l0.r == left && l0.b == right) || (l0.r == right && l0.b == left));
            }
            /* materials follow their instances */
            EXPECT_FLOAT_EQ(mat.coverage(x, y, cryptoId("matA")), cl);
            EXPECT_FLOAT_EQ(mat.coverage(x, y, cryptoId("matB")), cr);
        }
    /* each matte adds up to its area in pixels (the middle column is shared) */
    EXPECT_NEAR(sumLeft, 4.5 * h, 0.1 * h);
    EXPECT_NEAR(sumRight, 4.5 * h, 0.1 * h);
    EXPECT_NEAR(sumLeft + sumRight, double(w * h), 1e-4);

    /* the file: three layers per matte and the header that describes them */
    const std::string dir = tempDir();
    writeOutputs(r, dir);
    const auto layers = readExr(dir + "/render.exr");
    int cryptoLayers = 0;
    for (const auto &l : layers)
        if (l.first.rfind("CryptoObject0", 0) == 0 || l.first.rfind("CryptoMaterial0", 0) == 0) {
            ++cryptoLayers;
            if (l.first == "CryptoObject00") {
                EXPECT_EQ(l.second.at(0, 0).r, left);
            }
        }
    EXPECT_EQ(cryptoLayers, 6);
    const auto attrs = readExrAttributes(dir + "/render.exr");
    auto attr = [&](const std::string &name) {
        for (const auto &a : attrs)
            if (a.first == name)
                return a.second;
        return std::string("(missing)");
    };
    const std::string key = obj.key();
    EXPECT_EQ(attr("cryptomatte/" + key + "/name"), "CryptoObject");
    EXPECT_EQ(attr("cryptomatte/" + key + "/hash"), "MurmurHash3_32");
    EXPECT_EQ(attr("cryptomatte/" + key + "/conversion"), "uint32_to_float32");
    EXPECT_EQ(attr("cryptomatte/" + key + "/manifest"),
              "{\"left\":\"" + cryptoHex(left) + "\",\"right\":\"" + cryptoHex(right) + "\"}");
    EXPECT_EQ(attr("cryptomatte/" + mat.key() + "/name"), "CryptoMaterial");
    EXPECT_NE(attr("cryptomatte/" + mat.key() + "/manifest").find("\"matB\""), std::string::npos);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

TEST(Cryptomatte, SamplesThatMissCountAsUncovered)
{
    /* only the left plane: the right half of the picture is empty */
    SceneDesc s = twoPlanes(9, 2, 16);
    s.instances.pop_back();
    const RenderResult r = render(s, RenderOptions());
    const CryptoMatte &obj = r.mattes[0];
    const float left = cryptoId("left");
    for (int y = 0; y < 2; ++y) {
        EXPECT_EQ(obj.coverage(0, y, left), 1.0f);
        const float mid = obj.coverage(4, y, left);
        EXPECT_GT(mid, 0.3f);
        EXPECT_LT(mid, 0.7f);
        EXPECT_EQ(obj.layers[0].at(4, y).a, 0.0f); /* no second rank for the sky */
        EXPECT_EQ(obj.layers[0].at(8, y).r, 0.0f);
        EXPECT_EQ(obj.layers[0].at(8, y).g, 0.0f);
    }
}

PassDesc pass(const char *name, PassRole role)
{
    PassDesc p;
    p.name = name;
    p.role = role;
    return p;
}

/* The ground plane (matA) under a box of size 2 standing on it (matB, top
   face at z = 2), seen straight from above from z = 10; a light and a
   reflective ground so that child rays and light loops run too. */
SceneDesc groundAndBox(bool dataPasses)
{
    SceneDesc s = twoPlanes(21, 15, 4);
    s.instances.pop_back();
    s.meshes[0].a = s.meshes[0].b = 40.0f;
    s.instances[0].steps.clear();
    s.materials[0].diffuse = {0.8f, 0.2f, 0.1f, 1};
    s.materials[0].kd = 0.5f;
    s.materials[0].reflectivity = 0.3f;
    s.materials[1].diffuse = {0.1f, 0.6f, 0.3f, 1};
    MeshDesc box;
    box.name = "box";
    box.kind = MeshKind::Box;
    box.a = box.b = box.c = 2.0f;
    s.meshes.push_back(box);
    InstanceDesc b;
    b.name = "box";
    b.mesh = "box";
    b.material = "matB";
    b.steps = {{TransformStep::Translate, {0, 0, 1}}};
    s.instances.push_back(b);
    LightDesc l;
    l.name = "sun";
    l.position = {3, -2, 12};
    s.lights.push_back(l);
    s.passes = {pass("beauty", PassRole::Beauty), pass("diffuse", PassRole::Diffuse)};
    if (dataPasses)
        for (auto p : {pass("depth", PassRole::Depth), pass("normal", PassRole::Normal),
                       pass("position", PassRole::Position), pass("albedo", PassRole::Albedo),
                       pass("coverage", PassRole::Coverage)})
            s.passes.push_back(p);
    return s;
}

void expectColor(const miColor &c, float r, float g, float b, float a, const char *what)
{
    EXPECT_NEAR(c.r, r, 1e-4f) << what;
    EXPECT_NEAR(c.g, g, 1e-4f) << what;
    EXPECT_NEAR(c.b, b, 1e-4f) << what;
    EXPECT_NEAR(c.a, a, 1e-6f) << what;
}

TEST(DataPasses, HoldDepthNormalPositionAndAlbedoOfTheFirstHit)
{
    const RenderResult r = render(groundAndBox(true), RenderOptions());
    const Image &depth = *r.pass("depth"), &normal = *r.pass("normal"), &position = *r.pass("position"),
                &albedo = *r.pass("albedo"), &coverage = *r.pass("coverage");
    /* the middle pixel sees the box's top face, 8 units away */
    expectColor(depth.at(10, 7), 8, 8, 8, 1, "depth, box");
    expectColor(normal.at(10, 7), 0, 0, 1, 1, "normal, box");
    EXPECT_NEAR(position.at(10, 7).b, 2.0f, 1e-4f);
    EXPECT_NEAR(position.at(10, 7).r, 0.0f, 0.2f);
    expectColor(albedo.at(10, 7), 0.1f, 0.6f, 0.3f, 1, "albedo, box");
    /* a corner pixel sees the ground: depth along the viewing axis, not the
       slanted distance; albedo is kd times the diffuse colour */
    expectColor(depth.at(0, 0), 10, 10, 10, 1, "depth, ground");
    expectColor(normal.at(0, 0), 0, 0, 1, 1, "normal, ground");
    EXPECT_NEAR(position.at(0, 0).b, 0.0f, 1e-4f);
    EXPECT_LT(position.at(0, 0).r, -2.0f);
    EXPECT_GT(position.at(0, 0).g, 1.5f); /* top of the picture: +y */
    expectColor(albedo.at(0, 0), 0.4f, 0.1f, 0.05f, 1, "albedo, ground");
    expectColor(coverage.at(3, 3), 1, 1, 1, 1, "coverage");

    /* an edge pixel of the box: depth keeps the nearest sample, the averaged
       passes mix both surfaces */
    bool edgeSeen = false;
    for (int x = 0; x < 21; ++x) {
        const float albedoG = albedo.at(x, 7).g;
        if (albedoG > 0.11f && albedoG < 0.59f) {
            edgeSeen = true;
            EXPECT_NEAR(depth.at(x, 7).r, 8.0f, 1e-4f) << x;
        }
    }
    EXPECT_TRUE(edgeSeen);

    /* the data passes leave every other pass alone, bit for bit */
    const RenderResult plain = render(groundAndBox(false), RenderOptions());
    for (const char *name : {"beauty", "diffuse"})
        EXPECT_EQ(std::memcmp(plain.pass(name)->rgba.data(), r.pass(name)->rgba.data(),
                              r.pass(name)->rgba.size() * sizeof(float)),
                  0)
            << name;
    EXPECT_EQ(std::memcmp(plain.main.rgba.data(), r.main.rgba.data(), r.main.rgba.size() * sizeof(float)), 0);
}

TEST(DataPasses, MissesLeaveThemEmptyAndAlphaIsCoverage)
{
    SceneDesc s = twoPlanes(9, 2, 16);
    s.instances.pop_back(); /* the right half sees nothing */
    s.passes = {pass("depth", PassRole::Depth), pass("normal", PassRole::Normal),
                pass("coverage", PassRole::Coverage)};
    const RenderResult r = render(s, RenderOptions());
    const float mid = r.mattes[0].coverage(4, 0, cryptoId("left"));
    expectColor(r.pass("coverage")->at(4, 0), mid, mid, mid, mid, "coverage, split pixel");
    expectColor(r.pass("depth")->at(4, 0), 10, 10, 10, mid, "depth, split pixel");
    expectColor(r.pass("normal")->at(4, 0), 0, 0, mid, mid, "normal, split pixel");
    expectColor(r.pass("depth")->at(8, 0), kNoDepth, kNoDepth, kNoDepth, 0, "depth, sky");
    expectColor(r.pass("normal")->at(8, 0), 0, 0, 0, 0, "normal, sky");

    /* the file holds depth as the one channel Z */
    const std::string dir = tempDir();
    writeOutputs(r, dir);
    const auto layers = readExr(dir + "/render.exr");
    bool z = false;
    for (const auto &l : layers) {
        EXPECT_NE(l.first, "depth");
        if (l.first == "Z") {
            z = true;
            EXPECT_EQ(l.second.at(0, 0).r, 10.0f);
            EXPECT_EQ(l.second.at(0, 0).g, 0.0f); /* one channel only */
        }
    }
    EXPECT_TRUE(z);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

} // namespace

#else
#include <gtest/gtest.h>
TEST(HostLookdev, Skipped) { GTEST_SKIP() << "the host renderer is not built"; }
#endif
