/*
 * DruxShaderSDK: shading support for host shader libraries.
 *
 * Exported functions and data have plain C names, except two C++ overloads
 * whose symbols carry their parameter types:
 *   getFrameBufferDataBlock(miState*)                  _Z23getFrameBufferDataBlockP7miState
 *   getNamedFrameBufferID(const miState*, const char*) _Z21getNamedFrameBufferIDPK7miStatePKc
 * (the message functions druxFatal, druxInfo, druxWarning and druxError take
 * a std::string but have plain C names).  Nothing else is exported.  Records
 * shared with host libraries have binding layouts, pinned by the
 * static_asserts at the end of this header.
 */
#ifndef DRUX_SHADER_SDK_H
#define DRUX_SHADER_SDK_H

#include "shader.h"

#include <stddef.h>
#ifdef __cplusplus
#include <string>
#endif

#define DRUX_API __attribute__((visibility("default")))

/* ================================================== constants and colours */

/* Single bits of the host's feature mask. */
MI_BEGIN_C
DRUX_API extern const int KELU_MAGIC;          /* 'Kelu' = 0x4B656C75 */
DRUX_API extern const float KELU_EPS;          /* 1e-5 */
DRUX_API extern const int KELU_CUBE_SIDE;      /* 32 */
DRUX_API extern const int KELU_BIT_BUMP2D;
DRUX_API extern const int KELU_BIT_IMAGEPLANE;
DRUX_API extern const int KELU_BIT_ENVLIGHTFOG;
DRUX_API extern const int KELU_BIT_VOLUMEFOG;
DRUX_API extern const int KELU_BIT_FLUID;
DRUX_API extern const int KELU_BIT_NOAF;
DRUX_API extern const int KELU_BIT_MOTION;
DRUX_API extern const int miRAY_MRFM_DISPLACE; /* 66 */
DRUX_API extern const float KELU_LUMINANCE_RED;
DRUX_API extern const float KELU_LUMINANCE_GREEN;
DRUX_API extern const float KELU_LUMINANCE_BLUE;
DRUX_API extern const float TRANSLUCENCE_ANGLE_FAC; /* -11.5 */
DRUX_API extern const float TRANSLUCENCE_FADE;      /* 0.15 */
DRUX_API extern const miColor BLACK;
DRUX_API extern const miColor WHITE;
DRUX_API extern const miMatrix KELU_NULL_MATRIX;
DRUX_API extern const miMatrix KELU_IDENTITY_MATRIX;

/* Writable: stable addresses for host libraries. */
DRUX_API extern miColor KELU_BLACK;
DRUX_API extern miColor KELU_WHITE;
DRUX_API extern const char *KELU_FRAMEBUFFER_DATA_SUFFIX; /* ":fbdata" */
DRUX_API extern const char *PASS_TYPE_INFO_KEY;           /* "druxPassState" */
DRUX_API extern const char *FRAME_BUFFER_INFO_KEY;        /* "druxFBInfo" */
DRUX_API extern const char *FRAME_BUFFER_STATE_KEY;       /* "druxFBState" */
MI_END_C

/* What a light shader tells the material it emits (48 bytes). */
typedef struct LightData {
    int addConstant;   /* non-zero: constant weight 1, whatever the angle */
    int addLambert;    /* non-zero: Lambert (cosine) and translucence terms */
    int hostFlagA;     /* for the host */
    int hostFlagB;     /* for the host */
    miColor color;     /* for the host */
    miVector *corners; /* four corners of a rectangular area light, or null */
    unsigned char reserved[8];
} LightData;

MI_BEGIN_C
DRUX_API extern LightData defaultLightDataArray;

/* Messages: each hands `message` to the renderer as it is (no prefix, no
   newline, no format conversion: a '%' is printed), through mi_fatal,
   mi_info, mi_warning and mi_error, in that order.  druxFatal does not return.
   C++ only: from C, call mi_fatal, mi_info, mi_warning and mi_error. */
#ifdef __cplusplus
DRUX_API void druxFatal(const std::string &message);
DRUX_API void druxInfo(const std::string &message);
DRUX_API void druxWarning(const std::string &message);
DRUX_API void druxError(const std::string &message);
#endif
MI_END_C

/* ================================================== user data and scratch memory */

/* A caller-owned stack of fixed-size elements on a per-thread block allocator.
   Each element's first pointer-sized word links to the element below. */
typedef struct ScratchStack {
    void *top;
    int count;
    miMemblk *allocator;
} ScratchStack;

MI_BEGIN_C
/* Parameter data of the first user-data block with `magic` on a chain, or
   null.  `type` miSCENE_USERDATA: `tag` is the chain's first block;
   miSCENE_OBJECT: `tag` is an object (or an instance of one) whose chain is
   walked.  With `swapped`, a byte-reversed magic matches too and *swapped
   says which (0 or 1); *block_tag (if given) gets the block's tag.  The match
   stays pinned: mi_db_unpin(block tag) when done.  Null, nothing pinned, for
   a tag of another kind, a broken or looping chain, a block too short for a
   magic word. */
DRUX_API void *get_userdata(int magic, int type, miTag tag, miTag *block_tag, int *swapped);
/* The block allocator for (`thread`, element `size`), made on first request
   and kept until clr_tla_list.  `lock` (the state's global lock) guards
   adding to the process-wide list; lookups take no lock. */
DRUX_API miMemblk *get_tla(miLock lock, int thread, int size);
/* Deletes every allocator get_tla made, elements and all.  Only while no
   thread uses get_tla or a scratch stack. */
DRUX_API void clr_tla_list(miLock lock);
/* Empties `stack` and gives it this thread's allocator for elements of
   `size` bytes, the link word included; returns that allocator. */
DRUX_API miMemblk *stack_create(miState *state, ScratchStack *stack, int size);
/* Pushes a new element (not cleared) and returns it; the caller's data
   starts after its first pointer-sized word (the link). */
