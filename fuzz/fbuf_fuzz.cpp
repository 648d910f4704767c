/*
 * Fuzz target: the "FBuf" frame-buffer data block on the camera.
 *
 * The input is the block's parameter area plus a script of state operations
 * (set-up, sample begin/end, exit, invalid codes), druxFrameBufferInit runs,
 * block queries, light-loop and trace calls on the published entries, and
 * changes to the block while a state is alive (pokes, truncation).
 *
 * Input layout:
 *   byte 0      flags: bits 0-1 trace-depth choice, bit 2 rasterizer, bit 3 a
 *               decoy block ahead of the FBuf block, bit 4 byte-reversed
 *               magic, bit 5 keep the input's magic word, bit 6 query 161
 *               answers 0
 *   bytes 1-2   block length L (mod 2049)
 *   L bytes     the parameter area (word 0 forced to the magic unless bit 5)
 *   rest        the operation script, one opcode byte plus operands each
 *
 * Checked besides the sanitizers: the set-up accepts exactly the blocks that
 * lie within their own size (and refuses the rest with a message), the
 * entry count follows the type counts, names resolve to the right indices,
 * and nothing stays allocated or pinned.
 */
#include "harness.h"

#include <climits>

const fz::Target fz::kTarget = {"fbuf_fuzz", 8, 8};

namespace {

constexpr int kNames = 4;
const char *const kFbNames[kNames] = {"beauty", "diffuse", "shadow", "matte"};

struct World {
    miTag block = 0, decoy = 0;
    miTag nameTags[kNames] = {};
    int fbIndex[kNames] = {};
    miTag unknownName = 0, emptyName = 0, notAString = 0;
    miTag stateShader = 0, initShader = 0;
};

World gWorld;

int32_t wordOf(const std::vector<uint8_t> &b, size_t offset)
{
    int32_t v = 0;
    if (offset + 4 <= b.size())
        std::memcpy(&v, b.data() + offset, 4);
    return v;
}

/* The rule the set-up must follow, written out independently: every array
   element the readers use lies within the block's own size. */
bool blockUsable(const std::vector<uint8_t> &b, bool swapped)
{
    if (swapped)
        return false;
    const int64_t size = static_cast<int64_t>(b.size());
    if (size < 96)
        return false;
    auto inside = [&](int64_t slot, int64_t elem, int64_t first, int64_t count) {
        if (count <= 0)
            return true;
        const int64_t begin = slot + elem * first;
        return begin >= 0 && begin + elem * count <= size;
    };
    const int64_t nmFirst = wordOf(b, 4), nmCount = wordOf(b, 8);
    const int64_t recFirst = wordOf(b, 16), recCount = wordOf(b, 20);
    const int64_t tcFirst = wordOf(b, 84), tcCount = wordOf(b, 88);
    if (nmCount < 0 || !inside(12, 4, nmFirst, nmCount))
        return false;
    if (recCount < 0 || !inside(24, 60, recFirst, recCount) || recCount * 104 > INT_MAX)
        return false;
    const int64_t read = tcCount < 0 ? 0 : (tcCount > 35 ? 35 : tcCount);
    if (!inside(92, 4, tcFirst, read))
        return false;
    int64_t sum = 0;
    for (int64_t t = 0; t < read; ++t) {
        sum += static_cast<int32_t>(wordOf(b, static_cast<size_t>(92 + 4 * (tcFirst + t))));
        if (sum > INT_MAX || sum < INT_MIN)
            return false; /* negative counts are fine; running sums must stay in 32 bits */
    }
    return true;
}

/* Sum of the type counts the set-up reads. */
int64_t typeCountSum(const std::vector<uint8_t> &b)
{
    const int64_t tcFirst = wordOf(b, 84), tcCount = wordOf(b, 88);
    const int64_t read = tcCount < 0 ? 0 : (tcCount > 35 ? 35 : tcCount);
    int64_t sum = 0;
    for (int64_t t = 0; t < read; ++t)
        sum += wordOf(b, static_cast<size_t>(92 + 4 * (tcFirst + t)));
    return sum;
}

miUint expectedIndex(const World &w, miTag name)
{
    for (int i = 0; i < kNames; ++i)
        if (name == w.nameTags[i])
            return static_cast<miUint>(w.fbIndex[i]);
    return 0;
}

void lightLoop(miState *state, fz::Input &in)
{
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &entries);
    const int savedRefl = state->reflection_level;
    state->reflection_level = in.u8() % 8; /* beyond the slots too: must touch none */
    sampleLightBegin(n, entries);
    const miColor light{in.bounded(0, 2), in.bounded(0, 2), in.bounded(0, 2), 1};
    setLightIrradiance(n, entries, &light);
    for (miUint i = 0; i < n; ++i)
        entries[i].lightSum = light;
    const int mode = in.u8() % 5;
    const miBoolean useScale = in.u8() & 1;
    const float scale = in.bounded(0, 1);
    sampleLightEnd(state, n, entries, static_cast<int8_t>(in.u8()), &mode, &useScale, &scale);
    tracePassInit(n, entries, state);
    tracePassAdd(n, entries, state, in.u8() & 1, miColor{0.5f, 0.5f, 0.5f, 1.0f});
    state->reflection_level = savedRefl;
}

} // namespace

