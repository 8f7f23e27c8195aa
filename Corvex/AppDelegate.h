#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Corvex/QtMainQueue.h"
#include "Corvex/QtPreferences.h"
#include "CorvexKit/AppLog.h"
#include "CorvexKit/LocalDaemon.h"
#include "CorvexKit/Machine.h"
#include "CorvexKit/MachineConnection.h"
#include "CorvexKit/ModelStore.h"
#include "CorvexKit/SessionBackend.h"

class QLabel;
class QMainWindow;
class QPushButton;
class QSplitter;
class QStackedWidget;
class QWidget;

namespace corvex {

class PaneHostView;
class SidebarView;
class SplitLayoutView;
class TabBarView;

struct PaneKey {
    std::string machine;
    uint64_t pane = 0;
    auto operator<=>(const PaneKey&) const = default;
};

struct TabKey {
    std::string machine;
    uint64_t tab = 0;
    auto operator<=>(const TabKey&) const = default;
};

// The one application controller: the window and its views, one connection per machine, and
// the step that redraws everything from the focused machine's model. Main thread only.
class AppDelegate final : public QObject {
    Q_OBJECT
public:
    struct Options {
        bool developmentBuild = false;
        // Where the log goes; the default path under the home folder when empty.
        std::string logPath;
    };

    explicit AppDelegate(Options options);
    explicit AppDelegate() : AppDelegate(Options{}) {}
    ~AppDelegate() override;

    // The launch order: preferences, window and views, the local backend, its store.
    void launch();
    // Stops every store; shells live on in their daemons.
    void terminate();

    void sync();
    void log(const std::string& text);

    // Actions of the menus and shortcuts, on the focused machine.
    void newWorkspace();
    void newTab();
    void split(Direction direction);
    void closeFocusedPane();
    void closePane(uint64_t pane);
    void selectTab(int offset);
    void toggleMaximize();
    void copy();
    void paste();
    void showShortcuts();

    // Machines.
    void connectMachine(const Machine& machine, bool startWorkspace, bool show);
    void disconnectMachine(const std::string& key);
    void reconnectMachine(const std::string& key);
    void focusMachine(const std::string& key);
    void showAddMachine();
    void showEditMachine(const std::string& key);
    void showRemoveMachine(const std::string& key);
    MachineRegistry& machines() { return *machines_; }
    // The sheet or question open last (a machine's sheet, a close confirmation), if any.
    QWidget* machineSheet() const { return machineSheet_; }

    // For tests and benchmarks.
    QMainWindow* window() const { return window_; }
    SidebarView* sidebar() const { return sidebar_; }
    TabBarView* tabBar() const { return tabBar_; }
    SplitLayoutView* splitView() const { return splitView_; }
    QLabel* emptyLabel() const { return emptyTitle_; }
    ModelStore* store(const std::string& machine = "local") const;
    PaneHostView* host(uint64_t pane, const std::string& machine = "local") const;
    PaneHostView* focusedHost() const;
    const std::string& logPath() const { return log_->path(); }
    const std::string& focusedMachine() const { return focusedMachine_; }

    static const std::vector<std::pair<std::string, std::string>>& shortcutList();

private:
    // One machine's live link, with the handles the controller reaches for most.
    struct Connection {
        std::unique_ptr<MachineConnection> link;
        std::string key;
        std::string label;
        std::shared_ptr<SessionBackend> backend;
        ModelStore* store = nullptr;
        bool colorsSent = false;
    };

    void buildWindow();
    void buildMenus();
    void installSignalHandling();
    std::shared_ptr<SessionBackend> makeBackend();
    void addSession(std::unique_ptr<Connection> connection);
    std::unique_ptr<Connection> makeConnection(const Machine& machine, std::shared_ptr<SessionBackend> backend,
                                               std::shared_ptr<RemoteInstaller> installer = {});
    std::shared_ptr<SessionBackend> makeRemoteBackend(const Machine& machine, std::shared_ptr<RemoteInstaller>& installer);
    Connection* connection(const std::string& key) const;
    std::string computerName() const;
    void startBackend();
    void awaitFirstState(int attempt);
    void backendFailed(const std::string& message, bool holderTooOld);

    Connection* focusedConnection() const;
    PaneHostView* makeHost(Connection& connection, uint64_t pane);
    void removeGoneHosts();
    void focusKeyboard();
    void paneTookKeyboard(const std::string& machine, uint64_t pane);
    void showNotice(const std::string& message, const std::string& action, std::function<void()> then);
    void hideNotice();

    // Runs a blocking backend operation off the main thread; a failure is logged with the label.
    void run(const std::string& label, std::function<void(SessionBackend&)> operation);
    void runOn(Connection& connection, const std::string& label, std::function<void(SessionBackend&)> operation);

    Options options_;
    QtMainQueue mainQueue_;
    QtPreferences preferences_;
    std::shared_ptr<AppLog> log_;
    std::function<void(const std::string&)> fileLogger(std::string prefix = {}) const;
    bool logModel_ = false;

    QMainWindow* window_ = nullptr;
    QSplitter* splitter_ = nullptr;
    SidebarView* sidebar_ = nullptr;
    TabBarView* tabBar_ = nullptr;
    QWidget* noticeBar_ = nullptr;
    QLabel* noticeText_ = nullptr;
    QPushButton* noticeAction_ = nullptr;
    std::function<void()> noticeThen_;
    QStackedWidget* stack_ = nullptr;
    SplitLayoutView* splitView_ = nullptr;
    QWidget* emptyState_ = nullptr;
    QLabel* emptyTitle_ = nullptr;
    QLabel* emptyDetail_ = nullptr;
    QPushButton* emptyButton_ = nullptr;
    QWidget* shortcutsOverlay_ = nullptr;

    std::vector<std::unique_ptr<Connection>> connections_; // "local" first
    std::string focusedMachine_ = "local";
    std::optional<LocalDaemon> localDaemon_;
    std::unique_ptr<MachineRegistry> machines_;
    std::map<std::string, MachineStatus> machineStatus_;
    QPointer<QWidget> machineSheet_;
    std::map<PaneKey, QPointer<PaneHostView>> paneHosts_;
    std::map<TabKey, uint64_t> maximized_;
    std::optional<std::string> startFailure_;
    std::optional<PaneKey> lastReportedFocus_;
    bool focusReportScheduled_ = false;
    bool terminated_ = false;
};

} // namespace corvex
