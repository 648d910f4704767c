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

} // namespace mirt

#endif
