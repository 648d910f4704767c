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

#include "file_read.h"
#include "obj_loader.h"
#include "text_lines.h"
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
    /* one reader of the line per type */
    switch (k.type) {
    case KeyType::Number: d.*k.number = x.number(k.name); break;
    case KeyType::Integer: d.*k.integer = x.integer(k.name); break;
    case KeyType::Boolean: d.*k.boolean = k.choices ? x.choice(k.name, k.choices) == 1 : x.boolean(k.name); break;
    case KeyType::Colour: d.*k.colour = x.color3(k.name); break;
    case KeyType::Vector: d.*k.vector = x.vec3(k.name); break;
    case KeyType::Word: d.*k.word = x.word(k.name); break;
    case KeyType::Choice: d.*k.integer = x.choice(k.name, k.choices); break;
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
    std::string text;
    try {
        text = readRegularFile(path, kSceneFileLimit, "scene");
    } catch (const std::exception &e) {
        throw SceneError(0, std::string("cannot read the scene file: ") + e.what());
    }
    bool commands = false;
    forEachLine(text, [&](const std::string &line, int) {
        const size_t first = line.find_first_not_of(" \t\r");
        commands = commands || (first != std::string::npos && line[first] != '#');
    });
    if (!commands)
        throw SceneError(0, "the scene file holds no commands (it is empty or only comments); nothing to render");
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash == 0 ? 1 : slash);
    SceneDesc s = parseScene(text, dir);
    s.directory = dir.empty() ? std::string(".") : dir;
    return s;
}

} // namespace druxhost
