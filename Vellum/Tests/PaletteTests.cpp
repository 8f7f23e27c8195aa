#include <gtest/gtest.h>

#include "Vellum/Charsets.h"
#include "Vellum/Palette.h"
#include "Vellum/TabStops.h"

using namespace vellum;

TEST(Palette, ParsesEveryColourSpellingToSixteenBits) {
    EXPECT_EQ(Color::parseColor("rgb:f/0/8"), (Color{0xffff, 0, 0x8888}));
    EXPECT_EQ(Color::parseColor("rgb:ff/00/80"), (Color{0xffff, 0, 0x8080}));
    EXPECT_EQ(Color::parseColor("rgb:fff/000/800"), (Color{0xffff, 0, 0x8008}));
    EXPECT_EQ(Color::parseColor("rgb:ffff/0000/8080"), (Color{0xffff, 0, 0x8080}));
    EXPECT_EQ(Color::parseColor("#f08"), (Color{0xf000, 0, 0x8000}));
    EXPECT_EQ(Color::parseColor("#ff0080"), (Color{0xff00, 0, 0x8000}));
    EXPECT_EQ(Color::parseColor("#ffff00008080"), (Color{0xffff, 0, 0x8080}));
    for (const char* bad : {"", "rgb:", "rgb:1/2", "rgb:1/2/3/4", "rgb:12345/0/0", "rgb:g/0/0", "#12", "#1234", "red"})
        EXPECT_EQ(Color::parseColor(bad), std::nullopt) << bad;
    EXPECT_EQ((Color{0xffff, 0, 0x8080}).formatAsXcolor(), "rgb:ffff/0000/8080");
    EXPECT_EQ(Color::fromBytes(1, 2, 255), (Color{257, 514, 65535}));
}

TEST(Palette, XtermStrategyBuildsCubeAndGreys) {
    auto palette = buildAnsiPalette(Color::xtermColors(), Ansi256PaletteStrategy::xterm, Color{}, Color{});
    EXPECT_EQ(palette[1], Color::fromBytes(0xcd, 0, 0));
    EXPECT_EQ(palette[16], Color::fromBytes(0, 0, 0));
    EXPECT_EQ(palette[16 + 36 * 1 + 6 * 2 + 3], Color::fromBytes(95, 135, 175));
    EXPECT_EQ(palette[231], Color::fromBytes(255, 255, 255));
    EXPECT_EQ(palette[232], Color::fromBytes(8, 8, 8));
    EXPECT_EQ(palette[255], Color::fromBytes(238, 238, 238));
}

TEST(Palette, LabStrategiesSpanBackgroundToForeground) {
    Color black = Color::fromBytes(0x10, 0x10, 0x10), white = Color::fromBytes(0xf0, 0xf0, 0xf0);
    const auto& base = Color::xtermColors();
    auto near = [](Color a, Color b) {
        return std::abs(a.red - b.red) <= 2 * 257 && std::abs(a.green - b.green) <= 2 * 257 && std::abs(a.blue - b.blue) <= 2 * 257;
    };

    auto dark = buildAnsiPalette(base, Ansi256PaletteStrategy::base16Lab, white, black);
    EXPECT_TRUE(near(dark[16], black));
    EXPECT_TRUE(near(dark[231], white));
    EXPECT_TRUE(near(dark[16 + 36 * 5], base[1])); // pure red corner
    for (int i = 233; i < 256; ++i) EXPECT_GE(dark[i].red, dark[i - 1].red) << i; // greys climb towards the light end

    // A light theme keeps the cube dark-to-light in base16Lab, but not in the harmonious variant.
    auto light = buildAnsiPalette(base, Ansi256PaletteStrategy::base16Lab, black, white);
    EXPECT_TRUE(near(light[16], black));
    auto harmonious = buildAnsiPalette(base, Ansi256PaletteStrategy::base16LabHarmonious, black, white);
    EXPECT_TRUE(near(harmonious[16], white));
    EXPECT_TRUE(near(harmonious[231], black));

    // Fewer than eight installed colours fall back to the xterm cube.
    std::vector<Color> few(base.begin(), base.begin() + 4);
    auto fallback = buildAnsiPalette(few, Ansi256PaletteStrategy::base16Lab, white, black);
    EXPECT_EQ(fallback[16 + 36 + 12 + 3], Color::fromBytes(95, 135, 175));
}

TEST(Charsets, DesignatorsSelectTheNationalAndGraphicSets) {
    const Charset* graphics = charsetForDesignator('0');
    ASSERT_NE(graphics, nullptr);
    EXPECT_EQ(graphics->map('q'), "\u2500");
    EXPECT_EQ(graphics->map('x'), "\u2502");
    EXPECT_EQ(graphics->map('A'), std::nullopt);
    EXPECT_EQ(charsetForDesignator('2'), graphics);
    EXPECT_EQ(charsetForDesignator('A')->map('#'), "\u00a3");
    EXPECT_EQ(charsetForDesignator('K')->map('~'), "\u00df");
    EXPECT_EQ(charsetForDesignator('=')->map('_'), "\u00e8");
    ASSERT_NE(charsetForDesignator('B'), nullptr);
    for (int byte = 0; byte < 128; ++byte) EXPECT_EQ(charsetForDesignator('B')->map(static_cast<unsigned char>(byte)), std::nullopt);
    EXPECT_EQ(charsetForDesignator('X'), nullptr);
    EXPECT_EQ(graphics->map(0xe2), std::nullopt);
}

TEST(TabStops, RegularStopsSetClearAndResize) {
    TabStops stops;
    stops.setup(20, 8);
    EXPECT_TRUE(stops.isSet(0) && stops.isSet(8) && stops.isSet(16));
    EXPECT_EQ(stops.next(0, 19), 8);
    EXPECT_EQ(stops.next(16, 19), 19); // no stop left: the limit
    EXPECT_EQ(stops.next(3, 5), 5);    // a right margin bounds the search
    EXPECT_EQ(stops.previous(10), 8);
    EXPECT_EQ(stops.previous(3), 0);
    stops.set(11);
    stops.clear(16);
    EXPECT_EQ(stops.next(8, 19), 11);
    EXPECT_EQ(stops.next(11, 19), 19);
    stops.set(99);
    stops.clear(-1); // out of range is ignored

    // Growing keeps custom stops and continues the pattern after the old width.
    stops.setup(40, 8, 20);
    EXPECT_TRUE(stops.isSet(11));
    EXPECT_FALSE(stops.isSet(16));
    EXPECT_TRUE(stops.isSet(27) && stops.isSet(35)); // the pattern goes on from the custom stop at 11
    EXPECT_FALSE(stops.isSet(24));
    stops.clearAll();
    EXPECT_EQ(stops.next(0, 39), 39);
    EXPECT_EQ(stops.previous(39), 0);
}
