/*
 * Shared pieces of the fuzz targets.
 *
 * Each target plays the renderer: one process-wide render context, a fixed
 * pool of database items whose contents (never their tags or types) are
 * rewritten from every input, and the library driven through the runtime's
 * calls.  Keeping tags fixed keeps inputs reproducible and the database from
 * growing over millions of runs.
 *
 * libFuzzer's entry points live once, in driver.cpp.  A target defines the
 * three names declared at the end of this header: kTarget (its name and the
 * size of its render context), setUp() (builds the target's world once per
 * process, after the driver has quieted the runtime and made the context)
 * and runInput() (one input).  After every input the driver aborts (so that
 * libFuzzer reports the input) when memory under any tag is still live, an
 * item is still pinned, or a shader-interface handle was not given back.
 */
#ifndef DRUX_FUZZ_HARNESS_H
#define DRUX_FUZZ_HARNESS_H

#include "DruxShaderSDK.h"
#include "runtime.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace fz {

/* The fuzz input read front to back; reads past the end give zeros. */
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), n_(size) {}
    bool empty() const { return pos_ >= n_; }
    size_t remaining() const { return pos_ < n_ ? n_ - pos_ : 0; }
    uint8_t u8() { return pos_ < n_ ? p_[pos_++] : 0; }
    uint16_t u16()
    {
        uint16_t v = u8();
        return static_cast<uint16_t>(v | (u8() << 8));
    }
    uint32_t u32()
    {
        uint32_t v = u16();
        return v | (static_cast<uint32_t>(u16()) << 16);
    }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    /* A float from a small table of awkward values or the raw bits. */
    float f32()
    {
        static const float table[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, 0.25f, 2.0f, 1e-6f, 1e30f,
                                      -1e30f, INFINITY, -INFINITY, NAN, 3.0f, 0.75f, 1e-38f};
        const uint8_t sel = u8();
        if (sel < 16)
            return table[sel];
        uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    /* A finite float in [lo, hi], in steps of (hi - lo) / 255. */
    float bounded(float lo, float hi) { return lo + (hi - lo) * (static_cast<float>(u8()) / 255.0f); }
    /* Up to `max` bytes. */
    std::vector<uint8_t> bytes(size_t max)
    {
        const size_t k = remaining() < max ? remaining() : max;
        std::vector<uint8_t> out(p_ + pos_, p_ + pos_ + k);
        pos_ += k;
        return out;
    }

private:
    const uint8_t *p_;
    size_t n_;
    size_t pos_ = 0;
};

/* Report a failed check of the running target and abort, so that libFuzzer
   keeps the input. */
[[noreturn]] void fail(const std::string &what);

#define FZ_CHECK(cond, msg)                                                                     \
    do {                                                                                       \
        if (!(cond))                                                                           \
            ::fz::fail(std::string("check failed: ") + #cond + " -- " + (msg));                \
    } while (0)

/* True when an error message containing `text` was logged. */
inline bool errorLogged(const char *text)
{
    for (const mirt::Message &m : mirt::messages())
        if (m.level == mirt::Level::Error && m.text.find(text) != std::string::npos)
            return true;
    return false;
}

inline uint32_t byteSwap32(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

/* What get_userdata must find, walked independently of the library (a chain
   that loops ends the walk without a match; a block too short to hold a
   magic word has none). */
inline miTag expectedUserdata(uint32_t magic, int type, miTag tag, bool wantSwapped, int &swapped)
{
    swapped = 0;
    miTag head = tag;
    if (type != miSCENE_USERDATA) {
        int t = mi_db_type(tag);
        miTag used = tag;
        if (t == miSCENE_NONE)
            return 0;
        if (t != type) {
            if (t != miSCENE_INSTANCE)
                return 0;
            used = static_cast<miInstance *>(mirt::db_data(tag))->item;
            t = mi_db_type(used);
            if (t == miSCENE_NONE || t != type)
                return 0;
        }
        if (t != miSCENE_OBJECT)
            return 0;
        head = static_cast<miObject *>(mirt::db_data(used))->userdata;
    }
    std::set<miTag> seen;
    for (miTag cur = head; cur != 0;) {
        if (!seen.insert(cur).second)
            return 0;
        if (mi_db_type(cur) != miSCENE_USERDATA)
            return 0;
        const miUserdata *u = static_cast<const miUserdata *>(mirt::db_data(cur));
        if (u->parameter_size >= 4) {
            uint32_t got;
            std::memcpy(&got, u->parameters, 4);
            if (got == magic)
                return cur;
            if (wantSwapped && got == byteSwap32(magic)) {
                swapped = 1;
                return cur;
            }
        }
        cur = u->next_data;
    }
    return 0;
}

/* Replace a user-data block's parameter area: `bytes` copied, the header's
   parameter_size set to its true size; the chain link is kept unless given. */
inline void setUserdata(miTag tag, const void *bytes, size_t size, miTag next)
{
    const size_t total = offsetof(miUserdata, parameters) + size;
    mirt::db_resize(tag, total < sizeof(miUserdata) ? sizeof(miUserdata) : total);
    miUserdata *u = static_cast<miUserdata *>(mirt::db_data(tag));
    std::memset(reinterpret_cast<char *>(u) + offsetof(miUserdata, parameters), 0,
                mirt::db_size(tag) - offsetof(miUserdata, parameters));
    if (size)
        std::memcpy(reinterpret_cast<char *>(u) + offsetof(miUserdata, parameters), bytes, size);
    u->parameter_size = static_cast<int>(size);
    u->next_data = next;
}

/* Replace a string item's text. */
inline void setString(miTag tag, const std::string &text)
{
    mirt::db_resize(tag, text.size() + 1);
    std::memcpy(mirt::db_data(tag), text.c_str(), text.size() + 1);
}

inline bool sameFloat(float a, float b)
{
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

/* Defined by each target. */
struct Target {
    const char *name;  /* as in its reports, e.g. "fbuf_fuzz" */
    int width, height; /* of the render context the driver makes */
};
extern const Target kTarget;
void setUp();             /* once per process, before the first input */
void runInput(Input &in); /* one input, checked with FZ_CHECK */

/* The process-wide render context, made by the driver before setUp(). */
mirt::Context &context();

} // namespace fz

#endif
