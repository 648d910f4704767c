// The renderer runtime core: database pins, tagged memory and block pools,
// locks, random numbers, messages, shader state, shader calls and parameter
// connections, frame buffers, the shader interface, quasi-random samples,
// transforms, queries and the state life cycle.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

class Core : public RuntimeTest {};

// ------------------------------------------------------------- database

TEST_F(Core, PinsBalanceAndUnknownTagsAreNotPinned)
{
    const int payload[3] = {7, 8, 9};
    miTag t = mirt::db_create_data(payload, sizeof payload);
    ASSERT_NE(t, 0u);
    EXPECT_EQ(mi_db_type(t), miSCENE_DATA);
    EXPECT_EQ(mirt::db_pin_count(t), 0);

    int *a = static_cast<int *>(mi_db_access(t));
    int type = -1;
    int *b = static_cast<int *>(mi_db_access_type(&type, t));
    ASSERT_EQ(a, b);
    EXPECT_EQ(type, miSCENE_DATA);
    EXPECT_EQ(a[0], 7);
    EXPECT_EQ(a[2], 9);
    EXPECT_EQ(mirt::db_pin_count(t), 2);
    EXPECT_EQ(mirt::db_total_pins(), 2);
    EXPECT_EQ(mirt::db_pinned(), std::vector<miTag>{t});
    EXPECT_EQ(mirt::db_access_count(t), 2u);

    mi_db_unpin(t);
    mi_db_unpin(t);
    EXPECT_EQ(mirt::db_pin_count(t), 0);
    EXPECT_TRUE(mirt::db_pinned().empty());
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);

    // tag 0 and unknown tags: null, no pin, type none
    type = 5;
    EXPECT_EQ(mi_db_access(0), nullptr);
    EXPECT_EQ(mi_db_access_type(&type, t + 1000), nullptr);
    EXPECT_EQ(type, miSCENE_NONE);
    EXPECT_EQ(mi_db_type(0), miSCENE_NONE);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_EQ(mirt::db_access_count(t), 2u);
}

TEST_F(Core, UnbalancedUnpinIsReportedAndNeverNegative)
{
    miTag t = mirt::db_create(miSCENE_DATA, 16);
    mi_db_access(t);
    mi_db_unpin(t);
    mi_db_unpin(t); // one too many
    EXPECT_EQ(mirt::db_pin_count(t), 0);
    ASSERT_EQ(countLevel(mirt::Level::Error), 1);
    mi_db_access(t);
    EXPECT_EQ(mirt::db_pin_count(t), 1) << "the extra unpin must not have been banked";
    mi_db_unpin(t);
    mi_db_unpin(0);
    EXPECT_EQ(countLevel(mirt::Level::Error), 2);
}

TEST_F(Core, DeletingAPinnedItemIsReported)
{
    miTag t = mirt::db_create(miSCENE_DATA, 4);
    mi_db_access(t);
    mirt::db_delete(t);
    EXPECT_EQ(countLevel(mirt::Level::Error), 1);
    EXPECT_EQ(mirt::db_data(t), nullptr);
    EXPECT_EQ(mi_db_type(t), miSCENE_NONE);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

TEST_F(Core, ItemLayouts)
{
    miTag s = mirt::db_create_string("hello");
    EXPECT_EQ(mi_db_type(s), miSCENE_STRING);
    EXPECT_EQ(mirt::db_size(s), 6u);
    EXPECT_STREQ(static_cast<const char *>(mirt::db_data(s)), "hello");

    const uint32_t params[3] = {0x4B656C75u, 11, 12};
    miTag tail = mirt::db_create_userdata(params, sizeof params, 0);
    miTag head = mirt::db_create_userdata(params, 4, tail);
    EXPECT_EQ(mi_db_type(head), miSCENE_USERDATA);
    const auto *u = static_cast<const miUserdata *>(mirt::db_data(head));
    EXPECT_EQ(u->next_data, tail);
    EXPECT_EQ(u->parameter_size, 4);
    const auto *raw = static_cast<const unsigned char *>(mirt::db_data(tail));
    uint32_t w[3];
    std::memcpy(w, raw + 24, sizeof w);
    EXPECT_EQ(w[0], 0x4B656C75u);
    EXPECT_EQ(w[2], 12u);
    EXPECT_EQ(mirt::db_size(tail), 24u + sizeof params);

    // resize keeps the contents up to the smaller size and zeroes the rest
    miTag d = mirt::db_create_data(params, sizeof params);
    auto *grown = static_cast<uint32_t *>(mirt::db_resize(d, 20));
    EXPECT_EQ(grown[1], 11u);
    EXPECT_EQ(grown[3], 0u);
    EXPECT_EQ(grown[4], 0u);
    auto *shrunk = static_cast<uint32_t *>(mirt::db_resize(d, 4));
    EXPECT_EQ(shrunk[0], 0x4B656C75u);
    EXPECT_EQ(mirt::db_size(d), 4u);

    // reset deletes every item
    mirt::reset();
    EXPECT_EQ(mirt::db_data(s), nullptr);
    EXPECT_EQ(mirt::db_data(d), nullptr);
}

TEST_F(Core, ConcurrentAccessKeepsExactCounts)
{
    miTag t = mirt::db_create(miSCENE_DATA, 8);
    constexpr int kThreads = 4, kIters = 20000;
    std::vector<std::thread> th;
    for (int i = 0; i < kThreads; ++i)
        th.emplace_back([t] {
            for (int k = 0; k < kIters; ++k) {
                mi_db_access(t);
                mi_db_unpin(t);
            }
        });
    // items created while others read the table
    std::vector<miTag> made;
    for (int k = 0; k < 200; ++k)
        made.push_back(mirt::db_create(miSCENE_DATA, 4));
    for (auto &x : th)
        x.join();
    EXPECT_EQ(mirt::db_pin_count(t), 0);
    EXPECT_EQ(mirt::db_access_count(t), uint64_t(kThreads) * kIters);
    EXPECT_EQ(std::set<miTag>(made.begin(), made.end()).size(), made.size());
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

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

// ------------------------------------------------------------- locks, random

TEST_F(Core, LocksExcludeEachOther)
{
    miLock lock = nullptr;
    mi_init_lock(&lock);
    ASSERT_NE(lock, nullptr);
    long counter = 0;
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                mi_lock(lock);
                ++counter;
                mi_unlock(lock);
            }
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(counter, 80000);
    mi_delete_lock(&lock);
    EXPECT_EQ(lock, nullptr);
}

TEST_F(Core, RandomIsReproducibleInRangeAndCounted)
{
    mi_srandom(1);
    const uint64_t before = mirt::random_draw_count();
    std::vector<float> first;
    double sum = 0;
    int low = 0;
    for (int i = 0; i < 100000; ++i) {
        float r = mi_random();
        ASSERT_GE(r, 0.0f);
        ASSERT_LT(r, 1.0f);
        if (i < 16)
            first.push_back(r);
        sum += r;
        low += r < 0.25f;
    }
    EXPECT_EQ(mirt::random_draw_count() - before, 100000u);
    // mean 1/2 (sd 0.0009) and a quarter below 0.25 (sd 0.0014)
    EXPECT_NEAR(sum / 100000, 0.5, 0.005);
    EXPECT_NEAR(low / 100000.0, 0.25, 0.007);
    mi_srandom(1);
    for (float f : first)
        EXPECT_EQ(mi_random(), f);
    mi_srandom(2);
    int same = 0;
    for (float f : first)
        same += mi_random() == f;
    EXPECT_LT(same, 3);
}

TEST_F(Core, RandomFromSeveralThreadsDrawsEveryValueOnce)
{
    // The stream is shared: threads together draw exactly the single-thread sequence.
    mi_srandom(42);
    std::vector<float> serial(4000);
    for (auto &v : serial)
        v = mi_random();
    mi_srandom(42);
    std::vector<std::vector<float>> per(4);
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i)
                per[t].push_back(mi_random());
        });
    for (auto &x : th)
        x.join();
    std::vector<float> all;
    for (auto &p : per)
        all.insert(all.end(), p.begin(), p.end());
    std::sort(all.begin(), all.end());
    std::sort(serial.begin(), serial.end());
    EXPECT_EQ(all, serial);
}

