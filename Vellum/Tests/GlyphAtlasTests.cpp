#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Vellum/BoxDrawingRenderer.h"
#include "Vellum/GlyphAtlas.h"
#include "Support/CapturedRenderLog.h"

using namespace vellum;
using vellum::testing::CapturedRenderLog;

namespace {

// Fills shelves of 30 × 30 glyphs (32 × 32 with their gutter) until the atlas grows or resets.
std::vector<AtlasRegion> fillUntilGrowth(GlyphAtlas& atlas) {
    std::vector<AtlasRegion> regions;
    int start = atlas.size();
    while (atlas.size() == start) {
        auto region = atlas.ensureRegion(30, 30);
        if (!region) break;
        regions.push_back(*region);
        if (atlas.didReset()) break;
    }
    return regions;
}

} // namespace

TEST(GlyphAtlas, SizesAreClampedAndEmptyGlyphsGetNoRegion) {
    EXPECT_EQ(GlyphAtlas(100, 8192, GlyphAtlasFormat::grayscale).size(), 256);
    GlyphAtlas capped(4096, 2048, GlyphAtlasFormat::bgra);
    EXPECT_EQ(capped.size(), 2048);
    EXPECT_EQ(capped.data().size(), size_t(2048) * 2048 * 4);
    GlyphAtlas small(1024, 100, GlyphAtlasFormat::grayscale); // the largest side rises to the size
    EXPECT_EQ(small.size(), 256);
    EXPECT_EQ(small.maxSize(), 256);

    GlyphAtlas atlas(1024, 8192, GlyphAtlasFormat::grayscale);
    EXPECT_FALSE(atlas.ensureRegion(0, 0));
    EXPECT_FALSE(atlas.ensureRegion(5, -1));
    // A region sits inside a one-pixel gutter, and shelves advance by the tallest glyph.
    EXPECT_EQ(atlas.ensureRegion(10, 20), (AtlasRegion{1, 1, 10, 20}));
    EXPECT_EQ(atlas.ensureRegion(8, 8), (AtlasRegion{13, 1, 8, 8}));
}

TEST(GlyphAtlas, GrowsByDoublingAndKeepsWhatWasWritten) {
    CapturedRenderLog log;
    GlyphAtlas atlas(1024, 8192, GlyphAtlasFormat::grayscale);
    auto first = *atlas.ensureRegion(2, 2);
    const uint8_t pixels[] = {0, 0, 0, 10, 0, 0, 0, 20, 0, 0, 0, 30, 0, 0, 0, 40}; // BGRA, bottom row first
    atlas.write(first, pixels, 2, 2);
    EXPECT_EQ(atlas.data()[size_t(first.y) * 1024 + first.x], 30); // the top row came last
    EXPECT_EQ(atlas.data()[size_t(first.y + 1) * 1024 + first.x + 1], 20);

    auto regions = fillUntilGrowth(atlas);
    EXPECT_EQ(atlas.size(), 2048);
    EXPECT_EQ(atlas.data().size(), size_t(2048) * 2048);
    EXPECT_EQ(atlas.data()[size_t(first.y) * 2048 + first.x], 30); // the old regions still hold
    EXPECT_FALSE(atlas.didReset());
    EXPECT_EQ(log.lines.back(), "glyph atlas (grayscale) grow: 1024 -> 2048");
    // Every region is distinct and inside the texture.
    for (size_t i = 1; i < regions.size(); ++i) {
        EXPECT_LE(regions[i].x + regions[i].width, atlas.size());
        EXPECT_NE(regions[i], regions[i - 1]);
    }
}

TEST(GlyphAtlas, AtTheLimitTheNextMissResetsAndTooLargeGlyphsLeaveItAlone) {
    CapturedRenderLog log;
    GlyphAtlas atlas(256, 256, GlyphAtlasFormat::bgra);
    EXPECT_FALSE(atlas.ensureRegion(300, 10)); // wider than the largest side with its gutter
    EXPECT_FALSE(atlas.ensureRegion(10, 255));
    EXPECT_FALSE(atlas.didReset());

    auto regions = fillUntilGrowth(atlas); // 8 × 8 glyphs fit; the 65th does not
    EXPECT_EQ(regions.size(), 65u);
    EXPECT_TRUE(atlas.didReset());
    EXPECT_EQ(regions.back(), (AtlasRegion{1, 1, 30, 30})); // placed again from the start
    EXPECT_EQ(atlas.size(), 256);
    EXPECT_EQ(log.lines.back(), "glyph atlas (color) reset at size 256: glyph working set exceeds capacity");
    atlas.ensureRegion(30, 30);
    EXPECT_FALSE(atlas.didReset()); // only the call that reset says so
}

