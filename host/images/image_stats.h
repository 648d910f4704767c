/*
 * Statistics of a rendered image set that identify it bit for bit: per layer
 * (the main image, then every pass in scene order) a 64-bit FNV-1a hash of the
 * float bits and the mean of each channel.  Stored statistics of the default
 * scene let a test see that a change of the render path leaves every pixel of
 * every pass as it was.
 *
 * Text form, one line per layer:   NAME HASH MEAN_R MEAN_G MEAN_B MEAN_A
 * (the main image is named "main").
 */
#ifndef DRUXHOST_IMAGE_STATS_H
#define DRUXHOST_IMAGE_STATS_H

#include "outputs.h"

#include <cstdint>
#include <string>
#include <vector>

namespace druxhost {

struct LayerStats {
    std::string name;
    uint64_t hash = 0;
    double mean[4] = {0, 0, 0, 0};
};

LayerStats layerStats(const std::string &name, const Image &image);
std::vector<LayerStats> imageStats(const RenderImages &result);
std::string formatStats(const std::vector<LayerStats> &stats);
/* Throws std::runtime_error on a malformed line. */
std::vector<LayerStats> parseStats(const std::string &text);

} // namespace druxhost

#endif
