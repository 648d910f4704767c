#include "render_session.h"

#include "meshes.h"
#include "shader_params.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace druxhost {

namespace {

/* State shaders get the operation record as a fourth argument; the shader
   record stores them under the common shader signature. */
template <class F> miShader_fn asShader(F *fn)
{
    return reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)(void)>(fn));
}

/* Database items made for one render, deleted on every way out. */
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

static BaseShaderState baseState(const OptionsDesc &o)
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


/* "FUNCTION of LIBRARY" of a scene shader instance or shader, for the trace. */
std::string RenderSession::shaderOrigin(const std::string &name)
{
    std::string function = name;
    for (const ShaderDesc &d : s_.shaders)
        if (d.name == name)
            function = d.function;
    const std::string &lib = libs_.shader(function).library;
    return function + " of " + lib.substr(lib.rfind('/') + 1);
}

void RenderSession::linkShaders()
{
    const std::vector<std::string> folders = shaderSearchPath(s_, ro_);
    /* the shader path and the install only: a scene's folder may hold
       anything its author put there */
    std::vector<std::string> trusted = folders;
    if (!s_.directory.empty() && !trusted.empty() && trusted.front() == s_.directory)
        trusted.erase(trusted.begin());
    int line = 0;
    try {
        if (s_.links.empty())
            libs_.link("libdruxhostshaders.so", trusted);
        for (const LinkDesc &k : s_.links) {
            line = k.line;
            std::string file = k.file;
            if (file.size() >= 2 && file.front() == '"' && file.back() == '"')
                file = file.substr(1, file.size() - 2);
            const bool path = file.find('/') != std::string::npos;
            if (path && ro_.restrictLinks)
                throw SceneError(line, "link \"" + file + "\": a path is not allowed when links are restricted "
                                       "(--restrict-links, DRUX_RESTRICT_LINKS); put the library in a "
                                       "--shader-path folder and link it by name");
            /* a relative path is relative to the scene file, as OBJ files are */
            if (path && file[0] != '/' && !s_.directory.empty())
                file = s_.directory + "/" + file;
            libs_.link(file, ro_.restrictLinks ? trusted : folders);
        }
        line = 0;
        builtin_ = resolveBuiltins(libs_);
        if (tracer_) {
            auto hook = reinterpret_cast<CallTraceHookFn>(libs_.find_symbol(DRUXHOST_CALL_TRACE_SYMBOL));
            tracer_->hookCalls(hook ? hook() : nullptr);
        }
        std::vector<std::string> passNames;
        for (const PassDesc &p : s_.passes)
            passNames.push_back(p.name);
        libs_.set_pass_names(passNames);
        for (const ShaderDesc &d : s_.shaders) {
            line = d.line;
            const miTag fn = libs_.instantiate(d.name, d.function, d.values, items_.tags);
            /* every scene shader instance, so that connected ones show too */
            if (tracer_)
                tracer_->watch(fn, "shader:" + d.name + " (" + shaderOrigin(d.function) + ")");
        }
    } catch (const mirt::LoadError &e) {
        const std::string what = e.what();
        /* a library not found by name: say how to add a folder to the search */
        if (what.find("\" not found; searched: ") != std::string::npos)
            throw SceneError(line, what + "; add its folder with --shader-path or DRUX_SHADER_PATH");
        throw SceneError(line, what);
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
    /* each sample's pass values go from the state's buffers straight into
       the pixel filter: no image of the renderer's own beside the host's */
    ctx_->use_sample_framebuffers();
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
    const EnvironmentParams envp = environmentParams(s_.environment);
    ctx_->set_environment(builtinFn(miSHADER_ENVIRONMENT, builtin_.environment, &envp, sizeof envp, false,
                                    builtin_.environment->name, "environment:"));
    std::map<std::string, miTag> textureFn;
    for (const TextureDesc &t : s_.textures) {
        const TextureParams tp = textureParams(t);
        textureFn[t.name] =
            builtinFn(miSHADER_TEXTURE, builtin_.texture, &tp, sizeof tp, false, t.name, "texture:" + t.name);
    }
    makeMaterials(textureFn);
}

void RenderSession::makeMaterials(const std::map<std::string, miTag> &textureFn)
{
    for (const MaterialDesc &m : s_.materials) {
        miTag fn;
        if (!m.shader.empty()) {
            fn = libs_.instance(m.shader);
            if (tracer_)
                tracer_->watch(fn, "material:" + m.name + " (" + m.shader + ": " + shaderOrigin(m.shader) + ")");
        } else {
            scatterLists_.emplace_back(new ScatterCache *(nullptr));
            const MaterialParams mp = materialParams(m, scatterLists_.back().get());
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
    const std::string instance = "light:" + l.name;
    if (l.kind == LightKind::Point) {
        const PointLightParams lp = pointLightParams(l);
        return ctx_->add_point_light(
            l.position, builtinFn(miSHADER_LIGHT, builtin_.pointLight, &lp, sizeof lp, false, l.name, instance),
            param);
    }
    if (l.kind == LightKind::Rect) {
        const RectLightParams lp = rectLightParams(l);
        return ctx_->add_rect_light(
            l.position, l.u, l.v, l.samples,
            builtinFn(miSHADER_LIGHT, builtin_.rectLight, &lp, sizeof lp, false, l.name, instance), param);
    }
    const PlainLightParams lp = plainLightParams(l);
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
} // namespace druxhost
