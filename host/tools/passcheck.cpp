/*
 * druxpasscheck: checks the passes of a rendered render.exr.
 *
 *   druxpasscheck FILE [--nonempty PASS]... [--sum TOTAL=A+B+...]... [--tolerance T]
 *   druxpasscheck --help
 *
 * --nonempty: the layer exists and some pixel has a colour other than black.
 * --sum:      per pixel and channel (r, g, b), the layers A, B, ... add up to
 *             TOTAL within T (default 1e-4).
 * Prints one line per check and ends with "N passed, N failed"; exits 1 when
 * a check failed, 2 on bad arguments or an unreadable file.
 */
#include "image_io.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

using namespace druxhost;

namespace {

const char kUsage[] =
    "usage: druxpasscheck FILE [--nonempty PASS]... [--sum TOTAL=A+B+...]... [--tolerance T]\n"
    "\n"
    "Checks the passes (layers) of a render.exr that druxrender wrote.\n"
    "  --nonempty PASS       the layer exists and some pixel is not black\n"
    "  --sum TOTAL=A+B+...   per pixel and channel (r, g, b) the layers A, B, ...\n"
    "                        add up to TOTAL within the tolerance\n"
    "  --tolerance T         largest difference a --sum allows (default 1e-4)\n"
    "  --help                this text\n"
    "\n"
    "Prints one line per check and \"N passed, N failed\"; exits 0 when every\n"
    "check passed, 1 when one failed, 2 on bad arguments or an unreadable file.\n"
    "Example: druxpasscheck out/render.exr --nonempty mine --sum beauty=diffuse+specular+background\n";

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::map<std::string, Image> layers;
    try {
        for (auto &l : readExr(argv[1]))
            layers[l.first] = l.second;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "druxpasscheck: %s\n", e.what());
        return 2;
    }
    double tolerance = 1e-4;
    std::vector<std::string> nonempty, sums;
    for (int i = 2; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            std::fprintf(stderr, "druxpasscheck: %s needs a value\n", a.c_str());
            return 2;
        }
        if (a == "--nonempty")
            nonempty.push_back(argv[++i]);
        else if (a == "--sum")
            sums.push_back(argv[++i]);
        else if (a == "--tolerance")
            tolerance = std::atof(argv[++i]);
        else {
            std::fprintf(stderr, "druxpasscheck: unknown option %s (druxpasscheck --help lists the options)\n", a.c_str());
            return 2;
        }
    }
    int passed = 0, failed = 0;
    auto report = [&](bool ok, const std::string &what) {
        std::printf("%s: %s\n", ok ? "passed" : "FAILED", what.c_str());
        (ok ? passed : failed) += 1;
    };
    for (const std::string &n : nonempty) {
        auto it = layers.find(n);
        bool lit = false;
        if (it != layers.end())
            for (size_t k = 0; k < it->second.rgba.size(); ++k)
                if (k % 4 != 3 && it->second.rgba[k] != 0.0f)
                    lit = true;
        report(lit, "pass \"" + n + "\" " + (it == layers.end() ? "is missing" : lit ? "is present and not empty"
                                                                                     : "is empty"));
    }
    for (const std::string &s : sums) {
        const size_t eq = s.find('=');
        std::vector<std::string> parts;
        const std::string total = s.substr(0, eq);
        for (size_t at = eq + 1; eq != std::string::npos && at <= s.size();) {
            const size_t plus = std::min(s.find('+', at), s.size());
            parts.push_back(s.substr(at, plus - at));
            at = plus + 1;
        }
        bool ok = eq != std::string::npos && layers.count(total) && !parts.empty();
        for (const std::string &p : parts)
            ok = ok && layers.count(p) && layers[p].rgba.size() == layers[total].rgba.size();
        double worst = 0;
        if (ok) {
            const Image &t = layers[total];
            for (size_t k = 0; k < t.rgba.size(); ++k) {
                if (k % 4 == 3)
                    continue;
                double sum = 0;
                for (const std::string &p : parts)
                    sum += layers[p].rgba[k];
                worst = std::max(worst, std::fabs(sum - t.rgba[k]));
            }
            ok = worst <= tolerance;
        }
        char buf[64];
        std::snprintf(buf, sizeof buf, " (largest difference %.3g)", worst);
        report(ok, "passes add up: " + s + buf);
    }
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed ? 1 : 0;
}
