/*
 * druxrender: the reference host renderer's command line.
 *
 *   druxrender [--scene FILE] [--out DIR] [--threads N] [--samples N]
 *              [--resolution WxH] [--no-progress] [--progress] [--quiet]
 *              [--shader-path DIRS] [--restrict-links] [--image-stats FILE] [--version]
 *              [--print-default-scene] [--debug-pixel X,Y[,S]] [--describe LIB|SHADER]
 *              [--help]
 *
 * Without --scene it renders the built-in default scene.  It writes
 * DIR/render.exr (every pass as a layer), a PNG preview per pass and the
 * contact sheet DIR/contact.png, shows a
 * progress bar on a terminal and ends with a summary: time, samples per
 * second, time per megasample, the library's memory per tag and database
 * pins.
 *
 * --debug-pixel renders sample S (default 0) of pixel (X, Y) alone, prints
 * the shader calls it ran and the sample's main colour and pass values, and
 * writes no files.
 *
 * Before rendering it checks that every output file can be written (exit 2
 * otherwise); when writing still fails after the render, the images go to a
 * new folder under the system's temporary directory, named on stderr, and
 * the exit status is 3.  Files are written under temporary names and moved
 * into place together, so the output folder holds the whole earlier render
 * or the whole new one.
 *
 * SIGINT and SIGTERM stop the render threads at their next tile; nothing is
 * written, the output folder keeps its earlier files, and the exit status
 * is 128 + the signal.  A fatal error of the renderer in any thread ends the
 * process with its message and status 1.
 */
#include "image_stats.h"
#include "render.h"
#include "shader_describe.h"
#include "shader_loader.h"
#include "runtime.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <vector>
#include <iostream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace druxhost;

