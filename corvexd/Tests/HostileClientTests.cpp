// The daemon against clients that ask too much, skip the handshake, leave mid-request or
// stop reading; and its own leftovers at the end. A real daemon, real shells.

#include <gtest/gtest.h>
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "CorvexKit/Frame.h"
#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"
#include "Support/RawReplies.h"

using namespace corvexd::testing;
using platform::testing::eventually;

namespace {

size_t workspaceCount(const std::string& socketPath) {
    RawClient client(socketPath);
    return result(client.request("state.get"))["workspaces"].size();
}

// Where the reply to `id` stands among the client's replies, once it has come.
std::optional<size_t> replyPosition(const RawClient& client, int64_t id) {
    const auto& replies = client.replies();
    for (size_t at = 0; at < replies.size(); ++at) {
        if (replies[at].value("id", int64_t(0)) == id) return at;
    }
    return std::nullopt;
}

// A pane whose history holds `rows` numbered rows ("row 1" up), and then waits.
uint64_t paneWithHistory(RawClient& client, int rows) {
    result(client.request("settings.set", {{"scrollback_lines", rows + 1000}}));
    std::string fill = "seq -f 'row %g' 1 " + std::to_string(rows) + "; echo fil''led; exec sleep 600";
    uint64_t pane = createPane(client, shell({"/bin/sh", "-c", fill}));
    EXPECT_TRUE(eventually([&] {
        auto text = result(client.request("pane.text", {{"pane", pane}}));
        return text.dump().find("filled") != std::string::npos;
    }, 60s));
    return pane;
}

// Whether any process of the session that `leader` led still runs; zombies have ended.
bool sessionLives(pid_t leader) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string stat = corvex::testing::readFile(entry.path().string() + "/stat");
        auto close = stat.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream fields(stat.substr(close + 1));
        char state = 0;
        pid_t parent = 0, group = 0, session = 0;
        if (fields >> state >> parent >> group >> session && session == leader && state != 'Z') return true;
    }
    return false;
}

} // namespace

TEST(HostileClient, SizesNoScreenCouldShowAreRefused) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());

    auto huge = shell();
    huge["cols"] = 65535;
    huge["rows"] = 65535;
    EXPECT_EQ(errorCode(client.request("workspace.create", huge)), "bad_request");
    uint64_t pane = createPane(client, shell());
    json tooBig[] = {{{"cols", 65535}, {"rows", 65535}}, {{"cols", 2147483647}, {"rows", 24}},
                     {{"cols", 80}, {"rows", 1001}}, {{"cols", 0}, {"rows", 24}}, {{"cols", -5}, {"rows", 24}}};
    for (const auto& size : tooBig) {
        EXPECT_EQ(errorCode(client.request("pane.resize", {{"pane", pane}, {"cols", size["cols"]}, {"rows", size["rows"]}})),
                  "bad_request") << size;
        EXPECT_EQ(errorCode(client.request("pane.viewport", {{"pane", pane}, {"cols", size["cols"]}, {"rows", size["rows"]}})),
                  "bad_request") << size;
        EXPECT_EQ(errorCode(client.request("pane.subscribe", {{"pane", pane}, {"viewport", size}})), "bad_request") << size;
    }
    // The largest screen is still served.
    EXPECT_TRUE(result(client.request("pane.resize", {{"pane", pane}, {"cols", 1000}, {"rows", 1000}})).is_object());
    EXPECT_EQ(workspaceCount(daemon.socketPath()), 1u);
}

TEST(HostileClient, SearchesAreBoundedInQueryAndInPatternCost) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    uint64_t pane = createPane(client, shell());

    std::string longQuery(10 << 20, 'a');
    EXPECT_EQ(errorCode(client.request("pane.search", {{"pane", pane}, {"query", longQuery}})), "bad_request");
    // Back-references make matching exponential; nested counted repeats make the compiled
    // automaton huge.
    for (const char* pattern : {"(a*)*\\1", "((a{1,200}){1,200}){1,200}", "(x{0,60000})"}) {
        EXPECT_EQ(errorCode(client.request("pane.search", {{"pane", pane}, {"query", pattern}, {"regex", true}})),
                  "bad_request") << pattern;
    }
    EXPECT_TRUE(result(client.request("pane.search", {{"pane", pane}, {"query", "(ab|cd){2,8}x"}, {"regex", true}}))
                    .contains("matches"));
}

