/*
 * Shader call tracing for replaying one pixel sample: watch() swaps a shader
 * record's function for a recording trampoline that notes each call (its
 * label, nesting depth, return value and colour result) while a trace is
 * running, then calls the shader.  One tracer at a time (the trampolines are
 * process-wide); meant for one-thread replays, not for renders.  The library
 * calls the shaders make while traced appear nested under them, by name.
 */
#ifndef DRUXHOST_SHADER_TRACE_H
#define DRUXHOST_SHADER_TRACE_H

#include "builtin_shaders.h"
#include "shader.h"

#include <string>
#include <vector>

namespace druxhost {

class ShaderTracer {
public:
    ShaderTracer();
    ~ShaderTracer();
    ShaderTracer(const ShaderTracer &) = delete;
    ShaderTracer &operator=(const ShaderTracer &) = delete;

    /* Records calls of the shader record `fn` under `label` (up to 256
       shaders; more are called untraced); a record watched already takes
       the new label. */
    void watch(miTag fn, const std::string &label);
    /* Records the library calls the shaders of a library report through
       its hook (null: that library reports none). */
    void hookCalls(std::atomic<CallTraceFn> *hook);
    /* Appends one line per traced call to `*lines` until stop(). */
    void start(std::vector<std::string> *lines);
    void stop();
};

} // namespace druxhost

#endif
