#include <gtest/gtest.h>

#include <random>

#include "Platform/Unicode.h"
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

TEST(TerminalPrint, CombiningMarksJoinTheCellBeforeEvenAcrossAWrap) {
    TerminalHarness h(5, 3);
    h.terminal.feed("abcde\xcc\x81"); // e + U+0301 at the last column
    EXPECT_EQ(h.screen()[0], "abcde\xcc\x81");
    EXPECT_EQ(h.x(), 5);
    // At column 0 of a continuation row a combining mark reaches the last cell of the row above.
    TerminalHarness wrap(3, 3);
    wrap.terminal.feed("abcd\x1b[D\xcc\x81");
    EXPECT_EQ(wrap.screen(), (Rows{"abc\xcc\x81", "d", ""}));

    TerminalHarness keycap(6, 2);
    keycap.terminal.feed("1\xef\xb8\x8f|"); // a keycap base stays narrow under VS16
    EXPECT_EQ(keycap.terminal.getCharData(1, 0).getCharacter(), U"|");
}

TEST(TerminalPrint, BrokenUtf8BecomesReplacementCharacters) {
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

TEST(TerminalPrint, ClampedCursorAndSize) {
    TerminalHarness h(3, 2);
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

namespace {

std::u32string cellScalars(Terminal& terminal, int col, int row) { return terminal.getCharData(col, row).getCharacter(); }
CellWidthState widthAt(Terminal& terminal, int col, int row) { return terminal.buffer().row(row).packedCell(col).widthState(); }

// Fed a byte at a time, text takes none of the shortcuts a whole chunk may: both feeds must
// leave the same cells and cursor.
void expectSameFedBytewise(int cols, int rows, std::string_view text, const std::string& trace) {
    TerminalHarness whole(cols, rows), bytewise(cols, rows);
    whole.terminal.feed(text);
    for (char c : text) bytewise.terminal.feed(std::string_view(&c, 1));
    ASSERT_EQ(whole.cells(), bytewise.cells()) << trace;
    ASSERT_EQ(whole.x(), bytewise.x()) << trace;
}

} // namespace

TEST(TerminalPrint, LongRunsWrapRowByRowAndScrollIntoHistory) {
    TerminalHarness h(4, 2, 10);
    h.terminal.feed("abcdefghijklmn"); // 14 cells: three full rows and two on the fourth
    EXPECT_EQ(h.screen(), (Rows{"ijkl", "mn"}));
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 2);
    EXPECT_EQ(h.terminal.buffer().lines[0].translateToString(true), "abcd");
    for (int line = 1; line < 4; ++line) EXPECT_TRUE(h.terminal.buffer().lines[line].isWrapped()) << line;
    EXPECT_EQ(h.x(), 2);

    // Inside left and right margins a run wraps between them and leaves the rest of the row alone.
    TerminalHarness m(8, 3);
    m.terminal.feed("--------\r\n--------\x1b[?69h\x1b[3;6s\x1b[1;3HABCDEFG");
    EXPECT_EQ(m.screen(), (Rows{"--ABCD--", "--EFG---", ""}));

    // Without autowrap a wide character that does not fit is dropped, and the last byte of an
    // overlong run is what the last column keeps (cutting the wide character there).
    TerminalHarness off(4, 1);
    off.terminal.feed("\x1b[?7lab\xe4\xb8\xad\xe4\xb8\xadxyz");
    EXPECT_EQ(off.screen(), (Rows{"ab z"}));
}

TEST(TerminalPrint, RunsHealTheWideCharactersTheyCut) {
    // A run that starts on the tail of a wide character and ends on the head of another.
    TerminalHarness h(8, 1);
    h.terminal.feed("\xe4\xb8\xad\xe4\xb8\xad\xe4\xb8\xad\x1b[1;2Hxy");
    EXPECT_EQ(h.screen(), (Rows{" xy \xe4\xb8\xad"}));
    EXPECT_EQ(widthAt(h.terminal, 0, 0), CellWidthState::narrow);
    EXPECT_EQ(widthAt(h.terminal, 3, 0), CellWidthState::narrow);
    EXPECT_EQ(widthAt(h.terminal, 4, 0), CellWidthState::wide);

    // A wide run on an odd width leaves a spacer head at every row end.
    TerminalHarness cjk(5, 3);
    cjk.terminal.feed("\xe4\xb8\x80\xe4\xb8\x81\xe4\xb8\x82\xe4\xb8\x83\xe4\xb8\x84");
    EXPECT_EQ(cjk.screen(), (Rows{"\xe4\xb8\x80\xe4\xb8\x81", "\xe4\xb8\x82\xe4\xb8\x83", "\xe4\xb8\x84"}));
    EXPECT_EQ(widthAt(cjk.terminal, 4, 0), CellWidthState::spacerHead);
    EXPECT_EQ(widthAt(cjk.terminal, 4, 1), CellWidthState::spacerHead);
    EXPECT_EQ(cjk.x(), 2);
}

// Words written in place into a row that stores more words than it has been written: the
// columns between and past them keep the row's blank, here a coloured one, on the screen and
// once the row has scrolled into the scrollback.
TEST(TerminalPrint, WordsWrittenInPlaceLeaveTheRowsBlankAroundThem) {
    TerminalHarness h(12, 2, 10);
    h.terminal.feed("\x1b[41m\x1b[2K\x1b[m\x1b[5Gab\x1b[1Gxyz\x1b[9Gcd");
    const Attribute::Color red = Attribute::Color::ansi256(1), none = Attribute::Color::defaultColor();
    auto backgrounds = [&](BufferLine& line) {
        std::string marks;
        for (int col = 0; col < line.count(); ++col) {
            Attribute::Color bg = line.view(col).attribute().bg;
            marks += bg == red ? 'r' : bg == none ? '.' : '?';
        }
        return marks;
    };
    EXPECT_EQ(h.screen()[0], "xyz ab  cd");
    EXPECT_EQ(backgrounds(h.terminal.buffer().row(0)), "...r..rr..rr");
    h.terminal.feed("\r\n\n");
    BufferLine& history = h.terminal.buffer().lines[0];
    EXPECT_EQ(history.translateToString(true), "xyz ab  cd");
    EXPECT_EQ(backgrounds(history), "...r..rr..rr");
    h.terminal.resize(16, 2);
    EXPECT_EQ(h.terminal.buffer().lines[0].translateToString(true), "xyz ab  cd");
}

TEST(TerminalPrint, InsertModeShiftsWithinTheMargins) {
    TerminalHarness h(8, 2);
    h.terminal.feed("abcdefgh\x1b[?69h\x1b[1;6s\x1b[1;2H\x1b[4hXY\xe4\xb8\xad");
    // Columns 2..6 shift right; what passes the right margin is lost, column 7 keeps "g", "h".
    EXPECT_EQ(h.screen()[0], "aXY\xe4\xb8\xad" "bgh");
    EXPECT_EQ(h.x(), 5);
}

TEST(TerminalPrint, GraphemeClustersShareOneCell) {
    // Where clusters break is Unicode's test; here a character of width one that the break rules
    // join (SSA after a virama) goes into the cell before it.
    TerminalHarness h(10, 1);
    h.terminal.feed("\xe0\xa4\x95\xe0\xa5\x8d\xe0\xa4\xb7|"); // KA VIRAMA SSA
    EXPECT_EQ(cellScalars(h.terminal, 0, 0), U"\u0915\u094D\u0937");
    EXPECT_EQ(cellScalars(h.terminal, 1, 0), U"|");

    // A modifier joins a modifier base; after anything else it is an emoji of its own.
    TerminalHarness mod(10, 1);
    mod.terminal.feed("\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd" "a\xf0\x9f\x8f\xbd");
    EXPECT_EQ(cellScalars(mod.terminal, 0, 0), U"\U0001F44D\U0001F3FD");
    EXPECT_EQ(cellScalars(mod.terminal, 2, 0), U"a");
    EXPECT_EQ(cellScalars(mod.terminal, 3, 0), U"\U0001F3FD");
    EXPECT_EQ(mod.x(), 5);

    // Regional indicators pair up: three make one flag and a lone indicator.
    TerminalHarness flags(10, 1);
    flags.terminal.feed("\xf0\x9f\x87\xab\xf0\x9f\x87\xb7\xf0\x9f\x87\xa9");
    EXPECT_EQ(cellScalars(flags.terminal, 0, 0), U"\U0001F1EB\U0001F1F7");
    EXPECT_EQ(cellScalars(flags.terminal, 2, 0), U"\U0001F1E9");
    EXPECT_EQ(flags.x(), 4);

    // A mark with nothing before it is dropped, and so is one after a cursor move onto a blank.
    TerminalHarness lone(10, 1);
    lone.terminal.feed("\xcc\x81" "a\x1b[3G\xcc\x81" "b");
    EXPECT_EQ(lone.screen()[0], "a b");
    EXPECT_EQ(cellScalars(lone.terminal, 0, 0), U"a");
}

TEST(TerminalPrint, PresentationSelectorsChangeTheWidth) {
    // VS16 at the last column: the widened emoji moves to the next row.
    TerminalHarness edge(4, 3);
    edge.terminal.feed("abc\xe2\x9d\xa4\xef\xb8\x8f!");
    EXPECT_EQ(edge.screen(), (Rows{"abc", "\xe2\x9d\xa4\xef\xb8\x8f!", ""}));
    EXPECT_EQ(widthAt(edge.terminal, 0, 1), CellWidthState::wide);
    EXPECT_EQ(edge.x(), 3);

    // Inside wide text the widened pair is written like any wide character; where it cannot
    // fit beside the text before it, it goes to the next row as on its own. Fed whole or a
    // byte at a time, the cells are the same.
    struct Case {
        int cols;
        const char* text;
        Rows screen;
        int heartCol, heartRow;
    };
    for (Case c : std::initializer_list<Case>{
             {6, "\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f|", {"\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f|", "", ""}, 2, 0},
             {5, "\xe4\xb8\xad\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f|",
              {"\xe4\xb8\xad\xe4\xb8\xad", "\xe2\x9d\xa4\xef\xb8\x8f|", ""}, 0, 1},
             {4, "\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f|", {"\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f", "|", ""}, 2, 0},
             {3, "\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f|", {"\xe4\xb8\xad", "\xe2\x9d\xa4\xef\xb8\x8f|", ""}, 0, 1},
         }) {
        TerminalHarness whole(c.cols, 3);
        whole.terminal.feed(c.text);
        EXPECT_EQ(whole.screen(), c.screen) << c.cols;
        EXPECT_EQ(widthAt(whole.terminal, c.heartCol, c.heartRow), CellWidthState::wide) << c.cols;
        expectSameFedBytewise(c.cols, 3, c.text, std::to_string(c.cols));
    }

    // VS15 narrows a wide emoji and the cursor steps back.
    TerminalHarness text(6, 1);
    text.terminal.feed("\xe2\x8c\x9a\xef\xb8\x8e|"); // U+231A WATCH
    EXPECT_EQ(widthAt(text.terminal, 0, 0), CellWidthState::narrow);
    EXPECT_EQ(cellScalars(text.terminal, 1, 0), U"|");

    // VS16 on a narrow character in insert mode pushes the row right instead of covering it.
    TerminalHarness insert(6, 1);
    insert.terminal.feed("xyz\r\x1b[4h\xe2\x9c\x8c\xef\xb8\x8f"); // U+270C
    EXPECT_EQ(insert.screen()[0], "\xe2\x9c\x8c\xef\xb8\x8fxyz");
    EXPECT_EQ(insert.x(), 2);

    // A ZWJ sequence stays in the cell of its first emoji, split across feeds or not.
    TerminalHarness zwj(8, 1);
    zwj.terminal.feed("\xf0\x9f\x91\xa9\xe2\x80");
    zwj.terminal.feed("\x8d\xf0\x9f\x94");
    zwj.terminal.feed("\xac|");
    EXPECT_EQ(cellScalars(zwj.terminal, 0, 0), U"\U0001F469\u200D\U0001F52C");
    EXPECT_EQ(cellScalars(zwj.terminal, 2, 0), U"|");
}

TEST(TerminalPrint, ErasedCellsKeepOnlyTheBackground) {
    TerminalHarness h(10, 2);
    h.terminal.feed("\x1b[2;1H\x1b[1;31;4;42m\x1b[K");
    CharData erased = h.terminal.getCharData(3, 1);
    EXPECT_EQ(erased.code, 0);
    EXPECT_EQ(erased.attribute.bg, Attribute::Color::ansi256(2));
    EXPECT_EQ(erased.attribute.fg, Attribute::Color::defaultColor());
    EXPECT_TRUE(erased.attribute.style.isEmpty());
    // A true colour keeps its channels in order; the default background erases to the plain blank.
    h.terminal.feed("\x1b[48;2;1;2;3m\x1b[5G\x1b[K\x1b[49m\x1b[8G\x1b[K");
    EXPECT_EQ(h.terminal.getCharData(5, 1).attribute.bg, Attribute::Color::trueColor(1, 2, 3));
    EXPECT_EQ(h.terminal.getCharData(8, 1).attribute, Attribute::empty);
}

TEST(TerminalPrint, HowTheBytesAreChunkedNeverChangesTheScreen) {
    // Text mixing every road of the print path, fed whole and then in random pieces.
    const std::string pieces[] = {"plain ascii ", "\xe4\xb8\xad\xe6\x96\x87", "e\xcc\x81", "\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd",
                                  "\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x91\xa7", "\xf0\x9f\x87\xab\xf0\x9f\x87\xb7",
                                  "\xe2\x9d\xa4\xef\xb8\x8f", "\xe1\x84\x80\xe1\x85\xa1", "\x1b[31m", "\x1b[m", "\r\n", "\xff",
                                  "\x1b(0lqk\x1b(B", "\xe0\xa4\x95\xe0\xa5\x8d\xe0\xa4\xb7"};
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        std::string text;
        for (int i = 0; i < 60; ++i) text += pieces[random() % std::size(pieces)];
        TerminalHarness whole(13, 6), split(13, 6);
        whole.terminal.feed(text);
        for (size_t at = 0; at < text.size();) {
            size_t n = 1 + random() % 7;
            split.terminal.feed(std::string_view(text).substr(at, n));
            at += n;
        }
        ASSERT_EQ(whole.cells(), split.cells()) << round;
        ASSERT_EQ(whole.x(), split.x());
    }
}

