// Which screen rows changed since a reader last looked. Every write to a row moves that row's
// generation, and a row object that scrolled or was recycled brings another identity or
// recycle count to its screen position; comparing those stamps finds every change, whoever
// made it, at a cost of one pass over the screen rows per frame.
#include "Vellum/Terminal.h"

namespace vellum {

namespace {

struct Stamp {
    uint64_t identity, recycle, generation;
    bool operator==(const Stamp&) const = default;
};

} // namespace

std::optional<Terminal::UpdateRange> Terminal::takeUpdateRange() {
    Buffer& b = *buffer_;
    bool layoutChanged = updateStamps.size() != size_t(rows_) * 3 || updateStampsBuffer != buffer_ ||
                         updateStampsCols != cols_;
    std::optional<UpdateRange> range;
    auto include = [&](int row, bool moved) {
        if (!range) range = UpdateRange{row, row, false};
        range->startY = std::min(range->startY, row);
        range->endY = std::max(range->endY, row);
        range->scrolled = range->scrolled || moved;
    };
    std::vector<uint64_t>& stamps = updateStampsScratch;
    stamps.resize(size_t(rows_) * 3);
    for (int row = 0; row < rows_; ++row) {
        const BufferLine& line = b.row(row);
        Stamp now{line.renderIdentity.value, line.recycleGeneration, line._generation};
        stamps[size_t(row) * 3] = now.identity;
        stamps[size_t(row) * 3 + 1] = now.recycle;
        stamps[size_t(row) * 3 + 2] = now.generation;
        if (layoutChanged) continue;
        Stamp before{updateStamps[size_t(row) * 3], updateStamps[size_t(row) * 3 + 1], updateStamps[size_t(row) * 3 + 2]};
        if (now != before) include(row, now.identity != before.identity || now.recycle != before.recycle);
    }
    if (layoutChanged) range = UpdateRange{0, rows_ - 1, false};
    // The cursor's rows are redrawn when it moves.
    int cursorRow = std::min(b.y, rows_ - 1);
    if (!layoutChanged && (cursorRow != updateCursorRow || b.x != updateCursorCol)) {
        if (updateCursorRow >= 0 && updateCursorRow < rows_) include(updateCursorRow, false);
        include(cursorRow, false);
    }
    std::swap(updateStamps, updateStampsScratch);
    updateStampsBuffer = buffer_;
    updateStampsCols = cols_;
    updateCursorRow = cursorRow;
    updateCursorCol = b.x;
    return range;
}

} // namespace vellum
