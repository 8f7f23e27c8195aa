#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

using Rows = std::vector<std::string>;

TEST(TerminalScreen, EraseInDisplayAndLine) {
    TerminalHarness h(4, 3);
    h.terminal.feed("abcd\r\nefgh\r\nijkl\x1b[2;2H\x1b[K");
    EXPECT_EQ(h.screen(), (Rows{"abcd", "e", "ijkl"}));
    h.terminal.feed("\x1b[2;3H\x1b[1K");
    EXPECT_EQ(h.screen(), (Rows{"abcd", "", "ijkl"}));
    h.terminal.feed("\x1b[1;2H\x1b[J");
    EXPECT_EQ(h.screen(), (Rows{"a", "", ""}));
    h.terminal.feed("\x1b[3;1Hxyz\x1b[3;2H\x1b[1J");
    EXPECT_EQ(h.screen(), (Rows{"", "", "  z"}));
    h.terminal.feed("\x1b[2J");
    EXPECT_EQ(h.screen(), (Rows{"", "", ""}));
}

TEST(TerminalScreen, ScrollbackFillsAndIsDropped) {
    TerminalHarness h(5, 2, 3);
    for (int i = 0; i < 6; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    // Seven rows written (the last empty); two on screen, three kept above, two dropped.
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 3);
    EXPECT_EQ(h.screen(), (Rows{"5", ""}));
    EXPECT_EQ(h.terminal.buffer().lines[0].translateToString(true), "2");
    h.terminal.feed("\x1b[3J");
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 0);
    EXPECT_EQ(h.screen(), (Rows{"5", ""}));
}

TEST(TerminalScreen, AViewScrolledBackStaysOnItsTextWhileAFullScrollbackRecycles) {
    TerminalHarness h(5, 2, 4);
    for (int i = 0; i < 8; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    Buffer& b = h.terminal.buffer();
    ASSERT_EQ(b.scrollbackRows(), 4);
    h.terminal.scrollDisplay(-2);
    auto topShown = [&] { return b.lines[b.yDisp].translateToString(true); };
    ASSERT_EQ(topShown(), "5");
    h.terminal.feed("8\r\n9\r\n");
    EXPECT_EQ(topShown(), "5") << "new output must not drag the view";
    EXPECT_LT(b.yDisp, b.yBase);
    // Once its text has left the ring the view rests on the oldest row there is.
    for (int i = 10; i < 20; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    EXPECT_EQ(b.yDisp, 0);
    EXPECT_EQ(topShown(), "15");
    // A view at the bottom keeps following.
    h.terminal.scrollDisplay(100);
    h.terminal.feed("20\r\n");
    EXPECT_EQ(b.yDisp, b.yBase);
}

TEST(TerminalScreen, ANewScrollbackSizeKeepsTheNewestRowsAndOutlivesAReset) {
    TerminalHarness h(5, 2, 4);
    for (int i = 0; i < 6; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    h.terminal.setScrollback(2);
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 2);
    EXPECT_EQ(h.terminal.buffer().lines[0].translateToString(true), "3");
    EXPECT_EQ(h.screen(), (Rows{"5", ""})) << "the screen is untouched";

    h.terminal.feed("\x1b" "c");
    h.terminal.setScrollback(3);
    for (int i = 0; i < 8; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 3);
    h.terminal.feed("\x1b" "c");
    for (int i = 0; i < 8; ++i) h.terminal.feed(std::to_string(i) + "\r\n");
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 3) << "a full reset keeps the size that was set";
}

TEST(TerminalScreen, ScrollRegionsInsertAndDeleteLines) {
    TerminalHarness h(3, 5);
    h.terminal.feed("a\r\nb\r\nc\r\nd\r\ne");
    h.terminal.feed("\x1b[2;4r");
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.y(), 0);
    h.terminal.feed("\x1b[4;1H\n");
    EXPECT_EQ(h.screen(), (Rows{"a", "c", "d", "", "e"}));
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 0); // a region scroll keeps no history
    h.terminal.feed("\x1b[2;1H\x1bM");
    EXPECT_EQ(h.screen(), (Rows{"a", "", "c", "d", "e"}));
    h.terminal.feed("\x1b[3;1H\x1b[M");
    EXPECT_EQ(h.screen(), (Rows{"a", "", "d", "", "e"}));
    h.terminal.feed("\x1b[2;1H\x1b[2L");
    EXPECT_EQ(h.screen(), (Rows{"a", "", "", "", "e"}));
    // A reversed region is refused but still homes the cursor.
    h.terminal.feed("\x1b[3;3H\x1b[5;1r");
    EXPECT_EQ(h.terminal.buffer().scrollTop, 1);
    EXPECT_EQ(h.terminal.buffer().scrollBottom, 3);
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.y(), 0);
    // Origin mode addresses the region.
    h.terminal.feed("\x1b[?6h\x1b[1;1H");
    EXPECT_EQ(h.y(), 1);
    h.terminal.feed("\x1b[99;1H");
    EXPECT_EQ(h.y(), 3);
}

