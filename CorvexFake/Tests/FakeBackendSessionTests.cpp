// The in-process backend as a user meets it, on real shells: what a spawned program gets,
// what tree operations do to the tabs and the focus, how a subscriber catches up, and how
// input, keys and agents interact.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <unistd.h>
#include <thread>

#include "CorvexFake/FakeBackend.h"
#include "Platform/Tests/Support/Eventually.h"
#include "CorvexSession/Tests/Support/ExpectError.h"
#include "Vellum/Tests/Support/ProcessLeakCheck.h"

using namespace corvex;
using namespace std::chrono_literals;
using corvex::testing::expectError;
using platform::testing::eventually;

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

// Gone, or a zombie that only waits for its parent.
bool processEnded(int32_t pid) {
    std::string stat = procFile(pid, "stat");
    auto close = stat.rfind(')');
    return close == std::string::npos || (close + 2 < stat.size() && stat[close + 2] == 'Z');
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

std::vector<SessionEvent> withoutOutput(std::vector<SessionEvent> events) {
    std::erase_if(events, [](const SessionEvent& event) { return event.as<SessionEvent::Output>() != nullptr; });
    return events;
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

// Sets variables for the test's duration.
class ScopedEnvironment {
public:
    void set(const char* name, const char* value) {
        const char* old = std::getenv(name);
        saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->second) setenv(it->first.c_str(), it->second->c_str(), 1);
            else unsetenv(it->first.c_str());
        }
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

SpawnOptions command(std::vector<std::string> words) { return SpawnOptions{.command = std::move(words)}; }

// Every shell, thread and descriptor of a backend is gone once it has stopped.
using FakeBackendSession = vellum::testing::ProcessLeakCheck;

} // namespace

TEST_F(FakeBackendSession, ProgramsStartWithTheirEnvironmentNameAndDirectory) {
    ScopedEnvironment environment;
    environment.set("SHELL", "/bin/sh");
    environment.set("LANG", nullptr);
    environment.set("CORVEX_SECRET", "leak");
    environment.set("DROVER_TOKEN", "leak");
    environment.set("CORVEXD_CONFIG", "/kept");
    environment.set("TERM", "screen");
    auto backend = FakeBackend::create();
    backend->start();

    // No command: the user's shell as a login shell, in the home directory when none is asked for.
    auto created = backend->createWorkspace(std::nullopt, SpawnOptions{});
    auto pane = *backend->getState().pane(created.pane);
    EXPECT_EQ(pane.command, (std::vector<std::string>{"/bin/sh", "-l"}));
    EXPECT_EQ(pane.cwd, home());
    auto login = childOnceItRuns(*pane.pid, "-sh");
    EXPECT_EQ(login.argv0, "-sh");
    EXPECT_TRUE(login.has("TERM=xterm-256color"));
    EXPECT_TRUE(login.has("COLORTERM=truecolor"));
    EXPECT_TRUE(login.has("TERM_PROGRAM=corvex"));
    EXPECT_TRUE(login.has("CORVEX_PANE=" + std::to_string(created.pane)));
    EXPECT_TRUE(login.has("LANG=en_US.UTF-8"));
    EXPECT_TRUE(login.has("CORVEXD_CONFIG=/kept"));
    EXPECT_FALSE(login.names("CORVEX_SECRET="));
    EXPECT_FALSE(login.names("DROVER_"));

    // A command keeps its words; the caller's variables win over ours; a split inherits the
    // split pane's directory.
    auto split = backend->split(created.pane, Direction::right,
                                SpawnOptions{.command = std::vector<std::string>{"/bin/sleep", "30"},
                                             .env = Environment{{"TERM", "dumb"}, {"LANG", "C"}}});
    auto sleeper = *backend->getState().pane(split.pane);
    EXPECT_EQ(sleeper.cwd, home());
    auto view = childOnceItRuns(*sleeper.pid, "/bin/sleep");
    EXPECT_EQ(view.argv0, "/bin/sleep");
    EXPECT_TRUE(view.has("TERM=dumb"));
    EXPECT_TRUE(view.has("LANG=C"));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(*sleeper.pid) + "/cwd"), home());
    backend->stop();
}

