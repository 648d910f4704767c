/*
 * Shaders the runtime-core tests call: a texture shader that reports what it
 * was called with, and a state shader that logs every operation.
 */
#ifndef DRUX_CORE_TEST_SHADERS_H
#define DRUX_CORE_TEST_SHADERS_H

#include "DruxShaderSDK.h"

#include <atomic>
#include <vector>

namespace coretest {

struct ParamBlock {
    miColor a;   // 0
    miColor b;   // 16
    float k;     // 32
};

inline std::atomic<int> g_sourceCalls{0};

// Result: (point.x, point.y, own tag, type of the current shader from query 140).
inline miBoolean source_shader(void *result, miState *state, void *params)
{
    g_sourceCalls.fetch_add(1);
    int type = -1;
    mi_query(miQ_FUNC_TYPE, state, 0, &type);
    const float scale = *static_cast<float *>(params);
    auto *c = static_cast<miColor *>(result);
    *c = miColor{state->point.x * scale, state->point.y, static_cast<float>(state->shader->tag),
                 static_cast<float>(type)};
    return miTRUE;
}

struct OpLog {
    std::vector<int> ops;
    std::vector<int> returns;
    std::vector<int> types;
    std::vector<miState *> states;
};
inline OpLog g_ops;

inline miBoolean logging_state_shader(void *, miState *state, void *, miShader_state_arg *arg)
{
    int type = -1;
    mi_query(miQ_FUNC_TYPE, state, 0, &type);
    g_ops.ops.push_back(arg->op);
    g_ops.returns.push_back(arg->shader_return);
    g_ops.types.push_back(type);
    g_ops.states.push_back(state);
    return arg->op != miSHADERSTATE_SAMPLE_EXIT; // op 3 reports failure
}

inline miShader_fn as_shader(miStateShader_fn f)
{
    return reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)()>(f));
}

} // namespace coretest

#endif