DRUX_API void *stack_push(ScratchStack *stack);
/* Frees the top element, so read it first.  An empty stack is left as is. */
DRUX_API void stack_pop(ScratchStack *stack);
/* Writes the camera's position in world space (its instance's translation,
   divided by w unless w is 0 or 1) to *origin; unchanged when the camera
   instance cannot be read. */
DRUX_API void origin_from_camera(miState *state, miVector *origin);
MI_END_C

/* ================================================== colour and time sampling */

typedef struct TmSampler {
    miUint index; /* samples taken */
    miUint count; /* samples to take, 1..100 */
    float step;   /* time between samples */
} TmSampler;

MI_BEGIN_C
/* HSV (hue as a fraction of a turn: 0 red, 1/3 green, 2/3 blue; a hue >= 1
   wraps) to RGB; alpha is copied, and hsv may be rgb.  Saturation 0 gives
   grey = value; a negative or NaN hue writes only alpha. */
DRUX_API void hsv_to_rgb(const miColor *hsv, miColor *rgb);
/* RGB to HSV with hue in [0, 1); alpha is copied; rgb and hsv must differ.
   Channels within 1e-5 of each other, or all <= 1e-5: hue 0, saturation 0,
   value = the largest channel. */
DRUX_API void rgb_to_hsv(const miColor *rgb, miColor *hsv);
/* Sets up `sampler` (index 0) for one shading call: `count` evaluations
   over the shutter, trunc(1/m + KELU_EPS) for the smallest time-contrast
   component m (1 to 100), step = shutter length / count.  One, step 0, when `motion` is
   0, in a precompute pass, with an empty shutter, when the renderer samples
   motion itself (query 158) or m <= 0. */
DRUX_API void tmsampler_init(TmSampler *sampler, miState *state, int motion);
/* Adds one step to the state's time, wrapping it back into the shutter
   interval, and counts the sample.  The time is not restored: save it. */
DRUX_API void tmsampler_next(TmSampler *sampler, miState *state);
/* True once `count` samples were taken.  Use: init, then evaluate and
   tmsampler_next until this is true. */
DRUX_API miBoolean tmsampler_isDone(const TmSampler *sampler);
MI_END_C

/* ================================================== frame-buffer records */

/* Number of pass types. */
#define DRUX_PASS_TYPES 35

/* One frame-buffer declaration of the exporter's block (15 words). */
typedef struct FrameBufferInfoRecord {
    miTag frameBufferName; /* tag of the name string */
    int flag[9];           /* word k non-zero sets flag bit 1 << (k - 1) */
    miUint hostData[4];
    miUint hostTail;
} FrameBufferInfoRecord;

/* The exporter's frame-buffer description: parameters of the camera's user
   data with magic "FBuf".  Each array: first index, count, one storage slot;
   element k lies at the storage slot plus (first + k) elements. */
typedef struct FrameBufferDataBlock {
    int magic;                                 /*  0 */
    int nonMaterialPassesFirst;                /*  4 */
    int nonMaterialPassesCount;                /*  8 */
    miTag nonMaterialPasses[1];                /* 12 */
    int frameBufferInfoFirst;                  /* 16 */
    int frameBufferInfoCount;                  /* 20 */
    FrameBufferInfoRecord frameBufferInfo[1];  /* 24 */
    int typeCountsFirst;                       /* 84 */
    int typeCountsCount;                       /* 88 */
    int typeCounts[1];                         /* 92 */
} FrameBufferDataBlock;

#define FBUF_MAGIC 0x46427566 /* 'FBuf' */

typedef struct FrameBufferDataRef {
    const FrameBufferDataBlock *block; /* null when there is no block */
    miTag tag;                         /* pinned user-data record; 0 when none */
    miBoolean swapped;                 /* the magic matched only byte-reversed */
} FrameBufferDataRef;

typedef struct PassTypeRange {
    int count;
    int first;
} PassTypeRange;

/* Stored under PASS_TYPE_INFO_KEY. */
typedef struct PassTypeInfo {
    PassTypeRange range[DRUX_PASS_TYPES];
} PassTypeInfo;

/* The pass types (0 to 34) that the reference exporter gives each kind of
   pass.  The library gives some types roles of their own: 12-15 are shadow
   passes; 6, 8, 11, 31 and 34 are never shadowed; reflected and refracted
   light does not propagate into 1, 4, 26, 28, 32 and 33; 16-18 keep their
   alpha in the frame buffer; the environment that reflection and
   refraction fall back on is added into 0 and 34. */
enum {
    DRUX_PASS_BEAUTY = 0,       /* everything the surface shows */
    DRUX_PASS_DIFFUSE = 1,      /* direct diffuse light */
    DRUX_PASS_SPECULAR = 4,     /* direct highlights */
    DRUX_PASS_DATA = 11,        /* depth, normal, position, albedo of the first hit */
    DRUX_PASS_SHADOW = 12,      /* the light taken away by occluders */
    DRUX_PASS_COVERAGE = 16,    /* alpha kept as written */
    DRUX_PASS_LIGHT_GROUP = 20, /* the light of some lights, traced light included */
    DRUX_PASS_REFLECTION = 26,  /* reflected light */
    DRUX_PASS_REFRACTION = 28,  /* refracted light */
    DRUX_PASS_BACKGROUND = 31,  /* what eye rays see of the environment */
    DRUX_PASS_INDIRECT = 32,    /* final-gather light */
    DRUX_PASS_SCATTER = 33,     /* subsurface scattering */
    DRUX_PASS_CUSTOM = 34       /* a pass a shader library fills by name */
};

/* The pass type of entry `index`: the range of the table that holds it, or
   -1 (also for a null table). */
