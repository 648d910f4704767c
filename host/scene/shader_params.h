/*
 * The parameter blocks of the host's shaders (shaders.h) for druxrender's
 * built-in scene commands, from the scene descriptions: the key tables of
 * scene_keys.h fill them, the rest is set here.
 */
#ifndef DRUXHOST_SHADER_PARAMS_H
#define DRUXHOST_SHADER_PARAMS_H

#include "scene.h"
#include "shaders.h"

namespace druxhost {

/* Parameter blocks from the scene description. */
MaterialParams materialParams(const MaterialDesc &m, ScatterCache **scatterList);
TextureParams textureParams(const TextureDesc &t);
EnvironmentParams environmentParams(const EnvironmentDesc &e);
PointLightParams pointLightParams(const LightDesc &l);
RectLightParams rectLightParams(const LightDesc &l);
PlainLightParams plainLightParams(const LightDesc &l);

} // namespace druxhost

#endif
