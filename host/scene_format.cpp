/*
 * The text scene format of the reference host: one command per line,
 * `#` starts a comment, tokens are separated by blanks.  See the README
 * section "Reference host renderer" for the full list of commands and keys.
 *
 *   resolution 480 360
 *   samples 4
 *   camera position 0 -9 3.2 target 0 0 1 up 0 0 1 fov 45
 *   material red diffuse 0.8 0.1 0.1 specular 0.5 0.5 0.5 exponent 40
 *   mesh ball sphere 1 48 24
 *   instance ball1 mesh ball material red translate 0 0 1
 *   light key point position 2 -3 5 intensity 20 group key
 *   pass beauty beauty
 *
 * Parsing reports the first problem as a SceneError carrying the line number;
 * the result is then validated as a whole (validate()).
 */
#include "scene.h"

#include "obj_loader.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace druxhost {

namespace {

/* ------------------------------------------------------------ reading */

class Line {
public:
    Line(int number, std::vector<std::string> tokens) : n_(number), t_(std::move(tokens)) {}

    int number() const { return n_; }
    bool done() const { return i_ >= t_.size(); }
    [[noreturn]] void error(const std::string &what) const { throw SceneError(n_, what); }

    std::string word(const char *what)
    {
        if (done())
            error(std::string("missing ") + what);
        return t_[i_++];
    }
    float number(const char *what)
    {
        const std::string w = word(what);
        char *end = nullptr;
        errno = 0;
        const float v = std::strtof(w.c_str(), &end);
        if (end == w.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
            error(std::string(what) + ": \"" + w + "\" is not a finite number");
        return v;
    }
    int integer(const char *what)
    {
        const std::string w = word(what);
        char *end = nullptr;
        errno = 0;
        const long v = std::strtol(w.c_str(), &end, 10);
        if (end == w.c_str() || *end != '\0' || errno == ERANGE || v < -2147483647L || v > 2147483647L)
            error(std::string(what) + ": \"" + w + "\" is not a whole number");
        return static_cast<int>(v);
    }
    miVector vec3(const char *what)
    {
        miVector v;
        v.x = number(what);
        v.y = number(what);
        v.z = number(what);
        return v;
    }
    miColor color3(const char *what)
    {
        miColor c;
        c.r = number(what);
        c.g = number(what);
        c.b = number(what);
        c.a = 1.0f;
        return c;
    }
    miColor color4(const char *what)
    {
        miColor c = color3(what);
        c.a = number(what);
        return c;
    }
    bool boolean(const char *what)
    {
        const std::string w = word(what);
        if (w == "on" || w == "true" || w == "yes" || w == "1")
            return true;
        if (w == "off" || w == "false" || w == "no" || w == "0")
            return false;
        error(std::string(what) + ": expected on or off, not \"" + w + "\"");
    }
    /* One of `choices` (returns its position). */
    int choice(const char *what, std::initializer_list<const char *> choices)
    {
        const std::string w = word(what);
        int i = 0;
        std::string all;
        for (const char *c : choices) {
            if (w == c)
                return i;
            all += (i ? ", " : "") + std::string(c);
            ++i;
        }
        error(std::string(what) + ": \"" + w + "\" is not one of " + all);
    }
    void end() const
    {
        if (!done())
            error("unexpected \"" + t_[i_] + "\" at the end of the line");
    }

private:
    int n_;
    std::vector<std::string> t_;
    size_t i_ = 0;
};

using KeyHandler = std::function<void(Line &)>;

/* Read `key value...` pairs until the end of the line. */
void readKeys(Line &l, const char *command, const std::map<std::string, KeyHandler> &keys)
{
    while (!l.done()) {
        const std::string k = l.word("key");
        auto it = keys.find(k);
        if (it == keys.end())
            l.error(std::string("unknown ") + command + " key \"" + k + "\"");
        it->second(l);
    }
}

int rampKind(Line &l) { return l.choice("ramp interpolation", {"none", "linear", "smooth", "spline"}); }

std::vector<std::string> splitList(const std::string &s)
{
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == ',') {
            if (!cur.empty())
                out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty())
        out.push_back(cur);
    return out;
}

std::vector<std::string> tokenize(const std::string &line)
{
    std::vector<std::string> t;
    std::string cur;
    for (char c : line) {
        if (c == '#')
            break;
        if (c == ' ' || c == '\t' || c == '\r') {
            if (!cur.empty())
                t.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty())
        t.push_back(cur);
    return t;
}

class Parser {
public:
    Parser(const std::string &text, const std::string &baseDir) : baseDir_(baseDir)
    {
        std::istringstream in(text);
        std::string line;
        int n = 0;
        while (std::getline(in, line)) {
            ++n;
            std::vector<std::string> t = tokenize(line);
            if (!t.empty())
                lines_.emplace_back(n, std::move(t));
        }
    }

    SceneDesc run()
    {
        seen_.clear();
        while (next_ < lines_.size()) {
            Line &l = lines_[next_++];
            const std::string cmd = l.word("command");
            if (cmd == "resolution") {
                once(l, cmd);
                s_.width = l.integer("width");
                s_.height = l.integer("height");
                l.end();
            } else if (cmd == "samples") {
                once(l, cmd);
                s_.samples = l.integer("samples");
                l.end();
            } else if (cmd == "camera") {
                camera(l);
            } else if (cmd == "options") {
                options(l);
            } else if (cmd == "environment") {
                environment(l);
            } else if (cmd == "texture") {
                texture(l);
            } else if (cmd == "material") {
                material(l);
            } else if (cmd == "mesh") {
                mesh(l);
            } else if (cmd == "instance") {
                instance(l);
            } else if (cmd == "light") {
                light(l);
            } else if (cmd == "pass") {
                pass(l);
            } else if (cmd == "link") {
                LinkDesc k;
                k.file = l.word("library file");
                if (k.file.size() >= 2 && k.file.front() == '"' && k.file.back() == '"')
                    k.file = k.file.substr(1, k.file.size() - 2);
                if (k.file.empty())
                    l.error("link needs a library file");
                k.line = l.number();
                l.end();
                s_.links.push_back(k);
            } else if (cmd == "shader") {
                ShaderDesc d;
                d.name = l.word("shader instance name");
                d.function = l.word("shader function");
                d.line = l.number();
                while (!l.done())
                    d.values.push_back(l.word("value"));
                s_.shaders.push_back(d);
            } else {
                l.error("unknown command \"" + cmd + "\"");
            }
        }
        return s_;
    }

private:
    void once(Line &l, const std::string &cmd)
    {
        if (!seen_.insert(cmd).second)
            l.error("\"" + cmd + "\" given twice");
    }

    void camera(Line &l)
    {
        CameraDesc &c = s_.camera;
        readKeys(l, "camera",
                 {{"position", [&](Line &x) { c.position = x.vec3("camera position"); }},
                  {"target", [&](Line &x) { c.target = x.vec3("camera target"); }},
                  {"up", [&](Line &x) { c.up = x.vec3("camera up"); }},
                  {"fov", [&](Line &x) { c.fov = x.number("camera fov"); }}});
    }

    void options(Line &l)
    {
        OptionsDesc &o = s_.options;
        readKeys(l, "options",
                 {{"trace", [&](Line &x) { o.trace = x.boolean("trace"); }},
                  {"reflection_depth", [&](Line &x) { o.reflectionDepth = x.integer("reflection_depth"); }},
                  {"refraction_depth", [&](Line &x) { o.refractionDepth = x.integer("refraction_depth"); }},
                  {"trace_depth", [&](Line &x) { o.traceDepth = x.integer("trace_depth"); }},
                  {"finalgather", [&](Line &x) { o.finalgather = x.boolean("finalgather"); }},
                  {"fg_rays", [&](Line &x) { o.fgRays = x.integer("fg_rays"); }},
                  {"min_contribution", [&](Line &x) { o.minContribution = x.number("min_contribution"); }},
                  {"full_contribution", [&](Line &x) { o.fullContribution = x.number("full_contribution"); }},
                  {"reflect_blur_limit", [&](Line &x) { o.reflectBlurLimit = x.integer("reflect_blur_limit"); }},
                  {"refract_blur_limit", [&](Line &x) { o.refractBlurLimit = x.integer("refract_blur_limit"); }}});
    }

    void environment(Line &l)
    {
        EnvironmentDesc &e = s_.environment;
        readKeys(l, "environment",
                 {{"zenith", [&](Line &x) { e.zenith = x.color3("zenith colour"); }},
                  {"horizon", [&](Line &x) { e.horizon = x.color3("horizon colour"); }},
                  {"ground", [&](Line &x) { e.ground = x.color3("ground colour"); }},
                  {"intensity", [&](Line &x) { e.intensity = x.number("intensity"); }}});
    }

    void texture(Line &l)
    {
        TextureDesc t;
        t.name = l.word("texture name");
        readKeys(l, "texture",
                 {{"pattern",
                   [&](Line &x) {
                       t.pattern = static_cast<TexturePattern>(x.choice("pattern", {"fbm", "marble", "turbulence"}));
                   }},
                  {"scale", [&](Line &x) { t.scale = x.number("scale"); }},
                  {"octaves", [&](Line &x) { t.octaves = x.integer("octaves"); }},
                  {"offset", [&](Line &x) { t.offset = x.vec3("offset"); }},
                  {"ramp", [&](Line &x) {
                       RampColorEntry k;
                       k.position = x.number("ramp position");
                       k.color = x.color4("ramp colour");
                       k.interpolation = rampKind(x);
                       t.ramp.push_back(k);
                   }}});
        s_.textures.push_back(t);
    }

    void material(Line &l)
    {
        MaterialDesc m;
        m.name = l.word("material name");
        readKeys(
            l, "material",
            {{"diffuse", [&](Line &x) { m.diffuse = x.color3("diffuse colour"); }},
             {"shader", [&](Line &x) { m.shader = x.word("shader instance name"); }},
             {"texture", [&](Line &x) { m.texture = x.word("texture name"); }},
             {"kd", [&](Line &x) { m.kd = x.number("kd"); }},
             {"specular", [&](Line &x) { m.specular = x.color3("specular colour"); }},
             {"model", [&](Line &x) { m.model = static_cast<SpecularModel>(x.choice("model", {"phong", "blinn"})); }},
             {"exponent", [&](Line &x) { m.exponent = x.number("exponent"); }},
             {"eccentricity", [&](Line &x) { m.eccentricity = x.number("eccentricity"); }},
             {"rolloff", [&](Line &x) { m.rolloff = x.number("rolloff"); }},
             {"secondary", [&](Line &x) { m.secondary = x.number("secondary"); }},
             {"translucence", [&](Line &x) { m.translucence = x.number("translucence"); }},
             {"focus", [&](Line &x) { m.focus = x.number("focus"); }},
             {"wrap", [&](Line &x) { m.wrap = x.number("wrap"); }},
             {"reflectivity", [&](Line &x) { m.reflectivity = x.number("reflectivity"); }},
             {"reflect_color", [&](Line &x) { m.reflectColor = x.color3("reflect_color"); }},
             {"reflect_blur", [&](Line &x) { m.reflectBlur = x.number("reflect_blur"); }},
             {"reflect_rays", [&](Line &x) { m.reflectRays = x.integer("reflect_rays"); }},
             {"reflection_limit", [&](Line &x) { m.reflectionLimit = x.integer("reflection_limit"); }},
             {"transparency", [&](Line &x) { m.transparency = x.color3("transparency"); }},
             {"ior", [&](Line &x) { m.ior = x.number("ior"); }},
             {"refract_blur", [&](Line &x) { m.refractBlur = x.number("refract_blur"); }},
             {"refract_rays", [&](Line &x) { m.refractRays = x.integer("refract_rays"); }},
             {"refraction_limit", [&](Line &x) { m.refractionLimit = x.integer("refraction_limit"); }},
             {"thickness", [&](Line &x) { m.thickness = x.number("thickness"); }},
             {"fade_distance", [&](Line &x) { m.fadeDistance = x.number("fade_distance"); }},
             {"absorbance", [&](Line &x) { m.absorbance = x.number("absorbance"); }},
             {"chromatic", [&](Line &x) { m.chromatic = x.boolean("chromatic"); }},
             {"indirect", [&](Line &x) { m.indirect = x.boolean("indirect"); }},
             {"irradiance_tint", [&](Line &x) { m.irradianceTint = x.color3("irradiance_tint"); }},
             {"scatter_radius", [&](Line &x) { m.scatterRadius = x.number("scatter_radius"); }},
             {"scatter_scale", [&](Line &x) { m.scatterScale = x.color3("scatter_scale"); }},
             {"scatter_samples", [&](Line &x) { m.scatterSamples = x.integer("scatter_samples"); }},
             {"scatter_falloff", [&](Line &x) { m.scatterFalloff = x.integer("scatter_falloff"); }},
             {"scatter_diffuse", [&](Line &x) { m.scatterDiffuse = x.number("scatter_diffuse"); }},
             {"scatter_cache", [&](Line &x) { m.scatterCache = x.integer("scatter_cache"); }},
             {"bump", [&](Line &x) { m.bump = x.number("bump"); }},
             {"bump_scale", [&](Line &x) { m.bumpScale = x.number("bump_scale"); }}});
        s_.materials.push_back(m);
    }

    void mesh(Line &l)
    {
        MeshDesc m;
        m.name = l.word("mesh name");
        const int kind = l.choice("mesh kind", {"plane", "sphere", "box", "torus", "triangles", "obj"});
        m.kind = static_cast<MeshKind>(kind);
        switch (m.kind) {
        case MeshKind::Plane:
            m.a = l.number("plane size x");
            m.b = l.number("plane size y");
            m.n = l.integer("plane divisions x");
            m.m = l.integer("plane divisions y");
            break;
        case MeshKind::Sphere:
            m.a = l.number("sphere radius");
            m.n = l.integer("sphere segments");
            m.m = l.integer("sphere rings");
            break;
        case MeshKind::Box:
            m.a = l.number("box size x");
            m.b = l.number("box size y");
            m.c = l.number("box size z");
            break;
        case MeshKind::Torus:
            m.a = l.number("torus radius");
            m.b = l.number("torus tube radius");
            m.n = l.integer("torus segments");
            m.m = l.integer("torus rings");
            break;
        case MeshKind::Triangles:
            break;
        case MeshKind::Obj: {
            m.file = l.word("OBJ file name");
            if (m.file.size() >= 2 && m.file.front() == '"' && m.file.back() == '"')
                m.file = m.file.substr(1, m.file.size() - 2);
            if (m.file.empty())
                l.error("mesh \"" + m.name + "\": empty OBJ file name");
            const std::string path =
                m.file[0] == '/' || baseDir_.empty() ? m.file : baseDir_ + "/" + m.file;
            try {
                loadObj(path, m);
            } catch (const ObjError &e) {
                l.error("mesh \"" + m.name + "\": " + e.what());
            }
            break;
        }
        }
        if (!l.done()) {
            const std::string w = l.word("mesh option");
            if (w != "faceted")
                l.error("\"" + w + "\" after a mesh: expected faceted or the end of the line");
            m.faceted = true;
        }
        l.end();
        if (m.kind == MeshKind::Triangles)
            triangles(l, m);
        s_.meshes.push_back(m);
    }

    /* Lines up to `end`: v x y z | vn x y z | vt u v | f a b c (0-based). */
    void triangles(Line &head, MeshDesc &m)
    {
        while (next_ < lines_.size()) {
            Line &l = lines_[next_++];
            const std::string w = l.word("triangle data");
            if (w == "end") {
                l.end();
                return;
            }
            if (w == "v") {
                m.P.push_back(l.vec3("vertex"));
            } else if (w == "vn") {
                m.N.push_back(l.vec3("vertex normal"));
            } else if (w == "vt") {
                miVector t{0, 0, 0};
                t.x = l.number("texture u");
                t.y = l.number("texture v");
                m.uv.push_back(t);
            } else if (w == "f") {
                std::array<int, 3> f;
                for (int &i : f)
                    i = l.integer("vertex index");
                m.tris.push_back(f);
            } else {
                l.error("\"" + w + "\" in a triangle mesh: expected v, vn, vt, f or end");
            }
            l.end();
        }
        head.error("triangle mesh \"" + m.name + "\" is not closed by \"end\"");
    }

    void instance(Line &l)
    {
        InstanceDesc i;
        i.name = l.word("instance name");
        readKeys(l, "instance",
                 {{"mesh", [&](Line &x) { i.mesh = x.word("mesh name"); }},
                  {"material", [&](Line &x) { i.material = x.word("material name"); }},
                  {"translate", [&](Line &x) { i.steps.push_back({TransformStep::Translate, x.vec3("translation")}); }},
                  {"rotate",
                   [&](Line &x) {
                       TransformStep s;
                       s.kind = TransformStep::Rotate;
                       s.v.x = static_cast<float>(x.choice("rotation axis", {"x", "y", "z"}));
                       s.v.y = x.number("rotation angle");
                       i.steps.push_back(s);
                   }},
                  {"scale", [&](Line &x) { i.steps.push_back({TransformStep::Scale, x.vec3("scale")}); }},
                  {"shadow_passes", [&](Line &x) { i.shadowPasses = splitList(x.word("pass list")); }}});
        if (i.mesh.empty() || i.material.empty())
            l.error("instance \"" + i.name + "\" needs a mesh and a material");
        s_.instances.push_back(i);
    }

    void light(Line &l)
    {
        LightDesc d;
        d.name = l.word("light name");
        d.kind = static_cast<LightKind>(l.choice("light kind", {"point", "rect", "plain"}));
        std::map<std::string, KeyHandler> keys = {
            {"color", [&](Line &x) { d.color = x.color3("light colour"); }},
            {"intensity", [&](Line &x) { d.intensity = x.number("intensity"); }},
            {"falloff", [&](Line &x) { d.quadratic = x.choice("falloff", {"none", "quadratic"}) == 1; }},
            {"shadow", [&](Line &x) { d.shadow = x.boolean("shadow"); }},
            {"group", [&](Line &x) { d.group = x.word("group name"); }},
        };
        if (d.kind == LightKind::Rect) {
            keys["center"] = [&](Line &x) { d.position = x.vec3("centre"); };
            keys["u"] = [&](Line &x) { d.u = x.vec3("half edge u"); };
            keys["v"] = [&](Line &x) { d.v = x.vec3("half edge v"); };
            keys["samples"] = [&](Line &x) { d.samples = x.integer("samples"); };
            keys["shadow_samples"] = [&](Line &x) { d.shadowSamples = x.integer("shadow_samples"); };
        } else {
            keys["position"] = [&](Line &x) { d.position = x.vec3("position"); };
        }
        if (d.kind != LightKind::Plain) {
            keys["shadow_mode"] = [&](Line &x) { d.sharedShadow = x.choice("shadow_mode", {"perpass", "shared"}) == 1; };
            keys["shadow_color"] = [&](Line &x) { d.shadowColor = x.color3("shadow_color"); };
        }
        readKeys(l, "light", keys);
        s_.lights.push_back(d);
    }

    void pass(Line &l)
    {
        PassDesc p;
        p.name = l.word("pass name");
        const std::string role = l.word("pass role");
        if (!roleFromName(role, p.role))
            l.error("unknown pass role \"" + role +
                    "\" (beauty, diffuse, specular, reflection, refraction, indirect, scatter, background, "
                    "shadow, lightgroup, constant, depth, normal, position, albedo, coverage)");
        std::map<std::string, KeyHandler> keys = {
            {"all_occluders", [&](Line &x) { p.allOccluders = x.boolean("all_occluders"); }}};
        if (p.role == PassRole::LightGroup)
            keys["group"] = [&](Line &x) { p.group = x.word("group name"); };
        if (p.role == PassRole::Constant)
            keys["color"] = [&](Line &x) { p.constant = x.color4("constant colour"); };
        readKeys(l, "pass", keys);
        s_.passes.push_back(p);
    }

    std::vector<Line> lines_;
    size_t next_ = 0;
    std::string baseDir_;
    SceneDesc s_;
    std::set<std::string> seen_;
};

/* ------------------------------------------------------------ writing */

/* The shortest decimal text that reads back as the same float. */
std::string num(float v)
{
    char buf[32];
    for (int p = 6; p <= 9; ++p) {
        std::snprintf(buf, sizeof buf, "%.*g", p, static_cast<double>(v));
        if (std::strtof(buf, nullptr) == v)
            break;
    }
    return buf;
}
std::string vec(const miVector &v) { return num(v.x) + " " + num(v.y) + " " + num(v.z); }
std::string col3(const miColor &c) { return num(c.r) + " " + num(c.g) + " " + num(c.b); }
std::string col4(const miColor &c) { return col3(c) + " " + num(c.a); }
const char *onoff(bool b) { return b ? "on" : "off"; }

} // namespace

SceneDesc parseScene(const std::string &text, const std::string &baseDir)
{
    Parser p(text, baseDir);
    SceneDesc s = p.run();
    validate(s);
    return s;
}

SceneDesc loadScene(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw SceneError(0, "cannot read the scene file " + path);
    std::ostringstream text;
    text << in.rdbuf();
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash == 0 ? 1 : slash);
    SceneDesc s = parseScene(text.str(), dir);
    s.directory = dir.empty() ? std::string(".") : dir;
    return s;
}