// ------------------------------------------------------------- messages

TEST_F(Core, MessagesAreFormattedAndCapturedVerbatim)
{
    mi_error("%s", "100% done");
    mi_warning("%d of %d", 3, 4);
    mi_info("%s", "plain");
    std::string longText(2000, 'x');
    mi_info("<%s>", longText.c_str());
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m[0].level, mirt::Level::Error);
    EXPECT_EQ(m[0].text, "100% done");
    EXPECT_EQ(m[1].level, mirt::Level::Warning);
    EXPECT_EQ(m[1].text, "3 of 4");
    EXPECT_EQ(m[2].level, mirt::Level::Info);
    EXPECT_EQ(m[3].text, "<" + longText + ">");
    mirt::clear_messages();
    EXPECT_TRUE(mirt::messages().empty());
}

TEST_F(Core, FatalLogsThenThrows)
{
    try {
        mi_fatal("broken %s at %d%%", "scene", 50);
        FAIL() << "mi_fatal returned";
    } catch (const mirt::FatalError &e) {
        EXPECT_EQ(e.text, "broken scene at 50%");
    }
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].level, mirt::Level::Fatal);
    EXPECT_EQ(m[0].text, "broken scene at 50%");
}

TEST_F(Core, MessagesFromSeveralThreadsAreAllKept)
{
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                mi_info("t%d m%d", t, i);
        });
    for (auto &x : th)
        x.join();
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 2000u);
    std::set<std::string> texts;
    for (auto &x : m)
        texts.insert(x.text);
    EXPECT_EQ(texts.size(), 2000u);
    EXPECT_TRUE(texts.count("t3 m499"));
}

// ------------------------------------------------------------- shader state

TEST_F(Core, ShaderStateCopiesReplacesAndRemoves)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    int value[4] = {1, 2, 3, 4};
    ASSERT_TRUE(mi_shaderstate_set(s, "rec", value, sizeof value, 2));
    value[0] = 99; // the store holds a copy
    int size = -1;
    auto *got = static_cast<int *>(mi_shaderstate_get(s, "rec", &size));
    ASSERT_NE(got, nullptr);
    EXPECT_NE(got, value);
    EXPECT_EQ(size, 16);
    EXPECT_EQ(got[0], 1);
    EXPECT_EQ(got[3], 4);

    got[1] = 20; // changed in place through the returned pointer
    EXPECT_EQ(static_cast<int *>(mi_shaderstate_get(s, "rec", nullptr))[1], 20);

    // a child state shares the store
    miState *child = mirt::child_state(s);
    EXPECT_EQ(mi_shaderstate_get(child, "rec", nullptr), got);

    // replacing: new contents and size
    const double d = 2.5;
    ASSERT_TRUE(mi_shaderstate_set(child, "rec", &d, sizeof d, 2));
    auto *dp = static_cast<double *>(mi_shaderstate_get(s, "rec", &size));
    EXPECT_EQ(size, 8);
    EXPECT_EQ(*dp, 2.5);

    // other keys are untouched by removal; absent keys give null and leave size alone
    ASSERT_TRUE(mi_shaderstate_set(s, "other", value, 4, 2));
    ASSERT_TRUE(mi_shaderstate_set(s, "rec", nullptr, 0, 2));
    size = 123;
    EXPECT_EQ(mi_shaderstate_get(s, "rec", &size), nullptr);
    EXPECT_EQ(size, 123);
    EXPECT_EQ(*static_cast<int *>(mi_shaderstate_get(s, "other", nullptr)), 99);

    // a second eye state has its own store
    miState *s2 = ctx.begin_state(1);
    EXPECT_EQ(mi_shaderstate_get(s2, "other", nullptr), nullptr);
    // bad input is refused with a message
    EXPECT_FALSE(mi_shaderstate_set(s2, "x", nullptr, 8, 2));
    EXPECT_EQ(countLevel(mirt::Level::Error), 1);
    ctx.end_state(s2);
    ctx.end_state(s);
}

