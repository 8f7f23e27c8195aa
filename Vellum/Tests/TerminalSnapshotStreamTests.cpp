// A snapshot stream fed to a fresh terminal must rebuild the same cells, history, cursor and
// modes; the strongest check is that both terminals then answer further output alike.

#include <gtest/gtest.h>
#include <any>
#include <random>

#include "Support/TerminalHarness.h"
#include "Vellum/TerminalSnapshotStream.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

// A row's cells with their widths. The marks beside wide characters (the tail it covers, the
// blank left where it didn't fit) are drawn as blanks, and an erase can part them from their
// character, so they read as blanks; the wide characters themselves are compared.
std::string describe(const BufferLine& line, int cols, bool withWrap = true) {
    std::string out = withWrap && line.isWrapped() ? "wrapped|" : "|";
    for (int col = 0; col < cols; ++col) {
        CharData cell = line[col];
        bool strayMark = cell.code == 0 && cell.widthStateCode >= 2;
        out += cell.debugDescription() + "/" + std::to_string(strayMark ? 0 : cell.widthStateCode);
        auto link = cell.getPayload();
        if (auto* target = link ? std::any_cast<std::string>(&*link) : nullptr) out += "->" + *target;
        out += " ";
    }
    return out;
}

// The first row of all can't continue a row before it, so its mark is not compared.
void expectSameRows(Buffer& source, Buffer& rebuilt, int sourceFirst, int rebuiltFirst, int count, int cols) {
    for (int i = 0; i < count; ++i) {
        bool withWrap = rebuiltFirst + i > 0;
        EXPECT_EQ(describe(rebuilt.lines[rebuiltFirst + i], cols, withWrap),
                  describe(source.lines[sourceFirst + i], cols, withWrap))
            << "row " << i << " of " << count;
    }
}

// The visible state: screen cells, cursor, screen kind, pen. A wrap pending over an empty
// last cell can only be owed again by printing a blank there, which the rebuilt side is
// allowed.
void expectSameScreen(Terminal& source, Terminal& rebuilt) {
    ASSERT_EQ(rebuilt.isAlternateBuffer(), source.isAlternateBuffer());
    Buffer& a = source.buffer();
    Buffer& b = rebuilt.buffer();
    int last = source.cols() - 1;
    if (a.x > last && a.row(a.y)[last].code == 0 && b.row(a.y)[last].code == ' ') {
        b.row(a.y).set(last, a.row(a.y)[last]);
    }
    expectSameRows(a, b, a.yBase, b.yBase, source.rows(), source.cols());
    EXPECT_EQ(b.x, a.x);
    EXPECT_EQ(b.y, a.y);
    EXPECT_TRUE(rebuilt.currentAttribute() == source.currentAttribute());
}

struct Rebuilt {
    Rebuilt(Terminal& source, int scrollbackRows, int capacity = 1000, size_t limit = 16u << 20)
        : stream(snapshotStream(source, {scrollbackRows, limit})),
          harness(source.cols(), source.rows(), capacity) {
        harness.terminal.feed(stream);
    }
    std::string stream;
    TerminalHarness harness;
};

// Feeds the same bytes to both.
void feedBoth(Terminal& a, Terminal& b, std::string_view bytes) {
    a.feed(bytes);
    b.feed(bytes);
}

} // namespace

TEST(TerminalSnapshotStream, RenditionsWideAndCombinedCellsAndThePenComeBack) {
    TerminalHarness source(24, 6);
    source.terminal.feed("\x1b[1;31mred\x1b[0m plain \x1b[38;2;1;2;3;48;5;200mtrue\x1b[0m\r\n");
    source.terminal.feed("\xe4\xb8\xad\xe6\x96\x87 e\xcc\x81 \x1b[4:3;58;5;9mcurly\x1b[0m \x1b[2;3;9;7;95;104mall\r\n");
    source.terminal.feed("\x1b[44m\x1b[K\x1b[0mgap\x1b[6Cafter\x1b[5C\x1b[43m  \x1b[2X\r\n");
    source.terminal.feed("\x1b[4:2;5;8mhidden\x1b[0m\x1b[21mdouble\x1b[0m \x1b]8;id=4;https://example.com/a\x1b\\link\x1b]8;;\x1b\\.");
    source.terminal.feed("\x1b[5;20H\x1b[1;92;48;2;9;8;7m");
    Rebuilt rebuilt(source.terminal, 0);
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
    EXPECT_TRUE(rebuilt.harness.terminal.getCharData(13, 3).getPayload()) << "the link is carried";
    EXPECT_FALSE(rebuilt.harness.terminal.getCharData(17, 3).getPayload()) << "and closed after it";

    // The pen and cursor carry on: the same output lands alike on both.
    feedBoth(source.terminal, rebuilt.harness.terminal, "more\x1b[K\r\nnext\x1b[m line");
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
}

