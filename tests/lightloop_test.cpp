// The light loop's pass bookkeeping: contribution masks, per-light sample
// accumulation, child-ray pass transfer, shadow accumulation through occluders
// and light set-up, driven through rendering states of the runtime.  Expected
// values are worked out by hand in the comments next to them.
#include "DruxShaderSDK.h"
#include "fbuf_builder.h"
#include "geometry.h"
#include "runtime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

/* ---------------------------------------------------------------- counting
   Every operator new of this process is counted, so that a test can show that
   a light sample allocates nothing on the C++ heap. */
namespace {
std::atomic<uint64_t> g_newCount{0};
}

void *operator new(std::size_t size)
{
    g_newCount.fetch_add(1, std::memory_order_relaxed);
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

namespace {

const char *const kOutsideLight = "setupLightContributions was called outside of a light shader.";
constexpr float kTol = 1e-6f;

void expectColor(const miColor &c, float r, float g, float b, float a, const char *what = "")
{
    EXPECT_NEAR(c.r, r, kTol) << what;
    EXPECT_NEAR(c.g, g, kTol) << what;
    EXPECT_NEAR(c.b, b, kTol) << what;
    EXPECT_NEAR(c.a, a, kTol) << what;
}

bool sameColor(const miColor &a, const miColor &b)
{
    return a.r == b.r && a.g == b.g && a.b == b.b && a.a == b.a;
}

int countMessages(mirt::Level level, const std::string &text)
{
    int n = 0;
    for (const mirt::Message &m : mirt::messages())
        n += (m.level == level && m.text == text);
    return n;
}

/* A contribution mask as a scene carries it: a string item, and a data item
   whose first word is the string's tag. */
struct Mask {
    miTag text = 0;
    miTag data = 0;
};

Mask makeMask(const char *text)
{
    Mask m;
    m.text = mirt::db_create_string(text);
    m.data = mirt::db_create_data(&m.text, sizeof m.text);
    return m;
}

/* A bare instance record carrying `param` as its data tag. */
miTag makeInstance(miTag param)
{
    miTag t = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    static_cast<miInstance *>(mirt::db_data(t))->param = param;
    return t;
}

/* A rendering state with its pass records, at the first sample of pixel 0,0. */
struct Rig {
    mirt::Context ctx;
    fbtest::FbufSetup setup;
    miState *st = nullptr;
    miUint n = 0;
    FrameBufferInfo *e = nullptr;

    explicit Rig(const fbtest::FbufBuilder &b, int traceDepth = 2)
    {
        ctx.options().trace_depth = traceDepth;
        setup = fbtest::install(ctx, b);
        st = ctx.begin_state();
        ctx.begin_sample(st, 0, 0);
        PassTypeInfo *types = nullptr;
        n = getFrameBufferInfo(st, &types, &e);
    }
    ~Rig() { ctx.end_state(st); }
};

/* n plain passes of type 0. */
fbtest::FbufBuilder plainPasses(int n)
{
    fbtest::FbufBuilder b;
    for (int i = 0; i < n; ++i)
        b.add("p" + std::to_string(i), 0);
    return b;
}

class LightLoop : public ::testing::Test {
protected:
    void SetUp() override
    {
        mirt::reset();
        newsBefore_ = 0;
    }
    void TearDown() override
    {
        EXPECT_EQ(mirt::db_total_pins(), 0);
        mirt::reset();
    }
    uint64_t newsBefore_ = 0;
};

/* ================================================================ masks */

TEST_F(LightLoop, ContributesToPassReadsHexDigitsFourEntriesEach)
{
    // "2F": digit 0 = 2 (bit 1: entry 1), digit 1 = F (entries 4..7).
    EXPECT_FALSE(contributesToPass(0, "2F"));
    EXPECT_TRUE(contributesToPass(1, "2F"));
    EXPECT_FALSE(contributesToPass(2, "2F"));
    EXPECT_FALSE(contributesToPass(3, "2F"));
    for (int i = 4; i < 8; ++i)
        EXPECT_TRUE(contributesToPass(i, "2F")) << i;
    EXPECT_FALSE(contributesToPass(8, "2F")); // the terminating zero: no bits
    // "08": entry 7 only.
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(contributesToPass(i, "08"), i == 7 ? miTRUE : miFALSE) << i;
    // Upper and lower case agree, for every digit and bit.
    const char *upper = "0123456789ABCDEF";
    const char *lower = "0123456789abcdef";
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(contributesToPass(i, upper), contributesToPass(i, lower)) << i;
        // Digit k of this text has the value k, so entry i contributes when
        // bit (i mod 4) of (i div 4) is set.
        EXPECT_EQ(contributesToPass(i, upper) != 0, (((i / 4) >> (i % 4)) & 1) != 0) << i;
    }
    // No mask: everything contributes.
    EXPECT_TRUE(contributesToPass(3, nullptr));
    EXPECT_TRUE(contributesToPass(1000, nullptr));
    EXPECT_TRUE(contributesToPass(-1, nullptr));
}

TEST_F(LightLoop, ContributesToPassStopsAtTheEndOfTheText)
{
    // Bytes after the terminating zero must not be read: "1", zero, then F.
    const char text[] = {'1', '\0', 'F', 'F', '\0'};
    EXPECT_TRUE(contributesToPass(0, text));
    for (int i = 4; i < 16; ++i)
        EXPECT_FALSE(contributesToPass(i, text)) << i;
    EXPECT_FALSE(contributesToPass(0, ""));
    // A negative entry index names no entry.
    EXPECT_FALSE(contributesToPass(-1, "F"));
    EXPECT_FALSE(contributesToPass(-4, "FF"));
}

/* ================================================================ light-sample accumulation */

TEST_F(LightLoop, SampleLightBeginMarksTheLoopAndClearsEveryLightSum)
{
    Rig r(plainPasses(3));
    ASSERT_EQ(r.n, 3u);
    const miUint before0 = r.e[0].flags, before1 = r.e[1].flags;
    for (miUint i = 0; i < r.n; ++i)
        r.e[i].lightSum = miColor{1, 2, 3, 4};
    sampleLightBegin(r.n, r.e);
    EXPECT_EQ(r.e[0].flags, before0 | FBINFO_IN_LIGHT_LOOP | FBINFO_LIGHT_SETUP_PENDING);
    EXPECT_EQ(r.e[1].flags, before1); // the loop's state lives in entry 0 only
    for (miUint i = 0; i < r.n; ++i)
        expectColor(r.e[i].lightSum, 0, 0, 0, 0);
    // A zero count touches nothing.
    r.e[0].lightSum = miColor{1, 1, 1, 1};
    r.e[0].flags = 0;
    sampleLightBegin(0, r.e);
    EXPECT_EQ(r.e[0].flags, 0u);
    expectColor(r.e[0].lightSum, 1, 1, 1, 1);
}

TEST_F(LightLoop, SampleLightEndMergesTheAverageByMode)
{
    Rig r(plainPasses(4));
    ASSERT_EQ(r.n, 4u);
    // 4 samples summing to (4,4,4,4) average to 1; scale 0.5 gives 0.5 each.
    const int modes[4] = {1, 2, 3, 0};
    const miColor start{1, 2, 3, 4};
    for (int k = 0; k < 4; ++k) {
        sampleLightBegin(r.n, r.e);
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].lightSum = miColor{4, 4, 4, 4};
            r.e[i].slots[0].accum = start;
        }
        const miBoolean useScale = miTRUE;
        const float scale = 0.5f;
        sampleLightEnd(r.st, r.n, r.e, 4, &modes[k], &useScale, &scale);
        EXPECT_EQ(r.e[0].flags & FBINFO_IN_LIGHT_LOOP, 0u);
        const miColor &a = r.e[0].slots[0].accum;
        switch (modes[k]) {
        case 1: expectColor(a, 1.5f, 2.5f, 3.5f, 4.5f, "add"); break;
        case 2: expectColor(a, 0.5f, 1.0f, 1.5f, 2.0f, "multiply"); break;
        case 3: expectColor(a, 0.5f, 0.5f, 0.5f, 0.5f, "replace"); break;
        default: expectColor(a, 1, 2, 3, 4, "mode 0"); break;
        }
        // Every entry is merged alike; no other slot is touched.
        for (miUint i = 1; i < r.n; ++i)
            EXPECT_TRUE(sameColor(r.e[i].slots[0].accum, a)) << i;
    }
    // Any other non-zero mode adds.
    const int seven = 7;
    const miBoolean noScale = miFALSE;
    const float ignored = 100.0f;
    sampleLightBegin(r.n, r.e);
    r.e[2].lightSum = miColor{1, 2, 3, 4};
    r.e[2].slots[0].accum = miColor{0, 0, 0, 0};
    sampleLightEnd(r.st, r.n, r.e, 2, &seven, &noScale, &ignored);
    expectColor(r.e[2].slots[0].accum, 0.5f, 1.0f, 1.5f, 2.0f, "mode 7, 2 samples, unscaled");
}

