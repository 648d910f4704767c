/*
 * Renderer shader interface.
 *
 * This is the interface a shader library sees of the renderer: the state
 * record handed to every shader, the scene records a shader may read from the
 * database, and the mi_* calls.  The runtime in this directory implements it
 * (see runtime.h for the host/test side).
 *
 * Every record whose bytes a shader library reads at fixed offsets is pinned
 * with static_assert below; fields not listed in those asserts are ours.
 */
#ifndef MI_SHADER_H
#define MI_SHADER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define MI_EXTERN_C extern "C"
#define MI_BEGIN_C extern "C" {
#define MI_END_C }
#else
#define MI_EXTERN_C
#define MI_BEGIN_C
#define MI_END_C
#endif

#define MI_API __attribute__((visibility("default")))

/* ------------------------------------------------------------------ types */

typedef int miBoolean;
#define miFALSE 0
#define miTRUE 1

typedef int miInteger;
typedef unsigned int miUint;
typedef unsigned short miUshort;
typedef unsigned char miUchar;
typedef float miScalar;
typedef double miGeoScalar;
typedef uint64_t miUlong;
typedef miUint miTag; /* database handle; 0 = none */

typedef struct miVector {
    miScalar x, y, z;
} miVector;

typedef struct miColor {
    miScalar r, g, b, a;
} miColor;

typedef miScalar miMatrix[16]; /* row-major, row vectors: p' = p * M */

typedef struct miLockRec *miLock;     /* a real mutex */
typedef struct miMemblkRec miMemblk;  /* fixed-size block allocator */

/* Ray types (miState::type). */
enum miRay_type {
    miRAY_EYE = 0,
    miRAY_TRANSPARENT = 1,
    miRAY_REFLECT = 2,
    miRAY_REFRACT = 3,
    miRAY_LIGHT = 4,
    miRAY_SHADOW = 5,
    miRAY_ENVIRONMENT = 6,
    miRAY_FINALGATHER = 7,
    miRAY_NONE = 8
};

/* Shader types (miFunction::type, mi_call_shader_x, query 140). */
enum miShader_type {
    miSHADER_LENS = 0,
    miSHADER_MATERIAL = 1,
    miSHADER_LIGHT = 2,
    miSHADER_SHADOW = 3,
    miSHADER_ENVIRONMENT = 4,
    miSHADER_VOLUME = 5,
    miSHADER_TEXTURE = 6,
    miSHADER_OTHER = 7,
    miSHADER_STATE = 15
};

/* Database item types (mi_db_type). */
enum miScene_type {
    miSCENE_NONE = 0,
    miSCENE_STRING = 1,     /* zero-terminated text */
    miSCENE_FUNCTION = 2,   /* miFunction: a shader with its parameters */
    miSCENE_CAMERA = 3,     /* miCamera */
    miSCENE_OPTIONS = 4,    /* miOptions */
    miSCENE_LIGHT = 5,      /* miLight */
    miSCENE_BOX = 6,        /* triangle box, see miBox_* offsets */
    miSCENE_OBJECT = 7,     /* miObject */
    miSCENE_FBSET = 8,      /* frame-buffer set (names -> indices) */
    miSCENE_STRINGOPTS = 9, /* string options (name -> value) */
    miSCENE_INSTANCE = 10,  /* miInstance */
    miSCENE_DATA = 11,      /* plain data: parameters from byte 0 */
    miSCENE_USERDATA = 34,  /* miUserdata, parameters from byte 24 */
    miSCENE_GEOLIST = 42    /* geometry list */
};

