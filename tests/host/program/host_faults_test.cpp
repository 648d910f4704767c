/*
 * What no scene, file or fault may do to druxrender: lose or damage a
 * render (full disk, an interrupt, a fatal error in a render thread), hang
 * or crash.  Each case runs the real binary and checks its exit status, its
 * message and that the output folder holds the whole earlier render or the
 * whole new one.
 */
#if __has_include("render.h") && defined(DRUXRENDER_PATH)

#include "file_read.h"
#include "host_test_scene.h"
#include "partial.h"

#include <csignal>
#include <dirent.h>
#include <map>
#include <spawn.h>
#include <sys/mount.h>

extern char **environ;

namespace {

struct Outcome {
    int status = -1; /* exit status, or 128 + the signal that ended it */
    std::string err;
};

/* Starts druxrender with `args`, its stderr on a pipe; returns the pid. */
pid_t start(const std::vector<std::string> &args, int &errFd)
{
    std::vector<std::string> all{"timeout", "-s", "KILL", "300", DRUXRENDER_PATH};
    all.insert(all.end(), args.begin(), args.end());
    /* no timeout wrapper where a signal must reach druxrender itself */
    if (std::find(args.begin(), args.end(), "--progress") != args.end())
        all.erase(all.begin(), all.begin() + 4);
    std::vector<char *> argv;
    for (std::string &a : all)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 2);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclose(&fa, fds[0]);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    ::close(fds[1]);
    errFd = fds[0];
    return pid;
}

Outcome finish(pid_t pid, int errFd, std::string err = "")
{
    char buf[4096];
    for (ssize_t n; (n = ::read(errFd, buf, sizeof buf)) > 0;)
        err.append(buf, size_t(n));
    ::close(errFd);
    int st = 0;
    ::waitpid(pid, &st, 0);
    Outcome r;
    r.err = err;
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return r;
}

Outcome druxrender(const std::vector<std::string> &args)
{
    int fd = -1;
    const pid_t pid = start(args, fd);
    return finish(pid, fd);
}

/* Every file of a folder with its bytes. */
std::map<std::string, std::string> folder(const std::string &dir)
{
    std::map<std::string, std::string> out;
    DIR *d = ::opendir(dir.c_str());
    if (!d)
        return out;
    while (dirent *e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..")
            continue;
        out[name] = readFile(dir + "/" + name);
    }
    ::closedir(d);
    return out;
}

/* Blocks (of 512 bytes) the files of a folder take. */
long long blocksUsed(const std::string &dir)
{
    long long n = 0;
    for (const auto &f : folder(dir)) {
        struct stat st;
        if (::stat((dir + "/" + f.first).c_str(), &st) == 0)
            n += st.st_blocks;
    }
    return n;
}

std::string tempDir()
{
    char tmpl[] = "/tmp/druxfaults_XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    return tmpl;
}

void removeAll(const std::string &dir) { EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0); }

/* The render of the default scene at this size into `dir`. */
std::vector<std::string> renderArgs(const std::string &dir, const std::string &size)
{
    return {"--out", dir, "--resolution", size, "--samples", "1", "--threads", "2", "--no-progress", "--quiet"};
}

/* A folder holding one whole render of the default scene: every file, the
   EXR with every layer and no temporary file left over. */
void expectWholeRender(const std::string &dir, int width)
{
    std::vector<std::string> passNames;
    for (const PassDesc &p : defaultScene().passes)
        passNames.push_back(p.name);
    const auto files = folder(dir);
    std::vector<std::string> names;
    for (const auto &f : files)
        names.push_back(f.first);
    std::vector<std::string> want = outputFileNames(passNames);
    std::sort(want.begin(), want.end());
    EXPECT_EQ(names, want) << dir;
    const auto layers = readExr(dir + "/render.exr");
    ASSERT_EQ(layers.size(), 1u + passNames.size() + 6u) << dir;
    EXPECT_EQ(layers[0].second.width, width);
    int w = 0, h = 0;
    for (const std::string &n : want)
        if (n.size() > 4 && n.compare(n.size() - 4, 4, ".png") == 0 && n != "contact.png") {
            readPng(dir + "/" + n, w, h);
            EXPECT_EQ(w, width) << n;
        }
}

