#include <atomic>
#include <map>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "Support/DaemonHarness.h"
#include "Support/RawReplies.h"

using namespace corvexd::testing;

namespace {

json helloParams() { return {{"protocol", 1}, {"client", "tests"}}; }

bool answersPing(const std::string& socketPath) {
    RawClient client(socketPath);
    auto reply = client.request("ping");
    return reply && reply->contains("result");
}

} // namespace

TEST(CorvexdServer, HelloDescribesThisRunAndOnlyWhatIsImplemented) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    std::string build = daemon.run({"build-id"}).out;
    build.pop_back();

    RawClient client(daemon.socketPath());
    auto hello = client.request("hello", helloParams());
    ASSERT_TRUE(hello);
    const json& result = (*hello)["result"];
    EXPECT_EQ(result["protocol"], 1);
    EXPECT_EQ(result["protocol_min"], 1);
    EXPECT_EQ(result["protocol_max"], 1);
    EXPECT_EQ(result["daemon"], "corvexd");
    EXPECT_EQ(result["pid"], daemon.daemonPid());
    EXPECT_EQ(result["build"], build);
    EXPECT_EQ(result["holder"]["build"], build);
    // Every feature announced is served, and the methods of those not announced are unknown.
    const std::map<std::string, std::string> methodOf = {
        {"ping", "ping"}, {"pane.keys", "pane.keys"}, {"split.set_ratio", "split.set_ratio"}, {"move", "workspace.move"},
        {"pane.move", "pane.move"}, {"pane.focus", "pane.focus"}, {"pane.search", "pane.search"},
        {"settings", "settings.get"}, {"client.colors", "client.colors"}, {"restore", "pane.dismiss_restored"},
        {"service", "service.status"},
        {"pane.clipboard", ""}, // events only
        {"agents", "agent.ack"}, {"agent.report.pid", ""}, {"agent.mute", "agent.mute"},
        {"agent.history", "agent.history"}, {"agent.decide", "agent.decide"}, {"git", ""}, {"fs", "fs.stat"},
        {"fs.local_source", "fs.write"}, {"fs.put", "fs.write"}, {"fs.puts", "fs.write"},
        {"fs.put_batch", "fs.put_batch"}};
    for (const auto& feature : result["features"]) {
        auto method = methodOf.find(feature.get<std::string>());
        ASSERT_NE(method, methodOf.end()) << "announced but not known to this test: " << feature;
        if (method->second.empty()) continue;
        EXPECT_NE(errorCode(client.request(method->second, json::object())), "unknown_method") << feature;
    }
    for (const char* unannounced : {"push.list"}) {
        EXPECT_EQ(errorCode(client.request(unannounced, json::object())), "unknown_method") << unannounced;
    }
    EXPECT_FALSE(result["machine"]["hostname"].get<std::string>().empty());
    EXPECT_EQ(result["machine"]["os"], "linux");
    // A new run's instance differs: EndToEnd.ARestartedDaemonIsReachedAgainAndPaneViewsStartOver.
    EXPECT_EQ(RawClient(daemon.socketPath()).request("hello", helloParams()).value()["result"]["instance"],
              result["instance"])
        << "one run, one instance, whoever asks";
}

TEST(CorvexdServer, RequestsAreAnsweredByIdAndBadOnesWithErrors) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());

    auto ping = client.request("ping");
    ASSERT_TRUE(ping);
    EXPECT_EQ((*ping)["result"], json::object());

    EXPECT_EQ(errorCode(client.request("warp.engage", {{"factor", 9}})), "unknown_method");

    ASSERT_TRUE(client.sendJSON({{"id", 77}, {"method", 5}}));
    ASSERT_TRUE(client.sendJSON({{"id", 78}, {"method", "ping"}, {"params", json::array({1})}}));
    auto state = client.request("state.get");
    ASSERT_TRUE(state);
    EXPECT_EQ((*state)["result"]["workspaces"], json::array());
    ASSERT_GE(client.replies().size(), 5u);
    EXPECT_EQ(errorCode(client.replies()[2]), "bad_request");
    EXPECT_EQ(client.replies()[2]["id"], 77);
    EXPECT_EQ(errorCode(client.replies()[3]), "bad_request");

    // Parameters of the wrong kind, or none at all, are the client's fault; a method's own
    // failure keeps its code.
    EXPECT_EQ(errorCode(client.request("pane.subscribe", {{"pane", "seven"}})), "bad_request");
    EXPECT_EQ(errorCode(client.request("pane.subscribe")), "bad_request");
    EXPECT_EQ(errorCode(client.request("pane.subscribe", {{"pane", 424242}})), "not_found");
    client.drain(200ms);
    EXPECT_TRUE(client.outputs().empty()) << "a failed request sends nothing after its reply";

    // Unknown frame kinds, input frames too short for their header and input for panes that
    // don't exist leave the connection alone.
    ASSERT_TRUE(client.sendBytes(corvex::makeFrame(static_cast<corvex::FrameType>(42), "future")));
    ASSERT_TRUE(client.sendBytes(corvex::makeFrame(corvex::FrameType::input, "short")));
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(12345, "echo hi\r")));
    EXPECT_TRUE(client.request("ping"));
}

