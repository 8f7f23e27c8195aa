#include <gtest/gtest.h>

#include <random>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

Attribute attributeAfter(std::string_view sgr) {
    TerminalHarness h(10, 2);
    h.terminal.feed(std::string(sgr) + "x");
    return h.terminal.getCharData(0, 0).attribute;
}

// The pen after `sgr`, fed in two chunks cut at `cut` (none when it is past the end), with a
// bold red pen before it so that what the sequence keeps shows too. `padded` surrounds the
// sequence with carriage returns in the same chunks, so that a whole one is read in the
// middle of a chunk, with bytes to spare on both sides.
Attribute attributeAfterCut(std::string_view sgr, size_t cut, bool padded = false) {
    TerminalHarness h(10, 2);
    const std::string before = padded ? "\r\r\r\r" : "", after = padded ? std::string(16, '\r') : "";
    h.terminal.feed("\x1b[1;31m");
    if (cut < sgr.size()) {
        h.terminal.feed(before + std::string(sgr.substr(0, cut)));
        h.terminal.feed(std::string(sgr.substr(cut)) + after);
    } else {
        h.terminal.feed(before + std::string(sgr) + after);
    }
    h.terminal.feed("x");
    EXPECT_EQ(h.terminal.getCharData(0, 0).attribute, h.terminal.currentAttribute());
    return h.terminal.currentAttribute();
}

} // namespace

TEST(TerminalSgr, UnderlineForms) {
    EXPECT_EQ(attributeAfter("\x1b[4:3m").underlineStyle, UnderlineStyle::curly);
    EXPECT_EQ(attributeAfter("\x1b[4:5m").underlineStyle, UnderlineStyle::dashed);
    EXPECT_EQ(attributeAfter("\x1b[4:9m").underlineStyle, UnderlineStyle::single);
    Attribute cleared = attributeAfter("\x1b[4m\x1b[24m");
    EXPECT_FALSE(cleared.style.contains(CharacterStyle::underline));
    EXPECT_EQ(cleared.underlineStyle, UnderlineStyle::none);
    Attribute doubled = attributeAfter("\x1b[1;21m");
    EXPECT_EQ(doubled.underlineStyle, UnderlineStyle::double_);
    EXPECT_TRUE(doubled.style.contains(CharacterStyle::bold)); // 21 is not "bold off"
    EXPECT_FALSE(attributeAfter("\x1b[4:0m").style.contains(CharacterStyle::underline));
}