TEST(HostFaults, FullDiskKeepsTheEarlierRenderWhole)
{
    const std::string scratch = tempDir();
    ASSERT_EQ(druxrender(renderArgs(scratch + "/small", "32x24")).status, 0);
    ASSERT_EQ(druxrender(renderArgs(scratch + "/large", "160x120")).status, 0);
    const long long small = blocksUsed(scratch + "/small") * 512, large = blocksUsed(scratch + "/large") * 512;
    ASSERT_GT(large, 4 * small);
    /* room for the earlier render and half the new one */
    const std::string disk = scratch + "/disk";
    ASSERT_EQ(::mkdir(disk.c_str(), 0777), 0);
    if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, ("size=" + std::to_string(small + large / 2)).c_str()) != 0) {
        removeAll(scratch);
        GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno) << "); run as root";
    }
    struct Unmount {
        std::string at;
        ~Unmount() { ::umount(at.c_str()); }
    } unmount{disk};
    const std::string out = disk + "/out";
    ASSERT_EQ(druxrender(renderArgs(out, "32x24")).status, 0);
    const auto earlier = folder(out);

    ::setenv("TMPDIR", scratch.c_str(), 1);
    const Outcome r = druxrender(renderArgs(out, "160x120"));
    ::unsetenv("TMPDIR");
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("No space left on device"), std::string::npos) << r.err;
    const std::string moved = "they were written to " + scratch + "/druxrender-";
    const size_t at = r.err.find(moved);
    ASSERT_NE(at, std::string::npos) << r.err;
    EXPECT_TRUE(folder(out) == earlier) << "the earlier render changed";
    expectWholeRender(out, 32);
    expectWholeRender(r.err.substr(at + 21, r.err.find(' ', at + 21) - at - 21), 160);
    EXPECT_EQ(::umount(disk.c_str()), 0);
    removeAll(scratch);

    // A write that fails only when the file is flushed or closed.
    const Image img(4, 3);
    EXPECT_THROW(writePng("/dev/full", img), std::runtime_error);
    EXPECT_THROW(writeExr("/dev/full", {Layer{"", &img}}), std::runtime_error);
}

TEST(HostFaults, InterruptKeepsTheFinishedTilesAndResumeCompletesTheRender)
{
    const std::string out = tempDir(), reference = tempDir();
    auto sized = [](std::vector<std::string> a) {
        a.insert(a.end(), {"--resolution", "320x240", "--samples", "4", "--threads", "1"});
        return a;
    };
    ASSERT_EQ(druxrender(sized({"--out", reference, "--no-progress", "--quiet"})).status, 0);
    for (int sig : {SIGINT, SIGTERM}) {
        ASSERT_EQ(druxrender(renderArgs(out, "32x24")).status, 0);
        const auto earlier = folder(out);
        int fd = -1;
        const pid_t pid = start(sized({"--out", out, "--progress", "--quiet"}), fd);
        /* the bar's percentage once some tiles are done, not all */
        std::string err;
        char buf[512];
        bool midway = false;
        for (ssize_t n; !midway && (n = ::read(fd, buf, sizeof buf)) > 0;) {
            err.append(buf, size_t(n));
            const size_t pc = err.rfind('%');
            const size_t cr = err.rfind('\r', pc);
            if (pc != std::string::npos && cr != std::string::npos) {
                const int percent = std::atoi(err.substr(pc - 3, 3).c_str());
                midway = percent > 0 && percent < 90;
            }
        }
        ASSERT_TRUE(midway) << err;
        ::kill(pid, sig);
        const Outcome r = finish(pid, fd, err);
        EXPECT_EQ(r.status, 128 + sig) << r.err;
        EXPECT_EQ(r.err.find("100%"), std::string::npos) << "the render went on: " << r.err;
        const std::string said = std::string("interrupted by ") + (sig == SIGINT ? "SIGINT" : "SIGTERM") +
                                 ": render stopped, " + out + " keeps its earlier files; the finished tiles are kept in " +
                                 out + "/partial/interrupted.exr: druxrender --resume " + out + " renders the rest";
        EXPECT_NE(r.err.find(said), std::string::npos) << r.err;
        auto now = folder(out);
        EXPECT_EQ(now.erase("partial"), 1u);
        EXPECT_TRUE(now == earlier) << "the earlier render changed";
        RenderImages kept;
        PartialInfo info;
        readPartial(out + "/partial/interrupted.exr", kept, info);
        long area = 0;
        for (const Region &c : info.covered)
            area += long(c.width()) * c.height();
        EXPECT_GT(area, 0);
        EXPECT_LT(area, 320L * 240L);

        if (sig == SIGTERM) {
            // A scene that changed since (here: the kept fingerprint) is not resumed.
            const std::string job = out + "/partial/job", saved = readFile(job);
            std::string changed = saved;
            changed.replace(changed.find("fingerprint ") + 12, 4, "ffff");
            std::ofstream(job) << changed;
            const Outcome refused = druxrender({"--resume", out, "--no-progress", "--quiet"});
            EXPECT_EQ(refused.status, 2) << refused.err;
            EXPECT_NE(refused.err.find("changed since the render began"), std::string::npos) << refused.err;
            std::ofstream(job) << saved;
        }
        const Outcome resumed = druxrender({"--resume", out, "--no-progress", "--quiet"});
        EXPECT_EQ(resumed.status, 0) << resumed.err;
        EXPECT_TRUE(folder(out) == folder(reference)) << "the resumed render differs from an uninterrupted one";
    }
    const Outcome nothing = druxrender({"--resume", reference, "--quiet"});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_NE(nothing.err.find(reference + " holds no render to resume"), std::string::npos) << nothing.err;
    removeAll(out);
    removeAll(reference);
}


