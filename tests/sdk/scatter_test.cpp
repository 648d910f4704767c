// Subsurface-scattering cache: point spreading, lazy evaluation, falloff
// weights, cache reuse and teardown, hash slots, nested lookups and many
// threads on one cache, all through the runtime's database, lights and states.
#define DRUX_COUNT_NEW_BY_CALLER
#include "count_new.h"
#include "DruxShaderSDK.h"
#include "geometry.h"
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "sss_params.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// This program calls the scattering cache's test build
// (libdrux_scatter_lostrace.so, loaded ahead of the library), in which every
// batch run first lets the batch queue run empty, so the path of a thread
// that lost the race for the last batch runs on every batch of every test.

const char *const kTag = "SDK/druxScatter";

struct LightParams {
    miColor color;
    int addConstant;
    int addLambert;
};

// What the shaders saw while points were evaluated (any thread).
struct Probe {
    std::mutex mu;
    std::vector<miVector> points;  // illuminated points
    std::vector<miVector> normals; // shading normal of the rebuilt state
    std::atomic<int> lightCalls{0};
    std::function<void(miState *)> onLight;           // extra light-shader behaviour
    std::function<miColor(miState *)> colour;         // the connected colour input
    void clear()
    {
        std::lock_guard<std::mutex> lk(mu);
        points.clear(), normals.clear(), lightCalls = 0, onLight = nullptr, colour = nullptr;
    }
} probe;

ScatterCache **gHead = nullptr; // list head used by the material shader

miBoolean probeLight(void *result, miState *state, void *params)
{
    const LightParams *p = static_cast<const LightParams *>(params);
    if (BaseShaderState *b = baseRecord(state))
        b->lightData.addConstant = p->addConstant, b->lightData.addLambert = p->addLambert;
    {
        std::lock_guard<std::mutex> lk(probe.mu);
        probe.points.push_back(state->org);
        probe.normals.push_back(state->parent->normal);
    }
    ++probe.lightCalls;
    if (probe.onLight)
        probe.onLight(state);
    *static_cast<miColor *>(result) = p->color;
    return miTRUE;
}

miBoolean probeColour(void *result, miState *state, void *)
{
    *static_cast<miColor *>(result) = probe.colour ? probe.colour(state) : miColor{1, 1, 1, 1};
    return miTRUE;
}

miBoolean sssMaterial(void *result, miState *state, void *params)
{
    SssParams *p = static_cast<SssParams *>(params);
    scatterWith(static_cast<miColor *>(result), p, state, gHead);
    return miTRUE;
}

using Tri = std::array<miVector, 3>;

// One instance of separate triangles, each with its own vertices and (when
// given) its own flat vertex normal.
mirt::GeometryTags triangles(const std::vector<Tri> &tris, int perBox = 1 << 30, int objectType = 0,
                             const std::vector<miVector> &normals = {}, miTag userdata = 0)
{
    mirt::Mesh m;
    for (size_t i = 0; i < tris.size(); ++i) {
        const int b = static_cast<int>(m.P.size());
        for (const miVector &v : tris[i]) {
            m.P.push_back(v);
            if (!normals.empty())
                m.N.push_back(normals[i]);
        }
        m.tris.push_back({b, b + 1, b + 2});
    }
    m.triangles_per_box = perBox;
    mirt::InstanceDesc d;
    d.object_type = objectType;
    d.userdata = userdata;
    return mirt::build_instance(m, d);
}

// A right triangle in the plane z = 0 with legs a (along x) and b (along y).
Tri rightTri(float x, float y, float a, float b) { return {miVector{x, y, 0}, {x + a, y, 0}, {x, y + b, 0}}; }

int events(int line, bool release)
{
    int n = 0;
    for (const auto &e : mirt::mem_events())
        n += e.file == kTag && e.line == line && e.release == release;
    return n;
}

int64_t allocatedAt(int line)
{
    for (const auto &e : mirt::mem_events())
        if (e.file == kTag && e.line == line && !e.release)
            return e.bytes;
    return -1;
}


// Runs fn on another thread; a lookup that deadlocks ends the program
// instead of hanging the suite.
void withinSeconds(int seconds, const std::function<void()> &fn)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    std::thread([fn, done] { fn(), done->set_value(); }).detach();
    if (f.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready) {
        std::fprintf(stderr, "scatter lookup did not finish within %d s: deadlock\n", seconds);
        std::abort();
    }
}

