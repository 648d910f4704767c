/*
 * Indirect light at the shaded point (final gathering / photons through the
 * renderer) and the surface's tangent vectors for bump mapping.
 */
#include "druxInternal.h"

#include <cstring>

namespace {

using drux::negligible;

/* Number of words a user-data block needs to carry irradiance settings
   (words 0 to 16). */
constexpr int kSettingsWords = 17;

miUint word(const void *block, int n)
{
    miUint w;
    std::memcpy(&w, static_cast<const char *>(block) + 4 * n, sizeof w);
    return w;
}

/* Size of a user-data block's parameter area, from its header. */
int parameterSize(const void *params)
{
    int size;
    std::memcpy(&size, static_cast<const char *>(params) - offsetof(miUserdata, parameters) +
                           offsetof(miUserdata, parameter_size),
                sizeof size);
    return size;
}

/* The object's own irradiance settings: words 6 to 16 of its block. */
void fillFromBlock(miIrrad_options &o, const void *block)
{
    miUint w;
    o.size = static_cast<int>(sizeof(miIrrad_options));
    w = word(block, 6);
    std::memcpy(&o.finalgather_rays, &w, 4);
    w = word(block, 7);
    std::memcpy(&o.finalgather_maxradius, &w, 4);
    w = word(block, 8);
    std::memcpy(&o.finalgather_minradius, &w, 4);
    o.finalgather_view = static_cast<miUchar>(word(block, 9) & 0xFFu);
    o.finalgather_filter = static_cast<miUchar>(word(block, 10) & 0xFFu);
    o.pad[0] = 0;
    o.pad[1] = 0;
    w = word(block, 11);
    std::memcpy(&o.globillum_accuracy, &w, 4);
    w = word(block, 12);
    std::memcpy(&o.globillum_radius, &w, 4);
    w = word(block, 13);
    std::memcpy(&o.caustic_accuracy, &w, 4);
    w = word(block, 14);
    std::memcpy(&o.caustic_radius, &w, 4);
    w = word(block, 15);
    std::memcpy(&o.importon_accuracy, &w, 4);
    w = word(block, 16);
    std::memcpy(&o.finalgather_scale, &w, 4);
}

void fillFromOptions(miIrrad_options &o, const miOptions *opt)
{
    o.size = static_cast<int>(sizeof(miIrrad_options));
    o.finalgather_rays = opt->finalgather_rays;
    o.finalgather_maxradius = opt->finalgather_maxradius;
    o.finalgather_minradius = opt->finalgather_minradius;
    o.finalgather_view = opt->finalgather_view;
    o.finalgather_filter = opt->finalgather_filter;
    o.pad[0] = 0;
    o.pad[1] = 0;
    o.globillum_accuracy = opt->globillum_accuracy;
    o.globillum_radius = opt->globillum_radius;
    o.caustic_accuracy = opt->caustic_accuracy;
    o.caustic_radius = opt->caustic_radius;
    o.importon_accuracy = 0;
    o.finalgather_scale = -1.0f;
    o.reserved44 = 0;
    o.reserved48 = 0;
}

} // namespace

extern "C" DRUX_API void get_derivs(miState *state, miVector *du, miVector *dv, int space, int index)
{
    if (!state || !du || !dv)
        return;

    /* 1: the bump basis of the requested texture space (object space). */
    int bumps = 0;
    if (mi_query(miQ_NUM_BUMPS, state, 0, &bumps) && bumps != 0 && state->bump_x_list &&
        state->bump_y_list) {
        const int i = (index > 0 && index < bumps) ? index : 0;
        const miVector x = state->bump_x_list[i];
        const miVector y = state->bump_y_list[i];
        if (!negligible(x) && !negligible(y)) {
            if (space == DRUX_SPACE_INTERNAL || space == DRUX_SPACE_CAMERA) {
                mi_vector_from_object(state, du, &x);
                mi_vector_from_object(state, dv, &y);
                if (space == DRUX_SPACE_CAMERA) {
                    const miVector a = *du, b = *dv;
                    mi_vector_to_camera(state, du, &a);
                    mi_vector_to_camera(state, dv, &b);
                }
            } else {
                *du = x;
                *dv = y;
            }
            return;
        }
    }

    /* 2: the renderer's surface derivatives (internal space). */
    int derivs = 0;
    if (mi_query(miQ_DERIVS, state, 0, &derivs) && derivs != 0 && state->derivs) {
        const miVector x = state->derivs[0];
        const miVector y = state->derivs[1];
        if (!negligible(x) && !negligible(y)) {
            if (space == DRUX_SPACE_CAMERA) {
                mi_vector_to_camera(state, du, &x);
                mi_vector_to_camera(state, dv, &y);
            } else if (space == DRUX_SPACE_OBJECT) {
                mi_vector_to_object(state, du, &x);
                mi_vector_to_object(state, dv, &y);
            } else {
                *du = x;
                *dv = y;
            }
            return;
        }
    }

    /* 3: the camera's x and y axes. */
    const miVector x = drux::vec(1.0f, 0.0f, 0.0f);
    const miVector y = drux::vec(0.0f, 1.0f, 0.0f);
    if (space == DRUX_SPACE_INTERNAL || space == DRUX_SPACE_OBJECT) {
        mi_vector_from_camera(state, du, &x);
        mi_vector_from_camera(state, dv, &y);
        if (space == DRUX_SPACE_OBJECT) {
            const miVector a = *du, b = *dv;
            mi_vector_to_object(state, du, &a);
            mi_vector_to_object(state, dv, &b);
        }
    } else {
        *du = x;
        *dv = y;
    }
}

