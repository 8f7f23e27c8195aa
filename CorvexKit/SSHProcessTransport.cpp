#include "CorvexKit/SSHProcessTransport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/ProcessRun.h"
#include "CorvexKit/SessionBackend.h"
#include "Platform/SerialQueue.h"
#include "Platform/System.h"

namespace corvex {

using namespace std::chrono_literals;

// ---------------------------------------------------------------- StderrTail

StderrTail::StderrTail(LineHandler onLine, size_t limit) : limit_(limit), onLine_(std::move(onLine)) {}

void StderrTail::append(std::string_view bytes) {
    std::vector<std::string> lines;
    {
        std::lock_guard guard(lock_);
        data_.append(bytes);
        if (data_.size() > limit_) data_.erase(0, data_.size() - limit_);
        partial_.append(bytes);
        size_t end;
        while ((end = partial_.find('\n')) != std::string::npos) {
            std::string line = partial_.substr(0, end);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines.push_back(std::move(line));
            partial_.erase(0, end + 1);
        }
    }
    if (onLine_) {
        for (const auto& line : lines) onLine_(line);
    }
}

std::string StderrTail::text() const {
    std::string text = data();
    // Cutting to the limit may have split a UTF-8 sequence at the front.
    size_t start = 0;
    while (start < text.size() && (static_cast<uint8_t>(text[start]) & 0xc0) == 0x80) ++start;
    const char* space = " \t\r\n\f\v";
    size_t first = text.find_first_not_of(space, start);
    if (first == std::string::npos) return {};
    size_t last = text.find_last_not_of(space);
    return text.substr(first, last - first + 1);
}

std::string StderrTail::data() const {
    std::lock_guard guard(lock_);
    return data_;
}

std::string StderrTail::partial() const {
    std::lock_guard guard(lock_);
    return partial_;
}

// ---------------------------------------------------------------- the ssh child

namespace {

// A spawned child, reaped by a waiter thread of its own. Signals go out only while the
// child is known not to be reaped, so a recycled pid is never hit.
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid) : pid_(pid) {}

    void startWaiter(const std::shared_ptr<ChildProcess>& self) {
        std::thread([self] { self->waitForExit(); }).detach();
    }

    void signal(int number) {
        std::lock_guard guard(mutex_);
        if (!exited_) ::kill(pid_, number);
    }

    bool running() const {
        std::lock_guard guard(mutex_);
        return !exited_;
    }

    // True once the child has ended, waiting up to the timeout.
    bool waitStatusFor(std::chrono::steady_clock::duration timeout) {
        std::unique_lock guard(mutex_);
        return exitedChanged_.wait_for(guard, timeout, [&] { return exited_; });
    }

    // The exit code, or the signal number for a child ended by a signal.
    int waitStatus() {
        std::unique_lock guard(mutex_);
        exitedChanged_.wait(guard, [&] { return exited_; });
        return status_;
    }

private:
    void waitForExit() {
        platform::setCurrentThreadName("corvex.ssh.reaper");
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
        }
        std::lock_guard guard(mutex_);
        int raw = 0;
        while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
        }
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
        exited_ = true;
        exitedChanged_.notify_all();
    }

    const pid_t pid_;
    mutable std::mutex mutex_;
    std::condition_variable exitedChanged_;
    bool exited_ = false;
    int status_ = 0;
};

// The child's standard error, drained by its own thread into the tail.
struct StderrReader {
    std::shared_ptr<StderrTail> tail;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;

    static std::shared_ptr<StderrReader> start(int fd, std::shared_ptr<StderrTail> tail) {
        auto reader = std::make_shared<StderrReader>();
        reader->tail = std::move(tail);
        std::thread([reader, fd] {
            platform::setCurrentThreadName("corvex.ssh.stderr");
            char buffer[4096];
            for (;;) {
                ssize_t count = ::read(fd, buffer, sizeof buffer);
                if (count < 0 && errno == EINTR) continue;
                if (count <= 0) break;
                reader->tail->append(std::string_view(buffer, static_cast<size_t>(count)));
            }
            ::close(fd);
            std::lock_guard guard(reader->mutex);
            reader->done = true;
            reader->finished.notify_all();
        }).detach();
        return reader;
    }

