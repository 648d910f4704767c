/*
 * Fuzz target: ramp array parameters.
 *
 * The input is a shader's parameter block holding a ramp array parameter
 * (first index, count, elements) anywhere in it, with some fields connected
 * to other shaders.  ramp_constructor runs as the shader would call it (the
 * shader being the state's current shader), then scalar or colour lookups.
 *
 * Input layout:
 *   byte 0      flags: bit 0 colour ramp, bit 1 parameters connectable,
 *               bit 2 also build the ramp from a copy outside the block
 *   bytes 1-2   block size (8 + n mod 1200, whole words)
 *   bytes 3-4   word offset of the ramp parameter in the block
 *   block bytes
 *   byte        number of connections (mod 5), then per connection: word
 *               offset (2 bytes) and source choice (1 byte)
 *   rest        lookup positions
 *
 * Checked besides the sanitizers: the constructor accepts exactly the arrays
 * whose header and read elements lie in the block and refuses the rest with
 * a message; accepted unconnected fields are copied bit for bit; lookups of
 * ramps without spline keys stay within the keys' values and leave the
 * colour's alpha alone; empty ramps give 0 and (0, 0, 0, 0).
 */
#include "harness.h"

#include <algorithm>

const fz::Target fz::kTarget = {"ramp_fuzz", 2, 2};

namespace {

constexpr int kMaxBlock = 8 + 1200;

miBoolean giveHalf(void *r, miState *, void *) { *static_cast<float *>(r) = 0.5f; return miTRUE; }
miBoolean giveLinear(void *r, miState *, void *) { *static_cast<int *>(r) = RAMP_LINEAR; return miTRUE; }
miBoolean giveColour(void *r, miState *, void *)
{
    *static_cast<miColor *>(r) = miColor{0.25f, 0.5f, 0.75f, 1.0f};
    return miTRUE;
}
miBoolean giveNan(void *r, miState *, void *) { *static_cast<float *>(r) = NAN; return miTRUE; }
miBoolean owner(void *, miState *, void *) { return miTRUE; }

struct World {
    miState *state = nullptr;
    miTag fn = 0;
    miTag sources[4] = {};
};

World gWorld;

bool saneFloat(float v) { return std::isfinite(v) && std::fabs(v) < 1e30f; }

void checkLookups(const Ramp &r, fz::Input &in)
{
    bool spline = false, sane = true;
    float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    for (int k = 0; k < r.count; ++k) {
        spline |= r.interpolation[k] == RAMP_SPLINE;
        sane &= saneFloat(r.position[k]);
        const float v[3] = {r.is_color ? r.color[k].r : r.value[k], r.is_color ? r.color[k].g : 0.0f,
                            r.is_color ? r.color[k].b : 0.0f};
        for (int c = 0; c < 3; ++c) {
            sane &= saneFloat(v[c]);
            lo[c] = std::min(lo[c], v[c]);
            hi[c] = std::max(hi[c], v[c]);
        }
    }
    auto within = [&](int c, float v) {
        const float slack = 1e-5f * std::max(std::fabs(lo[c]), std::fabs(hi[c])) + 1e-30f;
        return v >= lo[c] - slack && v <= hi[c] + slack;
    };
    for (int i = 0; i < 16 && !in.empty(); ++i) {
        const float x = in.f32();
        const float s = ramp_get_interp_float(&r, x);
        miColor c{-7.0f, -7.0f, -7.0f, 0.125f};
        ramp_get_interp_color(&r, &c, x);
        if (r.count == 0 || r.is_color)
            FZ_CHECK(fz::sameFloat(s, 0.0f), "a scalar lookup of an empty or colour ramp gives 0");
        if (r.count == 0 || !r.is_color)
            FZ_CHECK(c.r == 0 && c.g == 0 && c.b == 0 && c.a == 0, "an empty colour lookup gives (0,0,0,0)");
        if (r.count == 0 || spline || !sane || !saneFloat(x))
            continue;
        if (r.is_color) {
            FZ_CHECK(within(0, c.r) && within(1, c.g) && within(2, c.b), "a blend stays within the keys");
            FZ_CHECK(c.a == 0.125f, "a colour lookup without spline keys leaves alpha alone");
        } else {
            FZ_CHECK(within(0, s), "a blend stays within the keys");
        }
    }
}

} // namespace

