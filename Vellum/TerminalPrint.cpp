// The print path: runs of printable bytes from the parser become cells.
//
// Printable ASCII is written a row segment at a time. Other text is decoded in place and
// gathered into batches of scalars of one width that are written the same way; only scalars
// that may extend the character before them (combining marks, joiners, selectors, regional
// indicators, Hangul jamo) take the slow road through the cell they would join.
#include <algorithm>
#include <cstring>

#include "Platform/Unicode.h"
#include "Vellum/ByteRunScanner.h"
#include "Vellum/Terminal.h"

namespace vellum {

namespace unicode = platform::unicode;
using unicode::GraphemeBreak;

namespace {

constexpr char32_t textPresentationSelector = 0xFE0E, emojiPresentationSelector = 0xFE0F;
// U+4E00 to U+9FFF. The print tests hold this range to the Unicode tables.
constexpr char32_t cjkIdeographsStart = 0x4E00, cjkIdeographsCount = 0x5200;

// The well-formed forms of common text are decoded here; anything unusual (overlongs,
// surrogates, the edges of the range, truncation, errors) goes to the full decoder.
inline unicode::Utf8Step decodeStep(const uint8_t* p, size_t available) {
    uint8_t lead = p[0];
    if (lead >= 0xE1 && lead != 0xED && lead <= 0xEF && available >= 3 && (p[1] & 0xC0) == 0x80 && (p[2] & 0xC0) == 0x80)
        return {char32_t((lead & 0x0Fu) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu)), 3, true};
    if (lead >= 0xC2 && lead <= 0xDF && available >= 2 && (p[1] & 0xC0) == 0x80)
        return {char32_t((lead & 0x1Fu) << 6 | (p[1] & 0x3Fu)), 2, true};
    if (lead >= 0xF1 && lead <= 0xF3 && available >= 4 && (p[1] & 0xC0) == 0x80 && (p[2] & 0xC0) == 0x80 && (p[3] & 0xC0) == 0x80)
        return {char32_t((lead & 0x07u) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu)), 4, true};
    if (lead == 0xF0 && available >= 4 && p[1] >= 0x90 && p[1] <= 0xBF && (p[2] & 0xC0) == 0x80 && (p[3] & 0xC0) == 0x80)
        return {char32_t((p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu)), 4, true};
    return unicode::decodeUtf8Scalar(std::string_view(reinterpret_cast<const char*>(p), available));
}

GraphemeBreak breakClass(uint8_t properties) { return GraphemeBreak(properties & unicode::tables::breakClassMask); }

// Property bits of a scalar that may join what comes before it: its break class (other is zero)
// and its conjunct role. A scalar with none of them joins nothing but a prepend character, and an
// extended pictographic one also a joiner.
constexpr uint8_t joiningBits = unicode::tables::breakClassMask | uint8_t(3 << unicode::tables::indicConjunctShift);

// A scalar of four bytes (lead F0) that is drawn two columns wide and has no grapheme role
// (most emoji), so that, like an ideograph, it joins nothing before it: zero when `word` (the
// four bytes in memory order) is anything else. Its properties go to `properties`.
inline char32_t plainWideFourByteScalar(uint32_t word, uint8_t& properties) {
    if ((word & 0xC0C0C0FFu) != 0x808080F0u) return 0;
    char32_t scalar = char32_t((word & 0x3F00u) << 4 | (word & 0x3F0000u) >> 10 | (word & 0x3F000000u) >> 24);
    if (scalar < 0x10000) return 0; // overlong
    properties = unicode::propertyByte(scalar);
    if ((properties & joiningBits) != 0 || unicode::widthCode(scalar) != 3) return 0;
    return scalar;
}

// The emoji modifier U+1F3FB..U+1F3FF in `word`, or zero.
inline char32_t emojiModifierIn(uint32_t word) {
    uint32_t last = word >> 24;
    return (word & 0xFFFFFFu) == 0x8F9FF0u && last - 0xBB <= 4 ? char32_t(0x1F3FB + (last - 0xBB)) : 0;
}