TEST(CorvexdServer, PaneBytesFollowTheSubscribeReplyAndStopAtUnsubscribe) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient leaving(daemon.socketPath()), staying(daemon.socketPath()), typist(daemon.socketPath());
    uint64_t pane = createPane(typist, shell());
    for (RawClient* watcher : {&leaving, &staying}) result(watcher->request("pane.subscribe", {{"pane", pane}}));
    ASSERT_TRUE(typist.sendBytes(corvex::makeInputFrame(pane, "echo one$((1))\r")));
    ASSERT_TRUE(leaving.untilOutput(pane, "one1"));
    EXPECT_GE(leaving.outputs().front().afterReplies, 1u) << "the reply comes before the subscription's bytes";

    result(leaving.request("pane.unsubscribe", {{"pane", pane}}));
    ASSERT_TRUE(typist.sendBytes(corvex::makeInputFrame(pane, "echo two$((1))\r")));
    ASSERT_TRUE(staying.untilOutput(pane, "two1"));
    leaving.drain(300ms);
    EXPECT_EQ(leaving.outputOf(pane).find("two1"), std::string::npos);
    typist.drain(100ms);
    EXPECT_TRUE(typist.outputs().empty()) << "bytes only for those that subscribed";
}

TEST(CorvexdServer, AClientThatBreaksTheProtocolIsClosedAlone) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient bystander(daemon.socketPath());
    ASSERT_TRUE(bystander.request("events.subscribe"));

    std::vector<std::string> offences = {
        std::string("\0\0\0\0", 4),                  // length 0
        std::string("\x01\0\0\x01", 4) + "x",        // above the largest frame
        corvex::makeJSONFrame("{not json"),          // text that doesn't parse
        corvex::makeJSONFrame("[1,2,3]"),            // not an object
        corvex::makeJSONFrame(R"({"method":"ping"})") // a request without an id
    };
    for (const auto& offence : offences) {
        RawClient offender(daemon.socketPath());
        ASSERT_TRUE(offender.request("ping"));
        ASSERT_TRUE(offender.sendBytes(offence));
        EXPECT_TRUE(offender.closedByPeer()) << json(offence).dump();
        EXPECT_TRUE(bystander.request("ping")) << "the others go on";
    }
    // A frame cut in the middle of its length is not an offence; it waits for the rest.
    RawClient slowWriter(daemon.socketPath());
    std::string frame = corvex::makeJSONFrame(R"({"id":5,"method":"ping"})");
    ASSERT_TRUE(slowWriter.sendBytes(frame.substr(0, 2)));
    EXPECT_FALSE(slowWriter.closedByPeer(200ms));
    ASSERT_TRUE(slowWriter.sendBytes(frame.substr(2)));
    EXPECT_TRUE(slowWriter.request("ping"));
    EXPECT_EQ(slowWriter.replies().front()["id"], 5);
}

TEST(CorvexdServer, ManyClientsAtOnce) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    constexpr int clients = 40;
    constexpr int requests = 25;
    std::atomic<int> answered = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            RawClient client(daemon.socketPath());
            for (int r = 0; r < requests; ++r) {
                if (client.request(r % 2 ? "ping" : "hello", helloParams())) ++answered;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(answered, clients * requests);
}

TEST(CorvexdServer, AClientThatStopsReadingIsDroppedWithoutStallingOthers) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient stalled(daemon.socketPath());
    // Enough hello replies to pass the daemon's queue bound many times over, never read.
    std::string burst;
    std::string hello = corvex::makeJSONFrame(R"({"id":1,"method":"hello","params":{"protocol":1,"client":"x"}})");
    for (int i = 0; i < 80000; ++i) burst += hello;
    std::thread writer([&] { stalled.sendBytes(burst); });
    EXPECT_TRUE(answersPing(daemon.socketPath())) << "the daemon keeps serving while one client stalls";
    writer.join();
    EXPECT_TRUE(answersPing(daemon.socketPath()));
    EXPECT_TRUE(stalled.closedByPeer(30s)) << "the stalled client is given up on";
    EXPECT_LT(stalled.replies().size(), 80000u);
}

TEST(CorvexdServer, EphemeralDaemonLeavesWithItsLastClient) {
    DaemonHarness daemon;
    pid_t serve = daemon.spawnServe({{"CORVEXD_EPHEMERAL", "exit"}});
    {
        RawClient first(daemon.socketPath());
        ASSERT_TRUE(first.request("ping"));
        EXPECT_FALSE(waitForExit(serve, 200ms)) << "no exit before anyone has come and gone";
        {
            RawClient second(daemon.socketPath());
            ASSERT_TRUE(second.request("ping"));
        }
        EXPECT_FALSE(waitForExit(serve, 300ms)) << "one client is still there";
        EXPECT_TRUE(first.request("ping"));
    }
    EXPECT_EQ(waitForExit(serve, 10s), 0);
    EXPECT_NE(daemon.run({"status"}).status, 0);
}

TEST(CorvexdServer, TerminationSignalsEndServeCleanly) {
    DaemonHarness daemon;
    pid_t serve = daemon.spawnServe();
    RawClient client(daemon.socketPath());
    ASSERT_TRUE(client.request("ping"));
    ::kill(serve, SIGTERM);
    EXPECT_EQ(waitForExit(serve, 10s), 0);
    EXPECT_TRUE(client.closedByPeer());
    EXPECT_FALSE(RawClient(daemon.socketPath(), 0ms).connected());
}
