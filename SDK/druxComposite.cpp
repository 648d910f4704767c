/*
 * Base-material compositing: the last step every host material shares.
 *
 * bc_construct turns a mode number into a set of component flags once per
 * material; bc_composite sums the flagged components into the material's
 * output record for one shading call (some before the transparency is
 * applied, some after, one last), fills the opacity and secondary outputs,
 * and keeps a copy of every component for per-component outputs.
 */
#include "druxInternal.h"

#include <cstring>

namespace {

/* Flag sets of the modes. */
constexpr miUint kFlagsFull = BC_A | BC_B | BC_C | BC_D0 | BC_E0 | BC_F | BC_G | BC_H; /* 0x74f */
constexpr miUint kFlagsFullSecond = BC_A | BC_B | BC_C | BC_D1 | BC_E1 | BC_F | BC_G | BC_H; /* 0x797 */
constexpr miUint kFlagsPlain = BC_A | BC_B | BC_C | BC_D1 | BC_G | BC_H; /* 0x617 */
constexpr miUint kFlagsSecondOnly = BC_E1 | BC_F;                        /* 0x180 */
constexpr miUint kFlagsReduced = BC_C | BC_F | BC_G;                     /* 0x304 */
constexpr miUint kFlagsReducedExtra = BC_A | BC_B | BC_D0 | BC_E0 | BC_H; /* 0x44b */

static_assert(kFlagsFull == 0x74f && kFlagsFullSecond == 0x797 && kFlagsPlain == 0x617 &&
                  kFlagsSecondOnly == 0x180 && kFlagsReduced == 0x304 &&
                  kFlagsReducedExtra == 0x44b && (kFlagsReduced | kFlagsReducedExtra) == kFlagsFull,
              "mode flag sets");

constexpr float kNoOpacity = -1e6f;

inline void addRGB(miColor &dst, const miColor &c)
{
    dst.r += c.r;
    dst.g += c.g;
    dst.b += c.b;
}

inline void set3(miScalar *dst, float a, float b, float c)
{
    dst[0] = a;
    dst[1] = b;
    dst[2] = c;
}

/* One weighted component added after the transparency: to the result, and
   e_weight times it to the secondary output. */
inline void addWeighted(BaseCompositeResult &out, const miColor &c, float weight)
{
    addRGB(out.result, c);
    out.secondary[0] += weight * c.r;
    out.secondary[1] += weight * c.g;
    out.secondary[2] += weight * c.b;
}

inline void copyIf(bool cond, miColor &dst, const miColor *src)
{
    if (cond && src)
        dst = *src;
}

} // namespace

