// Searching a terminal that goes on receiving output while the search runs: the terminal is
// only read a slice at a time, and whatever happens between slices, the answer stays true to
// the screen the search began on.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "CorvexSession/PaneSearch.h"
#include "Vellum/Tests/Support/TerminalHarness.h"

using corvex::PaneSearchOptions;
using corvex::PaneSearchResult;
using vellum::testing::TerminalHarness;

namespace {

constexpr int historyRows = 3000;

// A terminal whose history is full of numbered rows, searched through an access that lets
// `between` change it before every slice after the first; what the rows held when the
// search began is kept to check the answer against.
struct SearchedTerminal {
    TerminalHarness h{20, 5, historyRows};
    std::vector<std::string> rowsAtStart;
    int visits = 0;

    SearchedTerminal() {
        for (int i = 0; i < historyRows + 5; ++i) h.terminal.feed("row " + std::to_string(i) + "\r\n");
    }

    PaneSearchResult search(const std::string& query, PaneSearchOptions options,
                            const std::function<void(vellum::Terminal&)>& between = nullptr) {
        return corvex::searchTerminal(
            [&](const std::function<void(vellum::Terminal&)>& visit) {
                if (visits++ == 0) {
                    auto& lines = h.terminal.buffer().lines;
                    for (int row = 0; row < lines.count(); ++row) rowsAtStart.push_back(lines[row].translateToString(true));
                } else if (between) {
                    between(h.terminal);
                }
                visit(h.terminal);
            },
            query, options);
    }

    // Every match stands where the row it names stood when the search began, newest first.
    void expectTrueToTheStart(const PaneSearchResult& result) const {
        int previous = INT32_MAX;
        for (const auto& match : result.matches) {
            ASSERT_GE(match.start.line, 0);
            ASSERT_LT(match.start.line, int(rowsAtStart.size()));
            EXPECT_EQ(match.lineText, rowsAtStart[size_t(match.start.line)]) << "at line " << match.start.line;
            EXPECT_LT(match.start.line, previous);
            previous = match.start.line;
        }
    }
};

PaneSearchOptions everything() {
    PaneSearchOptions options;
    options.limit = corvex::maximumSearchLimit;
    options.caseSensitive = true;
    return options;
}

} // namespace

TEST(PaneSearch, AQuietTerminalIsSearchedWholeInSlices) {
    SearchedTerminal searched;
    auto result = searched.search("row", everything());
    EXPECT_GT(searched.visits, 2) << "the terminal was held for the whole search";
    EXPECT_EQ(result.history, historyRows);
    ASSERT_EQ(result.matches.size(), size_t(historyRows + 4)); // the screen's last row is the empty one under the cursor
    searched.expectTrueToTheStart(result);
    EXPECT_EQ(result.matches.front().lineText, "row " + std::to_string(historyRows + 4));
    EXPECT_EQ(result.matches.back().start.line, 0);
    EXPECT_FALSE(result.next.has_value());

    // Pages fit together across slices.
    auto options = everything();
    options.limit = 700;
    auto page = searched.search("row", options);
    ASSERT_TRUE(page.next.has_value());
    options.before = page.next;
    auto following = searched.search("row", options);
    ASSERT_FALSE(following.matches.empty());
    EXPECT_EQ(following.matches.front().start.line, page.matches.back().start.line - 1);
}

TEST(PaneSearch, OutputBetweenSlicesShiftsNothingTheAnswerNames) {
    SearchedTerminal searched;
    int fed = 0;
    // Each slice finds 100 more rows printed, pushing as many out of the full history.
    auto result = searched.search("row", everything(), [&](vellum::Terminal& terminal) {
        for (int i = 0; i < 100; ++i) terminal.feed("new " + std::to_string(fed++) + "\r\n");
    });
    searched.expectTrueToTheStart(result);
    EXPECT_GT(fed, 0);
    // Only the oldest rows, pushed out before their turn, are missed.
    EXPECT_GT(result.matches.size(), size_t(historyRows + 4 - fed - 1));
    EXPECT_LE(result.matches.size(), size_t(historyRows + 4));
    for (const auto& match : result.matches) EXPECT_EQ(match.lineText.rfind("row ", 0), 0u) << match.lineText;
}

TEST(PaneSearch, AHistoryClearedOrReplacedMidwayEndsTheSearchSanely) {
    using Change = std::function<void(vellum::Terminal&)>;
    std::vector<std::pair<const char*, Change>> changes{
        {"cleared", [](vellum::Terminal& terminal) { terminal.feed("\x1b[H\x1b[2J\x1b[3J"); }},
        {"alternate screen", [](vellum::Terminal& terminal) { terminal.feed("\x1b[?1049hrow on the other screen"); }},
        {"narrowed", [](vellum::Terminal& terminal) { terminal.resize(7, 3); }},
        {"reset", [](vellum::Terminal& terminal) { terminal.feed("\x1b" "c"); }},
    };
    for (const auto& [name, change] : changes) {
        SearchedTerminal searched;
        bool changed = false;
        auto result = searched.search("row", everything(), [&](vellum::Terminal& terminal) {
            if (!std::exchange(changed, true)) change(terminal);
        });
        EXPECT_TRUE(changed) << name;
        searched.expectTrueToTheStart(result);
        EXPECT_FALSE(result.matches.empty()) << name << ": the first slice's matches were lost";
    }
}
