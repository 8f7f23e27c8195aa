#include "corvexd/Lifecycle.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "CorvexSession/LocalPaneHost.h"
#include "CorvexSession/SessionCore.h"
#include "Platform/ProcessInfo.h"
#include "Platform/System.h"
#include "Platform/TimerThread.h"
#include "corvexd/BuildInfo.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/FileStreams.h"
#include "corvexd/HandOver.h"
#include "corvexd/Holder.h"
#include "corvexd/HolderClient.h"
#include "corvexd/LifecycleShutdown.h"
#include "corvexd/Server.h"
#include "corvexd/Service.h"
#include "corvexd/SessionService.h"
#include "corvexd/UpgradeCommand.h"

namespace corvexd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto startTimeout = std::chrono::seconds(15);
constexpr auto stopTimeout = std::chrono::seconds(10);

// The serving daemon holds an exclusive lock on its pid file for its whole life, so the lock
// (not the file's presence) says whether one runs.
class PidFile {
public:
    // Never through a link: one planted at the path would have us overwrite its target.
    // Without `create`, a missing file reads as one that nobody holds.
    explicit PidFile(const std::string& path, bool create = true)
        : fd_(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0), 0600)) {
        if (fd_ < 0 && (create || errno != ENOENT)) throw DaemonError("can't open " + path + ": " + std::strerror(errno));
    }
    ~PidFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    bool tryLock() { return fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) == 0; }
    void unlock() { ::flock(fd_, LOCK_UN); }

    void write(pid_t pid) {
        std::string text = std::to_string(pid) + "\n";
        if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            throw DaemonError(std::string("can't write the pid file: ") + std::strerror(errno));
        }
    }
    void clear() { [[maybe_unused]] int ignored = ::ftruncate(fd_, 0); }

    std::optional<pid_t> read() const {
        char text[32] = {};
        ssize_t count = ::pread(fd_, text, sizeof(text) - 1, 0);
        if (count <= 0) return std::nullopt;
        long pid = std::strtol(text, nullptr, 10);
        if (pid <= 0) return std::nullopt;
        return static_cast<pid_t>(pid);
    }

private:
    int fd_;
};

// Whether the stop descriptor fired for an upgrade, which wants the session handed over
// rather than ended.
bool handOverAsked(int stopFd) {
    signalfd_siginfo info{};
    bool asked = false;
    while (::read(stopFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGUSR1) asked = true;
    }
    return asked;
}

corvex::Hello::Holder helloHolder(const HolderInfo& info) {
    corvex::Hello::Holder holder;
    holder.pid = info.pid;
    holder.version = info.version;
    holder.protocol = info.protocol;
    holder.exe = info.executable;
    holder.build = info.build;
    holder.canUpgrade = info.protocol >= holder::minimumProtocol;
    // Older than this build's holder: it works, but only a restart of the shells brings it
    // up to date.
    holder.outdated = info.protocol < holder::protocol;
    return holder;
}

bool runs(const RuntimeDirectory& directory) {
    PidFile pid(directory.pidPath());
    if (!pid.tryLock()) return true;
    pid.unlock();
    return false;
}

} // namespace

RuntimeDirectory runtimeDirectory() { return RuntimeDirectory::prepare(RuntimeDirectory::defaultPath()); }

int serve() {
    auto directory = runtimeDirectory();
    PidFile pid(directory.pidPath());
    if (!pid.tryLock()) {
        auto other = pid.read();
        return fail("already running" + (other ? " (pid " + std::to_string(*other) + ")" : std::string()));
    }
    // Written at once, so that a stop during the start-up knows whom to signal.
    pid.write(::getpid());
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGHUP);
    sigaddset(&stopSignals, SIGUSR1); // from an upgrade: hand the session over, then go
    ::sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);

    ServerOptions options;
    options.socketPath = directory.socketPath();
    options.version = buildVersion();
    options.buildId = buildId();
    options.executable = platform::executablePath();
    options.ephemeral = platform::environmentValue("CORVEXD_EPHEMERAL") == "exit";
    options.stopFd = stopFd;
    // The shells live in the holder, so that this process can be replaced without them.
    // Asked before serving through it: a server that connects and goes ends the shells.
    if (auto why = whyHolderTooOld(probeHolder(directory.path()), false)) return refuseOldHolder(*why);
    ensureHolder(directory.path(), options.executable);
    auto holder = HolderClient::connect(directory.path());
    options.holder = helloHolder(holder->info());
    bool handingOver = false;
    options.handingOver = [stopFd, &handingOver] { return handingOver = handOverAsked(stopFd); };
    auto handedOver = takeHandOver(holder::handOverPath(directory.path()));
    if (handedOver) options.instance = handedOver->instance;
    {
        Server server(options);
        auto environment = corvex::currentSessionCoreEnvironment();
        // A status hook run in a pane reports to the daemon of that pane.
        environment.variables["CORVEXD_RUNTIME_DIR"] = directory.path();
        auto core = corvex::SessionCore::create(std::make_shared<corvex::LocalPaneHost>(holder), std::move(environment));
        if (handedOver) core->takeOver(handedOver->session);
        handedOver.reset();
        SessionServiceOptions service;
        auto config = platform::environmentValue("CORVEXD_CONFIG");
        service.settingsPath = config.empty() ? directory.path() + "/settings.json" : config;
        if (!config.empty()) service.configName = config;
        service.treePath = directory.treePath();
        serveSession(server, core, service);
        serveService(server);
        FileStreams files(server);
        // Programs change folder without telling their terminal; the panes follow them.
        platform::TimerThread directories("corvexd.cwd");
        std::weak_ptr<corvex::SessionCore> weak = core;
        directories.scheduleRepeating(std::chrono::milliseconds(1500), [weak] {
            if (auto held = weak.lock()) held->pollWorkingDirectories();
        });
        // Branches move under the panes too; git is asked at most once a second a repository.
        platform::TimerThread repositories("corvexd.git");
        repositories.scheduleRepeating(std::chrono::milliseconds(1000), [weak] {
            if (auto held = weak.lock()) held->pollGit();
        });
        // Agents without hooks are read off their terminals.
        platform::TimerThread agents("corvexd.agents");
        agents.scheduleRepeating(std::chrono::milliseconds(1000), [weak] {
            if (auto held = weak.lock()) held->pollAgents();
        });
        server.run();
        if (handingOver) {
            // Nothing of this process may end a shell now: no destructor runs.
            try {
                writeHandOver(holder::handOverPath(directory.path()), {server.instance(), core->handOver()});
                holder->announceHandOver();
            } catch (const DaemonError& error) {
                std::cerr << "corvexd: the hand-over failed: " << error.what() << "\n";
            }
            std::cout.flush();
            ::_exit(0);
        }
        // The shells end with the daemon: their terminals hang up, and what ignores that is
        // ended as a closed pane's programs are, before the daemon goes.
        std::vector<pid_t> leaders;
        for (const auto& pane : core->state().panes) {
            if (pane.pid && !pane.exited) leaders.push_back(*pane.pid);
        }
        auto sessions = paneSessions(leaders);
        core->stop();
        endPaneSessions(sessions);
        holder->quit();
    }
    // Still under the pid file's lock, so no new daemon's files are removed.
    for (const auto& path : {directory.logPath(), directory.startLockPath(), directory.pidPath()}) {
        ::unlink(path.c_str());
    }
    pid.clear();
    ::close(stopFd);
    return 0;
}

