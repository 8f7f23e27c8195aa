#include "Vellum/TerminalFrameBuilder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "Platform/Unicode.h"
#include "Vellum/BoxDrawingRenderer.h"
#include "Vellum/RenderLog.h"

namespace vellum {

namespace {

Float4 toFloat4(Color color) { return Float4{color.red / 65535.f, color.green / 65535.f, color.blue / 65535.f, 1.f}; }

Float4 mix(Float4 a, Float4 b, float t) {
    return Float4{a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t, 1.f};
}

uint64_t hashMix(uint64_t seed, uint64_t value) {
    return seed ^ (value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2));
}

FontStyle styleOf(const Attribute& attribute) {
    bool bold = attribute.style.contains(CharacterStyle::bold);
    bool italic = attribute.style.contains(CharacterStyle::italic);
    return FontStyle(int(bold) | int(italic) << 1);
}

// The one scalar of a cell drawn by our own code, or nothing.
std::optional<char32_t> synthesized(std::string_view text) {
    if (text.size() != 3) return std::nullopt;
    auto step = platform::unicode::decodeUtf8Scalar(text);
    if (step.length != 3 || !isSynthesizedGlyph(step.scalar)) return std::nullopt;
    return step.scalar;
}

void appendRect(std::vector<ColorCell>& out, float x, float y, float width, float height, Float4 color) {
    out.push_back(ColorCell{{x, y}, {width, height}, color});
}

} // namespace

TerminalFrameBuilder::TerminalFrameBuilder(const std::string& family, double pixelSize)
    : rasterizer_(std::make_unique<GlyphRasterizer>(family, pixelSize)),
      gray_(1024, GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::grayscale, false), GlyphAtlasFormat::grayscale),
      color_(1024, GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat::bgra, false), GlyphAtlasFormat::bgra) {
    measureCell();
}

void TerminalFrameBuilder::measureCell() {
    cell_ = rasterizer_->metrics();
    baselineShift_ = 0;
    if (requestedWidth_ > 0 && requestedHeight_ > 0) {
        baselineShift_ = (requestedHeight_ - cell_.height) / 2;
        cell_.width = requestedWidth_;
        cell_.height = requestedHeight_;
        cell_.ascent += baselineShift_;
        cell_.underlinePosition = std::min(cell_.underlinePosition + baselineShift_, cell_.height - cell_.lineThickness);
        cell_.strikePosition += baselineShift_;
    }
}

void TerminalFrameBuilder::setCellSize(int width, int height) {
    if (width == requestedWidth_ && height == requestedHeight_) return;
    requestedWidth_ = width;
    requestedHeight_ = height;
    measureCell();
    ++fontGeneration_;
    forgetGlyphs();
}

TerminalFrameBuilder::~TerminalFrameBuilder() = default;

void TerminalFrameBuilder::setFont(const std::string& family, double pixelSize) {
    if (family == rasterizer_->family() && pixelSize == rasterizer_->pixelSize()) return;
    rasterizer_ = std::make_unique<GlyphRasterizer>(family, pixelSize);
    measureCell();
    ++fontGeneration_;
    forgetGlyphs();
}

void TerminalFrameBuilder::setAtlasMaximum(int maxSize) {
    gray_ = GlyphAtlas(256, maxSize, GlyphAtlasFormat::grayscale);
    color_ = GlyphAtlas(256, maxSize, GlyphAtlasFormat::bgra);
    forgetGlyphs();
}

void TerminalFrameBuilder::invalidateRows() {
    for (auto& row : rowCache_) row.valid = false;
    drawnRows_.clear();
}

void TerminalFrameBuilder::forgetGlyphs() {
    glyphs_.clear();
    for (auto& index : glyphIndex_) index.clear();
    invalidateRows();
}

