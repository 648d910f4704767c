/*
 * toonMaterial: a cel-shaded material with a rim light.
 *
 * Each light's Lambert term is cut into `bands` flat steps; a highlight is
 * either on or off (Phong lobe over `highlight_cut`); a rim of `rim_color`
 * brightens the silhouette.  The light loop is the library's: every light's
 * samples go through sampleLightBegin / sampleLightEnd, so shadows, light
 * groups and contribution masks work as with any other material.
 *
 * Passes: written by drux::MaterialPasses (DruxMaterial.h): the diffuse
 * pass gets the banded light, the specular pass the highlight and the rim
 * (given as emitted specular light), beauty everything, so that diffuse +
 * specular (+ the background the environment writes) add up to beauty.
 * The custom pass named by `pass` (a string parameter) shows the band
 * level of each point.
 */
#include <DruxMaterial.h>
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
    {"pass", miTYPE_PASS, 0, "toon_bands"},
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
    const miColor dcol = *mi_eval_color(&p->diffuse);
    const miColor scol = *mi_eval_color(&p->specular);
    const int bands = *mi_eval_integer(&p->bands) < 1 ? 1 : *mi_eval_integer(&p->bands);
    const float cut = *mi_eval_scalar(&p->highlight_cut), exponent = *mi_eval_scalar(&p->exponent);
    const miVector R = drux::reflect(state->dir, state->normal);

    /* empties this depth's pass slots; the passes take the banded light
       through the diffuse colour and the highlight through the specular */
    drux::MaterialPasses passes(state, dcol, scol);
    float topBand = 0.0f;
    int nLights = 0;
    miTag *lights = nullptr;
    mi_instance_lightlist(&nLights, &lights, state);
    for (int k = 0; k < nLights; ++k) {
        passes.begin_light();
        miColor col;
        miVector L;
        miScalar dotNL;
        int samples = 0;
        while (mi_sample_light(&col, &L, &dotNL, state, lights[k], &samples)) {
            passes.light_sample(col, lights[k]);
            /* flat bands of the Lambert term, and an on/off highlight */
            const float band = dotNL > 0.0f ? std::ceil(dotNL * bands) / bands : 0.0f;
            topBand = band > topBand ? band : topBand;
            const bool lit = dotNL > 0.0f && compute_phong_specular(&R, &L, state, exponent, 1.0f) > cut;
            passes.add_sample(band, lit ? 1.0f : 0.0f);
        }
        passes.end_light(samples);
    }

    /* rim: strongest where the surface turns away from the eye; not light
       from a lamp, it goes into beauty and the specular pass */
    const float width = *mi_eval_scalar(&p->rim_width);
    const float facing = std::fabs(state->dot_nd);
    const float rim = width > 0.0f && facing < width ? 1.0f - facing / width : 0.0f;
    const miColor rimc = drux::scale(*mi_eval_color(&p->rim_color), rim);

    drux::PassComponents parts;
    parts.emitted_specular = rimc;
    passes.set_custom(p->pass, miColor{topBand, topBand, rim, 1});
    passes.end(parts);

    miColor colour = drux::add(drux::add(passes.diffuse(), passes.specular()), rimc);
    colour.a = 1.0f;
    *result = colour;
    return miTRUE;
}
