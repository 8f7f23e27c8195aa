#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Vellum/Terminal.h"

namespace vellum::testing {

// A delegate that records what the terminal sends back, and a terminal wired to it.
class RecordingDelegate : public TerminalDelegate {
public:
    void sizeChanged(Terminal&) override { ++sizeChanges; }
    void send(Terminal&, std::span<const uint8_t> data) override { replies.append(data.begin(), data.end()); }
    void setTerminalTitle(Terminal&, const std::string& title) override { titles.push_back(title); }
    void bufferActivated(Terminal&) override { ++bufferSwitches; }
    void cursorStyleChanged(Terminal&, CursorStyle style) override { styles.push_back(style); }

    std::string replies;
    std::vector<std::string> titles;
    std::vector<CursorStyle> styles;
    int sizeChanges = 0;
    int bufferSwitches = 0;
};

template <typename Delegate = RecordingDelegate>
struct BasicTerminalHarness {
    explicit BasicTerminalHarness(int cols = 10, int rows = 4, int scrollback = 100)
        : BasicTerminalHarness(makeOptions(cols, rows, scrollback)) {}
    explicit BasicTerminalHarness(TerminalOptions options) : terminal(&delegate, std::move(options)) {}

    static TerminalOptions makeOptions(int cols, int rows, int scrollback) {
        TerminalOptions options;
        options.cols = cols;
        options.rows = rows;
        options.scrollback = scrollback;
        return options;
    }

    // Feeds and hands back (and forgets) what the terminal replied.
    std::string reply(std::string_view bytes) {
        delegate.replies.clear();
        terminal.feed(bytes);
        return std::exchange(delegate.replies, {});
    }

    std::vector<std::string> screen() {
        std::vector<std::string> rows;
        for (int r = 0; r < terminal.rows(); ++r) rows.push_back(terminal.lineText(r));
        return rows;
    }

    // Every cell of the screen, row by row, for comparing two terminals exactly.
    std::vector<std::vector<PackedCell>> cells() {
        std::vector<std::vector<PackedCell>> rows(size_t(terminal.rows()));
        for (int r = 0; r < terminal.rows(); ++r)
            for (int c = 0; c < terminal.cols(); ++c) rows[size_t(r)].push_back(terminal.buffer().row(r).packedCell(c));
        return rows;
    }

    int x() { return terminal.buffer().x; }
    int y() { return terminal.buffer().y; }

    Delegate delegate;
    Terminal terminal;
};

using TerminalHarness = BasicTerminalHarness<>;

} // namespace vellum::testing