TEST_F(LightLoop, SampleLightEndReadsOnlyBitZeroOfUseScalesFirstByte)
{
    Rig r(plainPasses(1));
    const int mode = 3;
    const float scale = 0.25f;
    struct Case {
        miBoolean useScale;
        float expected;
    } cases[] = {{1, 0.25f}, {3, 0.25f}, {2, 1.0f}, {0x100, 1.0f}, {0x101, 0.25f}, {0, 1.0f}};
    for (const Case &c : cases) {
        sampleLightBegin(r.n, r.e);
        r.e[0].lightSum = miColor{1, 1, 1, 1};
        sampleLightEnd(r.st, r.n, r.e, 1, &mode, &c.useScale, &scale);
        EXPECT_EQ(r.e[0].slots[0].accum.g, c.expected) << "useScale " << c.useScale;
    }
}

TEST_F(LightLoop, SampleLightEndSkipsWhatMustNotAccumulate)
{
    Rig r(plainPasses(3), 3);
    const int mode = 1;
    const miBoolean useScale = miFALSE;
    const float scale = 1;
    auto run = [&](int samples) {
        sampleLightBegin(r.n, r.e);
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].lightSum = miColor{2, 2, 2, 2};
            for (int d = 0; d < 5; ++d)
                r.e[i].slots[d].accum = BLACK;
        }
        sampleLightEnd(r.st, r.n, r.e, samples, &mode, &useScale, &scale);
    };

    // Entry 1 takes no accumulation, entry 2's slot takes no direct light.
    r.e[1].flags |= FBINFO_NO_ACCUMULATE;
    r.e[2].slots[0].slotFlags = 1;
    run(2);
    expectColor(r.e[0].slots[0].accum, 1, 1, 1, 1);
    expectColor(r.e[1].slots[0].accum, 0, 0, 0, 0);
    expectColor(r.e[2].slots[0].accum, 0, 0, 0, 0);
    // slotFlags bit 1 alone does not stop it.
    r.e[2].slots[0].slotFlags = 2;
    run(2);
    expectColor(r.e[2].slots[0].accum, 1, 1, 1, 1);

    // No samples: the loop ends, nothing is merged.
    run(0);
    EXPECT_EQ(r.e[0].flags & FBINFO_IN_LIGHT_LOOP, 0u);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0);
    run(-3);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0);

    // The slot is the one of the current depth (reflection + refraction).
    r.st->reflection_level = 1;
    r.st->refraction_level = 1;
    run(4);
    expectColor(r.e[0].slots[2].accum, 0.5f, 0.5f, 0.5f, 0.5f);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0);
    r.st->reflection_level = 0;
    r.st->refraction_level = 0;

    // Environment rays merge nothing.
    r.st->type = miRAY_ENVIRONMENT;
    run(1);
    expectColor(r.e[0].slots[0].accum, 0, 0, 0, 0);
    EXPECT_EQ(r.e[0].flags & FBINFO_IN_LIGHT_LOOP, 0u);
    r.st->type = miRAY_EYE;
}

