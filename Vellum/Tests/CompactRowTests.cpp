// Rows that leave the screen for a full scrollback keep only their used cells. Everything that
// reads or edits such a row must see what it would have seen at full width.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/TerminalHarness.h"
#include "Vellum/TerminalSnapshotStream.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

constexpr int cols = 20;

// Line-local output of many shapes: short text, a row made on a blue erase (so its tail is
// blue), wide characters with one that does not fit the last column, a row filled exactly, a
// row that wraps, combining marks and written trailing blanks.
std::string lineFor(int i) {
    std::string n = std::to_string(i);
    switch (i % 6) {
    case 0: return "plain " + n + "\r\n";
    case 1: return "\x1b[31mred\x1b[m " + n + "\x1b[44m\r\n\x1b[m"; // the next row is made blue
    case 2: return "blue tail " + n + std::string(19 - 10 - n.size(), '.') + "\xe4\xb8\xad\xe6\x96\x87\r\n";
    case 3: return std::string(cols - n.size(), '=') + n + "\r\n";
    case 4: return "wraps " + n + " " + std::string(cols, '-') + "\r\n";
    default: return "e\xcc\x81 " + n + "   \r\n";
    }
}

std::string stream(int lines) {
    std::string out;
    for (int i = 0; i < lines; ++i) out += lineFor(i);
    return out;
}

std::string describe(BufferLine& line) {
    std::string out = line.isWrapped() ? "wrapped|" : "|";
    for (const CharData& cell : line.getData()) {
        out += cell.debugDescription() + "/" + std::to_string(cell.widthStateCode) + "/" + cell.attribute.toSgr() + " ";
    }
    return out + "| trimmed " + std::to_string(line.getTrimmedLength()) + " text " + line.translateToString(true) +
           " content " + std::to_string(line.hasAnyContent());
}

int cursorRow(Terminal& t) { return t.buffer().yBase + t.buffer().y; }

// The `count` rows that end at each terminal's cursor row hold the same cells.
void expectSameRowsAboveCursor(Terminal& compacting, Terminal& reference, int count) {
    for (int k = 0; k < count; ++k) {
        EXPECT_EQ(describe(compacting.buffer().lines[cursorRow(compacting) - k]),
                  describe(reference.buffer().lines[cursorRow(reference) - k]))
            << k << " rows above the cursor";
    }
}

void feedBoth(Terminal& a, Terminal& b, const std::string& bytes) {
    a.feed(bytes);
    b.feed(bytes);
}

} // namespace

// The reference terminal is tall enough that no row ever leaves its screen, so none is compact.
TEST(CompactRows, ReadEditReflowAndSnapshotAsAtFullWidth) {
    TerminalHarness compacting(cols, 4, 6);
    TerminalHarness reference(cols, 200, 50);
    feedBoth(compacting.terminal, reference.terminal, stream(40));
    Buffer& ring = compacting.terminal.buffer();
    ASSERT_EQ(ring.lines.count(), ring.lines.maxLength);
    int compact = 0;
    for (int i = 0; i < ring.yBase; ++i) compact += ring.lines[i].isCompact();
    ASSERT_GE(compact, 4) << "the scrollback should hold compact rows";
    expectSameRowsAboveCursor(compacting.terminal, reference.terminal, 10);

    // A snapshot rebuilds the compact rows cell for cell.
    TerminalHarness rebuilt(cols, 4, 6);
    rebuilt.terminal.feed(snapshotStream(compacting.terminal, {6}));
    for (int i = 1; i < ring.lines.count(); ++i) {
        EXPECT_EQ(describe(rebuilt.terminal.buffer().lines[i]), describe(ring.lines[i])) << "row " << i;
    }

    // Taller: compact rows come back on screen, and edits widen them.
    compacting.terminal.resize(cols, 9);
    std::string edits = "\x1b[4A\x1b[15GXY"            // past the stored cells
                        "\x1b[A\x1b[3G\x1b[2@"        // insert
                        "\x1b[A\x1b[2G\x1b[3P"        // delete
                        "\x1b[A\x1b[42m\x1b[8G\x1b[K\x1b[m" // erase to the end in colour
                        "\x1b[A\x1b[4G\x1b[3X";       // erase characters
    feedBoth(compacting.terminal, reference.terminal, edits + "\x1b[8B\r");
    expectSameRowsAboveCursor(compacting.terminal, reference.terminal, 9);

    // Reflow reads compact rows and makes rows of the new width; compare the paragraphs that
    // lie whole inside the compacting ring.
    for (int width : {13, 27, cols}) {
        compacting.terminal.resize(width, 9);
        reference.terminal.resize(width, 200);
        expectSameRowsAboveCursor(compacting.terminal, reference.terminal, 6);
        for (int i = 0; i < ring.lines.count(); ++i) ASSERT_EQ(ring.lines[i].count(), width);
    }
}

