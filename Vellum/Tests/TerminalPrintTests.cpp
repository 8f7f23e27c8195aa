#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

using Rows = std::vector<std::string>;

TEST(TerminalPrint, AutowrapLeavesPendingWrapAndMarksTheNextRow) {
    TerminalHarness h(5, 3);
    h.terminal.feed("abcde");
    EXPECT_EQ(h.x(), 5); // pending wrap: one past the last column
    EXPECT_EQ(h.y(), 0);
    h.terminal.feed("f");
    EXPECT_EQ(h.screen(), (Rows{"abcde", "f", ""}));
    EXPECT_TRUE(h.terminal.buffer().row(1).isWrapped());
    // A line feed enters a row that is not a continuation.
    h.terminal.feed("\r\n");
    EXPECT_FALSE(h.terminal.buffer().row(2).isWrapped());

    // Without wraparound the last cell is overwritten.
    TerminalHarness off(5, 2);
    off.terminal.feed("\x1b[?7labcdefg");
    EXPECT_EQ(off.screen(), (Rows{"abcdg", ""}));
}

TEST(TerminalPrint, WideCharactersAtTheEdge) {
    TerminalHarness h(5, 3);
    h.terminal.feed("abcd\xe4\xb8\xad"); // U+4E2D does not fit in the last column
    EXPECT_EQ(h.screen(), (Rows{"abcd", "\xe4\xb8\xad", ""}));
    EXPECT_EQ(h.terminal.buffer().row(0).packedCell(4).widthState(), CellWidthState::spacerHead);
    EXPECT_TRUE(h.terminal.buffer().row(1).isWrapped());
    EXPECT_EQ(h.x(), 2);

    TerminalHarness off(5, 2);
    off.terminal.feed("\x1b[?7labcd\xe4\xb8\xad");
    EXPECT_EQ(off.screen(), (Rows{"abcd", ""}));

    // Overwriting half of a wide character blanks the other half.
    TerminalHarness seam(6, 1);
    seam.terminal.feed("\xe4\xb8\xad\xe4\xb8\xad\x1b[1;2Hx");
    EXPECT_EQ(seam.screen(), (Rows{" x\xe4\xb8\xad"}));
}

TEST(TerminalPrint, CombiningMarksAndEmojiJoining) {
    TerminalHarness h(5, 3);
    h.terminal.feed("abcde\xcc\x81"); // e + U+0301 at the last column
    EXPECT_EQ(h.screen()[0], "abcde\xcc\x81");
    EXPECT_EQ(h.x(), 5);
    // At column 0 of a continuation row a combining mark reaches the last cell of the row above.
    TerminalHarness wrap(3, 3);
    wrap.terminal.feed("abcd\x1b[D\xcc\x81");
    EXPECT_EQ(wrap.screen(), (Rows{"abc\xcc\x81", "d", ""}));

    TerminalHarness emoji(6, 2);
    emoji.terminal.feed("\xe2\x9d\xa4\xef\xb8\x8f|"); // U+2764 U+FE0F widens to two columns
    EXPECT_EQ(emoji.terminal.buffer().row(0).packedCell(0).widthState(), CellWidthState::wide);
    EXPECT_EQ(emoji.terminal.getCharData(2, 0).getCharacter(), U"|");
    TerminalHarness keycap(6, 2);
    keycap.terminal.feed("1\xef\xb8\x8f|"); // a keycap base stays narrow
    EXPECT_EQ(keycap.terminal.getCharData(1, 0).getCharacter(), U"|");

    // Regional indicators pair into one flag; a ZWJ sequence stays one cell.
    TerminalHarness flag(8, 2);
    flag.terminal.feed("\xf0\x9f\x87\xab\xf0\x9f\x87\xb7|");
    EXPECT_EQ(flag.terminal.getCharData(2, 0).getCharacter(), U"|");
    TerminalHarness family(8, 2);
    family.terminal.feed("\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x91\xa7|");
    EXPECT_EQ(family.terminal.getCharData(2, 0).getCharacter(), U"|");
}

TEST(TerminalPrint, SplitAndBrokenUtf8) {
    TerminalHarness h(10, 2);
    h.terminal.feed("\xe4\xb8");
    h.terminal.feed("\xad!");
    EXPECT_EQ(h.screen()[0], "\xe4\xb8\xad!");
    TerminalHarness bad(10, 2);
    bad.terminal.feed("a\xc0\xafz\xed\xa0\x80y\x80x");
    std::string row = bad.screen()[0];
    EXPECT_EQ(row.front(), 'a');
    EXPECT_NE(row.find('z'), std::string::npos);
    EXPECT_NE(row.find('y'), std::string::npos);
    EXPECT_EQ(row.back(), 'x');
    EXPECT_NE(row.find("\xef\xbf\xbd"), std::string::npos);
}

TEST(TerminalPrint, CharsetsInsertModeAndRepeat) {
    TerminalHarness h(10, 3);
    h.terminal.feed("\x1b(0qx\x1b(Bq");
    EXPECT_EQ(h.screen()[0], "\xe2\x94\x80\xe2\x94\x82q");
    h.terminal.feed("\r\n\x1b)0a\x0eq\x0fq"); // shift out to G1 and back
    EXPECT_EQ(h.screen()[1], "a\xe2\x94\x80q");
    h.terminal.feed("\r\n12345\r\x1b[4hab\x1b[4l");
    EXPECT_EQ(h.screen()[2], "ab12345");
    h.terminal.feed("\x1b[3b");
    EXPECT_EQ(h.screen()[2], "abbbb45");
}

TEST(TerminalPrint, ScreenAlignmentAndClampedCursor) {
    TerminalHarness h(3, 2);
    h.terminal.feed("\x1b#8");
    EXPECT_EQ(h.screen(), (Rows{"EEE", "EEE"}));
    h.terminal.feed("\x1b[99;99H");
    EXPECT_EQ(h.x(), 2);
    EXPECT_EQ(h.y(), 1);
    h.terminal.feed("\x1b[99A\x1b[99D");
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.y(), 0);

    TerminalHarness tiny(1, 0);
    EXPECT_EQ(tiny.terminal.cols(), 2);
    EXPECT_EQ(tiny.terminal.rows(), 1);
}
