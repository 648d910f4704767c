/*
 * Vector helpers shared by the renderer stand-in, the reference host and the
 * tests: single precision, the renderer's miVector.  One definition each so
 * that every caller rounds the same way (renders compare bit for bit).
 */
#ifndef MIRT_VECMATH_H
#define MIRT_VECMATH_H

#include "shader.h"

#include <cmath>
#include <cstdint>

namespace mirt {

inline miVector add(const miVector &a, const miVector &b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline miVector sub(const miVector &a, const miVector &b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline miVector mul(const miVector &a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline float dot(const miVector &a, const miVector &b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline miVector cross(const miVector &a, const miVector &b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(const miVector &a) { return std::sqrt(dot(a, a)); }
/* a / |a|; the zero vector stays as it is. */
inline miVector normalized(const miVector &a)
{
    const float l = length(a);
    return l > 0.0f ? mul(a, 1.0f / l) : a;
}

/* The three floats of a record starting at float index pos. */
inline miVector vec_at(const float *rec, unsigned pos) { return {rec[pos], rec[pos + 1], rec[pos + 2]}; }

/* Radical inverse of i in base b: the base-b digits of i mirrored about the
   point (exact in double for the indices used). */
inline double radical_inverse(uint64_t i, unsigned b)
{
    const double inv = 1.0 / b;
    double f = inv, r = 0.0;
    while (i) {
        r += static_cast<double>(i % b) * f;
        i /= b;
        f *= inv;
    }
    return r;
}

/* A 32-bit integer finaliser: xor-shift, multiply, xor-shift, multiply,
   xor-shift (shifts 16, `shift`, 16).  With (0x85ebca6b, 13, 0xc2b2ae35) it
   is MurmurHash3's fmix32; with (0x7feb352d, 15, 0x846ca68b) a low-bias
   integer hash. */
inline uint32_t mix32(uint32_t h, uint32_t m1, int shift, uint32_t m2)
{
    h ^= h >> 16;
    h *= m1;
    h ^= h >> shift;
    h *= m2;
    h ^= h >> 16;
    return h;
}

/* Sub-pixel position (jx, jy in [0, 1)) of sample s of pixel (x, y): the
   Halton point s (bases 2 and 3), rotated by a per-pixel offset so that
   neighbouring pixels do not share a pattern; the pixel centre for a single
   sample.  Depends on pixel and sample only. */
inline void pixel_jitter(int x, int y, int s, int samples, double &jx, double &jy)
{
    if (samples <= 1) {
        jx = jy = 0.5;
        return;
    }
    auto hash = [](uint32_t v) { return mix32(v, 0x7feb352dU, 15, 0x846ca68bU); };
    const uint32_t h = hash(static_cast<uint32_t>(x) * 0x9E3779B1u ^ hash(static_cast<uint32_t>(y) + 0x632BE5ABu));
    const double rx = (h & 0xFFFF) / 65536.0, ry = (h >> 16) / 65536.0;
    jx = radical_inverse(static_cast<uint32_t>(s), 2) + rx;
    jy = radical_inverse(static_cast<uint32_t>(s), 3) + ry;
    if (jx >= 1.0)
        jx -= 1.0;
    if (jy >= 1.0)
        jy -= 1.0;
}

} // namespace mirt

#endif
