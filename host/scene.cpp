#include "scene.h"

#include <cctype>
#include <cmath>
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
    {PassRole::Beauty, "beauty", 0, false},        {PassRole::Diffuse, "diffuse", 1, true},
    {PassRole::Specular, "specular", 4, true},     {PassRole::Reflection, "reflection", 26, true},
    {PassRole::Refraction, "refraction", 28, true}, {PassRole::Indirect, "indirect", 32, true},
    {PassRole::Scatter, "scatter", 33, true},      {PassRole::Background, "background", 31, true},
    {PassRole::Shadow, "shadow", 12, false},       {PassRole::LightGroup, "lightgroup", 20, false},
    {PassRole::Constant, "constant", -1, false},   {PassRole::Custom, "custom", 34, false},
    {PassRole::Depth, "depth", 11, false},         {PassRole::Normal, "normal", 11, false},
    {PassRole::Position, "position", 11, false},   {PassRole::Albedo, "albedo", 11, false},
    {PassRole::Coverage, "coverage", 16, false},
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

[[noreturn]] void fail(const std::string &what) { throw SceneError(0, what); }

template <class T> void uniqueNames(const std::vector<T> &items, const char *kind)
{
    std::set<std::string> seen;
    for (const T &it : items) {
        if (it.name.empty())
            fail(std::string(kind) + " without a name");
        if (!seen.insert(it.name).second)
            fail(std::string(kind) + " \"" + it.name + "\" is defined twice");
    }
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

SceneError::SceneError(int line, const std::string &what) : std::runtime_error(printable(what)), line_(line) {}

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

void validate(const SceneDesc &s)
{
    if (s.width < 1 || s.height < 1 || s.width > 16384 || s.height > 16384)
        fail("resolution " + std::to_string(s.width) + " x " + std::to_string(s.height) +
             " is outside 1 .. 16384");
    if (s.samples < 1 || s.samples > 4096)
        fail("samples " + std::to_string(s.samples) + " is outside 1 .. 4096");
    if (!(s.camera.fov > 0.0f && s.camera.fov < 179.0f))
        fail("camera fov must lie between 0 and 179 degrees");
    const miVector fwd = sub(s.camera.target, s.camera.position);
    if (!finite(s.camera.position) || !finite(s.camera.target) || !finite(s.camera.up) || length(fwd) == 0.0f ||
        length(cross(fwd, s.camera.up)) < 1e-6f * length(fwd) * length(s.camera.up))
        fail("camera position, target and up must be finite, distinct and not collinear");
    const OptionsDesc &o = s.options;
    if (o.reflectionDepth < 0 || o.refractionDepth < 0 || o.traceDepth < 0 || o.traceDepth > 64)
        fail("ray depths must be >= 0 (trace depth at most 64)");
    if (o.fgRays < 0 || o.fgRays > 4096)
        fail("fg_rays must lie within 0 .. 4096");

    uniqueNames(s.textures, "texture");
    uniqueNames(s.materials, "material");
    uniqueNames(s.meshes, "mesh");
    uniqueNames(s.instances, "instance");
    uniqueNames(s.lights, "light");
    uniqueNames(s.passes, "pass");

    for (const TextureDesc &t : s.textures) {
        if (t.ramp.empty() || t.ramp.size() > static_cast<size_t>(kMaxRampKeys))
            fail("texture \"" + t.name + "\" needs 1 to " + std::to_string(kMaxRampKeys) + " ramp keys");
        if (t.octaves < 1 || t.octaves > 12)
            fail("texture \"" + t.name + "\": octaves must lie within 1 .. 12");
        if (!std::isfinite(t.scale) || !finite(t.offset))
            fail("texture \"" + t.name + "\": scale and offset must be finite");
        for (const RampColorEntry &k : t.ramp)
            if (!std::isfinite(k.position) || !finite(k.color) || k.interpolation < 0 || k.interpolation > 3)
                fail("texture \"" + t.name + "\": ramp keys need a finite position and colour and a known kind");
    }
    std::set<std::string> shaderNames;
    for (const ShaderDesc &d : s.shaders)
        if (!shaderNames.insert(d.name).second)
            throw SceneError(d.line, "shader instance \"" + d.name + "\" is defined twice");
    for (const MaterialDesc &m : s.materials) {
        if (!m.shader.empty() && !shaderNames.count(m.shader))
            fail("material \"" + m.name + "\" uses the unknown shader instance \"" + m.shader + "\"");
        if (!m.texture.empty() && !s.texture(m.texture))
            fail("material \"" + m.name + "\" uses the unknown texture \"" + m.texture + "\"");
        if (m.reflectRays < 1 || m.refractRays < 1 || m.reflectRays > 256 || m.refractRays > 256)
            fail("material \"" + m.name + "\": reflect_rays and refract_rays must lie within 1 .. 256");
        if (m.scatterRadius < 0.0f || m.scatterSamples < 1 || m.scatterCache < 0)
            fail("material \"" + m.name + "\": scatter radius >= 0, samples >= 1 and cache >= 0 expected");
        if (!(m.ior > 0.0f))
            fail("material \"" + m.name + "\": ior must be positive");
        const float values[] = {m.kd, m.exponent, m.eccentricity, m.rolloff, m.secondary, m.translucence,
                                m.focus, m.wrap, m.reflectivity, m.reflectBlur, m.ior, m.refractBlur,
                                m.thickness, m.fadeDistance, m.absorbance, m.scatterRadius, m.scatterDiffuse,
                                m.bump, m.bumpScale};
        for (float v : values)
            if (!std::isfinite(v))
                fail("material \"" + m.name + "\" has a value that is not a finite number");
        if (!finite(m.diffuse) || !finite(m.specular) || !finite(m.reflectColor) || !finite(m.transparency) ||
            !finite(m.irradianceTint) || !finite(m.scatterScale))
            fail("material \"" + m.name + "\" has a colour that is not finite");
        if (m.focus < 0.0f || m.focus >= 1.0f)
            fail("material \"" + m.name + "\": focus must lie in [0, 1)");
    }
    for (const MeshDesc &m : s.meshes) {
        switch (m.kind) {
        case MeshKind::Plane:
            if (!(m.a > 0 && m.b > 0) || m.n < 1 || m.m < 1 || m.n > 1024 || m.m > 1024)
                fail("mesh \"" + m.name + "\": a plane needs positive sizes and 1 .. 1024 divisions");
            break;
        case MeshKind::Sphere:
            if (!(m.a > 0) || m.n < 3 || m.m < 2 || m.n > 2048 || m.m > 2048)
                fail("mesh \"" + m.name + "\": a sphere needs a positive radius, >= 3 segments, >= 2 rings");
            break;
        case MeshKind::Box:
            if (!(m.a > 0 && m.b > 0 && m.c > 0))
                fail("mesh \"" + m.name + "\": a box needs positive sizes");
            break;
        case MeshKind::Torus:
            if (!(m.a > 0 && m.b > 0) || m.n < 3 || m.m < 3 || m.n > 2048 || m.m > 2048)
                fail("mesh \"" + m.name + "\": a torus needs positive radii, >= 3 segments and rings");
            break;
        case MeshKind::Triangles:
        case MeshKind::Obj:
            if (m.P.empty() || m.tris.empty())
                fail("mesh \"" + m.name + "\" has no vertices or no triangles");
            if (!m.N.empty() && m.N.size() != m.P.size())
                fail("mesh \"" + m.name + "\": " + std::to_string(m.N.size()) + " normals for " +
                     std::to_string(m.P.size()) + " vertices");
            if (!m.uv.empty() && m.uv.size() != m.P.size())
                fail("mesh \"" + m.name + "\": " + std::to_string(m.uv.size()) + " texture coordinates for " +
                     std::to_string(m.P.size()) + " vertices");
            for (const auto &t : m.tris)
                for (int i : t)
                    if (i < 0 || static_cast<size_t>(i) >= m.P.size())
                        fail("mesh \"" + m.name + "\": vertex index " + std::to_string(i) + " out of range");
            for (const miVector &p : m.P)
                if (!finite(p))
                    fail("mesh \"" + m.name + "\" has a vertex that is not finite");
            break;
        }
    }
    for (const InstanceDesc &i : s.instances) {
        if (!s.mesh(i.mesh))
            fail("instance \"" + i.name + "\" uses the unknown mesh \"" + i.mesh + "\"");
        if (!s.material(i.material))
            fail("instance \"" + i.name + "\" uses the unknown material \"" + i.material + "\"");
        for (const std::string &p : i.shadowPasses) {
            const PassDesc *pd = s.pass(p);
            if (!pd || pd->role == PassRole::Constant)
                fail("instance \"" + i.name + "\": shadow pass \"" + p + "\" is not a material pass");
        }
        for (const TransformStep &st : i.steps)
            if (!finite(st.v) || (st.kind == TransformStep::Scale && (st.v.x == 0 || st.v.y == 0 || st.v.z == 0)))
                fail("instance \"" + i.name + "\" has a transform that is not finite or not invertible");
    }
    for (const LightDesc &l : s.lights) {
        if (!finite(l.position) || !finite(l.color) || !std::isfinite(l.intensity) || !finite(l.shadowColor))
            fail("light \"" + l.name + "\" has a value that is not finite");
        if (l.kind == LightKind::Rect) {
            if (!finite(l.u) || !finite(l.v) || length(cross(l.u, l.v)) == 0.0f)
                fail("light \"" + l.name + "\": the half edges u and v do not span a rectangle");
            if (l.samples < 1 || l.samples > 1024 || l.shadowSamples < 1 || l.shadowSamples > 1024)
                fail("light \"" + l.name + "\": samples and shadow_samples must lie within 1 .. 1024");
        }
    }
    for (const PassDesc &p : s.passes) {
        if (p.role == PassRole::LightGroup && p.group.empty())
            fail("light-group pass \"" + p.name + "\" names no group");
        if (p.role == PassRole::Constant && !finite(p.constant))
            fail("constant pass \"" + p.name + "\" has a colour that is not finite");
        for (char c : p.name)
            if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'))
                fail("pass name \"" + p.name + "\": use letters, digits, '_' and '-' only");
        if (p.name == "main")
            fail("pass name \"main\" is taken by the main image's preview");
        if (p.name == "contact")
            fail("pass name \"contact\" is taken by the contact sheet");
    }
}

SceneDesc defaultScene()
{
    SceneDesc s;
    s.links.push_back(LinkDesc{"libdruxhostshaders.so", 0});
    s.width = 640;
    s.height = 480;
    s.samples = 4;
    s.camera.position = {0.0f, -9.0f, 3.2f};
    s.camera.target = {0.0f, 0.2f, 0.8f};
    s.camera.up = {0, 0, 1};
    s.camera.fov = 45.0f;
    s.options.finalgather = true;
    s.options.fgRays = 6;
    s.options.minContribution = 0.02f;
    s.environment.zenith = {0.07f, 0.12f, 0.3f, 1};
    s.environment.horizon = {0.36f, 0.39f, 0.44f, 1};
    s.environment.ground = {0.12f, 0.11f, 0.1f, 1};
    s.options.fullContribution = 0.5f;

    TextureDesc marble;
    marble.name = "marble";
    marble.pattern = TexturePattern::Marble;
    marble.scale = 1.5f;
    marble.octaves = 4;
    marble.ramp = {{0.0f, {0.92f, 0.9f, 0.85f, 1}, RAMP_SMOOTH},
                   {0.55f, {0.55f, 0.5f, 0.48f, 1}, RAMP_SMOOTH},
                   {1.0f, {0.18f, 0.2f, 0.26f, 1}, RAMP_LINEAR}};
    s.textures.push_back(marble);
    TextureDesc stone;
    stone.name = "stone";
    stone.pattern = TexturePattern::Fbm;
    stone.scale = 0.6f;
    stone.octaves = 4;
    stone.ramp = {{0.2f, {0.22f, 0.21f, 0.2f, 1}, RAMP_SPLINE},
                  {0.5f, {0.45f, 0.43f, 0.4f, 1}, RAMP_SPLINE},
                  {0.8f, {0.6f, 0.58f, 0.54f, 1}, RAMP_SPLINE}};
    s.textures.push_back(stone);

    MaterialDesc floor;
    floor.name = "floor";
    floor.texture = "stone";
    floor.kd = 0.9f;
    floor.specular = {0.15f, 0.15f, 0.15f, 1};
    floor.exponent = 40.0f;
    floor.reflectivity = 0.12f;
    floor.bump = 0.04f;
    floor.bumpScale = 2.0f;
    s.materials.push_back(floor);

    MaterialDesc chrome;
    chrome.name = "chrome";
    chrome.diffuse = {0.1f, 0.1f, 0.1f, 1};
    chrome.kd = 0.3f;
    chrome.specular = {0.9f, 0.9f, 0.9f, 1};
    chrome.exponent = 120.0f;
    chrome.reflectivity = 0.8f;
    chrome.reflectColor = {0.95f, 0.9f, 0.85f, 1};
    chrome.indirect = false;
    s.materials.push_back(chrome);

    MaterialDesc glass;
    glass.name = "glass";
    glass.diffuse = {0.05f, 0.05f, 0.05f, 1};
    glass.kd = 0.2f;
    glass.specular = {1, 1, 1, 1};
    glass.exponent = 200.0f;
    glass.reflectivity = 0.08f;
    glass.transparency = {0.9f, 0.95f, 0.93f, 1};
    glass.ior = 1.5f;
    glass.indirect = false;
    s.materials.push_back(glass);

    MaterialDesc wax;
    wax.name = "wax";
    wax.diffuse = {0.95f, 0.72f, 0.5f, 1};
    wax.kd = 0.35f;
    wax.specular = {0.25f, 0.25f, 0.25f, 1};
    wax.model = SpecularModel::Blinn;
    wax.eccentricity = 0.35f;
    wax.rolloff = 0.6f;
    wax.translucence = 0.2f;
    wax.focus = 0.3f;
    wax.scatterRadius = 0.35f;
    wax.scatterScale = {0.55f, 0.42f, 0.3f, 1};
    wax.scatterSamples = 64;
    wax.scatterFalloff = 2;
    s.materials.push_back(wax);

    MaterialDesc stoneRing;
    stoneRing.name = "marbled";
    stoneRing.texture = "marble";
    stoneRing.kd = 0.85f;
    stoneRing.specular = {0.4f, 0.4f, 0.4f, 1};
    stoneRing.model = SpecularModel::Blinn;
    stoneRing.eccentricity = 0.2f;
    stoneRing.rolloff = 0.5f;
    stoneRing.reflectivity = 0.1f;
    s.materials.push_back(stoneRing);

    MeshDesc ground;
    ground.name = "ground";
    ground.kind = MeshKind::Plane;
    ground.a = ground.b = 30.0f;
    ground.n = ground.m = 4;
    s.meshes.push_back(ground);
    MeshDesc ball;
    ball.name = "ball";
    ball.kind = MeshKind::Sphere;
    ball.a = 1.0f;
    ball.n = 48;
    ball.m = 24;
    s.meshes.push_back(ball);
    MeshDesc cube;
    cube.name = "cube";
    cube.kind = MeshKind::Box;
    cube.a = cube.b = cube.c = 1.3f;
    s.meshes.push_back(cube);
    MeshDesc ring;
    ring.name = "ring";
    ring.kind = MeshKind::Torus;
    ring.a = 0.9f;
    ring.b = 0.32f;
    ring.n = 48;
    ring.m = 24;
    s.meshes.push_back(ring);

    auto instance = [&](const char *name, const char *mesh, const char *material,
                        std::vector<TransformStep> steps) {
        InstanceDesc i;
        i.name = name;
        i.mesh = mesh;
        i.material = material;
        i.steps = std::move(steps);
        s.instances.push_back(i);
    };
    using TS = TransformStep;
    instance("floor", "ground", "floor", {});
    instance("mirrorball", "ball", "chrome", {{TS::Translate, {-2.4f, 0.8f, 1.0f}}});
    instance("glassblock", "cube", "glass", {{TS::Rotate, {2, 30, 0}}, {TS::Translate, {-0.2f, -1.6f, 0.67f}}});
    instance("waxball", "ball", "wax", {{TS::Scale, {0.8f, 0.8f, 0.8f}}, {TS::Translate, {2.3f, -0.2f, 0.8f}}});
    instance("ring", "ring", "marbled", {{TS::Rotate, {0, 70, 0}}, {TS::Translate, {0.4f, 2.2f, 1.22f}}});

    LightDesc key;
    key.name = "key";
    key.kind = LightKind::Rect;
    key.position = {-3.0f, -4.0f, 6.0f};
    key.u = {0.8f, -0.6f, 0.0f};
    key.v = {-0.32f, -0.43f, -0.45f};
    key.color = {1.0f, 0.95f, 0.88f, 1};
    key.intensity = 55.0f;
    key.samples = 4;
    key.shadowSamples = 1;
    key.group = "key";
    s.lights.push_back(key);
    LightDesc fill;
    fill.name = "fill";
    fill.kind = LightKind::Point;
    fill.position = {5.0f, -3.0f, 4.0f};
    fill.color = {0.6f, 0.7f, 1.0f, 1};
    fill.intensity = 9.0f;
    fill.group = "fill";
    s.lights.push_back(fill);
    LightDesc rim;
    rim.name = "rim";
    rim.kind = LightKind::Plain;
    rim.position = {0.5f, 6.0f, 5.0f};
    rim.color = {1.0f, 0.8f, 0.55f, 1};
    rim.intensity = 14.0f;
    rim.group = "rim";
    s.lights.push_back(rim);

    auto pass = [&](const char *name, PassRole role, const char *group = "") {
        PassDesc p;
        p.name = name;
        p.role = role;
        p.group = group;
        s.passes.push_back(p);
    };
    pass("beauty", PassRole::Beauty);
    pass("diffuse", PassRole::Diffuse);
    pass("specular", PassRole::Specular);
    pass("reflection", PassRole::Reflection);
    pass("refraction", PassRole::Refraction);
    pass("indirect", PassRole::Indirect);
    pass("scatter", PassRole::Scatter);
    pass("background", PassRole::Background);
    pass("shadow", PassRole::Shadow);
    pass("key", PassRole::LightGroup, "key");
    pass("fill", PassRole::LightGroup, "fill");
    pass("rim", PassRole::LightGroup, "rim");
    pass("depth", PassRole::Depth);
    pass("normal", PassRole::Normal);
    pass("position", PassRole::Position);
    pass("albedo", PassRole::Albedo);
    pass("coverage", PassRole::Coverage);
    return s;
}

} // namespace druxhost
