/*
 * Frame buffers and string options: the Context's buffers, mi_fb_put /
 * mi_fb_get, and the object shader interface that hands out frame-buffer and
 * option handles.
 */
#include "runtime_internal.h"

#include <algorithm>
#include <cstring>

namespace mirt {
using namespace rt;

namespace {

std::atomic<int> outstanding_handles{0};

/* A context's impl from a frame-buffer-set or string-options item. */
Context::Impl *impl_from_item(miTag tag, int type)
{
    Item *it = find_locked(tag);
    if (!it || it->type != type || it->size < sizeof(Context::Impl *))
        return nullptr;
    Context::Impl *impl;
    std::memcpy(&impl, it->data, sizeof impl);
    return impl;
}

class FramebufferImpl : public mi::shader::Framebuffer {
public:
    explicit FramebufferImpl(Context::Impl *impl) : impl_(impl) {}
    ~FramebufferImpl() override = default;

    bool get_index(const char *name, size_t &index) const override
    {
        impl_->fb_lookups.fetch_add(1, std::memory_order_relaxed);
        if (!name)
            return false;
        for (size_t i = 0; i < impl_->fb_names.size(); ++i)
            if (impl_->fb_names[i] == name) {
                index = i + 1;
                return true;
            }
        return false;
    }
    size_t count() const override { return impl_->fb_names.size(); }
    Context::Impl *impl() const { return impl_; }

private:
    Context::Impl *impl_;
};

class OptionsImpl : public mi::shader::Options {
public:
    explicit OptionsImpl(Context::Impl *impl) : impl_(impl) {}
    ~OptionsImpl() override = default;

    bool get(const char *name, int *value) const override
    {
        return fetch(name, value, [](const Option &o) { return o.value; });
    }
    bool get(const char *name, bool *value) const override
    {
        return fetch(name, value, [](const Option &o) { return o.value != 0; });
    }
    bool get(const char *name, float *value) const override
    {
        return fetch(name, value, [](const Option &o) { return static_cast<float>(o.value); });
    }
    bool get(const char *name, const char **value) const override
    {
        return fetch(name, value, [](const Option &o) { return o.text.c_str(); });
    }
    void release() override
    {
        outstanding_handles.fetch_sub(1);
        delete this;
    }

private:
    using Option = Context::Impl::StringOption;
    template <class T, class F> bool fetch(const char *name, T *value, F &&convert) const
    {
        const Option *o = find(name);
        if (!o || !value)
            return false;
        *value = convert(*o);
        return true;
    }
    const Option *find(const char *name) const
    {
        if (!name)
            return nullptr;
        for (const auto &o : impl_->string_options)
            if (o.name == name)
                return &o;
        return nullptr;
    }
    Context::Impl *impl_;
};

/* A new handle on the Context behind a frame-buffer-set or string-options
   item, counted as outstanding until released; null for another item. */
template <class Handle> Handle *hand_out(miTag tag, int type)
{
    Context::Impl *impl = impl_from_item(tag, type);
    if (!impl)
        return nullptr;
    outstanding_handles.fetch_add(1);
    return new Handle(impl);
}

class InterfaceImpl : public mi::shader::Interface {
public:
    ~InterfaceImpl() override = default;

