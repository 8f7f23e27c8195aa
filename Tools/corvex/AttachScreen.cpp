#include "Tools/corvex/AttachScreen.h"

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

ScreenFrame composeFrame(const vellum::TerminalContentSnapshot& pane, bool paneCursorVisible, int cols, int rows,
                         std::string_view status) {
    ScreenFrame frame(cols, rows);
    int area = std::max(rows - 1, 0);
    vellum::Attribute fillAttribute;
    fillAttribute.style = vellum::CharacterStyle::dim;
    for (int row = 0; row < area; ++row) {
        const auto* source = row < static_cast<int>(pane.rows.size()) ? &pane.rows[static_cast<size_t>(row)].cells : nullptr;
        int paneCols = source ? static_cast<int>(source->size()) : 0;
        for (int col = 0; col < cols; ++col) {
            ScreenCell& cell = frame.at(col, row);
            if (col < paneCols) {
                const auto& from = (*source)[static_cast<size_t>(col)];
                // A wide character cut by the right edge can't be drawn by half.
                bool cut = from.width == 2 && col + 1 >= cols;
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
    if (rows > 0) {
        vellum::Attribute statusAttribute;
        statusAttribute.style = vellum::CharacterStyle::inverse;
        auto glyphs = characters(status);
        for (int col = 0; col < cols; ++col) {
            ScreenCell& cell = frame.at(col, rows - 1);
            cell.text = col < static_cast<int>(glyphs.size()) ? glyphs[static_cast<size_t>(col)] : " ";
            cell.attribute = statusAttribute;
        }
    }
    frame.cursorCol = pane.cursorColumn;
    frame.cursorRow = pane.cursorRow - pane.liveTopRow;
    int paneCols = pane.rows.empty() ? 0 : static_cast<int>(pane.rows.front().cells.size());
    frame.cursorVisible = paneCursorVisible && frame.cursorRow >= 0 && frame.cursorRow < area && frame.cursorCol < cols &&
                          frame.cursorCol <= paneCols;
    if (frame.cursorCol >= cols) frame.cursorCol = cols - 1;
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
