#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

using Screen = std::vector<std::string>;

// A 6x4 screen of distinct letters: row r holds six letters from 'a' + 6r.
struct Lettered : TerminalHarness {
    Lettered() : TerminalHarness(6, 4) { terminal.feed("abcdef\r\nghijkl\r\nmnopqr\r\nstuvwx"); }
};

} // namespace

TEST(TerminalRectangles, FillAndEraseStayInsideTheArea) {
    Lettered h;
    h.terminal.feed("\x1b[1;31m\x1b[42;2;2;3;4$x");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "g***kl", "m***qr", "stuvwx"}));
    EXPECT_EQ(h.terminal.getCharData(1, 1).attribute.fg, Attribute::Color::ansi256(1)); // the current rendition
    // A control character fills with spaces; absent bottom and right reach the edges.
    h.terminal.feed("\x1b[0m\x1b[7;4;5$x");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "g***kl", "m***qr", "stuv  "}));
    // DECERA and DECSERA erase to spaces; a reversed area does nothing.
    h.terminal.feed("\x1b[1;1;2;2$z\x1b[3;6;3;6${\x1b[3;3;1;1$z");
    EXPECT_EQ(h.screen(), (Screen{"  cdef", "  **kl", "m***q ", "stuv  "}));
    // The cursor never moves.
    EXPECT_EQ(h.x(), 6);
    EXPECT_EQ(h.y(), 3);
}

TEST(TerminalRectangles, CopyHandlesOverlapAndClipsAtTheEdges) {
    Lettered h;
    // Rows 1-2, columns 1-3 copied one cell down and right: the source is read before writing.
    h.terminal.feed("\x1b[1;1;2;3;1;2;2;1$v");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "gabckl", "mghiqr", "stuvwx"}));
    // A destination near the corner keeps only what fits.
    h.terminal.feed("\x1b[1;1;4;6;1;4;5;1$v");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "gabckl", "mghiqr", "stuvab"}));
    // Without the "$" it is not a copy.
    h.terminal.feed("\x1b[1;1;1;1;1;4;1;1v");
    EXPECT_EQ(h.terminal.lineText(3), "stuvab");
}

TEST(TerminalRectangles, OriginModeMakesAreasRelativeToTheRegion) {
    Lettered h;
    h.terminal.feed("\x1b[2;3r\x1b[?6h\x1b[46;1;1;5;5$x");
    // Row 1 of the request is the region's first row, and the region's end bounds it.
    EXPECT_EQ(h.screen(), (Screen{"abcdef", ".....l", ".....r", "stuvwx"}));
}

TEST(TerminalRectangles, ChecksumReply) {
    Lettered h;
    // "ab" over "gh": 97 + 98 + 103 + 104 = 402, negated in 16 bits: FE6E.
    EXPECT_EQ(h.reply("\x1b[5;1;1;1;2;2*y"), "\x1bP5!~FE6E\x1b\\");
    // Blank cells count as spaces: the erased corner reads as four blanks (128 -> FF80).
    h.terminal.feed("\x1b[1;1;2;2$z");
    EXPECT_EQ(h.reply("\x1b[9;1;1;1;2;2*y"), "\x1bP9!~FF80\x1b\\");
    // A reversed area sums nothing and still answers.
    EXPECT_EQ(h.reply("\x1b[1;1;3;3;1;1*y"), "\x1bP1!~0000\x1b\\");
    EXPECT_EQ(h.reply("\x1b G\x1b[2;1;1;1;1;1*y"), "\x90" "2!~FFE0\x9c");
}

TEST(TerminalRectangles, ColumnsInsertAndDeleteInsideTheRegion) {
    Lettered h;
    h.terminal.feed("\x1b[2;3r\x1b[2;2H\x1b[2'}");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "g  hij", "m  nop", "stuvwx"}));
    h.terminal.feed("\x1b[3'~");
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "gij", "mop", "stuvwx"}));

    // With no margins set, DECFI and DECBI scroll at the screen's edges.
    Lettered k;
    k.terminal.feed("\x1b[1;6H\x1b" "9");
    EXPECT_EQ(k.screen(), (Screen{"bcdef", "hijkl", "nopqr", "tuvwx"}));
    k.terminal.feed("\x1b[1;1H\x1b" "6");
    EXPECT_EQ(k.screen(), (Screen{" bcdef", " hijkl", " nopqr", " tuvwx"}));
}

