// The renderer runtime core. Tagged memory and block pools.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

class Core : public RuntimeTest {};

// ------------------------------------------------------------- memory

TEST_F(Core, TaggedAllocationsAreZeroedAndAccountedToTheirOwnTag)
{
    const std::string tagA = "SDK/coreTestA", tagB = "SDK/coreTestB";
    const uint64_t before = mirt::mem_allocation_count();
    mirt::mem_clear_events();
    auto *p = static_cast<unsigned char *>(mi_mem_int_allocate(tagA.c_str(), 191, 100));
    auto *q = static_cast<unsigned char *>(mi_mem_int_allocate(tagB.c_str(), 7, 24));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(p[i], 0) << i;
    EXPECT_EQ(mirt::mem_live_bytes(tagA), 100);
    EXPECT_EQ(mirt::mem_live_bytes(tagB), 24);
    EXPECT_EQ(mirt::mem_allocation_count() - before, 2u);

    // released under another file name: still accounted against tag A
    mi_mem_int_release(tagB.c_str(), 300, p);
    EXPECT_EQ(mirt::mem_live_bytes(tagA), 0);
    EXPECT_EQ(mirt::mem_live_bytes(tagB), 24);
    mi_mem_int_release(tagB.c_str(), 301, q);
    EXPECT_EQ(mirt::mem_live_bytes(tagB), 0);
    mi_mem_int_release(tagA.c_str(), 1, nullptr); // harmless

    auto ev = mirt::mem_events();
    ASSERT_EQ(ev.size(), 4u);
    EXPECT_EQ(ev[0].file, tagA);
    EXPECT_EQ(ev[0].line, 191);
    EXPECT_FALSE(ev[0].release);
    EXPECT_EQ(ev[0].bytes, 100);
    EXPECT_EQ(ev[2].file, tagB);
    EXPECT_EQ(ev[2].line, 300);
    EXPECT_TRUE(ev[2].release);
    EXPECT_EQ(ev[2].bytes, 100);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/neverUsed"), 0);
}

TEST_F(Core, ReleaseOfAForeignPointerIsReported)
{
    void *p = mi_mem_int_allocate("SDK/coreTestD", 1, 8);
    void *keep = mi_mem_int_allocate("SDK/coreTestD", 2, 8);
    mi_mem_int_release("SDK/coreTestD", 3, p);
    // a pointer never handed out by the allocator (inside a live allocation)
    alignas(16) unsigned char fake[64] = {};
    mi_mem_int_release("SDK/coreTestD", 4, fake + 32);
    EXPECT_EQ(countLevel(mirt::Level::Error), 1);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/coreTestD"), 8);
    mi_mem_int_release("SDK/coreTestD", 5, keep);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/coreTestD"), 0);
}

TEST_F(Core, BlockPoolAccountsElementsAndDeleteFreesEverything)
{
    const std::string tag = "SDK/coreTestBlk";
    mirt::mem_clear_events();
    miMemblk *blk = mi_mem_int_blkcreate(tag.c_str(), 922, 32);
    ASSERT_NE(blk, nullptr);
    auto ev = mirt::mem_events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].file, tag);
    EXPECT_EQ(ev[0].line, 922);

    std::vector<unsigned char *> got;
    for (int i = 0; i < 100; ++i) {
        auto *e = static_cast<unsigned char *>(mi_mem_blkfallocate(blk));
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(e) % 16, 0u);
        std::memset(e, 0xAB, 32);
        got.push_back(e);
    }
    EXPECT_EQ(std::set<unsigned char *>(got.begin(), got.end()).size(), 100u);
    EXPECT_EQ(mirt::mem_live_bytes(tag), 100 * 32);

    // an element given back and taken again with blkallocate comes back cleared
    mi_mem_blkfrelease(blk, got.back());
    got.pop_back();
    auto *z = static_cast<unsigned char *>(mi_mem_blkallocate(blk));
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(z[i], 0) << i;
    got.push_back(z);
    mi_mem_blkrelease(blk, got[0]);
    EXPECT_EQ(mirt::mem_live_bytes(tag), 99 * 32);

    mi_mem_blkdelete(blk); // 99 elements still out
    EXPECT_EQ(mirt::mem_live_bytes(tag), 0);
    EXPECT_EQ(mirt::mem_events().size(), 1u) << "element traffic is not listed";
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

TEST_F(Core, BlockPoolSharedBetweenThreads)
{
    const std::string tag = "SDK/coreTestShared";
    miMemblk *blk = mi_mem_int_blkcreate(tag.c_str(), 1, 24);
    const uint64_t before = mirt::mem_allocation_count();
    constexpr int kThreads = 4, kRounds = 200, kBatch = 50;
    std::atomic<int> corrupt{0};
    std::vector<std::thread> th;
    for (int t = 0; t < kThreads; ++t)
        th.emplace_back([&, t] {
            std::vector<uint32_t *> mine;
            for (int r = 0; r < kRounds; ++r) {
                for (int k = 0; k < kBatch; ++k) {
                    auto *e = static_cast<uint32_t *>(mi_mem_blkfallocate(blk));
                    for (int w = 0; w < 6; ++w)
                        e[w] = (uint32_t(t) << 24) | (uint32_t(r) << 8) | uint32_t(k);
                    mine.push_back(e);
                }
                // keep the last batch, give the rest back
                for (size_t i = 0; i + kBatch < mine.size(); ++i) {
                    if (mine[i][5] >> 24 != uint32_t(t))
                        corrupt.fetch_add(1);
                    mi_mem_blkrelease(blk, mine[i]);
                }
                mine.erase(mine.begin(), mine.end() - kBatch);
            }
            for (auto *e : mine)
                if (e[0] >> 24 != uint32_t(t) || e[0] != e[5])
                    corrupt.fetch_add(1);
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(corrupt.load(), 0) << "an element was handed to two owners";
    EXPECT_EQ(mirt::mem_allocation_count() - before, uint64_t(kThreads) * kRounds * kBatch);
    EXPECT_EQ(mirt::mem_live_bytes(tag), int64_t(kThreads) * kBatch * 24);
    mi_mem_blkdelete(blk);
    EXPECT_EQ(mirt::mem_live_bytes(tag), 0);
}

} // namespace
