// Frame-buffer data block, pass records, their queries and the frame-buffer
// state shaders, driven through whole rendering states of the runtime.
#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "fbuf_builder.h"
#include "runtime_fixture.h"
#include "runtime.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

const char *const kTag = "SDK/druxFrameBufferState";
const char *const kHeapOption = "kelu allocate temp data on heap";

miBoolean noopShader(void *, miState *, void *)
{
    return miTRUE;
}

std::vector<mirt::MemEvent> ourEvents()
{
    std::vector<mirt::MemEvent> out;
    for (const mirt::MemEvent &e : mirt::mem_events())
        if (e.file == kTag)
            out.push_back(e);
    return out;
}

void expectEvent(const mirt::MemEvent &e, int line, bool release, int64_t bytes)
{
    EXPECT_EQ(e.line, line);
    EXPECT_EQ(e.release, release);
    EXPECT_EQ(e.bytes, bytes);
}

struct Records {
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
};

Records records(miState *st)
{
    Records r;
    r.n = getFrameBufferInfo(st, &r.types, &r.entries);
    return r;
}

bool noRecordsStored(miState *st)
{
    return !mi_shaderstate_get(st, FRAME_BUFFER_INFO_KEY, nullptr) &&
           !mi_shaderstate_get(st, PASS_TYPE_INFO_KEY, nullptr) &&
           !mi_shaderstate_get(st, FRAME_BUFFER_STATE_KEY, nullptr);
}

miBoolean runOp(miState *st, int op, miBoolean shaded = miTRUE)
{
    miShader_state_arg arg{op, shaded};
    return druxFrameBufferState(nullptr, st, nullptr, &arg);
}

class FbState : public RuntimeTest {
protected:
    FbState() : RuntimeTest(4, 4) {}
    void prepare() override { ctx->options().trace_depth = 3; /* five slots per entry */ }
};

// ------------------------------------------------------------ whole states

