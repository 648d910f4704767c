#include "data_passes.h"


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

} // namespace druxhost