/* Farm options refused before anything runs; a submission through a stand-in
   sbatch (no cluster needed): the scripts, the dependency, the job ids and
   sbatch's own refusal; tile tasks that fail are named with their logs. */
TEST(HostFaults, TiledRendersSayWhatWentWrong)
{
    const std::string dir = tempDir();
    const std::vector<std::pair<std::vector<std::string>, std::string>> refused{
        {{"--tiles", "2"}, "--tiles needs one of --local and --submit slurm"},
        {{"--local"}, "--local and --submit need --tiles N"},
        {{"--tiles", "2", "--local", "--submit", "slurm"}, "--tiles needs one of --local and --submit slurm"},
        {{"--tiles", "2", "--submit", "pbs"}, "--submit knows only slurm"},
        {{"--tiles", "2", "--local", "--partition", "p"}, "--partition, --time and --mem go with --submit slurm"},
        {{"--tile", "3/2"}, "--tile needs I/N with 1 <= I <= N"},
        {{"--tile", "1/2", "--region", "0,0,4,4"}, "--tile and --region cannot be given together"},
        {{"--region", "5,5,5,9"}, "--region needs X0,Y0,X1,Y1"},
        {{"--region", "0,0,99,4", "--resolution", "32x24"}, "--region 0,0-99,4 reaches beyond the 32 x 24 image"},
        {{"--tiles", "30", "--local", "--resolution", "32x24"}, "--tiles 30 is more than the image's 24 rows"},
        {{"--status", dir}, dir + " holds no render to resume"},
    };
    for (const auto &r : refused) {
        std::vector<std::string> args{"--out", dir + "/out", "--quiet", "--no-progress"};
        args.insert(args.end(), r.first.begin(), r.first.end());
        const Outcome o = druxrender(args);
        EXPECT_EQ(o.status, 2) << r.second << ": " << o.err;
        EXPECT_NE(o.err.find(r.second), std::string::npos) << o.err;
    }

    // A stand-in sbatch that notes its arguments and answers with job ids;
    // a second one that refuses as Slurm does.
    const std::string bin = dir + "/bin", calls = dir + "/calls";
    ASSERT_EQ(::mkdir(bin.c_str(), 0777), 0);
    std::ofstream(bin + "/sbatch") << "#!/bin/sh\necho \"$*\" >> " << calls
                                   << "\nn=$(wc -l < " << calls << ")\necho $((100 + n))\n";
    ::chmod((bin + "/sbatch").c_str(), 0755);
    const char *path = std::getenv("PATH");
    const std::string savedPath = path ? path : "";
    ::setenv("PATH", (bin + ":" + savedPath).c_str(), 1);
    const std::string out = dir + "/farm";
    Outcome o = druxrender({"--out", out, "--resolution", "32x24", "--samples", "1", "--tiles", "3", "--submit",
                            "slurm", "--partition", "render", "--time", "1:00:00", "--quiet"});
    EXPECT_EQ(o.status, 0) << o.err;
    const std::string said = readFile(calls);
    EXPECT_NE(said.find("--parsable --array=1,2,3 " + out + "/partial/tile.sbatch\n"), std::string::npos) << said;
    EXPECT_NE(said.find("--parsable --dependency=afterok:101 --kill-on-invalid-dep=yes " + out +
                        "/partial/merge.sbatch\n"),
              std::string::npos)
        << said;
    EXPECT_EQ(readFile(out + "/partial/jobs"), "tiles 101\nmerge 102\n");
    const std::string tile = readFile(out + "/partial/tile.sbatch"), merge = readFile(out + "/partial/merge.sbatch");
    for (const std::string &want : {std::string("#SBATCH --partition=render\n"), std::string("#SBATCH --time=1:00:00\n"),
                                    std::string(" --tile \"$SLURM_ARRAY_TASK_ID/3\" --out '" + out + "/partial'"),
                                    std::string("'--samples' '1' '--resolution' '32x24'")})
        EXPECT_NE(tile.find(want), std::string::npos) << want << " not in:\n" << tile;
    EXPECT_NE(merge.find("/druxmerge' '" + out + "' '" + out + "/partial/tile-1-of-3.exr' '" + out +
                         "/partial/tile-2-of-3.exr' '" + out + "/partial/tile-3-of-3.exr'\n"),
              std::string::npos)
        << merge;
    // The state of the tiles from a stand-in squeue: a running task, a
    // pending range, a tile neither done nor queued; then squeue failing.
    std::ofstream(bin + "/squeue") << "#!/bin/sh\necho '101_2 RUNNING'\necho '101_[3%1] PENDING'\necho '102 PENDING'\n";
    ::chmod((bin + "/squeue").c_str(), 0755);
    auto statusOf = [](const std::string &dir) {
        std::string text;
        FILE *p = ::popen((std::string(DRUXRENDER_PATH) + " --status '" + dir + "' 2>&1").c_str(), "r");
        char buf[512];
        for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
            text.append(buf, n);
        EXPECT_EQ(p ? ::pclose(p) : -1, 0) << text;
        return text;
    };
    std::string status = statusOf(out);
    for (const std::string &want :
         {std::string("  tile 1/3  failed (missing; see " + out + "/partial/logs/tile-1.log)\n"),
          std::string("  tile 2/3  RUNNING (job 101_2)\n"), std::string("  tile 3/3  PENDING (job 101_3)\n"),
          std::string("  merge     PENDING (job 102)\n"),
          std::string("0 done, 2 queued or running, 1 failed or missing: druxrender --resume " + out)})
        EXPECT_NE(status.find(want), std::string::npos) << want << " not in:\n" << status;
    std::ofstream(bin + "/squeue") << "#!/bin/sh\necho 'squeue: error: cannot reach slurmctld' >&2\nexit 1\n";
    status = statusOf(out);
    EXPECT_NE(status.find("squeue could not be asked (squeue: error: cannot reach slurmctld)"), std::string::npos)
        << status;
    std::ofstream(bin + "/sbatch") << "#!/bin/sh\necho 'sbatch: error: invalid partition specified: nope' >&2\nexit 1\n";
    o = druxrender({"--out", out, "--resolution", "32x24", "--tiles", "3", "--submit", "slurm", "--partition", "nope",
                    "--quiet"});
    EXPECT_EQ(o.status, 1) << o.err;
    EXPECT_NE(o.err.find("failed: sbatch: error: invalid partition specified: nope"), std::string::npos) << o.err;
    ::setenv("PATH", savedPath.c_str(), 1);

    // Tile tasks that cannot render: each named, with its log, and how to go on.
    const std::string scene = dir + "/bad.scene";
    std::ofstream(scene) << "link \"libnot_there.so\"\nresolution 32 24\n";
    o = druxrender({"--scene", scene, "--out", dir + "/bad", "--tiles", "2", "--local", "--quiet"});
    EXPECT_EQ(o.status, 1) << o.err;
    EXPECT_NE(o.err.find("tile tasks 1, 2 of 2 failed (see " + dir + "/bad/partial/logs/tile-1.log); druxrender --resume " +
                         dir + "/bad renders them again"),
              std::string::npos)
        << o.err;
    EXPECT_NE(readFile(dir + "/bad/partial/logs/tile-1.log").find("libnot_there.so"), std::string::npos);
    o = druxrender({"--status", dir + "/bad"});
    EXPECT_EQ(o.status, 0) << o.err;
    removeAll(dir);
}

