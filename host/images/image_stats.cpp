#include "image_stats.h"

#include "text_lines.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace druxhost {

LayerStats layerStats(const std::string &name, const Image &image)
{
    LayerStats s;
    s.name = name;
    uint64_t h = 0xcbf29ce484222325ULL;
    auto mix = [&h](uint32_t w) {
        for (int b = 0; b < 4; ++b) {
            h ^= (w >> (8 * b)) & 0xFFu;
            h *= 0x100000001b3ULL;
        }
    };
    mix(static_cast<uint32_t>(image.width));
    mix(static_cast<uint32_t>(image.height));
    double sum[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < image.rgba.size(); ++i) {
        uint32_t bits;
        std::memcpy(&bits, &image.rgba[i], sizeof bits);
        mix(bits);
        sum[i % 4] += image.rgba[i];
    }
    const double pixels = static_cast<double>(image.rgba.size() / 4);
    for (int c = 0; c < 4; ++c)
        s.mean[c] = pixels > 0 ? sum[c] / pixels : 0.0;
    s.hash = h;
    return s;
}

std::vector<LayerStats> imageStats(const RenderImages &r)
{
    std::vector<LayerStats> out;
    out.push_back(layerStats("main", r.main));
    for (size_t i = 0; i < r.passes.size(); ++i)
        out.push_back(layerStats(r.passNames[i], r.passes[i]));
    return out;
}

std::string formatStats(const std::vector<LayerStats> &stats)
{
    std::string out;
    char line[256];
    for (const LayerStats &s : stats) {
        std::snprintf(line, sizeof line, "%s %016" PRIx64 " %.9g %.9g %.9g %.9g\n", s.name.c_str(), s.hash,
                      s.mean[0], s.mean[1], s.mean[2], s.mean[3]);
        out += line;
    }
    return out;
}

std::vector<LayerStats> parseStats(const std::string &text)
{
    std::vector<LayerStats> out;
    forEachLine(text, [&out](const std::string &line, int n) {
        if (line.empty() || line[0] == '#')
            return;
        std::istringstream ls(line);
        LayerStats s;
        std::string hash;
        if (!(ls >> s.name >> hash >> s.mean[0] >> s.mean[1] >> s.mean[2] >> s.mean[3]) || hash.size() != 16)
            throw std::runtime_error("image statistics line " + std::to_string(n) + " is malformed");
        s.hash = std::stoull(hash, nullptr, 16);
        out.push_back(s);
    });
    return out;
}

} // namespace druxhost