TEST_F(LightLoop, SetLightIrradianceGivesContributingPassesTheUnshadowedLight)
{
    fbtest::FbufBuilder b;
    b.add("lit", 0);
    b.add("unlit", 0);
    b.add("shadow", 12);
    Rig r(b);
    ASSERT_EQ(r.n, 3u);
    EXPECT_EQ(r.e[2].flags & (FBINFO_SHADOW_PASS | FBINFO_SHADOWED), FBINFO_SHADOW_PASS | FBINFO_SHADOWED);
    r.e[0].flags |= FBINFO_LIGHT_CONTRIBUTES;
    r.e[1].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
    r.e[2].flags |= FBINFO_LIGHT_CONTRIBUTES;
    for (miUint i = 0; i < r.n; ++i) {
        r.e[i].light = miColor{9, 9, 9, 9};
        r.e[i].shadow = miColor{0.5f, 0.5f, 0.5f, 0.5f};
    }
    const miColor c{0.3f, 0.6f, 0.9f, 0.2f};
    setLightIrradiance(r.n, r.e, &c);
    expectColor(r.e[0].light, 0.3f, 0.6f, 0.9f, 1);
    expectColor(r.e[1].light, 0, 0, 0, 1);
    expectColor(r.e[2].light, 0, 0, 0, 1); // a shadow pass sees no shadow here
    for (miUint i = 0; i < r.n; ++i)
        expectColor(r.e[i].shadow, 1, 1, 1, 1);
}

/* ================================================================ child rays */

