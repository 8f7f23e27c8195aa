#include <gtest/gtest.h>

#include "CorvexKit/AgentEntry.h"
#include "CorvexKit/AgentMenu.h"
#include "CorvexKit/AgentRules.h"

using namespace corvex;

namespace {

using State = AgentInfo::State;

AgentInfo agent(State state, bool attention = false, std::optional<double> since = std::nullopt) {
    AgentInfo info;
    info.kind = "claude";
    info.state = state;
    if (attention) info.attention = true;
    info.since = since;
    return info;
}

AgentInfo muted(AgentInfo info) {
    info.muted = true;
    return info;
}

AgentEntry entry(std::string machine, uint64_t pane, AgentInfo info) {
    AgentEntry result;
    result.machine = std::move(machine);
    result.pane = pane;
    result.info = std::move(info);
    return result;
}

std::vector<uint64_t> panes(const std::vector<AgentEntry>& entries) {
    std::vector<uint64_t> out;
    for (const auto& e : entries) out.push_back(e.pane);
    return out;
}

} // namespace

TEST(AgentRules, AttentionIsTheDaemonsVerdictUnlessMuted) {
    EXPECT_TRUE(needsAttention(agent(State::done, true)));
    EXPECT_FALSE(needsAttention(agent(State::done, false)));
    EXPECT_FALSE(needsAttention(muted(agent(State::waiting, true))));
    // Waiting without attention is idle: quiet, and shown as such.
    auto idle = agent(State::waiting);
    EXPECT_TRUE(isQuiet(idle));
    EXPECT_EQ(shownState(idle), (AgentShownState{"moon.zzz", AgentColor::dimText, "Idle"}));
    EXPECT_EQ(agentDetail(idle), "idle");
    EXPECT_TRUE(isQuiet(muted(agent(State::waiting, true))));
    EXPECT_FALSE(isQuiet(agent(State::waiting, true)));
    EXPECT_FALSE(isQuiet(agent(State::done)));
}

// Which icon and words each state gets is a table in the code; what is decided is the badge,
// which only an agent that needs the user (or a busy one) shows.
TEST(AgentRules, BadgeByStateAndAttention) {
    struct Case {
        State state;
        std::optional<AgentColor> withAttention;
        std::optional<AgentColor> without;
    };
    const Case cases[] = {
        {State::starting, AgentColor::dimText, AgentColor::accent}, {State::running, AgentColor::accent, AgentColor::accent},
        {State::waiting, AgentColor::warning, {}},                  {State::done, AgentColor::success, {}},
        {State::error, AgentColor::danger, {}},                     {State::unknown, AgentColor::dimText, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(wireName(c.state)));
        EXPECT_EQ(badgeColor(agent(c.state, true)), c.withAttention);
        EXPECT_EQ(badgeColor(agent(c.state, false)), c.without);
        EXPECT_EQ(badgeColor(muted(agent(c.state, true))), c.without);
    }
}

TEST(AgentRules, TurnDurationOnlyForFinishedTurnsInOrder) {
    auto done = agent(State::done, false, 100);
    done.turnStarted = 40;
    EXPECT_EQ(turnDuration(done), 60);
    done.turnStarted = 101;
    EXPECT_EQ(turnDuration(done), std::nullopt);
    auto error = agent(State::error, false, 100);
    error.turnStarted = 90;
    EXPECT_EQ(turnDuration(error), 10);
    error.since.reset();
    EXPECT_EQ(turnDuration(error), std::nullopt);
    auto running = agent(State::running, false, 100);
    running.turnStarted = 40;
    EXPECT_EQ(turnDuration(running), std::nullopt);
}

TEST(AgentRules, DetailPrefersThePrompt) {
    auto waiting = agent(State::waiting, true);
    waiting.message = "Permission needed";
    EXPECT_EQ(agentDetail(waiting), "waiting for you: Permission needed");
    waiting.prompt = "fix the build";
    EXPECT_EQ(agentDetail(waiting), "waiting for you: fix the build");
    waiting.prompt = "";
    EXPECT_EQ(agentDetail(waiting), "waiting for you: Permission needed");
}

