// A real corvexd, real shells, and the clients users have: CorvexdBackend and `corvex`.

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "CorvexKit/Frame.h"
#include "CorvexKit/Layout.h"
#include "CorvexKit/ModelStore.h"
#include "CorvexKit/Tests/Support/RecordingSink.h"
#include "Platform/MainQueue.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvex {
using namespace corvexd::testing;
namespace {

using ::testing::HasSubstr;
using json = nlohmann::json;

std::string text(uint64_t id) { return std::to_string(id); }

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        if (!isBuilt("corvexd") || !isBuilt("corvex")) GTEST_SKIP() << "corvexd and corvex are not built";
        daemon.serve();
    }

    const Tab* tabOf(const ModelState& state, uint64_t pane) {
        auto where = state.location(pane);
        return where ? where->tab : nullptr;
    }

    DaemonHarness daemon;
};

// Whole lines of numbers "n1", "n2", ... in the text, checked to run on from `first`
// without a gap or a repeat; yields the last, or 0 on a fault (reported).
int countedUpTo(const std::string& bytes, int first) {
    std::istringstream words(bytes);
    std::string word;
    int expected = first;
    while (words >> word) {
        if (word.size() < 2 || word[0] != 'n') continue;
        int got = std::atoi(word.c_str() + 1);
        if (got != expected) {
            ADD_FAILURE() << "counted " << got << " where " << expected << " was due";
            return 0;
        }
        ++expected;
    }
    return expected - 1;
}

