#include "shaders.h"

#include "data_passes.h"

#include "host_math.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace druxhost {

namespace {

/* A parameter's value, evaluated when it is connected to another shader
   (the renderer's convention: a connection word follows every parameter
   word at the shader's ghost offset). */
template <class T> T param(miState *state, const T *p)
{
    const miFunction *f = state ? state->shader : nullptr;
    if (f && f->has_connections) {
        miTag word;
        std::memcpy(&word, reinterpret_cast<const char *>(p) + f->ghost_offs, sizeof word);
        if (word != 0 && word != miPARAM_UNCONNECTED)
            return *static_cast<const T *>(mi_phen_eval(state, const_cast<T *>(p)));
    }
    return *p;
}

PassRole roleOf(const FrameBufferInfo &e) { return static_cast<PassRole>(e.hostData[0]); }

float clamp01(float v) { return v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v); }

/* The light blocked to transmission t: (1 - t) * shadowColor + t * light. */
miColor shadowed(const miColor &light, const miColor &shadowColor, const miColor &t)
{
    return miColor{(1.0f - t.r) * shadowColor.r + t.r * light.r, (1.0f - t.g) * shadowColor.g + t.g * light.g,
                   (1.0f - t.b) * shadowColor.b + t.b * light.b, 1.0f};
}

/* The pass entries of this state at the state's depth; none when the
   machinery is off or the depth has no slot. */
struct Entries {
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    int depth = 0;
};

Entries entriesAtDepth(miState *state)
{
    Entries r;
    r.n = getFrameBufferInfo(state, &r.types, &r.e);
    r.depth = state->reflection_level + state->refraction_level;
    const int limit = state->options ? state->options->trace_depth : 0;
    /* every entry has trace-depth limit + 2 slots, as many as the state
       set-up recorded in the entry (the limit may have been raised since) */
    if (r.n == 0 || r.depth < 0 || r.depth > limit + 1 ||
        (r.e[0].depthSlots != 0 && static_cast<miUint>(r.depth) >= r.e[0].depthSlots)) {
        r.n = 0;
        r.types = nullptr;
        r.e = nullptr;
    }
    return r;
}

float lightFalloff(const miState *state, int quadratic)
{
    if (!quadratic)
        return 1.0f;
    const double d2 = state->dist * state->dist;
    return static_cast<float>(1.0 / std::max(d2, 1e-12));
}

/* Fractal sums of the library's noises; results roughly in [0, 1]. */
float fbmValue(const miVector &x, int octaves)
{
    /* the value noise has 32 lattice cells per unit and repeats every unit */
    double sum = 0.0, norm = 0.0, f = 1.0 / 32.0, a = 1.0;
    for (int o = 0; o < octaves; ++o) {
        sum += a * noise_scalar_3d(x.x * f, x.y * f, x.z * f);
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
        sum += a * std::fabs(noise_gradient_3d(x.x * f, x.y * f, x.z * f));
        f *= 2.0f;
        a *= 0.5f;
    }
    return sum;
}

const float kOne = 1.0f;

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

/* ====================================================================== material */

void hostMaterial_init(miState *state, void *params, miBoolean *instanceInit)
{
    if (!params) {
        noise_gradient_init(state); /* bump noise */
        if (instanceInit)
            *instanceInit = miFALSE;
    }
}

void hostMaterial_exit(miState *state, void *params)
{
    MaterialParams *p = static_cast<MaterialParams *>(params);
    if (p && p->scatterList)
        destroy_scatter(state, p->scatterList);
}

