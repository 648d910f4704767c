/*
 * The host's output files: the images written, the files probed before a
 * render, the sRGB encoding.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "host_test_scene.h"

namespace {

TEST_F(HostRender, OutputFilesHoldTheImages)
{
    SceneDesc s = testScene();
    s.width = 12;
    s.height = 9;
    s.samples = 1;
    const RenderResult r = renderWith(s, 2);
    char tmpl[] = "/tmp/druxhost_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::vector<std::string> files = writeOutputs(r, dir);
    EXPECT_EQ(files.size(), 3u + r.passes.size()); /* main.png, contact.png, render.exr */

    const auto layers = readExr(dir + "/render.exr");
    ASSERT_EQ(layers.size(), 1u + r.passes.size() + 6u); /* and three layers per ID matte */
    for (const auto &l : layers) {
        const Image *want = l.first.empty() ? &r.main : r.pass(l.first);
        for (const CryptoMatte &m : r.mattes)
            for (int k = 0; k < 3; ++k)
                if (l.first == m.layerName(k))
                    want = &m.layers[size_t(k)];
        ASSERT_NE(want, nullptr) << "layer " << l.first;
        EXPECT_TRUE(sameBits(l.second, *want)) << "layer " << l.first;
    }
    int w = 0, h = 0;
    const std::vector<unsigned char> px = readPng(dir + "/beauty.png", w, h);
    ASSERT_EQ(w, 12);
    ASSERT_EQ(h, 9);
    const miColor c = r.pass("beauty")->at(5, 4);
    EXPECT_EQ(px[(4 * 12 + 5) * 3], srgbByte(c.r));
    EXPECT_EQ(px[(4 * 12 + 5) * 3 + 2], srgbByte(c.b));
    for (const std::string &f : files)
        std::remove(f.c_str());
    EXPECT_THROW(writePng("/nonexistent/dir/x.png", r.main), std::runtime_error);
    EXPECT_THROW(readExr("/nonexistent/dir/x.exr"), std::runtime_error);

    // A folder that went away during the render: the images land in a new
    // folder under the temporary directory (here TMPDIR = dir), complete.
    const char *keptTmp = std::getenv("TMPDIR");
    const std::string savedTmp = keptTmp ? keptTmp : "";
    ::setenv("TMPDIR", dir.c_str(), 1);
    const WrittenOutputs fb = writeOutputsOrFallback(r, dir + "/removed");
    EXPECT_NE(fb.failure.find("removed"), std::string::npos) << fb.failure;
    EXPECT_EQ(fb.dir.rfind(dir + "/druxrender-", 0), 0u) << fb.dir;
    ASSERT_EQ(fb.files.size(), files.size());
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(fb.files[i], fb.dir + files[i].substr(dir.size())) << i;
    const auto again = readExr(fb.dir + "/render.exr");
    size_t matteLayers = 0;
    for (const CryptoMatte &m : r.mattes)
        matteLayers += m.layers.size();
    ASSERT_EQ(again.size(), 1u + r.passes.size() + matteLayers);
    EXPECT_TRUE(sameBits(again[0].second, r.main));
    for (const std::string &f : fb.files)
        EXPECT_EQ(std::remove(f.c_str()), 0) << f;
    ::rmdir(fb.dir.c_str());
    // Written where asked, nothing falls back.
    const WrittenOutputs direct = writeOutputsOrFallback(r, dir);
    EXPECT_EQ(direct.failure, "");
    EXPECT_EQ(direct.dir, dir);
    for (const std::string &f : direct.files)
        EXPECT_EQ(std::remove(f.c_str()), 0) << f;
    // No temporary folder either: the error says both.
    ::setenv("TMPDIR", (dir + "/missing").c_str(), 1);
    EXPECT_THROW(writeOutputsOrFallback(r, dir + "/removed"), std::runtime_error);
    if (keptTmp)
        ::setenv("TMPDIR", savedTmp.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    EXPECT_EQ(::rmdir(dir.c_str()), 0) << "something was left behind";
}