// The store's table: hundreds of keys through growth, removals leaving holes
// that later keys fill, and one buffer reused for other keys (the pointer
// seen before must not answer for the text it now holds).
TEST_F(Core, ShaderStateTableManyKeysRemovalsAndReusedKeyBuffers)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    constexpr int kKeys = 300;
    char buf[32];
    for (int i = 0; i < kKeys; ++i) {
        std::snprintf(buf, sizeof buf, "key%d", i);
        ASSERT_TRUE(mi_shaderstate_set(s, buf, &i, sizeof i, 2));
    }
    EXPECT_EQ(s->shaderstate->values.count(), kKeys);
    EXPECT_LE(s->shaderstate->values.capacity(), 4 * kKeys);
    for (int i = 0; i < kKeys; i += 2) {
        std::snprintf(buf, sizeof buf, "key%d", i);
        ASSERT_TRUE(mi_shaderstate_set(s, buf, nullptr, 0, 2));
    }
    for (int i = 0; i < kKeys; ++i) {
        std::snprintf(buf, sizeof buf, "key%d", i); // same pointer, other text each time
        const std::string copy = buf;               // another pointer, same text
        int size = -1;
        const int *v = static_cast<int *>(mi_shaderstate_get(s, buf, &size));
        const int *w = static_cast<int *>(mi_shaderstate_get(s, copy.c_str(), nullptr));
        EXPECT_EQ(v, w) << buf;
        if (i % 2) {
            ASSERT_NE(v, nullptr) << buf;
            EXPECT_EQ(*v, i);
            EXPECT_EQ(size, 4);
        } else {
            EXPECT_EQ(v, nullptr) << buf;
        }
    }
    // removed keys come back with new values; removing and re-adding many
    // times does not fill the table with holes
    for (int round = 0; round < 20; ++round)
        for (int i = 0; i < kKeys; i += 2) {
            std::snprintf(buf, sizeof buf, "key%d", i);
            const int v = -i - round;
            ASSERT_TRUE(mi_shaderstate_set(s, buf, &v, sizeof v, 2));
            if (round < 19) {
                ASSERT_TRUE(mi_shaderstate_set(s, buf, nullptr, 0, 2));
            }
        }
    EXPECT_EQ(s->shaderstate->values.count(), kKeys);
    EXPECT_LE(s->shaderstate->values.capacity(), 4 * kKeys);
    for (int i = 0; i < kKeys; ++i) {
        std::snprintf(buf, sizeof buf, "key%d", i);
        const int *v = static_cast<int *>(mi_shaderstate_get(s, buf, nullptr));
        ASSERT_NE(v, nullptr) << buf;
        EXPECT_EQ(*v, i % 2 ? i : -i - 19);
    }
    // a key that is a prefix of another, and the empty key, are keys of their own
    const int a = 1, b = 2;
    ASSERT_TRUE(mi_shaderstate_set(s, "key1x", &a, sizeof a, 2));
    ASSERT_TRUE(mi_shaderstate_set(s, "", &b, sizeof b, 2));
    EXPECT_EQ(*static_cast<int *>(mi_shaderstate_get(s, "key1x", nullptr)), 1);
    EXPECT_EQ(*static_cast<int *>(mi_shaderstate_get(s, "key1", nullptr)), 1);
    EXPECT_EQ(*static_cast<int *>(mi_shaderstate_get(s, "", nullptr)), 2);
    ctx.end_state(s);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

