/*
 * Shader calls: shader records in the database, parameter connections and
 * their evaluation (mi_phen_eval), calls with state->shader switched.
 */
#include "runtime_internal.h"

#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace mirt {
using namespace rt;

namespace {

constexpr int kEvalRing = 16;
constexpr size_t kEvalBytes = 256;

struct EvalRing {
    alignas(16) unsigned char buf[kEvalRing][kEvalBytes];
    unsigned next = 0;
};

thread_local EvalRing eval_ring;

/* Restores state->shader on every path (shaders may throw FatalError). */
struct ShaderSwitch {
    miState *state;
    miFunction *saved;
    ShaderSwitch(miState *s, miFunction *f) : state(s), saved(s ? s->shader : nullptr)
    {
        if (s)
            s->shader = f;
    }
    ~ShaderSwitch()
    {
        if (state)
            state->shader = saved;
    }
};

/* Reports a fault of one shader's parameter use once: keyed by the shader,
   the place (a parameter offset, or the calling function) and the kind. */
bool first_report(const miFunction *f, uintptr_t where, int kind)
{
    static std::mutex mu;
    static std::set<std::pair<std::pair<miTag, uintptr_t>, int>> seen;
    std::lock_guard<std::mutex> lk(mu);
    return seen.insert({{f->tag, where}, kind}).second;
}

/* The exported function that contains `code`, for messages: its name, or
   the shared object's file when the function is not exported. */
std::string function_at(const void *code)
{
    Dl_info info{};
    if (!code || !dladdr(code, &info))
        return "an unknown function";
    if (info.dli_sname)
        return info.dli_sname;
    return std::string("a function of ") + (info.dli_fname ? info.dli_fname : "an unknown object");
}

bool inside_block(const miFunction *f, const void *param)
{
    const char *p = static_cast<const char *>(param), *b = static_cast<const char *>(f->params);
    return p >= b && p + sizeof(miTag) <= b + f->param_size;
}

/* `caller`: the code that asked, named in the message about a pointer that
   is no parameter of the current shader. */
void *phen_eval(miState *state, void *param, const char *who, const void *caller)
{
    if (!state || !param)
        return param;
    miFunction *cur = state->shader;
    if (!cur) {
        error("%s: the state has no current shader", who);
        return param;
    }
    if (!inside_block(cur, param)) {
        /* Not a parameter: a value of the caller's own (a local, a
           constant).  It is read in place; its "connection word" would lie
           outside the block. */
        const std::string fn = function_at(caller);
        if (first_report(cur, reinterpret_cast<uintptr_t>(caller), 0))
            error("%s: %s passed shader %s a pointer outside its parameter block; it is read as a plain value. "
                  "An argument that may be connected must point into the shader's parameter block "
                  "(&params->NAME)",
                  who, fn.c_str(), cur->name ? cur->name : "?");
        return param;
    }
    miTag word;
    std::memcpy(&word, static_cast<char *>(param) + cur->ghost_offs, sizeof word);
    if (word == 0 || word == miPARAM_UNCONNECTED)
        return param; /* not connected: the value in place */
    miFunction *src = function_record(word);
    if (!src || !src->fn) {
        const uintptr_t offset = static_cast<uintptr_t>(static_cast<char *>(param) - static_cast<char *>(cur->params));
        if (first_report(cur, offset, 1))
            error("%s: parameter at byte %zu of shader %s is connected to unknown shader %u; its own value is used",
                  who, static_cast<size_t>(offset), cur->name ? cur->name : "?", word);
        return param;
    }
    if (src->result_size < 0 || static_cast<size_t>(src->result_size) > kEvalBytes) {
        error("%s: result of shader %s is %d bytes, more than %zu", who, src->name ? src->name : "?",
              src->result_size, kEvalBytes);
        return param;
    }
    EvalRing &ring = eval_ring;
    unsigned char *out = ring.buf[ring.next];
    ring.next = (ring.next + 1) % kEvalRing;
    std::memset(out, 0, src->result_size > 0 ? static_cast<size_t>(src->result_size) : 16);
    ShaderSwitch sw(state, src);
    src->fn(out, state, src->params);
    return out;
}


} // namespace

