/*
 * The scene database: items by tag with pin and access counts, and the
 * runtime reset that empties it.
 */
#include "runtime_internal.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace mirt {
using namespace rt;

namespace {

/* The item table: a fixed directory of chunks that are never moved, so that
   lookups (every access, pin and shader call) take no lock.  Writers (create,
   delete) serialise on `mu`.  Tags are never reused. */
constexpr unsigned kChunkBits = 12;
constexpr unsigned kChunkSize = 1u << kChunkBits;
constexpr unsigned kMaxChunks = 1u << 16; /* 2^28 tags */

struct Database {
    std::mutex mu;
    std::atomic<std::atomic<Item *> *> chunks[kMaxChunks] = {};
    std::atomic<miTag> next{1}; /* next tag to hand out */
};

Database &database()
{
    static Database *db = new Database;
    return *db;
}

} // namespace

namespace rt {

/* Lock-free lookup. */
Item *find_locked(miTag tag)
{
    Database &db = database();
    const unsigned c = tag >> kChunkBits;
    if (tag == 0 || c >= kMaxChunks)
        return nullptr;
    std::atomic<Item *> *chunk = db.chunks[c].load(std::memory_order_acquire);
    return chunk ? chunk[tag & (kChunkSize - 1)].load(std::memory_order_acquire) : nullptr;
}

} // namespace rt

namespace {

/* Writers hold db.mu. */
void store_locked(miTag tag, Item *item)
{
    Database &db = database();
    const unsigned c = tag >> kChunkBits;
    std::atomic<Item *> *chunk = db.chunks[c].load(std::memory_order_relaxed);
    if (!chunk) {
        chunk = new std::atomic<Item *>[kChunkSize];
        for (unsigned i = 0; i < kChunkSize; ++i)
            chunk[i].store(nullptr, std::memory_order_relaxed);
        db.chunks[c].store(chunk, std::memory_order_release);
    }
    chunk[tag & (kChunkSize - 1)].store(item, std::memory_order_release);
}

/* Every live item, in tag order. */
template <class F> void for_each_item(F &&f)
{
    Database &db = database();
    const miTag end = db.next.load(std::memory_order_acquire);
    for (miTag t = 1; t < end; ++t)
        if (Item *it = find_locked(t))
            f(t, it);
}

void free_item(miTag tag, Item *item)
{
    int pins = item->pins.load();
    if (pins > 0)
        error("database item %u (type %d) deleted while pinned %d time(s)", tag, item->type, pins);
    std::free(item->data);
    delete item;
}

} // namespace

miFunction *function_record(miTag tag)
{
    Item *it = find_locked(tag);
    if (!it || it->type != miSCENE_FUNCTION || it->size < sizeof(miFunction))
        return nullptr;
    return static_cast<miFunction *>(it->data);
}

void *typed_record(miTag tag, int type, size_t min_size)
{
    Item *it = find_locked(tag);
    if (!it || it->type != type || it->size < min_size)
        return nullptr;
    return it->data;
}

miTag db_create(int type, size_t size)
{
    Item *item = new Item;
    item->type = type;
    item->size = size;
    item->data = std::calloc(1, size ? size : 1);
    if (!item->data) {
        delete item;
        throw std::bad_alloc();
    }
    Database &db = database();
    std::lock_guard<std::mutex> lk(db.mu);
    const miTag tag = db.next.load(std::memory_order_relaxed);
    if ((tag >> kChunkBits) >= kMaxChunks) {
        std::free(item->data);
        delete item;
        throw std::length_error("database: out of tags");
    }
    store_locked(tag, item);
    db.next.store(tag + 1, std::memory_order_release);
    return tag;
}

void *db_data(miTag tag)
{
    Item *it = find_locked(tag);
    return it ? it->data : nullptr;
}

size_t db_size(miTag tag)
{
    Item *it = find_locked(tag);
    return it ? it->size : 0;
}

void *db_resize(miTag tag, size_t size)
{
    Database &db = database();
    std::lock_guard<std::mutex> lk(db.mu);
    Item *it = find_locked(tag);
    if (!it)
        return nullptr;
    void *data = std::calloc(1, size ? size : 1);
    if (!data)
        throw std::bad_alloc();
    std::memcpy(data, it->data, std::min(size, it->size));
    std::free(it->data);
    it->data = data;
    it->size = size;
    return data;
}

