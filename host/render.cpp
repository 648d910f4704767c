#include "render.h"

#include "builtin_shaders.h"
#include "contact_sheet.h"
#include "data_passes.h"
#include "exporter.h"
#include "geometry.h"
#include "meshes.h"
#include "runtime.h"
#include "shader_loader.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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

/* Runs the shaders' exit functions on every way out of a render. */
struct ExitGuard {
    mirt::ShaderLibraries &libs;
    ~ExitGuard() { libs.exit_all(nullptr); }
};

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

RenderResult render(const SceneDesc &s, const RenderOptions &ro)
{
    validate(s);
    const auto setupStart = std::chrono::steady_clock::now();
    const size_t errorsBefore = countMessages(mirt::Level::Error);
    const size_t warningsBefore = countMessages(mirt::Level::Warning);

    RenderResult out;
    out.main = Image(s.width, s.height);
    for (const PassDesc &p : s.passes) {
        out.passNames.push_back(p.name);
        out.passRoles.push_back(p.role);
        out.passes.emplace_back(s.width, s.height);
    }
    const PassLayout layout = layoutPasses(s);
    {
        std::vector<std::string> instanceNames, materialNames;
        for (const InstanceDesc &i : s.instances)
            instanceNames.push_back(i.name);
        for (const MaterialDesc &m : s.materials)
            materialNames.push_back(m.name);
        out.mattes.push_back(makeCryptoMatte("CryptoObject", instanceNames, s.width, s.height));
        out.mattes.push_back(makeCryptoMatte("CryptoMaterial", materialNames, s.width, s.height));
    }
    CryptoTags cryptoTags;
    std::vector<std::unique_ptr<ScatterCache *>> scatterLists; /* outlive the materials */
    std::string fatal;
    /* outlives every database item made for the render: unloaded last */
    mirt::ShaderLibraries libs;

    {
        Items items;

        /* ---- shader libraries and shader instances, before any state */
        Builtins builtin;
        {
            const std::vector<std::string> folders = shaderSearchPath(s, ro);
            int line = 0;
            try {
                if (s.links.empty())
                    libs.link("libdruxhostshaders.so", folders);
                for (const LinkDesc &k : s.links) {
                    line = k.line;
                    libs.link(k.file, folders);
                }
                line = 0;
                builtin = resolveBuiltins(libs);
                for (const ShaderDesc &d : s.shaders) {
                    line = d.line;
                    libs.instantiate(d.name, d.function, d.values, items.tags);
                }
            } catch (const mirt::LoadError &e) {
                throw SceneError(line, e.what());
            }
        }
        const BuiltinShaders &bt = *builtin.table;

        mirt::MeshScene scene; /* the render's one ray-tracing scene */
        mirt::Context ctx(s.width, s.height);
        ctx.record_irradiance_calls(false); /* no lock or list growth per gather */

        /* ---- options */
        miOptions &o = ctx.options();
        o.trace = s.options.trace ? miTRUE : miFALSE;
        o.reflection_depth = s.options.reflectionDepth;
        o.refraction_depth = s.options.refractionDepth;
        o.trace_depth = s.options.traceDepth;
        o.finalgather = s.options.finalgather ? 1 : 0;
        o.finalgather_rays = s.options.fgRays;

        /* ---- camera */
        const Camera camera(s.camera, s.width, s.height);
        const Matrix toWorld = camera.toWorld();
        ctx.set_camera_transform(toWorld.data());
        ctx.camera().focal = 1.0f;
        ctx.camera().aperture = 2.0f * camera.tanX;
        ctx.camera().aspect = static_cast<float>(s.width) / static_cast<float>(s.height);

        /* ---- frame buffers, the exporter's block and the state shaders */
        std::vector<int> fbIndex(s.passes.size(), 0);
        for (int pi : layout.entryPass)
            fbIndex[size_t(pi)] = ctx.add_framebuffer(s.passes[size_t(pi)].name);
        for (int pi : layout.constantPass)
            fbIndex[size_t(pi)] = ctx.add_framebuffer(s.passes[size_t(pi)].name);
        if (!s.passes.empty()) {
            const std::vector<uint32_t> words = buildFbufBlock(
                s, layout, [&](const std::string &name) { return items.keep(mirt::db_create_string(name.c_str())); });
            const miTag block = items.keep(mirt::db_create_userdata(words.data(), words.size() * 4, 0));
            static_cast<miUserdata *>(mirt::db_data(block))->parameter_size = static_cast<int>(words.size() * 4);
            ctx.attach_camera_userdata(block);
            ctx.add_state_shader(items.keep(mirt::make_function(miSHADER_STATE, asShader(&druxFrameBufferState),
                                                                nullptr, 0, 0, false, "druxFrameBufferState")));
            for (size_t k = 0; k < layout.constantPass.size(); ++k) {
                druxFrameBufferInit_params prm;
                prm.nonMaterialPass = static_cast<int>(k);
                prm.initColor = s.passes[size_t(layout.constantPass[k])].constant;
                ctx.add_state_shader(items.keep(mirt::make_function(miSHADER_STATE, asShader(&druxFrameBufferInit),
                                                                    &prm, sizeof prm, 0, false,
                                                                    "druxFrameBufferInit")));
            }
        }

        /* ---- shaders */
        /* A built-in command's shader: its block from the library's builder,
           registered with the loader so that its init and exit run. */
        auto builtinFn = [&](int type, const mirt::LoadedShader *sh, const void *block, int size, bool connectable,
                             const std::string &name, const std::string &instance) {
            const miTag fn =
                items.keep(mirt::make_function(type, sh->fn, block, size, sizeof(miColor), connectable, name.c_str()));
            libs.add_instance(instance, *sh, fn);
            return fn;
        };
        const EnvironmentParams envp = bt.environmentParams(s.environment);
        ctx.set_environment(builtinFn(miSHADER_ENVIRONMENT, builtin.environment, &envp, sizeof envp, false,
                                      builtin.environment->name, "environment:"));
        std::map<std::string, miTag> textureFn;
        for (const TextureDesc &t : s.textures) {
            const TextureParams tp = bt.textureParams(t);
            textureFn[t.name] =
                builtinFn(miSHADER_TEXTURE, builtin.texture, &tp, sizeof tp, false, t.name, "texture:" + t.name);
        }
        std::map<std::string, miTag> materialFn, shadowFn;
        for (const MaterialDesc &m : s.materials) {
            miTag fn;
            if (!m.shader.empty()) {
                fn = libs.instance(m.shader);
            } else {
                scatterLists.emplace_back(new ScatterCache *(nullptr));
                const MaterialParams mp = bt.materialParams(m, scatterLists.back().get());
                fn = builtinFn(miSHADER_MATERIAL, builtin.material, &mp, sizeof mp, true, m.name,
                               "material:" + m.name);
                if (!m.texture.empty())
                    mirt::connect(fn, offsetof(MaterialParams, diffuse), textureFn.at(m.texture));
            }
            materialFn[m.name] = fn;
            /* every surface has a shadow shader, so that it shadows the
               passes (an opaque one with transparency 0) */
            ShadowParams sp;
            sp.transparency = miColor{m.transparency.r, m.transparency.g, m.transparency.b, 1.0f};
            shadowFn[m.name] = builtinFn(miSHADER_SHADOW, builtin.shadow, &sp, sizeof sp, false,
                                         builtin.shadow->name, "shadow:" + m.name);
        }

        /* ---- geometry */
        std::map<std::string, mirt::Mesh> meshes;
        for (const MeshDesc &m : s.meshes)
            meshes[m.name] = buildMesh(m);
        for (const InstanceDesc &i : s.instances) {
            mirt::InstanceDesc d;
            const Matrix m = i.matrix();
            std::copy(m.begin(), m.end(), d.local_to_global);
            d.material = materialFn.at(i.material);
            d.shadow = shadowFn.at(i.material);
            const std::string mask = occluderMask(s, layout, i);
            if (!mask.empty()) {
                const miTag text = items.keep(mirt::db_create_string(mask.c_str()));
                d.param = items.keep(mirt::db_create_data(&text, sizeof text));
            }
            const mirt::GeometryTags g = mirt::build_instance(meshes.at(i.mesh), d);
            items.geometry.push_back(g);
            cryptoTags.add(g.instance, static_cast<int>(&i - s.instances.data()),
                           static_cast<int>(s.material(i.material) - s.materials.data()));
            scene.add(g);
        }
        scene.build();
        cryptoTags.seal();
        ctx.set_scene(&scene);
        out.stats.triangles = scene.triangle_count();

        /* ---- lights */
        for (const LightDesc &l : s.lights) {
            miTag param = 0;
            const std::string mask = lightMask(s, layout, l);
            if (!mask.empty()) {
                const miTag text = items.keep(mirt::db_create_string(mask.c_str()));
                param = items.keep(mirt::db_create_data(&text, sizeof text));
            }
            miTag inst = 0;
            if (l.kind == LightKind::Point) {
                const PointLightParams lp = bt.pointLightParams(l);
                inst = ctx.add_point_light(l.position,
                                           builtinFn(miSHADER_LIGHT, builtin.pointLight, &lp, sizeof lp, false,
                                                     l.name, "light:" + l.name),
                                           param);
            } else if (l.kind == LightKind::Rect) {
                const RectLightParams lp = bt.rectLightParams(l);
                inst = ctx.add_rect_light(l.position, l.u, l.v, l.samples,
                                          builtinFn(miSHADER_LIGHT, builtin.rectLight, &lp, sizeof lp, false, l.name,
                                                    "light:" + l.name),
                                          param);
            } else {
                const PlainLightParams lp = bt.plainLightParams(l);
                inst = ctx.add_point_light(l.position,
                                           builtinFn(miSHADER_LIGHT, builtin.plainLight, &lp, sizeof lp, false,
                                                     l.name, "light:" + l.name),
                                           param);
            }
            if (!l.shadow) {
                const miInstance *li = static_cast<const miInstance *>(mirt::db_data(inst));
                static_cast<miLight *>(mirt::db_data(li->item))->shadow = miFALSE;
            }
        }

        /* ---- shader initialisation, on a state of its own.  The state
           shader resolves frame-buffer names at a state's first sample begin
           and need not release the slot block of a state that never had one,
           so this state runs one sample begin first (outside the image:
           nothing is written). */
        {
            miState *init = ctx.begin_state(0);
            ctx.begin_sample(init, -1, -1, 0);
            libs.init_all(init);
            ctx.end_state(init);
        }
        ExitGuard exitGuard{libs};
        out.stats.setupSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - setupStart).count();

        /* ---- sampling */
        const int ts = std::max(1, ro.tileSize);
        const int tilesX = (s.width + ts - 1) / ts, tilesY = (s.height + ts - 1) / ts;
        const int tiles = tilesX * tilesY;
        int threads = ro.threads > 0 ? ro.threads : static_cast<int>(std::thread::hardware_concurrency());
        threads = std::max(1, std::min(threads, tiles));
        out.stats.threads = threads;
        const BaseShaderState base = baseState(s.options);
        const float invSamples = 1.0f / static_cast<float>(s.samples);

        std::atomic<int> nextTile{0};
        std::atomic<long> tilesDone{0};
        std::mutex mu;
        std::condition_variable cv;
        int finished = 0;
        bool release = false;

        auto worker = [&](int thread) {
            miState *st = nullptr;
            std::vector<miColor> passSum(s.passes.size());
            CryptoPixel objectPx(s.samples), materialPx(s.samples);
            try {
                for (int tile; (tile = nextTile.fetch_add(1)) < tiles;) {
                    if (!st) {
                        st = ctx.begin_state(thread);
                        mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &base, sizeof base, 2);
                    }
                    const int x0 = (tile % tilesX) * ts, y0 = (tile / tilesX) * ts;
                    const int x1 = std::min(x0 + ts, s.width), y1 = std::min(y0 + ts, s.height);
                    for (int y = y0; y < y1; ++y)
                        for (int x = x0; x < x1; ++x) {
                            miColor sum{0, 0, 0, 0};
                            for (size_t p = 0; p < s.passes.size(); ++p)
                                passSum[p] = pixelFilterStart(s.passes[p].role);
                            objectPx.clear();
                            materialPx.clear();
                            for (int k = 0; k < s.samples; ++k) {
                                ctx.begin_sample(st, x, y, k);
                                double jx, jy;
                                jitter(x, y, k, s.samples, jx, jy);
                                const miVector dir = camera.ray(x + jx, y + jy);
                                miColor c;
                                const miBoolean ok = ctx.shade_eye(st, camera.origin, dir, &c);
                                int hitInstance = -1, hitMaterial = -1;
                                cryptoTags.find(st->instance, hitInstance, hitMaterial);
                                objectPx.add(hitInstance, 1.0f);
                                materialPx.add(hitMaterial, 1.0f);
                                ctx.end_sample(st, ok);
                                sum.r += c.r;
                                sum.g += c.g;
                                sum.b += c.b;
                                sum.a += c.a;
                                for (size_t p = 0; p < s.passes.size(); ++p) {
                                    if (!fbIndex[p])
                                        continue;
                                    pixelFilterAdd(s.passes[p].role, passSum[p], ctx.fb_pixel(fbIndex[p], x, y));
                                    ctx.set_fb_pixel(fbIndex[p], x, y, miColor{0, 0, 0, 0});
                                }
                            }
                            out.main.set(x, y, miColor{sum.r * invSamples, sum.g * invSamples, sum.b * invSamples,
                                                       sum.a * invSamples});
                            objectPx.write(out.mattes[0], x, y);
                            materialPx.write(out.mattes[1], x, y);
                            for (size_t p = 0; p < s.passes.size(); ++p)
                                out.passes[p].set(x, y, pixelFilterEnd(s.passes[p].role, passSum[p], invSamples));
                        }
                    tilesDone.fetch_add(1);
                }
            } catch (const mirt::FatalError &e) {
                std::lock_guard<std::mutex> lk(mu);
                if (fatal.empty())
                    fatal = e.text;
                nextTile.store(tiles);
            } catch (const std::exception &e) {
                std::lock_guard<std::mutex> lk(mu);
                if (fatal.empty())
                    fatal = e.what();
                nextTile.store(tiles);
            }
            /* wait until the controller has looked at the memory in use */
            {
                std::unique_lock<std::mutex> lk(mu);
                ++finished;
                cv.notify_all();
                cv.wait(lk, [&] { return release; });
            }
            if (st)
                ctx.end_state(st);
        };

        const auto start = std::chrono::steady_clock::now();
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back(worker, t);
        {
            std::unique_lock<std::mutex> lk(mu);
            while (finished < threads) {
                cv.wait_for(lk, std::chrono::milliseconds(100));
                if (ro.progress) {
                    const double f = double(tilesDone.load()) / tiles;
                    lk.unlock();
                    ro.progress(f);
                    lk.lock();
                }
            }
            out.stats.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            for (const std::string &tag : libraryMemoryTags())
                out.stats.memory.push_back(TagMemory{tag, mirt::mem_live_bytes(tag), 0});
            release = true;
            cv.notify_all();
        }
        for (std::thread &t : pool)
            t.join();
        if (ro.progress)
            ro.progress(1.0);
        out.stats.eyeSamples = static_cast<uint64_t>(s.width) * static_cast<uint64_t>(s.height) *
                               static_cast<uint64_t>(s.samples);

        /* ---- the shaders' exit functions (the materials free their
           scattering caches) */
        libs.exit_all(nullptr);
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

