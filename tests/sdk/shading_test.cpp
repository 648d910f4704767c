// Highlight models, area-light helpers and translucence, on real eye and
// secondary-ray states.
#include "DruxShaderSDK.h"
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

miVector unit(double x, double y, double z)
{
    double l = std::sqrt(x * x + y * y + z * z);
    return miVector{float(x / l), float(y / l), float(z / l)};
}

class Shading : public RuntimeTest {
protected:
    miState *state = nullptr;
    Shading() : RuntimeTest(8, 8) {}
    void prepare() override { state = beginState(); }
    // The ray arrives along -view (view points from the surface to the eye).
    void look(miVector view, int type = miRAY_EYE)
    {
        state->dir = miVector{-view.x, -view.y, -view.z};
        state->type = type;
    }
};

// Square [-1,1]^2 at height 1 above the origin, counter-clockwise from +z.
const miVector kSquare[4] = {{1, 1, 1}, {-1, 1, 1}, {-1, -1, 1}, {1, -1, 1}};

TEST(Hair, ClosedFormsAndSymmetry)
{
    const miVector t{1, 0, 0}, side{0, 1, 0}, up{0, 0, 1}, fwd{1, 0, 0}, back{-1, 0, 0};
    EXPECT_EQ(compute_hairtubeshader_specular(&side, &up, &t, 37.0f), 1.0f); // same projection
    EXPECT_EQ(compute_hairtubeshader_specular(&fwd, &back, &t, 3.0f), 0.0f); // projections 1 and -1
    const miVector a{0.5f, 0.8f, 0}, b{-0.5f, 0, 0.8f};
    // s = 0.5: base = 0.25 * (1 - 3) + 1 = 0.5, squared 0.25.
    EXPECT_EQ(compute_hairtubeshader_specular(&a, &b, &t, 2.0f), 0.25f);
    EXPECT_EQ(compute_hairtubeshader_specular(&b, &a, &t, 2.0f), 0.25f);
}

TEST_F(Shading, PhongLobeFloorAndSecondaryRays)
{
    const miVector r{0, 0, 1}, l{3, 0, 4}; // cosine 0.8, |l| = 5
    EXPECT_NEAR(compute_phong_specular(&r, &l, state, 3.0f, 1.0f), 0.512, 1e-6);
    const miVector l2{0, 0, 2};
    EXPECT_FLOAT_EQ(compute_phong_specular(&r, &l2, state, 1000.0f, 1.0f), 1.0f);
    const miVector perp{1, 0, 0}, behind{0, 0, -1}, nan{0, 0, NAN};
    EXPECT_EQ(compute_phong_specular(&r, &perp, state, 2.0f, 1.0f), 0.0f);
    EXPECT_EQ(compute_phong_specular(&r, &behind, state, 2.0f, 1.0f), 0.0f);
    EXPECT_EQ(compute_phong_specular(&r, &nan, state, 2.0f, 1.0f), 0.0f);

    // ln(0.8) * p just below and above -10: the floor only applies below.
    const float pBelow = float(10.5 / -std::log(0.8)), pAbove = float(9.9 / -std::log(0.8));
    EXPECT_EQ(compute_phong_specular(&r, &l, state, pBelow, 1.0f), 4.54e-5f);
    EXPECT_NEAR(compute_phong_specular(&r, &l, state, pAbove, 1.0f), std::exp(-9.9), 1e-9);

    state->type = miRAY_REFLECT;
    EXPECT_EQ(compute_phong_specular(&r, &l, state, pBelow, 0.5f), 4.54e-5f * 0.5f);
    EXPECT_NEAR(compute_phong_specular(&r, &l, state, 3.0f, 2.0f), 1.024, 2e-6);
    EXPECT_EQ(compute_phong_specular(&r, &l2, state, 1.0f, 0.0f), 0.0f);
    EXPECT_EQ(compute_phong_specular(&r, &l2, state, 1.0f, -1.0f), 0.0f);
}