miBoolean hostMaterial(void *result, miState *state, void *pv)
{
    MaterialParams *p = static_cast<MaterialParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    Entries en = entriesAtDepth(state);
    const miUint n = en.n;
    FrameBufferInfo *e = en.e;
    const int d = en.depth;

    /* this depth's slots start empty; find the beauty entry, whose light the
       material's own colour uses so that colour and beauty pass agree */
    int beauty = -1;
    for (miUint i = 0; i < n; ++i) {
        e[i].slots[d].accum = BLACK;
        e[i].slots[d].slotFlags = 0;
        if (beauty < 0 && roleOf(e[i]) == PassRole::Beauty)
            beauty = static_cast<int>(i);
    }
    BaseShaderState *bs = static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));

    const miColor dcol = param(state, &p->diffuse);
    const float kd = param(state, &p->kd);
    const miColor scol = param(state, &p->specular);
    miColor tr = param(state, &p->transparency);
    tr = miColor{clamp01(tr.r), clamp01(tr.g), clamp01(tr.b), clamp01(tr.a)};
    const float opaque[3] = {1.0f - tr.r, 1.0f - tr.g, 1.0f - tr.b};
    const float translucence = param(state, &p->translucence);
    const float focus = param(state, &p->focus), wrap = param(state, &p->wrap);
    const bool gatherRay = state->type == miRAY_FINALGATHER;

    /* bump: tilt the shading normal by the slope of gradient noise along the
       surface derivatives */
    const miVector savedNormal = state->normal;
    const float savedDot = state->dot_nd;
    const float bump = param(state, &p->bump);
    if (bump != 0.0f) {
        miVector du, dv;
        get_derivs(state, &du, &dv, DRUX_SPACE_INTERNAL, 0);
        du = normalized(du);
        dv = normalized(dv);
        const float s = param(state, &p->bumpScale), h = 0.01f;
        const miVector q = mul(state->point, s);
        const float n0 = noise_gradient_3d(q.x, q.y, q.z);
        const miVector qu = add(q, mul(du, h)), qv = add(q, mul(dv, h));
        const float gu = (noise_gradient_3d(qu.x, qu.y, qu.z) - n0) / h;
        const float gv = (noise_gradient_3d(qv.x, qv.y, qv.z) - n0) / h;
        miVector nb = normalized(sub(state->normal, mul(add(mul(du, gu), mul(dv, gv)), bump)));
        if (dot(nb, state->dir) < 0.0f) { /* keep facing the viewer */
            state->normal = nb;
            state->dot_nd = dot(nb, state->dir);
        }
    }
    const miVector N = state->normal;
    const float dotND = state->dot_nd;
    const miVector R = sub(state->dir, mul(N, 2.0f * dotND)); /* mirror direction */

    /* ---- light loop */
    miColor diffuse = BLACK, spec = BLACK;
    int nLights = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&nLights, &lights, state);
    const int mode = 1; /* add each light's average into the slot */
    const miBoolean useScale = miFALSE;
    const float scale = 1.0f;
    const int model = param(state, &p->model);
    const float exponent = param(state, &p->exponent), secondary = param(state, &p->secondary);
    const float ecc = param(state, &p->eccentricity), rolloff = param(state, &p->rolloff);
    for (int k = 0; k < nLights; ++k) {
        if (bs)
            bs->lightData = defaultLightDataArray;
        sampleLightBegin(n, e);
        miColor dsum = BLACK, ssum = BLACK;
        int samples = 0;
        miColor col;
        miVector L;
        miScalar dotNL;
        while (mi_sample_light(&col, &L, &dotNL, state, lights[k], &samples)) {
            /* a light that did not set up its contributions knows nothing of
               passes: route its colour; it brings no shadow pass of its own */
            const bool unaware = n && (e[0].flags & FBINFO_LIGHT_SETUP_PENDING);
            handleNonDruxLights(n, e, &col, lights[k], state);
            if (unaware)
                for (miUint i = 0; i < n; ++i)
                    if (e[i].flags & FBINFO_SHADOW_PASS)
                        e[i].light = miColor{0, 0, 0, 1};

            float wd = dotNL > 0.0f ? kd * dotNL : 0.0f;
            if (translucence != 0.0f) /* light from behind the surface */
                wd += compute_lambert_translucence(state, &L, bs ? bs->lightData.corners : nullptr, -dotNL,
                                                   translucence, focus, wrap);
            float ws = 0.0f;
            if (dotNL > 0.0f) {
                if (model == static_cast<int>(SpecularModel::Blinn)) {
                    if (-dotND > 0.0f)
                        ws = compute_blinn_specular(&L, &N, state, dotNL, -dotND, ecc, rolloff, secondary);
                } else {
                    ws = compute_phong_specular(&R, &L, state, exponent, secondary);
                }
            }
            const miColor &Lb = beauty >= 0 ? e[beauty].light : col;
            dsum.r += wd * dcol.r * Lb.r;
            dsum.g += wd * dcol.g * Lb.g;
            dsum.b += wd * dcol.b * Lb.b;
            ssum.r += ws * scol.r * Lb.r;
            ssum.g += ws * scol.g * Lb.g;
            ssum.b += ws * scol.b * Lb.b;
            for (miUint i = 0; i < n; ++i) {
                float cd = 1.0f, cs = 1.0f;
                switch (roleOf(e[i])) {
                case PassRole::Diffuse:
                    cs = 0.0f;
                    break;
                case PassRole::Specular:
                    cd = 0.0f;
                    break;
                case PassRole::Reflection:
                case PassRole::Refraction:
                case PassRole::Indirect:
                case PassRole::Scatter:
                case PassRole::Background:
                case PassRole::Constant:
                case PassRole::Depth:
                case PassRole::Normal:
                case PassRole::Position:
                case PassRole::Albedo:
                case PassRole::Coverage:
                    continue;
                default: /* beauty, shadow, light groups, passes of other exporters */
                    break;
                }
                const miColor &Li = e[i].light;
                e[i].lightSum.r += opaque[0] * (cd * wd * dcol.r + cs * ws * scol.r) * Li.r;
                e[i].lightSum.g += opaque[1] * (cd * wd * dcol.g + cs * ws * scol.g) * Li.g;
                e[i].lightSum.b += opaque[2] * (cd * wd * dcol.b + cs * ws * scol.b) * Li.b;
            }
        }
        sampleLightEnd(state, n, e, samples, &mode, &useScale, &scale);
        if (samples > 0) {
            const float w = 1.0f / static_cast<float>(samples);
            diffuse.r += dsum.r * w;
            diffuse.g += dsum.g * w;
            diffuse.b += dsum.b * w;
            spec.r += ssum.r * w;
            spec.g += ssum.g * w;
            spec.b += ssum.b * w;
        }
    }

    /* ---- indirect light, for surfaces seen from the camera */
    miColor indirect = BLACK;
    if (!gatherRay && d == 0 && param(state, &p->indirect) && state->options && state->options->finalgather)
        compute_irradiance(&indirect, &p->irradianceTint, &dcol, &tr, &p->irradiance, state, kd, 1.0f);

    /* ---- reflection */
    miColor refl = BLACK;
    const float reflectivity = param(state, &p->reflectivity);
    if (!gatherRay && reflectivity > 0.0f) {
        const miColor rc = param(state, &p->reflectColor);
        miColor r;
        compute_reflection(&r, &rc, &p->reflectedColor, &p->reflectionLimit, &p->reflectBlur, &p->reflectBlurLimit,
                           &p->reflectRays, 0, &N, state, static_cast<int>(n), e, en.types, &kOne, reflectivity,
                           1.0f, dotND);
        refl = miColor{reflectivity * rc.r * r.r, reflectivity * rc.g * r.g, reflectivity * rc.b * r.b, 0.0f};
    }

    /* ---- refraction */
    miColor refr = BLACK;
    if (!gatherRay && (tr.r > 0.0f || tr.g > 0.0f || tr.b > 0.0f)) {
        const float ior = state->ior;
        const miTag volume = state->refraction_volume;
        miColor transmission;
        compute_refraction(&refr, &transmission, &p->refractionLimit, &p->ior, 1, &tr, 0, &p->refractBlur,
                           &p->refractBlurLimit, &p->refractRays, &p->thickness, &p->fadeDistance, &p->absorbance,
                           &p->chromatic, &N, state, static_cast<int>(n), e, en.types, &kOne, dotND);
        /* the refracted rays have taken the new index with them */
        state->ior = ior;
        state->refraction_volume = volume;
    }

    /* ---- subsurface scattering, for surfaces seen from the camera.  The
       cache's points are placed and lit once, by whichever pixel touches them
       first; a fixed sampling offset makes them independent of that pixel,
       of the thread count and of the render (database tags differ between
       renders, so the offset must not depend on them) */
    miColor scatter = BLACK;
    if (!gatherRay && p->scatterList && state->type == miRAY_EYE && d == 0 &&
        param(state, &p->scatterRadius) > 0.0f) {
        const miUint qmc = state->qmc_offset;
        state->qmc_offset = 0x9E3779B9u;
        compute_scatter(&scatter, &p->scatterScale, &p->scatterRadius, &p->scatterSamples, &p->scatterFalloff,
                        &p->scatterMaxDepth, &p->scatterCache, &p->scatterDiffuse, &p->diffuse, &p->translucence,
                        &p->focus, &p->wrap, &p->normalOverride, &p->irradiance, &p->irradianceTint, state,
                        p->scatterList);
        state->qmc_offset = qmc;
    }

    /* ---- the material's colour: (diffuse + indirect + specular) through the
       opacity, then reflection, refraction and scattering on top */
    BaseComposite bc;
    bc_construct(&bc, 0, state);
    BaseCompositeResult composite;
    std::memset(&composite, 0, sizeof composite);
    composite.transparency[0] = tr.r;
    composite.transparency[1] = tr.g;
    composite.transparency[2] = tr.b;
    const miColor cd[2] = {BLACK, BLACK};
    const miColor ce[2] = {refr, BLACK};
    bc_composite(bc, &composite, &spec, &refl, &diffuse, cd, ce, &scatter, &BLACK, &indirect, &tr, 0, 2, 0.0f, 1.0f,
                 1.0f, 1.0f);
    miColor colour = composite.result;
    colour.a = 1.0f;

    /* ---- the passes of this depth */
    for (miUint i = 0; i < n; ++i) {
        PassSlot &s = e[i].slots[d];
        miColor r = s.accum;
        switch (roleOf(e[i])) {
        case PassRole::Beauty:
            r.r += opaque[0] * indirect.r + scatter.r;
            r.g += opaque[1] * indirect.g + scatter.g;
            r.b += opaque[2] * indirect.b + scatter.b;
            break;
        case PassRole::Reflection:
            r = refl;
            break;
        case PassRole::Refraction:
            r = refr;
            break;
        case PassRole::Indirect:
            r = miColor{opaque[0] * indirect.r, opaque[1] * indirect.g, opaque[2] * indirect.b, 0};
            break;
        case PassRole::Scatter:
            r = scatter;
            break;
        case PassRole::Background:
            r = BLACK;
            break;
        default: /* diffuse, specular, shadow, light groups: what the slot gathered */
            break;
        }
        r.a = roleOf(e[i]) == PassRole::Background ? 0.0f : 1.0f;
        s.result = r;
        s.opacity = WHITE;
    }
    writeDataPasses(state, n, e, d, N, miColor{kd * dcol.r, kd * dcol.g, kd * dcol.b, 1.0f});

    state->normal = savedNormal;
    state->dot_nd = savedDot;
    *out = colour;
    return miTRUE;
}

