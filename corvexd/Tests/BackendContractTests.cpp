// The session behaviours the app relies on, through the protocol client on a real corvexd.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/Protocol.h"
#include "CorvexSession/Tests/Support/ExpectError.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"

using namespace corvex;
using corvex::testing::expectError;
using platform::testing::eventually;

namespace {

// A plain shell that reads no start-up files, so that what it prints is what a test typed.
const SpawnOptions plainShell = [] {
    SpawnOptions spawn = corvexd::testing::plainShell();
    spawn.cols = 80;
    spawn.rows = 24;
    return spawn;
}();

class BackendContract : public ::testing::Test {
protected:
    void SetUp() override {
        auto configuration = CorvexdBackend::Configuration::socket(daemon.socketPath(), "contract", {}, [this] {
            auto started = daemon.run({"start"});
            if (started.status != 0) throw BackendError("failed", started.err);
        });
        session = CorvexdBackend::make(configuration);
        events = session->events();
        session->start();
    }
    void TearDown() override { session->stop(); }

    std::optional<SessionEvent> nextEvent(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return events->next(timeout);
    }

    template <typename T>
    std::optional<T> nextOf(const std::function<bool(const T&)>& match = [](const T&) { return true; }) {
        while (auto event = nextEvent()) {
            if (auto* found = event->template as<T>(); found && match(*found)) return *found;
        }
        return std::nullopt;
    }

    bool screenShows(uint64_t pane, const std::string& text) {
        return eventually([&] { return session->paneText(pane).text().find(text) != std::string::npos; });
    }

    // The tab that the focus is on.
    std::optional<uint64_t> focusedTab() { return session->getState().focus.tab; }

    corvexd::testing::DaemonHarness daemon;
    std::shared_ptr<SessionBackend> session;
    std::shared_ptr<SessionEventStream> events;
};

TEST_F(BackendContract, TreeOperationsShapeTheSameTree) {
    SessionBackend& backend = *session;
    auto first = backend.createWorkspace("one", plainShell);
    auto second = backend.createTab(first.workspace, plainShell);
    auto split = backend.split(second.pane, Direction::down, 0.3, plainShell);

    auto state = backend.getState();
    ASSERT_EQ(state.workspaces.size(), 1u);
    EXPECT_EQ(state.workspaces[0].name, "one");
    ASSERT_EQ(state.workspaces[0].tabs.size(), 2u);
    const Tab& tab = state.workspaces[0].tabs[1];
    ASSERT_TRUE(tab.layout.splitNode());
    EXPECT_EQ(tab.layout.splitNode()->id, split.split);
    EXPECT_DOUBLE_EQ(tab.layout.splitNode()->ratio, 0.3);
    EXPECT_EQ(tab.layout.panes(), (std::vector<uint64_t>{second.pane, split.pane}));
    EXPECT_EQ(state.focus, (Focus{first.workspace, second.tab, split.pane}));
    EXPECT_EQ(state.panes.size(), 3u);

    backend.renameTab(second.tab, std::string("named"));
    backend.setRatio(split.split, 2.0); // clamped
    state = backend.getState();
    EXPECT_EQ(state.workspaces[0].tabs[1].title, "named");
    EXPECT_DOUBLE_EQ(state.workspaces[0].tabs[1].layout.splitNode()->ratio, 0.95);

    // Closing the focused pane hands the tab to its sibling.
    backend.closePane(split.pane);
    state = backend.getState();
    EXPECT_EQ(state.focus, (Focus{first.workspace, second.tab, second.pane}));
    EXPECT_EQ(state.panes.size(), 2u);

    backend.move(MoveRequest::moveTab(second.tab, std::nullopt, 0));
    EXPECT_EQ(backend.getState().workspaces[0].tabs[0].id, second.tab);
}

// One successor rule wherever a tab leaves: the tab before it, or the next when it was first.
TEST_F(BackendContract, ALeavingActiveTabHandsOverToItsPredecessor) {
    SessionBackend& backend = *session;
    auto work = backend.createWorkspace("work", plainShell);
    auto b = backend.createTab(work.workspace, plainShell);
    auto c = backend.createTab(work.workspace, plainShell);
    backend.createTab(work.workspace, plainShell);

    backend.focus(FocusTarget::tab(c.tab));
    backend.closeTab(c.tab);
    EXPECT_EQ(focusedTab(), b.tab) << "the focused tab closed";

    backend.focus(FocusTarget::tab(work.tab));
    backend.closeTab(work.tab);
    EXPECT_EQ(focusedTab(), b.tab) << "the first tab closed";

    // In a workspace out of focus.
    auto other = backend.createWorkspace("other", plainShell);
    auto y = backend.createTab(other.workspace, plainShell);
    auto z = backend.createTab(other.workspace, plainShell);
    backend.focus(FocusTarget::workspace(work.workspace));
    backend.closeTab(z.tab);
    EXPECT_EQ(backend.getState().workspace(other.workspace)->activeTab, y.tab);

    // A tab moved out to another workspace.
    backend.move(MoveRequest::moveTab(y.tab, work.workspace, 0));
    EXPECT_EQ(backend.getState().workspace(other.workspace)->activeTab, other.tab);
}

TEST_F(BackendContract, UnknownThingsFailAlike) {
    SessionBackend& backend = *session;
    auto made = backend.createWorkspace("w", plainShell);
    expectError([&] { backend.closePane(99); }, "not_found", "no pane 99");
    expectError([&] { backend.closeTab(99); }, "not_found", "no tab 99");
    expectError([&] { backend.renameWorkspace(99, "x"); }, "not_found", "no workspace 99");
    expectError([&] { backend.setRatio(99, 0.5); }, "not_found", "no split 99");
    expectError([&] { backend.focus(FocusTarget::pane(99)); }, "not_found", "no pane 99");
    expectError([&] { backend.sendKeys(made.pane, std::nullopt, {"Enter", "Hyper-x"}); }, "bad_request",
                "unknown key Hyper-x");
    // A program or folder that isn't there is refused before anything is made.
    auto before = backend.getState();
    SpawnOptions missing = plainShell;
    missing.command = std::vector<std::string>{"no-such-program-here", "100"};
    expectError([&] { backend.createWorkspace("x", missing); }, "not_found", "no-such-program-here: no such program");
    SpawnOptions nowhere = plainShell;
    nowhere.cwd = "/no/such/folder";
    expectError([&] { backend.createTab(made.workspace, nowhere); }, "not_found", "no folder /no/such/folder");
    EXPECT_EQ(backend.getState().workspaces, before.workspaces);
    SpawnOptions named = plainShell;
    named.command = std::vector<std::string>{"sleep", "100"};
    auto sleeper = backend.split(made.pane, Direction::right, std::nullopt, named);
    EXPECT_FALSE(backend.getState().pane(sleeper.pane)->exited) << "sleep is found on PATH";
    expectError([&] { backend.move(MoveRequest::movePane(made.pane, made.pane, Direction::left)); }, "bad_request",
                "pane " + std::to_string(made.pane) + " can't be moved beside itself");
    try {
        backend.searchPane(made.pane, "(", PaneSearchOptions{.regex = true});
        ADD_FAILURE() << "a pattern that doesn't compile must fail";
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), "bad_request");
    }
}

