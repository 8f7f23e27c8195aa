#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "CorvexKit/SessionBackend.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Vellum/HeadlessTerminal.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

using namespace corvex;
using namespace corvexd::testing;
using platform::testing::eventually;

namespace {

// `corvex attach` in a real PTY whose far side is a Vellum terminal standing in for the
// user's: what attach writes lands on that screen, and that terminal answers what attach
// asks of it, as the user's own terminal would.
class UserTerminal {
public:
    UserTerminal(int cols, int rows, const std::string& earlier) : screen_(options(cols, rows)) {
        screen_.onSend = [this](std::span<const uint8_t> bytes) {
            sent_.append(bytes.begin(), bytes.end());
            type(std::string(bytes.begin(), bytes.end()));
        };
        screen_.feed(earlier);
    }
    ~UserTerminal() {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            waitForExit(child_, 10s);
        }
        if (master_ >= 0) ::close(master_);
    }

    void start(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env) {
        winsize size{};
        size.ws_col = static_cast<unsigned short>(screen_.terminal->cols());
        size.ws_row = static_cast<unsigned short>(screen_.terminal->rows());
        auto environment = environmentWith(env);
        std::vector<std::string> args = argv;
        child_ = ::forkpty(&master_, nullptr, nullptr, &size);
        if (child_ == 0) {
            auto argp = pointers(args);
            auto envp = pointers(environment);
            sigset_t none;
            sigemptyset(&none);
            ::sigprocmask(SIG_SETMASK, &none, nullptr);
            ::execve(argp[0], argp.data(), envp.data());
            ::_exit(127);
        }
    }

    void type(const std::string& bytes) {
        if (master_ >= 0) [[maybe_unused]] auto written = ::write(master_, bytes.data(), bytes.size());
    }

    // Reads what attach wrote until the condition holds; false at the deadline.
    bool until(const std::function<bool()>& done, std::chrono::milliseconds timeout = 15s) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            pump(20);
            if (done()) return true;
            if (std::chrono::steady_clock::now() > deadline) return false;
        }
    }
    // The status line names the workspace, and the pane's prompt is drawn.
    bool attached(const std::string& workspace) {
        return until([&] {
            return row(screen_.terminal->rows() - 1).find("| " + workspace + " |") != std::string::npos &&
                   row(0).rfind("$", 0) == 0;
        });
    }
    bool shows(const std::string& text) {
        return until([&] { return screenText().find(text) != std::string::npos; });
    }

    std::string screenText() {
        std::string out;
        for (int row = 0; row < screen_.terminal->rows(); ++row) out += screen_.terminal->lineText(row) + "\n";
        return out;
    }
    std::string row(int index) { return screen_.terminal->lineText(index); }
    int cursorColumn() {
        return screen_.terminal->contentSnapshot(vellum::TerminalContentRegion::viewport(), alternate()).cursorColumn;
    }
    bool alternate() { return screen_.terminal->inputStateSnapshot().isAlternateBuffer; }
    // Everything this terminal ever answered.
    const std::string& answers() const { return sent_; }
    std::optional<int> exitStatus(std::chrono::milliseconds timeout = 10s) {
        std::optional<int> status;
        until([&] { return (status = waitForExit(child_, 0ms)).has_value(); }, timeout);
        if (status) child_ = -1;
        pump(50);
        return status;
    }

private:
    static vellum::TerminalOptions options(int cols, int rows) {
        vellum::TerminalOptions options;
        options.cols = cols;
        options.rows = rows;
        return options;
    }

    void pump(int waitMs) {
        pollfd poller{master_, POLLIN, 0};
        while (::poll(&poller, 1, waitMs) > 0) {
            char buffer[65536];
            ssize_t count = ::read(master_, buffer, sizeof buffer);
            if (count <= 0) return;
            screen_.feed(std::string_view(buffer, static_cast<size_t>(count)));
            waitMs = 0;
        }
    }

    vellum::HeadlessTerminal screen_;
    std::string sent_;
    int master_ = -1;
    pid_t child_ = -1;
};

class Attach : public ::testing::Test {
protected:
    void SetUp() override {
        if (!isBuilt("corvexd") || !isBuilt("corvex")) GTEST_SKIP() << "needs the built corvexd and corvex";
        daemon.serve();
        backend = daemon.connect("attach-test");
        made = backend->createWorkspace("work", plainShell());
    }

    std::vector<std::string> attachArgs(uint64_t pane, std::vector<std::string> more = {}) {
        std::vector<std::string> argv{builtProgram("corvex"), "--socket", daemon.socketPath(), "attach",
                                      std::to_string(pane)};
        argv.insert(argv.end(), more.begin(), more.end());
        return argv;
    }