static inline int drux_pass_type(const PassTypeInfo *types, miUint index)
{
    int t;
    if (!types)
        return -1;
    for (t = 0; t < DRUX_PASS_TYPES; ++t) {
        const PassTypeRange *r = &types->range[t];
        if (r->count > 0 && r->first >= 0 && index >= (miUint)r->first && index - (miUint)r->first < (miUint)r->count)
            return t;
    }
    return -1;
}

/* Per entry and trace depth. */
typedef struct PassSlot {
    miColor accum;    /* what this depth gathered for the pass */
    miColor result;   /* the surface's final colour for the pass at this depth */
    miColor opacity;  /* coverage of result */
    miUint slotFlags; /* bit 0: no direct contribution at this depth */
} PassSlot;

/* One per frame buffer; the array is stored under FRAME_BUFFER_INFO_KEY. */
typedef struct FrameBufferInfo {
    miUint fbId;        /* 0: unknown name; entry 0 holds 0xFFFFFFFF until names are resolved */
    miUint flags;       /* FBINFO_ bits */
    miUint hostData[4];
    miColor light;      /* this pass's share of the light being sampled */
    miColor shadow;     /* shadow transmission / shadowed light */
    miColor shadowSum;  /* sum of shadow over a light's shadow samples */
    miColor lightSum;   /* sum of a light's sample contributions */
    miUint hostTail;
    miUint padding;     /* not used: keeps slots 8-byte aligned */
    PassSlot *slots;    /* trace-depth limit + 2 slots */
} FrameBufferInfo;

/* Stored under FRAME_BUFFER_STATE_KEY. */
typedef struct FrameBufferState {
    int allocateTempOnHeap;
    int sampleValue;
    miColor sampleColor;
} FrameBufferState;

#define DRUX_FBID_UNRESOLVED 0xFFFFFFFFu

enum {
    FBINFO_HOST_1 = 0x1,
    FBINFO_HOST_2 = 0x2,
    FBINFO_HOST_3 = 0x4,
    FBINFO_HOST_4 = 0x8,
    FBINFO_ADD_REFLECTION = 0x10,
    FBINFO_ADD_REFRACTION = 0x20,
    FBINFO_HOST_7 = 0x40,
    FBINFO_SHADOWED = 0x80,
    FBINFO_ALL_OCCLUDERS = 0x100,
    FBINFO_LIGHT_CONTRIBUTES = 0x200,
    FBINFO_IN_LIGHT_LOOP = 0x400,
    FBINFO_LIGHT_SETUP_PENDING = 0x800,
    FBINFO_SHADOW_PASS = 0x2000,
    FBINFO_SUSPENDED = 0x4000,
    FBINFO_NO_TRACE_ADD = 0x8000,
    FBINFO_NO_ACCUMULATE = 0x10000
};

/* C++ overloads (mangled names); from C, use the tag variant of
   getNamedFrameBufferID below. */
#ifdef __cplusplus

/* The camera's "FBuf" block, pinned: mi_db_unpin(ref.tag) when done.
   Without a block, or for a refused one (other byte order, shorter than
   its fixed part, an array outside its size: reported through druxError),
   block and tag are 0 and nothing is pinned; `swapped` marks the
   byte-order case. */
DRUX_API FrameBufferDataRef getFrameBufferDataBlock(miState *state);
/* Index of frame buffer `name` in the camera's frame-buffer set, for
   mi_fb_put/mi_fb_get; 0 for an unknown or null name. */
DRUX_API miUint getNamedFrameBufferID(const miState *state, const char *name);
#endif

MI_BEGIN_C
/* The same for the name in string item `name`; 0 for tag 0, a missing item
   or one that is not a string.  Nothing stays pinned. */
DRUX_API miUint getNamedFrameBufferID(miState *state, miTag name);
/* This state's FrameBufferState (under FRAME_BUFFER_STATE_KEY), or null
   when frame-buffer records are not in use here (query 161 not 1) or the
   record is missing or of another size. */
DRUX_API FrameBufferState *getFrameBufferState(miState *state);
/* Stores the pass-type table and the first entry through `types` and
   `entries` (either may be null) and returns the entry count.  0 when the
   records are not usable (query 161 not 1, missing or inconsistent records,
   entry 0 FBINFO_SUSPENDED); the pointers are then not to be used.  Call it
   first and hand count and entries to the pass functions, which do nothing
   for 0. */
DRUX_API miUint getFrameBufferInfo(miState *state, PassTypeInfo **types, FrameBufferInfo **entries);
/* Frame-buffer index of the block's non-material pass `index`; 0 without a
   usable block or for an index outside the array.  Nothing stays pinned. */
DRUX_API miUint getNonMaterialPassFrameBufferIndex(miState *state, int index);
MI_END_C

/* ================================================== frame-buffer state shaders */

typedef struct druxFrameBufferInit_params {
    int nonMaterialPass;
    miColor initColor;
} druxFrameBufferInit_params;

MI_BEGIN_C
/* The three shaders the exporter declares.  Each _version returns the
   interface version, 1.  The _init functions, called for the shader as a
   whole (params null), report through druxError when it is not declared as
   a state shader (a version mismatch: re-export the .mi) and clear
   *inst_init_req; per instance they do nothing. */
DRUX_API int druxFrameBufferState_version(void);
DRUX_API void druxFrameBufferState_init(miState *state, void *params, miBoolean *inst_init_req);
/* The state shader that owns the pass records; arg->op: 0 state set-up
   (reads the "FBuf" block, allocates the slot block, publishes the three
   records; false without a usable block); 1 state exit (frees the slots,
   removes the records); 2 sample begin (resets sampleValue, sampleColor and
   slot 0's result and opacity; resolves names and flags on the state's
   first sample); 3 sample end (writes slot 0's result of every entry to its
   frame buffer: eye rays with a shaded sample only).  Other codes: warning,
   false. */
DRUX_API miBoolean druxFrameBufferState(void *result, miState *state, void *params,
                                        miShader_state_arg *arg);
