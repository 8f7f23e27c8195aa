#include <gtest/gtest.h>

#include "Tools/corvex/AttachKeys.h"
#include "Tools/corvex/AttachScreen.h"
#include "Vellum/HeadlessTerminal.h"

using namespace corvex;
using namespace corvex::cli;

namespace {

vellum::TerminalOptions sized(int cols, int rows) {
    vellum::TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    return options;
}

// A pane's terminal fed with `bytes`, composed into a client of that size.
ScreenFrame frameOf(const std::string& bytes, int paneCols, int paneRows, int cols, int rows, std::string_view status) {
    vellum::HeadlessTerminal pane(sized(paneCols, paneRows));
    pane.feed(bytes);
    auto content = pane.terminal->contentSnapshot(vellum::TerminalContentRegion::viewport(), false);
    return composeFrame(content, !pane.terminal->cursorHidden, cols, rows, status);
}

} // namespace

// The painter's output, fed to a second terminal, must leave it showing the frame, whatever
// the frames before it were.
TEST(ScreenPainter, ItsBytesReproduceEachFrameOnTheUsersTerminal) {
    vellum::HeadlessTerminal user(sized(30, 6));
    ScreenPainter painter;
    auto check = [&](const ScreenFrame& frame) {
        user.feed(painter.paint(frame));
        for (int row = 0; row < frame.rows; ++row) {
            std::string expected;
            for (int col = 0; col < frame.cols; ++col) {
                if (frame.at(col, row).width != 0) expected += frame.at(col, row).text;
            }
            std::string shown = user.terminal->lineText(row);
            for (auto* text : {&expected, &shown}) {
                while (!text->empty() && text->back() == ' ') text->pop_back();
            }
            EXPECT_EQ(shown, expected) << "row " << row;
        }
        auto state = user.terminal->contentSnapshot(vellum::TerminalContentRegion::viewport(), false);
        EXPECT_EQ(state.cursorColumn, frame.cursorCol);
        EXPECT_EQ(state.cursorRow - state.liveTopRow, frame.cursorRow);
        EXPECT_EQ(user.terminal->cursorHidden, !frame.cursorVisible);
    };
    check(frameOf("hello\r\n\x1b[31mred\x1b[m", 30, 5, 30, 6, " host | work | 1:sh*"));
    // Wide characters, a change in the middle of a row, a hidden cursor.
    check(frameOf("hello\r\n\x1b[31mred\x1b[m \xe4\xb8\xad\xe6\x96\x87 ok\x1b[?25l", 30, 5, 30, 6, " host | work"));
    check(frameOf("he\xe4\xb8\xadlo\r\n", 30, 5, 30, 6, " host | work"));
    // A smaller pane inside: the rest is filled, the status line stays at the bottom.
    auto small = frameOf("x", 10, 3, 30, 6, "status");
    EXPECT_EQ(small.at(10, 0).text, "\u00b7");
    EXPECT_EQ(small.at(0, 4).text, "\u00b7") << "below the pane too";
    check(small);
    EXPECT_EQ(painter.paint(small), "\x1b[1;2H") << "an unchanged frame costs only the cursor's place";
}

TEST(ScreenPainter, StatusLinesLongerThanTheScreenAreCutAndNarrowScreensStillHoldThePane) {
    auto frame = frameOf("0123456789ABCDEF", 16, 2, 8, 3, "a status line far too long");
    EXPECT_EQ(frame.at(7, 0).text, "7") << "the pane is cut at the right edge";
    EXPECT_EQ(frame.at(7, 2).text, "s") << "\"a status\" and no more";
    EXPECT_TRUE(frame.at(0, 2).attribute.style.contains(vellum::CharacterStyle::inverse));
}

TEST(ColorReplies, BothTerminatorsAndAnyDigitCountAreRead) {
    std::string replies = "\x1b]10;rgb:ffff/ffff/ffff\x1b\\\x1b]11;rgb:00/80/ff\x07";
    for (int index = 0; index < 16; ++index) replies += "\x1b]4;" + std::to_string(index) + ";rgb:1/2/3\x1b\\";
    replies += "\x1b[?62;22c";
    auto colors = parseColorReplies(replies);
    ASSERT_TRUE(colors);
    EXPECT_EQ(colors->foreground, 0xffffffu);
    EXPECT_EQ(colors->background, 0x0080ffu);
    ASSERT_TRUE(colors->ansi);
    EXPECT_EQ(colors->ansi->size(), 16u);
    EXPECT_EQ(colors->ansi->front(), 0x112233u);

    EXPECT_FALSE(parseColorReplies("\x1b]10;rgb:ff/ff/ff\x1b\\\x1b[?62c")) << "no background: nothing to tell";
    auto partial = parseColorReplies("\x1b]10;rgb:ff/ff/ff\x1b\\\x1b]11;rgb:zz/00/00\x1b\\\x1b]11;rgb:0/0/0\x1b\\");
    ASSERT_TRUE(partial) << "a garbled answer is skipped";
    EXPECT_FALSE(partial->ansi) << "a palette is sent whole or not at all";
    EXPECT_EQ(colorQueries().substr(colorQueries().size() - 3), "\x1b[c");
}