// Torrance-Sparrow in its textbook form: G = min(1, 2 nh nv / vh, 2 nh nl / vh),
// D = (ecc^2 / (nh^2 (ecc^2 - 1) + 1))^2, Schlick-like F, divided by nv.
double blinnReference(miVector L, miVector V, miVector N, double ecc, double rolloff)
{
    double h[3] = {double(L.x) + V.x, double(L.y) + V.y, double(L.z) + V.z};
    double hl = std::sqrt(h[0] * h[0] + h[1] * h[1] + h[2] * h[2]);
    for (double &c : h)
        c /= hl;
    double nh = h[0] * N.x + h[1] * N.y + h[2] * N.z, vh = h[0] * V.x + h[1] * V.y + h[2] * V.z;
    double nl = double(N.x) * L.x + double(N.y) * L.y + double(N.z) * L.z;
    double nv = double(N.x) * V.x + double(N.y) * V.y + double(N.z) * V.z;
    double G = std::min({1.0, 2 * nh * nv / vh, 2 * nh * nl / vh});
    double e2 = ecc * ecc, D = std::pow(e2 / (nh * nh * (e2 - 1) + 1), 2), q = std::pow(1 - vh, 3);
    return ((1 - q) * rolloff + q) * G * D / nv;
}

TEST_F(Shading, BlinnMatchesTorranceSparrowInBothBranches)
{
    const miVector N{0, 0, 1};
    const double angles[] = {0, 20, 45, 70, 85};
    for (double al : angles)
        for (double av : angles)
            for (double ecc : {0.1, 0.3, 0.7}) {
                double ra = al * M_PI / 180, rv = av * M_PI / 180;
                miVector L = unit(std::sin(ra), 0.3 * std::sin(ra), std::cos(ra));
                miVector V = unit(-std::sin(rv), 0, std::cos(rv));
                look(V);
                float nl = L.z, nv = V.z;
                double want = blinnReference(L, V, N, ecc, 0.2);
                float got = compute_blinn_specular(&L, &N, state, nl, nv, float(ecc), 0.2f, 1.0f);
                EXPECT_NEAR(got, want, 1e-4 * want + 1e-7) << al << " " << av << " " << ecc;
            }
}

TEST_F(Shading, BlinnExactCasesAndGuards)
{
    const miVector N{0, 0, 1};
    look(N);
    // Light, view and normal aligned: vh = nh = 1, q = 0, D = 1, g = 1/nv = 1: spec = rolloff.
    EXPECT_EQ(compute_blinn_specular(&N, &N, state, 1, 1, 0.5f, 0.3f, 1), 0.3f);
    // A negative product gives 0, not a negative highlight, even on an eye ray.
    EXPECT_EQ(compute_blinn_specular(&N, &N, state, 1, 1, 0.5f, -1.0f, 1), 0.0f);
    // |ecc^2 - 1| < 1e-5 uses +1e-5 whatever the sign: D = ((k+1)/(nh^2+k))^2, k = 1e5.
    miVector L = unit(std::sin(0.5), 0, std::cos(0.5));
    double nh = std::cos(0.25), k = 1e5, D = std::pow((k + 1) / (nh * nh + k), 2);
    for (float ecc : {1.0f, 0.9999995f}) {
        float got = compute_blinn_specular(&L, &N, state, L.z, 1.0f, ecc, 1.0f, 1.0f);
        double q = std::pow(1 - nh, 3), F = (1 - q) + q;
        EXPECT_NEAR(got, F * D, 3e-7) << ecc; // 2 nh nl <= vh never holds here: g = 1
    }
    // Secondary rays.
    state->type = miRAY_REFRACT;
    EXPECT_EQ(compute_blinn_specular(&N, &N, state, 1, 1, 0.5f, 0.3f, 0.5f), 0.15f);
    EXPECT_EQ(compute_blinn_specular(&N, &N, state, 1, 1, 0.5f, 0.3f, 0.0f), 0.0f);
    // Degenerate dot_nv / vh never give infinities or NaN.
    state->type = miRAY_EYE;
    for (float nv : {0.0f, -0.0f, 1e-30f})
        for (const miVector &l : {N, unit(1, 0, 1), unit(-1, 0, 0.01), miVector{0, 0, -1}}) {
            float got = compute_blinn_specular(&l, &N, state, l.z, nv, 0.3f, 0.5f, 1.0f);
            EXPECT_TRUE(std::isfinite(got) && got >= 0) << nv << " " << got;
        }
}

