#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vellum {

// The cell grid a font gives, in whole pixels.
struct CellMetrics {
    int width = 0, height = 0;
    int ascent = 0;             // baseline, from the cell's top
    int underlinePosition = 0;  // top of the underline, from the cell's top
    int lineThickness = 1;
    int strikePosition = 0;     // top of the strike-through, from the cell's top
};

// One rasterised glyph placed relative to its cell's top-left corner.
struct RasterGlyph {
    int left = 0, top = 0, width = 0, height = 0;
    bool color = false;          // BGRA, premultiplied; else one coverage byte a pixel
    std::vector<uint8_t> pixels; // top row first
};

enum class FontStyle : uint8_t { regular, bold, italic, boldItalic };

// Fonts through Fontconfig, shaping through HarfBuzz, bitmaps through FreeType. A cluster the
// main font can't show entirely is shaped with a fallback font that covers it; emoji prefer a
// colour font. Hinting is what each font asks for.
class GlyphRasterizer {
public:
    // Throws std::runtime_error when no font matches at all.
    GlyphRasterizer(const std::string& family, double pixelSize);
    ~GlyphRasterizer();
    GlyphRasterizer(const GlyphRasterizer&) = delete;
    GlyphRasterizer& operator=(const GlyphRasterizer&) = delete;

    const CellMetrics& metrics() const;
    const std::string& family() const;
    double pixelSize() const;

    // The glyphs of one cell's text (a grapheme cluster) drawn in `cells` cells. Empty text or
    // only spaces gives nothing. Colour glyphs are scaled to fit the cells.
    void rasterize(std::string_view cluster, int cells, FontStyle style, std::vector<RasterGlyph>& out);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vellum
