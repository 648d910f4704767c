/*
 * Triangle geometry in the renderer's database records, and the scene that
 * traces rays against them (Embree).
 *
 * build_instance lays a mesh out exactly as a shader library reads it by byte
 * offset (see shader.h):
 *
 *   instance  global_to_local at 8, local_to_global at 72, material 136,
 *             shadow 140, item (the object) 208, param 216, geometry list 220
 *   object    user data at 0, type at 12, object-space bounding box at 16/28,
 *             one geometry-list entry at 144 (word 0 = box tag) for type 2
 *   geolist   int count at 0, 72-byte entries from byte 8, box tag at entry
 *             byte 64
 *   box       byte 1 normal blend, u32 36 triangle count, u32 40 vertex count,
 *             u16 48 vertex record size in floats, u8 50 normal position,
 *             u8 51 derivative position, u8 53/54 bump position and vector
 *             count, u8 57/58 texture position and space count, u32 88 byte
 *             offset of the triangle list (word 0 = count, triangle i = words
 *             3i+1..3i+3), u32 96 byte offset of the texture-size table,
 *             vertex records from byte 124.
 *
 * Vertex record: position (3 floats), then the vertex normal (3) when the
 * mesh has normals, then when it has texture coordinates: (u, v, 0), the
 * surface derivatives dP/du, dP/dv (6, object space) and one bump basis pair
 * (6, object space; the same two vectors).  The derivatives are derived from
 * the texture coordinates, averaged over the triangles around each vertex, so
 * that shaded points of textured meshes carry derivatives and a bump basis as
 * they would in a production renderer.
 *
 * The MeshScene reads the records back (not the Mesh), so whatever it traces
 * is what the records say; one helper fills a hit from the triangle found.
 */
#include "geometry.h"
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

/* Shared with trace.cpp (queries 94, 95, 116 and light instances). */
bool geom_instance_bounds(miTag instance, miVector &lo, miVector &hi);
bool geom_instance_has_triangles(miTag instance);

namespace {

constexpr size_t kBoxHeader = miBOX_VERTICES; /* vertex floats start here */

template <class T> T rd(const unsigned char *p, size_t off)
{
    T v;
    std::memcpy(&v, p + off, sizeof v);
    return v;
}

template <class T> void wr(unsigned char *p, size_t off, T v)
{
    std::memcpy(p + off, &v, sizeof v);
}


/* An item's data when it exists and has the type (no pin: runtime-internal reads). */
const unsigned char *item(miTag tag, int type, size_t min_size)
{
    if (!tag || mi_db_type(tag) != type || db_size(tag) < min_size)
        return nullptr;
    return static_cast<const unsigned char *>(db_data(tag));
}

const miInstance *instance_rec(miTag tag)
{
    return reinterpret_cast<const miInstance *>(item(tag, miSCENE_INSTANCE, sizeof(miInstance)));
}

/* Visit the box records of an instance the way a renderer finds them: object
   type 2 holds one entry, other types go through the geometry list. */
template <class F> bool for_each_box(const miInstance *inst, F &&visit)
{
    const miObject *obj = reinterpret_cast<const miObject *>(item(inst->item, miSCENE_OBJECT, sizeof(miObject)));
    if (!obj)
        return false;
    auto one = [&](miTag box) {
        const unsigned char *b = item(box, miSCENE_BOX, kBoxHeader);
        if (b)
            visit(b, box);
    };
    if (obj->type == 2) {
        one(obj->box_entry[0]);
        return true;
    }
    const unsigned char *gl = item(inst->geolist, miSCENE_GEOLIST, miGEOLIST_ENTRIES);
    if (!gl)
        return false;
    int n = rd<int>(gl, 0);
    size_t size = db_size(inst->geolist);
    for (int i = 0; i < n; ++i) {
        size_t at = miGEOLIST_ENTRIES + static_cast<size_t>(i) * miGEOLIST_ENTRY_SIZE;
        if (at + miGEOLIST_ENTRY_SIZE > size)
            break;
        one(rd<miTag>(gl, at + miGEOLIST_ENTRY_BOX));
    }
    return true;
}

/* A box's vertex record k and triangle t (vertex indices), bounds checked
   against the record's size. */
struct BoxView {
    const unsigned char *b;
    size_t size;
    unsigned ntri, nvert, vsize, tri_off;

