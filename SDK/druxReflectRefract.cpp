/*
 * Reflection and refraction: secondary rays with depth limits, a cut-off on
 * the accumulated path weight, glossy (cone) sampling, the environment
 * fall-back and the per-pass bookkeeping around every sample.
 *
 * Both functions share the blur set-up, the basis around the central
 * direction, the sample directions, the environment look-up used when no ray
 * is traced, and the direct pass additions made for such samples.  They
 * differ in their early exits, in the order of their pass bookkeeping and in
 * what they do with the traced colour (refraction attenuates it by distance).
 *
 * Everything here runs per shading sample: no allocation, no locks.  Fields
 * of the host's record and of the state that are changed for the duration of
 * a call are put back on every return path (the refraction index and the
 * refraction-volume tag excepted, which describe the medium the refracted ray
 * travels in).
 */
#include "druxInternal.h"

#include <climits>
#include <cmath>

using drux::operator+;
using drux::operator-;
using drux::operator*;

namespace {

using drux::dot;
using drux::normalize;

constexpr float kHalfPi = 1.5707964f;
constexpr float kTwoPi = 6.2831855f;
constexpr float kSideOffset = 0.01f;

/* A parameter read as its value, evaluated if connected.  A null pointer
   reads as 0, the value of a parameter the caller's block does not set. */
template <class T> T param(miState *state, T *p)
{
    if (!p)
        return T();
    return *drux::eval(state, p);
}

miUint entryCount(int count, const FrameBufferInfo *entries)
{
    return (count > 0 && entries) ? static_cast<miUint>(count) : 0u;
}

/* Slot `depth` may be touched in every entry. */
bool slotExists(const FrameBufferInfo *entries, int depth)
{
    return drux::depthSlotExists(entries, depth);
}

/* How many samples a secondary ray takes and over which cone. */
struct Blur {
    bool on = false;
    float gp = 0.0f; /* 1 - cos(half-angle of the cone) */
    int n = 1;       /* sample count */
};

/* Blur set-up shared by both functions: cone, sample count (scaled down for
   paths whose weight m lies below the full-sample contribution) and the
   division of the path weight by the sample count. */
Blur setupBlur(miState *state, BaseShaderState *bss, float *blur, int *blur_limit, int *rays,
               int hostBlurLimit, int depth, float m)
{
    Blur b;
    float g = param(state, blur);
    if (g < 0.0f)
        g = 0.0f;
    if (g > 1.0f)
        g = 1.0f;
    const int limit = param(state, blur_limit);
    const int minLimit = limit < hostBlurLimit ? limit : hostBlurLimit;
    if (g > 0.0f && depth < minLimit && !drux::queryFlag(miQ_PRECOMPUTE_PASS, state)) {
        b.on = true;
        b.gp = 1.0f - std::cos(g * kHalfPi);
        const int r = param(state, rays);
        if (r <= 0) {
            b.n = 1;
        } else {
            b.n = r;
            const float full = bss->fullSampleContribution;
            if (full > m) {
                const float a = m - bss->minContribution;
                const float c = m - full;
                const float q = (static_cast<float>(r) * a - c) / (a - c);
                /* q >= 1 because m > minContribution; the upper clamp only
                   keeps the conversion defined for absurd counts. */
                if (q >= 2147483520.0f)
                    b.n = INT_MAX;
                else if (q >= 1.0f)
                    b.n = static_cast<int>(q);
                else
                    b.n = 1;
            }
        }
    }
    const float fn = static_cast<float>(b.n);
    bss->pathWeight.r /= fn;
    bss->pathWeight.g /= fn;
    bss->pathWeight.b /= fn;
    return b;
}

/* Orthonormal pair perpendicular to the central direction r. */
void basis(const miVector &r, miVector &u, miVector &v)
{
    if (r.x == 0.0f && r.y == 0.0f) {
        u = drux::vec(1.0f, 0.0f, 0.0f);
        v = drux::vec(0.0f, 1.0f, 0.0f);
        return;
    }
    u = drux::vec(r.y, -r.x, 0.0f);
    v = drux::vec(r.z * r.x, r.z * r.y, -(r.x * r.x + r.y * r.y));
    normalize(u);
    normalize(v);
}

/* Next sample direction around r.  With blur, mi_sample draws the two
   numbers and advances i; a uniform draw of 1 - cos over [0, g'] makes the
   directions uniform over the cap.  Returns false when the sequence is
   exhausted (nothing left to sample). */
bool nextDirection(miState *state, const Blur &b, const miVector &r, const miVector &u,
                   const miVector &v, int &i, miVector &d)
{
    if (!b.on) {
        i += 1;
        d = r;
        return true;
    }
    double xi[2] = {0.0, 0.0};
    const miUint count = static_cast<miUint>(b.n);
    const int before = i;
    if (!mi_sample(xi, &i, state, 2, &count) || i == before)
        return false;
    const float phi = static_cast<float>(xi[0]) * kTwoPi;
    const float ct = 1.0f - static_cast<float>(xi[1]) * b.gp;
    const float st = std::sqrt(1.0f - ct * ct);
    d = u * (st * std::cos(phi)) + v * (st * std::sin(phi)) + r * ct;
    return true;
}

/* The environment seen along d when no ray is traced.  Inside the depth
   limits the renderer traces an environment ray one level deeper (level is
   the state's reflection or refraction level); beyond them the state's
   environment shader is called directly as for an environment ray. */
void environmentLookup(miColor *s, miState *state, const miVector &dir, int depth, int &level,
                       int levelLimit)
{
    const miOptions *opt = state->options;
    miVector d = dir;
    if (level < levelLimit && depth < opt->trace_depth) {
        level += 1;
        mi_trace_environment(s, state, &d);
        level -= 1;
    } else {
        const int type = state->type;
        const miVector saved = state->dir;
        state->type = miRAY_ENVIRONMENT;
        state->dir = d;
        mi_call_shader_x(s, miSHADER_ENVIRONMENT, state, state->environment, nullptr);
        state->type = type;
        state->dir = saved;
    }
}

void addColor(miColor &to, const miColor &c)
{
    to.r += c.r;
    to.g += c.g;
    to.b += c.b;
    to.a += c.a;
}

/* Environment colour reaches the passes of types 0 and 34 directly: there
   is no child surface whose per-pass results tracePassAdd could take over. */
void addDirect(miState *state, int entry_count, FrameBufferInfo *entries,
               const PassTypeInfo *pass_types, int depth, const miColor &wc)
{
    const miUint count = entryCount(entry_count, entries);
    if (!count || !pass_types)
        return;
    if (entries[0].flags & FBINFO_NO_ACCUMULATE)
        return;
    const bool inLightLoop = (entries[0].flags & FBINFO_IN_LIGHT_LOOP) != 0;
    const bool haveSlot = slotExists(entries, depth);
    static const int kTypes[2] = {0, 34};
    for (int t : kTypes) {
        const PassTypeRange &range = pass_types->range[t];
        if (range.count <= 0 || range.first < 0)
            continue;
        /* Never beyond the entry array, whatever the table says. */
        miUint end = static_cast<miUint>(range.first) + static_cast<miUint>(range.count);
        if (end > count)
            end = count;
        for (miUint e = static_cast<miUint>(range.first); e < end; ++e) {
            FrameBufferInfo &entry = entries[e];
            if (inLightLoop) {
                addColor(entry.lightSum, wc);
                continue;
            }
            if (entry.flags & FBINFO_NO_ACCUMULATE)
                continue;
            if (!haveSlot || (entry.slots[depth].slotFlags & 1u))
                continue;
            if (state->type == miRAY_ENVIRONMENT)
                continue;
            addColor(entry.slots[depth].accum, wc);
        }
    }
}

bool childHit(const miState *state, bool lightCounts)
{
    const miState *child = state->child;
    if (!child)
        return false;
    return child->instance != 0 || (lightCounts && child->light_instance != 0);
}

miColor scaled(const miColor &c, float f)
{
    return miColor{c.r * f, c.g * f, c.b * f, c.a * f};
}

} // namespace