class Scatter : public RuntimeTest {
protected:
    Scatter() : RuntimeTest(8, 8) {}
    void prepare() override
    {
        probe.clear();
        ctx->options().trace = miTRUE;
        ctx->options().trace_depth = ctx->options().reflection_depth = ctx->options().refraction_depth = 4;
        SssParams def{};
        def.scale = {1, 1, 1, 1};
        def.radius = 1, def.samples = 8, def.falloff = 0, def.maxDepth = 4, def.cacheSize = 0, def.diffuse = 1;
        def.color = {1, 1, 1, 1};
        def.irradianceTint = {1, 1, 1, 1};
        material = mirt::make_function(miSHADER_MATERIAL, sssMaterial, &def, sizeof def, 16, true, "sss");
        p = static_cast<SssParams *>(mirt::function(material)->params);
        colourFn = mirt::make_function(miSHADER_TEXTURE, probeColour, nullptr, 0, 16, false, "colour");
        gHead = &head;
        st = newState(0);
    }
    void finish() override
    {
        destroy_scatter(nullptr, &head);
        // The runtime reports a lock taken twice by one thread or deleted
        // while held: a path that forgot to unlock.
        for (const mirt::Message &m : mirt::messages())
            EXPECT_NE(m.text.rfind("mi_", 0), 0u) << m.text;
    }
    miState *newState(int thread)
    {
        BaseShaderState init{};
        init.pathWeight = {1, 1, 1, 1};
        miState *s = beginSample(0, 0, init, thread);
        s->qmc_offset = 0; // the same points whichever pixel triggers a scan
        s->shader = mirt::function(material);
        s->org = {0, 0, 10};
        return s;
    }
    LightParams *light(miVector at, miColor c, int addConstant, int addLambert)
    {
        LightParams lp{c, addConstant, addLambert};
        const miTag fn = mirt::make_function(miSHADER_LIGHT, probeLight, &lp, sizeof lp, 16, false, "l");
        ctx->add_point_light(at, fn);
        return static_cast<LightParams *>(mirt::function(fn)->params);
    }
    // A lookup made from inside point evaluation, with the material's own
    // parameters, at another instance and point of the rebuilt state.
    miColor nestedLookup(miState *s, miTag inst, miVector at)
    {
        const miTag keep = s->instance;
        const miVector keepP = s->point;
        s->instance = inst, s->point = at;
        miColor r{-1, -1, -1, -1};
        sssMaterial(&r, s, p);
        s->instance = keep, s->point = keepP;
        EXPECT_EQ(r.a, 0.0f);
        return r;
    }
    void connectColour() { mirt::connect(material, offsetof(SssParams, color), colourFn); }
    miColor lookup(miTag inst, miVector P, miState *s = nullptr)
    {
        s = s ? s : st;
        s->instance = inst;
        s->point = P;
        miColor r{-1, -1, -1, -1};
        sssMaterial(&r, s, p);
        EXPECT_EQ(r.a, 0.0f); // a scattering result carries no alpha
        return r;
    }
    void reset()
    {
        destroy_scatter(nullptr, &head);
        probe.points.clear(), probe.normals.clear(), probe.lightCalls = 0;
    }

    miState *st = nullptr;
    miTag material = 0, colourFn = 0;
    SssParams *p = nullptr;
    ScatterCache *head = nullptr;
};

// ------------------------------------------------------------ entry checks

TEST_F(Scatter, EarlyStopsReturnBlackAndBuildNothing)
{
    const miTag plane = mirt::build_instance(mirt::make_plane(2, 2, 2, 2), {}).instance;
    light({0, 0, 5}, {1, 1, 1, 1}, 1, 0);
    auto black = [&](const char *why, ScatterCache **list) {
        miColor r{-1, -1, -1, -1};
        st->instance = plane, st->point = {0, 0, 0};
        scatterWith(&r, p, st, list);
        EXPECT_TRUE(r.r == 0 && r.g == 0 && r.b == 0 && r.a == 0) << why;
        EXPECT_EQ(head, nullptr) << why;
    };
    p->radius = 0, black("radius 0", &head), p->radius = -1, black("negative radius", &head), p->radius = 1;
    p->samples = 0, black("no samples", &head), p->samples = 8;
    st->reflection_level = 2, st->refraction_level = 1, p->maxDepth = 3;
    black("depth 3 reaches maxDepth 3", &head);
    ctx->fail_query(116), black("query 116 fails", &head), ctx->set_query_int(116, 1);
    ctx->set_query_int(142, 1), black("query 142 set", &head), ctx->set_query_int(142, 0);
    black("null list head", nullptr);
    EXPECT_EQ(events(816, false), 0);
    EXPECT_EQ(probe.lightCalls, 0);

    p->maxDepth = 4; // depth 3 < 4: scatters, and the alpha stays 0 whatever the scale
    p->scale = {1, 1, 1, 7};
    const miColor r = lookup(plane, {0, 0, 0});
    expectRGB(r, 1, 1, 1);
    EXPECT_NE(head, nullptr);
    destroy_scatter(nullptr, &head);
    ctx->fail_query(52), black("no creation lock", &head);
    EXPECT_EQ(mirt::mem_live_bytes(kTag), 0);
}

TEST_F(Scatter, ObjectOfAnotherTypeHasNoPoints)
{
    const mirt::GeometryTags g = triangles({rightTri(0, 0, 1, 1)}, 1 << 30, 3);
    light({0, 0, 5}, {1, 1, 1, 1}, 1, 0);
    expectRGB(lookup(g.instance, {0.2f, 0.2f, 0}), 0, 0, 0);
    EXPECT_EQ(events(816, false), 1) << "the cache is made; the scan finds no boxes";
    EXPECT_EQ(probe.lightCalls, 0);
}

// ------------------------------------------------------------ spreading points

