/*
 * The shader-library loader: linking along a search path, resolving shaders
 * by name, parameter layout and defaults for every type, scene values,
 * connections, init/exit order, every error with its message, unloading.
 */
#include "expect_values.h"
#include "runtime.h"
#include "shader_loader.h"
#include "loader_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace loadertest;

TEST(ShaderLibraryLoader, LinksAlongTheSearchPathAndResolvesByName)
{
    mirt::ShaderLibraries libs;
    const std::string path = libs.link("\"libtest_shaders.so\"", {"/nonexistent", kDir});
    EXPECT_NE(path.find("libtest_shaders.so"), std::string::npos);
    EXPECT_EQ(libs.link("libtest_shaders.so", {kDir}), path); /* the same file twice is one link */
    EXPECT_EQ(libs.library_count(), 1u);
    const mirt::LoadedShader &t = libs.shader("tint");
    EXPECT_EQ(t.name, "tint");
    EXPECT_NE(t.fn, nullptr);
    EXPECT_EQ(t.init, nullptr);
    EXPECT_EQ(t.block_size, 20u);
    const mirt::LoadedShader &a = libs.shader("countedA");
    EXPECT_NE(a.init, nullptr);
    EXPECT_NE(a.exit, nullptr);
    EXPECT_EQ(&libs.shader("tint"), &t); /* resolved once */
    EXPECT_NE(libs.find_symbol("test_shader_events"), nullptr);
    EXPECT_EQ(libs.find_symbol("no_such_symbol"), nullptr);
}

TEST(ShaderLibraryLoader, LayoutAndDefaultsOfEveryType)
{
    mirt::ShaderLibraries libs;
    libs.link("libtest_shaders.so", {kDir});
    const mirt::LoadedShader &s = libs.shader("allTypes");
    /* the offsets the library's own struct pins with static_assert */
    const size_t expect[][2] = {{0, 4}, {4, 4}, {8, 4}, {12, 16}, {28, 12}, {40, 64}, {104, 4}, {108, 4}, {112, 24}, {136, 4}};
    ASSERT_EQ(s.params.size(), 10u);
    for (size_t k = 0; k < 10; ++k) {
        EXPECT_EQ(s.params[k].offset, expect[k][0]) << s.params[k].name;
        EXPECT_EQ(s.params[k].size, expect[k][1]) << s.params[k].name;
    }
    EXPECT_EQ(s.block_size, 140u);

    Made made;
    const miTag fn = libs.instantiate("defaults", "allTypes", {}, made.tags);
    const miFunction *f = mirt::function(fn);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->param_size, 140);
    EXPECT_EQ(at<float>(f, 0), 1.5f);
    EXPECT_EQ(at<int>(f, 4), 7);
    EXPECT_EQ(at<int>(f, 8), miTRUE);
    const miColor c = at<miColor>(f, 12);
    expectColor(c, 0.1f, 0.2f, 0.3f, 1, 0, "alpha 1 when three components are given");
    const miVector v = at<miVector>(f, 28);
    EXPECT_EQ(v.x + 10 * v.y + 100 * v.z, 321.0f);
    EXPECT_EQ(at<float>(f, 40 + 4 * 12), 4.0f);
    EXPECT_EQ(at<float>(f, 40 + 4 * 15), 1.0f);
    const miTag str = at<miTag>(f, 104);
    ASSERT_NE(str, 0u);
    EXPECT_STREQ(static_cast<const char *>(mirt::db_data(str)), "hello");
    EXPECT_EQ(at<miTag>(f, 108), 0u);
    EXPECT_EQ(at<int>(f, 112), 0);  /* first index */
    EXPECT_EQ(at<int>(f, 116), 2);  /* count */
    EXPECT_EQ(at<int>(f, 120), 10);
    EXPECT_EQ(at<int>(f, 124), 20);
    EXPECT_EQ(at<int>(f, 128), 0);
    EXPECT_EQ(at<float>(f, 136), -2.0f);
}