TEST(HostFaults, StagedFilesMoveAllOrNone)
{
    const std::string dir = tempDir();
    std::ofstream(dir + "/a.txt") << "earlier a";
    for (const char *blocked : {"b.txt", "c.txt"}) {
        // A folder in the way of an earlier file (it cannot be kept), or the
        // new file gone when its rename comes: the files already moved go
        // back to their earlier bytes, nothing else is left.
        ASSERT_EQ(::mkdir((dir + "/b.txt").c_str(), 0777), 0);
        StagedFiles staged(dir);
        std::ofstream(staged.stage("a.txt")) << "new a";
        std::ofstream(staged.stage("b.txt")) << "new b";
        const std::string c = staged.stage("c.txt");
        std::ofstream(c) << "new c";
        if (blocked[0] == 'c') {
            ::rmdir((dir + "/b.txt").c_str());
            std::remove(c.c_str());
        }
        EXPECT_THROW(staged.commit(), std::runtime_error);
        EXPECT_EQ(readFile(dir + "/a.txt"), "earlier a") << blocked;
        ::rmdir((dir + "/b.txt").c_str());
    }
    EXPECT_EQ(folder(dir).size(), 1u) << "only a.txt";
    {
        StagedFiles staged(dir);
        std::ofstream(staged.stage("a.txt")) << "new a";
        std::ofstream(staged.stage("b.txt")) << "new b";
        EXPECT_EQ(staged.commit(), (std::vector<std::string>{dir + "/a.txt", dir + "/b.txt"}));
    }
    EXPECT_EQ(readFile(dir + "/a.txt"), "new a");
    EXPECT_EQ(readFile(dir + "/b.txt"), "new b");
    EXPECT_EQ(folder(dir).size(), 2u);

    // A stop asked for while the files are written: nothing moves.
    SceneDesc s = defaultScene();
    s.width = 4;
    s.height = 3;
    s.samples = 1;
    const RenderResult r = render(s);
    const auto earlier = folder(dir);
    const std::atomic<int> stop{SIGINT};
    EXPECT_THROW(writeOutputsOrFallback(r, dir, &stop), RenderInterrupted);
    EXPECT_TRUE(folder(dir) == earlier);
    removeAll(dir);
}

