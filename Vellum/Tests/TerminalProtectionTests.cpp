// Protected text (DECSCA) as forms-style programs use it: labels printed protected survive the
// selective erases that clear the fields between them, and only those.
#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

using Rows = std::vector<std::string>;

namespace {

// "Name:" protected, then an unprotected field, on two rows.
struct Form : TerminalHarness {
    Form() : TerminalHarness(12, 3) {
        terminal.feed("\x1b[1\"qName:\x1b[0\"qalice\r\n\x1b[1\"qAge:\x1b[2\"q42");
    }
};

} // namespace

TEST(TerminalProtection, SelectiveEraseInLineSparesProtectedCells) {
    Form h;
    h.terminal.feed("\x1b[1;1H\x1b[?K");
    EXPECT_EQ(h.screen(), (Rows{"Name:", "Age:42", ""}));
    h.terminal.feed("\x1b[2;6H\x1b[?1K");
    EXPECT_EQ(h.terminal.lineText(1), "Age:") << "DECSEL 1 erases up to the cursor, around the label";
    h.terminal.feed("\x1b[1;3H\x1b[?2K");
    EXPECT_EQ(h.terminal.lineText(0), "Name:");
}

TEST(TerminalProtection, SelectiveEraseInDisplayAndRectangle) {
    Form h;
    h.terminal.feed("\x1b[3;1Hfree\x1b[1;1H\x1b[?J");
    EXPECT_EQ(h.screen(), (Rows{"Name:", "Age:", ""}));
    Form rectangle;
    rectangle.terminal.feed("\x1b[1;1;2;12${");
    EXPECT_EQ(rectangle.terminal.lineText(0), "Name:       ") << "DECSERA erases to blanks";
    EXPECT_EQ(rectangle.terminal.lineText(1), "Age:        ");
    Form above;
    above.terminal.feed("\x1b[2;1H\x1b[?1J");
    EXPECT_EQ(above.screen(), (Rows{"Name:", "Age:42", ""}));
}

TEST(TerminalProtection, PlainEraseIgnoresProtection) {
    Form h;
    h.terminal.feed("\x1b[1;1H\x1b[K\x1b[2;1H\x1b[2K");
    EXPECT_EQ(h.screen(), (Rows{"", "", ""}));
    Form display;
    display.terminal.feed("\x1b[2J");
    EXPECT_EQ(display.screen(), (Rows{"", "", ""}));
    // Erased cells lose their protection.
    display.terminal.feed("\x1b[?2J");
    EXPECT_FALSE(display.terminal.getCharData(0, 0).isProtected);
}

TEST(TerminalProtection, TheAttributeIsSavedReportedAndReset) {
    TerminalHarness h(12, 2);
    EXPECT_EQ(h.reply("\x1bP$q\"q\x1b\\"), "\x1bP1$r0\"q\x1b\\");
    EXPECT_EQ(h.reply("\x1b[1\"q\x1bP$q\"q\x1b\\"), "\x1bP1$r1\"q\x1b\\");
    h.terminal.feed("\x1b[1;5H\x1b" "7\x1b[1;1H\x1b[0\"qa\x1b" "8b");
    EXPECT_FALSE(h.terminal.getCharData(0, 0).isProtected);
    EXPECT_TRUE(h.terminal.getCharData(4, 0).isProtected) << "DECRC brings the protection back";
    h.terminal.feed("\x1b[!p");
    EXPECT_FALSE(h.terminal.protectsPrintedCells()) << "a soft reset ends it";
    h.terminal.feed("\x1b[1\"q\x1b" "c");
    EXPECT_FALSE(h.terminal.protectsPrintedCells());
}
