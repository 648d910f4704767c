/*
 * glossyRamp: a Lambert and Phong material with a glossy reflection whose
 * colour comes from a ramp over the viewing angle (dim when the surface
 * faces the eye, bright at grazing angles), and glossyGrain, a noise
 * texture to connect to its diffuse colour.
 *
 * The passes are written by drux::MaterialPasses (DruxMaterial.h): diffuse,
 * specular and reflection add up to beauty with the background.  The custom
 * pass named by `pass` shows where on the ramp each point is (grey level).
 */
#include <DruxMaterial.h>
#include <DruxShaderSDK.h>
#include <shader_library.h>

#include <cmath>

namespace {

/* The ramp is declared as separate parameters laid out as the library's
   ramp array: first index (0), key count, then per key a position, a
   colour and an interpolation (RAMP_LINEAR ...), which is the layout of
   RampColorEntry.  ramp_constructor reads it from &p->ramp_first. */
constexpr int kRampKeys = 4;

struct GlossyParams {
    miColor diffuse; /* connect a texture: diffuse = grain */
    miScalar kd;
    miColor specular;
    miScalar exponent;
    miScalar reflectivity;
    int reflection_limit;
    miScalar gloss; /* 0 mirror .. 1 very blurred */
    int gloss_limit;
    int rays;
    int ramp_first;
    int ramp_count;
    RampColorEntry ramp[kRampKeys];
    miTag pass; /* name of the custom pass */
};

static_assert(offsetof(GlossyParams, ramp) == offsetof(GlossyParams, ramp_first) + 8,
              "ramp keys follow the first index and the count");

const miParamDecl kGlossyParams[] = {
    {"diffuse", miTYPE_COLOR, 0, "0.6 0.6 0.6"},
    {"kd", miTYPE_SCALAR, 0, "0.8"},
    {"specular", miTYPE_COLOR, 0, "0.5 0.5 0.5"},
    {"exponent", miTYPE_SCALAR, 0, "60"},
    {"reflectivity", miTYPE_SCALAR, 0, "0.6"},
    {"reflection_limit", miTYPE_INTEGER, 0, "2"},
    {"gloss", miTYPE_SCALAR, 0, "0.1"},
    {"gloss_limit", miTYPE_INTEGER, 0, "1"},
    {"rays", miTYPE_INTEGER, 0, "8"},
    {"ramp_first", miTYPE_INTEGER, 0, "0"},
    {"ramp_count", miTYPE_INTEGER, 0, "3"},
    {"key0_position", miTYPE_SCALAR, 0, "0"},
    {"key0_color", miTYPE_COLOR, 0, "0.05 0.05 0.06"},
    {"key0_interpolation", miTYPE_INTEGER, 0, "2"},
    {"key1_position", miTYPE_SCALAR, 0, "0.6"},
    {"key1_color", miTYPE_COLOR, 0, "0.2 0.22 0.25"},
    {"key1_interpolation", miTYPE_INTEGER, 0, "2"},
    {"key2_position", miTYPE_SCALAR, 0, "1"},
    {"key2_color", miTYPE_COLOR, 0, "0.9 0.9 0.95"},
    {"key2_interpolation", miTYPE_INTEGER, 0, "2"},
    {"key3_position", miTYPE_SCALAR, 0, "1"},
    {"key3_color", miTYPE_COLOR, 0, "1 1 1"},
    {"key3_interpolation", miTYPE_INTEGER, 0, "2"},
    {"pass", miTYPE_STRING, 0, "ramp_position"},
};

/* glossyGrain: two colours mixed by 3D value noise of the object's point */
struct GrainParams {
    miColor a, b;
    miScalar frequency;
};

const miParamDecl kGrainParams[] = {
    {"a", miTYPE_COLOR, 0, "0.75 0.55 0.35"},
    {"b", miTYPE_COLOR, 0, "0.35 0.2 0.1"},
    {"frequency", miTYPE_SCALAR, 0, "0.5"},
};

const miShaderDecl kShaders[] = {
    {"glossyRamp", miTYPE_COLOR, 1, kGlossyParams, sizeof kGlossyParams / sizeof kGlossyParams[0]},
    {"glossyGrain", miTYPE_COLOR, 1, kGrainParams, sizeof kGrainParams / sizeof kGrainParams[0]},
};

} // namespace

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT int glossyRamp_version(void) { return 1; }
DRUX_SHADER_EXPORT int glossyGrain_version(void) { return 1; }

DRUX_SHADER_EXPORT miBoolean glossyGrain(miColor *result, miState *state, GrainParams *p)
{
    const float f = *mi_eval_scalar(&p->frequency);
    const miVector q = drux::scale(state->point, f);
    /* noise in (-1, 1) to a mix weight in [0, 1] */
    float t = 0.5f + 0.5f * noise_scalar_3d(q.x, q.y, q.z);
    t = t < 0.0f ? 0.0f : (t > 1.0f ? 1.0f : t);
    const miColor a = *mi_eval_color(&p->a), b = *mi_eval_color(&p->b);
    *result = drux::add(drux::scale(a, 1.0f - t), drux::scale(b, t));
    result->a = 1.0f;
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean glossyRamp(miColor *result, miState *state, GlossyParams *p)
{
    const float kd = *mi_eval_scalar(&p->kd);
    const miColor dcol = drux::scale(*mi_eval_color(&p->diffuse), kd);
    const miColor scol = *mi_eval_color(&p->specular);
    const float exponent = *mi_eval_scalar(&p->exponent);
    const miVector N = state->normal;
    const miVector R = drux::reflect(state->dir, N);

    drux::MaterialPasses passes(state, dcol, scol);
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
            const float ws = dotNL > 0.0f ? compute_phong_specular(&R, &L, state, exponent, 1.0f) : 0.0f;
            passes.add_sample(dotNL > 0.0f ? dotNL : 0.0f, ws);
        }
        passes.end_light(samples);
    }

    /* the reflection's colour from the ramp at 1 - |cos| of the view angle */
    const float along = 1.0f - std::fabs(state->dot_nd);
    Ramp ramp;
    ramp_constructor(&ramp, state, &p->ramp_first, 1);
    miColor tint = {0, 0, 0, 1};
    ramp_get_interp_color(&ramp, &tint, along);
    ramp_destructor(&ramp);

    /* compute_reflection returns the plain average of what the rays saw;
       the material shows reflectivity x tint x that, and the library weights
       the reflected passes the same way */
    const float reflectivity = *mi_eval_scalar(&p->reflectivity);
    drux::PassComponents parts;
    if (reflectivity > 0.0f) {
        miColor seen;
        const float one = 1.0f;
        compute_reflection(&seen, &tint, nullptr, &p->reflection_limit, &p->gloss, &p->gloss_limit, &p->rays, 0, &N,
                           state, passes.entry_count(), passes.entries(), passes.types(), &one, reflectivity, 1.0f,
                           state->dot_nd);
        parts.reflection = drux::scale(drux::mul(tint, seen), reflectivity);
        parts.reflection.a = 0.0f;
    }
    passes.set_custom(p->pass, miColor{along, along, along, 1});
    passes.end(parts);

    miColor colour = drux::add(drux::add(passes.diffuse(), passes.specular()), parts.reflection);
    colour.a = 1.0f;
    *result = colour;
    return miTRUE;
}
