/*
 * The reference host as a look-development tool: ID mattes (hash, id
 * conversion, ranks and coverage, file header), data passes, models read
 * from OBJ files and the contact sheet.
 */
#if __has_include("render.h") && __has_include("cryptomatte.h")

#include "contact_sheet.h"
#include "cryptomatte.h"
#include "pass_images.h"
#include "image_io.h"
#include "meshes.h"
#include "obj_loader.h"
#include "render.h"
#include "scene.h"

#include "expect_values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

using namespace druxhost;

namespace {


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
    CryptoMatte m = makeCryptoMatte("CryptoObject", {"a", "b", "c", "d", "e", "f", "g", "quote\"d", "back\\slash"}, 2, 1);
    CryptoPixel px(16);
    /* 16 samples: g 5, a 4, c 3, b 2, miss 1, d 1 */
    const int order[] = {6, 6, 6, 6, 6, 0, 0, 0, 0, 2, 2, 2, 1, 1, -1, 3};
    for (int n : order)
        px.add(n, 1.0f);
    px.write(m, 1, 0);
    /* ranks in order of coverage, two per layer; the sixth rank is unused */
    const int ranked[6] = {6, 0, 2, 1, 3, -1};
    const float share[6] = {5, 4, 3, 2, 1, 0};
    for (int k = 0; k < 6; ++k) {
        const miColor c = m.layers[size_t(k / 2)].at(1, 0);
        EXPECT_EQ(bitsOf(k % 2 ? c.b : c.r), ranked[k] < 0 ? 0u : bitsOf(m.ids[size_t(ranked[k])])) << k;
        EXPECT_FLOAT_EQ(k % 2 ? c.a : c.g, share[k] / 16) << k;
    }
    EXPECT_FLOAT_EQ(m.coverage(1, 0, m.ids[2]), 3.0f / 16);
    /* the untouched pixel stays empty; a reused accumulator starts over */
    EXPECT_EQ(m.coverage(0, 0, m.ids[6]), 0.0f);
    px.clear();
    px.add(4, 1.0f);
    px.write(m, 0, 0);
    EXPECT_FLOAT_EQ(m.coverage(0, 0, m.ids[4]), 1.0f);
    EXPECT_EQ(m.layers[0].at(0, 0).b, 0.0f);

    /* the manifest is JSON: names escaped */
    const std::string manifest = m.manifest();
    EXPECT_EQ(manifest.substr(0, 16), "{\"a\":\"" + cryptoHex(cryptoId("a")) + "\",");
    EXPECT_NE(manifest.find(",\"quote\\\"d\":\""), std::string::npos) << manifest;
    EXPECT_NE(manifest.find(",\"back\\\\slash\":\""), std::string::npos) << manifest;
    EXPECT_EQ(manifest.back(), '}');
}

/* Names of equal coverage rank by name index, lowest first, whatever order
   the samples came in; a larger coverage still goes ahead of them. */
TEST(Cryptomatte, CoverageTiesRankByNameIndex)
{
    CryptoMatte m = makeCryptoMatte("CryptoObject", {"a", "b", "c", "d", "e"}, 1, 1);
    CryptoPixel px(8);
    for (int n : {4, 2, 0, 3, 1, 3})
        px.add(n, 1.0f);
    px.write(m, 0, 0);
    const int ranked[6] = {3, 0, 1, 2, 4, -1}; /* d twice, then the ties a, b, c, e */
    for (int k = 0; k < 6; ++k) {
        const miColor c = m.layers[size_t(k / 2)].at(0, 0);
        EXPECT_EQ(bitsOf(k % 2 ? c.b : c.r), ranked[k] < 0 ? 0u : bitsOf(m.ids[size_t(ranked[k])])) << k;
    }
}

/* Large planes under a camera looking straight down from z = 10: "left"
   (matA) covers x < 0 and, unless `leftOnly`, "right" (matB) x > 0; with an
   odd width the middle column is split in half. */
