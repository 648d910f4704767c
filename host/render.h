/*
 * The reference renderer: builds a render context from a scene description
 * (options, camera, frame buffers and the exporter's "FBuf" block, shaders,
 * geometry in one ray-tracing scene, lights with contribution masks) and renders it with
 * several threads.
 *
 * Each thread has one rendering state (druxFrameBufferState runs operation
 * 0 on it), takes tiles from a shared counter and, per pixel and sample,
 * runs operation 2, traces the camera ray, shades it and runs operation 3,
 * then takes every pass's frame-buffer value of the pixel into the host's
 * own float images (averaged over the samples) and clears it for the next
 * sample.  At the end every thread ends its state (operation 1), the
 * materials free their scattering caches and every database item made for
 * the render is deleted.
 *
 * Sampling depends only on pixel and sample index, so an image does not
 * depend on the number of threads.
 */
#ifndef DRUXHOST_RENDER_H
#define DRUXHOST_RENDER_H

#include "cryptomatte.h"
#include "image_io.h"
#include "scene.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace druxhost {

struct RenderOptions {
    int threads = 0;   /* 0: one per hardware thread */
    int tileSize = 16;
    /* Called from the rendering's controlling thread about ten times a
       second with the fraction done (0 .. 1); may be empty. */
    std::function<void(double)> progress;
    /* Folders searched for the scene's `link` libraries after the scene
       file's own folder and before those of DRUX_SHADER_PATH (':'-separated)
       and the renderer's lib/ folder. */
    std::vector<std::string> shaderPath;
    /* Every `link` only by name, from the shader path and the renderer's
       lib/ folder (never the scene's folder or a path the scene gives). */
    bool restrictLinks = false;
    /* When it points at a non-zero value (a signal number), the render
       threads take no further tile and render() throws RenderInterrupted. */
    const std::atomic<int> *stop = nullptr;
};

/* A render or its writing stopped on request (`signal` is what was stored
   in the stop flag); nothing half was written. */
struct RenderInterrupted : std::runtime_error {
    int signal;
    explicit RenderInterrupted(int sig) : std::runtime_error("interrupted"), signal(sig) {}
};

/* Live bytes of one of the library's memory tags. */
struct TagMemory {
    std::string tag;
    int64_t atEnd = 0; /* when the last sample is done, states still alive */
    int64_t after = 0; /* after the render is torn down */
};

struct RenderStats {
    double seconds = 0;       /* wall time of the sampling */
    double setupSeconds = 0;  /* scene set-up, ray-tracing scene build included */
    uint64_t eyeSamples = 0;
    int threads = 0;
    size_t triangles = 0;
    std::vector<TagMemory> memory;
    long pinsAfter = 0;       /* database pins left after the render */
    size_t errors = 0;        /* error messages logged during the render */
    size_t warnings = 0;

    double samplesPerSecond() const { return seconds > 0 ? double(eyeSamples) / seconds : 0.0; }
    double secondsPerMegasample() const { return eyeSamples ? seconds / (double(eyeSamples) * 1e-6) : 0.0; }
};

struct RenderResult {
    Image main;                        /* the colours the eye rays returned */
    std::vector<std::string> passNames; /* scene order */
    std::vector<PassRole> passRoles;
    std::vector<Image> passes;
    /* ID mattes: CryptoObject (instance names), CryptoMaterial (material names) */
    std::vector<CryptoMatte> mattes;
    RenderStats stats;

    const Image *pass(const std::string &name) const;
};

/* The folders searched for a scene's shader libraries, in order. */
std::vector<std::string> shaderSearchPath(const SceneDesc &scene, const RenderOptions &options);

/* Bytes of the float images a render of this scene holds at once: the
   host's main image, its pass images and the six ID-matte layers, the
   renderer's frame buffer per pass and a preview image while writing. */
uint64_t renderImageBytes(const SceneDesc &scene);

/* The library's memory tags reported by the renderer. */
const std::vector<std::string> &libraryMemoryTags();

/* Throws SceneError for an invalid scene (also a shader library that cannot
   be linked or a shader instance that cannot be made, or images larger than
   the memory available (renderImageBytes), with the scene line)
   and std::runtime_error when the renderer reports a fatal error. */
RenderResult render(const SceneDesc &scene, const RenderOptions &options = RenderOptions());

/* One pixel sample rendered alone: its main colour, every pass's value of
   that sample (scene order) and the shader calls it ran, one line each,
   indented by nesting: "<kind>:<name> -> <returned> (r g b a)". */
struct PixelSample {
    miColor main{0, 0, 0, 0};
    std::vector<std::string> passNames;
    std::vector<miColor> passes;
    std::vector<std::string> trace;
};

/* Sets the scene up as render() does and renders sample `sample` of pixel
   (x, y) with the same sub-pixel position.  Sampling depends only on pixel
   and sample, so this replays that sample of a full render.  Throws as
   render() does, and std::runtime_error for a pixel or sample outside the
   image. */
PixelSample debugPixel(const SceneDesc &scene, int x, int y, int sample,
                       const RenderOptions &options = RenderOptions());

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
std::vector<std::string> writeOutputs(const RenderResult &result, const std::string &dir,
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
WrittenOutputs writeOutputsOrFallback(const RenderResult &result, const std::string &dir,
                                      const std::atomic<int> *stop = nullptr);

} // namespace druxhost

#endif
