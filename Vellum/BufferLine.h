#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Vellum/BidiPresentationState.h"
#include "Vellum/CellArena.h"
#include "Vellum/CellStoragePage.h"
#include "Vellum/CharData.h"
#include "Vellum/PackedCell.h"
#include "Vellum/TerminalImage.h"

namespace vellum {

class Buffer;

// The handle through which rows reach their buffer without keeping it alive: all rows of a
// buffer share one, and the buffer clears it when it goes away.
struct BufferRef {
    Buffer* buffer = nullptr;
};

// A shell-integration mark on a row; a row holds at most one of each kind.
struct SemanticMark {
    SemanticPromptKind kind = SemanticPromptKind::initial;
    int column = 0;
    uint64_t group = 0;

    bool operator==(const SemanticMark&) const = default;
};

// One row of the screen or the scrollback. Row objects are reused as they scroll through a
// full ring (recycle), keeping their renderIdentity; readers key per-row caches on
// renderIdentity, recycleGeneration and _generation. Columns at and past usedLength are known to
// hold tailBlankCell, which lets clears touch only the used part of a row.
//
// A row may store fewer words than its width (a compact row): the columns past the stored words
// read as tailBlankCell. A blank or recycled row stores none, a written one as far as it was
// written, and a row that scrolls up from the bottom of the screen, or is pushed into the
// scrollback by a resize or reflow, only up to its last used cell. A row edited after that
// grows again, never past its width. Readers go through
// packedCell, view or operator[]; a write first stores the words up to the columns it touches.
class BufferLine {
public:
    // Unique for the life of the process, so a cache keyed on it never confuses two rows.
    struct RenderIdentity {
        uint64_t value = 0;
        static RenderIdentity make();
        bool operator==(const RenderIdentity&) const = default;
    };
    enum class RenderLineMode : uint8_t { single, doubleWidth, doubledTop, doubledDown };
    using CharacterProvider = std::function<std::u32string(PackedCellView)>;
    using TextProvider = std::function<std::string(PackedCellView)>;

    // A row of `cols` cells of `fillData` (CharData::Null when absent), in `arena` or, when
    // none is given, in an arena of its own.
    explicit BufferLine(int cols, const std::optional<CharData>& fillData = std::nullopt, bool isWrapped = false,
                        BidiPresentationState bidiState = {}, std::shared_ptr<CellArena> arena = nullptr);
    // A copy with every field but the render identity, which is new.
    BufferLine(const BufferLine& from);
    BufferLine& operator=(const BufferLine&) = delete;

    int count() const { return cols_; }
    // The words actually held; columns at and past this read as tailBlankCell.
    int storedCount() const { return storage.count(); }
    bool isCompact() const { return storage.count() < cols_; }
    CellArena& arena() const { return *storage.arena; }
    const std::shared_ptr<CellArena>& sharedArena() const { return storage.arena; }

    // Reading past the end reads the last column; writing past it writes the last column
    // and reports the bad index.
    CharData operator[](int col) const;
    void set(int col, const CharData& data);
    // Unchecked: col must lie in 0..<count().
    PackedCell packedCell(int col) const {
        return size_t(col) < storage.cells.size() ? storage.cells[size_t(col)] : tailBlankCell;
    }
    PackedCellView view(int col) const { return {packedCell(col), storage.arena.get()}; }
    // Words up to column `end` for a writer that fills them itself, taking larger words from
    // `pool` when the row outgrows its own.
    PackedCell* writableCells(int end, CellWordPool* pool = nullptr) {
        store(end, pool);
        return storage.data();
    }
    PackedCell* writableCells() { return writableCells(cols_); }

    // Columns up to the last non-empty character, counting a wide one as two.
    int getTrimmedLength() const;
    // A character, or any visible rendition (colours, style, underline).
    bool hasContent(int index) const;
    bool hasAnyContent() const;
    std::vector<CharData> getData() const;
    // The row as text; empty cells read as blanks. A negative endCol means the row's width.
    std::string translateToString(bool trimRight = false, int startCol = 0, int endCol = -1,
                                  bool skipNullCellsFollowingWide = false,
                                  const CharacterProvider& characterProvider = {},
                                  const TextProvider& textProvider = {}) const;

    // Copies cells (re-encoding across arenas) and moves the semantic marks of the source
    // range along. Gives true when an initial prompt mark moved, so that the buffer can move
    // its prompt origin to this row.
    bool copyFrom(BufferLine& src, int srcCol, int dstCol, int len);
    void copyFrom(const BufferLine& line);
    // The snapshot's copy: words are taken as they are, so `arena` must be the source's arena
    // or a snapshot copy of it that preserves its encoding.
    void copyForSnapshot(const BufferLine& from, const std::shared_ptr<CellArena>& arena);
    void adoptArena(const std::shared_ptr<CellArena>& arena);