// r = 4 and 16 samples: pi * 16 / 16, one point per pi of area.  Triangles of
// 2.5, 0.6 and 0.3 areas get 2, 1 (0.5 carried + 0.6) and 0 points (0.1 + 0.3).
class AreaPerPoint : public Scatter, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(AreaPerPoint, RemainderCarriesAcrossTrianglesAndBoxes)
{
    const float pi = 3.14159265f;
    const std::vector<Tri> tris = {rightTri(0, 0, 2.5f, 2 * pi), rightTri(3, 0, 1, 1.2f * pi), rightTri(5, 0, 1, 0.6f * pi)};
    const std::vector<miVector> normals = {{0, 0, 1}, {0, 0.6f, 0.8f}, {0.6f, 0, 0.8f}};
    const mirt::GeometryTags g = triangles(tris, GetParam().first, GetParam().second, normals);
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    p->radius = 4, p->samples = 16;
    lookup(g.instance, {3, 3, 0}); // the 2 x 2 cells all lie in the neighbourhood
    EXPECT_EQ(mirt::mem_live_bytes(kTag), allocatedAt(816) + allocatedAt(858) + 3 * 32) << "three 32-byte points";
    ASSERT_EQ(probe.lightCalls, 3) << "each point evaluated once";
    int inTri[3] = {0, 0, 0};
    for (size_t i = 0; i < probe.points.size(); ++i) {
        const miVector q = probe.points[i];
        for (int t = 0; t < 3; ++t) {
            const Tri &T = tris[t];
            const float a = T[1].x - T[0].x, b = T[2].y - T[0].y;
            const float u = (q.x - T[0].x) / a, v = (q.y - T[0].y) / b;
            if (u >= -1e-6f && v >= -1e-6f && u + v <= 1 + 1e-6f && std::fabs(q.z) < 1e-6f) {
                ++inTri[t];
                // the state is rebuilt on the triangle the ordinal names
                expectVec(probe.normals[i], normals[t], 1e-6f);
            }
        }
    }
    EXPECT_EQ(std::vector<int>(inTri, inTri + 3), (std::vector<int>{2, 1, 0}));
}

INSTANTIATE_TEST_SUITE_P(Boxes, AreaPerPoint,
                         ::testing::Values(std::make_pair(1 << 30, 0), std::make_pair(1, 0), std::make_pair(1 << 30, 2)));

// Forty points in one cell are evaluated in batches of 16, 16 and 8: each
// batch reads the instance once (after the one scan), each point its box.
TEST_F(Scatter, FortyPointsRunInThreeBatches)
{
    for (int mode : {0, 3}) {
        reset();
        const float aps = static_cast<float>(3.141592653589793 / 1000);
        const float leg = std::sqrt(2 * 40.5f * aps);
        const mirt::GeometryTags g = triangles({rightTri(0, 0, leg, leg)});
        if (mode == 0)
            light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
        p->samples = 1000, p->cacheSize = mode;
        const uint64_t inst0 = mirt::db_access_count(g.instance), box0 = mirt::db_access_count(g.boxes[0]);
        lookup(g.instance, {0.1f, 0.1f, 0});
        EXPECT_EQ(probe.lightCalls, 40) << "mode " << mode;
        EXPECT_EQ(mirt::db_access_count(g.instance) - inst0, 1u + 3u) << "one scan, three batches";
        EXPECT_EQ(mirt::db_access_count(g.boxes[0]) - box0, 1u + 40u) << "one scan, one look per point";
    }
}

// An instance of 300 boxes (one triangle each): every box tag is copied while
// the geometry list is read once per instance read, and the boxes past the
// first 256 get their points like the others.
TEST_F(Scatter, MoreThan256BoxesReadTheGeometryListOnce)
{
    std::vector<Tri> tris;
    for (int i = 0; i < 300; ++i)
        tris.push_back(rightTri(0.1f * (i % 20), 0.1f * (i / 20), 0.1f, 0.1f));
    const mirt::GeometryTags g = triangles(tris, 1);
    ASSERT_EQ(g.boxes.size(), 300u);
    light({0, 0, 100}, {0.5f, 1, 0.25f, 1}, 1, 0);
    p->radius = 0.15f, p->samples = 8;
    countnew::watch(reinterpret_cast<const void *>(&compute_scatter));
    for (int mode : {0, 7}) {
        SCOPED_TRACE(mode);
        reset();
        p->cacheSize = mode;
        const uint64_t inst0 = mirt::db_access_count(g.instance), list0 = mirt::db_access_count(g.geolist);
        const uint64_t news = watchedAllocationCount();
        expectRGB(lookup(g.instance, {1.93f, 1.43f, 0}), 0.5f, 1, 0.25f); // triangle 299
        EXPECT_EQ(watchedAllocationCount(), news) << "the scattering code calls no operator new";
        EXPECT_EQ(allocatedAt(246), 44 * 4) << "the 44 box tags past the first 256, from the renderer's allocator";
        EXPECT_EQ(events(246, false), events(247, true)) << "and released again";
        EXPECT_EQ(mirt::db_access_count(g.geolist) - list0, mirt::db_access_count(g.instance) - inst0);
        int late = 0; // points evaluated on triangles 260 to 299 (y >= 1.3)
        for (const miVector &q : probe.points)
            late += q.y >= 1.3f;
        EXPECT_GT(late, 0);
    }
}

// ------------------------------------------------------------ lookups

