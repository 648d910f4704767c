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

/* Simple meshes. */
MI_API Mesh make_plane(float size_x, float size_y, int nx, int ny);   /* z = 0, normal +z */
MI_API Mesh make_sphere(float radius, int segments, int rings);

/* Triangles of instances, traced by brute force (tests: small scenes). */
class MI_API MeshScene : public Scene {
public:
    void add(const GeometryTags &tags);
    bool intersect(const miVector &org, const miVector &dir, double tmin, double tmax,
                   Hit &hit) const override;

private:
    struct Tri {
        miVector a, b, c;
        miVector na, nb, nc;
        bool has_n;
        miTag instance;
        void *box;
        int idx;
    };
    std::vector<Tri> tris_;
};

} // namespace mirt

#endif
