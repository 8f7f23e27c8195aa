// The in-process backend on real shells, for what only real processes show: what a spawned
// program gets, sizes reaching its terminal, and panes whose programs won't go quietly. The
// session rules themselves are the engine's tests and the backend contract suite (over the daemon,
// which runs the same engine and pane host).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <unistd.h>
#include <thread>

#include "CorvexFake/FakeBackend.h"
#include "Platform/ProcessInfo.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "CorvexSession/Tests/Support/ExpectError.h"
#include "Vellum/Tests/Support/ProcessLeakCheck.h"

using namespace corvex;
using namespace std::chrono_literals;
using corvex::testing::expectError;
using platform::testing::eventually;
using platform::testing::ScopedEnvironment;

namespace {

std::string home() {
    const char* home = std::getenv("HOME");
    if (home && *home) return home;
    const passwd* entry = getpwuid(getuid());
    return entry && entry->pw_dir ? entry->pw_dir : "/";
}

std::string procFile(int32_t pid, const char* name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The child's own environment and argv[0], once it has become the program it runs.
struct ChildView {
    std::string argv0;
    std::vector<std::string> environment;

    bool has(const std::string& entry) const {
        return std::find(environment.begin(), environment.end(), entry) != environment.end();
    }
    bool names(const std::string& prefix) const {
        return std::any_of(environment.begin(), environment.end(), [&](auto& e) { return e.rfind(prefix, 0) == 0; });
    }
};

std::vector<std::string> splitNul(const std::string& text) {
    std::vector<std::string> parts;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\0', start);
        if (end == std::string::npos) end = text.size();
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// Before its exec a child still shows this program's name and environment.
ChildView childOnceItRuns(int32_t pid, const std::string& argv0) {
    ChildView view;
    eventually([&] {
        auto argv = splitNul(procFile(pid, "cmdline"));
        view.argv0 = argv.empty() ? "" : argv[0];
        return view.argv0 == argv0;
    });
    view.environment = splitNul(procFile(pid, "environ"));
    return view;
}

// Everything the stream brings until it has been quiet for a while.
std::vector<SessionEvent> drain(SessionEventStream& events, std::chrono::milliseconds quiet = 150ms) {
    std::vector<SessionEvent> seen;
    while (auto event = events.next(quiet)) seen.push_back(*event);
    return seen;
}

template <typename Predicate>
bool waitForEvent(SessionEventStream& events, Predicate predicate) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto event = events.next(100ms); event && predicate(*event)) return true;
    }
    return false;
}

bool outputShows(SessionEventStream& events, const std::string& text) {
    std::string seen;
    return waitForEvent(events, [&](const SessionEvent& event) {
        // What was printed before the subscribe landed comes in its snapshot.
        if (auto output = event.as<SessionEvent::Output>()) seen.append(output->bytes.begin(), output->bytes.end());
        if (auto snapshot = event.as<SessionEvent::Snapshot>()) {
            seen.append(snapshot->bytes.begin(), snapshot->bytes.end());
        }
        return seen.find(text) != std::string::npos;
    });
}

SpawnOptions command(std::vector<std::string> words) { return SpawnOptions{.command = std::move(words)}; }

// Every shell, thread and descriptor of a backend is gone once it has stopped.
using FakeBackendSession = vellum::testing::ProcessLeakCheck;

} // namespace