void TerminalFrameBuilder::arrangeRowCache(const TerminalSnapshot& snapshot) {
    const auto& rows = snapshot.rows();
    rowLookup_.clear();
    for (uint32_t i = 0; i < rowCache_.size(); ++i)
        if (rowCache_[i].valid && rowCache_[i].identity != 0) rowLookup_.emplace_back(rowCache_[i].identity, i);
    std::sort(rowLookup_.begin(), rowLookup_.end());
    rowTaken_.assign(rowCache_.size(), 0);
    rowScratch_.resize(std::max(rows.size(), rowCache_.size()));
    for (size_t y = 0; y < rows.size(); ++y) {
        const RenderSnapshotRow& row = rows[y].row;
        auto found = std::lower_bound(rowLookup_.begin(), rowLookup_.end(), std::pair{row.identity, uint32_t(0)});
        for (; found != rowLookup_.end() && found->first == row.identity; ++found) {
            if (rowTaken_[found->second] || !rowCache_[found->second].matches(row)) continue;
            rowTaken_[found->second] = 1;
            std::swap(rowScratch_[y], rowCache_[found->second]);
            break;
        }
        if (found == rowLookup_.end() || found->first != row.identity) rowScratch_[y].valid = false;
    }
    // What no screen row took is kept for its buffers, past the rows shown.
    size_t spare = rows.size();
    for (size_t i = 0; i < rowCache_.size() && spare < rowScratch_.size(); ++i)
        if (!rowTaken_[i]) std::swap(rowScratch_[spare++], rowCache_[i]);
    std::swap(rowCache_, rowScratch_);
}

uint64_t TerminalFrameBuilder::signatureOf(const TerminalRenderSnapshot& state, const FrameOverlay&) const {
    uint64_t h = fontGeneration_;
    h = hashMix(h, uint64_t(gray_.size()) << 32 | uint64_t(color_.size()));
    h = hashMix(h, gray_.textureGeneration() << 32 ^ color_.textureGeneration());
    auto addColor = [&](Color c) { h = hashMix(h, uint64_t(c.red) << 32 | uint64_t(c.green) << 16 | c.blue); };
    addColor(state.foregroundColor);
    addColor(state.backgroundColor);
    h = hashMix(h, state.reverseVideo);
    for (const Color& c : state.palette) addColor(c);
    return h;
}

const DrawData& TerminalFrameBuilder::build(const TerminalSnapshot& snapshot, const FrameOverlay& overlay) {
    ++counters_.frames;
    arrangeRowCache(snapshot);
    for (int pass = 1; pass <= maximumPasses; ++pass) {
        bool last = pass == maximumPasses;
        if (buildPass(snapshot, overlay, last)) break;
        ++counters_.rebuildPasses;
        if (!last)
            renderLog("glyph atlas changed during frame build; rebuild pass " + std::to_string(pass + 1) + "/" +
                      std::to_string(maximumPasses));
    }
    buildCursor(snapshot, overlay);
    computeDamage(snapshot);
    return draw_;
}

// Glyphs may reach past their row (accents, descenders, fallback fonts), so a row's band is
// where any of its records lands, and never less than the row itself.
void TerminalFrameBuilder::measureReach(RowCacheEntry& entry, float top, float height) {
    float low = top, high = top + height;
    auto reach = [&](const auto& records) {
        for (const auto& r : records) low = std::min(low, r.position.y), high = std::max(high, r.position.y + r.size.y);
    };
    reach(entry.buffers.backgroundCells);
    reach(entry.buffers.powerlineJoinCells);
    reach(entry.buffers.glyphCellsGray);
    reach(entry.buffers.glyphCellsColor);
    reach(entry.buffers.decorationCells);
    entry.reachTop = low;
    entry.reachBottom = high;
}

void TerminalFrameBuilder::computeDamage(const TerminalSnapshot& snapshot) {
    const auto& rows = snapshot.rows();
    int cols = snapshot.state().cols;
    FrameDamage& damage = draw_.damage;
    damage = FrameDamage{};
    damage.full = drawnRows_.size() != rows.size() || drawnCols_ != cols || drawnSignature_ != frameSignature_;
    drawnSignature_ = frameSignature_;
    drawnCols_ = cols;
    drawnRows_.resize(rows.size());
    for (size_t y = 0; y < rows.size(); ++y) {
        const RowCacheEntry& entry = rowCache_[y];
        float dy = float(int(y) * cell().height) - entry.builtTop;
        DrawnRow now{entry.serial, entry.reachTop + dy, entry.reachBottom + dy};
        // A row built again, or one that scrolled here, differs; one left alone does not.
        if (drawnRows_[y].serial != now.serial || drawnRows_[y].top != now.top) {
            damage.include(drawnRows_[y].top, drawnRows_[y].bottom);
            damage.include(now.top, now.bottom);
        }
        drawnRows_[y] = now;
    }
    // A cursor drawn differently changes the band where it was and the one where it is now.
    DrawnCursor& was = drawnCursor_;
    if (draw_.cursorColorVertices == was.color && draw_.cursorGlyphVerticesGray == was.glyphsGray &&
        draw_.cursorGlyphVerticesColor == was.glyphsColor)
        return;
    damage.include(was.top, was.bottom);
    was.color = draw_.cursorColorVertices;
    was.glyphsGray = draw_.cursorGlyphVerticesGray;
    was.glyphsColor = draw_.cursorGlyphVerticesColor;
    float low = std::numeric_limits<float>::max(), high = std::numeric_limits<float>::lowest();
    auto reach = [&](const auto& vertices) {
        for (const auto& v : vertices) low = std::min(low, v.position.y), high = std::max(high, v.position.y);
    };
    reach(was.color);
    reach(was.glyphsGray);
    reach(was.glyphsColor);
    was.top = low < high ? low : 0;
    was.bottom = low < high ? high : 0;
    damage.include(was.top, was.bottom);
}

