/*
 * DruxShaderSDK: shading support for host shader libraries.
 *
 * Exported functions and data have plain C names, except the two C++
 * overloads getFrameBufferDataBlock and getNamedFrameBufferID(const miState*,
 * const char*).  Records shared with host libraries have binding layouts,
 * pinned by the static_asserts at the end of this header.
 */
#ifndef DRUX_SHADER_SDK_H
#define DRUX_SHADER_SDK_H

#include "shader.h"

#include <cstddef>
#include <string>

#define DRUX_API __attribute__((visibility("default")))

/* ================================================== constants and colours */

/* Single bits of the host's feature mask. */
extern "C" {
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
}

/* What a light shader tells the material it emits (48 bytes). */
struct LightData {
    int addConstant;   /* non-zero: constant weight 1, whatever the angle */
    int addLambert;    /* non-zero: Lambert (cosine) and translucence terms */
    int hostFlagA;     /* for the host */
    int hostFlagB;     /* for the host */
    miColor color;     /* for the host */
    miVector *corners; /* four corners of a rectangular area light, or null */
    unsigned char reserved[8];
};

extern "C" {
DRUX_API extern LightData defaultLightDataArray;

/* Messages, reported verbatim (no formatting). */
DRUX_API void druxFatal(const std::string &message);
DRUX_API void druxInfo(const std::string &message);
DRUX_API void druxWarning(const std::string &message);
DRUX_API void druxError(const std::string &message);
}

/* ================================================== user data and scratch memory */

/* A caller-owned stack of fixed-size elements on a per-thread block allocator.
   Each element's first pointer-sized word links to the element below. */
struct ScratchStack {
    void *top;
    int count;
    miMemblk *allocator;
};

extern "C" {
DRUX_API void *get_userdata(int magic, int type, miTag tag, miTag *block_tag, int *swapped);
DRUX_API miMemblk *get_tla(miLock lock, int thread, int size);
DRUX_API void clr_tla_list(miLock lock);
DRUX_API miMemblk *stack_create(miState *state, ScratchStack *stack, int size);
DRUX_API void *stack_push(ScratchStack *stack);
DRUX_API void stack_pop(ScratchStack *stack);
DRUX_API void origin_from_camera(miState *state, miVector *origin);
}

/* ================================================== colour and time sampling */

struct TmSampler {
    miUint index; /* samples taken */
    miUint count; /* samples to take, 1..100 */
    float step;   /* time between samples */
};

extern "C" {
DRUX_API void hsv_to_rgb(const miColor *hsv, miColor *rgb);
DRUX_API void rgb_to_hsv(const miColor *rgb, miColor *hsv);
DRUX_API void tmsampler_init(TmSampler *sampler, miState *state, int motion);
DRUX_API void tmsampler_next(TmSampler *sampler, miState *state);
DRUX_API miBoolean tmsampler_isDone(const TmSampler *sampler);
}

/* ================================================== frame-buffer records */

/* Number of pass types. */
#define DRUX_PASS_TYPES 35

/* One frame-buffer declaration of the exporter's block (15 words). */
struct FrameBufferInfoRecord {
    miTag frameBufferName; /* tag of the name string */
    int flag[9];           /* word k non-zero sets flag bit 1 << (k - 1) */
    miUint hostData[4];
    miUint hostTail;
};

/* The exporter's frame-buffer description: parameters of the camera's user
   data with magic "FBuf".  Each array: first index, count, one storage slot;
   element k lies at the storage slot plus (first + k) elements. */
struct FrameBufferDataBlock {
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
};

#define FBUF_MAGIC 0x46427566 /* 'FBuf' */

struct FrameBufferDataRef {
    const FrameBufferDataBlock *block; /* null when there is no block */
    miTag tag;                         /* pinned user-data record; 0 when none */
    miBoolean swapped;                 /* the magic matched only byte-reversed */
};

struct PassTypeRange {
    int count;
    int first;
};

/* Stored under PASS_TYPE_INFO_KEY. */
struct PassTypeInfo {
    PassTypeRange range[DRUX_PASS_TYPES];
};

/* Per entry and trace depth. */
struct PassSlot {
    miColor accum;    /* what this depth gathered for the pass */
    miColor result;   /* the surface's final colour for the pass at this depth */
    miColor opacity;  /* coverage of result */
    miUint slotFlags; /* bit 0: no direct contribution at this depth */
};

/* One per frame buffer; the array is stored under FRAME_BUFFER_INFO_KEY. */
struct FrameBufferInfo {
    miUint fbId;        /* 0: unknown name; entry 0 holds 0xFFFFFFFF until names are resolved */
    miUint flags;       /* FBINFO_ bits */
    miUint hostData[4];
    miColor light;      /* this pass's share of the light being sampled */
    miColor shadow;     /* shadow transmission / shadowed light */
    miColor shadowSum;  /* sum of shadow over a light's shadow samples */
    miColor lightSum;   /* sum of a light's sample contributions */
    miUint hostTail;
    miUint depthSlots;  /* slots per entry (trace-depth limit + 2) as set up by the state
                           shader; 0 in an array a host builds itself. Never written by hosts */
    PassSlot *slots;    /* trace-depth limit + 2 slots */
};