TEST_F(BackendContract, NamedKeysReachTheShell) {
    SessionBackend& backend = *session;
    auto made = backend.createWorkspace("keys", plainShell);
    backend.sendKeys(made.pane, std::string("echo sum-$((6*7))"), {"Enter"});
    EXPECT_TRUE(screenShows(made.pane, "sum-42"));

    // Control-C interrupts the program in the foreground, and the shell takes the next line.
    // The line cat copies shows twice once cat runs: typed, then copied.
    backend.sendKeys(made.pane, std::string("cat"), {"Enter"});
    backend.sendKeys(made.pane, std::string("copy-$((2*2))"), {"Enter"});
    ASSERT_TRUE(eventually([&] {
        auto text = backend.paneText(made.pane).text();
        auto first = text.find("copy-$((2*2))");
        return first != std::string::npos && text.find("copy-$((2*2))", first + 1) != std::string::npos;
    }));
    backend.sendKeys(made.pane, std::nullopt, {"C-c"});
    // The shell may take the interrupt too, and then drops a line typed ahead: wait for its
    // prompt.
    ASSERT_TRUE(eventually([&] {
        auto text = backend.paneText(made.pane).text();
        auto interrupted = text.find("^C");
        return interrupted != std::string::npos && text.find("\n$ ", interrupted) != std::string::npos;
    })) << backend.paneText(made.pane).text();
    backend.sendKeys(made.pane, std::string("echo after-$((1+1))"), {"enter"});
    EXPECT_TRUE(screenShows(made.pane, "after-2")) << backend.paneText(made.pane).text();
}

