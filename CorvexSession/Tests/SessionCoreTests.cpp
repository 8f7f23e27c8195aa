#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "CorvexSession/ClientSizes.h"
#include "CorvexSession/SessionCore.h"
#include "CorvexSession/Tests/Support/ScriptedPaneHost.h"
#include "CorvexSession/Tests/Support/ExpectError.h"

using namespace corvex;
using corvex::testing::ScriptedPaneHost;
using corvex::testing::expectError;

namespace {

struct CoreFixture : ::testing::Test {
    std::shared_ptr<ScriptedPaneHost> host = std::make_shared<ScriptedPaneHost>();
    std::shared_ptr<SessionCore> core;
    std::mutex mutex;
    std::vector<SessionEvent> events;

    void SetUp() override {
        SessionCoreEnvironment environment;
        environment.variables = {{"HOME", "/home/u"}, {"PATH", "/bin"}};
        environment.home = "/home/u";
        environment.defaultShell = "/bin/zsh";
        environment.isDirectory = [](const std::string& path) { return path == "/home/u" || path == "/tmp"; };
        environment.isExecutable = [](const std::string& path) {
            return path == "/bin/zsh" || path == "/bin/sleep" || path == "/x";
        };
        core = SessionCore::create(host, environment);
        core->setListener([this](const SessionEvent& event) {
            std::lock_guard guard(mutex);
            events.push_back(event);
        });
    }

    std::vector<SessionEvent> take() {
        std::lock_guard guard(mutex);
        return std::exchange(events, {});
    }

    void output(uint64_t pane, size_t count, uint8_t fill = 'x') {
        Bytes bytes(count, fill);
        host->process(pane)->events.output(bytes);
    }

    const Tab& tabOf(const ModelState& state, uint64_t pane) { return *state.location(pane)->tab; }
};

} // namespace

TEST(PaneEnvironment, DropsOurVariablesSetsTerminalIdentityAndLetsOverridesWin) {
    Environment inherited = {{"PATH", "/bin"},        {"CORVEX_SOCKET", "/s"}, {"DROVER_X", "1"},
                             {"CORVEXISH", "kept"},   {"TERM", "dumb"},        {"LANG", "de_DE.UTF-8"}};
    auto env = paneEnvironment(inherited, 42, Environment{{"TERM", "vt100"}, {"EXTRA", "1"}});
    EXPECT_EQ(env.count("CORVEX_SOCKET"), 0u);
    EXPECT_EQ(env.count("DROVER_X"), 0u);
    EXPECT_EQ(env.at("CORVEXISH"), "kept");
    EXPECT_EQ(env.at("PATH"), "/bin");
    EXPECT_EQ(env.at("TERM"), "vt100");
    EXPECT_EQ(env.at("COLORTERM"), "truecolor");
    EXPECT_EQ(env.at("TERM_PROGRAM"), "corvex");
    EXPECT_EQ(env.at("CORVEX_PANE"), "42");
    EXPECT_EQ(env.at("LANG"), "de_DE.UTF-8");
    EXPECT_EQ(env.at("EXTRA"), "1");

    auto bare = paneEnvironment({}, 7, std::nullopt);
    EXPECT_EQ(bare.at("LANG"), "en_US.UTF-8");
    EXPECT_EQ(bare.at("TERM"), "xterm-256color");
}

TEST(LaunchCommand, LoginShellGetsDashedArgv0AndOtherCommandsKeepTheirWords) {
    EXPECT_EQ(launchCommand({"/bin/zsh", "-l"}), (LaunchCommand{"/bin/zsh", {}, "-zsh"}));
    EXPECT_EQ(launchCommand({"/bin/zsh", "-c", "ls"}), (LaunchCommand{"/bin/zsh", {"-c", "ls"}, std::nullopt}));
    EXPECT_EQ(launchCommand({"/bin/zsh"}), (LaunchCommand{"/bin/zsh", {}, std::nullopt}));
    EXPECT_EQ(launchCommand({"-l", "x"}), (LaunchCommand{"-l", {"x"}, std::nullopt}));
    EXPECT_FALSE(launchCommand({}));
}