/* Query codes (mi_query). */
enum miQ_code {
    miQ_INST_GLOBAL_TO_LOCAL = 4, /* matrix* : internal -> instance-local space (tag = instance) */
    miQ_DATA_PARAM = 12,          /* void*   : parameter area of a data item (tag) */
    miQ_SHADER_CACHE_LOCK = 52,   /* miLock* : lock serialising shared shader caches */
    miQ_INST_BBOX_MIN = 94,       /* miVector: bounding box minimum of the state's instance */
    miQ_INST_BBOX_MAX = 95,       /* miVector: bounding box maximum */
    miQ_INST_GEOMETRY = 116,      /* int     : state's instance carries triangle geometry */
    miQ_NUM_BUMPS = 137,          /* int     : number of bump bases at the shaded point */
    miQ_DERIVS = 138,             /* int     : surface derivatives present */
    miQ_FUNC_TYPE = 140,          /* int     : type of the state's current shader */
    miQ_PRECOMPUTE_PASS = 142,    /* int     : a pass in which blur/scatter/time sampling are skipped */
    miQ_MOTION_BY_RENDERER = 158, /* int     : renderer samples motion itself (default 1) */
    miQ_FB_RECORDS = 161          /* int     : 1 when frame-buffer records are usable */
};

/* Operation codes of state shaders. */
enum miShader_state_op {
    miSHADERSTATE_STATE_INIT = 0,
    miSHADERSTATE_STATE_EXIT = 1,
    miSHADERSTATE_SAMPLE_INIT = 2,
    miSHADERSTATE_SAMPLE_EXIT = 3
};

/* Fourth argument of a state shader. */
typedef struct miShader_state_arg {
    int op;                  /* miShader_state_op */
    miBoolean shader_return; /* op 3: the eye sample was shaded successfully */
} miShader_state_arg;

/* Connection word marking a parameter that is explicitly not connected. */
#define miPARAM_UNCONNECTED 0xFFFFFFFEu

struct miState;

/* A shader: result, state, parameter block (state shaders get a 4th arg). */
typedef miBoolean (*miShader_fn)(void *result, struct miState *state, void *params);
typedef miBoolean (*miStateShader_fn)(void *result, struct miState *state, void *params,
                                      miShader_state_arg *arg);

/*
 * Shader record (database type miSCENE_FUNCTION).  Parameter connections:
 * when has_connections is set, every 32-bit word of the parameter block has a
 * connection word at (word address + ghost_offs); a value other than 0 and
 * miPARAM_UNCONNECTED is the tag of the function that computes the parameter.
 */
typedef struct miFunction {
    int type;                 /* miShader_type */
    int result_size;          /* bytes written by the shader into its result */
    miShader_fn fn;           /* the shader */
    void *params;             /* parameter block (followed by its connection words) */
    int param_size;           /* bytes of the parameter block */
    int ghost_offs;           /* offset from a parameter to its connection word */
    miUchar has_connections;  /* non-zero: parameters may be connected */
    miUchar pad[3];
    miTag tag;                /* own tag */
    const char *name;         /* for messages */
} miFunction;

/*
 * The per-ray state.  Every field a shading state needs lies in the first 352
 * bytes: nested work copies exactly those bytes into a spare state.
 */
typedef struct miState {
    int version;                      /*   0 */
    miTag camera_inst;                /*   4 camera instance */
    struct miCamera *camera;          /*   8 */
    struct miOptions *options;        /*  16 */
    miLock global_lock;               /*  24 process-wide lock */
    int thread;                       /*  32 render thread number */
    int type;                         /*  36 miRay_type */
    struct miState *parent;           /*  40 */
    struct miState *child;            /*  48 state of the last traced ray */
    int reflection_level;             /*  56 */
    int refraction_level;             /*  60 */
    miVector org;                     /*  64 ray origin (light shaders: illuminated point) */
    miVector dir;                     /*  76 ray direction (unit) */
    double dist;                      /*  88 ray length to the hit (0: none) */
    double time;                      /*  96 shutter time of the sample */
    miVector point;                   /* 104 intersection point, internal space */
    miVector normal;                  /* 116 shading normal */
    miVector normal_geom;             /* 128 geometric normal */
    miScalar dot_nd;                  /* 140 normal . dir */
    miTag instance;                   /* 144 instance hit / shaded */
    miTag light_instance;             /* 148 light instance (light shaders) */
    miScalar bary[4];                 /* 152 barycentric weights */
    miVector *tex_list;               /* 168 texture coordinates, one per texture space */
    miVector *bump_x_list;            /* 176 bump basis x, one per texture space (object space) */
    miVector *bump_y_list;            /* 184 bump basis y */
    miVector *derivs;                 /* 192 surface derivatives dP/du, dP/dv (internal space) */
    miVector motion;                  /* 200 motion vector */
    int inv_normal;                   /* 212 normals were flipped towards the viewer */
    double shadow_tol;                /* 216 shadow tolerance */
    miScalar ior;                     /* 224 index of refraction of the medium entered */
    miScalar ior_in;                  /* 228 index of refraction of the medium the ray came from */
    miTag volume;                     /* 232 volume shader of the current medium */
    miTag refraction_volume;          /* 236 volume shader for refracted rays */
    miTag environment;                /* 240 environment shader */
    int scanline;                     /* 244 primary ray came from the rasterizer */
    miFunction *shader;               /* 248 current shader */
    struct miState *spare;            /* 256 spare state for nested work */
    void *pri;                        /* 264 renderer bookkeeping: current primitive box */
    int pri_idx;                      /* 272 renderer bookkeeping: primitive index */
    int num_bumps;                    /* 276 bump bases available (query 137) */
    struct miRenderContext *ctx;      /* 280 the render this state belongs to */
    struct miShaderStateStore *shaderstate; /* 288 shader-state store of the eye sample */
    int raster_x;                     /* 296 pixel being sampled */
    int raster_y;                     /* 300 */
    miUint qmc_offset;                /* 304 decorrelation of mi_sample per pixel/sample */
    int sample_index;                 /* 308 eye sample number within the pixel */
    void *user;                       /* 312 free for shaders */
    int user_size;                    /* 320 */
    int reserved_i;                   /* 324 */
    void *reserved_p[3];              /* 328 */
} miState;

