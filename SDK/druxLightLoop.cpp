/*
 * The light loop's pass bookkeeping.
 *
 * A material shader that fills passes runs, for every light,
 *
 *     sampleLightBegin -> (per light sample: the light shader calls
 *     setupLightContributions and traceShadow / the traceShadowAccumulate
 *     family / setLightIrradiance; or, for a light that knows nothing of
 *     passes, the material calls handleNonDruxLights; then the material adds
 *     its per-pass result into lightSum) -> sampleLightEnd
 *
 * and around every secondary ray tracePassInit / trace / tracePassAdd.  While
 * a shadow ray is traced, the occluders' shadow shaders call
 * applyShadowTransparencyToFrameBuffers with the same state's entries.
 *
 * Everything here works on the calling state's FrameBufferInfo entries, which
 * belong to one render thread: no locks.  These functions run per light
 * sample, so they allocate nothing and make no renderer calls besides the
 * contribution-mask lookups and mi_trace_shadow.
 *
 * Contribution masks are hexadecimal texts attached to instances through the
 * instance's data tag: instance record -> data tag (byte 216) -> query 12 ->
 * a data record whose first word is the tag of the text.  A mask text is
 * pinned while it is read and unpinned exactly once (MaskText below).
 * Masks are read afresh at every call: a host may point an instance's data
 * at another text, or change a text, at any time, and a copy kept from an
 * earlier call could no longer be told apart from the current mask.
 *
 * Defensive choices for input the callers should never give:
 *   - a null entry pointer counts as no entries;
 *   - null colour arguments read as black, a null filter is replaced by a
 *     local colour (the trace still runs), null mode/useScale/scale pointers
 *     of sampleLightEnd read as 0 / false / no scaling;
 *   - a negative ray depth, or a depth beyond the slots a state was set up
 *     with, touches no slot;
 *   - a record reached through a tag is used only when it has the expected
 *     database type (an instance for the data tag, a string for the mask);
 *     anything else counts as no mask;
 *   - contributesToPass never reads past a mask's terminating zero, and a
 *     negative entry index does not contribute to a non-null mask.
 */
#include "druxInternal.h"

#include <cstdint>
#include <cstring>

namespace {

/* The data tag of an instance record lies two 32-bit fields after the
   instanced item's tag. */
constexpr size_t kInstanceDataTagOffset = offsetof(miInstance, item) + 2 * sizeof(miTag);
static_assert(kInstanceDataTagOffset == 216, "instance data tag at byte 216");

const char *const kNoLightInstance = "setupLightContributions was called outside of a light shader.";

/* The exported BLACK and WHITE, as constants the compiler can keep in
   registers in the per-entry loops (the exported ones are reached through the
   symbol table on every use). */
constexpr miColor kBlack{0.0f, 0.0f, 0.0f, 0.0f};
constexpr miColor kWhite{1.0f, 1.0f, 1.0f, 1.0f};

constexpr miUint kShadowMask = FBINFO_LIGHT_CONTRIBUTES | FBINFO_SHADOWED;
constexpr miUint kIrradianceMask = FBINFO_LIGHT_CONTRIBUTES | FBINFO_SHADOW_PASS;

/* Unpins a database item on scope exit, also while an exception passes. */
struct Pin {
    miTag tag;
    explicit Pin(miTag t) : tag(t) {}
    ~Pin()
    {
        if (tag)
            mi_db_unpin(tag);
    }
    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;
};

/*
 * A contribution-mask text, opened from an instance's data and closed exactly
 * once when the object goes out of scope (only if it was opened).  An empty
 * text is closed at once and counts as no mask.
 */
class MaskText {
public:
    MaskText() = default;
    ~MaskText() { close(); }
    MaskText(const MaskText &) = delete;
    MaskText &operator=(const MaskText &) = delete;

    /* Looks up the mask of `instance`; returns it, or null for no mask. */
    const char *open(miState *state, miTag instance)
    {
        close();
        lookUp(state, instance);
        return text_;
    }