TEST(TerminalScreen, AlternateScreenKeepsTheNormalOne) {
    TerminalHarness h(5, 2);
    h.terminal.feed("hello\r\nab");
    h.terminal.feed("\x1b[?1049h");
    EXPECT_TRUE(h.terminal.isAlternateBuffer());
    EXPECT_EQ(h.screen(), (Rows{"", ""}));
    h.terminal.feed("\x1b[Hvim\r\nx\r\ny\r\nz");
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 0);
    h.terminal.feed("\x1b[?1049l");
    EXPECT_FALSE(h.terminal.isAlternateBuffer());
    EXPECT_EQ(h.screen(), (Rows{"hello", "ab"}));
    EXPECT_EQ(h.x(), 2);
    EXPECT_EQ(h.y(), 1);
    EXPECT_EQ(h.delegate.bufferSwitches, 2);
    // Entering again starts from a blank alternate screen whichever mode left it.
    h.terminal.feed("\x1b[?47hkeep\x1b[?47l");
    EXPECT_EQ(h.screen(), (Rows{"hello", "ab"}));
    h.terminal.feed("\x1b[?47h");
    EXPECT_EQ(h.screen(), (Rows{"", ""}));
}

TEST(TerminalScreen, SavedCursorPerBufferAndResets) {
    TerminalHarness h(10, 3);
    h.terminal.feed("\x1b[2;3H\x1b[1m\x1b" "7\x1b[H\x1b[m\x1b" "8x");
    EXPECT_TRUE(h.terminal.getCharData(2, 1).attribute.style.contains(CharacterStyle::bold));
    h.terminal.feed("\x1b[!p");
    EXPECT_FALSE(h.terminal.cursorHidden);
    h.terminal.feed("\x1b[?25l\x1b" "c");
    EXPECT_FALSE(h.terminal.cursorHidden);
    EXPECT_EQ(h.screen(), (Rows{"", "", ""}));
    EXPECT_EQ(h.x(), 0);
}

TEST(TerminalScreen, TabsAndResize) {
    TerminalHarness h(20, 2);
    h.terminal.feed("\tx\x1b[3g\r\ty");
    EXPECT_EQ(h.screen()[0], "        x          y"); // no stops left: the last column
    EXPECT_EQ(h.x(), 20);
    h.terminal.feed("\x1b[2;1H\x1b[2I");
    EXPECT_EQ(h.x(), 19); // stops were cleared: the last column
    h.terminal.resize(8, 3);
    EXPECT_EQ(h.terminal.cols(), 8);
    EXPECT_EQ(h.terminal.rows(), 3);
    EXPECT_EQ(h.delegate.sizeChanges, 1);
    EXPECT_LT(h.x(), 8);
    h.terminal.feed("\x1b[3;1Habcdefghij");
    EXPECT_EQ(h.screen()[2], "ij");
}

TEST(TerminalReflow, WidenJoinsAndNarrowSplitsWithTheCursor) {
    TerminalHarness h(8, 4, 50);
    h.terminal.feed("abcdefghijkl\r\nxy");
    EXPECT_EQ(h.screen(), (Rows{"abcdefgh", "ijkl", "xy", ""}));
    h.terminal.resize(12, 4);
    EXPECT_EQ(h.screen(), (Rows{"abcdefghijkl", "xy", "", ""}));
    EXPECT_FALSE(h.terminal.buffer().row(1).isWrapped());
    EXPECT_EQ(h.y(), 1);
    EXPECT_EQ(h.x(), 2);
    h.terminal.resize(5, 4);
    EXPECT_EQ(h.screen(), (Rows{"abcde", "fghij", "kl", "xy"}));
    EXPECT_TRUE(h.terminal.buffer().row(1).isWrapped());
    EXPECT_TRUE(h.terminal.buffer().row(2).isWrapped());
    EXPECT_EQ(h.y(), 3);
    EXPECT_EQ(h.x(), 2);
    // Narrower still: history takes the top rows, the cursor keeps its text.
    h.terminal.resize(3, 4);
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 1);
    EXPECT_EQ(h.screen(), (Rows{"def", "ghi", "jkl", "xy"}));
    h.terminal.feed("!");
    EXPECT_EQ(h.screen()[3], "xy!");
}

TEST(TerminalReflow, WideCharactersMoveWholeAndTheAlternateScreenIsCut) {
    TerminalHarness h(6, 2, 10);
    h.terminal.feed("ab\xe4\xb8\xad\xe4\xb8\xad");
    h.terminal.resize(5, 2);
    EXPECT_EQ(h.screen(), (Rows{"ab\xe4\xb8\xad", "\xe4\xb8\xad"}));
    EXPECT_EQ(h.terminal.buffer().row(0).packedCell(4).widthState(), CellWidthState::spacerHead);
    h.terminal.resize(6, 2);
    EXPECT_EQ(h.screen(), (Rows{"ab\xe4\xb8\xad\xe4\xb8\xad", ""}));

    TerminalHarness alt(6, 2, 10);
    alt.terminal.feed("\x1b[?1049habcdefgh");
    alt.terminal.resize(4, 2);
    EXPECT_EQ(alt.screen(), (Rows{"abcd", "gh"}));
    alt.terminal.resize(8, 2);
    EXPECT_EQ(alt.screen(), (Rows{"abcd", "gh"}));
}
