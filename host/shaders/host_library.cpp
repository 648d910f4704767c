/*
 * libdruxhostshaders.so: the host's shaders (material.cpp, shaders.cpp) as a shader
 * library.  Its declaration table names every shader; their parameter
 * blocks are the records of shaders.h, which druxrender's built-in
 * commands fill; druxhost_builtin_shaders names the shader of each command.
 */
#include "builtin_shaders.h"
#include "shader_library.h"
#include "shader_support.h"

namespace {

/* the blocks are the records of shaders.h, built by druxrender's commands */
const miShaderDecl kShaders[] = {
    {"hostMaterial", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostShadow", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostPointLight", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostRectLight", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostPlainLight", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostNoiseTexture", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
    {"hostEnvironment", miTYPE_COLOR, 1, nullptr, miPARAMS_BUILT_BY_HOST},
};

const druxhost::BuiltinShaders kBuiltins = {
    sizeof(druxhost::BuiltinShaders),
    "hostMaterial",
    "hostShadow",
    "hostPointLight",
    "hostRectLight",
    "hostPlainLight",
    "hostNoiseTexture",
    "hostEnvironment",
};

} // namespace

DRUX_SHADER_LIBRARY(kShaders)

DRUX_SHADER_EXPORT const druxhost::BuiltinShaders *druxhost_builtin_shaders() { return &kBuiltins; }

DRUX_SHADER_EXPORT std::atomic<druxhost::CallTraceFn> *druxhost_call_trace() { return &druxhost::shading::callTrace; }
