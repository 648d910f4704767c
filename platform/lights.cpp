/*
 * Lights: the Context's light instances, the light sampling loop
 * (mi_sample_light) and the light list of an instance.
 */
#include "runtime_internal.h"
#include "vecmath.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace mirt {

using rt::call_color;
using rt::instance_record;
using rt::light_record;

namespace {

void error(const std::string &text) { log_message(Level::Error, text); }

const miColor kBlack = {0, 0, 0, 0};

/* ---- light sampling loops: one position per (calling state, light) */

struct LightLoop {
    const miState *state;
    miTag light;
    int next;      /* next sample index */
    int count;     /* samples of this loop */
    miVector org;  /* the point the loop samples for */
};

/* A state belongs to one thread, so its loops live in thread-local storage
   (initial-exec: this library is loaded with the program, and the loops are
   reached on every light sample). */
thread_local std::vector<LightLoop> light_loops __attribute__((tls_model("initial-exec")));
constexpr size_t kMaxLoops = 256;

/* The loop of (state, light), searched from the newest: the loop in progress
   is almost always the last one begun, while loops a caller left unfinished
   stay behind it until they are pushed out.  -1 when there is none. */
long find_loop(const std::vector<LightLoop> &loops, const miState *state, miTag light)
{
    for (long i = static_cast<long>(loops.size()) - 1; i >= 0; --i)
        if (loops[size_t(i)].state == state && loops[size_t(i)].light == light)
            return i;
    return -1;
}

bool same(const miVector &a, const miVector &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

miTag make_light(Context::Impl &m, const miLight &light, const miMatrix l2g, miTag param)
{
    miTag ltag = db_create(miSCENE_LIGHT, sizeof(miLight));
    *static_cast<miLight *>(db_data(ltag)) = light;
    miTag itag = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    miInstance *inst = static_cast<miInstance *>(db_data(itag));
    inst->item = ltag;
    inst->param = param;
    rt::set_instance_transform(inst, l2g, "light transform is singular; its inverse is left as identity");
    m.owned_items.push_back(ltag);
    m.owned_items.push_back(itag);
    m.lights.push_back(itag);
    return itag;
}

/* The light state of sample k of a light for `state`: a point on the light
   (its origin, or a quasi-random point of an area light's rectangle) and the
   direction and distance to it. */
miState *light_child(miState *state, miTag light_inst, const miInstance *inst, const miLight *light, int k)
{
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
    return c;
}

} // namespace

const std::vector<miTag> &Context::lights() const { return impl_->lights; }


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

} // namespace mirt

using namespace mirt;

extern "C" {

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
    const miInstance *inst = instance_record(light_inst);
    const miLight *light = light_record(inst);
    if (!light) {
        error("mi_sample_light: " + std::to_string(light_inst) + " is not a light instance");
        if (samples)
            *samples = 0;
        return miFALSE;
    }
    auto &loops = light_loops;
    long at = find_loop(loops, state, light_inst);
    if (at >= 0 && !same(loops[size_t(at)].org, state->point))
        loops[size_t(at)].next = 0, loops[size_t(at)].count = 0; /* abandoned loop: start over */
    if (at < 0) {
        if (loops.size() >= kMaxLoops)
            loops.erase(loops.begin());
        loops.push_back(LightLoop{state, light_inst, 0, 0, state->point});
        at = static_cast<long>(loops.size()) - 1;
    }
    auto it = loops.begin() + at;
    if (it->count == 0) {
        it->count = light->area == 1 ? std::max(light->samples, 1) : 1;
        it->org = state->point;
        if (!light->shader)
            error("mi_sample_light: light instance " + std::to_string(light_inst) + " has no light shader");
    }
    while (it->next < it->count) {
        const int k = it->next++;
        miState *c = light_child(state, light_inst, inst, light, k);
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
        at = find_loop(loops, key_state, light_inst);
        if (at < 0)
            break; /* the loop was ended from inside the shader */
        it = loops.begin() + at;
    }
    int taken = 0;
    if (at >= 0) {
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
    const miInstance *inst = instance_record(state ? state->instance : 0);
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

} // extern "C"
