/*
 * Float RGBA images and their files: one multi-layer OpenEXR file holding
 * every pass, and an 8-bit sRGB PNG preview per pass.
 */
#ifndef DRUXHOST_IMAGE_IO_H
#define DRUXHOST_IMAGE_IO_H

#include "shader.h"

#include <cstdio>
#include <utility>
#include <string>
#include <vector>

namespace druxhost {

struct Image {
    int width = 0, height = 0;
    std::vector<float> rgba; /* row-major, top row first, 4 floats per pixel */

    Image() = default;
    Image(int w, int h) : width(w), height(h), rgba(static_cast<size_t>(w) * static_cast<size_t>(h) * 4, 0.0f) {}
    miColor at(int x, int y) const
    {
        const float *p = &rgba[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4];
        return miColor{p[0], p[1], p[2], p[3]};
    }
    void set(int x, int y, const miColor &c)
    {
        float *p = &rgba[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4];
        p[0] = c.r;
        p[1] = c.g;
        p[2] = c.b;
        p[3] = c.a;
    }
};

/* A named layer of a multi-layer file; an empty name is the default layer
   (channels R, G, B, A), any other gives <name>.R, <name>.G, <name>.B, <name>.A.
   A depth layer holds only the image's red channel, as Z (empty name) or
   <name>.Z; readExr gives it back as the layer "Z" or <name> with the value
   in red. */
struct Layer {
    std::string name;
    const Image *image;
    bool depth = false;
};

/* Where a file's layers lie in the whole picture: their pixels are the data
   window from (x0, y0), inside a display window of displayWidth x
   displayHeight from (0, 0).  All zero: the layers are the whole picture. */
struct ExrWindow {
    int displayWidth = 0, displayHeight = 0;
    int x0 = 0, y0 = 0;
};

/* 32-bit float channels, ZIP compression; `attributes` become string
   attributes of the header.  Throws std::runtime_error. */
void writeExr(const std::string &path, const std::vector<Layer> &layers,
              const std::vector<std::pair<std::string, std::string>> &attributes = {},
              const ExrWindow &window = ExrWindow());
/* The string attributes of a file's header. */
std::vector<std::pair<std::string, std::string>> readExrAttributes(const std::string &path);
/* Every layer of a file written by writeExr (name "" for the default layer),
   the size of its data window; where that lies, in *window when given. */
std::vector<std::pair<std::string, Image>> readExr(const std::string &path, ExrWindow *window = nullptr);

/* 8-bit RGB preview: each channel clamped to [0, 1] and encoded as sRGB.
   Throws std::runtime_error. */
void writePng(const std::string &path, const Image &image);
/* 8-bit RGB pixels of a PNG (3 bytes per pixel), for checking previews. */
std::vector<unsigned char> readPng(const std::string &path, int &width, int &height);

/* Flushes, syncs and closes a file just written (also when that fails);
   throws std::runtime_error naming `path` when any step fails, so that a
   full disk is never taken for a written file. */
void closeWrittenFile(FILE *f, const std::string &path);

/* The sRGB code of a linear value in [0, 1] (clamped). */
unsigned char srgbByte(float linear);

} // namespace druxhost

#endif
