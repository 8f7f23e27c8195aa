#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <sys/socket.h>
#include <thread>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/SessionCodecJSON.h"
#include "CorvexKit/UnixSocketTransport.h"
#include "Platform/Locked.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/FakeDaemon.h"
#include "Support/FileTestSupport.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using namespace corvex::testing;
using namespace std::chrono_literals;
using json = nlohmann::json;
using platform::testing::eventually;

namespace {

// A socket transport that notes when each open happened on the test's clock, can fail
// opens on demand, and can hold back the shutdown of its streams.
class TestTransport final : public CorvexdTransport {
public:
    struct Shared {
        std::mutex mutex;
        std::vector<platform::TimePoint> opens;
        std::vector<int> heldShutdowns;
        bool holdShutdowns = false;
    };

    TestTransport(std::string path, std::shared_ptr<platform::ManualClock> clock)
        : path_(std::move(path)), clock_(std::move(clock)) {}

    std::optional<double> heartbeat;
    const std::shared_ptr<Shared> shared = std::make_shared<Shared>();

    std::string name() const override { return "test-daemon"; }
    double maxReconnectDelay() const override { return 2.0; }
    std::optional<double> heartbeatInterval() const override { return heartbeat; }

    std::shared_ptr<ByteStream> open(const ProgressHandler& progress) override {
        {
            std::lock_guard guard(shared->mutex);
            shared->opens.push_back(clock_->now());
        }
        progress("Connecting");
        int fd = UnixSocketTransport::connect(path_);
        return ByteStream::make(fd, fd, [shared = shared, fd] {
            std::lock_guard guard(shared->mutex);
            if (shared->holdShutdowns) shared->heldShutdowns.push_back(fd);
            else ::shutdown(fd, SHUT_RDWR);
        });
    }

    // Seconds between consecutive opens, on the test's clock.
    std::vector<double> gaps() {
        std::lock_guard guard(shared->mutex);
        std::vector<double> out;
        for (size_t i = 1; i < shared->opens.size(); ++i) {
            out.push_back(std::chrono::duration<double>(shared->opens[i] - shared->opens[i - 1]).count());
        }
        return out;
    }
    platform::TimePoint lastOpen() {
        std::lock_guard guard(shared->mutex);
        return shared->opens.back();
    }
    size_t openCount() {
        std::lock_guard guard(shared->mutex);
        return shared->opens.size();
    }
    void releaseHeldShutdowns() {
        std::lock_guard guard(shared->mutex);
        shared->holdShutdowns = false;
        for (int fd : shared->heldShutdowns) ::shutdown(fd, SHUT_RDWR);
        shared->heldShutdowns.clear();
    }

private:
    std::string path_;
    std::shared_ptr<platform::ManualClock> clock_;
};

class CorvexdBackendTest : public ::testing::Test {
protected:
    ScratchDirectory dir;
    FakeDaemon daemon{dir.file("corvexd.sock")};
    std::shared_ptr<platform::ManualClock> clock = std::make_shared<platform::ManualClock>();
    std::shared_ptr<TestTransport> transport = std::make_shared<TestTransport>(daemon.socketPath(), clock);
    std::shared_ptr<platform::Locked<std::vector<std::string>>> logs =
        std::make_shared<platform::Locked<std::vector<std::string>>>();
    std::shared_ptr<platform::Locked<std::vector<std::string>>> traces =
        std::make_shared<platform::Locked<std::vector<std::string>>>();
    std::shared_ptr<CorvexdBackend> backend;
    std::shared_ptr<SessionEventStream> events;

    // Back-off waits move the test's clock instead of passing real time.
    void makeBackend(std::optional<RetryPolicy> retry = std::nullopt, bool realTime = false) {
        CorvexdBackend::Configuration configuration;
        configuration.transport = transport;
        configuration.clientName = "tests";
        configuration.log = [logs = logs](const std::string& line) {
            logs->withLock([&](auto& all) { all.push_back(line); });
        };
        configuration.trace = [traces = traces](const std::string& line) {
            traces->withLock([&](auto& all) { all.push_back(line); });
        };
        configuration.retry = retry;
        if (!realTime) {
            configuration.clock = clock;
            configuration.sleep = [clock = clock](platform::Duration d) {
                clock->advance(d);
                std::this_thread::sleep_for(1ms);
            };
        }
        backend = CorvexdBackend::make(configuration);
        events = backend->events();
    }