TEST_F(LightLoop, TracePassInitAndAddMoveTheChildResultIntoTheParent)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.add("reflect", 0).flag(5); // FBINFO_ADD_REFLECTION
    b.add("refract", 0).flag(6); // FBINFO_ADD_REFRACTION
    b.add("notrace", 1);         // FBINFO_NO_TRACE_ADD by type
    Rig r(b, 2);
    ASSERT_EQ(r.n, 4u);
    EXPECT_TRUE(r.e[3].flags & FBINFO_NO_TRACE_ADD);

    for (miUint i = 0; i < r.n; ++i) {
        r.e[i].slots[1].result = miColor{7, 7, 7, 7};
        r.e[i].slots[1].opacity = miColor{7, 7, 7, 7};
        r.e[i].slots[0].accum = miColor{0.1f, 0.1f, 0.1f, 0};
    }
    tracePassInit(r.n, r.e, r.st);
    for (miUint i = 0; i < r.n; ++i) {
        expectColor(r.e[i].slots[1].result, 0, 0, 0, 0);
        expectColor(r.e[i].slots[1].opacity, 0, 0, 0, 0);
    }
    // The child's material writes its result.
    for (miUint i = 0; i < r.n; ++i) {
        r.e[i].slots[1].result = miColor{0.4f, 0.2f, 0.8f, 1};
        r.e[i].slots[1].opacity = miColor{1, 1, 1, 1};
    }
    // Half the colour, all of the alpha: 0.1 + 0.5 * 0.4 = 0.3 etc.
    tracePassAdd(r.n, r.e, r.st, miFALSE, miColor{0.5f, 0.5f, 0.5f, 1});
    for (miUint i = 0; i < 3; ++i) {
        expectColor(r.e[i].slots[0].accum, 0.3f, 0.2f, 0.5f, 1);
        expectColor(r.e[i].slots[1].result, 0, 0, 0, 0);
        expectColor(r.e[i].slots[1].opacity, 1, 1, 1, 1);
    }
    expectColor(r.e[3].slots[0].accum, 0.1f, 0.1f, 0.1f, 0);
    expectColor(r.e[3].slots[1].result, 0.4f, 0.2f, 0.8f, 1);
}

TEST_F(LightLoop, TracePassAddHonoursSlotFlagsPerRayKind)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.add("reflect", 0).flag(5);
    b.add("refract", 0).flag(6);
    Rig r(b, 2);
    auto run = [&](miUint slotFlags, miBoolean refracted) {
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].slots[0].accum = BLACK;
            r.e[i].slots[0].slotFlags = slotFlags;
            r.e[i].slots[1].result = miColor{1, 1, 1, 1};
        }
        tracePassAdd(r.n, r.e, r.st, refracted, WHITE);
    };
    // Low two bits 1: only passes asking for this kind of child take it.
    run(1, miFALSE);
    EXPECT_EQ(r.e[0].slots[0].accum.r, 0.0f);
    EXPECT_EQ(r.e[1].slots[0].accum.r, 1.0f);
    EXPECT_EQ(r.e[2].slots[0].accum.r, 0.0f);
    EXPECT_EQ(r.e[0].slots[1].result.r, 1.0f); // a skipped child result stays
    run(1, miTRUE);
    EXPECT_EQ(r.e[0].slots[0].accum.r, 0.0f);
    EXPECT_EQ(r.e[1].slots[0].accum.r, 0.0f);
    EXPECT_EQ(r.e[2].slots[0].accum.r, 1.0f);
    run(5, miTRUE); // bit 2 does not matter: low two bits still 1
    EXPECT_EQ(r.e[0].slots[0].accum.r, 0.0f);
    // Low two bits 3 or 0: everybody takes it.
    for (miUint f : {0u, 2u, 3u}) {
        run(f, miFALSE);
        for (miUint i = 0; i < r.n; ++i)
            EXPECT_EQ(r.e[i].slots[0].accum.r, 1.0f) << "slotFlags " << f << " entry " << i;
    }
}

TEST_F(LightLoop, TracePassFunctionsStopAtTheTraceDepthLimit)
{
    Rig r(plainPasses(2), 2);
    r.st->reflection_level = 1;
    r.st->refraction_level = 1; // depth 2 = the limit
    for (miUint i = 0; i < r.n; ++i) {
        r.e[i].slots[3].result = miColor{1, 1, 1, 1};
        r.e[i].slots[3].opacity = miColor{1, 1, 1, 1};
        r.e[i].slots[2].accum = BLACK;
    }
    tracePassInit(r.n, r.e, r.st);
    tracePassAdd(r.n, r.e, r.st, miTRUE, WHITE);
    for (miUint i = 0; i < r.n; ++i) {
        expectColor(r.e[i].slots[3].result, 1, 1, 1, 1);
        expectColor(r.e[i].slots[3].opacity, 1, 1, 1, 1);
        expectColor(r.e[i].slots[2].accum, 0, 0, 0, 0);
    }
    // One level less: the last child slot is in use.
    r.st->refraction_level = 0;
    tracePassInit(r.n, r.e, r.st);
    expectColor(r.e[0].slots[2].result, 0, 0, 0, 0);
    r.e[0].slots[2].result = miColor{0.25f, 0.5f, 1, 1};
    tracePassAdd(r.n, r.e, r.st, miTRUE, miColor{2, 2, 2, 2});
    expectColor(r.e[0].slots[1].accum, 0.5f, 1, 2, 2);
}

/* ================================================================ shadow bookkeeping without tracing */

