#include "corvexd/Commands.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <optional>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "CorvexKit/FrameParser.h"
#include "Platform/System.h"
#include "Platform/TimerThread.h"
#include "corvexd/BuildInfo.h"
#include "corvexd/InstallCommand.h"
#include "corvexd/RuntimeDirectory.h"
#include "corvexd/SavedTree.h"
#include "corvexd/Server.h"
#include "corvexd/SessionService.h"
#include "CorvexFake/LocalPaneHost.h"
#include "CorvexFake/SessionCore.h"

namespace corvexd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto startTimeout = std::chrono::seconds(15);
constexpr auto stopTimeout = std::chrono::seconds(10);

const char* usage =
    "usage: corvexd serve | start | stop | shutdown | bridge | build-id | status --print-socket | status --print-builds\n";

int fail(const std::string& message) {
    std::cerr << "corvexd: " << message << "\n";
    return 1;
}

// A connected socket, or -1 when nothing accepts at the path.
int connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
    int result;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result < 0 && errno == EINTR);
    if (result == 0) return fd;
    ::close(fd);
    return -1;
}

bool accepts(const std::string& path) {
    int fd = connectTo(path);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

// The serving daemon holds an exclusive lock on its pid file for its whole life, so the lock
// (not the file's presence) says whether one runs.
class PidFile {
public:
    explicit PidFile(const std::string& path) : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        if (fd_ < 0) throw DaemonError("can't open " + path + ": " + std::strerror(errno));
    }
    ~PidFile() { ::close(fd_); }
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    bool tryLock() { return ::flock(fd_, LOCK_EX | LOCK_NB) == 0; }
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

bool runs(const RuntimeDirectory& directory) {
    PidFile pid(directory.pidPath());
    if (!pid.tryLock()) return true;
    pid.unlock();
    return false;
}

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
    ::sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);

    ServerOptions options;
    options.socketPath = directory.socketPath();
    options.version = buildVersion();
    options.buildId = buildId();
    options.executable = executablePath();
    options.ephemeral = platform::environmentValue("CORVEXD_EPHEMERAL") == "exit";
    options.stopFd = stopFd;
    {
        Server server(options);
        auto core = corvex::SessionCore::create(std::make_shared<corvex::LocalPaneHost>(), corvex::currentSessionCoreEnvironment());
        SessionServiceOptions service;
        auto config = platform::environmentValue("CORVEXD_CONFIG");
        service.settingsPath = config.empty() ? directory.path() + "/settings.json" : config;
        if (!config.empty()) service.configName = config;
        service.treePath = directory.treePath();
        serveSession(server, core, service);
        // Programs change folder without telling their terminal; the panes follow them.
        platform::TimerThread directories("corvexd.cwd");
        std::weak_ptr<corvex::SessionCore> weak = core;
        directories.scheduleRepeating(std::chrono::milliseconds(1500), [weak] {
            if (auto held = weak.lock()) held->pollWorkingDirectories();
        });
        server.run();
        // The shells end with the daemon: their terminals hang up.
        core->stop();
    }
    pid.clear();
    ::close(stopFd);
    return 0;
}

