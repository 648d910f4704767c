/*
 * Fuzz target: contribution-mask texts on light and occluder instances.
 *
 * Every input rewires a pool of items: the mask texts (any bytes), the data
 * records that carry a text's tag (plain data or user data of any size),
 * the instances' data tags (pointing anywhere: wrong types, missing tags),
 * and the state's light and occluder instances.  The state's entries come
 * from a real set-up; their flags and colours come from the input.  Then
 * setupLightContributions, applyShadowTransparencyToFrameBuffers,
 * handleNonDruxLights and contributesToPass run.
 *
 * Each result is compared with an independent model: the mask the instance
 * leads to (or none), the hex-digit bits per entry, the attenuation of each
 * handled entry and the returned flag.
 *
 * Input layout:
 *   byte        entry count (mod 41)
 *   2 texts     length (mod 24) and bytes
 *   data records: two plain (first word: a choice) and one user-data record
 *               (size mod 9, first word: a choice)
 *   instances   data-tag choice for the light and the occluder instance
 *   state       light-instance choice, occluder (current instance) choice
 *   entries     per entry: flag byte, shadow and light colours
 *   then        transparency, applyToLight, the non-pass light's colour
 */
#include "harness.h"

const fz::Target fz::kTarget = {"mask_fuzz", 2, 2};

namespace {

constexpr int kEntries = 40;

struct World {
    miTag text[2] = {};
    miTag data[2] = {};
    miTag userdata = 0;
    miTag lightInst = 0, occluderInst = 0, object = 0;
};

World gWorld;

miTag choose(const World &w, fz::Input &in)
{
    switch (in.u8() % 12) {
    case 0: case 1: return w.text[0];
    case 2: return w.text[1];
    case 3: return w.data[0];
    case 4: return w.data[1];
    case 5: return w.userdata;
    case 6: return w.lightInst;
    case 7: return w.occluderInst;
    case 8: return w.object;
    case 9: return 0;
    case 10: return 0x0FFFFFF0u;
    default: return in.u32();
    }
}

/* The mask an instance leads to, or null. */
const char *expectedMask(miTag instance)
{
    if (!instance || mi_db_type(instance) != miSCENE_INSTANCE)
        return nullptr;
    const miTag param = static_cast<miInstance *>(mirt::db_data(instance))->param;
    const void *rec = nullptr;
    switch (mi_db_type(param)) {
    case miSCENE_DATA:
        rec = mirt::db_data(param);
        break;
    case miSCENE_USERDATA: {
        const miUserdata *u = static_cast<const miUserdata *>(mirt::db_data(param));
        if (u->parameter_size >= 4)
            rec = u->parameters;
        break;
    }
    default:
        return nullptr;
    }
    if (!rec)
        return nullptr;
    miTag textTag;
    std::memcpy(&textTag, rec, 4);
    if (!textTag || mi_db_type(textTag) != miSCENE_STRING)
        return nullptr;
    const char *text = static_cast<const char *>(mirt::db_data(textTag));
    return text[0] ? text : nullptr;
}

/* Bit (i mod 4) of hex digit i div 4, the digit's value taken modulo 256. */
bool expectedContributes(int i, const char *mask)
{
    if (!mask)
        return true;
    if (i < 0)
        return false;
    const size_t digit = static_cast<size_t>(i / 4);
    if (digit >= std::strlen(mask))
        return false;
    const unsigned ch = static_cast<unsigned char>(mask[digit]);
    const unsigned v = (ch <= 0x40 ? ch - 48 : ch <= 0x60 ? ch - 55 : ch - 87) & 0xFFu;
    return (v >> (i % 4)) & 1u;
}

miColor colour(fz::Input &in) { return miColor{in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1)}; }

bool same(const miColor &a, const miColor &b)
{
    return fz::sameFloat(a.r, b.r) && fz::sameFloat(a.g, b.g) && fz::sameFloat(a.b, b.b) && fz::sameFloat(a.a, b.a);
}

} // namespace

