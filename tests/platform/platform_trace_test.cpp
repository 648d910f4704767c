// Geometry records, the brute-force mesh scene and the renderer's tracing
// calls: secondary rays and their depth limits, shadow walks, light sampling,
// final gathering, eye rays and the geometric queries.
#include "geometry.h"
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "vecmath.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using mirt::Context;
using mirt::GeometryTags;
using mirt::InstanceDesc;
using mirt::Mesh;
using mirt::MeshScene;

template <class T> T at(miTag tag, size_t off)
{
    T v;
    std::memcpy(&v, static_cast<const unsigned char *>(mirt::db_data(tag)) + off, sizeof v);
    return v;
}

template <class T> T at(const void *p, size_t off)
{
    T v;
    std::memcpy(&v, static_cast<const unsigned char *>(p) + off, sizeof v);
    return v;
}

using mirt::dot;
using mirt::length;


/* Rows are the images of the axes, the last row the translation. */
void setMatrix(InstanceDesc &d, miVector x, miVector y, miVector z, miVector t)
{
    const miMatrix m = {x.x, x.y, x.z, 0, y.x, y.y, y.z, 0, z.x, z.y, z.z, 0, t.x, t.y, t.z, 1};
    std::memcpy(d.local_to_global, m, sizeof m);
}

/* z = 0 plane turned upside down (normal -z) and lifted to height h. */
InstanceDesc facingDown(float h)
{
    InstanceDesc d;
    setMatrix(d, {1, 0, 0}, {0, -1, 0}, {0, 0, -1}, {0, 0, h});
    return d;
}

InstanceDesc lifted(float h)
{
    InstanceDesc d;
    setMatrix(d, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, h});
    return d;
}

miTag colorShader(int type, miShader_fn fn, miColor c, const char *name)
{
    return mirt::make_function(type, fn, &c, sizeof c, sizeof(miColor), false, name);
}

miBoolean constColor(void *result, miState *, void *params)
{
    std::memcpy(result, params, sizeof(miColor));
    return miTRUE;
}

/* The whole suite runs on a clean database with a render context of 8 x 8
   pixels; every pin must be given back. */
class Trace : public RuntimeTest {
protected:
    Trace() : RuntimeTest(8, 8) {}
    /* A state at sample 0 of pixel 0,0, ended after the test. */
    miState *sampleState()
    {
        miState *st = beginState();
        ctx->begin_sample(st, 0, 0);
        return st;
    }
};

// ================================================================ records

TEST_F(Trace, RecordsOfABuiltInstanceReadBackByOffset)
{
    Mesh m = mirt::make_plane(2.0f, 1.0f, 2, 1); /* 6 vertices, 4 triangles */
    m.normal_blend = 128;
    InstanceDesc d;
    setMatrix(d, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {5, -3, 2});
    d.material = 0x111;
    d.shadow = 0x222;
    d.param = 0x333;
    d.userdata = 0x444;
    GeometryTags g = mirt::build_instance(m, d);

    ASSERT_EQ(mi_db_type(g.instance), miSCENE_INSTANCE);
    ASSERT_EQ(mi_db_type(g.object), miSCENE_OBJECT);
    ASSERT_EQ(mi_db_type(g.geolist), miSCENE_GEOLIST);
    ASSERT_EQ(g.boxes.size(), 1u);
    ASSERT_EQ(mi_db_type(g.boxes[0]), miSCENE_BOX);

    // instance: matrices at 8 and 72, tags at 136, 140, 208, 216, 220
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(at<float>(g.instance, 72 + 4 * i), d.local_to_global[i]) << i;
    expectVec(at<miVector>(g.instance, 8 + 4 * 12), -5, 3, -2, kUlps, "inverse translation");
    EXPECT_FLOAT_EQ(at<float>(g.instance, 8 + 4 * 0), 1.0f);
    const std::pair<size_t, miTag> tags[] = {{136, 0x111}, {140, 0x222}, {208, g.object}, {216, 0x333}, {220, g.geolist}};
    for (const auto &t : tags)
        EXPECT_EQ(at<miTag>(g.instance, t.first), t.second) << "byte " << t.first;

    // object: user data 0, type 12, object-space box
    EXPECT_EQ(at<miTag>(g.object, 0), 0x444u);
    EXPECT_EQ(at<int>(g.object, 12), 0);
    expectVec(at<miVector>(g.object, 16), -1.0f, -0.5f, 0.0f);
    expectVec(at<miVector>(g.object, 28), 1.0f, 0.5f, 0.0f);

    // geometry list: count, 72-byte entries from 8, box tag at entry byte 64
    EXPECT_EQ(at<int>(g.geolist, 0), 1);
    EXPECT_EQ(at<miTag>(g.geolist, 8 + 64), g.boxes[0]);

    // box header
    const miTag b = g.boxes[0];
    EXPECT_EQ(at<miUint>(b, 36), 4u);
    EXPECT_EQ(at<miUint>(b, 40), 6u);
    /* position 3 + normal 3 + texture 3 + derivatives 6 + one bump pair 6 */
    const int vsize = at<miUshort>(b, 48);
    EXPECT_EQ(vsize, 21);
    /* normal blend, normal position, texture position and space count, bump vector count, no motion vectors */
    const std::pair<size_t, int> bytes[] = {{1, 128}, {50, 3}, {57, 6}, {58, 1}, {54, 2}, {56, 0}};
    for (const auto &w : bytes)
        EXPECT_EQ(at<miUchar>(b, w.first), w.second) << "byte " << w.first;
    const miUint sizes = at<miUint>(b, 96);
    EXPECT_EQ(at<miUint>(b, sizes), 0u);
    EXPECT_EQ(at<miUint>(b, sizes + 4), 3u);

    // triangle list: word 0 = count; triangle i's vertices reproduce the mesh
    const miUint tl = at<miUint>(b, 88);
    ASSERT_EQ(at<miUint>(b, tl), 4u);
    const int dpos = at<miUchar>(b, 51), bpos = at<miUchar>(b, 53);
    ASSERT_NE(dpos, 0);
    for (int t = 0; t < 4; ++t)
        for (int c = 0; c < 3; ++c) {
            const miUint k = at<miUint>(b, tl + 4 * (1 + 3 * t + c));
            ASSERT_LT(k, 6u);
            const size_t rec = 124 + size_t(k) * vsize * 4;
            const miVector P = at<miVector>(b, rec), want = m.P[m.tris[t][c]];
            expectVec(P, want.x, want.y, want.z, 0);
            expectVec(at<miVector>(b, rec + 12), 0, 0, 1, 0);
            const miVector uv = at<miVector>(b, rec + 24);
            /* the plane's texture space spans it once: u = x / 2 + 0.5, v = y + 0.5 */
            expectVec(uv, want.x / 2 + 0.5f, want.y + 0.5f, 0);
            /* dP/du = (size_x, 0, 0), dP/dv = (0, size_y, 0); the bump pair repeats them */
            for (const int pos : {dpos, bpos}) {
                expectVec(at<miVector>(b, rec + 4 * pos), 2, 0, 0);
                expectVec(at<miVector>(b, rec + 4 * pos + 12), 0, 1, 0);
            }
        }
    mirt::delete_instance(g);
    EXPECT_EQ(mirt::db_data(g.instance), nullptr);
    EXPECT_EQ(mirt::db_data(b), nullptr);
}

/* Five triangles in a row, each with its own three vertices at x = 10 t. */
Mesh stripOfTriangles(int n)
{
    Mesh m;
    for (int t = 0; t < n; ++t) {
        const float x = 10.0f * t;
        m.P.push_back({x, 0, 0});
        m.P.push_back({x + 1, 0, 0});
        m.P.push_back({x, 1, 0});
        m.tris.push_back({3 * t, 3 * t + 1, 3 * t + 2});
    }
    return m;
}

