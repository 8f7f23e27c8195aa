#include <gtest/gtest.h>

#include "Vellum/CellArena.h"
#include "Vellum/CharData.h"
#include "Vellum/PackedCell.h"

using namespace vellum;
using Color = Attribute::Color;

namespace {

Attribute withBackground(Color bg) {
    Attribute a;
    a.bg = bg;
    return a;
}

Attribute withForeground(Color fg) {
    Attribute a;
    a.fg = fg;
    return a;
}

CharData cell(char32_t scalar, Attribute attribute = Attribute::empty, int8_t width = 1) {
    return CharData(attribute, int32_t(scalar), width);
}

CharData cluster(std::u32string_view scalars, Attribute attribute = Attribute::empty, int8_t width = 1) {
    CharData data(attribute, 0, width);
    data.setCharacter(scalars, width);
    return data;
}

} // namespace

TEST(PackedCell, ValidEncoding) {
    EXPECT_TRUE(PackedCell{}.hasValidEncoding());  // the empty cell
    struct Case { uint8_t tag; uint32_t value; uint8_t semantic; bool valid; };
    for (Case c : {Case{1, 0, 0, false}, {1, 1, 0, true}, {0, 0x10FFFF, 0, true}, {0, 0x110000, 0, false},
                   {0, 0xD800, 0, false}, {2, 0xFF, 0, true}, {2, 0x100, 0, false}, {3, 0xFFFFFF, 0, true},
                   {0, 'a', 7, false}})
        EXPECT_EQ(PackedCell::make(c.tag, c.value, 0, 0, false, 0, c.semantic).hasValidEncoding(), c.valid) << int(c.tag) << " " << c.value;
}

TEST(Attribute, ColorImagesAndKeys) {
    uint8_t image[4];
    for (Color color : {Color::ansi256(200), Color::trueColor(1, 2, 3), Color::defaultColor(), Color::defaultInvertedColor()}) {
        color.writeImage(image);
        EXPECT_EQ(Color::fromImage(image), color);
    }
    Color::writeOptionalImage(std::nullopt, image);
    EXPECT_EQ(image[3], 255);
    EXPECT_FALSE(Color::fromImage(image).has_value());

    EXPECT_TRUE(InternedAttributeKey(Attribute::empty).isZero());
    // An explicit default underline colour differs from none, and the inverted default from the default.
    Attribute underlined;
    underlined.underlineColor = Color::defaultColor();
    EXPECT_FALSE(InternedAttributeKey(underlined).isZero());
    EXPECT_FALSE(InternedAttributeKey(withForeground(Color::defaultInvertedColor())).isZero());
    EXPECT_NE(InternedAttributeKey(withForeground(Color::ansi256(1))), InternedAttributeKey(withBackground(Color::ansi256(1))));

    Attribute full;
    full.fg = Color::trueColor(0x12, 0x34, 0x56);
    full.bg = Color::ansi256(7);
    full.style = CharacterStyle::bold | CharacterStyle::italic;
    full.underlineStyle = UnderlineStyle::curly;
    full.underlineColor = Color::ansi256(9);
    EXPECT_EQ(InternedAttributeKey(full).attribute(), full);
    for (Attribute::Color each : {Color::defaultColor(), Color::defaultInvertedColor(), Color::ansi256(255), Color::trueColor(255, 0, 1)}) {
        full.fg = full.bg = each;
        full.underlineColor = each;
        EXPECT_EQ(InternedAttributeKey(full).attribute(), full);
    }

    EXPECT_EQ(CharacterStyle::fromAttribute(int32_t((1 | 128) << 18)), CharacterStyle::bold | CharacterStyle::crossedOut);
}

TEST(Attribute, SgrReport) {
    EXPECT_EQ(Attribute::empty.toSgr(), "0m");
    EXPECT_EQ(withForeground(Color::ansi256(1)).toSgr(), "0;31;m");
    std::string bright = withForeground(Color::ansi256(16)).toSgr();
    EXPECT_NE(bright.find(";98;"), std::string::npos);
    EXPECT_EQ(bright.substr(bright.size() - 2), ";m");
    EXPECT_EQ(withBackground(Color::ansi256(9)).toSgr(), "0;101;m");
    EXPECT_EQ(withBackground(Color::ansi256(17)).toSgr(), "0;48;5;17m");

    Attribute a;
    a.style = CharacterStyle::bold | CharacterStyle::underline | CharacterStyle::blink | CharacterStyle::inverse |
              CharacterStyle::invisible | CharacterStyle::dim | CharacterStyle::italic | CharacterStyle::crossedOut;
    a.fg = Color::trueColor(1, 2, 3);
    a.bg = Color::trueColor(4, 5, 6);
    a.underlineStyle = UnderlineStyle::double_;
    EXPECT_EQ(a.toSgr(), "0;1;4;5;7;8;38;2;1;2;3;48;2;4;5;6m");
}

