/*
 * User-data lookup, per-thread scratch allocators and scratch stacks, and the
 * camera origin.
 */
#include "druxInternal.h"

#include <atomic>

namespace {

const char *const kFile = "SDK/druxKeluState";

/* One block allocator per (thread, element size). */
struct TlaNode {
    int thread;
    int size;
    miMemblk *allocator;
    TlaNode *next;
};

/* Nodes are only added at the front, under the caller's lock, and only
   clr_tla_list removes them.  Lookups walk the list without the lock, so the
   head is published with release order once a node is complete. */
std::atomic<TlaNode *> tla_list{nullptr};

inline miUint byteSwap(miUint v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

} // namespace

extern "C" DRUX_API void *get_userdata(int magic, int type, miTag tag, miTag *block_tag, int *swapped)
{
    miTag head = tag;
    if (type != miSCENE_USERDATA) {
        int dbType = 0;
        void *item = mi_db_access_type(&dbType, tag);
        if (!item)
            return nullptr;
        miTag used = tag;
        if (dbType != type) {
            if (dbType != miSCENE_INSTANCE) {
                mi_db_unpin(tag);
                return nullptr;
            }
            /* An instance: look at what it instances. */
            miTag itemTag = static_cast<miInstance *>(item)->item;
            mi_db_unpin(tag);
            item = mi_db_access_type(&dbType, itemTag);
            if (!item)
                return nullptr;
            used = itemTag;
            if (dbType != type) {
                mi_db_unpin(itemTag);
                return nullptr;
            }
        }
        /* Only objects carry a user-data chain. */
        if (dbType != miSCENE_OBJECT) {
            mi_db_unpin(used);
            return nullptr;
        }
        head = static_cast<miObject *>(item)->userdata;
        mi_db_unpin(used);
    }

    /* The chain is written by another program, so it is not trusted:
       - a block whose parameter area is shorter than a word holds no magic
         and never matches (its magic would lie past the block);
       - a chain that runs back into itself is broken like any other: the
         walk detects the loop (Brent's method: compare with a mark that moves
         ahead at every power of two steps, no memory needed) and returns null
         once every block of the loop has been looked at. */
    const miUint want = static_cast<miUint>(magic);
    miTag mark = head;
    unsigned power = 1, steps = 0;
    for (miTag cur = head; cur != 0;) {
        int dbType = 0;
        void *item = mi_db_access_type(&dbType, cur);
        if (!item)
            return nullptr;
        if (dbType != miSCENE_USERDATA) {
            mi_db_unpin(cur);
            return nullptr;
        }
        miUserdata *ud = static_cast<miUserdata *>(item);
        int isSwapped = -1;
        if (ud->parameter_size >= static_cast<int>(sizeof(miUint))) {
            miUint got;
            __builtin_memcpy(&got, ud->parameters, sizeof got);
            if (got == want)
                isSwapped = 0;
            else if (swapped && got == byteSwap(want))
                isSwapped = 1;
        }
        if (isSwapped >= 0) {
            if (block_tag)
                *block_tag = cur;
            if (swapped)
                *swapped = isSwapped;
            return ud->parameters; /* stays pinned: the caller unpins the block */
        }
        miTag next = ud->next_data;
        mi_db_unpin(cur);
        cur = next;
        if (cur == mark)
            return nullptr; /* a loop without the magic */
        if (++steps == power) {
            mark = cur;
            power <<= 1;
            steps = 0;
        }
    }
    return nullptr;
}

extern "C" DRUX_API miMemblk *get_tla(miLock lock, int thread, int size)
{
    for (TlaNode *n = tla_list.load(std::memory_order_acquire); n; n = n->next)
        if (n->thread == thread && n->size == size)
            return n->allocator;

    TlaNode *node = static_cast<TlaNode *>(mi_mem_int_allocate(kFile, __LINE__, sizeof(TlaNode)));
    node->thread = thread;
    node->size = size;
    node->allocator = mi_mem_int_blkcreate(kFile, __LINE__, size);
    mi_lock(lock);
    node->next = tla_list.load(std::memory_order_relaxed);
    tla_list.store(node, std::memory_order_release);
    mi_unlock(lock);
    return node->allocator;
}

extern "C" DRUX_API void clr_tla_list(miLock lock)
{
    mi_lock(lock);
    TlaNode *n = tla_list.load(std::memory_order_acquire);
    while (n) {
        TlaNode *next = n->next;
        mi_mem_blkdelete(n->allocator);
        mi_mem_int_release(kFile, __LINE__, n);
        n = next;
    }
    tla_list.store(nullptr, std::memory_order_release);
    mi_unlock(lock);
}

extern "C" DRUX_API miMemblk *stack_create(miState *state, ScratchStack *stack, int size)
{
    stack->top = nullptr;
    stack->count = 0;
    stack->allocator = get_tla(state->global_lock, state->thread, size);
    return stack->allocator;
}

extern "C" DRUX_API void *stack_push(ScratchStack *stack)
{
    void **element = static_cast<void **>(mi_mem_blkfallocate(stack->allocator));
    *element = stack->top;
    stack->top = element;
    stack->count += 1;
    return element;
}

extern "C" DRUX_API void stack_pop(ScratchStack *stack)
{
    if (!stack->top)
        return;
    void **element = static_cast<void **>(stack->top);
    void *below = *element;
    mi_mem_blkfrelease(stack->allocator, element);
    stack->count -= 1;
    stack->top = below;
}

extern "C" DRUX_API void origin_from_camera(miState *state, miVector *origin)
{
    miInstance *cam = static_cast<miInstance *>(mi_db_access(state->camera_inst));
    if (!cam)
        return;
    const miScalar *row = &cam->local_to_global[12];
    float x = row[0], y = row[1], z = row[2], w = row[3];
    if (w != 1.0f && w != 0.0f) {
        x /= w;
        y /= w;
        z /= w;
    }
    origin->x = x;
    origin->y = y;
    origin->z = z;
    mi_db_unpin(state->camera_inst);
}
