#include "Vellum/TerminalRenderSnapshot.h"

#include <algorithm>
#include <unordered_set>

#include "Vellum/Terminal.h"

namespace vellum {

namespace {

bool isBlinkingStyle(CursorStyle style) {
    return style == CursorStyle::blinkBlock || style == CursorStyle::blinkUnderline || style == CursorStyle::blinkBar;
}

RenderSnapshotCache::Stamp stampOf(const BufferLine& line) {
    return {line.renderIdentity.value, line.recycleGeneration, line._generation};
}

} // namespace

std::vector<RenderSnapshotCell> renderCells(const BufferLine& line) {
    std::vector<RenderSnapshotCell> cells(size_t(line.count()));
    // Rows mostly repeat one style, so the attribute is looked up only when it changes.
    uint16_t lastStyle = 0;
    Attribute lastAttribute = line.arena().attributeFor(0);
    for (int col = 0; col < line.count(); ++col) {
        PackedCell packed = line.packedCell(col);
        RenderSnapshotCell& cell = cells[size_t(col)];
        cell.widthState = packed.widthState();
        cell.width = packed.width();
        cell.isProtected = packed.isProtected();
        cell.semanticContent = SemanticContent::fromCode(packed.semanticContentCode());
        if (packed.payloadCode() != 0) cell.payloadID = packed.payloadCode();
        switch (packed.tag()) {
        case PackedCell::scalarTag:
            if (packed.value() != 0 && !packed.isSpacerTail()) {
                if (packed.value() < 0x80) cell.text.assign(1, char(packed.value()));
                else cell.text = line.arena().text(packed);
            }
            if (packed.styleID() != lastStyle) {
                lastStyle = packed.styleID();
                lastAttribute = line.arena().attributeFor(lastStyle);
            }
            cell.attribute = lastAttribute;
            break;
        case PackedCell::graphemeTag:
            if (!packed.isSpacerTail()) cell.text = line.arena().text(packed);
            cell.attribute = line.arena().attribute(packed);
            break;
        default: // an empty cell that carries only a background
            cell.attribute = line.arena().attribute(packed);
            break;
        }
    }
    return cells;
}

RenderSnapshotCells RenderSnapshotCache::cellsFor(const BufferLine& line) {
    PortableRenderCellCache& entry = rows[line.renderIdentity.value];
    if (entry.cells && entry.identity == line.renderIdentity && entry.recycleGeneration == line.recycleGeneration &&
        entry.generation == line._generation)
        return entry.cells;
    entry.identity = line.renderIdentity;
    entry.recycleGeneration = line.recycleGeneration;
    entry.generation = line._generation;
    entry.cells = std::make_shared<const std::vector<RenderSnapshotCell>>(renderCells(line));
    return entry.cells;
}

void RenderSnapshotCache::prune(const std::vector<Stamp>& keep) {
    if (rows.size() <= keep.size() * 2 + 16) return;
    std::unordered_set<uint64_t> shown;
    for (const Stamp& stamp : keep) shown.insert(stamp.identity);
    std::erase_if(rows, [&](const auto& entry) { return !shown.contains(entry.first); });
}

void Terminal::scrollDisplay(int rows) {
    Buffer& b = *buffer_;
    b.yDisp = std::clamp(b.yDisp + rows, 0, b.yBase);
}

TerminalRenderSnapshot Terminal::makeRenderSnapshot(RenderSnapshotScope scope) {
    if (!renderSnapshotCache) renderSnapshotCache = std::make_shared<RenderSnapshotCache>();
    RenderSnapshotCache& cache = *renderSnapshotCache;
    Buffer& b = *buffer_;
    b.yDisp = std::clamp(b.yDisp, 0, b.yBase);

    PortableRenderMetadata metadata{
        .cols = cols_, .rows = rows_, .alternate = isAlternateBuffer(), .yDisp = b.yDisp, .linesTop = b.yBase,
        .foreground = foregroundColor, .background = backgroundColor, .cursorColor = cursorColor,
        .palette = ansiColors, .reverse = reverseColors,
    };
    // Output that scrolls the live screen moves linesTop and yDisp together; only a view held
    // in the history sees them part.
    auto sameView = [](const PortableRenderMetadata& a, const PortableRenderMetadata& b) {
        PortableRenderMetadata x = a, y = b;
        x.yDisp -= x.linesTop, y.yDisp -= y.linesTop;
        x.linesTop = y.linesTop = 0;
        return x == y;
    };
    bool full = scope == RenderSnapshotScope::full || !cache.previous || !sameView(*cache.previous, metadata);
    bool live = b.yDisp == b.yBase;
    std::optional<UpdateRange> liveRange = takeUpdateRange(); // taken always, so it never goes stale

    TerminalRenderSnapshot snapshot;
    snapshot.cols = cols_;
    snapshot.rows = rows_;
    snapshot.isAlternateScreen = isAlternateBuffer();
    snapshot.foregroundColor = foregroundColor;
    snapshot.backgroundColor = backgroundColor;
    snapshot.cursorColor = cursorColor;
    snapshot.palette = ansiColors;
    snapshot.reverseVideo = reverseColors;
    snapshot.synchronizedOutputActive = synchronizedOutputActive;
    int cursorRow = b.yBase + std::min(b.y, rows_ - 1) - b.yDisp;
    snapshot.cursor = {
        .x = std::clamp(b.x, 0, cols_ - 1),
        .y = cursorRow,
        .hidden = cursorHidden || cursorRow < 0 || cursorRow >= rows_,
        .style = cursorStyle,
        .blink = isBlinkingStyle(cursorStyle) || cursorBlink,
    };

    std::vector<RenderSnapshotCache::Stamp> stamps(static_cast<size_t>(rows_));
    for (int row = 0; row < rows_; ++row) stamps[size_t(row)] = stampOf(b.lines[b.yDisp + row]);

    std::optional<RenderSnapshotRange> range;
    auto include = [&](int row) {
        if (row < 0 || row >= rows_) return;
        if (!range) range = RenderSnapshotRange{row, row};
        range->startY = std::min(range->startY, row);
        range->endY = std::max(range->endY, row);
    };
    if (full) {
        range = RenderSnapshotRange{0, rows_ - 1};
    } else if (live) {
        if (liveRange) {
            include(liveRange->startY);
            include(liveRange->endY);
            if (liveRange->scrolled) snapshot.scrollDirtyRange = RenderSnapshotRange{liveRange->startY, liveRange->endY};
        }
    } else {
        for (int row = 0; row < rows_; ++row)
            if (size_t(row) >= cache.shownRows.size() || cache.shownRows[size_t(row)] != stamps[size_t(row)]) include(row);
    }
    if (!full && snapshot.cursor != cache.shownCursor) {
        if (!cache.shownCursor.hidden) include(cache.shownCursor.y);
        if (!snapshot.cursor.hidden) include(snapshot.cursor.y);
    }

    snapshot.dirtyKind = full ? RenderSnapshotDirtyKind::full
                              : range ? RenderSnapshotDirtyKind::partial : RenderSnapshotDirtyKind::clean;
    snapshot.dirtyRange = range;
    if (range) {
        snapshot.lines.reserve(size_t(range->endY - range->startY + 1));
        for (int row = range->startY; row <= range->endY; ++row) {
            const BufferLine& line = b.lines[b.yDisp + row];
            bool nextWraps = b.yDisp + row + 1 < b.lines.count() && b.lines[b.yDisp + row + 1].isWrapped();
            snapshot.lines.push_back({row, line.isWrapped(), nextWraps, line.renderMode(), line.renderIdentity.value,
                                      line.recycleGeneration, line._generation, cache.cellsFor(line)});
        }
    }
    cache.previous = metadata;
    cache.shownCursor = snapshot.cursor;
    cache.prune(stamps);
    cache.shownRows = std::move(stamps);
    return snapshot;
}

std::optional<RenderSnapshotRange> TerminalSnapshot::apply(TerminalRenderSnapshot snapshot) {
    std::optional<RenderSnapshotRange> changed;
    auto include = [&](int row) {
        if (row < 0 || row >= snapshot.rows) return;
        if (!changed) changed = RenderSnapshotRange{row, row};
        changed->startY = std::min(changed->startY, row);
        changed->endY = std::max(changed->endY, row);
    };
    bool resized = snapshot.cols != state_.cols || snapshot.rows != state_.rows;
    appearanceChanged_ = resized || snapshot.foregroundColor != state_.foregroundColor ||
                         snapshot.backgroundColor != state_.backgroundColor || snapshot.cursorColor != state_.cursorColor ||
                         snapshot.palette != state_.palette || snapshot.reverseVideo != state_.reverseVideo;
    if (resized) rows_.assign(size_t(std::max(snapshot.rows, 0)), Row{});
    for (RenderSnapshotRow& line : snapshot.lines) {
        if (line.y < 0 || line.y >= int(rows_.size())) continue;
        Row& row = rows_[size_t(line.y)];
        bool same = row.row.cells == line.cells && row.row.isWrapped == line.isWrapped &&
                    row.row.wrapsToNext == line.wrapsToNext && row.row.renderMode == line.renderMode;
        if (same) continue;
        row.row = std::move(line);
        row.revision = nextRevision_++;
        include(row.row.y);
    }
    if (snapshot.cursor != state_.cursor) {
        if (!resized && !state_.cursor.hidden) include(state_.cursor.y);
        if (!snapshot.cursor.hidden) include(snapshot.cursor.y);
    }
    if (appearanceChanged_ && snapshot.rows > 0) changed = RenderSnapshotRange{0, snapshot.rows - 1};
    snapshot.lines.clear();
    state_ = std::move(snapshot);
    return changed;
}

} // namespace vellum
