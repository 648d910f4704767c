/*
 * Counts every C++ heap allocation of the program: replaces the non-aligned
 * operator new/delete family (out of line, so that no inlined malloc meets a
 * free).  Include in exactly one source file of a test or benchmark program
 * and read heapAllocationCount().
 */
#ifndef DRUX_COUNT_NEW_H
#define DRUX_COUNT_NEW_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace countnew {
inline std::atomic<uint64_t> &counter()
{
    static std::atomic<uint64_t> n{0};
    return n;
}
__attribute__((noinline)) inline void *counted(std::size_t n) noexcept
{
    counter().fetch_add(1, std::memory_order_relaxed);
    return std::malloc(n ? n : 1);
}
} // namespace countnew

inline uint64_t heapAllocationCount() { return countnew::counter().load(); }

#ifdef DRUX_COUNT_NEW_BY_CALLER
#include <dlfcn.h>
/* Allocations whose caller lies in one watched shared object (any address
   inside it names it): countnew::watch(&someFunction), then
   watchedAllocationCount(). */
namespace countnew {
inline std::atomic<const void *> &watchedBase()
{
    static std::atomic<const void *> base{nullptr};
    return base;
}
inline std::atomic<uint64_t> &watchedCounter()
{
    static std::atomic<uint64_t> n{0};
    return n;
}
inline void watch(const void *inside)
{
    Dl_info info{};
    watchedBase() = dladdr(inside, &info) ? info.dli_fbase : nullptr;
}
__attribute__((noinline)) inline void noteCaller(const void *caller) noexcept
{
    const void *base = watchedBase().load(std::memory_order_relaxed);
    Dl_info info{};
    if (base && dladdr(caller, &info) && info.dli_fbase == base)
        watchedCounter().fetch_add(1, std::memory_order_relaxed);
}
} // namespace countnew
inline uint64_t watchedAllocationCount() { return countnew::watchedCounter().load(); }
#define DRUX_NOTE_CALLER() countnew::noteCaller(__builtin_return_address(0))
#else
#define DRUX_NOTE_CALLER() ((void)0)
#endif

__attribute__((noinline)) void *operator new(std::size_t n)
{
    DRUX_NOTE_CALLER();
    if (void *p = countnew::counted(n))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new[](std::size_t n)
{
    DRUX_NOTE_CALLER();
    if (void *p = countnew::counted(n))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new(std::size_t n, const std::nothrow_t &) noexcept
{
    DRUX_NOTE_CALLER();
    return countnew::counted(n);
}
__attribute__((noinline)) void *operator new[](std::size_t n, const std::nothrow_t &) noexcept
{
    DRUX_NOTE_CALLER();
    return countnew::counted(n);
}
__attribute__((noinline)) void operator delete(void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }

#endif
