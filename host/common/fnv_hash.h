/*
 * 64-bit FNV-1a over bytes, for the identities of renders and their parts
 * (scene fingerprints, partial-render checksums): small, stable across
 * machines and builds, and enough to tell changed data from unchanged.
 */
#ifndef DRUXHOST_FNV_HASH_H
#define DRUXHOST_FNV_HASH_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace druxhost {

class Fnv1a64 {
public:
    void add(const void *data, size_t n)
    {
        const unsigned char *b = static_cast<const unsigned char *>(data);
        for (size_t i = 0; i < n; ++i) {
            h_ ^= b[i];
            h_ *= 0x100000001b3ull;
        }
    }
    uint64_t value() const { return h_; }
    /* 16 lower-case hex digits */
    std::string hex() const
    {
        char buf[17];
        std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h_));
        return buf;
    }

private:
    uint64_t h_ = 0xcbf29ce484222325ull;
};

} // namespace druxhost

#endif
