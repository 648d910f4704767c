// The light loop's pass bookkeeping, driven through rendering states of the
// runtime: masks, light-sample accumulation, child-ray transfer, occluders,
// light set-up, and whole traced light loops.  Expected values are worked
// out by hand in the comments next to them.
#include "DruxShaderSDK.h"
#include "fbuf_builder.h"
#include "expect_values.h"
#include "geometry.h"
#include "runtime.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "count_new.h"

namespace {

bool has(const FrameBufferInfo &e, miUint bit) { return (e.flags & bit) != 0; }
void clear(FrameBufferInfo &e, miUint bit) { e.flags &= ~bit; }

/* A contribution mask as a scene carries it: a string, and a data item whose
   first word is the string's tag. */
struct Mask {
    miTag text = 0, data = 0;
};
Mask makeMask(const char *text)
{
    Mask m;
    m.text = mirt::db_create_string(text);
    m.data = mirt::db_create_data(&m.text, sizeof m.text);
    return m;
}
miTag makeInstance(miTag param)
{
    miTag t = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    static_cast<miInstance *>(mirt::db_data(t))->param = param;
    return t;
}

/* Passes by pass type and record words (8: shadowed, 9: every occluder, 5/6:
   reflection/refraction always added), in type order. */
struct P {
    int type;
    std::vector<int> words;
};
fbtest::FbufBuilder passes(const std::vector<P> &ps)
{
    fbtest::FbufBuilder b;
    for (size_t i = 0; i < ps.size(); ++i) {
        fbtest::FrameBufferDecl &d = b.add("p" + std::to_string(i), ps[i].type);
        for (int w : ps[i].words)
            d.flag(w);
    }
    return b;
}

using Rig = fbtest::PassRig;

class LightLoop : public RuntimeTest {};

TEST_F(LightLoop, ContributionMasks)
{
    // Digit k of this text has the value k: entry i contributes when bit
    // (i mod 4) of i div 4 is set, in either case of letters.
    for (const char *text : {"0123456789ABCDEF", "0123456789abcdef"})
        for (int i = 0; i < 68; ++i)
            EXPECT_EQ(contributesToPass(i, text) != 0, i < 64 && (((i / 4) >> (i % 4)) & 1)) << text << i;
    for (int i = 0; i < 9; ++i) // "2F": entries 1 and 4..7
        EXPECT_EQ(contributesToPass(i, "2F") != 0, i == 1 || (i >= 4 && i < 8)) << i;
    const char past[] = {'1', '\0', 'F', 'F', '\0'}; // nothing after the zero is read
    EXPECT_TRUE(contributesToPass(0, past));
    for (int i = 4; i < 16; ++i)
        EXPECT_FALSE(contributesToPass(i, past)) << i;
    EXPECT_TRUE(contributesToPass(3, nullptr));
    EXPECT_TRUE(contributesToPass(-1, nullptr));
    EXPECT_FALSE(contributesToPass(-1, "F")); // a negative index names no entry
}

TEST_F(LightLoop, SampleLightEndMergesTheAverageIntoTheCurrentSlot)
{
    Rig r(passes({{0, {}}, {0, {}}, {0, {}}}), 3);
    ASSERT_EQ(r.n, 3u);
    const float half = 0.5f;
    // 4 samples summing (4,4,4,4) average to 1, scaled by 0.5 when bit 0 of
    // useScale's first byte is set, merged into accum (1,2,3,4) by mode.
    struct Case {
        int mode;
        miBoolean useScale;
        miColor want;
    } cases[] = {{1, 1, {1.5f, 2.5f, 3.5f, 4.5f}}, {2, 1, {0.5f, 1, 1.5f, 2}}, {3, 1, {0.5f, 0.5f, 0.5f, 0.5f}},
                 {0, 1, {1, 2, 3, 4}}, {7, 0, {2, 3, 4, 5}}, {3, 3, {0.5f, 0.5f, 0.5f, 0.5f}},
                 {3, 2, {1, 1, 1, 1}}, {3, 0x100, {1, 1, 1, 1}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << c.mode << " useScale " << c.useScale);
        const miUint others = r.e[1].flags;
        sampleLightBegin(r.n, r.e);
        EXPECT_TRUE(has(r.e[0], FBINFO_IN_LIGHT_LOOP) && has(r.e[0], FBINFO_LIGHT_SETUP_PENDING));
        EXPECT_EQ(r.e[1].flags, others);
        for (miUint i = 0; i < r.n; ++i) {
            expectColor(r.e[i].lightSum, 0, 0, 0, 0, 1e-6f);
            r.e[i].lightSum = miColor{4, 4, 4, 4};
            r.e[i].slots[0].accum = miColor{1, 2, 3, 4};
        }
        sampleLightEnd(r.st, r.n, r.e, 4, &c.mode, &c.useScale, &half);
        EXPECT_FALSE(has(r.e[0], FBINFO_IN_LIGHT_LOOP));
        for (miUint i = 0; i < r.n; ++i)
            expectColor(r.e[i].slots[0].accum, c.want, 1e-6f);
    }
    // Skipped: a pass taking no accumulation, a slot whose bit 0 refuses direct
    // light (bit 1 alone does not), no samples, environment rays.
    const int add = 1;
    auto run = [&](int samples) {
        sampleLightBegin(r.n, r.e);
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].lightSum = miColor{2, 2, 2, 2};
            r.e[i].slots[0].accum = r.e[i].slots[2].accum = BLACK;
        }
        sampleLightEnd(r.st, r.n, r.e, samples, &add, &add, &half);
    };
    r.e[1].flags |= FBINFO_NO_ACCUMULATE;
    r.e[2].slots[0].slotFlags = 1;
    r.e[0].slots[0].slotFlags = 2;
    run(4); // 2 / 4 * 0.5
    expectColor(r.e[0].slots[0].accum, 0.25f, 0.25f, 0.25f, 0.25f, 1e-6f);
    expectColor(r.e[1].slots[0].accum, 0, 0, 0, 0, 1e-6f);
    expectColor(r.e[2].slots[0].accum, 0, 0, 0, 0, 1e-6f);
    for (int samples : {0, -3}) {
        run(samples);
        EXPECT_FALSE(has(r.e[0], FBINFO_IN_LIGHT_LOOP));
        expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0, 1e-6f);
    }
    r.st->type = miRAY_ENVIRONMENT;
    run(1);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0, 1e-6f);
    r.st->type = miRAY_EYE;
    r.st->reflection_level = r.st->refraction_level = 1; // depth 2: slot 2
    run(1);
    expectColor(r.e[0].slots[2].accum, 1, 1, 1, 1, 1e-6f);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0, 1e-6f);
}