    explicit BoxView(const unsigned char *box, miTag tag)
        : b(box), size(db_size(tag)), ntri(rd<miUint>(box, miBOX_NO_TRIANGLES)),
          nvert(rd<miUint>(box, miBOX_NO_VERTICES)), vsize(rd<miUshort>(box, miBOX_VERTEX_SIZE)),
          tri_off(rd<miUint>(box, miBOX_TRIANGLES))
    {
    }
    bool valid() const
    {
        return vsize >= 3 && kBoxHeader + size_t(nvert) * vsize * 4 <= size &&
               size_t(tri_off) + (1 + size_t(ntri) * 3) * 4 <= size;
    }
    const float *vertex(unsigned k) const
    {
        return reinterpret_cast<const float *>(b + kBoxHeader) + size_t(k) * vsize;
    }
    bool triangle(unsigned t, unsigned idx[3]) const
    {
        for (int c = 0; c < 3; ++c) {
            idx[c] = rd<miUint>(b, tri_off + (1 + size_t(t) * 3 + c) * 4);
            if (idx[c] >= nvert)
                return false;
        }
        return true;
    }
};

miVector lerp3(const float *a, const float *b, const float *c, unsigned pos, float w0, float w1, float w2)
{
    return {w0 * a[pos] + w1 * b[pos] + w2 * c[pos], w0 * a[pos + 1] + w1 * b[pos + 1] + w2 * c[pos + 1],
            w0 * a[pos + 2] + w1 * b[pos + 2] + w2 * c[pos + 2]};
}

} // namespace

/* ================================================================ helpers shared with trace.cpp */


/* Tight internal-space bounds of every vertex of the instance's boxes; an
   object without readable vertices falls back to its own bounding box. */
bool geom_instance_bounds(miTag instance, miVector &lo, miVector &hi)
{
    const miInstance *inst = instance_rec(instance);
    if (!inst)
        return false;
    const float inf = std::numeric_limits<float>::infinity();
    lo = {inf, inf, inf};
    hi = {-inf, -inf, -inf};
    bool any = false;
    auto add = [&](const miVector &p) {
        miVector w;
        mi_point_transform(&w, &p, inst->local_to_global);
        lo = {std::min(lo.x, w.x), std::min(lo.y, w.y), std::min(lo.z, w.z)};
        hi = {std::max(hi.x, w.x), std::max(hi.y, w.y), std::max(hi.z, w.z)};
        any = true;
    };
    if (!for_each_box(inst, [&](const unsigned char *b, miTag tag) {
            BoxView v(b, tag);
            if (!v.valid())
                return;
            for (unsigned k = 0; k < v.nvert; ++k)
                add(vec_at(v.vertex(k), 0));
        }))
        return false;
    if (!any) {
        const miObject *obj =
            reinterpret_cast<const miObject *>(item(inst->item, miSCENE_OBJECT, sizeof(miObject)));
        if (!obj || obj->bbox_min.x > obj->bbox_max.x || obj->bbox_min.y > obj->bbox_max.y ||
            obj->bbox_min.z > obj->bbox_max.z)
            return false;
        for (int c = 0; c < 8; ++c)
            add({(c & 1) ? obj->bbox_max.x : obj->bbox_min.x, (c & 2) ? obj->bbox_max.y : obj->bbox_min.y,
                 (c & 4) ? obj->bbox_max.z : obj->bbox_min.z});
    }
    return any;
}

