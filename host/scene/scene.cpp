#include "scene.h"

#include "scene_keys.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <algorithm>
#include <map>
#include <set>

namespace druxhost {

namespace {

struct RoleInfo {
    PassRole role;
    const char *name;
    int type;
    bool additive;
};

/* Pass types: beauty takes type 0, which also receives the environment that
   reflection and refraction fall back on.  The component passes take types
   whose traced light does not propagate (1, 4, 26, 28, 32, 33), so that a
   reflected surface's diffuse light shows up in the reflection pass and not
   again in the diffuse pass.  The shadow pass is a shadow type (12); light
   groups take 20, a plain type that keeps traced light, so that a group shows
   its lights also through mirrors and glass; the background takes 31.  The
   data passes take 11, a type that is never shadowed, except coverage, which
   takes 16, a type whose alpha the library writes unchanged. */
const RoleInfo kRoles[] = {
    {PassRole::Beauty, "beauty", DRUX_PASS_BEAUTY, false},
    {PassRole::Diffuse, "diffuse", DRUX_PASS_DIFFUSE, true},
    {PassRole::Specular, "specular", DRUX_PASS_SPECULAR, true},
    {PassRole::Reflection, "reflection", DRUX_PASS_REFLECTION, true},
    {PassRole::Refraction, "refraction", DRUX_PASS_REFRACTION, true},
    {PassRole::Indirect, "indirect", DRUX_PASS_INDIRECT, true},
    {PassRole::Scatter, "scatter", DRUX_PASS_SCATTER, true},
    {PassRole::Background, "background", DRUX_PASS_BACKGROUND, true},
    {PassRole::Shadow, "shadow", DRUX_PASS_SHADOW, false},
    {PassRole::LightGroup, "lightgroup", DRUX_PASS_LIGHT_GROUP, false},
    {PassRole::Constant, "constant", -1, false},
    {PassRole::Custom, "custom", DRUX_PASS_CUSTOM, false},
    {PassRole::Depth, "depth", DRUX_PASS_DATA, false},
    {PassRole::Normal, "normal", DRUX_PASS_DATA, false},
    {PassRole::Position, "position", DRUX_PASS_DATA, false},
    {PassRole::Albedo, "albedo", DRUX_PASS_DATA, false},
    {PassRole::Coverage, "coverage", DRUX_PASS_COVERAGE, false},
};

const RoleInfo *info(PassRole role)
{
    for (const RoleInfo &r : kRoles)
        if (r.role == role)
            return &r;
    return nullptr;
}

bool finite(const miVector &v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }
bool finite(const miColor &c)
{
    return std::isfinite(c.r) && std::isfinite(c.g) && std::isfinite(c.b) && std::isfinite(c.a);
}

[[noreturn]] void fail(int line, const std::string &what) { throw SceneError(line, what); }

template <class T> void uniqueNames(const std::vector<T> &items, const char *kind)
{
    std::set<std::string> seen;
    for (const T &it : items) {
        if (it.name.empty())
            fail(it.line, std::string(kind) + " without a name");
        if (!seen.insert(it.name).second)
            fail(it.line, std::string(kind) + " \"" + it.name + "\" is defined twice");
    }
}

/* Fails at the description's line when a key's value is not acceptable. */
template <class D, class P, size_t N>
void checkKeysOf(const Key<D, P> (&keys)[N], const D &d, const std::string &what)
{
    const std::string why = checkKeys(keys, d);
    if (!why.empty())
        fail(d.line, what + ": " + why);
}

/* "" when every component lies within kCoordinateLimit, else the vector
   as text for the message. */
std::string beyondLimit(const miVector &v)
{
    if (std::fabs(v.x) <= kCoordinateLimit && std::fabs(v.y) <= kCoordinateLimit && std::fabs(v.z) <= kCoordinateLimit)
        return "";
    char buf[96];
    std::snprintf(buf, sizeof buf, "%g %g %g", double(v.x), double(v.y), double(v.z));
    return buf;
}

const char *const kBeyondLimit = " lies beyond the coordinate limit 1e15 that the ray caster accepts; "
                                 "move the scene nearer the origin or scale it down";

void checkCoordinate(int line, const std::string &what, const miVector &v)
{
    const std::string text = beyondLimit(v);
    if (!text.empty())
        fail(line, what + " " + text + kBeyondLimit);
}

std::string decimal(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

} // namespace

const char *roleName(PassRole role)
{
    const RoleInfo *r = info(role);
    return r ? r->name : "?";
}

bool roleFromName(const std::string &name, PassRole &role)
{
    for (const RoleInfo &r : kRoles)
        if (name == r.name) {
            role = r.role;
            return true;
        }
    return false;
}

int passTypeOf(PassRole role)
{
    const RoleInfo *r = info(role);
    return r ? r->type : -1;
}

bool isAdditive(PassRole role)
{
    const RoleInfo *r = info(role);
    return r && r->additive;
}

namespace {

/* A message quoting a bad scene file may carry any byte: control characters,
   DEL and bytes above 0x7F are written as \xNN so that the terminal shows
   what the file holds instead of interpreting it. */
std::string printable(const std::string &text)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c < 0x7F) {
            out += ch;
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

} // namespace

namespace {

/* A name quoted from a scene file may be of any length: a run of more than
   160 bytes without a blank is shown as its first 120 bytes and its length,
   so that a message stays one readable line. */
std::string shortened(const std::string &text)
{
    const size_t kLongest = 160, kShown = 120;
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        end = end == std::string::npos ? text.size() : end + 1;
        if (end - start > kLongest)
            out += text.substr(start, kShown) + "...(" + std::to_string(end - start) + " bytes)" +
                   (text[end - 1] == ' ' ? " " : "");
        else
            out.append(text, start, end - start);
        start = end;
    }
    return out;
}

} // namespace

SceneError::SceneError(int line, const std::string &what) : std::runtime_error(printable(shortened(what))), line_(line)
{
}

Matrix InstanceDesc::matrix() const
{
    Matrix m = identity();
    for (const TransformStep &s : steps) {
        switch (s.kind) {
        case TransformStep::Translate:
            m = multiply(m, translation(s.v));
            break;
        case TransformStep::Rotate:
            m = multiply(m, rotation(static_cast<int>(s.v.x), s.v.y));
            break;
        case TransformStep::Scale:
            m = multiply(m, scaling(s.v));
            break;
        }
    }
    return m;
}

template <class T> static const T *findByName(const std::vector<T> &items, const std::string &name)
{
    for (const T &it : items)
        if (it.name == name)
            return &it;
    return nullptr;
}

const TextureDesc *SceneDesc::texture(const std::string &name) const { return findByName(textures, name); }
const MaterialDesc *SceneDesc::material(const std::string &name) const { return findByName(materials, name); }
const MeshDesc *SceneDesc::mesh(const std::string &name) const { return findByName(meshes, name); }
const PassDesc *SceneDesc::pass(const std::string &name) const { return findByName(passes, name); }

MaterialDesc::MaterialDesc() { applyDefaults(kMaterialKeys, *this); }
CameraDesc::CameraDesc() { applyDefaults(kCameraKeys, *this); }
OptionsDesc::OptionsDesc() { applyDefaults(kOptionsKeys, *this); }
EnvironmentDesc::EnvironmentDesc() { applyDefaults(kEnvironmentKeys, *this); }
TextureDesc::TextureDesc() { applyDefaults(kTextureKeys, *this); }
LightDesc::LightDesc() { applyDefaults(kLightKeys, *this); }

int choiceCount(const char *const *choices)
{
    int n = 0;
    while (choices && choices[n])
        ++n;
    return n;
}

std::string keyProblem(const char *name, const KeyRange &r, double v)
{
    const std::string key(name);
    if (!std::isfinite(v))
        return key + " must be a finite number";
    const bool below = r.loOpen ? !(v > r.lo) : !(v >= r.lo);
    const bool beyond = r.hiOpen ? !(v < r.hi) : !(v <= r.hi);
    if (!below && !beyond)
        return std::string();
    if (r.hi == kUnbounded)
        return key + (r.loOpen ? " must be > " : " must be >= ") + decimal(r.lo);
    if (!r.loOpen && !r.hiOpen)
        return key + " must lie within " + decimal(r.lo) + " .. " + decimal(r.hi);
    return key + " must lie in " + (r.loOpen ? "(" : "[") + decimal(r.lo) + ", " + decimal(r.hi) +
           (r.hiOpen ? ")" : "]");
}

std::string colourProblem(const char *name, const miColor &c)
{
    return finite(c) ? std::string() : std::string(name) + " is a colour that is not finite";
}

std::string vectorProblem(const char *name, const miVector &v)
{
    return finite(v) ? std::string() : std::string(name) + " is not finite";
}

namespace {

void validateFrame(const SceneDesc &s)
{
    if (s.width < 1 || s.height < 1 || s.width > 16384 || s.height > 16384)
        fail(s.resolutionLine, "resolution " + std::to_string(s.width) + " x " + std::to_string(s.height) +
                                   " is outside 1 .. 16384");
    if (s.samples < 1 || s.samples > 4096)
        fail(s.samplesLine, "samples " + std::to_string(s.samples) + " is outside 1 .. 4096");
    checkKeysOf(kCameraKeys, s.camera, "camera");
    checkCoordinate(s.camera.line, "camera position", s.camera.position);
    checkCoordinate(s.camera.line, "camera target", s.camera.target);
    const miVector fwd = sub(s.camera.target, s.camera.position);
    if (length(fwd) == 0.0f || length(cross(fwd, s.camera.up)) < 1e-6f * length(fwd) * length(s.camera.up))
        fail(s.camera.line, "camera position, target and up must be finite, distinct and not collinear");
    checkKeysOf(kOptionsKeys, s.options, "options");
    checkKeysOf(kEnvironmentKeys, s.environment, "environment");
}

void validateTextures(const SceneDesc &s)
{
    for (const TextureDesc &t : s.textures) {
        checkKeysOf(kTextureKeys, t, "texture \"" + t.name + "\"");
        if (t.ramp.empty() || t.ramp.size() > static_cast<size_t>(kMaxRampKeys))
            fail(t.line, "texture \"" + t.name + "\" needs 1 to " + std::to_string(kMaxRampKeys) + " ramp keys");
        for (const RampColorEntry &k : t.ramp)
            if (!std::isfinite(k.position) || !finite(k.color) || k.interpolation < 0 || k.interpolation > 3)
                fail(t.line, "texture \"" + t.name + "\": ramp keys need a finite position and colour and a known kind");
    }
}

void validateMaterials(const SceneDesc &s)
{
    std::set<std::string> shaderNames;
    /* instances connect only to earlier ones, so one pass finds each
       instance's depth: the longest chain of connections down from it */
    std::map<std::string, int> depth;
    for (const ShaderDesc &d : s.shaders) {
        if (!shaderNames.insert(d.name).second)
            fail(d.line, "shader instance \"" + d.name + "\" is defined twice");
        int deepest = 0;
        for (size_t k = 0; k + 1 < d.values.size(); ++k)
            if (d.values[k] == "=") {
                const auto below = depth.find(d.values[k + 1]);
                if (below != depth.end())
                    deepest = std::max(deepest, below->second);
            }
        if (deepest + 1 > kMaxShaderChain)
            fail(d.line, "shader instance \"" + d.name + "\" ends a chain of more than " +
                             std::to_string(kMaxShaderChain) +
                             " connected shaders, which would nest too deep on a render thread's stack; "
                             "shorten the chain");
        depth[d.name] = deepest + 1;
    }
    for (const MaterialDesc &m : s.materials) {
        const std::string what = "material \"" + m.name + "\"";
        if (!m.shader.empty() && !shaderNames.count(m.shader))
            fail(m.line, what + " uses the unknown shader instance \"" + m.shader + "\"");
        if (!m.texture.empty() && !s.texture(m.texture))
            fail(m.line, what + " uses the unknown texture \"" + m.texture + "\"");
        checkKeysOf(kMaterialKeys, m, what);
    }
}

/* Triangles given in the scene or read from an OBJ file. */
void validateTriangles(const MeshDesc &m)
{
    const std::string what = "mesh \"" + m.name + "\"";
    if (m.P.empty() || m.tris.empty())
        fail(m.line, what + " has no vertices or no triangles");
    if (!m.N.empty() && m.N.size() != m.P.size())
        fail(m.line, what + ": " + std::to_string(m.N.size()) + " normals for " + std::to_string(m.P.size()) +
                         " vertices");
    if (!m.uv.empty() && m.uv.size() != m.P.size())
        fail(m.line, what + ": " + std::to_string(m.uv.size()) + " texture coordinates for " +
                         std::to_string(m.P.size()) + " vertices");
    for (const auto &t : m.tris)
        for (int i : t)
            if (i < 0 || static_cast<size_t>(i) >= m.P.size())
                fail(m.line, what + ": vertex index " + std::to_string(i) + " out of range");
    for (const miVector &p : m.P)
        if (!finite(p))
            fail(m.line, what + " has a vertex that is not finite");
}

void validateMeshes(const SceneDesc &s)
{
    for (const MeshDesc &m : s.meshes) {
        const std::string what = "mesh \"" + m.name + "\"";
        switch (m.kind) {
        case MeshKind::Plane:
            if (!(m.a > 0 && m.b > 0) || m.n < 1 || m.m < 1 || m.n > 1024 || m.m > 1024)
                fail(m.line, what + ": a plane needs positive sizes and 1 .. 1024 divisions");
            break;
        case MeshKind::Sphere:
            if (!(m.a > 0) || m.n < 3 || m.m < 2 || m.n > 2048 || m.m > 2048)
                fail(m.line, what + ": a sphere needs a positive radius, >= 3 segments, >= 2 rings");
            break;
        case MeshKind::Box:
            if (!(m.a > 0 && m.b > 0 && m.c > 0))
                fail(m.line, what + ": a box needs positive sizes");
            break;
        case MeshKind::Torus:
            if (!(m.a > 0 && m.b > 0) || m.n < 3 || m.m < 3 || m.n > 2048 || m.m > 2048)
                fail(m.line, what + ": a torus needs positive radii, >= 3 segments and rings");
            break;
        case MeshKind::Triangles:
        case MeshKind::Obj:
            validateTriangles(m);
            break;
        }
    }
}

/* The linear part's determinant and inverse, in double precision as the
   renderer inverts it, must be non-zero and finite in single precision. */
bool invertible(const Matrix &m)
{
    for (float x : m)
        if (!std::isfinite(x))
            return false;
    const double a = m[0], b = m[1], c = m[2], d = m[4], e = m[5], f = m[6], g = m[8], h = m[9], i = m[10];
    const double det = a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
    if (!(std::fabs(det) >= 1e-300))
        return false;
    const double adj[9] = {e * i - f * h, b * i - c * h, b * f - c * e, d * i - f * g, a * i - c * g,
                           a * f - c * d, d * h - e * g, a * h - b * g, a * e - b * d};
    for (double x : adj)
        if (!(std::fabs(x / det) <= 3.4e38))
            return false;
    return true;
}

/* Corners of a box holding the mesh in its own space. */
std::vector<miVector> boundCorners(const MeshDesc &m)
{
    miVector lo{0, 0, 0}, hi{0, 0, 0};
    switch (m.kind) {
    case MeshKind::Plane: hi = v3(m.a, m.b, 0); break;
    case MeshKind::Sphere: hi = v3(m.a, m.a, m.a); break;
    case MeshKind::Box: hi = v3(m.a, m.b, m.c); break;
    case MeshKind::Torus: hi = v3(m.a + m.b, m.a + m.b, m.b); break;
    case MeshKind::Triangles:
    case MeshKind::Obj:
        for (const miVector &p : m.P) {
            lo = v3(std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z));
            hi = v3(std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z));
        }
        break;
    }
    if (m.kind != MeshKind::Triangles && m.kind != MeshKind::Obj)
        lo = v3(-hi.x, -hi.y, -hi.z);
    std::vector<miVector> out;
    for (int k = 0; k < 8; ++k)
        out.push_back(v3(k & 1 ? hi.x : lo.x, k & 2 ? hi.y : lo.y, k & 4 ? hi.z : lo.z));
    return out;
}

