/*
 * Queries: mi_query and the answers a Context is told to give.
 */
#include "runtime_internal.h"

#include <cstring>

namespace mirt {
using namespace rt;

void Context::set_query_int(int code, int value)
{
    Impl::QueryAnswer &a = impl_->answer(code);
    a.value = value;
    a.fail = false;
}

void Context::fail_query(int code)
{
    impl_->answer(code).fail = true;
}

} // namespace mirt

using namespace mirt;

extern "C" {

miBoolean mi_query(int code, miState *state, miTag tag, void *result)
{
    if (!result)
        return miFALSE;
    Context::Impl *impl = impl_of(state);
    if (impl) {
        if (const Context::Impl::QueryAnswer *a = impl->find_answer(code)) {
            if (a->fail)
                return miFALSE;
            *static_cast<int *>(result) = a->value;
            return miTRUE;
        }
    }
    switch (code) {
    case miQ_DATA_PARAM: {
            Item *it = find_locked(tag);
        if (!it)
            return miFALSE;
        void *p;
        if (it->type == miSCENE_DATA)
            p = it->data;
        else if (it->type == miSCENE_USERDATA)
            p = static_cast<miUserdata *>(it->data)->parameters;
        else
            return miFALSE;
        std::memcpy(result, &p, sizeof p);
        return miTRUE;
    }
    case miQ_SHADER_CACHE_LOCK: {
        /* The result is a pointer to the lock variable (miLock*), so that
           callers write mi_lock(*lockp).  A state without a render context
           shares one process-wide lock. */
        static miLockRec shared_cache_lock_rec;
        static miLock shared_cache_lock = &shared_cache_lock_rec;
        miLock *l = impl ? &impl->cache_lock : &shared_cache_lock;
        std::memcpy(result, &l, sizeof l);
        return miTRUE;
    }
    case miQ_FUNC_TYPE:
        if (!state || !state->shader)
            return miFALSE;
        *static_cast<int *>(result) = state->shader->type;
        return miTRUE;
    case miQ_PRECOMPUTE_PASS:
        *static_cast<int *>(result) = 0;
        return miTRUE;
    case miQ_MOTION_BY_RENDERER:
    case miQ_FB_RECORDS:
        *static_cast<int *>(result) = 1;
        return miTRUE;
    case miQ_INST_GLOBAL_TO_LOCAL:
    case miQ_INST_BBOX_MIN:
    case miQ_INST_BBOX_MAX:
    case miQ_INST_GEOMETRY:
    case miQ_NUM_BUMPS:
    case miQ_DERIVS:
        return mirt::trace_query(code, state, tag, result) ? miTRUE : miFALSE;
    default:
        return miFALSE;
    }
}

} // extern "C"