TEST(CharData, ValuesTextAndBadSemanticCodes) {
    CharData d;
    d.setValue(U'中', 2);
    EXPECT_EQ(d.widthStateCode, 1);
    d.setValue(0x301, 0);
    EXPECT_EQ(d.widthStateCode, 2);
    d.setCharacter(U"e\u0301", 1);
    EXPECT_EQ(d.code, U'e');
    ASSERT_TRUE(d.graphemeScalarValues);
    EXPECT_EQ(d.getText(), "e\xCC\x81");
    EXPECT_EQ(d.widthStateCode, 0);
    d.setCharacter(U"x", 1);
    EXPECT_FALSE(d.graphemeScalarValues);
    d.setCharacter(U"", 1);
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.getText(), std::string(1, '\0'));

    d.graphemeScalarValues = std::u32string{U'a', char32_t(0xD800)};
    EXPECT_EQ(d.getText(), " ");
    d.graphemeScalarValues = std::u32string{};
    EXPECT_EQ(d.getText(), "");
    d.graphemeScalarValues.reset();
    d.code = 0x110000;
    EXPECT_EQ(d.getText(), " ");
    EXPECT_EQ(SemanticContent::fromCode(7), SemanticContent::none());
}

TEST(CellArena, BackgroundOnlyBlanksUseInlineFormsUntilTextArrives) {
    CellArena arena;
    CharData erase = cell(0, withBackground(Color::ansi256(1)));
    erase.isProtected = true;
    erase.semanticContentCode = 6;
    erase.payload = TinyAtom{42};
    auto packed = arena.pack(erase);
    ASSERT_TRUE(packed);
    EXPECT_EQ(packed->tag(), PackedCell::paletteBackgroundTag);
    EXPECT_EQ(packed->value(), 1u);
    EXPECT_EQ(packed->styleID(), 0);
    EXPECT_EQ(arena.attributeCount(), 1);  // no style used up
    CharData back = arena.unpack(*packed);
    EXPECT_EQ(back.attribute.bg, Color::ansi256(1));
    EXPECT_EQ(back.attribute.fg, Color::defaultColor());
    EXPECT_EQ(back.code, 0);
    EXPECT_EQ(arena.text(*packed), std::string(1, '\0'));

    auto rgb = arena.pack(cell(0, withBackground(Color::trueColor(10, 20, 30))));
    ASSERT_TRUE(rgb);
    EXPECT_EQ(rgb->tag(), PackedCell::trueColorBackgroundTag);
    EXPECT_EQ(arena.unpack(*rgb).attribute.bg, Color::trueColor(10, 20, 30));

    // A combining mark turns the blank into a real cell with the background as an interned style.
    auto marked = arena.replacingContent(*packed, U"\u0301", 0);
    ASSERT_TRUE(marked);
    EXPECT_EQ(marked->tag(), PackedCell::scalarTag);
    EXPECT_NE(marked->styleID(), 0);
    EXPECT_EQ(arena.attributeFor(marked->styleID()).bg, Color::ansi256(1));
    EXPECT_TRUE(marked->isProtected());
    EXPECT_EQ(marked->payloadCode(), 42);
    EXPECT_EQ(marked->semanticContentCode(), 6);
    auto joined = arena.replacingContent(*marked, U"e\u0301", 0);
    ASSERT_TRUE(joined);
    EXPECT_EQ(joined->tag(), PackedCell::graphemeTag);
    EXPECT_EQ(joined->styleID(), marked->styleID());

    // A styled or non-blank cell never takes the inline forms.
    Attribute bold = withBackground(Color::ansi256(1));
    bold.style = CharacterStyle::bold;
    EXPECT_EQ(arena.pack(cell(0, bold))->tag(), PackedCell::scalarTag);
    EXPECT_EQ(arena.pack(cell('x', withBackground(Color::ansi256(1))))->tag(), PackedCell::scalarTag);

    EXPECT_FALSE(arena.replacingContent(*marked, U"", 0));
    EXPECT_FALSE(arena.replacingContent(*marked, std::u32string(1, char32_t(0xD800)), 0));
    EXPECT_FALSE(arena.replacingContent(PackedCell::make(0, 'a', 0, 0, false, 0, 7), U"b", 0));
}

