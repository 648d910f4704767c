/*
 * Shader libraries: what a shared object loaded by the renderer (scene
 * command `link "libfoo.so"`) tells it about its shaders.
 *
 * A shader library exports, besides its shaders (NAME, and optionally
 * NAME_init, NAME_exit, NAME_version, all extern "C"), one function
 *
 *     DRUX_SHADER_LIBRARY(table)    which defines
 *     extern "C" const miShaderLibrary *drux_shader_library(void);
 *
 * returning a table that declares every shader: its name, the type of its
 * result, its version (NAME_version() must return the same number when the
 * library has it) and its parameters in block order, each with a type and a
 * default value written as in a scene file.
 *
 * The renderer lays out each parameter block in declaration order; every
 * type is aligned to 4 bytes:
 *
 *     scalar     miScalar   4 bytes        integer  int      4 bytes
 *     boolean    miBoolean  4 bytes        color    miColor  16 bytes
 *     vector     miVector   12 bytes       transform miMatrix 64 bytes
 *     string     miTag      4 bytes (a string item; 0 when empty)
 *     shader     miTag      4 bytes (a shader instance; 0 when none)
 *     array of T with at most N elements (array_max = N > 0):
 *                int i_NAME (always 0); int n_NAME (elements given); T NAME[N]
 *
 *     colour ramp / scalar ramp with at most N keys (array_max = N > 0):
 *                int first (always 0); int count (keys given); then N keys of
 *                RampColorEntry (24 bytes) / RampScalarEntry (12 bytes),
 *                which is what ramp_constructor reads
 *
 * so the shader's C struct with the same members in the same order is the
 * block.  Any parameter that is not an array or a ramp may instead be
 * connected to another shader instance whose result has the parameter's
 * type; the shader then reads it through mi_phen_eval.
 *
 * Two table forms declare the parameters:
 *
 *   checked (recommended): each row records the member's offset and size in
 *   the struct, so the loader compares them with its own layout and refuses
 *   a table whose rows are out of order or miss a member:
 *
 *       static const miParamField kFields[] = {
 *           DRUX_PARAM(MyParams, gain, miTYPE_SCALAR, "1"),
 *           DRUX_PARAM_ARRAY(MyParams, weights, miTYPE_SCALAR, "[ 1 2 ]"),
 *           DRUX_PARAM_RAMP(MyParams, ramp, miTYPE_COLOR_RAMP, "ramp 0 0 0 0 1 linear ramp 1 1 1 1 1 linear"),
 *           DRUX_PARAM_END
 *       };
 *       static const miShaderDef kDefs[] = {
 *           DRUX_SHADER("myShader", miTYPE_COLOR, 1, MyParams, kFields),
 *       };
 *       DRUX_SHADER_LIBRARY_CHECKED(kDefs)
 *
 *   positional: miParamDecl rows {name, type, array_max, default} in block
 *   order, a miShaderDecl with their count, DRUX_SHADER_LIBRARY(decls).  The
 *   loader cannot check their order against the struct (it says so once per
 *   library).
 */
#ifndef MI_SHADER_LIBRARY_H
#define MI_SHADER_LIBRARY_H

#include "shader.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum miParamType {
    miTYPE_NONE = 0,
    miTYPE_SCALAR = 1,
    miTYPE_INTEGER = 2,
    miTYPE_BOOLEAN = 3,
    miTYPE_COLOR = 4,
    miTYPE_VECTOR = 5,
    miTYPE_TRANSFORM = 6,
    miTYPE_STRING = 7,
    miTYPE_SHADER = 8,
    miTYPE_COLOR_RAMP = 9,     /* always an array (array_max keys); see above */
    miTYPE_SCALAR_RAMP = 10,
    miTYPE_PASS = 11           /* the name of one of the scene's passes (a string item; 0 when empty):
                                  a scene that names a pass it does not declare is refused */
};

typedef struct miParamDecl {
    const char *name;
    int type;                  /* miParamType */
    int array_max;             /* 0: one value; N > 0: an array of at most N values */
    const char *default_value; /* scene-file text ("0.7 0.7 0.7", "on", "[ 1 2 ]"); null: zeros */
} miParamDecl;

typedef struct miShaderDecl {
    const char *name;          /* the shader function; NAME_init / NAME_exit / NAME_version beside it */
    int result_type;           /* miParamType of what the shader writes into its result */
    int version;               /* NAME_version() must return this when present */
    const miParamDecl *params;
    int param_count;           /* miPARAMS_BUILT_BY_HOST: the program that uses the shader
                                  builds its blocks; a scene's `shader` line cannot */
} miShaderDecl;

