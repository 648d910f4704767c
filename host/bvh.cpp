#include "bvh.h"

#include "host_math.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace druxhost {

namespace {

constexpr int kLeafSize = 4;
constexpr int kBins = 16;
constexpr int kMaxDepth = 60;

template <class T> T rd(const unsigned char *p, size_t off)
{
    T v;
    std::memcpy(&v, p + off, sizeof v);
    return v;
}


miVector lerp3(const float *a, const float *b, const float *c, unsigned pos, float w0, float w1, float w2)
{
    return {w0 * a[pos] + w1 * b[pos] + w2 * c[pos], w0 * a[pos + 1] + w1 * b[pos + 1] + w2 * c[pos + 1],
            w0 * a[pos + 2] + w1 * b[pos + 2] + w2 * c[pos + 2]};
}

const unsigned char *item(miTag tag, int type, size_t minSize)
{
    if (!tag || mi_db_type(tag) != type || mirt::db_size(tag) < minSize)
        return nullptr;
    return static_cast<const unsigned char *>(mirt::db_data(tag));
}

struct Box3 {
    float lo[3] = {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                   std::numeric_limits<float>::infinity()};
    float hi[3] = {-std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                   -std::numeric_limits<float>::infinity()};
    void grow(const miVector &p)
    {
        const float v[3] = {p.x, p.y, p.z};
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], v[k]);
            hi[k] = std::max(hi[k], v[k]);
        }
    }
    void grow(const Box3 &b)
    {
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], b.lo[k]);
            hi[k] = std::max(hi[k], b.hi[k]);
        }
    }
    float area() const
    {
        const float dx = hi[0] - lo[0], dy = hi[1] - lo[1], dz = hi[2] - lo[2];
        if (!(dx >= 0.0f))
            return 0.0f;
        return 2.0f * (dx * dy + dy * dz + dz * dx);
    }
};

} // namespace

void BvhScene::add(const mirt::GeometryTags &tags)
{
    const miInstance *inst =
        reinterpret_cast<const miInstance *>(item(tags.instance, miSCENE_INSTANCE, sizeof(miInstance)));
    if (!inst)
        return;
    const miObject *obj = reinterpret_cast<const miObject *>(item(inst->item, miSCENE_OBJECT, sizeof(miObject)));
    if (!obj)
        return;
    /* the boxes, as a renderer finds them: type 2 holds one entry, the others
       go through the instance's geometry list */
    std::vector<miTag> boxes;
    if (obj->type == 2) {
        boxes.push_back(obj->box_entry[0]);
    } else if (const unsigned char *gl = item(inst->geolist, miSCENE_GEOLIST, miGEOLIST_ENTRIES)) {
        const int n = rd<int>(gl, 0);
        const size_t size = mirt::db_size(inst->geolist);
        for (int i = 0; i < n; ++i) {
            const size_t at = miGEOLIST_ENTRIES + static_cast<size_t>(i) * miGEOLIST_ENTRY_SIZE;
            if (at + miGEOLIST_ENTRY_SIZE > size)
                break;
            boxes.push_back(rd<miTag>(gl, at + miGEOLIST_ENTRY_BOX));
        }
    }
    for (miTag bt : boxes) {
        const unsigned char *b = item(bt, miSCENE_BOX, miBOX_VERTICES);
        if (!b)
            continue;
        const size_t size = mirt::db_size(bt);
        const unsigned ntri = rd<miUint>(b, miBOX_NO_TRIANGLES), nvert = rd<miUint>(b, miBOX_NO_VERTICES);
        const unsigned vsize = rd<miUshort>(b, miBOX_VERTEX_SIZE), triOff = rd<miUint>(b, miBOX_TRIANGLES);
        if (vsize < 3 || miBOX_VERTICES + size_t(nvert) * vsize * 4 > size ||
            size_t(triOff) + (1 + size_t(ntri) * 3) * 4 > size)
            continue; /* malformed box */
        const float *vf = reinterpret_cast<const float *>(b + miBOX_VERTICES);
        const unsigned npos = b[miBOX_NORMAL_POS];
        for (unsigned t = 0; t < ntri; ++t) {
            unsigned idx[3];
            bool ok = true;
            for (int c = 0; c < 3; ++c) {
                idx[c] = rd<miUint>(b, triOff + (1 + size_t(t) * 3 + c) * 4);
                ok = ok && idx[c] < nvert;
            }
            if (!ok)
                continue;
            Tri tri;
            miVector *pos[3] = {&tri.a, &tri.b, &tri.c};
            miVector *nrm[3] = {&tri.na, &tri.nb, &tri.nc};
            for (int c = 0; c < 3; ++c) {
                const float *r = vf + size_t(idx[c]) * vsize;
                const miVector p = vec_at(r, 0);
                mi_point_transform(pos[c], &p, inst->local_to_global);
                if (npos) {
                    /* normals transform by the inverse transpose */
                    const miVector n = vec_at(r, npos);
                    mi_vector_transform_T(nrm[c], &n, inst->global_to_local);
                    *nrm[c] = normalized(*nrm[c]);
                } else {
                    *nrm[c] = miVector{0, 0, 0};
                }
            }
            tri.hasNormals = npos != 0;
            tri.instance = tags.instance;
            tri.box = b;
            tri.idx = static_cast<int>(t);
            tri.local = inst->local_to_global;
            tris_.push_back(tri);
        }
    }
    built_ = false;
}