TEST_F(FbState, WholeStateLifeCycle)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0).flag(5).host(11, 12, 13, 14, 15);
    b.add("diffuse", 1);
    b.add("specular", 6).flag(8); /* type 6 is never shadowed */
    b.add("shadow", 12);
    b.add("matte", 16);
    b.add("extra", 20).flag(9).flag(1);
    ctx->set_string_option(kHeapOption, 1);
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    mirt::mem_clear_events();

    miState *st = ctx->begin_state();
    const int n = 6, perEntry = 5;
    std::vector<mirt::MemEvent> ev = ourEvents();
    ASSERT_EQ(ev.size(), 3u);
    expectEvent(ev[0], 191, false, n * 104);
    expectEvent(ev[1], 199, false, perEntry * n * 52);
    expectEvent(ev[2], 240, true, n * 104);
    EXPECT_EQ(mirt::mem_live_bytes(kTag), perEntry * n * 52);
    EXPECT_EQ(mirt::db_total_pins(), 0);

    Records r = records(st);
    ASSERT_EQ(r.n, 6u);
    int size = 0;
    ASSERT_EQ(mi_shaderstate_get(st, FRAME_BUFFER_INFO_KEY, &size), r.entries);
    EXPECT_EQ(size, 624);
    EXPECT_EQ(r.entries[0].fbId, 0xFFFFFFFFu);
    const int types[] = {0, 1, 6, 12, 16, 20};
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(r.entries[i].flags, 0u);
        EXPECT_EQ(r.entries[i].slots, r.entries[0].slots + perEntry * i);
        EXPECT_EQ(r.types->range[types[i]].first, i);
        EXPECT_EQ(r.types->range[types[i]].count, 1);
    }
    FrameBufferState *fbs = getFrameBufferState(st);
    ASSERT_NE(fbs, nullptr);
    EXPECT_EQ(fbs->allocateTempOnHeap, 1);

    // The first sample resolves names, flags and host words once.
    fbs->sampleValue = 9;
    fbs->sampleColor = WHITE;
    r.entries[2].slots[0].result = WHITE;
    r.entries[2].slots[0].opacity = WHITE;
    r.entries[2].slots[1].result = {0.5f, 0.5f, 0.5f, 0.5f};
    const uint64_t lookups = ctx->fb_lookup_count();
    ctx->begin_sample(st, 1, 2);
    EXPECT_EQ(ctx->fb_lookup_count(), lookups + 6);
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(r.entries[i].fbId, static_cast<miUint>(s.fbIndex[i])) << i;
    const miUint flags[] = {0x10, 0x8000, 0, 0x2080, 0, 0x101};
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(r.entries[i].flags, flags[i]) << i;
    EXPECT_EQ(r.entries[0].hostData[0], 11u);
    EXPECT_EQ(r.entries[0].hostData[3], 14u);
    EXPECT_EQ(r.entries[0].hostTail, 15u);
    EXPECT_EQ(fbs->sampleValue, 0);
    expectColor(fbs->sampleColor, 0, 0, 0, 0, 0);
    expectColor(r.entries[2].slots[0].result, 0, 0, 0, 0, 0);
    expectColor(r.entries[2].slots[0].opacity, 0, 0, 0, 0, 0);
    expectColor(r.entries[2].slots[1].result, 0.5f, 0.5f, 0.5f, 0.5f, 0); /* deeper slots are the tracer's */

    // The material fills slot 0; the sample end writes it, alpha 1 except type 16.
    for (int i = 0; i < n; ++i)
        r.entries[i].slots[0].result = {0.125f * (i + 1), 0.25f, 0.5f, 0.5f};
    ctx->end_sample(st, miTRUE);
    for (int i = 0; i < n; ++i)
        expectColor(ctx->fb_pixel(s.fbIndex[i], 1, 2), 0.125f * (i + 1), 0.25f, 0.5f, i == 4 ? 0.5f : 1.0f, 0);

    // A second sample looks nothing up again; an unshaded sample writes nothing.
    ctx->begin_sample(st, 3, 3);
    EXPECT_EQ(ctx->fb_lookup_count(), lookups + 6);
    const miColor before = ctx->fb_pixel(s.fbIndex[0], 3, 3);
    r.entries[0].slots[0].result = WHITE;
    ctx->end_sample(st, miFALSE);
    expectColor(ctx->fb_pixel(s.fbIndex[0], 3, 3), before.r, before.g, before.b, before.a, 0);

    // Exit releases the slot block and removes the records; a second exit does nothing.
    mirt::mem_clear_events();
    EXPECT_TRUE(runOp(st, 1));
    ev = ourEvents();
    ASSERT_EQ(ev.size(), 1u);
    expectEvent(ev[0], 256, true, perEntry * n * 52);
    EXPECT_EQ(mirt::mem_live_bytes(kTag), 0);
    EXPECT_TRUE(noRecordsStored(st));
    EXPECT_EQ(getFrameBufferInfo(st, &r.types, &r.entries), 0u);
    ctx->end_state(st);
    EXPECT_EQ(ourEvents().size(), 1u);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_EQ(countLevel(mirt::Level::Error) + countLevel(mirt::Level::Warning), 0);
}

