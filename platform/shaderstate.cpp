/*
 * Shader-state stores: the keyed values every state of one eye state shares
 * (mi_shaderstate_get / mi_shaderstate_set), kept in a KeyTable; the frames
 * the states live in, and the child states made for traces.
 */
#include "runtime_internal.h"

#include <cstring>
#include <new>

namespace mirt {

using namespace rt;

namespace {

/* Child frames of states that do not belong to an eye state (hand-made states). */
struct OrphanFrames {
    std::mutex mu;
    std::vector<StateFrame *> frames;
    std::unordered_map<const miState *, StateFrame *> children;
};

OrphanFrames &orphan_frames()
{
    static OrphanFrames *o = new OrphanFrames;
    return *o;
}

} // namespace

namespace rt {

void init_frame_lists(StateFrame *f)
{
    f->state.tex_list = f->tex;
    f->state.bump_x_list = f->bump_x;
    f->state.bump_y_list = f->bump_y;
    f->state.derivs = f->derivs;
}


StateFrame *new_frame_pair(std::vector<StateFrame *> &owned)
{
    StateFrame *f = new StateFrame();
    StateFrame *s = new StateFrame();
    init_frame_lists(s);
    f->spare_frame = s;
    owned.push_back(f);
    owned.push_back(s);
    return f;
}

void free_store(miShaderStateStore *store)
{
    for (StateFrame *f : store->frames)
        delete f;
    delete store;
}

void free_orphan_frames()
{
    OrphanFrames &o = orphan_frames();
    std::lock_guard<std::mutex> lk(o.mu);
    for (StateFrame *f : o.frames)
        delete f;
    o.frames.clear();
    o.children.clear();
}

} // namespace rt

miState *child_state(miState *parent)
{
    if (!parent)
        return nullptr;
    StateFrame *frame = nullptr;
    miShaderStateStore *store = parent->shaderstate;
    if (store) {
        if (store->last_parent == parent) {
            frame = store->last_child;
        } else {
            auto it = store->children.find(parent);
            if (it != store->children.end()) {
                frame = it->second;
            } else {
                frame = new_frame_pair(store->frames);
                store->children.emplace(parent, frame);
            }
            store->last_parent = parent;
            store->last_child = frame;
        }
    } else {
        OrphanFrames &o = orphan_frames();
        std::lock_guard<std::mutex> lk(o.mu);
        auto it = o.children.find(parent);
        if (it != o.children.end()) {
            frame = it->second;
        } else {
            frame = new_frame_pair(o.frames);
            o.children.emplace(parent, frame);
        }
    }
    frame->made_for = parent;
    miState *child = &frame->state;
    std::memcpy(child, parent, sizeof(miState));
    child->parent = parent;
    child->child = nullptr;
    parent->child = child;
    init_frame_lists(frame);
    child->spare = &frame->spare_frame->state;
    return child;
}


KeyTable::~KeyTable()
{
    for (Slot &s : slots_)
        if (s.state == 1)
            ::operator delete(s.data);
}

uint64_t KeyTable::hash(const char *key)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(key); *p; ++p)
        h = (h ^ *p) * 0x100000001b3ull;
    return h;
}

unsigned KeyTable::pointer_slot(const char *key)
{
    const uint64_t p = reinterpret_cast<uintptr_t>(key);
    return static_cast<unsigned>(((p >> 3) * 0x9E3779B97F4A7C15ull) >> 59) & (kPointerSlots - 1);
}

void KeyTable::remember(const char *key, int slot) const
{
    if (slot >= 0xFFFF)
        return;
    by_pointer_[pointer_slot(key)].store((static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)) << 16) |
                                             static_cast<uint64_t>(slot + 1),
                                         std::memory_order_relaxed);
}

/* The slot's key is `key`.  Callers pass the same key strings every time,
   so most lookups are settled by the pointer table; the text comparison
   only confirms it. */
bool KeyTable::same_key(const Slot &s, const char *key)
{
    return std::strcmp(s.key.c_str(), key) == 0;
}

