/*
 * Internals of the runtime shared between its source files (one per
 * subsystem: database, memory, messages, locks_random, shaderstate,
 * shadercall, framebuffer, sampling, query, context; trace, lights,
 * geometry and meshscene).
 * Not seen by shader libraries or tests.
 *
 * States: every state the runtime makes lives in a StateFrame (the 352-byte
 * state followed by the storage its list pointers refer to).  Frames are owned
 * by the eye state they descend from, through its shader-state store (which
 * every state of that eye state carries in miState::shaderstate), and are freed
 * with it at end_state.  Library code copies states itself, so ownership is
 * tracked in lists here, never by following pointers found in states.
 */
#ifndef MI_RUNTIME_INTERNAL_H
#define MI_RUNTIME_INTERNAL_H

#include "runtime.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

/* Sanitizer builds (GCC defines __SANITIZE_*__, Clang answers __has_feature). */
#if defined(__SANITIZE_ADDRESS__)
#define MIRT_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MIRT_ASAN 1
#endif
#endif
#ifndef MIRT_ASAN
#define MIRT_ASAN 0
#endif
#if defined(__SANITIZE_THREAD__)
#define MIRT_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MIRT_TSAN 1
#endif
#endif
#ifndef MIRT_TSAN
#define MIRT_TSAN 0
#endif

/* miLock points at one of these; mi_lock/mi_unlock check the magic so that a
   pointer that is not a lock is reported instead of corrupting memory. */
struct miLockRec {
    static constexpr uint64_t kMagic = 0x4C4F434B52454321ull;
    uint64_t magic = kMagic;
    std::mutex m;
    /* The holding thread (an address unique to it), null while free: a
       thread locking a lock it already holds, or a lock deleted while held,
       is reported instead of hanging. */
    std::atomic<const void *> owner{nullptr};
    ~miLockRec() { magic = 0; }
};

/* miState::ctx points at the Context's handle. */
struct miRenderContext {
    mirt::Context *context;
    mirt::Context::Impl *impl;
};

namespace mirt {

/* Storage sizes of a runtime-made state's lists. */
constexpr int kFrameTexSpaces = 64;  /* tex_list */
constexpr int kFrameBumps = 64;      /* bump_x_list, bump_y_list */
constexpr int kFrameDerivs = 2;      /* derivs */

struct StateFrame {
    miState state;                     /* first: a StateFrame* is its miState* */
    miVector tex[kFrameTexSpaces];
    miVector bump_x[kFrameBumps];
    miVector bump_y[kFrameBumps];
    miVector derivs[kFrameDerivs];
    StateFrame *spare_frame = nullptr; /* frame that state.spare points at (same owner) */
    const miState *made_for = nullptr; /* parent address this child frame serves (null: eye/spare) */
};

} // namespace mirt

namespace mirt {

/* The keyed values of one shader-state store: open addressing over a small
   power-of-two table, keys hashed once (64-bit FNV-1a).  Shaders pass the
   same key pointers every time, so a direct-mapped index from key pointer to
   slot answers most lookups with one pointer compare (confirmed by comparing
   the text, since the caller's buffer may hold another key by now); other
   lookups hash the key.  Lookups neither allocate nor lock; set() may grow
   the table.  A table belongs to one eye state and so to one thread at a
   time; the pointer index is written with relaxed atomics only so that a
   lookup stays a plain read of everything else. */
class KeyTable {
public:
    KeyTable() = default;
    KeyTable(const KeyTable &) = delete;
    KeyTable &operator=(const KeyTable &) = delete;
    ~KeyTable();

    /* The value stored under `key`: its data (null for size 0) and size;
       false when there is none. */
    bool get(const char *key, void *&data, int &size) const;
    /* Store a copy of `size` bytes (the old value is released after the
       copy, so `value` may point into it). */
    void set(const char *key, const void *value, int size);
    /* Remove the value; false when there was none. */
    bool remove(const char *key);
    int count() const { return used_; }
    int capacity() const { return static_cast<int>(slots_.size()); }

    static uint64_t hash(const char *key);

private:
    struct Slot {
        uint64_t hash = 0;
        std::string key;
        void *data = nullptr; /* operator new'd, max-aligned */
        int size = 0;
        unsigned char state = 0; /* 0 empty, 1 used, 2 removed */
    };
    static constexpr int kPointerSlots = 32;

