/*
 * Data passes: what the first surface an eye ray meets is, rather than how
 * it is lit.  The material writes them into its frame-buffer entries on eye
 * rays only (depth 0); every other ray, and a sample that hits nothing,
 * leaves them at transparent black.
 *
 *   depth     camera-space depth of the hit (distance along the viewing
 *             axis), in r, g and b; the file holds it as the one channel Z
 *   normal    world-space shading normal (after bump)
 *   position  world-space position of the hit
 *   albedo    the material's diffuse reflectance kd * diffuse colour (the
 *             texture's colour when one drives it), before any light
 *   coverage  1 in every channel on a hit
 *
 * Alpha is 1 on a hit and 0 on a miss, so that the pixel's alpha is the
 * covered fraction of its samples.  Pixel filtering (the renderer's loop):
 * depth keeps the nearest hit of the pixel's samples (FLT_MAX when none
 * hits) and averages alpha; every other data pass is averaged over the
 * samples like beauty (so its colour is premultiplied by coverage).
 */
#ifndef DRUXHOST_DATA_PASSES_H
#define DRUXHOST_DATA_PASSES_H

#include "DruxShaderSDK.h"
#include "image_io.h"
#include "scene.h"

namespace druxhost {

/* The depth of a pixel that no sample hit. */
constexpr float kNoDepth = 3.402823466e+38f;

inline bool isDataRole(PassRole role) { return role >= PassRole::Depth && role <= PassRole::Coverage; }

/* Called by the material after it has set its pass results at depth d:
   fills the data entries' slots (eye rays at depth 0) or clears them. */
void writeDataPasses(miState *state, miUint n, FrameBufferInfo *e, int d, const miVector &shadingNormal,
                     const miColor &albedo);

/* Per-pixel filter of a pass: start value, one sample, the pixel value. */
inline miColor pixelFilterStart(PassRole role)
{
    return role == PassRole::Depth ? miColor{kNoDepth, kNoDepth, kNoDepth, 0} : miColor{0, 0, 0, 0};
}

inline void pixelFilterAdd(PassRole role, miColor &acc, const miColor &v)
{
    if (role == PassRole::Depth) {
        if (v.a > 0.0f && v.r < acc.r) {
            acc.r = v.r;
            acc.g = v.g;
            acc.b = v.b;
        }
        acc.a += v.a;
        return;
    }
    acc.r += v.r;
    acc.g += v.g;
    acc.b += v.b;
    acc.a += v.a;
}

inline miColor pixelFilterEnd(PassRole role, const miColor &acc, float inv)
{
    if (role == PassRole::Depth)
        return miColor{acc.r, acc.g, acc.b, acc.a * inv};
    return miColor{acc.r * inv, acc.g * inv, acc.b * inv, acc.a * inv};
}

/* A picture of a pass for the eye: depth as grey (near light, far dark,
   spread over the image's range), normals as 0.5 + 0.5 n, positions spread
   over their bounding box; other passes as they are. */
Image displayImage(PassRole role, const Image &pass);

} // namespace druxhost

#endif
