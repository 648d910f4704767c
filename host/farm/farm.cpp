#include "farm.h"

#include "file_read.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace druxhost {

namespace {

const char *const kExecutors[] = {"local", "slurm", "whole"};

/* The folder and those above it, or an error naming the one missing. */
void needDirs(const std::string &dir)
{
    if (!makeDirs(dir))
        throw std::runtime_error("cannot create " + dir + ": " + std::strerror(errno));
}

/* A single-quoted word for sh. */
std::string quote(const std::string &s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

/* Runs a program (found on PATH) with its output and errors captured; the
   exit status, -1 when it could not be started. */
int runCapture(const std::vector<std::string> &argv, std::string &output)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return -1;
    }
    if (pid == 0) {
        ::dup2(fds[1], STDOUT_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        const std::string msg = argv[0] + ": " + std::strerror(errno) + "\n";
        if (::write(STDERR_FILENO, msg.data(), msg.size()) < 0) {
            /* nothing more to say */
        }
        ::_exit(127);
    }
    ::close(fds[1]);
    output.clear();
    char buf[4096];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        output.append(buf, size_t(n));
    }
    ::close(fds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string trimmed(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\r'))
        s.pop_back();
    return s;
}

std::string logPath(const std::string &outDir, int tile)
{
    return partialDir(outDir) + "/logs/tile-" + std::to_string(tile) + ".log";
}

/* The job ids submitted so far, "tiles ID" and "merge ID" lines, oldest first. */
std::vector<std::pair<std::string, std::string>> readJobIds(const FarmJob &job)
{
    std::vector<std::pair<std::string, std::string>> ids;
    std::ifstream in(partialDir(job.outDir) + "/jobs");
    std::string kind, id;
    while (in >> kind >> id)
        ids.emplace_back(kind, id);
    return ids;
}

/* squeue's view of the cluster: job id (123, 123_4) -> state. Pending array
   ranges ("123_[2-4,6%2]") are spread into one entry per task. */
std::map<std::string, std::string> queuedJobs(std::string *failure = nullptr)
{
    std::string out;
    std::map<std::string, std::string> jobs;
    if (runCapture({"squeue", "-h", "-o", "%i %T"}, out) != 0) {
        if (failure)
            *failure = trimmed(out).empty() ? std::string("squeue did not run") : trimmed(out);
        return jobs;
    }
    std::istringstream lines(out);
    std::string id, state;
    while (lines >> id >> state) {
        const size_t open = id.find("_[");
        if (open == std::string::npos) {
            jobs[id] = state;
            continue;
        }
        const std::string base = id.substr(0, open);
        std::string list = id.substr(open + 2);
        list = list.substr(0, list.find_first_of("%]"));
        std::istringstream items(list);
        for (std::string item; std::getline(items, item, ',');) {
            const size_t dash = item.find('-');
            const int a = std::atoi(item.c_str());
            const int b = dash == std::string::npos ? a : std::atoi(item.c_str() + dash + 1);
            for (int k = a; k <= b && k - a < 100000; ++k)
                jobs[base + "_" + std::to_string(k)] = state;
        }
    }
    return jobs;
}

} // namespace

std::string partialDir(const std::string &outDir) { return outDir + "/partial"; }

bool merged(const FarmJob &job)
{
    try {
        for (const auto &a : readExrAttributes(job.outDir + "/render.exr"))
            if (a.first == "druxrender/fingerprint")
                return a.second == job.fingerprint;
    } catch (const std::exception &) {
    }
    return false;
}

std::string tilePath(const std::string &outDir, int index, int count)
{
    return partialDir(outDir) + "/tile-" + std::to_string(index) + "-of-" + std::to_string(count) + ".exr";
}

std::string interruptedPath(const std::string &outDir) { return partialDir(outDir) + "/interrupted.exr"; }

bool hasJob(const std::string &outDir)
{
    struct stat st;
    return ::stat((partialDir(outDir) + "/job").c_str(), &st) == 0;
}

void writeJob(const FarmJob &job)
{
    needDirs(partialDir(job.outDir) + "/logs");
    std::ostringstream o;
    o << "druxrender-job 1\n"
      << "executor " << kExecutors[static_cast<int>(job.executor)] << "\n"
      << "tiles " << job.tiles << "\n"
      << "fingerprint " << job.fingerprint << "\n";
    if (!job.statsPath.empty())
        o << "image-stats " << job.statsPath << "\n";
    if (!job.partition.empty())
        o << "partition " << job.partition << "\n";
    if (!job.time.empty())
        o << "time " << job.time << "\n";
    if (!job.mem.empty())
        o << "mem " << job.mem << "\n";
    for (const std::string &a : job.args) {
        if (a.find('\n') != std::string::npos)
            throw std::runtime_error("an option with a line break cannot be kept for a resume: " + a);
        o << "arg " << a << "\n";
    }
    writeTextFile(partialDir(job.outDir) + "/job", o.str());
}

FarmJob readJob(const std::string &outDir)
{
    const std::string path = partialDir(outDir) + "/job";
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error(outDir + " holds no render to resume (no " + path +
                                 "): give the --out folder of an interrupted or tiled render");
    FarmJob job;
    job.outDir = outDir;
    std::string line;
    int n = 0;
    bool executor = false;
    while (std::getline(in, line)) {
        ++n;
        const size_t sp = line.find(' ');
        const std::string key = line.substr(0, sp), value = sp == std::string::npos ? "" : line.substr(sp + 1);
        if (n == 1 && line != "druxrender-job 1")
            throw std::runtime_error(path + ":1: not a job file of this druxrender");
        if (n == 1)
            continue;
        if (key == "executor") {
            for (int k = 0; k < 3; ++k)
                if (value == kExecutors[k]) {
                    job.executor = static_cast<FarmExecutor>(k);
                    executor = true;
                }
        } else if (key == "tiles") {
            job.tiles = std::atoi(value.c_str());
        } else if (key == "fingerprint") {
            job.fingerprint = value;
        } else if (key == "image-stats") {
            job.statsPath = value;
        } else if (key == "partition") {
            job.partition = value;
        } else if (key == "time") {
            job.time = value;
        } else if (key == "mem") {
            job.mem = value;
        } else if (key == "arg") {
            job.args.push_back(value);
        } else {
            throw std::runtime_error(path + ":" + std::to_string(n) + ": unknown line \"" + line + "\"");
        }
    }
    if (n == 0 || !executor || job.tiles < 1 || job.tiles > 100000 || job.fingerprint.empty())
        throw std::runtime_error(path + " is incomplete (executor, tiles and fingerprint are needed)");
    return job;
}

std::vector<std::string> tileStates(const FarmJob &job)
{
    std::vector<std::string> states;
    for (int i = 1; i <= job.tiles; ++i) {
        const std::string path = tilePath(job.outDir, i, job.tiles);
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            states.push_back("missing");
            continue;
        }
        try {
            RenderImages images;
            PartialInfo info;
            readPartial(path, images, info);
            states.push_back(info.fingerprint == job.fingerprint ? "" : "of another render");
        } catch (const std::exception &e) {
            states.push_back(std::string("damaged: ") + e.what());
        }
    }
    return states;
}

