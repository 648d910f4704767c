/*
 * The renderer's session (render.cpp, render_setup.cpp): one render's
 * context, shaders, geometry and lights, set up stage by stage, and its
 * tile loop.  Private to the host library.
 */
#ifndef DRUXHOST_RENDER_SESSION_H
#define DRUXHOST_RENDER_SESSION_H

#include "builtin_shaders.h"
#include "pass_images.h"
#include "exporter.h"
#include "geometry.h"
#include "host_math.h"
#include "render.h"
#include "runtime.h"
#include "shader_loader.h"
#include "shader_trace.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace druxhost {

struct Items {
    std::vector<miTag> tags;
    std::vector<mirt::GeometryTags> geometry;
    miTag keep(miTag t)
    {
        tags.push_back(t);
        return t;
    }
    ~Items()
    {
        for (const mirt::GeometryTags &g : geometry)
            mirt::delete_instance(g);
        for (miTag t : tags)
            mirt::db_delete(t);
    }
};

/* The camera: a pinhole at `position` looking at `target`. */
struct Camera {
    miVector origin, right, up, forward;
    float tanX, tanY;
    int width, height;

    Camera(const CameraDesc &c, int w, int h) : width(w), height(h)
    {
        origin = c.position;
        forward = normalized(sub(c.target, c.position));
        right = normalized(cross(forward, c.up));
        up = cross(right, forward);
        tanX = static_cast<float>(std::tan(c.fov * 3.14159265358979323846 / 360.0));
        tanY = tanX * static_cast<float>(h) / static_cast<float>(w);
    }
    /* camera space: x right, y up, looking down -z */
    Matrix toWorld() const
    {
        return {right.x,    right.y,    right.z,    0, up.x,     up.y,     up.z,     0,
                -forward.x, -forward.y, -forward.z, 0, origin.x, origin.y, origin.z, 1};
    }
    /* direction through raster position (px, py), y down */
    miVector ray(double px, double py) const
    {
        const float sx = static_cast<float>((2.0 * px / width - 1.0) * tanX);
        const float sy = static_cast<float>((1.0 - 2.0 * py / height) * tanY);
        return normalized(add(forward, add(mul(right, sx), mul(up, sy))));
    }
};


struct Builtins {
    const BuiltinShaders *table = nullptr;
    const mirt::LoadedShader *material = nullptr, *shadow = nullptr, *pointLight = nullptr, *rectLight = nullptr,
                             *plainLight = nullptr, *texture = nullptr, *environment = nullptr;
};


/* One render: the stages that set up the render context, the tiles, the
   teardown.  Members are declared so that they are destroyed in the right
   order: the exit functions run first (destructor), then the context, the
   ray-tracing scene and the database items, then the shader libraries, and
   last the scattering-cache lists the materials point into. */
class RenderSession {
public:
    RenderSession(const SceneDesc &s, const RenderOptions &ro, RenderResult &out)
        : s_(s), ro_(ro), out_(out), layout_(layoutPasses(s)), fbIndex_(s.passes.size(), 0)
    {
    }
    ~RenderSession()
    {
        if (initialised_)
            libs_.exit_all(nullptr);
    }
    RenderSession(const RenderSession &) = delete;
    RenderSession &operator=(const RenderSession &) = delete;

    /* Every stage up to and including the shaders' init functions. */
    void setUp(ShaderTracer *tracer = nullptr)
    {
        tracer_ = tracer;
        linkShaders();
        ctx_.reset(new mirt::Context(s_.width, s_.height));
        ctx_->record_irradiance_calls(false); /* no lock or list growth per gather */
        setOptions();
        setCamera();
        setFrameBuffers();
        makeShaders();
        makeGeometry();
        makeLights();
        initShaders();
    }
    void renderTiles();
    /* The finished tiles clipped to the region, tile rows joined. */
    std::vector<Region> finishedRegions() const;
    /* Renders sample `k` of pixel (x, y) alone on a state of its own; the
       main colour and every pass's value of that one sample. */
    void shadeOne(int x, int y, int k, miColor &main, std::vector<miColor> &passes);
    /* The shaders' exit functions (the materials free their scattering caches). */
    void tearDown()
    {
        libs_.exit_all(nullptr);
        initialised_ = false;
    }
    const std::string &fatal() const { return fatal_; }
    /* the signal that stopped the render early, 0 when it ran to the end */
    int stopped() const { return stopped_; }

private:
    /* Per-thread buffers of a pixel. */
    struct PixelScratch {
        std::vector<miColor> passSum;
        CryptoPixel objectPx, materialPx;
        PixelScratch(size_t passes, int samples) : passSum(passes), objectPx(samples), materialPx(samples) {}
    };

    void linkShaders();
    std::string shaderOrigin(const std::string &name);
    void setOptions();
    void setCamera();
    void setFrameBuffers();
    miTag builtinFn(int type, const mirt::LoadedShader *sh, const void *block, int size, bool connectable,
                    const std::string &name, const std::string &instance);
    void makeShaders();
    void makeMaterials(const std::map<std::string, miTag> &textureFn);
    void makeGeometry();
    void makeLights();
    miTag makeLight(const LightDesc &l, miTag param);
    void initShaders();
    void worker(int thread);
    Region tileRect(int tile) const;
    void renderTile(miState *st, int tile, PixelScratch &px);
    miColor shadeSample(miState *st, int x, int y, int k, CryptoPixel *objectPx, CryptoPixel *materialPx);
    void shadePixel(miState *st, int x, int y, PixelScratch &px);
    void noteFatal(const std::string &text);
    void waitForWorkers(int threads);

    const SceneDesc &s_;
    const RenderOptions &ro_;
    RenderResult &out_;
    const PassLayout layout_;
    CryptoTags cryptoTags_;
    std::vector<std::unique_ptr<ScatterCache *>> scatterLists_; /* outlive the materials */
    mirt::ShaderLibraries libs_; /* outlives every database item made for the render */
    Items items_;
    Builtins builtin_;
    mirt::MeshScene scene_; /* the render's one ray-tracing scene */
    std::unique_ptr<mirt::Context> ctx_;
    std::unique_ptr<Camera> camera_;
    std::vector<int> fbIndex_;
    std::map<std::string, miTag> materialFn_, shadowFn_;
    ShaderTracer *tracer_ = nullptr;
    bool initialised_ = false;
    BaseShaderState base_{};
    float invSamples_ = 1.0f;
    int tilesX_ = 0, tiles_ = 0;
    std::vector<int> work_; /* the tiles to render, in order */
    std::vector<char> done_; /* per work_ entry: finished (each written by one thread) */

    /* the tile loop's shared state */
    std::atomic<int> nextTile_{0};
    std::atomic<long> tilesDone_{0};
    std::mutex mu_;
    std::condition_variable cv_;
    int finished_ = 0;
    bool release_ = false;
    std::string fatal_;
    int stopped_ = 0;
};

/* Shader libraries and shader instances, before any state. */

} // namespace druxhost

#endif