TEST(PrefixReader, ActionsAreTakenOutOfTypedBytesAcrossReads) {
    PrefixReader reader('\x1c');
    using Items = std::vector<PrefixReader::Item>;
    EXPECT_EQ(reader.feed("ls\r"), (Items{std::string("ls\r")}));
    EXPECT_EQ(reader.feed("ab\x1c" "dcd"), (Items{std::string("ab"), AttachAction::detach, std::string("cd")}));
    EXPECT_EQ(reader.feed("x\x1c"), (Items{std::string("x")})) << "the prefix waits for its key";
    EXPECT_EQ(reader.feed("n"), (Items{AttachAction::nextTab}));
    EXPECT_EQ(reader.feed("\x1c\x1c" "q"), (Items{std::string("\x1c" "q")})) << "twice sends it once";
    EXPECT_EQ(reader.feed("\x1c" "Z" "y"), (Items{std::string("y")})) << "an unbound key is dropped";
    EXPECT_EQ(reader.feed("\x1c["), (Items{AttachAction::scrollback}));
    EXPECT_NE(commandHelp("attach")->find("  [   scrollback view"), std::string::npos);

    EXPECT_EQ(parsePrefixKey("C-a"), '\x01');
    EXPECT_EQ(parsePrefixKey("C-\\"), '\x1c');
    EXPECT_EQ(parsePrefixKey("c-B"), '\x02');
    EXPECT_EQ(parsePrefixKey("a"), std::nullopt);
    EXPECT_EQ(parsePrefixKey("C-1"), std::nullopt);
    EXPECT_EQ(prefixName('\x01'), "Ctrl-a");
}