SceneDesc twoPlanes(int width, int height, bool leftOnly, const std::string &more = "")
{
    return parseScene("resolution " + std::to_string(width) + " " + std::to_string(height) +
                      "\nsamples 16\ncamera position 0 0 10 target 0 0 0 up 0 1 0 fov 40\n"
                      "options finalgather off\nmaterial matA\nmaterial matB\nmesh plane plane 10 10 1 1\n"
                      "instance left mesh plane material matA translate -5 0 0\n" +
                      (leftOnly ? "" : "instance right mesh plane material matB translate 5 0 0\n") + more);
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
    const RenderResult r = render(twoPlanes(w, h, false), RenderOptions());
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
            for (const Image &l : obj.layers)
                total += l.at(x, y).g + l.at(x, y).a;
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
    int cryptoLayers = 0;
    for (const auto &l : readExr(dir + "/render.exr"))
        cryptoLayers += l.first.rfind("CryptoObject0", 0) == 0 || l.first.rfind("CryptoMaterial0", 0) == 0;
    EXPECT_EQ(cryptoLayers, 6);
    std::map<std::string, std::string> attr;
    for (const auto &a : readExrAttributes(dir + "/render.exr"))
        attr[a.first] = a.second;
    const std::string key = "cryptomatte/" + obj.key() + "/";
    EXPECT_EQ(attr[key + "name"], "CryptoObject");
    EXPECT_EQ(attr[key + "hash"], "MurmurHash3_32");
    EXPECT_EQ(attr[key + "conversion"], "uint32_to_float32");
    EXPECT_EQ(attr[key + "manifest"], "{\"left\":\"" + cryptoHex(left) + "\",\"right\":\"" + cryptoHex(right) + "\"}");
    EXPECT_EQ(attr["cryptomatte/" + mat.key() + "/name"], "CryptoMaterial");
    EXPECT_NE(attr["cryptomatte/" + mat.key() + "/manifest"].find("\"matB\""), std::string::npos);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

/* The ground (matA: kd 0.5, reflective) under a box of size 2 (matB, top
   face at z = 2) seen from z = 10, lit, so that child rays and light loops
   run too. */
SceneDesc groundAndBox(bool dataPasses)
{
    return parseScene(
        "resolution 21 15\nsamples 4\ncamera position 0 0 10 target 0 0 0 up 0 1 0 fov 40\n"
        "options finalgather off\nmaterial matA diffuse 0.8 0.2 0.1 kd 0.5 reflectivity 0.3\n"
        "material matB diffuse 0.1 0.6 0.3\nmesh ground plane 40 40 1 1\nmesh box box 2 2 2\n"
        "instance ground mesh ground material matA\ninstance box mesh box material matB translate 0 0 1\n"
        "light sun point position 3 -2 12\npass beauty beauty\npass diffuse diffuse\n" +
        std::string(dataPasses ? "pass depth depth\npass normal normal\npass position position\n"
                                 "pass albedo albedo\npass coverage coverage\n"
                               : ""));
}

TEST(DataPasses, HoldDepthNormalPositionAndAlbedoOfTheFirstHit)
{
    const RenderResult r = render(groundAndBox(true), RenderOptions());
    const Image &depth = *r.pass("depth"), &normal = *r.pass("normal"), &position = *r.pass("position"),
                &albedo = *r.pass("albedo"), &coverage = *r.pass("coverage");
    /* the middle pixel sees the box's top face, 8 units away */
    expectColor(depth.at(10, 7), 8, 8, 8, 1, 1e-4f, "depth, box");
    expectColor(normal.at(10, 7), 0, 0, 1, 1, 1e-4f, "normal, box");
    EXPECT_NEAR(position.at(10, 7).b, 2.0f, 1e-4f);
    EXPECT_NEAR(position.at(10, 7).r, 0.0f, 0.2f);
    expectColor(albedo.at(10, 7), 0.1f, 0.6f, 0.3f, 1, 1e-4f, "albedo, box");
    /* a corner pixel sees the ground: depth along the viewing axis, not the
       slanted distance; albedo is kd times the diffuse colour */
    expectColor(depth.at(0, 0), 10, 10, 10, 1, 1e-4f, "depth, ground");
    expectColor(normal.at(0, 0), 0, 0, 1, 1, 1e-4f, "normal, ground");
    EXPECT_NEAR(position.at(0, 0).b, 0.0f, 1e-4f);
    EXPECT_LT(position.at(0, 0).r, -2.0f);
    EXPECT_GT(position.at(0, 0).g, 1.5f); /* top of the picture: +y */
    expectColor(albedo.at(0, 0), 0.4f, 0.1f, 0.05f, 1, 1e-4f, "albedo, ground");
    expectColor(coverage.at(3, 3), 1, 1, 1, 1, 1e-4f, "coverage");

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
    EXPECT_EQ(plain.pass("beauty")->rgba, r.pass("beauty")->rgba);
    EXPECT_EQ(plain.pass("diffuse")->rgba, r.pass("diffuse")->rgba);
    EXPECT_EQ(plain.main.rgba, r.main.rgba);
}

TEST(DataPasses, MissesLeaveThemEmptyAlphaIsCoverageAndMattesRankNoSky)
{
    /* the right half sees nothing */
    const RenderResult r = render(
        twoPlanes(9, 2, true, "pass depth depth\npass normal normal\npass coverage coverage\n"), RenderOptions());
    const float mid = r.mattes[0].coverage(4, 0, cryptoId("left"));
    expectColor(r.pass("coverage")->at(4, 0), mid, mid, mid, mid, 1e-4f, "coverage, split pixel");
    expectColor(r.pass("depth")->at(4, 0), 10, 10, 10, mid, 1e-4f, "depth, split pixel");
    expectColor(r.pass("normal")->at(4, 0), 0, 0, mid, mid, 1e-4f, "normal, split pixel");
    expectColor(r.pass("depth")->at(8, 0), kNoDepth, kNoDepth, kNoDepth, 0, 1e-4f, "depth, sky");
    expectColor(r.pass("normal")->at(8, 0), 0, 0, 0, 0, 1e-4f, "normal, sky");
    /* the matte: the sky counts in the pixel but gets no rank */
    EXPECT_GT(mid, 0.3f);
    EXPECT_LT(mid, 0.7f);
    for (int y = 0; y < 2; ++y) {
        EXPECT_EQ(r.mattes[0].coverage(0, y, cryptoId("left")), 1.0f);
        EXPECT_EQ(r.mattes[0].layers[0].at(4, y).a, 0.0f);
        EXPECT_EQ(r.mattes[0].layers[0].at(8, y).r, 0.0f);
        EXPECT_EQ(r.mattes[0].layers[0].at(8, y).g, 0.0f);
    }

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
    /* a unit square as one quad with normals and texture coordinates */
    const std::string text = "o square\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                             "vn 0 0 1\nf 1/1/1 2/2/1 3/3/1 4/4/1\n";
    MeshDesc m;
    parseObj(text, "square.obj", m);
    ASSERT_EQ(m.tris.size(), 2u);
    ASSERT_TRUE(m.P.size() == 4u && m.N.size() == 4u && m.uv.size() == 4u);
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
    parseObj("v 0 0 0\nv 2 0 0\nv 3 1 0\nv 1 2 0\nv -1 1 0\nf 1 2 3 4 5\n"
             "v 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\nf 6 7 8 -1\n",
             "pent.obj", m);
    EXPECT_EQ(m.tris.size(), 3u + 2u);
    EXPECT_TRUE(m.N.empty() && m.uv.empty());
    EXPECT_EQ(m.P.size(), 9u);
    m.kind = MeshKind::Obj; /* through the scene's mesh builder */
    EXPECT_EQ(buildMesh(m).tris, m.tris);
}

/* A relative index counts back from its line: -N with N elements so far is
   exactly the first one and is accepted, for vertices, texture coordinates
   and normals alike; one further back is refused (see the bad files). */
TEST(ObjModels, RelativeIndicesReachExactlyTheFirstElement)
{
    MeshDesc m;
    parseObj("v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.5 0.25\nvn 0 0 1\nf -3/-1/-1 -2/-1/-1 -1/-1/-1\n", "rel.obj", m);
    ASSERT_EQ(m.tris.size(), 1u);
    ASSERT_EQ(m.P.size(), 3u);
    expectVec(m.P[size_t(m.tris[0][0])], 0, 0, 0, 0, "-3 of three: the first vertex");
    EXPECT_EQ(m.P[size_t(m.tris[0][1])].x, 1.0f);
    EXPECT_EQ(m.P[size_t(m.tris[0][2])].y, 1.0f);
    ASSERT_TRUE(m.uv.size() == 3u && m.N.size() == 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(m.uv[i].x, 0.5f);
        EXPECT_EQ(m.uv[i].y, 0.25f);
        EXPECT_EQ(m.N[i].z, 1.0f);
    }
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
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf -4 -2 -1\n", 4, "vertex index -4 reaches before the first vertex (3 so far)"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nf 1/-1 2/-2 3/-1\n", 5,
         "texture coordinate index -2 reaches before the first texture coordinate (1 so far)"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nvn 0 0 1\nf 1//-3 2//-1 3//-2\n", 6,
         "normal index -3 reaches before the first normal (2 so far)"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nf 1//1 2//2 3//1\n", 5, "normal index 2 out of range"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1/1 2/1 3/1\n", 4, "texture coordinate index 1 out of range"},
        {"v 0 0 0\nv 1 zero 0\nv 0 1 0\nf 1 2 3\n", 2, "\"zero\" is not a finite number"},
        {"v 0 0\n", 1, "a vertex needs 3 to 7 numbers"},
        {"v 0 0 0\nv 1 0 0\nf 1 2\n", 3, "at least 3 corners"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 x\n", 4, "\"x\" is not a face corner"},
        {"# nothing\n", 0, "no vertices or no faces"},
        {"v 0 0 0\nv 1 0 0\nv 0 1e39 0\nf 1 2 3\n", 3, "\"1e39\" is not a finite number in single precision"},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0e50813 1\nf 1//1 2//1 3//1\n", 0,
         "normal 1 does not read as a finite number"},
    };
    for (const Case &c : cases) {
        MeshDesc m;
        try {
            parseObj(c.text, "models/bad.obj", m);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const ObjError &e) {
            EXPECT_EQ(e.line(), c.line) << e.what();
            const std::string what = e.what();
            const std::string at = c.line ? ":" + std::to_string(c.line) : std::string(); /* no line: the whole file */
            EXPECT_EQ(what.rfind("models/bad.obj" + at + ": ", 0), 0u) << what;
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
    EXPECT_NE(what.find(dir + "/missing.obj: cannot open it: No such file or directory"), std::string::npos) << what;
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
    EXPECT_TRUE(vase->N.size() == vase->P.size() && vase->uv.size() == vase->P.size());
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
        EXPECT_TRUE(t.factor == 2 && t.width == 20 && t.height == 15) << i;
        ASSERT_TRUE(t.x + t.width <= sheet.image.width && t.labelY + t.labelHeight <= sheet.image.height);
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
    const Image full = makeContactSheet(tiles).image;
    EXPECT_TRUE(w == full.width && h == full.height);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

/* A matte's tile shows the rank-0 id of each pixel in that id's colour,
   weighted by rank 0's own coverage: a pixel the id fills alone is its full
   colour, one where it holds 2 of 3 samples two thirds of it, an empty pixel
   stays black. */
TEST(ContactSheet, MatteTileIsTheFirstRankWeightedByItsCoverage)
{
    RenderImages r;
    r.main = Image(3, 1);
    r.mattes.push_back(makeCryptoMatte("CryptoObject", {"a", "b"}, 3, 1));
    CryptoPixel px(3);
    for (int n : {0, 0, 0})
        px.add(n, 1.0f);
    px.write(r.mattes[0], 0, 0);
    px.clear();
    for (int n : {0, 1, 0})
        px.add(n, 1.0f);
    px.write(r.mattes[0], 1, 0);
    const std::vector<ContactTile> tiles = contactTiles(r);
    ASSERT_EQ(tiles.size(), 2u); /* main and the matte */
    ASSERT_EQ(tiles[1].label, "CryptoObject");
    const Image &t = tiles[1].image;
    const miColor full = t.at(0, 0), part = t.at(1, 0), none = t.at(2, 0);
    EXPECT_GT(std::min({full.r, full.g, full.b}), 0.0f) << "a fully covered pixel is black";
    EXPECT_EQ(full.a, 1.0f);
    expectRGB(part, full.r * 2 / 3, full.g * 2 / 3, full.b * 2 / 3, 1e-6f);
    expectColor(none, 0, 0, 0, 0, 0);
}

TEST(ContactSheet, FontDrawsItsGlyphsInUpperCaseAndClipsThem)
{
    Image img(20, 9), upper(20, 9), clipped(3, 3);
    const miColor ink{1, 1, 1, 1};
    EXPECT_EQ(drawText(img, 1, 1, "l1", ink), 12);
    drawText(upper, 1, 1, "L1", ink);
    EXPECT_EQ(img.rgba, upper.rgba);
    int lit = 0; /* L: 7 down the left, 4 more along the bottom; 1: 10 */
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 20; ++x)
            lit += img.at(x, y).r == 1.0f;
    EXPECT_EQ(lit, 11 + 10);
    EXPECT_TRUE(img.at(1, 1).r == 1.0f && img.at(5, 7).r == 1.0f && img.at(3, 3).r == 0.0f);
    drawText(clipped, -4, -2, "WW", ink, 2); /* partly off the image: cut */
    EXPECT_EQ(clipped.rgba.size(), 36u);
}

} // namespace

#else
#include <gtest/gtest.h>
TEST(HostLookdev, Skipped) { GTEST_SKIP() << "the host renderer is not built"; }
#endif
