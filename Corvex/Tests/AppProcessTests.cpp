#include <QTest>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/ProcessRun.h"
#include "Support/AppHarness.h"

using namespace corvex;
using namespace corvex::apptest;

namespace {

int shell(const std::string& command) {
    return std::system(command.c_str());
}

// The whole corvex-app as a user starts it, driven from outside with xdotool.
class AppProcess {
public:
    AppProcess() {
        std::filesystem::create_directories(daemon_.runtimeDir());
        std::filesystem::permissions(daemon_.runtimeDir(), std::filesystem::perms::owner_all);
        std::filesystem::create_directories(home());
        std::vector<std::string> env = environmentWithout({"HOME=", "XDG_", "CORVEXD_RUNTIME_DIR="});
        env.push_back("HOME=" + home());
        env.push_back("CORVEXD_RUNTIME_DIR=" + daemon_.runtimeDir());
        pid_ = spawnChild(corvexd::testing::builtProgram("corvex-app"), {}, env, -1, STDOUT_FILENO, STDERR_FILENO);
    }
    // The daemon the app started goes with the harness.
    ~AppProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    // Reconnects by itself while the app is still starting the daemon.
    CorvexdBackend& reader() {
        if (!reader_) reader_ = daemon_.connect("tests");
        return *reader_;
    }

    std::optional<uint64_t> firstPane() {
        try {
            ModelState state = reader().getState();
            if (state.workspaces.empty() || state.workspaces[0].name != "Workspace 1") return std::nullopt;
            return state.workspaces[0].tabs.at(0).activePane;
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }

    std::string paneText(uint64_t pane) {
        try {
            return reader().paneText(pane).text();
        } catch (const std::exception&) {
            return {};
        }
    }

    // The exit status once it has ended, or absent.
    std::optional<int> exitStatus(std::chrono::milliseconds timeout) {
        auto status = corvexd::testing::waitForExit(pid_, timeout);
        if (status) pid_ = -1;
        return status;
    }

    pid_t pid() const { return pid_; }
    std::string log() const { return corvex::testing::readFile(home() + "/.local/state/Corvex/Corvex.log"); }

private:
    std::string home() const { return daemon_.scratch().file("home"); }

    corvexd::testing::DaemonHarness daemon_; // never served here: the app starts the daemon
    pid_t pid_ = -1;
    std::shared_ptr<CorvexdBackend> reader_;
};

TEST(AppProcessTest, TheAppTakesKeysFromTheWindowSystemAndQuitsOnSigterm) {
    AppProcess app;
    std::optional<uint64_t> pane;
    ASSERT_TRUE(eventually([&] { return (pane = app.firstPane()).has_value(); }, 30s)) << app.log();
    ASSERT_TRUE(eventually([&] { return app.paneText(*pane).find_first_not_of(" \n") != std::string::npos; }, 30s));

    // A click into the pane, then keys typed as X events: they reach the shell. Xvfb has no
    // window manager, so the click is what gives the window the keyboard.
    std::string find = "$(xdotool search --sync --pid " + std::to_string(app.pid()) + " --name 'Workspace 1' | head -1)";
    ASSERT_EQ(shell("eval $(xdotool getwindowgeometry --shell " + find +
                    ") && xdotool mousemove --sync $((X+700)) $((Y+400)) click 1"),
              0);
    ASSERT_EQ(shell("xdotool type --delay 20 'echo from-xdotool-$((2*21))' && xdotool key Return"), 0);
    EXPECT_TRUE(eventually([&] { return app.paneText(*pane).find("from-xdotool-42") != std::string::npos; }, 20s))
        << app.paneText(*pane);

    ::kill(app.pid(), SIGTERM);
    EXPECT_EQ(app.exitStatus(20s), 0);
    std::string log = app.log();
    EXPECT_NE(log.find(" quitting: SIGTERM\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" backend: corvexd from "), std::string::npos) << log;
}

} // namespace

int main(int argc, char** argv) {
    return corvex::apptest::runWindowTests(argc, argv);
}