TEST_F(Trace, BoxesSplitInOrderAndKeepTriangleOrdinals)
{
    Mesh m = stripOfTriangles(5);
    m.triangles_per_box = 2;
    GeometryTags g = mirt::build_instance(m, InstanceDesc());
    ASSERT_EQ(g.boxes.size(), 3u);
    ASSERT_EQ(at<int>(g.geolist, 0), 3);
    const miUint counts[3] = {2, 2, 1};
    int ordinal = 0;
    for (int i = 0; i < 3; ++i) {
        const miTag b = at<miTag>(g.geolist, 8 + 72 * i + 64);
        EXPECT_EQ(b, g.boxes[i]) << "list order is box order";
        EXPECT_EQ(at<miUint>(b, 36), counts[i]);
        EXPECT_EQ(at<miUint>(b, 40), 3 * counts[i]) << "a box holds only the vertices it uses";
        EXPECT_EQ(at<miUshort>(b, 48), 3) << "positions only";
        EXPECT_EQ(at<miUchar>(b, 50), 0) << "no normals";
        EXPECT_EQ(at<miUchar>(b, 51), 0) << "no derivatives without texture coordinates";
        EXPECT_EQ(at<miUchar>(b, 58), 0);
        const miUint tl = at<miUint>(b, 88);
        EXPECT_EQ(at<miUint>(b, tl), counts[i]);
        for (miUint t = 0; t < counts[i]; ++t, ++ordinal) {
            const miUint k = at<miUint>(b, tl + 4 * (1 + 3 * t));
            /* the ordinal across boxes names the mesh triangle: its first vertex is at x = 10 * ordinal */
            EXPECT_FLOAT_EQ(at<float>(b, 124 + 12 * k), 10.0f * ordinal);
        }
    }
    EXPECT_EQ(ordinal, 5);
    mirt::delete_instance(g);

    // object type 2 holds exactly one box, named at byte 144
    InstanceDesc d2;
    d2.object_type = 2;
    GeometryTags g2 = mirt::build_instance(m, d2);
    ASSERT_EQ(g2.boxes.size(), 1u);
    EXPECT_EQ(at<int>(g2.object, 12), 2);
    EXPECT_EQ(at<miTag>(g2.object, 144), g2.boxes[0]);
    EXPECT_EQ(at<miUint>(g2.boxes[0], 36), 5u);
    mirt::delete_instance(g2);
}

TEST_F(Trace, BadMeshInputIsReportedAndLeftOut)
{
    Mesh m = stripOfTriangles(3);
    m.tris[1] = {0, 1, 99};            /* out of range */
    m.N = {{0, 0, 1}};                 /* one normal for nine vertices */
    m.uv = {{0, 0, 0}, {1, 0, 0}};     /* two texture coordinates */
    m.triangles_per_box = 0;
    mirt::clear_messages();
    GeometryTags g = mirt::build_instance(m, InstanceDesc());
    int errors = 0;
    for (const auto &msg : mirt::messages())
        errors += msg.level == mirt::Level::Error;
    EXPECT_EQ(errors, 4) << "bad index, normals, texture coordinates, box size";
    ASSERT_EQ(g.boxes.size(), 1u);
    EXPECT_EQ(at<miUint>(g.boxes[0], 36), 2u) << "the bad triangle is dropped";
    EXPECT_EQ(at<miUchar>(g.boxes[0], 50), 0);
    EXPECT_EQ(at<miUchar>(g.boxes[0], 58), 0);
    mirt::delete_instance(g);

    // an empty mesh gives an empty geometry list
    GeometryTags e = mirt::build_instance(Mesh(), InstanceDesc());
    EXPECT_TRUE(e.boxes.empty());
    EXPECT_EQ(at<int>(e.geolist, 0), 0);
    mirt::delete_instance(e);
}

// ================================================================ mesh scene

TEST_F(Trace, PlaneHitsGiveDistanceNormalBarycentricsAndTexture)
{
    /* plane 2 x 2, one quad: triangle 0 = (-1,-1), (1,-1), (1,1); triangle 1 = (-1,-1), (1,1), (-1,1) */
    GeometryTags g = mirt::build_instance(mirt::make_plane(2, 2, 1, 1), lifted(-2));
    MeshScene scene;
    scene.add(g);
    mirt::Hit h;
    ASSERT_TRUE(scene.intersect({0.3f, 0.2f, 5}, {0, 0, -1}, 1e-4, 1e30, h));
    EXPECT_NEAR(h.dist, 7.0, 1e-6);
    EXPECT_EQ(h.instance, g.instance);
    expectVec(h.point, 0.3f, 0.2f, -2);
    expectVec(h.normal, 0, 0, 1);
    expectVec(h.normal_geom, 0, 0, 1);
    /* (0.3, 0.2) - a = (1.3, 1.2) = w1 (2, 0) + w2 (2, 2): w2 = 0.6, w1 = 0.05 */
    expectVec({h.bary[0], h.bary[1], h.bary[2]}, 0.35f, 0.05f, 0.6f, 1e-6f, "barycentrics");
    EXPECT_EQ(h.bary[3], 0.0f);
    EXPECT_EQ(h.pri, mirt::db_data(g.boxes[0]));
    EXPECT_EQ(h.pri_idx, 0);
    ASSERT_EQ(h.num_tex, 1);
    expectVec(h.tex[0], 0.65f, 0.6f, 0);
    EXPECT_EQ(h.num_bumps, 1);
    EXPECT_TRUE(h.has_derivs);
    expectVec(h.derivs[0], 2, 0, 0);
    expectVec(h.derivs[1], 0, 2, 0);

    // above the diagonal: triangle 1
    ASSERT_TRUE(scene.intersect({-0.5f, 0.5f, 5}, {0, 0, -1}, 1e-4, 1e30, h));
    EXPECT_EQ(h.pri_idx, 1);

    // the ray interval is open at both ends
    EXPECT_FALSE(scene.intersect({0.3f, 0.2f, 5}, {0, 0, -1}, 1e-4, 6.9, h));
    EXPECT_FALSE(scene.intersect({0.3f, 0.2f, 5}, {0, 0, -1}, 7.1, 1e30, h));
    EXPECT_FALSE(scene.intersect({0.3f, 0.2f, 5}, {0, 0, 1}, 1e-4, 1e30, h)) << "pointing away";
    EXPECT_FALSE(scene.intersect({1.5f, 0.2f, 5}, {0, 0, -1}, 1e-4, 1e30, h)) << "beside the plane";
    mirt::delete_instance(g);
}

TEST_F(Trace, TransformedPlaneCarriesItsNormalAndDerivativesIntoInternalSpace)
{
    /* x stays, y -> z, z -> -y, lifted by 3 along z: the plane is y = 0 with normal -y */
    InstanceDesc d;
    setMatrix(d, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}, {0, 0, 3});
    GeometryTags g = mirt::build_instance(mirt::make_plane(2, 2, 1, 1), d);
    GeometryTags near = mirt::build_instance(mirt::make_plane(2, 2, 1, 1), lifted(0));
    MeshScene scene;
    scene.add(g);
    scene.add(near); /* z = 0 plane: not on the ray's way */
    mirt::Hit h;
    ASSERT_TRUE(scene.intersect({0.3f, 5, 3.2f}, {0, -1, 0}, 1e-4, 1e30, h));
    EXPECT_NEAR(h.dist, 5.0, 1e-6);
    EXPECT_EQ(h.instance, g.instance);
    expectVec(h.point, 0.3f, 0, 3.2f);
    expectVec(h.normal_geom, 0, -1, 0);
    expectVec(h.normal, 0, -1, 0);
    /* local (0.3, 0.2): u = 0.65, v = 0.6 */
    expectVec(h.tex[0], 0.65f, 0.6f, 0);
    expectVec(h.derivs[0], 2, 0, 0);
    expectVec(h.derivs[1], 0, 0, 2);
    /* the bump basis stays in object space */
    expectVec(h.bump_x[0], 2, 0, 0);
    expectVec(h.bump_y[0], 0, 2, 0);
    mirt::delete_instance(g);
    mirt::delete_instance(near);
}

