// A running corvexd replaced by another build: the shells, their state and every client's
// byte stream go on as if nothing happened; a holder too old to take over refuses it whole.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <numeric>
#include <sstream>

#include "Platform/Tests/Support/Eventually.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvex {
using namespace corvexd::testing;
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* nextBuild = "9.9.9-upgraded";

class Upgrade : public ::testing::Test {
protected:
    void SetUp() override {
        if (!isBuilt("corvexd")) GTEST_SKIP() << "corvexd is not built";
        daemon.extraEnvironment["CORVEXD_INSTALL_DIR"] = daemon.scratch().file("installed");
    }
    // The upgraded server and the holder aren't the test's children: they go by shutdown.
    void TearDown() override {
        if (isBuilt("corvexd")) corvexd({"shutdown"});
    }

    Ran corvexd(const std::vector<std::string>& arguments, std::map<std::string, std::string> extra = {}) {
        auto env = daemon.environment();
        for (auto& [name, value] : extra) env[name] = value;
        std::vector<std::string> argv{builtProgram("corvexd")};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runProgram(argv, env, {}, 60s);
    }
    Ran upgrade() { return corvexd({"upgrade"}, {{"CORVEXD_BUILD_ID_OVERRIDE", nextBuild}}); }

    // "serve" and "holder" as `status --print-builds` tells them.
    std::map<std::string, std::string> builds() {
        Ran printed = corvexd({"status", "--print-builds"});
        EXPECT_EQ(printed.status, 0) << printed.err;
        std::map<std::string, std::string> out;
        std::istringstream lines(printed.out);
        for (std::string line; std::getline(lines, line);) {
            auto equals = line.find('=');
            if (equals != std::string::npos) out[line.substr(0, equals)] = line.substr(equals + 1);
        }
        return out;
    }

    DaemonHarness daemon;
};

// The numbers of the lines "n<number>" in the order they came, other text skipped.
bool allDigits(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<int> countedLines(const std::string& output) {
    std::vector<int> numbers;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("$ ", 0) == 0) line.erase(0, 2); // a prompt printed before the output
        if (line.size() > 1 && line[0] == 'n' && allDigits(line.substr(1))) numbers.push_back(std::stoi(line.substr(1)));
    }
    return numbers;
}

// The number printed right after the first "<label>" followed by a digit.
std::optional<pid_t> numberAfter(const std::string& output, const std::string& label) {
    for (size_t at = output.find(label); at != std::string::npos; at = output.find(label, at + 1)) {
        size_t start = at + label.size(), end = start;
        while (end < output.size() && output[end] >= '0' && output[end] <= '9') ++end;
        if (end > start) return static_cast<pid_t>(std::stol(output.substr(start, end - start)));
    }
    return std::nullopt;
}