#define miPARAMS_BUILT_BY_HOST (-1)

/* A row of the checked table form: the declaration and where the struct
   has the member (for an array or a ramp: from its first-index word to the
   end of its elements). */
typedef struct miParamField {
    miParamDecl decl;
    size_t offset;
    size_t size;
} miParamField;

/* A shader of the checked form.  `fields` ends with DRUX_PARAM_END; `field_count`
   counts the rows with the end marker; `block_size` is sizeof the struct. */
typedef struct miShaderDef {
    const char *name;
    int result_type;
    int version;
    const miParamField *fields;
    int field_count;
    size_t block_size;
} miShaderDef;

#define miSHADER_LIBRARY_ABI 2

typedef struct miShaderLibrary {
    int abi;                   /* miSHADER_LIBRARY_ABI; 1: the first three members only */
    int shader_count;
    const miShaderDecl *shaders;
    int checked_count;         /* shaders of the checked form */
    const miShaderDef *checked;
} miShaderLibrary;

typedef const miShaderLibrary *(*miShaderLibrary_fn)(void);
#define miSHADER_LIBRARY_SYMBOL "drux_shader_library"

#ifdef __cplusplus
}
#define DRUX_SHADER_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define DRUX_SHADER_EXPORT __attribute__((visibility("default")))
#endif

/* Defines the library's table function from an array of miShaderDecl. */
#define DRUX_SHADER_LIBRARY(decls)                                                                               \
    DRUX_SHADER_EXPORT const miShaderLibrary *drux_shader_library(void)                                          \
    {                                                                                                            \
        static const miShaderLibrary lib = {miSHADER_LIBRARY_ABI, (int)(sizeof(decls) / sizeof((decls)[0])),      \
                                            (decls), 0, NULL};                                                   \
        return &lib;                                                                                             \
    }

/* Defines the library's table function from an array of miShaderDef. */
#define DRUX_SHADER_LIBRARY_CHECKED(defs)                                                                        \
    DRUX_SHADER_EXPORT const miShaderLibrary *drux_shader_library(void)                                          \
    {                                                                                                            \
        static const miShaderLibrary lib = {miSHADER_LIBRARY_ABI, 0, NULL,                                       \
                                            (int)(sizeof(defs) / sizeof((defs)[0])), (defs)};                    \
        return &lib;                                                                                             \
    }

/* The size of member `m` of struct type S, without an object. */
#define DRUX_MEMBER_SIZE(S, m) sizeof(((S *)0)->m)

/* A row for member `m` of S (one value). */
#define DRUX_PARAM(S, m, type, def) {{#m, (type), 0, (def)}, offsetof(S, m), DRUX_MEMBER_SIZE(S, m)}
/* A row for the array `m` of S, declared `int i_m, n_m; T m[N];`: N from
   the member itself. */
#define DRUX_PARAM_ARRAY(S, m, type, def)                                                                        \
    {{#m, (type), (int)(DRUX_MEMBER_SIZE(S, m) / DRUX_MEMBER_SIZE(S, m[0])), (def)}, offsetof(S, i_##m),          \
     offsetof(S, m) + DRUX_MEMBER_SIZE(S, m) - offsetof(S, i_##m)}
/* A row for the ramp `m` of S, declared with DRUX_COLOR_RAMP(N) or
   DRUX_SCALAR_RAMP(N); the shader passes &p->m to ramp_constructor. */
#define DRUX_PARAM_RAMP(S, m, type, def)                                                                         \
    {{#m, (type), (int)((DRUX_MEMBER_SIZE(S, m) - 2 * sizeof(int)) / DRUX_MEMBER_SIZE(S, m.key[0])), (def)},    \
     offsetof(S, m), DRUX_MEMBER_SIZE(S, m)}
/* The row that ends a checked table. */
#define DRUX_PARAM_END {{NULL, miTYPE_NONE, 0, NULL}, 0, 0}

/* The struct member of a ramp of at most N keys (RampColorEntry and
   RampScalarEntry come from DruxShaderSDK.h). */
#define DRUX_COLOR_RAMP(N) struct { int first; int count; RampColorEntry key[N]; }
#define DRUX_SCALAR_RAMP(N) struct { int first; int count; RampScalarEntry key[N]; }

/* A shader of the checked form: its function name, result type, version,
   parameter struct and rows. */
#define DRUX_SHADER(name, result_type, version, S, fields)                                                       \
    {(name), (result_type), (version), (fields), (int)(sizeof(fields) / sizeof((fields)[0])), sizeof(S)}

#endif