TEST(AgentRules, OnlyALoudRiseToWaitingDoneOrErrorNotifies) {
    auto waiting = agent(State::waiting, true);
    EXPECT_TRUE(notifiesRise(waiting, nullptr));
    auto before = agent(State::running);
    EXPECT_TRUE(notifiesRise(waiting, &before));
    EXPECT_TRUE(notifiesRise(agent(State::done, true), &before));
    EXPECT_TRUE(notifiesRise(agent(State::error, true), &before));
    // Already needing the user: no new rise.
    auto already = agent(State::done, true);
    EXPECT_FALSE(notifiesRise(waiting, &already));
    // A muted agent was never needing the user, so unmuting one that waits is a rise.
    auto wasMuted = muted(agent(State::waiting, true));
    EXPECT_TRUE(notifiesRise(waiting, &wasMuted));
    EXPECT_FALSE(notifiesRise(wasMuted, nullptr));
    // Busy states never notify, even with attention.
    EXPECT_FALSE(notifiesRise(agent(State::running, true), nullptr));
    EXPECT_FALSE(notifiesRise(agent(State::unknown, true), nullptr));
    EXPECT_FALSE(notifiesRise(agent(State::waiting, false), nullptr));

    auto quiet = waiting;
    quiet.quietRise = true;
    EXPECT_FALSE(notifiesRise(quiet, &before));
    EXPECT_TRUE(risesQuietly(quiet, &before));
    EXPECT_FALSE(risesQuietly(waiting, &before));
    EXPECT_FALSE(risesQuietly(quiet, &already));
}

TEST(AgentEntries, SortByUrgencyThenNewestAndSplitOffTheNeedsYouSet) {
    std::vector<AgentEntry> entries{
        entry("m", 1, agent(State::done, false, 50)),          // rank 4
        entry("m", 2, agent(State::error, true, 10)),          // rank 1
        entry("m", 3, agent(State::running, false, 5)),        // rank 3
        entry("m", 4, agent(State::done, true, 80)),           // rank 2
        entry("m", 5, agent(State::error, true)),              // rank 1, no since: last of its rank
        entry("m", 6, agent(State::waiting, true, 1)),         // rank 0
        entry("m", 7, agent(State::error, true, 30)),          // rank 1, newest
        entry("m", 8, agent(State::waiting, false, 99)),       // quiet: rank 4
        entry("m", 9, muted(agent(State::waiting, true, 70))), // muted: rank 4
        entry("m", 10, agent(State::starting, false, 5)),      // rank 3, ties keep their order
    };
    auto sorted = AgentEntry::sorted(entries);
    EXPECT_EQ(panes(sorted), (std::vector<uint64_t>{6, 7, 2, 5, 4, 3, 10, 8, 9, 1}));
    auto split = AgentEntry::split(sorted);
    EXPECT_EQ(panes(split.attention), (std::vector<uint64_t>{6, 7, 2, 5, 4}));
    EXPECT_EQ(panes(split.others), (std::vector<uint64_t>{3, 10, 8, 9, 1}));
    EXPECT_EQ(agentCountBadge(split.attention.size()), "5");
    EXPECT_EQ(agentCountBadge(0), std::nullopt);
}

TEST(AgentEntries, PlaceRepliesAndToolTips) {
    auto e = entry("m", 1, agent(State::waiting, true));
    e.paneTitle = "zsh";
    EXPECT_EQ(e.place(), "zsh");
    e.tabTitle = "api";
    EXPECT_EQ(e.place(), "api \u00B7 zsh");

    // Replies need a daemon that sends keys and a waiting agent that said so through its hooks.
    e.canReply = true;
    EXPECT_FALSE(e.offersReplies());
    e.info.source = "hook";
    EXPECT_TRUE(e.offersReplies());
    auto guessed = e;
    guessed.info.source = "screen";
    EXPECT_FALSE(guessed.offersReplies());
    auto finished = e;
    finished.info.state = State::done;
    EXPECT_FALSE(finished.offersReplies());
    auto old = e;
    old.canReply = false;
    EXPECT_FALSE(old.offersReplies());

    e.info.prompt = "ship it";
    e.info.tool = "Bash";
    EXPECT_EQ(e.toolTips(), (std::vector<std::string>{"Claude Code on api \u00B7 zsh", "Asked: ship it",
                                                      "Reported by Claude Code's hooks", "Last tool: Bash"}));
    auto done = entry("m", 2, agent(State::done, true, 4000));
    done.info.kind = "codex";
    done.info.turnStarted = 100;
    done.tabTitle = "web";
    EXPECT_EQ(done.toolTips(), (std::vector<std::string>{"Codex on web", "Took 1h 5m", "Detected from the terminal"}));
}

