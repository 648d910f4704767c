#include "meshes.h"

#include <cmath>

namespace druxhost {

mirt::Mesh makeBox(float sx, float sy, float sz)
{
    mirt::Mesh m;
    const miVector h{0.5f * sx, 0.5f * sy, 0.5f * sz};
    /* each face: normal, and two in-face axes u, v with u x v = normal */
    struct Face {
        miVector n, u, v;
    };
    const Face faces[6] = {
        {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}},  {{-1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
        {{0, 1, 0}, {0, 0, 1}, {1, 0, 0}},  {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}},
        {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}},  {{0, 0, -1}, {0, 1, 0}, {1, 0, 0}},
    };
    for (const Face &f : faces) {
        const int base = static_cast<int>(m.P.size());
        const float su[4] = {-1, 1, 1, -1}, sv[4] = {-1, -1, 1, 1};
        for (int k = 0; k < 4; ++k) {
            const miVector p{(f.n.x + su[k] * f.u.x + sv[k] * f.v.x) * h.x,
                             (f.n.y + su[k] * f.u.y + sv[k] * f.v.y) * h.y,
                             (f.n.z + su[k] * f.u.z + sv[k] * f.v.z) * h.z};
            m.P.push_back(p);
            m.N.push_back(f.n);
            m.uv.push_back({0.5f * (su[k] + 1), 0.5f * (sv[k] + 1), 0});
        }
        m.tris.push_back({base, base + 1, base + 2});
        m.tris.push_back({base, base + 2, base + 3});
    }
    return m;
}

mirt::Mesh makeTorus(float R, float r, int segments, int rings)
{
    segments = segments < 3 ? 3 : segments;
    rings = rings < 3 ? 3 : rings;
    const double pi = 3.14159265358979323846;
    mirt::Mesh m;
    /* columns i around the z axis, rows j around the tube; the seams repeat
       the first column/row exactly so that texture space does not wrap */
    for (int i = 0; i <= segments; ++i) {
        const double a = 2.0 * pi * (i % segments) / segments;
        for (int j = 0; j <= rings; ++j) {
            const double b = 2.0 * pi * (j % rings) / rings;
            const double ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b);
            m.P.push_back({float((R + r * cb) * ca), float((R + r * cb) * sa), float(r * sb)});
            m.N.push_back({float(cb * ca), float(cb * sa), float(sb)});
            m.uv.push_back({float(i) / segments, float(j) / rings, 0});
        }
    }
    auto at = [&](int i, int j) { return i * (rings + 1) + j; };
    for (int i = 0; i < segments; ++i)
        for (int j = 0; j < rings; ++j) {
            /* outward: (b - a) x (c - a) along the normal */
            m.tris.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
            m.tris.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
        }
    return m;
}

mirt::Mesh buildMesh(const MeshDesc &d)
{
    switch (d.kind) {
    case MeshKind::Plane:
        return mirt::make_plane(d.a, d.b, d.n, d.m);
    case MeshKind::Sphere:
        return mirt::make_sphere(d.a, d.n, d.m);
    case MeshKind::Box:
        return makeBox(d.a, d.b, d.c);
    case MeshKind::Torus:
        return makeTorus(d.a, d.b, d.n, d.m);
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

} // namespace druxhost
