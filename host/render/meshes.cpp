#include "meshes.h"

#include <array>
#include <cmath>
#include <map>
#include <vector>

namespace druxhost {

void computeVertexNormals(mirt::Mesh &mesh)
{
    const size_t n = mesh.P.size();
    /* one accumulator per distinct position */
    std::map<std::array<float, 3>, size_t> groupOf;
    std::vector<size_t> group(n);
    for (size_t i = 0; i < n; ++i) {
        const miVector &p = mesh.P[i];
        group[i] = groupOf.emplace(std::array<float, 3>{p.x, p.y, p.z}, groupOf.size()).first->second;
    }
    std::vector<std::array<double, 3>> sum(groupOf.size(), {0.0, 0.0, 0.0});
    auto sub = [](const miVector &a, const miVector &b) {
        return std::array<double, 3>{double(a.x) - b.x, double(a.y) - b.y, double(a.z) - b.z};
    };
    auto length = [](const std::array<double, 3> &v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); };
    for (const std::array<int, 3> &t : mesh.tris) {
        if (t[0] < 0 || t[1] < 0 || t[2] < 0 || size_t(t[0]) >= n || size_t(t[1]) >= n || size_t(t[2]) >= n)
            continue;
        const miVector &a = mesh.P[size_t(t[0])], &b = mesh.P[size_t(t[1])], &c = mesh.P[size_t(t[2])];
        const std::array<double, 3> e1 = sub(b, a), e2 = sub(c, a);
        std::array<double, 3> f{e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                e1[0] * e2[1] - e1[1] * e2[0]};
        const double len = length(f);
        if (!(len > 0.0))
            continue;
        for (double &x : f)
            x /= len;
        const miVector *corner[3] = {&a, &b, &c};
        for (int k = 0; k < 3; ++k) {
            const std::array<double, 3> u = sub(*corner[(k + 1) % 3], *corner[k]),
                                        v = sub(*corner[(k + 2) % 3], *corner[k]);
            const double lu = length(u), lv = length(v);
            if (!(lu > 0.0 && lv > 0.0))
                continue;
            double cosine = (u[0] * v[0] + u[1] * v[1] + u[2] * v[2]) / (lu * lv);
            cosine = cosine < -1.0 ? -1.0 : cosine > 1.0 ? 1.0 : cosine;
            const double angle = std::acos(cosine);
            std::array<double, 3> &s = sum[group[size_t(t[k])]];
            for (int j = 0; j < 3; ++j)
                s[j] += angle * f[j];
        }
    }
    mesh.N.assign(n, miVector{0, 0, 1});
    for (size_t i = 0; i < n; ++i) {
        const std::array<double, 3> &s = sum[group[i]];
        const double len = length(s);
        if (len > 0.0)
            mesh.N[i] = miVector{float(s[0] / len), float(s[1] / len), float(s[2] / len)};
    }
}

namespace {

mirt::Mesh meshOf(const MeshDesc &d)
{
    switch (d.kind) {
    case MeshKind::Plane:
        return mirt::make_plane(d.a, d.b, d.n, d.m);
    case MeshKind::Sphere:
        return mirt::make_sphere(d.a, d.n, d.m);
    case MeshKind::Box:
        return mirt::make_box(d.a, d.b, d.c);
    case MeshKind::Torus:
        return mirt::make_torus(d.a, d.b, d.n, d.m);
    case MeshKind::Triangles:
    case MeshKind::Obj: {
        mirt::Mesh m;
        m.P = d.P;
        m.N = d.N;
        m.uv = d.uv;
        m.tris = d.tris;
        return m;
    }
    }
    return mirt::Mesh();
}

} // namespace

mirt::Mesh buildMesh(const MeshDesc &d)
{
    mirt::Mesh m = meshOf(d);
    if (d.faceted)
        m.N.clear();
    else if (m.N.empty())
        computeVertexNormals(m);
    return m;
}

} // namespace druxhost
