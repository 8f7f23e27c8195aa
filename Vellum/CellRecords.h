#pragma once

#include <algorithm>
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
    bool operator==(const GlyphVertex&) const = default;
};
struct ColorVertex {
    Float2 position;
    Float2 padding;
    Float4 color;
    bool operator==(const ColorVertex&) const = default;
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
    // A row built at another height (it has scrolled since) is moved by `dy` pixels.
    void append(const RowDrawBuffers& row, float dy = 0) {
        appendMoved(backgroundCells, row.backgroundCells, dy);
        appendMoved(powerlineJoinCells, row.powerlineJoinCells, dy);
        appendMoved(glyphCellsGray, row.glyphCellsGray, dy);
        appendMoved(glyphCellsColor, row.glyphCellsColor, dy);
        appendMoved(decorationCells, row.decorationCells, dy);
    }

private:
    template <typename Record>
    static void appendMoved(std::vector<Record>& out, const std::vector<Record>& from, float dy) {
        size_t first = out.size();
        out.insert(out.end(), from.begin(), from.end());
        if (dy == 0) return;
        for (size_t i = first; i < out.size(); ++i) out[i].position.y += dy;
    }
};

// The horizontal band of the view, in pixels, whose pixels this frame changes from the one built
// before it: everything, a band, or nothing at all.
struct FrameDamage {
    bool full = true;
    float top = 0, bottom = 0;
    bool none() const { return !full && bottom <= top; }
    void include(float from, float to) {
        if (full || to <= from) return;
        if (bottom <= top) top = from, bottom = to;
        else top = std::min(top, from), bottom = std::max(bottom, to);
    }
};

struct DrawData {
    FrameDrawData frame;
    FrameDamage damage;
    std::vector<ColorVertex> cursorColorVertices;
    std::vector<GlyphVertex> cursorGlyphVerticesGray, cursorGlyphVerticesColor;
    Float4 clearColor;
};

} // namespace vellum