    int find(const char *key, uint64_t h) const;
    static bool same_key(const Slot &s, const char *key);
    void grow();
    static unsigned pointer_slot(const char *key);
    void remember(const char *key, int slot) const;

    std::vector<Slot> slots_;
    int used_ = 0, removed_ = 0;
    /* key pointer << 16 | (slot + 1); 0 when empty */
    mutable std::atomic<uint64_t> by_pointer_[kPointerSlots] = {};
};

} // namespace mirt

/* The shader-state store of one eye state, shared by all its child states. */
struct miShaderStateStore {
    mirt::KeyTable values;
    mirt::Context::Impl *ctx = nullptr;
    miState *root = nullptr;                          /* the eye state */
    std::vector<mirt::StateFrame *> frames;            /* every frame owned, root included */
    std::unordered_map<const miState *, mirt::StateFrame *> children; /* parent -> child frame */
    /* the last parent asked for a child and its frame: a shading state asks
       again for every light sample and ray */
    const miState *last_parent = nullptr;
    mirt::StateFrame *last_child = nullptr;
    /* With sample frame buffers: the eye sample's value of every frame
       buffer (index - 1), what mi_fb_put / mi_fb_get reach. */
    std::vector<miColor> sample_fb;
};

namespace mirt {

/* A copy of the log `book.*log` shared between threads, taken under the
   book's lock `mu`. */
template <class B, class T> std::vector<T> locked_copy(B &book, std::vector<T> B::*log)
{
    std::lock_guard<std::mutex> lk(book.mu);
    return book.*log;
}

/* Empties the log `book.*log` under the book's lock. */
template <class B, class T> void locked_clear(B &book, std::vector<T> B::*log)
{
    std::lock_guard<std::mutex> lk(book.mu);
    (book.*log).clear();
}

struct Context::Impl {
    Context *self = nullptr;
    miRenderContext handle{};

    int width = 8, height = 8;

    /* database items made (and deleted) by the Context */
    miTag options_tag = 0, camera_tag = 0, camera_inst_tag = 0, fbset_tag = 0, stropts_tag = 0;
    miOptions *options = nullptr;      /* data of options_tag */
    miCamera *camera = nullptr;        /* data of camera_tag */
    miInstance *camera_inst = nullptr; /* data of camera_inst_tag */
    /* further items deleted with the Context (e.g. light records made by trace) */
    std::vector<miTag> owned_items;

    /* frame buffers: index i (from 1) is fb_names[i-1] / fb_pixels[i-1] */
    std::vector<std::string> fb_names;
    std::vector<std::vector<miColor>> fb_pixels;
    std::atomic<uint64_t> fb_lookups{0};
    /* frame buffers held per eye state for the sample in progress, no
       image (use_sample_framebuffers) */
    bool sample_fbs = false;

    /* string options (name -> int value; also readable as bool/float/text) */
    struct StringOption {
        std::string name;
        int value;
        std::string text;
    };
    std::vector<StringOption> string_options;

    /* answers of queries 142, 158, 161 (and any other code set by a test):
       codes below kDirectQueries in a table indexed by code (shaders ask
       some of them at every sample), others in a map */
    struct QueryAnswer {
        int value = 0;
        bool fail = false;
        bool set = false;
    };
    static constexpr int kDirectQueries = 256;
    QueryAnswer direct_answers[kDirectQueries];
    std::map<int, QueryAnswer> query_answers;
    QueryAnswer &answer(int code)
    {
        QueryAnswer &a = code >= 0 && code < kDirectQueries ? direct_answers[code] : query_answers[code];
        a.set = true;
        return a;
    }
    const QueryAnswer *find_answer(int code) const
    {
        if (code >= 0 && code < kDirectQueries)
            return direct_answers[code].set ? &direct_answers[code] : nullptr;
        auto it = query_answers.find(code);
        return it != query_answers.end() ? &it->second : nullptr;
    }

    std::vector<miTag> state_shaders;

    /* ---- used by trace */
    const Scene *scene = nullptr;
    miTag environment = 0;
    std::vector<miTag> lights;
    std::vector<miIrrad_options> irradiance_calls;
    bool record_irradiance = true;
    mutable std::mutex irradiance_mutex;
    miLock cache_lock = nullptr;  /* query 52 */
    std::shared_ptr<void> trace_private; /* free for trace's own bookkeeping */

