#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace vellum {

// The records the GPU reads. Every float is 32-bit; a four-float colour sits on a 16-byte
// boundary so that the layout is the same in the shader's buffer as here.

struct Float2 {
    float x = 0, y = 0;
    bool operator==(const Float2&) const = default;
};

struct alignas(16) Float4 {
    float r = 0, g = 0, b = 0, a = 0;
    bool operator==(const Float4&) const = default;
};

// Cursor geometry only: one vertex per record.
struct GlyphVertex {
    Float2 position, texCoord;
    Float4 color;
};
struct ColorVertex {
    Float2 position;
    Float2 padding;
    Float4 color;
};

// One glyph quad: top-left in pixels, size in pixels, the atlas rectangle normalised.
struct TextCell {
    Float2 position, size, texOrigin, texSize;
    Float4 color;
    bool operator==(const TextCell&) const = default;
};

// One filled rectangle.
struct ColorCell {
    Float2 position, size;
    Float4 color;
    bool operator==(const ColorCell&) const = default;
};

static_assert(sizeof(TextCell) == 48 && sizeof(ColorCell) == 32 && sizeof(GlyphVertex) == 32);

// The two triangles a record becomes, indexed by vertex number modulo six.
inline constexpr std::array<Float2, 6> kQuadCorners{{{0, 0}, {1, 0}, {0, 1}, {1, 0}, {1, 1}, {0, 1}}};

// One row's records, kept between frames while the row is unchanged.
struct RowDrawBuffers {
    std::vector<ColorCell> backgroundCells, powerlineJoinCells;
    std::vector<TextCell> glyphCellsGray, glyphCellsColor;
    std::vector<ColorCell> decorationCells;
    void clear() {
        backgroundCells.clear(), powerlineJoinCells.clear(), glyphCellsGray.clear(), glyphCellsColor.clear();
        decorationCells.clear();
    }
};

// A whole frame, drawn layer by layer, one draw per array. Images have no layers yet.
struct FrameDrawData {
    std::vector<ColorCell> backgroundCells, powerlineJoinCells;
    std::vector<TextCell> glyphCellsGray, glyphCellsColor;
    std::vector<ColorCell> decorationCells;
    void clear() {
        backgroundCells.clear(), powerlineJoinCells.clear(), glyphCellsGray.clear(), glyphCellsColor.clear();
        decorationCells.clear();
    }
    void append(const RowDrawBuffers& row) {
        backgroundCells.insert(backgroundCells.end(), row.backgroundCells.begin(), row.backgroundCells.end());
        powerlineJoinCells.insert(powerlineJoinCells.end(), row.powerlineJoinCells.begin(), row.powerlineJoinCells.end());
        glyphCellsGray.insert(glyphCellsGray.end(), row.glyphCellsGray.begin(), row.glyphCellsGray.end());
        glyphCellsColor.insert(glyphCellsColor.end(), row.glyphCellsColor.begin(), row.glyphCellsColor.end());
        decorationCells.insert(decorationCells.end(), row.decorationCells.begin(), row.decorationCells.end());
    }
};

struct DrawData {
    FrameDrawData frame;
    std::vector<ColorVertex> cursorColorVertices;
    std::vector<GlyphVertex> cursorGlyphVerticesGray, cursorGlyphVerticesColor;
    Float4 clearColor;
};

} // namespace vellum