// Two render threads use the same key pointers on their own eye states, set
// through one state of the family and got through another: each thread sees
// only its own values.
TEST_F(Core, ShaderStateSameKeysFromTwoThreads)
{
    mirt::Context ctx;
    static const char *const keys[3] = {"druxFBInfo", "kelubase", "druxPassState"};
    std::atomic<int> wrong{0};
    std::vector<std::thread> th;
    for (int t = 0; t < 2; ++t)
        th.emplace_back([&, t] {
            miState *s = ctx.begin_state(t);
            miState *c = mirt::child_state(s);
            for (int round = 0; round < 2000; ++round) {
                const int v = t * 100000 + round;
                for (const char *k : keys)
                    if (!mi_shaderstate_set(round % 2 ? c : s, k, &v, sizeof v, 2))
                        wrong.fetch_add(1);
                for (const char *k : keys) {
                    const int *p = static_cast<int *>(mi_shaderstate_get(round % 2 ? s : c, k, nullptr));
                    if (!p || *p != v)
                        wrong.fetch_add(1);
                }
            }
            ctx.end_state(s);
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

// ------------------------------------------------------------- shader calls

struct ParamBlock {
    miColor a;   // 0
    miColor b;   // 16
    float k;     // 32
};

std::atomic<int> g_sourceCalls{0};

// Result: (point.x, point.y, own tag, type of the current shader from query 140).
miBoolean source_shader(void *result, miState *state, void *params)
{
    g_sourceCalls.fetch_add(1);
    int type = -1;
    mi_query(miQ_FUNC_TYPE, state, 0, &type);
    const float scale = *static_cast<float *>(params);
    auto *c = static_cast<miColor *>(result);
    *c = miColor{state->point.x * scale, state->point.y, static_cast<float>(state->shader->tag),
                 static_cast<float>(type)};
    return miTRUE;
}

TEST_F(Core, PhenEvalCallsTheConnectedShaderWithTheSameState)
{
    mirt::Context ctx;
    const float two = 2.0f, three = 3.0f;
    miTag src1 = mirt::make_function(miSHADER_TEXTURE, source_shader, &two, 4, sizeof(miColor), false, "src1");
    miTag src2 = mirt::make_function(miSHADER_TEXTURE, source_shader, &three, 4, sizeof(miColor), false, "src2");
    ParamBlock pb{{1, 1, 1, 1}, {0.5f, 0.5f, 0.5f, 0.5f}, 7.0f};
    miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &pb, sizeof pb, sizeof(miColor), true, "mat");
    miFunction *f = mirt::function(mat);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->ghost_offs, 36);
    EXPECT_EQ(f->param_size, 36);
    EXPECT_EQ(f->tag, mat);
    EXPECT_STREQ(f->name, "mat");
    mirt::connect(mat, 0, src1);
    mirt::connect(mat, 16, src2);
    const auto *words = reinterpret_cast<const miTag *>(static_cast<char *>(f->params) + f->ghost_offs);
    EXPECT_EQ(words[0], src1);
    EXPECT_EQ(words[1], 0u) << "only the first word of the colour carries the connection";
    EXPECT_EQ(words[4], src2);
    EXPECT_EQ(words[8], 0u);

    miState *s = ctx.begin_state();
    s->shader = f;
    s->point = miVector{1.5f, -4.0f, 0};
    auto *params = static_cast<ParamBlock *>(f->params);
    g_sourceCalls = 0;
    auto *ra = static_cast<miColor *>(mi_phen_eval(s, &params->a));
    auto *rb = static_cast<miColor *>(mi_phen_eval(s, &params->b));
    auto *rk = static_cast<float *>(mi_phen_eval(s, &params->k));
    EXPECT_EQ(g_sourceCalls.load(), 2);
    // both results still valid after evaluating several parameters in a row
    EXPECT_EQ(ra->r, 3.0f);
    EXPECT_EQ(ra->g, -4.0f);
    EXPECT_EQ(ra->b, static_cast<float>(src1));
    EXPECT_EQ(ra->a, static_cast<float>(miSHADER_TEXTURE));
    EXPECT_EQ(rb->r, 4.5f);
    EXPECT_EQ(rb->b, static_cast<float>(src2));
    EXPECT_EQ(rk, &params->k) << "an unconnected parameter is read in place";
    EXPECT_EQ(s->shader, f) << "current shader restored after the call";

    // re-evaluation on a changed state
    s->point.x = 10.0f;
    auto *rc = static_cast<miColor *>(mi_phen_call(s, &params->a));
    EXPECT_EQ(rc->r, 20.0f);
    EXPECT_EQ(s->shader, f);

    // explicitly unconnected word
    const miTag unconnected = miPARAM_UNCONNECTED;
    std::memcpy(static_cast<char *>(f->params) + 16 + f->ghost_offs, &unconnected, 4);
    EXPECT_EQ(mi_phen_eval(s, &params->b), &params->b);

    // connecting an unconnectable shader or a bad offset is refused
    mirt::connect(src1, 0, src2);
    mirt::connect(mat, 2, src2);
    mirt::connect(mat, 36, src2);
    EXPECT_EQ(countLevel(mirt::Level::Error), 3);
    EXPECT_EQ(mirt::function(src1)->has_connections, 0);
    ctx.end_state(s);
}

void init_requesting_nothing(miState *state, void *params, miBoolean *req)
{
    int type = -1;
    if (!params && mi_query(miQ_FUNC_TYPE, state, 0, &type) && type == miSHADER_STATE)
        *req = miFALSE;
}

TEST_F(Core, CallInitSwitchesTheCurrentShader)
{
    mirt::Context ctx;
    miTag st = mirt::make_function(miSHADER_STATE, source_shader, nullptr, 0, 0, false, "st");
    miTag tex = mirt::make_function(miSHADER_TEXTURE, source_shader, nullptr, 0, 0, false, "tex");
    miState *s = ctx.begin_state();
    EXPECT_EQ(s->shader, nullptr);
    int type = 0;
    EXPECT_FALSE(mi_query(miQ_FUNC_TYPE, s, 0, &type)) << "no current shader";
    EXPECT_FALSE(mirt::call_init(s, st, init_requesting_nothing)) << "init cleared the request";
    EXPECT_TRUE(mirt::call_init(s, tex, init_requesting_nothing));
    EXPECT_EQ(s->shader, nullptr);
    ctx.end_state(s);
}

// ------------------------------------------------------------- state life cycle

struct OpLog {
    std::vector<int> ops;
    std::vector<int> returns;
    std::vector<int> types;
    std::vector<miState *> states;
};
OpLog g_ops;

miBoolean logging_state_shader(void *, miState *state, void *, miShader_state_arg *arg)
{
    int type = -1;
    mi_query(miQ_FUNC_TYPE, state, 0, &type);
    g_ops.ops.push_back(arg->op);
    g_ops.returns.push_back(arg->shader_return);
    g_ops.types.push_back(type);
    g_ops.states.push_back(state);
    return arg->op != miSHADERSTATE_SAMPLE_EXIT; // op 3 reports failure
}

miShader_fn as_shader(miStateShader_fn f)
{
    return reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)()>(f));
}

TEST_F(Core, StateLifeCycleRunsStateShadersInOrder)
{
    g_ops = OpLog();
    mirt::Context ctx(4, 3);
    miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
    ctx.add_state_shader(st);
    miState *s = ctx.begin_state(5);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(mirt::context_of(s), &ctx);
    EXPECT_EQ(s->thread, 5);
    EXPECT_EQ(s->camera, &ctx.camera());
    EXPECT_EQ(s->options, &ctx.options());
    EXPECT_EQ(s->camera_inst, ctx.camera_instance());
    EXPECT_NE(s->global_lock, nullptr);
    EXPECT_EQ(s->ior, 1.0f);
    ASSERT_NE(s->spare, nullptr);
    EXPECT_NE(s->spare, s);
    ASSERT_NE(s->tex_list, nullptr);
    s->tex_list[63] = miVector{1, 2, 3}; // 64 texture spaces of storage
    s->derivs[1] = miVector{4, 5, 6};

    miState *other = ctx.begin_state(6);
    EXPECT_EQ(other->global_lock, s->global_lock) << "one process-wide lock";
    EXPECT_NE(other->shaderstate, s->shaderstate);

    s->reflection_level = 2;
    s->type = miRAY_REFLECT;
    ctx.begin_sample(s, 3, 2, 1);
    EXPECT_EQ(s->raster_x, 3);
    EXPECT_EQ(s->raster_y, 2);
    EXPECT_EQ(s->sample_index, 1);
    EXPECT_EQ(s->type, miRAY_EYE);
    EXPECT_EQ(s->reflection_level, 0);
    const miUint off1 = s->qmc_offset;
    ctx.begin_sample(s, 3, 2, 2);
    EXPECT_NE(s->qmc_offset, off1) << "samples of one pixel are decorrelated";
    EXPECT_EQ(ctx.run_state_op(s, miSHADERSTATE_SAMPLE_EXIT, miFALSE), miFALSE);
    ctx.end_sample(s, miTRUE);
    ctx.end_state(s);
    ctx.end_state(other);

    const std::vector<int> ops = {0, 0, 2, 2, 3, 3, 1, 1};
    EXPECT_EQ(g_ops.ops, ops);
    for (int t : g_ops.types)
        EXPECT_EQ(t, miSHADER_STATE);
    EXPECT_EQ(g_ops.returns[4], miFALSE);
    EXPECT_EQ(g_ops.returns[5], miTRUE);
    EXPECT_EQ(g_ops.states[0], s);
    EXPECT_EQ(g_ops.states[1], other);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

TEST_F(Core, ChildStatesCopyTheParentAndOwnTheirStorage)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    s->point = miVector{1, 2, 3};
    s->reflection_level = 1;
    miState *c = mirt::child_state(s);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->parent, s);
    EXPECT_EQ(s->child, c);
    EXPECT_EQ(c->point.z, 3.0f);
    EXPECT_EQ(c->reflection_level, 1);
    EXPECT_EQ(c->shaderstate, s->shaderstate);
    EXPECT_EQ(c->ctx, s->ctx);
    EXPECT_NE(c->tex_list, s->tex_list);
    EXPECT_NE(c->bump_x_list, s->bump_x_list);
    EXPECT_NE(c->derivs, s->derivs);
    EXPECT_NE(c->spare, s->spare);
    ASSERT_NE(c->spare, nullptr);
    // the same parent gets the same frame back
    EXPECT_EQ(mirt::child_state(s), c);
    // a grandchild
    miState *g = mirt::child_state(c);
    EXPECT_EQ(g->parent, c);
    EXPECT_NE(g, c);

    // a copy of the parent made by library code: its own child frame, the
    // original's child is left alone
    miState copy;
    std::memcpy(&copy, s, sizeof copy);
    copy.point.x = 42;
    miState *cc = mirt::child_state(&copy);
    EXPECT_NE(cc, c);
    EXPECT_EQ(cc->point.x, 42.0f);
    EXPECT_EQ(c->point.x, 1.0f);
    EXPECT_EQ(c->parent, s);

    // a hand-made state outside any eye state still gets a child
    miState bare;
    std::memset(&bare, 0, sizeof bare);
    miState *bc = mirt::child_state(&bare);
    ASSERT_NE(bc, nullptr);
    EXPECT_EQ(bc->parent, &bare);
    ctx.end_state(s);
}