/* Camera record (database type miSCENE_CAMERA). */
typedef struct miCamera {
    miTag userdata;       /* 0: head of the camera's user-data chain */
    miTag buffertag;      /* 4: frame-buffer set */
    int x_resolution;     /* 8 */
    int y_resolution;     /* 12 */
    miScalar focal;       /* 16 */
    miScalar aperture;    /* 20 */
    miScalar aspect;      /* 24 */
    miTag environment;    /* 28 camera environment shader */
} miCamera;

/* Options record (database type miSCENE_OPTIONS).  Bytes 80, 84, 355 and 664 are read by offset. */
typedef struct miOptions {
    miBoolean trace;                  /*   0 ray tracing on */
    int reflection_depth;             /*   4 */
    int refraction_depth;             /*   8 */
    int trace_depth;                  /*  12 */
    miColor time_contrast;            /*  16 */
    miScalar shutter_delay;           /*  32 shutter open */
    miScalar shutter;                 /*  36 shutter close */
    char scanline;                    /*  40 'r': rasterizer */
    char pad41[3];
    miTag string_options;             /*  44 */
    int finalgather_rays;             /*  48 */
    miScalar finalgather_maxradius;   /*  52 */
    miScalar finalgather_minradius;   /*  56 */
    miUchar finalgather_view;         /*  60 */
    miUchar finalgather_filter;       /*  61 */
    char pad62[2];
    int globillum_accuracy;           /*  64 */
    miScalar globillum_radius;        /*  68 */
    int caustic_accuracy;             /*  72 */
    miScalar caustic_radius;          /*  76 */
    int caustic;                      /*  80 caustics on */
    int globillum;                    /*  84 global illumination on */
    char reserved88[355 - 88];
    miUchar shadow_tolerance;         /* 355 compute shadow tolerance for scattered points */
    char reserved356[664 - 356];
    int finalgather;                  /* 664 final gathering on */
    int reserved668;
} miOptions;

/* Instance record (database type miSCENE_INSTANCE). */
typedef struct miInstance {
    int flags;                        /*   0 */
    int reserved4;                    /*   4 */
    miMatrix global_to_local;         /*   8 internal -> local */
    miMatrix local_to_global;         /*  72 local (object, light, camera) -> internal */
    miTag material;                   /* 136 material shader (miFunction) */
    miTag shadow;                     /* 140 shadow shader, 0: opaque */
    miTag light_list;                 /* 144 miSCENE_DATA of (int count, miTag lights[]); 0: all lights */
    char reserved148[208 - 148];
    miTag item;                       /* 208 instanced object, light or camera */
    miTag parent;                     /* 212 */
    miTag param;                      /* 216 data item (query 12), e.g. a contribution mask */
    miTag geolist;                    /* 220 geometry list of the object */
    char reserved224[8];
} miInstance;

