#include "corvexd/Holder.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <vector>
#include <optional>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Platform/ProcessInfo.h"
#include "Platform/UnixSocket.h"
#include "Vellum/PseudoTerminalHelpers.h"
#include "corvexd/BuildInfo.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/HolderClient.h"
#include "corvexd/HolderProtocol.h"
#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

namespace {

using Clock = std::chrono::steady_clock;

// How long held shells wait for the next server after a hand-over was announced.
constexpr auto takeOverTimeout = std::chrono::seconds(60);
// How long shells get to end after their hang-up before they are killed.
constexpr auto hangUpGrace = std::chrono::seconds(2);
constexpr auto startTimeout = std::chrono::seconds(10);

struct HeldChild {
    pid_t pid = 0;
    int master = -1;
    std::optional<int> status; // set once reaped
};

bool sameUser(int fd) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 && credentials.uid == ::getuid();
}

std::optional<uint64_t> number(const std::string& text) {
    try {
        size_t used = 0;
        auto value = std::stoull(text, &used);
        if (used != text.size()) return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

class Holder {
public:
    // A holder that no server comes to doesn't linger either.
    Holder(int listenFd, int signalFd)
        : listen_(listenFd), signals_(signalFd), deadline_(Clock::now() + takeOverTimeout) {}

    void run() {
        std::vector<pollfd> fds;
        while (!finished_) {
            fds = {{listen_, POLLIN, 0}, {signals_, POLLIN, 0}, {server_, POLLIN, 0}};
            for (int fd : pending_) fds.push_back({fd, POLLIN, 0});
            int timeout = -1;
            if (server_ < 0 && deadline_) {
                timeout = static_cast<int>(std::max<long long>(
                    0, std::chrono::duration_cast<std::chrono::milliseconds>(*deadline_ - Clock::now()).count()));
            }
            int ready = ::poll(fds.data(), fds.size(), timeout);
            if (ready < 0 && errno != EINTR) break;
            if (ready > 0 && fds[1].revents) takeSignals();
            if (ready > 0 && server_ >= 0 && fds[2].revents) readServer();
            for (size_t i = 3; ready > 0 && i < fds.size(); ++i) {
                if (fds[i].revents) readPending(fds[i].fd);
            }
            if (ready > 0 && fds[0].revents) acceptConnection();
            if (server_ < 0 && deadline_ && Clock::now() >= *deadline_) endAll();
            if (server_ < 0 && served_ && held_.empty()) finished_ = true;
        }
        endAll();
    }

private:
    void takeSignals() {
        signalfd_siginfo info{};
        while (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            if (info.ssi_signo == SIGCHLD) reap();
            else endAll();
        }
    }

    void reap() {
        int status = 0;
        pid_t pid;
        while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
            for (auto& [pane, child] : held_) {
                if (child.pid != pid) continue;
                child.status = status;
                if (server_ >= 0) holder::send(server_, {"exited", std::to_string(pane), std::to_string(status)});
            }
        }
    }

    // A connection serves once it says hello; one that only looks whether we answer leaves
    // the server as it is.
    void acceptConnection() {
        int fd = ::accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        if (!sameUser(fd)) {
            ::close(fd);
            return;
        }
        pending_.push_back(fd);
    }

    void readPending(int fd) {
        std::erase(pending_, fd);
        auto message = holder::receive(fd);
        if (message && message->descriptor >= 0) ::close(message->descriptor);
        if (message && message->fields[0] == "probe") holder::send(fd, helloFields());
        if (!message || message->fields[0] != "hello") {
            ::close(fd);
            return;
        }
        // The newest server is the one that serves: an old one that lingers has handed over.
        if (server_ >= 0) ::close(server_);
        server_ = fd;
        served_ = true;
        deadline_.reset();
        handingOver_ = false;
        sayHello();
    }

    // "hello" protocol build version pid executable
    static std::vector<std::string> helloFields() {
        return {"hello", std::to_string(holder::reportedProtocol()), buildId(), buildVersion(),
                std::to_string(::getpid()), platform::executablePath()};
    }
    void sayHello() { holder::send(server_, helloFields()); }

    void serverGone() {
        ::close(server_);
        server_ = -1;
        if (handingOver_) deadline_ = Clock::now() + takeOverTimeout;
        else endAll();
    }

    void readServer() {
        auto message = holder::receive(server_);
        if (!message) return serverGone();
        if (message->descriptor >= 0) ::close(message->descriptor);
        const auto& fields = message->fields;
        const std::string& verb = fields[0];
        if (verb == "hello") {
            sayHello();
        } else if (verb == "spawn") {
            spawn(fields);
        } else if (verb == "take" && fields.size() == 2) {
            take(fields[1]);
        } else if (verb == "release" && fields.size() == 2) {
            release(fields[1]);
        } else if (verb == "handover") {
            handingOver_ = true;
        } else if (verb == "quit") {
            endAll();
        } else {
            // A server that says something else isn't one we understand; it serves no more.
            serverGone();
        }
    }

    // "spawn" pane executable cwd cols rows argc argv... env...
    void spawn(const std::vector<std::string>& fields) {
        auto refuse = [&](int error) { holder::send(server_, {"failed", std::to_string(error)}); };
        if (fields.size() < 7) return refuse(EINVAL);
        auto pane = number(fields[1]);
        auto cols = number(fields[4]), rows = number(fields[5]), argc = number(fields[6]);
        if (!pane || !cols || !rows || !argc || 7 + *argc > fields.size() || held_.count(*pane)) return refuse(EINVAL);
        std::vector<std::string> argv(fields.begin() + 7, fields.begin() + 7 + static_cast<long>(*argc));
        std::vector<std::string> env(fields.begin() + 7 + static_cast<long>(*argc), fields.end());
        winsize size{};
        size.ws_col = static_cast<unsigned short>(*cols);
        size.ws_row = static_cast<unsigned short>(*rows);
        std::optional<std::string> cwd;
        if (!fields[3].empty()) cwd = fields[3];
        auto spawned = vellum::PseudoTerminalHelpers::spawn(fields[2], argv, env, cwd, size);
        if (!spawned.child) return refuse(spawned.error);
        held_[*pane] = HeldChild{spawned.child->pid, spawned.child->master, std::nullopt};
        holder::send(server_, {"spawned", std::to_string(spawned.child->pid)}, spawned.child->master);
    }

    void take(const std::string& paneText) {
        auto pane = number(paneText);
        auto found = pane ? held_.find(*pane) : held_.end();
        if (found == held_.end()) {
            holder::send(server_, {"unknown"});
            return;
        }
        const auto& child = found->second;
        holder::send(server_, {"held", std::to_string(child.pid), child.status ? std::to_string(*child.status) : ""},
                     child.master);
    }

    void release(const std::string& paneText) {
        auto pane = number(paneText);
        auto found = pane ? held_.find(*pane) : held_.end();
        if (found == held_.end()) return;
        ::close(found->second.master);
        held_.erase(found);
    }

    // Ends every shell as a closed terminal would, gives them a moment, then kills the rest.
    void endAll() {
        finished_ = true;
        // No one may connect to a holder that is going; the next one is started meanwhile.
        if (listen_ >= 0) {
            ::close(listen_);
            listen_ = -1;
        }
        for (auto& [pane, child] : held_) {
            if (child.status) continue;
            ::kill(-child.pid, SIGHUP);
            ::kill(child.pid, SIGHUP);
        }
        for (auto& [pane, child] : held_) ::close(child.master);
        auto deadline = Clock::now() + hangUpGrace;
        auto running = [&] {
            reap();
            for (auto& [pane, child] : held_) {
                if (!child.status) return true;
            }
            return false;
        };
        while (running() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (auto& [pane, child] : held_) {
            if (!child.status) ::kill(child.pid, SIGKILL);
        }
        held_.clear();
    }

    int listen_;
    int signals_;
    int server_ = -1;
    std::vector<int> pending_;
    bool handingOver_ = false;
    bool finished_ = false;
    std::optional<Clock::time_point> deadline_; // by when a server must come
    bool served_ = false;
    std::map<uint64_t, HeldChild> held_;
};

// Opens and locks the holder's pid file, never through a link, and returns the descriptor, or
// minus the errno (-EWOULDBLOCK while another holder has it). A departing holder removes the
// file under its lock, so a lock won on a file no longer at the path is tried again.
int lockPidFile(const std::string& path) {
    for (;;) {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) return -errno;
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            int error = errno;
            ::close(fd);
            return -error;
        }
        struct stat opened {}, named {};
        if (::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
            opened.st_dev == named.st_dev) {
            return fd;
        }
        ::close(fd);
    }
}

} // namespace

