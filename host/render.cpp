#include "render.h"

#include "builtin_shaders.h"
#include "data_passes.h"
#include "exporter.h"
#include "geometry.h"
#include "meshes.h"
#include "runtime.h"
#include "shader_loader.h"
#include "shader_trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace druxhost {

namespace {

/* State shaders get the operation record as a fourth argument; the shader
   record stores them under the common shader signature. */
template <class F> miShader_fn asShader(F *fn)
{
    return reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)(void)>(fn));
}

/* Database items made for one render, deleted on every way out. */
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


uint32_t hash32(uint32_t x)
{
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

/* Sub-pixel position of sample s of pixel (x, y): a Halton point, rotated per
   pixel; the pixel centre for a single sample. */
void jitter(int x, int y, int s, int samples, double &jx, double &jy)
{
    if (samples <= 1) {
        jx = jy = 0.5;
        return;
    }
    const uint32_t h = hash32(static_cast<uint32_t>(x) * 0x9E3779B1u ^ hash32(static_cast<uint32_t>(y) + 0x632BE5ABu));
    const double rx = (h & 0xFFFF) / 65536.0, ry = (h >> 16) / 65536.0;
    jx = radical_inverse(static_cast<uint32_t>(s), 2) + rx;
    jy = radical_inverse(static_cast<uint32_t>(s), 3) + ry;
    if (jx >= 1.0)
        jx -= 1.0;
    if (jy >= 1.0)
        jy -= 1.0;
}

BaseShaderState baseState(const OptionsDesc &o)
{
    BaseShaderState bs;
    std::memset(&bs, 0, sizeof bs);
    bs.mode = 0;
    bs.refractBlurLimit = o.refractBlurLimit;
    bs.reflectBlurLimit = o.reflectBlurLimit;
    bs.minContribution = o.minContribution;
    bs.fullSampleContribution = o.fullContribution;
    bs.lightData = defaultLightDataArray;
    bs.childResult1 = BLACK;
    bs.childResult2 = BLACK;
    bs.childTransmission = WHITE;
    bs.pathWeight = miColor{1, 1, 1, 1};
    return bs;
}

size_t countMessages(mirt::Level level)
{
    size_t n = 0;
    for (const mirt::Message &m : mirt::messages())
        if (m.level == level)
            ++n;
    return n;
}

/* The shaders of the built-in commands, resolved in the linked libraries. */
struct Builtins {
    const BuiltinShaders *table = nullptr;
    const mirt::LoadedShader *material = nullptr, *shadow = nullptr, *pointLight = nullptr, *rectLight = nullptr,
                             *plainLight = nullptr, *texture = nullptr, *environment = nullptr;
};

Builtins resolveBuiltins(mirt::ShaderLibraries &libs)
{
    Builtins b;
    auto fn = reinterpret_cast<BuiltinShadersFn>(libs.find_symbol(DRUXHOST_BUILTIN_SYMBOL));
    b.table = fn ? fn() : nullptr;
    if (!b.table)
        throw mirt::LoadError("no linked library serves the built-in environment, material, light and texture "
                              "commands (symbol missing: " DRUXHOST_BUILTIN_SYMBOL "); link \"libdruxhostshaders.so\"");
    if (b.table->size != static_cast<int>(sizeof(BuiltinShaders)))
        throw mirt::LoadError("version mismatch: the linked " DRUXHOST_BUILTIN_SYMBOL " table has " +
                              std::to_string(b.table->size) + " bytes, druxrender reads " +
                              std::to_string(sizeof(BuiltinShaders)));
    b.material = &libs.shader(b.table->material);
    b.shadow = &libs.shader(b.table->shadow);
    b.pointLight = &libs.shader(b.table->pointLight);
    b.rectLight = &libs.shader(b.table->rectLight);
    b.plainLight = &libs.shader(b.table->plainLight);
    b.texture = &libs.shader(b.table->texture);
    b.environment = &libs.shader(b.table->environment);
    return b;
}

} // namespace