TEST_F(Core, CallFunctionGivesStateShadersTheirArgument)
{
    g_ops = OpLog();
    mirt::Context ctx;
    miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
    miState *s = ctx.begin_state();
    miShader_state_arg arg{miSHADERSTATE_SAMPLE_INIT, miTRUE};
    EXPECT_TRUE(mirt::call_function(st, nullptr, s, &arg));
    ASSERT_EQ(g_ops.ops.size(), 1u);
    EXPECT_EQ(g_ops.ops[0], miSHADERSTATE_SAMPLE_INIT);
    EXPECT_EQ(s->shader, nullptr);
    EXPECT_FALSE(mirt::call_function(0, nullptr, s, nullptr));
    ctx.end_state(s);
}

// ------------------------------------------------------------- frame buffers

TEST_F(Core, FrameBufferPutGetAndRejectedIndices)
{
    mirt::Context ctx(4, 3);
    EXPECT_EQ(ctx.add_framebuffer("diffuse"), 1);
    EXPECT_EQ(ctx.add_framebuffer("specular"), 2);
    EXPECT_EQ(ctx.add_framebuffer("diffuse"), 1);
    EXPECT_EQ(ctx.framebuffer_count(), 2);
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 3, 2);
    miColor c{0.25f, 0.5f, 0.75f, 1.0f};
    EXPECT_TRUE(mi_fb_put(s, 2, &c));
    EXPECT_EQ(ctx.fb_pixel(2, 3, 2).g, 0.5f);
    EXPECT_EQ(ctx.fb_pixel(1, 3, 2).g, 0.0f);
    EXPECT_EQ(ctx.fb_pixel(2, 2, 2).g, 0.0f);

    miColor probe{9, 9, 9, 9};
    EXPECT_FALSE(mi_fb_put(s, 0, &c));
    EXPECT_FALSE(mi_fb_put(s, 3, &c));
    EXPECT_FALSE(mi_fb_put(s, -1, &c));
    EXPECT_FALSE(mi_fb_get(s, 0, &probe));
    EXPECT_FALSE(mi_fb_get(s, 3, &probe));
    EXPECT_EQ(probe.r, 9.0f) << "a rejected get leaves the output alone";
    for (int i = 1; i <= 2; ++i)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                if (!(i == 2 && x == 3 && y == 2)) {
                    EXPECT_EQ(ctx.fb_pixel(i, x, y).r, 0.0f);
                }

    EXPECT_TRUE(mi_fb_get(s, 2, &probe));
    EXPECT_EQ(std::memcmp(&probe, &c, sizeof c), 0);
    ctx.set_fb_pixel(1, 3, 2, miColor{1, 2, 3, 4});
    EXPECT_TRUE(mi_fb_get(s, 1, &probe));
    EXPECT_EQ(probe.b, 3.0f);

    // a pixel outside the image is rejected too
    s->raster_x = 4;
    EXPECT_FALSE(mi_fb_put(s, 1, &c));
    ctx.clear_framebuffers();
    EXPECT_EQ(ctx.fb_pixel(2, 3, 2).g, 0.0f);
    ctx.end_state(s);
}

TEST_F(Core, ShaderInterfaceHandlesBalance)
{
    mirt::Context ctx;
    ctx.add_framebuffer("main");
    ctx.add_framebuffer("pass_a");
    ctx.set_string_option("kelu allocate temp data on heap", 1);
    ctx.set_string_option("samples", 7);
    const int base = mirt::shader_interface_outstanding();
    EXPECT_EQ(mi_get_shader_interface(2), nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base);

    mi::shader::Interface *iface = mi_get_shader_interface(3);
    ASSERT_NE(iface, nullptr);
    mi::shader::Framebuffer *fb = iface->accessFramebuffer(ctx.camera().buffertag);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base + 2);
    size_t index = 0;
    EXPECT_TRUE(fb->get_index("pass_a", index));
    EXPECT_EQ(index, 2u);
    index = 77;
    EXPECT_FALSE(fb->get_index("missing", index));
    EXPECT_EQ(index, 77u);
    EXPECT_EQ(fb->count(), 2u);
    EXPECT_EQ(ctx.fb_lookup_count(), 2u);
    EXPECT_EQ(iface->accessFramebuffer(ctx.options_tag()), nullptr) << "not a frame-buffer set";

    mi::shader::Options *opt = iface->getOptions(ctx.options().string_options);
    ASSERT_NE(opt, nullptr);
    bool flag = false;
    int n = 0;
    float f = 0;
    const char *text = nullptr;
    EXPECT_TRUE(opt->get("kelu allocate temp data on heap", &flag));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(opt->get("samples", &n));
    EXPECT_EQ(n, 7);
    EXPECT_TRUE(opt->get("samples", &f));
    EXPECT_EQ(f, 7.0f);
    EXPECT_TRUE(opt->get("samples", &text));
    EXPECT_STREQ(text, "7");
    EXPECT_FALSE(opt->get("absent", &n));
    EXPECT_EQ(iface->getOptions(ctx.camera().buffertag), nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base + 3);

    opt->release();
    iface->releaseFramebuffer(fb, ctx.camera().buffertag);
    iface->release();
    EXPECT_EQ(mirt::shader_interface_outstanding(), base);
}

