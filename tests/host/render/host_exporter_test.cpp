/*
 * The host exporter's frame-buffer block as the library reads it.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "host_test_scene.h"

namespace {

TEST(HostExporter, MaskTextDigits)
{
    EXPECT_EQ(maskText({}), "");
    EXPECT_EQ(maskText({true}), "1");
    EXPECT_EQ(maskText({false, false, false, true}), "8");
    EXPECT_EQ(maskText({true, false, false, false, false, true}), "12");
    EXPECT_EQ(maskText({true, true, true, true, true, true, true, true, false}), "FF0");
}

TEST(HostExporter, BlockAsTheLibraryReadsIt)
{
    mirt::reset();
    const SceneDesc s = testScene();
    const PassLayout layout = layoutPasses(s);
    ASSERT_EQ(layout.entryPass.size(), 12u);
    ASSERT_EQ(layout.constantPass.size(), 1u);

    mirt::Context ctx(4, 4);
    std::vector<miTag> names;
    for (int pi : layout.entryPass)
        ctx.add_framebuffer(s.passes[size_t(pi)].name);
    ctx.add_framebuffer("matte");
    const std::vector<uint32_t> words = buildFbufBlock(s, layout, [&](const std::string &n) {
        names.push_back(mirt::db_create_string(n.c_str()));
        return names.back();
    });
    const miTag block = mirt::db_create_userdata(words.data(), words.size() * 4, 0);
    ctx.attach_camera_userdata(block);
    const miTag sh = mirt::make_function(
        miSHADER_STATE,
        reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)(void)>(&druxFrameBufferState)), nullptr, 0, 0,
        false, "druxFrameBufferState");
    ctx.add_state_shader(sh);
    miState *st = ctx.begin_state(0);
    ctx.begin_sample(st, 0, 0, 0);
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    const miUint n = getFrameBufferInfo(st, &types, &e);
    ASSERT_EQ(n, 12u);
    EXPECT_EQ(getNonMaterialPassFrameBufferIndex(st, 0), 13u);
    int lastType = -1;
    for (miUint i = 0; i < n; ++i) {
        const PassDesc &p = s.passes[size_t(layout.entryPass[i])];
        const int type = passTypeOf(p.role);
        EXPECT_GE(type, lastType) << "records ordered by type";
        lastType = type;
        EXPECT_EQ(types->range[type].first <= int(i) && int(i) < types->range[type].first + types->range[type].count,
                  true)
            << p.name;
        EXPECT_EQ(e[i].fbId, getNamedFrameBufferID(st, p.name.c_str())) << p.name;
        EXPECT_EQ(static_cast<PassRole>(e[i].hostData[0]), p.role);
        EXPECT_EQ(e[i].hostData[1], static_cast<miUint>(layout.entryPass[i]));
        const bool noTraceAdd = p.role == PassRole::Diffuse || p.role == PassRole::Specular ||
                                p.role == PassRole::Reflection || p.role == PassRole::Refraction ||
                                p.role == PassRole::Indirect || p.role == PassRole::Scatter;
        EXPECT_EQ((e[i].flags & FBINFO_NO_TRACE_ADD) != 0, noTraceAdd) << p.name;
        EXPECT_EQ((e[i].flags & FBINFO_SHADOW_PASS) != 0, p.role == PassRole::Shadow) << p.name;
        const bool shadowed = p.role == PassRole::Beauty || p.role == PassRole::Diffuse ||
                              p.role == PassRole::Specular || p.role == PassRole::Shadow ||
                              p.role == PassRole::LightGroup;
        EXPECT_EQ((e[i].flags & FBINFO_SHADOWED) != 0, shadowed) << p.name;
    }
    /* light masks through the library's own reading of them */
    for (const LightDesc &l : s.lights) {
        const std::string mask = lightMask(s, layout, l);
        for (miUint i = 0; i < n; ++i) {
            const PassDesc &p = s.passes[size_t(layout.entryPass[i])];
            const bool expected = p.role != PassRole::LightGroup || p.group == l.group;
            EXPECT_EQ(contributesToPass(int(i), mask.c_str()) != 0, expected) << l.name << " / " << p.name;
        }
    }
    InstanceDesc inst;
    inst.shadowPasses = {"diffuse", "shadow"};
    const std::string om = occluderMask(s, layout, inst);
    for (miUint i = 0; i < n; ++i) {
        const std::string &name = s.passes[size_t(layout.entryPass[i])].name;
        EXPECT_EQ(contributesToPass(int(i), om.c_str()) != 0, name == "diffuse" || name == "shadow") << name;
    }
    EXPECT_TRUE(occluderMask(s, layout, InstanceDesc()).empty());
    ctx.end_state(st);
    EXPECT_EQ(mirt::db_total_pins(), 0);
    EXPECT_EQ(mirt::mem_live_bytes("SDK/druxFrameBufferState"), 0);
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostExporter, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
