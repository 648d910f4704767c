/*
 * Partial renders and their exact merge.
 *
 * A partial render is one multi-layer EXR holding a part of every layer of a
 * render (main image, passes, ID mattes): its data window is the bounding box
 * of the rectangles it covers, its display window the whole image.  Its
 * header says what it is part of and what it holds:
 *
 *   druxrender/partial       "1"
 *   druxrender/fingerprint   of the scene and the settings that make the pixels
 *   druxrender/label         how it was asked for ("tile 2/4", "region ...")
 *   druxrender/covered       the rectangles rendered, "x0 y0 x1 y1;..." (ends
 *                            exclusive), inside the data window
 *   druxrender/passes        the passes: names and roles, in scene order
 *   druxrender/mattes        per ID matte: its type and every name it has ids for
 *   druxrender/checksum      FNV-1a 64 of every layer's float bits
 *   cryptomatte/...          the mattes' attributes, the manifest listing the
 *                            names the covered pixels hold
 *
 * Pixels outside the covered rectangles are zero and belong to no one.
 * Merging partials of one render that cover the image once gives exactly the
 * images of a whole render.
 */
#ifndef DRUXHOST_PARTIAL_H
#define DRUXHOST_PARTIAL_H

#include "outputs.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace druxhost {

/* A rectangle of pixels, x0 <= x < x1, y0 <= y < y1. */
struct Region {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    int width() const { return x1 - x0; }
    int height() const { return y1 - y0; }
    bool empty() const { return x1 <= x0 || y1 <= y0; }
    bool contains(int x, int y) const { return x >= x0 && x < x1 && y >= y0 && y < y1; }
    bool operator==(const Region &o) const { return x0 == o.x0 && y0 == o.y0 && x1 == o.x1 && y1 == o.y1; }
};

Region intersect(const Region &a, const Region &b);
/* "x0,y0-x1,y1" */
std::string describe(const Region &r);

/* Rows of the image as band `index` (1 .. count) of `count`, cut at multiples
   of `tileSize` so that bands hold whole tile rows where the image allows. */
Region tileBand(int width, int height, int index, int count, int tileSize);

/* What a partial is part of and what it covers. */
struct PartialInfo {
    std::string fingerprint;
    std::string label;
    int width = 0, height = 0;   /* the whole image */
    std::vector<Region> covered; /* inside the images' window */
};

/* Writes `images` (their origin and size: the data window) as a partial
   render to `path`, under a temporary name in its folder renamed into place
   once written whole, so that a killed writer never leaves a file a merge
   would take.  Throws std::runtime_error. */
void writePartial(const std::string &path, const RenderImages &images, const PartialInfo &info);

/* A partial that cannot be used: names the file and says why. */
class PartialError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Reads a partial written by writePartial: its images (origin: the data
   window) and what it covers.  Throws PartialError for a file that is not a
   partial render, cannot be read whole or does not match its checksum. */
void readPartial(const std::string &path, RenderImages &images, PartialInfo &info);

/* Assembles partials of one render into its whole images.  Throws
   PartialError naming the files for any partial that is damaged or belongs
   to another render (other fingerprint, size, passes or mattes), partials
   that cover the same pixels, and pixels no partial covers.  `fingerprint`
   receives theirs when given. */
RenderImages mergePartials(const std::vector<std::string> &paths, std::string *fingerprint = nullptr);

/* Copies the covered rectangles of `part` (in whole-image coordinates) into
   `whole`, whose images are the whole picture. */
void copyCovered(const RenderImages &part, const std::vector<Region> &covered, RenderImages &whole);

} // namespace druxhost

#endif
