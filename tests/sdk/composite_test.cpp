// Base-material compositing: mode flags and the sum into the caller's
// output record, checked at the record's byte offsets.
#include "DruxShaderSDK.h"
#include "runtime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr float kUntouched = -7.0f;

// The host's output record as raw floats, addressed by byte offset.
struct Record {
    float f[64];
    Record() { std::fill(f, f + 64, kUntouched); }
    float *at(int off) { return f + off / 4; }
    void expect(int off, const std::vector<float> &v, const char *what)
    {
        int i = 0;
        for (float x : v) {
            EXPECT_EQ(at(off)[i], x) << what << " @0x" << std::hex << off << " [" << i << "]";
            ++i;
        }
    }
    void expectUntouched(int off, int n, const char *what)
    {
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(at(off)[i], kUntouched) << what << " @0x" << std::hex << off << " [" << i << "]";
    }
};

BaseComposite construct(int mode, miState *state = nullptr)
{
    BaseComposite bc{-1, -2, -3, 0xdeadu};
    bc_construct(&bc, mode, state);
    return bc;
}

TEST(CompositeConstruct, ModeTable)
{
    struct Row {
        int mode, hintA, hintB;
        miUint flags;
    } rows[] = {{0, 1, 1, 1871}, {1, 1, 0, 1943}, {2, 1, 1, 32}, {3, 0, 0, 1},
                {4, 1, 0, 1559}, {5, 1, 0, 384}};
    for (const Row &r : rows) {
        BaseComposite bc = construct(r.mode);
        EXPECT_EQ(bc.mode, r.mode);
        EXPECT_EQ(bc.hintA, r.hintA) << r.mode;
        EXPECT_EQ(bc.hintB, r.hintB) << r.mode;
        EXPECT_EQ(bc.flags, r.flags) << r.mode;
    }
    for (int mode : {7, -1, 1000}) { // unknown: only the mode is stored
        BaseComposite bc = construct(mode);
        EXPECT_EQ(bc.mode, mode);
        EXPECT_EQ(bc.hintA, -2);
        EXPECT_EQ(bc.hintB, -3);
        EXPECT_EQ(bc.flags, 0xdeadu);
    }
    bc_destruct();
}

TEST(CompositeConstruct, Mode6FollowsQuery142)
{
    struct Case {
        int answer; // -1: query fails
        int q;
    } cases[] = {{0, 0}, {1, 1}, {7, 1}, {-1, 0}};
    for (const Case &c : cases) {
        mirt::Context ctx;
        if (c.answer < 0)
            ctx.fail_query(miQ_PRECOMPUTE_PASS);
        else
            ctx.set_query_int(miQ_PRECOMPUTE_PASS, c.answer);
        miState *state = ctx.begin_state(0);
        BaseComposite bc = construct(6, state);
        EXPECT_EQ(bc.hintA, c.q) << c.answer;
        EXPECT_EQ(bc.hintB, 1);
        EXPECT_EQ(bc.flags, c.q ? 0x74fu : 0x304u) << c.answer;
        ctx.end_state(state);
    }
}

// Inputs chosen so that every sum is exact in single precision.
struct Inputs {
    miColor a{0.25f, 0.5f, 1, 101}, b{1, 1, 1, 102}, c{1, 2, 4, 103};
    miColor d[2] = {{0.5f, 0.25f, 0.125f, 0.75f}, {3, 5, 6, 0.5f}};
    miColor e[2] = {{2, 4, 8, 104}, {16, 32, 64, 105}};
    miColor f{0.5f, 0.25f, 0.75f, 106}, g{0.125f, 0.25f, 0.375f, 107}, h{8, 16, 32, 108};
    miColor tr{0.5f, 0.25f, 0.75f, 0.3f};
};

void run(const BaseComposite &bc, Record &rec, const Inputs &in, bool withE = true,
         bool withFH = true, int zero = 0, int rule = 1, const miColor *tr = nullptr)
{
    bc_composite(bc, rec.f, &in.a, &in.b, &in.c, in.d, withE ? in.e : nullptr,
                 withFH ? &in.f : nullptr, &in.g, withFH ? &in.h : nullptr, tr ? tr : &in.tr, zero,
                 rule, 0.625f, 2.0f, 0.5f, 0.5f);
}

TEST(Composite, EarlyReturnsLeaveTheRest)
{
    Inputs in;
    Record rec;
    run(construct(2), rec, in, true, true, 0, 1); // mode 2: opacity = k only
    rec.expect(0x20, {0.625f, 0.625f, 0.625f}, "opacity = k");
    Record fresh;
    fresh.f[8] = fresh.f[9] = fresh.f[10] = 0.625f;
    EXPECT_EQ(std::memcmp(rec.f, fresh.f, sizeof rec.f), 0);

    Record r0;
    run(construct(0), r0, in, true, true, 0, 0); // opacity rule 0
    Record want;
    want.f[8] = want.f[9] = want.f[10] = -1e6f;
    EXPECT_EQ(std::memcmp(r0.f, want.f, sizeof r0.f), 0);
}

TEST(Composite, OpacityRules)
{
    Inputs in;
    Record rec;
    rec.at(0x30)[0] = 0.25f;
    rec.at(0x30)[1] = 0.5f;
    rec.at(0x30)[2] = 1.0f;
    run(construct(3), rec, in, true, true, 0, 2); // (1 - record transparency) * 0.5
    rec.expect(0x20, {0.375f, 0.25f, 0.0f}, "rule 2");
    Record other;
    run(construct(3), other, in, true, true, 0, 5);
    other.expectUntouched(0x20, 3, "unknown rule");
}

