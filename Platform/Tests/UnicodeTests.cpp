#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Platform/Unicode.h"

using namespace platform::unicode;

namespace {
std::vector<std::u32string> clusters(std::u32string_view text) {
    std::vector<std::u32string> out;
    for (auto view : graphemeClusters(text)) out.emplace_back(view);
    return out;
}
} // namespace

TEST(Unicode, Widths) {
    // Wide: CJK, ideographic space, fullwidth A, plane 2 (unassigned too), Hangul, emoji presentation, flags, watch.
    for (char32_t c : {U'中', char32_t(0x3000), char32_t(0xFF21), char32_t(0x20000), char32_t(0x2FFFD), char32_t(0xAC00),
                       char32_t(0x1F600), char32_t(0x1F1E6), char32_t(0x231A)})
        EXPECT_EQ(width(c), 2) << std::hex << uint32_t(c);
    // Zero: combining and enclosing marks, ZWJ, ZWSP, VS16, Hangul medial/final jamo join a syllable, tags.
    for (char32_t c : {0x0301, 0x20DD, 0x200D, 0x200B, 0xFE0F, 0x1160, 0x11A8, 0xE0001})
        EXPECT_EQ(width(c), 0) << std::hex << uint32_t(c);
    // One: ASCII, Latin, halfwidth katakana punctuation, a text-presentation heart, a visible prepended mark,
    // the soft hyphen, private use and unassigned code points.
    for (char32_t c : {U'a', U'é', char32_t(0xFF61), char32_t(0x2764), char32_t(0x0600), char32_t(0x00AD),
                       char32_t(0xE000), char32_t(0x0378)})
        EXPECT_EQ(width(c), 1) << std::hex << uint32_t(c);
    for (char32_t c : {0x00, 0x07, 0x1B, 0x1F, 0x7F, 0x80, 0x9F, 0x2028, 0x2029, 0xD800, 0xDFFF, 0x110000}) {
        EXPECT_EQ(width(c), -1) << std::hex << uint32_t(c);
    }
}

TEST(Unicode, GeneralCategories) {
    using C = GeneralCategory;
    // 0x280B is a braille spinner frame; 0x4E00 and 0x9FFF sit inside a First/Last range.
    std::pair<char32_t, C> table[] = {
        {U'A', C::Lu},    {U'a', C::Ll},    {U'5', C::Nd},     {U' ', C::Zs},     {0x0A, C::Cc},    {0x0301, C::Mn},
        {0x200D, C::Cf},  {U'+', C::Sm},    {0x2211, C::Sm},   {0x2713, C::So},   {0x280B, C::So},  {0x1F600, C::So},
        {0x4E00, C::Lo},  {0x9FFF, C::Lo},  {0xD900, C::Cs},   {0x10FFFD, C::Co}, {0x0378, C::Cn},  {0x110000, C::Cn}};
    for (auto [c, category] : table) EXPECT_EQ(generalCategory(c), category) << std::hex << uint32_t(c);
}

TEST(Unicode, EmojiAndBreakProperties) {
    EXPECT_TRUE(isEmojiPresentation(0x1F600));
    EXPECT_FALSE(isEmojiPresentation(0x2764));
    EXPECT_TRUE(isEmoji(0x2764));
    EXPECT_FALSE(isEmoji(U'a'));
    EXPECT_TRUE(isEmojiModifierBase(0x1F44D));  // thumbs up
    EXPECT_FALSE(isEmojiModifierBase(0x1F600));
    EXPECT_TRUE(isExtendedPictographic(0x00A9));
    EXPECT_EQ(graphemeBreak(0x0D), GraphemeBreak::cr);
    EXPECT_EQ(graphemeBreak(0x1100), GraphemeBreak::l);
    EXPECT_EQ(graphemeBreak(0xAC00), GraphemeBreak::lv);
    EXPECT_EQ(graphemeBreak(0xAC01), GraphemeBreak::lvt);
    EXPECT_EQ(graphemeBreak(0x1F1E6), GraphemeBreak::regionalIndicator);
    EXPECT_EQ(graphemeBreak(0x0903), GraphemeBreak::spacingMark);
    EXPECT_EQ(indicConjunctBreak(0x094D), IndicConjunctBreak::linker);
    EXPECT_EQ(indicConjunctBreak(0x0915), IndicConjunctBreak::consonant);
    EXPECT_EQ(indicConjunctBreak(0x093C), IndicConjunctBreak::extend);  // nukta
    EXPECT_EQ(indicConjunctBreak(0x0BCD), IndicConjunctBreak::extend);  // Tamil virama forms no conjunct
}

