/*
 * Reading the renderer's geometry records (instance, object, geometry list,
 * box) the way a shader library does, by byte offset.  Shared by the record
 * builder (geometry.cpp) and the traced scene (meshscene.cpp).
 */
#ifndef MI_BOX_RECORDS_H
#define MI_BOX_RECORDS_H

#include "runtime_internal.h"

#include <cstring>

#pragma GCC visibility push(hidden)
namespace mirt {
namespace rt {

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
inline const unsigned char *item(miTag tag, int type, size_t min_size)
{
    if (!tag || mi_db_type(tag) != type || db_size(tag) < min_size)
        return nullptr;
    return static_cast<const unsigned char *>(db_data(tag));
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

inline miVector lerp3(const float *a, const float *b, const float *c, unsigned pos, float w0, float w1, float w2)
{
    return {w0 * a[pos] + w1 * b[pos] + w2 * c[pos], w0 * a[pos + 1] + w1 * b[pos + 1] + w2 * c[pos + 1],
            w0 * a[pos + 2] + w1 * b[pos + 2] + w2 * c[pos + 2]};
}

} // namespace rt
} // namespace mirt
#pragma GCC visibility pop

#endif /* MI_BOX_RECORDS_H */