// A search through a full history, and a snapshot of it, run beside the serving thread:
// requests sent after them, by the same client or by anyone else, are answered first, and
// the search still finds everything, as does a search for a pane that isn't there; the
// snapshot still follows its own reply.
TEST(HostileClient, AHeavySearchOrSnapshotHoldsUpNoOtherRequest) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient searcher(daemon.socketPath()), other(daemon.socketPath());
    uint64_t pane = paneWithHistory(searcher, 20000);

    // Search and ping in one write, so the daemon reads them together: the ping can only
    // come first when the search doesn't run where requests are read.
    json search{{"id", 9001}, {"method", "pane.search"}, {"params", {{"pane", pane}, {"query", "row"}, {"limit", 10000}}}};
    json ping{{"id", 9002}, {"method", "ping"}};
    ASSERT_TRUE(searcher.sendBytes(corvex::makeJSONFrame(search.dump()) + corvex::makeJSONFrame(ping.dump())));
    EXPECT_TRUE(result(other.request("ping")).is_object());

    auto position = [&](int64_t id) { return replyPosition(searcher, id); };
    ASSERT_TRUE(eventually([&] { return searcher.request("ping", nullptr, 1s) && position(9001).has_value(); }, 60s));
    ASSERT_TRUE(position(9002).has_value());
    EXPECT_LT(*position(9002), *position(9001));
    const json& found = searcher.replies()[*position(9001)];
    ASSERT_TRUE(found.contains("result")) << found.dump();
    EXPECT_EQ(found["result"]["matches"].size(), 10000u);
    EXPECT_TRUE(found["result"].contains("next"));
    EXPECT_EQ(errorCode(other.request("pane.search", {{"pane", pane + 1000}, {"query", "row"}})), "not_found");

    RawClient client(daemon.socketPath());
    json subscribe{{"id", 9001}, {"method", "pane.subscribe"}, {"params", {{"pane", pane}, {"scrollback", 20000}}}};
    ASSERT_TRUE(client.sendBytes(corvex::makeJSONFrame(subscribe.dump()) + corvex::makeJSONFrame(ping.dump())));
    EXPECT_TRUE(result(other.request("ping")).is_object());
    ASSERT_TRUE(eventually([&] { return (client.drain(20ms), !client.snapshots().empty()); }, 60s));
    ASSERT_TRUE(replyPosition(client, 9001) && replyPosition(client, 9002));
    EXPECT_LT(*replyPosition(client, 9002), *replyPosition(client, 9001));
    const auto& snapshot = client.snapshots().back();
    EXPECT_EQ(snapshot.seq, client.replies()[*replyPosition(client, 9001)]["result"]["seq"].get<uint64_t>());
    EXPECT_NE(snapshot.bytes.find("row 10000"), std::string::npos) << "the history was left out of the snapshot";
}

// A request too large to parse in a moment is parsed aside: another client is answered
// meanwhile, while the sender's own later request waits its turn. Garbage that large still
// closes its sender alone.
TEST(HostileClient, AHugeRequestDelaysOnlyItsSender) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient big(daemon.socketPath()), other(daemon.socketPath());
    createPane(big, shell());

    // A method answered on the serving thread, so that its reply's place shows where it ran.
    json huge{{"id", 7001}, {"method", "state.get"}, {"params", {{"padding", std::string(15 << 20, 'q')}}}};
    json ping{{"id", 7002}, {"method", "ping"}};
    ASSERT_TRUE(big.sendBytes(corvex::makeJSONFrame(huge.dump()) + corvex::makeJSONFrame(ping.dump())));
    EXPECT_TRUE(result(other.request("ping")).is_object());
    big.drain(0ms);
    EXPECT_FALSE(replyPosition(big, 7001)) << "another client's ping waited for the huge request";

    ASSERT_TRUE(eventually([&] { return (big.drain(20ms), replyPosition(big, 7002).has_value()); }, 60s));
    ASSERT_TRUE(replyPosition(big, 7001));
    EXPECT_LT(*replyPosition(big, 7001), *replyPosition(big, 7002));
    EXPECT_EQ(big.replies()[*replyPosition(big, 7001)]["result"]["workspaces"].size(), 1u);

    RawClient garbage(daemon.socketPath());
    ASSERT_TRUE(garbage.sendBytes(corvex::makeJSONFrame(std::string(1 << 20, 'x'))));
    EXPECT_TRUE(garbage.closedByPeer(30s));
    EXPECT_TRUE(result(other.request("ping")).is_object());
}

