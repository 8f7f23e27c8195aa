#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "CorvexKit/FuzzyMatch.h"
#include "CorvexKit/QuickOpen.h"

using namespace corvex;

namespace corvex {
void PrintTo(const FuzzyMatch::Match& match, std::ostream* out) {
    *out << "score " << match.score << " at";
    for (int index : match.indices) *out << ' ' << index;
}
void PrintTo(const QuickOpen::Result& result, std::ostream* out) {
    *out << result.item.id << " score " << result.score << " at";
    for (int index : result.titleIndices) *out << ' ' << index;
}
} // namespace corvex

namespace {

using Match = FuzzyMatch::Match;

std::optional<Match> match(const std::string& query, const std::string& text) { return FuzzyMatch::match(query, text); }

QuickOpenItem item(QuickOpenItem::Kind kind, std::string title, std::string subtitle = {}, std::string id = {}) {
    return QuickOpenItem{kind, std::move(title), std::move(subtitle), std::move(id)};
}

std::vector<std::string> ids(const std::vector<QuickOpen::Result>& results) {
    std::vector<std::string> out;
    for (const auto& result : results) out.push_back(result.item.id);
    return out;
}

} // namespace

TEST(FuzzyMatch, WorkedScores) {
    EXPECT_EQ(match("ab", "ab"), (Match{28, {0, 1}}));
    EXPECT_EQ(match("ab", "xab"), (Match{7, {1, 2}}));
    // 21 for the first character, 9 for the boundary after "_", minus the characters
    // skipped before the separator; the length penalty is one point per eight characters.
    EXPECT_EQ(match("fb", "foo_bar"), (Match{28, {0, 4}}));
    EXPECT_EQ(match("fb", "foo_bar1"), (Match{27, {0, 4}}));
    EXPECT_EQ(match("fb", "foo_bar123456789"), (Match{26, {0, 4}}));
    EXPECT_EQ(match("fb", "f_bar"), (Match{30, {0, 2}})) << "straight onto the next word, but not adjacent";
    EXPECT_EQ(match("fb", "fooooo_bar"), (Match{25, {0, 7}})) << "the gap penalty stops at 4";
    // Without a separator every skipped character counts.
    EXPECT_EQ(match("fb", "foobar"), (Match{20, {0, 3}}));
    // The lead-in penalty stops at 4, and so may the score fall below zero.
    EXPECT_EQ(match("f", "xxxxxxf"), (Match{-3, {6}}));
    EXPECT_EQ(match("z", std::string(39, 'a') + "z"), (Match{-8, {39}}));
}

TEST(FuzzyMatch, EmptyQueriesMatchEverythingAndLongOnesNothing) {
    EXPECT_EQ(match("", "anything"), (Match{0, {}}));
    EXPECT_EQ(match(" \t ", ""), (Match{0, {}}));
    EXPECT_EQ(match("abc", "ab"), std::nullopt);
    EXPECT_EQ(match("ba", "ab"), std::nullopt);
    EXPECT_EQ(match("a", ""), std::nullopt);
    // Inner blanks vanish from the query wherever they stand.
    EXPECT_EQ(match("a b", "xab"), match("ab", "xab"));
    EXPECT_EQ(match(" f  b ", "fo_bar"), match("fb", "fo_bar"));
}

TEST(FuzzyMatch, BoundariesFollowSeparatorsAndHumpsInTheOriginalCase) {
    for (char separator : std::string(" -_/.:@([")) {
        EXPECT_EQ(match("b", std::string("a") + separator + "b"), (Match{7, {2}})) << separator;
    }
    for (char other : std::string(",)]#")) {
        EXPECT_EQ(match("b", std::string("a") + other + "b"), (Match{-1, {2}})) << other;
    }
    // The query's case is irrelevant; only the text's own case makes a hump.
    EXPECT_EQ(match("gS", "getState"), (Match{27, {0, 3}}));
    EXPECT_EQ(match("gs", "getState"), (Match{27, {0, 3}}));
    EXPECT_EQ(match("gs", "GETSTATE"), (Match{19, {0, 3}}));
}

TEST(FuzzyMatch, TiesKeepTheLeftmostEndAndTheNearestPredecessor) {
    // Both "a"s score 1 - 4 (the lead-in cap): the leftmost wins.
    EXPECT_EQ(match("a", "xxxxaxxa"), (Match{-4, {4}}));
    // Both "a"s reach the "b" with the gap penalty capped at 4: the nearer one is kept.
    EXPECT_EQ(match("ab", "xxxxxaxxxxaxxxxxxxxxb"), (Match{-8, {10, 20}}));
    // The best alignment, not the first subsequence: the adjacent pair beats the early "a".
    EXPECT_EQ(match("ab", "xaxxxxab"), (Match{3, {6, 7}}));
}