TEST_F(FbState, RasterizerCompositesAndKeepsAlphaOnlyForTypes16To18)
{
    fbtest::FbufBuilder b;
    const int types[] = {0, 16, 17, 18, 19};
    for (int t : types)
        b.add("fb" + std::to_string(t), t);
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    ctx->options().scanline = 'r';
    miState *st = beginState();
    ctx->begin_sample(st, 0, 0);
    st->scanline = 1;
    Records r = records(st);
    ASSERT_EQ(r.n, 5u);
    // Every channel distinct (and exact in binary), so a channel mix-up
    // anywhere in (1 - opacity) * current + result shows.
    for (int i = 0; i < 5; ++i) {
        ctx->set_fb_pixel(s.fbIndex[i], 0, 0, {0.5f, 0.25f, 0.75f, 0.5f});
        r.entries[i].slots[0].result = {0.0625f, 0.125f, 0.25f, 0.0625f};
        r.entries[i].slots[0].opacity = {0.125f, 0.25f, 0.5f, 0.75f};
    }
    ctx->end_sample(st, miTRUE);
    for (int i = 0; i < 5; ++i) {
        const bool keeps = i >= 1 && i <= 3;
        expectColor(ctx->fb_pixel(s.fbIndex[i], 0, 0), 0.5f, 0.3125f, 0.625f, keeps ? 0.1875f : 1.0f, 0);
        expectColor(r.entries[i].slots[0].result, 0.0625f, 0.125f, 0.25f, 0.0625f, 0); /* slot untouched */
    }

    // Without the state's scanline flag the plain path writes the slot, fixing its alpha in place.
    ctx->begin_sample(st, 1, 0);
    st->scanline = 0;
    const float alpha[] = {0.25f, 0.25f, 0.0f, 0.75f, -0.5f};
    for (int i = 0; i < 5; ++i)
        r.entries[i].slots[0].result = {0.3f, 0.4f, 0.6f, alpha[i]};
    ctx->end_sample(st, miTRUE);
    const float expected[] = {1.0f, 0.25f, 0.0f, 0.75f, -0.5f};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(r.entries[i].slots[0].result.a, expected[i]) << i;
        expectColor(ctx->fb_pixel(s.fbIndex[i], 1, 0), 0.3f, 0.4f, 0.6f, expected[i], 0);
    }

    // A non-eye ray writes nothing.
    ctx->begin_sample(st, 2, 0);
    r.entries[0].slots[0].result = WHITE;
    const miColor before = ctx->fb_pixel(s.fbIndex[0], 2, 0);
    st->type = miRAY_REFLECT;
    EXPECT_TRUE(runOp(st, 3));
    st->type = miRAY_EYE;
    expectColor(ctx->fb_pixel(s.fbIndex[0], 2, 0), before.r, before.g, before.b, before.a, 0);
}

TEST_F(FbState, EveryPassTypeForcesItsFlagsAndAlphaRule)
{
    // One character per pass type: S shadow pass (forced shadow pass and
    // shadowed), U never shadowed, N child rays never added, K keeps its
    // alpha, '.' keeps the record's own flags.
    const char *const rule = ".N..N.U.U." ".USSSSKKK." "......N.N." ".UNNU";
    ASSERT_EQ(std::strlen(rule), size_t(DRUX_PASS_TYPES));
    // Two records per type: one asking to be shadowed (word 8), one not.
    fbtest::FbufBuilder b;
    for (int t = 0; t < DRUX_PASS_TYPES; ++t) {
        b.add("shadowed" + std::to_string(t), t).flag(8);
        b.add("plain" + std::to_string(t), t);
    }
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    miState *st = beginState();
    ctx->begin_sample(st, 1, 1);
    Records r = records(st);
    ASSERT_EQ(r.n, 2u * DRUX_PASS_TYPES);
    for (int t = 0; t < DRUX_PASS_TYPES; ++t) {
        EXPECT_EQ(r.types->range[t].first, 2 * t) << t;
        EXPECT_EQ(r.types->range[t].count, 2) << t;
        miUint asked = FBINFO_SHADOWED, plain = 0;
        switch (rule[t]) {
        case 'S': asked = plain = FBINFO_SHADOW_PASS | FBINFO_SHADOWED; break;
        case 'U': asked = 0; break;
        case 'N': asked |= FBINFO_NO_TRACE_ADD; plain |= FBINFO_NO_TRACE_ADD; break;
        default: break;
        }
        EXPECT_EQ(r.entries[2 * t].flags, asked) << "type " << t;
        EXPECT_EQ(r.entries[2 * t + 1].flags, plain) << "type " << t;
        EXPECT_EQ(drux_pass_type(r.types, 2 * t), t);
        EXPECT_EQ(drux_pass_type(r.types, 2 * t + 1), t);
    }
    EXPECT_EQ(drux_pass_type(r.types, r.n), -1) << "past the last entry";
    EXPECT_EQ(drux_pass_type(nullptr, 0), -1);
    // The named types carry the roles above.
    EXPECT_EQ(rule[DRUX_PASS_SHADOW], 'S');
    EXPECT_EQ(rule[DRUX_PASS_COVERAGE], 'K');
    for (int t : {DRUX_PASS_DIFFUSE, DRUX_PASS_SPECULAR, DRUX_PASS_REFLECTION, DRUX_PASS_REFRACTION,
                  DRUX_PASS_INDIRECT, DRUX_PASS_SCATTER})
        EXPECT_EQ(rule[t], 'N') << t;
    for (int t : {DRUX_PASS_DATA, DRUX_PASS_BACKGROUND, DRUX_PASS_CUSTOM})
        EXPECT_EQ(rule[t], 'U') << t;
    for (miUint i = 0; i < r.n; ++i)
        r.entries[i].slots[0].result = {0.125f, 0.25f, 0.5f, 0.375f};
    ctx->end_sample(st, miTRUE);
    for (miUint i = 0; i < r.n; ++i) {
        const float alpha = rule[i / 2] == 'K' ? 0.375f : 1.0f;
        expectColor(ctx->fb_pixel(s.fbIndex[i], 1, 1), 0.125f, 0.25f, 0.5f, alpha, 0);
    }
}

