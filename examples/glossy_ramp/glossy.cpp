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

/* The reflection's ramp is one parameter of up to four keys: a first index
   (0), a key count, then per key a position, a colour and an interpolation
   (RampColorEntry), the layout ramp_constructor reads from &p->ramp.  A
   scene writes its keys as `ramp POSITION R G B A INTERPOLATION`. */
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
    DRUX_COLOR_RAMP(4) ramp;
    miTag pass; /* name of the custom pass */
};

/* Checked rows: the loader compares each row's offset and size with its
   layout of the block, so a row out of order or left out is refused. */
const miParamField kGlossyFields[] = {
    DRUX_PARAM(GlossyParams, diffuse, miTYPE_COLOR, "0.6 0.6 0.6"),
    DRUX_PARAM(GlossyParams, kd, miTYPE_SCALAR, "0.8"),
    DRUX_PARAM(GlossyParams, specular, miTYPE_COLOR, "0.5 0.5 0.5"),
    DRUX_PARAM(GlossyParams, exponent, miTYPE_SCALAR, "60"),
    DRUX_PARAM(GlossyParams, reflectivity, miTYPE_SCALAR, "0.6"),
    DRUX_PARAM(GlossyParams, reflection_limit, miTYPE_INTEGER, "2"),
    DRUX_PARAM(GlossyParams, gloss, miTYPE_SCALAR, "0.1"),
    DRUX_PARAM(GlossyParams, gloss_limit, miTYPE_INTEGER, "1"),
    DRUX_PARAM(GlossyParams, rays, miTYPE_INTEGER, "8"),
    DRUX_PARAM_RAMP(GlossyParams, ramp, miTYPE_COLOR_RAMP,
                    "ramp 0 0.05 0.05 0.06 1 smooth ramp 0.6 0.2 0.22 0.25 1 smooth ramp 1 0.9 0.9 0.95 1 smooth"),
    DRUX_PARAM(GlossyParams, pass, miTYPE_PASS, "ramp_position"),
    DRUX_PARAM_END,
};

/* glossyGrain: two colours mixed by 3D value noise of the object's point */
struct GrainParams {
    miColor a, b;
    miScalar frequency;
};

const miParamField kGrainFields[] = {
    DRUX_PARAM(GrainParams, a, miTYPE_COLOR, "0.75 0.55 0.35"),
    DRUX_PARAM(GrainParams, b, miTYPE_COLOR, "0.35 0.2 0.1"),
    DRUX_PARAM(GrainParams, frequency, miTYPE_SCALAR, "0.5"),
    DRUX_PARAM_END,
};

const miShaderDef kShaders[] = {
    DRUX_SHADER("glossyRamp", miTYPE_COLOR, 1, GlossyParams, kGlossyFields),
    DRUX_SHADER("glossyGrain", miTYPE_COLOR, 1, GrainParams, kGrainFields),
};

} // namespace

DRUX_SHADER_LIBRARY_CHECKED(kShaders)

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
    ramp_constructor(&ramp, state, &p->ramp, 1);
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