TEST(FuzzyMatch, CharactersAreGraphemeClustersComparedCanonically) {
    // A skin-toned emoji is one character, so "a" stands at position 1.
    EXPECT_EQ(match("ab", "\U0001F44D\U0001F3FDab"), (Match{7, {1, 2}}));
    // Precomposed and decomposed "é" are the same character, in either case.
    EXPECT_EQ(match("\u00E9", "Cafe\u0301"), (Match{-2, {3}}));
    EXPECT_EQ(match("\u00C9T\u00C9", "\u00E9t\u00E9"), (Match{35, {0, 1, 2}}));
    // Marks compare in canonical order, and Hangul syllables as their jamo.
    EXPECT_EQ(match("\u1EB9\u0301", "e\u0301\u0323"), (Match{21, {0}}));
    EXPECT_EQ(match("\uD55C", "\u1112\u1161\u11AB"), (Match{21, {0}}));
    // A base letter isn't the same character as the letter with its accent.
    EXPECT_EQ(match("e", "caf\u00E9"), std::nullopt);
    // Cyrillic folds like Latin.
    EXPECT_EQ(match("\u0434\u043E", "\u0414\u043E\u043C"), (Match{28, {0, 1}}));
}

TEST(QuickOpen, BlankQueryKeepsTheGivenOrderUpToTheLimit) {
    std::vector<QuickOpenItem> items{item(QuickOpenItem::Kind::machine, "m", "", "1"),
                                     item(QuickOpenItem::Kind::agent, "a", "", "2"),
                                     item(QuickOpenItem::Kind::tab, "t", "", "3")};
    for (std::string query : {"", "  ", "\t "}) {
        auto results = QuickOpen::rank(items, query, 2);
        ASSERT_EQ(results.size(), 2u);
        EXPECT_EQ(results[0], (QuickOpen::Result{items[0], 0, {}}));
        EXPECT_EQ(results[1], (QuickOpen::Result{items[1], 0, {}}));
    }
    EXPECT_TRUE(QuickOpen::rank(items, "", 0).empty());
}

TEST(QuickOpen, RanksByScoreThenKindThenGivenOrder) {
    using Kind = QuickOpenItem::Kind;
    std::vector<QuickOpenItem> items{
        item(Kind::tab, "alpha", "", "tab1"),       item(Kind::machine, "alpha", "", "machine"),
        item(Kind::agent, "xalpha", "", "agent-late"), item(Kind::workspace, "alpha", "", "workspace"),
        item(Kind::tab, "alpha", "", "tab2"),       item(Kind::agent, "alpha", "", "agent"),
        item(Kind::agent, "beta", "", "dropped"),
    };
    EXPECT_EQ(ids(QuickOpen::rank(items, "alp", 10)),
              (std::vector<std::string>{"agent", "workspace", "tab1", "tab2", "machine", "agent-late"}));
    EXPECT_EQ(ids(QuickOpen::rank(items, " alp\t", 3)), (std::vector<std::string>{"agent", "workspace", "tab1"}));
    // Only the ends are trimmed; the inner blank is the matcher's business.
    EXPECT_EQ(ids(QuickOpen::rank(items, "a lp", 1)), (std::vector<std::string>{"agent"}));
}

TEST(QuickOpen, SubtitleMatchesCostTwentyAndHighlightOnlyTheTitlePart) {
    using Kind = QuickOpenItem::Kind;
    auto build = item(Kind::workspace, "Build", "server", "build");
    // Wholly inside the subtitle: "server Build" scores 28 - 12/8 - 20, nothing highlighted.
    EXPECT_EQ(QuickOpen::rank({build}, "srv", 5), (std::vector<QuickOpen::Result>{{build, 7, {}}}));
    // Across both: the title's "B" is highlighted at its own position.
    EXPECT_EQ(QuickOpen::rank({build}, "sb", 5), (std::vector<QuickOpen::Result>{{build, 5, {0}}}));
    // A title match never tries the subtitle.
    EXPECT_EQ(QuickOpen::rank({build}, "bd", 5), (std::vector<QuickOpen::Result>{{build, 19, {0, 4}}}));
    // The subtitle's length counts characters, not bytes: "l" is the title's first.
    auto accented = item(Kind::tab, "log", "caf\u00E9", "log");
    EXPECT_EQ(QuickOpen::rank({accented}, "\u00E9l", 5), (std::vector<QuickOpen::Result>{{accented, -14, {0}}}));
    // No match in either: left out; an empty subtitle isn't tried.
    EXPECT_TRUE(QuickOpen::rank({build, item(Kind::tab, "x", "", "x")}, "zz", 5).empty());
}
