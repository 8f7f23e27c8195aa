#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Vellum/Attribute.h"
#include "Vellum/CharData.h"
#include "Vellum/PackedCell.h"

namespace vellum {

// The canonical form of an Attribute in two words, which is all the arena hashes and compares.
// Colour codes (26 bits): default 0, inverted default 0x1000000, palette 0x2000000 + index,
// true colour 0x3000000 + (r << 16 | g << 8 | b). word0: fg (0-25), bg (26-51), style byte (52-59),
// underline style (60-63). word1: 0 without an underline colour, else its code with the kind
// moved up by 0x4000000. Attribute::empty is the all-zero key and nothing else is.
struct InternedAttributeKey {
    uint64_t word0 = 0;
    uint64_t word1 = 0;

    InternedAttributeKey() = default;
    // Inline: every SGR that changes the pen builds one.
    explicit InternedAttributeKey(const Attribute& attribute)
        : word0(attribute.fg.internCode() | uint64_t(attribute.bg.internCode()) << backgroundShift |
                uint64_t(attribute.style.rawValue) << styleShift | uint64_t(attribute.underlineStyle) << underlineStyleShift),
          word1(attribute.underlineColor ? uint64_t(attribute.underlineColor->internCode()) + 0x4000000 : 0) {}
    static InternedAttributeKey fromWords(uint64_t word0, uint64_t word1) {
        InternedAttributeKey key;
        key.word0 = word0;
        key.word1 = word1;
        return key;
    }

    // The attribute the key was made from.
    Attribute attribute() const {
        Attribute a;
        writeAttribute(a);
        return a;
    }
    // The same into an existing one, field by field: an attribute has an odd size, and one built
    // aside and copied whole is read back across the small stores that made it.
    void writeAttribute(Attribute& a) const {
        a.fg = Attribute::Color::fromInternCode(uint32_t(word0 & codeMask));
        a.bg = Attribute::Color::fromInternCode(uint32_t(word0 >> backgroundShift & codeMask));
        a.style = CharacterStyle(uint8_t(word0 >> styleShift));
        a.underlineStyle = UnderlineStyle(word0 >> underlineStyleShift);
        if (word1 != 0) a.underlineColor = Attribute::Color::fromInternCode(uint32_t(word1 - 0x4000000));
        else a.underlineColor.reset();
    }
    static constexpr int backgroundShift = 26, styleShift = 52, underlineStyleShift = 60;
    static constexpr uint64_t codeMask = 0x3FFFFFF; // one colour's code

    bool isZero() const { return (word0 | word1) == 0; }
    bool operator==(const InternedAttributeKey&) const = default;
};

class CellArena;

// A cell word with the arena that gives it meaning, for readers that do not unpack.
struct PackedCellView {
    PackedCell cell;
    const CellArena* arena;

    // Appends the cell's scalars (none for an empty cell or a dangling cluster).
    void getScalarValues(std::u32string& appending) const;
    std::string text() const;
    Attribute attribute() const;
};

// The side store of one terminal: styles and grapheme clusters live here once and cells hold
// their identifiers. Entries are never forgotten; a full table makes packing fall back (styles
// to the default rendition, clusters to their first valid scalar). Not locked: it belongs to
// the thread holding the terminal's lock. Readers elsewhere use a snapshot copy.
class CellArena {
public:
    using Identity = uint64_t; // unique per arena object in this process
    using Scalars = std::u32string; // may hold values that are no scalar; readers check
    using SharedScalars = std::shared_ptr<const Scalars>; // immutable once interned

    static constexpr int graphemeBlockSize = 256;
    static constexpr int defaultCapacity = 65535;

    CellArena(int styleCapacity = defaultCapacity, int graphemeCapacity = defaultCapacity);
    CellArena(const CellArena&) = delete;
    CellArena& operator=(const CellArena&) = delete;

    // A read-only image of `source` for a reader on another thread.
    static std::shared_ptr<CellArena> makeSnapshot(const CellArena& source);

    std::optional<uint16_t> intern(const Attribute& attributes) {
        int identifier = internedIdentifier(InternedAttributeKey(attributes));
        if (identifier < 0) return std::nullopt;
        return uint16_t(identifier);
    }
    // The same by key, for a writer that keeps its rendition as one: the identifier, or -1 when
    // the table is full. Inline: every SGR that changes the pen asks, and most are answered here.
    int internedIdentifier(const InternedAttributeKey& key);
    std::optional<uint32_t> intern(std::u32string_view graphemes);

