/*
 * druxrender: the reference host renderer's command line.
 *
 *   druxrender [--scene FILE] [--out DIR] [--threads N] [--samples N]
 *              [--resolution WxH] [--no-progress] [--progress] [--quiet]
 *              [--shader-path DIRS] [--restrict-links] [--image-stats FILE] [--version]
 *              [--print-default-scene] [--debug-pixel X,Y[,S]] [--describe LIB|SHADER]
 *              [--tile I/N | --region X0,Y0,X1,Y1]
 *              [--tiles N (--local [--jobs J] | --submit slurm [--partition P] [--time T] [--mem M])]
 *              [--status DIR] [--resume DIR] [--help]
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
 * SIGINT and SIGTERM stop the render threads at their next tile; the
 * output folder keeps its earlier files, the tiles finished so far are kept
 * as DIR/partial/interrupted.exr, `--resume DIR` renders the rest, and the
 * exit status is 128 + the signal.  A fatal error of the renderer in any
 * thread ends the process with its message and status 1.
 *
 * Parts: --tile I/N and --region render a part of the image into a partial
 * render (DIR/tile-I-of-N.exr, DIR/region-X0-Y0-X1-Y1.exr) that druxmerge
 * assembles.  --tiles N runs N tile tasks, as local processes (--local) or
 * as a Slurm array job with a merge job after it (--submit slurm), keeping
 * the job in DIR/partial/ for --status and --resume (farm.h).
 */