TEST_F(Trace, NearestOfSeveralSurfacesIsReported)
{
    GeometryTags a = mirt::build_instance(mirt::make_plane(4, 4, 2, 2), lifted(1));
    GeometryTags b = mirt::build_instance(mirt::make_plane(4, 4, 2, 2), lifted(2));
    GeometryTags c = mirt::build_instance(mirt::make_plane(4, 4, 2, 2), lifted(3));
    MeshScene scene;
    scene.add(c);
    scene.add(a);
    scene.add(b);
    mirt::Hit h;
    ASSERT_TRUE(scene.intersect({0.1f, 0.1f, 0}, {0, 0, 1}, 1e-4, 1e30, h));
    EXPECT_EQ(h.instance, a.instance);
    ASSERT_TRUE(scene.intersect({0.1f, 0.1f, 0}, {0, 0, 1}, 1.5, 1e30, h));
    EXPECT_EQ(h.instance, b.instance);
    ASSERT_TRUE(scene.intersect({0.1f, 0.1f, 10}, {0, 0, -1}, 1e-4, 1e30, h));
    EXPECT_EQ(h.instance, c.instance);
    for (auto *g : {&a, &b, &c})
        mirt::delete_instance(*g);
}

TEST_F(Trace, SphereHitsLieOnTheirTriangleAndFaceOutwards)
{
    const float r = 2.0f;
    GeometryTags g = mirt::build_instance(mirt::make_sphere(r, 16, 8), InstanceDesc());
    MeshScene scene;
    scene.add(g);
    mirt::Hit h;
    // the poles are vertices
    ASSERT_TRUE(scene.intersect({0, 0, 10}, {0, 0, -1}, 1e-4, 1e30, h));
    EXPECT_NEAR(h.dist, 8.0, 1e-6);
    expectVec(h.normal, 0, 0, 1);
    EXPECT_NEAR(h.bary[0], 1.0f, 1e-6) << "the pole is the triangle's first vertex";
    ASSERT_TRUE(scene.intersect({0, 0, -10}, {0, 0, 1}, 1e-4, 1e30, h));
    EXPECT_NEAR(h.dist, 8.0, 1e-6);
    expectVec(h.normal, 0, 0, -1);

    // rays from the centre: every hit is on the facet it reports, between the
    // inscribed and the circumscribed sphere, with an outward geometric normal
    const float inner = r * std::cos(3.14159265f / 16) * std::cos(3.14159265f / 8);
    for (int i = 0; i < 64; ++i) {
        const float th = 0.1f + 2.9f * i / 64, ph = 0.37f * i;
        const miVector d{std::sin(th) * std::cos(ph), std::sin(th) * std::sin(ph), std::cos(th)};
        ASSERT_TRUE(scene.intersect({0, 0, 0}, d, 1e-4, 1e30, h)) << i;
        EXPECT_LE(h.dist, r * (1 + 1e-6));
        EXPECT_GE(h.dist, inner);
        EXPECT_GT(dot(h.normal_geom, h.point), 0.0f);
        EXPECT_NEAR(length(h.normal), 1.0f, 1e-5);
        /* vertex normals are P / r, so the interpolated normal is the direction of the point */
        expectVec(h.normal, d.x, d.y, d.z, 2e-5f);
        EXPECT_NEAR(h.bary[0] + h.bary[1] + h.bary[2], 1.0f, 1e-6);
        /* the triangle at pri/pri_idx, weighted by the barycentrics, is the point */
        const unsigned char *box = static_cast<const unsigned char *>(h.pri);
        const int vs = at<miUshort>(box, 48);
        const miUint tl = at<miUint>(box, 88);
        miVector p{0, 0, 0};
        for (int c = 0; c < 3; ++c) {
            const miUint k = at<miUint>(box, tl + 4 * (1 + 3 * h.pri_idx + c));
            const miVector v = at<miVector>(box, 124 + size_t(k) * vs * 4);
            p = {p.x + h.bary[c] * v.x, p.y + h.bary[c] * v.y, p.z + h.bary[c] * v.z};
        }
        expectVec(p, h.point.x, h.point.y, h.point.z, 1e-5f);
    }
    mirt::delete_instance(g);
}

TEST_F(Trace, NormalBlendMixesTheGeometricNormalIn)
{
    Mesh m;
    m.P = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    m.N = {{1, 0, 0}, {1, 0, 0}, {1, 0, 0}};
    m.tris = {{0, 1, 2}};
    mirt::Hit h;
    for (int blend : {0, 128, 255}) {
        m.normal_blend = static_cast<unsigned char>(blend);
        GeometryTags g = mirt::build_instance(m, InstanceDesc());
        MeshScene scene;
        scene.add(g);
        ASSERT_TRUE(scene.intersect({0.2f, 0.2f, 1}, {0, 0, -1}, 1e-4, 1e30, h));
        const float f = blend / 255.0f, l = std::sqrt((1 - f) * (1 - f) + f * f);
        expectVec(h.normal, (1 - f) / l, 0, f / l);
        expectVec(h.normal_geom, 0, 0, 1);
        mirt::delete_instance(g);
    }
}

// ================================================================ reflection and refraction

struct RayLog {
    std::vector<int> levels;       /* reflection level seen by each material call */
    std::vector<miBoolean> traced; /* what mi_trace_reflection returned, deepest call first */
    std::vector<miState> states;   /* copies of the states the material saw */
    std::vector<miState *> ptrs;
    std::vector<miState> env;      /* copies of the states the environment saw */
};
RayLog g_log;

miVector mirror(const miVector &d, const miVector &n)
{
    const float k = 2 * dot(d, n);
    return {d.x - k * n.x, d.y - k * n.y, d.z - k * n.z};
}

/* Reflects and returns the reflection, or its own level as red when no ray was traced. */
miBoolean mirrorMaterial(void *result, miState *s, void *)
{
    g_log.levels.push_back(s->reflection_level);
    g_log.states.push_back(*s);
    g_log.ptrs.push_back(s);
    miVector r = mirror(s->dir, s->normal);
    miColor c{9, 9, 9, 9};
    const miBoolean ok = mi_trace_reflection(&c, s, &r);
    g_log.traced.push_back(ok);
    *static_cast<miColor *>(result) = ok ? c : miColor{float(s->reflection_level), 0, 0, 1};
    return miTRUE;
}

miBoolean envShader(void *result, miState *s, void *params)
{
    g_log.env.push_back(*s);
    std::memcpy(result, params, sizeof(miColor));
    return miTRUE;
}

class Mirrors : public Trace {
protected:
    void prepare() override
    {
        Trace::prepare();
        g_log = RayLog();
        mat = mirt::make_function(miSHADER_MATERIAL, mirrorMaterial, nullptr, 0, 16, false, "mirror");
        env = colorShader(miSHADER_ENVIRONMENT, envShader, {0.1f, 0.2f, 0.3f, 1}, "env");
        InstanceDesc lo = lifted(0), hi = facingDown(4);
        lo.material = hi.material = mat;
        bottom = mirt::build_instance(mirt::make_plane(10, 10, 1, 1), lo);
        top = mirt::build_instance(mirt::make_plane(10, 10, 1, 1), hi);
        scene.add(bottom);
        scene.add(top);
        ctx->set_scene(&scene);
        ctx->set_environment(env);
    }
    miColor shade(miState *st)
    {
        miColor c{};
        ctx->shade_eye(st, {0.3f, 0.2f, 2}, {0, 0, -2}, &c);
        return c;
    }
    miTag mat = 0, env = 0;
    GeometryTags bottom, top;
    MeshScene scene;
};

// The deepest material's level comes back up unchanged as red; a refraction
// level counts towards the trace depth but not the reflection depth.
TEST_F(Mirrors, ReflectionStopsAtTheReflectionOrTheTraceDepth)
{
    struct Case {
        int reflectionDepth, traceDepth, refractionLevel;
        std::vector<int> levels;
        std::vector<miBoolean> traced;
    } cases[] = {{2, 10, 0, {0, 1, 2}, {miFALSE, miTRUE, miTRUE}}, {10, 2, 1, {0, 1}, {miFALSE, miTRUE}}};
    for (const Case &k : cases) {
        SCOPED_TRACE(k.reflectionDepth);
        g_log = RayLog();
        ctx->options().reflection_depth = k.reflectionDepth;
        ctx->options().trace_depth = k.traceDepth;
        miState *st = ctx->begin_state();
        ctx->begin_sample(st, 0, 0);
        st->refraction_level = k.refractionLevel;
        const miColor c = shade(st);
        EXPECT_EQ(g_log.levels, k.levels);
        EXPECT_EQ(g_log.traced, k.traced);
        EXPECT_EQ(c.r, float(k.levels.size() - 1));
        EXPECT_TRUE(g_log.env.empty());
        ctx->end_state(st);
    }
}

