/*
 * Subsurface-scattering point cache.
 *
 * For every object instance a material asks about, compute_scatter builds a
 * cache: points spread evenly over the instance's triangles (a fixed surface
 * area per point), filed into a uniform grid whose cell edge is at least the
 * gathering radius.  The light arriving at the points is computed lazily,
 * one cell at a time, the first time a lookup touches the cell; a lookup
 * returns the falloff-weighted average of the points within the radius.
 *
 * Two storage modes:
 *  - full grid (cache size 0): every point of the instance is kept; one scan
 *    on the first lookup files them all, each cell is evaluated once.
 *  - hash (cache size n > 0): n slots; cell k lives in slot k mod n and a
 *    slot is refilled (instance rescanned, points inside the cell's box kept
 *    and evaluated) whenever a lookup needs a cell other than the one it
 *    holds.  Readers and fillers of a slot coordinate through a claim list.
 *
 * Concurrency.  The caches are shared by all render threads.  Creation is
 * serialised by the renderer's cache lock (query 52); inside a cache, `lock`
 * guards the first scan, cell evaluation (full grid) and the claim list
 * (hash); each Sampler's own lock guards its queue.  A few fields are read
 * without a lock as hints and tested again under it (`pool`, `busy`, `done`,
 * the sampler's `cursor` and `running`, the list head); those are accessed
 * with atomic builtins so that the unlocked reads are well defined.  Waiting
 * is by polling: a waiting thread either helps with the queue or yields.
 *
 * Nested lookups.  Evaluating a point runs the instance's lights and the
 * renderer's indirect light, and a shader reached from there may call
 * compute_scatter again, on this cache or another one.  Such a lookup would
 * otherwise wait for work its own thread holds (the cell or slot being
 * evaluated), or for a lock held by another thread that is itself nested in
 * a lookup on our cache.  So a lookup made while its thread is evaluating
 * points (tracked per thread) is answered read-only: it uses cells that are
 * already evaluated (full grid) or slots already holding the wanted cell and
 * not being refilled (hash), counts every other cell as empty, and never
 * scans, evaluates, refills or waits.  The first nested lookup on a fresh
 * cache therefore returns black.
 */
#include "druxInternal.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <thread>

namespace {

using drux::operator+;
using drux::operator-;
using drux::operator*;

const char *const kFile = "SDK/druxScatter";

/* Line tags of this file's allocations, as the memory accounting expects. */
enum : int {
    kLineCache = 816,
    kLineClaims = 850,
    kLineHashCells = 851,
    kLineHashPool = 852,
    kLineGridCells = 858,
    kLineGridPool = 922,
    kLineFreeClaims = 1062,
    kLineFreeCells = 1063,
    kLineFreeCache = 1064,
    kLineBoxTags = 246,
    kLineFreeBoxTags = 247
};

constexpr int kBatch = 16;                    /* points per batch */
constexpr int kClaimRoom = 96;                /* initial room of the claim list */
constexpr long long kGridBudget = 1048576;    /* full-grid cell budget */
constexpr long long kHashBudget = 2147483646; /* hash-mode cell budget */
constexpr float kGrowth = 1.1111112f;         /* cell-edge growth when over budget (0x3F8E38E4) */
constexpr int kMaxTexSpaces = 64;
constexpr int kMaxBumps = 64;
constexpr int kLocalBoxes = 256;              /* box tags copied to the stack */

/* ------------------------------------------------------------ records */

/* A cached point (32 bytes, one pool block).  Until evaluated, w holds the
   barycentric weights b1, b2 and the bits of the triangle ordinal; after
   evaluation the irradiance r, g, b. */
struct Sample {
    miVector P;
    float w[3];
    Sample *next;
};
static_assert(sizeof(Sample) == 32, "a point is one 32-byte block");

struct GridCell {
    int stamp;    /* hash: cell index + 1 of the cell held, 0 = none */
    int done;     /* full grid: 1 once every point is evaluated */
    Sample *head; /* points filed here */
};

/* Queue of points awaiting evaluation. */
struct Sampler {
    miLock lock;    /* guards running and cursor */
    int running;    /* batches taken and not yet finished */
    int batch;      /* points per batch (16) */
    Sample *cursor; /* first point not yet taken; null when all are taken */
};

/* One entry of the slot-claim list. */
struct Claim {
    int slot;
    int fill; /* 0: read claim, 1: fill claim */
};

/* Material inputs used to evaluate points; the last four are filled in by
   every batch. */
struct SamplerParms {
    float *diffuse;
    miColor *color;
    float *translucence;
    float *focus;
    float *wrap;
    miVector *normalOverride;
    miColor *irradiance;
    miColor *irradianceTint;
    int useLights;
    int useIndirect;
    int nLights;
    miTag *lights;
};

} // namespace

/* Declared opaque in the public header. */
struct ScatterCache {
    miLock lock;       /* cell bookkeeping, the first scan, busy, the claim list */
    int busy;          /* full grid: threads evaluating a cell */
    miVector origin;   /* lowest grid corner */
    int nx, ny, nz;    /* cells per axis */
    float cellSize;    /* cubic cell edge (>= radius) */
    GridCell *cells;   /* full grid: nx*ny*nz cells; hash: slotCount slots */
    miMemblk *pool;    /* 32-byte blocks for every point */
    int slotCount;     /* 0: full grid; > 0: hash slots */
    int claimCount;    /* hash: entries in claims */
    Claim *claims;     /* hash: the slot-claim list */
    Sampler sampler;   /* full grid: the shared evaluation queue */
    float radius;      /* gathering radius the cache was built for */
    int samples;       /* points per disc of area pi * radius^2 */
    miTag instance;    /* the instance served (lookup key) */
    ScatterCache *next;
};

/* The record holds exactly these fields, in this order (64-bit layout). */
static_assert(sizeof(void *) != 8 || (offsetof(ScatterCache, busy) == 8 && offsetof(ScatterCache, origin) == 12 &&
                                      offsetof(ScatterCache, nx) == 24 && offsetof(ScatterCache, cellSize) == 36 &&
                                      offsetof(ScatterCache, cells) == 40 && offsetof(ScatterCache, pool) == 48 &&
                                      offsetof(ScatterCache, slotCount) == 56 &&
                                      offsetof(ScatterCache, claimCount) == 60 &&
                                      offsetof(ScatterCache, claims) == 64 && offsetof(ScatterCache, sampler) == 72 &&
                                      offsetof(ScatterCache, radius) == 96 && offsetof(ScatterCache, samples) == 100 &&
                                      offsetof(ScatterCache, instance) == 104 && offsetof(ScatterCache, next) == 112 &&
                                      sizeof(ScatterCache) == 120),
              "ScatterCache layout");
