#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Text comparison for the command bar: a character is an extended grapheme cluster, and two
// characters are the same when their canonical decompositions are (so "é" precomposed equals
// "e" followed by a combining acute).
namespace corvex::folding {

// Each cluster's full lower-case mapping, scalar by scalar.
std::u32string lowercased(std::u32string_view text);
// The full case folding (so "ß" folds to "ss").
std::u32string caseFolded(std::u32string_view text);
// The canonical decomposition in canonical order (NFD).
std::u32string canonicalDecomposition(std::u32string_view text);
// NFD without its nonspacing marks: "é" becomes "e".
std::u32string withoutDiacritics(std::u32string_view text);

// The White_Space property.
bool isWhitespace(char32_t scalar);
// Blanks and tabs: white space that doesn't end a line.
bool isBlank(char32_t scalar);
bool isPunctuation(char32_t scalar);
bool isLetterOrNumber(char32_t scalar);

// One character lower-cased on its own, in the form that compares by canonical equivalence.
std::u32string lowercasedKey(std::u32string_view character);
// How many characters (extended grapheme clusters) a UTF-8 text holds.
size_t characterCount(std::string_view utf8);

namespace tables {
struct ScalarMapping {
    char32_t scalar;
    uint16_t offset; // into mappedScalars
    uint8_t length;
};
struct CombiningClassRange {
    char32_t first;
    char32_t last;
    uint8_t combiningClass;
};
extern const char32_t mappedScalars[];
extern const ScalarMapping lowerCaseMappings[];
extern const size_t lowerCaseMappingsCount;
extern const ScalarMapping caseFoldings[];
extern const size_t caseFoldingsCount;
extern const ScalarMapping canonicalDecompositions[];
extern const size_t canonicalDecompositionsCount;
extern const CombiningClassRange combiningClassRanges[];
extern const size_t combiningClassRangesCount;
} // namespace tables

} // namespace corvex::folding
