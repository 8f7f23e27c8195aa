#include <gtest/gtest.h>

#include "Support/CapturedDiagnostics.h"
#include "Vellum/BufferLine.h"

using namespace vellum;
using vellum::testing::CapturedDiagnostics;
using Color = Attribute::Color;

namespace {

CharData narrow(char32_t scalar, Attribute attribute = Attribute::empty) { return CharData(attribute, int32_t(scalar), 1); }

Attribute background(uint8_t index) {
    Attribute a;
    a.bg = Color::ansi256(index);
    return a;
}

void write(BufferLine& line, int col, std::u32string_view text) {
    for (char32_t c : text) line.set(col++, narrow(c));
}

// Puts a wide character at col: its head, then the spacer tail.
void writeWide(BufferLine& line, int col, char32_t scalar, Attribute attribute = Attribute::empty) {
    line.set(col, CharData(attribute, int32_t(scalar), 2));
    line.set(col + 1, CharData(attribute, 0, 0));
}

std::string text(const BufferLine& line) { return line.translateToString(true); }

} // namespace

TEST(BufferLine, OutOfRangeWritesLandInTheLastColumnWithAWarning) {
    CapturedDiagnostics diagnostics;
    BufferLine line(80);
    line.set(200, narrow('Z'));
    EXPECT_EQ(line[79].code, 'Z');
    EXPECT_EQ(line.usedLength, 80);
    ASSERT_EQ(diagnostics.lines.size(), 1u);
    EXPECT_EQ(diagnostics.lines[0],
              "Info: BufferLine: You passed an index out of range, adjusting to prevent crash, but you should debug");
    EXPECT_EQ(line[500].code, 'Z');  // reads past the end see the last column, silently
    EXPECT_EQ(diagnostics.lines.size(), 1u);
}

TEST(BufferLine, OverwritingHalfAWideCharacterHealsTheOtherHalf) {
    Attribute red = background(1);
    BufferLine line(10);
    writeWide(line, 4, U'中', red);

    // A seam that cuts nothing changes nothing.
    uint64_t generation = line._generation;
    for (int col : {0, 4, 6, 11}) line.repairWideSeam(col);
    EXPECT_EQ(line._generation, generation);

    // Writing over the right half: the left half is blanked but keeps its colour.
    line.repairWideSeam(5);
    line.set(5, narrow('x'));
    EXPECT_EQ(line.packedCell(4).widthState(), CellWidthState::narrow);
    EXPECT_EQ(line[4].attribute.bg, Color::ansi256(1));
    EXPECT_EQ(text(line), "     x");

    // Over the left half: the seam after it clears the spacer tail.
    writeWide(line, 7, U'文');
    line.repairWideSeam(8);
    line.set(7, narrow('y'));
    EXPECT_EQ(line.packedCell(8), PackedCell{});
    EXPECT_EQ(text(line), "     x y");
}

TEST(BufferLine, TrimmedLengthAndText) {
    BufferLine line(8);
    EXPECT_EQ(line.getTrimmedLength(), 0);
    EXPECT_FALSE(line.hasAnyContent());
    write(line, 0, U"a");
    write(line, 3, U"b");
    EXPECT_EQ(line.getTrimmedLength(), 4);
    EXPECT_EQ(line.translateToString(), "a  b    ");
    EXPECT_EQ(line.translateToString(true), "a  b");
    EXPECT_EQ(line.translateToString(false, 1, 3), "  ");

    // Coloured blanks count as content but not as text; a wide character counts two columns.
    line.fill(narrow(0, background(2)), 5, 3);
    EXPECT_EQ(line.getTrimmedLength(), 4);
    EXPECT_TRUE(line.hasContent(6));
    EXPECT_FALSE(line.hasContent(4));
    writeWide(line, 6, U'字');
    EXPECT_EQ(line.getTrimmedLength(), 8);
    EXPECT_EQ(line.translateToString(true, 0, -1, true), "a  b  字");
    EXPECT_EQ(line.translateToString(true), "a  b  字 ");

    // At the last column the wide step is clamped only in the skipping mode.
    BufferLine edge(3);
    edge.set(2, CharData(Attribute::empty, U'字', 2));
    EXPECT_EQ(edge.getTrimmedLength(), 4);
    EXPECT_EQ(edge.translateToString(true, 0, -1, true), "  字");

    BufferLine styled(2);
    Attribute bold;
    bold.style = CharacterStyle::bold;
    styled.set(1, narrow(0, bold));
    EXPECT_TRUE(styled.hasContent(1));
    EXPECT_TRUE(styled.hasAnyContent());

    auto upper = [](PackedCellView v) { return v.cell.value() ? std::string(1, char(v.cell.value() - 32)) : "_"; };
    EXPECT_EQ(line.translateToString(false, 0, 4, false, {}, upper), "A__B");
}