std::vector<std::string> shaderSearchPath(const SceneDesc &s, const RenderOptions &ro)
{
    std::vector<std::string> folders;
    if (!s.directory.empty())
        folders.push_back(s.directory);
    folders.insert(folders.end(), ro.shaderPath.begin(), ro.shaderPath.end());
    if (const char *env = std::getenv("DRUX_SHADER_PATH")) {
        std::string cur;
        for (const char *c = env;; ++c) {
            if (*c == ':' || *c == '\0') {
                if (!cur.empty())
                    folders.push_back(cur);
                cur.clear();
                if (!*c)
                    break;
            } else {
                cur += *c;
            }
        }
    }
    const std::string own = mirt::renderer_library_dir();
    if (!own.empty())
        folders.push_back(own);
    return folders;
}

const std::vector<std::string> &libraryMemoryTags()
{
    static const std::vector<std::string> tags = {"SDK/druxFrameBufferState", "SDK/druxScatter", "SDK/druxNoise",
                                                  "SDK/druxKeluState"};
    return tags;
}

const Image *RenderResult::pass(const std::string &name) const
{
    for (size_t i = 0; i < passNames.size(); ++i)
        if (passNames[i] == name)
            return &passes[i];
    return nullptr;
}

namespace {

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

private:
    /* Per-thread buffers of a pixel. */
    struct PixelScratch {
        std::vector<miColor> passSum;
        CryptoPixel objectPx, materialPx;
        PixelScratch(size_t passes, int samples) : passSum(passes), objectPx(samples), materialPx(samples) {}
    };

    void linkShaders();
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

    /* the tile loop's shared state */
    std::atomic<int> nextTile_{0};
    std::atomic<long> tilesDone_{0};
    std::mutex mu_;
    std::condition_variable cv_;
    int finished_ = 0;
    bool release_ = false;
    std::string fatal_;
};

/* Shader libraries and shader instances, before any state. */
void RenderSession::linkShaders()
{
    const std::vector<std::string> folders = shaderSearchPath(s_, ro_);
    int line = 0;
    try {
        if (s_.links.empty())
            libs_.link("libdruxhostshaders.so", folders);
        for (const LinkDesc &k : s_.links) {
            line = k.line;
            libs_.link(k.file, folders);
        }
        line = 0;
        builtin_ = resolveBuiltins(libs_);
        for (const ShaderDesc &d : s_.shaders) {
            line = d.line;
            libs_.instantiate(d.name, d.function, d.values, items_.tags);
        }
    } catch (const mirt::LoadError &e) {
        throw SceneError(line, e.what());
    }
}

void RenderSession::setOptions()
{
    miOptions &o = ctx_->options();
    o.trace = s_.options.trace ? miTRUE : miFALSE;
    o.reflection_depth = s_.options.reflectionDepth;
    o.refraction_depth = s_.options.refractionDepth;
    o.trace_depth = s_.options.traceDepth;
    o.finalgather = s_.options.finalgather ? 1 : 0;
    o.finalgather_rays = s_.options.fgRays;
}

void RenderSession::setCamera()
{
    camera_.reset(new Camera(s_.camera, s_.width, s_.height));
    const Matrix toWorld = camera_->toWorld();
    ctx_->set_camera_transform(toWorld.data());
    ctx_->camera().focal = 1.0f;
    ctx_->camera().aperture = 2.0f * camera_->tanX;
    ctx_->camera().aspect = static_cast<float>(s_.width) / static_cast<float>(s_.height);
}

