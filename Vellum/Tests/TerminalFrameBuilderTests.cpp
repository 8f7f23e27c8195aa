#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Support/TerminalHarness.h"
#include "Support/CapturedRenderLog.h"
#include "Vellum/TerminalFrameBuilder.h"

using namespace vellum;
using vellum::testing::CapturedRenderLog;
using vellum::testing::TerminalHarness;

namespace {

Float4 rgba(Color c) { return Float4{c.red / 65535.f, c.green / 65535.f, c.blue / 65535.f, 1.f}; }

// A terminal, the retained snapshot a view keeps, and a builder in the test font.
struct Scene {
    TerminalHarness h;
    TerminalSnapshot snapshot;
    TerminalFrameBuilder builder{"DejaVu Sans Mono", 16};
    FrameOverlay overlay;

    explicit Scene(int cols = 10, int rows = 3) : h(cols, rows) {}
    const DrawData& frame(std::string_view bytes = {}) {
        h.terminal.feed(bytes);
        snapshot.apply(h.terminal.makeRenderSnapshot(RenderSnapshotScope::dirty));
        return builder.build(snapshot, overlay);
    }
    float cw() const { return float(builder.cell().width); }
    float ch() const { return float(builder.cell().height); }
    Color palette(int i) { return snapshot.state().palette[size_t(i)]; }
};

// Glyph records that start inside the cell at (col, row).
std::vector<TextCell> inCell(const std::vector<TextCell>& cells, const Scene& s, int col, int row) {
    std::vector<TextCell> out;
    for (const auto& c : cells)
        if (c.position.x >= col * s.cw() && c.position.x < (col + 1) * s.cw() && c.position.y >= row * s.ch() - 4 &&
            c.position.y < (row + 1) * s.ch())
            out.push_back(c);
    return out;
}

} // namespace

TEST(TerminalFrameBuilder, TextAndColoursBecomeOneRecordPerGlyphAndMergedBackgrounds) {
    Scene s;
    s.h.terminal.feed("\x1b[?25l"); // no cursor in this frame
    const DrawData& draw = s.frame("a\x1b[41mbc\x1b[0m \x1b[38;2;10;200;30mg");
    Color fg = s.snapshot.state().foregroundColor;
    EXPECT_EQ(draw.clearColor, rgba(s.snapshot.state().backgroundColor));
    // Default backgrounds are the clear colour; "bc" on red is one rectangle over two cells.
    ASSERT_EQ(draw.frame.backgroundCells.size(), 1u);
    EXPECT_EQ(draw.frame.backgroundCells[0], (ColorCell{{s.cw(), 0}, {2 * s.cw(), s.ch()}, rgba(s.palette(1))}));
    // One grayscale quad for each visible character, none for the space, none in colour.
    EXPECT_EQ(draw.frame.glyphCellsGray.size(), 4u);
    EXPECT_TRUE(draw.frame.glyphCellsColor.empty());
    auto a = inCell(draw.frame.glyphCellsGray, s, 0, 0);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].color, rgba(fg));
    EXPECT_GT(a[0].size.x, 0);
    EXPECT_LE(a[0].position.x + a[0].size.x, s.cw() + 1);
    // The atlas rectangle has the glyph's own size.
    float atlas = float(s.builder.atlas(GlyphAtlasKind::grayscale).size());
    EXPECT_FLOAT_EQ(a[0].texSize.x * atlas, a[0].size.x);
    EXPECT_FLOAT_EQ(a[0].texSize.y * atlas, a[0].size.y);
    auto g = inCell(draw.frame.glyphCellsGray, s, 4, 0);
    ASSERT_EQ(g.size(), 1u);
    EXPECT_EQ(g[0].color, rgba(Color::fromBytes(10, 200, 30)));
    EXPECT_TRUE(draw.frame.decorationCells.empty());
    EXPECT_TRUE(draw.cursorColorVertices.empty());
}