TEST(BufferLine, InsertAndDeleteWithinTheMargins) {
    PackedCell blank{};
    BufferLine line(8);
    write(line, 0, U"abcdefgh");
    line.setSemanticMark(SemanticPromptKind::initial, 3, 1);
    line.insertPackedCells(2, 2, 5, blank);
    EXPECT_EQ(line.translateToString(), "ab  cdgh");
    EXPECT_EQ(line.semanticMarks()[0].column, 5);
    line.deletePackedCells(2, 2, 5, blank);
    EXPECT_EQ(line.translateToString(), "abcd  gh");
    EXPECT_EQ(line.semanticMarks()[0].column, 3);
    EXPECT_EQ(line.usedLength, 8);

    // n covering the range fills it; pos beyond the margin wraps around it.
    line.insertPackedCells(9, 10, 5, blank);
    EXPECT_EQ(line.translateToString(), "abc   gh");
    write(line, 0, U"abcdef");
    line.deletePackedCells(4, 9, 7, blank);
    EXPECT_EQ(line.translateToString(), "abcd    ");

    // A wide character pushed across the right margin loses both halves; one cut at pos too.
    BufferLine wide(6);
    write(wide, 0, U"ab");
    writeWide(wide, 2, U'中');
    write(wide, 4, U"z");
    wide.insertPackedCells(0, 1, 3, blank);
    EXPECT_EQ(wide.translateToString(), " ab z ");  // z lies outside the margin
    for (int col = 0; col < 6; ++col) EXPECT_EQ(wide.packedCell(col).widthState(), CellWidthState::narrow) << col;
    writeWide(wide, 1, U'中');
    wide.deletePackedCells(2, 1, 5, blank);
    EXPECT_EQ(wide.translateToString(), "   z  ");
    EXPECT_FALSE(wide.packedCell(1).isWideHead());
}

TEST(BufferLine, FillsTouchOnlyWhatTheTailDoesNotAlreadyHold) {
    BufferLine line(10);
    write(line, 0, U"abc");
    EXPECT_EQ(line.usedLength, 3);
    line.fill(line.tailBlankCell, 1, 9);  // erase to the end of the row with the row's own blank
    EXPECT_EQ(line.usedLength, 1);
    EXPECT_EQ(text(line), "a");

    PackedCell red = *line.arena().pack(narrow(0, background(1)));
    line.fill(red, 2, 2);
    EXPECT_EQ(line.usedLength, 4);
    line.replacePackedCells(8, 40, red);
    EXPECT_EQ(line.usedLength, 10);
    EXPECT_TRUE(line.hasContent(9));

    line.fill(red);
    EXPECT_EQ(line.usedLength, 0);
    EXPECT_EQ(line.tailBlankCell, red);
    for (int col = 0; col < 10; ++col) EXPECT_EQ(line.packedCell(col), red);
}

TEST(BufferLine, RecycleMakesAFreshRowInTheSameObject) {
    BufferLine line(6);
    write(line, 0, U"abc");
    line.setSemanticMark(SemanticPromptKind::right, 2, 9);
    line.attach(std::make_shared<TerminalImage>());
    line.setRenderMode(BufferLine::RenderLineMode::doubleWidth);
    line.setSemanticHardContinuationGroup(4);
    auto identity = line.renderIdentity;
    BidiPresentationState rtl;
    rtl.fallbackDirection = BidiDirection::rightToLeft;

    EXPECT_TRUE(line.recycle(PackedCell{}, true, rtl));
    EXPECT_EQ(text(line), "");
    EXPECT_EQ(line.usedLength, 0);
    EXPECT_TRUE(line.semanticMarks().empty());
    EXPECT_FALSE(line.hasImages());
    EXPECT_EQ(line.renderMode(), BufferLine::RenderLineMode::single);
    EXPECT_FALSE(line.semanticHardContinuationGroup());
    EXPECT_TRUE(line.isWrapped());
    EXPECT_EQ(line.bidiState(), rtl);
    EXPECT_EQ(line.recycleGeneration, 1u);
    EXPECT_EQ(line.renderIdentity, identity);
    EXPECT_FALSE(line.recycle(PackedCell{}, false, {}));

    PackedCell red = *line.arena().pack(narrow(0, background(1)));
    line.recycle(red, false, {});
    EXPECT_EQ(line.tailBlankCell, red);
    EXPECT_EQ(line.packedCell(5), red);
}