TEST(CellArena, RejectsWhatCannotBeEncoded) {
    CellArena arena;
    CharData bad = cell('a');
    bad.widthStateCode = 4;
    EXPECT_FALSE(arena.pack(bad));
    EXPECT_FALSE(arena.pack(cell(char32_t(0xDC00))));
    EXPECT_FALSE(arena.pack(cell(char32_t(0x110000))));
    CharData negative = cell('a');
    negative.code = -1;
    EXPECT_FALSE(arena.pack(negative));
    CharData badSemantic = cell('a');
    badSemantic.semanticContentCode = 7;
    EXPECT_FALSE(arena.pack(badSemantic));

    // The parts form validates every scalar of a cluster; an empty cluster is nothing.
    EXPECT_FALSE(arena.pack(Attribute::empty, U"", 0));
    EXPECT_FALSE(arena.pack(Attribute::empty, std::u32string{U'e', char32_t(0xD800)}, 0));
    EXPECT_FALSE(arena.pack(uint16_t(0), U"a", 4));
    auto single = arena.pack(Attribute::empty, U"a", 0);
    ASSERT_TRUE(single);
    EXPECT_EQ(single->tag(), PackedCell::scalarTag);
    auto blank = arena.pack(withBackground(Color::ansi256(4)), std::u32string(1, U'\0'), 0);
    ASSERT_TRUE(blank);
    EXPECT_EQ(blank->tag(), PackedCell::paletteBackgroundTag);
    auto pair = arena.pack(uint16_t(0), U"\U0001F1E9\U0001F1EA", 1, 7, 5, true);
    ASSERT_TRUE(pair);
    CharData flag = arena.unpack(*pair);
    EXPECT_EQ(flag.graphemeScalarValues, std::u32string(U"\U0001F1E9\U0001F1EA"));
    EXPECT_EQ(flag.width, 2);
    EXPECT_EQ(flag.payload.code, 7);
    EXPECT_TRUE(flag.isProtected);
    EXPECT_EQ(flag.semanticContent(), SemanticContent::input());
}

TEST(CellArena, ClustersRoundTripAndDanglingIdentifiersReadEmpty) {
    CellArena arena;
    CharData family = cluster(U"\U0001F468\u200D\U0001F469", withForeground(Color::ansi256(3)), 2);
    auto packed = arena.pack(family);
    ASSERT_TRUE(packed);
    EXPECT_EQ(packed->tag(), PackedCell::graphemeTag);
    EXPECT_EQ(arena.pack(family), packed);  // interned once
    EXPECT_EQ(arena.graphemeCount(), 1u);
    EXPECT_EQ(arena.unpack(*packed), family);
    EXPECT_EQ(arena.scalarValues(*packed), U"\U0001F468\u200D\U0001F469");
    EXPECT_EQ(arena.text(*packed), "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9");

    PackedCell dangling = PackedCell::make(PackedCell::graphemeTag, 99, 0, 0, false, 0, 0);
    CharData read = arena.unpack(dangling);
    EXPECT_EQ(read.code, 0);
    EXPECT_FALSE(read.graphemeScalarValues);
    EXPECT_EQ(arena.text(dangling), " ");
    EXPECT_TRUE(arena.scalarValues(dangling).empty());

    // pack keeps an invalid scalar inside a cluster; reading it back as text gives a blank.
    auto odd = arena.pack(cluster(std::u32string{U'a', char32_t(0x110000)}));
    ASSERT_TRUE(odd);
    EXPECT_EQ(arena.text(*odd), " ");
    EXPECT_EQ(arena.unpack(PackedCell::make(0, 'q', 0, 2, false, 0, 0)).width, 0);
}