    mi::shader::Framebuffer *accessFramebuffer(miTag buffertag) override
    {
        return hand_out<FramebufferImpl>(buffertag, miSCENE_FBSET);
    }
    void releaseFramebuffer(mi::shader::Framebuffer *fb, miTag) override
    {
        if (!fb)
            return;
        outstanding_handles.fetch_sub(1);
        delete static_cast<FramebufferImpl *>(fb);
    }
    mi::shader::Options *getOptions(miTag string_options) override
    {
        return hand_out<OptionsImpl>(string_options, miSCENE_STRINGOPTS);
    }
    void release() override
    {
        outstanding_handles.fetch_sub(1);
        delete this;
    }
};

} // namespace

int shader_interface_outstanding()
{
    return outstanding_handles.load();
}

int Context::add_framebuffer(const std::string &name)
{
    Impl &m = *impl_;
    for (size_t i = 0; i < m.fb_names.size(); ++i)
        if (m.fb_names[i] == name)
            return static_cast<int>(i + 1);
    m.fb_names.push_back(name);
    m.fb_pixels.emplace_back(m.sample_fbs ? size_t(0) : static_cast<size_t>(m.width) * static_cast<size_t>(m.height),
                             miColor{0, 0, 0, 0});
    return static_cast<int>(m.fb_names.size());
}

void Context::use_sample_framebuffers()
{
    impl_->sample_fbs = true;
    for (auto &buf : impl_->fb_pixels)
        std::vector<miColor>().swap(buf);
}

miColor *Context::sample_framebuffers(const miState *state) const
{
    if (!impl_->sample_fbs || !state || !state->shaderstate || state->shaderstate->sample_fb.empty())
        return nullptr;
    return state->shaderstate->sample_fb.data();
}

int Context::framebuffer_count() const
{
    return static_cast<int>(impl_->fb_names.size());
}

miColor Context::fb_pixel(int index, int x, int y) const
{
    const Impl &m = *impl_;
    if (index < 1 || index > static_cast<int>(m.fb_pixels.size()) || x < 0 || y < 0 || x >= m.width ||
        y >= m.height || m.sample_fbs)
        return miColor{0, 0, 0, 0};
    return m.fb_pixels[static_cast<size_t>(index - 1)][static_cast<size_t>(y) * m.width + x];
}

void Context::set_fb_pixel(int index, int x, int y, const miColor &c)
{
    Impl &m = *impl_;
    if (index < 1 || index > static_cast<int>(m.fb_pixels.size()) || x < 0 || y < 0 || x >= m.width ||
        y >= m.height || m.sample_fbs)
        return;
    m.fb_pixels[static_cast<size_t>(index - 1)][static_cast<size_t>(y) * m.width + x] = c;
}

void Context::clear_framebuffers()
{
    for (auto &buf : impl_->fb_pixels)
        std::fill(buf.begin(), buf.end(), miColor{0, 0, 0, 0});
}

uint64_t Context::fb_lookup_count() const
{
    return impl_->fb_lookups.load();
}

void Context::set_string_option(const std::string &name, int value)
{
    for (auto &o : impl_->string_options)
        if (o.name == name) {
            o.value = value;
            o.text = std::to_string(value);
            return;
        }
    impl_->string_options.push_back(Impl::StringOption{name, value, std::to_string(value)});
}

} // namespace mirt

using namespace mirt;

extern "C" {

static miColor *fb_slot(miState *state, int buffer)
{
    Context::Impl *impl = impl_of(state);
    if (!impl || buffer < 1 || buffer > static_cast<int>(impl->fb_pixels.size()))
        return nullptr;
    if (impl->sample_fbs) {
        miShaderStateStore *store = state->shaderstate;
        return store && size_t(buffer) <= store->sample_fb.size() ? &store->sample_fb[size_t(buffer - 1)] : nullptr;
    }
    int x = state->raster_x, y = state->raster_y;
    if (x < 0 || y < 0 || x >= impl->width || y >= impl->height)
        return nullptr;
    return &impl->fb_pixels[static_cast<size_t>(buffer - 1)][static_cast<size_t>(y) * impl->width + x];
}

/* Copy one colour into (put) or out of the current pixel of a buffer. */
static miBoolean fb_copy(miState *state, int buffer, void *data, bool put)
{
    if (!data)
        return miFALSE;
    miColor *slot = fb_slot(state, buffer);
    if (!slot)
        return miFALSE;
    if (put)
        std::memcpy(slot, data, sizeof(miColor));
    else
        std::memcpy(data, slot, sizeof(miColor));
    return miTRUE;
}

miBoolean mi_fb_put(miState *state, int buffer, void *data)
{
    return fb_copy(state, buffer, data, true);
}

miBoolean mi_fb_get(miState *state, int buffer, void *data)
{
    return fb_copy(state, buffer, data, false);
}

} // extern "C"

/* ---- the object shader interface */

mi::shader::Interface *mi_get_shader_interface(int version)
{
    if (version != 3)
        return nullptr;
    outstanding_handles.fetch_add(1);
    return new InterfaceImpl;
}

