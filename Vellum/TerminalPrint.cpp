// The print path: runs of printable bytes from the parser become cells.
#include <algorithm>

#include "Platform/Unicode.h"
#include "Vellum/Terminal.h"

namespace vellum {

namespace unicode = platform::unicode;

void Terminal::handlePrintBorrowed(std::span<const uint8_t> run) {
    if (run.empty()) return;
    size_t ascii = 0;
    if (!charset && readingBuffer.empty())
        while (ascii < run.size() && run[ascii] < 0x7f) ++ascii;
    if (ascii > 0) {
        buffer_->insertAsciiRun(run.data(), ascii, curStyleID, currentEraseBlankCell);
        previousScalar = run[ascii - 1];
    }
    if (ascii < run.size()) handlePrintSlow(run.data() + ascii, run.size() - ascii);
}

void Terminal::handlePrintSlow(const uint8_t* bytes, size_t count) {
    std::vector<uint8_t> pending;
    if (!readingBuffer.empty()) {
        pending = std::move(readingBuffer);
        readingBuffer.clear();
        pending.insert(pending.end(), bytes, bytes + count);
        bytes = pending.data();
        count = pending.size();
    }
    size_t i = 0;
    while (i < count) {
        uint8_t lead = bytes[i];
        if (lead < 0x80) {
            std::optional<std::string_view> mapped = charset ? charset->map(lead) : std::nullopt;
            if (mapped) {
                std::u32string scalars = unicode::decodeUtf8(*mapped);
                if (!scalars.empty()) printScalar(scalars.front());
            } else if (lead != 0x7f) {
                printScalar(lead);
            }
            ++i;
            continue;
        }
        size_t need = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 1;
        if (need > 1 && i + need > count) {
            // Keep a character cut by the end of the chunk, unless it is already ill-formed.
            bool prefixValid = true;
            for (size_t k = i + 1; k < count; ++k) prefixValid = prefixValid && (bytes[k] & 0xc0) == 0x80;
            if (prefixValid && lead < 0xf5) {
                readingBuffer.assign(bytes + i, bytes + count);
                return;
            }
        }
        std::u32string scalars = unicode::decodeUtf8(std::string_view(reinterpret_cast<const char*>(bytes + i), std::min(need, count - i)));
        size_t consumed = std::min(need, count - i);
        bool wellFormed = scalars.size() == 1 && scalars.front() != 0xFFFD;
        if (!wellFormed) {
            // Consume only the lead of a broken sequence so the following bytes are read afresh.
            consumed = 1;
            while (consumed < std::min(need, count - i) && (bytes[i + consumed] & 0xc0) == 0x80) ++consumed;
            if (need == 1) consumed = 1;
            printScalar(0xFFFD);
        } else {
            printScalar(scalars.front());
        }
        i += consumed;
    }
}

void Terminal::printScalar(char32_t scalar) {
    int width = unicode::width(scalar);
    bool joins = width == 0 || unicode::isVariationSelector(scalar) || scalar == 0x200D ||
                 (unicode::isEmojiModifier(scalar) && previousScalar && unicode::isEmojiModifierBase(previousScalar)) ||
                 (unicode::isRegionalIndicator(scalar) && unicode::isRegionalIndicator(previousScalar)) ||
                 (previousScalar == 0x200D && unicode::isExtendedPictographic(scalar));
    if (joins && previousScalar != 0) {
        combineWithPrevious(scalar);
        if (unicode::isRegionalIndicator(scalar)) previousScalar = 0; // a flag takes two indicators only
        else previousScalar = scalar;
        return;
    }
    if (width <= 0) return;
    if (width == 2 && unicode::isRegionalIndicator(scalar) && options_.regionalIndicatorWidth == RegionalIndicatorWidth::narrow)
        width = 1;
    auto cell = cellArena->pack(curStyleID, std::u32string_view(&scalar, 1), 0);
    if (!cell) return;
    buffer_->insertCharacter(*cell, width, currentEraseBlankCell);
    previousScalar = scalar;
}

void Terminal::combineWithPrevious(char32_t scalar) {
    Buffer& b = *buffer_;
    int col = b.x - 1, rowIndex = b.y;
    if (col < 0) {
        if (rowIndex == 0 || !b.row(rowIndex).isWrapped()) return;
        --rowIndex;
        col = b.cols() - 1;
        if (b.row(rowIndex).packedCell(col).widthState() == CellWidthState::spacerHead) --col;
    }
    col = std::min(col, b.cols() - 1);
    BufferLine& line = b.row(rowIndex);
    if (line.packedCell(col).isSpacerTail() && col > 0) --col;
    PackedCell target = line.packedCell(col);
    std::u32string scalars;
    line.view(col).getScalarValues(scalars);
    if (scalars.empty()) return;
    scalars.push_back(scalar);
    uint8_t state = target.widthStateCode();
    bool widen = scalar == 0xFE0F && state == 0 && unicode::isEmojiPresentation(scalars.front()) == false &&
                 unicode::isEmoji(scalars.front()) && scalars.front() > 0x7f;
    if (widen && rowIndex == b.y && col + 1 <= b.rightBound() && col + 1 == b.x) {
        auto replaced = cellArena->replacingContent(target, scalars, 1);
        if (!replaced) return;
        line.repairWideSeam(col + 2);
        line.fill(*replaced, col, 1);
        line.fill(replaced->blanked().withWidthState(CellWidthState::spacerTail), col + 1, 1);
        b.x = col + 2;
        return;
    }
    if (scalar == 0xFE0E && state == 1) {
        auto replaced = cellArena->replacingContent(target, scalars, 0);
        if (!replaced) return;
        line.fill(*replaced, col, 1);
        if (col + 1 < b.cols()) line.fill(currentEraseBlankCell, col + 1, 1);
        if (rowIndex == b.y && b.x == col + 2) b.x = col + 1;
        return;
    }
    if (auto replaced = cellArena->replacingContent(target, scalars, state)) line.fill(*replaced, col, 1);
}

} // namespace vellum
