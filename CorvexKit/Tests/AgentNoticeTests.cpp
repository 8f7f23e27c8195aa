#include <gtest/gtest.h>

#include "CorvexKit/AgentNotice.h"
#include "CorvexKit/AgentNotification.h"
#include "CorvexKit/FuzzyMatchFolding.h"

using namespace corvex;

namespace {

using State = AgentInfo::State;

AgentNotice::Facts facts(State state) {
    AgentNotice::Facts f;
    f.kind = "claude";
    f.state = state;
    return f;
}

AgentInfo waitingAgent() {
    AgentInfo info;
    info.kind = "claude";
    info.state = State::waiting;
    info.attention = true;
    return info;
}

} // namespace

TEST(AgentNotice, TitleAndSubtitleWithAndWithoutAWorkspace) {
    auto f = facts(State::waiting);
    f.machine = "box";
    f.workspace = "api";
    f.project = "corvex";
    f.duration = 75;
    f.fallback = "fix it";
    EXPECT_EQ(AgentNotice::make(f), (AgentNotice{"api \u00B7 Claude is waiting", "box \u00B7 corvex \u00B7 1m", "fix it"}));

    f.workspace = "";
    EXPECT_EQ(AgentNotice::make(f), (AgentNotice{"Claude is waiting on box", "corvex \u00B7 1m", "fix it"}));
    f.machine = "";
    f.project.reset();
    f.duration = 0.2;
    f.fallback = "";
    EXPECT_EQ(AgentNotice::make(f), (AgentNotice{"Claude is waiting", "", ""}));

    auto unnamed = facts(State::done);
    unnamed.kind = "";
    unnamed.workspace = "w";
    EXPECT_EQ(AgentNotice::make(unnamed).title, "w \u00B7 Agent finished");
}

TEST(AgentNotice, FromAnAgentThePendingRequestNamesTheTool) {
    auto info = waitingAgent();
    info.tool = "Read";
    info.toolInput = "notes.md";
    info.prompt = "tidy up";
    info.requests = std::vector<PermissionRequest>{{"r1", "Bash", "rm -rf\tbuild"}, {"r2", "Edit", std::nullopt}};
    auto notice = AgentNotice::make(info, "box", "", std::string("/home/me/src/corvex/"));
    EXPECT_EQ(notice, (AgentNotice{"Claude is waiting on box", "corvex", "Allow Bash: rm -rf build?"}));

    info.requests->clear();
    EXPECT_EQ(AgentNotice::make(info, "box", "", std::nullopt).body, "Allow Read: notes.md?");
    // Not about a tool: the message, else the user's prompt.
    info.tool.reset();
    EXPECT_EQ(AgentNotice::make(info, "box", "", std::nullopt).body, "tidy up");
    info.message = "Which file?";
    EXPECT_EQ(AgentNotice::make(info, "box", "", std::nullopt).body, "Which file?");

    AgentInfo done;
    done.kind = "codex";
    done.state = State::done;
    done.since = 1000;
    done.turnStarted = 1000 - 125;
    EXPECT_EQ(AgentNotice::make(done, "", "web", std::string("~")),
              (AgentNotice{"web \u00B7 Codex finished", "2m", ""}));
}

TEST(AgentNotice, ProjectAndDuration) {
    EXPECT_EQ(AgentNotice::project("/a/b//"), "b");
    EXPECT_EQ(AgentNotice::project("~/src"), "src");
    EXPECT_EQ(AgentNotice::project("plain"), "plain");
    EXPECT_EQ(AgentNotice::project("~"), std::nullopt);
    EXPECT_EQ(AgentNotice::project("/home/~/"), std::nullopt);
    EXPECT_EQ(AgentNotice::project(""), std::nullopt);

    EXPECT_EQ(AgentNotice::duration(0.4), std::nullopt);
    EXPECT_EQ(AgentNotice::duration(0.5), "1s");
    EXPECT_EQ(AgentNotice::duration(59.4), "59s");
    EXPECT_EQ(AgentNotice::duration(59.6), "1m");
    EXPECT_EQ(AgentNotice::duration(3599), "59m");
    EXPECT_EQ(AgentNotice::duration(3659), "1h");
    EXPECT_EQ(AgentNotice::duration(3660), "1h 1m");
    EXPECT_EQ(AgentNotice::duration(90000), "25h");
}

TEST(AgentNotice, ResultAsksForPermissionOnlyWhenWaitingOnATool) {
    const std::optional<std::string> none;
    EXPECT_EQ(AgentNotice::result(State::waiting, none, "Bash", "ls\n  -la"), "Allow Bash: ls -la?");
    EXPECT_EQ(AgentNotice::result(State::waiting, "Permission needed", "Bash", "ls"), "Allow Bash: ls?");
    EXPECT_EQ(AgentNotice::result(State::waiting, "NEEDS PERMISSION", "Bash", none), "Allow Bash?");
    EXPECT_EQ(AgentNotice::result(State::waiting, "Done thinking", "Bash", "ls"), "Done thinking");
    EXPECT_EQ(AgentNotice::result(State::done, none, "Bash", "ls"), std::nullopt);
    EXPECT_EQ(AgentNotice::result(State::waiting, "Hi", "", "ls"), "Hi");
    EXPECT_EQ(AgentNotice::result(State::error, "", none, none), std::nullopt);
}