TEST_F(Scatter, UniformlyLitPlaneGivesTheLightInEveryFalloff)
{
    const miTag plane = mirt::build_instance(mirt::make_plane(4, 4, 4, 4), {}).instance;
    LightParams *lp = light({0, 0, 1e4f}, {0.25f, 0.5f, 1, 1}, 1, 0);
    p->radius = 0.5f, p->samples = 12, p->color = {1, 0.5f, 0.25f, 1}, p->scale = {2, 4, 8, 1};
    const miVector at[] = {{0, 0, 0}, {1.9f, 1.9f, 0}, {-0.3f, 1.2f, 0}, {-2, -2, 0}};
    for (int f = 0; f < 4; ++f) {
        p->falloff = f;
        for (const miVector &q : at)
            expectRGB(lookup(plane, q), 0.5f, 1, 2);
    }
    const uint64_t allocated = mirt::mem_allocation_count();
    lookup(plane, {0.7f, -0.4f, 0});
    EXPECT_EQ(mirt::mem_allocation_count(), allocated) << "a lookup on evaluated cells allocates nothing";
    for (int f : {4, 5, -1}) {
        p->falloff = f;
        const miColor r = lookup(plane, {0, 0, 0});
        EXPECT_TRUE(r.r == 0 && r.g == 0 && r.b == 0 && r.a == 0) << "falloff " << f;
    }
    // Lambert term, light straight above: cos = 1 to 1e-7 over the plane.
    reset();
    lp->addConstant = 0, lp->addLambert = 1;
    p->diffuse = 0.6f, p->falloff = 2;
    expectRGB(lookup(plane, {0.5f, 0.5f, 0}), 0.3f, 0.6f, 1.2f);
    // Seen from below, the normals turn away from the light: nothing arrives.
    reset();
    st->org = {0, 0, -10};
    expectRGB(lookup(plane, {0.5f, 0.5f, 0}), 0, 0, 0);
    EXPECT_GT(probe.lightCalls, 0);
}

// The state rebuilt at a cached point describes the surface there: a 4 x 2
// plane moved by (10, 0, 0), u = (x - 10) / 4 + 0.5, v = y / 2 + 0.5, dP/du =
// (4, 0, 0), dP/dv = (0, 2, 0), one bump basis pair (the same, object space).
TEST_F(Scatter, RebuiltStateDescribesThePoint)
{
    mirt::InstanceDesc desc;
    desc.local_to_global[12] = 10;
    const miTag inst = mirt::build_instance(mirt::make_plane(4, 2, 2, 2), desc).instance;
    light({10, 0, 100}, {1, 1, 1, 1}, 0, 1);
    st->refraction_level = 1;
    int checked = 0;
    probe.onLight = [&](miState *ls) {
        const miState *c = ls->parent;
        ++checked;
        EXPECT_EQ(c->parent, st);
        EXPECT_EQ(c->refraction_level, 2);
        EXPECT_EQ(c->reflection_level, 0);
        EXPECT_EQ(c->scanline, 0);
        EXPECT_EQ(c->inv_normal, 0);
        EXPECT_EQ(c->pri, nullptr);
        EXPECT_EQ(c->num_bumps, 1);
        EXPECT_NEAR(c->point.x, ls->org.x, 0) << "the light sees the rebuilt point";
        EXPECT_GE(c->point.x, 8.0f);
        EXPECT_LE(c->point.x, 12.0f);
        expectVec(c->tex_list[0], (c->point.x - 10) / 4 + 0.5f, c->point.y / 2 + 0.5f, 0, 1e-5f);
        for (const miVector *d : {&c->derivs[0], &c->bump_x_list[0]})
            expectVec(*d, 4, 0, 0, 1e-4f);
        for (const miVector *d : {&c->derivs[1], &c->bump_y_list[0]})
            expectVec(*d, 0, 2, 0, 1e-4f);
        expectVec(c->normal, 0, 0, 1, 1e-6f);
        expectVec(c->normal_geom, 0, 0, 1, 1e-6f);
        const miVector d{c->point.x - st->org.x, c->point.y - st->org.y, c->point.z - st->org.z};
        const float len = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
        EXPECT_NEAR(c->dist, len, 1e-4);
        EXPECT_NEAR(c->dir.x, d.x / len, 1e-6f);
        EXPECT_NEAR(c->dot_nd, d.z / len, 1e-6f);
        EXPECT_NEAR(c->bary[0] + c->bary[1] + c->bary[2], 1, 1e-6f);
    };
    p->radius = 0.5f, p->diffuse = 0.5f;
    const miColor r = lookup(inst, {10, 0, 0});
    EXPECT_GT(checked, 0);
    EXPECT_NEAR(r.r, 0.5f, 1e-4f) << "diffuse 0.5 times a cosine of 1 to 1e-5";
}

// Two points, one red (x > 1.35) and one blue; r = 1, 10000 samples.
class TwoPoints : public Scatter {
protected:
    void build()
    {
        // 1.43 and 0.95 areas per point: one point each (0.43 carried).
        g = triangles({rightTri(1.5f, 0, 0.03f, 0.03f), rightTri(1.2f, 0, 0.02f, 0.03f)});
        light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
        connectColour();
        probe.colour = [](miState *s) { return s->point.x > 1.35f ? miColor{1, 0, 0, 1} : miColor{0, 0, 1, 1}; };
        p->samples = 10000;
        lookup(g.instance, {1.35f, 0.01f, 0});
        ASSERT_EQ(probe.points.size(), 2u);
        red = probe.points[0].x > 1.35f ? probe.points[0] : probe.points[1];
        blue = probe.points[0].x > 1.35f ? probe.points[1] : probe.points[0];
        ASSERT_GT(red.x, 1.35f);
        ASSERT_LT(blue.x, 1.35f);
    }
    static float dist(miVector a, miVector b)
    {
        const float dx = b.x - a.x, dy = b.y - a.y, dz = b.z - a.z;
        return std::sqrt(dx * dx + dy * dy + dz * dz);
    }
    static float weight(int falloff, float d, float r)
    {
        switch (falloff) {
        case 0: return 1;
        case 1: return 1 - d / r;
        case 2: return (1 - d / r) * (1 - d / r);
        default: return std::exp(-d / (0.08686f * r));
        }
    }
    mirt::GeometryTags g;
    miVector red{}, blue{};
};