namespace {

// One character per cell of `row`: '.' plain, else 'b' bold, 'u' underlined, 'r' inverse,
// '*' more than one of these.
std::string flagsOfRow(TerminalHarness& h, int row) {
    std::string out;
    for (int col = 0; col < h.terminal.cols(); ++col) {
        CharacterStyle s = h.terminal.getCharData(col, row).attribute.style;
        int count = s.contains(CharacterStyle::bold) + s.contains(CharacterStyle::underline) + s.contains(CharacterStyle::inverse);
        out += count > 1 ? '*' : s.contains(CharacterStyle::bold) ? 'b' : s.contains(CharacterStyle::underline) ? 'u'
                       : s.contains(CharacterStyle::inverse) ? 'r' : '.';
    }
    return out;
}

Screen flags(TerminalHarness& h) {
    Screen rows;
    for (int r = 0; r < h.terminal.rows(); ++r) rows.push_back(flagsOfRow(h, r));
    return rows;
}

} // namespace

TEST(TerminalRectangles, ChangingAttributesFollowsTheExtentThatDecsaceSelects) {
    Lettered h;
    // The default extent is the stream of text from one corner to the other.
    h.terminal.feed("\x1b[2;5;3;2;7$r");
    EXPECT_EQ(flags(h), (Screen{"......", "....rr", "rr....", "......"}));
    // DECSACE 2: the rectangle itself. The text stays as it was.
    h.terminal.feed("\x1b[2*x\x1b[1;1;2;2;1;4$r");
    EXPECT_EQ(flags(h), (Screen{"**....", "**..rr", "rr....", "......"}));
    EXPECT_EQ(h.screen(), (Screen{"abcdef", "ghijkl", "mnopqr", "stuvwx"}));
    // DECSACE 0 goes back to the stream.
    h.terminal.feed("\x1b[0*x\x1b[3;6;4;1;1$r");
    EXPECT_EQ(flags(h), (Screen{"**....", "**..rr", "rr...b", "b....."}));
    EXPECT_EQ(h.x(), 6) << "the cursor never moves";
}

TEST(TerminalRectangles, ChangingAttributesKeepsColoursUnlessAskedAndZeroClearsOnlyFlags) {
    TerminalHarness h(6, 2);
    h.terminal.feed("\x1b[1;32mabc\x1b[44m\x1b[K\x1b[m\x1b[2*x");
    // Colours change as SGR would; the default parameter, 0, clears the flags and leaves colour.
    h.terminal.feed("\x1b[1;2;1;5;31;4$r\x1b[1;1;1;1$r");
    CharData first = h.terminal.getCharData(0, 0), second = h.terminal.getCharData(1, 0);
    EXPECT_EQ(first.attribute.fg, Attribute::Color::ansi256(2));
    EXPECT_TRUE(first.attribute.style.isEmpty());
    EXPECT_EQ(second.attribute.fg, Attribute::Color::ansi256(1));
    EXPECT_TRUE(second.attribute.style.contains(CharacterStyle::bold | CharacterStyle::underline));
    EXPECT_EQ(second.attribute.underlineStyle, UnderlineStyle::single);
    // An erased cell that holds only its background takes the change and keeps the background.
    CharData erased = h.terminal.getCharData(4, 0);
    EXPECT_EQ(erased.attribute.bg, Attribute::Color::ansi256(4));
    EXPECT_TRUE(erased.attribute.style.contains(CharacterStyle::underline));
    EXPECT_EQ(h.terminal.lineText(0), "abc");
}

TEST(TerminalRectangles, ReversingAttributesTogglesEachCell) {
    Lettered h;
    h.terminal.feed("\x1b[2*x\x1b[1;1;1;3;1$r");
    // Bold cells lose it and plain ones gain it; 32 is no flag and is ignored.
    h.terminal.feed("\x1b[1;2;2;4;1;32$t");
    EXPECT_EQ(flags(h), (Screen{"b..b..", ".bbb..", "......", "......"}));
    EXPECT_EQ(h.terminal.getCharData(1, 0).attribute.fg, Attribute::Color::defaultColor());
    // 0 reverses bold, underline, blink and inverse together, and twice is no change.
    h.terminal.feed("\x1b[4;1;4;2;0$t");
    EXPECT_EQ(flagsOfRow(h, 3), "**....");
    EXPECT_TRUE(h.terminal.getCharData(0, 3).attribute.style.contains(CharacterStyle::blink));
    h.terminal.feed("\x1b[4;1;4;2$t");
    EXPECT_EQ(flagsOfRow(h, 3), "......");
    EXPECT_FALSE(h.terminal.getCharData(0, 3).attribute.style.contains(CharacterStyle::blink));
}
