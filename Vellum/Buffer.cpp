#include "Vellum/Buffer.h"

#include <algorithm>
#include <cstdlib>

#include "Vellum/AsciiCells.h"

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

// A blank row holds no words until it is written.
std::shared_ptr<BufferLine> Buffer::makeRow(int cols, PackedCell blank, bool isWrapped) const {
    auto line = std::make_shared<BufferLine>(0, std::nullopt, isWrapped, defaultBidiState, cellArena);
    line->resize(cols, PackedCell{});
    line->fill(blank);
    return line;
}

void Buffer::appendRow(PackedCell blank, bool isWrapped) { lines.push(makeRow(_cols, blank, isWrapped)); }

void Buffer::reflow(int newCols, PackedCell blank) {
    int oldCols = _cols;
    int cursorRow = yBase + y, savedRow = yBase + savedY;
    std::vector<std::shared_ptr<BufferLine>> rebuilt;
    int newCursorRow = 0, newCursorX = 0, newSavedRow = 0;
    int count = lines.count();
    std::vector<PackedCell> cells;
    for (int start = 0; start < count;) {
        int end = start + 1;
        while (end < count && lines[end].isWrapped()) ++end;
        // The paragraph's cells, with the placeholders of wrapped wide characters left out.
        cells.clear();
        int cursorOffset = -1, savedOffset = -1;
        for (int r = start; r < end; ++r) {
            BufferLine& line = lines[r];
            int used = line.count();
            if (r == end - 1) {
                used = line.getTrimmedLength();
                if (r == cursorRow) used = std::max(used, std::min(x, oldCols));
            } else if (used > 0 && line.packedCell(used - 1).widthState() == CellWidthState::spacerHead) {
                --used;
            }
            if (r == cursorRow) cursorOffset = static_cast<int>(cells.size()) + x;
            if (r == savedRow) savedOffset = static_cast<int>(cells.size()) + savedX;
            for (int c = 0; c < std::min(used, line.count()); ++c) cells.push_back(line.packedCell(c));
        }
        size_t first = rebuilt.size();
        size_t at = 0;
        do {
            size_t take = std::min(cells.size() - at, static_cast<size_t>(newCols));
            bool carryWide = take == static_cast<size_t>(newCols) && at + take < cells.size() + 1 && take > 0 &&
                             cells[at + take - 1].isWideHead();
            auto row = makeRow(newCols, blank, rebuilt.size() != first);
            for (size_t c = 0; c + (carryWide ? 1 : 0) < take; ++c) row->fill(cells[at + c], static_cast<int>(c), 1);
            if (carryWide) {
                row->fill(blank.withWidthState(CellWidthState::spacerHead), newCols - 1, 1);
                --take;
            }
            rebuilt.push_back(std::move(row));
            at += take;
        } while (at < cells.size());
        auto place = [&](int offset, int& rowOut, int* xOut) {
            int index = std::min(offset / newCols, static_cast<int>(rebuilt.size() - first) - 1);
            rowOut = static_cast<int>(first) + std::max(index, 0);
            if (xOut) *xOut = offset - index * newCols;
        };
        if (cursorOffset >= 0) place(cursorOffset, newCursorRow, &newCursorX);
        if (savedOffset >= 0) place(savedOffset, newSavedRow, nullptr);
        start = end;
    }
    // Blank rows below the cursor go before any history is pushed out.
    while (static_cast<int>(rebuilt.size()) > rows_ && static_cast<int>(rebuilt.size()) > newCursorRow + 1 &&
           !rebuilt.back()->hasAnyContent() && !rebuilt.back()->isWrapped())
        rebuilt.pop_back();
    while (static_cast<int>(rebuilt.size()) < rows_) rebuilt.push_back(makeRow(newCols, blank, false));
    int drop = std::max(0, static_cast<int>(rebuilt.size()) - lines.maxLength);
    _cols = newCols;
    lines.setCount(0);
    for (size_t i = static_cast<size_t>(drop); i < rebuilt.size(); ++i) lines.push(std::move(rebuilt[i]));
    yBase = std::max(0, lines.count() - rows_);
    yDisp = yBase;
    y = std::clamp(newCursorRow - drop - yBase, 0, rows_ - 1);
    x = std::min(newCursorX, newCols - 1);
    savedY = std::clamp(newSavedRow - drop - yBase, 0, rows_ - 1);
    savedX = std::min(savedX, newCols - 1);
    for (int i = 0; i < yBase; ++i) lines[i].compact();
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

bool Buffer::hasPartialMargins() const { return marginMode && (marginLeft != 0 || marginRight != _cols - 1); }

// Rows top..bottom move by `count` (up when positive) between the margins only; the rows left
// behind are blank there. Nothing enters the scrollback. A wide character across a margin is
// healed first, so no half of one moves alone.
void Buffer::shiftInsideMargins(int top, int bottom, int count, PackedCell blank) {
    int width = marginRight - marginLeft + 1;
    for (int r = top; r <= bottom; ++r) {
        row(r).repairWideSeam(marginLeft);
        row(r).repairWideSeam(marginRight + 1);
    }
    int height = bottom - top + 1;
    int distance = std::min(std::abs(count), height);
    if (count > 0) {
        for (int r = top; r + distance <= bottom; ++r) row(r).copyFrom(row(r + distance), marginLeft, marginLeft, width);
        for (int r = bottom - distance + 1; r <= bottom; ++r) row(r).replacePackedCells(marginLeft, marginRight + 1, blank);
    } else {
        for (int r = bottom; r - distance >= top; --r) row(r).copyFrom(row(r - distance), marginLeft, marginLeft, width);
        for (int r = top; r < top + distance; ++r) row(r).replacePackedCells(marginLeft, marginRight + 1, blank);
    }
}

void Buffer::scroll(PackedCell blank, bool isWrapped) {
    if (hasPartialMargins()) {
        shiftInsideMargins(scrollTop, scrollBottom, 1, blank);
        return;
    }
    if (scrollTop != 0 || scrollBottom != rows_ - 1) {
        lines.shiftUpAndRecycle(yBase + scrollTop, yBase + scrollBottom, blank, isWrapped, defaultBidiState);
        return;
    }
    bool following = yDisp == yBase;
    // The bottom row is compacted as it moves up, while it is still in the cache: output is
    // written at the bottom, so rows reach the scrollback compact without being read again.
    row(rows_ - 1).compact(&compactWords);
    if (lines.count() < lines.maxLength) {
        appendRow(blank, isWrapped);
        ++yBase;
    } else {
        lines.recycle(blank, isWrapped, defaultBidiState);
        // The oldest row left the ring and every row moved up one place: a view scrolled back
        // moves with its text, so that what the user reads stays put.
        if (!following) yDisp = std::max(yDisp - 1, 0);
    }
    if (following) yDisp = yBase;
}

void Buffer::insertLines(int screenRow, int count, PackedCell blank) {
    if (screenRow < scrollTop || screenRow > scrollBottom) return;
    count = std::min(count, scrollBottom - screenRow + 1);
    if (hasPartialMargins()) {
        shiftInsideMargins(screenRow, scrollBottom, -count, blank);
        return;
    }
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
    if (hasPartialMargins()) {
        shiftInsideMargins(screenRow, scrollBottom, count, blank);
        return;
    }
    for (int i = 0; i < count; ++i)
        lines.shiftUpAndRecycle(yBase + screenRow, yBase + scrollBottom, blank, false, defaultBidiState);
}

bool Buffer::wrapForCharacter(int width, PackedCell blank) {
    int right = rightBound();
    if (!wraparound) {
        if (width == 2) return false;
        x = right;
        return true;
    }
    if (width == 2 && x == right) {
        BufferLine& line = row(y);
        line.repairWideSeam(x);
        line.fill(blank.withWidthState(CellWidthState::spacerHead), x, 1);
    }
    x = leftBound();
    if (y == scrollBottom) {
        scroll(blank, true);
    } else if (y < rows_ - 1) {
        ++y;
        row(y).setWrapped(true);
    }
    return x + width - 1 <= right; // a region narrower than the character drops it
}

void Buffer::insertCharacter(PackedCell cell, int width, PackedCell blank) {
    if (!placeCharacter(width, blank)) return;
    BufferLine& line = row(y);
    int right = rightBound();
    if (insertMode) line.insertPackedCells(x, width, right, blank);
    line.repairWideSeam(x);
    line.repairWideSeam(x + width);
    line.fill(width == 2 ? cell.withWidthState(CellWidthState::wide) : cell, x, 1);
    if (width == 2) line.fill(cell.blanked().withWidthState(CellWidthState::spacerTail), x + 1, 1);
    x += width;
}

namespace {

// Opens columns [start, start + count) of a row for writing: the wide characters cut at either
// end are healed, and the row's bookkeeping moves once for the whole stretch.
PackedCell* openStretch(BufferLine& line, int start, int count, CellWordPool& pool) {
    line.repairWideSeam(start);
    line.repairWideSeam(start + count);
    line.usedLength = std::max(line.usedLength, start + count);
    ++line._generation;
    return line.writableCells(start + count, &pool) + start;
}

} // namespace

size_t Buffer::insertAsciiRun(const uint8_t* bytes, size_t count, PackedCell base, PackedCell blank) {
    if (insertMode) return 0;
    const uint64_t word = base.raw & ~PackedCell::contentAndWidthBits;
    size_t done = 0;
    while (done < count) {
        if (!placeCharacter(1, blank)) return count;
        if (!wraparound && x == rightBound() && count - done > 1) done = count - 1; // the rest overwrite the last cell
        int n = static_cast<int>(std::min<size_t>(count - done, static_cast<size_t>(rightBound() - x + 1)));
        PackedCell* out = openStretch(row(y), x, n, compactWords);
        writeAsciiCells(out, bytes + done, n, word);
        x += n;
        done += static_cast<size_t>(n);
    }
    return count;
}

// The rarer steps of writeAsciiWithinRow, kept out of its inlined body. A row written a word
// at a time stores as many words as its array holds, not just those up to the word: growing
// the stored part word by word costs more than writing blanks ahead. Only a row that outgrows
// its array takes a larger one (geometrically), so what scrolls into the scrollback stays as
// compact as before.
void Buffer::storeAhead(BufferLine& line, int end) {
    line.writableCells(std::max(end, int(line.storage.cells.capacity())), &compactWords);
}

void Buffer::repairSeams(BufferLine& line, int start, int end) {
    line.repairWideSeam(start);
    line.repairWideSeam(end);
}

size_t Buffer::insertContentRun(const uint32_t* contents, size_t count, int width, PackedCell base, PackedCell blank) {
    if (insertMode) return 0;
    const uint64_t word = base.raw & ~PackedCell::contentAndWidthBits;
    size_t done = 0;
    while (done < count) {
        if (!placeCharacter(width, blank)) {
            ++done; // dropped
            continue;
        }
        if (!wraparound && width == 1 && x == rightBound() && count - done > 1) done = count - 1;
        int columns = rightBound() - x + 1;
        int n = static_cast<int>(std::min<size_t>(count - done, static_cast<size_t>(width == 2 ? columns / 2 : columns)));
        PackedCell* out = openStretch(row(y), x, n * width, compactWords);
        const uint32_t* in = contents + done;
        if (width == 1) {
            for (int i = 0; i < n; ++i) out[i].raw = word | in[i];
        } else {
            const uint64_t head = word | uint64_t(CellWidthState::wide) << PackedCell::widthStateShift;
            const uint64_t tail = word | uint64_t(CellWidthState::spacerTail) << PackedCell::widthStateShift;
            for (int i = 0; i < n; ++i) {
                out[2 * i].raw = head | in[i];
                out[2 * i + 1].raw = tail;
            }
        }
        x += n * width;
        done += static_cast<size_t>(n);
    }
    return count;
}

void Buffer::clearScrollback() {
    if (yBase == 0) return;
    lines.trimStart(yBase);
    yBase = 0;
    yDisp = 0;
}

void Buffer::setScrollback(int rows) {
    lines.setMaxLength(rows_ + std::max(rows, 0));
    yBase = std::max(0, lines.count() - rows_);
    yDisp = yBase;
}

void Buffer::resize(int cols, int rows, PackedCell blank) {
    if (cols != _cols && lines.maxLength > rows_) {
        reflow(cols, blank);
        tabStops.setup(cols, tabStopWidth, std::min(tabStops.size(), cols));
    }
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
                lines[yBase].compact(); // into the scrollback
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