// mode, useScale and scale are read for every entry: a scale that points
// into entry 0's accum sees what the merge of entry 0 wrote there.
TEST_F(LightLoop, SampleLightEndReadsItsArgumentsPerEntry)
{
    Rig r(passes({{0, {}}, {0, {}}}));
    const int add = 1;
    const miBoolean on = miTRUE;
    sampleLightBegin(r.n, r.e);
    r.e[0].lightSum = r.e[1].lightSum = miColor{4, 4, 4, 4}; // 4 samples: average 1
    r.e[0].slots[0].accum = miColor{2, 0, 0, 0};
    r.e[1].slots[0].accum = BLACK;
    sampleLightEnd(r.st, r.n, r.e, 4, &add, &on, &r.e[0].slots[0].accum.r);
    EXPECT_EQ(r.e[0].slots[0].accum.r, 4.0f); // 2 + 1 x 2
    EXPECT_EQ(r.e[1].slots[0].accum.r, 4.0f); // 1 x 4, the scale entry 0 left
    const float half = 0.5f; // an argument of its own: read once, the same result
    sampleLightBegin(r.n, r.e);
    r.e[0].lightSum = r.e[1].lightSum = miColor{4, 4, 4, 4};
    sampleLightEnd(r.st, r.n, r.e, 4, &add, &on, &half);
    EXPECT_EQ(r.e[0].slots[0].accum.r, 4.5f);
    EXPECT_EQ(r.e[1].slots[0].accum.r, 4.5f);
}

TEST_F(LightLoop, ChildRaysAddIntoTheParentSlot)
{
    // Plain; reflection always added; refraction always added; type 1 (never).
    Rig r(passes({{0, {}}, {0, {5}}, {0, {6}}, {1, {}}}), 2);
    ASSERT_EQ(r.n, 4u);
    auto child = [&](miUint slotFlags) { // depth 0, limit 2: child slot 1
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].slots[1].result = r.e[i].slots[1].opacity = miColor{7, 7, 7, 7};
            r.e[i].slots[0].accum = miColor{0.1f, 0.1f, 0.1f, 0};
            r.e[i].slots[0].slotFlags = slotFlags;
        }
        tracePassInit(r.n, r.e, r.st);
        for (miUint i = 0; i < r.n; ++i) {
            expectColor(r.e[i].slots[1].opacity, 0, 0, 0, 0, 1e-6f);
            expectColor(r.e[i].slots[1].result, 0, 0, 0, 0, 1e-6f);
            r.e[i].slots[1].result = miColor{0.4f, 0.2f, 0.8f, 1};
        }
    };
    // A weight distinct per channel: 0.1 + (0.5, 0.25, 0.75, 1) * (0.4, 0.2, 0.8, 1).
    child(0);
    tracePassAdd(r.n, r.e, r.st, miFALSE, miColor{0.5f, 0.25f, 0.75f, 1});
    for (miUint i = 0; i < 3; ++i) {
        expectColor(r.e[i].slots[0].accum, 0.3f, 0.15f, 0.7f, 1, 1e-6f);
        expectColor(r.e[i].slots[1].result, 0, 0, 0, 0, 1e-6f);
    }
    expectColor(r.e[3].slots[0].accum, 0.1f, 0.1f, 0.1f, 0, 1e-6f);
    // Low two slot bits 1 (bit 2 does not matter): only passes asking for
    // that kind of child take it; a skipped child result stays.
    for (miBoolean refracted : {miFALSE, miTRUE}) {
        child(5);
        tracePassAdd(r.n, r.e, r.st, refracted, WHITE);
        EXPECT_EQ(r.e[0].slots[0].accum.r, 0.1f);
        EXPECT_EQ(r.e[0].slots[1].result.r, 0.4f);
        EXPECT_NEAR(r.e[1].slots[0].accum.r, refracted ? 0.1f : 0.5f, 1e-6f);
        EXPECT_NEAR(r.e[2].slots[0].accum.r, refracted ? 0.5f : 0.1f, 1e-6f);
    }
    child(3);
    tracePassAdd(r.n, r.e, r.st, miTRUE, WHITE);
    EXPECT_NEAR(r.e[0].slots[0].accum.r, 0.5f, 1e-6f);
    // At the depth limit both do nothing.
    r.st->reflection_level = 2;
    r.e[0].slots[3].result = r.e[0].slots[3].opacity = miColor{1, 1, 1, 1};
    r.e[0].slots[2].accum = BLACK;
    tracePassInit(r.n, r.e, r.st);
    tracePassAdd(r.n, r.e, r.st, miTRUE, WHITE);
    expectColor(r.e[0].slots[3].result, 1, 1, 1, 1, 1e-6f);
    expectColor(r.e[0].slots[3].opacity, 1, 1, 1, 1, 1e-6f);
    expectColor(r.e[0].slots[2].accum, 0, 0, 0, 0, 1e-6f);
}

