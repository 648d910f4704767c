/*
 * DruxMaterial.h: header-only helpers for writing a material (C++17).
 *
 *   drux::add, sub, scale, dot, cross, length, normalize, reflect   vectors
 *   drux::add, mul, scale                                            colours
 *   drux::MaterialPasses   writes a material's light into the passes
 *
 * The pass contract (what every material writes, decided by pass type, see
 * DRUX_PASS_* in DruxShaderSDK.h) lives in MaterialPasses:
 *
 *   begin       empties this depth's slot of every entry (accum, slotFlags)
 *   per light   begin_light, then for each mi_sample_light sample
 *               light_sample (routes a light that knows nothing of passes)
 *               and add_sample(wd, ws): each entry's lightSum takes
 *                 opacity x (cd wd diffuse + cs ws specular) x entry.light
 *               with (cd, cs) by pass type:
 *                 DRUX_PASS_DIFFUSE                      (1, 0)
 *                 DRUX_PASS_SPECULAR                     (0, 1)
 *                 DRUX_PASS_BEAUTY, shadow passes (12-15),
 *                 DRUX_PASS_LIGHT_GROUP                  (1, 1)
 *                 every other type                       no light
 *               then end_light(samples) (sampleLightEnd adds the average
 *               into the slot)
 *   end         sets every entry's slots[depth].result (alpha 1) and
 *               opacity (white):
 *                 beauty       gathered + opacity x indirect + scatter
 *                              + emitted diffuse + emitted specular
 *                 diffuse      gathered + emitted diffuse
 *                 specular     gathered + emitted specular
 *                 shadow, light group   gathered
 *                 reflection   the reflection component: weight x
 *                              colour x what compute_reflection
 *                              returned, the share it added into beauty
 *                 refraction   the refraction component: what
 *                              compute_refraction returned
 *                 indirect     opacity x indirect
 *                 scatter      scatter
 *                 background   black, alpha 0: the surface hides the
 *                              environment
 *                 coverage     (1, 1, 1, 1) for an eye ray's first hit,
 *                              else (0, 0, 0, 0) with opacity black
 *                 data         (0, 0, 0, 0), opacity black: a material
 *                              that knows depth, normal, ... writes them
 *                              after end
 *                 custom       the value given with set_custom for that
 *                              pass; otherwise what the slot gathered,
 *                              which is only traced light: reflected and
 *                              refracted surfaces' values of the pass and
 *                              the environment those rays fell back on
 *                              (never direct light)
 *                 other types  gathered (traced light)
 *
 * "gathered" is slots[depth].accum: the light loop's averages plus what
 * compute_reflection and compute_refraction added from their rays.  With
 * these rules diffuse + specular + reflection + refraction + indirect +
 * scatter + background add up to beauty.
 *
 * Use (a material with a Lambert and a Phong term and a mirror):
 *
 *   drux::MaterialPasses passes(state, diffuse, specular);
 *   for each light:
 *     passes.begin_light();
 *     while (mi_sample_light(&col, &L, &dot_nl, state, light, &samples)) {
 *         passes.light_sample(col, light);
 *         passes.add_sample(dot_nl > 0 ? dot_nl : 0, phong);
 *     }
 *     passes.end_light(samples);
 *   compute_reflection(&r, ..., passes.entry_count(), passes.entries(),
 *                      passes.types(), ...);
 *   drux::PassComponents parts;
 *   parts.reflection = ...;
 *   passes.end(parts);
 *   colour = passes.diffuse() + passes.specular() + parts.reflection
 *
 * Library calls go through DRUX_MATERIAL_CALL(fn)(args); define it before
 * including this header to wrap them (the reference host traces them).
 */
#ifndef DRUX_MATERIAL_H
#define DRUX_MATERIAL_H

#ifndef __cplusplus
#error "DruxMaterial.h is C++ (C++17): include DruxShaderSDK.h from C"
#endif

#include "DruxShaderSDK.h"

#include <cmath>

