#pragma once

#include <memory>

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
    // Writes printable ASCII at the cursor; gives the number of bytes written before a wrap was due.
    void insertAsciiRun(const uint8_t* bytes, size_t count, uint16_t styleID, PackedCell blank);
    // Clears the scrollback rows above the screen.
    void clearScrollback();
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

    bool insertMode = false, marginMode = false, wraparound = true;

private:
    void appendRow(PackedCell blank, bool isWrapped);
    std::shared_ptr<BufferLine> makeRow(int cols, PackedCell blank, bool isWrapped) const;
    int rows_;
};

} // namespace vellum
