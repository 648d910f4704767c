/*
 * Specular and diffuse models: hair-tube, Phong and Blinn highlights, the
 * strongest-highlight direction and the view factor of a rectangular area
 * light, and Lambert translucence.
 *
 * All of them are stateless, allocate nothing and take no lock; they run
 * once per light sample inside the host's light loops and the scattering
 * code.  Arithmetic is single precision in the order written below, because
 * host materials compare results against their own reference renders.
 */
#include "druxInternal.h"

#include <cmath>

using drux::cross;
using drux::dot;
using drux::length;
using drux::operator+;
using drux::operator-;

namespace {

/* Same value as the exported KELU_EPS; a local constant keeps the per-sample
   paths free of a load through the symbol table. */
constexpr float kEps = 1e-5f;

/* e^-10 to three significant figures: the floor below which a Phong lobe is
   flattened to a constant, so that very sharp lobes never underflow. */
constexpr float kPhongFloor = 4.54e-5f;

/* Non-eye rays see a highlight scaled by secondary_scale; a scale <= 0
   removes it.  A missing state counts as an eye ray. */
inline bool isEyeRay(const miState *state)
{
    return !state || state->type == miRAY_EYE;
}

inline miVector scaled(miVector v, float s)
{
    return miVector{v.x * s, v.y * s, v.z * s};
}

} // namespace

