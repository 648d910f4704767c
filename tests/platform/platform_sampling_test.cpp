// The renderer runtime core. Quasi-random samples and transforms.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

class Core : public RuntimeTest {
protected:
    Core() : RuntimeTest(8, 8) {}
};

// ------------------------------------------------------------- quasi-random samples

TEST_F(Core, SampleStopsAtTheCountAndAdvancesTheInstance)
{
    miState *s = beginState();
    ctx->begin_sample(s, 1, 1);
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
}

TEST_F(Core, SamplesAreStratifiedAndDecorrelated)
{
    miState *s = beginState();
    ctx->begin_sample(s, 2, 5, 3);
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
    ctx->begin_sample(s, 2, 5, 3);
    mi_sample(a2, &ib, s, 3, nullptr);
    EXPECT_EQ(std::memcmp(a1, a2, sizeof a1), 0);
    ctx->begin_sample(s, 2, 5, 4);
    ib = 7;
    mi_sample(b1, &ib, s, 3, nullptr);
    EXPECT_NE(a1[0], b1[0]);
    EXPECT_NE(a1[2], b1[2]);
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
    // instance rotated 90 degrees about z (x -> y) and moved
    miTag inst = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    auto *ir = static_cast<miInstance *>(mirt::db_data(inst));
    const miMatrix l2g = {0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1, 0, 5, 6, 7, 1};
    const miMatrix g2l = {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, -6, 5, -7, 1};
    std::memcpy(ir->local_to_global, l2g, sizeof l2g);
    std::memcpy(ir->global_to_local, g2l, sizeof g2l);
    miState *s = beginState();
    s->instance = inst;
    miVector x{1, 0, 0}, r;
    mi_vector_from_object(s, &r, &x);
    expectVec(r, 0, 1, 0, kUlps);
    mi_vector_to_object(s, &r, &r);
    expectVec(r, 1, 0, 0, kUlps);

    // camera: identity until moved; vectors ignore the translation
    mi_vector_to_camera(s, &r, &x);
    expectVec(r, 1, 0, 0, kUlps);
    ctx->set_camera_transform(l2g);
    const auto *ci = static_cast<const miInstance *>(mirt::db_data(ctx->camera_instance()));
    EXPECT_EQ(ci->local_to_global[12], 5.0f);
    for (int k = 0; k < 16; ++k)
        EXPECT_EQ(ci->global_to_local[k], g2l[k]) << "exact inverse of a rotation, entry " << k;
    // a projective camera matrix goes through the general inverse: M * M^-1 = I
    const miMatrix persp = {2, 0, 0, 0, 0, 1, 1, 0, 0, 0.5f, 1, 1, 1, 0, 0, 2};
    ctx->set_camera_transform(persp);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            double sum = 0;
            for (int k = 0; k < 4; ++k)
                sum += double(persp[r * 4 + k]) * ci->global_to_local[k * 4 + c];
            EXPECT_NEAR(sum, r == c ? 1.0 : 0.0, 1e-6) << r << "," << c;
        }
    ctx->set_camera_transform(l2g);
    mi_vector_from_camera(s, &r, &x);
    expectVec(r, 0, 1, 0, kUlps);
    miVector y{0, 1, 0};
    mi_vector_to_camera(s, &r, &y);
    expectVec(r, 1, 0, 0, kUlps);
    EXPECT_EQ(mirt::db_total_pins(), 0) << "transforms do not pin";
}

} // namespace
