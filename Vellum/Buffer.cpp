#include "Vellum/Buffer.h"

#include <algorithm>

namespace vellum {

Buffer::Buffer(int cols, int rows, int scrollback, std::shared_ptr<CellArena> arena, int tabStopWidth)
    : lines(rows + std::max(scrollback, 0), this), tabStopWidth(tabStopWidth), rows_(rows) {
    _cols = cols;
    cellArena = std::move(arena);
    selfRef = std::make_shared<BufferRef>(BufferRef{this});
    for (int i = 0; i < rows; ++i) appendRow(PackedCell{}, false);
    tabStops.setup(cols, tabStopWidth);
    resetRegion();
}

void Buffer::appendRow(PackedCell blank, bool isWrapped) {
    auto line = std::make_shared<BufferLine>(_cols, std::nullopt, isWrapped, defaultBidiState, cellArena);
    line->fill(blank);
    lines.push(std::move(line));
}

void Buffer::resetRegion() {
    scrollTop = 0;
    scrollBottom = rows_ - 1;
    marginLeft = 0;
    marginRight = _cols - 1;
}

void Buffer::fillViewport(PackedCell blank) {
    for (int r = 0; r < rows_; ++r) {
        BufferLine& line = row(r);
        line.fill(blank);
        line.setWrapped(false);
    }
}

void Buffer::scroll(PackedCell blank, bool isWrapped) {
    if (marginMode && (marginLeft != 0 || marginRight != _cols - 1)) {
        // Only the columns inside the margins move; nothing enters the scrollback.
        for (int r = scrollTop; r < scrollBottom; ++r)
            row(r).copyFrom(row(r + 1), marginLeft, marginLeft, marginRight - marginLeft + 1);
        row(scrollBottom).replacePackedCells(marginLeft, marginRight + 1, blank);
        return;
    }
    if (scrollTop != 0 || scrollBottom != rows_ - 1) {
        lines.shiftUpAndRecycle(yBase + scrollTop, yBase + scrollBottom, blank, isWrapped, defaultBidiState);
        return;
    }
    bool following = yDisp == yBase;
    if (lines.count() < lines.maxLength) {
        appendRow(blank, isWrapped);
        ++yBase;
    } else {
        lines.recycle(blank, isWrapped, defaultBidiState);
    }
    if (following) yDisp = yBase;
}

void Buffer::insertLines(int screenRow, int count, PackedCell blank) {
    if (screenRow < scrollTop || screenRow > scrollBottom) return;
    count = std::min(count, scrollBottom - screenRow + 1);
    for (int i = 0; i < count; ++i) {
        // The bottom row of the region comes back blank at the insertion point.
        auto bottom = lines.line(yBase + scrollBottom);
        for (int r = scrollBottom; r > screenRow; --r) lines.set(yBase + r, lines.line(yBase + r - 1));
        bottom->recycle(blank, false, defaultBidiState);
        lines.set(yBase + screenRow, bottom);
    }
}

void Buffer::deleteLines(int screenRow, int count, PackedCell blank) {
    if (screenRow < scrollTop || screenRow > scrollBottom) return;
    count = std::min(count, scrollBottom - screenRow + 1);
    for (int i = 0; i < count; ++i)
        lines.shiftUpAndRecycle(yBase + screenRow, yBase + scrollBottom, blank, false, defaultBidiState);
}

void Buffer::insertCharacter(PackedCell cell, int width, PackedCell blank) {
    int right = rightBound();
    if (x + width - 1 > right) {
        if (!wraparound) {
            if (width == 2) return;
            x = right;
        } else {
            if (width == 2 && x == right) row(y).fill(blank.withWidthState(CellWidthState::spacerHead), x, 1);
            x = leftBound();
            if (y < scrollBottom) {
                ++y;
                row(y).setWrapped(true);
            } else if (y == scrollBottom) {
                scroll(blank, true);
            } else if (y < rows_ - 1) {
                ++y;
                row(y).setWrapped(true);
            }
            if (x + width - 1 > right) return; // a region narrower than the character
        }
    }
    BufferLine& line = row(y);
    if (insertMode) line.insertPackedCells(x, width, right, blank);
    line.repairWideSeam(x);
    line.repairWideSeam(x + width);
    line.fill(width == 2 ? cell.withWidthState(CellWidthState::wide) : cell, x, 1);
    if (width == 2) line.fill(cell.blanked().withWidthState(CellWidthState::spacerTail), x + 1, 1);
    x += width;
}

void Buffer::insertAsciiRun(const uint8_t* bytes, size_t count, uint16_t styleID, PackedCell blank) {
    for (size_t i = 0; i < count; ++i)
        insertCharacter(PackedCell::make(PackedCell::scalarTag, bytes[i], styleID, 0, false, 0, 0), 1, blank);
}

void Buffer::clearScrollback() {
    if (yBase == 0) return;
    lines.trimStart(yBase);
    yBase = 0;
    yDisp = 0;
}

void Buffer::resize(int cols, int rows, PackedCell blank) {
    if (cols != _cols) {
        _cols = cols;
        for (int i = 0; i < lines.count(); ++i) lines[i].resize(cols, blank);
        tabStops.setup(cols, tabStopWidth, std::min(tabStops.size(), cols));
    }
    int scrollback = lines.maxLength - rows_;
    if (rows > rows_) {
        lines.setMaxLength(rows + scrollback);
        for (int added = rows - rows_; added > 0; --added) {
            if (yBase > 0) {
                --yBase; // a row comes back from the scrollback
                ++y;
            } else {
                appendRow(blank, false);
            }
        }
    } else if (rows < rows_) {
        for (int removed = rows_ - rows; removed > 0; --removed) {
            // Blank rows below the cursor go first; then the top row enters the scrollback.
            if (lines.count() - 1 > yBase + y && !lines[lines.count() - 1].hasAnyContent()) {
                lines.setCount(lines.count() - 1);
            } else {
                ++yBase;
                y = std::max(y - 1, 0);
            }
        }
        lines.setMaxLength(rows + scrollback);
    }
    rows_ = rows;
    yBase = std::max(0, lines.count() - rows);
    yDisp = yBase;
    x = std::min(x, cols - 1);
    y = std::clamp(y, 0, rows - 1);
    resetRegion();
}

} // namespace vellum
