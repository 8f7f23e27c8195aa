// What programs that draw inside scroll regions and left/right margins (editors with split
// panes, tmux-like multiplexers, full-screen tools) send, and where the cursor and the text
// must end up, as xterm does it.
#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

using Rows = std::vector<std::string>;

namespace {

// 5 by 4 with every cell lettered, and left/right margins on columns 2 to 4.
struct LetteredWithMargins : TerminalHarness {
    LetteredWithMargins() : TerminalHarness(5, 4) {
        terminal.feed("abcde\r\nfghij\r\nklmno\r\npqrst");
        terminal.feed("\x1b[?69h\x1b[2;4s");
    }
};

} // namespace

TEST(TerminalMargins, BackspaceStopsAtTheLeftMarginUnlessReverseWrapIsOn) {
    TerminalHarness h(10, 4);
    h.terminal.feed("\x1b[?69h\x1b[3;7s\x1b[1;3H\b");
    EXPECT_EQ(h.x(), 2) << "at the left margin without reverse wrap";
    h.terminal.feed("\x1b[1;2H\b");
    EXPECT_EQ(h.x(), 0) << "left of the margin the cursor still moves";
    h.terminal.feed("\b");
    EXPECT_EQ(h.x(), 0);

    h.terminal.feed("\x1b[?45h\x1b[2;3H\b");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(6, 0)) << "reverse wrap goes to the right margin of the row above";
    h.terminal.feed("\x1b[1;3H\b");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(6, 3)) << "from the top it goes to the bottom of the region";

    h.terminal.feed("\x1b[?69l\x1b[2;1H\b");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(9, 0)) << "without margins: the last column";
}

TEST(TerminalMargins, BackspaceAfterAPendingWrapAndReverseWrapNeedsAutowrap) {
    TerminalHarness h(10, 3);
    h.terminal.feed("abcdefghij\b");
    EXPECT_EQ(h.x(), 8) << "the pending wrap is dropped first";
    h.terminal.feed("\x1b[?45h\x1b[1;1Habcdefghij\b");
    EXPECT_EQ(h.x(), 9) << "with reverse wrap the pending wrap counts as a column";
    h.terminal.feed("\x1b[?45l\x1b[?7l\x1b[?45h\x1b[2;1H\b");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(0, 1)) << "reverse wrap is refused while autowrap is off";

    // Reverse wrap lets a line editor walk back over a wrapped line.
    h.terminal.feed("\x1b[?7h\x1b[?45h\x1b[1;1H\x1b[2J0123456789ab\b\b\b");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(9, 0));
}

TEST(TerminalMargins, CursorMovesStopAtTheMarginsFromInsideOnly) {
    TerminalHarness h(10, 4);
    h.terminal.feed("\x1b[?69h\x1b[3;7s\x1b[1;5H\x1b[10D");
    EXPECT_EQ(h.x(), 2);
    h.terminal.feed("\x1b[1;2H\x1b[5D");
    EXPECT_EQ(h.x(), 0);
    h.terminal.feed("\x1b[1;5H\x1b[10C");
    EXPECT_EQ(h.x(), 6);
    h.terminal.feed("\x1b[1;9H\x1b[5C");
    EXPECT_EQ(h.x(), 9);
    // Carriage return goes to the left margin, or to column 0 from left of it.
    h.terminal.feed("\x1b[1;5H\r");
    EXPECT_EQ(h.x(), 2);
    h.terminal.feed("\x1b[1;2H\r");
    EXPECT_EQ(h.x(), 0);
}

TEST(TerminalMargins, InsertAndDeleteLinesMoveOnlyTheColumnsInside) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[2;2H\x1b[L");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "f   j", "kghio", "plmnt"}));
    EXPECT_EQ(h.x(), 1) << "IL leaves the cursor at the left margin";
    h.terminal.feed("\x1b[2;4H\x1b[M");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "fghij", "klmno", "p   t"}));
    h.terminal.feed("\x1b[2;1H\x1b[L\x1b[2;5H\x1b[M");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "fghij", "klmno", "p   t"})) << "outside the margins IL and DL do nothing";
}

TEST(TerminalMargins, ScrollUpAndDownInsideTheMarginsAndTheRegion) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[2;3r\x1b[S");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "flmnj", "k   o", "pqrst"}));
    h.terminal.feed("\x1b[2T");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "f   j", "k   o", "pqrst"}));
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 0);
}

TEST(TerminalMargins, IndexAndReverseIndexScrollInsideTheMargins) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[4;3H\x1b" "D");
    EXPECT_EQ(h.screen(), (Rows{"aghie", "flmnj", "kqrso", "p   t"}));
    h.terminal.feed("\x1b[1;3H\x1bM");
    EXPECT_EQ(h.screen(), (Rows{"a   e", "fghij", "klmno", "pqrst"}));
    // From outside the margins the cursor moves but nothing scrolls.
    h.terminal.feed("\x1b[4;1H\x1b" "D\n\x1b[1;5H\x1bM");
    EXPECT_EQ(h.screen(), (Rows{"a   e", "fghij", "klmno", "pqrst"}));
    EXPECT_EQ(h.y(), 0);
}

