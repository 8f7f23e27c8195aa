#include "Vellum/CellStoragePage.h"

#include <algorithm>
#include <cstring>

#include "Vellum/Diagnostics.h"

namespace vellum {

PackedCell reencode(PackedCell cell, const CellArena& from, CellArena& to) {
    if (&from == &to) return cell;
    auto packed = to.pack(from.unpack(cell));
    if (!packed) fatalError("CellStoragePage: a cell could not be packed in the target arena");
    return *packed;
}

CellWordPool::Words CellWordPool::take(size_t count) {
    size_t size = (count + step - 1) / step;
    if (size < spare_.size() && !spare_[size].empty()) {
        Words words = std::move(spare_[size].back());
        spare_[size].pop_back();
        words.clear();
        return words;
    }
    Words words;
    words.reserve(size * step);
    return words;
}

void CellWordPool::give(Words words) {
    size_t capacity = words.capacity();
    if (capacity == 0 || capacity % step != 0) return;
    size_t size = capacity / step;
    if (size >= spare_.size()) spare_.resize(size + 1);
    std::vector<Words>& spare = spare_[size];
    if (spare.capacity() == 0) spare.reserve(keptPerSize);
    if (spare.size() < keptPerSize) spare.push_back(std::move(words));
}

CellStoragePage CellStoragePage::resized(int to, PackedCell fill) const {
    CellStoragePage page(to, fill, arena);
    std::copy_n(cells.begin(), std::min(count(), page.count()), page.cells.begin());
    return page;
}

void CellStoragePage::copyCells(const CellStoragePage& from, int sourceStart, int destinationStart, int count) {
    count = std::min({count, from.count() - sourceStart, this->count() - destinationStart});
    if (count <= 0 || sourceStart < 0 || destinationStart < 0) return;
    if (from.arena == arena || !from.arena || !arena || arena->preservesEncoding(*from.arena)) {
        std::memmove(data() + destinationStart, from.data() + sourceStart, sizeof(PackedCell) * size_t(count));
        return;
    }
    for (int i = 0; i < count; ++i) {
        cells[size_t(destinationStart + i)] = reencode(from.cells[size_t(sourceStart + i)], *from.arena, *arena);
    }
}

} // namespace vellum
