/*
 * Frame-buffer bookkeeping: the exporter's "FBuf" block on the camera, the
 * per-state pass records built from it, the queries through which shaders
 * reach those records, and the state shaders that build, reset, flush and
 * release them.
 *
 * Damaged blocks.  The block is written by another program, so nothing in it
 * is trusted: before any reader follows an index, the whole block is checked
 * against its own size (the user-data header's parameter_size).  A block is
 * refused, with a druxError message, when
 *   - it was written with the other byte order (its magic matched only
 *     byte-reversed): none of our readers converts it, and converting a copy
 *     would mean allocating and keeping a second block per state; the exporter
 *     has to write it on this machine's byte order;
 *   - it is shorter than its fixed part;
 *   - the nonMaterialPasses or frameBufferInfo array has a negative count or
 *     lies, wholly or partly, outside the block;
 *   - the part of FrameBufferTypeCounts that is read (at most 35 elements)
 *     lies outside the block, or one of its running sums leaves the 32-bit
 *     range (a negative count is accepted: its type touches nothing, and it
 *     still enters the sums that place the later types);
 *   - the frameBufferInfo array is too large for an entry array.
 * A refused block reads as "no block": getFrameBufferDataBlock returns a null
 * pointer and tag 0 (with `swapped` set when that was the reason), the state
 * set-up publishes nothing, and nothing stays pinned.  The state set-up and the
 * exported queries report the refusal once per state and block: the state
 * keeps the tag of the block it reported, so a host shader
 * that asks per sample does not flood the log.  The state remembers it in
 * the thread's side record of the state, not in its shader-state store, so a
 * refused block publishes nothing there.  druxFrameBufferInit, which looks at
 * the block before every sample, refuses quietly.
 */
#include "druxInternal.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

const char *const kFile = "SDK/druxFrameBufferState";

/* Line numbers under which the renderer's memory accounting files our memory. */
constexpr int kLineEntryAlloc = 191;
constexpr int kLineSlotAlloc = 199;
constexpr int kLineEntryRelease = 240;
constexpr int kLineSlotRelease = 256;

constexpr miUint kUnresolved = DRUX_FBID_UNRESOLVED;
constexpr int kEntrySize = static_cast<int>(sizeof(FrameBufferInfo)); /* 104 */
constexpr int kTypeInfoSize = static_cast<int>(sizeof(PassTypeInfo)); /* 280 */
constexpr int kStateSize = static_cast<int>(sizeof(FrameBufferState)); /* 24 */
constexpr int kLifetime = 2;

constexpr int64_t kNonMatSlot = offsetof(FrameBufferDataBlock, nonMaterialPasses);
constexpr int64_t kRecordSlot = offsetof(FrameBufferDataBlock, frameBufferInfo);
constexpr int64_t kTypeSlot = offsetof(FrameBufferDataBlock, typeCounts);
constexpr int64_t kRecordSize = sizeof(FrameBufferInfoRecord); /* 60 */

const char *const kTempOnHeapOption = "kelu allocate temp data on heap";

/* Unpins a database item when it goes out of scope, also while an exception
   passes. */
struct PinGuard {
    miTag tag;
    explicit PinGuard(miTag t) : tag(t) {}
    ~PinGuard()
    {
        if (tag)
            mi_db_unpin(tag);
    }
    PinGuard(const PinGuard &) = delete;
    PinGuard &operator=(const PinGuard &) = delete;
};

/* Releases the renderer's shader interface when it goes out of scope. */
struct InterfaceGuard {
    mi::shader::Interface *iface;
    explicit InterfaceGuard(mi::shader::Interface *i) : iface(i) {}
    ~InterfaceGuard()
    {
        if (iface)
            iface->release();
    }
    InterfaceGuard(const InterfaceGuard &) = delete;
    InterfaceGuard &operator=(const InterfaceGuard &) = delete;
};

/* Gives a frame-buffer set back when it goes out of scope. */
struct FramebufferGuard {
    mi::shader::Interface *iface;
    mi::shader::Framebuffer *fb;
    miTag tag;
    ~FramebufferGuard()
    {
        if (fb)
            iface->releaseFramebuffer(fb, tag);
    }
};

