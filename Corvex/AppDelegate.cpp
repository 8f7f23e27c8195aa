#include "Corvex/AppDelegate.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QMainWindow>
#include <QMenuBar>
#include <QPushButton>
#include <QScreen>
#include <QSocketNotifier>
#include <QSplitter>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <csignal>
#include <filesystem>
#include <fcntl.h>
#include <unistd.h>

#include "Corvex/MachineSheet.h"
#include "Corvex/PaneHostView.h"
#include "Corvex/SidebarView.h"
#include "Corvex/SplitLayoutView.h"
#include "Corvex/TabBarView.h"
#include "Corvex/TerminalView.h"
#include "CorvexFake/FakeBackend.h"
#include "CorvexKit/BackendChoice.h"
#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/SSHOptions.h"
#include "CorvexKit/WindowModel.h"
#include "Platform/System.h"
#include "Platform/WorkerPool.h"

namespace corvex {

namespace {

constexpr int getStateAttempts = 40;
constexpr int getStateDelayMs = 50;

std::string describe(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

// SIGTERM arrives on a pipe, so the quit runs on the main thread like any other event.
int termPipe[2] = {-1, -1};

void onTerm(int) {
    char byte = 1;
    [[maybe_unused]] auto written = ::write(termPipe[1], &byte, 1);
}

} // namespace

const std::vector<std::pair<std::string, std::string>>& AppDelegate::shortcutList() {
    static const std::vector<std::pair<std::string, std::string>> list = {
        {"Ctrl+Shift+T", "New Tab"},
        {"Ctrl+Shift+N", "New Workspace"},
        {"Ctrl+Shift+D", "Split Right"},
        {"Ctrl+Shift+E", "Split Down"},
        {"Ctrl+Shift+W", "Close Pane"},
        {"Ctrl+Shift+M", "Maximize Pane"},
        {"Ctrl+Shift+C", "Copy"},
        {"Ctrl+Shift+V", "Paste"},
        {"Ctrl+PgDown", "Next Tab"},
        {"Ctrl+PgUp", "Previous Tab"},
        {"Ctrl+Shift+B", "Show or Hide the Sidebar"},
        {"F1", "Keyboard Shortcuts"},
        {"Ctrl+Shift+Q", "Quit"},
    };
    return list;
}

AppDelegate::AppDelegate(Options options)
    : options_(std::move(options)),
      log_(std::make_shared<AppLog>(options_.logPath.empty()
                                        ? AppLog::defaultPath(platform::homeDirectory(), options_.developmentBuild)
                                        : options_.logPath)) {}

AppDelegate::~AppDelegate() {
    terminate();
    for (auto& [key, host] : paneHosts_) {
        if (host) host->retire();
    }
    delete window_;
}

void AppDelegate::log(const std::string& text) {
    log_->write(text);
}

// For work on other threads, which may outlive this controller: the log goes with it.
std::function<void(const std::string&)> AppDelegate::fileLogger(std::string prefix) const {
    return [log = log_, prefix = std::move(prefix)](const std::string& text) { log->write(prefix + text); };
}

void AppDelegate::launch() {
    logModel_ = preferences_.boolean(prefkey::logModel).value_or(false);
    buildWindow();
    buildMenus();
    if (!preferences_.boolean(prefkey::launchInBackground).value_or(false)) {
        window_->show();
        window_->raise();
        window_->activateWindow();
    } else {
        window_->showMinimized();
    }
    if (preferences_.boolean(prefkey::startFullScreen).value_or(false)) window_->showFullScreen();

    QPointer<AppDelegate> self(this);
    machines_ = std::make_unique<MachineRegistry>(preferences_, [] { return platform::hostName(); }, [self] {
        // Changes of the list come from inside the controller's own steps; redraw after them.
        QTimer::singleShot(0, self, [self] {
            if (self) self->sync();
        });
    });
    addSession(makeConnection(Machine::local(computerName()), makeBackend()));
    startBackend();
    std::vector<std::string> remembered = machines_->connected();
    for (const Machine& machine : machines_->remoteMachines()) {
        if (std::find(remembered.begin(), remembered.end(), machine.key()) != remembered.end())
            connectMachine(machine, false, false);
    }

    if (auto stored = preferences_.string(prefkey::focusedMachine)) {
        if (store(*stored)) focusedMachine_ = *stored;
    }
    installSignalHandling();
    if (preferences_.boolean(prefkey::showShortcuts).value_or(false)) showShortcuts();
    sync();
}

void AppDelegate::terminate() {
    if (terminated_) return;
    terminated_ = true;
    log("quitting");
    for (auto& connection : connections_) connection->store->stop();
}

void AppDelegate::installSignalHandling() {
    std::signal(SIGPIPE, SIG_IGN);
    if (termPipe[0] < 0 && ::pipe2(termPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action {};
    action.sa_handler = onTerm;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGTERM, &action, nullptr);
    auto* notifier = new QSocketNotifier(termPipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char bytes[16];
        while (::read(termPipe[0], bytes, sizeof bytes) > 0) {
        }
        log("quitting: SIGTERM");
        QApplication::quit();
    });
    connect(qApp, &QApplication::lastWindowClosed, this, [this] { log("quitting: the last window closed"); });
    connect(qApp, &QApplication::aboutToQuit, this, [this] { terminate(); });
}

// The backend for this computer: a corvexd found as the preferences, the environment or the
// app's own folder say, else the shells run inside the app.
std::shared_ptr<SessionBackend> AppDelegate::makeBackend() {
    BackendChoice choice = BackendChoice::choose(BackendInputs::current(preferences_, options_.developmentBuild));
    if (choice.inProcess) {
        log(choice.logLine);
        return FakeBackend::create();
    }
    LocalDaemon daemon;
    daemon.source = choice.source;
    daemon.runInPlace = choice.runInPlace;
    daemon.runtimeDir = choice.runtimeDir;
    daemon.installDir = choice.installDir;
    daemon.log = fileLogger("corvexd: ");
    localDaemon_ = daemon;
    std::string socket = daemon.socketPath().value_or(CorvexdBackend::defaultSocketPath(choice.runtimeDir));
    log(choice.daemonLogLine(socket));
    auto logger = fileLogger();
    daemon.log = {};
    auto configuration = CorvexdBackend::Configuration::socket(socket, clientIdentity(std::nullopt), logger,
                                                               [daemon] { daemon.start(); });
    return CorvexdBackend::make(std::move(configuration));
}

std::string AppDelegate::computerName() const {
    return platform::hostName();
}

std::unique_ptr<AppDelegate::Connection> AppDelegate::makeConnection(const Machine& machine,
                                                                     std::shared_ptr<SessionBackend> backend,
                                                                     std::shared_ptr<RemoteInstaller> installer) {
    auto connection = std::make_unique<Connection>();
    connection->link =
        std::make_unique<MachineConnection>(machine, std::make_unique<ModelStore>(backend, mainQueue_), installer);
    connection->key = machine.key();
    connection->label = connection->link->title(computerName());
    connection->backend = backend;
    connection->store = &connection->link->store();
    return connection;
}

AppDelegate::Connection* AppDelegate::connection(const std::string& key) const {
    for (auto& each : connections_) {
        if (each->key == key) return each.get();
    }
    return nullptr;
}

// A remote machine's backend: ssh to it, its daemon installed or updated first by every
// attempt, then the bridge.
std::shared_ptr<SessionBackend> AppDelegate::makeRemoteBackend(const Machine& machine,
                                                              std::shared_ptr<RemoteInstaller>& installer) {
    std::optional<std::string> proxy;
    if (options_.developmentBuild) proxy = preferences_.string("SSHProxyCommand");
    SSHOptions ssh = SSHOptions::fromEnvironment(options_.developmentBuild, proxy);
    std::string executable = std::filesystem::canonical("/proc/self/exe").string();
    RemoteLinkSettings settings = RemoteLinkSettings::from(preferences_, bundledDistFolder(executable), ssh);
    settings.log = fileLogger();
    RemoteLink link = makeRemoteLink(machine.target.value_or(""), machine.label, settings);
    installer = link.installer;
    CorvexdBackend::Configuration configuration;
    configuration.transport = link.transport;
    configuration.clientName = clientIdentity(std::nullopt);
    configuration.retry = RetryPolicy::remote();
    configuration.log = settings.log;
    return CorvexdBackend::make(std::move(configuration));
}

void AppDelegate::connectMachine(const Machine& wanted, bool startWorkspace, bool show) {
    std::optional<Machine> machine = machines_->find(wanted.key());
    if (!machine || machine->isLocal()) return;
    if (!machine->isEnabled) {
        log(machine->label + " is switched off; not connecting");
        return;
    }
    std::string key = machine->key();
    if (connection(key)) {
        if (show || startWorkspace) focusMachine(key);
        if (startWorkspace) newWorkspace();
        return;
    }
    std::shared_ptr<RemoteInstaller> installer;
    auto backend = makeRemoteBackend(*machine, installer);
    addSession(makeConnection(*machine, backend, installer));
    machines_->markConnected(key);
    if (show) focusMachine(key);
    sync();
    QPointer<AppDelegate> self(this);
    connection(key)->store->start([self, key, startWorkspace](std::exception_ptr error) {
        if (!self) return;
        if (error) {
            // The store keeps trying on its own; its state tells the sidebar why.
            self->log("connecting to " + key + " failed: " + describe(error));
            return;
        }
        Connection* target = self->connection(key);
        if (!target) return;
        bool focused = self->focusedMachine_ == key;
        self->runOn(*target, "first workspace on " + key, [startWorkspace, focused](SessionBackend& backend) {
            if (startWorkspace || (focused && backend.getState().workspaces.empty()))
                backend.createWorkspace(std::nullopt, SpawnOptions{});
        });
    });
}

void AppDelegate::disconnectMachine(const std::string& key) {
    if (key == Machine::localKey) return;
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if ((*it)->key != key) continue;
        (*it)->store->stop();
        for (auto host = paneHosts_.begin(); host != paneHosts_.end();) {
            if (host->first.machine != key) {
                ++host;
                continue;
            }
            (*it)->store->unregisterSink(host->first.pane);
            if (PaneHostView* view = host->second.data()) {
                view->retire();
                view->hide();
                view->deleteLater();
            }
            host = paneHosts_.erase(host);
        }
        connections_.erase(it);
        break;
    }
    machines_->markDisconnected(key);
    if (focusedMachine_ == key) focusMachine(std::string(Machine::localKey));
    sync();
}

void AppDelegate::reconnectMachine(const std::string& key) {
    if (Connection* target = connection(key)) {
        log(target->label + ": reconnecting (asked)");
        target->backend->reconnectNow();
    }
}

void AppDelegate::focusMachine(const std::string& key) {
    if (!connection(key)) return;
    focusedMachine_ = key;
    preferences_.setString(prefkey::focusedMachine, key);
    sync();
}

void AppDelegate::showAddMachine() {
    auto* sheet = new MachineSheet(MachineSheet::Mode::add, "", "", window_);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<AppDelegate> self(this);
    sheet->onAccept = [self](const std::string& label, const std::string& target) {
        if (!self) return;
        Machine machine = self->machines_->add(label, target);
        self->log(label + ": added (" + target + ")");
        self->connectMachine(machine, true, true);
    };
    machineSheet_ = sheet;
    sheet->open();
}

void AppDelegate::showEditMachine(const std::string& key) {
    std::optional<Machine> machine = machines_->find(key);
    if (!machine || machine->isLocal()) return;
    auto* sheet = new MachineSheet(MachineSheet::Mode::edit, machine->label, machine->target.value_or(""), window_);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<AppDelegate> self(this);
    sheet->onAccept = [self, key](const std::string& label, const std::string& target) {
        if (!self) return;
        bool moved = self->machines_->update(key, label, target);
        if (Connection* existing = self->connection(key)) existing->label = label;
        if (moved && self->connection(key)) {
            self->log(label + ": target changed to " + target + ", reconnecting");
            self->disconnectMachine(key);
            if (auto machine = self->machines_->find(key)) self->connectMachine(*machine, false, true);
        }
        self->sync();
    };
    machineSheet_ = sheet;
    sheet->open();
}

void AppDelegate::showRemoveMachine(const std::string& key) {
    std::optional<Machine> machine = machines_->find(key);
    if (!machine || machine->isLocal()) return;
    auto* ask = new QMessageBox(QMessageBox::Question, "Remove Machine", QString::fromStdString("Remove " + machine->label + "?"),
                                QMessageBox::NoButton, window_);
    ask->setObjectName("removeMachine");
    ask->setInformativeText("This only removes it from Corvex's list. Nothing on the machine changes: its corvexd and "
                            "its shells keep running there, and adding it again shows them.");
    QPushButton* remove = ask->addButton("Remove", QMessageBox::DestructiveRole);
    ask->addButton("Cancel", QMessageBox::RejectRole);
    ask->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<AppDelegate> self(this);
    QObject::connect(ask, &QMessageBox::buttonClicked, this, [self, key, remove](QAbstractButton* button) {
        if (!self || button != remove) return;
        self->disconnectMachine(key);
        self->machines_->remove(key);
        self->machineStatus_.erase(key);
        self->sync();
    });
    machineSheet_ = ask;
    ask->open();
}

void AppDelegate::addSession(std::unique_ptr<Connection> connection) {
    Connection& added = *connection;
    connections_.push_back(std::move(connection));
    QPointer<AppDelegate> self(this);
    added.store->onChange = [self] {
        if (self) self->sync();
    };
    added.store->onBell = [self](uint64_t) {
        if (self && self->window_ && !self->window_->isActiveWindow()) QApplication::alert(self->window_);
    };
}

void AppDelegate::startBackend() {
    Connection* local = connections_.empty() ? nullptr : connections_.front().get();
    if (!local) return;
    std::optional<LocalDaemon> daemon = localDaemon_;
    QPointer<AppDelegate> self(this);
    // Nothing of this controller is touched off the main thread: it may be gone by then.
    platform::WorkerPool::shared().detach([daemon, self, mainQueue = QtMainQueue()]() mutable {
        std::exception_ptr failure;
        try {
            if (daemon) daemon->start();
        } catch (...) {
            failure = std::current_exception();
        }
        mainQueue.post([self, failure] {
            if (!self) return;
            if (failure) {
                bool tooOld = false;
                try {
                    std::rethrow_exception(failure);
                } catch (const LocalDaemon::Failure& error) {
                    tooOld = error.kind == LocalDaemon::Failure::Kind::holderTooOld;
                } catch (...) {
                }
                self->backendFailed(describe(failure), tooOld);
                return;
            }
            Connection* local = self->connections_.front().get();
            local->store->start([self](std::exception_ptr error) {
                if (!self) return;
                if (error) {
                    self->backendFailed(describe(error), false);
                    return;
                }
                self->awaitFirstState(1);
            });
        });
    });
}

void AppDelegate::awaitFirstState(int attempt) {
    Connection* local = connections_.front().get();
    auto backend = local->backend;
    QPointer<AppDelegate> self(this);
    platform::WorkerPool::shared().detach([this, backend, self, attempt] {
        std::optional<ModelState> state;
        std::exception_ptr failure;
        try {
            state = backend->getState();
        } catch (...) {
            failure = std::current_exception();
        }
        mainQueue_.post([self, state, failure, attempt] {
            if (!self) return;
            if (!state) {
                if (attempt >= getStateAttempts) {
                    self->backendFailed(describe(failure), false);
                    return;
                }
                QTimer::singleShot(getStateDelayMs, self, [self, attempt] {
                    if (self) self->awaitFirstState(attempt + 1);
                });
                return;
            }
            if (!state->workspaces.empty()) return;
            self->runOn(*self->connections_.front(), "create the first workspace", [](SessionBackend& backend) {
                backend.createWorkspace(std::string("Workspace 1"), SpawnOptions{});
            });
        });
    });
}

void AppDelegate::backendFailed(const std::string& message, bool holderTooOld) {
    if (holderTooOld) {
        log("corvexd: " + message);
        showNotice("This computer runs an older corvexd that can't be updated in place. Restarting it finishes the "
                   "update and ends every shell on this computer.",
                   "", {});
        return;
    }
    log("backend failed to start: " + message);
    startFailure_ = "Couldn't start corvexd: " + message;
    sync();
}

void AppDelegate::run(const std::string& label, std::function<void(SessionBackend&)> operation) {
    if (Connection* connection = focusedConnection()) runOn(*connection, label, std::move(operation));
}

void AppDelegate::runOn(Connection& connection, const std::string& label,
                        std::function<void(SessionBackend&)> operation) {
    auto backend = connection.backend;
    QPointer<AppDelegate> self(this);
    platform::WorkerPool::shared().detach([backend, label, operation, self, mainQueue = QtMainQueue()]() mutable {
        try {
            operation(*backend);
        } catch (...) {
            std::string text = label + " failed: " + describe(std::current_exception());
            mainQueue.post([self, text] {
                if (self) self->log(text);
            });
        }
    });
}

ModelStore* AppDelegate::store(const std::string& machine) const {
    for (auto& connection : connections_) {
        if (connection->key == machine) return connection->store;
    }
    return nullptr;
}

AppDelegate::Connection* AppDelegate::focusedConnection() const {
    for (auto& connection : connections_) {
        if (connection->key == focusedMachine_) return connection.get();
    }
    return connections_.empty() ? nullptr : connections_.front().get();
}

PaneHostView* AppDelegate::host(uint64_t pane, const std::string& machine) const {
    auto found = paneHosts_.find({machine, pane});
    return found == paneHosts_.end() ? nullptr : found->second.data();
}

PaneHostView* AppDelegate::focusedHost() const {
    Connection* connection = focusedConnection();
    if (!connection) return nullptr;
    const Pane* pane = connection->store->focusedPane();
    return pane ? host(pane->id, connection->key) : nullptr;
}

PaneHostView* AppDelegate::makeHost(Connection& connection, uint64_t pane) {
    PaneHostContext context;
    context.backend = connection.backend;
    context.mainQueue = &mainQueue_;
    context.offMain = [](std::function<void()> work) { platform::WorkerPool::shared().detach(std::move(work)); };
    context.log = fileLogger();
    context.logModel = logModel_;
    double fontSize = prefs::fontSize(preferences_.number(prefkey::fontSize)) *
                      prefs::uiScale(preferences_.number(prefkey::uiScale));
    auto* view = new PaneHostView(pane, std::move(context), fontSize, splitView_);
    view->hide();
    if (!connection.colorsSent) {
        // The daemon answers programs' colour queries with what the views draw.
        connection.colorsSent = true;
        connection.backend->setTerminalColors(view->terminal()->colors());
    }
    std::string machine = connection.key;
    QPointer<AppDelegate> self(this);
    view->onClose = [self, machine, pane] {
        if (!self) return;
        if (Connection* target = self->focusedConnection(); target && target->key == machine) self->closePane(pane);
    };
    view->onDismissRestored = [self, machine, pane] {
        if (!self) return;
        if (Connection* target = self->focusedConnection(); target && target->key == machine)
            self->runOn(*target, "dismiss restored pane " + std::to_string(pane),
                        [pane](SessionBackend& b) { b.dismissRestored(pane); });
    };
    view->onTookKeyboard = [self, machine, pane] {
        if (self) self->paneTookKeyboard(machine, pane);
    };
    connection.store->registerSink(pane, view->sink());
    paneHosts_[{machine, pane}] = view;
    // Waits for the host's first real layout, so the daemon hears the true size at once.
    view->host().subscribe();
    return view;
}

void AppDelegate::removeGoneHosts() {
    for (auto it = paneHosts_.begin(); it != paneHosts_.end();) {
        ModelStore* owner = store(it->first.machine);
        bool gone = !it->second || !owner || !owner->state().pane(it->first.pane);
        if (!gone) {
            ++it;
            continue;
        }
        if (owner) owner->unregisterSink(it->first.pane);
        if (PaneHostView* view = it->second.data()) {
            view->retire();
            view->hide();
            view->deleteLater();
        }
        it = paneHosts_.erase(it);
    }
}

void AppDelegate::sync() {
    if (!window_) return;
    Connection* connection = focusedConnection();
    if (!connection) return;
    ModelStore& focused = *connection->store;
    if (logModel_) log(focusedMachine_ + " state rev " + std::to_string(focused.state().rev));

    std::vector<SidebarGroup> groups;
    for (const Machine& machine : machines_->all()) {
        Connection* each = this->connection(machine.key());
        SidebarGroup group;
        group.machine = machine.key();
        group.label = each ? each->label : machine.label;
        group.isLocal = machine.isLocal();
        group.focused = each == connection;
        std::optional<ConnectionSnapshot> snapshot;
        if (each) snapshot = each->link->snapshot();
        group.status = sidebarStatus(machine, snapshot, machineStatus_[machine.key()], false);
        if (each) group.workspaces = sidebarWorkspaces(*each->store, group.focused);
        groups.push_back(std::move(group));
    }
    sidebar_->update(groups);

    const Tab* tab = focused.focusedTab();
    std::optional<uint64_t> maximizedPane;
    std::optional<uint64_t> maximizedTab;
    for (auto it = maximized_.begin(); it != maximized_.end();) {
        ModelStore* owner = store(it->first.machine);
        if (!owner || !owner->state().tab(it->first.tab)) {
            it = maximized_.erase(it);
            continue;
        }
        if (tab && it->first == TabKey{connection->key, tab->id}) {
            maximizedPane = it->second;
            maximizedTab = tab->id;
        }
        ++it;
    }
    tabBar_->update(tabBarItems(focused, maximizedTab));

    removeGoneHosts();
    std::map<uint64_t, PaneHostView*> shown;
    if (tab) {
        for (uint64_t pane : tab->layout.panes()) {
            PaneHostView* view = host(pane, connection->key);
            if (!view) view = makeHost(*connection, pane);
            shown[pane] = view;
        }
    }
    for (auto& [key, view] : paneHosts_) {
        if (view && (key.machine != connection->key || !shown.count(key.pane))) view->hide();
    }
    splitView_->show(tab ? std::optional<Layout>(tab->layout) : std::nullopt, shown, maximizedPane);
    const Pane* focusedPane = focused.focusedPane();
    for (auto& [pane, view] : shown) {
        view->setFocusedPane(focusedPane && focusedPane->id == pane, shown.size() > 1);
        const Pane* model = focused.state().pane(pane);
        view->setRestored(model ? model->restored : std::nullopt);
    }

    std::string status =
        sidebarStatus(connection->link->machine(), connection->link->snapshot(), machineStatus_[connection->key], false)
            .text;
    EmptyState empty = emptyState(focused, connection->label, startFailure_ ? *startFailure_ : status);
    if (startFailure_ && focused.state().workspaces.empty()) empty = {EmptyState::Kind::message, *startFailure_, "", ""};
    if (empty.kind == EmptyState::Kind::none) {
        stack_->setCurrentWidget(splitView_);
    } else {
        emptyTitle_->setText(QString::fromStdString(empty.title));
        emptyDetail_->setText(QString::fromStdString(empty.detail));
        emptyDetail_->setVisible(!empty.detail.empty());
        emptyButton_->setText(QString::fromStdString(empty.button));
        emptyButton_->setVisible(!empty.button.empty());
        emptyButton_->setProperty("kind", static_cast<int>(empty.kind));
        stack_->setCurrentWidget(emptyState_);
    }

    std::optional<std::string> remote;
    if (connection->key != "local") remote = connection->label;
    window_->setWindowTitle(QString::fromStdString(windowTitle(focused, remote)));
    focusKeyboard();
}

// The focused pane takes the keyboard unless the user is typing somewhere else: a rename, a
// sheet, the sidebar.
void AppDelegate::focusKeyboard() {
    PaneHostView* view = focusedHost();
    if (!view || !view->isVisible() || QApplication::activeModalWidget()) return;
    QWidget* current = QApplication::focusWidget();
    if (current == view->terminal()) return;
    if (current && (qobject_cast<QLineEdit*>(current) || sidebar_->isAncestorOf(current))) return;
    if (current && !splitView_->isAncestorOf(current) && !tabBar_->isAncestorOf(current) && current != window_) return;
    view->terminal()->setFocus(Qt::OtherFocusReason);
}

void AppDelegate::paneTookKeyboard(const std::string& machine, uint64_t pane) {
    Connection* connection = focusedConnection();
    if (!connection || connection->key != machine) return;
    lastReportedFocus_ = PaneKey{machine, pane};
    if (focusReportScheduled_) return;
    focusReportScheduled_ = true;
    // Any number of reasons in one turn make one report.
    QPointer<AppDelegate> self(this);
    QTimer::singleShot(0, this, [self] {
        if (!self) return;
        self->focusReportScheduled_ = false;
        auto key = self->lastReportedFocus_;
        Connection* target = self->focusedConnection();
        if (!key || !target || target->key != key->machine) return;
        const Pane* shown = target->store->focusedPane();
        if (shown && shown->id == key->pane) return;
        uint64_t pane = key->pane;
        target->store->focus(FocusTarget::pane(pane), [self, pane](std::exception_ptr error) {
            if (self && error) self->log("focus pane " + std::to_string(pane) + " failed: " + describe(error));
        });
        if (target->store->features().count(Hello::Feature::paneFocus)) target->store->focusPane(pane);
    });
}

void AppDelegate::newWorkspace() {
    Connection* connection = focusedConnection();
    if (!connection) return;
    std::string machine = connection->key;
    QPointer<AppDelegate> self(this);
    runOn(*connection, "new workspace", [this, self, machine](SessionBackend& backend) {
        uint64_t workspace = backend.createWorkspace(std::nullopt, SpawnOptions{}).workspace;
        // The new workspace is shown, as the user asked for it to work in.
        mainQueue_.post([self, machine, workspace] {
            if (!self) return;
            if (ModelStore* target = self->store(machine)) target->focus(FocusTarget::workspace(workspace));
        });
    });
}

void AppDelegate::newTab() {
    Connection* connection = focusedConnection();
    if (!connection) return;
    const Workspace* workspace = connection->store->focusedWorkspace();
    if (!workspace) {
        newWorkspace();
        return;
    }
    uint64_t id = workspace->id;
    run("new tab", [id](SessionBackend& backend) { backend.createTab(id, SpawnOptions{}); });
}

void AppDelegate::split(Direction direction) {
    PaneHostView* view = focusedHost();
    if (!view) return;
    uint64_t pane = view->paneID();
    run("split pane " + std::to_string(pane),
        [pane, direction](SessionBackend& backend) { backend.split(pane, direction, std::nullopt, SpawnOptions{}); });
}

void AppDelegate::closeFocusedPane() {
    if (PaneHostView* view = focusedHost()) closePane(view->paneID());
}

// Closing a pane ends what runs in it, so it is confirmed unless the user said not to ask.
void AppDelegate::closePane(uint64_t pane) {
    Connection* connection = focusedConnection();
    if (!connection) return;
    std::string machine = connection->key;
    QPointer<AppDelegate> self(this);
    auto close = [self, machine, pane] {
        if (!self) return;
        if (Connection* target = self->connection(machine))
            self->runOn(*target, "close pane " + std::to_string(pane), [pane](SessionBackend& b) { b.closePane(pane); });
    };
    std::string skipKey = std::string(prefkey::skipCloseConfirm) + "Pane";
    if (preferences_.boolean(skipKey).value_or(false)) {
        close();
        return;
    }
    auto* ask = new QMessageBox(QMessageBox::Question, "Close Pane", "Close this pane?", QMessageBox::NoButton, window_);
    ask->setObjectName("closePaneConfirm");
    ask->setInformativeText("This stops anything running in it. Closing a tab's last pane closes the tab.");
    QPushButton* confirm = ask->addButton("Close", QMessageBox::DestructiveRole);
    ask->addButton("Cancel", QMessageBox::RejectRole);
    ask->setCheckBox(new QCheckBox("Don't ask again", ask));
    ask->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(ask, &QMessageBox::buttonClicked, this, [self, ask, confirm, close, skipKey](QAbstractButton* button) {
        if (!self || button != confirm) return;
        if (ask->checkBox()->isChecked()) self->preferences_.setBoolean(skipKey, true);
        close();
    });
    machineSheet_ = ask;
    ask->open();
}

void AppDelegate::selectTab(int offset) {
    Connection* connection = focusedConnection();
    if (!connection) return;
    const Workspace* workspace = connection->store->focusedWorkspace();
    const Tab* tab = connection->store->focusedTab();
    if (!workspace || !tab || workspace->tabs.size() < 2) return;
    int count = static_cast<int>(workspace->tabs.size());
    int index = 0;
    for (int at = 0; at < count; ++at) {
        if (workspace->tabs[static_cast<size_t>(at)].id == tab->id) index = at;
    }
    int next = ((index + offset) % count + count) % count;
    connection->store->focus(FocusTarget::tab(workspace->tabs[static_cast<size_t>(next)].id));
}

void AppDelegate::toggleMaximize() {
    Connection* connection = focusedConnection();
    PaneHostView* view = focusedHost();
    const Tab* tab = connection ? connection->store->focusedTab() : nullptr;
    if (!view || !tab) return;
    TabKey key{connection->key, tab->id};
    if (maximized_.count(key)) maximized_.erase(key);
    else if (tab->layout.panes().size() > 1) maximized_[key] = view->paneID();
    sync();
}

void AppDelegate::copy() {
    PaneHostView* view = focusedHost();
    if (!view) return;
    view->terminal()->copySelection();
}

void AppDelegate::paste() {
    if (PaneHostView* view = focusedHost()) view->terminal()->pasteClipboard();
}

void AppDelegate::showShortcuts() {
    if (!shortcutsOverlay_) {
        auto* dialog = new QDialog(window_);
        dialog->setObjectName("shortcuts");
        dialog->setWindowTitle("Keyboard Shortcuts");
        auto* grid = new QGridLayout(dialog);
        int row = 0;
        for (auto& [keys, action] : shortcutList()) {
            grid->addWidget(new QLabel(QString::fromStdString(action), dialog), row, 0);
            grid->addWidget(new QLabel(QString::fromStdString(keys), dialog), row, 1);
            ++row;
        }
        shortcutsOverlay_ = dialog;
    }
    shortcutsOverlay_->show();
    shortcutsOverlay_->raise();
}

void AppDelegate::showNotice(const std::string& message, const std::string& action, std::function<void()> then) {
    noticeText_->setText(QString::fromStdString(message));
    noticeAction_->setText(QString::fromStdString(action));
    noticeAction_->setVisible(!action.empty());
    noticeThen_ = std::move(then);
    noticeBar_->show();
}

void AppDelegate::hideNotice() {
    noticeBar_->hide();
    noticeThen_ = {};
}

void AppDelegate::buildWindow() {
    window_ = new QMainWindow;
    window_->setObjectName("CorvexMainWindow");
    window_->setWindowTitle(options_.developmentBuild ? "Corvex Dev" : "Corvex");
    window_->resize(1280, 800);
    if (QScreen* screen = QApplication::primaryScreen()) {
        QRect available = screen->availableGeometry();
        window_->move(available.center() - window_->rect().center());
    }

    splitter_ = new QSplitter(Qt::Horizontal, window_);
    splitter_->setChildrenCollapsible(false);
    sidebar_ = new SidebarView(splitter_);
    auto* column = new QWidget(splitter_);
    auto* columnLayout = new QVBoxLayout(column);
    columnLayout->setContentsMargins(0, 0, 0, 0);
    columnLayout->setSpacing(0);
    tabBar_ = new TabBarView(column);

    noticeBar_ = new QWidget(column);
    noticeBar_->setObjectName("noticeBar");
    auto* noticeLayout = new QHBoxLayout(noticeBar_);
    noticeText_ = new QLabel(noticeBar_);
    noticeText_->setWordWrap(true);
    noticeAction_ = new QPushButton(noticeBar_);
    auto* noticeClose = new QPushButton(QString::fromUtf8("\u2715"), noticeBar_);
    noticeClose->setFlat(true);
    noticeLayout->addWidget(noticeText_, 1);
    noticeLayout->addWidget(noticeAction_);
    noticeLayout->addWidget(noticeClose);
    noticeBar_->hide();
    connect(noticeAction_, &QPushButton::clicked, this, [this] {
        if (noticeThen_) noticeThen_();
    });
    connect(noticeClose, &QPushButton::clicked, this, [this] { hideNotice(); });

    stack_ = new QStackedWidget(column);
    splitView_ = new SplitLayoutView(stack_);
    emptyState_ = new QWidget(stack_);
    emptyState_->setObjectName("emptyState");
    auto* emptyLayout = new QVBoxLayout(emptyState_);
    emptyLayout->addStretch(1);
    emptyTitle_ = new QLabel(emptyState_);
    emptyTitle_->setObjectName("emptyLabel");
    emptyTitle_->setAlignment(Qt::AlignCenter);
    QFont titleFont = emptyTitle_->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    emptyTitle_->setFont(titleFont);
    emptyDetail_ = new QLabel(emptyState_);
    emptyDetail_->setAlignment(Qt::AlignCenter);
    emptyButton_ = new QPushButton(emptyState_);
    emptyLayout->addWidget(emptyTitle_);
    emptyLayout->addWidget(emptyDetail_);
    emptyLayout->addWidget(emptyButton_, 0, Qt::AlignHCenter);
    emptyLayout->addStretch(1);
    connect(emptyButton_, &QPushButton::clicked, this, [this] {
        if (emptyButton_->property("kind").toInt() == static_cast<int>(EmptyState::Kind::noTabs)) newTab();
        else newWorkspace();
    });
    stack_->addWidget(splitView_);
    stack_->addWidget(emptyState_);
    stack_->setCurrentWidget(emptyState_);
    emptyTitle_->setText("Starting");

    columnLayout->addWidget(tabBar_);
    columnLayout->addWidget(noticeBar_);
    columnLayout->addWidget(stack_, 1);
    splitter_->addWidget(sidebar_);
    splitter_->addWidget(column);
    splitter_->setStretchFactor(1, 1);
    int sidebarWidth = static_cast<int>(prefs::sidebarWidth(preferences_.number(prefkey::sidebarWidth)));
    splitter_->setSizes({sidebarWidth, 1280 - sidebarWidth});
    if (preferences_.boolean(prefkey::hideSidebar).value_or(false)) sidebar_->hide();
    connect(splitter_, &QSplitter::splitterMoved, this, [this](int position, int) {
        double width = prefs::sidebarWidth(static_cast<double>(position));
        preferences_.setNumber(prefkey::sidebarWidth, std::round(width));
    });
    window_->setCentralWidget(splitter_);

    // Every view asks the machine shown; its answer comes back as state and redraws.
    sidebar_->onSelectWorkspace = [this](const std::string& machine, uint64_t id) {
        if (ModelStore* target = store(machine)) {
            focusedMachine_ = machine;
            preferences_.setString(prefkey::focusedMachine, machine);
            target->focus(FocusTarget::workspace(id));
            sync();
        }
    };
    sidebar_->onSelectTab = [this](const std::string& machine, uint64_t id) {
        if (ModelStore* target = store(machine)) {
            focusedMachine_ = machine;
            preferences_.setString(prefkey::focusedMachine, machine);
            target->focus(FocusTarget::tab(id));
            sync();
        }
    };
    auto onMachine = [this](const std::string& machine, const std::string& label,
                            std::function<void(SessionBackend&)> operation) {
        for (auto& connection : connections_) {
            if (connection->key == machine) runOn(*connection, label, std::move(operation));
        }
    };
    sidebar_->onRenameWorkspace = [onMachine](const std::string& machine, uint64_t id, const std::string& name) {
        onMachine(machine, "rename workspace", [id, name](SessionBackend& b) { b.renameWorkspace(id, name); });
    };
    sidebar_->onRenameTab = [onMachine](const std::string& machine, uint64_t id, const std::string& title) {
        std::optional<std::string> value;
        if (!title.empty()) value = title;
        onMachine(machine, "rename tab", [id, value](SessionBackend& b) { b.renameTab(id, value); });
    };
    sidebar_->onCloseWorkspace = [onMachine](const std::string& machine, uint64_t id) {
        onMachine(machine, "close workspace", [id](SessionBackend& b) { b.closeWorkspace(id); });
    };
    sidebar_->onCloseTab = [onMachine](const std::string& machine, uint64_t id) {
        onMachine(machine, "close tab", [id](SessionBackend& b) { b.closeTab(id); });
    };
    sidebar_->onNewTab = [onMachine](const std::string& machine, uint64_t id) {
        onMachine(machine, "new tab", [id](SessionBackend& b) { b.createTab(id, SpawnOptions{}); });
    };
    sidebar_->onNewWorkspace = [this, onMachine](const std::string& machine) {
        if (machine.empty()) newWorkspace();
        else onMachine(machine, "new workspace", [](SessionBackend& b) { b.createWorkspace(std::nullopt, SpawnOptions{}); });
    };
    sidebar_->onAddMachine = [this] { showAddMachine(); };
    sidebar_->onEditMachine = [this](const std::string& machine) { showEditMachine(machine); };
    sidebar_->onRemoveMachine = [this](const std::string& machine) { showRemoveMachine(machine); };
    sidebar_->onConnectMachine = [this](const std::string& machine) {
        if (Connection* existing = connection(machine)) {
            if (existing->store->retryPaused() || !existing->store->isConnected()) reconnectMachine(machine);
            focusMachine(machine);
        } else if (auto found = machines_->find(machine)) {
            connectMachine(*found, false, true);
        }
    };
    sidebar_->onDisconnectMachine = [this](const std::string& machine) { disconnectMachine(machine); };
    sidebar_->onMoveWorkspace = [this](const std::string& machine, uint64_t id, int index) {
        if (ModelStore* target = store(machine)) {
            target->move(MoveRequest::moveWorkspace(id, index), [this](std::exception_ptr error) {
                if (error) log("move workspace failed: " + describe(error));
            });
        }
    };

    tabBar_->onSelect = [this](uint64_t tab) {
        if (Connection* connection = focusedConnection()) connection->store->focus(FocusTarget::tab(tab));
    };
    tabBar_->onClose = [this](uint64_t tab) {
        run("close tab", [tab](SessionBackend& b) { b.closeTab(tab); });
    };
    tabBar_->onMove = [this](uint64_t tab, int index) {
        if (Connection* connection = focusedConnection()) {
            connection->store->move(MoveRequest::moveTab(tab, std::nullopt, index), [this](std::exception_ptr error) {
                if (error) log("move tab failed: " + describe(error));
            });
        }
    };
    tabBar_->onRename = [this](uint64_t tab, const std::string& title) {
        std::optional<std::string> value;
        if (!title.empty()) value = title;
        run("rename tab", [tab, value](SessionBackend& b) { b.renameTab(tab, value); });
    };
    tabBar_->onNewTab = [this] { newTab(); };
    splitView_->onRatioChange = [this](uint64_t split, double ratio) {
        run("split.set_ratio", [split, ratio](SessionBackend& b) { b.setRatio(split, ratio); });
    };
}

void AppDelegate::buildMenus() {
    QMenuBar* bar = window_->menuBar();
    auto add = [this](QMenu* menu, const QString& title, const QKeySequence& keys, std::function<void()> action) {
        QAction* item = menu->addAction(title);
        item->setShortcut(keys);
        item->setShortcutContext(Qt::ApplicationShortcut);
        connect(item, &QAction::triggered, this, [action] { action(); });
        return item;
    };
    QMenu* file = bar->addMenu("&File");
    add(file, "New Workspace", QKeySequence("Ctrl+Shift+N"), [this] { newWorkspace(); });
    add(file, "New Tab", QKeySequence("Ctrl+Shift+T"), [this] { newTab(); });
    add(file, "Close Pane", QKeySequence("Ctrl+Shift+W"), [this] { closeFocusedPane(); });
    file->addSeparator();
    add(file, "Quit", QKeySequence("Ctrl+Shift+Q"), [] { QApplication::quit(); });

    QMenu* edit = bar->addMenu("&Edit");
    add(edit, "Copy", QKeySequence("Ctrl+Shift+C"), [this] { copy(); });
    add(edit, "Paste", QKeySequence("Ctrl+Shift+V"), [this] { paste(); });

    QMenu* view = bar->addMenu("&View");
    add(view, "Split Right", QKeySequence("Ctrl+Shift+D"), [this] { split(Direction::right); });
    add(view, "Split Down", QKeySequence("Ctrl+Shift+E"), [this] { split(Direction::down); });
    add(view, "Maximize Pane", QKeySequence("Ctrl+Shift+M"), [this] { toggleMaximize(); });
    view->addSeparator();
    add(view, "Next Tab", QKeySequence("Ctrl+PgDown"), [this] { selectTab(1); });
    add(view, "Previous Tab", QKeySequence("Ctrl+PgUp"), [this] { selectTab(-1); });
    add(view, "Show or Hide the Sidebar", QKeySequence("Ctrl+Shift+B"), [this] {
        bool hide = sidebar_->isVisible();
        sidebar_->setVisible(!hide);
        preferences_.setBoolean(prefkey::hideSidebar, hide);
    });

    QMenu* machines = bar->addMenu("&Machines");
    QAction* addMachine = machines->addAction("Add Machine…");
    QObject::connect(addMachine, &QAction::triggered, this, [this] { showAddMachine(); });

    QMenu* help = bar->addMenu("&Help");
    add(help, "Keyboard Shortcuts", QKeySequence("F1"), [this] { showShortcuts(); });
}

} // namespace corvex
