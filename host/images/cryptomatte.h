/*
 * ID mattes in the Cryptomatte form: every eye sample names the instance and
 * the material it hit; per pixel the names' ids are weighted by the samples
 * that carry them (the beauty's box filter: one weight per sample), ranked by
 * coverage and written as RGBA layers of (id, coverage) pairs, two ranks per
 * layer.  The file header describes each kind of matte under a short key:
 * name, hash, conversion and a manifest from names to ids.
 *
 * Ids: MurmurHash3_x86_32 (seed 0) of the name's UTF-8 bytes, stored as the
 * float with the same bits, with bit 23 flipped when the exponent would make
 * it zero, subnormal, infinite or not a number.  A sample that hits nothing
 * has id 0 and is left out of the ranks (its weight still counts in the
 * pixel's total, so a half-covered pixel reports coverage 0.5).
 */
#ifndef DRUXHOST_CRYPTOMATTE_H
#define DRUXHOST_CRYPTOMATTE_H

#include "image_io.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace druxhost {

/* MurmurHash3, x86 32-bit variant. */
uint32_t murmur3_32(const void *data, size_t len, uint32_t seed = 0);
/* The id of a name as a float bit pattern (never 0, subnormal, inf or NaN). */
float cryptoId(const std::string &name);
/* The bits of an id float, as 8 lower-case hex digits. */
std::string cryptoHex(float id);

constexpr int kCryptoRanks = 6; /* three RGBA layers */

/* One kind of matte ("CryptoObject", "CryptoMaterial"): the names its ids
   stand for (index -> id) and the per-pixel result. */
struct CryptoMatte {
    std::string type;                 /* layer prefix and header name */
    std::vector<std::string> names;   /* the names, index order */
    std::vector<float> ids;           /* cryptoId of each name */
    std::vector<Image> layers;        /* kCryptoRanks / 2 RGBA images */

    /* The header key: the first 7 hex digits of the type name's hash. */
    std::string key() const;
    /* JSON object name -> hex id, names in index order; with `only`, just
       the names whose flag is set. */
    std::string manifest(const std::vector<bool> *only = nullptr) const;
    /* Header attributes cryptomatte/<key>/{name,hash,conversion,manifest}. */
    std::vector<std::pair<std::string, std::string>> attributes(const std::vector<bool> *only = nullptr) const;
    /* Layer names type00, type01, ... */
    std::string layerName(int layer) const;
    /* Coverage of an id at a pixel, summed over the ranks (0 when absent). */
    float coverage(int x, int y, float id) const;
};

CryptoMatte makeCryptoMatte(const std::string &type, const std::vector<std::string> &names, int width, int height);

/* Per-pixel accumulation of one matte kind, reused from pixel to pixel by one
   thread: it never allocates after construction (the table holds one slot
   per sample). */
class CryptoPixel {
public:
    explicit CryptoPixel(int samples);
    void clear();
    /* One sample of weight w hitting name index `name` (-1: nothing hit). */
    void add(int name, float w);
    /* Rank the names by coverage and write the pixel's layers. */
    void write(CryptoMatte &m, int x, int y);

private:
    struct Slot {
        int name;
        float weight;
    };
    std::vector<Slot> slots_;
    size_t used_ = 0;
    float total_ = 0;
};

/* Instance tags to (instance index, material index), for the eye samples. */
class CryptoTags {
public:
    void add(uint32_t instanceTag, int instance, int material);
    /* Sorts the table; call once before the lookups. */
    void seal();
    /* False when the tag is none of the scene's instances. */
    bool find(uint32_t instanceTag, int &instance, int &material) const;

private:
    struct Entry {
        uint32_t tag;
        int instance, material;
    };
    std::vector<Entry> entries_;
};

} // namespace druxhost

#endif
