#include "Vellum/CellArena.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <utility>

#include "Platform/Unicode.h"

namespace vellum {

using platform::unicode::isScalarValue;
using Color = Attribute::Color;

namespace {

CellArena::Identity nextIdentity() {
    static std::atomic<CellArena::Identity> counter{0};
    return ++counter;
}

bool isBlankRendition(const Attribute& a) {
    return a.fg == Color::defaultColor() && a.style.isEmpty() && a.underlineStyle == UnderlineStyle::none &&
           !a.underlineColor;
}

char32_t firstValidScalar(std::u32string_view scalars) {
    for (char32_t s : scalars) {
        if (isScalarValue(s)) return s;
    }
    return platform::unicode::replacementCharacter;
}

bool allScalarValues(std::u32string_view scalars) {
    return std::all_of(scalars.begin(), scalars.end(), [](char32_t s) { return isScalarValue(s); });
}

std::optional<PackedCell> validated(PackedCell cell) {
    if (!cell.hasValidEncoding()) return std::nullopt;
    return cell;
}

} // namespace

void PackedCellView::getScalarValues(std::u32string& appending) const { arena->scalarValues(cell, appending); }
std::string PackedCellView::text() const { return arena->text(cell); }
Attribute PackedCellView::attribute() const { return arena->attribute(cell); }

CellArena::CellArena(int styleCapacity, int graphemeCapacity)
    : identity(nextIdentity()),
      attributeCapacity(std::clamp(styleCapacity, 0, 65535)),
      graphemeCapacity(std::clamp(graphemeCapacity, 0, 0xFFFFFF)),
      graphemeBlockCapacity(std::max(1, (this->graphemeCapacity + graphemeBlockSize - 1) / graphemeBlockSize)),
      isSnapshotCopy(false),
      // Left uninitialised on purpose: a full table is 65,536 keys and most terminals use few.
      attributeKeys(new StoredKey[size_t(attributeCapacity) + 1]),
      graphemeBlocks(size_t(graphemeBlockCapacity)) {
    attributeKeys[0] = {0, 0};
}

CellArena::CellArena(SnapshotTag, const CellArena& source)
    : identity(nextIdentity()),
      attributeCapacity(source.attributeCapacity),
      graphemeCapacity(source.graphemeCapacity),
      graphemeBlockCapacity(source.graphemeBlockCapacity),
      snapshotSourceIdentity(source.identity),
      isSnapshotCopy(true),
      attributeKeys(new StoredKey[size_t(attributeCapacity) + 1]),
      graphemeBlocks(size_t(graphemeBlockCapacity)) {
    attributeKeys[0] = {0, 0};
    synchronizeSnapshotPrefix(source);
}

std::shared_ptr<CellArena> CellArena::makeSnapshot(const CellArena& source) {
    return std::shared_ptr<CellArena>(new CellArena(SnapshotTag{}, source));
}

std::optional<uint16_t> CellArena::findAttribute(const InternedAttributeKey& key, uint64_t hash, size_t& slotIndex) const {
    size_t mask = attributeSlots.size() - 1;
    uint16_t wanted = fingerprint(hash);
    for (size_t i = homeSlot(hash) & mask;; i = (i + 1) & mask) {
        AttributeSlot slot = attributeSlots[i];
        if (slot.identifier == 0) {
            slotIndex = i;
            return std::nullopt;
        }
        if (slot.fingerprint != wanted) continue;
        const StoredKey& stored = attributeKeys[slot.identifier];
        if (stored.word0 == key.word0 && stored.word1 == key.word1) return slot.identifier;
    }
}

size_t CellArena::firstFreeSlot(uint64_t hash) const {
    size_t mask = attributeSlots.size() - 1;
    size_t i = homeSlot(hash) & mask;
    while (attributeSlots[i].identifier != 0) i = (i + 1) & mask;
    return i;
}

// Only for a key known to be absent and an identifier above zero (the zero key is answered
// before any lookup). `freeSlot` is where the probe for the key ended, if there was one: a new
// key goes there unless the slots grow, and is never compared with the keys it passes.
void CellArena::storeAttribute(const InternedAttributeKey& key, uint64_t hash, uint16_t identifier,
                               std::optional<size_t> freeSlot) {
    attributeKeys[identifier] = {key.word0, uint32_t(key.word1)};
    size_t used = size_t(identifier) + 1;
    if (attributeSlots.size() < 2 * used) {
        std::vector<AttributeSlot> old =
            std::exchange(attributeSlots, std::vector<AttributeSlot>(std::bit_ceil(2 * used)));
        attributeSlotShift = 64 - std::countr_zero(attributeSlots.size());
        // Every stored key is distinct, so each only needs the first free slot from its home.
        for (const AttributeSlot& slot : old) {
            if (slot.identifier == 0) continue;
            const StoredKey& stored = attributeKeys[slot.identifier];
            attributeSlots[firstFreeSlot(cacheHash(InternedAttributeKey::fromWords(stored.word0, stored.word1)))] = slot;
        }
        freeSlot.reset();
    }
    markPresent(hash);
    attributeSlots[freeSlot ? *freeSlot : firstFreeSlot(hash)] = {identifier, fingerprint(hash)};
}

// The two answers that SGR streams give almost every time, a rendition met lately and one never
// seen by a full table, are merged into one branch, which is then taken nearly always: a branch
// per answer would be mispredicted on every switch between them, each time after waiting for
// the loads it tests.
int CellArena::internedIdentifierFromTable(const InternedAttributeKey& key, uint64_t hash) {
    std::optional<size_t> freeSlot;
    if (mayBePresent(hash)) {
        size_t free = 0;
        if (auto found = findAttribute(key, hash, free)) {
            remember(key, hash, *found);
            return *found;
        }
        freeSlot = free;
    }
    if (isSnapshotCopy || attributeCountValue > attributeCapacity) return -1;
    uint16_t identifier = uint16_t(attributeCountValue++);
    storeAttribute(key, hash, identifier, freeSlot);
    remember(key, hash, identifier);
    return identifier;
}

CellArena::LookupTables CellArena::noLookupTables;

CellArena::LookupTables& CellArena::writableLookupTables() {
    if (!lookupTables) {
        lookupTables = std::make_unique<LookupTables>();
        attributeCache = lookupTables->cache;
        attributePresence = lookupTables->presence;
    }
    return *lookupTables;
}

CellArena::SharedScalars& CellArena::graphemeSlot(uint32_t identifier) {
    uint32_t index = identifier - 1;
    auto& block = graphemeBlocks[index / graphemeBlockSize];
    if (!block) {
        block = std::make_unique<GraphemeBlock>();
        allocatedGraphemeBlockCount = std::max(allocatedGraphemeBlockCount, int(index / graphemeBlockSize) + 1);
    }
    return (*block)[index % graphemeBlockSize];
}

std::optional<uint32_t> CellArena::intern(std::u32string_view graphemes) {
    if (auto it = graphemeIdentifiers.find(graphemes); it != graphemeIdentifiers.end()) return it->second;
    if (graphemes.empty() || isSnapshotCopy || graphemeCountValue >= uint32_t(graphemeCapacity)) return std::nullopt;
    uint32_t identifier = graphemeCountValue + 1;
    auto shared = std::make_shared<const Scalars>(graphemes);
    graphemeSlot(identifier) = shared;
    graphemeCountValue = identifier;
    graphemeIdentifiers.emplace(std::move(shared), identifier);
    return identifier;
}

const CellArena::Scalars* CellArena::grapheme(uint32_t identifier) const {
    if (identifier == 0 || identifier > graphemeCountValue) return nullptr;
    uint32_t index = identifier - 1;
    const auto& block = graphemeBlocks[index / graphemeBlockSize];
    if (!block) return nullptr;
    return (*block)[index % graphemeBlockSize].get();
}

Attribute CellArena::attributeFor(uint16_t styleID) const {
    if (styleID >= attributeCountValue) return Attribute::empty;
    const StoredKey& stored = attributeKeys[styleID];
    return InternedAttributeKey::fromWords(stored.word0, stored.word1).attribute();
}

std::optional<PackedCell> CellArena::packInlineBackground(const Attribute& attribute, uint8_t widthState,
                                                          uint16_t payloadCode, uint8_t semanticContentCode,
                                                          bool isProtected) const {
    if (!isBlankRendition(attribute)) return std::nullopt;
    auto cell = inlineBackgroundCell(attribute.bg);
    if (!cell) return std::nullopt;
    return PackedCell{cell->raw | PackedCell::make(0, 0, 0, widthState, isProtected, payloadCode, semanticContentCode).raw};
}

std::optional<PackedCell> CellArena::packCluster(uint16_t styleID, std::u32string_view scalars, uint8_t widthState,
                                                 uint16_t payloadCode, uint8_t semanticContentCode, bool isProtected) {
    if (auto identifier = intern(scalars)) {
        if (*identifier > PackedCell::valueMask) return std::nullopt;
        return validated(PackedCell::make(PackedCell::graphemeTag, *identifier, styleID, widthState, isProtected,
                                          payloadCode, semanticContentCode));
    }
    return validated(PackedCell::make(PackedCell::scalarTag, firstValidScalar(scalars), styleID, widthState,
                                      isProtected, payloadCode, semanticContentCode));
}

std::optional<PackedCell> CellArena::pack(const CharData& data) {
    if (data.widthStateCode > 3) return std::nullopt;
    if (data.graphemeScalarValues) {
        uint16_t style = intern(data.attribute).value_or(0);
        return packCluster(style, *data.graphemeScalarValues, data.widthStateCode, data.payload.code,
                           data.semanticContentCode, data.isProtected);
    }
    if (data.code < 0 || !isScalarValue(uint32_t(data.code))) return std::nullopt;
    if (data.code == 0) {
        if (auto cell = packInlineBackground(data.attribute, data.widthStateCode, data.payload.code,
                                             data.semanticContentCode, data.isProtected)) {
            return validated(*cell);
        }
    }
    uint16_t style = intern(data.attribute).value_or(0);
    return validated(PackedCell::make(PackedCell::scalarTag, uint32_t(data.code), style, data.widthStateCode,
                                      data.isProtected, data.payload.code, data.semanticContentCode));
}

std::optional<PackedCell> CellArena::pack(const Attribute& attribute, std::u32string_view character, uint8_t widthState,
                                          uint16_t payloadCode, uint8_t semanticContentCode, bool isProtected) {
    if (widthState > 3 || character.empty() || !allScalarValues(character)) return std::nullopt;
    if (character.size() == 1 && character[0] == 0) {
        if (auto cell = packInlineBackground(attribute, widthState, payloadCode, semanticContentCode, isProtected)) {
            return validated(*cell);
        }
    }
    return pack(intern(attribute).value_or(0), character, widthState, payloadCode, semanticContentCode, isProtected);
}

std::optional<PackedCell> CellArena::pack(uint16_t styleID, std::u32string_view character, uint8_t widthState,
                                          uint16_t payloadCode, uint8_t semanticContentCode, bool isProtected) {
    if (widthState > 3 || character.empty() || !allScalarValues(character)) return std::nullopt;
    if (character.size() == 1) {
        return validated(PackedCell::make(PackedCell::scalarTag, character[0], styleID, widthState, isProtected,
                                          payloadCode, semanticContentCode));
    }
    return packCluster(styleID, character, widthState, payloadCode, semanticContentCode, isProtected);
}

Attribute CellArena::attribute(PackedCell cell) const {
    switch (cell.tag()) {
    case PackedCell::paletteBackgroundTag: {
        Attribute a;
        a.bg = Color::ansi256(uint8_t(cell.value()));
        return a;
    }
    case PackedCell::trueColorBackgroundTag: {
        Attribute a;
        uint32_t v = cell.value();
        a.bg = Color::trueColor(uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16));
        return a;
    }
    default:
        return attributeFor(cell.styleID());
    }
}