TEST_F(LightLoop, AccumulateEndAveragesTheTransmissionPerPass)
{
    fbtest::FbufBuilder b;
    b.add("dark", 0);                // not contributing
    b.add("unshadowed", 0);          // contributes, not shadowed
    b.add("shadowed", 0).flag(8);    // contributes, shadowed
    b.add("shadow", 12);             // shadow pass
    Rig r(b);
    ASSERT_EQ(r.n, 4u);
    for (miUint i = 1; i < 4; ++i)
        r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES;
    r.e[0].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
    for (miUint i = 0; i < 4; ++i) {
        r.e[i].shadowSum = miColor{2, 2, 2, 4};
        r.e[i].shadow = miColor{0.7f, 0.7f, 0.7f, 0.7f};
    }
    const miColor light{1, 1, 1, 0.75f};
    const miColor dark{0, 0, 0, 0};
    traceShadowAccumulateEnd(r.n, r.e, 4, &light, &dark);
    expectColor(r.e[0].shadow, 0, 0, 0, 0);
    expectColor(r.e[0].light, 0, 0, 0, 1);
    expectColor(r.e[1].shadow, 0.7f, 0.7f, 0.7f, 0.7f); // unchanged
    expectColor(r.e[1].light, 1, 1, 1, 0.75f);          // the light's own alpha
    // t = (2,2,2,4) / 4 = (0.5, 0.5, 0.5, 1)
    expectColor(r.e[2].shadow, 0.5f, 0.5f, 0.5f, 1);
    expectColor(r.e[2].light, 0.5f, 0.5f, 0.5f, 1);
    expectColor(r.e[3].shadow, 0.5f, 0.5f, 0.5f, 1); // keeps the transmission
    expectColor(r.e[3].light, 0.5f, 0.5f, 0.5f, 1);  // 1 - 0.5

    // 0 samples: the sum itself is the transmission.  With light
    // (0.8, 0.6, 0.4) and shadow colour (0.2, 0.2, 0.2), t = (0.25, 0.5, 0.75):
    // r = 0.75*0.2 + 0.25*0.8 = 0.35, g = 0.5*0.2 + 0.5*0.6 = 0.4,
    // b = 0.25*0.2 + 0.75*0.4 = 0.35.
    for (miUint i = 0; i < 4; ++i)
        r.e[i].shadowSum = miColor{0.25f, 0.5f, 0.75f, 1};
    const miColor light2{0.8f, 0.6f, 0.4f, 1};
    const miColor dark2{0.2f, 0.2f, 0.2f, 1};
    traceShadowAccumulateEnd(r.n, r.e, 0, &light2, &dark2);
    expectColor(r.e[2].shadow, 0.25f, 0.5f, 0.75f, 1);
    expectColor(r.e[2].light, 0.35f, 0.4f, 0.35f, 1);
    expectColor(r.e[3].light, 0.45f, 0.2f, 0.05f, 1); // 0.8-0.35, 0.6-0.4, 0.4-0.35

    traceShadowAccumulateBegin(r.n, r.e);
    for (miUint i = 0; i < 4; ++i)
        expectColor(r.e[i].shadowSum, 0, 0, 0, 0);
}

struct OccluderRig {
    Rig r;
    Mask mask;
    miTag instance;
    OccluderRig(const fbtest::FbufBuilder &b, const char *maskText)
        : r(b), mask(maskText ? makeMask(maskText) : Mask{}), instance(makeInstance(mask.data))
    {
        r.st->instance = instance;
        for (miUint i = 0; i < r.n; ++i) {
            r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES;
            r.e[i].shadow = WHITE;
            r.e[i].light = miColor{0.5f, 0.5f, 0.5f, 0.5f};
        }
    }
};

fbtest::FbufBuilder shadowedPasses(int n)
{
    fbtest::FbufBuilder b;
    for (int i = 0; i < n; ++i)
        b.add("s" + std::to_string(i), 0).flag(8);
    return b;
}

TEST_F(LightLoop, OccluderMaskChoosesWhichPassesItShadows)
{
    OccluderRig o(shadowedPasses(2), "1");
    const miColor half{0.5f, 0.5f, 0.5f, 0.5f};
    const uint64_t before = mirt::db_access_count(o.mask.text);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &half, miFALSE, o.r.st), 1);
    expectColor(o.r.e[0].shadow, 0.5f, 0.5f, 0.5f, 0.5f);
    expectColor(o.r.e[1].shadow, 1, 1, 1, 1);
    EXPECT_EQ(mirt::db_access_count(o.mask.text), before + 1);
    EXPECT_EQ(mirt::db_pin_count(o.mask.text), 0);
    EXPECT_EQ(mirt::db_pin_count(o.instance), 0);

    // A pass that takes every occluder is shadowed whatever the mask says.
    o.r.e[1].flags |= FBINFO_ALL_OCCLUDERS;
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &half, miFALSE, o.r.st), 1);
    expectColor(o.r.e[0].shadow, 0.25f, 0.25f, 0.25f, 0.25f);
    expectColor(o.r.e[1].shadow, 0.5f, 0.5f, 0.5f, 0.5f);
    EXPECT_EQ(mirt::db_access_count(o.mask.text), before + 2); // one look-up per call
}

