#include "Corvex/TerminalSelection.h"

#include <algorithm>
#include <string_view>

#include "Vellum/Buffer.h"

namespace corvex {

namespace {

enum class CharClass { blank, delimiter, word };

CharClass classify(std::string_view text) {
    if (text.empty() || text == " " || text == "\t") return CharClass::blank;
    if (text.size() == 1 && std::string_view("()[]{}<>'\"`|;,").find(text[0]) != std::string_view::npos)
        return CharClass::delimiter;
    return CharClass::word;
}

std::string cellText(vellum::BufferLine& line, int col) {
    vellum::PackedCell cell = line.packedCell(col);
    if (cell.isSpacerTail()) return {};
    if (cell.tag() == vellum::PackedCell::scalarTag && cell.value() == 0) return {};
    if (cell.tag() > vellum::PackedCell::graphemeTag) return {};
    return line.view(col).text();
}

int clampRow(vellum::Buffer& buffer, int row) { return std::clamp(row, 0, std::max(buffer.lines.count() - 1, 0)); }

} // namespace

TerminalSelection::Range TerminalSelection::unitRange(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary) const {
    int cols = buffer.cols();
    switch (unit_) {
    case SelectionUnit::character: return {boundary, boundary};
    case SelectionUnit::word: {
        int row = clampRow(buffer, cell.row);
        vellum::BufferLine& line = buffer.lines[row];
        int col = std::clamp(cell.col, 0, cols - 1);
        if (col > 0 && line.packedCell(col).isSpacerTail()) --col;
        CharClass kind = classify(cellText(line, col));
        // A delimiter is a word of its own; blanks and word characters run.
        if (kind == CharClass::delimiter) return {{row, col}, {row, col + std::max(line.packedCell(col).width(), 1)}};
        auto same = [&](int c) { return line.packedCell(c).isSpacerTail() || classify(cellText(line, c)) == kind; };
        int start = col, end = col + 1;
        while (start > 0 && same(start - 1)) --start;
        while (end < cols && same(end)) ++end;
        return {{row, start}, {row, end}};
    }
    case SelectionUnit::line: {
        int first = clampRow(buffer, cell.row), last = first;
        while (first > 0 && buffer.lines[first].isWrapped()) --first;
        while (last + 1 < buffer.lines.count() && buffer.lines[last + 1].isWrapped()) ++last;
        return {{first, 0}, {last, cols}};
    }
    }
    return {boundary, boundary};
}

void TerminalSelection::begin(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary, SelectionUnit unit) {
    unit_ = unit;
    anchor_ = unitRange(buffer, cell, boundary);
    range_ = anchor_;
}

void TerminalSelection::extend(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary) {
    if (!range_) return;
    Range head = unitRange(buffer, cell, boundary);
    range_ = Range{std::min(anchor_.start, head.start), std::max(anchor_.end, head.end)};
}

std::optional<TerminalSelection::Range> TerminalSelection::range() const {
    if (!range_ || range_->start >= range_->end) return std::nullopt;
    return range_;
}

bool TerminalSelection::contains(int row, int col) const {
    auto r = range();
    if (!r) return false;
    SelectionPoint point{row, col};
    return r->start <= point && point < r->end;
}

std::string TerminalSelection::text(vellum::Buffer& buffer) const {
    auto r = range();
    if (!r) return {};
    std::string out;
    // A selection that ends at the start of a row takes the line feed before it.
    int lastRow = std::min(r->end.row, buffer.lines.count() - 1);
    for (int row = std::max(r->start.row, 0); row <= lastRow; ++row) {
        vellum::BufferLine& line = buffer.lines[row];
        int from = row == r->start.row ? r->start.col : 0;
        int to = row == r->end.row ? std::min(r->end.col, line.count()) : line.count();
        std::string rowText;
        size_t kept = 0; // length without trailing blanks
        for (int col = std::max(from, 0); col < to; ++col) {
            vellum::PackedCell cell = line.packedCell(col);
            if (cell.isSpacerTail()) continue;
            std::string text = cellText(line, col);
            rowText += text.empty() ? " " : text;
            if (!text.empty() && text != " ") kept = rowText.size();
        }
        bool continues = row < lastRow && buffer.lines[row + 1].isWrapped();
        rowText.resize(continues ? rowText.size() : kept);
        out += rowText;
        if (row < lastRow && !continues) out += '\n';
    }
    return out;
}

} // namespace corvex