TEST(Unicode, SegmentsEmojiFlagsHangulAndMarks) {
    // family: man ZWJ woman ZWJ girl, with a skin tone on the first
    std::u32string family = U"\U0001F468\U0001F3FB\u200D\U0001F469\u200D\U0001F467";
    EXPECT_EQ(clusters(family + U"x"), (std::vector<std::u32string>{family, U"x"}));
    // ZWJ after a non-pictographic base joins, but what follows it does not
    EXPECT_EQ(clusters(U"a\u200D\U0001F600"), (std::vector<std::u32string>{U"a\u200D", U"\U0001F600"}));
    // three regional indicators: a flag and a lone one
    EXPECT_EQ(clusters(U"\U0001F1E9\U0001F1EA\U0001F1EB"),
              (std::vector<std::u32string>{U"\U0001F1E9\U0001F1EA", U"\U0001F1EB"}));
    EXPECT_EQ(clusters(U"\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7"),
              (std::vector<std::u32string>{U"\U0001F1E9\U0001F1EA", U"\U0001F1EB\U0001F1F7"}));
    // conjoining jamo L V T make one syllable; a precomposed LV takes a T
    EXPECT_EQ(clusters(U"\u1100\u1161\u11A8\uAC00\u11A8"),
              (std::vector<std::u32string>{U"\u1100\u1161\u11A8", U"\uAC00\u11A8"}));
    EXPECT_EQ(clusters(U"e\u0301\u0302a"), (std::vector<std::u32string>{U"e\u0301\u0302", U"a"}));
    EXPECT_EQ(clusters(U"a\r\n\r\rb"), (std::vector<std::u32string>{U"a", U"\r\n", U"\r", U"\r", U"b"}));
    // a combining mark after a control stands alone
    EXPECT_EQ(clusters(U"\n\u0301"), (std::vector<std::u32string>{U"\n", U"\u0301"}));
    // Devanagari KA VIRAMA SSA is one conjunct; Tamil's virama does not join
    EXPECT_EQ(clusters(U"\u0915\u094D\u0937"), (std::vector<std::u32string>{U"\u0915\u094D\u0937"}));
    EXPECT_EQ(clusters(U"\u0915\u093C\u094D\u200D\u0937"), (std::vector<std::u32string>{U"\u0915\u093C\u094D\u200D\u0937"}));
    EXPECT_EQ(clusters(U"\u0B95\u0BCD\u0BB7"), (std::vector<std::u32string>{U"\u0B95\u0BCD", U"\u0BB7"}));
    EXPECT_TRUE(clusters(U"").empty());
}

TEST(Unicode, IncrementalStateResumesFromACellsScalars) {
    // a terminal holding "flag" in one cell asks whether the next scalar joins it
    auto state = graphemeStateAfter(U"\U0001F1E9\U0001F1EA");
    EXPECT_TRUE(graphemeBreakBefore(state, 0x1F1EB));
    state = graphemeStateAfter(U"\U0001F469\u200D");
    EXPECT_FALSE(graphemeBreakBefore(state, 0x1F4BB));
    EXPECT_FALSE(graphemeBreakBefore(state, 0xFE0F));
    EXPECT_TRUE(graphemeBreakBefore(state, U'a'));
}