/* Frame buffers, the exporter's block and the state shaders. */
void RenderSession::setFrameBuffers()
{
    for (int pi : layout_.entryPass)
        fbIndex_[size_t(pi)] = ctx_->add_framebuffer(s_.passes[size_t(pi)].name);
    for (int pi : layout_.constantPass)
        fbIndex_[size_t(pi)] = ctx_->add_framebuffer(s_.passes[size_t(pi)].name);
    if (s_.passes.empty())
        return;
    const std::vector<uint32_t> words = buildFbufBlock(
        s_, layout_, [&](const std::string &name) { return items_.keep(mirt::db_create_string(name.c_str())); });
    const miTag block = items_.keep(mirt::db_create_userdata(words.data(), words.size() * 4, 0));
    static_cast<miUserdata *>(mirt::db_data(block))->parameter_size = static_cast<int>(words.size() * 4);
    ctx_->attach_camera_userdata(block);
    ctx_->add_state_shader(items_.keep(mirt::make_function(miSHADER_STATE, asShader(&druxFrameBufferState), nullptr,
                                                           0, 0, false, "druxFrameBufferState")));
    for (size_t k = 0; k < layout_.constantPass.size(); ++k) {
        druxFrameBufferInit_params prm;
        prm.nonMaterialPass = static_cast<int>(k);
        prm.initColor = s_.passes[size_t(layout_.constantPass[k])].constant;
        ctx_->add_state_shader(items_.keep(mirt::make_function(
            miSHADER_STATE, asShader(&druxFrameBufferInit), &prm, sizeof prm, 0, false, "druxFrameBufferInit")));
    }
}

/* A built-in command's shader: its block from the library's builder,
   registered with the loader so that its init and exit run. */
miTag RenderSession::builtinFn(int type, const mirt::LoadedShader *sh, const void *block, int size,
                               bool connectable, const std::string &name, const std::string &instance)
{
    const miTag fn =
        items_.keep(mirt::make_function(type, sh->fn, block, size, sizeof(miColor), connectable, name.c_str()));
    libs_.add_instance(instance, *sh, fn);
    if (tracer_)
        tracer_->watch(fn, instance);
    return fn;
}

void RenderSession::makeShaders()
{
    const BuiltinShaders &bt = *builtin_.table;
    const EnvironmentParams envp = bt.environmentParams(s_.environment);
    ctx_->set_environment(builtinFn(miSHADER_ENVIRONMENT, builtin_.environment, &envp, sizeof envp, false,
                                    builtin_.environment->name, "environment:"));
    std::map<std::string, miTag> textureFn;
    for (const TextureDesc &t : s_.textures) {
        const TextureParams tp = bt.textureParams(t);
        textureFn[t.name] =
            builtinFn(miSHADER_TEXTURE, builtin_.texture, &tp, sizeof tp, false, t.name, "texture:" + t.name);
    }
    makeMaterials(textureFn);
}

void RenderSession::makeMaterials(const std::map<std::string, miTag> &textureFn)
{
    const BuiltinShaders &bt = *builtin_.table;
    for (const MaterialDesc &m : s_.materials) {
        miTag fn;
        if (!m.shader.empty()) {
            fn = libs_.instance(m.shader);
            if (tracer_)
                tracer_->watch(fn, "material:" + m.name + " (" + m.shader + ")");
        } else {
            scatterLists_.emplace_back(new ScatterCache *(nullptr));
            const MaterialParams mp = bt.materialParams(m, scatterLists_.back().get());
            fn = builtinFn(miSHADER_MATERIAL, builtin_.material, &mp, sizeof mp, true, m.name, "material:" + m.name);
            if (!m.texture.empty())
                mirt::connect(fn, offsetof(MaterialParams, diffuse), textureFn.at(m.texture));
        }
        materialFn_[m.name] = fn;
        /* every surface has a shadow shader, so that it shadows the passes
           (an opaque one with transparency 0) */
        ShadowParams sp;
        sp.transparency = miColor{m.transparency.r, m.transparency.g, m.transparency.b, 1.0f};
        shadowFn_[m.name] = builtinFn(miSHADER_SHADOW, builtin_.shadow, &sp, sizeof sp, false,
                                      builtin_.shadow->name, "shadow:" + m.name);
    }
}