void BvhScene::build()
{
    nodes_.clear();
    depth_ = 0;
    nodes_.reserve(tris_.size() * 2 + 1);
    std::vector<float> centroids(tris_.size() * 3);
    for (size_t i = 0; i < tris_.size(); ++i) {
        const Tri &t = tris_[i];
        centroids[3 * i] = (t.a.x + t.b.x + t.c.x) / 3.0f;
        centroids[3 * i + 1] = (t.a.y + t.b.y + t.c.y) / 3.0f;
        centroids[3 * i + 2] = (t.a.z + t.b.z + t.c.z) / 3.0f;
    }
    if (!tris_.empty())
        buildNode(0, static_cast<int>(tris_.size()), 1, centroids);
    built_ = true;
}

/* Node over triangles [first, first + count); returns its index.  Splits at
   the cheapest of kBins bin borders per axis by the surface-area heuristic;
   falls back to a median split when every centroid falls into one bin. */
int BvhScene::buildNode(int first, int count, int level, std::vector<float> &centroids)
{
    depth_ = std::max(depth_, level);
    const int index = static_cast<int>(nodes_.size());
    nodes_.push_back(Node{});
    Box3 bounds, cbounds;
    for (int i = first; i < first + count; ++i) {
        const Tri &t = tris_[static_cast<size_t>(i)];
        bounds.grow(t.a);
        bounds.grow(t.b);
        bounds.grow(t.c);
        cbounds.grow(miVector{centroids[3 * size_t(i)], centroids[3 * size_t(i) + 1], centroids[3 * size_t(i) + 2]});
    }
    for (int k = 0; k < 3; ++k) {
        nodes_[size_t(index)].lo[k] = bounds.lo[k];
        nodes_[size_t(index)].hi[k] = bounds.hi[k];
    }
    auto makeLeaf = [&]() {
        nodes_[size_t(index)].first = first;
        nodes_[size_t(index)].count = count;
        nodes_[size_t(index)].axis = 0;
        return index;
    };
    if (count <= kLeafSize || level >= kMaxDepth)
        return makeLeaf();

    /* binned SAH */
    float bestCost = std::numeric_limits<float>::infinity();
    int bestAxis = -1, bestSplit = -1;
    for (int axis = 0; axis < 3; ++axis) {
        const float lo = cbounds.lo[axis], extent = cbounds.hi[axis] - lo;
        if (!(extent > 0.0f))
            continue;
        Box3 bin[kBins];
        int n[kBins] = {};
        const float scale = kBins / extent;
        for (int i = first; i < first + count; ++i) {
            int b = static_cast<int>((centroids[3 * size_t(i) + size_t(axis)] - lo) * scale);
            b = std::min(std::max(b, 0), kBins - 1);
            const Tri &t = tris_[static_cast<size_t>(i)];
            bin[b].grow(t.a);
            bin[b].grow(t.b);
            bin[b].grow(t.c);
            ++n[b];
        }
        float rightArea[kBins];
        int rightCount[kBins];
        Box3 acc;
        int cnt = 0;
        for (int b = kBins - 1; b > 0; --b) {
            acc.grow(bin[b]);
            cnt += n[b];
            rightArea[b] = acc.area();
            rightCount[b] = cnt;
        }
        Box3 left;
        int lc = 0;
        for (int b = 0; b < kBins - 1; ++b) {
            left.grow(bin[b]);
            lc += n[b];
            if (lc == 0 || rightCount[b + 1] == 0)
                continue;
            const float cost = left.area() * lc + rightArea[b + 1] * rightCount[b + 1];
            if (cost < bestCost) {
                bestCost = cost;
                bestAxis = axis;
                bestSplit = b;
            }
        }
    }
    int mid;
    if (bestAxis < 0) {
        /* all centroids coincide: split the list in two */
        if (count <= 2 * kLeafSize)
            return makeLeaf();
        mid = first + count / 2;
        bestAxis = 0;
    } else {
        const float leafCost = bounds.area() * count;
        if (count <= 2 * kLeafSize && bestCost >= leafCost)
            return makeLeaf();
        const float lo = cbounds.lo[bestAxis];
        const float scale = kBins / (cbounds.hi[bestAxis] - lo);
        /* partition: triangles whose bin is <= bestSplit go left */
        int i = first, j = first + count - 1;
        auto binOf = [&](int k) {
            int b = static_cast<int>((centroids[3 * size_t(k) + size_t(bestAxis)] - lo) * scale);
            return std::min(std::max(b, 0), kBins - 1);
        };
        while (i <= j) {
            if (binOf(i) <= bestSplit) {
                ++i;
            } else {
                std::swap(tris_[size_t(i)], tris_[size_t(j)]);
                for (int k = 0; k < 3; ++k)
                    std::swap(centroids[3 * size_t(i) + size_t(k)], centroids[3 * size_t(j) + size_t(k)]);
                --j;
            }
        }
        mid = i;
        if (mid == first || mid == first + count)
            mid = first + count / 2;
    }
    buildNode(first, mid - first, level + 1, centroids);
    const int right = buildNode(mid, first + count - mid, level + 1, centroids);
    nodes_[size_t(index)].first = right;
    nodes_[size_t(index)].count = 0;
    nodes_[size_t(index)].axis = bestAxis;
    return index;
}

