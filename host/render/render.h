/*
 * The reference renderer: builds a render context from a scene description
 * (options, camera, frame buffers and the exporter's "FBuf" block, shaders,
 * geometry in one ray-tracing scene, lights with contribution masks) and renders it with
 * several threads.
 *
 * Each thread has one rendering state (druxFrameBufferState runs operation
 * 0 on it), takes tiles from a shared counter and, per pixel and sample,
 * runs operation 2, traces the camera ray, shades it and runs operation 3,
 * then takes every pass's value of the sample (the state's sample frame
 * buffers) into the host's own float images (averaged over the samples) and
 * clears it for the next sample.  A region renders only its tiles; a stop
 * can keep the tiles finished (RenderOptions).  At the end every thread ends its state (operation 1), the
 * materials free their scattering caches and every database item made for
 * the render is deleted.
 *
 * Sampling depends only on pixel and sample index, so an image does not
 * depend on the number of threads.
 */
#ifndef DRUXHOST_RENDER_H
#define DRUXHOST_RENDER_H

#include "interrupted.h"
#include "outputs.h"
#include "partial.h"
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
    /* Renders only these pixels (empty: the whole image); the result's
       images are this region, from its corner. */
    Region region;
    /* Pixels rendered before (an interrupted render resumed): tiles wholly
       inside them are not rendered again, and stay zero in the result. */
    std::vector<Region> skip;
    /* On a stop, return the tiles finished so far (RenderResult::covered,
       ::interrupted) instead of throwing RenderInterrupted. */
    bool keepOnStop = false;
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

/* A render's images with what it took. */
struct RenderResult : RenderImages {
    RenderStats stats;
    /* The pixels rendered (tiles clipped to the region, rows of tiles
       joined), whole-image coordinates. */
    std::vector<Region> covered;
    /* The signal that stopped a render kept on stop; 0 when it ran to the
       end. */
    int interrupted = 0;
};

/* The folders searched for a scene's shader libraries, in order. */
std::vector<std::string> shaderSearchPath(const SceneDesc &scene, const RenderOptions &options);

/* Bytes of the float images a render of this scene holds at once: the
   host's main image, its pass images and the six ID-matte layers and a
   preview image while writing (the renderer's frame buffers hold only the
   sample in progress).  With a region, only its pixels count. */
uint64_t renderImageBytes(const SceneDesc &scene, const Region &region = Region());

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

} // namespace druxhost

#endif