TEST_F(Mirrors, ReflectedChildDescribesItsHit)
{
    ctx->options().reflection_depth = 1;
    miState *st = sampleState();
    shade(st);
    ASSERT_EQ(g_log.states.size(), 2u);
    const miState &eye = g_log.states[0], &child = g_log.states[1];
    // the eye ray: type, unit direction, hit on the bottom plane 2 below
    EXPECT_EQ(g_log.ptrs[0], st);
    EXPECT_EQ(eye.type, miRAY_EYE);
    expectVec(eye.dir, 0, 0, -1);
    EXPECT_DOUBLE_EQ(eye.dist, 2.0);
    EXPECT_EQ(eye.instance, bottom.instance);
    expectVec(eye.point, 0.3f, 0.2f, 0);
    EXPECT_FLOAT_EQ(eye.dot_nd, -1.0f);
    EXPECT_EQ(eye.inv_normal, 0);
    // the reflected ray goes up from the eye hit and meets the top plane
    EXPECT_EQ(g_log.ptrs[1]->parent, st);
    EXPECT_EQ(st->child, g_log.ptrs[1]);
    EXPECT_EQ(child.type, miRAY_REFLECT);
    EXPECT_EQ(child.reflection_level, 1);
    EXPECT_EQ(child.refraction_level, 0);
    expectVec(child.org, 0.3f, 0.2f, 0);
    expectVec(child.dir, 0, 0, 1);
    EXPECT_NEAR(child.dist, 4.0, 1e-6);
    EXPECT_EQ(child.instance, top.instance);
    EXPECT_EQ(child.light_instance, 0u);
    expectVec(child.point, 0.3f, 0.2f, 4);
    /* the top plane faces down, towards the ray's origin: no flip */
    expectVec(child.normal, 0, 0, -1);
    EXPECT_EQ(child.inv_normal, 0);
    EXPECT_FLOAT_EQ(child.dot_nd, -1.0f);
    EXPECT_EQ(child.shaderstate, st->shaderstate) << "children share the eye state's store";
}

TEST_F(Mirrors, NormalsFacingAwayAreFlippedTowardsTheRay)
{
    miState *st = sampleState();
    miColor c{};
    /* from above the top plane, looking down at its back */
    ctx->options().reflection_depth = 0;
    ctx->shade_eye(st, {0.3f, 0.2f, 6}, {0, 0, -1}, &c);
    ASSERT_EQ(g_log.states.size(), 1u);
    EXPECT_EQ(g_log.states[0].instance, top.instance);
    EXPECT_EQ(g_log.states[0].inv_normal, 1);
    expectVec(g_log.states[0].normal, 0, 0, 1);
    expectVec(g_log.states[0].normal_geom, 0, 0, 1);
    EXPECT_FLOAT_EQ(g_log.states[0].dot_nd, -1.0f);
}

TEST_F(Mirrors, MissesGoToTheEnvironment)
{
    miState *st = sampleState();
    miColor c{};
    // an eye ray that leaves the scene
    EXPECT_TRUE(ctx->shade_eye(st, {20, 0, 2}, {1, 0, 0}, &c));
    EXPECT_EQ(c.g, 0.2f);
    ASSERT_EQ(g_log.env.size(), 1u);
    EXPECT_EQ(g_log.env[0].instance, 0u);
    EXPECT_EQ(g_log.env[0].type, miRAY_ENVIRONMENT);
    EXPECT_EQ(st->type, miRAY_EYE) << "the eye state's type is restored";

    // a reflection that leaves the scene: the child is an environment ray without hit
    st->point = {20, 0, 2};
    miVector out{1, 0, 0};
    c = {};
    EXPECT_TRUE(mi_trace_reflection(&c, st, &out));
    EXPECT_EQ(c.b, 0.3f);
    ASSERT_NE(st->child, nullptr);
    EXPECT_EQ(st->child->instance, 0u);
    EXPECT_EQ(st->child->light_instance, 0u);
    EXPECT_EQ(st->child->dist, 0.0);
    EXPECT_EQ(g_log.env.back().type, miRAY_ENVIRONMENT);
    EXPECT_EQ(g_log.env.back().reflection_level, 1);

    // the state's own environment shader wins over the render's
    const miTag own = colorShader(miSHADER_ENVIRONMENT, envShader, {0.7f, 0, 0, 1}, "own");
    st->environment = own;
    EXPECT_TRUE(mi_trace_reflection(&c, st, &out));
    EXPECT_EQ(c.r, 0.7f);

    // without any environment nothing is shaded
    st->environment = 0;
    ctx->set_environment(0);
    EXPECT_FALSE(ctx->shade_eye(st, {20, 0, 2}, {1, 0, 0}, &c));
    EXPECT_EQ(c.r, 0.0f);
    EXPECT_EQ(c.a, 0.0f);
}

TEST_F(Mirrors, EnvironmentRaysIgnoreGeometry)
{
    miState *st = sampleState();
    st->point = {0, 0, 1};
    st->reflection_level = 1;
    miVector up{0, 0, 5}; /* straight at the top plane */
    miColor c{};
    EXPECT_TRUE(mi_trace_environment(&c, st, &up));
    EXPECT_EQ(c.r, 0.1f);
    EXPECT_TRUE(g_log.levels.empty()) << "no material ran";
    ASSERT_EQ(g_log.env.size(), 1u);
    EXPECT_EQ(g_log.env[0].type, miRAY_ENVIRONMENT);
    EXPECT_EQ(g_log.env[0].instance, 0u);
    EXPECT_EQ(g_log.env[0].reflection_level, 1);
    expectVec(g_log.env[0].dir, 0, 0, 1);
}

TEST_F(Mirrors, RefractionChildTakesTheParentsIndexAndVolumes)
{
    ctx->options().refraction_depth = 1;
    miState *st = sampleState();
    st->point = {0.3f, 0.2f, 2};
    st->ior = 1.33f;
    st->ior_in = 1.0f;
    st->volume = 0x55;
    st->refraction_volume = 0x66;
    miVector down{0, 0, -3};
    miColor c{};
    g_log = RayLog();
    ctx->options().reflection_depth = 0; /* the material hit below may not reflect */
    EXPECT_TRUE(mi_trace_refraction(&c, st, &down));
    ASSERT_EQ(g_log.states.size(), 1u);
    const miState &child = g_log.states[0];
    EXPECT_EQ(child.type, miRAY_REFRACT);
    EXPECT_EQ(child.refraction_level, 1);
    EXPECT_EQ(child.reflection_level, 0);
    EXPECT_EQ(child.ior_in, 1.33f);
    EXPECT_EQ(child.volume, 0x55u);
    EXPECT_EQ(child.refraction_volume, 0x66u);
    EXPECT_NEAR(child.dist, 2.0, 1e-6);
    EXPECT_EQ(child.instance, bottom.instance);

    // at the refraction depth nothing is traced and the child shows no hit
    st->refraction_level = 1;
    g_log = RayLog();
    c = {5, 5, 5, 5};
    EXPECT_FALSE(mi_trace_refraction(&c, st, &down));
    EXPECT_TRUE(g_log.states.empty());
    EXPECT_TRUE(g_log.env.empty());
    EXPECT_EQ(st->child->instance, 0u);
    EXPECT_EQ(c.r, 0.0f);
}

// ================================================================ shadows

struct ShadowSeen {
    miState *state;
    miTag instance;
    float z;
    int type;
    int marker; /* the eye state's "probe" record as the shader read it */
};
std::vector<ShadowSeen> g_shadow;
miBoolean g_shadowTraceResult;
miColor g_shadowFilter;

struct ShadowParams {
    float factor;
    miBoolean ret;
};