    const char *text() const { return text_; }

    /* contributesToPass for an opened mask, with its length known. */
    bool contributes(miUint index) const
    {
        if (!text_)
            return true;
        return (digit(index >> 2) >> (index & 3u)) & 1u;
    }

    /* The bits of digit k of an opened mask; none at or past the
       terminating zero. */
    unsigned digit(size_t k) const { return k < length_ ? digitBits(text_[k]) : 0u; }

    /* The 8-bit digit value of a mask character, as the masks are written:
       '0'-'9', 'A'-'F' and 'a'-'f'.  Other characters give whatever bits this
       arithmetic yields (the character is taken as an unsigned byte). */
    static unsigned digitBits(char ch)
    {
        const unsigned char c = static_cast<unsigned char>(ch);
        unsigned char v;
        if (c <= 0x40)
            v = static_cast<unsigned char>(c - 48);
        else if (c <= 0x60)
            v = static_cast<unsigned char>(c - 55);
        else
            v = static_cast<unsigned char>(c - 87);
        return v;
    }

private:
    /* The mask of `instance` from the database, pinned while open. */
    void lookUp(miState *state, miTag instance)
    {
        const miTag textTag = maskTag(state, instance);
        if (!textTag)
            return;
        int type = miSCENE_NONE;
        const char *text = static_cast<const char *>(mi_db_access_type(&type, textTag));
        if (!text)
            return; /* not in the database: nothing was pinned */
        if (type != miSCENE_STRING || text[0] == '\0') {
            mi_db_unpin(textTag);
            return;
        }
        tag_ = textTag;
        text_ = text;
        length_ = std::strlen(text);
    }

    /* The tag of the mask text of `instance`, or 0.  The instance record is
       pinned only while its data tag is read and queried. */
    static miTag maskTag(miState *state, miTag instance)
    {
        if (!instance)
            return 0;
        int type = miSCENE_NONE;
        const char *record = static_cast<const char *>(mi_db_access_type(&type, instance));
        if (!record)
            return 0;
        void *data = nullptr;
        miBoolean found = miFALSE;
        miTag dataTag = 0;
        {
            Pin pin(instance);
            if (type != miSCENE_INSTANCE)
                return 0;
            std::memcpy(&dataTag, record + kInstanceDataTagOffset, sizeof dataTag);
            if (dataTag)
                found = mi_query(miQ_DATA_PARAM, state, dataTag, &data);
        }
        if (!found || !data)
            return 0;
        /* A user-data record too short to hold the tag holds no mask: its
           first field would lie past the record. */
        if (mi_db_type(dataTag) == miSCENE_USERDATA) {
            int paramSize;
            std::memcpy(&paramSize,
                        static_cast<const char *>(data) - offsetof(miUserdata, parameters) +
                            offsetof(miUserdata, parameter_size),
                        sizeof paramSize);
            if (paramSize < static_cast<int>(sizeof(miTag)))
                return 0;
        }
        miTag textTag;
        std::memcpy(&textTag, data, sizeof textTag);
        return textTag;
    }

    void close()
    {
        if (tag_)
            mi_db_unpin(tag_);
        tag_ = 0;
        text_ = nullptr;
        length_ = 0;
    }