/* Object record (database type miSCENE_OBJECT). */
typedef struct miObject {
    miTag userdata;                   /*   0 head of the object's user-data chain */
    int visible;                      /*   4 */
    int reserved8;                    /*   8 */
    int type;                         /*  12 0, 1, 4: geometry via the instance's geometry list; 2: one box entry */
    miVector bbox_min;                /*  16 */
    miVector bbox_max;                /*  28 */
    char reserved40[144 - 40];
    miTag box_entry[17];              /* 144 type 2: one entry (68 bytes), word 0 = box tag */
    int reserved212;
} miObject;

/* Geometry list (database type miSCENE_GEOLIST): int count at 0, entries from byte 8. */
#define miGEOLIST_ENTRIES 8
#define miGEOLIST_ENTRY_SIZE 72
#define miGEOLIST_ENTRY_BOX 64

/*
 * Box (database type miSCENE_BOX): a byte record read by offset.
 *   1 u8  normal blend factor (/255)      36 u32 triangle count
 *  48 u16 vertex record size in floats    50 u8  normal position (floats; 0 none)
 *  51 u8  derivative position (0 none)    53 u8  bump position   54 u8 bump vector count
 *  55 u8  motion position                 56 u8  motion vector count
 *  57 u8  texture position                58 u8  texture space count
 *  88 u32 byte offset of the triangle list (word 0: count, triangle i = words 3i+1..3i+3)
 *  96 u32 byte offset of the texture-size table (texture space i spans entries i..i+1)
 * 124 vertex floats
 */
#define miBOX_NORMAL_BLEND 1
#define miBOX_NO_TRIANGLES 36
#define miBOX_NO_VERTICES 40
#define miBOX_VERTEX_SIZE 48
#define miBOX_NORMAL_POS 50
#define miBOX_DERIV_POS 51
#define miBOX_BUMP_POS 53
#define miBOX_BUMP_COUNT 54
#define miBOX_MOTION_POS 55
#define miBOX_MOTION_COUNT 56
#define miBOX_TEXTURE_POS 57
#define miBOX_TEXTURE_COUNT 58
#define miBOX_TRIANGLES 88
#define miBOX_TEXSIZES 96
#define miBOX_VERTICES 124

/* User data (database type miSCENE_USERDATA). */
typedef struct miUserdata {
    miTag data_decl;                  /*  0 */
    miTag next_data;                  /*  4 next block of the chain, 0 at the end */
    int label;                        /*  8 */
    int parameter_size;               /* 12 */
    int reserved[2];                  /* 16 */
    char parameters[8];               /* 24 parameter data; word 0 = magic */
} miUserdata;

/* Light record (database type miSCENE_LIGHT). */
typedef struct miLight {
    miTag shader;                     /*  0 light shader (miFunction) */
    int area;                         /*  4 0 point, 1 rectangle */
    miVector origin;                  /*  8 light space */
    miVector edge_u;                  /* 20 rectangle half edges, light space */
    miVector edge_v;                  /* 32 */
    int samples;                      /* 44 samples per shading point */
    miBoolean shadow;                 /* 48 casts shadows */
    int reserved;
} miLight;

/* Irradiance options of mi_compute_avg_radiance. */
typedef struct miIrrad_options {
    int size;                         /*  0 sizeof = 52; 0 counts as absent */
    int finalgather_rays;             /*  4 */
    miScalar finalgather_maxradius;   /*  8 */
    miScalar finalgather_minradius;   /* 12 */
    miUchar finalgather_view;         /* 16 */
    miUchar finalgather_filter;       /* 17 */
    miUchar pad[2];                   /* 18 */
    int globillum_accuracy;           /* 20 */
    miScalar globillum_radius;        /* 24 */
    int caustic_accuracy;             /* 28 */
    miScalar caustic_radius;          /* 32 */
    int importon_accuracy;            /* 36 */
    miScalar finalgather_scale;       /* 40 -1: renderer default */
    int reserved44;                   /* 44 */
    int reserved48;                   /* 48 */
} miIrrad_options;

