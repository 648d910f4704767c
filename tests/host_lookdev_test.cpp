/*
 * The reference host as a look-development tool: ID mattes (hash, id
 * conversion, ranks and coverage, file header), data passes, models read
 * from OBJ files and the contact sheet.
 */
#if __has_include("render.h") && __has_include("cryptomatte.h")

#include "contact_sheet.h"
#include "cryptomatte.h"
#include "data_passes.h"
#include "image_io.h"
#include "meshes.h"
#include "obj_loader.h"
#include "render.h"
#include "scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

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

/* ------------------------------------------------------------------ OBJ */

/* The message of the SceneError that parsing `text` throws ("" if none). */
std::string sceneError(const std::string &text, const std::string &dir, int &line)
{
    try {
        parseScene(text, dir);
    } catch (const SceneError &e) {
        line = e.line();
        return e.what();
    }
    line = -1;
    return std::string();
}

TEST(ObjModels, QuadsAndPolygonsAreTriangulatedWithTheirAttributes)
{
    /* a unit square as one quad with normals and texture coordinates, a
       pentagon without, in two groups */
    const std::string text = "# test\n"
                             "o square\n"
                             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                             "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                             "vn 0 0 1\n"
                             "f 1/1/1 2/2/1 3/3/1 4/4/1\n";
    MeshDesc m;
    parseObj(text, "square.obj", m);
    ASSERT_EQ(m.tris.size(), 2u);
    ASSERT_EQ(m.P.size(), 4u);
    ASSERT_EQ(m.N.size(), 4u);
    ASSERT_EQ(m.uv.size(), 4u);
    float area = 0;
    for (const auto &t : m.tris) {
        const miVector a = m.P[size_t(t[0])], b = m.P[size_t(t[1])], c = m.P[size_t(t[2])];
        const float cross = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
        EXPECT_GT(cross, 0.0f); /* the corners' order is kept */
        area += 0.5f * cross;
    }
    EXPECT_NEAR(area, 1.0f, 1e-6f);
    for (size_t i = 0; i < m.P.size(); ++i) {
        EXPECT_EQ(m.N[i].z, 1.0f);
        EXPECT_EQ(m.uv[i].x, m.P[i].x); /* texture space matches this square */
        EXPECT_EQ(m.uv[i].y, m.P[i].y);
    }

    /* a pentagon and a quad without normals; one negative (relative) index */
    const std::string noNormals = "v 0 0 0\nv 2 0 0\nv 3 1 0\nv 1 2 0\nv -1 1 0\n"
                                  "f 1 2 3 4 5\n"
                                  "v 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\n"
                                  "f 6 7 8 -1\n";
    parseObj(noNormals, "pent.obj", m);
    EXPECT_EQ(m.tris.size(), 3u + 2u);
    EXPECT_TRUE(m.N.empty());
    EXPECT_TRUE(m.uv.empty());
    EXPECT_EQ(m.P.size(), 9u);
    /* through the scene's mesh builder */
    m.kind = MeshKind::Obj;
    const mirt::Mesh built = buildMesh(m);
    EXPECT_EQ(built.tris.size(), 5u);
    EXPECT_EQ(built.P.size(), 9u);
}

