/*
 * Replaying one pixel sample: debugPixel gives exactly the values the full
 * render computed for that sample, and its trace names the shaders the
 * sample ran (material and lights on a surface, the environment alone on
 * the background) with the library calls each made nested under it.
 */
#include "render.h"
#include "runtime_fixture.h"
#include "scene.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

using namespace druxhost;

namespace {

class DebugPixel : public RuntimeTest {};

SceneDesc smallDefault(int samples)
{
    SceneDesc s = defaultScene();
    s.width = 48;
    s.height = 36;
    s.samples = samples;
    return s;
}

/* Nesting depth of a trace line (two spaces a level) and its text. */
int depthOf(const std::string &line) { return int(line.find_first_not_of(' ')) / 2; }
std::string textOf(const std::string &line) { return line.substr(line.find_first_not_of(' ')); }

/* True when a line starting with `call` sits directly under a line starting
   with `parent` (the nearest line one level up). */
bool callUnder(const std::vector<std::string> &trace, const std::string &parent, const std::string &call)
{
    for (size_t i = 0; i < trace.size(); ++i) {
        if (textOf(trace[i]).rfind(call, 0) != 0 || depthOf(trace[i]) == 0)
            continue;
        size_t up = i;
        while (up > 0 && depthOf(trace[up]) >= depthOf(trace[i]))
            --up;
        if (depthOf(trace[up]) == depthOf(trace[i]) - 1 && textOf(trace[up]).rfind(parent, 0) == 0)
            return true;
    }
    return false;
}

bool sameBits(const miColor &a, const miColor &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool traceHas(const std::vector<std::string> &trace, const std::string &prefix)
{
    for (const std::string &line : trace)
        if (line.find_first_not_of(' ') != std::string::npos &&
            line.compare(line.find_first_not_of(' '), prefix.size(), prefix) == 0)
            return true;
    return false;
}

/* With one sample a pixel is its sample: every pass and the main colour
   agree bit for bit; a covered pixel's trace starts at its material and
   calls lights, a background pixel runs the environment only. */
TEST_F(DebugPixel, ReplaysTheRenderedSampleAndNamesItsShaders)
{
    const SceneDesc s = smallDefault(1);
    const RenderResult full = render(s);
    const Image *coverage = full.pass("coverage");
    ASSERT_NE(coverage, nullptr);
    int surfaces = 0, backgrounds = 0, shadowsUnderCall = 0;
    for (int y = 2; y < s.height; y += 5)
        for (int x = 3; x < s.width; x += 7) {
            const PixelSample ps = debugPixel(s, x, y, 0);
            SCOPED_TRACE("pixel " + std::to_string(x) + "," + std::to_string(y));
            EXPECT_TRUE(sameBits(ps.main, full.main.at(x, y)));
            ASSERT_EQ(ps.passes.size(), full.passes.size());
            for (size_t p = 0; p < ps.passes.size(); ++p)
                EXPECT_TRUE(sameBits(ps.passes[p], full.passes[p].at(x, y))) << full.passNames[p];
            ASSERT_FALSE(ps.trace.empty());
            EXPECT_EQ(depthOf(ps.trace.front()), 0);
            for (size_t i = 1; i < ps.trace.size(); ++i) /* a line nests at most one level below the last */
                EXPECT_LE(depthOf(ps.trace[i]), depthOf(ps.trace[i - 1]) + 1) << i;
            if (coverage->at(x, y).r > 0) {
                ++surfaces;
                bool named = false;
                for (const MaterialDesc &m : s.materials)
                    named = named || ps.trace.front().rfind("material:" + m.name + " ", 0) == 0;
                EXPECT_TRUE(named) << ps.trace.front();
                EXPECT_TRUE(traceHas(ps.trace, "light:" + s.lights.front().name)) << ps.trace.size();
                /* the library calls sit under the shader that made them */
                EXPECT_TRUE(callUnder(ps.trace, "material:", "getFrameBufferInfo")) << ps.trace.size();
                EXPECT_TRUE(callUnder(ps.trace, "material:", "sampleLightEnd")) << ps.trace.size();
                EXPECT_TRUE(callUnder(ps.trace, "material:", "bc_composite")) << ps.trace.size();
                EXPECT_TRUE(callUnder(ps.trace, "light:", "setupLightContributions")) << ps.trace.size();
                EXPECT_TRUE(callUnder(ps.trace, "light:", "traceShadow")) << ps.trace.size();
                EXPECT_FALSE(callUnder(ps.trace, "material:", "traceShadow")) << ps.trace.size();
                /* shaders a call runs sit under the call */
                shadowsUnderCall += callUnder(ps.trace, "traceShadow", "shadow:");
            } else {
                ++backgrounds;
                /* the environment alone, with the library calls it made */
                EXPECT_EQ(ps.trace.front().rfind("environment:", 0), 0u) << ps.trace.front();
                EXPECT_TRUE(callUnder(ps.trace, "environment:", "getFrameBufferInfo")) << ps.trace.size();
                for (size_t i = 1; i < ps.trace.size(); ++i)
                    EXPECT_TRUE(depthOf(ps.trace[i]) >= 1 && textOf(ps.trace[i]).find(':') == std::string::npos)
                        << ps.trace[i];
            }
        }
    EXPECT_GT(surfaces, 0);
    EXPECT_GT(backgrounds, 0);
    EXPECT_GT(shadowsUnderCall, 0);
}

/* Sample S is the render's sample S: two replayed samples average to the
   rendered pixel (the same float operations in the same order). */
TEST_F(DebugPixel, SamplesAverageToThePixel)
{
    const SceneDesc s = smallDefault(2);
    const RenderResult full = render(s);
    int differ = 0;
    for (int y = 1; y < s.height; y += 6)
        for (int x = 2; x < s.width; x += 9) {
            const miColor a = debugPixel(s, x, y, 0).main, b = debugPixel(s, x, y, 1).main;
            const miColor mean{(0.0f + a.r + b.r) * 0.5f, (0.0f + a.g + b.g) * 0.5f, (0.0f + a.b + b.b) * 0.5f,
                               (0.0f + a.a + b.a) * 0.5f};
            EXPECT_TRUE(sameBits(mean, full.main.at(x, y))) << x << "," << y;
            differ += !sameBits(a, b);
        }
    EXPECT_GT(differ, 0); /* the two samples lie at different sub-pixel positions */
}

TEST_F(DebugPixel, RejectsPixelsAndSamplesOutsideTheImage)
{
    const SceneDesc s = smallDefault(2);
    EXPECT_THROW(debugPixel(s, s.width, 0, 0), std::runtime_error);
    EXPECT_THROW(debugPixel(s, 0, -1, 0), std::runtime_error);
    EXPECT_THROW(debugPixel(s, 0, 0, 2), std::runtime_error);
}

#ifdef DRUXRENDER_PATH
/* The command line prints the trace and the sample's values with every
   float's digits: a covered pixel names its material, and the printed main
   colour is the full render's pixel. */
TEST_F(DebugPixel, CommandLinePrintsTraceAndValues)
{
    const SceneDesc s = smallDefault(1);
    const RenderResult full = render(s);
    int x = -1, y = s.height / 2;
    for (int i = 0; i < s.width && x < 0; ++i)
        if (full.pass("coverage")->at(i, y).r > 0)
            x = i;
    ASSERT_GE(x, 0);
    // The replay runs the shaders on the main thread, which gives it dynamic
    // thread-local storage of the shader libraries; LeakSanitizer's exit
    // walk of that storage crashes once the libraries are unloaded, so the
    // leak check is left to the in-process tests (harmless without ASan).
    const std::string cmd = "ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0\" " +
                            std::string(DRUXRENDER_PATH) + " --resolution 48x36 --samples 1 --debug-pixel " +
                            std::to_string(x) + "," + std::to_string(y) + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string text;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
        text.append(buf, n);
    ASSERT_EQ(pclose(p), 0) << text;
    EXPECT_NE(text.find("\n  material:"), std::string::npos) << text;
    EXPECT_NE(text.find("light:"), std::string::npos) << text;
    EXPECT_NE(text.find("sampleLightEnd"), std::string::npos) << text;
    const size_t at = text.find("\n  main ");
    ASSERT_NE(at, std::string::npos) << text;
    std::istringstream values(text.substr(at + 7));
    miColor c;
    values >> c.r >> c.g >> c.b >> c.a;
    EXPECT_TRUE(sameBits(c, full.main.at(x, y))) << text.substr(at);
}
#endif

} // namespace