extern "C" DRUX_API void compute_reflection(miColor *result, const miColor *color,
                                            miColor *reflected_color, int *reflection_limit,
                                            float *blur, int *blur_limit, int *rays, int no_trace,
                                            const miVector *normal, miState *state,
                                            int entry_count, FrameBufferInfo *entries,
                                            PassTypeInfo *pass_types, const float *pass_scale,
                                            float weight, float gain, float dot_nd)
{
    if (!result)
        return;
    *result = BLACK;
    if (!(weight > 0.0f) || !color || !normal || !state)
        return;
    if (color->r < KELU_EPS && color->g < KELU_EPS && color->b < KELU_EPS)
        return;

    /* Without the host's record there is no path weight to cut off against:
       no reflection. */
    BaseShaderState *bss = drux::baseShaderState(state);
    if (!bss)
        return;
    const miColor savedWeight = bss->pathWeight;
    bss->pathWeight.r = (weight * color->r) * savedWeight.r;
    bss->pathWeight.g = (weight * color->g) * savedWeight.g;
    bss->pathWeight.b = (weight * color->b) * savedWeight.b;
    if (gain > 1.0f) {
        bss->pathWeight.r *= gain;
        bss->pathWeight.g *= gain;
        bss->pathWeight.b *= gain;
    }
    const float m = drux::maxRGB(bss->pathWeight);
    if (!(m > bss->minContribution)) {
        bss->pathWeight = savedWeight;
        return;
    }

    const miOptions *opt = state->options;
    const int depth = drux::rayDepth(state);
    const bool trace = opt->trace && no_trace == 0 && depth < param(state, reflection_limit);
    const miVector r = state->dir - (2.0f * dot_nd) * *normal;

    const Blur b = setupBlur(state, bss, blur, blur_limit, rays, bss->reflectBlurLimit, depth, m);
    miVector u{0, 0, 0}, v{0, 0, 0};
    if (b.on)
        basis(r, u, v);

    miColor saved1{}, saved2{}, savedT{};
    if (trace) {
        saved1 = bss->childResult1;
        saved2 = bss->childResult2;
        savedT = bss->childTransmission;
    }

    const miUint count = entryCount(entry_count, entries);
    tracePassInit(count, entries, state);

    const float inv = 1.0f / static_cast<float>(b.n);
    const float w = (weight * inv) * (pass_scale ? *pass_scale : 1.0f);
    const miColor W{w * color->r, w * color->g, w * color->b, w * color->a};
    const bool connected = drux::isConnected(state, reflected_color);

    int i = 0;
    while (i < b.n) {
        if (i > 0 && count && slotExists(entries, depth + 1))
            for (miUint e = 0; e < count; ++e)
                entries[e].slots[depth + 1].opacity = BLACK;

        miVector d;
        if (!nextDirection(state, b, r, u, v, i, d))
            break;
        const float dd = dot(d, state->normal_geom);
        if (dd < 0.0f) {
            d = d - (dd - kSideOffset) * state->normal_geom;
            normalize(d);
        }

        miColor s = BLACK;
        bool hit = false;
        if (trace) {
            bss->childResult1 = BLACK;
            bss->childResult2 = BLACK;
            bss->childTransmission = WHITE;
            miVector td = d;
            mi_trace_reflection(&s, state, &td);
            hit = childHit(state, true);
        }
        if (!hit) {
            if (connected) {
                /* The connected colour input stands in for the environment.
                   For several samples it is re-evaluated with the incoming
                   direction that mirrors into this sample's direction. */
                const miVector savedDir = state->dir;
                const float savedDot = state->dot_nd;
                const miColor *c;
                if (b.n <= 1) {
                    c = static_cast<const miColor *>(mi_phen_eval(state, reflected_color));
                } else {
                    state->dir = d;
                    state->dot_nd = -dot(state->normal, d);
                    state->dir = d + (2.0f * dot_nd) * state->normal;
                    c = static_cast<const miColor *>(mi_phen_call(state, reflected_color));
                }
                if (c)
                    s = *c;
                state->dir = savedDir;
                state->dot_nd = savedDot;
            } else if (opt->trace) {
                environmentLookup(&s, state, d, depth, state->reflection_level,
                                  opt->reflection_depth);
                if (pass_types && count) {
                    const miColor wc{W.r * s.r, W.g * s.g, W.b * s.b, W.a * s.a};
                    addDirect(state, entry_count, entries, pass_types, depth, wc);
                }
            }
        }
        result->r += s.r;
        result->g += s.g;
        result->b += s.b;
        tracePassAdd(count, entries, state, miFALSE, W);
    }

    if (trace) {
        bss->childResult1 = saved1;
        bss->childResult2 = saved2;
        bss->childTransmission = savedT;
    }
    if (b.n > 1) {
        result->r *= inv;
        result->g *= inv;
        result->b *= inv;
    }
    bss->pathWeight = savedWeight;
}