// True when a run of 4 to 16 bytes is all printable ASCII, read as two overlapping words rather
// than byte by byte: the words between colour changes are short. A byte of 0x7F or more sets
// its high bit in (x + 1) | x; a carry out of a 0xFF byte only adds to a byte already found.
bool isShortPrintableAscii(std::span<const uint8_t> run) {
    auto anyAtLeastDel = [](uint64_t x, uint64_t ones) { return (((x + ones) | x) & (ones << 7)) != 0; };
    size_t n = run.size();
    if (n >= 8 && n <= 16) {
        uint64_t head = 0, tail = 0;
        std::memcpy(&head, run.data(), 8);
        std::memcpy(&tail, run.data() + n - 8, 8);
        return !anyAtLeastDel(head, 0x0101010101010101ull) && !anyAtLeastDel(tail, 0x0101010101010101ull);
    }
    if (n >= 4 && n < 8) {
        uint32_t head = 0, tail = 0;
        std::memcpy(&head, run.data(), 4);
        std::memcpy(&tail, run.data() + n - 4, 4);
        return !anyAtLeastDel(head, 0x01010101u) && !anyAtLeastDel(tail, 0x01010101u);
    }
    return false;
}

bool isHangulJamoOrSyllable(GraphemeBreak c) {
    return c == GraphemeBreak::l || c == GraphemeBreak::v || c == GraphemeBreak::t || c == GraphemeBreak::lv ||
           c == GraphemeBreak::lvt;
}

// A cheap filter in front of the full segmentation rules, on the property bytes of the previous
// scalar and the new one: false means the new one certainly starts a new cluster.
bool mayJoin(uint8_t previousProperties, uint8_t properties) {
    GraphemeBreak c = breakClass(properties);
    if (c == GraphemeBreak::extend || c == GraphemeBreak::zwj || c == GraphemeBreak::spacingMark) return true;
    GraphemeBreak p = breakClass(previousProperties);
    if (p == GraphemeBreak::prepend) return true;
    if (c == GraphemeBreak::regionalIndicator) return p == GraphemeBreak::regionalIndicator;
    if (isHangulJamoOrSyllable(c)) return isHangulJamoOrSyllable(p);
    if (properties & unicode::tables::extendedPictographicBit) return p == GraphemeBreak::zwj;
    auto conjunct = [](uint8_t bits) { return unicode::IndicConjunctBreak((bits >> unicode::tables::indicConjunctShift) & 3); };
    return conjunct(properties) == unicode::IndicConjunctBreak::consonant &&
           conjunct(previousProperties) != unicode::IndicConjunctBreak::none;
}

} // namespace

// The word that every cell printed now shares; a pending link gets its code here, once a run.
PackedCell Terminal::printBase() {
    return PackedCell::make(PackedCell::scalarTag, 0, curStyleID, 0, protectedPen, hyperlinkPayloadCode(), semanticContent.code());
}

int Terminal::printWidth(char32_t scalar) const {
    int width = unicode::width(scalar);
    if (width == 2 && unicode::isRegionalIndicator(scalar) && options_.regionalIndicatorWidth == RegionalIndicatorWidth::narrow)
        return 1;
    return width;
}

void Terminal::handlePrintBorrowed(std::span<const uint8_t> run) {
    if (run.empty()) return;
    if (charset || !readingBuffer.empty()) {
        handlePrintSlow(run.data(), run.size(), unknownScalar);
        return;
    }
    size_t ascii = isShortPrintableAscii(run) ? run.size() : ByteRunScanner::firstNonPrintableAscii(run, 0);
    char32_t previous = unknownScalar;
    if (ascii > 0) {
        PackedCell base = printBase();
        if (ascii == run.size() && buffer_->writeAsciiWithinRow(run.data(), ascii, base)) {
            previousScalar = run[ascii - 1];
            return;
        }
        size_t written = buffer_->insertAsciiRun(run.data(), ascii, base, currentEraseBlankCell);
        for (; written < ascii; ++written) {
            PackedCell cell{base.raw | uint64_t(run[written]) << PackedCell::valueShift};
            buffer_->insertCharacter(cell, 1, currentEraseBlankCell);
        }
        previous = previousScalar = run[ascii - 1];
    }
    if (ascii < run.size()) handlePrintSlow(run.data() + ascii, run.size() - ascii, previous);
}