TEST_F(FakeBackendSession, TreeOperationsKeepTabsFocusAndShellsInStep) {
    auto backend = FakeBackend::create();
    backend->start();
    auto shell = command({"/bin/sh"});
    auto first = backend->createWorkspace("work", shell);
    uint64_t a = first.pane;

    // A split toward the left puts the new pane first.
    auto left = backend->split(a, Direction::left, 0.99, shell);
    uint64_t b = left.pane;
    auto state = backend->getState();
    const auto* node = state.workspaces[0].tabs[0].layout.splitNode();
    ASSERT_TRUE(node);
    EXPECT_EQ(node->a.leafPane(), b);
    EXPECT_EQ(node->b.leafPane(), a);
    EXPECT_EQ(state.focus, (Focus{first.workspace, first.tab, b}));

    // Closing a pane that isn't active keeps the active pane and the focus, and ends its shell.
    uint64_t c = backend->split(b, Direction::down, shell).pane;
    int32_t pidA = *backend->getState().pane(a)->pid;
    backend->closePane(a);
    state = backend->getState();
    EXPECT_EQ(state.workspaces[0].tabs[0].activePane, c);
    EXPECT_EQ(state.focus.pane, c);
    EXPECT_TRUE(eventually([&] { return processEnded(pidA); })) << "the closed pane's shell lives on";

    // Closing the last pane of a tab removes the tab, and focus goes to the tab before it.
    auto second = backend->createTab(first.workspace, shell);
    auto third = backend->createTab(first.workspace, shell);
    backend->focus(FocusTarget::tab(second.tab));
    backend->closePane(second.pane);
    state = backend->getState();
    ASSERT_EQ(state.workspaces[0].tabs.size(), 2u);
    EXPECT_EQ(state.focus, (Focus{first.workspace, first.tab, c}));
    EXPECT_EQ(state.workspaces[0].activeTab, first.tab);

    // A pane moved beside another takes its shell along; a tab joined beside a pane vanishes
    // as a tab. The panes' list keeps its order.
    auto order = [&] {
        std::vector<uint64_t> ids;
        for (const auto& pane : backend->getState().panes) ids.push_back(pane.id);
        return ids;
    };
    auto before = order();
    backend->move(MoveRequest::movePane(c, third.pane, Direction::right, std::nullopt, true));
    state = backend->getState();
    EXPECT_EQ(order(), before);
    EXPECT_EQ(state.focus, (Focus{first.workspace, third.tab, c}));
    EXPECT_EQ(state.workspaces[0].tabs[0].layout, Layout::leaf(b));
    backend->move(MoveRequest::joinTab(first.tab, c, Direction::down));
    state = backend->getState();
    ASSERT_EQ(state.workspaces[0].tabs.size(), 1u);
    EXPECT_EQ(state.workspaces[0].tabs[0].layout.panes(), (std::vector<uint64_t>{third.pane, c, b}));
    EXPECT_EQ(state.focus.tab, third.tab);

    auto events = backend->events();
    drain(*events);
    backend->subscribe(c, backend->getState().pane(c)->seq);
    backend->sendInput(c, asBytes("echo moved-$((6*7))\n"));
    EXPECT_TRUE(outputShows(*events, "moved-42")) << "the moved pane's shell still answers";

    // When the shell of the focused pane ends, the pane goes and focus repairs itself.
    backend->sendInput(c, asBytes("exit 7\n"));
    EXPECT_TRUE(eventually([&] { return !backend->getState().pane(c); }));
    state = backend->getState();
    EXPECT_EQ(state.focus.tab, third.tab);
    EXPECT_EQ(state.focus.pane, state.workspaces[0].tabs[0].activePane);
    EXPECT_FALSE(state.workspaces[0].tabs[0].layout.contains(c));
    backend->stop();
}

