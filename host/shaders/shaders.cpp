#include "shaders.h"

#include "data_passes.h"

#include "host_math.h"
#include "shader_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace druxhost {

using namespace shading;

namespace {

/* Fractal sums of the library's noises; results roughly in [0, 1]. */
float fbmValue(const miVector &x, int octaves)
{
    /* the value noise has 32 lattice cells per unit and repeats every unit */
    double sum = 0.0, norm = 0.0, f = 1.0 / 32.0, a = 1.0;
    for (int o = 0; o < octaves; ++o) {
        sum += a * DRUX_CALL(noise_scalar_3d)(x.x * f, x.y * f, x.z * f);
        norm += a;
        f *= 2.0;
        a *= 0.5;
    }
    return clamp01(static_cast<float>(0.5 + sum / norm));
}

float turbulence(const miVector &x, int octaves)
{
    float sum = 0.0f, f = 1.0f, a = 1.0f;
    for (int o = 0; o < octaves; ++o) {
        sum += a * std::fabs(DRUX_CALL(noise_gradient_3d)(x.x * f, x.y * f, x.z * f));
        f *= 2.0f;
        a *= 0.5f;
    }
    return sum;
}

} // namespace

miColor skyColor(const EnvironmentParams &p, const miVector &dir)
{
    const miVector d = normalized(dir);
    miColor c;
    if (d.z >= 0.0f) {
        const float s = std::sqrt(d.z);
        c = miColor{p.horizon.r + (p.zenith.r - p.horizon.r) * s, p.horizon.g + (p.zenith.g - p.horizon.g) * s,
                    p.horizon.b + (p.zenith.b - p.horizon.b) * s, 0.0f};
    } else {
        const float s = std::min(1.0f, -3.0f * d.z);
        c = miColor{p.horizon.r + (p.ground.r - p.horizon.r) * s, p.horizon.g + (p.ground.g - p.horizon.g) * s,
                    p.horizon.b + (p.ground.b - p.horizon.b) * s, 0.0f};
    }
    c.r *= p.intensity;
    c.g *= p.intensity;
    c.b *= p.intensity;
    return c;
}