TEST(TerminalSnapshotStream, HistoryIsTheNewestRowsAskedForAndNoMore) {
    TerminalHarness source(12, 4, 30);
    for (int i = 0; i < 50; ++i) source.terminal.feed("line \x1b[3" + std::to_string(i % 8) + "m" + std::to_string(i) + "\x1b[m\r\n");
    source.terminal.feed("prompt$ ");
    Buffer& history = source.terminal.buffer();
    ASSERT_EQ(history.scrollbackRows(), 30);

    Rebuilt some(source.terminal, 12);
    EXPECT_EQ(some.harness.terminal.buffer().scrollbackRows(), 12);
    expectSameRows(history, some.harness.terminal.buffer(), history.yBase - 12, 0, 12, 12);
    expectSameScreen(source.terminal, some.harness.terminal);

    Rebuilt none(source.terminal, 0);
    EXPECT_EQ(none.harness.terminal.buffer().scrollbackRows(), 0);
    expectSameScreen(source.terminal, none.harness.terminal);

    Rebuilt all(source.terminal, 1000);
    EXPECT_EQ(all.harness.terminal.buffer().scrollbackRows(), 30);
    expectSameRows(history, all.harness.terminal.buffer(), 0, 0, 30, 12);
}

TEST(TerminalSnapshotStream, WrappedRowsAndAPendingWrapSurvive) {
    TerminalHarness source(10, 6);
    source.terminal.feed("0123456789abc\r\n");                // wraps once
    source.terminal.feed("123456789\xe4\xb8\xad" "end\r\n"); // a wide character that didn't fit
    source.terminal.feed("\x1b[42m0123456789\x1b[m \r\n");     // exactly full, then a blank that wraps
    source.terminal.feed("abcdefghij");                      // the cursor waits to wrap
    Rebuilt rebuilt(source.terminal, 100);
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
    // Neither is compared cell by cell: the first row's mark and the blank left by a wide
    // character that didn't fit.
    EXPECT_TRUE(rebuilt.harness.terminal.buffer().row(0).isWrapped());
    EXPECT_EQ(rebuilt.harness.terminal.buffer().row(1).packedCell(9).widthState(), CellWidthState::spacerHead);

    // The pending wrap is owed on both; reflow reads the wrapped marks.
    feedBoth(source.terminal, rebuilt.harness.terminal, "Z");
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
    source.terminal.resize(7, 6);
    rebuilt.harness.terminal.resize(7, 6);
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
    source.terminal.resize(16, 6);
    rebuilt.harness.terminal.resize(16, 6);
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
}

TEST(TerminalSnapshotStream, TheAlternateScreenIsRebuiltOverTheNormalOne) {
    TerminalHarness source(12, 4);
    source.terminal.feed("shell one\r\nshell two\r\n$ vi\x1b[31m");
    source.terminal.feed("\x1b[?1049h\x1b[H\x1b[7mfile.txt\x1b[m\x1b[3;2H~ edit\x1b[2;5H");
    Rebuilt rebuilt(source.terminal, 10);
    Terminal& copy = rebuilt.harness.terminal;
    expectSameScreen(source.terminal, copy);

    // Leaving the program brings back the same shell screen, cursor and pen on both.
    feedBoth(source.terminal, copy, "\x1b[?1049l");
    expectSameScreen(source.terminal, copy);
    feedBoth(source.terminal, copy, "x\r\n");
    expectSameScreen(source.terminal, copy);
}

