#include <gtest/gtest.h>

#include <thread>

#include "CorvexKit/ModelStore.h"
#include "Platform/MainQueue.h"
#include "Support/ManualExecutor.h"
#include "Support/RecordingSink.h"
#include "Support/SampleModel.h"
#include "Support/ScriptedBackend.h"

using namespace corvex;
using namespace std::chrono_literals;
using testkit::RecordingSink;
using testkit::samplePane;
using testkit::sampleState;
using testkit::tabIDs;

namespace {

Hello hello(std::string instance) {
    Hello h;
    h.protocol = 1;
    h.daemon = "corvexd";
    h.version = "1.0";
    h.instance = std::move(instance);
    h.featureNames = std::vector<std::string>{"pane.keys", "move", "no.such.thing"};
    return h;
}

std::string errorCode(std::exception_ptr error) {
    if (!error) return "";
    try {
        std::rethrow_exception(error);
    } catch (const BackendError& e) {
        return e.code() + ": " + e.message();
    } catch (...) {
        return "other";
    }
}

class ModelStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.onChange = [this] { ++changes; };
        store.wallClock = [this] { return wall; };
        store.start([this](std::exception_ptr error) { startResult = errorCode(error) + "done"; });
        finishCalls();
    }

    void deliver(SessionEvent event) {
        backend->push(std::move(event));
        queue.runPending();
    }

    // Lets the held backend calls return, then runs their completions on the main queue.
    void finishCalls() {
        worker.runAll();
        queue.runPending();
    }

    void connectWithState(const std::string& instance = "A") {
        deliver(SessionEvent::Connected{hello(instance)});
        deliver(SessionEvent::State{sampleState()});
        changes = 0;
    }

    platform::ManualMainQueue queue;
    testkit::ManualExecutor worker;
    std::shared_ptr<testkit::ScriptedBackend> backend = std::make_shared<testkit::ScriptedBackend>();
    ModelStore store{backend, queue, worker.executor()};
    int changes = 0;
    double wall = 1000;
    std::string startResult;
};

} // namespace

TEST_F(ModelStoreTest, StartsTheBackendAndAppliesEventsInOrder) {
    EXPECT_EQ(startResult, "done");
    EXPECT_EQ(backend->calls(), std::vector<std::string>{"start"});
    EXPECT_EQ(store.connection(), ConnectionState::idle());

    deliver(SessionEvent::Progress{"dialing"});
    EXPECT_EQ(store.connection(), ConnectionState::connecting("dialing"));
    deliver(SessionEvent::RetryPaused{"host unreachable"});
    EXPECT_EQ(store.connection(), ConnectionState::reconnecting("host unreachable"));
    EXPECT_TRUE(store.retryPaused());
    deliver(SessionEvent::Connected{hello("A")});
    EXPECT_FALSE(store.retryPaused());
    EXPECT_EQ(store.features(), (FeatureSet{Hello::Feature::paneKeys, Hello::Feature::move}));
    deliver(SessionEvent::State{sampleState(5)});
    EXPECT_EQ(store.state(), sampleState(5));
    EXPECT_EQ(changes, 4);

    // Events pushed from another thread arrive on the main queue in their order.
    std::thread producer([this] {
        for (uint64_t rev = 6; rev < 1000; ++rev) backend->push(SessionEvent::PaneChanged{samplePane(3), rev});
    });
    std::vector<uint64_t> revs;
    store.onChange = [&] { revs.push_back(store.state().rev); };
    EXPECT_TRUE(queue.runUntil([&] { return revs.size() == 994; }));
    producer.join();
    EXPECT_TRUE(std::is_sorted(revs.begin(), revs.end()));
    EXPECT_EQ(revs.back(), 999u);
}

TEST_F(ModelStoreTest, StartFailurePassesToTheCaller) {
    auto other = std::make_shared<testkit::ScriptedBackend>();
    other->fail("start", BackendError("disconnected", "no daemon"));
    ModelStore failing(other, queue, worker.executor());
    std::string result;
    failing.start([&](std::exception_ptr error) { result = errorCode(error); });
    finishCalls();
    EXPECT_EQ(result, "disconnected: no daemon");
}