TEST_F(Upgrade, ShellsStateAndStreamsOutliveTheServer) {
    daemon.serve();
    auto client = daemon.connect("watcher");
    Watcher watch(client);

    // One pane keeps state: a variable, a background job, history scrolled off its screen.
    auto kept = client->createWorkspace("kept", plainShell());
    client->subscribe(kept.pane);
    client->sendInput(kept.pane, asBytes("KEPT=yes; sleep 600 & echo job=$!; seq -f 'old-%g' 1 80\r"));
    ASSERT_TRUE(watch.untilOutput(kept.pane, "old-80")) << watch.output(kept.pane);
    auto job = numberAfter(watch.output(kept.pane), "job=");
    ASSERT_TRUE(job);
    auto before = client->getState();
    auto keptShell = before.pane(kept.pane)->pid;
    auto holderBefore = builds()["holder"];
    auto helloBefore = client->lastHello();

    // The other floods its subscriber while the server is swapped.
    auto flooded = client->split(kept.pane, Direction::right, 0.5, plainShell());
    client->subscribe(flooded.pane);
    client->sendInput(flooded.pane, asBytes("i=0; while [ $i -lt 40000 ]; do echo n$i; i=$((i+1)); done; echo flood-$((6*7))\r"));
    ASSERT_TRUE(watch.untilOutput(flooded.pane, "\nn100\r")) << watch.output(flooded.pane);

    Ran upgraded = upgrade();
    ASSERT_EQ(upgraded.status, 0) << upgraded.err << upgraded.out << daemon.log();
    std::cout << upgraded.out;

    ASSERT_TRUE(watch.untilOutput(flooded.pane, "flood-42", 120s)) << watch.output(flooded.pane).size();
    EXPECT_THAT(watch.faults(), IsEmpty());
    auto numbers = countedLines(watch.output(flooded.pane));
    std::vector<int> inOrder(40000);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    auto firstWrong = std::mismatch(numbers.begin(), numbers.end(), inOrder.begin(), inOrder.end());
    EXPECT_EQ(firstWrong.first, numbers.end()) << "a gap or a repeat at line " << (firstWrong.first - numbers.begin());
    EXPECT_EQ(numbers.size(), 40000u) << "every line once";

    // A fast flood can end on the old server; the client may still be on its way over.
    ASSERT_TRUE(platform::testing::eventually([&] { return client->isConnected(); }, 30s));
    auto after = client->getState();
    ASSERT_NE(after.pane(kept.pane), nullptr);
    EXPECT_EQ(after.pane(kept.pane)->pid, keptShell);
    EXPECT_EQ(::kill(*job, 0), 0) << "the background job still runs";
    client->sendInput(kept.pane, asBytes("echo still-$KEPT\r"));
    EXPECT_TRUE(watch.untilOutput(kept.pane, "still-yes")) << watch.output(kept.pane);
    // The history came across with the terminal, not only the screen.
    auto history = client->searchPane(kept.pane, "old-3", {});
    EXPECT_FALSE(history.matches.empty());

    auto now = builds();
    EXPECT_EQ(now["serve"], nextBuild);
    EXPECT_EQ(now["holder"], holderBefore);
    auto hello = client->lastHello();
    ASSERT_TRUE(hello && helloBefore);
    EXPECT_EQ(hello->build, nextBuild);
    EXPECT_EQ(hello->instance, helloBefore->instance) << "identifiers stay valid";
    ASSERT_TRUE(hello->holder);
    EXPECT_EQ(hello->holder->pid, helloBefore->holder->pid);
    EXPECT_NE(hello->pid, helloBefore->pid);
    EXPECT_EQ(hello->holderOutdated, false);
}

TEST_F(Upgrade, AHolderTooOldForTheNewBuildRefusesAndChangesNothing) {
    daemon.extraEnvironment["CORVEXD_HOLDER_PROTOCOL"] = "0";
    daemon.serve();
    auto client = daemon.connect("watcher");
    Watcher watch(client);
    auto created = client->createWorkspace("kept", plainShell());
    client->subscribe(created.pane);
    auto shell = client->getState().pane(created.pane)->pid;
    auto buildsBefore = builds();
    auto hello = client->lastHello();
    ASSERT_TRUE(hello && hello->holder);
    EXPECT_EQ(hello->holder->canUpgrade, false);
    EXPECT_EQ(hello->holderOutdated, true);

    Ran refused = upgrade();
    EXPECT_EQ(refused.status, 3);
    EXPECT_THAT(refused.err, HasSubstr("Nothing was changed"));
    EXPECT_EQ(::access(daemon.scratch().file("installed").c_str(), F_OK), -1) << "nothing installed";
    EXPECT_EQ(builds(), buildsBefore);
    EXPECT_EQ(waitForExit(daemon.pid(), 0ms), std::nullopt) << "the server still runs";
    EXPECT_EQ(client->getState().pane(created.pane)->pid, shell);
    client->sendInput(created.pane, asBytes("echo alive-$((2*21))\r"));
    EXPECT_TRUE(watch.untilOutput(created.pane, "alive-42")) << watch.output(created.pane);
}

// Without a server to serve, an upgrade installs and starts the new build; an upgrade of
// that build by itself is no more than a restart of its server.
TEST_F(Upgrade, WithNothingRunningItStartsTheNewBuild) {
    Ran upgraded = upgrade();
    ASSERT_EQ(upgraded.status, 0) << upgraded.err;
    EXPECT_EQ(builds()["serve"], nextBuild);
    EXPECT_EQ(builds()["holder"], nextBuild);
    Ran again = upgrade();
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(builds()["serve"], nextBuild);
}

} // namespace
} // namespace corvex