void RenderSession::makeGeometry()
{
    std::map<std::string, mirt::Mesh> meshes;
    for (const MeshDesc &m : s_.meshes)
        meshes[m.name] = buildMesh(m);
    for (const InstanceDesc &i : s_.instances) {
        mirt::InstanceDesc d;
        const Matrix m = i.matrix();
        std::copy(m.begin(), m.end(), d.local_to_global);
        d.material = materialFn_.at(i.material);
        d.shadow = shadowFn_.at(i.material);
        const std::string mask = occluderMask(s_, layout_, i);
        if (!mask.empty()) {
            const miTag text = items_.keep(mirt::db_create_string(mask.c_str()));
            d.param = items_.keep(mirt::db_create_data(&text, sizeof text));
        }
        const mirt::GeometryTags g = mirt::build_instance(meshes.at(i.mesh), d);
        items_.geometry.push_back(g);
        cryptoTags_.add(g.instance, static_cast<int>(&i - s_.instances.data()),
                        static_cast<int>(s_.material(i.material) - s_.materials.data()));
        scene_.add(g);
    }
    scene_.build();
    cryptoTags_.seal();
    ctx_->set_scene(&scene_);
    out_.stats.triangles = scene_.triangle_count();
}

miTag RenderSession::makeLight(const LightDesc &l, miTag param)
{
    const BuiltinShaders &bt = *builtin_.table;
    const std::string instance = "light:" + l.name;
    if (l.kind == LightKind::Point) {
        const PointLightParams lp = bt.pointLightParams(l);
        return ctx_->add_point_light(
            l.position, builtinFn(miSHADER_LIGHT, builtin_.pointLight, &lp, sizeof lp, false, l.name, instance),
            param);
    }
    if (l.kind == LightKind::Rect) {
        const RectLightParams lp = bt.rectLightParams(l);
        return ctx_->add_rect_light(
            l.position, l.u, l.v, l.samples,
            builtinFn(miSHADER_LIGHT, builtin_.rectLight, &lp, sizeof lp, false, l.name, instance), param);
    }
    const PlainLightParams lp = bt.plainLightParams(l);
    return ctx_->add_point_light(
        l.position, builtinFn(miSHADER_LIGHT, builtin_.plainLight, &lp, sizeof lp, false, l.name, instance), param);
}

void RenderSession::makeLights()
{
    for (const LightDesc &l : s_.lights) {
        miTag param = 0;
        const std::string mask = lightMask(s_, layout_, l);
        if (!mask.empty()) {
            const miTag text = items_.keep(mirt::db_create_string(mask.c_str()));
            param = items_.keep(mirt::db_create_data(&text, sizeof text));
        }
        const miTag inst = makeLight(l, param);
        if (!l.shadow) {
            const miInstance *li = static_cast<const miInstance *>(mirt::db_data(inst));
            static_cast<miLight *>(mirt::db_data(li->item))->shadow = miFALSE;
        }
    }
}

/* Shader initialisation, on a state of its own.  The state shader resolves
   frame-buffer names at a state's first sample begin and need not release
   the slot block of a state that never had one, so this state runs one
   sample begin first (outside the image: nothing is written). */
void RenderSession::initShaders()
{
    miState *init = ctx_->begin_state(0);
    ctx_->begin_sample(init, -1, -1, 0);
    libs_.init_all(init);
    ctx_->end_state(init);
    initialised_ = true;
    base_ = baseState(s_.options);
    invSamples_ = 1.0f / static_cast<float>(s_.samples);
}

/* Traces and shades sample k of pixel (x, y); the frame buffers hold the
   sample's pass values until the caller takes them. */
miColor RenderSession::shadeSample(miState *st, int x, int y, int k, CryptoPixel *objectPx, CryptoPixel *materialPx)
{
    ctx_->begin_sample(st, x, y, k);
    double jx, jy;
    jitter(x, y, k, s_.samples, jx, jy);
    const miVector dir = camera_->ray(x + jx, y + jy);
    miColor c;
    const miBoolean ok = ctx_->shade_eye(st, camera_->origin, dir, &c);
    int hitInstance = -1, hitMaterial = -1;
    cryptoTags_.find(st->instance, hitInstance, hitMaterial);
    if (objectPx)
        objectPx->add(hitInstance, 1.0f);
    if (materialPx)
        materialPx->add(hitMaterial, 1.0f);
    ctx_->end_sample(st, ok);
    return c;
}

