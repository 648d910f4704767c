/*
 * Quasi-random sampling (mi_sample) and transforms: matrix inverse, point
 * and vector transforms, object and camera space.
 */
#include "runtime_internal.h"
#include "vecmath.h"

#include <cmath>
#include <cstdint>
#include <utility>

namespace mirt {
using namespace rt;

namespace {

constexpr int kPrimeCount = 64;
const unsigned kPrimes[kPrimeCount] = {
    2,   3,   5,   7,   11,  13,  17,  19,  23,  29,  31,  37,  41,  43,  47,  53,
    59,  61,  67,  71,  73,  79,  83,  89,  97,  101, 103, 107, 109, 113, 127, 131,
    137, 139, 149, 151, 157, 163, 167, 173, 179, 181, 191, 193, 197, 199, 211, 223,
    227, 229, 233, 239, 241, 251, 257, 263, 269, 271, 277, 281, 283, 293, 307, 311};

} // namespace

/* 4x4 inverse: exact adjugate for affine matrices, otherwise Gauss-Jordan
   with partial pivoting in double precision; false for a singular matrix. */
/* Inverse of an affine matrix (last column 0, 0, 0, 1). */
static bool invert_affine(const miScalar *m, miScalar *out)
{
    /* Rows 0-2 hold the linear part, row 3 the translation (row vectors).
       The adjugate keeps rotations and axis scalings exact: no round-off
       residue where the inverse has zeros. */
    const double a = m[0], b = m[1], c = m[2], d = m[4], e = m[5], f = m[6], g = m[8], h = m[9], i = m[10];
    const double A = e * i - f * h, B = -(d * i - f * g), C = d * h - e * g;
    const double det = a * A + b * B + c * C;
    if (std::fabs(det) < 1e-300)
        return false;
    const double inv[9] = {A / det, -(b * i - c * h) / det, (b * f - c * e) / det,
                           B / det, (a * i - c * g) / det,  -(a * f - c * d) / det,
                           C / det, -(a * h - b * g) / det, (a * e - b * d) / det};
    const double t[3] = {m[12], m[13], m[14]};
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k)
            out[r * 4 + k] = static_cast<miScalar>(inv[r * 3 + k]);
        out[r * 4 + 3] = 0.0f;
    }
    for (int k = 0; k < 3; ++k)
        out[12 + k] = static_cast<miScalar>(-(t[0] * inv[k] + t[1] * inv[3 + k] + t[2] * inv[6 + k]));
    out[15] = 1.0f;
    return true;
}

bool invert_matrix(const miScalar *m, miScalar *out)
{
    if (m[3] == 0.0f && m[7] == 0.0f && m[11] == 0.0f && m[15] == 1.0f)
        return invert_affine(m, out);
    double a[4][8];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            a[r][c] = m[r * 4 + c];
            a[r][c + 4] = (r == c) ? 1.0 : 0.0;
        }
    for (int col = 0; col < 4; ++col) {
        int piv = col;
        for (int r = col + 1; r < 4; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[piv][col]))
                piv = r;
        if (std::fabs(a[piv][col]) < 1e-300)
            return false;
        if (piv != col)
            for (int c = 0; c < 8; ++c)
                std::swap(a[piv][c], a[col][c]);
        double inv = 1.0 / a[col][col];
        for (int c = 0; c < 8; ++c)
            a[col][c] *= inv;
        for (int r = 0; r < 4; ++r) {
            if (r == col)
                continue;
            double f = a[r][col];
            if (f != 0.0)
                for (int c = 0; c < 8; ++c)
                    a[r][c] -= f * a[col][c];
        }
    }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            out[r * 4 + c] = static_cast<miScalar>(a[r][c + 4]);
    return true;
}

} // namespace mirt

using namespace mirt;

extern "C" {

/* ---- quasi-random samples: Halton points, rotated per pixel and sample
   (Cranley-Patterson) by offsets derived from state->qmc_offset. */

miBoolean mi_sample(double *sample, int *instance, miState *state, miUshort dimension, const miUint *n)
{
    if (!instance)
        return miFALSE;
    if (n && static_cast<int64_t>(*instance) >= static_cast<int64_t>(*n))
        return miFALSE;
    if (*instance < 0) {
        error("mi_sample: negative sample instance %d", *instance);
        return miFALSE;
    }
    const uint64_t index = static_cast<uint64_t>(*instance);
    const uint64_t offset = state ? state->qmc_offset : 0u;
    for (unsigned d = 0; d < dimension && sample; ++d) {
        unsigned base = kPrimes[d % kPrimeCount];
        /* dimensions beyond the prime table reuse the primes on a scrambled index */
        uint64_t i = d < kPrimeCount ? index : index + mix64(d) % 1000003u;
        double rot = static_cast<double>(mix64(offset * 0x100000001B3ull + d) >> 11) * (1.0 / 9007199254740992.0);
        double v = radical_inverse(i, base) + rot;
        if (v >= 1.0)
            v -= 1.0;
        if (v >= 1.0 || v < 0.0)
            v = 0.0;
        sample[d] = v;
    }
    ++*instance;
    return miTRUE;
}

/* r = v times the 3x3 part of m read with strides: (4, 1) for the matrix,
   (1, 4) for its transpose.  A null matrix is the identity. */
static void linear3(miVector *r, const miVector *v, const miScalar *m, int si, int sj)
{
    if (!r || !v)
        return;
    if (!m) {
        *r = *v;
        return;
    }
    const float x = v->x, y = v->y, z = v->z;
    *r = miVector{x * m[0] + y * m[si] + z * m[2 * si], x * m[sj] + y * m[si + sj] + z * m[2 * si + sj],
                  x * m[2 * sj] + y * m[si + 2 * sj] + z * m[2 * si + 2 * sj]};
}

/* ---- transforms (row vectors: p' = p * M); a null matrix is the identity */

void mi_point_transform(miVector *r, const miVector *v, const miScalar *m)
{
    if (!r || !v)
        return;
    if (!m) {
        *r = *v;
        return;
    }
    const float x = v->x, y = v->y, z = v->z;
    miVector o{x * m[0] + y * m[4] + z * m[8] + m[12], x * m[1] + y * m[5] + z * m[9] + m[13],
               x * m[2] + y * m[6] + z * m[10] + m[14]};
    const float w = x * m[3] + y * m[7] + z * m[11] + m[15];
    if (w != 0.0f && w != 1.0f) {
        const float inv = 1.0f / w;
        o.x *= inv;
        o.y *= inv;
        o.z *= inv;
    }
    *r = o;
}

void mi_vector_transform(miVector *r, const miVector *v, const miScalar *m)
{
    linear3(r, v, m, 4, 1);
}

void mi_vector_transform_T(miVector *r, const miVector *v, const miScalar *m)
{
    linear3(r, v, m, 1, 4);
}

static void instance_vector(miTag inst, bool to_local, miVector *r, const miVector *v)
{
    if (!r || !v)
        return;
    const miInstance *i = instance_record(inst);
    if (!i) {
        *r = *v; /* no instance: internal space is the local space */
        return;
    }
    mi_vector_transform(r, v, to_local ? i->global_to_local : i->local_to_global);
}

void mi_vector_to_object(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->instance : 0, true, r, v);
}

void mi_vector_from_object(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->instance : 0, false, r, v);
}

void mi_vector_to_camera(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->camera_inst : 0, true, r, v);
}

void mi_vector_from_camera(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->camera_inst : 0, false, r, v);
}

} // extern "C"