/* ------------------------------------------------------------------ calls */
MI_BEGIN_C

/* queries */
MI_API miBoolean mi_query(int code, miState *state, miTag tag, void *result);

/* tracing */
MI_API miBoolean mi_trace_reflection(miColor *result, miState *state, miVector *dir);
MI_API miBoolean mi_trace_refraction(miColor *result, miState *state, miVector *dir);
MI_API miBoolean mi_trace_environment(miColor *result, miState *state, miVector *dir);
MI_API miBoolean mi_trace_shadow(miColor *filter, miState *state);
MI_API miBoolean mi_call_shader_x(miColor *result, int type, miState *state, miTag shader, void *arg);
MI_API miBoolean mi_sample(double *sample, int *instance, miState *state, miUshort dimension,
                           const miUint *n);
MI_API miBoolean mi_sample_light(miColor *color, miVector *dir, miScalar *dot_nl, miState *state,
                                 miTag light_inst, miInteger *samples);
MI_API void mi_instance_lightlist(int *n, miTag **lights, miState *state);
MI_API miBoolean mi_compute_avg_radiance(miColor *result, miState *state, miUchar face,
                                         miIrrad_options *options);

/* transforms */
MI_API void mi_point_transform(miVector *r, const miVector *v, const miScalar *m);
MI_API void mi_vector_transform(miVector *r, const miVector *v, const miScalar *m);
MI_API void mi_vector_transform_T(miVector *r, const miVector *v, const miScalar *m);
MI_API void mi_vector_to_object(miState *state, miVector *r, const miVector *v);
MI_API void mi_vector_from_object(miState *state, miVector *r, const miVector *v);
MI_API void mi_vector_to_camera(miState *state, miVector *r, const miVector *v);
MI_API void mi_vector_from_camera(miState *state, miVector *r, const miVector *v);

/* shader state and parameters */
MI_API void *mi_shaderstate_get(miState *state, const char *key, int *size);
MI_API miBoolean mi_shaderstate_set(miState *state, const char *key, const void *value, int size,
                                    int lifetime);
MI_API void *mi_phen_eval(miState *state, void *param);
MI_API void *mi_phen_call(miState *state, void *param);
/* A parameter's value as a shader reads it.  `param` points into the
   current shader's parameter block (&params->NAME); the result points at
   the value: the parameter itself when it is not connected, else the result
   of the shader it is connected to (valid until the next evaluations on
   this thread).  A pointer outside the block is returned as it is, with an
   error once per shader and calling function. */
MI_API void *mi_eval(miState *state, void *param);
/* Typed forms, as in the renderer's shader interface: each takes the state
   from the variable `state` of the calling shader and returns a pointer. */
#define mi_eval_scalar(p) ((miScalar *)mi_eval(state, (void *)(p)))
#define mi_eval_integer(p) ((miInteger *)mi_eval(state, (void *)(p)))
#define mi_eval_boolean(p) ((miBoolean *)mi_eval(state, (void *)(p)))
#define mi_eval_color(p) ((miColor *)mi_eval(state, (void *)(p)))
#define mi_eval_vector(p) ((miVector *)mi_eval(state, (void *)(p)))
#define mi_eval_transform(p) ((miScalar *)mi_eval(state, (void *)(p)))
#define mi_eval_tag(p) ((miTag *)mi_eval(state, (void *)(p)))

/* frame buffers */
MI_API miBoolean mi_fb_put(miState *state, int buffer, void *data);
MI_API miBoolean mi_fb_get(miState *state, int buffer, void *data);

/* database */
MI_API void *mi_db_access(miTag tag);
MI_API void *mi_db_access_type(int *type, miTag tag);
MI_API int mi_db_type(miTag tag);
MI_API void mi_db_unpin(miTag tag);

/* memory */
MI_API void *mi_mem_int_allocate(const char *file, int line, size_t size);
MI_API void mi_mem_int_release(const char *file, int line, void *mem);
MI_API miMemblk *mi_mem_int_blkcreate(const char *file, int line, int size);
MI_API void *mi_mem_blkallocate(miMemblk *blk);
MI_API void *mi_mem_blkfallocate(miMemblk *blk);
MI_API void mi_mem_blkrelease(miMemblk *blk, void *mem);
MI_API void mi_mem_blkfrelease(miMemblk *blk, void *mem);
MI_API void mi_mem_blkdelete(miMemblk *blk);
MI_API void mi_flush_cache(miState *state);

