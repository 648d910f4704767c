/*
 * Memory: allocations accounted per source file (tag), the event log, and
 * the block allocators.
 */
#include "runtime_internal.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace mirt {
using namespace rt;

namespace {

struct TagStats {
    std::string name;
    std::atomic<int64_t> live{0};
};

struct MemoryBook {
    std::mutex mu; /* tag table and event log */
    std::unordered_map<std::string, TagStats *> tags;
    std::vector<MemEvent> events;
    std::atomic<uint64_t> allocations{0};
};

MemoryBook &memory_book()
{
    static MemoryBook *book = new MemoryBook;
    return *book;
}

/* Cap on the event log so that long benchmarks do not grow it without bound. */
constexpr size_t kMaxEvents = size_t(1) << 20;

TagStats *tag_stats_locked(MemoryBook &book, const char *file)
{
    std::string key = file ? file : "(null)";
    auto it = book.tags.find(key);
    if (it != book.tags.end())
        return it->second;
    TagStats *t = new TagStats;
    t->name = key;
    book.tags.emplace(key, t);
    return t;
}

void record_event_locked(MemoryBook &book, const char *file, int line, bool release, int64_t bytes)
{
    if (book.events.size() < kMaxEvents)
        book.events.push_back(MemEvent{file ? file : "(null)", line, release, bytes});
}

constexpr uint64_t kLiveMagic = 0x4D454D4C49564521ull;  /* allocation alive */
constexpr uint64_t kDeadMagic = 0x4D454D4445414421ull;  /* released */

struct alignas(16) AllocHeader {
    uint64_t magic;
    uint64_t size;
    TagStats *tag;
    uint64_t pad;
};
static_assert(sizeof(AllocHeader) == 32, "allocation header keeps 16-byte alignment");

} // namespace

int64_t mem_live_bytes(const std::string &file)
{
    MemoryBook &book = memory_book();
    std::lock_guard<std::mutex> lk(book.mu);
    auto it = book.tags.find(file);
    return it == book.tags.end() ? 0 : it->second->live.load();
}

int64_t mem_live_bytes_total()
{
    MemoryBook &book = memory_book();
    std::lock_guard<std::mutex> lk(book.mu);
    int64_t sum = 0;
    for (auto &kv : book.tags)
        sum += kv.second->live.load();
    return sum;
}

uint64_t mem_allocation_count()
{
    return memory_book().allocations.load();
}

std::vector<MemEvent> mem_events() { return locked_copy(memory_book(), &MemoryBook::events); }

void mem_clear_events() { locked_clear(memory_book(), &MemoryBook::events); }

} // namespace mirt

using namespace mirt;

extern "C" {

void *mi_mem_int_allocate(const char *file, int line, size_t size)
{
    MemoryBook &book = memory_book();
    AllocHeader *h = size <= SIZE_MAX - sizeof(AllocHeader)
                         ? static_cast<AllocHeader *>(std::calloc(1, sizeof(AllocHeader) + size))
                         : nullptr;
    if (!h) {
        mi_fatal("mi_mem_int_allocate: out of memory for %zu bytes (%s:%d)", size, file ? file : "?", line);
    }
    TagStats *t;
    {
        std::lock_guard<std::mutex> lk(book.mu);
        t = tag_stats_locked(book, file);
        record_event_locked(book, file, line, false, static_cast<int64_t>(size));
    }
    h->magic = kLiveMagic;
    h->size = size;
    h->tag = t;
    t->live.fetch_add(static_cast<int64_t>(size));
    book.allocations.fetch_add(1);
    return h + 1;
}

void mi_mem_int_release(const char *file, int line, void *mem)
{
    if (!mem)
        return;
    AllocHeader *h = static_cast<AllocHeader *>(mem) - 1;
    if (h->magic != kLiveMagic) {
        error("mi_mem_int_release: %p was not allocated by mi_mem_int_allocate or was released "
              "before (%s:%d)",
              mem, file ? file : "?", line);
        return;
    }
    MemoryBook &book = memory_book();
    {
        std::lock_guard<std::mutex> lk(book.mu);
        record_event_locked(book, file, line, true, static_cast<int64_t>(h->size));
    }
    h->tag->live.fetch_sub(static_cast<int64_t>(h->size));
    h->magic = kDeadMagic;
    std::free(h);
}

} // extern "C"

