/*
 * A shader library for the loader tests: a shader with a parameter of every
 * type, a texture -> material connection chain, shaders that record their
 * init and exit calls, and two broken declarations (a version that does not
 * match, a declared shader without its function).
 */
#include "shader_library.h"

#include <cstddef>
#include <cstring>
#include <string>

namespace {

struct AllTypes {
    miScalar s;
    int i;
    miBoolean b;
    miColor c;
    miVector v;
    miMatrix m;
    miTag str;
    miTag sh;
    int i_arr, n_arr, arr[4];
    miScalar after;
};
static_assert(offsetof(AllTypes, s) == 0 && offsetof(AllTypes, i) == 4 && offsetof(AllTypes, b) == 8, "");
static_assert(offsetof(AllTypes, c) == 12 && offsetof(AllTypes, v) == 28 && offsetof(AllTypes, m) == 40, "");
static_assert(offsetof(AllTypes, str) == 104 && offsetof(AllTypes, sh) == 108 && offsetof(AllTypes, i_arr) == 112, "");
static_assert(offsetof(AllTypes, arr) == 120 && offsetof(AllTypes, after) == 136 && sizeof(AllTypes) == 140, "");

const miParamDecl kAllTypes[] = {
    {"s", miTYPE_SCALAR, 0, "1.5"},
    {"i", miTYPE_INTEGER, 0, "7"},
    {"b", miTYPE_BOOLEAN, 0, "on"},
    {"c", miTYPE_COLOR, 0, "0.1 0.2 0.3"},
    {"v", miTYPE_VECTOR, 0, "1 2 3"},
    {"m", miTYPE_TRANSFORM, 0, "1 0 0 0 0 1 0 0 0 0 1 0 4 5 6 1"},
    {"str", miTYPE_STRING, 0, "hello"},
    {"sh", miTYPE_SHADER, 0, nullptr},
    {"arr", miTYPE_INTEGER, 4, "[ 10 20 ]"},
    {"after", miTYPE_SCALAR, 0, "-2"},
};

struct Checker {
    miColor a, b;
    miScalar scale;
};
const miParamDecl kChecker[] = {
    {"a", miTYPE_COLOR, 0, "0 0 0"}, {"b", miTYPE_COLOR, 0, "1 1 1"}, {"scale", miTYPE_SCALAR, 0, "1"}};

struct Tint {
    miColor base; /* connectable */
    miScalar gain;
};
const miParamDecl kTint[] = {{"base", miTYPE_COLOR, 0, "0.5 0.5 0.5"}, {"gain", miTYPE_SCALAR, 0, "2"}};

const miParamDecl kCounted[] = {{"id", miTYPE_INTEGER, 0, "0"}};
const miParamDecl kScalarOut[] = {{"value", miTYPE_SCALAR, 0, "0.25"}};
const miParamDecl kPassUser[] = {{"pass", miTYPE_PASS, 0, nullptr}};

const miShaderDecl kShaders[] = {
    {"allTypes", miTYPE_COLOR, 1, kAllTypes, 10},
    {"checker", miTYPE_COLOR, 1, kChecker, 3},
    {"tint", miTYPE_COLOR, 1, kTint, 2},
    {"countedA", miTYPE_COLOR, 1, kCounted, 1},
    {"countedB", miTYPE_COLOR, 1, kCounted, 1},
    {"scalarOut", miTYPE_SCALAR, 1, kScalarOut, 1},
    {"newerShader", miTYPE_COLOR, 2, nullptr, 0},
    {"missingShader", miTYPE_COLOR, 1, nullptr, 0},
    {"hostBuilt", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"badTable", miTYPE_COLOR, 1, nullptr, 3},
    {"mangledShader", miTYPE_COLOR, 1, nullptr, 0},
    {"hiddenInit", miTYPE_COLOR, 1, nullptr, 0},
    {"passUser", miTYPE_COLOR, 1, kPassUser, 1},
};

std::string events;
void *held = nullptr; /* memory countedA holds between init and exit */

void record(const char *what, const void *params)
{
    events += what;
    if (params)
        events += ":" + std::to_string(*static_cast<const int *>(params));
    events += " ";
}

} // namespace

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT const char *test_shader_events(void) { return events.c_str(); }
DRUX_SHADER_EXPORT void test_shader_clear_events(void) { events.clear(); }

DRUX_SHADER_EXPORT miBoolean allTypes(miColor *r, miState *, AllTypes *p)
{
    *r = p->c;
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean checker(miColor *r, miState *state, Checker *p)
{
    const int k = static_cast<int>(state->point.x * p->scale) & 1;
    *r = k ? p->b : p->a;
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean tint(miColor *r, miState *state, Tint *p)
{
    miColor base = p->base;
    const miFunction *f = state->shader;
    miTag word;
    std::memcpy(&word, reinterpret_cast<const char *>(&p->base) + f->ghost_offs, sizeof word);
    if (f->has_connections && word != 0 && word != miPARAM_UNCONNECTED)
        base = *static_cast<miColor *>(mi_phen_eval(state, &p->base));
    *r = miColor{base.r * p->gain, base.g * p->gain, base.b * p->gain, 1};
    return miTRUE;
}

DRUX_SHADER_EXPORT int tint_version(void) { return 1; }

DRUX_SHADER_EXPORT miBoolean countedA(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT void countedA_init(miState *, void *params, miBoolean *inst)
{
    record("initA", params);
    if (!params) {
        held = mi_mem_int_allocate("tests/shaderlibs", __LINE__, 64);
        *inst = miTRUE; /* per-instance init too */
    }
}
DRUX_SHADER_EXPORT void countedA_exit(miState *, void *params)
{
    record("exitA", params);
    if (!params) {
        mi_mem_int_release("tests/shaderlibs", __LINE__, held);
        held = nullptr;
    }
}

DRUX_SHADER_EXPORT miBoolean countedB(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT void countedB_init(miState *, void *params, miBoolean *inst)
{
    record("initB", params);
    if (inst)
        *inst = miFALSE;
}
DRUX_SHADER_EXPORT void countedB_exit(miState *, void *params) { record("exitB", params); }

DRUX_SHADER_EXPORT miBoolean scalarOut(miScalar *r, miState *, miScalar *p)
{
    *r = *p;
    return miTRUE;
}

DRUX_SHADER_EXPORT miBoolean newerShader(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT int newerShader_version(void) { return 1; }
/* missingShader is declared but has no function */
DRUX_SHADER_EXPORT miBoolean hostBuilt(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT miBoolean badTable(miColor *, miState *, void *) { return miTRUE; }
/* mangledShader is visible but has a C++ name; hiddenInit's init is not
   exported: the loader names both mistakes. */
__attribute__((visibility("default"))) miBoolean mangledShader(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT miBoolean hiddenInit(miColor *, miState *, void *) { return miTRUE; }
DRUX_SHADER_EXPORT miBoolean passUser(miColor *, miState *, void *) { return miTRUE; }
extern "C" __attribute__((visibility("hidden"), used)) void hiddenInit_init(miState *, void *, miBoolean *) {}