miBoolean halfShadow(void *result, miState *s, void *params)
{
    ShadowParams p;
    std::memcpy(&p, params, sizeof p);
    int size = 0;
    int *probe = static_cast<int *>(mi_shaderstate_get(s, "probe", &size));
    g_shadow.push_back({s, s->instance, s->point.z, s->type, probe && size == 4 ? *probe : -1});
    miColor *f = static_cast<miColor *>(result);
    f->r *= p.factor;
    f->g *= p.factor;
    f->b *= p.factor;
    return p.ret;
}

/* A light shader that shadows its colour: colour times the filter left by the walk. */
miBoolean shadowingLight(void *result, miState *s, void *params)
{
    miColor c;
    std::memcpy(&c, params, sizeof c);
    miColor filter{1, 1, 1, 1};
    g_shadowTraceResult = mi_trace_shadow(&filter, s);
    g_shadowFilter = filter;
    *static_cast<miColor *>(result) = {c.r * filter.r, c.g * filter.g, c.b * filter.b, c.a};
    return g_shadowTraceResult;
}

class Shadows : public Trace {
protected:
    void prepare() override
    {
        Trace::prepare();
        g_shadow.clear();
        ctx->set_scene(&scene);
        light = ctx->add_point_light({0, 0, 5}, colorShader(miSHADER_LIGHT, shadowingLight, {1, 1, 1, 1}, "l"));
    }
    void finish() override
    {
        ctx->set_scene(nullptr);
        for (auto &g : geo)
            mirt::delete_instance(g);
        Trace::finish();
    }
    GeometryTags &occluder(float z, miTag shadow)
    {
        InstanceDesc d = lifted(z);
        d.shadow = shadow;
        geo.push_back(mirt::build_instance(mirt::make_plane(4, 4, 1, 1), d));
        scene.add(geo.back());
        return geo.back();
    }
    miTag shadowShader(float factor, miBoolean ret)
    {
        ShadowParams p{factor, ret};
        return mirt::make_function(miSHADER_SHADOW, halfShadow, &p, sizeof p, 16, false, "shadow");
    }
    /* One light sample at the origin (normal +z); returns the light colour. */
    miColor sample(miState *st, miBoolean *got = nullptr)
    {
        st->point = {0.1f, 0.1f, 0};
        st->normal = {0, 0, 1};
        miColor c{};
        miVector dir;
        miScalar dot_nl;
        int n = 0;
        const miBoolean first = mi_sample_light(&c, &dir, &dot_nl, st, light, &n);
        if (got)
            *got = first;
        if (first) {
            EXPECT_FALSE(mi_sample_light(nullptr, nullptr, nullptr, st, light, &n));
        }
        EXPECT_EQ(n, 1);
        return c;
    }
    std::vector<GeometryTags> geo;
    MeshScene scene;
    miTag light = 0;
};

TEST_F(Shadows, OccludersAreVisitedNearestFirstOnTheSameState)
{
    const miTag s = shadowShader(0.5f, miTRUE);
    /* added out of order; one more beyond the light and one below the point */
    const miTag i3 = occluder(3, s).instance, i1 = occluder(1, s).instance, i2 = occluder(2, s).instance;
    occluder(6, s);
    occluder(-1, s);
    miState *st = sampleState();
    const int probe = 42;
    mi_shaderstate_set(st, "probe", &probe, sizeof probe, 2);
    st->instance = 0x777;
    const miColor c = sample(st);
    ASSERT_EQ(g_shadow.size(), 3u);
    const miTag want[3] = {i1, i2, i3};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(g_shadow[k].instance, want[k]) << k;
        EXPECT_FLOAT_EQ(g_shadow[k].z, float(k + 1));
        EXPECT_EQ(g_shadow[k].type, miRAY_SHADOW);
        EXPECT_EQ(g_shadow[k].state, g_shadow[0].state) << "every occluder sees the same state";
        EXPECT_EQ(g_shadow[k].marker, 42) << "the shadow shader reads the eye state's records";
    }
    EXPECT_EQ(g_shadow[0].state->parent, st) << "that state is the light state of the caller";
    EXPECT_TRUE(g_shadowTraceResult);
    EXPECT_FLOAT_EQ(g_shadowFilter.r, 0.125f);
    EXPECT_FLOAT_EQ(c.g, 0.125f);
    // the light state has its own fields back
    const miState *ls = g_shadow[0].state;
    EXPECT_EQ(ls->instance, 0x777u);
    EXPECT_EQ(ls->type, miRAY_LIGHT);
    expectVec(ls->point, 0, 0, 5);
    EXPECT_NEAR(ls->dist, std::sqrt(0.02 + 25.0), 1e-5);
}

// Three transparent occluders 3e-4 apart (a few times the step a shadow walk
// takes past each crossing), crossed on the diagonal edge their two triangles
// share: each is visited exactly once, nearest first.
TEST_F(Shadows, CloselyStackedOccludersAreEachVisitedOnceInOrder)
{
    const miTag s = shadowShader(0.5f, miTRUE);
    const miTag far = occluder(2.0006f, s).instance, near = occluder(2.0f, s).instance,
                mid = occluder(2.0003f, s).instance;
    miState *st = sampleState();
    const miColor c = sample(st);
    ASSERT_EQ(g_shadow.size(), 3u);
    const miTag want[3] = {near, mid, far};
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(g_shadow[k].instance, want[k]) << k;
    EXPECT_LT(g_shadow[0].z, g_shadow[1].z);
    EXPECT_LT(g_shadow[1].z, g_shadow[2].z);
    EXPECT_FLOAT_EQ(g_shadowFilter.r, 0.125f);
    EXPECT_FLOAT_EQ(c.r, 0.125f);
}

// The walk ends at the first occluder that is opaque (no shadow shader), whose
// shader refuses, or that leaves the filter black; nothing behind it is
// visited and the light shader passes the walk's result on.
TEST_F(Shadows, OpaqueRefusingOrBlackOccluderEndsTheWalk)
{
    struct Case {
        const char *name;
        float factor1;
        miBoolean ret1;
        bool opaque2;
    } cases[] = {{"opaque second", 0.5f, miTRUE, true}, {"refusal", 1.0f, miFALSE, false},
                 {"black filter", 0.0f, miTRUE, false}};
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        for (auto &g : geo)
            mirt::delete_instance(g);
        geo.clear();
        scene = MeshScene();
        g_shadow.clear();
        occluder(1, shadowShader(k.factor1, k.ret1));
        occluder(2, k.opaque2 ? 0 : shadowShader(0.5f, miTRUE));
        occluder(3, shadowShader(0.5f, miTRUE));
        miState *st = ctx->begin_state();
        ctx->begin_sample(st, 0, 0);
        miBoolean got = miTRUE;
        sample(st, &got);
        EXPECT_FALSE(got);
        EXPECT_FALSE(g_shadowTraceResult);
        EXPECT_EQ(g_shadow.size(), 1u);
        if (k.opaque2)
            expectRGB(g_shadowFilter, 0, 0, 0, 0);
        ctx->end_state(st);
    }
}

TEST_F(Shadows, UnoccludedAndNonCastingLightsKeepTheFilter)
{
    miState *st = sampleState();
    miColor c = sample(st);
    EXPECT_TRUE(g_shadowTraceResult);
    EXPECT_EQ(c.r, 1.0f);

    occluder(1, 0);
    miLight *l = static_cast<miLight *>(mirt::db_data(at<miTag>(light, 208)));
    l->shadow = miFALSE;
    c = sample(st);
    EXPECT_TRUE(g_shadowTraceResult) << "a light that casts no shadow is not traced";
    EXPECT_EQ(c.r, 1.0f);
}

// ================================================================ light sampling

struct LightSeen {
    miState *state;
    miState copy;
};
std::vector<LightSeen> g_light;
int g_lightCalls;

struct LightParams {
    miColor color;
    int refuseOdd; /* return miFALSE for odd calls */
};

