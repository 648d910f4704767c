/*
 * How druxrender's built-in scene commands (material, light, texture,
 * environment) find their shaders: a linked shader library that serves them
 * exports `druxhost_builtin_shaders`, which names the shader for each
 * command; druxrender builds its parameter block (the records of shaders.h)
 * from the scene description (scene/shader_params.h).  druxrender resolves the named shaders like any other
 * (NAME, NAME_init, NAME_exit, NAME_version); it is compiled against no
 * shader.  libdruxhostshaders.so is the library that does this.
 */
#ifndef DRUXHOST_BUILTIN_SHADERS_H
#define DRUXHOST_BUILTIN_SHADERS_H

#include "shaders.h"

#include <atomic>

namespace druxhost {

struct BuiltinShaders {
    int size; /* sizeof(BuiltinShaders) of the library's build */
    const char *material, *shadow, *pointLight, *rectLight, *plainLight, *texture, *environment;
};

using BuiltinShadersFn = const BuiltinShaders *(*)();
#define DRUXHOST_BUILTIN_SYMBOL "druxhost_builtin_shaders"

/* Where a shader library's code reports the library calls it makes while a
   pixel sample is replayed with a trace: the library exports
   `druxhost_call_trace`, returning its hook; druxrender stores its recorder
   there for the replay and clears it after.  Empty, a call costs one load
   and one branch. */
using CallTraceFn = void (*)(const char *call);
using CallTraceHookFn = std::atomic<CallTraceFn> *(*)();
#define DRUXHOST_CALL_TRACE_SYMBOL "druxhost_call_trace"

} // namespace druxhost

#endif
