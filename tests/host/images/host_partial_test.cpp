/*
 * Parts of a render: regions rendered alone and resumed renders give the
 * whole render's pixels bit for bit; partial files merge into exactly the
 * whole render's files, and parts that do not make one render are refused
 * with the files named.
 */
#if __has_include("render.h")

#include "host_test_scene.h"

#include "image_stats.h"
#include "partial.h"

#include <csignal>

namespace {

class Parts : public RuntimeTest {
protected:
    static SceneDesc scene()
    {
        SceneDesc s = testScene();
        s.width = 24;
        s.height = 20;
        return s;
    }
    static RenderResult renderPart(const SceneDesc &s, const Region &region, const std::vector<Region> &skip = {})
    {
        RenderOptions o;
        o.threads = 2;
        o.tileSize = 8;
        o.region = region;
        o.skip = skip;
        return render(s, o);
    }
    std::string dir()
    {
        if (dir_.empty()) {
            char tmpl[] = "/tmp/druxparts_XXXXXX";
            EXPECT_NE(mkdtemp(tmpl), nullptr);
            dir_ = tmpl;
        }
        return dir_;
    }
    void finish() override
    {
        if (!dir_.empty()) {
            EXPECT_EQ(std::system(("rm -rf " + dir_).c_str()), 0);
        }
    }
    /* Writes a band of the scene as a partial; its path. */
    std::string band(const SceneDesc &s, int index, int count, const std::string &name = "")
    {
        const RenderResult r = renderPart(s, tileBand(s.width, s.height, index, count, 8));
        const std::string path =
            dir() + "/" + (name.empty() ? "tile-" + std::to_string(index) + "-of-" + std::to_string(count) : name) +
            ".exr";
        writePartial(path, r, PartialInfo{r.fingerprint, "tile", s.width, s.height, r.covered});
        return path;
    }
    static std::string refusal(const std::vector<std::string> &paths)
    {
        try {
            mergePartials(paths);
        } catch (const PartialError &e) {
            return e.what();
        }
        return "(merged)";
    }

private:
    std::string dir_;
};

/* Every layer of `part` equals the same pixels of `whole` inside the
   regions `only`, and is zero elsewhere. */
void expectPixelsOf(const RenderImages &whole, const RenderImages &part, const std::vector<Region> &only)
{
    std::vector<std::pair<const Image *, const Image *>> pairs{{&whole.main, &part.main}};
    for (size_t p = 0; p < whole.passes.size(); ++p)
        pairs.emplace_back(&whole.passes[p], &part.passes[p]);
    for (size_t m = 0; m < whole.mattes.size(); ++m)
        for (size_t l = 0; l < whole.mattes[m].layers.size(); ++l)
            pairs.emplace_back(&whole.mattes[m].layers[l], &part.mattes[m].layers[l]);
    int differ = 0;
    for (const auto &pr : pairs)
        for (int y = 0; y < pr.second->height; ++y)
            for (int x = 0; x < pr.second->width; ++x) {
                const int wx = x + part.originX, wy = y + part.originY;
                const bool inside =
                    std::any_of(only.begin(), only.end(), [&](const Region &o) { return o.contains(wx, wy); });
                const miColor want = inside ? pr.first->at(wx, wy) : miColor{0, 0, 0, 0};
                const miColor got = pr.second->at(x, y);
                differ += std::memcmp(&want, &got, sizeof want) != 0;
            }
    EXPECT_EQ(differ, 0) << "part at " << part.originX << "," << part.originY;
}

TEST_F(Parts, RegionsAndResumedRendersAreTheWholeRenderBitForBit)
{
    const SceneDesc s = scene();
    const RenderResult whole = renderWith(s, 2, 8);
    EXPECT_EQ(whole.covered.size(), 3u); /* three rows of tiles, each joined into one rectangle */

    // Regions aligned to tiles and not: the same pixels, origin at the corner.
    for (const Region r : {Region{0, 8, 24, 16}, Region{3, 5, 17, 19}, Region{23, 19, 24, 20}}) {
        const RenderResult part = renderPart(s, r);
        ASSERT_EQ(part.main.width, r.width());
        ASSERT_EQ(part.main.height, r.height());
        EXPECT_EQ(part.originX, r.x0);
        EXPECT_EQ(part.originY, r.y0);
        EXPECT_EQ(part.fingerprint, whole.fingerprint);
        EXPECT_EQ(part.stats.eyeSamples, uint64_t(r.width() * r.height() * s.samples));
        int area = 0;
        for (const Region &c : part.covered) {
            EXPECT_TRUE(intersect(c, r) == c) << describe(c);
            area += c.width() * c.height();
        }
        EXPECT_EQ(area, r.width() * r.height());
        expectPixelsOf(whole, part, {r});
    }

    // Resuming: the tiles wholly inside what was rendered before are left
    // out (zero), every other one is rendered as in the whole render.
    const std::vector<Region> before{Region{0, 0, 16, 8}, Region{8, 8, 24, 20}};
    const RenderResult rest = renderPart(s, Region(), before);
    EXPECT_EQ(rest.stats.eyeSamples, uint64_t((24 * 20 - 16 * 8 - 16 * 12) * s.samples));
    for (const Region &c : rest.covered)
        for (const Region &b : before)
            EXPECT_TRUE(intersect(c, b).empty()) << describe(c) << " was rendered before";
    expectPixelsOf(whole, rest, {Region{16, 0, 24, 8}, Region{0, 8, 8, 20}});
    RenderResult merged = rest;
    copyCovered(whole, before, merged);
    for (size_t p = 0; p < whole.passes.size(); ++p)
        EXPECT_TRUE(sameBits(merged.passes[p], whole.passes[p])) << whole.passNames[p];
    EXPECT_TRUE(sameBits(merged.mattes[1].layers[0], whole.mattes[1].layers[0]));

    // A stop before any tile: kept on stop, the result says so and covers nothing.
    const std::atomic<int> stop{SIGINT};
    RenderOptions o;
    o.stop = &stop;
    o.keepOnStop = true;
    const RenderResult stopped = render(s, o);
    EXPECT_EQ(stopped.interrupted, SIGINT);
    EXPECT_TRUE(stopped.covered.empty());
    o.keepOnStop = false;
    EXPECT_THROW(render(s, o), RenderInterrupted);
}

TEST(PartsBands, BandsCoverEveryRowOnceInTileRowsWherePossible)
{
    for (int height : {1, 7, 20, 480, 481})
        for (int count = 1; count <= std::min(height, 40); ++count) {
            int next = 0;
            for (int i = 1; i <= count; ++i) {
                const Region b = tileBand(33, height, i, count, 16);
                EXPECT_EQ(b.y0, next) << height << " " << i << "/" << count;
                EXPECT_FALSE(b.empty()) << height << " " << i << "/" << count;
                EXPECT_EQ(b.x0, 0);
                EXPECT_EQ(b.x1, 33);
                if (count <= (height + 15) / 16 && i < count) {
                    EXPECT_EQ(b.y1 % 16, 0) << height << " " << i << "/" << count;
                }
                next = b.y1;
            }
            EXPECT_EQ(next, height) << height << " " << count;
        }
}

TEST_F(Parts, MergedPartsAreTheWholeRendersFiles)
{
    const SceneDesc s = scene();
    const RenderResult whole = renderWith(s, 2, 8);
    std::vector<std::string> parts;
    for (int i = 1; i <= 3; ++i)
        parts.push_back(band(s, i, 3));

    // A part's header: its region, the whole image, the names its pixels hold.
    ExrWindow window;
    const auto layers = readExr(parts[0], &window);
    EXPECT_EQ(window.displayWidth, 24);
    EXPECT_EQ(window.displayHeight, 20);
    EXPECT_EQ(window.y0, 0);
    EXPECT_EQ(layers.front().second.height, tileBand(24, 20, 1, 3, 8).height());
    std::map<std::string, std::string> attr;
    for (const auto &a : readExrAttributes(parts[2]))
        attr.insert(a);
    EXPECT_EQ(attr["druxrender/fingerprint"], whole.fingerprint);
    const std::string manifest = attr["cryptomatte/" + whole.mattes[0].key() + "/manifest"];
    std::vector<bool> seen(whole.mattes[0].names.size(), false);
    const Region last = tileBand(24, 20, 3, 3, 8);
    for (int y = last.y0; y < last.y1; ++y)
        for (int x = 0; x < 24; ++x)
            for (size_t n = 0; n < seen.size(); ++n)
                seen[n] = seen[n] || whole.mattes[0].coverage(x, y, whole.mattes[0].ids[n]) > 0;
    EXPECT_EQ(manifest, whole.mattes[0].manifest(&seen));
    EXPECT_NE(std::count(seen.begin(), seen.end(), false), 0) << "the band should miss an instance";

    // Merged in any order: the same images, and the same files byte for byte.
    std::string fingerprint;
    const RenderImages merged = mergePartials({parts[2], parts[0], parts[1]}, &fingerprint);
    EXPECT_EQ(fingerprint, whole.fingerprint);
    expectPixelsOf(whole, merged, {Region{0, 0, 24, 20}});
    for (size_t m = 0; m < whole.mattes.size(); ++m)
        EXPECT_EQ(merged.mattes[m].manifest(), whole.mattes[m].manifest());
    writeOutputs(whole, dir());
    const std::string mergedDir = dir() + "/merged";
    ASSERT_EQ(::mkdir(mergedDir.c_str(), 0777), 0);
    mergeAndWrite(parts, mergedDir, mergedDir + "/stats.txt");
    for (const std::string &f : outputFileNames(whole.passNames)) {
        const std::string bytes = readFile(dir() + "/" + f);
        EXPECT_TRUE(bytes == readFile(mergedDir + "/" + f) && !bytes.empty()) << f;
    }
    EXPECT_EQ(readFile(mergedDir + "/stats.txt"), formatStats(imageStats(whole)));
}

TEST_F(Parts, PartsThatDoNotMakeOneRenderAreRefusedByName)
{
    const SceneDesc s = scene();
    std::vector<std::string> parts;
    for (int i = 1; i <= 3; ++i)
        parts.push_back(band(s, i, 3));
    auto expectSays = [](const std::string &msg, const std::vector<std::string> &words) {
        for (const std::string &w : words)
            EXPECT_NE(msg.find(w), std::string::npos) << "\"" << w << "\" not in: " << msg;
    };
    const Region third = tileBand(24, 20, 3, 3, 8);

    expectSays(refusal({parts[0], parts[1]}),
               {"no part holds the pixels in " + describe(third), "a tile is missing", parts[0]});
    expectSays(refusal({parts[0], parts[1], parts[1], parts[2]}), {parts[1] + " and " + parts[1], "both hold pixel"});
    expectSays(refusal({}), {"no partial"});

    // Another render: other samples, another pass list.
    SceneDesc other = s;
    other.samples = 1;
    const std::string foreign = band(other, 2, 3, "other-samples");
    expectSays(refusal({parts[0], foreign, parts[2]}),
               {foreign + " and " + parts[0], "parts of different renders", "fingerprints"});
    other = s;
    other.passes.pop_back();
    expectSays(refusal({parts[0], band(other, 2, 3, "fewer-passes"), parts[2]}), {"parts of different renders"});

    // Damaged files: cut short, a byte changed inside the pixels, a whole
    // render's EXR, no file at all.
    const std::string bytes = readFile(parts[1]);
    const std::string cut = dir() + "/cut.exr", flipped = dir() + "/flipped.exr";
    std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() * 2 / 3);
    std::string changed = bytes;
    changed[changed.size() - 40] ^= 0x10;
    std::ofstream(flipped, std::ios::binary) << changed;
    // Whole as a file but one pixel changed since it was written (the
    // header's checksum no longer matches).
    const std::string edited = dir() + "/edited.exr";
    {
        ExrWindow w;
        auto layers = readExr(parts[1], &w);
        layers[3].second.rgba[17] += 0.5f;
        std::vector<Layer> out;
        for (const auto &l : layers)
            out.push_back(Layer{l.first, &l.second});
        writeExr(edited, out, readExrAttributes(parts[1]), w);
    }
    for (const std::string &bad : {cut, flipped, edited, dir() + "/none.exr"})
        expectSays(refusal({parts[0], bad, parts[2]}), {bad + " is not a whole partial render", "render that part again"});
    writeOutputs(renderWith(s, 2, 8), dir());
    expectSays(refusal({dir() + "/render.exr"}), {dir() + "/render.exr is not a partial render"});

    // Nothing written when refused.
    const std::string out = dir() + "/refused";
    ASSERT_EQ(::mkdir(out.c_str(), 0777), 0);
    EXPECT_THROW(mergeAndWrite({parts[0], parts[1]}, out, ""), PartialError);
    struct stat st;
    EXPECT_NE(::stat((out + "/render.exr").c_str(), &st), 0);
}

} // namespace

#else
#include <gtest/gtest.h>
TEST(Parts, NotBuilt) { GTEST_SKIP() << "the host is not built"; }
#endif
