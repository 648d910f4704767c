/*
 * Scene description of the reference host: what the text scene format
 * (scene_format.cpp) reads and writes and what the renderer (render.cpp)
 * turns into database items, shaders, lights and passes.
 *
 * World space is z-up.  Everything here is plain data; names tie the parts
 * together (an instance names its mesh and material, a material its texture,
 * a light-group pass the group of its lights).
 */
#ifndef DRUXHOST_SCENE_H
#define DRUXHOST_SCENE_H

#include "DruxShaderSDK.h"
#include "host_math.h"
#include "pass_roles.h"
#include "shaders.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace druxhost {

const char *roleName(PassRole role);
bool roleFromName(const std::string &name, PassRole &role);
/* The pass type the exporter gives a role (see exporter.h). */
int passTypeOf(PassRole role);
/* True for the roles that sum to beauty. */
bool isAdditive(PassRole role);

struct PassDesc {
    std::string name;
    PassRole role = PassRole::Beauty;
    std::string group;          /* LightGroup: the lights' group */
    bool allOccluders = false;  /* every occluder shadows this pass, whatever its mask */
    miColor constant{0, 0, 0, 0}; /* Constant: the colour */
    int line = 0;                 /* in the scene file (0: not from a file) */
};

/* Textures and lights: their keys, defaults and ranges are those of the key
   table (scene_keys.h); a fresh description holds the defaults. */
struct TextureDesc {
    TextureDesc();
    std::string name;
    int pattern;                      /* TexturePattern */
    float scale;
    int octaves;
    miVector offset;
    std::vector<RampColorEntry> ramp; /* at most kMaxRampKeys keys */
    int line = 0;
};
/* Largest coordinate (absolute, world space) of a camera, light or placed
   mesh: the ray caster (Embree, single precision) cannot build or trace
   scenes far beyond it. */
constexpr float kCoordinateLimit = 1e15f;
/* Most shadow rays a rect light may send per shaded point (samples x
   shadow_samples). */
constexpr int kMaxShadowRays = 4096;
/* Longest chain of connected shader instances (each connection's
   evaluation nests on the render thread's stack). */
constexpr int kMaxShaderChain = 1000;

/* A material's keys, their defaults and ranges are those of the key table
   (scene_keys.h); a fresh MaterialDesc holds the defaults. */
struct MaterialDesc {
    MaterialDesc();
    std::string name;
    std::string shader;         /* when set, a `shader` instance shades the surface instead */
    miColor diffuse;
    std::string texture;        /* when set, drives the diffuse colour */
    float kd;
    miColor specular;
    int model;                  /* SpecularModel */
    float exponent;             /* Phong cosine power */
    float eccentricity;         /* Blinn */
    float rolloff;              /* Blinn */
    float secondary;            /* highlight scale on secondary rays */
    float translucence, focus, wrap;
    /* reflection */
    float reflectivity;
    miColor reflectColor;
    float reflectBlur;
    int reflectRays;
    int reflectionLimit;
    /* refraction */
    miColor transparency;
    float ior;
    float refractBlur;
    int refractRays;
    int refractionLimit;
    float thickness, fadeDistance, absorbance;
    bool chromatic;
    /* indirect light */
    bool indirect;
    miColor irradianceTint;
    /* subsurface scattering (radius 0: off) */
    float scatterRadius;
    miColor scatterScale;
    int scatterSamples;
    int scatterFalloff;
    float scatterDiffuse;
    int scatterCache;           /* 0: full grid; > 0: hash slots */
    /* bump from gradient noise (0: off) */
    float bump;
    float bumpScale;
    int line = 0;
};

enum class MeshKind { Plane, Sphere, Box, Torus, Triangles, Obj };

struct MeshDesc {
    std::string name;
    MeshKind kind = MeshKind::Plane;
    float a = 1, b = 1, c = 1;  /* plane: size x, y; sphere: radius; box: size x, y, z; torus: R, r */
    int n = 1, m = 1;           /* plane: nx, ny; sphere/torus: segments, rings */
    /* Obj: the file as the scene names it; read when the scene is read,
       into the triangle data below */
    std::string file;
    /* Triangles, Obj */
    std::vector<miVector> P, N, uv;
    std::vector<std::array<int, 3>> tris;
    /* Flat-shaded: no vertex normals, neither given nor computed. */
    bool faceted = false;
    int line = 0;
};

