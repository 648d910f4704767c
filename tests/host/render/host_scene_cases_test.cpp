/*
 * Render cases as data: every tests/scenes/NAME.scene is rendered and its
 * pixels compared with NAME.expected beside it, one test per scene.
 *
 * An expected-values file holds, one per line ('#' starts a comment):
 *   PASS X Y R G B TOLERANCE   the pass's colour at pixel (X, Y)
 *   alpha PASS X Y VALUE       its alpha there, exactly
 * The values are worked out by hand from the scene, not taken from a render.
 */
#if __has_include("render.h")

#include "render.h"
#include "scene.h"

#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace druxhost;

namespace {

const std::string kSceneDir = std::string(DRUX_SOURCE_DIR) + "/tests/scenes/";

std::vector<std::string> sceneNames()
{
    std::vector<std::string> names;
    if (DIR *d = opendir(kSceneDir.c_str())) {
        while (const dirent *e = readdir(d)) {
            const std::string f = e->d_name;
            const std::string ext = ".scene";
            if (f.size() > ext.size() && f.compare(f.size() - ext.size(), ext.size(), ext) == 0)
                names.push_back(f.substr(0, f.size() - ext.size()));
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class SceneCase : public RuntimeTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(SceneCase, PixelsMatchTheExpectedValues)
{
    const std::string name = GetParam();
    std::ifstream expected(kSceneDir + name + ".expected");
    ASSERT_TRUE(expected) << "no " << name << ".expected beside the scene";

    const SceneDesc scene = loadScene(kSceneDir + name + ".scene");
    RenderOptions o;
    o.threads = 1;
    o.tileSize = 8;
    const RenderResult r = render(scene, o);
    EXPECT_EQ(r.stats.errors, 0u);

    std::string line;
    int lineNo = 0, checks = 0;
    while (std::getline(expected, line)) {
        ++lineNo;
        line = line.substr(0, line.find('#'));
        std::istringstream in(line);
        std::string word;
        if (!(in >> word))
            continue;
        const std::string where = name + ".expected:" + std::to_string(lineNo);
        std::string passName = word;
        const bool alpha = word == "alpha";
        if (alpha)
            in >> passName;
        int x = -1, y = -1;
        in >> x >> y;
        const Image *img = r.pass(passName);
        ASSERT_NE(img, nullptr) << where << ": no pass \"" << passName << "\"";
        ASSERT_TRUE(x >= 0 && y >= 0 && x < img->width && y < img->height) << where << ": pixel outside";
        if (alpha) {
            float a = -1;
            ASSERT_TRUE(in >> a) << where << ": expected an alpha value";
            EXPECT_EQ(img->at(x, y).a, a) << where;
        } else {
            float rgb[3], tol = -1;
            ASSERT_TRUE(in >> rgb[0] >> rgb[1] >> rgb[2] >> tol) << where << ": expected r g b tolerance";
            expectRGB(img->at(x, y), rgb[0], rgb[1], rgb[2], tol, where.c_str());
        }
        ++checks;
    }
    EXPECT_GT(checks, 0) << name << ".expected checks nothing";
}

INSTANTIATE_TEST_SUITE_P(Scenes, SceneCase, ::testing::ValuesIn(sceneNames()),
                         [](const ::testing::TestParamInfo<std::string> &i) { return i.param; });

} // namespace

#else
#include <gtest/gtest.h>
TEST(HostSceneCases, NotBuilt)
{
    GTEST_SKIP() << "the host is not built (-DDRUX_BUILD_HOST=OFF)";
}
#endif
