/*
 * The host's base material, hostMaterial, in named stages: begin (inputs,
 * empty slots), bump, the light loop, the secondary rays (indirect light,
 * reflection, refraction, scattering), the composite of the material's colour
 * and the pass writing.  The passes are written by drux::MaterialPasses
 * (DruxMaterial.h), the contract every material follows.
 */
#include "shaders.h"

#include "data_passes.h"
#include "shader_support.h"
/* the pass writer's library calls are traced like the material's own */
#define DRUX_MATERIAL_CALL(fn) DRUX_CALL(fn)
#include "DruxMaterial.h"
#include "host_math.h"

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

const float kOne = 1.0f; /* the pass scale of reflection and refraction */

/* The material's inputs, read once per call. */
struct MaterialCall {
    miState *state;
    MaterialParams *p;
    BaseShaderState *bs;
    miColor dcol, scol, tr;
    float kd;
    miColor opaque; /* 1 - transparency per channel: the passes' share of the light */
    float translucence, focus, wrap;
    bool gatherRay;
    miVector N, R; /* shading normal (after bump) and mirror direction */
    float dotND;
};

/* What the secondary rays bring. */
struct MaterialLight {
    miColor indirect = BLACK, refl = BLACK, refr = BLACK, scatter = BLACK;
};

/* Reads the inputs; the base state bs was read once by the caller. */
MaterialCall beginMaterial(miState *state, MaterialParams *p, BaseShaderState *bs)
{
    MaterialCall c;
    c.state = state;
    c.p = p;
    c.bs = bs;
    c.dcol = param(state, &p->diffuse);
    c.kd = param(state, &p->kd);
    c.scol = param(state, &p->specular);
    const miColor tr = param(state, &p->transparency);
    c.tr = miColor{clamp01(tr.r), clamp01(tr.g), clamp01(tr.b), clamp01(tr.a)};
    c.opaque = miColor{1.0f - c.tr.r, 1.0f - c.tr.g, 1.0f - c.tr.b, 1.0f};
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

/* The specular model's parameters, read once per call. */
struct Highlight {
    int model;
    float exponent, secondary, ecc, rolloff;
};

/* The samples of one light into the passes and the material's light sums;
   returns the number of samples. */
int sampleLight(const MaterialCall &c, drux::MaterialPasses &passes, const Highlight &h, miTag light)
{
    miState *state = c.state;
    int samples = 0;
    miColor col;
    miVector L;
    miScalar dotNL;
    const LightLoopScope loop(light);
    while (mi_sample_light(&col, &L, &dotNL, state, light, &samples)) {
        passes.light_sample(col, light);
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
        passes.add_sample(wd, ws);
    }
    return samples;
}

/* The light loop: every light's samples through the pass writer, which
   keeps the average diffuse and specular light. */
void lightLoop(const MaterialCall &c, drux::MaterialPasses &passes)
{
    miState *state = c.state;
    int nLights = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&nLights, &lights, state);
    Highlight h;
    h.model = param(state, &c.p->model);
    h.exponent = param(state, &c.p->exponent);
    h.secondary = param(state, &c.p->secondary);
    h.ecc = param(state, &c.p->eccentricity);
    h.rolloff = param(state, &c.p->rolloff);
    for (int k = 0; k < nLights; ++k) {
        if (c.bs)
            c.bs->lightData = defaultLightDataArray;
        passes.begin_light();
        passes.end_light(sampleLight(c, passes, h, lights[k]));
    }
}

/* Secondary rays: indirect light and scattering for surfaces seen from the
   camera, reflection and refraction for every ray but final gathering. */
