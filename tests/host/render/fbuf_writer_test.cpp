/*
 * The FBuf block writer (tools/fbuf_writer) and its command-line form
 * fbuf_block: every array element lies where the block's own first/count
 * words say, read back through FrameBufferDataBlock.
 */
#include "fbuf_writer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using fbufw::FbufContent;

FrameBufferInfoRecord rec(miTag name, int seed)
{
    FrameBufferInfoRecord r{};
    r.frameBufferName = name;
    for (int k = 0; k < 9; ++k)
        r.flag[k] = (seed + k) % 3;
    for (int k = 0; k < 4; ++k)
        r.hostData[k] = static_cast<miUint>(seed * 10 + k);
    r.hostTail = static_cast<miUint>(seed + 100);
    return r;
}

FbufContent sample()
{
    FbufContent c;
    c.records = {rec(6, 1), rec(7, 2), rec(8, 3)};
    c.nonMaterialPasses = {9, 11};
    c.typeCounts.assign(DRUX_PASS_TYPES, 0);
    c.typeCounts[0] = 2;
    c.typeCounts[12] = 1;
    return c;
}

/* Checks that every element of c reads back through the block's own words,
   within the written size, and that no two arrays share a byte. */
void expectReadsBack(const FbufContent &c, const std::vector<uint32_t> &w)
{
    ASSERT_GE(w.size() * 4, sizeof(FrameBufferDataBlock));
    const auto *b = reinterpret_cast<const FrameBufferDataBlock *>(w.data());
    const auto *base = reinterpret_cast<const unsigned char *>(w.data());
    const size_t size = w.size() * 4;
    EXPECT_EQ(b->magic, FBUF_MAGIC);
    ASSERT_EQ(b->frameBufferInfoCount, static_cast<int>(c.records.size()));
    ASSERT_EQ(b->nonMaterialPassesCount, static_cast<int>(c.nonMaterialPasses.size()));
    ASSERT_EQ(b->typeCountsCount, static_cast<int>(c.typeCounts.size()));
    std::vector<int> owner(size, -1);
    /* element k of the array with storage slot `slot`: byte offset, claimed
       for array `who` */
    auto claim = [&](size_t slot, int first, size_t k, size_t n, int who) {
        using ll = long long;
        const ll at = ll(slot) + (first + ll(k)) * ll(n);
        EXPECT_GE(at, 0);
        EXPECT_LE(at + ll(n), ll(size));
        if (at < 0 || at + ll(n) > ll(size))
            return base;
        for (size_t i = static_cast<size_t>(at); i < static_cast<size_t>(at) + n; ++i) {
            EXPECT_EQ(owner[i], -1) << "byte " << i << " written twice";
            owner[i] = who;
        }
        return base + at;
    };
    for (size_t k = 0; k < c.records.size(); ++k) {
        const unsigned char *r = claim(offsetof(FrameBufferDataBlock, frameBufferInfo), b->frameBufferInfoFirst, k,
                                       sizeof(FrameBufferInfoRecord), 0);
        EXPECT_EQ(std::memcmp(r, &c.records[k], sizeof(FrameBufferInfoRecord)), 0) << "record " << k;
    }
    for (size_t k = 0; k < c.nonMaterialPasses.size(); ++k) {
        miTag t;
        const unsigned char *p =
            claim(offsetof(FrameBufferDataBlock, nonMaterialPasses), b->nonMaterialPassesFirst, k, 4, 1);
        std::memcpy(&t, p, 4);
        EXPECT_EQ(t, c.nonMaterialPasses[k]);
    }
    for (size_t k = 0; k < c.typeCounts.size(); ++k) {
        int n;
        std::memcpy(&n, claim(offsetof(FrameBufferDataBlock, typeCounts), b->typeCountsFirst, k, 4, 2), 4);
        EXPECT_EQ(n, c.typeCounts[k]);
    }
}