void db_delete(miTag tag)
{
    Item *item;
    {
        Database &db = database();
        std::lock_guard<std::mutex> lk(db.mu);
        item = find_locked(tag);
        if (!item)
            return;
        store_locked(tag, nullptr);
    }
    free_item(tag, item);
}

miTag db_create_string(const char *text)
{
    if (!text)
        text = "";
    size_t n = std::strlen(text) + 1;
    miTag tag = db_create(miSCENE_STRING, n);
    std::memcpy(db_data(tag), text, n);
    return tag;
}

miTag db_create_data(const void *data, size_t size)
{
    miTag tag = db_create(miSCENE_DATA, size);
    if (data && size)
        std::memcpy(db_data(tag), data, size);
    return tag;
}

miTag db_create_userdata(const void *params, size_t size, miTag next)
{
    size_t total = std::max(offsetof(miUserdata, parameters) + size, sizeof(miUserdata));
    miTag tag = db_create(miSCENE_USERDATA, total);
    miUserdata *u = static_cast<miUserdata *>(db_data(tag));
    u->next_data = next;
    u->parameter_size = static_cast<int>(size);
    if (params && size)
        std::memcpy(u->parameters, params, size);
    return tag;
}

int db_pin_count(miTag tag)
{
    Item *it = find_locked(tag);
    return it ? it->pins.load() : 0;
}

long db_total_pins()
{
    long sum = 0;
    for_each_item([&](miTag, Item *it) { sum += it->pins.load(); });
    return sum;
}

std::vector<miTag> db_pinned()
{
    std::vector<miTag> out;
    for_each_item([&](miTag t, Item *it) {
        if (it->pins.load() > 0)
            out.push_back(t);
    });
    return out;
}

uint64_t db_access_count(miTag tag)
{
    Item *it = find_locked(tag);
    return it ? it->accesses.load() : 0;
}

void reset()
{
    if (live_contexts.load() != 0) {
        error("reset: %d render context(s) still alive; the database is kept", live_contexts.load());
        return;
    }
    std::vector<std::pair<miTag, Item *>> items;
    {
        Database &db = database();
        std::lock_guard<std::mutex> lk(db.mu);
        for_each_item([&](miTag t, Item *it) { items.emplace_back(t, it); });
        for (auto &p : items)
            store_locked(p.first, nullptr);
    }
    for (auto &p : items) {
        std::free(p.second->data);
        delete p.second;
    }
    free_orphan_frames();
    clear_messages();
    mem_clear_events();
}

} // namespace mirt

using namespace mirt;

extern "C" {

void *mi_db_access(miTag tag)
{
    Item *it = find_locked(tag);
    if (!it)
        return nullptr;
    it->pins.fetch_add(1, std::memory_order_relaxed);
    it->accesses.fetch_add(1, std::memory_order_relaxed);
    return it->data;
}

void *mi_db_access_type(int *type, miTag tag)
{
    Item *it = find_locked(tag);
    if (!it) {
        if (type)
            *type = miSCENE_NONE;
        return nullptr;
    }
    if (type)
        *type = it->type;
    it->pins.fetch_add(1, std::memory_order_relaxed);
    it->accesses.fetch_add(1, std::memory_order_relaxed);
    return it->data;
}

int mi_db_type(miTag tag)
{
    Item *it = find_locked(tag);
    return it ? it->type : miSCENE_NONE;
}

void mi_db_unpin(miTag tag)
{
    bool unknown = false, unpinned = false;
    {
            Item *it = find_locked(tag);
        if (!it) {
            unknown = true;
        } else {
            int p = it->pins.load(std::memory_order_relaxed);
            while (p > 0 && !it->pins.compare_exchange_weak(p, p - 1, std::memory_order_relaxed)) {
            }
            unpinned = p <= 0;
        }
    }
    if (unknown)
        error("mi_db_unpin: unknown database item %u", tag);
    else if (unpinned)
        error("mi_db_unpin: database item %u is not pinned", tag);
}

} // extern "C"
