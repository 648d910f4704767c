#include "contact_sheet.h"

#include "pass_images.h"
#include "outputs.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace druxhost {

namespace {

/* 5 x 7 glyphs, one byte per row, bit 4 the leftmost pixel. */
struct Glyph {
    char c;
    unsigned char rows[7];
};

const Glyph kFont[] = {
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}}, {'D', {0x1E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x1E}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}}, {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}}, {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}}, {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}}, {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {' ', {0, 0, 0, 0, 0, 0, 0}},                      {'_', {0, 0, 0, 0, 0, 0, 0x1F}},
    {'-', {0, 0, 0, 0x1F, 0, 0, 0}},                   {'.', {0, 0, 0, 0, 0, 0x0C, 0x0C}},
    {':', {0, 0x0C, 0x0C, 0, 0x0C, 0x0C, 0}},          {'/', {0x01, 0x01, 0x02, 0x04, 0x08, 0x10, 0x10}},
    {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}}, {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}},
};
const unsigned char kUnknown[7] = {0x1F, 0x11, 0x11, 0x11, 0x11, 0x11, 0x1F};

const unsigned char *glyph(char c)
{
    const char u = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const Glyph &g : kFont)
        if (g.c == u)
            return g.rows;
    return kUnknown;
}

constexpr int kGap = 6;        /* between tiles and around the sheet */
constexpr int kLabelScale = 2; /* font pixels are 2 x 2 sheet pixels */
constexpr int kLabelHeight = 7 * kLabelScale + 6;
const miColor kSheet{0.02f, 0.02f, 0.025f, 1};
const miColor kInk{0.9f, 0.9f, 0.9f, 1};

/* A colour per id: the id's bits spread over three channels. */
miColor idColor(float id)
{
    uint32_t b;
    std::memcpy(&b, &id, sizeof b);
    b ^= b >> 13;
    b *= 0x5bd1e995u;
    b ^= b >> 15;
    return miColor{0.15f + 0.85f * float(b & 255u) / 255.0f, 0.15f + 0.85f * float(b >> 8 & 255u) / 255.0f,
                   0.15f + 0.85f * float(b >> 16 & 255u) / 255.0f, 1};
}

} // namespace

int drawText(Image &img, int x, int y, const std::string &text, const miColor &color, int scale)
{
    int cx = x;
    for (char c : text) {
        const unsigned char *rows = glyph(c);
        for (int r = 0; r < 7; ++r)
            for (int col = 0; col < 5; ++col)
                if (rows[r] >> (4 - col) & 1)
                    for (int sy = 0; sy < scale; ++sy)
                        for (int sx = 0; sx < scale; ++sx) {
                            const int px = cx + col * scale + sx, py = y + r * scale + sy;
                            if (px >= 0 && py >= 0 && px < img.width && py < img.height)
                                img.set(px, py, color);
                        }
        cx += 6 * scale;
    }
    return cx - x;
}

ContactSheet makeContactSheet(const std::vector<ContactTile> &tiles, int thumbWidth, int columns)
{
    ContactSheet sheet;
    if (tiles.empty())
        return sheet;
    columns = std::max(1, std::min(columns, static_cast<int>(tiles.size())));
    int cellW = 0, cellH = 0;
    std::vector<int> factor;
    for (const ContactTile &t : tiles) {
        const int f = std::max(1, (t.image.width + thumbWidth - 1) / std::max(1, thumbWidth));
        factor.push_back(f);
        cellW = std::max(cellW, std::max(1, t.image.width / f));
        cellH = std::max(cellH, std::max(1, t.image.height / f));
    }
    const int rows = (static_cast<int>(tiles.size()) + columns - 1) / columns;
    const int stepX = cellW + kGap, stepY = cellH + kLabelHeight + kGap;
    sheet.image = Image(kGap + columns * stepX, kGap + rows * stepY);
    for (int y = 0; y < sheet.image.height; ++y)
        for (int x = 0; x < sheet.image.width; ++x)
            sheet.image.set(x, y, kSheet);

    for (size_t i = 0; i < tiles.size(); ++i) {
        const Image &src = tiles[i].image;
        const int f = factor[i];
        TileRect r;
        r.x = kGap + static_cast<int>(i % size_t(columns)) * stepX;
        r.y = kGap + static_cast<int>(i / size_t(columns)) * stepY;
        r.width = std::max(1, src.width / f);
        r.height = std::max(1, src.height / f);
        r.factor = f;
        r.labelY = r.y + cellH;
        r.labelHeight = kLabelHeight;
        const float inv = 1.0f / static_cast<float>(f * f);
        for (int ty = 0; ty < r.height; ++ty)
            for (int tx = 0; tx < r.width; ++tx) {
                miColor sum{0, 0, 0, 0};
                for (int sy = 0; sy < f; ++sy)
                    for (int sx = 0; sx < f; ++sx) {
                        const int px = std::min(src.width - 1, tx * f + sx), py = std::min(src.height - 1, ty * f + sy);
                        const miColor c = src.at(px, py);
                        sum.r += c.r;
                        sum.g += c.g;
                        sum.b += c.b;
                    }
                sheet.image.set(r.x + tx, r.y + ty, miColor{sum.r * inv, sum.g * inv, sum.b * inv, 1});
            }
        /* the label: large when it fits the cell, else small, cut to the cell */
        const std::string &label = tiles[i].label;
        const int scale = static_cast<int>(label.size()) * 6 * kLabelScale <= cellW ? kLabelScale : 1;
        const size_t fit = static_cast<size_t>(std::max(1, cellW / (6 * scale)));
        drawText(sheet.image, r.x, r.labelY + 3 + (kLabelScale - scale) * 3, label.substr(0, fit), kInk, scale);
        sheet.tiles.push_back(r);
    }
    return sheet;
}

std::vector<ContactTile> contactTiles(const RenderImages &r)
{
    std::vector<ContactTile> tiles;
    tiles.push_back(ContactTile{"main", r.main});
    for (size_t i = 0; i < r.passes.size(); ++i)
        tiles.push_back(ContactTile{r.passNames[i], displayImage(r.passRoles[i], r.passes[i])});
    for (const CryptoMatte &m : r.mattes) {
        Image img(r.main.width, r.main.height);
        for (int y = 0; y < img.height; ++y)
            for (int x = 0; x < img.width; ++x) {
                const miColor rank0 = m.layers.empty() ? miColor{0, 0, 0, 0} : m.layers[0].at(x, y);
                if (rank0.r == 0.0f)
                    continue;
                const miColor c = idColor(rank0.r);
                img.set(x, y, miColor{c.r * rank0.g, c.g * rank0.g, c.b * rank0.g, 1});
            }
        tiles.push_back(ContactTile{m.type, img});
    }
    return tiles;
}

} // namespace druxhost