extern "C" DRUX_API void compute_irradiance(miColor *result, miColor *irradiance_tint,
                                            const miColor *color, const miColor *transparency,
                                            miColor *irradiance, miState *state, float diffuse,
                                            float gain)
{
    if (!result)
        return;
    *result = BLACK;
    if (!state || !color || !irradiance_tint)
        return;

    BaseShaderState *bss = drux::baseShaderState(state);
    const miColor tint = *drux::eval(state, irradiance_tint);
    const miColor k{(diffuse * color->r) * tint.r, (diffuse * color->g) * tint.g,
                    (diffuse * color->b) * tint.b, 0.0f};
    if (k.r < KELU_EPS && k.g < KELU_EPS && k.b < KELU_EPS)
        return;

    miColor e = BLACK;
    if (drux::isConnected(state, irradiance)) {
        /* A connected input replaces the renderer's lookup altogether. */
        const miColor *c = static_cast<const miColor *>(mi_phen_eval(state, irradiance));
        if (c)
            e = *c;
    } else {
        /* The cut-off needs the host's record: without it, no indirect light. */
        if (!bss)
            return;
        const miColor savedWeight = bss->pathWeight;
        const float tr = transparency ? transparency->r : 0.0f;
        const float tg = transparency ? transparency->g : 0.0f;
        const float tb = transparency ? transparency->b : 0.0f;
        bss->pathWeight.r = ((1.0f - tr) * k.r) * savedWeight.r;
        bss->pathWeight.g = ((1.0f - tg) * k.g) * savedWeight.g;
        bss->pathWeight.b = ((1.0f - tb) * k.b) * savedWeight.b;
        if (gain > 1.0f) {
            bss->pathWeight.r *= gain;
            bss->pathWeight.g *= gain;
            bss->pathWeight.b *= gain;
        }
        const float m = drux::maxRGB(bss->pathWeight);
        if (m < bss->minContribution) {
            bss->pathWeight = savedWeight;
            return;
        }

        /* Irradiance settings of the object, if its user data carries them. */
        miIrrad_options opts;
        std::memset(&opts, 0, sizeof opts);
        bool haveOpts = false;
        if (state->instance != 0) {
            miTag tag = 0;
            const void *block = get_userdata(KELU_MAGIC, miSCENE_OBJECT, state->instance, &tag, nullptr);
            if (block) {
                /* A block carries settings only when its recorded size
                   covers every word read (0 to 16); a shorter one, or one
                   whose size is not recorded, carries none. */
                const int size = parameterSize(block);
                const bool fits = size >= 4 * kSettingsWords;
                if (fits && word(block, 5) == 1u) {
                    fillFromBlock(opts, block);
                    haveOpts = true;
                }
                mi_db_unpin(tag);
            }
        }

        const miOptions *opt = state->options;
        miIrrad_options *pass = haveOpts ? &opts : nullptr;
        if (opt->finalgather) {
            const float minC = bss->minContribution;
            const float full = bss->fullSampleContribution;
            bool scaledToNothing = false;
            if (full > m) {
                /* Fewer final-gather rays for less important paths: the count
                   falls linearly to 0 at the cut-off. */
                if (!haveOpts) {
                    fillFromOptions(opts, opt);
                    haveOpts = true;
                    pass = &opts;
                }
                const int given = opts.finalgather_rays;
                opts.finalgather_rays = static_cast<int>(
                    static_cast<float>(given) * ((m - minC) / (full - minC)));
                scaledToNothing = given > 0 && opts.finalgather_rays == 0;
            }
            if (scaledToNothing) {
                /* The path is barely above the cut-off: its rays truncate to
                   none, so there is nothing to gather. */
                bss->pathWeight = savedWeight;
                return;
            }
            /* A count of 0 or below given by the options or the object's
               settings still goes to the renderer, which decides what such a
               gather means; 1/rays being undefined there, the path weight is
               then left undivided. */
            const int rays = haveOpts ? opts.finalgather_rays : opt->finalgather_rays;
            if (rays > 0) {
                const float invRays = 1.0f / static_cast<float>(rays);
                bss->pathWeight.r *= invRays;
                bss->pathWeight.g *= invRays;
                bss->pathWeight.b *= invRays;
            }
        }

        mi_compute_avg_radiance(&e, state, 'f', pass);
        bss->pathWeight = savedWeight;
    }

    result->r = k.r * e.r;
    result->g = k.g * e.g;
    result->b = k.b * e.b;
}
