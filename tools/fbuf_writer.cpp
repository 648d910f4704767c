#include "fbuf_writer.h"

#include <cstring>

namespace fbufw {

namespace {

constexpr size_t kFixed = sizeof(FrameBufferDataBlock);
constexpr size_t kRecord = sizeof(FrameBufferInfoRecord);
constexpr size_t kNonMatSlot = offsetof(FrameBufferDataBlock, nonMaterialPasses);
constexpr size_t kRecordSlot = offsetof(FrameBufferDataBlock, frameBufferInfo);
constexpr size_t kTypeSlot = offsetof(FrameBufferDataBlock, typeCounts);

static_assert(kRecord % 4 == 0 && kFixed % 4 == 0, "the block is written in 32-bit words");

/* Smallest offset >= at that lies a whole number of elements past slot. */
size_t alignTo(size_t at, size_t slot, size_t elem) { return slot + (at - slot + elem - 1) / elem * elem; }

void put(std::vector<uint32_t> &w, size_t byteOffset, int value)
{
    w.at(byteOffset / 4) = static_cast<uint32_t>(value);
}

/* Element index of the array at `at` counted from its storage slot. */
int firstOf(size_t at, size_t slot, size_t elem) { return static_cast<int>((at - slot) / elem); }

} // namespace

FbufLayout fbufLayout(const FbufContent &c)
{
    FbufLayout l;
    size_t at = kFixed;
    auto place = [&](size_t n, size_t slot, size_t elem) {
        if (c.inlineSingleElements && n <= 1)
            return slot;
        const size_t first = alignTo(at, slot, elem);
        at = first + elem * n;
        return first;
    };
    l.typeCounts = place(c.typeCounts.size(), kTypeSlot, 4);
    l.nonMaterialPasses = place(c.nonMaterialPasses.size(), kNonMatSlot, 4);
    l.records = place(c.records.size(), kRecordSlot, kRecord);
    l.total = at;
    return l;
}

std::vector<uint32_t> writeFbuf(const FbufContent &c)
{
    const FbufLayout l = fbufLayout(c);
    std::vector<uint32_t> w(l.total / 4, 0u);
    using B = FrameBufferDataBlock;

    put(w, offsetof(B, magic), FBUF_MAGIC);

    put(w, offsetof(B, nonMaterialPassesFirst),
        c.nonMaterialPassesFirst.value_or(firstOf(l.nonMaterialPasses, kNonMatSlot, 4)));
    put(w, offsetof(B, nonMaterialPassesCount),
        c.nonMaterialPassesCount.value_or(static_cast<int>(c.nonMaterialPasses.size())));
    for (size_t k = 0; k < c.nonMaterialPasses.size(); ++k)
        w.at(l.nonMaterialPasses / 4 + k) = c.nonMaterialPasses[k];

    put(w, offsetof(B, frameBufferInfoFirst),
        c.frameBufferInfoFirst.value_or(firstOf(l.records, kRecordSlot, kRecord)));
    put(w, offsetof(B, frameBufferInfoCount),
        c.frameBufferInfoCount.value_or(static_cast<int>(c.records.size())));
    for (size_t k = 0; k < c.records.size(); ++k)
        std::memcpy(&w.at((l.records + kRecord * k) / 4), &c.records[k], kRecord);

    put(w, offsetof(B, typeCountsFirst), c.typeCountsFirst.value_or(firstOf(l.typeCounts, kTypeSlot, 4)));
    put(w, offsetof(B, typeCountsCount), c.typeCountsCount.value_or(static_cast<int>(c.typeCounts.size())));
    for (size_t t = 0; t < c.typeCounts.size(); ++t)
        put(w, l.typeCounts + 4 * t, c.typeCounts[t]);
    return w;
}

} // namespace fbufw