void Terminal::handlePrintSlow(const uint8_t* bytes, size_t count, char32_t previous) {
    size_t i = 0;
    if (!readingBuffer.empty()) {
        // Complete the character that the end of the last chunk cut.
        size_t held = readingBuffer.size();
        uint8_t joined[4];
        size_t fromRun = std::min(count, sizeof joined - held);
        std::copy(readingBuffer.begin(), readingBuffer.end(), joined);
        std::copy(bytes, bytes + fromRun, joined + held);
        unicode::Utf8Step step = decodeStep(joined, held + fromRun);
        if (!step.complete) {
            readingBuffer.assign(joined, joined + held + fromRun);
            return;
        }
        readingBuffer.clear();
        i = step.length > held ? step.length - held : 0;
        printScalar(step.scalar, previous);
    }

    uint8_t previousProperties = previous == unknownScalar ? 0 : unicode::propertyByte(previous);
    PrintBatch batch;
    while (i < count) {
        uint8_t lead = bytes[i];
        // An ideograph or a plain wide emoji joins nothing but a prepend character (and the emoji
        // a joiner), so in a run of wide text the ones that follow go to the batch directly.
        if ((lead - 0xE4u <= 5 || lead == 0xF0) && batch.count > 0 && batch.width == 2 &&
            breakClass(previousProperties) != GraphemeBreak::prepend && breakClass(previousProperties) != GraphemeBreak::zwj) {
            if (size_t used = takeWideRun(bytes + i, count - i, batch, previous, previousProperties)) {
                i += used;
                continue;
            }
        }
        char32_t scalar;
        if (lead < 0x80) {
            ++i;
            if (charset) {
                writeBatch(batch);
                printMapped(lead, previous);
                continue;
            }
            if (lead == 0x7F) continue;
            scalar = lead;
        } else {
            unicode::Utf8Step step = decodeStep(bytes + i, count - i);
            if (!step.complete) {
                readingBuffer.assign(bytes + i, bytes + count);
                break;
            }
            i += step.length;
            scalar = step.scalar;
        }
        if (previous == unknownScalar) {
            previous = resolvePreviousScalar();
            previousProperties = unicode::propertyByte(previous);
        }
        // CJK ideographs, the bulk of wide text, are all two columns wide with no grapheme role.
        bool ideograph = scalar - cjkIdeographsStart < cjkIdeographsCount;
        uint8_t properties = ideograph ? 0 : unicode::propertyByte(scalar);
        if (mayJoin(previousProperties, properties)) {
            BatchJoin joined = batch.count > 0 ? joinBatched(batch, scalar) : BatchJoin::unsettled;
            if (joined == BatchJoin::unsettled) {
                writeBatch(batch);
                joined = joinWithPrevious(scalar) ? BatchJoin::joined : BatchJoin::separate;
            }
            if (joined == BatchJoin::joined) {
                previous = scalar;
                previousProperties = properties;
                continue;
            }
        }
        int width = ideograph ? 2 : printWidth(scalar);
        if (width <= 0) continue; // unprintable, or a mark with nothing to join
        if (width == 1 && i + 3 <= count && bytes[i] == 0xEF && bytes[i + 1] == 0xB8 && bytes[i + 2] == 0x8F &&
            widenIntoBatch(batch, scalar)) {
            i += 3;
            previous = emojiPresentationSelector;
            previousProperties = unicode::propertyByte(previous);
            continue;
        }
        if (batch.count == PrintBatch::capacity || (batch.count > 0 && width != batch.width)) writeBatch(batch);
        batch.contents[batch.count++] = uint32_t(scalar) << PackedCell::valueShift;
        batch.width = width;
        previous = scalar;
        previousProperties = properties;
    }
    writeBatch(batch);
    if (previous != unknownScalar) previousScalar = previous;
}