    void SetUp() override { makeBackend(); }

    void TearDown() override {
        if (backend) backend->stop();
    }

    void startConnected() {
        daemon.listen();
        backend->start();
        ASSERT_TRUE(next<SessionEvent::Connected>());
    }

    // The next event of that kind; the others before it go to `skipped`.
    template <typename T>
    std::optional<T> next(std::vector<SessionEvent>* skipped = nullptr, platform::Duration timeout = 5s) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            auto event = events->next(deadline - std::chrono::steady_clock::now());
            if (!event) return std::nullopt;
            if (auto wanted = event->as<T>()) return *wanted;
            if (skipped) skipped->push_back(*event);
        }
        return std::nullopt;
    }

    bool logged(const std::string& line) {
        return logs->withLock([&](auto& all) { return std::find(all.begin(), all.end(), line) != all.end(); });
    }

    std::vector<std::string> methods() {
        std::vector<std::string> out;
        for (const auto& request : daemon.requests()) out.push_back(request.method);
        return out;
    }
};

} // namespace

// ---------------------------------------------------------------- handshake and envelope

TEST_F(CorvexdBackendTest, HandshakeThenEventsSubscribeAndTheFirstState) {
    ModelState state;
    state.rev = 9;
    daemon.setStateOnSubscribe(toJSON(state));
    json hello = FakeDaemon::defaultHello("A");
    hello["features"] = {"ping", "warp", "pane.focus"};
    daemon.setHello(hello);
    daemon.listen();

    backend->start();
    std::vector<SessionEvent> before;
    auto connected = next<SessionEvent::Connected>(&before);
    ASSERT_TRUE(connected);
    EXPECT_EQ(before, std::vector<SessionEvent>{SessionEvent::Progress{"Connecting"}});
    EXPECT_EQ(connected->hello.features(), (FeatureSet{Hello::Feature::ping, Hello::Feature::paneFocus}));
    auto first = next<SessionEvent::State>();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->state.rev, 9u);

    auto requests = daemon.requests();
    ASSERT_EQ(methods(), (std::vector<std::string>{"hello", "events.subscribe"}));
    EXPECT_EQ(requests[0].params, (json{{"protocol", 1}, {"client", "tests"}}));
    EXPECT_TRUE(requests[1].params.is_null()) << "a request without params leaves the key out";
    EXPECT_TRUE(logged("connected to corvexd 1.2 pid 42 instance A"));
    EXPECT_EQ(backend->lastHello()->instance, "A");

    backend->focusPane(5);
    EXPECT_EQ(daemon.nextRequest("pane.focus")->params, (json{{"pane", 5}}));
}

TEST_F(CorvexdBackendTest, FeatureGatesSendNothingToAnOlderDaemon) {
    json hello = FakeDaemon::defaultHello();
    hello.erase("features");
    daemon.setHello(hello);
    startConnected();
    EXPECT_TRUE(backend->lastHello()->features().empty());

    backend->focusPane(5);
    backend->setTerminalColors(TerminalColors{0xffffff, 0x000000});
    backend->getState(); // a request after them: anything they sent would come before it
    EXPECT_EQ(methods(), (std::vector<std::string>{"hello", "events.subscribe", "state.get"}));
}

TEST_F(CorvexdBackendTest, TerminalColorsAreSentOnceForEqualValuesAndAgainAtEachConnect) {
    json hello = FakeDaemon::defaultHello();
    hello["features"] = {"client.colors"};
    daemon.setHello(hello);
    startConnected();

    TerminalColors colors{0xf0e0d0, 0x102030};
    colors.cursor = 0xabcdef;
    backend->setTerminalColors(colors);
    backend->setTerminalColors(colors);
    auto sent = daemon.nextRequest("client.colors");
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->params, (json{{"colors", {{"foreground", "#f0e0d0"}, {"background", "#102030"}, {"cursor", "#abcdef"}}}}));

    backend->reconnectNow();
    ASSERT_TRUE(next<SessionEvent::Connected>());
    ASSERT_TRUE(daemon.nextRequest("events.subscribe"));
    std::vector<std::string> second;
    for (const auto& request : daemon.requests()) {
        if (request.connection == 2) second.push_back(request.method);
    }
    EXPECT_EQ(second, (std::vector<std::string>{"hello", "client.colors", "events.subscribe"}));
    size_t colorRequests = 0;
    for (const auto& method : methods()) colorRequests += method == "client.colors";
    EXPECT_EQ(colorRequests, 2u);
}