TEST(AgentEntries, BadgePicksTheMostUrgentAgent) {
    auto badge = [](std::vector<AgentInfo> agents) {
        std::vector<const AgentInfo*> pointers;
        for (const auto& a : agents) pointers.push_back(&a);
        return agentBadge(pointers);
    };
    EXPECT_EQ(badge({muted(agent(State::waiting, true)), agent(State::running)}), AgentColor::accent);
    EXPECT_EQ(badge({agent(State::done, true), agent(State::error, true), agent(State::waiting, true)}),
              AgentColor::warning);
    EXPECT_EQ(badge({agent(State::waiting, true), agent(State::error, true), agent(State::done, true)}),
              AgentColor::warning);
    EXPECT_EQ(badge({agent(State::done, true), agent(State::error, true)}), AgentColor::danger);
    EXPECT_EQ(badge({agent(State::starting, true), agent(State::done, true)}), AgentColor::dimText);
    EXPECT_EQ(badge({agent(State::done), agent(State::starting)}), AgentColor::accent);
    EXPECT_EQ(badge({agent(State::done), agent(State::waiting)}), std::nullopt);
    EXPECT_EQ(badge({}), std::nullopt);
}

TEST(AgentEntries, EntriesComeFromLivePanesWithAgents) {
    ModelState state;
    Tab tab{20, std::nullopt, 1, Layout::split(9, Axis::horizontal, 0.5, Layout::leaf(1), Layout::leaf(2))};
    state.workspaces = {Workspace{10, "main", {tab, Tab{21, std::nullopt, 3, Layout::leaf(3)}}, 20}};
    Pane working{1};
    working.title = "vim";
    working.agent = agent(State::running);
    Pane plain{2};
    Pane exited{3};
    exited.agent = agent(State::waiting, true);
    exited.exited = PaneExit{0, std::nullopt};
    state.panes = {working, plain, exited};

    auto entries = agentEntries("box", "Build Box", state, {Hello::Feature::paneKeys},
                                [](const Tab& t) { return "tab " + std::to_string(t.id); });
    ASSERT_EQ(entries.size(), 1u);
    AgentEntry expected = entry("box", 1, agent(State::running));
    expected.machineName = "Build Box";
    expected.workspace = 10;
    expected.tab = 20;
    expected.paneTitle = "vim";
    expected.tabTitle = "tab 20";
    expected.canReply = true;
    EXPECT_EQ(entries[0], expected);
    EXPECT_TRUE(agentEntries("box", "Build Box", state, {Hello::Feature::agentMute}, nullptr)[0].canMute);

    // A tab's badge from its panes' agents; the exited pane's agent still counts there.
    EXPECT_EQ(agentBadge(state, {1, 2}), AgentColor::accent);
    EXPECT_EQ(agentBadge(state, {1, 3}), AgentColor::warning);
    EXPECT_EQ(agentBadge(state, {2, 99}), std::nullopt);
}

TEST(AgentEntries, MenuOffersWhatTheAgentAndDaemonAllow) {
    using Action = AgentMenuItem::Action;
    auto actionsOf = [](const std::vector<AgentMenuItem>& items) {
        std::vector<Action> out;
        for (const auto& item : items) out.push_back(item.action);
        return out;
    };
    auto idle = entry("m", 1, agent(State::running));
    EXPECT_EQ(actionsOf(agentMenu(idle, true, false)), (std::vector<Action>{Action::open}));
    idle.canMute = true;
    EXPECT_EQ(actionsOf(agentMenu(idle, true, true)), (std::vector<Action>{Action::open, Action::mute, Action::history}));
    idle.info.muted = true;
    EXPECT_EQ(agentMenu(idle, true, false)[1], (AgentMenuItem{Action::unmute, "Unmute", {}, {}, {}}));

    auto asking = entry("m", 2, agent(State::waiting, true));
    asking.info.source = "hook";
    asking.canReply = true;
    asking.info.requests = std::vector<PermissionRequest>{{"r7", "Bash", std::nullopt}, {"r8", "Edit", std::nullopt}};
    auto menu = agentMenu(asking, true, false);
    EXPECT_EQ(actionsOf(menu), (std::vector<Action>{Action::open, Action::resolve, Action::promptReply, Action::pressKey,
                                                    Action::pressKey, Action::pressKey, Action::pressKey,
                                                    Action::pressKey, Action::allow, Action::deny}));
    EXPECT_EQ(menu[2].title, "Reply\u2026");
    EXPECT_EQ(menu[3], (AgentMenuItem{Action::pressKey, "Press 1 (usually Yes)", "1", "1", {}}));
    EXPECT_EQ(menu[7], (AgentMenuItem{Action::pressKey, "Press Esc (cancel or deny)", "Esc", "escape", {}}));
    EXPECT_EQ(menu[9], (AgentMenuItem{Action::deny, "Deny", {}, {}, "r7"}));
    // A daemon that can't decide gets no Allow or Deny; a guessed wait gets no replies.
    asking.info.source.reset();
    EXPECT_EQ(actionsOf(agentMenu(asking, false, false)), (std::vector<Action>{Action::open, Action::resolve}));
}