miBoolean recordingLight(void *result, miState *s, void *params)
{
    LightParams p;
    std::memcpy(&p, params, sizeof p);
    g_light.push_back({s, *s});
    const int call = g_lightCalls++;
    *static_cast<miColor *>(result) = p.color;
    /* publishes into the shared store, as a light shader of the host does */
    mi_shaderstate_set(s, "lightcalls", &g_lightCalls, sizeof g_lightCalls, 2);
    return (p.refuseOdd && call % 2) ? miFALSE : miTRUE;
}

class Lights : public Trace {
protected:
    void prepare() override
    {
        Trace::prepare();
        g_light.clear();
        g_lightCalls = 0;
    }
    miTag shader(miColor c, bool refuseOdd = false)
    {
        LightParams p{c, refuseOdd ? 1 : 0};
        return mirt::make_function(miSHADER_LIGHT, recordingLight, &p, sizeof p, 16, false, "light");
    }
    /* A whole light loop of `light` at st: the samples it yielded; n is the loop's count. */
    static int loop(miState *st, miTag light, int &n)
    {
        miColor c;
        miVector dir;
        miScalar dot_nl;
        int yielded = 0;
        while (mi_sample_light(&c, &dir, &dot_nl, st, light, &n))
            ++yielded;
        return yielded;
    }
};

TEST_F(Lights, PointLightGivesOneSampleWithDirectionAndCosine)
{
    const miTag light = ctx->add_point_light({3, 0, 4}, shader({0.5f, 0.25f, 1, 1}));
    miState *st = sampleState();
    st->point = {0, 0, 0};
    st->normal = {0, 0, 1};
    miColor c{};
    miVector dir{};
    miScalar dot_nl = 0;
    int n = -1;
    ASSERT_TRUE(mi_sample_light(&c, &dir, &dot_nl, st, light, &n));
    EXPECT_EQ(c.g, 0.25f);
    expectVec(dir, 0.6f, 0, 0.8f);
    EXPECT_FLOAT_EQ(dot_nl, 0.8f);
    EXPECT_FALSE(mi_sample_light(&c, &dir, &dot_nl, st, light, &n));
    EXPECT_EQ(n, 1);
    ASSERT_EQ(g_light.size(), 1u);
    const miState &ls = g_light[0].copy;
    EXPECT_EQ(ls.type, miRAY_LIGHT);
    EXPECT_EQ(ls.light_instance, light);
    expectVec(ls.org, 0, 0, 0);
    expectVec(ls.point, 3, 0, 4);
    expectVec(ls.dir, 0.6f, 0, 0.8f);
    EXPECT_NEAR(ls.dist, 5.0, 1e-6);
    expectVec(ls.normal, 0, 0, 1);
    EXPECT_EQ(ls.parent, st);
    int size = 0;
    int *calls = static_cast<int *>(mi_shaderstate_get(st, "lightcalls", &size));
    ASSERT_NE(calls, nullptr) << "the light shader shares the caller's store";
    EXPECT_EQ(*calls, 1);
}

TEST_F(Lights, RectangleLightSamplesLieOnTheRectangle)
{
    const miVector center{1, 2, 6}, hu{2, 0, 0}, hv{0, 0.5f, 0};
    const miTag light = ctx->add_rect_light(center, hu, hv, 9, shader({1, 1, 1, 1}));
    miState *st = beginState();
    ctx->begin_sample(st, 3, 5);
    st->point = {0, 0, 0};
    st->normal = {0, 0, 1};
    miColor c;
    miVector dir;
    miScalar dot_nl;
    int n = 0, yielded = 0;
    while (mi_sample_light(&c, &dir, &dot_nl, st, light, &n)) {
        ++yielded;
        EXPECT_EQ(n, yielded) << "inside the loop: the samples taken so far, this one included";
        const miState &ls = g_light.back().copy;
        const miVector rel{ls.point.x - center.x, ls.point.y - center.y, ls.point.z - center.z};
        EXPECT_NEAR(rel.z, 0.0f, 1e-6) << "in the rectangle's plane";
        EXPECT_LE(std::fabs(rel.x / hu.x), 1.0f);
        EXPECT_LE(std::fabs(rel.y / hv.y), 1.0f);
        EXPECT_NEAR(length(dir), 1.0f, 1e-6);
        EXPECT_FLOAT_EQ(dot_nl, dir.z);
        const float l = length(ls.point);
        EXPECT_NEAR(dir.x, ls.point.x / l, 1e-6);
        EXPECT_NEAR(ls.dist, l, 1e-5);
    }
    EXPECT_EQ(yielded, 9);
    EXPECT_EQ(n, 9);
    ASSERT_EQ(g_light.size(), 9u);
    int distinct = 0;
    for (size_t i = 1; i < g_light.size(); ++i)
        distinct += g_light[i].copy.point.x != g_light[0].copy.point.x;
    EXPECT_GT(distinct, 0) << "samples spread over the rectangle";

    // query 4: internal space to the light's own space maps the rectangle to the unit square
    miScalar *m = nullptr;
    ASSERT_TRUE(mi_query(miQ_INST_GLOBAL_TO_LOCAL, nullptr, light, &m));
    ASSERT_NE(m, nullptr);
    miVector corner{center.x + hu.x + hv.x, center.y + hu.y + hv.y, center.z + hu.z + hv.z}, local;
    mi_point_transform(&local, &corner, m);
    expectVec(local, 1, 1, 0);
    mi_point_transform(&local, &center, m);
    expectVec(local, 0, 0, 0);
}

TEST_F(Lights, RefusedSamplesAreSkippedButCounted)
{
    const miTag light = ctx->add_rect_light({0, 0, 5}, {1, 0, 0}, {0, 1, 0}, 5, shader({1, 1, 1, 1}, true));
    miState *st = sampleState();
    int n = 0;
    EXPECT_EQ(loop(st, light, n), 3) << "calls 0, 2 and 4 are accepted";
    EXPECT_EQ(g_lightCalls, 5);
    EXPECT_EQ(n, 5);
    // a second loop at the same point starts afresh
    EXPECT_EQ(loop(st, light, n), 2) << "the shader's call count continues: calls 6 and 8";
    EXPECT_EQ(n, 5);
}

TEST_F(Lights, NestedLoopsOnOtherStatesKeepTheirOwnPosition)
{
    const miTag a = ctx->add_rect_light({0, 0, 5}, {1, 0, 0}, {0, 1, 0}, 4, shader({1, 0, 0, 1}));
    const miTag b = ctx->add_point_light({0, 3, 3}, shader({0, 1, 0, 1}));
    miState *s1 = ctx->begin_state(0);
    miState *s2 = ctx->begin_state(0);
    ctx->begin_sample(s1, 0, 0);
    ctx->begin_sample(s2, 1, 0);
    s2->point = {5, 5, 5};
    miColor c;
    miVector dir;
    miScalar dot_nl;
    int n1 = 0, outer = 0, innerTotal = 0, otherLight = 0;
    while (mi_sample_light(&c, &dir, &dot_nl, s1, a, &n1)) {
        ++outer;
        int n2 = 0, n3 = 0;
        innerTotal += loop(s2, a, n2);
        EXPECT_EQ(n2, 4);
        otherLight += loop(s1, b, n3);
        EXPECT_EQ(n3, 1);
    }
    EXPECT_EQ(outer, 4);
    EXPECT_EQ(n1, 4);
    EXPECT_EQ(innerTotal, 16);
    EXPECT_EQ(otherLight, 4);
    ctx->end_state(s1);
    ctx->end_state(s2);
}

TEST_F(Lights, BadLightTagIsReported)
{
    miState *st = beginState();
    mirt::clear_messages();
    int n = 7;
    EXPECT_EQ(loop(st, ctx->camera_instance(), n), 0);
    EXPECT_EQ(n, 0);
    ASSERT_EQ(mirt::messages().size(), 1u);
    EXPECT_EQ(mirt::messages()[0].level, mirt::Level::Error);
}