void RenderSession::shadePixel(miState *st, int x, int y, PixelScratch &px)
{
    miColor sum{0, 0, 0, 0};
    for (size_t p = 0; p < s_.passes.size(); ++p)
        px.passSum[p] = pixelFilterStart(s_.passes[p].role);
    px.objectPx.clear();
    px.materialPx.clear();
    for (int k = 0; k < s_.samples; ++k) {
        const miColor c = shadeSample(st, x, y, k, &px.objectPx, &px.materialPx);
        sum.r += c.r;
        sum.g += c.g;
        sum.b += c.b;
        sum.a += c.a;
        for (size_t p = 0; p < s_.passes.size(); ++p) {
            if (!fbIndex_[p])
                continue;
            pixelFilterAdd(s_.passes[p].role, px.passSum[p], ctx_->fb_pixel(fbIndex_[p], x, y));
            ctx_->set_fb_pixel(fbIndex_[p], x, y, miColor{0, 0, 0, 0});
        }
    }
    const float inv = invSamples_;
    out_.main.set(x, y, miColor{sum.r * inv, sum.g * inv, sum.b * inv, sum.a * inv});
    px.objectPx.write(out_.mattes[0], x, y);
    px.materialPx.write(out_.mattes[1], x, y);
    for (size_t p = 0; p < s_.passes.size(); ++p)
        out_.passes[p].set(x, y, pixelFilterEnd(s_.passes[p].role, px.passSum[p], inv));
}

void RenderSession::shadeOne(int x, int y, int k, miColor &main, std::vector<miColor> &passes)
{
    miState *st = ctx_->begin_state(0);
    mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &base_, sizeof base_, 2);
    main = shadeSample(st, x, y, k, nullptr, nullptr);
    passes.assign(s_.passes.size(), miColor{0, 0, 0, 0});
    for (size_t p = 0; p < s_.passes.size(); ++p) {
        miColor acc = pixelFilterStart(s_.passes[p].role);
        if (fbIndex_[p])
            pixelFilterAdd(s_.passes[p].role, acc, ctx_->fb_pixel(fbIndex_[p], x, y));
        passes[p] = pixelFilterEnd(s_.passes[p].role, acc, 1.0f);
    }
    ctx_->end_state(st);
}

void RenderSession::renderTile(miState *st, int tile, PixelScratch &px)
{
    const int ts = std::max(1, ro_.tileSize);
    const int x0 = (tile % tilesX_) * ts, y0 = (tile / tilesX_) * ts;
    const int x1 = std::min(x0 + ts, s_.width), y1 = std::min(y0 + ts, s_.height);
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            shadePixel(st, x, y, px);
}

void RenderSession::noteFatal(const std::string &text)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (fatal_.empty())
        fatal_ = text;
    nextTile_.store(tiles_);
}

void RenderSession::worker(int thread)
{
    miState *st = nullptr;
    PixelScratch px(s_.passes.size(), s_.samples);
    try {
        for (int tile; (tile = nextTile_.fetch_add(1)) < tiles_;) {
            if (!st) {
                st = ctx_->begin_state(thread);
                mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &base_, sizeof base_, 2);
            }
            renderTile(st, tile, px);
            tilesDone_.fetch_add(1);
        }
    } catch (const mirt::FatalError &e) {
        noteFatal(e.text);
    } catch (const std::exception &e) {
        noteFatal(e.what());
    }
    /* wait until the controller has looked at the memory in use */
    {
        std::unique_lock<std::mutex> lk(mu_);
        ++finished_;
        cv_.notify_all();
        cv_.wait(lk, [&] { return release_; });
    }
    if (st)
        ctx_->end_state(st);
}

/* Reports progress until every worker is done, then notes the memory in use
   while their states are still alive and lets them end. */