TEST(ShaderLibraryLoader, SceneValuesOverrideDefaults)
{
    mirt::ShaderLibraries libs;
    libs.link("libtest_shaders.so", {kDir});
    Made made;
    const miTag chk = libs.instantiate("chk", "checker", {}, made.tags);
    const miTag fn = libs.instantiate(
        "vals", "allTypes",
        {"s", "-0.25", "b", "off", "c", "1", "2", "3", "0.5", "str", "\"bye\"", "sh", "chk", "arr", "[", "4", "5", "6",
         "7", "]", "i", "-3"},
        made.tags);
    const miFunction *f = mirt::function(fn);
    EXPECT_EQ(at<float>(f, 0), -0.25f);
    EXPECT_EQ(at<int>(f, 4), -3);
    EXPECT_EQ(at<int>(f, 8), miFALSE);
    EXPECT_EQ(at<miColor>(f, 12).a, 0.5f);
    EXPECT_STREQ(static_cast<const char *>(mirt::db_data(at<miTag>(f, 104))), "bye");
    EXPECT_EQ(at<miTag>(f, 108), chk);
    EXPECT_EQ(at<int>(f, 116), 4);
    EXPECT_EQ(at<int>(f, 132), 7);
    EXPECT_EQ(libs.instance("vals"), fn);
    EXPECT_EQ(libs.instance("nobody"), 0u);
}

TEST(ShaderLibraryLoader, ConnectionChainTextureToMaterial)
{
    mirt::ShaderLibraries libs;
    libs.link("libtest_shaders.so", {kDir});
    Made made;
    libs.instantiate("chk", "checker", {"a", "0.1", "0.2", "0.3", "b", "0.7", "0.8", "0.9", "scale", "1"}, made.tags);
    const miTag mat = libs.instantiate("mat", "tint", {"base", "=", "chk", "gain", "3"}, made.tags);
    const miTag plain = libs.instantiate("plain", "tint", {}, made.tags);
    miState state;
    std::memset(&state, 0, sizeof state);
    for (float x : {0.5f, 1.5f}) {
        state.point.x = x;
        miFunction *f = mirt::function(mat);
        state.shader = f;
        miColor out{0, 0, 0, 0};
        f->fn(&out, &state, f->params);
        const float want = x < 1.0f ? 0.1f : 0.7f; /* the checker's a, then b */
        EXPECT_FLOAT_EQ(out.r, 3 * want);
    }
    miFunction *g = mirt::function(plain);
    state.shader = g;
    miColor out{0, 0, 0, 0};
    g->fn(&out, &state, g->params);
    EXPECT_FLOAT_EQ(out.g, 1.0f); /* default base 0.5, gain 2 */
}

TEST(ShaderLibraryLoader, InitAndExitOncePerShaderInOrder)
{
    mirt::ShaderLibraries libs;
    libs.link("libtest_shaders.so", {kDir});
    auto events = reinterpret_cast<const char *(*)()>(libs.find_symbol("test_shader_events"));
    auto clear = reinterpret_cast<void (*)()>(libs.find_symbol("test_shader_clear_events"));
    ASSERT_TRUE(events && clear);
    clear();
    Made made;
    libs.instantiate("a1", "countedA", {"id", "1"}, made.tags);
    libs.instantiate("b1", "countedB", {"id", "2"}, made.tags);
    libs.instantiate("a2", "countedA", {"id", "3"}, made.tags);
    EXPECT_STREQ(events(), "");
    libs.init_all(nullptr);
    libs.init_all(nullptr); /* once only */
    EXPECT_STREQ(events(), "initA initA:1 initB initA:3 ");
    EXPECT_GT(mirt::mem_live_bytes("tests/shaderlibs"), 0);
    clear();
    libs.exit_all(nullptr);
    libs.exit_all(nullptr);
    EXPECT_STREQ(events(), "exitA:3 exitB:2 exitA:1 exitB exitA ");
    EXPECT_EQ(mirt::mem_live_bytes("tests/shaderlibs"), 0);
}