namespace {

void usage(std::ostream &o)
{
    o << "usage: druxrender [options]\n"
         "  --scene FILE           render FILE (default: the built-in scene)\n"
         "  --out DIR              output directory (default: out)\n"
         "  --threads N            render threads (default: all hardware threads)\n"
         "  --samples N            eye samples per pixel (overrides the scene)\n"
         "  --resolution WxH       image size (overrides the scene)\n"
         "  --no-progress          no progress bar\n"
         "  --progress             draw the progress bar also when stderr is not a terminal\n"
         "  --quiet                no summary\n"
         "  --print-default-scene  print the built-in scene in the scene format and exit\n"
         "  --shader-path DIRS     folders (':'-separated) searched for linked shader libraries\n"
         "                         after the scene file's folder (also DRUX_SHADER_PATH)\n"
         "  --restrict-links       link shader libraries only by name from the shader path and the\n"
         "                         install, never from the scene's folder (also DRUX_RESTRICT_LINKS=1)\n"
         "  --version              print the version and exit\n"
         "  --image-stats FILE     also write the image statistics (hash and means per pass) to FILE\n"
         "  --debug-pixel X,Y[,S]  render sample S (default 0) of pixel X,Y alone and print the\n"
         "                         shader calls it ran and its pass values (no files written)\n"
         "  --describe LIB|SHADER  list the shaders of a shader library (libNAME.so or a path), or one\n"
         "                         shader, with their parameters, types, defaults and versions\n"
         "  --help                 this text\n";
}

bool parseInt(const char *s, int &v)
{
    char *end = nullptr;
    errno = 0;
    const long x = std::strtol(s, &end, 10);
    if (end == s || *end || errno || x < 1 || x > 1000000)
        return false;
    v = static_cast<int>(x);
    return true;
}

/* "X,Y" or "X,Y,S", each a number from 0 */
bool parseDebugPixel(const std::string &text, int v[3])
{
    v[2] = 0;
    const char *c = text.c_str();
    for (int k = 0; k < 3; ++k) {
        char *end = nullptr;
        errno = 0;
        const long x = std::strtol(c, &end, 10);
        if (end == c || errno || x < 0 || x > 1000000 || (*c < '0' || *c > '9'))
            return false;
        v[k] = static_cast<int>(x);
        if (!*end)
            return k >= 1;
        if (*end != ',' || k == 2)
            return false;
        c = end + 1;
    }
    return false;
}

void printColor(const char *label, const miColor &c)
{
    std::printf("  %-20s %.9g %.9g %.9g %.9g\n", label, double(c.r), double(c.g), double(c.b), double(c.a));
}

int runDebugPixel(const SceneDesc &scene, const std::string &sceneName, const int px[3], const RenderOptions &ro)
{
    PixelSample ps;
    try {
        ps = debugPixel(scene, px[0], px[1], px[2], ro);
    } catch (const SceneError &e) {
        std::cerr << "druxrender: " << sceneName;
        if (e.line() > 0)
            std::cerr << ":" << e.line();
        std::cerr << ": " << e.what() << "\n";
        return 2;
    } catch (const std::exception &e) {
        std::cerr << "druxrender: " << e.what() << "\n";
        return 1;
    }
    std::printf("pixel %d,%d sample %d\nshader calls\n", px[0], px[1], px[2]);
    for (const std::string &line : ps.trace)
        std::printf("  %s\n", line.c_str());
    std::printf("values\n");
    printColor("main", ps.main);
    for (size_t p = 0; p < ps.passes.size(); ++p)
        printColor(ps.passNames[p].c_str(), ps.passes[p]);
    return 0;
}

bool makeDir(const std::string &dir)
{
    std::string part;
    for (size_t i = 0; i <= dir.size(); ++i) {
        if (i == dir.size() || dir[i] == '/') {
            if (!part.empty() && ::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
                return false;
        }
        if (i < dir.size())
            part += dir[i];
    }
    struct stat st;
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string bytes(int64_t b)
{
    char buf[64];
    if (b < 0 || b < 10 * 1024)
        std::snprintf(buf, sizeof buf, "%lld B", static_cast<long long>(b));
    else if (b < 10 * 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.1f KiB", b / 1024.0);
    else
        std::snprintf(buf, sizeof buf, "%.1f MiB", b / (1024.0 * 1024.0));
    return buf;
}

void drawBar(double f)
{
    const int width = 40;
    const int fill = static_cast<int>(f * width);
    std::string bar(static_cast<size_t>(fill), '#');
    bar.append(static_cast<size_t>(width - fill), '.');
    std::fprintf(stderr, "\r  rendering [%s] %3d%%", bar.c_str(), static_cast<int>(f * 100.0));
    std::fflush(stderr);
}

/* The signal that asked the render to stop (0: none); set by the handler,
   read by the render threads between tiles and by the writer between
   files. */
std::atomic<int> gStop{0};

/* The first signal asks for a clean stop; a second one ends the process
   at once (the default action), for a render that does not come back. */
extern "C" void onStopSignal(int sig)
{
    int none = 0;
    gStop.compare_exchange_strong(none, sig);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

void catchStopSignals()
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

std::string gOutDir;     /* named by the fatal message */
bool gProgress = false;  /* a progress bar line to end first */

/* A fatal error may come from a render thread holding runtime locks that
   unwinding would never release: say what happened and end the process at
   once, every thread with it.  Nothing has been moved into the output
   folder at that point (writing happens after every thread is done). */
void onFatal(const std::string &text)
{
    static std::atomic<bool> once{false};
    if (once.exchange(true))
        for (;;)
            ::pause(); /* another thread is already ending the process */
    std::fflush(stdout);
    const std::string where = gOutDir.empty() ? std::string("nothing written") : gOutDir + " keeps its earlier files";
    const std::string msg = std::string(gProgress ? "\n" : "") + "druxrender: fatal error: " + text +
                            "; the render is abandoned, " + where + "\n";
    if (::write(STDERR_FILENO, msg.data(), msg.size()) < 0) {
        /* nothing more to try */
    }
    ::_exit(1);
}

/* A variable set to anything but "" or "0". */
bool envOn(const char *name)
{
    const char *v = std::getenv(name);
    return v && *v && std::string(v) != "0";
}

const char *signalName(int sig) { return sig == SIGINT ? "SIGINT" : sig == SIGTERM ? "SIGTERM" : "a signal"; }

} // namespace

namespace {

struct Args {
    std::string scenePath, outDir = "out", statsPath;
    std::vector<std::string> shaderPath;
    bool restrictLinks = envOn("DRUX_RESTRICT_LINKS");
    int threads = 0, samples = 0, width = 0, height = 0;
    int debugPx[3] = {-1, -1, 0};
    std::string describe; /* --describe LIB|SHADER */
    bool progress = isatty(STDERR_FILENO) != 0, quiet = false;
    std::string sceneName() const { return scenePath.empty() ? std::string("built-in scene") : scenePath; }
};

/* -1: go on; otherwise the exit status. */
int parseArgs(int argc, char **argv, Args &args)
{
    std::string &scenePath = args.scenePath, &outDir = args.outDir, &statsPath = args.statsPath;
    std::vector<std::string> &shaderPath = args.shaderPath;
    int &threads = args.threads, &samples = args.samples, &width = args.width, &height = args.height;
    int *debugPx = args.debugPx;
    bool &progress = args.progress, &quiet = args.quiet;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char *what) -> const char * {
            if (i + 1 >= argc) {
                std::cerr << "druxrender: " << a << " needs " << what << "\n";
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--scene") {
            scenePath = value("a file");
        } else if (a == "--out") {
            outDir = value("a directory");
        } else if (a == "--threads") {
            if (!parseInt(value("a number"), threads)) {
                std::cerr << "druxrender: --threads needs a positive number\n";
                return 2;
            }
        } else if (a == "--samples") {
            if (!parseInt(value("a number"), samples)) {
                std::cerr << "druxrender: --samples needs a positive number\n";
                return 2;
            }
        } else if (a == "--resolution") {
            const std::string r = value("WxH");
            const size_t x = r.find('x');
            if (x == std::string::npos || !parseInt(r.substr(0, x).c_str(), width) ||
                !parseInt(r.substr(x + 1).c_str(), height)) {
                std::cerr << "druxrender: --resolution needs WxH, e.g. 640x480\n";
                return 2;
            }
        } else if (a == "--shader-path") {
            const std::string dirs = value("folders");
            size_t at = 0;
            while (at <= dirs.size()) {
                const size_t colon = std::min(dirs.find(':', at), dirs.size());
                if (colon > at)
                    shaderPath.push_back(dirs.substr(at, colon - at));
                at = colon + 1;
            }
        } else if (a == "--version") {
            std::cout << "druxrender " << DRUX_VERSION << "\n";
            return 0;
        } else if (a == "--image-stats") {
            statsPath = value("a file");
        } else if (a == "--restrict-links") {
            args.restrictLinks = true;
        } else if (a == "--no-progress") {
            progress = false;
        } else if (a == "--progress") {
            progress = true;
        } else if (a == "--quiet") {
            quiet = true;
        } else if (a == "--print-default-scene") {
            std::cout << "# The built-in scene of druxrender (druxrender --print-default-scene)\n"
                      << writeScene(defaultScene());
            return 0;
        } else if (a == "--debug-pixel") {
            if (!parseDebugPixel(value("X,Y[,S]"), debugPx)) {
                std::cerr << "druxrender: --debug-pixel needs X,Y or X,Y,S (numbers from 0)\n";
                return 2;
            }
        } else if (a == "--describe") {
            args.describe = value("a shader library or shader name");
        } else if (a == "--help" || a == "-h") {
            usage(std::cout);
            return 0;
        } else {
            std::cerr << "druxrender: unknown option " << a << "\n";
            usage(std::cerr);
            return 2;
        }
    }
    return -1;
}

/* Reports a scene error with the file and line it came from. */
void reportSceneError(const Args &args, const SceneError &e)
{
    std::cerr << "druxrender: " << args.sceneName();
    if (e.line() > 0)
        std::cerr << ":" << e.line();
    std::cerr << ": " << e.what() << "\n";
}

/* The scene to render with the command line's overrides: false (reported)
   when it cannot be read or is invalid. */
bool sceneFor(const Args &args, SceneDesc &scene)
{
    try {
        scene = args.scenePath.empty() ? defaultScene() : loadScene(args.scenePath);
        /* values from the command line have no line in the scene file */
        if (args.samples) {
            scene.samples = args.samples;
            scene.samplesLine = 0;
        }
        if (args.width) {
            scene.width = args.width;
            scene.height = args.height;
            scene.resolutionLine = 0;
        }
        validate(scene);
    } catch (const SceneError &e) {
        reportSceneError(args, e);
        return false;
    }
    return true;
}

/* The output folder exists and every file can be written there: refuse now
   rather than lose the render at the end. */
bool outputsWritable(const Args &args, const SceneDesc &scene)
{
    if (!makeDir(args.outDir)) {
        std::cerr << "druxrender: cannot create the output directory " << args.outDir << ": "
                  << std::strerror(errno) << "\n";
        return false;
    }
    std::vector<std::string> passNames;
    for (const PassDesc &p : scene.passes)
        passNames.push_back(p.name);
    const std::string unwritable = probeOutputs(args.outDir, outputFileNames(passNames));
    if (!unwritable.empty()) {
        std::cerr << "druxrender: " << unwritable << "; nothing rendered\n";
        return false;
    }
    return true;
}

/* Written under a temporary name in the file's folder and moved into
   place: an earlier statistics file stays whole when writing fails. */
void writeStatsFile(const RenderResult &result, const std::string &path)
{
    const std::string text = formatStats(imageStats(result));
    const size_t slash = path.rfind('/');
    StagedFiles staged(slash == std::string::npos ? std::string(".") : path.substr(0, slash));
    const std::string temp = staged.stage(path.substr(slash == std::string::npos ? 0 : slash + 1));
    FILE *f = std::fopen(temp.c_str(), "w");
    if (!f)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    const bool wrote = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    closeWrittenFile(f, temp);
    if (!wrote)
        throw std::runtime_error("cannot write " + path);
    staged.commit();
}

void printSummary(const RenderStats &st, const WrittenOutputs &written)
{
    std::printf("render summary\n");
    std::printf("  scene set-up         %.3f s (%zu triangles)\n", st.setupSeconds, st.triangles);
    std::printf("  wall time            %.3f s on %d thread%s\n", st.seconds, st.threads, st.threads == 1 ? "" : "s");
    std::printf("  eye samples          %llu (%.3f megasamples)\n", static_cast<unsigned long long>(st.eyeSamples),
                st.eyeSamples * 1e-6);
    std::printf("  samples per second   %.0f\n", st.samplesPerSecond());
    std::printf("  time per megasample  %.3f s\n", st.secondsPerMegasample());
    std::printf("  library memory       %-26s %14s %14s\n", "tag", "at last sample", "after render");
    for (const TagMemory &m : st.memory)
        std::printf("                       %-26s %14s %14s\n", m.tag.c_str(), bytes(m.atEnd).c_str(),
                    bytes(m.after).c_str());
    std::printf("  database pins left   %ld\n", st.pinsAfter);
    std::printf("  messages             %zu error(s), %zu warning(s)\n", st.errors, st.warnings);
    std::printf("  files                %zu written to %s (render.exr, main.png, one PNG per pass, contact.png)\n",
                written.files.size(), written.dir.c_str());
}

/* Renders, writes the images (and the statistics); the exit status. */
int renderAndWrite(const Args &args, const SceneDesc &scene)
{
    mirt::set_echo_messages(true);
    RenderOptions ro;
    ro.threads = args.threads;
    ro.shaderPath = args.shaderPath;
    ro.restrictLinks = args.restrictLinks;
    ro.stop = &gStop;
    if (args.progress)
        ro.progress = drawBar;
    if (!args.quiet)
        std::cerr << "druxrender: " << args.sceneName() << ", " << scene.width << " x " << scene.height << ", "
                  << scene.samples << (scene.samples == 1 ? " sample" : " samples") << " per pixel, "
                  << scene.passes.size() << " passes\n";
    RenderResult result;
    WrittenOutputs written;
    try {
        result = render(scene, ro);
        if (args.progress)
            std::fprintf(stderr, "\n");
        written = writeOutputsOrFallback(result, args.outDir, &gStop);
        if (!args.statsPath.empty())
            writeStatsFile(result, args.statsPath);
    } catch (const RenderInterrupted &e) {
        if (args.progress)
            std::fprintf(stderr, "\n");
        std::cerr << "druxrender: interrupted by " << signalName(e.signal) << ": render stopped, nothing written, "
                  << args.outDir << " keeps its earlier files (an interrupted render cannot be resumed)\n";
        return 128 + e.signal;
    } catch (const SceneError &e) {
        /* a shader library or shader instance of the scene */
        if (args.progress)
            std::fprintf(stderr, "\n");
        reportSceneError(args, e);
        return 2;
    } catch (const std::exception &e) {
        if (args.progress)
            std::fprintf(stderr, "\n");
        std::cerr << "druxrender: " << e.what() << "\n";
        return 1;
    }
    if (!written.failure.empty())
        std::cerr << "druxrender: cannot write the images to " << args.outDir << " (" << written.failure
                  << "); they were written to " << written.dir << " instead\n";
    if (!args.quiet)
        printSummary(result.stats, written);
    if (!written.failure.empty())
        return 3;
    return result.stats.errors ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    Args args;
    const int status = parseArgs(argc, argv, args);
    if (status >= 0)
        return status;
    if (!args.describe.empty()) {
        RenderOptions ro;
        ro.shaderPath = args.shaderPath;
        try {
            std::cout << describeShaders(args.describe, shaderSearchPath(SceneDesc(), ro));
        } catch (const mirt::LoadError &e) {
            std::cerr << "druxrender: --describe " << args.describe << ": " << e.what() << "\n";
            return 2;
        }
        return 0;
    }
    SceneDesc scene;
    if (!sceneFor(args, scene))
        return 2;
    if (args.debugPx[0] >= 0) {
        mirt::set_fatal_handler(onFatal);
        RenderOptions ro;
        ro.shaderPath = args.shaderPath;
        ro.restrictLinks = args.restrictLinks;
        return runDebugPixel(scene, args.sceneName(), args.debugPx, ro);
    }
    if (!outputsWritable(args, scene))
        return 2;
    gOutDir = args.outDir;
    gProgress = args.progress;
    mirt::set_fatal_handler(onFatal);
    catchStopSignals();
    return renderAndWrite(args, scene);
}
