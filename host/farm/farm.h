/*
 * A render split into parts, rendered by separate processes and merged:
 * tiles run as local processes or as a Slurm array job, and the partial that
 * an interrupted whole render leaves.  Everything lives in the output
 * folder's partial/ folder, which a later --status or --resume reads:
 *
 *   OUT/partial/job                   what was asked: the render's options,
 *                                     the tile count, how the tiles run
 *   OUT/partial/tile-I-of-N.exr       the tiles' partial renders
 *   OUT/partial/interrupted.exr       the tiles an interrupted render finished
 *   OUT/partial/logs/tile-I.log       what each tile task printed
 *   OUT/partial/tile.sbatch, merge.sbatch, jobs   (Slurm) scripts and job ids
 *
 * Nothing here knows scenes or rendering: a tile task is druxrender run with
 * the job's options and --tile I/N, the merge is druxmerge.
 */
#ifndef DRUXHOST_FARM_H
#define DRUXHOST_FARM_H

#include "partial.h"

#include <atomic>
#include <string>
#include <vector>

namespace druxhost {

enum class FarmExecutor { Local, Slurm, Whole };

struct FarmJob {
    std::string outDir;
    FarmExecutor executor = FarmExecutor::Local;
    int tiles = 1;
    std::string fingerprint;       /* of the render the parts belong to */
    std::vector<std::string> args; /* druxrender's options that make the image (absolute paths) */
    std::string statsPath;         /* --image-stats of the merge, "" for none */
    std::string partition, time, mem; /* Slurm's sbatch options, "" for its defaults */
};

std::string partialDir(const std::string &outDir);
std::string tilePath(const std::string &outDir, int index, int count);
std::string interruptedPath(const std::string &outDir);

/* Writes OUT/partial/job (and creates the folder and its logs/). */
void writeJob(const FarmJob &job);
/* Throws std::runtime_error saying what is wrong with OUT/partial/job. */
FarmJob readJob(const std::string &outDir);
bool hasJob(const std::string &outDir);

/* Per tile (index 0 is tile 1): "" when its partial is whole and belongs to
   the job's render, else why not ("missing", "damaged: ...", "of another
   render"). */
std::vector<std::string> tileStates(const FarmJob &job);

/* The program beside the running druxrender (druxrender, druxmerge). */
std::string programPath(const std::string &name);

/* Runs druxrender's tile tasks for `todo` (tile numbers from 1) as child
   processes, at most `jobs` at once, each with `threads` threads, output in
   OUT/partial/logs/.  A non-zero *stop sends SIGTERM to the tasks running
   and starts no more.  Returns the tiles that failed. */
std::vector<int> runLocalTiles(const FarmJob &job, const std::vector<int> &todo, int jobs, int threads,
                               const std::atomic<int> *stop);

/* Writes the sbatch scripts and submits the tile tasks of `todo` as an array
   job and the merge as a job that runs once they all succeed; returns the
   two job ids.  `todo` empty: only the merge.  Throws std::runtime_error with
   what sbatch said. */
struct SlurmJobs {
    std::string tiles, merge;
};
SlurmJobs submitSlurm(const FarmJob &job, const std::vector<int> &todo);

/* The state of each tile and of the merge, one line each, from the partial
   files and squeue. */
std::string farmStatus(const FarmJob &job);

/* OUT/render.exr is the merged render of this job's parts. */
bool merged(const FarmJob &job);

/* Cancels the job's earlier merge job when it is still queued (before a
   resume submits another). */
void cancelQueuedMerge(const FarmJob &job);

} // namespace druxhost

#endif