std::vector<std::string> outputFileNames(const std::vector<std::string> &passNames)
{
    std::vector<std::string> names{"render.exr", "main.png"};
    for (const std::string &p : passNames)
        names.push_back(p + ".png");
    names.push_back("contact.png");
    return names;
}

std::vector<std::string> writeOutputs(const RenderResult &r, const std::string &dir)
{
    const std::vector<std::string> names = outputFileNames(r.passNames);
    std::vector<std::string> files;
    std::vector<Layer> layers;
    layers.push_back(Layer{"", &r.main});
    bool zWritten = false;
    for (size_t i = 0; i < r.passes.size(); ++i) {
        /* the first depth pass is the file's Z channel, any other <name>.Z */
        const bool depth = r.passRoles[i] == PassRole::Depth;
        layers.push_back(Layer{depth && !zWritten ? std::string() : r.passNames[i], &r.passes[i], depth});
        zWritten = zWritten || depth;
    }
    std::vector<std::pair<std::string, std::string>> attributes;
    for (const CryptoMatte &m : r.mattes) {
        for (size_t l = 0; l < m.layers.size(); ++l)
            layers.push_back(Layer{m.layerName(static_cast<int>(l)), &m.layers[l]});
        for (const auto &a : m.attributes())
            attributes.push_back(a);
    }
    files.push_back(dir + "/" + names[0]);
    writeExr(files.back(), layers, attributes);
    files.push_back(dir + "/" + names[1]);
    writePng(files.back(), r.main);
    for (size_t i = 0; i < r.passes.size(); ++i) {
        files.push_back(dir + "/" + names[2 + i]);
        writePng(files.back(), displayImage(r.passRoles[i], r.passes[i]));
    }
    files.push_back(dir + "/" + names.back());
    writePng(files.back(), makeContactSheet(contactTiles(r)).image);
    return files;
}