// The state's own entries are bounded by the slots its set-up allocated,
// whatever the trace-depth limit is now.  Set up with limit 3 (5 slots per
// entry): a limit lowered to 0 stops child rays, but sampleLightEnd has no
// depth bound of its own and still merges into slots 3 and 4; a limit raised
// to 50 never lets a depth past slot 4 (entry 0's slot 5 would be entry 1's
// slot 0, and the last entry's lies past the block: the ASan build catches it).
TEST_F(LightLoop, DepthBoundsAreTheLimitAndTheSlotsOfTheSetUp)
{
    Rig r(passes({{0, {}}, {0, {}}}), 3);
    ASSERT_EQ(r.n, 2u);
    EXPECT_EQ(r.e[1].slots - r.e[0].slots, 5);
    const int add = 1;
    auto lightAt = [&](int depth) { // two samples summing 2: adds 1
        r.st->reflection_level = depth;
        sampleLightBegin(r.n, r.e);
        r.e[0].lightSum = r.e[1].lightSum = miColor{2, 2, 2, 2};
        sampleLightEnd(r.st, r.n, r.e, 2, &add, nullptr, nullptr);
    };
    r.ctx.options().trace_depth = 0;
    for (int depth : {3, 4}) {
        r.e[0].slots[depth].accum = BLACK;
        lightAt(depth);
        expectColor(r.e[0].slots[depth].accum, 1, 1, 1, 1, 1e-6f);
    }
    r.st->reflection_level = 0;
    r.e[0].slots[1].result = miColor{1, 1, 1, 1};
    tracePassInit(r.n, r.e, r.st);
    expectColor(r.e[0].slots[1].result, 1, 1, 1, 1, 0); // no child ray at the limit

    r.ctx.options().trace_depth = 50;
    const miColor mark{9, 8, 7, 6};
    for (int depth : {4, 5, 9}) {
        SCOPED_TRACE(depth);
        r.e[1].slots[0].accum = r.e[1].slots[0].result = r.e[1].slots[0].opacity = mark;
        r.e[0].slots[4].accum = BLACK;
        r.st->reflection_level = depth;
        tracePassInit(r.n, r.e, r.st);
        tracePassAdd(r.n, r.e, r.st, miFALSE, WHITE);
        lightAt(depth);
        for (const miColor *c : {&r.e[1].slots[0].accum, &r.e[1].slots[0].result, &r.e[1].slots[0].opacity})
            expectColor(*c, mark, 0);
        const float want = depth == 4 ? 1.0f : 0.0f; // slot 4 is the last the state has
        expectColor(r.e[0].slots[4].accum, want, want, want, want, 1e-6f);
    }
    r.ctx.options().trace_depth = 3;
}

// An entry array a host built itself is bounded by the trace-depth limit
// alone: whatever its padding word holds (1, garbage, 0), every slot up to
// limit + 1 is reached.
TEST_F(LightLoop, HostBuiltEntriesAreBoundOnlyByTheLimit)
{
    Rig r(passes({{0, {}}}), 2);
    PassSlot slots[2][4] = {};
    FrameBufferInfo host[2] = {};
    const int add = 1;
    for (miUint pad : {1u, 0xDEADBEEFu, 0u}) {
        SCOPED_TRACE(pad);
        for (int i = 0; i < 2; ++i) {
            host[i] = FrameBufferInfo{};
            host[i].slots = slots[i];
            host[i].padding = pad;
            for (PassSlot &sl : slots[i])
                sl = PassSlot{};
            slots[i][2].result = slots[i][2].opacity = miColor{1, 1, 1, 1};
        }
        r.st->reflection_level = 1;
        tracePassInit(2, host, r.st);
        for (int i = 0; i < 2; ++i) {
            expectColor(slots[i][2].result, 0, 0, 0, 0, 0);
            expectColor(slots[i][2].opacity, 0, 0, 0, 0, 0);
            slots[i][2].result = miColor{0.5f, 0.5f, 0.5f, 0.5f};
        }
        tracePassAdd(2, host, r.st, miFALSE, WHITE);
        for (int depth : {1, 3}) {
            r.st->reflection_level = depth;
            sampleLightBegin(2, host);
            host[0].lightSum = host[1].lightSum = miColor{2, 2, 2, 2};
            sampleLightEnd(r.st, 2, host, 2, &add, nullptr, nullptr);
        }
        for (int i = 0; i < 2; ++i) {
            expectColor(slots[i][1].accum, 1.5f, 1.5f, 1.5f, 1.5f, 1e-6f);
            expectColor(slots[i][3].accum, 1, 1, 1, 1, 1e-6f);
        }
        EXPECT_EQ(host[0].padding, pad) << "the padding word is never written";
    }
    r.st->reflection_level = 0;
}