std::string programPath(const std::string &name)
{
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return name;
    std::string self(buf, size_t(n));
    return self.substr(0, self.rfind('/') + 1) + name;
}

std::vector<int> runLocalTiles(const FarmJob &job, const std::vector<int> &todo, int jobs, int threads,
                               const std::atomic<int> *stop)
{
    needDirs(partialDir(job.outDir) + "/logs");
    const std::string self = programPath("druxrender");
    std::map<pid_t, int> running;
    std::vector<int> failed;
    size_t next = 0;
    bool stopping = false;
    while (next < todo.size() || !running.empty()) {
        if (stop && stop->load() && !stopping) {
            stopping = true;
            for (const auto &r : running)
                ::kill(r.first, SIGTERM);
        }
        while (!stopping && next < todo.size() && int(running.size()) < std::max(1, jobs)) {
            const int tile = todo[next++];
            std::vector<std::string> argv{self};
            argv.insert(argv.end(), job.args.begin(), job.args.end());
            for (const std::string &a : {std::string("--tile"), std::to_string(tile) + "/" + std::to_string(job.tiles),
                                         std::string("--out"), partialDir(job.outDir), std::string("--threads"),
                                         std::to_string(std::max(1, threads)), std::string("--quiet"),
                                         std::string("--no-progress")})
                argv.push_back(a);
            const std::string log = logPath(job.outDir, tile);
            const pid_t pid = ::fork();
            if (pid < 0) {
                failed.push_back(tile);
                continue;
            }
            if (pid == 0) {
                /* the task ends on the parent's SIGTERM, not on the terminal's SIGINT */
                ::setpgid(0, 0);
                const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
                if (fd >= 0) {
                    ::dup2(fd, STDOUT_FILENO);
                    ::dup2(fd, STDERR_FILENO);
                }
                std::vector<char *> args;
                for (const std::string &a : argv)
                    args.push_back(const_cast<char *>(a.c_str()));
                args.push_back(nullptr);
                ::execv(self.c_str(), args.data());
                ::_exit(127);
            }
            running[pid] = tile;
        }
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        const auto it = running.find(pid);
        if (it == running.end())
            continue;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            failed.push_back(it->second);
        running.erase(it);
    }
    for (size_t k = next; k < todo.size(); ++k)
        failed.push_back(todo[k]);
    std::sort(failed.begin(), failed.end());
    return failed;
}