/* Stored under FRAME_BUFFER_STATE_KEY. */
struct FrameBufferState {
    int allocateTempOnHeap;
    int sampleValue;
    miColor sampleColor;
};

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

/* C++ overloads (mangled names). */
DRUX_API FrameBufferDataRef getFrameBufferDataBlock(miState *state);
DRUX_API miUint getNamedFrameBufferID(const miState *state, const char *name);

extern "C" {
DRUX_API miUint getNamedFrameBufferID(miState *state, miTag name);
DRUX_API FrameBufferState *getFrameBufferState(miState *state);
DRUX_API miUint getFrameBufferInfo(miState *state, PassTypeInfo **types, FrameBufferInfo **entries);
DRUX_API miUint getNonMaterialPassFrameBufferIndex(miState *state, int index);
}

/* ================================================== frame-buffer state shaders */

struct druxFrameBufferInit_params {
    int nonMaterialPass;
    miColor initColor;
};

extern "C" {
DRUX_API int druxFrameBufferState_version(void);
DRUX_API void druxFrameBufferState_init(miState *state, void *params, miBoolean *inst_init_req);
DRUX_API miBoolean druxFrameBufferState(void *result, miState *state, void *params,
                                        miShader_state_arg *arg);
DRUX_API int druxFrameBufferInit_version(void);
DRUX_API void druxFrameBufferInit_init(miState *state, void *params, miBoolean *inst_init_req);
DRUX_API miBoolean druxFrameBufferInit(void *result, miState *state,
                                       druxFrameBufferInit_params *params,
                                       miShader_state_arg *arg);
DRUX_API int druxTraversal_version(void);
DRUX_API miBoolean druxTraversal(miColor *result, miState *state, void *params);
}

/* ================================================== light loop */

extern "C" {
DRUX_API miBoolean contributesToPass(int index, const char *mask);
DRUX_API void sampleLightBegin(miUint n, FrameBufferInfo *entries);
DRUX_API void sampleLightEnd(miState *state, miUint n, FrameBufferInfo *entries, int samples,
                             const int *mode, const miBoolean *useScale, const float *scale);
DRUX_API void setLightIrradiance(miUint n, FrameBufferInfo *entries, const miColor *colour);
DRUX_API void tracePassInit(miUint n, FrameBufferInfo *entries, miState *state);
DRUX_API void tracePassAdd(miUint n, FrameBufferInfo *entries, miState *state, miBoolean refracted,
                           miColor weight);

DRUX_API miBoolean traceShadow(miUint n, FrameBufferInfo *entries, miColor *filter,
                               const miColor *lightColor, const miColor *shadowColor,
                               miBoolean useSharedShadow, miState *state);
DRUX_API void traceShadowAccumulateBegin(miUint n, FrameBufferInfo *entries);
DRUX_API miBoolean traceShadowAccumulate(miUint n, FrameBufferInfo *entries, miColor *filter,
                                         miState *state);
DRUX_API void traceShadowAccumulateEnd(miUint n, FrameBufferInfo *entries, miUint samples,
                                       const miColor *lightColor, const miColor *shadowColor);
DRUX_API int applyShadowTransparencyToFrameBuffers(miUint n, FrameBufferInfo *entries,
                                                   const miColor *transparency,
                                                   miBoolean applyToLight, miState *state);

DRUX_API void setupLightContributions(miUint n, FrameBufferInfo *entries, miState *state);
DRUX_API void handleNonDruxLights(miUint n, FrameBufferInfo *entries, const miColor *lightResult,
                                  miTag lightInstance, miState *state);
}

/* ================================================== shading models */

extern "C" {
DRUX_API float compute_hairtubeshader_specular(const miVector *dir_a, const miVector *dir_b,
                                               const miVector *tangent, float exponent);
DRUX_API float compute_phong_specular(const miVector *r, const miVector *l, miState *state,
                                      float cos_power, float secondary_scale);
DRUX_API float compute_blinn_specular(const miVector *light_dir, const miVector *normal,
                                      miState *state, float dot_nl, float dot_nv,
                                      float eccentricity, float rolloff, float secondary_scale);
DRUX_API void arealight_max_phong_spec_dir(const miVector *point, const miVector *r,
                                           const miVector *corners, miTag light_inst,
                                           miVector *out_dir);
DRUX_API float arealight_lambertian_reflect(const miVector *point, const miVector *normal,
                                            const miVector *corners);
DRUX_API float compute_lambert_translucence(miState *state, const miVector *light_dir,
                                            const miVector *corners, float dot_nl,
                                            float translucence, float focus, float wrap);

/* Spaces of get_derivs. */
enum { DRUX_SPACE_INTERNAL = 0, DRUX_SPACE_CAMERA = 1, DRUX_SPACE_OBJECT = 2 };

DRUX_API void get_derivs(miState *state, miVector *du, miVector *dv, int space, int index);
DRUX_API void compute_irradiance(miColor *result, miColor *irradiance_tint, const miColor *color,
                                 const miColor *transparency, miColor *irradiance, miState *state,
                                 float diffuse, float gain);
}