TEST_F(TwoPoints, FalloffWeightsAtZeroAndAtTheRadius)
{
    build();
    const float d = dist(red, blue);
    ASSERT_LT(d, 0.4f);
    for (int f = 0; f < 4; ++f) { // at the red point: w = 1 there, w(d) for blue
        p->falloff = f;
        const float w = weight(f, d, 1);
        expectRGB(lookup(g.instance, red), 1 / (1 + w), 0, w / (1 + w));
    }
    // Exactly one radius from the red point (x - 1 is exact for x in [1, 2]).
    const miVector q{red.x - 1, red.y, red.z};
    ASSERT_EQ(red.x - q.x, 1.0f);
    const float db = dist(q, blue);
    ASSERT_LT(db, 1.0f);
    p->falloff = 0, expectRGB(lookup(g.instance, q), 0.5f, 0, 0.5f);
    p->falloff = 1, expectRGB(lookup(g.instance, q), 0, 0, 1); // w(r) = 0: not counted
    const float wr = std::exp(1.0f / (1.0f * -0.08686f));
    EXPECT_NEAR(wr, 1.00015e-5f, 1e-9f);
    ASSERT_GT(wr, KELU_EPS);
    const float wb = weight(3, db, 1);
    p->falloff = 3, expectRGB(lookup(g.instance, q), wr / (wr + wb), 0, wb / (wr + wb), 1e-3f);
    // The nearest position whose float distance exceeds the radius: out of reach.
    float beyond = q.x;
    while (red.x - beyond <= 1.0f)
        beyond = std::nextafter(beyond, -10.0f);
    ASSERT_LT(q.x - beyond, 1e-6f);
    p->falloff = 0, expectRGB(lookup(g.instance, {beyond, q.y, q.z}), 0, 0, 1);
}

TEST_F(TwoPoints, AnotherRadiusReusesTheCache)
{
    build();
    const int caches = events(816, false), grids = events(858, false);
    p->radius = 0.2f, p->falloff = 1; // blue lies within the cache's radius but beyond 0.2
    expectRGB(lookup(g.instance, red), 1, 0, 0);
    p->radius = 3, p->falloff = 0; // red lies beyond the cache's radius 1 (but within 3)
    const miVector q{blue.x - 0.9f, blue.y, blue.z};
    ASSERT_GT(dist(q, red), 1.0f);
    expectRGB(lookup(g.instance, q), 0, 0, 1);
    p->falloff = 1; // weights use the radius of the call
    const miVector mid{(red.x + blue.x) / 2 + 0.05f, red.y, red.z};
    const float wr = 1 - dist(mid, red) / 3, wb = 1 - dist(mid, blue) / 3;
    expectRGB(lookup(g.instance, mid), wr / (wr + wb), 0, wb / (wr + wb));
    EXPECT_EQ(events(816, false), caches);
    EXPECT_EQ(events(858, false), grids);
    EXPECT_EQ(probe.lightCalls, 2);
}

TEST_F(Scatter, TwoInstancesAlternately)
{
    const mirt::GeometryTags a = triangles({rightTri(0, 0, 1, 1)});
    const mirt::GeometryTags b = triangles({{miVector{0, 0, 3}, {1, 0, 3}, {0, 1, 3}}});
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    connectColour();
    const miTag ia = a.instance;
    probe.colour = [ia](miState *s) { return s->instance == ia ? miColor{1, 0, 0, 1} : miColor{0, 1, 0, 1}; };
    expectRGB(lookup(a.instance, {0.2f, 0.2f, 0}), 1, 0, 0);
    ScatterCache *first = head;
    expectRGB(lookup(b.instance, {0.2f, 0.2f, 3}), 0, 1, 0);
    ScatterCache *second = head;
    EXPECT_NE(first, second) << "the newer cache heads the list";
    for (int i = 0; i < 3; ++i) {
        expectRGB(lookup(a.instance, {0.3f, 0.1f, 0}), 1, 0, 0);
        expectRGB(lookup(b.instance, {0.1f, 0.3f, 3}), 0, 1, 0);
    }
    EXPECT_EQ(head, second);
    EXPECT_EQ(events(816, false), 2);
}

TEST_F(Scatter, GridGrowsByTenNinthsUntilWithinBudget)
{
    const mirt::GeometryTags g = triangles({rightTri(0, 0, 0.3f, 0.3f), rightTri(1000, 1000, 0.3f, 0.3f)});
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    p->radius = 0.1f, p->samples = 1;
    lookup(g.instance, {0.05f, 0.05f, 0});
    ASSERT_FALSE(probe.points.empty());
    expectRGB(lookup(g.instance, probe.points[0]), 1, 1, 1);
    st->instance = g.instance;
    miVector lo, hi;
    ASSERT_TRUE(mi_query(94, st, 0, &lo) && mi_query(95, st, 0, &hi));
    const float ext[3] = {(hi.x + 1e-5f) - (lo.x - 1e-5f), (hi.y + 1e-5f) - (lo.y - 1e-5f), (hi.z + 1e-5f) - (lo.z - 1e-5f)};
    auto cells = [&](float edge) {
        long long n = 1;
        for (float e : ext)
            n *= static_cast<long long>(e / edge) + 1;
        return n;
    };
    float edge = 0.1f;
    int growths = 0;
    while (cells(edge) > 1048576)
        edge *= 1.1111112f, ++growths;
    EXPECT_GT(growths, 10);
    EXPECT_GT(cells(edge / 1.1111112f), 1048576);
    EXPECT_EQ(allocatedAt(858), cells(edge) * 16) << "cells of the grown grid";
    EXPECT_GT(cells(0.1f), 100000000LL) << "ungrown, the grid would have 1e8 cells";
}

