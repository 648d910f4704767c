// Scene data written by another program, damaged: frame-buffer blocks that
// send the reader past their end, user-data chains that loop or hold blocks
// too short for a magic, ramp arrays reaching outside their shader's
// parameter block, mask and settings records shorter than what is read.
// Each is refused (or read only within its size) with the documented
// outcome, and whatever the renderer does with a state afterwards, every
// memory tag returns to zero and no item stays pinned.
#include "DruxShaderSDK.h"
#include "fbuf_builder.h"
#include "runtime_fixture.h"
#include "runtime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

const char *const kFbFile = "SDK/druxFrameBufferState";

class BadBlocks : public RuntimeTest {
protected:
    BadBlocks() : RuntimeTest(4, 4) {}
};

// ------------------------------------------------------------ frame-buffer blocks

fbtest::FbufBuilder threeRecords()
{
    fbtest::FbufBuilder b;
    b.add("beauty", 0);
    b.add("diffuse", 0).flag(5);
    b.add("shadow", 12).flag(8);
    b.addNonMaterialPass("matte");
    return b;
}

struct Case {
    const char *name;
    std::function<void(fbtest::FbufBuilder &)> fault;
    const char *reason; // refusal reason; null: the block is used; "": no block is found
};

// Blocks whose readers would leave the block, and blocks that are merely
// inconsistent.  The three-record block is laid out as: fixed part 0..95,
// 35 type counts 96..235, one non-material tag 236..239, records 264..443.
std::vector<Case> catalogue()
{
    return {
        {"good", [](fbtest::FbufBuilder &) {}, nullptr},
        {"other byte order", [](fbtest::FbufBuilder &b) { b.byteSwapped(); }, "other byte order"},
        // Only the magic reversed: the block reads as the other byte order.
        {"other byte order magic", [](fbtest::FbufBuilder &b) { b.byteSwappedMagic(); }, "other byte order"},
        {"cut inside the fixed part", [](fbtest::FbufBuilder &b) { b.truncate(92); }, "shorter than its fixed part"},
        {"size word 40", [](fbtest::FbufBuilder &b) { b.parameterSizeOverride(40); }, "shorter than its fixed part"},
        // A header too short for even the magic word: no block is there at all.
        {"size word 2", [](fbtest::FbufBuilder &b) { b.parameterSizeOverride(2); }, ""},
        {"cut inside the records", [](fbtest::FbufBuilder &b) { b.truncate(400); }, "frameBufferInfo array lies outside"},
        {"size word short of the records", [](fbtest::FbufBuilder &b) { b.parameterSizeOverride(300); },
         "frameBufferInfo array lies outside"},
        {"records first index past the end", [](fbtest::FbufBuilder &b) { b.frameBufferInfoFirst(5); },
         "frameBufferInfo array lies outside"},
        {"records first index before the block", [](fbtest::FbufBuilder &b) { b.frameBufferInfoFirst(-1); },
         "frameBufferInfo array lies outside"},
        {"records count huge", [](fbtest::FbufBuilder &b) { b.frameBufferInfoCount(INT_MAX); },
         "frameBufferInfo array lies outside"},
        {"records count one beyond", [](fbtest::FbufBuilder &b) { b.frameBufferInfoCount(4); },
         "frameBufferInfo array lies outside"},
        {"last record cut", [](fbtest::FbufBuilder &b) { b.truncate(b.recordsOffset() + 60 * 2 + 30); },
         "frameBufferInfo array lies outside"},
        {"records count negative", [](fbtest::FbufBuilder &b) { b.frameBufferInfoCount(-1); },
         "frameBufferInfo array has a negative count"},
        {"non-material first index far out", [](fbtest::FbufBuilder &b) { b.nonMaterialFirst(1 << 30); },
         "nonMaterialPasses array lies outside"},
        {"non-material count too large", [](fbtest::FbufBuilder &b) { b.nonMaterialCount(60); },
         "nonMaterialPasses array lies outside"},
        {"non-material count negative", [](fbtest::FbufBuilder &b) { b.nonMaterialCount(-3); },
         "nonMaterialPasses array has a negative count"},
        {"type counts before the block", [](fbtest::FbufBuilder &b) { b.typeCountsFirst(-24); },
         "FrameBufferTypeCounts array lies outside"},
        {"type counts past the end", [](fbtest::FbufBuilder &b) { b.typeCountsFirst(80); },
         "FrameBufferTypeCounts array lies outside"},
        {"type counts overflow", [](fbtest::FbufBuilder &b) { b.typeCount(1, INT_MAX).typeCount(2, INT_MAX); },
         "add up to more than a 32-bit count"},
        {"type counts overflow below", [](fbtest::FbufBuilder &b) { b.typeCount(0, INT_MIN).typeCount(1, -1); },
         "add up to more than a 32-bit count"},
        // Used: a negative count that the others make up for still adds up.
        {"negative type count", [](fbtest::FbufBuilder &b) { b.typeCount(5, -1).typeCount(7, 1); }, nullptr},
        // Used, though nothing is usable: the counts do not add up to the records.
        {"counts do not add up", [](fbtest::FbufBuilder &b) { b.typeCount(0, 3); }, nullptr},
        // Used: 13 type counts cover types 0 to 12, the rest count 0.
        {"short type counts", [](fbtest::FbufBuilder &b) { b.typeCountsLength(13); }, nullptr},
        // Used: 40 type counts, the 5 beyond the 35 types are not read.
        {"long type counts", [](fbtest::FbufBuilder &b) { b.typeCountsLength(40, 7); }, nullptr},
    };
}