void fz::setUp()
{
    World &w = gWorld;
    /* A block with 40 records, all of pass type 0: the records from byte
       144 on (first index 2, clear of the fixed part), then the 35 type
       counts. */
    const size_t recordsAt = 24 + 60 * 2, countsAt = recordsAt + 60 * kEntries;
    std::vector<int32_t> b((countsAt + 4 * 35) / 4, 0);
    b[0] = static_cast<int32_t>(FBUF_MAGIC);
    b[4] = 2;        /* frameBufferInfo first */
    b[5] = kEntries; /* count */
    b[21] = static_cast<int32_t>((countsAt - 92) / 4); /* typeCounts first */
    b[22] = 35;
    b[countsAt / 4] = kEntries;
    const miTag block = mirt::db_create_userdata(b.data(), b.size() * 4, 0);
    fz::context().attach_camera_userdata(block);
    fz::context().add_state_shader(mirt::make_function(
        miSHADER_STATE, reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)()>(&druxFrameBufferState)),
        nullptr, 0, 0, false, "druxFrameBufferState"));
    for (miTag &t : w.text)
        t = mirt::db_create_string("");
    const uint32_t zero[2] = {0, 0};
    for (miTag &t : w.data)
        t = mirt::db_create_data(zero, sizeof zero);
    w.userdata = mirt::db_create_userdata(zero, 4, 0);
    w.lightInst = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    w.occluderInst = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    w.object = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
}