    DaemonHarness daemon;
    std::shared_ptr<CorvexdBackend> backend;
    CreatedWorkspace made;
};

} // namespace

TEST_F(Attach, DrawsThePaneKeepsItsQueriesAwayAndGivesTheScreenBack) {
    UserTerminal user(100, 30, "earlier output\r\nuser$ ");
    user.start(attachArgs(made.pane), daemon.environment());
    ASSERT_TRUE(user.attached("work")) << user.screenText();
    EXPECT_TRUE(user.alternate()) << "attach draws on the alternate screen";
    size_t answeredBefore = user.answers().size();

    // A program asking for the cursor position and the colours gets one answer, from the
    // pane's terminal; the user's terminal is never asked.
    user.type("printf 'Q\\033[6n\\033]11;?\\033\\\\'; echo asked-$((1+1))\r");
    ASSERT_TRUE(user.shows("asked-2")) << user.screenText();
    EXPECT_EQ(user.answers().size(), answeredBefore) << "the user's terminal answered: " << user.answers();

    user.type("\x1c" "d");
    ASSERT_EQ(user.exitStatus(), 0);
    EXPECT_FALSE(user.alternate());
    EXPECT_EQ(user.row(0), "earlier output") << "the user's own screen comes back as it was";
    EXPECT_NE(user.screenText().find("[detached from pane " + std::to_string(made.pane) + "]"), std::string::npos)
        << user.screenText();
}

TEST_F(Attach, TheScrollbackViewFindsEarlyOutputAndLeavesTheLiveViewAsItWas) {
    // The lines are printed before attach starts, so the early ones reach it only as the
    // history it asks for when it subscribes.
    std::string printed = daemon.scratch().file("printed");
    backend->sendInput(made.pane, asBytes("seq -f 'line<%g>' 500; touch " + printed + "\r"));
    ASSERT_TRUE(eventually([&] { return ::access(printed.c_str(), F_OK) == 0; }));
    UserTerminal user(80, 24, "");
    user.start(attachArgs(made.pane), daemon.environment());
    // A row that holds exactly `text`, not a longer line that starts with it.
    auto showsRow = [&](const std::string& text) {
        return user.until([&] {
            for (int row = 0; row < 23; ++row) {
                std::string shown = user.row(row);
                while (!shown.empty() && shown.back() == ' ') shown.pop_back();
                if (shown == text) return true;
            }
            return false;
        });
    };
    ASSERT_TRUE(showsRow("line<500>")) << user.screenText();
    ASSERT_TRUE(user.shows("| work |")) << user.screenText();
    ASSERT_TRUE(showsRow("$")) << "the prompt is back: " << user.screenText();
    // Blanks the painter wrote and blanks never written read differently: compare without them.
    auto visible = [&] {
        std::string text;
        for (int row = 0; row < 24; ++row) {
            std::string shown = user.row(row);
            while (!shown.empty() && shown.back() == ' ') shown.pop_back();
            text += shown + "\n";
        }
        return text;
    };
    std::string live = visible();

    user.type("\x1c[");
    ASSERT_TRUE(user.shows("[scrollback 5")) << user.screenText();
    user.type("/line<7>\r");
    ASSERT_TRUE(showsRow("line<7>")) << user.screenText();
    EXPECT_EQ(user.screenText().find("line<500>"), std::string::npos) << "the view moved back to the match";
    // Keys in the view never reach the shell: this would print if it did.
    user.type("echo leaked\r");
    user.type("q");
    ASSERT_TRUE(user.until([&] { return visible() == live; })) << visible() << "\nwas\n" << live;
    user.type("echo after-$((2+3))\r");
    ASSERT_TRUE(user.shows("after-5")) << user.screenText();
    EXPECT_EQ(user.screenText().find("leaked"), std::string::npos) << user.screenText();
}

