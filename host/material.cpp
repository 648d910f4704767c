/*
 * The host's base material, hostMaterial, in named stages: begin (inputs,
 * empty slots), bump, the light loop, the secondary rays (indirect light,
 * reflection, refraction, scattering), the composite of the material's colour
 * and the pass writing.  The example a shader writer copies.
 */
#include "shaders.h"

#include "data_passes.h"
#include "host_math.h"
#include "shader_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace druxhost {

using namespace shading;

/* ====================================================================== material stages

   hostMaterial runs these in order: begin (inputs, empty slots), bump, the
   light loop, the secondary rays (indirect light, reflection, refraction,
   scattering), the composite of the material's colour and the pass writing. */

namespace {

constexpr miUint kMaxListedEntries = 64;

const float kOne = 1.0f; /* the pass scale of reflection and refraction */

/* The diffuse (cd) and specular (cs) weights with which a pass of role
   `role` takes the light samples; false: it takes none. */
bool lightWeights(PassRole role, float &cd, float &cs)
{
    cd = 1.0f;
    cs = 1.0f;
    switch (role) {
    case PassRole::Diffuse:
        cs = 0.0f;
        return true;
    case PassRole::Specular:
        cd = 0.0f;
        return true;
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
        return false;
    default: /* beauty, shadow, light groups, passes of other exporters */
        return true;
    }
}

/* What the stages of one hostMaterial call share. */
struct MaterialCall {
    miState *state;
    MaterialParams *p;
    Entries en;
    int beauty; /* the beauty entry, whose light the material's colour uses; -1: none */
    BaseShaderState *bs;
    miColor dcol, scol, tr;
    float kd, opaque[3];
    float translucence, focus, wrap;
    bool gatherRay;
    miVector N, R; /* shading normal (after bump) and mirror direction */
    float dotND;
    /* The entries that take the light samples, with their diffuse and
       specular weights (1 or 0), found once per call; lit < 0: too many
       entries to list, the light loop goes by role on every sample. */
    int lit;
    unsigned char litIndex[kMaxListedEntries];
    float litCd[kMaxListedEntries], litCs[kMaxListedEntries];
};

/* What the light loop and the secondary rays bring. */
struct MaterialLight {
    miColor diffuse = BLACK, spec = BLACK, indirect = BLACK, refl = BLACK, refr = BLACK, scatter = BLACK;
};

/* Empties this depth's slots, finds the beauty entry and reads the inputs.
   The frame-buffer info (n, types, e) and base state bs were read once by
   the caller. */
MaterialCall beginMaterial(miState *state, MaterialParams *p, miUint n, PassTypeInfo *types, FrameBufferInfo *e,
                           BaseShaderState *bs)
{
    MaterialCall c;
    c.state = state;
    c.p = p;
    c.en = entriesAtDepth(state, n, types, e);
    c.beauty = -1;
    for (miUint i = 0; i < c.en.n; ++i) {
        c.en.e[i].slots[c.en.depth].accum = BLACK;
        c.en.e[i].slots[c.en.depth].slotFlags = 0;
        if (c.beauty < 0 && roleOf(c.en.e[i]) == PassRole::Beauty)
            c.beauty = static_cast<int>(i);
    }
    c.lit = c.en.n <= kMaxListedEntries ? 0 : -1;
    for (miUint i = 0; c.lit >= 0 && i < c.en.n; ++i) {
        float cd, cs;
        if (!lightWeights(roleOf(c.en.e[i]), cd, cs))
            continue;
        c.litIndex[c.lit] = static_cast<unsigned char>(i);
        c.litCd[c.lit] = cd;
        c.litCs[c.lit] = cs;
        ++c.lit;
    }
    c.bs = bs;
    c.dcol = param(state, &p->diffuse);
    c.kd = param(state, &p->kd);
    c.scol = param(state, &p->specular);
    const miColor tr = param(state, &p->transparency);
    c.tr = miColor{clamp01(tr.r), clamp01(tr.g), clamp01(tr.b), clamp01(tr.a)};
    c.opaque[0] = 1.0f - c.tr.r;
    c.opaque[1] = 1.0f - c.tr.g;
    c.opaque[2] = 1.0f - c.tr.b;
    c.translucence = param(state, &p->translucence);
    c.focus = param(state, &p->focus);
    c.wrap = param(state, &p->wrap);
    c.gatherRay = state->type == miRAY_FINALGATHER;
    return c;
}

/* Bump: tilts the state's shading normal by the slope of gradient noise
   along the surface derivatives (the caller restores it). */
void bumpNormal(miState *state, MaterialParams *p)
{
    const float bump = param(state, &p->bump);
    if (bump == 0.0f)
        return;
    miVector du, dv;
    DRUX_CALL(get_derivs)(state, &du, &dv, DRUX_SPACE_INTERNAL, 0);
    du = normalized(du);
    dv = normalized(dv);
    const float s = param(state, &p->bumpScale), h = 0.01f;
    const miVector q = mul(state->point, s);
    const float n0 = DRUX_CALL(noise_gradient_3d)(q.x, q.y, q.z);
    const miVector qu = add(q, mul(du, h)), qv = add(q, mul(dv, h));
    const float gu = (DRUX_CALL(noise_gradient_3d)(qu.x, qu.y, qu.z) - n0) / h;
    const float gv = (DRUX_CALL(noise_gradient_3d)(qv.x, qv.y, qv.z) - n0) / h;
    miVector nb = normalized(sub(state->normal, mul(add(mul(du, gu), mul(dv, gv)), bump)));
    if (dot(nb, state->dir) < 0.0f) { /* keep facing the viewer */
        state->normal = nb;
        state->dot_nd = dot(nb, state->dir);
    }
}

/* Adds one light sample's diffuse (wd) and specular (ws) weights to the
   light sums of the passes that take them. */
void addSampleToPasses(const MaterialCall &c, float wd, float ws)
{
    FrameBufferInfo *e = c.en.e;
    if (c.lit >= 0) {
        for (int k = 0; k < c.lit; ++k) {
            const float cd = c.litCd[k], cs = c.litCs[k];
            FrameBufferInfo &x = e[c.litIndex[k]];
            const miColor &Li = x.light;
            x.lightSum.r += c.opaque[0] * (cd * wd * c.dcol.r + cs * ws * c.scol.r) * Li.r;
            x.lightSum.g += c.opaque[1] * (cd * wd * c.dcol.g + cs * ws * c.scol.g) * Li.g;
            x.lightSum.b += c.opaque[2] * (cd * wd * c.dcol.b + cs * ws * c.scol.b) * Li.b;
        }
        return;
    }
    for (miUint i = 0; i < c.en.n; ++i) {
        float cd, cs;
        if (!lightWeights(roleOf(e[i]), cd, cs))
            continue;
        const miColor &Li = e[i].light;
        e[i].lightSum.r += c.opaque[0] * (cd * wd * c.dcol.r + cs * ws * c.scol.r) * Li.r;
        e[i].lightSum.g += c.opaque[1] * (cd * wd * c.dcol.g + cs * ws * c.scol.g) * Li.g;
        e[i].lightSum.b += c.opaque[2] * (cd * wd * c.dcol.b + cs * ws * c.scol.b) * Li.b;
    }
}

/* The specular model's parameters, read once per call. */
struct Highlight {
    int model;
    float exponent, secondary, ecc, rolloff;
};

/* The samples of one light: their diffuse and specular light summed into
   dsum and ssum and into the passes; returns the number of samples. */
int sampleLight(const MaterialCall &c, const Highlight &h, miTag light, miColor &dsum, miColor &ssum)
{
    miState *state = c.state;
    const miUint n = c.en.n;
    FrameBufferInfo *e = c.en.e;
    int samples = 0;
    miColor col;
    miVector L;
    miScalar dotNL;
    while (mi_sample_light(&col, &L, &dotNL, state, light, &samples)) {
        /* a light that did not set up its contributions knows nothing of
           passes: route its colour; it brings no shadow pass of its own */
        const bool unaware = n && (e[0].flags & FBINFO_LIGHT_SETUP_PENDING);
        DRUX_CALL(handleNonDruxLights)(n, e, &col, light, state);
        if (unaware)
            for (miUint i = 0; i < n; ++i)
                if (e[i].flags & FBINFO_SHADOW_PASS)
                    e[i].light = miColor{0, 0, 0, 1};

        float wd = dotNL > 0.0f ? c.kd * dotNL : 0.0f;
        if (c.translucence != 0.0f) /* light from behind the surface */
            wd += DRUX_CALL(compute_lambert_translucence)(state, &L, c.bs ? c.bs->lightData.corners : nullptr, -dotNL,
                                               c.translucence, c.focus, c.wrap);
        float ws = 0.0f;
        if (dotNL > 0.0f) {
            if (h.model == static_cast<int>(SpecularModel::Blinn)) {
                if (-c.dotND > 0.0f)
                    ws = DRUX_CALL(compute_blinn_specular)(&L, &c.N, state, dotNL, -c.dotND, h.ecc, h.rolloff, h.secondary);
            } else {
                ws = DRUX_CALL(compute_phong_specular)(&c.R, &L, state, h.exponent, h.secondary);
            }
        }
        const miColor &Lb = c.beauty >= 0 ? e[c.beauty].light : col;
        dsum.r += wd * c.dcol.r * Lb.r;
        dsum.g += wd * c.dcol.g * Lb.g;
        dsum.b += wd * c.dcol.b * Lb.b;
        ssum.r += ws * c.scol.r * Lb.r;
        ssum.g += ws * c.scol.g * Lb.g;
        ssum.b += ws * c.scol.b * Lb.b;
        addSampleToPasses(c, wd, ws);
    }
    return samples;
}

/* The light loop: every light's average diffuse and specular light, and
   its contributions to the passes through sampleLightBegin/End. */
void lightLoop(const MaterialCall &c, MaterialLight &out)
{
    miState *state = c.state;
    int nLights = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&nLights, &lights, state);
    const int mode = 1; /* add each light's average into the slot */
    const miBoolean useScale = miFALSE;
    const float scale = 1.0f;
    Highlight h;
    h.model = param(state, &c.p->model);
    h.exponent = param(state, &c.p->exponent);
    h.secondary = param(state, &c.p->secondary);
    h.ecc = param(state, &c.p->eccentricity);
    h.rolloff = param(state, &c.p->rolloff);
    for (int k = 0; k < nLights; ++k) {
        if (c.bs)
            c.bs->lightData = defaultLightDataArray;
        DRUX_CALL(sampleLightBegin)(c.en.n, c.en.e);
        miColor dsum = BLACK, ssum = BLACK;
        const int samples = sampleLight(c, h, lights[k], dsum, ssum);
        DRUX_CALL(sampleLightEnd)(state, c.en.n, c.en.e, samples, &mode, &useScale, &scale);
        if (samples > 0) {
            const float w = 1.0f / static_cast<float>(samples);
            out.diffuse.r += dsum.r * w;
            out.diffuse.g += dsum.g * w;
            out.diffuse.b += dsum.b * w;
            out.spec.r += ssum.r * w;
            out.spec.g += ssum.g * w;
            out.spec.b += ssum.b * w;
        }
    }
}

