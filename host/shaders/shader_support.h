/*
 * What the host shaders share: parameter evaluation through connections,
 * pass roles, the frame-buffer entries at the state's depth and the
 * frame-buffer info of the material call in progress (which the light and
 * shadow shaders under it reuse).
 */
#ifndef DRUXHOST_SHADER_SUPPORT_H
#define DRUXHOST_SHADER_SUPPORT_H

#include "DruxShaderSDK.h"
#include "builtin_shaders.h"
#include "pass_roles.h"

#include <algorithm>
#include <cstring>

namespace druxhost {
namespace shading {

/* The recorder of a traced replay (empty otherwise): called with the name
   of a library call before it runs and with null after it returns. */
inline std::atomic<CallTraceFn> callTrace{nullptr};

/* Names a library call in the trace of a replayed sample, nested under the
   shader making it, with the shaders the call runs nested under the call;
   nothing but a load and a branch each way when no trace runs.  A temporary
   of the call's full expression, so it ends when the call has returned. */
struct CallNote {
    CallTraceFn f;
    explicit CallNote(const char *name) : f(callTrace.load(std::memory_order_relaxed))
    {
        if (f)
            f(name);
    }
    ~CallNote()
    {
        if (f)
            f(nullptr);
    }
    CallNote(const CallNote &) = delete;
    CallNote &operator=(const CallNote &) = delete;
};

/* DRUX_CALL(fn)(args...) calls the library function fn and traces it. */
#define DRUX_CALL(fn) (::druxhost::shading::CallNote(#fn), fn)

/* A parameter's value, evaluated when it is connected to another shader
   (mi_eval; the typed mi_eval_* forms are the same call). */
template <class T> T param(miState *state, const T *p)
{
    return *static_cast<const T *>(mi_eval(state, const_cast<T *>(p)));
}

inline PassRole roleOf(const FrameBufferInfo &e) { return static_cast<PassRole>(e.hostData[0]); }

inline float clamp01(float v) { return v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v); }

/* The light blocked to transmission t: (1 - t) * shadowColor + t * light. */
inline miColor shadowed(const miColor &light, const miColor &shadowColor, const miColor &t)
{
    return miColor{(1.0f - t.r) * shadowColor.r + t.r * light.r, (1.0f - t.g) * shadowColor.g + t.g * light.g,
                   (1.0f - t.b) * shadowColor.b + t.b * light.b, 1.0f};
}

/* The pass entries of this state at the state's depth; none when the
   machinery is off or the depth has no slot. */
struct Entries {
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    int depth = 0;
};

/* The frame-buffer info of the material call in progress on this thread.
   The light and shadow shaders that run under it (from the light loop and
   the shadow rays it traces) share its shader-state store, and the entries
   do not change while it runs, so they take the material's info instead of
   asking the library again on every light sample and occluder.  Another
   store (or no material running) asks the library. */
struct FrameBufferInfoCall {
    const void *store = nullptr; /* null: no material call in progress */
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    BaseShaderState *bs = nullptr;
    /* The call lies under a final-gather ray: it gives the light gathered,
       nothing reads its passes, so it and everything under it keep none. */
    bool gathering = false;
    /* The light whose samples the call's light loop is taking (0: none),
       and whether the light shader has set up its contributions in this
       loop: only a set-up changes which entries a light reaches, and every
       sample of the loop is of the same light, so once is enough. */
    miTag loopLight = 0;
    bool loopSetUp = false;
};
inline thread_local FrameBufferInfoCall tlsMaterialInfo;

inline bool sameStore(const miState *state)
{
    return tlsMaterialInfo.store && state && static_cast<const void *>(state->shaderstate) == tlsMaterialInfo.store;
}

/* getFrameBufferInfo, answered from the running material call when it can. */
inline miUint frameBufferInfo(miState *state, PassTypeInfo **types, FrameBufferInfo **e)
{
    if (sameStore(state)) {
        *types = tlsMaterialInfo.types;
        *e = tlsMaterialInfo.e;
        return tlsMaterialInfo.n;
    }
    return DRUX_CALL(getFrameBufferInfo)(state, types, e);
}

/* setupLightContributions for a light shader: once per light loop of the
   running material, on every call elsewhere. */
inline void setUpLightContributions(miUint n, FrameBufferInfo *e, miState *state)
{
    if (sameStore(state) && tlsMaterialInfo.loopLight && tlsMaterialInfo.loopLight == state->light_instance) {
        if (tlsMaterialInfo.loopSetUp)
            return;
        tlsMaterialInfo.loopSetUp = true;
    }
    DRUX_CALL(setupLightContributions)(n, e, state);
}

/* Marks the light loop of one light in the running material call. */
struct LightLoopScope {
    miTag savedLight;
    bool savedSetUp;
    explicit LightLoopScope(miTag light) : savedLight(tlsMaterialInfo.loopLight), savedSetUp(tlsMaterialInfo.loopSetUp)
    {
        tlsMaterialInfo.loopLight = light;
        tlsMaterialInfo.loopSetUp = false;
    }
    ~LightLoopScope()
    {
        tlsMaterialInfo.loopLight = savedLight;
        tlsMaterialInfo.loopSetUp = savedSetUp;
    }
    LightLoopScope(const LightLoopScope &) = delete;
    LightLoopScope &operator=(const LightLoopScope &) = delete;
};

/* The host's per-thread record, answered the same way. */
inline BaseShaderState *baseState(miState *state)
{
    if (sameStore(state))
        return tlsMaterialInfo.bs;
    return static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));
}

/* Publishes a material call's info for the shaders under it; the previous
   one (an enclosing material of a reflected or refracted ray) comes back on
   scope exit. */
struct MaterialInfoScope {
    FrameBufferInfoCall saved;
    MaterialInfoScope(const miState *state, miUint n, PassTypeInfo *types, FrameBufferInfo *e, BaseShaderState *bs,
                      bool gathering = false)
        : saved(tlsMaterialInfo)
    {
        tlsMaterialInfo.store = state->shaderstate;
        tlsMaterialInfo.n = n;
        tlsMaterialInfo.types = types;
        tlsMaterialInfo.e = e;
        tlsMaterialInfo.bs = bs;
        tlsMaterialInfo.gathering = gathering;
    }
    ~MaterialInfoScope() { tlsMaterialInfo = saved; }
    MaterialInfoScope(const MaterialInfoScope &) = delete;
    MaterialInfoScope &operator=(const MaterialInfoScope &) = delete;
};

/* The entries at the state's depth from info already read (n, types, e). */
inline Entries entriesAtDepth(miState *state, miUint n, PassTypeInfo *types, FrameBufferInfo *e)
{
    Entries r;
    r.n = n;
    r.types = types;
    r.e = e;
    r.depth = state->reflection_level + state->refraction_level;
    const int limit = state->options ? state->options->trace_depth : 0;
    /* every entry has trace-depth limit + 2 slots (this renderer keeps the
       limit for the whole render) */
    if (r.n == 0 || r.depth < 0 || r.depth > limit + 1) {
        r.n = 0;
        r.types = nullptr;
        r.e = nullptr;
    }
    return r;
}

inline Entries entriesAtDepth(miState *state)
{
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = frameBufferInfo(state, &types, &e);
    return entriesAtDepth(state, n, types, e);
}

inline float lightFalloff(const miState *state, int quadratic)
{
    if (!quadratic)
        return 1.0f;
    const double d2 = state->dist * state->dist;
    return static_cast<float>(1.0 / std::max(d2, 1e-12));
}

} // namespace shading
} // namespace druxhost

#endif
