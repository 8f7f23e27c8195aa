#pragma once

#include <cstddef>
#include <cstdint>

// Raw tables written by scripts/gen-unicode-tables. All three are two-stage: the first stage
// is indexed by scalar / 256 and names a deduplicated block of the second stage.
namespace platform::unicode::tables {

// Two bits per scalar (scalar % 4 selects the pair, low bits first): 0 not printable,
// otherwise the display width plus one.
extern const uint8_t widthStage1[0x1100];
extern const uint8_t widthStage2[][64];

// One byte per scalar: bits 0-3 the grapheme break class (GraphemeBreak), bit 4 extended
// pictographic, bits 5-6 the Indic conjunct break class (IndicConjunctBreak), bit 7 Emoji.
extern const uint8_t propertyStage1[0x1100];
extern const uint8_t propertyStage2[][256];
inline constexpr uint8_t breakClassMask = 0x0F;
inline constexpr uint8_t extendedPictographicBit = 0x10;
inline constexpr int indicConjunctShift = 5;
inline constexpr uint8_t emojiBit = 0x80;

// One byte per scalar: the GeneralCategory.
extern const uint8_t categoryStage1[0x1100];
extern const uint8_t categoryStage2[][256];

struct ScalarRange {
    char32_t first;
    char32_t last;
};
extern const ScalarRange emojiPresentationRanges[];
extern const size_t emojiPresentationRangesCount;
extern const ScalarRange emojiModifierBaseRanges[];
extern const size_t emojiModifierBaseRangesCount;

} // namespace platform::unicode::tables