TEST_F(BadBlocks, SetUpRefusesExactlyTheBlocksThatLeadOutside)
{
    fbtest::FbufSetup s = fbtest::install(*ctx, threeRecords(), {false, true, {{0, {1, 1, 1, 1}, false}}});
    for (const Case &c : catalogue()) {
        SCOPED_TRACE(c.name);
        fbtest::FbufBuilder b = threeRecords();
        c.fault(b);
        const miTag block = b.build();
        ctx->camera().userdata = block;
        mirt::clear_messages();
        miState *st = ctx->begin_state();
        int size = -1;
        const bool published = mi_shaderstate_get(st, FRAME_BUFFER_STATE_KEY, &size) != nullptr;
        EXPECT_EQ(published, c.reason == nullptr);
        EXPECT_EQ(mirt::db_total_pins(), 0);
        if (c.reason && !*c.reason) {
            EXPECT_EQ(countContaining(mirt::Level::Error, ""), 0) << "nothing to report";
            EXPECT_EQ(getFrameBufferDataBlock(st).tag, 0u);
        } else if (c.reason) {
            // One message per set-up, naming the block and the reason.
            EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 1);
            EXPECT_EQ(countContaining(mirt::Level::Error, c.reason), 1);
            EXPECT_EQ(countContaining(mirt::Level::Error, "tag " + std::to_string(block) + ")"), 1);
            EXPECT_EQ(mirt::mem_live_bytes(kFbFile), 0) << "a refused block allocates nothing";
            EXPECT_FALSE(ctx->run_state_op(st, miSHADERSTATE_STATE_INIT)) << "set-up fails on it";
            FrameBufferDataRef ref = getFrameBufferDataBlock(st);
            EXPECT_EQ(ref.block, nullptr);
            EXPECT_EQ(ref.tag, 0u);
            EXPECT_EQ(ref.swapped, std::string(c.name).compare(0, 16, "other byte order") == 0 ? miTRUE : miFALSE);
            // Samples on the refused block stay quiet, the init shader's included.
            mirt::clear_messages();
            ctx->begin_sample(st, 0, 0);
            ctx->end_sample(st, miTRUE);
            EXPECT_EQ(countLevel(mirt::Level::Error) + countLevel(mirt::Level::Warning), 0);
        } else {
            EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 0);
            // The slot block stays: 3 entries of 6 slots (trace depth 4 + 2) of 52 bytes.
            EXPECT_EQ(mirt::mem_live_bytes(kFbFile), 3 * 6 * 52);
            const miUint expect = std::string(c.name) == "counts do not add up" ? 0u : 3u;
            EXPECT_EQ(getFrameBufferInfo(st, nullptr, nullptr), expect);
            // A sample resolves the names of the usable entries only, and the
            // init shader that of its non-material pass.
            const uint64_t lookups = ctx->fb_lookup_count();
            ctx->begin_sample(st, 0, 0);
            ctx->end_sample(st, miTRUE);
            EXPECT_EQ(ctx->fb_lookup_count() - lookups, expect + 1);
        }
        EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), c.reason ? 0u : static_cast<miUint>(ctx->add_framebuffer("matte")));
        ctx->end_state(st);
        EXPECT_EQ(RuntimeTest::leftovers(), "");
    }
    (void)s;
}