TEST_F(LightLoop, ShadowSumsAveragesAndOccluderVerdicts)
{
    // Not contributing; contributing unshadowed; shadowed; shadow pass.
    Rig r(passes({{0, {8}}, {0, {}}, {0, {8}}, {12, {}}}));
    ASSERT_EQ(r.n, 4u);
    for (miUint i = 1; i < 4; ++i)
        r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES;
    clear(r.e[0], FBINFO_LIGHT_CONTRIBUTES);
    // No scene: shadow rays get through.  Contributing passes sum 2 x white.
    miColor filter{7, 7, 7, 7};
    r.e[0].shadow = miColor{0.3f, 0.3f, 0.3f, 0.3f};
    traceShadowAccumulateBegin(r.n, r.e);
    for (int k = 0; k < 2; ++k) {
        r.e[2].shadow = miColor{0.2f, 0.2f, 0.2f, 0.2f};
        EXPECT_TRUE(traceShadowAccumulate(r.n, r.e, &filter, r.st));
        expectColor(filter, 1, 1, 1, 1, 1e-6f);
    }
    expectColor(r.e[2].shadowSum, 2, 2, 2, 2, 1e-6f);
    expectColor(r.e[0].shadowSum, 0, 0, 0, 0, 1e-6f);
    expectColor(r.e[0].shadow, 0.3f, 0.3f, 0.3f, 0.3f, 1e-6f);
    // Sums (1,2,3,4) over 4 samples: t = (0.25,0.5,0.75,1); light (1,0.5,2),
    // shadow 0: shadowed t * light = (0.25,0.25,1.5), taken (0.75,0.25,0.5).
    const miColor light{1, 0.5f, 2, 0.75f}, black{0, 0, 0, 0};
    for (miUint i = 0; i < 4; ++i)
        r.e[i].shadowSum = miColor{1, 2, 3, 4};
    r.e[1].shadow = miColor{0.7f, 0.6f, 0.5f, 0.4f};
    traceShadowAccumulateEnd(r.n, r.e, 4, &light, &black);
    const miColor shadows[4] = {{0, 0, 0, 0}, {0.7f, 0.6f, 0.5f, 0.4f}, {0.25f, 0.5f, 0.75f, 1}, {0.25f, 0.5f, 0.75f, 1}};
    const miColor lights[4] = {{0, 0, 0, 1}, {1, 0.5f, 2, 0.75f} /* the light's own alpha */, {0.25f, 0.25f, 1.5f, 1},
                               {0.75f, 0.25f, 0.5f, 1}};
    for (miUint i = 0; i < 4; ++i) {
        expectColor(r.e[i].shadow, shadows[i], 1e-6f, "shadow");
        expectColor(r.e[i].light, lights[i], 1e-6f, "light");
    }
    // 0 samples: the sum itself; l = (0.8,0.6,0.4), s = 0.2, t = (0.25,0.5,
    // 0.75): (1-t)s + tl = (0.35, 0.4, 0.35); shadow pass l - that.
    const miColor l{0.8f, 0.6f, 0.4f, 1}, s{0.2f, 0.2f, 0.2f, 1};
    for (miUint i = 0; i < 4; ++i)
        r.e[i].shadowSum = miColor{0.25f, 0.5f, 0.75f, 1};
    traceShadowAccumulateEnd(r.n, r.e, 0, &l, &s);
    expectColor(r.e[2].light, 0.35f, 0.4f, 0.35f, 1, 1e-6f);
    expectColor(r.e[3].light, 0.45f, 0.2f, 0.05f, 1, 1e-6f);
    // Without entries the ray is still traced with the filter preset to white.
    filter = miColor{7, 7, 7, 7};
    EXPECT_TRUE(traceShadow(0, r.e, &filter, &l, &s, miFALSE, r.st));
    expectColor(filter, 1, 1, 1, 1, 1e-6f);
    filter = miColor{7, 7, 7, 7};
    EXPECT_TRUE(traceShadowAccumulate(0, r.e, &filter, r.st));
    expectColor(filter, 1, 1, 1, 1, 1e-6f);

    // An occluder's verdict: 1 while a handled pass keeps r, g or b at or
    // above KELU_EPS, also one its mask left alone ("4": only entry 2 is
    // attenuated, the shadow pass 3 is spared).
    const Mask mask = makeMask("4");
    r.st->instance = makeInstance(mask.data);
    const miColor opaque{0, 0, 0, 0};
    const struct {
        miColor spared;
        int verdict;
    } verdicts[] = {{WHITE, 1}, {{0, 0, KELU_EPS, 0}, 1}, {{0.9e-5f, 0.9e-5f, 0.9e-5f, 1}, 0}, {BLACK, 0}};
    for (const auto &v : verdicts) {
        r.e[2].shadow = WHITE;
        r.e[3].shadow = v.spared;
        EXPECT_EQ(applyShadowTransparencyToFrameBuffers(r.n, r.e, &opaque, miFALSE, r.st), v.verdict);
        expectColor(r.e[2].shadow, 0, 0, 0, 0, 1e-6f);
        expectColor(r.e[3].shadow, v.spared.r, v.spared.g, v.spared.b, v.spared.a, 1e-6f);
    }
    EXPECT_EQ(mirt::db_access_count(mask.text), 4u); // read once per call
    r.ctx.end_sample(r.st, miTRUE);
    for (int k = 0; k < 2; ++k) {
        r.e[2].shadow = WHITE;
        EXPECT_EQ(applyShadowTransparencyToFrameBuffers(r.n, r.e, &opaque, miFALSE, r.st), 0);
        expectColor(r.e[2].shadow, 0, 0, 0, 0, 1e-6f);
    }
    EXPECT_EQ(mirt::db_access_count(mask.text), 6u);
    r.ctx.begin_sample(r.st, 1, 0);
    for (int k = 0; k < 2; ++k)
        applyShadowTransparencyToFrameBuffers(r.n, r.e, &opaque, miFALSE, r.st);
    EXPECT_EQ(mirt::db_access_count(mask.text), 8u);
    // Nothing handled (no shadowed pass contributes): 0, no record opened.
    clear(r.e[2], FBINFO_LIGHT_CONTRIBUTES);
    clear(r.e[3], FBINFO_LIGHT_CONTRIBUTES);
    const uint64_t opened = mirt::db_access_count(r.st->instance);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(r.n, r.e, &opaque, miTRUE, r.st), 0);
    EXPECT_EQ(mirt::db_access_count(r.st->instance), opened);
}

