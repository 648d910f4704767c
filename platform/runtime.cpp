/*
 * The renderer runtime: database, memory accounting, locks, random numbers,
 * messages, shader state, shader calls and parameter connections, frame
 * buffers, quasi-random sampling, transforms, queries and the render Context
 * with its state life cycle.  Tracing lives in trace.cpp.
 */
#include "runtime_internal.h"
#include "vecmath.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <unordered_map>

namespace mirt {
namespace {

/* ================================================================ messages */

struct MessageLog {
    std::mutex mu;
    std::vector<Message> messages;
    std::atomic<bool> echo{false};
};

MessageLog *make_message_log()
{
    MessageLog *log = new MessageLog;
    /* MIRT_ECHO_MESSAGES=1 prints every message to stderr (debugging aid). */
    const char *env = std::getenv("MIRT_ECHO_MESSAGES");
    log->echo.store(env && *env && *env != '0');
    return log;
}

MessageLog &message_log()
{
    static MessageLog *log = make_message_log(); /* never destroyed: usable from static destructors */
    return *log;
}

const char *level_name(Level level)
{
    switch (level) {
    case Level::Fatal: return "fatal";
    case Level::Error: return "error";
    case Level::Warning: return "warning";
    case Level::Info: return "info";
    }
    return "?";
}

std::string vformat(const char *fmt, va_list ap)
{
    if (!fmt)
        return std::string();
    char buf[512];
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(buf, sizeof buf, fmt, copy);
    va_end(copy);
    if (n < 0)
        return std::string(fmt);
    if (static_cast<size_t>(n) < sizeof buf)
        return std::string(buf, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&out[0], out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

void error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    log_message(Level::Error, s);
}

/* ================================================================ database */

struct Item {
    int type = 0;
    size_t size = 0;
    void *data = nullptr;
    std::atomic<int> pins{0};
    std::atomic<uint64_t> accesses{0};
};

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

/* ================================================================ memory */

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

/* ================================================================ random */

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

/* A 64-bit mix (splitmix64 finaliser) for decorrelation hashes. */
uint64_t mix64(uint64_t z)
{
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

/* ================================================================ locks */

miLockRec &global_lock_rec()
{
    static miLockRec *rec = new miLockRec;
    return *rec;
}

/* ================================================================ contexts */

std::atomic<int> live_contexts{0};
std::atomic<int> outstanding_handles{0};

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

/* A context's impl from a frame-buffer-set or string-options item. */
Context::Impl *impl_from_item(miTag tag, int type)
{
    Item *it = find_locked(tag);
    if (!it || it->type != type || it->size < sizeof(Context::Impl *))
        return nullptr;
    Context::Impl *impl;
    std::memcpy(&impl, it->data, sizeof impl);
    return impl;
}

void set_point_for_camera(miInstance *inst, const miMatrix l2g);


void set_point_for_camera(miInstance *inst, const miMatrix l2g)
{
    std::memcpy(inst->local_to_global, l2g, sizeof(miMatrix));
    if (!invert_matrix(l2g, inst->global_to_local)) {
        error("camera transform is singular; the inverse is left as identity");
        for (int i = 0; i < 16; ++i)
            inst->global_to_local[i] = (i % 5 == 0) ? 1.0f : 0.0f;
    }
}

const miInstance *instance_record(miTag tag)
{
    Item *it = find_locked(tag);
    if (!it || it->type != miSCENE_INSTANCE || it->size < sizeof(miInstance))
        return nullptr;
    return static_cast<const miInstance *>(it->data);
}

/* ---- shader state store and frames */

void init_frame_lists(StateFrame *f)
{
    f->state.tex_list = f->tex;
    f->state.bump_x_list = f->bump_x;
    f->state.bump_y_list = f->bump_y;
    f->state.derivs = f->derivs;
}

/* A new frame with a spare frame, both appended to `owned`. */
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

/* ---- the shader interface */

class FramebufferImpl : public mi::shader::Framebuffer {
public:
    explicit FramebufferImpl(Context::Impl *impl) : impl_(impl) {}
    ~FramebufferImpl() override = default;

    bool get_index(const char *name, size_t &index) const override
    {
        impl_->fb_lookups.fetch_add(1, std::memory_order_relaxed);
        if (!name)
            return false;
        for (size_t i = 0; i < impl_->fb_names.size(); ++i)
            if (impl_->fb_names[i] == name) {
                index = i + 1;
                return true;
            }
        return false;
    }
    size_t count() const override { return impl_->fb_names.size(); }
    Context::Impl *impl() const { return impl_; }

private:
    Context::Impl *impl_;
};

class OptionsImpl : public mi::shader::Options {
public:
    explicit OptionsImpl(Context::Impl *impl) : impl_(impl) {}
    ~OptionsImpl() override = default;

    bool get(const char *name, int *value) const override
    {
        const auto *o = find(name);
        if (!o || !value)
            return false;
        *value = o->value;
        return true;
    }
    bool get(const char *name, bool *value) const override
    {
        const auto *o = find(name);
        if (!o || !value)
            return false;
        *value = o->value != 0;
        return true;
    }
    bool get(const char *name, float *value) const override
    {
        const auto *o = find(name);
        if (!o || !value)
            return false;
        *value = static_cast<float>(o->value);
        return true;
    }
    bool get(const char *name, const char **value) const override
    {
        const auto *o = find(name);
        if (!o || !value)
            return false;
        *value = o->text.c_str();
        return true;
    }
    void release() override
    {
        outstanding_handles.fetch_sub(1);
        delete this;
    }

private:
    const Context::Impl::StringOption *find(const char *name) const
    {
        if (!name)
            return nullptr;
        for (const auto &o : impl_->string_options)
            if (o.name == name)
                return &o;
        return nullptr;
    }
    Context::Impl *impl_;
};

class InterfaceImpl : public mi::shader::Interface {
public:
    ~InterfaceImpl() override = default;

    mi::shader::Framebuffer *accessFramebuffer(miTag buffertag) override
    {
        Context::Impl *impl = impl_from_item(buffertag, miSCENE_FBSET);
        if (!impl)
            return nullptr;
        outstanding_handles.fetch_add(1);
        return new FramebufferImpl(impl);
    }
    void releaseFramebuffer(mi::shader::Framebuffer *fb, miTag) override
    {
        if (!fb)
            return;
        outstanding_handles.fetch_sub(1);
        delete static_cast<FramebufferImpl *>(fb);
    }
    mi::shader::Options *getOptions(miTag string_options) override
    {
        Context::Impl *impl = impl_from_item(string_options, miSCENE_STRINGOPTS);
        if (!impl)
            return nullptr;
        outstanding_handles.fetch_add(1);
        return new OptionsImpl(impl);
    }
    void release() override
    {
        outstanding_handles.fetch_sub(1);
        delete this;
    }
};

/* ---- quasi-random sampling */

constexpr int kPrimeCount = 64;
const unsigned kPrimes[kPrimeCount] = {
    2,   3,   5,   7,   11,  13,  17,  19,  23,  29,  31,  37,  41,  43,  47,  53,
    59,  61,  67,  71,  73,  79,  83,  89,  97,  101, 103, 107, 109, 113, 127, 131,
    137, 139, 149, 151, 157, 163, 167, 173, 179, 181, 191, 193, 197, 199, 211, 223,
    227, 229, 233, 239, 241, 251, 257, 263, 269, 271, 277, 281, 283, 293, 307, 311};

/* ---- per-thread result buffers of mi_phen_eval */

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

void *phen_eval(miState *state, void *param, const char *who)
{
    if (!state || !param)
        return param;
    miFunction *cur = state->shader;
    if (!cur) {
        error("%s: the state has no current shader", who);
        return param;
    }
    miTag word;
    std::memcpy(&word, static_cast<char *>(param) + cur->ghost_offs, sizeof word);
    if (word == 0 || word == miPARAM_UNCONNECTED)
        return param; /* not connected: the value in place */
    miFunction *src = function_record(word);
    if (!src || !src->fn) {
        error("%s: parameter connected to unknown shader %u", who, word);
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

/* 4x4 inverse: exact adjugate for affine matrices, otherwise Gauss-Jordan
   with partial pivoting in double precision; false for a singular matrix. */
/* Inverse of an affine matrix (last column 0, 0, 0, 1). */
static bool invert_affine(const miScalar *m, miScalar *out)
{
    /* Rows 0-2 hold the linear part, row 3 the translation (row vectors).
       The adjugate keeps rotations and axis scalings exact: no round-off
       residue where the inverse has zeros. */
    const double a = m[0], b = m[1], c = m[2], d = m[4], e = m[5], f = m[6], g = m[8], h = m[9], i = m[10];
    const double A = e * i - f * h, B = -(d * i - f * g), C = d * h - e * g;
    const double det = a * A + b * B + c * C;
    if (std::fabs(det) < 1e-300)
        return false;
    const double inv[9] = {A / det, -(b * i - c * h) / det, (b * f - c * e) / det,
                           B / det, (a * i - c * g) / det,  -(a * f - c * d) / det,
                           C / det, -(a * h - b * g) / det, (a * e - b * d) / det};
    const double t[3] = {m[12], m[13], m[14]};
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k)
            out[r * 4 + k] = static_cast<miScalar>(inv[r * 3 + k]);
        out[r * 4 + 3] = 0.0f;
    }
    for (int k = 0; k < 3; ++k)
        out[12 + k] = static_cast<miScalar>(-(t[0] * inv[k] + t[1] * inv[3 + k] + t[2] * inv[6 + k]));
    out[15] = 1.0f;
    return true;
}

bool invert_matrix(const miScalar *m, miScalar *out)
{
    if (m[3] == 0.0f && m[7] == 0.0f && m[11] == 0.0f && m[15] == 1.0f)
        return invert_affine(m, out);
    double a[4][8];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            a[r][c] = m[r * 4 + c];
            a[r][c + 4] = (r == c) ? 1.0 : 0.0;
        }
    for (int col = 0; col < 4; ++col) {
        int piv = col;
        for (int r = col + 1; r < 4; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[piv][col]))
                piv = r;
        if (std::fabs(a[piv][col]) < 1e-300)
            return false;
        if (piv != col)
            for (int c = 0; c < 8; ++c)
                std::swap(a[piv][c], a[col][c]);
        double inv = 1.0 / a[col][col];
        for (int c = 0; c < 8; ++c)
            a[col][c] *= inv;
        for (int r = 0; r < 4; ++r) {
            if (r == col)
                continue;
            double f = a[r][col];
            if (f != 0.0)
                for (int c = 0; c < 8; ++c)
                    a[r][c] -= f * a[col][c];
        }
    }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            out[r * 4 + c] = static_cast<miScalar>(a[r][c + 4]);
    return true;
}

/* ================================================================ internal API */

void log_message(Level level, const std::string &text)
{
    MessageLog &log = message_log();
    {
        std::lock_guard<std::mutex> lk(log.mu);
        log.messages.push_back(Message{level, text});
    }
    if (log.echo.load(std::memory_order_relaxed))
        std::fprintf(stderr, "%s: %s\n", level_name(level), text.c_str());
}

Context::Impl *impl_of(const miState *state)
{
    if (!state || !state->ctx)
        return nullptr;
    return state->ctx->impl;
}

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

/* ================================================================ database API */

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

/* ================================================================ memory API */

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

std::vector<MemEvent> mem_events()
{
    MemoryBook &book = memory_book();
    std::lock_guard<std::mutex> lk(book.mu);
    return book.events;
}

void mem_clear_events()
{
    MemoryBook &book = memory_book();
    std::lock_guard<std::mutex> lk(book.mu);
    book.events.clear();
}

/* ================================================================ messages API */

std::vector<Message> messages()
{
    MessageLog &log = message_log();
    std::lock_guard<std::mutex> lk(log.mu);
    return log.messages;
}

void clear_messages()
{
    MessageLog &log = message_log();
    std::lock_guard<std::mutex> lk(log.mu);
    log.messages.clear();
}

void set_echo_messages(bool on)
{
    message_log().echo.store(on);
}

uint64_t random_draw_count()
{
    return random_gen().draws.load();
}

/* ================================================================ shaders */

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

int shader_interface_outstanding()
{
    return outstanding_handles.load();
}

Context *context_of(miState *state)
{
    Context::Impl *impl = impl_of(state);
    return impl ? impl->self : nullptr;
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
    {
        OrphanFrames &o = orphan_frames();
        std::lock_guard<std::mutex> lk(o.mu);
        for (StateFrame *f : o.frames)
            delete f;
        o.frames.clear();
        o.children.clear();
    }
    clear_messages();
    mem_clear_events();
}

/* ================================================================ Context */

Context::Context(int width, int height) : impl_(new Impl)
{
    live_contexts.fetch_add(1);
    Impl &m = *impl_;
    m.self = this;
    m.handle.context = this;
    m.handle.impl = impl_.get();
    m.width = width > 0 ? width : 1;
    m.height = height > 0 ? height : 1;

    Impl *self_ptr = impl_.get();
    m.fbset_tag = db_create(miSCENE_FBSET, sizeof(Impl *));
    std::memcpy(db_data(m.fbset_tag), &self_ptr, sizeof self_ptr);
    m.stropts_tag = db_create(miSCENE_STRINGOPTS, sizeof(Impl *));
    std::memcpy(db_data(m.stropts_tag), &self_ptr, sizeof self_ptr);

    m.options_tag = db_create(miSCENE_OPTIONS, sizeof(miOptions));
    m.options = static_cast<miOptions *>(db_data(m.options_tag));
    miOptions &o = *m.options;
    o.trace = miTRUE;
    o.reflection_depth = 2;
    o.refraction_depth = 2;
    o.trace_depth = 4;
    o.time_contrast = miColor{1, 1, 1, 1};
    o.shutter_delay = 0;
    o.shutter = 0;
    o.scanline = 0;
    o.string_options = m.stropts_tag;
    o.finalgather = 0;
    o.finalgather_rays = 16;

    m.camera_tag = db_create(miSCENE_CAMERA, sizeof(miCamera));
    m.camera = static_cast<miCamera *>(db_data(m.camera_tag));
    m.camera->buffertag = m.fbset_tag;
    m.camera->x_resolution = m.width;
    m.camera->y_resolution = m.height;
    m.camera->focal = 1.0f;
    m.camera->aperture = 1.0f;
    m.camera->aspect = static_cast<float>(m.width) / static_cast<float>(m.height);

    m.camera_inst_tag = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    m.camera_inst = static_cast<miInstance *>(db_data(m.camera_inst_tag));
    m.camera_inst->item = m.camera_tag;
    const miMatrix identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::memcpy(m.camera_inst->local_to_global, identity, sizeof identity);
    std::memcpy(m.camera_inst->global_to_local, identity, sizeof identity);

    mi_init_lock(&m.cache_lock);
    m.answer(miQ_PRECOMPUTE_PASS).value = 0;
    m.answer(miQ_MOTION_BY_RENDERER).value = 1;
    m.answer(miQ_FB_RECORDS).value = 1;
}

Context::~Context()
{
    Impl &m = *impl_;
    std::vector<miShaderStateStore *> left;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        left.swap(m.live_states);
    }
    if (!left.empty())
        error("render context destroyed with %zu state(s) not ended", left.size());
    for (miShaderStateStore *s : left)
        free_store(s);
    for (miTag t : {m.options_tag, m.camera_tag, m.camera_inst_tag, m.fbset_tag, m.stropts_tag})
        db_delete(t);
    for (miTag t : m.owned_items)
        db_delete(t);
    mi_delete_lock(&m.cache_lock);
    live_contexts.fetch_sub(1);
}

miOptions &Context::options() { return *impl_->options; }
miCamera &Context::camera() { return *impl_->camera; }
miTag Context::options_tag() const { return impl_->options_tag; }
miTag Context::camera_tag() const { return impl_->camera_tag; }
miTag Context::camera_instance() const { return impl_->camera_inst_tag; }
int Context::width() const { return impl_->width; }
int Context::height() const { return impl_->height; }

void Context::set_camera_transform(const miMatrix local_to_global)
{
    set_point_for_camera(impl_->camera_inst, local_to_global);
}

int Context::add_framebuffer(const std::string &name)
{
    Impl &m = *impl_;
    for (size_t i = 0; i < m.fb_names.size(); ++i)
        if (m.fb_names[i] == name)
            return static_cast<int>(i + 1);
    m.fb_names.push_back(name);
    m.fb_pixels.emplace_back(static_cast<size_t>(m.width) * static_cast<size_t>(m.height),
                             miColor{0, 0, 0, 0});
    return static_cast<int>(m.fb_names.size());
}

int Context::framebuffer_count() const
{
    return static_cast<int>(impl_->fb_names.size());
}

miColor Context::fb_pixel(int index, int x, int y) const
{
    const Impl &m = *impl_;
    if (index < 1 || index > static_cast<int>(m.fb_pixels.size()) || x < 0 || y < 0 || x >= m.width ||
        y >= m.height)
        return miColor{0, 0, 0, 0};
    return m.fb_pixels[static_cast<size_t>(index - 1)][static_cast<size_t>(y) * m.width + x];
}

void Context::set_fb_pixel(int index, int x, int y, const miColor &c)
{
    Impl &m = *impl_;
    if (index < 1 || index > static_cast<int>(m.fb_pixels.size()) || x < 0 || y < 0 || x >= m.width ||
        y >= m.height)
        return;
    m.fb_pixels[static_cast<size_t>(index - 1)][static_cast<size_t>(y) * m.width + x] = c;
}

void Context::clear_framebuffers()
{
    for (auto &buf : impl_->fb_pixels)
        std::fill(buf.begin(), buf.end(), miColor{0, 0, 0, 0});
}

uint64_t Context::fb_lookup_count() const
{
    return impl_->fb_lookups.load();
}

void Context::set_string_option(const std::string &name, int value)
{
    for (auto &o : impl_->string_options)
        if (o.name == name) {
            o.value = value;
            o.text = std::to_string(value);
            return;
        }
    impl_->string_options.push_back(Impl::StringOption{name, value, std::to_string(value)});
}

void Context::attach_camera_userdata(miTag block)
{
    if (mi_db_type(block) != miSCENE_USERDATA) {
        error("attach_camera_userdata: %u is not a user-data block", block);
        return;
    }
    miUserdata *u = static_cast<miUserdata *>(db_data(block));
    u->next_data = impl_->camera->userdata;
    impl_->camera->userdata = block;
}

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

void Context::add_state_shader(miTag fn)
{
    impl_->state_shaders.push_back(fn);
}

miBoolean Context::run_state_op(miState *state, int op, miBoolean shader_return)
{
    miBoolean ok = miTRUE;
    for (miTag fn : impl_->state_shaders) {
        miShader_state_arg arg{op, shader_return};
        alignas(16) unsigned char result[64] = {};
        if (!call_function(fn, result, state, &arg))
            ok = miFALSE;
    }
    return ok;
}

miState *Context::begin_state(int thread)
{
    Impl &m = *impl_;
    miShaderStateStore *store = new miShaderStateStore;
    store->ctx = &m;
    StateFrame *root = new_frame_pair(store->frames);
    miState *s = &root->state;
    store->root = s;
    init_frame_lists(root);
    s->version = 1;
    s->camera_inst = m.camera_inst_tag;
    s->camera = m.camera;
    s->options = m.options;
    s->global_lock = &global_lock_rec();
    s->thread = thread;
    s->type = miRAY_EYE;
    s->ior = 1.0f;
    s->ior_in = 1.0f;
    s->environment = m.environment;
    s->scanline = m.options->scanline == 'r' ? 1 : 0;
    s->ctx = &m.handle;
    s->shaderstate = store;
    s->spare = &root->spare_frame->state;
    /* The spare starts out as a copy of the eye state with its own lists. */
    std::memcpy(s->spare, s, sizeof(miState));
    init_frame_lists(root->spare_frame);
    s->spare->spare = nullptr;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        m.live_states.push_back(store);
    }
    run_state_op(s, miSHADERSTATE_STATE_INIT);
    return s;
}

