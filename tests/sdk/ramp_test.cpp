// Ramps: construction from array parameters (with connected fields), the
// bracketing scan, the four interpolation kinds, concurrent lookups.
#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "runtime.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// A ramp array parameter in the renderer's layout: first index, count, storage.
template <class E, int N> struct ArrayParam {
    int first = 0, count = 0;
    E e[N];
};

class Ramps : public RuntimeTest {
protected:
    miState *state = nullptr;
    Ramps() : RuntimeTest(8, 8) {}
    void prepare() override { state = beginState(); }

    // A ramp of kind 0 (scalar) or 1 (colour) built from these keys.
    template <class E, int N> Ramp build(std::initializer_list<E> keys, int kind)
    {
        ArrayParam<E, N> p;
        for (const E &k : keys)
            p.e[p.count++] = k;
        Ramp r;
        ramp_constructor(&r, state, &p, kind);
        return r;
    }
    Ramp scalar(std::initializer_list<RampScalarEntry> keys) { return build<RampScalarEntry, 64>(keys, 0); }
    Ramp color(std::initializer_list<RampColorEntry> keys) { return build<RampColorEntry, 8>(keys, 1); }
};

TEST_F(Ramps, LinearUnsortedAndEnds)
{
    Ramp r = scalar({{1.0f, 3.0f, RAMP_LINEAR}, {0.0f, 1.0f, RAMP_LINEAR}});
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(ramp_get_interp_float(&r, 0.25f), 1.5f);
    for (int kind : {int(RAMP_NONE), int(RAMP_LINEAR), int(RAMP_SMOOTH), int(RAMP_SPLINE), 9}) {
        Ramp k = scalar({{1, 4, kind}, {2, 8, kind}, {0, 2, kind}});
        EXPECT_EQ(ramp_get_interp_float(&k, -1.0f), 2.0f) << kind;
        EXPECT_EQ(ramp_get_interp_float(&k, 5.0f), 8.0f) << kind;
        EXPECT_EQ(ramp_get_interp_float(&k, 1.0f), 4.0f) << kind; // on a key
        if (kind == RAMP_NONE || kind == 9) {
            EXPECT_EQ(ramp_get_interp_float(&k, 1.5f), 4.0f) << kind; // lower key's value
        }
        Ramp one = scalar({{0.5f, 6, kind}});
        for (float x : {-3.0f, 0.5f, 4.0f})
            EXPECT_EQ(ramp_get_interp_float(&one, x), 6.0f) << kind;
    }
    // Same position twice: the earlier key is used.
    Ramp dup = scalar({{0, 5, RAMP_LINEAR}, {0, 7, RAMP_LINEAR}, {1, 9, RAMP_LINEAR}});
    EXPECT_EQ(ramp_get_interp_float(&dup, 0.5f), 7.0f);
    EXPECT_EQ(ramp_get_interp_float(&dup, -1.0f), 5.0f);
    Ramp dupHi = scalar({{0, 0, RAMP_LINEAR}, {1, 10, RAMP_LINEAR}, {1, 20, RAMP_LINEAR}});
    EXPECT_EQ(ramp_get_interp_float(&dupHi, 0.5f), 5.0f);
    EXPECT_EQ(ramp_get_interp_float(&dupHi, 3.0f), 10.0f);
}

TEST_F(Ramps, Smooth)
{
    Ramp r = scalar({{0, 0, RAMP_SMOOTH}, {1, 1, RAMP_LINEAR}});
    EXPECT_FLOAT_EQ(ramp_get_interp_float(&r, 0.5f), 0.5f);
    const float q = ramp_get_interp_float(&r, 0.25f);
    EXPECT_NEAR(q, 0.5 - 0.5 * std::cos(M_PI / 4), 1e-6);
    // Angle formed in double from the float t + 1, rounded, then cosf.
    EXPECT_EQ(q, 0.5f * cosf(float(3.141592653589793 * (0.25f + 1.0f))) + 0.5f);
}

TEST_F(Ramps, Spline)
{
    // Two keys: mirrored neighbours give slopes 0.5 at both ends.
    Ramp two = scalar({{0, 0, RAMP_SPLINE}, {1, 1, RAMP_SPLINE}});
    EXPECT_EQ(ramp_get_interp_float(&two, 0.5f), 0.5f);
    EXPECT_FLOAT_EQ(ramp_get_interp_float(&two, 0.25f), 0.203125f);
    EXPECT_FLOAT_EQ(ramp_get_interp_float(&two, 0.75f), 0.796875f);
    // Chord slopes 1.5 and 2/3 from the neighbours (0,0) and (4,3); the later
    // duplicates at those positions are not used.  Hermite basis at s = 0.5:
    // 0.5*1 + 0.125*1.5 + 0.5*3 - 0.125*(2/3).
    Ramp four = scalar({{2, 3, RAMP_LINEAR}, {4, 3, RAMP_LINEAR}, {1, 1, RAMP_SPLINE},
                        {0, 0, RAMP_LINEAR}, {0, 50, RAMP_LINEAR}, {4, -20, RAMP_LINEAR}});
    EXPECT_NEAR(ramp_get_interp_float(&four, 1.5f), 2.1041667, 1e-6);
    // A segment shorter than 5e-5 has its slopes scaled by 0.2 D / 1e-5 (here 0.4):
    // on y = x, the value at a quarter is D (h01 + 0.4 (h10 + h11)) = 0.19375 D.
    const float D = 2e-5f;
    Ramp tiny = scalar({{-1, -1, RAMP_SPLINE}, {0, 0, RAMP_SPLINE}, {D, D, RAMP_SPLINE}, {1, 1, RAMP_SPLINE}});
    EXPECT_NEAR(ramp_get_interp_float(&tiny, D / 4), 0.19375 * D, 1e-3 * 0.19375 * D);
}