extern "C" DRUX_API void compute_refraction(miColor *result, miColor *transmission,
                                            int *refraction_limit, float *ior, int refractions,
                                            const miColor *transparency, int bypass, float *blur,
                                            int *blur_limit, int *rays, float *thickness,
                                            float *fade_distance, float *absorbance,
                                            int *chromatic, const miVector *normal,
                                            miState *state, int entry_count,
                                            FrameBufferInfo *entries, PassTypeInfo *pass_types,
                                            const float *pass_scale, float dot_nd)
{
    if (!result || !transmission)
        return;
    *result = BLACK;
    if (bypass != 0) {
        *transmission = WHITE;
        return;
    }
    /* A missing transparency is an opaque material. */
    if (!transparency ||
        (transparency->r < KELU_EPS && transparency->g < KELU_EPS && transparency->b < KELU_EPS)) {
        *transmission = BLACK;
        return;
    }
    if (!state || !normal) {
        *transmission = BLACK;
        return;
    }
    const miOptions *opt = state->options;
    if (refractions == 0 || !opt->trace) {
        *transmission = *transparency;
        return;
    }

    /* Without the host's record there is no path weight to cut off against:
       nothing is transmitted. */
    BaseShaderState *bss = drux::baseShaderState(state);
    if (!bss) {
        *transmission = BLACK;
        return;
    }
    const miColor savedWeight = bss->pathWeight;
    bss->pathWeight.r *= transparency->r;
    bss->pathWeight.g *= transparency->g;
    bss->pathWeight.b *= transparency->b;
    *transmission = BLACK;
    const float m = drux::maxRGB(bss->pathWeight);
    if (!(m > bss->minContribution)) {
        bss->pathWeight = savedWeight;
        return;
    }

    /* Index of refraction: adjusted for thin shells by the angle of
       incidence; a ray whose medium already has the material's index is
       leaving the material and goes back into air. */
    const float nState = state->ior;
    const float iorParam = param(state, ior);
    const float thick = param(state, thickness);
    const int chroma = param(state, chromatic);
    const float fade = param(state, fade_distance);
    const float absorb = param(state, absorbance);
    const int limit = param(state, refraction_limit);
    const int depth = drux::rayDepth(state);

    float iorAdj = iorParam;
    if (thick != 0.0f) {
        const float x = dot_nd < 0.0f ? dot_nd + 1.0f : 1.0f - dot_nd;
        iorAdj = 1.0f + (iorParam - 1.0f) * ((2.0f * thick) * (x * x) + thick);
        if (iorAdj < 0.01f)
            iorAdj = 0.01f;
        if (iorAdj > 3.0f)
            iorAdj = 3.0f;
    }
    const float iorExit = iorAdj != nState ? iorAdj : 1.0f;

    const Blur b = setupBlur(state, bss, blur, blur_limit, rays, bss->refractBlurLimit, depth, m);

    const miColor saved1 = bss->childResult1;
    const miColor savedT = bss->childTransmission;
    const float inv = 1.0f / static_cast<float>(b.n);
    const int channels = chroma != 0 ? 3 : 1;
    const float cosI = -dot_nd;
    const float s2 = 1.0f - dot_nd * dot_nd;
    const float scale = pass_scale ? *pass_scale : 1.0f;
    const miUint count = entryCount(entry_count, entries);

    for (int ch = 0; ch < channels; ++ch) {
        const float iorCh = iorExit + 0.06f * static_cast<float>(ch);
        const float eta = nState / iorCh;
        const float k = 1.0f - eta * eta * s2;
        miVector dir;
        if (k < 0.0f) {
            /* Total internal reflection. */
            dir = state->dir + (2.0f * cosI) * *normal;
            state->ior = iorParam;
        } else {
            dir = eta * state->dir + (std::fabs(cosI) * eta - std::sqrt(k)) * *normal;
            state->ior = iorCh;
        }
        miVector u{0, 0, 0}, v{0, 0, 0};
        if (b.gp > 0.0f)
            basis(dir, u, v);

        int j = 0;
        while (j < b.n) {
            tracePassInit(count, entries, state);
            miVector d;
            if (!nextDirection(state, b, dir, u, v, j, d))
                break;
            /* A refracted direction must end below the surface, a totally
               reflected one above it. */
            const float dd = dot(d, state->normal_geom);
            if (k * dd >= 0.0f) {
                const float e = k >= 0.0f ? kSideOffset : -kSideOffset;
                d = d - (dd + e) * state->normal_geom;
                normalize(d);
            }

            bss->childResult1 = BLACK;
            miColor s = BLACK;
            bss->childTransmission = WHITE;
            if (state->child)
                state->child->dist = 0.0;

            bool missed;
            miBoolean refracted = miTRUE;
            miVector td = d;
            if (depth >= limit) {
                environmentLookup(&s, state, d, depth, state->refraction_level,
                                  opt->refraction_depth);
                missed = true;
            } else if (k < 0.0f) {
                mi_trace_reflection(&s, state, &td);
                missed = false;
                refracted = miFALSE;
            } else {
                state->refraction_volume = state->volume;
                mi_trace_refraction(&s, state, &td);
                missed = false;
            }
            if (!childHit(state, false))
                missed = true;

            /* Attenuation along the refracted ray. */
            float dist = 1e36f;
            if (state->child && state->child->dist > 0.0)
                dist = static_cast<float>(state->child->dist);
            if (thick >= 0.0f && thick < dist)
                dist = thick;
            float f = 1.0f;
            if (absorb != 0.0f)
                f = std::exp((dist / -100.0f) * absorb);
            bool fadedOut = false;
            if (fade != 0.0f) {
                if (fade >= dist) {
                    const float q = (fade - dist) / fade;
                    f = f * (q * q);
                } else {
                    f = 0.0f;
                    fadedOut = true;
                }
            }
            if (!fadedOut && !(f > 1e-6f))
                f = 0.0f;

            const float w = (inv * f) * scale;
            miColor W = scaled(*transparency, w);
            const miColor &ct = bss->childTransmission;
            if (channels == 3) {
                float *wc = &W.r;
                float *sc = &s.r;
                for (int c = 0; c < 3; ++c)
                    if (c != ch) {
                        wc[c] = 0.0f;
                        sc[c] = 0.0f;
                    }
                (&transmission->r)[ch] += (&ct.r)[ch];
            } else {
                transmission->r += ct.r;
                transmission->g += ct.g;
                transmission->b += ct.b;
            }
            result->r += f * s.r;
            result->g += f * s.g;
            result->b += f * s.b;

            if (!missed) {
                tracePassAdd(count, entries, state, refracted, W);
            } else if (pass_types && count) {
                const miColor wc{W.r * s.r, W.g * s.g, W.b * s.b, W.a * s.a};
                addDirect(state, entry_count, entries, pass_types, depth, wc);
            }
        }
    }

    bss->childTransmission = savedT;
    bss->childResult1 = saved1;
    if (b.n > 1) {
        result->r *= inv;
        result->g *= inv;
        result->b *= inv;
        transmission->r *= inv;
        transmission->g *= inv;
        transmission->b *= inv;
    }
    result->r *= transparency->r;
    result->g *= transparency->g;
    result->b *= transparency->b;
    transmission->r *= transparency->r;
    transmission->g *= transparency->g;
    transmission->b *= transparency->b;
    bss->pathWeight = savedWeight;
}
