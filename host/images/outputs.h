/*
 * The files of a render: the multi-layer EXR, a PNG per pass, the contact
 * sheet; written whole or not at all.
 */
#ifndef DRUXHOST_OUTPUTS_H
#define DRUXHOST_OUTPUTS_H

#include "cryptomatte.h"
#include "image_io.h"
#include "interrupted.h"
#include "pass_roles.h"

#include <atomic>
#include <string>
#include <vector>

namespace druxhost {

/* What a render shows: the main image, one image per pass and the ID
   mattes. */
struct RenderImages {
    /* Where the images lie in the whole picture: a part of it (a tile, a
       region) starts here; a whole render at 0, 0. */
    int originX = 0, originY = 0;
    /* Of the scene and the settings that made the pixels; written into the
       EXR header when set, so that parts of one render can be told apart
       from those of another. */
    std::string fingerprint;
    Image main;                        /* the colours the eye rays returned */
    std::vector<std::string> passNames; /* scene order */
    std::vector<PassRole> passRoles;
    std::vector<Image> passes;
    /* ID mattes: CryptoObject (instance names), CryptoMaterial (material names) */
    std::vector<CryptoMatte> mattes;

    const Image *pass(const std::string &name) const;
};

/* Files written under temporary names in one folder (".druxrender-PID-new-
   NAME") and moved into place together by commit(), so that the folder holds
   either all the new files or all the earlier ones: an earlier file is kept
   under a second name until every rename is done and put back when one
   fails.  Temporary files not committed are removed by the destructor. */
class StagedFiles {
public:
    explicit StagedFiles(const std::string &dir);
    ~StagedFiles();
    StagedFiles(const StagedFiles &) = delete;
    StagedFiles &operator=(const StagedFiles &) = delete;
    /* The temporary path to write `name` to. */
    std::string stage(const std::string &name);
    /* Renames every staged file into place; returns their final paths.
       Throws std::runtime_error with the earlier files back in place. */
    std::vector<std::string> commit();

private:
    struct Entry {
        std::string path, temp, backup;
    };
    std::string dir_;
    std::vector<Entry> entries_;
};

/* Writes <dir>/render.exr (main image as the default layer, one layer per
   pass, the ID mattes' layers and header attributes), <dir>/<name>.png for
   the main image ("main") and every pass, and <dir>/contact.png with all of
   them as labelled thumbnails, each write checked to the disk, all staged
   (StagedFiles): a failure leaves the folder's earlier files as they were.
   A non-zero *stop before the files are moved into place throws
   RenderInterrupted, with nothing changed.  Returns the files written. */
std::vector<std::string> writeOutputs(const RenderImages &result, const std::string &dir,
                                      const std::atomic<int> *stop = nullptr);

/* The file names writeOutputs writes for these passes, in its order. */
std::vector<std::string> outputFileNames(const std::vector<std::string> &passNames);

/* Checks, before rendering, that every one of `files` can be written in
   `dir`: a file that does not exist yet is created and removed again, an
   existing one is opened for writing (and left as it is).  Returns "" when
   all can, else a message naming the first file that cannot and why. */
std::string probeOutputs(const std::string &dir, const std::vector<std::string> &files);

struct WrittenOutputs {
    std::vector<std::string> files; /* full paths of the files written */
    std::string dir;                /* where they were written */
    std::string failure;            /* why the wanted folder failed; "" when it did not */
};

/* writeOutputs into `dir`; when that fails (disk full, folder removed), into
   a new folder under the system's temporary directory, so that a finished
   render is never thrown away.  Throws std::runtime_error only when the
   fallback folder cannot be written either, and RenderInterrupted (nothing
   moved into place, the fallback folder removed again) on a stop. */
WrittenOutputs writeOutputsOrFallback(const RenderImages &result, const std::string &dir,
                                      const std::atomic<int> *stop = nullptr);

/* The image statistics (image_stats.h) written to `path`, under a temporary
   name moved into place: an earlier file stays whole when writing fails. */
void writeStatsFile(const RenderImages &images, const std::string &path);

/* `text` written to `path` the same way: checked to the disk under a
   temporary name in its folder, then moved into place. */
void writeTextFile(const std::string &path, const std::string &text);

/* Merges partial renders (partial.h) and writes the whole render's files
   into `dir` as writeOutputsOrFallback does, and the statistics to
   `statsPath` when given.  Throws PartialError for parts that do not make
   one whole render. */
WrittenOutputs mergeAndWrite(const std::vector<std::string> &partials, const std::string &dir,
                             const std::string &statsPath, const std::atomic<int> *stop = nullptr);

} // namespace druxhost

#endif
