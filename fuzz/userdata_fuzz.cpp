/*
 * Fuzz target: get_userdata over user-data chains built from the input.
 *
 * A fixed pool of database items (user-data blocks, objects, instances, a
 * light, strings, plain data) is rewired by every input: block sizes,
 * magics (native, byte-reversed, other), chain links to any item (cycles,
 * items of the wrong type, missing tags), objects' chain heads and
 * instances' items.  Then a series of lookups with magics, types, start tags
 * and optional out-pointers from the input.
 *
 * Every lookup is compared with an independent walk of the same chain: the
 * block found (or none), the swapped flag, the returned address, and the
 * pins (the match pinned exactly once, everything else released).
 *
 * Input layout:
 *   per block (8):     size (mod 41), magic choice, next-link choice, then
 *                      the bytes after the magic word
 *   per object (4):    chain-head choice
 *   per instance (4):  item choice
 *   then lookups (16 at most): magic choice, type choice, start choice, flags
 * A "choice" byte picks a pool item, tag 0, or a raw 32-bit tag that follows.
 */
#include "harness.h"

const fz::Target fz::kTarget = {"userdata_fuzz", 2, 2};

namespace {

constexpr int kBlocks = 8, kObjects = 4, kInstances = 4;

struct World {
    miTag block[kBlocks], object[kObjects], instance[kInstances];
    miTag light = 0, text = 0, data = 0, cameraInstance = 0;
};

World gWorld;

miTag choose(const World &w, fz::Input &in)
{
    const int r = in.u8() % 24;
    if (r < 8)
        return w.block[r];
    if (r < 12)
        return w.object[r - 8];
    if (r < 16)
        return w.instance[r - 12];
    switch (r) {
    case 16: return w.light;
    case 17: return w.text;
    case 18: return w.data;
    case 19: return w.cameraInstance;
    case 20: return 0;
    case 21: return 0x0FFFFFFFu; /* never handed out */
    case 22: return in.u32();
    default: return w.block[0];
    }
}

uint32_t chooseMagic(fz::Input &in)
{
    switch (in.u8() % 6) {
    case 0: return FBUF_MAGIC;
    case 1: return static_cast<uint32_t>(KELU_MAGIC);
    case 2: return fz::byteSwap32(FBUF_MAGIC);
    case 3: return fz::byteSwap32(static_cast<uint32_t>(KELU_MAGIC));
    case 4: return 0;
    default: return in.u32();
    }
}

} // namespace

void fz::setUp()
{
    World &w = gWorld;
    for (miTag &t : w.block)
        t = mirt::db_create_userdata(nullptr, 0, 0);
    for (miTag &t : w.object)
        t = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
    for (miTag &t : w.instance)
        t = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    w.light = mirt::db_create(miSCENE_LIGHT, sizeof(miLight));
    w.text = mirt::db_create_string("Kelu");
    const uint32_t words[2] = {static_cast<uint32_t>(KELU_MAGIC), 0};
    w.data = mirt::db_create_data(words, sizeof words);
    w.cameraInstance = fz::context().camera_instance();
}

void fz::runInput(fz::Input &in)
{
    World &w = gWorld;

    for (int b = 0; b < kBlocks; ++b) {
        const size_t bytes = in.u8() % 41;
        const uint32_t magic = chooseMagic(in);
        const miTag next = choose(w, in);
        std::vector<uint8_t> params(bytes + 1, 0); /* never empty: data() is never null */
        std::memcpy(params.data(), &magic, bytes < 4 ? bytes : 4);
        if (bytes > 4) {
            std::vector<uint8_t> rest = in.bytes(bytes - 4);
            if (!rest.empty())
                std::memcpy(params.data() + 4, rest.data(), rest.size());
        }
        fz::setUserdata(w.block[b], params.data(), bytes, next);
    }
    for (miTag o : w.object)
        static_cast<miObject *>(mirt::db_data(o))->userdata = choose(w, in);
    for (miTag i : w.instance)
        static_cast<miInstance *>(mirt::db_data(i))->item = choose(w, in);

    for (int q = 0; q < 16 && !in.empty(); ++q) {
        const uint32_t magic = chooseMagic(in);
        const uint8_t typeSel = in.u8();
        const int type = typeSel % 4 == 0 ? miSCENE_USERDATA
                         : typeSel % 4 == 1 ? miSCENE_OBJECT
                         : typeSel % 4 == 2 ? miSCENE_INSTANCE
                                            : static_cast<int8_t>(in.u8());
        const miTag start = choose(w, in);
        const uint8_t outs = in.u8();
        miTag found = 0xDEADBEEFu;
        int swapped = -7;
        void *p = get_userdata(static_cast<int>(magic), type, start, (outs & 1) ? &found : nullptr,
                               (outs & 2) ? &swapped : nullptr);
        int expectSwapped = 0;
        const miTag expect = fz::expectedUserdata(magic, type, start, (outs & 2) != 0, expectSwapped);
        if (!expect) {
            FZ_CHECK(p == nullptr, "no block matches, so none is returned");
            FZ_CHECK(mirt::db_total_pins() == 0, "a failed lookup leaves nothing pinned");
            continue;
        }
        FZ_CHECK(p == static_cast<char *>(mirt::db_data(expect)) + offsetof(miUserdata, parameters),
                 "the first matching block of the chain is returned");
        if (outs & 1)
            FZ_CHECK(found == expect, "the block's tag is stored");
        if (outs & 2)
            FZ_CHECK(swapped == expectSwapped, "the swapped flag tells how the magic matched");
        FZ_CHECK(mirt::db_pin_count(expect) == 1 && mirt::db_total_pins() == 1,
                 "only the matching block stays pinned, once");
        mi_db_unpin(expect);
    }
}
