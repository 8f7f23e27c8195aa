#include <gtest/gtest.h>

#include "Vellum/HeadlessTerminal.h"

using namespace vellum;

namespace {

TerminalOptions small() {
    TerminalOptions options;
    options.cols = 4;
    options.rows = 2;
    options.scrollback = 10;
    return options;
}

std::string text(const TerminalContentRowSnapshot& row) {
    std::string out;
    for (const auto& cell : row.cells) out += cell.text.empty() && cell.width == 1 ? " " : cell.text;
    return out;
}

} // namespace

TEST(TerminalContentSnapshot, HistoryAndScreenRowsWithAbsoluteNumbers) {
    HeadlessTerminal headless(small());
    headless.feed("one\r\ntwo\r\nthree\r\n\xe4\xb8\xad!");
    // "three" wrapped at four columns: "thre" and "e"; the screen holds "e" and the wide character.
    TerminalContentSnapshot screen = headless.terminalContentSnapshot(TerminalContentRegion::viewport());
    EXPECT_EQ(screen.liveTopRow, 3);
    EXPECT_EQ(screen.capturedStart, 3);
    EXPECT_EQ(screen.capturedEnd, 5);
    ASSERT_EQ(screen.rows.size(), 2u);
    EXPECT_TRUE(screen.rows[0].isWrapped);
    EXPECT_EQ(text(screen.rows[0]), "e   ");
    EXPECT_EQ(screen.rows[1].cells[0].text, "\xe4\xb8\xad");
    EXPECT_EQ(screen.rows[1].cells[0].width, 2);
    EXPECT_EQ(screen.rows[1].cells[1].width, 0); // the second half of the wide character
    EXPECT_EQ(screen.rows[1].cells[2].text, "!");
    EXPECT_EQ(screen.cursorRow, 4);
    EXPECT_EQ(screen.cursorColumn, 3);

    // History is bounded by the request and by what the buffer kept.
    TerminalContentSnapshot some = headless.terminalContentSnapshot(TerminalContentRegion::history(2));
    EXPECT_EQ(some.capturedStart, 1);
    EXPECT_EQ(text(some.rows[0]), "two ");
    TerminalContentSnapshot all = headless.terminalContentSnapshot(TerminalContentRegion::history(100));
    EXPECT_EQ(all.capturedStart, 0);
    EXPECT_EQ(all.rows.size(), 5u);
    EXPECT_EQ(all.rows[2].absoluteRow, 2);
    EXPECT_FALSE(all.rows[2].isWrapped);
}

TEST(TerminalContentSnapshot, InputStateFollowsTheModes) {
    HeadlessTerminal headless(small());
    EXPECT_EQ(headless.terminalInputStateSnapshot(), (TerminalInputStateSnapshot{.cols = 4, .rows = 2}));
    headless.feed("\x1b[?1h\x1b=\x1b[?2004h\x1b[?1002h\x1b[?1004h\x1b[>5u\x1b[?1049h");
    TerminalInputStateSnapshot state = headless.terminalInputStateSnapshot();
    EXPECT_TRUE(state.applicationCursor);
    EXPECT_TRUE(state.applicationKeypad);
    EXPECT_TRUE(state.bracketedPasteMode);
    EXPECT_EQ(state.mouseMode, 3);
    EXPECT_TRUE(state.focusReportingEnabled);
    EXPECT_TRUE(state.isAlternateBuffer);
    EXPECT_EQ(state.keyboardEnhancementFlags, 0u); // the flags were pushed on the normal screen
    headless.feed("\x1b[?1049l");
    EXPECT_EQ(headless.terminalInputStateSnapshot().keyboardEnhancementFlags, 5u);

    // The alternate buffer can be read while the normal one is shown.
    headless.feed("\x1b[?47hALT\x1b[?47l");
    TerminalContentSnapshot alternate = headless.terminalContentSnapshot(TerminalContentRegion::viewport(), true);
    EXPECT_EQ(text(alternate.rows[0]), "ALT ");
}

TEST(TerminalUpdateRange, FindsWrittenMovedAndScrolledRows) {
    TerminalOptions options = small();
    options.cols = 10;
    options.rows = 5;
    HeadlessTerminal headless(options);
    Terminal& t = *headless.terminal;
    using Range = Terminal::UpdateRange;
    EXPECT_EQ(t.takeUpdateRange(), (Range{0, 4, false})); // the first look sees everything
    EXPECT_EQ(t.takeUpdateRange(), std::nullopt);

    // Text on row 2: that row, and the row the cursor left.
    t.feed("\x1b[3;1Hab");
    EXPECT_EQ(t.takeUpdateRange(), (Range{0, 2, false}));
    // A rectangle erased far from the cursor; a report that changes nothing on screen.
    t.feed("\x1b[5;1;5;3$z\x1b[6n");
    EXPECT_EQ(t.takeUpdateRange(), (Range{4, 4, false}));
    EXPECT_EQ(t.takeUpdateRange(), std::nullopt);

    // A line feed at the bottom moves every row.
    t.feed("\x1b[5;1H\n");
    auto scrolled = t.takeUpdateRange();
    ASSERT_TRUE(scrolled);
    EXPECT_TRUE(scrolled->scrolled);
    EXPECT_EQ(scrolled->startY, 0);
    EXPECT_EQ(scrolled->endY, 4);

    // Another buffer or another size: the whole screen.
    t.feed("\x1b[?1049h");
    EXPECT_EQ(t.takeUpdateRange(), (Range{0, 4, false}));
    t.feed("\x1b[?1049l");
    t.takeUpdateRange();
    t.resize(12, 3);
    EXPECT_EQ(t.takeUpdateRange(), (Range{0, 2, false}));
}