// The lost-race path only runs in the test build: the lookups here must be
// its code, not the library's.
TEST(ScatterBuild, LookupsRunTheLostRaceTestBuild)
{
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<const void *>(&compute_scatter), &info), 0);
    const std::string file = info.dli_fname ? info.dli_fname : "";
    EXPECT_NE(file.find("libdrux_scatter_lostrace.so"), std::string::npos) << file;
}

TEST_F(Scatter, DestroyReleasesEverything)
{
    const mirt::GeometryTags a = triangles({rightTri(0, 0, 1, 1)});
    const mirt::GeometryTags b = triangles({rightTri(0, 0, 2, 2)});
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    lookup(a.instance, {0.2f, 0.2f, 0});
    p->cacheSize = 40;
    expectRGB(lookup(b.instance, {0.2f, 0.2f, 0}), 1, 1, 1);
    if (sizeof(void *) == 8) {
        EXPECT_EQ(allocatedAt(816), 120) << "the cache record holds exactly its fields";
    }
    EXPECT_EQ(allocatedAt(850), 8 + 96 * 8) << "room for 96 claims, after the word that keeps the room";
    EXPECT_EQ(allocatedAt(851), 40 * 16) << "the 40 hash slots asked for, though the grid has 3 x 3 x 1 cells";
    EXPECT_EQ(events(852, false), 1);
    EXPECT_EQ(events(922, false), 1) << "the full grid's pool, made on its first scan";
    EXPECT_GT(mirt::mem_live_bytes(kTag), 0);
    mirt::mem_clear_events();
    destroy_scatter(nullptr, &head);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(mirt::mem_live_bytes(kTag), 0);
    EXPECT_EQ(events(1062, true), 1);
    EXPECT_EQ(events(1063, true), 2);
    EXPECT_EQ(events(1064, true), 2);
    destroy_scatter(nullptr, &head);
    destroy_scatter(st, nullptr);
    EXPECT_EQ(mirt::mem_events().size(), 5u) << "nothing more released";
}

// ------------------------------------------------------------ hash slots

TEST_F(Scatter, HashSlotsGiveTheFullGridResult)
{
    const mirt::Mesh sphere = mirt::make_sphere(1, 12, 6);
    const miTag inst = mirt::build_instance(sphere, {}).instance;
    light({2, 3, 4}, {1, 0.8f, 0.6f, 1}, 0, 1);
    p->radius = 0.35f, p->samples = 12, p->diffuse = 0.8f, p->falloff = 2;
    std::vector<std::vector<miColor>> runs;
    for (int slots : {0, 1, 2, 64}) {
        reset();
        p->cacheSize = slots;
        std::vector<miColor> img;
        for (const miVector &v : sphere.P)
            img.push_back(lookup(inst, v));
        runs.push_back(img);
    }
    int lit = 0;
    for (size_t i = 0; i < runs[0].size(); ++i) {
        lit += runs[0][i].r > 0.05f;
        for (size_t k = 1; k < runs.size(); ++k) {
            EXPECT_NEAR(runs[k][i].r, runs[0][i].r, 1e-6f) << "run " << k << " point " << i;
            EXPECT_NEAR(runs[k][i].b, runs[0][i].b, 1e-6f) << "run " << k << " point " << i;
        }
    }
    EXPECT_GT(lit, 15);
}

// Two patches 6 cells apart: each lookup's neighbourhood holds one of them.
TEST_F(Scatter, OneSlotRefillsOnEveryCellChange)
{
    const mirt::GeometryTags g = triangles({rightTri(0.4f, 0.4f, 0.2f, 0.2f), rightTri(6.4f, 0.4f, 0.2f, 0.2f)});
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    p->samples = 2000;
    const miVector A{0.5f, 0.5f, 0}, B{6.5f, 0.5f, 0};
    for (int slots : {1, 64}) {
        reset();
        p->cacheSize = slots;
        std::vector<int> seen;
        std::vector<uint64_t> allocations;
        for (miVector q : {A, A, B, A}) {
            const int before = probe.lightCalls;
            const uint64_t allocated = mirt::mem_allocation_count();
            expectRGB(lookup(g.instance, q), 1, 1, 1);
            seen.push_back(probe.lightCalls - before);
            allocations.push_back(mirt::mem_allocation_count() - allocated);
        }
        ASSERT_GT(seen[0], 0);
        ASSERT_GT(seen[2], 0);
        if (slots == 1) { // the empty neighbour cells take the slot over too
            EXPECT_EQ(seen[1], seen[0]);
            EXPECT_EQ(seen[3], seen[0]);
        } else {
            EXPECT_EQ(seen[1], 0);
            EXPECT_EQ(seen[3], 0);
            EXPECT_EQ(allocations[1], 0u) << "a lookup on filled slots allocates nothing";
            EXPECT_EQ(allocations[3], 0u);
        }
    }
}

// ------------------------------------------------------------ concurrency

class Threads : public Scatter, public ::testing::WithParamInterface<int> {};