TEST(TerminalMargins, NextLineReturnsToTheLeftMarginFromInsideIt) {
    struct Case {
        const char* setup;
        int x, y;
        const char* why;
    };
    for (Case c : std::initializer_list<Case>{
             {"\x1b[2;4H", 1, 2, "inside the margins: the left margin"},
             {"\x1b[2;5H", 1, 2, "right of the right margin: still the left margin"},
             {"\x1b[2;1H", 0, 2, "left of the left margin: column 0"},
             {"\x1b[?6h\x1b[2;3H", 1, 2, "origin mode changes nothing"},
             {"\x1b[?69l\x1b[2;4H", 0, 2, "without margins: column 0"},
         }) {
        LetteredWithMargins h;
        h.terminal.feed(std::string(c.setup) + "\x1b" "E");
        EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(c.x, c.y)) << c.why;
    }
    // At the bottom it scrolls like an index: only inside the margins.
    LetteredWithMargins h;
    h.terminal.feed("\x1b[4;3H\x1b" "E");
    EXPECT_EQ(h.screen(), (Rows{"aghie", "flmnj", "kqrso", "p   t"}));
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(1, 3));
}

TEST(TerminalMargins, CharacterInsertDeleteAndEraseInsideTheMargins) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[1;2H\x1b[@");
    EXPECT_EQ(h.terminal.lineText(0), "a bce");
    h.terminal.feed("\x1b[2;2H\x1b[2P");
    EXPECT_EQ(h.terminal.lineText(1), "fi  j");
    h.terminal.feed("\x1b[3;1H\x1b[P\x1b[3;5H\x1b[@");
    EXPECT_EQ(h.terminal.lineText(2), "klmno") << "outside the margins ICH and DCH do nothing";
    h.terminal.feed("\x1b[4;3H\x1b[9X");
    EXPECT_EQ(h.terminal.lineText(3), "pq") << "ECH is not held by the margins";
}

TEST(TerminalMargins, BackAndForwardIndexScrollColumnsAtTheMargins) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[1;2H\x1b" "6");
    EXPECT_EQ(h.screen(), (Rows{"a bce", "f ghj", "k lmo", "p qrt"}));
    EXPECT_EQ(h.x(), 1);
    h.terminal.feed("\x1b[1;4H\x1b" "9");
    EXPECT_EQ(h.screen(), (Rows{"abc e", "fgh j", "klm o", "pqr t"}));
    h.terminal.feed("\x1b[1;3H\x1b" "6\x1b" "9\x1b" "9");
    EXPECT_EQ(h.x(), 3) << "inside the margins they only move the cursor";
    h.terminal.feed("\x1b[1;1H\x1b" "6");
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.terminal.lineText(0), "abc e");
}

TEST(TerminalMargins, AlignmentPatternResetsRegionAndMargins) {
    LetteredWithMargins h;
    h.terminal.feed("\x1b[2;3r\x1b[3;3H\x1b#8");
    EXPECT_EQ(h.screen(), (Rows{"EEEEE", "EEEEE", "EEEEE", "EEEEE"}));
    Buffer& b = h.terminal.buffer();
    EXPECT_EQ(std::tuple(b.scrollTop, b.scrollBottom, b.marginLeft, b.marginRight), std::tuple(0, 3, 0, 4));
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(0, 0));
}

TEST(TerminalMargins, SavedCursorKeepsOriginModeAndPosition) {
    TerminalHarness h(10, 6);
    h.terminal.feed("\x1b[2;5r\x1b[?6h\x1b[2;3H\x1b" "7\x1b[?6l\x1b[H");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(0, 0));
    EXPECT_EQ(h.reply("\x1b" "8\x1b[6n"), "\x1b[2;3R") << "origin mode comes back with the position";
    EXPECT_TRUE(h.terminal.originMode);
    // SCOSC and SCORC while margins are off; with them on CSI s sets the margins.
    h.terminal.feed("\x1b[?6l\x1b[4;4H\x1b[s\x1b[H\x1b[u");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(3, 3));
    h.terminal.feed("\x1b[?69h\x1b[1;1H\x1b[3;6s\x1b[u");
    EXPECT_EQ(h.terminal.buffer().marginLeft, 2);
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(3, 3)) << "the position saved before is still there";
    // Origin mode with margins addresses the area inside them.
    h.terminal.feed("\x1b[?69h\x1b[?6h\x1b[1;1H");
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(2, 1));
}

TEST(TerminalMargins, FullResetLeavesTheAlternateScreen) {
    TerminalHarness h(10, 3);
    h.terminal.feed("main\x1b[?1049h\x1b[2;3r\x1b[?6halt\x1b" "c");
    EXPECT_FALSE(h.terminal.isAlternateBuffer());
    EXPECT_EQ(h.screen(), (Rows{"", "", ""}));
    EXPECT_EQ(std::pair(h.x(), h.y()), std::pair(0, 0));
    EXPECT_FALSE(h.terminal.originMode);
    h.terminal.feed("\x1b[?1049h");
    EXPECT_EQ(h.screen(), (Rows{"", "", ""})) << "the alternate screen was emptied";
}