    void fill(const CharData& with);
    void fill(const CharData& with, int atCol, int len);
    void fill(PackedCell with);
    void fill(PackedCell with, int atCol, int len);
    // Insert or delete n cells at pos within pos..rightMargin (inclusive), healing wide characters
    // cut at the edges and shifting semantic marks.
    void insertCells(int pos, int n, int rightMargin, const CharData& fill);
    void insertPackedCells(int pos, int n, int rightMargin, PackedCell fill);
    void deleteCells(int pos, int n, int rightMargin, const CharData& fill);
    void deletePackedCells(int pos, int n, int rightMargin, PackedCell fill);
    void replaceCells(int start, int end, const CharData& fill);
    void replacePackedCells(int start, int end, PackedCell fill);
    // replacePackedCells for erasing: a wide character cut at either end is healed first.
    void erasePackedCells(int start, int end, PackedCell fill);
    void resize(int cols, const CharData& fillData);
    void resize(int cols, PackedCell fill);
    // Keeps only the used cells, as a row entering the scrollback does; words more than about
    // twice that are exchanged for ones of the right size from `pool`.
    void compact(CellWordPool* pool = nullptr);
    // Makes this row object a fresh row; gives whether it had images.
    bool recycle(PackedCell with, bool isWrapped, BidiPresentationState bidiState);
    // Heals a wide character cut at the boundary between col - 1 and col.
    void repairWideSeam(int col) {
        if (col >= 1 && col <= count() && packedCell(col - 1).isWideHead()) healWideSeam(col);
    }

    void setSemanticMark(SemanticPromptKind kind, int column, uint64_t group);
    void attach(std::shared_ptr<const TerminalImage> image);
    void marksClampTo(int width);
    void marksShift(int from, int by, int rightMargin);

    bool isWrapped() const { return isWrappedValue; }
    void setWrapped(bool value) { changeField(isWrappedValue, value); }
    BidiPresentationState bidiState() const { return bidiStateValue; }
    void setBidiState(BidiPresentationState value) { changeField(bidiStateValue, value); }
    RenderLineMode renderMode() const { return renderModeValue; }
    void setRenderMode(RenderLineMode value) { changeField(renderModeValue, value); }
    std::optional<uint64_t> semanticHardContinuationGroup() const {
        return extras_ ? extras_->hardContinuationGroup : std::nullopt;
    }
    void setSemanticHardContinuationGroup(std::optional<uint64_t> value);
    const std::vector<SemanticMark>& semanticMarks() const;
    const std::vector<std::shared_ptr<const TerminalImage>>& images() const;
    bool hasImages() const { return extras_ && !extras_->images.empty(); }

    // Packs with this row's arena; a CharData that does not pack is an internal error.
    PackedCell packOrFail(const CharData& data) const;

    const RenderIdentity renderIdentity;
    bool isWrappedValue = false;
    BidiPresentationState bidiStateValue;
    RenderLineMode renderModeValue = RenderLineMode::single;
    std::shared_ptr<BufferRef> owningBufferRef;
    uint64_t recycleGeneration = 0;
    CellStoragePage storage;
    int usedLength = 0;
    PackedCell tailBlankCell;
    uint64_t _generation = 0;

private:
    // What most rows never have, kept apart so that a plain row stays small. Once made it stays
    // with the row object, emptied when the row is recycled.
    struct Extras {
        std::vector<SemanticMark> marks;
        std::optional<uint64_t> hardContinuationGroup;
        std::vector<std::shared_ptr<const TerminalImage>> images;
    };
    Extras& extras() {
        if (!extras_) extras_ = std::make_unique<Extras>();
        return *extras_;
    }
    void copyExtras(const BufferLine& from);

    // Stores the words of columns [0, end), the newly stored ones as tailBlankCell; larger words
    // come from `pool` when one is given.
    void store(int end, CellWordPool* pool = nullptr);
    void widen() { store(cols_); }
    void appendWords(size_t size, PackedCell word);
    void fillWords(size_t start, size_t end, PackedCell word);
    PackedCell& cellForWriting(int col) {
        if (size_t(col) >= storage.cells.size()) widen();
        return storage.cells[size_t(col)];
    }
    // Stored columns past the last one that differs from tailBlankCell are not worth keeping.
    int keptLength() const;
    void copyCellsFrom(const BufferLine& src, int srcCol, int dstCol, int len);

    int cols_ = 0;
    std::unique_ptr<Extras> extras_;

    template <typename T>
    void changeField(T& field, const T& value) {
        if (field == value) return;
        field = value;
        ++_generation;
    }
    void fillRange(PackedCell with, int start, int end);
    void healWideSeam(int col);
    void sortMarks();
};

} // namespace vellum
