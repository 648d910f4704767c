/*
 * Triangle geometry in the renderer's database records.  The meshes come
 * from meshes.cpp or the host; the scene that traces them is meshscene.cpp.
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
 */
#include "geometry.h"
#include "box_records.h"
#include "runtime_internal.h"
#include "vecmath.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace mirt {

using namespace rt;

/* Shared with trace.cpp (queries 94, 95, 116 and light instances). */
bool geom_instance_bounds(miTag instance, miVector &lo, miVector &hi);
bool geom_instance_has_triangles(miTag instance);

/* ================================================================ helpers shared with trace.cpp */


/* Tight internal-space bounds of every vertex of the instance's boxes; an
   object without readable vertices falls back to its own bounding box. */
bool geom_instance_bounds(miTag instance, miVector &lo, miVector &hi)
{
    const miInstance *inst = instance_record(instance);
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
    const miInstance *inst = instance_record(instance);
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

namespace {

/* The mesh's data as the boxes will hold it: optional vertex data that does
   not match the positions is reported and left out rather than read out of
   range; triangles with an index out of range are dropped (with a message),
   so the ordinals of the remaining ones stay in mesh order. */
struct CheckedMesh {
    bool has_n = false, has_uv = false;
    std::vector<std::array<int, 3>> tris;
    std::vector<miVector> dpdu, dpdv; /* per vertex, object space (with uv) */
};

CheckedMesh check_mesh(const Mesh &mesh)
{
    CheckedMesh c;
    const size_t nv = mesh.P.size();
    c.has_n = !mesh.N.empty();
    if (c.has_n && mesh.N.size() != nv) {
        log_message(Level::Error, "build_instance: " + std::to_string(mesh.N.size()) + " normals for " +
                                      std::to_string(nv) + " vertices; normals ignored");
        c.has_n = false;
    }
    c.has_uv = !mesh.uv.empty();
    if (c.has_uv && mesh.uv.size() != nv) {
        log_message(Level::Error, "build_instance: " + std::to_string(mesh.uv.size()) +
                                      " texture coordinates for " + std::to_string(nv) +
                                      " vertices; texture coordinates ignored");
        c.has_uv = false;
    }
    c.tris.reserve(mesh.tris.size());
    size_t dropped = 0;
    for (const auto &t : mesh.tris) {
        bool ok = true;
        for (int i : t)
            ok = ok && i >= 0 && static_cast<size_t>(i) < nv;
        if (ok)
            c.tris.push_back(t);
        else
            ++dropped;
    }
    if (dropped)
        log_message(Level::Error, "build_instance: " + std::to_string(dropped) +
                                      " triangle(s) with vertex indices out of range dropped");
    return c;
}

/* Per-vertex dP/du, dP/dv in object space, averaged over adjacent triangles. */
void uv_derivatives(const Mesh &mesh, CheckedMesh &c)
{
    const size_t nv = mesh.P.size();
    c.dpdu.assign(nv, miVector{0, 0, 0});
    c.dpdv.assign(nv, miVector{0, 0, 0});
    std::vector<miVector> &dpdu = c.dpdu, &dpdv = c.dpdv;
    std::vector<int> count(nv, 0);
    for (const auto &t : c.tris) {
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

/* Vertex record layout (positions in floats). */
struct VertexLayout {
    unsigned vsize = 3, normal_pos = 0, tex_pos = 0, deriv_pos = 0, bump_pos = 0;
};

VertexLayout vertex_layout(const CheckedMesh &c)
{
    VertexLayout l;
    if (c.has_n) {
        l.normal_pos = l.vsize;
        l.vsize += 3;
    }
    if (c.has_uv) {
        l.tex_pos = l.vsize;
        l.deriv_pos = l.vsize + 3;
        l.bump_pos = l.vsize + 9;
        l.vsize += 15;
    }
    return l;
}

/* One vertex record of mesh vertex i. */
void write_vertex(float *r, const Mesh &mesh, const CheckedMesh &c, const VertexLayout &l, int i)
{
    r[0] = mesh.P[i].x;
    r[1] = mesh.P[i].y;
    r[2] = mesh.P[i].z;
    if (c.has_n) {
        r[l.normal_pos] = mesh.N[i].x;
        r[l.normal_pos + 1] = mesh.N[i].y;
        r[l.normal_pos + 2] = mesh.N[i].z;
    }
    if (c.has_uv) {
        r[l.tex_pos] = mesh.uv[i].x;
        r[l.tex_pos + 1] = mesh.uv[i].y;
        r[l.tex_pos + 2] = 0.0f;
        const miVector d[4] = {c.dpdu[i], c.dpdv[i], c.dpdu[i], c.dpdv[i]};
        for (int q = 0; q < 4; ++q) {
            r[l.deriv_pos + 3 * q] = d[q].x;
            r[l.deriv_pos + 3 * q + 1] = d[q].y;
            r[l.deriv_pos + 3 * q + 2] = d[q].z;
        }
    }
}

/* The box of triangles t0..t1 (exclusive).  `remap` (all -1, one per mesh
   vertex) maps mesh vertices to box vertices while the box is written and is
   left all -1 again. */
miTag write_box(const Mesh &mesh, const CheckedMesh &c, const VertexLayout &l, size_t t0, size_t t1,
                std::vector<int> &remap)
{
    /* the vertices this box uses, in order of first use */
    std::vector<int> verts;
    for (size_t t = t0; t < t1; ++t)
        for (int i : c.tris[t])
            if (remap[i] < 0) {
                remap[i] = static_cast<int>(verts.size());
                verts.push_back(i);
            }
    const size_t ntri = t1 - t0;
    const size_t vert_bytes = verts.size() * l.vsize * 4;
    const size_t tri_off = kBoxHeader + vert_bytes;
    const size_t tri_bytes = (1 + 3 * ntri) * 4;
    const size_t texsize_off = tri_off + tri_bytes;
    const size_t total = texsize_off + (c.has_uv ? 8 : 0);

    miTag box = db_create(miSCENE_BOX, total);
    unsigned char *b = static_cast<unsigned char *>(db_data(box));
    b[miBOX_NORMAL_BLEND] = mesh.normal_blend;
    wr<miUint>(b, miBOX_NO_TRIANGLES, static_cast<miUint>(ntri));
    wr<miUint>(b, miBOX_NO_VERTICES, static_cast<miUint>(verts.size()));
    wr<miUshort>(b, miBOX_VERTEX_SIZE, static_cast<miUshort>(l.vsize));
    b[miBOX_NORMAL_POS] = static_cast<miUchar>(l.normal_pos);
    b[miBOX_DERIV_POS] = static_cast<miUchar>(l.deriv_pos);
    b[miBOX_BUMP_POS] = static_cast<miUchar>(l.bump_pos);
    b[miBOX_BUMP_COUNT] = c.has_uv ? 2 : 0;
    b[miBOX_MOTION_POS] = 0;
    b[miBOX_MOTION_COUNT] = 0;
    b[miBOX_TEXTURE_POS] = static_cast<miUchar>(l.tex_pos);
    b[miBOX_TEXTURE_COUNT] = c.has_uv ? 1 : 0;
    wr<miUint>(b, miBOX_TRIANGLES, static_cast<miUint>(tri_off));
    wr<miUint>(b, miBOX_TEXSIZES, c.has_uv ? static_cast<miUint>(texsize_off) : 0u);

    float *vf = reinterpret_cast<float *>(b + kBoxHeader);
    for (size_t k = 0; k < verts.size(); ++k)
        write_vertex(vf + k * l.vsize, mesh, c, l, verts[k]);
    wr<miUint>(b, tri_off, static_cast<miUint>(ntri));
    for (size_t t = 0; t < ntri; ++t)
        for (int k = 0; k < 3; ++k)
            wr<miUint>(b, tri_off + (1 + 3 * t + k) * 4, static_cast<miUint>(remap[c.tris[t0 + t][k]]));
    if (c.has_uv) {
        wr<miUint>(b, texsize_off, 0u);
        wr<miUint>(b, texsize_off + 4, 3u);
    }
    for (int i : verts)
        remap[i] = -1;
    return box;
}

/* Split into boxes of at most triangles_per_box triangles, in order.  An
   object of type 2 holds exactly one box, so it keeps all triangles in one. */
std::vector<miTag> write_boxes(const Mesh &mesh, const CheckedMesh &c, int object_type)
{
    const VertexLayout l = vertex_layout(c);
    size_t per_box = mesh.triangles_per_box > 0 ? static_cast<size_t>(mesh.triangles_per_box) : 0;
    if (per_box == 0) {
        log_message(Level::Error, "build_instance: triangles_per_box " +
                                      std::to_string(mesh.triangles_per_box) + " is not positive; one box made");
        per_box = std::max<size_t>(c.tris.size(), 1);
    }
    if (object_type == 2)
        per_box = std::max<size_t>(c.tris.size(), 1);
    size_t nboxes = (c.tris.size() + per_box - 1) / per_box;
    if (nboxes == 0 && object_type == 2)
        nboxes = 1; /* the object's entry always names a box, possibly empty */
    std::vector<int> remap(mesh.P.size(), -1);
    std::vector<miTag> boxes;
    for (size_t bi = 0; bi < nboxes; ++bi) {
        const size_t t0 = bi * per_box, t1 = std::min(c.tris.size(), t0 + per_box);
        boxes.push_back(write_box(mesh, c, l, t0, t1, remap));
    }
    return boxes;
}

/* Geometry list: every box, in order. */
miTag write_geolist(const std::vector<miTag> &boxes)
{
    miTag tag = db_create(miSCENE_GEOLIST, miGEOLIST_ENTRIES + boxes.size() * miGEOLIST_ENTRY_SIZE);
    unsigned char *g = static_cast<unsigned char *>(db_data(tag));
    wr<int>(g, 0, static_cast<int>(boxes.size()));
    for (size_t i = 0; i < boxes.size(); ++i)
        wr<miTag>(g, miGEOLIST_ENTRIES + i * miGEOLIST_ENTRY_SIZE + miGEOLIST_ENTRY_BOX, boxes[i]);
    return tag;
}

miTag write_object(const Mesh &mesh, const InstanceDesc &desc, const std::vector<miTag> &boxes)
{
    miTag tag = db_create(miSCENE_OBJECT, sizeof(miObject));
    miObject *o = static_cast<miObject *>(db_data(tag));
    o->userdata = desc.userdata;
    o->visible = 1;
    o->type = desc.object_type;
    if (!mesh.P.empty()) {
        o->bbox_min = o->bbox_max = mesh.P[0];
        for (const miVector &p : mesh.P) {
            o->bbox_min = {std::min(o->bbox_min.x, p.x), std::min(o->bbox_min.y, p.y), std::min(o->bbox_min.z, p.z)};
            o->bbox_max = {std::max(o->bbox_max.x, p.x), std::max(o->bbox_max.y, p.y), std::max(o->bbox_max.z, p.z)};
        }
    }
    if (desc.object_type == 2 && !boxes.empty())
        o->box_entry[0] = boxes[0];
    return tag;
}

} // namespace

GeometryTags build_instance(const Mesh &mesh, const InstanceDesc &desc)
{
    GeometryTags tags;
    CheckedMesh checked = check_mesh(mesh);
    if (checked.has_uv)
        uv_derivatives(mesh, checked);
    tags.boxes = write_boxes(mesh, checked, desc.object_type);
    tags.geolist = write_geolist(tags.boxes);
    tags.object = write_object(mesh, desc, tags.boxes);

    tags.instance = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    miInstance *in = static_cast<miInstance *>(db_data(tags.instance));
    set_instance_transform(in, desc.local_to_global,
                           "build_instance: the instance transform is singular; its inverse is left as identity");
    in->material = desc.material;
    in->shadow = desc.shadow;
    in->item = tags.object;
    in->param = desc.param;
    in->geolist = tags.geolist;
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

} // namespace mirt
