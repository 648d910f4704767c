/*
 * Motion time sampler: how many times a shader evaluates itself over the
 * shutter interval, and the time step between evaluations.
 */
#include "druxInternal.h"

extern "C" DRUX_API void tmsampler_init(TmSampler *sampler, miState *state, int motion)
{
    sampler->index = 0;
    sampler->count = 1;
    sampler->step = 0.0f;

    if (!motion)
        return;
    if (drux::queryFlag(miQ_PRECOMPUTE_PASS, state))
        return;
    const miOptions *opt = state->options;
    const float open = opt->shutter_delay, close = opt->shutter;
    if (!(close > open))
        return;
    int byRenderer = 1; /* taken as 1 when the query does not write it */
    if (!mi_query(miQ_MOTION_BY_RENDERER, state, 0, &byRenderer) || byRenderer != 0)
        return;
    float m = std::fmin(opt->time_contrast.r, std::fmin(opt->time_contrast.g, opt->time_contrast.b));
    if (!(m > 0.0f))
        return;

    miUint count;
    if (m >= 1.0f)
        count = 1;
    else if (m >= 0.0099999998f)
        count = static_cast<miUint>(1.0f / m + KELU_EPS);
    else
        count = 100;
    sampler->count = count;
    sampler->step = (close - open) / static_cast<float>(count);
}

extern "C" DRUX_API void tmsampler_next(TmSampler *sampler, miState *state)
{
    const miOptions *opt = state->options;
    state->time += sampler->step;
    if (state->time > opt->shutter)
        state->time -= (opt->shutter - opt->shutter_delay);
    sampler->index += 1;
}

extern "C" DRUX_API miBoolean tmsampler_isDone(const TmSampler *sampler)
{
    return sampler->index >= sampler->count;
}
