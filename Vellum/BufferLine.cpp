#include "Vellum/BufferLine.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "Platform/Unicode.h"
#include "Vellum/Diagnostics.h"

namespace vellum {

namespace {

bool hasNonZeroScalar(PackedCell cell, const CellArena& arena) {
    if (cell.tag() == PackedCell::scalarTag) return cell.value() != 0;
    if (cell.tag() == PackedCell::graphemeTag) {
        const CellArena::Scalars* cluster = arena.grapheme(cell.value());
        return cluster && !cluster->empty() && cluster->front() != 0;
    }
    return false;
}

// Scans from the right for the last character; a wide one counts two columns, a spacer none.
int trimmedLength(const BufferLine& line, bool clampToRow) {
    auto endingAt = [&](int col, PackedCell cell) {
        int step = cell.width();
        return col + (clampToRow ? std::min(step, line.count() - col) : step);
    };
    const CellArena& arena = line.arena();
    if (line.isCompact() && hasNonZeroScalar(line.tailBlankCell, arena)) return endingAt(line.count() - 1, line.tailBlankCell);
    for (int col = std::min(line.storedCount(), line.count()) - 1; col >= 0; --col) {
        PackedCell cell = line.storage.cells[size_t(col)];
        if (hasNonZeroScalar(cell, arena)) return endingAt(col, cell);
    }
    return 0;
}

// Words of one page in the encoding of another page's arena.
PackedCell translated(PackedCell cell, const CellStoragePage& from, const CellStoragePage& to) {
    if (from.arena == to.arena || !from.arena || !to.arena || to.arena->preservesEncoding(*from.arena)) return cell;
    return reencode(cell, *from.arena, *to.arena);
}



} // namespace

BufferLine::RenderIdentity BufferLine::RenderIdentity::make() {
    static std::atomic<uint64_t> counter{0};
    return {++counter};
}

BufferLine::BufferLine(int cols, const std::optional<CharData>& fillData, bool isWrapped,
                       BidiPresentationState bidiState, std::shared_ptr<CellArena> arena)
    : renderIdentity(RenderIdentity::make()), isWrappedValue(isWrapped), bidiStateValue(bidiState) {
    if (!arena) arena = std::make_shared<CellArena>();
    const CharData& fill = fillData ? *fillData : CharData::Null;
    storage = CellStoragePage(cols, PackedCell{}, std::move(arena));
    cols_ = storage.count();
    PackedCell word = packOrFail(fill);
    CharData blank;
    blank.attribute = fill.attribute;
    if (word == packOrFail(blank)) {
        usedLength = 0;
        tailBlankCell = word;
    } else {
        usedLength = count();
        tailBlankCell = PackedCell{};
    }
    std::fill(storage.cells.begin(), storage.cells.end(), word);
}

BufferLine::BufferLine(const BufferLine& from)
    : renderIdentity(RenderIdentity::make()),
      isWrappedValue(from.isWrappedValue),
      bidiStateValue(from.bidiStateValue),
      renderModeValue(from.renderModeValue),
      owningBufferRef(from.owningBufferRef),
      recycleGeneration(from.recycleGeneration),
      storage(from.storage),
      usedLength(from.usedLength),
      tailBlankCell(from.tailBlankCell),
      _generation(from._generation),
      cols_(from.cols_),
      extras_(from.extras_ ? std::make_unique<Extras>(*from.extras_) : nullptr) {}

void BufferLine::copyExtras(const BufferLine& from) {
    if (from.extras_) {
        extras() = *from.extras_;
    } else if (extras_) {
        *extras_ = Extras{};
    }
}

const std::vector<SemanticMark>& BufferLine::semanticMarks() const {
    static const std::vector<SemanticMark> none;
    return extras_ ? extras_->marks : none;
}

const std::vector<std::shared_ptr<const TerminalImage>>& BufferLine::images() const {
    static const std::vector<std::shared_ptr<const TerminalImage>> none;
    return extras_ ? extras_->images : none;
}

void BufferLine::setSemanticHardContinuationGroup(std::optional<uint64_t> value) {
    if (semanticHardContinuationGroup() == value) return;
    extras().hardContinuationGroup = value;
    ++_generation;
}

PackedCell BufferLine::packOrFail(const CharData& data) const {
    auto packed = storage.arena->pack(data);
    if (!packed) fatalError("BufferLine: a cell could not be packed");
    return *packed;
}

CharData BufferLine::operator[](int col) const {
    if (count() == 0) return CharData::Null;
    return storage.arena->unpack(packedCell(std::clamp(col, 0, count() - 1)));
}

void BufferLine::set(int col, const CharData& data) {
    if (count() == 0) return;
    if (col < 0 || col >= count()) {
        diagnostic("BufferLine: You passed an index out of range, adjusting to prevent crash, but you should debug");
        col = std::clamp(col, 0, count() - 1);
    }
    cellForWriting(col) = packOrFail(data);
    usedLength = std::max(usedLength, col + 1);
    ++_generation;
}

int BufferLine::getTrimmedLength() const { return trimmedLength(*this, false); }

bool BufferLine::hasContent(int index) const {
    if (index < 0 || index >= count()) return false;
    PackedCell cell = packedCell(index);
    if (cell.tag() == PackedCell::paletteBackgroundTag || cell.tag() == PackedCell::trueColorBackgroundTag) return true;
    if (hasNonZeroScalar(cell, *storage.arena)) return true;
    if (cell.styleID() == 0) return false;
    Attribute a = storage.arena->attributeFor(cell.styleID());
    return a.bg != Attribute::Color::defaultColor() || a.fg != Attribute::Color::defaultColor() || !a.style.isEmpty() ||
           a.underlineStyle != UnderlineStyle::none || a.underlineColor.has_value();
}

bool BufferLine::hasAnyContent() const {
    for (int col = 0; col < count(); ++col) {
        if (hasContent(col)) return true;
    }
    return false;
}

std::vector<CharData> BufferLine::getData() const {
    std::vector<CharData> out;
    out.reserve(size_t(count()));
    for (int col = 0; col < count(); ++col) out.push_back(storage.arena->unpack(packedCell(col)));
    return out;
}

std::string BufferLine::translateToString(bool trimRight, int startCol, int endCol, bool skipNullCellsFollowingWide,
                                          const CharacterProvider& characterProvider,
                                          const TextProvider& textProvider) const {
    int end = endCol < 0 ? count() : std::min(endCol, count());
    if (trimRight) end = std::min(end, trimmedLength(*this, skipNullCellsFollowingWide));
    std::string out;
    auto append = [&](int col) {
        PackedCellView cell = view(col);
        if (textProvider) {
            out += textProvider(cell);
        } else if (characterProvider) {
            out += platform::unicode::encodeUtf8(characterProvider(cell));
        } else {
            std::string text = storage.arena->text(cell.cell);
            out += text == std::string_view("\0", 1) ? " " : text;
        }
    };
    for (int col = std::max(startCol, 0); col < end; ++col) {
        append(col);
        if (skipNullCellsFollowingWide && packedCell(col).isWideHead() && col + 1 < end &&
            !hasNonZeroScalar(packedCell(col + 1), *storage.arena)) {
            ++col;
        }
    }
    return out;
}

void BufferLine::copyCellsFrom(const BufferLine& src, int srcCol, int dstCol, int len) {
    int n = std::min({len, src.count() - srcCol, count() - dstCol});
    if (n <= 0 || srcCol < 0 || dstCol < 0) return;
    widen(); // first, so that a copy within this row reads the widened words
    int stored = std::clamp(src.storedCount() - srcCol, 0, n);
    storage.copyCells(src.storage, srcCol, dstCol, stored);
    if (stored < n) {
        PackedCell tail = translated(src.tailBlankCell, src.storage, storage);
        fillWords(size_t(dstCol + stored), size_t(dstCol + n), tail);
    }
}

bool BufferLine::copyFrom(BufferLine& src, int srcCol, int dstCol, int len) {
    copyCellsFrom(src, srcCol, dstCol, len);
    std::vector<SemanticMark> moving;
    auto inRange = [&](const SemanticMark& m) { return m.column >= srcCol && m.column < srcCol + len; };
    const std::vector<SemanticMark>& marks = src.semanticMarks();
    std::copy_if(marks.begin(), marks.end(), std::back_inserter(moving), inRange);
    bool movedPromptStart = false;
    if (!moving.empty()) {
        std::erase_if(src.extras_->marks, inRange);
        ++src._generation;
        for (const SemanticMark& mark : moving) {
            setSemanticMark(mark.kind, mark.column - srcCol + dstCol, mark.group);
            movedPromptStart |= mark.kind == SemanticPromptKind::initial;
        }
    }
    usedLength = std::max(usedLength, std::min(dstCol + len, count()));
    ++_generation;
    return movedPromptStart;
}

void BufferLine::copyFrom(const BufferLine& line) {
    if (line.storage.arena == storage.arena) {
        storage.cells = line.storage.cells;
        tailBlankCell = line.tailBlankCell;
    } else {
        storage.cells.assign(line.storage.cells.size(), PackedCell{});
        storage.copyCells(line.storage, 0, 0, line.storedCount());
        tailBlankCell = reencode(line.tailBlankCell, *line.storage.arena, *storage.arena);
    }
    cols_ = line.cols_;
    usedLength = line.usedLength;
    copyExtras(line);
    isWrappedValue = line.isWrappedValue;
    bidiStateValue = line.bidiStateValue;
    renderModeValue = line.renderModeValue;
    ++_generation;
}

void BufferLine::copyForSnapshot(const BufferLine& from, const std::shared_ptr<CellArena>& arena) {
    if (arena != from.storage.arena && !arena->preservesEncoding(*from.storage.arena)) {
        fatalError("BufferLine: a snapshot arena does not preserve the encoding of its source");
    }
    if (storage.arena == arena) {
        storage.cells.assign(from.storage.cells.begin(), from.storage.cells.end()); // keeps the words when they fit
    } else {
        storage = CellStoragePage(from.storage.cells, arena);
    }
    cols_ = from.cols_;
    usedLength = from.usedLength;
    tailBlankCell = from.tailBlankCell;
    isWrappedValue = from.isWrappedValue;
    bidiStateValue = from.bidiStateValue;
    renderModeValue = from.renderModeValue;
    copyExtras(from);
    recycleGeneration = from.recycleGeneration;
    _generation = from._generation;
}

void BufferLine::adoptArena(const std::shared_ptr<CellArena>& arena) {
    if (storage.arena == arena) return;
    if (!arena->preservesEncoding(*storage.arena)) {
        for (PackedCell& cell : storage.cells) cell = reencode(cell, *storage.arena, *arena);
        tailBlankCell = reencode(tailBlankCell, *storage.arena, *arena);
    }
    storage.arena = arena;
    ++_generation;
}

void BufferLine::store(int end, CellWordPool* pool) {
    size_t wanted = size_t(std::min(end, cols_));
    if (wanted <= storage.cells.size()) return;
    if (wanted > storage.cells.capacity()) {
        // A row written at once gets what it asked for, so that it enters the scrollback without
        // another copy; one written in pieces grows geometrically.
        size_t grown = storage.cells.empty() ? wanted : std::max(wanted + wanted / 2, storage.cells.capacity() * 2);
        size_t capacity = std::min(size_t(cols_), grown);
        std::vector<PackedCell> words = pool ? pool->take(capacity) : std::vector<PackedCell>{};
        if (!pool) words.reserve(capacity);
        words.resize(storage.cells.size());
        if (!words.empty()) std::memcpy(words.data(), storage.cells.data(), words.size() * sizeof(PackedCell));
        std::vector<PackedCell> old = std::exchange(storage.cells, std::move(words));
        if (pool) pool->give(std::move(old));
    }
    appendWords(wanted, tailBlankCell);
}

void BufferLine::appendWords(size_t size, PackedCell word) {
    size_t from = storage.cells.size();
    storage.cells.resize(size); // zeroed in one sweep; a word-by-word copy of `word` is far slower
    if (word.raw != 0) fillWords(from, size, word);
}

void BufferLine::fillWords(size_t start, size_t end, PackedCell word) {
    // On raw words, which the compiler turns into wide stores.
    uint64_t* words = &storage.cells[start].raw;
    for (size_t i = 0, n = end - start; i < n; ++i) words[i] = word.raw;
}

int BufferLine::keptLength() const {
    int kept = std::min(usedLength, storage.count());
    while (kept > 0 && storage.cells[size_t(kept - 1)] == tailBlankCell) --kept;
    return kept;
}

void BufferLine::compact(CellWordPool* pool) {
    size_t kept = size_t(keptLength());
    storage.cells.resize(kept); // the words past it hold the tail blank
    usedLength = int(kept);
    // A row using at least about half of its words keeps them: copying it would cost every
    // scrolled row of busy output more than the words it saves. Sparser rows (prompts, short
    // lines) are swapped for a copy of the right size, which is where the memory goes.
    if (storage.cells.capacity() <= 2 * kept + CellWordPool::step) return;
    std::vector<PackedCell> words = pool ? pool->take(kept) : std::vector<PackedCell>{};
    if (!pool) words.reserve(kept);
    words.resize(kept);
    if (kept > 0) std::memcpy(words.data(), storage.cells.data(), kept * sizeof(PackedCell));
    std::vector<PackedCell> old = std::exchange(storage.cells, std::move(words));
    if (pool) pool->give(std::move(old));
}

void BufferLine::fillRange(PackedCell with, int start, int end) {
    start = std::max(start, 0);
    end = std::min(end, count());
    // Unstored columns already read as the tail blank.
    if (with == tailBlankCell) end = std::min(end, storage.count());
    if (start >= end) return;
    store(end);
    fillWords(size_t(start), size_t(end), with);
}

void BufferLine::fill(const CharData& with) { fill(packOrFail(with)); }
void BufferLine::fill(const CharData& with, int atCol, int len) { fill(packOrFail(with), atCol, len); }

void BufferLine::fill(PackedCell with) {
    // A row of one word needs none stored: every column reads as the tail blank.
    storage.cells.clear();
    usedLength = 0;
    tailBlankCell = with;
    ++_generation;
}

void BufferLine::fill(PackedCell with, int atCol, int len) {
    int start = std::max(atCol, 0);
    int end = std::min(atCol + len, count());
    if (start >= end) return;
    if (with == tailBlankCell) {
        fillRange(with, start, std::min(end, usedLength));
        if (end == count()) usedLength = std::min(usedLength, start);
    } else {
        fillRange(with, start, end);
        usedLength = std::max(usedLength, end);
    }
    ++_generation;
}

void BufferLine::healWideSeam(int col) {
    PackedCell& left = cellForWriting(col - 1);
    left = left.blanked();
    if (col < count() && packedCell(col).isSpacerTail()) cellForWriting(col) = packedCell(col).blanked();
    ++_generation;
}

void BufferLine::insertCells(int pos, int n, int rightMargin, const CharData& fill) {
    insertPackedCells(pos, n, rightMargin, packOrFail(fill));
}

void BufferLine::insertPackedCells(int pos, int n, int rightMargin, PackedCell fill) {
    if (count() == 0 || n <= 0) return;
    widen();
    rightMargin = std::clamp(rightMargin, 0, count() - 1);
    pos = std::max(pos, 0) % (rightMargin + 1);
    int range = rightMargin + 1 - pos;
    repairWideSeam(pos);
    repairWideSeam(rightMargin + 1);
    auto cells = storage.cells.begin();
    if (n < range) {
        repairWideSeam(rightMargin + 1 - n);
        std::copy_backward(cells + pos, cells + rightMargin + 1 - n, cells + rightMargin + 1);
        fillRange(fill, pos, pos + n);
    } else {
        fillRange(fill, pos, rightMargin + 1);
    }
    marksShift(pos, n, rightMargin);
    usedLength = count();
    ++_generation;
}

void BufferLine::deleteCells(int pos, int n, int rightMargin, const CharData& fill) {
    deletePackedCells(pos, n, rightMargin, packOrFail(fill));
}

void BufferLine::deletePackedCells(int pos, int n, int rightMargin, PackedCell fill) {
    if (count() == 0 || n <= 0) return;
    widen();
    rightMargin = std::clamp(rightMargin, 0, count() - 1);
    pos = std::max(pos, 0);
    int reduced = pos % (rightMargin + 1);
    int range = rightMargin + 1 - reduced;
    repairWideSeam(pos);
    repairWideSeam(pos + n);
    repairWideSeam(rightMargin + 1);
    auto cells = storage.cells.begin();
    if (n < range) {
        if (pos + n <= rightMargin) std::copy(cells + pos + n, cells + rightMargin + 1, cells + pos);
        fillRange(fill, rightMargin + 1 - n, rightMargin + 1);
    } else {
        fillRange(fill, reduced, rightMargin + 1);
    }
    marksShift(pos, -n, rightMargin);
    usedLength = count();
    ++_generation;
}

void BufferLine::replaceCells(int start, int end, const CharData& fill) {
    replacePackedCells(start, end, packOrFail(fill));
}

void BufferLine::replacePackedCells(int start, int end, PackedCell fill) {
    end = std::min(end, count());
    fillRange(fill, start, end);
    usedLength = std::max(usedLength, end);
    ++_generation;
}

void BufferLine::erasePackedCells(int start, int end, PackedCell fill) {
    repairWideSeam(start);
    repairWideSeam(end);
    replacePackedCells(start, end, fill);
}

void BufferLine::resize(int cols, const CharData& fillData) { resize(cols, packOrFail(fillData)); }

void BufferLine::resize(int cols, PackedCell fill) {
    cols = std::max(cols, 0);
    if (cols != count()) {
        bool narrower = cols < count();
        if (fill == tailBlankCell || narrower) {
            // New columns read as the tail already, or there are none.
            if (storage.count() > cols) storage.cells.resize(size_t(cols));
        } else {
            widen();
            appendWords(size_t(cols), fill);
        }
        cols_ = cols;
        if (narrower) {
            marksClampTo(cols);
            // A wide character cut by the new edge loses its head too.
            if (cols > 0 && packedCell(cols - 1).isWideHead()) cellForWriting(cols - 1) = packedCell(cols - 1).blanked();
        }
        ++_generation;
    }
    usedLength = cols;
}

bool BufferLine::recycle(PackedCell with, bool isWrapped, BidiPresentationState bidiState) {
    storage.cells.clear(); // every column reads as the new tail blank; the words stay for reuse
    usedLength = 0;
    tailBlankCell = with;
    bool hadImages = hasImages();
    if (extras_) {
        extras_->images.clear();
        extras_->marks.clear();
        extras_->hardContinuationGroup.reset();
    }
    renderModeValue = RenderLineMode::single;
    isWrappedValue = isWrapped;
    bidiStateValue = bidiState;
    ++recycleGeneration;
    ++_generation;
    return hadImages;
}

void BufferLine::sortMarks() {
    if (!extras_) return;
    std::stable_sort(extras_->marks.begin(), extras_->marks.end(),
                     [](const SemanticMark& a, const SemanticMark& b) { return a.column < b.column; });
}

void BufferLine::setSemanticMark(SemanticPromptKind kind, int column, uint64_t group) {
    std::vector<SemanticMark>& marks = extras().marks;
    std::erase_if(marks, [&](const SemanticMark& m) { return m.kind == kind; });
    auto at = std::upper_bound(marks.begin(), marks.end(), column,
                               [](int c, const SemanticMark& m) { return c < m.column; });
    marks.insert(at, SemanticMark{kind, column, group});
    ++_generation;
}

void BufferLine::attach(std::shared_ptr<const TerminalImage> image) {
    extras().images.push_back(std::move(image));
    ++_generation;
}

void BufferLine::marksClampTo(int width) {
    if (semanticMarks().empty()) return;
    if (width < 1) {
        extras_->marks.clear();
    } else {
        for (SemanticMark& mark : extras_->marks) mark.column = std::clamp(mark.column, 0, width - 1);
    }
    ++_generation;
}

void BufferLine::marksShift(int from, int by, int rightMargin) {
    if (!extras_) return;
    bool moved = false;
    for (SemanticMark& mark : extras_->marks) {
        if (mark.column < from || mark.column > rightMargin) continue;
        mark.column = std::clamp(mark.column + by, from, std::max(from, rightMargin));
        moved = true;
    }
    if (!moved) return;
    sortMarks();
    ++_generation;
}

} // namespace vellum
