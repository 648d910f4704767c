/*
 * How druxrender's built-in scene commands (material, light, texture,
 * environment) find their shaders: a linked shader library that serves them
 * exports `druxhost_builtin_shaders`, which names the shader for each
 * command and builds its parameter block (the records of shaders.h) from the
 * scene description.  druxrender resolves the named shaders like any other
 * (NAME, NAME_init, NAME_exit, NAME_version); it is compiled against no
 * shader.  libdruxhostshaders.so is the library that does this.
 */
#ifndef DRUXHOST_BUILTIN_SHADERS_H
#define DRUXHOST_BUILTIN_SHADERS_H

#include "shaders.h"

namespace druxhost {

struct BuiltinShaders {
    int size; /* sizeof(BuiltinShaders) of the library's build */
    const char *material, *shadow, *pointLight, *rectLight, *plainLight, *texture, *environment;
    MaterialParams (*materialParams)(const MaterialDesc &, ScatterCache **);
    TextureParams (*textureParams)(const TextureDesc &);
    EnvironmentParams (*environmentParams)(const EnvironmentDesc &);
    PointLightParams (*pointLightParams)(const LightDesc &);
    RectLightParams (*rectLightParams)(const LightDesc &);
    PlainLightParams (*plainLightParams)(const LightDesc &);
};

using BuiltinShadersFn = const BuiltinShaders *(*)();
#define DRUXHOST_BUILTIN_SYMBOL "druxhost_builtin_shaders"

} // namespace druxhost

#endif
