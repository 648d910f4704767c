/*
 * Position-keyed scalar and colour ramps.
 *
 * ramp_constructor copies a shader's ramp array parameter (the renderer's
 * array layout: first index, count, element storage) into a caller-owned,
 * fixed-size Ramp record, evaluating connected fields.  Lookups then scan
 * every key for the pair bracketing the position, so keys may come in any
 * order.  Lookups allocate nothing, take no lock and call no renderer
 * function: a filled record may be read by many threads at once.
 */
#include "druxInternal.h"

#include <cstdint>
#include <string>

namespace {

/* Same value as the exported KELU_EPS, kept local for the lookup paths. */
constexpr float kEps = 1e-5f;
constexpr double kPi = 3.141592653589793;

/* The renderer's array parameter: first index, count, then the storage;
   element k of the array is storage element (first + k). */
struct ArrayParam {
    int first;
    int count;
};

inline float maxEps(float v)
{
    return v > kEps ? v : kEps;
}

/*
 * Cubic Hermite segment through (P1, Y1) and (P2, Y2), with slopes taken
 * from the neighbouring keys (P0, Y0) and (P3, Y3).  A missing neighbour is
 * passed as the segment's own end and replaced by its mirror image.  Slopes
 * of very short segments are scaled down so that they cannot overshoot.
 */
float ramp_hermite_interp(float P0, float Y0, float P1, float Y1, float P2, float Y2, float P3,
                          float Y3, float X)
{
    const float D = P2 - P1;
    const float DY = Y2 - Y1;
    if (P0 == P1)
        P0 = P1 - D;
    if (P3 == P2)
        P3 = P2 + D;
    const float M = maxEps(0.2f * D);
    const float T1 = ((Y2 - Y0) * 0.2f * D / maxEps(P2 - P0)) / M;
    const float T2 = ((Y3 - Y1) * 0.2f * D / maxEps(P3 - P1)) / M;
    const float S = X - P1;
    const float D2 = D * D;
    const float Q2 = (3.0f * DY - 2.0f * D * T1 - D * T2) / D2;
    const float Q3 = (D * T1 + D * T2 - 2.0f * DY) / D2 / D;
    return Y1 + S * (T1 + S * (Q2 + Q3 * S));
}

/*
 * The keys bracketing x: lo the nearest key below x, hi the nearest key at
 * or above it (both the lowest key when x is below every key, both the
 * highest when it is above every key).  Strict comparisons: among keys at
 * one position the earliest wins.  The positions of lo and hi ride along in
 * registers and every step is a select, not a branch: x moves between
 * lookups, and mispredicted branches would dominate the scan.
 */
inline void bracket(const Ramp &ramp, float x, int &lo, int &hi)
{
    const float *pos = ramp.position;
    int l = 0, h = 0;
    float pl = pos[0], ph = pos[0];
    const int n = ramp.count;
    for (int i = 1; i < n; ++i) {
        const float p = pos[i];
        const bool below = p < x;
        const bool takeL = below ? (p > pl) | (pl > x) : (p < pl);
        const bool takeH = below ? (p > ph) : (p < ph) | (ph < x);
        l = takeL ? i : l;
        pl = takeL ? p : pl;
        h = takeH ? i : h;
        ph = takeH ? p : ph;
    }
    lo = l;
    hi = h;
}

/* Neighbours of a spline segment: the key just below lo and the key just
   above hi (earliest of equals), or lo / hi themselves when there is none. */
inline void neighbours(const Ramp &ramp, int lo, int hi, int &prev, int &next)
{
    const float *pos = ramp.position;
    const float plo = pos[lo], phi = pos[hi];
    int p = lo, q = hi;
    bool foundP = false, foundQ = false;
    float pp = plo, pq = phi;
    for (int i = 0; i < ramp.count; ++i) {
        const float v = pos[i];
        const bool takeP = (v < plo) & (!foundP | (v > pp));
        const bool takeQ = (v > phi) & (!foundQ | (v < pq));
        p = takeP ? i : p;
        pp = takeP ? v : pp;
        foundP |= takeP;
        q = takeQ ? i : q;
        pq = takeQ ? v : pq;
        foundQ |= takeQ;
    }
    prev = p;
    next = q;
}

inline float linearT(const Ramp &ramp, int lo, int hi, float x)
{
    return (x - ramp.position[lo]) / (ramp.position[hi] - ramp.position[lo]);
}

/* Cosine ease: the angle is formed in double and rounded before cosf. */
inline float smoothW(float t)
{
    const float angle = static_cast<float>(kPi * (t + 1.0f));
    return 0.5f * cosf(angle) + 0.5f;
}

inline void setRGB(miColor &dst, const miColor &src)
{
    dst.r = src.r;
    dst.g = src.g;
    dst.b = src.b;
}

inline void blendRGB(miColor &dst, const miColor &a, const miColor &b, float w)
{
    const float v = 1.0f - w;
    dst.r = a.r * v + b.r * w;
    dst.g = a.g * v + b.g * w;
    dst.b = a.b * v + b.b * w;
}

} // namespace

