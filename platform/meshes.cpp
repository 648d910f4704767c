/*
 * The renderer's simple meshes (plane, sphere, box, torus) in the layout
 * build_instance takes: positions, normals, texture coordinates, triangles.
 */
#include "geometry.h"

#include <algorithm>
#include <cmath>

namespace mirt {

namespace {

/* Two triangles per cell of a grid of (rows + 1) x (cols + 1) vertices
   stored row by row: (a, b, c) and (a, c, d), a the cell's first corner, c
   the opposite one, b one step to the next row (`row_first`) or column. */
void add_grid_triangles(Mesh &m, int rows, int cols, bool row_first)
{
    for (int r = 0; r < rows; ++r)
        for (int k = 0; k < cols; ++k) {
            const int a = r * (cols + 1) + k, next_row = a + cols + 1, next_col = a + 1;
            const int b = row_first ? next_row : next_col, d = row_first ? next_col : next_row;
            m.tris.push_back({a, b, next_row + 1});
            m.tris.push_back({a, next_row + 1, d});
        }
}

} // namespace

Mesh make_plane(float size_x, float size_y, int nx, int ny)
{
    nx = std::max(nx, 1);
    ny = std::max(ny, 1);
    Mesh m;
    for (int j = 0; j <= ny; ++j)
        for (int i = 0; i <= nx; ++i) {
            const float u = static_cast<float>(i) / nx, v = static_cast<float>(j) / ny;
            m.P.push_back({(u - 0.5f) * size_x, (v - 0.5f) * size_y, 0.0f});
            m.N.push_back({0.0f, 0.0f, 1.0f});
            m.uv.push_back({u, v, 0.0f});
        }
    /* counter-clockwise seen from +z: (b - a) x (c - a) points along +z */
    add_grid_triangles(m, ny, nx, false);
    return m;
}

Mesh make_sphere(float radius, int segments, int rings)
{
    segments = std::max(segments, 3);
    rings = std::max(rings, 2);
    const double pi = 3.14159265358979323846;
    Mesh m;
    /* rows i = 0 (pole +z) .. rings (pole -z), columns j = 0 .. segments (the
       seam duplicated for the texture coordinates); the pole rows hold one
       vertex per segment at the pole itself */
    for (int i = 0; i <= rings; ++i) {
        const double th = pi * i / rings;
        for (int j = 0; j <= segments; ++j) {
            /* the seam column repeats column 0 exactly: no crack between them */
            const double ph = 2.0 * pi * (j % segments) / segments;
            miVector n;
            if (i == 0)
                n = {0.0f, 0.0f, 1.0f};
            else if (i == rings)
                n = {0.0f, 0.0f, -1.0f};
            else
                n = {float(std::sin(th) * std::cos(ph)), float(std::sin(th) * std::sin(ph)), float(std::cos(th))};
            m.P.push_back({radius * n.x, radius * n.y, radius * n.z});
            m.N.push_back(n);
            float u = static_cast<float>(j) / segments;
            if (i == 0 || i == rings)
                u = (j + 0.5f) / segments;
            m.uv.push_back({u, 1.0f - static_cast<float>(i) / rings, 0.0f});
        }
    }
    auto at = [&](int i, int j) { return i * (segments + 1) + j; };
    /* (a, b, c) with b one row further from the +z pole: outward normals */
    for (int i = 0; i < rings; ++i)
        for (int j = 0; j < segments; ++j) {
            if (i != rings - 1)
                m.tris.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
            if (i != 0)
                m.tris.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
        }
    return m;
}

Mesh make_box(float sx, float sy, float sz)
{
    Mesh m;
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

Mesh make_torus(float R, float r, int segments, int rings)
{
    segments = segments < 3 ? 3 : segments;
    rings = rings < 3 ? 3 : rings;
    const double pi = 3.14159265358979323846;
    Mesh m;
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
    /* outward: (b - a) x (c - a) along the normal */
    add_grid_triangles(m, segments, rings, true);
    return m;
}

} // namespace mirt