TEST_F(Attach, PrefixKeysMakeTabsAndSplitsAndMoveBetweenThem) {
    UserTerminal user(100, 30, "");
    user.start(attachArgs(made.pane, {"--prefix", "C-a"}), daemon.environment());
    ASSERT_TRUE(user.attached("work")) << user.screenText();

    user.type("\x01" "c"); // a new tab, shown at once
    ASSERT_TRUE(eventually([&] { return backend->getState().workspace(made.workspace)->tabs.size() == 2; }));
    ASSERT_TRUE(user.until([&] { return user.row(29).find("2:") != std::string::npos; })) << user.row(29);
    user.type("echo in-second-tab\r");
    ASSERT_TRUE(user.shows("in-second-tab"));

    user.type("\x01" "p"); // back to the first tab, whose screen doesn't have it
    ASSERT_TRUE(user.until([&] { return user.screenText().find("in-second-tab") == std::string::npos; }));

    user.type("\x01" "n\x01" "x"); // closing the second tab's only pane goes on in the first tab
    ASSERT_TRUE(eventually([&] { return backend->getState().workspace(made.workspace)->tabs.size() == 1; }));
    ASSERT_TRUE(user.until([&] { return user.row(29).find("2:") == std::string::npos; })) << user.row(29);
    user.type("echo still-here\r");
    ASSERT_TRUE(user.shows("still-here")) << user.screenText();

    user.type("\x01" "d");
    ASSERT_EQ(user.exitStatus(), 0);
}

TEST_F(Attach, ASplitTabShowsEveryPaneSideBySideAndKeysFollowTheFocus) {
    UserTerminal user(100, 30, "");
    user.start(attachArgs(made.pane, {"--prefix", "C-a"}), daemon.environment());
    ASSERT_TRUE(user.attached("work")) << user.screenText();
    user.type("echo left-$((1+1))\r");
    ASSERT_TRUE(user.shows("left-2")) << user.screenText();

    user.type("\x01" "%"); // split right; the new pane has the focus
    uint64_t second = 0;
    ASSERT_TRUE(eventually([&] {
        auto state = backend->getState();
        auto panes = state.location(made.pane)->tab->layout.panes();
        if (panes.size() == 2) second = panes[1];
        return second != 0;
    }));
    // Keys typed before attach has moved the focus would still reach the old pane: the
    // user's cursor tells where the focus is, left or right of the line at column 50.
    ASSERT_TRUE(user.until([&] { return user.cursorColumn() > 50; })) << user.cursorColumn() << user.screenText();
    user.type("echo right-$((2+2))\r");
    // Whether `text` sits on a row left (or right) of the line between the panes.
    auto isOnSide = [&](const std::string& text, bool left) {
        for (int row = 0; row < 29; ++row) {
            std::string shown = user.row(row);
            size_t at = shown.find(text), line = shown.find("\u2502");
            if (at != std::string::npos && line != std::string::npos && (at < line) == left) return true;
        }
        return false;
    };
    auto onSide = [&](const std::string& text, bool left) { return user.until([&] { return isOnSide(text, left); }); };
    ASSERT_TRUE(onSide("right-4", false)) << user.screenText();
    EXPECT_TRUE(onSide("left-2", true)) << "the first pane stays on screen: " << user.screenText();
    // Each pane is sized to its half, the line between them taking one column.
    EXPECT_TRUE(eventually([&] {
        auto state = backend->getState();
        return state.pane(made.pane)->cols + state.pane(second)->cols == 99;
    }));

    // The focus moves back to the first pane, and keys typed in the same breath follow it.
    user.type("\x01" "o" "echo back-$((3+3))\r");
    ASSERT_TRUE(user.until([&] { return user.cursorColumn() < 50; })) << user.cursorColumn();
    ASSERT_TRUE(onSide("back-6", true)) << user.screenText();
    EXPECT_FALSE(isOnSide("back-6", false)) << user.screenText();

    user.type("\x01" "o" "\x01" "x"); // closing the focused (second) pane gives the first the whole tab
    ASSERT_TRUE(eventually([&] { return backend->getState().location(made.pane)->tab->layout.panes().size() == 1; }));
    user.type("\x01" "d");
    ASSERT_EQ(user.exitStatus(), 0);
}

TEST_F(Attach, ADeliberateShutdownEndsTheClientAndNothingStartsAnotherDaemon) {
    UserTerminal user(100, 30, "");
    user.start(attachArgs(made.pane), daemon.environment());
    ASSERT_TRUE(user.attached("work")) << user.screenText();
    daemon.kill(SIGTERM); // what `corvexd stop` and `corvexd shutdown` send
    ASSERT_EQ(user.exitStatus(), 0);
    EXPECT_NE(user.screenText().find("[corvexd was shut down]"), std::string::npos) << user.screenText();

    // Commands that only look say so and start nothing.
    Ran state = runProgram({builtProgram("corvex"), "state"}, daemon.environment());
    EXPECT_EQ(state.status, 1);
    EXPECT_EQ(state.err, "corvex: disconnected: no corvexd is running on " + daemon.socketPath() + "\n");
    EXPECT_NE(::access(daemon.socketPath().c_str(), F_OK), 0) << "no daemon was started";
}