/* ---- reading the block by byte offset.  The declared arrays lie beyond
   their one-element storage slots, so elements are reached through byte
   offsets from the block start, never by indexing the slot arrays. */

inline int32_t wordAt(const FrameBufferDataBlock *block, int64_t offset)
{
    int32_t v;
    std::memcpy(&v, reinterpret_cast<const char *>(block) + offset, sizeof v);
    return v;
}

inline const FrameBufferInfoRecord *recordAt(const FrameBufferDataBlock *block, int k)
{
    const int64_t offset = kRecordSlot + kRecordSize * (static_cast<int64_t>(block->frameBufferInfoFirst) + k);
    return reinterpret_cast<const FrameBufferInfoRecord *>(reinterpret_cast<const char *>(block) + offset);
}

inline miTag nonMaterialAt(const FrameBufferDataBlock *block, int k)
{
    return static_cast<miTag>(wordAt(block, kNonMatSlot + 4 * (static_cast<int64_t>(block->nonMaterialPassesFirst) + k)));
}

/* Number of FrameBufferTypeCounts elements that are read: at most 35. */
inline int typeCountsRead(const FrameBufferDataBlock *block)
{
    int n = block->typeCountsCount;
    return n < 0 ? 0 : (n > DRUX_PASS_TYPES ? DRUX_PASS_TYPES : n);
}

inline int typeCountAt(const FrameBufferDataBlock *block, int t)
{
    return wordAt(block, kTypeSlot + 4 * (static_cast<int64_t>(block->typeCountsFirst) + t));
}

/* An array of `count` elements of `elem` bytes, whose storage slot is at
   `slot` and whose first index is `first`, lies within `size` bytes. */
inline bool arrayInside(int64_t slot, int64_t elem, int32_t first, int32_t count, int64_t size)
{
    if (count <= 0)
        return true;
    const int64_t begin = slot + elem * static_cast<int64_t>(first);
    const int64_t end = begin + elem * static_cast<int64_t>(count);
    return begin >= 0 && end <= size;
}

/* Why a native-order block cannot be used, or null when it can. */
const char *blockDamage(const FrameBufferDataBlock *block)
{
    const miUserdata *header = reinterpret_cast<const miUserdata *>(
        reinterpret_cast<const char *>(block) - offsetof(miUserdata, parameters));
    const int64_t size = header->parameter_size;
    if (size < static_cast<int64_t>(sizeof(FrameBufferDataBlock)))
        return "it is shorter than its fixed part";
    if (block->nonMaterialPassesCount < 0)
        return "the nonMaterialPasses array has a negative count";
    if (!arrayInside(kNonMatSlot, 4, block->nonMaterialPassesFirst, block->nonMaterialPassesCount, size))
        return "the nonMaterialPasses array lies outside the block";
    if (block->frameBufferInfoCount < 0)
        return "the frameBufferInfo array has a negative count";
    if (!arrayInside(kRecordSlot, kRecordSize, block->frameBufferInfoFirst, block->frameBufferInfoCount, size))
        return "the frameBufferInfo array lies outside the block";
    if (static_cast<int64_t>(block->frameBufferInfoCount) * kEntrySize > INT_MAX)
        return "the frameBufferInfo array is too large";
    const int read = typeCountsRead(block);
    if (!arrayInside(kTypeSlot, 4, block->typeCountsFirst, read, size))
        return "the FrameBufferTypeCounts array lies outside the block";
    int64_t sum = 0;
    for (int t = 0; t < read; ++t) {
        sum += typeCountAt(block, t);
        if (sum > INT_MAX || sum < INT_MIN)
            return "the FrameBufferTypeCounts add up to more than a 32-bit count";
    }
    return nullptr;
}

void reportRefused(miState *state, const char *who, miTag tag, const char *why)
{
    /* Once per state and block.  A state without a shader-state store (a
       caller outside rendering) cannot be told apart, and reports every
       time. */
    if (drux::StateSideRecord *side = drux::sideRecord(state->shaderstate, true)) {
        if (side->refusedTag == tag)
            return;
        side->refusedTag = tag;
    }
    druxError(std::string(who) + "(): the frame-buffer data block (tag " + std::to_string(tag) +
              ") is ignored: " + why + ". Re-export the .mi");
}