std::string probeOutputs(const std::string &dir, const std::vector<std::string> &files)
{
    for (const std::string &name : files) {
        const std::string path = dir + "/" + name;
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            ::close(fd);
            if (::unlink(path.c_str()) != 0)
                return "cannot remove the test file " + path + ": " + std::strerror(errno);
            continue;
        }
        if (errno == EEXIST) { /* an earlier render's file: may it be replaced? */
            const int old = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (old >= 0) {
                ::close(old);
                continue;
            }
        }
        return "cannot write " + path + ": " + std::strerror(errno);
    }
    return "";
}

WrittenOutputs writeOutputsOrFallback(const RenderResult &r, const std::string &dir)
{
    WrittenOutputs out;
    try {
        out.files = writeOutputs(r, dir);
        out.dir = dir;
        return out;
    } catch (const std::exception &e) {
        out.failure = e.what();
    }
    std::error_code ec;
    const std::filesystem::path tmp = std::filesystem::temp_directory_path(ec);
    if (ec)
        throw std::runtime_error(out.failure + "; no temporary directory for the images: " + ec.message());
    const std::string base = (tmp / ("druxrender-" + std::to_string(::getpid()) + "-")).string();
    for (int k = 0; k < 1000 && out.dir.empty(); ++k)
        if (::mkdir((base + std::to_string(k)).c_str(), 0777) == 0)
            out.dir = base + std::to_string(k);
    if (out.dir.empty())
        throw std::runtime_error(out.failure + "; cannot create a folder under " + tmp.string() + " either: " +
                                 std::strerror(errno));
    try {
        out.files = writeOutputs(r, out.dir);
    } catch (const std::exception &e) {
        throw std::runtime_error(out.failure + "; writing to " + out.dir + " failed too: " + e.what());
    }
    return out;
}

} // namespace druxhost