TEST(TerminalFrameBuilder, WideEmojiAndBoxDrawingTakeTheirCells) {
    Scene s;
    const DrawData& draw = s.frame("\x1b[?25l中\xf0\x9f\x98\x80─┼");
    // The wide character's glyph starts in its first cell and may use both.
    auto wide = inCell(draw.frame.glyphCellsGray, s, 0, 0);
    ASSERT_EQ(wide.size(), 1u);
    EXPECT_LE(wide[0].position.x + wide[0].size.x, 2 * s.cw() + 1);
    // The emoji comes from the colour atlas, untinted, inside its two cells.
    ASSERT_EQ(draw.frame.glyphCellsColor.size(), 1u);
    const TextCell& emoji = draw.frame.glyphCellsColor[0];
    EXPECT_EQ(emoji.color, (Float4{1, 1, 1, 1}));
    EXPECT_GE(emoji.position.x, 2 * s.cw());
    EXPECT_LE(emoji.position.x + emoji.size.x, 4 * s.cw() + 0.5f);
    EXPECT_GT(emoji.size.y, s.ch() / 2);
    // Lines are quads of exactly one cell, at the cell.
    for (int col : {4, 5}) {
        auto line = inCell(draw.frame.glyphCellsGray, s, col, 0);
        ASSERT_EQ(line.size(), 1u);
        EXPECT_EQ(line[0].position.x, col * s.cw());
        EXPECT_EQ(line[0].position.y, 0);
        EXPECT_EQ(line[0].size.x, s.cw());
        EXPECT_EQ(line[0].size.y, s.ch());
    }
}

TEST(TerminalFrameBuilder, UnderlinesStrikeThroughAndInverse) {
    Scene s;
    const DrawData& draw = s.frame("\x1b[?25l\x1b[4ma\x1b[0m\x1b[4:2mb\x1b[0m\x1b[9mc\x1b[0m\x1b[7md");
    const auto& deco = draw.frame.decorationCells;
    auto count = [&](int col) {
        return std::count_if(deco.begin(), deco.end(), [&](const ColorCell& c) {
            return c.position.x >= col * s.cw() && c.position.x < (col + 1) * s.cw();
        });
    };
    EXPECT_EQ(count(0), 1); // single
    EXPECT_EQ(count(1), 2); // double
    EXPECT_EQ(count(2), 1); // strike-through
    EXPECT_EQ(count(3), 0);
    // Inverse: the foreground becomes the background rectangle, the glyph takes the background.
    ASSERT_EQ(draw.frame.backgroundCells.size(), 1u);
    EXPECT_EQ(draw.frame.backgroundCells[0].color, rgba(s.snapshot.state().foregroundColor));
    auto d = inCell(draw.frame.glyphCellsGray, s, 3, 0);
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].color, rgba(s.snapshot.state().backgroundColor));
}

TEST(TerminalFrameBuilder, CursorStylesAndFocus) {
    Scene s;
    const DrawData& block = s.frame("x\x1b[D");
    // A block: one quad in the cursor colour, and the character again in the background colour.
    ASSERT_EQ(block.cursorColorVertices.size(), 6u);
    EXPECT_EQ(block.cursorColorVertices[0].position, (Float2{0, 0}));
    EXPECT_EQ(block.cursorColorVertices[4].position, (Float2{s.cw(), s.ch()}));
    ASSERT_EQ(block.cursorGlyphVerticesGray.size(), 6u);
    EXPECT_EQ(block.cursorGlyphVerticesGray[0].color, block.clearColor);

    const DrawData& bar = s.frame("\x1b[6 q");
    ASSERT_EQ(bar.cursorColorVertices.size(), 6u);
    EXPECT_LT(bar.cursorColorVertices[4].position.x, s.cw() / 2);
    EXPECT_TRUE(bar.cursorGlyphVerticesGray.empty());

    s.overlay.cursorFocused = false;
    EXPECT_EQ(s.frame("\x1b[2 q").cursorColorVertices.size(), 24u); // a hollow box of four sides
    s.overlay.cursorShown = false; // the hidden half of a blink
    EXPECT_TRUE(s.frame().cursorColorVertices.empty());
}