SlurmJobs submitSlurm(const FarmJob &job, const std::vector<int> &todo)
{
    const std::string dir = partialDir(job.outDir);
    needDirs(dir + "/logs");
    std::string head = "#!/bin/sh\n";
    if (!job.partition.empty())
        head += "#SBATCH --partition=" + job.partition + "\n";
    if (!job.time.empty())
        head += "#SBATCH --time=" + job.time + "\n";
    if (!job.mem.empty())
        head += "#SBATCH --mem=" + job.mem + "\n";
    std::string tile = head + "#SBATCH --job-name=druxrender-tiles\n#SBATCH --output=" + dir +
                       "/logs/tile-%a.log\n# one task per tile: druxrender --tile $SLURM_ARRAY_TASK_ID/" +
                       std::to_string(job.tiles) + ", with the task's CPUs as its threads when it has a count\nexec " + quote(programPath("druxrender"));
    for (const std::string &a : job.args)
        tile += " " + quote(a);
    tile += " --tile \"$SLURM_ARRAY_TASK_ID/" + std::to_string(job.tiles) + "\" --out " + quote(dir) +
            " --quiet --no-progress ${SLURM_CPUS_PER_TASK:+--threads \"$SLURM_CPUS_PER_TASK\"}\n";
    std::string merge = head + "#SBATCH --job-name=druxrender-merge\n#SBATCH --output=" + dir +
                        "/logs/merge.log\n# runs once every tile task has succeeded\nexec " +
                        quote(programPath("druxmerge"));
    if (!job.statsPath.empty())
        merge += " --image-stats " + quote(job.statsPath);
    merge += " " + quote(job.outDir);
    for (int i = 1; i <= job.tiles; ++i)
        merge += " " + quote(tilePath(job.outDir, i, job.tiles));
    merge += "\n";
    for (const auto &script : {std::make_pair(std::string("tile.sbatch"), tile), std::make_pair(std::string("merge.sbatch"), merge)}) {
        std::ofstream f(dir + "/" + script.first);
        f << script.second;
        if (!f.flush())
            throw std::runtime_error("cannot write " + dir + "/" + script.first);
    }
    auto sbatch = [&](std::vector<std::string> argv) {
        std::string out;
        argv.insert(argv.begin(), {"sbatch", "--parsable"});
        const int status = runCapture(argv, out);
        out = trimmed(out);
        if (status != 0 || out.empty() || out.find_first_not_of("0123456789;") != std::string::npos)
            throw std::runtime_error("sbatch " + argv.back() + " failed" +
                                     (status == 127 ? std::string(" (is Slurm's sbatch on the PATH?)") : "") + ": " +
                                     out);
        return out.substr(0, out.find(';'));
    };
    SlurmJobs ids;
    std::vector<std::string> mergeArgs;
    if (!todo.empty()) {
        std::string list;
        for (int t : todo)
            list += (list.empty() ? "" : ",") + std::to_string(t);
        ids.tiles = sbatch({"--array=" + list, dir + "/tile.sbatch"});
        mergeArgs = {"--dependency=afterok:" + ids.tiles, "--kill-on-invalid-dep=yes"};
    }
    mergeArgs.push_back(dir + "/merge.sbatch");
    ids.merge = sbatch(mergeArgs);
    std::ofstream jobs(dir + "/jobs", std::ios::app);
    if (!ids.tiles.empty())
        jobs << "tiles " << ids.tiles << "\n";
    jobs << "merge " << ids.merge << "\n";
    return ids;
}