/* The camera's frame-buffer data block, checked.  `who` names the caller in
   the refusal message; null refuses quietly. */
FrameBufferDataRef acquireBlock(miState *state, const char *who)
{
    FrameBufferDataRef ref{nullptr, 0, miFALSE};
    if (!state || !state->camera)
        return ref;
    miTag tag = 0;
    int swapped = 0;
    void *data = get_userdata(FBUF_MAGIC, miSCENE_USERDATA, state->camera->userdata, &tag, &swapped);
    if (!data || !tag)
        return ref;
    const FrameBufferDataBlock *block = static_cast<const FrameBufferDataBlock *>(data);
    const char *why = swapped ? "it was written with the other byte order" : blockDamage(block);
    if (why) {
        mi_db_unpin(tag);
        if (who)
            reportRefused(state, who, tag, why);
        ref.swapped = swapped ? miTRUE : miFALSE;
        return ref;
    }
    ref.block = block;
    ref.tag = tag;
    return ref;
}

bool fbRecordsUsable(miState *state)
{
    int value = 0;
    return mi_query(miQ_FB_RECORDS, state, 0, &value) && value == 1;
}

miUint nonMaterialIndex(miState *state, int index, const char *who)
{
    FrameBufferDataRef ref = acquireBlock(state, who);
    if (!ref.block || !ref.tag)
        return 0;
    PinGuard pin(ref.tag);
    if (index < 0 || index >= ref.block->nonMaterialPassesCount)
        return 0;
    return getNamedFrameBufferID(state, nonMaterialAt(ref.block, index));
}

/* Visit the entries of pass type t, limited to the n entries that exist. */
template <class F> void forType(const PassTypeInfo *types, miUint n, int t, F f)
{
    const PassTypeRange &r = types->range[t];
    if (r.count <= 0)
        return;
    int64_t begin = r.first < 0 ? 0 : r.first;
    int64_t end = static_cast<int64_t>(r.first) + r.count;
    if (end > static_cast<int64_t>(n))
        end = n;
    for (int64_t i = begin; i < end; ++i)
        f(static_cast<miUint>(i));
}

/* The slot block of the state's entry array, or null. */
PassSlot *storedSlotBlock(miState *state)
{
    int size = 0;
    FrameBufferInfo *entries =
        static_cast<FrameBufferInfo *>(mi_shaderstate_get(state, FRAME_BUFFER_INFO_KEY, &size));
    if (!entries || size < kEntrySize || size % kEntrySize != 0)
        return nullptr;
    return entries[0].slots;
}

} // namespace

/* ---- side records of the states set up on this thread.  A thread renders
   with a handful of states at a time; the table is a small fixed array, so
   finding a record costs a few pointer comparisons and never allocates. */
namespace drux {
namespace {
constexpr int kSideRecords = 16;
struct SideTable {
    StateSideRecord records[kSideRecords];
    int next; /* the record to replace when the table is full */
    int lastHit;
};
thread_local SideTable tSideTable; /* zero-initialised: every record free */
} // namespace

StateSideRecord *sideRecord(const void *store, bool create)
{
    if (!store)
        return nullptr;
    SideTable &t = tSideTable;
    StateSideRecord *freeRecord = nullptr;
    for (StateSideRecord &r : t.records) {
        if (r.store == store)
            return &r;
        if (!r.store && !freeRecord)
            freeRecord = &r;
    }
    if (!create)
        return nullptr;
    if (!freeRecord) {
        freeRecord = &t.records[t.next];
        t.next = (t.next + 1) % kSideRecords;
    }
    *freeRecord = StateSideRecord{store, nullptr, 0, 0};
    return freeRecord;
}

void forgetSideRecord(const void *store)
{
    if (StateSideRecord *r = sideRecord(store, false))
        *r = StateSideRecord{nullptr, nullptr, 0, 0};
}

miUint setUpSlotCount(const FrameBufferInfo *entries)
{
    if (!entries || !entries[0].slots)
        return 0;
    SideTable &t = tSideTable;
    const PassSlot *block = entries[0].slots;
    if (t.records[t.lastHit].slotBlock == block)
        return t.records[t.lastHit].slotsPerEntry;
    for (int i = 0; i < kSideRecords; ++i)
        if (t.records[i].slotBlock == block) {
            t.lastHit = i;
            return t.records[i].slotsPerEntry;
        }
    return 0;
}
} // namespace drux

