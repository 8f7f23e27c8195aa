#include <gtest/gtest.h>

#include "CorvexSession/AgentTracker.h"

using namespace corvex;
using State = AgentInfo::State;

namespace {

AgentReport claude(const std::string& event) {
    AgentReport report;
    report.pane = 1;
    report.kind = "claude";
    report.event = event;
    report.session = "s1";
    return report;
}

} // namespace

TEST(AgentAfterReport, FollowsAClaudeTurnFromPromptToStop) {
    auto started = agentAfterReport(std::nullopt, claude("SessionStart"), 100);
    ASSERT_TRUE(started);
    EXPECT_EQ(started->state, State::waiting);
    EXPECT_EQ(started->attention, false) << "a fresh session is idle, not asking";
    EXPECT_EQ(started->source, "hook");
    EXPECT_EQ(started->since, 100);

    auto prompt = claude("UserPromptSubmit");
    prompt.prompt = "Write a haiku";
    auto running = agentAfterReport(started, prompt, 110);
    EXPECT_EQ(running->state, State::running);
    EXPECT_EQ(running->prompt, "Write a haiku");
    EXPECT_EQ(running->turnStarted, 110);

    auto tool = claude("PreToolUse");
    tool.tool = "Bash";
    tool.toolInput = "ls -la";
    auto working = agentAfterReport(running, tool, 115);
    EXPECT_EQ(working->since, 110) << "the state didn't change, so neither did its start";
    EXPECT_EQ(working->toolInput, "ls -la");

    auto permission = tool;
    permission.event = "PermissionRequest";
    auto asking = agentAfterReport(working, permission, 120, std::string("r1"));
    EXPECT_EQ(asking->state, State::waiting);
    EXPECT_EQ(asking->attention, true);
    ASSERT_TRUE(asking->requests);
    EXPECT_EQ(asking->requests->front(), (PermissionRequest{"r1", "Bash", "ls -la"}));

    auto resumed = agentAfterReport(asking, claude("PostToolUse"), 125);
    EXPECT_EQ(resumed->state, State::running);
    EXPECT_FALSE(resumed->requests) << "a tool that ran retires the question";

    auto stop = claude("Stop");
    stop.message = "Here is your haiku.";
    auto done = agentAfterReport(resumed, stop, 130);
    EXPECT_EQ(done->state, State::done);
    EXPECT_EQ(done->attention, true);
    EXPECT_EQ(done->message, "Here is your haiku.");
    EXPECT_EQ(done->prompt, "Write a haiku") << "the turn's prompt stays for the notice";

    auto reminder = claude("Notification");
    reminder.message = "Claude is waiting for your input";
    EXPECT_EQ(agentAfterReport(done, reminder, 190), done) << "an idle reminder doesn't reopen a finished turn";
    EXPECT_EQ(agentAfterReport(done, claude("SomethingNew"), 191), done);
    EXPECT_FALSE(agentAfterReport(done, claude("SessionEnd"), 200));
}

TEST(AgentAfterReport, CodexTurnsAndMutedAgentsAcrossSessions) {
    AgentReport turn;
    turn.kind = "codex";
    turn.event = "agent-turn-complete";
    turn.message = "All tests pass.";
    turn.prompt = "Fix the tests";
    auto done = agentAfterReport(std::nullopt, turn, 50);
    EXPECT_EQ(done->kind, "codex");
    EXPECT_EQ(done->state, State::done);
    EXPECT_EQ(done->attention, true);
    EXPECT_EQ(done->prompt, "Fix the tests");

    auto muted = agentAfterReport(std::nullopt, claude("SessionStart"), 1);
    muted->muted = true;
    auto next = claude("SessionStart");
    next.session = "s2";
    EXPECT_EQ(agentAfterReport(muted, next, 2)->muted, true) << "a mute outlives the session in the pane";
}

TEST(AgentHistoryEntry, NamesTheChange) {
    auto waiting = agentAfterReport(std::nullopt, claude("SessionStart"), 1);
    // The names a turn leaves in the daemon's history, with the reporter's pid, are checked by
    // AgentHooks.ClaudeReportsThroughItsHooksAndTheDaemonKeepsTheHistory.
    auto first = historyEntry(std::nullopt, waiting, 1, 4242);
    EXPECT_FALSE(first->fromName);
    EXPECT_FALSE(first->guess);
    EXPECT_EQ(first->source, "hook");

    auto running = agentAfterReport(waiting, claude("UserPromptSubmit"), 2);
    EXPECT_EQ(historyEntry(waiting, running, 2)->fromName, "waiting");
    auto muted = running;
    muted->muted = true;
    EXPECT_EQ(historyEntry(muted, running, 3)->eventName, "unmute");
    EXPECT_FALSE(historyEntry(running, running, 5));

    AgentInfo guessed;
    guessed.kind = "codex";
    guessed.state = State::running;
    EXPECT_TRUE(historyEntry(std::nullopt, guessed, 1)->guess);
}

TEST(AgentTracker, KeepsABoundedHistoryAndHandsEachDecisionOutOnce) {
    AgentTracker tracker;
    for (size_t i = 0; i < AgentTracker::historyLimit + 10; ++i) {
        AgentHistoryEntry entry;
        entry.at = double(i);
        entry.eventName = "update";
        tracker.record(7, entry);
    }
    auto all = tracker.history(7, std::nullopt, std::nullopt);
    EXPECT_EQ(all.max, int64_t(AgentTracker::historyLimit));
    ASSERT_EQ(all.entries.size(), AgentTracker::historyLimit);
    EXPECT_EQ(all.entries.front().at, 10) << "the oldest go first";
    auto recent = tracker.history(7, 3, 100);
    ASSERT_EQ(recent.entries.size(), 3u);
    EXPECT_EQ(recent.entries.back().at, double(AgentTracker::historyLimit + 9));
    EXPECT_TRUE(tracker.history(8, std::nullopt, std::nullopt).entries.empty());

    auto request = tracker.openRequest();
    EXPECT_NE(tracker.openRequest(), request);
    EXPECT_FALSE(tracker.takeDecision(request));
    tracker.decide(request, PermissionDecision::deny, std::string("not now"));
    auto verdict = tracker.takeDecision(request);
    ASSERT_TRUE(verdict);
    EXPECT_EQ(verdict->decision, PermissionDecision::deny);
    EXPECT_EQ(verdict->message, "not now");
    EXPECT_FALSE(tracker.takeDecision(request));
}
