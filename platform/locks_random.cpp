/*
 * Locks (checked for misuse) and the process-wide random number stream.
 */
#include "runtime_internal.h"

#include <cstdint>

namespace mirt {
using namespace rt;

namespace {

struct Random {
    std::atomic<uint64_t> state{0x853C49E6748FEA9Bull};
    std::atomic<uint64_t> draws{0};
};

Random &random_gen()
{
    static Random r;
    return r;
}

constexpr uint64_t kPcgMul = 6364136223846793005ull;
constexpr uint64_t kPcgInc = 1442695040888963407ull;

uint32_t pcg_output(uint64_t old)
{
    uint32_t xorshifted = static_cast<uint32_t>(((old >> 18u) ^ old) >> 27u);
    uint32_t rot = static_cast<uint32_t>(old >> 59u);
    return (xorshifted >> rot) | (xorshifted << ((32u - rot) & 31u));
}

} // namespace

namespace rt {

miLockRec &global_lock_rec()
{
    static miLockRec *rec = new miLockRec;
    return *rec;
}

} // namespace rt

uint64_t random_draw_count()
{
    return random_gen().draws.load();
}

} // namespace mirt

using namespace mirt;

extern "C" {

void mi_init_lock(miLock *lock)
{
    if (lock)
        *lock = new miLockRec;
}

namespace {
/* An address unique to the calling thread, for lock ownership. */
const void *thisThreadId()
{
    static thread_local char id;
    return &id;
}
} // namespace

void mi_delete_lock(miLock *lock)
{
    if (lock && *lock) {
        if ((*lock)->owner.load(std::memory_order_relaxed))
            error("mi_delete_lock: the lock is still held");
        delete *lock;
        *lock = nullptr;
    }
}

void mi_lock(miLock lock)
{
    if (!lock || lock->magic != miLockRec::kMagic) {
        error("mi_lock: %s", lock ? "not a lock (deleted, or a pointer to a lock variable?)" : "null lock");
        return;
    }
    if (lock->owner.load(std::memory_order_relaxed) == thisThreadId()) {
        error("mi_lock: the calling thread already holds this lock (not unlocked on some path?)");
        return;
    }
    lock->m.lock();
    lock->owner.store(thisThreadId(), std::memory_order_relaxed);
}

void mi_unlock(miLock lock)
{
    if (!lock || lock->magic != miLockRec::kMagic) {
        error("mi_unlock: %s", lock ? "not a lock (deleted, or a pointer to a lock variable?)" : "null lock");
        return;
    }
    lock->owner.store(nullptr, std::memory_order_relaxed);
    lock->m.unlock();
}

/* ---- random numbers: PCG32 (XSH-RR) over a 64-bit LCG, one process-wide stream */

void mi_srandom(long seed)
{
    Random &r = random_gen();
    uint64_t s = 0;
    s = s * kPcgMul + kPcgInc;
    s += static_cast<uint64_t>(seed);
    s = s * kPcgMul + kPcgInc;
    r.state.store(s);
}

miScalar mi_random(void)
{
    Random &r = random_gen();
    uint64_t old = r.state.load(std::memory_order_relaxed);
    while (!r.state.compare_exchange_weak(old, old * kPcgMul + kPcgInc, std::memory_order_relaxed)) {
    }
    r.draws.fetch_add(1, std::memory_order_relaxed);
    return static_cast<miScalar>(pcg_output(old) >> 8) * (1.0f / 16777216.0f);
}

} // extern "C"