// Extends a batch of wide text, while it lasts, straight from the bytes at `p`: CJK ideographs
// (three bytes, leads E4 to E9), plain wide scalars of four bytes, an emoji modifier on the
// character before it, and a narrow character that VS16 widens (hearts, check marks). Emoji
// among ideographs then cost no trip through the general decoder and segmentation. Anything
// else, a join with another outcome, and a character that ends the chunk are left to the general
// road. Gives the bytes taken, with the last scalar and its properties in `previous`.
size_t Terminal::takeWideRun(const uint8_t* p, size_t available, PrintBatch& batch, char32_t& previous,
                             uint8_t& previousProperties) {
    size_t used = 0;
    while (batch.count < PrintBatch::capacity && used + 4 <= available) {
        const uint8_t* at = p + used;
        uint32_t lead = at[0], second = at[1], third = at[2];
        if (lead - 0xE4 <= 5) {
            char32_t scalar = char32_t((lead & 0x0F) << 12 | (second & 0x3F) << 6 | (third & 0x3F));
            if ((second & 0xC0) != 0x80 || (third & 0xC0) != 0x80 || scalar < cjkIdeographsStart) break;
            batch.contents[batch.count++] = uint32_t(scalar) << PackedCell::valueShift;
            used += 3;
            previous = scalar;
            previousProperties = 0;
            continue;
        }
        uint32_t word = lead | second << 8 | third << 16 | uint32_t(at[3]) << 24;
        uint8_t properties = 0;
        if (char32_t scalar = plainWideFourByteScalar(word, properties)) {
            batch.contents[batch.count++] = uint32_t(scalar) << PackedCell::valueShift;
            used += 4;
            previous = scalar;
            previousProperties = properties;
            continue;
        }
        if (char32_t modifier = emojiModifierIn(word)) {
            uint32_t& last = batch.contents[batch.count - 1];
            JoinMemo outcome = joinOutcome(PackedCell{uint64_t(last) | uint64_t(CellWidthState::wide) << PackedCell::widthStateShift}, modifier);
            if (outcome.kind != JoinMemo::Kind::extended) break;
            last = uint32_t(outcome.joinedContent & PackedCell::contentBits);
            used += 4;
            previous = modifier;
            previousProperties = unicode::propertyByte(modifier);
            continue;
        }
        bool threeBytes = lead >= 0xE1 && lead <= 0xEF && lead != 0xED && (second & 0xC0) == 0x80 && (third & 0xC0) == 0x80;
        if (!threeBytes || used + 6 > available || at[3] != 0xEF || at[4] != 0xB8 || at[5] != 0x8F) break;
        char32_t scalar = char32_t((lead & 0x0F) << 12 | (second & 0x3F) << 6 | (third & 0x3F));
        properties = unicode::propertyByte(scalar);
        if ((properties & joiningBits) != 0 || unicode::widthCode(scalar) != 2 || !widenIntoBatch(batch, scalar)) break;
        used += 6;
        previous = emojiPresentationSelector;
        previousProperties = unicode::propertyByte(emojiPresentationSelector);
    }
    return used;
}

// Joins a scalar to the last character of the batch before it is written, which saves a write
// and a read back of the cell for every emoji sequence. A character that widens is taken here
// only where the row has room for both columns at the cursor; at the edge the general road
// decides where it goes.
Terminal::BatchJoin Terminal::joinBatched(PrintBatch& batch, char32_t scalar) {
    uint32_t& last = batch.contents[batch.count - 1];
    CellWidthState state = batch.width == 2 ? CellWidthState::wide : CellWidthState::narrow;
    PackedCell cell{uint64_t(last) | uint64_t(state) << PackedCell::widthStateShift};
    JoinMemo outcome = joinOutcome(cell, scalar);
    uint32_t joined = uint32_t(outcome.joinedContent & PackedCell::contentBits);
    switch (outcome.kind) {
    case JoinMemo::Kind::separate: return BatchJoin::separate;
    case JoinMemo::Kind::absorbed: return BatchJoin::joined;
    case JoinMemo::Kind::extended: last = joined; return BatchJoin::joined;
    case JoinMemo::Kind::narrowed: return BatchJoin::unsettled;
    case JoinMemo::Kind::widened: {
        uint32_t narrow = last;
        --batch.count;
        writeBatch(batch);
        const Buffer& b = *buffer_;
        bool roomForTwo = !b.insertMode && b.x + 1 <= b.rightBound();
        batch.contents[0] = roomForTwo ? joined : narrow;
        batch.count = 1;
        batch.width = roomForTwo ? 2 : 1;
        return roomForTwo ? BatchJoin::joined : BatchJoin::unsettled;
    }
    }
    return BatchJoin::unsettled;
}

// A narrow character followed by VS16 inside wide text (hearts, check marks and the like in
// chat output): when the pair widens and certainly lands on the row at the end of the batch, it is
// batched as one wide character, as the write and the widening after it would leave it.
bool Terminal::widenIntoBatch(PrintBatch& batch, char32_t scalar) {
    if (batch.count == 0 || batch.count == PrintBatch::capacity || batch.width != 2) return false;
    const Buffer& b = *buffer_;
    int landsAt = b.x + 2 * int(batch.count);
    if (b.insertMode || b.x > b.rightBound() || landsAt + 1 > b.rightBound()) return false;
    JoinMemo outcome = joinOutcome(PackedCell{uint64_t(scalar) << PackedCell::valueShift}, emojiPresentationSelector);
    if (outcome.kind != JoinMemo::Kind::widened) return false;
    batch.contents[batch.count++] = uint32_t(outcome.joinedContent & PackedCell::contentBits);
    return true;
}