void fz::setUp()
{
    World &w = gWorld;
    w.state = fz::context().begin_state(0);
    w.fn = mirt::make_function(miSHADER_MATERIAL, owner, nullptr, kMaxBlock, 16, true, "rampOwner");
    w.sources[0] = mirt::make_function(miSHADER_TEXTURE, giveHalf, nullptr, 0, 4, false, "half");
    w.sources[1] = mirt::make_function(miSHADER_TEXTURE, giveLinear, nullptr, 0, 4, false, "linear");
    w.sources[2] = mirt::make_function(miSHADER_TEXTURE, giveColour, nullptr, 0, 16, false, "colour");
    w.sources[3] = mirt::make_function(miSHADER_TEXTURE, giveNan, nullptr, 0, 4, false, "nan");
}

void fz::runInput(fz::Input &in)
{
    World &w = gWorld;
    miState *state = w.state;

    const uint8_t flags = in.u8();
    const int isColor = flags & 1;
    const int blockSize = (8 + in.u16() % 1200) & ~3;
    const int offset = (in.u16() % (blockSize / 4)) * 4;
    miFunction *f = mirt::function(w.fn);
    char *params = static_cast<char *>(f->params);
    std::memset(params, 0, static_cast<size_t>(f->ghost_offs) * 2);
    const std::vector<uint8_t> bytes = in.bytes(static_cast<size_t>(blockSize));
    if (!bytes.empty())
        std::memcpy(params, bytes.data(), bytes.size());
    f->param_size = blockSize;
    f->has_connections = (flags & 2) ? 1 : 0;

    std::vector<bool> connected(static_cast<size_t>(blockSize / 4), false);
    const int connections = in.u8() % 5;
    for (int c = 0; c < connections; ++c) {
        const size_t word = in.u16() % static_cast<size_t>(blockSize / 4);
        const miTag source = w.sources[in.u8() % 4];
        f->has_connections = 1;
        mirt::connect(w.fn, word * 4, source);
        connected[word] = true;
    }

    /* What the constructor must do, worked out independently. */
    const int64_t elem = isColor ? 24 : 12;
    const bool headerFits = offset + 8 <= blockSize;
    int32_t first = 0, count = 0;
    if (headerFits) {
        std::memcpy(&first, params + offset, 4);
        std::memcpy(&count, params + offset + 4, 4);
    }
    const int n = count < 0 ? 0 : std::min(count, RAMP_MAX_KEYS);
    const int64_t begin = offset + 8 + elem * first;
    const bool inside = headerFits && (n == 0 || (begin >= 0 && begin + elem * n <= blockSize));

    miFunction *saved = state->shader;
    state->shader = f;
    Ramp r;
    std::memset(&r, 0xA5, sizeof r);
    ramp_constructor(&r, state, params + offset, isColor);
    state->shader = saved;

    FZ_CHECK(r.is_color == isColor, "the kind is stored");
    FZ_CHECK(r.count == (inside ? n : 0), "accepted arrays keep their count, refused ones are empty");
    FZ_CHECK(fz::errorLogged("ramp_constructor()") == !inside,
             "a refused ramp is reported, an accepted one is not");
    for (int k = 0; k < r.count; ++k) {
        const int64_t at = begin + elem * k;
        auto unconnected = [&](int64_t field) { return !(f->has_connections && connected[static_cast<size_t>((at + field) / 4)]); };
        float pos;
        int32_t kind;
        std::memcpy(&pos, params + at, 4);
        std::memcpy(&kind, params + at + elem - 4, 4);
        if (unconnected(0))
            FZ_CHECK(fz::sameFloat(r.position[k], pos), "positions are copied");
        if (unconnected(elem - 4))
            FZ_CHECK(r.interpolation[k] == kind, "kinds are copied");
        if (!isColor && unconnected(4)) {
            float v;
            std::memcpy(&v, params + at + 4, 4);
            FZ_CHECK(fz::sameFloat(r.value[k], v), "values are copied");
        }
    }
    checkLookups(r, in);

    /* The same elements handed over as a copy outside any parameter block
       (no current shader): read as given. */
    if ((flags & 4) && inside && n > 0) {
        std::vector<char> copy(static_cast<size_t>(8 + elem * n));
        const int32_t head[2] = {0, count};
        std::memcpy(copy.data(), head, 8);
        std::memcpy(copy.data() + 8, params + begin, static_cast<size_t>(elem * n));
        Ramp c;
        state->shader = nullptr;
        ramp_constructor(&c, state, copy.data(), isColor);
        state->shader = saved;
        FZ_CHECK(c.count == n, "a copy is read as given");
        if (!f->has_connections)
            FZ_CHECK(std::memcmp(c.position, r.position, sizeof(float) * n) == 0, "the copy gives the same keys");
    }
    ramp_destructor(&r);
    FZ_CHECK(r.count == 0, "the destructor empties the ramp");
}