TEST_F(FbState, StatesOnSeveralThreadsAtOnce)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.add("shadow", 13);
    b.add("matte", 17);
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    const int threads = 4;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int round = 0; round < 10; ++round) {
                miState *st = ctx->begin_state(t);
                for (int x = 0; x < 4; ++x) {
                    ctx->begin_sample(st, x, t);
                    Records r = records(st);
                    if (r.n != 3u)
                        break;
                    for (int i = 0; i < 3; ++i)
                        r.entries[i].slots[0].result = {float(t), float(x), float(i), 0.5f};
                    ctx->end_sample(st, miTRUE);
                }
                ctx->end_state(st);
            }
        });
    for (std::thread &th : pool)
        th.join();
    for (int t = 0; t < threads; ++t)
        for (int x = 0; x < 4; ++x)
            for (int i = 0; i < 3; ++i)
                expectColor(ctx->fb_pixel(s.fbIndex[i], x, t), float(t), float(x), float(i), i == 2 ? 0.5f : 1.0f, 0);
}

// ------------------------------------------------------------ queries

TEST_F(FbState, TypeRangesAndCountChecks)
{
    fbtest::FbufBuilder b;
    b.add("a", 0);
    b.add("b", 0);
    b.add("c", 12);
    fbtest::install(*ctx, b);
    miState *st = beginState();
    Records r = records(st);
    ASSERT_EQ(r.n, 3u);
    EXPECT_EQ(r.types->range[0].count, 2);
    EXPECT_EQ(r.types->range[0].first, 0);
    for (int t = 1; t < 35; ++t) {
        EXPECT_EQ(r.types->range[t].count, t == 12 ? 1 : 0) << t;
        EXPECT_EQ(r.types->range[t].first, t <= 12 ? 2 : 3) << t;
    }
    int size = 0;
    mi_shaderstate_get(st, FRAME_BUFFER_INFO_KEY, &size);
    EXPECT_EQ(size, 312);
    mi_shaderstate_get(st, PASS_TYPE_INFO_KEY, &size);
    EXPECT_EQ(size, 280);

    ctx->begin_sample(st, 0, 0);
    r.entries[0].flags |= FBINFO_SUSPENDED;
    EXPECT_EQ(records(st).n, 0u);
    r.entries[0].flags &= ~static_cast<miUint>(FBINFO_SUSPENDED);
    EXPECT_EQ(records(st).n, 3u);

    ctx->set_query_int(161, 0);
    EXPECT_EQ(records(st).n, 0u);
    EXPECT_EQ(getFrameBufferState(st), nullptr);
    ctx->set_query_int(161, 1);
    EXPECT_NE(getFrameBufferState(st), nullptr);
}