void Terminal::writeBatch(PrintBatch& batch) {
    if (batch.count == 0) return;
    writeContents(batch.contents, batch.count, batch.width);
    batch.count = 0;
}

void Terminal::writeContents(const uint32_t* contents, size_t count, int width) {
    PackedCell base = printBase();
    size_t written = buffer_->insertContentRun(contents, count, width, base, currentEraseBlankCell);
    for (; written < count; ++written)
        buffer_->insertCharacter(PackedCell{base.raw | contents[written]}, width, currentEraseBlankCell);
}

void Terminal::printScalar(char32_t scalar) {
    char32_t previous = unknownScalar;
    printScalar(scalar, previous);
}

void Terminal::printScalar(char32_t scalar, char32_t& previous) {
    if (previous == unknownScalar) previous = resolvePreviousScalar();
    if (mayJoin(unicode::propertyByte(previous), unicode::propertyByte(scalar)) && joinWithPrevious(scalar)) {
        previous = previousScalar = scalar;
        return;
    }
    int width = printWidth(scalar);
    if (width <= 0) return;
    uint32_t content = uint32_t(scalar) << PackedCell::valueShift;
    writeContents(&content, 1, width);
    previous = previousScalar = scalar;
}

void Terminal::printMapped(uint8_t byte, char32_t& previous) {
    std::optional<std::string_view> mapped = charset->map(byte);
    if (!mapped) {
        if (byte != 0x7F) printScalar(byte, previous);
        return;
    }
    std::u32string scalars = unicode::decodeUtf8(*mapped);
    if (scalars.empty()) return;
    if (scalars.size() == 1) {
        printScalar(scalars.front(), previous);
        return;
    }
    int width = printWidth(scalars.front());
    if (width <= 0) return;
    auto cell = cellArena->pack(curStyleID, scalars, 0);
    if (!cell) return;
    PackedCell base = printBase();
    buffer_->insertCharacter(PackedCell{(cell->raw & PackedCell::contentAndWidthBits) | base.raw}, width, currentEraseBlankCell);
    previous = previousScalar = scalars.back();
}

// The cell that a joining scalar extends: the one left of the cursor (the head of a wide
// character), or, at the start of a row that continues the one above, the last character of
// that row, so that a mark arriving right after an autowrap still reaches its base.
std::optional<Terminal::CellPosition> Terminal::combiningTarget() {
    Buffer& b = *buffer_;
    int line = b.yBase + b.y;
    int col = std::min(b.x, b.cols()) - 1;
    if (col < 0) {
        if (line == 0 || !b.lines[line].isWrapped()) return std::nullopt;
        --line;
        col = b.cols() - 1;
        BufferLine& above = b.lines[line];
        if (col >= above.count()) return std::nullopt;
        if (above.packedCell(col).widthState() == CellWidthState::spacerHead) --col;
    }
    BufferLine& row = b.lines[line];
    if (col < 0 || col >= row.count()) return std::nullopt;
    if (row.packedCell(col).isSpacerTail() && col > 0) --col;
    return CellPosition{line, col};
}

char32_t Terminal::resolvePreviousScalar() {
    auto target = combiningTarget();
    if (!target) return 0;
    PackedCell cell = buffer_->lines[target->line].packedCell(target->col);
    if (cell.tag() == PackedCell::scalarTag) return cell.value();
    if (cell.tag() != PackedCell::graphemeTag) return 0;
    const CellArena::Scalars* scalars = cellArena->grapheme(cell.value());
    return scalars && !scalars->empty() ? scalars->back() : 0;
}

// Adds `scalar` to the character before the cursor when they form one cluster.
bool Terminal::joinWithPrevious(char32_t scalar) {
    auto target = combiningTarget();
    if (!target) return false;
    BufferLine& line = buffer_->lines[target->line];
    PackedCell cell = line.packedCell(target->col);
    JoinMemo outcome = joinOutcome(cell, scalar);
    PackedCell joined{(cell.raw & ~PackedCell::contentAndWidthBits) | outcome.joinedContent};
    switch (outcome.kind) {
    case JoinMemo::Kind::separate: return false;
    case JoinMemo::Kind::absorbed: return true;
    case JoinMemo::Kind::widened: widenCombinedCell(*target, joined); return true;
    case JoinMemo::Kind::narrowed: {
        line.fill(joined, target->col, 1);
        if (target->col + 1 < line.count()) line.fill(line.packedCell(target->col + 1).blanked(), target->col + 1, 1);
        Buffer& b = *buffer_;
        if (target->line == b.yBase + b.y && b.x == target->col + 2) b.x = target->col + 1;
        return true;
    }
    case JoinMemo::Kind::extended: line.fill(joined, target->col, 1); return true;
    }
    return false;
}

