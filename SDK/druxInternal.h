/*
 * Helpers shared by the library's sources; not part of the public header.
 */
#ifndef DRUX_INTERNAL_H
#define DRUX_INTERNAL_H

#include "DruxShaderSDK.h"

#include <cmath>

namespace drux {

/* A shader parameter's value: evaluated through mi_phen_eval when the
   current shader says parameters may be connected and this one is. */
inline bool isConnected(const miState *state, const void *param)
{
    const miFunction *f = state ? state->shader : nullptr;
    if (!f || !f->has_connections || !param)
        return false;
    miTag word = *reinterpret_cast<const miTag *>(static_cast<const char *>(param) + f->ghost_offs);
    return word != 0 && word != miPARAM_UNCONNECTED;
}

template <class T> inline T *eval(miState *state, T *param)
{
    if (isConnected(state, param))
        return static_cast<T *>(mi_phen_eval(state, const_cast<void *>(static_cast<const void *>(param))));
    return param;
}

template <class T> inline T evalValue(miState *state, T *param)
{
    return *eval(state, param);
}

/* Ray depth: reflection plus refraction level. */
inline int rayDepth(const miState *state)
{
    return state->reflection_level + state->refraction_level;
}

/* Side records of the rendering states set up on the calling thread, kept
   apart from everything a host reads or writes (the entries, their padding
   and the shader-state store): which slot block the set-up allocated, with
   how many slots per entry, and which damaged frame-buffer block the state
   has already reported.  A state is found by its shader-state store. */
struct StateSideRecord {
    const void *store;        /* the state's shader-state store; null: free */
    const PassSlot *slotBlock; /* the slot block its set-up allocated, or null */
    miUint slotsPerEntry;     /* slots per entry of that block */
    miTag refusedTag;         /* the damaged block reported for the state, or 0 */
};

/* The calling thread's side record of `store`; with `create`, a new one is
   made (replacing the oldest when the thread's table is full).  Null when
   there is none, or for a null store. */
StateSideRecord *sideRecord(const void *store, bool create);

/* Drops the calling thread's side record of `store`. */
void forgetSideRecord(const void *store);

/* Slots per entry of an entry array that a state set-up on this thread
   allocated (found by entry 0's slot pointer); 0 for any other array, such
   as one a host built itself. */
miUint setUpSlotCount(const FrameBufferInfo *entries);

/* Slot `depth` may be touched.  The library's own arrays are bounded by the
   slots their set-up allocated, so that a trace-depth limit raised after
   the set-up never leads past the block; an array a host built is bounded
   only by what each function itself checks. */
inline bool depthSlotExists(const FrameBufferInfo *entries, int depth)
{
    if (depth < 0)
        return false;
    const miUint n = setUpSlotCount(entries);
    return n == 0 || static_cast<miUint>(depth) < n;
}

/* The host's per-thread record, or null. */
inline BaseShaderState *baseShaderState(miState *state)
{
    return static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));
}

/* ---- vectors (single precision) */
inline miVector vec(float x, float y, float z) { return miVector{x, y, z}; }
inline miVector operator+(miVector a, miVector b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline miVector operator-(miVector a, miVector b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline miVector operator*(miVector a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline miVector operator*(float s, miVector a) { return {a.x * s, a.y * s, a.z * s}; }
inline float dot(miVector a, miVector b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline miVector cross(miVector a, miVector b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(miVector a) { return std::sqrt(dot(a, a)); }
/* Multiply by 1/length; a zero vector stays as it is. */
inline void normalize(miVector &a)
{
    float l = length(a);
    if (l != 0.0f) {
        float inv = 1.0f / l;
        a.x *= inv;
        a.y *= inv;
        a.z *= inv;
    }
}
inline bool negligible(miVector a)
{
    return std::fabs(a.x) < KELU_EPS && std::fabs(a.y) < KELU_EPS && std::fabs(a.z) < KELU_EPS;
}

/* ---- colours */
inline void setColor(miColor &c, const miColor &v) { c = v; }
inline float maxRGB(const miColor &c) { return std::fmax(c.r, std::fmax(c.g, c.b)); }

/* Integer query helper: true when the query succeeded with a non-zero int. */
inline bool queryFlag(int code, miState *state)
{
    int v = 0;
    return mi_query(code, state, 0, &v) && v != 0;
}

} // namespace drux

#endif