TEST(ObjModels, BadFilesAreReportedWithPathAndLine)
{
    struct Case {
        const char *text;
        int line;
        const char *says;
    };
    const Case cases[] = {
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n", 4, "vertex index 9 out of range (3 in the file)"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\n\nf 1 2 0\n", 5, "index 0"},
        {"v 0 0 0\nf -2 -1 1\nv 1 0 0\n", 2, "reaches before the first vertex"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nf 1//1 2//2 3//1\n", 5, "normal index 2 out of range"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1/1 2/1 3/1\n", 4, "texture coordinate index 1 out of range"},
        {"v 0 0 0\nv 1 zero 0\nv 0 1 0\nf 1 2 3\n", 2, "\"zero\" is not a finite number"},
        {"v 0 0\n", 1, "a vertex needs 3 to 7 numbers"},
        {"v 0 0 0\nv 1 0 0\nf 1 2\n", 3, "at least 3 corners"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 x\n", 4, "\"x\" is not a face corner"},
        {"# nothing\n", 0, "no vertices or no faces"},
    };
    for (const Case &c : cases) {
        MeshDesc m;
        try {
            parseObj(c.text, "models/bad.obj", m);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const ObjError &e) {
            EXPECT_EQ(e.line(), c.line) << e.what();
            const std::string what = e.what();
            EXPECT_EQ(what.rfind("models/bad.obj:" + std::to_string(c.line) + ": ", 0), 0u) << what;
            EXPECT_NE(what.find(c.says), std::string::npos) << what;
        }
    }

    /* through the scene format: the scene's line, the OBJ's path and line */
    const std::string dir = tempDir();
    {
        std::ofstream f(dir + "/bad.obj");
        f << "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nf 1 2 4\n";
    }
    int line = 0;
    std::string what = sceneError("samples 1\nmesh m obj \"bad.obj\"\n", dir, line);
    EXPECT_EQ(line, 2);
    EXPECT_NE(what.find(dir + "/bad.obj:5: vertex index 4 out of range"), std::string::npos) << what;
    what = sceneError("mesh m obj \"missing.obj\"\n", dir, line);
    EXPECT_EQ(line, 1);
    EXPECT_NE(what.find(dir + "/missing.obj:0: cannot open the file"), std::string::npos) << what;
    what = sceneError("mesh m obj\n", dir, line);
    EXPECT_EQ(line, 1);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

TEST(ObjModels, TheLookdevSceneLoadsItsModelsAndRenders)
{
    SceneDesc s = loadScene(std::string(DRUXHOST_SCENE_DIR) + "/lookdev.scene");
    const MeshDesc *vase = s.mesh("vase");
    const MeshDesc *gem = s.mesh("gem");
    ASSERT_TRUE(vase && gem);
    EXPECT_EQ(vase->kind, MeshKind::Obj);
    EXPECT_EQ(vase->tris.size(), 24u * 16u * 2u);
    EXPECT_EQ(vase->N.size(), vase->P.size());
    EXPECT_EQ(vase->uv.size(), vase->P.size());
    EXPECT_TRUE(gem->N.empty());
    EXPECT_EQ(gem->tris.size(), 6u + 16u + 8u);
    /* the written scene names the file again */
    EXPECT_NE(writeScene(s).find("mesh vase obj \"models/vase.obj\""), std::string::npos);

    s.width = 48;
    s.height = 36;
    s.samples = 1;
    const RenderResult r = render(s, RenderOptions());
    double vaseCover = 0, gemCover = 0;
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            vaseCover += r.mattes[0].coverage(x, y, cryptoId("vase"));
            gemCover += r.mattes[0].coverage(x, y, cryptoId("gem"));
        }
    EXPECT_GT(vaseCover, 20.0);
    EXPECT_GT(gemCover, 20.0);
    EXPECT_EQ(r.stats.errors, 0u);
}

/* ------------------------------------------------------- contact sheet */

/* Pixels of the label strip that differ from the sheet's background. */
int inkIn(const Image &sheet, const TileRect &t)
{
    const miColor bg = sheet.at(0, 0);
    int ink = 0;
    for (int y = t.labelY; y < t.labelY + t.labelHeight; ++y)
        for (int x = t.x; x < t.x + t.width; ++x)
            ink += sheet.at(x, y).r != bg.r;
    return ink;
}

