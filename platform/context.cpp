/*
 * The render Context: its options, camera and camera instance, the state
 * shaders, and the life cycle of eye states and samples.
 */
#include "runtime_internal.h"

#include <algorithm>
#include <cstring>

namespace mirt {
using namespace rt;

namespace rt {

std::atomic<int> live_contexts{0};

void set_instance_transform(miInstance *inst, const miMatrix l2g, const char *singular_message)
{
    std::memcpy(inst->local_to_global, l2g, sizeof(miMatrix));
    if (!invert_matrix(l2g, inst->global_to_local)) {
        log_message(Level::Error, singular_message);
        for (int i = 0; i < 16; ++i)
            inst->global_to_local[i] = (i % 5 == 0) ? 1.0f : 0.0f;
    }
}

} // namespace rt

Context::Impl *impl_of(const miState *state)
{
    if (!state || !state->ctx)
        return nullptr;
    return state->ctx->impl;
}

Context *context_of(miState *state)
{
    Context::Impl *impl = impl_of(state);
    return impl ? impl->self : nullptr;
}

/* ================================================================ Context */

Context::Context(int width, int height) : impl_(new Impl)
{
    live_contexts.fetch_add(1);
    Impl &m = *impl_;
    m.self = this;
    m.handle.context = this;
    m.handle.impl = impl_.get();
    m.width = width > 0 ? width : 1;
    m.height = height > 0 ? height : 1;

    Impl *self_ptr = impl_.get();
    m.fbset_tag = db_create(miSCENE_FBSET, sizeof(Impl *));
    std::memcpy(db_data(m.fbset_tag), &self_ptr, sizeof self_ptr);
    m.stropts_tag = db_create(miSCENE_STRINGOPTS, sizeof(Impl *));
    std::memcpy(db_data(m.stropts_tag), &self_ptr, sizeof self_ptr);

    m.options_tag = db_create(miSCENE_OPTIONS, sizeof(miOptions));
    m.options = static_cast<miOptions *>(db_data(m.options_tag));
    miOptions &o = *m.options;
    o.trace = miTRUE;
    o.reflection_depth = 2;
    o.refraction_depth = 2;
    o.trace_depth = 4;
    o.time_contrast = miColor{1, 1, 1, 1};
    o.shutter_delay = 0;
    o.shutter = 0;
    o.scanline = 0;
    o.string_options = m.stropts_tag;
    o.finalgather = 0;
    o.finalgather_rays = 16;

    m.camera_tag = db_create(miSCENE_CAMERA, sizeof(miCamera));
    m.camera = static_cast<miCamera *>(db_data(m.camera_tag));
    m.camera->buffertag = m.fbset_tag;
    m.camera->x_resolution = m.width;
    m.camera->y_resolution = m.height;
    m.camera->focal = 1.0f;
    m.camera->aperture = 1.0f;
    m.camera->aspect = static_cast<float>(m.width) / static_cast<float>(m.height);

    m.camera_inst_tag = db_create(miSCENE_INSTANCE, sizeof(miInstance));
    m.camera_inst = static_cast<miInstance *>(db_data(m.camera_inst_tag));
    m.camera_inst->item = m.camera_tag;
    const miMatrix identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::memcpy(m.camera_inst->local_to_global, identity, sizeof identity);
    std::memcpy(m.camera_inst->global_to_local, identity, sizeof identity);

    mi_init_lock(&m.cache_lock);
    m.answer(miQ_PRECOMPUTE_PASS).value = 0;
    m.answer(miQ_MOTION_BY_RENDERER).value = 1;
    m.answer(miQ_FB_RECORDS).value = 1;
}

Context::~Context()
{
    Impl &m = *impl_;
    std::vector<miShaderStateStore *> left;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        left.swap(m.live_states);
    }
    if (!left.empty())
        error("render context destroyed with %zu state(s) not ended", left.size());
    for (miShaderStateStore *s : left)
        free_store(s);
    for (miTag t : {m.options_tag, m.camera_tag, m.camera_inst_tag, m.fbset_tag, m.stropts_tag})
        db_delete(t);
    for (miTag t : m.owned_items)
        db_delete(t);
    mi_delete_lock(&m.cache_lock);
    live_contexts.fetch_sub(1);
}