void fz::setUp()
{
    World &w = gWorld;
    for (int i = 0; i < kNames; ++i) {
        w.fbIndex[i] = fz::context().add_framebuffer(kFbNames[i]);
        w.nameTags[i] = mirt::db_create_string(kFbNames[i]);
    }
    w.unknownName = mirt::db_create_string("not-a-frame-buffer");
    w.emptyName = mirt::db_create_string("");
    const uint32_t junk[2] = {0x41414141u, 0x41414141u};
    w.notAString = mirt::db_create_data(junk, sizeof junk);
    w.block = mirt::db_create_userdata(nullptr, 0, 0);
    w.decoy = mirt::db_create_userdata(nullptr, 0, 0);
    w.stateShader = mirt::make_function(
        miSHADER_STATE, reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)()>(&druxFrameBufferState)),
        nullptr, 0, 0, false, "druxFrameBufferState");
    druxFrameBufferInit_params p{0, miColor{0.25f, 0.5f, 0.75f, 1.0f}};
    w.initShader = mirt::make_function(
        miSHADER_STATE, reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)()>(&druxFrameBufferInit)),
        &p, sizeof p, 0, false, "druxFrameBufferInit");
    fz::context().add_state_shader(w.stateShader);
    fz::context().add_state_shader(w.initShader);
    /* The seed corpus refers to the name strings by tag (fuzz/make_seeds.py). */
    if (std::getenv("DRUX_FUZZ_PRINT_TAGS"))
        std::fprintf(stderr, "name tags %u %u %u %u, unknown %u, empty %u, not a string %u\n", w.nameTags[0],
                     w.nameTags[1], w.nameTags[2], w.nameTags[3], w.unknownName, w.emptyName, w.notAString);
}