TEST_F(LightLoop, BrokenMasksCountAsNoMask)
{
    Rig r(passes({{0, {8}}, {0, {8}}}));
    const Mask works = makeMask("1"), empty = makeMask("");
    const miTag zero = 0, unknown = 888888;
    const miTag notText = mirt::db_create_data(&unknown, sizeof unknown);
    const miTag broken[] = {0,                                               // no instance
                            999999,                                          // not in the database
                            makeInstance(0),                                 // no data tag
                            makeInstance(mirt::db_create_data(&zero, 4)),    // no text tag
                            makeInstance(mirt::db_create_data(&unknown, 4)), // unknown text
                            makeInstance(empty.data),                        // empty text
                            makeInstance(mirt::db_create_data(&notText, 4)), // not a string
                            works.data};                                     // not an instance
    const miColor half{0.5f, 0.5f, 0.5f, 0.5f};
    auto both = [&](miTag inst) { // occluder: are both passes attenuated?
        r.st->instance = inst;
        for (miUint i = 0; i < 2; ++i) {
            r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES;
            r.e[i].shadow = WHITE;
        }
        applyShadowTransparencyToFrameBuffers(r.n, r.e, &half, miFALSE, r.st);
        return r.e[0].shadow.r == 0.5f && r.e[1].shadow.r == 0.5f;
    };
    auto lit = [&](miTag inst) { // light: are both passes lit?
        r.st->light_instance = inst;
        clear(r.e[0], FBINFO_LIGHT_CONTRIBUTES);
        clear(r.e[1], FBINFO_LIGHT_CONTRIBUTES);
        setupLightContributions(r.n, r.e, r.st);
        return has(r.e[0], FBINFO_LIGHT_CONTRIBUTES) && has(r.e[1], FBINFO_LIGHT_CONTRIBUTES);
    };
    EXPECT_FALSE(both(makeInstance(works.data)));
    EXPECT_FALSE(lit(makeInstance(works.data)));
    mirt::clear_messages();
    for (miTag inst : broken) {
        EXPECT_TRUE(both(inst)) << inst;
        if (inst) {
            EXPECT_TRUE(lit(inst)) << inst;
        }
    }
    EXPECT_TRUE(mirt::messages().empty());
    EXPECT_EQ(mirt::db_access_count(empty.text), 2u); // opened and released again at each of the two calls
    EXPECT_EQ(mirt::db_pin_count(notText), 0);
}

TEST_F(LightLoop, LightSetUpOutsideTheProtocolAndWithoutEntries)
{
    Rig r(passes({{0, {}}, {0, {}}, {0, {}}, {0, {}}, {0, {}}}));
    const Mask five = makeMask("5"), six = makeMask("6");
    r.st->light_instance = makeInstance(five.data);
    sampleLightBegin(r.n, r.e);
    r.e[1].flags |= FBINFO_LIGHT_CONTRIBUTES;
    setupLightContributions(r.n, r.e, r.st); // "5": entries 0, 2 (4 is past the text)
    for (miUint i = 0; i < r.n; ++i)
        EXPECT_EQ(has(r.e[i], FBINFO_LIGHT_CONTRIBUTES), i == 0 || i == 2) << i;
    EXPECT_FALSE(has(r.e[0], FBINFO_LIGHT_SETUP_PENDING));
    // The light set itself up: handleNonDruxLights changes nothing.
    const miColor c{0.3f, 0.2f, 0.1f, 1};
    r.e[2].light = miColor{0.5f, 0, 0, 1};
    handleNonDruxLights(r.n, r.e, &c, makeInstance(six.data), r.st);
    expectColor(r.e[2].light, 0.5f, 0, 0, 1, 1e-6f);
    EXPECT_EQ(mirt::db_access_count(six.text), 0u);
    // Otherwise the state's light instance is swapped only for the set-up.
    const miTag own = r.st->light_instance;
    r.e[0].flags |= FBINFO_LIGHT_SETUP_PENDING;
    handleNonDruxLights(r.n, r.e, &c, makeInstance(six.data), r.st);
    EXPECT_EQ(r.st->light_instance, own);
    expectColor(r.e[0].light, 0, 0, 0, 0, 1e-6f);
    expectColor(r.e[1].light, 0.3f, 0.2f, 0.1f, 1, 1e-6f);

    // Outside a light shader: the message once per call, every pass lit.
    r.st->light_instance = 0;
    mirt::clear_messages();
    for (size_t k = 1; k <= 2; ++k) {
        setupLightContributions(r.n, r.e, r.st);
        ASSERT_EQ(mirt::messages().size(), k);
        EXPECT_EQ(mirt::messages().back().level, mirt::Level::Error);
        EXPECT_EQ(mirt::messages().back().text, "setupLightContributions was called outside of a light shader.");
    }
    for (miUint i = 0; i < r.n; ++i)
        EXPECT_TRUE(has(r.e[i], FBINFO_LIGHT_CONTRIBUTES));

    // With no entries nothing is touched and nothing reported.
    std::vector<unsigned char> before(r.n * sizeof(FrameBufferInfo));
    std::memcpy(before.data(), r.e, before.size());
    const int mode = 3;
    const float two = 2;
    sampleLightBegin(0, r.e);
    sampleLightEnd(r.st, 0, r.e, 1, &mode, &mode, &two);
    setLightIrradiance(0, r.e, &c);
    traceShadowAccumulateBegin(0, r.e);
    traceShadowAccumulateEnd(0, r.e, 2, &c, &c);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(0, r.e, &c, miTRUE, r.st), 0);
    setupLightContributions(0, r.e, r.st);
    handleNonDruxLights(0, r.e, &c, 0, r.st);
    EXPECT_EQ(std::memcmp(before.data(), r.e, before.size()), 0);
    EXPECT_EQ(mirt::messages().size(), 2u);
}