TEST(FindProgram, NamesAreLookedUpOnThePathInOrderAndPathsAreTakenAsTheyAre) {
    std::set<std::string> executables{"/usr/bin/sleep", "/bin/sleep", "./tool", "/opt/x/run"};
    auto isExecutable = [&](const std::string& path) { return executables.count(path) > 0; };
    EXPECT_EQ(findProgram("sleep", "/usr/local/bin:/usr/bin:/bin", isExecutable), "/usr/bin/sleep");
    EXPECT_EQ(findProgram("tool", "/usr/bin::/bin", isExecutable), "./tool") << "an empty entry is the current folder";
    EXPECT_EQ(findProgram("sleeep", "/usr/bin:/bin", isExecutable), std::nullopt);
    EXPECT_EQ(findProgram("run", "", isExecutable), std::nullopt);
    EXPECT_EQ(findProgram("x/run", "/opt", isExecutable), "x/run") << "a name with a slash isn't searched for";
    EXPECT_EQ(findProgram("", "/bin", isExecutable), std::nullopt);
}

TEST(ClientSizes, APaneFitsEveryClientShowingItAndGrowsBackWhenOneGoes) {
    ClientSizes sizes;
    EXPECT_EQ(sizes.show(7, 1, Size{200, 50}), (Size{200, 50}));
    EXPECT_EQ(sizes.show(7, 2, Size{80, 60}), (Size{80, 50})) << "each dimension fits the smallest";
    EXPECT_EQ(sizes.show(8, 2, Size{80, 24}), (Size{80, 24})) << "other panes are apart";
    EXPECT_EQ(sizes.show(7, 2, Size{100, 60}), (Size{100, 50})) << "a client's new size replaces its old";
    EXPECT_EQ(sizes.leave(2), (std::vector<std::pair<uint64_t, Size>>{{7, Size{200, 50}}}))
        << "the remaining client gets its room back; a pane no one shows keeps its size";
    EXPECT_EQ(sizes.hide(7, 1), std::nullopt);
    EXPECT_EQ(sizes.hide(7, 1), std::nullopt) << "hiding twice is harmless";
    EXPECT_EQ(sizes.show(7, 3, Size{90, 30}), (Size{90, 30})) << "nothing of the gone clients stays";
}

TEST(OutputRetention, KeepsTheNewestBytesInOrderAcrossTheRingsWrap) {
    OutputRetention retention;
    Bytes everything;
    // Chunk sizes that never divide the ring, one larger than the whole ring, and empty ones.
    for (size_t size : {70001u, 0u, 999999u, 5u, 1300000u, 65536u, 70001u, 1u, 0u, 333333u}) {
        Bytes chunk(size);
        for (auto& byte : chunk) byte = static_cast<uint8_t>((everything.size() + (&byte - chunk.data())) % 251);
        EXPECT_EQ(retention.append(chunk), everything.size());
        everything.insert(everything.end(), chunk.begin(), chunk.end());
        ASSERT_LE(retention.size(), OutputRetention::retainedBytes);
        ASSERT_EQ(retention.seq(), everything.size());
        ASSERT_EQ(retention.seq() - retention.start(), retention.size());
        ASSERT_EQ(retention.bytes(), Bytes(everything.end() - static_cast<std::ptrdiff_t>(retention.size()), everything.end()));
    }
    EXPECT_EQ(retention.size(), OutputRetention::replayLimit) << "a full ring can replay as far as a replay may reach";
    EXPECT_EQ(retention.bytesFrom(retention.seq() - 3), Bytes(everything.end() - 3, everything.end()));
    EXPECT_EQ(retention.bytesFrom(0), retention.bytes()) << "before the start reads from the start";
    EXPECT_TRUE(retention.bytesFrom(retention.seq() + 10).empty());

    // A server taking over goes on from the retained tail, and its ring keeps wrapping in order.
    OutputRetention next;
    next.resume(retention.start(), retention.bytes());
    Bytes more(300000, 7);
    EXPECT_EQ(next.append(more), everything.size());
    everything.insert(everything.end(), more.begin(), more.end());
    EXPECT_EQ(next.seq(), everything.size());
    EXPECT_EQ(next.bytes(), Bytes(everything.end() - static_cast<std::ptrdiff_t>(next.size()), everything.end()));
}

TEST(SubscriptionMode, ChoosesLiveReplayOrSnapshot) {
    using Mode = Subscription::Mode;
    const uint64_t mib = 0x100000;
    // No position, an exact one, one behind and one ahead: CoreFixture.SubscribeModesAndRetainedOutput.
    EXPECT_EQ(subscriptionMode(40, 100, 50), Mode::snapshot);  // no longer retained
    EXPECT_EQ(subscriptionMode(3 * mib, 4 * mib, 0), Mode::replay);
    EXPECT_EQ(subscriptionMode(3 * mib - 1, 4 * mib, 0), Mode::snapshot); // retained, but too far behind
}