void fz::runInput(fz::Input &in)
{
    World &w = gWorld;
    mirt::Context &ctx = fz::context();

    const uint8_t flags = in.u8();
    static const int depths[4] = {0, 1, 2, 4};
    ctx.options().trace_depth = depths[flags & 3];
    ctx.options().scanline = (flags & 4) ? 'r' : 0;
    const bool swapped = flags & 16;
    ctx.set_query_int(miQ_FB_RECORDS, (flags & 64) ? 0 : 1);

    const size_t length = in.u16() % 2049;
    std::vector<uint8_t> block = in.bytes(length);
    if (!(flags & 32) && block.size() >= 4) {
        const uint32_t magic = swapped ? fz::byteSwap32(FBUF_MAGIC) : FBUF_MAGIC;
        std::memcpy(block.data(), &magic, 4);
    }
    const bool magicMatches = block.size() >= 4 && (wordOf(block, 0) == static_cast<int32_t>(FBUF_MAGIC) ||
                                                    wordOf(block, 0) == static_cast<int32_t>(fz::byteSwap32(FBUF_MAGIC)));
    const bool swappedMatch = magicMatches && wordOf(block, 0) != static_cast<int32_t>(FBUF_MAGIC);

    fz::setUserdata(w.block, block.data(), block.size(), 0);
    if (flags & 8) {
        const uint32_t kelu = static_cast<uint32_t>(KELU_MAGIC);
        fz::setUserdata(w.decoy, &kelu, 4, w.block);
        ctx.camera().userdata = w.decoy;
    } else {
        ctx.camera().userdata = w.block;
    }

    miState *state = ctx.begin_state(0);

    /* What the set-up did with the block. */
    const bool usable = magicMatches && blockUsable(block, swappedMatch);
    int stateSize = 0;
    const bool published = mi_shaderstate_get(state, FRAME_BUFFER_STATE_KEY, &stateSize) != nullptr &&
                           stateSize == static_cast<int>(sizeof(FrameBufferState));
    FZ_CHECK(published == usable, "set-up must publish exactly the blocks that lie within their size");
    if (magicMatches && !usable)
        FZ_CHECK(fz::errorLogged("is ignored"), "a refused block is reported");
    const int32_t records = usable ? wordOf(block, 20) : 0;
    if (usable && !(flags & 64)) {
        const int64_t sum = typeCountSum(block);
        const miUint expect = (sum == records && records > 0) ? static_cast<miUint>(records) : 0;
        FZ_CHECK(getFrameBufferInfo(state, nullptr, nullptr) == expect,
                 "entry count follows the type counts and the records");
    }

    bool pristine = true;    /* block unchanged since the set-up */
    bool checkedNames = false;
    for (int op = 0; op < 64 && !in.empty(); ++op) {
        switch (in.u8() % 12) {
        case 0:
            ctx.run_state_op(state, miSHADERSTATE_STATE_INIT);
            checkedNames = true; /* the names of a second set-up are not checked */
            break;
        case 1:
            ctx.run_state_op(state, miSHADERSTATE_STATE_EXIT);
            checkedNames = true;
            break;
        case 2: {
            const uint8_t xy = in.u8();
            ctx.begin_sample(state, xy & 15, xy >> 4);
            if (!checkedNames && pristine && usable && !(flags & 64)) {
                checkedNames = true;
                FrameBufferInfo *entries = nullptr;
                const miUint n = getFrameBufferInfo(state, nullptr, &entries);
                for (miUint k = 0; k < n; ++k) {
                    miTag name;
                    std::memcpy(&name, block.data() + 24 + 60 * (int64_t(wordOf(block, 16)) + k), 4);
                    FZ_CHECK(entries[k].fbId == expectedIndex(w, name), "entry names resolve to their index");
                }
            }
            break;
        }
        case 3:
            ctx.end_sample(state, in.u8() & 1);
            break;
        case 4: {
            druxFrameBufferInit_params *p =
                static_cast<druxFrameBufferInit_params *>(mirt::function(w.initShader)->params);
            p->nonMaterialPass = static_cast<int8_t>(in.u8());
            break;
        }
        case 5: {
            const miUint index = getNonMaterialPassFrameBufferIndex(state, static_cast<int8_t>(in.u8()));
            FZ_CHECK(index <= static_cast<miUint>(kNames), "a non-material index names a declared buffer or 0");
            break;
        }
        case 6: {
            FrameBufferDataRef ref = getFrameBufferDataBlock(state);
            FZ_CHECK((ref.block != nullptr) == (ref.tag != 0), "pointer and tag come together");
            if (ref.tag) {
                FZ_CHECK(mirt::db_pin_count(ref.tag) == 1, "the block is pinned once for its holder");
                mi_db_unpin(ref.tag);
            }
            break;
        }
        case 7: {
            /* The exporter's block changes while the state lives. */
            const size_t at = in.u16();
            const uint32_t value = in.u32();
            if (block.size() >= 4) {
                const size_t offset = (at % (block.size() - 3)) & ~size_t(3);
                std::memcpy(block.data() + offset, &value, 4);
                fz::setUserdata(w.block, block.data(), block.size(), 0);
                pristine = false;
            }
            break;
        }
        case 8:
            lightLoop(state, in);
            break;
        case 9:
            ctx.run_state_op(state, 4 + in.u8() % 8);
            break;
        case 10: {
            int sz = 0;
            FrameBufferInfo *e = static_cast<FrameBufferInfo *>(mi_shaderstate_get(state, FRAME_BUFFER_INFO_KEY, &sz));
            if (e && sz >= static_cast<int>(sizeof(FrameBufferInfo)))
                e[0].flags ^= FBINFO_SUSPENDED;
            pristine = false;
            break;
        }
        case 11: {
            const size_t keep = block.empty() ? 0 : in.u16() % (block.size() + 1);
            block.resize(keep);
            fz::setUserdata(w.block, block.data(), block.size(), 0);
            pristine = false;
            break;
        }
        }
    }

    ctx.end_state(state);
    ctx.clear_framebuffers();
}