TEST_F(FbState, ZeroRecords)
{
    fbtest::FbufBuilder b;
    fbtest::install(*ctx, b);
    mirt::mem_clear_events();
    miState *st = ctx->begin_state();
    int size = -1;
    mi_shaderstate_get(st, FRAME_BUFFER_INFO_KEY, &size);
    EXPECT_EQ(size, 0); /* a 0-byte entry array */
    const PassTypeInfo *types = static_cast<PassTypeInfo *>(mi_shaderstate_get(st, PASS_TYPE_INFO_KEY, &size));
    ASSERT_NE(types, nullptr);
    EXPECT_EQ(size, 280);
    for (int t = 0; t < 35; ++t)
        EXPECT_TRUE(types->range[t].count == 0 && types->range[t].first == 0) << t;
    EXPECT_EQ(records(st).n, 0u);
    ctx->begin_sample(st, 0, 0);
    ctx->end_sample(st, miTRUE);
    ctx->end_state(st);
    EXPECT_TRUE(ourEvents().empty());
}

TEST_F(FbState, NamesAndNonMaterialPasses)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.addNonMaterialPass("matte");
    b.addNonMaterialPass("ghost").declared = false;
    b.addNonMaterialPass("").nullName = true;
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    miState *st = beginState();

    EXPECT_EQ(getNamedFrameBufferID(static_cast<const miState *>(st), "beauty"), miUint(s.fbIndex[0]));
    EXPECT_EQ(getNamedFrameBufferID(static_cast<const miState *>(st), "nope"), 0u);
    EXPECT_EQ(getNamedFrameBufferID(static_cast<const miState *>(st), nullptr), 0u);
    EXPECT_EQ(getNamedFrameBufferID(st, mirt::db_create_string("matte")), miUint(s.nonMaterialIndex[0]));
    EXPECT_EQ(getNamedFrameBufferID(st, miTag(0)), 0u);
    const int word = 7;
    EXPECT_EQ(getNamedFrameBufferID(st, mirt::db_create_data(&word, sizeof word)), 0u);
    EXPECT_EQ(getNamedFrameBufferID(st, miTag(0x7FFFFFF0)), 0u);

    EXPECT_NE(s.nonMaterialIndex[0], 0);
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), miUint(s.nonMaterialIndex[0]));
    for (int i : {1, 2, 3, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, i), 0u) << i;
        EXPECT_EQ(mirt::db_total_pins(), 0) << i;
    }
    EXPECT_EQ(mirt::shader_interface_outstanding(), 0);
}

TEST_F(FbState, NonMaterialLookupStopsAtTheCountBeforeAValidNeighbour)
{
    // The word just past the counted array is the tag of a declared name, so
    // reading one past the end would find a real frame buffer.
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.addNonMaterialPass("matte");
    b.addNonMaterialPass("neighbour");
    b.nonMaterialCount(1);
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    ASSERT_NE(s.nonMaterialIndex[1], 0);
    miState *st = beginState();
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), miUint(s.nonMaterialIndex[0]));
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 1), 0u);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(FbState, KeyVariablesChooseWhereRecordsLive)
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    fbtest::install(*ctx, b);
    struct KeyGuard {
        const char *saved = FRAME_BUFFER_INFO_KEY;
        ~KeyGuard() { FRAME_BUFFER_INFO_KEY = saved; }
    } guard;
    FRAME_BUFFER_INFO_KEY = "hostFBInfo";
    miState *st = ctx->begin_state();
    int size = 0;
    EXPECT_NE(mi_shaderstate_get(st, "hostFBInfo", &size), nullptr);
    EXPECT_EQ(size, 104);
    EXPECT_EQ(mi_shaderstate_get(st, "druxFBInfo", nullptr), nullptr);
    EXPECT_EQ(records(st).n, 1u);
    ctx->end_state(st); /* under the key the records were stored with */
}

// ------------------------------------------------------------ bad data