TEST_F(CoreFixture, IdentifiersFollowCreationOrderAndSpawnGetsTheSplitPanesDirectory) {
    auto created = core->createWorkspace(std::nullopt, SpawnOptions{.cwd = "/tmp"});
    EXPECT_EQ(created, (CreatedWorkspace{1, 2, 3}));
    auto tab = core->createTab(1, {});
    EXPECT_EQ(tab, (CreatedTab{4, 5}));
    auto split = core->split(3, Direction::right, std::nullopt, {});
    EXPECT_EQ(split, (CreatedSplit{6, 7}));
    auto second = core->createWorkspace(std::nullopt, SpawnOptions{.cwd = "/tmp"});

    auto state = core->state();
    EXPECT_EQ(state.workspaces[0].name, "Session 1");
    EXPECT_EQ(state.pane(6)->cwd, "/tmp");          // inherited from the split pane
    EXPECT_EQ(state.pane(second.pane)->cwd, "/tmp");
    auto launch = host->process(3)->launch;
    EXPECT_EQ(launch.command, (std::vector<std::string>{"/bin/zsh", "-l"}));
    EXPECT_EQ(launch.launch.argv0, "-zsh");
    EXPECT_EQ(launch.environment.at("CORVEX_PANE"), "3");
    EXPECT_EQ(launch.size, (Size{80, 24}));

    host->failNext = true;
    expectError([&] { core->createTab(1, SpawnOptions{.command = std::vector<std::string>{"/x", "a b"}}); },
                "failed", "couldn't start /x a b");
    EXPECT_EQ(core->state().workspaces, state.workspaces);
    // What can't start is refused before anything is made.
    expectError([&] { core->split(3, Direction::right, std::nullopt, SpawnOptions{.command = std::vector<std::string>{"/no/x"}}); },
                "not_found", "/no/x: no such program");
    EXPECT_EQ(core->state().workspaces, state.workspaces);
    // A missing folder or program for a new workspace or tab, unknown identifiers and programs
    // found on PATH: BackendContract.UnknownThingsFailAlike.
}

TEST_F(CoreFixture, SplitsHonourDirectionAndClampedRatio) {
    auto created = core->createWorkspace("w", {});
    auto right = core->split(created.pane, Direction::right, 0.3, {});
    auto left = core->split(right.pane, Direction::left, 0.99, {});
    auto state = core->state();
    const auto& layout = tabOf(state, created.pane).layout;
    const SplitNode* outer = layout.splitNode();
    ASSERT_TRUE(outer);
    EXPECT_EQ(outer->axis, Axis::horizontal);
    EXPECT_DOUBLE_EQ(outer->ratio, 0.3);
    EXPECT_EQ(outer->a, Layout::leaf(created.pane));
    const SplitNode* inner = outer->b.splitNode();
    ASSERT_TRUE(inner);
    EXPECT_NEAR(inner->ratio, 0.05, 1e-9); // 0.99 clamped to 0.95, the new pane first
    EXPECT_EQ(inner->a, Layout::leaf(left.pane));
    EXPECT_EQ(inner->b, Layout::leaf(right.pane));
    EXPECT_EQ(state.focus, (Focus{created.workspace, created.tab, left.pane}));
    EXPECT_EQ(tabOf(state, created.pane).activePane, left.pane);

    auto down = core->split(created.pane, Direction::down, std::nullopt, {});
    EXPECT_EQ(core->state().location(down.pane)->tab->layout.splitNode()->a.splitNode()->axis, Axis::vertical);
    core->setRatio(outer->id, 0.01);
    EXPECT_DOUBLE_EQ(core->state().location(down.pane)->tab->layout.splitNode()->ratio, 0.05);
}

