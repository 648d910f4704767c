/*
 * The host's scene tracer: a bounding-volume hierarchy (binned surface-area
 * heuristic) over the triangles of the instances made by mirt::build_instance.
 *
 * Triangles are read back from the instances' box records, as a renderer
 * reads its own geometry, so whatever is traced is what the records say.
 * A hit is filled completely: distance, instance, point, interpolated (and
 * blended) shading normal, geometric normal, barycentrics, the box and the
 * triangle within it, texture spaces, bump bases and surface derivatives.
 */
#ifndef DRUXHOST_BVH_H
#define DRUXHOST_BVH_H

#include "geometry.h"

#include <vector>

namespace druxhost {

class BvhScene : public mirt::Scene {
public:
    /* Add an instance's triangles (before build()). */
    void add(const mirt::GeometryTags &tags);
    /* Build the hierarchy; call once after the last add(). */
    void build();

    bool intersect(const miVector &org, const miVector &dir, double tmin, double tmax,
                   mirt::Hit &hit) const override;

    size_t triangleCount() const { return tris_.size(); }
    size_t nodeCount() const { return nodes_.size(); }
    int depth() const { return depth_; }

private:
    struct Tri {
        miVector a, b, c;     /* internal space */
        miVector na, nb, nc;  /* internal space, unit; zero when the box has none */
        bool hasNormals;
        miTag instance;
        const unsigned char *box;
        int idx;              /* triangle within the box */
        const float *local;   /* instance local-to-global matrix (derivatives) */
    };
    struct Node {
        float lo[3], hi[3];
        int first;  /* leaf: first triangle; inner: right child (left is this + 1) */
        int count;  /* leaf: triangle count > 0; inner: 0 */
        int axis;   /* inner: split axis (near child first) */
    };

    int buildNode(int first, int count, int level, std::vector<float> &centroids);
    void fillHit(const Tri &t, double dist, double u, double v, const miVector &org, const miVector &dir,
                 mirt::Hit &hit) const;

    std::vector<Tri> tris_;
    std::vector<Node> nodes_;
    int depth_ = 0;
    bool built_ = false;
};

} // namespace druxhost

#endif