TEST_F(LightLoop, OccluderResultSaysWhetherAnyHandledPassStillSeesLight)
{
    OccluderRig o(shadowedPasses(2), "3");
    const miColor opaque{0, 0, 0, 0};
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &opaque, miFALSE, o.r.st), 0);

    // Entry 1 left unattenuated by the mask, still white: light gets through.
    OccluderRig p(shadowedPasses(2), "1");
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(p.r.n, p.r.e, &opaque, miFALSE, p.r.st), 1);
    expectColor(p.r.e[0].shadow, 0, 0, 0, 0);
    expectColor(p.r.e[1].shadow, 1, 1, 1, 1);
    // Transmission just below the tolerance counts as blocked, at it as not.
    p.r.e[1].shadow = miColor{0.9e-5f, 0.9e-5f, 0.9e-5f, 1};
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(p.r.n, p.r.e, &opaque, miFALSE, p.r.st), 0);
    p.r.e[1].shadow = miColor{0, 0, KELU_EPS, 1};
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(p.r.n, p.r.e, &opaque, miFALSE, p.r.st), 1);
}

TEST_F(LightLoop, OccludersLeaveUnshadowedAndNonContributingPassesAlone)
{
    fbtest::FbufBuilder b;
    b.add("plain", 0);             // contributes, not shadowed
    b.add("shadowed", 0).flag(8);  // contributes, shadowed (made non-contributing below)
    b.add("noshadow", 6).flag(8);  // never shadowed: type 6 clears the bit
    OccluderRig o(b, nullptr);
    EXPECT_EQ(o.r.e[2].flags & FBINFO_SHADOWED, 0u);
    o.r.e[1].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
    const miColor half{0.5f, 0.5f, 0.5f, 0.5f};
    // No entry is handled: result 0, and the instance is never even opened.
    const uint64_t accesses = mirt::db_access_count(o.instance);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &half, miFALSE, o.r.st), 0);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &half, miTRUE, o.r.st), 0);
    EXPECT_EQ(mirt::db_access_count(o.instance), accesses);
    for (miUint i = 0; i < o.r.n; ++i) {
        expectColor(o.r.e[i].shadow, 1, 1, 1, 1);
        expectColor(o.r.e[i].light, 0.5f, 0.5f, 0.5f, 0.5f);
    }
}

TEST_F(LightLoop, OccluderAppliedToTheLightMovesItIntoShadowPasses)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0).flag(8);
    b.add("shadow", 12);
    OccluderRig o(b, nullptr);
    o.r.e[0].light = miColor{0.8f, 0.6f, 0.4f, 1};
    o.r.e[1].light = miColor{0, 0, 0, 1};
    o.r.e[1].shadow = miColor{1, 1, 1, 1};
    const miColor tr{0.5f, 0.25f, 0.75f, 0.5f};
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &tr, miTRUE, o.r.st), 1);
    // Not a shadow pass: the light is filtered, the transmission untouched.
    expectColor(o.r.e[0].light, 0.4f, 0.15f, 0.3f, 0.5f);
    expectColor(o.r.e[0].shadow, 1, 1, 1, 1);
    // Shadow pass: shadow s = 1 becomes s*tr, light gains s - s*tr.
    expectColor(o.r.e[1].shadow, 0.5f, 0.25f, 0.75f, 0.5f);
    expectColor(o.r.e[1].light, 0.5f, 0.75f, 0.25f, 1.5f);
    // A second occluder of the same kind: s = (0.5,0.25,0.75,0.5),
    // s*tr = (0.25,0.0625,0.5625,0.25), light gains (0.25,0.1875,0.1875,0.25).
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(o.r.n, o.r.e, &tr, miTRUE, o.r.st), 1);
    expectColor(o.r.e[1].shadow, 0.25f, 0.0625f, 0.5625f, 0.25f);
    expectColor(o.r.e[1].light, 0.75f, 0.9375f, 0.4375f, 1.75f);
}