void fz::runInput(fz::Input &in)
{
    World &w = gWorld;
    mirt::Context &ctx = fz::context();

    const miUint n = in.u8() % (kEntries + 1);
    for (miTag t : w.text) {
        const std::vector<uint8_t> bytes = in.bytes(in.u8() % 24);
        fz::setString(t, std::string(bytes.begin(), bytes.end()));
    }
    for (miTag d : w.data) {
        const miTag target = choose(w, in);
        std::memcpy(mirt::db_data(d), &target, 4);
    }
    {
        const size_t bytes = in.u8() % 9;
        const miTag target = choose(w, in);
        uint8_t rec[8] = {};
        std::memcpy(rec, &target, 4);
        fz::setUserdata(w.userdata, rec, bytes, 0);
    }
    static_cast<miInstance *>(mirt::db_data(w.lightInst))->param = choose(w, in);
    static_cast<miInstance *>(mirt::db_data(w.occluderInst))->param = choose(w, in);

    miState *state = ctx.begin_state(0);
    FrameBufferInfo *entries = nullptr;
    FZ_CHECK(getFrameBufferInfo(state, nullptr, &entries) == static_cast<miUint>(kEntries), "set-up");
    state->light_instance = choose(w, in);
    state->instance = choose(w, in);

    for (miUint i = 0; i < n; ++i) {
        const uint8_t f = in.u8();
        entries[i].flags = ((f & 1) ? FBINFO_LIGHT_CONTRIBUTES : 0u) | ((f & 2) ? FBINFO_SHADOWED : 0u) |
                           ((f & 4) ? FBINFO_ALL_OCCLUDERS : 0u) | ((f & 8) ? FBINFO_SHADOW_PASS : 0u) |
                           ((f & 16) ? FBINFO_LIGHT_SETUP_PENDING : 0u) | ((f & 32) ? FBINFO_HOST_1 : 0u);
        entries[i].shadow = colour(in);
        entries[i].light = colour(in);
    }

    /* Set-up for the light: contributions by its mask. */
    const char *lightMask = expectedMask(state->light_instance);
    std::vector<miUint> before(n);
    for (miUint i = 0; i < n; ++i)
        before[i] = entries[i].flags;
    setupLightContributions(n, entries, state);
    for (miUint i = 0; i < n; ++i) {
        miUint expect = before[i] & ~static_cast<miUint>(FBINFO_LIGHT_CONTRIBUTES);
        if (expectedContributes(static_cast<int>(i), lightMask))
            expect |= FBINFO_LIGHT_CONTRIBUTES;
        if (i == 0)
            expect &= ~static_cast<miUint>(FBINFO_LIGHT_SETUP_PENDING);
        FZ_CHECK(entries[i].flags == expect, "each entry contributes by its mask digit, nothing else changes");
    }
    if (n > 0 && state->light_instance == 0)
        FZ_CHECK(fz::errorLogged("outside of a light shader"), "set-up without a light is reported");

    /* Flags for the occluder pass come from the input again. */
    for (miUint i = 0; i < n; ++i) {
        const uint8_t f = in.u8();
        entries[i].flags = ((f & 1) ? FBINFO_LIGHT_CONTRIBUTES : 0u) | ((f & 2) ? FBINFO_SHADOWED : 0u) |
                           ((f & 4) ? FBINFO_ALL_OCCLUDERS : 0u) | ((f & 8) ? FBINFO_SHADOW_PASS : 0u);
    }
    const miColor tr = colour(in);
    const miBoolean toLight = in.u8() & 1;
    const char *occluderMask = expectedMask(state->instance);
    std::vector<FrameBufferInfo> model(entries, entries + n);
    int expectResult = 0;
    for (miUint i = 0; i < n; ++i) {
        FrameBufferInfo &e = model[i];
        if ((e.flags & (FBINFO_LIGHT_CONTRIBUTES | FBINFO_SHADOWED)) != (FBINFO_LIGHT_CONTRIBUTES | FBINFO_SHADOWED))
            continue;
        const bool masked = !(e.flags & FBINFO_ALL_OCCLUDERS) && !expectedContributes(static_cast<int>(i), occluderMask);
        if (!masked) {
            const miColor s = e.shadow;
            const miColor kept{s.r * tr.r, s.g * tr.g, s.b * tr.b, s.a * tr.a};
            if (!toLight) {
                e.shadow = kept;
            } else if (e.flags & FBINFO_SHADOW_PASS) {
                e.shadow = kept;
                e.light.r += s.r - kept.r;
                e.light.g += s.g - kept.g;
                e.light.b += s.b - kept.b;
                e.light.a += s.a - kept.a;
            } else {
                e.light = miColor{e.light.r * tr.r, e.light.g * tr.g, e.light.b * tr.b, e.light.a * tr.a};
            }
        }
        if (e.shadow.r >= KELU_EPS || e.shadow.g >= KELU_EPS || e.shadow.b >= KELU_EPS)
            expectResult = 1;
    }
    const int result = applyShadowTransparencyToFrameBuffers(n, entries, &tr, toLight, state);
    FZ_CHECK(result == expectResult, "the returned flag tells whether a handled pass still lets light through");
    for (miUint i = 0; i < n; ++i)
        FZ_CHECK(same(entries[i].shadow, model[i].shadow) && same(entries[i].light, model[i].light),
                 "each handled entry is attenuated as its mask says, the others are left alone");

    /* A light outside the pass protocol, set up on its behalf. */
    if (n > 0) {
        entries[0].flags |= FBINFO_LIGHT_SETUP_PENDING;
        const miColor result = colour(in);
        const miTag other = choose(w, in);
        const miTag savedLight = state->light_instance;
        handleNonDruxLights(n, entries, &result, other, state);
        FZ_CHECK(state->light_instance == savedLight, "the state's light instance is restored");
        FZ_CHECK(entries[0].flags & FBINFO_LIGHT_SETUP_PENDING, "the pending bit is set again");
        const char *mask = expectedMask(other);
        for (miUint i = 0; i < n; ++i) {
            const bool c = expectedContributes(static_cast<int>(i), mask);
            FZ_CHECK(((entries[i].flags & FBINFO_LIGHT_CONTRIBUTES) != 0) == c, "contributions by the light's mask");
            FZ_CHECK(same(entries[i].light, c ? result : miColor{0, 0, 0, 0}), "the light's whole colour or black");
        }
    }

    /* The text functions directly, at and beyond the ends. */
    for (const char *mask : {lightMask, occluderMask, static_cast<const char *>(mirt::db_data(w.text[1]))})
        for (int i = -4; i < 4 * 26; ++i)
            FZ_CHECK((contributesToPass(i, mask) != 0) == expectedContributes(i, mask), "contributesToPass");

    ctx.end_state(state);
}
