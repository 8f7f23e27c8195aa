#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"
#include "Vellum/TerminalRenderSnapshot.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

std::string rowText(const RenderSnapshotRow& row) {
    std::string out;
    for (const auto& cell : *row.cells) out += cell.text.empty() && cell.width == 1 ? " " : cell.text;
    return out;
}

std::vector<int> rowNumbers(const TerminalRenderSnapshot& snapshot) {
    std::vector<int> out;
    for (const auto& row : snapshot.lines) out.push_back(row.y);
    return out;
}

TerminalRenderSnapshot dirty(Terminal& terminal) { return terminal.makeRenderSnapshot(RenderSnapshotScope::dirty); }

} // namespace

TEST(TerminalRenderSnapshot, FirstFullThenCleanThenOnlyChangedRows) {
    TerminalHarness h(6, 4);
    h.terminal.feed("ab\r\ncd");
    TerminalRenderSnapshot first = dirty(h.terminal);
    EXPECT_EQ(first.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_EQ(rowNumbers(first), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(rowText(first.lines[1]), "cd    ");
    EXPECT_EQ(first.cursor.x, 2);
    EXPECT_EQ(first.cursor.y, 1);

    TerminalRenderSnapshot quiet = dirty(h.terminal);
    EXPECT_EQ(quiet.dirtyKind, RenderSnapshotDirtyKind::clean);
    EXPECT_TRUE(quiet.lines.empty());
    EXPECT_FALSE(quiet.dirtyRange);

    h.terminal.feed("\x1b[4;1Hz"); // the cursor leaves row 1 and writes on row 3
    TerminalRenderSnapshot partial = dirty(h.terminal);
    EXPECT_EQ(partial.dirtyKind, RenderSnapshotDirtyKind::partial);
    EXPECT_EQ(partial.dirtyRange, (RenderSnapshotRange{1, 3}));
    EXPECT_EQ(rowText(partial.lines.back()), "z     ");

    // A full scope gives every row, and rows untouched since they were converted share cells.
    TerminalRenderSnapshot full = h.terminal.makeRenderSnapshot(RenderSnapshotScope::full);
    EXPECT_EQ(full.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_EQ(full.lines[0].cells, first.lines[0].cells);
    EXPECT_NE(full.lines[3].cells, first.lines[3].cells);
}

TEST(TerminalRenderSnapshot, ScrollingMarksTheScrollRange) {
    TerminalHarness h(4, 3);
    dirty(h.terminal);
    h.terminal.feed("1\r\n2\r\n3\r\n4");
    TerminalRenderSnapshot snapshot = dirty(h.terminal);
    EXPECT_EQ(snapshot.dirtyKind, RenderSnapshotDirtyKind::partial);
    ASSERT_TRUE(snapshot.scrollDirtyRange);
    EXPECT_EQ(rowText(snapshot.lines.front()), "2   ");
    EXPECT_EQ(rowText(snapshot.lines.back()), "4   ");
}

TEST(TerminalRenderSnapshot, PaletteReverseVideoAndAlternateScreenMakeItFull) {
    TerminalHarness h(5, 3);
    dirty(h.terminal);
    h.terminal.feed("\x1b]4;1;rgb:12/34/56\x1b\\");
    TerminalRenderSnapshot palette = dirty(h.terminal);
    EXPECT_EQ(palette.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_EQ(palette.palette[1], Color::fromBytes(0x12, 0x34, 0x56));
    EXPECT_EQ(palette.lines.size(), 3u);

    h.terminal.feed("\x1b[?5h");
    TerminalRenderSnapshot reverse = dirty(h.terminal);
    EXPECT_EQ(reverse.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_TRUE(reverse.reverseVideo);

    h.terminal.feed("\x1b[?1049h");
    TerminalRenderSnapshot alternate = dirty(h.terminal);
    EXPECT_EQ(alternate.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_TRUE(alternate.isAlternateScreen);
}

TEST(TerminalRenderSnapshot, WideCharactersAndTheirSpacers) {
    TerminalHarness h(5, 2);
    h.terminal.feed("\xe4\xb8\xad!a\xe4\xb8\xad"); // the second one does not fit in the last column
    TerminalRenderSnapshot snapshot = dirty(h.terminal);
    const auto& top = *snapshot.lines[0].cells;
    EXPECT_EQ(top[0].text, "\xe4\xb8\xad");
    EXPECT_EQ(top[0].width, 2);
    EXPECT_EQ(top[0].widthState, RenderSnapshotWidthState::wide);
    EXPECT_EQ(top[1].widthState, RenderSnapshotWidthState::spacerTail);
    EXPECT_EQ(top[1].text, "");
    EXPECT_EQ(top[4].widthState, RenderSnapshotWidthState::spacerHead);
    EXPECT_TRUE(snapshot.lines[0].wrapsToNext);
    EXPECT_TRUE(snapshot.lines[1].isWrapped);
    EXPECT_EQ((*snapshot.lines[1].cells)[0].widthState, RenderSnapshotWidthState::wide);
}

TEST(TerminalRenderSnapshot, CursorStateAndSynchronizedOutput) {
    TerminalHarness h(4, 2);
    dirty(h.terminal);
    h.terminal.feed("\x1b[?25l\x1b[6 q");
    TerminalRenderSnapshot hidden = dirty(h.terminal);
    EXPECT_TRUE(hidden.cursor.hidden);
    EXPECT_EQ(hidden.cursor.style, CursorStyle::steadyBar);
    EXPECT_FALSE(hidden.cursor.blink);
    EXPECT_EQ(hidden.dirtyRange, (RenderSnapshotRange{0, 0})); // the row the cursor left

    h.terminal.feed("\x1b[?2026h");
    EXPECT_TRUE(dirty(h.terminal).synchronizedOutputActive);
    h.terminal.feed("\x1b[?2026l");
    EXPECT_FALSE(dirty(h.terminal).synchronizedOutputActive);
}

TEST(TerminalRenderSnapshot, ScrollingTheDisplayShowsHistoryAndStaysInRange) {
    TerminalHarness h(4, 2, 10);
    h.terminal.feed("a\r\nb\r\nc\r\nd");
    dirty(h.terminal);
    h.terminal.scrollDisplay(-2);
    TerminalRenderSnapshot back = dirty(h.terminal);
    EXPECT_EQ(back.dirtyKind, RenderSnapshotDirtyKind::full);
    EXPECT_EQ(rowText(back.lines[0]), "a   ");
    EXPECT_TRUE(back.cursor.hidden); // the cursor's row is below the view

    // Output while the view is held in the history leaves the view where it is.
    h.terminal.feed("\r\ne");
    TerminalRenderSnapshot held = dirty(h.terminal);
    EXPECT_EQ(rowText(held.lines[0]), "a   ");

    h.terminal.scrollDisplay(-100);
    EXPECT_EQ(h.terminal.buffer().yDisp, 0);
    h.terminal.scrollDisplay(100);
    TerminalRenderSnapshot live = dirty(h.terminal);
    EXPECT_EQ(rowText(live.lines[1]), "e   ");
    EXPECT_FALSE(live.cursor.hidden);
}

TEST(TerminalSnapshot, AppliesRowsAndReportsWhatToRedraw) {
    TerminalHarness h(4, 3);
    TerminalSnapshot retained;
    EXPECT_EQ(retained.apply(dirty(h.terminal)), (RenderSnapshotRange{0, 2}));
    EXPECT_TRUE(retained.appearanceChanged());
    EXPECT_EQ(retained.apply(dirty(h.terminal)), std::nullopt);

    uint64_t revision = retained.rows()[2].revision;
    h.terminal.feed("\x1b[3;1Hx");
    // The cursor left row 0 and the text went to row 2.
    EXPECT_EQ(retained.apply(dirty(h.terminal)), (RenderSnapshotRange{0, 2}));
    EXPECT_FALSE(retained.appearanceChanged());
    EXPECT_GT(retained.rows()[2].revision, revision);
    EXPECT_EQ(rowText(retained.rows()[2].row), "x   ");

    // A full snapshot of unchanged rows changes nothing but still brings the cursor along.
    EXPECT_EQ(retained.apply(h.terminal.makeRenderSnapshot(RenderSnapshotScope::full)), std::nullopt);
    h.terminal.feed("\x1b[2;2H");
    EXPECT_EQ(retained.apply(dirty(h.terminal)), (RenderSnapshotRange{1, 2}));
    EXPECT_EQ(retained.state().cursor.y, 1);

    h.terminal.resize(5, 2);
    EXPECT_EQ(retained.apply(dirty(h.terminal)), (RenderSnapshotRange{0, 1}));
    EXPECT_EQ(retained.rows().size(), 2u);
}