/* Scenes and files the renderer must refuse before rendering, with the
   scene line (when there is one) and what is wrong; the output folder keeps
   its earlier render. */
TEST(HostFaults, BadInputIsRefusedWithItsLine)
{
    const std::string dir = tempDir();
    const std::string out = dir + "/out";
    ASSERT_EQ(druxrender(renderArgs(out, "16x12")).status, 0);
    const auto earlier = folder(out);
    ASSERT_EQ(::mkfifo((dir + "/pipe.obj").c_str(), 0600), 0);
    std::ofstream(dir + "/big.obj") << "v 0 0 0\nv 0 1e39 0\nv 0 0 1\nf 1 2 3\n";
    std::ofstream(dir + "/empty.scene") << "# nothing\n\n";
    /* sparse files just over the limits */
    std::ofstream(dir + "/huge.scene") << "samples 1\n";
    ASSERT_EQ(::truncate((dir + "/huge.scene").c_str(), off_t(kSceneFileLimit) + 1), 0);
    std::ofstream(dir + "/huge.obj") << "v 0 0 0\n";
    ASSERT_EQ(::truncate((dir + "/huge.obj").c_str(), off_t(kObjFileLimit) + 1), 0);
    const std::string mesh = "mesh b sphere 1 8 4\nmaterial m\n";
    /* connected shader instances, each one on the one before */
    const auto chain = [](int n) {
        std::string text = "link \"libdruxhostshaders.so\"\nlink \"" DRUX_TEST_SHADER_DIR "/libtest_shaders.so\"\n"
                           "resolution 4 4\nsamples 1\nshader s0 checker a 0.1 0.2 0.3 b 0.1 0.2 0.3\n";
        for (int k = 1; k < n; ++k)
            text += "shader s" + std::to_string(k) + " tint base = s" + std::to_string(k - 1) + " gain 1\n";
        return text + "material m shader s" + std::to_string(n - 1) + "\nmesh quad plane 4 4 1 1\n"
                                                                      "instance q mesh quad material m\n";
    };
    std::ofstream(dir + "/longest.scene") << chain(1000);
    EXPECT_EQ(druxrender({"--scene", dir + "/longest.scene", "--out", dir + "/chain", "--quiet"}).status, 0);
    const struct {
        std::string scene; /* text of DIR/case.scene, or the --scene path after '@' */
        std::string said;
    } cases[] = {
        {"@/dev/zero", "/dev/zero: cannot read the scene file: it is a device, not a regular file"},
        {"@" + dir, dir + ": cannot read the scene file: it is a folder, not a regular file"},
        {"@" + dir + "/empty.scene", "empty.scene: the scene file holds no commands"},
        {"@" + dir + "/huge.scene", "huge.scene: cannot read the scene file: it is larger than the 256 MiB"},
        {"samples 1\nmesh b obj \"/dev/zero\"\n",
         "case.scene:2: mesh \"b\": /dev/zero: it is a device, not a regular file"},
        {"mesh b obj \"pipe.obj\"\n",
         "case.scene:1: mesh \"b\": " + dir + "/pipe.obj: it is a FIFO, not a regular file"},
        {"mesh b obj \"huge.obj\"\n", "huge.obj: it is larger than the 1024 MiB an OBJ file may have"},
        {"mesh b obj \"big.obj\"\n",
         "case.scene:1: mesh \"b\": " + dir + "/big.obj:2: \"1e39\" is not a finite number in single precision"},
        {"camera position 0 -2e18 3\n",
         "case.scene:1: camera position 0 -2e+18 3 lies beyond the coordinate limit 1e15"},
        {"light l point position 0 0 1e16\n",
         "case.scene:1: light \"l\" at 0 0 1e+16 lies beyond the coordinate limit 1e15"},
        {mesh + "instance i mesh b material m translate 0 0 2e15\n",
         "case.scene:3: instance \"i\": mesh \"b\" placed at"},
        {mesh + "instance i mesh b material m scale 1e-20 1 1 scale 1e-20 1 1\n",
         "case.scene:3: instance \"i\": its transform steps multiply to a matrix that is singular"},
        {mesh + "instance i mesh b material m scale 1e20 1 1 scale 1e20 1 1\n",
         "case.scene:3: instance \"i\": its transform steps multiply to a matrix that is singular"},
        {"light l rect center 0 0 3 u 1 0 0 v 0 1 0 samples 1024 shadow_samples 1024\n",
         "case.scene:1: light \"l\": samples 1024 x shadow_samples 1024 is more than the 4096 shadow rays"},
        {"material m scatter_radius 0.3 scatter_samples 2000000000\n",
         "case.scene:1: material \"m\": scatter_samples must lie within 1 .. 4096"},
        {chain(1001), "case.scene:1005: shader instance \"s1000\" ends a chain of more than 1000 connected shaders"},
        {chain(1000000), "case.scene:1005: shader instance \"s1000\" ends a chain of more than 1000 connected"},
        {"resolution 16384 16384\n", "case.scene:1: resolution 16384 x 16384 with 0 passes needs 4.0 GiB for"},
    };
    const uint64_t memory = uint64_t(::sysconf(_SC_PHYS_PAGES)) * uint64_t(::sysconf(_SC_PAGESIZE));
    for (const auto &c : cases) {
        if (c.scene.rfind("resolution", 0) == 0 && memory > (4ull << 30))
            continue; /* the machine has room for that image */
        std::string path = c.scene.substr(1);
        if (c.scene[0] != '@') {
            path = dir + "/case.scene";
            std::ofstream(path) << c.scene;
        }
        const Outcome r = druxrender({"--scene", path, "--out", out, "--no-progress", "--quiet"});
        const std::string scene = c.scene.substr(0, 200);
        EXPECT_EQ(r.status, 2) << scene << ": " << r.err;
        EXPECT_NE(r.err.find(c.said), std::string::npos) << scene << ": " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << "one line: " << r.err;
    }
    // The built-in scene's 17 passes at the largest size: 172 GiB.
    if (memory > (104ull << 30))
        return removeAll(dir); /* the machine has room for that render */
    const Outcome big = druxrender({"--out", out, "--resolution", "16384x16384", "--no-progress", "--quiet"});
    EXPECT_EQ(big.status, 2) << big.err;
    EXPECT_NE(big.err.find("built-in scene: resolution 16384 x 16384 with 17 passes needs 104.0 GiB for its images, "
                           "more than the "),
              std::string::npos)
        << big.err;
    EXPECT_TRUE(folder(out) == earlier);
    removeAll(dir);
}