void validateInstances(const SceneDesc &s)
{
    for (const InstanceDesc &i : s.instances) {
        const std::string what = "instance \"" + i.name + "\"";
        if (!s.mesh(i.mesh))
            fail(i.line, what + " uses the unknown mesh \"" + i.mesh + "\"");
        if (!s.material(i.material))
            fail(i.line, what + " uses the unknown material \"" + i.material + "\"");
        for (const std::string &p : i.shadowPasses) {
            const PassDesc *pd = s.pass(p);
            if (!pd || pd->role == PassRole::Constant)
                fail(i.line, what + ": shadow pass \"" + p + "\" is not a material pass");
        }
        for (const TransformStep &st : i.steps)
            if (!finite(st.v) || (st.kind == TransformStep::Scale && (st.v.x == 0 || st.v.y == 0 || st.v.z == 0)))
                fail(i.line, what + " has a transform that is not finite or not invertible");
        const Matrix m = i.matrix();
        if (!invertible(m))
            fail(i.line, what + ": its transform steps multiply to a matrix that is singular in single precision "
                                "(scale factors whose product is 0 or overflows); use scale factors nearer 1");
        for (const miVector &corner : boundCorners(*s.mesh(i.mesh))) {
            const std::string text = beyondLimit(transformPoint(m, corner));
            if (!text.empty())
                fail(i.line, what + ": mesh \"" + i.mesh + "\" placed at " + text + kBeyondLimit);
        }
    }
}