bool BvhScene::intersect(const miVector &org, const miVector &dir, double tmin, double tmax, mirt::Hit &hit) const
{
    if (!built_ || nodes_.empty())
        return false;
    const double ox = org.x, oy = org.y, oz = org.z, dx = dir.x, dy = dir.y, dz = dir.z;
    const double inv[3] = {1.0 / dx, 1.0 / dy, 1.0 / dz};
    const bool neg[3] = {dx < 0, dy < 0, dz < 0};
    const double o[3] = {ox, oy, oz};
    const double d3[3] = {dx, dy, dz};

    const Tri *best = nullptr;
    double bestT = tmax, bestU = 0, bestV = 0;

    int stack[2 * kMaxDepth + 8];
    int sp = 0;
    stack[sp++] = 0;
    while (sp > 0) {
        const Node &n = nodes_[size_t(stack[--sp])];
        /* slab test against [tmin, bestT] */
        double t0 = tmin, t1 = bestT;
        bool miss = false;
        for (int k = 0; k < 3 && !miss; ++k) {
            double a = (n.lo[k] - o[k]) * inv[k], b = (n.hi[k] - o[k]) * inv[k];
            if (a > b)
                std::swap(a, b);
            if (std::isnan(a) || std::isnan(b)) {
                /* ray parallel to the slab and on its border: inside when o is within */
                if (o[k] < n.lo[k] || o[k] > n.hi[k])
                    miss = true;
                continue;
            }
            t0 = std::max(t0, a);
            t1 = std::min(t1, b);
            miss = t0 > t1;
        }
        if (miss)
            continue;
        if (n.count > 0) {
            for (int i = n.first; i < n.first + n.count; ++i) {
                const Tri &t = tris_[size_t(i)];
                double d, u, v;
                if (!mirt::intersect_triangle(t.a, t.b, t.c, o, d3, tmin, bestT, d, u, v))
                    continue;
                best = &t;
                bestT = d;
                bestU = u;
                bestV = v;
            }
        } else {
            /* near child last on the stack, so that it is visited first */
            const int l = static_cast<int>(&n - nodes_.data()) + 1, r = n.first;
            if (neg[n.axis]) {
                stack[sp++] = l;
                stack[sp++] = r;
            } else {
                stack[sp++] = r;
                stack[sp++] = l;
            }
        }
    }
    if (!best)
        return false;
    fillHit(*best, bestT, bestU, bestV, org, dir, hit);
    return true;
}

