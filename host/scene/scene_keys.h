/*
 * The key tables of the scene format: for every `key value` of the commands
 * camera, options, environment, texture, material and light its name, type,
 * default, range and field.  One table drives the defaults of a fresh description,
 * parsing and writing (scene_format.cpp), validation (scene.cpp) and, for
 * materials, the shader's parameter block (material.cpp).  A new material key
 * is one row here plus its use in the shader.
 */
#ifndef DRUXHOST_SCENE_KEYS_H
#define DRUXHOST_SCENE_KEYS_H

#include "scene.h"
#include "shaders.h"

#include <cmath>
#include <limits>
#include <string>

namespace druxhost {

enum class KeyType { Number, Integer, Boolean, Colour, Vector, Word, Choice };

/* The values a key accepts: lo .. hi, an open end excluding its bound. */
struct KeyRange {
    double lo, hi;
    bool loOpen, hiOpen;
};
constexpr double kUnbounded = std::numeric_limits<double>::infinity();
constexpr KeyRange kAnyValue{-kUnbounded, kUnbounded, false, false};
constexpr KeyRange atLeast(double lo) { return KeyRange{lo, kUnbounded, false, false}; }
constexpr KeyRange above(double lo) { return KeyRange{lo, kUnbounded, true, false}; }
constexpr KeyRange within(double lo, double hi) { return KeyRange{lo, hi, false, false}; }

/* For descriptions whose keys fill no shader parameters. */
struct NoParams {};

/* One key of description D; P is the shader parameter block it fills. */
template <class D, class P = NoParams> struct Key {
    const char *name;
    KeyType type;
    float def[4];                /* the default: a number, colour or vector */
    KeyRange range;              /* Number, Integer: of the value; Colour, Vector: finite */
    const char *const *choices;  /* Choice: the words, ending with nullptr; Boolean: off and on words */
    /* the field of the description (the one of the key's type) */
    float D::*number;
    int D::*integer;             /* Integer, Choice (the word's position) */
    bool D::*boolean;
    miColor D::*colour;
    miVector D::*vector;
    std::string D::*word;
    /* the shader parameter it fills (none: all null) */
    float P::*pNumber;
    int P::*pInteger;            /* Integer, Boolean (0 or 1), Choice */
    miColor P::*pColour;
    unsigned kinds;              /* the kinds of description that have it (bit per kind); 0: every kind */
    bool always;                 /* written also when it holds its default */
};

/* The kind of a description whose keys depend on it (-1: no kinds). */
template <class D> int keyKind(const D &) { return -1; }
inline int keyKind(const LightDesc &l) { return static_cast<int>(l.kind); }

template <class D, class P> bool hasKey(const Key<D, P> &k, const D &d)
{
    const int kind = keyKind(d);
    return k.kinds == 0 || (kind >= 0 && (k.kinds >> kind & 1u));
}

/* Modifiers of a row: only for some kinds; written whatever it holds. */
template <class D, class P> constexpr Key<D, P> onlyFor(unsigned kinds, Key<D, P> k)
{
    k.kinds = kinds;
    return k;
}
template <class D, class P> constexpr Key<D, P> always(Key<D, P> k)
{
    k.always = true;
    return k;
}

template <class D, class P = NoParams>
constexpr Key<D, P> numberKey(const char *name, float D::*f, float def, KeyRange r = kAnyValue,
                              float P::*p = nullptr)
{
    return Key<D, P>{name, KeyType::Number, {def, 0, 0, 0}, r, nullptr, f, nullptr, nullptr, nullptr, nullptr,
                     nullptr, p, nullptr, nullptr, 0u, false};
}
template <class D, class P = NoParams>
constexpr Key<D, P> integerKey(const char *name, int D::*f, int def, KeyRange r = kAnyValue, int P::*p = nullptr)
{
    return Key<D, P>{name, KeyType::Integer, {float(def), 0, 0, 0}, r, nullptr, nullptr, f, nullptr, nullptr,
                     nullptr, nullptr, nullptr, p, nullptr, 0u, false};
}
template <class D, class P = NoParams>
constexpr Key<D, P> booleanKey(const char *name, bool D::*f, bool def, int P::*p = nullptr)
{
    return Key<D, P>{name, KeyType::Boolean, {def ? 1.0f : 0.0f, 0, 0, 0}, kAnyValue, nullptr, nullptr, nullptr,
                     f, nullptr, nullptr, nullptr, nullptr, p, nullptr, 0u, false};
}
/* A colour is written as r g b; its alpha keeps the default's (read: 1). */
template <class D, class P = NoParams>
constexpr Key<D, P> colourKey(const char *name, miColor D::*f, miColor def, miColor P::*p = nullptr)
{
    return Key<D, P>{name, KeyType::Colour, {def.r, def.g, def.b, def.a}, kAnyValue, nullptr, nullptr, nullptr,
                     nullptr, f, nullptr, nullptr, nullptr, nullptr, p, 0u, false};
}
template <class D, class P = NoParams> constexpr Key<D, P> vectorKey(const char *name, miVector D::*f, miVector def)
{
    return Key<D, P>{name, KeyType::Vector, {def.x, def.y, def.z, 0}, kAnyValue, nullptr, nullptr, nullptr,
                     nullptr, nullptr, f, nullptr, nullptr, nullptr, nullptr, 0u, false};
}
/* A name of another description; empty by default and then not written. */
template <class D, class P = NoParams> constexpr Key<D, P> wordKey(const char *name, std::string D::*f)
{
    return Key<D, P>{name, KeyType::Word, {0, 0, 0, 0}, kAnyValue, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr, f, nullptr, nullptr, nullptr, 0u, false};
}
/* A switch written as one of two words (off, on). */
template <class D, class P = NoParams>
constexpr Key<D, P> switchKey(const char *name, bool D::*f, bool def, const char *const *words)
{
    Key<D, P> k = booleanKey<D, P>(name, f, def);
    k.choices = words;
    return k;
}
template <class D, class P = NoParams>
constexpr Key<D, P> choiceKey(const char *name, int D::*f, const char *const *choices, int P::*p = nullptr)
{
    return Key<D, P>{name, KeyType::Choice, {0, 0, 0, 0}, kAnyValue, choices, nullptr, f, nullptr, nullptr,
                     nullptr, nullptr, nullptr, p, nullptr, 0u, false};
}

/* ------------------------------------------------------------ the tables */

inline constexpr const char *kSpecularModels[] = {"phong", "blinn", nullptr};

using MaterialKey = Key<MaterialDesc, MaterialParams>;
using CameraKey = Key<CameraDesc>;
using OptionsKey = Key<OptionsDesc>;
using EnvironmentKey = Key<EnvironmentDesc>;
using TextureKey = Key<TextureDesc>;
using LightKey = Key<LightDesc>;

inline constexpr const char *kTexturePatterns[] = {"fbm", "marble", "turbulence", nullptr};
inline constexpr const char *kFalloffWords[] = {"none", "quadratic", nullptr};
inline constexpr const char *kShadowModeWords[] = {"perpass", "shared", nullptr};
/* light kinds as key bits */
constexpr unsigned kPointLight = 1u << static_cast<int>(LightKind::Point);
constexpr unsigned kRectLight = 1u << static_cast<int>(LightKind::Rect);
constexpr unsigned kPlainLight = 1u << static_cast<int>(LightKind::Plain);

namespace keytables {
using MD = MaterialDesc;
using MP = MaterialParams;
using OD = OptionsDesc;
using ED = EnvironmentDesc;
using TD = TextureDesc;
using LD = LightDesc;

/* in the order written */
inline constexpr MaterialKey kMaterialKeys[] = {
    colourKey("diffuse", &MD::diffuse, {0.7f, 0.7f, 0.7f, 1}, &MP::diffuse),
    wordKey<MD, MP>("shader", &MD::shader),
    wordKey<MD, MP>("texture", &MD::texture),
    numberKey("kd", &MD::kd, 1.0f, kAnyValue, &MP::kd),
    colourKey("specular", &MD::specular, {0, 0, 0, 1}, &MP::specular),
    choiceKey("model", &MD::model, kSpecularModels, &MP::model),
    numberKey("exponent", &MD::exponent, 30.0f, kAnyValue, &MP::exponent),
    numberKey("eccentricity", &MD::eccentricity, 0.3f, kAnyValue, &MP::eccentricity),
    numberKey("rolloff", &MD::rolloff, 0.7f, kAnyValue, &MP::rolloff),
    numberKey("secondary", &MD::secondary, 1.0f, kAnyValue, &MP::secondary),
    numberKey("translucence", &MD::translucence, 0.0f, kAnyValue, &MP::translucence),
    numberKey("focus", &MD::focus, 0.0f, KeyRange{0, 1, false, true}, &MP::focus),
    numberKey("wrap", &MD::wrap, 0.0f, kAnyValue, &MP::wrap),
    numberKey("reflectivity", &MD::reflectivity, 0.0f, kAnyValue, &MP::reflectivity),
    colourKey("reflect_color", &MD::reflectColor, {1, 1, 1, 1}, &MP::reflectColor),
    numberKey("reflect_blur", &MD::reflectBlur, 0.0f, kAnyValue, &MP::reflectBlur),
    integerKey("reflect_rays", &MD::reflectRays, 1, within(1, 256), &MP::reflectRays),
    integerKey("reflection_limit", &MD::reflectionLimit, 8, kAnyValue, &MP::reflectionLimit),
    colourKey("transparency", &MD::transparency, {0, 0, 0, 0}, &MP::transparency),
    numberKey("ior", &MD::ior, 1.0f, above(0), &MP::ior),
    numberKey("refract_blur", &MD::refractBlur, 0.0f, kAnyValue, &MP::refractBlur),
    integerKey("refract_rays", &MD::refractRays, 1, within(1, 256), &MP::refractRays),
    integerKey("refraction_limit", &MD::refractionLimit, 8, kAnyValue, &MP::refractionLimit),
    numberKey("thickness", &MD::thickness, 0.0f, kAnyValue, &MP::thickness),
    numberKey("fade_distance", &MD::fadeDistance, 0.0f, kAnyValue, &MP::fadeDistance),
    numberKey("absorbance", &MD::absorbance, 0.0f, kAnyValue, &MP::absorbance),
    booleanKey("chromatic", &MD::chromatic, false, &MP::chromatic),
    booleanKey("indirect", &MD::indirect, true, &MP::indirect),
    colourKey("irradiance_tint", &MD::irradianceTint, {1, 1, 1, 1}, &MP::irradianceTint),
    numberKey("scatter_radius", &MD::scatterRadius, 0.0f, atLeast(0), &MP::scatterRadius),
    colourKey("scatter_scale", &MD::scatterScale, {1, 1, 1, 1}, &MP::scatterScale),
    integerKey("scatter_samples", &MD::scatterSamples, 8, within(1, 4096), &MP::scatterSamples),
    integerKey("scatter_falloff", &MD::scatterFalloff, 2, kAnyValue, &MP::scatterFalloff),
    numberKey("scatter_diffuse", &MD::scatterDiffuse, 1.0f, kAnyValue, &MP::scatterDiffuse),
    integerKey("scatter_cache", &MD::scatterCache, 0, atLeast(0), &MP::scatterCache),
    numberKey("bump", &MD::bump, 0.0f, kAnyValue, &MP::bump),
    numberKey("bump_scale", &MD::bumpScale, 4.0f, kAnyValue, &MP::bumpScale),
};

inline constexpr CameraKey kCameraKeys[] = {
    vectorKey<CameraDesc>("position", &CameraDesc::position, {0, -8, 3}),
    vectorKey<CameraDesc>("target", &CameraDesc::target, {0, 0, 1}),
    vectorKey<CameraDesc>("up", &CameraDesc::up, {0, 0, 1}),
    numberKey<CameraDesc>("fov", &CameraDesc::fov, 40.0f, KeyRange{0, 179, true, true}), /* horizontal, degrees */
};

inline constexpr OptionsKey kOptionsKeys[] = {
    booleanKey<OD>("trace", &OD::trace, true),
    integerKey<OD>("reflection_depth", &OD::reflectionDepth, 2, atLeast(0)),
    integerKey<OD>("refraction_depth", &OD::refractionDepth, 4, atLeast(0)),
    integerKey<OD>("trace_depth", &OD::traceDepth, 6, within(0, 64)),
    booleanKey<OD>("finalgather", &OD::finalgather, false),
    integerKey<OD>("fg_rays", &OD::fgRays, 8, within(0, 4096)),
    numberKey<OD>("min_contribution", &OD::minContribution, 0.01f),
    numberKey<OD>("full_contribution", &OD::fullContribution, 0.5f),
    integerKey<OD>("reflect_blur_limit", &OD::reflectBlurLimit, 1),
    integerKey<OD>("refract_blur_limit", &OD::refractBlurLimit, 1),
};

inline constexpr EnvironmentKey kEnvironmentKeys[] = {
    colourKey<ED>("zenith", &ED::zenith, {0.2f, 0.35f, 0.7f, 1}),
    colourKey<ED>("horizon", &ED::horizon, {0.8f, 0.85f, 0.9f, 1}),
    colourKey<ED>("ground", &ED::ground, {0.25f, 0.23f, 0.2f, 1}),
    numberKey<ED>("intensity", &ED::intensity, 1.0f),
};

/* the ramp keys (`ramp POSITION R G B A KIND`, repeated) are read apart */
inline constexpr TextureKey kTextureKeys[] = {
    always(choiceKey<TD>("pattern", &TD::pattern, kTexturePatterns)),
    always(numberKey<TD>("scale", &TD::scale, 1.0f)), /* features per unit of object space */
    always(integerKey<TD>("octaves", &TD::octaves, 3, within(1, 12))),
    vectorKey<TD>("offset", &TD::offset, {0, 0, 0}),
};

inline constexpr LightKey kLightKeys[] = {
    always(onlyFor(kPointLight | kPlainLight, vectorKey<LD>("position", &LD::position, {0, 0, 5}))),
    always(onlyFor(kRectLight, vectorKey<LD>("center", &LD::position, {0, 0, 5}))),
    /* rect: half edges; it emits along u x v */
    always(onlyFor(kRectLight, vectorKey<LD>("u", &LD::u, {1, 0, 0}))),
    always(onlyFor(kRectLight, vectorKey<LD>("v", &LD::v, {0, 1, 0}))),
    /* rect: light samples per shaded point, shadow rays per light sample */
    always(onlyFor(kRectLight, integerKey<LD>("samples", &LD::samples, 4, within(1, 1024)))),
    always(onlyFor(kRectLight, integerKey<LD>("shadow_samples", &LD::shadowSamples, 1, within(1, 1024)))),
    colourKey<LD>("color", &LD::color, {1, 1, 1, 1}),
    always(numberKey<LD>("intensity", &LD::intensity, 10.0f)),
    switchKey<LD>("falloff", &LD::quadratic, true, kFalloffWords), /* quadratic: 1/d^2 */
    booleanKey<LD>("shadow", &LD::shadow, true),                    /* casts shadows */
    /* shared: one shadow value for every pass */
    onlyFor(kPointLight | kRectLight, switchKey<LD>("shadow_mode", &LD::sharedShadow, false, kShadowModeWords)),
    onlyFor(kPointLight | kRectLight, colourKey<LD>("shadow_color", &LD::shadowColor, {0, 0, 0, 1})),
    wordKey<LD>("group", &LD::group),
};
} // namespace keytables

using keytables::kLightKeys;
using keytables::kTextureKeys;

using keytables::kCameraKeys;
using keytables::kEnvironmentKeys;
using keytables::kMaterialKeys;
using keytables::kOptionsKeys;

/* The number of words of a Choice key. */
int choiceCount(const char *const *choices);

/* ------------------------------------------------------------ what the tables drive */

/* Sets every key of `d` to its default. */
template <class D, class P, size_t N> void applyDefaults(const Key<D, P> (&keys)[N], D &d)
{
    for (const Key<D, P> &k : keys) {
        switch (k.type) {
        case KeyType::Number:
            d.*k.number = k.def[0];
            break;
        case KeyType::Integer:
        case KeyType::Choice:
            d.*k.integer = static_cast<int>(k.def[0]);
            break;
        case KeyType::Boolean:
            d.*k.boolean = k.def[0] != 0.0f;
            break;
        case KeyType::Colour:
            d.*k.colour = miColor{k.def[0], k.def[1], k.def[2], k.def[3]};
            break;
        case KeyType::Vector:
            d.*k.vector = miVector{k.def[0], k.def[1], k.def[2]};
            break;
        case KeyType::Word:
            (d.*k.word).clear();
            break;
        }
    }
}

/* Copies every key that fills a shader parameter into `p`. */
template <class D, class P, size_t N> void fillParams(const Key<D, P> (&keys)[N], const D &d, P &p)
{
    for (const Key<D, P> &k : keys) {
        if (k.pNumber)
            p.*k.pNumber = d.*k.number;
        if (k.pColour)
            p.*k.pColour = d.*k.colour;
        if (k.pInteger)
            p.*k.pInteger = k.type == KeyType::Boolean ? (d.*k.boolean ? 1 : 0) : d.*k.integer;
    }
}

/* "" when a key's value is finite and in range, else why not. */
std::string keyProblem(const char *name, const KeyRange &range, double value);
std::string colourProblem(const char *name, const miColor &c);
std::string vectorProblem(const char *name, const miVector &v);

/* The first key of `d` whose value is not acceptable, as "KEY must ..."; "" if none. */
template <class D, class P, size_t N> std::string checkKeys(const Key<D, P> (&keys)[N], const D &d)
{
    for (const Key<D, P> &k : keys) {
        if (!hasKey(k, d))
            continue;
        std::string why;
        if (k.type == KeyType::Number)
            why = keyProblem(k.name, k.range, d.*k.number);
        else if (k.type == KeyType::Integer)
            why = keyProblem(k.name, k.range, d.*k.integer);
        else if (k.type == KeyType::Choice)
            why = keyProblem(k.name, within(0, choiceCount(k.choices) - 1), d.*k.integer);
        else if (k.type == KeyType::Colour)
            why = colourProblem(k.name, d.*k.colour);
        else if (k.type == KeyType::Vector)
            why = vectorProblem(k.name, d.*k.vector);
        if (!why.empty())
            return why;
    }
    return std::string();
}

/* Words of the kind choices and the numbers of the primitive meshes, shared
   by the reader and the writer of the scene format. */
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


} // namespace druxhost

#endif