// Masks are read as they are at each call, also several times within one
// eye sample: the light's data pointed at another mask, the data item
// pointed at another text, a text changed in place; on 4 and on 70 passes.
TEST_F(LightLoop, MasksAreReadAsTheyAreAtTheCall)
{
    for (int count : {4, 70}) {
        SCOPED_TRACE(count);
        mirt::reset();
        Rig r(passes(std::vector<P>(static_cast<size_t>(count), P{0, {8}})));
        ASSERT_EQ(r.n, static_cast<miUint>(count));
        const Mask one = makeMask("1"), two = makeMask("2");
        const miTag inst = makeInstance(one.data);
        r.st->light_instance = r.st->instance = inst;
        const miColor opaque{0, 0, 0, 0};
        auto expectMask = [&](const char *text) {
            setupLightContributions(r.n, r.e, r.st);
            for (miUint i = 0; i < r.n; ++i) {
                const bool lit = contributesToPass(static_cast<int>(i), text) != 0;
                EXPECT_EQ(has(r.e[i], FBINFO_LIGHT_CONTRIBUTES), lit) << text << " light, entry " << i;
                r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES;
                r.e[i].shadow = WHITE;
            }
            applyShadowTransparencyToFrameBuffers(r.n, r.e, &opaque, miFALSE, r.st);
            for (miUint i = 0; i < r.n; ++i)
                EXPECT_EQ(r.e[i].shadow.r, contributesToPass(static_cast<int>(i), text) ? 0.0f : 1.0f)
                    << text << " occluder, entry " << i;
        };
        expectMask("1");
        static_cast<miInstance *>(mirt::db_data(inst))->param = two.data;
        expectMask("2");
        *static_cast<miTag *>(mirt::db_data(two.data)) = one.text;
        expectMask("1");
        static_cast<char *>(mirt::db_data(one.text))[0] = '4';
        expectMask("4");
        r.ctx.end_sample(r.st, miTRUE);
        r.ctx.begin_sample(r.st, 1, 0);
        expectMask("4");
        EXPECT_EQ(mirt::db_pin_count(one.text), 0);
    }
}

/* ================================================================ whole light loops
 * A receiver plane at z = 0 whose material runs the light loop; a
 * semi-transparent occluder (1 x 1 at z = 1, transparency tr = (0.5, 0.25,
 * 0.75, 0.5)) with its own mask; the eye ray comes in under the occluder and
 * hits P = (0.3, 0.2, 0).  Light A above P (pass-aware, l = (0.8, 0.6, 0.4),
 * shadow colour s = (0.1, 0.1, 0.1)); light B (unaware, (0.4, 0.6, 0.2)) at
 * (0.6, 0.2, 3), its ray crossing the occluder at (0.4, 0.2, 1).
 * Entries: 0 shadowed; 1 shadowed, left out by the occluder's mask; 2
 * shadowed, every occluder counts; 3 shadowed, lit by B only; 4 type 6 (never
 * shadowed); 5 type 12 (shadow pass).  Masks: A "73" = 0,1,2,4,5; B "A1" =
 * 1,3,4; occluder "12" = 0,5.
 * By hand: S = (1-tr)s + tr l = (0.05+0.4, 0.075+0.15, 0.025+0.3) =
 * (0.45, 0.225, 0.325); l - S = (0.35, 0.375, 0.075); B through the occluder
 * (0.2, 0.15, 0.15, 0.5).
 */
enum Kind { kPerPass, kShared, kAccumulate, kIrradianceTraced, kUnaware };
struct LightParams {
    miColor color, shadowColor;
    int kind;
};
struct OccluderParams {
    miColor tr;
    int applyToLight, giveUp;
};
struct Seen {
    int occluderCalls = 0, samples[2] = {}, pending[2] = {};
    miTag occluderInstance = 0;
    miBoolean traced = miTRUE;
    std::vector<miColor> result;
    uint64_t allocations = 0;
};
thread_local Seen t_seen;

miUint entriesOf(miState *st, FrameBufferInfo **e)
{
    PassTypeInfo *types = nullptr;
    return getFrameBufferInfo(st, &types, e);
}

miBoolean light(void *result, miState *st, void *params)
{
    const LightParams *p = static_cast<const LightParams *>(params);
    miColor *out = static_cast<miColor *>(result);
    *out = p->color;
    if (p->kind == kUnaware) {
        mi_trace_shadow(out, st);
        return miTRUE;
    }
    FrameBufferInfo *e = nullptr;
    const miUint n = entriesOf(st, &e);
    setupLightContributions(n, e, st);
    miColor filter = WHITE;
    if (p->kind == kAccumulate) {
        traceShadowAccumulateBegin(n, e);
        for (int k = 0; k < 4; ++k)
            t_seen.traced = traceShadowAccumulate(n, e, &filter, st);
        traceShadowAccumulateEnd(n, e, 4, &p->color, &p->shadowColor);
    } else if (p->kind == kIrradianceTraced) {
        setLightIrradiance(n, e, &p->color);
        t_seen.traced = mi_trace_shadow(&filter, st);
    } else {
        t_seen.traced = traceShadow(n, e, &filter, &p->color, &p->shadowColor, p->kind == kShared, st);
    }
    return miTRUE;
}

miBoolean occluder(void *result, miState *st, void *params)
{
    const OccluderParams *p = static_cast<const OccluderParams *>(params);
    ++t_seen.occluderCalls;
    t_seen.occluderInstance = st->instance;
    miColor *f = static_cast<miColor *>(result);
    *f = miColor{f->r * p->tr.r, f->g * p->tr.g, f->b * p->tr.b, f->a * p->tr.a};
    FrameBufferInfo *e = nullptr;
    const miUint n = entriesOf(st, &e);
    applyShadowTransparencyToFrameBuffers(n, e, &p->tr, p->applyToLight, st);
    return p->giveUp ? miFALSE : miTRUE;
}

/* Each light's samples averaged into slot 0 (mode 1); result = accumulation. */
miBoolean material(void *result, miState *st, void *)
{
    FrameBufferInfo *e = nullptr;
    const miUint n = entriesOf(st, &e);
    for (miUint i = 0; i < n; ++i)
        e[i].slots[0].accum = BLACK;
    int count = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&count, &lights, st);
    const uint64_t before = heapAllocationCount() + mirt::mem_allocation_count();
    for (int k = 0; k < count; ++k) {
        sampleLightBegin(n, e);
        int samples = 0;
        miColor col;
        miVector dir;
        miScalar dot_nl;
        while (mi_sample_light(&col, &dir, &dot_nl, st, lights[k], &samples)) {
            handleNonDruxLights(n, e, &col, lights[k], st);
            t_seen.pending[k & 1] = has(e[0], FBINFO_LIGHT_SETUP_PENDING);
            for (miUint i = 0; i < n; ++i)
                e[i].lightSum = miColor{e[i].lightSum.r + e[i].light.r, e[i].lightSum.g + e[i].light.g,
                                        e[i].lightSum.b + e[i].light.b, e[i].lightSum.a + e[i].light.a};
        }
        t_seen.samples[k & 1] = samples;
        const int mode = 1;
        const miBoolean no = miFALSE;
        const float one = 1;
        sampleLightEnd(st, n, e, samples, &mode, &no, &one);
    }
    t_seen.allocations += heapAllocationCount() + mirt::mem_allocation_count() - before;
    t_seen.result.clear();
    for (miUint i = 0; i < n; ++i) {
        e[i].slots[0].result = e[i].slots[0].accum;
        e[i].slots[0].opacity = WHITE;
        t_seen.result.push_back(e[i].slots[0].result);
    }
    *static_cast<miColor *>(result) = BLACK;
    return miTRUE;
}