namespace {

/* ---- operations of druxFrameBufferState */

miBoolean stateSetup(miState *state)
{
    FrameBufferDataRef ref = acquireBlock(state, "druxFrameBufferState");
    if (!ref.tag || !ref.block)
        return miFALSE;
    PinGuard pin(ref.tag);
    const FrameBufferDataBlock *block = ref.block;

    /* A state set up twice without an exit in between: the first set-up's
       slot block would be lost when the records are replaced. */
    if (PassSlot *old = storedSlotBlock(state))
        mi_mem_int_release(kFile, kLineSlotRelease, old);

    FrameBufferState fbState;
    fbState.allocateTempOnHeap = 0; /* an absent option leaves 0 */
    fbState.sampleValue = 0;
    fbState.sampleColor = BLACK;
    {
        InterfaceGuard iface(mi_get_shader_interface(3));
        if (iface.iface && state->options) {
            mi::shader::Options *opts = iface.iface->getOptions(state->options->string_options);
            if (opts) {
                int value = 0;
                bool flag = false;
                if (opts->get(kTempOnHeapOption, &value))
                    fbState.allocateTempOnHeap = value;
                else if (opts->get(kTempOnHeapOption, &flag))
                    fbState.allocateTempOnHeap = flag ? 1 : 0;
                opts->release();
            }
        }
    }

    const int n = block->frameBufferInfoCount;
    int depth = state->options ? state->options->trace_depth : 0;
    if (depth < 0)
        depth = 0; /* a negative limit still gets the two slots every entry needs */
    const int64_t perEntry = static_cast<int64_t>(depth) + 2;

    FrameBufferInfo emptyEntries[1];
    FrameBufferInfo *entries = emptyEntries;
    PassSlot *slots = nullptr;
    if (n > 0) {
        entries = static_cast<FrameBufferInfo *>(
            mi_mem_int_allocate(kFile, kLineEntryAlloc, static_cast<size_t>(n) * sizeof(FrameBufferInfo)));
        const size_t slotBytes = static_cast<size_t>(perEntry * n) * sizeof(PassSlot);
        slots = static_cast<PassSlot *>(mi_mem_int_allocate(kFile, kLineSlotAlloc, slotBytes));
        /* Everything starts at zero, slot flags included, so that a shader
           reading a field before anybody wrote it sees a defined value. */
        std::memset(static_cast<void *>(entries), 0, static_cast<size_t>(n) * sizeof(FrameBufferInfo));
        std::memset(static_cast<void *>(slots), 0, slotBytes);
        for (int i = 0; i < n; ++i)
            entries[i].slots = slots + perEntry * i;
        entries[0].fbId = kUnresolved;
    }

    if (block->typeCountsCount != DRUX_PASS_TYPES)
        druxError("druxFrameBufferState(): FrameBufferTypeCounts array does not have the expected number of elements.");

    PassTypeInfo types;
    const int read = typeCountsRead(block);
    int sum = 0; /* every running sum is within 32 bits (block check) */
    for (int t = 0; t < DRUX_PASS_TYPES; ++t) {
        const int count = t < read ? typeCountAt(block, t) : 0;
        types.range[t].first = sum;
        types.range[t].count = count;
        sum += count;
    }

    mi_shaderstate_set(state, FRAME_BUFFER_INFO_KEY, entries, n * kEntrySize, kLifetime);
    mi_shaderstate_set(state, FRAME_BUFFER_STATE_KEY, &fbState, kStateSize, kLifetime);
    mi_shaderstate_set(state, PASS_TYPE_INFO_KEY, &types, kTypeInfoSize, kLifetime);

    if (n > 0)
        mi_mem_int_release(kFile, kLineEntryRelease, entries);
    if (drux::StateSideRecord *side = drux::sideRecord(state->shaderstate, true)) {
        side->slotBlock = slots;
        side->slotsPerEntry = static_cast<miUint>(perEntry);
    }
    return miTRUE;
}

miBoolean stateExit(miState *state)
{
    /* The slot block is released whenever the state holds one: also before
       the first sample resolved the names, while entry 0 is suspended, or when
       the type counts do not add up, so that no state ever leaks it. */
    if (PassSlot *slots = storedSlotBlock(state))
        mi_mem_int_release(kFile, kLineSlotRelease, slots);
    mi_shaderstate_set(state, FRAME_BUFFER_INFO_KEY, nullptr, 0, kLifetime);
    mi_shaderstate_set(state, PASS_TYPE_INFO_KEY, nullptr, 0, kLifetime);
    mi_shaderstate_set(state, FRAME_BUFFER_STATE_KEY, nullptr, 0, kLifetime);
    drux::forgetSideRecord(state->shaderstate);
    return miTRUE;
}

/* Names, flags and host words of the entries, from the block; then the roles
   of the pass types. */
void resolveEntries(miState *state, const FrameBufferDataBlock *block, const PassTypeInfo *types,
                    FrameBufferInfo *entries, miUint n)
{
    /* The block may have been replaced since set-up: never write beyond the
       published entries. */
    miUint records = static_cast<miUint>(block->frameBufferInfoCount);
    if (records > n)
        records = n;
    for (miUint k = 0; k < records; ++k) {
        const FrameBufferInfoRecord *rec = recordAt(block, static_cast<int>(k));
        if (rec->frameBufferName == 0)
            druxError("Missing frameBufferName parameter in frameBufferInfo record.");
        FrameBufferInfo &e = entries[k];
        e.fbId = getNamedFrameBufferID(state, rec->frameBufferName);
        miUint flags = 0;
        for (int w = 0; w < 9; ++w)
            if (rec->flag[w] != 0)
                flags |= 1u << w;
        e.flags = flags;
        for (int w = 0; w < 4; ++w)
            e.hostData[w] = rec->hostData[w];
        e.hostTail = rec->hostTail;
    }

    for (int t : {12, 13, 14, 15})
        forType(types, n, t, [&](miUint i) { entries[i].flags |= FBINFO_SHADOW_PASS | FBINFO_SHADOWED; });
    for (int t : {31, 6, 8, 34, 11})
        forType(types, n, t, [&](miUint i) { entries[i].flags &= ~static_cast<miUint>(FBINFO_SHADOWED); });
    for (int t : {32, 1, 4, 26, 28, 33})
        forType(types, n, t, [&](miUint i) { entries[i].flags |= FBINFO_NO_TRACE_ADD; });
}

miBoolean sampleBegin(miState *state)
{
    if (!fbRecordsUsable(state))
        return miTRUE;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &entries);
    if (FrameBufferState *fbState = getFrameBufferState(state)) {
        fbState->sampleValue = 0;
        fbState->sampleColor = BLACK;
    }
    if (n == 0)
        return miTRUE;

