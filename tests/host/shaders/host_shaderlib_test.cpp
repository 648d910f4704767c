/*
 * druxrender's shader libraries: the default scene through the linked host
 * library gives the stored image bit for bit; a scene's own shader instances
 * render; link and instance errors carry the scene line.
 */
#include "expect_values.h"
#include "image_stats.h"
#include "render.h"
#include "runtime.h"
#include "scene.h"
#include "shader_loader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

using namespace druxhost;

namespace {

RenderOptions options()
{
    RenderOptions ro;
    ro.threads = 2;
    ro.shaderPath = {DRUX_TEST_SHADER_DIR};
    return ro;
}

/* Regenerate after a deliberate change of the default image:
   build/release/host/druxrender --quiet --no-progress --resolution 160x120 --samples 2 \
       --out /tmp/stats --image-stats tests/data/default_scene.stats */
TEST(HostShaderLibrary, DefaultSceneMatchesStoredStatistics)
{
    std::ifstream in(std::string(DRUX_SOURCE_DIR) + "/tests/data/default_scene.stats");
    std::stringstream text;
    text << in.rdbuf();
    const std::vector<LayerStats> stored = parseStats(text.str());
    ASSERT_FALSE(stored.empty());

    SceneDesc s = defaultScene();
    ASSERT_EQ(s.links.size(), 1u);
    EXPECT_EQ(s.links[0].file, "libdruxhostshaders.so");
    s.width = 160;
    s.height = 120;
    s.samples = 2;
    const std::vector<LayerStats> now = imageStats(render(s, options()));
    ASSERT_EQ(now.size(), stored.size());
    for (size_t k = 0; k < now.size(); ++k) {
        EXPECT_EQ(now[k].name, stored[k].name);
        EXPECT_EQ(now[k].hash, stored[k].hash) << now[k].name << " differs from the stored image";
        for (int c = 0; c < 4; ++c)
            EXPECT_NEAR(now[k].mean[c], stored[k].mean[c], 1e-6 * std::max(1.0, std::fabs(stored[k].mean[c])))
                << now[k].name; // the depth of a missed sample is the largest float
    }
}

const char *kGenericScene = R"(link "libdruxhostshaders.so"
link "libtest_shaders.so"
resolution 8 8
samples 1
camera position 0 0 5 target 0 0 0 up 0 1 0 fov 20
shader chk checker a 0.1 0.2 0.3 b 0.1 0.2 0.3
shader mat tint base = chk gain 2
material m shader mat
mesh quad plane 4 4 1 1
instance q mesh quad material m
pass beauty beauty
)";

TEST(HostShaderLibrary, SceneShaderInstancesShadeThroughConnections)
{
    const SceneDesc s = parseScene(kGenericScene);
    ASSERT_EQ(s.shaders.size(), 2u);
    EXPECT_EQ(parseScene(writeScene(s)).shaders[1].values, s.shaders[1].values);
    const RenderResult r = render(s, options());
    expectRGB(r.main.at(4, 4), 0.2f, 0.4f, 0.6f, kUlps);
    EXPECT_EQ(r.stats.pinsAfter, 0);
}

TEST(HostShaderLibrary, SearchOrderSceneFolderOptionsEnvironmentRendererLib)
{
    SceneDesc s;
    s.directory = "/scenes/here";
    RenderOptions ro;
    ro.shaderPath = {"/opt/a", "/opt/b"};
    const char *saved = std::getenv("DRUX_SHADER_PATH");
    const std::string keep = saved ? saved : "";
    setenv("DRUX_SHADER_PATH", "/env/one::/env/two", 1);
    const std::vector<std::string> folders = shaderSearchPath(s, ro);
    if (saved)
        setenv("DRUX_SHADER_PATH", keep.c_str(), 1);
    else
        unsetenv("DRUX_SHADER_PATH");
    ASSERT_EQ(folders.size(), 6u);
    EXPECT_EQ(folders[0], "/scenes/here");
    EXPECT_EQ(folders[1], "/opt/a");
    EXPECT_EQ(folders[2], "/opt/b");
    EXPECT_EQ(folders[3], "/env/one");
    EXPECT_EQ(folders[4], "/env/two");
    EXPECT_EQ(folders[5], mirt::renderer_library_dir()); /* where libmiplatform.so is: an install's lib/ */
    EXPECT_NE(folders[5].find('/'), std::string::npos);
}

int errorLine(const std::string &text, std::string &message)
{
    try {
        render(parseScene(text), options());
    } catch (const SceneError &e) {
        message = e.what();
        return e.line();
    }
    message = "(no error)";
    return -1;
}

TEST(HostShaderLibrary, ErrorsCarryTheSceneLineAndStopBeforeRendering)
{
    const int64_t memory = mirt::mem_live_bytes_total();
    std::string m;
    std::string text = kGenericScene;
    text.replace(text.find("libtest_shaders.so"), 18, "libmissing.so");
    EXPECT_EQ(errorLine(text, m), 2);
    EXPECT_NE(m.find("shader library \"libmissing.so\" not found; searched: " + std::string(DRUX_TEST_SHADER_DIR)),
              std::string::npos)
        << m;

    text = kGenericScene;
    text.replace(text.find("gain 2"), 6, "gain high");
    EXPECT_EQ(errorLine(text, m), 7);
    EXPECT_EQ(m, "wrong type: parameter \"gain\" is scalar, \"high\" is not a number");

    text = kGenericScene;
    text.replace(text.find("tint base"), 9, "tint colour");
    EXPECT_EQ(errorLine(text, m), 7);
    EXPECT_EQ(m, "unknown parameter \"colour\" of shader \"tint\"");

    text = kGenericScene;
    text.replace(text.find("link \"libdruxhostshaders.so\"\n"), 29, "");
    EXPECT_EQ(errorLine(text, m), 0);
    EXPECT_NE(m.find("symbol missing: druxhost_builtin_shaders"), std::string::npos) << m;

    EXPECT_EQ(mirt::mem_live_bytes_total(), memory);
    EXPECT_EQ(mirt::db_total_pins(), 0);
}

} // namespace