// The Unicode conformance data, when the unicode-data package is installed.
TEST(Unicode, GraphemeBreakConformance) {
    std::ifstream file("/usr/share/unicode/auxiliary/GraphemeBreakTest.txt");
    if (!file) GTEST_SKIP() << "GraphemeBreakTest.txt not installed";
    std::string line;
    int cases = 0;
    while (std::getline(file, line)) {
        line = line.substr(0, line.find('#'));
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        std::istringstream in(line);
        std::u32string text;
        std::vector<std::u32string> expected;
        std::string token;
        while (in >> token) {
            if (token == "\xC3\xB7") { // ÷
                if (!text.empty() && (expected.empty() || !expected.back().empty())) expected.emplace_back();
            } else if (token != "\xC3\x97") { // ×
                char32_t scalar = char32_t(std::stoul(token, nullptr, 16));
                text.push_back(scalar);
                if (expected.empty()) expected.emplace_back();
                expected.back().push_back(scalar);
            }
        }
        if (!expected.empty() && expected.back().empty()) expected.pop_back();
        EXPECT_EQ(clusters(text), expected) << line;
        ++cases;
    }
    EXPECT_GT(cases, 500);
}

TEST(Unicode, DecodesIllFormedUtf8WithOneReplacementPerMaximalPrefix) {
    EXPECT_EQ(decodeUtf8("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"), U"aé中\U0001F600");
    EXPECT_EQ(decodeUtf8("\x80\xBF"), U"\uFFFD\uFFFD");                // stray continuations
    EXPECT_EQ(decodeUtf8("\xC0\xAF"), U"\uFFFD\uFFFD");                // overlong two-byte lead
    EXPECT_EQ(decodeUtf8("\xE0\x80\xAF"), U"\uFFFD\uFFFD\uFFFD");      // overlong three-byte
    EXPECT_EQ(decodeUtf8("\xED\xA0\x80x"), U"\uFFFD\uFFFD\uFFFDx");    // surrogate
    EXPECT_EQ(decodeUtf8("\xF4\x90\x80\x80"), U"\uFFFD\uFFFD\uFFFD\uFFFD"); // above U+10FFFF
    EXPECT_EQ(decodeUtf8("\xE4\xB8x"), U"\uFFFDx");                    // truncated, then ASCII
    EXPECT_EQ(decodeUtf8("\xF0\x9F\x98"), U"\uFFFD");                  // truncated at the end
    EXPECT_EQ(decodeUtf8("\xFF\xFEz"), U"\uFFFD\uFFFDz");
    EXPECT_EQ(decodeUtf8(std::string_view("\0", 1)), std::u32string(1, U'\0'));
}

TEST(Unicode, StepwiseDecodingReportsIncompleteTails) {
    auto step = decodeUtf8Scalar("\xF0\x9F");
    EXPECT_FALSE(step.complete);
    EXPECT_EQ(step.length, 2);
    step = decodeUtf8Scalar("\xF0\x9F\x98\x80rest");
    EXPECT_TRUE(step.complete);
    EXPECT_EQ(step.scalar, 0x1F600u);
    EXPECT_EQ(step.length, 4);
    step = decodeUtf8Scalar("\xE4\x41");
    EXPECT_TRUE(step.complete);
    EXPECT_EQ(step.scalar, replacementCharacter);
    EXPECT_EQ(step.length, 1);  // the A is not swallowed
}

TEST(Unicode, EncodesAndRoundTrips) {
    std::u32string all = U"a\u07FF\u0800\uFFFF\U00010000\U0010FFFF";
    EXPECT_EQ(encodeUtf8(all), "a\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
    EXPECT_EQ(decodeUtf8(encodeUtf8(all)), all);
    std::string out;
    appendUtf8(out, 0xD800);
    appendUtf8(out, 0x110000);
    EXPECT_EQ(out, "\xEF\xBF\xBD\xEF\xBF\xBD");
}