extern "C" {

/* ====================================================================== lights */

miBoolean hostPointLight(void *result, miState *state, void *pv)
{
    const PointLightParams *p = static_cast<const PointLightParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    const float f = p->intensity * lightFalloff(state, p->quadratic);
    const miColor light{p->color.r * f, p->color.g * f, p->color.b * f, 1.0f};

    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    setUpLightContributions(n, e, state);
    miColor filter = WHITE;
    const miBoolean visible = DRUX_CALL(traceShadow)(n, e, &filter, &light, &p->shadowColor, p->sharedShadow, state);
    *out = shadowed(light, p->shadowColor, visible ? filter : BLACK);
    return miTRUE;
}

miBoolean hostRectLight(void *result, miState *state, void *pv)
{
    RectLightParams *p = static_cast<RectLightParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    /* one-sided: the light emits along its normal; state->dir points from the
       illuminated point to this light sample */
    const float cosine = -dot(state->dir, p->normal);
    if (cosine <= 0.0f)
        return miFALSE;
    const float f = p->intensity * cosine * lightFalloff(state, p->quadratic);
    const miColor light{p->color.r * f, p->color.g * f, p->color.b * f, 1.0f};

    /* tell the material (and scattering) what this light is */
    if (BaseShaderState *bs = baseState(state))
        bs->lightData.corners = p->corners;

    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    setUpLightContributions(n, e, state);
    miColor t;
    if (p->shadowSamples <= 1) {
        miColor filter = WHITE;
        const miBoolean visible = DRUX_CALL(traceShadow)(n, e, &filter, &light, &p->shadowColor, p->sharedShadow, state);
        t = visible ? filter : BLACK;
    } else {
        /* several shadow rays to points spread over the rectangle */
        const miVector dir = state->dir;
        const double dist = state->dist;
        const int count = p->shadowSamples;
        DRUX_CALL(traceShadowAccumulateBegin)(n, e);
        t = BLACK;
        for (int k = 0; k < count; ++k) {
            double xi[4] = {0.5, 0.5, 0.5, 0.5};
            int idx = k;
            mi_sample(xi, &idx, state, 4, nullptr); /* dimensions 2, 3: not those of the light sample */
            const miVector target = add(p->center, add(mul(p->halfU, float(2.0 * xi[2] - 1.0)),
                                                       mul(p->halfV, float(2.0 * xi[3] - 1.0))));
            const miVector to = sub(target, state->org);
            const float len = length(to);
            state->dir = len > 0.0f ? mul(to, 1.0f / len) : dir;
            state->dist = len;
            miColor filter = WHITE;
            if (DRUX_CALL(traceShadowAccumulate)(n, e, &filter, state)) {
                t.r += filter.r;
                t.g += filter.g;
                t.b += filter.b;
            }
        }
        state->dir = dir;
        state->dist = dist;
        DRUX_CALL(traceShadowAccumulateEnd)(n, e, static_cast<miUint>(count), &light, &p->shadowColor);
        const float w = 1.0f / static_cast<float>(count);
        t = miColor{t.r * w, t.g * w, t.b * w, 1.0f};
    }
    *out = shadowed(light, p->shadowColor, t);
    return miTRUE;
}

miBoolean hostPlainLight(void *result, miState *state, void *pv)
{
    const PlainLightParams *p = static_cast<const PlainLightParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    const float f = p->intensity * lightFalloff(state, p->quadratic);
    *out = miColor{p->color.r * f, p->color.g * f, p->color.b * f, 1.0f};
    mi_trace_shadow(out, state); /* occluders attenuate the colour itself */
    return miTRUE;
}

/* ====================================================================== shadow */

miBoolean hostShadow(void *result, miState *state, void *pv)
{
    const ShadowParams *p = static_cast<const ShadowParams *>(pv);
    miColor *filter = static_cast<miColor *>(result);
    const miColor t = param(state, &p->transparency);
    filter->r *= t.r;
    filter->g *= t.g;
    filter->b *= t.b;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    DRUX_CALL(applyShadowTransparencyToFrameBuffers)(n, e, &t, miFALSE, state);
    return filter->r > 0.0f || filter->g > 0.0f || filter->b > 0.0f ? miTRUE : miFALSE;
}

/* ====================================================================== texture */

void hostNoiseTexture_init(miState *state, void *params, miBoolean *instanceInit)
{
    if (!params) {
        DRUX_CALL(noise_gradient_init)(state);
        if (instanceInit)
            *instanceInit = miFALSE;
    }
}

miBoolean hostNoiseTexture(void *result, miState *state, void *pv)
{
    TextureParams *p = static_cast<TextureParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    /* object space, so that the pattern moves with the object */
    miVector P = state->point;
    miScalar *toLocal = nullptr;
    if (state->instance && mi_query(miQ_INST_GLOBAL_TO_LOCAL, state, state->instance, &toLocal) && toLocal)
        mi_point_transform(&P, &state->point, toLocal);
    const miVector x = add(mul(P, p->scale), p->offset);
    float v;
    switch (static_cast<TexturePattern>(p->pattern)) {
    case TexturePattern::Marble:
        v = 0.5f + 0.5f * std::sin(x.x * 3.14159265f + 6.0f * turbulence(x, p->octaves));
        break;
    case TexturePattern::Turbulence:
        v = clamp01(1.5f * turbulence(x, p->octaves));
        break;
    default:
        v = fbmValue(x, p->octaves);
        break;
    }
    Ramp ramp;
    DRUX_CALL(ramp_constructor)(&ramp, state, &p->rampFirst, 1);
    miColor c{0, 0, 0, 1};
    DRUX_CALL(ramp_get_interp_color)(&ramp, &c, v);
    DRUX_CALL(ramp_destructor)(&ramp);
    c.a = 1.0f;
    *out = c;
    return miTRUE;
}

/* ====================================================================== environment */

miBoolean hostEnvironment(void *result, miState *state, void *pv)
{
    const EnvironmentParams *p = static_cast<const EnvironmentParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    const miColor c = skyColor(*p, state->dir);
    /* An eye ray that left the scene shows the sky in beauty and background.
       Secondary rays leave the passes alone: reflection and refraction put
       the environment they fall back on into the passes themselves. */
    if (!state->parent) {
        Entries en = entriesAtDepth(state);
        for (miUint i = 0; i < en.n; ++i) {
            const PassRole role = roleOf(en.e[i]);
            if (role == PassRole::Beauty)
                en.e[i].slots[en.depth].result = c;
            else if (role == PassRole::Background)
                en.e[i].slots[en.depth].result = miColor{c.r, c.g, c.b, 1.0f};
        }
    }
    *out = c;
    return miTRUE;
}

} // extern "C"

} // namespace druxhost