    if (entries[0].fbId == kUnresolved) {
        /* First sample of the state. */
        FrameBufferDataRef ref = acquireBlock(state, "druxFrameBufferState");
        if (ref.block && ref.tag) {
            PinGuard pin(ref.tag);
            resolveEntries(state, ref.block, types, entries, n);
            if (ref.block->frameBufferInfoCount == 0)
                return miTRUE;
        }
    }

    for (miUint i = 0; i < n; ++i) {
        PassSlot *slot = entries[i].slots;
        if (!slot)
            continue;
        slot[0].opacity = BLACK;
        slot[0].result = BLACK;
    }
    return miTRUE;
}

miBoolean sampleEnd(miState *state, miBoolean shaded)
{
    if (state->type != miRAY_EYE || !shaded || !fbRecordsUsable(state))
        return miTRUE;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *entries = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &entries);
    if (n == 0)
        return miTRUE;

    /* Entries of types 16 to 18 keep their alpha. */
    const int64_t keepBegin = types->range[16].first;
    const int64_t keepEnd = static_cast<int64_t>(types->range[18].first) + types->range[18].count;
    auto keepsAlpha = [&](miUint i) { return static_cast<int64_t>(i) >= keepBegin && static_cast<int64_t>(i) < keepEnd; };

    const bool rasterizer = state->options && state->options->scanline == 'r' && state->scanline;
    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = entries[i];
        if (!e.slots)
            continue;
        PassSlot &slot = e.slots[0];
        const int fb = static_cast<int>(e.fbId);
        if (rasterizer) {
            /* Composite over what the rasterizer already has.  When the
               buffer cannot be read, the slot is composited over nothing
               (transparent black), which writes the slot's own result. */
            miColor current = BLACK;
            if (!mi_fb_get(state, fb, &current))
                current = BLACK;
            miColor c;
            c.r = (WHITE.r - slot.opacity.r) * current.r + slot.result.r;
            c.g = (WHITE.g - slot.opacity.g) * current.g + slot.result.g;
            c.b = (WHITE.b - slot.opacity.b) * current.b + slot.result.b;
            c.a = (WHITE.a - slot.opacity.a) * current.a + slot.result.a;
            if (!keepsAlpha(i) && c.a > 0.0f)
                c.a = 1.0f;
            mi_fb_put(state, fb, &c);
        } else {
            if (!keepsAlpha(i) && slot.result.a > 0.0f)
                slot.result.a = 1.0f;
            mi_fb_put(state, fb, &slot.result);
        }
    }
    return miTRUE;
}