TEST(CompactRows, ARowFilledWithCharactersKeepsThemWhenCompact) {
    TerminalHarness h(cols, 4, 6);
    h.terminal.feed("\x1b#8"); // the screen is filled with E, the rows' own fill
    for (int i = 0; i < 7; ++i) h.terminal.feed("\x1b[4;1H\n"); // the last one recycles
    Buffer& ring = h.terminal.buffer();
    ASSERT_EQ(ring.yBase, 6);
    for (int i = 0; i < 3; ++i) {
        BufferLine& filled = ring.lines[i];
        EXPECT_EQ(filled.storedCount(), 0);
        EXPECT_EQ(filled.translateToString(true), std::string(cols, 'E'));
        EXPECT_EQ(filled.getTrimmedLength(), cols);
    }
}

// Each edit of a compact row against the same edit of its widened twin.
TEST(CompactRows, RowEditsMatchTheWidenedRow) {
    auto arena = std::make_shared<CellArena>();
    CharData red = CharData::Null;
    red.attribute.bg = Attribute::Color::ansi256(1);
    CharData letter = CharData::Null;
    letter.setValue('q', 1);
    using Edit = void (*)(BufferLine&, const CharData&);
    std::vector<std::pair<const char*, Edit>> edits = {
        {"set past the stored cells", [](BufferLine& l, const CharData& c) { l.set(15, c); }},
        {"insert", [](BufferLine& l, const CharData& c) { l.insertCells(1, 3, cols - 1, c); }},
        {"delete", [](BufferLine& l, const CharData& c) { l.deleteCells(0, 2, cols - 1, c); }},
        {"fill a range", [](BufferLine& l, const CharData& c) { l.fill(c, 4, 10); }},
        {"fill the row", [](BufferLine& l, const CharData& c) { l.fill(c); }},
        {"narrower", [](BufferLine& l, const CharData& c) { l.resize(7, c); }},
        {"wider", [](BufferLine& l, const CharData& c) { l.resize(30, c); }},
        {"recycle", [](BufferLine& l, const CharData& c) { l.recycle(l.packOrFail(c), false, {}); }},
    };
    for (const auto& [name, edit] : edits) {
        for (const CharData& with : {CharData::Null, red, letter}) {
            BufferLine compact(cols, red, false, {}, arena); // the red blank is the row's tail
            for (int c = 0; c < 5; ++c) compact.set(c, letter);
            compact.compact();
            ASSERT_EQ(compact.storedCount(), 5);
            BufferLine full(compact);
            full.writableCells();
            ASSERT_FALSE(full.isCompact());
            edit(compact, with);
            edit(full, with);
            EXPECT_EQ(describe(compact), describe(full)) << name << " with " << with.debugDescription();
        }
    }

    // Copies out of a compact row take its tail along.
    BufferLine source(cols, red, false, {}, arena);
    source.set(0, letter);
    source.compact();
    BufferLine target(cols, std::nullopt, false, {}, arena);
    target.copyFrom(source, 0, 2, 10);
    EXPECT_EQ(target[11].attribute.bg, Attribute::Color::ansi256(1));
    EXPECT_EQ(target[12].attribute.bg, Attribute::Color::defaultColor());
}

// A row leaving the screen keeps its words when it uses at least about half of them, and is
// copied into words of its own size when it uses less; either way it reads back the same, in
// place and after a reflow.
TEST(CompactRows, RowsKeepTheirWordsIntoTheScrollbackUnlessSparse) {
    constexpr int width = 40;
    struct Case {
        int written;
        bool keepsWords;
    };
    // A fresh row's words hold the whole width; 2 x 16 + 8 = 40.
    const Case cases[] = {{0, false}, {3, false}, {15, false}, {16, true}, {25, true}, {width, true}};
    for (bool fullRing : {false, true}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::to_string(c.written) + (fullRing ? " into a full scrollback" : ""));
            TerminalHarness h(width, 2, 3);
            if (fullRing) h.terminal.feed("a\r\nb\r\nc\r\nd\r\ne\r\n");
            std::string text;
            for (int i = 0; i < c.written; ++i) text.push_back(char('A' + i % 26));
            h.terminal.feed("\x1b[2;1H\x1b[K" + text);
            Buffer& ring = h.terminal.buffer();
            BufferLine& bottom = ring.lines[ring.yBase + 1];
            bottom.writableCells(width); // the words as a writer stores them ahead, whatever the ring did before
            const PackedCell* words = bottom.storage.data();
            size_t capacity = bottom.storage.cells.capacity();
            h.terminal.feed("\r\n");
            BufferLine& left = ring.lines[ring.yBase];
            EXPECT_EQ(left.translateToString(true), text);
            EXPECT_EQ(left.storedCount(), c.written);
            if (c.keepsWords) {
                EXPECT_EQ(left.storage.data(), words);
                EXPECT_EQ(left.storage.cells.capacity(), capacity);
            } else {
                EXPECT_LE(left.storage.cells.capacity(), size_t(c.written + c.written / 4 + 8));
            }
            h.terminal.resize(width / 2, 2); // wraps the longer rows in two, and joins them again below
            h.terminal.resize(width, 2);
            EXPECT_EQ(ring.lines[ring.yBase + ring.y - 1].translateToString(true), text);
        }
    }
}