extern "C" {

/*
 * Modes other than 0..6 keep the hints and flags the record already had;
 * only the mode number is stored.  For mode 6 a failed query 142 counts as
 * "not set".
 */
DRUX_API void bc_construct(BaseComposite *bc, int mode, miState *state)
{
    if (!bc)
        return;
    bc->mode = mode;
    switch (mode) {
    case 0:
        bc->hintA = 1;
        bc->hintB = 1;
        bc->flags = kFlagsFull;
        break;
    case 1:
        bc->hintA = 1;
        bc->hintB = 0;
        bc->flags = kFlagsFullSecond;
        break;
    case 2:
        bc->hintA = 1;
        bc->hintB = 1;
        bc->flags = BC_K;
        break;
    case 3:
        bc->hintA = 0;
        bc->hintB = 0;
        bc->flags = BC_A;
        break;
    case 4:
        bc->hintA = 1;
        bc->hintB = 0;
        bc->flags = kFlagsPlain;
        break;
    case 5:
        bc->hintA = 1;
        bc->hintB = 0;
        bc->flags = kFlagsSecondOnly;
        break;
    case 6: {
        const int q = drux::queryFlag(miQ_PRECOMPUTE_PASS, state) ? 1 : 0;
        bc->hintA = q;
        bc->hintB = 1;
        bc->flags = kFlagsReduced | (q ? kFlagsReducedExtra : 0u);
        break;
    }
    default:
        break;
    }
}

DRUX_API void bc_destruct(void) {}

/*
 * Inputs that the caller must always give (c_a, c_b, c_c, c_d, c_g and the
 * transparency) are treated like absent components when null: a null colour
 * is skipped and not copied, a null transparency counts as fully opaque.
 */
DRUX_API void bc_composite(BaseComposite bc, void *outp, const miColor *c_a, const miColor *c_b,
                           const miColor *c_c, const miColor *c_d, const miColor *c_e,
                           const miColor *c_f, const miColor *c_g, const miColor *c_h,
                           const miColor *transparency, int zero_color, int opacity_rule, float k,
                           float scale, float e_weight, float opacity)
{
    if (!outp)
        return;
    BaseCompositeResult &out = *static_cast<BaseCompositeResult *>(outp);
    const miUint f = bc.flags;

    if (bc.mode == 2) {
        set3(out.opacity, k, k, k);
        return;
    }

    switch (opacity_rule) {
    case 0:
        set3(out.opacity, kNoOpacity, kNoOpacity, kNoOpacity);
        return;
    case 1:
        set3(out.opacity, opacity, opacity, opacity);
        break;
    case 2:
        set3(out.opacity, (1.0f - out.transparency[0]) * opacity,
             (1.0f - out.transparency[1]) * opacity, (1.0f - out.transparency[2]) * opacity);
        break;
    default:
        break;
    }

    const miColor tr = transparency ? *transparency : miColor{0.0f, 0.0f, 0.0f, 0.0f};

    /* Starting value, all four channels. */
    if ((f & BC_D0) && c_d)
        out.result = c_d[0];
    else if ((f & BC_D1) && c_d)
        out.result = c_d[1];
    else
        out.result = KELU_BLACK;

    /* Components the transparency removes. */
    if ((f & BC_C) && c_c)
        addRGB(out.result, *c_c);
    if ((f & BC_H) && c_h)
        addRGB(out.result, *c_h);
    if ((f & BC_A) && c_a)
        addRGB(out.result, *c_a);

    out.result.r *= 1.0f - tr.r;
    out.result.g *= 1.0f - tr.g;
    out.result.b *= 1.0f - tr.b;

    /* Components seen through the transparency. */
    if ((f & BC_B) && c_b)
        addRGB(out.result, *c_b);

    set3(out.secondary, scale * out.result.r, scale * out.result.g, scale * out.result.b);

    if (c_e) {
        if (f & BC_E0)
            addWeighted(out, c_e[0], e_weight);
        else if (f & BC_E1)
            addWeighted(out, c_e[1], e_weight);
    }
    if (c_f && (f & BC_F))
        addWeighted(out, *c_f, e_weight);

    if (zero_color != 0) {
        out.result.r = 0.0f;
        out.result.g = 0.0f;
        out.result.b = 0.0f;
    } else if ((f & BC_G) && c_g) {
        addRGB(out.result, *c_g);
    }

    /* Per-component copies. */
    copyIf(f & BC_A, out.copyA, c_a);
    copyIf(f & BC_B, out.copyB, c_b);
    copyIf(f & BC_C, out.copyC, c_c);
    copyIf(f & BC_D0, out.copyD0, c_d);
    copyIf(f & BC_D1, out.copyD1, c_d ? c_d + 1 : nullptr);
    if (f & BC_K)
        set3(out.copyK, k, k, k);
    copyIf(f & BC_E0, out.copyE0, c_e);
    copyIf(f & BC_E1, out.copyE1, c_e ? c_e + 1 : nullptr);
    copyIf(f & BC_F, out.copyF, c_f);
    copyIf(f & BC_G, out.copyG, c_g);
    copyIf(f & BC_H, out.copyH, c_h);

    set3(out.oneMinusTransparency, 1.0f - tr.r, 1.0f - tr.g, 1.0f - tr.b);
}

} /* extern "C" */