TEST(AreaLight, LambertianViewFactor)
{
    const miVector o{0, 0, 0}, up{0, 0, 1};
    // Symmetric edges: 4 * 5 * acos(1/3) / sqrt(2); 10x the cosine-weighted solid angle.
    const float f = arealight_lambertian_reflect(&o, &up, kSquare);
    EXPECT_NEAR(f, 17.408395027342063, 2e-5);
    miVector rev[4] = {kSquare[3], kSquare[2], kSquare[1], kSquare[0]};
    EXPECT_NEAR(arealight_lambertian_reflect(&o, &up, rev), -f, 2e-5);

    // An off-axis tilted rectangle against midpoint quadrature of 10 * cos / r^2 dA.
    const miVector p{0.3f, -0.2f, 0.1f}, n = unit(0.2, 0.1, 1);
    const miVector c[4] = {{-0.5f, -1, 1.5f}, {1.5f, -1, 1.9f}, {1.5f, 1, 1.9f}, {-0.5f, 1, 1.5f}};
    const double ex[3] = {2, 0, 0.4}, ey[3] = {0, 2, 0}, ln[3] = {-0.4 / std::sqrt(4.16), 0, 2 / std::sqrt(4.16)};
    double sum = 0;
    const int K = 200;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j < K; ++j) {
            double u = (i + 0.5) / K, v = (j + 0.5) / K, d[3], r2 = 0, cs = 0, cl = 0;
            for (int a = 0; a < 3; ++a) {
                d[a] = (&c[0].x)[a] + u * ex[a] + v * ey[a] - (&p.x)[a];
                r2 += d[a] * d[a];
                cs += d[a] * (&n.x)[a];
                cl -= d[a] * ln[a];
            }
            sum += cs * std::fabs(cl) / (r2 * r2) * (std::sqrt(4.16) * 2.0 / (K * K));
        }
    const float g = arealight_lambertian_reflect(&p, &n, c);
    EXPECT_NEAR(g, 10 * sum, 1e-3 * std::fabs(10 * sum));
    miVector rot[4] = {c[1], c[2], c[3], c[0]};
    EXPECT_NEAR(arealight_lambertian_reflect(&p, &n, rot), g, 1e-5 * std::fabs(g));

    // Degenerate corners (a corner on the point, the point on an edge's line,
    // near-coincident corners) stay finite.
    const miVector onCorner[4] = {o, {2, 0, 1}, {2, 2, 1}, {0, 2, 1}};
    const miVector onEdge[4] = {{-1, 0, 0}, {1, 0, 0}, {1, 1, 1}, {-1, 1, 1}};
    EXPECT_TRUE(std::isfinite(arealight_lambertian_reflect(&o, &up, onCorner)));
    EXPECT_TRUE(std::isfinite(arealight_lambertian_reflect(&o, &up, onEdge)));
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> tiny(-1e-6f, 1e-6f);
    for (int i = 0; i < 2000; ++i) {
        miVector q[4] = {kSquare[0], kSquare[0], kSquare[2], kSquare[3]};
        q[1].x += tiny(rng);
        q[1].y += tiny(rng);
        ASSERT_TRUE(std::isfinite(arealight_lambertian_reflect(&o, &up, q))) << i;
    }
}

class AreaLightDir : public Shading {
protected:
    miTag light = 0;
    // Light square: internal x, y in [-2, 2] at z = 5; local = ((x, y) / 2, z - 5).
    void prepare() override
    {
        Shading::prepare();
        light = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
        miInstance *inst = static_cast<miInstance *>(mirt::db_data(light));
        const miMatrix g2l = {0.5f, 0, 0, 0, 0, 0.5f, 0, 0, 0, 0, 1, 0, 0, 0, -5, 1};
        const miMatrix l2g = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1, 0, 0, 0, 5, 1};
        std::copy(g2l, g2l + 16, inst->global_to_local);
        std::copy(l2g, l2g + 16, inst->local_to_global);
    }
    void finish() override
    {
        mirt::db_delete(light);
        Shading::finish();
    }
};
const miVector kLight[4] = {{2, 2, 5}, {-2, 2, 5}, {-2, -2, 5}, {2, -2, 5}};


TEST_F(AreaLightDir, MirrorHitReturnsMirrorDirection)
{
    const miVector o{0, 0, 0}, r{0.1f, 0.2f, 1.0f};
    // Corners far from the light square along +y: an edge result has y > 0.9.
    const miVector far[4] = {{0, 40, 5}, {1, 40, 5}, {1, 41, 5}, {0, 41, 5}};
    miVector out{9, 9, 9};
    arealight_max_phong_spec_dir(&o, &r, far, light, &out);
    expectVec(out, unit(0.1, 0.2, 1.0), kUlps);
    // Outside the square, behind the point, or with |local z| < 1e-5 (here a
    // crossing at local x = 0.6 just above the point): no hit.
    const miVector edgeHit{0.41f, 0, 1}, away{0.1f, 0.2f, -1}, grazing{1, 0, 4e-6f};
    const miVector nearPlane{0, 0, 4.999995f};
    for (auto [p, d] : {std::pair{o, edgeHit}, std::pair{o, away}, std::pair{nearPlane, grazing}}) {
        out = miVector{9, 9, 9};
        arealight_max_phong_spec_dir(&p, &d, far, light, &out);
        EXPECT_GT(out.y, 0.9f) << d.x << " " << d.z;
    }
}