// The pane's terminal is read a slice at a time during a search, so what the pane prints
// meanwhile is parsed and streamed without waiting for the search to end.
TEST(HostileClient, APanesOutputFlowsDuringALongSearchOfIt) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    result(client.request("settings.set", {{"scrollback_lines", 13000}}));
    auto wide = shell();
    wide["cols"] = 200;
    uint64_t pane = createPane(client, wide);
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", pane}}));
    std::string row = "row %g " + std::string(180, '.');
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(pane, "seq -f '" + row + "' 1 12000; echo fil''led\r")));
    ASSERT_TRUE(client.untilOutput(pane, "filled", 120s));

    // The search finds nothing, so it reads every row, for a long while; a mark typed after
    // it was sent comes back long before its reply.
    ASSERT_TRUE(client.sendJSON({{"id", 8000}, {"method", "pane.search"},
                                 {"params", {{"pane", pane}, {"query", "^nowhere[0-9]+$"}, {"regex", true}}}}));
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(pane, "echo ma''rk\r")));
    ASSERT_TRUE(client.untilOutput(pane, "mark", 60s));
    client.drain(300ms);
    EXPECT_FALSE(replyPosition(client, 8000)) << "the pane's output waited for the search to end";
    ASSERT_TRUE(eventually([&] { return (client.drain(20ms), replyPosition(client, 8000).has_value()); }, 60s));
    EXPECT_TRUE(client.replies()[*replyPosition(client, 8000)]["result"]["matches"].empty());
}

// Clients that subscribe while the pane prints get a snapshot and then every byte after it,
// once, in order; those already watching lose nothing meanwhile.
TEST(HostileClient, SubscribersJoiningAPrintingPaneGetASnapshotThenEveryByteOnce) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    std::vector<std::unique_ptr<RawClient>> clients;
    clients.push_back(std::make_unique<RawClient>(daemon.socketPath()));
    result(clients[0]->request("settings.set", {{"scrollback_lines", 30000}}));
    std::string script = "seq -f 'old %g' 1 20000; i=0; while [ $i -lt 15000 ]; do i=$((i+1)); echo line$i; "
                         "if [ $((i % 50)) = 0 ]; then sleep 0.01; fi; done; echo end$((40+2)); exec sleep 600";
    uint64_t pane = createPane(*clients[0], shell({"/bin/sh", "-c", script}));
    auto join = [&](RawClient& client) {
        return result(client.request("pane.subscribe", {{"pane", pane}, {"scrollback", 30000}}))["mode"] == "snapshot";
    };
    ASSERT_TRUE(join(*clients[0]));

    auto lastJoin = std::chrono::steady_clock::now();
    auto finished = [&](const RawClient& client) { return client.outputOf(pane).find("end42") != std::string::npos; };
    bool done = eventually([&] {
        for (auto& client : clients) client->drain(5ms);
        if (clients.size() < 4 && std::chrono::steady_clock::now() - lastJoin > 500ms && !finished(*clients[0])) {
            clients.push_back(std::make_unique<RawClient>(daemon.socketPath()));
            EXPECT_TRUE(join(*clients.back()));
            lastJoin = std::chrono::steady_clock::now();
        }
        return std::all_of(clients.begin(), clients.end(), [&](const auto& client) { return finished(*client); });
    }, 120s);
    ASSERT_TRUE(done);
    EXPECT_GT(clients.size(), 2u) << "the pane ended before others could join it";

    for (size_t index = 0; index < clients.size(); ++index) {
        const RawClient& client = *clients[index];
        SCOPED_TRACE("client " + std::to_string(index));
        ASSERT_EQ(client.snapshots().size(), 1u);
        uint64_t next = client.snapshots().front().seq;
        std::string text;
        for (const auto& output : client.outputs()) {
            ASSERT_EQ(output.seq, next) << "a gap or a repeat in the stream";
            next += output.bytes.size();
            text += output.bytes;
        }
        // The numbered lines after the snapshot follow one another without a hole or a repeat.
        std::optional<long> previous;
        for (size_t at = text.find("line"); at != std::string::npos; at = text.find("line", at + 4)) {
            size_t end = text.find('\n', at);
            if (end == std::string::npos) break;
            if (at > 0 && text[at - 1] != '\n') continue; // the partial line the stream began in
            long number = std::stol(text.substr(at + 4, end - at - 4));
            if (previous) {
                ASSERT_EQ(number, *previous + 1);
            }
            previous = number;
        }
        EXPECT_TRUE(previous.has_value());
    }
}