void BvhScene::fillHit(const Tri &t, double dist, double bu, double bv, const miVector &org, const miVector &dir,
                       mirt::Hit &hit) const
{
    const float w1 = static_cast<float>(bu), w2 = static_cast<float>(bv), w0 = 1.0f - w1 - w2;
    hit = mirt::Hit();
    hit.dist = dist;
    hit.instance = t.instance;
    hit.point = {float(org.x + dist * dir.x), float(org.y + dist * dir.y), float(org.z + dist * dir.z)};
    hit.bary[0] = w0;
    hit.bary[1] = w1;
    hit.bary[2] = w2;
    hit.bary[3] = 0.0f;
    hit.normal_geom = normalized(cross(sub(t.b, t.a), sub(t.c, t.a)));
    const unsigned char *b = t.box;
    if (t.hasNormals) {
        miVector n = normalized({w0 * t.na.x + w1 * t.nb.x + w2 * t.nc.x, w0 * t.na.y + w1 * t.nb.y + w2 * t.nc.y,
                                 w0 * t.na.z + w1 * t.nb.z + w2 * t.nc.z});
        if (b[miBOX_NORMAL_BLEND]) {
            const float f = b[miBOX_NORMAL_BLEND] / 255.0f;
            n = normalized(druxhost::add(mul(n, 1.0f - f), mul(hit.normal_geom, f)));
        }
        hit.normal = n;
    } else {
        hit.normal = hit.normal_geom;
    }
    hit.pri = const_cast<unsigned char *>(b);
    hit.pri_idx = t.idx;

    /* texture spaces, bump bases and derivatives from the vertex records */
    const unsigned vsize = rd<miUshort>(b, miBOX_VERTEX_SIZE);
    const unsigned triOff = rd<miUint>(b, miBOX_TRIANGLES);
    unsigned idx[3];
    for (int c = 0; c < 3; ++c)
        idx[c] = rd<miUint>(b, triOff + (1 + size_t(t.idx) * 3 + c) * 4);
    const float *vf = reinterpret_cast<const float *>(b + miBOX_VERTICES);
    const float *ra = vf + size_t(idx[0]) * vsize, *rb = vf + size_t(idx[1]) * vsize,
                *rc = vf + size_t(idx[2]) * vsize;
    const unsigned ntex = b[miBOX_TEXTURE_COUNT];
    if (ntex) {
        const unsigned table = rd<miUint>(b, miBOX_TEXSIZES);
        unsigned pos = b[miBOX_TEXTURE_POS];
        for (unsigned s = 0; s < ntex; ++s) {
            const unsigned size = rd<miUint>(b, table + 4 * (s + 1)) - rd<miUint>(b, table + 4 * s);
            if (s < 4) {
                float v[3] = {0, 0, 0};
                if (size >= 1 && size <= 3)
                    for (unsigned k = 0; k < size; ++k)
                        v[k] = w0 * ra[pos + k] + w1 * rb[pos + k] + w2 * rc[pos + k];
                hit.tex[s] = miVector{v[0], v[1], v[2]};
                hit.num_tex = static_cast<int>(s + 1);
            }
            pos += size;
        }
    }
    const unsigned nbump = b[miBOX_BUMP_COUNT] / 2u;
    for (unsigned k = 0; k < nbump && k < 4; ++k) {
        const unsigned pos = b[miBOX_BUMP_POS] + 6 * k;
        hit.bump_x[k] = lerp3(ra, rb, rc, pos, w0, w1, w2);
        hit.bump_y[k] = lerp3(ra, rb, rc, pos + 3, w0, w1, w2);
        hit.num_bumps = static_cast<int>(k + 1);
    }
    if (const unsigned dpos = b[miBOX_DERIV_POS]) {
        const miVector du = lerp3(ra, rb, rc, dpos, w0, w1, w2), dv = lerp3(ra, rb, rc, dpos + 3, w0, w1, w2);
        mi_vector_transform(&hit.derivs[0], &du, t.local);
        mi_vector_transform(&hit.derivs[1], &dv, t.local);
        hit.has_derivs = true;
    }
}

} // namespace druxhost