void cancelQueuedMerge(const FarmJob &job)
{
    const std::map<std::string, std::string> queued = queuedJobs();
    for (const auto &id : readJobIds(job))
        if (id.first == "merge" && queued.count(id.second)) {
            std::string out;
            runCapture({"scancel", id.second}, out);
        }
}

std::string farmStatus(const FarmJob &job)
{
    const std::vector<std::string> states = tileStates(job);
    std::string squeueFailure;
    const std::map<std::string, std::string> queued =
        job.executor == FarmExecutor::Slurm ? queuedJobs(&squeueFailure) : std::map<std::string, std::string>();
    const auto ids = readJobIds(job);
    std::ostringstream o;
    if (!squeueFailure.empty())
        o << "squeue could not be asked (" << squeueFailure
          << "): tiles still queued or running show as failed below\n";
    int done = 0, active = 0, failed = 0;
    for (int i = 1; i <= job.tiles; ++i) {
        std::string state = states[size_t(i - 1)], where;
        if (state.empty()) {
            ++done;
            o << "  tile " << i << "/" << job.tiles << "  done\n";
            continue;
        }
        /* the newest tiles job that has this task queued */
        for (auto it = ids.rbegin(); it != ids.rend() && where.empty(); ++it) {
            const auto q = it->first == "tiles" ? queued.find(it->second + "_" + std::to_string(i)) : queued.end();
            if (q != queued.end())
                where = q->second + " (job " + q->first + ")";
        }
        if (!where.empty()) {
            ++active;
            o << "  tile " << i << "/" << job.tiles << "  " << where << "\n";
        } else {
            ++failed;
            o << "  tile " << i << "/" << job.tiles << "  failed (" << state << "; see " << logPath(job.outDir, i)
              << ")\n";
        }
    }
    std::string merge;
    for (auto it = ids.rbegin(); it != ids.rend() && merge.empty(); ++it)
        if (it->first == "merge")
            merge = queued.count(it->second) ? queued.at(it->second) + " (job " + it->second + ")"
                                             : "ended without writing the images (job " + it->second +
                                                   "; cancelled when a tile task failed, else see " +
                                                   partialDir(job.outDir) + "/logs/merge.log)";
    if (merged(job))
        merge = "done (" + job.outDir + "/render.exr)";
    else if (merge.empty())
        merge = job.executor == FarmExecutor::Slurm ? "not submitted" : "not done";
    o << "  merge     " << merge << "\n";
    o << done << " done, " << active << " queued or running, " << failed << " failed or missing"
      << (failed ? ": druxrender --resume " + job.outDir + " renders them again\n" : "\n");
    return o.str();
}

} // namespace druxhost