#include "farm.h"
#include "file_read.h"
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
#include <thread>
#include <unistd.h>

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
         "parts and farms:\n"
         "  --tile I/N             render band I (1..N) of N into the partial render DIR/tile-I-of-N.exr\n"
         "  --region X0,Y0,X1,Y1   render pixels X0 <= x < X1, Y0 <= y < Y1 into DIR/region-X0-Y0-X1-Y1.exr\n"
         "  --tiles N              render as N tile tasks and merge them into DIR, with one of:\n"
         "    --local [--jobs J]   as processes on this machine, J at once (default: one per thread)\n"
         "    --submit slurm       as a Slurm array job and a merge job after it (sbatch); prints the ids\n"
         "      [--partition P] [--time T] [--mem M]   passed on to sbatch\n"
         "  --status DIR           the tiles of DIR's render: done, queued or running, failed\n"
         "  --resume DIR           render what DIR's interrupted or tiled render is missing and merge\n"
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
    int tileIndex = 0, tileCount = 0; /* --tile I/N */
    Region region;                    /* --region */
    int tiles = 0, jobs = 0;          /* --tiles N, --jobs J */
    bool local = false;
    std::string submit, partition, time, mem, statusDir, resumeDir;
    bool partial() const { return tileCount > 0 || !region.empty(); }
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
        } else if (a == "--tile") {
            const std::string t = value("I/N");
            const size_t slash = t.find('/');
            if (slash == std::string::npos || !parseInt(t.substr(0, slash).c_str(), args.tileIndex) ||
                !parseInt(t.substr(slash + 1).c_str(), args.tileCount) || args.tileIndex > args.tileCount) {
                std::cerr << "druxrender: --tile needs I/N with 1 <= I <= N, e.g. 2/4\n";
                return 2;
            }
        } else if (a == "--region") {
            Region &r = args.region;
            int used = 0;
            const std::string t = value("X0,Y0,X1,Y1");
            if (std::sscanf(t.c_str(), "%d,%d,%d,%d%n", &r.x0, &r.y0, &r.x1, &r.y1, &used) != 4 ||
                used != static_cast<int>(t.size()) || r.x0 < 0 || r.y0 < 0 || r.empty()) {
                std::cerr << "druxrender: --region needs X0,Y0,X1,Y1 with 0 <= X0 < X1 and 0 <= Y0 < Y1 "
                             "(ends exclusive)\n";
                return 2;
            }
        } else if (a == "--tiles" || a == "--jobs") {
            if (!parseInt(value("a number"), a == "--tiles" ? args.tiles : args.jobs)) {
                std::cerr << "druxrender: " << a << " needs a positive number\n";
                return 2;
            }
        } else if (a == "--local") {
            args.local = true;
        } else if (a == "--submit") {
            args.submit = value("a scheduler (slurm)");
            if (args.submit != "slurm") {
                std::cerr << "druxrender: --submit knows only slurm\n";
                return 2;
            }
        } else if (a == "--partition") {
            args.partition = value("a partition");
        } else if (a == "--time") {
            args.time = value("a time limit");
        } else if (a == "--mem") {
            args.mem = value("a memory size");
        } else if (a == "--status") {
            args.statusDir = value("a directory");
        } else if (a == "--resume") {
            args.resumeDir = value("a directory");
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
    if (!makeDirs(args.outDir)) {
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

/* An absolute path for a job file: tile tasks and resumes may run
   elsewhere. */
std::string absolute(const std::string &path)
{
    if (path.empty() || path[0] == '/')
        return path;
    char buf[4096];
    if (!::getcwd(buf, sizeof buf))
        return path;
    return std::string(buf) + "/" + path;
}

/* The options that make the image, for the tile tasks and a resume. */
std::vector<std::string> imageArgs(const Args &args)
{
    std::vector<std::string> out;
    if (!args.scenePath.empty())
        out.insert(out.end(), {"--scene", absolute(args.scenePath)});
    if (args.samples)
        out.insert(out.end(), {"--samples", std::to_string(args.samples)});
    if (args.width)
        out.insert(out.end(), {"--resolution", std::to_string(args.width) + "x" + std::to_string(args.height)});
    std::string dirs;
    for (const std::string &d : args.shaderPath)
        dirs += (dirs.empty() ? "" : ":") + absolute(d);
    if (!dirs.empty())
        out.insert(out.end(), {"--shader-path", dirs});
    if (args.restrictLinks)
        out.push_back("--restrict-links");
    return out;
}

RenderOptions renderOptions(const Args &args)
{
    RenderOptions ro;
    ro.threads = args.threads;
    ro.shaderPath = args.shaderPath;
    ro.restrictLinks = args.restrictLinks;
    ro.stop = &gStop;
    if (args.progress)
        ro.progress = drawBar;
    return ro;
}

/* Runs `body` (which renders and writes) and reports what it threw; the
   exit status, or -1 when it returned normally. */
template <class F> int reported(const Args &args, F body)
{
    auto endBar = [&] {
        if (args.progress)
            std::fprintf(stderr, "\n");
    };
    try {
        body();
        return -1;
    } catch (const RenderInterrupted &e) {
        endBar();
        std::cerr << "druxrender: interrupted by " << signalName(e.signal) << ": render stopped, nothing written, "
                  << args.outDir << " keeps its earlier files\n";
        return 128 + e.signal;
    } catch (const SceneError &e) {
        /* a shader library or shader instance of the scene */
        endBar();
        reportSceneError(args, e);
        return 2;
    } catch (const std::exception &e) {
        endBar();
        std::cerr << "druxrender: " << e.what() << "\n";
        return 1;
    }
}

void announce(const Args &args, const SceneDesc &scene, const std::string &what)
{
    if (!args.quiet)
        std::cerr << "druxrender: " << args.sceneName() << ", " << scene.width << " x " << scene.height << ", "
                  << scene.samples << (scene.samples == 1 ? " sample" : " samples") << " per pixel, "
                  << scene.passes.size() << " passes" << what << "\n";
}

/* Ends a render written whole: reports a fallback folder, prints the
   summary; the exit status. */
int finish(const Args &args, const RenderResult &result, const WrittenOutputs &written)
{
    if (!written.failure.empty())
        std::cerr << "druxrender: cannot write the images to " << args.outDir << " (" << written.failure
                  << "); they were written to " << written.dir << " instead\n";
    if (!args.quiet)
        printSummary(result.stats, written);
    if (!written.failure.empty())
        return 3;
    return result.stats.errors ? 1 : 0;
}

/* The tiles an interrupted whole render finished, kept for --resume. */
void keepInterrupted(const Args &args, const RenderResult &result, const std::vector<std::string> &jobArgs)
{
    FarmJob job;
    job.outDir = absolute(args.outDir);
    job.executor = FarmExecutor::Whole;
    job.fingerprint = result.fingerprint;
    job.args = jobArgs;
    job.statsPath = absolute(args.statsPath);
    writeJob(job);
    PartialInfo info{result.fingerprint, "interrupted render", result.main.width, result.main.height,
                     result.covered};
    writePartial(interruptedPath(job.outDir), result, info);
}

void dropInterrupted(const std::string &outDir)
{
    if (!hasJob(outDir))
        return;
    try {
        if (readJob(outDir).executor != FarmExecutor::Whole)
            return;
    } catch (const std::exception &) {
        return;
    }
    ::unlink(interruptedPath(outDir).c_str());
    ::unlink((partialDir(outDir) + "/job").c_str());
    ::rmdir((partialDir(outDir) + "/logs").c_str());
    ::rmdir(partialDir(outDir).c_str());
}

/* A whole render, or the rest of an interrupted one (`before`: its partial,
   null for none); writes the images (and the statistics). */
int renderWhole(const Args &args, const SceneDesc &scene, const std::vector<std::string> &jobArgs,
                const RenderImages *before = nullptr, const std::vector<Region> &beforeCovered = {})
{
    RenderOptions ro = renderOptions(args);
    ro.keepOnStop = true;
    ro.skip = beforeCovered;
    announce(args, scene, before ? ", resumed" : "");
    RenderResult result;
    WrittenOutputs written;
    int stopped = 0;
    const int status = reported(args, [&] {
        result = render(scene, ro);
        if (args.progress)
            std::fprintf(stderr, "\n");
        if (before) {
            copyCovered(*before, beforeCovered, result);
            result.covered.insert(result.covered.end(), beforeCovered.begin(), beforeCovered.end());
        }
        if ((stopped = result.interrupted) != 0) {
            keepInterrupted(args, result, jobArgs);
            return;
        }
        try {
            written = writeOutputsOrFallback(result, args.outDir, &gStop);
        } catch (const RenderInterrupted &e) {
            /* every tile is done: keep them all, a resume only writes */
            stopped = e.signal;
            keepInterrupted(args, result, jobArgs);
            return;
        }
        if (!args.statsPath.empty())
            writeStatsFile(result, args.statsPath);
        dropInterrupted(args.outDir);
    });
    if (status >= 0)
        return status;
    if (stopped) {
        std::cerr << "druxrender: interrupted by " << signalName(stopped) << ": render stopped, "
                  << args.outDir << " keeps its earlier files; the finished tiles are kept in "
                  << interruptedPath(args.outDir) << ": druxrender --resume " << args.outDir
                  << " renders the rest\n";
        return 128 + stopped;
    }
    return finish(args, result, written);
}

/* --tile I/N or --region: a part of the image into a partial render. */
int renderPart(const Args &args, const SceneDesc &scene)
{
    Region region = args.region;
    std::string name, label;
    if (args.tileCount) {
        region = tileBand(scene.width, scene.height, args.tileIndex, args.tileCount, RenderOptions().tileSize);
        name = "tile-" + std::to_string(args.tileIndex) + "-of-" + std::to_string(args.tileCount) + ".exr";
        label = "tile " + std::to_string(args.tileIndex) + "/" + std::to_string(args.tileCount);
    } else {
        if (region.x1 > scene.width || region.y1 > scene.height) {
            std::cerr << "druxrender: --region " << describe(region) << " reaches beyond the " << scene.width
                      << " x " << scene.height << " image\n";
            return 2;
        }
        name = "region-" + std::to_string(region.x0) + "-" + std::to_string(region.y0) + "-" +
               std::to_string(region.x1) + "-" + std::to_string(region.y1) + ".exr";
        label = "region " + describe(region);
    }
    const std::string path = args.outDir + "/" + name;
    if (region.empty()) {
        std::cerr << "druxrender: " << label << " of a " << scene.height << "-row image holds no pixel: use at most "
                  << scene.height << " tiles\n";
        return 2;
    }
    RenderOptions ro = renderOptions(args);
    ro.region = region;
    announce(args, scene, ", " + label + " (pixels " + describe(region) + ")");
    RenderResult result;
    const int status = reported(args, [&] {
        result = render(scene, ro);
        if (args.progress)
            std::fprintf(stderr, "\n");
        writePartial(path, result, PartialInfo{result.fingerprint, label, scene.width, scene.height, result.covered});
    });
    if (status >= 0)
        return status;
    if (!args.quiet)
        std::cout << "druxrender: " << label << " written to " << path << " (" << result.stats.seconds << " s)\n";
    return result.stats.errors ? 1 : 0;
}

/* --tiles N with --local or --submit slurm, and their --resume: renders or
   submits the tiles of `todo` (all when empty and fresh) and merges. */
int runTiles(const Args &args, const FarmJob &job, std::vector<int> todo)
{
    if (job.executor == FarmExecutor::Slurm) {
        try {
            cancelQueuedMerge(job);
            const SlurmJobs ids = submitSlurm(job, todo);
            if (!ids.tiles.empty())
                std::cout << "tiles job " << ids.tiles << " (" << todo.size() << " task" << (todo.size() == 1 ? "" : "s")
                          << ")\n";
            std::cout << "merge job " << ids.merge << " (after the tiles succeed; writes " << job.outDir << ")\n"
                      << "druxrender --status " << job.outDir << " shows the tiles\n";
        } catch (const std::exception &e) {
            std::cerr << "druxrender: " << e.what() << "\n";
            return 1;
        }
        return 0;
    }
    const int hw = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    const int total = args.threads ? args.threads : hw;
    const int jobs = std::max(1, std::min<int>(args.jobs ? args.jobs : total, static_cast<int>(todo.size())));
    if (!args.quiet)
        std::cerr << "druxrender: " << todo.size() << " of " << job.tiles << " tile tasks, " << jobs
                  << " at once, logs in " << partialDir(job.outDir) << "/logs\n";
    const std::vector<int> failed = runLocalTiles(job, todo, jobs, std::max(1, total / jobs), &gStop);
    if (gStop.load()) {
        std::cerr << "druxrender: interrupted by " << signalName(gStop.load()) << ": the finished tiles are kept in "
                  << partialDir(job.outDir) << ": druxrender --resume " << job.outDir << " renders the rest\n";
        return 128 + gStop.load();
    }
    if (!failed.empty()) {
        std::string list;
        for (int t : failed)
            list += (list.empty() ? "" : ", ") + std::to_string(t);
        std::cerr << "druxrender: tile task" << (failed.size() == 1 ? " " : "s ") << list << " of " << job.tiles
                  << " failed (see " << partialDir(job.outDir) << "/logs/tile-" << failed.front()
                  << ".log); druxrender --resume " << job.outDir << " renders them again\n";
        return 1;
    }
    std::vector<std::string> parts;
    for (int i = 1; i <= job.tiles; ++i)
        parts.push_back(tilePath(job.outDir, i, job.tiles));
    WrittenOutputs written;
    try {
        written = mergeAndWrite(parts, job.outDir, job.statsPath, &gStop);
    } catch (const RenderInterrupted &e) {
        std::cerr << "druxrender: interrupted by " << signalName(e.signal) << " while merging: nothing written\n";
        return 128 + e.signal;
    } catch (const std::exception &e) {
        std::cerr << "druxrender: merging the tiles failed: " << e.what() << "\n";
        return 1;
    }
    if (!written.failure.empty()) {
        std::cerr << "druxrender: cannot write the images to " << job.outDir << " (" << written.failure
                  << "); they were written to " << written.dir << " instead\n";
        return 3;
    }
    if (!args.quiet)
        std::cout << "druxrender: " << job.tiles << " tiles merged into " << written.files.size() << " files in "
                  << written.dir << "\n";
    return 0;
}

/* --resume DIR: the job kept in DIR/partial/, continued. */
int resume(const std::string &dir, bool quiet, bool progress)
{
    FarmJob job;
    try {
        job = readJob(absolute(dir));
    } catch (const std::exception &e) {
        std::cerr << "druxrender: --resume " << dir << ": " << e.what() << "\n";
        return 2;
    }
    std::vector<std::string> argv{"druxrender"};
    argv.insert(argv.end(), job.args.begin(), job.args.end());
    std::vector<char *> cargv;
    for (std::string &a : argv)
        cargv.push_back(&a[0]);
    Args args;
    const int status = parseArgs(static_cast<int>(cargv.size()), cargv.data(), args);
    if (status >= 0) {
        std::cerr << "druxrender: --resume " << dir << ": the options kept in " << partialDir(dir)
                  << "/job are not valid\n";
        return 2;
    }
    args.outDir = dir;
    args.statsPath = job.statsPath;
    args.quiet = quiet;
    args.progress = progress;
    SceneDesc scene;
    if (!sceneFor(args, scene))
        return 2;
    if (sceneFingerprint(scene) != job.fingerprint) {
        std::cerr << "druxrender: --resume " << dir << ": " << args.sceneName()
                  << " or the renderer changed since the render began (fingerprint " << sceneFingerprint(scene)
                  << ", the parts have " << job.fingerprint << "); render it again without --resume\n";
        return 2;
    }
    if (job.executor == FarmExecutor::Whole) {
        RenderImages before;
        PartialInfo info;
        try {
            readPartial(interruptedPath(dir), before, info);
        } catch (const std::exception &e) {
            std::cerr << "druxrender: " << e.what() << "; rendering the whole image again\n";
            return renderWhole(args, scene, job.args);
        }
        return renderWhole(args, scene, job.args, &before, info.covered);
    }
    std::vector<int> todo;
    const std::vector<std::string> states = tileStates(job);
    for (int i = 1; i <= job.tiles; ++i)
        if (!states[size_t(i - 1)].empty())
            todo.push_back(i);
    if (!quiet)
        std::cerr << "druxrender: --resume " << dir << ": " << todo.size() << " of " << job.tiles
                  << " tiles to render\n";
    return runTiles(args, job, todo);
}

/* --tiles N: a new tiled render of `scene`. */
int startTiles(const Args &args, const SceneDesc &scene)
{
    if (args.tiles > scene.height) {
        std::cerr << "druxrender: --tiles " << args.tiles << " is more than the image's " << scene.height
                  << " rows\n";
        return 2;
    }
    FarmJob job;
    job.outDir = absolute(args.outDir);
    job.executor = args.local ? FarmExecutor::Local : FarmExecutor::Slurm;
    job.tiles = args.tiles;
    job.fingerprint = sceneFingerprint(scene);
    job.args = imageArgs(args);
    job.statsPath = absolute(args.statsPath);
    job.partition = args.partition;
    job.time = args.time;
    job.mem = args.mem;
    try {
        writeJob(job);
    } catch (const std::exception &e) {
        std::cerr << "druxrender: " << e.what() << "\n";
        return 2;
    }
    std::vector<int> todo;
    for (int i = 1; i <= job.tiles; ++i) {
        todo.push_back(i);
        ::unlink(tilePath(job.outDir, i, job.tiles).c_str()); /* a part of an earlier render is not this one's */
    }
    announce(args, scene, ", " + std::to_string(job.tiles) + " tiles");
    return runTiles(args, job, todo);
}

/* Option combinations that cannot work, refused before anything runs. */
bool optionsAgree(const Args &args)
{
    const char *bad = nullptr;
    if (args.tiles && args.local == !args.submit.empty())
        bad = "--tiles needs one of --local and --submit slurm";
    else if (!args.tiles && (args.local || !args.submit.empty()))
        bad = "--local and --submit need --tiles N";
    else if (args.submit.empty() && (!args.partition.empty() || !args.time.empty() || !args.mem.empty()))
        bad = "--partition, --time and --mem go with --submit slurm";
    else if (args.jobs && !args.local)
        bad = "--jobs goes with --tiles N --local";
    else if (args.tileCount && !args.region.empty())
        bad = "--tile and --region cannot be given together";
    else if (args.partial() && args.tiles)
        bad = "--tile and --region render one part; --tiles renders all of them";
    else if (args.debugPx[0] >= 0 && (args.partial() || args.tiles))
        bad = "--debug-pixel renders one sample, not parts";
    if (bad)
        std::cerr << "druxrender: " << bad << "\n";
    return !bad;
}

} // namespace

int main(int argc, char **argv)
{
    Args args;
    const int status = parseArgs(argc, argv, args);
    if (status >= 0)
        return status;
    if (!optionsAgree(args))
        return 2;
    if (!args.statusDir.empty()) {
        try {
            std::cout << farmStatus(readJob(absolute(args.statusDir)));
        } catch (const std::exception &e) {
            std::cerr << "druxrender: --status " << args.statusDir << ": " << e.what() << "\n";
            return 2;
        }
        return 0;
    }
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
    if (!args.resumeDir.empty()) {
        gOutDir = args.resumeDir;
        gProgress = args.progress;
        mirt::set_fatal_handler(onFatal);
        catchStopSignals();
        mirt::set_echo_messages(true);
        return resume(args.resumeDir, args.quiet, args.progress);
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
    if (args.partial() || args.tiles) {
        if (!makeDirs(args.outDir)) {
            std::cerr << "druxrender: cannot create the output directory " << args.outDir << ": "
                      << std::strerror(errno) << "\n";
            return 2;
        }
    } else if (!outputsWritable(args, scene)) {
        return 2;
    }
    gOutDir = args.outDir;
    gProgress = args.progress;
    mirt::set_fatal_handler(onFatal);
    catchStopSignals();
    mirt::set_echo_messages(true);
    if (args.tiles)
        return startTiles(args, scene);
    if (args.partial())
        return renderPart(args, scene);
    return renderWhole(args, scene, imageArgs(args));
}