void Context::begin_sample(miState *state, int x, int y, int sample)
{
    if (!state)
        return;
    state->raster_x = x;
    state->raster_y = y;
    state->sample_index = sample;
    state->qmc_offset = static_cast<miUint>(
        mix64((static_cast<uint64_t>(static_cast<uint32_t>(x)) << 32) ^
              (static_cast<uint64_t>(static_cast<uint32_t>(y)) << 12) ^ static_cast<uint32_t>(sample)));
    state->type = miRAY_EYE;
    state->reflection_level = 0;
    state->refraction_level = 0;
    state->dist = 0;
    state->environment = impl_->environment;
    run_state_op(state, miSHADERSTATE_SAMPLE_INIT);
}

void Context::end_sample(miState *state, miBoolean shaded)
{
    if (!state)
        return;
    run_state_op(state, miSHADERSTATE_SAMPLE_EXIT, shaded);
}

void Context::end_state(miState *state)
{
    if (!state)
        return;
    miShaderStateStore *store = state->shaderstate;
    Impl &m = *impl_;
    bool known = false;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        known = std::find(m.live_states.begin(), m.live_states.end(), store) != m.live_states.end();
    }
    if (!known) {
        error("end_state: the state was not begun by this render context");
        return;
    }
    if (store->root != state)
        error("end_state: called with a child state; ending its eye state");
    run_state_op(store->root, miSHADERSTATE_STATE_EXIT);
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        m.live_states.erase(std::find(m.live_states.begin(), m.live_states.end(), store));
    }
    free_store(store);
}

} // namespace mirt

