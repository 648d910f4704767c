/*
 * The host's exporter: turns the scene's passes into the frame-buffer
 * description block (user data with magic "FBuf" on the camera) and builds
 * the contribution masks of lights and occluders.
 *
 * Pass mapping (roles -> pass types, see scene.cpp):
 *
 *   beauty 0      everything; also receives the environment that reflection
 *                 and refraction fall back on
 *   diffuse 1, specular 4, reflection 26, refraction 28, indirect 32,
 *   scatter 33    components; traced light does not propagate into them
 *   background 31 the environment seen by eye rays
 *   shadow 12     the light taken away by occluders
 *   lightgroup 20 the light of one group's lights, also through mirrors
 *                 and glass
 *
 * The frame-buffer records are ordered by type (the block requires it); the
 * entry index of a pass is its position in that order.  Record words: 8
 * (shadowed) for the roles that receive light, 9 (all occluders) when the
 * pass asks for it; host words: 10 = role code (PassRole), 11 = index of the
 * pass in the scene, 12 = 1 + index of its light group (0: none).
 */
#ifndef DRUXHOST_EXPORTER_H
#define DRUXHOST_EXPORTER_H

#include "scene.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace druxhost {

struct PassLayout {
    std::vector<int> entryPass;    /* entry i -> index into SceneDesc::passes */
    std::vector<int> constantPass; /* non-material passes (druxFrameBufferInit), scene order */
    std::vector<int> typeCounts;   /* 35 counts */
    std::vector<std::string> groups; /* light groups named by light-group passes, first use order */

    int entryOf(int passIndex) const; /* -1 when the pass is not an entry */
};

PassLayout layoutPasses(const SceneDesc &scene);

/* The parameter area of the "FBuf" user data.  `nameTag` makes the string
   item of a frame-buffer name. */
std::vector<uint32_t> buildFbufBlock(const SceneDesc &scene, const PassLayout &layout,
                                     const std::function<miTag(const std::string &)> &nameTag);

/* A contribution mask text: digit j holds entries 4j .. 4j+3, bit (i mod 4)
   for entry i, upper-case hexadecimal; as many digits as the entries need. */
std::string maskText(const std::vector<bool> &entryOn);

/* The light's mask: every entry except the light groups the light is not in.
   Empty when the scene has no light-group pass (no mask: every pass). */
std::string lightMask(const SceneDesc &scene, const PassLayout &layout, const LightDesc &light);
/* An instance's occluder mask: the entries of its shadow passes; empty when
   it names none (its shadow reaches every pass). */
std::string occluderMask(const SceneDesc &scene, const PassLayout &layout, const InstanceDesc &instance);

} // namespace druxhost

#endif
