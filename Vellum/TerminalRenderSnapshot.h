#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Vellum/Attribute.h"
#include "Vellum/BufferLine.h"
#include "Vellum/CharData.h"
#include "Vellum/PackedCell.h"
#include "Vellum/Palette.h"
#include "Vellum/TerminalOptions.h"

namespace vellum {

class Terminal;

// What a frame draws, copied out of the terminal under its lock so that drawing never reads
// live rows. Host-neutral: any view can draw from it.

enum class RenderSnapshotScope : uint8_t { dirty, full };
enum class RenderSnapshotDirtyKind : uint8_t { clean, partial, full };
using RenderSnapshotWidthState = CellWidthState;

// Screen rows, inclusive.
struct RenderSnapshotRange {
    int startY = 0, endY = 0;
    bool operator==(const RenderSnapshotRange&) const = default;
};

struct RenderSnapshotCursor {
    int x = 0, y = 0;
    bool hidden = false;
    CursorStyle style = CursorStyle::blinkBlock;
    bool blink = false;
    bool operator==(const RenderSnapshotCursor&) const = default;
};

struct RenderSnapshotCell {
    std::string text; // empty for an empty cell and for a spacer
    int width = 1;
    RenderSnapshotWidthState widthState = RenderSnapshotWidthState::narrow;
    Attribute attribute;
    bool isProtected = false;
    SemanticContent semanticContent;
    std::optional<uint16_t> payloadID;
    bool operator==(const RenderSnapshotCell&) const = default;
};

using RenderSnapshotCells = std::shared_ptr<const std::vector<RenderSnapshotCell>>;

struct RenderSnapshotRow {
    int y = 0;
    bool isWrapped = false;   // continues the row above
    bool wrapsToNext = false; // the row below continues this one
    BufferLine::RenderLineMode renderMode = BufferLine::RenderLineMode::single;
    // The buffer row this was made from and the version of its content: a row that scrolls
    // keeps both, so whatever was built from it can move with it.
    uint64_t identity = 0, recycleGeneration = 0, generation = 0;
    // Shared with the snapshot maker's cache: a row that did not change keeps the same cells.
    RenderSnapshotCells cells;
};

struct TerminalRenderSnapshot {
    int cols = 0, rows = 0;
    bool isAlternateScreen = false;
    RenderSnapshotDirtyKind dirtyKind = RenderSnapshotDirtyKind::full;
    std::optional<RenderSnapshotRange> dirtyRange;
    std::optional<RenderSnapshotRange> scrollDirtyRange; // set when rows moved by scrolling
    Color foregroundColor, backgroundColor;
    std::optional<Color> cursorColor;
    std::array<Color, 256> palette{};
    bool reverseVideo = false;
    bool synchronizedOutputActive = false;
    RenderSnapshotCursor cursor;
    std::vector<RenderSnapshotRow> lines; // the rows included, top to bottom
};

// What the previous snapshot was made from; any difference makes the next one full.
struct PortableRenderMetadata {
    int cols = 0, rows = 0;
    bool alternate = false;
    int yDisp = 0;    // first row shown, in buffer rows
    int linesTop = 0; // rows of history above the live screen
    Color foreground, background;
    std::optional<Color> cursorColor;
    std::array<Color, 256> palette{};
    bool reverse = false;
    bool operator==(const PortableRenderMetadata&) const = default;
};

struct PortableRenderCellCache {
    BufferLine::RenderIdentity identity;
    uint64_t recycleGeneration = 0;
    uint64_t generation = 0;
    RenderSnapshotCells cells;
};

// The snapshot maker's memory between frames: the previous metadata, the rows shown and the
// cells of each row object it has converted.
struct RenderSnapshotCache {
    std::optional<PortableRenderMetadata> previous;
    struct Stamp {
        uint64_t identity = 0, recycle = 0, generation = 0;
        bool operator==(const Stamp&) const = default;
    };
    std::vector<Stamp> shownRows; // by screen row, for views scrolled into the history
    RenderSnapshotCursor shownCursor;
    std::unordered_map<uint64_t, PortableRenderCellCache> rows; // by render identity

    RenderSnapshotCells cellsFor(const BufferLine& line);
    // Forgets rows no longer shown once the cache has grown well beyond the screen.
    void prune(const std::vector<Stamp>& keep);
};

// Converts one buffer row; empty cells give empty text.
std::vector<RenderSnapshotCell> renderCells(const BufferLine& line);

// The retained form a view keeps: every screen row, updated in place from successive
// snapshots, each row with a revision that rises when its content changes.
class TerminalSnapshot {
public:
    struct Row {
        RenderSnapshotRow row;
        uint64_t revision = 0;
    };

    // Takes in a snapshot; gives the screen rows that must be drawn again, or nothing.
    // `appearanceChanged()` then says whether everything changed colour.
    std::optional<RenderSnapshotRange> apply(TerminalRenderSnapshot snapshot);

    const std::vector<Row>& rows() const { return rows_; }
    const TerminalRenderSnapshot& state() const { return state_; } // `lines` left empty
    bool appearanceChanged() const { return appearanceChanged_; }

private:
    std::vector<Row> rows_;
    TerminalRenderSnapshot state_;
    bool appearanceChanged_ = false;
    uint64_t nextRevision_ = 1;
};

} // namespace vellum
