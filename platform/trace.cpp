/*
 * Tracing: secondary rays, shadow rays, light sampling, final gathering, eye
 * rays, the geometric queries, and the Context's scene, environment and
 * lights.
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

const miInstance *instance_rec(miTag tag)
{
    return static_cast<const miInstance *>(typed_record(tag, miSCENE_INSTANCE, sizeof(miInstance)));
}

/* The light record of a light instance, or null. */
const miLight *light_rec(const miInstance *inst)
{
    return inst ? static_cast<const miLight *>(typed_record(inst->item, miSCENE_LIGHT, sizeof(miLight))) : nullptr;
}

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

/* Call a colour-returning shader into `out` through a buffer large enough
   for the shader's declared result. */
miBoolean call_color(miTag fn, miColor *out, miState *state)
{
    *out = kBlack;
    if (!fn)
        return miFALSE;
    miFunction *f = function_record(fn);
    if (f && f->result_size > static_cast<int>(kResultBytes)) {
        error("shader " + std::string(f->name ? f->name : "?") + " returns " + std::to_string(f->result_size) +
              " bytes, more than a traced ray can take");
        return miFALSE;
    }
    alignas(16) unsigned char buf[kResultBytes] = {};
    const miBoolean ok = call_function(fn, buf, state);
    std::memcpy(out, buf, sizeof(miColor));
    return ok;
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
        const miInstance *inst = instance_rec(h.instance);
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

/* ---- light sampling loops: one position per (calling state, light) */

struct LightLoop {
    const miState *state;
    miTag light;
    int next;      /* next sample index */
    int count;     /* samples of this loop */
    miVector org;  /* the point the loop samples for */
};

/* A state belongs to one thread, so its loops live in thread-local storage. */
thread_local std::vector<LightLoop> light_loops;
constexpr size_t kMaxLoops = 256;

bool same(const miVector &a, const miVector &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

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

/* ================================================================ queries */

bool trace_query(int code, miState *state, miTag tag, void *result)
{
    switch (code) {
    case miQ_INST_GLOBAL_TO_LOCAL: {
        /* the tag names the instance; without one, the state's instance */
        const miInstance *inst = instance_rec(tag ? tag : (state ? state->instance : 0));
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
const std::vector<miTag> &Context::lights() const { return impl_->lights; }

namespace {

miTag make_light(Context::Impl &m, const miLight &light, const miMatrix l2g, miTag param)
{
    miTag ltag = db_create(miSCENE_LIGHT, sizeof(miLight));
    *static_cast<miLight *>(db_data(ltag)) = light;
    miTag itag = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    miInstance *inst = static_cast<miInstance *>(db_data(itag));
    inst->item = ltag;
    inst->param = param;
    std::memcpy(inst->local_to_global, l2g, sizeof(miMatrix));
    if (!invert_matrix(l2g, inst->global_to_local)) {
        error("light transform is singular; its inverse is left as identity");
        for (int i = 0; i < 16; ++i)
            inst->global_to_local[i] = (i % 5 == 0) ? 1.0f : 0.0f;
    }
    m.owned_items.push_back(ltag);
    m.owned_items.push_back(itag);
    m.lights.push_back(itag);
    return itag;
}

} // namespace

miTag Context::add_point_light(const miVector &position, miTag shader, miTag param)
{
    miLight l{};
    l.shader = shader;
    l.area = 0;
    l.samples = 1;
    l.shadow = miTRUE;
    const miMatrix l2g = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, position.x, position.y, position.z, 1};
    return make_light(*impl_, l, l2g, param);
}

/* The light's local space has the rectangle as the square -1 < x, y < 1 at
   z = 0: its x and y axes are the half edges, z their unit normal, the
   origin the centre.  Fewer than one sample counts as one. */
miTag Context::add_rect_light(const miVector &center, const miVector &half_u, const miVector &half_v, int samples,
                              miTag shader, miTag param)
{
    miLight l{};
    l.shader = shader;
    l.area = 1;
    l.edge_u = {1, 0, 0};
    l.edge_v = {0, 1, 0};
    l.samples = samples > 0 ? samples : 1;
    l.shadow = miTRUE;
    miVector n = normalized(cross(half_u, half_v));
    if (dot(n, n) == 0.0f)
        error("add_rect_light: the half edges do not span a rectangle");
    const miMatrix l2g = {half_u.x, half_u.y, half_u.z, 0, half_v.x, half_v.y, half_v.z, 0,
                          n.x,      n.y,      n.z,      0, center.x, center.y, center.z, 1};
    return make_light(*impl_, l, l2g, param);
}

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
    if (const miLight *l = light_rec(instance_rec(state->light_instance)))
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
        const miInstance *inst = instance_rec(h.instance);
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
 * The usual loop:  while (mi_sample_light(&c, &d, &dot_nl, state, light, &n)) {...}
 * Each call takes the next sample of `light_inst` for `state`; a sample whose
 * light shader returns miFALSE is skipped.  After the last sample *samples is
 * the number of samples taken and the loop ends with miFALSE.  The loop
 * position is kept per (state, light) on the calling thread; a loop left
 * early starts over when it is next entered for another point.
 */
miBoolean mi_sample_light(miColor *color, miVector *dir, miScalar *dot_nl, miState *state, miTag light_inst,
                          miInteger *samples)
{
    if (!state) {
        error("mi_sample_light: null state");
        return miFALSE;
    }
    const miInstance *inst = instance_rec(light_inst);
    const miLight *light = light_rec(inst);
    if (!light) {
        error("mi_sample_light: " + std::to_string(light_inst) + " is not a light instance");
        if (samples)
            *samples = 0;
        return miFALSE;
    }
    auto &loops = light_loops;
    auto it = std::find_if(loops.begin(), loops.end(),
                           [&](const LightLoop &l) { return l.state == state && l.light == light_inst; });
    if (it != loops.end() && !same(it->org, state->point))
        it->next = 0, it->count = 0; /* abandoned loop: start over */
    if (it == loops.end()) {
        if (loops.size() >= kMaxLoops)
            loops.erase(loops.begin());
        loops.push_back(LightLoop{state, light_inst, 0, 0, state->point});
        it = loops.end() - 1;
    }
    if (it->count == 0) {
        it->count = light->area == 1 ? std::max(light->samples, 1) : 1;
        it->org = state->point;
        if (!light->shader)
            error("mi_sample_light: light instance " + std::to_string(light_inst) + " has no light shader");
    }
    while (it->next < it->count) {
        const int k = it->next++;
        miVector local = light->origin;
        if (light->area == 1) {
            double uv[2] = {0.5, 0.5};
            int idx = k;
            mi_sample(uv, &idx, state, 2, nullptr);
            const float su = float(2.0 * uv[0] - 1.0), sv = float(2.0 * uv[1] - 1.0);
            local = {local.x + su * light->edge_u.x + sv * light->edge_v.x,
                     local.y + su * light->edge_u.y + sv * light->edge_v.y,
                     local.z + su * light->edge_u.z + sv * light->edge_v.z};
        }
        miVector pos;
        mi_point_transform(&pos, &local, inst->local_to_global);

        miState *c = child_state(state);
        c->type = miRAY_LIGHT;
        c->light_instance = light_inst;
        c->org = state->point;
        c->point = pos;
        const miVector d = {pos.x - c->org.x, pos.y - c->org.y, pos.z - c->org.z};
        c->dist = std::sqrt(double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z);
        c->dir = normalized(d);
        c->normal = state->normal;
        c->dot_nd = dot(c->dir, state->normal);
        miColor col;
        /* the shader may run nested loops (other states): `it` may move */
        const miState *key_state = state;
        if (call_color(light->shader, &col, c)) {
            if (color)
                *color = col;
            if (dir)
                *dir = c->dir;
            if (dot_nl)
                *dot_nl = dot(c->dir, state->normal);
            if (samples)
                *samples = k + 1;
            return miTRUE;
        }
        it = std::find_if(loops.begin(), loops.end(),
                          [&](const LightLoop &l) { return l.state == key_state && l.light == light_inst; });
        if (it == loops.end())
            break; /* the loop was ended from inside the shader */
    }
    int taken = 0;
    if (it != loops.end()) {
        taken = it->count;
        loops.erase(it);
    }
    if (samples)
        *samples = taken;
    if (color)
        *color = kBlack;
    return miFALSE;
}

/* The state's instance's own light list (a data item: int count, then the
   light instance tags) when it has one, else every light of the render. */
void mi_instance_lightlist(int *n, miTag **lights, miState *state)
{
    if (!n || !lights)
        return;
    *n = 0;
    *lights = nullptr;
    const miInstance *inst = instance_rec(state ? state->instance : 0);
    if (inst && inst->light_list) {
        const size_t size = db_size(inst->light_list);
        unsigned char *data = static_cast<unsigned char *>(db_data(inst->light_list));
        if (mi_db_type(inst->light_list) != miSCENE_DATA || size < sizeof(int)) {
            error("mi_instance_lightlist: light list " + std::to_string(inst->light_list) + " is not a data item");
            return;
        }
        int count;
        std::memcpy(&count, data, sizeof count);
        const size_t room = (size - sizeof(int)) / sizeof(miTag);
        if (count < 0 || static_cast<size_t>(count) > room) {
            error("mi_instance_lightlist: light list " + std::to_string(inst->light_list) + " claims " +
                  std::to_string(count) + " lights but holds " + std::to_string(room));
            count = count < 0 ? 0 : static_cast<int>(room);
        }
        *n = count;
        *lights = count ? reinterpret_cast<miTag *>(data + sizeof(int)) : nullptr;
        return;
    }
    Context::Impl *impl = impl_of(state);
    if (impl && !impl->lights.empty()) {
        *n = static_cast<int>(impl->lights.size());
        *lights = impl->lights.data();
    }
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