TEST_F(LightLoop, BrokenOccluderMasksCountAsNoMask)
{
    const miColor half{0.5f, 0.5f, 0.5f, 0.5f};
    auto attenuatesBoth = [&](miState *st, miUint n, FrameBufferInfo *e) {
        e[0].shadow = WHITE;
        e[1].shadow = WHITE;
        applyShadowTransparencyToFrameBuffers(n, e, &half, miFALSE, st);
        return e[0].shadow.r == 0.5f && e[1].shadow.r == 0.5f;
    };
    OccluderRig o(shadowedPasses(2), "1");
    miState *st = o.r.st;
    ASSERT_FALSE(attenuatesBoth(st, o.r.n, o.r.e)); // the mask works

    st->instance = 0; // no current instance
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    st->instance = 999999; // not in the database
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    st->instance = makeInstance(0); // no data tag
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    const miTag zero = 0;
    st->instance = makeInstance(mirt::db_create_data(&zero, sizeof zero)); // no text tag
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    const miTag missing = 888888;
    st->instance = makeInstance(mirt::db_create_data(&missing, sizeof missing)); // unknown text
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    const Mask empty = makeMask("");
    st->instance = makeInstance(empty.data);
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    EXPECT_EQ(mirt::db_access_count(empty.text), 1u); // opened once, released again
    // A "text" that is not a string item.
    const miTag notText = mirt::db_create_data(&missing, sizeof missing);
    st->instance = makeInstance(mirt::db_create_data(&notText, sizeof notText));
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    // The current instance is not an instance record.
    st->instance = o.mask.data;
    EXPECT_TRUE(attenuatesBoth(st, o.r.n, o.r.e));
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_EQ(mirt::db_pin_count(notText), 0);
}

/* ================================================================ light set-up */

struct LightRig {
    Rig r;
    Mask mask;
    miTag light;
    LightRig(int passes, const char *maskText)
        : r(plainPasses(passes)), mask(maskText ? makeMask(maskText) : Mask{}), light(makeInstance(mask.data))
    {
        r.st->light_instance = light;
    }
};

TEST_F(LightLoop, SetupLightContributionsFollowsTheLightsMask)
{
    LightRig l(4, "5");
    sampleLightBegin(l.r.n, l.r.e);
    for (miUint i = 0; i < 4; ++i)
        l.r.e[i].flags |= (i == 1 ? static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES) : 0u);
    setupLightContributions(l.r.n, l.r.e, l.r.st);
    const bool want[4] = {true, false, true, false};
    for (miUint i = 0; i < 4; ++i)
        EXPECT_EQ((l.r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES) != 0, want[i]) << i;
    EXPECT_EQ(l.r.e[0].flags & FBINFO_LIGHT_SETUP_PENDING, 0u);
    EXPECT_TRUE(l.r.e[0].flags & FBINFO_IN_LIGHT_LOOP); // untouched
    EXPECT_EQ(mirt::db_access_count(l.mask.text), 1u);
    EXPECT_EQ(mirt::db_pin_count(l.mask.text), 0);
    EXPECT_EQ(mirt::db_pin_count(l.light), 0);

    // Entries past the text's digits do not contribute.
    LightRig m(9, "1");
    setupLightContributions(m.r.n, m.r.e, m.r.st);
    for (miUint i = 0; i < 9; ++i)
        EXPECT_EQ((m.r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES) != 0, i == 0) << i;
}

TEST_F(LightLoop, LightsWithoutAUsableMaskContributeEverywhere)
{
    LightRig l(6, "");
    for (miUint i = 0; i < 6; ++i)
        l.r.e[i].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
    setupLightContributions(l.r.n, l.r.e, l.r.st);
    for (miUint i = 0; i < 6; ++i)
        EXPECT_TRUE(l.r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES) << i;
    EXPECT_EQ(mirt::db_access_count(l.mask.text), 1u);
    EXPECT_EQ(mirt::db_pin_count(l.mask.text), 0);

    // No data tag; a light instance that is not in the database.
    for (miTag inst : {makeInstance(0), miTag(777777)}) {
        l.r.st->light_instance = inst;
        for (miUint i = 0; i < 6; ++i)
            l.r.e[i].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
        setupLightContributions(l.r.n, l.r.e, l.r.st);
        for (miUint i = 0; i < 6; ++i)
            EXPECT_TRUE(l.r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES) << i;
    }
    EXPECT_TRUE(mirt::messages().empty());
}

TEST_F(LightLoop, SetupOutsideALightShaderReportsOncePerCall)
{
    Rig r(plainPasses(3));
    r.st->light_instance = 0;
    sampleLightBegin(r.n, r.e);
    mirt::clear_messages();
    setupLightContributions(r.n, r.e, r.st);
    EXPECT_EQ(countMessages(mirt::Level::Error, kOutsideLight), 1);
    EXPECT_EQ(mirt::messages().size(), 1u);
    for (miUint i = 0; i < r.n; ++i)
        EXPECT_TRUE(r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES);
    EXPECT_EQ(r.e[0].flags & FBINFO_LIGHT_SETUP_PENDING, 0u);
    setupLightContributions(r.n, r.e, r.st);
    EXPECT_EQ(countMessages(mirt::Level::Error, kOutsideLight), 2);
    // Nothing to set up: no message.
    setupLightContributions(0, r.e, r.st);
    EXPECT_EQ(countMessages(mirt::Level::Error, kOutsideLight), 2);
}

