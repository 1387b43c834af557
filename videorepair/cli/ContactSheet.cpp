#include "ContactSheet.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace contact_sheet {
namespace {

constexpr int kColumns = 5;
constexpr int kMargin = 8;
constexpr int kCaption = 18;  // below each tile
constexpr int kGlyphScale = 2;

// A 3x5 pixel font for the captions, row by row, three bits a row.
struct Glyph {
    char c;
    uint8_t rows[5];
};
constexpr Glyph kGlyphs[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {':', {0, 2, 0, 2, 0}}, {'.', {0, 0, 0, 0, 2}},
};

struct Canvas {
    Picture picture;
    void Fill(int x, int y, int w, int h, const uint8_t colour[3]) {
        for (int row = std::max(0, y); row < std::min(picture.height, y + h); ++row)
            for (int col = std::max(0, x); col < std::min(picture.width, x + w); ++col)
                std::copy(colour, colour + 3, &picture.rgb[(size_t(row) * picture.width + col) * 3]);
    }
    void Paste(const Picture& tile, int x, int y) {
        for (int row = 0; row < tile.height && y + row < picture.height; ++row)
            std::copy_n(&tile.rgb[size_t(row) * tile.width * 3], std::min(tile.width, picture.width - x) * 3,
                        &picture.rgb[(size_t(y + row) * picture.width + x) * 3]);
    }
    void Text(const std::string& text, int x, int y, const uint8_t colour[3]) {
        for (char c : text) {
            for (const Glyph& g : kGlyphs) {
                if (g.c != c) continue;
                for (int row = 0; row < 5; ++row)
                    for (int col = 0; col < 3; ++col)
                        if (g.rows[row] & (4 >> col))
                            Fill(x + col * kGlyphScale, y + row * kGlyphScale, kGlyphScale, kGlyphScale, colour);
            }
            x += 4 * kGlyphScale;
        }
    }
};

}  // namespace

std::vector<FrameWanted> TimesFor(const RepairMap& map, int regular) {
    std::vector<FrameWanted> wanted;
    double duration = map.Duration();
    for (int i = 0; i < regular; ++i) wanted.push_back({duration * i / regular, false});
    for (const MapGap& gap : map.gaps)
        if (gap.stream == "video" && gap.end < duration) wanted.push_back({gap.end, true});
    return wanted;
}

std::vector<Thumbnail> Take(const std::string& repairedPath, const RepairMap& map) {
    FrameGrabber grabber;
    if (!grabber.Open(repairedPath, kThumbnailWidth)) return {};
    return grabber.Grab(TimesFor(map));
}

std::string TimeText(double seconds) {
    seconds = std::max(0.0, seconds);
    long tenths = std::lround(seconds * 10);
    long whole = tenths / 10, hours = whole / 3600, minutes = whole / 60 % 60, rest = whole % 60;
    char text[32];
    if (hours > 0) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld.%ld", hours, minutes, rest, tenths % 10);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld.%ld", minutes, rest, tenths % 10);
    }
    return text;
}

std::string ComposePng(const std::vector<Thumbnail>& thumbnails) {
    if (thumbnails.empty()) return std::string();
    int tileW = 0, tileH = 0;
    for (const Thumbnail& t : thumbnails) {
        tileW = std::max(tileW, t.picture.width);
        tileH = std::max(tileH, t.picture.height);
    }
    const int columns = std::min<int>(kColumns, int(thumbnails.size()));
    const int rows = (int(thumbnails.size()) + columns - 1) / columns;
    Canvas canvas;
    canvas.picture.width = kMargin + columns * (tileW + kMargin);
    canvas.picture.height = kMargin + rows * (tileH + kCaption + kMargin);
    canvas.picture.rgb.assign(size_t(canvas.picture.width) * canvas.picture.height * 3, 0);
    const uint8_t background[3] = {32, 32, 36}, white[3] = {240, 240, 240}, gapMark[3] = {245, 158, 11};
    canvas.Fill(0, 0, canvas.picture.width, canvas.picture.height, background);
    for (size_t i = 0; i < thumbnails.size(); ++i) {
        const Thumbnail& t = thumbnails[i];
        int x = kMargin + int(i % columns) * (tileW + kMargin), y = kMargin + int(i / columns) * (tileH + kCaption + kMargin);
        // The first frame after a gap is framed, as on the page.
        if (t.afterGap) canvas.Fill(x - 3, y - 3, t.picture.width + 6, t.picture.height + 6, gapMark);
        canvas.Paste(t.picture, x, y);
        canvas.Text(TimeText(t.seconds), x, y + tileH + 4, t.afterGap ? gapMark : white);
    }
    return EncodePng(canvas.picture);
}

}  // namespace contact_sheet