/* Secondary rays: indirect light and scattering for surfaces seen from the
   camera, reflection and refraction for every ray but final gathering. */
void secondaryRays(MaterialCall &c, MaterialLight &out)
{
    miState *state = c.state;
    MaterialParams *p = c.p;
    const int n = static_cast<int>(c.en.n), d = c.en.depth;
    if (!c.gatherRay && d == 0 && param(state, &p->indirect) && state->options && state->options->finalgather)
        DRUX_CALL(compute_irradiance)(&out.indirect, &p->irradianceTint, &c.dcol, &c.tr, &p->irradiance, state, c.kd, 1.0f);

    const float reflectivity = param(state, &p->reflectivity);
    if (!c.gatherRay && reflectivity > 0.0f) {
        const miColor rc = param(state, &p->reflectColor);
        miColor r;
        DRUX_CALL(compute_reflection)(&r, &rc, &p->reflectedColor, &p->reflectionLimit, &p->reflectBlur, &p->reflectBlurLimit,
                           &p->reflectRays, 0, &c.N, state, n, c.en.e, c.en.types, &kOne, reflectivity, 1.0f,
                           c.dotND);
        out.refl = miColor{reflectivity * rc.r * r.r, reflectivity * rc.g * r.g, reflectivity * rc.b * r.b, 0.0f};
    }

    if (!c.gatherRay && (c.tr.r > 0.0f || c.tr.g > 0.0f || c.tr.b > 0.0f)) {
        const float ior = state->ior;
        const miTag volume = state->refraction_volume;
        miColor transmission;
        DRUX_CALL(compute_refraction)(&out.refr, &transmission, &p->refractionLimit, &p->ior, 1, &c.tr, 0, &p->refractBlur,
                           &p->refractBlurLimit, &p->refractRays, &p->thickness, &p->fadeDistance, &p->absorbance,
                           &p->chromatic, &c.N, state, n, c.en.e, c.en.types, &kOne, c.dotND);
        /* the refracted rays have taken the new index with them */
        state->ior = ior;
        state->refraction_volume = volume;
    }

    /* The scattering cache's points are placed and lit once, by whichever
       pixel touches them first; a fixed sampling offset makes them
       independent of that pixel, of the thread count and of the render
       (database tags differ between renders, so the offset must not depend
       on them). */
    if (!c.gatherRay && p->scatterList && state->type == miRAY_EYE && d == 0 &&
        param(state, &p->scatterRadius) > 0.0f) {
        const miUint qmc = state->qmc_offset;
        state->qmc_offset = 0x9E3779B9u;
        DRUX_CALL(compute_scatter)(&out.scatter, &p->scatterScale, &p->scatterRadius, &p->scatterSamples, &p->scatterFalloff,
                        &p->scatterMaxDepth, &p->scatterCache, &p->scatterDiffuse, &p->diffuse, &p->translucence,
                        &p->focus, &p->wrap, &p->normalOverride, &p->irradiance, &p->irradianceTint, state,
                        p->scatterList);
        state->qmc_offset = qmc;
    }
}

