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
#include "scene_keys.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    /* One of the words of a null-terminated list (returns its position). */
    int choice(const char *what, const char *const *choices)
    {
        const std::string w = word(what);
        std::string all;
        for (int i = 0; choices[i]; ++i) {
            if (w == choices[i])
                return i;
            all += (i ? ", " : "") + std::string(choices[i]);
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
using KeyHandlers = std::map<std::string, KeyHandler>;

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

/* Reads the value of a table key into its field. */
template <class D, class P> void readKey(Line &x, const Key<D, P> &k, D &d)
{
    switch (k.type) {
    case KeyType::Number:
        d.*k.number = x.number(k.name);
        break;
    case KeyType::Integer:
        d.*k.integer = x.integer(k.name);
        break;
    case KeyType::Boolean:
        d.*k.boolean = k.choices ? x.choice(k.name, k.choices) == 1 : x.boolean(k.name);
        break;
    case KeyType::Colour:
        d.*k.colour = x.color3(k.name);
        break;
    case KeyType::Vector:
        d.*k.vector = x.vec3(k.name);
        break;
    case KeyType::Word:
        d.*k.word = x.word(k.name);
        break;
    case KeyType::Choice:
        d.*k.integer = x.choice(k.name, k.choices);
        break;
    }
}

/* Reads the rest of a line of a command whose keys are those of a table
   (those of the description's kind), and any others in `more`. */
template <class D, class P, size_t N>
void readTableKeys(Line &l, const char *command, const Key<D, P> (&keys)[N], D &d,
                   std::map<std::string, KeyHandler> more = {})
{
    d.line = l.number();
    for (const Key<D, P> &k : keys)
        if (hasKey(k, d))
            more[k.name] = [&k, &d](Line &x) { readKey(x, k, d); };
    readKeys(l, command, more);
}

const char *const kRampKinds[] = {"none", "linear", "smooth", "spline", nullptr};
const char *const kLightKinds[] = {"point", "rect", "plain", nullptr};

const char *const kMeshKinds[] = {"plane", "sphere", "box", "torus", "triangles", "obj", nullptr};

/* The numbers after the kind of a primitive mesh (plane, sphere, box,
   torus): the fields a, b, c (numbers) and n, m (whole numbers) in order. */
struct MeshArgs {
    const char *fields;
    const char *what[4];
};
const MeshArgs kMeshArgs[] = {
    {"abnm", {"plane size x", "plane size y", "plane divisions x", "plane divisions y"}},
    {"anm", {"sphere radius", "sphere segments", "sphere rings", nullptr}},
    {"abc", {"box size x", "box size y", "box size z", nullptr}},
    {"abnm", {"torus radius", "torus tube radius", "torus segments", "torus rings"}},
};
template <class M> auto meshNumber(M &m, char f) -> decltype(&m.a)
{
    return f == 'a' ? &m.a : f == 'b' ? &m.b : f == 'c' ? &m.c : nullptr;
}
template <class M> auto meshCount(M &m, char f) -> decltype(&m.n) { return f == 'n' ? &m.n : &m.m; }

/* `ramp POSITION R G B A KIND` of a texture */
RampColorEntry rampKey(Line &x)
{
    RampColorEntry k;
    k.position = x.number("ramp position");
    k.color = x.color4("ramp colour");
    k.interpolation = x.choice("ramp interpolation", kRampKinds);
    return k;
}

/* The words of `s` between the separators `seps`; from `stop` on (when not
   0) the rest is a comment. */
std::vector<std::string> split(const std::string &s, const char *seps, char stop)
{
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (stop && c == stop)
            break;
        if (c != '\0' && std::strchr(seps, c)) {
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

std::vector<std::string> splitList(const std::string &s) { return split(s, ",", 0); }
std::vector<std::string> tokenize(const std::string &line) { return split(line, " \t\r", '#'); }

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
                s_.resolutionLine = l.number();
                s_.width = l.integer("width");
                s_.height = l.integer("height");
                l.end();
            } else if (cmd == "samples") {
                once(l, cmd);
                s_.samplesLine = l.number();
                s_.samples = l.integer("samples");
                l.end();
            } else if (cmd == "camera") {
                readTableKeys(l, "camera", kCameraKeys, s_.camera);
            } else if (cmd == "options") {
                readTableKeys(l, "options", kOptionsKeys, s_.options);
            } else if (cmd == "environment") {
                readTableKeys(l, "environment", kEnvironmentKeys, s_.environment);
            } else if (cmd == "texture") {
                keyed(l, "texture", kTextureKeys, s_.textures, [](TextureDesc &t) {
                    return KeyHandlers{{"ramp", [&t](Line &x) { t.ramp.push_back(rampKey(x)); }}};
                });
            } else if (cmd == "material") {
                keyed(l, "material", kMaterialKeys, s_.materials, [](MaterialDesc &) { return KeyHandlers(); });
            } else if (cmd == "mesh") {
                mesh(l);
            } else if (cmd == "instance") {
                instance(l);
            } else if (cmd == "light") {
                keyed(l, "light", kLightKeys, s_.lights, [&](LightDesc &d) {
                    d.kind = static_cast<LightKind>(l.choice("light kind", kLightKinds));
                    return KeyHandlers();
                });
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

    /* A command of a key table: its name, what `head` reads (it returns the
       handlers of keys beside the table's), then the keys. */
    template <class D, class P, size_t N, class Head>
    void keyed(Line &l, const char *command, const Key<D, P> (&keys)[N], std::vector<D> &into, Head head)
    {
        D d;
        d.name = l.word((std::string(command) + " name").c_str());
        readTableKeys(l, command, keys, d, head(d));
        into.push_back(d);
    }

    void mesh(Line &l)
    {
        MeshDesc m;
        m.name = l.word("mesh name");
        m.line = l.number();
        m.kind = static_cast<MeshKind>(l.choice("mesh kind", kMeshKinds));
        switch (m.kind) {
        case MeshKind::Plane:
        case MeshKind::Sphere:
        case MeshKind::Box:
        case MeshKind::Torus: {
            const MeshArgs &args = kMeshArgs[static_cast<int>(m.kind)];
            for (int i = 0; args.fields[i]; ++i) {
                if (float *f = meshNumber(m, args.fields[i]))
                    *f = l.number(args.what[i]);
                else
                    *meshCount(m, args.fields[i]) = l.integer(args.what[i]);
            }
            break;
        }
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
        i.line = l.number();
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

    void pass(Line &l)
    {
        PassDesc p;
        p.name = l.word("pass name");
        p.line = l.number();
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

/* " key value" of a table key, or "" where `d` holds what `fresh` holds
   (and `all` is false) or an empty name. */
template <class D, class P> std::string keyText(const Key<D, P> &k, const D &d, const D &fresh, bool all)
{
    std::string v;
    bool same = false;
    switch (k.type) {
    case KeyType::Number:
        v = num(d.*k.number);
        same = d.*k.number == fresh.*k.number;
        break;
    case KeyType::Integer:
        v = std::to_string(d.*k.integer);
        same = d.*k.integer == fresh.*k.integer;
        break;
    case KeyType::Boolean:
        v = k.choices ? k.choices[d.*k.boolean ? 1 : 0] : onoff(d.*k.boolean);
        same = d.*k.boolean == fresh.*k.boolean;
        break;
    case KeyType::Colour: {
        const miColor &c = d.*k.colour, &f = fresh.*k.colour;
        v = col3(c);
        same = c.r == f.r && c.g == f.g && c.b == f.b;
        break;
    }
    case KeyType::Vector: {
        const miVector &a = d.*k.vector, &f = fresh.*k.vector;
        v = vec(a);
        same = a.x == f.x && a.y == f.y && a.z == f.z;
        break;
    }
    case KeyType::Word:
        v = d.*k.word;
        same = v.empty();
        all = false;
        break;
    case KeyType::Choice: {
        const int i = d.*k.integer;
        v = i >= 0 && i < choiceCount(k.choices) ? k.choices[i] : k.choices[0];
        same = i == fresh.*k.integer;
        break;
    }
    }
    return same && !all && !k.always ? std::string() : " " + std::string(k.name) + " " + v;
}

/* A table command: every key (`all`) or those that differ from a fresh description. */
template <class D, class P, size_t N>
void writeTableKeys(std::ostream &o, const Key<D, P> (&keys)[N], const D &d, bool all)
{
    const D fresh;
    for (const Key<D, P> &k : keys)
        if (hasKey(k, d))
            o << keyText(k, d, fresh, all);
}

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

namespace {

void writeHead(std::ostream &o, const SceneDesc &s)
{
    for (const LinkDesc &k : s.links)
        o << "link \"" << k.file << "\"\n";
    o << "resolution " << s.width << " " << s.height << "\n";
    o << "samples " << s.samples << "\n";
    o << "camera";
    writeTableKeys(o, kCameraKeys, s.camera, true);
    o << "\noptions";
    writeTableKeys(o, kOptionsKeys, s.options, true);
    o << "\nenvironment";
    writeTableKeys(o, kEnvironmentKeys, s.environment, true);
    o << "\n";
    if (!s.shaders.empty())
        o << "\n# shader instances of linked libraries\n";
    for (const ShaderDesc &d : s.shaders) {
        o << "shader " << d.name << " " << d.function;
        for (const std::string &v : d.values)
            o << " " << v;
        o << "\n";
    }
}

/* Textures, materials and lights: a comment, then a line per description
   with its name, what `head` writes, the keys of its table that differ from
   a fresh description (or are always written) and what `tail` writes. */
template <class D, class P, size_t N, class Head, class Tail>
void writeKeyed(std::ostream &o, const std::vector<D> &items, const char *comment, const char *command,
                const Key<D, P> (&keys)[N], Head head, Tail tail)
{
    if (!items.empty())
        o << "\n# " << comment << "\n";
    for (const D &d : items) {
        o << command << " " << d.name;
        head(d);
        writeTableKeys(o, keys, d, false);
        tail(d);
        o << "\n";
    }
}

void writeMesh(std::ostream &o, const MeshDesc &m)
{
    o << "mesh " << m.name << " " << kMeshKinds[static_cast<int>(m.kind)];
    const char *const eol = m.faceted ? " faceted\n" : "\n";
    if (m.kind == MeshKind::Obj) {
        o << " \"" << m.file << "\"\n";
        return;
    }
    if (m.kind != MeshKind::Triangles) {
        const MeshArgs &args = kMeshArgs[static_cast<int>(m.kind)];
        for (int i = 0; args.fields[i]; ++i) {
            if (const float *f = meshNumber(m, args.fields[i]))
                o << " " << num(*f);
            else
                o << " " << *meshCount(m, args.fields[i]);
        }
        o << eol;
        return;
    }
    o << eol;
    for (const miVector &p : m.P)
        o << "v " << vec(p) << "\n";
    for (const miVector &n : m.N)
        o << "vn " << vec(n) << "\n";
    for (const miVector &t : m.uv)
        o << "vt " << num(t.x) << " " << num(t.y) << "\n";
    for (const auto &f : m.tris)
        o << "f " << f[0] << " " << f[1] << " " << f[2] << "\n";
    o << "end\n";
}

void writeInstance(std::ostream &o, const InstanceDesc &i)
{
    static const char *axes[] = {"x", "y", "z"};
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

void writePass(std::ostream &o, const PassDesc &p)
{
    o << "pass " << p.name << " " << roleName(p.role);
    if (p.role == PassRole::LightGroup)
        o << " group " << p.group;
    if (p.role == PassRole::Constant)
        o << " color " << col4(p.constant);
    if (p.allOccluders)
        o << " all_occluders on";
    o << "\n";
}

} // namespace

std::string writeScene(const SceneDesc &s)
{
    std::ostringstream o;
    writeHead(o, s);
    const auto nothing = [](const auto &) {};
    writeKeyed(o, s.textures, "textures: a noise pattern mapped through a colour ramp", "texture", kTextureKeys,
               nothing, [&](const TextureDesc &t) {
                   for (const RampColorEntry &k : t.ramp)
                       o << " ramp " << num(k.position) << " " << col4(k.color) << " "
                         << (k.interpolation >= 0 && k.interpolation <= 3 ? kRampKinds[k.interpolation] : "none");
               });
    writeKeyed(o, s.materials, "materials", "material", kMaterialKeys, nothing, nothing);
    if (!s.meshes.empty())
        o << "\n# meshes\n";
    for (const MeshDesc &m : s.meshes)
        writeMesh(o, m);
    if (!s.instances.empty())
        o << "\n# instances: transforms apply in the order written\n";
    for (const InstanceDesc &i : s.instances)
        writeInstance(o, i);
    writeKeyed(
        o, s.lights, "lights", "light", kLightKeys,
        [&](const LightDesc &l) { o << " " << kLightKinds[static_cast<int>(l.kind) % 3]; }, nothing);
    if (!s.passes.empty())
        o << "\n# passes (frame buffers)\n";
    for (const PassDesc &p : s.passes)
        writePass(o, p);
    return o.str();
}

} // namespace druxhost
