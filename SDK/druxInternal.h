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

/* Number of per-depth slots every entry of the array holds.  The state set-up
   records it in each entry, so a trace-depth limit raised after the set-up
   never lets a depth index reach past the block; an array a host built itself
   carries 0 there and is trusted to hold the current limit + 2 slots.  A
   lowered limit bounds the count as well. */
inline long long depthSlotCount(const miState *state, const FrameBufferInfo *entries)
{
    const long long current = (state && state->options) ? static_cast<long long>(state->options->trace_depth) + 2
                                                        : 0x7FFFFFFFLL;
    const long long given = entries ? static_cast<long long>(entries[0].depthSlots) : 0;
    return (given != 0 && given < current) ? given : current;
}

/* Slot `depth` exists for every entry of the array. */
inline bool depthSlotExists(const miState *state, const FrameBufferInfo *entries, int depth)
{
    return depth >= 0 && depth < depthSlotCount(state, entries);
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
/* Contribution masks read once per eye sample (druxLightLoop.cpp): the
   frame-buffer state shader opens the sample's cache at operation 2 and
   closes it at operation 3 and 1.  Outside an open sample every mask is
   looked up in the database at each use. */
void maskCacheOpen(const miState *state);
void maskCacheClose();

inline bool queryFlag(int code, miState *state)
{
    int v = 0;
    return mi_query(code, state, 0, &v) && v != 0;
}

} // namespace drux

#endif