TEST(BufferLine, ResizeAndMarks) {
    BufferLine line(6);
    write(line, 0, U"abcdef");
    line.setSemanticMark(SemanticPromptKind::initial, 5, 1);
    line.setSemanticMark(SemanticPromptKind::secondary, 1, 1);
    line.setSemanticMark(SemanticPromptKind::initial, 0, 2);  // replaces the first
    ASSERT_EQ(line.semanticMarks().size(), 2u);
    EXPECT_EQ(line.semanticMarks()[0], (SemanticMark{SemanticPromptKind::initial, 0, 2}));

    line.setSemanticMark(SemanticPromptKind::right, 5, 1);
    line.resize(3, PackedCell{});
    EXPECT_EQ(line.translateToString(), "abc");
    EXPECT_EQ(line.semanticMarks().back().column, 2);
    EXPECT_EQ(line.usedLength, 3);
    line.resize(5, narrow('-'));
    EXPECT_EQ(line.translateToString(), "abc--");
    line.usedLength = 0;
    line.resize(5, PackedCell{});
    EXPECT_EQ(line.usedLength, 5);
    line.marksClampTo(0);
    EXPECT_TRUE(line.semanticMarks().empty());
}

TEST(BufferLine, CopiesAcrossArenasReencodeCells) {
    Attribute green;
    green.fg = Color::ansi256(2);
    BufferLine source(6);
    source.set(0, CharData(green, 'g', 1));
    CharData accent(Attribute::empty, 0, 1);
    accent.setCharacter(U"e\u0301", 1);
    source.set(1, accent);
    source.setSemanticMark(SemanticPromptKind::initial, 1, 7);
    source.setSemanticMark(SemanticPromptKind::right, 4, 7);

    BufferLine target(6);  // another arena
    EXPECT_TRUE(target.copyFrom(source, 0, 3, 3));
    EXPECT_EQ(target[3].attribute, green);
    EXPECT_EQ(target[4].graphemeScalarValues, std::u32string(U"e\u0301"));
    ASSERT_EQ(target.semanticMarks().size(), 1u);
    EXPECT_EQ(target.semanticMarks()[0].column, 4);
    ASSERT_EQ(source.semanticMarks().size(), 1u);  // moved, not copied
    EXPECT_FALSE(target.copyFrom(source, 3, 0, 1));

    BufferLine whole(2);
    whole.copyFrom(static_cast<const BufferLine&>(source));
    EXPECT_EQ(whole.count(), 6);
    EXPECT_EQ(whole[0].attribute, green);
    EXPECT_EQ(whole.semanticMarks(), source.semanticMarks());

    BufferLine redRow(4, narrow(0, background(1)));
    auto arena = std::make_shared<CellArena>();
    redRow.adoptArena(arena);
    EXPECT_EQ(&redRow.arena(), arena.get());
    EXPECT_EQ(arena->unpack(redRow.tailBlankCell).attribute.bg, Color::ansi256(1));

    BufferLine copy(source);
    EXPECT_NE(copy.renderIdentity, source.renderIdentity);
    EXPECT_EQ(copy.translateToString(), source.translateToString());
}

TEST(BufferLine, SnapshotCopiesKeepWordsAndReusePages) {
    auto live = std::make_shared<CellArena>();
    BufferLine row(4, std::nullopt, false, {}, live);
    Attribute blue;
    blue.fg = Color::ansi256(4);
    row.set(0, CharData(blue, 'b', 1));
    auto snapshotArena = CellArena::makeSnapshot(*live);
    BufferLine copy(4, std::nullopt, false, {}, snapshotArena);
    const PackedCell* page = copy.storage.data();
    copy.copyForSnapshot(row, snapshotArena);
    EXPECT_EQ(copy.storage.data(), page);
    EXPECT_EQ(copy.packedCell(0), row.packedCell(0));
    EXPECT_EQ(copy[0].attribute, blue);
    EXPECT_EQ(copy._generation, row._generation);
}
