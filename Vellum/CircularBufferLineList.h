#pragma once

#include <functional>
#include <memory>
#include <span>

#include "Vellum/BufferLine.h"
#include "Vellum/CircularList.h"

namespace vellum {

// What a ring of rows needs from the buffer that owns it. Buffer derives from it, so these
// are the buffer's own fields and the ring reads them without a call.
struct BufferLineOwner {
    int _cols = 0;
    std::shared_ptr<CellArena> cellArena;
    std::shared_ptr<BufferRef> selfRef;
    int _linesWithImagesCount = 0;
    BidiPresentationState defaultBidiState;
    CellWordPool compactWords;
};

// The ring of rows of a buffer: the screen at the end, the scrollback before it. Rows are made
// at first touch, and a full ring scrolls by recycling its first row as its last.
class CircularBufferLineList : public RingSlots<std::shared_ptr<BufferLine>> {
public:
    using LinePointer = std::shared_ptr<BufferLine>;

    // A live ring belongs to a buffer; one copied for a snapshot is not live.
    CircularBufferLineList(int maxLength, BufferLineOwner* owner, bool isLive = true);

    // The row at a logical index, made blank at the owner's width when the slot is empty.
    BufferLine& operator[](int index) {
        if (index >= 0 && index < _count) {
            if (const LinePointer& row = slot(index)) return *row;
        }
        return *line(index);
    }
    const LinePointer& line(int index);
    void set(int index, LinePointer line);

    void reset(int maxLength);
    void push(LinePointer line);
    // The scroll fast path of a full ring: the first row becomes the new last row.
    void recycle(PackedCell clearCell, bool isWrapped, BidiPresentationState bidiState);
    void prefetchNextRecycled();
    void splice(int start, int deleteCount, std::span<const LinePointer> items,
                const std::function<void(int)>& change = {});
    // Rows top+1..bottom move up one; the row object from top comes back recycled at bottom.
    bool shiftUpAndRecycle(int top, int bottom, PackedCell clearCell, bool isWrapped, BidiPresentationState bidiState);

    BufferLineOwner* owner;
    bool isLive;

private:
    void adopt(BufferLine& line) const;
    void noteImagesDropped(bool hadImages) const;
    LinePointer makeBlankLine() const;
    LinePointer outOfRange_;
};

} // namespace vellum
