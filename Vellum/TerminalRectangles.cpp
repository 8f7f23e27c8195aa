#include "Vellum/Terminal.h"
#include "Vellum/TerminalParameters.h"

#include <unordered_map>

namespace vellum {

using sequence::param;
using sequence::rawParam;

// Parameters from `start` on are top, left, bottom, right, 1-based; 0 or absent reach the edges.
// A stream (`stream`) may end left of where it starts, on a later row.
std::optional<Terminal::Rectangle> Terminal::rectangleFromRequest(CsiParameters pars, int start, bool stream) const {
    const Buffer& b = *buffer_;
    int rowOffset = originMode ? b.scrollTop : 0;
    int colOffset = originMode && b.marginMode ? b.marginLeft : 0;
    int lastRow = originMode ? b.scrollBottom : rows_ - 1;
    int lastCol = originMode && b.marginMode ? b.marginRight : cols_ - 1;
    Rectangle area{
        .top = param(pars, start, 1) - 1 + rowOffset,
        .left = param(pars, start + 1, 1) - 1 + colOffset,
        .bottom = rawParam(pars, start + 2) == 0 ? lastRow : rawParam(pars, start + 2) - 1 + rowOffset,
        .right = rawParam(pars, start + 3) == 0 ? lastCol : rawParam(pars, start + 3) - 1 + colOffset,
    };
    area.bottom = std::min(area.bottom, lastRow);
    area.right = std::min(area.right, lastCol);
    if (area.top > area.bottom || (area.left > area.right && !(stream && area.top < area.bottom))) return std::nullopt;
    return area;
}

void Terminal::copyRectangularArea(CsiParameters pars) {
    auto source = rectangleFromRequest(pars, 0);
    if (!source) return;
    const Buffer& b = *buffer_;
    int rowOffset = originMode ? b.scrollTop : 0;
    int colOffset = originMode && b.marginMode ? b.marginLeft : 0;
    int top = param(pars, 5, 1) - 1 + rowOffset, left = param(pars, 6, 1) - 1 + colOffset;
    if (top >= rows_ || left >= cols_) return;
    int height = std::min(source->bottom - source->top + 1, rows_ - top);
    int width = std::min(source->right - source->left + 1, cols_ - left);
    // Through a copy, so that overlapping areas read the old cells.
    std::vector<PackedCell> cells;
    cells.reserve(size_t(height * width));
    for (int r = 0; r < height; ++r) {
        BufferLine& line = buffer_->row(source->top + r);
        for (int c = 0; c < width; ++c) cells.push_back(line.packedCell(source->left + c));
    }
    for (int r = 0; r < height; ++r) {
        BufferLine& line = buffer_->row(top + r);
        line.repairWideSeam(left);
        line.repairWideSeam(left + width);
        for (int c = 0; c < width; ++c) line.fill(cells[size_t(r * width + c)], left + c, 1);
        // Half of a wide character that the source's edges cut is blanked.
        if (PackedCell first = line.packedCell(left); first.isSpacerTail()) line.fill(first.blanked(), left, 1);
        if (PackedCell last = line.packedCell(left + width - 1); last.isWideHead()) line.fill(last.blanked(), left + width - 1, 1);
    }
}

void Terminal::fillRectangularArea(CsiParameters pars) {
    auto area = rectangleFromRequest(pars, 1);
    if (!area) return;
    int64_t code = pars.size() > 0 ? pars[0] : 0;
    bool printable = (code >= 32 && code < 127) || (code >= 160 && code <= 255);
    char32_t scalar = printable ? static_cast<char32_t>(code) : U' ';
    auto cell = cellArena->pack(curStyleID, std::u32string_view(&scalar, 1), 0);
    if (!cell) return;
    for (int r = area->top; r <= area->bottom; ++r) {
        BufferLine& line = buffer_->row(r);
        line.repairWideSeam(area->left);
        line.repairWideSeam(area->right + 1);
        line.fill(*cell, area->left, area->right - area->left + 1);
    }
}

void Terminal::eraseRectangularArea(CsiParameters pars, bool selective) {
    auto area = rectangleFromRequest(pars, 0);
    if (!area) return;
    PackedCell space = eraseSpaceCell();
    for (int r = area->top; r <= area->bottom; ++r) {
        BufferLine& line = buffer_->row(r);
        line.repairWideSeam(area->left);
        line.repairWideSeam(area->right + 1);
        for (int c = area->left; c <= area->right; ++c)
            if (!selective || !line.packedCell(c).isProtected()) line.fill(space, c, 1);
    }
}

void Terminal::requestChecksumRectangularArea(CsiParameters pars) {
    int id = rawParam(pars, 0);
    std::vector<char32_t> scalars;
    if (auto area = rectangleFromRequest(pars, 2)) {
        std::u32string cell;
        for (int r = area->top; r <= area->bottom; ++r) {
            BufferLine& line = buffer_->row(r);
            for (int c = area->left; c <= area->right; ++c) {
                cell.clear();
                line.view(c).getScalarValues(cell);
                if (cell.empty()) scalars.push_back(0);
                else scalars.insert(scalars.end(), cell.begin(), cell.end());
            }
        }
    }
    sendResponse(checksumReply(id, scalars, cc));
}

void Terminal::changeAreaAttributes(CsiParameters pars, bool reverse) {
    auto area = rectangleFromRequest(pars, 0, !rectangularAttributeChange);
    if (!area) return;
    static constexpr int64_t allOff[] = {0};
    CsiParameters renditions = pars.size() > 4 ? CsiParameters(pars.begin() + 4, pars.size() - 4) : CsiParameters(allOff, 1);
    // Cells of one style all change alike: each style is worked out once.
    std::unordered_map<uint64_t, uint16_t> changed;
    constexpr uint64_t contentBits = PackedCell::tagMask | PackedCell::valueMask << PackedCell::valueShift;
    auto change = [&](PackedCell cell) {
        bool inlineBackground = cell.tag() >= PackedCell::paletteBackgroundTag;
        uint64_t key = inlineBackground ? (cell.raw & contentBits) | uint64_t(1) << 63 : cell.styleID();
        auto found = changed.find(key);
        if (found == changed.end()) {
            Attribute attribute = cellArena->attribute(cell);
            changeAreaRendition(attribute, renditions, reverse);
            found = changed.emplace(key, cellArena->intern(attribute).value_or(0)).first;
        }
        // An empty cell that held its background inline becomes an empty cell with a style.
        uint64_t kept = inlineBackground ? cell.raw & ~contentBits : cell.raw;
        kept &= ~(PackedCell::styleMask << PackedCell::styleShift);
        return PackedCell{kept | uint64_t(found->second) << PackedCell::styleShift};
    };
    for (int r = area->top; r <= area->bottom; ++r) {
        // A stream runs from the first corner to the end of its row, through whole rows, and
        // ends at the second corner.
        int from = area->left, to = area->right;
        if (!rectangularAttributeChange) {
            if (r != area->top) from = 0;
            if (r != area->bottom) to = cols_ - 1;
        }
        BufferLine& line = buffer_->row(r);
        for (int c = from; c <= to && c < line.count(); ++c) line.fill(change(line.packedCell(c)), c, 1);
    }
}

void Terminal::insertColumns(int count) {
    Buffer& b = *buffer_;
    if (b.x < b.leftBound() || b.x > b.rightBound() || b.y < b.scrollTop || b.y > b.scrollBottom) return;
    for (int r = b.scrollTop; r <= b.scrollBottom; ++r)
        b.row(r).insertPackedCells(b.x, count, b.rightBound(), currentEraseBlankCell);
}

void Terminal::deleteColumns(int count) {
    Buffer& b = *buffer_;
    if (b.x < b.leftBound() || b.x > b.rightBound() || b.y < b.scrollTop || b.y > b.scrollBottom) return;
    for (int r = b.scrollTop; r <= b.scrollBottom; ++r)
        b.row(r).deletePackedCells(b.x, count, b.rightBound(), currentEraseBlankCell);
}

// DECBI and DECFI: the cursor moves a column, and at the margin the text between the margins
// moves instead, in the rows of the region. Outside the margins the cursor stops at the edge.
void Terminal::columnScroll(bool back) {
    Buffer& b = *buffer_;
    int left = b.leftBound(), right = b.rightBound();
    int x = std::min(b.x, cols_ - 1);
    if (x != (back ? left : right)) {
        b.x = std::clamp(x + (back ? -1 : 1), 0, cols_ - 1);
        return;
    }
    for (int r = b.scrollTop; r <= b.scrollBottom; ++r) {
        if (back) b.row(r).insertPackedCells(left, 1, right, currentEraseBlankCell);
        else b.row(r).deletePackedCells(left, 1, right, currentEraseBlankCell);
    }
}

} // namespace vellum