/* ==================================================================== C API */

using namespace mirt;

extern "C" {

/* ---- database */

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

/* ---- memory */

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

/* ---- locks */

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

/* ---- messages */

void mi_fatal(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    log_message(Level::Fatal, s);
    throw FatalError{s};
}

void mi_error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    log_message(Level::Error, s);
}

void mi_warning(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    log_message(Level::Warning, s);
}

void mi_info(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    log_message(Level::Info, s);
}

void *mi_phen_eval(miState *state, void *param)
{
    return phen_eval(state, param, "mi_phen_eval");
}

/* Nothing is cached between evaluations, so re-evaluating on a changed state
   is the same call. */
void *mi_phen_call(miState *state, void *param)
{
    return phen_eval(state, param, "mi_phen_call");
}

/* ---- frame buffers */

static miColor *fb_slot(miState *state, int buffer)
{
    Context::Impl *impl = impl_of(state);
    if (!impl || buffer < 1 || buffer > static_cast<int>(impl->fb_pixels.size()))
        return nullptr;
    int x = state->raster_x, y = state->raster_y;
    if (x < 0 || y < 0 || x >= impl->width || y >= impl->height)
        return nullptr;
    return &impl->fb_pixels[static_cast<size_t>(buffer - 1)][static_cast<size_t>(y) * impl->width + x];
}