extern "C" {

/*
 * A negative element count is treated as an empty array.  First index and
 * count are read in place, like every array header; the fields of each
 * entry are evaluated when connected.
 *
 * The first index and the count come from the scene, so they are checked
 * before any element is read.  When the ramp parameter lies in the parameter
 * block of the shader being called (the usual case: a shader hands over its
 * own parameter), the array header and every element that is read (at most
 * RAMP_MAX_KEYS) must lie within that block; otherwise the ramp is refused:
 * it is left empty and the refusal is reported through druxError.  A
 * parameter that lies elsewhere (a copy the caller made) carries no size the
 * library could check and is read as given.
 */
DRUX_API void ramp_constructor(Ramp *ramp, miState *state, void *entries, int is_color)
{
    if (!ramp)
        return;
    ramp->is_color = is_color;
    ramp->count = 0;
    if (!entries)
        return;
    const int64_t elemSize = is_color ? sizeof(RampColorEntry) : sizeof(RampScalarEntry);
    const miFunction *owner = state ? state->shader : nullptr;
    const uintptr_t at = reinterpret_cast<uintptr_t>(entries);
    const uintptr_t blockBegin = owner ? reinterpret_cast<uintptr_t>(owner->params) : 0;
    const uintptr_t blockEnd = blockBegin + (owner && owner->param_size > 0 ? owner->param_size : 0);
    const bool inBlock = owner && owner->params && at >= blockBegin && at < blockEnd;
    if (inBlock && blockEnd - at < sizeof(ArrayParam)) {
        druxError("ramp_constructor(): the ramp parameter of shader \"" +
                  std::string(owner->name ? owner->name : "") +
                  "\" does not fit in its parameter block; the ramp is left empty.");
        return;
    }
    const ArrayParam *head = static_cast<const ArrayParam *>(entries);
    int n = head->count;
    if (n < 0)
        n = 0;
    if (n > RAMP_MAX_KEYS)
        n = RAMP_MAX_KEYS;
    char *storage = static_cast<char *>(entries) + sizeof(ArrayParam);
    const long first = head->first;
    if (inBlock && n > 0) {
        const int64_t begin = static_cast<int64_t>(at - blockBegin) + static_cast<int64_t>(sizeof(ArrayParam)) +
                              elemSize * static_cast<int64_t>(first);
        const int64_t end = begin + elemSize * n;
        if (begin < 0 || end > static_cast<int64_t>(blockEnd - blockBegin)) {
            druxError("ramp_constructor(): the ramp parameter of shader \"" +
                      std::string(owner->name ? owner->name : "") + "\" (first index " +
                      std::to_string(first) + ", " + std::to_string(n) +
                      " elements) reaches outside its parameter block; the ramp is left empty.");
            return;
        }
    }
    ramp->count = n;

    if (is_color) {
        RampColorEntry *e = reinterpret_cast<RampColorEntry *>(storage) + first;
        for (int k = 0; k < n; ++k, ++e) {
            ramp->position[k] = drux::evalValue(state, &e->position);
            ramp->color[k] = drux::evalValue(state, &e->color);
            ramp->interpolation[k] = drux::evalValue(state, &e->interpolation);
        }
    } else {
        RampScalarEntry *e = reinterpret_cast<RampScalarEntry *>(storage) + first;
        for (int k = 0; k < n; ++k, ++e) {
            ramp->position[k] = drux::evalValue(state, &e->position);
            ramp->value[k] = drux::evalValue(state, &e->value);
            ramp->interpolation[k] = drux::evalValue(state, &e->interpolation);
        }
    }
}

DRUX_API void ramp_destructor(Ramp *ramp)
{
    if (ramp)
        ramp->count = 0;
}

DRUX_API float ramp_get_interp_float(const Ramp *ramp, float x)
{
    if (!ramp || ramp->is_color || ramp->count <= 0)
        return 0.0f;
    int lo, hi;
    bracket(*ramp, x, lo, hi);
    const int kind = ramp->interpolation[lo];
    const float *val = ramp->value;
    if (kind == RAMP_NONE)
        return val[lo];
    if (ramp->position[lo] >= x)
        return val[lo];
    if (x >= ramp->position[hi])
        return val[hi];

    switch (kind) {
    case RAMP_LINEAR: {
        const float t = linearT(*ramp, lo, hi, x);
        return val[lo] * (1.0f - t) + val[hi] * t;
    }
    case RAMP_SMOOTH: {
        const float w = smoothW(linearT(*ramp, lo, hi, x));
        return val[lo] * (1.0f - w) + val[hi] * w;
    }
    case RAMP_SPLINE: {
        int prev, next;
        neighbours(*ramp, lo, hi, prev, next);
        const float *pos = ramp->position;
        return ramp_hermite_interp(pos[prev], val[prev], pos[lo], val[lo], pos[hi], val[hi],
                                   pos[next], val[next], x);
    }
    default:
        return val[lo];
    }
}

/*
 * Colour lookups write red, green and blue only, leaving the caller's alpha,
 * except that a spline ramp at its ends copies the whole key colour.
 */
DRUX_API void ramp_get_interp_color(const Ramp *ramp, miColor *result, float x)
{
    if (!result)
        return;
    if (!ramp || !ramp->is_color || ramp->count <= 0) {
        *result = KELU_BLACK;
        return;
    }
    int lo, hi;
    bracket(*ramp, x, lo, hi);
    const int kind = ramp->interpolation[lo];
    const miColor *col = ramp->color;
    if (kind == RAMP_NONE) {
        setRGB(*result, col[lo]);
        return;
    }
    if (ramp->position[lo] >= x || x >= ramp->position[hi]) {
        const int end = ramp->position[lo] >= x ? lo : hi;
        if (kind == RAMP_SPLINE)
            *result = col[end];
        else
            setRGB(*result, col[end]);
        return;
    }

    switch (kind) {
    case RAMP_LINEAR:
        blendRGB(*result, col[lo], col[hi], linearT(*ramp, lo, hi, x));
        return;
    case RAMP_SMOOTH:
        blendRGB(*result, col[lo], col[hi], smoothW(linearT(*ramp, lo, hi, x)));
        return;
    case RAMP_SPLINE: {
        int prev, next;
        neighbours(*ramp, lo, hi, prev, next);
        const float *pos = ramp->position;
        const float p0 = pos[prev], p1 = pos[lo], p2 = pos[hi], p3 = pos[next];
        const miColor &c0 = col[prev], &c1 = col[lo], &c2 = col[hi], &c3 = col[next];
        result->r = ramp_hermite_interp(p0, c0.r, p1, c1.r, p2, c2.r, p3, c3.r, x);
        result->g = ramp_hermite_interp(p0, c0.g, p1, c1.g, p2, c2.g, p3, c3.g, x);
        result->b = ramp_hermite_interp(p0, c0.b, p1, c1.b, p2, c2.b, p3, c3.b, x);
        return;
    }
    default:
        setRGB(*result, col[lo]);
        return;
    }
}

} /* extern "C" */
