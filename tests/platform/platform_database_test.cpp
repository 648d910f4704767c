// The renderer runtime core. The database: pins, item layouts, concurrent access.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
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

} // namespace