/* ================================================== base-material compositing */

struct BaseComposite {
    int mode;
    int hintA;
    int hintB;
    miUint flags; /* BC_ bits */
};

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
struct BaseCompositeResult {
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
};

extern "C" {
DRUX_API void bc_construct(BaseComposite *bc, int mode, miState *state);
DRUX_API void bc_destruct(void);
DRUX_API void bc_composite(BaseComposite bc, void *out, const miColor *c_a, const miColor *c_b,
                           const miColor *c_c, const miColor *c_d, const miColor *c_e,
                           const miColor *c_f, const miColor *c_g, const miColor *c_h,
                           const miColor *transparency, int zero_color, int opacity_rule, float k,
                           float scale, float e_weight, float opacity);
}

/* ================================================== reflection and refraction */

/* The host's per-thread record under the shader-state key "kelubase". */
struct BaseShaderState {
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
};

#define KELU_BASE_STATE_KEY "kelubase"

extern "C" {
DRUX_API void compute_reflection(miColor *result, const miColor *color, miColor *reflected_color,
                                 int *reflection_limit, float *blur, int *blur_limit, int *rays,
                                 int no_trace, const miVector *normal, miState *state,
                                 int entry_count, FrameBufferInfo *entries,
                                 PassTypeInfo *pass_types, const float *pass_scale, float weight,
                                 float gain, float dot_nd);
DRUX_API void compute_refraction(miColor *result, miColor *transmission, int *refraction_limit,
                                 float *ior, int refractions, const miColor *transparency,
                                 int bypass, float *blur, int *blur_limit, int *rays,
                                 float *thickness, float *fade_distance, float *absorbance,
                                 int *chromatic, const miVector *normal, miState *state,
                                 int entry_count, FrameBufferInfo *entries,
                                 PassTypeInfo *pass_types, const float *pass_scale, float dot_nd);
}

/* ================================================== subsurface scattering */

struct ScatterCache; /* opaque to callers */

extern "C" {
DRUX_API void compute_scatter(miColor *result, miColor *scale, float *radius, int *samples,
                              int *falloff, int *maxDepth, int *cacheSize, float *diffuse,
                              miColor *color, float *translucence, float *focus, float *wrap,
                              miVector *normalOverride, miColor *irradiance,
                              miColor *irradianceTint, miState *state, ScatterCache **cache);
DRUX_API void destroy_scatter(miState *state, ScatterCache **cache);
}

/* ================================================== ramps */

#define RAMP_MAX_KEYS 50

enum { RAMP_NONE = 0, RAMP_LINEAR = 1, RAMP_SMOOTH = 2, RAMP_SPLINE = 3 };

struct Ramp {
    int is_color;
    int count;
    float position[RAMP_MAX_KEYS];
    union {
        float value[RAMP_MAX_KEYS];
        miColor color[RAMP_MAX_KEYS];
    };
    int interpolation[RAMP_MAX_KEYS];
};

/* Elements of a ramp array parameter. */
struct RampScalarEntry {
    float position;
    float value;
    int interpolation;
};
struct RampColorEntry {
    float position;
    miColor color;
    int interpolation;
};

extern "C" {
DRUX_API void ramp_constructor(Ramp *ramp, miState *state, void *entries, int is_color);
DRUX_API void ramp_destructor(Ramp *ramp);
DRUX_API float ramp_get_interp_float(const Ramp *ramp, float x);
DRUX_API void ramp_get_interp_color(const Ramp *ramp, miColor *result, float x);
}

/* ================================================== noise */

extern "C" {
DRUX_API extern const float NoiseTable[65536];
DRUX_API extern const unsigned char PermutationArray[256];

DRUX_API float noise_scalar_1d(double x);
DRUX_API float noise_scalar_2d(double x, double y);
DRUX_API float noise_scalar_3d(double x, double y, double z);
DRUX_API float noise_scalar_4d(int cells, double x, double y, double z, double w);
DRUX_API miVector noise_vector_2d(double x, double y);
DRUX_API double noise_table_scalar(int i);
DRUX_API miVector noise_table_vector(int i);
DRUX_API float noise_frand(miUint *seed);
DRUX_API double noise_drand(miUint *seed);
DRUX_API void noise_gradient_init(miState *state);
DRUX_API float noise_gradient_3d(float x, float y, float z);
}

/* ================================================== layouts */

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
static_assert(offsetof(FrameBufferInfo, depthSlots) == 92, "FrameBufferInfo");
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

#endif /* DRUX_SHADER_SDK_H */