TEST_F(FbState, ToleratedOddities)
{
    // One record and one non-material pass stored in their own slots (first 0),
    // a short type-count array, a missing and an unknown name.
    fbtest::FbufBuilder b;
    b.add("a", 0);
    b.addNonMaterialPass("m");
    b.inlineSingleElements().typeCountsLength(1);
    EXPECT_EQ(b.recordsOffset(), 24u);
    fbtest::FbufSetup s = fbtest::install(*ctx, b);
    miState *st = ctx->begin_state();
    const std::string countMsg =
        "druxFrameBufferState(): FrameBufferTypeCounts array does not have the expected number of elements.";
    EXPECT_EQ(countMessages(mirt::Level::Error, countMsg), 1);
    ctx->begin_sample(st, 0, 0);
    Records r = records(st);
    ASSERT_EQ(r.n, 1u);
    EXPECT_EQ(r.entries[0].fbId, miUint(s.fbIndex[0]));
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), miUint(s.nonMaterialIndex[0]));
    ctx->end_state(st);
    ctx.reset();

    mirt::reset();
    ctx = std::make_unique<mirt::Context>(4, 4);
    fbtest::FbufBuilder c;
    c.add("a", 0);
    c.add("", 0).noName();
    c.add("unknown", 2).undeclared();
    c.typeCountsLength(37, 9); /* types beyond 35 are ignored */
    s = fbtest::install(*ctx, c);
    st = ctx->begin_state();
    EXPECT_EQ(countMessages(mirt::Level::Error, countMsg), 1);
    ctx->begin_sample(st, 0, 0);
    ctx->begin_sample(st, 1, 0);
    EXPECT_EQ(countMessages(mirt::Level::Error, "Missing frameBufferName parameter in frameBufferInfo record."), 1);
    r = records(st);
    ASSERT_EQ(r.n, 3u);
    EXPECT_EQ(r.entries[0].fbId, miUint(s.fbIndex[0]));
    EXPECT_EQ(r.entries[1].fbId, 0u);
    EXPECT_EQ(r.entries[2].fbId, 0u);
    ctx->end_sample(st, miTRUE); /* writes to index 0 are the renderer's to reject */
    ctx->end_state(st);
}

// ------------------------------------------------------------ shaders

TEST_F(FbState, InvalidOperationsAndInitChecks)
{
    fbtest::FbufBuilder b;
    b.add("a", 0);
    b.addNonMaterialPass("m");
    fbtest::install(*ctx, b);
    miState *st = beginState();
    Records r = records(st);
    ASSERT_EQ(r.n, 1u);
    std::vector<char> snapshot(reinterpret_cast<char *>(r.entries), reinterpret_cast<char *>(r.entries) + 104);
    for (int op : {5, -1}) {
        miShader_state_arg arg{op, miTRUE};
        EXPECT_FALSE(druxFrameBufferState(nullptr, st, nullptr, &arg));
        druxFrameBufferInit_params p{0, {1, 0, 0, 1}};
        EXPECT_FALSE(druxFrameBufferInit(nullptr, st, &p, &arg));
    }
    EXPECT_EQ(countMessages(mirt::Level::Warning, "kelu_state(): Invoked with invalid opcode."), 2);
    EXPECT_EQ(countMessages(mirt::Level::Warning, "druxFrameBufferInit(): Invoked with invalid opcode."), 2);
    EXPECT_EQ(std::memcmp(snapshot.data(), r.entries, 104), 0);
    EXPECT_EQ(records(st).n, 1u);

    EXPECT_EQ(druxFrameBufferState_version(), 1);
    EXPECT_EQ(druxFrameBufferInit_version(), 1);
    EXPECT_EQ(druxTraversal_version(), 1);
    miColor c = {0.5f, 0.5f, 0.5f, 0.5f};
    EXPECT_TRUE(druxTraversal(&c, st, nullptr));
    expectColor(c, 0.5f, 0.5f, 0.5f, 0.5f, 0);

    mirt::clear_messages();
    const miTag material = mirt::make_function(miSHADER_MATERIAL, noopShader, nullptr, 0, 0, false, "m");
    const miTag state = fbtest::makeStateShader();
    miFunction *saved = st->shader;
    for (miTag fn : {material, state}) {
        st->shader = mirt::function(fn);
        miBoolean req = miTRUE;
        druxFrameBufferState_init(st, nullptr, &req);
        EXPECT_FALSE(req);
        req = miTRUE;
        druxFrameBufferInit_init(st, nullptr, &req);
        EXPECT_FALSE(req);
        req = miTRUE;
        int params = 0;
        druxFrameBufferState_init(st, &params, &req); /* per instance: nothing */
        druxFrameBufferInit_init(st, &params, &req);
        EXPECT_TRUE(req);
    }
    st->shader = saved;
    const char *tail = "\nCould be a version mismatch. Re-export the .mi";
    EXPECT_EQ(countMessages(mirt::Level::Error, std::string("druxFrameBufferState(): Not invoked as state shader.") + tail), 1);
    EXPECT_EQ(countMessages(mirt::Level::Error, std::string("druxFrameBufferInit(): Not invoked as state shader.") + tail), 1);
    EXPECT_EQ(countLevel(mirt::Level::Error), 2);
}