// What adding `scalar` to a cell's character gives. It depends on the character alone, never on
// where the cell is, and clusters are never forgotten, so the answers are remembered: emoji
// sequences repeat, and each one found again costs no segmentation and no lookup of its cluster.
Terminal::JoinMemo Terminal::joinOutcome(PackedCell cell, char32_t scalar) {
    uint64_t content = cell.raw & PackedCell::contentAndWidthBits;
    if (cell.tag() > PackedCell::graphemeTag || content == 0) return {};
    JoinMemo& memo = joinMemos[(content * 0x9E3779B97F4A7C15ull + scalar) >> 58];
    if (memo.cellContent == content && memo.scalar == scalar) return memo;
    uint64_t joinedContent = 0;
    JoinMemo::Kind kind = decideJoin(cell, scalar, joinedContent);
    memo = JoinMemo{content, scalar, joinedContent, kind};
    return memo;
}

// The segmentation rules decide; emoji modifiers only join a modifier base. An emoji sequence
// built this way (a ZWJ sequence, a modified emoji, a text character with VS16) is drawn two
// columns wide; a flag keeps the width its first indicator took, which the options choose.
Terminal::JoinMemo::Kind Terminal::decideJoin(PackedCell cell, char32_t scalar, uint64_t& joinedContent) {
    using Kind = JoinMemo::Kind;
    std::u32string& scalars = clusterScratch;
    scalars.clear();
    cellArena->scalarValues(cell, scalars);
    if (scalars.empty()) return Kind::separate;
    char32_t previous = scalars.back();
    bool emojiSequence;
    if (unicode::isEmojiModifier(scalar)) {
        if (!unicode::isEmojiModifierBase(previous)) return Kind::separate;
        emojiSequence = true;
    } else {
        unicode::GraphemeBreakState state = unicode::graphemeStateAfter(scalars);
        if (unicode::graphemeBreakBefore(state, scalar)) return Kind::separate;
        emojiSequence = (previous == unicode::zeroWidthJoiner && unicode::isExtendedPictographic(scalar)) ||
                        scalar == emojiPresentationSelector;
    }
    char32_t first = scalars.front();
    scalars.push_back(scalar);
    uint8_t state = cell.widthStateCode();
    Kind kind = Kind::extended;
    if (scalar == textPresentationSelector && state == uint8_t(CellWidthState::wide)) {
        kind = Kind::narrowed;
        state = uint8_t(CellWidthState::narrow);
    } else if (state == uint8_t(CellWidthState::narrow) && emojiSequence && first > 0x7F && unicode::isEmoji(first) &&
               !unicode::isRegionalIndicator(first)) {
        kind = Kind::widened;
        state = uint8_t(CellWidthState::wide);
    }
    auto replaced = cellArena->replacingContent(cell, scalars, state);
    if (!replaced) return Kind::absorbed;
    joinedContent = replaced->raw & PackedCell::contentAndWidthBits;
    return kind;
}

// A narrow character that became an emoji presentation takes a second column: the next cell
// when the row has room, else the start of the next row when the cursor waits at the edge.
// Where neither is possible it stays narrow.
void Terminal::widenCombinedCell(CellPosition at, PackedCell widened) {
    Buffer& b = *buffer_;
    BufferLine& line = b.lines[at.line];
    bool cursorRow = at.line == b.yBase + b.y;
    int right = b.rightBound();
    if (cursorRow && at.col + 1 <= right) {
        if (b.insertMode) line.insertPackedCells(at.col + 1, 1, right, currentEraseBlankCell);
        else line.repairWideSeam(at.col + 2);
        line.fill(widened, at.col, 1);
        line.fill(widened.blanked().withWidthState(CellWidthState::spacerTail), at.col + 1, 1);
        if (b.x == at.col + 1) b.x = at.col + 2;
        return;
    }
    if (cursorRow && b.wraparound && b.x > right) {
        line.fill(widened.blanked().withWidthState(CellWidthState::narrow), at.col, 1);
        buffer_->insertCharacter(widened.withWidthState(CellWidthState::narrow), 2, currentEraseBlankCell);
        return;
    }
    line.fill(widened.withWidthState(CellWidthState::narrow), at.col, 1);
}

} // namespace vellum
