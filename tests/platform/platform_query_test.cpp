// The renderer runtime core. Queries answered from the render context.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

namespace {

class Core : public RuntimeTest {
protected:
    Core() : RuntimeTest(8, 8) {}
};

// ------------------------------------------------------------- queries

TEST_F(Core, QueriesAnswerFromTheContext)
{
    miState *s = beginState();
    int v = -1;
    ASSERT_TRUE(mi_query(miQ_PRECOMPUTE_PASS, s, 0, &v));
    EXPECT_EQ(v, 0);
    ASSERT_TRUE(mi_query(miQ_MOTION_BY_RENDERER, s, 0, &v));
    EXPECT_EQ(v, 1);
    ASSERT_TRUE(mi_query(miQ_FB_RECORDS, s, 0, &v));
    EXPECT_EQ(v, 1);
    ctx->set_query_int(miQ_PRECOMPUTE_PASS, 1);
    ctx->fail_query(miQ_FB_RECORDS);
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
    EXPECT_FALSE(mi_query(miQ_DATA_PARAM, s, ctx->camera_tag(), &p));
    EXPECT_FALSE(mi_query(miQ_DATA_PARAM, s, 0, &p));
    EXPECT_EQ(mirt::db_total_pins(), 0);

    // 52: one lock per render, usable
    miState *s2 = beginState(1);
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
}

} // namespace
