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
 * so the shader's C struct with the same members in the same order is the
 * block.  Any parameter that is not an array may instead be connected to
 * another shader instance whose result has the parameter's type; the shader
 * then reads it through mi_phen_eval.
 */
#ifndef MI_SHADER_LIBRARY_H
#define MI_SHADER_LIBRARY_H

#include "shader.h"

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
    miTYPE_SHADER = 8
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

#define miSHADER_LIBRARY_ABI 1

typedef struct miShaderLibrary {
    int abi;                   /* miSHADER_LIBRARY_ABI */
    int shader_count;
    const miShaderDecl *shaders;
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
                                            (decls)};                                                            \
        return &lib;                                                                                             \
    }

#endif