void RenderSession::waitForWorkers(int threads)
{
    std::unique_lock<std::mutex> lk(mu_);
    while (finished_ < threads) {
        cv_.wait_for(lk, std::chrono::milliseconds(100));
        if (ro_.progress) {
            const double f = double(tilesDone_.load()) / tiles_;
            lk.unlock();
            ro_.progress(f);
            lk.lock();
        }
    }
    for (const std::string &tag : libraryMemoryTags())
        out_.stats.memory.push_back(TagMemory{tag, mirt::mem_live_bytes(tag), 0});
    release_ = true;
    cv_.notify_all();
}

void RenderSession::renderTiles()
{
    const int ts = std::max(1, ro_.tileSize);
    tilesX_ = (s_.width + ts - 1) / ts;
    tiles_ = tilesX_ * ((s_.height + ts - 1) / ts);
    int threads = ro_.threads > 0 ? ro_.threads : static_cast<int>(std::thread::hardware_concurrency());
    threads = std::max(1, std::min(threads, tiles_));
    out_.stats.threads = threads;

    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back(&RenderSession::worker, this, t);
    waitForWorkers(threads);
    out_.stats.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (std::thread &t : pool)
        t.join();
    if (ro_.progress)
        ro_.progress(1.0);
    out_.stats.eyeSamples =
        static_cast<uint64_t>(s_.width) * static_cast<uint64_t>(s_.height) * static_cast<uint64_t>(s_.samples);
}

RenderResult emptyResult(const SceneDesc &s)
{
    RenderResult out;
    out.main = Image(s.width, s.height);
    for (const PassDesc &p : s.passes) {
        out.passNames.push_back(p.name);
        out.passRoles.push_back(p.role);
        out.passes.emplace_back(s.width, s.height);
    }
    std::vector<std::string> instanceNames, materialNames;
    for (const InstanceDesc &i : s.instances)
        instanceNames.push_back(i.name);
    for (const MaterialDesc &m : s.materials)
        materialNames.push_back(m.name);
    out.mattes.push_back(makeCryptoMatte("CryptoObject", instanceNames, s.width, s.height));
    out.mattes.push_back(makeCryptoMatte("CryptoMaterial", materialNames, s.width, s.height));
    return out;
}

} // namespace

RenderResult render(const SceneDesc &s, const RenderOptions &ro)
{
    validate(s);
    const auto setupStart = std::chrono::steady_clock::now();
    const size_t errorsBefore = countMessages(mirt::Level::Error);
    const size_t warningsBefore = countMessages(mirt::Level::Warning);
    RenderResult out = emptyResult(s);
    std::string fatal;
    {
        RenderSession session(s, ro, out);
        session.setUp();
        out.stats.setupSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - setupStart).count();
        session.renderTiles();
        session.tearDown();
        fatal = session.fatal();
    }
    for (TagMemory &m : out.stats.memory)
        m.after = mirt::mem_live_bytes(m.tag);
    out.stats.pinsAfter = mirt::db_total_pins();
    out.stats.errors = countMessages(mirt::Level::Error) - errorsBefore;
    out.stats.warnings = countMessages(mirt::Level::Warning) - warningsBefore;
    if (!fatal.empty())
        throw std::runtime_error("render stopped: " + fatal);
    return out;
}

PixelSample debugPixel(const SceneDesc &s, int x, int y, int sample, const RenderOptions &ro)
{
    validate(s);
    if (x < 0 || y < 0 || x >= s.width || y >= s.height || sample < 0 || sample >= s.samples)
        throw std::runtime_error("pixel " + std::to_string(x) + "," + std::to_string(y) + " sample " +
                                 std::to_string(sample) + " lies outside the " + std::to_string(s.width) + " x " +
                                 std::to_string(s.height) + " image of " + std::to_string(s.samples) + " samples");
    PixelSample out;
    out.passNames.clear();
    for (const PassDesc &p : s.passes)
        out.passNames.push_back(p.name);
    RenderResult scratch = emptyResult(s);
    ShaderTracer tracer;
    {
        RenderSession session(s, ro, scratch);
        session.setUp(&tracer);
        tracer.start(&out.trace);
        session.shadeOne(x, y, sample, out.main, out.passes);
        tracer.stop();
        session.tearDown();
    }
    return out;
}

} // namespace druxhost
