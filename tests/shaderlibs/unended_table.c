/*
 * A shader library whose checked table was built by hand with a row count
 * larger than its rows: the loader must refuse it without reading past them.
 */
#include <shader_library.h>

typedef struct OneParam {
    miScalar gain;
} OneParam;

/* no DRUX_PARAM_END: the count below says two rows, only the first is one */
static const miParamField kFields[] = {
    DRUX_PARAM(OneParam, gain, miTYPE_SCALAR, "1"),
    DRUX_PARAM(OneParam, gain, miTYPE_SCALAR, "2"),
};

static const miShaderDef kDefs[] = {
    {"unended", miTYPE_COLOR, 1, kFields, 2, sizeof(OneParam)},
};

DRUX_SHADER_LIBRARY_CHECKED(kDefs)

DRUX_SHADER_EXPORT miBoolean unended(miColor *result, miState *state, OneParam *p)
{
    (void)state;
    result->r = result->g = result->b = p->gain;
    result->a = 1.0f;
    return miTRUE;
}
