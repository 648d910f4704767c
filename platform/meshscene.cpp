/*
 * The scene that traces rays against the geometry records (Embree).  It
 * reads the records back (not the Mesh), so whatever it traces is what the
 * records say; one helper fills a hit from the triangle found.
 */
#include "geometry.h"
#include "box_records.h"
#include "runtime_internal.h"
#include "vecmath.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>

namespace mirt {

using namespace rt;

namespace {

/* The Embree device of the process, made at the first scene and kept.
   Sanitizer builds run Embree on the calling thread only: its own worker
   threads are not instrumented, so their synchronisation is invisible to
   ThreadSanitizer. */
RTCDevice embree_device()
{
    static RTCDevice device = [] {
#if MIRT_ASAN || MIRT_TSAN
        const char *config = "threads=1";
#else
        const char *config = "";
#endif
        RTCDevice d = rtcNewDevice(config);
        if (!d) {
            log_message(Level::Fatal, "Embree: no device (error " + std::to_string(int(rtcGetDeviceError(nullptr))) +
                                          ")");
            return d;
        }
        rtcSetDeviceErrorFunction(
            d,
            [](void *, RTCError code, const char *text) {
                log_message(Level::Error, "Embree error " + std::to_string(int(code)) + ": " + (text ? text : ""));
            },
            nullptr);
        return d;
    }();
    return device;
}

} // namespace

struct MeshScene::Impl {
    struct Tri {
        miVector a, b, c;     /* internal space */
        miVector na, nb, nc;  /* internal space, unit; zero when the box has none */
        bool has_n;
        miTag instance;
        const unsigned char *box;
        int idx;              /* triangle within the box */
        const float *local;   /* the instance's local-to-global matrix (derivatives) */
    };
    std::vector<Tri> tris;
    RTCScene scene = nullptr;
    std::atomic<bool> built{false};
    std::mutex build_mu;

    ~Impl()
    {
        if (scene)
            rtcReleaseScene(scene);
    }
    void commit();
    void fill(const Tri &t, double dist, double u, double v, const miVector &org, const miVector &dir, Hit &hit) const;
};

void MeshScene::Impl::commit()
{
    if (scene) {
        rtcReleaseScene(scene);
        scene = nullptr;
    }
    RTCDevice device = embree_device();
    if (!device)
        return;
    scene = rtcNewScene(device);
    rtcSetSceneFlags(scene, RTC_SCENE_FLAG_ROBUST);
    rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_HIGH);
    if (!tris.empty()) {
        RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(g, RTC_BUILD_QUALITY_HIGH);
        float *vb = static_cast<float *>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                                 3 * sizeof(float), 3 * tris.size()));
        unsigned *ib = static_cast<unsigned *>(
            rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), tris.size()));
        if (vb && ib) {
            for (size_t i = 0; i < tris.size(); ++i) {
                const miVector *p[3] = {&tris[i].a, &tris[i].b, &tris[i].c};
                for (int c = 0; c < 3; ++c) {
                    vb[9 * i + 3 * size_t(c)] = p[c]->x;
                    vb[9 * i + 3 * size_t(c) + 1] = p[c]->y;
                    vb[9 * i + 3 * size_t(c) + 2] = p[c]->z;
                    ib[3 * i + size_t(c)] = static_cast<unsigned>(3 * i + size_t(c));
                }
            }
            rtcCommitGeometry(g);
            rtcAttachGeometry(scene, g);
        }
        rtcReleaseGeometry(g);
    }
    rtcCommitScene(scene);
}

MeshScene::MeshScene() : impl_(new Impl) {}
MeshScene::~MeshScene() = default;
MeshScene::MeshScene(MeshScene &&) noexcept = default;
MeshScene &MeshScene::operator=(MeshScene &&) noexcept = default;

size_t MeshScene::triangle_count() const { return impl_ ? impl_->tris.size() : 0; }