/* Where shader libraries come from: a scene's relative paths are relative
   to the scene file; the implicit host library and, with restricted links,
   every library come only from the shader path and the install. */
TEST(HostFaults, ShaderLibrariesComeFromTrustedPlaces)
{
    const std::string dir = tempDir();
    ASSERT_EQ(::mkdir((dir + "/sub").c_str(), 0777), 0);
    ASSERT_EQ(std::system(("cp " DRUX_TEST_SHADER_DIR "/libtest_shaders.so " + dir + "/sub/").c_str()), 0);
    ASSERT_EQ(::mkdir((dir + "/bare").c_str(), 0777), 0);
    std::ofstream(dir + "/bare/libdruxhostshaders.so") << "not a library";
    const std::string body = "resolution 8 8\nsamples 1\nmaterial m\nmesh quad plane 4 4 1 1\n"
                             "instance q mesh quad material m\npass beauty beauty\n";
    std::ofstream(dir + "/bare/plain.scene") << body;
    std::ofstream(dir + "/linked.scene") << "link \"libdruxhostshaders.so\"\nlink \"sub/libtest_shaders.so\"\n" << body;
    std::ofstream(dir + "/named.scene") << "link \"libdruxhostshaders.so\"\nlink \"libtest_shaders.so\"\n" << body;
    std::ofstream(dir + "/sub/named.scene") << "link \"libdruxhostshaders.so\"\nlink \"libtest_shaders.so\"\n" << body;
    const auto run = [&](const std::string &scene, std::vector<std::string> more) {
        std::vector<std::string> args{"--scene", dir + "/" + scene, "--out", dir + "/out", "--no-progress", "--quiet"};
        args.insert(args.end(), more.begin(), more.end());
        return druxrender(args);
    };
    EXPECT_EQ(run("bare/plain.scene", {}).status, 0) << "the scene folder's libdruxhostshaders.so was loaded";
    EXPECT_EQ(run("linked.scene", {}).status, 0) << "sub/ not taken from the scene's folder";
    EXPECT_EQ(run("sub/named.scene", {}).status, 0) << "a bare name is found beside the scene";
    EXPECT_EQ(run("sub/named.scene", {"--shader-path", dir + "/sub", "--restrict-links"}).status, 0);
    Outcome r = run("linked.scene", {"--restrict-links"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("linked.scene:2: link \"sub/libtest_shaders.so\": a path is not allowed when links are "
                         "restricted"),
              std::string::npos)
        << r.err;
    ::setenv("DRUX_RESTRICT_LINKS", "1", 1);
    r = run("sub/named.scene", {});
    ::unsetenv("DRUX_RESTRICT_LINKS");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("named.scene:2: shader library \"libtest_shaders.so\" not found; searched: "),
              std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find(dir + "/sub,"), std::string::npos) << "the scene's folder was searched: " << r.err;
    removeAll(dir);
}

