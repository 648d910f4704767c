#include "partial.h"

#include "fnv_hash.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace druxhost {

Region intersect(const Region &a, const Region &b)
{
    return Region{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
}

std::string describe(const Region &r)
{
    return std::to_string(r.x0) + "," + std::to_string(r.y0) + "-" + std::to_string(r.x1) + "," +
           std::to_string(r.y1);
}

Region tileBand(int width, int height, int index, int count, int tileSize)
{
    const int ts = std::max(1, tileSize);
    const int rows = (height + ts - 1) / ts;
    /* whole tile rows when there are enough of them, else single pixel rows */
    const int unit = rows >= count ? ts : 1;
    const int units = unit == ts ? rows : height;
    const int a = static_cast<int>(int64_t(units) * (index - 1) / count);
    const int b = static_cast<int>(int64_t(units) * index / count);
    return Region{0, std::min(height, a * unit), width, std::min(height, b * unit)};
}

namespace {

const char *const kMain = "main";
const char *const kPassPrefix = "pass.";
const char *const kMattePrefix = "matte.";
const char *const kKey = "druxrender/";

/* Lists in header attributes: each item as its length, ':' and its bytes, so
   that any name survives. */
std::string encodeList(const std::vector<std::string> &items)
{
    std::string out;
    for (const std::string &s : items)
        out += std::to_string(s.size()) + ":" + s;
    return out;
}

bool decodeList(const std::string &text, std::vector<std::string> &items)
{
    items.clear();
    size_t at = 0;
    while (at < text.size()) {
        const size_t colon = text.find(':', at);
        if (colon == std::string::npos || colon == at || colon - at > 9)
            return false;
        char *end = nullptr;
        const unsigned long n = std::strtoul(text.c_str() + at, &end, 10);
        if (end != text.c_str() + colon || n > text.size() - colon - 1)
            return false;
        items.push_back(text.substr(colon + 1, n));
        at = colon + 1 + n;
    }
    return true;
}

std::string encodeRegions(const std::vector<Region> &rs)
{
    std::string out;
    for (const Region &r : rs)
        out += std::to_string(r.x0) + " " + std::to_string(r.y0) + " " + std::to_string(r.x1) + " " +
               std::to_string(r.y1) + ";";
    return out;
}

bool decodeRegions(const std::string &text, std::vector<Region> &rs)
{
    rs.clear();
    size_t at = 0;
    while (at < text.size()) {
        const size_t semi = text.find(';', at);
        if (semi == std::string::npos)
            return false;
        Region r;
        int used = 0;
        const std::string item = text.substr(at, semi - at);
        if (std::sscanf(item.c_str(), "%d %d %d %d%n", &r.x0, &r.y0, &r.x1, &r.y1, &used) != 4 ||
            used != static_cast<int>(item.size()) || r.empty())
            return false;
        rs.push_back(r);
        at = semi + 1;
    }
    return true;
}

/* The layers of a partial, in file order: every pass in full RGBA (a depth
   pass keeps all four channels, unlike render.exr's Z). */
std::vector<Layer> partialLayers(const RenderImages &r)
{
    std::vector<Layer> layers{Layer{kMain, &r.main}};
    for (size_t i = 0; i < r.passes.size(); ++i)
        layers.push_back(Layer{kPassPrefix + r.passNames[i], &r.passes[i]});
    for (const CryptoMatte &m : r.mattes)
        for (size_t l = 0; l < m.layers.size(); ++l)
            layers.push_back(Layer{kMattePrefix + m.layerName(static_cast<int>(l)), &m.layers[l]});
    return layers;
}

std::string checksum(const std::vector<Layer> &layers, const std::string &covered)
{
    Fnv1a64 h;
    h.add(covered.data(), covered.size());
    for (const Layer &l : layers)
        h.add(l.image->rgba.data(), l.image->rgba.size() * sizeof(float));
    return h.hex();
}

std::string passList(const RenderImages &r)
{
    std::vector<std::string> items;
    for (size_t i = 0; i < r.passNames.size(); ++i) {
        items.push_back(std::to_string(static_cast<int>(r.passRoles[i])));
        items.push_back(r.passNames[i]);
    }
    return encodeList(items);
}

std::string matteList(const RenderImages &r)
{
    std::vector<std::string> items;
    for (const CryptoMatte &m : r.mattes) {
        items.push_back(m.type);
        items.push_back(std::to_string(m.names.size()));
        items.insert(items.end(), m.names.begin(), m.names.end());
    }
    return encodeList(items);
}

/* The names of a matte whose ids its covered pixels hold. */
std::vector<bool> seenNames(const CryptoMatte &m, const RenderImages &r, const std::vector<Region> &covered)
{
    std::map<uint32_t, size_t> index;
    for (size_t i = 0; i < m.ids.size(); ++i) {
        uint32_t bits;
        std::memcpy(&bits, &m.ids[i], sizeof bits);
        index.emplace(bits, i);
    }
    std::vector<bool> seen(m.names.size(), false);
    for (const Image &l : m.layers)
        for (const Region &c : covered)
            for (int y = c.y0; y < c.y1; ++y)
                for (int x = c.x0; x < c.x1; ++x) {
                    const miColor v = l.at(x - r.originX, y - r.originY);
                    for (float id : {v.r, v.b}) {
                        uint32_t bits;
                        std::memcpy(&bits, &id, sizeof bits);
                        const auto it = index.find(bits);
                        if (bits && it != index.end())
                            seen[it->second] = true;
                    }
                }
    return seen;
}

[[noreturn]] void damaged(const std::string &path, const std::string &why)
{
    throw PartialError(path + " is not a whole partial render (" + why +
                       "): render that part again (druxrender --resume on its folder re-renders missing and "
                       "damaged tiles)");
}

} // namespace

void writePartial(const std::string &path, const RenderImages &r, const PartialInfo &info)
{
    const std::vector<Layer> layers = partialLayers(r);
    const std::string covered = encodeRegions(info.covered);
    std::vector<std::pair<std::string, std::string>> attributes{
        {std::string(kKey) + "partial", "1"},
        {std::string(kKey) + "fingerprint", info.fingerprint},
        {std::string(kKey) + "label", info.label},
        {std::string(kKey) + "covered", covered},
        {std::string(kKey) + "passes", passList(r)},
        {std::string(kKey) + "mattes", matteList(r)},
        {std::string(kKey) + "checksum", checksum(layers, covered)},
    };
    for (const CryptoMatte &m : r.mattes) {
        const std::vector<bool> seen = seenNames(m, r, info.covered);
        for (const auto &a : m.attributes(&seen))
            attributes.push_back(a);
    }
    const size_t slash = path.rfind('/');
    StagedFiles staged(slash == std::string::npos ? std::string(".") : path.substr(0, slash));
    const std::string temp = staged.stage(path.substr(slash == std::string::npos ? 0 : slash + 1));
    writeExr(temp, layers, attributes, ExrWindow{info.width, info.height, r.originX, r.originY});
    staged.commit();
}

void readPartial(const std::string &path, RenderImages &r, PartialInfo &info)
{
    std::map<std::string, std::string> attr;
    std::vector<std::pair<std::string, Image>> layers;
    ExrWindow window;
    try {
        for (auto &a : readExrAttributes(path))
            attr.insert(std::move(a));
        if (attr[std::string(kKey) + "partial"] != "1")
            throw PartialError(path + " is not a partial render of druxrender (no druxrender/partial in its header)");
        layers = readExr(path, &window);
    } catch (const PartialError &) {
        throw;
    } catch (const std::exception &e) {
        damaged(path, e.what());
    }
    r = RenderImages();
    info = PartialInfo();
    info.fingerprint = attr[std::string(kKey) + "fingerprint"];
    info.label = attr[std::string(kKey) + "label"];
    info.width = window.displayWidth;
    info.height = window.displayHeight;
    r.fingerprint = info.fingerprint;
    r.originX = window.x0;
    r.originY = window.y0;
    const std::string coveredText = attr[std::string(kKey) + "covered"];
    std::vector<std::string> passes, mattes;
    if (info.fingerprint.empty() || !decodeRegions(coveredText, info.covered) ||
        !decodeList(attr[std::string(kKey) + "passes"], passes) || passes.size() % 2 ||
        !decodeList(attr[std::string(kKey) + "mattes"], mattes))
        damaged(path, "its header is incomplete");
    std::map<std::string, Image *> wanted;
    const int w = layers.empty() ? 0 : layers.front().second.width;
    const int h = layers.empty() ? 0 : layers.front().second.height;
    r.main = Image(w, h);
    wanted[kMain] = &r.main;
    for (size_t i = 0; i < passes.size(); i += 2) {
        r.passRoles.push_back(static_cast<PassRole>(std::atoi(passes[i].c_str())));
        r.passNames.push_back(passes[i + 1]);
    }
    r.passes.assign(r.passNames.size(), Image(w, h));
    for (size_t i = 0; i < r.passNames.size(); ++i)
        wanted[kPassPrefix + r.passNames[i]] = &r.passes[i];
    for (size_t at = 0; at + 1 < mattes.size();) {
        const std::string type = mattes[at];
        const size_t n = std::strtoul(mattes[at + 1].c_str(), nullptr, 10);
        if (n > mattes.size() - at - 2)
            damaged(path, "its header is incomplete");
        r.mattes.push_back(makeCryptoMatte(type, std::vector<std::string>(mattes.begin() + long(at) + 2,
                                                                          mattes.begin() + long(at + 2 + n)),
                                           w, h));
        at += 2 + n;
    }
    for (CryptoMatte &m : r.mattes)
        for (size_t l = 0; l < m.layers.size(); ++l)
            wanted[kMattePrefix + m.layerName(static_cast<int>(l))] = &m.layers[l];
    for (auto &l : layers) {
        auto it = wanted.find(l.first);
        if (it == wanted.end() || !it->second)
            damaged(path, "a layer it should not hold: \"" + l.first + "\"");
        *it->second = std::move(l.second);
        it->second = nullptr;
    }
    for (const auto &it : wanted)
        if (it.second)
            damaged(path, "the layer \"" + it.first + "\" is missing");
    const Region window2{r.originX, r.originY, r.originX + w, r.originY + h};
    const Region image{0, 0, info.width, info.height};
    for (const Region &c : info.covered)
        if (!(intersect(c, window2) == c) || !(intersect(c, image) == c))
            damaged(path, "a covered rectangle " + describe(c) + " outside its pixels");
    if (checksum(partialLayers(r), coveredText) != attr[std::string(kKey) + "checksum"])
        damaged(path, "its pixels do not match the checksum in its header");
}

void copyCovered(const RenderImages &part, const std::vector<Region> &covered, RenderImages &whole)
{
    auto copy = [&](const Image &src, Image &dst) {
        for (const Region &c : covered)
            for (int y = c.y0; y < c.y1; ++y) {
                const float *from =
                    &src.rgba[(size_t(y - part.originY) * size_t(src.width) + size_t(c.x0 - part.originX)) * 4];
                float *to = &dst.rgba[(size_t(y) * size_t(dst.width) + size_t(c.x0)) * 4];
                std::memcpy(to, from, size_t(c.width()) * 4 * sizeof(float));
            }
    };
    copy(part.main, whole.main);
    for (size_t i = 0; i < part.passes.size() && i < whole.passes.size(); ++i)
        copy(part.passes[i], whole.passes[i]);
    for (size_t m = 0; m < part.mattes.size() && m < whole.mattes.size(); ++m)
        for (size_t l = 0; l < part.mattes[m].layers.size() && l < whole.mattes[m].layers.size(); ++l)
            copy(part.mattes[m].layers[l], whole.mattes[m].layers[l]);
}

RenderImages mergePartials(const std::vector<std::string> &paths, std::string *fingerprint)
{
    if (paths.empty())
        throw PartialError("no partial renders to merge");
    RenderImages whole;
    PartialInfo first;
    std::vector<int> owner;
    for (size_t i = 0; i < paths.size(); ++i) {
        RenderImages part;
        PartialInfo info;
        readPartial(paths[i], part, info);
        if (i == 0) {
            first = info;
            whole.fingerprint = info.fingerprint;
            whole.main = Image(info.width, info.height);
            whole.passNames = part.passNames;
            whole.passRoles = part.passRoles;
            whole.passes.assign(part.passes.size(), Image(info.width, info.height));
            for (const CryptoMatte &m : part.mattes)
                whole.mattes.push_back(makeCryptoMatte(m.type, m.names, info.width, info.height));
            owner.assign(size_t(info.width) * size_t(info.height), -1);
        } else {
            bool sameMattes = part.mattes.size() == whole.mattes.size();
            for (size_t m = 0; sameMattes && m < part.mattes.size(); ++m)
                sameMattes = part.mattes[m].type == whole.mattes[m].type && part.mattes[m].names == whole.mattes[m].names;
            std::string differs;
            if (info.fingerprint != first.fingerprint)
                differs = "fingerprints " + info.fingerprint + " and " + first.fingerprint;
            else if (info.width != first.width || info.height != first.height)
                differs = "image sizes " + std::to_string(info.width) + "x" + std::to_string(info.height) + " and " +
                          std::to_string(first.width) + "x" + std::to_string(first.height);
            else if (part.passNames != whole.passNames || part.passRoles != whole.passRoles)
                differs = "passes";
            else if (!sameMattes)
                differs = "ID mattes";
            if (!differs.empty())
                throw PartialError(paths[i] + " and " + paths[0] +
                                   " are parts of different renders (scene or settings differ: " + differs +
                                   "); merge the parts of one render only");
        }
        for (const Region &c : info.covered)
            for (int y = c.y0; y < c.y1; ++y)
                for (int x = c.x0; x < c.x1; ++x) {
                    int &o = owner[size_t(y) * size_t(info.width) + size_t(x)];
                    if (o >= 0)
                        throw PartialError(paths[size_t(o)] + " and " + paths[i] + " both hold pixel " +
                                           std::to_string(x) + "," + std::to_string(y) +
                                           " (overlapping parts): give each part once");
                    o = static_cast<int>(i);
                }
        copyCovered(part, info.covered, whole);
    }
    /* the bounding box of the pixels no part holds */
    Region missing{first.width, first.height, 0, 0};
    for (int y = 0; y < first.height; ++y)
        for (int x = 0; x < first.width; ++x)
            if (owner[size_t(y) * size_t(first.width) + size_t(x)] < 0) {
                missing.x0 = std::min(missing.x0, x);
                missing.y0 = std::min(missing.y0, y);
                missing.x1 = std::max(missing.x1, x + 1);
                missing.y1 = std::max(missing.y1, y + 1);
            }
    if (!missing.empty())
        throw PartialError("no part holds the pixels in " + describe(missing) + " of the " +
                           std::to_string(first.width) + "x" + std::to_string(first.height) + " image (" +
                           std::to_string(paths.size()) + " part" + (paths.size() == 1 ? "" : "s") +
                           " given, from " + paths[0] + "): a tile is missing; render it and merge again");
    if (fingerprint)
        *fingerprint = first.fingerprint;
    return whole;
}

} // namespace druxhost