namespace {

// The history of a 20x5 terminal fed "line 0" to "line 99" and then `extra`.
std::vector<vellum::TerminalContentRowSnapshot> numberedHistory(const std::string& extra = "") {
    auto options = sized(20, 5);
    options.scrollback = 1000;
    vellum::HeadlessTerminal pane(options);
    for (int line = 0; line < 100; ++line) pane.feed("line " + std::to_string(line) + (line < 99 ? "\r\n" : ""));
    pane.feed(extra);
    return pane.terminal->contentSnapshot(vellum::TerminalContentRegion::history(1000), false).rows;
}

std::string rowText(const ScreenFrame& frame, int row) {
    std::string text;
    for (int col = 0; col < frame.cols; ++col) text += frame.at(col, row).text;
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

} // namespace

TEST(ScrollbackView, OpensAtTheBottomAndMovesWithinTheHistory) {
    ScrollbackView view(numberedHistory(), 4);
    ASSERT_EQ(view.rowCount(), 100);
    EXPECT_EQ(view.top(), 96);
    EXPECT_EQ(rowText(view.frame(20, 5), 3), "line 99");
    EXPECT_NE(view.status().find("[scrollback 100/100]"), std::string::npos);

    // k and Up each go one row back; paging never goes past the live screen nor above the oldest row.
    for (auto [keys, top] : {std::pair{"k\x1b[A", 94}, {"\x1b[5~\x1bOB", 91}, {"\x1b[6~\x1b[6~j", 96}, {"\x1b[H\x1b[A", 0}}) {
        EXPECT_TRUE(view.feed(keys));
        EXPECT_EQ(view.top(), top) << keys;
    }
    auto frame = view.frame(20, 5);
    EXPECT_EQ(rowText(frame, 0), "line 0");
    EXPECT_FALSE(frame.cursorVisible);
    EXPECT_NE(view.status().find("[scrollback 4/100]"), std::string::npos);
    EXPECT_TRUE(view.feed("\x1b[F"));
    EXPECT_EQ(view.top(), 96);

    view.setHeight(10);
    EXPECT_EQ(view.top(), 90) << "a taller screen still ends at the newest row";
    EXPECT_FALSE(view.feed("q"));
    ScrollbackView escaped(numberedHistory(), 4);
    EXPECT_FALSE(escaped.feed("\x1b")) << "Esc alone leaves";
}

TEST(ScrollbackView, SearchGoesOlderRevealsAndHighlightsTheMatch) {
    ScrollbackView view(numberedHistory("\r\nab  ab \xe4\xb8\xad\xe6\x96\x87" "ab"), 4);
    using Match = ScrollbackView::Match;
    EXPECT_TRUE(view.feed("/ab"));
    EXPECT_TRUE(view.frame(20, 5).cursorVisible) << "the cursor waits on the typed search";
    EXPECT_NE(view.status().find("search: ab"), std::string::npos);
    EXPECT_TRUE(view.feed("\r"));
    // Matches in one row go right to left, columns counting a wide character twice.
    EXPECT_EQ(view.match(), (Match{100, 11, 2}));
    for (auto [keys, match] : {std::pair{"n", Match{100, 4, 2}}, {"N", Match{100, 11, 2}}}) {
        EXPECT_TRUE(view.feed(keys));
        EXPECT_EQ(view.match(), match) << keys;
    }

    EXPECT_TRUE(view.feed("/lix\x7fne 4\r"));
    EXPECT_EQ(view.match(), (Match{49, 0, 6})) << "the newest older match, after a backspace fixed the text";
    EXPECT_LE(view.top(), 49);
    EXPECT_GT(view.top() + 4, 49) << "the view moved to show it";
    auto frame = view.frame(20, 5);
    int shownRow = 49 - view.top();
    EXPECT_EQ(rowText(frame, shownRow), "line 49");
    EXPECT_TRUE(frame.at(5, shownRow).attribute.style.contains(vellum::CharacterStyle::inverse));
    EXPECT_FALSE(frame.at(6, shownRow).attribute.style.contains(vellum::CharacterStyle::inverse));
    for (auto [keys, match] : {std::pair{"nn", Match{47, 0, 6}}, {"N", Match{48, 0, 6}}}) {
        EXPECT_TRUE(view.feed(keys));
        EXPECT_EQ(view.match(), match) << keys;
    }

    EXPECT_TRUE(view.feed("/zzz\r"));
    EXPECT_EQ(view.match(), (Match{48, 0, 6})) << "a search that finds nothing keeps the match";
    EXPECT_NE(view.status().find("no match"), std::string::npos);
    EXPECT_TRUE(view.feed("/abc\x1b"));
    EXPECT_EQ(view.status().find("search:"), std::string::npos) << "Esc drops the prompt, not the view";
    EXPECT_FALSE(view.feed("\x1b"));
}

namespace {

// A pane's terminal of that size fed with `bytes`, kept alive for the tiles that show it.
struct TilePane {
    vellum::HeadlessTerminal terminal;
    vellum::TerminalContentSnapshot content;

