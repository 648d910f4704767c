/*
 * Tracing: secondary rays, shadow rays, final gathering, eye rays, the
 * geometric queries, and the Context's scene and environment.  Lights and
 * light sampling are in lights.cpp.
 *
 * Rays are traced against the Context's Scene.  A traced ray gets a child
 * state from child_state (shaderstate.cpp): the parent's 352 bytes with the
 * child's own list storage.  The child is filled with the hit (or marked as a
 * miss) and handed to the hit instance's material, or to the environment
 * shader when the ray leaves the scene.
 */
#include "runtime_internal.h"
#include "vecmath.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace mirt {

using rt::call_color;
using rt::instance_record;
using rt::light_record;

/* geometry.cpp */
bool geom_instance_bounds(miTag instance, miVector &lo, miVector &hi);
bool geom_instance_has_triangles(miTag instance);

namespace {

/* Rays start this far from their origin so that they do not hit the surface
   they leave; shadow rays stop this far before the light. */
constexpr double kRayEps = 1e-4;
/* Bound on the surfaces one shadow ray walks through (against scenes that
   report the same crossing again and again). */
constexpr int kMaxCrossings = 1 << 16;
/* Result buffer for shaders called by the tracer; larger results are refused. */
constexpr size_t kResultBytes = 256;

constexpr double kInf = std::numeric_limits<double>::infinity();
const miColor kBlack = {0, 0, 0, 0};

void error(const std::string &text) { log_message(Level::Error, text); }

miVector neg(const miVector &a) { return {-a.x, -a.y, -a.z}; }

const Scene *scene_of(const miState *state)
{
    Context::Impl *impl = impl_of(state);
    return impl ? impl->scene : nullptr;
}

miTag environment_of(const miState *state)
{
    if (state->environment)
        return state->environment;
    Context::Impl *impl = impl_of(state);
    return impl ? impl->environment : 0;
}

/* Flip the normals towards the ray origin when the surface faces away. */
void orient(miState *s)
{
    if (dot(s->normal_geom, s->dir) > 0.0f) {
        s->normal = neg(s->normal);
        s->normal_geom = neg(s->normal_geom);
        s->inv_normal = 1;
    } else {
        s->inv_normal = 0;
    }
    s->dot_nd = dot(s->normal, s->dir);
}

/* Fill a state with a ray hit (its org and dir already set). */
void fill_hit(miState *s, const Hit &h)
{
    s->point = h.point;
    s->normal = h.normal;
    s->normal_geom = h.normal_geom;
    std::memcpy(s->bary, h.bary, sizeof s->bary);
    s->instance = h.instance;
    s->light_instance = 0;
    s->dist = h.dist;
    s->pri = h.pri;
    s->pri_idx = h.pri_idx;
    const int ntex = std::min(std::max(h.num_tex, 0), 4);
    if (s->tex_list)
        for (int i = 0; i < 4; ++i)
            s->tex_list[i] = i < ntex ? h.tex[i] : miVector{0, 0, 0};
    const int nb = std::min(std::max(h.num_bumps, 0), 4);
    s->num_bumps = (s->bump_x_list && s->bump_y_list) ? nb : 0;
    for (int i = 0; i < s->num_bumps; ++i) {
        s->bump_x_list[i] = h.bump_x[i];
        s->bump_y_list[i] = h.bump_y[i];
    }
    if (s->derivs) {
        s->derivs[0] = h.has_derivs ? h.derivs[0] : miVector{0, 0, 0};
        s->derivs[1] = h.has_derivs ? h.derivs[1] : miVector{0, 0, 0};
    }
    orient(s);
}

/* Trace the state's own ray (org, dir set) and shade it: the hit instance's
   material, else the environment with the state typed as an environment
   ray.  `hit_allowed` false: a hit is left black (no material call). */
struct Shaded {
    bool hit;
    miBoolean ok;
};

Shaded shade_ray(miState *s, miColor *result, bool hit_allowed = true)
{
    const Scene *scene = scene_of(s);
    Hit h;
    if (scene && scene->intersect(s->org, s->dir, kRayEps, kInf, h)) {
        fill_hit(s, h);
        if (!hit_allowed) {
            *result = kBlack;
            return {true, miFALSE};
        }
        const miInstance *inst = instance_record(h.instance);
        return {true, call_color(inst ? inst->material : 0, result, s)};
    }
    s->instance = 0;
    s->light_instance = 0;
    s->dist = 0;
    s->type = miRAY_ENVIRONMENT;
    return {false, call_color(environment_of(s), result, s)};
}

/* A child of `parent` for a ray of `type` along `dir` from the parent's point. */
miState *ray_child(miState *parent, int type, const miVector &dir)
{
    miState *c = child_state(parent);
    c->type = type;
    c->org = parent->point;
    c->dir = normalized(dir);
    c->dist = 0;
    c->instance = 0;
    c->light_instance = 0;
    return c;
}

miBoolean trace_secondary(miColor *result, miState *state, const miVector *dir, int type, const char *who)
{
    if (!result || !state || !dir) {
        error(std::string(who) + ": null argument");
        return miFALSE;
    }
    const miOptions *o = state->options;
    const int depth = state->reflection_level + state->refraction_level;
    bool allowed = true;
    if (o) {
        if (type == miRAY_REFLECT && state->reflection_level >= o->reflection_depth)
            allowed = false;
        if (type == miRAY_REFRACT && state->refraction_level >= o->refraction_depth)
            allowed = false;
        if (depth >= o->trace_depth)
            allowed = false;
    }
    miState *c = ray_child(state, type, *dir);
    if (type == miRAY_REFLECT)
        c->reflection_level = state->reflection_level + 1;
    else {
        c->refraction_level = state->refraction_level + 1;
        c->ior_in = state->ior;
    }
    if (!allowed) {
        /* not traced: the child describes no hit */
        *result = kBlack;
        return miFALSE;
    }
    shade_ray(c, result);
    return miTRUE;
}


/* Restores the fields of a light state that the shadow walk replaces by an
   occluder's, on every path out. */
struct OccluderSwap {
    miState *s;
    int type;
    miTag instance;
    miVector point, normal, normal_geom;
    miScalar dot_nd, bary[4];
    int inv_normal, pri_idx;
    void *pri;
    double dist;
    explicit OccluderSwap(miState *st)
        : s(st), type(st->type), instance(st->instance), point(st->point), normal(st->normal),
          normal_geom(st->normal_geom), dot_nd(st->dot_nd), inv_normal(st->inv_normal), pri_idx(st->pri_idx),
          pri(st->pri), dist(st->dist)
    {
        std::memcpy(bary, st->bary, sizeof bary);
    }
    ~OccluderSwap()
    {
        s->type = type;
        s->instance = instance;
        s->point = point;
        s->normal = normal;
        s->normal_geom = normal_geom;
        s->dot_nd = dot_nd;
        std::memcpy(s->bary, bary, sizeof bary);
        s->inv_normal = inv_normal;
        s->pri_idx = pri_idx;
        s->pri = pri;
        s->dist = dist;
    }
};

} // namespace