miBoolean mi_fb_put(miState *state, int buffer, void *data)
{
    if (!data)
        return miFALSE;
    miColor *slot = fb_slot(state, buffer);
    if (!slot)
        return miFALSE;
    std::memcpy(slot, data, sizeof(miColor));
    return miTRUE;
}

miBoolean mi_fb_get(miState *state, int buffer, void *data)
{
    if (!data)
        return miFALSE;
    miColor *slot = fb_slot(state, buffer);
    if (!slot)
        return miFALSE;
    std::memcpy(data, slot, sizeof(miColor));
    return miTRUE;
}

/* ---- quasi-random samples: Halton points, rotated per pixel and sample
   (Cranley-Patterson) by offsets derived from state->qmc_offset. */

miBoolean mi_sample(double *sample, int *instance, miState *state, miUshort dimension, const miUint *n)
{
    if (!instance)
        return miFALSE;
    if (n && static_cast<int64_t>(*instance) >= static_cast<int64_t>(*n))
        return miFALSE;
    if (*instance < 0) {
        error("mi_sample: negative sample instance %d", *instance);
        return miFALSE;
    }
    const uint64_t index = static_cast<uint64_t>(*instance);
    const uint64_t offset = state ? state->qmc_offset : 0u;
    for (unsigned d = 0; d < dimension && sample; ++d) {
        unsigned base = kPrimes[d % kPrimeCount];
        /* dimensions beyond the prime table reuse the primes on a scrambled index */
        uint64_t i = d < kPrimeCount ? index : index + mix64(d) % 1000003u;
        double rot = static_cast<double>(mix64(offset * 0x100000001B3ull + d) >> 11) * (1.0 / 9007199254740992.0);
        double v = radical_inverse(i, base) + rot;
        if (v >= 1.0)
            v -= 1.0;
        if (v >= 1.0 || v < 0.0)
            v = 0.0;
        sample[d] = v;
    }
    ++*instance;
    return miTRUE;
}