TEST_F(CorvexdBackendTest, RepliesAndEventsAreToldApartAndJunkIsDropped) {
    auto handler = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "state.get") return false;
        // Before the answer: a reply nobody waits for (with an event name, still a reply),
        // an event with a non-numeric id, and frames that must be dropped one by one.
        peer.sendJSON(json{{"id", 999}, {"event", "bell"}, {"data", {{"pane", 1}}}});
        peer.sendJSON(json{{"id", "x"}, {"event", "bell"}, {"data", {{"pane", 2}}}});
        peer.sendRaw(makeJSONFrame("{not json"));
        peer.sendRaw(makeJSONFrame("[1,2]"));
        peer.sendRaw(makeJSONFrame(R"({"neither":true})"));
        peer.sendRaw(makeFrame(FrameType::output, std::string(15, '\0')));
        peer.sendRaw(makeFrame(FrameType::snapshot, std::string(19, '\0')));
        peer.sendRaw(makeFrame(FrameType::fileData, std::string(16, '\0')));
        peer.sendRaw(makeFrame(FrameType::output, ""));
        peer.sendRaw(makeInputFrame(3, "typed"));
        peer.sendRaw(makeFrame(static_cast<FrameType>(77), "future"));
        peer.sendJSON(json{{"event", "bell"}, {"data", {{"pane", 3}}}});
        peer.reply(request.id, toJSON(ModelState{}));
        return true;
    });
    startConnected();
    backend->getState();
    std::vector<SessionEvent> skipped;
    auto bell = next<SessionEvent::Bell>(&skipped);
    ASSERT_TRUE(bell);
    EXPECT_EQ(bell->pane, 2u);
    EXPECT_TRUE(skipped.empty());
    EXPECT_EQ(next<SessionEvent::Bell>()->pane, 3u);
    EXPECT_TRUE(backend->isConnected());
}

TEST_F(CorvexdBackendTest, ErrorsFromTheDaemonAndFromNoConnection) {
    EXPECT_EQ(failureOf([&] { backend->getState(); }), BackendError("disconnected", "not connected to corvexd"));
    auto handler = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method == "workspace.close") {
            peer.replyError(request.id, "not_found", "no workspace 3");
        } else if (request.method == "tab.close") {
            peer.sendJSON(json{{"id", request.id}, {"error", json::object()}, {"result", json::object()}});
        } else if (request.method == "workspace.create") {
            peer.sendJSON(json{{"id", request.id}});
        } else {
            return false;
        }
        return true;
    });
    startConnected();
    EXPECT_EQ(failureOf([&] { backend->closeWorkspace(3); }), BackendError("not_found", "no workspace 3"));
    EXPECT_EQ(failureOf([&] { backend->closeTab(3); }), BackendError("internal", "corvexd error"));
    // No result reads as an empty object, which is no CreatedWorkspace.
    EXPECT_THROW(backend->createWorkspace("w"), DecodingError);
    EXPECT_EQ(backend->request("ping"), json::object());
}