TEST_F(LightLoop, HandleNonDruxLightsSetsUpOnTheLightsBehalf)
{
    LightRig l(4, "6"); // entries 1 and 2
    miState *st = l.r.st;
    const miTag own = makeInstance(0);
    st->light_instance = own;
    sampleLightBegin(l.r.n, l.r.e);
    const miColor c{0.3f, 0.2f, 0.1f, 1};
    handleNonDruxLights(l.r.n, l.r.e, &c, l.light, st);
    EXPECT_EQ(st->light_instance, own); // restored
    EXPECT_TRUE(l.r.e[0].flags & FBINFO_LIGHT_SETUP_PENDING); // set again for the next sample
    for (miUint i = 0; i < 4; ++i) {
        const bool lit = i == 1 || i == 2;
        EXPECT_EQ((l.r.e[i].flags & FBINFO_LIGHT_CONTRIBUTES) != 0, lit) << i;
        if (lit)
            expectColor(l.r.e[i].light, 0.3f, 0.2f, 0.1f, 1);
        else
            expectColor(l.r.e[i].light, 0, 0, 0, 0);
    }
    EXPECT_EQ(mirt::db_access_count(l.mask.text), 1u);

    // A light without a mask lights every pass with its whole colour.
    const miTag bare = makeInstance(0);
    handleNonDruxLights(l.r.n, l.r.e, &c, bare, st);
    for (miUint i = 0; i < 4; ++i)
        expectColor(l.r.e[i].light, 0.3f, 0.2f, 0.1f, 1);
    EXPECT_TRUE(mirt::messages().empty());
}

TEST_F(LightLoop, HandleNonDruxLightsLeavesLightsThatDidTheirOwnSetup)
{
    LightRig l(3, "1");
    sampleLightBegin(l.r.n, l.r.e);
    setupLightContributions(l.r.n, l.r.e, l.r.st);
    for (miUint i = 0; i < 3; ++i)
        l.r.e[i].light = miColor{0.1f * i, 0, 0, 1};
    const miUint flags[3] = {l.r.e[0].flags, l.r.e[1].flags, l.r.e[2].flags};
    const miColor c{9, 9, 9, 9};
    handleNonDruxLights(l.r.n, l.r.e, &c, makeInstance(0), l.r.st);
    for (miUint i = 0; i < 3; ++i) {
        EXPECT_EQ(l.r.e[i].flags, flags[i]);
        expectColor(l.r.e[i].light, 0.1f * i, 0, 0, 1);
    }
    EXPECT_EQ(mirt::db_access_count(l.mask.text), 1u);
}

TEST_F(LightLoop, ZeroEntriesMeansNothingIsTouched)
{
    Rig r(plainPasses(2));
    for (miUint i = 0; i < 2; ++i) {
        r.e[i].flags |= FBINFO_LIGHT_CONTRIBUTES | FBINFO_SHADOWED | FBINFO_LIGHT_SETUP_PENDING;
        r.e[i].light = r.e[i].shadow = r.e[i].shadowSum = r.e[i].lightSum = miColor{0.5f, 0.5f, 0.5f, 0.5f};
        r.e[i].slots[0].accum = r.e[i].slots[1].result = miColor{0.5f, 0.5f, 0.5f, 0.5f};
    }
    unsigned char entries[2 * sizeof(FrameBufferInfo)], slots[2][4 * sizeof(PassSlot)];
    std::memcpy(entries, r.e, sizeof entries);
    for (int i = 0; i < 2; ++i)
        std::memcpy(slots[i], r.e[i].slots, sizeof slots[i]);
    const miColor c{1, 1, 1, 1};
    const int mode = 3;
    const miBoolean yes = miTRUE;
    const float two = 2;
    r.st->light_instance = 0;
    mirt::clear_messages();

    sampleLightBegin(0, r.e);
    sampleLightEnd(r.st, 0, r.e, 1, &mode, &yes, &two);
    setLightIrradiance(0, r.e, &c);
    tracePassInit(0, r.e, r.st);
    tracePassAdd(0, r.e, r.st, miTRUE, c);
    traceShadowAccumulateBegin(0, r.e);
    traceShadowAccumulateEnd(0, r.e, 2, &c, &c);
    EXPECT_EQ(applyShadowTransparencyToFrameBuffers(0, r.e, &c, miTRUE, r.st), 0);
    setupLightContributions(0, r.e, r.st);
    handleNonDruxLights(0, r.e, &c, 0, r.st);

    EXPECT_EQ(std::memcmp(entries, r.e, sizeof entries), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(std::memcmp(slots[i], r.e[i].slots, sizeof slots[i]), 0);
    EXPECT_TRUE(mirt::messages().empty());
}

} // namespace
