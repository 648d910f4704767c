// The renderer runtime core. Shader state: the per-state key table.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

class Core : public RuntimeTest {
protected:
    Core() : RuntimeTest(8, 8) {}
};

// ------------------------------------------------------------- shader state

TEST_F(Core, ShaderStateCopiesReplacesAndRemoves)
{
    miState *s = beginState();
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
    miState *s2 = beginState(1);
    EXPECT_EQ(mi_shaderstate_get(s2, "other", nullptr), nullptr);
    // bad input is refused with a message
    EXPECT_FALSE(mi_shaderstate_set(s2, "x", nullptr, 8, 2));
    EXPECT_EQ(countLevel(mirt::Level::Error), 1);
}

// The store's table: hundreds of keys through growth, removals leaving holes
// that later keys fill, and one buffer reused for other keys (the pointer
// seen before must not answer for the text it now holds).
TEST_F(Core, ShaderStateTableManyKeysRemovalsAndReusedKeyBuffers)
{
    miState *s = ctx->begin_state();
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
    ctx->end_state(s);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

// Two render threads use the same key pointers on their own eye states, set
// through one state of the family and got through another: each thread sees
// only its own values.
TEST_F(Core, ShaderStateSameKeysFromTwoThreads)
{
    static const char *const keys[3] = {"druxFBInfo", "kelubase", "druxPassState"};
    std::atomic<int> wrong{0};
    std::vector<std::thread> th;
    for (int t = 0; t < 2; ++t)
        th.emplace_back([&, t] {
            miState *s = ctx->begin_state(t);
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
            ctx->end_state(s);
        });
    for (auto &x : th)
        x.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

} // namespace
