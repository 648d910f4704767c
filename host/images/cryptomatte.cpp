#include "cryptomatte.h"

#include "vecmath.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace druxhost {

namespace {

uint32_t rotl32(uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }

uint32_t fmix32(uint32_t h) { return mirt::mix32(h, 0x85ebca6bu, 13, 0xc2b2ae35u); }

std::string hex8(uint32_t v)
{
    char buf[9];
    std::snprintf(buf, sizeof buf, "%08x", v);
    return buf;
}

void jsonString(std::string &out, const std::string &s)
{
    out += '"';
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[7];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

} // namespace

uint32_t murmur3_32(const void *data, size_t len, uint32_t seed)
{
    const unsigned char *p = static_cast<const unsigned char *>(data);
    const uint32_t c1 = 0xcc9e2d51u, c2 = 0x1b873593u;
    uint32_t h = seed;
    const size_t blocks = len / 4;
    for (size_t i = 0; i < blocks; ++i) {
        /* blocks are read little-endian whatever the machine */
        uint32_t k = uint32_t(p[4 * i]) | uint32_t(p[4 * i + 1]) << 8 | uint32_t(p[4 * i + 2]) << 16 |
                     uint32_t(p[4 * i + 3]) << 24;
        k *= c1;
        k = rotl32(k, 15);
        k *= c2;
        h ^= k;
        h = rotl32(h, 13);
        h = h * 5 + 0xe6546b64u;
    }
    const unsigned char *tail = p + blocks * 4;
    uint32_t k = 0;
    switch (len & 3) {
    case 3:
        k ^= uint32_t(tail[2]) << 16;
        [[fallthrough]];
    case 2:
        k ^= uint32_t(tail[1]) << 8;
        [[fallthrough]];
    case 1:
        k ^= tail[0];
        k *= c1;
        k = rotl32(k, 15);
        k *= c2;
        h ^= k;
        break;
    default:
        break;
    }
    h ^= static_cast<uint32_t>(len);
    return fmix32(h);
}

float cryptoId(const std::string &name)
{
    uint32_t h = murmur3_32(name.data(), name.size(), 0);
    const uint32_t exponent = h >> 23 & 255u;
    if (exponent == 0 || exponent == 255)
        h ^= 1u << 23;
    float f;
    std::memcpy(&f, &h, sizeof f);
    return f;
}

std::string cryptoHex(float id)
{
    uint32_t bits;
    std::memcpy(&bits, &id, sizeof bits);
    return hex8(bits);
}

std::string CryptoMatte::key() const { return hex8(murmur3_32(type.data(), type.size(), 0)).substr(0, 7); }

std::string CryptoMatte::manifest(const std::vector<bool> *only) const
{
    std::string out = "{";
    for (size_t i = 0; i < names.size(); ++i) {
        if (only && (i >= only->size() || !(*only)[i]))
            continue;
        if (out.size() > 1)
            out += ",";
        jsonString(out, names[i]);
        out += ":\"" + cryptoHex(ids[i]) + "\"";
    }
    return out + "}";
}

std::vector<std::pair<std::string, std::string>> CryptoMatte::attributes(const std::vector<bool> *only) const
{
    const std::string p = "cryptomatte/" + key() + "/";
    return {{p + "name", type},
            {p + "hash", "MurmurHash3_32"},
            {p + "conversion", "uint32_to_float32"},
            {p + "manifest", manifest(only)}};
}

std::string CryptoMatte::layerName(int layer) const
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "%02d", layer);
    return type + buf;
}

float CryptoMatte::coverage(int x, int y, float id) const
{
    float sum = 0;
    for (const Image &l : layers) {
        const miColor c = l.at(x, y);
        if (c.r == id)
            sum += c.g;
        if (c.b == id)
            sum += c.a;
    }
    return sum;
}

CryptoMatte makeCryptoMatte(const std::string &type, const std::vector<std::string> &names, int width, int height)
{
    CryptoMatte m;
    m.type = type;
    m.names = names;
    for (const std::string &n : names)
        m.ids.push_back(cryptoId(n));
    for (int l = 0; l < kCryptoRanks / 2; ++l)
        m.layers.emplace_back(width, height);
    return m;
}

CryptoPixel::CryptoPixel(int samples) : slots_(static_cast<size_t>(std::max(1, samples))) {}

void CryptoPixel::clear()
{
    used_ = 0;
    total_ = 0;
}

void CryptoPixel::add(int name, float w)
{
    total_ += w;
    if (name < 0)
        return;
    for (size_t i = 0; i < used_; ++i)
        if (slots_[i].name == name) {
            slots_[i].weight += w;
            return;
        }
    if (used_ < slots_.size())
        slots_[used_++] = Slot{name, w};
}

void CryptoPixel::write(CryptoMatte &m, int x, int y)
{
    /* insertion sort: highest coverage first, ties by name index */
    for (size_t i = 1; i < used_; ++i) {
        const Slot s = slots_[i];
        size_t j = i;
        while (j > 0 && (slots_[j - 1].weight < s.weight ||
                         (slots_[j - 1].weight == s.weight && slots_[j - 1].name > s.name))) {
            slots_[j] = slots_[j - 1];
            --j;
        }
        slots_[j] = s;
    }
    const float inv = total_ > 0 ? 1.0f / total_ : 0.0f;
    for (size_t l = 0; l < m.layers.size(); ++l) {
        float v[4] = {0, 0, 0, 0};
        for (size_t k = 0; k < 2; ++k) {
            const size_t r = 2 * l + k;
            if (r < used_) {
                v[2 * k] = m.ids[static_cast<size_t>(slots_[r].name)];
                v[2 * k + 1] = slots_[r].weight * inv;
            }
        }
        m.layers[l].set(x, y, miColor{v[0], v[1], v[2], v[3]});
    }
}

void CryptoTags::add(uint32_t tag, int instance, int material) { entries_.push_back(Entry{tag, instance, material}); }

void CryptoTags::seal()
{
    std::sort(entries_.begin(), entries_.end(), [](const Entry &a, const Entry &b) { return a.tag < b.tag; });
}

bool CryptoTags::find(uint32_t tag, int &instance, int &material) const
{
    auto it = std::lower_bound(entries_.begin(), entries_.end(), tag,
                               [](const Entry &e, uint32_t t) { return e.tag < t; });
    if (it == entries_.end() || it->tag != tag || tag == 0)
        return false;
    instance = it->instance;
    material = it->material;
    return true;
}

} // namespace druxhost