namespace rt {

/* Call a colour-returning shader into `out` through a buffer large enough
   for the shader's declared result. */
miBoolean call_color(miTag fn, miColor *out, miState *state)
{
    *out = kBlack;
    if (!fn)
        return miFALSE;
    miFunction *f = function_record(fn);
    if (f && f->result_size > static_cast<int>(kResultBytes)) {
        log_message(Level::Error, "shader " + std::string(f->name ? f->name : "?") + " returns " +
                                      std::to_string(f->result_size) + " bytes, more than a traced ray can take");
        return miFALSE;
    }
    alignas(16) unsigned char buf[kResultBytes] = {};
    const miBoolean ok = call_function(fn, buf, state);
    std::memcpy(out, buf, sizeof(miColor));
    return ok;
}

} // namespace rt

/* ================================================================ queries */

bool trace_query(int code, miState *state, miTag tag, void *result)
{
    switch (code) {
    case miQ_INST_GLOBAL_TO_LOCAL: {
        /* the tag names the instance; without one, the state's instance */
        const miInstance *inst = instance_record(tag ? tag : (state ? state->instance : 0));
        if (!inst)
            return false;
        miScalar *m = const_cast<miScalar *>(inst->global_to_local);
        std::memcpy(result, &m, sizeof m);
        return true;
    }
    case miQ_INST_BBOX_MIN:
    case miQ_INST_BBOX_MAX: {
        if (!state)
            return false;
        miVector lo, hi;
        if (!geom_instance_bounds(state->instance, lo, hi))
            return false;
        *static_cast<miVector *>(result) = code == miQ_INST_BBOX_MIN ? lo : hi;
        return true;
    }
    case miQ_INST_GEOMETRY:
        if (!state || !geom_instance_has_triangles(state->instance))
            return false;
        *static_cast<int *>(result) = 1;
        return true;
    case miQ_NUM_BUMPS:
        if (!state)
            return false;
        *static_cast<int *>(result) = state->num_bumps;
        return true;
    case miQ_DERIVS: {
        if (!state)
            return false;
        /* A state filled by a hit knows from its primitive (the box) whether
           the surface carries derivatives.  A state without a primitive (made
           or edited by hand, or describing a sampled point) has them when its
           derivative vectors are set. */
        bool present = false;
        if (state->derivs) {
            if (state->pri)
                present = static_cast<const unsigned char *>(state->pri)[miBOX_DERIV_POS] != 0;
            else
                for (int i = 0; i < 2; ++i)
                    present = present || state->derivs[i].x != 0.0f || state->derivs[i].y != 0.0f ||
                              state->derivs[i].z != 0.0f;
        }
        *static_cast<int *>(result) = present ? 1 : 0;
        return true;
    }
    default:
        return false;
    }
}