// Short words are checked for printable ASCII a whole word at a time; one odd byte must be
// found wherever it sits. Fed a byte at a time, nothing takes that road.
TEST(TerminalPrint, AnOddByteAnywhereInAShortWordIsFound) {
    for (std::string odd : {"\x7f", "\xc3\xa9", "\xff"}) {
        for (size_t length = 4; length <= 17; ++length) {
            for (size_t at = 0; at < length; ++at) {
                std::string word(length, 'a');
                word.replace(at, 1, odd);
                ASSERT_NO_FATAL_FAILURE(expectSameFedBytewise(40, 2, "\x1b[1m" + word + "\x1b[m",
                                                              std::to_string(length) + "," + std::to_string(at)));
            }
        }
    }
}

// Runs are written in blocks that overlap; a run of any length, anywhere on a written row,
// changes exactly its own cells, as the same text fed a byte at a time does.
TEST(TerminalPrint, RunsOfEveryLengthWriteExactlyTheirCells) {
    for (int length = 1; length <= 20; ++length) {
        for (int column : {0, 3, 17}) {
            std::string word;
            for (int i = 0; i < length; ++i) word += char('a' + i);
            std::string text = std::string(24, '.') + "\x1b[" + std::to_string(column + 1) + "G\x1b[1m" + word + "\x1b[m";
            ASSERT_NO_FATAL_FAILURE(expectSameFedBytewise(24, 3, text, std::to_string(length) + "," + std::to_string(column)));
        }
    }
}

