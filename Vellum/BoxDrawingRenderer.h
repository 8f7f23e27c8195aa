#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vellum {

// A coverage bitmap, one byte a pixel, top row first.
struct CoverageBitmap {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;
    uint8_t at(int x, int y) const { return pixels[size_t(y) * width + x]; }
};

// Box-drawing lines (U+2500 to U+257F), block elements (U+2580 to U+259F) and the Powerline
// separators (U+E0B0 to U+E0B3) are drawn by us at the exact cell size rather than taken from a
// font, so that lines meet at the cell's centre lines across cells and rows at any font size.
bool isSynthesizedGlyph(char32_t character);
bool isPowerlineSeparator(char32_t character);

// Draws `character` into a `width` × `height` coverage bitmap; false for one it does not draw.
// `antiAlias` smooths the slanted edges of diagonals and Powerline shapes.
bool renderSynthesizedGlyph(char32_t character, int width, int height, bool antiAlias, CoverageBitmap& out);

} // namespace vellum