TEST_F(ModelStoreTest, PaneDataGoesToTheLiveSinkOnlyAndChangesNothing) {
    connectWithState();
    auto sink = std::make_shared<RecordingSink>();
    store.registerSink(5, sink);
    deliver(SessionEvent::Subscribed{5, Subscription{Subscription::Mode::replay, 10, 80, 24}});
    deliver(SessionEvent::Output{5, 10, {'h', 'i'}});
    deliver(SessionEvent::Output{6, 0, {'x'}}); // no sink for pane 6
    deliver(SessionEvent::Snapshot{5, 12, 100, 30, {'s'}});
    deliver(SessionEvent::Resized{5, 90, 20, 13});
    deliver(SessionEvent::Resync{5});
    deliver(SessionEvent::Clipboard{5, "copied", true});
    EXPECT_EQ(sink->calls, (std::vector<std::string>{"subscribed replay 10", "output 10 hi", "snapshot 12 100x30 s",
                                                     "resized 90x20 13", "resync", "selection copied"}));
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(store.state(), sampleState()); // no seq moved

    // A second registration replaces the first; a gone sink and an unregistered pane drop data.
    auto replacement = std::make_shared<RecordingSink>();
    store.registerSink(5, replacement);
    deliver(SessionEvent::Output{5, 12, {'a'}});
    EXPECT_EQ(replacement->calls, std::vector<std::string>{"output 12 a"});
    EXPECT_EQ(sink->calls.size(), 6u);
    replacement.reset();
    deliver(SessionEvent::Output{5, 13, {'b'}});
    store.registerSink(6, sink);
    store.unregisterSink(6);
    deliver(SessionEvent::Output{6, 0, {'c'}});
    EXPECT_EQ(sink->calls.size(), 6u);
}

// The local focus stays over stale states: up to 3 s while the backend hasn't answered, for a
// 500 ms grace once it has, and no longer once a state carries it.
TEST_F(ModelStoreTest, LocalFocusOutlivesStaleStatesUntilTheDaemonCatchesUpOrTimeRunsOut) {
    connectWithState();
    store.focus(FocusTarget::pane(6));
    EXPECT_EQ(store.state().focus, (Focus{1, 4, 6}));
    queue.advance(2900ms);
    deliver(SessionEvent::State{sampleState(2)});
    EXPECT_EQ(store.state().focus, (Focus{1, 4, 6}));
    EXPECT_EQ(store.daemonState()->focus, (Focus{1, 2, 3}));
    queue.advance(100ms);
    deliver(SessionEvent::State{sampleState(3)});
    EXPECT_EQ(store.state(), sampleState(3));
    EXPECT_FALSE(store.isFocusLocal());
    finishCalls();
    EXPECT_EQ(backend->calls().back(), "focus pane 6");

    store.focus(FocusTarget::pane(6));
    auto caughtUp = *sampleState(4).focusing(FocusTarget::pane(6));
    deliver(SessionEvent::State{caughtUp});
    EXPECT_FALSE(store.isFocusLocal());
    finishCalls();

    std::string result = "pending";
    store.focus(FocusTarget::tab(9), [&](std::exception_ptr error) { result = errorCode(error); });
    finishCalls();
    EXPECT_EQ(result, "");
    queue.advance(400ms);
    deliver(SessionEvent::State{caughtUp});
    EXPECT_EQ(store.state().focus, (Focus{8, 9, 10}));
    queue.advance(100ms);
    deliver(SessionEvent::State{caughtUp});
    EXPECT_EQ(store.state().focus, (Focus{1, 4, 6}));
    EXPECT_FALSE(store.isFocusLocal());
}

TEST_F(ModelStoreTest, AFailedFocusRollsBackToWhereTheDaemonWasBeforeTheFirstOfAChain) {
    connectWithState();
    backend->fail("focus", BackendError("not_found", "no pane 6"));
    std::vector<std::string> results;
    auto record = [&](std::exception_ptr error) { results.push_back(errorCode(error)); };
    store.focus(FocusTarget::pane(6), record);
    store.focus(FocusTarget::tab(9), record);
    EXPECT_EQ(store.state().focus, (Focus{8, 9, 10}));

    // The first failure belongs to a target that is no longer the local one: it changes nothing.
    worker.runNext();
    queue.runPending();
    EXPECT_EQ(store.state().focus, (Focus{8, 9, 10}));
    worker.runNext();
    queue.runPending();
    EXPECT_EQ(store.state().focus, (Focus{1, 2, 3}));
    EXPECT_EQ(store.state().workspace(1)->activeTab, 2u);
    EXPECT_FALSE(store.isFocusLocal());
    EXPECT_EQ(results, (std::vector<std::string>{"not_found: no pane 6", "not_found: no pane 6"}));
}

