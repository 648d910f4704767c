#include "pass_images.h"

#include <algorithm>

namespace druxhost {

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