#ifndef DRUX_MATERIAL_CALL
#define DRUX_MATERIAL_CALL(fn) fn
#endif

namespace drux {

/* ================================================== vectors (single precision) */

inline miVector add(const miVector &a, const miVector &b) { return miVector{a.x + b.x, a.y + b.y, a.z + b.z}; }
inline miVector sub(const miVector &a, const miVector &b) { return miVector{a.x - b.x, a.y - b.y, a.z - b.z}; }
inline miVector scale(const miVector &a, float s) { return miVector{a.x * s, a.y * s, a.z * s}; }
inline float dot(const miVector &a, const miVector &b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline miVector cross(const miVector &a, const miVector &b)
{
    return miVector{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(const miVector &a) { return std::sqrt(dot(a, a)); }
/* a / |a|; the zero vector stays as it is. */
inline miVector normalize(const miVector &a)
{
    const float l = length(a);
    return l > 0.0f ? scale(a, 1.0f / l) : a;
}
/* `dir` mirrored about the unit normal n: dir - 2 (n . dir) n.  With the
   state's ray direction and normal it is the mirror direction that
   compute_phong_specular takes. */
inline miVector reflect(const miVector &dir, const miVector &n) { return sub(dir, scale(n, 2.0f * dot(n, dir))); }

/* ================================================== colours (all four channels) */

inline miColor add(const miColor &a, const miColor &b) { return miColor{a.r + b.r, a.g + b.g, a.b + b.b, a.a + b.a}; }
inline miColor mul(const miColor &a, const miColor &b) { return miColor{a.r * b.r, a.g * b.g, a.b * b.b, a.a * b.a}; }
inline miColor scale(const miColor &a, float s) { return miColor{a.r * s, a.g * s, a.b * s, a.a * s}; }

/* ================================================== the pass contract */

/* The diffuse (cd) and specular (cs) weights with which a pass of type
   `type` (drux_pass_type) takes a light sample; false: it takes none. */
inline bool pass_light_weights(int type, float &cd, float &cs)
{
    cd = 1.0f;
    cs = 1.0f;
    if (type == DRUX_PASS_DIFFUSE) {
        cs = 0.0f;
        return true;
    }
    if (type == DRUX_PASS_SPECULAR) {
        cd = 0.0f;
        return true;
    }
    return type == DRUX_PASS_BEAUTY || (type >= DRUX_PASS_SHADOW && type <= DRUX_PASS_SHADOW + 3) ||
           type == DRUX_PASS_LIGHT_GROUP;
}

/* What a material brings besides the light loop, for MaterialPasses::end.
   All black by default. */
struct PassComponents {
    miColor indirect{0, 0, 0, 0};   /* final-gather light before opacity (compute_irradiance) */
    miColor scatter{0, 0, 0, 0};    /* subsurface light (compute_scatter) */
    miColor reflection{0, 0, 0, 0}; /* reflected light as the material shows it: reflectivity x colour x traced */
    miColor refraction{0, 0, 0, 0}; /* refracted light as compute_refraction returned it */
    miColor emitted_diffuse{0, 0, 0, 0};  /* light not from lights shown in beauty and the diffuse pass */
    miColor emitted_specular{0, 0, 0, 0}; /* the same for beauty and the specular pass (a rim, a glint) */
};

/* Writes one material call's light into the passes by the rules above.
   One object per shader call: begin (the constructor), the light loop,
   end.  Without pass records (getFrameBufferInfo 0, or a depth without a
   slot) every pass call does nothing and the colour sums still work. */
class MaterialPasses {
public:
    static constexpr miUint kListed = 64; /* entries whose weights are kept; more are looked up per sample */
    static constexpr int kCustoms = 4;    /* set_custom values one call can hold */

    /* Reads the pass records (getFrameBufferInfo) and empties this depth's
       slots.  diffuse, specular: the colours that add_sample weights;
       opacity: per channel (1 - transparency), multiplies every pass's
       light. */
    MaterialPasses(miState *state, const miColor &diffuse, const miColor &specular,
                   const miColor &opacity = miColor{1, 1, 1, 1})
        : state_(state), dcol_(diffuse), scol_(specular), opacity_(opacity)
    {
        PassTypeInfo *types = nullptr;
        FrameBufferInfo *entries = nullptr;
        const miUint n = state ? DRUX_MATERIAL_CALL(getFrameBufferInfo)(state, &types, &entries) : 0;
        begin(n, types, entries);
    }

    /* The same from records the caller has read already. */
    MaterialPasses(miState *state, miUint n, PassTypeInfo *types, FrameBufferInfo *entries, const miColor &diffuse,
                   const miColor &specular, const miColor &opacity = miColor{1, 1, 1, 1})
        : state_(state), dcol_(diffuse), scol_(specular), opacity_(opacity)
    {
        begin(n, types, entries);
    }

    MaterialPasses(const MaterialPasses &) = delete;
    MaterialPasses &operator=(const MaterialPasses &) = delete;

    /* The records as compute_reflection / compute_refraction take them. */
    int entry_count() const { return static_cast<int>(n_); }
    FrameBufferInfo *entries() const { return e_; }
    PassTypeInfo *types() const { return types_; }
    /* Reflection plus refraction level: the slot this call writes. */
    int depth() const { return depth_; }
    /* The beauty entry, or null. */
    FrameBufferInfo *beauty() const { return beauty_ >= 0 ? &e_[beauty_] : nullptr; }

    /* Starts one light (sampleLightBegin). */
    void begin_light()
    {
        dsum_ = miColor{0, 0, 0, 0};
        ssum_ = miColor{0, 0, 0, 0};
        DRUX_MATERIAL_CALL(sampleLightBegin)(n_, e_);
    }

    /* After each mi_sample_light: `colour` is the sample's light.  A light
       shader that did not set up its pass contributions has its colour
       routed into the entries it contributes to (handleNonDruxLights); it
       brings no shadow-pass light of its own. */
    void light_sample(const miColor &colour, miTag light)
    {
        col_ = colour;
        const bool unaware = n_ && (e_[0].flags & FBINFO_LIGHT_SETUP_PENDING);
        DRUX_MATERIAL_CALL(handleNonDruxLights)(n_, e_, &col_, light, state_);
        if (unaware)
            for (miUint i = 0; i < n_; ++i)
                if (e_[i].flags & FBINFO_SHADOW_PASS)
                    e_[i].light = miColor{0, 0, 0, 1};
    }

    /* The sample's diffuse weight wd (Lambert: dot_nl x kd) and specular
       weight ws (the highlight): into each pass that takes light, and into
       the material's own sums with the beauty pass's light (or the sample's
       colour without one). */
    void add_sample(float wd, float ws)
    {
        const miColor &Lb = beauty_ >= 0 ? e_[beauty_].light : col_;
        dsum_.r += wd * dcol_.r * Lb.r;
        dsum_.g += wd * dcol_.g * Lb.g;
        dsum_.b += wd * dcol_.b * Lb.b;
        ssum_.r += ws * scol_.r * Lb.r;
        ssum_.g += ws * scol_.g * Lb.g;
        ssum_.b += ws * scol_.b * Lb.b;
        if (lit_ >= 0) {
            for (int k = 0; k < lit_; ++k)
                addTo(e_[litIndex_[k]], litCd_[k], litCs_[k], wd, ws);
            return;
        }
        for (miUint i = 0; i < n_; ++i) {
            float cd, cs;
            if (pass_light_weights(type_of(i), cd, cs))
                addTo(e_[i], cd, cs, wd, ws);
        }
    }

    /* Ends the light: sampleLightEnd adds each pass's average into its
       slot; the material's sums take this light's average. */
    void end_light(int samples)
    {
        const int mode = 1; /* add */
        const miBoolean useScale = miFALSE;
        const float one = 1.0f;
        DRUX_MATERIAL_CALL(sampleLightEnd)(state_, n_, e_, samples, &mode, &useScale, &one);
        if (samples > 0) {
            const float w = 1.0f / static_cast<float>(samples);
            diffuse_.r += dsum_.r * w;
            diffuse_.g += dsum_.g * w;
            diffuse_.b += dsum_.b * w;
            specular_.r += ssum_.r * w;
            specular_.g += ssum_.g * w;
            specular_.b += ssum_.b * w;
        }
    }

    /* The light loop's diffuse and specular light so far (alpha 0): the
       material's colour is built from these. */
    const miColor &diffuse() const { return diffuse_; }
    const miColor &specular() const { return specular_; }

    /* The value the custom pass named by string item `name` (a string
       parameter) gets at end; false when no pass has that name or
       kCustoms values are held already. */
    bool set_custom(miTag name, const miColor &value)
    {
        return hold(name ? getNamedFrameBufferID(state_, name) : 0u, value);
    }
    bool set_custom(const char *name, const miColor &value)
    {
        return hold(name ? getNamedFrameBufferID(static_cast<const miState *>(state_), name) : 0u, value);
    }

    /* Sets every entry's slots[depth].result and opacity by the rules at
       the top of this header. */
    void end(const PassComponents &c)
    {
        const bool extra = nonzero(c.emitted_diffuse) || nonzero(c.emitted_specular);
        const bool eyeHit = depth_ == 0 && state_ && state_->type == miRAY_EYE;
        for (miUint i = 0; i < n_; ++i) {
            PassSlot &s = e_[i].slots[depth_];
            miColor r = s.accum;
            miColor opacity{1, 1, 1, 1};
            float alpha = 1.0f;
            switch (type_of(i)) {
            case DRUX_PASS_BEAUTY:
                r.r += opacity_.r * c.indirect.r + c.scatter.r;
                r.g += opacity_.g * c.indirect.g + c.scatter.g;
                r.b += opacity_.b * c.indirect.b + c.scatter.b;
                if (extra) {
                    r.r += c.emitted_diffuse.r + c.emitted_specular.r;
                    r.g += c.emitted_diffuse.g + c.emitted_specular.g;
                    r.b += c.emitted_diffuse.b + c.emitted_specular.b;
                }
                break;
            case DRUX_PASS_DIFFUSE:
                if (extra)
                    r = miColor{r.r + c.emitted_diffuse.r, r.g + c.emitted_diffuse.g, r.b + c.emitted_diffuse.b, 0};
                break;
            case DRUX_PASS_SPECULAR:
                if (extra)
                    r = miColor{r.r + c.emitted_specular.r, r.g + c.emitted_specular.g, r.b + c.emitted_specular.b,
                                0};
                break;
            case DRUX_PASS_REFLECTION:
                r = c.reflection;
                break;
            case DRUX_PASS_REFRACTION:
                r = c.refraction;
                break;
            case DRUX_PASS_INDIRECT:
                r = miColor{opacity_.r * c.indirect.r, opacity_.g * c.indirect.g, opacity_.b * c.indirect.b, 0};
                break;
            case DRUX_PASS_SCATTER:
                r = c.scatter;
                break;
            case DRUX_PASS_BACKGROUND:
                r = miColor{0, 0, 0, 0};
                alpha = 0.0f;
                break;
            case DRUX_PASS_COVERAGE:
                r = eyeHit ? miColor{1, 1, 1, 1} : miColor{0, 0, 0, 0};
                alpha = r.a;
                opacity = eyeHit ? miColor{1, 1, 1, 1} : miColor{0, 0, 0, 0};
                break;
            case DRUX_PASS_DATA:
                r = miColor{0, 0, 0, 0};
                alpha = 0.0f;
                opacity = miColor{0, 0, 0, 0};
                break;
            case DRUX_PASS_CUSTOM:
                for (int k = 0; k < customs_; ++k)
                    if (e_[i].fbId == customFb_[k])
                        r = customValue_[k];
                break;
            default: /* diffuse and specular without extras, shadow, light groups, other types: what was gathered */
                break;
            }
            r.a = alpha;
            s.result = r;
            s.opacity = opacity;
        }
    }

private:
    void begin(miUint n, PassTypeInfo *types, FrameBufferInfo *entries)
    {
        depth_ = state_ ? state_->reflection_level + state_->refraction_level : 0;
        const int limit = state_ && state_->options ? state_->options->trace_depth : 0;
        /* every entry has trace-depth limit + 2 slots */
        if (n == 0 || !types || !entries || depth_ < 0 || depth_ > limit + 1)
            n = 0;
        n_ = n;
        types_ = n ? types : nullptr;
        e_ = n ? entries : nullptr;
        /* the listed entries' types from the type ranges, in one walk over
           them (the first range holding an entry names its type) */
        for (miUint i = 0; i < n_ && i < kListed; ++i)
            type_[i] = -1;
        for (int t = DRUX_PASS_TYPES - 1; n_ && t >= 0; --t) {
            const PassTypeRange &r = types_->range[t];
            if (r.count <= 0 || r.first < 0)
                continue;
            for (miUint i = static_cast<miUint>(r.first); i - static_cast<miUint>(r.first) < static_cast<miUint>(r.count) && i < n_ && i < kListed; ++i)
                type_[i] = static_cast<signed char>(t);
        }
        for (miUint i = 0; i < n_; ++i) {
            e_[i].slots[depth_].accum = miColor{0, 0, 0, 0};
            e_[i].slots[depth_].slotFlags = 0;
            if (beauty_ < 0 && type_of(i) == DRUX_PASS_BEAUTY)
                beauty_ = static_cast<int>(i);
        }
        lit_ = n_ <= kListed ? 0 : -1;
        for (miUint i = 0; lit_ >= 0 && i < n_; ++i) {
            float cd, cs;
            if (!pass_light_weights(type_[i], cd, cs))
                continue;
            litIndex_[lit_] = static_cast<unsigned char>(i);
            litCd_[lit_] = cd;
            litCs_[lit_] = cs;
            ++lit_;
        }
    }

    /* Pass type of entry i: kept for the first kListed entries. */
    int type_of(miUint i) const { return i < kListed ? type_[i] : drux_pass_type(types_, i); }

    void addTo(FrameBufferInfo &x, float cd, float cs, float wd, float ws) const
    {
        const miColor &Li = x.light;
        x.lightSum.r += opacity_.r * (cd * wd * dcol_.r + cs * ws * scol_.r) * Li.r;
        x.lightSum.g += opacity_.g * (cd * wd * dcol_.g + cs * ws * scol_.g) * Li.g;
        x.lightSum.b += opacity_.b * (cd * wd * dcol_.b + cs * ws * scol_.b) * Li.b;
    }

    bool hold(miUint fb, const miColor &value)
    {
        if (!fb || customs_ >= kCustoms)
            return false;
        customFb_[customs_] = fb;
        customValue_[customs_] = value;
        ++customs_;
        return true;
    }

    static bool nonzero(const miColor &c) { return c.r != 0.0f || c.g != 0.0f || c.b != 0.0f; }

    miState *state_;
    miColor dcol_, scol_, opacity_;
    miUint n_ = 0;
    PassTypeInfo *types_ = nullptr;
    FrameBufferInfo *e_ = nullptr;
    int depth_ = 0;
    int beauty_ = -1;
    int lit_ = 0;
    signed char type_[kListed] = {};
    unsigned char litIndex_[kListed] = {};
    float litCd_[kListed] = {}, litCs_[kListed] = {};
    miColor col_{0, 0, 0, 0};
    miColor dsum_{0, 0, 0, 0}, ssum_{0, 0, 0, 0};
    miColor diffuse_{0, 0, 0, 0}, specular_{0, 0, 0, 0};
    int customs_ = 0;
    miUint customFb_[kCustoms] = {};
    miColor customValue_[kCustoms] = {};
};

} // namespace drux

#endif /* DRUX_MATERIAL_H */