void validateLightsAndPasses(const SceneDesc &s)
{
    for (const LightDesc &l : s.lights) {
        checkKeysOf(kLightKeys, l, "light \"" + l.name + "\"");
        checkCoordinate(l.line, "light \"" + l.name + "\" at", l.position);
        checkCoordinate(l.line, "light \"" + l.name + "\": half edge", l.u);
        checkCoordinate(l.line, "light \"" + l.name + "\": half edge", l.v);
        if (l.kind == LightKind::Rect && int64_t(l.samples) * l.shadowSamples > kMaxShadowRays)
            fail(l.line, "light \"" + l.name + "\": samples " + std::to_string(l.samples) + " x shadow_samples " +
                             std::to_string(l.shadowSamples) + " is more than the " + std::to_string(kMaxShadowRays) +
                             " shadow rays per shaded point allowed; lower one of them");
        if (l.kind == LightKind::Rect && length(cross(l.u, l.v)) == 0.0f)
            fail(l.line, "light \"" + l.name + "\": the half edges u and v do not span a rectangle");
    }
    for (const PassDesc &p : s.passes) {
        if (p.role == PassRole::LightGroup && p.group.empty())
            fail(p.line, "light-group pass \"" + p.name + "\" names no group");
        if (p.role == PassRole::Constant && !finite(p.constant))
            fail(p.line, "constant pass \"" + p.name + "\" has a colour that is not finite");
        for (char c : p.name)
            if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'))
                fail(p.line, "pass name \"" + p.name + "\": use letters, digits, '_' and '-' only");
        if (p.name == "main")
            fail(p.line, "pass name \"main\" is taken by the main image's preview");
        if (p.name == "contact")
            fail(p.line, "pass name \"contact\" is taken by the contact sheet");
    }
}

} // namespace

void validate(const SceneDesc &s)
{
    validateFrame(s);
    uniqueNames(s.textures, "texture");
    uniqueNames(s.materials, "material");
    uniqueNames(s.meshes, "mesh");
    uniqueNames(s.instances, "instance");
    uniqueNames(s.lights, "light");
    uniqueNames(s.passes, "pass");
    validateTextures(s);
    validateMaterials(s);
    validateMeshes(s);
    validateInstances(s);
    validateLightsAndPasses(s);
}

/* host/scenes/default.scene, embedded by the build (embed_scene.cmake) */
extern const char kDefaultSceneText[];

SceneDesc defaultScene() { return parseScene(kDefaultSceneText); }

} // namespace druxhost