TEST_F(FakeBackendSession, ASubscriberCatchesUpByReplaySnapshotOrNothing) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    // Five mebibytes and then quiet.
    auto created = backend->createWorkspace(
        std::nullopt, command({"/bin/sh", "-c", "head -c 5242880 /dev/zero | tr '\\0' x; echo END; exec sleep 30"}));
    uint64_t pane = created.pane;
    ASSERT_TRUE(eventually([&] { return backend->getState().pane(pane)->seq >= 5242880 + 5; }));
    uint64_t seq = backend->getState().pane(pane)->seq;
    drain(*events);

    backend->subscribe(pane);
    auto seen = drain(*events);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].as<SessionEvent::Subscribed>()->subscription.mode, Subscription::Mode::snapshot);
    auto snapshot = seen[1].as<SessionEvent::Snapshot>();
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(snapshot->seq, seq);
    // The screen as the terminal shows it, not the output that made it.
    EXPECT_LT(snapshot->bytes.size(), 64u << 10);
    EXPECT_NE(std::string(snapshot->bytes.begin(), snapshot->bytes.end()).find("END"), std::string::npos);

    // More than 1 MiB behind: a snapshot, though the bytes are still retained.
    EXPECT_EQ(backend->subscribe(pane, seq - (1536u << 10)).mode, Subscription::Mode::snapshot);
    drain(*events);
    auto replay = backend->subscribe(pane, seq - 1000);
    EXPECT_EQ(replay.mode, Subscription::Mode::replay);
    EXPECT_EQ(replay.seq, seq - 1000);
    seen = drain(*events);
    ASSERT_EQ(seen.size(), 2u);
    auto output = seen[1].as<SessionEvent::Output>();
    ASSERT_TRUE(output);
    EXPECT_EQ(output->seq, seq - 1000);
    EXPECT_EQ(output->bytes.size(), 1000u);

    // Exactly caught up: nothing but `subscribed`. Ahead of the pane: a snapshot.
    EXPECT_EQ(backend->subscribe(pane, seq).mode, Subscription::Mode::live);
    seen = drain(*events, 300ms);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].as<SessionEvent::Subscribed>());
    EXPECT_EQ(backend->subscribe(pane, seq + 10).mode, Subscription::Mode::snapshot);
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

    // A resize is told to the subscriber, then published; the same size again changes nothing.
    backend->resize(pane, Size{100, 30});
    auto seen = withoutOutput(drain(*events)); // a late prompt may come in between
    ASSERT_GE(seen.size(), 2u);
    auto resized = seen[0].as<SessionEvent::Resized>();
    ASSERT_TRUE(resized);
    EXPECT_EQ(resized->cols, 100);
    EXPECT_EQ(resized->rows, 30);
    EXPECT_EQ(seen[1].as<SessionEvent::PaneChanged>()->pane.cols, 100);
    backend->setViewport(pane, Size{100, 30});
    EXPECT_TRUE(withoutOutput(drain(*events, 100ms)).empty());
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

TEST_F(FakeBackendSession, ReportedDirectoriesAndClipboardTextsReachTheSession) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    auto created = backend->createWorkspace(std::nullopt, SpawnOptions{.command = std::vector<std::string>{"/bin/sh"},
                                                                       .cwd = "/tmp"});
    uint64_t pane = created.pane;

    // Copied text goes only to a subscriber.
    backend->sendInput(pane, asBytes("printf '\\033]52;c;bm9ib2R5\\007'; echo unseen-done\n"));
    // Prompt, echo, the report, the words and the next prompt: 84 bytes.
    EXPECT_TRUE(eventually([&] { return backend->getState().pane(pane)->seq >= 84; }));
    std::this_thread::sleep_for(100ms);
    backend->subscribe(pane);
    backend->sendInput(pane, asBytes("printf '\\033]52;c;aGVsbG8=\\007'\n"));
    std::vector<std::string> copied;
    EXPECT_TRUE(waitForEvent(*events, [&](const SessionEvent& event) {
        if (auto clipboard = event.as<SessionEvent::Clipboard>()) copied.push_back(clipboard->text);
        return !copied.empty();
    }));
    EXPECT_EQ(copied, std::vector<std::string>{"hello"});

    // A directory report is a URL with escapes; the pane shows its path.
    backend->sendInput(pane, asBytes("printf '\\033]7;file://somehost/var/a%%20b\\007'\n"));
    EXPECT_TRUE(waitForEvent(*events, [&](const SessionEvent& event) {
        auto changed = event.as<SessionEvent::PaneChanged>();
        return changed && changed->pane.cwd == "/var/a b";
    }));
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
    EXPECT_TRUE(eventually([&] { return processEnded(pid); }));
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