// A host shader asking for a damaged or byte-swapped block on every sample
// gets one message per state (the set-up's), not one per call; another
// state, or another damaged block under the same state, is reported anew.
TEST_F(BadBlocks, ADamagedBlockIsReportedOncePerState)
{
    for (const char *fault : {"swapped", "cut"}) {
        SCOPED_TRACE(fault);
        fbtest::FbufBuilder b = threeRecords();
        if (std::string(fault) == "swapped")
            b.byteSwapped();
        else
            b.truncate(400);
        fbtest::install(*ctx, b);
        mirt::clear_messages();
        miState *st = ctx->begin_state();
        for (int sample = 0; sample < 20; ++sample) {
            ctx->begin_sample(st, sample % 4, sample / 4);
            EXPECT_EQ(getFrameBufferDataBlock(st).tag, 0u);
            EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), 0u);
        }
        EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 1);
        // What the state remembers is kept outside its store: a refused
        // block publishes nothing there.
        for (const char *key : {"druxPassState", "druxFBInfo", "druxFBState", "druxFBRefused"})
            EXPECT_EQ(mi_shaderstate_get(st, key, nullptr), nullptr) << key;
        miState *other = ctx->begin_state();
        getFrameBufferDataBlock(other);
        EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 2) << "a second state reports it too";
        ctx->end_state(other);
        fbtest::FbufBuilder cut = threeRecords();
        cut.parameterSizeOverride(300);
        ctx->camera().userdata = cut.build();
        getNonMaterialPassFrameBufferIndex(st, 0);
        getNonMaterialPassFrameBufferIndex(st, 0);
        EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 3) << "another block under the same state";
        ctx->end_state(st);
    }
}

// Negative type counts that still add up to the record count: the block is
// published, the negative types touch nothing, and the later types sit where
// the running sum puts them.
TEST_F(BadBlocks, NegativeTypeCountsThatAddUpArePublished)
{
    fbtest::FbufBuilder b = threeRecords();
    b.typeCount(13, -2).typeCount(20, 2).typeCount(4, -1).typeCount(6, 1); // 2 + 1 - 2 + 2 - 1 + 1 = 3
    fbtest::install(*ctx, b);
    mirt::clear_messages();
    miState *st = beginState();
    EXPECT_EQ(countContaining(mirt::Level::Error, ""), 0);
    ctx->begin_sample(st, 0, 0);
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, &types, &e), 3u);
    EXPECT_EQ(types->range[4].count, -1);
    EXPECT_EQ(types->range[4].first, 2);
    EXPECT_EQ(types->range[6].first, 1);
    EXPECT_EQ(types->range[12].first, 2);
    EXPECT_EQ(types->range[13].first, 3);
    EXPECT_EQ(types->range[14].first, 1) << "shadow types 14 and 15 start after the negative 13";
    EXPECT_EQ(types->range[34].first + types->range[34].count, 3);
    // Type 12 (entry 2) is a shadow pass; the negative type 13 marks nothing,
    // and types 14 and 15 (count 0) nothing either: entries 0 and 1 stay plain.
    EXPECT_EQ(e[2].flags & FBINFO_SHADOW_PASS, static_cast<miUint>(FBINFO_SHADOW_PASS));
    EXPECT_EQ(e[0].flags & (FBINFO_SHADOW_PASS | FBINFO_SHADOWED), 0u);
    EXPECT_EQ(e[1].flags & FBINFO_SHADOW_PASS, 0u);
    // Entry 1 keeps the flag of its record's word 5.
    EXPECT_EQ(e[1].flags & FBINFO_ADD_REFLECTION, static_cast<miUint>(FBINFO_ADD_REFLECTION));
}