/* ---- transforms (row vectors: p' = p * M); a null matrix is the identity */

void mi_point_transform(miVector *r, const miVector *v, const miScalar *m)
{
    if (!r || !v)
        return;
    if (!m) {
        *r = *v;
        return;
    }
    const float x = v->x, y = v->y, z = v->z;
    miVector o{x * m[0] + y * m[4] + z * m[8] + m[12], x * m[1] + y * m[5] + z * m[9] + m[13],
               x * m[2] + y * m[6] + z * m[10] + m[14]};
    const float w = x * m[3] + y * m[7] + z * m[11] + m[15];
    if (w != 0.0f && w != 1.0f) {
        const float inv = 1.0f / w;
        o.x *= inv;
        o.y *= inv;
        o.z *= inv;
    }
    *r = o;
}

void mi_vector_transform(miVector *r, const miVector *v, const miScalar *m)
{
    if (!r || !v)
        return;
    if (!m) {
        *r = *v;
        return;
    }
    const float x = v->x, y = v->y, z = v->z;
    *r = miVector{x * m[0] + y * m[4] + z * m[8], x * m[1] + y * m[5] + z * m[9],
                  x * m[2] + y * m[6] + z * m[10]};
}

void mi_vector_transform_T(miVector *r, const miVector *v, const miScalar *m)
{
    if (!r || !v)
        return;
    if (!m) {
        *r = *v;
        return;
    }
    const float x = v->x, y = v->y, z = v->z;
    *r = miVector{x * m[0] + y * m[1] + z * m[2], x * m[4] + y * m[5] + z * m[6],
                  x * m[8] + y * m[9] + z * m[10]};
}

static void instance_vector(miTag inst, bool to_local, miVector *r, const miVector *v)
{
    if (!r || !v)
        return;
    const miInstance *i = instance_record(inst);
    if (!i) {
        *r = *v; /* no instance: internal space is the local space */
        return;
    }
    mi_vector_transform(r, v, to_local ? i->global_to_local : i->local_to_global);
}

void mi_vector_to_object(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->instance : 0, true, r, v);
}

void mi_vector_from_object(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->instance : 0, false, r, v);
}

void mi_vector_to_camera(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->camera_inst : 0, true, r, v);
}

void mi_vector_from_camera(miState *state, miVector *r, const miVector *v)
{
    instance_vector(state ? state->camera_inst : 0, false, r, v);
}

/* ---- queries */

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

/* ---- the object shader interface */

mi::shader::Interface *mi_get_shader_interface(int version)
{
    if (version != 3)
        return nullptr;
    outstanding_handles.fetch_add(1);
    return new InterfaceImpl;
}