    std::optional<PackedCell> pack(const CharData& data);
    std::optional<PackedCell> pack(const Attribute& attribute, std::u32string_view character, uint8_t widthState,
                                   uint16_t payloadCode = 0, uint8_t semanticContentCode = 0, bool isProtected = false);
    std::optional<PackedCell> pack(uint16_t styleID, std::u32string_view character, uint8_t widthState,
                                   uint16_t payloadCode = 0, uint8_t semanticContentCode = 0, bool isProtected = false);
    CharData unpack(PackedCell cell) const;
    // An empty cell whose only rendition is this background, held in the word itself (no
    // style is interned); nothing for the default backgrounds.
    static std::optional<PackedCell> inlineBackgroundCell(const Attribute::Color& bg) {
        if (bg.kind() == Attribute::Color::Kind::ansi256)
            return PackedCell::make(PackedCell::paletteBackgroundTag, bg.code(), 0, 0, false, 0, 0);
        if (bg.kind() == Attribute::Color::Kind::trueColor) {
            uint32_t value = uint32_t(bg.red()) | uint32_t(bg.green()) << 8 | uint32_t(bg.blue()) << 16;
            return PackedCell::make(PackedCell::trueColorBackgroundTag, value, 0, 0, false, 0, 0);
        }
        return std::nullopt;
    }

    Scalars scalarValues(PackedCell cell) const;
    void scalarValues(PackedCell cell, Scalars& appending) const;
    std::string text(PackedCell cell) const;
    Attribute attribute(PackedCell cell) const;

    // The cell with new content (combining marks, variation selectors) and width state; keeps
    // protection, payload and semantic code, and the style (an inline background is interned).
    std::optional<PackedCell> replacingContent(PackedCell cell, std::u32string_view scalars, uint8_t widthState);

    bool synchronizeSnapshotPrefix(const CellArena& source);
    bool preservesEncoding(const CellArena& source) const;

    // Table access. Style identifiers beyond the count read as the empty attribute.
    Attribute attributeFor(uint16_t styleID) const;
    // The cluster of a 1-based identifier, or null for a dangling one.
    const Scalars* grapheme(uint32_t identifier) const;
    int attributeCount() const { return attributeCountValue; }
    uint32_t graphemeCount() const { return graphemeCountValue; }

    const Identity identity;
    const int attributeCapacity;
    const int graphemeCapacity;
    const int graphemeBlockCapacity;
    const std::optional<Identity> snapshotSourceIdentity;
    const bool isSnapshotCopy;

private:
    struct SnapshotTag {};
    CellArena(SnapshotTag, const CellArena& source);

    struct ScalarsHash {
        using is_transparent = void;
        size_t operator()(std::u32string_view s) const noexcept { return std::hash<std::u32string_view>()(s); }
        size_t operator()(const SharedScalars& s) const noexcept { return (*this)(std::u32string_view(*s)); }
    };
    struct ScalarsEqual {
        using is_transparent = void;
        static std::u32string_view view(std::u32string_view s) { return s; }
        static std::u32string_view view(const SharedScalars& s) { return *s; }
        template <typename A, typename B>
        bool operator()(const A& a, const B& b) const { return view(a) == view(b); }
    };
    using GraphemeBlock = std::array<SharedScalars, graphemeBlockSize>;

    static uint64_t cacheHash(const InternedAttributeKey& key) {
        return ((key.word1 * 0x9E3779B97F4A7C15ull) ^ key.word0) * 0xBF58476D1CE4E5B9ull;
    }

public:
    // The hash mixed again so that its lower bits depend on all of the key too.
    static uint64_t remix(uint64_t hash) { return std::rotr(hash, 32) * 0x94D049BB133111EBull; }

private:
    std::optional<PackedCell> packCluster(uint16_t styleID, std::u32string_view scalars, uint8_t widthState,
                                          uint16_t payloadCode, uint8_t semanticContentCode, bool isProtected);
    std::optional<PackedCell> packInlineBackground(const Attribute& attribute, uint8_t widthState, uint16_t payloadCode,
                                                   uint8_t semanticContentCode, bool isProtected) const;
    SharedScalars& graphemeSlot(uint32_t identifier);