/* ====================================================================== lights */

miBoolean hostPointLight(void *result, miState *state, void *pv)
{
    const PointLightParams *p = static_cast<const PointLightParams *>(pv);
    miColor *out = static_cast<miColor *>(result);
    const float f = p->intensity * lightFalloff(state, p->quadratic);
    const miColor light{p->color.r * f, p->color.g * f, p->color.b * f, 1.0f};

    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &e);
    setupLightContributions(n, e, state);
    miColor filter = WHITE;
    const miBoolean visible = traceShadow(n, e, &filter, &light, &p->shadowColor, p->sharedShadow, state);
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
    if (BaseShaderState *bs = static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr)))
        bs->lightData.corners = p->corners;

    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(state, &types, &e);
    setupLightContributions(n, e, state);
    miColor t;
    if (p->shadowSamples <= 1) {
        miColor filter = WHITE;
        const miBoolean visible = traceShadow(n, e, &filter, &light, &p->shadowColor, p->sharedShadow, state);
        t = visible ? filter : BLACK;
    } else {
        /* several shadow rays to points spread over the rectangle */
        const miVector dir = state->dir;
        const double dist = state->dist;
        const int count = p->shadowSamples;
        traceShadowAccumulateBegin(n, e);
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
            if (traceShadowAccumulate(n, e, &filter, state)) {
                t.r += filter.r;
                t.g += filter.g;
                t.b += filter.b;
            }
        }
        state->dir = dir;
        state->dist = dist;
        traceShadowAccumulateEnd(n, e, static_cast<miUint>(count), &light, &p->shadowColor);
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
    const miUint n = getFrameBufferInfo(state, &types, &e);
    applyShadowTransparencyToFrameBuffers(n, e, &t, miFALSE, state);
    return filter->r > 0.0f || filter->g > 0.0f || filter->b > 0.0f ? miTRUE : miFALSE;
}