TEST(ContactSheet, OneLabelledTilePerPassAndMatte)
{
    SceneDesc s = groundAndBox(true);
    s.width = 40;
    s.height = 30;
    const RenderResult r = render(s, RenderOptions());
    const std::vector<ContactTile> tiles = contactTiles(r);
    ASSERT_EQ(tiles.size(), 1u + r.passes.size() + 2u); /* main, passes, two mattes */
    EXPECT_EQ(tiles[0].label, "main");
    for (size_t i = 0; i < r.passes.size(); ++i)
        EXPECT_EQ(tiles[1 + i].label, r.passNames[i]);
    EXPECT_EQ(tiles[tiles.size() - 2].label, "CryptoObject");
    EXPECT_EQ(tiles.back().label, "CryptoMaterial");

    /* thumbnails half size (factor 2), three to a row */
    const ContactSheet sheet = makeContactSheet(tiles, 20, 3);
    ASSERT_EQ(sheet.tiles.size(), tiles.size());
    for (size_t i = 0; i < tiles.size(); ++i) {
        const TileRect &t = sheet.tiles[i];
        EXPECT_EQ(t.factor, 2);
        EXPECT_EQ(t.width, 20);
        EXPECT_EQ(t.height, 15);
        ASSERT_LE(t.x + t.width, sheet.image.width);
        ASSERT_LE(t.labelY + t.labelHeight, sheet.image.height);
        for (size_t j = 0; j < i; ++j) { /* no two tiles overlap */
            const TileRect &u = sheet.tiles[j];
            const bool apart = t.x >= u.x + u.width || u.x >= t.x + t.width ||
                               t.y >= u.labelY + u.labelHeight || u.y >= t.labelY + t.labelHeight;
            EXPECT_TRUE(apart) << i << " and " << j;
        }
        /* every thumbnail pixel is the mean of its 2 x 2 source pixels */
        for (int ty = 0; ty < t.height; ty += 7)
            for (int tx = 0; tx < t.width; tx += 5) {
                float want = 0;
                for (int k = 0; k < 4; ++k)
                    want += tiles[i].image.at(2 * tx + (k & 1), 2 * ty + (k >> 1)).g;
                EXPECT_NEAR(sheet.image.at(t.x + tx, t.y + ty).g, want / 4, 1e-5f) << tiles[i].label;
            }
        EXPECT_GT(inkIn(sheet.image, t), 20) << tiles[i].label;
    }
    /* the three-to-a-row layout and different labels draw different ink */
    EXPECT_EQ(sheet.tiles[3].x, sheet.tiles[0].x);
    EXPECT_GT(sheet.tiles[3].y, sheet.tiles[0].labelY);
    EXPECT_NE(inkIn(sheet.image, sheet.tiles[1]), inkIn(sheet.image, sheet.tiles[0]));

    /* written with every render, the size of the sheet */
    const std::string dir = tempDir();
    const std::vector<std::string> files = writeOutputs(r, dir);
    EXPECT_NE(std::find(files.begin(), files.end(), dir + "/contact.png"), files.end());
    int w = 0, h = 0;
    readPng(dir + "/contact.png", w, h);
    EXPECT_EQ(w, makeContactSheet(tiles).image.width);
    EXPECT_EQ(h, makeContactSheet(tiles).image.height);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

TEST(ContactSheet, FontDrawsItsGlyphs)
{
    Image img(20, 9);
    const miColor ink{1, 1, 1, 1};
    EXPECT_EQ(drawText(img, 1, 1, "L1", ink), 12);
    /* L: a full left column and a full bottom row */
    for (int y = 1; y < 8; ++y)
        EXPECT_EQ(img.at(1, y).r, 1.0f) << y;
    for (int x = 1; x < 6; ++x)
        EXPECT_EQ(img.at(x, 7).r, 1.0f) << x;
    EXPECT_EQ(img.at(3, 3).r, 0.0f);
    /* lower case is upper case */
    Image a(20, 9), b(20, 9);
    drawText(a, 0, 0, "crypto", ink);
    drawText(b, 0, 0, "CRYPTO", ink);
    EXPECT_EQ(a.rgba, b.rgba);
    /* text off the image is cut, not written past its end */
    Image small(3, 3);
    drawText(small, -4, -2, "WW", ink, 2);
    EXPECT_EQ(small.rgba.size(), 36u);
}

} // namespace

#else
#include <gtest/gtest.h>
TEST(HostLookdev, Skipped) { GTEST_SKIP() << "the host renderer is not built"; }
#endif
