/*
 * Matrix helpers of the reference host (single precision, row vectors as
 * the renderer uses them: p' = p * M); the vector helpers come from the
 * platform's vecmath.h.
 */
#ifndef DRUXHOST_MATH_H
#define DRUXHOST_MATH_H

#include "shader.h"
#include "vecmath.h"

#include <array>
#include <cmath>

namespace druxhost {

inline miVector v3(float x, float y, float z) { return miVector{x, y, z}; }
using mirt::add;
using mirt::cross;
using mirt::dot;
using mirt::length;
using mirt::mul;
using mirt::normalized;
using mirt::radical_inverse;
using mirt::sub;
using mirt::vec_at;

inline miColor rgba(float r, float g, float b, float a = 1.0f) { return miColor{r, g, b, a}; }

/* A 4x4 matrix in the renderer's layout (16 floats, row-major, row vectors). */
using Matrix = std::array<float, 16>;

inline Matrix identity()
{
    return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
}

/* a * b: first a, then b (row vectors). */
inline Matrix multiply(const Matrix &a, const Matrix &b)
{
    Matrix r{};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            float s = 0.0f;
            for (int k = 0; k < 4; ++k)
                s += a[i * 4 + k] * b[k * 4 + j];
            r[i * 4 + j] = s;
        }
    return r;
}

/* The identity with v's x, y, z at elements i, i + step, i + 2 step. */
inline Matrix identityWith(int i, int step, const miVector &v)
{
    Matrix m = identity();
    m[size_t(i)] = v.x;
    m[size_t(i + step)] = v.y;
    m[size_t(i + 2 * step)] = v.z;
    return m;
}

inline Matrix translation(const miVector &t) { return identityWith(12, 1, t); }

inline Matrix scaling(const miVector &s) { return identityWith(0, 5, s); }

/* Rotation by `degrees` about the x (0), y (1) or z (2) axis, counter-clockwise
   when looking down the axis towards the origin. */
inline Matrix rotation(int axis, float degrees)
{
    const double a = degrees * 3.14159265358979323846 / 180.0;
    const float c = static_cast<float>(std::cos(a)), s = static_cast<float>(std::sin(a));
    Matrix m = identity();
    const int i = (axis + 1) % 3, j = (axis + 2) % 3;
    /* row vectors: e_i -> c e_i + s e_j, e_j -> -s e_i + c e_j */
    m[i * 4 + i] = c;
    m[i * 4 + j] = s;
    m[j * 4 + i] = -s;
    m[j * 4 + j] = c;
    return m;
}

inline miVector transformPoint(const Matrix &m, const miVector &p)
{
    return {p.x * m[0] + p.y * m[4] + p.z * m[8] + m[12], p.x * m[1] + p.y * m[5] + p.z * m[9] + m[13],
            p.x * m[2] + p.y * m[6] + p.z * m[10] + m[14]};
}

inline miVector transformVector(const Matrix &m, const miVector &v)
{
    return {v.x * m[0] + v.y * m[4] + v.z * m[8], v.x * m[1] + v.y * m[5] + v.z * m[9],
            v.x * m[2] + v.y * m[6] + v.z * m[10]};
}

} // namespace druxhost

#endif