TEST(TerminalPrint, IdeographsTakeTheShortRoadOnlyWhileTheTablesAgree) {
    // The print path writes U+4E00..U+9FFF without asking the tables: every one must be two
    // columns wide with no grapheme role, or the shortcut would print them wrongly.
    for (char32_t scalar = 0x4E00; scalar <= 0x9FFF; ++scalar) {
        ASSERT_EQ(platform::unicode::width(scalar), 2) << std::hex << uint32_t(scalar);
        ASSERT_EQ(platform::unicode::propertyByte(scalar), 0) << std::hex << uint32_t(scalar);
    }
}

// Ideographs, plain wide emoji, modifiers and VS16 widenings are batched straight from the bytes
// while a run of wide text lasts; anything else must leave that road. Fed a byte at a time,
// nothing takes it, so both feeds must agree, also where the row wraps.
TEST(TerminalPrint, WideRunsLeaveTheShortRoadForAnythingThatMayJoin) {
    const char* cases[] = {
        "\xe4\xb8\xad\xf0\x9f\x98\x80\xe6\x96\x87",                                 // plain emoji
        "\xe4\xb8\xad\xf0\xa0\x80\x80\xe6\x96\x87",                                 // ideograph beyond the BMP
        "\xe4\xb8\xad\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x91\xa7\xe6\x96\x87",     // joiner sequence
        "\xe4\xb8\xad\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd\xe6\x96\x87",                 // modifier on its base
        "\xe4\xb8\xad\xf0\x9f\x8f\xbd\xe6\x96\x87",                                 // modifier after an ideograph
        "\xe4\xb8\xad\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd\xf0\x9f\x8f\xbd",                 // two modifiers
        "\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f\xe6\x96\x87",                         // widened by VS16
        "\xe4\xb8\xad\xe4\xb8\xad\xe4\xb8\xad\xe2\x9d\xa4\xef\xb8\x8f\xe6\x96\x87", // widened at the last column
        "\xe4\xb8\xad\xe2\x9c\x94\xef\xb8\x8f\xf0\x9f\x8f\xbd",                     // widened, then a modifier
        "\xe4\xb8\xad\xe2\x9d\xa4\xf0\x9f\x98\x80",                                 // narrow, no selector
        "\xe4\xb8\xad\xf0\x9f\x87\xab\xf0\x9f\x87\xb7\xe6\x96\x87",                 // flag
        "\xe4\xb8\xad\xf0\x9f\x98\x80\xef\xb8\x8e\xe6\x96\x87",                     // text presentation
        "\xe4\xb8\xad\xf3\xa0\x80\x81\xf0\x9f\x98\x80",                             // tag character
        "\xe4\xb8\xad\xd8\x80\xf0\x9f\x98\x80",                                     // prepend before an emoji
        "\xe4\xb8\xad\xf0\x9f\x98\xe6\x96\x87",                                     // truncated
        "\xe4\xb8\xad\xf0\x80\x9f\x98\x80\xe6\x96\x87",                             // overlong
        "\xe4\xb8\xad\xe4\xb8\xad\xe4\xb8\xad\xf0\x9f\x98\x80\xf0\x9f\x98\x80\xe6\x96\x87\xe6\x96\x87", // wraps
    };
    for (const char* text : cases) {
        ASSERT_NO_FATAL_FAILURE(expectSameFedBytewise(9, 4, std::string("ab") + text + "\r\n", text));
    }
}