// A sequence whole in one chunk takes the parser's direct path and the shortcuts for common
// shapes; cut anywhere it takes the general one. Both must leave the same pen.
TEST(TerminalSgr, SequencesCutAnywhereAgree) {
    using Color = Attribute::Color;
    using Underline = UnderlineStyle;
    constexpr Color red = Color::ansi256(1);
    constexpr CharacterStyle bold = CharacterStyle::bold, underline = CharacterStyle::underline;
    constexpr Attribute boldRed{.fg = red, .style = bold};
    struct Case {
        std::string_view sgr;
        Attribute expected;
    };
    const Case cases[] = {
        {"\x1b[m", Attribute::empty},
        {"\x1b[22;39m", Attribute::empty},
        {"\x1b[38;5;200m", {.fg = Color::ansi256(200), .style = bold}},
        {"\x1b[38;5;1m", boldRed}, // the colour the pen already has
        {"\x1b[48;5;7m", {.fg = red, .bg = Color::ansi256(7), .style = bold}},
        {"\x1b[48;2;1;22;133m", {.fg = red, .bg = Color::trueColor(1, 22, 133), .style = bold}},
        {"\x1b[38;2;999;0;99999999999m", {.fg = Color::trueColor(255, 0, 255), .style = bold}},
        {"\x1b[38:2::1:2:3m", {.fg = Color::trueColor(1, 2, 3), .style = bold}},
        {"\x1b[38:2:4:5:6m", {.fg = Color::trueColor(4, 5, 6), .style = bold}}, // no colour space
        {"\x1b[48:5:9m", {.fg = red, .bg = Color::ansi256(9), .style = bold}},
        {"\x1b[58;2;4;5;6m", {.fg = red, .style = bold, .underlineColor = Color::trueColor(4, 5, 6)}},
        // Shapes next to the common ones, which must not be taken for them.
        {"\x1b[38;5;3;4m", {.fg = Color::ansi256(3), .style = bold | underline, .underlineStyle = Underline::single}},
        {"\x1b[48;2;1;2m", boldRed},
        {"\x1b[38;6;1m", boldRed},
        {"\x1b[28;5;2m", {.fg = red, .style = bold | CharacterStyle::blink | CharacterStyle::dim}},
        {"\x1b[48;5m", boldRed},
        {"\x1b[38;3;1;2;3m", {.fg = red, .style = bold | CharacterStyle::dim | CharacterStyle::italic}},
        {"\x1b[39;2;1;2;3m", {.style = bold | CharacterStyle::dim | CharacterStyle::italic}},
        // Marked or with an intermediate, it is no SGR and the pen stays.
        {"\x1b[?0m", boldRed},
        {"\x1b[0 m", boldRed},
        // Lists of the common renditions, read together.
        {"\x1b[0;1;32;44m", {.fg = Color::ansi256(2), .bg = Color::ansi256(4), .style = bold}},
        {"\x1b[;1m", {.style = bold}},
        {"\x1b[22;92;103m", {.fg = Color::ansi256(10), .bg = Color::ansi256(11)}},
        {"\x1b[49;39;1m", {.style = bold}},
        {"\x1b[38;2;100;200;250;48;5;300m", {.fg = Color::trueColor(100, 200, 250), .bg = Color::ansi256(255), .style = bold}},
        {"\x1b[48;2;1;2;3;38;5;9;1m", {.fg = Color::ansi256(9), .bg = Color::trueColor(1, 2, 3), .style = bold}},
        {"\x1b[0;58;5;3;1m", {.style = bold, .underlineColor = Color::ansi256(3)}},
        {"\x1b[0;4;7m", {.style = underline | CharacterStyle::inverse, .underlineStyle = Underline::single}},
        {"\x1b[1;38;5m", boldRed},
        {"\x1b[0;48;2;1;2m", Attribute::empty},
        // Past what is read as plain: a five-digit number, more than sixteen numbers, a colon.
        {"\x1b[00032m", {.fg = Color::ansi256(2), .style = bold}},
        {"\x1b[38;2;65536;000255;1m", {.fg = Color::trueColor(255, 255, 1), .style = bold}},
        {"\x1b[0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;1;33m", {.fg = Color::ansi256(3), .style = bold}},
        {"\x1b[0;4:3m", {.style = underline, .underlineStyle = Underline::curly}},
    };
    for (const Case& c : cases) {
        for (bool padded : {false, true}) {
            for (size_t cut = 1; cut <= c.sgr.size(); ++cut) {
                SCOPED_TRACE(::testing::Message() << ::testing::PrintToString(std::string(c.sgr)) << " cut at " << cut
                                                  << (padded ? " in a padded chunk" : ""));
                EXPECT_EQ(attributeAfterCut(c.sgr, cut, padded), c.expected);
            }
        }
    }
}

