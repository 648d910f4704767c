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
#include <cmath>
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

__attribute__((noinline)) void *countedAlloc(std::size_t size) noexcept
{
    g_newCount.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
} // namespace

/* The whole non-aligned family is replaced, so that every allocation and its
   release pair up (the aligned forms keep the library's own pair).  Out of
   line, so that the compiler does not pair an inlined malloc with a free. */
__attribute__((noinline)) void *operator new(std::size_t size)
{
    if (void *p = countedAlloc(size))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new[](std::size_t size)
{
    if (void *p = countedAlloc(size))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return countedAlloc(size);
}
__attribute__((noinline)) void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return countedAlloc(size);
}
__attribute__((noinline)) void operator delete(void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }

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

TEST_F(LightLoop, ShadowTracingWithoutOccludersAndWithoutEntries)
{
    fbtest::FbufBuilder b;
    b.add("lit", 0).flag(8);
    b.add("dark", 0).flag(8);
    Rig r(b); // no scene: every shadow ray gets through
    r.e[0].flags |= FBINFO_LIGHT_CONTRIBUTES;
    r.e[1].flags &= ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
    r.e[1].shadow = miColor{0.3f, 0.3f, 0.3f, 0.3f};
    miColor filter{7, 7, 7, 7};
    traceShadowAccumulateBegin(r.n, r.e);
    for (int k = 0; k < 2; ++k) {
        r.e[0].shadow = miColor{0.2f, 0.2f, 0.2f, 0.2f}; // reset to white by each sample
        EXPECT_TRUE(traceShadowAccumulate(r.n, r.e, &filter, r.st));
        expectColor(filter, 1, 1, 1, 1);
    }
    expectColor(r.e[0].shadowSum, 2, 2, 2, 2);
    expectColor(r.e[1].shadowSum, 0, 0, 0, 0); // only contributing passes sum
    expectColor(r.e[1].shadow, 0.3f, 0.3f, 0.3f, 0.3f);

    // Without entries the ray is still traced, with the filter preset to white.
    filter = miColor{7, 7, 7, 7};
    EXPECT_TRUE(traceShadowAccumulate(0, r.e, &filter, r.st));
    expectColor(filter, 1, 1, 1, 1);
    filter = miColor{7, 7, 7, 7};
    const miColor light{1, 1, 1, 1}, dark{0, 0, 0, 0};
    EXPECT_TRUE(traceShadow(0, r.e, &filter, &light, &dark, miFALSE, r.st));
    expectColor(filter, 1, 1, 1, 1);
    expectColor(r.e[1].shadow, 0.3f, 0.3f, 0.3f, 0.3f);

    // Per pass with nothing in the way: the full light, shadow black.
    EXPECT_TRUE(traceShadow(r.n, r.e, &filter, &light, &dark, miFALSE, r.st));
    expectColor(r.e[0].light, 1, 1, 1, 1);
    expectColor(r.e[1].light, 0, 0, 0, 1);
    expectColor(r.e[1].shadow, 0, 0, 0, 0);
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

/* ================================================================ a whole light loop
 *
 * The scene: a receiver plane at z = 0 whose material runs the light loop, a
 * semi-transparent occluder plane at z = 1 (1 x 1, centred on the z axis) with
 * its own contribution mask, and lights above it.  The eye ray comes in
 * underneath the occluder and hits the receiver at P = (0.3, 0.2, 0).
 *
 * Passes (entry: pass type, record flags):
 *   0 "beauty"    type 0,  shadowed
 *   1 "masked"    type 0,  shadowed            (the occluder's mask leaves it out)
 *   2 "allocc"    type 0,  shadowed, every occluder counts
 *   3 "lbonly"    type 0,  shadowed            (only the second light lights it)
 *   4 "noshadow"  type 6,  shadowed asked for, but type 6 is never shadowed
 *   5 "shadow"    type 12, shadow pass
 * Masks: light A "73" -> entries 0,1,2,4,5; light B "A1" -> entries 1,3,4;
 * occluder "12" -> entries 0,5.
 */

struct LightParams {
    miColor color;
    miColor shadowColor;
    int kind;          /* see LightKind */
    int shadowSamples; /* for the accumulating kind */
};

/* kIrradianceTraced: the light puts its unshadowed colour into the passes,
   then traces the shadow ray and lets the occluders filter the light itself. */
enum LightKind { kPerPass = 0, kShared = 1, kAccumulate = 2, kNoShadows = 3, kUnaware = 4, kIrradianceTraced = 5 };

struct OccluderParams {
    miColor transparency;
    int applyToLight;
    int giveUp; /* return miFALSE (light blocked) whatever the filter says */
};

/* What the shaders saw, per thread (the concurrency test runs two renders). */
struct Seen {
    int lightCalls = 0;
    int occluderCalls = 0;
    int pendingAfterSample[2][8] = {};   /* per light index and sample: 0x800 after the sample */
    int samples[2] = {};
    miTag occluderInstance = 0;          /* state->instance inside the shadow shader */
    int occluderResult = -1;
    miBoolean traceResult = miTRUE;
    std::vector<miColor> slotResult;     /* slot 0 results when the material finished */
    uint64_t newsInLoop = 0;             /* operator new calls during the light loops */
    uint64_t rendererAllocsInLoop = 0;
};
thread_local Seen t_seen;

miBoolean passLight(void *result, miState *state, void *params)
{
    const LightParams *p = static_cast<const LightParams *>(params);
    ++t_seen.lightCalls;
    miColor *out = static_cast<miColor *>(result);
    if (p->kind == kUnaware) {
        /* A light that knows nothing of passes: it shadows its own colour. */
        *out = p->color;
        mi_trace_shadow(out, state);
        return miTRUE;
    }
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &e);
    setupLightContributions(n, e, state);
    miColor filter = WHITE;
    switch (p->kind) {
    case kPerPass:
    case kShared:
        t_seen.traceResult = traceShadow(n, e, &filter, &p->color, &p->shadowColor, p->kind == kShared, state);
        break;
    case kAccumulate:
        traceShadowAccumulateBegin(n, e);
        for (int k = 0; k < p->shadowSamples; ++k)
            t_seen.traceResult = traceShadowAccumulate(n, e, &filter, state);
        traceShadowAccumulateEnd(n, e, static_cast<miUint>(p->shadowSamples), &p->color, &p->shadowColor);
        break;
    case kIrradianceTraced:
        setLightIrradiance(n, e, &p->color);
        t_seen.traceResult = mi_trace_shadow(&filter, state);
        break;
    default:
        setLightIrradiance(n, e, &p->color);
        break;
    }
    *out = miColor{p->color.r * filter.r, p->color.g * filter.g, p->color.b * filter.b, 1};
    return miTRUE;
}

