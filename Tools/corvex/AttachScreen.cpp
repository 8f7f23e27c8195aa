#include "Tools/corvex/AttachScreen.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <limits>
#include <map>

namespace corvex::cli {

namespace {

constexpr int ansiQueried = 16;

// Code points of UTF-8 text, for a status line that must not run past the screen.
std::vector<std::string> characters(std::string_view text) {
    std::vector<std::string> out;
    for (size_t i = 0; i < text.size();) {
        unsigned char lead = static_cast<unsigned char>(text[i]);
        size_t length = lead < 0x80 ? 1 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 1;
        out.emplace_back(text.substr(i, length));
        i += length;
    }
    return out;
}

void appendPosition(std::string& out, int col, int row) {
    out += "\x1b[" + std::to_string(row + 1) + ";" + std::to_string(col + 1) + "H";
}

// "rgb:R/G/B" with one to four hexadecimal digits a component, scaled to eight bits.
std::optional<RGB> parseRGB(std::string_view spec) {
    if (spec.substr(0, 4) != "rgb:") return std::nullopt;
    spec.remove_prefix(4);
    RGB value = 0;
    for (int component = 0; component < 3; ++component) {
        size_t end = spec.find('/');
        std::string_view digits = spec.substr(0, end);
        if (digits.empty() || digits.size() > 4) return std::nullopt;
        unsigned number = 0;
        for (char c : digits) {
            int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (digit < 0) return std::nullopt;
            number = number * 16 + static_cast<unsigned>(digit);
        }
        unsigned maximum = (1u << (4 * digits.size())) - 1;
        value = (value << 8) | (number * 255 + maximum / 2) / maximum;
        if (component < 2) {
            if (end == std::string_view::npos) return std::nullopt;
            spec.remove_prefix(end + 1);
        } else if (end != std::string_view::npos) {
            return std::nullopt;
        }
    }
    return value;
}

} // namespace

namespace {

// Copies a pane's rows into a rectangle of the frame: cut where the pane is larger, filled
// where it is smaller.
void drawPane(ScreenFrame& frame, const vellum::TerminalContentSnapshot& pane, CellRect into) {
    vellum::Attribute fillAttribute;
    fillAttribute.style = vellum::CharacterStyle::dim;
    for (int row = 0; row < into.rows; ++row) {
        const auto* source = row < static_cast<int>(pane.rows.size()) ? &pane.rows[static_cast<size_t>(row)].cells : nullptr;
        int paneCols = source ? static_cast<int>(source->size()) : 0;
        for (int col = 0; col < into.cols; ++col) {
            ScreenCell& cell = frame.at(into.col + col, into.row + row);
            if (col < paneCols) {
                const auto& from = (*source)[static_cast<size_t>(col)];
                // A wide character cut by the right edge can't be drawn by half.
                bool cut = from.width == 2 && col + 1 >= into.cols;
                cell.text = from.text.empty() || cut ? " " : from.text;
                cell.width = cut ? 1 : from.width;
                cell.attribute = from.attribute;
            } else {
                // Beyond the pane's true size, a smaller client holds it there.
                cell.text = "\u00b7";
                cell.attribute = fillAttribute;
            }
        }
    }
}

void drawStatus(ScreenFrame& frame, std::string_view status) {
    if (frame.rows <= 0) return;
    vellum::Attribute statusAttribute;
    statusAttribute.style = vellum::CharacterStyle::inverse;
    auto glyphs = characters(status);
    for (int col = 0; col < frame.cols; ++col) {
        ScreenCell& cell = frame.at(col, frame.rows - 1);
        cell.text = col < static_cast<int>(glyphs.size()) ? glyphs[static_cast<size_t>(col)] : " ";
        cell.attribute = statusAttribute;
    }
}

} // namespace

ScreenFrame composeFrame(const vellum::TerminalContentSnapshot& pane, bool paneCursorVisible, int cols, int rows,
                         std::string_view status) {
    ScreenFrame frame(cols, rows);
    int area = std::max(rows - 1, 0);
    drawPane(frame, pane, CellRect{0, 0, cols, area});
    drawStatus(frame, status);
    frame.cursorCol = pane.cursorColumn;
    frame.cursorRow = pane.cursorRow - pane.liveTopRow;
    int paneCols = pane.rows.empty() ? 0 : static_cast<int>(pane.rows.front().cells.size());
    frame.cursorVisible = paneCursorVisible && frame.cursorRow >= 0 && frame.cursorRow < area && frame.cursorCol < cols &&
                          frame.cursorCol <= paneCols;
    if (frame.cursorCol >= cols) frame.cursorCol = cols - 1;
    return frame;
}

TileLayout tileLayout(const Layout& layout, int cols, int rows) {
    auto cells = [](const Rect& rect) {
        return CellRect{static_cast<int>(std::lround(rect.x)), static_cast<int>(std::lround(rect.y)),
                        static_cast<int>(std::lround(rect.width)), static_cast<int>(std::lround(rect.height))};
    };
    auto frames = layout.frames(Rect{0, 0, static_cast<double>(std::max(cols, 0)), static_cast<double>(std::max(rows, 0))}, 1);
    TileLayout out;
    for (const auto& [pane, rect] : frames.panes) out.panes[pane] = cells(rect);
    for (const auto& divider : frames.dividers) {
        // A split squeezed to nothing leaves no line to draw.
        if (divider.rect.width >= 1 && divider.rect.height >= 1) out.dividers.emplace_back(divider.axis, cells(divider.rect));
    }
    return out;
}

ScreenFrame composeTiles(const std::vector<PaneTile>& tiles, const TileLayout& layout, size_t focused, int cols,
                         int rows, std::string_view status) {
    ScreenFrame frame(cols, rows);
    int area = std::max(rows - 1, 0);
    auto clipped = [&](CellRect rect) {
        rect.col = std::clamp(rect.col, 0, cols);
        rect.row = std::clamp(rect.row, 0, area);
        rect.cols = std::clamp(rect.cols, 0, cols - rect.col);
        rect.rows = std::clamp(rect.rows, 0, area - rect.row);
        return rect;
    };
    for (const auto& tile : tiles) {
        if (tile.content) drawPane(frame, *tile.content, clipped(tile.rect));
    }
    for (const auto& [axis, rect] : layout.dividers) {
        CellRect line = clipped(rect);
        for (int row = line.row; row < line.row + line.rows; ++row) {
            for (int col = line.col; col < line.col + line.cols; ++col) {
                frame.at(col, row) = ScreenCell{axis == Axis::horizontal ? "\u2502" : "\u2500", 1, {}};
            }
        }
    }
    drawStatus(frame, status);
    frame.cursorVisible = false;
    if (focused < tiles.size() && tiles[focused].content) {
        const auto& tile = tiles[focused];
        CellRect rect = clipped(tile.rect);
        int col = tile.content->cursorColumn;
        int row = tile.content->cursorRow - tile.content->liveTopRow;
        // At the end of a full line the cursor waits on the last column.
        if (col == rect.cols) --col;
        frame.cursorVisible = tile.cursorVisible && row >= 0 && row < rect.rows && col >= 0 && col < rect.cols;
        frame.cursorCol = rect.col + std::max(col, 0);
        frame.cursorRow = rect.row + std::max(row, 0);
        if (!frame.cursorVisible) frame.cursorCol = frame.cursorRow = 0;
    }
    return frame;
}

namespace {

// Splits typed bytes into keys: an escape sequence whole, an Esc that ends the read alone,
// otherwise one character.
std::vector<std::string_view> splitKeys(std::string_view typed) {
    std::vector<std::string_view> keys;
    size_t at = 0;
    while (at < typed.size()) {
        size_t length = 1;
        unsigned char lead = static_cast<unsigned char>(typed[at]);
        if (lead == 0x1b && at + 1 < typed.size() && (typed[at + 1] == '[' || typed[at + 1] == 'O')) {
            length = 2;
            bool csi = typed[at + 1] == '[';
            while (at + length < typed.size()) {
                unsigned char c = static_cast<unsigned char>(typed[at + length++]);
                if (!csi || (c >= 0x40 && c <= 0x7e)) break;
            }
        } else if (lead >= 0xc0) {
            length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
        }
        length = std::min(length, typed.size() - at);
        keys.push_back(typed.substr(at, length));
        at += length;
    }
    return keys;
}

// A history row as text, with where each cell's text starts in it.
struct RowText {
    std::string text;
    std::vector<std::pair<size_t, int>> cellStarts; // byte offset, column

