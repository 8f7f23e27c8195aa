#include <gtest/gtest.h>
#include <random>
#include <signal.h>

#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"
#include "Support/RawClient.h"

using namespace corvexd::testing;

namespace {

// Requests shaped like real ones, with the fields scrambled: the daemon must answer or
// close, never fall over.
json randomRequest(std::mt19937& random) {
    static const std::vector<std::string> methods = {"hello", "ping", "events.subscribe", "state.get", "pane.subscribe",
        "pane.split", "workspace.create", "settings.set", "settings.get", "pane.search", "pane.text", "client.colors",
        "pane.focus", "agent.decide", "", "\xc3\xa9", "unknown"};
    static const std::vector<json> values = {nullptr, true, -1, 0, 1, 18446744073709551615ull, 1.5, "x", json::array(),
        json::object(), json::array({1, "a"}), {{"pane", 1}}, "\xe2\x82\xac"};
    auto pick = [&](const auto& list) { return list[random() % list.size()]; };
    json request = json::object();
    if (random() % 8) request["id"] = random() % 4 ? json(random() % 1000) : pick(values);
    if (random() % 8) request["method"] = random() % 5 ? json(pick(methods)) : pick(values);
    if (random() % 2) {
        json params = random() % 4 ? json::object() : pick(values);
        if (params.is_object()) {
            for (int i = 0, n = static_cast<int>(random() % 4); i < n; ++i) {
                params[pick(std::vector<std::string>{"pane", "protocol", "cols", "rows", "have_seq", "colors", "query",
                                                         "regex", "limit", "before", "scrollback", "scrollback_lines"})] = pick(values);
            }
        }
        request["params"] = params;
    }
    return request;
}

std::string randomFrame(std::mt19937& random) {
    std::string payload(random() % 64, '\0');
    for (auto& byte : payload) byte = static_cast<char>(random());
    switch (random() % 6) {
    case 0: return corvex::makeJSONFrame(randomRequest(random).dump());
    case 1: return corvex::makeJSONFrame(payload);
    case 2: return corvex::makeFrame(static_cast<corvex::FrameType>(random() % 8), payload);
    case 3: return corvex::makeInputFrame(random() % 4, payload);
    case 4: {
        std::string frame = corvex::makeJSONFrame(randomRequest(random).dump());
        return frame.substr(0, random() % frame.size());
    }
    default: return payload; // raw bytes: anything, including a wild length
    }
}

} // namespace

TEST(CorvexdServerFuzz, RandomFramesNeverBringTheDaemonDown) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    pid_t pid = daemon.daemonPid();
    RawClient keeper(daemon.socketPath());
    ASSERT_TRUE(keeper.request("events.subscribe"));
    std::string instance = keeper.request("hello", {{"protocol", 1}, {"client", "keeper"}}).value()["result"]["instance"];
    // Fuzzed input frames reach this pane too, so its program must survive any bytes:
    // Ctrl-D would end a shell and Ctrl-C or Ctrl-Z would stop a plain sleep. Until the
    // shell has run its trap a Ctrl-C still ends it, and a loaded machine starts the shell
    // late: fuzzing waits for the trap to be in place.
    auto created = keeper.request("workspace.create",
        {{"name", "kept"}, {"command", {"/bin/sh", "-c", "trap '' INT QUIT TSTP; echo tra''pped; exec sleep 100000"}}});
    ASSERT_TRUE(created && created->contains("result")) << created.value_or(json());
    uint64_t pane = (*created)["result"]["pane"];
    ASSERT_TRUE(platform::testing::eventually([&] {
        return keeper.request("pane.text", {{"pane", pane}}).value_or(json()).dump().find("trapped") != std::string::npos;
    }));

    std::mt19937 random(20261122);
    for (int round = 0; round < 400; ++round) {
        RawClient fuzzer(daemon.socketPath());
        ASSERT_TRUE(fuzzer.connected()) << "round " << round;
        std::string bytes;
        for (int i = 0, n = 1 + static_cast<int>(random() % 20); i < n; ++i) bytes += randomFrame(random);
        fuzzer.sendBytes(bytes);
        if (round % 10 == 0) {
            auto reply = keeper.request("ping");
            ASSERT_TRUE(reply) << "round " << round;
        }
    }
    EXPECT_EQ(::kill(pid, 0), 0);
    auto hello = keeper.request("hello", {{"protocol", 1}, {"client", "keeper"}});
    ASSERT_TRUE(hello);
    EXPECT_EQ((*hello)["result"]["instance"], instance) << "the same daemon served all along";
    auto state = keeper.request("state.get");
    ASSERT_TRUE(state);
    bool kept = false;
    for (const auto& each : (*state)["result"]["panes"]) kept = kept || each["id"] == pane;
    EXPECT_TRUE(kept) << "the keeper's shell is still there";
}