    miTag tag_ = 0;
    const char *text_ = nullptr;
    size_t length_ = 0;
};

inline miColor colorOr(const miColor *c, const miColor &fallback) { return c ? *c : fallback; }

/* Per channel (1 - t) * shadowColor + t * lightColor; alpha 1. */
inline miColor shadowedLight(const miColor &t, const miColor &light, const miColor &shadow)
{
    return miColor{(1.0f - t.r) * shadow.r + t.r * light.r, (1.0f - t.g) * shadow.g + t.g * light.g,
                   (1.0f - t.b) * shadow.b + t.b * light.b, 1.0f};
}

/* lightColor minus the shadowed light, r, g, b; alpha 1. */
inline miColor lightTaken(const miColor &light, const miColor &shadowed)
{
    return miColor{light.r - shadowed.r, light.g - shadowed.g, light.b - shadowed.b, 1.0f};
}

inline miColor rgbAlpha1(const miColor &c) { return miColor{c.r, c.g, c.b, 1.0f}; }

inline miColor mul(const miColor &a, const miColor &b)
{
    return miColor{a.r * b.r, a.g * b.g, a.b * b.b, a.a * b.a};
}

inline void addTo(miColor &a, const miColor &b)
{
    a.r += b.r;
    a.g += b.g;
    a.b += b.b;
    a.a += b.a;
}

inline miColor scaled(const miColor &c, float s) { return miColor{c.r * s, c.g * s, c.b * s, c.a * s}; }

/* Index of the current ray's slot when the entries' slots have it, else -1. */
inline int currentSlot(const miState *state, const FrameBufferInfo *entries)
{
    if (!state)
        return -1;
    const int d = drux::rayDepth(state);
    return drux::depthSlotExists(entries, d) ? d : -1;
}

/* The trace-depth limit, or -1 without options. */
inline int traceLimit(const miState *state)
{
    return state && state->options ? state->options->trace_depth : -1;
}

/* Each mask digit holds the bits of four entries: decoded once per digit. */
inline void setContributions(miUint n, FrameBufferInfo *entries, const MaskText &mask)
{
    constexpr miUint kBit = FBINFO_LIGHT_CONTRIBUTES;
    if (!mask.text()) {
        for (miUint i = 0; i < n; ++i)
            entries[i].flags |= kBit;
        return;
    }
    for (miUint first = 0; first < n; first += 4) {
        const unsigned bits = mask.digit(first >> 2);
        const miUint end = n - first < 4 ? n : first + 4;
        for (miUint i = first; i < end; ++i)
            entries[i].flags = (entries[i].flags & ~kBit) | (((bits >> (i & 3u)) & 1u) ? kBit : 0u);
    }
}

/* Merges a light's average into a slot's accum by sampleLightEnd's mode:
   2 multiplies, 3 replaces, 1 and any other non-zero mode add. */
inline void merge(miColor &accum, const miColor &col, int mode)
{
    switch (mode) {
    case 2:
        accum = mul(accum, col);
        break;
    case 3:
        accum = col;
        break;
    default:
        addTo(accum, col);
        break;
    }
}

/* `bytes` at `p` overlap what sampleLightEnd writes: the entry array or the
   slot block (n entries of perEntry slots, from entry 0's slots). */
inline bool overlapsWritten(const void *p, size_t bytes, const FrameBufferInfo *entries, miUint n, miUint perEntry)
{
    const uintptr_t a = reinterpret_cast<uintptr_t>(p), b = a + bytes;
    const uintptr_t e0 = reinterpret_cast<uintptr_t>(entries), e1 = e0 + n * sizeof(FrameBufferInfo);
    const uintptr_t s0 = reinterpret_cast<uintptr_t>(entries[0].slots);
    const uintptr_t s1 = s0 + static_cast<uintptr_t>(n) * perEntry * sizeof(PassSlot);
    return (a < e1 && b > e0) || (a < s1 && b > s0);
}

/* Restores the state's light instance on scope exit. */
struct LightInstanceSwap {
    miState *state;
    miTag saved;
    LightInstanceSwap(miState *s, miTag replacement) : state(s), saved(s->light_instance)
    {
        s->light_instance = replacement;
    }
    ~LightInstanceSwap() { state->light_instance = saved; }
    LightInstanceSwap(const LightInstanceSwap &) = delete;
    LightInstanceSwap &operator=(const LightInstanceSwap &) = delete;
};

} // namespace

