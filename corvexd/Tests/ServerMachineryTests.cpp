#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/RawClient.h"
#include "corvexd/Server.h"

using namespace corvexd::testing;
using corvexd::ClientID;
using corvexd::MethodCall;
using corvexd::Server;

namespace {

// A server in this process, with a stand-in session layer: the seams that the session core
// plugs into are driven directly.
class InProcessServer {
public:
    explicit InProcessServer(size_t paneQueueLimit = 8u << 20) {
        corvexd::ServerOptions options;
        options.socketPath = scratch.file("test.sock");
        options.version = "0.0.0";
        options.buildId = "0.0.0-test";
        options.paneQueueLimit = paneQueueLimit;
        server = std::make_unique<Server>(options);
        server->addMethod("pane.subscribe", [this](MethodCall& call) {
            uint64_t pane = call.params.at("pane").get<uint64_t>();
            if (pane == 0) throw corvexd::MethodError{"not_found", "no pane 0"};
            server->subscribePane(call.client, pane, 5);
            call.framesAfterReply.push_back(corvex::makeOutputFrame(pane, 0, "first"));
            return json{{"mode", "replay"}, {"seq", 0}, {"cols", 80}, {"rows", 24}};
        });
        server->addMethod("pane.unsubscribe", [this](MethodCall& call) {
            server->unsubscribePane(call.client, call.params.at("pane").get<uint64_t>());
            return json::object();
        });
        server->addMethod("fails", [](MethodCall& call) -> json {
            call.framesAfterReply.push_back(corvex::makeOutputFrame(1, 0, "never"));
            throw corvex::BackendError("stale", "gone");
        });
        server->setInputHandler([this](ClientID client, uint64_t pane, std::string_view bytes) {
            std::lock_guard guard(lock);
            inputs.push_back({client, pane, std::string(bytes)});
        });
        server->setClientGoneHandler([this](ClientID client) {
            std::lock_guard guard(lock);
            gone.push_back(client);
        });
        server->addFeatures({"pane.keys"});
        thread = std::thread([this] { server->run(); });
    }
    ~InProcessServer() {
        server->stop();
        thread.join();
    }
    std::string socketPath() const { return scratch.file("test.sock"); }

    struct Input {
        ClientID client;
        uint64_t pane;
        std::string bytes;
    };
    corvex::testing::ScratchDirectory scratch;
    std::unique_ptr<Server> server;
    std::thread thread;
    std::mutex lock;
    std::vector<Input> inputs;
    std::vector<ClientID> gone;
};

std::string joined(const std::vector<RawClient::Output>& outputs, uint64_t pane) {
    std::string all;
    for (const auto& output : outputs) {
        if (output.pane != pane) continue;
        EXPECT_EQ(output.seq, all.size()) << "frames arrive gapless and in order";
        all += output.bytes;
    }
    return all;
}

} // namespace

TEST(CorvexdServerMachinery, PaneOutputReachesSubscribersInOrderAfterTheReply) {
    InProcessServer daemon;
    RawClient first(daemon.socketPath()), second(daemon.socketPath()), bystander(daemon.socketPath());
    ASSERT_TRUE(bystander.request("events.subscribe"));
    auto reply = first.request("pane.subscribe", {{"pane", 7}});
    ASSERT_TRUE(reply);
    EXPECT_EQ((*reply)["result"]["mode"], "replay");
    ASSERT_TRUE(second.request("pane.subscribe", {{"pane", 7}}));
    EXPECT_EQ(second.request("hello", {{"protocol", 1}}).value()["result"]["features"], json::array({"ping", "pane.keys"}));

    std::string expected = "first";
    std::thread producer([&] {
        uint64_t seq = 5;
        for (int i = 0; i < 500; ++i) {
            std::string chunk(100, static_cast<char>('a' + i % 26));
            daemon.server->publishOutput(7, seq, chunk);
            daemon.server->publishOutput(8, seq, "other pane");
            seq += chunk.size();
        }
    });
    for (int i = 0; i < 500; ++i) expected += std::string(100, static_cast<char>('a' + i % 26));
    producer.join();
    daemon.server->broadcastEvent("bell", {{"pane", 7}});
    for (auto* client : {&first, &second}) {
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (joined(client->outputs(), 7).size() < expected.size() && !client->closed() &&
               std::chrono::steady_clock::now() < deadline) {
            client->drain(100ms);
        }
        EXPECT_EQ(joined(client->outputs(), 7), expected);
        EXPECT_GE(client->outputs().front().afterReplies, 1u) << "the reply comes before the subscription's bytes";
        EXPECT_FALSE(client->nextEvent(100ms)) << "events only for those that asked";
    }
    auto bell = bystander.nextEvent();
    ASSERT_TRUE(bell);
    EXPECT_EQ((*bell)["event"], "state");
    bell = bystander.nextEvent();
    ASSERT_TRUE(bell);
    EXPECT_EQ((*bell)["event"], "bell");
    EXPECT_TRUE(bystander.outputs().empty());

    ASSERT_TRUE(first.request("pane.unsubscribe", {{"pane", 7}}));
    daemon.server->publishOutput(7, expected.size(), "late");
    second.drain(300ms);
    first.drain(300ms);
    EXPECT_EQ(joined(second.outputs(), 7), expected + "late");
    EXPECT_EQ(joined(first.outputs(), 7), expected);
}