/* Slot holding `key` (hash h), or -1. */
int KeyTable::find(const char *key, uint64_t h) const
{
    if (slots_.empty())
        return -1;
    const size_t mask = slots_.size() - 1;
    for (size_t i = h & mask, n = 0; n < slots_.size(); i = (i + 1) & mask, ++n) {
        const Slot &s = slots_[i];
        if (s.state == 0)
            return -1;
        if (s.state == 1 && s.hash == h && same_key(s, key))
            return static_cast<int>(i);
    }
    return -1;
}

bool KeyTable::get(const char *key, void *&data, int &size) const
{
    const uint64_t e = by_pointer_[pointer_slot(key)].load(std::memory_order_relaxed);
    int slot = -1;
    if (e && (e >> 16) == (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)) & 0xFFFFFFFFFFFFull)) {
        const int s = static_cast<int>(e & 0xFFFF) - 1;
        if (s < static_cast<int>(slots_.size()) && slots_[size_t(s)].state == 1 && same_key(slots_[size_t(s)], key))
            slot = s;
    }
    if (slot < 0) {
        slot = find(key, hash(key));
        if (slot < 0)
            return false;
        remember(key, slot);
    }
    data = slots_[size_t(slot)].data;
    size = slots_[size_t(slot)].size;
    return true;
}

void KeyTable::grow()
{
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.resize(old.empty() ? 8 : old.size() * 2);
    const size_t mask = slots_.size() - 1;
    for (Slot &s : old) {
        if (s.state != 1)
            continue;
        size_t i = s.hash & mask;
        while (slots_[i].state != 0)
            i = (i + 1) & mask;
        slots_[i] = std::move(s);
    }
    removed_ = 0;
    for (auto &p : by_pointer_)
        p.store(0, std::memory_order_relaxed);
}

void KeyTable::set(const char *key, const void *value, int size)
{
    /* copy first: `value` may point into the value it replaces */
    void *data = ::operator new(size > 0 ? static_cast<size_t>(size) : 1);
    if (size > 0)
        std::memcpy(data, value, static_cast<size_t>(size));
    const uint64_t h = hash(key);
    int slot = find(key, h);
    if (slot >= 0) {
        Slot &s = slots_[size_t(slot)];
        ::operator delete(s.data);
        s.data = data;
        s.size = size;
        return;
    }
    if (2 * (used_ + removed_ + 1) > static_cast<int>(slots_.size()))
        grow();
    const size_t mask = slots_.size() - 1;
    size_t i = h & mask;
    while (slots_[i].state == 1)
        i = (i + 1) & mask;
    Slot &s = slots_[i];
    if (s.state == 2)
        --removed_;
    s.hash = h;
    s.key = key;
    s.data = data;
    s.size = size;
    s.state = 1;
    ++used_;
    remember(key, static_cast<int>(i));
}

bool KeyTable::remove(const char *key)
{
    const int slot = find(key, hash(key));
    if (slot < 0)
        return false;
    Slot &s = slots_[size_t(slot)];
    ::operator delete(s.data);
    s.data = nullptr;
    s.size = 0;
    s.key.clear();
    s.state = 2;
    --used_;
    ++removed_;
    return true;
}

} // namespace mirt

using namespace mirt;

extern "C" {

void *mi_shaderstate_get(miState *state, const char *key, int *size)
{
    if (!state || !state->shaderstate || !key)
        return nullptr;
    void *data;
    int n;
    if (!state->shaderstate->values.get(key, data, n))
        return nullptr;
    if (size)
        *size = n;
    return data;
}

/* The lifetime argument is accepted and ignored: every entry lives until it is
   removed or its eye state ends. */
miBoolean mi_shaderstate_set(miState *state, const char *key, const void *value, int size, int)
{
    if (!state || !state->shaderstate || !key) {
        error("mi_shaderstate_set: no state or key");
        return miFALSE;
    }
    if (!value && size == 0) {
        state->shaderstate->values.remove(key);
        return miTRUE;
    }
    if (size < 0 || !value) {
        error("mi_shaderstate_set: key \"%s\": %s", key, size < 0 ? "negative size" : "null value");
        return miFALSE;
    }
    state->shaderstate->values.set(key, value, size);
    return miTRUE;
}

} // extern "C"