extern "C" {

/* ================================================== pass contributions */

DRUX_API miBoolean contributesToPass(int index, const char *mask)
{
    if (!mask)
        return miTRUE;
    if (index < 0)
        return miFALSE;
    const int digit = index / 4;
    /* Stop at the terminating zero rather than read past the text. */
    for (int k = 0; k < digit; ++k)
        if (mask[k] == '\0')
            return miFALSE;
    return (MaskText::digitBits(mask[digit]) & (1u << (index % 4))) ? miTRUE : miFALSE;
}

DRUX_API void sampleLightBegin(miUint n, FrameBufferInfo *entries)
{
    if (n == 0 || !entries)
        return;
    entries[0].flags |= FBINFO_IN_LIGHT_LOOP | FBINFO_LIGHT_SETUP_PENDING;
    for (miUint i = 0; i < n; ++i)
        entries[i].lightSum = kBlack;
}

DRUX_API void sampleLightEnd(miState *state, miUint n, FrameBufferInfo *entries, int samples,
                             const int *mode, const miBoolean *useScale, const float *scale)
{
    if (n == 0 || !entries)
        return;
    entries[0].flags &= ~static_cast<miUint>(FBINFO_IN_LIGHT_LOOP);
    if (samples <= 0)
        return;
    const int d = currentSlot(state, entries);
    if (d < 0 || state->type == miRAY_ENVIRONMENT)
        return;
    const float w = 1.0f / static_cast<float>(samples);
    if (!mode)
        return;

    /* mode, useScale and scale are read for every entry, since a caller may
       point them into records this loop writes.  When they lie outside the
       entries and outside the slot block that the state's set-up allocated,
       nothing here writes them, and one read serves every entry. */
    const miUint perEntry = drux::setUpSlotCount(entries);
    const bool invariant =
        perEntry != 0 && !overlapsWritten(mode, sizeof *mode, entries, n, perEntry) &&
        !(useScale && overlapsWritten(useScale, 1, entries, n, perEntry)) &&
        !(scale && overlapsWritten(scale, sizeof *scale, entries, n, perEntry));
    int m = 0;
    bool useS = false;
    float sc = 1.0f;
    for (miUint i = 0; i < n; ++i) {
        if (i == 0 || !invariant) {
            m = *mode;
            useS = useScale && scale && (*reinterpret_cast<const unsigned char *>(useScale) & 1u);
            sc = useS ? *scale : 1.0f;
        }
        if (m == 0) {
            if (invariant)
                return;
            continue;
        }
        FrameBufferInfo &e = entries[i];
        if (e.flags & FBINFO_NO_ACCUMULATE)
            continue;
        PassSlot &slot = e.slots[d];
        if (slot.slotFlags & 1u)
            continue;
        miColor col = scaled(e.lightSum, w);
        if (useS)
            col = scaled(col, sc);
        merge(slot.accum, col, m);
    }
}

DRUX_API void setLightIrradiance(miUint n, FrameBufferInfo *entries, const miColor *colour)
{
    if (!entries)
        return;
    const miColor c = colorOr(colour, kBlack);
    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = entries[i];
        if ((e.flags & kIrradianceMask) == FBINFO_LIGHT_CONTRIBUTES)
            e.light = miColor{c.r, c.g, c.b, 1.0f};
        else
            e.light = miColor{0.0f, 0.0f, 0.0f, 1.0f};
        e.shadow = kWhite;
    }
}

DRUX_API void tracePassInit(miUint n, FrameBufferInfo *entries, miState *state)
{
    if (n == 0 || !entries || !state)
        return;
    const int d = drux::rayDepth(state);
    if (d < 0 || d >= traceLimit(state) || !drux::depthSlotExists(entries, d + 1))
        return;
    for (miUint i = 0; i < n; ++i) {
        PassSlot &child = entries[i].slots[d + 1];
        child.result = kBlack;
        child.opacity = kBlack;
    }
}

