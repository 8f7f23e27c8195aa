// Colour control as theme switchers and colour-aware programs use it: palette entries, the text
// and cursor colours, the other dynamic colours and the special colours, each set, asked for
// (several in one sequence) and reset.
#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

std::string xcolor(uint8_t r, uint8_t g, uint8_t b) { return Color::fromBytes(r, g, b).formatAsXcolor(); }

} // namespace

TEST(TerminalColorControl, PaletteEntriesSetQueryAndReset) {
    TerminalHarness h;
    Color original = h.terminal.ansiColors[1];
    h.terminal.feed("\x1b]4;1;rgb:10/20/30;2;rgb:40/50/60\x1b\\");
    EXPECT_EQ(h.reply("\x1b]4;1;?;2;?\x07"), "\x1b]4;1;" + xcolor(0x10, 0x20, 0x30) + "\x07\x1b]4;2;" + xcolor(0x40, 0x50, 0x60) + "\x07");
    h.terminal.feed("\x1b]104;2\x07");
    EXPECT_EQ(h.terminal.ansiColors[1], Color::fromBytes(0x10, 0x20, 0x30)) << "only the entry named is reset";
    EXPECT_EQ(h.terminal.ansiColors[2], h.terminal.defaultAnsiColors[2]);
    h.terminal.feed("\x1b]104\x07");
    EXPECT_EQ(h.terminal.ansiColors[1], original);
    // A bad spec is skipped, a bad index ends the list.
    h.terminal.feed("\x1b]4;3;nonsense;4;rgb:01/02/03;999;rgb:ff/ff/ff;5;rgb:ff/ff/ff\x07");
    EXPECT_EQ(h.terminal.ansiColors[4], Color::fromBytes(1, 2, 3));
    EXPECT_EQ(h.terminal.ansiColors[5], h.terminal.defaultAnsiColors[5]);
}

TEST(TerminalColorControl, TextColoursAnswerInOrderAndResetToTheHosts) {
    TerminalHarness h;
    h.terminal.setForegroundColor(Color::fromBytes(0xaa, 0xbb, 0xcc));
    h.terminal.setBackgroundColor(Color::fromBytes(1, 2, 3));
    EXPECT_EQ(h.reply("\x1b]10;?;?;?\x1b\\"), "\x1b]10;" + xcolor(0xaa, 0xbb, 0xcc) + "\x1b\\\x1b]11;" + xcolor(1, 2, 3) +
                                                  "\x1b\\\x1b]12;" + xcolor(0xaa, 0xbb, 0xcc) + "\x1b\\");
    h.terminal.feed("\x1b]10;rgb:ff/ff/ff;rgb:00/00/00;rgb:ff/00/00\x07");
    EXPECT_EQ(h.terminal.foregroundColor, Color::fromBytes(255, 255, 255));
    EXPECT_EQ(h.terminal.backgroundColor, Color::fromBytes(0, 0, 0));
    EXPECT_EQ(h.reply("\x1b]12;?\x07"), "\x1b]12;" + xcolor(255, 0, 0) + "\x07");
    h.terminal.feed("\x1b]110\x07\x1b]111\x07\x1b]112\x07");
    EXPECT_EQ(h.terminal.foregroundColor, Color::fromBytes(0xaa, 0xbb, 0xcc)) << "the host's colours come back";
    EXPECT_EQ(h.terminal.backgroundColor, Color::fromBytes(1, 2, 3));
    EXPECT_FALSE(h.terminal.cursorColor);
}

TEST(TerminalColorControl, OtherDynamicColoursFollowTheTextUntilSet) {
    TerminalHarness h;
    h.terminal.setForegroundColor(Color::fromBytes(0xee, 0xee, 0xee));
    h.terminal.setBackgroundColor(Color::fromBytes(0x11, 0x11, 0x11));
    std::string fg = xcolor(0xee, 0xee, 0xee), bg = xcolor(0x11, 0x11, 0x11);
    EXPECT_EQ(h.reply("\x1b]13;?;?\x07"), "\x1b]13;" + fg + "\x07\x1b]14;" + bg + "\x07") << "the pointer";
    EXPECT_EQ(h.reply("\x1b]17;?;?;?\x07"), "\x1b]17;" + fg + "\x07\x1b]18;" + fg + "\x07\x1b]19;" + bg + "\x07");
    h.terminal.feed("\x1b]17;rgb:33/66/99\x07\x1b]19;rgb:99/66/33\x07");
    EXPECT_EQ(h.reply("\x1b]17;?\x07\x1b]19;?\x07"), "\x1b]17;" + xcolor(0x33, 0x66, 0x99) + "\x07\x1b]19;" + xcolor(0x99, 0x66, 0x33) + "\x07");
    h.terminal.feed("\x1b]117\x07");
    EXPECT_EQ(h.reply("\x1b]17;?\x07\x1b]19;?\x07"), "\x1b]17;" + fg + "\x07\x1b]19;" + xcolor(0x99, 0x66, 0x33) + "\x07");
    // A list that runs past OSC 19 stops there.
    h.terminal.feed("\x1b]18;rgb:01/01/01;rgb:02/02/02;rgb:03/03/03\x07");
    EXPECT_EQ(h.reply("\x1b]19;?\x07"), "\x1b]19;" + xcolor(2, 2, 2) + "\x07");
}

TEST(TerminalColorControl, SpecialColoursSetQueryAndReset) {
    TerminalHarness h;
    h.terminal.setForegroundColor(Color::fromBytes(0xee, 0xee, 0xee));
    std::string fg = xcolor(0xee, 0xee, 0xee);
    h.terminal.feed("\x1b]5;0;rgb:ff/00/00;1;rgb:00/ff/00\x07");
    EXPECT_EQ(h.reply("\x1b]5;0;?;1;?;4;?\x1b\\"), "\x1b]5;0;" + xcolor(255, 0, 0) + "\x1b\\\x1b]5;1;" + xcolor(0, 255, 0) +
                                                     "\x1b\\\x1b]5;4;" + fg + "\x1b\\");
    h.terminal.feed("\x1b]105;0\x07");
    EXPECT_EQ(h.reply("\x1b]5;0;?;1;?\x07"), "\x1b]5;0;" + fg + "\x07\x1b]5;1;" + xcolor(0, 255, 0) + "\x07");
    h.terminal.feed("\x1b]105\x07");
    EXPECT_EQ(h.reply("\x1b]5;1;?\x07"), "\x1b]5;1;" + fg + "\x07");
    EXPECT_EQ(h.reply("\x1b]5;5;?\x07"), "") << "there are five special colours";
}

TEST(TerminalColorControl, EightBitControlsAnswerInKind) {
    TerminalHarness h;
    h.terminal.feed("\x1b G\x1b]4;1;rgb:01/02/03\x07");
    EXPECT_EQ(h.reply("\x1b]4;1;?\x1b\\"), "\x9d" "4;1;" + xcolor(1, 2, 3) + "\x9c");
}
