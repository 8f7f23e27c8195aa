#pragma once

// A real corvexd on a runtime folder of its own, the programs that talk to it, and typed
// clients of it. Raw clients that misbehave on purpose are in RawClient.h.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/Tests/Support/ScratchDirectory.h"

extern char** environ;

namespace corvexd::testing {

using namespace std::chrono_literals;
using corvex::CorvexdBackend;
using corvex::SessionEvent;

struct Ran {
    int status = -1; // the exit status, or -1 when it had to be killed
    std::string out;
    std::string err;
};

// A program built beside the tests, in CORVEX_BUILD_BIN.
inline std::string builtProgram(const std::string& name) {
    const char* bin = std::getenv("CORVEX_BUILD_BIN");
    std::string folder = bin ? bin : "build/ci/bin";
    // Absolute, so a test may run it from another folder.
    if (!folder.empty() && folder.front() != '/') {
        char here[4096];
        if (::getcwd(here, sizeof here)) folder = std::string(here) + "/" + folder;
    }
    return folder + "/" + name;
}
inline bool isBuilt(const std::string& name) { return ::access(builtProgram(name).c_str(), X_OK) == 0; }

// This process's environment with `env` laid over it.
inline std::vector<std::string> environmentWith(const std::map<std::string, std::string>& env) {
    std::vector<std::string> out;
    for (char** entry = environ; *entry; ++entry) {
        std::string item(*entry);
        auto name = item.substr(0, item.find('='));
        if (!env.count(name)) out.push_back(item);
    }
    for (const auto& [name, value] : env) out.push_back(name + "=" + value);
    return out;
}

inline std::vector<char*> pointers(std::vector<std::string>& items) {
    std::vector<char*> out;
    for (auto& item : items) out.push_back(item.data());
    out.push_back(nullptr);
    return out;
}

// Spawns with standard input, output and error on the given descriptors.
inline pid_t spawnProgram(std::vector<std::string> argv, const std::map<std::string, std::string>& env, int in,
                          int out, int err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    auto environment = environmentWith(env);
    auto args = pointers(argv);
    auto envp = pointers(environment);
    pid_t pid = -1;
    int error = ::posix_spawn(&pid, args[0], &actions, &attributes, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw std::runtime_error("can't start " + argv[0] + ": " + std::strerror(error));
    return pid;
}

// The exit status, or absent when the child still runs at the deadline.
inline std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (done < 0) return -1;
        if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
}

// Runs a program to its end (killing it at the deadline) with this environment plus `env`.
inline Ran runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                      const std::string& input = {}, std::chrono::milliseconds timeout = 20s) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) throw std::runtime_error("pipe");
    pid_t pid = spawnProgram(argv, env, in[0], out[1], err[1]);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    std::string_view pending = input;
    if (pending.empty()) ::close(in[1]), in[1] = -1;
    Ran ran;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    bool killed = false;
    int open = 2;
    while (open > 0) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
        ::poll(fds, in[1] >= 0 ? 3 : 2, 50);
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            ssize_t count = ::read(fds[i].fd, buffer, sizeof buffer);
            if (count > 0) (i == 0 ? ran.out : ran.err).append(buffer, static_cast<size_t>(count));
            else if (count == 0 || errno != EINTR) {
                ::close(i == 0 ? out[0] : err[0]);
                (i == 0 ? out[0] : err[0]) = -1;
                --open;
            }
        }
        if (in[1] >= 0 && (fds[2].revents & (POLLOUT | POLLERR))) {
            ssize_t count = ::write(in[1], pending.data(), pending.size());
            if (count > 0) pending.remove_prefix(static_cast<size_t>(count));
            if (count < 0 || pending.empty()) ::close(in[1]), in[1] = -1;
        }
        if (!killed && std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            killed = true;
        }
    }
    if (in[1] >= 0) ::close(in[1]);
    auto status = waitForExit(pid, 10s);
    ran.status = killed ? -1 : status.value_or(-1);
    return ran;
}