TEST_F(Ramps, ColourChannelsAndAlpha)
{
    Ramp lin = color({{1, {1, 3, 2, 0.9f}, RAMP_LINEAR}, {0, {0, 1, 2, 0.3f}, RAMP_LINEAR}});
    miColor c{-1, -1, -1, 0.42f};
    ramp_get_interp_color(&lin, &c, 0.25f);
    expectColor(c, 0.25f, 1.5f, 2.0f, 0.42f, 0);
    ramp_get_interp_color(&lin, &c, -2.0f); // end: rgb only
    EXPECT_EQ(c.r, 0.0f);
    EXPECT_EQ(c.a, 0.42f);

    Ramp sp = color({{0, {0, 0, 1, 0.3f}, RAMP_SPLINE}, {1, {1, 2, 0, 0.9f}, RAMP_SPLINE}});
    ramp_get_interp_color(&sp, &c, 0.25f);
    expectRGB(c, 0.203125f, 0.40625f, 0.796875f, kUlps);
    EXPECT_EQ(c.a, 0.42f);
    ramp_get_interp_color(&sp, &c, -1.0f); // spline end: whole key colour
    EXPECT_EQ(c.g, 0.0f);
    EXPECT_EQ(c.a, 0.3f);
    ramp_get_interp_color(&sp, &c, 3.0f);
    EXPECT_EQ(c.g, 2.0f);
    EXPECT_EQ(c.a, 0.9f);
}

TEST_F(Ramps, EmptyMismatchedAndCapacity)
{
    Ramp s = scalar({{0, 1, RAMP_LINEAR}, {1, 2, RAMP_LINEAR}});
    Ramp c = color({{0, {1, 1, 1, 1}, RAMP_LINEAR}});
    miColor out{5, 5, 5, 5};
    ramp_get_interp_color(&s, &out, 0.5f);
    expectColor(out, 0, 0, 0, 0, 0);
    EXPECT_EQ(ramp_get_interp_float(&c, 0.5f), 0.0f);
    ramp_destructor(&s);
    EXPECT_EQ(s.count, 0);
    EXPECT_EQ(ramp_get_interp_float(&s, 0.5f), 0.0f);
    Ramp none;
    ramp_constructor(&none, state, nullptr, 0);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(ramp_get_interp_float(&none, 0.5f), 0.0f);

    // 60 entries: only the first 50 (k, 2k) count; the rest would change 10.5.
    ArrayParam<RampScalarEntry, 64> p;
    p.count = 60;
    for (int k = 0; k < 60; ++k)
        p.e[k] = k < 50 ? RampScalarEntry{float(k), 2.0f * k, RAMP_LINEAR} : RampScalarEntry{10.25f, 1000, RAMP_LINEAR};
    Ramp big;
    ramp_constructor(&big, state, &p, 0);
    EXPECT_EQ(big.count, 50);
    EXPECT_EQ(ramp_get_interp_float(&big, 10.5f), 21.0f);
    EXPECT_EQ(ramp_get_interp_float(&big, 70.0f), 98.0f);

    // First index 2: storage elements 2 and 3 are the ramp's keys.
    ArrayParam<RampScalarEntry, 4> q;
    q.first = 2;
    q.count = 2;
    q.e[0] = q.e[1] = RampScalarEntry{0.2f, 500, RAMP_NONE};
    q.e[2] = {1, 3, RAMP_LINEAR};
    q.e[3] = {0, 1, RAMP_LINEAR};
    Ramp off;
    ramp_constructor(&off, state, &q, 0);
    EXPECT_EQ(ramp_get_interp_float(&off, 0.25f), 1.5f);
}

// ------------------------------------------------------------ connections

std::atomic<int> sourceCalls{0};
miBoolean giveOne(void *res, miState *, void *) { ++sourceCalls; *static_cast<float *>(res) = 1.0f; return miTRUE; }
miBoolean giveThree(void *res, miState *, void *) { ++sourceCalls; *static_cast<float *>(res) = 3.0f; return miTRUE; }
miBoolean giveLinear(void *res, miState *, void *) { ++sourceCalls; *static_cast<int *>(res) = RAMP_LINEAR; return miTRUE; }
miBoolean giveColour(void *res, miState *, void *)
{
    ++sourceCalls;
    *static_cast<miColor *>(res) = miColor{0.1f, 0.2f, 0.3f, 0.4f};
    return miTRUE;
}
miBoolean owner(void *, miState *, void *) { return miTRUE; }