miBoolean occluderShadow(void *result, miState *state, void *params)
{
    const OccluderParams *p = static_cast<const OccluderParams *>(params);
    ++t_seen.occluderCalls;
    t_seen.occluderInstance = state->instance;
    miColor *filter = static_cast<miColor *>(result);
    filter->r *= p->transparency.r;
    filter->g *= p->transparency.g;
    filter->b *= p->transparency.b;
    filter->a *= p->transparency.a;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &e);
    t_seen.occluderResult =
        applyShadowTransparencyToFrameBuffers(n, e, &p->transparency, p->applyToLight, state);
    if (p->giveUp)
        return miFALSE;
    return filter->r > 0 || filter->g > 0 || filter->b > 0 ? miTRUE : miFALSE;
}

/* The receiver's material: one light loop per light, each light's samples
   averaged into slot 0 with mode 1, then slot 0's result = its accumulation. */
miBoolean loopMaterial(void *result, miState *state, void *)
{
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &e);
    const int d = state->reflection_level + state->refraction_level;
    for (miUint i = 0; i < n; ++i)
        e[i].slots[d].accum = BLACK;

    int count = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&count, &lights, state);
    const uint64_t news = g_newCount.load();
    const uint64_t renderer = mirt::mem_allocation_count();
    for (int k = 0; k < count; ++k) {
        sampleLightBegin(n, e);
        int samples = 0;
        miColor col;
        miVector dir;
        miScalar dot_nl;
        while (mi_sample_light(&col, &dir, &dot_nl, state, lights[k], &samples)) {
            handleNonDruxLights(n, e, &col, lights[k], state);
            if (k < 2 && samples >= 1 && samples <= 8)
                t_seen.pendingAfterSample[k][samples - 1] = (e[0].flags & FBINFO_LIGHT_SETUP_PENDING) != 0;
            for (miUint i = 0; i < n; ++i) {
                e[i].lightSum.r += e[i].light.r;
                e[i].lightSum.g += e[i].light.g;
                e[i].lightSum.b += e[i].light.b;
                e[i].lightSum.a += e[i].light.a;
            }
        }
        if (k < 2)
            t_seen.samples[k] = samples;
        const int mode = 1;
        const miBoolean useScale = miFALSE;
        const float scale = 1;
        sampleLightEnd(state, n, e, samples, &mode, &useScale, &scale);
    }
    t_seen.newsInLoop += g_newCount.load() - news;
    t_seen.rendererAllocsInLoop += mirt::mem_allocation_count() - renderer;

    t_seen.slotResult.clear();
    for (miUint i = 0; i < n; ++i) {
        e[i].slots[d].result = e[i].slots[d].accum;
        e[i].slots[d].opacity = WHITE;
        t_seen.slotResult.push_back(e[i].slots[d].result);
    }
    *static_cast<miColor *>(result) = n ? e[0].slots[d].result : BLACK;
    return miTRUE;
}