TEST_F(FakeBackendSession, ProgramsStartWithTheirEnvironmentNameAndDirectory) {
    ScopedEnvironment environment;
    environment.set("SHELL", "/bin/sh");
    environment.set("CORVEX_SECRET", "leak");
    auto backend = FakeBackend::create();
    backend->start();

    // No command: the user's shell as a login shell, in the home directory when none is asked
    // for. Which variables a pane gets is the engine's rule; this checks they reach the child.
    auto created = backend->createWorkspace(std::nullopt, SpawnOptions{});
    auto pane = *backend->getState().pane(created.pane);
    EXPECT_EQ(pane.cwd, home());
    auto login = childOnceItRuns(*pane.pid, "-sh");
    EXPECT_EQ(login.argv0, "-sh");
    EXPECT_TRUE(login.has("CORVEX_PANE=" + std::to_string(created.pane)));
    EXPECT_FALSE(login.names("CORVEX_SECRET="));

    // A command keeps its words; the caller's variables win over ours; a split inherits the
    // split pane's directory.
    auto split = backend->split(created.pane, Direction::right,
                                SpawnOptions{.command = std::vector<std::string>{"/bin/sleep", "30"},
                                             .env = Environment{{"TERM", "dumb"}}});
    auto sleeper = *backend->getState().pane(split.pane);
    auto view = childOnceItRuns(*sleeper.pid, "/bin/sleep");
    EXPECT_TRUE(view.has("TERM=dumb"));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(*sleeper.pid) + "/cwd"), home());
    backend->stop();
}

TEST_F(FakeBackendSession, SizesReachTheTerminalAndDecisionsAreRecorded) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    auto created = backend->createWorkspace(std::nullopt, command({"/bin/sh"}));
    uint64_t pane = created.pane;
    backend->subscribe(pane);
    drain(*events);

    // The engine orders the resize events; here the size reaches the real terminal.
    backend->resize(pane, Size{100, 30});
    backend->sendInput(pane, asBytes("stty size\n"));
    EXPECT_TRUE(outputShows(*events, "30 100"));

    // The engine's agent rules have tests of their own; the fake adds the record of decisions the
    // scripted driver reads back.
    AgentInfo agent{.kind = "claude", .state = AgentInfo::State::waiting};
    agent.requests = std::vector<PermissionRequest>{{"r1", "Bash", std::nullopt}};
    backend->setAgent(pane, agent);
    backend->decide(pane, "r1", PermissionDecision::deny, "no");
    EXPECT_EQ(backend->decisions(), (std::vector<FakeDecision>{{pane, "r1", PermissionDecision::deny, "no"}}));
    expectError([&] { backend->decide(pane, "r1", PermissionDecision::allow, std::nullopt); }, "not_found",
                "r1 was already answered or retired");
    EXPECT_EQ(backend->decisions().size(), 1u) << "a refused decision isn't recorded";
    backend->stop();
}

TEST_F(FakeBackendSession, AClosedPanesProgramEndsEvenWhenItIgnoresHangUpAndTerminate) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    auto created = backend->createWorkspace(
        std::nullopt, command({"/bin/sh", "-c", "trap '' HUP TERM; echo ready; while :; do sleep 0.05; done"}));
    backend->subscribe(created.pane);
    ASSERT_TRUE(outputShows(*events, "ready"));
    int32_t pid = *backend->getState().pane(created.pane)->pid;
    auto closed = std::chrono::steady_clock::now();
    backend->closePane(created.pane);
    EXPECT_TRUE(backend->getState().workspaces[0].tabs.empty());
    EXPECT_TRUE(eventually([&] { return !platform::processLives(pid); }));
    // The grace is half a second; the bound only has to tell it from waiting for ever on a
    // machine that may be busy.
    EXPECT_LT(std::chrono::steady_clock::now() - closed, 8s) << "killed once the grace period is over";
    backend->stop();
}

TEST_F(FakeBackendSession, PanesClosedInTheMiddleOfAFloodLeaveNothingBehind) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    // Panes go while their output is being parsed and handed on, at every moment of it.
    for (int round = 0; round < 12; ++round) {
        auto created = backend->createWorkspace(std::nullopt, command({"/bin/sh", "-c", "yes flood | head -c 2000000"}));
        if (round % 2 == 0) backend->subscribe(created.pane);
        auto split = backend->split(created.pane, Direction::down, command({"/bin/sh", "-c", "printf '\\033]2;t\\007'; exec cat"}));
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 3));
        if (round % 3 == 0) backend->closeWorkspace(created.workspace);
        else if (round % 3 == 1) backend->closePane(created.pane);
        else backend->closePane(split.pane);
        while (events->next(std::chrono::milliseconds(0))) {
        }
    }
    backend->stop();
    drain(*events);
}