TEST_F(CoreFixture, ClosingPanesRepairsActivePaneTabsAndFocus) {
    auto created = core->createWorkspace("w", {});
    auto second = core->createTab(created.workspace, {});
    auto split = core->split(second.pane, Direction::right, std::nullopt, {});
    auto third = core->createTab(created.workspace, {});
    core->focus(FocusTarget::pane(split.pane));

    // A pane that isn't active goes without moving activePane or focus.
    core->closePane(second.pane);
    auto state = core->state();
    EXPECT_EQ(state.focus, (Focus{created.workspace, second.tab, split.pane}));
    EXPECT_EQ(tabOf(state, split.pane).layout, Layout::leaf(split.pane));
    EXPECT_FALSE(state.pane(second.pane));
    EXPECT_TRUE(host->process(second.pane)->hungUp);

    // The last pane of the focused tab takes the tab; focus moves to the tab before it.
    core->closePane(split.pane);
    state = core->state();
    ASSERT_EQ(state.workspaces[0].tabs.size(), 2u);
    EXPECT_EQ(state.focus, (Focus{created.workspace, created.tab, created.pane}));
    EXPECT_EQ(state.workspaces[0].activeTab, created.tab);

    // Closing the focused pane of a split activates its sibling.
    auto a = core->split(third.pane, Direction::down, std::nullopt, {});
    auto b = core->split(a.pane, Direction::right, std::nullopt, {});
    core->focus(FocusTarget::pane(a.pane));
    core->closePane(a.pane);
    state = core->state();
    EXPECT_EQ(tabOf(state, b.pane).activePane, b.pane);
    EXPECT_EQ(state.focus.pane, b.pane);

    core->closeWorkspace(created.workspace);
    state = core->state();
    EXPECT_TRUE(state.workspaces.empty());
    EXPECT_TRUE(state.panes.empty());
    EXPECT_EQ(state.focus, Focus{});
    EXPECT_TRUE(host->process(created.pane)->hungUp);
}

TEST_F(CoreFixture, EventsArriveInOrderWithRisingRevisions) {
    auto created = core->createWorkspace("w", {});
    core->renameWorkspace(created.workspace, "renamed");
    core->setAgent(created.pane, AgentInfo{.kind = "claude"});
    core->resize(created.pane, {100, 30});
    core->resize(created.pane, {100, 30}); // same size: nothing
    auto events = take();
    ASSERT_EQ(events.size(), 5u);
    ASSERT_TRUE(events[0].as<SessionEvent::State>());
    EXPECT_EQ(events[0].as<SessionEvent::State>()->state.rev, 1u);
    EXPECT_EQ(events[1].as<SessionEvent::State>()->state.workspaces[0].name, "renamed");
    EXPECT_EQ(events[1].as<SessionEvent::State>()->state.rev, 2u);
    EXPECT_EQ(events[2].as<SessionEvent::PaneChanged>()->pane.agent->kind, "claude");
    EXPECT_EQ(events[2].as<SessionEvent::PaneChanged>()->rev, 3u);
    EXPECT_TRUE(events[3].as<SessionEvent::Agent>());
    EXPECT_EQ(events[4].as<SessionEvent::PaneChanged>()->rev, 4u) << "the unchanged resize told nobody";
    EXPECT_EQ(host->process(created.pane)->resizes, (std::vector<Size>{{100, 30}}));
}

TEST_F(CoreFixture, MovesAndJoinsGraftSubtreesBesideAPane) {
    auto created = core->createWorkspace("w", {});
    auto other = core->createTab(created.workspace, {});
    auto split = core->split(other.pane, Direction::down, std::nullopt, {});

    // A pane moves beside another and leaves a tab of one leaf behind.
    core->move(MoveRequest::movePane(split.pane, created.pane, Direction::left, 0.25, true));
    auto state = core->state();
    const auto& moved = tabOf(state, created.pane);
    EXPECT_EQ(moved.layout.panes(), (std::vector<uint64_t>{split.pane, created.pane}));
    EXPECT_DOUBLE_EQ(moved.layout.splitNode()->ratio, 0.75);
    EXPECT_EQ(state.focus, (Focus{created.workspace, created.tab, split.pane}));
    EXPECT_EQ(tabOf(state, other.pane).layout, Layout::leaf(other.pane));
    EXPECT_TRUE(state.pane(split.pane));

    // A whole tab joins another; the emptied tab is gone, nothing else is.
    core->move(MoveRequest::joinTab(other.tab, created.pane, Direction::down));
    state = core->state();
    ASSERT_EQ(state.workspaces[0].tabs.size(), 1u);
    EXPECT_EQ(state.workspaces[0].tabs[0].layout.panes(),
              (std::vector<uint64_t>{split.pane, created.pane, other.pane}));
    EXPECT_EQ(state.panes.size(), 3u);
    EXPECT_EQ(state.focus.tab, created.tab);

    expectError([&] { core->move(MoveRequest::joinTab(created.tab, created.pane, Direction::left)); },
                "bad_request", "tab " + std::to_string(created.tab) + " can't be joined beside its own pane " + std::to_string(created.pane));
    expectError([&] { core->move(MoveRequest::movePane(created.pane, 99, Direction::left)); }, "not_found",
                "no pane 99");
    EXPECT_EQ(core->state().workspaces, state.workspaces);

    auto second = core->createWorkspace("second", {});
    core->move(MoveRequest::moveWorkspace(second.workspace, 0));
    EXPECT_EQ(core->state().workspaces[0].id, second.workspace);
    try {
        core->move(MoveRequest::moveWorkspace(second.workspace, -1));
        ADD_FAILURE();
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), "bad_request");
        EXPECT_TRUE(error.message().ends_with(" index"));
    }
}