bool geom_instance_has_triangles(miTag instance)
{
    const miInstance *inst = instance_rec(instance);
    if (!inst)
        return false;
    bool any = false;
    for_each_box(inst, [&](const unsigned char *b, miTag tag) {
        BoxView v(b, tag);
        if (v.valid() && v.ntri > 0)
            any = true;
    });
    return any;
}

/* ================================================================ builder */

GeometryTags build_instance(const Mesh &mesh, const InstanceDesc &desc)
{
    GeometryTags tags;
    const size_t nv = mesh.P.size();

    /* Optional vertex data must match the positions; a mismatch is reported
       and the data left out rather than read out of range. */
    bool has_n = !mesh.N.empty();
    if (has_n && mesh.N.size() != nv) {
        log_message(Level::Error, "build_instance: " + std::to_string(mesh.N.size()) + " normals for " +
                                      std::to_string(nv) + " vertices; normals ignored");
        has_n = false;
    }
    bool has_uv = !mesh.uv.empty();
    if (has_uv && mesh.uv.size() != nv) {
        log_message(Level::Error, "build_instance: " + std::to_string(mesh.uv.size()) +
                                      " texture coordinates for " + std::to_string(nv) +
                                      " vertices; texture coordinates ignored");
        has_uv = false;
    }

    /* Triangles with an index out of range are dropped (with a message), so
       the ordinals of the remaining ones stay in mesh order. */
    std::vector<std::array<int, 3>> tris;
    tris.reserve(mesh.tris.size());
    size_t dropped = 0;
    for (const auto &t : mesh.tris) {
        bool ok = true;
        for (int i : t)
            ok = ok && i >= 0 && static_cast<size_t>(i) < nv;
        if (ok)
            tris.push_back(t);
        else
            ++dropped;
    }
    if (dropped)
        log_message(Level::Error, "build_instance: " + std::to_string(dropped) +
                                      " triangle(s) with vertex indices out of range dropped");

    /* Per-vertex dP/du, dP/dv in object space, averaged over adjacent triangles. */
    std::vector<miVector> dpdu, dpdv;
    if (has_uv) {
        dpdu.assign(nv, miVector{0, 0, 0});
        dpdv.assign(nv, miVector{0, 0, 0});
        std::vector<int> count(nv, 0);
        for (const auto &t : tris) {
            const miVector &p0 = mesh.P[t[0]], &p1 = mesh.P[t[1]], &p2 = mesh.P[t[2]];
            const miVector &t0 = mesh.uv[t[0]], &t1 = mesh.uv[t[1]], &t2 = mesh.uv[t[2]];
            const double du1 = t1.x - t0.x, dv1 = t1.y - t0.y, du2 = t2.x - t0.x, dv2 = t2.y - t0.y;
            const double det = du1 * dv2 - du2 * dv1;
            if (std::fabs(det) < 1e-20)
                continue; /* no parameterisation on this triangle */
            const miVector e1 = sub(p1, p0), e2 = sub(p2, p0);
            const double r = 1.0 / det;
            const miVector u{float((e1.x * dv2 - e2.x * dv1) * r), float((e1.y * dv2 - e2.y * dv1) * r),
                             float((e1.z * dv2 - e2.z * dv1) * r)};
            const miVector v{float((e2.x * du1 - e1.x * du2) * r), float((e2.y * du1 - e1.y * du2) * r),
                             float((e2.z * du1 - e1.z * du2) * r)};
            for (int i : t) {
                dpdu[i] = {dpdu[i].x + u.x, dpdu[i].y + u.y, dpdu[i].z + u.z};
                dpdv[i] = {dpdv[i].x + v.x, dpdv[i].y + v.y, dpdv[i].z + v.z};
                ++count[i];
            }
        }
        for (size_t i = 0; i < nv; ++i)
            if (count[i] > 1) {
                const float inv = 1.0f / count[i];
                dpdu[i] = {dpdu[i].x * inv, dpdu[i].y * inv, dpdu[i].z * inv};
                dpdv[i] = {dpdv[i].x * inv, dpdv[i].y * inv, dpdv[i].z * inv};
            }
    }

    /* Vertex record layout. */
    unsigned vsize = 3;
    const unsigned normal_pos = has_n ? vsize : 0;
    if (has_n)
        vsize += 3;
    unsigned tex_pos = 0, deriv_pos = 0, bump_pos = 0;
    if (has_uv) {
        tex_pos = vsize;
        deriv_pos = vsize + 3;
        bump_pos = vsize + 9;
        vsize += 15;
    }

    /* Split into boxes of at most triangles_per_box triangles, in order.  An
       object of type 2 holds exactly one box, so it keeps all triangles in one. */
    size_t per_box = mesh.triangles_per_box > 0 ? static_cast<size_t>(mesh.triangles_per_box) : 0;
    if (per_box == 0) {
        log_message(Level::Error, "build_instance: triangles_per_box " +
                                      std::to_string(mesh.triangles_per_box) + " is not positive; one box made");
        per_box = std::max<size_t>(tris.size(), 1);
    }
    if (desc.object_type == 2)
        per_box = std::max<size_t>(tris.size(), 1);
    size_t nboxes = (tris.size() + per_box - 1) / per_box;
    if (nboxes == 0 && desc.object_type == 2)
        nboxes = 1; /* the object's entry always names a box, possibly empty */

    std::vector<int> remap(nv, -1);
    for (size_t bi = 0; bi < nboxes; ++bi) {
        const size_t t0 = bi * per_box, t1 = std::min(tris.size(), t0 + per_box);
        /* the vertices this box uses, in order of first use */
        std::vector<int> verts;
        for (size_t t = t0; t < t1; ++t)
            for (int i : tris[t])
                if (remap[i] < 0) {
                    remap[i] = static_cast<int>(verts.size());
                    verts.push_back(i);
                }
        const size_t ntri = t1 - t0;
        const size_t vert_bytes = verts.size() * vsize * 4;
        const size_t tri_off = kBoxHeader + vert_bytes;
        const size_t tri_bytes = (1 + 3 * ntri) * 4;
        const size_t texsize_off = tri_off + tri_bytes;
        const size_t total = texsize_off + (has_uv ? 8 : 0);

        miTag box = db_create(miSCENE_BOX, total);
        unsigned char *b = static_cast<unsigned char *>(db_data(box));
        b[miBOX_NORMAL_BLEND] = mesh.normal_blend;
        wr<miUint>(b, miBOX_NO_TRIANGLES, static_cast<miUint>(ntri));
        wr<miUint>(b, miBOX_NO_VERTICES, static_cast<miUint>(verts.size()));
        wr<miUshort>(b, miBOX_VERTEX_SIZE, static_cast<miUshort>(vsize));
        b[miBOX_NORMAL_POS] = static_cast<miUchar>(normal_pos);
        b[miBOX_DERIV_POS] = static_cast<miUchar>(deriv_pos);
        b[miBOX_BUMP_POS] = static_cast<miUchar>(bump_pos);
        b[miBOX_BUMP_COUNT] = has_uv ? 2 : 0;
        b[miBOX_MOTION_POS] = 0;
        b[miBOX_MOTION_COUNT] = 0;
        b[miBOX_TEXTURE_POS] = static_cast<miUchar>(tex_pos);
        b[miBOX_TEXTURE_COUNT] = has_uv ? 1 : 0;
        wr<miUint>(b, miBOX_TRIANGLES, static_cast<miUint>(tri_off));
        wr<miUint>(b, miBOX_TEXSIZES, has_uv ? static_cast<miUint>(texsize_off) : 0u);

        float *vf = reinterpret_cast<float *>(b + kBoxHeader);
        for (size_t k = 0; k < verts.size(); ++k) {
            float *r = vf + k * vsize;
            const int i = verts[k];
            r[0] = mesh.P[i].x;
            r[1] = mesh.P[i].y;
            r[2] = mesh.P[i].z;
            if (has_n) {
                r[normal_pos] = mesh.N[i].x;
                r[normal_pos + 1] = mesh.N[i].y;
                r[normal_pos + 2] = mesh.N[i].z;
            }
            if (has_uv) {
                r[tex_pos] = mesh.uv[i].x;
                r[tex_pos + 1] = mesh.uv[i].y;
                r[tex_pos + 2] = 0.0f;
                const miVector d[4] = {dpdu[i], dpdv[i], dpdu[i], dpdv[i]};
                for (int q = 0; q < 4; ++q) {
                    r[deriv_pos + 3 * q] = d[q].x;
                    r[deriv_pos + 3 * q + 1] = d[q].y;
                    r[deriv_pos + 3 * q + 2] = d[q].z;
                }
            }
        }
        wr<miUint>(b, tri_off, static_cast<miUint>(ntri));
        for (size_t t = 0; t < ntri; ++t)
            for (int c = 0; c < 3; ++c)
                wr<miUint>(b, tri_off + (1 + 3 * t + c) * 4, static_cast<miUint>(remap[tris[t0 + t][c]]));
        if (has_uv) {
            wr<miUint>(b, texsize_off, 0u);
            wr<miUint>(b, texsize_off + 4, 3u);
        }
        for (int i : verts)
            remap[i] = -1;
        tags.boxes.push_back(box);
    }

    /* Geometry list: every box, in order. */
    tags.geolist = db_create(miSCENE_GEOLIST, miGEOLIST_ENTRIES + tags.boxes.size() * miGEOLIST_ENTRY_SIZE);
    {
        unsigned char *g = static_cast<unsigned char *>(db_data(tags.geolist));
        wr<int>(g, 0, static_cast<int>(tags.boxes.size()));
        for (size_t i = 0; i < tags.boxes.size(); ++i)
            wr<miTag>(g, miGEOLIST_ENTRIES + i * miGEOLIST_ENTRY_SIZE + miGEOLIST_ENTRY_BOX, tags.boxes[i]);
    }

    /* Object. */
    tags.object = db_create(miSCENE_OBJECT, sizeof(miObject));
    {
        miObject *o = static_cast<miObject *>(db_data(tags.object));
        o->userdata = desc.userdata;
        o->visible = 1;
        o->type = desc.object_type;
        if (nv) {
            o->bbox_min = o->bbox_max = mesh.P[0];
            for (const miVector &p : mesh.P) {
                o->bbox_min = {std::min(o->bbox_min.x, p.x), std::min(o->bbox_min.y, p.y),
                               std::min(o->bbox_min.z, p.z)};
                o->bbox_max = {std::max(o->bbox_max.x, p.x), std::max(o->bbox_max.y, p.y),
                               std::max(o->bbox_max.z, p.z)};
            }
        }
        if (desc.object_type == 2 && !tags.boxes.empty())
            o->box_entry[0] = tags.boxes[0];
    }

    /* Instance. */
    tags.instance = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    {
        miInstance *in = static_cast<miInstance *>(db_data(tags.instance));
        std::memcpy(in->local_to_global, desc.local_to_global, sizeof(miMatrix));
        if (!invert_matrix(desc.local_to_global, in->global_to_local)) {
            log_message(Level::Error, "build_instance: the instance transform is singular; its inverse is "
                                      "left as identity");
            for (int i = 0; i < 16; ++i)
                in->global_to_local[i] = (i % 5 == 0) ? 1.0f : 0.0f;
        }
        in->material = desc.material;
        in->shadow = desc.shadow;
        in->item = tags.object;
        in->param = desc.param;
        in->geolist = tags.geolist;
    }
    return tags;
}

void delete_instance(const GeometryTags &tags)
{
    db_delete(tags.instance);
    db_delete(tags.object);
    db_delete(tags.geolist);
    for (miTag b : tags.boxes)
        db_delete(b);
}

/* ================================================================ MeshScene */

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
    const miInstance *inst = instance_rec(tags.instance);
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
