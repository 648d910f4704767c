#include "data_passes.h"

#include <algorithm>

namespace druxhost {

void writeDataPasses(miState *state, miUint n, FrameBufferInfo *e, int d, const miVector &N, const miColor &albedo)
{
    const bool eye = d == 0 && state->type == miRAY_EYE;
    float depth = 0.0f;
    if (eye) {
        miVector dirCam;
        mi_vector_to_camera(state, &dirCam, &state->dir);
        depth = -dirCam.z * static_cast<float>(state->dist); /* the camera looks down -z */
    }
    for (miUint i = 0; i < n; ++i) {
        const PassRole role = static_cast<PassRole>(e[i].hostData[0]);
        if (!isDataRole(role))
            continue;
        miColor c{0, 0, 0, 0};
        if (eye) {
            switch (role) {
            case PassRole::Depth:
                c = miColor{depth, depth, depth, 1};
                break;
            case PassRole::Normal:
                c = miColor{N.x, N.y, N.z, 1};
                break;
            case PassRole::Position:
                c = miColor{state->point.x, state->point.y, state->point.z, 1};
                break;
            case PassRole::Albedo:
                c = miColor{albedo.r, albedo.g, albedo.b, 1};
                break;
            default: /* coverage */
                c = miColor{1, 1, 1, 1};
                break;
            }
        }
        e[i].slots[d].result = c;
        e[i].slots[d].opacity = eye ? WHITE : BLACK;
    }
}

Image displayImage(PassRole role, const Image &pass)
{
    Image out = pass;
    const size_t px = static_cast<size_t>(pass.width) * static_cast<size_t>(pass.height);
    if (role == PassRole::Depth) {
        float lo = kNoDepth, hi = -kNoDepth;
        for (size_t i = 0; i < px; ++i)
            if (pass.rgba[4 * i] < kNoDepth) {
                lo = std::min(lo, pass.rgba[4 * i]);
                hi = std::max(hi, pass.rgba[4 * i]);
            }
        const float span = hi > lo ? hi - lo : 1.0f;
        for (size_t i = 0; i < px; ++i) {
            const float z = pass.rgba[4 * i];
            const float g = z < kNoDepth ? 1.0f - 0.8f * (z - lo) / span : 0.0f;
            out.rgba[4 * i] = out.rgba[4 * i + 1] = out.rgba[4 * i + 2] = g;
            out.rgba[4 * i + 3] = 1.0f;
        }
    } else if (role == PassRole::Normal) {
        for (size_t i = 0; i < px; ++i)
            for (int c = 0; c < 3; ++c)
                out.rgba[4 * i + size_t(c)] =
                    pass.rgba[4 * i + 3] > 0.0f ? 0.5f + 0.5f * pass.rgba[4 * i + size_t(c)] / pass.rgba[4 * i + 3] : 0.0f;
    } else if (role == PassRole::Position) {
        float lo[3] = {kNoDepth, kNoDepth, kNoDepth}, hi[3] = {-kNoDepth, -kNoDepth, -kNoDepth};
        for (size_t i = 0; i < px; ++i)
            if (pass.rgba[4 * i + 3] > 0.0f)
                for (int c = 0; c < 3; ++c) {
                    const float v = pass.rgba[4 * i + size_t(c)] / pass.rgba[4 * i + 3];
                    lo[c] = std::min(lo[c], v);
                    hi[c] = std::max(hi[c], v);
                }
        for (size_t i = 0; i < px; ++i)
            for (int c = 0; c < 3; ++c) {
                const float a = pass.rgba[4 * i + 3];
                const float span = hi[c] > lo[c] ? hi[c] - lo[c] : 1.0f;
                out.rgba[4 * i + size_t(c)] = a > 0.0f ? (pass.rgba[4 * i + size_t(c)] / a - lo[c]) / span : 0.0f;
            }
    }
    return out;
}

} // namespace druxhost