TEST(FbufWriter, ArraysLieWhereTheBlockSays)
{
    const FbufContent c = sample();
    const std::vector<uint32_t> w = fbufw::writeFbuf(c);
    expectReadsBack(c, w);
    const fbufw::FbufLayout l = fbufw::fbufLayout(c);
    EXPECT_EQ(l.total, w.size() * 4);
    /* tails after the fixed part, records last, nothing left over */
    EXPECT_EQ(l.typeCounts, sizeof(FrameBufferDataBlock));
    EXPECT_EQ(l.records + 3 * sizeof(FrameBufferInfoRecord), l.total);

    FbufContent empty;
    expectReadsBack(empty, fbufw::writeFbuf(empty));
}

TEST(FbufWriter, SingleElementsInlineAndHeaderWordsOverridden)
{
    FbufContent c;
    c.records = {rec(6, 4)};
    c.nonMaterialPasses = {9};
    c.typeCounts = {1};
    c.inlineSingleElements = true;
    const std::vector<uint32_t> w = fbufw::writeFbuf(c);
    ASSERT_EQ(w.size() * 4, sizeof(FrameBufferDataBlock));
    const auto *b = reinterpret_cast<const FrameBufferDataBlock *>(w.data());
    EXPECT_EQ(b->frameBufferInfoFirst, 0);
    EXPECT_EQ(b->nonMaterialPassesFirst, 0);
    EXPECT_EQ(b->typeCountsFirst, 0);
    expectReadsBack(c, w);

    /* overridden header words are written as given; the arrays stay put */
    FbufContent lie = sample();
    const std::vector<uint32_t> honest = fbufw::writeFbuf(lie);
    lie.frameBufferInfoFirst = 7;
    lie.nonMaterialPassesCount = 1000;
    lie.typeCountsFirst = -40;
    const std::vector<uint32_t> lied = fbufw::writeFbuf(lie);
    ASSERT_EQ(lied.size(), honest.size());
    const auto *h = reinterpret_cast<const FrameBufferDataBlock *>(lied.data());
    EXPECT_EQ(h->frameBufferInfoFirst, 7);
    EXPECT_EQ(h->nonMaterialPassesCount, 1000);
    EXPECT_EQ(h->typeCountsFirst, -40);
    size_t differing = 0;
    for (size_t i = 0; i < lied.size(); ++i)
        differing += lied[i] != honest[i];
    EXPECT_EQ(differing, 3u);
}

#ifdef FBUF_BLOCK_PATH
TEST(FbufWriter, CommandLineToolWritesTheSameBlock)
{
    FbufContent c = sample();
    c.typeCountsCount = 5;
    std::string cmd = FBUF_BLOCK_PATH;
    for (const FrameBufferInfoRecord &r : c.records) {
        cmd += " --record " + std::to_string(r.frameBufferName) + ":";
        for (int k = 0; k < 9; ++k)
            cmd += (k ? "," : "") + std::to_string(r.flag[k]);
        cmd += ":";
        for (int k = 0; k < 4; ++k)
            cmd += (k ? "," : "") + std::to_string(r.hostData[k]);
        cmd += ":" + std::to_string(r.hostTail);
    }
    for (miTag t : c.nonMaterialPasses)
        cmd += " --nonmat " + std::to_string(t);
    cmd += " --counts ";
    for (size_t t = 0; t < c.typeCounts.size(); ++t)
        cmd += (t ? "," : "") + std::to_string(c.typeCounts[t]);
    cmd += " --set typeCountsCount=5";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::vector<uint32_t> got(4096);
    got.resize(std::fread(got.data(), 4, got.size(), p));
    EXPECT_EQ(pclose(p), 0);
    EXPECT_EQ(got, fbufw::writeFbuf(c));

    /* a bad option fails instead of writing a block */
    FILE *bad = popen((std::string(FBUF_BLOCK_PATH) + " --set firstOfAll=3 2>/dev/null").c_str(), "r");
    ASSERT_NE(bad, nullptr);
    char byte;
    EXPECT_EQ(std::fread(&byte, 1, 1, bad), 0u);
    EXPECT_NE(pclose(bad), 0);
}
#endif

} // namespace