// Eight threads render one sphere through one cache; the image matches a
// single thread's, and in full-grid mode every point is evaluated once.
TEST_P(Threads, EightThreadsGiveTheSingleThreadImage)
{
    mirt::InstanceDesc desc;
    desc.material = material;
    mirt::MeshScene scene;
    scene.add(mirt::build_instance(mirt::make_sphere(1, 12, 6), desc));
    ctx->set_scene(&scene);
    light({2, 3, 4}, {1, 0.8f, 0.6f, 1}, 0, 1);
    p->radius = 0.3f, p->samples = 10, p->falloff = 1, p->cacheSize = GetParam();
    const int W = 14;
    auto render = [&](int nthreads) {
        std::vector<miColor> img(W * W);
        std::vector<miState *> own;
        for (int t = 0; t < nthreads; ++t)
            own.push_back(newState(t));
        std::vector<std::thread> pool;
        for (int t = 0; t < nthreads; ++t)
            pool.emplace_back([&, t] {
                for (int i = t; i < W * W; i += nthreads) {
                    const miVector dir{(i % W - W / 2 + 0.5f) / W * 1.4f, (i / W - W / 2 + 0.5f) / W * 1.4f, -3};
                    ctx->shade_eye(own[t], miVector{0, 0, 3}, dir, &img[i]);
                }
            });
        for (auto &th : pool)
            th.join();
        return img;
    };
    const std::vector<miColor> one = render(1);
    const int calls = probe.lightCalls;
    reset();
    std::vector<miColor> eight;
    withinSeconds(120, [&] { eight = render(8); });
    int lit = 0;
    for (int i = 0; i < W * W; ++i) {
        lit += one[i].r > 0.05f;
        expectRGB(eight[i], one[i].r, one[i].g, one[i].b, 1e-6f, ("pixel " + std::to_string(i)).c_str());
    }
    EXPECT_GT(lit, 20);
    if (GetParam() == 0) {
        EXPECT_EQ(probe.lightCalls, calls) << "each point evaluated exactly once";
    }
    ctx->set_scene(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Modes, Threads, ::testing::Values(0, 5, 64));

// 100 threads each fill a different slot and meet inside point evaluation,
// holding 100 fill claims at once: the claim list grows past its 96 entries.
TEST_F(Scatter, MoreThan96ClaimsAtOnce)
{
    const int N = 100;
    std::vector<Tri> tris;
    for (int i = 0; i < N; ++i)
        tris.push_back(rightTri(4.0f * (i % 11) + 0.4f, 4.0f * (i / 11) + 0.4f, 0.2f, 0.2f));
    const mirt::GeometryTags g = triangles(tris);
    light({0, 0, 100}, {0.5f, 1, 0.25f, 1}, 1, 0);
    p->samples = 200, p->cacheSize = 1 << 20;
    std::atomic<int> arrived{0}, peak{0};
    probe.onLight = [&](miState *) {
        thread_local bool waited = false;
        if (waited)
            return;
        waited = true;
        ++arrived;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (arrived < N && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        int seen = arrived, old = peak;
        while (seen > old && !peak.compare_exchange_weak(old, seen)) {
        }
    };
    std::vector<miState *> own;
    for (int t = 0; t < N; ++t)
        own.push_back(newState(t));
    std::vector<miColor> res(N);
    withinSeconds(120, [&] {
        std::vector<std::thread> pool;
        for (int t = 0; t < N; ++t)
            pool.emplace_back([&, t] { res[t] = lookup(g.instance, {4.0f * (t % 11) + 0.5f, 4.0f * (t / 11) + 0.5f, 0}, own[t]); });
        for (auto &th : pool)
            th.join();
    });
    EXPECT_EQ(peak, N) << "all lookups met inside evaluation, each holding a fill claim";
    for (int t = 0; t < N; ++t)
        expectRGB(res[t], 0.5f, 1, 0.25f);
    EXPECT_EQ(events(850, false), 2) << "room for 96, then grown once";
    EXPECT_EQ(events(1062, true), 1) << "the outgrown list released";
}

// A full-grid lookup that meets another thread's evaluation helps with it.
TEST_F(Scatter, IdleThreadHelpsEvaluateAnotherCell)
{
    const float aps = static_cast<float>(3.141592653589793 / 2000);
    const float leg = std::sqrt(2 * 48.5f * aps);
    const mirt::GeometryTags g = triangles({rightTri(0.1f, 0.1f, leg, leg), rightTri(6.1f, 0.1f, 0.3f, 0.3f)});
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    p->samples = 2000;
    miState *sa = newState(1), *sb = newState(2);
    std::atomic<bool> aInside{false}, helped{false};
    const std::thread::id mainId = std::this_thread::get_id();
    std::atomic<std::thread::id> aId{mainId};
    probe.onLight = [&](miState *s) {
        if (std::this_thread::get_id() == aId.load()) {
            aInside = true;
            for (int i = 0; i < 10000 && !helped; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } else if (s->org.x < 3) {
            helped = true; // a point of A's cell, evaluated on B's thread
        }
    };
    miColor ra{}, rb{};
    withinSeconds(60, [&] {
        std::thread a([&] { aId = std::this_thread::get_id(), ra = lookup(g.instance, {0.2f, 0.2f, 0}, sa); });
        while (!aInside)
            std::this_thread::yield();
        std::thread b([&] { rb = lookup(g.instance, {6.2f, 0.2f, 0}, sb); });
        a.join(), b.join();
    });
    EXPECT_TRUE(helped);
    expectRGB(ra, 1, 1, 1);
    expectRGB(rb, 1, 1, 1);
    std::lock_guard<std::mutex> lk(probe.mu);
    int inA = 0;
    for (const miVector &q : probe.points)
        inA += q.x < 3;
    EXPECT_EQ(inA, 48) << "every point of A's cell evaluated once";
}

// A shader reached from point evaluation looks the same instance up again:
// it must not wait on its own thread's work and sees only evaluated points.
TEST_F(Scatter, NestedLookupDoesNotWaitOnItself)
{
    const mirt::GeometryTags a = triangles({rightTri(0, 0, 0.5f, 0.5f)});
    const mirt::GeometryTags b = triangles({{miVector{0, 0, 3}, {0.5f, 0, 3}, {0, 0.5f, 3}}});
    light({0, 0, 100}, {0.5f, 0.5f, 0.5f, 1}, 1, 0);
    p->samples = 50;
    const miVector atA{0.1f, 0.1f, 0}, atB{0.1f, 0.1f, 3};
    auto expectAll = [](const std::vector<miColor> &results, float grey) {
        ASSERT_FALSE(results.empty());
        for (const miColor &c : results)
            expectRGB(c, grey, grey, grey);
    };
    for (int slots : {0, 4}) {
        p->cacheSize = slots;
        std::vector<miColor> nested;
        miTag target = a.instance;
        miVector at = atA;
        probe.onLight = [&](miState *ls) { nested.push_back(nestedLookup(ls->parent, target, at)); };
        // The only cell is being evaluated by this very thread: nothing usable.
        reset();
        miColor r{};
        withinSeconds(30, [&] { r = lookup(a.instance, atA); });
        expectRGB(r, 0.5f, 0.5f, 0.5f);
        ASSERT_EQ(nested.size(), static_cast<size_t>(probe.lightCalls));
        expectAll(nested, 0);
        // Another instance whose cache was never scanned: no work is started.
        reset(), nested.clear(), target = b.instance, at = atB;
        withinSeconds(30, [&] { lookup(a.instance, atA); });
        expectAll(nested, 0);
        // Once that instance is evaluated, nested lookups read its points.
        reset(), nested.clear();
        auto hook = probe.onLight;
        probe.onLight = nullptr;
        expectRGB(lookup(b.instance, atB), 0.5f, 0.5f, 0.5f);
        probe.onLight = hook;
        withinSeconds(30, [&] { lookup(a.instance, atA); });
        expectAll(nested, 0.5f);
        probe.onLight = nullptr;
    }
}

// ------------------------------------------------------------ material inputs

TEST_F(Scatter, IndirectOnlyInBaseMode6)
{
    ctx->options().finalgather = 1;
    ctx->options().finalgather_rays = 4;
    int32_t w[17] = {KELU_MAGIC, 0, 0, 0, 0, 1, 7};
    const mirt::GeometryTags g = triangles({rightTri(0, 0, 1, 1)}, 1 << 30, 0, {}, mirt::db_create_userdata(w, sizeof w, 0));
    light({0, 0, 100}, {1, 1, 1, 1}, 1, 0);
    baseRecord(st)->mode = 6;
    p->color = {0.5f, 1, 1, 1}, p->diffuse = 0.5f, p->irradianceTint = {1, 2, 4, 1};
    mirt::connect(material, offsetof(SssParams, irradiance), colourFn);
    probe.colour = [](miState *) { return miColor{0.2f, 0.1f, 0.4f, 1}; };
    // t = colour * diffuse * tint = (0.25, 1, 2); times L
    expectRGB(lookup(g.instance, {0.3f, 0.3f, 0}), 0.05f, 0.1f, 0.8f);
    EXPECT_EQ(probe.lightCalls, 0) << "mode 6: no light loop";
    EXPECT_TRUE(ctx->irradiance_calls().empty()) << "connected irradiance replaces the renderer's";
    // Unconnected: the renderer is asked, with the object's settings (7 rays).
    reset();
    mirt::connect(material, offsetof(SssParams, irradiance), 0);
    lookup(g.instance, {0.3f, 0.3f, 0});
    const auto calls = ctx->irradiance_calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].size, 52);
    EXPECT_EQ(calls[0].finalgather_rays, 7);
    // A tint whose products are all below 1e-5: the renderer is not asked.
    reset();
    ctx->clear_irradiance_calls();
    p->irradianceTint = {1e-6f, 1e-6f, 1e-6f, 1};
    expectRGB(lookup(g.instance, {0.3f, 0.3f, 0}), 0, 0, 0);
    EXPECT_TRUE(ctx->irradiance_calls().empty());
}

TEST_F(Scatter, TranslucenceFromBehind)
{
    const mirt::GeometryTags g = triangles({rightTri(-0.5f, -0.5f, 1, 1)});
    light({0, 0, -1e4f}, {1, 1, 1, 1}, 0, 1); // below a plane seen from above: cos = -1
    mirt::connect(material, offsetof(SssParams, focus), colourFn);
    std::atomic<int> focusReads{0};
    probe.colour = [&](miState *) { return ++focusReads, miColor{0, 0, 0, 0}; };
    p->samples = 20;
    expectRGB(lookup(g.instance, {0, 0, 0}), 0, 0, 0);
    EXPECT_EQ(focusReads, 0) << "translucence 0: focus and wrap are not read";
    // wrap 0.1: lo = -1.15, fade width min(1, 0.15 + 1.15) = 1, so the weight
    // is t * (cos - lo) / 1 = 0.15 t at cos = -1 (focus evaluates to 0).
    reset();
    p->translucence = 0.8f, p->wrap = 0.1f, p->color = {1, 0.5f, 0.25f, 1};
    expectRGB(lookup(g.instance, {0, 0, 0}), 0.12f, 0.06f, 0.03f, 1e-4f);
    EXPECT_GT(focusReads, 0);
}

} // namespace