    int attributeCountValue = 1;
    // Identifiers by key: open addressing with linear probing, at most half full. A slot is an
    // identifier (0: empty, as the zero key never needs a slot) and sixteen bits of the key's
    // hash, so that a full table is half a megabyte and stays near the processor; the key
    // itself is compared in `attributeKeys` only when those bits match.
    struct AttributeSlot {
        uint16_t identifier = 0;
        uint16_t fingerprint = 0;
    };
    static_assert(sizeof(AttributeSlot) == 4);
    std::vector<AttributeSlot> attributeSlots = std::vector<AttributeSlot>(1024);
    int attributeSlotShift = 64 - 10; // 64 less the bits of the slot count: the lookup reads one number
    struct StoredKey { // word1 fits 32 bits
        uint64_t word0;
        uint32_t word1;
    };
    // By identifier, also the renditions themselves (an attribute is made from its key when read);
    // left uninitialised past the count.
    std::unique_ptr<StoredKey[]> attributeKeys;
    static uint16_t fingerprint(uint64_t hash) { return uint16_t(remix(hash) >> 20); }
    // In front of the slots, which a full table spreads over two megabytes: the renditions
    // met last, direct-mapped, and one bit per hash value telling that no key with that hash
    // was ever stored. Programs that paint with many true colours mostly ask for renditions
    // never seen, and most of those are answered by the bit without touching the slots.
    struct CacheEntry { // the key's word1 fits 32 bits, so an entry is 16 bytes, four to a line
        uint64_t word0 = 0;
        uint32_t word1 = 0;
        uint32_t identifierPlusOne = 0;
    };
    static constexpr int cacheBits = 13, presenceBits = 20;
    static constexpr size_t cacheEntries = size_t(1) << cacheBits, presenceWords = (size_t(1) << presenceBits) / 64;
    // Two bits per key, both in one word, so that one load answers: a full table leaves about
    // one absent key in sixty taking the slow probe, against one in eight with a single bit.
    // Both tables are a quarter of a megabyte together, most of an idle terminal; they are made
    // with the first rendition interned. Until then the pointers name one shared all-zero image,
    // which answers every lookup as a miss, so the hot path never tests whether they exist.
    struct LookupTables {
        CacheEntry cache[cacheEntries];
        uint64_t presence[presenceWords];
    };
    static LookupTables noLookupTables; // never written; not const, so that it is zero pages rather than bytes of the program
    std::unique_ptr<LookupTables> lookupTables;
    const CacheEntry* attributeCache = noLookupTables.cache;
    const uint64_t* attributePresence = noLookupTables.presence;
    LookupTables& writableLookupTables();
    static uint64_t presenceMask(uint64_t mixed) { return uint64_t(1) << (mixed & 63) | uint64_t(1) << ((mixed >> 6) & 63); }
    static size_t presenceWord(uint64_t mixed) { return size_t(mixed >> (64 - (presenceBits - 6))); }
    bool mayBePresent(uint64_t hash) const {
        uint64_t mixed = remix(hash), mask = presenceMask(mixed);
        return (attributePresence[presenceWord(mixed)] & mask) == mask;
    }
    void markPresent(uint64_t hash) {
        uint64_t mixed = remix(hash);
        writableLookupTables().presence[presenceWord(mixed)] |= presenceMask(mixed);
    }
    // The identifier, or -1 when the table is full: a plain integer comes back in a register,
    // where an optional would be assembled in memory and read back whole.
    [[gnu::noinline]] int internedIdentifierFromTable(const InternedAttributeKey& key, uint64_t hash);
    void remember(const InternedAttributeKey& key, uint64_t hash, uint16_t identifier) {
        writableLookupTables().cache[cacheIndex(hash)] = {key.word0, uint32_t(key.word1), uint32_t(identifier) + 1};
    }
    static size_t cacheIndex(uint64_t hash) { return size_t(hash >> (64 - cacheBits)); }
    std::optional<uint16_t> findAttribute(const InternedAttributeKey& key, uint64_t hash, size_t& slotIndex) const;
    size_t homeSlot(uint64_t hash) const {
        // Only the top bits of the hash are well mixed (a low bit of a product depends only on
        // the factors' lower bits), and the slot index takes those.
        return size_t(hash >> attributeSlotShift);
    }
    size_t firstFreeSlot(uint64_t hash) const;
    void storeAttribute(const InternedAttributeKey& key, uint64_t hash, uint16_t identifier, std::optional<size_t> freeSlot);
    std::vector<std::unique_ptr<GraphemeBlock>> graphemeBlocks;
    int allocatedGraphemeBlockCount = 0;
    uint32_t graphemeCountValue = 0;
    std::unordered_map<SharedScalars, uint32_t, ScalarsHash, ScalarsEqual> graphemeIdentifiers;
};

inline int CellArena::internedIdentifier(const InternedAttributeKey& key) {
    if (key.isZero()) return 0;
    uint64_t hash = cacheHash(key);
    const CacheEntry& cached = attributeCache[cacheIndex(hash)];
    uint64_t mixed = remix(hash), mask = presenceMask(mixed);
    uint64_t presence = attributePresence[presenceWord(mixed)];
    __builtin_prefetch(&attributeSlots[homeSlot(hash)]);
    // A zero entry never matches, since the key is not zero.
    bool cacheHit = ((cached.word0 ^ key.word0) | (cached.word1 ^ key.word1)) == 0;
    bool absentFromFullTable = ((presence & mask) != mask) & (isSnapshotCopy | (attributeCountValue > attributeCapacity));
    if (cacheHit | absentFromFullTable) return cacheHit ? int(cached.identifierPlusOne) - 1 : -1;
    return internedIdentifierFromTable(key, hash);
}

} // namespace vellum