// Both sides read an agent off its terminal and follow the pane's repository, by one engine.
TEST_F(BackendContract, AgentsAndGitFactsAreReadOffThePane) {
    SessionBackend& backend = *session;
    // Every announced feature is served: CorvexdServer.HelloDescribesThisRunAndOnlyWhatIsImplemented.
    auto connected = nextOf<SessionEvent::Connected>();
    ASSERT_TRUE(connected);
    EXPECT_EQ(connected->hello.protocol, protocol::version);
    EXPECT_TRUE(connected->hello.has(Hello::Feature::agents));
    EXPECT_TRUE(connected->hello.has(Hello::Feature::git));
    auto state = nextOf<SessionEvent::State>();
    ASSERT_TRUE(state) << "the state follows the greeting";
    EXPECT_TRUE(state->state.workspaces.empty());

    corvex::testing::ScratchDirectory scratch;
    std::filesystem::create_directories(scratch.file("bin"));
    scratch.writeExecutable("bin/codex", "#!/bin/sh\nsleep 1\necho 'Run the migration now? (y/n)'\nread answer\n");
    auto made = backend.createWorkspace("agent", plainShell);
    auto agent = [&] { return backend.getState().pane(made.pane)->agent; };
    ASSERT_TRUE(screenShows(made.pane, "$ ")) << "typed before its prompt, a line lands after it";
    backend.sendKeys(made.pane, "PATH=" + scratch.file("bin") + ":$PATH codex", {"Enter"});
    ASSERT_TRUE(eventually([&] { return agent() && agent()->attention.value_or(false); }));
    EXPECT_EQ(agent()->kind, "codex");
    EXPECT_EQ(agent()->state, AgentInfo::State::waiting);
    EXPECT_EQ(agent()->message, "Run the migration now? (y/n)");
    backend.sendKeys(made.pane, std::string("y"), {"Enter"});
    ASSERT_TRUE(eventually([&] { return agent() && agent()->state == AgentInfo::State::done; }));
    EXPECT_TRUE(agent()->attention.value_or(false)) << "an ended agent waits to be seen";
    backend.sendKeys(made.pane, std::nullopt, {"Enter"});
    EXPECT_TRUE(eventually([&] { return !agent(); })) << "seen, it goes";

    auto git = [&] { return backend.getState().pane(made.pane)->git; };
    auto onBranch = [&](const std::string& branch) {
        return eventually([&] { return git() && git()->branch == branch; }, std::chrono::seconds(20));
    };
    ASSERT_EQ(std::system(("git init -q -b contract " + scratch.file("repo")).c_str()), 0);
    backend.sendKeys(made.pane, "cd " + scratch.file("repo"), {"Enter"});
    ASSERT_TRUE(onBranch("contract"));
    EXPECT_EQ(git()->repo, "repo");
    EXPECT_EQ(git()->root, std::filesystem::canonical(scratch.file("repo")).string());
    backend.sendKeys(made.pane, std::string("git checkout -q -b feature"), {"Enter"});
    EXPECT_TRUE(onBranch("feature"));
    backend.sendKeys(made.pane, std::string("cd /"), {"Enter"});
    EXPECT_TRUE(eventually([&] { return !git(); }, std::chrono::seconds(20))) << "outside a repository there are no facts";
}

// What a program reports through its terminal reaches the session: copied text only those
// watching its pane, a folder, a title and a bell; and the folder the shell moves to.
TEST_F(BackendContract, WhatAProgramReportsReachesTheSession) {
    SessionBackend& backend = *session;
    auto made = backend.createWorkspace("copy", plainShell);
    backend.sendKeys(made.pane, std::string("printf '\\033]52;c;bm9ib2R5\\007'; echo unseen-$((1+1))"), {"Enter"});
    ASSERT_TRUE(screenShows(made.pane, "unseen-2"));
    backend.subscribe(made.pane);
    backend.sendKeys(made.pane, std::string("printf '\\033]52;c;aGVsbG8=\\007'"), {"Enter"});
    auto copied = nextOf<SessionEvent::Clipboard>();
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->pane, made.pane);
    EXPECT_EQ(copied->text, "hello") << "what was copied before the subscribe is not told";

    auto paneBecomes = [&](const std::function<bool(const Pane&)>& match) {
        return nextOf<SessionEvent::PaneChanged>([&](const SessionEvent::PaneChanged& changed) {
            return changed.pane.id == made.pane && match(changed.pane);
        }).has_value();
    };
    backend.sendKeys(made.pane, std::string("printf '\\033]7;file://somehost/var/a%%20b\\007'"), {"Enter"});
    EXPECT_TRUE(paneBecomes([](const Pane& pane) { return pane.cwd == "/var/a b"; })) << "the URL's path, unescaped";
    backend.sendKeys(made.pane, std::string("cd /"), {"Enter"});
    EXPECT_TRUE(paneBecomes([](const Pane& pane) { return pane.cwd == "/"; })) << "the shell's own folder, polled";
    backend.sendKeys(made.pane, std::string("printf '\\033]2;build\\007'"), {"Enter"});
    EXPECT_TRUE(paneBecomes([](const Pane& pane) { return pane.title == "build"; }));
    backend.sendKeys(made.pane, std::string("printf '\\007'"), {"Enter"});
    EXPECT_TRUE(nextOf<SessionEvent::Bell>());
}

} // namespace