TEST(TerminalSnapshotStream, ModesRegionSavedCursorAndTitleComeBack) {
    TerminalHarness source(10, 6);
    source.terminal.feed("\x1b]2;my title\x07" "a\r\nb\r\nc\r\nd\r\ne\r\nf");
    source.terminal.feed("\x1b[3;5H\x1b[4m\x1b" "7\x1b[m");                    // a saved cursor with a pen
    source.terminal.feed("\x1b[2;5r\x1b[?6h\x1b[2;3H\x1b[4h\x1b[?1h\x1b[?2004h"); // region, origin, insert
    source.terminal.feed("\x1b[?1002h\x1b[?1006h\x1b[?1004h\x1b[?25l\x1b[5 q\x1b=\x1b[?7l\x1b[>5u\x1b[?1007l");
    Rebuilt rebuilt(source.terminal, 0);
    Terminal& copy = rebuilt.harness.terminal;
    expectSameScreen(source.terminal, copy);
    EXPECT_EQ(copy.title(), "my title");
    EXPECT_TRUE(copy.originMode && copy.applicationCursor && copy.bracketedPasteMode && copy.sendFocus);
    EXPECT_TRUE(copy.cursorHidden && copy.applicationKeypad && copy.buffer().insertMode);
    EXPECT_FALSE(copy.buffer().wraparound);
    EXPECT_EQ(copy.mouseMode, source.terminal.mouseMode);
    EXPECT_EQ(copy.mouseProtocol, source.terminal.mouseProtocol);
    EXPECT_EQ(copy.cursorStyle, CursorStyle::blinkBar);
    EXPECT_EQ(copy.keyboardEnhancementFlags(), 5u) << "keys are encoded as the program asked";
    EXPECT_FALSE(copy.alternateScrollMode);
    EXPECT_EQ(copy.buffer().scrollTop, 1);
    EXPECT_EQ(copy.buffer().scrollBottom, 4);

    // Inserting, scrolling inside the region, going home under origin mode and restoring
    // the saved cursor all behave alike afterwards.
    feedBoth(source.terminal, copy, "XY\x1b[H!\x1b[4;1H\n\n\nlong line past the edge");
    expectSameScreen(source.terminal, copy);
    feedBoth(source.terminal, copy, "\x1b[4l\x1b[?6l\x1b[r\x1b" "8Q");
    expectSameScreen(source.terminal, copy);
}

TEST(TerminalSnapshotStream, CharacterSetsTabStopsAndColoursComeBack) {
    TerminalHarness source(20, 4);
    source.terminal.feed("\x1b)0\x1b(A\x0e");                                      // G1 line drawing, invoked
    source.terminal.feed("\x1b[3g\x1b[1;4H\x1bH\x1b[1;9H\x1bH\x1b[1;1H");          // stops at 4 and 9 only
    source.terminal.feed("\x1b]10;rgb:ee/ee/ee\x07\x1b]12;rgb:00/ff/00\x07\x1b]4;1;rgb:12/34/56\x07"); // text, cursor, palette
    source.terminal.feed("\x1b]17;rgb:01/02/03\x07\x1b]5;0;rgb:ff/00/00\x07");
    source.terminal.feed("\x1b[2;2H\x1b" "7\x0f\x1b[1;1H");                           // saved with line drawing on
    Rebuilt rebuilt(source.terminal, 0);
    Terminal& copy = rebuilt.harness.terminal;
    expectSameScreen(source.terminal, copy);
    EXPECT_EQ(copy.ansiColors[1], Color::fromBytes(0x12, 0x34, 0x56));
    EXPECT_EQ(copy.foregroundColor, Color::fromBytes(0xee, 0xee, 0xee));
    EXPECT_EQ(copy.cursorColor, Color::fromBytes(0, 0xff, 0));
    EXPECT_EQ(copy.programColors().dynamic[4], Color::fromBytes(1, 2, 3));
    EXPECT_EQ(copy.programColors().special[0], Color::fromBytes(0xff, 0, 0));
    EXPECT_EQ(copy.ansiColors, source.terminal.ansiColors);

    feedBoth(source.terminal, copy, "#q\tq\x0e\tq");
    EXPECT_EQ(copy.lineText(0), "\xc2\xa3q q    \xe2\x94\x80") << "pound from G0, a line from G1, at the stops set";
    expectSameScreen(source.terminal, copy);
    feedBoth(source.terminal, copy, "\x0f\x1b" "8q");
    expectSameScreen(source.terminal, copy);
    EXPECT_EQ(copy.lineText(1), " \xe2\x94\x80") << "the saved cursor kept its character set";
}