// The session methods are held to the daemon's answers by the backend contract suite; these
// are the ones no end here serves yet, so their wire form is pinned down here.
TEST_F(CorvexdBackendTest, MethodsNoEndServesYetSpeakTheirParams) {
    AgentHistory history;
    history.pane = 3;
    history.max = 100;
    DaemonSettings settings;
    settings.scrollbackLines = 5000;
    settings.limits.scrollbackLines = {100, 100000, 10000};
    DaemonService service;
    service.supported = true;
    service.needs = {"linger"};
    PushDevice device{"d", "phone", "relay", "prod"};
    std::map<std::string, json> results{
        {"agent.history", toJSON(history)},       {"settings.set", toJSON(settings)},
        {"service.status", toJSON(service)},      {"service.install", toJSON(service)},
        {"service.uninstall", toJSON(service)},   {"push.list", json{{"devices", {toJSON(device)}}}},
    };
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        auto result = results.find(request.method);
        if (result == results.end()) return false;
        peer.reply(request.id, result->second);
        return true;
    });
    startConnected();

    PushRegistration registration{"d", "h", "k", "phone", "relay", "prod"};
    EXPECT_EQ(backend->agentHistory(3, 10, 1.5), history);
    EXPECT_EQ(backend->setSettings(DaemonSettings::Change{5000}), settings);
    EXPECT_EQ(backend->serviceStatus(), service);
    EXPECT_EQ(backend->installService(), service);
    EXPECT_EQ(backend->uninstallService(), service);
    backend->pushRegister(registration);
    backend->pushUnregister("d");
    EXPECT_EQ(backend->pushList(), std::vector<PushDevice>{device});
    EXPECT_TRUE(backend->pushActivities().empty()) << "the activities key is absent from that reply";
    backend->pushTest("d");
    backend->pushActivity(3, "d", "tok", "prod");
    backend->pushActivityEnd(3, "d");

    std::vector<std::pair<std::string, json>> expected{
        {"agent.history", {{"pane", 3}, {"limit", 10}, {"since", 1.5}}},
        {"settings.set", {{"scrollback_lines", 5000}}},
        {"service.status", nullptr},
        {"service.install", nullptr},
        {"service.uninstall", nullptr},
        {"push.register",
         {{"device", "d"}, {"handle", "h"}, {"key", "k"}, {"label", "phone"}, {"relay", "relay"}, {"env", "prod"}}},
        {"push.unregister", {{"device", "d"}}},
        {"push.list", nullptr},
        {"push.list", nullptr},
        {"push.test", {{"device", "d"}}},
        {"push.activity", {{"pane", 3}, {"device", "d"}, {"token", "tok"}, {"env", "prod"}}},
        {"push.activity_end", {{"pane", 3}, {"device", "d"}}},
    };
    auto requests = daemon.requests();
    ASSERT_EQ(requests.size(), expected.size() + 2);
    for (size_t i = 0; i < expected.size(); ++i) {
        const auto& request = requests[i + 2];
        EXPECT_EQ(request.method, expected[i].first) << i;
        EXPECT_EQ(request.params, expected[i].second) << request.method;
        EXPECT_EQ(request.id, static_cast<int64_t>(i + 3)) << "one id counter, counting up";
    }
}

TEST_F(CorvexdBackendTest, PingFallsBackToStateGetOnAnOlderDaemon) {
    auto handler = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "ping") return false;
        peer.replyError(request.id, "unknown_method", "ping");
        return true;
    });
    startConnected();
    backend->ping();
    EXPECT_EQ(methods(), (std::vector<std::string>{"hello", "events.subscribe", "ping", "state.get"}));
}

// ---------------------------------------------------------------- pane data

TEST_F(CorvexdBackendTest, SubscribeThenFramesInOrderWithDeliveredPositions) {
    auto handler = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "pane.subscribe") return false;
        peer.reply(request.id, json{{"mode", "snapshot"}, {"seq", 500}, {"cols", 80}, {"rows", 24}});
        peer.sendRaw(makeSnapshotFrame(7, 500, 80, 24, "screen"));
        peer.sendRaw(makeOutputFrame(7, 500, "abc"));
        peer.sendRaw(makeOutputFrame(7, 503, ""));
        return true;
    });
    startConnected();
    Subscription subscription = backend->subscribe(7, std::nullopt, 1000, Size{80, 24});
    EXPECT_EQ(subscription, (Subscription{Subscription::Mode::snapshot, 500, 80, 24}));
    EXPECT_EQ(daemon.nextRequest("pane.subscribe")->params,
              (json{{"pane", 7}, {"scrollback", 1000}, {"viewport", {{"cols", 80}, {"rows", 24}}}}));

    std::vector<SessionEvent> got;
    auto last = next<SessionEvent::Output>(&got);
    ASSERT_TRUE(last);
    ASSERT_TRUE(next<SessionEvent::Output>(&got));
    EXPECT_EQ(got, (std::vector<SessionEvent>{SessionEvent::Subscribed{7, subscription},
                                              SessionEvent::Snapshot{7, 500, 80, 24, Bytes{'s', 'c', 'r', 'e', 'e', 'n'}}}));
    EXPECT_EQ(*last, (SessionEvent::Output{7, 500, Bytes{'a', 'b', 'c'}}));
    EXPECT_EQ(backend->deliveredSeq(7), 503u) << "empty output leaves the position at its seq";

    backend->sendInput(7, asBytes("\x1b[A and more than sixteen bytes"));
    EXPECT_EQ(traces->copy(), (std::vector<std::string>{"\u2190 SNAPSHOT pane 7 seq 500 80x24 6B",
                                                         "\u2190 OUTPUT pane 7 seq 500 3B", "\u2190 OUTPUT pane 7 seq 503 0B",
                                                         "\u2192 INPUT pane 7 31B 1b5b4120616e64206d6f726520746861"}));
}