// Every sequence of up to three state operations, on every block of the
// catalogue, with the block swapped for another under the live state and
// entry 0 suspended in between: nothing is left allocated or pinned.
TEST_F(BadBlocks, AnySequenceOfStateOperationsLeavesNothingBehind)
{
    fbtest::InstallOptions opts{false, true, {}};
    opts.inits.push_back({0, {0.5f, 0.5f, 0.5f, 1}, false});
    opts.inits.push_back({7, {1, 0, 0, 1}, false}); // beyond the non-material array
    fbtest::install(*ctx, threeRecords(), opts);

    const std::vector<Case> cases = catalogue();
    std::vector<miTag> blocks;
    for (const Case &c : cases) {
        fbtest::FbufBuilder b = threeRecords();
        c.fault(b);
        blocks.push_back(b.build());
    }

    enum Op { SetUp, Exit, Begin, EndShaded, EndUnshaded, Invalid, SwapBlock, Suspend, kOps };
    std::string failure;
    int lifecycles = 0;
    for (size_t bi = 0; bi < blocks.size() && failure.empty(); ++bi) {
        for (int len = 0; len <= 3 && failure.empty(); ++len) {
            int total = 1;
            for (int i = 0; i < len; ++i)
                total *= kOps;
            for (int code = 0; code < total && failure.empty(); ++code) {
                ctx->camera().userdata = blocks[bi];
                miState *st = ctx->begin_state();
                std::string seq;
                for (int i = 0, c = code; i < len; ++i, c /= kOps) {
                    const int op = c % kOps;
                    seq += " " + std::to_string(op);
                    switch (op) {
                    case SetUp: ctx->run_state_op(st, miSHADERSTATE_STATE_INIT); break;
                    case Exit: ctx->run_state_op(st, miSHADERSTATE_STATE_EXIT); break;
                    case Begin: ctx->begin_sample(st, i, 1); break;
                    case EndShaded: ctx->end_sample(st, miTRUE); break;
                    case EndUnshaded: ctx->end_sample(st, miFALSE); break;
                    case Invalid: ctx->run_state_op(st, 9); break;
                    case SwapBlock: ctx->camera().userdata = blocks[(bi + 1 + i) % blocks.size()]; break;
                    case Suspend: {
                        int size = 0;
                        auto *e = static_cast<FrameBufferInfo *>(mi_shaderstate_get(st, FRAME_BUFFER_INFO_KEY, &size));
                        if (e && size >= static_cast<int>(sizeof(FrameBufferInfo)))
                            e[0].flags ^= FBINFO_SUSPENDED;
                        break;
                    }
                    }
                    if (mirt::db_total_pins() != 0)
                        failure = std::string(cases[bi].name) + ", ops" + seq + ": pinned during the state";
                }
                ctx->end_state(st);
                ++lifecycles;
                const std::string left = RuntimeTest::leftovers();
                if (failure.empty() && !left.empty())
                    failure = std::string(cases[bi].name) + ", ops" + seq + ": " + left;
            }
        }
        mirt::clear_messages();
    }
    EXPECT_EQ(failure, "");
    EXPECT_EQ(lifecycles, static_cast<int>(cases.size()) * (1 + 8 + 64 + 512));
}