    // A process that ssh left behind (a control master) may hold stderr open for ever.
    void waitBriefly() {
        std::unique_lock guard(mutex);
        finished.wait_for(guard, 1s, [&] { return done; });
    }
};

struct Pipe {
    int read = -1;
    int write = -1;
};

Pipe makePipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) < 0) throw BackendError("internal", std::string("pipe() failed: ") + std::strerror(errno));
    return {fds[0], fds[1]};
}

void closeAll(std::initializer_list<int> fds) {
    for (int fd : fds) {
        if (fd >= 0) ::close(fd);
    }
}

void ignoreSigpipeOnce() {
    static std::once_flag once;
    std::call_once(once, [] { ::signal(SIGPIPE, SIG_IGN); });
}

// A whole piece of a file fits the pipes to and from ssh, so the side that writes a piece
// doesn't wait for ssh to take it in 64 KiB steps. Above the system's limit the default
// stays, which only costs speed.
constexpr int pipeBuffer = 1 << 20;

void enlargePipe(int fd) {
#ifdef F_SETPIPE_SZ
    (void)::fcntl(fd, F_SETPIPE_SZ, pipeBuffer);
#else
    (void)fd;
#endif
}

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, Pipe in, Pipe out, Pipe err) {
    try {
        return spawnChild(program, arguments, std::nullopt, in.read, out.write, err.write);
    } catch (const std::runtime_error& error) {
        closeAll({in.read, in.write, out.read, out.write, err.read, err.write});
        throw BackendError("failed", error.what());
    }
}

// What `ssh -G` prints, or nothing when it fails. It reads the configuration and exits
// without connecting.
std::optional<std::string> sshConfiguration(const std::string& ssh, const std::vector<std::string>& arguments) {
    try {
        ProcessRequest request;
        request.program = ssh;
        request.arguments = arguments;
        ProcessResult result = runProcess(request);
        if (result.status != 0) return std::nullopt;
        return std::move(result.out);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

std::optional<std::string> ciphersLine(const std::optional<std::string>& configuration) {
    if (!configuration) return std::nullopt;
    std::string_view text = *configuration;
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.starts_with("ciphers ")) return std::string(line.substr(8));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return std::nullopt;
}

} // namespace

// ---------------------------------------------------------------- SSHProcessTransport

const std::vector<std::string>& SSHProcessTransport::baseOptions() {
    // Never destroyed: a reconnect thread may open a stream while the process exits.
    static const auto* options = new std::vector<std::string>{"-T", "-o", "BatchMode=yes", "-o", "ConnectTimeout=10",
                                                              "-o", "ServerAliveInterval=15", "-o", "ServerAliveCountMax=3"};
    return *options;
}

const std::vector<std::string>& SSHProcessTransport::cipherOptions() {
    // Files cross this connection in bulk, and ssh and sshd spend most of their time on
    // the cipher: with AES instructions AES-GCM costs about half of ssh's default
    // ChaCha20-Poly1305 per byte, on both ends. "^" keeps the rest of the defaults behind it,
    // so a server without AES-GCM still agrees on one of them.
    static const auto* options = new std::vector<std::string>(
        platform::hasAESInstructions()
            ? std::vector<std::string>{"-o", "Ciphers=^aes128-gcm@openssh.com,aes256-gcm@openssh.com"}
            : std::vector<std::string>{});
    return *options;
}

