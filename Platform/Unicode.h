#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/UnicodeTables.h"

// Unicode properties from tables generated at build-authoring time (scripts/gen-unicode-tables);
// nothing reads Unicode data files at run time.
namespace platform::unicode {

inline constexpr char32_t replacementCharacter = 0xFFFD;
inline constexpr char32_t zeroWidthJoiner = 0x200D;

enum class GeneralCategory : uint8_t {
    Cn, Lu, Ll, Lt, Lm, Lo, Mn, Mc, Me, Nd, Nl, No, Pc, Pd, Ps, Pe, Pi, Pf, Po,
    Sm, Sc, Sk, So, Zs, Zl, Zp, Cc, Cf, Cs, Co,
};

// Grapheme_Cluster_Break values, in the order the property table stores them.
enum class GraphemeBreak : uint8_t {
    other, cr, lf, control, extend, zwj, regionalIndicator, prepend, spacingMark, l, v, t, lv, lvt,
};

enum class IndicConjunctBreak : uint8_t { none, linker, consonant, extend };

inline constexpr bool isScalarValue(uint32_t value) {
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

inline constexpr bool isRegionalIndicator(char32_t scalar) { return scalar >= 0x1F1E6 && scalar <= 0x1F1FF; }
inline constexpr bool isEmojiModifier(char32_t scalar) { return scalar >= 0x1F3FB && scalar <= 0x1F3FF; }
inline constexpr bool isVariationSelector(char32_t scalar) {
    return (scalar >= 0xFE00 && scalar <= 0xFE0F) || (scalar >= 0xE0100 && scalar <= 0xE01EF);
}

// The raw two-bit code of the width table: 0 not printable, otherwise width + 1.
inline uint8_t widthCode(char32_t scalar) {
    if (scalar > 0x10FFFF) return 0;
    uint8_t packed = tables::widthStage2[tables::widthStage1[scalar >> 8]][(scalar & 0xFF) >> 2];
    return (packed >> ((scalar & 3) * 2)) & 3;
}

// Display width from East Asian Width with the wide emoji: 0 for combining and other
// zero-width scalars, 1 or 2 for printable ones, -1 for scalars that are not printable.
inline int width(char32_t scalar) {
    if (scalar >= 0x20 && scalar < 0x7F) return 1;
    return int(widthCode(scalar)) - 1;
}

inline uint8_t propertyByte(char32_t scalar) {
    if (scalar > 0x10FFFF) return 0;
    return tables::propertyStage2[tables::propertyStage1[scalar >> 8]][scalar & 0xFF];
}

inline GraphemeBreak graphemeBreak(char32_t scalar) {
    return GraphemeBreak(propertyByte(scalar) & tables::breakClassMask);
}
inline bool isExtendedPictographic(char32_t scalar) {
    return propertyByte(scalar) & tables::extendedPictographicBit;
}
inline IndicConjunctBreak indicConjunctBreak(char32_t scalar) {
    return IndicConjunctBreak((propertyByte(scalar) >> tables::indicConjunctShift) & 3);
}
// The Emoji property: scalars that have an emoji form, in text or emoji presentation.
inline bool isEmoji(char32_t scalar) { return propertyByte(scalar) & tables::emojiBit; }

GeneralCategory generalCategory(char32_t scalar);
bool isEmojiPresentation(char32_t scalar);
bool isEmojiModifierBase(char32_t scalar);

// Decodes UTF-8, replacing each ill-formed sequence with U+FFFD.
std::u32string decodeUtf8(std::string_view bytes);
std::string encodeUtf8(std::u32string_view scalars);
void appendUtf8(std::string& out, char32_t scalar);

// One step of UTF-8 decoding at the start of `bytes` (which must not be empty). An ill-formed
// sequence gives U+FFFD and consumes its maximal valid prefix (at least one byte). When the bytes
// end inside a sequence that is well-formed so far, `complete` is false and `length` is what
// there was: the caller keeps those bytes until more arrive.
struct Utf8Step {
    char32_t scalar;
    uint8_t length;
    bool complete;
};
Utf8Step decodeUtf8Scalar(std::string_view bytes);

// Incremental extended grapheme cluster segmentation (UAX #29, including the Indic conjunct,
// emoji ZWJ and regional indicator rules). A default state is at the start of text.
struct GraphemeBreakState {
    enum class Emoji : uint8_t { none, pictographic, pictographicZwj };
    enum class Conjunct : uint8_t { none, consonant, consonantLinker };

    bool atStart = true;
    GraphemeBreak previous = GraphemeBreak::other;
    uint32_t regionalIndicatorRun = 0; // consecutive regional indicators just before
    Emoji emoji = Emoji::none;         // extended pictographic, extends, then perhaps ZWJ
    Conjunct conjunct = Conjunct::none;
};

// Feeds one scalar; true when a cluster boundary lies before it (always at the start).
bool graphemeBreakBefore(GraphemeBreakState& state, char32_t scalar);

// The state after feeding `scalars`, e.g. the scalars already in a terminal cell.
GraphemeBreakState graphemeStateAfter(std::u32string_view scalars);

// Splits text into extended grapheme clusters (UAX #29); the views point into `text`.
std::vector<std::u32string_view> graphemeClusters(std::u32string_view text);

} // namespace platform::unicode
