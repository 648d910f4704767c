/*
 * toonMaterial: a cel-shaded material with a rim light.
 *
 * Each light's Lambert term is cut into `bands` flat steps; a highlight is
 * either on or off (Phong lobe over `highlight_cut`); a rim of `rim_color`
 * brightens the silhouette.  The light loop is the library's: every light's
 * samples go through sampleLightBegin / sampleLightEnd, so shadows, light
 * groups and contribution masks work as with any other material.
 *
 * Passes: the diffuse pass gets the banded light, the specular pass the
 * highlight and the rim, beauty everything, so that diffuse + specular (+
 * the background the environment writes) add up to beauty.  The custom pass
 * named by `pass` (a string parameter) shows the band index of each point.
 */
#include <DruxShaderSDK.h>
#include <shader_library.h>

#include <cmath>

namespace {

struct ToonParams {
    miColor diffuse;   /* may be connected to a texture */
    miColor specular;
    int bands;
    miScalar highlight_cut;
    miScalar exponent;
    miColor rim_color;
    miScalar rim_width;
    miTag pass;        /* name of the custom pass */
};

const miParamDecl kToonParams[] = {
    {"diffuse", miTYPE_COLOR, 0, "0.8 0.3 0.2"},
    {"specular", miTYPE_COLOR, 0, "1 1 1"},
    {"bands", miTYPE_INTEGER, 0, "3"},
    {"highlight_cut", miTYPE_SCALAR, 0, "0.5"},
    {"exponent", miTYPE_SCALAR, 0, "40"},
    {"rim_color", miTYPE_COLOR, 0, "0.3 0.35 0.5"},
    {"rim_width", miTYPE_SCALAR, 0, "0.3"},
    {"pass", miTYPE_STRING, 0, "toon_bands"},
};

/* toonStripes: a texture of two colours in stripes along object-space x,
   for connecting to toonMaterial's diffuse */
struct StripeParams {
    miColor a, b;
    miScalar width;
};

const miParamDecl kStripeParams[] = {
    {"a", miTYPE_COLOR, 0, "0.9 0.9 0.85"},
    {"b", miTYPE_COLOR, 0, "0.35 0.4 0.45"},
    {"width", miTYPE_SCALAR, 0, "1"},
};

const miShaderDecl kShaders[] = {
    {"toonMaterial", miTYPE_COLOR, 1, kToonParams, sizeof kToonParams / sizeof kToonParams[0]},
    {"toonStripes", miTYPE_COLOR, 1, kStripeParams, sizeof kStripeParams / sizeof kStripeParams[0]},
};

/* a parameter's value, evaluated when it is connected to another shader */
template <class T> T param(miState *state, T *p)
{
    const miFunction *f = state->shader;
    if (f && f->has_connections) {
        miTag word = *reinterpret_cast<const miTag *>(reinterpret_cast<const char *>(p) + f->ghost_offs);
        if (word != 0 && word != miPARAM_UNCONNECTED)
            return *static_cast<T *>(mi_phen_eval(state, p));
    }
    return *p;
}

/* the pass type of entry i, from the type table's ranges */
int passType(const PassTypeInfo *types, miUint i)
{
    for (int t = 0; types && t < DRUX_PASS_TYPES; ++t)
        if (types->range[t].count > 0 && i >= miUint(types->range[t].first) &&
            i < miUint(types->range[t].first + types->range[t].count))
            return t;
    return -1;
}

enum { kBeauty = 0, kDiffuse = 1, kSpecular = 4 };

} // namespace

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT int toonMaterial_version(void) { return 1; }
DRUX_SHADER_EXPORT int toonStripes_version(void) { return 1; }

