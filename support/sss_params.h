/*
 * A scattering material's parameter block, in compute_scatter's argument
 * order, and the call that hands every field to compute_scatter.
 */
#ifndef DRUX_SSS_PARAMS_H
#define DRUX_SSS_PARAMS_H

#include "DruxShaderSDK.h"

struct SssParams {
    miColor scale;
    float radius;
    int samples;
    int falloff;
    int maxDepth;
    int cacheSize;
    float diffuse;
    miColor color;
    float translucence, focus, wrap;
    miVector normalOverride;
    miColor irradiance;
    miColor irradianceTint;
};

inline void scatterWith(miColor *result, SssParams *p, miState *state, ScatterCache **head)
{
    compute_scatter(result, &p->scale, &p->radius, &p->samples, &p->falloff, &p->maxDepth, &p->cacheSize,
                    &p->diffuse, &p->color, &p->translucence, &p->focus, &p->wrap, &p->normalOverride,
                    &p->irradiance, &p->irradianceTint, state, head);
}

#endif