TEST(HostOutputs, EveryFileIsProbedBeforeRendering)
{
    char tmpl[] = "/tmp/druxhost_probe_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::vector<std::string> names = outputFileNames({"beauty", "shadow"});
    ASSERT_EQ(names, (std::vector<std::string>{"render.exr", "main.png", "beauty.png", "shadow.png", "contact.png"}));

    // All writable: nothing is left behind, an earlier render's file is kept.
    EXPECT_EQ(probeOutputs(dir, names), "");
    {
        std::ofstream(dir + "/main.png") << "earlier";
    }
    EXPECT_EQ(probeOutputs(dir, names), "");
    std::ifstream earlier(dir + "/main.png");
    std::string text;
    earlier >> text;
    EXPECT_EQ(text, "earlier");
    EXPECT_EQ(std::remove((dir + "/main.png").c_str()), 0);

    // A folder in the way of one file (refused even for the superuser).
    ASSERT_EQ(::mkdir((dir + "/shadow.png").c_str(), 0777), 0);
    const std::string why = probeOutputs(dir, names);
    EXPECT_NE(why.find(dir + "/shadow.png"), std::string::npos) << why;
    EXPECT_NE(probeOutputs(dir + "/missing", names), "");
    ::rmdir((dir + "/shadow.png").c_str());

#ifdef DRUXRENDER_PATH
    // The renderer refuses with status 2 and renders nothing.
    const std::string log = dir + "/log.txt";
    const std::string cmd = std::string(DRUXRENDER_PATH) + " --out " + dir +
                            " --resolution 8x6 --samples 1 --threads 1 --no-progress --quiet 2>" + log;
    std::vector<std::string> passNames;
    for (const PassDesc &p : defaultScene().passes)
        passNames.push_back(p.name);
    ASSERT_FALSE(passNames.empty());
    const std::string blocked = dir + "/" + passNames.back() + ".png";
    ASSERT_EQ(::mkdir(blocked.c_str(), 0777), 0);
    const int status = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    const std::string msg = readFile(log);
    EXPECT_NE(msg.find("cannot write " + blocked), std::string::npos) << msg;
    struct stat st;
    EXPECT_NE(::stat((dir + "/render.exr").c_str(), &st), 0) << "nothing may be written";
    std::remove(log.c_str());
    ::rmdir(blocked.c_str());
#endif
    EXPECT_EQ(::rmdir(dir.c_str()), 0) << "something was left behind";
}

TEST(HostImages, SrgbEncoding)
{
    EXPECT_EQ(srgbByte(0.0f), 0);
    EXPECT_EQ(srgbByte(-1.0f), 0);
    EXPECT_EQ(srgbByte(std::nanf("")), 0);
    EXPECT_EQ(srgbByte(1.0f), 255);
    EXPECT_EQ(srgbByte(7.5f), 255);
    EXPECT_EQ(srgbByte(0.18f), 118); /* middle grey */
    EXPECT_EQ(srgbByte(0.5f), 188);
    EXPECT_EQ(srgbByte(0.001f), 3); /* linear segment: 12.92 * 0.001 * 255 = 3.29 */
    // Every code as the formula gives it, over a sweep of the floats of
    // (0, 1) and one bit pattern either side of each code's first value.
    auto formula = [](float v) {
        const float s = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
        return static_cast<int>(std::lround(s * 255.0f));
    };
    int wrong = 0, firstWrong = -1;
    uint32_t prev = 0;
    for (uint32_t bits = 1; bits < 0x3f800000u; bits += 7919) {
        float v;
        std::memcpy(&v, &bits, sizeof v);
        const int want = formula(v);
        if (want != formula([&] { float p; std::memcpy(&p, &prev, sizeof p); return p; }()))
            for (uint32_t b = prev; b <= bits; ++b) { /* the step lies in between: check it bit by bit */
                float u;
                std::memcpy(&u, &b, sizeof u);
                if (u > 0.0f && srgbByte(u) != formula(u) && ++wrong == 1)
                    firstWrong = static_cast<int>(b);
            }
        if (srgbByte(v) != want && ++wrong == 1)
            firstWrong = static_cast<int>(bits);
        prev = bits;
    }
    EXPECT_EQ(wrong, 0) << "first at bit pattern " << firstWrong;
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostOutputs, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