/* ---- block allocators */

struct miMemblkRec {
    uint64_t magic;
    size_t elem_size;   /* as asked: the bytes accounted per element */
    size_t stride;      /* element spacing inside chunks (16-byte aligned) */
    mirt::TagStats *tag;
    std::mutex lock;    /* one pool may be shared between threads */
    void *free_list = nullptr;
    std::vector<void *> chunks;
    size_t next_chunk_elems = 32;
    size_t live = 0;
};

namespace {
constexpr uint64_t kBlkMagic = 0x424C4B414C4C4F43ull;

bool blk_ok(miMemblk *blk, const char *who)
{
    if (!blk || blk->magic != kBlkMagic) {
        mirt::log_message(mirt::Level::Error, std::string(who) + ": not a block allocator");
        return false;
    }
    return true;
}

void *blk_take(miMemblk *blk)
{
    void *p;
    {
        std::lock_guard<std::mutex> lk(blk->lock);
        if (!blk->free_list) {
            size_t n = blk->next_chunk_elems;
            char *chunk = static_cast<char *>(std::malloc(n * blk->stride));
            if (!chunk)
                throw std::bad_alloc();
            blk->chunks.push_back(chunk);
            if (blk->next_chunk_elems < 4096)
                blk->next_chunk_elems *= 2;
            /* thread the new elements onto the free list, lowest address first */
            for (size_t i = n; i-- > 0;) {
                void *e = chunk + i * blk->stride;
                *static_cast<void **>(e) = blk->free_list;
                blk->free_list = e;
            }
        }
        p = blk->free_list;
        blk->free_list = *static_cast<void **>(p);
        ++blk->live;
    }
    blk->tag->live.fetch_add(static_cast<int64_t>(blk->elem_size), std::memory_order_relaxed);
    mirt::memory_book().allocations.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void blk_give(miMemblk *blk, void *mem)
{
    {
        std::lock_guard<std::mutex> lk(blk->lock);
        *static_cast<void **>(mem) = blk->free_list;
        blk->free_list = mem;
        --blk->live;
    }
    blk->tag->live.fetch_sub(static_cast<int64_t>(blk->elem_size), std::memory_order_relaxed);
}
} // namespace

extern "C" {

miMemblk *mi_mem_int_blkcreate(const char *file, int line, int size)
{
    if (size <= 0) {
        error("mi_mem_int_blkcreate: element size %d (%s:%d)", size, file ? file : "?", line);
        return nullptr;
    }
    MemoryBook &book = memory_book();
    miMemblk *blk = new miMemblk;
    blk->magic = kBlkMagic;
    blk->elem_size = static_cast<size_t>(size);
    blk->stride = (std::max(static_cast<size_t>(size), sizeof(void *)) + 15) & ~size_t(15);
    {
        std::lock_guard<std::mutex> lk(book.mu);
        blk->tag = tag_stats_locked(book, file);
        record_event_locked(book, file, line, false, size);
    }
    return blk;
}

void *mi_mem_blkallocate(miMemblk *blk)
{
    if (!blk_ok(blk, "mi_mem_blkallocate"))
        return nullptr;
    void *p = blk_take(blk);
    std::memset(p, 0, blk->elem_size);
    return p;
}

void *mi_mem_blkfallocate(miMemblk *blk)
{
    if (!blk_ok(blk, "mi_mem_blkfallocate"))
        return nullptr;
    return blk_take(blk);
}

void mi_mem_blkrelease(miMemblk *blk, void *mem)
{
    if (!mem || !blk_ok(blk, "mi_mem_blkrelease"))
        return;
    blk_give(blk, mem);
}

void mi_mem_blkfrelease(miMemblk *blk, void *mem)
{
    if (!mem || !blk_ok(blk, "mi_mem_blkfrelease"))
        return;
    blk_give(blk, mem);
}

void mi_mem_blkdelete(miMemblk *blk)
{
    if (!blk)
        return;
    if (!blk_ok(blk, "mi_mem_blkdelete"))
        return;
    blk->tag->live.fetch_sub(static_cast<int64_t>(blk->live * blk->elem_size));
    for (void *c : blk->chunks)
        std::free(c);
    blk->magic = 0;
    delete blk;
}

void mi_flush_cache(miState *)
{
    /* Parameter evaluations are not cached between calls: nothing to drop. */
}

} // extern "C"