// ------------------------------------------------------------- quasi-random samples

TEST_F(Core, SampleStopsAtTheCountAndAdvancesTheInstance)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 1, 1);
    const miUint n = 5;
    int i = 0, yielded = 0;
    double xi[2];
    while (mi_sample(xi, &i, s, 2, &n)) {
        ++yielded;
        ASSERT_GE(xi[0], 0.0);
        ASSERT_LT(xi[0], 1.0);
        ASSERT_GE(xi[1], 0.0);
        ASSERT_LT(xi[1], 1.0);
    }
    EXPECT_EQ(yielded, 5);
    EXPECT_EQ(i, 5);
    xi[0] = -1;
    EXPECT_FALSE(mi_sample(xi, &i, s, 2, &n));
    EXPECT_EQ(xi[0], -1.0) << "nothing written once done";
    const miUint zero = 0;
    i = 0;
    EXPECT_FALSE(mi_sample(xi, &i, s, 2, &zero));
    EXPECT_EQ(i, 0);
    // without a count it never stops
    i = 1000000;
    EXPECT_TRUE(mi_sample(xi, &i, s, 2, nullptr));
    EXPECT_EQ(i, 1000001);
    ctx.end_state(s);
}

TEST_F(Core, SamplesAreStratifiedAndDecorrelated)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 2, 5, 3);
    // Dimension 0 fills all 64 strata with its first 64 points, dimension 1
    // all 81 strata with its first 81 points.
    for (auto [dim, count] : {std::pair<int, int>{0, 64}, {1, 81}}) {
        std::vector<int> strata(count, 0);
        int i = 0;
        double xi[2];
        for (int k = 0; k < count; ++k) {
            ASSERT_TRUE(mi_sample(xi, &i, s, 2, nullptr));
            strata[static_cast<size_t>(xi[dim] * count)]++;
        }
        for (int k = 0; k < count; ++k)
            EXPECT_EQ(strata[k], 1) << "dimension " << dim << " stratum " << k;
    }
    // 2-D local discrepancy of 1024 points over anchored boxes on a 32-grid:
    // a low-discrepancy set stays far below random points' ~1/sqrt(N) = 0.03.
    constexpr int N = 1024;
    std::vector<std::array<double, 2>> pts(N);
    int i = 0;
    for (auto &p : pts)
        mi_sample(p.data(), &i, s, 2, nullptr);
    double worst = 0;
    for (int a = 1; a <= 32; ++a)
        for (int b = 1; b <= 32; ++b) {
            double x = a / 32.0, y = b / 32.0;
            int inside = 0;
            for (auto &p : pts)
                inside += p[0] < x && p[1] < y;
            worst = std::max(worst, std::fabs(inside / double(N) - x * y));
        }
    EXPECT_LT(worst, 0.01);

    // the same pixel and sample repeat the sequence; another sample differs
    double a1[3], a2[3], b1[3];
    int ia = 7, ib = 7;
    mi_sample(a1, &ia, s, 3, nullptr);
    ctx.begin_sample(s, 2, 5, 3);
    mi_sample(a2, &ib, s, 3, nullptr);
    EXPECT_EQ(std::memcmp(a1, a2, sizeof a1), 0);
    ctx.begin_sample(s, 2, 5, 4);
    ib = 7;
    mi_sample(b1, &ib, s, 3, nullptr);
    EXPECT_NE(a1[0], b1[0]);
    EXPECT_NE(a1[2], b1[2]);
    ctx.end_state(s);
}

// ------------------------------------------------------------- transforms


TEST_F(Core, TransformsUseRowVectors)
{
    // scale (2, 3, 4), then translate (1, 2, 3); one off-diagonal term m[1] = 1
    const miMatrix m = {2, 1, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 1, 2, 3, 1};
    miVector p{1, 1, 1}, r;
    mi_point_transform(&r, &p, m);
    expectVec(r, 3, 6, 7, kUlps); // x' = 2+1, y' = 1+3+2, z' = 4+3
    mi_vector_transform(&r, &p, m);
    expectVec(r, 2, 4, 4, kUlps);
    mi_vector_transform_T(&r, &p, m);
    expectVec(r, 3, 3, 4, kUlps); // rows of m dotted with v
    // in place
    miVector q{1, 0, 0};
    mi_point_transform(&q, &q, m);
    expectVec(q, 3, 3, 3, kUlps);
    // projective: w = 2 divides
    const miMatrix proj = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0, 1};
    miVector pz{2, 4, 1};
    mi_point_transform(&r, &pz, proj);
    expectVec(r, 1, 2, 0.5f, kUlps);
    // w = 0 is left undivided
    miVector pw{2, 4, -1};
    mi_point_transform(&r, &pw, proj);
    expectVec(r, 2, 4, -1, kUlps);
}

