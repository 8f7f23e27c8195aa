#include "corvexd/PlainScreen.h"

#include <algorithm>

namespace corvexd {

namespace {

enum class Mode { text, escape, csi, string, stringEscape };

// Lines as lists of cells, each cell one UTF-8 sequence, so overwriting after a carriage
// return replaces whole characters.
struct Lines {
    std::vector<std::vector<std::string>> rows{{}};
    size_t col = 0;
    int cols;

    explicit Lines(int width) : cols(std::max(1, width)) {}

    void newline() {
        rows.emplace_back();
        col = 0;
    }
    void put(std::string cell) {
        if (col >= static_cast<size_t>(cols)) newline();
        auto& row = rows.back();
        if (col < row.size()) {
            row[col] = std::move(cell);
        } else {
            row.resize(col);
            for (auto& blank : row) {
                if (blank.empty()) blank = " ";
            }
            row.push_back(std::move(cell));
        }
        ++col;
    }
};

} // namespace

PlainScreen plainScreen(std::string_view output, int cols, int rows) {
    Lines lines(cols);
    Mode mode = Mode::text;
    std::string pending; // a UTF-8 sequence being gathered
    for (size_t i = 0; i < output.size(); ++i) {
        auto byte = static_cast<unsigned char>(output[i]);
        switch (mode) {
        case Mode::escape:
            if (byte == '[') mode = Mode::csi;
            else if (byte == ']' || byte == 'P' || byte == '_' || byte == '^') mode = Mode::string;
            else if (byte >= 0x20 && byte <= 0x2f) continue; // intermediates, e.g. ESC ( B
            else mode = Mode::text;
            continue;
        case Mode::csi:
            if (byte >= 0x40 && byte <= 0x7e) mode = Mode::text;
            continue;
        case Mode::string:
            if (byte == 0x07) mode = Mode::text;
            else if (byte == 0x1b) mode = Mode::stringEscape;
            continue;
        case Mode::stringEscape:
            mode = byte == '\\' ? Mode::text : Mode::string;
            continue;
        case Mode::text:
            break;
        }
        if (byte == 0x1b) {
            pending.clear();
            mode = Mode::escape;
        } else if (byte == '\n') {
            lines.newline();
        } else if (byte == '\r') {
            lines.col = 0;
        } else if (byte == '\b') {
            if (lines.col > 0) --lines.col;
        } else if (byte == '\t') {
            do lines.put(" ");
            while (lines.col % 8 != 0 && lines.col < static_cast<size_t>(lines.cols));
        } else if (byte < 0x20 || byte == 0x7f) {
            // other controls leave no text
        } else if (byte < 0x80) {
            lines.put(std::string(1, static_cast<char>(byte)));
        } else {
            if ((byte & 0xc0) != 0x80) pending.clear();
            pending += static_cast<char>(byte);
            auto lead = static_cast<unsigned char>(pending[0]);
            size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 1;
            if (pending.size() >= length) {
                lines.put(pending);
                pending.clear();
            }
        }
    }
    PlainScreen screen;
    size_t count = static_cast<size_t>(std::max(1, rows));
    size_t first = lines.rows.size() > count ? lines.rows.size() - count : 0;
    for (size_t i = first; i < lines.rows.size(); ++i) {
        std::string text;
        for (const auto& cell : lines.rows[i]) text += cell;
        while (!text.empty() && text.back() == ' ') text.pop_back();
        screen.lines.push_back(std::move(text));
    }
    screen.cursorRow = static_cast<int>(lines.rows.size() - 1 - first);
    screen.cursorCol = static_cast<int>(lines.col);
    while (screen.lines.size() < count) screen.lines.emplace_back();
    return screen;
}

} // namespace corvexd
