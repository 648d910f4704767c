/*
 * The checked declaration form and ramp parameters: the loader lays out a
 * checked table as the library's struct (a C library), refuses rows out of
 * order, a member without a row, a row of the wrong type and a table without
 * its end marker, says once that a positional table is unchecked, and fills
 * ramp parameters from `ramp POSITION ... INTERPOLATION` keys that the
 * library's ramp_constructor reads.
 */
#include "expect_values.h"
#include "runtime.h"
#include "runtime_internal.h"
#include "shader_loader.h"
#include "loader_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace loadertest;

miColor run(miTag fn)
{
    miState state;
    std::memset(&state, 0, sizeof state);
    miFunction *f = mirt::function(fn);
    state.shader = f;
    miColor out{-1, -1, -1, -1};
    f->fn(&out, &state, f->params);
    return out;
}

TEST(ShaderDeclarations, CheckedTableLaysOutTheStructOfACLibrary)
{
    mirt::ShaderLibraries libs;
    const std::string path = libs.link("libchecked_shaders.so", {kDir});
    const mirt::LoadedShader &s = libs.shader("rampAt");
    EXPECT_TRUE(s.checked);
    /* at, tint, weights (i, n, 3 scalars), colours (first, count, 4 x 24), values (first, count, 2 x 12) */
    const size_t expect[][3] = {{0, 4, 0}, {4, 16, 0}, {20, 20, 3}, {40, 104, 4}, {144, 32, 2}};
    ASSERT_EQ(s.params.size(), 5u);
    for (size_t k = 0; k < 5; ++k) {
        EXPECT_EQ(s.params[k].offset, expect[k][0]) << s.params[k].name;
        EXPECT_EQ(s.params[k].size, expect[k][1]) << s.params[k].name;
        EXPECT_EQ(size_t(s.params[k].array_max), expect[k][2]) << s.params[k].name;
    }
    EXPECT_EQ(s.block_size, 176u);
    EXPECT_EQ(s.decl->version, 3);
    EXPECT_EQ(libs.declared_shaders(path),
              (std::vector<std::string>{"rampAt", "swappedRows", "missingRow", "wrongTypeRow"}));
}

TEST(ShaderDeclarations, RampKeysFromTheSceneReachRampConstructor)
{
    mirt::ShaderLibraries libs;
    libs.link("libchecked_shaders.so", {kDir});
    Made made;
    /* defaults: linear black -> (1 0.5 0.25) at 0.5 is half of it, times weight 2; alpha the one key 10 */
    const miTag d = libs.instantiate("d", "rampAt", {}, made.tags);
    const miFunction *f = mirt::function(d);
    EXPECT_EQ(at<int>(f, 40), 0);
    EXPECT_EQ(at<int>(f, 44), 2);
    EXPECT_EQ(at<float>(f, 48 + 24 + 8), 0.5f); /* second key's green */
    EXPECT_EQ(at<int>(f, 48 + 24 + 20), 1);     /* linear */
    expectColor(run(d), 1, 0.5f, 0.25f, 10, kUlps);

    /* three keys, the first two held (none), and a scalar ramp of two smooth keys */
    const miTag v = libs.instantiate(
        "v", "rampAt",
        {"colours", "ramp", "0", "0.2", "0.2", "0.2", "1", "none", "ramp", "0.5", "0.6", "0.6", "0.6", "1", "none",
         "ramp", "1", "1", "1", "1", "1", "linear", "at", "0.75", "weights", "[", "]", "values", "ramp", "0", "4",
         "smooth", "ramp", "1", "8", "smooth"},
        made.tags);
    const miFunction *g = mirt::function(v);
    EXPECT_EQ(at<int>(g, 44), 3);
    EXPECT_EQ(at<int>(g, 48 + 20), 0);
    EXPECT_EQ(at<int>(g, 148), 2);
    EXPECT_EQ(at<int>(g, 152 + 12 + 8), 2); /* smooth */
    const miColor w = run(v);
    EXPECT_FLOAT_EQ(w.r, 0.6f); /* held at the key below 0.75 */
    EXPECT_GT(w.a, 4.0f);
    EXPECT_LT(w.a, 8.0f);
}

TEST(ShaderDeclarations, RampValuesThatAreWrongAreRefused)
{
    mirt::ShaderLibraries libs;
    libs.link("libchecked_shaders.so", {kDir});
    Made made;
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "rampAt", {"colours", "[", "1", "]"}, made.tags); }),
              "wrong type: parameter \"colours\" is a color ramp, keys written ramp POSITION R G B A "
              "INTERPOLATION, repeated");
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "rampAt", {"colours", "ramp", "0", "1", "1", "1", "1", "cubic"},
                                             made.tags); }),
              "wrong type: parameter \"colours\" key 0: \"cubic\" is not an interpolation (none, linear, smooth or "
              "spline)");
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "rampAt", {"values", "ramp", "0", "1", "none", "ramp", "0.5", "2",
                                                             "none", "ramp", "1", "3", "none"},
                                             made.tags); }),
              "parameter \"values\": more than 2 ramp keys");
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "rampAt", {"values", "ramp", "0", "1", "none", "at"}, made.tags); }),
              "parameter \"at\": missing scalar value");
    libs.instantiate("src", "rampAt", {}, made.tags);
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "rampAt", {"colours", "=", "src"}, made.tags); }),
              "wrong type: parameter \"colours\" is an array and cannot be connected");
}