TEST(CorvexdServerMachinery, InputErrorsAndDepartures) {
    InProcessServer daemon;
    RawClient client(daemon.socketPath());
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(3, "ls\r")));
    ASSERT_TRUE(client.sendBytes(corvex::makeFrame(corvex::FrameType::input, "short")));
    auto failed = client.request("fails");
    ASSERT_TRUE(failed);
    EXPECT_EQ((*failed)["error"]["code"], "stale");
    EXPECT_EQ((*failed)["error"]["message"], "gone");
    auto missing = client.request("pane.subscribe", {{"pane", 0}});
    EXPECT_EQ((*missing)["error"]["code"], "not_found");
    auto badParam = client.request("pane.subscribe", {{"pane", "seven"}});
    EXPECT_EQ((*badParam)["error"]["code"], "bad_request");
    auto noParam = client.request("pane.subscribe");
    EXPECT_EQ((*noParam)["error"]["code"], "bad_request");
    client.drain(200ms);
    EXPECT_TRUE(client.outputs().empty()) << "a failed request sends nothing after its reply";
    {
        std::lock_guard guard(daemon.lock);
        ASSERT_EQ(daemon.inputs.size(), 1u) << "an input frame too short for its header is dropped";
        EXPECT_EQ(daemon.inputs[0].pane, 3u);
        EXPECT_EQ(daemon.inputs[0].bytes, "ls\r");
    }
    ClientID id = daemon.inputs[0].client;
    ASSERT_TRUE(client.sendBytes(std::string("\0\0\0\0", 4)));
    EXPECT_TRUE(client.closedByPeer());
    platform::testing::eventually([&] {
        std::lock_guard guard(daemon.lock);
        return !daemon.gone.empty();
    });
    std::lock_guard guard(daemon.lock);
    EXPECT_EQ(daemon.gone, std::vector<ClientID>{id}) << "the session layer learns who left";
}

TEST(CorvexdServerMachinery, ASlowSubscriberIsResyncedWhileAFastOneGetsEverything) {
    InProcessServer daemon(256u << 10);
    RawClient slow(daemon.socketPath()), fast(daemon.socketPath());
    ASSERT_TRUE(slow.request("pane.subscribe", {{"pane", 4}}));
    ASSERT_TRUE(slow.request("events.subscribe"));
    ASSERT_TRUE(fast.request("pane.subscribe", {{"pane", 4}}));

    // The producer keeps pace with the fast reader, as a shell does with a PTY that is read,
    // so only the client that stopped reading falls behind.
    const std::string chunk(32768, 'x');
    constexpr size_t chunks = 256; // 8 MiB
    const size_t total = 5 + chunk.size() * chunks;
    std::atomic<size_t> received = 0;
    std::thread reader([&] {
        auto deadline = std::chrono::steady_clock::now() + 60s;
        while (received < total && !fast.closed() && std::chrono::steady_clock::now() < deadline) {
            fast.drain(20ms);
            size_t count = 0;
            for (const auto& output : fast.outputs()) count += output.bytes.size();
            received = count;
        }
    });
    for (size_t i = 0; i < chunks; ++i) {
        daemon.server->publishOutput(4, 5 + chunk.size() * i, chunk);
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (received + 4 * chunk.size() < 5 + chunk.size() * (i + 1) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
    }
    reader.join();
    EXPECT_EQ(joined(fast.outputs(), 4).size(), total);

    // The slow one now reads: a gapless beginning, then the resync, and no bytes after it.
    std::optional<json> resync;
    while (auto event = slow.nextEvent(2s)) {
        if ((*event)["event"] == "pane.resync") {
            resync = event;
            break;
        }
    }
    ASSERT_TRUE(resync) << "the stream was given up with a resync";
    EXPECT_EQ((*resync)["data"]["pane"], 4);
    size_t before = joined(slow.outputs(), 4).size();
    EXPECT_LT(before, total);
    slow.drain(300ms);
    EXPECT_EQ(joined(slow.outputs(), 4).size(), before);
    EXPECT_FALSE(slow.closed()) << "only the stream is given up, not the client";
    EXPECT_TRUE(slow.request("ping"));
}
