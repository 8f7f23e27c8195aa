#include <gtest/gtest.h>

#include "CorvexSession/AgentDetector.h"
#include "CorvexSession/AgentScreenRules.h"

using namespace corvex;
using State = AgentInfo::State;

TEST(AgentKindOfCommandLine, FindsClaudeAndCodexHoweverTheyAreStarted) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(agentKindOfCommandLine(Words{"claude"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"/home/u/.local/bin/claude", "--resume"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"npx", "-y", "@anthropic-ai/claude-code"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "--no-warnings", "/usr/local/bin/codex"}), "codex");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "/usr/lib/node_modules/@openai/codex/bin/codex.js"}), "codex");
    EXPECT_EQ(agentKindOfCommandLine(Words{"/bin/sh", "/tmp/bin/codex"}), "codex");
    EXPECT_FALSE(agentKindOfCommandLine(Words{"vim", "claude.md"}));
    EXPECT_FALSE(agentKindOfCommandLine(Words{"node", "server.js", "claude"}));
    EXPECT_FALSE(agentKindOfCommandLine(Words{}));
}

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