/* Fewer threads than asked for (a process-count limit through the pids
   control group): the render goes on with those the system started and
   gives the same image; with none, it stops with the reason. */
TEST(HostFaults, ThreadsTheSystemCannotStart)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer runtimes start threads of their own and limit the render threads: the counts differ";
#endif
    const std::string group = "/sys/fs/cgroup/pids/druxfaults-" + std::to_string(::getpid());
    if (::mkdir(group.c_str(), 0755) != 0)
        GTEST_SKIP() << "no pids control group here (" << std::strerror(errno) << ")";
    const std::string dir = tempDir();
    const std::vector<std::string> args{"--out", dir + "/out", "--resolution", "64x48", "--samples", "1",
                                        "--no-progress", "--quiet", "--image-stats"};
    ASSERT_EQ(druxrender({args[0], args[1], args[2], args[3], args[4], args[5], args[6], args[7], args[8],
                          dir + "/free.stats", "--threads", "1"})
                  .status,
              0);
    for (int limit : {5, 2}) {
        std::ofstream(group + "/pids.max") << limit;
        std::string cmd = "echo $$ > " + group + "/cgroup.procs; exec " DRUXRENDER_PATH;
        for (const std::string &a : args)
            cmd += " " + a;
        const std::string log = dir + "/log";
        const int st = std::system(("sh -c '" + cmd + " " + dir + "/limited.stats --threads 8' 2>" + log).c_str());
        const std::string err = readFile(log);
        ASSERT_TRUE(WIFEXITED(st)) << err;
        if (limit == 5) {
            EXPECT_EQ(WEXITSTATUS(st), 0) << err;
            EXPECT_NE(err.find("warning: the system started only "), std::string::npos) << err;
            EXPECT_NE(err.find(" of 8 render threads (Resource temporarily unavailable); rendering with those"),
                      std::string::npos)
                << err;
            EXPECT_EQ(readFile(dir + "/limited.stats"), readFile(dir + "/free.stats"));
        } else {
            EXPECT_EQ(WEXITSTATUS(st), 1) << err;
            EXPECT_NE(err.find("druxrender: render stopped: cannot start a render thread: "), std::string::npos)
                << err;
        }
    }
    EXPECT_EQ(::rmdir(group.c_str()), 0);
    removeAll(dir);
}

