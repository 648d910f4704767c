/*
 * A shader library in C declared with the checked table form (DRUX_PARAM
 * rows): a shader with a value, an array and both ramp kinds, and three
 * whose rows do not match their structs (two rows swapped, a member without
 * a row, a row of the wrong type).  Being C, it also shows that the header
 * and its row macros compile as C.
 */
#include <DruxShaderSDK.h>
#include <shader_library.h>

typedef struct RampParams {
    miScalar at;
    miColor tint;
    int i_weights, n_weights;
    miScalar weights[3];
    DRUX_COLOR_RAMP(4) colours;
    DRUX_SCALAR_RAMP(2) values;
} RampParams;

static const miParamField kRampFields[] = {
    DRUX_PARAM(RampParams, at, miTYPE_SCALAR, "0.5"),
    DRUX_PARAM(RampParams, tint, miTYPE_COLOR, "1 1 1"),
    DRUX_PARAM_ARRAY(RampParams, weights, miTYPE_SCALAR, "[ 2 ]"),
    DRUX_PARAM_RAMP(RampParams, colours, miTYPE_COLOR_RAMP, "ramp 0 0 0 0 1 linear ramp 1 1 0.5 0.25 1 linear"),
    DRUX_PARAM_RAMP(RampParams, values, miTYPE_SCALAR_RAMP, "ramp 0 10 none"),
    DRUX_PARAM_END,
};

typedef struct Pair {
    miScalar first;
    miColor second;
} Pair;

static const miParamField kSwappedFields[] = {
    DRUX_PARAM(Pair, second, miTYPE_COLOR, NULL),
    DRUX_PARAM(Pair, first, miTYPE_SCALAR, NULL),
    DRUX_PARAM_END,
};
static const miParamField kShortFields[] = {
    DRUX_PARAM(Pair, first, miTYPE_SCALAR, NULL),
    DRUX_PARAM_END,
};
static const miParamField kWrongTypeFields[] = {
    DRUX_PARAM(Pair, first, miTYPE_SCALAR, NULL),
    DRUX_PARAM(Pair, second, miTYPE_VECTOR, NULL),
    DRUX_PARAM_END,
};

static const miShaderDef kDefs[] = {
    DRUX_SHADER("rampAt", miTYPE_COLOR, 3, RampParams, kRampFields),
    DRUX_SHADER("swappedRows", miTYPE_COLOR, 1, Pair, kSwappedFields),
    DRUX_SHADER("missingRow", miTYPE_COLOR, 1, Pair, kShortFields),
    DRUX_SHADER("wrongTypeRow", miTYPE_COLOR, 1, Pair, kWrongTypeFields),
};

DRUX_SHADER_LIBRARY_CHECKED(kDefs)

DRUX_SHADER_EXPORT int rampAt_version(void) { return 3; }

/* The colour ramp at `at`, times tint, times the first weight; alpha is the
   scalar ramp at `at`. */
DRUX_SHADER_EXPORT miBoolean rampAt(miColor *result, miState *state, RampParams *p)
{
    Ramp ramp;
    miColor c = {0, 0, 0, 1};
    const float w = p->n_weights > 0 ? p->weights[0] : 1.0f;
    ramp_constructor(&ramp, state, &p->colours, 1);
    ramp_get_interp_color(&ramp, &c, p->at);
    ramp_destructor(&ramp);
    ramp_constructor(&ramp, state, &p->values, 0);
    c.a = ramp_get_interp_float(&ramp, p->at);
    ramp_destructor(&ramp);
    result->r = c.r * p->tint.r * w;
    result->g = c.g * p->tint.g * w;
    result->b = c.b * p->tint.b * w;
    result->a = c.a;
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean swappedRows(miColor *result, miState *state, Pair *p)
{
    (void)state;
    *result = p->second;
    return miTRUE;
}
DRUX_SHADER_EXPORT miBoolean missingRow(miColor *result, miState *state, Pair *p)
{
    (void)state;
    *result = p->second;
    return miTRUE;
}
DRUX_SHADER_EXPORT miBoolean wrongTypeRow(miColor *result, miState *state, Pair *p)
{
    (void)state;
    *result = p->second;
    return miTRUE;
}
