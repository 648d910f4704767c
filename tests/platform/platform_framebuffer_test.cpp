// The renderer runtime core. Frame buffers and the shader interface.
#include "runtime.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

class Core : public RuntimeTest {};

// ------------------------------------------------------------- frame buffers

TEST_F(Core, FrameBufferPutGetAndRejectedIndices)
{
    mirt::Context ctx(4, 3);
    EXPECT_EQ(ctx.add_framebuffer("diffuse"), 1);
    EXPECT_EQ(ctx.add_framebuffer("specular"), 2);
    EXPECT_EQ(ctx.add_framebuffer("diffuse"), 1);
    EXPECT_EQ(ctx.framebuffer_count(), 2);
    miState *s = ctx.begin_state();
    ctx.begin_sample(s, 3, 2);
    miColor c{0.25f, 0.5f, 0.75f, 1.0f};
    EXPECT_TRUE(mi_fb_put(s, 2, &c));
    EXPECT_EQ(ctx.fb_pixel(2, 3, 2).g, 0.5f);
    EXPECT_EQ(ctx.fb_pixel(1, 3, 2).g, 0.0f);
    EXPECT_EQ(ctx.fb_pixel(2, 2, 2).g, 0.0f);

    miColor probe{9, 9, 9, 9};
    EXPECT_FALSE(mi_fb_put(s, 0, &c));
    EXPECT_FALSE(mi_fb_put(s, 3, &c));
    EXPECT_FALSE(mi_fb_put(s, -1, &c));
    EXPECT_FALSE(mi_fb_get(s, 0, &probe));
    EXPECT_FALSE(mi_fb_get(s, 3, &probe));
    EXPECT_EQ(probe.r, 9.0f) << "a rejected get leaves the output alone";
    for (int i = 1; i <= 2; ++i)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                if (!(i == 2 && x == 3 && y == 2)) {
                    EXPECT_EQ(ctx.fb_pixel(i, x, y).r, 0.0f);
                }

    EXPECT_TRUE(mi_fb_get(s, 2, &probe));
    EXPECT_EQ(std::memcmp(&probe, &c, sizeof c), 0);
    ctx.set_fb_pixel(1, 3, 2, miColor{1, 2, 3, 4});
    EXPECT_TRUE(mi_fb_get(s, 1, &probe));
    EXPECT_EQ(probe.b, 3.0f);

    // a pixel outside the image is rejected too
    s->raster_x = 4;
    EXPECT_FALSE(mi_fb_put(s, 1, &c));
    ctx.clear_framebuffers();
    EXPECT_EQ(ctx.fb_pixel(2, 3, 2).g, 0.0f);
    ctx.end_state(s);
}

TEST_F(Core, SampleFrameBuffersHoldEachStatesSampleOnly)
{
    mirt::Context ctx(4, 3);
    ctx.use_sample_framebuffers();
    EXPECT_EQ(ctx.add_framebuffer("diffuse"), 1);
    EXPECT_EQ(ctx.add_framebuffer("specular"), 2);
    miState *a = ctx.begin_state(0), *b = ctx.begin_state(1);
    ctx.begin_sample(a, 3, 2);
    ctx.begin_sample(b, 3, 2);
    const miColor c{0.25f, 0.5f, 0.75f, 1.0f};
    EXPECT_TRUE(mi_fb_put(a, 2, const_cast<miColor *>(&c)));
    // each eye state has its own values, whatever the raster position;
    // unknown indices are rejected as with images
    miColor *va = ctx.sample_framebuffers(a), *vb = ctx.sample_framebuffers(b);
    ASSERT_NE(va, nullptr);
    ASSERT_NE(vb, nullptr);
    EXPECT_NE(va, vb);
    EXPECT_EQ(std::memcmp(&va[1], &c, sizeof c), 0);
    EXPECT_EQ(va[0].g, 0.0f);
    EXPECT_EQ(vb[1].g, 0.0f);
    EXPECT_FALSE(mi_fb_put(a, 3, const_cast<miColor *>(&c)));
    a->raster_x = 40; /* no image to fall outside of */
    miColor probe{9, 9, 9, 9};
    EXPECT_TRUE(mi_fb_get(a, 2, &probe));
    EXPECT_EQ(probe.b, 0.75f);
    // a child state of the sample reaches the same values; no image is kept
    miState *child = mirt::child_state(a);
    EXPECT_TRUE(mi_fb_put(child, 1, const_cast<miColor *>(&c)));
    EXPECT_EQ(va[0].r, 0.25f);
    EXPECT_EQ(ctx.fb_pixel(2, 3, 2).g, 0.0f);
    ctx.end_state(a);
    ctx.end_state(b);
    mirt::Context plain(2, 2);
    EXPECT_EQ(plain.sample_framebuffers(nullptr), nullptr);
}

TEST_F(Core, ShaderInterfaceHandlesBalance)
{
    mirt::Context ctx;
    ctx.add_framebuffer("main");
    ctx.add_framebuffer("pass_a");
    ctx.set_string_option("kelu allocate temp data on heap", 1);
    ctx.set_string_option("samples", 7);
    const int base = mirt::shader_interface_outstanding();
    EXPECT_EQ(mi_get_shader_interface(2), nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base);

    mi::shader::Interface *iface = mi_get_shader_interface(3);
    ASSERT_NE(iface, nullptr);
    mi::shader::Framebuffer *fb = iface->accessFramebuffer(ctx.camera().buffertag);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base + 2);
    size_t index = 0;
    EXPECT_TRUE(fb->get_index("pass_a", index));
    EXPECT_EQ(index, 2u);
    index = 77;
    EXPECT_FALSE(fb->get_index("missing", index));
    EXPECT_EQ(index, 77u);
    EXPECT_EQ(fb->count(), 2u);
    EXPECT_EQ(ctx.fb_lookup_count(), 2u);
    EXPECT_EQ(iface->accessFramebuffer(ctx.options_tag()), nullptr) << "not a frame-buffer set";

    mi::shader::Options *opt = iface->getOptions(ctx.options().string_options);
    ASSERT_NE(opt, nullptr);
    bool flag = false;
    int n = 0;
    float f = 0;
    const char *text = nullptr;
    EXPECT_TRUE(opt->get("kelu allocate temp data on heap", &flag));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(opt->get("samples", &n));
    EXPECT_EQ(n, 7);
    EXPECT_TRUE(opt->get("samples", &f));
    EXPECT_EQ(f, 7.0f);
    EXPECT_TRUE(opt->get("samples", &text));
    EXPECT_STREQ(text, "7");
    EXPECT_FALSE(opt->get("absent", &n));
    EXPECT_EQ(iface->getOptions(ctx.camera().buffertag), nullptr);
    EXPECT_EQ(mirt::shader_interface_outstanding(), base + 3);

    opt->release();
    iface->releaseFramebuffer(fb, ctx.camera().buffertag);
    iface->release();
    EXPECT_EQ(mirt::shader_interface_outstanding(), base);
}

} // namespace