// The block on the camera is replaced by a longer one before the first
// sample: the names come from the new block, for the published entries only.
TEST_F(BadBlocks, BlockReplacedBeforeTheFirstSampleFillsOnlyThePublishedEntries)
{
    fbtest::FbufSetup s = fbtest::install(*ctx, threeRecords(), {true, true, {}});
    fbtest::FbufBuilder longer;
    for (const char *name : {"n0", "n1", "n2", "n3", "n4"})
        longer.add(name, 0);
    std::vector<int> index;
    for (const char *name : {"n0", "n1", "n2"})
        index.push_back(ctx->add_framebuffer(name));
    const miTag replacement = longer.build();

    miState *st = ctx->begin_state();
    ASSERT_EQ(getFrameBufferInfo(st, nullptr, nullptr), 3u);
    ctx->camera().userdata = replacement;
    ctx->begin_sample(st, 0, 0);
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, nullptr, &e), 3u);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(e[k].fbId, static_cast<miUint>(index[k])) << k;
    // Pass type 12 (entry 2) keeps its role whatever the new record says.
    EXPECT_EQ(e[2].flags & (FBINFO_SHADOW_PASS | FBINFO_SHADOWED), FBINFO_SHADOW_PASS | FBINFO_SHADOWED);
    ctx->end_state(st);
    (void)s;
}

// A refused block under a live state: the first sample cannot resolve the
// names, the state stays unresolved, and its exit still releases the slots.
TEST_F(BadBlocks, BlockRefusedUnderALiveStateStillReleasesTheSlots)
{
    fbtest::install(*ctx, threeRecords(), {true, true, {}});
    fbtest::FbufBuilder bad = threeRecords();
    bad.frameBufferInfoFirst(1000);
    const miTag refused = bad.build();

    miState *st = ctx->begin_state();
    EXPECT_EQ(mirt::mem_live_bytes(kFbFile), 3 * 6 * 52);
    ctx->camera().userdata = refused;
    mirt::clear_messages();
    ctx->begin_sample(st, 0, 0);
    FrameBufferInfo *e = nullptr;
    ASSERT_EQ(getFrameBufferInfo(st, nullptr, &e), 3u);
    EXPECT_EQ(e[0].fbId, DRUX_FBID_UNRESOLVED);
    EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), 1);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    ctx->end_state(st);
    EXPECT_EQ(mirt::mem_live_bytes(kFbFile), 0);
}

// Render threads set up, sample and end their own states on one damaged and
// one good block at once.
TEST_F(BadBlocks, ThreadsOnBadBlocksLeaveNothingBehind)
{
    fbtest::install(*ctx, threeRecords(), {false, true, {}});
    fbtest::FbufBuilder bad = threeRecords();
    bad.truncate(400);
    const miTag badBlock = bad.build();
    const miTag goodBlock = threeRecords().build();
    for (miTag block : {badBlock, goodBlock}) {
        ctx->camera().userdata = block;
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t)
            threads.emplace_back([this, t] {
                for (int i = 0; i < 100; ++i) {
                    miState *st = ctx->begin_state(t);
                    ctx->begin_sample(st, i % 4, t);
                    ctx->end_sample(st, miTRUE);
                    ctx->begin_sample(st, i % 4, t);
                    ctx->end_state(st);
                }
            });
        for (std::thread &th : threads)
            th.join();
        EXPECT_EQ(RuntimeTest::leftovers(), "");
        EXPECT_EQ(countContaining(mirt::Level::Error, "is ignored"), block == badBlock ? 200 : 0);
        mirt::clear_messages();
    }
}

// ------------------------------------------------------------ user-data chains

// get_userdata must return; if it does not within the deadline the test
// fails at once rather than hang the suite.
void *lookupWithDeadline(int magic, int type, miTag tag, miTag *found, int *swapped)
{
    auto f = std::async(std::launch::async, [=] { return get_userdata(magic, type, tag, found, swapped); });
    if (f.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        std::fprintf(stderr, "get_userdata did not return: the chain walk does not end\n");
        std::_Exit(1);
    }
    return f.get();
}