/* ================================================================ Context */

void Context::set_scene(const Scene *scene) { impl_->scene = scene; }
const Scene *Context::scene() const { return impl_->scene; }
void Context::set_environment(miTag fn) { impl_->environment = fn; }

std::vector<miIrrad_options> Context::irradiance_calls() const
{
    std::lock_guard<std::mutex> lk(impl_->irradiance_mutex);
    return impl_->irradiance_calls;
}

void Context::clear_irradiance_calls()
{
    std::lock_guard<std::mutex> lk(impl_->irradiance_mutex);
    impl_->irradiance_calls.clear();
}

void Context::record_irradiance_calls(bool on) { impl_->record_irradiance = on; }

/* The eye ray is traced on the state itself.  Returns what the called shader
   returned; black and miFALSE when no shader could be called (a hit instance
   without material, or a miss without environment). */
miBoolean Context::shade_eye(miState *state, const miVector &org, const miVector &dir, miColor *result)
{
    if (!state || !result) {
        error("shade_eye: null argument");
        return miFALSE;
    }
    *result = kBlack;
    state->type = miRAY_EYE;
    state->org = org;
    state->dir = normalized(dir);
    state->dist = 0;
    state->instance = 0;
    state->light_instance = 0;
    const Shaded r = shade_ray(state, result);
    state->type = miRAY_EYE; /* a miss called the environment with the type switched */
    return r.ok;
}

} // namespace mirt

/* ==================================================================== C API */

using namespace mirt;

