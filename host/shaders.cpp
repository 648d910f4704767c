#include "shaders.h"

#include "data_passes.h"

#include "host_math.h"
#include "scene_keys.h"

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

/* The frame-buffer info of the material call in progress on this thread.
   The light and shadow shaders that run under it (from the light loop and
   the shadow rays it traces) share its shader-state store, and the entries
   do not change while it runs, so they take the material's info instead of
   asking the library again on every light sample and occluder.  Another
   store (or no material running) asks the library. */
struct FrameBufferInfoCall {
    const void *store = nullptr; /* null: no material call in progress */
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    BaseShaderState *bs = nullptr;
};
thread_local FrameBufferInfoCall tlsMaterialInfo;

inline bool sameStore(const miState *state)
{
    return tlsMaterialInfo.store && state && static_cast<const void *>(state->shaderstate) == tlsMaterialInfo.store;
}

/* getFrameBufferInfo, answered from the running material call when it can. */
miUint frameBufferInfo(miState *state, PassTypeInfo **types, FrameBufferInfo **e)
{
    if (sameStore(state)) {
        *types = tlsMaterialInfo.types;
        *e = tlsMaterialInfo.e;
        return tlsMaterialInfo.n;
    }
    return getFrameBufferInfo(state, types, e);
}

/* The host's per-thread record, answered the same way. */
BaseShaderState *baseState(miState *state)
{
    if (sameStore(state))
        return tlsMaterialInfo.bs;
    return static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));
}

/* Publishes a material call's info for the shaders under it; the previous
   one (an enclosing material of a reflected or refracted ray) comes back on
   scope exit. */
struct MaterialInfoScope {
    FrameBufferInfoCall saved;
    MaterialInfoScope(const miState *state, miUint n, PassTypeInfo *types, FrameBufferInfo *e, BaseShaderState *bs)
        : saved(tlsMaterialInfo)
    {
        tlsMaterialInfo.store = state->shaderstate;
        tlsMaterialInfo.n = n;
        tlsMaterialInfo.types = types;
        tlsMaterialInfo.e = e;
        tlsMaterialInfo.bs = bs;
    }
    ~MaterialInfoScope() { tlsMaterialInfo = saved; }
    MaterialInfoScope(const MaterialInfoScope &) = delete;
    MaterialInfoScope &operator=(const MaterialInfoScope &) = delete;
};

/* The entries at the state's depth from info already read (n, types, e). */
Entries entriesAtDepth(miState *state, miUint n, PassTypeInfo *types, FrameBufferInfo *e)
{
    Entries r;
    r.n = n;
    r.types = types;
    r.e = e;
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

Entries entriesAtDepth(miState *state)
{
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    return entriesAtDepth(state, n, types, e);
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

/* ====================================================================== material stages

   hostMaterial runs these in order: begin (inputs, empty slots), bump, the
   light loop, the secondary rays (indirect light, reflection, refraction,
   scattering), the composite of the material's colour and the pass writing. */

namespace {

constexpr miUint kMaxListedEntries = 64;

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
        handleNonDruxLights(n, e, &col, light, state);
        if (unaware)
            for (miUint i = 0; i < n; ++i)
                if (e[i].flags & FBINFO_SHADOW_PASS)
                    e[i].light = miColor{0, 0, 0, 1};

        float wd = dotNL > 0.0f ? c.kd * dotNL : 0.0f;
        if (c.translucence != 0.0f) /* light from behind the surface */
            wd += compute_lambert_translucence(state, &L, c.bs ? c.bs->lightData.corners : nullptr, -dotNL,
                                               c.translucence, c.focus, c.wrap);
        float ws = 0.0f;
        if (dotNL > 0.0f) {
            if (h.model == static_cast<int>(SpecularModel::Blinn)) {
                if (-c.dotND > 0.0f)
                    ws = compute_blinn_specular(&L, &c.N, state, dotNL, -c.dotND, h.ecc, h.rolloff, h.secondary);
            } else {
                ws = compute_phong_specular(&c.R, &L, state, h.exponent, h.secondary);
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
        sampleLightBegin(c.en.n, c.en.e);
        miColor dsum = BLACK, ssum = BLACK;
        const int samples = sampleLight(c, h, lights[k], dsum, ssum);
        sampleLightEnd(state, c.en.n, c.en.e, samples, &mode, &useScale, &scale);
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
        compute_irradiance(&out.indirect, &p->irradianceTint, &c.dcol, &c.tr, &p->irradiance, state, c.kd, 1.0f);

    const float reflectivity = param(state, &p->reflectivity);
    if (!c.gatherRay && reflectivity > 0.0f) {
        const miColor rc = param(state, &p->reflectColor);
        miColor r;
        compute_reflection(&r, &rc, &p->reflectedColor, &p->reflectionLimit, &p->reflectBlur, &p->reflectBlurLimit,
                           &p->reflectRays, 0, &c.N, state, n, c.en.e, c.en.types, &kOne, reflectivity, 1.0f,
                           c.dotND);
        out.refl = miColor{reflectivity * rc.r * r.r, reflectivity * rc.g * r.g, reflectivity * rc.b * r.b, 0.0f};
    }

    if (!c.gatherRay && (c.tr.r > 0.0f || c.tr.g > 0.0f || c.tr.b > 0.0f)) {
        const float ior = state->ior;
        const miTag volume = state->refraction_volume;
        miColor transmission;
        compute_refraction(&out.refr, &transmission, &p->refractionLimit, &p->ior, 1, &c.tr, 0, &p->refractBlur,
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
        compute_scatter(&out.scatter, &p->scatterScale, &p->scatterRadius, &p->scatterSamples, &p->scatterFalloff,
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
    bc_construct(&bc, 0, c.state);
    BaseCompositeResult composite;
    std::memset(&composite, 0, sizeof composite);
    composite.transparency[0] = c.tr.r;
    composite.transparency[1] = c.tr.g;
    composite.transparency[2] = c.tr.b;
    const miColor cd[2] = {BLACK, BLACK};
    const miColor ce[2] = {l.refr, BLACK};
    miColor tr = c.tr;
    bc_composite(bc, &composite, &l.spec, &l.refl, &l.diffuse, cd, ce, &l.scatter, &BLACK, &l.indirect, &tr, 0, 2,
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
    if (BaseShaderState *bs = baseState(state))
        bs->lightData.corners = p->corners;

    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
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
    const miUint n = frameBufferInfo(state, &types, &e);
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
    fillParams(kMaterialKeys, m, p);
    /* what no key sets */
    p.reflectedColor = BLACK;
    p.reflectBlurLimit = 64; /* the render's blur limits in "kelubase" decide */
    p.refractBlurLimit = 64;
    p.irradiance = BLACK;
    p.scatterMaxDepth = 1; /* eye rays only */
    p.normalOverride = miVector{0, 0, 1};
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