// One composite per row: the flags, which optional inputs are given, zero
// colour, opacity rule and transparency; then the record words it must leave
// (U: untouched).
TEST(Composite, SumsAndCopiesPerModeAndInput)
{
    constexpr float U = kUntouched;
    const miColor clear{1, 1, 1, 1};
    struct Word {
        int off;
        std::vector<float> v;
        const char *what;
    };
    const struct Row {
        const char *name;
        BaseComposite bc;
        bool withE, withFH;
        int zero, rule;
        const miColor *tr;
        std::vector<Word> words;
    } rows[] = {
        // ((d0 + c + h + a) * (1 - tr) + b) -> (5.875, 15.0625, 10.28125); secondary = 2x;
        // + e0 and f (secondary + 0.5x each); + g.
        {"mode 0", construct(0), true, true, 0, 1, nullptr,
         {{0x00, {8.5f, 19.5625f, 19.40625f, 0.75f}, "result"}, {0x10, {13.0f, 32.25f, 24.9375f}, "secondary"},
          {0x20, {0.5f, 0.5f, 0.5f}, "opacity"}, {0x40, {0.25f, 0.5f, 1, 101}, "A"}, {0x50, {1, 1, 1, 102}, "B"},
          {0x60, {1, 2, 4, 103}, "C"}, {0x70, {0.5f, 0.25f, 0.125f, 0.75f}, "D0"}, {0x80, {U, U, U, U}, "D1"},
          {0x90, {U, U, U, U}, "K"}, {0xa0, {2, 4, 8, 104}, "E0"}, {0xb0, {U, U, U, U}, "E1"},
          {0xc0, {0.5f, 0.25f, 0.75f, 106}, "F"}, {0xd0, {0.125f, 0.25f, 0.375f, 107}, "G"},
          {0xe0, {8, 16, 32, 108}, "H"}, {0xf0, {0.5f, 0.75f, 0.25f}, "1 - transparency"},
          {0x30, {U, U, U, U}, "transparency is only read"}}},
        // d1 (3,5,6) + c + h + a = (12.25, 23.5, 43) * (0.5, 0.75, 0.25) + b = (7.125, 18.625, 11.75)
        {"mode 1 takes the second colours", construct(1), true, true, 0, 1, nullptr,
         {{0x10, {14.25f + 8 + 0.25f, 37.25f + 16 + 0.125f, 23.5f + 32 + 0.375f}, "secondary"},
          {0x00, {7.125f + 16 + 0.5f + 0.125f, 18.625f + 32 + 0.25f + 0.25f, 11.75f + 64 + 0.75f + 0.375f, 0.5f}, "result"},
          {0x80, {3, 5, 6, 0.5f}, "D1"}, {0xb0, {16, 32, 64, 105}, "E1"}, {0x70, {U, U, U, U}, "D0"},
          {0xa0, {U, U, U, U}, "E0"}}},
        // Mode 3: only a, removed by full transparency; alpha of black.
        {"mode 3", construct(3), true, true, 0, 1, nullptr, {{0x00, {0.125f, 0.375f, 0.25f, 0.0f}, "a * (1 - tr)"}}},
        {"mode 3 clear", construct(3), true, true, 0, 1, &clear, {{0x00, {0, 0, 0, 0}, "a through clear"}}},
        // Mode 0 fully transparent: d0, c, h, a gone; b, e0, f, g stay.
        {"mode 0 clear", construct(0), true, true, 0, 1, &clear,
         {{0x00, {3.625f, 5.5f, 10.125f, 0.75f}, "after-transparency terms"}, {0x10, {3.25f, 4.125f, 6.375f}, "secondary"}}},
        // zero_color: result rgb 0, secondary and copies as usual.
        {"zero colour", construct(0), true, true, 1, 1, nullptr,
         {{0x00, {0, 0, 0, 0.75f}, "zeroed"}, {0x10, {13.0f, 32.25f, 24.9375f}, "secondary kept"},
          {0xd0, {0.125f, 0.25f, 0.375f, 107}, "G still copied"}}},
        // (d0 + c + a) * (1 - tr) + b + g: no e, f, h.
        {"no e, f, h", construct(0), false, false, 0, 1, nullptr,
         {{0x00, {0.875f + 1 + 0.125f, 2.0625f + 1 + 0.25f, 1.28125f + 1 + 0.375f, 0.75f}, "result"},
          {0x10, {3.75f, 6.125f, 4.5625f}, "secondary"}, {0xa0, {U, U, U, U}, "E0"}, {0xc0, {U, U, U, U}, "F"},
          {0xe0, {U, U, U, U}, "H"}}},
        // Mode 5 (E1, F): black start, no transparency terms.
        {"mode 5", construct(5), true, true, 0, 1, nullptr,
         {{0x00, {16.5f, 32.25f, 64.75f, 0}, "e1 + f"}, {0x10, {8.25f, 16.125f, 32.375f}, "0.5 (e1 + f)"}}},
        // Caller-made flags with both E bits: the first colour is added, both are copied.
        {"both E bits", BaseComposite{0, 0, 0, BC_E0 | BC_E1}, true, true, 0, 1, nullptr,
         {{0x00, {2, 4, 8, 0}, "e0 only"}, {0xa0, {2, 4, 8, 104}, "E0"}, {0xb0, {16, 32, 64, 105}, "E1"}}},
    };
    const Inputs in;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        Record rec;
        run(r.bc, rec, in, r.withE, r.withFH, r.zero, r.rule, r.tr);
        for (const Word &w : r.words)
            rec.expect(w.off, w.v, w.what);
    }
}

} // namespace
