/*
 * The contact sheet: every picture of a render (the main image, every pass
 * and the ID mattes) as a labelled thumbnail in one image, out/contact.png,
 * so that a render can be judged at a glance.  Labels are drawn with a
 * built-in 5 x 7 bitmap font (upper-case letters, digits and a few signs;
 * lower case is drawn as upper case).
 */
#ifndef DRUXHOST_CONTACT_SHEET_H
#define DRUXHOST_CONTACT_SHEET_H

#include "image_io.h"

#include <string>
#include <vector>

namespace druxhost {

struct RenderImages;

struct ContactTile {
    std::string label;
    Image image; /* linear colour, shown as is (clamped to [0, 1]) */
};

/* Where a tile went: its thumbnail and its label strip, in sheet pixels. */
struct TileRect {
    int x, y, width, height; /* thumbnail */
    int labelY, labelHeight;
    int factor;              /* thumbnail pixel = mean of factor x factor source pixels */
};

struct ContactSheet {
    Image image;
    std::vector<TileRect> tiles;
};

/* Thumbnails at most `thumbWidth` wide (the image shrunk by a whole factor),
   `columns` to a row, on a dark grey sheet. */
ContactSheet makeContactSheet(const std::vector<ContactTile> &tiles, int thumbWidth = 160, int columns = 5);

/* The tiles of a render: "main", every pass (data passes scaled for the eye)
   and one picture per ID matte (each id in its own colour, by rank 0). */
std::vector<ContactTile> contactTiles(const RenderImages &r);

/* Draws text in the 5 x 7 font at (x, y) (top left), `scale` pixels per font
   pixel; returns the width drawn.  Unknown characters are drawn as boxes. */
int drawText(Image &img, int x, int y, const std::string &text, const miColor &color, int scale = 1);

} // namespace druxhost

#endif