TEST_F(CorvexdBackendTest, ReplyHookRunsBeforeSubscribedAndBeforeTheCallerResumes) {
    startConnected();
    while (events->tryNext()) {
    }
    std::atomic<bool> hookRan{false};
    size_t eventsAtHook = 99;
    backend->request("pane.subscribe", json{{"pane", 7}}, 7, [&](const json& result) {
        eventsAtHook = events->pending();
        EXPECT_EQ(result["mode"], "snapshot");
        hookRan = true;
    });
    EXPECT_TRUE(hookRan);
    EXPECT_EQ(eventsAtHook, 0u);
    EXPECT_TRUE(next<SessionEvent::Subscribed>());
}

TEST_F(CorvexdBackendTest, FailedSubscribeRaisesPushesNothingAndIsRetriedAtReconnect) {
    std::atomic<int> refusals{1};
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "pane.subscribe" || refusals-- <= 0) return false;
        peer.replyError(request.id, "not_found", "no pane 11");
        return true;
    });
    startConnected();
    EXPECT_EQ(failureOf([&] { backend->subscribe(11); }), BackendError("not_found", "no pane 11"));
    backend->reconnectNow();
    std::vector<SessionEvent> got;
    ASSERT_TRUE(next<SessionEvent::Subscribed>(&got));
    for (const auto& event : got) EXPECT_FALSE(event.as<SessionEvent::Subscribed>());
    ASSERT_TRUE(daemon.nextRequest("pane.subscribe"));
    auto again = daemon.nextRequest("pane.subscribe");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->connection, 2);
    EXPECT_EQ(again->params, (json{{"pane", 11}}));
    EXPECT_TRUE(eventually([&] { return logged("resubscribed pane 11 from nothing: snapshot at 0"); }));
}

TEST_F(CorvexdBackendTest, ResubscribesWithHaveSeqOnlyForTheSameInstance) {
    startConnected();
    auto peer = daemon.nextConnection();
    backend->subscribe(7, std::nullopt, 2000, Size{80, 24});
    backend->subscribe(8);
    backend->subscribe(9);
    peer->sendRaw(makeOutputFrame(7, 0, std::string(1000, 'x')));
    ASSERT_TRUE(eventually([&] { return backend->deliveredSeq(7) == 1000u; }));
    backend->setViewport(7, Size{100, 40});
    backend->unsubscribe(9);
    EXPECT_FALSE(backend->deliveredSeq(9));

    // A late frame for the unsubscribed pane is forwarded and noted all the same.
    peer->sendRaw(makeOutputFrame(9, 5, "late"));
    std::optional<SessionEvent::Output> late;
    while ((late = next<SessionEvent::Output>()) && late->pane != 9) {
    }
    ASSERT_TRUE(late);
    EXPECT_EQ(backend->deliveredSeq(9), 9u);

    auto resubscriptions = [&](int connection) {
        std::map<uint64_t, json> byPane;
        for (const auto& request : daemon.requests()) {
            if (request.connection == connection && request.method == "pane.subscribe") {
                byPane[request.params["pane"].get<uint64_t>()] = request.params;
            }
        }
        return byPane;
    };

    backend->reconnectNow();
    ASSERT_TRUE(eventually([&] { return resubscriptions(2).size() == 2; }));
    auto same = resubscriptions(2);
    EXPECT_EQ(same[7], (json{{"pane", 7}, {"have_seq", 1000}, {"scrollback", 2000}, {"viewport", {{"cols", 100}, {"rows", 40}}}}));
    EXPECT_EQ(same[8], (json{{"pane", 8}, {"have_seq", 0}})) << "the reply's seq stands when no frame came";
    EXPECT_TRUE(eventually([&] { return logged("resubscribed pane 7 from 1000: live at 1000"); }));

    daemon.setHello(FakeDaemon::defaultHello("B"));
    backend->reconnectNow();
    ASSERT_TRUE(eventually([&] { return resubscriptions(3).size() == 2; }));
    auto fresh = resubscriptions(3);
    EXPECT_FALSE(fresh[7].contains("have_seq"));
    EXPECT_FALSE(fresh[8].contains("have_seq"));
    EXPECT_TRUE(eventually([&] { return logged("resubscribed pane 7 from nothing: snapshot at 0"); }));
}