// One attempt at the whole frame; false when the atlases moved under it and every region
// collected so far is stale.
bool TerminalFrameBuilder::buildPass(const TerminalSnapshot& snapshot, const FrameOverlay& overlay, bool lastPass) {
    atlasInvalidatedDuringBuild_ = false;
    gray_.setFrozen(lastPass);
    color_.setFrozen(lastPass);
    uint64_t skippedBefore = counters_.glyphsSkipped;
    const TerminalRenderSnapshot& state = snapshot.state();
    uint64_t signature = signatureOf(state, overlay);
    frameSignature_ = signature;
    const auto& rows = snapshot.rows();
    draw_.frame.clear();
    draw_.clearColor = toFloat4(state.reverseVideo ? state.foregroundColor : state.backgroundColor);
    for (int y = 0; y < int(rows.size()); ++y) {
        int from = 0, to = 0;
        if (overlay.selection) {
            auto [start, end] = *overlay.selection;
            if (y >= start.row && y <= end.row) {
                from = y == start.row ? start.col : 0;
                to = y == end.row ? end.col : state.cols;
            }
        }
        RowCacheEntry& entry = rowCache_[size_t(y)];
        const RenderSnapshotRow& row = rows[size_t(y)].row;
        float top = float(y * cell().height);
        if (entry.matches(row) && entry.signature == signature && entry.selectionFrom == from && entry.selectionTo == to) {
            ++counters_.rowsReused;
        } else {
            entry.buffers.clear();
            uint64_t skipped = counters_.glyphsSkipped;
            buildRow(snapshot, y, from, to, entry.buffers);
            if (atlasInvalidatedDuringBuild_) break;
            // A row that misses glyphs is built again next frame, when they may fit.
            entry.valid = counters_.glyphsSkipped == skipped;
            entry.identity = row.identity;
            entry.recycleGeneration = row.recycleGeneration;
            entry.generation = row.generation;
            entry.signature = signature;
            entry.selectionFrom = from;
            entry.selectionTo = to;
            entry.builtTop = top;
            entry.serial = nextSerial_++;
            measureReach(entry, top, float(cell().height));
            ++counters_.rowsBuilt;
        }
        draw_.frame.append(entry.buffers, top - entry.builtTop);
    }
    gray_.setFrozen(false);
    color_.setFrozen(false);
    // Growth moves the normalised coordinates of everything built before it.
    bool stable = !atlasInvalidatedDuringBuild_ && signatureOf(state, overlay) == signature;
    if (lastPass && counters_.glyphsSkipped != skippedBefore)
        renderLog("glyph working set exceeds max atlas capacity; some glyphs will be skipped this frame");
    if (!stable && !lastPass) invalidateRows();
    return stable || lastPass;
}

TerminalFrameBuilder::CellColors TerminalFrameBuilder::colorsOf(const RenderSnapshotCell& cell,
                                                                const TerminalRenderSnapshot& state, bool selected) const {
    const Attribute& a = cell.attribute;
    CellColors out{resolve(a.fg, state, true), resolve(a.bg, state, false),
                   a.bg.kind() == Attribute::Color::Kind::defaultColor};
    if (a.style.contains(CharacterStyle::inverse) != selected) {
        std::swap(out.fg, out.bg);
        out.defaultBackground = false;
    }
    if (a.style.contains(CharacterStyle::dim)) out.fg = mix(out.fg, out.bg, 0.5f);
    if (a.style.contains(CharacterStyle::invisible)) out.fg = out.bg;
    return out;
}