TEST(ShaderDeclarations, RowsThatDoNotMatchTheStructAreRefused)
{
    mirt::ShaderLibraries libs;
    const std::string path = libs.link("libchecked_shaders.so", {kDir});
    const std::string where = "shader library \"" + path + "\": shader ";
    EXPECT_EQ(errorOf([&] { libs.shader("swappedRows"); }),
              where + "\"swappedRows\": parameter \"second\" is at byte 0 of the block the table lays out, but at "
                      "byte 4 of the struct: list the rows in the struct's member order, one per member");
    EXPECT_EQ(errorOf([&] { libs.shader("missingRow"); }),
              where + "\"missingRow\": the table lays out 4 bytes, but the struct has 20: a member after \"first\" "
                      "has no row");
    EXPECT_EQ(errorOf([&] { libs.shader("wrongTypeRow"); }),
              where + "\"wrongTypeRow\": parameter \"second\" takes 12 bytes as a vector, but its member takes 16: "
                      "give the row the member's type");
}

TEST(ShaderDeclarations, TableWithoutItsEndMarkerIsRefusedAtLink)
{
    mirt::ShaderLibraries libs;
    const std::string err = errorOf([&] { libs.link("libunended_table.so", {kDir}); });
    EXPECT_NE(err.find("libunended_table.so\": the checked declaration 1 (\"unended\"): the rows do not end with "
                       "DRUX_PARAM_END"),
              std::string::npos)
        << err;
    EXPECT_EQ(libs.library_count(), 0u);
}

TEST(ShaderDeclarations, PositionalTableIsSaidUncheckedOncePerLibrary)
{
    auto notes = [] {
        int n = 0;
        for (const mirt::Message &m : mirt::messages())
            n += m.text.find("positional form") != std::string::npos;
        return n;
    };
    mirt::clear_messages();
    mirt::ShaderLibraries libs;
    libs.link("libchecked_shaders.so", {kDir});
    EXPECT_EQ(notes(), 0);
    const std::string path = libs.link("libtest_shaders.so", {kDir});
    libs.link("libtest_shaders.so", {kDir});
    libs.shader("tint");
    libs.shader("checker");
    ASSERT_EQ(notes(), 1);
    EXPECT_NE(mirt::messages().back().text.find(path), std::string::npos);
    /* and the positional library still resolves and fills as before */
    Made made;
    const miTag fn = libs.instantiate("t", "tint", {"gain", "4"}, made.tags);
    EXPECT_EQ(at<float>(mirt::function(fn), 16), 4.0f);
    mirt::clear_messages();
}

} // namespace

namespace {

TEST(ShaderDeclarations, MessagesSayWhatToDo)
{
    mirt::ShaderLibraries libs;
    const std::string path = libs.link("libtest_shaders.so", {kDir});
    EXPECT_EQ(errorOf([&] { libs.shader("missingShader"); }),
              "symbol missing: shader \"missingShader\" is declared by \"" + path +
                  "\" but the library exports no function missingShader; define it as DRUX_SHADER_EXPORT miBoolean "
                  "missingShader(...) (extern \"C\" and visible, so that it keeps its name)");
    EXPECT_EQ(errorOf([&] { libs.shader("chcker"); }),
              "unknown shader \"chcker\": no linked library declares it (linked: " + path +
                  "); did you mean \"checker\"?");
    EXPECT_EQ(errorOf([&] { libs.shader("countedC"); }),
              "unknown shader \"countedC\": no linked library declares it (linked: " + path +
                  "); did you mean \"countedA\" or \"countedB\"?");
    EXPECT_EQ(errorOf([&] { libs.shader("zzzzzzzz"); }),
              "unknown shader \"zzzzzzzz\": no linked library declares it (linked: " + path + ")");
    EXPECT_EQ(errorOf([&] { libs.shader("mangledShader"); }),
              "symbol missing: shader \"mangledShader\" is declared by \"" + path +
                  "\" but the library exports no function mangledShader (the library has it as the C++ function "
                  "_Z13mangledShaderP7miColorP7miStatePv, whose name is mangled: declare it extern \"C\"); define it "
                  "as DRUX_SHADER_EXPORT miBoolean mangledShader(...) (extern \"C\" and visible, so that it keeps its "
                  "name)");
    EXPECT_EQ(errorOf([&] { libs.shader("hiddenInit"); }),
              "shader \"hiddenInit\" of \"" + path +
                  "\": hiddenInit_init (the library has it, but hidden: it is not exported), so the renderer would "
                  "never call it; define it as DRUX_SHADER_EXPORT void hiddenInit_init(...)");
    Made made;
    // A pass parameter names one of the scene's passes, once they are known.
    libs.instantiate("anyPass", "passUser", {"pass", "flake"}, made.tags);
    libs.set_pass_names({"beauty", "flakes"});
    EXPECT_EQ(errorOf([&] { libs.instantiate("p1", "passUser", {"pass", "flake"}, made.tags); }),
              "parameter \"pass\" names pass \"flake\", which the scene does not declare (its passes: beauty, "
              "flakes): add a `pass flake ROLE` line or name a declared pass; did you mean \"flakes\"?");
    libs.instantiate("p2", "passUser", {"pass", "flakes"}, made.tags);
    libs.instantiate("p3", "passUser", {}, made.tags);
    EXPECT_EQ(errorOf([&] { libs.instantiate("x", "tint", {"Gian", "1"}, made.tags); }),
              "unknown parameter \"Gian\" of shader \"tint\"; did you mean \"gain\"?");
}

} // namespace