TEST_F(CorvexdBackendTest, InputFramesAreQueuedInOrderAndDroppedWithoutAConnection) {
    std::string typed = "ls\r";
    backend->sendInput(3, asBytes(typed)); // no connection: dropped
    startConnected();
    for (int i = 0; i < 5; ++i) backend->sendInput(3, asBytes(typed));
    backend->getState();
    EXPECT_EQ(daemon.inputFrames(), 5);
}

// ---------------------------------------------------------------- losing the link

TEST_F(CorvexdBackendTest, WaitingCallsFailWithTheCloseReasonAndTheLinkComesBack) {
    struct Case {
        std::function<void(FakePeer&, int64_t)> misbehave;
        std::string reason;
    };
    std::vector<Case> cases{
        {[](FakePeer& peer, int64_t id) {
             std::string reply = makeJSONFrame(json{{"id", id}, {"result", json::object()}}.dump());
             peer.sendRaw(reply.substr(0, reply.size() / 2));
             peer.close();
         },
         "the connection closed"},
        {[](FakePeer& peer, int64_t) { peer.sendRaw(std::string("\0\0\0\0\1", 5)); }, "protocol error"},
        {[](FakePeer& peer, int64_t) {
             std::string tooLong;
             appendBigEndian(tooLong, maxFrameLength + 1, 4);
             peer.sendRaw(tooLong);
         },
         "protocol error"},
    };
    std::atomic<size_t> current{0};
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "state.get") return false;
        cases[current].misbehave(peer, request.id);
        return true;
    });
    startConnected();
    for (size_t i = 0; i < cases.size(); ++i) {
        current = i;
        EXPECT_EQ(failureOf([&] { backend->getState(); }), BackendError("disconnected", cases[i].reason)) << i;
        std::vector<SessionEvent> got;
        ASSERT_TRUE(next<SessionEvent::Connected>(&got)) << i;
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got.front(), SessionEvent(SessionEvent::Disconnected{cases[i].reason}));
        EXPECT_TRUE(logged("disconnected: " + cases[i].reason));
        // A link lost while the loop is still finishing its connect is retried by that loop,
        // without a disconnected event; wait for the loop to end so each case stands alone.
        ASSERT_TRUE(eventually([&] { return backend->isConnected() && !backend->isReconnecting(); }));
    }
    EXPECT_EQ(transport->gaps(), (std::vector<double>{0, 0, 0})) << "a lost link is retried at once";
}

TEST_F(CorvexdBackendTest, StopFailsWaitingCallsAndStartRestoresSubscriptions) {
    std::atomic<bool> silent{true};
    auto handler = daemon.setHandler([&](FakePeer&, const ReceivedRequest& request) { return request.method == "state.get" && silent; });
    startConnected();
    backend->subscribe(7);

    std::promise<BackendError> waited;
    std::thread caller([&] { waited.set_value(failureOf([&] { backend->getState(); })); });
    ASSERT_TRUE(daemon.nextRequest("state.get"));
    backend->stop();
    backend->stop();
    EXPECT_EQ(waited.get_future().get(), BackendError("disconnected", "the backend was stopped"));
    caller.join();
    EXPECT_EQ(failureOf([&] { backend->getState(); }), BackendError("disconnected", "not connected to corvexd"));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(daemon.connectionCount(), 1) << "a stopped backend doesn't reconnect";

    silent = false;
    backend->start();
    auto resubscribe = daemon.nextRequest("pane.subscribe");
    ASSERT_TRUE(resubscribe);
    EXPECT_EQ(resubscribe->connection, 2);
    EXPECT_EQ(resubscribe->params, (json{{"pane", 7}, {"have_seq", 0}}));
    backend->getState();
}

