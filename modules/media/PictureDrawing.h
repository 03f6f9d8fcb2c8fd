#pragma once

#include <string>

struct AVFrame;

namespace calvane_media {

/// Draws into pictures in planar YUV with 4:2:0 subsampling and 8 bits.
///
/// Glyphs are 5 by 7 dots for digits and " -.:TZ"; any other character is a blank one.

/// Whether a character has a dot there.
bool HasDot(char character, int column, int row);

/// The width of a glyph with the space behind it, and its height with the space below it, in dots.
constexpr int kGlyphWidth = 6;
constexpr int kGlyphHeight = 9;

/// White on black; the upper left corner of the text at x, y, each dot `scale` pixels wide and high. What does not lie in
/// the picture is left out.
void DrawText(AVFrame& picture, const std::string& text, int x, int y, int scale);

/// Colour bars, with a bright band that moves with the number of the picture.
void DrawBars(AVFrame& picture, long long number);

} // namespace calvane_media