TEST_F(ModelStoreTest, MovesAreReplayedOverStatesUntilConfirmed) {
    connectWithState();
    store.move(MoveRequest::moveTab(4, std::nullopt, 0));
    EXPECT_EQ(tabIDs(store.state().workspaces.at(0)), (std::vector<uint64_t>{4, 2}));
    EXPECT_TRUE(store.isMoveLocal());

    // A state without the move gets it laid over; one that already has it is left as it is.
    deliver(SessionEvent::State{sampleState(2)});
    EXPECT_EQ(tabIDs(store.state().workspaces.at(0)), (std::vector<uint64_t>{4, 2}));
    auto moved = *sampleState(3).moving(MoveRequest::moveTab(4, std::nullopt, 0));
    deliver(SessionEvent::State{moved});
    EXPECT_EQ(store.state(), moved);

    finishCalls();
    EXPECT_EQ(backend->calls().back(), "move tab 4 to index 0");
    queue.advance(500ms);
    deliver(SessionEvent::State{sampleState(4)});
    EXPECT_EQ(tabIDs(store.state().workspaces.at(0)), (std::vector<uint64_t>{2, 4}));
    EXPECT_FALSE(store.isMoveLocal());
}

TEST_F(ModelStoreTest, AFailedMoveIsTakenOutAndTheOthersStay) {
    connectWithState();
    store.move(MoveRequest::moveWorkspace(8, 0));
    worker.runAll(); // the workspace move succeeds but its completion waits on the main queue
    backend->fail("move", BackendError("not_found", "no tab 4"));
    std::string result;
    store.move(MoveRequest::moveTab(4, 8, 0), [&](std::exception_ptr error) { result = errorCode(error); });
    EXPECT_EQ(tabIDs(store.state().workspaces.at(0)), (std::vector<uint64_t>{4, 9}));
    finishCalls();
    EXPECT_EQ(result, "not_found: no tab 4");
    EXPECT_EQ(store.state(), *sampleState().moving(MoveRequest::moveWorkspace(8, 0)));
    EXPECT_TRUE(store.isMoveLocal());
}

TEST_F(ModelStoreTest, FocusAndMovesThatCantBeShownFailOrGoStraightToTheBackend) {
    connectWithState();
    store.focus(FocusTarget::pane(99));
    EXPECT_FALSE(store.isFocusLocal());
    EXPECT_EQ(changes, 0);
    finishCalls();
    EXPECT_EQ(backend->calls().back(), "focus pane 99");

    std::string result;
    store.move(MoveRequest::moveTab(99, std::nullopt, 0), [&](std::exception_ptr error) { result = errorCode(error); });
    finishCalls();
    EXPECT_EQ(result, "not_found: nothing to move: tab 99 to index 0");
    EXPECT_EQ(backend->calls().back(), "focus pane 99") << "no move was sent";

    store.move(MoveRequest::movePane(5, 10, Direction::down), [&](std::exception_ptr error) {
        result = errorCode(error);
    });
    EXPECT_EQ(changes, 0);
    finishCalls();
    EXPECT_EQ(backend->calls().back(), "move pane 5 beside pane 10 (down)");
}

TEST_F(ModelStoreTest, LosingTheLinkDropsOverlaysAndKeepsTheFirstLossTime) {
    connectWithState();
    store.focus(FocusTarget::pane(6));
    store.move(MoveRequest::moveWorkspace(8, 0));
    deliver(SessionEvent::Disconnected{"connection reset"});
    EXPECT_FALSE(store.isFocusLocal());
    EXPECT_FALSE(store.isMoveLocal());
    EXPECT_EQ(store.lostAt(), 1000);

    wall = 2000;
    deliver(SessionEvent::Progress{"dialing"});
    deliver(SessionEvent::Disconnected{"refused"});
    EXPECT_EQ(store.cacheSnapshot(3000).lastSeen, 1000);

    // Nothing is resent, and the next state is shown as the daemon sent it.
    finishCalls();
    deliver(SessionEvent::State{sampleState(2)});
    EXPECT_EQ(store.state(), sampleState(2));
    deliver(SessionEvent::Connected{hello("A")});
    EXPECT_EQ(store.lostAt(), std::nullopt);
    EXPECT_EQ(store.cacheSnapshot(3000).lastSeen, 3000);
}