miBoolean call_function(miTag fn, void *result, miState *state, void *arg)
{
    miFunction *f = function_record(fn);
    if (!f || !f->fn) {
        error("call of unknown shader %u", fn);
        return miFALSE;
    }
    ShaderSwitch sw(state, f);
    if (f->type == miSHADER_STATE)
        return reinterpret_cast<miStateShader_fn>(reinterpret_cast<void (*)()>(f->fn))(result, state, f->params,
                                                          static_cast<miShader_state_arg *>(arg));
    return f->fn(result, state, f->params);
}

miTag make_function(int type, miShader_fn fn, const void *params, int param_size, int result_size,
                    bool connectable, const char *name)
{
    if (param_size < 0)
        param_size = 0;
    const size_t ghost = (static_cast<size_t>(param_size) + 3) & ~size_t(3);
    const char *nm = name ? name : "";
    const size_t name_len = std::strlen(nm) + 1;
    /* record | parameter block | connection words | name.  Connection words
       exist even for unconnectable shaders (all 0), so a lookup never reads
       outside the item. */
    const size_t params_at = sizeof(miFunction);
    const size_t name_at = params_at + 2 * ghost;
    miTag tag = db_create(miSCENE_FUNCTION, name_at + name_len);
    char *base = static_cast<char *>(db_data(tag));
    miFunction *f = reinterpret_cast<miFunction *>(base);
    f->type = type;
    f->result_size = result_size;
    f->fn = fn;
    f->params = base + params_at;
    f->param_size = param_size;
    f->ghost_offs = static_cast<int>(ghost);
    f->has_connections = connectable ? 1 : 0;
    f->tag = tag;
    std::memcpy(base + name_at, nm, name_len);
    f->name = base + name_at;
    if (params && param_size)
        std::memcpy(f->params, params, static_cast<size_t>(param_size));
    return tag;
}

miFunction *function(miTag tag)
{
    return function_record(tag);
}

void connect(miTag fn, size_t param_offset, miTag source)
{
    miFunction *f = function_record(fn);
    if (!f) {
        error("connect: %u is not a shader", fn);
        return;
    }
    if (!f->has_connections) {
        error("connect: parameters of shader %s cannot be connected", f->name);
        return;
    }
    if (param_offset % 4 != 0 || param_offset + 4 > static_cast<size_t>(f->ghost_offs)) {
        error("connect: offset %zu is not a parameter word of shader %s", param_offset, f->name);
        return;
    }
    std::memcpy(static_cast<char *>(f->params) + param_offset + f->ghost_offs, &source, sizeof source);
}

miBoolean call_init(miState *state, miTag fn, InitFn init)
{
    miBoolean init_req = miTRUE;
    miFunction *f = function_record(fn);
    if (!f || !init) {
        error("call_init: %u is not a shader", fn);
        return miFALSE;
    }
    ShaderSwitch sw(state, f);
    init(state, nullptr, &init_req);
    return init_req;
}

} // namespace mirt

using namespace mirt;

extern "C" {

void *mi_phen_eval(miState *state, void *param)
{
    return phen_eval(state, param, "mi_phen_eval", __builtin_return_address(0));
}

/* Nothing is cached between evaluations, so re-evaluating on a changed state
   is the same call. */
void *mi_phen_call(miState *state, void *param)
{
    return phen_eval(state, param, "mi_phen_call", __builtin_return_address(0));
}

/* The value of a parameter of the current shader: the parameter itself
   unless it is connected, and then the connected shader's result. */
void *mi_eval(miState *state, void *param)
{
    const miFunction *f = state ? state->shader : nullptr;
    if (!param || !f || !f->has_connections)
        return param;
    return phen_eval(state, param, "mi_eval", __builtin_return_address(0));
}

} // extern "C"