Float4 TerminalFrameBuilder::resolve(Attribute::Color color, const TerminalRenderSnapshot& state, bool foreground) const {
    using Kind = Attribute::Color::Kind;
    Color fg = state.reverseVideo ? state.backgroundColor : state.foregroundColor;
    Color bg = state.reverseVideo ? state.foregroundColor : state.backgroundColor;
    switch (color.kind()) {
    case Kind::ansi256: return toFloat4(state.palette[color.code()]);
    case Kind::trueColor: return toFloat4(Color::fromBytes(color.red(), color.green(), color.blue()));
    case Kind::defaultColor: return toFloat4(foreground ? fg : bg);
    case Kind::defaultInvertedColor: return toFloat4(foreground ? bg : fg);
    }
    return toFloat4(foreground ? fg : bg);
}

void TerminalFrameBuilder::buildRow(const TerminalSnapshot& snapshot, int y, int from, int to, RowDrawBuffers& out) {
    const TerminalRenderSnapshot& state = snapshot.state();
    const auto& cells = snapshot.rows()[size_t(y)].row.cells;
    if (!cells) return;
    const CellMetrics& m = cell();
    float top = float(y * m.height);
    int col = 0;
    for (const RenderSnapshotCell& c : *cells) {
        int x = col;
        ++col;
        if (c.widthState == RenderSnapshotWidthState::spacerTail || c.widthState == RenderSnapshotWidthState::spacerHead)
            continue;
        int cellsWide = std::max(1, c.width);
        bool selected = x >= from && x < to;
        CellColors colors = colorsOf(c, state, selected);
        float left = float(x * m.width), width = float(m.width * cellsWide);
        if (!colors.defaultBackground) {
            // Neighbours of one colour share a rectangle.
            ColorCell* last = out.backgroundCells.empty() ? nullptr : &out.backgroundCells.back();
            if (last && last->color == colors.bg && last->position.x + last->size.x == left) last->size.x += width;
            else appendRect(out.backgroundCells, left, top, width, float(m.height), colors.bg);
        }
        if (!c.text.empty() && !c.attribute.style.contains(CharacterStyle::invisible)) {
            if (const GlyphEntry* entry = glyph(c.text, cellsWide, styleOf(c.attribute))) {
                if (atlasInvalidatedDuringBuild_) return;
                appendGlyph(*entry, left, top, colors.fg, out);
                if (auto scalar = synthesized(c.text); scalar && isPowerlineSeparator(*scalar)) {
                    // The flat side of a separator meets its neighbour without a seam.
                    float seamX = (*scalar == 0xE0B0 || *scalar == 0xE0B1) ? left : left + width - 1;
                    if (*scalar == 0xE0B0 || *scalar == 0xE0B2)
                        appendRect(out.powerlineJoinCells, seamX, top, 1, float(m.height), colors.fg);
                }
            }
        }
        appendDecorations(c.attribute, colors.fg, left, top, width, out);
    }
}

void TerminalFrameBuilder::appendDecorations(const Attribute& a, Float4 fg, float x, float y, float width,
                                             RowDrawBuffers& out) const {
    const CellMetrics& m = cell();
    UnderlineStyle underline = a.underlineStyle;
    if (underline == UnderlineStyle::none && a.style.contains(CharacterStyle::underline)) underline = UnderlineStyle::single;
    float thick = float(m.lineThickness), base = y + float(m.underlinePosition);
    if (underline != UnderlineStyle::none) {
        Float4 color = fg;
        if (a.underlineColor && a.underlineColor->kind() == Attribute::Color::Kind::trueColor)
            color = toFloat4(Color::fromBytes(a.underlineColor->red(), a.underlineColor->green(), a.underlineColor->blue()));
        switch (underline) {
        case UnderlineStyle::single: appendRect(out.decorationCells, x, base, width, thick, color); break;
        case UnderlineStyle::double_:
            appendRect(out.decorationCells, x, base - thick, width, thick, color);
            appendRect(out.decorationCells, x, std::min(base + thick, y + m.height - thick), width, thick, color);
            break;
        case UnderlineStyle::dotted:
            for (float dx = 0; dx < width; dx += 2 * thick)
                appendRect(out.decorationCells, x + dx, base, std::min(thick, width - dx), thick, color);
            break;
        case UnderlineStyle::dashed:
            for (float dx = 0; dx < width; dx += 6 * thick)
                appendRect(out.decorationCells, x + dx, base, std::min(4 * thick, width - dx), thick, color);
            break;
        case UnderlineStyle::curly: {
            // A wave of short steps, two pixels up and down across each cell.
            float step = std::max(1.f, float(m.width) / 4);
            for (int i = 0; float(i) * step < width; ++i) {
                float lift = (i % 4 == 1 || i % 4 == 2) ? -thick : 0;
                appendRect(out.decorationCells, x + float(i) * step, base + lift, std::min(step, width - float(i) * step), thick, color);
            }
            break;
        }
        case UnderlineStyle::none: break;
        }
    }
    if (a.style.contains(CharacterStyle::crossedOut)) appendRect(out.decorationCells, x, y + float(m.strikePosition), width, thick, fg);
}