miOptions &Context::options() { return *impl_->options; }
miCamera &Context::camera() { return *impl_->camera; }
miTag Context::options_tag() const { return impl_->options_tag; }
miTag Context::camera_tag() const { return impl_->camera_tag; }
miTag Context::camera_instance() const { return impl_->camera_inst_tag; }
int Context::width() const { return impl_->width; }
int Context::height() const { return impl_->height; }

void Context::set_camera_transform(const miMatrix local_to_global)
{
    set_instance_transform(impl_->camera_inst, local_to_global,
                           "camera transform is singular; the inverse is left as identity");
}

void Context::attach_camera_userdata(miTag block)
{
    if (mi_db_type(block) != miSCENE_USERDATA) {
        error("attach_camera_userdata: %u is not a user-data block", block);
        return;
    }
    miUserdata *u = static_cast<miUserdata *>(db_data(block));
    u->next_data = impl_->camera->userdata;
    impl_->camera->userdata = block;
}

void Context::add_state_shader(miTag fn)
{
    impl_->state_shaders.push_back(fn);
}

miBoolean Context::run_state_op(miState *state, int op, miBoolean shader_return)
{
    miBoolean ok = miTRUE;
    for (miTag fn : impl_->state_shaders) {
        miShader_state_arg arg{op, shader_return};
        alignas(16) unsigned char result[64] = {};
        if (!call_function(fn, result, state, &arg))
            ok = miFALSE;
    }
    return ok;
}

miState *Context::begin_state(int thread)
{
    Impl &m = *impl_;
    miShaderStateStore *store = new miShaderStateStore;
    store->ctx = &m;
    if (m.sample_fbs)
        store->sample_fb.assign(m.fb_pixels.size(), miColor{0, 0, 0, 0});
    StateFrame *root = new_frame_pair(store->frames);
    miState *s = &root->state;
    store->root = s;
    init_frame_lists(root);
    s->version = 1;
    s->camera_inst = m.camera_inst_tag;
    s->camera = m.camera;
    s->options = m.options;
    s->global_lock = &global_lock_rec();
    s->thread = thread;
    s->type = miRAY_EYE;
    s->ior = 1.0f;
    s->ior_in = 1.0f;
    s->environment = m.environment;
    s->scanline = m.options->scanline == 'r' ? 1 : 0;
    s->ctx = &m.handle;
    s->shaderstate = store;
    s->spare = &root->spare_frame->state;
    /* The spare starts out as a copy of the eye state with its own lists. */
    std::memcpy(s->spare, s, sizeof(miState));
    init_frame_lists(root->spare_frame);
    s->spare->spare = nullptr;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        m.live_states.push_back(store);
    }
    run_state_op(s, miSHADERSTATE_STATE_INIT);
    return s;
}

void Context::begin_sample(miState *state, int x, int y, int sample)
{
    if (!state)
        return;
    state->raster_x = x;
    state->raster_y = y;
    state->sample_index = sample;
    state->qmc_offset = static_cast<miUint>(
        mix64((static_cast<uint64_t>(static_cast<uint32_t>(x)) << 32) ^
              (static_cast<uint64_t>(static_cast<uint32_t>(y)) << 12) ^ static_cast<uint32_t>(sample)));
    state->type = miRAY_EYE;
    state->reflection_level = 0;
    state->refraction_level = 0;
    state->dist = 0;
    state->environment = impl_->environment;
    run_state_op(state, miSHADERSTATE_SAMPLE_INIT);
}

void Context::end_sample(miState *state, miBoolean shaded)
{
    if (!state)
        return;
    run_state_op(state, miSHADERSTATE_SAMPLE_EXIT, shaded);
}

void Context::end_state(miState *state)
{
    if (!state)
        return;
    miShaderStateStore *store = state->shaderstate;
    Impl &m = *impl_;
    bool known = false;
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        known = std::find(m.live_states.begin(), m.live_states.end(), store) != m.live_states.end();
    }
    if (!known) {
        error("end_state: the state was not begun by this render context");
        return;
    }
    if (store->root != state)
        error("end_state: called with a child state; ending its eye state");
    run_state_op(store->root, miSHADERSTATE_STATE_EXIT);
    {
        std::lock_guard<std::mutex> lk(m.states_mutex);
        m.live_states.erase(std::find(m.live_states.begin(), m.live_states.end(), store));
    }
    free_store(store);
}

} // namespace mirt