DRUX_API int druxFrameBufferInit_version(void);
DRUX_API void druxFrameBufferInit_init(miState *state, void *params, miBoolean *inst_init_req);
/* State shader of a non-material pass: at sample begin (op 2) writes
   `initColor` into the frame buffer of non-material pass `nonMaterialPass`
   (both evaluated if connected); nothing when that pass has no frame buffer
   or records are not in use.  Ops 0, 1, 3 do nothing; others: warning,
   false. */
DRUX_API miBoolean druxFrameBufferInit(void *result, miState *state,
                                       druxFrameBufferInit_params *params,
                                       miShader_state_arg *arg);
DRUX_API int druxTraversal_version(void);
/* Does nothing and returns true. */
DRUX_API miBoolean druxTraversal(miColor *result, miState *state, void *params);
MI_END_C

/* ================================================== light loop */

MI_BEGIN_C
/* Whether contribution `mask` (hex digits; digit i/4, bit i%4 stands for
   entry i: "1" entry 0, "F" entries 0-3, "08" entry 7; any case) includes
   entry `index`.  A null mask includes every entry; an index at or past the
   text's end, or negative, is not included. */
DRUX_API miBoolean contributesToPass(int index, const char *mask);
/* Pass functions.  Each takes the count and entries from getFrameBufferInfo
   and does nothing for a count of 0 or null entries (the shadow tracers
   still trace); null colours read as black.  depth is the state's
   reflection plus refraction level, T the trace-depth limit. */

/* Starts one light's samples: sets FBINFO_IN_LIGHT_LOOP and
   FBINFO_LIGHT_SETUP_PENDING on entry 0 and clears every lightSum, into which
   the material adds its per-pass share of each light sample. */
DRUX_API void sampleLightBegin(miUint n, FrameBufferInfo *entries);
/* Ends the light: clears FBINFO_IN_LIGHT_LOOP; for `samples` > 0 merges
   lightSum / samples (times *scale when bit 0 of *useScale is set) into
   slots[depth].accum by *mode: 1 add, 2 multiply, 3 replace, 0 nothing,
   other add.  Skips FBINFO_NO_ACCUMULATE entries, slots with slotFlags bit 0
   and environment rays. */
DRUX_API void sampleLightEnd(miState *state, miUint n, FrameBufferInfo *entries, int samples,
                             const int *mode, const miBoolean *useScale, const float *scale);
/* For a light that traces no shadow: every entry's shadow becomes white and
   its light (colour rgb, 1) when it has FBINFO_LIGHT_CONTRIBUTES and is not
   a shadow pass, else (0, 0, 0, 1). */
DRUX_API void setLightIrradiance(miUint n, FrameBufferInfo *entries, const miColor *colour);
/* Before a secondary ray: clears result and opacity of slots[depth + 1] of
   every entry.  Nothing when depth >= T. */
DRUX_API void tracePassInit(miUint n, FrameBufferInfo *entries, miState *state);
/* After it: adds weight x slots[depth + 1].result into slots[depth].accum
   and clears that result; skips FBINFO_NO_TRACE_ADD entries and, where
   slots[depth].slotFlags & 3 is 1, entries without FBINFO_ADD_REFRACTION
   (refracted) or FBINFO_ADD_REFLECTION (not).  Nothing when depth >= T. */
DRUX_API void tracePassAdd(miUint n, FrameBufferInfo *entries, miState *state, miBoolean refracted,
                           miColor weight);

/* Traces the light's shadow ray (*filter preset to white; returns
   mi_trace_shadow's result) and sets each entry's light: (0, 0, 0, 1) if it
   does not contribute, lightColor if not FBINFO_SHADOWED, else the light
   shadowed by transmission t, (1 - t) shadowColor + t lightColor.  t is the
   entry's own shadow as occluders left it, or with useSharedShadow the
   filter (shadowColor itself when fully blocked).  Shadow passes get the
   light taken away and keep the shadowed light in shadow. */
DRUX_API miBoolean traceShadow(miUint n, FrameBufferInfo *entries, miColor *filter,
                               const miColor *lightColor, const miColor *shadowColor,
                               miBoolean useSharedShadow, miState *state);
/* Several shadow samples per light: clears every shadowSum. */
DRUX_API void traceShadowAccumulateBegin(miUint n, FrameBufferInfo *entries);
/* Traces one shadow sample (filter preset to white; returns
   mi_trace_shadow's result) and adds each contributing entry's
   transmission to its shadowSum. */
DRUX_API miBoolean traceShadowAccumulate(miUint n, FrameBufferInfo *entries, miColor *filter,
                                         miState *state);
/* Settles light as traceShadow does, with t = shadowSum / samples
   (undivided for 0 samples), and keeps t in shadow of shadowed entries;
   non-contributing entries get shadow black. */
DRUX_API void traceShadowAccumulateEnd(miUint n, FrameBufferInfo *entries, miUint samples,
                                       const miColor *lightColor, const miColor *shadowColor);
/* For an occluder's shadow shader inside a shadow ray: multiplies, in every
   entry that contributes and is FBINFO_SHADOWED, shadow by *transparency,
   or with applyToLight light (a shadow pass moves the blocked part of its
   shadow into light), unless the occluder's contribution mask leaves the
   entry out and it lacks FBINFO_ALL_OCCLUDERS.  Returns 1 while a handled
   entry still lets light through (a shadow channel >= 1e-5), else 0. */
DRUX_API int applyShadowTransparencyToFrameBuffers(miUint n, FrameBufferInfo *entries,
                                                   const miColor *transparency,
                                                   miBoolean applyToLight, miState *state);

/* In a light shader, first: sets FBINFO_LIGHT_CONTRIBUTES on the entries
   that the light instance's contribution mask includes (all without a mask)
   and clears entry 0's FBINFO_LIGHT_SETUP_PENDING.  Outside a light shader
   reports a druxError and marks every entry. */
