#include "Vellum/CircularBufferLineList.h"

#include <string>

namespace vellum {

CircularBufferLineList::CircularBufferLineList(int maxLength, BufferLineOwner* owner, bool isLive)
    : RingSlots(maxLength), owner(owner), isLive(isLive) {}

CircularBufferLineList::LinePointer CircularBufferLineList::makeBlankLine() const {
    if (!owner) return std::make_shared<BufferLine>(0);
    auto line = std::make_shared<BufferLine>(owner->_cols, std::nullopt, false, owner->defaultBidiState,
                                             owner->cellArena);
    line->owningBufferRef = owner->selfRef;
    return line;
}

const CircularBufferLineList::LinePointer& CircularBufferLineList::line(int index) {
    if (index < 0 || index >= _count) {
        // A caller bug; hand out a detached row rather than touch memory outside the ring.
        diagnostic("CircularBufferLineList: index " + std::to_string(index) + " is outside 0..<" +
                   std::to_string(_count));
        outOfRange_ = makeBlankLine();
        return outOfRange_;
    }
    LinePointer& s = slot(index);
    if (!s) s = makeBlankLine();
    return s;
}

void CircularBufferLineList::adopt(BufferLine& line) const {
    if (!isLive || !owner) return;
    if (owner->cellArena) line.adoptArena(owner->cellArena);
    line.owningBufferRef = owner->selfRef;
}

void CircularBufferLineList::noteImagesDropped(bool hadImages) const {
    if (hadImages && isLive && owner && owner->_linesWithImagesCount > 0) --owner->_linesWithImagesCount;
}

void CircularBufferLineList::set(int index, LinePointer line) {
    if (index < 0 || index >= _count || !line) {
        diagnostic("CircularBufferLineList: cannot set index " + std::to_string(index) + " of 0..<" +
                   std::to_string(_count));
        return;
    }
    adopt(*line);
    slot(index) = std::move(line);
}

void CircularBufferLineList::reset(int maxLength) {
    if (isLive && owner) {
        for (int i = 0; i < _count; ++i) {
            if (const LinePointer& row = slot(i)) noteImagesDropped(row->hasImages());
        }
    }
    resetSlots(maxLength);
}

void CircularBufferLineList::push(LinePointer line) {
    adopt(*line);
    bool hasImages = line->hasImages();
    LinePointer dropped = pushSlot(std::move(line));
    if (isLive && owner && hasImages) ++owner->_linesWithImagesCount;
    if (dropped) noteImagesDropped(dropped->hasImages());
}

void CircularBufferLineList::recycle(PackedCell clearCell, bool isWrapped, BidiPresentationState bidiState) {
    if (_count != maxLength || _count == 0) {
        diagnostic("Assertion on recycle: count=" + std::to_string(_count) + " maxLength=" + std::to_string(maxLength));
        return;
    }
    BufferLine& row = *line(0);
    startIndex = (startIndex + 1) % _count;
    if (owner && row.count() != owner->_cols) row.resize(owner->_cols, clearCell);
    noteImagesDropped(row.recycle(clearCell, isWrapped, bidiState));
    prefetchNextRecycled();
}

// The rows recycled next were written a whole scrollback ago and are out of the cache. While the
// row just recycled is written, the next one's words (which it overwrites) and the row object
// after it (whose words are fetched the same way next time) are brought in, so that scrolling
// does not wait for them.
void CircularBufferLineList::prefetchNextRecycled() {
    if (_count < 3) return;
    if (const LinePointer& next = slot(0)) {
        const std::vector<PackedCell>& words = next->storage.cells;
        const char* bytes = reinterpret_cast<const char*>(words.data());
        for (size_t at = 0, size = words.capacity() * sizeof(PackedCell); at < size; at += 64) __builtin_prefetch(bytes + at, 1);
    }
    if (const LinePointer& after = slot(1)) __builtin_prefetch(after.get(), 1);
}

void CircularBufferLineList::splice(int start, int deleteCount, std::span<const LinePointer> items,
                                    const std::function<void(int)>& change) {
    spliceSlots(
        start, deleteCount, int(items.size()),
        [&](int k) {
            LinePointer row = items[size_t(k)];
            adopt(*row);
            return row;
        },
        [&](int index) {
            if (change) change(index);
        });
}

bool CircularBufferLineList::shiftUpAndRecycle(int top, int bottom, PackedCell clearCell, bool isWrapped,
                                               BidiPresentationState bidiState) {
    auto fail = [&](const char* reason) {
        diagnostic("Assertion at top=" + std::to_string(top) + " bottom=" + std::to_string(bottom) + ": " + reason);
        return false;
    };
    if (top < 0) return fail("top < 0");
    if (bottom >= _count) return fail("bottom >= self.count");
    if (top > bottom) return fail("top > bottom");
    LinePointer row = line(top);
    for (int i = top; i < bottom; ++i) slot(i) = std::move(slot(i + 1));
    slot(bottom) = row;
    if (owner && row->count() != owner->_cols) row->resize(owner->_cols, clearCell);
    noteImagesDropped(row->recycle(clearCell, isWrapped, bidiState));
    return true;
}

} // namespace vellum