TEST(HostileClient, NothingIsServedBeforeHelloAndAnUnknownProtocolIsNamed) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath(), 10s, RawClient::Greeting::none);

    EXPECT_EQ(errorCode(client.request("workspace.create", shell())), "bad_request");
    EXPECT_EQ(errorCode(client.request("ping")), "bad_request");
    auto refused = client.request("hello", {{"protocol", 99}, {"client", "future"}});
    ASSERT_EQ(errorCode(refused), "unsupported_protocol");
    EXPECT_NE((*refused)["error"]["message"].get<std::string>().find("1 to 1"), std::string::npos) << refused->dump();
    EXPECT_EQ(errorCode(client.request("ping")), "bad_request") << "a refused hello opens nothing";

    EXPECT_EQ(result(client.request("hello", {{"protocol", 1}, {"client", "tests"}}))["protocol"], 1);
    EXPECT_TRUE(result(client.request("ping")).is_object());
    EXPECT_EQ(workspaceCount(daemon.socketPath()), 0u);
}

TEST(HostileClient, RequestsSentJustBeforeTheCloseAreCarriedOut) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    constexpr int rounds = 8;
    for (int round = 0; round < rounds; ++round) {
        RawClient client(daemon.socketPath(), 10s, RawClient::Greeting::none);
        std::string frames =
            corvex::makeJSONFrame(json{{"id", 1}, {"method", "hello"}, {"params", {{"protocol", 1}}}}.dump()) +
            corvex::makeJSONFrame(json{{"id", 2}, {"method", "workspace.create"}, {"params", shell()}}.dump());
        ASSERT_TRUE(client.sendBytes(frames));
        ::close(client.fd());
        client.forgetDescriptor();
    }
    EXPECT_TRUE(eventually([&] { return workspaceCount(daemon.socketPath()) == rounds; }))
        << workspaceCount(daemon.socketPath()) << " of " << rounds;
}

TEST(HostileClient, ShutdownEndsProgramsThatIgnoreHangUpAndTerminate) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    std::vector<pid_t> groups;
    for (const char* ignored : {"HUP", "HUP TERM"}) {
        // Children that inherit the ignored signals keep coming, so some are born while the
        // daemon is ending the session.
        std::string script = std::string("trap '' ") + ignored + "; echo stubborn; while :; do sleep 3 & sleep 0.05; done";
        uint64_t pane = createPane(client, shell({"/bin/sh", "-c", script}));
        ASSERT_TRUE(client.request("pane.subscribe", {{"pane", pane}}));
        ASSERT_TRUE(eventually([&] {
            client.drain(20ms);
            return client.outputOf(pane).find("stubborn") != std::string::npos ||
                   (!client.snapshots().empty() && client.snapshots().back().bytes.find("stubborn") != std::string::npos);
        }));
        auto state = result(client.request("state.get"));
        for (const auto& entry : state["panes"]) {
            if (entry["id"] == pane) groups.push_back(entry["pid"].get<pid_t>());
        }
    }
    ASSERT_EQ(groups.size(), 2u);
    ASSERT_EQ(daemon.run({"shutdown"}).status, 0);
    // A daemon that died before the shutdown leaves its log behind: show why.
    std::string log = corvex::testing::readFile(daemon.runtimeDir() + "/corvexd.log");
    for (pid_t leader : groups) {
        EXPECT_FALSE(sessionLives(leader)) << "the session of " << leader << " outlived the daemon\n" << log;
    }
}

TEST(HostileClient, RuntimeFilesAreNeitherFollowedNorLeftBehind) {
    DaemonHarness daemon;
    std::string victim = daemon.scratch().path() + "/victim";
    std::ofstream(victim) << "precious\n";
    ASSERT_EQ(::mkdir(daemon.runtimeDir().c_str(), 0700), 0);
    for (const char* planted : {"corvexd.pid", "holder.pid"}) {
        std::string link = daemon.runtimeDir() + "/" + planted;
        ASSERT_EQ(::symlink(victim.c_str(), link.c_str()), 0);
        EXPECT_NE(daemon.run({"start"}).status, 0) << planted;
        EXPECT_EQ(corvex::testing::readFile(victim), "precious\n") << "a planted " << planted << " was followed";
        std::filesystem::remove(link);
        daemon.run({"shutdown"});
    }

    ASSERT_EQ(daemon.run({"start"}).status, 0);
    ASSERT_EQ(daemon.run({"shutdown"}).status, 0);
    auto leftovers = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(daemon.runtimeDir())) {
            names.push_back(entry.path().filename());
        }
        return names;
    };
    EXPECT_TRUE(eventually([&] { return leftovers().empty(); })) << testing::PrintToString(leftovers());
}

