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

} // namespace

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT int toonMaterial_version(void) { return 1; }
DRUX_SHADER_EXPORT int toonStripes_version(void) { return 1; }

DRUX_SHADER_EXPORT miBoolean toonStripes(miColor *result, miState *state, StripeParams *p)
{
    const float w = *mi_eval_scalar(&p->width);
    const float x = w > 0.0f ? state->point.x / w : 0.0f;
    *result = static_cast<long>(std::floor(x)) % 2 == 0 ? *mi_eval_color(&p->a) : *mi_eval_color(&p->b);
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

    const miColor dcol = *mi_eval_color(&p->diffuse);
    const miColor scol = *mi_eval_color(&p->specular);
    const int bands = *mi_eval_integer(&p->bands) < 1 ? 1 : *mi_eval_integer(&p->bands);
    const float cut = *mi_eval_scalar(&p->highlight_cut), exponent = *mi_eval_scalar(&p->exponent);
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
                const int t = drux_pass_type(types, i);
                if (e[i].fbId == customFb && customFb)
                    continue;
                float cd = 1.0f, cs = 1.0f;
                if (t == DRUX_PASS_DIFFUSE)
                    cs = 0.0f;
                else if (t == DRUX_PASS_SPECULAR)
                    cd = 0.0f;
                else if (t != DRUX_PASS_BEAUTY && t != DRUX_PASS_SHADOW && t != DRUX_PASS_LIGHT_GROUP)
                    continue; /* beauty, shadow and light-group passes take both */
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
    const float width = *mi_eval_scalar(&p->rim_width);
    const float facing = std::fabs(dotND);
    const float rim = width > 0.0f && facing < width ? 1.0f - facing / width : 0.0f;
    const miColor rc = *mi_eval_color(&p->rim_color);
    const miColor rimc = {rim * rc.r, rim * rc.g, rim * rc.b, 0};

    for (miUint i = 0; i < n; ++i) {
        PassSlot &s = e[i].slots[d];
        miColor r = s.accum;
        const int t = drux_pass_type(types, i);
        if (customFb && e[i].fbId == customFb) {
            r = miColor{topBand, topBand, rim, 1};
        } else if (t == DRUX_PASS_BEAUTY || t == DRUX_PASS_SPECULAR) {
            r.r += rimc.r;
            r.g += rimc.g;
            r.b += rimc.b;
        } else if (t != DRUX_PASS_DIFFUSE && t != DRUX_PASS_SHADOW && t != DRUX_PASS_LIGHT_GROUP) {
            r = BLACK; /* reflection, refraction, indirect, background ...: nothing from this material */
        }
        r.a = 1.0f;
        s.result = r;
        s.opacity = WHITE;
    }
    *result = miColor{diffuse.r + spec.r + rimc.r, diffuse.g + spec.g + rimc.g, diffuse.b + spec.b + rimc.b, 1};
    return miTRUE;
}