void reportNotStateShader(miState *state, const char *name)
{
    int type = -1;
    const miTag self = (state && state->shader) ? state->shader->tag : 0;
    if (!mi_query(miQ_FUNC_TYPE, state, self, &type) || type != miSHADER_STATE)
        druxError(std::string(name) + "(): Not invoked as state shader.\nCould be a version mismatch. Re-export the .mi");
}

} // namespace

/* ====================================================== queries */

DRUX_API FrameBufferDataRef getFrameBufferDataBlock(miState *state)
{
    return acquireBlock(state, "getFrameBufferDataBlock");
}

DRUX_API miUint getNamedFrameBufferID(const miState *state, const char *name)
{
    if (!name || !state || !state->camera)
        return 0;
    InterfaceGuard iface(mi_get_shader_interface(3));
    if (!iface.iface)
        return 0;
    const miTag setTag = state->camera->buffertag;
    FramebufferGuard fb{iface.iface, iface.iface->accessFramebuffer(setTag), setTag};
    if (!fb.fb)
        return 0;
    size_t index = 0;
    if (!fb.fb->get_index(name, index))
        return 0;
    return static_cast<miUint>(index & 0xFFFFFFFFu);
}

extern "C" DRUX_API miUint getNamedFrameBufferID(miState *state, miTag name)
{
    if (name == 0)
        return getNamedFrameBufferID(static_cast<const miState *>(state), static_cast<const char *>(nullptr));
    /* Only a string item is read as a name: any other item would be read
       past its end looking for the terminating zero. */
    int type = miSCENE_NONE;
    const char *text = static_cast<const char *>(mi_db_access_type(&type, name));
    PinGuard pin(text ? name : 0);
    if (type != miSCENE_STRING)
        text = nullptr;
    return getNamedFrameBufferID(static_cast<const miState *>(state), text);
}

extern "C" DRUX_API FrameBufferState *getFrameBufferState(miState *state)
{
    if (!fbRecordsUsable(state))
        return nullptr;
    int size = 0;
    void *p = mi_shaderstate_get(state, FRAME_BUFFER_STATE_KEY, &size);
    return (p && size == kStateSize) ? static_cast<FrameBufferState *>(p) : nullptr;
}

