#include "CorvexKit/FuzzyMatchFolding.h"

#include <algorithm>

#include "Platform/Unicode.h"

namespace corvex::folding {

namespace unicode = platform::unicode;
using unicode::GeneralCategory;

namespace {

const tables::ScalarMapping* find(const tables::ScalarMapping* table, size_t count, char32_t scalar) {
    const auto* end = table + count;
    const auto* found = std::lower_bound(table, end, scalar,
                                         [](const tables::ScalarMapping& row, char32_t key) { return row.scalar < key; });
    return found != end && found->scalar == scalar ? found : nullptr;
}

std::u32string mapped(std::u32string_view text, const tables::ScalarMapping* table, size_t count) {
    std::u32string out;
    out.reserve(text.size());
    for (char32_t scalar : text) {
        if (const auto* row = find(table, count, scalar)) {
            out.append(tables::mappedScalars + row->offset, row->length);
        } else {
            out.push_back(scalar);
        }
    }
    return out;
}

uint8_t combiningClass(char32_t scalar) {
    const auto* table = tables::combiningClassRanges;
    const auto* end = table + tables::combiningClassRangesCount;
    const auto* found = std::lower_bound(table, end, scalar,
                                         [](const tables::CombiningClassRange& row, char32_t key) { return row.last < key; });
    return found != end && found->first <= scalar ? found->combiningClass : 0;
}

// Hangul syllables decompose by arithmetic rather than by table.
constexpr char32_t hangulBase = 0xAC00, leadBase = 0x1100, vowelBase = 0x1161, trailBase = 0x11A7;
constexpr char32_t vowelCount = 21, trailCount = 28, syllableCount = 19 * vowelCount * trailCount;

void appendDecomposition(std::u32string& out, char32_t scalar) {
    if (scalar >= hangulBase && scalar < hangulBase + syllableCount) {
        char32_t index = scalar - hangulBase;
        out.push_back(leadBase + index / (vowelCount * trailCount));
        out.push_back(vowelBase + (index % (vowelCount * trailCount)) / trailCount);
        if (index % trailCount != 0) out.push_back(trailBase + index % trailCount);
        return;
    }
    if (const auto* row = find(tables::canonicalDecompositions, tables::canonicalDecompositionsCount, scalar)) {
        out.append(tables::mappedScalars + row->offset, row->length);
    } else {
        out.push_back(scalar);
    }
}

bool isCategory(char32_t scalar, std::initializer_list<GeneralCategory> categories) {
    auto category = unicode::generalCategory(scalar);
    return std::find(categories.begin(), categories.end(), category) != categories.end();
}

} // namespace

std::u32string lowercased(std::u32string_view text) {
    return mapped(text, tables::lowerCaseMappings, tables::lowerCaseMappingsCount);
}

std::u32string caseFolded(std::u32string_view text) {
    return mapped(text, tables::caseFoldings, tables::caseFoldingsCount);
}

std::u32string canonicalDecomposition(std::u32string_view text) {
    std::u32string out;
    out.reserve(text.size());
    for (char32_t scalar : text) appendDecomposition(out, scalar);
    // Canonical ordering: each run of combining marks sorted stably by combining class.
    for (size_t start = 0; start < out.size();) {
        if (combiningClass(out[start]) == 0) {
            ++start;
            continue;
        }
        size_t end = start;
        while (end < out.size() && combiningClass(out[end]) != 0) ++end;
        std::stable_sort(out.begin() + long(start), out.begin() + long(end),
                         [](char32_t a, char32_t b) { return combiningClass(a) < combiningClass(b); });
        start = end;
    }
    return out;
}

std::u32string withoutDiacritics(std::u32string_view text) {
    std::u32string out = canonicalDecomposition(text);
    std::erase_if(out, [](char32_t scalar) { return unicode::generalCategory(scalar) == GeneralCategory::Mn; });
    return out;
}

bool isWhitespace(char32_t scalar) {
    return (scalar >= 0x09 && scalar <= 0x0D) || scalar == 0x20 || scalar == 0x85 || scalar == 0xA0 ||
           scalar == 0x1680 || (scalar >= 0x2000 && scalar <= 0x200A) || scalar == 0x2028 || scalar == 0x2029 ||
           scalar == 0x202F || scalar == 0x205F || scalar == 0x3000;
}

bool isBlank(char32_t scalar) {
    return scalar == U'\t' || unicode::generalCategory(scalar) == GeneralCategory::Zs;
}

bool isPunctuation(char32_t scalar) {
    return isCategory(scalar, {GeneralCategory::Pc, GeneralCategory::Pd, GeneralCategory::Ps, GeneralCategory::Pe,
                               GeneralCategory::Pi, GeneralCategory::Pf, GeneralCategory::Po});
}

bool isLetterOrNumber(char32_t scalar) {
    return isCategory(scalar, {GeneralCategory::Lu, GeneralCategory::Ll, GeneralCategory::Lt, GeneralCategory::Lm,
                               GeneralCategory::Lo, GeneralCategory::Nd, GeneralCategory::Nl, GeneralCategory::No});
}

std::u32string lowercasedKey(std::u32string_view character) {
    // Most titles are ASCII: skip the table searches for them.
    if (character.size() == 1 && character[0] < 0x80) {
        char32_t scalar = character[0];
        return std::u32string(1, scalar >= U'A' && scalar <= U'Z' ? scalar + 0x20 : scalar);
    }
    return canonicalDecomposition(lowercased(character));
}

size_t characterCount(std::string_view utf8) {
    return unicode::graphemeClusters(unicode::decodeUtf8(utf8)).size();
}

} // namespace corvex::folding