TEST_F(Lights, InstanceLightListOrEveryLight)
{
    const miTag l1 = ctx->add_point_light({0, 0, 1}, shader({1, 1, 1, 1}));
    const miTag l2 = ctx->add_point_light({0, 0, 2}, shader({1, 1, 1, 1}));
    GeometryTags g = mirt::build_instance(mirt::make_plane(1, 1, 1, 1), InstanceDesc());
    miState *st = beginState();
    st->instance = g.instance;
    int n = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&n, &lights, st);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(lights[0], l1);
    EXPECT_EQ(lights[1], l2);

    struct {
        int count;
        miTag tags[1];
    } list{1, {l2}};
    miInstance *inst = static_cast<miInstance *>(mirt::db_data(g.instance));
    inst->light_list = mirt::db_create_data(&list, sizeof list);
    mi_instance_lightlist(&n, &lights, st);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(lights[0], l2);

    list.count = 3; /* more than the item holds */
    std::memcpy(mirt::db_data(inst->light_list), &list, sizeof list);
    mirt::clear_messages();
    mi_instance_lightlist(&n, &lights, st);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(mirt::messages().size(), 1u);
    mirt::delete_instance(g);
}

// ================================================================ queries

TEST_F(Trace, GeometricQueriesOnATransformedInstance)
{
    /* x doubled, y -> z, z -> -y, lifted by 3: the 2 x 2 plane spans x in [-2, 2], y = 0, z in [2, 4] */
    InstanceDesc d;
    setMatrix(d, {2, 0, 0}, {0, 0, 1}, {0, -1, 0}, {0, 0, 3});
    GeometryTags g = mirt::build_instance(mirt::make_plane(2, 2, 3, 3), d);
    Mesh bare = mirt::make_plane(2, 2, 1, 1);
    bare.uv.clear();
    GeometryTags plain = mirt::build_instance(bare, InstanceDesc());
    GeometryTags empty = mirt::build_instance(Mesh(), InstanceDesc());
    miState *st = beginState();

    st->instance = g.instance;
    miVector lo{}, hi{};
    ASSERT_TRUE(mi_query(miQ_INST_BBOX_MIN, st, 0, &lo));
    ASSERT_TRUE(mi_query(miQ_INST_BBOX_MAX, st, 0, &hi));
    expectVec(lo, -2, 0, 2);
    expectVec(hi, 2, 0, 4);
    int flag = 0;
    EXPECT_TRUE(mi_query(miQ_INST_GEOMETRY, st, 0, &flag));

    miScalar *m = nullptr;
    ASSERT_TRUE(mi_query(miQ_INST_GLOBAL_TO_LOCAL, nullptr, g.instance, &m));
    miVector p{1, 0, 3.5f}, local;
    mi_point_transform(&local, &p, m);
    expectVec(local, 0.5f, 0.5f, 0);
    miScalar *m2 = nullptr;
    ASSERT_TRUE(mi_query(miQ_INST_GLOBAL_TO_LOCAL, st, 0, &m2)) << "no tag: the state's instance";
    EXPECT_EQ(m2, m);
    EXPECT_FALSE(mi_query(miQ_INST_GLOBAL_TO_LOCAL, nullptr, ctx->options_tag(), &m));

    st->instance = empty.instance;
    EXPECT_FALSE(mi_query(miQ_INST_GEOMETRY, st, 0, &flag));
    st->instance = 0;
    EXPECT_FALSE(mi_query(miQ_INST_GEOMETRY, st, 0, &flag));
    EXPECT_FALSE(mi_query(miQ_INST_BBOX_MIN, st, 0, &lo));

    // bump bases and derivatives follow the surface that was hit
    MeshScene scene;
    scene.add(g);
    scene.add(plain);
    ctx->set_scene(&scene);
    miColor c;
    int bumps = -1, derivs = -1;
    ctx->shade_eye(st, {1, 5, 3.5f}, {0, -1, 0}, &c);
    ASSERT_EQ(st->instance, g.instance);
    ASSERT_TRUE(mi_query(miQ_NUM_BUMPS, st, 0, &bumps));
    ASSERT_TRUE(mi_query(miQ_DERIVS, st, 0, &derivs));
    EXPECT_EQ(bumps, 1);
    EXPECT_NE(derivs, 0);
    expectVec(st->derivs[1], 0, 0, 2);
    expectVec(st->tex_list[0], 0.75f, 0.75f, 0);
    ctx->shade_eye(st, {0.1f, 0.1f, 1}, {0, 0, -1}, &c);
    ASSERT_EQ(st->instance, plain.instance);
    ASSERT_TRUE(mi_query(miQ_NUM_BUMPS, st, 0, &bumps));
    ASSERT_TRUE(mi_query(miQ_DERIVS, st, 0, &derivs));
    EXPECT_EQ(bumps, 0);
    EXPECT_EQ(derivs, 0);
    // a hand-made point without primitive has derivatives when they are set
    st->pri = nullptr;
    st->derivs[0] = {1, 0, 0};
    ASSERT_TRUE(mi_query(miQ_DERIVS, st, 0, &derivs));
    EXPECT_NE(derivs, 0);
    st->derivs[0] = {0, 0, 0};
    ASSERT_TRUE(mi_query(miQ_DERIVS, st, 0, &derivs));
    EXPECT_EQ(derivs, 0);

    for (auto *t : {&g, &plain, &empty})
        mirt::delete_instance(*t);
}

// ================================================================ final gathering and shader calls

std::vector<miState> g_gather;
miBoolean gatherEnv(void *result, miState *s, void *params)
{
    g_gather.push_back(*s);
    std::memcpy(result, params, sizeof(miColor));
    return miTRUE;
}

TEST_F(Trace, AverageRadianceOfAConstantEnvironmentIsThatConstant)
{
    ctx->set_environment(colorShader(miSHADER_ENVIRONMENT, gatherEnv, {0.25f, 0.5f, 0.75f, 1}, "env"));
    ctx->options().finalgather_rays = 5;
    miState *st = beginState();
    ctx->begin_sample(st, 2, 3);
    st->point = {1, 2, 3};
    st->normal = {0, 1, 0};
    g_gather.clear();

    miIrrad_options o{};
    o.size = 52;
    o.finalgather_rays = 7;
    o.globillum_radius = 3.5f;
    o.finalgather_view = 1;
    o.finalgather_scale = -1;
    miColor r{};
    ASSERT_TRUE(mi_compute_avg_radiance(&r, st, 'f', &o));
    expectColor(r, 0.25f, 0.5f, 0.75f, 1, 0);
    EXPECT_EQ(g_gather.size(), 7u) << "the record's ray count";
    for (const miState &s : g_gather) {
        EXPECT_EQ(s.type, miRAY_ENVIRONMENT);
        EXPECT_GT(s.dir.y, 0.0f) << "front hemisphere";
        EXPECT_NEAR(length(s.dir), 1.0f, 1e-5);
        expectVec(s.org, 1, 2, 3);
    }

    g_gather.clear();
    ASSERT_TRUE(mi_compute_avg_radiance(&r, st, 'f', nullptr));
    EXPECT_EQ(g_gather.size(), 5u) << "the options' ray count";
    miIrrad_options absent{};
    g_gather.clear();
    ASSERT_TRUE(mi_compute_avg_radiance(&r, st, 'f', &absent));
    EXPECT_EQ(g_gather.size(), 5u) << "a record of size 0 counts as absent";

    const auto calls = ctx->irradiance_calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(std::memcmp(&calls[0], &o, sizeof o), 0) << "a byte copy of the record";
    EXPECT_EQ(calls[1].size, 0);
    EXPECT_EQ(calls[2].size, 0);
    ctx->clear_irradiance_calls();
    EXPECT_TRUE(ctx->irradiance_calls().empty());

    // no rays: black and success, no environment call
    ctx->options().finalgather_rays = 0;
    g_gather.clear();
    r = {1, 1, 1, 1};
    EXPECT_TRUE(mi_compute_avg_radiance(&r, st, 'f', nullptr));
    EXPECT_EQ(r.r, 0.0f);
    EXPECT_EQ(r.a, 0.0f);
    EXPECT_TRUE(g_gather.empty());
}