static_assert(sizeof(void *) != 8 || (sizeof(Sampler) == 24 && offsetof(Sampler, cursor) == 16 &&
                                      sizeof(GridCell) == 16 && offsetof(GridCell, head) == 8),
              "Sampler and GridCell layout");

namespace {

/* Iterator over the points within reach of one shaded point. */
struct GridIt {
    int cur;            /* position in cellList; -1 before the first cell */
    int count;          /* entries in cellList */
    int cellList[27];   /* cell indices of the 3x3x3 neighbourhood inside the grid */
    Sample *sample;     /* current point */
    miVector *P;        /* shaded point */
    miState *state;
    SamplerParms *parms;
    ScatterCache *cache;
    float dist;         /* distance from P to the current point */
    int claimed;        /* hash: slot whose read claim this iterator holds, -1: none */
    int readOnly;       /* nested lookup: use only evaluated points, never wait */
};

struct GridInsertContext {
    ScatterCache *cache;
    miMemblk *pool;
};

struct HashInsertContext {
    float box[6]; /* min x, y, z, max x, y, z */
    miMemblk *pool;
    GridCell *slot;
};

/* ------------------------------------------------------------ atomics on plain fields */

template <class T> inline T loadAcquire(const T *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
template <class T> inline void storeRelease(T *p, T v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
inline void addAtomic(int *p, int v) { __atomic_add_fetch(p, v, __ATOMIC_ACQ_REL); }

/* Number of scatter evaluations (batch runs) active on this thread: a lookup
   made while it is nonzero is a nested one. */
thread_local int tEvaluating = 0;

struct EvaluatingScope {
    EvaluatingScope() { ++tEvaluating; }
    ~EvaluatingScope() { --tEvaluating; }
    EvaluatingScope(const EvaluatingScope &) = delete;
    EvaluatingScope &operator=(const EvaluatingScope &) = delete;
};

/* The test build of this file (DRUX_TEST_SCATTER_LOST_RACE defined, built
   only beside the tests) makes every batch run first let the queue run
   empty (it takes the remaining batches itself, as another thread would)
   between the caller's check of the cursor and the batch lock, so the path
   of a thread that lost the race for the last batch runs on every batch.
   The library itself never does. */
#ifdef DRUX_TEST_SCATTER_LOST_RACE
constexpr bool kForceLostRace = true;
#else
constexpr bool kForceLostRace = false;
#endif
thread_local bool tEmptyingQueue = false;

/* ------------------------------------------------------------ record reading */

template <class T> inline T readAt(const void *base, size_t off)
{
    T v;
    std::memcpy(&v, static_cast<const unsigned char *>(base) + off, sizeof v);
    return v;
}

/* The boxes of an instance, in order.  The tags are copied while the
   geometry list is read, so that the list is released before the scan: the
   first kLocalBoxes into the record itself, any beyond them into one array
   from the renderer's allocator, sized once from the list's count
   (instances of that many boxes are rare). */
struct BoxList {
    int count = 0;
    miTag local[kLocalBoxes];
    miTag *more = nullptr; /* tags of boxes kLocalBoxes, kLocalBoxes + 1, ... */

    BoxList() = default;
    ~BoxList() { release(); }
    BoxList(const BoxList &) = delete;
    BoxList &operator=(const BoxList &) = delete;

    miTag tag(int i) const { return i < kLocalBoxes ? local[i] : more[i - kLocalBoxes]; }
    void release()
    {
        if (more)
            mi_mem_int_release(kFile, kLineFreeBoxTags, more);
        more = nullptr;
        count = 0;
    }
};

/* Copy the instance's object-to-internal matrix and find its boxes: the
   geometry list for object types 0, 1 and 4, the object's own entry for type
   2, none otherwise.  Everything accessed is released again. */
bool readInstance(miTag instTag, miScalar matrix[16], BoxList &boxes)
{
    boxes.release();
    if (!instTag)
        return false;
    const miInstance *inst = static_cast<const miInstance *>(mi_db_access(instTag));
    if (!inst)
        return false;
    std::memcpy(matrix, inst->local_to_global, 16 * sizeof(miScalar));
    const miTag objTag = inst->item;
    const miTag glTag = inst->geolist;
    const miObject *obj = objTag ? static_cast<const miObject *>(mi_db_access(objTag)) : nullptr;
    if (!obj) {
        mi_db_unpin(instTag);
        return false;
    }
    const int objType = obj->type;
    if (glTag && mi_db_type(glTag) == miSCENE_GEOLIST && (objType == 0 || objType == 1 || objType == 4)) {
        const void *gl = mi_db_access(glTag);
        if (gl) {
            const int n = readAt<int>(gl, 0);
            boxes.count = n > 0 ? n : 0;
            if (boxes.count > kLocalBoxes)
                boxes.more = static_cast<miTag *>(mi_mem_int_allocate(
                    kFile, kLineBoxTags, static_cast<size_t>(boxes.count - kLocalBoxes) * sizeof(miTag)));
            for (int i = 0; i < boxes.count; ++i) {
                const miTag t = readAt<miTag>(gl, miGEOLIST_ENTRIES + static_cast<size_t>(i) * miGEOLIST_ENTRY_SIZE +
                                                      miGEOLIST_ENTRY_BOX);
                if (i < kLocalBoxes)
                    boxes.local[i] = t;
                else
                    boxes.more[i - kLocalBoxes] = t;
            }
            mi_db_unpin(glTag);
        }
    } else if (objType == 2) {
        boxes.count = 1;
        boxes.local[0] = obj->box_entry[0];
    }
    mi_db_unpin(objTag);
    mi_db_unpin(instTag);
    return boxes.count > 0;
}

/* The fields of a box record that the scan and the evaluation read. */
struct BoxView {
    const unsigned char *b;
    miUint ntri;
    miUint nvert;
    unsigned vsize;
    const unsigned char *tris;
    const float *verts;

    explicit BoxView(const void *box)
        : b(static_cast<const unsigned char *>(box)), ntri(readAt<miUint>(box, miBOX_NO_TRIANGLES)),
          nvert(readAt<miUint>(box, miBOX_NO_VERTICES)), vsize(readAt<miUshort>(box, miBOX_VERTEX_SIZE)),
          tris(b + readAt<miUint>(box, miBOX_TRIANGLES)),
          verts(reinterpret_cast<const float *>(b + miBOX_VERTICES))
    {
    }
    /* Vertex records of triangle t; false for an index outside the box. */
    bool triangle(miUint t, const float *v[3]) const
    {
        for (int c = 0; c < 3; ++c) {
            const miUint k = readAt<miUint>(tris, (1 + static_cast<size_t>(t) * 3 + c) * 4);
            if (k >= nvert)
                return false;
            v[c] = verts + static_cast<size_t>(k) * vsize;
        }
        return true;
    }
};

inline miVector position(const float *rec) { return miVector{rec[0], rec[1], rec[2]}; }

inline miVector interp(const float *a, const float *b, const float *c, unsigned pos, float w0, float w1,
                       float w2)
{
    return miVector{w0 * a[pos] + w1 * b[pos] + w2 * c[pos], w0 * a[pos + 1] + w1 * b[pos + 1] + w2 * c[pos + 1],
                    w0 * a[pos + 2] + w1 * b[pos + 2] + w2 * c[pos + 2]};
}

/* Surface area one point stands for: pi r^2 / n in double precision. */
float areaPerSample(const ScatterCache *c)
{
    const double r = c->radius;
    return static_cast<float>(r * (r * 3.141592653589793) / c->samples);
}

/* ------------------------------------------------------------ scanning */

using SampleCallback = void (*)(void *, Sample *);

/* Spread points over the triangles of the state's instance at one point per
   areaPerSample of surface, handing each to the callback.  The area left over
   by a triangle carries into the next one, across boxes. */
void sampler_scaninst(miState *state, float areaPerSample, SampleCallback callback, void *user)
{
    miScalar matrix[16];
    BoxList boxes;
    if (!readInstance(state->instance, matrix, boxes))
        return;
    if (!(areaPerSample > 0.0f) || !std::isfinite(areaPerSample))
        return; /* a radius so small that the area underflows: no points */

    float A = 0.0f;
    int ordinal = 0;
    Sample sample;
    sample.next = nullptr;
    for (int bi = 0; bi < boxes.count; ++bi) {
        const miTag tag = boxes.tag(bi);
        const void *box = tag ? mi_db_access(tag) : nullptr;
        if (!box)
            continue;
        const BoxView view(box);
        for (miUint t = 0; t < view.ntri; ++t, ++ordinal) {
            const float *rec[3];
            if (!view.triangle(t, rec))
                continue; /* a broken triangle gets no points and carries nothing */
            miVector Va, Vb, Vc;
            const miVector pa = position(rec[0]), pb = position(rec[1]), pc = position(rec[2]);
            mi_point_transform(&Va, &pa, matrix);
            mi_point_transform(&Vb, &pb, matrix);
            mi_point_transform(&Vc, &pc, matrix);
            const miVector e1 = Vb - Va;
            const miVector e2 = Vc - Va;
            A += 0.5f * drux::length(drux::cross(e1, e2));
            if (!(A >= areaPerSample))
                continue;
            const float q = A / areaPerSample;
            /* trunc(A / areaPerSample) as an unsigned count; out-of-range
               quotients are clamped instead of overflowing the conversion */
            const miUint n = q < 4294967040.0f ? static_cast<miUint>(q) : 4294967040u;
            int counter = 0;
            double uv[2];
            while (mi_sample(uv, &counter, state, 2, &n)) {
                const float u = static_cast<float>(uv[0]);
                const float v = static_cast<float>(uv[1]);
                const float b1 = 1.0f - std::sqrt(1.0f - u);
                const float b2 = (1.0f - b1) * v;
                sample.P.x = (e1.x * b1 + Va.x) + e2.x * b2;
                sample.P.y = (e1.y * b1 + Va.y) + e2.y * b2;
                sample.P.z = (e1.z * b1 + Va.z) + e2.z * b2;
                sample.w[0] = b1;
                sample.w[1] = b2;
                std::memcpy(&sample.w[2], &ordinal, sizeof ordinal);
                callback(user, &sample);
            }
            A -= static_cast<float>(n) * areaPerSample;
        }
        mi_db_unpin(tag);
    }
}

/* Cell coordinate of a filed point: truncation towards zero, clamped into
   [0, n).  The grid covers the instance's bounding box widened by KELU_EPS,
   so clamping only catches points that rounding (or a bounding box that does
   not enclose the instance) puts just outside; they go to the nearest border
   cell instead of being lost.  A NaN coordinate goes to cell 0, where no
   distance test ever accepts it. */
inline int clampedCoord(float q, int n)
{
    if (!(q >= 0.0f))
        return 0;
    if (q >= static_cast<float>(n))
        return n - 1;
    const int i = static_cast<int>(q);
    return i < n ? i : n - 1;
}

/* File a point into its full-grid cell (the caller holds the cache lock). */
void grid_insert(void *user, Sample *sample)
{
    GridInsertContext *ctx = static_cast<GridInsertContext *>(user);
    ScatterCache *c = ctx->cache;
    const int ix = clampedCoord((sample->P.x - c->origin.x) / c->cellSize, c->nx);
    const int iy = clampedCoord((sample->P.y - c->origin.y) / c->cellSize, c->ny);
    const int iz = clampedCoord((sample->P.z - c->origin.z) / c->cellSize, c->nz);
    GridCell *cell = &c->cells[ix + (iy + static_cast<long long>(iz) * c->ny) * c->nx];
    sample->next = cell->head;
    void *block = mi_mem_blkfallocate(ctx->pool);
    std::memcpy(block, sample, sizeof(Sample));
    cell->head = static_cast<Sample *>(block);
}

/* Keep a point only when it lies strictly inside the cell's box (the caller
   holds the slot's fill claim). */
void hash_insert(void *user, Sample *sample)
{
    HashInsertContext *ctx = static_cast<HashInsertContext *>(user);
    const float *b = ctx->box;
    if (!(b[0] < sample->P.x && sample->P.x < b[3]))
        return;
    if (!(b[1] < sample->P.y && sample->P.y < b[4]))
        return;
    if (!(b[2] < sample->P.z && sample->P.z < b[5]))
        return;
    sample->next = ctx->slot->head;
    void *block = mi_mem_blkallocate(ctx->pool);
    std::memcpy(block, sample, sizeof(Sample));
    ctx->slot->head = static_cast<Sample *>(block);
}

/* ------------------------------------------------------------ evaluation */

/* Irradiance options from the instance's user data (word 5 = 1). */
bool irradianceOptionsFromUserdata(miTag instance, miIrrad_options &opt)
{
    miTag block = 0;
    const unsigned char *ud =
        static_cast<const unsigned char *>(get_userdata(KELU_MAGIC, miSCENE_OBJECT, instance, &block, nullptr));
    if (!ud)
        return false;
    /* The block is written by another program: it carries settings only when
       its recorded size covers words 0 to 16, which are all read below. */
    const int paramSize = readAt<int>(ud - offsetof(miUserdata, parameters), offsetof(miUserdata, parameter_size));
    bool filled = false;
    auto word = [&](int n) { return readAt<miUint>(ud, static_cast<size_t>(n) * 4); };
    if (paramSize >= 17 * 4 && readAt<int>(ud, 20) == 1) {
        unsigned char *o = reinterpret_cast<unsigned char *>(&opt);
        std::memset(o, 0, sizeof opt); /* bytes 44..51 are not in the block: zero */
        const int size = 52;
        std::memcpy(o + 0, &size, 4);
        for (int i = 0; i < 3; ++i) {
            const miUint w = word(6 + i);
            std::memcpy(o + 4 + 4 * i, &w, 4);
        }
        o[16] = static_cast<unsigned char>(word(9) & 0xFFu);
        o[17] = static_cast<unsigned char>(word(10) & 0xFFu);
        for (int i = 0; i < 6; ++i) {
            const miUint w = word(11 + i);
            std::memcpy(o + 20 + 4 * i, &w, 4);
        }
        filled = true;
    }
    mi_db_unpin(block);
    return filled;
}

/* Triangle counts of the locally copied boxes, read on first need. */
struct TriangleIndex {
    const BoxList *boxes;
    int counts[kLocalBoxes];

    explicit TriangleIndex(const BoxList *b) : boxes(b)
    {
        for (int i = 0; i < kLocalBoxes; ++i)
            counts[i] = -1;
    }

    /* Box and local triangle of ordinal t; the box comes back pinned. */
    const void *find(int t, miTag &tag, miUint &local)
    {
        if (t < 0)
            return nullptr;
        miUint rest = static_cast<miUint>(t);
        for (int i = 0; i < boxes->count; ++i) {
            if (i < kLocalBoxes && counts[i] >= 0 && rest >= static_cast<miUint>(counts[i])) {
                rest -= static_cast<miUint>(counts[i]);
                continue;
            }
            const miTag bt = boxes->tag(i);
            const void *box = bt ? mi_db_access(bt) : nullptr;
            if (!box)
                continue;
            const miUint n = readAt<miUint>(box, miBOX_NO_TRIANGLES);
            if (i < kLocalBoxes)
                counts[i] = static_cast<int>(n);
            if (rest < n) {
                tag = bt;
                local = rest;
                return box;
            }
            rest -= n;
            mi_db_unpin(bt);
        }
        return nullptr;
    }
};

/* Take up to one batch of points from the queue and compute the light
   arriving at each: rebuild a shading state at the point from its triangle,
   run a diffuse light loop over the instance's lights, add the indirect
   light, tint with the material inputs, and store the colour in the point. */
void sampler_runbatch(Sampler *s, miState *state, SamplerParms *parms)
{
    if (kForceLostRace && !tEmptyingQueue) {
        tEmptyingQueue = true;
        while (loadAcquire(&s->cursor))
            sampler_runbatch(s, state, parms);
        tEmptyingQueue = false;
    }
    mi_lock(s->lock);
    Sample *first = s->cursor;
    if (!first) {
        mi_unlock(s->lock);
        return;
    }
    Sample *last = first;
    for (int n = 1; n < s->batch && last->next; ++n)
        last = last->next;
    storeRelease(&s->cursor, last->next);
    addAtomic(&s->running, 1);
    mi_unlock(s->lock);
    Sample *const end = last->next;

    /* ---- set-up, once per batch */
    BaseShaderState *base = drux::baseShaderState(state);
    parms->useLights = (base && base->mode == 6) ? 0 : 1;
    const miOptions *opt = state->options;
    parms->useIndirect = (opt && (opt->finalgather != 0 || opt->caustic != 0 || opt->globillum != 0)) ? 1 : 0;

    miScalar matrix[16];
    BoxList boxes;
    readInstance(state->instance, matrix, boxes);
    TriangleIndex triangles(&boxes);

    miState local;
    miState *child = state->spare ? state->spare : &local;
    std::memcpy(child, state, sizeof(miState));
    parms->nLights = 0;
    parms->lights = nullptr;
    if (parms->useLights)
        mi_instance_lightlist(&parms->nLights, &parms->lights, state);

    /* Lists of the rebuilt state; entries a box does not fill read as zero. */
    miVector texBuf[kMaxTexSpaces] = {};
    miVector bumpX[kMaxBumps] = {};
    miVector bumpY[kMaxBumps] = {};
    miVector derivBuf[2] = {};
    miState spareScratch;
    std::memset(&spareScratch, 0, sizeof spareScratch);
    child->refraction_level += 1;
    child->parent = state;
    child->child = nullptr;
    child->scanline = 0;
    child->inv_normal = 0;
    child->pri = nullptr; /* renderer bookkeeping of a ray hit: none for a sampled point */
    child->pri_idx = 0;
    child->spare = &spareScratch;
    child->tex_list = texBuf;
    child->bump_x_list = bumpX;
    child->bump_y_list = bumpY;
    child->derivs = derivBuf;

    miIrrad_options irradOpt{};
    const bool haveIrradOpt = parms->useIndirect && irradianceOptionsFromUserdata(state->instance, irradOpt);
    const bool shadowTolerance = opt && opt->shadow_tolerance != 0;

    /* ---- per point */
    for (Sample *smp = first; smp != end; smp = smp->next) {
        const float b1 = smp->w[0], b2 = smp->w[1];
        int ordinal;
        std::memcpy(&ordinal, &smp->w[2], sizeof ordinal);
        const float b0 = 1.0f - b1 - b2;
        child->point = smp->P;
        child->bary[0] = b0;
        child->bary[1] = b1;
        child->bary[2] = b2;
        child->bary[3] = 0.0f;

        miVector N{0, 0, 0}, Ng{0, 0, 0};
        miTag boxTag = 0;
        miUint localTri = 0;
        const void *box = triangles.find(ordinal, boxTag, localTri);
        const float *rec[3] = {nullptr, nullptr, nullptr};
        if (box && !BoxView(box).triangle(localTri, rec)) {
            mi_db_unpin(boxTag);
            box = nullptr;
        }
        if (box) {
            const BoxView view(box);
            const unsigned char *b = view.b;
            miVector Va, Vb, Vc;
            const miVector pa = position(rec[0]), pb = position(rec[1]), pc = position(rec[2]);
            mi_point_transform(&Va, &pa, matrix);
            mi_point_transform(&Vb, &pb, matrix);
            mi_point_transform(&Vc, &pc, matrix);
            Ng = drux::cross(Vb - Va, Vc - Va);
            drux::normalize(Ng);

            const unsigned normalPos = b[miBOX_NORMAL_POS];
            if (normalPos) {
                const miVector n = interp(rec[0], rec[1], rec[2], normalPos, b0, b1, b2);
                mi_vector_transform_T(&N, &n, matrix);
                drux::normalize(N);
                if (b[miBOX_NORMAL_BLEND]) {
                    const float f = b[miBOX_NORMAL_BLEND] / 255.0f;
                    N = (1.0f - f) * N + f * Ng;
                    drux::normalize(N);
                }
                if (shadowTolerance) {
                    const miVector *V[3] = {&Va, &Vb, &Vc};
                    double best = 0.0;
                    for (int i = 0; i < 3; ++i) {
                        const double d = static_cast<double>(V[i]->x) * N.x + static_cast<double>(V[i]->y) * N.y +
                                         static_cast<double>(V[i]->z) * N.z;
                        if (i == 0 || d > best)
                            best = d;
                    }
                    const double p = static_cast<double>(child->point.x) * N.x +
                                     static_cast<double>(child->point.y) * N.y +
                                     static_cast<double>(child->point.z) * N.z;
                    child->shadow_tol = best - p;
                } else {
                    child->shadow_tol = 0.0;
                }
            } else {
                N = Ng;
                child->shadow_tol = 0.0;
            }

            const unsigned motionCount = b[miBOX_MOTION_COUNT];
            if (motionCount) {
                miVector m = interp(rec[0], rec[1], rec[2], b[miBOX_MOTION_POS], b0, b1, b2);
                if (motionCount > 1)
                    m = m * static_cast<float>(motionCount);
                mi_vector_transform(&child->motion, &m, matrix);
            } else {
                child->motion = miVector{0, 0, 0};
            }

            const int nTex = b[miBOX_TEXTURE_COUNT] < kMaxTexSpaces ? b[miBOX_TEXTURE_COUNT] : kMaxTexSpaces;
            if (nTex > 0) {
                const unsigned char *sizes = b + readAt<miUint>(b, miBOX_TEXSIZES);
                unsigned pos = b[miBOX_TEXTURE_POS];
                for (int i = 0; i < nTex; ++i) {
                    const miUint size = readAt<miUint>(sizes, static_cast<size_t>(i + 1) * 4) -
                                        readAt<miUint>(sizes, static_cast<size_t>(i) * 4);
                    miVector t{0, 0, 0};
                    if (size >= 1 && size <= 3) {
                        float *tc = &t.x;
                        for (miUint k = 0; k < size; ++k)
                            tc[k] = b0 * rec[0][pos + k] + b1 * rec[1][pos + k] + b2 * rec[2][pos + k];
                    }
                    texBuf[i] = t;
                    pos += size;
                }
            }

            const int bumpPairs = b[miBOX_BUMP_COUNT] / 2 < kMaxBumps ? b[miBOX_BUMP_COUNT] / 2 : kMaxBumps;
            for (int i = 0; i < bumpPairs; ++i) {
                const unsigned pos = b[miBOX_BUMP_POS] + 6u * static_cast<unsigned>(i);
                bumpX[i] = interp(rec[0], rec[1], rec[2], pos, b0, b1, b2);
                bumpY[i] = interp(rec[0], rec[1], rec[2], pos + 3, b0, b1, b2);
            }
            /* The bump bases available at this point (query 137). */
            child->num_bumps = bumpPairs;

            const unsigned derivPos = b[miBOX_DERIV_POS];
            if (derivPos) {
                const miVector du = interp(rec[0], rec[1], rec[2], derivPos, b0, b1, b2);
                const miVector dv = interp(rec[0], rec[1], rec[2], derivPos + 3, b0, b1, b2);
                mi_vector_transform(&derivBuf[0], &du, matrix);
                mi_vector_transform(&derivBuf[1], &dv, matrix);
            } else {
                derivBuf[0] = derivBuf[1] = miVector{0, 0, 0};
            }
            mi_db_unpin(boxTag);
        } else {
            /* No triangle for this point (a broken record): it stays black. */
            smp->w[0] = smp->w[1] = smp->w[2] = 0.0f;
            continue;
        }

        /* viewing direction from the caller's ray origin */
        const miVector d = child->point - state->org;
        const float len = drux::length(d);
        child->dist = len;
        child->dir = len > KELU_EPS ? d * (1.0f / len) : d;
        float dot = drux::dot(child->dir, N);
        if (dot > 0.0f) {
            N = N * -1.0f;
            Ng = Ng * -1.0f;
            dot = -dot;
            child->inv_normal = 1;
        } else {
            child->inv_normal = 0;
        }
        child->normal = N;
        child->normal_geom = Ng;
        child->dot_nd = dot;
        mi_flush_cache(child);

        const miColor color = drux::evalValue(child, parms->color);
        const float diffuse = drux::evalValue(child, parms->diffuse);
        miColor out{0, 0, 0, 0};

        if (drux::isConnected(child, parms->normalOverride)) {
            N = drux::evalValue(child, parms->normalOverride);
            const float ng = drux::dot(N, Ng);
            if (ng < 0.0f) {
                N = N + (0.0015f - ng) * Ng;
                drux::normalize(N);
            }
            child->normal = N;
            child->dot_nd = drux::dot(child->dir, N);
        }

        if (parms->useLights) {
            const float translucence = drux::evalValue(child, parms->translucence);
            float focus = 0.0f, wrap = 0.0f;
            if (translucence != 0.0f) {
                focus = drux::evalValue(child, parms->focus);
                wrap = drux::evalValue(child, parms->wrap);
            }
            for (int li = 0; li < parms->nLights; ++li) {
                BaseShaderState *cb = drux::baseShaderState(child);
                LightData fallback = defaultLightDataArray;
                if (cb)
                    cb->lightData = defaultLightDataArray;
                miColor sum = KELU_BLACK;
                miColor lc{0, 0, 0, 0};
                miVector ldir{0, 0, 0};
                miScalar cosine = 0.0f;
                miInteger nSamples = 0;
                while (mi_sample_light(&lc, &ldir, &cosine, child, parms->lights[li], &nSamples)) {
                    const LightData &ld = cb ? cb->lightData : fallback;
                    float w = ld.addConstant ? 1.0f : 0.0f;
                    if (ld.addLambert) {
                        if (ld.corners)
                            cosine = arealight_lambertian_reflect(&child->point, &child->normal, ld.corners);
                        if (cosine > 0.0f)
                            w += diffuse * cosine;
                        if (translucence != 0.0f)
                            w += compute_lambert_translucence(child, &ldir, ld.corners, cosine, translucence,
                                                              focus, wrap);
                    }
                    sum.r += w * lc.r;
                    sum.g += w * lc.g;
                    sum.b += w * lc.b;
                }
                if (nSamples != 0) {
                    out.r += sum.r / static_cast<float>(nSamples);
                    out.g += sum.g / static_cast<float>(nSamples);
                    out.b += sum.b / static_cast<float>(nSamples);
                }
            }
            out.r *= color.r;
            out.g *= color.g;
            out.b *= color.b;
        }

        if (parms->useIndirect) {
            const miColor tint = drux::evalValue(child, parms->irradianceTint);
            const float tr = color.r * diffuse * tint.r;
            const float tg = color.g * diffuse * tint.g;
            const float tb = color.b * diffuse * tint.b;
            if (!(tr < KELU_EPS && tg < KELU_EPS && tb < KELU_EPS)) {
                miColor L{0, 0, 0, 0};
                if (drux::isConnected(child, parms->irradiance)) {
                    L = drux::evalValue(child, parms->irradiance);
                } else {
                    miIrrad_options o = irradOpt;
                    mi_compute_avg_radiance(&L, child, 'f', haveIrradOpt ? &o : nullptr);
                }
                out.r += tr * L.r;
                out.g += tg * L.g;
                out.b += tb * L.b;
            }
        }

        smp->w[0] = out.r;
        smp->w[1] = out.g;
        smp->w[2] = out.b;
    }

    mi_lock(s->lock);
    addAtomic(&s->running, -1);
    mi_unlock(s->lock);
}

/* Run a queue until every point is taken and every batch has finished. */
void drainSampler(Sampler *s, miState *state, SamplerParms *parms)
{
    EvaluatingScope scope;
    while (loadAcquire(&s->cursor) || loadAcquire(&s->running)) {
        if (loadAcquire(&s->cursor))
            sampler_runbatch(s, state, parms);
        else
            std::this_thread::yield(); /* other threads finish their batches */
    }
}

/* ------------------------------------------------------------ claims (cache lock held) */

/* The claim list's room is kept in its own allocation, in a header just
   before the first entry, so that growing a list needs nothing outside the
   cache's memory: the cache record has no field for it. */
struct ClaimHeader {
    int room;
    int unused;
};
static_assert(sizeof(ClaimHeader) == sizeof(Claim), "the header takes the place of one entry");

Claim *allocateClaims(int room)
{
    ClaimHeader *h = static_cast<ClaimHeader *>(mi_mem_int_allocate(
        kFile, kLineClaims, sizeof(ClaimHeader) + static_cast<size_t>(room) * sizeof(Claim)));
    h->room = room;
    h->unused = 0;
    return reinterpret_cast<Claim *>(h + 1);
}

void releaseClaims(Claim *claims)
{
    if (claims)
        mi_mem_int_release(kFile, kLineFreeClaims, reinterpret_cast<ClaimHeader *>(claims) - 1);
}

int claimRoom(const Claim *claims) { return (reinterpret_cast<const ClaimHeader *>(claims) - 1)->room; }

void appendClaim(ScatterCache *c, int slot, int fill)
{
    const int room = claimRoom(c->claims);
    if (c->claimCount == room) {
        /* More lookups in flight than the list has room for: grow it.  The
           list is only touched under the cache lock, so the swap is safe. */
        Claim *moved = allocateClaims(room * 2);
        std::memcpy(moved, c->claims, static_cast<size_t>(c->claimCount) * sizeof(Claim));
        releaseClaims(c->claims);
        c->claims = moved;
    }
    c->claims[c->claimCount].slot = slot;
    c->claims[c->claimCount].fill = fill;
    ++c->claimCount;
}

/* Index of a claim on slot (fill: 0 read, 1 fill, -1 any), or -1. */
int findClaim(const ScatterCache *c, int slot, int fill)
{
    for (int i = 0; i < c->claimCount; ++i)
        if (c->claims[i].slot == slot && (fill < 0 || c->claims[i].fill == fill))
            return i;
    return -1;
}

void removeClaimAt(ScatterCache *c, int i)
{
    c->claims[i] = c->claims[c->claimCount - 1];
    --c->claimCount;
}

void releaseReadClaim(ScatterCache *c, int slot)
{
    mi_lock(c->lock);
    const int i = findClaim(c, slot, 0);
    if (i >= 0)
        removeClaimAt(c, i);
    mi_unlock(c->lock);
}

/* Append a read claim on slot unless a fill claim is listed; with wait, poll
   until that succeeds. */
bool takeReadClaim(ScatterCache *c, int slot, bool wait)
{
    for (;;) {
        mi_lock(c->lock);
        if (findClaim(c, slot, 1) < 0) {
            appendClaim(c, slot, 0);
            mi_unlock(c->lock);
            return true;
        }
        mi_unlock(c->lock);
        if (!wait)
            return false;
        std::this_thread::yield();
    }
}

/* Poll until no claim on slot is listed, then append a fill claim. */
void takeFillClaim(ScatterCache *c, int slot)
{
    for (;;) {
        mi_lock(c->lock);
        if (findClaim(c, slot, -1) < 0) {
            appendClaim(c, slot, 1);
            mi_unlock(c->lock);
            return;
        }
        mi_unlock(c->lock);
        std::this_thread::yield();
    }
}

/* ------------------------------------------------------------ iteration */

/* Full grid: make sure cell k's points exist and carry their irradiance, and
   return its list (null when it has no usable points). */
Sample *prepareGridCell(GridIt *it, int k)
{
    ScatterCache *c = it->cache;
    if (!loadAcquire(&c->pool)) {
        if (it->readOnly)
            return nullptr;
        mi_lock(c->lock);
        if (!c->pool) {
            miMemblk *pool = mi_mem_int_blkcreate(kFile, kLineGridPool, sizeof(Sample));
            GridInsertContext ctx{c, pool};
            sampler_scaninst(it->state, areaPerSample(c), grid_insert, &ctx);
            storeRelease(&c->pool, pool);
        }
        mi_unlock(c->lock);
    }
    GridCell *cell = &c->cells[k];
    Sample *head = cell->head; /* filed before the pool was published */
    if (!head || loadAcquire(&cell->done))
        return head;
    if (it->readOnly)
        return nullptr; /* not evaluated yet, and a nested lookup must not wait */

    /* Another thread is evaluating a cell: help with its batches meanwhile. */
    while (loadAcquire(&c->busy)) {
        if (loadAcquire(&c->sampler.cursor)) {
            EvaluatingScope scope;
            sampler_runbatch(&c->sampler, it->state, it->parms);
        } else {
            std::this_thread::yield();
        }
    }

    mi_lock(c->lock);
    addAtomic(&c->busy, 1);
    if (!cell->done) {
        mi_lock(c->sampler.lock);
        storeRelease(&c->sampler.running, 0);
        c->sampler.batch = kBatch;
        storeRelease(&c->sampler.cursor, head);
        mi_unlock(c->sampler.lock);
        drainSampler(&c->sampler, it->state, it->parms);
        storeRelease(&cell->done, 1);
    }
    addAtomic(&c->busy, -1);
    mi_unlock(c->lock);
    return head;
}

/* Hash mode: hold a read claim on cell k's slot with the slot holding cell
   k's evaluated points, refilling it first if needed.  Returns the slot's
   list; it->claimed names the slot while the claim is held. */
Sample *prepareHashCell(GridIt *it, int k)
{
    ScatterCache *c = it->cache;
    const int s = k % c->slotCount;
    GridCell *slot = &c->cells[s];

    if (it->readOnly) {
        if (!takeReadClaim(c, s, false))
            return nullptr; /* being refilled (possibly by this very thread) */
        if (slot->stamp != k + 1) {
            releaseReadClaim(c, s);
            return nullptr;
        }
        it->claimed = s;
        return slot->head;
    }

    takeReadClaim(c, s, true);
    it->claimed = s;
    if (slot->stamp == k + 1)
        return slot->head;

    /* Turn the read claim into a fill claim. */
    releaseReadClaim(c, s);
    it->claimed = -1;
    takeFillClaim(c, s);
    if (slot->stamp != k + 1) {
        const int ix = k % c->nx;
        const int q = k / c->nx;
        const int iy = q % c->ny;
        const int iz = q / c->ny;
        HashInsertContext ctx;
        ctx.box[0] = static_cast<float>(ix) * c->cellSize + c->origin.x;
        ctx.box[1] = static_cast<float>(iy) * c->cellSize + c->origin.y;
        ctx.box[2] = static_cast<float>(iz) * c->cellSize + c->origin.z;
        ctx.box[3] = ctx.box[0] + c->cellSize;
        ctx.box[4] = ctx.box[1] + c->cellSize;
        ctx.box[5] = ctx.box[2] + c->cellSize;
        ctx.pool = c->pool;
        ctx.slot = slot;
        for (Sample *p = slot->head; p;) {
            Sample *next = p->next;
            mi_mem_blkrelease(c->pool, p);
            p = next;
        }
        slot->head = nullptr;
        slot->stamp = 0;

        Sampler local;
        mi_init_lock(&local.lock);
        sampler_scaninst(it->state, areaPerSample(c), hash_insert, &ctx);
        local.running = 0;
        local.batch = kBatch;
        local.cursor = slot->head;
        drainSampler(&local, it->state, it->parms);
        mi_delete_lock(&local.lock);
        slot->stamp = k + 1;
    }
    mi_lock(c->lock);
    const int i = findClaim(c, s, 1);
    if (i >= 0)
        c->claims[i].fill = 0;
    mi_unlock(c->lock);
    it->claimed = s;
    return slot->head;
}

/* Advance to the next cached point within the cache's radius of it->P, or to
   the end (cur == count). */
void gridit_next(GridIt *it)
{
    ScatterCache *c = it->cache;
    const float r = c->radius;
    const float r2 = r * r;
    Sample *s = it->sample ? it->sample->next : nullptr;
    for (;;) {
        while (!s) {
            if (it->claimed >= 0) {
                releaseReadClaim(c, it->claimed);
                it->claimed = -1;
            }
            it->cur += 1;
            if (it->cur >= it->count) {
                it->cur = it->count;
                return;
            }
            const int k = it->cellList[it->cur];
            s = c->slotCount ? prepareHashCell(it, k) : prepareGridCell(it, k);
        }
        const float dx = s->P.x - it->P->x;
        const float dy = s->P.y - it->P->y;
        const float dz = s->P.z - it->P->z;
        const float d2 = dx * dx + dy * dy + dz * dz;
        if (d2 <= r2) {
            it->dist = std::sqrt(d2);
            it->sample = s;
            return;
        }
        s = s->next;
    }
}

/* ------------------------------------------------------------ cache creation */

/* Integer cell coordinate of a query position, or false when it is so far
   outside the grid that no neighbour can be inside. */
bool queryCoord(float p, float o, float size, long long &out)
{
    const float q = (p - o) / size;
    if (!(q > -1.0e9f && q < 1.0e9f))
        return false;
    out = static_cast<long long>(q);
    return true;
}

ScatterCache *buildCache(miState *state, float radius, int samples, int cacheSize)
{
    miVector lo{0, 0, 0}, hi{0, 0, 0};
    if (!mi_query(miQ_INST_BBOX_MIN, state, 0, &lo) || !mi_query(miQ_INST_BBOX_MAX, state, 0, &hi))
        return nullptr; /* no box to cover: no cache (the lookup returns black) */
    const miVector origin{lo.x - KELU_EPS, lo.y - KELU_EPS, lo.z - KELU_EPS};
    const miVector extent{(hi.x + KELU_EPS) - origin.x, (hi.y + KELU_EPS) - origin.y, (hi.z + KELU_EPS) - origin.z};
    if (!std::isfinite(extent.x) || !std::isfinite(extent.y) || !std::isfinite(extent.z) || extent.x < 0.0f ||
        extent.y < 0.0f || extent.z < 0.0f)
        return nullptr; /* an empty or unbounded box cannot be gridded */

    const long long budget = cacheSize == 0 ? kGridBudget : kHashBudget;
    float edge = radius;
    long long n[3];
    for (;;) {
        const float ext[3] = {extent.x, extent.y, extent.z};
        bool fits = true;
        for (int a = 0; a < 3; ++a) {
            const float q = ext[a] / edge;
            if (!(q < 2147483646.0f)) {
                fits = false; /* more cells on one axis than any budget */
                n[a] = 0;
            } else {
                n[a] = static_cast<long long>(q) + 1;
            }
        }
        if (fits && budget / n[0] / n[1] / n[2] != 0)
            break;
        edge *= kGrowth;
    }

    ScatterCache *c = static_cast<ScatterCache *>(mi_mem_int_allocate(kFile, kLineCache, sizeof(ScatterCache)));
    std::memset(static_cast<void *>(c), 0, sizeof(ScatterCache));
    mi_init_lock(&c->lock);
    c->busy = 0;
    c->origin = origin;
    c->nx = static_cast<int>(n[0]);
    c->ny = static_cast<int>(n[1]);
    c->nz = static_cast<int>(n[2]);
    c->cellSize = edge;
    const long long cellCount = n[0] * n[1] * n[2];
    if (cacheSize == 0) {
        const size_t bytes = static_cast<size_t>(cellCount) * sizeof(GridCell);
        c->cells = static_cast<GridCell *>(mi_mem_int_allocate(kFile, kLineGridCells, bytes));
        std::memset(static_cast<void *>(c->cells), 0, bytes);
    } else {
        /* Cell k lives in slot k mod slotCount.  The table has the slots
           the caller asked for, also when the grid has fewer cells. */
        c->slotCount = cacheSize;
        c->claims = allocateClaims(kClaimRoom);
        const size_t bytes = static_cast<size_t>(c->slotCount) * sizeof(GridCell);
        c->cells = static_cast<GridCell *>(mi_mem_int_allocate(kFile, kLineHashCells, bytes));
        std::memset(static_cast<void *>(c->cells), 0, bytes);
        c->pool = mi_mem_int_blkcreate(kFile, kLineHashPool, sizeof(Sample));
    }
    mi_init_lock(&c->sampler.lock);
    c->radius = radius;
    c->samples = samples;
    c->instance = state->instance;
    return c;
}

ScatterCache *findCache(ScatterCache *head, miTag instance)
{
    for (ScatterCache *c = head; c; c = c->next)
        if (c->instance == instance)
            return c;
    return nullptr;
}

} // namespace

/* ------------------------------------------------------------ public entry */

extern "C" DRUX_API void compute_scatter(miColor *result, miColor *scale, float *radius, int *samples, int *falloff,
                                         int *maxDepth, int *cacheSize, float *diffuse, miColor *color,
                                         float *translucence, float *focus, float *wrap, miVector *normalOverride,
                                         miColor *irradiance, miColor *irradianceTint, miState *state,
                                         ScatterCache **cache)
{
    *result = KELU_BLACK;
    const float r = drux::evalValue(state, radius);
    if (!(r > 0.0f))
        return;
    const int n = drux::evalValue(state, samples);
    if (!(n > 0))
        return;
    const int depthLimit = drux::evalValue(state, maxDepth);
    if (!(drux::rayDepth(state) < depthLimit))
        return;
    int geometry = 0;
    if (!mi_query(miQ_INST_GEOMETRY, state, 0, &geometry))
        return;
    if (drux::queryFlag(miQ_PRECOMPUTE_PASS, state))
        return;
    const int mode = drux::evalValue(state, falloff);
    int slots = drux::evalValue(state, cacheSize);
    if (!cache)
        return;
    /* A negative cache size is a caller's error; it is served as a full grid. */
    if (slots < 0)
        slots = 0;

    ScatterCache *c = findCache(__atomic_load_n(cache, __ATOMIC_ACQUIRE), state->instance);
    if (!c) {
        /* query 52 yields a pointer to the lock variable */
        miLock *creationp = nullptr;
        if (!mi_query(miQ_SHADER_CACHE_LOCK, state, 0, &creationp) || !creationp || !*creationp)
            return;
        const miLock creation = *creationp;
        mi_lock(creation);
        ScatterCache *head = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
        c = findCache(head, state->instance);
        if (!c) {
            c = buildCache(state, r, n, slots);
            if (c) {
                c->next = head;
                __atomic_store_n(cache, c, __ATOMIC_RELEASE);
            }
        }
        mi_unlock(creation);
        if (!c)
            return;
    }

    SamplerParms parms;
    parms.diffuse = diffuse;
    parms.color = color;
    parms.translucence = translucence;
    parms.focus = focus;
    parms.wrap = wrap;
    parms.normalOverride = normalOverride;
    parms.irradiance = irradiance;
    parms.irradianceTint = irradianceTint;
    parms.useLights = 0;
    parms.useIndirect = 0;
    parms.nLights = 0;
    parms.lights = nullptr;

    GridIt it;
    it.count = 0;
    long long ix, iy, iz;
    if (queryCoord(state->point.x, c->origin.x, c->cellSize, ix) &&
        queryCoord(state->point.y, c->origin.y, c->cellSize, iy) &&
        queryCoord(state->point.z, c->origin.z, c->cellSize, iz)) {
        for (long long x = ix - 1; x <= ix + 1; ++x)
            for (long long y = iy - 1; y <= iy + 1; ++y)
                for (long long z = iz - 1; z <= iz + 1; ++z)
                    if (x >= 0 && x < c->nx && y >= 0 && y < c->ny && z >= 0 && z < c->nz)
                        it.cellList[it.count++] = static_cast<int>(x + (y + z * c->ny) * c->nx);
    }
    it.cur = -1;
    it.sample = nullptr;
    it.P = &state->point;
    it.state = state;
    it.parms = &parms;
    it.cache = c;
    it.dist = 0.0f;
    it.claimed = -1;
    it.readOnly = tEvaluating > 0 ? 1 : 0;

    float sum = 0.0f;
    miColor acc{0, 0, 0, 0};
    for (;;) {
        gridit_next(&it);
        if (it.cur == it.count)
            break;
        const float d = it.dist;
        float w;
        switch (mode) {
        case 0: w = 1.0f; break;
        case 1: w = 1.0f - d / r; break;
        case 2: {
            const float f = 1.0f - d / r;
            w = f * f;
            break;
        }
        case 3: w = std::exp(d / (r * -0.08686f)); break;
        default: w = 0.0f; break;
        }
        if (w > KELU_EPS) {
            acc.r += w * it.sample->w[0];
            acc.g += w * it.sample->w[1];
            acc.b += w * it.sample->w[2];
            sum += w;
        }
    }
    if (sum > KELU_EPS) {
        const miColor k = drux::evalValue(state, scale);
        result->r = (k.r / sum) * acc.r;
        result->g = (k.g / sum) * acc.g;
        result->b = (k.b / sum) * acc.b;
        result->a = 0.0f;
    } else {
        *result = KELU_BLACK;
    }
}

extern "C" DRUX_API void destroy_scatter(miState *, ScatterCache **cache)
{
    if (!cache)
        return;
    ScatterCache *c = *cache;
    while (c) {
        ScatterCache *next = c->next;
        mi_delete_lock(&c->lock);
        mi_delete_lock(&c->sampler.lock);
        if (c->pool)
            mi_mem_blkdelete(c->pool);
        if (c->slotCount)
            releaseClaims(c->claims);
        mi_mem_int_release(kFile, kLineFreeCells, c->cells);
        mi_mem_int_release(kFile, kLineFreeCache, c);
        c = next;
    }
    *cache = nullptr;
}