    TilePane(int cols, int rows, const std::string& bytes) : terminal(sized(cols, rows)) {
        terminal.feed(bytes);
        content = terminal.terminal->contentSnapshot(vellum::TerminalContentRegion::viewport(), false);
    }
    PaneTile tile(CellRect rect) const { return PaneTile{&content, !terminal.terminal->cursorHidden, rect}; }
};

} // namespace

TEST(TiledPanes, SideBySidePanesShareTheScreenWithALineBetweenAndTheFocusedCursor) {
    auto layout = tileLayout(Layout::split(7, Axis::horizontal, 0.5, Layout::leaf(1), Layout::leaf(2)), 21, 5);
    ASSERT_EQ(layout.panes.at(1), (CellRect{0, 0, 10, 5}));
    ASSERT_EQ(layout.panes.at(2), (CellRect{11, 0, 10, 5}));
    ASSERT_EQ(layout.dividers.size(), 1u);

    TilePane left(10, 5, "left\r\n$ "), right(10, 5, "right\r\n> ab");
    std::vector<PaneTile> tiles{left.tile(layout.panes.at(1)), right.tile(layout.panes.at(2))};
    auto frame = composeTiles(tiles, layout, 1, 21, 6, "status");
    EXPECT_EQ(rowText(frame, 0), "left      \u2502right");
    EXPECT_EQ(rowText(frame, 1), "$         \u2502> ab");
    for (int row = 0; row < 5; ++row) EXPECT_EQ(frame.at(10, row).text, "\u2502") << "row " << row;
    EXPECT_EQ(rowText(frame, 5), "status") << "the status line stays below every pane";
    EXPECT_TRUE(frame.cursorVisible);
    EXPECT_EQ(std::pair(frame.cursorCol, frame.cursorRow), std::pair(15, 1)) << "the right pane's cursor, moved by its place on screen";

    auto leftFocused = composeTiles(tiles, layout, 0, 21, 6, "status");
    EXPECT_EQ(std::pair(leftFocused.cursorCol, leftFocused.cursorRow), std::pair(2, 1));

    // What the painter sends leaves the user's terminal showing both panes.
    vellum::HeadlessTerminal user(sized(21, 6));
    ScreenPainter painter;
    user.feed(painter.paint(frame));
    EXPECT_EQ(user.terminal->lineText(0).substr(0, 10), "left      ");
    EXPECT_NE(user.terminal->lineText(1).find("> ab"), std::string::npos);
}

TEST(TiledPanes, StackedPanesAreCutOrFilledToTheirRectanglesAndHideACursorOutsideThem) {
    auto layout = tileLayout(Layout::split(7, Axis::vertical, 0.5, Layout::leaf(1), Layout::leaf(2)), 10, 6);
    ASSERT_EQ(layout.panes.at(1), (CellRect{0, 0, 10, 3}));
    ASSERT_EQ(layout.panes.at(2), (CellRect{0, 4, 10, 2}));

    // The top pane's terminal is still narrower, the bottom one still taller, than its place:
    // the daemon hasn't answered the resize yet.
    TilePane top(6, 3, "top"), bottom(12, 3, "one\r\ntwo\r\nthree");
    std::vector<PaneTile> tiles{top.tile(layout.panes.at(1)), bottom.tile(layout.panes.at(2))};
    auto frame = composeTiles(tiles, layout, 1, 10, 7, "");
    EXPECT_EQ(rowText(frame, 0), "top   \u00b7\u00b7\u00b7\u00b7");
    std::string line;
    for (int i = 0; i < 10; ++i) line += "\u2500";
    EXPECT_EQ(rowText(frame, 3), line);
    EXPECT_EQ(rowText(frame, 4), "one");
    EXPECT_EQ(rowText(frame, 5), "two") << "the third row lies beyond the pane's place";
    EXPECT_FALSE(frame.cursorVisible) << "the focused pane's cursor is on its cut-off row";

    auto topFocused = composeTiles(tiles, layout, 0, 10, 7, "");
    EXPECT_TRUE(topFocused.cursorVisible);
    EXPECT_EQ(std::pair(topFocused.cursorCol, topFocused.cursorRow), std::pair(3, 0));
}

TEST(TiledPanes, NestedSplitsKeepTheirLinesInsideTheirOwnSideAndCutWideCharactersAtAnEdge) {
    auto tree = Layout::split(1, Axis::horizontal, 0.5, Layout::leaf(1),
                              Layout::split(2, Axis::vertical, 0.5, Layout::leaf(2), Layout::leaf(3)));
    auto layout = tileLayout(tree, 9, 5);
    ASSERT_EQ(layout.panes.at(1), (CellRect{0, 0, 4, 5}));
    ASSERT_EQ(layout.panes.at(3), (CellRect{5, 3, 4, 2}));

    TilePane wide(6, 5, "abc\xe4\xb8\xad"), upper(4, 2, ""), lower(4, 2, "x");
    std::vector<PaneTile> tiles{wide.tile(layout.panes.at(1)), upper.tile(layout.panes.at(2)),
                                lower.tile(layout.panes.at(3))};
    auto frame = composeTiles(tiles, layout, 2, 9, 6, "");
    for (int row = 0; row < 5; ++row) EXPECT_EQ(frame.at(4, row).text, "\u2502") << "row " << row;
    EXPECT_EQ(frame.at(3, 2).text, " ") << "the right side's line doesn't cross into the left pane";
    EXPECT_EQ(frame.at(5, 2).text, "\u2500");
    EXPECT_EQ(frame.at(3, 0), (ScreenCell{" ", 1, {}})) << "half a wide character is not drawn";
    EXPECT_EQ(frame.at(5, 3).text, "x");
    EXPECT_EQ(std::pair(frame.cursorCol, frame.cursorRow), std::pair(6, 3));

    // A screen too small for its panes still composes, without drawing outside itself.
    auto tiny = composeTiles(tiles, tileLayout(tree, 1, 1), 0, 1, 2, "s");
    EXPECT_EQ(rowText(tiny, 1), "s");
}
