/*
 * The host's mesh makers: normals of the generated meshes.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "host_test_scene.h"

namespace {

// A sphere given without normals gets smooth ones within half a degree of
// the analytic normal P / |P| everywhere (its faces are 11 degrees apart),
// poles and the texture seam included; faceted
// keeps it flat, given normals are kept.
TEST(HostMeshes, SmoothNormalsOfASphereWithoutNormals)
{
    const mirt::Mesh sphere = mirt::make_sphere(2.0f, 32, 16);
    MeshDesc d;
    d.name = "ball";
    d.kind = MeshKind::Triangles;
    d.P = sphere.P;
    d.tris = sphere.tris;
    const mirt::Mesh m = buildMesh(d);
    ASSERT_EQ(m.N.size(), m.P.size());
    double worst = 0.0;
    for (size_t i = 0; i < m.P.size(); ++i) {
        const miVector &p = m.P[i], &n = m.N[i];
        const double lp = std::sqrt(double(p.x) * p.x + double(p.y) * p.y + double(p.z) * p.z);
        const double ln = std::sqrt(double(n.x) * n.x + double(n.y) * n.y + double(n.z) * n.z);
        EXPECT_NEAR(ln, 1.0, 1e-6) << i;
        const double cosine = (double(p.x) * n.x + double(p.y) * n.y + double(p.z) * n.z) / (lp * ln);
        worst = std::max(worst, std::acos(std::min(1.0, cosine)));
    }
    EXPECT_LT(worst, 0.5 * 3.14159265358979 / 180.0) << "worst angle " << worst * 180 / 3.14159265358979 << " degrees";

    // One triangle's face normal on its own; a stray vertex gets +z;
    // degenerate triangles add nothing; a vertex of a right angle and one of
    // 45 degrees between two faces weigh by those angles.
    mirt::Mesh t;
    t.P = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 5, 5}, {0, 0, 1}};
    t.tris = {{0, 1, 2}, {0, 1, 1}};
    computeVertexNormals(t);
    for (int i = 0; i < 4; ++i)
        expectVec(t.N[i], 0, 0, 1, 0, std::to_string(i).c_str());
    t.tris = {{0, 1, 2}, {0, 1, 4}}; // faces +z and -y meet along the x axis, both at 90 degrees at vertex 0
    computeVertexNormals(t);
    const float h = static_cast<float>(std::sqrt(0.5));
    expectVec(t.N[0], 0, -h, h, 1e-6f);
    EXPECT_NEAR(t.N[1].y, -h, 1e-6f) << "45 degrees in each face at vertex 1";
    EXPECT_NEAR(t.N[2].z, 1.0f, 1e-6f) << "only the +z face at vertex 2";
    // 90 degrees of +z and 45 of -y at vertex 0 (equal areas): (0, -1, 2) / sqrt(5).
    t.P[4] = {1, 0, 1};
    computeVertexNormals(t);
    EXPECT_NEAR(t.N[0].y, -1.0 / std::sqrt(5.0), 1e-6);
    EXPECT_NEAR(t.N[0].z, 2.0 / std::sqrt(5.0), 1e-6);

    d.faceted = true;
    EXPECT_TRUE(buildMesh(d).N.empty());
    d.faceted = false;
    d.N.assign(d.P.size(), miVector{1, 0, 0});
    EXPECT_EQ(buildMesh(d).N[5].x, 1.0f) << "given normals are kept";
    MeshDesc ball;
    ball.kind = MeshKind::Sphere;
    ball.a = 1, ball.n = 8, ball.m = 4;
    ball.faceted = true;
    EXPECT_TRUE(buildMesh(ball).N.empty());
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostMeshes, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
