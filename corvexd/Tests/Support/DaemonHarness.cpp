#include "Support/DaemonHarness.h"
#include "CorvexKit/Tests/Support/ScratchDirectory.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace corvexd::testing {

std::string DaemonHarness::executable() {
    const char* bin = std::getenv("CORVEX_BUILD_BIN");
    return std::string(bin ? bin : "build/ci/bin") + "/corvexd";
}

DaemonHarness::DaemonHarness() {
    char pattern[] = "/tmp/cxd-test-XXXXXX";
    base_ = ::mkdtemp(pattern);
    runtimeDir_ = base_ + "/run";
}

DaemonHarness::~DaemonHarness() {
    run({"shutdown"});
    for (pid_t child : children_) {
        if (!waitForExit(child, 0ms)) {
            ::kill(child, SIGKILL);
            waitForExit(child, 5s);
        }
    }
    std::error_code ignored;
    if (!std::getenv("CORVEXD_TEST_KEEP")) std::filesystem::remove_all(base_, ignored);
}

// Everything is prepared before the fork: the test process has threads, and a child of a
// threaded process may only make async-signal-safe calls before it execs (another thread may
// have held the allocator's lock at the fork).
pid_t DaemonHarness::spawn(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env,
                           const std::string& outPath, const std::string& errPath, const std::string& inPath) {
    std::string exe = executable();
    std::map<std::string, std::string> variables;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string text = *entry;
        auto equals = text.find('=');
        if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
    variables["CORVEXD_RUNTIME_DIR"] = runtimeDir_;
    variables.erase("CORVEXD_EPHEMERAL");
    for (const auto& [key, value] : env) variables[key] = value;
    std::vector<std::string> environment;
    for (const auto& [key, value] : variables) environment.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<char*> argv{exe.data()};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    int in = ::open(inPath.c_str(), O_RDONLY | O_CLOEXEC);
    int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::execve(exe.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    for (int fd : {in, out, err}) {
        if (fd >= 0) ::close(fd);
    }
    return pid;
}

CommandResult DaemonHarness::run(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env,
                                 const std::string& input) {
    std::string prefix = base_ + "/command" + std::to_string(commands_++);
    std::ofstream(prefix + ".in") << input;
    pid_t pid = spawn(arguments, env, prefix + ".out", prefix + ".err", prefix + ".in");
    CommandResult result;
    auto status = waitForExit(pid, 60s);
    if (!status) {
        ::kill(pid, SIGKILL);
        waitForExit(pid, 5s);
    }
    result.status = status.value_or(-1);
    result.out = corvex::testing::readFile(prefix + ".out");
    result.err = corvex::testing::readFile(prefix + ".err");
    return result;
}

pid_t DaemonHarness::spawnServe(const std::map<std::string, std::string>& env) {
    std::string prefix = base_ + "/serve" + std::to_string(commands_++);
    pid_t pid = spawn({"serve"}, env, prefix + ".out", prefix + ".err", "/dev/null");
    std::lock_guard guard(childrenLock_);
    children_.push_back(pid);
    return pid;
}

std::optional<int> DaemonHarness::waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        int status = 0;
        pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (done < 0 && errno != EINTR) return -1;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
}

pid_t DaemonHarness::daemonPid() const {
    return static_cast<pid_t>(std::atol(corvex::testing::readFile(runtimeDir_ + "/corvexd.pid").c_str()));
}

RawClient::RawClient(const std::string& socketPath, std::chrono::milliseconds patience, Greeting greeting) {
    connect(socketPath, patience);
    if (fd_ < 0 || greeting == Greeting::none) return;
    request("hello", {{"protocol", 1}, {"client", "tests"}});
    replies_.clear(); // tests count the replies to their own requests
}

void RawClient::connect(const std::string& socketPath, std::chrono::milliseconds patience) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
    while (true) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            fd_ = fd;
            return;
        }
        ::close(fd);
        if (std::chrono::steady_clock::now() >= deadline) return;
        std::this_thread::sleep_for(10ms);
    }
}

RawClient::~RawClient() {
    if (fd_ >= 0) ::close(fd_);
}

bool RawClient::sendBytes(const std::string& bytes) {
    size_t at = 0;
    while (at < bytes.size()) {
        ssize_t count = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += static_cast<size_t>(count);
    }
    return true;
}

bool RawClient::sendJSON(const json& message) { return sendBytes(corvex::makeJSONFrame(message.dump())); }

bool RawClient::pump(std::chrono::milliseconds timeout) {
    if (closed_ || fd_ < 0) return false;
    pollfd fds{fd_, POLLIN, 0};
    if (::poll(&fds, 1, static_cast<int>(timeout.count())) <= 0) return false;
    char buffer[65536];
    ssize_t count = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (count <= 0) {
        closed_ = true;
        return false;
    }
    bool ok = parser_.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view payload) {
        if (type == static_cast<uint8_t>(corvex::FrameType::output)) {
            if (auto output = corvex::parseOutputPayload(payload)) {
                outputs_.push_back({output->pane, output->seq, std::string(output->bytes), replies_.size()});
            }
            return;
        }
        if (type == static_cast<uint8_t>(corvex::FrameType::snapshot)) {
            if (auto snapshot = corvex::parseSnapshotPayload(payload)) {
                snapshots_.push_back({snapshot->pane, snapshot->seq, snapshot->cols, snapshot->rows,
                                      std::string(snapshot->bytes)});
            }
            return;
        }
        if (type != static_cast<uint8_t>(corvex::FrameType::json)) return;
        json message = json::parse(payload, nullptr, false);
        if (message.contains("id")) {
            replies_.push_back(message);
        } else {
            events_.push_back(message);
        }
    });
    if (!ok) closed_ = true;
    return ok;
}

std::optional<json> RawClient::request(const std::string& method, const json& params, std::chrono::milliseconds timeout) {
    int64_t id = nextID_++;
    json message = {{"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    if (!sendJSON(message)) return std::nullopt;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        for (const auto& reply : replies_) {
            if (reply["id"] == id) return reply;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return std::nullopt;
        pump(left);
    }
}

std::optional<json> RawClient::nextEvent(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (events_.empty()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return std::nullopt;
        pump(left);
    }
    json event = events_.front();
    events_.pop_front();
    return event;
}

std::string RawClient::outputOf(uint64_t pane) const {
    std::string out;
    for (const auto& output : outputs_) {
        if (output.pane == pane) out += output.bytes;
    }
    return out;
}

bool RawClient::untilOutput(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (outputOf(pane).find(text) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return false;
        pump(left);
    }
    return true;
}

bool RawClient::closedByPeer(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!closed_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) return false;
        pump(left);
    }
    return true;
}

} // namespace corvexd::testing