// Starts `corvexd serve` detached from this process: its own session, no terminal, output
// to the log, and not our child once we return.
void spawnServe(const RuntimeDirectory& directory, const std::string& executable) {
    pid_t child = ::fork();
    if (child < 0) throw DaemonError(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        ::setsid();
        if (::fork() != 0) ::_exit(0);
        int null = ::open("/dev/null", O_RDONLY);
        int log = ::open(directory.logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0600);
        if (null >= 0) ::dup2(null, 0);
        if (log >= 0) {
            ::dup2(log, 1);
            ::dup2(log, 2);
        }
        ::signal(SIGHUP, SIG_DFL);
        const char* argv[] = {executable.c_str(), "serve", nullptr};
        ::execv(executable.c_str(), const_cast<char* const*>(argv));
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}


// Makes sure a daemon accepts on the runtime folder's socket. Concurrent starts queue on a
// lock file, so only the first of them spawns.
void ensureStarted(const RuntimeDirectory& directory, const std::string& executable) {
    if (accepts(directory.socketPath())) return;
    int lock = ::open(directory.startLockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock < 0) throw DaemonError("can't open " + directory.startLockPath() + ": " + std::strerror(errno));
    while (::flock(lock, LOCK_EX) != 0 && errno == EINTR) {
    }
    auto finish = [&] { ::close(lock); };
    try {
        // A daemon that is still ending holds its lock a while without accepting: wait for it
        // to let go, then start the new one.
        auto deadline = Clock::now() + startTimeout;
        std::optional<Clock::time_point> spawned;
        while (!accepts(directory.socketPath())) {
            if (Clock::now() > deadline) throw DaemonError("the daemon didn't start; see " + directory.logPath());
            bool settling = spawned && Clock::now() - *spawned < std::chrono::seconds(1);
            if (!settling && !runs(directory)) {
                spawnServe(directory, executable.empty() ? platform::executablePath() : executable);
                spawned = Clock::now();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    } catch (...) {
        finish();
        throw;
    }
    finish();
}

int start() {
    auto directory = runtimeDirectory();
    if (!accepts(directory.socketPath())) {
        if (auto why = whyHolderTooOld(probeHolder(directory.path()), false)) return refuseOldHolder(*why);
    }
    ensureStarted(directory);
    return 0;
}

// Signals the running daemon and waits until it has let go of its pid file.
std::optional<pid_t> runningServer(const RuntimeDirectory& directory) {
    PidFile pid(directory.pidPath());
    if (pid.tryLock()) {
        pid.unlock();
        return std::nullopt;
    }
    return pid.read();
}

int terminate(bool forceAfterTimeout) {
    auto directory = RuntimeDirectory::existing(RuntimeDirectory::defaultPath());
    PidFile pid(directory.pidPath(), false);
    if (pid.tryLock()) return 0; // nothing runs
    auto running = pid.read();
    if (!running) return fail("the pid file names no process");
    ::kill(*running, SIGTERM);
    // Wait for that very process to end rather than for the lock to come free: a client may
    // start a new daemon the moment the old one lets go, and the new one takes the lock at once.
    auto deadline = Clock::now() + stopTimeout;
    while (platform::processLives(*running)) {
        if (Clock::now() > deadline) {
            if (!forceAfterTimeout) return fail("the daemon (pid " + std::to_string(*running) + ") didn't stop");
            ::kill(*running, SIGKILL);
            forceAfterTimeout = false;
            deadline = Clock::now() + stopTimeout;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

} // namespace corvexd