struct Stage {
    mirt::Context ctx;
    fbtest::FbufSetup setup;
    mirt::MeshScene scene;
    mirt::GeometryTags occ;
    Mask maskA = makeMask("73"), maskB = makeMask("A1"), maskOcc = makeMask("12");

    Stage(int kindA, bool withB, bool translucent = true, int applyToLight = 0, int giveUp = 0)
    {
        setup = fbtest::install(ctx, passes({{0, {8}}, {0, {8}}, {0, {8, 9}}, {0, {8}}, {6, {8}}, {12, {}}}));
        mirt::InstanceDesc rd;
        rd.material = mirt::make_function(miSHADER_MATERIAL, material, nullptr, 0, 16, false, "material");
        scene.add(mirt::build_instance(mirt::make_plane(10, 10, 1, 1), rd));
        mirt::InstanceDesc od;
        od.local_to_global[14] = 1.0f;
        od.param = maskOcc.data;
        const OccluderParams op{{0.5f, 0.25f, 0.75f, 0.5f}, applyToLight, giveUp};
        if (translucent)
            od.shadow = mirt::make_function(miSHADER_SHADOW, occluder, &op, sizeof op, 16, false, "occluder");
        occ = mirt::build_instance(mirt::make_plane(1, 1, 1, 1), od);
        scene.add(occ);
        ctx.set_scene(&scene);
        const LightParams a{{0.8f, 0.6f, 0.4f, 1}, {0.1f, 0.1f, 0.1f, 1}, kindA};
        const LightParams b{{0.4f, 0.6f, 0.2f, 1}, {0, 0, 0, 1}, kUnaware};
        ctx.add_point_light({0.3f, 0.2f, 3}, mirt::make_function(miSHADER_LIGHT, light, &a, sizeof a, 16, false, "A"),
                            maskA.data);
        if (withB)
            ctx.add_point_light({0.6f, 0.2f, 3},
                                mirt::make_function(miSHADER_LIGHT, light, &b, sizeof b, 16, false, "B"), maskB.data);
    }
    /* One eye sample of pixel (x, 0); returns the frame buffers' pixels. */
    std::vector<miColor> shade(miState *st, int x = 0)
    {
        ctx.begin_sample(st, x, 0);
        const float len = std::sqrt(2.7f * 2.7f + 0.25f);
        miColor res;
        ctx.end_sample(st, ctx.shade_eye(st, {3, 0.2f, 0.5f}, {-2.7f / len, 0, -0.5f / len}, &res));
        std::vector<miColor> out;
        for (int idx : setup.fbIndex)
            out.push_back(ctx.fb_pixel(idx, x, 0));
        return out;
    }
};

#define EXPECT_RESULTS(r, ...)                                                                         \
    do {                                                                                               \
        const float w_[6][4] = __VA_ARGS__;                                                            \
        ASSERT_EQ((r).size(), 6u);                                                                     \
        for (int i_ = 0; i_ < 6; ++i_) {                                                               \
            SCOPED_TRACE(i_);                                                                          \
            expectColor((r)[i_], w_[i_][0], w_[i_][1], w_[i_][2], w_[i_][3], 1e-6f);                         \
        }                                                                                              \
    } while (0)

TEST_F(LightLoop, WholeLoopWithAPassAwareAndAnUnawareLight)
{
    Stage s(kPerPass, true);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    const std::vector<miColor> fb = s.shade(st);
    const Seen seen = t_seen;
    EXPECT_EQ(std::vector<int>(seen.samples, seen.samples + 2), (std::vector<int>{1, 1}));
    EXPECT_EQ(std::vector<int>(seen.pending, seen.pending + 2), (std::vector<int>{0, 1})); // A set itself up; B was set up for
    EXPECT_EQ(seen.occluderCalls, 2);
    EXPECT_EQ(seen.occluderInstance, s.occ.instance);
    // A: S / l / S / dark (alpha 1) / l / l - S; plus B's filtered colour on
    // 1, 3, 4 and black elsewhere.
    EXPECT_RESULTS(seen.result, {{0.45f, 0.225f, 0.325f, 1}, {1.0f, 0.75f, 0.55f, 1.5f},
                                 {0.45f, 0.225f, 0.325f, 1}, {0.2f, 0.15f, 0.15f, 1.5f},
                                 {1.0f, 0.75f, 0.55f, 1.5f}, {0.35f, 0.375f, 0.075f, 1}});
    for (size_t i = 0; i < fb.size(); ++i) // written at sample end, alpha 1
        expectColor(fb[i], seen.result[i].r, seen.result[i].g, seen.result[i].b, 1, 1e-6f);
    // Shadows at the end: A left S in the shadow pass, black in 3 and 4, 1 in
    // the masked pass, tr in 0; B's ray then crossed the occluder with A's
    // contribution bits in place: 5 = S * tr, 0 = tr * tr.
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(entriesOf(st, &e), 6u);
    expectColor(e[5].shadow, 0.225f, 0.05625f, 0.24375f, 0.5f, 1e-6f);
    expectColor(e[0].shadow, 0.25f, 0.0625f, 0.5625f, 0.25f, 1e-6f);
    expectColor(e[1].shadow, 1, 1, 1, 1, 1e-6f);
    expectColor(e[3].shadow, 0, 0, 0, 0, 1e-6f);
    expectColor(e[4].shadow, 0, 0, 0, 0, 1e-6f);
    // Each mask text opened at each call (the occluder is crossed twice),
    // and released.
    EXPECT_EQ(mirt::db_access_count(s.maskA.text), 1u);
    EXPECT_EQ(mirt::db_access_count(s.maskB.text), 1u);
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), 2u);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    // Later samples: the same values, no allocation in the light loops.
    t_seen = Seen();
    for (int x = 1; x < 4; ++x) {
        const std::vector<miColor> again = s.shade(st, x);
        for (size_t i = 0; i < fb.size(); ++i)
            EXPECT_EQ(std::memcmp(&again[i], &fb[i], sizeof(miColor)), 0) << i;
    }
    EXPECT_EQ(t_seen.allocations, 0u);
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), 8u); // once per crossing
    s.ctx.end_state(st);
    EXPECT_TRUE(mirt::messages().empty());
}