DRUX_API void tracePassAdd(miUint n, FrameBufferInfo *entries, miState *state, miBoolean refracted,
                           miColor weight)
{
    if (n == 0 || !entries || !state)
        return;
    const int d = drux::rayDepth(state);
    if (d < 0 || d >= traceLimit(state) || !drux::depthSlotExists(entries, d + 1))
        return;
    const miUint addFlag = refracted ? FBINFO_ADD_REFRACTION : FBINFO_ADD_REFLECTION;
    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = entries[i];
        if (e.flags & FBINFO_NO_TRACE_ADD)
            continue;
        PassSlot &here = e.slots[d];
        if ((here.slotFlags & 3u) == 1u && !(e.flags & addFlag))
            continue;
        PassSlot &child = e.slots[d + 1];
        addTo(here.accum, mul(weight, child.result));
        child.result = kBlack;
    }
}

/* ================================================== shadows */

DRUX_API miBoolean traceShadow(miUint n, FrameBufferInfo *entries, miColor *filter,
                               const miColor *lightColor, const miColor *shadowColor,
                               miBoolean useSharedShadow, miState *state)
{
    miColor localFilter;
    if (!filter)
        filter = &localFilter;
    if (!entries)
        n = 0;
    *filter = kWhite;
    for (miUint i = 0; i < n; ++i)
        if (entries[i].flags & FBINFO_LIGHT_CONTRIBUTES)
            entries[i].shadow = kWhite;

    const miBoolean traced = mi_trace_shadow(filter, state);
    if (n == 0)
        return traced;

    const miColor light = colorOr(lightColor, kBlack);
    const miColor dark = colorOr(shadowColor, kBlack);
    const miColor lightRGB = rgbAlpha1(light);
    const miColor none{0.0f, 0.0f, 0.0f, 1.0f};

    if (!useSharedShadow) {
        for (miUint i = 0; i < n; ++i) {
            FrameBufferInfo &e = entries[i];
            if (!(e.flags & FBINFO_LIGHT_CONTRIBUTES)) {
                e.light = none;
                e.shadow = kBlack;
            } else if (!(e.flags & FBINFO_SHADOWED)) {
                e.light = lightRGB;
                e.shadow = kBlack;
            } else {
                const miColor shadowed = shadowedLight(e.shadow, light, dark);
                if (e.flags & FBINFO_SHADOW_PASS) {
                    e.light = lightTaken(light, shadowed);
                    e.shadow = shadowed;
                } else {
                    e.light = shadowed;
                }
            }
        }
    } else {
        /* One transmission for every pass: the filter the occluders left,
           or, when the light is blocked completely, the shadow colour. */
        const miColor shared = traced ? shadowedLight(*filter, light, dark) : rgbAlpha1(dark);
        const miColor taken = lightTaken(light, shared);
        for (miUint i = 0; i < n; ++i) {
            FrameBufferInfo &e = entries[i];
            if (!(e.flags & FBINFO_LIGHT_CONTRIBUTES)) {
                e.light = none;
            } else if (!(e.flags & FBINFO_SHADOWED)) {
                e.light = lightRGB;
            } else if (e.flags & FBINFO_SHADOW_PASS) {
                e.light = taken;
                e.shadow = shared;
            } else {
                e.light = shared;
            }
        }
    }
    return traced;
}

DRUX_API void traceShadowAccumulateBegin(miUint n, FrameBufferInfo *entries)
{
    if (!entries)
        return;
    for (miUint i = 0; i < n; ++i)
        entries[i].shadowSum = kBlack;
}

DRUX_API miBoolean traceShadowAccumulate(miUint n, FrameBufferInfo *entries, miColor *filter,
                                         miState *state)
{
    miColor localFilter;
    if (!filter)
        filter = &localFilter;
    if (!entries)
        n = 0;
    *filter = kWhite;
    if (n == 0)
        return mi_trace_shadow(filter, state) ? miTRUE : miFALSE;

    for (miUint i = 0; i < n; ++i)
        if (entries[i].flags & FBINFO_LIGHT_CONTRIBUTES)
            entries[i].shadow = kWhite;
    const miBoolean traced = mi_trace_shadow(filter, state);
    for (miUint i = 0; i < n; ++i)
        if (entries[i].flags & FBINFO_LIGHT_CONTRIBUTES)
            addTo(entries[i].shadowSum, entries[i].shadow);
    return traced ? miTRUE : miFALSE;
}