TEST(AgentNotice, ClipCutsOnAWordBoundary) {
    EXPECT_EQ(AgentNotice::clip("  a \n\t b  ", 240), "a b");
    EXPECT_EQ(AgentNotice::clip("alpha beta gamma", 12), "alpha beta\u2026");
    EXPECT_EQ(AgentNotice::clip("alpha, beta, gamma", 14), "alpha, beta\u2026");
    EXPECT_EQ(AgentNotice::clip("(hello) world", 9), "hello\u2026");
    EXPECT_EQ(AgentNotice::clip("abcdefghij", 5), "abcd\u2026");
    // Characters, not bytes: each flag is one.
    EXPECT_EQ(AgentNotice::clip("\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA\U0001F1EE\U0001F1F9\U0001F1EC\U0001F1E7", 3),
              "\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA\u2026");

    std::string body;
    while (body.size() < 300) body += "word" + std::to_string(body.size() % 7) + "  ";
    auto clipped = AgentNotice::clip(body, AgentNotice::bodyLimit);
    ASSERT_TRUE(clipped.ends_with("\u2026"));
    auto text = clipped.substr(0, clipped.size() - 3);
    EXPECT_LE(folding::characterCount(clipped), AgentNotice::bodyLimit);
    EXPECT_GT(folding::characterCount(clipped), AgentNotice::bodyLimit - 10);
    auto whole = AgentNotice::clip(body, 1000);
    ASSERT_TRUE(whole.starts_with(text));
    EXPECT_EQ(whole[text.size()], ' ');
    EXPECT_EQ(AgentNotice::make([&] {
                  auto f = facts(State::done);
                  f.message = body;
                  return f;
              }()).body,
              clipped);
}

// The identifier is what the system hands back with the user's answer.
TEST(AgentNotifications, CategoryIdentifiersReadBack) {
    for (auto category : {AgentNotificationCategory::waiting, AgentNotificationCategory::permission,
                          AgentNotificationCategory::finished}) {
        EXPECT_EQ(parseAgentNotificationCategory(identifier(category)), category);
    }
}

TEST(AgentNotifications, CategoryFollowsTheDaemonsAbilities) {
    using Feature = Hello::Feature;
    auto asking = waitingAgent();
    asking.requests = std::vector<PermissionRequest>{{"r1", "Bash", std::nullopt}, {"r2", "Edit", std::nullopt}};
    EXPECT_EQ(chooseAgentNotification(asking, {Feature::agentDecide, Feature::paneKeys}),
              (AgentNotificationChoice{AgentNotificationCategory::permission, "r1"}));
    // Without agentDecide, pending requests are answered with keys.
    EXPECT_EQ(chooseAgentNotification(asking, {Feature::paneKeys}),
              (AgentNotificationChoice{AgentNotificationCategory::waiting, std::nullopt}));
    auto done = asking;
    done.state = State::done;
    EXPECT_EQ(chooseAgentNotification(done, {Feature::agentDecide, Feature::paneKeys}),
              (AgentNotificationChoice{AgentNotificationCategory::finished, std::nullopt}));
    EXPECT_EQ(chooseAgentNotification(waitingAgent(), {Feature::agentDecide}), AgentNotificationChoice{});
    EXPECT_EQ(chooseAgentNotification(done, {}), AgentNotificationChoice{});
}

TEST(AgentNotifications, TheSameStateWithinAMinuteIsARepeat) {
    AgentNotificationLog log;
    const auto start = AgentNotificationLog::Clock::time_point{} + std::chrono::hours(1000);
    auto at = [&](int seconds) { return start + std::chrono::seconds(seconds); };
    EXPECT_TRUE(log.admit("box/1", State::waiting, at(0)));
    EXPECT_TRUE(log.admit("box/2", State::waiting, at(30)));
    EXPECT_TRUE(log.admit("box/1", State::done, at(40)));
    EXPECT_TRUE(log.admit("box/1", State::waiting, at(45)));
    EXPECT_FALSE(log.admit("box/1", State::waiting, at(104)));
    EXPECT_TRUE(log.admit("box/1", State::waiting, at(105)));
    log.forget("box/1");
    EXPECT_FALSE(log.remembers("box/1"));
    EXPECT_TRUE(log.admit("box/1", State::waiting, at(106)));
}

TEST(AgentNotifications, AnswersMapToDecisionsAndKeys) {
    using Kind = AgentAnswer::Kind;
    const std::optional<std::string> none;
    EXPECT_EQ(agentAnswer(defaultAgentAction, none, "r1"), (AgentAnswer{Kind::open, {}, {}, {}, {}}));
    EXPECT_EQ(agentAnswer("allow", none, "r1"), (AgentAnswer{Kind::decide, PermissionDecision::allow, "r1", {}, {}}));
    EXPECT_EQ(agentAnswer("deny", none, none), (AgentAnswer{Kind::reply, {}, {}, {}, {"escape"}}));
    EXPECT_EQ(agentAnswer("approve", none, none), (AgentAnswer{Kind::reply, {}, {}, {}, {"1"}}));
    EXPECT_EQ(agentAnswer("reply", "yes, go", none), (AgentAnswer{Kind::reply, {}, {}, "yes, go", {"enter"}}));
    EXPECT_EQ(agentAnswer("reply", "", none).kind, Kind::nothing);
    EXPECT_EQ(agentAnswer("allow", none, none).kind, Kind::nothing);
    EXPECT_EQ(agentAnswer("snooze", none, none).kind, Kind::nothing);
}
