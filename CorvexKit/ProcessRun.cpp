#include "CorvexKit/ProcessRun.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/System.h"

extern char** environ;

namespace corvex {

namespace {

// Output still open this long after the child has exited belongs to something it left
// behind (an ssh control master, a daemon); what it said by then is all we take.
constexpr int lingerAfterExitMs = 1000;

struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    explicit Descriptor(int value) : fd(value) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : fd(other.fd) { other.fd = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor() { reset(); }
    void reset() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

struct PipeEnds {
    Descriptor read;
    Descriptor write;
};

PipeEnds makePipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    return {Descriptor(fds[0]), Descriptor(fds[1])};
}

// A file already unlinked, so nothing is left behind whatever happens.
Descriptor makeCaptureFile(const char* suffix) {
    std::string pattern = platform::temporaryDirectory() + "/corvexd-XXXXXX" + suffix;
    int fd = ::mkostemps(pattern.data(), static_cast<int>(std::strlen(suffix)), O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("can't make " + pattern + ": " + std::strerror(errno));
    ::unlink(pattern.c_str());
    return Descriptor(fd);
}

std::string readWhole(int fd) {
    std::string text;
    char buffer[65536];
    ::lseek(fd, 0, SEEK_SET);
    for (;;) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        text.append(buffer, static_cast<size_t>(count));
    }
    return text;
}

int decodeStatus(int raw) {
    if (WIFEXITED(raw)) return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
    return -1;
}

int waitFor(pid_t pid) {
    int raw = 0;
    while (::waitpid(pid, &raw, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return decodeStatus(raw);
}

// Feeds the input and drains both outputs in one poll loop, until the outputs end or the
// child has been gone a while.
void pump(pid_t pid, Descriptor& input, std::string_view bytes, Descriptor& out, Descriptor& err, ProcessResult& result) {
    int exitFd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    Descriptor exitWatch(exitFd);
    if (input.fd >= 0) ::fcntl(input.fd, F_SETFL, ::fcntl(input.fd, F_GETFL) | O_NONBLOCK);
    if (bytes.empty()) input.reset();
    size_t written = 0;
    std::optional<std::chrono::steady_clock::time_point> exitedAt;
    char buffer[65536];
    while (out.fd >= 0 || err.fd >= 0) {
        int timeout = -1;
        if (exitedAt) {
            auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - *exitedAt);
            if (waited.count() >= lingerAfterExitMs) break;
            timeout = lingerAfterExitMs - static_cast<int>(waited.count());
        }
        pollfd fds[4] = {{out.fd, POLLIN, 0}, {err.fd, POLLIN, 0}, {input.fd, POLLOUT, 0}, {exitedAt ? -1 : exitWatch.fd, POLLIN, 0}};
        if (::poll(fds, 4, timeout) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        Descriptor* outputs[2] = {&out, &err};
        std::string* sinks[2] = {&result.out, &result.err};
        for (int index = 0; index < 2; ++index) {
            if (!fds[index].revents) continue;
            ssize_t count = ::read(outputs[index]->fd, buffer, sizeof buffer);
            if (count > 0) sinks[index]->append(buffer, static_cast<size_t>(count));
            else if (count == 0 || (errno != EINTR && errno != EAGAIN)) outputs[index]->reset();
        }
        if (fds[2].revents) {
            ssize_t count = ::write(input.fd, bytes.data() + written, bytes.size() - written);
            if (count > 0) written += static_cast<size_t>(count);
            // A child that stops reading early (it failed) closes its end; that is its answer.
            if ((count < 0 && errno != EINTR && errno != EAGAIN) || written == bytes.size()) input.reset();
        }
        if (fds[3].revents) {
            exitedAt = std::chrono::steady_clock::now();
            input.reset();
        }
    }
}

// Files never fill up, so a plain blocking write can't meet a child stuck on its output.
void writeAll(Descriptor& input, std::string_view bytes) {
    while (input.fd >= 0 && !bytes.empty()) {
        ssize_t count = ::write(input.fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    input.reset();
}

void ignoreSigpipeOnce() {
    static const bool ignored = [] {
        ::signal(SIGPIPE, SIG_IGN);
        return true;
    }();
    (void)ignored;
}

} // namespace

pid_t spawnChild(const std::string& program, const std::vector<std::string>& arguments,
                 const std::optional<std::vector<std::string>>& environment, int in, int out, int err) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    if (environment) {
        for (const auto& entry : *environment) envp.push_back(const_cast<char*>(entry.c_str()));
        envp.push_back(nullptr);
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (in >= 0) posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    else posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);

    // The child starts with default signal handling, whatever this process ignores or blocks.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults, empty;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    sigemptyset(&empty);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &empty);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    pid_t pid = -1;
    int error = ::posix_spawnp(&pid, program.c_str(), &actions, &attributes, argv.data(),
                               environment ? envp.data() : environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw std::runtime_error("can't start " + program + ": " + std::strerror(error));
    return pid;
}

ProcessResult runProcess(const ProcessRequest& request) {
    ignoreSigpipeOnce();
    ProcessResult result;
    PipeEnds input;
    if (request.input) input = makePipe();
    if (request.outputThroughFiles) {
        Descriptor out = makeCaptureFile(".out");
        Descriptor err = makeCaptureFile(".err");
        pid_t pid = spawnChild(request.program, request.arguments, request.environment, input.read.fd, out.fd, err.fd);
        input.read.reset();
        writeAll(input.write, request.input.value_or(""));
        result.status = waitFor(pid);
        result.out = readWhole(out.fd);
        result.err = readWhole(err.fd);
        return result;
    }
    PipeEnds out = makePipe();
    PipeEnds err = makePipe();
    pid_t pid = spawnChild(request.program, request.arguments, request.environment, input.read.fd, out.write.fd, err.write.fd);
    input.read.reset();
    out.write.reset();
    err.write.reset();
    pump(pid, input.write, request.input.value_or(""), out.read, err.read, result);
    input.write.reset();
    result.status = waitFor(pid);
    return result;
}

std::vector<std::string> environmentWithout(const std::vector<std::string>& prefixes) {
    std::vector<std::string> kept;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string_view text(*entry);
        bool dropped = false;
        for (const auto& prefix : prefixes) dropped = dropped || text.starts_with(prefix);
        if (!dropped) kept.emplace_back(text);
    }
    return kept;
}

} // namespace corvex
