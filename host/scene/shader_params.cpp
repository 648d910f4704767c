#include "shader_params.h"
#include "scene_keys.h"

#include <cstring>

namespace druxhost {

MaterialParams materialParams(const MaterialDesc &m, ScatterCache **scatterList)
{
    MaterialParams p;
    std::memset(&p, 0, sizeof p);
    fillParams(kMaterialKeys, m, p);
    /* what no key sets */
    p.reflectedColor = BLACK;
    p.reflectBlurLimit = 64; /* the render's blur limits in "kelubase" decide */
    p.refractBlurLimit = 64;
    p.irradiance = BLACK;
    p.scatterMaxDepth = 1; /* eye rays only */
    p.normalOverride = miVector{0, 0, 1};
    p.scatterList = scatterList;
    return p;
}

TextureParams textureParams(const TextureDesc &t)
{
    TextureParams p;
    std::memset(&p, 0, sizeof p);
    p.pattern = static_cast<int>(t.pattern);
    p.scale = t.scale;
    p.octaves = t.octaves;
    p.offset = t.offset;
    p.rampFirst = 0;
    p.rampCount = static_cast<int>(std::min<size_t>(t.ramp.size(), kMaxRampKeys));
    for (int k = 0; k < p.rampCount; ++k)
        p.ramp[k] = t.ramp[static_cast<size_t>(k)];
    return p;
}

EnvironmentParams environmentParams(const EnvironmentDesc &e)
{
    return EnvironmentParams{e.zenith, e.horizon, e.ground, e.intensity};
}

PointLightParams pointLightParams(const LightDesc &l)
{
    PointLightParams p;
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    p.sharedShadow = l.sharedShadow ? 1 : 0;
    p.shadowColor = l.shadowColor;
    return p;
}

RectLightParams rectLightParams(const LightDesc &l)
{
    RectLightParams p;
    std::memset(&p, 0, sizeof p);
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    p.sharedShadow = l.sharedShadow ? 1 : 0;
    p.shadowColor = l.shadowColor;
    p.shadowSamples = l.shadowSamples;
    p.center = l.position;
    p.halfU = l.u;
    p.halfV = l.v;
    p.normal = normalized(cross(l.u, l.v));
    /* Corners in order around the rectangle, wound so that the view factor of
       the rectangle (arealight_lambertian_reflect) is positive for a point on
       the lit side whose normal faces the light. */
    const miVector c0 = sub(sub(l.position, l.u), l.v), c1 = sub(add(l.position, l.u), l.v),
                   c2 = add(add(l.position, l.u), l.v), c3 = add(sub(l.position, l.u), l.v);
    const miVector probe = add(l.position, p.normal), facing = mul(p.normal, -1.0f);
    const miVector v0 = sub(c0, probe), v1 = sub(c1, probe);
    const bool positive = dot(facing, cross(v0, v1)) > 0.0f;
    p.corners[0] = c0;
    p.corners[1] = positive ? c1 : c3;
    p.corners[2] = c2;
    p.corners[3] = positive ? c3 : c1;
    return p;
}

PlainLightParams plainLightParams(const LightDesc &l)
{
    PlainLightParams p;
    p.color = l.color;
    p.intensity = l.intensity;
    p.quadratic = l.quadratic ? 1 : 0;
    return p;
}

} // namespace druxhost