namespace {

// Everything the two terminals could disagree on: every cell of the screen and the history, the
// cursor and the pen. Link codes are handed out once per process, so two terminals given the
// same link hold different codes: only whether a cell has one is compared.
void expectSameState(TerminalHarness& lane, TerminalHarness& general, const std::string& trace) {
    SCOPED_TRACE(trace);
    auto comparable = [](PackedCell cell) {
        bool linked = cell.payloadCode() != 0;
        return PackedCell{(cell.raw & ~(PackedCell::payloadMask << PackedCell::payloadShift)) | uint64_t(linked) << PackedCell::payloadShift};
    };
    ASSERT_EQ(lane.terminal.buffer().scrollbackRows(), general.terminal.buffer().scrollbackRows());
    for (int r = -lane.terminal.buffer().scrollbackRows(); r < lane.terminal.rows(); ++r)
        for (int c = 0; c < lane.terminal.cols(); ++c)
            ASSERT_EQ(comparable(lane.terminal.buffer().row(r).packedCell(c)), comparable(general.terminal.buffer().row(r).packedCell(c)))
                << r << "," << c;
    ASSERT_EQ(lane.x(), general.x());
    ASSERT_EQ(lane.y(), general.y());
    ASSERT_EQ(lane.terminal.currentAttribute(), general.terminal.currentAttribute());
}

// Words and renditions, with everything that must send the lane back to the parser mixed in:
// renditions it does not read, non-ASCII, insert mode, charsets, links, protection, margins and
// cursor moves; and the line ends, scroll regions and line feed mode it must honour itself.
std::string alternation(std::mt19937& random, int pairs) {
    static const std::string interruptions[] = {
        "\x1b[38:2::1:2:3m", "\x1b[?0m", "\x1b[0 m", "\x1b[123456m", "\x1b[1;2;3;4;5;6;7;8;9;0;1;2;3;4;5;6;7;8;9;0;1;2;3;4;5m",
        "\xc3\xa9t\xc3\xa9 ", "\xe4\xb8\xad\xe6\x96\x87", "e\xcc\x81", "\x7f", "\xff", "\x1b[4h", "\x1b[4l",
        "\x1b(0lqk", "\x1b(B", "\x1b]8;;http://x\x1b\\", "\x1b]8;;\x1b\\", "\x1b[1\"q", "\x1b[0\"q",
        "\x1b[?69h\x1b[3;9s", "\x1b[?69l", "\r\n", "\r", "\n", "\x1b[2;4r", "\x1b[r", "\x1b[20h", "\x1b[20l",
        "\x1b[H", "\x1b[K", "\x1b[2;4H", "\x1b[5m\x1b", "\x1b[", "\x1b" "7", "\x1b" "8", "\x1b[!p", "\x1b[58:5:3m",
    };
    std::string out;
    for (int i = 0; i < pairs; ++i) {
        switch (random() % 6) {
        case 0: out += "\x1b[38;2;" + std::to_string(random() % 256) + ";" + std::to_string(random() % 256) + ";7m"; break;
        case 1: out += "\x1b[48;5;" + std::to_string(random() % 300) + "m"; break;
        case 2: out += "\x1b[1;3" + std::to_string(random() % 8) + "m"; break;
        case 3: out += random() % 2 ? "\x1b[m" : "\x1b[;4;00041m"; break;
        case 4: out += "\x1b[22;39;49m"; break;
        default: break; // two words in a row
        }
        for (int n = 1 + int(random() % 9); n > 0; --n) out.push_back(char('a' + random() % 26));
        out.push_back(' ');
        if (random() % 3 == 0) out += interruptions[random() % std::size(interruptions)];
    }
    return out;
}

} // namespace

// The parser hands words and renditions to a loop of the terminal's own while they alternate
// plainly; whatever the chunks, the screen must be the one the general paths give.
TEST(TerminalSgr, TheGroundLaneAgreesWithTheGeneralPaths) {
    std::mt19937 random(19);
    for (int round = 0; round < 60; ++round) {
        std::string text = alternation(random, 120);
        TerminalHarness whole(23, 5, 20), pieces(23, 5, 20), general(23, 5, 20);
        general.terminal.setGroundLane(false);
        general.terminal.feed(text);
        whole.terminal.feed(text);
        for (size_t at = 0; at < text.size();) {
            size_t n = random() % 3 ? 1 + random() % 40 : 1 + random() % 400;
            pieces.terminal.feed(std::string_view(text).substr(at, n));
            at += n;
        }
        expectSameState(whole, general, "whole, round " + std::to_string(round));
        expectSameState(pieces, general, "in pieces, round " + std::to_string(round));
    }
}

// The lane applies plain renditions to the pen's interning key, code by code from a table. Every
// code, alone and followed by others, from pens with and without an underline colour, must give
// the cells and the pen that the general path gives.
TEST(TerminalSgr, PlainRenditionsOnTheKeyAgreeWithTheGeneralPath) {
    const std::string pens[] = {"", "\x1b[1;2;3;4;5;7;8;9;31;42m", "\x1b[4:3;58:2::9:8:7;38;2;1;2;3;48;5;200m", "\x1b[21;95;105m"};
    std::vector<std::string> firsts;
    for (int code = 0; code <= 110; ++code) firsts.push_back(std::to_string(code));
    for (const char* other : {"", "255", "65535", "38;5;300", "48;2;1;2;65535", "38;5", "48;2;1", "38;2;1;2", "38;5;9;1",
                              "58;5;3", "38;7;1", "1;48;5;9", "0;38;2;4;5;6", "48;5;9;0"})
        firsts.push_back(other);
    const char* thens[] = {"0", "1", "4", "22", "24", "30", "39", "49", "59", "38;5;9", "107", "65535", ";3"};
    std::string text;
    for (const std::string& pen : pens) {
        for (const std::string& first : firsts) {
            text += "\x1b[m" + pen + "\x1b[" + first + "mx";
            for (const char* then : thens) text += "\x1b[" + first + ";" + then + "my";
            text += "\r\n";
        }
    }
    TerminalHarness lane(30, 3, 600), general(30, 3, 600);
    general.terminal.setGroundLane(false);
    lane.terminal.feed(text);
    general.terminal.feed(text);
    expectSameState(lane, general, "every plain code");
}

