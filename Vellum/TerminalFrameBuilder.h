#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Vellum/CellRecords.h"
#include "Vellum/GlyphAtlas.h"
#include "Vellum/GlyphRasterizer.h"
#include "Vellum/TerminalRenderSnapshot.h"

namespace vellum {

// What a frame shows beyond the snapshot's cells.
struct FrameOverlay {
    struct Point {
        int col = 0, row = 0;
    };
    bool cursorShown = true;   // not hidden by the program, and in the visible half of a blink
    bool cursorFocused = true; // a view without focus shows a hollow block
    // Screen rows; the end column is exclusive. Selected cells are drawn inverted.
    std::optional<std::pair<Point, Point>> selection;
    std::string preedit; // an input method's uncommitted text, shown underlined at the cursor
    bool operator==(const FrameOverlay&) const = default;
};

struct FrameBuildCounters {
    uint64_t frames = 0, rowsBuilt = 0, rowsReused = 0, rebuildPasses = 0, glyphsRasterized = 0, glyphsSkipped = 0;
};

// Turns the retained snapshot into the GPU's records: one set of arrays per frame, each drawn at
// once. Rows are kept built between frames, keyed by the buffer row they show, and rebuilt only
// when its content, the selection across them or the signature of everything shared (font, cell
// size, colours, atlas sizes) changes; a row that scrolls is only moved. Glyphs are rasterised once per atlas life.
class TerminalFrameBuilder {
public:
    TerminalFrameBuilder(const std::string& family, double pixelSize);
    ~TerminalFrameBuilder();

    void setFont(const std::string& family, double pixelSize);
    // Places glyphs in a grid the view has chosen rather than the font's own; the font's lines
    // stay centred in the taller or shorter cell.
    void setCellSize(int width, int height);
    const CellMetrics& cell() const { return cell_; }

    const DrawData& build(const TerminalSnapshot& snapshot, const FrameOverlay& overlay);
    // Every row is built again on the next frame; glyphs stay.
    void invalidateRows();

    GlyphAtlas& atlas(GlyphAtlasKind kind) { return kind == GlyphAtlasKind::grayscale ? gray_ : color_; }
    const FrameBuildCounters& counters() const { return counters_; }
    // Passes a frame may take when the atlas resets while it is built; the last one keeps the
    // atlas frozen and skips what does not fit.
    static constexpr int maximumPasses = 3;

    // For tests of the atlas limits: atlases of this largest side.
    void setAtlasMaximum(int maxSize);

private:
    struct Quad {
        int left = 0, top = 0, width = 0, height = 0;
        AtlasRegion region;
        bool color = false;
    };
    struct GlyphEntry {
        std::vector<Quad> quads;
    };
    struct StringHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    using GlyphMap = std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>>;
    // Built rows follow their buffer row, so a row that scrolls is moved, not built again.
    struct RowCacheEntry {
        bool valid = false;
        uint64_t identity = 0, recycleGeneration = 0, generation = 0, signature = 0;
        int selectionFrom = 0, selectionTo = 0;
        float builtTop = 0;
        // Which build this is, and how far its records reach above and below, as built.
        uint64_t serial = 0;
        float reachTop = 0, reachBottom = 0;
        RowDrawBuffers buffers;
        bool matches(const RenderSnapshotRow& row) const {
            return valid && row.identity != 0 && identity == row.identity && recycleGeneration == row.recycleGeneration &&
                   generation == row.generation;
        }
    };
    struct CellColors {
        Float4 fg, bg;
        bool defaultBackground = true;
    };

    bool buildPass(const TerminalSnapshot& snapshot, const FrameOverlay& overlay, bool lastPass);
    // Puts each cached row at the screen row its buffer row is shown on now; rows that left the
    // screen give their buffers to new ones.
    void arrangeRowCache(const TerminalSnapshot& snapshot);
    void buildRow(const TerminalSnapshot& snapshot, int y, int from, int to, RowDrawBuffers& out);
    void buildCursor(const TerminalSnapshot& snapshot, const FrameOverlay& overlay);
    const GlyphEntry* glyph(std::string_view text, int cells, FontStyle style);
    CellColors colorsOf(const RenderSnapshotCell& cell, const TerminalRenderSnapshot& state, bool selected) const;
    void appendCursorGlyph(const GlyphEntry& entry, float x, float y, Float4 color);
    void buildPreedit(const TerminalRenderSnapshot& state, const std::string& text);
    template <typename Vertex>
    static void appendQuad(std::vector<Vertex>& out, Vertex base, float x, float y, float w, float h, Float2 tex = {}, Float2 texSize = {});
    Float4 resolve(Attribute::Color color, const TerminalRenderSnapshot& state, bool foreground) const;
    void appendGlyph(const GlyphEntry& entry, float x, float y, Float4 color, RowDrawBuffers& out) const;
    void appendDecorations(const Attribute& attribute, Float4 color, float x, float y, float width, RowDrawBuffers& out) const;
    uint64_t signatureOf(const TerminalRenderSnapshot& state, const FrameOverlay& overlay) const;
    static void measureReach(RowCacheEntry& entry, float top, float height);
    // What this frame changes against the one built before it, which the view still shows.
    void computeDamage(const TerminalSnapshot& snapshot);
    void forgetGlyphs();

    void measureCell();

    std::unique_ptr<GlyphRasterizer> rasterizer_;
    CellMetrics cell_;
    int requestedWidth_ = 0, requestedHeight_ = 0;
    int baselineShift_ = 0;
    GlyphAtlas gray_, color_;
    std::vector<GlyphEntry> glyphs_;
    GlyphMap glyphIndex_[8]; // by style and cell count
    std::vector<RasterGlyph> rasterScratch_;
    std::vector<uint8_t> bgraScratch_;
    std::vector<RowCacheEntry> rowCache_, rowScratch_; // by screen row
    std::vector<std::pair<uint64_t, uint32_t>> rowLookup_; // identity, index in rowCache_
    std::vector<uint8_t> rowTaken_;
    uint64_t fontGeneration_ = 1;
    bool atlasInvalidatedDuringBuild_ = false;
    uint64_t nextSerial_ = 1;
    // The frame built last, screen row by screen row: the build drawn there and its reach.
    struct DrawnRow {
        uint64_t serial = 0;
        float top = 0, bottom = 0;
    };
    std::vector<DrawnRow> drawnRows_;
    uint64_t frameSignature_ = 0, drawnSignature_ = 0;
    int drawnCols_ = -1;
    struct DrawnCursor {
        std::vector<ColorVertex> color;
        std::vector<GlyphVertex> glyphsGray, glyphsColor;
        float top = 0, bottom = 0;
    };
    DrawnCursor drawnCursor_;
    DrawData draw_;
    FrameBuildCounters counters_;
};

} // namespace vellum
