// The renderer runtime core. Locks and random numbers.
#include "runtime.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

class Core : public RuntimeTest {};

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

} // namespace
