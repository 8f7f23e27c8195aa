#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Unicode properties from tables generated at build-authoring time (scripts/gen-unicode-tables);
// nothing reads Unicode data files at run time.
namespace platform::unicode {

enum class GeneralCategory : uint8_t {
    Cn, Lu, Ll, Lt, Lm, Lo, Mn, Mc, Me, Nd, Nl, No, Pc, Pd, Ps, Pe, Pi, Pf, Po,
    Sm, Sc, Sk, So, Zs, Zl, Zp, Cc, Cf, Cs, Co,
};

GeneralCategory generalCategory(char32_t scalar);

// Display width from East Asian Width with the wide emoji: 0 for combining and other
// zero-width scalars, 1 or 2 for printable ones, -1 for scalars that are not printable.
int width(char32_t scalar);

// Decodes UTF-8, replacing each ill-formed sequence with U+FFFD.
std::u32string decodeUtf8(std::string_view bytes);
std::string encodeUtf8(std::u32string_view scalars);
void appendUtf8(std::string& out, char32_t scalar);

// Splits text into extended grapheme clusters (UAX #29); the views point into `text`.
std::vector<std::u32string_view> graphemeClusters(std::u32string_view text);

} // namespace platform::unicode
