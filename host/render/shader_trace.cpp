#include "shader_trace.h"

#include "runtime.h"

#include <cstdio>
#include <array>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace druxhost {

namespace {

constexpr int kSlots = 256;

struct Slot {
    miShader_fn fn = nullptr;
    std::string label;
};

struct TraceState {
    Slot slots[kSlots];
    int used = 0;
    int depth = 0;
    std::vector<std::string> *lines = nullptr;
    std::atomic<CallTraceFn> *hook = nullptr;
    std::thread::id thread; /* the replaying thread */
};

std::mutex traceMutex; /* held by the one live tracer */
TraceState *active = nullptr;

miBoolean callTraced(int slot, void *result, miState *state, void *params)
{
    TraceState &t = *active;
    const Slot &s = t.slots[slot];
    if (!t.lines)
        return s.fn(result, state, params);
    const size_t at = t.lines->size();
    t.lines->push_back(std::string(size_t(2 * t.depth), ' ') + s.label);
    ++t.depth;
    const miBoolean ok = s.fn(result, state, params);
    --t.depth;
    char text[160];
    const miColor *c = static_cast<const miColor *>(result);
    std::snprintf(text, sizeof text, " -> %s (%.6g %.6g %.6g %.6g)", ok ? "true" : "false", double(c->r),
                  double(c->g), double(c->b), double(c->a));
    (*t.lines)[at] += text;
    return ok;
}

/* A library call reported by a traced shader library, on the replay's
   thread: its name when it starts (what runs under it nests one level
   deeper), null when it has returned. */
void recordCall(const char *name)
{
    TraceState *t = active;
    if (!t || !t->lines || std::this_thread::get_id() != t->thread)
        return;
    if (!name) {
        --t->depth;
        return;
    }
    t->lines->push_back(std::string(size_t(2 * t->depth), ' ') + name);
    ++t->depth;
}

template <int N> miBoolean trampoline(void *result, miState *state, void *params)
{
    return callTraced(N, result, state, params);
}

template <int... N> constexpr std::array<miShader_fn, sizeof...(N)> trampolines(std::integer_sequence<int, N...>)
{
    return {&trampoline<N>...};
}

const std::array<miShader_fn, kSlots> kTrampolines = trampolines(std::make_integer_sequence<int, kSlots>());

} // namespace

ShaderTracer::ShaderTracer()
{
    traceMutex.lock();
    active = new TraceState;
}

ShaderTracer::~ShaderTracer()
{
    delete active;
    active = nullptr;
    traceMutex.unlock();
}

void ShaderTracer::watch(miTag fn, const std::string &label)
{
    miFunction *f = static_cast<miFunction *>(mirt::db_data(fn));
    if (!f || !f->fn || active->used >= kSlots)
        return;
    for (int k = 0; k < active->used; ++k)
        if (f->fn == kTrampolines[size_t(k)]) {
            /* watched already (an instance used twice, or a scene shader
               instance that a material then names): the later, more
               specific label */
            active->slots[k].label = label;
            return;
        }
    Slot &s = active->slots[active->used];
    s.fn = f->fn;
    s.label = label;
    f->fn = kTrampolines[size_t(active->used++)];
}

void ShaderTracer::hookCalls(std::atomic<CallTraceFn> *hook) { active->hook = hook; }

void ShaderTracer::start(std::vector<std::string> *lines)
{
    active->lines = lines;
    active->depth = 0;
    active->thread = std::this_thread::get_id();
    if (active->hook)
        active->hook->store(&recordCall);
}

void ShaderTracer::stop()
{
    if (active->hook)
        active->hook->store(nullptr);
    active->lines = nullptr;
}

} // namespace druxhost