TEST_F(Attach, NewWorkspacesStartWhereTheUserIsAndLsListsThem) {
    // New workspaces start in the client's folder.
    std::string folder = daemon.scratch().file("here");
    ::mkdir(folder.c_str(), 0700);
    Ran here = runProgram({"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", folder, builtProgram("corvex"), "--socket",
                           daemon.socketPath(), "new-workspace", "--", "sleep", "100"},
                          daemon.environment());
    ASSERT_EQ(here.status, 0) << here.err;
    uint64_t pane = nlohmann::json::parse(here.out)["pane"];
    EXPECT_EQ(backend->getState().pane(pane)->cwd, folder);
    EXPECT_FALSE(backend->getState().pane(pane)->exited);

    // ls: the tree for people.
    Ran tree = daemon.corvex({"ls"});
    EXPECT_EQ(tree.status, 0) << tree.err;
    EXPECT_NE(tree.out.find("workspace " + std::to_string(made.workspace) + " \"work\""), std::string::npos) << tree.out;
    EXPECT_NE(tree.out.find("pane " + std::to_string(pane)), std::string::npos) << tree.out;
    EXPECT_NE(tree.out.find("sleep 100"), std::string::npos) << tree.out;
}

TEST_F(Attach, TwoClientsOfDifferentSizesEachSeeThePaneAtItsTrueSize) {
    UserTerminal wide(120, 40, "");
    wide.start(attachArgs(made.pane), daemon.environment());
    ASSERT_TRUE(wide.attached("work")) << wide.screenText();
    ASSERT_TRUE(eventually([&] { return backend->getState().pane(made.pane)->cols == 120; }));

    UserTerminal narrow(60, 20, "");
    narrow.start(attachArgs(made.pane), daemon.environment());
    ASSERT_TRUE(narrow.attached("work")) << narrow.screenText();
    // The pane fits the smaller client; the larger one draws it at that size and fills the rest.
    ASSERT_TRUE(eventually([&] {
        auto state = backend->getState();
        return state.pane(made.pane)->cols == 60 && state.pane(made.pane)->rows == 19;
    }));
    narrow.type("printf '%059d|\\n' 0\r");
    ASSERT_TRUE(narrow.shows("0|"));
    ASSERT_TRUE(wide.until([&] { return wide.screenText().find("0|\u00b7") != std::string::npos; })) << wide.screenText();

    // When the small client leaves, the pane takes the larger client's room again.
    narrow.type("\x1c" "d");
    ASSERT_EQ(narrow.exitStatus(), 0);
    EXPECT_TRUE(eventually([&] {
        auto state = backend->getState();
        return state.pane(made.pane)->cols == 120 && state.pane(made.pane)->rows == 39;
    })) << backend->getState().pane(made.pane)->cols;
    wide.type("\x1c" "d");
    EXPECT_EQ(wide.exitStatus(), 0);
}

// No daemon runs: the first `corvex run`, as `make run` starts it, starts one and makes a
// workspace; detaching leaves the shell, and the next run finds it with its screen as it was.
TEST(Run, StartsTheDaemonAndReattachesToTheSameShell) {
    if (!isBuilt("corvexd") || !isBuilt("corvex")) GTEST_SKIP() << "needs the built corvexd and corvex";
    DaemonHarness daemon; // never served here: `run` starts it
    {
        UserTerminal first(100, 30, "");
        first.start({builtProgram("corvex"), "run"}, daemon.environment());
        ASSERT_TRUE(first.shows("d detaches")) << first.screenText();
        first.type("echo mark-$((40+2))\r");
        ASSERT_TRUE(first.shows("mark-42")) << first.screenText();
        first.type("\x1c" "d");
        EXPECT_TRUE(first.shows("detached from pane")) << first.screenText();
        EXPECT_EQ(first.exitStatus(), 0);
    }
    {
        UserTerminal second(100, 30, "");
        second.start({builtProgram("corvex"), "run"}, daemon.environment());
        EXPECT_TRUE(second.shows("mark-42")) << "the screen comes back as it was: " << second.screenText();
        second.type("echo again-$((1+1))\r");
        EXPECT_TRUE(second.shows("again-2")) << second.screenText();
        second.type("\x1c" "d");
        EXPECT_EQ(second.exitStatus(), 0);
    }
    Ran state = daemon.corvex({"state"});
    ASSERT_EQ(state.status, 0) << state.err;
    EXPECT_EQ(nlohmann::json::parse(state.out)["workspaces"].size(), 1u) << "the second run made no workspace of its own";
}
