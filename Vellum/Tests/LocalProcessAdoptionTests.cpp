// A child that someone else started and stays parent of: one LocalProcess reads it, lets go,
// and another takes it over without a byte lost or read twice.

#include "Vellum/LocalProcess.h"
#include "Vellum/PseudoTerminalHelpers.h"
#include "Support/ProcessLeakCheck.h"
#include "Support/ProcessRecorder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace vellum;
using namespace std::chrono_literals;
using Collector = vellum::testing::ProcessRecorder;

namespace {

class LocalProcessAdoption : public vellum::testing::ProcessLeakCheck {};

// The numbers of the lines "n<number>", checked to run 0, 1, 2... without a gap or repeat.
int countedTo(const std::string& text) {
    std::istringstream lines(text);
    int expected = 0;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.size() < 2 || line[0] != 'n') continue;
        int got = std::stoi(line.substr(1));
        if (got != expected) {
            ADD_FAILURE() << "n" << got << " where n" << expected << " was due";
            return -1;
        }
        ++expected;
    }
    return expected;
}

// Stands for the holder: we are the child's parent, so we reap it and tell its status.
std::function<std::optional<int>()> reapedBy(pid_t pid) {
    return [pid]() -> std::optional<int> {
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid) return std::nullopt;
        return status;
    };
}

TEST_F(LocalProcessAdoption, ASecondReaderGoesOnExactlyWhereTheFirstLetGo) {
    constexpr int lines = 30000;
    auto spawned = PseudoTerminalHelpers::spawn(
        "/bin/sh", {"sh", "-c", "i=0; while [ $i -lt " + std::to_string(lines) + " ]; do echo n$i; i=$((i+1)); done; exit 7"},
        {"PATH=/usr/bin:/bin"}, std::nullopt, winsize{24, 80, 0, 0});
    ASSERT_TRUE(spawned.child);
    auto [pid, master] = *spawned.child;

    auto first = std::make_shared<Collector>();
    auto firstProcess = LocalProcess::create(first);
    ASSERT_FALSE(firstProcess->adoptProcess(pid, ::fcntl(master, F_DUPFD_CLOEXEC, 0), reapedBy(pid)));
    EXPECT_EQ(firstProcess->shellPid(), pid);
    ASSERT_TRUE(first->waitForOutput("\nn500\r"));
    firstProcess->release();
    // Let go means let go: the child is neither signalled nor reported, and reads stop.
    std::string firstPart = first->output();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(first->output(), firstPart);
    EXPECT_EQ(::kill(pid, 0), 0);
    EXPECT_TRUE(first->exits().empty());
    firstProcess.reset();
    EXPECT_EQ(::kill(pid, 0), 0) << "the released child outlives its first reader";

    auto second = std::make_shared<Collector>();
    auto secondProcess = LocalProcess::create(second);
    ASSERT_FALSE(secondProcess->adoptProcess(pid, ::fcntl(master, F_DUPFD_CLOEXEC, 0), reapedBy(pid)));
    // Our own copy of the master, as the holder keeps one, mustn't hold up the end.
    ASSERT_TRUE(second->waitForExits(1));
    EXPECT_EQ(second->exits().front(), 7) << "the status comes from the parent";
    EXPECT_EQ(countedTo(firstPart + second->output()), lines);
    ::close(master);
}

TEST_F(LocalProcessAdoption, AnAdoptedChildIsEndedBySignalsLikeAnOwnOne) {
    auto spawned = PseudoTerminalHelpers::spawn("/bin/sh", {"sh", "-c", "echo ready; exec sleep 600"}, {"PATH=/usr/bin:/bin"},
                                                std::nullopt, winsize{24, 80, 0, 0});
    ASSERT_TRUE(spawned.child);
    auto [pid, master] = *spawned.child;
    auto collector = std::make_shared<Collector>();
    auto process = LocalProcess::create(collector);
    ASSERT_FALSE(process->adoptProcess(pid, master, reapedBy(pid)));
    ASSERT_TRUE(collector->waitForOutput("ready"));
    process->terminate();
    ASSERT_TRUE(collector->waitForExits(1));
    EXPECT_EQ(collector->exits().front(), std::nullopt) << "ended by a signal";
}

} // namespace