/* The material's colour: (diffuse + indirect + specular) through the
   opacity, then reflection, refraction and scattering on top. */
miColor compositeColour(const MaterialCall &c, MaterialLight &l)
{
    BaseComposite bc;
    DRUX_CALL(bc_construct)(&bc, 0, c.state);
    BaseCompositeResult composite;
    std::memset(&composite, 0, sizeof composite);
    composite.transparency[0] = c.tr.r;
    composite.transparency[1] = c.tr.g;
    composite.transparency[2] = c.tr.b;
    const miColor cd[2] = {BLACK, BLACK};
    const miColor ce[2] = {l.refr, BLACK};
    miColor tr = c.tr;
    DRUX_CALL(bc_composite)(bc, &composite, &l.spec, &l.refl, &l.diffuse, cd, ce, &l.scatter, &BLACK, &l.indirect, &tr, 0, 2,
                 0.0f, 1.0f, 1.0f, 1.0f);
    miColor colour = composite.result;
    colour.a = 1.0f;
    return colour;
}

/* The passes of this depth: what the light loop gathered in the slots plus
   the secondary rays' light by role; then the data passes. */
void writePasses(const MaterialCall &c, const MaterialLight &l)
{
    FrameBufferInfo *e = c.en.e;
    const int d = c.en.depth;
    const float *opaque = c.opaque;
    for (miUint i = 0; i < c.en.n; ++i) {
        PassSlot &s = e[i].slots[d];
        miColor r = s.accum;
        switch (roleOf(e[i])) {
        case PassRole::Beauty:
            r.r += opaque[0] * l.indirect.r + l.scatter.r;
            r.g += opaque[1] * l.indirect.g + l.scatter.g;
            r.b += opaque[2] * l.indirect.b + l.scatter.b;
            break;
        case PassRole::Reflection:
            r = l.refl;
            break;
        case PassRole::Refraction:
            r = l.refr;
            break;
        case PassRole::Indirect:
            r = miColor{opaque[0] * l.indirect.r, opaque[1] * l.indirect.g, opaque[2] * l.indirect.b, 0};
            break;
        case PassRole::Scatter:
            r = l.scatter;
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
    writeDataPasses(c.state, c.en.n, e, d, c.N, miColor{c.kd * c.dcol.r, c.kd * c.dcol.g, c.kd * c.dcol.b, 1.0f});
}

} // namespace

extern "C" {

/* ====================================================================== material */

void hostMaterial_init(miState *state, void *params, miBoolean *instanceInit)
{
    if (!params) {
        DRUX_CALL(noise_gradient_init)(state); /* bump noise */
        if (instanceInit)
            *instanceInit = miFALSE;
    }
}

void hostMaterial_exit(miState *state, void *params)
{
    MaterialParams *p = static_cast<MaterialParams *>(params);
    if (p && p->scatterList)
        DRUX_CALL(destroy_scatter)(state, p->scatterList);
}

miBoolean hostMaterial(void *result, miState *state, void *pv)
{
    MaterialParams *p = static_cast<MaterialParams *>(pv);
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    BaseShaderState *bs = baseState(state);
    MaterialInfoScope scope(state, n, types, e, bs);
    MaterialCall c = beginMaterial(state, p, n, types, e, bs);
    const miVector savedNormal = state->normal;
    const float savedDot = state->dot_nd;
    bumpNormal(state, p);
    c.N = state->normal;
    c.dotND = state->dot_nd;
    c.R = sub(state->dir, mul(c.N, 2.0f * c.dotND));

    MaterialLight light;
    lightLoop(c, light);
    secondaryRays(c, light);
    const miColor colour = compositeColour(c, light);
    writePasses(c, light);

    state->normal = savedNormal;
    state->dot_nd = savedDot;
    *static_cast<miColor *>(result) = colour;
    return miTRUE;
}

} // extern "C"

} // namespace druxhost
