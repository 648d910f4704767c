/*
 * druxrender --describe: a library's shaders with their parameters, types,
 * sizes, defaults and versions, one shader found by name along the shader
 * path, a close name suggested for a misspelt one; and --debug-pixel naming
 * the shaders of linked libraries, connected ones nested under the material
 * that evaluates them.
 */
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/wait.h>

namespace {

const std::string kDir = DRUX_TEST_SHADER_DIR;

struct Outcome {
    int status = -1;
    std::string out; /* stdout and stderr */
};

Outcome druxrender(const std::string &args)
{
    Outcome r;
    FILE *p = ::popen((std::string(DRUXRENDER_PATH) + " " + args + " 2>&1").c_str(), "r");
    if (!p)
        return r;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0)
        r.out.append(buf.data(), n);
    const int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

TEST(HostDescribe, ListsALibrarysShadersWithTheirParameters)
{
    const Outcome r = druxrender("--describe libchecked_shaders.so --shader-path " + kDir);
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string want = "library " + kDir + "/libchecked_shaders.so\n"
                             "shader rampAt  version 3  returns color  5 parameters, 176 bytes, layout checked "
                             "against its struct\n"
                             "  at                  scalar            default 0.5\n"
                             "  tint                color             default 1 1 1\n"
                             "  weights             scalar[3]         default [ 2 ]\n"
                             "  colours             color ramp[4]     default ramp 0 0 0 0 1 linear ramp 1 1 0.5 "
                             "0.25 1 linear\n"
                             "  values              scalar ramp[2]    default ramp 0 10 none\n"
                             "shader swappedRows: cannot be used: shader library \"";
    EXPECT_EQ(r.out.substr(0, want.size()), want) << r.out;
    EXPECT_NE(r.out.find("\nshader wrongTypeRow: cannot be used: "), std::string::npos) << r.out;
}

TEST(HostDescribe, OneShaderByNameAlongTheShaderPath)
{
    const Outcome r = druxrender("--describe tint --shader-path /nonexistent:" + kDir);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "library " + kDir + "/libtest_shaders.so\n"
                     "shader tint  version 1  returns color  2 parameters, 20 bytes, layout unchecked (positional "
                     "table)\n"
                     "  base                color             default 0.5 0.5 0.5\n"
                     "  gain                scalar            default 2\n");
    const Outcome typo = druxrender("--describe tnit --shader-path " + kDir);
    EXPECT_EQ(typo.status, 2);
    EXPECT_NE(typo.out.find("no shader library on the shader path declares shader \"tnit\" (searched: " + kDir),
              std::string::npos)
        << typo.out;
    EXPECT_NE(typo.out.find("did you mean \"tint\"?"), std::string::npos) << typo.out;
    EXPECT_NE(typo.out.find("--shader-path or DRUX_SHADER_PATH"), std::string::npos) << typo.out;
}

TEST(HostDescribe, DebugPixelTraceShowsLibraryAndConnectedShaders)
{
    char tmpl[] = "/tmp/drux_describe_XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    std::ofstream(dir + "/lib.scene") << "link \"libdruxhostshaders.so\"\nlink \"libtest_shaders.so\"\n"
                                         "resolution 8 8\nsamples 1\n"
                                         "camera position 0 -5 0 target 0 0 0 up 0 0 1 fov 40\n"
                                         "shader chk checker a 0.25 0.25 0.25 b 0.25 0.25 0.25\n"
                                         "shader mat tint base = chk gain 2\n"
                                         "material m shader mat\n"
                                         "mesh quad plane 40 40 1 1\n"
                                         "instance q mesh quad material m rotate x 90\n";
    const Outcome r = druxrender("--scene " + dir + "/lib.scene --shader-path " + kDir + " --debug-pixel 4,4");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\n  material:m (mat: tint of libtest_shaders.so) -> true (0.5 0.5 0.5 1)\n"
                         "    shader:chk (checker of libtest_shaders.so) -> true (0.25 0.25 0.25 1)\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

} // namespace
