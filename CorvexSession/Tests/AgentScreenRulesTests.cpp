#include <gtest/gtest.h>

#include <sys/wait.h>

#include "CorvexSession/AgentScreenRules.h"

using namespace corvex;
using State = AgentInfo::State;

// Screens as the agents leave them, bottom rows blank as a real terminal's are.
TEST(ReadAgentScreen, TellsWorkingFromAskingFromIdle) {
    std::vector<std::string> claudeAsking{
        "● I'll list the files first.",
        "",
        "╭──────────────────────────────────────────╮",
        "│ Bash command                             │",
        "│   ls -la                                 │",
        "│ Do you want to proceed?                  │",
        "│ ❯ 1. Yes                                 │",
        "│   2. No, and tell Claude what to do      │",
        "╰──────────────────────────────────────────╯",
        "",
        ""};
    EXPECT_EQ(readAgentScreen(claudeAsking, true).state, State::running) << "still drawing";
    auto asking = readAgentScreen(claudeAsking, false);
    EXPECT_EQ(asking.state, State::waiting);
    EXPECT_TRUE(asking.attention);
    EXPECT_EQ(asking.message, "Do you want to proceed?");

    std::vector<std::string> claudeIdle{"● Done. The tests pass.", "", "╭────────────╮", "│ >          │",
                                        "╰────────────╯", "  ? for shortcuts", ""};
    auto idle = readAgentScreen(claudeIdle, false);
    EXPECT_EQ(idle.state, State::waiting);
    EXPECT_FALSE(idle.attention) << "a prompt waiting for a new task needs nobody";

    std::vector<std::string> codexApproval{"codex", "Allow command?", "  $ cargo test", "", "▌ Yes (y)   No (n)", ""};
    EXPECT_TRUE(readAgentScreen(codexApproval, false).attention);

    std::vector<std::string> oldQuestion{"Should I continue?", "yes", "1", "2", "3", "4", "5", "6", "7", "8", "› "};
    EXPECT_FALSE(readAgentScreen(oldQuestion, false).attention) << "a question scrolled far up was answered";
}

TEST(GuessedAgent, KeepsAResolvedQuestionResolvedUntilTheScreenChanges) {
    ScreenReading question{State::waiting, true, "Do you want to proceed?"};
    auto first = guessedAgent(std::nullopt, "claude", question, 10);
    EXPECT_EQ(first.attention, true);
    EXPECT_FALSE(first.source) << "a guess isn't a hook's report";
    auto acked = first;
    acked.attention = false;
    EXPECT_EQ(guessedAgent(acked, "claude", question, 11).attention, false);
    EXPECT_EQ(guessedAgent(acked, "claude", question, 11).since, 10);
    auto working = guessedAgent(acked, "claude", {State::running, false, std::nullopt}, 12);
    EXPECT_EQ(working.since, 12);
    EXPECT_EQ(guessedAgent(working, "claude", question, 13).attention, true) << "a new question asks again";
}

TEST(ReadAgentExit, TheExitStatusSaysDoneOrErrorAndTheScreenStandsInForIt) {
    std::vector<std::string> quiet{"● All 42 tests pass.", "", "$ ", ""};
    struct Case {
        std::optional<int> status;
        std::vector<std::string> lines;
        State state;
        std::optional<std::string> message;
    } cases[] = {
        {0, quiet, State::done, std::nullopt},
        {3 << 8, quiet, State::error, "exited with status 3"},
        {SIGKILL, quiet, State::error, "killed by signal 9 (Killed)"},
        {std::nullopt, quiet, State::done, std::nullopt},
        {std::nullopt, {"Error: Invalid API key · Please run /login", "$ "}, State::error,
         "Error: Invalid API key · Please run /login"},
        {std::nullopt, {"  fatal: not a git repository", "", "$ "}, State::error, "fatal: not a git repository"},
        // Only the last words count, and the prompt itself is the shell's, not the agent's.
        {std::nullopt, {"Error: retrying", "ok", "ok", "ok", "ok", "bye", "$ "}, State::done, std::nullopt},
        {std::nullopt, {"bye", "error: $ "}, State::done, std::nullopt},
        {std::nullopt, {}, State::done, std::nullopt},
    };
    for (const auto& c : cases) {
        auto reading = readAgentExit(c.status, c.lines);
        EXPECT_EQ(reading.state, c.state) << (c.lines.empty() ? "" : c.lines.front());
        EXPECT_EQ(reading.message, c.message);
        EXPECT_TRUE(reading.attention) << "an ended agent needs a look either way";
    }
}