TEST_F(Ramps, ConnectedFieldsEvaluatedThroughTheRenderer)
{
    using Block = ArrayParam<RampScalarEntry, 2>;
    Block blk;
    blk.count = 2;
    blk.e[0] = {0, 1, RAMP_NONE};  // interpolation connected -> linear
    blk.e[1] = {5, 99, RAMP_NONE}; // position -> 1, value -> 3
    miTag fn = mirt::make_function(miSHADER_MATERIAL, owner, &blk, sizeof blk, 16, true, "rampOwner");
    auto fld = [](int k, size_t off) { return offsetof(Block, e) + k * sizeof(RampScalarEntry) + off; };
    mirt::connect(fn, fld(0, offsetof(RampScalarEntry, interpolation)),
                  mirt::make_function(miSHADER_TEXTURE, giveLinear, nullptr, 0, 4, false, "lin"));
    mirt::connect(fn, fld(1, offsetof(RampScalarEntry, position)),
                  mirt::make_function(miSHADER_TEXTURE, giveOne, nullptr, 0, 4, false, "one"));
    miTag three = mirt::make_function(miSHADER_TEXTURE, giveThree, nullptr, 0, 4, false, "three");
    mirt::connect(fn, fld(1, offsetof(RampScalarEntry, value)), three);

    miFunction *f = mirt::function(fn);
    miFunction *saved = state->shader;
    state->shader = f;
    sourceCalls = 0;
    Ramp r;
    ramp_constructor(&r, state, f->params, 0);
    EXPECT_EQ(sourceCalls.load(), 3);
    EXPECT_EQ(ramp_get_interp_float(&r, 0.25f), 1.5f);

    // Marked unconnected, or a shader whose parameters cannot be connected: in place.
    char *valueWord = static_cast<char *>(f->params) + fld(1, offsetof(RampScalarEntry, value));
    *reinterpret_cast<miTag *>(valueWord + f->ghost_offs) = miPARAM_UNCONNECTED;
    ramp_constructor(&r, state, f->params, 0);
    EXPECT_EQ(r.value[1], 99.0f);
    EXPECT_EQ(r.position[1], 1.0f);
    f->has_connections = 0;
    sourceCalls = 0;
    ramp_constructor(&r, state, f->params, 0);
    EXPECT_EQ(sourceCalls.load(), 0);
    EXPECT_EQ(r.position[1], 5.0f);
    EXPECT_EQ(r.interpolation[0], RAMP_NONE);

    // A connected colour.
    using CBlock = ArrayParam<RampColorEntry, 1>;
    CBlock cb;
    cb.count = 1;
    cb.e[0] = {0, {9, 9, 9, 9}, RAMP_NONE};
    miTag cfn = mirt::make_function(miSHADER_MATERIAL, owner, &cb, sizeof cb, 16, true, "colourOwner");
    mirt::connect(cfn, offsetof(CBlock, e) + offsetof(RampColorEntry, color),
                  mirt::make_function(miSHADER_TEXTURE, giveColour, nullptr, 0, 16, false, "col"));
    state->shader = mirt::function(cfn);
    Ramp c;
    ramp_constructor(&c, state, state->shader->params, 1);
    expectColor(c.color[0], 0.1f, 0.2f, 0.3f, 0.4f, 0);
    state->shader = saved;
    for (const mirt::Message &m : mirt::messages())
        EXPECT_NE(m.level, mirt::Level::Error) << m.text;
}

TEST_F(Ramps, ConcurrentLookupsAllocateNothing)
{
    ArrayParam<RampScalarEntry, 64> p;
    p.count = 10;
    for (int k = 0; k < 10; ++k)
        p.e[k] = {float((k * 7) % 10), float(k * k % 5), k % 4};
    Ramp r;
    ramp_constructor(&r, state, &p, 0);
    Ramp c = color({{0, {0, 1, 2, 3}, RAMP_SPLINE}, {0.5f, {1, 0, 1, 0}, RAMP_SMOOTH}, {1, {2, 2, 0, 1}, RAMP_LINEAR}});
    std::vector<float> want(4000);
    std::vector<miColor> wantC(4000);
    const uint64_t allocs = mirt::mem_allocation_count();
    for (int i = 0; i < 4000; ++i) {
        want[i] = ramp_get_interp_float(&r, -1.0f + i * 0.003f);
        wantC[i] = miColor{0, 0, 0, 0};
        ramp_get_interp_color(&c, &wantC[i], -0.5f + i * 0.0005f);
    }
    EXPECT_EQ(mirt::mem_allocation_count(), allocs);
    std::vector<int> bad(4, 0);
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([&, t] {
            for (int i = 0; i < 4000; ++i) {
                miColor x{0, 0, 0, 0};
                ramp_get_interp_color(&c, &x, -0.5f + i * 0.0005f);
                bad[t] += ramp_get_interp_float(&r, -1.0f + i * 0.003f) != want[i] ||
                          std::memcmp(&x, &wantC[i], sizeof x) != 0;
            }
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(bad, std::vector<int>(4, 0));
}

} // namespace
