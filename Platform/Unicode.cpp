#include "Platform/Unicode.h"

#include <algorithm>

namespace platform::unicode {

namespace {

bool inRanges(const tables::ScalarRange* ranges, size_t count, char32_t scalar) {
    const tables::ScalarRange* end = ranges + count;
    const tables::ScalarRange* it = std::upper_bound(
        ranges, end, scalar, [](char32_t s, const tables::ScalarRange& r) { return s < r.first; });
    return it != ranges && scalar <= (it - 1)->last;
}

bool isControlLike(GraphemeBreak c) {
    return c == GraphemeBreak::control || c == GraphemeBreak::cr || c == GraphemeBreak::lf;
}

// The rules that look only at the classes on both sides of the boundary.
bool pairBreaks(GraphemeBreak p, GraphemeBreak c) {
    using enum GraphemeBreak;
    if (p == cr && c == lf) return false;
    if (isControlLike(p) || isControlLike(c)) return true;
    if (p == l && (c == l || c == v || c == lv || c == lvt)) return false;
    if ((p == lv || p == v) && (c == v || c == t)) return false;
    if ((p == lvt || p == t) && c == t) return false;
    if (c == extend || c == zwj || c == spacingMark) return false;
    if (p == prepend) return false;
    return true;
}

} // namespace

GeneralCategory generalCategory(char32_t scalar) {
    if (scalar > 0x10FFFF) return GeneralCategory::Cn;
    return GeneralCategory(tables::categoryStage2[tables::categoryStage1[scalar >> 8]][scalar & 0xFF]);
}

bool isEmojiPresentation(char32_t scalar) {
    return inRanges(tables::emojiPresentationRanges, tables::emojiPresentationRangesCount, scalar);
}

bool isEmojiModifierBase(char32_t scalar) {
    return inRanges(tables::emojiModifierBaseRanges, tables::emojiModifierBaseRangesCount, scalar);
}

Utf8Step decodeUtf8Scalar(std::string_view bytes) {
    auto byte = [&](size_t i) { return uint8_t(bytes[i]); };
    uint8_t lead = byte(0);
    if (lead < 0x80) return {lead, 1, true};
    int need;
    char32_t value;
    uint8_t low = 0x80, high = 0xBF; // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1, value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2, value = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;      // overlong
        if (lead == 0xED) high = 0x9F;     // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3, value = lead & 0x07;
        if (lead == 0xF0) low = 0x90;      // overlong
        if (lead == 0xF4) high = 0x8F;     // above U+10FFFF
    } else {
        return {replacementCharacter, 1, true};
    }
    for (int i = 1; i <= need; ++i) {
        if (size_t(i) >= bytes.size()) return {replacementCharacter, uint8_t(i), false};
        uint8_t b = byte(i);
        if (b < (i == 1 ? low : 0x80) || b > (i == 1 ? high : 0xBF)) {
            return {replacementCharacter, uint8_t(i), true};
        }
        value = (value << 6) | (b & 0x3F);
    }
    return {value, uint8_t(need + 1), true};
}

std::u32string decodeUtf8(std::string_view bytes) {
    std::u32string out;
    out.reserve(bytes.size());
    while (!bytes.empty()) {
        Utf8Step step = decodeUtf8Scalar(bytes);
        out.push_back(step.complete ? step.scalar : replacementCharacter);
        bytes.remove_prefix(step.length);
    }
    return out;
}

void appendUtf8(std::string& out, char32_t scalar) {
    if (!isScalarValue(scalar)) scalar = replacementCharacter;
    if (scalar < 0x80) {
        out.push_back(char(scalar));
    } else if (scalar < 0x800) {
        out.push_back(char(0xC0 | (scalar >> 6)));
        out.push_back(char(0x80 | (scalar & 0x3F)));
    } else if (scalar < 0x10000) {
        out.push_back(char(0xE0 | (scalar >> 12)));
        out.push_back(char(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(char(0x80 | (scalar & 0x3F)));
    } else {
        out.push_back(char(0xF0 | (scalar >> 18)));
        out.push_back(char(0x80 | ((scalar >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(char(0x80 | (scalar & 0x3F)));
    }
}

std::string encodeUtf8(std::u32string_view scalars) {
    std::string out;
    out.reserve(scalars.size());
    for (char32_t scalar : scalars) appendUtf8(out, scalar);
    return out;
}

bool graphemeBreakBefore(GraphemeBreakState& state, char32_t scalar) {
    using Emoji = GraphemeBreakState::Emoji;
    using Conjunct = GraphemeBreakState::Conjunct;
    uint8_t properties = propertyByte(scalar);
    auto current = GraphemeBreak(properties & tables::breakClassMask);
    bool pictographic = properties & tables::extendedPictographicBit;
    auto conjunctClass = IndicConjunctBreak((properties >> tables::indicConjunctShift) & 3);

    bool breaks;
    if (state.atStart) {
        breaks = true;
    } else if (!pairBreaks(state.previous, current)) {
        breaks = false;
    } else if (isControlLike(state.previous) || isControlLike(current)) {
        breaks = true;
    } else if (state.conjunct == Conjunct::consonantLinker && conjunctClass == IndicConjunctBreak::consonant) {
        breaks = false;
    } else if (state.emoji == Emoji::pictographicZwj && pictographic) {
        breaks = false;
    } else if (state.previous == GraphemeBreak::regionalIndicator && current == GraphemeBreak::regionalIndicator) {
        breaks = state.regionalIndicatorRun % 2 == 0;
    } else {
        breaks = true;
    }

    state.regionalIndicatorRun = current == GraphemeBreak::regionalIndicator ? state.regionalIndicatorRun + 1 : 0;
    if (pictographic) {
        state.emoji = Emoji::pictographic;
    } else if (state.emoji == Emoji::pictographic && current == GraphemeBreak::extend) {
        // stays
    } else if (state.emoji == Emoji::pictographic && current == GraphemeBreak::zwj) {
        state.emoji = Emoji::pictographicZwj;
    } else {
        state.emoji = Emoji::none;
    }
    if (conjunctClass == IndicConjunctBreak::consonant) {
        state.conjunct = Conjunct::consonant;
    } else if (state.conjunct != Conjunct::none && conjunctClass == IndicConjunctBreak::linker) {
        state.conjunct = Conjunct::consonantLinker;
    } else if (conjunctClass != IndicConjunctBreak::extend) {
        state.conjunct = Conjunct::none;
    }
    state.previous = current;
    state.atStart = false;
    return breaks;
}

GraphemeBreakState graphemeStateAfter(std::u32string_view scalars) {
    GraphemeBreakState state;
    for (char32_t scalar : scalars) graphemeBreakBefore(state, scalar);
    return state;
}

std::vector<std::u32string_view> graphemeClusters(std::u32string_view text) {
    std::vector<std::u32string_view> clusters;
    GraphemeBreakState state;
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (graphemeBreakBefore(state, text[i]) && i > start) {
            clusters.push_back(text.substr(start, i - start));
            start = i;
        }
    }
    if (start < text.size()) clusters.push_back(text.substr(start));
    return clusters;
}

} // namespace platform::unicode
