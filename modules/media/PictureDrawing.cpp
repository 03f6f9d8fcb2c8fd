#include "PictureDrawing.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace calvane_media {

namespace {

constexpr int kRows = 7;
constexpr int kColumns = 5;
constexpr std::uint8_t kBlack = 16;
constexpr std::uint8_t kWhite = 235;

/// Rows from the top; the left dot is the highest of five bits.
struct Glyph {
    char character;
    std::array<std::uint8_t, kRows> rows;
};

constexpr std::array<Glyph, 15> kGlyphs{{
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}},
    {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x06, 0x08, 0x10, 0x1f}},
    {'3', {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}},
    {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}},
    {'7', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}},
    {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {'-', {0x00, 0x00, 0x00, 0x0e, 0x00, 0x00, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x0c}},
    {':', {0x00, 0x0c, 0x0c, 0x00, 0x0c, 0x0c, 0x00}},
    {'T', {0x1f, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'Z', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1f}},
}};

/// A colour as BT.601 has it.
struct Colour {
    std::uint8_t y;
    std::uint8_t cb;
    std::uint8_t cr;
};
constexpr std::array<Colour, 8> kBars{{{180, 128, 128},
                                       {162, 44, 142},
                                       {131, 156, 44},
                                       {112, 72, 58},
                                       {84, 184, 198},
                                       {65, 100, 212},
                                       {35, 212, 114},
                                       {16, 128, 128}}};

void Fill(AVFrame& picture, int plane, int x, int y, int width, int height, std::uint8_t value) {
    const int shift = plane == 0 ? 0 : 1;
    const int planeWidth = (picture.width + shift) >> shift;
    const int planeHeight = (picture.height + shift) >> shift;
    const int left = std::clamp(x >> shift, 0, planeWidth);
    const int right = std::clamp((x + width + shift) >> shift, left, planeWidth);
    const int top = std::clamp(y >> shift, 0, planeHeight);
    const int bottom = std::clamp((y + height + shift) >> shift, top, planeHeight);
    for (int row = top; row != bottom; ++row) {
        std::memset(picture.data[plane] + std::ptrdiff_t{row} * picture.linesize[plane] + left, value,
                    static_cast<std::size_t>(right - left));
    }
}

void FillBox(AVFrame& picture, int x, int y, int width, int height, const Colour& colour) {
    Fill(picture, 0, x, y, width, height, colour.y);
    Fill(picture, 1, x, y, width, height, colour.cb);
    Fill(picture, 2, x, y, width, height, colour.cr);
}

} // namespace

bool HasDot(char character, int column, int row) {
    const auto* const glyph = std::find_if(kGlyphs.begin(), kGlyphs.end(), [character](const Glyph& each) {
        return each.character == character;
    });
    const bool isInside = column >= 0 && column < kColumns && row >= 0 && row < kRows;
    return glyph != kGlyphs.end() && isInside &&
           (glyph->rows.at(static_cast<std::size_t>(row)) >> (kColumns - 1 - column) & 1) != 0;
}

void DrawText(AVFrame& picture, const std::string& text, int x, int y, int scale) {
    FillBox(picture, x - scale, y - scale, (static_cast<int>(text.size()) * kGlyphWidth + 1) * scale,
            kGlyphHeight * scale, {kBlack, 128, 128});
    for (const char character : text) {
        for (int dot = 0; dot != kRows * kColumns; ++dot) {
            const int column = dot % kColumns;
            const int row = dot / kColumns;
            if (HasDot(character, column, row)) {
                Fill(picture, 0, x + column * scale, y + row * scale, scale, scale, kWhite);
            }
        }
        x += kGlyphWidth * scale;
    }
}

void DrawBars(AVFrame& picture, long long number) {
    constexpr int kCount = static_cast<int>(kBars.size());
    for (int i = 0; i != kCount; ++i) {
        const int left = picture.width * i / kCount;
        FillBox(picture, left, 0, picture.width * (i + 1) / kCount - left, picture.height,
                kBars.at(static_cast<std::size_t>(i)));
    }
    const int thickness = std::max(2, picture.height / 30);
    const auto top = static_cast<int>(number * 4 % picture.height);
    Fill(picture, 0, 0, top, picture.width, thickness, kWhite);
}

} // namespace calvane_media
