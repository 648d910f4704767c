/*
 * Triangle geometry in the renderer's database records.
 *
 * build_instance turns an ordinary triangle mesh into the records a shader
 * library reads by byte offset: an instance (matrix at 72, item at 208, data
 * tag at 216, geometry list at 220), an object (type at 12, single-box entry at
 * 144), a geometry list (type 42) and one or more boxes (see shader.h for the
 * box bytes).  MeshScene traces rays against such instances.
 */
#ifndef MI_GEOMETRY_H
#define MI_GEOMETRY_H

#include "runtime.h"

#include <array>
#include <memory>
#include <vector>

namespace mirt {

struct Mesh {
    std::vector<miVector> P;                /* positions, object space */
    std::vector<miVector> N;                /* optional vertex normals */
    std::vector<miVector> uv;               /* optional texture space 0 (u, v, 0) */
    std::vector<std::array<int, 3>> tris;   /* vertex indices */
    int triangles_per_box = 1 << 30;        /* split into several boxes */
    unsigned char normal_blend = 0;         /* box byte 1 */
};

struct InstanceDesc {
    miMatrix local_to_global = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    int object_type = 0;  /* 0: boxes via the geometry list; 2: one box held in the object */
    miTag material = 0;   /* material shader */
    miTag shadow = 0;     /* shadow shader; 0: opaque */
    miTag param = 0;      /* data tag (query 12), e.g. a contribution mask record */
    miTag userdata = 0;   /* object user-data chain */
};

struct GeometryTags {
    miTag instance = 0, object = 0, geolist = 0;
    std::vector<miTag> boxes;
};

MI_API GeometryTags build_instance(const Mesh &mesh, const InstanceDesc &desc);
MI_API void delete_instance(const GeometryTags &tags);

/* Moeller-Trumbore in double precision, both faces: true when the ray
   org + t * dir meets the triangle (a, b, c) with tmin < t < tmax; (u, v) are
   the barycentric weights of b and c. */
inline bool intersect_triangle(const miVector &a, const miVector &b, const miVector &c, const double org[3],
                               const double dir[3], double tmin, double tmax, double &t, double &u, double &v)
{
    const double e1x = double(b.x) - a.x, e1y = double(b.y) - a.y, e1z = double(b.z) - a.z;
    const double e2x = double(c.x) - a.x, e2y = double(c.y) - a.y, e2z = double(c.z) - a.z;
    const double px = dir[1] * e2z - dir[2] * e2y, py = dir[2] * e2x - dir[0] * e2z, pz = dir[0] * e2y - dir[1] * e2x;
    const double det = e1x * px + e1y * py + e1z * pz;
    if (det > -1e-18 && det < 1e-18)
        return false;
    const double inv = 1.0 / det;
    const double sx = org[0] - a.x, sy = org[1] - a.y, sz = org[2] - a.z;
    u = (sx * px + sy * py + sz * pz) * inv;
    if (u < 0.0 || u > 1.0)
        return false;
    const double qx = sy * e1z - sz * e1y, qy = sz * e1x - sx * e1z, qz = sx * e1y - sy * e1x;
    v = (dir[0] * qx + dir[1] * qy + dir[2] * qz) * inv;
    if (v < 0.0 || u + v > 1.0)
        return false;
    t = (e2x * qx + e2y * qy + e2z * qz) * inv;
    return t > tmin && t < tmax;
}

/* Simple meshes (meshes.cpp). */
MI_API Mesh make_plane(float size_x, float size_y, int nx, int ny);   /* z = 0, normal +z */
MI_API Mesh make_sphere(float radius, int segments, int rings);
/* Box of the given full sizes centred at the origin: 12 triangles, flat
   per-face normals and a unit square of texture space on every face. */
MI_API Mesh make_box(float sx, float sy, float sz);
/* Torus around the z axis: ring radius R, tube radius r. */
MI_API Mesh make_torus(float R, float r, int segments, int rings);

/*
 * The triangles of instances, traced with Embree: one scene for all of them,
 * built once (build(), or at the first ray when it was not called) with
 * robust (watertight) triangle tests.  A hit is refined by the exact triangle
 * test above on the triangle found, so distances and barycentrics are the
 * double-precision ones, and filled from the triangle's box record: point,
 * interpolated (and blended) shading normal, geometric normal, texture
 * spaces, bump bases and derivatives.  intersect() is safe from any number
 * of threads once built and neither allocates nor locks.
 */
class MI_API MeshScene : public Scene {
public:
    MeshScene();
    ~MeshScene() override;
    MeshScene(MeshScene &&) noexcept;
    MeshScene &operator=(MeshScene &&) noexcept;

    /* Add an instance's triangles (read back from its records). */
    void add(const GeometryTags &tags);
    /* Build the ray-tracing scene; later add()s rebuild it on the next ray. */
    void build();
    bool intersect(const miVector &org, const miVector &dir, double tmin, double tmax,
                   Hit &hit) const override;
    /* The same answer by testing every triangle with intersect_triangle
       (a reference for tests). */
    bool intersect_exact(const miVector &org, const miVector &dir, double tmin, double tmax, Hit &hit) const;
    size_t triangle_count() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace mirt

#endif