struct Stage {
    mirt::Context ctx;
    fbtest::FbufSetup setup;
    mirt::MeshScene scene;
    mirt::GeometryTags receiver, occluder;
    Mask maskA, maskB, maskOcc;
    miTag lightA = 0, lightB = 0;
    miTag occluderShader = 0;

    /* Light A: colour (0.8, 0.6, 0.4), shadow colour (0.1, 0.1, 0.1), kind as
       given, straight above P.  Light B, if wanted: the unaware light,
       colour (0.4, 0.6, 0.2), above (0.6, 0.2, 3); its ray to P crosses the
       occluder at (0.4, 0.2, 1).  Occluder transparency (0.5, 0.25, 0.75, 0.5);
       no occluder shader: an opaque occluder. */
    Stage(int kindA, bool withB, bool occluderShadowShader = true, int applyToLight = 0, int shadowSamples = 4,
          int occluderGivesUp = 0)
    {
        fbtest::FbufBuilder b;
        b.add("beauty", 0).flag(8);
        b.add("masked", 0).flag(8);
        b.add("allocc", 0).flag(8).flag(9);
        b.add("lbonly", 0).flag(8);
        b.add("noshadow", 6).flag(8);
        b.add("shadow", 12);
        setup = fbtest::install(ctx, b);
        ctx.options().trace = miTRUE;

        maskA = makeMask("73");
        maskB = makeMask("A1");
        maskOcc = makeMask("12");

        mirt::InstanceDesc rd;
        rd.material = mirt::make_function(miSHADER_MATERIAL, loopMaterial, nullptr, 0, sizeof(miColor), false,
                                          "loopMaterial");
        receiver = mirt::build_instance(mirt::make_plane(10, 10, 1, 1), rd);
        scene.add(receiver);

        mirt::InstanceDesc od;
        od.local_to_global[14] = 1.0f; /* z = 1 */
        od.param = maskOcc.data;
        if (occluderShadowShader) {
            OccluderParams op{{0.5f, 0.25f, 0.75f, 0.5f}, applyToLight, occluderGivesUp};
            occluderShader = mirt::make_function(miSHADER_SHADOW, occluderShadow, &op, sizeof op, sizeof(miColor),
                                                 false, "occluderShadow");
            od.shadow = occluderShader;
        }
        occluder = mirt::build_instance(mirt::make_plane(1, 1, 1, 1), od);
        scene.add(occluder);
        ctx.set_scene(&scene);

        LightParams la{{0.8f, 0.6f, 0.4f, 1}, {0.1f, 0.1f, 0.1f, 1}, kindA, shadowSamples};
        miTag fa = mirt::make_function(miSHADER_LIGHT, passLight, &la, sizeof la, sizeof(miColor), false, "lightA");
        lightA = ctx.add_point_light(miVector{0.3f, 0.2f, 3}, fa, maskA.data);
        if (withB) {
            LightParams lb{{0.4f, 0.6f, 0.2f, 1}, {0, 0, 0, 1}, kUnaware, 1};
            miTag fb = mirt::make_function(miSHADER_LIGHT, passLight, &lb, sizeof lb, sizeof(miColor), false, "lightB");
            lightB = ctx.add_point_light(miVector{0.6f, 0.2f, 3}, fb, maskB.data);
        }
    }