TEST(GlyphAtlas, FrozenAtlasNeitherGrowsNorResets) {
    CapturedRenderLog log;
    GlyphAtlas atlas(256, 1024, GlyphAtlasFormat::grayscale);
    for (int i = 0; i < 64; ++i) ASSERT_TRUE(atlas.ensureRegion(30, 30));
    atlas.setFrozen(true);
    EXPECT_FALSE(atlas.ensureRegion(30, 30));
    EXPECT_FALSE(atlas.ensureRegion(30, 30));
    EXPECT_EQ(atlas.size(), 256);
    EXPECT_FALSE(atlas.didReset());
    ASSERT_EQ(log.lines.size(), 1u); // logged once
    EXPECT_EQ(log.lines[0], "glyph atlas (grayscale) frozen and full; glyphs will be skipped this frame");
    atlas.setFrozen(false);
    EXPECT_TRUE(atlas.ensureRegion(30, 30));
    EXPECT_EQ(atlas.size(), 512);
}

TEST(GlyphAtlas, UploadsTheWholeTextureAfterGrowthElseWhatWasWritten) {
    CapturedRenderLog log;
    GlyphAtlas atlas(256, 1024, GlyphAtlasFormat::grayscale);
    EXPECT_TRUE(atlas.takeUpload()->whole); // a new texture
    EXPECT_FALSE(atlas.takeUpload());
    std::vector<uint8_t> rows(4 * 3, 255);
    auto a = *atlas.ensureRegion(4, 3);
    auto b = *atlas.ensureRegion(4, 3);
    atlas.writeRows(a, rows.data(), 4);
    atlas.writeRows(b, rows.data(), 4);
    auto upload = atlas.takeUpload();
    ASSERT_TRUE(upload);
    EXPECT_FALSE(upload->whole);
    EXPECT_EQ(upload->region, (AtlasRegion{a.x, a.y, b.x + 4 - a.x, 3}));
    fillUntilGrowth(atlas);
    EXPECT_TRUE(atlas.takeUpload()->whole);
}

TEST(GlyphAtlas, RecommendedMaximumFollowsTheEnvironment) {
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::grayscale, true), 8192);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::bgra, true), 4096);
    {
        platform::testing::ScopedEnvironment env("VELLUM_ATLAS_MAX", "100");
        EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::grayscale, true), 256);
    }
    {
        platform::testing::ScopedEnvironment env("VELLUM_ATLAS_MAX", "99999");
        EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::grayscale, true), 16384);
        EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::grayscale, false), 8192);
    }
    {
        platform::testing::ScopedEnvironment env("VELLUM_ATLAS_MAX", "lots");
        EXPECT_EQ(GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::bgra, true), 4096);
    }
}

TEST(BoxDrawing, LinesMeetAtTheCentreAndReachTheEdges) {
    for (auto [w, h] : {std::pair{9, 19}, std::pair{10, 20}, std::pair{17, 35}}) {
        CoverageBitmap cross, horizontal, vertical;
        ASSERT_TRUE(renderSynthesizedGlyph(U'┼', w, h, false, cross));
        renderSynthesizedGlyph(U'─', w, h, false, horizontal);
        renderSynthesizedGlyph(U'│', w, h, false, vertical);
        EXPECT_EQ(cross.width, w);
        EXPECT_EQ(cross.height, h);
        // The horizontal stroke touches both side edges on the centre row; the vertical both
        // top and bottom on the centre column, so that neighbouring cells join.
        EXPECT_EQ(horizontal.at(0, h / 2), 255);
        EXPECT_EQ(horizontal.at(w - 1, h / 2), 255);
        EXPECT_EQ(horizontal.at(w / 2, 0), 0);
        EXPECT_EQ(vertical.at(w / 2, 0), 255);
        EXPECT_EQ(vertical.at(w / 2, h - 1), 255);
        EXPECT_EQ(cross.at(w / 2, h / 2), 255);
        EXPECT_EQ(cross.at(0, 0), 0);
    }
}

TEST(BoxDrawing, BlocksShadesAndPowerline) {
    CoverageBitmap full, lower, shade, arrow;
    renderSynthesizedGlyph(U'█', 8, 16, false, full);
    EXPECT_EQ(std::count(full.pixels.begin(), full.pixels.end(), 255), 8 * 16);
    renderSynthesizedGlyph(U'▄', 8, 16, false, lower);
    EXPECT_EQ(lower.at(3, 7), 0);
    EXPECT_EQ(lower.at(3, 8), 255);
    renderSynthesizedGlyph(U'▒', 8, 16, false, shade);
    EXPECT_EQ(shade.at(4, 4), 128);
    ASSERT_TRUE(renderSynthesizedGlyph(U'\uE0B0', 10, 20, true, arrow));
    EXPECT_EQ(arrow.at(0, 10), 255); // the flat side fills the left edge
    EXPECT_GT(arrow.at(9, 10), 100); // the tip reaches the right edge at the middle
    EXPECT_EQ(arrow.at(9, 0), 0);
    CoverageBitmap none;
    EXPECT_FALSE(renderSynthesizedGlyph(U'a', 8, 16, false, none));
}
