#pragma once

#include <QImage>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Corvex/AppDelegate.h"
#include "CorvexKit/CorvexdBackend.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvex::apptest {

using namespace std::chrono_literals;

// The main of a window test executable: a home folder of its own, the build's corvexd and
// one QApplication for every test.
int runWindowTests(int argc, char** argv);

// Pumps the event loop until `done` holds or the time is up; returns done().
bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 20s);

// The real app against a real corvexd of its own: a fresh runtime folder and settings per
// harness, the daemon the build made.
class AppHarness {
public:
    AppHarness();
    ~AppHarness();
    AppHarness(const AppHarness&) = delete;
    AppHarness& operator=(const AppHarness&) = delete;

    AppDelegate& app() { return *app_; }
    ModelStore& store() { return *app_->store(); }
    const std::string& runtimeDir() const { return daemon_.runtimeDir(); }
    std::string socketPath() const { return daemon_.socketPath(); }

    // Waits for the first workspace with a subscribed, live shell in its focused pane.
    bool waitForShell();
    uint64_t focusedPane();
    // Types text into the focused pane's terminal as key events.
    void type(const std::string& text);
    void pressReturn();
    // Ctrl+Shift+<key> on the window, as the user would.
    void shortcut(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::ControlModifier | Qt::ShiftModifier);

    // What the daemon holds for a pane, read by a second client.
    std::string daemonText(uint64_t pane);
    // What the view shows.
    std::string screenText(uint64_t pane);
    bool screenShows(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout = 20s);
    bool daemonShows(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout = 20s);
    QImage screenshot();
    // Saves the window under CORVEX_TEST_SHOTS when that is set, for looking at by eye.
    void keepScreenshot(const std::string& name);

    // The app's log so far, for failure messages.
    std::string logText() const;
    // The focused pane as the view, the daemon and the log see it.
    std::string describe();

    // The daemon: its process id, or 0.
    pid_t daemonPid() const { return daemon_.daemonPid(); }
    void killDaemon();

private:
    CorvexdBackend& reader();

    corvexd::testing::DaemonHarness daemon_; // never served here: the app starts the daemon
    std::unique_ptr<AppDelegate> app_;
    std::shared_ptr<CorvexdBackend> reader_;
};

} // namespace corvex::apptest