miTag block(uint32_t magic, int size = 8)
{
    uint32_t words[2] = {magic, 0};
    const miTag t = mirt::db_create_userdata(words, 8, 0);
    // The magic stays in the bytes; the header says how much of them count.
    static_cast<miUserdata *>(mirt::db_data(t))->parameter_size = size;
    return t;
}

void link(miTag from, miTag to) { static_cast<miUserdata *>(mirt::db_data(from))->next_data = to; }

TEST_F(BadBlocks, ChainsThatLoopEndWithoutAMatch)
{
    const uint32_t other = 0x12345678u;
    // A block linked to itself; a loop of two; a prefix running into a loop;
    // a loop of 37.
    const miTag self = block(other);
    link(self, self);
    const miTag a = block(other), b = block(other);
    link(a, b), link(b, a);
    std::vector<miTag> loop37;
    for (int i = 0; i < 37; ++i)
        loop37.push_back(block(other));
    for (int i = 0; i < 37; ++i)
        link(loop37[i], loop37[(i + 1) % 37]);
    const miTag p1 = block(other), p2 = block(other);
    link(p1, p2), link(p2, loop37[20]);

    struct Walk {
        miTag head;
        size_t blocks; // distinct blocks reachable
    };
    for (const Walk &w : {Walk{self, 1}, Walk{a, 2}, Walk{loop37[0], 37}, Walk{p1, 39}}) {
        SCOPED_TRACE(w.head);
        uint64_t before = 0;
        for (miTag t : {self, a, b, p1, p2})
            before += mirt::db_access_count(t);
        for (miTag t : loop37)
            before += mirt::db_access_count(t);
        miTag found = 77;
        int swapped = 5;
        EXPECT_EQ(lookupWithDeadline(KELU_MAGIC, miSCENE_USERDATA, w.head, &found, &swapped), nullptr);
        EXPECT_EQ(found, 77u) << "nothing stored without a match";
        EXPECT_EQ(swapped, 5);
        EXPECT_EQ(mirt::db_total_pins(), 0);
        uint64_t after = 0;
        for (miTag t : {self, a, b, p1, p2})
            after += mirt::db_access_count(t);
        for (miTag t : loop37)
            after += mirt::db_access_count(t);
        // The walk stops within a few rounds of the loop.
        EXPECT_GE(after - before, w.blocks);
        EXPECT_LE(after - before, 4 * w.blocks);
    }

    // Through an object whose chain loops.
    const miTag obj = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
    static_cast<miObject *>(mirt::db_data(obj))->userdata = a;
    EXPECT_EQ(lookupWithDeadline(KELU_MAGIC, miSCENE_OBJECT, obj, nullptr, nullptr), nullptr);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(BadBlocks, AMatchInsideALoopIsFound)
{
    const miTag a = block(0x1u), b = block(static_cast<uint32_t>(KELU_MAGIC)), c = block(fbtest::byteSwap32(FBUF_MAGIC));
    link(a, b), link(b, c), link(c, a);
    miTag found = 0;
    int swapped = -1;
    void *p = lookupWithDeadline(FBUF_MAGIC, miSCENE_USERDATA, a, &found, &swapped);
    EXPECT_EQ(found, c);
    EXPECT_EQ(swapped, 1);
    EXPECT_EQ(p, static_cast<char *>(mirt::db_data(c)) + 24);
    EXPECT_EQ(mirt::db_pin_count(c), 1);
    mi_db_unpin(c);
    // Without the swapped pointer the byte-reversed block does not count and
    // the loop ends the walk.
    EXPECT_EQ(lookupWithDeadline(FBUF_MAGIC, miSCENE_USERDATA, b, &found, nullptr), nullptr);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(BadBlocks, BlocksTooShortForAMagicNeverMatch)
{
    // The magic's bytes are there, but the header says the block is shorter.
    for (int size : {0, 1, 3}) {
        SCOPED_TRACE(size);
        const miTag shortBlock = block(static_cast<uint32_t>(KELU_MAGIC), size);
        EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, shortBlock, nullptr, nullptr), nullptr);
        const miTag real = block(static_cast<uint32_t>(KELU_MAGIC), 4);
        link(shortBlock, real);
        miTag found = 0;
        EXPECT_NE(get_userdata(KELU_MAGIC, miSCENE_USERDATA, shortBlock, &found, nullptr), nullptr);
        EXPECT_EQ(found, real) << "the walk goes on past the short block";
        mi_db_unpin(real);
        EXPECT_EQ(mirt::db_total_pins(), 0);
    }
}

