/*
 * Example host shaders, written the way a host application's shader library
 * writes them on top of DruxShaderSDK:
 *
 *   hostMaterial      base material: light loop with sampleLightBegin /
 *                     sampleLightEnd, Lambert + Phong or Blinn, translucence,
 *                     compute_reflection, compute_refraction,
 *                     compute_irradiance, compute_scatter, bump from
 *                     get_derivs and gradient noise, bc_composite, and the
 *                     per-pass results of its frame-buffer entries
 *   hostPointLight    point light: setupLightContributions + traceShadow
 *   hostRectLight     rectangular area light: setupLightContributions +
 *                     traceShadow or the traceShadowAccumulate functions;
 *                     tells the material its corners through LightData
 *   hostPlainLight    a light that knows nothing of passes (the material
 *                     routes it with handleNonDruxLights)
 *   hostShadow        shadow shader: attenuates the filter and calls
 *                     applyShadowTransparencyToFrameBuffers
 *   hostNoiseTexture  value or gradient noise mapped through a colour ramp
 *   hostEnvironment   sky gradient; fills beauty and background for eye rays
 *
 * Every shader has the renderer's signature (result, state, parameters).
 * The material reads pass roles from its entries' hostData[0] (PassRole,
 * written by the exporter).
 */
#ifndef DRUXHOST_SHADERS_H
#define DRUXHOST_SHADERS_H

#include "DruxShaderSDK.h"
#include "pass_roles.h"

namespace druxhost {

enum class TexturePattern { Fbm = 0, Marble = 1, Turbulence = 2 };
enum class SpecularModel { Phong = 0, Blinn = 1 };
constexpr int kMaxRampKeys = 16; /* keys of a texture's colour ramp */

struct MaterialParams {
    miColor diffuse; /* may be connected to a texture */
    float kd;
    miColor specular;
    int model; /* SpecularModel */
    float exponent, eccentricity, rolloff, secondary;
    float translucence, focus, wrap;
    /* reflection */
    float reflectivity;
    miColor reflectColor;
    miColor reflectedColor; /* fall-back input of reflections; used when connected */
    int reflectionLimit;
    float reflectBlur;
    int reflectBlurLimit;
    int reflectRays;
    /* refraction */
    miColor transparency;
    float ior;
    int refractionLimit;
    float refractBlur;
    int refractBlurLimit;
    int refractRays;
    float thickness, fadeDistance, absorbance;
    int chromatic;
    /* indirect light */
    int indirect;
    miColor irradianceTint;
    miColor irradiance; /* replacement indirect light; used when connected */
    /* subsurface scattering */
    float scatterRadius;
    miColor scatterScale;
    int scatterSamples, scatterFalloff, scatterMaxDepth, scatterCache;
    float scatterDiffuse;
    miVector normalOverride; /* used when connected */
    /* bump */
    float bump, bumpScale;
    /* the scattering caches of this material (list head owned by the host) */
    ScatterCache **scatterList;
};

struct PointLightParams {
    miColor color;
    float intensity;
    int quadratic;
    int sharedShadow;
    miColor shadowColor;
};

struct RectLightParams {
    miColor color;
    float intensity;
    int quadratic;
    int sharedShadow;
    miColor shadowColor;
    int shadowSamples;
    miVector center, halfU, halfV;
    miVector normal;     /* emitting side: normalised u x v */
    miVector corners[4]; /* in order around the rectangle, for LightData */
};

struct PlainLightParams {
    miColor color;
    float intensity;
    int quadratic;
};

struct ShadowParams {
    miColor transparency;
};

struct TextureParams {
    int pattern; /* TexturePattern */
    float scale;
    int octaves;
    miVector offset;
    /* the ramp parameter in the renderer's array layout */
    int rampFirst;
    int rampCount;
    RampColorEntry ramp[kMaxRampKeys];
};

struct EnvironmentParams {
    miColor zenith, horizon, ground;
    float intensity;
};

extern "C" {
miBoolean hostMaterial(void *result, miState *state, void *params);
void hostMaterial_init(miState *state, void *params, miBoolean *instanceInit);
/* Called by the renderer once rendering is over: frees the scattering caches. */
void hostMaterial_exit(miState *state, void *params);
miBoolean hostPointLight(void *result, miState *state, void *params);
miBoolean hostRectLight(void *result, miState *state, void *params);
miBoolean hostPlainLight(void *result, miState *state, void *params);
miBoolean hostShadow(void *result, miState *state, void *params);
miBoolean hostNoiseTexture(void *result, miState *state, void *params);
void hostNoiseTexture_init(miState *state, void *params, miBoolean *instanceInit);
miBoolean hostEnvironment(void *result, miState *state, void *params);
}


/* The environment colour along a direction (what hostEnvironment returns). */
miColor skyColor(const EnvironmentParams &p, const miVector &dir);

} // namespace druxhost

#endif