// The command line against a real daemon: its requests and key names reach a real shell. The
// session rules behind them are the backend contract suite's; the wire form, the CLI's tests.
TEST_F(EndToEnd, TheCommandLineTypesIntoAndReshapesARealSession) {
    auto client = daemon.connect("typist");
    Watcher watch(client);
    CreatedWorkspace created = client->createWorkspace("first", plainShell());
    uint64_t a = created.pane;
    client->subscribe(a);

    Ran sent = daemon.corvex({"send", "-n", text(a), "echo from-$((1+1))-cli"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_TRUE(watch.untilOutput(a, "from-2-cli")) << watch.output(a);
    Ran keyed = daemon.corvex({"keys", text(a), "--text", "echo keyed-$((3*3))", "Enter"});
    EXPECT_EQ(keyed.status, 0) << keyed.err;
    EXPECT_TRUE(watch.untilOutput(a, "keyed-9")) << watch.output(a);
    Ran shown = daemon.corvex({"text", text(a)});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_THAT(shown.out, HasSubstr("from-2-cli"));

    uint64_t c = client->split(a, Direction::right, 0.5, plainShell()).pane;
    client->focus(FocusTarget::pane(a));
    Ran focused = daemon.corvex({"focus", "pane", text(c)});
    EXPECT_EQ(focused.status, 0) << focused.err;
    EXPECT_EQ(client->getState().focus.pane, c);
    Ran closed = daemon.corvex({"close", "pane", text(c)});
    EXPECT_EQ(closed.status, 0) << closed.err;
    ModelState state = client->getState();
    EXPECT_EQ(tabOf(state, a)->layout.panes(), (std::vector<uint64_t>{a}));
    EXPECT_EQ(state.focus.pane, a) << "focus moves to what is left";
    Ran again = daemon.corvex({"close", "pane", text(c)});
    EXPECT_EQ(again.status, 1);
    EXPECT_THAT(again.err, HasSubstr("corvex: not_found: no pane " + text(c)));
    EXPECT_THAT(watch.faults(), ::testing::IsEmpty());
}

// One client reads part of a stream and goes; the next picks up where it stopped, from
// retained bytes (replay) or from the present (live), and the two together hold every
// byte once.
TEST_F(EndToEnd, ResubscribingFromADeliveredPositionLosesAndRepeatsNothing) {
    auto first = daemon.connect("first");
    Watcher firstWatch(first);
    SpawnOptions counter = plainShell();
    counter.command = std::vector<std::string>{
        "/bin/sh", "-c",
        "i=0; for round in 1 2 3; do read go; j=0; while [ $j -lt 3000 ]; do i=$((i+1)); j=$((j+1)); echo n$i; done; done; sleep 600"};
    CreatedWorkspace created = first->createWorkspace("counting", counter);
    uint64_t pane = created.pane;
    first->subscribe(pane);
    first->sendInput(pane, asBytes("\r"));
    ASSERT_TRUE(firstWatch.untilOutput(pane, "n3000\r\n"));
    uint64_t delivered = first->deliveredSeq(pane).value_or(0);
    std::string seenFirst = firstWatch.output(pane);
    first->stop();

    // Replay: the next round is written while no one watches.
    auto second = daemon.connect("second");
    Watcher secondWatch(second);
    second->sendInput(pane, asBytes("\r"));
    ASSERT_TRUE(secondWatch.until([&] {
        std::this_thread::sleep_for(20ms);
        return second->paneText(pane).text().find("n6000") != std::string::npos;
    }));
    Subscription replay = second->subscribe(pane, delivered);
    EXPECT_EQ(replay.mode, Subscription::Mode::replay);
    EXPECT_EQ(replay.seq, delivered);
    ASSERT_TRUE(secondWatch.untilOutput(pane, "n6000\r\n"));
    uint64_t secondDelivered = second->deliveredSeq(pane).value_or(0);
    std::string seenSecond = secondWatch.output(pane);
    second->stop();

    // Live: nothing was written since, so what follows is all there is to send.
    auto third = daemon.connect("third");
    Watcher thirdWatch(third);
    Subscription live = third->subscribe(pane, secondDelivered);
    EXPECT_EQ(live.mode, Subscription::Mode::live);
    EXPECT_EQ(live.seq, secondDelivered);
    third->sendInput(pane, asBytes("\r"));
    ASSERT_TRUE(thirdWatch.untilOutput(pane, "n9000\r\n"));

    EXPECT_EQ(countedUpTo(seenFirst + seenSecond + thirdWatch.output(pane), 1), 9000);
    for (auto* watch : {&firstWatch, &secondWatch, &thirdWatch}) EXPECT_THAT(watch->faults(), ::testing::IsEmpty());
}

// A backend that loses its daemon reconnects to the next one; the new run's byte positions
// mean nothing to the old, so every pane view is told to start over and panes come back
// as snapshots.
TEST_F(EndToEnd, ARestartedDaemonIsReachedAgainAndPaneViewsStartOver) {
    auto client = daemon.connect("survivor");
    platform::ManualMainQueue mainQueue;
    ModelStore store(client, mainQueue);
    store.start();
    ASSERT_TRUE(mainQueue.runUntil([&] { return store.isConnected(); }, 10s));
    std::string before = store.hello()->instance;

    CreatedWorkspace created = client->createWorkspace("kept", plainShell());
    auto sink = std::make_shared<testkit::RecordingSink>();
    store.registerSink(created.pane, sink);
    client->subscribe(created.pane);
    client->sendInput(created.pane, asBytes("echo before-restart\r"));
    auto saw = [&](const std::string& prefix) {
        return std::any_of(sink->calls.begin(), sink->calls.end(),
                           [&](const std::string& call) { return call.rfind(prefix, 0) == 0; });
    };
    ASSERT_TRUE(mainQueue.runUntil([&] { return saw("subscribed snapshot"); }, 10s));
    // The tree is written as its change is delivered, which may trail the reply by a moment;
    // a crash inside that moment would rightly lose the workspace.
    auto treeNamesTheWorkspace = [&] {
        std::ifstream file(daemon.runtimeDir() + "/corvexd.tree");
        std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return text.find("\"kept\"") != std::string::npos;
    };
    ASSERT_TRUE(mainQueue.runUntil(treeNamesTheWorkspace, 10s));

    daemon.kill(SIGKILL);
    ASSERT_TRUE(mainQueue.runUntil([&] { return !store.isConnected(); }, 10s));
    sink->calls.clear();
    daemon.serve();
    ASSERT_TRUE(mainQueue.runUntil([&] { return store.isConnected(); }, 20s)) << daemon.log();
    EXPECT_NE(store.hello()->instance, before);
    EXPECT_TRUE(mainQueue.runUntil([&] { return saw("reset"); }, 10s));
    ASSERT_FALSE(sink->calls.empty());
    EXPECT_EQ(sink->calls.front(), "reset") << "nothing of the new run comes before the reset";

    // The killed daemon's places come back, with a new shell in each, marked as restored.
    ModelState after = client->getState();
    const Pane* restored = after.pane(created.pane);
    ASSERT_TRUE(restored) << "the tree is brought back";
    EXPECT_TRUE(restored->restored.has_value());
    EXPECT_EQ(after.workspaces.at(0).name, "kept");
    EXPECT_TRUE(mainQueue.runUntil([&] { return saw("subscribed snapshot"); }, 10s));
    client->sendInput(created.pane, asBytes("echo in-the-new-$((6*7))\r"));
    auto echoed = [&] {
        return std::any_of(sink->calls.begin(), sink->calls.end(), [](const std::string& call) {
            return call.rfind("output ", 0) == 0 && call.find("in-the-new-42") != std::string::npos;
        });
    };
    EXPECT_TRUE(mainQueue.runUntil(echoed, 10s));
    store.stop();
}

} // namespace
} // namespace corvex