extern "C" {

miBoolean mi_trace_reflection(miColor *result, miState *state, miVector *dir)
{
    return trace_secondary(result, state, dir, miRAY_REFLECT, "mi_trace_reflection");
}

miBoolean mi_trace_refraction(miColor *result, miState *state, miVector *dir)
{
    return trace_secondary(result, state, dir, miRAY_REFRACT, "mi_trace_refraction");
}

/* The environment only: nothing is intersected.  Returns what the environment
   shader returned (miFALSE when there is none, with a black result). */
miBoolean mi_trace_environment(miColor *result, miState *state, miVector *dir)
{
    if (!result || !state || !dir) {
        error("mi_trace_environment: null argument");
        return miFALSE;
    }
    miState *c = ray_child(state, miRAY_ENVIRONMENT, *dir);
    return call_color(environment_of(c), result, c);
}

/* `state` is a light state: org the illuminated point, dir the unit
   direction to the light, dist the distance (0: unbounded).  Occluders are
   visited nearest first; each one's shadow shader runs on this same state
   with the occluder's instance, point and normals (type miRAY_SHADOW) and
   attenuates `filter`.  A light whose record says it casts no shadows is not
   traced. */
miBoolean mi_trace_shadow(miColor *filter, miState *state)
{
    if (!filter || !state) {
        error("mi_trace_shadow: null argument");
        return miFALSE;
    }
    if (const miLight *l = light_record(instance_record(state->light_instance)))
        if (!l->shadow)
            return miTRUE;
    const Scene *scene = scene_of(state);
    if (!scene)
        return miTRUE;
    const miVector org = state->org, dir = normalized(state->dir);
    const double tmax = state->dist > 0 ? state->dist - kRayEps : kInf;
    double t0 = kRayEps;
    for (int n = 0; n < kMaxCrossings && t0 < tmax; ++n) {
        Hit h;
        if (!scene->intersect(org, dir, t0, tmax, h))
            break;
        t0 = std::max(h.dist, t0) + kRayEps; /* always onwards */
        const miInstance *inst = instance_record(h.instance);
        const miTag shadow = inst ? inst->shadow : 0;
        if (!shadow) {
            *filter = kBlack; /* opaque */
            return miFALSE;
        }
        miBoolean ok;
        {
            OccluderSwap keep(state);
            state->type = miRAY_SHADOW;
            state->instance = h.instance;
            state->point = h.point;
            state->normal = h.normal;
            state->normal_geom = h.normal_geom;
            std::memcpy(state->bary, h.bary, sizeof state->bary);
            state->pri = h.pri;
            state->pri_idx = h.pri_idx;
            state->dist = h.dist;
            const miVector saved_dir = state->dir;
            state->dir = dir;
            orient(state);
            state->dir = saved_dir;
            ok = call_function(shadow, filter, state);
        }
        if (!ok || (filter->r <= 0.0f && filter->g <= 0.0f && filter->b <= 0.0f))
            return miFALSE;
    }
    return miTRUE;
}

/* Calls the shader with state->shader switched to it; `type` is the caller's
   statement of what kind of shader it is and is not checked.  Shader tag 0:
   nothing is called, the result is left alone and miFALSE returned. */
miBoolean mi_call_shader_x(miColor *result, int type, miState *state, miTag shader, void *arg)
{
    (void)type;
    if (!shader || !state)
        return miFALSE;
    return call_function(shader, result, state, arg);
}

/*
 * Final gathering for real: cosine-weighted rays around the state's normal
 * (face 'b': around its reverse; any other face code: the front), each
 * shaded by the hit instance's material on a final-gather child (one
 * reflection level deeper; black once the trace depth is reached) or by the
 * environment.  The average is returned.  Every call is recorded in the
 * Context with a copy of its options record.
 */
miBoolean mi_compute_avg_radiance(miColor *result, miState *state, miUchar face, miIrrad_options *options)
{
    if (!result || !state) {
        error("mi_compute_avg_radiance: null argument");
        return miFALSE;
    }
    *result = kBlack;
    Context::Impl *impl = impl_of(state);
    miIrrad_options rec{};
    if (options)
        std::memcpy(&rec, options, sizeof rec);
    if (impl && impl->record_irradiance) {
        std::lock_guard<std::mutex> lk(impl->irradiance_mutex);
        impl->irradiance_calls.push_back(rec);
    }
    int rays;
    if (options && options->size == static_cast<int>(sizeof(miIrrad_options))) {
        rays = options->finalgather_rays;
    } else {
        if (options && options->size != 0)
            mi_warning("mi_compute_avg_radiance: options record of size %d ignored", options->size);
        rays = state->options ? state->options->finalgather_rays : 0;
    }
    if (rays <= 0)
        return miTRUE;

    /* gather hemisphere; a state without a normal gathers against its ray */
    miVector n = normalized(state->normal);
    if (dot(n, n) == 0.0f)
        n = normalized(neg(state->dir));
    if (dot(n, n) == 0.0f)
        n = {0, 0, 1};
    if (face == 'b')
        n = neg(n);
    const miVector helper = std::fabs(n.x) < 0.9f ? miVector{1, 0, 0} : miVector{0, 1, 0};
    const miVector u = normalized(cross(helper, n)), v = cross(n, u);

    const miOptions *o = state->options;
    const bool deeper = !o || state->reflection_level + state->refraction_level < o->trace_depth;
    double sum[4] = {0, 0, 0, 0};
    for (int i = 0; i < rays; ++i) {
        double xi[2] = {0, 0};
        int idx = i;
        mi_sample(xi, &idx, state, 2, nullptr);
        const double phi = 2.0 * 3.14159265358979323846 * xi[0], r = std::sqrt(xi[1]), z = std::sqrt(1.0 - xi[1]);
        const float a = float(r * std::cos(phi)), b = float(r * std::sin(phi)), zc = float(z);
        const miVector d = {u.x * a + v.x * b + n.x * zc, u.y * a + v.y * b + n.y * zc, u.z * a + v.z * b + n.z * zc};
        miState *c = ray_child(state, miRAY_FINALGATHER, d);
        c->reflection_level = state->reflection_level + 1;
        miColor col;
        shade_ray(c, &col, deeper);
        sum[0] += col.r;
        sum[1] += col.g;
        sum[2] += col.b;
        sum[3] += col.a;
    }
    *result = {float(sum[0] / rays), float(sum[1] / rays), float(sum[2] / rays), float(sum[3] / rays)};
    return miTRUE;
}

} // extern "C"
