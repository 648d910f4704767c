/* A shared object with a shader but no declaration table. */
#include "shader_library.h"

DRUX_SHADER_EXPORT miBoolean lonely(miColor *r, miState *, void *)
{
    *r = miColor{1, 1, 1, 1};
    return miTRUE;
}