TEST(TerminalFrameBuilder, OnlyChangedRowsAreBuiltAgain) {
    Scene s(20, 5);
    s.frame("one\r\ntwo\r\nthree");
    EXPECT_EQ(s.builder.counters().rowsBuilt, 5u);
    s.frame();
    EXPECT_EQ(s.builder.counters().rowsBuilt, 5u);
    EXPECT_EQ(s.builder.counters().rowsReused, 5u);
    s.frame("\x1b[2;1Hthe"); // one row written
    EXPECT_EQ(s.builder.counters().rowsBuilt, 6u);
    auto glyphs = s.builder.counters().glyphsRasterized;
    s.frame("\r\nthree"); // known glyphs are not rasterised again
    EXPECT_EQ(s.builder.counters().glyphsRasterized, glyphs);

    // A selection rebuilds the rows it crosses.
    s.overlay.selection = std::pair{FrameOverlay::Point{1, 0}, FrameOverlay::Point{2, 1}};
    auto before = s.builder.counters().rowsBuilt;
    const DrawData& selected = s.frame();
    EXPECT_EQ(s.builder.counters().rowsBuilt, before + 2);
    EXPECT_EQ(selected.frame.backgroundCells.front().color, rgba(s.snapshot.state().foregroundColor)); // inverted
    EXPECT_EQ(selected.frame.backgroundCells.front().position.x, s.cw());

    // A new font invalidates every row.
    before = s.builder.counters().rowsBuilt;
    s.builder.setFont("DejaVu Sans Mono", 20);
    s.frame();
    EXPECT_EQ(s.builder.counters().rowsBuilt, before + 5);
    // So does a palette change.
    before = s.builder.counters().rowsBuilt;
    s.frame("\x1b]4;1;rgb:12/34/56\x1b\\");
    EXPECT_EQ(s.builder.counters().rowsBuilt, before + 5);
}

// Built rows follow their buffer rows: output that scrolls builds the new row only, and the
// frame is the same, record for record, as one built from nothing.
TEST(TerminalFrameBuilder, AScrolledRowIsMovedNotBuiltAgain) {
    Scene s(12, 4);
    s.frame("\x1b[31mred\x1b[0m\r\n\x1b[4munder\x1b[0m\r\n\x1b[44mblue\x1b[0m\r\nlast");
    auto built = s.builder.counters().rowsBuilt;
    const DrawData& scrolled = s.frame("\r\nnew");
    EXPECT_EQ(s.builder.counters().rowsBuilt, built + 1) << "only the row that came in";

    TerminalFrameBuilder fresh{"DejaVu Sans Mono", 16};
    const DrawData& expected = fresh.build(s.snapshot, s.overlay);
    EXPECT_EQ(scrolled.frame.backgroundCells, expected.frame.backgroundCells);
    EXPECT_EQ(scrolled.frame.decorationCells, expected.frame.decorationCells);
    ASSERT_EQ(scrolled.frame.glyphCellsGray.size(), expected.frame.glyphCellsGray.size());
    for (size_t i = 0; i < expected.frame.glyphCellsGray.size(); ++i) {
        EXPECT_EQ(scrolled.frame.glyphCellsGray[i].position, expected.frame.glyphCellsGray[i].position);
        EXPECT_EQ(scrolled.frame.glyphCellsGray[i].color, expected.frame.glyphCellsGray[i].color);
    }

    // A row written after it moved is built again; one that scrolled back into view from the
    // history is moved again.
    built = s.builder.counters().rowsBuilt;
    s.frame("\x1b[1;1HX");
    EXPECT_EQ(s.builder.counters().rowsBuilt, built + 1);
    s.h.terminal.scrollDisplay(-1);
    built = s.builder.counters().rowsBuilt;
    const DrawData& back = s.frame();
    EXPECT_EQ(s.builder.counters().rowsBuilt, built + 1) << "the row from the history";
    ASSERT_FALSE(back.frame.backgroundCells.empty());
    EXPECT_EQ(back.frame.backgroundCells.front().position.y, 2 * s.ch()) << "blue's row moved down with the view";
}