/* One transform step of an instance, applied in the order written. */
struct TransformStep {
    enum Kind { Translate, Rotate, Scale } kind = Translate;
    miVector v{0, 0, 0}; /* Rotate: v.x = axis (0, 1, 2), v.y = degrees */
};

struct InstanceDesc {
    std::string name, mesh, material;
    std::vector<TransformStep> steps;
    std::vector<std::string> shadowPasses; /* empty: its shadow reaches every pass */
    int line = 0;
    Matrix matrix() const;                 /* local to world */
};

enum class LightKind { Point, Rect, Plain };

struct LightDesc {
    LightDesc();
    std::string name;
    LightKind kind = LightKind::Point;
    miVector position;  /* point/plain: position; rect: centre */
    miVector u, v;      /* rect: half edges */
    miColor color;
    float intensity;
    bool quadratic;     /* falloff 1/d^2 */
    int samples;        /* rect */
    int shadowSamples;  /* rect */
    bool shadow;
    bool sharedShadow;
    miColor shadowColor;
    std::string group;
    int line = 0;
};

/* Camera, options and environment: their keys, defaults and ranges are
   those of the key table (scene_keys.h). */
struct CameraDesc {
    CameraDesc();
    miVector position, target, up;
    float fov; /* horizontal, degrees */
    int line = 0;
};

struct EnvironmentDesc {
    EnvironmentDesc();
    miColor zenith, horizon, ground;
    float intensity;
    int line = 0;
};

struct OptionsDesc {
    OptionsDesc();
    bool trace;
    int reflectionDepth, refractionDepth, traceDepth;
    bool finalgather;
    int fgRays;
    float minContribution, fullContribution;
    int reflectBlurLimit, refractBlurLimit;
    int line = 0;
};

/* `link "libfoo.so"`: a shader library to load before anything is made. */
struct LinkDesc {
    std::string file;
    int line = 0;
};

/* `shader NAME FUNCTION PARAM VALUE...`: an instance of a linked shader; the
   values are read by the declared parameter types when the library is
   loaded (`PARAM = INSTANCE` connects). */
struct ShaderDesc {
    std::string name, function;
    std::vector<std::string> values;
    int line = 0;
};

struct SceneDesc {
    std::vector<LinkDesc> links; /* none: the host's libdruxhostshaders.so */
    std::vector<ShaderDesc> shaders;
    std::string directory;       /* of the scene file: searched first for linked libraries */
    int width = 320, height = 240, samples = 4;
    int resolutionLine = 0, samplesLine = 0;
    CameraDesc camera;
    OptionsDesc options;
    EnvironmentDesc environment;
    std::vector<TextureDesc> textures;
    std::vector<MaterialDesc> materials;
    std::vector<MeshDesc> meshes;
    std::vector<InstanceDesc> instances;
    std::vector<LightDesc> lights;
    std::vector<PassDesc> passes;

    const TextureDesc *texture(const std::string &name) const;
    const MaterialDesc *material(const std::string &name) const;
    const MeshDesc *mesh(const std::string &name) const;
    const PassDesc *pass(const std::string &name) const;
};

/* A scene that cannot be used: the line (0 when not from a file) and why.
   Checks of a whole description name the line the description came from. */
class SceneError : public std::runtime_error {
public:
    SceneError(int line, const std::string &what);
    int line() const { return line_; }

private:
    int line_;
};

/* Checks names and references and value ranges; throws SceneError. */
void validate(const SceneDesc &scene);

/* The built-in scene: host/scenes/default.scene, embedded at build time and
   parsed. */
SceneDesc defaultScene();

/* Text format: parse (throws SceneError with the line) and write.  Model
   files named by the scene are found relative to `baseDir` (empty: the
   current directory); loadScene uses the scene file's directory. */
SceneDesc parseScene(const std::string &text, const std::string &baseDir = std::string());
SceneDesc loadScene(const std::string &path);
std::string writeScene(const SceneDesc &scene);

/* 16 hex digits that change with anything that changes a render's pixels:
   the renderer's version, the scene as written (the command line's
   overrides included) and the triangles of its model files.  Parts of one render carry it so
   that parts of different renders are never merged. */
std::string sceneFingerprint(const SceneDesc &scene);

} // namespace druxhost

#endif
