/*
 * Pixels of the passes by their role: how a pixel's samples are filtered,
 * and how a pass is shown to the eye.  Depth keeps the nearest hit of the
 * pixel's samples (kNoDepth when none hits) and averages alpha; every other
 * pass is averaged over the samples like beauty (so a data pass's colour is
 * premultiplied by coverage).
 */
#ifndef DRUXHOST_PASS_IMAGES_H
#define DRUXHOST_PASS_IMAGES_H

#include "image_io.h"
#include "pass_roles.h"

namespace druxhost {

/* The depth of a pixel that no sample hit. */
constexpr float kNoDepth = 3.402823466e+38f;

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