void secondaryRays(MaterialCall &c, const drux::MaterialPasses &passes, MaterialLight &out)
{
    miState *state = c.state;
    MaterialParams *p = c.p;
    const int n = passes.entry_count(), d = passes.depth();
    if (!c.gatherRay && d == 0 && param(state, &p->indirect) && state->options && state->options->finalgather)
        DRUX_CALL(compute_irradiance)(&out.indirect, &p->irradianceTint, &c.dcol, &c.tr, &p->irradiance, state, c.kd, 1.0f);

    const float reflectivity = param(state, &p->reflectivity);
    if (!c.gatherRay && reflectivity > 0.0f) {
        const miColor rc = param(state, &p->reflectColor);
        miColor r;
        DRUX_CALL(compute_reflection)(&r, &rc, &p->reflectedColor, &p->reflectionLimit, &p->reflectBlur, &p->reflectBlurLimit,
                           &p->reflectRays, 0, &c.N, state, n, passes.entries(), passes.types(), &kOne, reflectivity, 1.0f,
                           c.dotND);
        out.refl = miColor{reflectivity * rc.r * r.r, reflectivity * rc.g * r.g, reflectivity * rc.b * r.b, 0.0f};
    }

    if (!c.gatherRay && (c.tr.r > 0.0f || c.tr.g > 0.0f || c.tr.b > 0.0f)) {
        const float ior = state->ior;
        const miTag volume = state->refraction_volume;
        miColor transmission;
        DRUX_CALL(compute_refraction)(&out.refr, &transmission, &p->refractionLimit, &p->ior, 1, &c.tr, 0, &p->refractBlur,
                           &p->refractBlurLimit, &p->refractRays, &p->thickness, &p->fadeDistance, &p->absorbance,
                           &p->chromatic, &c.N, state, n, passes.entries(), passes.types(), &kOne, c.dotND);
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
miColor compositeColour(const MaterialCall &c, const drux::MaterialPasses &passes, MaterialLight &l)
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
    miColor spec = passes.specular(), diffuse = passes.diffuse();
    DRUX_CALL(bc_composite)(bc, &composite, &spec, &l.refl, &diffuse, cd, ce, &l.scatter, &BLACK, &l.indirect, &tr, 0, 2,
                 0.0f, 1.0f, 1.0f, 1.0f);
    miColor colour = composite.result;
    colour.a = 1.0f;
    return colour;
}

/* The passes of this depth by the pass writer's rules, then the data
   passes (depth, normal, position, albedo, coverage) that only the host
   knows how to fill. */
void writePasses(const MaterialCall &c, drux::MaterialPasses &passes, const MaterialLight &l)
{
    drux::PassComponents parts;
    parts.indirect = l.indirect;
    parts.scatter = l.scatter;
    parts.reflection = l.refl;
    parts.refraction = l.refr;
    passes.end(parts);
    writeDataPasses(c.state, static_cast<miUint>(passes.entry_count()), passes.entries(), passes.depth(), c.N,
                    miColor{c.kd * c.dcol.r, c.kd * c.dcol.g, c.kd * c.dcol.b, 1.0f});
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
    /* Under a final-gather ray only the colour counts (the gathered light):
       no pass entries, for this call and the lights, shadows and materials
       under it. */
    const bool gathering = state->type == miRAY_FINALGATHER || (tlsMaterialInfo.store && tlsMaterialInfo.gathering);
    const miUint n = gathering ? 0 : frameBufferInfo(state, &types, &e);
    BaseShaderState *bs = baseState(state);
    MaterialInfoScope scope(state, n, types, e, bs, gathering);
    MaterialCall c = beginMaterial(state, p, bs);
    drux::MaterialPasses passes(state, n, types, e, c.dcol, c.scol, c.opaque);
    const miVector savedNormal = state->normal;
    const float savedDot = state->dot_nd;
    bumpNormal(state, p);
    c.N = state->normal;
    c.dotND = state->dot_nd;
    c.R = sub(state->dir, mul(c.N, 2.0f * c.dotND));

    lightLoop(c, passes);
    MaterialLight light;
    secondaryRays(c, passes, light);
    const miColor colour = compositeColour(c, passes, light);
    writePasses(c, passes, light);

    state->normal = savedNormal;
    state->dot_nd = savedDot;
    *static_cast<miColor *>(result) = colour;
    return miTRUE;
}

} // extern "C"

} // namespace druxhost
