// What render passes cost: the default scene rendered on one thread with all
// its passes, with 31 light-group passes more (48 in all, so that the cost of
// one pass shows), with the beauty pass only and with no frame-buffer block at
// all (no passes, the library's state shader not installed).  The three variants
// are rendered in turn, several rounds, so that a slow phase of the machine
// touches all of them alike; the median of each is printed as seconds per
// megasample with the ratios to the render without a block.  Times are the
// process's CPU time over the whole render() call (set-up included), which
// other programs on a busy machine disturb far less than wall time; the
// render's own wall time of the sampling is printed beside it.  The whole
// process, writing the output files included, is timed as well (a render
// plus writeOutputs into a temporary folder).
//
//   render_bench [--rounds N] [--resolution WxH] [--samples N] [--threads N]
//                [--only all|48|beauty|none]
//
// Defaults: 5 rounds, 400x300, the scene's samples (4), 1 thread.  --only
// renders one variant (for profiling it).
#include "render.h"
#include "runtime.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <time.h>
#include <unistd.h>
#include <vector>

using namespace druxhost;

namespace {

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

double cpuSeconds()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

int positive(const char *s, const char *what)
{
    const int v = std::atoi(s);
    if (v < 1) {
        std::fprintf(stderr, "render_bench: %s needs a positive number\n", what);
        std::exit(2);
    }
    return v;
}

} // namespace

int main(int argc, char **argv)
{
    int rounds = 5, width = 400, height = 300, samples = 0, threads = 1;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--rounds" && v) {
            rounds = positive(v, "--rounds"), ++i;
        } else if (a == "--samples" && v) {
            samples = positive(v, "--samples"), ++i;
        } else if (a == "--threads" && v) {
            threads = positive(v, "--threads"), ++i;
        } else if (a == "--only" && v && (std::strcmp(v, "all") == 0 || std::strcmp(v, "48") == 0 ||
                                           std::strcmp(v, "beauty") == 0 || std::strcmp(v, "none") == 0)) {
            only = v, ++i;
        } else if (a == "--resolution" && v && std::sscanf(v, "%dx%d", &width, &height) == 2 && width > 0 &&
                   height > 0) {
            ++i;
        } else {
            std::fprintf(stderr, "usage: render_bench [--rounds N] [--resolution WxH] [--samples N] [--threads N] "
                                 "[--only all|48|beauty|none]\n");
            return 2;
        }
    }

    SceneDesc all = defaultScene();
    all.width = width;
    all.height = height;
    if (samples)
        all.samples = samples;
    SceneDesc many = all;
    static const char *const kGroups[] = {"key", "fill", "rim"};
    for (int k = 0; k < 31; ++k) {
        PassDesc p;
        p.name = "group" + std::to_string(k);
        p.role = PassRole::LightGroup;
        p.group = kGroups[k % 3];
        many.passes.push_back(p);
    }
    SceneDesc beauty = all;
    beauty.passes.erase(std::remove_if(beauty.passes.begin(), beauty.passes.end(),
                                       [](const PassDesc &p) { return p.role != PassRole::Beauty; }),
                        beauty.passes.end());
    for (InstanceDesc &inst : beauty.instances)
        inst.shadowPasses.clear();
    SceneDesc none = beauty;
    none.passes.clear();

    struct Variant {
        const char *name, *key;
        const SceneDesc *scene;
        std::vector<double> spm;  /* CPU seconds per megasample, one per round */
        std::vector<double> wall; /* wall seconds of the sampling per megasample */
        std::vector<double> whole; /* CPU seconds per megasample, files written too */
    };
    Variant variants[4] = {{"all passes", "all", &all, {}, {}, {}},
                           {"48 passes", "48", &many, {}, {}, {}},
                           {"beauty only", "beauty", &beauty, {}, {}, {}},
                           {"no block", "none", &none, {}, {}, {}}};
    const std::filesystem::path outDir =
        std::filesystem::temp_directory_path() / ("render_bench-" + std::to_string(::getpid()));

    RenderOptions ro;
    ro.threads = threads;
    std::printf("default scene %dx%d, %d samples, %d thread%s, %d rounds\n", width, height, all.samples, threads,
                threads == 1 ? "" : "s", rounds);
    for (int r = 0; r < rounds; ++r) {
        for (Variant &v : variants) {
            if (!only.empty() && only != v.key)
                continue;
            const double t0 = cpuSeconds();
            const RenderResult res = render(*v.scene, ro);
            const double cpu = cpuSeconds() - t0;
            if (res.stats.errors) {
                std::fprintf(stderr, "render_bench: %s: %zu error(s) during the render\n", v.name, res.stats.errors);
                return 1;
            }
            std::filesystem::create_directories(outDir);
            const double t1 = cpuSeconds();
            writeOutputs(res, outDir.string());
            const double write = cpuSeconds() - t1;
            std::filesystem::remove_all(outDir);
            const double mega = double(res.stats.eyeSamples) * 1e-6;
            v.spm.push_back(cpu / mega);
            v.whole.push_back((cpu + write) / mega);
            v.wall.push_back(res.stats.secondsPerMegasample());
        }
        mirt::clear_messages();
    }
    if (!only.empty())
        for (const Variant &v : variants)
            if (only == v.key) {
                std::printf("  %-12s %7.3f CPU s per megasample (median)\n", v.name, median(v.spm));
                return 0;
            }
    const double base = median(variants[3].spm), baseWhole = median(variants[3].whole);
    for (const Variant &v : variants) {
        std::printf("  %-12s %7.3f CPU s per megasample (median; rounds:", v.name, median(v.spm));
        for (double s : v.spm)
            std::printf(" %.3f", s);
        std::printf("), wall %.3f, with the files written %.3f\n", median(v.wall), median(v.whole));
    }
    std::printf("  all passes / no block   %.3f (files written too: %.3f)\n", median(variants[0].spm) / base,
                median(variants[0].whole) / baseWhole);
    std::printf("  48 passes / no block    %.3f (files written too: %.3f)\n", median(variants[1].spm) / base,
                median(variants[1].whole) / baseWhole);
    std::printf("  beauty only / no block  %.3f\n", median(variants[2].spm) / base);
    return 0;
}
