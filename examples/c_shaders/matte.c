/*
 * c_shaders: a shader library in plain C.
 *
 *   cChecker  a texture: a 3D checker of two colours, its edges broken up
 *             by the SDK's value noise
 *   cMatte    a material: Lambert light from every light, written into the
 *             beauty and diffuse passes
 *
 * Parameters are read with the mi_eval_* forms, so any of them may be
 * connected to another shader (the scene connects cChecker to cMatte's
 * colour).
 */
#include <DruxShaderSDK.h>
#include <shader_library.h>

#include <math.h>

typedef struct CheckerParams {
    miColor a, b;
    miScalar size;
} CheckerParams;

typedef struct MatteParams {
    miColor color;
    miScalar kd;
} MatteParams;

static const miParamDecl kCheckerParams[] = {
    {"a", miTYPE_COLOR, 0, "0.8 0.8 0.75"},
    {"b", miTYPE_COLOR, 0, "0.2 0.25 0.3"},
    {"size", miTYPE_SCALAR, 0, "0.5"},
};

static const miParamDecl kMatteParams[] = {
    {"color", miTYPE_COLOR, 0, "0.7 0.7 0.7"},
    {"kd", miTYPE_SCALAR, 0, "1"},
};

static const miShaderDecl kShaders[] = {
    {"cChecker", miTYPE_COLOR, 1, kCheckerParams, 3},
    {"cMatte", miTYPE_COLOR, 1, kMatteParams, 2},
};

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT int cChecker_version(void) { return 1; }
DRUX_SHADER_EXPORT int cMatte_version(void) { return 1; }

DRUX_SHADER_EXPORT miBoolean cChecker(miColor *result, miState *state, CheckerParams *p)
{
    const float size = *mi_eval_scalar(&p->size);
    const float s = size > 0.0f ? 1.0f / size : 1.0f;
    const miVector q = state->point;
    const float wobble = 0.2f * (float)noise_scalar_3d(q.x * 3.0, q.y * 3.0, q.z * 3.0);
    const long cell = (long)floorf(q.x * s + wobble) + (long)floorf(q.y * s + wobble) + (long)floorf(q.z * s + wobble);
    *result = (cell & 1) ? *mi_eval_color(&p->b) : *mi_eval_color(&p->a);
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean cMatte(miColor *result, miState *state, MatteParams *p)
{
    PassTypeInfo *types = NULL;
    FrameBufferInfo *e = NULL;
    miUint n = getFrameBufferInfo(state, &types, &e);
    const int d = state->reflection_level + state->refraction_level;
    const miColor c = *mi_eval_color(&p->color);
    const float kd = *mi_eval_scalar(&p->kd);
    const int mode = 1;
    const miBoolean useScale = miFALSE;
    const float scale = 1.0f;
    miColor sum = {0, 0, 0, 1};
    miTag *lights = NULL;
    int nLights = 0, k;
    miUint i;

    if (n > 0 && d > (state->options ? state->options->trace_depth : 0) + 1)
        n = 0; /* deeper than the slots reach */
    for (i = 0; i < n; ++i) {
        e[i].slots[d].accum = BLACK;
        e[i].slots[d].slotFlags = 0;
    }
    mi_instance_lightlist(&nLights, &lights, state);
    for (k = 0; k < nLights; ++k) {
        miColor col, lsum = {0, 0, 0, 0};
        miVector dir;
        miScalar dotNL;
        int samples = 0;
        sampleLightBegin(n, e);
        while (mi_sample_light(&col, &dir, &dotNL, state, lights[k], &samples)) {
            handleNonDruxLights(n, e, &col, lights[k], state);
            if (dotNL <= 0.0f)
                continue;
            lsum.r += kd * dotNL * c.r * col.r;
            lsum.g += kd * dotNL * c.g * col.g;
            lsum.b += kd * dotNL * c.b * col.b;
            for (i = 0; i < n; ++i) {
                const int t = drux_pass_type(types, i);
                if (t != DRUX_PASS_BEAUTY && t != DRUX_PASS_DIFFUSE)
                    continue;
                e[i].lightSum.r += kd * dotNL * c.r * e[i].light.r;
                e[i].lightSum.g += kd * dotNL * c.g * e[i].light.g;
                e[i].lightSum.b += kd * dotNL * c.b * e[i].light.b;
            }
        }
        sampleLightEnd(state, n, e, samples, &mode, &useScale, &scale);
        if (samples > 0) {
            sum.r += lsum.r / (float)samples;
            sum.g += lsum.g / (float)samples;
            sum.b += lsum.b / (float)samples;
        }
    }
    for (i = 0; i < n; ++i) {
        PassSlot *s = &e[i].slots[d];
        const int t = drux_pass_type(types, i);
        s->result = (t == DRUX_PASS_BEAUTY || t == DRUX_PASS_DIFFUSE) ? s->accum : BLACK;
        s->result.a = 1.0f;
        s->opacity = WHITE;
    }
    *result = sum;
    return miTRUE;
}
