/*
 * Host and test side of the renderer runtime.
 *
 * shader.h is what a shader library sees; this header is what the program
 * that plays the renderer uses: it creates database items, sets up a render
 * context (options, camera, frame buffers, lights, a scene to trace), runs
 * rendering states through their life cycle and inspects what happened
 * (pins, live memory per source-file tag, messages).
 *
 * Process-wide: the database, memory accounting, messages, the global lock
 * and the random generator (mi_db_access etc. take no state).  Per render:
 * a Context.  A state belongs to one Context and one thread.
 */
#ifndef MI_RUNTIME_H
#define MI_RUNTIME_H

#include "shader.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mirt {

/* ------------------------------------------------------------- database */

/* A new zero-filled item of `size` bytes; not pinned. */
MI_API miTag db_create(int type, size_t size);
/* Item data without pinning (for builders and tests); null for an unknown tag. */
MI_API void *db_data(miTag tag);
MI_API size_t db_size(miTag tag);
/* Replace an item's size (contents kept up to the smaller size, rest zero). */
MI_API void *db_resize(miTag tag, size_t size);
MI_API void db_delete(miTag tag);
/* A miSCENE_STRING item holding `text` with its terminating zero. */
MI_API miTag db_create_string(const char *text);
/* A miSCENE_DATA item whose parameters (from byte 0) are a copy of `data`. */
MI_API miTag db_create_data(const void *data, size_t size);
/* A miSCENE_USERDATA block: `params` (starting with the magic word) copied
   to byte 24; `next` is the next block of the chain. */
MI_API miTag db_create_userdata(const void *params, size_t size, miTag next);
/* Pins of one item, and the sum over all items. */
MI_API int db_pin_count(miTag tag);
MI_API long db_total_pins();
MI_API std::vector<miTag> db_pinned();
/* How often an item was accessed (mi_db_access / mi_db_access_type). */
MI_API uint64_t db_access_count(miTag tag);

/* ------------------------------------------------------------- memory */

/* Live bytes allocated under a source-file tag (mi_mem_int_allocate and
   block allocators created under it). */
MI_API int64_t mem_live_bytes(const std::string &file);
MI_API int64_t mem_live_bytes_total();
/* Number of allocations made so far (any tag, including block allocations). */
MI_API uint64_t mem_allocation_count();
struct MemEvent {
    std::string file;
    int line;
    bool release;  /* false: allocation, true: release */
    int64_t bytes; /* size of the allocation concerned */
};
/* Allocation/release events of mi_mem_int_allocate/_release/_blkcreate since
   the last clear (block element allocations are not listed). */
MI_API std::vector<MemEvent> mem_events();
MI_API void mem_clear_events();

/* ------------------------------------------------------------- messages */

enum class Level { Fatal, Error, Warning, Info };
struct Message {
    Level level;
    std::string text; /* after printf-style formatting */
};
MI_API std::vector<Message> messages();
MI_API void clear_messages();
/* Also print messages to stderr as they arrive (host renderer). */
MI_API void set_echo_messages(bool on);
/* Thrown by mi_fatal after logging. */
struct FatalError {
    std::string text;
};
/* Called by mi_fatal with the message (logged, not echoed) before it
   throws.  A renderer whose render threads may hold runtime locks when a
   shader fails fatally gives a handler that ends the process (_exit):
   unwinding such a thread would leave the lock held and the other threads
   waiting in mi_lock for ever.  A handler that returns lets mi_fatal echo
   and throw as without one; nullptr removes it. */
using FatalHandler = void (*)(const std::string &text);
MI_API void set_fatal_handler(FatalHandler handler);

/* ------------------------------------------------------------- random */

/* Number of mi_random draws since process start. */
MI_API uint64_t random_draw_count();

/* ------------------------------------------------------------- shaders */

/*
 * A miSCENE_FUNCTION item.  The parameter block is `param_size` bytes copied
 * from `params` (zeros when null); when `connectable`, a connection word
 * follows each parameter word at ghost_offs = param_size rounded up to 4.
 */
MI_API miTag make_function(int type, miShader_fn fn, const void *params, int param_size,
                           int result_size, bool connectable, const char *name);
MI_API miFunction *function(miTag tag);
/* Connect the parameter at byte `param_offset` of `fn`'s block to the shader `source`:
   mi_phen_eval then calls `source` and returns its result. */
MI_API void connect(miTag fn, size_t param_offset, miTag source);
/* Call a shader's _init the way the renderer does (params null: for the shader
   as a whole), with the state's current shader set to `fn`. */
using InitFn = void (*)(miState *, void *, miBoolean *);
MI_API miBoolean call_init(miState *state, miTag fn, InitFn init);

/* ------------------------------------------------------------- scene */

/* A ray hit, as a Scene reports it. */
struct Hit {
    double dist = 0;               /* ray parameter of the hit */
    miTag instance = 0;
    miVector point{}, normal{}, normal_geom{};
    miScalar bary[4] = {0, 0, 0, 0};
    void *pri = nullptr;           /* box record of the hit triangle */
    int pri_idx = 0;               /* triangle within the box */
    int num_tex = 0;               /* texture spaces filled in tex[] */
    miVector tex[4]{};
    int num_bumps = 0;             /* bump bases filled in bump_x[], bump_y[] (object space) */
    miVector bump_x[4]{}, bump_y[4]{};
    bool has_derivs = false;
    miVector derivs[2]{};
};