TEST(ShaderLibraryLoader, ErrorsNameTheCause)
{
    mirt::ShaderLibraries libs;
    EXPECT_EQ(errorOf([&] { libs.link("libnothere.so", {"/nonexistent", kDir}); }),
              "shader library \"libnothere.so\" not found; searched: /nonexistent, " + kDir);
    EXPECT_EQ(errorOf([&] { libs.link("/nonexistent/libx.so", {kDir}); }),
              "shader library \"/nonexistent/libx.so\" not found");
    EXPECT_NE(errorOf([&] { libs.link("libno_table.so", {kDir}); })
                  .find("symbol missing: drux_shader_library"),
              std::string::npos);
    EXPECT_EQ(libs.library_count(), 0u);
    libs.link("libtest_shaders.so", {kDir});
    EXPECT_EQ(errorOf([&] { libs.shader("newerShader"); }),
              "version mismatch: newerShader_version() returns 1, the declaration of \"newerShader\" says 2");
    EXPECT_NE(errorOf([&] { libs.shader("missingShader"); }).find("symbol missing: shader \"missingShader\""),
              std::string::npos);
    EXPECT_NE(errorOf([&] { libs.shader("lonely"); }).find("unknown shader \"lonely\""), std::string::npos);
    EXPECT_NE(errorOf([&] { libs.shader("badTable"); }).find("the declaration of \"badTable\" is malformed"),
              std::string::npos);

    /* 600 arrays of 65536 transforms: 2.5 GB, refused rather than wrapped */
    std::vector<std::string> names(600);
    std::vector<miParamDecl> params(names.size());
    for (size_t k = 0; k < names.size(); ++k) {
        names[k] = "m" + std::to_string(k);
        params[k] = miParamDecl{names[k].c_str(), miTYPE_TRANSFORM, 65536, nullptr};
    }
    const miShaderDecl huge{"huge", miTYPE_COLOR, 1, params.data(), static_cast<int>(params.size())};
    EXPECT_EQ(errorOf([&] { mirt::layout_params(huge, nullptr); }),
              "shader \"huge\": its parameters need more than 2147483632 bytes (parameter \"m511\" ends at byte "
              "2147487744); declare smaller arrays"); /* 512 x (8 + 64 x 65536) */

    const long pins = mirt::db_total_pins();
    Made made;
    libs.instantiate("chk", "checker", {}, made.tags);
    libs.instantiate("num", "scalarOut", {}, made.tags);
    const size_t before = made.tags.size();
    const struct {
        const char *shader;
        std::vector<std::string> args;
        const char *error;
    } bad[] = {
        {"tint", {"colour", "1", "1", "1"}, "unknown parameter \"colour\" of shader \"tint\""},
        {"allTypes", {"str", "s", "i", "2.5"}, "wrong type: parameter \"i\" is integer, \"2.5\" is not a whole number"},
        {"allTypes", {"b", "maybe"}, "wrong type: parameter \"b\" is boolean, \"maybe\" is not on or off"},
        {"allTypes", {"c", "1", "red"}, "wrong type: parameter \"c\" is color, \"red\" is not a number"},
        {"tint", {"base", "=", "num"}, "wrong type: parameter \"base\" is color, \"num\" returns scalar"},
        {"tint", {"base", "=", "later"},
         "parameter \"base\": no shader instance \"later\" (instances are named before use)"},
        {"allTypes", {"arr", "[", "1", "2", "3", "4", "5", "]"}, "parameter \"arr\": more than 4 elements"},
    };
    for (const auto &b : bad)
        EXPECT_EQ(errorOf([&] { libs.instantiate("x", b.shader, b.args, made.tags); }), b.error);
    EXPECT_NE(libs.shader("hostBuilt").fn, nullptr);
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "hostBuilt", {}, made.tags); }),
              "shader \"hostBuilt\" declares no parameters: its blocks are built by the program that uses it, not "
              "by a shader instance");
    EXPECT_EQ(errorOf([&] { libs.instantiate("chk", "checker", {}, made.tags); }),
              "shader instance \"chk\" is defined twice");
    /* a failed instance leaves nothing behind: no items, no instance, no pins */
    EXPECT_EQ(made.tags.size(), before);
    EXPECT_EQ(libs.instance("x"), 0u);
    EXPECT_EQ(mirt::db_total_pins(), pins);
}

TEST(ShaderLibraryLoader, UnloadingLeavesNoMemoryAndNoPins)
{
    const int64_t total = mirt::mem_live_bytes_total();
    {
        mirt::ShaderLibraries libs;
        libs.link("libtest_shaders.so", {kDir});
        Made made;
        libs.instantiate("a1", "countedA", {"id", "1"}, made.tags);
        libs.instantiate("s", "allTypes", {"str", "text"}, made.tags);
        libs.init_all(nullptr);
        libs.exit_all(nullptr);
    }
    EXPECT_EQ(mirt::mem_live_bytes("tests/shaderlibs"), 0);
    EXPECT_EQ(mirt::mem_live_bytes_total(), total);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

} // namespace