TEST_F(Core, ObjectAndCameraSpaces)
{
    mirt::Context ctx;
    // instance rotated 90 degrees about z (x -> y) and moved
    miTag inst = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    auto *ir = static_cast<miInstance *>(mirt::db_data(inst));
    const miMatrix l2g = {0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1, 0, 5, 6, 7, 1};
    const miMatrix g2l = {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, -6, 5, -7, 1};
    std::memcpy(ir->local_to_global, l2g, sizeof l2g);
    std::memcpy(ir->global_to_local, g2l, sizeof g2l);
    miState *s = ctx.begin_state();
    s->instance = inst;
    miVector x{1, 0, 0}, r;
    mi_vector_from_object(s, &r, &x);
    expectVec(r, 0, 1, 0, kUlps);
    mi_vector_to_object(s, &r, &r);
    expectVec(r, 1, 0, 0, kUlps);

    // camera: identity until moved; vectors ignore the translation
    mi_vector_to_camera(s, &r, &x);
    expectVec(r, 1, 0, 0, kUlps);
    ctx.set_camera_transform(l2g);
    const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx.camera_instance()));
    EXPECT_EQ(ci->local_to_global[12], 5.0f);
    for (int k = 0; k < 16; ++k)
        EXPECT_EQ(ci->global_to_local[k], g2l[k]) << "exact inverse of a rotation, entry " << k;
    // a projective camera matrix goes through the general inverse: M * M^-1 = I
    const miMatrix persp = {2, 0, 0, 0, 0, 1, 1, 0, 0, 0.5f, 1, 1, 1, 0, 0, 2};
    ctx.set_camera_transform(persp);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            double sum = 0;
            for (int k = 0; k < 4; ++k)
                sum += double(persp[r * 4 + k]) * ci->global_to_local[k * 4 + c];
            EXPECT_NEAR(sum, r == c ? 1.0 : 0.0, 1e-6) << r << "," << c;
        }
    ctx.set_camera_transform(l2g);
    mi_vector_from_camera(s, &r, &x);
    expectVec(r, 0, 1, 0, kUlps);
    miVector y{0, 1, 0};
    mi_vector_to_camera(s, &r, &y);
    expectVec(r, 1, 0, 0, kUlps);
    EXPECT_EQ(mirt::db_total_pins(), 0) << "transforms do not pin";
    ctx.end_state(s);
}

// ------------------------------------------------------------- queries

TEST_F(Core, QueriesAnswerFromTheContext)
{
    mirt::Context ctx;
    miState *s = ctx.begin_state();
    int v = -1;
    ASSERT_TRUE(mi_query(miQ_PRECOMPUTE_PASS, s, 0, &v));
    EXPECT_EQ(v, 0);
    ASSERT_TRUE(mi_query(miQ_MOTION_BY_RENDERER, s, 0, &v));
    EXPECT_EQ(v, 1);
    ASSERT_TRUE(mi_query(miQ_FB_RECORDS, s, 0, &v));
    EXPECT_EQ(v, 1);
    ctx.set_query_int(miQ_PRECOMPUTE_PASS, 1);
    ctx.fail_query(miQ_FB_RECORDS);
    ASSERT_TRUE(mi_query(miQ_PRECOMPUTE_PASS, s, 0, &v));
    EXPECT_EQ(v, 1);
    v = -7;
    EXPECT_FALSE(mi_query(miQ_FB_RECORDS, s, 0, &v));
    EXPECT_EQ(v, -7);
    EXPECT_FALSE(mi_query(9999, s, 0, &v));
    EXPECT_FALSE(mi_query(miQ_PRECOMPUTE_PASS, s, 0, nullptr));

    // 12: data items from byte 0, user data from byte 24, nothing else
    const int rec[2] = {31, 32};
    miTag d = mirt::db_create_data(rec, sizeof rec);
    miTag u = mirt::db_create_userdata(rec, sizeof rec, 0);
    void *p = nullptr;
    ASSERT_TRUE(mi_query(miQ_DATA_PARAM, s, d, &p));
    EXPECT_EQ(p, mirt::db_data(d));
    ASSERT_TRUE(mi_query(miQ_DATA_PARAM, nullptr, u, &p));
    EXPECT_EQ(p, static_cast<char *>(mirt::db_data(u)) + 24);
    EXPECT_EQ(static_cast<int *>(p)[1], 32);
    EXPECT_FALSE(mi_query(miQ_DATA_PARAM, s, ctx.camera_tag(), &p));
    EXPECT_FALSE(mi_query(miQ_DATA_PARAM, s, 0, &p));
    EXPECT_EQ(mirt::db_total_pins(), 0);

    // 52: one lock per render, usable
    miState *s2 = ctx.begin_state(1);
    miLock *l1 = nullptr, *l2 = nullptr;
    ASSERT_TRUE(mi_query(miQ_SHADER_CACHE_LOCK, s, 0, &l1));
    ASSERT_TRUE(mi_query(miQ_SHADER_CACHE_LOCK, s2, 0, &l2));
    ASSERT_NE(l1, nullptr);
    ASSERT_NE(*l1, nullptr);
    EXPECT_EQ(l1, l2);
    EXPECT_NE(*l1, s->global_lock) << "not the global lock";
    mi_lock(*l1);
    mi_unlock(*l1);
    mirt::Context other;
    miState *s3 = other.begin_state();
    miLock *l3 = nullptr;
    ASSERT_TRUE(mi_query(miQ_SHADER_CACHE_LOCK, s3, 0, &l3));
    EXPECT_NE(*l3, *l1) << "one lock per render";
    other.end_state(s3);
    // taking the query result itself for the lock is reported, not obeyed
    mi_lock(reinterpret_cast<miLock>(l1));
    mi_unlock(reinterpret_cast<miLock>(l1));
    mi_lock(nullptr);
    EXPECT_EQ(countLevel(mirt::Level::Error), 3);
    EXPECT_NE(*l1, nullptr) << "the lock variable is untouched";
    mi_lock(*l1);
    mi_unlock(*l1);
    ctx.end_state(s2);
    ctx.end_state(s);
}

TEST_F(Core, ResetRefusesWhileARenderIsAlive)
{
    miTag keep;
    {
        mirt::Context ctx;
        keep = mirt::db_create(miSCENE_DATA, 4);
        mirt::reset();
        EXPECT_NE(mirt::db_data(keep), nullptr);
        EXPECT_NE(mirt::db_data(ctx.options_tag()), nullptr);
        EXPECT_EQ(countLevel(mirt::Level::Error), 1);
    }
    mirt::reset();
    EXPECT_EQ(mirt::db_data(keep), nullptr);
}