TEST_F(CorvexdBackendTest, CloseOfAStreamThatIsNoLongerCurrentChangesNothing) {
    startConnected();
    transport->shared->mutex.lock();
    transport->shared->holdShutdowns = true;
    transport->shared->mutex.unlock();
    backend->stop(); // the old stream keeps reading until its shutdown is released
    backend->start();
    ASSERT_TRUE(next<SessionEvent::Connected>());

    std::atomic<bool> hold{true};
    std::promise<std::pair<std::shared_ptr<FakePeer>, int64_t>> held;
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "state.get" || !hold) return false;
        hold = false;
        held.set_value({std::shared_ptr<FakePeer>(std::shared_ptr<FakePeer>{}, &peer), request.id});
        return true;
    });
    std::promise<bool> answered;
    std::thread caller([&] {
        try {
            backend->getState();
            answered.set_value(true);
        } catch (const std::exception&) {
            answered.set_value(false);
        }
    });
    auto [peer, id] = held.get_future().get();
    transport->releaseHeldShutdowns();
    std::this_thread::sleep_for(200ms); // time for the old reader to report its close
    peer->reply(id, toJSON(ModelState{}));
    EXPECT_TRUE(answered.get_future().get());
    caller.join();
    EXPECT_TRUE(backend->isConnected());
    EXPECT_EQ(daemon.connectionCount(), 2);
    while (auto event = events->tryNext()) EXPECT_FALSE(event->as<SessionEvent::Disconnected>());
}

TEST_F(CorvexdBackendTest, ALinkThatDiesRightAfterConnectingIsRetriedWithoutWaiting) {
    std::atomic<int> drops{2};
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "events.subscribe" || drops-- <= 0) return false;
        peer.reply(request.id, json::object());
        peer.close();
        return true;
    });
    daemon.listen();
    backend->start();
    ASSERT_TRUE(eventually([&] { return daemon.connectionCount() == 3 && backend->isConnected(); }));
    EXPECT_EQ(transport->gaps(), (std::vector<double>{0, 0}));
}

// ---------------------------------------------------------------- retrying

// The doubling itself shows in the back-off tests below; a count that long is no overflow.
TEST(RetryPolicy, ALongRunOfFailuresStaysAtTheLongestWait) {
    EXPECT_EQ((RetryPolicy{std::nullopt, 0.1, 2.0}.delay(5000)), 2.0);
}

TEST_F(CorvexdBackendTest, AFailedFirstStartRaisesThenRetriesWithBackOffUntilTheDaemonComes) {
    BackendError error = failureOf([&] { backend->start(); });
    EXPECT_EQ(error, BackendError("disconnected", "can't connect to " + daemon.socketPath() + ": No such file or directory"));
    EXPECT_EQ(backend->retryPolicy(), (RetryPolicy{std::nullopt, 0.1, 2.0})) << "the transport's longest wait";
    ASSERT_TRUE(eventually([&] { return transport->openCount() >= 8; }));
    daemon.listen();
    std::vector<SessionEvent> got;
    ASSERT_TRUE(next<SessionEvent::Connected>(&got));
    auto gaps = transport->gaps();
    ASSERT_GE(gaps.size(), 7u);
    gaps.resize(7);
    std::vector<double> expected{0.1, 0.2, 0.4, 0.8, 1.6, 2.0, 2.0};
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(gaps[i], expected[i], 1e-9) << i;
    EXPECT_TRUE(got.end() != std::find(got.begin(), got.end(),
                                       SessionEvent(SessionEvent::Disconnected{error.message()})));
    EXPECT_TRUE(logged("reconnect to test-daemon failed: " + error.message()));
}

TEST_F(CorvexdBackendTest, RemotePolicyPausesAndReconnectNowTriesOnceMore) {
    makeBackend(RetryPolicy::remote());
    EXPECT_EQ(failureOf([&] { backend->start(); }).code(), "disconnected");
    auto paused = next<SessionEvent::RetryPaused>();
    ASSERT_TRUE(paused);
    EXPECT_EQ(paused->reason, "can't connect to " + daemon.socketPath() + ": No such file or directory");
    EXPECT_TRUE(logged("test-daemon: 3 attempts failed; waiting to be asked to reconnect"));
    EXPECT_EQ(transport->gaps(), (std::vector<double>{1.0, 2.0}));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(transport->openCount(), 3u) << "a pause waits to be asked";

    // The count of failures is kept: one more failure pauses again at once.
    auto asked = clock->now();
    backend->reconnectNow();
    ASSERT_TRUE(next<SessionEvent::RetryPaused>());
    EXPECT_EQ(transport->openCount(), 4u);
    EXPECT_LE(transport->lastOpen() - asked, 100ms) << "the pause ends within one poll";

    daemon.listen();
    backend->reconnectNow();
    ASSERT_TRUE(next<SessionEvent::Connected>());
}

// ---------------------------------------------------------------- heartbeat