CharData CellArena::unpack(PackedCell cell) const {
    CharData data;
    data.attribute = attribute(cell);
    if (cell.tag() == PackedCell::scalarTag) {
        data.code = int32_t(cell.value());
    } else if (cell.tag() == PackedCell::graphemeTag) {
        if (const Scalars* cluster = grapheme(cell.value()); cluster && !cluster->empty()) {
            data.code = int32_t(cluster->front());
            data.graphemeScalarValues = *cluster;
        }
    }
    data.widthStateCode = cell.widthStateCode();
    data.width = int8_t(cell.width());
    data.semanticContentCode = cell.semanticContentCode() >= 7 ? 0 : cell.semanticContentCode();
    data.payload = TinyAtom{cell.payloadCode()};
    data.isProtected = cell.isProtected();
    return data;
}

void CellArena::scalarValues(PackedCell cell, Scalars& appending) const {
    if (cell.tag() == PackedCell::scalarTag) {
        if (cell.value() != 0) appending.push_back(char32_t(cell.value()));
    } else if (cell.tag() == PackedCell::graphemeTag) {
        if (const Scalars* cluster = grapheme(cell.value())) appending += *cluster;
    }
}

CellArena::Scalars CellArena::scalarValues(PackedCell cell) const {
    Scalars out;
    scalarValues(cell, out);
    return out;
}