TEST_F(CoreFixture, FocusByTabAndWorkspaceAndPublishedActiveTabs) {
    auto first = core->createWorkspace("a", {});
    auto tab = core->createTab(first.workspace, {});
    auto second = core->createWorkspace("b", {});
    core->focus(FocusTarget::workspace(first.workspace));
    EXPECT_EQ(core->state().focus, (Focus{first.workspace, tab.tab, tab.pane}));
    core->focus(FocusTarget::tab(first.tab));
    auto state = core->state();
    EXPECT_EQ(state.focus, (Focus{first.workspace, first.tab, first.pane}));
    EXPECT_EQ(state.workspaces[0].activeTab, first.tab);
    EXPECT_EQ(state.workspaces[1].activeTab, second.tab); // an unfocused workspace gets its first tab
}

TEST_F(CoreFixture, SubscribeModesAndRetainedOutput) {
    auto created = core->createWorkspace("w", {});
    uint64_t pane = created.pane;
    output(pane, 100, 'a');
    take();

    auto snapshot = core->subscribe(pane, std::nullopt, std::nullopt);
    EXPECT_EQ(snapshot, (Subscription{Subscription::Mode::snapshot, 100, 80, 24}));
    auto events = take();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].as<SessionEvent::Snapshot>()->bytes, Bytes(100, 'a'));

    // An exact match sends nothing but the subscription.
    EXPECT_EQ(core->subscribe(pane, 100, std::nullopt).mode, Subscription::Mode::live);
    events = take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].as<SessionEvent::Subscribed>());

    auto replay = core->subscribe(pane, 90, std::nullopt);
    EXPECT_EQ(replay.mode, Subscription::Mode::replay);
    EXPECT_EQ(replay.seq, 90u);
    events = take();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(*events[1].as<SessionEvent::Output>(), (SessionEvent::Output{pane, 90, Bytes(10, 'a')}));

    EXPECT_EQ(core->subscribe(pane, 101, std::nullopt).mode, Subscription::Mode::snapshot);
    take();

    // Live output reaches a subscriber with its position; the state's seq moves silently.
    output(pane, 5, 'b');
    events = take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(*events[0].as<SessionEvent::Output>(), (SessionEvent::Output{pane, 100, Bytes(5, 'b')}));
    EXPECT_EQ(core->state().pane(pane)->seq, 105u);
    core->unsubscribe(pane);
    output(pane, 2 * 1024 * 1024);
    EXPECT_TRUE(take().empty());

    // Far behind yet still retained: a snapshot.
    EXPECT_EQ(core->subscribe(pane, 100, std::nullopt).mode, Subscription::Mode::snapshot);
    core->resize(pane, {120, 40});
    events = take();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(*events[2].as<SessionEvent::Resized>(), (SessionEvent::Resized{pane, 120, 40, 105 + 2 * 1024 * 1024}));
    EXPECT_TRUE(events[3].as<SessionEvent::PaneChanged>());

    auto viewport = core->subscribe(pane, std::nullopt, Size{50, 10});
    EXPECT_EQ(viewport.cols, 50);
    events = take();
    EXPECT_TRUE(events[0].as<SessionEvent::PaneChanged>()); // applied without a resized event
    EXPECT_TRUE(events[1].as<SessionEvent::Subscribed>());
}