// Starts `corvexd serve` detached from this process: its own session, no terminal, output
// to the log, and not our child once we return.
void spawnServe(const RuntimeDirectory& directory) {
    std::string executable = executablePath();
    pid_t child = ::fork();
    if (child < 0) throw DaemonError(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        ::setsid();
        if (::fork() != 0) ::_exit(0);
        int null = ::open("/dev/null", O_RDONLY);
        int log = ::open(directory.logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
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
void ensureStarted(const RuntimeDirectory& directory) {
    if (accepts(directory.socketPath())) return;
    int lock = ::open(directory.startLockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
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
                spawnServe(directory);
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
    ensureStarted(runtimeDirectory());
    return 0;
}

// Signals the running daemon and waits until it has let go of its pid file.
int terminate(bool forceAfterTimeout) {
    auto directory = RuntimeDirectory::existing(RuntimeDirectory::defaultPath());
    PidFile pid(directory.pidPath());
    if (pid.tryLock()) return 0; // nothing runs
    auto running = pid.read();
    if (!running) return fail("the pid file names no process");
    ::kill(*running, SIGTERM);
    // Wait for that very process to end rather than for the lock to come free: a client may
    // start a new daemon the moment the old one lets go, and the new one takes the lock at once.
    auto deadline = Clock::now() + stopTimeout;
    while (processLives(*running)) {
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

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t count = ::send(fd, data, size, MSG_NOSIGNAL);
        if (count < 0 && errno == ENOTSOCK) count = ::write(fd, data, size);
        if (count < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

// Relays standard input to the daemon and the daemon to standard output, until the daemon
// closes; an end of standard input half-closes the socket so replies still come back.
int bridge() {
    auto directory = runtimeDirectory();
    ensureStarted(directory);
    int socket = connectTo(directory.socketPath());
    if (socket < 0) return fail("can't connect to " + directory.socketPath());
    ::signal(SIGPIPE, SIG_IGN);
    bool inputOpen = true;
    char buffer[65536];
    while (true) {
        pollfd fds[2] = {{socket, POLLIN, 0}, {inputOpen ? 0 : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents) {
            ssize_t count = ::recv(socket, buffer, sizeof(buffer), 0);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0 || !writeAll(1, buffer, static_cast<size_t>(count))) break;
        }
        if (fds[1].revents) {
            ssize_t count = ::read(0, buffer, sizeof(buffer));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                inputOpen = false;
                ::shutdown(socket, SHUT_WR);
            } else if (!writeAll(socket, buffer, static_cast<size_t>(count))) {
                break;
            }
        }
    }
    ::close(socket);
    return 0;
}

// The running daemon's hello, or absent when none answers.
std::optional<nlohmann::json> askHello(const std::string& socketPath) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::nullopt;
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    nlohmann::json request = {{"id", 1}, {"method", "hello"}, {"params", {{"protocol", 1}, {"client", "corvexd status"}}}};
    std::string frame = corvex::makeJSONFrame(request.dump());
    std::optional<nlohmann::json> result;
    if (writeAll(fd, frame.data(), frame.size())) {
        corvex::FrameParser parser;
        char buffer[65536];
        while (!result) {
            ssize_t count = ::recv(fd, buffer, sizeof(buffer), 0);
            if (count <= 0) break;
            bool ok = parser.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view payload) {
                if (type != static_cast<uint8_t>(corvex::FrameType::json)) return;
                auto reply = nlohmann::json::parse(payload, nullptr, false);
                if (reply.is_object() && reply.value("id", 0) == 1 && reply.contains("result")) result = reply["result"];
            });
            if (!ok) break;
        }
    }
    ::close(fd);
    return result;
}

int status(const std::vector<std::string>& options) {
    auto directory = RuntimeDirectory::defaultPath();
    std::string socketPath = directory + "/corvexd.sock";
    if (options.size() == 1 && options[0] == "--print-socket") {
        std::cout << socketPath << "\n";
        return 0;
    }
    if (options.size() == 1 && options[0] == "--print-builds") {
        RuntimeDirectory::existing(directory);
        auto hello = askHello(socketPath);
        if (!hello) return fail("not running");
        auto text = [](const nlohmann::json& object, const char* key) {
            auto found = object.find(key);
            return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
        };
        std::string holder = hello->contains("holder") && (*hello)["holder"].is_object() ? text((*hello)["holder"], "build") : "";
        std::cout << "serve=" << text(*hello, "build") << "\nholder=" << holder << "\n";
        return 0;
    }
    bool running = accepts(socketPath);
    std::cout << (running ? "running" : "not running") << "\n";
    return running ? 0 : 1;
}

} // namespace

int runCommand(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::cerr << usage;
        return 2;
    }
    const std::string& command = arguments[0];
    std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    try {
        if (command == "serve") return serve();
        if (command == "start") return start();
        if (command == "stop") return terminate(false);
        if (command == "shutdown") {
            // The shells end for good: the next start begins empty.
            int status = terminate(true);
            if (status == 0) SavedTree::remove(RuntimeDirectory::existing(RuntimeDirectory::defaultPath()).treePath());
            return status;
        }
        if (command == "bridge") return bridge();
        if (command == "build-id") {
            std::cout << buildId() << "\n";
            return 0;
        }
        if (command == "status") return status(rest);
        if (command == "install") return installCommand(rest);
    } catch (const DaemonError& error) {
        return fail(error.what());
    }
    std::cerr << usage;
    return 2;
}

bool processLives(pid_t pid) {
    if (::kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    auto close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() || line[close + 2] != 'Z';
}

} // namespace corvexd
