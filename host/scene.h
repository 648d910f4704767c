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

#include <stdexcept>
#include <string>
#include <vector>

namespace druxhost {

/* What a pass (frame buffer) holds.  The additive roles (diffuse, specular,
   reflection, refraction, indirect, scatter, background) sum to beauty. */
enum class PassRole {
    Beauty = 1,
    Diffuse,
    Specular,
    Reflection,
    Refraction,
    Indirect,
    Scatter,
    Background,
    Shadow,
    LightGroup,
    Constant, /* a non-material pass: a constant colour written at every sample */
    Custom, /* a material pass that shaders of linked libraries find by name and fill */
    /* data passes of the first surface an eye ray meets (data_passes.h) */
    Depth,
    Normal,
    Position,
    Albedo,
    Coverage
};

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
};

enum class TexturePattern { Fbm = 0, Marble = 1, Turbulence = 2 };

struct TextureDesc {
    std::string name;
    TexturePattern pattern = TexturePattern::Fbm;
    float scale = 1.0f;   /* features per unit of object space */
    int octaves = 3;
    miVector offset{0, 0, 0};
    std::vector<RampColorEntry> ramp; /* at most kMaxRampKeys keys */
};
constexpr int kMaxRampKeys = 16;

enum class SpecularModel { Phong = 0, Blinn = 1 };

struct MaterialDesc {
    std::string name;
    std::string shader;         /* when set, a `shader` instance shades the surface instead */
    miColor diffuse{0.7f, 0.7f, 0.7f, 1};
    std::string texture;        /* when set, drives the diffuse colour */
    float kd = 1.0f;
    miColor specular{0, 0, 0, 1};
    SpecularModel model = SpecularModel::Phong;
    float exponent = 30.0f;     /* Phong cosine power */
    float eccentricity = 0.3f;  /* Blinn */
    float rolloff = 0.7f;       /* Blinn */
    float secondary = 1.0f;     /* highlight scale on secondary rays */
    float translucence = 0.0f, focus = 0.0f, wrap = 0.0f;
    /* reflection */
    float reflectivity = 0.0f;
    miColor reflectColor{1, 1, 1, 1};
    float reflectBlur = 0.0f;
    int reflectRays = 1;
    int reflectionLimit = 8;
    /* refraction */
    miColor transparency{0, 0, 0, 0};
    float ior = 1.0f;
    float refractBlur = 0.0f;
    int refractRays = 1;
    int refractionLimit = 8;
    float thickness = 0.0f, fadeDistance = 0.0f, absorbance = 0.0f;
    bool chromatic = false;
    /* indirect light */
    bool indirect = true;
    miColor irradianceTint{1, 1, 1, 1};
    /* subsurface scattering (radius 0: off) */
    float scatterRadius = 0.0f;
    miColor scatterScale{1, 1, 1, 1};
    int scatterSamples = 8;
    int scatterFalloff = 2;
    float scatterDiffuse = 1.0f;
    int scatterCache = 0;       /* 0: full grid; > 0: hash slots */
    /* bump from gradient noise (0: off) */
    float bump = 0.0f;
    float bumpScale = 4.0f;
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
    Matrix matrix() const;                 /* local to world */
};

enum class LightKind { Point, Rect, Plain };

struct LightDesc {
    std::string name;
    LightKind kind = LightKind::Point;
    miVector position{0, 0, 5};   /* point/plain: position; rect: centre */
    miVector u{1, 0, 0}, v{0, 1, 0}; /* rect: half edges; it emits along u x v */
    miColor color{1, 1, 1, 1};
    float intensity = 10.0f;
    bool quadratic = true;        /* falloff 1/d^2 */
    int samples = 4;              /* rect: light samples per shaded point */
    int shadowSamples = 1;        /* rect: shadow rays per light sample */
    bool shadow = true;           /* casts shadows */
    bool sharedShadow = false;    /* one shadow value for every pass */
    miColor shadowColor{0, 0, 0, 1};
    std::string group;
};

struct CameraDesc {
    miVector position{0, -8, 3}, target{0, 0, 1}, up{0, 0, 1};
    float fov = 40.0f; /* horizontal, degrees */
};

struct EnvironmentDesc {
    miColor zenith{0.2f, 0.35f, 0.7f, 1}, horizon{0.8f, 0.85f, 0.9f, 1}, ground{0.25f, 0.23f, 0.2f, 1};
    float intensity = 1.0f;
};

struct OptionsDesc {
    bool trace = true;
    int reflectionDepth = 2, refractionDepth = 4, traceDepth = 6;
    bool finalgather = false;
    int fgRays = 8;
    float minContribution = 0.01f, fullContribution = 0.5f;
    int reflectBlurLimit = 1, refractBlurLimit = 1;
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

/* A scene that cannot be used: the line (0 when not from a file) and why. */
class SceneError : public std::runtime_error {
public:
    SceneError(int line, const std::string &what);
    int line() const { return line_; }

private:
    int line_;
};

/* Checks names and references and value ranges; throws SceneError. */
void validate(const SceneDesc &scene);

/* The built-in scene (host/scenes/default.scene holds it in the text format). */
SceneDesc defaultScene();

/* Text format: parse (throws SceneError with the line) and write.  Model
   files named by the scene are found relative to `baseDir` (empty: the
   current directory); loadScene uses the scene file's directory. */
SceneDesc parseScene(const std::string &text, const std::string &baseDir = std::string());
SceneDesc loadScene(const std::string &path);
std::string writeScene(const SceneDesc &scene);

} // namespace druxhost

#endif