void TerminalFrameBuilder::appendGlyph(const GlyphEntry& entry, float x, float y, Float4 color, RowDrawBuffers& out) const {
    for (const Quad& q : entry.quads) {
        const GlyphAtlas& atlas = q.color ? color_ : gray_;
        float size = float(atlas.size());
        TextCell cell{{x + float(q.left), y + float(q.top)},
                      {float(q.width), float(q.height)},
                      {float(q.region.x) / size, float(q.region.y) / size},
                      {float(q.region.width) / size, float(q.region.height) / size},
                      q.color ? Float4{1, 1, 1, 1} : color};
        (q.color ? out.glyphCellsColor : out.glyphCellsGray).push_back(cell);
    }
}

const TerminalFrameBuilder::GlyphEntry* TerminalFrameBuilder::glyph(std::string_view text, int cells, FontStyle style) {
    cells = std::min(cells, 2);
    GlyphMap& index = glyphIndex_[int(style) * 2 + (cells - 1)];
    if (auto found = index.find(text); found != index.end()) return &glyphs_[found->second];
    const CellMetrics& m = cell();
    GlyphEntry entry;
    int shift = baselineShift_;
    auto place = [&](RasterGlyph& g) {
        GlyphAtlas& atlas = g.color ? color_ : gray_;
        auto region = atlas.ensureRegion(g.width, g.height);
        if (atlas.didReset()) {
            atlasInvalidatedDuringBuild_ = true;
            return false;
        }
        if (!region) {
            ++counters_.glyphsSkipped;
            return true;
        }
        atlas.writeRows(*region, g.pixels.data(), g.width * atlas.bytesPerPixel());
        entry.quads.push_back(Quad{g.left, g.top + shift, g.width, g.height, *region, g.color});
        return true;
    };
    rasterScratch_.clear();
    if (auto scalar = synthesized(text)) {
        shift = 0; // drawn to the cell itself
        CoverageBitmap bitmap;
        renderSynthesizedGlyph(*scalar, m.width * cells, m.height, true, bitmap);
        rasterScratch_.push_back(RasterGlyph{0, 0, bitmap.width, bitmap.height, false, std::move(bitmap.pixels)});
    } else {
        rasterizer_->rasterize(text, cells, style, rasterScratch_);
    }
    ++counters_.glyphsRasterized;
    for (RasterGlyph& g : rasterScratch_) {
        if (!place(g)) {
            forgetGlyphs();
            return nullptr;
        }
    }
    // A glyph skipped by a frozen atlas is tried again on the next frame.
    if (entry.quads.size() < rasterScratch_.size()) {
        static const GlyphEntry partial;
        return &partial;
    }
    glyphs_.push_back(std::move(entry));
    index.emplace(std::string(text), uint32_t(glyphs_.size() - 1));
    return &glyphs_.back();
}

template <typename Vertex>
void TerminalFrameBuilder::appendQuad(std::vector<Vertex>& out, Vertex base, float x, float y, float w, float h, Float2 tex,
                                      Float2 texSize) {
    for (Float2 corner : kQuadCorners) {
        Vertex v = base;
        v.position = Float2{x + w * corner.x, y + h * corner.y};
        if constexpr (std::is_same_v<Vertex, GlyphVertex>) v.texCoord = Float2{tex.x + texSize.x * corner.x, tex.y + texSize.y * corner.y};
        out.push_back(v);
    }
}