    /* live eye states */
    std::mutex states_mutex;
    std::vector<miShaderStateStore *> live_states;
};

/* A child state for a trace from `parent` (see the header comment):
   the parent's 352 bytes copied, parent/child linked, lists pointing at the
   frame's own storage, spare pointing at a spare frame. */
MI_API miState *child_state(miState *parent);

/* out = inverse of the 4x4 matrix m; false (out untouched) when singular. */
MI_API bool invert_matrix(const miScalar *m, miScalar *out);

/* Call a shader (state shaders get `arg` as their operation record) with
   state->shader switched to it for the call.  miFALSE for an unknown tag. */
MI_API miBoolean call_function(miTag fn, void *result, miState *state, void *arg = nullptr);

/* Query codes 4, 94, 95, 116, 137, 138: defined in trace.cpp. */
bool trace_query(int code, miState *state, miTag tag, void *result);

/* The Context internals of a state; null for a state not made by a Context. */
MI_API Context::Impl *impl_of(const miState *state);

/* Append a message to the log (and echo it when asked). */
MI_API void log_message(Level level, const std::string &text);

/* Shader record without pinning (null for unknown tags or other item types). */
MI_API miFunction *function_record(miTag tag);

/* The data of a database item of `type` holding at least `min_size` bytes,
   without pinning, in one lookup; null otherwise. */
MI_API void *typed_record(miTag tag, int type, size_t min_size);

} // namespace mirt

/* Shared between the runtime's own sources only: hidden from the library's
   dynamic symbol table. */
#pragma GCC visibility push(hidden)
namespace mirt {
namespace rt {

/* ---- messages */

/* Log an error message (printf format). */
void error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* ---- symbols of a shared object's file (elf_symbols.cpp) */

/* A function symbol whose name is one of the wanted names, or a C++ name
   made from it (_Z<length><name>...). */
struct FileSymbol {
    std::string wanted; /* the name asked for */
    std::string name;   /* as the file has it */
    bool mangled = false;
    bool exported = false; /* in the dynamic table with default visibility */
};
std::vector<FileSymbol> file_symbols(const std::string &path, const std::vector<std::string> &names);

/* ---- database */

struct Item {
    int type = 0;
    size_t size = 0;
    void *data = nullptr;
    std::atomic<int> pins{0};
    std::atomic<uint64_t> accesses{0};
};

/* The item of `tag` or null; takes no lock. */
Item *find_locked(miTag tag);

/* The instance record of `tag` (no pin), or null. */
inline const miInstance *instance_record(miTag tag)
{
    return static_cast<const miInstance *>(typed_record(tag, miSCENE_INSTANCE, sizeof(miInstance)));
}

/* The light record of a light instance, or null. */
inline const miLight *light_record(const miInstance *inst)
{
    return inst ? static_cast<const miLight *>(typed_record(inst->item, miSCENE_LIGHT, sizeof(miLight))) : nullptr;
}

/* Set an instance's local-to-global matrix and its inverse; a singular
   matrix logs `singular_message` as an error and leaves the inverse the
   identity (context.cpp). */
void set_instance_transform(miInstance *inst, const miMatrix l2g, const char *singular_message);

/* ---- tracing */

/* Call a colour-returning shader into `out` through a buffer large enough
   for the shader's declared result (trace.cpp). */
miBoolean call_color(miTag fn, miColor *out, miState *state);

/* ---- locks and random numbers */

/* The lock every state's global_lock points at. */
miLockRec &global_lock_rec();

/* A 64-bit mix (splitmix64 finaliser) for decorrelation hashes. */
inline uint64_t mix64(uint64_t z)
{
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

/* ---- render contexts */

/* Contexts alive (reset keeps the database while any is). */
extern std::atomic<int> live_contexts;

/* ---- state frames */

/* Point a frame's state lists at the frame's own storage. */
void init_frame_lists(StateFrame *f);

/* A new frame with a spare frame, both appended to `owned`. */
StateFrame *new_frame_pair(std::vector<StateFrame *> &owned);

/* Free a shader-state store and every frame it owns. */
void free_store(miShaderStateStore *store);

/* Free the child frames of states made outside a Context. */
void free_orphan_frames();

} // namespace rt
} // namespace mirt
#pragma GCC visibility pop

#endif /* MI_RUNTIME_INTERNAL_H */