extern "C" {

/* Strand highlight: a smooth step of the difference between the two
   directions' projections on the tangent. */
DRUX_API float compute_hairtubeshader_specular(const miVector *dir_a, const miVector *dir_b,
                                               const miVector *tangent, float exponent)
{
    if (!dir_a || !dir_b || !tangent)
        return 0.0f;
    const float s = 0.5f * std::fabs(dot(*tangent, *dir_a) - dot(*tangent, *dir_b));
    const float base = s * s * (2.0f * s - 3.0f) + 1.0f;
    return powf(base, exponent);
}

DRUX_API float compute_phong_specular(const miVector *r, const miVector *l, miState *state,
                                      float cos_power, float secondary_scale)
{
    if (!r || !l)
        return 0.0f;
    const float d = dot(*r, *l);
    if (!(d > 0.0f)) /* also rejects NaN */
        return 0.0f;
    const float cosine = d / std::sqrt(dot(*l, *l));
    const float x = logf(cosine) * cos_power;
    float highlight = (x < -10.0f) ? kPhongFloor : expf(x);
    if (!isEyeRay(state)) {
        if (!(secondary_scale > 0.0f))
            return 0.0f;
        highlight *= secondary_scale;
    }
    return highlight;
}

/*
 * Torrance-Sparrow highlight with the Trowbridge-Reitz distribution, already
 * divided by dot_nv.  Callers pass a positive dot_nv.  If they do not, the
 * geometric term can come out infinite (1/dot_nv with dot_nv = 0, or a zero
 * vh in a denominator); such a highlight is returned as 0 rather than as an
 * infinity that would poison the whole pixel.  NaN already gives 0 through
 * the "not greater than 0" test.
 */
DRUX_API float compute_blinn_specular(const miVector *light_dir, const miVector *normal,
                                      miState *state, float dot_nl, float dot_nv,
                                      float eccentricity, float rolloff, float secondary_scale)
{
    if (!light_dir || !normal || !state)
        return 0.0f;
    const miVector dir = state->dir;
    miVector h = *light_dir - dir;
    drux::normalize(h);

    const float vh = -dot(h, dir);
    const float nh = dot(h, *normal);

    float e = eccentricity * eccentricity - 1.0f;
    if (std::fabs(e) < kEps)
        e = kEps;
    const float k = 1.0f / e;

    float g;
    if (dot_nl > dot_nv) {
        if (vh > 2.0f * nh * dot_nv)
            g = 2.0f * nh / vh;
        else
            g = 1.0f / dot_nv;
    } else {
        if (vh > 2.0f * nh * dot_nl)
            g = (2.0f * nh * dot_nl) / (dot_nv * vh);
        else
            g = 1.0f / dot_nv;
    }
    if (!std::isfinite(g))
        return 0.0f;

    const float omv = 1.0f - vh;
    const float q = omv * omv * omv;
    const float fresnel = (1.0f - q) * rolloff + q;

    const float dr = (k + 1.0f) / (nh * nh + k);
    const float distribution = dr * dr;

    const float spec = fresnel * (g * distribution);
    if (!(spec > 0.0f))
        return 0.0f;
    if (isEyeRay(state))
        return spec;
    return secondary_scale > 0.0f ? spec * secondary_scale : 0.0f;
}

/*
 * The direction from `point` towards the light rectangle closest to the
 * mirror direction `r`.  When the mirror ray itself hits the rectangle that
 * is r normalised; otherwise the best point on the four edges.
 *
 * The hit test needs the light's internal-to-local matrix.  If the renderer
 * cannot give it (unknown instance), the hit test is skipped and the edge
 * search, which works in internal space on the corners alone, decides.
 */
DRUX_API void arealight_max_phong_spec_dir(const miVector *point, const miVector *r,
                                           const miVector *corners, miTag light_inst,
                                           miVector *out_dir)
{
    if (!point || !r || !corners || !out_dir)
        return;

    miVector rhat = *r;
    drux::normalize(rhat);

    miScalar *toLocal = nullptr;
    if (mi_query(miQ_INST_GLOBAL_TO_LOCAL, nullptr, light_inst, &toLocal) && toLocal) {
        miVector lp, ld;
        mi_point_transform(&lp, point, toLocal);
        mi_vector_transform(&ld, r, toLocal);
        drux::normalize(ld);
        if (!(std::fabs(ld.z) < kEps)) {
            const float t = -lp.z / ld.z;
            if (t > 0.0f) {
                const float hx = lp.x + t * ld.x;
                const float hy = lp.y + t * ld.y;
                if (std::fabs(hx) < 1.0f && std::fabs(hy) < 1.0f) {
                    *out_dir = rhat;
                    return;
                }
            }
        }
    }

    float best = -1.0f;
    for (int i = 0; i < 4; ++i) {
        const miVector a = corners[i];
        const miVector b = corners[(i + 1) & 3];
        miVector e = b - a;
        const float len = length(e);
        if (len > kEps)
            e = scaled(e, 1.0f / len);

        const miVector d = a - *point;
        const float ed = dot(e, d);
        const float er = dot(e, *r);
        const float rd = dot(*r, d);
        const float den = rd - ed * er;
        float t = 0.0f;
        if (den != 0.0f) {
            /* Edge parameter at which d + t*e makes the smallest angle with r. */
            t = (dot(d, d) * er - ed * rd) / den;
            if (t < 0.0f)
                t = 0.0f;
            else if (len < t)
                t = len;
        }
        miVector q = d + scaled(e, t);
        drux::normalize(q);
        const float cosq = dot(rhat, q);
        if (cosq > best) {
            best = cosq;
            *out_dir = q;
        }
    }
}

/*
 * Cosine-weighted view factor of the rectangle seen from `point` (edge
 * integral, scaled by 5 per edge).  An edge whose two corners are seen in
 * the same or in opposite directions (|v_i x v_j| = 0: a corner on the point,
 * or the point on the line of the edge) spans no solid angle that could be
 * weighted; its term is left out instead of dividing by zero.
 */
DRUX_API float arealight_lambertian_reflect(const miVector *point, const miVector *normal,
                                            const miVector *corners)
{
    if (!point || !normal || !corners)
        return 0.0f;
    miVector v[4];
    for (int i = 0; i < 4; ++i) {
        v[i] = corners[i] - *point;
        drux::normalize(v[i]);
    }
    float term[4];
    for (int i = 0; i < 4; ++i) {
        const miVector &vi = v[i];
        const miVector &vj = v[(i + 1) & 3];
        float c = dot(vi, vj);
        if (c < -1.0f)
            c = -1.0f;
        else if (c > 1.0f)
            c = 1.0f;
        const float theta = acosf(c);
        const miVector m = cross(vi, vj);
        const float lm = length(m);
        term[i] = (lm != 0.0f) ? (5.0f * theta) * dot(*normal, m) / lm : 0.0f;
    }
    return ((term[0] + term[1]) + term[2]) + term[3];
}

/*
 * Light passing through a thin surface from a light behind it.  A missing
 * state (needed for the focus term) or a missing light direction when no
 * corners are given is a caller error: no translucence, no crash.
 */
DRUX_API float compute_lambert_translucence(miState *state, const miVector *light_dir,
                                            const miVector *corners, float dot_nl,
                                            float translucence, float focus, float wrap)
{
    const float lo = wrap * TRANSLUCENCE_ANGLE_FAC;
    if (lo >= dot_nl)
        return 0.0f;
    float result = translucence;
    if (focus != 0.0f) {
        if (!state || (!corners && !light_dir))
            return 0.0f;
        const float x = corners ? arealight_lambertian_reflect(&state->point, &state->dir, corners)
                                : dot(*light_dir, state->dir);
        float base;
        if (x < -1.0f)
            base = 0.0f;
        else if (x > 1.0f)
            base = 1.0f;
        else
            base = (x + 1.0f) * 0.5f;
        result = powf(base, focus / (1.00001f - focus)) * translucence;
    }
    float w = TRANSLUCENCE_FADE - lo;
    if (w > 1.0f)
        w = 1.0f;
    if (lo + w > dot_nl)
        result = result * (dot_nl - lo) / w;
    return result;
}

} /* extern "C" */