DRUX_API void setupLightContributions(miUint n, FrameBufferInfo *entries, miState *state);
/* In a material, after sampling a light that did not call
   setupLightContributions (entry 0 still FBINFO_LIGHT_SETUP_PENDING): does
   the set-up for `lightInstance`, sets the flag again and gives contributing
   entries light = *lightResult, the others black.  Otherwise nothing. */
DRUX_API void handleNonDruxLights(miUint n, FrameBufferInfo *entries, const miColor *lightResult,
                                  miTag lightInstance, miState *state);
MI_END_C

/* ================================================== shading models */

MI_BEGIN_C
/* Strand highlight: (2s^3 - 3s^2 + 1)^exponent with s half the difference
   of dir_a and dir_b projected on `tangent` (1 when equal, 0 at s = 1). */
DRUX_API float compute_hairtubeshader_specular(const miVector *dir_a, const miVector *dir_b,
                                               const miVector *tangent, float exponent);
/* Phong: cos^cos_power, cos = r.l / |l| (r the unit mirror direction, l
   towards the light); 0 for cos <= 0, 4.54e-5 when below e^-10.  On
   non-eye rays times secondary_scale, or 0 when that is <= 0. */
DRUX_API float compute_phong_specular(const miVector *r, const miVector *l, miState *state,
                                      float cos_power, float secondary_scale);
/* Blinn (Torrance-Sparrow with Trowbridge-Reitz) divided by dot_nv, for the
   unit light direction and normal and the light and view cosines dot_nl,
   dot_nv > 0 (an infinite geometric term gives 0).  eccentricity: lobe
   width; rolloff: strength at normal incidence.  Non-eye rays as Phong. */
DRUX_API float compute_blinn_specular(const miVector *light_dir, const miVector *normal,
                                      miState *state, float dot_nl, float dot_nv,
                                      float eccentricity, float rolloff, float secondary_scale);
/* Direction from `point` to the rectangular light `light_inst` (four
   `corners` in order) nearest the mirror direction r: r normalised when the
   mirror ray hits the rectangle, else the best point of its edges.
   *out_dir is left alone only when no edge direction beats -r. */
DRUX_API void arealight_max_phong_spec_dir(const miVector *point, const miVector *r,
                                           const miVector *corners, miTag light_inst,
                                           miVector *out_dir);
/* Cosine-weighted view factor of the rectangle `corners` seen from `point`
   with `normal`: 5 sum(theta_i n.m_i/|m_i|) over its edges; the sign follows
   the winding.  An edge whose corners lie in one direction adds nothing. */
DRUX_API float arealight_lambertian_reflect(const miVector *point, const miVector *normal,
                                            const miVector *corners);
/* Light through a thin surface from behind: `translucence`, narrowed by
   `focus` in [0, 1) towards the light's direction of travel (through
   `corners` when given, else light_dir), faded in over dot_nl just above
   -11.5 wrap.  0 when dot_nl <= -11.5 wrap (wrap 0: dot_nl <= 0). */
DRUX_API float compute_lambert_translucence(miState *state, const miVector *light_dir,
                                            const miVector *corners, float dot_nl,
                                            float translucence, float focus, float wrap);

/* Spaces of get_derivs. */
enum { DRUX_SPACE_INTERNAL = 0, DRUX_SPACE_CAMERA = 1, DRUX_SPACE_OBJECT = 2 };

/* Two surface tangents, not normalised, in `space` (DRUX_SPACE_*; other
   values: as found): the bump basis of texture space `index` (0 when out
   of range), else the surface derivatives, else the camera's x and y axes,
   the first without a negligible vector.  Nothing with a null pointer. */
DRUX_API void get_derivs(miState *state, miVector *du, miVector *dv, int space, int index);
/* Indirect light: *result = k E with k = diffuse x color x irradiance_tint
   (alpha 0).  E is the `irradiance` parameter when connected; else the
   renderer's irradiance, with the object's KELU_MAGIC settings (word 5 = 1)
   and fewer final-gather rays on paths of low weight.  Black when every k
   channel < 1e-5, or (not connected) the "kelubase" path weight x
   (1 - transparency) k, x gain if > 1, is below minContribution or leaves
   no final-gather ray.  irradiance_tint, irradiance: parameters.
   The "kelubase" path weight is divided by the final-gather ray count for
   the renderer's call and restored after it; a count of 0 or below (from
   the options or the object's settings) still goes to the renderer, with
   the path weight undivided, since 1/rays is undefined there.  A positive
   count that the path weight scales to 0 skips the renderer: black. */
DRUX_API void compute_irradiance(miColor *result, miColor *irradiance_tint, const miColor *color,
                                 const miColor *transparency, miColor *irradiance, miState *state,
                                 float diffuse, float gain);
MI_END_C

/* ================================================== base-material compositing */

typedef struct BaseComposite {
    int mode;
    int hintA;
    int hintB;
    miUint flags; /* BC_ bits */
} BaseComposite;

enum {
    BC_A = 0x1,
    BC_B = 0x2,
    BC_C = 0x4,
    BC_D0 = 0x8,
    BC_D1 = 0x10,
    BC_K = 0x20,
    BC_E0 = 0x40,
    BC_E1 = 0x80,
    BC_F = 0x100,
    BC_G = 0x200,
    BC_H = 0x400
};

/* The calling shader's output record written by bc_composite. */
typedef struct BaseCompositeResult {
    miColor result;          /* 0x00 */
    miScalar secondary[3];   /* 0x10 */
    miScalar pad1c;
    miScalar opacity[3];     /* 0x20 */
    miScalar pad2c;
    miScalar transparency[3];/* 0x30 (read by opacity rule 2) */
    miScalar pad3c;
    miColor copyA;           /* 0x40 */
    miColor copyB;           /* 0x50 */
    miColor copyC;           /* 0x60 */
    miColor copyD0;          /* 0x70 */
    miColor copyD1;          /* 0x80 */
    miScalar copyK[3];       /* 0x90 */
    miScalar pad9c;
    miColor copyE0;          /* 0xa0 */
    miColor copyE1;          /* 0xb0 */
    miColor copyF;           /* 0xc0 */
    miColor copyG;           /* 0xd0 */
    miColor copyH;           /* 0xe0 */
    miScalar oneMinusTransparency[3]; /* 0xf0 */
    miScalar padfc;
} BaseCompositeResult;