int holderCommand() {
    auto directory = RuntimeDirectory::prepare(RuntimeDirectory::defaultPath());
    std::string pidPath = holder::pidPath(directory.path());
    int pidFd = lockPidFile(pidPath);
    if (pidFd == -EWOULDBLOCK) return fail("a holder already runs");
    if (pidFd < 0) return fail("can't open " + pidPath + ": " + std::strerror(-pidFd));
    std::string pidText = std::to_string(::getpid()) + "\n";
    if (::ftruncate(pidFd, 0) != 0 || ::pwrite(pidFd, pidText.data(), pidText.size(), 0) < 0) {
        return fail("can't write " + pidPath);
    }

    std::string path = holder::socketPath(directory.path());
    ::unlink(path.c_str()); // a holder that died left it; the lock says none runs
    int listenFd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return fail("the holder's socket path is too long: " + path);
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    // Private from the start, as the server's socket is.
    mode_t previous = ::umask(0177);
    bool bound = listenFd >= 0 && ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::umask(previous);
    if (!bound || ::listen(listenFd, 8) != 0) {
        return fail("can't listen on " + path + ": " + std::strerror(errno));
    }

    ::signal(SIGPIPE, SIG_IGN);
    sigset_t handled;
    sigemptyset(&handled);
    for (int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, signal);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);
    int signalFd = ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);

    Holder(listenFd, signalFd).run(); // closes the listening socket as it ends

    ::unlink(path.c_str());
    // Removed while still locked; a holder starting meanwhile sees the file it locked is gone
    // and makes a new one.
    ::unlink(pidPath.c_str());
    ::close(pidFd);
    return 0;
}