namespace {

// Notes the store's instance at the moment the reset arrives.
class InstanceSink final : public PaneDataSink {
public:
    explicit InstanceSink(const ModelStore& store) : store_(store) {}
    std::vector<std::string> resets;

    void paneSubscribed(const Subscription&) override {}
    void paneOutput(uint64_t, ByteView) override {}
    void paneSnapshot(uint64_t, int, int, ByteView) override {}
    void paneResized(int, int, uint64_t) override {}
    void paneResync() override {}
    void paneReset() override { resets.push_back(store_.hello() ? store_.hello()->instance : "none"); }

private:
    const ModelStore& store_;
};

} // namespace

TEST_F(ModelStoreTest, ANewDaemonInstanceResetsEverySinkOnceBeforeHelloIsPublished) {
    auto first = std::make_shared<InstanceSink>(store);
    auto second = std::make_shared<InstanceSink>(store);
    auto gone = std::make_shared<InstanceSink>(store);
    store.registerSink(3, first);
    store.registerSink(5, second);
    store.registerSink(6, gone);
    gone.reset();

    deliver(SessionEvent::Connected{hello("A")}); // nothing shown yet belongs to another run
    deliver(SessionEvent::Disconnected{"lost"});
    deliver(SessionEvent::Connected{hello("A")});
    EXPECT_TRUE(first->resets.empty());

    deliver(SessionEvent::Disconnected{"lost"});
    deliver(SessionEvent::Connected{hello("B")});
    EXPECT_EQ(first->resets, std::vector<std::string>{"A"});
    EXPECT_EQ(second->resets, std::vector<std::string>{"A"});
}

TEST_F(ModelStoreTest, ARestoredCacheIsShownUntilTheFirstStateAndComparesItsInstance) {
    CachedMachineState cache;
    cache.state = sampleState(9);
    cache.lastSeen = 500;
    cache.instance = "A";
    cache.featureNames = {"git", "unknown"};

    auto future = cache;
    future.format = 2;
    store.restore(future);
    EXPECT_FALSE(store.isSaved());
    EXPECT_EQ(changes, 0);

    store.restore(cache);
    EXPECT_EQ(store.state(), cache.state);
    EXPECT_EQ(store.features(), FeatureSet{Hello::Feature::git});
    EXPECT_EQ(store.cacheSnapshot(4000), cache);

    // Pane and agent changes can't apply to a remembered state, and focus isn't shown.
    changes = 0;
    auto changed = samplePane(3);
    changed.title = "new";
    deliver(SessionEvent::PaneChanged{changed, 20});
    deliver(SessionEvent::Agent{3, AgentInfo{"claude", AgentInfo::State::running}});
    store.focus(FocusTarget::pane(6));
    EXPECT_EQ(store.state(), cache.state);
    EXPECT_EQ(changes, 0);
    finishCalls();
    EXPECT_EQ(backend->calls().back(), "focus pane 6");

    auto sink = std::make_shared<RecordingSink>();
    store.registerSink(3, sink);
    deliver(SessionEvent::Connected{hello("B")});
    EXPECT_EQ(sink->calls, std::vector<std::string>{"reset"});
    EXPECT_TRUE(store.isSaved());
    EXPECT_EQ(store.cacheSnapshot(4000), cache); // lastSeen doesn't creep while saved

    deliver(SessionEvent::State{sampleState(10)});
    EXPECT_FALSE(store.isSaved());
    auto snapshot = store.cacheSnapshot(4000);
    EXPECT_EQ(snapshot.lastSeen, 4000);
    EXPECT_EQ(snapshot.instance, "B");
    EXPECT_EQ(snapshot.featureNames, (std::vector<std::string>{"pane.keys", "move", "no.such.thing"}));

    // A cache never replaces live data.
    store.restore(cache);
    EXPECT_FALSE(store.isSaved());
    EXPECT_EQ(store.state(), sampleState(10));
}