void MeshScene::add(const GeometryTags &tags)
{
    if (!impl_)
        impl_.reset(new Impl);
    const miInstance *inst = instance_record(tags.instance);
    if (!inst) {
        log_message(Level::Error, "MeshScene::add: " + std::to_string(tags.instance) + " is not an instance");
        return;
    }
    bool ok = for_each_box(inst, [&](const unsigned char *b, miTag tag) {
        BoxView v(b, tag);
        if (!v.valid()) {
            log_message(Level::Error, "MeshScene::add: box " + std::to_string(tag) + " is malformed; skipped");
            return;
        }
        const unsigned npos = b[miBOX_NORMAL_POS];
        for (unsigned t = 0; t < v.ntri; ++t) {
            unsigned idx[3];
            if (!v.triangle(t, idx))
                continue;
            Impl::Tri tri;
            miVector *pos[3] = {&tri.a, &tri.b, &tri.c};
            miVector *nrm[3] = {&tri.na, &tri.nb, &tri.nc};
            for (int c = 0; c < 3; ++c) {
                const float *r = v.vertex(idx[c]);
                const miVector p = vec_at(r, 0);
                mi_point_transform(pos[c], &p, inst->local_to_global);
                if (npos) {
                    /* normals go by the inverse transpose: n * (M^-1)^T */
                    const miVector n = vec_at(r, npos);
                    mi_vector_transform_T(nrm[c], &n, inst->global_to_local);
                    *nrm[c] = normalized(*nrm[c]);
                } else {
                    *nrm[c] = miVector{0, 0, 0};
                }
            }
            tri.has_n = npos != 0;
            tri.instance = tags.instance;
            tri.box = b;
            tri.idx = static_cast<int>(t);
            tri.local = inst->local_to_global;
            impl_->tris.push_back(tri);
        }
    });
    if (!ok)
        log_message(Level::Error, "MeshScene::add: instance " + std::to_string(tags.instance) +
                                      " has no object or geometry list");
    impl_->built.store(false, std::memory_order_release);
}

void MeshScene::build()
{
    if (!impl_)
        impl_.reset(new Impl);
    std::lock_guard<std::mutex> lk(impl_->build_mu);
    if (impl_->built.load(std::memory_order_acquire))
        return;
    impl_->commit();
    impl_->built.store(true, std::memory_order_release);
}

bool MeshScene::intersect(const miVector &org, const miVector &dir, double tmin, double tmax, Hit &hit) const
{
    if (!impl_)
        return false;
    if (!impl_->built.load(std::memory_order_acquire))
        const_cast<MeshScene *>(this)->build(); /* once, at the first ray */
    /* Embree takes rays from their origin on: a hit behind it (a negative
       tmin) is not reported */
    if (!impl_->scene || impl_->tris.empty() || !(tmax > tmin) || !(tmax > 0.0))
        return false;
    RTCIntersectContext ictx;
    rtcInitIntersectContext(&ictx);
    const double o[3] = {org.x, org.y, org.z}, d[3] = {dir.x, dir.y, dir.z};
    const double inf = std::numeric_limits<double>::infinity();
    float tnear = tmin > 0.0 ? static_cast<float>(tmin) : 0.0f;
    /* Embree finds the nearest triangle in single precision; the exact test
       on it gives the distance and barycentrics in double precision.  A
       triangle the exact test puts at or before tmin (the surface a ray
       leaves) is stepped over by asking again from just beyond it; one it
       puts at or beyond tmax is no hit; one it misses by a hair at an edge
       keeps Embree's own values. */
    for (int attempt = 0; attempt < 8; ++attempt) {
        RTCRayHit rh;
        rh.ray.org_x = org.x;
        rh.ray.org_y = org.y;
        rh.ray.org_z = org.z;
        rh.ray.tnear = tnear;
        rh.ray.dir_x = dir.x;
        rh.ray.dir_y = dir.y;
        rh.ray.dir_z = dir.z;
        rh.ray.time = 0.0f;
        rh.ray.tfar = static_cast<float>(tmax);
        rh.ray.mask = ~0u;
        rh.ray.id = 0;
        rh.ray.flags = 0;
        rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rh.hit.primID = RTC_INVALID_GEOMETRY_ID;
        rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(impl_->scene, &ictx, &rh);
        if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID || rh.hit.primID >= impl_->tris.size())
            return false;
        const Impl::Tri &t = impl_->tris[rh.hit.primID];
        double dist, u, v;
        if (intersect_triangle(t.a, t.b, t.c, o, d, -inf, inf, dist, u, v)) {
            if (dist >= tmax)
                return false;
            if (dist <= tmin) {
                tnear = std::nextafter(std::max(rh.ray.tfar, tnear), std::numeric_limits<float>::infinity());
                continue;
            }
        } else {
            dist = rh.ray.tfar;
            u = rh.hit.u;
            v = rh.hit.v;
        }
        impl_->fill(t, dist, u, v, org, dir, hit);
        return true;
    }
    return false;
}

