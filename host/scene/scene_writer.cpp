/*
 * Writing a scene description in the text scene format (scene_format.cpp
 * reads it): every command of the description, table keys where they differ
 * from a fresh description, numbers in the shortest text that reads back as
 * the same float, so that writing and parsing again gives the same scene.
 */
#include "scene.h"

#include "scene_keys.h"
#include "fnv_hash.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace druxhost {

namespace {

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
        o << " \"" << m.file << "\"" << eol;
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

std::string sceneFingerprint(const SceneDesc &s)
{
    Fnv1a64 h;
    const std::string text = std::string("druxrender " DRUX_VERSION "\n") + writeScene(s);
    h.add(text.data(), text.size());
    for (const MeshDesc &m : s.meshes) {
        h.add(m.P.data(), m.P.size() * sizeof(miVector));
        h.add(m.N.data(), m.N.size() * sizeof(miVector));
        h.add(m.uv.data(), m.uv.size() * sizeof(miVector));
        h.add(m.tris.data(), m.tris.size() * sizeof(m.tris[0]));
        h.add(&m.faceted, 1);
    }
    return h.hex();
}

} // namespace druxhost
