#pragma once

#include <compare>
#include <optional>
#include <string>

namespace vellum {
class Buffer;
}

namespace corvex {

// A place between cells of a buffer: `row` counts buffer rows from the oldest kept, so that a
// selection stays on its text while output scrolls.
struct SelectionPoint {
    int row = 0;
    int col = 0;
    auto operator<=>(const SelectionPoint&) const = default;
};

enum class SelectionUnit { character, word, line };

// What the user selected with the mouse: a drag from an anchor to the pointer, grown to whole
// words (double click) or whole lines (triple click). The range is [start, end).
class TerminalSelection {
public:
    // `cell` is the cell under the pointer; `boundary` the cell edge nearest to it, which is
    // what a character drag selects up to.
    void begin(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary, SelectionUnit unit);
    void extend(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary);
    void clear() { range_.reset(); }

    struct Range {
        SelectionPoint start, end;
        bool operator==(const Range&) const = default;
    };
    // Nothing when nothing is selected (a click without a drag selects nothing).
    std::optional<Range> range() const;
    bool contains(int row, int col) const;
    // The selected text: rows joined by line feeds, except where a row wrapped into the next;
    // blanks at the end of a row are dropped.
    std::string text(vellum::Buffer& buffer) const;

private:
    Range unitRange(vellum::Buffer& buffer, SelectionPoint cell, SelectionPoint boundary) const;
    SelectionUnit unit_ = SelectionUnit::character;
    Range anchor_;
    std::optional<Range> range_;
};

} // namespace corvex