    explicit RowText(const vellum::TerminalContentRowSnapshot& row) {
        for (size_t col = 0; col < row.cells.size(); ++col) {
            const auto& cell = row.cells[col];
            if (cell.width == 0) continue;
            cellStarts.emplace_back(text.size(), static_cast<int>(col));
            text += cell.text.empty() ? " " : cell.text;
        }
    }
    int columnAt(size_t offset, int end) const {
        for (const auto& [start, col] : cellStarts) {
            if (start >= offset) return col;
        }
        return end;
    }
};

} // namespace

ScrollbackView::ScrollbackView(std::vector<vellum::TerminalContentRowSnapshot> history, int height)
    : rows_(std::move(history)) {
    setHeight(height);
    scrollTo(rowCount());
}

void ScrollbackView::setHeight(int height) {
    height_ = std::max(height, 1);
    scrollTo(top_);
}

void ScrollbackView::scrollTo(int top) { top_ = std::clamp(top, 0, std::max(rowCount() - height_, 0)); }

void ScrollbackView::reveal(int row) {
    if (row < top_ || row >= top_ + height_) scrollTo(row - height_ / 2);
}

bool ScrollbackView::feed(std::string_view typed) {
    for (auto key : splitKeys(typed)) {
        if (leaving_) break;
        if (prompt_) typePrompt(key);
        else this->key(key);
    }
    return !leaving_;
}

void ScrollbackView::key(std::string_view key) {
    note_.clear();
    if (key == "q" || key == "\x1b") leaving_ = true;
    else if (key == "k" || key == "\x1b[A" || key == "\x1bOA") scrollTo(top_ - 1);
    else if (key == "j" || key == "\x1b[B" || key == "\x1bOB") scrollTo(top_ + 1);
    else if (key == "\x1b[5~") scrollTo(top_ - height_);
    else if (key == "\x1b[6~" || key == " ") scrollTo(top_ + height_);
    else if (key == "g" || key == "\x1b[H" || key == "\x1bOH" || key == "\x1b[1~") scrollTo(0);
    else if (key == "G" || key == "\x1b[F" || key == "\x1bOF" || key == "\x1b[4~") scrollTo(rowCount());
    else if (key == "/") prompt_.emplace();
    else if ((key == "n" || key == "N") && !searched_.empty()) find(key == "n");
}

void ScrollbackView::typePrompt(std::string_view key) {
    if (key == "\r" || key == "\n") {
        std::string text = *std::exchange(prompt_, std::nullopt);
        if (text.empty()) return;
        searched_ = text;
        // A new search starts from the rows on screen, not from an older match; one that
        // finds nothing leaves the old match where it was.
        auto previous = std::exchange(match_, std::nullopt);
        find(true);
        if (!match_) match_ = previous;
    } else if (key == "\x1b" || key == "\x03") {
        prompt_.reset();
    } else if (key == "\x7f" || key == "\b") {
        if (!prompt_->empty()) prompt_->resize(prompt_->size() - characters(*prompt_).back().size());
    } else if (static_cast<unsigned char>(key.front()) >= 0x20 && key.front() != 0x7f) {
        *prompt_ += key;
    }
}

void ScrollbackView::find(bool older) {
    // Where to look from: the current match, or past the edge of the rows shown.
    int fromRow = match_ ? match_->row : older ? std::min(top_ + height_, rowCount()) - 1 : top_;
    int fromCol = match_ ? match_->col : older ? std::numeric_limits<int>::max() : -1;
    for (int row = fromRow; row >= 0 && row < rowCount(); row += older ? -1 : 1) {
        RowText line(rows_[static_cast<size_t>(row)]);
        int end = static_cast<int>(rows_[static_cast<size_t>(row)].cells.size());
        std::optional<Match> best;
        for (size_t at = line.text.find(searched_); at != std::string::npos; at = line.text.find(searched_, at + 1)) {
            int col = line.columnAt(at, end);
            bool beyond = row != fromRow || (older ? col < fromCol : col > fromCol);
            if (!beyond) continue;
            Match found{row, col, line.columnAt(at + searched_.size(), end) - col};
            if (older) best = found;
            else if (!best) best = found;
        }
        if (best) {
            match_ = best;
            reveal(best->row);
            return;
        }
    }
    note_ = "no match for \"" + searched_ + "\"";
}

std::string ScrollbackView::status() const {
    std::string line = " [scrollback " + std::to_string(std::min(top_ + height_, rowCount())) + "/" +
                       std::to_string(rowCount()) + "]";
    if (prompt_) return line + " search: " + *prompt_;
    if (!note_.empty()) line += " " + note_;
    return line + " | / searches, n N match, q leaves";
}

ScreenFrame ScrollbackView::frame(int cols, int rows) const {
    vellum::TerminalContentSnapshot shown;
    int last = std::min(top_ + height_, rowCount());
    for (int row = top_; row < last; ++row) {
        auto copy = rows_[static_cast<size_t>(row)];
        if (match_ && match_->row == row) {
            for (int col = match_->col; col < match_->col + match_->length && col < static_cast<int>(copy.cells.size()); ++col) {
                auto& style = copy.cells[static_cast<size_t>(col)].attribute.style;
                if (style.contains(vellum::CharacterStyle::inverse)) style.remove(vellum::CharacterStyle::inverse);
                else style.insert(vellum::CharacterStyle::inverse);
            }
        }
        shown.rows.push_back(std::move(copy));
    }
    std::string line = status();
    ScreenFrame frame = composeFrame(shown, false, cols, rows, line);
    // While a search is typed the cursor sits after it on the status line.
    if (prompt_ && rows > 0) {
        frame.cursorVisible = true;
        frame.cursorRow = rows - 1;
        frame.cursorCol = std::min(static_cast<int>(characters(line).size()), cols - 1);
    }
    return frame;
}

std::string ScreenPainter::paint(const ScreenFrame& frame) {
    std::string out;
    bool cursorWasVisible = shown_ ? shown_->cursorVisible : !frame.cursorVisible;
    if (!shown_ || shown_->cols != frame.cols || shown_->rows != frame.rows) {
        out += "\x1b[m\x1b[H\x1b[2J";
        shown_.emplace(frame.cols, frame.rows);
    }
    ScreenFrame& shown = *shown_;
    std::optional<vellum::Attribute> pen;
    for (int row = 0; row < frame.rows; ++row) {
        int first = -1, last = -1;
        for (int col = 0; col < frame.cols; ++col) {
            if (frame.at(col, row) == shown.at(col, row)) continue;
            if (first < 0) first = col;
            last = col;
        }
        if (first < 0) continue;
        while (first > 0 && frame.at(first, row).width == 0) --first;
        appendPosition(out, first, row);
        for (int col = first; col <= last || (col < frame.cols && frame.at(col, row).width == 0); ++col) {
            const ScreenCell& cell = frame.at(col, row);
            shown.at(col, row) = cell;
            if (cell.width == 0) continue;
            if (!pen || !(*pen == cell.attribute)) {
                out += "\x1b[" + cell.attribute.toSgr();
                pen = cell.attribute;
            }
            out += cell.text;
        }
    }
    if (pen) out += "\x1b[m";
    appendPosition(out, frame.cursorCol, frame.cursorRow);
    if (frame.cursorVisible != cursorWasVisible) out += frame.cursorVisible ? "\x1b[?25h" : "\x1b[?25l";
    shown.cursorCol = frame.cursorCol;
    shown.cursorRow = frame.cursorRow;
    shown.cursorVisible = frame.cursorVisible;
    return out;
}

std::string colorQueries() {
    std::string out = "\x1b]10;?\x1b\\\x1b]11;?\x1b\\";
    for (int index = 0; index < ansiQueried; ++index) out += "\x1b]4;" + std::to_string(index) + ";?\x1b\\";
    return out + "\x1b[c";
}

std::optional<TerminalColors> parseColorReplies(std::string_view replies) {
    std::optional<RGB> foreground, background;
    std::map<int, RGB> ansi;
    for (size_t at = replies.find("\x1b]"); at != std::string_view::npos; at = replies.find("\x1b]", at + 2)) {
        size_t end = replies.find_first_of("\x07\x1b", at + 2);
        if (end == std::string_view::npos) break;
        std::string_view body = replies.substr(at + 2, end - at - 2);
        size_t semicolon = body.find(';');
        if (semicolon == std::string_view::npos) continue;
        std::string_view number = body.substr(0, semicolon), rest = body.substr(semicolon + 1);
        if (number == "10") foreground = parseRGB(rest);
        else if (number == "11") background = parseRGB(rest);
        else if (number == "4") {
            size_t split = rest.find(';');
            if (split == std::string_view::npos) continue;
            int index = 0;
            for (char c : rest.substr(0, split)) index = c >= '0' && c <= '9' ? index * 10 + (c - '0') : -1000;
            if (index < 0 || index >= ansiQueried) continue;
            if (auto colour = parseRGB(rest.substr(split + 1))) ansi[index] = *colour;
        }
    }
    if (!foreground || !background) return std::nullopt;
    TerminalColors colors{*foreground, *background, std::nullopt, std::nullopt};
    if (ansi.size() == ansiQueried) {
        colors.ansi.emplace();
        for (const auto& [index, colour] : ansi) colors.ansi->push_back(colour);
    }
    return colors;
}

} // namespace corvex::cli
