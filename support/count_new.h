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

__attribute__((noinline)) void *operator new(std::size_t n)
{
    if (void *p = countnew::counted(n))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new[](std::size_t n)
{
    if (void *p = countnew::counted(n))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new(std::size_t n, const std::nothrow_t &) noexcept { return countnew::counted(n); }
__attribute__((noinline)) void *operator new[](std::size_t n, const std::nothrow_t &) noexcept { return countnew::counted(n); }
__attribute__((noinline)) void operator delete(void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }

#endif