MI_BEGIN_C
/* Fills *bc for composite mode 0 to 6 (hints and BC_ flags; mode 6 looks
   at the precompute-pass query); another mode stores only the number. */
DRUX_API void bc_construct(BaseComposite *bc, int mode, miState *state);
/* Nothing to release; does nothing. */
DRUX_API void bc_destruct(void);
/* Composites a base material into the record `out` (BaseCompositeResult).
   Only components whose BC_ flag is set count; a null colour is skipped and
   a null transparency is opaque:
     opacity   by opacity_rule: 0 writes -1e6 and stops, 1 `opacity`,
               2 (1 - out's transparency triple) x opacity, other: kept;
               mode 2 only writes opacity = k
     result    (c_d first or second colour, else black) + c_c + c_h + c_a,
               x (1 - transparency), + c_b; then c_e (first or second) and
               c_f, added also to secondary (= scale x result so far) times
               e_weight; then + c_g, or rgb 0 when zero_color
     copies    every used input at its offset, (k, k, k) for BC_K, and
               1 - transparency at 0xf0 */
DRUX_API void bc_composite(BaseComposite bc, void *out, const miColor *c_a, const miColor *c_b,
                           const miColor *c_c, const miColor *c_d, const miColor *c_e,
                           const miColor *c_f, const miColor *c_g, const miColor *c_h,
                           const miColor *transparency, int zero_color, int opacity_rule, float k,
                           float scale, float e_weight, float opacity);
MI_END_C

/* ================================================== reflection and refraction */

/* The host's per-thread record under the shader-state key "kelubase". */
typedef struct BaseShaderState {
    int mode;                      /* 0x000 */
    int hostA[3];                  /* 0x004 */
    int refractBlurLimit;          /* 0x010 */
    int reflectBlurLimit;          /* 0x014 */
    int hostB;                     /* 0x018 */
    float minContribution;         /* 0x01c */
    float fullSampleContribution;  /* 0x020 */
    unsigned char hostC[0x60 - 0x24];
    LightData lightData;           /* 0x060 */
    unsigned char hostD[0x1cc - 0x90];
    miColor childResult1;          /* 0x1cc */
    miColor childResult2;          /* 0x1dc */
    miColor childTransmission;     /* 0x1ec */
    unsigned char hostE[0x230 - 0x1fc];
    miColor pathWeight;            /* 0x230 */
} BaseShaderState;

#define KELU_BASE_STATE_KEY "kelubase"

MI_BEGIN_C
/* Reflection along the mirror direction, or over a cone around it, traced
   or taken from the environment (or reflected_color), with the per-pass
   bookkeeping.  *result is the plain average (alpha 0): the caller
   multiplies by its reflectivity.  Black, with nothing changed, when
   weight <= 0, every color channel < 1e-5, or the "kelubase" path weight
   x weight x color (x gain if > 1) is not above minContribution.  State
   and host-record fields it changes are restored.  depth = reflection +
   refraction level.  (p): a parameter, evaluated if connected; null reads 0.
     result            out: average reflected colour
     color             reflection colour: rgb weights path and passes, a passes
     reflected_color   (p) used in place of the environment when connected
     reflection_limit  (p) no ray is traced at depth >= this
     blur              (p) glossiness, 0 mirror to 1 (half-angle 90 degrees)
     blur_limit        (p) blur only at depth below this and reflectBlurLimit
     rays              (p) blur samples (<= 0: 1), fewer on low-weight paths
     no_trace          non-zero: trace nothing; environment or reflected_color
     normal            shading normal defining the mirror direction
     state             current state
     entry_count       entry count from getFrameBufferInfo (0: no passes)
     entries           its entries (null: no direct pass additions)
     pass_types        its pass-type table (null: no direct pass additions)
     pass_scale        extra factor for the passes only (null: 1)
     weight            the caller's reflectivity; <= 0: no reflection
     gain              > 1: also multiplies the path weight
     dot_nd            normal . ray direction, as the caller has it */
DRUX_API void compute_reflection(miColor *result, const miColor *color, miColor *reflected_color,
                                 int *reflection_limit, float *blur, int *blur_limit, int *rays,
                                 int no_trace, const miVector *normal, miState *state,
                                 int entry_count, FrameBufferInfo *entries,
                                 PassTypeInfo *pass_types, const float *pass_scale, float weight,
                                 float gain, float dot_nd);
/* Light through the surface along the refracted direction (or a cone),
   with thickness-adjusted index, dispersion, total internal reflection,
   absorption, distance fade and the per-pass bookkeeping.  Both outputs
   come weighted by transparency.  The state's index of refraction is left
   at the entered medium's.  Early exits: bypass -> transmission white;
   transparency < 1e-5 -> black; refraction or ray tracing off ->
   transmission = transparency; "kelubase" path weight x transparency not
   above minContribution -> black.  (p) as for compute_reflection.
     result            out: refracted colour, alpha 0
     transmission      out: transmission for the caller's transparency
     refraction_limit  (p) at depth >= this the environment is used instead
     ior               (p) the material's index of refraction
     refractions       0: refraction off
     transparency      material transparency: weights path, passes, outputs
     bypass            non-zero: nothing is computed
     blur              (p) as compute_reflection
     blur_limit        (p) as compute_reflection, with refractBlurLimit
     rays              (p) as compute_reflection
     thickness         (p) != 0 adjusts the index by the angle; >= 0 caps
                       the distance travelled
     fade_distance     (p) distance at which light fades to 0 (0: no fade)
     absorbance        (p) absorption per 100 units of distance (0: none)
     chromatic         (p) non-zero: a ray per channel, index +0, .06, .12
     normal            shading normal
     state             current state
     entry_count       as compute_reflection
     entries           as compute_reflection
     pass_types        as compute_reflection
     pass_scale        as compute_reflection
     dot_nd            normal . ray direction */