DRUX_API void traceShadowAccumulateEnd(miUint n, FrameBufferInfo *entries, miUint samples,
                                       const miColor *lightColor, const miColor *shadowColor)
{
    if (!entries)
        return;
    const miColor light = colorOr(lightColor, kBlack);
    const miColor dark = colorOr(shadowColor, kBlack);
    const float w = samples ? 1.0f / static_cast<float>(samples) : 1.0f;
    const miColor none{0.0f, 0.0f, 0.0f, 1.0f};

    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = entries[i];
        if (!(e.flags & FBINFO_LIGHT_CONTRIBUTES)) {
            e.shadow = kBlack;
            e.light = none;
        } else if (!(e.flags & FBINFO_SHADOWED)) {
            e.light = light; /* the light's own alpha */
        } else {
            const miColor t = samples ? scaled(e.shadowSum, w) : e.shadowSum;
            const miColor shadowed = shadowedLight(t, light, dark);
            e.shadow = t;
            e.light = (e.flags & FBINFO_SHADOW_PASS) ? lightTaken(light, shadowed) : shadowed;
        }
    }
}

DRUX_API int applyShadowTransparencyToFrameBuffers(miUint n, FrameBufferInfo *entries,
                                                   const miColor *transparency,
                                                   miBoolean applyToLight, miState *state)
{
    int result = 0;
    if (n == 0 || !entries)
        return 0;
    const miColor tr = colorOr(transparency, kBlack);
    const float eps = KELU_EPS;
    MaskText mask; /* opened at the first handled entry, closed on return */
    bool looked = false;

    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = entries[i];
        if ((e.flags & kShadowMask) != kShadowMask)
            continue;
        if (!looked) {
            looked = true;
            mask.open(state, state ? state->instance : 0);
        }
        const bool masked = !(e.flags & FBINFO_ALL_OCCLUDERS) && mask.text() && !mask.contributes(i);
        if (!masked) {
            if (!applyToLight) {
                e.shadow = mul(e.shadow, tr);
            } else if (e.flags & FBINFO_SHADOW_PASS) {
                const miColor s = e.shadow;
                const miColor kept = mul(s, tr);
                e.shadow = kept;
                e.light.r += s.r - kept.r;
                e.light.g += s.g - kept.g;
                e.light.b += s.b - kept.b;
                e.light.a += s.a - kept.a;
            } else {
                e.light = mul(e.light, tr);
            }
        }
        if (e.shadow.r >= eps || e.shadow.g >= eps || e.shadow.b >= eps)
            result = 1;
    }
    return result;
}

/* ================================================== light set-up */

DRUX_API void setupLightContributions(miUint n, FrameBufferInfo *entries, miState *state)
{
    if (n == 0 || !entries)
        return;
    MaskText mask; /* released on every way out */
    const miTag light = state ? state->light_instance : 0;
    if (!light)
        druxError(kNoLightInstance);
    else
        mask.open(state, light);
    setContributions(n, entries, mask);
    entries[0].flags &= ~static_cast<miUint>(FBINFO_LIGHT_SETUP_PENDING);
}

DRUX_API void handleNonDruxLights(miUint n, FrameBufferInfo *entries, const miColor *lightResult,
                                  miTag lightInstance, miState *state)
{
    if (n == 0 || !entries || !(entries[0].flags & FBINFO_LIGHT_SETUP_PENDING))
        return;
    if (state) {
        LightInstanceSwap swap(state, lightInstance);
        setupLightContributions(n, entries, state);
    } else {
        setupLightContributions(n, entries, nullptr);
    }
    entries[0].flags |= FBINFO_LIGHT_SETUP_PENDING;

    const miColor c = colorOr(lightResult, kBlack);
    for (miUint i = 0; i < n; ++i)
        entries[i].light = (entries[i].flags & FBINFO_LIGHT_CONTRIBUTES) ? c : kBlack;
}

} /* extern "C" */