std::string writeScene(const SceneDesc &s)
{
    std::ostringstream o;
    for (const LinkDesc &k : s.links)
        o << "link \"" << k.file << "\"\n";
    o << "resolution " << s.width << " " << s.height << "\n";
    o << "samples " << s.samples << "\n";
    o << "camera position " << vec(s.camera.position) << " target " << vec(s.camera.target) << " up "
      << vec(s.camera.up) << " fov " << num(s.camera.fov) << "\n";
    const OptionsDesc &op = s.options;
    o << "options trace " << onoff(op.trace) << " reflection_depth " << op.reflectionDepth << " refraction_depth "
      << op.refractionDepth << " trace_depth " << op.traceDepth << " finalgather " << onoff(op.finalgather)
      << " fg_rays " << op.fgRays << " min_contribution " << num(op.minContribution) << " full_contribution "
      << num(op.fullContribution) << " reflect_blur_limit " << op.reflectBlurLimit << " refract_blur_limit "
      << op.refractBlurLimit << "\n";
    const EnvironmentDesc &e = s.environment;
    o << "environment zenith " << col3(e.zenith) << " horizon " << col3(e.horizon) << " ground "
      << col3(e.ground) << " intensity " << num(e.intensity) << "\n";
    if (!s.shaders.empty())
        o << "\n# shader instances of linked libraries\n";
    for (const ShaderDesc &d : s.shaders) {
        o << "shader " << d.name << " " << d.function;
        for (const std::string &v : d.values)
            o << " " << v;
        o << "\n";
    }

    static const char *patterns[] = {"fbm", "marble", "turbulence"};
    static const char *kinds[] = {"none", "linear", "smooth", "spline"};
    if (!s.textures.empty())
        o << "\n# textures: a noise pattern mapped through a colour ramp\n";
    for (const TextureDesc &t : s.textures) {
        o << "texture " << t.name << " pattern " << patterns[static_cast<int>(t.pattern)] << " scale "
          << num(t.scale) << " octaves " << t.octaves;
        if (t.offset.x != 0.0f || t.offset.y != 0.0f || t.offset.z != 0.0f)
            o << " offset " << vec(t.offset);
        for (const RampColorEntry &k : t.ramp)
            o << " ramp " << num(k.position) << " " << col4(k.color) << " "
              << (k.interpolation >= 0 && k.interpolation <= 3 ? kinds[k.interpolation] : "none");
        o << "\n";
    }
    if (!s.materials.empty())
        o << "\n# materials\n";
    const MaterialDesc dm;
    for (const MaterialDesc &m : s.materials) {
        /* only what differs from a fresh material */
        o << "material " << m.name;
        auto f = [&](const char *key, float v, float def) {
            if (v != def)
                o << " " << key << " " << num(v);
        };
        auto i = [&](const char *key, int v, int def) {
            if (v != def)
                o << " " << key << " " << v;
        };
        auto c = [&](const char *key, const miColor &v, const miColor &def) {
            if (v.r != def.r || v.g != def.g || v.b != def.b)
                o << " " << key << " " << col3(v);
        };
        auto b = [&](const char *key, bool v, bool def) {
            if (v != def)
                o << " " << key << " " << onoff(v);
        };
        c("diffuse", m.diffuse, dm.diffuse);
        if (!m.shader.empty())
            o << " shader " << m.shader;
        if (!m.texture.empty())
            o << " texture " << m.texture;
        f("kd", m.kd, dm.kd);
        c("specular", m.specular, dm.specular);
        if (m.model != dm.model)
            o << " model " << (m.model == SpecularModel::Blinn ? "blinn" : "phong");
        f("exponent", m.exponent, dm.exponent);
        f("eccentricity", m.eccentricity, dm.eccentricity);
        f("rolloff", m.rolloff, dm.rolloff);
        f("secondary", m.secondary, dm.secondary);
        f("translucence", m.translucence, dm.translucence);
        f("focus", m.focus, dm.focus);
        f("wrap", m.wrap, dm.wrap);
        f("reflectivity", m.reflectivity, dm.reflectivity);
        c("reflect_color", m.reflectColor, dm.reflectColor);
        f("reflect_blur", m.reflectBlur, dm.reflectBlur);
        i("reflect_rays", m.reflectRays, dm.reflectRays);
        i("reflection_limit", m.reflectionLimit, dm.reflectionLimit);
        c("transparency", m.transparency, dm.transparency);
        f("ior", m.ior, dm.ior);
        f("refract_blur", m.refractBlur, dm.refractBlur);
        i("refract_rays", m.refractRays, dm.refractRays);
        i("refraction_limit", m.refractionLimit, dm.refractionLimit);
        f("thickness", m.thickness, dm.thickness);
        f("fade_distance", m.fadeDistance, dm.fadeDistance);
        f("absorbance", m.absorbance, dm.absorbance);
        b("chromatic", m.chromatic, dm.chromatic);
        b("indirect", m.indirect, dm.indirect);
        c("irradiance_tint", m.irradianceTint, dm.irradianceTint);
        f("scatter_radius", m.scatterRadius, dm.scatterRadius);
        c("scatter_scale", m.scatterScale, dm.scatterScale);
        i("scatter_samples", m.scatterSamples, dm.scatterSamples);
        i("scatter_falloff", m.scatterFalloff, dm.scatterFalloff);
        f("scatter_diffuse", m.scatterDiffuse, dm.scatterDiffuse);
        i("scatter_cache", m.scatterCache, dm.scatterCache);
        f("bump", m.bump, dm.bump);
        f("bump_scale", m.bumpScale, dm.bumpScale);
        o << "\n";
    }
    if (!s.meshes.empty())
        o << "\n# meshes\n";
    for (const MeshDesc &m : s.meshes) {
        o << "mesh " << m.name << " ";
        const char *const eol = m.faceted ? " faceted\n" : "\n";
        switch (m.kind) {
        case MeshKind::Plane:
            o << "plane " << num(m.a) << " " << num(m.b) << " " << m.n << " " << m.m << eol;
            break;
        case MeshKind::Sphere:
            o << "sphere " << num(m.a) << " " << m.n << " " << m.m << eol;
            break;
        case MeshKind::Box:
            o << "box " << num(m.a) << " " << num(m.b) << " " << num(m.c) << eol;
            break;
        case MeshKind::Torus:
            o << "torus " << num(m.a) << " " << num(m.b) << " " << m.n << " " << m.m << eol;
            break;
        case MeshKind::Triangles:
            o << "triangles" << eol;
            for (const miVector &p : m.P)
                o << "v " << vec(p) << "\n";
            for (const miVector &n : m.N)
                o << "vn " << vec(n) << "\n";
            for (const miVector &t : m.uv)
                o << "vt " << num(t.x) << " " << num(t.y) << "\n";
            for (const auto &f : m.tris)
                o << "f " << f[0] << " " << f[1] << " " << f[2] << "\n";
            o << "end\n";
            break;
        case MeshKind::Obj:
            o << "obj \"" << m.file << "\"\n";
            break;
        }
    }
    if (!s.instances.empty())
        o << "\n# instances: transforms apply in the order written\n";
    static const char *axes[] = {"x", "y", "z"};
    for (const InstanceDesc &i : s.instances) {
        o << "instance " << i.name << " mesh " << i.mesh << " material " << i.material;
        for (const TransformStep &st : i.steps) {
            if (st.kind == TransformStep::Translate)
                o << " translate " << vec(st.v);
            else if (st.kind == TransformStep::Scale)
                o << " scale " << vec(st.v);
            else
                o << " rotate " << axes[static_cast<int>(st.v.x) % 3] << " " << num(st.v.y);
        }
        if (!i.shadowPasses.empty()) {
            o << " shadow_passes ";
            for (size_t k = 0; k < i.shadowPasses.size(); ++k)
                o << (k ? "," : "") << i.shadowPasses[k];
        }
        o << "\n";
    }
    if (!s.lights.empty())
        o << "\n# lights\n";
    static const char *lkinds[] = {"point", "rect", "plain"};
    const LightDesc dl;
    for (const LightDesc &l : s.lights) {
        o << "light " << l.name << " " << lkinds[static_cast<int>(l.kind)];
        if (l.kind == LightKind::Rect)
            o << " center " << vec(l.position) << " u " << vec(l.u) << " v " << vec(l.v) << " samples "
              << l.samples << " shadow_samples " << l.shadowSamples;
        else
            o << " position " << vec(l.position);
        if (l.color.r != dl.color.r || l.color.g != dl.color.g || l.color.b != dl.color.b)
            o << " color " << col3(l.color);
        o << " intensity " << num(l.intensity);
        if (l.quadratic != dl.quadratic)
            o << " falloff " << (l.quadratic ? "quadratic" : "none");
        if (l.shadow != dl.shadow)
            o << " shadow " << onoff(l.shadow);
        if (l.kind != LightKind::Plain) {
            if (l.sharedShadow != dl.sharedShadow)
                o << " shadow_mode " << (l.sharedShadow ? "shared" : "perpass");
            if (l.shadowColor.r != dl.shadowColor.r || l.shadowColor.g != dl.shadowColor.g ||
                l.shadowColor.b != dl.shadowColor.b)
                o << " shadow_color " << col3(l.shadowColor);
        }
        if (!l.group.empty())
            o << " group " << l.group;
        o << "\n";
    }
    if (!s.passes.empty())
        o << "\n# passes (frame buffers)\n";
    for (const PassDesc &p : s.passes) {
        o << "pass " << p.name << " " << roleName(p.role);
        if (p.role == PassRole::LightGroup)
            o << " group " << p.group;
        if (p.role == PassRole::Constant)
            o << " color " << col4(p.constant);
        if (p.allOccluders)
            o << " all_occluders on";
        o << "\n";
    }
    return o.str();
}

} // namespace druxhost