// A plain shell with a short prompt, the same on every machine.
inline corvex::SpawnOptions plainShell() {
    corvex::SpawnOptions spawn;
    spawn.command = std::vector<std::string>{"/bin/sh"};
    spawn.env = std::map<std::string, std::string>{{"PS1", "$ "}, {"ENV", ""}};
    spawn.cols = 100;
    spawn.rows = 30;
    return spawn;
}

// A real corvexd on a runtime folder of its own in a fresh scratch folder. Whatever it
// started, detached or as a child, is shut down when this goes.
class DaemonHarness {
public:
    DaemonHarness() : runtimeDir_(scratch_.file("run")) {}
    ~DaemonHarness() {
        for (auto& client : clients_) client->stop();
        run({"shutdown"}, {}, {}, 10s);
        std::lock_guard guard(childrenLock_);
        for (pid_t child : children_) {
            if (!waitForExit(child, 0ms)) {
                ::kill(child, SIGKILL);
                waitForExit(child, 10s);
            }
        }
    }
    DaemonHarness(const DaemonHarness&) = delete;
    DaemonHarness& operator=(const DaemonHarness&) = delete;

    const corvex::testing::ScratchDirectory& scratch() const { return scratch_; }
    const std::string& runtimeDir() const { return runtimeDir_; }
    void setRuntimeDir(std::string path) { runtimeDir_ = std::move(path); }
    std::string socketPath() const { return CorvexdBackend::defaultSocketPath(runtimeDir_); }
    std::string log() const { return corvex::testing::readFile(scratch_.file("corvexd.log")); }
    std::map<std::string, std::string> environment() const {
        std::map<std::string, std::string> env{
            {"CORVEXD_RUNTIME_DIR", runtimeDir_}, {"SHELL", "/bin/sh"}, {"CORVEXD_EPHEMERAL", ""}};
        for (const auto& [name, value] : extraEnvironment) env[name] = value;
        return env;
    }
    // Laid over the daemon's environment, for what a test wants to change.
    std::map<std::string, std::string> extraEnvironment;