/* locks */
MI_API void mi_init_lock(miLock *lock);
MI_API void mi_delete_lock(miLock *lock);
MI_API void mi_lock(miLock lock);
MI_API void mi_unlock(miLock lock);

/* random numbers */
MI_API void mi_srandom(long seed);
MI_API miScalar mi_random(void);

/* messages: printf-style formats */
MI_API __attribute__((noreturn)) void mi_fatal(const char *fmt, ...)
    __attribute__((format(printf, 1, 2)));
MI_API void mi_error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
MI_API void mi_warning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
MI_API void mi_info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

MI_END_C

/* ------------------------------------------------- object shader interface */
#ifdef __cplusplus
namespace mi {
namespace shader {

/* A frame-buffer set opened by tag. */
class Framebuffer {
public:
    virtual bool get_index(const char *name, size_t &index) const = 0;
    virtual size_t count() const = 0;

protected:
    virtual ~Framebuffer() {}
};

/* String options opened by the options' string-options tag. */
class Options {
public:
    virtual bool get(const char *name, int *value) const = 0;
    virtual bool get(const char *name, bool *value) const = 0;
    virtual bool get(const char *name, float *value) const = 0;
    virtual bool get(const char *name, const char **value) const = 0;
    virtual void release() = 0;

protected:
    virtual ~Options() {}
};

class Interface {
public:
    virtual Framebuffer *accessFramebuffer(miTag buffertag) = 0;
    virtual void releaseFramebuffer(Framebuffer *fb, miTag buffertag) = 0;
    virtual Options *getOptions(miTag string_options) = 0;
    virtual void release() = 0;

protected:
    virtual ~Interface() {}
};

} // namespace shader
} // namespace mi

/* Version 3 is the one implemented; other versions give null. */
MI_API mi::shader::Interface *mi_get_shader_interface(int version);

static_assert(sizeof(miVector) == 12, "miVector");
static_assert(sizeof(miColor) == 16, "miColor");
static_assert(sizeof(miState) == 352, "a shading state is 352 bytes");
static_assert(offsetof(miState, type) == 36, "state layout");
static_assert(offsetof(miState, point) == 104, "state layout");
static_assert(offsetof(miState, instance) == 144, "state layout");
static_assert(offsetof(miState, shader) == 248, "state layout");
static_assert(offsetof(miState, ctx) == 280, "state layout");
static_assert(offsetof(miState, reserved_p) == 328, "state layout");
static_assert(offsetof(miOptions, caustic) == 80, "options byte 80");
static_assert(offsetof(miOptions, globillum) == 84, "options byte 84");
static_assert(offsetof(miOptions, shadow_tolerance) == 355, "options byte 355");
static_assert(offsetof(miOptions, finalgather) == 664, "options byte 664");
static_assert(sizeof(miOptions) == 672, "options size");
static_assert(offsetof(miInstance, local_to_global) == 72, "instance matrix at 72");
static_assert(offsetof(miInstance, item) == 208, "instance item at 208");
static_assert(offsetof(miInstance, param) == 216, "data tag two words after the item");
static_assert(offsetof(miInstance, geolist) == 220, "geometry list at 220");
static_assert(offsetof(miObject, type) == 12, "object type at 12");
static_assert(offsetof(miObject, box_entry) == 144, "object entry at 144");
static_assert(sizeof(((miObject *)0)->box_entry) == 68, "object entry is 68 bytes");
static_assert(offsetof(miUserdata, parameters) == 24, "user data parameters at 24");
static_assert(sizeof(miIrrad_options) == 52, "irradiance options are 52 bytes");
static_assert(offsetof(miIrrad_options, globillum_accuracy) == 20, "irradiance options");
static_assert(offsetof(miIrrad_options, finalgather_scale) == 40, "irradiance options");
static_assert(sizeof(miShader_state_arg) == 8, "state shader argument");
#endif

#endif /* MI_SHADER_H */