TEST_F(Core, ContextDefaultsAndItsItems)
{
    miTag opts;
    {
        mirt::Context ctx(16, 9);
        opts = ctx.options_tag();
        const miOptions &o = ctx.options();
        EXPECT_EQ(mi_db_type(opts), miSCENE_OPTIONS);
        EXPECT_EQ(mi_db_type(ctx.camera_tag()), miSCENE_CAMERA);
        EXPECT_EQ(mi_db_type(ctx.camera_instance()), miSCENE_INSTANCE);
        EXPECT_EQ(mi_db_type(ctx.camera().buffertag), miSCENE_FBSET);
        EXPECT_EQ(mi_db_type(o.string_options), miSCENE_STRINGOPTS);
        EXPECT_TRUE(o.trace);
        EXPECT_EQ(o.reflection_depth, 2);
        EXPECT_EQ(o.refraction_depth, 2);
        EXPECT_EQ(o.trace_depth, 4);
        EXPECT_EQ(o.time_contrast.r, 1.0f);
        EXPECT_EQ(o.time_contrast.a, 1.0f);
        EXPECT_EQ(o.finalgather, 0);
        EXPECT_EQ(o.finalgather_rays, 16);
        EXPECT_EQ(ctx.width(), 16);
        EXPECT_EQ(ctx.camera().y_resolution, 9);
        const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx.camera_instance()));
        EXPECT_EQ(ci->item, ctx.camera_tag());
        EXPECT_EQ(ci->local_to_global[0], 1.0f);
        EXPECT_EQ(ci->local_to_global[12], 0.0f);

        // user data goes to the front of the camera chain
        miTag b1 = mirt::db_create_userdata(nullptr, 4, 0);
        miTag b2 = mirt::db_create_userdata(nullptr, 4, 0);
        ctx.attach_camera_userdata(b1);
        ctx.attach_camera_userdata(b2);
        EXPECT_EQ(ctx.camera().userdata, b2);
        EXPECT_EQ(static_cast<miUserdata *>(mirt::db_data(b2))->next_data, b1);
        EXPECT_EQ(static_cast<miUserdata *>(mirt::db_data(b1))->next_data, 0u);
    }
    EXPECT_EQ(mi_db_type(opts), miSCENE_NONE) << "the render's items go with it";
}

// ------------------------------------------------------------- bad input

TEST_F(Core, BadInputIsReportedNotObeyed)
{
    g_ops = OpLog();
    int errors = 0;
    auto newErrors = [&] {
        int now = countLevel(mirt::Level::Error);
        int d = now - errors;
        errors = now;
        return d;
    };
    {
        mirt::Context ctx;
        miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
        ctx.add_state_shader(st);

        // a singular camera transform leaves the inverse at identity
        const miMatrix flat = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ctx.set_camera_transform(flat);
        EXPECT_EQ(newErrors(), 1);
        const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx.camera_instance()));
        for (int k = 0; k < 16; ++k)
            EXPECT_EQ(ci->global_to_local[k], k % 5 == 0 ? 1.0f : 0.0f) << k;

        // ending a child state ends its eye state once
        miState *s = ctx.begin_state();
        miState *c = mirt::child_state(s);
        ctx.end_state(c);
        EXPECT_EQ(newErrors(), 1);
        EXPECT_EQ(std::count(g_ops.ops.begin(), g_ops.ops.end(), miSHADERSTATE_STATE_EXIT), 1);

        // a state of another render is refused and left alive
        mirt::Context other;
        miState *o = other.begin_state();
        ctx.end_state(o);
        EXPECT_EQ(newErrors(), 1);
        EXPECT_EQ(mirt::context_of(o), &other);
        other.end_state(o);
        EXPECT_EQ(newErrors(), 0);

        // parameter evaluation without a current shader, or to a missing shader
        miState *s2 = ctx.begin_state();
        float value = 3.0f;
        EXPECT_EQ(mi_phen_eval(s2, &value), &value);
        EXPECT_EQ(newErrors(), 1);
        miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &value, 4, 16, true, "mat");
        mirt::connect(mat, 0, 999999);
        s2->shader = mirt::function(mat);
        EXPECT_EQ(mi_phen_eval(s2, s2->shader->params), s2->shader->params);
        EXPECT_EQ(newErrors(), 1);

        // sampling from a negative instance
        int i = -1;
        double xi[2];
        EXPECT_FALSE(mi_sample(xi, &i, s2, 2, nullptr));
        EXPECT_EQ(i, -1);
        newErrors();
        // s2 is deliberately not ended: the render reports it and frees it
    }
    EXPECT_EQ(newErrors(), 1);

    // block pools: no element size, no pool
    EXPECT_EQ(mi_mem_int_blkcreate("SDK/coreTestBad", 1, 0), nullptr);
    EXPECT_EQ(mi_mem_blkallocate(nullptr), nullptr);
    mi_mem_blkrelease(nullptr, &errors);
    mi_mem_blkdelete(nullptr); // quietly nothing, like free(NULL)
    EXPECT_EQ(newErrors(), 3);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/coreTestBad"), 0);
}

// ------------------------------------------------------------- threads

// Render threads each run their own eye state through samples: shader state,
// connected parameters, child states and frame-buffer writes stay per thread.
TEST_F(Core, RenderThreadsKeepTheirStatesApart)
{
    constexpr int kThreads = 4, W = 8, H = 8;
    mirt::Context ctx(W, H);
    const int fb = ctx.add_framebuffer("out");
    const float one = 1.0f;
    miTag src = mirt::make_function(miSHADER_TEXTURE, source_shader, &one, 4, sizeof(miColor), false, "src");
    ParamBlock pb{};
    miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &pb, sizeof pb, sizeof(miColor), true, "mat");
    mirt::connect(mat, 0, src);
    std::atomic<int> wrong{0};
    std::vector<std::thread> th;
    for (int t = 0; t < kThreads; ++t)
        th.emplace_back([&, t] {
            miState *s = ctx.begin_state(t);
            for (int y = t; y < H; y += kThreads)
                for (int x = 0; x < W; ++x) {
                    ctx.begin_sample(s, x, y);
                    const int key[2] = {x, y};
                    mi_shaderstate_set(s, "pixel", key, sizeof key, 2);
                    miState *c = mirt::child_state(s);
                    c->point = miVector{float(x), float(y), 0};
                    c->shader = mirt::function(mat);
                    auto *r = static_cast<miColor *>(mi_phen_eval(c, c->shader->params));
                    const int *back = static_cast<int *>(mi_shaderstate_get(c, "pixel", nullptr));
                    if (r->r != float(x) || r->g != float(y) || back[0] != x || back[1] != y)
                        wrong.fetch_add(1);
                    miColor out{r->r, r->g, float(t), 1};
                    if (!mi_fb_put(s, fb, &out))
                        wrong.fetch_add(1);
                    ctx.end_sample(s, miTRUE);
                }
            ctx.end_state(s);
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(wrong.load(), 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const miColor c = ctx.fb_pixel(fb, x, y);
            EXPECT_EQ(c.r, float(x));
            EXPECT_EQ(c.g, float(y));
            EXPECT_EQ(c.b, float(y % kThreads));
        }
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

} // namespace