DRUX_API void compute_refraction(miColor *result, miColor *transmission, int *refraction_limit,
                                 float *ior, int refractions, const miColor *transparency,
                                 int bypass, float *blur, int *blur_limit, int *rays,
                                 float *thickness, float *fade_distance, float *absorbance,
                                 int *chromatic, const miVector *normal, miState *state,
                                 int entry_count, FrameBufferInfo *entries,
                                 PassTypeInfo *pass_types, const float *pass_scale, float dot_nd);
MI_END_C

/* ================================================== subsurface scattering */

typedef struct ScatterCache ScatterCache; /* opaque to callers */

MI_BEGIN_C
/* Subsurface scattering: the distance-weighted average colour of the cached
   points within the radius, times scale, alpha 0.  The first call for an
   instance builds its cache (points on its triangles, lit when first
   needed), keeping that call's radius, density and mode.  Black when radius
   or samples <= 0, at the depth limit, in a precompute pass, for an
   instance without triangles, a null `cache` or no point near.  Safe from
   every thread at once.  All but result, state and cache are parameters,
   evaluated if connected; the eight from diffuse on light the points.
     result          out: scattered light
     scale           per-channel factor of the average
     radius          gathering radius, internal-space units
     samples         points per disc of area pi radius^2
     falloff         weight at distance d: 0 -> 1, 1 -> 1 - d/r,
                     2 -> (1 - d/r)^2, 3 -> exponential (1e-5 at r), other 0
     maxDepth        skipped once reflection + refraction level reaches it
     cacheSize       0 or less: full grid; n: n hash slots (less memory)
     diffuse         weight of the Lambert and indirect terms
     color           surface colour
     translucence    weight of light from behind (0: off)
     focus           translucence focus
     wrap            translucence wrap
     normalOverride  replacement shading normal, when connected
     irradiance      replacement indirect light, when connected
     irradianceTint  tint of the indirect term
     state           current state
     cache           the caller's list head (starts null) */
DRUX_API void compute_scatter(miColor *result, miColor *scale, float *radius, int *samples,
                              int *falloff, int *maxDepth, int *cacheSize, float *diffuse,
                              miColor *color, float *translucence, float *focus, float *wrap,
                              miVector *normalOverride, miColor *irradiance,
                              miColor *irradianceTint, miState *state, ScatterCache **cache);
/* Frees every cache on *cache and sets it to null (state unused).  Null or
   empty: nothing.  Only while no compute_scatter runs on the list. */
DRUX_API void destroy_scatter(miState *state, ScatterCache **cache);
MI_END_C

/* ================================================== ramps */

#define RAMP_MAX_KEYS 50

enum { RAMP_NONE = 0, RAMP_LINEAR = 1, RAMP_SMOOTH = 2, RAMP_SPLINE = 3 };

typedef struct Ramp {
    int is_color;
    int count;
    float position[RAMP_MAX_KEYS];
    union {
        float value[RAMP_MAX_KEYS];
        miColor color[RAMP_MAX_KEYS];
    };
    int interpolation[RAMP_MAX_KEYS];
} Ramp;

/* Elements of a ramp array parameter. */
typedef struct RampScalarEntry {
    float position;
    float value;
    int interpolation;
} RampScalarEntry;
typedef struct RampColorEntry {
    float position;
    miColor color;
    int interpolation;
} RampColorEntry;

MI_BEGIN_C
/* Copies ramp array parameter `entries` (first index, count, then
   RampScalarEntry or, with is_color, RampColorEntry elements; connected
   fields evaluated) into *ramp, at most 50 keys in their order.  Null or a
   count <= 0: empty.  A parameter of the calling shader that does not fit
   in its block is refused (druxError) and leaves the ramp empty. */
DRUX_API void ramp_constructor(Ramp *ramp, miState *state, void *entries, int is_color);
/* Empties the ramp (count 0); it owns no memory. */
DRUX_API void ramp_destructor(Ramp *ramp);
/* Scalar ramp at x: the keys just below and at-or-above x (any order),
   blended by the lower key's kind (RAMP_; unknown as NONE); the end keys'
   values outside.  0 for an empty or colour ramp. */
DRUX_API float ramp_get_interp_float(const Ramp *ramp, float x);
/* The same for a colour ramp into *result: rgb only, alpha kept, except a
   spline's end key, copied whole.  (0, 0, 0, 0) for an empty or scalar
   ramp. */
DRUX_API void ramp_get_interp_color(const Ramp *ramp, miColor *result, float x);
MI_END_C

/* ================================================== noise */

MI_BEGIN_C
/* The value noise's lattice, 65,535 values in (-1, 1) and a final 0. */
DRUX_API extern const float NoiseTable[65536];
/* The gradient noise's hash: a permutation of 0..255. */
DRUX_API extern const unsigned char PermutationArray[256];

/* Value noise: quadratic B-spline over a lattice of 32 cells per unit,
   period 1; a coordinate beyond +-1e9 counts as 0, NaN gives NaN.  1D: in
   (-0.5, 0.5) except over each unit's first cell (up to +-2); jumps at whole
   numbers.  2D, 3D: in (-1, 1).  4D: w has `cells` cells per unit (clamped
   to 0..60000), result in [-1, 1), continuous in x, y, z only. */
DRUX_API float noise_scalar_1d(double x);
DRUX_API float noise_scalar_2d(double x, double y);
DRUX_API float noise_scalar_3d(double x, double y, double z);
DRUX_API float noise_scalar_4d(int cells, double x, double y, double z, double w);
/* (d/dx, d/dy, value) of the 2D noise: the slopes are twice the derivative
   per lattice cell, the value noise_scalar_2d's up to rounding. */