// ------------------------------------------------------------ ramp arrays

miBoolean owner(void *, miState *, void *) { return miTRUE; }

struct RampBlock {
    int first, count;
    RampScalarEntry e[3];
};

class RampArrays : public BadBlocks {
protected:
    void prepare() override { st = beginState(); }
    // The ramp built by a shader whose parameter block is `blk` (size bytes),
    // the ramp parameter at byte `at`.
    Ramp build(const void *blk, int size, int at)
    {
        const miTag fn = mirt::make_function(miSHADER_MATERIAL, owner, blk, size, 16, true, "rampOwner");
        miFunction *f = mirt::function(fn);
        miFunction *saved = st->shader;
        st->shader = f;
        Ramp r;
        ramp_constructor(&r, st, static_cast<char *>(f->params) + at, 0);
        st->shader = saved;
        return r;
    }
    miState *st = nullptr;
};

// Elements that end exactly at the block's end are used; elements, or a
// header, reaching outside the shader's parameter block refuse the ramp,
// with a message naming the shader.
TEST_F(RampArrays, OnlyElementsWithinTheBlockAreUsed)
{
    const RampScalarEntry keys[3] = {{0.2f, 500, RAMP_NONE}, {1, 3, RAMP_LINEAR}, {0, 1, RAMP_LINEAR}};
    struct Case {
        const char *name;
        int first, count, at; // at: the parameter's byte offset in the block
        const char *error;    // null: used
    } cases[] = {{"elements 1 and 2 end at the block's end", 1, 2, 0, nullptr},
                 {"first index past the end", 2, 2, 0, "reaches outside its parameter block"},
                 {"first index before the block", -2, 1, 0, "reaches outside its parameter block"},
                 {"count beyond the elements", 0, 4, 0, "reaches outside its parameter block"},
                 {"more than 50 declared, 3 present", 0, 60, 0, "reaches outside its parameter block"},
                 {"huge first index", INT_MAX, 1, 0, "reaches outside its parameter block"},
                 {"most negative first index", INT_MIN, 2, 0, "reaches outside its parameter block"},
                 {"header cut by the block end", 0, 1, int(sizeof(RampBlock)) - 4, "does not fit in its parameter block"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        mirt::clear_messages();
        RampBlock blk{c.first, c.count, {keys[0], keys[1], keys[2]}};
        const Ramp r = build(&blk, sizeof blk, c.at);
        if (!c.error) {
            EXPECT_EQ(r.count, 2);
            EXPECT_EQ(ramp_get_interp_float(&r, 0.25f), 1.5f);
            EXPECT_EQ(countContaining(mirt::Level::Error, "ramp_constructor()"), 0);
            continue;
        }
        EXPECT_EQ(r.count, 0);
        EXPECT_EQ(r.is_color, 0);
        EXPECT_EQ(ramp_get_interp_float(&r, 0.5f), 0.0f);
        EXPECT_EQ(countContaining(mirt::Level::Error, c.error), 1);
        EXPECT_EQ(countContaining(mirt::Level::Error, "\"rampOwner\""), 1);
    }
}

TEST_F(RampArrays, ACopyOutsideAnyBlockIsReadAsGiven)
{
    // A shader may hand over a copy of its ramp; nothing says how large it is.
    RampBlock copy{1, 2, {{0.2f, 500, RAMP_NONE}, {1, 3, RAMP_LINEAR}, {0, 1, RAMP_LINEAR}}};
    const miTag fn = mirt::make_function(miSHADER_MATERIAL, owner, nullptr, 8, 16, false, "other");
    st->shader = mirt::function(fn);
    Ramp r;
    ramp_constructor(&r, st, &copy, 0);
    st->shader = nullptr;
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(ramp_get_interp_float(&r, 0.75f), 2.5f);
    EXPECT_EQ(countContaining(mirt::Level::Error, "ramp_constructor()"), 0);
}

// ------------------------------------------------------------ mask and settings records

TEST_F(BadBlocks, AMaskRecordTooShortForItsTagHoldsNoMask)
{
    const miTag text = mirt::db_create_string("5");
    FrameBufferInfo entries[4];
    std::memset(entries, 0, sizeof entries);
    miState *st = beginState();
    struct Rec {
        const char *name;
        miTag record;
        bool masked;
    };
    const miTag full = mirt::db_create_userdata(&text, 4, 0);
    const miTag cut = mirt::db_create_userdata(&text, 4, 0);
    static_cast<miUserdata *>(mirt::db_data(cut))->parameter_size = 3; // the tag's bytes stay
    const miTag plain = mirt::db_create_data(&text, 4);
    for (const Rec &rec : {Rec{"user data, 4 bytes", full, true}, Rec{"user data, 3 bytes", cut, false},
                           Rec{"plain data", plain, true}}) {
        SCOPED_TRACE(rec.name);
        st->light_instance = ctx->add_point_light({0, 0, 5}, 0, rec.record);
        for (FrameBufferInfo &e : entries)
            e.flags = 0;
        setupLightContributions(4, entries, st);
        // Mask 5 (binary 0101): entries 0 and 2; no mask: all four.
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ((entries[i].flags & FBINFO_LIGHT_CONTRIBUTES) != 0, !rec.masked || i % 2 == 0) << i;
        EXPECT_EQ(mirt::db_total_pins(), 0);
    }
    st->light_instance = 0;
}

TEST_F(BadBlocks, ASettingsBlockShorterThanItsWordsCarriesNone)
{
    miState *st = beginState();
    BaseShaderState bss{};
    bss.minContribution = 0.1f;
    bss.fullSampleContribution = 0.5f;
    bss.pathWeight = {1, 1, 1, 1};
    mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &bss, sizeof bss, 2);
    ctx->options().finalgather = 0;

    int32_t w[17] = {KELU_MAGIC, 0, 0, 0, 0, 1, 12};
    for (int k = 7; k <= 16; ++k)
        w[k] = k;
    const miTag obj = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
    const miTag inst = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    static_cast<miInstance *>(mirt::db_data(inst))->item = obj;
    st->instance = inst;
    const miColor white{1, 1, 1, 1}, clear{0, 0, 0, 0};
    miColor tint = white;
    // 68 bytes hold words 0 to 16: the settings are used.  64 bytes miss
    // word 16: none.  A header giving 0 bytes leaves not even the magic.
    for (int size : {68, 64, 0}) {
        SCOPED_TRACE(size);
        const miTag ud = mirt::db_create_userdata(w, sizeof w, 0);
        static_cast<miUserdata *>(mirt::db_data(ud))->parameter_size = size;
        static_cast<miObject *>(mirt::db_data(obj))->userdata = ud;
        ctx->clear_irradiance_calls();
        miColor r;
        compute_irradiance(&r, &tint, &white, &clear, nullptr, st, 1.0f, 1.0f);
        const std::vector<miIrrad_options> calls = ctx->irradiance_calls();
        ASSERT_EQ(calls.size(), 1u);
        if (size == 68) {
            EXPECT_EQ(calls[0].size, 52);
            EXPECT_EQ(calls[0].finalgather_rays, 12);
            EXPECT_EQ(calls[0].globillum_accuracy, 11);
            EXPECT_EQ(calls[0].caustic_accuracy, 13);
        } else {
            EXPECT_EQ(calls[0].size, 0) << "no record: the renderer's own settings";
        }
        EXPECT_EQ(mirt::db_total_pins(), 0);
    }
}

} // namespace