// ssh takes the first value it obtains for an option, and the command line comes before any
// configuration file: the preference would silently replace a Ciphers line of the user's or
// of the system's. So it goes only where ssh would use its built-in list, which is what it
// reports with no configuration at all. Asked once per target and options in a process.
std::vector<std::string> SSHProcessTransport::cipherPreference() const {
    const std::vector<std::string>& preferred = cipherOptions();
    if (preferred.empty()) return {};
    std::string key = sshPath;
    for (const std::string& option : extraOptions) key += '\0' + option;
    key += '\0' + target;
    // Never destroyed, as baseOptions().
    static auto* lock = new std::mutex;
    static auto* decided = new std::map<std::string, bool>;
    std::optional<bool> prefer;
    {
        std::lock_guard guard(*lock);
        if (auto found = decided->find(key); found != decided->end()) prefer = found->second;
    }
    if (!prefer) {
        std::vector<std::string> effective{"-G"};
        effective.insert(effective.end(), baseOptions().begin(), baseOptions().end());
        effective.insert(effective.end(), extraOptions.begin(), extraOptions.end());
        effective.insert(effective.end(), {"--", target});
        std::optional<std::string> chosen = ciphersLine(sshConfiguration(sshPath, effective));
        std::optional<std::string> builtIn;
        if (chosen) builtIn = ciphersLine(sshConfiguration(sshPath, {"-G", "-F", "/dev/null", "--", target}));
        prefer = chosen && builtIn && *chosen == *builtIn;
        std::lock_guard guard(*lock);
        decided->emplace(key, *prefer);
    }
    return *prefer ? preferred : std::vector<std::string>{};
}

std::vector<std::string> SSHProcessTransport::arguments(const std::string& command) const {
    std::vector<std::string> arguments = baseOptions();
    std::vector<std::string> ciphers = cipherPreference();
    arguments.insert(arguments.end(), ciphers.begin(), ciphers.end());
    arguments.insert(arguments.end(), extraOptions.begin(), extraOptions.end());
    arguments.push_back("--");
    arguments.push_back(target);
    arguments.push_back(command);
    return arguments;
}

std::optional<std::string> SSHProcessTransport::exitReason(const std::string& target, int status,
                                                           const std::string& stderrText) {
    std::string detail = stderrText.empty() ? "" : ": " + stderrText;
    switch (status) {
    case 0:
        if (stderrText.empty()) return std::nullopt;
        return stderrText;
    case 255:
        return "Can't reach " + target + " over SSH" + detail;
    case 3:
        return "The sessions on " + target + " use an older corvexd; restart them to finish upgrading";
    default:
        return "corvexd on " + target + " exited with " + std::to_string(status) + detail;
    }
}

std::shared_ptr<ByteStream> SSHProcessTransport::open(const ProgressHandler& progress) {
    if (prepare) prepare(progress);
    if (progress) progress("Connecting");
    std::string command = remoteCommand ? remoteCommand() : std::string();
    ignoreSigpipeOnce();

    Pipe in = makePipe();
    Pipe out, err;
    try {
        out = makePipe();
        err = makePipe();
    } catch (...) {
        closeAll({in.read, in.write, out.read, out.write});
        throw;
    }
    enlargePipe(in.write);
    enlargePipe(out.read);
    pid_t pid = spawn(sshPath, arguments(command), in, out, err);
    closeAll({in.read, out.write, err.write});

    auto child = std::make_shared<ChildProcess>(pid);
    child->startWaiter(child);
    auto tail = std::make_shared<StderrTail>(onStderrLine);
    auto stderrReader = StderrReader::start(err.read, tail);

    // The follow-up kill waits on a thread of its own rather than a shared timer, which may
    // already be gone when a stream is shut down while the process exits.
    auto onShutdown = [child] {
        if (!child->running()) return;
        child->signal(SIGTERM);
        std::thread([child] {
            if (!child->waitStatusFor(3s)) child->signal(SIGKILL);
        }).detach();
    };
    auto closeReason = [child, stderrReader, tail, target = target, onExit = onExit]() -> std::optional<std::string> {
        int status = child->waitStatus();
        stderrReader->waitBriefly();
        std::string text = tail->text();
        if (onExit) onExit(status, text);
        return exitReason(target, status, text);
    };
    return ByteStream::make(out.read, in.write, std::move(onShutdown), std::move(closeReason));
}

} // namespace corvex