// Shared: the occluder's filter serves every shadowed pass, the masked one
// too.  Blocked (opaque occluder, or one that gives up with light left in the
// filter): shadowed passes get s, the shadow pass l - s.  Accumulated: four
// equal shadow samples average to the single transmission.  Light filtering:
// unshadowed light in the passes, then the occluder filters the light: 0, 2:
// l * tr = (0.4, 0.15, 0.3, 0.5); shadow pass 0 + (1 - tr).
TEST_F(LightLoop, SharedAccumulatedAndLightFilteringShadows)
{
    const miColor S{0.45f, 0.225f, 0.325f, 1}, l{0.8f, 0.6f, 0.4f, 1}, s{0.1f, 0.1f, 0.1f, 1}, dark{0, 0, 0, 1};
    const struct Case {
        const char *name;
        int kind;
        bool translucent;
        int applyToLight, giveUp;
        miBoolean traced;
        int occluderCalls;
        miColor result[6];
        float shadowPass[4]; // entry 5's shadow at the end; alpha < 0: not checked
        uint64_t occluderReads;
    } cases[] = {
        {"shared", kShared, true, 0, 0, miTRUE, 1, {S, S, S, dark, l, {0.35f, 0.375f, 0.075f, 1}}, {0.45f, 0.225f, 0.325f, 1}, 1},
        {"opaque", kShared, false, 0, 0, miFALSE, 0, {s, s, s, dark, l, {0.7f, 0.5f, 0.3f, 1}}, {0, 0, 0, -1}, 0},
        {"gives up", kShared, true, 0, 1, miFALSE, 1, {s, s, s, dark, l, {0.7f, 0.5f, 0.3f, 1}}, {0, 0, 0, -1}, 1},
        {"accumulated", kAccumulate, true, 0, 0, miTRUE, 4, {S, l, S, dark, l, {0.35f, 0.375f, 0.075f, 1}},
         {0.5f, 0.25f, 0.75f, 0.5f}, 4},
        {"light filtering", kIrradianceTraced, true, 1, 0, miTRUE, 1,
         {{0.4f, 0.15f, 0.3f, 0.5f}, l, {0.4f, 0.15f, 0.3f, 0.5f}, dark, l, {0.5f, 0.75f, 0.25f, 1.5f}}, {0, 0, 0, -1}, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Stage stage(c.kind, false, c.translucent, c.applyToLight, c.giveUp);
        miState *st = stage.ctx.begin_state();
        t_seen = Seen();
        stage.shade(st);
        EXPECT_EQ(t_seen.traced, c.traced);
        EXPECT_EQ(t_seen.occluderCalls, c.occluderCalls);
        ASSERT_EQ(t_seen.result.size(), 6u);
        for (int i = 0; i < 6; ++i)
            expectColor(t_seen.result[i], c.result[i], 1e-6f);
        FrameBufferInfo *e = nullptr;
        ASSERT_EQ(entriesOf(st, &e), 6u);
        if (c.shadowPass[3] >= 0)
            expectColor(e[5].shadow, c.shadowPass[0], c.shadowPass[1], c.shadowPass[2], c.shadowPass[3], 1e-6f);
        if (c.kind == kShared && c.traced) // entry 0 as the occluder left it
            expectColor(e[0].shadow, 0.5f, 0.25f, 0.75f, 0.5f, 1e-6f);
        EXPECT_EQ(mirt::db_access_count(stage.maskOcc.text), c.occluderReads); // one read per crossing
        stage.ctx.end_state(st);
    }
}

TEST_F(LightLoop, ConcurrentStatesKeepTheirOwnPasses)
{
    Stage s(kPerPass, true);
    constexpr int kSamples = 40;
    std::vector<miColor> last[2];
    std::atomic<int> mismatches{0};
    auto worker = [&](int t) {
        miState *st = s.ctx.begin_state(t);
        for (int k = 0; k < kSamples; ++k) {
            std::vector<miColor> fb = s.shade(st, t * 4 + k % 4);
            if (k > 0)
                for (size_t i = 0; i < fb.size(); ++i)
                    mismatches += std::memcmp(&fb[i], &last[t][i], sizeof(miColor)) != 0;
            last[t] = fb;
        }
        s.ctx.end_state(st);
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (const std::vector<miColor> &fb : last)
        EXPECT_RESULTS(fb, {{0.45f, 0.225f, 0.325f, 1}, {1.0f, 0.75f, 0.55f, 1}, {0.45f, 0.225f, 0.325f, 1},
                            {0.2f, 0.15f, 0.15f, 1}, {1.0f, 0.75f, 0.55f, 1}, {0.35f, 0.375f, 0.075f, 1}});
    EXPECT_EQ(mirt::db_access_count(s.maskA.text), uint64_t(2 * kSamples));
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), uint64_t(4 * kSamples)); // once per crossing
}

} // namespace
