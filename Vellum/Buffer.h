#pragma once

#include <algorithm>
#include <memory>

#include "Vellum/AsciiCells.h"
#include "Vellum/Attribute.h"
#include "Vellum/Charsets.h"
#include "Vellum/CircularBufferLineList.h"
#include "Vellum/TabStops.h"

namespace vellum {

// One screen (normal or alternate): its rows and scrollback, cursor, region, margins and
// saved cursor. The terminal writes through it; the owner fields let the row ring make rows.
class Buffer : public BufferLineOwner {
public:
    Buffer(int cols, int rows, int scrollback, std::shared_ptr<CellArena> arena, int tabStopWidth);
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    int cols() const { return _cols; }
    int rows() const { return rows_; }
    BufferLine& row(int screenRow) { return lines[yBase + screenRow]; }
    int rightBound() const { return marginMode ? marginRight : _cols - 1; }
    int leftBound() const { return marginMode ? marginLeft : 0; }

    // Rows are blank words of `blank`; the cursor and region are not touched.
    void fillViewport(PackedCell blank);
    // One row up inside the region; with the region covering the screen the top row goes into
    // the scrollback (a full scrollback recycles its oldest row, so nothing is allocated).
    void scroll(PackedCell blank, bool isWrapped);
    // Inserts `count` blank rows at `screenRow` inside the region, pushing the bottom out.
    void insertLines(int screenRow, int count, PackedCell blank);
    void deleteLines(int screenRow, int count, PackedCell blank);
    // Stores a cell of width 1 or 2 at the cursor with autowrap, insert mode and seam repair.
    void insertCharacter(PackedCell cell, int width, PackedCell blank);
    // Bulk forms of insertCharacter for runs of printable ASCII and of scalars of one width: each
    // row segment is written in one pass, seams repaired only at its ends. `base` is the word
    // every cell shares (style, payload, semantic code) with an empty content value. Both give
    // the number of characters consumed, which is 0 in insert mode: the caller then goes one by one.
    size_t insertAsciiRun(const uint8_t* bytes, size_t count, PackedCell base, PackedCell blank);
    size_t insertContentRun(const uint32_t* contents, size_t count, int width, PackedCell base, PackedCell blank);
    // The common case of printing in one pass: `count` printable ASCII bytes that land on the
    // cursor's row from the cursor on, outside insert mode. False, with nothing written, when
    // they do not (a pending wrap, too little room, insert mode).
    [[gnu::always_inline]] bool writeAsciiWithinRow(const uint8_t* bytes, size_t count, PackedCell base) {
        int room = rightBound() - x + 1;
        if (insertMode || room <= 0 || count > size_t(room)) return false;
        int end = x + int(count);
        BufferLine& line = row(y);
        if (line.storedCount() < end) storeAhead(line, end);
        PackedCell* cells = line.storage.data();
        if ((x > 0 && cells[x - 1].isWideHead()) || cells[end - 1].isWideHead()) repairSeams(line, x, end);
        line.usedLength = std::max(line.usedLength, end);
        ++line._generation;
        writeAsciiCells(cells + x, bytes, int(count), base.raw & ~PackedCell::contentAndWidthBits);
        x = end;
        return true;
    }
    // Moves the cursor to where a character of `width` goes, wrapping to the next row (and
    // scrolling) when autowrap is on. False when the character is to be dropped.
    bool placeCharacter(int width, PackedCell blank) { return x + width - 1 <= rightBound() || wrapForCharacter(width, blank); }
    // Clears the scrollback rows above the screen.
    void clearScrollback();
    // A new scrollback size: the newest rows stay, the screen is untouched.
    void setScrollback(int rows);
    // New grid size; rows leave the top into the scrollback or come back from it. No reflow.
    void resize(int cols, int rows, PackedCell blank);
    void resetRegion();
    // Rewraps the paragraphs (rows joined by their wrapped flag) to a new width. The cursor and
    // the saved cursor follow the cell they stood on.
    void reflow(int newCols, PackedCell blank);
    int scrollbackRows() const { return yBase; }

    CircularBufferLineList lines;
    int x = 0, y = 0;
    int yBase = 0, yDisp = 0;
    int scrollTop = 0, scrollBottom = 0;
    int marginLeft = 0, marginRight = 0;
    TabStops tabStops;
    int tabStopWidth;

    int savedX = 0, savedY = 0;
    Attribute savedAttr;
    const Charset* savedCharset = nullptr;
    bool savedOriginMode = false, savedMarginMode = false, savedWraparound = true, savedReverseWraparound = false;
    bool savedProtected = false;

    bool insertMode = false, marginMode = false, wraparound = true;

private:
    void storeAhead(BufferLine& line, int end);
    [[gnu::cold]] void repairSeams(BufferLine& line, int start, int end);
    bool hasPartialMargins() const;
    void shiftInsideMargins(int top, int bottom, int count, PackedCell blank);
    bool wrapForCharacter(int width, PackedCell blank);
    void appendRow(PackedCell blank, bool isWrapped);
    std::shared_ptr<BufferLine> makeRow(int cols, PackedCell blank, bool isWrapped) const;
    int rows_;
};

} // namespace vellum