TEST_F(ModelStoreTest, PaneAndAgentEventsUpdateThePaneList) {
    connectWithState();
    std::vector<std::string> agentChanges;
    store.onAgentChange = [&](uint64_t id, const std::optional<AgentInfo>& old, const std::optional<AgentInfo>& now) {
        agentChanges.push_back(std::to_string(id) + (old ? " had" : " none") + (now ? " has" : " none"));
    };

    auto withAgent = samplePane(5);
    withAgent.agent = AgentInfo{"claude", AgentInfo::State::running};
    deliver(SessionEvent::PaneChanged{withAgent, 7});
    EXPECT_EQ(*store.state().pane(5), withAgent);
    deliver(SessionEvent::PaneChanged{samplePane(11), 3}); // unknown panes are appended; rev never goes back
    EXPECT_NE(store.state().pane(11), nullptr);
    EXPECT_EQ(store.state().rev, 7u);

    auto waiting = AgentInfo{"claude", AgentInfo::State::waiting};
    deliver(SessionEvent::Agent{5, waiting});
    deliver(SessionEvent::Agent{5, waiting}); // no change, no callback
    deliver(SessionEvent::Agent{99, waiting});
    deliver(SessionEvent::Agent{5, std::nullopt});
    EXPECT_EQ(agentChanges, (std::vector<std::string>{"5 none has", "5 had has", "5 had none"}));
    EXPECT_EQ(changes, 4);
}

TEST_F(ModelStoreTest, SettingsAndServiceArePublishedWithoutOnChange) {
    std::vector<int> seen;
    store.onSettings = [&](const DaemonSettings& s) { seen.push_back(s.scrollbackLines); };
    DaemonSettings settings;
    settings.scrollbackLines = 2000;
    deliver(SessionEvent::Settings{settings});
    EXPECT_EQ(store.settings(), settings);

    backend->scriptSettings(settings);
    store.changeSettings(DaemonSettings::Change{5000});
    finishCalls();
    EXPECT_EQ(store.settings()->scrollbackLines, 5000);
    EXPECT_EQ(seen, (std::vector<int>{2000, 5000}));

    std::string result = "pending";
    store.setStartsAtLogin(true, [&](std::exception_ptr error) { result = errorCode(error); });
    finishCalls();
    EXPECT_EQ(result, "");
    EXPECT_TRUE(store.service()->installed);
    EXPECT_EQ(changes, 0);
}

TEST_F(ModelStoreTest, FocusedValuesAndTabTitlesFallBackSensibly) {
    EXPECT_EQ(store.focusedPane(), nullptr);

    auto state = sampleState();
    state.focus = Focus{8, 4, 5}; // tab 4 isn't in workspace 8
    state.panes[1].title = "✳ Claude Code";
    state.panes[1].cwd = "/home/ann/corvex";
    state.panes[3].cwd = "/srv/logs/";
    state.workspaces[0].tabs[0].title = "";
    deliver(SessionEvent::State{state});
    EXPECT_EQ(store.focusedTab()->id, 9u);
    EXPECT_EQ(store.focusedPane()->id, 10u);

    const auto& tabs = store.state().workspaces;
    EXPECT_EQ(store.displayTitle(tabs[0].tabs[1]), "corvex");
    EXPECT_EQ(store.displayTitle(tabs[1].tabs[0]), "logs");
    EXPECT_EQ(store.displayTitle(tabs[0].tabs[0]), "Shell");
    auto titled = tabs[0].tabs[0];
    titled.title = "mine";
    EXPECT_EQ(store.displayTitle(titled), "mine");
}

TEST_F(ModelStoreTest, CompletionsDoNotOutliveTheStore) {
    auto other = std::make_shared<testkit::ScriptedBackend>();
    bool called = false;
    {
        ModelStore shortLived(other, queue, worker.executor());
        shortLived.start();
        shortLived.focus(FocusTarget::pane(1), [&](std::exception_ptr) { called = true; });
        other->push(SessionEvent::Progress{"dialing"});
    }
    finishCalls();
    other->push(SessionEvent::Progress{"again"});
    queue.runPending();
    EXPECT_FALSE(called);
}

TEST_F(ModelStoreTest, StopEndsTheLoopAndStopsTheBackend) {
    connectWithState();
    store.stop();
    EXPECT_EQ(backend->calls().back(), "stop");
    deliver(SessionEvent::Progress{"dialing"});
    EXPECT_TRUE(store.isConnected());
    store.start();
    finishCalls();
    EXPECT_EQ(store.connection(), ConnectionState::connecting("dialing")); // the waiting event is read then
}