TEST_F(Trace, GatherDirectionsAreCosineWeighted)
{
    ctx->set_environment(colorShader(miSHADER_ENVIRONMENT, gatherEnv, {1, 1, 1, 1}, "env"));
    ctx->options().finalgather_rays = 512;
    miState *st = sampleState();
    const float s = std::sqrt(1.0f / 3.0f);
    st->normal = {s, s, s};
    for (miUchar face : {miUchar('f'), miUchar('b')}) {
        g_gather.clear();
        miColor r;
        ASSERT_TRUE(mi_compute_avg_radiance(&r, st, face, nullptr));
        ASSERT_EQ(g_gather.size(), 512u);
        const float sign = face == 'f' ? 1.0f : -1.0f;
        double mean = 0;
        for (const miState &g : g_gather) {
            const float c = sign * dot(g.dir, st->normal);
            EXPECT_GE(c, 0.0f);
            mean += c;
        }
        /* a cosine-weighted hemisphere has E[cos] = 2/3 */
        EXPECT_NEAR(mean / 512, 2.0 / 3.0, 0.02) << face;
    }
}

TEST_F(Trace, GatherRaysShadeHitsWithTheMaterialWhileDepthAllows)
{
    ctx->set_environment(colorShader(miSHADER_ENVIRONMENT, gatherEnv, {0, 0, 1, 1}, "env"));
    InstanceDesc d = facingDown(1);
    d.material = colorShader(miSHADER_MATERIAL, gatherEnv, {1, 0, 0, 1}, "red");
    GeometryTags roof = mirt::build_instance(mirt::make_plane(4000, 4000, 1, 1), d);
    MeshScene scene;
    scene.add(roof);
    ctx->set_scene(&scene);
    ctx->options().finalgather_rays = 16;
    miState *st = sampleState();
    st->normal = {0, 0, 1};
    g_gather.clear();
    miColor r;
    ASSERT_TRUE(mi_compute_avg_radiance(&r, st, 'f', nullptr));
    EXPECT_FLOAT_EQ(r.r, 1.0f) << "a roof over the whole hemisphere";
    EXPECT_EQ(r.b, 0.0f);
    ASSERT_EQ(g_gather.size(), 16u);
    EXPECT_EQ(g_gather[0].type, miRAY_FINALGATHER);
    EXPECT_EQ(g_gather[0].instance, roof.instance);
    EXPECT_EQ(g_gather[0].reflection_level, 1);
    EXPECT_EQ(g_gather[0].parent, st);

    // at the trace depth hits are black; the material is not called
    ctx->options().trace_depth = 0;
    g_gather.clear();
    ASSERT_TRUE(mi_compute_avg_radiance(&r, st, 'f', nullptr));
    EXPECT_EQ(r.r, 0.0f);
    EXPECT_TRUE(g_gather.empty());
    mirt::delete_instance(roof);
}

miTag g_seenShader;
miBoolean whoAmI(void *result, miState *s, void *)
{
    g_seenShader = s->shader ? s->shader->tag : 0;
    *static_cast<miColor *>(result) = {0.5f, 0.5f, 0.5f, 1};
    return miTRUE;
}

TEST_F(Trace, CallShaderSwitchesTheCurrentShaderForTheCall)
{
    miState *st = beginState();
    const miTag f = mirt::make_function(miSHADER_ENVIRONMENT, whoAmI, nullptr, 0, 16, false, "who");
    miFunction *before = st->shader;
    miColor c{};
    EXPECT_TRUE(mi_call_shader_x(&c, miSHADER_ENVIRONMENT, st, f, nullptr));
    EXPECT_EQ(g_seenShader, f);
    EXPECT_EQ(c.r, 0.5f);
    EXPECT_EQ(st->shader, before);
    c = {3, 3, 3, 3};
    EXPECT_FALSE(mi_call_shader_x(&c, miSHADER_ENVIRONMENT, st, 0, nullptr));
    EXPECT_EQ(c.r, 3.0f) << "no shader: the result is left alone";
}

TEST_F(Trace, EyeRayOnAnInstanceWithoutMaterialShadesNothing)
{
    ctx->set_environment(colorShader(miSHADER_ENVIRONMENT, constColor, {1, 1, 1, 1}, "env"));
    GeometryTags g = mirt::build_instance(mirt::make_plane(2, 2, 1, 1), InstanceDesc());
    MeshScene scene;
    scene.add(g);
    ctx->set_scene(&scene);
    miState *st = beginState();
    miColor c{5, 5, 5, 5};
    EXPECT_FALSE(ctx->shade_eye(st, {0, 0, 1}, {0, 0, -1}, &c));
    EXPECT_EQ(c.r, 0.0f);
    EXPECT_EQ(st->instance, g.instance) << "the hit is still recorded";
    EXPECT_EQ(ctx->scene(), &scene);
    mirt::delete_instance(g);
}

// ================================================================ threads

/* shadowingLight without the test's globals, for several threads */
miBoolean shadowedLightMT(void *result, miState *s, void *params)
{
    miColor c;
    std::memcpy(&c, params, sizeof c);
    miColor filter{1, 1, 1, 1};
    const miBoolean ok = mi_trace_shadow(&filter, s);
    *static_cast<miColor *>(result) = {c.r * filter.r, c.g * filter.g, c.b * filter.b, c.a};
    return ok;
}

/* A material that samples a shadowed area light and adds a reflection. */
miBoolean litMaterial(void *result, miState *s, void *)
{
    miColor sum{0, 0, 0, 0}, c;
    miVector dir;
    miScalar dot_nl;
    int n = 0;
    for (miTag l : mirt::context_of(s)->lights())
        while (mi_sample_light(&c, &dir, &dot_nl, s, l, &n)) {
            sum.r += c.r * dot_nl;
            sum.g += c.g * dot_nl;
        }
    if (n)
        sum = {sum.r / n, sum.g / n, 0, 1};
    miVector r = mirror(s->dir, s->normal);
    if (mi_trace_reflection(&c, s, &r))
        sum.b = c.b;
    *static_cast<miColor *>(result) = sum;
    return miTRUE;
}

TEST_F(Trace, StatesOnSeveralThreadsTraceIndependently)
{
    ctx->set_environment(colorShader(miSHADER_ENVIRONMENT, constColor, {0, 0, 0.5f, 1}, "env"));
    const miTag mat = mirt::make_function(miSHADER_MATERIAL, litMaterial, nullptr, 0, 16, false, "lit");
    InstanceDesc floor = lifted(0), blocker = lifted(2);
    floor.material = mat;
    blocker.material = mat;
    blocker.shadow = 0;
    GeometryTags f = mirt::build_instance(mirt::make_plane(8, 8, 4, 4), floor);
    GeometryTags b = mirt::build_instance(mirt::make_sphere(0.5f, 12, 6), blocker);
    MeshScene scene;
    scene.add(f);
    scene.add(b);
    ctx->set_scene(&scene);
    ctx->add_rect_light({0, 0, 5}, {1, 0, 0}, {0, 1, 0}, 8,
                       colorShader(miSHADER_LIGHT, shadowedLightMT, {1, 1, 1, 1}, "light"));

    auto render = [&](int thread, std::vector<miColor> &out) {
        miState *st = ctx->begin_state(thread);
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 6; ++x) {
                ctx->begin_sample(st, x, y);
                miColor c{};
                ctx->shade_eye(st, {x - 2.5f, y - 2.5f, 10}, {0, 0, -1}, &c);
                out.push_back(c);
            }
        ctx->end_state(st);
    };
    std::vector<miColor> ref, a, bb;
    render(0, ref);
    std::thread t1([&] { render(1, a); });
    std::thread t2([&] { render(2, bb); });
    t1.join();
    t2.join();
    ASSERT_EQ(ref.size(), 36u);
    int shadowed = 0, lit = 0;
    for (size_t i = 0; i < ref.size(); ++i) {
        EXPECT_EQ(std::memcmp(&ref[i], &a[i], sizeof(miColor)), 0) << i;
        EXPECT_EQ(std::memcmp(&ref[i], &bb[i], sizeof(miColor)), 0) << i;
        shadowed += ref[i].r < 0.5f;
        lit += ref[i].r > 0.5f;
    }
    EXPECT_GT(shadowed, 0) << "the sphere casts a shadow on the floor";
    EXPECT_GT(lit, 0);
    mirt::delete_instance(f);
    mirt::delete_instance(b);
}

} // namespace