std::string CellArena::text(PackedCell cell) const {
    if (cell.tag() == PackedCell::graphemeTag) {
        const Scalars* cluster = grapheme(cell.value());
        if (!cluster || !allScalarValues(*cluster)) return " ";
        return platform::unicode::encodeUtf8(*cluster);
    }
    if (cell.tag() != PackedCell::scalarTag || cell.value() == 0) return std::string(1, '\0');
    if (!isScalarValue(cell.value())) return " ";
    std::string out;
    platform::unicode::appendUtf8(out, char32_t(cell.value()));
    return out;
}

std::optional<PackedCell> CellArena::replacingContent(PackedCell cell, std::u32string_view scalars, uint8_t widthState) {
    if (scalars.empty() || widthState > 3 || cell.semanticContentCode() >= 7 || !allScalarValues(scalars)) {
        return std::nullopt;
    }
    uint16_t style = cell.styleID();
    if (cell.tag() == PackedCell::paletteBackgroundTag || cell.tag() == PackedCell::trueColorBackgroundTag) {
        style = intern(attribute(cell)).value_or(0);
    }
    std::optional<PackedCell> content =
        scalars.size() == 1 ? PackedCell::make(PackedCell::scalarTag, scalars[0], style, widthState, false, 0, 0)
                            : packCluster(style, scalars, widthState, 0, 0, false);
    if (!content) return std::nullopt;
    return validated(PackedCell{(cell.raw & PackedCell::highBits) | content->raw});
}