TEST(TerminalFrameBuilder, GlyphSetLargerThanTheAtlasFinishesWithGlyphsMissing) {
    CapturedRenderLog log;
    Scene s(40, 6);
    s.builder.setFont("DejaVu Sans Mono", 40);
    s.builder.setAtlasMaximum(256);
    std::string many;
    for (char c = '!'; c <= '~'; ++c) many.push_back(c);
    const DrawData& draw = s.frame("\x1b[?25l" + many);
    EXPECT_TRUE(log.has("glyph atlas changed during frame build; rebuild pass 2/3"));
    EXPECT_TRUE(log.has("glyph working set exceeds max atlas capacity; some glyphs will be skipped this frame"));
    EXPECT_GT(s.builder.counters().glyphsSkipped, 0u);
    EXPECT_GT(draw.frame.glyphCellsGray.size(), 0u);
    EXPECT_LT(draw.frame.glyphCellsGray.size(), many.size());
    // Every record that was kept points into the atlas as it stands.
    for (const auto& cell : draw.frame.glyphCellsGray) {
        EXPECT_LE(cell.texOrigin.x + cell.texSize.x, 1.f);
        EXPECT_LE(cell.texOrigin.y + cell.texSize.y, 1.f);
    }
    // The next frame tries again rather than keeping the gaps.
    auto rasterized = s.builder.counters().glyphsRasterized;
    s.frame();
    EXPECT_GT(s.builder.counters().glyphsRasterized, rasterized);
}

// What a frame changes on screen against the frame before it: the changed row's band, the
// cursor's old and new rows, and everything when rows scroll or shared colours change.
TEST(TerminalFrameBuilder, DamageCoversOnlyWhatChangedOnScreen) {
    Scene s(12, 6);
    EXPECT_TRUE(s.frame("a\r\nb\r\nc\r\nd\r\ne\r\nf\x1b[2;1H").damage.full) << "the first frame";
    EXPECT_TRUE(s.frame().damage.none()) << "nothing changed";

    FrameDamage row = s.frame("\x1b[4;3Hxyz\x1b[2;1H").damage;
    ASSERT_FALSE(row.full);
    EXPECT_LE(row.top, 3 * s.ch());
    EXPECT_GE(row.bottom, 4 * s.ch());
    EXPECT_GT(row.top, 2 * s.ch()) << "the cursor row and the rows above are left alone";
    EXPECT_LT(row.bottom, 5 * s.ch()) << "so are the rows below";

    FrameDamage cursor = s.frame("\x1b[6;1H").damage;
    ASSERT_FALSE(cursor.full);
    EXPECT_LE(cursor.top, 1 * s.ch()) << "where the cursor was";
    EXPECT_GE(cursor.bottom, 6 * s.ch()) << "where it is now";

    s.overlay.cursorShown = false; // a blink hides it: its row is drawn without it
    FrameDamage blink = s.frame().damage;
    EXPECT_FALSE(blink.none());
    EXPECT_GE(blink.top, 5 * s.ch());
    s.overlay.cursorShown = true;
    s.frame();

    FrameDamage scrolled = s.frame("\r\nnew").damage;
    EXPECT_TRUE(scrolled.full || (scrolled.top <= 0 && scrolled.bottom >= 6 * s.ch())) << "every row moved";
    EXPECT_TRUE(s.frame("\x1b]11;rgb:10/20/30\x1b\\").damage.full) << "a new background";
    s.builder.invalidateRows();
    EXPECT_TRUE(s.frame().damage.full);
}