    // `corvexd <arguments>` to its end, with this daemon's environment plus `env`. Safe from
    // any thread, as a client's start-the-daemon hook may call it beside the test.
    Ran run(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env = {},
            const std::string& input = {}, std::chrono::milliseconds timeout = 60s) const {
        std::vector<std::string> argv{builtProgram("corvexd")};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        auto environment = this->environment();
        for (const auto& [name, value] : env) environment[name] = value;
        return runProgram(argv, environment, input, timeout);
    }
    // The `corvex` program with --socket set to this daemon.
    Ran corvex(const std::vector<std::string>& arguments, const std::string& input = {}) const {
        std::vector<std::string> argv{builtProgram("corvex"), "--socket", socketPath()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runProgram(argv, environment(), input);
    }

    // `corvexd serve` as a child of the test, logging to log(); returns its pid at once.
    pid_t spawnServe(const std::map<std::string, std::string>& env = {}) {
        auto environment = this->environment();
        for (const auto& [name, value] : env) environment[name] = value;
        int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        int log = ::open(scratch_.file("corvexd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        pid_t pid = spawnProgram({builtProgram("corvexd"), "serve"}, environment, null, log, log);
        ::close(null);
        ::close(log);
        std::lock_guard guard(childrenLock_);
        children_.push_back(pid);
        return pid;
    }
    // Serves as a child and returns once the socket accepts.
    void serve() {
        pid_ = spawnServe();
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!accepts()) {
            if (std::chrono::steady_clock::now() > deadline || waitForExit(pid_, 0ms)) {
                throw std::runtime_error("corvexd did not come up: " + log());
            }
            std::this_thread::sleep_for(10ms);
        }
    }
    // The child that serve() started.
    pid_t pid() const { return pid_; }
    void kill(int signal) {
        ::kill(pid_, signal);
        if (!waitForExit(pid_, 10s)) {
            ::kill(pid_, SIGKILL);
            waitForExit(pid_, 10s);
        }
        pid_ = -1;
    }
    // The pid named by the pid file, or 0: the daemon `start` left running.
    pid_t daemonPid() const {
        return static_cast<pid_t>(std::atol(corvex::testing::readFile(runtimeDir_ + "/corvexd.pid").c_str()));
    }

    // A started backend on this daemon's socket that retries quickly.
    std::shared_ptr<CorvexdBackend> connect(const std::string& clientName) {
        auto configuration = CorvexdBackend::Configuration::socket(socketPath(), clientName);
        configuration.retry = corvex::RetryPolicy{std::nullopt, 0.02, 0.2};
        auto backend = CorvexdBackend::make(std::move(configuration));
        backend->start();
        clients_.push_back(backend);
        return backend;
    }

private:
    bool accepts() const {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string path = socketPath();
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return ok;
    }

    corvex::testing::ScratchDirectory scratch_;
    std::string runtimeDir_;
    pid_t pid_ = -1;
    std::mutex childrenLock_;
    std::vector<pid_t> children_; // under childrenLock_
    std::vector<std::shared_ptr<CorvexdBackend>> clients_;
};

// Drains a backend's events, keeping each pane's bytes and noting every gap or repeat.
class Watcher {
public:
    explicit Watcher(const std::shared_ptr<CorvexdBackend>& backend) : events_(backend->events()) {}

    // Takes events until `done` holds; false at the deadline.
    bool until(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done()) {
            auto left = deadline - std::chrono::steady_clock::now();
            if (left <= 0s) return false;
            if (auto event = events_->next(std::min<std::chrono::steady_clock::duration>(left, 100ms))) {
                take(std::move(*event));
            }
        }
        return true;
    }
    bool untilOutput(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout = 10s) {
        return until([&] { return output(pane).find(text) != std::string::npos; }, timeout);
    }
    // The next event of that kind (after those already returned) that matches.
    template <typename T>
    std::optional<T> untilEvent(const std::function<bool(const T&)>& match, std::chrono::milliseconds timeout = 10s) {
        std::optional<T> found;
        until([&] {
            for (; !found && checked_ < seen_.size(); ++checked_) {
                if (auto event = seen_[checked_].as<T>(); event && match(*event)) found = *event;
            }
            return found.has_value();
        }, timeout);
        return found;
    }

    // The bytes of the pane's output frames since its subscription; the snapshot apart.
    std::string output(uint64_t pane) const { return output_.count(pane) ? output_.at(pane) : std::string(); }
    const std::vector<std::string>& faults() const { return faults_; }

private:
    void take(SessionEvent event) {
        if (auto subscribed = event.as<SessionEvent::Subscribed>()) {
            end_[subscribed->pane] = subscribed->subscription.seq;
        } else if (auto snapshot = event.as<SessionEvent::Snapshot>()) {
            end_[snapshot->pane] = snapshot->seq;
        } else if (auto output = event.as<SessionEvent::Output>()) {
            auto known = end_.find(output->pane);
            if (known != end_.end() && known->second != output->seq) {
                faults_.push_back("pane " + std::to_string(output->pane) + ": output at " + std::to_string(output->seq) +
                                  " where " + std::to_string(known->second) + " was due");
            }
            end_[output->pane] = output->seq + output->bytes.size();
            output_[output->pane].append(reinterpret_cast<const char*>(output->bytes.data()), output->bytes.size());
        }
        seen_.push_back(std::move(event));
    }

    std::shared_ptr<corvex::SessionEventStream> events_;
    std::vector<SessionEvent> seen_;
    size_t checked_ = 0;
    std::map<uint64_t, std::string> output_;
    std::map<uint64_t, uint64_t> end_;
    std::vector<std::string> faults_;
};

} // namespace corvexd::testing