DRUX_API miVector noise_vector_2d(double x, double y);
/* NoiseTable[|i| mod 65535]. */
DRUX_API double noise_table_scalar(int i);
/* NoiseTable at i, i + 1, i + 2, each mod 65535. */
DRUX_API miVector noise_table_vector(int i);
/* *seed = (*seed x 25173 + 13849) mod 65536, returned as *seed / 65535,
   in [0, 1]; float or double. */
DRUX_API float noise_frand(miUint *seed);
DRUX_API double noise_drand(miUint *seed);
/* Builds the gradient table once per process under the state's global
   lock; later calls return at once.  Without state or lock: error, nothing
   built. */
DRUX_API void noise_gradient_init(miState *state);
/* Gradient noise, period 256 per axis, 0 at whole-number points; 0 until
   noise_gradient_init has run. */
DRUX_API float noise_gradient_3d(float x, float y, float z);
MI_END_C

/* ================================================== layouts */

#ifdef __cplusplus
static_assert(sizeof(LightData) == 48, "LightData");
static_assert(offsetof(LightData, color) == 16, "LightData");
static_assert(offsetof(LightData, corners) == 32, "LightData");
static_assert(sizeof(ScratchStack) == 24, "ScratchStack");
static_assert(sizeof(TmSampler) == 12, "TmSampler");
static_assert(sizeof(FrameBufferInfoRecord) == 60, "frameBufferInfo record");
static_assert(offsetof(FrameBufferInfoRecord, hostData) == 40, "frameBufferInfo record");
static_assert(offsetof(FrameBufferInfoRecord, hostTail) == 56, "frameBufferInfo record");
static_assert(offsetof(FrameBufferDataBlock, nonMaterialPasses) == 12, "FBuf block");
static_assert(offsetof(FrameBufferDataBlock, frameBufferInfoFirst) == 16, "FBuf block");
static_assert(offsetof(FrameBufferDataBlock, frameBufferInfo) == 24, "FBuf block");
static_assert(offsetof(FrameBufferDataBlock, typeCountsFirst) == 84, "FBuf block");
static_assert(offsetof(FrameBufferDataBlock, typeCountsCount) == 88, "FBuf block");
static_assert(offsetof(FrameBufferDataBlock, typeCounts) == 92, "FBuf block");
static_assert(sizeof(FrameBufferDataBlock) == 96, "FBuf block");
static_assert(sizeof(PassTypeRange) == 8, "PassTypeRange");
static_assert(sizeof(PassTypeInfo) == 280, "PassTypeInfo");
static_assert(sizeof(PassSlot) == 52, "PassSlot");
static_assert(offsetof(PassSlot, result) == 16, "PassSlot");
static_assert(offsetof(PassSlot, opacity) == 32, "PassSlot");
static_assert(offsetof(PassSlot, slotFlags) == 48, "PassSlot");
static_assert(sizeof(FrameBufferInfo) == 104, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, flags) == 4, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, hostData) == 8, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, light) == 24, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, shadow) == 40, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, shadowSum) == 56, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, lightSum) == 72, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, hostTail) == 88, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, padding) == 92, "FrameBufferInfo");
static_assert(offsetof(FrameBufferInfo, slots) == 96, "FrameBufferInfo");
static_assert(sizeof(FrameBufferState) == 24, "FrameBufferState");
static_assert(offsetof(FrameBufferState, sampleColor) == 8, "FrameBufferState");
static_assert(sizeof(BaseComposite) == 16, "BaseComposite");
static_assert(offsetof(BaseCompositeResult, secondary) == 0x10, "composite record");
static_assert(offsetof(BaseCompositeResult, opacity) == 0x20, "composite record");
static_assert(offsetof(BaseCompositeResult, transparency) == 0x30, "composite record");
static_assert(offsetof(BaseCompositeResult, copyA) == 0x40, "composite record");
static_assert(offsetof(BaseCompositeResult, copyK) == 0x90, "composite record");
static_assert(offsetof(BaseCompositeResult, copyE0) == 0xa0, "composite record");
static_assert(offsetof(BaseCompositeResult, copyH) == 0xe0, "composite record");
static_assert(offsetof(BaseCompositeResult, oneMinusTransparency) == 0xf0, "composite record");
static_assert(offsetof(BaseShaderState, refractBlurLimit) == 0x10, "kelubase");
static_assert(offsetof(BaseShaderState, reflectBlurLimit) == 0x14, "kelubase");
static_assert(offsetof(BaseShaderState, minContribution) == 0x1c, "kelubase");
static_assert(offsetof(BaseShaderState, fullSampleContribution) == 0x20, "kelubase");
static_assert(offsetof(BaseShaderState, lightData) == 0x60, "kelubase");
static_assert(offsetof(BaseShaderState, childResult1) == 0x1cc, "kelubase");
static_assert(offsetof(BaseShaderState, childResult2) == 0x1dc, "kelubase");
static_assert(offsetof(BaseShaderState, childTransmission) == 0x1ec, "kelubase");
static_assert(offsetof(BaseShaderState, pathWeight) == 0x230, "kelubase");
static_assert(sizeof(BaseShaderState) == 0x240, "kelubase");
static_assert(offsetof(Ramp, position) == 8, "Ramp");
static_assert(offsetof(Ramp, value) == 208, "Ramp");
static_assert(offsetof(Ramp, interpolation) == 1008, "Ramp");
static_assert(sizeof(Ramp) == 1208, "Ramp");
static_assert(sizeof(RampScalarEntry) == 12, "ramp scalar entry");
static_assert(sizeof(RampColorEntry) == 24, "ramp colour entry");
static_assert(offsetof(RampColorEntry, interpolation) == 20, "ramp colour entry");
#endif /* __cplusplus */

#endif /* DRUX_SHADER_SDK_H */