miBoolean connectedColour(void *result, miState *, void *)
{
    *static_cast<miColor *>(result) = {0.75f, 0.5f, 0.25f, 1.0f};
    return miTRUE;
}

TEST_F(FbState, InitShaderFillsNonMaterialPasses)
{
    fbtest::FbufBuilder b;
    b.add("a", 0);
    b.addNonMaterialPass("m0");
    b.addNonMaterialPass("m1");
    fbtest::InstallOptions opts;
    opts.inits = {{0, {0.25f, 0.5f, 0.75f, 1.0f}, false}, {1, {0, 0, 0, 0}, true}, {2, {1, 1, 1, 1}, false}};
    fbtest::FbufSetup s = fbtest::install(*ctx, b, opts);
    const miTag source = mirt::make_function(miSHADER_TEXTURE, connectedColour, nullptr, 0, sizeof(miColor), false, "c");
    mirt::connect(s.initShaders[1], offsetof(druxFrameBufferInit_params, initColor), source);
    const int buffers = ctx->framebuffer_count();
    ASSERT_EQ(buffers, 3);
    for (int i = 1; i <= buffers; ++i)
        ctx->set_fb_pixel(i, 1, 1, {9, 9, 9, 9});
    miState *st = beginState();
    ctx->begin_sample(st, 1, 1);
    expectColor(ctx->fb_pixel(s.nonMaterialIndex[0], 1, 1), 0.25f, 0.5f, 0.75f, 1.0f, 0);
    expectColor(ctx->fb_pixel(s.nonMaterialIndex[1], 1, 1), 0.75f, 0.5f, 0.25f, 1.0f, 0);
    expectColor(ctx->fb_pixel(s.fbIndex[0], 1, 1), 9, 9, 9, 9, 0); /* pass 2 is beyond the array */

    // Direct calls: indices beyond the array and the operations that do nothing.
    for (int i = 1; i <= buffers; ++i)
        ctx->set_fb_pixel(i, 1, 1, {9, 9, 9, 9});
    const std::pair<int, int> calls[] = {{2, 2}, {2, -1}, {2, INT_MAX}, {0, 0}, {1, 0}, {3, 0}}; // {op, pass}
    for (const auto &c : calls) {
        miShader_state_arg arg{c.first, miTRUE};
        druxFrameBufferInit_params p{c.second, {1, 1, 1, 1}};
        EXPECT_TRUE(druxFrameBufferInit(nullptr, st, &p, &arg)) << "op " << c.first << ", pass " << c.second;
    }
    for (int i = 1; i <= buffers; ++i)
        expectColor(ctx->fb_pixel(i, 1, 1), 9, 9, 9, 9, 0);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

} // namespace
