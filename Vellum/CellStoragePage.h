#pragma once

#include <memory>
#include <span>
#include <vector>

#include "Vellum/CellArena.h"
#include "Vellum/PackedCell.h"

namespace vellum {

// One row's cells as flat words, with the arena that gives them meaning. A page is moved or
// swapped as a whole; words of one arena are never stored in a page of another.
class CellStoragePage {
public:
    CellStoragePage() = default;
    CellStoragePage(int count, PackedCell fill, std::shared_ptr<CellArena> arena)
        : cells(size_t(std::max(count, 0)), fill), arena(std::move(arena)) {}
    CellStoragePage(std::span<const PackedCell> copyingPacked, std::shared_ptr<CellArena> arena)
        : cells(copyingPacked.begin(), copyingPacked.end()), arena(std::move(arena)) {}
    CellStoragePage(const CellStoragePage& copying) = default;
    CellStoragePage(CellStoragePage&&) noexcept = default;
    CellStoragePage& operator=(const CellStoragePage&) = default;
    CellStoragePage& operator=(CellStoragePage&&) noexcept = default;

    int count() const { return int(cells.size()); }
    PackedCell* data() { return cells.data(); }
    const PackedCell* data() const { return cells.data(); }

    // A page of `to` cells in the same arena: the fill, then the old cells up to the smaller width.
    CellStoragePage resized(int to, PackedCell fill) const;

    // Copies cells between pages; the words go as they are within one arena and are re-encoded
    // across arenas. Overlapping copies within one page are safe.
    void copyCells(const CellStoragePage& from, int sourceStart, int destinationStart, int count);

    std::vector<PackedCell> cells;
    std::shared_ptr<CellArena> arena;
};

// Spare word arrays for rows, sorted by capacity in steps of eight words. Rows give back the
// words they outgrow, or that are too large for what they keep in the scrollback, and take
// words of the size they need, so scrolling text of varying lengths allocates nothing once the
// sizes repeat.
class CellWordPool {
public:
    using Words = std::vector<PackedCell>;
    static constexpr size_t step = 8;
    static constexpr size_t keptPerSize = 16;

    // Empty words whose capacity is `count` rounded up to the step.
    Words take(size_t count);
    // Keeps words of a stepped capacity while there are few of that size; frees the others.
    void give(Words words);

private:
    std::vector<std::vector<Words>> spare_; // by capacity / step
};

// Re-encodes a cell of one arena in another; failing to do so is an internal error.
PackedCell reencode(PackedCell cell, const CellArena& from, CellArena& to);

} // namespace vellum