/* A scattering cache too large to allocate fails fatally in whichever
   render threads reach it first; the others may wait on the cache's lock. */
TEST(HostFaults, FatalErrorInARenderThreadEndsTheRender)
{
    const std::string dir = tempDir();
    std::ofstream(dir + "/fatal.scene") << "resolution 64 48\nsamples 1\ncamera position 0 -4 1 target 0 0 0.5\n"
                                           "material wax scatter_radius 0.3 scatter_samples 4 scatter_cache "
                                           "2000000000\nmesh ball sphere 1 16 8\n"
                                           "instance b mesh ball material wax translate 0 0 0.8\n"
                                           "light k point position 2 -3 4\npass beauty beauty\n";
    const std::string out = dir + "/out";
    ASSERT_EQ(druxrender(renderArgs(out, "16x12")).status, 0);
    const auto earlier = folder(out);
    /* sanitizer builds: let the allocation fail as it does without them
       instead of stopping the process in the sanitizer's allocator */
    for (const char *name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char *was = std::getenv(name);
        ::setenv(name, ((was ? std::string(was) + ":" : std::string()) + "allocator_may_return_null=1").c_str(), 1);
    }
    for (int run = 0; run < 20; ++run) {
        const Outcome r = druxrender({"--scene", dir + "/fatal.scene", "--out", out, "--threads", "8", "--no-progress",
                                  "--quiet"});
        ASSERT_EQ(r.status, 1) << "run " << run << (r.status == 128 + SIGKILL ? " hung" : "") << ": " << r.err;
        const std::string said = "druxrender: fatal error: mi_mem_int_allocate: out of memory for ";
        ASSERT_NE(r.err.find(said), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(said), r.err.rfind(said)) << "said once: " << r.err;
        EXPECT_NE(r.err.find("; the render is abandoned, " + out + " keeps its earlier files"), std::string::npos)
            << r.err;
    }
    EXPECT_TRUE(folder(out) == earlier);
    removeAll(dir);
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostFaults, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