    /* One eye sample of pixel (x, 0): the results in the frame buffers. */
    std::vector<miColor> shade(miState *st, int x = 0)
    {
        ctx.begin_sample(st, x, 0);
        const miVector org{3, 0.2f, 0.5f};
        miVector dir{0.3f - 3, 0, -0.5f};
        const float len = std::sqrt(dir.x * dir.x + dir.z * dir.z);
        dir.x /= len;
        dir.z /= len;
        miColor res;
        const miBoolean ok = ctx.shade_eye(st, org, dir, &res);
        ctx.end_sample(st, ok);
        std::vector<miColor> out;
        for (int idx : setup.fbIndex)
            out.push_back(ctx.fb_pixel(idx, x, 0));
        return out;
    }
};

/* Light A per pass, by hand.  Shadowed light S(t) = (1 - t) * s + t * l with
   l = (0.8, 0.6, 0.4), s = (0.1, 0.1, 0.1); the occluder's t = (0.5, 0.25, 0.75):
   S = (0.05 + 0.4, 0.075 + 0.15, 0.025 + 0.3) = (0.45, 0.225, 0.325);
   l - S = (0.35, 0.375, 0.075).
   Light B: its colour filtered by the occluder, (0.2, 0.15, 0.15, 0.5), on
   entries 1, 3, 4.  Every light adds alpha 1 to the entries it leaves dark
   or lights through the pass protocol, B's colour its own alpha 0.5, and
   B gives BLACK (alpha 0) to the entries outside its mask. */
TEST_F(LightLoop, WholeLoopWithAPassAwareAndAnUnawareLight)
{
    Stage s(kPerPass, true);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    const std::vector<miColor> fb = s.shade(st);
    const Seen seen = t_seen;

    EXPECT_EQ(seen.samples[0], 1);
    EXPECT_EQ(seen.samples[1], 1);
    EXPECT_EQ(seen.pendingAfterSample[0][0], 0); // light A did its own set-up
    EXPECT_EQ(seen.pendingAfterSample[1][0], 1); // B's set-up was done for it
    EXPECT_EQ(seen.occluderCalls, 2);            // one crossing per light
    EXPECT_EQ(seen.occluderInstance, s.occluder.instance);

    ASSERT_EQ(seen.slotResult.size(), 6u);
    const std::vector<miColor> &r = seen.slotResult;
    expectColor(r[0], 0.45f, 0.225f, 0.325f, 1, "beauty: shadowed by A only");
    expectColor(r[1], 1.0f, 0.75f, 0.55f, 1.5f, "masked: A unshadowed + B");
    expectColor(r[2], 0.45f, 0.225f, 0.325f, 1, "allocc: shadowed despite the mask");
    expectColor(r[3], 0.2f, 0.15f, 0.15f, 1.5f, "lbonly: A dark (alpha 1) + B");
    expectColor(r[4], 1.0f, 0.75f, 0.55f, 1.5f, "noshadow: A unshadowed + B");
    expectColor(r[5], 0.35f, 0.375f, 0.075f, 1, "shadow: the light A lost");

    // What the entries' shadows hold at the end.  After light A: the shadow
    // pass has its shadowed light S, unshadowed and dark passes black, the
    // masked pass its untouched transmission 1.  Light B's shadow ray then
    // crossed the occluder again with A's contribution bits still in place,
    // which filtered entries 0, 2, 5 once more: 5 holds S * tr =
    // (0.225, 0.05625, 0.24375, 0.5), 0 and 2 hold tr * tr.
    {
        PassTypeInfo *types = nullptr;
        FrameBufferInfo *e = nullptr;
        ASSERT_EQ(getFrameBufferInfo(st, &types, &e), 6u);
        expectColor(e[5].shadow, 0.225f, 0.05625f, 0.24375f, 0.5f, "shadow pass");
        expectColor(e[0].shadow, 0.25f, 0.0625f, 0.5625f, 0.25f, "beauty");
        expectColor(e[1].shadow, 1, 1, 1, 1, "masked");
        expectColor(e[3].shadow, 0, 0, 0, 0, "not lit by A");
        expectColor(e[4].shadow, 0, 0, 0, 0, "never shadowed");
    }

    // The sample end writes them, alpha forced to 1 for these pass types.
    ASSERT_EQ(fb.size(), 6u);
    for (size_t i = 0; i < 6; ++i)
        expectColor(fb[i], r[i].r, r[i].g, r[i].b, 1, "frame buffer");

    // Masks: A's text once (its set-up), B's once (set-up on its behalf), the
    // occluder's once per crossing; nothing left pinned.
    EXPECT_EQ(mirt::db_access_count(s.maskA.text), 1u);
    EXPECT_EQ(mirt::db_access_count(s.maskB.text), 1u);
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), 2u);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_TRUE(mirt::messages().empty());

    // A second sample of the same state gives the same, and the masks are
    // looked up again (once more each).
    t_seen = Seen();
    const std::vector<miColor> again = s.shade(st, 1);
    for (size_t i = 0; i < 6; ++i)
        EXPECT_TRUE(sameColor(again[i], fb[i])) << i;
    EXPECT_EQ(mirt::db_access_count(s.maskA.text), 2u);
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), 4u);
    s.ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(LightLoop, SharedShadowGivesEveryShadowedPassTheSameLight)
{
    Stage s(kShared, false);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    s.shade(st);
    const Seen seen = t_seen;
    EXPECT_TRUE(seen.traceResult);
    ASSERT_EQ(seen.slotResult.size(), 6u);
    const std::vector<miColor> &r = seen.slotResult;
    // The filter the occluder left, (0.5, 0.25, 0.75), serves every pass: the
    // masked pass is shadowed too.
    expectColor(r[0], 0.45f, 0.225f, 0.325f, 1);
    expectColor(r[1], 0.45f, 0.225f, 0.325f, 1);
    expectColor(r[2], 0.45f, 0.225f, 0.325f, 1);
    expectColor(r[3], 0, 0, 0, 1);
    expectColor(r[4], 0.8f, 0.6f, 0.4f, 1);
    expectColor(r[5], 0.35f, 0.375f, 0.075f, 1);
    // Shared mode leaves the shadows as the occluder left them, except in the
    // shadow pass, which records the shared shadowed light.
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, &types, &e), 6u);
    expectColor(e[5].shadow, 0.45f, 0.225f, 0.325f, 1);
    expectColor(e[0].shadow, 0.5f, 0.25f, 0.75f, 0.5f);
    expectColor(e[1].shadow, 1, 1, 1, 1);
    s.ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(LightLoop, SharedShadowOfABlockedLightIsTheShadowColourWhateverTheFilter)
{
    // The occluder filters to (0.5, 0.25, 0.75) but reports the light blocked.
    Stage s(kShared, false, true, 0, 4, /*occluderGivesUp=*/1);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    s.shade(st);
    const Seen seen = t_seen;
    s.ctx.end_state(st);
    EXPECT_FALSE(seen.traceResult);
    EXPECT_EQ(seen.occluderCalls, 1);
    const std::vector<miColor> &r = seen.slotResult;
    ASSERT_EQ(r.size(), 6u);
    expectColor(r[0], 0.1f, 0.1f, 0.1f, 1);
    expectColor(r[1], 0.1f, 0.1f, 0.1f, 1);
    expectColor(r[5], 0.7f, 0.5f, 0.3f, 1);
}