bool CellArena::preservesEncoding(const CellArena& source) const {
    return isSnapshotCopy && snapshotSourceIdentity == source.identity &&
           attributeCountValue >= source.attributeCountValue && graphemeCountValue >= source.graphemeCountValue;
}

bool CellArena::synchronizeSnapshotPrefix(const CellArena& source) {
    if (!isSnapshotCopy || snapshotSourceIdentity != source.identity) return false;
    if (source.attributeCountValue < attributeCountValue || source.graphemeCountValue < graphemeCountValue) return false;
    if (source.attributeCountValue > attributeCapacity + 1 || source.graphemeCountValue > uint32_t(graphemeCapacity)) {
        return false;
    }
    std::memcpy(&attributeKeys[attributeCountValue], &source.attributeKeys[attributeCountValue],
                sizeof(StoredKey) * size_t(source.attributeCountValue - attributeCountValue));
    attributeCountValue = source.attributeCountValue;
    for (uint32_t identifier = graphemeCountValue + 1; identifier <= source.graphemeCountValue; ++identifier) {
        uint32_t index = identifier - 1;
        const auto& sourceBlock = source.graphemeBlocks[index / graphemeBlockSize];
        if (sourceBlock) graphemeSlot(identifier) = (*sourceBlock)[index % graphemeBlockSize];
    }
    graphemeCountValue = source.graphemeCountValue;
    return true;
}

} // namespace vellum