TEST(HostileClient, AtTheDescriptorLimitTheDaemonWaitsInsteadOfSpinning) {
    DaemonHarness daemon;
    pid_t pid = daemon.spawnServe();
    RawClient first(daemon.socketPath());
    ASSERT_TRUE(first.request("ping"));
    size_t open = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        (void)entry;
        ++open;
    }
    rlimit original{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, nullptr, &original), 0);
    rlimit tight{open + 2, original.rlim_max};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);

    std::vector<std::unique_ptr<RawClient>> crowd;
    for (int i = 0; i < 6; ++i) {
        crowd.push_back(std::make_unique<RawClient>(daemon.socketPath(), 10s, RawClient::Greeting::none));
        crowd.back()->sendJSON({{"id", 1}, {"method", "hello"}, {"params", {{"protocol", 1}}}});
    }
    auto cpuTicks = [&] {
        std::string stat = corvex::testing::readFile("/proc/" + std::to_string(pid) + "/stat");
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::string field;
        long ticks = 0;
        for (int index = 3; fields >> field; ++index) {
            if (index == 14 || index == 15) ticks += std::stol(field);
        }
        return ticks;
    };
    long before = cpuTicks();
    std::this_thread::sleep_for(1s);
    long used = cpuTicks() - before;
    EXPECT_LT(used, ::sysconf(_SC_CLK_TCK) / 4) << "the serving thread spun on the listener";

    // Those turned away are answered once descriptors are free again.
    crowd.front().reset();
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &original, nullptr), 0);
    for (size_t i = 1; i < crowd.size(); ++i) {
        EXPECT_TRUE(eventually([&] { return crowd[i]->replies().size() == 1 || (crowd[i]->drain(50ms), false); }))
            << "client " << i << " was never answered";
    }
}

TEST(HostileClient, AResyncedPaneComesBackWithASnapshotAndTheLiveStream) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    uint64_t pane = createPane(client, shell());
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", pane}}));
    // Far more than the daemon keeps queued for one client, while the client reads nothing.
    std::string flood = "head -c 40000000 /dev/zero | tr '\\0' x; sleep 1; echo done$((40+2))\r";
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(pane, flood)));
    std::this_thread::sleep_for(3s);

    bool resynced = false;
    ASSERT_TRUE(eventually([&] {
        while (auto event = client.nextEvent(10ms)) resynced |= (*event)["event"] == "pane.resync";
        return resynced;
    }, 20s)) << "the stalled client was never let go";
    EXPECT_TRUE(eventually([&] {
        client.drain(20ms);
        bool snapshot = !client.snapshots().empty();
        std::string shown = client.outputOf(pane) + (snapshot ? client.snapshots().back().bytes : "");
        return snapshot && shown.find("done42") != std::string::npos;
    }, 30s)) << "the pane stayed frozen after the resync";
}

TEST(HostileClient, FloodingPanesWaitForASlowReaderInsteadOfResyncingIt) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    constexpr int panes = 4;
    std::map<uint64_t, uint64_t> next;   // where each pane's stream must go on
    std::map<uint64_t, std::string> tail; // the last bytes, for a marker split between frames
    for (int i = 0; i < panes; ++i) {
        uint64_t pane = createPane(client, shell());
        next[pane] = result(client.request("pane.subscribe", {{"pane", pane}}))["seq"].get<uint64_t>();
    }
    for (const auto& [pane, seq] : next) {
        ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(
            pane, "head -c 4000000 /dev/zero | tr '\\0' y; echo end$((40+2))\r")));
    }
    // It reads in bursts with pauses, far slower than the programs write but never long
    // enough to count as stalled: without holding them back the daemon would queue, then
    // give up, most of their output.
    std::set<uint64_t> finished;
    std::vector<std::string> faults;
    size_t checked = 0;
    bool resynced = false;
    bool done = eventually([&] {
        client.drain(5ms);
        std::this_thread::sleep_for(600ms);
        for (; checked < client.outputs().size(); ++checked) {
            const auto& output = client.outputs()[checked];
            if (output.seq != next[output.pane]) faults.push_back("gap in pane " + std::to_string(output.pane));
            next[output.pane] = output.seq + output.bytes.size();
            std::string& seen = tail[output.pane];
            seen = (seen + output.bytes).substr(std::max<size_t>(seen.size() + output.bytes.size(), 16) - 16);
            if (seen.find("end42") != std::string::npos) finished.insert(output.pane);
        }
        while (auto event = client.nextEvent(0ms)) resynced |= (*event)["event"] == "pane.resync";
        return finished.size() == panes;
    }, 120s);
    EXPECT_TRUE(done) << finished.size() << " of " << panes << " panes came to their end";
    EXPECT_FALSE(resynced) << "a client that reads was given up on";
    EXPECT_TRUE(faults.empty()) << faults.front();
}