namespace {

bool holderLockHeld(const std::string& runtimeDirectory) {
    std::string path = holder::pidPath(runtimeDirectory);
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT) return false;
    if (fd < 0) throw DaemonError("can't open " + path + ": " + std::strerror(errno));
    bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return held;
}

void spawnHolder(const std::string& executable) {
    pid_t child = ::fork();
    if (child < 0) throw DaemonError(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        // Its own session and not our child: the holder outlives every server.
        ::setsid();
        if (::fork() != 0) ::_exit(0);
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const char* argv[] = {executable.c_str(), "holder", nullptr};
        ::execv(executable.c_str(), const_cast<char* const*>(argv));
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

// A holder that is ending still holds its lock a moment after it stopped answering: wait for
// it to let go, then start the new one.
void ensureHolder(const std::string& runtimeDirectory, const std::string& executable) {
    auto deadline = Clock::now() + startTimeout;
    std::optional<Clock::time_point> spawned;
    while (!probeHolder(runtimeDirectory)) {
        if (Clock::now() > deadline) throw DaemonError("the holder didn't start");
        bool settling = spawned && Clock::now() - *spawned < std::chrono::seconds(1);
        if (!settling && !holderLockHeld(runtimeDirectory)) {
            spawnHolder(executable);
            spawned = Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace corvexd
