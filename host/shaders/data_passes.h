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
 * covered fraction of its samples (pass_images.h filters the pixels).
 */
#ifndef DRUXHOST_DATA_PASSES_H
#define DRUXHOST_DATA_PASSES_H

#include "DruxShaderSDK.h"
#include "pass_roles.h"

namespace druxhost {

/* Called by the material after it has set its pass results at depth d:
   fills the data entries' slots (eye rays at depth 0) or clears them. */
void writeDataPasses(miState *state, miUint n, FrameBufferInfo *e, int d, const miVector &shadingNormal,
                     const miColor &albedo);

} // namespace druxhost

#endif