TEST(TerminalSnapshotStream, ProtectedCellsStayProtected) {
    TerminalHarness source(12, 2);
    source.terminal.feed("\x1b[1\"qkeep\x1b[0\"qdrop\x1b[1\"q");
    Rebuilt rebuilt(source.terminal, 0);
    Terminal& copy = rebuilt.harness.terminal;
    feedBoth(source.terminal, copy, "more\x1b[1;1H\x1b[?K");
    EXPECT_EQ(copy.lineText(0), "keep    more");
    expectSameScreen(source.terminal, copy);
}

TEST(TerminalSnapshotStream, TheLimitDropsTheOldestHistoryFirst) {
    TerminalHarness source(20, 5, 3000);
    for (int i = 0; i < 2000; ++i) source.terminal.feed("\x1b[1mrow\x1b[m " + std::to_string(i) + "\r\n");
    size_t limit = 4000;
    Rebuilt rebuilt(source.terminal, 2000, 3000, limit);
    EXPECT_LE(rebuilt.stream.size(), limit);
    Buffer& copy = rebuilt.harness.terminal.buffer();
    int kept = copy.scrollbackRows();
    EXPECT_GT(kept, 10);
    EXPECT_LT(kept, 2000);
    Buffer& all = source.terminal.buffer();
    expectSameRows(all, copy, all.yBase - kept, 0, kept, 20);
    expectSameScreen(source.terminal, rebuilt.harness.terminal);
}

// Random mixes of the operations programs use, checked cell by cell after each round.
TEST(TerminalSnapshotStream, RandomScreensAreRebuiltCellForCell) {
    std::mt19937 random(20261122);
    const char* pieces[] = {"hello", " ", "\xe4\xb8\xad", "\xf0\x9f\x98\x80", "e\xcc\x81", "\r\n", "\r", "\n", "\b",
                            "\t", "\x1b[K", "\x1b[1K", "\x1b[2J", "\x1b[J", "\x1b[31m", "\x1b[1;4m", "\x1b[m",
                            "\x1b[48;5;33m", "\x1b[38;2;10;20;30m", "\x1b[7m", "\x1b[3X", "\x1b[2@", "\x1b[2P",
                            "\x1b[L", "\x1b[M", "\x1bM", "\x1b[S", "\x1b[T", "0123456789abcdefghij",
                            "\x1b(0", "\x1b(B", "\x1bH", "\x1b[3g", "\x1b[g"};
    for (int round = 0; round < 200; ++round) {
        TerminalHarness source(12, 5, 50);
        std::string fed;
        for (int step = 0; step < 80; ++step) {
            int pick = int(random() % (std::size(pieces) + 1));
            if (pick == int(std::size(pieces))) {
                fed += "\x1b[" + std::to_string(random() % 6 + 1) + ";" + std::to_string(random() % 13 + 1) + "H";
            } else {
                fed += pieces[pick];
            }
        }
        source.terminal.feed(fed);
        Rebuilt rebuilt(source.terminal, 50, 50);
        SCOPED_TRACE(fed);
        expectSameScreen(source.terminal, rebuilt.harness.terminal);
        Buffer& a = source.terminal.buffer();
        Buffer& b = rebuilt.harness.terminal.buffer();
        ASSERT_EQ(b.scrollbackRows(), a.scrollbackRows());
        expectSameRows(a, b, 0, 0, a.scrollbackRows(), 12);
        feedBoth(source.terminal, rebuilt.harness.terminal, "\x1b(Btail\ttext\tthat wraps\r\n");
        expectSameScreen(source.terminal, rebuilt.harness.terminal);
        if (HasFailure()) break;
    }
}