TEST_F(CoreFixture, ReportsLeaveAgentAttentionAloneAndKeystrokesClearIt) {
    auto created = core->createWorkspace("w", {});
    uint64_t pane = created.pane;
    core->setAgent(pane, AgentInfo{.kind = "codex", .attention = true});
    take();
    core->sendInput(pane, asBytes("\x1b[<0;3;4M"));
    core->sendInput(pane, asBytes("\x1b[I"));
    core->sendInput(pane, asBytes("\x1b[M !!"));
    EXPECT_TRUE(take().empty());
    EXPECT_TRUE(core->state().pane(pane)->agent->attention.value_or(false));
    core->sendInput(pane, asBytes("\x1b[A")); // an arrow key is an answer
    EXPECT_FALSE(core->state().pane(pane)->agent->attention.value_or(false));
    auto told = take();
    ASSERT_EQ(told.size(), 2u) << "the pane, then its agent";
    EXPECT_TRUE(told[1].as<SessionEvent::Agent>());

    core->sendKeys(pane, std::string("ls"), {"enter", "tab", "esc", "backspace"});
    expectError([&] { core->sendKeys(pane, std::string("no"), {"enter", "f13"}); }, "bad_request", "unknown key f13");
    auto written = host->process(pane)->written;
    EXPECT_EQ(std::string(written.begin(), written.end()),
              "\x1b[<0;3;4M\x1b[I\x1b[M !!\x1b[Als\r\t\x1b\x7f"); // a bad key sends nothing at all
    core->sendInput(99, asBytes("dropped")); // a pane that has gone takes writes silently
}

// Deciding once and only once, muting and dismissing a restore note are checked through a real
// daemon by AgentHooks.APermissionRequestWaitsForADecisionFromAnyClient,
// AgentHooks.ClaudeReportsThroughItsHooksAndTheDaemonKeepsTheHistory and
// PaneService.TheTreeComesBackAfterAStopButNotAfterAShutdown.
TEST_F(CoreFixture, MutingAPaneWithoutAnAgentIsRefused) {
    auto created = core->createWorkspace("w", {});
    expectError([&] { core->muteAgent(created.pane, true); }, "not_found",
                "no agent in pane " + std::to_string(created.pane));
}

TEST_F(CoreFixture, ProcessEndRemovesThePaneOnceAndLateReportsAreHarmless) {
    auto created = core->createWorkspace("w", {});
    auto split = core->split(created.pane, Direction::right, std::nullopt, {});
    take();
    auto process = host->process(split.pane);
    process->events.terminated(3);
    process->events.terminated(3);
    process->events.output(asBytes("late"));
    auto events = take();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].as<SessionEvent::PaneChanged>()->pane.exited, (PaneExit{3, std::nullopt}));
    auto state = events[1].as<SessionEvent::State>()->state;
    EXPECT_FALSE(state.pane(split.pane));
    EXPECT_EQ(state.focus, (Focus{created.workspace, created.tab, created.pane}));

    core->paneChanged(created.pane, std::string("vim"), std::string("/tmp"), true);
    events = take();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].as<SessionEvent::PaneChanged>()->pane.title, "vim");
    EXPECT_TRUE(events[1].as<SessionEvent::Bell>());
    core->paneChanged(created.pane, std::string("vim"), std::string("/tmp"), false);
    EXPECT_TRUE(take().empty());
}

TEST_F(CoreFixture, ListenersMayCallBackAndConcurrentChangesArriveInRevisionOrder) {
    auto created = core->createWorkspace("w", {});
    std::vector<uint64_t> revs;
    std::vector<uint64_t> outputSeqs;
    bool renamed = false;
    core->setListener([&](const SessionEvent& event) {
        if (auto state = event.as<SessionEvent::State>()) revs.push_back(state->state.rev);
        if (auto pane = event.as<SessionEvent::PaneChanged>()) revs.push_back(pane->rev);
        if (auto output = event.as<SessionEvent::Output>()) outputSeqs.push_back(output->seq);
        if (!renamed) {
            renamed = true;
            core->renameWorkspace(created.workspace, "from the listener");
        }
    });
    core->subscribe(created.pane, std::nullopt, std::nullopt);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                if (t == 0) {
                    output(created.pane, 10);
                } else {
                    core->resize(created.pane, {80 + t, 24 + i});
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(core->state().workspaces[0].name, "from the listener");
    ASSERT_FALSE(revs.empty());
    EXPECT_TRUE(std::is_sorted(revs.begin(), revs.end()));
    EXPECT_EQ(std::adjacent_find(revs.begin(), revs.end()), revs.end());
    ASSERT_EQ(outputSeqs.size(), 50u);
    for (size_t i = 0; i < outputSeqs.size(); ++i) EXPECT_EQ(outputSeqs[i], i * 10);

    core->stop();
    core->renameWorkspace(created.workspace, "after stop");
    EXPECT_EQ(revs.back(), core->state().rev - 1); // nothing is told after stop
}
