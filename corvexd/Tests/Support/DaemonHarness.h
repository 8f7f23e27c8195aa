#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "CorvexKit/FrameParser.h"

namespace corvexd::testing {

using nlohmann::json;
using namespace std::chrono_literals;

struct CommandResult {
    int status = -1; // exit status, or -1 when killed
    std::string out;
    std::string err;
};

// A real corvexd executable on a runtime folder of its own under a fresh temporary folder.
// Whatever it started is shut down when the harness goes.
class DaemonHarness {
public:
    DaemonHarness();
    ~DaemonHarness();
    DaemonHarness(const DaemonHarness&) = delete;
    DaemonHarness& operator=(const DaemonHarness&) = delete;

    static std::string executable();

    const std::string& base() const { return base_; }
    const std::string& runtimeDir() const { return runtimeDir_; }
    void setRuntimeDir(std::string path) { runtimeDir_ = std::move(path); }
    std::string socketPath() const { return runtimeDir_ + "/corvexd.sock"; }

    // Runs one sub-command to its end with the harness's environment plus `env`. Safe from
    // any thread, as a client's start-the-daemon hook may call it beside the test.
    CommandResult run(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env = {},
                      const std::string& input = {});
    // `corvexd serve` as a child of the test; returns its pid.
    pid_t spawnServe(const std::map<std::string, std::string>& env = {});
    // The child's exit status, or absent when it is still running at the deadline.
    static std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout);
    // The pid named by the pid file, or 0.
    pid_t daemonPid() const;

private:
    pid_t spawn(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env,
                const std::string& outPath, const std::string& errPath, const std::string& inPath);

    std::string base_;
    std::string runtimeDir_;
    std::atomic<int> commands_ = 0;
    std::mutex childrenLock_;
    std::vector<pid_t> children_; // under childrenLock_
};

// A client speaking frames over a plain socket, for the tests that need to misbehave.
class RawClient {
public:
    // Whether the client opens with hello, as every well-behaved client does.
    enum class Greeting { hello, none };
    // Connects, retrying while the daemon comes up, and says hello unless told not to.
    explicit RawClient(const std::string& socketPath, std::chrono::milliseconds patience = 10s,
                       Greeting greeting = Greeting::hello);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // For a test that closed the descriptor itself.
    void forgetDescriptor() { fd_ = -1; }

    bool sendBytes(const std::string& bytes);
    bool sendJSON(const json& message);
    // Sends a request and waits for its reply; events seen meanwhile are kept. Absent on
    // timeout or a closed connection.
    std::optional<json> request(const std::string& method, const json& params = nullptr,
                                std::chrono::milliseconds timeout = 10s);
    // The next event (or queued one); absent on timeout or close.
    std::optional<json> nextEvent(std::chrono::milliseconds timeout = 10s);
    // True when the daemon closes the connection within the timeout (reading what comes).
    bool closedByPeer(std::chrono::milliseconds timeout = 10s);
    struct Output {
        uint64_t pane = 0;
        uint64_t seq = 0;
        std::string bytes;
        size_t afterReplies = 0; // replies received before this frame
    };
    // Output frames received so far, in order.
    const std::vector<Output>& outputs() const { return outputs_; }
    struct Snapshot {
        uint64_t pane = 0;
        uint64_t seq = 0;
        int cols = 0;
        int rows = 0;
        std::string bytes;
    };
    const std::vector<Snapshot>& snapshots() const { return snapshots_; }
    // All output bytes received for a pane, in order.
    std::string outputOf(uint64_t pane) const;
    // Reads until the pane's output holds `text`; false on timeout or close.
    bool untilOutput(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout = 10s);
    // Reads whatever arrives within the timeout.
    void drain(std::chrono::milliseconds timeout) { while (pump(timeout)) {} }
    // JSON frames received so far that were replies, in order.
    const std::vector<json>& replies() const { return replies_; }
    bool closed() const { return closed_; }

private:
    void connect(const std::string& socketPath, std::chrono::milliseconds patience);
    // Reads once (waiting up to `timeout`); false on close or timeout.
    bool pump(std::chrono::milliseconds timeout);

    int fd_ = -1;
    int64_t nextID_ = 1;
    bool closed_ = false;
    corvex::FrameParser parser_;
    std::deque<json> events_;
    std::vector<json> replies_;
    std::vector<Output> outputs_;
    std::vector<Snapshot> snapshots_;
};

} // namespace corvexd::testing