/* ====================================================================== texture */

void hostNoiseTexture_init(miState *state, void *params, miBoolean *instanceInit)
{
    if (!params) {
        noise_gradient_init(state);
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
    ramp_constructor(&ramp, state, &p->rampFirst, 1);
    miColor c{0, 0, 0, 1};
    ramp_get_interp_color(&ramp, &c, v);
    ramp_destructor(&ramp);
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

/* ====================================================================== parameter blocks */

MaterialParams materialParams(const MaterialDesc &m, ScatterCache **scatterList)
{
    MaterialParams p;
    std::memset(&p, 0, sizeof p);
    p.diffuse = m.diffuse;
    p.kd = m.kd;
    p.specular = m.specular;
    p.model = static_cast<int>(m.model);
    p.exponent = m.exponent;
    p.eccentricity = m.eccentricity;
    p.rolloff = m.rolloff;
    p.secondary = m.secondary;
    p.translucence = m.translucence;
    p.focus = m.focus;
    p.wrap = m.wrap;
    p.reflectivity = m.reflectivity;
    p.reflectColor = m.reflectColor;
    p.reflectedColor = BLACK;
    p.reflectionLimit = m.reflectionLimit;
    p.reflectBlur = m.reflectBlur;
    p.reflectBlurLimit = 64; /* the render's blur limits in "kelubase" decide */
    p.reflectRays = m.reflectRays;
    p.transparency = m.transparency;
    p.ior = m.ior;
    p.refractionLimit = m.refractionLimit;
    p.refractBlur = m.refractBlur;
    p.refractBlurLimit = 64;
    p.refractRays = m.refractRays;
    p.thickness = m.thickness;
    p.fadeDistance = m.fadeDistance;
    p.absorbance = m.absorbance;
    p.chromatic = m.chromatic ? 1 : 0;
    p.indirect = m.indirect ? 1 : 0;
    p.irradianceTint = m.irradianceTint;
    p.irradiance = BLACK;
    p.scatterRadius = m.scatterRadius;
    p.scatterScale = m.scatterScale;
    p.scatterSamples = m.scatterSamples;
    p.scatterFalloff = m.scatterFalloff;
    p.scatterMaxDepth = 1; /* eye rays only */
    p.scatterCache = m.scatterCache;
    p.scatterDiffuse = m.scatterDiffuse;
    p.normalOverride = miVector{0, 0, 1};
    p.bump = m.bump;
    p.bumpScale = m.bumpScale;
    p.scatterList = scatterList;
    return p;
}

TextureParams textureParams(const TextureDesc &t)
{
    TextureParams p;
    std::memset(&p, 0, sizeof p);
    p.pattern = static_cast<int>(t.pattern);
    p.scale = t.scale;
    p.octaves = t.octaves;
    p.offset = t.offset;
    p.rampFirst = 0;
    p.rampCount = static_cast<int>(std::min<size_t>(t.ramp.size(), kMaxRampKeys));
    for (int k = 0; k < p.rampCount; ++k)
        p.ramp[k] = t.ramp[static_cast<size_t>(k)];
    return p;
}

EnvironmentParams environmentParams(const EnvironmentDesc &e)
{
    return EnvironmentParams{e.zenith, e.horizon, e.ground, e.intensity};
}

PointLightParams pointLightParams(const LightDesc &l)
{
    PointLightParams p;
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    p.sharedShadow = l.sharedShadow ? 1 : 0;
    p.shadowColor = l.shadowColor;
    return p;
}

RectLightParams rectLightParams(const LightDesc &l)
{
    RectLightParams p;
    std::memset(&p, 0, sizeof p);
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    p.sharedShadow = l.sharedShadow ? 1 : 0;
    p.shadowColor = l.shadowColor;
    p.shadowSamples = l.shadowSamples;
    p.center = l.position;
    p.halfU = l.u;
    p.halfV = l.v;
    p.normal = normalized(cross(l.u, l.v));
    /* Corners in order around the rectangle, wound so that the view factor of
       the rectangle (arealight_lambertian_reflect) is positive for a point on
       the lit side whose normal faces the light. */
    const miVector c0 = sub(sub(l.position, l.u), l.v), c1 = sub(add(l.position, l.u), l.v),
                   c2 = add(add(l.position, l.u), l.v), c3 = add(sub(l.position, l.u), l.v);
    const miVector probe = add(l.position, p.normal), facing = mul(p.normal, -1.0f);
    const miVector v0 = sub(c0, probe), v1 = sub(c1, probe);
    const bool positive = dot(facing, cross(v0, v1)) > 0.0f;
    p.corners[0] = c0;
    p.corners[1] = positive ? c1 : c3;
    p.corners[2] = c2;
    p.corners[3] = positive ? c3 : c1;
    return p;
}

PlainLightParams plainLightParams(const LightDesc &l)
{
    PlainLightParams p;
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    return p;
}

} // namespace druxhost