// Past 65,536 renditions the table is full and new ones print in the default style: the lane
// must fall back exactly where the general path does, in the middle of a chunk.
TEST(TerminalSgr, TheGroundLaneFallsBackWhenTheStyleTableFills) {
    std::string text;
    for (int i = 0; i < 70000; ++i)
        text += "\x1b[38;2;" + std::to_string(i & 255) + ";" + std::to_string((i >> 8) & 255) + ";" + std::to_string(i >> 16) + "mw ";
    TerminalHarness lane(97, 4, 50), general(97, 4, 50);
    general.terminal.setGroundLane(false);
    for (size_t at = 0; at < text.size(); at += 65536) {
        lane.terminal.feed(std::string_view(text).substr(at, 65536));
        general.terminal.feed(std::string_view(text).substr(at, 65536));
    }
    expectSameState(lane, general, "after the table filled");
    EXPECT_EQ(lane.terminal.buffer().row(3).packedCell(lane.x() - 2).styleID(), 0);
}

// Answers that only the terminal's own dispatch can give; the report formats themselves are
// pinned with the report builders.
TEST(TerminalReports, AnswersThatDependOnTerminalState) {
    TerminalHarness h(10, 5);
    EXPECT_EQ(h.reply("\x1b[3;4H\x1b[6n"), "\x1b[3;4R");
    EXPECT_EQ(h.reply("\x1b[2;5r\x1b[?6h\x1b[2;2H\x1b[?6n"), "\x1b[?2;2;1R");
    EXPECT_EQ(h.reply("\x1b[>q"), "\x1bP>|Vellum 1.99.1+v1.99.1:\x1b\\");
    EXPECT_EQ(h.reply("\x1b[>1q"), "");
    EXPECT_EQ(h.reply("\x1b[?1049h\x1b[?47$p\x1b[?1049l"), "\x1b[?47;1$y");
    EXPECT_EQ(h.reply("\x1b[?3h\x1b[?3$p"), "\x1b[?3;2$y"); // 132 columns need mode 40 first
    EXPECT_EQ(h.reply("\x1b[1;31m\x1bP$qm\x1b\\"), "\x1bP1$r0;1;31;m\x1b\\"); // palette colours end in ";"
    EXPECT_EQ(h.reply("\x1bP+q544E\x1b\\"), "\x1bP1+r544E=787465726D2D323536636F6C6F72\x1b\\");
}

TEST(TerminalReports, CursorStylesWalkAndNotify) {
    TerminalHarness h(10, 2);
    h.terminal.feed("\x1b[1 q\x1b[2 q\x1b[3 q\x1b[4 q\x1b[5 q\x1b[6 q\x1b[7 q\x1b[6 q\x1b[0 q");
    EXPECT_EQ(h.delegate.styles, (std::vector<CursorStyle>{CursorStyle::steadyBlock,
                                                           CursorStyle::blinkUnderline, CursorStyle::steadyUnderline, CursorStyle::blinkBar,
                                                           CursorStyle::steadyBar, CursorStyle::blinkBlock}));
}

namespace {

// Sets the foreground again from inside its own notification.
class EchoingDelegate : public vellum::testing::RecordingDelegate {
public:
    void setForegroundColor(Terminal& source, Color color) override {
        ++calls;
        source.setForegroundColor(color);
    }
    int calls = 0;
};

} // namespace

TEST(TerminalDelegate, ColourSettersDoNotRecurse) {
    EchoingDelegate delegate;
    Terminal terminal(&delegate);
    terminal.feed("\x1b]10;#ff0000\x07");
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_EQ(terminal.foregroundColor, (Color{0xff00, 0, 0}));

    // Without a delegate, replies are dropped quietly.
    Terminal alone(nullptr);
    alone.feed("\x1b[c\x1b[6n");
    SUCCEED();
}