void TerminalFrameBuilder::buildCursor(const TerminalSnapshot& snapshot, const FrameOverlay& overlay) {
    draw_.cursorColorVertices.clear();
    draw_.cursorGlyphVerticesGray.clear();
    draw_.cursorGlyphVerticesColor.clear();
    const TerminalRenderSnapshot& state = snapshot.state();
    const RenderSnapshotCursor& cursor = state.cursor;
    // Uncommitted input shows at the cursor even while the program hides the cursor.
    if (!overlay.preedit.empty()) return buildPreedit(state, overlay.preedit);
    if (!overlay.cursorShown || cursor.hidden || cursor.y < 0 || cursor.y >= int(snapshot.rows().size())) return;
    const CellMetrics& m = cell();
    const RenderSnapshotCell* under = nullptr;
    if (const auto& cells = snapshot.rows()[size_t(cursor.y)].row.cells; cells && cursor.x >= 0 && cursor.x < int(cells->size()))
        under = &(*cells)[size_t(cursor.x)];
    int wide = under ? std::max(1, under->width) : 1;
    float x = float(cursor.x * m.width), y = float(cursor.y * m.height), w = float(m.width * wide), h = float(m.height);
    Float4 color = toFloat4(state.cursorColor.value_or(state.reverseVideo ? state.backgroundColor : state.foregroundColor));
    ColorVertex base{{}, {}, color};
    auto rect = [&](float rx, float ry, float rw, float rh) { appendQuad(draw_.cursorColorVertices, base, rx, ry, rw, rh); };
    float thick = float(std::max(2, m.lineThickness));
    bool block = cursor.style == CursorStyle::blinkBlock || cursor.style == CursorStyle::steadyBlock;
    if (!overlay.cursorFocused) {
        rect(x, y, w, 1), rect(x, y + h - 1, w, 1), rect(x, y, 1, h), rect(x + w - 1, y, 1, h);
        return;
    }
    if (!block) {
        bool bar = cursor.style == CursorStyle::blinkBar || cursor.style == CursorStyle::steadyBar;
        if (bar) rect(x, y, thick, h);
        else rect(x, y + h - thick, w, thick);
        return;
    }
    rect(x, y, w, h);
    // The character under a block cursor shows in the background colour.
    if (!under || under->text.empty()) return;
    if (const GlyphEntry* entry = glyph(under->text, wide, styleOf(under->attribute)))
        appendCursorGlyph(*entry, x, y, draw_.clearColor);
}

void TerminalFrameBuilder::appendCursorGlyph(const GlyphEntry& entry, float x, float y, Float4 color) {
    for (const Quad& q : entry.quads) {
        const GlyphAtlas& atlas = q.color ? color_ : gray_;
        float size = float(atlas.size());
        auto& out = q.color ? draw_.cursorGlyphVerticesColor : draw_.cursorGlyphVerticesGray;
        appendQuad(out, GlyphVertex{{}, {}, q.color ? Float4{1, 1, 1, 1} : color}, x + float(q.left), y + float(q.top),
                   float(q.width), float(q.height), Float2{float(q.region.x) / size, float(q.region.y) / size},
                   Float2{float(q.region.width) / size, float(q.region.height) / size});
    }
}

void TerminalFrameBuilder::buildPreedit(const TerminalRenderSnapshot& state, const std::string& text) {
    const CellMetrics& m = cell();
    Float4 fg = toFloat4(state.reverseVideo ? state.backgroundColor : state.foregroundColor);
    float x = float(state.cursor.x * m.width), y = float(state.cursor.y * m.height);
    float start = x;
    std::string_view rest = text;
    std::string piece;
    while (!rest.empty()) {
        auto step = platform::unicode::decodeUtf8Scalar(rest);
        piece.assign(rest.substr(0, step.length));
        rest.remove_prefix(step.length);
        int cells = std::max(1, platform::unicode::width(step.scalar));
        appendQuad(draw_.cursorColorVertices, ColorVertex{{}, {}, draw_.clearColor}, x, y, float(m.width * cells), float(m.height));
        if (const GlyphEntry* entry = glyph(piece, cells, FontStyle::regular)) appendCursorGlyph(*entry, x, y, fg);
        x += float(m.width * cells);
    }
    appendQuad(draw_.cursorColorVertices, ColorVertex{{}, {}, fg}, start, y + float(m.underlinePosition), x - start,
               float(m.lineThickness));
}

} // namespace vellum
