#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Support/DaemonHarness.h"
#include "Support/RawClient.h"
#include "Platform/ProcessInfo.h"
#include "corvexd/Commands.h"

using namespace corvexd::testing;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat info{};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
}

} // namespace

TEST(CorvexdCommands, StartFindsTheRunningDaemonAndStopEndsIt) {
    DaemonHarness daemon;
    auto id = daemon.run({"build-id"});
    ASSERT_EQ(id.status, 0);
    auto socket = daemon.run({"status", "--print-socket"});
    EXPECT_EQ(socket.out, daemon.socketPath() + "\n");

    ASSERT_EQ(daemon.run({"start"}).status, 0);
    pid_t first = daemon.daemonPid();
    ASSERT_GT(first, 0);
    EXPECT_EQ(::kill(first, 0), 0);
    EXPECT_EQ(modeOf(daemon.runtimeDir()), 0700u);
    EXPECT_EQ(modeOf(daemon.socketPath()), 0600u);
    EXPECT_TRUE(RawClient(daemon.socketPath(), 0ms).connected()) << "start returns only once the socket accepts";

    auto again = daemon.run({"start"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(daemon.daemonPid(), first) << "a second start uses the running daemon";
    auto serveAgain = daemon.run({"serve"});
    EXPECT_EQ(serveAgain.status, 1);
    EXPECT_NE(serveAgain.err.find("already running"), std::string::npos) << serveAgain.err;

    EXPECT_EQ(daemon.run({"status"}).out,
              "corvexd: running (pid " + std::to_string(first) + ") on " + daemon.socketPath() + "\n");
    EXPECT_EQ(daemon.run({}).status, 2) << "usage errors exit 2";
    EXPECT_EQ(daemon.run({"frobnicate"}).status, 2);

    auto builds = daemon.run({"status", "--print-builds"});
    std::string build = id.out.substr(0, id.out.size() - 1);
    EXPECT_EQ(builds.out, "serve=" + build + "\nholder=" + build + "\n");

    EXPECT_EQ(daemon.run({"stop"}).status, 0);
    EXPECT_FALSE(platform::processLives(first)) << "stop returns once the daemon has gone";
    EXPECT_FALSE(std::filesystem::exists(daemon.socketPath()));
    EXPECT_EQ(daemon.run({"status"}).out, "corvexd: not running\n");
    EXPECT_EQ(daemon.run({"stop"}).status, 0) << "stopping nothing is not an error";
    EXPECT_NE(daemon.run({"status", "--print-builds"}).status, 0);

    ASSERT_EQ(daemon.run({"start"}).status, 0) << "a stopped daemon starts again";
    EXPECT_NE(daemon.daemonPid(), first);
    EXPECT_EQ(daemon.run({"shutdown"}).status, 0);
    EXPECT_EQ(daemon.run({"status"}).status, 1);
}

TEST(CorvexdCommands, ConcurrentStartsLeaveOneDaemon) {
    DaemonHarness daemon;
    std::vector<std::thread> starts;
    std::vector<int> statuses(4, -1);
    for (size_t i = 0; i < statuses.size(); ++i) {
        starts.emplace_back([&, i] { statuses[i] = daemon.run({"start"}).status; });
    }
    for (auto& start : starts) start.join();
    for (int status : statuses) EXPECT_EQ(status, 0);
    auto builds = daemon.run({"status", "--print-builds"});
    EXPECT_EQ(builds.status, 0);
    pid_t pid = daemon.daemonPid();
    EXPECT_EQ(daemon.run({"stop"}).status, 0);
    EXPECT_FALSE(platform::processLives(pid));
    EXPECT_FALSE(RawClient(daemon.socketPath(), 0ms).connected()) << "no second daemon was left behind";
}

TEST(CorvexdCommands, RuntimeFolderMustBePrivateToTheUser) {
    DaemonHarness daemon;
    const auto& scratch = daemon.scratch();
    std::string loose = scratch.file("loose");
    ASSERT_EQ(::mkdir(loose.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(loose.c_str(), 0755), 0);
    daemon.setRuntimeDir(loose);
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    EXPECT_EQ(modeOf(loose), 0700u) << "a folder of ours that others could enter is closed";
    EXPECT_EQ(daemon.run({"stop"}).status, 0);

    // The others are refused, and nothing is made in them.
    struct Case {
        std::string name;
        std::function<bool(const std::string&)> make;
        std::string says;
    };
    std::vector<Case> refused{
        {"link", [&](const std::string& at) {
             return ::mkdir(scratch.file("real").c_str(), 0700) == 0 && ::symlink(scratch.file("real").c_str(), at.c_str()) == 0;
         }, "symbolic link"},
        // Others could have planted files in it before it was ours alone.
        {"shared", [](const std::string& at) { return ::mkdir(at.c_str(), 0700) == 0 && ::chmod(at.c_str(), 0777) == 0; },
         "writable"},
        {"file", [](const std::string& at) { return std::ofstream(at).good(); }, ""},
        {std::string(120, 'x'), [](const std::string&) { return true; }, "too long"},
    };
    if (::getuid() == 0) {
        refused.push_back({"foreign", [](const std::string& at) {
            return ::mkdir(at.c_str(), 0700) == 0 && ::chown(at.c_str(), 65534, 65534) == 0;
        }, "owned by another user"});
    }
    for (const auto& each : refused) {
        std::string at = scratch.file(each.name);
        ASSERT_TRUE(each.make(at)) << each.name;
        daemon.setRuntimeDir(at);
        auto started = daemon.run({"start"});
        EXPECT_EQ(started.status, 1) << each.name;
        EXPECT_NE(started.err.find(each.says), std::string::npos) << started.err;
        EXPECT_FALSE(std::filesystem::exists(at + "/corvexd.sock")) << each.name;
    }
    daemon.setRuntimeDir(scratch.file("run"));
}

TEST(CorvexdCommands, BridgeStartsTheDaemonAndRelaysBothWays) {
    DaemonHarness daemon;
    std::string input = corvex::makeJSONFrame(R"({"id":1,"method":"hello","params":{"protocol":1,"client":"t"}})") +
                        corvex::makeJSONFrame(R"({"id":2,"method":"ping"})");
    auto bridged = daemon.run({"bridge"}, {}, input);
    EXPECT_EQ(bridged.status, 0) << bridged.err;
    std::vector<json> replies;
    corvex::FrameParser parser;
    EXPECT_TRUE(parser.append(bridged.out, [&](uint8_t type, std::string_view payload) {
        EXPECT_EQ(type, 1);
        replies.push_back(json::parse(payload));
    }));
    EXPECT_EQ(parser.buffered(), 0u);
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0]["id"], 1);
    EXPECT_EQ(replies[0]["result"]["daemon"], "corvexd");
    EXPECT_EQ(replies[1]["id"], 2);
    EXPECT_TRUE(replies[1].contains("result"));
    EXPECT_GT(daemon.daemonPid(), 0) << "the bridge left its daemon running";
    EXPECT_EQ(daemon.run({"status"}).status, 0);
}

// A client that finds its daemon gone starts a new one at once, often while the stop that
// ended the old one is still waiting for it. The stop is about the daemon it signalled.
TEST(CorvexdCommands, StopEndsItsDaemonWhileClientsStartTheNextOne) {
    DaemonHarness daemon;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(daemon.run({"start"}).status, 0);
        pid_t old = daemon.daemonPid();
        std::atomic<bool> stopping = false;
        std::thread restarter([&] {
            while (!stopping) std::this_thread::sleep_for(1ms);
            for (int i = 0; i < 20; ++i) daemon.run({"start"});
        });
        stopping = true;
        EXPECT_EQ(daemon.run({"stop"}).status, 0) << "round " << round;
        EXPECT_FALSE(platform::processLives(old));
        restarter.join();
        EXPECT_NE(daemon.daemonPid(), old) << "the clients' daemon runs";
    }
    EXPECT_EQ(daemon.run({"shutdown"}).status, 0);
}