/* What rays hit.  The runtime's MeshScene (geometry.h) traces the triangles
   of instances; tests may put in scenes of their own. */
class Scene {
public:
    virtual ~Scene() = default;
    /* Nearest hit with tmin < dist < tmax. */
    virtual bool intersect(const miVector &org, const miVector &dir, double tmin, double tmax,
                           Hit &hit) const = 0;
};

/* ------------------------------------------------------------- context */

/*
 * One render: options, camera and camera instance, frame buffers, string
 * options, lights, state shaders, environment and the scene.  Creating a
 * Context creates its database items; destroying it deletes them.
 */
class Context {
public:
    Context(int width = 8, int height = 8);
    ~Context();
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;

    miOptions &options();
    miCamera &camera();
    miTag options_tag() const;
    miTag camera_tag() const;
    miTag camera_instance() const;
    int width() const;
    int height() const;
    void set_camera_transform(const miMatrix local_to_global);

    /* Frame buffers: named buffers of the camera's frame-buffer set.
       Indices start at 1; index 0 and unknown indices are rejected by mi_fb_put/get. */
    int add_framebuffer(const std::string &name);
    int framebuffer_count() const;
    miColor fb_pixel(int index, int x, int y) const;
    void set_fb_pixel(int index, int x, int y, const miColor &c);
    void clear_framebuffers();
    /* Sample frame buffers, for a host that filters each sample into its
       own images: the buffers hold no image, only the value of the eye
       sample in progress, one set per eye state (begin_state), which
       mi_fb_put and mi_fb_get reach whatever the raster position; fb_pixel
       reads 0.  Call before add_framebuffer. */
    void use_sample_framebuffers();
    /* The state's sample values (framebuffer_count() of them, index - 1),
       null without sample frame buffers. */
    miColor *sample_framebuffers(const miState *state) const;
    /* Name lookups made through the shader interface so far. */
    uint64_t fb_lookup_count() const;

    /* String options ("kelu allocate temp data on heap", ...). */
    void set_string_option(const std::string &name, int value);

    /* Put a user-data block at the front of the camera's user-data chain. */
    void attach_camera_userdata(miTag block);

    /* Query results the render decides: codes 142, 158 and 161 (defaults
       0, 1 and 1).  A failed query: fail_query. */
    void set_query_int(int code, int value);
    void fail_query(int code);

    /* Scene to trace (not owned); null: every ray misses. */
    void set_scene(const Scene *scene);
    const Scene *scene() const;
    /* Environment shader (miFunction tag) for rays that leave the scene. */
    void set_environment(miTag fn);

    /* Lights.  A light instance whose item is a miLight; `param` is its data
       tag (query 12), e.g. a contribution mask.  Returns the light instance. */
    miTag add_point_light(const miVector &position, miTag shader, miTag param = 0);
    miTag add_rect_light(const miVector &center, const miVector &half_u, const miVector &half_v,
                         int samples, miTag shader, miTag param = 0);
    const std::vector<miTag> &lights() const;

    /* State shaders run at every state operation, in the order added. */
    void add_state_shader(miTag fn);

    /* ---- states */
    /* A new eye state on `thread` with its own shader-state store; runs op 0. */
    miState *begin_state(int thread = 0);
    /* Op 2 for pixel (x, y), sample `sample`. */
    void begin_sample(miState *state, int x, int y, int sample = 0);
    /* Trace the eye ray from the camera through (x + dx, y + dy) or along
       org/dir: material of the hit instance, else environment. */
    miBoolean shade_eye(miState *state, const miVector &org, const miVector &dir, miColor *result);
    /* Op 3 with the sample's shading result. */
    void end_sample(miState *state, miBoolean shaded);
    /* Op 1, then the state is freed. */
    void end_state(miState *state);
    /* Run one operation on every state shader; false if any returned false. */
    miBoolean run_state_op(miState *state, int op, miBoolean shader_return = miTRUE);

    /* mi_compute_avg_radiance calls seen so far (copies of the options record
       passed, size 0 when none was passed). */
    std::vector<miIrrad_options> irradiance_calls() const;
    void clear_irradiance_calls();
    /* Whether those calls are recorded (the default).  A renderer turns it
       off: the record takes a lock and grows a list on every gather. */
    void record_irradiance_calls(bool on);

    struct Impl;
    Impl *impl() const { return impl_.get(); }

private:
    std::unique_ptr<Impl> impl_;
};

/* Shader-interface handles (interfaces, frame-buffer sets, string options)
   obtained and not yet given back. */
MI_API int shader_interface_outstanding();

/* The Context a state belongs to. */
MI_API Context *context_of(miState *state);

/* Reset the process-wide runtime between tests: deletes every database item,
   clears messages and memory events.  No Context may be alive. */
MI_API void reset();

} // namespace mirt

#endif /* MI_RUNTIME_H */