TEST_F(LightLoop, SharedShadowBehindAnOpaqueOccluderIsTheShadowColour)
{
    Stage s(kShared, false, /*occluderShadowShader=*/false);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    s.shade(st);
    const Seen seen = t_seen;
    s.ctx.end_state(st);
    EXPECT_FALSE(seen.traceResult);
    EXPECT_EQ(seen.occluderCalls, 0);
    const std::vector<miColor> &r = seen.slotResult;
    ASSERT_EQ(r.size(), 6u);
    expectColor(r[0], 0.1f, 0.1f, 0.1f, 1);  // shadowColor
    expectColor(r[1], 0.1f, 0.1f, 0.1f, 1);
    expectColor(r[2], 0.1f, 0.1f, 0.1f, 1);
    expectColor(r[4], 0.8f, 0.6f, 0.4f, 1);  // never shadowed
    expectColor(r[5], 0.7f, 0.5f, 0.3f, 1);  // lightColor - shadowColor
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(LightLoop, AccumulatedShadowSamplesAverageThePerPassTransmission)
{
    Stage s(kAccumulate, false, true, 0, 4);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    s.shade(st);
    const Seen seen = t_seen;
    EXPECT_EQ(seen.occluderCalls, 4); // every shadow sample crosses the occluder
    const std::vector<miColor> &r = seen.slotResult;
    ASSERT_EQ(r.size(), 6u);
    // Four equal samples average to the single transmission: per-pass results.
    expectColor(r[0], 0.45f, 0.225f, 0.325f, 1);
    expectColor(r[1], 0.8f, 0.6f, 0.4f, 1);
    expectColor(r[2], 0.45f, 0.225f, 0.325f, 1);
    expectColor(r[3], 0, 0, 0, 1);
    expectColor(r[4], 0.8f, 0.6f, 0.4f, 1);
    expectColor(r[5], 0.35f, 0.375f, 0.075f, 1);
    // The shadow pass keeps the averaged transmission (0.5, 0.25, 0.75, 0.5).
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, &types, &e), 6u);
    expectColor(e[5].shadow, 0.5f, 0.25f, 0.75f, 0.5f);
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), 4u);
    s.ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(LightLoop, OccluderFilteringTheLightFeedsTheShadowPass)
{
    // Light A puts its unshadowed colour into the passes (shadow passes dark,
    // every shadow white), then traces; the occluder filters the light itself.
    // Handled: entries 0, 1, 2, 5; the occluder's mask spares entry 1.
    //   0, 2: light (0.8, 0.6, 0.4, 1) * tr = (0.4, 0.15, 0.3, 0.5)
    //   5:    shadow 1 -> tr, light (0, 0, 0, 1) + (1 - tr) = (0.5, 0.75, 0.25, 1.5)
    Stage s(kIrradianceTraced, false, true, /*applyToLight=*/1);
    miState *st = s.ctx.begin_state();
    t_seen = Seen();
    s.shade(st);
    const Seen seen = t_seen;
    EXPECT_EQ(seen.occluderCalls, 1);
    EXPECT_EQ(seen.occluderResult, 1);
    const std::vector<miColor> &r = seen.slotResult;
    ASSERT_EQ(r.size(), 6u);
    expectColor(r[0], 0.4f, 0.15f, 0.3f, 0.5f);
    expectColor(r[1], 0.8f, 0.6f, 0.4f, 1);
    expectColor(r[2], 0.4f, 0.15f, 0.3f, 0.5f);
    expectColor(r[3], 0, 0, 0, 1);
    expectColor(r[4], 0.8f, 0.6f, 0.4f, 1);
    expectColor(r[5], 0.5f, 0.75f, 0.25f, 1.5f);
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, &types, &e), 6u);
    expectColor(e[5].shadow, 0.5f, 0.25f, 0.75f, 0.5f);
    expectColor(e[1].shadow, 1, 1, 1, 1);
    s.ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(LightLoop, NoRendererOrHeapAllocationDuringTheLightLoops)
{
    Stage s(kPerPass, true);
    miState *st = s.ctx.begin_state();
    s.shade(st, 0); // warm the renderer's per-state child frames
    t_seen = Seen();
    for (int x = 1; x < 5; ++x)
        s.shade(st, x);
    EXPECT_EQ(t_seen.newsInLoop, 0u);
    EXPECT_EQ(t_seen.rendererAllocsInLoop, 0u);
    s.ctx.end_state(st);
}