TEST_F(AreaLightDir, EdgeSearch)
{
    const miVector o{0, 0, 0}, r{3, 0, 5};
    miVector out{9, 9, 9};
    // Mirror ray misses (local x = 1.5); the x = 2 edge's midpoint is closest to r.
    arealight_max_phong_spec_dir(&o, &r, kLight, light, &out);
    expectVec(out, unit(2, 0, 5), kUlps);
    // Pointing away: every edge's stationary point is its midpoint, with equal
    // cosines; the first edge wins the tie.
    const miVector down{0, 0, -1};
    arealight_max_phong_spec_dir(&o, &down, kLight, light, &out);
    expectVec(out, unit(0, 2, 5), kUlps);
    // A collapsed edge (two equal corners) is searched with its zero vector.
    const miVector tri[4] = {{2, 2, 5}, {2, 2, 5}, {-2, -2, 5}, {2, -2, 5}};
    arealight_max_phong_spec_dir(&o, &down, tri, light, &out);
    EXPECT_TRUE(std::isfinite(out.x) && std::isfinite(out.y) && std::isfinite(out.z));
    EXPECT_NEAR(out.x * out.x + out.y * out.y + out.z * out.z, 1.0, 1e-6);
    // Without a light matrix the edge search alone decides, although this
    // mirror ray crosses the square: edge 0 at t = 7.9 / 5.4 is best.
    const miVector hitR{0.1f, 0.2f, 1.0f};
    arealight_max_phong_spec_dir(&o, &hitR, kLight, 0, &out);
    expectVec(out, unit(2 - 7.9 / 5.4, 2, 5), 1e-6f);
}

TEST_F(Shading, TranslucenceFadeAndFocus)
{
    look(miVector{0, 0, -1}); // ray going up (+z)
    const miVector toLight{0, 0, 1};
    auto tr = [&](float nl, float focus, float wrap, const miVector *l = nullptr, const miVector *c = nullptr) {
        return compute_lambert_translucence(state, l, c, nl, 0.8f, focus, wrap);
    };
    EXPECT_EQ(tr(0.0f, 0, 0), 0.0f);
    EXPECT_EQ(tr(-0.5f, 0, 0), 0.0f);
    EXPECT_NEAR(tr(0.075f, 0, 0), 0.4f, 1e-6);     // fade width 0.15
    EXPECT_EQ(tr(0.5f, 0, 0), 0.8f);
    EXPECT_NEAR(tr(-0.04f, 0, 0.02f), 0.4f, 1e-6); // lo = -0.23, width 0.38
    EXPECT_NEAR(tr(-0.65f, 0, 0.1f), 0.4f, 1e-6);  // lo = -1.15, width capped at 1
    EXPECT_EQ(tr(-1.2f, 0, 0.1f), 0.0f);
    // Focus: the light behind the point along the ray passes all, in front none.
    const miVector away{0, 0, -1}, side{1, 0, 0};
    EXPECT_FLOAT_EQ(tr(0.5f, 0.5f, 0, &toLight), 0.8f);
    EXPECT_EQ(tr(0.5f, 0.5f, 0, &away), 0.0f);
    EXPECT_NEAR(tr(0.5f, 0.5f, 0, &side), 0.8 * std::pow(0.5, 0.5 / 0.50001), 1e-6);
    // Corners replace the light direction: the view factor about the ray is
    // +17.4 (clamped to 1), or -17.4 with the winding reversed.
    state->point = miVector{0, 0, 0};
    const miVector rev[4] = {kSquare[3], kSquare[2], kSquare[1], kSquare[0]};
    EXPECT_FLOAT_EQ(tr(0.5f, 0.5f, 0, &away, kSquare), 0.8f);
    EXPECT_EQ(tr(0.5f, 0.5f, 0, &toLight, rev), 0.0f);
}

} // namespace