extern "C" DRUX_API miUint getFrameBufferInfo(miState *state, PassTypeInfo **types, FrameBufferInfo **entries)
{
    PassTypeInfo *localTypes = nullptr;
    FrameBufferInfo *localEntries = nullptr;
    if (!types)
        types = &localTypes;
    if (!entries)
        entries = &localEntries;
    *types = nullptr;
    *entries = nullptr;
    if (!fbRecordsUsable(state))
        return 0;

    int size = 0;
    *types = static_cast<PassTypeInfo *>(mi_shaderstate_get(state, PASS_TYPE_INFO_KEY, &size));
    if (!*types || size != kTypeInfoSize)
        return 0;
    const miUint n = static_cast<miUint>((*types)->range[34].first) + static_cast<miUint>((*types)->range[34].count);

    size = 0;
    *entries = static_cast<FrameBufferInfo *>(mi_shaderstate_get(state, FRAME_BUFFER_INFO_KEY, &size));
    if (!*entries)
        return 0;
    if (static_cast<uint64_t>(n) * sizeof(FrameBufferInfo) != static_cast<uint64_t>(static_cast<unsigned>(size)) ||
        n == 0)
        return 0;
    if ((*entries)[0].flags & FBINFO_SUSPENDED)
        return 0;
    return n;
}

extern "C" DRUX_API miUint getNonMaterialPassFrameBufferIndex(miState *state, int index)
{
    return nonMaterialIndex(state, index, "getNonMaterialPassFrameBufferIndex");
}

/* ====================================================== state shaders */

extern "C" DRUX_API int druxFrameBufferState_version(void)
{
    return 1;
}

extern "C" DRUX_API void druxFrameBufferState_init(miState *state, void *params, miBoolean *inst_init_req)
{
    if (params)
        return; /* per instance: nothing to do */
    reportNotStateShader(state, "druxFrameBufferState");
    if (inst_init_req)
        *inst_init_req = miFALSE;
}

/* A missing operation record counts as an invalid operation. */
extern "C" DRUX_API miBoolean druxFrameBufferState(void *result, miState *state, void *params,
                                                   miShader_state_arg *arg)
{
    (void)result;
    (void)params;
    const int op = arg ? arg->op : -1;
    switch (op) {
    case miSHADERSTATE_STATE_INIT:
        return state ? stateSetup(state) : miFALSE;
    case miSHADERSTATE_STATE_EXIT:
        return state ? stateExit(state) : miFALSE;
    case miSHADERSTATE_SAMPLE_INIT:
        return state ? sampleBegin(state) : miFALSE;
    case miSHADERSTATE_SAMPLE_EXIT:
        return state ? sampleEnd(state, arg->shader_return) : miFALSE;
    default:
        mi_warning("kelu_state(): Invoked with invalid opcode.");
        return miFALSE;
    }
}

extern "C" DRUX_API int druxFrameBufferInit_version(void)
{
    return 1;
}

extern "C" DRUX_API void druxFrameBufferInit_init(miState *state, void *params, miBoolean *inst_init_req)
{
    if (params)
        return;
    if (inst_init_req)
        *inst_init_req = miFALSE;
    reportNotStateShader(state, "druxFrameBufferInit");
}

extern "C" DRUX_API miBoolean druxFrameBufferInit(void *result, miState *state,
                                                  druxFrameBufferInit_params *params,
                                                  miShader_state_arg *arg)
{
    (void)result;
    const int op = arg ? arg->op : -1;
    switch (op) {
    case miSHADERSTATE_STATE_INIT:
    case miSHADERSTATE_STATE_EXIT:
    case miSHADERSTATE_SAMPLE_EXIT:
        return miTRUE;
    case miSHADERSTATE_SAMPLE_INIT: {
        if (!state || !params || !fbRecordsUsable(state))
            return miTRUE;
        const int pass = drux::evalValue(state, &params->nonMaterialPass);
        /* Quiet: a refused block was reported by the state set-up. */
        const miUint index = nonMaterialIndex(state, pass, nullptr);
        if (index == 0)
            return miTRUE;
        miColor colour = drux::evalValue(state, &params->initColor);
        mi_fb_put(state, static_cast<int>(index), &colour);
        return miTRUE;
    }
    default:
        mi_warning("druxFrameBufferInit(): Invoked with invalid opcode.");
        return miFALSE;
    }
}

extern "C" DRUX_API int druxTraversal_version(void)
{
    return 1;
}

extern "C" DRUX_API miBoolean druxTraversal(miColor *result, miState *state, void *params)
{
    (void)result;
    (void)state;
    (void)params;
    return miTRUE;
}
