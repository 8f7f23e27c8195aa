#include "Support/AppHarness.h"

#include <QApplication>
#include <QMainWindow>
#include <QSettings>
#include <QTest>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "Corvex/PaneHostView.h"
#include "Corvex/TerminalView.h"

namespace corvex::apptest {

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return done();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QTest::qWait(10);
    }
    return true;
}

AppHarness::AppHarness() {
    std::filesystem::create_directories(runtimeDir());
    std::filesystem::permissions(runtimeDir(), std::filesystem::perms::owner_all);
    ::setenv("CORVEXD_RUNTIME_DIR", runtimeDir().c_str(), 1);
    {
        QSettings settings("Corvex", "Corvex");
        settings.clear();
        // Panes close without a question, except in the test that asks it.
        settings.setValue("SkipCloseConfirm.Pane", true);
    }
    app_ = std::make_unique<AppDelegate>(AppDelegate::Options{false, daemon_.scratch().file("Corvex.log")});
    app_->launch();
    [[maybe_unused]] bool exposed = QTest::qWaitForWindowExposed(app_->window());
}

// The app goes first; the daemon it started leaves with its last client, and the harness
// beneath makes sure of it, shells and all.
AppHarness::~AppHarness() { app_.reset(); }

bool AppHarness::waitForShell() {
    return eventually([this] {
        PaneHostView* view = app_->focusedHost();
        return view && view->isVisible() && view->host().subscribed() && view->host().haveSeq().has_value() &&
               !screenText(view->paneID()).empty() &&
               screenText(view->paneID()).find_first_not_of(" \n") != std::string::npos;
    });
}

uint64_t AppHarness::focusedPane() {
    PaneHostView* view = app_->focusedHost();
    return view ? view->paneID() : 0;
}

void AppHarness::type(const std::string& text) {
    PaneHostView* view = app_->focusedHost();
    if (!view) return;
    QTest::keyClicks(view->terminal(), QString::fromStdString(text));
}

void AppHarness::pressReturn() {
    if (PaneHostView* view = app_->focusedHost()) QTest::keyClick(view->terminal(), Qt::Key_Return);
}

void AppHarness::shortcut(Qt::Key key, Qt::KeyboardModifiers modifiers) {
    QWidget* target = QApplication::focusWidget();
    if (!target) target = app_->window();
    QTest::keyClick(target, key, modifiers);
}

CorvexdBackend& AppHarness::reader() {
    if (!reader_) reader_ = daemon_.connect("corvex-app-tests");
    return *reader_;
}

std::string AppHarness::daemonText(uint64_t pane) {
    try {
        return reader().paneText(pane).text();
    } catch (const std::exception&) {
        return {};
    }
}

std::string AppHarness::screenText(uint64_t pane) {
    PaneHostView* view = app_->host(pane);
    return view ? view->terminal()->screenText() : std::string();
}

bool AppHarness::screenShows(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout) {
    return eventually([&] { return screenText(pane).find(text) != std::string::npos; }, timeout);
}

bool AppHarness::daemonShows(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout) {
    return eventually([&] { return daemonText(pane).find(text) != std::string::npos; }, timeout);
}

QImage AppHarness::screenshot() {
    return app_->window()->grab().toImage();
}

void AppHarness::keepScreenshot(const std::string& name) {
    const char* folder = std::getenv("CORVEX_TEST_SHOTS");
    if (!folder || !*folder) return;
    screenshot().save(QString::fromStdString(std::string(folder) + "/" + name + ".png"), "PNG");
}

std::string AppHarness::logText() const {
    std::ifstream file(app_->logPath());
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string AppHarness::describe() {
    std::ostringstream text;
    PaneHostView* view = app_->focusedHost();
    text << "focused pane: " << (view ? std::to_string(view->paneID()) : "none");
    if (view) {
        text << " visible " << view->isVisible() << " subscribed " << view->host().subscribed() << " have "
             << (view->host().haveSeq() ? std::to_string(*view->host().haveSeq()) : "none") << " size "
             << view->width() << "x" << view->height() << "\nscreen:\n"
             << screenText(view->paneID()) << "\ndaemon:\n"
             << daemonText(view->paneID());
    }
    text << "\nlog:\n" << logText();
    return text.str();
}

void AppHarness::killDaemon() {
    if (reader_) reader_->stop();
    reader_.reset();
    if (pid_t pid = daemonPid(); pid > 0) ::kill(pid, SIGKILL);
}

} // namespace corvex::apptest