TEST_F(CorvexdBackendTest, HeartbeatStaysQuietWhileBytesFlowAndPingsWhenTheyStop) {
    transport->heartbeat = 0.4;
    makeBackend(std::nullopt, true);
    startConnected();
    auto peer = daemon.nextConnection();
    uint64_t seq = 0;
    for (auto until = std::chrono::steady_clock::now() + 1200ms; std::chrono::steady_clock::now() < until;) {
        peer->sendRaw(makeOutputFrame(1, seq, "tick"));
        seq += 4;
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(methods(), (std::vector<std::string>{"hello", "events.subscribe"}));
    ASSERT_TRUE(daemon.nextRequest("ping"));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(backend->isConnected());
    EXPECT_EQ(daemon.connectionCount(), 1);
}

TEST_F(CorvexdBackendTest, HeartbeatDropsAPeerThatGoesSilent) {
    transport->heartbeat = 0.1;
    makeBackend(std::nullopt, true);
    std::atomic<bool> silent{true};
    auto handler = daemon.setHandler([&](FakePeer&, const ReceivedRequest& request) { return request.method == "ping" && silent; });
    startConnected();
    auto dropped = next<SessionEvent::Disconnected>();
    ASSERT_TRUE(dropped);
    EXPECT_EQ(dropped->reason, "reconnecting");
    silent = false;
    EXPECT_TRUE(logged("no answer from test-daemon in 0 s; reconnecting"));
    ASSERT_TRUE(next<SessionEvent::Connected>());
    EXPECT_EQ(daemon.connectionCount(), 2);
}

// ---------------------------------------------------------------- file layer hook

TEST_F(CorvexdBackendTest, FileFramesAndEventsReachTheFileChannelWhichFailsWithTheLink) {
    struct Channel final : CorvexdFileChannel {
        platform::Locked<std::vector<std::string>> seen;
        void fileData(const FileDataFrame& frame) override {
            seen.withLock([&](auto& all) {
                all.push_back("data " + std::to_string(frame.stream) + "@" + std::to_string(frame.offset) +
                              (frame.fin ? " fin " : " ") + std::string(frame.bytes));
            });
        }
        void fileEvent(const std::string& name, const json& data) override {
            seen.withLock([&](auto& all) { all.push_back(name + " " + data.dump()); });
        }
        void failAll(const BackendError& error) override {
            seen.withLock([&](auto& all) { all.push_back("fail " + error.code() + ": " + error.message()); });
        }
    };
    auto channel = std::make_shared<Channel>();
    backend->setFileChannel(channel);
    startConnected();
    auto peer = daemon.nextConnection();
    peer->sendRaw(makeFileDataFrame(4, 65536, false, "chunk"));
    peer->event("fs.ack", json{{"stream", 4}, {"offset", 65541}});
    peer->sendRaw(makeFileDataFrame(4, 65541, true, ""));
    peer->close();
    ASSERT_TRUE(next<SessionEvent::Connected>());
    backend->stop();
    EXPECT_EQ(channel->seen.copy(), (std::vector<std::string>{"data 4@65536 chunk", R"(fs.ack {"offset":65541,"stream":4})",
                                                              "data 4@65541 fin ", "fail disconnected: the connection closed",
                                                              "fail disconnected: the backend was stopped"}));
}

TEST_F(CorvexdBackendTest, AFailedHandshakeFailsTheAttemptAndTheLoopTriesAgain) {
    daemon.setHello(json{{"protocol", 1}, {"daemon", "corvexd"}});
    daemon.listen();
    EXPECT_THROW(backend->start(), DecodingError);
    ASSERT_TRUE(eventually([&] { return daemon.connectionCount() >= 2; }));

    std::atomic<bool> refuse{true};
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "hello" || !refuse) return false;
        peer.replyError(request.id, "unsupported", "protocol 1 is too old");
        return true;
    });
    daemon.setHello(FakeDaemon::defaultHello());
    auto refused = next<SessionEvent::Disconnected>();
    while (refused && refused->reason != "protocol 1 is too old") refused = next<SessionEvent::Disconnected>();
    ASSERT_TRUE(refused);
    refuse = false;
    ASSERT_TRUE(next<SessionEvent::Connected>());
    ASSERT_TRUE(daemon.nextRequest("events.subscribe"));
    auto sent = methods();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "events.subscribe"), 1) << "nothing follows a failed hello";
}