TEST(CellArena, StyleTableFallsBackToTheDefaultRenditionWhenFull) {
    CellArena arena;
    EXPECT_EQ(arena.intern(Attribute::empty), 0);
    EXPECT_EQ(arena.attributeCount(), 1);
    for (uint32_t i = 1; i <= 65535; ++i) {
        Attribute a = withForeground(Color::trueColor(uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)));
        ASSERT_EQ(arena.intern(a), i);
    }
    // Lookups still find every identifier, through the cache or the dictionary behind it, and
    // as many absent renditions are told apart from them (the dictionary holds only part of
    // each key's hash, so lookalikes must be checked against the key).
    for (uint32_t i = 1; i <= 65535; ++i) {
        Attribute a = withForeground(Color::trueColor(uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)));
        ASSERT_EQ(arena.intern(a), i);
        ASSERT_EQ(arena.attributeFor(uint16_t(i)), a);
        Attribute absent = a;
        absent.bg = Color::ansi256(uint8_t(i));
        ASSERT_FALSE(arena.intern(absent));
    }
    Attribute overflow = withForeground(Color::trueColor(1, 0, 0));
    EXPECT_FALSE(arena.intern(overflow));
    auto packed = arena.pack(cell('x', overflow));
    ASSERT_TRUE(packed);
    EXPECT_EQ(packed->styleID(), 0);
    EXPECT_EQ(arena.unpack(*packed).attribute, Attribute::empty);
    EXPECT_EQ(arena.intern(withForeground(Color::trueColor(0, 0, 5))), 5);
}

TEST(CellArena, GraphemeTableFallsBackToTheFirstValidScalarWhenFull) {
    CellArena arena;
    std::u32string text = U"a\u0300\u0300";
    for (uint32_t i = 1; i <= 65535; ++i) {
        text[1] = char32_t(0x300 + (i & 0x3F));
        text[2] = char32_t(0x10000 + (i >> 6));
        ASSERT_EQ(arena.intern(text), i);
    }
    EXPECT_EQ(arena.intern(U"a\u0300"), std::nullopt);
    CharData late = cluster(std::u32string{char32_t(0x110000), U'z', U'\u0301'});
    auto packed = arena.pack(late);
    ASSERT_TRUE(packed);
    EXPECT_EQ(packed->tag(), PackedCell::scalarTag);
    EXPECT_EQ(packed->value(), uint32_t(U'z'));
    auto none = arena.pack(cluster(std::u32string{char32_t(0xD800), char32_t(0xD801)}));
    EXPECT_EQ(none->value(), 0xFFFDu);
    // Known clusters are still found.
    EXPECT_EQ(arena.intern(text), 65535u);
    EXPECT_EQ(arena.grapheme(65535)->size(), 3u);
    EXPECT_EQ(arena.grapheme(65536), nullptr);
}

TEST(CellArena, SnapshotsReadTheSourcesWordsAndNeverGrow) {
    auto source = std::make_shared<CellArena>();
    auto red = *source->pack(cell('r', withForeground(Color::ansi256(1))));
    auto combined = *source->pack(cluster(U"e\u0301"));
    auto snapshot = CellArena::makeSnapshot(*source);
    EXPECT_TRUE(snapshot->isSnapshotCopy);
    EXPECT_EQ(snapshot->snapshotSourceIdentity, source->identity);
    EXPECT_NE(snapshot->identity, source->identity);
    EXPECT_TRUE(snapshot->preservesEncoding(*source));
    EXPECT_EQ(snapshot->unpack(red), source->unpack(red));
    EXPECT_EQ(snapshot->unpack(combined), source->unpack(combined));

    // New content packed on a snapshot degrades instead of growing its tables.
    auto fresh = snapshot->pack(cluster(U"o\u0308", withForeground(Color::ansi256(1))));
    ASSERT_TRUE(fresh);
    EXPECT_EQ(fresh->tag(), PackedCell::scalarTag);
    EXPECT_EQ(fresh->value(), uint32_t(U'o'));
    EXPECT_EQ(fresh->styleID(), 0);
    EXPECT_EQ(snapshot->graphemeCount(), 1u);

    // The source moves on: the snapshot lags until synchronised.
    auto blue = *source->pack(cell('b', withForeground(Color::ansi256(4))));
    auto later = *source->pack(cluster(U"a\u0301"));
    EXPECT_FALSE(snapshot->preservesEncoding(*source));
    EXPECT_TRUE(snapshot->synchronizeSnapshotPrefix(*source));
    EXPECT_TRUE(snapshot->preservesEncoding(*source));
    EXPECT_EQ(snapshot->unpack(blue).attribute.fg, Color::ansi256(4));
    EXPECT_EQ(snapshot->unpack(later).graphemeScalarValues, std::u32string(U"a\u0301"));

    CellArena other;
    EXPECT_FALSE(snapshot->preservesEncoding(other));
    EXPECT_FALSE(snapshot->synchronizeSnapshotPrefix(other));
    EXPECT_FALSE(source->synchronizeSnapshotPrefix(*snapshot));
    EXPECT_FALSE(source->preservesEncoding(*source));  // only snapshot copies preserve a source
}
