#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/Layout.h"
#include "CorvexKit/SessionBackend.h"
#include "Vellum/Attribute.h"
#include "Vellum/TerminalContentSnapshot.h"

namespace corvex::cli {

// One cell of the user's screen as attach draws it.
struct ScreenCell {
    std::string text = " ";
    int width = 1; // 0 for the second half of a wide character
    vellum::Attribute attribute;

    bool operator==(const ScreenCell&) const = default;
};

// What the user's terminal should show: cells row by row and where the cursor is.
struct ScreenFrame {
    int cols = 0, rows = 0;
    std::vector<ScreenCell> cells;
    int cursorCol = 0, cursorRow = 0;
    bool cursorVisible = true;

    ScreenFrame(int cols, int rows) : cols(cols), rows(rows), cells(static_cast<size_t>(cols * rows)) {}
    ScreenCell& at(int col, int row) { return cells[static_cast<size_t>(row * cols + col)]; }
    const ScreenCell& at(int col, int row) const { return cells[static_cast<size_t>(row * cols + col)]; }
};

// The user's screen: the pane at its true size in the top left, the rest of a larger
// terminal filled, and the status line on the last row.
ScreenFrame composeFrame(const vellum::TerminalContentSnapshot& pane, bool paneCursorVisible, int cols, int rows,
                         std::string_view status);

// A rectangle of the user's screen in cells.
struct CellRect {
    int col = 0, row = 0, cols = 0, rows = 0;

    bool operator==(const CellRect&) const = default;
};

// Where a tab's panes and the one-cell lines between them lie on a screen area.
struct TileLayout {
    std::map<uint64_t, CellRect> panes;
    std::vector<std::pair<Axis, CellRect>> dividers;
};
TileLayout tileLayout(const Layout& layout, int cols, int rows);

// One pane of a tab as the user's screen shows it.
struct PaneTile {
    const vellum::TerminalContentSnapshot* content = nullptr;
    bool cursorVisible = true;
    CellRect rect;
};

// The user's screen with every pane of a tab in its place, the lines between them, the
// status line on the last row, and the cursor of the focused tile only.
ScreenFrame composeTiles(const std::vector<PaneTile>& tiles, const TileLayout& layout, size_t focused, int cols,
                         int rows, std::string_view status);

// The scrollback view: a still copy of the pane's history taken on entry, so output that
// goes on arriving never moves it, with the keys that page through it and search it.
class ScrollbackView {
public:
    // `history` holds the buffer's rows oldest first; `height` is how many the user sees.
    ScrollbackView(std::vector<vellum::TerminalContentRowSnapshot> history, int height);

    // Takes what the user typed; false once q or Esc leaves the view.
    bool feed(std::string_view typed);
    void setHeight(int height);

    int top() const { return top_; }
    int rowCount() const { return static_cast<int>(rows_.size()); }
    std::string status() const;
    ScreenFrame frame(int cols, int rows) const;

    struct Match {
        int row = 0, col = 0, length = 0; // cells; `row` indexes the history
        bool operator==(const Match&) const = default;
    };
    const std::optional<Match>& match() const { return match_; }

private:
    void key(std::string_view key);
    void typePrompt(std::string_view key);
    void scrollTo(int top);
    void reveal(int row);
    // Seeks the next match older (or newer) than the current one, or than the rows shown.
    void find(bool older);

    std::vector<vellum::TerminalContentRowSnapshot> rows_;
    int height_ = 1;
    int top_ = 0;
    std::string searched_;
    std::optional<std::string> prompt_; // the search text being typed
    std::optional<Match> match_;
    std::string note_;
    bool leaving_ = false;
};

// Turns frames into the bytes that take the user's terminal from what it shows to the next
// frame, rewriting only rows that changed (and of those only the changed stretch).
class ScreenPainter {
public:
    std::string paint(const ScreenFrame& frame);
    // The next paint redraws everything, as after the user's terminal was resized.
    void invalidate() { shown_.reset(); }

private:
    std::optional<ScreenFrame> shown_;
};

// The user's terminal's own colours, from its answers to OSC 10, 11 and 4 queries. Absent
// until both the foreground and the background are known.
std::optional<TerminalColors> parseColorReplies(std::string_view replies);
// The queries, ended by a primary device attributes request that every terminal answers,
// so its answer tells that no colour answer is still to come.
std::string colorQueries();

} // namespace corvex::cli