bool MeshScene::intersect_exact(const miVector &org, const miVector &dir, double tmin, double tmax, Hit &hit) const
{
    if (!impl_)
        return false;
    const Impl::Tri *best = nullptr;
    double best_t = tmax, best_u = 0, best_v = 0;
    const double o[3] = {org.x, org.y, org.z}, d[3] = {dir.x, dir.y, dir.z};
    for (const Impl::Tri &t : impl_->tris) {
        double tt, u, v;
        if (!intersect_triangle(t.a, t.b, t.c, o, d, tmin, best_t, tt, u, v))
            continue;
        best = &t;
        best_t = tt;
        best_u = u;
        best_v = v;
    }
    if (!best)
        return false;
    impl_->fill(*best, best_t, best_u, best_v, org, dir, hit);
    return true;
}

/* A hit on triangle t at distance `dist`, (u, v) the weights of its second
   and third corner, filled from the box record. */
void MeshScene::Impl::fill(const Tri &t, double dist, double bu, double bv, const miVector &org, const miVector &dir,
                           Hit &hit) const
{
    const float w1 = static_cast<float>(bu), w2 = static_cast<float>(bv), w0 = 1.0f - w1 - w2;
    hit = Hit();
    hit.dist = dist;
    hit.instance = t.instance;
    hit.point = {float(org.x + dist * dir.x), float(org.y + dist * dir.y), float(org.z + dist * dir.z)};
    hit.bary[0] = w0;
    hit.bary[1] = w1;
    hit.bary[2] = w2;
    hit.bary[3] = 0.0f;
    hit.normal_geom = normalized(cross(sub(t.b, t.a), sub(t.c, t.a)));
    const unsigned char *b = t.box;
    if (t.has_n) {
        miVector n = normalized({w0 * t.na.x + w1 * t.nb.x + w2 * t.nc.x, w0 * t.na.y + w1 * t.nb.y + w2 * t.nc.y,
                                 w0 * t.na.z + w1 * t.nb.z + w2 * t.nc.z});
        if (b[miBOX_NORMAL_BLEND]) {
            const float f = b[miBOX_NORMAL_BLEND] / 255.0f;
            n = normalized({(1 - f) * n.x + f * hit.normal_geom.x, (1 - f) * n.y + f * hit.normal_geom.y,
                            (1 - f) * n.z + f * hit.normal_geom.z});
        }
        hit.normal = n;
    } else {
        hit.normal = hit.normal_geom;
    }
    hit.pri = const_cast<unsigned char *>(b);
    hit.pri_idx = t.idx;

    /* texture coordinates, bump basis and derivatives from the vertex records */
    const unsigned vsize = rd<miUshort>(b, miBOX_VERTEX_SIZE);
    const unsigned tri_off = rd<miUint>(b, miBOX_TRIANGLES);
    unsigned idx[3];
    for (int c = 0; c < 3; ++c)
        idx[c] = rd<miUint>(b, tri_off + (1 + size_t(t.idx) * 3 + c) * 4);
    const float *vf = reinterpret_cast<const float *>(b + kBoxHeader);
    const float *ra = vf + size_t(idx[0]) * vsize, *rb = vf + size_t(idx[1]) * vsize, *rc = vf + size_t(idx[2]) * vsize;

    const unsigned ntex = b[miBOX_TEXTURE_COUNT];
    if (ntex) {
        const unsigned table = rd<miUint>(b, miBOX_TEXSIZES);
        unsigned pos = b[miBOX_TEXTURE_POS];
        for (unsigned s = 0; s < ntex; ++s) {
            const unsigned size = rd<miUint>(b, table + 4 * (s + 1)) - rd<miUint>(b, table + 4 * s);
            if (s < 4) {
                miVector v{0, 0, 0};
                if (size >= 1 && size <= 3) {
                    float *out[3] = {&v.x, &v.y, &v.z};
                    for (unsigned k = 0; k < size; ++k)
                        *out[k] = w0 * ra[pos + k] + w1 * rb[pos + k] + w2 * rc[pos + k];
                }
                hit.tex[s] = v;
                hit.num_tex = static_cast<int>(s + 1);
            }
            pos += size;
        }
    }
    const unsigned nbump = b[miBOX_BUMP_COUNT] / 2;
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

} // namespace mirt