TEST_F(LightLoop, ConcurrentStatesKeepTheirOwnPasses)
{
    Stage s(kPerPass, true);
    constexpr int kThreads = 2, kSamples = 40;
    std::vector<std::vector<miColor>> firstResult(kThreads);
    std::atomic<int> mismatches{0};
    auto worker = [&](int t) {
        miState *st = s.ctx.begin_state(t);
        for (int k = 0; k < kSamples; ++k) {
            const std::vector<miColor> fb = s.shade(st, t * 4 + (k % 4));
            if (k == 0)
                firstResult[t] = fb;
            else
                for (size_t i = 0; i < fb.size(); ++i)
                    mismatches += !sameColor(fb[i], firstResult[t][i]);
        }
        s.ctx.end_state(st);
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(mismatches.load(), 0);
    ASSERT_EQ(firstResult[0].size(), 6u);
    for (size_t i = 0; i < 6; ++i)
        EXPECT_TRUE(sameColor(firstResult[0][i], firstResult[1][i])) << i;
    expectColor(firstResult[0][1], 1.0f, 0.75f, 0.55f, 1);
    expectColor(firstResult[0][5], 0.35f, 0.375f, 0.075f, 1);
    // Each thread's samples looked every mask up; all were released.
    EXPECT_EQ(mirt::db_access_count(s.maskA.text), uint64_t(kThreads * kSamples));
    EXPECT_EQ(mirt::db_access_count(s.maskOcc.text), uint64_t(2 * kThreads * kSamples));
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

} // namespace
