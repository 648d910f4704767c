/*
 * Shared pieces of the fuzz targets.
 *
 * Each target plays the renderer: one process-wide render context, a fixed
 * pool of database items whose contents (never their tags or types) are
 * rewritten from every input, and the library driven through the runtime's
 * calls.  Keeping tags fixed keeps inputs reproducible and the database from
 * growing over millions of runs.
 *
 * After every input the target calls finishInput(), which aborts (so that
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

[[noreturn]] inline void fail(const char *target, const std::string &what)
{
    std::fprintf(stderr, "\n==== %s: %s\n", target, what.c_str());
    std::fflush(stderr);
    std::abort();
}

#define FZ_CHECK(cond, msg)                                                                     \
    do {                                                                                       \
        if (!(cond))                                                                           \
            ::fz::fail(kTarget, std::string("check failed: ") + #cond + " -- " + (msg));       \
    } while (0)

/* Nothing left behind by one input. */
inline void finishInput(const char *target)
{
    const int64_t live = mirt::mem_live_bytes_total();
    if (live != 0)
        fail(target, "memory still live after the input: " + std::to_string(live) + " bytes");
    const long pins = mirt::db_total_pins();
    if (pins != 0) {
        std::string list;
        for (miTag t : mirt::db_pinned())
            list += " " + std::to_string(t) + "(x" + std::to_string(mirt::db_pin_count(t)) + ")";
        fail(target, "database items still pinned after the input:" + list);
    }
    if (mirt::shader_interface_outstanding() != 0)
        fail(target, "shader-interface handles not given back");
    /* Keep the process-wide logs from growing over millions of inputs. */
    mirt::clear_messages();
    mirt::mem_clear_events();
}

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

/* Quiet runtime errors are part of the game; the runtime logs them and goes on. */
inline void quietRuntime() { mirt::set_echo_messages(false); }

inline bool sameFloat(float a, float b)
{
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace fz

#endif