DRUX_SHADER_EXPORT miBoolean toonStripes(miColor *result, miState *state, StripeParams *p)
{
    const float w = param(state, &p->width);
    const float x = w > 0.0f ? state->point.x / w : 0.0f;
    *result = static_cast<long>(std::floor(x)) % 2 == 0 ? param(state, &p->a) : param(state, &p->b);
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean toonMaterial(miColor *result, miState *state, ToonParams *p)
{
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    miUint n = getFrameBufferInfo(state, &types, &e);
    const int d = state->reflection_level + state->refraction_level;
    if (d > (state->options ? state->options->trace_depth : 0) + 1)
        n = 0;
    /* the custom pass, by the frame buffer its name was given */
    miUint customFb = 0;
    if (p->pass) {
        const char *name = static_cast<const char *>(mi_db_access(p->pass));
        customFb = name ? getNamedFrameBufferID(state, name) : 0;
        mi_db_unpin(p->pass);
    }
    for (miUint i = 0; i < n; ++i) {
        e[i].slots[d].accum = BLACK;
        e[i].slots[d].slotFlags = 0;
    }

    const miColor dcol = param(state, &p->diffuse);
    const miColor scol = param(state, &p->specular);
    const int bands = param(state, &p->bands) < 1 ? 1 : param(state, &p->bands);
    const float cut = param(state, &p->highlight_cut), exponent = param(state, &p->exponent);
    const miVector N = state->normal;
    const float dotND = state->dot_nd;
    const miVector R = {state->dir.x - 2 * dotND * N.x, state->dir.y - 2 * dotND * N.y,
                        state->dir.z - 2 * dotND * N.z};

    miColor diffuse = BLACK, spec = BLACK;
    float topBand = 0.0f;
    int nLights = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&nLights, &lights, state);
    const int mode = 1;
    const miBoolean useScale = miFALSE;
    const float scale = 1.0f;
    for (int k = 0; k < nLights; ++k) {
        sampleLightBegin(n, e);
        miColor col, dsum = BLACK, ssum = BLACK;
        miVector L;
        miScalar dotNL;
        int samples = 0;
        while (mi_sample_light(&col, &L, &dotNL, state, lights[k], &samples)) {
            handleNonDruxLights(n, e, &col, lights[k], state);
            /* flat bands of the Lambert term, and an on/off highlight */
            const float band = dotNL > 0.0f ? std::ceil(dotNL * bands) / bands : 0.0f;
            topBand = band > topBand ? band : topBand;
            float ws = 0.0f;
            if (dotNL > 0.0f && compute_phong_specular(&R, &L, state, exponent, 1.0f) > cut)
                ws = 1.0f;
            dsum = miColor{dsum.r + band * dcol.r * col.r, dsum.g + band * dcol.g * col.g,
                           dsum.b + band * dcol.b * col.b, 0};
            ssum = miColor{ssum.r + ws * scol.r * col.r, ssum.g + ws * scol.g * col.g,
                           ssum.b + ws * scol.b * col.b, 0};
            for (miUint i = 0; i < n; ++i) {
                const int t = passType(types, i);
                if (e[i].fbId == customFb && customFb)
                    continue;
                float cd = 1.0f, cs = 1.0f;
                if (t == kDiffuse)
                    cs = 0.0f;
                else if (t == kSpecular)
                    cd = 0.0f;
                else if (t != kBeauty && t != 12 && t != 20) /* shadow and light-group passes take both */
                    continue;
                const miColor &Li = e[i].light;
                e[i].lightSum.r += (cd * band * dcol.r + cs * ws * scol.r) * Li.r;
                e[i].lightSum.g += (cd * band * dcol.g + cs * ws * scol.g) * Li.g;
                e[i].lightSum.b += (cd * band * dcol.b + cs * ws * scol.b) * Li.b;
            }
        }
        sampleLightEnd(state, n, e, samples, &mode, &useScale, &scale);
        if (samples > 0) {
            const float w = 1.0f / static_cast<float>(samples);
            diffuse = miColor{diffuse.r + dsum.r * w, diffuse.g + dsum.g * w, diffuse.b + dsum.b * w, 0};
            spec = miColor{spec.r + ssum.r * w, spec.g + ssum.g * w, spec.b + ssum.b * w, 0};
        }
    }

    /* rim: strongest where the surface turns away from the eye */
    const float width = param(state, &p->rim_width);
    const float facing = std::fabs(dotND);
    const float rim = width > 0.0f && facing < width ? 1.0f - facing / width : 0.0f;
    const miColor rc = param(state, &p->rim_color);
    const miColor rimc = {rim * rc.r, rim * rc.g, rim * rc.b, 0};

    for (miUint i = 0; i < n; ++i) {
        PassSlot &s = e[i].slots[d];
        miColor r = s.accum;
        const int t = passType(types, i);
        if (customFb && e[i].fbId == customFb) {
            r = miColor{topBand, topBand, rim, 1};
        } else if (t == kBeauty || t == kSpecular) {
            r.r += rimc.r;
            r.g += rimc.g;
            r.b += rimc.b;
        } else if (t != kDiffuse && t != 12 && t != 20) {
            r = BLACK; /* reflection, refraction, indirect, background ...: nothing from this material */
        }
        r.a = 1.0f;
        s.result = r;
        s.opacity = WHITE;
    }
    *result = miColor{diffuse.r + spec.r + rimc.r, diffuse.g + spec.g + rimc.g, diffuse.b + spec.b + rimc.b, 1};
    return miTRUE;
}
